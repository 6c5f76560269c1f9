#include "mdns/Message.h"

#include <gmock/gmock.h>

#include "mdns/Limits.h"
#include "tests/mdns/Messages.h"

using namespace mdns;
using namespace std::string_literals;

namespace {

constexpr uint16_t kId = 0xBEEF;
const std::string kEnd = Label("");
const std::string kAddress = "\x0A\x4D\x01\x07";

// The name of the only record of a response, or nothing if the response is malformed.
std::optional<std::string> NameIn(const std::string& bytes) {
    const auto records = ParseResponse(Response(kId, {RawRecord(bytes, 1, kAddress)}), kId);
    return records ? std::optional(records->at(0).name) : std::nullopt;
}

// Laid out by hand beside RFC 6762, section 18, and RFC 1035, section 4.1: a question, an answer
// whose names are compressed, an authority record of another type, an additional one of another
// class.
TEST(Message, ReadsTheRecordsOfAllSections) {
    const std::string message =
        "\xBE\xEF\x84\0\0\1\0\2\0\1\0\2"s                 // offset 0
        "\4_ipp\4_tcp\5local\0\0\x0C\x80\1"s              // 12: the question
        "\xC0\x0C\0\x0C\0\1\0\0\0\x0A\0\6\3Prn\xC0\x0C"s  // 33: Prn._ipp._tcp.local at 45
        "\xC0\x2D\0\x21\x80\1\0\0\0\x0A\0\x0C\0\1\0\2\2\x77\3prn\xC0\x16"s  // prn.local at 69
        "\xC0\x2D\0\x2F\0\1\0\0\0\x0A\0\2\0\0"s
        "\xC0\x45\0\1\0\1\0\0\0\x0A\0\4\x0A\x4D\1\7"s
        "\xC0\x45\0\1\0\3\0\0\0\x0A\0\1\7"s;
    const auto records = ParseResponse(message, kId);
    ASSERT_TRUE(records);
    ASSERT_EQ(records->size(), 3u);
    EXPECT_EQ(records->at(0).name, NameOf("_ipp._tcp.local"));
    EXPECT_EQ(records->at(0).data, NameOf("Prn._ipp._tcp.local"));
    EXPECT_EQ(records->at(1).type, Type::Srv);
    EXPECT_EQ(records->at(1).name, NameOf("Prn._ipp._tcp.local"));
    EXPECT_EQ(records->at(1).data, "\2\x77"s + NameOf("prn.local"));
    EXPECT_EQ(records->at(2).data, kAddress);
    for (size_t size = 0; size < message.size(); ++size) {
        EXPECT_FALSE(ParseResponse(message.substr(0, size), kId)) << size;
    }
    EXPECT_FALSE(ParseResponse(message, kId + 1));
    for (const char* flags : {"\x04\0", "\x8C\0", "\x84\3"}) {  // a query, an opcode, an error
        EXPECT_FALSE(ParseResponse(std::string(message).replace(2, 2, flags, 2), kId));
    }
}

// A name at offset 12, which is that of the first record.
TEST(Message, FollowsPointersBackwardsOnly) {
    EXPECT_EQ(NameIn("\3prn\5local\0"s), NameOf("prn.local"));
    const char* bad[] = {
        "\xC0\x0C",       // to itself
        "\3prn\xC0\x0C",  // to its own beginning
        "\3prn\xC0\x10",  // to the pointer
        "\3prn\xC0\x12",  // forwards
        "\xFF\xFF",       // behind the end
        "\x3Fprn",        // longer than the message
    };
    // A reserved kind of label, although as many bytes follow.
    EXPECT_FALSE(NameIn("\x40" + std::string(64, 'x') + kEnd));
    for (const char* name : bad) {
        EXPECT_FALSE(NameIn(name)) << testing::PrintToString(name);
    }
}

TEST(Message, LimitsNames) {
    const std::string label = Label(std::string(63, 'x'));
    const std::string longest = label + label + label + Label(std::string(61, 'x'));
    ASSERT_EQ(longest.size(), kMaxName);
    EXPECT_EQ(NameIn(longest + kEnd), longest);
    EXPECT_FALSE(NameIn(label + label + label + Label(std::string(62, 'x')) + kEnd));
    std::string most;
    for (int n = 0; n < 127; ++n) {
        most += Label("x");
    }
    EXPECT_EQ(NameIn(most + kEnd), most);
    EXPECT_FALSE(NameIn(most + Label("x") + kEnd));

    // Each pointer leads to the one before it. The first name is at offset 12, its end at 14.
    std::string chain = Label("x") + kEnd;
    std::string data;
    for (int n = 0; n < 200; ++n) {
        data += Number(0xC000 | (n == 0 ? 12 : 23 + 2 * n), 2);
    }
    const auto parse = [&](size_t pointers) {
        return ParseResponse(
            Response(kId, {RawRecord(chain, 99, data),
                           RawRecord(Number(0xC000 | (23 + 2 * pointers), 2), 1, kAddress)}),
            kId);
    };
    EXPECT_TRUE(parse(100));
    EXPECT_FALSE(parse(150));
}

TEST(Message, RefusesDataThatIsNotOfItsType) {
    const std::string name = NameOf("prn.local") + kEnd;
    const struct {
        unsigned type;
        std::string data;
        bool good;
    } cases[] = {
        {1, kAddress, true},
        {1, kAddress + "x", false},
        {1, "", false},
        {28, std::string(16, 'x'), true},
        {28, kAddress, false},
        {16, "", true},
        {16, Label("rp=x") + Label(""), true},
        {16, Label("rp=x") + "\5rp=y", false},
        {12, name, true},
        {12, name + "x", false},
        {12, "\3prn", false},
        {33, Target(631, "prn.local"), true},
        {33, Target(631, "prn.local") + "x", false},
        {33, "\0\0\0\0\0"s, false},
        {47, "anything", true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ParseResponse(Response(kId, {RawRecord(name, c.type, c.data)}), kId).has_value(),
                  c.good)
            << c.type << testing::PrintToString(c.data);
    }
    // A record's data may not be read from the record that follows it.
    std::string lying = Response(kId, {RawRecord(name, 28, kAddress), Address("a.b", kAddress)});
    EXPECT_FALSE(ParseResponse(lying, kId));
    // Withdrawn (RFC 6762, section 10.1).
    EXPECT_THAT(*ParseResponse(Response(kId, {RawRecord(name, 1, kAddress, 0)}), kId),
                testing::IsEmpty());
}

// RFC 6762, sections 5.4 and 7.1, and RFC 1035, section 4.1.
TEST(Message, WritesQueries) {
    QueryWriter query(kId);
    EXPECT_TRUE(query.Ask(NameOf("_ipp._tcp.local"), Type::Ptr));
    EXPECT_TRUE(query.Ask(NameOf("prn.local"), Type::Aaaa));
    EXPECT_TRUE(query.AddKnown(0, "Prn"));
    EXPECT_EQ(query.Message(),
              "\xBE\xEF\0\0\0\2\0\1\0\0\0\0"s
              "\4_ipp\4_tcp\5local\0\0\x0C\x80\1"s
              "\3prn\5local\0\0\x1C\x80\1"s
              "\xC0\x0C\0\x0C\0\1\0\0\x11\x94\0\6\3Prn\xC0\x0C"s);
    while (query.AddKnown(0, "Printer")) {
    }
    EXPECT_FALSE(query.Ask(NameOf("printer-of-that.size"), Type::A));
    EXPECT_LE(query.Message().size(), kMaxQuery);
    EXPECT_GT(query.Message().size(), kMaxQuery - 22);
}

}  // namespace
