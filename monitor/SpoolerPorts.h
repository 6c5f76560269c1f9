// The spooler's own list of ports, of all its monitors.
#pragma once

#include <windows.h>

// Tells whether the spooler knows a port of this name, in any letter case.
//   serverName: whose spooler; null for the local one.
//   error: receives 0, or why the spooler could not be asked at all; the result is then false.
// When the spooler fails to tell, the port counts as existing, so that doubt never leads to a
// second port of the same name.
bool PortExistsInSpooler(LPWSTR serverName, LPCWSTR portName, DWORD& error) noexcept;
