#include "admin/PortCheck.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <cctype>
#include <condition_variable>
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

constexpr size_t kAtOnce = 32;

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

// Tries the host's addresses one after the other, as a job does.
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
    for (const addrinfo* address = addresses.Get(); address != nullptr;
         address = address->ai_next) {
        error = Connect(*address, timeout - took());
        if (error == 0) {
            return {{}, took()};
        }
    }
    return {ConnectionError(error), took()};
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
        while (printers_.wait_for(milliseconds(100)) != std::future_status::ready) {
            tell();
        }
        return printers_.get();
    }

  private:
    const CheckNetwork& network_;
    std::once_flag begun_;
    std::future<std::vector<PrinterIdentity>> printers_;
};

// Bounds how many do something at the same time. The compiler's own semaphore can sleep for ever
// (GCC 12, for systems without futexes).
class Places {
  public:
    explicit Places(size_t count) : free_(count) {}

    class Taken {
      public:
        explicit Taken(Places& places) : places_(places) {
            std::unique_lock lock(places_.mutex_);
            places_.changed_.wait(lock, [this] { return places_.free_ > 0; });
            --places_.free_;
        }
        ~Taken() {
            const std::lock_guard lock(places_.mutex_);
            ++places_.free_;
            places_.changed_.notify_one();
        }
        Taken(const Taken&) = delete;
        Taken& operator=(const Taken&) = delete;

      private:
        Places& places_;
    };

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t free_;
};

// Tests every port. Twice as many threads as connections: while as many wait for a printer to say
// who it is, the others still connect.
void TestAll(std::vector<CheckedPort>& ports, const CheckNetwork& network, SharedSearch& search,
             const std::function<void(size_t)>& tell) {
    Places places(kAtOnce);
    CheckNetwork bounded = network;
    bounded.connect = [&](const std::string& host, DWORD port) {
        const Places::Taken place(places);
        return network.connect(host, port);
    };
    const auto test = [&](size_t at) {
        ports[at] = TestPort(ports[at].name, ports[at].records, bounded);
        if (IsToBeSearched(ports[at])) {
            search.Begin();
        }
    };
    ForEach(ports.size(), 2 * kAtOnce, test, tell);
}

}  // namespace

CheckNetwork RealCheckNetwork(milliseconds timeout) {
    StartedNetwork();
    return {[timeout](const std::string& host, DWORD port) {
                return TryConnection(host, port, timeout);
            },
            [](const std::string& host) { return IdentityAt(host); }, SearchForAll};
}

CheckedPort TestPort(const std::wstring& name, const PortRecords& records,
                     const CheckNetwork& network) {
    CheckedPort port = {name, records};
    const std::string host = AddressInUse(records);
    const Keys keys(records);
    if (records.standard.dwProtocol == 0 || host.empty()) {
        return port;
    }
    port.connection = network.connect(host, records.standard.dwPortNumber);
    if (!port.connection.error.empty()) {
        port.state = PortState::Unreachable;
        port.detail = port.connection.error;
        return port;
    }
    port.state = PortState::Ok;
    try {
        port.printer = network.identify(host);
    } catch (const CommandFailed& silent) {
        port.detail = silent.what();
    }
    if (IsAnother(keys, port.printer)) {
        port.state = PortState::AnotherPrinter;
        port.detail = "is " + IdentityText(port.printer);
    } else if (records.extended.dwAlwaysPrint != 0 && keys.mac.empty() && keys.hostName.empty()) {
        port.state = PortState::CannotFollow;
        port.detail = "has neither a MAC address nor a host name to follow";
    }
    return port;
}

std::vector<CheckedPort> CheckPorts(SpoolerChannel& channel,
                                    const std::vector<std::wstring>& wanted,
                                    const CheckNetwork& network,
                                    const std::function<void(size_t, size_t)>& tell) {
    std::vector<CheckedPort> ports;
    for (const std::wstring& name : FindPorts(channel, wanted)) {
        ports.push_back({name, ReadPort(channel, name)});
    }
    SharedSearch search(network);
    TestAll(ports, network, search, [&](size_t done) { tell(done, ports.size()); });

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
