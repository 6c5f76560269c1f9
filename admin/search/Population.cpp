#include "admin/search/Population.h"

#include <windows.h>

#include <chrono>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kBetween{5};  // from the beginning of one round to the next
constexpr DWORD kPause = 100;                // ms, between calls of goOn
constexpr int kPatience = 3;                 // rounds without an answer until a printer is gone

// What a printer is recognized by. One with neither key is known by its address: it cannot move.
std::string KeyOf(const PrinterIdentity& identity) {
    return !identity.mac.empty()        ? identity.mac
           : !identity.hostName.empty() ? "name " + identity.hostName
                                        : "at " + identity.address;
}

}  // namespace

void Population::Answered(const SearchHit& printer) {
    std::string key = KeyOf(printer.identity);
    if (const std::string& name = printer.identity.hostName; !name.empty()) {
        const std::string& knownKey = keys_.try_emplace(name, key).first->second;
        // DNS-SD does not give the MAC address each time.
        key = printer.identity.source == SearchSource::DnsSd ? knownKey : key;
    }
    const auto [place, isNew] = known_.try_emplace(key);
    Known& known = place->second;
    if (isNew) {
        known.printer = printer;
        Tell(Event::Came, printer);
    }
    if (known.addresses.empty()) {
        known.missed = 0;
        known.latest = printer;
    }
    known.addresses.insert(printer.identity.address);
}

void Population::EndRound() {
    for (auto place = known_.begin(); place != known_.end();) {
        Known& known = place->second;
        const std::string before = known.printer.identity.address;
        if (known.addresses.empty() && ++known.missed >= kPatience) {
            Tell(Event::Went, known.printer);
            place = known_.erase(place);
            continue;
        }
        if (!known.addresses.empty() && !known.addresses.contains(before)) {
            known.printer = known.latest;
            Tell(Event::Moved, known.printer, before);
        }
        known.addresses.clear();
        ++place;
    }
}

size_t Population::Counted(Event event) const {
    const auto found = counts_.find(event);
    return found != counts_.end() ? found->second : 0;
}

void Population::Tell(Event event, const SearchHit& printer, const std::string& addressBefore) {
    ++counts_[event];
    tell_(event, printer, addressBefore);
}

void WatchPrinters(const SearchSources& sources, const std::string& modelPattern,
                   Population& population, const std::function<bool()>& goOn,
                   const std::function<void(const CommandFailed&)>& failed) {
    for (bool first = true; goOn(); first = false) {
        const auto next = Clock::now() + kBetween;
        try {
            FindPrinters(
                sources, modelPattern,
                [&](const SearchHit& printer) { population.Answered(printer); }, goOn);
            if (goOn()) {
                population.EndRound();
            }
        } catch (const CommandFailed& failure) {
            if (first) {
                throw;
            }
            failed(failure);
        }
        while (goOn() && Clock::now() < next) {
            Sleep(kPause);
        }
    }
}
