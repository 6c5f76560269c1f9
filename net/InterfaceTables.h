// Which of the machine's IPv4 addresses are of use to speak from.
#pragma once

#include <winsock2.h>
#include <windows.h>
#include <iphlpapi.h>

#include <span>
#include <vector>

// At most so many addresses are taken.
constexpr size_t kMaxLocalAddresses = 10;

// What became of an address, and if it was left out, why.
enum class AddressVerdict {
    Taken,
    NoAddress,        // 0.0.0.0: the interface has none yet
    NoMask,           // its network cannot be told
    ZeroNetwork,      // 0.0.0.0/8, "this network"
    Loopback,         // 127.0.0.0/8
    SelfAssigned,     // 169.254.0.0/16: nobody gave the interface an address (RFC 3927)
    GatewayUnusable,  // the default gateway's address is in 0.0.0.0/8 or 127.0.0.0/8
    IsGateway,        // the address is that of the default gateway
    BeyondLimit,      // kMaxLocalAddresses were taken before
};

// One row of the address table; address and mask in network order, as there.
struct JudgedAddress {
    DWORD address;
    DWORD mask;
    AddressVerdict verdict;
};

// Judges the rows of an address table (MIB_IPADDRTABLE), in their order, with the default route of
// a route table (MIB_IPFORWARDTABLE): the first that leads to 0.0.0.0. A next hop of 0.0.0.0 counts
// as none.
std::vector<JudgedAddress> JudgeAddresses(std::span<const MIB_IPADDRROW> addresses,
                                          std::span<const MIB_IPFORWARDROW> routes);
