// The library as the process sees it: its module handle, what the spooler handed over, and the
// one lock.
#pragma once

#include <winsock2.h>
#include <windows.h>
#include <winspool.h>
#include <winsplp.h>

#include "base/Handles.h"

// Guards the port list, the beginning of each port's job, every LPR exchange, the release of Xcv
// handles and the deletion of ports. Re-entrant for the thread that holds it; made at process
// attach, deleted at detach.
extern CRITICAL_SECTION PortListLock;

// What the library does when it is attached to a process or detached from it.
//   module: the library's module handle, kept for its resources and its folder.
//   reason: DLL_PROCESS_ATTACH and so on, as DllMain gets it.
// Returns TRUE always.
BOOL LibraryMain(HMODULE module, DWORD reason) noexcept;

// The module handle kept at attach.
HMODULE LibraryModule() noexcept;

// How an entry point refuses: sets the last error and gives FALSE.
inline BOOL Refuse(DWORD error) noexcept {
    SetLastError(error);
    return FALSE;
}

// The MONITORINIT of InitializePrintMonitor2: spooler handle, root key and registry callbacks.
void SetMonitorInit(MONITORINIT* init) noexcept;
MONITORINIT* MonitorInit() noexcept;
