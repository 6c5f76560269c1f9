#include "net/Network.h"

#include <cstring>
#include <mutex>
#include <set>
#include <thread>

#include "tests/net/FakeNetwork.h"

namespace {

using std::string;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char kCreated[] = "[info]          - Network singleton created|Network::Network";
constexpr char kStarted[] = "[info]          - Network started!|Network::Start";

const bool socketsStarted = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}();

// What the faked entries give.
int icmpFilesOpened;
HANDLE WINAPI FakeCreateFile() {
    ++icmpFilesOpened;
    return reinterpret_cast<HANDLE>(0x1234);
}

std::vector<MIB_IPFORWARDROW> routes;
DWORD WINAPI FakeRoutes(MIB_IPFORWARDTABLE* table, ULONG* size, BOOL) {
    const ULONG needed =
        static_cast<ULONG>(sizeof(DWORD) + routes.size() * sizeof(MIB_IPFORWARDROW));
    if (table == nullptr || *size < needed) {
        *size = needed;
        return ERROR_INSUFFICIENT_BUFFER;
    }
    table->dwNumEntries = static_cast<DWORD>(routes.size());
    std::copy(routes.begin(), routes.end(), table->table);
    return NO_ERROR;
}

std::vector<MIB_IPADDRROW> addresses;
int growths;             // the table gets one more row after each of the next so many calls
DWORD claimedRows;       // added to the row count that the table has
DWORD addressesFailure;  // what the call answers instead, if not 0
void AddAddress() {
    MIB_IPADDRROW row = {};
    row.dwAddr = htonl(static_cast<u_long>(0x0A000001 + addresses.size()));
    row.dwMask = inet_addr("255.0.0.0");
    addresses.push_back(row);
}
DWORD WINAPI FakeAddresses(MIB_IPADDRTABLE* table, ULONG* size, BOOL) {
    if (addressesFailure != 0) {
        return addressesFailure;
    }
    const ULONG needed =
        static_cast<ULONG>(sizeof(DWORD) + addresses.size() * sizeof(MIB_IPADDRROW));
    if (table == nullptr || *size < needed) {
        *size = needed;
        if (growths > 0) {
            --growths;
            AddAddress();
        }
        return ERROR_INSUFFICIENT_BUFFER;
    }
    table->dwNumEntries = static_cast<DWORD>(addresses.size()) + claimedRows;
    std::copy(addresses.begin(), addresses.end(), table->table);
    return NO_ERROR;
}

class NetworkTest : public testing::Test {
  protected:
    NetworkTest() {
        FakeLibraries::Reset();
        icmpFilesOpened = 0;
        routes = {MIB_IPFORWARDROW{}};
        routes[0].dwForwardNextHop = inet_addr("10.9.9.9");
        addresses.clear();
        growths = 0;
        claimedRows = 0;
        addressesFailure = 0;
    }
    static void AddTables() {
        FakeLibraries::Add("iphlpapi.dll", "GetIpAddrTable", FakeAddresses);
        FakeLibraries::Add("iphlpapi.dll", "GetIpForwardTable", FakeRoutes);
    }

    LogCapture log_;
};

TEST_F(NetworkTest, LibrariesAndHandlesAreOpenedOnceAndReleasedAsEver) {
    FakeLibraries::Add("icmp.dll", "IcmpCreateFile", FakeCreateFile);
    FakeLibraries::Add("icmp.dll", "Icmp6CreateFile", FakeCreateFile);
    {
        FakeNetwork network(FakeLibraries::Platform());
        EXPECT_EQ(FakeLibraries::references["icmp.dll"], 1);
        EXPECT_EQ(network.GetProc("IcmpCreateFile"), nullptr) << "before Start there are none";
        EXPECT_EQ(network.Start(), 0);
        EXPECT_EQ(network.Start(), 0);
        EXPECT_EQ(icmpFilesOpened, 2);
        EXPECT_EQ(network.GetProc("IcmpCreateFile"), reinterpret_cast<void*>(FakeCreateFile));
        EXPECT_EQ(network.GetProc("NoSuchEntry"), nullptr);
        // The IP helper library comes first.
        FakeLibraries::Add("iphlpapi.dll", "IcmpCreateFile", FakeRoutes);
        EXPECT_EQ(network.GetProc("IcmpCreateFile"), reinterpret_cast<void*>(FakeRoutes));
        EXPECT_EQ(FakeLibraries::references["iphlpapi.dll"], 1);
    }
    EXPECT_EQ(FakeLibraries::references["icmp.dll"], 0);
    EXPECT_EQ(FakeLibraries::references["iphlpapi.dll"], 1) << "is never released";
    EXPECT_THAT(log_.Lines(), ElementsAre(kCreated, kStarted));
}

TEST_F(NetworkTest, StartsWithoutWhatTheSystemLacks) {
    FakeLibraries::Add("icmp.dll", "IcmpCreateFile", FakeCreateFile);
    FakeLibraries::entries.erase("iphlpapi.dll");
    FakeNetwork network(FakeLibraries::Platform());
    EXPECT_EQ(network.Start(), 0);
    EXPECT_EQ(network.GetProc("IcmpCreateFile"), nullptr);
    EXPECT_EQ(network.GetNumInterfaces(), 0u);
    EXPECT_EQ(network.GetAddressTable(), nullptr);
    EXPECT_EQ(network.GetAddressList(), nullptr);
    EXPECT_EQ(network.GetLocalAddress(0), nullptr);
    EXPECT_EQ(network.Ping(IPAddress("127.0.0.1")), 1);
}

TEST_F(NetworkTest, StartFailsWithTheSocketsAndCanBeTriedAgain) {
    static bool works;
    works = false;
    FakeLibraries::Add("icmp.dll", "IcmpCreateFile", FakeCreateFile);
    auto platform = FakeLibraries::Platform();
    platform.startSockets = [](WORD version, LPWSADATA) {
        return works && version == MAKEWORD(2, 2) ? 0 : WSAVERNOTSUPPORTED;
    };
    FakeNetwork network(platform);
    EXPECT_EQ(network.Start(), 8);
    works = true;
    EXPECT_EQ(network.Start(), 0);
    EXPECT_EQ(icmpFilesOpened, 1);
    EXPECT_EQ(FakeLibraries::references["iphlpapi.dll"], 1);
    EXPECT_THAT(
        log_.Lines(),
        ElementsAre(kCreated, "[system error]  - Can't start WSAStartup|Network::Start", kStarted));
}

TEST_F(NetworkTest, TablesThatGrowBetweenTheCalls) {
    AddTables();
    AddAddress();
    growths = 2;
    FakeNetwork network(FakeLibraries::Platform());
    EXPECT_EQ(network.Start(), 0);
    ASSERT_NE(network.GetAddressTable(), nullptr);
    EXPECT_EQ(network.GetAddressTable()->dwNumEntries, 3u);
    EXPECT_STREQ(network.GetAddressList(), "10.0.0.1,10.0.0.2,10.0.0.3");
    EXPECT_STREQ(network.GetLocalAddress(0), "10.0.0.1");
    EXPECT_STREQ(network.GetLocalAddress(2), "10.0.0.3");
    for (const int i : {-1, 3, 10, 1000}) {
        EXPECT_EQ(network.GetLocalAddress(i), nullptr) << i;
    }
    EXPECT_EQ(network.GetJudgedAddresses().size(), 3u);

    growths = 1000000;
    FakeNetwork busy(FakeLibraries::Platform());
    EXPECT_EQ(busy.Start(), 0) << "and comes to an end";
    EXPECT_EQ(busy.GetAddressTable(), nullptr);
}

TEST_F(NetworkTest, TablesThatCannotBeTrusted) {
    AddTables();
    AddAddress();
    AddAddress();
    claimedRows = 100000;
    FakeNetwork overstated(FakeLibraries::Platform());
    overstated.Start();
    ASSERT_NE(overstated.GetAddressTable(), nullptr);
    EXPECT_EQ(overstated.GetAddressTable()->dwNumEntries, 2u);

    claimedRows = 0;
    addressesFailure = ERROR_NO_DATA;
    FakeNetwork unreadable(FakeLibraries::Platform());
    EXPECT_EQ(unreadable.Start(), 0);
    EXPECT_EQ(unreadable.GetAddressTable(), nullptr);

    // Tables without a row that is of use give an empty list, not none.
    addressesFailure = 0;
    addresses.clear();
    FakeNetwork empty(FakeLibraries::Platform());
    EXPECT_EQ(empty.Start(), 0);
    ASSERT_NE(empty.GetAddressTable(), nullptr);
    EXPECT_STREQ(empty.GetAddressList(), "");
}

TEST_F(NetworkTest, ProtocolsOfTheCatalogue) {
    const FakeNetwork network({});
    EXPECT_EQ(network.FindProtocol(AF_INET), 0);
    EXPECT_EQ(network.FindProtocol(AF_INET6), 0);
    EXPECT_EQ(network.FindProtocol(12345), 11);

    NetworkPlatform platform;
    platform.enumProtocols = [](LPINT filter, LPWSAPROTOCOL_INFOA protocols, LPDWORD size) {
        EXPECT_EQ(filter, nullptr);
        EXPECT_EQ(*size, 94860u);
        protocols[0].iAddressFamily = AF_INET6;
        protocols[1].iAddressFamily = AF_INET;  // beyond what is counted
        return 1;
    };
    const FakeNetwork ipv6Only(platform);
    bool supported = true;
    EXPECT_EQ(ipv6Only.IsIPv4Supported(supported), 11);
    EXPECT_FALSE(supported);
    EXPECT_EQ(ipv6Only.IsIPv6Supported(supported), 0);
    EXPECT_TRUE(supported);

    platform.enumProtocols = [](LPINT, LPWSAPROTOCOL_INFOA, LPDWORD) {
        WSASetLastError(ERROR_ACCESS_DENIED);
        return SOCKET_ERROR;
    };
    const FakeNetwork unreadable(platform);
    EXPECT_EQ(unreadable.IsIPv6Supported(supported), 1);
    EXPECT_FALSE(supported);
    EXPECT_THAT(log_.Lines().back(),
                testing::AllOf(StartsWith("[system error]  - "), HasSubstr("denied"),
                               testing::EndsWith("|Network::FindProtocol")));
}

TEST_F(NetworkTest, NamesOfThisMachine) {
    const FakeNetwork network({});
    IPAddress address;
    EXPECT_EQ(network.GetIpAddress("127.0.0.1", address), 0);
    EXPECT_EQ(address.GetText(), "127.0.0.1");
    EXPECT_EQ(network.GetIpAddress("::1", address), 0);
    EXPECT_EQ(address.GetText(), "::1");
    IPAddress own;
    EXPECT_EQ(network.GetIpAddrFromHostName("", own, false), 0);
    EXPECT_EQ(own.GetType(), IPV4);
}

// A resolver that knows some names.
struct FakeResolver {
    static inline string askedFor;
    static inline int lists = 0;
    static inline bool convertible = true;

    static int Resolve(PCSTR name, PCSTR service, const addrinfo* hints, addrinfo** list) {
        EXPECT_EQ(service, nullptr);
        EXPECT_EQ(hints->ai_flags, 0);
        EXPECT_EQ(hints->ai_socktype, SOCK_STREAM);
        EXPECT_EQ(hints->ai_protocol, IPPROTO_TCP);
        askedFor = name;
        const bool ipv6 = hints->ai_family == AF_INET6;
        *list = nullptr;
        if (askedFor == "empty") {
            return 0;
        }
        const bool known = askedFor == "bare" || askedFor == "both" || askedFor == "localhorst" ||
                           askedFor == (ipv6 ? "six" : "four");
        if (!known) {
            WSASetLastError(WSAHOST_NOT_FOUND);
            return WSAHOST_NOT_FOUND;
        }
        ++lists;
        *list = new addrinfo();
        if (askedFor != "bare") {
            static sockaddr_in6 six;
            static sockaddr_in four;
            six = {};
            six.sin6_family = AF_INET6;
            six.sin6_scope_id = 4294967295;
            for (auto& byte : six.sin6_addr.s6_addr) {
                byte = 0xFE;
            }
            four = {};
            four.sin_family = AF_INET;
            four.sin_addr.s_addr = inet_addr("10.1.2.3");
            (*list)->ai_addr =
                ipv6 ? reinterpret_cast<sockaddr*>(&six) : reinterpret_cast<sockaddr*>(&four);
        }
        return 0;
    }
    static void Free(addrinfo* list) {
        lists -= list != nullptr;
        delete list;
    }
};

TEST_F(NetworkTest, NamesAreResolvedAsIPv4FirstThenIPv6) {
    static int families;  // of the catalogue: 1 IPv4, 2 IPv6
    NetworkPlatform platform;
    platform.getAddrInfo = FakeResolver::Resolve;
    platform.freeAddrInfo = FakeResolver::Free;
    platform.getHostName = [](char* name, int) {
        std::strcpy(name, "localhorst");
        return 0;
    };
    platform.addressToString = [](LPSOCKADDR address, DWORD length, LPWSAPROTOCOL_INFOA protocol,
                                  LPSTR text, LPDWORD size) {
        if (!FakeResolver::convertible) {
            WSASetLastError(WSAEFAULT);
            return SOCKET_ERROR;
        }
        return WSAAddressToStringA(address, length, protocol, text, size);
    };
    platform.enumProtocols = [](LPINT, LPWSAPROTOCOL_INFOA protocols, LPDWORD) {
        protocols[0].iAddressFamily = families & 1 ? AF_INET : -1;
        protocols[1].iAddressFamily = families & 2 ? AF_INET6 : -1;
        return 2;
    };
    const FakeNetwork network(platform);
    const string before = "192.168.0.1";
    const string six = "fefe:fefe:fefe:fefe:fefe:fefe:fefe:fefe%4294967295";
    struct Case {
        const char* name;
        int families;
        bool convertible;
        int result;
        string address;
        int logged;
    };
    const Case cases[] = {
        {"both", 3, true, 0, "10.1.2.3", 0}, {"four", 3, true, 0, "10.1.2.3", 0},
        {"six", 3, true, 0, six, 1},         {"both", 2, true, 0, six, 0},
        {"none", 3, true, 1, before, 2},     {"six", 1, true, 11, before, 1},
        {"both", 0, true, 11, before, 0},    {"empty", 3, true, 1, before, 0},
        {"bare", 3, true, 1, before, 0},     {"both", 3, false, 1, before, 2},
        {"", 3, true, 0, "10.1.2.3", 0},
    };
    for (const auto& [name, known, convertible, result, text, logged] : cases) {
        families = known;
        FakeResolver::convertible = convertible;
        const size_t lines = log_.Lines().size();
        IPAddress address(before);
        EXPECT_EQ(network.GetIpAddress(name, address), result) << name << known;
        EXPECT_EQ(address.GetText(), text) << name << known;
        EXPECT_EQ(log_.Lines().size() - lines, static_cast<size_t>(logged)) << name << known;
    }
    EXPECT_EQ(FakeResolver::askedFor, "localhorst");
    EXPECT_EQ(FakeResolver::lists, 0) << "every list is released";
    EXPECT_THAT(log_.Lines()[1],
                testing::AllOf(StartsWith("[system error]  - "), HasSubstr("ost"),
                               testing::EndsWith("|Network::GetIpAddrFromHostName")));
}

TEST_F(NetworkTest, ThereIsOneForAllThreads) {
    std::set<Network*> seen;
    std::mutex lock;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([&] {
                Network& network = Singleton<Network>::GetInstance();
                const std::lock_guard guard(lock);
                seen.insert(&network);
            });
        }
    }
    EXPECT_EQ(seen.size(), 1u);
    EXPECT_THAT(log_.Lines(), ElementsAre(kCreated));
    Network& network = Singleton<Network>::GetInstance();
    EXPECT_EQ(network.GetAddressList(), nullptr);
    EXPECT_EQ(network.Start(), 0);
    EXPECT_NE(network.GetProc("IcmpSendEcho2"), nullptr);
    EXPECT_NE(network.GetAddressTable(), nullptr);
    EXPECT_GT(network.GetNumInterfaces(), 0u);
}

}  // namespace
