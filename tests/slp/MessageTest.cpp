#include "slp/Message.h"

#include <gtest/gtest.h>

#include "slp/Limits.h"
#include "tests/slp/Replies.h"

using namespace slp;

namespace {

constexpr uint16_t kXid = 0xBEEF;

std::string Hex(std::string_view bytes) {
    std::string hex;
    for (const unsigned char byte : bytes) {
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
    return hex;
}

std::optional<AttributeReply> Decode(std::string_view message, unsigned version,
                                     Carrier carrier = Carrier::Datagram) {
    return DecodeReply(message, version, kXid, carrier);
}

// Laid out by hand beside RFC 2608, sections 8 and 10.3, and RFC 2165, sections 4 and 13.
TEST(Message, EncodesRequests) {
    const AttributeRequest two{
        2, kXid, "en", true, "10.0.0.1,10.0.0.2", "service:printer", "DEFAULT", "ip,mac"};
    EXPECT_EQ(Hex(*Encode(two)),
              "02"
              "06"
              "000047"
              "2000"
              "000000"
              "beef"
              "0002"
              "656e"
              "0011"
              "31302e302e302e312c31302e302e302e32"
              "000f"
              "736572766963653a7072696e746572"
              "0007"
              "44454641554c54"
              "0006"
              "69702c6d6163"
              "0000");
    const AttributeRequest one{1, kXid, "en", true, "10.0.0.1", "service:printer", "", ""};
    EXPECT_EQ(Hex(*Encode(one)),
              "01"
              "06"
              "002b"
              "00"
              "00"
              "656e"
              "006a"
              "beef"
              "0008"
              "31302e302e302e31"
              "000f"
              "736572766963653a7072696e746572"
              "0000"
              "0000");
}

TEST(Message, EncodesNothingThatExceedsADatagram) {
    AttributeRequest request{2, kXid, "en", true, "", "service:printer", "DEFAULT", ""};
    request.responders.assign(kMaxRequest - Encode(request)->size(), '1');
    EXPECT_EQ(Encode(request)->size(), kMaxRequest);
    request.responders += '1';
    EXPECT_FALSE(Encode(request));
    request.responders.assign(0x10000, '1');  // whose length would wrap to nothing
    EXPECT_FALSE(Encode(request));
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
    const std::string block = BigEndian(2, 2) + BigEndian(10, 2) + "abcdef";
    EXPECT_EQ(Decode(Reply(2, kXid, list + BigEndian(2, 1) + block + block), 2)->attributes,
              "(a=1)");
    EXPECT_EQ(Decode(Reply(1, kXid, list + "timestamp and a block", 0x10), 1)->attributes, "(a=1)");
}

TEST(Message, RefusesWhatIsNoReply) {
    for (const unsigned version : {1u, 2u}) {
        SCOPED_TRACE(version);
        const std::string good = ListReply(version, kXid, "(a=1)");
        const std::string body = AttributeBody(version, "(a=1)");
        const std::string bad[] = {
            "",
            good + "x",
            ListReply(3 - version, kXid, "(a=1)"),
            ListReply(version, kXid + 1, "(a=1)"),
            Reply(version, kXid, body, 0, 6),
            Reply(version, kXid, BigEndian(0, 2) + BigEndian(6 + 5, 2) + "(a=1)"),
            Reply(version, kXid, BigEndian(0, 2) + BigEndian(0xFFFF, 2) + "(a=1)"),
            Reply(version, kXid, BigEndian(0, 1)),
            ListReply(version, kXid, std::string_view("(a=1\0)", 6)),
        };
        for (size_t i = 0; i < std::size(bad); ++i) {
            EXPECT_FALSE(Decode(bad[i], version)) << i;
        }
    }
    const std::string list = BigEndian(0, 2) + Text("(a=1)");
    const std::string blocks[] = {
        "",                                                   // not even their number
        BigEndian(1, 1),                                      // fewer than announced
        BigEndian(1, 1) + BigEndian(2, 2) + BigEndian(3, 2),  // shorter than its own head
        BigEndian(1, 1) + BigEndian(2, 2) + BigEndian(11, 2) + "abcdef",
    };
    for (const std::string& block : blocks) {
        EXPECT_FALSE(Decode(Reply(2, kXid, list + block), 2)) << Hex(block);
    }
}

// Whatever a single fault does to a good message: what is decoded lies inside it.
TEST(Message, SurvivesEveryTruncationAndEveryChangedByte) {
    for (const unsigned version : {1u, 2u}) {
        const std::string list = BigEndian(0, 2) + Text("(ip=10.0.0.1),(mac=0004004a1b2c)");
        const std::string block = BigEndian(2, 2) + BigEndian(10, 2) + "abcdef";
        const std::string good =
            Reply(version, kXid, list + (version == 2 ? BigEndian(1, 1) + block : ""));
        ASSERT_TRUE(Decode(good, version));
        for (size_t size = 0; size < good.size(); ++size) {
            EXPECT_FALSE(Decode(std::string(good, 0, size), version)) << size;
        }
        for (size_t at = 0; at < good.size(); ++at) {
            for (int value = 0; value < 256; ++value) {
                std::string changed = good;
                changed[at] = static_cast<char>(value);
                const auto reply = Decode(changed, version);
                if (!reply || reply->attributes.empty()) {
                    continue;
                }
                EXPECT_GE(reply->attributes.data(), changed.data());
                EXPECT_LE(reply->attributes.data() + reply->attributes.size(),
                          changed.data() + changed.size());
            }
        }
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
    const std::string hopeless[] = {
        std::string("\x03\x07\x00\x20\x00", 5), std::string("\x00\x07\x00\x20\x00", 5),
        std::string("\x01\x07\x00\x05\x00", 5), std::string("\x02\x07\x00\x00\x00", 5),
        std::string("\x02\x07\x01\x00\x01", 5), std::string("\x02\x07\xFF\xFF\xFF", 5),
    };
    for (const std::string& head : hopeless) {
        EXPECT_FALSE(StreamMessage().Add(head)) << Hex(head);
    }
    StreamMessage longest;
    EXPECT_TRUE(longest.Add(std::string("\x02\x07\x01\x00\x00", 5)));
    EXPECT_EQ(longest.Wanted(), kMaxReply - 5);
}

}  // namespace
