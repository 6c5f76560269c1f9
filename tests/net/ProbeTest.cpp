#include "tests/net/FakeNetwork.h"

#include <icmpapi.h>

#include <cstring>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const HANDLE kHandle = reinterpret_cast<HANDLE>(0x1234);
const HANDLE kHandle6 = reinterpret_cast<HANDLE>(0x5678);

// What the faked echo functions answer, and how often they were asked.
DWORD replies;
ULONG status;
USHORT dataSize;
int asked;
ULONG scopeAsked;

DWORD WINAPI FakeEcho(HANDLE handle, HANDLE event, FARPROC routine, PVOID context, IPAddr address,
                      LPVOID, WORD size, PIP_OPTION_INFORMATION options, LPVOID buffer,
                      DWORD bufferSize, DWORD timeout) {
    ++asked;
    EXPECT_TRUE(handle == kHandle && !event && !routine && !context && !options);
    EXPECT_EQ(address, inet_addr("10.1.2.3"));
    EXPECT_EQ(size, 4);
    EXPECT_EQ(bufferSize, 324u);
    EXPECT_EQ(timeout, 5000u);
    auto* reply = static_cast<ICMP_ECHO_REPLY*>(buffer);
    reply->Status = status;
    reply->DataSize = dataSize;
    return replies;
}

DWORD WINAPI FakeEcho6(HANDLE handle, HANDLE event, FARPROC routine, PVOID context,
                       sockaddr_in6* source, sockaddr_in6* destination, LPVOID, WORD size,
                       PIP_OPTION_INFORMATION options, LPVOID buffer, DWORD bufferSize,
                       DWORD timeout) {
    ++asked;
    EXPECT_TRUE(handle == kHandle6 && !event && !routine && !context);
    sockaddr_in6 unspecified = {};
    unspecified.sin6_family = AF_INET6;
    EXPECT_EQ(std::memcmp(source, &unspecified, sizeof unspecified), 0);
    EXPECT_EQ(destination->sin6_family, AF_INET6);
    EXPECT_EQ(size, 4);
    EXPECT_TRUE(options->Ttl == 255 && options->Tos == 0 && options->Flags == 0 &&
                options->OptionsSize == 0);
    EXPECT_EQ(bufferSize, 292u);
    EXPECT_EQ(timeout, 5000u);
    scopeAsked = destination->sin6_scope_id;
    std::memcpy(static_cast<char*>(buffer) + 28, &status, sizeof status);
    SetLastError(IP_REQ_TIMED_OUT);
    return replies;
}

class ProbeTest : public testing::Test {
  protected:
    ProbeTest() {
        FakeLibraries::Reset();
        FakeLibraries::Add(
            "iphlpapi.dll", "IcmpCreateFile", +[]() -> HANDLE { return kHandle; });
        FakeLibraries::Add(
            "iphlpapi.dll", "Icmp6CreateFile", +[]() -> HANDLE { return kHandle6; });
        FakeLibraries::Add("icmp.dll", "IcmpSendEcho2", FakeEcho);
        FakeLibraries::Add("icmp.dll", "Icmp6SendEcho2", FakeEcho6);
        replies = 1;
        status = IP_SUCCESS;
        dataSize = 4;
        asked = 0;
    }
    // What is logged by the probe itself.
    std::vector<std::string> Lines() const {
        auto lines = log_.Lines();
        lines.erase(lines.begin(), lines.begin() + 2);
        return lines;
    }
    int Ping(const IPAddress& address) {
        FakeNetwork network(FakeLibraries::Platform());
        network.Start();
        return network.Ping(address);
    }

    LogCapture log_;
};

TEST_F(ProbeTest, LoopbackAnswers) {
    FakeNetwork network({});
    ASSERT_EQ(network.Start(), 0);
    EXPECT_EQ(network.Ping(IPAddress("127.0.0.1")), 0);
    EXPECT_EQ(network.PingV4(IPAddress("127.0.0.1:9100")), 0);
}

TEST_F(ProbeTest, OnlyOneGoodReplyIsAnAnswer) {
    const IPAddress address("10.1.2.3");
    EXPECT_EQ(Ping(address), 0);
    for (const DWORD count : {0, 2}) {
        replies = count;
        EXPECT_EQ(Ping(address), 1) << count;
    }
    replies = 1;
    for (const USHORT size : {0, 3, 5}) {
        dataSize = size;
        EXPECT_EQ(Ping(address), 1) << size;
    }
    dataSize = 4;
    status = IP_DEST_HOST_UNREACHABLE;
    EXPECT_EQ(Ping(address), 1);
    EXPECT_EQ(asked, 7);

    EXPECT_EQ(Ping(IPAddress("nonsense")), 3);
    EXPECT_EQ(asked, 7);
    FakeLibraries::entries["icmp.dll"].clear();
    EXPECT_EQ(Ping(address), 1);
}

TEST_F(ProbeTest, IPv6AddressWithAScopeIsAskedAtOnce) {
    const IPAddress address("fe80::1");
    int length = 0;
    reinterpret_cast<sockaddr_in6*>(address.GetSockAddr(length))->sin6_scope_id = 7;
    EXPECT_EQ(Ping(address), 0);
    EXPECT_EQ(scopeAsked, 7u);
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ProbeTest, IPv6ScopeIsSoughtAndKept) {
    const IPAddress loopback("::1");
    EXPECT_EQ(Ping(loopback), 0);
    EXPECT_THAT(Lines(), ElementsAre("[info]          - SetV6Scope: Able to bind scope ID-0"
                                     "|SetV6Scope"));

    // Nobody here has this address: all scopes fail and the default is used.
    const IPAddress elsewhere("fe80::dead:beef");
    const size_t before = log_.Lines().size() + 2;
    EXPECT_EQ(Ping(elsewhere), 0);
    EXPECT_EQ(scopeAsked, 0u);
    const auto lines = log_.Lines();
    ASSERT_EQ(lines.size(), before + 256);
    EXPECT_THAT(lines[before], testing::MatchesRegex("\\[system info\\]   - SetV6Scope: Failed to "
                                                     "bind Scope ID-0, GLE = \\d+.SetV6Scope"));
    EXPECT_THAT(lines[before + 254], testing::HasSubstr("Scope ID-254, GLE = "));
    EXPECT_EQ(lines.back(),
              "[system info]   - Ping6: Failed to set local-link Scope ID, reset to default"
              "|Network::Ping6");
}

TEST_F(ProbeTest, SetV6ScopeLeavesTheLastOneTried) {
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_addr.s6_addr[0] = 0xFE;
    address.sin6_addr.s6_addr[1] = 0x80;
    address.sin6_addr.s6_addr[15] = 0x77;
    EXPECT_EQ(SetV6Scope(&address), -1);
    EXPECT_EQ(address.sin6_scope_id, 254u);
}

TEST_F(ProbeTest, IPv6FailuresAreLogged) {
    const IPAddress address("fe80::1");
    int length = 0;
    reinterpret_cast<sockaddr_in6*>(address.GetSockAddr(length))->sin6_scope_id = 1;
    replies = 0;
    EXPECT_EQ(Ping(address), 1);
    EXPECT_EQ(log_.Lines().back(),
              "[system info]   - Ping6: Failed Icmp6SendEcho2 call, GLE = 11010|Network::Ping6");
    replies = 1;
    status = 11003;
    EXPECT_EQ(Ping(address), 1);
    EXPECT_EQ(log_.Lines().back(),
              "[system info]   - Ping6: Replay failed, Status = 11003|Network::Ping6");
    FakeLibraries::entries["icmp.dll"].erase("Icmp6SendEcho2");
    EXPECT_EQ(Ping(address), 1);
    EXPECT_EQ(log_.Lines().back(),
              "[system error]  - Ping6: Unable to get proc Icmp6SendEcho2|Network::Ping6");
}

TEST_F(ProbeTest, WithoutIPv6HandleNothingIsAskedOrLogged) {
    FakeLibraries::Add(
        "iphlpapi.dll", "Icmp6CreateFile", +[]() -> HANDLE { return INVALID_HANDLE_VALUE; });
    EXPECT_EQ(Ping(IPAddress("::1")), 1);
    FakeLibraries::entries["iphlpapi.dll"].erase("Icmp6CreateFile");
    EXPECT_EQ(Ping(IPAddress("::1")), 1);
    EXPECT_EQ(asked, 0);
    EXPECT_EQ(log_.Lines().size(), 4u) << "made and started, twice";
}

}  // namespace
