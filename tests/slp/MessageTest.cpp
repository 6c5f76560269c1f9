#include "slp/Message.h"

#include <gtest/gtest.h>

#include "slp/Limits.h"
#include "tests/slp/Replies.h"

using namespace slp;
using namespace std::string_literals;

namespace {

constexpr uint16_t kXid = 0xBEEF;

std::optional<AttributeReply> Decode(std::string_view message, unsigned version,
                                     Carrier carrier = Carrier::Datagram) {
    return DecodeReply(message, version, kXid, carrier);
}

// Laid out by hand beside RFC 2608, sections 8 and 10.3, and RFC 2165, sections 4 and 13.
TEST(Message, EncodesRequestsThatFitADatagram) {
    AttributeRequest request{2,         kXid,    "en", true, "10.0.0.1,10.0.0.2", "service:printer",
                             "DEFAULT", "ip,mac"};
    EXPECT_EQ(*Encode(request), "\x02\x06\0\0\x47\x20\0\0\0\0\xBE\xEF"s + Text("en") +
                                    Text("10.0.0.1,10.0.0.2") + Text("service:printer") +
                                    Text("DEFAULT") + Text("ip,mac") + "\0\0"s);
    const AttributeRequest one{1, kXid, "en", true, "10.0.0.1", "service:printer", "", ""};
    EXPECT_EQ(*Encode(one), "\x01\x06\0\x2b\0\0en\0\x6a\xBE\xEF"s + Text("10.0.0.1") +
                                Text("service:printer") + "\0\0\0\0"s);
    for (const size_t size : {kMaxRequest + 1, size_t{0x10000}}) {  // whose length would wrap
        request.service.assign(size, 's');
        EXPECT_FALSE(Encode(request));
    }
}

TEST(Message, LeavesOutTheRespondersThatDoNotFit) {
    for (const unsigned version : {1u, 2u}) {
        AttributeRequest request{version, kXid, "en", true, "", "service:printer", "DEFAULT", ""};
        const size_t room = kMaxRequest - Encode(request)->size();
        const std::string most(room - 9, '1');
        const auto encoded = [&](const std::string& responders) {
            request.responders = most + responders;
            const auto bytes = Encode(request);
            return std::string(bytes->substr(version == 1 ? 12 : 16));
        };
        const std::string rest =
            Text("service:printer") + Text("DEFAULT") + Text("") + (version == 2 ? Text("") : "");
        EXPECT_EQ(encoded(",10.0.0.1"), Text(most + ",10.0.0.1") + rest);
        EXPECT_EQ(encoded(",10.0.0.1,10.0.0.2"), Text(most + ",10.0.0.1") + rest);
        EXPECT_EQ(encoded(",10.0.0.10,10.0.0.2"), Text(most) + rest);
        EXPECT_EQ(encoded("1234567890"), Text("") + rest);  // one that never ends
    }
}

TEST(Message, DecodesReplies) {
    for (const unsigned version : {1u, 2u}) {
        SCOPED_TRACE(version);
        EXPECT_EQ(Decode(ListReply(version, kXid, "(a=1),b"), version)->attributes, "(a=1),b");
        EXPECT_EQ(Decode(ListReply(version, kXid, ""), version)->attributes, "");
        EXPECT_EQ(Decode(ErrorReply(version, kXid, 4), version)->error, 4u);

        const std::string cut = OverflowReply(version, kXid);
        EXPECT_TRUE(Decode(cut, version)->overflow);
        EXPECT_TRUE(Decode(cut.substr(0, cut.size() - 3), version)->overflow);
        EXPECT_FALSE(Decode(cut + "x", version));
        // Whoever sends a list by TCP and still marks it has sent it whole.
        EXPECT_EQ(Decode(cut, version, Carrier::Stream)->attributes, "(cut=off");
    }
    const std::string list = BigEndian(0, 2) + Text("(a=1)");
    EXPECT_EQ(Decode(Reply(1, kXid, list + "timestamp and a block", 0x10), 1)->attributes, "(a=1)");
}

TEST(Message, RefusesWhatIsNoReply) {
    const std::string list = BigEndian(0, 2) + Text("(a=1)");
    const std::string block = BigEndian(2, 2) + BigEndian(10, 2) + "abcdef";
    for (const unsigned version : {1u, 2u}) {
        SCOPED_TRACE(version);
        const std::string good =
            Reply(version, kXid, list + (version == 2 ? BigEndian(2, 1) + block + block : ""));
        EXPECT_EQ(Decode(good, version)->attributes, "(a=1)");
        for (size_t size = 0; size < good.size(); ++size) {
            EXPECT_FALSE(Decode(std::string(good, 0, size), version)) << size;
        }
        const std::string bad[] = {
            good + "x",
            ListReply(3 - version, kXid, "(a=1)"),
            ListReply(version, kXid + 1, "(a=1)"),
            Reply(version, kXid, AttributeBody(version, "(a=1)"), 0, 6),
            Reply(version, kXid, BigEndian(0, 2) + BigEndian(6 + 5, 2) + "(a=1)"),
            Reply(version, kXid, BigEndian(0, 2) + BigEndian(0xFFFF, 2) + "(a=1)"),
            Reply(version, kXid, BigEndian(0, 1)),
            ListReply(version, kXid, "(a=1\0)"s),
        };
        for (size_t i = 0; i < std::size(bad); ++i) {
            EXPECT_FALSE(Decode(bad[i], version)) << i;
        }
    }
    // No number of blocks, fewer than announced, shorter than its own head, longer than the rest.
    for (const auto& blocks : {""s, "\x01"s, "\x01\0\x02\0\x03"s, "\x01\0\x02\0\x0B"s + "abcdef"}) {
        EXPECT_FALSE(Decode(Reply(2, kXid, list + blocks), 2)) << blocks.size();
    }
}

TEST(Message, AStreamBringsOneMessageAndNoMore) {
    for (const unsigned version : {1u, 2u}) {
        const std::string message = ListReply(version, kXid, std::string(5000, 'a'));
        StreamMessage stream;
        const std::string sent = message + "and what a talkative agent adds";
        for (size_t at = 0; const size_t wanted = stream.Wanted();) {
            const size_t size = std::min<size_t>(wanted, 7);
            ASSERT_TRUE(stream.Add(std::string_view(sent).substr(at, size)));
            at += size;
        }
        EXPECT_EQ(stream.bytes(), message);
    }
    for (const auto& head : {"\x03\x07\0\x20\0"s, "\0\x07\0\x20\0"s, "\x01\x07\0\x05\0"s,
                             "\x02\x07\0\0\0"s, "\x02\x07\x01\0\x01"s, "\x02\x07\xFF\xFF\xFF"s}) {
        EXPECT_FALSE(StreamMessage().Add(head)) << testing::PrintToString(head);
    }
    StreamMessage longest;
    EXPECT_TRUE(longest.Add("\x02\x07\x01\0\0"s));
    EXPECT_EQ(longest.Wanted(), kMaxReply - 5);
}

}  // namespace
