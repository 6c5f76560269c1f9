// The registry that a spooler gives to a monitor. The callbacks of MONITORREG call the functions of
// this class, which work on the system's registry; tests and benches override them.
#pragma once

#include <winsock2.h>
#include <windows.h>
#include <winspool.h>
#include <winsplp.h>

class MonitorRegistry {
  public:
    MonitorRegistry() = default;
    virtual ~MonitorRegistry() = default;
    MonitorRegistry(const MonitorRegistry&) = delete;
    MonitorRegistry& operator=(const MonitorRegistry&) = delete;

    // What InitializePrintMonitor2 takes. It refers to this object, which must outlive the monitor.
    //   root: the monitor's root key.
    MONITORINIT MonitorInit(HKEY root);

    virtual LONG CreateKey(HKEY key, LPCWSTR name, DWORD options, REGSAM access,
                           SECURITY_ATTRIBUTES* security, HKEY* result, DWORD* disposition);
    virtual LONG OpenKey(HKEY key, LPCWSTR name, REGSAM access, HKEY* result);
    virtual LONG CloseKey(HKEY key);
    virtual LONG DeleteKey(HKEY key, LPCWSTR name);
    virtual LONG EnumKey(HKEY key, DWORD index, LPWSTR name, DWORD* length, FILETIME* written);
    virtual LONG QueryInfoKey(HKEY key, DWORD* subkeys, DWORD* longestSubkey, DWORD* values,
                              DWORD* longestValueName, DWORD* longestData, DWORD* security,
                              FILETIME* written);
    virtual LONG SetValue(HKEY key, LPCWSTR name, DWORD type, const BYTE* data, DWORD size);
    virtual LONG DeleteValue(HKEY key, LPCWSTR name);
    virtual LONG EnumValue(HKEY key, DWORD index, LPWSTR name, DWORD* length, DWORD* type,
                           BYTE* data, DWORD* size);
    virtual LONG QueryValue(HKEY key, LPCWSTR name, DWORD* type, BYTE* data, DWORD* size);
};
