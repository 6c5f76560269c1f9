#include "admin/PortCheck.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <future>
#include <mutex>

#include "address/AddressText.h"
#include "admin/CommandFailed.h"
#include "admin/Hosts.h"
#include "admin/Parallel.h"
#include "admin/PortStore.h"
#include "admin/PrinterSearch.h"
#include "admin/Text.h"
#include "diag/Resource.h"
#include "diag/SystemUtils.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr size_t kConnectedAtOnce = 32;
constexpr size_t kAskedAtOnce = 64;
constexpr milliseconds kMoment{300};  // in which a printer that is there takes a connection
constexpr char kNoKeys[] = "has neither a MAC address nor a host name to follow";

// Waits for a connection that was begun. Returns 0 or the socket's error.
int Connected(SOCKET socket, milliseconds timeout) {
    fd_set made;
    fd_set failed;
    FD_ZERO(&made);
    FD_ZERO(&failed);
    FD_SET(socket, &made);
    FD_SET(socket, &failed);
    const auto time = std::max(timeout, milliseconds(0)).count();
    timeval wait = {static_cast<long>(time / 1000), static_cast<long>(time % 1000 * 1000)};
    if (select(0, nullptr, &made, &failed, &wait) == 0) {
        return WSAETIMEDOUT;
    }
    int error = 0;
    int size = sizeof(error);
    getsockopt(socket, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size);
    return error != 0 || FD_ISSET(socket, &made) ? error : WSAECONNREFUSED;
}

// Returns 0 or the socket's error.
int Connect(const addrinfo& address, milliseconds timeout) {
    const UniqueSocket socket(
        ::socket(address.ai_family, address.ai_socktype, address.ai_protocol));
    u_long nonBlocking = 1;
    if (!socket || ioctlsocket(socket.Get(), FIONBIO, &nonBlocking) != 0) {
        return WSAGetLastError();
    }
    if (connect(socket.Get(), address.ai_addr, static_cast<int>(address.ai_addrlen)) == 0) {
        return 0;
    }
    const int error = WSAGetLastError();
    return error == WSAEWOULDBLOCK ? Connected(socket.Get(), timeout) : error;
}

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
    int error = getaddrinfo(system_helper::ToNarrow(ToWide(host)).c_str(),
                            std::to_string(port).c_str(), &hints, addresses.Out());
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
        error = Connect(*address, (timeout - took()) / left--);
        if (error == 0) {
            return {{}, took()};
        }
    }
    return {ConnectionError(error), took(), error == WSAETIMEDOUT};
}

std::vector<PrinterIdentity> SearchForAll() {
    std::vector<PrinterIdentity> printers;
    FindPrinters(
        "", [&printers](const Printer& printer) { printers.push_back(IdentityOf(printer)); },
        [] { return true; });
    return printers;
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    return text;
}

// What a port recognises its printer by.
struct Keys {
    explicit Keys(const PortRecords& records)
        : mac(MacText(MacAddress(FieldText(records.extended.sztHWAddress)))),
          hostName(Lower(FieldText(records.standard.sztHostAddress))) {}

    std::string mac;
    std::string hostName;
};

// By MAC address where both have one: a name may be somebody else's by now.
bool IsAnother(const Keys& port, const PrinterIdentity& printer) {
    if (!port.mac.empty() && !printer.mac.empty()) {
        return port.mac != printer.mac;
    }
    return !port.hostName.empty() && !printer.hostName.empty() &&
           port.hostName != Lower(printer.hostName);
}

// Where the port's printer is, as a job looks for it: by MAC address, then by host name.
std::string Find(const Keys& port, const std::vector<PrinterIdentity>& printers) {
    const auto by = [&printers](const auto& is) {
        const auto found = std::find_if(printers.begin(), printers.end(), is);
        return found != printers.end() ? found->address : std::string();
    };
    std::string address;
    if (!port.mac.empty()) {
        address = by([&](const PrinterIdentity& printer) { return printer.mac == port.mac; });
    }
    if (address.empty() && !port.hostName.empty()) {
        address = by([&](const PrinterIdentity& printer) {
            return Lower(printer.hostName) == port.hostName;
        });
    }
    return address;
}

bool IsToBeSearched(const CheckedPort& port) {
    const Keys keys(port.records);
    return (port.state == PortState::Unreachable || port.state == PortState::AnotherPrinter) &&
           (!keys.mac.empty() || !keys.hostName.empty());
}

// Completes what is known of a port by what the search has found.
void Locate(CheckedPort& port, const std::vector<PrinterIdentity>& printers) {
    const std::string found = Find(Keys(port.records), printers);
    if (found.empty()) {
        port.detail += ", and no search finds the port's printer";
    } else if (IPAddress(found) == IPAddress(AddressInUse(port.records))) {
        port.detail += ", but answers the search from there";
    } else {
        port.found = found;
        if (port.state == PortState::Unreachable) {
            port.state = PortState::Moved;
            port.detail.clear();
        }
    }
}

// Begins a search when the first asks for it.
class SharedSearch {
  public:
    explicit SharedSearch(const CheckNetwork& network) : network_(network) {}

    void Begin() {
        std::call_once(begun_,
                       [this] { printers_ = std::async(std::launch::async, network_.search); });
    }
    //   tell: is called about ten times a second while they are waited for.
    std::vector<PrinterIdentity> Printers(const std::function<void()>& tell) {
        if (!printers_.valid()) {
            return {};
        }
        while (printers_.wait_for(kTellInterval) != std::future_status::ready) {
            tell();
        }
        return printers_.get();
    }

  private:
    const CheckNetwork& network_;
    std::once_flag begun_;
    std::future<std::vector<PrinterIdentity>> printers_;
};

bool CanBeFollowed(const CheckedPort& port) {
    const Keys keys(port.records);
    return port.records.extended.dwAlwaysPrint == 0 || !keys.mac.empty() || !keys.hostName.empty();
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

// Who is at the address of a port that takes connections.
void Recognise(CheckedPort& port, const CheckNetwork& network) {
    try {
        port.printer = network.identify(AddressInUse(port.records));
    } catch (const CommandFailed& silent) {
        port.detail = silent.what();
    }
    if (IsAnother(Keys(port.records), port.printer)) {
        port.state = PortState::AnotherPrinter;
        port.detail = "is " + IdentityText(port.printer);
    } else if (!CanBeFollowed(port)) {
        port.state = PortState::CannotFollow;
        port.detail = kNoKeys;
    }
}

// Tests every port.
void TestAll(std::vector<CheckedPort>& ports, const CheckNetwork& network, milliseconds timeout,
             SharedSearch& search, const std::function<void(size_t)>& tell) {
    const auto recognise = [&](CheckedPort& port) {
        if (port.state == PortState::Ok) {
            Recognise(port, network);
        }
        if (IsToBeSearched(port)) {
            search.Begin();
        }
    };
    ForEach(
        ports.size(), kConnectedAtOnce,
        [&](size_t at) { Reach(ports[at], network, std::min(kMoment, timeout)); },
        [&](size_t) { tell(0); });

    std::vector<CheckedPort*> silent;
    std::vector<CheckedPort*> others;
    for (CheckedPort& port : ports) {
        (port.connection.silent ? silent : others).push_back(&port);
    }
    std::atomic<size_t> recognised = 0;
    auto recognising = std::async(std::launch::async, [&] {
        ForEach(
            others.size(), kAskedAtOnce, [&](size_t at) { recognise(*others[at]); },
            [&](size_t done) { recognised = done; });
    });
    ForEach(
        silent.size(), kConnectedAtOnce,
        [&](size_t at) {
            Reach(*silent[at], network, timeout - kMoment);
            recognise(*silent[at]);
        },
        [&](size_t done) { tell(recognised + done); });
    while (recognising.wait_for(kTellInterval) != std::future_status::ready) {
        tell(recognised + silent.size());
    }
    recognising.get();
}

}  // namespace

CheckNetwork RealCheckNetwork() {
    StartedNetwork();
    return {TryConnection, IdentityAt, SearchForAll};
}

CheckedPort TestPort(const std::wstring& name, const PortRecords& records,
                     const CheckNetwork& network, milliseconds timeout) {
    CheckedPort port = {name, records};
    Reach(port, network, timeout);
    if (port.state == PortState::Ok) {
        Recognise(port, network);
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
    SharedSearch search(network);
    TestAll(ports, network, timeout, search, [&](size_t done) { tell(done, ports.size()); });

    std::vector<PrinterIdentity> printers;
    std::string failure;
    try {
        printers = search.Printers([&] { tell(ports.size(), ports.size()); });
    } catch (const CommandFailed& failed) {
        failure = std::string(", and there was no search: ") + failed.what();
    }
    for (CheckedPort& port : ports) {
        if (!IsToBeSearched(port)) {
            continue;
        }
        if (failure.empty()) {
            Locate(port, printers);
        } else {
            port.detail += failure;
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
