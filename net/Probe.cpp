// The reachability probes of Network.
#include "net/Network.h"

#include <icmpapi.h>

#include <algorithm>
#include <cstddef>

#include "diag/Log.h"
#include "base/Handles.h"

namespace {

constexpr int kAnswered = 0;
constexpr int kNotAnswered = 1;
constexpr int kNoAddress = 3;
constexpr DWORD kTimeout = 5000;  // ms
constexpr WORD kDataSize = 4;
constexpr char kData[kDataSize] = {'k', 'e', 's', 't'};

// The platform's ICMPV6_ECHO_REPLY, which MinGW-w64's headers lack.
#pragma pack(push, 1)
struct Ipv6AddressEx {
    USHORT port;
    ULONG flowInfo;
    USHORT address[8];
    ULONG scopeId;
};
#pragma pack(pop)
struct Icmp6EchoReply {
    Ipv6AddressEx address;
    ULONG status;
    ULONG roundTripTime;
};
static_assert(sizeof(Ipv6AddressEx) == 26);
static_assert(offsetof(Icmp6EchoReply, status) == 28);
static_assert(sizeof(Icmp6EchoReply) == 36);

}  // namespace

int Network::Ping(const IPAddress& address) const {
    switch (address.GetType()) {
        case IPV4:
            return PingV4(address);
        case IPV6:
            return Ping6(address);
        default:
            return kNoAddress;
    }
}

int Network::PingV4(const IPAddress& address) const {
    int length = sizeof(sockaddr_in);
    const auto* destination = reinterpret_cast<sockaddr_in*>(address.GetSockAddr(length));
    if (destination == nullptr) {
        return kNotAnswered;
    }
    const auto sendEcho = Entry<decltype(&::IcmpSendEcho2)>("IcmpSendEcho2");
    if (sendEcho == nullptr) {
        return kNotAnswered;
    }
    char data[kDataSize];
    std::copy_n(kData, kDataSize, data);
    alignas(ICMP_ECHO_REPLY) std::byte buffer[324] = {};
    if (sendEcho(icmpHandle_, nullptr, nullptr, nullptr, destination->sin_addr.s_addr, data,
                 kDataSize, nullptr, buffer, sizeof buffer, kTimeout) != 1) {
        return kNotAnswered;
    }
    const auto* reply = reinterpret_cast<const ICMP_ECHO_REPLY*>(buffer);
    return reply->Status == IP_SUCCESS && reply->DataSize == kDataSize ? kAnswered : kNotAnswered;
}

int Network::Ping6(const IPAddress& address) const {
    if (icmp6Handle_ == nullptr) {
        return kNotAnswered;
    }
    IP_OPTION_INFORMATION options = {};
    options.Ttl = 255;
    sockaddr_in6 source = {};
    source.sin6_family = AF_INET6;
    int length = sizeof(sockaddr_in6);
    auto* destination = reinterpret_cast<sockaddr_in6*>(address.GetSockAddr(length));
    if (destination == nullptr) {
        return kNotAnswered;
    }
    if (destination->sin6_scope_id == 0 && SetV6Scope(destination) == -1) {
        LogSystemInfo("Network::Ping6",
                      "Ping6: Failed to set local-link Scope ID, reset to default");
        destination->sin6_scope_id = 0;
    }
    const auto sendEcho = Entry<decltype(&::Icmp6SendEcho2)>("Icmp6SendEcho2");
    if (sendEcho == nullptr) {
        LogSystemError("Network::Ping6", "Ping6: Unable to get proc Icmp6SendEcho2");
        return kNotAnswered;
    }
    char data[kDataSize];
    std::copy_n(kData, kDataSize, data);
    alignas(8) std::byte buffer[292] = {};
    if (sendEcho(icmp6Handle_, nullptr, nullptr, nullptr, &source, destination, data, kDataSize,
                 &options, buffer, sizeof buffer, kTimeout) != 1) {
        LogSystemInfo("Network::Ping6",
                      "Ping6: Failed Icmp6SendEcho2 call, GLE = ", GetLastError());
        return kNotAnswered;
    }
    const auto* reply = reinterpret_cast<const Icmp6EchoReply*>(buffer);
    if (reply->status != IP_SUCCESS) {
        // Compatibility: the text says "Replay" instead of "Reply"; tools that read the log search
        // for it.
        LogSystemInfo("Network::Ping6", "Ping6: Replay failed, Status = ", reply->status);
        return kNotAnswered;
    }
    return kAnswered;
}

int SetV6Scope(sockaddr_in6* address) {
    constexpr ULONG kLastScope = 254;
    const UniqueSocket probe(socket(AF_INET6, SOCK_STREAM, IPPROTO_TCP));
    if (!probe) {
        return -1;
    }
    for (ULONG scope = 0; scope <= kLastScope; ++scope) {
        address->sin6_scope_id = scope;
        // Compatibility: the socket is bound to the given address, so only an address of this
        // computer gets a scope; tools that read the log rely on a line for each attempt.
        if (bind(probe.Get(), reinterpret_cast<sockaddr*>(address), sizeof *address) == 0) {
            LogInfo("SetV6Scope", "SetV6Scope: Able to bind scope ID-", scope);
            return 0;
        }
        LogSystemInfo("SetV6Scope", "SetV6Scope: Failed to bind Scope ID-", scope,
                      ", GLE = ", GetLastError());
    }
    return -1;
}
