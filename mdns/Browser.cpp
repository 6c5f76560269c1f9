#include "mdns/Browser.h"

#include <algorithm>
#include <random>

#include "mdns/Collector.h"
#include "mdns/Limits.h"
#include "mdns/Links.h"

namespace mdns {
namespace {

// Sends the queries of a round. Returns whether an interface has sent one.
bool Send(Network& network, const Collector& collector) {
    bool sent = false;
    for (const std::string& query : collector.Queries()) {
        sent = network.Send(query) || sent;
    }
    return sent;
}

// Takes the answers that come before `end`, and what has come by then but is not read yet, as on a
// busy machine. Returns false if the caller cancels the search.
bool Listen(Network& network, Collector& collector, Network::Clock::time_point end,
            const std::function<bool()>& goOn) {
    auto nextCall = network.Now();
    for (auto now = nextCall; now < end; now = network.Now()) {
        if (now >= nextCall) {
            if (!goOn()) {
                return false;
            }
            nextCall = now + kCancelInterval;
        }
        if (const auto datagram = network.Receive(std::min(end, nextCall))) {
            collector.Take(datagram->source, datagram->bytes);
        }
    }
    for (int unread = 0; unread < kMaxUnread; ++unread) {
        const auto datagram = network.Receive(network.Now());
        if (!datagram) {
            break;
        }
        collector.Take(datagram->source, datagram->bytes);
    }
    return true;
}

}  // namespace

SearchResult FindPrinters(const std::function<bool()>& goOn, Network& network, uint16_t id) {
    Collector collector(id);
    auto end = network.Now();
    if (!Send(network, collector)) {
        return {};
    }
    for (;;) {
        end += collector.WaitingTime();
        if (!Listen(network, collector, end, goOn) || !collector.NextRound()) {
            return {collector.Printers(), true};
        }
        Send(network, collector);
    }
}

SearchResult FindPrinters(const std::function<bool()>& goOn) {
    // Not 0, which responders put into answers to queries without an identifier.
    std::random_device source;
    const int id = std::uniform_int_distribution<>(1, 0xFFFF)(source);
    Links links;
    return FindPrinters(goOn, links, static_cast<uint16_t>(id));
}

}  // namespace mdns
