#include "monitor/Transport.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <future>

#include "tests/support/FakeSpooler.h"
#include "tests/support/TcpPeer.h"

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

namespace {

class TransportTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(spooler.Start()); }

    HANDLE OpenPort(WORD tcpPort) { return spooler.OpenNew(L"P", 1, tcpPort); }

    FakeSpooler spooler;
};

TEST_F(TransportTest, ARawJobArrivesByteForByteAndIsReportedAsSent) {
    std::promise<std::string> received;
    TcpPeer printer([&](PeerConnection& job) { received.set_value(job.ReadAll()); });
    static linger lingering;
    ImportPatch option(
        spooler.dll, "setsockopt",
        +[](SOCKET, int level, int name, const char* value, int) -> int WSAAPI {
            if (level == SOL_SOCKET && name == SO_LINGER) {
                memcpy(&lingering, value, sizeof(lingering));
            }
            return 0;
        });
    HANDLE port = OpenPort(printer.port);
    std::string document(3'000'001, '\0');
    for (size_t i = 0; i < document.size(); ++i) {
        document[i] = static_cast<char>(i * 31 >> 3);
    }
    ASSERT_TRUE(spooler.Start(port));
    EXPECT_TRUE(spooler.Start(port, L"Other", 43)) << "does nothing while one runs";
    EXPECT_TRUE(spooler.WriteAll(port, document));
    EXPECT_TRUE(spooler->pfnEndDocPort(port));
    EXPECT_EQ(received.get_future().get(), document);
    EXPECT_THAT(spooler.TakeJobCalls(),
                ElementsAre("OpenPrinter Office", "SetJob 42 6", "ClosePrinter"));
    EXPECT_EQ(lingering.l_onoff, 1);
    EXPECT_EQ(lingering.l_linger, 120);
    EXPECT_TRUE(spooler->pfnEndDocPort(port));
    EXPECT_THAT(spooler.TakeJobCalls(), ElementsAre());
}

TEST_F(TransportTest, AJobWithoutAPrinterHasNoConnection) {
    HANDLE port = OpenPort(9);
    for (const wchar_t* name : {L"Unknown", static_cast<const wchar_t*>(nullptr)}) {
        EXPECT_TRUE(spooler.Start(port, name));
        DWORD count = 7;
        EXPECT_FALSE(spooler.Write(port, "x", count));
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_HANDLE});
        EXPECT_EQ(count, 0u);
        BYTE byte = 0;
        EXPECT_FALSE(spooler->pfnReadPort(port, &byte, 1, &count));
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_HANDLE});
        EXPECT_TRUE(spooler->pfnEndDocPort(port));
        EXPECT_THAT(spooler.TakeJobCalls(), Not(Contains("ClosePrinter")));
    }
}

TEST_F(TransportTest, AJobThatCannotStartLeavesThePortIdleAndSaysWhy) {
    TcpPeer printer([](PeerConnection& job) { job.ReadAll(); });
    const RefusingPort refusing;
    HANDLE port = OpenPort(printer.port);
    const struct {
        const char* what;
        std::function<void()> spoil;
        DWORD error;
    } cases[] = {
        {"refused", [&] { spooler.SetNumber(L"P", L"PortNumber", refusing.number); },
         WSAECONNREFUSED},
        {"no address", [&] { spooler.SetText(L"P", L"IPAddress", L""); }, WSAHOST_NOT_FOUND},
        {"no IPv6 address", [&] { spooler.SetNumber(L"P", L"UseIPV6", 1); }, WSAHOST_NOT_FOUND},
        {"registry",
         [&] {
             spooler.failures = {{"open Ports", 5}};
         },
         5},
        {"never configured",
         [&] {
             spooler.failures = {{"query Double Spool", 2}};
         },
         2},
    };
    for (const auto& c : cases) {
        c.spoil();
        SetLastError(0);
        EXPECT_FALSE(spooler.Start(port)) << c.what;
        EXPECT_EQ(GetLastError(), c.error) << c.what;
        const auto calls = spooler.TakeJobCalls();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "OpenPrinter Office"),
                  std::count(calls.begin(), calls.end(), "ClosePrinter"))
            << c.what;
        spooler.failures = {};
        spooler.SetNumber(L"P", L"UseIPV6", 0);
        spooler.ConfigurePort(L"P", 1, printer.port);
        EXPECT_TRUE(spooler.Start(port)) << c.what;
        EXPECT_TRUE(spooler.WriteAll(port, "x")) << c.what;
        EXPECT_TRUE(spooler->pfnEndDocPort(port));
    }
}

// What the resolver returns for a name with three addresses, all of them this one.
addrinfo* ThreeTimes(sockaddr_in& address) {
    static addrinfo list[3];
    for (int i = 0; i < 3; ++i) {
        list[i] = {};
        list[i].ai_family = AF_INET;
        list[i].ai_socktype = SOCK_STREAM;
        list[i].ai_protocol = IPPROTO_TCP;
        list[i].ai_addrlen = sizeof(address);
        list[i].ai_addr = reinterpret_cast<sockaddr*>(&address);
        list[i].ai_next = i < 2 ? &list[i + 1] : nullptr;
    }
    return list;
}

TEST_F(TransportTest, OneSocketServesAllAddressesOfAName) {
    TcpPeer printer([](PeerConnection& job) { job.ReadAll(); });
    static sockaddr_in address;
    address.sin_family = AF_INET;
    address.sin_port = htons(printer.port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    static int sockets, connects, toFail;
    const ImportPatch resolve(
        spooler.dll, "getaddrinfo",
        +[](PCSTR, PCSTR, const addrinfo*, addrinfo** result) -> INT WSAAPI {
            *result = ThreeTimes(address);
            return 0;
        });
    const ImportPatch release(
        spooler.dll, "freeaddrinfo", +[](addrinfo*) -> VOID WSAAPI {});
    const ImportPatch make(
        spooler.dll, "socket", +[](int family, int type, int protocol) -> SOCKET WSAAPI {
            ++sockets;
            return socket(family, type, protocol);
        });
    const ImportPatch counted(
        spooler.dll, "connect", +[](SOCKET socket, const sockaddr* to, int size) -> int WSAAPI {
            if (++connects > toFail) {
                return connect(socket, to, size);
            }
            WSASetLastError(WSAECONNREFUSED);
            return SOCKET_ERROR;
        });
    HANDLE port = OpenPort(1);
    toFail = 2;
    EXPECT_TRUE(spooler.Start(port));
    EXPECT_EQ(connects, 3);
    EXPECT_EQ(sockets, 1);
    spooler->pfnEndDocPort(port);
    connects = 0;
    toFail = 3;
    EXPECT_FALSE(spooler.Start(port));
    EXPECT_EQ(connects, 3);
    EXPECT_EQ(GetLastError(), DWORD{WSAECONNREFUSED});
}

TEST_F(TransportTest, ReadsWhatThePrinterSendsWithoutWaiting) {
    HANDLE step = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    TcpPeer printer([&](PeerConnection& job) {
        WaitForSingleObject(step, INFINITE);
        job.Write("status");
        WaitForSingleObject(step, INFINITE);
    });
    HANDLE port = OpenPort(printer.port);
    ASSERT_TRUE(spooler.Start(port));
    BYTE buffer[4] = {};
    DWORD count = 7;
    EXPECT_TRUE(spooler->pfnReadPort(port, buffer, sizeof(buffer), &count));
    EXPECT_EQ(count, 0u);
    SetEvent(step);
    while (spooler->pfnReadPort(port, buffer, sizeof(buffer), &count) && count == 0) {
        Sleep(1);
    }
    EXPECT_EQ(std::string(buffer, buffer + count), "stat");
    EXPECT_FALSE(spooler->pfnReadPort(port, nullptr, 4, &count));
    EXPECT_EQ(GetLastError(), DWORD{WSAEMSGSIZE});
    EXPECT_TRUE(spooler->pfnReadPort(port, buffer, sizeof(buffer), &count));
    EXPECT_EQ(std::string(buffer, buffer + count), "us");
    SetEvent(step);
    printer.Finish();
    while (spooler->pfnReadPort(port, buffer, sizeof(buffer), &count)) {
        Sleep(1);
    }
    EXPECT_EQ(GetLastError(), DWORD{WSAENOTCONN});
    spooler->pfnEndDocPort(port);
    CloseHandle(step);
}

}  // namespace
