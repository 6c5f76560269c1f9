#include "kestui/MonitorUI.h"

#include <cwchar>
#include <new>
#include <string>

#include "base/CommandFailed.h"
#include "admin/ports/PortStore.h"
#include "base/Handles.h"
#include "kestui/AddPortDialog.h"
#include "kestui/ConfigurePortDialog.h"
#include "kestui/DeletePortDialog.h"
#include "kestui/DialogIds.h"

namespace {

constexpr size_t kLongestName = 1024;  // characters; the monitor's ports have 63 at most

// What stands for a failure where it can only be told by a number.
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

std::wstring Given(PCWSTR text) {
    return text == nullptr ? std::wstring() : std::wstring(text, wcsnlen(text, kLongestName));
}

// Runs an entry point's action, which returns an error code.
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

DWORD DeleteUnused(SpoolerChannel& channel, const std::wstring& port) {
    const std::wstring name = FindPort(channel, port);
    if (!QueuesOn(channel.Queues(), name).empty()) {
        return ERROR_BUSY;
    }
    DeletePort(channel, name);
    return ERROR_SUCCESS;
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
        AddPortDialog dialog(environment, Given(server));
        // Taken first: a port that was added is not to be lost for want of memory to name it.
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
        return ConfigurePortDialog(environment, Given(server), Given(port)).Show(owner);
    });
}

BOOL DeletePortByDialog(const Environment& environment, PCWSTR server, HWND owner,
                        PCWSTR port) noexcept {
    return Guarded([&]() -> DWORD {
        if (port == nullptr || (owner != nullptr && !IsWindow(owner))) {
            return ERROR_INVALID_PARAMETER;
        }
        if (owner == nullptr) {
            return DeleteUnused(*environment.openChannel(Given(server)), Given(port));
        }
        return DeletePortDialog(environment, Given(server), Given(port)).Show(owner);
    });
}
