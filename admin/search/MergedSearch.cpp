#include "admin/search/MergedSearch.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <future>
#include <optional>
#include <ranges>
#include <utility>

#include "admin/search/Hosts.h"
#include "admin/search/Neighbours.h"
#include "admin/search/PrinterSearch.h"
#include "base/CommandFailed.h"
#include "discovery/DeviceId.h"

namespace {

constexpr std::chrono::milliseconds kAskInterval{200};
// After which a printer that has answered SLP is not waited for any longer.
constexpr std::chrono::milliseconds kPatience{1500};
// Addresses and services of one printer that are used; a host can announce thousands.
constexpr size_t kMostOfPrinter = 16;

// A search by DNS-SD on a thread of its own, which ends with this object.
class DnsSdSearch {
  public:
    // With `run` false, it finds nothing.
    explicit DnsSdSearch(bool run) {
        if (run) {
            hits_ = std::async(std::launch::async, [this] { return Find(); });
        }
    }
    ~DnsSdSearch() { stop_ = true; }

    bool Runs() const {
        return hits_.valid() &&
               hits_.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
    }
    // Waits for the end while goOn() is true.
    std::vector<SearchHit> Result(const std::function<bool()>& goOn) {
        while (Runs() && goOn()) {
            hits_.wait_for(kAskInterval);
        }
        stop_ = true;
        return hits_.valid() ? hits_.get() : std::vector<SearchHit>();
    }

  private:
    // A search that fails does not affect that by SLP.
    std::vector<SearchHit> Find() const {
        try {
            return FindByDnsSd([this] { return !stop_; });
        } catch (const std::exception&) {
            return {};
        }
    }

    std::atomic<bool> stop_ = false;
    std::future<std::vector<SearchHit>> hits_;  // waits, so it goes first
};

bool IsSamePrinter(const SearchHit& one, const SearchHit& other) {
    return (!one.identity.mac.empty() && one.identity.mac == other.identity.mac) ||
           std::ranges::find_first_of(one.addresses, other.addresses) != one.addresses.end();
}

// Completes a printer that was found by SLP by what it announces by DNS-SD, and marks both.
void Complete(SearchHit& hit, std::vector<SearchHit>& others) {
    for (SearchHit& other : others) {
        if (IsSamePrinter(hit, other)) {
            hit.identity.source = other.identity.source = SearchSource::Both;
            if (hit.identity.services.empty()) {
                hit.identity.services = other.identity.services;
            }
        }
    }
}

}  // namespace

SearchHit::SearchHit(const Printer& printer)
    : record(printer),
      identity(IdentityOf(printer)),
      addresses{printer.GetIPAddress(), printer.GetOtherIPAddress()} {}

SearchHit::SearchHit(const mdns::Printer& printer) {
    std::ranges::transform(printer.addresses | std::views::take(kMostOfPrinter),
                           std::back_inserter(addresses),
                           [](const std::string& text) { return IPAddress(text); });
    record.SetFirstIPAddress(addresses[0]);
    if (addresses.size() > 1) {
        record.SetSecondIPAddress(addresses[1]);
    }
    record.SetHostName(printer.host.substr(0, printer.host.rfind('.')));  // the domain is `local`
    record.SetModelName(printer.model);
    record.SetDescription(printer.instance);
    identity = IdentityOf(record);
    identity.source = SearchSource::DnsSd;
    for (const auto& [protocol, port, queue] :
         printer.services | std::views::take(kMostOfPrinter)) {
        if (protocol == mdns::Protocol::Raw || protocol == mdns::Protocol::Lpr) {
            const bool raw = protocol == mdns::Protocol::Raw;
            identity.services.push_back({raw ? "raw" : "lpr", port, raw ? "" : queue});
        }
    }
}

const char* SourceText(SearchSource source) {
    return source == SearchSource::Slp ? "SLP" : source == SearchSource::DnsSd ? "DNS-SD" : "both";
}

bool HasAddress(const SearchHit& hit, const IPAddress& address) {
    return std::ranges::find(hit.addresses, address) != hit.addresses.end();
}

bool MatchesPattern(const SearchHit& hit, const std::string& pattern) {
    return pattern.empty() || MatchesModel(pattern.c_str(), hit.record.GetModelName().c_str());
}

std::vector<SearchHit> FindByDnsSd(const std::function<bool()>& goOn) {
    StartedNetwork();  // addresses are converted after the search has ended
    std::vector<SearchHit> hits;
    for (const mdns::Printer& printer : mdns::FindPrinters(goOn).printers) {
        hits.emplace_back(printer);
    }
    if (goOn()) {
        LookUpMacAddresses(hits);
    }
    return hits;
}

std::vector<PrinterIdentity> FindIdentitiesByDnsSd() {
    std::vector<PrinterIdentity> printers;
    for (const SearchHit& hit : FindByDnsSd([] { return true; })) {
        for (const IPAddress& address : hit.addresses) {
            printers.push_back(hit.identity);
            printers.back().address = address.GetText();
            // The MAC address is that of the first address; any host can announce the others.
            if (!(address == hit.addresses[0])) {
                printers.back().mac.clear();
            }
        }
    }
    return printers;
}

size_t FindPrinters(const SearchSources& sources, const std::string& modelPattern,
                    const std::function<void(const SearchHit&)>& found,
                    const std::function<bool()>& goOn) {
    DnsSdSearch dnsSd(sources.dnsSd);
    std::vector<SearchHit> held;    // by SLP, not yet reported
    std::vector<SearchHit> others;  // by DNS-SD; of source Both: reported with one by SLP
    const auto report = [&] {
        std::ranges::move(dnsSd.Result(goOn), std::back_inserter(others));
        for (SearchHit& hit : std::exchange(held, {})) {
            Complete(hit, others);
            found(hit);
        }
    };
    size_t withoutAddress = 0;
    std::exception_ptr failure;
    try {
        if (sources.slp) {
            withoutAddress = FindPrinters(
                modelPattern, [&](const Printer& printer) { held.emplace_back(printer); },
                [&] {
                    if (!dnsSd.Runs()) {
                        report();
                    }
                    return goOn();
                });
        }
    } catch (const CommandFailed&) {
        failure = std::current_exception();
    }
    report();
    for (const SearchHit& hit : others) {
        if (hit.identity.source == SearchSource::DnsSd && MatchesPattern(hit, modelPattern)) {
            found(hit);
        }
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    return withoutAddress;
}

SearchHit FindPrinter(const SearchSources& sources, const std::function<Printer()>& bySlp,
                      const std::function<bool(const SearchHit&)>& isWanted) {
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    DnsSdSearch dnsSd(sources.dnsSd);
    std::optional<SearchHit> hit;
    std::exception_ptr failure =
        std::make_exception_ptr(CommandFailed("that printer did not answer"));
    try {
        if (sources.slp) {
            hit = bySlp();
        }
    } catch (const CommandFailed&) {
        failure = std::current_exception();
    }
    std::vector<SearchHit> others =
        dnsSd.Result([&] { return !hit || Clock::now() < begin + kPatience; });
    if (hit) {
        Complete(*hit, others);
        return *hit;
    }
    const auto wanted = std::ranges::find_if(others, isWanted);
    if (wanted == others.end()) {
        std::rethrow_exception(failure);
    }
    return *wanted;
}

PrinterIdentity IdentifyPrinterByBoth(const std::string& host) {
    const IPAddress address = AddressOf(StartedNetwork(), host);
    PrinterIdentity identity = FindPrinter(
                                   {}, [&] { return FindPrinterAt(address.GetText(), ""); },
                                   [&](const SearchHit& hit) { return HasAddress(hit, address); })
                                   .identity;
    identity.address = address.GetText();
    RequireKeys(identity);
    return identity;
}
