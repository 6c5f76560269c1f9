#include "diag/SystemUtils.h"

#include <climits>

#include "diag/Log.h"

namespace system_helper {
namespace {

// The code-page functions count in int.
int Length(size_t length) {
    return length > INT_MAX ? INT_MAX : static_cast<int>(length);
}

}  // namespace

std::string ErrorText(DWORD code) {
    char text[1024];
    const DWORD length = FormatMessageA(
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
        nullptr, code, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), text, sizeof text, nullptr);
    return length != 0 ? std::string(text, length) : "error " + std::to_string(code);
}

std::wstring LCIDToTLA(LCID lcid) {
    wchar_t name[10];
    if (GetLocaleInfoW(lcid, LOCALE_SABBREVLANGNAME, name, 10) == 0) {
        LogSystemError("system_helper::LCIDToTLA", "LCID ", lcid, " is invalid ", GetLastError());
        return {};
    }
    return name;
}

std::string ToNarrow(std::wstring_view text) {
    const int length = Length(text.size());
    std::string narrow(
        WideCharToMultiByte(CP_ACP, 0, text.data(), length, nullptr, 0, nullptr, nullptr), '\0');
    WideCharToMultiByte(CP_ACP, 0, text.data(), length, narrow.data(), Length(narrow.size()),
                        nullptr, nullptr);
    return narrow;
}

std::wstring ToWide(std::string_view text) {
    const int length = Length(text.size());
    std::wstring wide(MultiByteToWideChar(CP_ACP, 0, text.data(), length, nullptr, 0), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text.data(), length, wide.data(), Length(wide.size()));
    return wide;
}

}  // namespace system_helper
