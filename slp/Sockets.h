// The Windows side of a request: sockets, addresses, and the interfaces that multicast goes out of.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "base/Sockets.h"

namespace slp {

inline constexpr unsigned short kPort = 427;

// A socket that does not block; INVALID_SOCKET when it could not be made.
class Socket : public UniqueSocket {
  public:
    Socket(int family, int type);

    // Has `event` set whenever one of `networkEvents` (FD_READ and so on) happens.
    bool Signal(HANDLE event, long networkEvents) const;
    // setsockopt for the options that take a number. False when the system refuses.
    bool Set(int level, int option, DWORD value) const;
};

// An IPv4 or IPv6 socket address.
class Address {
  public:
    Address() = default;
    // Any address and any port of this family, to bind to.
    static Address Any(int family);
    // Copies an address as a caller gives it; nothing when its family is another. Port 0 becomes
    // 427.
    static std::optional<Address> From(const sockaddr* address);
    // Reads a numeric IPv4 or IPv6 address, without port or zone.
    static std::optional<Address> Parse(const std::string& text);

    unsigned short port() const;
    const sockaddr* get() const { return &any_; }
    // Where the system may write an address, and how long at most.
    sockaddr* Receive(int& size);
    int size() const;
    int family() const { return any_.sa_family; }
    const in_addr& host4() const { return v4_.sin_addr; }
    ULONG scope() const { return family() == AF_INET6 ? v6_.sin6_scope_id : 0; }

    // The same address with another port, or for another interface's link.
    Address WithPort(unsigned short port) const;
    Address WithScope(ULONG scope) const;

    bool IsMulticast() const;
    // Whether it is an IPv6 group of one link, whose address says nothing without its interface.
    bool IsLinkGroup() const;
    // Whether one host can have this address: it is neither unspecified nor multicast nor
    // broadcast.
    bool IsHost() const;
    // Whether both are the same host's, whatever their ports and zones.
    bool SameHost(const Address& other) const { return SameSubnet(other, kAllBits); }
    // Whether both begin with the same bits. A prefix longer than the address means all of it.
    bool SameSubnet(const Address& other, unsigned prefixBits) const;
    // The numeric form, without port and zone.
    std::string Text() const;

  private:
    static constexpr unsigned kAllBits = 128;

    union {
        sockaddr any_;
        sockaddr_in v4_;
        sockaddr_in6 v6_{};
    };
};

// An address of this machine, and how many of its bits are those of its subnet.
struct Subnet {
    Address address;
    unsigned prefixBits;
};

// An interface that is up, as multicast of one family leaves by it.
struct Interface {
    in_addr host{};   // its address, for IPv4
    ULONG index = 0;  // its number, for IPv6
    std::vector<Subnet> subnets;
};

// The interfaces that are up and have an address of this family.
//   only  if given, restricts them to those with one of these addresses.
// Nothing when the system does not list them.
std::optional<std::vector<Interface>> UpInterfaces(int family, const std::vector<Address>& only);

}  // namespace slp
