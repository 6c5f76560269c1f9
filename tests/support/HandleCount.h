// How many handles (sockets, files, keys) and threads this process has.
#pragma once

#include <windows.h>
#include <tlhelp32.h>

#include <cstddef>
#include <cstdint>

// GetProcessHandleCount is a constant under Wine, and its server crashes now and then when it is
// asked for the table of all programs' handles while one of them starts. So each handle is tried;
// the lowest free ones are given out, and more than this nobody is to have.
inline size_t CountHandles() {
    constexpr uintptr_t kMost = 4096;
    constexpr uintptr_t kStep = 4;
    size_t open = 0;
    for (uintptr_t number = 1; number <= kMost; ++number) {
        DWORD flags = 0;
        open += GetHandleInformation(reinterpret_cast<HANDLE>(number * kStep), &flags) != 0;
    }
    return open;
}

inline size_t CountThreads() {
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    size_t count = 0;
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
        count += entry.th32OwnerProcessID == GetCurrentProcessId();
    }
    CloseHandle(snapshot);
    return count;
}
