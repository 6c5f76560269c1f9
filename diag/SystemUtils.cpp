#include "diag/SystemUtils.h"

#include "diag/Log.h"

namespace system_helper {

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

}  // namespace system_helper
