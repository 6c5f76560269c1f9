// How many handles (sockets, files, keys) this process has open.
#pragma once

#include <windows.h>

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
