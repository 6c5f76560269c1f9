#include "admin/channel/MonitorRegistry.h"

namespace {

MonitorRegistry* Of(HANDLE spooler) {
    return static_cast<MonitorRegistry*>(spooler);
}

HKEY Key(HANDLE key) {
    return static_cast<HKEY>(key);
}

// The callbacks; the last argument of each is the spooler's handle.

LONG WINAPI CreateKey(HANDLE key, LPCWSTR name, DWORD options, REGSAM access,
                      PSECURITY_ATTRIBUTES security, PHANDLE result, PDWORD disposition,
                      HANDLE spooler) {
    return Of(spooler)->CreateKey(Key(key), name, options, access, security,
                                  reinterpret_cast<HKEY*>(result), disposition);
}

LONG WINAPI OpenKey(HANDLE key, LPCWSTR name, REGSAM access, PHANDLE result, HANDLE spooler) {
    return Of(spooler)->OpenKey(Key(key), name, access, reinterpret_cast<HKEY*>(result));
}

LONG WINAPI CloseKey(HANDLE key, HANDLE spooler) {
    return Of(spooler)->CloseKey(Key(key));
}

LONG WINAPI DeleteKey(HANDLE key, LPCWSTR name, HANDLE spooler) {
    return Of(spooler)->DeleteKey(Key(key), name);
}

LONG WINAPI EnumKey(HANDLE key, DWORD index, LPWSTR name, PDWORD length, PFILETIME written,
                    HANDLE spooler) {
    return Of(spooler)->EnumKey(Key(key), index, name, length, written);
}

LONG WINAPI QueryInfoKey(HANDLE key, PDWORD subkeys, PDWORD longestSubkey, PDWORD values,
                         PDWORD longestValueName, PDWORD longestData, PDWORD security,
                         PFILETIME written, HANDLE spooler) {
    return Of(spooler)->QueryInfoKey(Key(key), subkeys, longestSubkey, values, longestValueName,
                                     longestData, security, written);
}

LONG WINAPI SetValue(HANDLE key, LPCWSTR name, DWORD type, const BYTE* data, DWORD size,
                     HANDLE spooler) {
    return Of(spooler)->SetValue(Key(key), name, type, data, size);
}

LONG WINAPI DeleteValue(HANDLE key, LPCWSTR name, HANDLE spooler) {
    return Of(spooler)->DeleteValue(Key(key), name);
}

LONG WINAPI EnumValue(HANDLE key, DWORD index, LPWSTR name, PDWORD length, PDWORD type, PBYTE data,
                      PDWORD size, HANDLE spooler) {
    return Of(spooler)->EnumValue(Key(key), index, name, length, type, data, size);
}

LONG WINAPI QueryValue(HANDLE key, LPCWSTR name, PDWORD type, PBYTE data, PDWORD size,
                       HANDLE spooler) {
    return Of(spooler)->QueryValue(Key(key), name, type, data, size);
}

MONITORREG callbacks = {sizeof(MONITORREG), CreateKey, OpenKey,     CloseKey,  DeleteKey, EnumKey,
                        QueryInfoKey,       SetValue,  DeleteValue, EnumValue, QueryValue};

}  // namespace

MONITORINIT MonitorRegistry::MonitorInit(HKEY root) {
    return {sizeof(MONITORINIT), this, root, &callbacks, TRUE, nullptr};
}

LONG MonitorRegistry::CreateKey(HKEY key, LPCWSTR name, DWORD options, REGSAM access,
                                SECURITY_ATTRIBUTES* security, HKEY* result, DWORD* disposition) {
    return RegCreateKeyExW(key, name, 0, nullptr, options, access, security, result, disposition);
}

LONG MonitorRegistry::OpenKey(HKEY key, LPCWSTR name, REGSAM access, HKEY* result) {
    return RegOpenKeyExW(key, name, 0, access, result);
}

LONG MonitorRegistry::CloseKey(HKEY key) {
    return RegCloseKey(key);
}

LONG MonitorRegistry::DeleteKey(HKEY key, LPCWSTR name) {
    return RegDeleteKeyW(key, name);
}

LONG MonitorRegistry::EnumKey(HKEY key, DWORD index, LPWSTR name, DWORD* length,
                              FILETIME* written) {
    return RegEnumKeyExW(key, index, name, length, nullptr, nullptr, nullptr, written);
}

LONG MonitorRegistry::QueryInfoKey(HKEY key, DWORD* subkeys, DWORD* longestSubkey, DWORD* values,
                                   DWORD* longestValueName, DWORD* longestData, DWORD* security,
                                   FILETIME* written) {
    return RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, subkeys, longestSubkey, nullptr, values,
                            longestValueName, longestData, security, written);
}

LONG MonitorRegistry::SetValue(HKEY key, LPCWSTR name, DWORD type, const BYTE* data, DWORD size) {
    return RegSetValueExW(key, name, 0, type, data, size);
}

LONG MonitorRegistry::DeleteValue(HKEY key, LPCWSTR name) {
    return RegDeleteValueW(key, name);
}

LONG MonitorRegistry::EnumValue(HKEY key, DWORD index, LPWSTR name, DWORD* length, DWORD* type,
                                BYTE* data, DWORD* size) {
    return RegEnumValueW(key, index, name, length, nullptr, type, data, size);
}

LONG MonitorRegistry::QueryValue(HKEY key, LPCWSTR name, DWORD* type, BYTE* data, DWORD* size) {
    return RegQueryValueExW(key, name, nullptr, type, data, size);
}
