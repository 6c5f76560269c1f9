#include "net/InterfaceTables.h"

#include <algorithm>

namespace {

// Addresses stand in network order: the first octet is the lowest byte.
DWORD FirstOctet(DWORD address) {
    return address & 0xFF;
}

DWORD DefaultGateway(std::span<const MIB_IPFORWARDROW> routes) {
    const auto route = std::find_if(routes.begin(), routes.end(), [](const MIB_IPFORWARDROW& row) {
        return row.dwForwardDest == 0;
    });
    return route != routes.end() ? route->dwForwardNextHop : 0;
}

AddressVerdict Judge(const MIB_IPADDRROW& row, DWORD gateway) {
    if (row.dwAddr == 0) {
        return AddressVerdict::NoAddress;
    }
    if (row.dwMask == 0) {
        return AddressVerdict::NoMask;
    }
    if (FirstOctet(row.dwAddr) == 0) {
        return AddressVerdict::ZeroNetwork;
    }
    if (FirstOctet(row.dwAddr) == 127) {
        return AddressVerdict::Loopback;
    }
    if ((row.dwAddr & 0xFFFF) == (169 | 254 << 8)) {
        return AddressVerdict::SelfAssigned;
    }
    if (gateway != 0 && (FirstOctet(gateway) == 0 || FirstOctet(gateway) == 127)) {
        return AddressVerdict::GatewayUnusable;
    }
    return gateway == row.dwAddr ? AddressVerdict::IsGateway : AddressVerdict::Taken;
}

}  // namespace

std::vector<JudgedAddress> JudgeAddresses(std::span<const MIB_IPADDRROW> addresses,
                                          std::span<const MIB_IPFORWARDROW> routes) {
    const DWORD gateway = DefaultGateway(routes);
    size_t taken = 0;
    std::vector<JudgedAddress> judged;
    judged.reserve(addresses.size());
    for (const auto& row : addresses) {
        const auto verdict =
            taken == kMaxLocalAddresses ? AddressVerdict::BeyondLimit : Judge(row, gateway);
        taken += verdict == AddressVerdict::Taken;
        judged.push_back({row.dwAddr, row.dwMask, verdict});
    }
    return judged;
}
