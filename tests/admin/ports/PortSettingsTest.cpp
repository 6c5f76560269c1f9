#include "admin/ports/PortSettings.h"

#include <gmock/gmock.h>

#include "base/Text.h"

using testing::HasSubstr;

namespace {

using Check = std::string (*)(std::string&);

TEST(PortValues, AreStoredInOneForm) {
    const struct {
        Check check;
        std::string given;
        std::string stored;
    } cases[] = {
        {CheckMacAddress, "00:04:00:4a:1b:2c", "0004004A1B2C"},
        {CheckMacAddress, "00-04-00-4A-1B-2C", "0004004A1B2C"},
        {CheckMacAddress, "0004.004a.1b2c", "0004004A1B2C"},
        {CheckMacAddress, "none", ""},
        {CheckIPv4Address, "192.168.1.20", "192.168.1.20"},
        {CheckIPv6Host, "fd00::20", "fd00::20"},
        {CheckIPv6Host, "fe80::20%3", "fe80::20%3"},
        {CheckIPv6Host, "printer-2.example.org", "printer-2.example.org"},
        {CheckPortName, "B\u00fcro 1", "B\u00fcro 1"},
        // Lengths count as the field counts them, not in bytes of UTF-8.
        {CheckPortName, WideToUtf8(std::wstring(63, L'\u00e4')),
         WideToUtf8(std::wstring(63, L'\u00e4'))},
        {CheckQueue, std::string(32, 'q'), std::string(32, 'q')},
        {CheckHostName, std::string(48, 'h'), std::string(48, 'h')},
    };
    for (const auto& c : cases) {
        std::string text = c.given;
        EXPECT_EQ(c.check(text), "") << c.given;
        EXPECT_EQ(text, c.stored) << c.given;
    }
}

struct Refusal {
    Check check;
    std::string given;
    std::string reason;
};

void ExpectRefusals(const std::vector<Refusal>& refusals) {
    for (const Refusal& c : refusals) {
        std::string text = c.given;
        EXPECT_THAT(c.check(text), HasSubstr(c.reason)) << c.given;
    }
}

TEST(PortValues, AddressesAreRefusedWithWhatToDo) {
    ExpectRefusals({
        {CheckIPv4Address, "192.168.1.20:9100", "without the port number 9100"},
        {CheckIPv4Address, "192.168.1.256", "192.168.1.20"},
        {CheckIPv4Address, "192.168.1.020", "leading zero"},
        {CheckIPv4Address, "0.0.0.0", "of a host"},
        {CheckIPv4Address, "224.0.0.1", "of a host"},
        {CheckIPv4Address, "255.255.255.255", "of a host"},
        {CheckIPv4Address, "printer", "not an IPv4 address"},
        {CheckIPv4Address, "", "not an IPv4 address"},
        {CheckIPv4Address, "fd00::20", "is an IPv6 address"},
        {CheckIPv6Host, "10.1.2.3", "is an IPv4 address"},
        {CheckIPv6Host, "[fd00::20]", "brackets"},
        {CheckIPv6Host, "fd00::20/64", "not an IPv6 address"},
        {CheckIPv6Host, "fd00::1::2", "not an IPv6 address"},
        {CheckIPv6Host, "my printer", "host name"},
        {CheckIPv6Host, std::string(128, 'h'), "127 fit"},
        {CheckMacAddress, "00:04:00:4a:1b", "not a MAC address"},
        {CheckMacAddress, "00:04:00:4a:1b:2c:", "not a MAC address"},
        {CheckMacAddress, "00:04-00:4a:1b:2c", "not a MAC address"},
        {CheckMacAddress, "000:4:00:4a:1b:2c", "not a MAC address"},
        {CheckMacAddress, "00.04.00.4a.1b.2c", "not a MAC address"},
        {CheckMacAddress, "00:04:00:4a:1b:2g", "not a MAC address"},
        {CheckMacAddress, "", "not a MAC address"},
        {CheckMacAddress, "00:00:00:00:00:00", "of a device"},
        {CheckMacAddress, "ff:ff:ff:ff:ff:ff", "of a device"},
        {CheckMacAddress, "01:00:5e:00:00:fb", "of a device"},
        {CheckIPv6Host, "::", "of a host"},
        {CheckIPv6Host, "ff02::116%3", "of a host"},
        {CheckIPv4Address, "none", "cleared"},
        {CheckIPv6Host, "none", "cleared"},
    });
}

// The monitor keeps a queue and a community: `none` cannot remove them.
TEST(PortValues, NamesAndNumbersAreRefusedWithWhatToDo) {
    ExpectRefusals({
        {CheckPortName, "", "empty"},
        {CheckPortName, std::string(64, 'p'), "63 fit"},
        {CheckPortName, "a\\b", "backslash"},
        {CheckPortName, "LPT1:,OFFICE", "comma"},
        {CheckPortName, "Ne01:", "skips"},
        {CheckPortName, " OFFICE", "blank"},
        {CheckPortName, "OFF\tICE", "control character"},
        {CheckQueue, std::string(33, 'q'), "32 fit"},
        {CheckQueue, "my queue", "without blanks"},
        {CheckQueue, "", "empty"},
        {CheckHostName, std::string(49, 'h'), "48 fit"},
        {CheckHostName, "none", "add it again"},
        {CheckPortNumber, "0", "1 to 65535"},
        {CheckPortNumber, "010", "1 to 65535"},
        {CheckPortNumber, "0x1F", "1 to 65535"},
        {CheckPortNumber, "65536", "1 to 65535"},
        {CheckPortNumber, "99999999999999999999", "1 to 65535"},
        {CheckQueue, "none", "cleared"},
        {CheckCommunity, "none", "cleared"},
        {CheckCommunity, std::string(33, 'c'), "32 fit"},
    });
}

// Changes laid one over the other, and where jobs go then.
TEST(PortSettings, AreCompletedAndKept) {
    PortRecords port;
    const auto apply = [&port](const PortChange& change) {
        Apply(change, port);
        return Destination(port);
    };
    EXPECT_EQ(apply({.address = "10.0.0.1"}), "raw to 10.0.0.1:9100");
    EXPECT_EQ(apply({.protocol = "lpr"}), "lpr to 10.0.0.1:515, queue lp");
    EXPECT_EQ(apply({.queue = "q2", .doubleSpool = true}),
              "lpr to 10.0.0.1:515, queue q2, double spooled");
    EXPECT_EQ(apply({.ipv6 = "fd00::20", .mac = "0004004A1B2C"}),
              "lpr to [fd00::20]:515, queue q2, double spooled");
    EXPECT_EQ(apply({.protocol = "raw"}), "raw to [fd00::20]:9100");
    EXPECT_EQ(apply({.address = "10.0.0.2", .portNumber = 9101}), "raw to 10.0.0.2:9101");
    // A number that somebody chose stays with a change of the protocol.
    EXPECT_EQ(apply({.protocol = "lpr"}), "lpr to 10.0.0.2:9101, queue q2");
    apply({.alwaysPrint = true, .snmpCommunity = "public"});
    apply({.portNumber = 515});
    EXPECT_EQ(FieldText(port.extended.sztHWAddress), "0004004A1B2C");
    EXPECT_EQ(port.extended.dwAlwaysPrint, 1u);
    EXPECT_EQ(port.standard.dwSNMPDevIndex, 1u);
}

TEST(PortSettings, MustGoTogether) {
    const struct {
        PortChange change;
        std::string reason;
    } cases[] = {
        {{.protocol = "raw"}, "is missing"},
        {{.address = "10.0.0.1", .queue = "q"}, "belongs to LPR"},
        {{.address = "10.0.0.1", .doubleSpool = true}, "belongs to LPR"},
        {{.address = "10.0.0.1", .alwaysPrint = true}, "a MAC address or a host name"},
        {{.address = "10.0.0.1", .mac = ""}, "a MAC address or a host name"},
        {{.address = "10.0.0.1", .snmpIndex = 2}, "an SNMP community"},
    };
    for (const auto& c : cases) {
        PortRecords port;
        port.extended.dwAlwaysPrint = c.change.mac.has_value();
        try {
            Apply(c.change, port);
            ADD_FAILURE() << c.reason;
        } catch (const SettingsClash& error) {
            EXPECT_THAT(error.what(), HasSubstr(c.reason));
        }
    }
}

}  // namespace
