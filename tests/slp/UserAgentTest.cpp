// The C interface with agents on loopback, and what hostile ones among them can do.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <tlhelp32.h>

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <thread>

#include "slp/Slp.h"
#include "tests/slp/Caller.h"
#include "tests/slp/Replies.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kService[] = "service:printer";
constexpr char kAnyHost[] = "0.0.0.0";

// Windows Sockets for the agents of this program; the library has its own reference.
struct Sockets {
    Sockets() {
        WSADATA data;
        WSAStartup(MAKEWORD(2, 2), &data);
    }
} const sockets;

uint16_t XidOf(std::string_view request) {
    return static_cast<uint16_t>(static_cast<unsigned char>(request[10]) << 8 |
                                 static_cast<unsigned char>(request[11]));
}

SOCKET Bound(int type, const std::string& host, unsigned short port) {
    const Endpoint endpoint(host, port);
    const SOCKET result = socket(endpoint.storage.ss_family, type, 0);
    EXPECT_EQ(bind(result, endpoint.get(), endpoint.size()), 0) << WSAGetLastError();
    return result;
}

unsigned short PortOf(SOCKET s) {
    sockaddr_storage name{};
    int size = sizeof name;
    getsockname(s, reinterpret_cast<sockaddr*>(&name), &size);
    return ntohs(reinterpret_cast<sockaddr_in*>(&name)->sin_port);
}

// Answers every datagram that comes to an address of this machine, or to the group on its loopback
// interface, on a thread of its own.
class Agent {
  public:
    struct Request {
        std::string bytes;
        sockaddr_storage from;
        int fromSize;
    };
    using Behaviour = std::function<void(const Agent&, const Request&)>;

    explicit Agent(Behaviour behaviour, const std::string& host = "127.0.0.1")
        : socket_(Bound(SOCK_DGRAM, host == kGroup ? kAnyHost : host, 0)),
          here_(host == kGroup || host == kAnyHost ? "127.0.0.1" : host, PortOf(socket_)) {
        if (host == kGroup) {
            ip_mreq group{};
            inet_pton(AF_INET, kGroup, &group.imr_multiaddr);
            inet_pton(AF_INET, "127.0.0.1", &group.imr_interface);
            EXPECT_EQ(setsockopt(socket_, IPPROTO_IP, IP_ADD_MEMBERSHIP,
                                 reinterpret_cast<const char*>(&group), sizeof group),
                      0);
        }
        thread_ = std::thread([this, behaviour = std::move(behaviour)] { Serve(behaviour); });
    }

    // Answers with these datagrams, made for the request's transaction.
    static Behaviour Replying(std::function<std::vector<std::string>(uint16_t)> replies) {
        return [replies = std::move(replies)](const Agent& agent, const Request& request) {
            for (const std::string& reply : replies(XidOf(request.bytes))) {
                agent.Send(reply, request);
            }
        };
    }
    static Behaviour Silent() {
        return [](const Agent&, const Request&) {};
    }

    ~Agent() {
        ending_ = true;
        const SOCKET waker = socket(here_.storage.ss_family, SOCK_DGRAM, 0);
        sendto(waker, "", 0, 0, here_.get(), here_.size());
        closesocket(waker);
        thread_.join();
        closesocket(socket_);
    }

    const sockaddr* address() const { return here_.get(); }
    unsigned short port() const { return PortOf(socket_); }
    void Send(const std::string& reply, const Request& to) const { SendBy(socket_, reply, to); }
    static void SendBy(SOCKET s, const std::string& reply, const Request& to) {
        sendto(s, reply.data(), static_cast<int>(reply.size()), 0,
               reinterpret_cast<const sockaddr*>(&to.from), to.fromSize);
    }

  private:
    void Serve(const Behaviour& behaviour) {
        for (;;) {
            char buffer[2000];
            Request request{{}, {}, sizeof request.from};
            const int size =
                recvfrom(socket_, buffer, sizeof buffer, 0,
                         reinterpret_cast<sockaddr*>(&request.from), &request.fromSize);
            if (ending_) {
                return;
            }
            request.bytes.assign(buffer, size > 12 ? static_cast<size_t>(size) : 0);
            if (!request.bytes.empty()) {
                behaviour(*this, request);
            }
        }
    }

    const SOCKET socket_;
    const Endpoint here_;
    std::atomic<bool> ending_ = false;
    std::thread thread_;
};

// Takes one connection on a TCP port and does with it what the test says.
class TcpAgent {
  public:
    TcpAgent(unsigned short port, std::function<void(SOCKET, const std::string& request)> behaviour)
        : listener_(Bound(SOCK_STREAM, "127.0.0.1", port)) {
        listen(listener_, 5);
        thread_ = std::thread([this, behaviour = std::move(behaviour)] {
            const SOCKET peer = accept(listener_, nullptr, nullptr);
            char request[2000];
            const int size = recv(peer, request, sizeof request, 0);
            behaviour(peer, std::string(request, size > 0 ? static_cast<size_t>(size) : 0));
            while (recv(peer, request, sizeof request, 0) > 0) {
            }
            closesocket(peer);
        });
    }
    ~TcpAgent() {
        thread_.join();
        closesocket(listener_);
    }

  private:
    const SOCKET listener_;
    std::thread thread_;
};

void SendAll(SOCKET s, const std::string& bytes) {
    send(s, bytes.data(), static_cast<int>(bytes.size()), 0);
}

// A whole synchronous request; returns how long it took.
milliseconds Ask(Answers& answers, const sockaddr* to, unsigned version = 2) {
    const SLPHandle handle = Open(SLP_FALSE);
    const auto begin = steady_clock::now();
    EXPECT_EQ(Find(handle, answers, to, version), SLP_OK);
    const auto end = steady_clock::now();
    SLPClose(handle);
    EXPECT_EQ(answers.lastCalls(), 1);
    return std::chrono::duration_cast<milliseconds>(end - begin);
}

size_t ThreadCount() {
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    size_t count = 0;
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
        count += entry.th32OwnerProcessID == GetCurrentProcessId();
    }
    CloseHandle(snapshot);
    return count;
}

TEST(UserAgent, AsksOneAgentInBothVersionsAndFamilies) {
    for (const unsigned version : {1u, 2u}) {
        for (const char* host : {"127.0.0.1", "::1"}) {
            SCOPED_TRACE(testing::Message() << version << ' ' << host);
            std::string request;
            const Agent agent(
                [&](const Agent& self, const Agent::Request& got) {
                    request = got.bytes;
                    self.Send(ListReply(version, XidOf(got.bytes), "(ip=10.0.0.1)"), got);
                },
                host);
            Answers answers;
            Ask(answers, agent.address(), version);
            EXPECT_THAT(answers.lists(), ElementsAre("(ip=10.0.0.1)"));
            EXPECT_EQ(answers.thread(), GetCurrentThreadId());
            const std::string scopes = version == 2 ? Text("DEFAULT") : Text("");
            EXPECT_EQ(
                request.substr(version == 2 ? 16 : 12),
                Text("") + Text(kService) + scopes + Text("") + (version == 2 ? Text("") : ""));
            EXPECT_EQ(request[version == 2 ? 5 : 4], 0);  // it did not come by multicast
        }
    }
}

TEST(UserAgent, TheHandlesAgentOverridesTheDestination) {
    const Agent asked(
        Agent::Replying([](auto xid) { return std::vector{ListReply(2, xid, "a")}; }));
    const Agent other(
        Agent::Replying([](auto xid) { return std::vector{ListReply(2, xid, "b")}; }));
    const SLPHandle handle = Open(SLP_FALSE);
    EXPECT_EQ(SLPSetUnicastIP(handle, asked.address()), SLP_OK);
    Answers answers;
    EXPECT_EQ(Find(handle, answers, other.address()), SLP_OK);
    EXPECT_THAT(answers.lists(), ElementsAre("a"));
    SLPClose(handle);
}

// The honest answer gets through behind a heap of what is none.
TEST(UserAgent, HearsTheAgentThroughTheNoise) {
    const Agent agent([&](const Agent& self, const Agent::Request& request) {
        const uint16_t xid = XidOf(request.bytes);
        for (int i = 1; i <= 400; ++i) {
            self.Send(std::string(1000, 'x'), request);
            self.Send(ListReply(2, static_cast<uint16_t>(xid + i), "(ip=6.6.6.6)"), request);
        }
        self.Send(ListReply(2, xid, "(ip=10.0.0.1)"), request);
    });
    Answers answers;
    Ask(answers, agent.address());
    EXPECT_THAT(answers.lists(), ElementsAre("(ip=10.0.0.1)"));
}

TEST(UserAgent, AnErrorEndsARequestToOneAgentWithoutAList) {
    const Agent agent(Agent::Replying([](auto xid) { return std::vector{ErrorReply(2, xid, 4)}; }));
    Answers answers;
    EXPECT_LT(Ask(answers, agent.address()), milliseconds(3000));
    EXPECT_THAT(answers.lists(), IsEmpty());
}

TEST(UserAgent, FetchesWhatADatagramCannotHold) {
    const std::string list = "(text=" + std::string(50000, 'x') + ")";
    for (const unsigned version : {1u, 2u}) {
        std::string datagram;
        const Agent agent(
            [&](const Agent& self, const Agent::Request& request) {
                datagram = datagram.empty() ? request.bytes : datagram;
                self.Send(OverflowReply(version, XidOf(request.bytes)), request);
            },
            kGroup);
        std::string fetched;
        const TcpAgent server(agent.port(), [&](SOCKET peer, const std::string& request) {
            fetched = request;
            const std::string reply = ListReply(version, XidOf(request), list);
            for (size_t at = 0; at < reply.size(); at += 9000) {
                SendAll(peer, reply.substr(at, 9000));
            }
        });
        Answers answers;
        const SLPHandle handle = Open(SLP_FALSE);
        EXPECT_EQ(SLPAssociateIFList(handle, "127.0.0.1"), SLP_OK);
        EXPECT_EQ(Find(handle, answers, Endpoint(kGroup, agent.port()).get(), version), SLP_OK);
        SLPClose(handle);
        EXPECT_THAT(answers.lists(), ElementsAre(list));
        // Over TCP it no longer says that it came by multicast, as a datagram of version 2 does.
        EXPECT_EQ(std::exchange(datagram[5], '\0'), version == 2 ? 0x20 : 0);
        EXPECT_EQ(fetched, datagram);
    }
}

TEST(UserAgent, IsNotHeldUpByTcpServersThatMisbehave) {
    const std::function<void(SOCKET, const std::string&)> misdeeds[] = {
        [](SOCKET, const std::string&) {},  // takes the request and says nothing
        [](SOCKET peer, const std::string& request) {
            SendAll(peer, ListReply(2, XidOf(request), "(a=1)").substr(0, 20));
        },
        [](SOCKET peer, const std::string& request) {
            SendAll(peer, ListReply(2, XidOf(request) ^ 1u, "(a=1)"));
        },
        [](SOCKET peer, const std::string&) {
            SendAll(peer, std::string("\x02\x07\xFF\xFF\xFF", 5) + std::string(100000, 'x'));
        },
        [](SOCKET peer, const std::string&) { shutdown(peer, SD_BOTH); },
    };
    for (const auto& misdeed : misdeeds) {
        const Agent agent(
            Agent::Replying([](auto xid) { return std::vector{OverflowReply(2, xid)}; }));
        const TcpAgent server(agent.port(), misdeed);
        Answers answers;
        EXPECT_LT(Ask(answers, agent.address()), milliseconds(6000));
        EXPECT_THAT(answers.lists(), IsEmpty());
    }
    const Agent alone(Agent::Replying([](auto xid) { return std::vector{OverflowReply(2, xid)}; }));
    Answers answers;
    EXPECT_LT(Ask(answers, alone.address()), milliseconds(6000));
    EXPECT_THAT(answers.lists(), IsEmpty());
}

// This machine answers from 127.0.0.1, whatever loopback address was asked: nobody asked that one.
TEST(UserAgent, GivesUpAfterAllRoundsWhenOnlyAStrangerAnswers) {
    std::atomic<int> requests = 0;
    const Agent agent(
        [&](const Agent& self, const Agent::Request& request) {
            ++requests;
            self.Send(ListReply(2, XidOf(request.bytes), "(ip=6.6.6.6)"), request);
        },
        kAnyHost);
    Answers answers;
    const milliseconds took = Ask(answers, Endpoint("127.0.0.5", agent.port()).get());
    EXPECT_GE(took, milliseconds(3400));
    EXPECT_LT(took, milliseconds(6000));
    EXPECT_EQ(requests, 4);
    EXPECT_THAT(answers.lists(), IsEmpty());
}

// Stays on the loopback interface.
TEST(UserAgent, AsksAGroupOnceMoreWithWhoHasAnswered) {
    std::vector<std::string> requests;
    const Agent agent(
        [&](const Agent& self, const Agent::Request& request) {
            requests.push_back(request.bytes);
            for (int copy = 0; copy < 3; ++copy) {
                self.Send(ListReply(2, XidOf(request.bytes), "a"), request);
            }
        },
        kGroup);
    const SLPHandle handle = Open(SLP_FALSE);
    EXPECT_EQ(SLPAssociateIFList(handle, "127.0.0.1"), SLP_OK);
    Answers answers;
    EXPECT_EQ(Find(handle, answers, Endpoint(kGroup, agent.port()).get()), SLP_OK);
    SLPClose(handle);
    EXPECT_THAT(answers.lists(), ElementsAre("a"));
    EXPECT_EQ(answers.lastCalls(), 1);
    ASSERT_EQ(requests.size(), 2u);
    const std::string rest = Text(kService) + Text("DEFAULT") + Text("") + Text("");
    EXPECT_EQ(requests[0].substr(16), Text("") + rest);
    EXPECT_EQ(requests[1].substr(16), Text("127.0.0.1") + rest);
    EXPECT_EQ(requests[0][5], 0x20);
    EXPECT_EQ(XidOf(requests[0]), XidOf(requests[1]));
}

// However a request is ended, it ends promptly, with one last call and no thread left.
TEST(UserAgent, EndsWhenItIsTold) {
    const HANDLE asked = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const Agent talker(
        Agent::Replying([](auto xid) { return std::vector{ListReply(2, xid, "a")}; }));
    const Agent silent([&](const Agent&, const Agent::Request&) { SetEvent(asked); });
    size_t threads = 0;
    using InCallback = std::function<SLPBoolean(SLPHandle, SLPError)>;
    using FromOutside = void (*)(SLPHandle);
    const struct {
        const char* name;
        InCallback inCallback;
        FromOutside fromOutside;
    } cases[] = {
        {"stopped from outside", nullptr, [](SLPHandle h) { (void)SLPStopFind(h); }},
        {"closed from outside", nullptr, SLPClose},
        {"stopped in the callback", [](SLPHandle h, SLPError) { return SLPStopFind(h) == SLP_OK; },
         nullptr},
        {"closed in the callback",
         [](SLPHandle h, SLPError) {
             SLPClose(h);
             return SLP_TRUE;
         },
         nullptr},
        {"closed in the last call",
         [](SLPHandle h, SLPError code) {
             if (code == SLP_LAST_CALL) {
                 SLPClose(h);
             }
             return SLP_TRUE;
         },
         nullptr},
        {"no more wanted", [](SLPHandle, SLPError) { return SLP_FALSE; }, nullptr},
    };
    for (const SLPBoolean async : {SLP_TRUE, SLP_FALSE}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message() << c.name << ", asynchronous: " << async);
            const SLPHandle handle = Open(async);
            Answers answers;
            answers.then = c.inCallback;
            auto begin = steady_clock::now();
            std::thread outside([&] {
                if (c.fromOutside == nullptr) {
                    return;
                }
                WaitForSingleObject(asked, INFINITE);
                begin = steady_clock::now();
                c.fromOutside(handle);
            });
            EXPECT_EQ(Find(handle, answers, (c.fromOutside ? silent : talker).address()), SLP_OK);
            answers.AwaitEnd();
            outside.join();
            EXPECT_LT(steady_clock::now() - begin, milliseconds(1000));
            SLPClose(handle);
            EXPECT_EQ(answers.lastCalls(), 1);
            EXPECT_EQ(answers.lists().size(), c.fromOutside ? 0u : 1u);
            if (threads == 0) {  // from here on the system has started what it starts for itself
                threads = ThreadCount();
            }
        }
    }
    // A thread that closed its own handle has just a few steps left to go.
    for (int i = 0; i < 100 && ThreadCount() != threads; ++i) {
        Sleep(20);
    }
    EXPECT_EQ(ThreadCount(), threads);
    CloseHandle(asked);
}

TEST(UserAgent, OneRequestAtATimeOnAHandleAndManyHandlesAtOnce) {
    const Agent silent(Agent::Silent());
    const Agent talker(
        Agent::Replying([](auto xid) { return std::vector{ListReply(2, xid, "a")}; }));
    const size_t threads = ThreadCount();
    constexpr int kHandles = 20;
    SLPHandle handles[kHandles];
    std::vector<Answers> answers(kHandles);
    for (int i = 0; i < kHandles; ++i) {
        handles[i] = Open(SLP_TRUE);
        EXPECT_EQ(Find(handles[i], answers[i], silent.address()), SLP_OK);
        EXPECT_EQ(Find(handles[i], answers[i], talker.address()), SLP_HANDLE_IN_USE);
        EXPECT_EQ(answers[i].lastCalls(), 0);
    }
    EXPECT_EQ(ThreadCount(), threads + kHandles);

    // The last call makes the next request, and that one's the one after it.
    std::atomic<int> more = 2;
    answers[0].then = [&](SLPHandle handle, SLPError code) {
        return code != SLP_LAST_CALL || more-- == 0 ||
               Find(handle, answers[0], talker.address()) == SLP_OK;
    };
    EXPECT_EQ(SLPStopFind(handles[0]), SLP_OK);
    answers[0].AwaitLists(2);
    for (const SLPHandle handle : handles) {
        SLPClose(handle);
    }
    for (int i = 0; i < kHandles; ++i) {
        EXPECT_EQ(answers[i].lastCalls(), i == 0 ? 3 : 1);
    }
    EXPECT_EQ(ThreadCount(), threads);
}

TEST(UserAgent, RefusesWhatCannotBe) {
    SLPHandle handle = &handle;
    for (const char* lang : {"e n", "1x", "en-", "-en", "en--us", "abcdefghi", "\xE4"}) {
        EXPECT_EQ(SLPOpen(lang, SLP_FALSE, &handle), SLP_PARAMETER_BAD) << lang;
        EXPECT_EQ(handle, nullptr);
    }
    EXPECT_EQ(SLPOpen("en", SLP_FALSE, nullptr), SLP_PARAMETER_BAD);

    handle = Open(SLP_FALSE);
    for (const char* host : {"0.0.0.0", "255.255.255.255", "239.255.255.253", "::", "ff02::116"}) {
        EXPECT_EQ(SLPSetUnicastIP(handle, Endpoint(host, 427).get()), SLP_PARAMETER_BAD) << host;
    }
    for (const char* list :
         {"", " ", "127.0.0.1,", "127.0.0.1,,::1", "localhost", "127.1", "::1%1"}) {
        EXPECT_EQ(SLPAssociateIFList(handle, list), SLP_PARAMETER_BAD) << list;
    }
    EXPECT_EQ(SLPAssociateIFList(handle, " 127.0.0.1 ,::1"), SLP_OK);
    EXPECT_EQ(SLPSetUnicastIP(handle, nullptr), SLP_PARAMETER_BAD);
    EXPECT_EQ(SLPAssociateIFList(handle, nullptr), SLP_PARAMETER_BAD);

    Answers answers;
    const auto find = [&](const char* service, SLPAttrCallback callback, const sockaddr* to,
                          unsigned version) {
        return SLPFindAttrs(handle, service, nullptr, nullptr, callback, &answers, to, version);
    };
    const Endpoint good("127.0.0.1", 427);
    sockaddr unknown{};
    const auto callback = Answers::Callback;
    EXPECT_EQ(find(nullptr, callback, good.get(), 2), SLP_PARAMETER_BAD);
    EXPECT_EQ(find("", callback, good.get(), 2), SLP_PARAMETER_BAD);
    EXPECT_EQ(find(kService, nullptr, good.get(), 2), SLP_PARAMETER_BAD);
    EXPECT_EQ(find(kService, callback, &unknown, 2), SLP_PARAMETER_BAD);
    EXPECT_EQ(find(kService, callback, Endpoint("255.255.255.255", 0).get(), 2), SLP_PARAMETER_BAD);
    EXPECT_EQ(find(kService, callback, good.get(), 0), SLP_PARAMETER_BAD);
    EXPECT_EQ(find(kService, callback, good.get(), 3), SLP_PARAMETER_BAD);
    EXPECT_EQ(find(std::string(1400, 's').c_str(), callback, good.get(), 2), SLP_PARAMETER_BAD);
    EXPECT_EQ(find(std::string(70000, 's').c_str(), callback, good.get(), 2), SLP_PARAMETER_BAD);

    // An address of no interface here: nothing can be sent.
    EXPECT_EQ(SLPAssociateIFList(handle, "192.0.2.1"), SLP_OK);
    EXPECT_EQ(find(kService, callback, Endpoint(kGroup, 0).get(), 2), SLP_NETWORK_ERROR);
    EXPECT_EQ(SLPStopFind(handle), SLP_OK);
    SLPClose(handle);
    for (const SLPHandle closed : {handle, SLPHandle(nullptr), SLPHandle(&good)}) {
        handle = closed;
        EXPECT_EQ(find(kService, callback, good.get(), 2), SLP_PARAMETER_BAD);
        EXPECT_EQ(SLPStopFind(handle), SLP_PARAMETER_BAD);
        SLPClose(handle);
    }
    EXPECT_EQ(answers.lastCalls(), 0);

    EXPECT_EQ(SLPOpen("haw", SLP_FALSE, &handle), SLP_OK);  // no code of two letters
    EXPECT_EQ(find(kService, callback, good.get(), 1), SLP_LANGUAGE_NOT_SUPPORTED);
    SLPClose(handle);
}

// The program lets go of the DLL as soon as it has heard the last call, in which the handle was
// closed: the thread that made it still has to come home.
TEST(UserAgent, CanBeUnloadedAtOnce) {
    const Agent talker(
        Agent::Replying([](auto xid) { return std::vector{ListReply(2, xid, "a")}; }));
    for (int i = 0; i < 20; ++i) {
        const HMODULE library = LoadLibraryA(SLP64_DLL);
        ASSERT_NE(library, nullptr);
        const auto entry = [&]<typename F>(F*, const char* name) {
            return reinterpret_cast<F*>(reinterpret_cast<void*>(GetProcAddress(library, name)));
        };
        static decltype(SLPClose)* close;
        close = entry(SLPClose, "SLPClose");
        SLPHandle handle = nullptr;
        EXPECT_EQ(entry(SLPOpen, "SLPOpen")("en", SLP_TRUE, &handle), SLP_OK);
        Answers answers;
        answers.then = [](SLPHandle h, SLPError code) {
            if (code == SLP_LAST_CALL) {
                close(h);
            }
            return SLP_TRUE;
        };
        EXPECT_EQ(
            entry(SLPFindAttrs, "SLPFindAttrs")(handle, kService, nullptr, nullptr,
                                                Answers::Callback, &answers, talker.address(), 2),
            SLP_OK);
        answers.AwaitEnd();
        FreeLibrary(library);
        for (int wait = 0; wait < 250 && GetModuleHandleA("slp64.dll") != nullptr; ++wait) {
            Sleep(20);
        }
        EXPECT_EQ(GetModuleHandleA("slp64.dll"), nullptr);
    }
}

}  // namespace
