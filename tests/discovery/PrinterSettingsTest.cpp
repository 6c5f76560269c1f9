// Printer's operations over SNMP.
#include <gmock/gmock.h>

#include "discovery/Printer.h"
#include "tests/support/SnmpMachine.h"

namespace {

using std::string;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const string kRetrieve = "|Printer::RetrieveSnmpSettings";
const string kUpdate = "|Printer::UpdateSnmpSettings";
const string kInfo = "[info]          - ";
const string kError = "[system error]  - ";
const string kUnread =
    kError + "Couldn't read snmp settings!  maybe the printer has it turned off" + kRetrieve;
const string kFound = kInfo +
                      "We found our settings: (subnet - 255.0.0.0) (gateway - 10.1.255.254) "
                      "(configMethod - 3)" +
                      kRetrieve;
const string kAboutToWrite = kInfo + "About to write the printer settings." + kUpdate;
const string kUpdated = kInfo + "Printer has been successfully updated!" + kUpdate;

Printer At(const string& address) {
    Printer printer;
    printer.SetFirstIPAddress(IPAddress(address));
    return printer;
}

TEST(PrinterSettingsTest, ReadsThemWritesThemAndPingsTheNewAddressTwice) {
    SnmpMachine machine;
    SnmpMachine::answering = {"10.9.9.9"};
    const LogCapture log;
    Printer printer = At("10.1.0.1");
    ASSERT_EQ(printer.RetrieveSnmpSettings(), 0);
    EXPECT_TRUE(printer.AreSnmpSettingsRead());
    EXPECT_EQ(printer.GetSubnetMask(), "255.0.0.0");
    EXPECT_EQ(printer.GetGateway(), "10.1.255.254");
    EXPECT_EQ(printer.GetConfigMethod(), 3U);

    EXPECT_EQ(printer.UpdateSnmpSettings("10.8.8.8", "255.255.0.0", "10.8.0.1"), 0);
    EXPECT_THAT(SnmpMachine::pinged, ElementsAre("10.8.8.8", "10.8.8.8"));
    EXPECT_EQ(printer.UpdateSnmpSettings("10.9.9.9", "255.255.0.0", "10.9.0.1"), 0);
    EXPECT_THAT(SnmpMachine::pinged, ElementsAre("10.8.8.8", "10.8.8.8", "10.9.9.9"));
    EXPECT_THAT(SnmpMachine::Requests(), SizeIs(3));

    // It is no longer at the address that the record has.
    EXPECT_EQ(printer.RetrieveSnmpSettings(), 16);
    EXPECT_FALSE(printer.AreSnmpSettingsRead());
    EXPECT_EQ(printer.UpdateSnmpSettings("10.8.8.8", "255.255.0.0", "10.8.0.1"), 16);
    const string pinging = kInfo + "Lets try pinging the printer at its new address ";
    EXPECT_THAT(log.Lines(),
                ElementsAre(kFound, kAboutToWrite, pinging + "10.8.8.8" + kUpdate, kUpdated,
                            kAboutToWrite, pinging + "10.9.9.9" + kUpdate, kUpdated, kUnread,
                            kInfo + "this printer doesn't support ipv6" + kUpdate));
    EXPECT_EQ(NotGivenBack(), 0);
}

TEST(PrinterSettingsTest, SaysWhenTheyCannotBeReadOrWritten) {
    const SnmpMachine machine;
    const LogCapture log;
    Printer ipv6 = At("fe80::1");
    EXPECT_EQ(ipv6.RetrieveSnmpSettings(), 16);
    EXPECT_EQ(ipv6.UpdateSnmpSettings("10.9.9.9", "255.0.0.0", "10.9.0.1"), 16);
    EXPECT_THAT(SnmpMachine::Requests(), IsEmpty());
    // A printer that answers with an error, one that says it is another, one whose text differs.
    for (const char* address : {"10.1.0.13", "10.1.0.11", "010.1.0.1"}) {
        Printer printer = At(address);
        EXPECT_EQ(printer.RetrieveSnmpSettings(), 16) << address;
        EXPECT_FALSE(printer.AreSnmpSettingsRead());
        EXPECT_EQ(printer.GetConfigMethod(), 5U);
    }
    // One that lets nobody write.
    Printer printer = At("10.1.0.3");
    EXPECT_EQ(printer.RetrieveSnmpSettings(), 0);
    EXPECT_EQ(printer.UpdateSnmpSettings("10.9.9.9", "255.0.0.0", "10.9.0.1"), 15);
    EXPECT_THAT(SnmpMachine::pinged, IsEmpty());
    EXPECT_THAT(log.Lines(), ElementsAre(kInfo + "ipv6 doesn't support snmp!" + kRetrieve,
                                         kInfo + "this printer doesn't support ipv6" + kUpdate,
                                         kUnread, kUnread, kUnread, kFound, kAboutToWrite,
                                         kError + "Failed to write the settings 1" + kUpdate));
    EXPECT_EQ(NotGivenBack(), 0);
}

}  // namespace
