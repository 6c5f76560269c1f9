// What the print system calls: the three dialogues of a port (platform interface MONITORUI).
#pragma once

#include <winsock2.h>
#include <windows.h>

#include "kestui/Environment.h"

// All return TRUE, or FALSE with the last error set: ERROR_CANCELLED for what the user cancelled or
// was told of, ERROR_INVALID_PARAMETER without a window, else why there was no dialogue.
//   server: of the print server, "\\SERVER"; null or empty for this machine.
//   owner: the window to be disabled meanwhile.

//   name: receives the new port's name, for the caller to free (GlobalFree); may be null.
BOOL AddPortByDialog(const Environment& environment, PCWSTR server, HWND owner,
                     PWSTR* name) noexcept;
BOOL ConfigurePortByDialog(const Environment& environment, PCWSTR server, HWND owner,
                           PCWSTR port) noexcept;
// Without an owner, deletes a port that no printer uses without asking.
BOOL DeletePortByDialog(const Environment& environment, PCWSTR server, HWND owner,
                        PCWSTR port) noexcept;
