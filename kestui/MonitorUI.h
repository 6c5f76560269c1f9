// The dialogs that the print system opens (platform interface MONITORUI).
#pragma once

#include <winsock2.h>
#include <windows.h>

#include "kestui/Environment.h"

// All return TRUE, or FALSE with the last error set: ERROR_CANCELLED if the user canceled or saw
// the failure, ERROR_INVALID_PARAMETER without a window, otherwise the reason of the failure.
//   server: the print server, "\\SERVER"; null or empty for this computer.
//   owner: the window that is disabled while the dialog is open.

//   name: receives the name of the new port, which the caller frees (GlobalFree); may be null.
BOOL AddPortByDialog(const Environment& environment, PCWSTR server, HWND owner,
                     PWSTR* name) noexcept;
BOOL ConfigurePortByDialog(const Environment& environment, PCWSTR server, HWND owner,
                           PCWSTR port) noexcept;
// Without an owner, deletes a port that no printer uses without confirmation.
BOOL DeletePortByDialog(const Environment& environment, PCWSTR server, HWND owner,
                        PCWSTR port) noexcept;
