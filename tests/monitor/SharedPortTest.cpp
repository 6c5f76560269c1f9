// Several callers that use one port at once, which the spooler itself never does: whatever one of
// them does to the port, nothing that another call uses is closed, and nothing stays open.
#include "monitor/Transport.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>

#include "tests/support/FakeSpooler.h"
#include "tests/support/HeldCall.h"
#include "tests/support/OddPrinter.h"

using testing::ElementsAre;

namespace {

constexpr std::chrono::milliseconds kMoment{200};  // enough for a call that does not wait to return

std::atomic<int> openSockets;
std::atomic<int> openLists;
HeldCall* held = nullptr;      // where the replaced call is held
std::atomic<int> callsToHold;  // so many of the next ones
std::atomic<int> callsHeld;    // at this moment
std::atomic<DWORD> injected;   // error that a held call fails with, or 0

// Returns whether the call fails.
bool HoldCall() {
    if (callsToHold-- <= 0) {
        return false;
    }
    ++callsHeld;
    held->Hold();
    --callsHeld;
    return injected != 0;
}

int Fail() {
    WSASetLastError(static_cast<int>(injected.load()));
    return SOCKET_ERROR;
}

int WSAAPI HeldConnect(SOCKET socket, const sockaddr* to, int size) {
    return HoldCall() ? Fail() : connect(socket, to, size);
}
int WSAAPI HeldSend(SOCKET socket, const char* bytes, int size, int flags) {
    return HoldCall() ? Fail() : send(socket, bytes, size, flags);
}
int WSAAPI HeldReceive(SOCKET socket, char* bytes, int size, int flags) {
    return HoldCall() ? Fail() : recv(socket, bytes, size, flags);
}
INT WSAAPI CountedResolve(PCSTR node, PCSTR service, const addrinfo* hints, addrinfo** list) {
    const INT error = getaddrinfo(node, service, hints, list);
    openLists += error == 0;
    return error;
}
INT WSAAPI HeldResolve(PCSTR node, PCSTR service, const addrinfo* hints, addrinfo** list) {
    return HoldCall() ? static_cast<INT>(injected) : CountedResolve(node, service, hints, list);
}
VOID WSAAPI CountedFreeList(addrinfo* list) {
    --openLists;
    freeaddrinfo(list);
}
SOCKET WSAAPI CountedSocket(int family, int type, int protocol) {
    ++openSockets;
    return socket(family, type, protocol);
}
int WSAAPI CountedClose(SOCKET socket) {
    EXPECT_EQ(callsHeld, 0) << "a socket is closed under a call that uses it";
    --openSockets;
    return closesocket(socket);
}

class SharedPortTest : public testing::Test {
  protected:
    void SetUp() override {
        openSockets = openLists = 0;
        callsToHold = 0;
        injected = 0;
        held = &call;
        Patch("socket", CountedSocket);
        Patch("closesocket", CountedClose);
        Patch("getaddrinfo", CountedResolve);
        Patch("freeaddrinfo", CountedFreeList);
        ASSERT_TRUE(spooler.Start());
    }
    void TearDown() override {
        EXPECT_EQ(openSockets, 0);
        EXPECT_EQ(openLists, 0);
    }

    template <class Function>
    void Patch(const char* name, Function* function) {
        patches.push_back(std::make_unique<ImportPatch>(spooler.dll, name, function));
    }
    // Holds the next call, or the next calls, of a function that is replaced.
    void HoldNext(int calls = 1, DWORD error = 0) {
        injected = error;
        callsToHold = calls;
    }

    bool ReadFails(HANDLE port) {
        BYTE byte = 0;
        DWORD count = 0;
        return !spooler->pfnReadPort(port, &byte, 1, &count) &&
               GetLastError() == ERROR_INVALID_HANDLE;
    }
    bool WriteFails(HANDLE port) {
        DWORD count = 7;
        return !spooler.Write(port, "x", count) && count == 0 &&
               GetLastError() == ERROR_INVALID_HANDLE;
    }
    void Delete(const std::wstring& name) {
        HANDLE xcv = spooler.OpenXcv();
        EXPECT_EQ(spooler.Xcv(xcv, L"DeletePort", name), 0u);
        spooler->pfnXcvClosePort(xcv);
    }
    // Opens a new port P and starts a job on it.
    HANDLE StartJob(const TcpPeer& printer, DWORD protocol = kProtocolRaw) {
        HANDLE port = spooler.OpenNew(L"P", protocol, printer.port);
        EXPECT_TRUE(spooler.Start(port));
        spooler.TakeJobCalls();
        return port;
    }
    // The following calls run on a thread of their own.
    auto StartLater(HANDLE port) {
        return std::async(std::launch::async, [=, this] { return spooler.Start(port); });
    }
    auto EndLater(HANDLE port) {
        return std::async(std::launch::async, [=, this] { return spooler->pfnEndDocPort(port); });
    }
    // Returns 0 if the page was taken, otherwise the last error.
    auto WriteLater(HANDLE port) {
        return std::async(std::launch::async, [=, this] {
            DWORD written = 7;
            const BOOL done = spooler.Write(port, "page", written);
            const DWORD error = done ? 0 : GetLastError();
            EXPECT_EQ(written, done ? 4u : 0u);
            return error;
        });
    }
    // Returns the first bytes that the printer sends.
    auto ReadLater(HANDLE port) {
        return std::async(std::launch::async, [=, this] {
            char buffer[8];
            DWORD count = 0;
            while (spooler->pfnReadPort(port, reinterpret_cast<PBYTE>(buffer), sizeof(buffer),
                                        &count) &&
                   count == 0) {
                Sleep(1);
            }
            return std::string(buffer, count);
        });
    }
    void PrintPage(HANDLE port) {
        EXPECT_TRUE(spooler.WriteAll(port, "page"));
        EXPECT_TRUE(spooler->pfnEndDocPort(port));
    }

    HeldCall call;
    FakeSpooler spooler;
    std::vector<std::unique_ptr<ImportPatch>> patches;
};

void Discard(PeerConnection& job) {
    job.ReadAll();
}
void SendStatus(PeerConnection& job) {
    job.Write("status");
    job.ReadAll();
}

// A start has the port for itself, in each of the calls in which it waits.
TEST_F(SharedPortTest, NobodyEndsAJobThatStarts) {
    for (const bool isConnecting : {false, true}) {
        SCOPED_TRACE(isConnecting);
        const auto patch =
            isConnecting ? std::make_unique<ImportPatch>(spooler.dll, "connect", HeldConnect)
                         : std::make_unique<ImportPatch>(spooler.dll, "getaddrinfo", HeldResolve);
        HeldCall waiting;
        held = &waiting;
        std::promise<std::string> received;
        TcpPeer printer([&](PeerConnection& job) { received.set_value(job.ReadAll()); });
        HANDLE port = spooler.OpenNew(L"P", 1, printer.port);
        spooler.TakeJobCalls();
        HoldNext();
        auto start = StartLater(port);
        waiting.Await();
        EXPECT_TRUE(spooler->pfnEndDocPort(port));
        EXPECT_TRUE(spooler.Start(port, L"Office", 43)) << "a second start does nothing";
        EXPECT_TRUE(WriteFails(port));
        EXPECT_TRUE(ReadFails(port));
        Delete(L"P");
        EXPECT_TRUE(spooler->pfnEndDocPort(port));
        EXPECT_TRUE(spooler->pfnClosePort(port)) << "the job alone holds the port now";
        waiting.Release();
        ASSERT_TRUE(start.get());
        EXPECT_TRUE(spooler.WriteAll(port, "the whole job"));
        EXPECT_TRUE(spooler->pfnEndDocPort(port));
        EXPECT_EQ(received.get_future().get(), "the whole job");
        EXPECT_THAT(spooler.TakeJobCalls(),
                    ElementsAre("OpenPrinter Office", "SetJob 42 6", "ClosePrinter"));
    }
}

TEST_F(SharedPortTest, AStartThatFailsUnderAnEndLeavesThePortIdle) {
    Patch("connect", HeldConnect);
    TcpPeer printer(Discard);
    HANDLE port = spooler.OpenNew(L"P", 1, printer.port);
    HoldNext(1, WSAECONNREFUSED);
    auto start = std::async(std::launch::async, [&] {
        const BOOL started = spooler.Start(port);
        EXPECT_EQ(GetLastError(), DWORD{WSAECONNREFUSED});
        return started;
    });
    call.Await();
    EXPECT_TRUE(spooler->pfnEndDocPort(port));
    call.Release();
    EXPECT_FALSE(start.get());
    EXPECT_EQ(openSockets, 0);
    EXPECT_EQ(openLists, 0);
    EXPECT_THAT(spooler.TakeJobCalls(), ElementsAre("OpenPrinter Office", "ClosePrinter"));
    EXPECT_TRUE(spooler.Start(port));
    PrintPage(port);
}

TEST_F(SharedPortTest, AnLprStartThatFailsUnderAnEndClosesItsConnection) {
    HeldCall refusal;
    std::promise<std::string> rest;
    TcpPeer daemon([&](PeerConnection& job) {
        job.ReadLine();
        refusal.Hold();
        job.Write("\x01");
        rest.set_value(job.ReadAll());
    });
    HANDLE port = spooler.OpenNew(L"P", 2, daemon.port);
    auto start = StartLater(port);
    refusal.Await();
    EXPECT_TRUE(spooler->pfnEndDocPort(port));
    refusal.Release();
    EXPECT_FALSE(start.get());
    EXPECT_EQ(rest.get_future().get(), "") << "the dialog goes no further";
    EXPECT_EQ(openSockets, 0);
    EXPECT_THAT(spooler.TakeJobCalls(), ElementsAre("OpenPrinter Office", "ClosePrinter"));
}

// The port is deleted, added and used anew while the end of a job still waits for its printer.
TEST_F(SharedPortTest, AnEndThatWaitsKeepsNobodyFromTheNextPort) {
    HeldCall waiting;
    std::atomic<int> visits = 0;
    TcpPeer printer([&](PeerConnection& job) {
        const bool isFirst = visits++ == 0;
        job.ReadAll();
        if (isFirst) {
            waiting.Hold();
            job.Write(std::string(10'000, 'x'));  // must not end the wait
        }
    });
    HANDLE port = StartJob(printer);
    auto end = EndLater(port);
    waiting.Await();
    EXPECT_TRUE(spooler->pfnEndDocPort(port)) << "one end is enough";
    EXPECT_TRUE(spooler.Start(port)) << "the job goes on until it has ended";
    EXPECT_TRUE(WriteFails(port));
    EXPECT_TRUE(ReadFails(port));
    Delete(L"P");
    EXPECT_TRUE(spooler->pfnClosePort(port));
    spooler.TakeJobCalls();

    HANDLE next = spooler.OpenNew(L"P", 1, printer.port);
    EXPECT_NE(next, port);
    ASSERT_TRUE(spooler.Start(next, L"Office", 43));
    PrintPage(next);
    EXPECT_THAT(spooler.TakeJobCalls(),
                ElementsAre("OpenPrinter Office", "SetJob 43 6", "ClosePrinter"));
    EXPECT_EQ(openSockets, 1);
    waiting.Release();
    EXPECT_TRUE(end.get());
    EXPECT_THAT(spooler.TakeJobCalls(), ElementsAre("SetJob 42 6", "ClosePrinter"));
}

// What a write uses stays open until it returns, though the printer has closed its side.
TEST_F(SharedPortTest, AnEndWaitsForTheWriteThatRuns) {
    Patch("send", HeldSend);
    std::promise<void> closed;
    TcpPeer printer([&](PeerConnection& job) {
        job.ReadAll();
        closed.set_value();
    });
    HANDLE port = StartJob(printer);
    HoldNext();
    auto write = WriteLater(port);
    call.Await();
    auto end = EndLater(port);
    closed.get_future().wait();
    EXPECT_EQ(end.wait_for(kMoment), std::future_status::timeout);
    EXPECT_THAT(spooler.TakeJobCalls(), ElementsAre());
    call.Release();
    EXPECT_NE(write.get(), 0u) << "the end of the job came first";
    EXPECT_TRUE(end.get());
    EXPECT_THAT(spooler.TakeJobCalls(), ElementsAre("SetJob 42 6", "ClosePrinter"));
}

// ReadPort has found bytes and receives them next: the end of the job must not take them first.
TEST_F(SharedPortTest, AnEndLeavesAReadItsBytes) {
    Patch("recv", HeldReceive);
    TcpPeer printer(SendStatus);
    HANDLE port = StartJob(printer);
    HoldNext();
    auto read = ReadLater(port);
    call.Await();
    auto end = EndLater(port);
    EXPECT_EQ(end.wait_for(kMoment), std::future_status::timeout);
    call.Release();
    EXPECT_EQ(read.get(), "status");
    EXPECT_TRUE(end.get());
}

TEST_F(SharedPortTest, AnLprJobIsClosedBehindAllOfItsData) {
    Patch("send", HeldSend);
    Visit visit;
    visit.lpr = true;
    visit.size = 4;
    TcpPeer daemon([&](PeerConnection& job) { Serve(job, visit); });
    HANDLE port = StartJob(daemon, kProtocolLpr);
    HoldNext();
    auto write = WriteLater(port);
    call.Await();
    auto end = EndLater(port);
    while ((static_cast<PortEntry*>(port)->flags & kJobEnding) == 0) {
        Sleep(1);
    }
    EXPECT_TRUE(WriteFails(port)) << "nothing more is taken once the end has begun";
    call.Release();
    EXPECT_EQ(write.get(), 0u);
    EXPECT_TRUE(end.get());
    daemon.Finish();
    EXPECT_EQ(visit.data, "page");
    EXPECT_EQ(visit.complaint, "");
}

TEST_F(SharedPortTest, TwoWritesThatLoseOneConnectionRestartTheJobOnce) {
    Patch("send", HeldSend);
    TcpPeer printer(Discard);
    HANDLE port = StartJob(printer);
    HoldNext(2, WSAECONNRESET);
    auto first = WriteLater(port);
    call.Await();
    auto second = WriteLater(port);
    call.Await();
    call.Release();
    EXPECT_EQ(first.get(), DWORD{WSAECONNRESET});
    EXPECT_EQ(second.get(), DWORD{WSAECONNRESET});
    EXPECT_THAT(spooler.TakeJobCalls(), ElementsAre("SetJob 42 4"));
    EXPECT_EQ(openSockets, 0);
    EXPECT_TRUE(WriteFails(port));
    EXPECT_TRUE(spooler->pfnEndDocPort(port));
    EXPECT_THAT(spooler.TakeJobCalls(), ElementsAre("SetJob 42 6", "ClosePrinter"));
}

// A write that fails while another one still runs waits with closing what that uses.
TEST_F(SharedPortTest, ALostConnectionIsClosedBehindTheCallsThatUseIt) {
    Patch("send", HeldSend);
    Patch("recv", HeldReceive);
    TcpPeer printer(SendStatus);
    HANDLE port = StartJob(printer);
    HoldNext();
    auto read = ReadLater(port);
    call.Await();
    DWORD none = 7;
    BYTE byte = 0;
    EXPECT_TRUE(spooler->pfnReadPort(port, &byte, 1, &none)) << "one reads already";
    EXPECT_EQ(none, 0u);

    injected = WSAECONNRESET;
    HeldCall writing;
    writing.Release();
    held = &writing;
    callsToHold = 1;
    auto write = WriteLater(port);
    while (static_cast<PortEntry*>(port)->socket) {  // until the write has failed
        Sleep(1);
    }
    EXPECT_EQ(write.wait_for(kMoment), std::future_status::timeout);
    EXPECT_THAT(spooler.TakeJobCalls(), ElementsAre());
    EXPECT_EQ(openSockets, 1);
    injected = 0;
    call.Release();
    read.get();
    EXPECT_EQ(write.get(), DWORD{WSAECONNRESET});
    EXPECT_THAT(spooler.TakeJobCalls(), ElementsAre("SetJob 42 4"));
    EXPECT_TRUE(spooler->pfnEndDocPort(port));
}

// A send that fails without ending the connection also ends the send that a stalled printer blocks.
TEST_F(SharedPortTest, AFailedWriteEndsAWriteThatIsBlocked) {
    Patch(
        "send", +[](SOCKET socket, const char* bytes, int size, int flags) -> int WSAAPI {
            WSASetLastError(WSAENOBUFS);
            return size == 1 ? SOCKET_ERROR : send(socket, bytes, size, flags);
        });
    HeldCall stalling;
    TcpPeer printer([&](PeerConnection&) { stalling.Hold(); });
    HANDLE port = StartJob(printer);
    auto blocked = std::async(std::launch::async,
                              [&] { return spooler.WriteAll(port, std::string(64 << 20, 'x')); });
    EXPECT_EQ(blocked.wait_for(kMoment), std::future_status::timeout);
    auto failing = std::async(std::launch::async, [&] {
        DWORD written = 0;
        return !spooler.Write(port, "x", written) && GetLastError() == DWORD{WSAENOBUFS};
    });
    EXPECT_EQ(blocked.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    stalling.Release();
    EXPECT_FALSE(blocked.get());
    EXPECT_TRUE(failing.get());
    EXPECT_TRUE(spooler->pfnEndDocPort(port));
}

}  // namespace
