#include "net/Network.h"

#include <icmpapi.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>

#include "diag/Log.h"
#include "diag/SystemUtils.h"

namespace {

constexpr int kNotResolved = 1;
constexpr int kCatalogueUnreadable = 1;
constexpr int kSocketsNotStarted = 8;
constexpr int kNoProvider = 11;
constexpr size_t kMaxProtocols = 255;

// Windows XP SP 2 is the first with ICMP for IPv6.
bool SystemHasIcmp6() {
    OSVERSIONINFOEXA wanted = {};
    wanted.dwOSVersionInfoSize = sizeof wanted;
    wanted.dwMajorVersion = 5;
    wanted.dwMinorVersion = 1;
    wanted.wServicePackMajor = 2;
    wanted.wServicePackMinor = 0;
    DWORDLONG conditions = 0;
    constexpr DWORD kFields[] = {VER_MAJORVERSION, VER_MINORVERSION, VER_SERVICEPACKMAJOR,
                                 VER_SERVICEPACKMINOR};
    DWORD all = 0;
    for (const DWORD field : kFields) {
        conditions = VerSetConditionMask(conditions, field, VER_GREATER_EQUAL);
        all |= field;
    }
    return VerifyVersionInfoA(&wanted, all, conditions) != FALSE;
}

// What cannot be opened is null, whichever way the platform says so.
HANDLE OpenIcmp(decltype(&::IcmpCreateFile) open) {
    const HANDLE handle = open != nullptr ? open() : nullptr;
    return handle != INVALID_HANDLE_VALUE ? handle : nullptr;
}

// Reads one of the IP helper's tables; empty if it cannot be read. The row count is then at most
// what the buffer holds.
template <class Table>
std::vector<std::byte> ReadTable(DWORD(WINAPI* read)(Table*, ULONG*, BOOL)) {
    // A table can grow between the call that tells its size and the one that reads it.
    constexpr int kAttempts = 5;
    ULONG size = 0;
    std::vector<std::byte> buffer;
    DWORD result = read(nullptr, &size, FALSE);
    for (int i = 0; i < kAttempts && result == ERROR_INSUFFICIENT_BUFFER; ++i) {
        size = std::max<ULONG>(size, sizeof(Table));
        buffer.assign(size, std::byte());
        result = read(reinterpret_cast<Table*>(buffer.data()), &size, FALSE);
    }
    if (result != NO_ERROR || buffer.empty()) {
        return {};
    }
    auto* table = reinterpret_cast<Table*>(buffer.data());
    const size_t room = (buffer.size() - offsetof(Table, table)) / sizeof table->table[0];
    table->dwNumEntries = static_cast<DWORD>(std::min<size_t>(table->dwNumEntries, room));
    return buffer;
}

template <class Table>
auto Rows(const std::vector<std::byte>& buffer) {
    const auto* table = reinterpret_cast<const Table*>(buffer.data());
    return std::span(table->table, table->dwNumEntries);
}

}  // namespace

Network::Network(const NetworkPlatform& platform) : platform_(platform) {
    LogInfo("Network::Network", "Network singleton created");
    icmpModule_ = platform_.loadLibrary("icmp.dll");
}

Network::~Network() {
    // The ICMP handles are not closed: they last as long as the process.
    if (icmpModule_ != nullptr) {
        platform_.freeLibrary(icmpModule_);
    }
    // Compatibility: the condition is inverted, so iphlpapi.dll is never unloaded; the open ICMP
    // handles, which were opened through it, rely on it.
    if (ipHelperModule_ == nullptr) {
        platform_.freeLibrary(ipHelperModule_);
    }
}

int Network::Start() {
    if (started_) {
        return 0;
    }
    if (ipHelperModule_ == nullptr) {
        ipHelperModule_ = platform_.loadLibrary("iphlpapi.dll");
    }
    if (icmpModule_ == nullptr) {
        icmpModule_ = platform_.loadLibrary("icmp.dll");
    }
    const auto count = Entry<decltype(&::GetNumberOfInterfaces)>("GetNumberOfInterfaces");
    if (count == nullptr || count(&numInterfaces_) != NO_ERROR) {
        numInterfaces_ = 0;
    }
    OpenIcmpHandles();
    WSADATA data;
    if (platform_.startSockets(MAKEWORD(2, 2), &data) != 0) {
        LogSystemError("Network::Start", "Can't start WSAStartup");
        return kSocketsNotStarted;
    }
    ReadInterfaceTables();
    started_ = true;
    LogInfo("Network::Start", "Network started!");
    return 0;
}

void Network::OpenIcmpHandles() {
    if (icmpHandle_ == nullptr) {
        icmpHandle_ = OpenIcmp(Entry<decltype(&::IcmpCreateFile)>("IcmpCreateFile"));
    }
    if (icmp6Handle_ == nullptr && SystemHasIcmp6()) {
        icmp6Handle_ = OpenIcmp(Entry<decltype(&::Icmp6CreateFile)>("Icmp6CreateFile"));
    }
}

void Network::ReadInterfaceTables() {
    const auto readAddresses = Entry<decltype(&::GetIpAddrTable)>("GetIpAddrTable");
    const auto readRoutes = Entry<decltype(&::GetIpForwardTable)>("GetIpForwardTable");
    if (readAddresses == nullptr || readRoutes == nullptr) {
        return;
    }
    const auto routes = ReadTable<MIB_IPFORWARDTABLE>(readRoutes);
    if (routes.empty()) {
        return;
    }
    addressTable_ = ReadTable<MIB_IPADDRTABLE>(readAddresses);
    if (addressTable_.empty()) {
        return;
    }
    judgedAddresses_ =
        JudgeAddresses(Rows<MIB_IPADDRTABLE>(addressTable_), Rows<MIB_IPFORWARDTABLE>(routes));
    for (const auto& judged : judgedAddresses_) {
        if (judged.verdict == AddressVerdict::Taken) {
            in_addr address = {};
            address.s_addr = judged.address;
            localAddresses_.emplace_back(inet_ntoa(address));
            addressList_ += (addressList_.empty() ? "" : ",") + localAddresses_.back();
        }
    }
}

void* Network::GetProc(const std::string& name) const {
    if (ipHelperModule_ == nullptr) {
        return nullptr;
    }
    FARPROC entry = platform_.getProcAddress(ipHelperModule_, name.c_str());
    if (entry == nullptr && icmpModule_ != nullptr) {
        entry = platform_.getProcAddress(icmpModule_, name.c_str());
    }
    return reinterpret_cast<void*>(entry);
}

int Network::FindProtocol(int family) const {
    std::vector<WSAPROTOCOL_INFOA> protocols(kMaxProtocols);
    auto size = static_cast<DWORD>(protocols.size() * sizeof protocols[0]);
    const int count = platform_.enumProtocols(nullptr, protocols.data(), &size);
    if (count == SOCKET_ERROR) {
        LogSystemError("Network::FindProtocol", system_helper::ErrorText(WSAGetLastError()));
        return kCatalogueUnreadable;
    }
    const auto end = protocols.begin() + std::clamp<int>(count, 0, kMaxProtocols);
    const bool found = std::any_of(protocols.begin(), end, [family](const auto& protocol) {
        return protocol.iAddressFamily == family;
    });
    return found ? 0 : kNoProvider;
}

int Network::IsIPv4Supported(bool& supported) const {
    const int result = FindProtocol(AF_INET);
    supported = result == 0;
    return result;
}

int Network::IsIPv6Supported(bool& supported) const {
    const int result = FindProtocol(AF_INET6);
    supported = result == 0;
    return result;
}

int Network::GetIpAddrFromHostName(const std::string& hostName, IPAddress& result,
                                   bool ipv6) const {
    const auto failed = [] {
        LogSystemError("Network::GetIpAddrFromHostName",
                       system_helper::ErrorText(WSAGetLastError()));
        return kNotResolved;
    };
    std::string name = hostName;
    if (name.empty()) {
        char local[NI_MAXHOST] = {};
        if (platform_.getHostName(local, sizeof local) != 0) {
            return failed();
        }
        name = local;
    }
    addrinfo hints = {};
    hints.ai_family = ipv6 ? AF_INET6 : AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* list = nullptr;
    if (platform_.getAddrInfo(name.c_str(), nullptr, &hints, &list) != 0) {
        return failed();
    }
    const std::unique_ptr<addrinfo, decltype(platform_.freeAddrInfo)> owner(list,
                                                                            platform_.freeAddrInfo);
    if (list == nullptr || list->ai_addr == nullptr) {
        return kNotResolved;
    }
    char text[INET6_ADDRSTRLEN] = {};
    DWORD capacity = sizeof text;
    const DWORD length =
        list->ai_addr->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if (platform_.addressToString(list->ai_addr, length, nullptr, text, &capacity) != 0) {
        return failed();
    }
    result = IPAddress(text);  // a text that is no address leaves the result as it was
    return 0;
}

int Network::GetIpAddress(const std::string& hostName, IPAddress& result) const {
    bool supported = false;
    if (IsIPv4Supported(supported) == 0 && supported &&
        GetIpAddrFromHostName(hostName, result, false) == 0) {
        return 0;
    }
    const int looked = IsIPv6Supported(supported);
    return looked == 0 && supported ? GetIpAddrFromHostName(hostName, result, true) : looked;
}

const MIB_IPADDRTABLE* Network::GetAddressTable() const {
    return addressTable_.empty() ? nullptr
                                 : reinterpret_cast<const MIB_IPADDRTABLE*>(addressTable_.data());
}

const char* Network::GetLocalAddress(int i) const {
    return i >= 0 && static_cast<size_t>(i) < localAddresses_.size() ? localAddresses_[i].c_str()
                                                                     : nullptr;
}

const char* Network::GetAddressList() const {
    return addressTable_.empty() ? nullptr : addressList_.c_str();
}
