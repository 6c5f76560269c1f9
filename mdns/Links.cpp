// The machine's interfaces as a network for searches: one socket for each of them and each of IPv4
// and IPv6, on a port that the system chooses.
#include <algorithm>
#include <array>
#include <cstring>
#include <random>

#include "base/Sockets.h"
#include "mdns/Browser.h"
#include "mdns/Limits.h"

namespace mdns {
namespace {

constexpr u_short kPort = 5353;
constexpr DWORD kGroup4 = 0xE00000FB;  // 224.0.0.251
constexpr IN6_ADDR kGroup6{{{0xFF, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFB}}};

// A socket for one family of an interface's addresses.
struct Link {
    UniqueSocket socket;
    SOCKADDR_INET group{};
    const IP_ADAPTER_ADDRESSES* adapter = nullptr;
};

bool IsUsable(const IP_ADAPTER_ADDRESSES& adapter) {
    return adapter.OperStatus == IfOperStatusUp && adapter.IfType != IF_TYPE_SOFTWARE_LOOPBACK &&
           (adapter.Flags & IP_ADAPTER_NO_MULTICAST) == 0;
}

bool Set(const UniqueSocket& socket, int level, int option, DWORD value) {
    return setsockopt(socket.Get(), level, option, reinterpret_cast<const char*>(&value),
                      sizeof value) == 0;
}

SOCKADDR_INET AddressOf(const IP_ADAPTER_UNICAST_ADDRESS& unicast) {
    SOCKADDR_INET address{};
    std::memcpy(&address, unicast.Address.lpSockaddr,
                std::min<size_t>(unicast.Address.iSockaddrLength, sizeof address));
    return address;
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

bool IsInSubnet(const SOCKADDR_INET& address, const IP_ADAPTER_UNICAST_ADDRESS& unicast) {
    const SOCKADDR_INET own = AddressOf(unicast);
    const unsigned bits =
        std::min<unsigned>(unicast.OnLinkPrefixLength, own.si_family == AF_INET ? 32 : 128);
    bool same = address.si_family == own.si_family && bits > 0;
    for (unsigned bit = 0; same && bit < bits; ++bit) {
        const int differing = HostOf(address)[bit / 8] ^ HostOf(own)[bit / 8];
        same = (differing << bit % 8 & 0x80) == 0;
    }
    return same;
}

// RFC 6762, section 11: a response comes from port 5353 of a host on the local link.
bool IsOnLink(const SOCKADDR_INET& source, const Link& link) {
    bool onLink = IsLinkLocal(source);
    for (auto* own = link.adapter->FirstUnicastAddress; own != nullptr; own = own->Next) {
        onLink = onLink || IsInSubnet(source, *own);
    }
    return onLink && ntohs(SS_PORT(&source)) == kPort;
}

// Opens the socket of a link. Returns false if it cannot be used to send from this address to the
// group by the link's interface.
bool Open(Link& link, SOCKADDR_INET own) {
    const auto& adapter = *link.adapter;
    // Wine leaves the first of the two zero.
    const ULONG index = adapter.Ipv6IfIndex != 0 ? adapter.Ipv6IfIndex : adapter.IfIndex;
    const bool ipv4 = own.si_family == AF_INET;
    link.group.si_family = own.si_family;
    if (ipv4) {
        link.group.Ipv4.sin_addr.s_addr = htonl(kGroup4);
    } else {
        link.group.Ipv6.sin6_addr = kGroup6;
        link.group.Ipv6.sin6_scope_id = index;
        own.Ipv6.sin6_scope_id = IsLinkLocal(own) ? index : 0;
    }
    SS_PORT(&link.group) = htons(kPort);
    SS_PORT(&own) = 0;  // chosen by the system
    link.socket.Reset(socket(own.si_family, SOCK_DGRAM, 0));
    Set(link.socket, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, 1);
    Set(link.socket, SOL_SOCKET, SO_RCVBUF, kReceiveBuffer);
    // RFC 6762, section 11: all messages are sent with a TTL of 255.
    const bool ready =
        ipv4 ? Set(link.socket, IPPROTO_IP, IP_MULTICAST_IF, own.Ipv4.sin_addr.s_addr) &&
                   Set(link.socket, IPPROTO_IP, IP_MULTICAST_TTL, 255)
             : Set(link.socket, IPPROTO_IPV6, IPV6_MULTICAST_IF, index) &&
                   Set(link.socket, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 255);
    u_long on = 1;
    return ready &&
           bind(link.socket.Get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0 &&
           ioctlsocket(link.socket.Get(), FIONBIO, &on) == 0;
}

class Links : public Network {
  public:
    // Opens the sockets. Without Windows Sockets, or without an interface, there are none.
    Links() {
        for (auto* adapter = adapters_.Get(); adapter != nullptr; adapter = adapter->Next) {
            if (IsUsable(*adapter)) {
                AddLink(*adapter, AF_INET);
                AddLink(*adapter, AF_INET6);
            }
        }
    }

    Clock::time_point Now() override { return Clock::now(); }

    bool Send(std::string_view message) override {
        bool sent = false;
        for (const auto& [socket, group, adapter] : links_) {
            const int size = static_cast<int>(message.size());
            sent = sendto(socket.Get(), message.data(), size, 0,
                          reinterpret_cast<const sockaddr*>(&group), sizeof group) == size ||
                   sent;
        }
        return sent;
    }

    std::optional<Datagram> Receive(Clock::time_point until) override {
        for (;;) {  // reads each link in turn, so that a flood on one does not block others
            for (size_t count = 0; count < links_.size(); ++count) {
                next_ = (next_ + 1) % links_.size();
                if (auto datagram = Read(links_[next_])) {
                    return datagram;
                }
            }
            const auto left =
                std::chrono::ceil<std::chrono::microseconds>(until - Clock::now()).count();
            if (left <= 0) {
                return std::nullopt;
            }
            fd_set readable;
            FD_ZERO(&readable);
            for (const Link& link : links_) {
                FD_SET(link.socket.Get(), &readable);
            }
            timeval time{0, static_cast<long>(left)};  // kCancelInterval at most
            select(0, &readable, nullptr, nullptr, &time);
        }
    }

  private:
    // Adds a socket that sends from the interface's first address of the family; of IPv6 from the
    // link-local one, which every interface has.
    void AddLink(const IP_ADAPTER_ADDRESSES& adapter, int family) {
        SOCKADDR_INET own{};
        for (auto* unicast = adapter.FirstUnicastAddress; unicast; unicast = unicast->Next) {
            const SOCKADDR_INET address = AddressOf(*unicast);
            if (address.si_family == family && (own.si_family == 0 || IsLinkLocal(address))) {
                own = address;
            }
        }
        Link link{{}, {}, &adapter};
        if (own.si_family != 0 && links_.size() < kMaxLinks && Open(link, own)) {
            links_.push_back(std::move(link));
        }
    }

    // Reads the next datagram. Returns nothing if there is none, or none to be accepted.
    std::optional<Datagram> Read(const Link& link) {
        SOCKADDR_INET source{};
        int sourceSize = sizeof source;
        const int size =
            recvfrom(link.socket.Get(), buffer_.data(), static_cast<int>(buffer_.size()), 0,
                     reinterpret_cast<sockaddr*>(&source), &sourceSize);
        if (size < 0 || !IsOnLink(source, link)) {
            return std::nullopt;
        }
        char text[INET6_ADDRSTRLEN] = "";
        inet_ntop(source.si_family, HostOf(source), text, sizeof text);
        return Datagram{text, {buffer_.data(), static_cast<size_t>(size)}};
    }

    const SocketsReference sockets_;
    const UniqueBlock<IP_ADAPTER_ADDRESSES> adapters_ = ReadAdapters();
    std::vector<Link> links_;
    size_t next_ = 0;  // the link that is read next
    std::array<char, kMaxMessage> buffer_;
};

}  // namespace

SearchResult FindPrinters(const std::function<bool()>& goOn) {
    // Not 0, which responders put into answers to queries without an identifier.
    std::random_device source;
    const int id = std::uniform_int_distribution<>(1, 0xFFFF)(source);
    Links links;
    return FindPrinters(goOn, links, static_cast<uint16_t>(id));
}

}  // namespace mdns
