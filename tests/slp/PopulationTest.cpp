// The library against populations of service agents on a network of its own: population.sh makes
// both and runs this program in it. Each test asks for the service type that its agents offer.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <gmock/gmock.h>

#include <chrono>
#include <set>

#include "slp/Limits.h"
#include "slp/Slp.h"
#include "tests/slp/Caller.h"

namespace {

using std::chrono::steady_clock;

std::string Value(const std::string& list, const char* tag) {
    char* value = nullptr;
    EXPECT_EQ(SLPParseAttrs(list.c_str(), tag, &value), SLP_OK) << list.substr(0, 200);
    std::string copy = value != nullptr ? value : "";
    SLPFree(value);
    return copy;
}

struct Outcome {
    std::multiset<std::string> addresses;  // of those that answered
    std::vector<std::string> lists;
};

Outcome Ask(const char* service, unsigned version = 2, const sockaddr* to = nullptr,
            DWORD callbackTime = 0) {
    const SLPHandle handle = Open(SLP_FALSE);
    Answers answers;
    if (callbackTime != 0) {  // Sleep(0) would yield to other programs
        answers.then = [=](SLPHandle, SLPError) {
            Sleep(callbackTime);
            return SLP_TRUE;
        };
    }
    const auto begin = steady_clock::now();
    EXPECT_EQ(Find(handle, answers, to, version, service), SLP_OK);
    EXPECT_LT(steady_clock::now() - begin, slp::kMaxTime) << "the request did not end by itself";
    SLPClose(handle);
    EXPECT_EQ(answers.lastCalls(), 1);
    Outcome outcome{{}, answers.lists()};
    for (const std::string& list : outcome.lists) {
        outcome.addresses.insert(Value(list, "ip"));
    }
    return outcome;
}

// The addresses from `first` on: as many as there are agents, each once.
std::multiset<std::string> Agents(size_t count, unsigned first) {
    std::multiset<std::string> addresses;
    for (unsigned n = first; n < first + count; ++n) {
        addresses.insert("10.77." + std::to_string(n / 256) + '.' + std::to_string(n % 256));
    }
    return addresses;
}

TEST(Population, EachThatAnswersIsReportedOnce) {
    const struct {
        const char* service;
        size_t count;
        unsigned version;
        DWORD callbackTime;
        bool byTcp;
        unsigned first = 0x100;  // address, below 10.77
    } cases[] = {
        {"service:many", 500, 2, 0, false},
        {"service:old", 100, 1, 0, false},
        {"service:some", 60, 2, 20, false},  // a slow caller gets all answers
        // Ten agents answer at once, ten miss the first two sendings, and ten take their time.
        {"service:mixed", 30, 2, 0, false},
        {"service:long", 50, 2, 0, true},
        {"service:oldlong", 5, 1, 0, true},
        // Twice as many as are asked at a time take longer than one may while others wait.
        {"service:slow", 128, 2, 0, false},
        // More TCP servers than are asked at a time stall, drip, send without end, break off or
        // refuse. The honest agents are found all the same, and the request ends.
        {"service:hostile", 20, 2, 0, false, 0x4000},
    };
    for (const auto& c : cases) {
        const Outcome outcome = Ask(c.service, c.version, nullptr, c.callbackTime);
        EXPECT_EQ(outcome.addresses, Agents(c.count, c.first)) << c.service;
        for (const std::string& list : outcome.lists) {
            EXPECT_TRUE(!c.byTcp || Value(list, "end") == "here");
        }
    }
}

// One host answers as five thousand.
TEST(Population, ACrowdOfImpostorsIsBounded) {
    const Outcome outcome = Ask("service:crowd");
    EXPECT_GT(outcome.addresses.size(), 1000u);
    EXPECT_LE(outcome.lists.size(), slp::kMaxLists);
}

// Hosts that announce lists of 60 KB, refuse, or have their lists fetched from elsewhere are the
// first to answer. The office is found whole all the same.
TEST(Population, AnOfficeIsFoundBesideHostileHosts) {
    const Outcome outcome = Ask("service:office");
    constexpr size_t kOffice = 100;
    size_t found = 0;
    for (const std::string& address : Agents(kOffice, 0x100)) {
        found += outcome.addresses.count(address);
    }
    EXPECT_EQ(found, kOffice);
    EXPECT_LE(outcome.lists.size() - found, slp::kMaxReportedLarge / 60000);
}

TEST(Population, FewListsAreFetchedFromOtherSubnets) {
    const size_t remote = Ask("service:far").lists.size();
    EXPECT_GT(remote, 0u);
    EXPECT_LE(remote, slp::kMaxRemoteFetches);
    EXPECT_GT(Ask("service:near").lists.size(), slp::kMaxRemoteFetches);
}

TEST(Population, SixIsAskedByItsGroupAndByItsAddress) {
    const Endpoint group("ff02::116", 0);
    const Outcome all = Ask("service:six", 2, group.get());
    EXPECT_EQ(all.addresses.size(), 20u);
    EXPECT_EQ(all.addresses.count("fd77:0:0:1::14"), 1u);
    const Endpoint one("fd77:0:0:1::5", 0);
    EXPECT_THAT(Ask("service:six", 2, one.get()).addresses, testing::ElementsAre("fd77:0:0:1::5"));
    const Endpoint four("10.77.1.7", 0);
    EXPECT_THAT(Ask("service:many", 2, four.get()).addresses, testing::ElementsAre("10.77.1.7"));
}

// 512 agents send their lists when they are asked for the second time, after 0.6 s. Eight rounds
// of 64 fetches take longer than a request may.
TEST(Population, FetchesEndWithTheRequest) {
    const Outcome outcome = Ask("service:stalling");
    EXPECT_EQ(outcome.addresses.count("10.77.64.0"), 1u);
    EXPECT_LT(outcome.addresses.size(), slp::kMaxFetches);
}

}  // namespace
