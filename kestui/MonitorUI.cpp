#include "kestui/MonitorUI.h"

#include <cwchar>
#include <new>
#include <string>

#include "admin/ports/PortEditing.h"
#include "base/CommandFailed.h"
#include "base/Handles.h"
#include "kestui/AddPortDialog.h"
#include "kestui/ConfigurePortDialog.h"
#include "kestui/DeletePortDialog.h"

namespace {

constexpr size_t kLongestName = 1024;  // characters; the monitor's port names have at most 63

// Returns the error code for the print system.
DWORD ErrorOf(const CommandFailed& failure) {
    switch (failure.remedy) {
        case Remedy::RunAsAdministrator:
            return ERROR_ACCESS_DENIED;
        case Remedy::StartSpooler:
            return RPC_S_SERVER_UNAVAILABLE;
        case Remedy::InstallMonitor:
            return ERROR_UNKNOWN_PRINT_MONITOR;
        case Remedy::ListPorts:
            return ERROR_UNKNOWN_PORT;
        case Remedy::MovePrinter:
            return ERROR_BUSY;
        default:
            return ERROR_CAN_NOT_COMPLETE;
    }
}

std::wstring CopyName(PCWSTR text) {
    return text == nullptr ? std::wstring() : std::wstring(text, wcsnlen(text, kLongestName));
}

// Runs an action that returns an error code, and sets the last error.
template <class Action>
BOOL Guarded(Action action) noexcept {
    DWORD error = ERROR_SUCCESS;
    try {
        error = action();
    } catch (const CommandFailed& failure) {
        error = ErrorOf(failure);
    } catch (const std::bad_alloc&) {
        error = ERROR_OUTOFMEMORY;
    } catch (...) {
        error = ERROR_CAN_NOT_COMPLETE;
    }
    SetLastError(error);
    return error == ERROR_SUCCESS;
}

}  // namespace

BOOL AddPortByDialog(const Environment& environment, PCWSTR server, HWND owner,
                     PWSTR* name) noexcept {
    return Guarded([&]() -> DWORD {
        if (name != nullptr) {
            *name = nullptr;
        }
        if (!IsWindow(owner)) {
            return ERROR_INVALID_PARAMETER;
        }
        AddPortDialog dialog(environment, CopyName(server));
        // Allocated first: the name of an added port cannot be lost for lack of memory.
        UniqueBlock<WCHAR> copy(static_cast<PWSTR>(GlobalAlloc(GPTR, 64 * sizeof(WCHAR))));
        if (!copy) {
            return ERROR_OUTOFMEMORY;
        }
        const DWORD result = dialog.Show(owner);
        if (result == ERROR_SUCCESS && name != nullptr) {
            dialog.PortName().copy(copy.Get(), 63);
            *name = copy.Release();
        }
        return result;
    });
}

BOOL ConfigurePortByDialog(const Environment& environment, PCWSTR server, HWND owner,
                           PCWSTR port) noexcept {
    return Guarded([&]() -> DWORD {
        if (!IsWindow(owner) || port == nullptr) {
            return ERROR_INVALID_PARAMETER;
        }
        return ConfigurePortDialog(environment, CopyName(server), CopyName(port)).Show(owner);
    });
}

BOOL DeletePortByDialog(const Environment& environment, PCWSTR server, HWND owner,
                        PCWSTR port) noexcept {
    return Guarded([&]() -> DWORD {
        if (port == nullptr || (owner != nullptr && !IsWindow(owner))) {
            return ERROR_INVALID_PARAMETER;
        }
        if (owner == nullptr) {
            DeleteUnusedPort(*environment.openChannel(CopyName(server)), CopyName(port));
            return ERROR_SUCCESS;
        }
        return DeletePortDialog(environment, CopyName(server), CopyName(port)).Show(owner);
    });
}
