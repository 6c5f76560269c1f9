// Job starts whose printer does not answer, through the shipped kestmon.dll and the shipped
// SLPConf.xml, over an SLP library that does as it is told.
#include "monitor/Rediscovery.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
#include <thread>

#include "tests/support/FakeSlp.h"
#include "tests/support/FakeSpooler.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ScarceMemory.h"
#include "tests/support/TcpPeer.h"

using testing::Contains;
using testing::Not;

namespace {

constexpr wchar_t kGone[] = L"127.0.0.2";  // nobody listens there

constexpr char kMoved[] = "(ip-address=127.0.0.1),(mac-address=0004004A1B2C),(host-name=P1)";
constexpr char kOther[] = "(ip-address=127.0.0.9),(mac-address=000400000009),(host-name=p1)";
constexpr char kSix[] = "(ip-address=::1),(mac-address=0004004A1B2C)";
constexpr char kNowhere[] = "(ip-address=nowhere),(mac-address=0004004A1B2C)";

struct Case {
    const wchar_t *mac, *hostName;
    std::vector<std::string> answers;
    int searches;
    DWORD error = 0;  // of the job; 0 if it starts
    // What the port has afterwards.
    const wchar_t *address = L"127.0.0.1", *ipv6 = L"-";
    int useIPv6 = 0;
};

INT WSAAPI ResolveNumbers(PCSTR node, PCSTR service, const addrinfo* hints, addrinfo** list) {
    addrinfo numeric = *hints;
    numeric.ai_flags |= AI_NUMERICHOST;
    return getaddrinfo(node, service, &numeric, list);
}

class RediscoveryTest : public testing::Test {
  protected:
    void SetUp() override {
        const auto patch = [this](const char* name, auto* function) {
            patches.push_back(std::make_unique<ImportPatch>(spooler.dll, name, function));
        };
        patch("SLPOpen", SLPOpen);
        patch("SLPClose", SLPClose);
        patch("SLPFindAttrs", SLPFindAttrs);
        patch("SLPParseAttrs", SLPParseAttrs);
        patch("SLPFree", SLPFree);
        // What is no address is not looked up: nothing leaves the machine.
        patch("getaddrinfo", ResolveNumbers);
        ASSERT_TRUE(spooler.Start());
    }

    // A port whose printer has gone away from its address.
    HANDLE OpenPort(const std::wstring& name, WORD tcpPort, const wchar_t* mac,
                    const wchar_t* hostName, DWORD alwaysPrint = 1) {
        const HANDLE port = spooler.OpenNew(name, 1, tcpPort);
        spooler.SetText(name, L"IPAddress", kGone);
        spooler.SetText(name, L"HWAddress", mac);
        spooler.SetText(name, L"HostName", hostName);
        spooler.SetNumber(name, L"AlwaysPrint", alwaysPrint);
        spooler.SetNumber(name, L"UseIPV6", 0);
        return port;
    }
    bool PrintOnce(HANDLE port) {
        const bool started = spooler.Start(port) != FALSE;
        error = started ? 0 : GetLastError();
        spooler->pfnEndDocPort(port);
        return started;
    }
    void Print(const std::vector<Case>& cases) {
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::Message() << c.mac << ' ' << c.hostName << ' ' << c.ipv6);
            slp.answers = c.answers;
            const HANDLE port = OpenPort(L"P", printer.port, c.mac, c.hostName);
            EXPECT_EQ(PrintOnce(port), c.error == 0);
            EXPECT_EQ(error, c.error);
            EXPECT_EQ(Searches(), c.searches);
            EXPECT_EQ(spooler.Text(L"P", L"IPAddress"), c.address);
            EXPECT_EQ(spooler.Text(L"P", L"IPv6HostName"), c.ipv6);
            EXPECT_EQ(spooler.Number(L"P", L"UseIPV6"), c.useIPv6);
            EXPECT_EQ(spooler.Text(L"P", L"HostName"), c.hostName);
            if (c.error == 0) {
                EXPECT_TRUE(PrintOnce(port));
                EXPECT_EQ(Searches(), 0) << "the next job goes there straight";
            }
            spooler->pfnClosePort(port);
        }
    }
    ptrdiff_t Searches() {
        return std::ranges::count(slp.TakeCalls(), "find service:printer 239.255.255.253 v2");
    }

    LogCapture log;
    FakeSlp slp;
    FakeSpooler spooler;
    std::vector<std::unique_ptr<ImportPatch>> patches;
    DWORD error = 0;  // of the last job that did not start
    TcpPeer printer{[](PeerConnection& connection) { connection.ReadAll(); }};
};

TEST_F(RediscoveryTest, ThePortFollowsItsPrinter) {
    Print({
        // By hardware address, in any letter case, whoever else has the name and answers first.
        {L"0004004a1b2c", L"p1", {kOther, kMoved}, 1},
        // No printer has this MAC address: found by name.
        {L"000400000001", L"p1", {kMoved}, 2},
        // One with separators is none.
        {L"00:04:00:4a:1", L"P1", {kMoved}, 1},
        {L"", L"p1", {kMoved}, 1},
    });
}

TEST_F(RediscoveryTest, AJobFailsIfItsPrinterIsNotFoundOrNotReached) {
    Print({
        {L"0004004a1b2c", L"p1", {}, 2, WSAECONNREFUSED, kGone},
        // By the whole of its name.
        {L"000400000001", L"p1.example", {kMoved}, 2, WSAECONNREFUSED, kGone},
        {L"00:04:00:4a:1", L"", {kMoved}, 0, WSAECONNREFUSED, kGone},
        // No address that could be used: the port has none either, and an empty one is no host's.
        {L"0004004a1b2c", L"p1", {kNowhere}, 1, WSAHOST_NOT_FOUND, kGone, L"", 1},
        // IPv6 only; the peer listens on IPv4 alone, so the job fails where it connects.
        {L"0004004a1b2c", L"p1", {kSix}, 1, WSAECONNREFUSED, kGone, L"::1", 1},
    });
}

// The text of the announced address is stored, truncated to the field. The resolver takes no text
// with a port, nor with a padded octet that contains 8 or 9, so the job fails. It reads other
// padded octets as octal numbers.
TEST_F(RediscoveryTest, TheAnnouncedTextIsStored) {
    const struct {
        const char* announced;
        const wchar_t* stored;
    } cases[] = {
        {"127.000.000.019", L"127.000.000.019"}, {"192.168.001.009", L"192.168.001.009"},
        {"10.1.2.3:9100", L"10.1.2.3:9100"},     {"192.168.001.009:9100", L"192.168.001.009"},
        {"127.0.0.1:65535", L"127.0.0.1:65535"}, {"100.100.100.8:9100", L"100.100.100.8:9"}};
    for (const auto& [announced, stored] : cases) {
        const std::string answer =
            std::string("(mac-address=0004004A1B2C),(ip-address=") + announced + ")";
        Print({{L"0004004a1b2c", L"", {answer}, 1, WSAHOST_NOT_FOUND, stored}});
    }
}

TEST_F(RediscoveryTest, PortsThatDoNotFollowAskNobody) {
    slp.answers = {"(ip-address=127.0.0.1),(mac-address=0004004A1B2C)"};
    EXPECT_FALSE(PrintOnce(OpenPort(L"P", printer.port, L"0004004a1b2c", L"", 0)));
    // Neither do those for whose search there is no memory.
    const ImportPatch memory(
        spooler.dll, "GlobalAlloc", +[](UINT flags, SIZE_T size) -> HGLOBAL WINAPI {
            return size > 100'000 ? nullptr : GlobalAlloc(flags, size);
        });
    EXPECT_FALSE(PrintOnce(OpenPort(L"Q", printer.port, L"0004004a1b2c", L"")));
    EXPECT_EQ(error, DWORD{WSAECONNREFUSED});
    EXPECT_EQ(Searches(), 0);
    EXPECT_EQ(log.Text(), "");
}

// At whatever step of the search: the job fails or starts, the spooler lives on, and nothing stays
// behind. Each time on a thread of its own, because a thread has its first exception only once.
TEST_F(RediscoveryTest, MemoryMayRunOutInTheMiddle) {
    slp.answers = {"(ip-address=127.0.0.1),(mac-address=0004004A1B2C),(host-name=p1)"};
    const HANDLE port = OpenPort(L"P", printer.port, L"0004004a1b2c", L"p1");
    const ScarceMemory memory(spooler.dll);
    size_t held = 0;
    int failed = 0;
    for (bool started = false; !started; ++failed) {
        std::thread([&] {
            spooler.SetText(L"P", L"IPAddress", kGone);
            const ScarceMemory::Limit limit(36'000 + 900 * failed);
            started = PrintOnce(port);
            held = started || failed == 0 ? 0 : limit.Held();
        }).join();
        EXPECT_LT(held, ScarceMemory::kOfThread);
    }
    EXPECT_GT(failed, 50);
}

// An IPv6 port goes back to IPv4. An address that cannot be stored fails the job.
TEST_F(RediscoveryTest, WhatWasFoundIsStoredWholeOrTheJobFails) {
    slp.answers = {"(ip-address=127.0.0.1),(ip-address-2=::1),(mac-address=0004004A1B2C)"};
    const HANDLE port = OpenPort(L"P", printer.port, L"0004004a1b2c", L"");
    spooler.SetNumber(L"P", L"UseIPV6", 1);
    spooler.SetText(L"P", L"IPv6HostName", L"::1");  // nobody listens there
    spooler.failures["set UseIPV6"] = ERROR_ACCESS_DENIED;
    EXPECT_FALSE(PrintOnce(port));
    EXPECT_EQ(error, DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(spooler.Text(L"P", L"IPAddress"), L"127.0.0.1") << "the address is written first";
    spooler.failures.clear();
    EXPECT_TRUE(PrintOnce(port));
    EXPECT_EQ(spooler.Number(L"P", L"UseIPV6"), 0);
}

}  // namespace
