// Text between Windows (UTF-16) and administration (UTF-8).
#pragma once

#include <windows.h>

#include <cstddef>
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

// Returns a number with its noun: "1 printer", "2 printers".
std::string Count(size_t number, const std::string& noun);
