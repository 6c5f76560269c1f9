#include "tests/net/FakeNetwork.h"

#include <icmpapi.h>

#include <cstring>

namespace {

using testing::ElementsAre;

const HANDLE kHandle = reinterpret_cast<HANDLE>(0x1234);
const HANDLE kHandle6 = reinterpret_cast<HANDLE>(0x5678);

// What the faked echo functions answer, and how often they were asked.
DWORD replies;
ULONG status;
USHORT dataSize;
int asked;
ULONG scopeAsked;

DWORD WINAPI FakeEcho(HANDLE handle, HANDLE, FARPROC, PVOID, IPAddr address, LPVOID, WORD size,
                      PIP_OPTION_INFORMATION options, LPVOID buffer, DWORD bufferSize,
                      DWORD timeout) {
    ++asked;
    EXPECT_TRUE(handle == kHandle && address == inet_addr("10.1.2.3") && size == 4 && !options);
    EXPECT_TRUE(bufferSize == 324 && timeout == 5000);
    auto* reply = static_cast<ICMP_ECHO_REPLY*>(buffer);
    reply->Status = status;
    reply->DataSize = dataSize;
    return replies;
}

DWORD WINAPI FakeEcho6(HANDLE handle, HANDLE, FARPROC, PVOID, sockaddr_in6* source,
                       sockaddr_in6* destination, LPVOID, WORD size, PIP_OPTION_INFORMATION options,
                       LPVOID buffer, DWORD bufferSize, DWORD timeout) {
    ++asked;
    sockaddr_in6 unspecified = {};
    unspecified.sin6_family = AF_INET6;
    EXPECT_EQ(std::memcmp(source, &unspecified, sizeof unspecified), 0);
    EXPECT_TRUE(handle == kHandle6 && destination->sin6_family == AF_INET6 && size == 4);
    EXPECT_TRUE(options->Ttl == 255 && options->Tos == 0 && options->Flags == 0 &&
                options->OptionsSize == 0);
    EXPECT_TRUE(bufferSize == 292 && timeout == 5000);
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
    int Ping(const IPAddress& address) {
        FakeNetwork network(FakeLibraries::Platform());
        network.Start();
        before_ = log_.Lines().size();
        return network.Ping(address);
    }
    // What the last probe logged.
    std::vector<std::string> Lines() const {
        const auto lines = log_.Lines();
        return {lines.begin() + static_cast<ptrdiff_t>(before_), lines.end()};
    }

    SocketsStarted sockets_;
    LogCapture log_;
    size_t before_ = 0;
};

TEST_F(ProbeTest, OnlyOneGoodReplyIsAnAnswer) {
    const IPAddress address("10.1.2.3");
    const struct {
        DWORD replies;
        ULONG status;
        USHORT dataSize;
        int result;
    } cases[] = {{1, IP_SUCCESS, 4, 0}, {0, IP_SUCCESS, 4, 1},
                 {2, IP_SUCCESS, 4, 1}, {1, IP_DEST_HOST_UNREACHABLE, 4, 1},
                 {1, IP_SUCCESS, 3, 1}, {1, IP_SUCCESS, 5, 1}};
    for (const auto& c : cases) {
        replies = c.replies;
        status = c.status;
        dataSize = c.dataSize;
        EXPECT_EQ(Ping(address), c.result) << c.replies << ' ' << c.status << ' ' << c.dataSize;
    }
    EXPECT_EQ(Ping(IPAddress("nonsense")), 3);
    FakeLibraries::entries["icmp.dll"].clear();
    EXPECT_EQ(Ping(address), 1);
    EXPECT_EQ(asked, 6);
    EXPECT_THAT(Lines(), ElementsAre());
}

TEST_F(ProbeTest, IPv6ScopeIsSoughtUnlessThereIsOne) {
    EXPECT_EQ(Ping(IPAddress("::1")), 0);
    EXPECT_THAT(Lines(),
                ElementsAre("[info]          - SetV6Scope: Able to bind scope ID-0|SetV6Scope"));

    // Nobody here has this address: all scopes fail and the default is used.
    const IPAddress elsewhere("fe80::dead:beef");
    EXPECT_EQ(Ping(elsewhere), 0);
    EXPECT_EQ(scopeAsked, 0u);
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 256u);
    for (size_t i = 0; i < 255; ++i) {
        EXPECT_THAT(lines[i], testing::StartsWith("[system info]   - SetV6Scope: Failed to bind "
                                                  "Scope ID-" +
                                                  std::to_string(i) + ", GLE = "));
    }
    EXPECT_EQ(lines[255],
              "[system info]   - Ping6: Failed to set local-link Scope ID, reset to default"
              "|Network::Ping6");
    int length = 0;
    auto* address = reinterpret_cast<sockaddr_in6*>(elsewhere.GetSockAddr(length));
    EXPECT_EQ(SetV6Scope(address), -1);
    EXPECT_EQ(address->sin6_scope_id, 254u) << "the last one tried";
    EXPECT_EQ(Ping(elsewhere), 0);
    EXPECT_EQ(scopeAsked, 254u);
    EXPECT_THAT(Lines(), ElementsAre());
}

TEST_F(ProbeTest, IPv6FailuresAreLogged) {
    const IPAddress address("fe80::1");
    int length = 0;
    reinterpret_cast<sockaddr_in6*>(address.GetSockAddr(length))->sin6_scope_id = 1;
    const auto failsWith = [&](const char* line) {
        EXPECT_EQ(Ping(address), 1);
        EXPECT_THAT(Lines(), ElementsAre(std::string(line) + "|Network::Ping6"));
    };
    replies = 0;
    failsWith("[system info]   - Ping6: Failed Icmp6SendEcho2 call, GLE = 11010");
    replies = 1;
    status = IP_DEST_HOST_UNREACHABLE;
    failsWith("[system info]   - Ping6: Replay failed, Status = 11003");
    FakeLibraries::entries["icmp.dll"].erase("Icmp6SendEcho2");
    failsWith("[system error]  - Ping6: Unable to get proc Icmp6SendEcho2");
    // Without a handle nothing is asked or logged.
    const int before = asked;
    FakeLibraries::entries["iphlpapi.dll"].erase("Icmp6CreateFile");
    EXPECT_EQ(Ping(address), 1);
    EXPECT_EQ(asked, before);
    EXPECT_THAT(Lines(), ElementsAre());
}

}  // namespace
