// How many handles (sockets, files, keys) this process has open.
#pragma once

#include <windows.h>
#include <winternl.h>

#include <cstddef>
#include <vector>

// GetProcessHandleCount is a constant under Wine; the system's table of all handles is not.
inline size_t CountHandles() {
    struct Entry {
        void* object;
        ULONG_PTR process, handle;
        ULONG rest[4];
    };
    struct Table {
        ULONG_PTR count, reserved;
        Entry entries[1];
    };
    constexpr auto kExtendedHandleInformation = static_cast<SYSTEM_INFORMATION_CLASS>(64);
    std::vector<std::byte> buffer(1 << 16);
    ULONG needed = 0;
    while (NtQuerySystemInformation(kExtendedHandleInformation, buffer.data(),
                                    static_cast<ULONG>(buffer.size()), &needed) < 0) {
        buffer.resize(buffer.size() * 2);
    }
    const auto* table = reinterpret_cast<const Table*>(buffer.data());
    size_t own = 0;
    for (ULONG_PTR i = 0; i < table->count; ++i) {
        own += table->entries[i].process == GetCurrentProcessId();
    }
    return own;
}
