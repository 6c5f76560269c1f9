// A port's configuration in the registry, below the monitor's own key. All access goes through the
// spooler's registry callbacks (MONITORREG), in the spooler's own security context.
//
//   <monitor's root key>\Ports\<port name>: one value for each field, see docs/registry.md
#pragma once

#include "base/Handles.h"

#include <winsplp.h>

#include "monitor/PortData.h"

// Reads the names of the ports in the registry, in registry order, creating the "Ports" key if it
// is missing. Works before SetMonitorInit, which is called only when the names could be read.
//   init: the spooler's record, for its registry callbacks and the monitor's root key.
//   list: receives the names as one double-NUL-terminated list, nothing when there are no ports.
// Returns 0 or the Win32 error code of the registry callback that failed.
DWORD LoadPortNames(const MONITORINIT& init, UniqueBlock<WCHAR>& list) noexcept;

// Reads a port's standard record; sztPortName stays empty. A value that is missing, or does not
// fit its field, leaves the field zero; text fields are always terminated.
// Returns 0, the failure of opening "Ports", or that of reading the last value ("Double Spool"):
// a port that was never configured reads as ERROR_FILE_NOT_FOUND.
DWORD ReadPortConfig(LPCWSTR portName, PORT_DATA_1* out) noexcept;

// Writes a port's standard record, creating the port's key if needed. Empty texts and a port
// number of 0 leave the values in the registry as they are. Text fields need no terminator.
// Returns the result of the last write, or the failure of opening "Ports".
DWORD WritePortConfig(const PORT_DATA_1* in) noexcept;

// Reads a port's extended record, as ReadPortConfig does; always returns 0.
DWORD ReadPortConfigEx(LPCWSTR portName, PortDataEx* out) noexcept;

// Writes a port's extended record; the port's key must exist. Always returns 0.
DWORD WritePortConfigEx(const PortDataEx* in) noexcept;

// Creates a port's key, without values. Returns TRUE when it is there afterwards; FALSE, with the
// last error set, when it could not be made or the name is null.
BOOL CreatePortKey(LPCWSTR portName) noexcept;

// Deletes a port's key; reports nothing. A null or empty name does nothing.
void DeletePortKey(LPCWSTR portName) noexcept;

// Stores a printer's new address: addressText as "IPv6HostName" when isIPv6 is non-zero, else as
// "IPAddress", and isIPv6 as "UseIPV6".
// Returns the result of the last write, or the failure of opening "Ports".
DWORD WritePortAddress(LPCWSTR portName, LPCWSTR addressText, DWORD isIPv6) noexcept;
