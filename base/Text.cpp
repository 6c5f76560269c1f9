#include "base/Text.h"

#include <windows.h>

namespace {
wchar_t Upper(wchar_t character) {
    CharUpperBuffW(&character, 1);
    return character;
}
}  // namespace

bool SameName(const std::wstring& one, const std::wstring& other) {
    return lstrcmpiW(one.c_str(), other.c_str()) == 0;
}

bool MatchesPattern(const std::wstring& name, const std::wstring& pattern) {
    size_t at = 0;
    size_t next = 0;
    size_t star = std::wstring::npos;  // the last '*'
    size_t taken = 0;                  // where the text begins that it does not stand for
    while (at < name.size()) {
        if (next < pattern.size() && pattern[next] == L'*') {
            star = next++;
            taken = at;
        } else if (next < pattern.size() &&
                   (pattern[next] == L'?' || Upper(pattern[next]) == Upper(name[at]))) {
            ++next;
            ++at;
        } else if (star != std::wstring::npos) {
            next = star + 1;
            at = ++taken;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of(L'*', next) == std::wstring::npos;
}

std::wstring ToWide(std::string_view utf8) {
    const int size = static_cast<int>(utf8.size());
    std::wstring result(MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, result.data(),
                        static_cast<int>(result.size()));
    return result;
}

std::string ToUtf8(std::wstring_view utf16) {
    const int size = static_cast<int>(utf16.size());
    std::string result(
        WideCharToMultiByte(CP_UTF8, 0, utf16.data(), size, nullptr, 0, nullptr, nullptr), '\0');
    WideCharToMultiByte(CP_UTF8, 0, utf16.data(), size, result.data(),
                        static_cast<int>(result.size()), nullptr, nullptr);
    return result;
}

std::string ErrorText(DWORD code) {
    wchar_t buffer[512];
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                        nullptr, code, 0, buffer, ARRAYSIZE(buffer), nullptr);
    std::wstring_view text(buffer, length);
    text = text.substr(0, text.find_last_not_of(L".\r\n ") + 1);
    return (text.empty() ? "error" : ToUtf8(text)) + " (" + std::to_string(code) + ")";
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

std::string WideToAnsi(std::wstring_view utf16) {
    const int size = static_cast<int>(utf16.size());
    std::string result(
        WideCharToMultiByte(CP_ACP, 0, utf16.data(), size, nullptr, 0, nullptr, nullptr), '\0');
    WideCharToMultiByte(CP_ACP, 0, utf16.data(), size, result.data(),
                        static_cast<int>(result.size()), nullptr, nullptr);
    return result;
}
