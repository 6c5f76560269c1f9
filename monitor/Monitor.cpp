// The library's one export, and the table of entry points that it hands to the spooler.
#include <new>

#include "monitor/PortConfig.h"
#include "monitor/PortText.h"
#include "monitor/PortList.h"
#include "monitor/Transport.h"
#include "monitor/Xcv.h"

namespace {

BOOL WINAPI GetPrinterDataFromPort(HANDLE, DWORD, LPWSTR, LPWSTR, DWORD, LPWSTR, DWORD, LPDWORD) {
    return FALSE;
}

DWORD WINAPI SendRecvBidiDataFromPort(HANDLE, DWORD, LPCWSTR, PBIDI_REQUEST_CONTAINER,
                                      PBIDI_RESPONSE_CONTAINER*) {
    return ERROR_NOT_SUPPORTED;
}

// Ends the monitor: lets go of all its ports. Takes no lock; the spooler calls nothing beside it.
void WINAPI Shutdown(HANDLE hMonitor) {
    MonitorHandle* monitor = MonitorOf(hMonitor);
    if (monitor == nullptr) {
        return;
    }
    RemoveAllPortEntries(monitor);
    DetachXcvHandles(monitor);
    monitor->signature = 0;  // so that a handle used too late is refused
    GlobalFree(monitor);
}

// The table up to its last slot of Windows XP, which is all that this monitor fills.
constexpr DWORD kTableSize = 160;
static_assert(kTableSize ==
              offsetof(MONITOR2, pfnSendRecvBidiDataFromPort) + sizeof(MONITOR2::pfnShutdown));
// Compatibility: Windows 2000 gets this size although no table has it; that system's spooler has
// always received it.
constexpr DWORD kTableSizeWindows2000 = 148;

MONITOR2 table = {
    .cbSize = kTableSize,
    .pfnEnumPorts = EnumPorts,
    .pfnOpenPort = OpenPort,
    .pfnOpenPortEx = nullptr,
    .pfnStartDocPort = StartDocPort,
    .pfnWritePort = WritePort,
    .pfnReadPort = ReadPort,
    .pfnEndDocPort = EndDocPort,
    .pfnClosePort = ClosePort,
    .pfnAddPort = nullptr,
    .pfnAddPortEx = AddPortEx,
    .pfnConfigurePort = nullptr,
    .pfnDeletePort = nullptr,
    .pfnGetPrinterDataFromPort = GetPrinterDataFromPort,
    .pfnSetPortTimeOuts = nullptr,
    .pfnXcvOpenPort = XcvOpenPort,
    .pfnXcvDataPort = XcvDataPort,
    .pfnXcvClosePort = XcvClosePort,
    .pfnShutdown = Shutdown,
    .pfnSendRecvBidiDataFromPort = SendRecvBidiDataFromPort,
    .pfnNotifyUsedPorts = nullptr,
    .pfnNotifyUnusedPorts = nullptr,
};

bool IsWindows2000() {
    OSVERSIONINFOEXW version = {};
    static_assert(sizeof(version) == 284);
    version.dwOSVersionInfoSize = sizeof(version);
    version.dwMajorVersion = 5;
    version.dwMinorVersion = 0;
    DWORDLONG conditions = VerSetConditionMask(0, VER_MAJORVERSION, VER_EQUAL);
    conditions = VerSetConditionMask(conditions, VER_MINORVERSION, VER_EQUAL);
    return VerifyVersionInfoW(&version, VER_MAJORVERSION | VER_MINORVERSION, conditions);
}

// Makes the list of ports out of the names in the registry.
void AddLoadedPorts(MonitorHandle* monitor, LPCWSTR names) {
    LockGuard lock(PortListLock);
    for (LPCWSTR name = names; *name != L'\0'; name += wcslen(name) + 1) {
        if (!IsSpoolerPseudoPort(name)) {
            AddPortEntry(monitor, name);  // a name that is too long is left out
        }
    }
}

}  // namespace

// Called once by the spooler, with its registry callbacks, when it loads the monitor (platform
// interface). Loads the ports from the registry.
//   phMonitor: receives the monitor's handle.
// Returns the table of entry points; null, with the last error set, when the ports cannot be read.
// A call that fails keeps nothing of its caller: a monitor that runs already goes on working.
extern "C" LPMONITOR2 WINAPI InitializePrintMonitor2(PMONITORINIT pMonitorInit, PHANDLE phMonitor) {
    if (pMonitorInit == nullptr || pMonitorInit->pMonitorReg == nullptr || phMonitor == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    UniqueBlock<void> block(GlobalAlloc(GPTR, sizeof(MonitorHandle)));
    if (!block) {
        return nullptr;
    }
    auto* monitor = new (block.Get()) MonitorHandle;
    monitor->init = pMonitorInit;

    UniqueBlock<WCHAR> names;
    if (const DWORD error = LoadPortNames(*pMonitorInit, names); error != ERROR_SUCCESS) {
        block.Reset();
        SetLastError(error);
        return nullptr;
    }
    if (names) {
        AddLoadedPorts(monitor, names.Get());
    }
    SetMonitorInit(pMonitorInit);
    *phMonitor = block.Release();
    if (IsWindows2000()) {
        table.cbSize = kTableSizeWindows2000;
    }
    return &table;
}
