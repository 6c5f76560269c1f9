#include <gmock/gmock.h>

#include <sstream>

#include "discovery/Printer.h"
#include "tests/support/SocketsStarted.h"

namespace {

const SocketsStarted sockets;

std::string Dump(const Printer& printer) {
    std::ostringstream out;
    out << printer;
    return out.str();
}

Printer MakePrinter(const std::string& first, const std::string& second) {
    Printer printer;
    printer.SetFirstIPAddress(IPAddress(first));
    printer.SetSecondIPAddress(IPAddress(second));
    printer.SetMacAddress(MacAddress(std::string("0004004a1b2c")));
    printer.SetHostName("prn-01");
    printer.SetModelName("Model 100");
    printer.SetDescription("Office");
    printer.SetDeviceId("MDL:Model 100;");
    return printer;
}

TEST(Printer, PrefersTheFirstAddressAndDumpsItselfOnOneLine) {
    const std::string rest =
        " MacAddress: 0004004a1b2c HostName: prn-01 Gateway:  SubnetMask:  NumPorts: 0 ModelName: "
        "Model 100 Description: Office DeviceID: MDL:Model 100;";
    const struct {
        const char *first, *second, *preferred, *other;
        std::string dump;
    } cases[] = {
        {"10.1.2.3", "fe80::1", "10.1.2.3", "fe80::1",
         "IPAddress: 10.1.2.3IPAddress2: fe80::1" + rest},
        {"10.1.2.3", "", "10.1.2.3", "10.1.2.3",
         "IPAddress: 10.1.2.3IPAddress2: Invalid object" + rest},
        {"none", "fe80::1", "fe80::1", "fe80::1",
         "IPAddress: Invalid objectIPAddress2: fe80::1" + rest},
        {"none", "none", "", "", "Invalid object"},
    };
    for (const auto& c : cases) {
        Printer printer;
        printer = MakePrinter(c.first, c.second);  // copies what is valid
        EXPECT_EQ(printer.GetIPAddress().GetText(), c.preferred);
        EXPECT_EQ(printer.GetOtherIPAddress().GetText(), c.other);
        EXPECT_EQ(printer.IsValid(), *c.preferred != '\0');
        EXPECT_EQ(Dump(printer), c.dump);
        EXPECT_EQ(Dump(Printer(printer)), c.dump);
    }
}

TEST(Printer, InvalidRecordsAndAddressesGiveNothing) {
    Printer target = MakePrinter("10.9.9.9", "fe80::9");
    const std::string before = Dump(target);
    Printer invalid = MakePrinter("none", "");
    invalid.SetHostName("other");
    target = invalid;
    EXPECT_EQ(Dump(target), before);
    EXPECT_EQ(Printer(invalid).GetHostName(), "");
    target = MakePrinter("10.1.2.3", "");
    EXPECT_THAT(Dump(target), testing::StartsWith("IPAddress: 10.1.2.3IPAddress2: fe80::9 Mac"));
}

}  // namespace
