#include "slp/Collector.h"

#include <gtest/gtest.h>

#include "tests/slp/Replies.h"

using namespace slp;
using Verdict = Collector::Verdict;

namespace {

constexpr uint16_t kXid = 7;

TEST(Collector, ReportsEachAgentOnce) {
    Collector heard(2, kXid);
    const std::string list = ListReply(2, kXid, "(a=1)");
    EXPECT_EQ(heard.TakeDatagram("10.0.0.1", ListReply(2, kXid + 1, "(a=1)")).verdict,
              Verdict::Ignored);
    EXPECT_EQ(heard.responders(), "");
    EXPECT_EQ(heard.TakeDatagram("10.0.0.1", list).attributes, "(a=1)");
    EXPECT_EQ(heard.TakeDatagram("10.0.0.1", list).verdict, Verdict::Ignored);
    EXPECT_EQ(heard.TakeDatagram("10.0.0.1", OverflowReply(2, kXid)).verdict, Verdict::Ignored);
    EXPECT_EQ(heard.TakeDatagram("10.0.0.2", OverflowReply(2, kXid)).verdict, Verdict::Overflow);
    EXPECT_EQ(heard.TakeDatagram("10.0.0.2", list).verdict, Verdict::Ignored);
    EXPECT_EQ(heard.TakeFetched(list), "(a=1)");
    EXPECT_FALSE(heard.TakeFetched(ErrorReply(2, kXid, 1)));
    EXPECT_FALSE(heard.TakeFetched(ListReply(2, kXid + 1, "(a=1)")));
    // An agent that was busy, or that somebody spoke for, still gets its list in.
    EXPECT_EQ(heard.TakeDatagram("10.0.0.3", ErrorReply(2, kXid, 6)).verdict, Verdict::Refused);
    EXPECT_EQ(heard.TakeDatagram("10.0.0.3", ErrorReply(2, kXid, 6)).verdict, Verdict::Ignored);
    EXPECT_EQ(heard.TakeDatagram("10.0.0.3", list).verdict, Verdict::Attributes);
    EXPECT_EQ(heard.responders(), "10.0.0.1,10.0.0.2,10.0.0.3");
}

TEST(Collector, AsksAgainUntilNobodyIsNew) {
    const struct {
        std::string rounds;  // what each brings: '.' nothing new, 'n' a new agent, 'e' an error
        int milliseconds;
    } cases[] = {{"....", 3500}, {"n.", 1000},   {".n.", 2000},  {"..n.", 3500}, {"...n", 3500},
                 {"nn.", 2000},  {"nnnn", 3500}, {"e...", 3500}, {"en.", 2000}};
    const std::string list = ListReply(2, kXid, "(a=1)");
    for (const auto& c : cases) {
        Collector heard(2, kXid);
        std::chrono::milliseconds spent{};
        for (size_t i = 0; i < c.rounds.size(); ++i) {
            const std::string agent = "10.0.0." + std::to_string(i);
            if (c.rounds[i] == 'n') {
                heard.TakeDatagram(agent, list);
            }
            if (c.rounds[i] == 'e') {
                heard.TakeDatagram(agent, ErrorReply(2, kXid, 1));
            }
            if (i > 0 && c.rounds[0] == 'n') {
                heard.TakeDatagram("10.0.0.0", list);  // the first one, once more
            }
            spent += heard.WaitingTime();
            EXPECT_EQ(heard.NextRound(), i + 1 < c.rounds.size()) << c.rounds << ' ' << i;
        }
        EXPECT_EQ(spent.count(), c.milliseconds) << c.rounds;
    }
}

TEST(Collector, KeepsItsBoundsAndItsAgents) {
    Collector heard(2, kXid);
    const std::string list = ListReply(2, kXid, "(a=1)");
    size_t reported = 0;
    for (size_t i = 0; i < kMaxResponders + 100; ++i) {
        reported +=
            heard.TakeDatagram("agent" + std::to_string(i), list).verdict == Verdict::Attributes;
    }
    EXPECT_EQ(reported, kMaxResponders);
    EXPECT_LT(heard.responders().size(), kMaxRequest + 100);
    EXPECT_EQ(heard.TakeDatagram("agent0", list).verdict, Verdict::Ignored);

    Collector greedy(2, kXid);
    const std::string longList = ListReply(2, kXid, std::string(60000, 'x'));
    size_t bytes = 0;
    for (int i = 0; i < 1000; ++i) {
        bytes += greedy.TakeDatagram(std::to_string(i), longList).attributes.size();
    }
    EXPECT_LE(bytes, kMaxReported);
    EXPECT_GT(bytes, kMaxReported - 60000);
    // What is left is still there for those who ask for little.
    EXPECT_EQ(greedy.TakeDatagram("honest", list).verdict, Verdict::Attributes);
}

}  // namespace
