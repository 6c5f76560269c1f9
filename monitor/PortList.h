// The ports that the monitor owns, in memory, and the entry points that only manage them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "monitor/Library.h"

struct MonitorHandle;
struct XcvHandle;

constexpr DWORD kMonitorSignature = 0x004D4C49;  // "ILM"
constexpr DWORD kPortSignature = 0x00005450;     // "PT"

constexpr DWORD kPortDeleted = 4;     // skipped by enumeration and removal; nothing here sets it
constexpr DWORD kJobInProgress = 8;   // from the beginning of StartDocPort to the end of EndDocPort
constexpr DWORD kJobEnding = 16;      // EndDocPort runs; set by the one caller that ends the job
constexpr DWORD kJobStarting = 32;    // StartDocPort runs: no other call uses or ends the job
constexpr size_t kMaxPortName = 247;  // characters, without the terminator

// A port's connection. Several callers may use it at once; the one that takes it out closes it.
class SharedSocket {
  public:
    SharedSocket() = default;
    SharedSocket(const SharedSocket&) = delete;
    SharedSocket& operator=(const SharedSocket&) = delete;
    ~SharedSocket() { Take(); }

    explicit operator bool() const noexcept { return Get() != INVALID_SOCKET; }
    SOCKET Get() const noexcept { return socket_; }
    // For the start of a job, when there is no connection yet.
    void Put(UniqueSocket socket) noexcept { socket_ = socket.Release(); }
    // Gives the connection to one of the callers that take it at once, and nothing to the others.
    UniqueSocket Take() noexcept { return UniqueSocket(socket_.exchange(INVALID_SOCKET)); }

  private:
    std::atomic<SOCKET> socket_ = INVALID_SOCKET;
};
static_assert(sizeof(SharedSocket) == sizeof(SOCKET));

// One port: a single zero-filled block of the global allocator, with the name right behind the
// record. Its address is the port handle that the spooler gets.
struct PortEntry {
    DWORD signature = kPortSignature;
    DWORD blockSize = 0;  // bytes: the record and its name with terminator
    PortEntry* next = nullptr;
    LPWSTR name = nullptr;
    SharedSocket socket;
    // Compatibility: the job bytes written to temporary files are counted over the entry's whole
    // life and announced as this total; print daemons have always received it.
    std::atomic<LONG> byteCount = 0;
    std::atomic<DWORD> flags = 0;
    UniqueBlock<WCHAR> printerName;
    UniqueBlock<BYTE> scratch;
    UniquePrinter printer;
    DWORD jobId = 0;
    MonitorHandle* monitor = nullptr;  // null once the port has left the list
    UniqueAddressList addresses;
    BYTE lprJobNumber = 0;  // eight bits wide on purpose: it wraps from 255 to 0
    DWORD protocol = 0;     // kProtocolRaw or kProtocolLpr, as of the last job start
    UniqueFile tempFile;
    DWORD doubleSpool = 0;
    WCHAR tempFileName[MAX_PATH] = {};

    // The number of the job that runs: all steps of its dialog name the same, though lprJobNumber
    // starts again when somebody opens the port meanwhile.
    BYTE runningLprJob = 0;

    // A port may be deleted while the spooler has it open or a job runs on it. It leaves the list
    // at once; the block goes with the last of those who hold it: the list, each open, a job.
    std::atomic<LONG> holders = 1;
    std::atomic<LONG> opens = 0;

    // Calls of WritePort and ReadPort that use the job's connection, temporary file or printer.
    // These are closed when the calls have returned: the system gives the number of a closed socket
    // to the next one, which may be another printer's.
    std::atomic<LONG> callers = 0;
    std::atomic<bool> isReading = false;  // one of them reads, or the end of the job does

    uint64_t addition = 0;  // which of the monitor's additions the port was, from 1
};
static_assert(offsetof(PortEntry, next) == 8);
static_assert(offsetof(PortEntry, name) == 16);
static_assert(offsetof(PortEntry, socket) == 24);
static_assert(offsetof(PortEntry, byteCount) == 32);
static_assert(offsetof(PortEntry, flags) == 36);
static_assert(offsetof(PortEntry, printerName) == 40);
static_assert(offsetof(PortEntry, printer) == 56);
static_assert(offsetof(PortEntry, monitor) == 72);
static_assert(offsetof(PortEntry, lprJobNumber) == 88);
static_assert(offsetof(PortEntry, tempFile) == 96);
static_assert(offsetof(PortEntry, tempFileName) == 108);

// What the spooler gets as the monitor's handle.
struct MonitorHandle {
    DWORD signature = kMonitorSignature;
    MONITORINIT* init = nullptr;
    PortEntry* ports = nullptr;       // in the order in which they were added
    XcvHandle* xcvHandles = nullptr;  // open configuration channels, see Xcv.h

    PortEntry* lastPort = nullptr;  // so that adding a port does not walk the list
    uint64_t additions = 0;         // ports added so far
    // Guards changes of the list of channels.
    // Compatibility: opening a channel does not wait for PortListLock, closing one does; tools rely
    // on opening channels while a slow print daemon holds the lock.
    SRWLOCK xcvLock = SRWLOCK_INIT;
};
static_assert(offsetof(MonitorHandle, init) == 8);
static_assert(offsetof(MonitorHandle, ports) == 16);
static_assert(offsetof(MonitorHandle, xcvHandles) == 24);

// The monitor, or the port, behind a handle of the spooler; null, with the last error
// ERROR_INVALID_HANDLE, when the handle is null or something else.
MonitorHandle* MonitorOf(HANDLE handle) noexcept;
PortEntry* PortOf(HANDLE handle) noexcept;

// Adds a port at the list's end, under PortListLock.
// Returns the new entry; null with the last error ERROR_INVALID_NAME when the name is null or
// longer than kMaxPortName, null as well when there is no memory for it.
PortEntry* AddPortEntry(MonitorHandle* monitor, LPCWSTR name) noexcept;

// The number of ports that were added so far, deleted ones included.
uint64_t CountAdditions(const MonitorHandle* monitor) noexcept;

// The first port with this name, in any letter case, that is not marked deleted; null without one.
// Takes no lock.
//   additions: looks only at ports that were added after CountAdditions returned this number.
PortEntry* FindPortEntry(const MonitorHandle* monitor, LPCWSTR name,
                         uint64_t additions = 0) noexcept;

// Takes a port out of the list and lets go of it; nothing when it is not in there (any more). A
// port that is still open starts no more jobs. Takes no lock: callers hold PortListLock, or accept
// the race. Returns 1 when it was in the list, else 0.
int RemovePortEntry(MonitorHandle* monitor, PortEntry* port) noexcept;

// Does the same with all ports in the list: for the monitor's end.
void RemoveAllPortEntries(MonitorHandle* monitor) noexcept;

// A job's hold on its port.
void HoldPort(PortEntry* port) noexcept;
void LetGoOfPort(PortEntry* port) noexcept;

// Entry points of the monitor (platform interface MONITOR2).

// Lists the ports as PORT_INFO_1 or PORT_INFO_2 (level 1 or 2) records.
//   pPorts, cbBuf: the caller's buffer and its size in bytes.
//   pcbNeeded: receives the size needed. pcReturned: receives the number of records.
// Returns FALSE with ERROR_INSUFFICIENT_BUFFER when the buffer is too small.
BOOL WINAPI EnumPorts(HANDLE hMonitor, LPWSTR pName, DWORD Level, LPBYTE pPorts, DWORD cbBuf,
                      LPDWORD pcbNeeded, LPDWORD pcReturned);

// Finds a port by its name, in any letter case; *pHandle receives its handle. An unknown name
// gives FALSE and leaves the last error as it is.
BOOL WINAPI OpenPort(HANDLE hMonitor, LPWSTR pName, PHANDLE pHandle);

// Ends what OpenPort began; the port stays. Always TRUE.
BOOL WINAPI ClosePort(HANDLE hPort);
