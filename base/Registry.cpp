#include "base/Registry.h"

UniqueRegistryKey OpenKey(HKEY parent, const std::wstring& name) {
    UniqueRegistryKey key;
    return RegOpenKeyExW(parent, name.c_str(), 0, KEY_READ, key.Out()) == ERROR_SUCCESS
               ? std::move(key)
               : UniqueRegistryKey();
}

std::vector<std::wstring> Subkeys(const UniqueRegistryKey& key) {
    std::vector<std::wstring> names;
    wchar_t name[256];
    DWORD length = 0;
    while (length = 256,
           key && RegEnumKeyExW(key.Get(), static_cast<DWORD>(names.size()), name, &length, nullptr,
                                nullptr, nullptr, nullptr) == ERROR_SUCCESS) {
        names.emplace_back(name, length);
    }
    return names;
}

std::wstring ReadText(HKEY key, LPCWSTR value) {
    DWORD size = 0;
    if (RegGetValueW(key, nullptr, value, RRF_RT_REG_SZ, nullptr, nullptr, &size) != 0) {
        return {};
    }
    std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
    size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (RegGetValueW(key, nullptr, value, RRF_RT_REG_SZ, nullptr, text.data(), &size) != 0) {
        return {};
    }
    return text.c_str();
}

DWORD ReadNumber(HKEY key, LPCWSTR value) {
    DWORD number = 0;
    DWORD size = sizeof(number);
    return RegGetValueW(key, nullptr, value, RRF_RT_REG_DWORD, nullptr, &number, &size) == 0
               ? number
               : 0;
}
