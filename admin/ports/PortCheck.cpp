#include "admin/ports/PortCheck.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <future>
#include <map>

#include "address/AddressText.h"
#include "base/Ascii.h"
#include "base/CommandFailed.h"
#include "base/Connect.h"
#include "admin/search/Hosts.h"
#include "admin/search/MergedSearch.h"
#include "base/Parallel.h"
#include "admin/ports/PortStore.h"
#include "admin/search/PrinterSearch.h"
#include "base/Text.h"
#include "base/Handles.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr size_t kConnectedAtOnce = 32;
constexpr size_t kAskedAtOnce = 64;
constexpr milliseconds kMoment{300};  // in which a printer that is there takes a connection
constexpr char kNoKeys[] = "has neither a MAC address nor a host name to follow";

std::string ConnectionError(int error) {
    switch (error) {
        case WSAETIMEDOUT:
            return "does not answer";
        case WSAECONNREFUSED:
            return "refuses connections";
        default:
            return ErrorText(static_cast<DWORD>(error));
    }
}

// Tries the host's addresses one after the other, as a job does; each gets its part of the time
// that is left.
Connection TryConnection(const std::string& host, DWORD port, milliseconds timeout) {
    const auto begin = steady_clock::now();
    const auto took = [begin] {
        return std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
    };
    addrinfo hints = {};
    hints.ai_family = IsIPv4AddressText(host) ? AF_INET : AF_INET6;
    hints.ai_socktype = SOCK_STREAM;
    UniqueAddressList addresses;
    int error = getaddrinfo(WideToAnsi(Utf8ToWide(host)).c_str(), std::to_string(port).c_str(),
                            &hints, addresses.Out());
    if (error != 0) {
        return {ErrorText(static_cast<DWORD>(error)), took()};
    }
    int left = 0;
    for (const addrinfo* address = addresses.Get(); address != nullptr;
         address = address->ai_next) {
        ++left;
    }
    for (const addrinfo* address = addresses.Get(); address != nullptr;
         address = address->ai_next) {
        UniqueSocket connection;
        error = Connect(connection, address->ai_addr, static_cast<int>(address->ai_addrlen),
                        (timeout - took()) / left--);
        if (error == 0) {
            return {{}, took()};
        }
    }
    return {ConnectionError(error), took(), error == WSAETIMEDOUT};
}

// What a port recognizes its printer by.
struct Keys {
    explicit Keys(const PortRecords& records)
        : mac(MacText(MacAddress(FieldText(records.extended.sztHWAddress)))),
          hostName(ToLower(FieldText(records.standard.sztHostAddress))) {}

    bool Any() const { return !mac.empty() || !hostName.empty(); }

    std::string mac;
    std::string hostName;
};

// By MAC address where both have one: a name may be somebody else's by now.
bool IsAnother(const Keys& port, const PrinterIdentity& printer) {
    if (!port.mac.empty() && !printer.mac.empty()) {
        return port.mac != printer.mac;
    }
    return !port.hostName.empty() && !printer.hostName.empty() &&
           port.hostName != ToLower(printer.hostName);
}

// The same text for two spellings of one address; a host name in lower case.
std::string AddressKey(const std::string& host) {
    const IPAddress address(host);
    return address.IsValid() ? std::string(reinterpret_cast<const char*>(address.GetBytes()),
                                           address.GetType() == IPV4 ? 4 : 16)
                             : ToLower(host);
}

bool IsToBeLocated(const CheckedPort& port) {
    return (port.state == PortState::Unreachable || port.state == PortState::AnotherPrinter) &&
           HasKeys(port.records);
}

const PrinterIdentity* FindOwn(const PortRecords& records,
                               const std::vector<PrinterIdentity>& printers) {
    const Keys port(records);
    const PrinterIdentity* byName = nullptr;
    for (const PrinterIdentity& printer : printers) {
        if (!port.mac.empty() && printer.mac == port.mac) {
            return &printer;
        }
        // Any host can announce a name by DNS-SD: a port with a MAC address needs that.
        const bool other = printer.source == SearchSource::DnsSd && !port.mac.empty();
        if (byName == nullptr && !other && !port.hostName.empty() &&
            ToLower(printer.hostName) == port.hostName) {
            byName = &printer;
        }
    }
    return byName;
}

// Completes what is known of a port by what the search has found.
void Locate(CheckedPort& port, const SearchOutcome& search) {
    const PrinterIdentity* own = FindOwn(port.records, search.printers);
    const std::string found = own != nullptr ? own->address : "";
    if (!search.failure.empty() && found.empty()) {
        port.detail += ", and there was no search: " + search.failure;
    } else if (found.empty()) {
        port.detail += ", and no search finds the port's printer";
    } else if (AddressKey(found) == AddressKey(AddressInUse(port.records))) {
        port.detail += ", but answers the search from there";
    } else {
        port.found = found;
        port.foundByDnsSd = own->source == SearchSource::DnsSd;
        if (port.state == PortState::Unreachable) {
            port.state = PortState::Moved;
            port.detail.clear();
        }
    }
}

SearchOutcome Outcome(const std::function<std::vector<PrinterIdentity>()>& search) {
    SearchOutcome outcome;
    try {
        outcome.printers = search();
    } catch (const NoSearchFile& failed) {
        outcome.failure = failed.what();
        outcome.noFile = true;
    } catch (const CommandFailed& failed) {
        outcome.failure = failed.what();
    }
    return outcome;
}

// Searches by both protocols. What both have found at one address counts as found by SLP.
SearchOutcome SearchBoth(const CheckNetwork& network) {
    auto dnsSd = std::async(std::launch::async, [&]() -> std::vector<PrinterIdentity> {
        try {
            return network.searchDnsSd ? network.searchDnsSd() : std::vector<PrinterIdentity>();
        } catch (const std::exception&) {
            return {};  // the search by SLP goes on
        }
    });
    SearchOutcome outcome = Outcome(network.search);
    for (PrinterIdentity& printer : dnsSd.get()) {
        if (std::ranges::none_of(outcome.printers, [&printer](const PrinterIdentity& other) {
                return other.source == SearchSource::Slp &&
                       AddressKey(other.address) == AddressKey(printer.address);
            })) {
            outcome.printers.push_back(std::move(printer));
        }
    }
    return outcome;
}

// The printers that a job can find: it searches by SLP alone.
std::vector<PrinterIdentity> FoundByJobs(const SearchOutcome& search) {
    std::vector<PrinterIdentity> printers;
    std::ranges::copy_if(
        search.printers, std::back_inserter(printers),
        [](const PrinterIdentity& printer) { return printer.source != SearchSource::DnsSd; });
    return printers;
}

bool CanBeFollowed(const CheckedPort& port) {
    return port.records.extended.dwAlwaysPrint == 0 || HasKeys(port.records);
}

// Whether the port's address takes connections, if it has one.
void Reach(CheckedPort& port, const CheckNetwork& network, milliseconds timeout) {
    const std::string host = AddressInUse(port.records);
    if (port.records.standard.dwProtocol == 0 || host.empty()) {
        return;
    }
    const milliseconds before = port.connection.took;
    port.connection = network.connect(host, port.records.standard.dwPortNumber, timeout);
    port.connection.took += before;
    port.state = port.connection.error.empty() ? PortState::Ok : PortState::Unreachable;
    port.detail = port.connection.error;
    if (port.state == PortState::Unreachable && !CanBeFollowed(port)) {
        port.detail += std::string(", and the port ") + kNoKeys;
    }
}

// Queries the address of these ports for the identity of the printer there.
void Identify(const std::vector<CheckedPort*>& ports, const CheckNetwork& network) {
    PrinterIdentity printer;
    std::string failure;
    try {
        printer = network.identify(AddressInUse(ports.front()->records));
    } catch (const std::exception& silent) {
        failure = silent.what();
    }
    for (CheckedPort* port : ports) {
        port->printer = printer;
        port->detail = failure;
    }
}

// Why the search does not recognize the printer of a port that takes connections.
//   found: where the search finds it instead; empty if nowhere.
std::string WhyNotRecognised(const CheckedPort& port, const std::string& found,
                             const SearchOutcome& search) {
    const std::string who = IdentityText(port.printer);
    if (port.printer.source == SearchSource::DnsSd) {
        return "announces " + who +
               " by DNS-SD, but does not answer the search by SLP: jobs cannot follow it";
    }
    if (!search.failure.empty()) {
        return "there was no search: " + search.failure;
    }
    if (!found.empty()) {
        return port.detail + "; the search finds the port's printer at " + found;
    }
    if (who.empty()) {
        return port.detail.empty() ? "announces neither MAC address nor host name" : port.detail;
    }
    return FindOwnPrinter(port.records, {port.printer}).empty()
               ? "announces only " + who
               : "announces " + who + " at its address, but does not answer the search";
}

// Returns the state of a port that accepts connections and whose printer is identified.
void Judge(CheckedPort& port, const SearchOutcome& search) {
    // A name that is announced by DNS-SD says nothing about a printer that takes connections.
    const bool isProven = port.printer.source != SearchSource::DnsSd ||
                          (!port.printer.mac.empty() && !Keys(port.records).mac.empty());
    if (isProven && IsAnother(Keys(port.records), port.printer)) {
        port.state = PortState::AnotherPrinter;
        port.detail = "is " + IdentityText(port.printer);
    } else if (!CanBeFollowed(port)) {
        port.state = PortState::CannotFollow;
        port.detail = kNoKeys;
    } else if (port.records.extended.dwAlwaysPrint != 0) {
        const std::string found = FindOwnPrinter(port.records, FoundByJobs(search));
        const bool unknown = IdentityText(port.printer).empty();
        if (search.noFile) {
            port.state = PortState::NoConfiguration;
            port.detail = search.failure;
        } else if (found.empty() ||
                   (unknown && AddressKey(found) != AddressKey(AddressInUse(port.records)))) {
            port.state = PortState::NotRecognised;
            port.detail = WhyNotRecognised(port, found, search);
        }
    }
}

// Identifies the printers of those ports that take connections: by the search, or else by asking
// each address once.
void Recognise(const std::vector<CheckedPort*>& ports, const SearchOutcome& search,
               const CheckNetwork& network) {
    using Ports = std::vector<CheckedPort*>;
    std::map<std::string, Ports> reached;  // by address
    for (CheckedPort* port : ports) {
        if (port->state == PortState::Ok) {
            reached[AddressKey(AddressInUse(port->records))].push_back(port);
        }
    }
    for (const PrinterIdentity& printer : search.printers) {
        if (const auto there = reached.find(AddressKey(printer.address)); there != reached.end()) {
            for (CheckedPort* port : there->second) {
                port->printer = port->printer.address.empty() ? printer : port->printer;
            }
        }
    }
    std::vector<Ports*> asked;
    for (auto& [address, there] : reached) {
        if (there.front()->printer.address.empty() && !search.noFile &&
            std::any_of(there.begin(), there.end(),
                        [](const CheckedPort* port) { return HasKeys(port->records); })) {
            asked.push_back(&there);
        }
    }
    ForEach(
        asked.size(), kAskedAtOnce, [&](size_t at) { Identify(*asked[at], network); },
        [](size_t) {});
    for (auto& [address, there] : reached) {
        std::for_each(there.begin(), there.end(),
                      [&search](CheckedPort* port) { Judge(*port, search); });
    }
}

// Waits for something, and tells meanwhile.
template <class Future>
void Await(const Future& future, const std::function<void()>& tell) {
    while (future.wait_for(kTellInterval) != std::future_status::ready) {
        tell();
    }
}

// Tests every port. Returns what the search found.
SearchOutcome TestAll(std::vector<CheckedPort>& ports, const CheckNetwork& network,
                      milliseconds timeout, const std::function<void(size_t)>& tell) {
    const bool wanted = std::any_of(ports.begin(), ports.end(),
                                    [](const CheckedPort& port) { return HasKeys(port.records); });
    const std::shared_future<SearchOutcome> search = std::async(
        std::launch::async, [&] { return wanted ? SearchBoth(network) : SearchOutcome(); });
    ForEach(
        ports.size(), kConnectedAtOnce,
        [&](size_t at) { Reach(ports[at], network, std::min(kMoment, timeout)); },
        [&](size_t) { tell(0); });

    std::vector<CheckedPort*> silent;
    std::vector<CheckedPort*> others;
    for (CheckedPort& port : ports) {
        (port.connection.silent ? silent : others).push_back(&port);
    }
    auto recognising =
        std::async(std::launch::async, [&] { Recognise(others, search.get(), network); });
    ForEach(
        silent.size(), kConnectedAtOnce,
        [&](size_t at) { Reach(*silent[at], network, timeout - kMoment); },
        [&](size_t done) { tell(others.size() + done); });
    Await(recognising, [&] { tell(ports.size()); });
    recognising.get();
    auto late = std::async(std::launch::async, [&] { Recognise(silent, search.get(), network); });
    Await(late, [&] { tell(ports.size()); });
    late.get();
    return search.get();
}

}  // namespace

CheckNetwork RealCheckNetwork() {
    StartedNetwork();
    return {TryConnection, IdentityAt, [] { return FindIdentities([] { return true; }); },
            FindIdentitiesByDnsSd};
}

std::string FindOwnPrinter(const PortRecords& records,
                           const std::vector<PrinterIdentity>& printers) {
    const PrinterIdentity* own = FindOwn(records, printers);
    return own != nullptr ? own->address : "";
}

bool HasKeys(const PortRecords& records) {
    return Keys(records).Any();
}

CheckedPort TestPort(const std::wstring& name, const PortRecords& records,
                     const CheckNetwork& network, milliseconds timeout) {
    CheckedPort port = {name, records};
    Reach(port, network, timeout);
    if (port.state == PortState::Ok) {
        // The printer's own answer takes the place of a search by multicast.
        SearchOutcome answer = Outcome([&] {
            port.printer = network.identify(AddressInUse(records));
            return std::vector{port.printer};
        });
        port.detail = answer.failure;
        if (!answer.noFile) {
            answer.failure.clear();
        }
        Judge(port, answer);
    }
    return port;
}

std::vector<CheckedPort> CheckPorts(SpoolerChannel& channel,
                                    const std::vector<std::wstring>& wanted,
                                    const CheckNetwork& network, milliseconds timeout,
                                    const std::function<void(size_t, size_t)>& tell) {
    std::vector<CheckedPort> ports;
    for (const std::wstring& name : FindPorts(channel, wanted)) {
        ports.push_back({name, ReadPort(channel, name)});
    }
    const SearchOutcome search =
        TestAll(ports, network, timeout, [&](size_t done) { tell(done, ports.size()); });
    for (CheckedPort& port : ports) {
        if (IsToBeLocated(port)) {
            Locate(port, search);
        }
    }
    return ports;
}

PortRecords RepairPort(SpoolerChannel& channel, const CheckedPort& port) {
    PortChange change;
    (IsIPv4AddressText(port.found) ? change.address : change.ipv6) = port.found;
    const PortRecords before = ReadPort(channel, port.name);
    if (AddressInUse(before) != AddressInUse(port.records)) {
        throw CommandFailed("its address was changed meanwhile");
    }
    PortRecords records = before;
    Apply(change, records);
    ChangePort(channel, port.name, before, records);
    return records;
}
