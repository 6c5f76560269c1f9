#include "mdns/Browser.h"

#include <algorithm>

#include "mdns/Collector.h"
#include "mdns/Limits.h"

namespace mdns {
namespace {

// Takes the answers that come before `end`, and what has come by then but is not read yet, as on a
// busy machine. Returns false if the caller cancels the search.
bool Listen(Network& network, Collector& collector, Network::Clock::time_point end,
            const std::function<bool()>& goOn) {
    auto nextCall = network.Now();
    for (int unread = 0; unread < kMaxUnread;) {
        const auto now = network.Now();
        const bool ended = now >= end;
        if (!ended && now >= nextCall) {
            if (!goOn()) {
                return false;
            }
            nextCall = now + kCancelInterval;
        }
        if (const auto datagram = network.Receive(ended ? now : std::min(end, nextCall))) {
            collector.Take(datagram->source, datagram->bytes);
            unread += ended;
        } else if (ended) {
            break;
        }
    }
    return true;
}

}  // namespace

SearchResult FindPrinters(const std::function<bool()>& goOn, Network& network, uint16_t id) {
    Collector collector(id);
    SearchResult result;
    auto end = network.Now();
    do {
        for (const std::string& query : collector.Queries()) {
            result.sent = network.Send(query) || result.sent;
        }
        end += collector.WaitingTime();
    } while (result.sent && Listen(network, collector, end, goOn) && collector.NextRound());
    result.printers = collector.Printers();
    return result;
}

}  // namespace mdns
