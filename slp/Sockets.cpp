#include "slp/Sockets.h"

#include <algorithm>
#include <cstring>

namespace slp {
namespace {

// The adapter's addresses that multicast of `family` may leave by, as far as `only` allows: the
// one that was named, else the first.
std::optional<Interface> Usable(const IP_ADAPTER_ADDRESSES& adapter, int family,
                                const std::vector<Address>& only) {
    std::optional<Interface> found;
    std::vector<Subnet> subnets;
    bool allowed = only.empty();
    for (auto* unicast = adapter.FirstUnicastAddress; unicast != nullptr; unicast = unicast->Next) {
        const auto address = Address::From(unicast->Address.lpSockaddr);
        if (!address) {
            continue;
        }
        const bool named = std::any_of(only.begin(), only.end(), [&](const Address& wanted) {
            return wanted.SameHost(*address);
        });
        allowed = allowed || named;
        if (address->family() != family) {
            continue;
        }
        subnets.push_back({*address, unicast->OnLinkPrefixLength});
        if (found && !named) {
            continue;
        }
        found.emplace();
        if (family == AF_INET) {
            found->host = address->host4();
        } else {  // Wine leaves the first of the two zero
            found->index = adapter.Ipv6IfIndex != 0 ? adapter.Ipv6IfIndex : adapter.IfIndex;
        }
    }
    if (!found || !allowed) {
        return std::nullopt;
    }
    found->subnets = std::move(subnets);
    return found;
}

}  // namespace

Socket::Socket(int family, int type) : UniqueSocket(socket(family, type, 0)) {
    u_long on = 1;
    if (*this) {
        ioctlsocket(Get(), FIONBIO, &on);
    }
}

bool Socket::Signal(HANDLE event, long networkEvents) const {
    return WSAEventSelect(Get(), event, networkEvents) == 0;
}

bool Socket::Set(int level, int option, DWORD value) const {
    return setsockopt(Get(), level, option, reinterpret_cast<const char*>(&value), sizeof value) ==
           0;
}

Address Address::Any(int family) {
    Address any;
    any.any_.sa_family = static_cast<u_short>(family);
    return any;
}

std::optional<Address> Address::From(const sockaddr* address) {
    if (address == nullptr || (address->sa_family != AF_INET && address->sa_family != AF_INET6)) {
        return std::nullopt;
    }
    Address copy;
    if (address->sa_family == AF_INET) {
        std::memcpy(&copy.v4_, address, sizeof copy.v4_);
    } else {
        std::memcpy(&copy.v6_, address, sizeof copy.v6_);
    }
    return copy.port() == 0 ? copy.WithPort(kPort) : copy;
}

std::optional<Address> Address::Parse(const std::string& text) {
    Address parsed;
    if (inet_pton(AF_INET, text.c_str(), &parsed.v4_.sin_addr) == 1) {
        parsed.v4_.sin_family = AF_INET;
        return parsed;
    }
    if (inet_pton(AF_INET6, text.c_str(), &parsed.v6_.sin6_addr) == 1) {
        parsed.v6_.sin6_family = AF_INET6;
        return parsed;
    }
    return std::nullopt;
}

sockaddr* Address::Receive(int& size) {
    size = sizeof v6_;
    return &any_;
}

int Address::size() const {
    return family() == AF_INET ? sizeof v4_ : sizeof v6_;
}

// Both kinds of address have the port in the same place.
unsigned short Address::port() const {
    return ntohs(v4_.sin_port);
}
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));

Address Address::WithPort(unsigned short port) const {
    Address changed = *this;
    changed.v4_.sin_port = htons(port);
    return changed;
}

Address Address::WithScope(ULONG scope) const {
    Address changed = *this;
    changed.v6_.sin6_scope_id = scope;
    return changed;
}

bool Address::IsMulticast() const {
    return family() == AF_INET ? IN_MULTICAST(ntohl(v4_.sin_addr.s_addr))
                               : v6_.sin6_addr.s6_addr[0] == 0xFF;
}

bool Address::IsLinkGroup() const {
    constexpr int kScope = 0x0F;  // RFC 4291, section 2.7
    constexpr int kLinkLocal = 2;
    return family() == AF_INET6 && IsMulticast() &&
           (v6_.sin6_addr.s6_addr[1] & kScope) <= kLinkLocal;
}

bool Address::IsHost() const {
    if (IsMulticast()) {
        return false;
    }
    if (family() == AF_INET) {
        return v4_.sin_addr.s_addr != INADDR_ANY && v4_.sin_addr.s_addr != INADDR_BROADCAST;
    }
    return std::any_of(std::begin(v6_.sin6_addr.s6_addr), std::end(v6_.sin6_addr.s6_addr),
                       [](unsigned char byte) { return byte != 0; });
}

bool Address::SameSubnet(const Address& other, unsigned prefixBits) const {
    if (family() != other.family()) {
        return false;
    }
    const bool four = family() == AF_INET;
    const auto bytes = [four](const Address& address) {
        return four ? reinterpret_cast<const unsigned char*>(&address.v4_.sin_addr)
                    : address.v6_.sin6_addr.s6_addr;
    };
    const unsigned bits = std::min(prefixBits, four ? 32u : kAllBits);
    const unsigned whole = bits / 8;
    return std::memcmp(bytes(*this), bytes(other), whole) == 0 &&
           (bits % 8 == 0 || (bytes(*this)[whole] ^ bytes(other)[whole]) >> (8 - bits % 8) == 0);
}

std::string Address::Text() const {
    char text[INET6_ADDRSTRLEN] = "";
    if (family() == AF_INET) {
        inet_ntop(AF_INET, &v4_.sin_addr, text, sizeof text);
    } else {
        inet_ntop(AF_INET6, &v6_.sin6_addr, text, sizeof text);
    }
    return text;
}

std::optional<std::vector<Interface>> UpInterfaces(int family, const std::vector<Address>& only) {
    const auto adapters = ReadAdapters();
    if (!adapters) {
        return std::nullopt;
    }
    std::vector<Interface> interfaces;
    for (const auto* adapter = adapters.Get(); adapter != nullptr; adapter = adapter->Next) {
        if (adapter->OperStatus == IfOperStatusUp) {
            if (const auto usable = Usable(*adapter, family, only)) {
                interfaces.push_back(*usable);
            }
        }
    }
    return interfaces;
}

}  // namespace slp
