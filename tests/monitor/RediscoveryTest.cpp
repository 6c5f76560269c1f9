// Job starts whose printer does not answer, through the shipped kestmon.dll and the shipped
// SLPConf.xml, over an SLP library that does as it is told.
#include "monitor/Rediscovery.h"

#include <gmock/gmock.h>

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
    size_t Searches() {
        const auto calls = slp.TakeCalls();
        return static_cast<size_t>(
            std::count(calls.begin(), calls.end(), "find service:printer 239.255.255.253 v2"));
    }

    LogCapture log;
    FakeSlp slp;
    FakeSpooler spooler;
    std::vector<std::unique_ptr<ImportPatch>> patches;
    DWORD error = 0;  // of the last job that did not start
    TcpPeer printer{[](PeerConnection& connection) { connection.ReadAll(); }};
};

TEST_F(RediscoveryTest, ThePortFollowsItsPrinter) {
    struct Case {
        const wchar_t *mac, *hostName;
        std::vector<std::string> answers;
        bool started;
        const wchar_t *address, *ipv6;
        int useIPv6;
        size_t searches;
    };
    const std::string moved = "(ip-address=127.0.0.1),(mac-address=0004004A1B2C),(host-name=P1)";
    const std::string other = "(ip-address=127.0.0.9),(mac-address=000400000009),(host-name=p1)";
    const std::string six = "(ip-address=::1),(mac-address=0004004A1B2C)";
    const std::string nowhere = "(ip-address=nowhere),(mac-address=0004004A1B2C)";
    const std::vector<Case> cases = {
        // By hardware address, in any letter case, whoever else has the name and answers first.
        {L"0004004a1b2c", L"p1", {other, moved}, true, L"127.0.0.1", L"-", 0, 1},
        // One that nobody has: by name, the whole of it.
        {L"000400000001", L"p1", {moved}, true, L"127.0.0.1", L"-", 0, 2},
        {L"000400000001", L"p1.example", {moved}, false, kGone, L"-", 0, 2},
        // One with separators is none.
        {L"00:04:00:4a:1", L"P1", {moved}, true, L"127.0.0.1", L"-", 0, 1},
        {L"00:04:00:4a:1", L"", {moved}, false, kGone, L"-", 0, 0},
        {L"", L"p1", {moved}, true, L"127.0.0.1", L"-", 0, 1},
        {L"0004004a1b2c", L"p1", {}, false, kGone, L"-", 0, 2},
        // No address that could be used: the port has none either, and the job fails.
        {L"0004004a1b2c", L"p1", {nowhere}, false, kGone, L"", 1, 1},
        // IPv6 only; the peer listens on IPv4 alone, so the job fails where it connects.
        {L"0004004a1b2c", L"p1", {six}, false, kGone, L"::1", 1, 1},
    };
    int number = 0;
    for (const auto& [mac, hostName, answers, started, address, ipv6, useIPv6, searches] : cases) {
        const std::wstring name = L"P" + std::to_wstring(++number);
        SCOPED_TRACE(number);
        slp.answers = answers;
        const HANDLE port = OpenPort(name, printer.port, mac, hostName);
        EXPECT_EQ(PrintOnce(port), started);
        EXPECT_EQ(Searches(), searches);
        if (!started) {
            // Why it was searched for, or what became of it where it was found: an empty address
            // is no host's.
            EXPECT_EQ(error, ipv6 == std::wstring(L"") ? DWORD{WSAHOST_NOT_FOUND}
                                                       : DWORD{WSAECONNREFUSED});
        }
        EXPECT_EQ(spooler.Text(name, L"IPAddress"), address);
        EXPECT_EQ(spooler.Text(name, L"IPv6HostName"), ipv6);
        EXPECT_EQ(spooler.Number(name, L"UseIPV6"), useIPv6);
        EXPECT_EQ(spooler.Text(name, L"HostName"), hostName);
        if (started) {
            EXPECT_TRUE(PrintOnce(port));
            EXPECT_EQ(Searches(), 0u) << "the next job goes there straight";
        }
        spooler->pfnClosePort(port);
    }
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
        SCOPED_TRACE(announced);
        slp.answers = {std::string("(ip-address=") + announced + "),(mac-address=0004004A1B2C)"};
        const HANDLE port = OpenPort(L"P", printer.port, L"0004004a1b2c", L"");
        EXPECT_FALSE(PrintOnce(port));
        EXPECT_EQ(error, DWORD{WSAHOST_NOT_FOUND});
        EXPECT_EQ(spooler.Text(L"P", L"IPAddress"), stored);
        EXPECT_EQ(spooler.Number(L"P", L"UseIPV6"), 0);
        spooler->pfnClosePort(port);
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
    EXPECT_EQ(Searches(), 0u);
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
