// The records that carry a port's configuration: between the spooler's clients and the monitor, and
// between administration and the monitor.
#pragma once

#include <windows.h>

#include <cstddef>

// The standard record, as port monitors and their user interfaces exchange it (platform record
// PORT_DATA_1 of tcpxcv.h, UTF-16, little-endian).
struct PORT_DATA_1 {
    WCHAR sztPortName[64];
    DWORD dwVersion;
    DWORD dwProtocol;  // kProtocolRaw or kProtocolLpr
    DWORD cbSize;
    DWORD dwReserved;
    WCHAR sztHostAddress[49];  // host name: a key to find the printer again, never connected to
    WCHAR sztSNMPCommunity[33];
    DWORD dwDoubleSpool;
    WCHAR sztQueue[33];
    WCHAR sztIPAddress[16];  // IPv4, dotted decimal
    BYTE Reserved[540];
    DWORD dwPortNumber;
    DWORD dwSNMPEnabled;
    DWORD dwSNMPDevIndex;
};
static_assert(sizeof(PORT_DATA_1) == 964);
static_assert(offsetof(PORT_DATA_1, dwVersion) == 128);
static_assert(offsetof(PORT_DATA_1, sztHostAddress) == 144);
static_assert(offsetof(PORT_DATA_1, sztSNMPCommunity) == 242);
static_assert(offsetof(PORT_DATA_1, dwDoubleSpool) == 308);
static_assert(offsetof(PORT_DATA_1, sztQueue) == 312);
static_assert(offsetof(PORT_DATA_1, sztIPAddress) == 378);
static_assert(offsetof(PORT_DATA_1, Reserved) == 410);
static_assert(offsetof(PORT_DATA_1, dwPortNumber) == 952);
static_assert(offsetof(PORT_DATA_1, dwSNMPDevIndex) == 960);

constexpr DWORD kProtocolRaw = 1;
constexpr DWORD kProtocolLpr = 2;

// The extended record: what this monitor remembers of a printer beyond the standard one.
struct PortDataEx {
    WCHAR sztPortName[64];
    DWORD reserved[2];
    WCHAR sztIPv6HostName[128];  // IPv6 address or host name to connect to
    DWORD dwAlwaysPrint;         // non-zero: search for the printer when it cannot be reached
    DWORD dwUseIPV6;             // non-zero: connect to sztIPv6HostName, else to sztIPAddress
    WCHAR sztHWAddress[13];      // hardware address, twelve hexadecimal digits
    BYTE padding[2];
};
static_assert(sizeof(PortDataEx) == 428);
static_assert(offsetof(PortDataEx, sztIPv6HostName) == 136);
static_assert(offsetof(PortDataEx, dwAlwaysPrint) == 392);
static_assert(offsetof(PortDataEx, dwUseIPV6) == 396);
static_assert(offsetof(PortDataEx, sztHWAddress) == 400);
