#include "monitor/Library.h"

CRITICAL_SECTION PortListLock;

namespace {

// The high bit asks the system to allocate the section's event now, so that entering it can
// never fail later for want of memory.
constexpr DWORD kLockSpinCount = 0x80000000;

HMODULE libraryModule = nullptr;
MONITORINIT* monitorInit = nullptr;

}  // namespace

BOOL LibraryMain(HMODULE module, DWORD reason) noexcept {
    switch (reason) {
        case DLL_PROCESS_ATTACH: {
            libraryModule = module;
            WSADATA data;
            WSAStartup(MAKEWORD(2, 2), &data);
            InitializeCriticalSectionAndSpinCount(&PortListLock, kLockSpinCount);
            DisableThreadLibraryCalls(module);
            break;
        }
        // Thread calls are disabled above, and DllMain lets none through where the system cannot
        // disable them; one that came all the same would end here too.
        case DLL_PROCESS_DETACH:
        case DLL_THREAD_ATTACH:
        case DLL_THREAD_DETACH:
            WSACleanup();
            DeleteCriticalSection(&PortListLock);
            break;
        default:
            break;
    }
    return TRUE;
}

HMODULE LibraryModule() noexcept {
    return libraryModule;
}

void SetMonitorInit(MONITORINIT* init) noexcept {
    monitorInit = init;
}

MONITORINIT* MonitorInit() noexcept {
    return monitorInit;
}
