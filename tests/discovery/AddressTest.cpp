#include <gmock/gmock.h>

#include <sstream>

#include "discovery/IPAddress.h"
#include "discovery/MacAddress.h"

namespace {

using std::string;

const bool socketsStarted = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}();

template <class T>
string Printed(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

string Bytes(const IPAddress& address) {
    const size_t count = address.GetType() == IPV4 ? 4 : address.GetType() == IPV6 ? 16 : 0;
    string hex;
    for (size_t i = 0; i < count; ++i) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", address.GetBytes()[i]);
        hex += digits;
    }
    return hex;
}

TEST(IPAddress, FromText) {
    struct Case {
        string text;
        AddressType type;
        string bytes;
    };
    const Case cases[] = {
        {"192.168.1.10", IPV4, "c0a8010a"},
        {"192.168.1.10:9100", IPV4, "c0a8010a"},
        {"fe80::1", IPV6, "fe800000000000000000000000000001"},
        {"[fe80::1]", IPV6, "fe800000000000000000000000000001"},
        {"fe80::1%3", IPV6, "fe800000000000000000000000000001"},
        {"::ffff:10.1.2.3", IPV6, "00000000000000000000ffff0a010203"},
        {"1:2:3:4:5:6:7:8", IPV6, "00010002000300040005000600070008"},
        {"192.168.1.256", UNKNOWN, ""},
        {"1::2:10.1.2.3", UNKNOWN, ""},
        {"fe80::1/64", UNKNOWN, ""},  // a subnet: right as a text, but no host's address
        {"printer", UNKNOWN, ""},
        {"", UNKNOWN, ""},
    };
    for (const auto& [text, type, bytes] : cases) {
        const IPAddress address(text);
        EXPECT_EQ(address.GetType(), type) << text;
        EXPECT_EQ(address.IsValid(), type != UNKNOWN) << text;
        EXPECT_EQ(Bytes(address), bytes) << text;
        EXPECT_EQ(address.GetBytes() == nullptr, type == UNKNOWN) << text;
        EXPECT_EQ(address.GetText(), text);
        EXPECT_EQ(Printed(address), type != UNKNOWN ? text : "Invalid object");
    }
    EXPECT_EQ(Printed(IPAddress()), "Invalid object");
}

TEST(IPAddress, FromBytes) {
    in_addr v4 = {};
    v4.s_addr = htonl(0x0A010203);
    EXPECT_EQ(Printed(IPAddress(v4)), "10.1.2.3");
    in6_addr v6 = {};
    v6.s6_addr[0] = 0xFE;
    v6.s6_addr[1] = 0x80;
    v6.s6_addr[15] = 1;
    EXPECT_EQ(Printed(IPAddress(v6)), "fe80::1");
    EXPECT_EQ(Bytes(IPAddress(v6)), "fe800000000000000000000000000001");
    // 38 characters fit the platform's buffer, 39 do not.
    for (auto& byte : v6.s6_addr) {
        byte = 0x11;
    }
    EXPECT_FALSE(IPAddress(v6).IsValid());
    EXPECT_EQ(IPAddress(v6).GetText(), "");
    v6.s6_addr[0] = 0x01;
    EXPECT_EQ(Printed(IPAddress(v6)), "111:1111:1111:1111:1111:1111:1111:1111");
}

TEST(IPAddress, EqualByTypeAndBytesOnly) {
    const IPAddress address("10.1.2.3");
    EXPECT_TRUE(address == IPAddress("10.1.2.3:9100"));
    EXPECT_TRUE(address == "10.1.2.3:515");
    EXPECT_FALSE(address == IPAddress("10.1.2.4"));
    EXPECT_FALSE(address == "nonsense");
    EXPECT_FALSE(address == IPAddress("::10.1.2.3"));
    EXPECT_TRUE(IPAddress("fe80::1%2") == IPAddress("FE80:0::0:1"));
    EXPECT_FALSE(IPAddress("fe80::1") == IPAddress("fe80::2"));
    EXPECT_FALSE(IPAddress() == IPAddress());
    EXPECT_FALSE(IPAddress("x") == "x");
}

TEST(IPAddress, AssignmentTakesOnlyValidOnes) {
    IPAddress address("10.1.2.3");
    int length = 0;
    sockaddr* const before = address.GetSockAddr(length);
    ASSERT_NE(before, nullptr);
    address = IPAddress("nonsense");
    EXPECT_EQ(Printed(address), "10.1.2.3");
    EXPECT_EQ(address.GetSockAddr(length), before);

    address = IPAddress("fe80::1");
    EXPECT_EQ(Printed(address), "fe80::1");
    ASSERT_NE(address.GetSockAddr(length), nullptr);
    EXPECT_EQ(address.GetSockAddr(length)->sa_family, AF_INET6);

    const IPAddress copy(address);
    EXPECT_TRUE(copy == address);
    EXPECT_NE(copy.GetBytes(), address.GetBytes());
    EXPECT_NE(copy.GetSockAddr(length), address.GetSockAddr(length));

    IPAddress& self = address;
    address = self;
    EXPECT_EQ(Printed(address), "fe80::1");

    // A copy of an invalid object is a fresh one: not even the text is taken.
    const IPAddress invalid("nonsense");
    EXPECT_EQ(IPAddress(invalid).GetText(), "");
}

TEST(IPAddress, SocketAddressIsMadeOnce) {
    int length = -7;
    EXPECT_EQ(IPAddress("nonsense").GetSockAddr(length), nullptr);
    EXPECT_EQ(length, -7);

    const IPAddress v4("10.1.2.3:9100");
    const auto* first = reinterpret_cast<sockaddr_in*>(v4.GetSockAddr(length));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(length, 16);
    EXPECT_EQ(first->sin_family, AF_INET);
    EXPECT_EQ(ntohl(first->sin_addr.s_addr), 0x0A010203u);
    EXPECT_EQ(ntohs(first->sin_port), 9100);
    EXPECT_EQ(reinterpret_cast<sockaddr_in*>(v4.GetSockAddr(length)), first);

    // The scope starts as 0 whatever the text says, and what a probe finds stays.
    const IPAddress v6("fe80::1%3");
    auto* scoped = reinterpret_cast<sockaddr_in6*>(v6.GetSockAddr(length));
    ASSERT_NE(scoped, nullptr);
    EXPECT_EQ(length, 28);
    EXPECT_EQ(scoped->sin6_scope_id, 0u);
    EXPECT_EQ(scoped->sin6_addr.s6_addr[15], 1);
    scoped->sin6_scope_id = 5;
    EXPECT_EQ(reinterpret_cast<sockaddr_in6*>(v6.GetSockAddr(length))->sin6_scope_id, 5u);
}

TEST(MacAddress, TextAndBytes) {
    const unsigned char bytes[] = {0x00, 0x04, 0x00, 0x4A, 0x1B, 0x2C, 0xFF, 0xFF, 0xFF, 0xFF};
    const MacAddress fromBytes(bytes, 6);
    EXPECT_EQ(Printed(fromBytes), "0004004A1B2C");
    const MacAddress fromText("0004004a1b2c");
    EXPECT_EQ(Printed(fromText), "0004004a1b2c");
    EXPECT_EQ(fromText.GetLength(), 6u);
    EXPECT_THAT(std::vector<unsigned char>(fromText.GetBytes(), fromText.GetBytes() + 6),
                testing::ElementsAreArray(bytes, 6));
    EXPECT_TRUE(fromText == fromBytes);
    EXPECT_TRUE(fromText == "0004004A1B2C");
    EXPECT_FALSE(fromText == "0004004A1B2D");
    EXPECT_TRUE(MacAddress(L"0004004a1b2c") == fromBytes);
    MacAddress copy;
    copy = fromText;
    EXPECT_TRUE(copy == fromBytes);

    const std::pair<size_t, string> others[] = {{0, ""},
                                                {5, "0004004A1B"},
                                                {7, "0004004A1B2CFF"},
                                                {8, "0004004A1B2CFFFF"},
                                                {10, "0004004A1B2CFFFF"}};
    for (const auto& [length, text] : others) {
        const MacAddress address(bytes, length);
        EXPECT_FALSE(address.IsValid()) << length;
        EXPECT_EQ(address.GetText(), text);
        EXPECT_EQ(address.GetLength(), std::min<size_t>(length, 8));
    }
}

TEST(MacAddress, InvalidOnesKeepTheirTextAndEqualNothing) {
    const MacAddress invalid("00:04:00:4a:1b:2c");
    EXPECT_FALSE(invalid.IsValid());
    EXPECT_EQ(invalid.GetText(), "00:04:00:4a:1b:2c");
    EXPECT_EQ(Printed(invalid), "Invalid object");
    EXPECT_FALSE(invalid == invalid);
    EXPECT_FALSE(MacAddress("0004004a1b2c") == "00:04:00:4a:1b:2c");
    EXPECT_FALSE(MacAddress() == MacAddress());
    const wchar_t* const none = nullptr;
    EXPECT_FALSE(MacAddress(none).IsValid());
    EXPECT_EQ(MacAddress(none).GetText(), "");
    EXPECT_EQ(MacAddress(L"000\u4e00").GetText().substr(0, 3), "000");
}

}  // namespace
