#include "monitor/PortList.h"

#include <cstring>
#include <cwchar>
#include <new>
#include <utility>

#include "base/LastError.h"
#include "resources/MonitorStrings.h"

namespace {

constexpr size_t kResourceTextRoom = 260;  // characters

// The texts that every PORT_INFO_2 carries.
struct MonitorTexts {
    WCHAR monitorName[kResourceTextRoom] = {};
    WCHAR description[kResourceTextRoom] = {};

    MonitorTexts() noexcept {
        const LastErrorKeeper keeper;
        LoadStringW(LibraryModule(), IDS_MONITOR_NAME, monitorName, kResourceTextRoom);
        LoadStringW(LibraryModule(), IDS_PORT_DESCRIPTION, description, kResourceTextRoom);
    }
};

size_t TextSize(LPCWSTR text) {
    return (wcslen(text) + 1) * sizeof(WCHAR);
}

size_t RecordSize(DWORD level, const PortEntry* port, const MonitorTexts& texts) {
    switch (level) {
        case 1:
            return sizeof(PORT_INFO_1W) + TextSize(port->name);
        case 2:
            return sizeof(PORT_INFO_2W) + TextSize(port->name) + TextSize(texts.monitorName) +
                   TextSize(texts.description);
        default:
            return 0;
    }
}

// A caller's buffer, filled from both ends: records upward from its start, texts downward from
// its end. Its size was checked before; nothing in it need be aligned.
class PortInfoBuffer {
  public:
    PortInfoBuffer(LPBYTE buffer, DWORD size) : records_(buffer), texts_(buffer + size) {}

    LPWSTR PutText(LPCWSTR text) {
        const size_t size = TextSize(text);
        texts_ -= size;
        memcpy(texts_, text, size);
        return reinterpret_cast<LPWSTR>(texts_);
    }

    template <class Record>
    void PutRecord(const Record& record) {
        memcpy(records_, &record, sizeof(record));
        records_ += sizeof(record);
    }

  private:
    LPBYTE records_;
    LPBYTE texts_;
};

void PutPort(PortInfoBuffer& buffer, DWORD level, const PortEntry* port,
             const MonitorTexts& texts) {
    if (level == 1) {
        PORT_INFO_1W info = {};
        info.pName = buffer.PutText(port->name);
        buffer.PutRecord(info);
    } else {
        PORT_INFO_2W info = {};
        info.pPortName = buffer.PutText(port->name);
        info.pMonitorName = buffer.PutText(texts.monitorName);
        info.pDescription = buffer.PutText(texts.description);
        info.fPortType = PORT_TYPE_WRITE | PORT_TYPE_READ;
        buffer.PutRecord(info);
    }
}

bool IsListed(const PortEntry* port) {
    return (port->flags & kPortDeleted) == 0;
}

// Returns how many bytes the records of the listed ports take.
//   listed: receives their number.
size_t MeasurePorts(const MonitorHandle* monitor, DWORD level, const MonitorTexts& texts,
                    size_t& listed) {
    size_t size = 0;
    for (const PortEntry* port = monitor->ports; port != nullptr; port = port->next) {
        if (IsListed(port)) {
            size += RecordSize(level, port, texts);
            ++listed;
        }
    }
    return size;
}

bool HasName(const PortEntry* port, LPCWSTR name) {
    return lstrcmpiW(port->name, name) == 0;
}

}  // namespace

MonitorHandle* MonitorOf(HANDLE handle) noexcept {
    auto* monitor = static_cast<MonitorHandle*>(handle);
    if (monitor == nullptr || monitor->signature != kMonitorSignature) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return monitor;
}

PortEntry* PortOf(HANDLE handle) noexcept {
    auto* port = static_cast<PortEntry*>(handle);
    if (port == nullptr || port->signature != kPortSignature) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return port;
}

PortEntry* AddPortEntry(MonitorHandle* monitor, LPCWSTR name) noexcept {
    const size_t length = name == nullptr ? 0 : wcsnlen(name, kMaxPortName + 1);
    if (name == nullptr || length > kMaxPortName) {
        SetLastError(ERROR_INVALID_NAME);
        return nullptr;
    }
    const size_t nameSize = (length + 1) * sizeof(WCHAR);
    void* block = GlobalAlloc(GPTR, sizeof(PortEntry) + nameSize);
    if (block == nullptr) {
        return nullptr;
    }
    auto* port = new (block) PortEntry;
    port->blockSize = static_cast<DWORD>(sizeof(PortEntry) + nameSize);
    port->name = reinterpret_cast<LPWSTR>(port + 1);
    memcpy(port->name, name, nameSize);
    port->monitor = monitor;

    LockGuard lock(PortListLock);
    (monitor->lastPort != nullptr ? monitor->lastPort->next : monitor->ports) = port;
    monitor->lastPort = port;
    port->addition = ++monitor->additions;
    return port;
}

uint64_t CountAdditions(const MonitorHandle* monitor) noexcept {
    LockGuard lock(PortListLock);
    return monitor->additions;
}

PortEntry* FindPortEntry(const MonitorHandle* monitor, LPCWSTR name, uint64_t additions) noexcept {
    PortEntry* port = monitor->ports;
    while (port != nullptr &&
           !(port->addition > additions && IsListed(port) && HasName(port, name))) {
        port = port->next;
    }
    return port;
}

int RemovePortEntry(MonitorHandle* monitor, PortEntry* port) noexcept {
    PortEntry* previous = nullptr;
    PortEntry* entry = monitor->ports;
    while (entry != nullptr && entry != port) {
        previous = std::exchange(entry, entry->next);
    }
    if (entry == nullptr) {
        return 0;
    }
    (previous != nullptr ? previous->next : monitor->ports) = port->next;
    if (monitor->lastPort == port) {
        monitor->lastPort = previous;
    }
    port->monitor = nullptr;
    LetGoOfPort(port);
    return 1;
}

void RemoveAllPortEntries(MonitorHandle* monitor) noexcept {
    while (monitor->ports != nullptr) {
        RemovePortEntry(monitor, monitor->ports);
    }
}

void HoldPort(PortEntry* port) noexcept {
    ++port->holders;
}

void LetGoOfPort(PortEntry* port) noexcept {
    if (--port->holders == 0) {
        port->~PortEntry();
        port->signature = 0;  // so that a handle used too late is refused
        GlobalFree(port);
    }
}

BOOL WINAPI EnumPorts(HANDLE hMonitor, LPWSTR, DWORD Level, LPBYTE pPorts, DWORD cbBuf,
                      LPDWORD pcbNeeded, LPDWORD pcReturned) {
    MonitorHandle* monitor = MonitorOf(hMonitor);
    if (monitor == nullptr) {
        return FALSE;
    }
    if (pcbNeeded == nullptr || pcReturned == nullptr) {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    const MonitorTexts texts;

    LockGuard lock(PortListLock);
    size_t listed = 0;
    const size_t needed = MeasurePorts(monitor, Level, texts, listed);
    *pcbNeeded = static_cast<DWORD>(needed);
    if (needed > cbBuf) {
        return Refuse(ERROR_INSUFFICIENT_BUFFER);
    }
    if (needed > 0 && pPorts == nullptr) {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    *pcReturned = 0;
    if (Level != 1 && Level != 2) {
        // Compatibility: if there are ports, the thread's last error decides the result, and no
        // record is returned; the spooler has always received this for levels other than 1 and 2.
        return listed == 0 || GetLastError() == ERROR_SUCCESS;
    }
    PortInfoBuffer buffer(pPorts, cbBuf);
    for (const PortEntry* port = monitor->ports; port != nullptr; port = port->next) {
        if (IsListed(port)) {
            PutPort(buffer, Level, port, texts);
            ++*pcReturned;
        }
    }
    return TRUE;
}

BOOL WINAPI OpenPort(HANDLE hMonitor, LPWSTR pName, PHANDLE pHandle) {
    MonitorHandle* monitor = MonitorOf(hMonitor);
    if (monitor == nullptr) {
        return FALSE;
    }
    if (pName == nullptr || pHandle == nullptr) {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    LockGuard lock(PortListLock);
    for (PortEntry* port = monitor->ports; port != nullptr; port = port->next) {
        if (HasName(port, pName)) {
            port->lprJobNumber = 0;
            HoldPort(port);
            ++port->opens;
            *pHandle = port;
            return TRUE;
        }
    }
    return FALSE;
}

BOOL WINAPI ClosePort(HANDLE hPort) {
    PortEntry* port = PortOf(hPort);
    if (port == nullptr) {
        return TRUE;
    }
    port->scratch.Reset();
    LONG opens = port->opens;
    while (opens > 0 && !port->opens.compare_exchange_weak(opens, opens - 1)) {
    }
    if (opens > 0) {
        LetGoOfPort(port);
    }
    return TRUE;
}
