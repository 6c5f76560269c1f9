#include "monitor/SpoolerPorts.h"

#include <algorithm>
#include <atomic>
#include <cwchar>

#include "base/Handles.h"
#include "base/LastError.h"

namespace {

using EnumPortsProc = BOOL(WINAPI*)(LPWSTR, DWORD, LPBYTE, DWORD, LPDWORD, LPDWORD);

constexpr WCHAR kSpoolerLibrary[] = L"\\SPOOLSS.DLL";

// Kept for the life of the library once found.
std::atomic<EnumPortsProc> enumPorts = nullptr;

// The spooler's EnumPortsW, out of the library that this process already runs on. Null, with the
// last error set, when it cannot be had; a later call tries again.
EnumPortsProc LoadEnumPorts() {
    if (EnumPortsProc known = enumPorts) {
        return known;
    }
    WCHAR folder[MAX_PATH];
    const UINT length = GetSystemDirectoryW(folder, MAX_PATH);
    if (length == 0) {
        return nullptr;
    }
    if (length + wcslen(kSpoolerLibrary) >= MAX_PATH) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return nullptr;
    }
    UniqueLibrary spooler(LoadLibraryW(wcscat(folder, kSpoolerLibrary)));
    if (!spooler) {
        return nullptr;
    }
    const auto found = reinterpret_cast<EnumPortsProc>(
        reinterpret_cast<void*>(GetProcAddress(spooler.Get(), "EnumPortsW")));
    if (found == nullptr) {
        const LastErrorKeeper keeper;
        spooler.Reset();
        return nullptr;
    }
    spooler.Release();
    enumPorts = found;
    return found;
}

}  // namespace

bool PortExistsInSpooler(LPWSTR serverName, LPCWSTR portName, DWORD& error) noexcept {
    error = ERROR_SUCCESS;
    const EnumPortsProc enumerate = LoadEnumPorts();
    if (enumerate == nullptr) {
        error = GetLastError();
        return false;
    }
    DWORD needed = 0;
    DWORD returned = 0;
    if (enumerate(serverName, 1, nullptr, 0, &needed, &returned)) {
        return false;
    }
    // Compatibility: a list that cannot be read counts as "the port exists", without an error;
    // AddPort relies on it to add no port twice.
    if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
        return true;
    }
    const UniqueBlock<BYTE> ports(static_cast<LPBYTE>(GlobalAlloc(GPTR, needed)));
    if (!ports || !enumerate(serverName, 1, ports.Get(), needed, &needed, &returned)) {
        return true;
    }
    const auto* info = reinterpret_cast<const PORT_INFO_1W*>(ports.Get());
    return std::any_of(info, info + returned, [portName](const PORT_INFO_1W& port) {
        return lstrcmpiW(port.pName, portName) == 0;
    });
}
