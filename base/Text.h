// Text between Windows (UTF-16) and administration (UTF-8).
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

// Converts text; what is not valid in the one encoding becomes U+FFFD in the other.
std::wstring ToWide(std::string_view utf8);
std::string ToUtf8(std::wstring_view utf16);

// The system's text for a Win32, Windows Sockets or getaddrinfo error code, with the code:
// "Access is denied (5)".
std::string ErrorText(DWORD code);

// Text from the network for a terminal, which must not take any of it for a command: control
// characters (of ASCII, and U+0080 to U+009F) become question marks.
std::string Printable(std::string_view utf8);

// Converts text to the system's ANSI code page.
std::string WideToAnsi(std::wstring_view utf16);

// True for two spellings of one port's, queue's or printer's name: letter case does not count.
bool SameName(const std::wstring& one, const std::wstring& other);

// True when the pattern has '*' for any text or '?' for any character and the name is like it.
// Letter case does not count.
bool MatchesPattern(const std::wstring& name, const std::wstring& pattern);
