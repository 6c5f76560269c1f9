#include "base/Sockets.h"

#include <new>

UniqueBlock<IP_ADAPTER_ADDRESSES> ReadAdapters() {
    // Under Wine the list of DNS servers makes the whole call fail for IPv6.
    constexpr ULONG kFlags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST |
                             GAA_FLAG_SKIP_DNS_SERVER | GAA_FLAG_SKIP_FRIENDLY_NAME;
    constexpr int kAttempts = 4;  // the list can grow between two calls
    ULONG size = 16 * 1024;       // what the platform's documentation advises to begin with
    ULONG error = ERROR_BUFFER_OVERFLOW;
    UniqueBlock<IP_ADAPTER_ADDRESSES> list;
    for (int i = 0; i < kAttempts && error == ERROR_BUFFER_OVERFLOW; ++i) {
        list.Reset(static_cast<IP_ADAPTER_ADDRESSES*>(GlobalAlloc(GPTR, size)));
        if (!list) {
            throw std::bad_alloc();
        }
        error = GetAdaptersAddresses(AF_UNSPEC, kFlags, nullptr, list.Get(), &size);
    }
    if (error != ERROR_SUCCESS) {
        list.Reset();
    }
    return list;
}
