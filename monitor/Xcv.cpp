#include "monitor/Xcv.h"

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <new>

#include "base/LastError.h"
#include "monitor/PortConfig.h"
#include "monitor/SpoolerPorts.h"

namespace {

constexpr WCHAR kMonitorUI[] = L"kestui.dll";

// One call of a command, as the channel delivers it. The buffers belong to the caller, who may be
// anybody: nothing in them is aligned or terminated until it was looked at. Nothing here throws:
// where memory has run out, a thread's first exception ends the process, for the C++ library needs
// memory for it.
struct XcvCall {
    XcvHandle* channel;
    const BYTE* input;
    DWORD inputSize;
    BYTE* output;
    DWORD outputSize;
    DWORD* outputNeeded;

    bool MayAdminister() const { return (channel->grantedAccess & SERVER_ACCESS_ADMINISTER) != 0; }

    // The input as text, as far as its terminator or its size goes; none when there is no memory.
    UniqueBlock<WCHAR> InputText() const {
        const size_t length = inputSize / sizeof(WCHAR);
        UniqueBlock<WCHAR> text(
            static_cast<LPWSTR>(GlobalAlloc(GPTR, (length + 1) * sizeof(WCHAR))));
        if (text) {
            memcpy(text.Get(), input, length * sizeof(WCHAR));
        }
        return text;
    }

    // Writes an answer whose size was found to fit.
    DWORD Answer(const void* bytes, DWORD size) const {
        if (output == nullptr) {
            return ERROR_INVALID_PARAMETER;
        }
        memcpy(output, bytes, size);
        return ERROR_SUCCESS;
    }
};

// Whether memory can be read up to `end`.
//   readableEnd: how far it is known to be readable; receives how far it was found to be.
bool IsReadable(const BYTE* end, const BYTE*& readableEnd) {
    while (readableEnd < end) {
        MEMORY_BASIC_INFORMATION region;
        constexpr DWORD kUnreadable = PAGE_NOACCESS | PAGE_GUARD;
        if (VirtualQuery(readableEnd, &region, sizeof(region)) == 0 || region.State != MEM_COMMIT ||
            (region.Protect & kUnreadable) != 0) {
            return false;
        }
        readableEnd = static_cast<const BYTE*>(region.BaseAddress) + region.RegionSize;
    }
    return true;
}

// Copies the text at a pointer that comes without a size: up to its terminator, as much as there is
// room for, and never beyond the memory that can be read there.
template <size_t N>
void CopyText(const BYTE* text, WCHAR (&copy)[N]) {
    const BYTE* readableEnd = text;
    size_t length = 0;
    while (length < N - 1 && IsReadable(text + sizeof(WCHAR), readableEnd)) {
        memcpy(&copy[length], text, sizeof(WCHAR));
        if (copy[length] == L'\0') {
            return;
        }
        ++length;
        text += sizeof(WCHAR);
    }
    copy[length] = L'\0';
}

// Adds a port to the list and to the registry, or to neither.
//   additions: how many ports had been added when the spooler was asked.
// Returns false with the last error set: ERROR_ALREADY_EXISTS when another caller has added a port
// of this name since then.
// Compatibility: a name that only the monitor knows is added once more, because only the spooler's
// list decides; tools rely on it to add a port again that the spooler has lost.
bool AddPortWithKey(MonitorHandle* monitor, LPCWSTR name, uint64_t additions) {
    PortEntry* port = nullptr;
    {
        LockGuard lock(PortListLock);
        if (FindPortEntry(monitor, name, additions) != nullptr) {
            return Refuse(ERROR_ALREADY_EXISTS);
        }
        port = AddPortEntry(monitor, name);
        if (port == nullptr) {
            return false;
        }
        HoldPort(port);  // until here is decided whether it stays
    }
    const bool created = CreatePortKey(name);
    const LastErrorKeeper keeper;
    {
        LockGuard lock(PortListLock);
        if (!created) {
            RemovePortEntry(monitor, port);
        } else if (port->monitor == nullptr && FindPortEntry(monitor, name) == nullptr) {
            DeletePortKey(name);  // somebody deleted the port before it had its key
        }
    }
    LetGoOfPort(port);
    return created;
}

DWORD AddPort(const XcvCall& call) {
    if (!call.MayAdminister()) {
        return ERROR_ACCESS_DENIED;
    }
    if (call.input == nullptr || call.inputSize == 0) {
        return ERROR_INVALID_PARAMETER;
    }
    const UniqueBlock<WCHAR> name = call.InputText();
    if (!name) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    if (call.inputSize != (wcslen(name.Get()) + 1) * sizeof(WCHAR)) {
        return ERROR_INVALID_PARAMETER;
    }
    const uint64_t additions = CountAdditions(call.channel->monitor);
    DWORD error = ERROR_SUCCESS;
    if (PortExistsInSpooler(nullptr, name.Get(), error)) {
        error = ERROR_ALREADY_EXISTS;
    }
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return error;
    }
    return AddPortWithKey(call.channel->monitor, name.Get(), additions) ? ERROR_SUCCESS
                                                                        : GetLastError();
}

DWORD DeletePort(const XcvCall& call) {
    if (!call.MayAdminister()) {
        return ERROR_ACCESS_DENIED;
    }
    if (call.input == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    // Compatibility: the input's size is not checked, unlike that of AddPort; clients that pass
    // another size rely on it.
    // Room for one character more than a port's name can have: a longer name matches none.
    WCHAR name[kMaxPortName + 2];
    CopyText(call.input, name);
    LockGuard lock(PortListLock);
    PortEntry* port = FindPortEntry(call.channel->monitor, name);
    if (port == nullptr) {
        return ERROR_FILE_NOT_FOUND;
    }
    HoldPort(port);
    RemovePortEntry(call.channel->monitor, port);
    // The key has the port's own spelling, to which the name given need only be equal.
    DeletePortKey(port->name);
    LetGoOfPort(port);
    return ERROR_SUCCESS;
}

// Writes a record of the input with `write`.
template <class Record, DWORD (&write)(const Record*) noexcept>
DWORD SetRecord(const XcvCall& call) {
    if (call.inputSize != sizeof(Record)) {
        return ERROR_INVALID_DATA;
    }
    if (!call.MayAdminister()) {
        return ERROR_ACCESS_DENIED;
    }
    if (call.input == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    Record record;
    memcpy(&record, call.input, sizeof(record));
    // Compatibility: the result is 0 even if the registry write failed; clients of this channel
    // rely on it, and read the record back to verify it.
    write(&record);
    return ERROR_SUCCESS;
}

// Reads the record of the port that the input names with `read`. What it could not read is zero.
template <class Record, DWORD (&read)(LPCWSTR, Record*) noexcept>
DWORD GetRecord(const XcvCall& call) {
    if (call.outputSize != sizeof(Record)) {
        return ERROR_INVALID_DATA;
    }
    if (!call.MayAdminister()) {
        return ERROR_ACCESS_DENIED;
    }
    if (call.input == nullptr || call.output == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    const UniqueBlock<WCHAR> name = call.InputText();
    if (!name) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    Record record;
    // Compatibility: the result is 0 even if the port does not exist, the record is then zero, and
    // its port name is always empty; clients rely on it to read ports without values.
    read(name.Get(), &record);
    memcpy(call.output, &record, sizeof(record));
    return ERROR_SUCCESS;
}

DWORD MonitorUI(const XcvCall& call) {
    if (call.outputNeeded == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    *call.outputNeeded = sizeof(kMonitorUI);
    if (call.outputSize < sizeof(kMonitorUI)) {
        return ERROR_INSUFFICIENT_BUFFER;
    }
    return call.Answer(kMonitorUI, sizeof(kMonitorUI));
}

DWORD PortExists(const XcvCall& call) {
    if (call.outputNeeded == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    *call.outputNeeded = sizeof(DWORD);
    if (call.outputSize < sizeof(DWORD)) {
        return ERROR_INSUFFICIENT_BUFFER;
    }
    if (call.input == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    const UniqueBlock<WCHAR> name = call.InputText();
    if (!name) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    DWORD error = ERROR_SUCCESS;
    const DWORD exists = PortExistsInSpooler(nullptr, name.Get(), error) ? 1 : 0;
    return error != ERROR_SUCCESS ? error : call.Answer(&exists, sizeof(exists));
}

// Compatibility: six commands return 0, ignore their input and write no output; clients that were
// written for other monitors send them and rely on success.
DWORD Accept(const XcvCall&) {
    return ERROR_SUCCESS;
}

struct XcvCommand {
    LPCWSTR name;
    DWORD (*run)(const XcvCall& call);
};

constexpr XcvCommand kCommands[] = {
    {L"AddPort", AddPort},
    {L"ConfigurePort", SetRecord<PORT_DATA_1, WritePortConfig>},
    {L"DeletePort", DeletePort},
    {L"GetConfigInfo", GetRecord<PORT_DATA_1, ReadPortConfig>},
    {L"HostAddress", Accept},
    {L"IPAddress", Accept},
    {L"MonitorUI", MonitorUI},
    {L"SNMPCommunity", Accept},
    {L"SNMPDeviceIndex", Accept},
    {L"SNMPEnabled", Accept},
    {L"PortExists", PortExists},
    {L"PortIsValid", Accept},
    {L"SetConfigExData", SetRecord<PortDataEx, WritePortConfigEx>},
    {L"GetConfigExData", GetRecord<PortDataEx, ReadPortConfigEx>},
    {nullptr, nullptr},
};

const XcvCommand* FindCommand(LPCWSTR name) {
    for (const XcvCommand* command = kCommands; command->name != nullptr; ++command) {
        if (wcscmp(command->name, name) == 0) {
            return command;
        }
    }
    return nullptr;
}

XcvHandle* XcvOf(HANDLE handle) {
    auto* xcv = static_cast<XcvHandle*>(handle);
    return xcv != nullptr && xcv->signature == kXcvSignature ? xcv : nullptr;
}

}  // namespace

void DetachXcvHandles(MonitorHandle* monitor) noexcept {
    for (XcvHandle* xcv = monitor->xcvHandles; xcv != nullptr; xcv = xcv->next) {
        xcv->monitor = nullptr;
    }
    monitor->xcvHandles = nullptr;
}

BOOL WINAPI XcvOpenPort(HANDLE hMonitor, LPCWSTR pszObject, ACCESS_MASK GrantedAccess,
                        PHANDLE phXcv) {
    MonitorHandle* monitor = MonitorOf(hMonitor);
    if (monitor == nullptr) {
        return FALSE;
    }
    if (pszObject == nullptr || phXcv == nullptr) {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    const size_t nameSize = (wcslen(pszObject) + 1) * sizeof(WCHAR);
    void* block = GlobalAlloc(GPTR, sizeof(XcvHandle) + nameSize);
    *phXcv = block;
    if (block == nullptr) {
        return FALSE;
    }
    auto* xcv = new (block) XcvHandle;
    xcv->blockSize = static_cast<DWORD>(sizeof(XcvHandle) + nameSize);
    xcv->objectName = reinterpret_cast<LPWSTR>(xcv + 1);
    memcpy(xcv->objectName, pszObject, nameSize);
    xcv->grantedAccess = GrantedAccess;
    xcv->monitor = monitor;

    const ExclusiveGuard guard(monitor->xcvLock);
    XcvHandle** end = &monitor->xcvHandles;
    while (*end != nullptr) {
        end = &(*end)->next;
    }
    *end = xcv;
    return TRUE;
}

DWORD WINAPI XcvDataPort(HANDLE hXcv, LPCWSTR pszDataName, PBYTE pInputData, DWORD cbInputData,
                         PBYTE pOutputData, DWORD cbOutputData, PDWORD pcbOutputNeeded) {
    XcvHandle* xcv = XcvOf(hXcv);
    if (xcv == nullptr || xcv->monitor == nullptr) {
        return ERROR_INVALID_HANDLE;
    }
    const XcvCommand* command = pszDataName == nullptr ? nullptr : FindCommand(pszDataName);
    if (command == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    return command->run({xcv, pInputData, cbInputData, pOutputData, cbOutputData, pcbOutputNeeded});
}

BOOL WINAPI XcvClosePort(HANDLE hXcv) {
    XcvHandle* xcv = XcvOf(hXcv);
    if (xcv == nullptr) {
        return TRUE;
    }
    LockGuard lock(PortListLock);
    if (MonitorHandle* monitor = xcv->monitor) {
        const ExclusiveGuard guard(monitor->xcvLock);
        XcvHandle** link = &monitor->xcvHandles;
        while (*link != nullptr && *link != xcv) {
            link = &(*link)->next;
        }
        if (*link == nullptr) {
            return TRUE;
        }
        *link = xcv->next;
    }
    xcv->signature = 0;  // so that a handle used too late is refused
    GlobalFree(xcv);
    return TRUE;
}

BOOL WINAPI AddPortEx(HANDLE hMonitor, LPWSTR pName, DWORD Level, LPBYTE lpBuffer, LPWSTR) {
    MonitorHandle* monitor = MonitorOf(hMonitor);
    if (monitor == nullptr) {
        return FALSE;
    }
    if (Level != 1 && Level != MAXDWORD) {
        return Refuse(ERROR_INVALID_LEVEL);
    }
    LPCWSTR name = nullptr;
    if (lpBuffer != nullptr) {
        memcpy(&name, lpBuffer, sizeof(name));
    }
    if (name == nullptr) {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    const uint64_t additions = CountAdditions(monitor);
    DWORD error = ERROR_SUCCESS;
    if (PortExistsInSpooler(pName, name, error)) {
        error = ERROR_ALREADY_EXISTS;
    } else if (error == ERROR_SUCCESS) {
        error = AddPortWithKey(monitor, name, additions) ? ERROR_SUCCESS : GetLastError();
    }
    if (error == ERROR_ALREADY_EXISTS) {
        // Compatibility: an existing port gives ERROR_INVALID_PARAMETER, unlike the channel's
        // AddPort; callers of this older interface rely on it.
        error = ERROR_INVALID_PARAMETER;
    }
    return error == ERROR_SUCCESS ? TRUE : Refuse(error);
}
