#include "address/AddressText.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

namespace {

using std::string;
using namespace std::string_literals;

// One case a word; what has blanks or zeros in it stands by itself.
std::vector<string> Words(const char* text) {
    std::istringstream in(text);
    return {std::istream_iterator<string>(in), {}};
}

void Judge(bool (*judge)(const string&), bool expected, std::vector<string> texts) {
    for (const string& text : texts) {
        EXPECT_EQ(judge(text), expected) << text.substr(0, 60);
    }
}

TEST(AddressText, IPv4) {
    const string port = "1.2.3.4:";
    Judge(IsIPv4AddressText, true,
          Words("192.168.1.10 0.0.0.0 255.255.255.255 010.000.001.002 1.2.3.4:0 192.168.1.10:9100 "
                "1.2.3.4:65535 1.2.3.4:0000080"));
    Judge(IsIPv4AddressText, true, {port + string(100000, '0') + "80"});
    Judge(IsIPv4AddressText, false,
          Words("1 192.168.1 192.168.1. .1.2.3.4 1..2.3 1.2.3.4.5 1.2.3.4. "
                // limits
                "192.168.1.256 256.1.1.1 1.2.3.1234 0001.2.3.4 192.168.1.10:70000 1.2.3.4:65536 "
                "1.2.3.4:4294967376 1.2.3.4:18446744073709551696 "
                // separators and what follows
                "1.2.3.4: 1.2.3.4::80 1.2.3.4:80: 1.2.3.4:80. 1.2.3.4.80 1.2.3:4 1:2:3:4 "
                // what sscanf would take and the characters forbid
                "+1.2.3.4 -1.2.3.4 1.2.3.4:+80 0x1.2.3.4 1.2.3.4a 1.2.3.4/24"));
    Judge(IsIPv4AddressText, false,
          {"", " 1.2.3.4", "192.168.1.10 ", "1. 2.3.4", "1.2.3.4: 80", "1.2.3.4:80 ", "1.2.3.4\n",
           port + string(100000, '9'),
           // what sscanf does not see
           "1.2.3.4\0"s, "1.2.3.4\0:80"s, "1.2.3.4:80\0x"s, "\0001.2.3.4"s});
}

TEST(AddressText, IPv6) {
    Judge(IsIPv6AddressText, true,
          Words(":: ::1 1:: fe80::1 FE80::aBcD 1:2:3:4:5:6:7:8 0001:0002:3:4:5:6:7:8 "
                // "::" stands for at least one group
                "1:2:3:4:5:6:7:: ::2:3:4:5:6:7:8 1::3:4:5:6:7:8 [::] "
                // brackets, zone, prefix length
                "[fe80::1] fe80::1%0 fe80::1%12 fe80::1%4294967295 fe80::1%0000000000012 "
                "::1/0 ::1/128 ::/064 [fe80::1%4/64] fe80::1%4/64 ::%3 1::%3 "
                // embedded IPv4
                "::10.1.2.3 ::ffff:10.1.2.3 ::FFFF:255.255.255.255 ::0:10.1.2.3 0::10.1.2.3 "
                "0:0:0:0:0:0:10.1.2.3 0:0:0:0:0:ffff:10.1.2.3 0:0:0:0:0::10.1.2.3 "
                "::0:0:0:0:0:1.2.3.4 [::ffff:10.1.2.3%2/96]"));
    Judge(IsIPv6AddressText, false,
          Words(": 1 fe80 12345678 [] [:] [1] 10.1.2.3 1.2.3.4:80 "
                // colons
                "::: :::: 1:::2 :::1 1::: 1::2::3 ::1:: fe80::1::2 :fe80::1 :1 1: ::1: "
                "1:2:3:4:5:6:7: :2:3:4:5:6:7:8 1:2:3:4:5:6:7:8: "
                // counts and widths
                "1:2:3:4:5:6:7 1:2:3:4:5:6:7:8:9 1:2:3:4::5:6:7:8 ::1:2:3:4:5:6:7:8 "
                "1:2:3:4:5:6:7:8:: 00001:: fe80::12345 "
                // brackets
                "[fe80::1 fe80::1] [[fe80::1]] [fe80::1]:80 [fe80::1]%3 [fe80::1]/64 "
                // zone and prefix length
                "::1% ::1%eth0 ::1%-1 ::1%+1 ::1%1x ::1%1%2 %::1 fe80%1 ::1%4294967296 "
                "::1%99999999999999999999999 ::1/ ::1/129 ::1/x ::1/-1 ::1/64/64 ::1/64%3 "
                "::1/4294967296 ::1/18446744073709551744 /64 %3 "
                // embedded IPv4
                "1::2:10.1.2.3 ::1:10.1.2.3 ::fffe:10.1.2.3 1::10.1.2.3 ::ffff:0:10.1.2.3 "
                "1:2:3:4:5:6:10.1.2.3 0:0:0:0:0:10.1.2.3 0:0:0:0:0:0:0:10.1.2.3 "
                "0:0:0:0:0:0::1.2.3.4 :10.1.2.3 :::10.1.2.3 ::10.1.2.3:80 ::10.1.2.256 ::10.1.2 "
                "::10.1.2.3. ::10.1.2.3:: ::. ::ffff10.1.2.3 "
                // other characters
                "::g @ @:1 1:@:2 1:@:@:2 ::-1 ::0x1 ::\xff"));
    Judge(IsIPv6AddressText, false,
          {"", string(4000, '1') + "::", "::1% 1", "::1/ 1", " ::1", "::1 ", "::1\0"s, "\0::1"s,
           "::1%1\0"s, "::1/64\0"s});
}

TEST(AddressText, Mac) {
    Judge(IsMacAddressText, true, {"0004004A1B2C", "0004004a1b2c"});
    Judge(IsMacAddressText, false,
          {"", "0004004A1B2", "0004004A1B2C0", "00:04:00:4a:1b:2c", "00-04-00-4A-", "0004004A1B2G",
           " 004004A1B2C", "0004004A1B2\0"s, "0004004A1B2C\0"s, "0x04004A1B2C"});
    string digits;
    for (int c = -128; c < 128; ++c) {
        const int value = HexDigitValue(static_cast<char>(c));
        if (value >= 0) {
            digits += static_cast<char>(c);
            digits += std::to_string(value) + ' ';
        }
    }
    EXPECT_EQ(digits,
              "00 11 22 33 44 55 66 77 88 99 A10 B11 C12 D13 E14 F15 a10 b11 c12 d13 e14 f15 ");
}

TEST(AddressText, Normalized) {
    struct Case {
        bool ipv6;
        string in;
        string out;
    };
    const Case cases[] = {
        {false, "010.000.001.002", "10.0.1.2"},
        {false, "1.2.3.0", "1.2.3.0"},
        {false, "10.100.0.0", "10.100.0.0"},
        {false, "000.000.000.000", "0.0.0.0"},
        {false, "1..2", "1.0.2"},
        {false, "0", ""},
        {false, "", ""},
        {true, "fe80:0000:0000:0000:0204:61ff:fe9d:f156", "fe80::204:61ff:fe9d:f156"},
        {true, "2001:0db8:0000:0001:0000:0000:0000:0001", "2001:db8::1::1"},
        {true, "0:0:0:0:0:0:0:1", "::1"},
        {true, "::1", "::1"},
        {true, "fe80:0", "fe80:"},
        {true, "0a00:0:b0", "a00::b0"},
        {true, "", ""},
        // 47 characters are kept, whatever comes
        {false, string(47, '1'), string(47, '1')},
        {false, string(48, '1'), string(47, '1')},
        {false, string(46, '1') + ".0", string(46, '1') + "."},
        {false, string(45, '1') + ".0", string(45, '1') + ".0"},
        {false, string(100000, '.'), string("0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0")},
        {true, string(100000, ':') + "1", "::1"},
        {true, string(100000, 'f'), string(47, 'f')},
    };
    for (const auto& [ipv6, in, out] : cases) {
        string result = "what was there";
        NormalizeAddressText(in, result, ipv6);
        EXPECT_EQ(result, out) << in.substr(0, 60);
    }
    string text = "001.002.003.004";
    NormalizeAddressText(text, text, false);
    EXPECT_EQ(text, "1.2.3.4");
}

}  // namespace
