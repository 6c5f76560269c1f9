// The answers to a search so far, what to ask next, and the printers that follow from the answers.
// Portable; it sees every byte that the network sends, and is fuzzed as a whole.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mdns/Browser.h"
#include "mdns/Limits.h"
#include "mdns/Message.h"

namespace mdns {

class Collector {
  public:
    explicit Collector(uint16_t id) : id_(id) {}

    // Takes a datagram from a host on the link.
    //   source: its numeric address.
    void Take(const std::string& source, std::string_view datagram);

    // Returns the messages to send now. Odd rounds ask for all services at once, with as many known
    // answers as fit (RFC 6762, section 7.1). Even rounds ask for each by itself, without known
    // answers: Avahi ignores a query that has some and does not come from port 5353, and limits its
    // answer to 512 bytes. Each round also asks for records that the answers so far refer to.
    std::vector<std::string> Queries() const;

    // How long to wait for answers now.
    std::chrono::milliseconds WaitingTime() const { return kWaitingTimes[round_]; }

    // Ends a waiting time. Returns whether another follows: not after the last one, and not when
    // this one brought no new record and a service has been found.
    bool NextRound();

    // Returns the printers of which name, service and address are known, ordered by host name.
    std::vector<Printer> Printers() const;

  private:
    // What one host has sent, and what is kept of it.
    struct Source {
        size_t received = 0;
        size_t kept = 0;
    };
    struct Family {
        std::map<std::string, Source> sources;  // by address
        size_t kept = 0;
    };
    struct Found {
        std::string data;
        const Source* source;  // that sent it first
    };
    struct Records {
        std::vector<Found> inOrder;  // as they came
        std::set<std::string> data;  // to keep each once; of PTR records in lower case
    };
    using Question = std::pair<std::string, Type>;
    using Order =
        std::pair<size_t, size_t>;  // how many its source refers to before, and its length

    void Keep(Family& family, Source& source, Record record);
    const std::vector<Found>& Find(std::string_view name, Type type) const;
    std::vector<std::pair<Order, Question>> Missing() const;
    void AddServices(Protocol protocol, const std::string& instance,
                     std::map<std::string, Printer>& printers) const;
    void AddAddresses(Printer& printer, const std::string& host, Type type) const;

    const uint16_t id_;
    Family families_[2];                   // IPv4, IPv6
    std::map<Question, Records> records_;  // by name in lower case and type
    size_t round_ = 0;
    bool found_ = false;  // an instance of a service
    bool news_ = false;   // a record was kept in this waiting time
};

}  // namespace mdns
