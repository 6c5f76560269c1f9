#include "mdns/Links.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace mdns {
namespace {

constexpr u_short kPort = 5353;
constexpr DWORD kGroup4 = 0xE00000FB;  // 224.0.0.251
constexpr IN6_ADDR kGroup6{{{0xFF, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFB}}};

bool IsUsable(const IP_ADAPTER_ADDRESSES& adapter) {
    return adapter.OperStatus == IfOperStatusUp && adapter.IfType != IF_TYPE_SOFTWARE_LOOPBACK &&
           (adapter.Flags & IP_ADAPTER_NO_MULTICAST) == 0;
}

bool Set(SOCKET socket, int level, int option, DWORD value) {
    return setsockopt(socket, level, option, reinterpret_cast<const char*>(&value), sizeof value) ==
           0;
}

// Whether two addresses begin with the same bits.
bool BeginAlike(const unsigned char* one, const unsigned char* other, unsigned bits) {
    const unsigned whole = bits / 8;
    return std::memcmp(one, other, whole) == 0 &&
           (bits % 8 == 0 || (one[whole] ^ other[whole]) >> (8 - bits % 8) == 0);
}

int SizeOf(const SOCKADDR_INET& address) {
    return address.si_family == AF_INET ? sizeof address.Ipv4 : sizeof address.Ipv6;
}

// The bytes of the host's address, in network order.
const unsigned char* HostOf(const SOCKADDR_INET& address) {
    return address.si_family == AF_INET
               ? reinterpret_cast<const unsigned char*>(&address.Ipv4.sin_addr)
               : address.Ipv6.sin6_addr.s6_addr;
}

bool IsLinkLocal(const SOCKADDR_INET& address) {
    return address.si_family == AF_INET6 && IN6_IS_ADDR_LINKLOCAL(&address.Ipv6.sin6_addr);
}

}  // namespace

Links::Links() {
    const auto adapters = ReadAdapters();
    for (const auto* adapter = adapters.Get(); adapter != nullptr; adapter = adapter->Next) {
        if (IsUsable(*adapter)) {
            AddLink(*adapter, AF_INET);
            AddLink(*adapter, AF_INET6);
        }
    }
}

// Opens a socket that sends from the interface's first address of the family; of IPv6 from the
// link-local one, which every interface has.
void Links::AddLink(const IP_ADAPTER_ADDRESSES& adapter, int family) {
    Link link;
    SOCKADDR_INET own{};
    for (auto* unicast = adapter.FirstUnicastAddress; unicast != nullptr; unicast = unicast->Next) {
        const SOCKET_ADDRESS& address = unicast->Address;
        if (address.lpSockaddr->sa_family != family) {
            continue;
        }
        Subnet& subnet = link.subnets.emplace_back(Subnet{
            {}, std::min<unsigned>(unicast->OnLinkPrefixLength, family == AF_INET ? 32 : 128)});
        std::memcpy(&subnet.address, address.lpSockaddr,
                    std::min<size_t>(address.iSockaddrLength, sizeof subnet.address));
        if (own.si_family == 0 || IsLinkLocal(subnet.address)) {
            own = subnet.address;
        }
    }
    // Wine leaves the first of the two zero.
    const ULONG index = adapter.Ipv6IfIndex != 0 ? adapter.Ipv6IfIndex : adapter.IfIndex;
    if (own.si_family != 0 && links_.size() < kMaxLinks && Open(link, own, index)) {
        links_.push_back(std::move(link));
    }
}

// Opens the socket of a link. Returns false if it cannot be used to send from this address to the
// group by the interface with this number.
bool Links::Open(Link& link, SOCKADDR_INET own, ULONG index) {
    const int family = own.si_family;
    link.group.si_family = own.si_family;
    SS_PORT(&link.group) = htons(kPort);
    if (family == AF_INET) {
        link.group.Ipv4.sin_addr.s_addr = htonl(kGroup4);
    } else {
        link.group.Ipv6.sin6_addr = kGroup6;
        link.group.Ipv6.sin6_scope_id = index;
        own.Ipv6.sin6_scope_id = IsLinkLocal(own) ? index : 0;
    }
    SS_PORT(&own) = 0;  // chosen by the system
    link.socket.Reset(socket(family, SOCK_DGRAM, 0));
    const SOCKET socket = link.socket.Get();
    Set(socket, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, 1);
    Set(socket, SOL_SOCKET, SO_RCVBUF, kReceiveBuffer);
    // RFC 6762, section 11: all messages are sent with a TTL of 255.
    const bool ready = family == AF_INET
                           ? Set(socket, IPPROTO_IP, IP_MULTICAST_IF, own.Ipv4.sin_addr.s_addr) &&
                                 Set(socket, IPPROTO_IP, IP_MULTICAST_TTL, 255)
                           : Set(socket, IPPROTO_IPV6, IPV6_MULTICAST_IF, index) &&
                                 Set(socket, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 255);
    u_long on = 1;
    return ready && bind(socket, reinterpret_cast<const sockaddr*>(&own), SizeOf(own)) == 0 &&
           ioctlsocket(socket, FIONBIO, &on) == 0;
}

bool Links::Send(std::string_view message) {
    bool sent = false;
    for (const Link& link : links_) {
        const int size = static_cast<int>(message.size());
        sent = sendto(link.socket.Get(), message.data(), size, 0,
                      reinterpret_cast<const sockaddr*>(&link.group), SizeOf(link.group)) == size ||
               sent;
    }
    return sent;
}

std::optional<Network::Datagram> Links::Receive(Clock::time_point until) {
    do {  // reads one datagram of each link in turn, so that a flood on one does not block others
        for (size_t count = 0; count < links_.size(); ++count) {
            next_ = (next_ + 1) % links_.size();
            if (auto datagram = Read(links_[next_])) {
                return datagram;
            }
        }
    } while (WaitUntil(until));
    return std::nullopt;
}

// Waits until a socket can be read. Returns false if none can be before `until`.
bool Links::WaitUntil(Clock::time_point until) const {
    const auto left = std::chrono::ceil<std::chrono::microseconds>(until - Clock::now()).count();
    if (left <= 0) {
        return false;
    }
    fd_set readable;
    FD_ZERO(&readable);
    for (const Link& link : links_) {
        FD_SET(link.socket.Get(), &readable);
    }
    timeval time{static_cast<long>(left / 1000000), static_cast<long>(left % 1000000)};
    if (select(0, &readable, nullptr, nullptr, &time) == SOCKET_ERROR) {
        std::this_thread::sleep_until(until);
        return false;
    }
    return true;
}

// Reads the next datagram. Returns nothing if there is none, or none to be accepted.
std::optional<Network::Datagram> Links::Read(const Link& link) {
    SOCKADDR_INET source{};
    int sourceSize = sizeof source;
    const int size = recvfrom(link.socket.Get(), buffer_.data(), static_cast<int>(buffer_.size()),
                              0, reinterpret_cast<sockaddr*>(&source), &sourceSize);
    if (size < 0 || !IsOnLink(source, link)) {
        return std::nullopt;
    }
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(source.si_family, HostOf(source), text, sizeof text);
    return Datagram{text, {buffer_.data(), static_cast<size_t>(size)}};
}

// RFC 6762, section 11: a response comes from port 5353 of a host on the local link.
bool Links::IsOnLink(const SOCKADDR_INET& source, const Link& link) {
    return ntohs(SS_PORT(&source)) == kPort &&
           (IsLinkLocal(source) || std::ranges::any_of(link.subnets, [&](const Subnet& subnet) {
                return source.si_family == subnet.address.si_family && subnet.prefixBits > 0 &&
                       BeginAlike(HostOf(source), HostOf(subnet.address), subnet.prefixBits);
            }));
}

}  // namespace mdns
