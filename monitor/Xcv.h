// Configuration through the spooler's transceive channel: named commands with binary records, sent
// by the user-interface library or by any other client (platform interface MONITOR2, XcvData).
#pragma once

#include "monitor/PortList.h"

constexpr DWORD kXcvSignature = 0x00005843;  // "CX"

// One open channel: a single zero-filled block of the global allocator, with the object's name
// behind the record.
struct XcvHandle {
    DWORD signature = kXcvSignature;
    DWORD blockSize = 0;  // bytes
    XcvHandle* next = nullptr;
    DWORD reserved = 0;
    LPWSTR objectName = nullptr;
    ACCESS_MASK grantedAccess = 0;
    MonitorHandle* monitor = nullptr;  // null once the monitor has been shut down
};
static_assert(offsetof(XcvHandle, next) == 8);
static_assert(offsetof(XcvHandle, reserved) == 16);
static_assert(offsetof(XcvHandle, objectName) == 24);
static_assert(offsetof(XcvHandle, grantedAccess) == 32);
static_assert(offsetof(XcvHandle, monitor) == 40);

// Cuts all open channels off their monitor, which ends. Their owners still close them.
void DetachXcvHandles(MonitorHandle* monitor) noexcept;

// Entry points of the monitor (platform interface MONITOR2).

// Opens a channel. GrantedAccess is what the spooler grants its owner: SERVER_ACCESS_ADMINISTER is
// what the commands that change ports, or show their configuration, ask for.
BOOL WINAPI XcvOpenPort(HANDLE hMonitor, LPCWSTR pszObject, ACCESS_MASK GrantedAccess,
                        PHANDLE phXcv);

// Runs one command; docs/registry.md lists them with their records.
// Returns a Win32 error code: ERROR_INVALID_PARAMETER for an unknown command.
DWORD WINAPI XcvDataPort(HANDLE hXcv, LPCWSTR pszDataName, PBYTE pInputData, DWORD cbInputData,
                         PBYTE pOutputData, DWORD cbOutputData, PDWORD pcbOutputNeeded);

// Closes a channel. Always TRUE.
BOOL WINAPI XcvClosePort(HANDLE hXcv);

// Adds a port without a channel, as AddPortEx of the print API does; no configuration is written.
//   Level: 1 or 0xFFFFFFFF, else ERROR_INVALID_LEVEL. lpBuffer: starts with a pointer to the name.
// Returns FALSE with ERROR_INVALID_PARAMETER when the name is null or the port exists.
BOOL WINAPI AddPortEx(HANDLE hMonitor, LPWSTR pName, DWORD Level, LPBYTE lpBuffer,
                      LPWSTR lpMonitorName);
