#include "slp/Collector.h"

#include <gmock/gmock.h>

#include "tests/slp/Replies.h"

using namespace slp;
using testing::HasSubstr;
using testing::Not;
using Verdict = Collector::Verdict;

namespace {

constexpr uint16_t kXid = 7;

TEST(Collector, ReportsEachAgentOnce) {
    Collector heard(2, kXid);
    const std::string list = ListReply(2, kXid, "(a=1)");
    EXPECT_EQ(heard.TakeDatagram({"10.0.0.1"}, ListReply(2, kXid + 1, "(a=1)")).verdict,
              Verdict::Ignored);
    EXPECT_EQ(heard.responders(), "");
    EXPECT_EQ(heard.TakeDatagram({"10.0.0.1"}, list).attributes, "(a=1)");
    EXPECT_EQ(heard.TakeDatagram({"10.0.0.1"}, list).verdict, Verdict::Ignored);
    EXPECT_EQ(heard.TakeDatagram({"10.0.0.2"}, OverflowReply(2, kXid)).verdict, Verdict::Overflow);
    EXPECT_EQ(heard.TakeDatagram({"10.0.0.2"}, OverflowReply(2, kXid)).verdict, Verdict::Ignored);
    EXPECT_EQ(heard.TakeFetched("10.0.0.2", list), "(a=1)");
    EXPECT_EQ(heard.TakeDatagram({"10.0.0.2"}, list).verdict, Verdict::Ignored);
    EXPECT_FALSE(heard.TakeFetched("10.0.0.2", list));
    EXPECT_FALSE(heard.TakeFetched("10.0.0.3", ErrorReply(2, kXid, 1)));
    EXPECT_FALSE(heard.TakeFetched("10.0.0.3", ListReply(2, kXid + 1, "(a=1)")));
    EXPECT_EQ(heard.responders(), "10.0.0.1,10.0.0.2");
}

// Whatever a host sends in an agent's name first, the agent's own answer is reported.
TEST(Collector, AForgedReplyDoesNotHideTheAgentsOwn) {
    const std::string own = ListReply(2, kXid, "(a=1)");
    const std::string longOwn = OverflowReply(2, kXid);
    for (const std::string& forged :
         {ListReply(2, kXid, "(a=2)"), ListReply(2, kXid, ""), longOwn, ErrorReply(2, kXid, 6)}) {
        Collector heard(2, kXid);
        EXPECT_NE(heard.TakeDatagram({"10.0.0.1"}, forged).verdict, Verdict::Ignored);
        EXPECT_EQ(heard.TakeDatagram({"10.0.0.1"}, own).attributes, "(a=1)");
        EXPECT_EQ(heard.TakeDatagram({"10.0.0.1"}, longOwn).verdict,
                  forged == longOwn ? Verdict::Ignored : Verdict::Overflow);
        EXPECT_EQ(heard.TakeFetched("10.0.0.1", ListReply(2, kXid, "(b=1)")), "(b=1)");
        EXPECT_EQ(heard.responders(), "10.0.0.1");
    }
}

TEST(Collector, AsksAgainUntilNobodyIsNew) {
    const struct {
        // What each brings: '.' nothing new, 'n' a new agent, 'c' another list from the first one,
        // 'o' a new agent whose list has to be fetched, 'f' that list, 'e' an error.
        std::string rounds;
        int milliseconds;
    } cases[] = {{"....", 3500}, {"n.", 1000},   {".n.", 2000},  {"..n.", 3500}, {"...n", 3500},
                 {"nn.", 2000},  {"nnnn", 3500}, {"e...", 3500}, {"en.", 2000},  {"nc", 1000},
                 {"o...", 3500}, {"of", 1000},   {"no.", 2000}};
    const std::string list = ListReply(2, kXid, "(a=1)");
    for (const auto& c : cases) {
        Collector heard(2, kXid);
        std::chrono::milliseconds spent{};
        for (size_t i = 0; i < c.rounds.size(); ++i) {
            const std::string agent = "10.0.0." + std::to_string(i);
            if (c.rounds[i] == 'n') {
                heard.TakeDatagram({agent}, list);
            }
            if (c.rounds[i] == 'c') {
                heard.TakeDatagram({"10.0.0.0"}, ListReply(2, kXid, "(a=2)"));
            }
            if (c.rounds[i] == 'o') {
                heard.TakeDatagram({agent}, OverflowReply(2, kXid));
            }
            if (c.rounds[i] == 'f') {
                heard.TakeFetched("10.0.0.0", list);
            }
            if (c.rounds[i] == 'e') {
                heard.TakeDatagram({agent}, ErrorReply(2, kXid, 1));
            }
            if (i > 0 && c.rounds[0] == 'n') {
                heard.TakeDatagram({"10.0.0.0"}, list);  // the first one, once more
            }
            spent += heard.WaitingTime();
            EXPECT_EQ(heard.NextRound(), i + 1 < c.rounds.size()) << c.rounds << ' ' << i;
        }
        EXPECT_EQ(spent.count(), c.milliseconds) << c.rounds;
    }
}

struct Reported {
    size_t lists = 0;
    size_t bytes = 0;
};

// Sends so many answers, each from an address of its own; returns what was reported.
Reported Flood(Collector& heard, const std::string& agents, size_t count,
               const std::string& reply) {
    Reported reported;
    for (size_t i = 0; i < count; ++i) {
        const auto answer = heard.TakeDatagram({agents + std::to_string(i)}, reply);
        reported.lists += answer.verdict == Verdict::Attributes;
        reported.bytes += answer.attributes.size();
    }
    return reported;
}

std::string ListOf(size_t size) {
    return ListReply(2, kXid, std::string(size, 'x'));
}

TEST(Collector, LimitsWhatItReports) {
    Collector small(2, kXid);
    EXPECT_EQ(Flood(small, "a", 20000, ListOf(5)).lists, 2048u);
    EXPECT_LT(small.responders().size(), kMaxRequest + 100);

    Collector middle(2, kXid);
    EXPECT_EQ(Flood(middle, "a", 20000, ListOf(8192)).bytes, 4u << 20);

    // Giants leave 3 MiB to ordinary printers, and what no longer fits takes nobody's place.
    Collector large(2, kXid);
    const size_t giants = Flood(large, "giant", 1000, ListOf(8193)).bytes;
    EXPECT_LE(giants, 1u << 20);
    EXPECT_GT(giants, (1u << 20) - 8193);
    EXPECT_THAT(large.responders(), Not(HasSubstr("giant130"))) << "it was not reported";
    EXPECT_EQ(Flood(large, "a", 500, ListOf(6000)).lists, 500u);
    EXPECT_EQ(large.TakeFetched("long", ListOf(60000)), std::nullopt);
    EXPECT_EQ(Flood(large, "b", 1, ListOf(1000)).lists, 1u);
}

TEST(Collector, LimitsTheListsOfOneAgent) {
    Collector heard(2, kXid);
    size_t lists = 0;
    for (int i = 0; i < 3000; ++i) {
        const std::string list = ListReply(2, kXid, std::to_string(i));
        lists += heard.TakeDatagram({"10.0.0.1"}, list).verdict == Verdict::Attributes;
        lists += heard.TakeFetched("10.0.0.1", list).has_value();
    }
    EXPECT_EQ(lists, 8u);
    EXPECT_EQ(Flood(heard, "a", 500, ListOf(2000)).lists, 500u);
}

// An error costs a host nothing to forge: 20,000 of them must not use up the limits. An agent that
// answered "busy" may send its list later.
TEST(Collector, ErrorsAndAnswersAboveTheLimitsKeepNobodyOut) {
    Collector heard(2, kXid);
    Flood(heard, "error", 20000, ErrorReply(2, kXid, 6));
    Flood(heard, "long", 20000, OverflowReply(2, kXid));
    EXPECT_EQ(Flood(heard, "a", 500, ListOf(2000)).lists, 500u);
    EXPECT_EQ(heard.TakeDatagram({"busy"}, ErrorReply(2, kXid, 6)).verdict, Verdict::Refused);
    EXPECT_EQ(heard.TakeDatagram({"busy"}, ListOf(9)).verdict, Verdict::Attributes);
    EXPECT_THAT(heard.responders(), Not(HasSubstr("error")));
}

TEST(Collector, LimitsWhatItFetches) {
    Collector heard(2, kXid);
    size_t fetches[2] = {};
    for (const bool remote : {true, false}) {
        for (int i = 0; i < 1000; ++i) {
            const std::string agent = std::to_string(i) + (remote ? "r" : "l");
            fetches[remote] +=
                heard.TakeDatagram({agent, remote}, OverflowReply(2, kXid)).verdict ==
                Verdict::Overflow;
        }
    }
    EXPECT_EQ(fetches[true], 64u);
    EXPECT_EQ(fetches[true] + fetches[false], 512u);
}

}  // namespace
