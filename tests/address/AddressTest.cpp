#include <gtest/gtest.h>

#include <sstream>

#include "address/IPAddress.h"
#include "address/MacAddress.h"
#include "tests/support/SocketsStarted.h"

namespace {

using std::string;

const SocketsStarted sockets;

template <class T>
string Printed(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

TEST(IPAddress, FromText) {
    const std::tuple<const char*, AddressType, string> cases[] = {
        {"192.168.1.10", IPV4, "\xc0\xa8\x01\x0a"},
        {"192.168.1.10:9100", IPV4, "\xc0\xa8\x01\x0a"},
        {"[fe80::1]", IPV6, "\xfe\x80" + string(13, '\0') + "\x01"},
        {"fe80::1%3", IPV6, "\xfe\x80" + string(13, '\0') + "\x01"},
        {"::ffff:10.1.2.3", IPV6, string(10, '\0') + "\xff\xff\x0a\x01\x02\x03"},
        {"192.168.1.256", UNKNOWN, ""},
        {"fe80::1/64", UNKNOWN, ""},  // a subnet: right as a text, but no host's address
        {"", UNKNOWN, ""},
    };
    for (const auto& [text, type, bytes] : cases) {
        const IPAddress address{string(text)};
        EXPECT_EQ(address.GetType(), type) << text;
        EXPECT_EQ(address.IsValid(), type != UNKNOWN) << text;
        ASSERT_EQ(address.GetBytes() != nullptr, type != UNKNOWN) << text;
        EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), address.GetBytes(), [](char a, char b) {
            return a == b;
        })) << text;
        EXPECT_EQ(address.GetText(), text);
        EXPECT_EQ(Printed(address), type != UNKNOWN ? text : "Invalid object");
    }
}

TEST(IPAddress, FromBytes) {
    in_addr v4 = {};
    v4.s_addr = htonl(0x0A010203);
    EXPECT_EQ(Printed(IPAddress(v4)), "10.1.2.3");
    // 38 characters fit the platform's buffer, 39 do not.
    in6_addr v6 = {};
    std::fill_n(v6.s6_addr, 16, 0x11);
    EXPECT_EQ(Printed(IPAddress(v6)), "Invalid object");
    EXPECT_EQ(IPAddress(v6).GetText(), "");
    v6.s6_addr[0] = 0x01;
    EXPECT_EQ(Printed(IPAddress(v6)), "111:1111:1111:1111:1111:1111:1111:1111");
}

TEST(IPAddress, EqualByTypeAndBytesOnly) {
    const IPAddress address("10.1.2.3");
    EXPECT_TRUE(address == "10.1.2.3:515");
    EXPECT_FALSE(address == "10.1.2.4");
    EXPECT_FALSE(address == "a01:203::");  // whose bytes begin as this one's are
    EXPECT_TRUE(IPAddress("fe80::1%2") == IPAddress("FE80:0::0:1"));
    EXPECT_FALSE(IPAddress("fe80::1") == IPAddress("fe80::2"));
    EXPECT_FALSE(IPAddress() == IPAddress());
}

TEST(IPAddress, AssignmentTakesOnlyValidOnes) {
    IPAddress address("10.1.2.3");
    const IPAddress invalid("nonsense");
    int length = 0;
    sockaddr* const before = address.GetSockAddr(length);
    ASSERT_NE(before, nullptr);
    address = invalid;
    EXPECT_EQ(Printed(address), "10.1.2.3");
    EXPECT_EQ(address.GetSockAddr(length), before);
    EXPECT_EQ(IPAddress(invalid).GetText(), "") << "a copy is a fresh object";

    address = IPAddress("fe80::1");
    const IPAddress& self = address;
    address = self;
    EXPECT_EQ(Printed(address), "fe80::1");
    ASSERT_NE(address.GetSockAddr(length), nullptr);
    EXPECT_EQ(address.GetSockAddr(length)->sa_family, AF_INET6);
    const IPAddress copy(address);
    EXPECT_TRUE(copy == address);
    EXPECT_NE(copy.GetBytes(), address.GetBytes());
    EXPECT_NE(copy.GetSockAddr(length), address.GetSockAddr(length));
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
    const MacAddress fromText("0004004a1b2c");
    EXPECT_EQ(Printed(fromText), "0004004a1b2c");
    EXPECT_EQ(fromText.GetLength(), 6u);
    EXPECT_TRUE(fromText == MacAddress(bytes, 6));
    EXPECT_TRUE(fromText == "0004004A1B2C");
    EXPECT_FALSE(fromText == "0004004A1B2D");
    EXPECT_TRUE(MacAddress(L"0004004a1b2c") == fromText);

    const std::tuple<size_t, const char*> lengths[] = {
        {0, ""},
        {5, "0004004A1B"},
        {6, "0004004A1B2C"},
        {7, "0004004A1B2CFF"},
        {10, "0004004A1B2CFFFF"},  // no more than eight are taken
    };
    for (const auto& [length, text] : lengths) {
        const MacAddress address(bytes, length);
        EXPECT_EQ(address.IsValid(), length == 6) << length;
        EXPECT_EQ(address.GetText(), text);
    }

    // Invalid ones keep their text, and equal nothing.
    const MacAddress invalid("00:04:00:4a:1b:2c");
    EXPECT_EQ(invalid.GetText(), "00:04:00:4a:1b:2c");
    EXPECT_EQ(Printed(invalid), "Invalid object");
    EXPECT_FALSE(invalid == invalid);
    EXPECT_FALSE(MacAddress("000000000000") == invalid);
    EXPECT_FALSE(MacAddress(static_cast<const wchar_t*>(nullptr)).IsValid());
}

}  // namespace
