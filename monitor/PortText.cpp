#include "monitor/PortText.h"

#include <algorithm>
#include <cwchar>

size_t EndText(wchar_t* buffer, size_t room, size_t length) noexcept {
    buffer[std::min(length, room - 1)] = L'\0';
    return std::wcslen(buffer);
}

bool IsSpoolerPseudoPort(const wchar_t* name) noexcept {
    if ((name[0] != L'N' && name[0] != L'n') || (name[1] != L'E' && name[1] != L'e')) {
        return false;
    }
    const wchar_t* rest = name + 2;
    if (*rest == L'-') {
        ++rest;
    }
    while (*rest >= L'0' && *rest <= L'9') {
        ++rest;
    }
    return rest[0] == L':' && rest[1] == L'\0';
}
