// Searches the local links for printers that announce themselves by DNS-SD (RFC 6763) over
// multicast DNS (RFC 6762). docs/dns-sd.md describes what is sent and accepted; Limits.h has all
// limits.
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace mdns {

// The service types that are searched for.
enum class Protocol {
    Raw,   // _pdl-datastream._tcp
    Lpr,   // _printer._tcp
    Ipp,   // _ipp._tcp
    Ipps,  // _ipps._tcp
};

// A service that a printer announces.
struct Service {
    Protocol protocol = Protocol::Raw;
    uint16_t port = 0;  // TCP; never 0 in a result
    std::string queue;  // `rp`: for Lpr the queue, for Ipp and Ipps the path; may be empty

    auto operator<=>(const Service&) const = default;
};

// A host with at least one service and one address. Nothing of it is proven: any host on the link
// can announce anything. All texts are valid UTF-8 without control characters, and are empty if the
// printer does not announce them or announces something else.
struct Printer {
    std::string instance;  // name of an instance of its first service, for people
    std::string host;      // "prn-office.local"
    // Numeric addresses, IPv4 before IPv6; of each kind, those that the printer has answered from
    // come first. Any unicast address but those of the loopback and IPv6 link-local ones.
    std::vector<std::string> addresses;
    std::set<Service> services;  // ordered by protocol, port and queue
    std::string model;           // `ty`, or `product` without its parentheses
    std::string adminUrl;        // `adminurl`, as announced
    std::string uuid;            // `UUID`, as announced
};

struct SearchResult {
    std::vector<Printer> printers;  // one for each host name, ordered by host name
    // Whether at least one interface has sent the query. If not, the machine has no network.
    bool sent = false;
};

// What a search needs of the network and the clock.
class Network {
  public:
    using Clock = std::chrono::steady_clock;

    struct Datagram {
        std::string source;      // numeric address, without port and zone
        std::string_view bytes;  // valid until the next call
    };

    virtual ~Network() = default;
    virtual Clock::time_point Now() = 0;
    // Sends a message to the multicast DNS groups by every interface. Returns whether one of them
    // has sent it.
    virtual bool Send(std::string_view message) = 0;
    // Returns the next datagram from port 5353 of a host on the link that it came from, or nothing
    // if none comes before `until`.
    virtual std::optional<Datagram> Receive(Clock::time_point until) = 0;
};

// Searches for printers on all interfaces that are up, over IPv4 and IPv6.
//   goOn: called on this thread about five times a second. If it returns false, the search ends and
//         returns what it has found so far.
// Takes about 1 s if all printers answer at once, and 2.5 s at most, or if none answers.
// Throws std::bad_alloc, and what `goOn` throws. Any thread; searches are independent of each
// other.
SearchResult FindPrinters(const std::function<bool()>& goOn);

// The same search over another network, with this identifier in its queries.
SearchResult FindPrinters(const std::function<bool()>& goOn, Network& network, uint16_t id);

}  // namespace mdns
