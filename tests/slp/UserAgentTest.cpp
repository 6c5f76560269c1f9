// The C interface with agents on loopback, and what hostile ones among them can do. Lists by TCP,
// and many agents at once, are tested on a network: PopulationTest.cpp.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <thread>

#include "base/Handles.h"
#include "slp/Limits.h"
#include "slp/Slp.h"
#include "slp/Sockets.h"
#include "tests/slp/Caller.h"
#include "tests/slp/Replies.h"
#include "tests/support/HandleCount.h"
#include "tests/support/ScarceMemory.h"
#include "tests/support/SocketsStarted.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;

constexpr char kService[] = "service:printer";
constexpr char kHere[] = "127.0.0.1";
constexpr char kAnyHost[] = "0.0.0.0";

const SocketsStarted sockets;  // for the agents; the library has its own reference

uint16_t XidOf(std::string_view request) {
    return static_cast<uint16_t>(static_cast<unsigned char>(request[10]) << 8 |
                                 static_cast<unsigned char>(request[11]));
}

// Hears every datagram that comes to an address of this machine, or to the group on its loopback
// interface, and answers each with what the test makes of it.
class Agent {
  public:
    using Replies = std::function<std::vector<std::string>(const std::string& request)>;

    explicit Agent(Replies replies, const std::string& host = kHere)
        : replies_(std::move(replies)),
          here_(host.find(':') != host.npos ? host : kHere, 0),
          socket_(socket(here_.storage.ss_family, SOCK_DGRAM, 0)) {
        const Endpoint bound(host == kGroup ? kAnyHost : host, 0);
        EXPECT_EQ(bind(socket_, bound.get(), bound.size()), 0) << WSAGetLastError();
        sockaddr_in6 name{};
        int size = sizeof name;
        getsockname(socket_, reinterpret_cast<sockaddr*>(&name), &size);
        port = ntohs(name.sin6_port);  // at the same place in both families
        here_ = Endpoint(host.find(':') != host.npos ? host : kHere, port);
        ip_mreq group{};
        inet_pton(AF_INET, kGroup, &group.imr_multiaddr);
        inet_pton(AF_INET, kHere, &group.imr_interface);
        if (host == kGroup) {
            EXPECT_EQ(setsockopt(socket_, IPPROTO_IP, IP_ADD_MEMBERSHIP,
                                 reinterpret_cast<const char*>(&group), sizeof group),
                      0);
        }
        thread_ = std::thread([this] { Serve(); });
    }
    ~Agent() { Finish(); }

    // A list for every request.
    static std::vector<std::string> Talk(const std::string& request) {
        return {ListReply(2, XidOf(request), "a")};
    }
    static std::vector<std::string> Silence(const std::string&) { return {}; }

    // Stops listening; returns all that was heard.
    std::vector<std::string> Finish() {
        if (thread_.joinable()) {
            ending_ = true;
            const SOCKET waker = socket(here_.storage.ss_family, SOCK_DGRAM, 0);
            sendto(waker, "", 0, 0, here_.get(), here_.size());
            closesocket(waker);
            thread_.join();
            closesocket(socket_);
        }
        return requests_;
    }
    const sockaddr* address() const { return here_.get(); }

    unsigned short port = 0;

  private:
    void Serve() {
        for (;;) {
            char buffer[2000];
            sockaddr_storage from;
            int fromSize = sizeof from;
            auto* const asker = reinterpret_cast<sockaddr*>(&from);
            const int size = recvfrom(socket_, buffer, sizeof buffer, 0, asker, &fromSize);
            if (ending_) {
                return;
            }
            if (size > 12) {
                requests_.emplace_back(buffer, static_cast<size_t>(size));
                for (const std::string& reply : replies_(requests_.back())) {
                    sendto(socket_, reply.data(), static_cast<int>(reply.size()), 0, asker,
                           fromSize);
                }
            }
        }
    }

    const Replies replies_;
    Endpoint here_;
    const SOCKET socket_;
    std::vector<std::string> requests_;
    std::atomic<bool> ending_ = false;
    std::thread thread_;
};

// A function of the DLL, which this program has by the same name of its own.
template <typename F>
F* Entry(HMODULE library, F*, const char* name) {
    return reinterpret_cast<F*>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

TEST(Sockets, SubnetsAreToldApartByTheirPrefix) {
    const struct {
        const char *a, *b;
        unsigned prefixBits;
        bool same;
    } cases[] = {
        {"10.77.1.1", "10.77.2.1", 22, true},
        {"10.77.1.1", "10.77.4.1", 22, false},
        {"10.77.1.1", "11.0.0.0", 7, true},
        {"10.77.1.1", "12.0.0.0", 7, false},
        {"10.77.1.1", "10.77.1.1", 255, true},
        {"10.77.1.1", "10.77.1.0", 255, false},
        {"10.77.1.1", "200.0.0.1", 0, true},
        {"fd77::1", "fd77::ffff", 64, true},
        {"fd77::1", "fd77:0:0:1::1", 64, false},
        {"fd77::1", "fd77::2", 128, false},
        {"::", "0.0.0.0", 0, false},
    };
    for (const auto& c : cases) {
        const auto a = slp::Address::From(Endpoint(c.a, 1).get());
        const auto b = slp::Address::From(Endpoint(c.b, 2).get());
        EXPECT_EQ(a->SameSubnet(*b, c.prefixBits), c.same) << c.b << '/' << c.prefixBits;
    }
}

// By the handle's own address where it has one, whatever the call says.
TEST(UserAgent, AsksOneAgentInBothVersionsAndFamilies) {
    const Endpoint nobody("127.0.0.9", 9);
    for (const unsigned version : {1u, 2u}) {
        for (const char* host : {kHere, "::1"}) {
            SCOPED_TRACE(testing::Message() << version << ' ' << host);
            Agent agent(
                [version](const std::string& request) {
                    return std::vector{ListReply(version, XidOf(request), "(ip=10.0.0.1)")};
                },
                host);
            const SLPHandle handle = Open(SLP_FALSE);
            if (version == 2) {
                EXPECT_EQ(SLPSetUnicastIP(handle, agent.address()), SLP_OK);
            }
            Answers answers;
            EXPECT_EQ(Find(handle, answers, version == 2 ? nobody.get() : agent.address(), version),
                      SLP_OK);
            SLPClose(handle);
            EXPECT_THAT(answers.lists(), ElementsAre("(ip=10.0.0.1)"));
            EXPECT_EQ(answers.lastCalls(), 1);
            EXPECT_EQ(answers.thread(), GetCurrentThreadId());
            const std::string request = agent.Finish().at(0);
            const std::string scopes = version == 2 ? Text("DEFAULT") : Text("");
            EXPECT_EQ(
                request.substr(version == 2 ? 16 : 12),
                Text("") + Text(kService) + scopes + Text("") + (version == 2 ? Text("") : ""));
            EXPECT_EQ(request[version == 2 ? 5 : 4], 0);  // it did not come by multicast
        }
    }
}

TEST(UserAgent, TellsItsAgentsAnswerFromWhatIsNone) {
    const auto noisy = [](const std::string& request) {
        std::vector<std::string> replies;
        for (unsigned i = 1; i <= 400; ++i) {
            replies.emplace_back(1000, 'x');
            replies.push_back(
                ListReply(2, static_cast<uint16_t>(XidOf(request) + i), "(ip=6.6.6.6)"));
        }
        replies.push_back(ListReply(2, XidOf(request), "a"));
        return replies;
    };
    const auto refusing = [](const std::string& request) {
        return std::vector{ErrorReply(2, XidOf(request), 4)};
    };
    const struct {
        const char* what;
        Agent::Replies replies;
        const char *host, *asked;
        size_t lists;
        bool allRounds;
    } cases[] = {
        {"behind a heap of noise", noisy, kHere, kHere, 1, false},
        {"an error, which is the end", refusing, kHere, kHere, 0, false},
        // This machine answers from 127.0.0.1, whatever loopback address was asked.
        {"a stranger alone", Agent::Talk, kAnyHost, "127.0.0.5", 0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Agent agent(c.replies, c.host);
        Answers answers;
        const SLPHandle handle = Open(SLP_FALSE);
        const auto begin = steady_clock::now();
        EXPECT_EQ(Find(handle, answers, Endpoint(c.asked, agent.port).get()), SLP_OK);
        const auto took = steady_clock::now() - begin;
        SLPClose(handle);
        EXPECT_EQ(answers.lists().size(), c.lists);
        if (c.allRounds) {
            EXPECT_GE(took, milliseconds(3400));
            EXPECT_EQ(agent.Finish().size(), 4u);
        } else {
            EXPECT_LT(agent.Finish().size(), 4u) << "it was asked again after its answer";
        }
    }
}

// Stays on the loopback interface.
TEST(UserAgent, AsksAGroupOnceMoreWithWhoHasAnswered) {
    Agent agent(
        [](const std::string& request) { return std::vector(3, Agent::Talk(request).front()); },
        kGroup);
    const SLPHandle handle = Open(SLP_FALSE);
    EXPECT_EQ(SLPAssociateIFList(handle, kHere), SLP_OK);
    Answers answers;
    EXPECT_EQ(Find(handle, answers, Endpoint(kGroup, agent.port).get()), SLP_OK);
    SLPClose(handle);
    EXPECT_THAT(answers.lists(), ElementsAre("a"));
    const auto requests = agent.Finish();
    ASSERT_EQ(requests.size(), 2u);
    const std::string rest = Text(kService) + Text("DEFAULT") + Text("") + Text("");
    EXPECT_EQ(requests[0].substr(16), Text("") + rest);
    EXPECT_EQ(requests[1].substr(16), Text(kHere) + rest);
    EXPECT_EQ(requests[0][5], 0x20);
    EXPECT_EQ(XidOf(requests[0]), XidOf(requests[1]));
}

// Of several answers that wait to be read, none is reported once the callback has declined more or
// the time of the request is over; the callback's own time counts.
TEST(UserAgent, ReportsNothingAfterItsEnd) {
    Agent agent(
        [](const std::string& request) {
            std::vector<std::string> replies;
            for (const char* list : {"a", "b", "c"}) {
                replies.push_back(ListReply(2, XidOf(request), list));
            }
            return replies;
        },
        kGroup);
    for (const bool declines : {true, false}) {
        SCOPED_TRACE(declines);
        const SLPHandle handle = Open(SLP_FALSE);
        EXPECT_EQ(SLPAssociateIFList(handle, kHere), SLP_OK);
        Answers answers;
        answers.then = [declines](SLPHandle, SLPError code) {
            if (code == SLP_OK && !declines) {
                std::this_thread::sleep_for(slp::kMaxTime);
            }
            return declines ? SLP_FALSE : SLP_TRUE;
        };
        EXPECT_EQ(Find(handle, answers, Endpoint(kGroup, agent.port).get()), SLP_OK);
        SLPClose(handle);
        EXPECT_THAT(answers.lists(), ElementsAre("a"));
        EXPECT_EQ(answers.lastCalls(), 1);
    }
}

// However a request is ended, it ends promptly, with one last call, and leaves no thread and no
// handle behind.
class EndedRequest : public testing::Test {
  protected:
    using Act = SLPBoolean(SLPHandle, SLPError);

    void TearDown() override {
        // A thread that closed its own handle has just a few steps left to go.
        for (int i = 0; i < 100 && CountThreads() != threads; ++i) {
            Sleep(20);
        }
        EXPECT_EQ(CountThreads(), threads);
        EXPECT_LE(CountHandles(), handles + 2);  // what the system keeps for its threads varies
    }
    void ExpectEnd(const char* how, Act* act, bool outside) {
        for (const SLPBoolean async : {SLP_TRUE, SLP_FALSE}) {
            SCOPED_TRACE(testing::Message() << how << ", asynchronous: " << async);
            const SLPHandle handle = Open(async);
            Answers answers;
            answers.then = outside ? nullptr : act;
            Agent silent([&](const std::string& request) {
                act(handle, SLP_OK);
                return Agent::Silence(request);
            });
            EXPECT_EQ(Find(handle, answers, (outside ? silent : talker).address()), SLP_OK);
            answers.AwaitEnd();
            EXPECT_LT(silent.Finish().size(), slp::kWaitingTimes.size());
            SLPClose(handle);
            EXPECT_EQ(answers.lastCalls(), 1);
            EXPECT_EQ(answers.lists().size(), outside ? 0u : 1u);
            if (threads == 0) {  // from here on the system has started what it starts for itself
                threads = CountThreads();
                handles = CountHandles();
            }
        }
    }
    static SLPBoolean Stop(SLPHandle handle, SLPError) { return SLPStopFind(handle) == SLP_OK; }
    static SLPBoolean Close(SLPHandle handle, SLPError) {
        SLPClose(handle);
        return SLP_TRUE;
    }
    static SLPBoolean CloseLast(SLPHandle handle, SLPError code) {
        return code != SLP_LAST_CALL || Close(handle, code);
    }
    static SLPBoolean WantNoMore(SLPHandle, SLPError) { return SLP_FALSE; }

    const Agent talker{Agent::Talk};
    size_t threads = 0, handles = 0;
};

TEST_F(EndedRequest, EndsWhenAnotherThreadSaysSo) {
    ExpectEnd("stopped", Stop, true);
    ExpectEnd("closed", Close, true);
}

TEST_F(EndedRequest, EndsWhenItsCallbackSaysSo) {
    ExpectEnd("stopped", Stop, false);
    ExpectEnd("closed", Close, false);
    ExpectEnd("closed in the last call", CloseLast, false);
    ExpectEnd("no more wanted", WantNoMore, false);
}

TEST(UserAgent, OneRequestAtATimeOnAHandleAndManyHandlesAtOnce) {
    const Agent silent(Agent::Silence), talker(Agent::Talk);
    const size_t threads = CountThreads();
    constexpr int kHandles = 20;
    SLPHandle handles[kHandles];
    std::vector<Answers> answers(kHandles);
    for (int i = 0; i < kHandles; ++i) {
        handles[i] = Open(SLP_TRUE);
        EXPECT_EQ(Find(handles[i], answers[i], silent.address()), SLP_OK);
        EXPECT_EQ(Find(handles[i], answers[i], talker.address()), SLP_HANDLE_IN_USE);
        EXPECT_EQ(answers[i].lastCalls(), 0);
    }
    EXPECT_EQ(CountThreads(), threads + kHandles);

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
    EXPECT_EQ(CountThreads(), threads);
}

TEST(UserAgent, RefusesWrongSettings) {
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
    EXPECT_EQ(SLPSetUnicastIP(handle, nullptr), SLP_PARAMETER_BAD);
    const char* const none = nullptr;
    for (const char* list :
         {none, "", " ", "127.0.0.1,", "127.0.0.1,,::1", "localhost", "127.1", "::1%1"}) {
        EXPECT_EQ(SLPAssociateIFList(handle, list), SLP_PARAMETER_BAD);
    }
    SLPClose(handle);
}

TEST(UserAgent, RefusesWrongRequests) {
    SLPHandle handle = nullptr;
    EXPECT_EQ(SLPOpen("en-US", SLP_FALSE, &handle), SLP_OK);
    EXPECT_EQ(SLPAssociateIFList(handle, " 127.0.0.1 ,::1"), SLP_OK);
    Answers answers;
    const Endpoint good(kHere, 427), broadcast("255.255.255.255", 0), group(kGroup, 0);
    Endpoint unknown = good;
    unknown.storage.ss_family = 0;
    for (const auto& service : {std::string(), std::string(1400, 's'), std::string(70000, 's')}) {
        EXPECT_EQ(Find(handle, answers, good.get(), 2, service.c_str()), SLP_PARAMETER_BAD);
    }
    EXPECT_EQ(Find(handle, answers, good.get(), 2, nullptr), SLP_PARAMETER_BAD);
    EXPECT_EQ(Find(handle, answers, unknown.get()), SLP_PARAMETER_BAD);
    EXPECT_EQ(Find(handle, answers, broadcast.get()), SLP_PARAMETER_BAD);
    EXPECT_EQ(Find(handle, answers, good.get(), 0), SLP_PARAMETER_BAD);
    EXPECT_EQ(Find(handle, answers, good.get(), 3), SLP_PARAMETER_BAD);
    EXPECT_EQ(SLPFindAttrs(handle, kService, nullptr, nullptr, nullptr, &answers, good.get(), 2),
              SLP_PARAMETER_BAD);

    // An address of no interface here: nothing can be sent. Version 1 leaves the country out.
    EXPECT_EQ(SLPAssociateIFList(handle, "192.0.2.1"), SLP_OK);
    EXPECT_EQ(Find(handle, answers, group.get(), 1), SLP_NETWORK_ERROR);
    EXPECT_EQ(Find(handle, answers, group.get(), 2), SLP_NETWORK_ERROR);
    EXPECT_EQ(SLPStopFind(handle), SLP_OK);
    SLPClose(handle);
    EXPECT_EQ(SLPOpen("haw", SLP_FALSE, &handle), SLP_OK);  // no code of two letters
    EXPECT_EQ(Find(handle, answers, good.get(), 1), SLP_LANGUAGE_NOT_SUPPORTED);
    SLPClose(handle);
    EXPECT_EQ(answers.lastCalls(), 0);
}

TEST(UserAgent, RefusesWhatIsNoHandle) {
    SLPHandle handle = Open(SLP_FALSE);
    SLPClose(handle);
    Answers answers;
    for (const SLPHandle wrong : {handle, SLPHandle(nullptr), SLPHandle(&handle)}) {
        EXPECT_EQ(Find(wrong, answers, Endpoint(kHere, 427).get()), SLP_PARAMETER_BAD);
        EXPECT_EQ(SLPStopFind(wrong), SLP_PARAMETER_BAD);
        SLPClose(wrong);
    }
    EXPECT_EQ(answers.lastCalls(), 0);
}

// Each time on a thread of its own, because a thread has its first exception only once.
TEST(UserAgent, MemoryMayRunOutAtAnyStep) {
    const std::string list = "(" + std::string(1000, 'x') + ")";
    Agent agent([&](const std::string& request) {
        return std::vector{ListReply(2, XidOf(request), list)};
    });
    const UniqueLibrary library(LoadLibraryA(SLP64_DLL));
    ASSERT_TRUE(library);
    const auto open = Entry(library.Get(), SLPOpen, "SLPOpen");
    const auto find = Entry(library.Get(), SLPFindAttrs, "SLPFindAttrs");
    const auto close = Entry(library.Get(), SLPClose, "SLPClose");
    static size_t found;
    found = 0;
    const auto callback = [](SLPHandle, const char* text, SLPError, void*) -> SLPBoolean {
        found = text != nullptr ? strlen(text) : found;
        return SLP_TRUE;
    };
    const ScarceMemory memory(library.Get());
    SLPError code = SLP_MEMORY_ALLOC_FAILED;
    size_t held = 0;
    size_t tries = 0;
    for (; code != SLP_OK && !HasFailure(); ++tries) {
        std::thread([&] {
            const ScarceMemory::Limit limit(34'000 + 300 * tries);
            SLPHandle handle = nullptr;
            code = open("en", SLP_FALSE, &handle);
            if (code == SLP_OK) {
                code =
                    find(handle, kService, nullptr, nullptr, callback, nullptr, agent.address(), 2);
                close(handle);
            }
            held = code == SLP_OK || tries == 0 ? 0 : limit.Held();
        }).join();
        EXPECT_LT(held, ScarceMemory::kOfThread);
    }
    EXPECT_GT(tries, 10u);
    EXPECT_EQ(found, list.size());
}

// A caller that runs out of memory can still end its request.
TEST(UserAgent, CanBeStoppedWithoutMemory) {
    const UniqueLibrary library(LoadLibraryA(SLP64_DLL));
    ASSERT_TRUE(library);
    SLPHandle handle = nullptr;
    ASSERT_EQ(Entry(library.Get(), SLPOpen, "SLPOpen")("en", SLP_FALSE, &handle), SLP_OK);
    {
        const ScarceMemory memory(library.Get());
        const ImportPatch none(
            library.Get(), "GlobalAlloc", +[](UINT, SIZE_T) -> HGLOBAL { return nullptr; });
        const ScarceMemory::Limit limit(0);
        EXPECT_EQ(Entry(library.Get(), SLPAssociateIFList, "SLPAssociateIFList")(handle, kHere),
                  SLP_MEMORY_ALLOC_FAILED);
        EXPECT_EQ(Entry(library.Get(), SLPStopFind, "SLPStopFind")(handle), SLP_OK);
    }
    Entry(library.Get(), SLPClose, "SLPClose")(handle);
}

// The program lets go of the DLL as soon as it has heard the last call, in which the handle was
// closed: the thread that made it still has to come home.
TEST(UserAgent, CanBeUnloadedAtOnce) {
    const Agent talker(Agent::Talk);
    for (int i = 0; i < 20; ++i) {
        const HMODULE library = LoadLibraryA(SLP64_DLL);
        ASSERT_NE(library, nullptr);
        static decltype(SLPClose)* close;
        close = Entry(library, SLPClose, "SLPClose");
        SLPHandle handle = nullptr;
        EXPECT_EQ(Entry(library, SLPOpen, "SLPOpen")("en", SLP_TRUE, &handle), SLP_OK);
        Answers answers;
        answers.then = [](SLPHandle h, SLPError code) {
            if (code == SLP_LAST_CALL) {
                close(h);
            }
            return SLP_TRUE;
        };
        EXPECT_EQ(Entry(library, SLPFindAttrs, "SLPFindAttrs")(handle, kService, nullptr, nullptr,
                                                               Answers::Callback, &answers,
                                                               talker.address(), 2),
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
