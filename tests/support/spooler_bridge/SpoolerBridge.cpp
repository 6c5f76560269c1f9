// Lets Wine's own print spooler load kestmon.dll. The bridge is registered as the monitor's driver,
// loads the library that is installed in the system folder, and supplies what Wine 8 lacks:
// registry callbacks, a MONITORINIT that outlives the call, and the name of a job's printer. The
// variable SPOOLER_REFUSES in the environment of a program has the spooler refuse it a `channel` to
// the monitor, or `access`.
#include <winsock2.h>
#include <windows.h>
#include <winspool.h>
#include <winsplp.h>

#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "base/Handles.h"
#include "admin/channel/MonitorRegistry.h"

namespace {

MONITOR2 monitor = {};  // the table of kestmon.dll
std::mutex lock;
std::map<HANDLE, std::wstring> openedPorts;  // the name of each port handle; guarded by `lock`

// Returns the name of the first printer on a port; empty if there is none.
std::wstring PrinterOn(const std::wstring& port) {
    DWORD needed = 0;
    DWORD count = 0;
    EnumPrintersW(PRINTER_ENUM_LOCAL, nullptr, 2, nullptr, 0, &needed, &count);
    std::vector<BYTE> buffer(needed);
    if (!EnumPrintersW(PRINTER_ENUM_LOCAL, nullptr, 2, buffer.data(), needed, &needed, &count)) {
        return {};
    }
    const auto* printers = reinterpret_cast<const PRINTER_INFO_2W*>(buffer.data());
    for (DWORD i = 0; i < count; ++i) {
        if (lstrcmpiW(printers[i].pPortName, port.c_str()) == 0) {
            return printers[i].pPrinterName;
        }
    }
    return {};
}

BOOL WINAPI OpenPort(HANDLE handle, LPWSTR name, PHANDLE port) {
    if (!monitor.pfnOpenPort(handle, name, port)) {
        return FALSE;
    }
    const std::lock_guard guard(lock);
    openedPorts[*port] = name;
    return TRUE;
}

BOOL WINAPI StartDocPort(HANDLE port, LPWSTR, DWORD job, DWORD level, LPBYTE document) {
    std::wstring name;
    {
        const std::lock_guard guard(lock);
        name = openedPorts[port];
    }
    std::wstring printer = PrinterOn(name);
    return monitor.pfnStartDocPort(port, printer.data(), job, level, document);
}

bool Refuses(const std::wstring& what) {
    WCHAR value[16] = {};
    GetEnvironmentVariableW(L"SPOOLER_REFUSES", value, 16);
    return value == what;
}

// The first channel of a program that opens a dialog is the spooler's: it asks for the library.
BOOL WINAPI OpenXcvPort(HANDLE handle, LPCWSTR object, ACCESS_MASK granted, PHANDLE xcv) {
    static std::atomic<bool> opened = false;
    return !(opened.exchange(true) && Refuses(L"channel")) &&
           monitor.pfnXcvOpenPort(handle, object, granted, xcv);
}

DWORD WINAPI SendXcvData(HANDLE xcv, LPCWSTR command, PBYTE input, DWORD inputSize, PBYTE output,
                         DWORD outputSize, PDWORD needed) {
    static std::atomic<bool> asked = false;
    return asked.exchange(true) && Refuses(L"access")
               ? ERROR_ACCESS_DENIED
               : monitor.pfnXcvDataPort(xcv, command, input, inputSize, output, outputSize, needed);
}

}  // namespace

extern "C" LPMONITOR2 WINAPI InitializePrintMonitor2(PMONITORINIT, PHANDLE handle) {
    static MonitorRegistry registry;
    static UniqueRegistryKey root;
    RegOpenKeyExW(HKEY_LOCAL_MACHINE,
                  L"SYSTEM\\CurrentControlSet\\Control\\Print\\Monitors\\kestmon", 0,
                  KEY_ALL_ACCESS, root.Out());
    static MONITORINIT init = registry.MonitorInit(root.Get());
    static MONITOR2 table = {};
    // By its full path: the folder of the program may hold another kestmon.dll.
    WCHAR path[MAX_PATH] = {};
    GetSystemDirectoryW(path, MAX_PATH);
    const HMODULE library = LoadLibraryW((path + std::wstring(L"\\kestmon.dll")).c_str());
    const auto initialize = reinterpret_cast<decltype(&InitializePrintMonitor2)>(
        reinterpret_cast<void (*)()>(GetProcAddress(library, "InitializePrintMonitor2")));
    const MONITOR2* const loaded = initialize != nullptr ? initialize(&init, handle) : nullptr;
    if (loaded == nullptr) {
        return nullptr;
    }
    std::memcpy(&monitor, loaded, loaded->cbSize);
    table = monitor;
    table.pfnOpenPort = OpenPort;
    table.pfnStartDocPort = StartDocPort;
    table.pfnXcvOpenPort = OpenXcvPort;
    table.pfnXcvDataPort = SendXcvData;
    return &table;
}
