#include "net/Network.h"

#include <cstring>

#include "tests/net/FakeNetwork.h"

namespace {

using std::string;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char kCreated[] = "[info]          - Network singleton created|Network::Network";
constexpr char kStarted[] = "[info]          - Network started!|Network::Start";

int icmpFilesOpened;
HANDLE WINAPI FakeCreateFile() {
    ++icmpFilesOpened;
    return reinterpret_cast<HANDLE>(0x1234);
}

DWORD WINAPI FakeRoutes(MIB_IPFORWARDTABLE* table, ULONG* size, BOOL) {
    const ULONG given = std::exchange(*size, sizeof *table);
    if (given < sizeof *table) {
        return ERROR_INSUFFICIENT_BUFFER;
    }
    table->dwNumEntries = 1;
    return NO_ERROR;
}

struct AddressTable {
    DWORD rows;
    int growths;        // it gets one more row after each of the next so many calls
    DWORD claimedRows;  // added to the row count that the table tells
    DWORD failure;      // what the call answers instead, if not 0
    const char* list;   // what is made of it, and of how many rows
    DWORD rowsTaken;
} addresses;

DWORD WINAPI FakeAddresses(MIB_IPADDRTABLE* table, ULONG* size, BOOL) {
    if (addresses.failure != 0) {
        return addresses.failure;
    }
    const auto needed = static_cast<ULONG>(sizeof(DWORD) + addresses.rows * sizeof(MIB_IPADDRROW));
    if (std::exchange(*size, needed) < needed) {
        addresses.rows += addresses.growths-- > 0;
        return ERROR_INSUFFICIENT_BUFFER;
    }
    table->dwNumEntries = addresses.rows + addresses.claimedRows;
    for (DWORD i = 0; i < addresses.rows; ++i) {
        table->table[i].dwAddr = htonl(0x0A000001 + i);
        table->table[i].dwMask = 0xFF;
    }
    return NO_ERROR;
}

class NetworkTest : public testing::Test {
  protected:
    NetworkTest() {
        FakeLibraries::Reset();
        FakeLibraries::Add("icmp.dll", "IcmpCreateFile", FakeCreateFile);
        icmpFilesOpened = 0;
    }

    SocketsStarted sockets_;
    LogCapture log_;
};

TEST_F(NetworkTest, LibrariesAndHandlesAreOpenedOnceAndReleasedAsEver) {
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

TEST_F(NetworkTest, StartsWithoutTheIpHelperLibraryButNotWithoutSockets) {
    static bool works;
    works = false;
    auto platform = FakeLibraries::Platform();
    platform.startSockets = [](WORD version, LPWSADATA) {
        return works && version == MAKEWORD(2, 2) ? 0 : WSAVERNOTSUPPORTED;
    };
    FakeLibraries::entries.erase("iphlpapi.dll");
    FakeNetwork network(platform);
    EXPECT_EQ(network.Start(), 8);
    works = true;
    EXPECT_EQ(network.Start(), 0);
    EXPECT_EQ(network.GetProc("IcmpCreateFile"), nullptr);
    EXPECT_EQ(network.GetAddressTable(), nullptr);
    EXPECT_EQ(network.GetAddressList(), nullptr);
    EXPECT_EQ(network.Ping(IPAddress("127.0.0.1")), 1);
    EXPECT_THAT(
        log_.Lines(),
        ElementsAre(kCreated, "[system error]  - Can't start WSAStartup|Network::Start", kStarted));
}

TEST_F(NetworkTest, AddressTablesOfEveryKind) {
    FakeLibraries::Add("iphlpapi.dll", "GetIpAddrTable", FakeAddresses);
    FakeLibraries::Add("iphlpapi.dll", "GetIpForwardTable", FakeRoutes);
    const AddressTable cases[] = {
        {1, 2, 0, 0, "10.0.0.1,10.0.0.2,10.0.0.3", 3},  // grows between the calls
        {1, 1000000, 0, 0, nullptr, 0},                 // never stops growing
        {2, 0, 100000, 0, "10.0.0.1,10.0.0.2", 2},      // claims more than it gave
        {0, 0, 0, 0, "", 0},                            // nothing of use: a list, but empty
        {2, 0, 0, ERROR_NO_DATA, nullptr, 0},
    };
    for (const AddressTable& c : cases) {
        addresses = c;
        FakeNetwork network(FakeLibraries::Platform());
        EXPECT_EQ(network.Start(), 0);
        EXPECT_STREQ(network.GetAddressList(), c.list);
        const auto* taken = network.GetAddressTable();
        EXPECT_EQ(taken != nullptr ? taken->dwNumEntries : 0, c.rowsTaken);
        const int last = static_cast<int>(c.rowsTaken) - 1;
        EXPECT_EQ(network.GetLocalAddress(-1), nullptr);
        EXPECT_EQ(network.GetLocalAddress(last + 1), nullptr);
        if (last >= 0) {
            EXPECT_EQ(network.GetLocalAddress(last), "10.0.0." + std::to_string(last + 1));
        }
    }
}

TEST_F(NetworkTest, ProtocolsOfTheCatalogue) {
    NetworkPlatform platform;
    platform.enumProtocols = [](LPINT, LPWSAPROTOCOL_INFOA protocols, LPDWORD size) {
        EXPECT_EQ(*size, 94860u);
        protocols[0].iAddressFamily = AF_INET6;
        protocols[1].iAddressFamily = AF_INET;  // beyond what is counted
        return 1;
    };
    bool supported = true;
    EXPECT_EQ(FakeNetwork(platform).IsIPv4Supported(supported), 11);
    EXPECT_FALSE(supported);
    EXPECT_EQ(FakeNetwork(platform).IsIPv6Supported(supported), 0);
    EXPECT_TRUE(supported);
    platform.enumProtocols = [](LPINT, LPWSAPROTOCOL_INFOA, LPDWORD) { return SOCKET_ERROR; };
    EXPECT_EQ(FakeNetwork(platform).IsIPv6Supported(supported), 1);
    EXPECT_FALSE(supported);
    EXPECT_THAT(log_.Lines().back(), EndsWith("|Network::FindProtocol"));
}

// A resolver that knows the names "4" (IPv4), "6" (IPv6), "46", "none" and "bare".
int listsHeld;
int Resolve(PCSTR name, PCSTR service, const addrinfo* hints, addrinfo** list) {
    static sockaddr_in v4;
    static sockaddr_in6 v6;
    v4.sin_family = AF_INET;
    v4.sin_addr.s_addr = inet_addr("10.1.2.3");
    v6.sin6_family = AF_INET6;
    v6.sin6_scope_id = 4294967295;
    std::memset(&v6.sin6_addr, 0xFE, sizeof v6.sin6_addr);
    EXPECT_TRUE(service == nullptr && hints->ai_flags == 0 && hints->ai_socktype == SOCK_STREAM &&
                hints->ai_protocol == IPPROTO_TCP);
    const bool ipv6 = hints->ai_family == AF_INET6;
    const string asked = name;
    *list = nullptr;
    if (asked.find(ipv6 ? '6' : '4') == string::npos && asked != "none" && asked != "bare") {
        WSASetLastError(WSAHOST_NOT_FOUND);
        return WSAHOST_NOT_FOUND;
    }
    if (asked != "none") {
        ++listsHeld;
        *list = new addrinfo();
        (*list)->ai_addr = asked == "bare" ? nullptr
                           : ipv6          ? reinterpret_cast<sockaddr*>(&v6)
                                           : reinterpret_cast<sockaddr*>(&v4);
    }
    return 0;
}

TEST_F(NetworkTest, NamesAreResolvedAsIPv4FirstThenIPv6) {
    static int families;  // of the catalog: 1 IPv4, 2 IPv6
    static bool convertible;
    NetworkPlatform platform;
    platform.getAddrInfo = Resolve;
    platform.freeAddrInfo = [](addrinfo* list) {
        listsHeld -= list != nullptr;
        delete list;
    };
    platform.getHostName = [](char* name, int) { return std::strcpy(name, "4") ? 0 : 1; };
    platform.addressToString = [](LPSOCKADDR address, DWORD length, LPWSAPROTOCOL_INFOA protocol,
                                  LPSTR text, LPDWORD size) {
        return convertible ? WSAAddressToStringA(address, length, protocol, text, size)
                           : SOCKET_ERROR;
    };
    platform.enumProtocols = [](LPINT, LPWSAPROTOCOL_INFOA protocols, LPDWORD) {
        protocols[0].iAddressFamily = families & 1 ? AF_INET : -1;
        protocols[1].iAddressFamily = families & 2 ? AF_INET6 : -1;
        return 2;
    };
    const FakeNetwork network(platform);
    const string before = "192.168.0.1";
    const string v6 = "fefe:fefe:fefe:fefe:fefe:fefe:fefe:fefe%4294967295";
    const struct {
        const char* name;
        int families;
        bool convertible;
        int result;
        string address;
        size_t logged;
    } cases[] = {
        {"46", 3, true, 0, "10.1.2.3", 0}, {"6", 3, true, 0, v6, 1},
        {"46", 2, true, 0, v6, 0},         {"", 3, true, 0, "10.1.2.3", 0},
        {"x", 3, true, 1, before, 2},      {"6", 1, true, 11, before, 1},
        {"46", 0, true, 11, before, 0},    {"none", 3, true, 1, before, 0},
        {"bare", 3, true, 1, before, 0},   {"46", 3, false, 1, before, 2},
    };
    for (const auto& c : cases) {
        families = c.families;
        convertible = c.convertible;
        const size_t lines = log_.Lines().size();
        IPAddress address(before);
        EXPECT_EQ(network.GetIpAddress(c.name, address), c.result) << c.name << c.families;
        EXPECT_EQ(address.GetText(), c.address) << c.name << c.families;
        EXPECT_EQ(log_.Lines().size() - lines, c.logged) << c.name << c.families;
    }
    EXPECT_EQ(listsHeld, 0) << "every list is released";
    EXPECT_THAT(log_.Lines()[1], AllOf(StartsWith("[system error]  - "), HasSubstr("ost"),
                                       EndsWith("|Network::GetIpAddrFromHostName")));
}

}  // namespace
