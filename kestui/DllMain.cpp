// The entry of kestui.dll.
#include <winsock2.h>
#include <windows.h>
#include <winspool.h>
#include <winsplp.h>

#include "kestui/MonitorUI.h"

namespace {

template <class Call>
BOOL WithSystem(Call call) noexcept {
    try {
        return call(SystemEnvironment());
    } catch (...) {
        SetLastError(ERROR_OUTOFMEMORY);
        return FALSE;
    }
}

BOOL WINAPI AddPortUI(PCWSTR server, HWND owner, PCWSTR, PWSTR* name) {
    return WithSystem(
        [&](const Environment& system) { return AddPortByDialog(system, server, owner, name); });
}

BOOL WINAPI ConfigurePortUI(PCWSTR server, HWND owner, PCWSTR port) {
    return WithSystem([&](const Environment& system) {
        return ConfigurePortByDialog(system, server, owner, port);
    });
}

BOOL WINAPI DeletePortUI(PCWSTR server, HWND owner, PCWSTR port) {
    return WithSystem(
        [&](const Environment& system) { return DeletePortByDialog(system, server, owner, port); });
}

MONITORUI table = {sizeof(table), AddPortUI, ConfigurePortUI, DeletePortUI};

}  // namespace

// Needed although it does nothing: otherwise the linker takes the DllMain of spoolss.dll's import
// library.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID) {
    return TRUE;
}

PMONITORUI WINAPI InitializePrintMonitorUI() {
    return &table;
}
