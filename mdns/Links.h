// The machine's interfaces as a network for searches: one socket for each of them and each of IPv4
// and IPv6, on a port that the system chooses.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <iphlpapi.h>

#include <array>
#include <vector>

#include "base/Sockets.h"
#include "mdns/Browser.h"
#include "mdns/Limits.h"

namespace mdns {

class Links : public Network {
  public:
    // Opens the sockets. Without Windows Sockets, or without an interface, there are none.
    Links();

    Clock::time_point Now() override { return Clock::now(); }
    bool Send(std::string_view message) override;
    std::optional<Datagram> Receive(Clock::time_point until) override;

  private:
    struct Subnet {
        SOCKADDR_INET address;
        unsigned prefixBits;
    };
    struct Link {
        UniqueSocket socket;
        SOCKADDR_INET group{};
        std::vector<Subnet> subnets;
    };

    void AddLink(const IP_ADAPTER_ADDRESSES& adapter, int family);
    static bool Open(Link& link, SOCKADDR_INET own, ULONG index);
    bool WaitUntil(Clock::time_point until) const;
    std::optional<Datagram> Read(const Link& link);
    static bool IsOnLink(const SOCKADDR_INET& source, const Link& link);

    const SocketsReference sockets_;
    std::vector<Link> links_;
    size_t next_ = 0;  // the link that is read next
    std::array<char, kMaxMessage> buffer_;
};

}  // namespace mdns
