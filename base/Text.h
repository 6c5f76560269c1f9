// Text of Windows (UTF-16), of administration (UTF-8), and of the wire and name resolution (the
// system's ANSI code page). All functions may be called by several threads at once.
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>
#include <string_view>

// Converts text between UTF-16 and UTF-8. What is not valid in the one encoding becomes U+FFFD in
// the other.
std::wstring Utf8ToWide(std::string_view utf8);
std::string WideToUtf8(std::wstring_view utf16);

// Converts text between UTF-16 and the system's ANSI code page. What the code page lacks becomes
// its default character. Embedded NULs are kept.
std::wstring AnsiToWide(std::string_view ansi);
std::string WideToAnsi(std::wstring_view utf16);

// A wide text in the ANSI code page, in a buffer of N bytes with its terminator. What does not
// convert, or not fit, is as the conversion leaves it. Takes no memory.
template <size_t N>
struct AnsiText {
    explicit AnsiText(LPCWSTR wide) noexcept {
        WideCharToMultiByte(CP_ACP, 0, wide, -1, text, static_cast<int>(N), nullptr, nullptr);
        text[N - 1] = '\0';
    }
    char text[N] = {};
};

// Returns true for two spellings of one port's, queue's or printer's name: case does not count.
bool SameName(const std::wstring& one, const std::wstring& other);

// Returns true if the pattern matches the whole name: '*' stands for any text, '?' for any
// character. Case does not count.
bool MatchesPattern(const std::wstring& name, const std::wstring& pattern);

// The system's text for a Win32, Windows Sockets or getaddrinfo error code, with the code:
// "Access is denied (5)".
std::string ErrorText(DWORD code);

// Text from the network for a terminal, which must not take any of it for a command: control
// characters (of ASCII, and U+0080 to U+009F) become question marks.
std::string Printable(std::string_view utf8);

// Returns a number with its noun: "1 printer", "2 printers".
std::string Count(size_t number, const std::string& noun);
