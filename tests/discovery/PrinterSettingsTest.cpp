// Printer's operations over SNMP.
#include <gmock/gmock.h>

#include "discovery/Printer.h"
#include "tests/support/SnmpMachine.h"

namespace {

using std::string;

Printer At(const string& address) {
    Printer printer;
    printer.SetFirstIPAddress(IPAddress(address));
    return printer;
}

TEST(PrinterSettingsTest, AreReadAndWrittenAndTheNewAddressIsPingedTwice) {
    const SnmpMachine machine;
    SnmpMachine::answering = {"10.9.9.9"};
    const LogCapture log;
    Printer printer = At("10.1.0.1");
    ASSERT_EQ(printer.RetrieveSnmpSettings(), 0);
    EXPECT_TRUE(printer.AreSnmpSettingsRead());
    EXPECT_EQ(printer.GetSubnetMask() + " " + printer.GetGateway(), "255.0.0.0 10.1.255.254");
    EXPECT_EQ(printer.GetConfigMethod(), 3U);
    EXPECT_EQ(Printer(printer).GetConfigMethod(), 5U) << "a copy has not read them";

    EXPECT_EQ(printer.UpdateSnmpSettings("10.8.8.8", "255.255.0.0", "10.8.0.1"), 0);
    EXPECT_EQ(printer.UpdateSnmpSettings("10.9.9.9", "255.255.0.0", "10.9.0.1"), 0);
    EXPECT_THAT(machine.pinged, testing::ElementsAre("10.8.8.8", "10.8.8.8", "10.9.9.9"));
    // It is no longer at the address that the record has.
    EXPECT_EQ(printer.RetrieveSnmpSettings(), 16);
    EXPECT_FALSE(printer.AreSnmpSettingsRead());
    EXPECT_EQ(printer.UpdateSnmpSettings("10.8.8.8", "255.255.0.0", "10.8.0.1"), 16);
    EXPECT_THAT(SnmpMachine::Requests(), testing::SizeIs(4));

    EXPECT_EQ(At("fe80::1").RetrieveSnmpSettings(), 16);
    EXPECT_EQ(At("010.1.0.1").RetrieveSnmpSettings(), 16) << "its text differs";
    Printer readOnly = At("10.1.0.3");
    EXPECT_EQ(readOnly.RetrieveSnmpSettings(), 0);
    EXPECT_EQ(readOnly.UpdateSnmpSettings("10.7.7.7", "255.0.0.0", "10.7.0.1"), 15);
    EXPECT_THAT(SnmpMachine::Requests(), testing::SizeIs(7));
    EXPECT_THAT(machine.pinged, testing::SizeIs(3));
    EXPECT_EQ(NotGivenBack(), 0);
    string story;
    for (const string& line : log.Lines()) {
        story += line + "\n";
    }
    EXPECT_EQ(
        story,
        R"([info]          - We found our settings: (subnet - 255.0.0.0) (gateway - 10.1.255.254) (configMethod - 3)|Printer::RetrieveSnmpSettings
[info]          - About to write the printer settings.|Printer::UpdateSnmpSettings
[info]          - Lets try pinging the printer at its new address 10.8.8.8|Printer::UpdateSnmpSettings
[info]          - Printer has been successfully updated!|Printer::UpdateSnmpSettings
[info]          - About to write the printer settings.|Printer::UpdateSnmpSettings
[info]          - Lets try pinging the printer at its new address 10.9.9.9|Printer::UpdateSnmpSettings
[info]          - Printer has been successfully updated!|Printer::UpdateSnmpSettings
[system error]  - Couldn't read snmp settings!  maybe the printer has it turned off|Printer::RetrieveSnmpSettings
[info]          - this printer doesn't support ipv6|Printer::UpdateSnmpSettings
[info]          - ipv6 doesn't support snmp!|Printer::RetrieveSnmpSettings
[system error]  - Couldn't read snmp settings!  maybe the printer has it turned off|Printer::RetrieveSnmpSettings
[info]          - We found our settings: (subnet - 255.0.0.0) (gateway - 10.1.255.254) (configMethod - 3)|Printer::RetrieveSnmpSettings
[info]          - About to write the printer settings.|Printer::UpdateSnmpSettings
[system error]  - Failed to write the settings 1|Printer::UpdateSnmpSettings
)");
}

}  // namespace
