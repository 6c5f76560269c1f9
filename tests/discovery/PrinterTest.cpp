#include <gmock/gmock.h>

#include <sstream>

#include "discovery/Printer.h"

namespace {

const bool socketsStarted = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}();

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

TEST(Printer, PrefersTheFirstAddressAndFallsBackToTheOther) {
    struct Case {
        const char *first, *second, *preferred, *other;
    };
    const Case cases[] = {
        {"10.1.2.3", "fe80::1", "10.1.2.3", "fe80::1"},
        {"10.1.2.3", "", "10.1.2.3", "10.1.2.3"},
        {"none", "fe80::1", "fe80::1", "fe80::1"},
        {"none", "none", "", ""},
    };
    for (const auto& [first, second, preferred, other] : cases) {
        Printer printer;
        printer.SetFirstIPAddress(IPAddress(std::string(first)));
        printer.SetSecondIPAddress(IPAddress(std::string(second)));
        EXPECT_EQ(printer.GetIPAddress().GetText(), preferred);
        EXPECT_EQ(printer.GetOtherIPAddress().GetText(), other);
        EXPECT_EQ(printer.IsValid(), *preferred != '\0');
    }
}

TEST(Printer, DumpsItselfOnOneLine) {
    EXPECT_EQ(Dump(MakePrinter("10.1.2.3", "fe80::1")),
              "IPAddress: 10.1.2.3IPAddress2: fe80::1 MacAddress: 0004004a1b2c HostName: prn-01 "
              "Gateway:  SubnetMask:  NumPorts: 0 ModelName: Model 100 Description: Office "
              "DeviceID: MDL:Model 100;");
    EXPECT_THAT(Dump(MakePrinter("", "10.1.2.3")),
                testing::StartsWith("IPAddress: Invalid objectIPAddress2: 10.1.2.3 Mac"));
    EXPECT_EQ(Dump(Printer()), "Invalid object");
    EXPECT_EQ(Dump(MakePrinter("none", "")), "Invalid object");
}

TEST(Printer, ValidRecordsAreCopiedWhole) {
    const Printer source = MakePrinter("10.1.2.3", "fe80::1");
    EXPECT_EQ(Dump(Printer(source)), Dump(source));

    // An invalid second address does not wipe out the target's.
    Printer target = MakePrinter("10.9.9.9", "fe80::9");
    target = MakePrinter("10.1.2.3", "");
    EXPECT_EQ(target.GetFirstIPAddress().GetText(), "10.1.2.3");
    EXPECT_EQ(target.GetSecondIPAddress().GetText(), "fe80::9");
}

TEST(Printer, InvalidRecordsGiveNothing) {
    Printer invalid;
    invalid.SetHostName("other");
    Printer target = MakePrinter("10.1.2.3", "");
    const std::string before = Dump(target);
    target = invalid;
    EXPECT_EQ(Dump(target), before);
    EXPECT_EQ(Printer(invalid).GetHostName(), "");
}

}  // namespace
