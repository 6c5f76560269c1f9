// The ports that the monitor owns, in memory, and the entry points that only manage them.
#pragma once

#include "monitor/Library.h"

#include <cstddef>

struct MonitorHandle;

constexpr DWORD kPortSignature = 0x00005450;     // "PT"
constexpr DWORD kMonitorSignature = 0x004D4C49;  // "ILM"

constexpr DWORD kPortDeleted = 4;     // skipped by enumeration and deletion; nothing here sets it
constexpr DWORD kJobInProgress = 8;   // between StartDocPort and EndDocPort
constexpr size_t kMaxPortName = 247;  // characters, without the terminator

// One port: a single zero-filled block of the global allocator, with the name behind the record.
// Its address is the port handle that the spooler gets.
struct PortEntry {
    DWORD signature = kPortSignature;
    DWORD blockSize = 0;  // bytes: the record and its name with terminator
    PortEntry* next = nullptr;
    LPWSTR name = nullptr;
    UniqueSocket socket;
    // Job bytes in the temporary file. A running total of the entry's whole life, never reset
    // between jobs: that is the count the daemon has always been told, and it stays.
    LONG byteCount = 0;
    DWORD flags = 0;
    UniqueBlock<WCHAR> printerName;
    UniqueBlock<BYTE> scratch;
    UniquePrinter printer;
    DWORD jobId = 0;
    MonitorHandle* monitor = nullptr;
    UniqueAddressList addresses;
    BYTE lprJobNumber = 0;
    DWORD protocol = 0;
    UniqueFile tempFile;
    DWORD doubleSpool = 0;
    WCHAR tempFileName[MAX_PATH] = {};
    // A port can be deleted while the spooler still has it open or a job runs on it. It leaves
    // the list at once; its block goes when the last of them lets go of it.
    LONG openCount = 0;
    BOOL unlinked = FALSE;
};
static_assert(offsetof(PortEntry, next) == 8);
static_assert(offsetof(PortEntry, name) == 16);
static_assert(offsetof(PortEntry, socket) == 24);
static_assert(offsetof(PortEntry, byteCount) == 32);
static_assert(offsetof(PortEntry, printerName) == 40);
static_assert(offsetof(PortEntry, monitor) == 72);
static_assert(offsetof(PortEntry, lprJobNumber) == 88);
static_assert(offsetof(PortEntry, tempFile) == 96);
static_assert(offsetof(PortEntry, tempFileName) == 108);
