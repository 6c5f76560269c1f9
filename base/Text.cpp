#include "base/Text.h"

#include <windows.h>

#include <algorithm>
#include <climits>

#include "base/Ascii.h"

namespace {

// The conversions count in int.
int Length(size_t length) {
    return static_cast<int>(std::min<size_t>(length, INT_MAX));
}

std::wstring ToWide(UINT codePage, std::string_view text) {
    const int length = Length(text.size());
    std::wstring wide(MultiByteToWideChar(codePage, 0, text.data(), length, nullptr, 0), L'\0');
    MultiByteToWideChar(codePage, 0, text.data(), length, wide.data(), Length(wide.size()));
    return wide;
}

std::string FromWide(UINT codePage, std::wstring_view wide) {
    const int length = Length(wide.size());
    std::string text(
        WideCharToMultiByte(codePage, 0, wide.data(), length, nullptr, 0, nullptr, nullptr), '\0');
    WideCharToMultiByte(codePage, 0, wide.data(), length, text.data(), Length(text.size()), nullptr,
                        nullptr);
    return text;
}

wchar_t ToUpper(wchar_t character) {
    CharUpperBuffW(&character, 1);
    return character;
}

}  // namespace

std::wstring Utf8ToWide(std::string_view utf8) {
    return ToWide(CP_UTF8, utf8);
}

std::string WideToUtf8(std::wstring_view utf16) {
    return FromWide(CP_UTF8, utf16);
}

std::wstring AnsiToWide(std::string_view ansi) {
    return ToWide(CP_ACP, ansi);
}

std::string WideToAnsi(std::wstring_view utf16) {
    return FromWide(CP_ACP, utf16);
}

bool SameName(const std::wstring& one, const std::wstring& other) {
    return lstrcmpiW(one.c_str(), other.c_str()) == 0;
}

bool MatchesPattern(const std::wstring& name, const std::wstring& pattern) {
    return MatchesWildcards(std::wstring_view(name), std::wstring_view(pattern),
                            [](wchar_t x, wchar_t y) { return ToUpper(x) == ToUpper(y); });
}

std::string ErrorText(DWORD code) {
    wchar_t buffer[512];
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                        nullptr, code, 0, buffer, ARRAYSIZE(buffer), nullptr);
    std::wstring_view text(buffer, length);
    text = text.substr(0, text.find_last_not_of(L".\r\n ") + 1);
    return (text.empty() ? "error" : WideToUtf8(text)) + " (" + std::to_string(code) + ")";
}

std::string Printable(std::string_view utf8) {
    std::string result(utf8);
    for (size_t i = 0; i < result.size(); ++i) {
        const auto byte = static_cast<unsigned char>(result[i]);
        const auto next = static_cast<unsigned char>(i + 1 < result.size() ? result[i + 1] : 0);
        if (byte < 0x20 || byte == 0x7F) {
            result[i] = '?';
        } else if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {
            result.replace(i, 2, "?");
        }
    }
    return result;
}

std::string Count(size_t number, const std::string& noun) {
    return std::to_string(number) + ' ' + noun + (number == 1 ? "" : "s");
}
