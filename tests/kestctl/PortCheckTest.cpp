#include "admin/PortCheck.h"

#include <gmock/gmock.h>

#include <atomic>

#include "admin/PrinterSearch.h"
#include "tests/support/FakeMonitor.h"

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

// A network of printers by address; who has no MAC address and no name does not say who it is.
struct FakePrinters {
    std::map<std::string, PrinterIdentity> at;
    std::vector<PrinterIdentity> found = {};
    std::atomic<int> searches = 0;
    std::atomic<int> asked = 0;
    bool noFile = false;
    std::string slow = {};  // takes its time

    CheckNetwork Network() {
        return {[this](const std::string& host, DWORD, std::chrono::milliseconds timeout) {
                    const bool there = at.count(host) != 0 && (host != slow || timeout > 2s);
                    return Connection{there ? "" : "dark", timeout, !there};
                },
                [this](const std::string& host) {
                    ++asked;
                    if (at.at(host).mac.empty() && at.at(host).hostName.empty()) {
                        throw CommandFailed("silent");
                    }
                    PrinterIdentity printer = at.at(host);
                    printer.address = host;
                    return printer;
                },
                [this] {
                    ++searches;
                    if (noFile) {
                        throw NoSearchFile("no file");
                    }
                    return found;
                }};
    }
};

TEST(PortCheck, TellsTheStateOfEachPortAndRepairsIt) {
    const auto printer = [](const char* mac, const char* name, const char* address = "") {
        return PrinterIdentity{address, mac, name};
    };
    FakePrinters printers = {{{"10.0.0.1", printer("000400000001", "prn-1")},
                              {"10.0.0.2", printer("", "")},
                              {"10.0.0.6", printer("0004000000FF", "other")},
                              {"10.0.0.7", printer("", "PRN-7")},
                              {"10.0.0.8", printer("", "other")},
                              {"10.0.0.9", printer("0004000000FE", "prn-9")},
                              {"10.0.0.12", printer("000400000012", "")}}};
    printers.slow = "10.0.0.12";
    printers.found = {printer("000400000044", "prn-4", "10.0.1.40"),
                      printer("000400000004", "prn-x", "10.0.1.4"),
                      printer("0004000000AA", "PRN-5", "fd00::5"),
                      printer("000400000006", "prn-6", "10.0.1.6"),
                      printer("00040000000B", "prn-11", "10.0.0.11"),
                      printer("000400000001", "prn-1", "10.0.0.1"),
                      printer("0004000000FF", "other", "10.0.0.6"),
                      printer("", "PRN-7", "10.0.0.7"),
                      printer("000400000012", "", "10.0.0.12")};
    const struct {
        const wchar_t* name;
        const char* address;
        const char* mac;
        const char* hostName;
        bool alwaysPrint;
        PortState state;
        const char* found;
    } cases[] = {
        {L"A", "10.0.0.1", "000400000001", "prn-1", true, PortState::Ok, ""},
        {L"A LOWER", "10.0.0.6", "0004000000ff", "", true, PortState::Ok, ""},
        {L"A SILENT ONE", "10.0.0.2", "000400000002", "", false, PortState::Ok, ""},
        {L"B", "10.0.0.3", "", "", false, PortState::Unreachable, ""},
        // By its MAC address, though somebody else has its name.
        {L"C", "10.0.0.4", "000400000004", "prn-4", true, PortState::Moved, "10.0.1.4"},
        {L"D", "10.0.0.5", "000400000005", "prn-5", true, PortState::Moved, "fd00::5"},
        {L"E", "10.0.0.6", "000400000006", "", true, PortState::AnotherPrinter, "10.0.1.6"},
        {L"F", "10.0.0.7", "", "prn-7", true, PortState::Ok, ""},
        {L"G", "10.0.0.8", "", "prn-8", false, PortState::AnotherPrinter, ""},
        {L"H", "10.0.0.9", "000400000009", "prn-9", true, PortState::AnotherPrinter, ""},
        {L"I", "10.0.0.1", "", "", true, PortState::CannotFollow, ""},
        {L"J", "10.0.0.11", "00040000000B", "", true, PortState::Unreachable, ""},
        {L"K", "", "", "", false, PortState::NotConfigured, ""},
        {L"L SLOW", "10.0.0.12", "000400000012", "", true, PortState::Ok, ""},
        {L"M", "10.0.0.13", "", "", true, PortState::Unreachable, ""},
        {L"N", "10.0.0.2", "000400000002", "", true, PortState::NotRecognised, ""},
        {L"O", "10.0.0.8", "000400000008", "", true, PortState::NotRecognised, ""},
        {L"P", "10.0.0.9", "0004000000FE", "", true, PortState::NotRecognised, ""},
        // Nothing proves that it is not the port's own printer, at another of its addresses.
        {L"Q", "10.0.0.2", "000400000044", "", true, PortState::NotRecognised, ""},
    };
    FakeMonitor monitor;
    for (const auto& c : cases) {
        PortRecords& records = monitor.ports[c.name];
        if (*c.address != '\0') {
            PortChange change;
            change.address = c.address;
            change.mac = c.mac;
            change.hostName = c.hostName;
            Apply(change, records);
            records.extended.dwAlwaysPrint = c.alwaysPrint;
        }
    }
    const auto channel = monitor.Factory()();
    const auto check = [&](const std::vector<std::wstring>& wanted) {
        return CheckPorts(*channel, wanted, printers.Network(), 3s, [](size_t, size_t) {});
    };
    const std::vector<CheckedPort> ports = check({});
    ASSERT_EQ(ports.size(), std::size(cases));
    for (size_t i = 0; i < ports.size(); ++i) {
        EXPECT_EQ(ports[i].name, cases[i].name);
        EXPECT_EQ(ports[i].state, cases[i].state) << ports[i].name;
        EXPECT_EQ(ports[i].found, cases[i].found) << ports[i].name;
    }
    EXPECT_EQ(printers.searches, 1);
    EXPECT_EQ(printers.asked, 3) << "the search names the others, and one answer counts for all";
    EXPECT_EQ(ports[2].detail, "silent");
    EXPECT_THAT(ports[11].detail, HasSubstr("from there"));
    EXPECT_THAT(ports[14].detail, HasSubstr("neither"));
    EXPECT_EQ(ports[15].detail, "silent");
    EXPECT_EQ(ports[16].detail, "announces only other");
    EXPECT_THAT(ports[17].detail, HasSubstr("does not answer the search"));
    EXPECT_THAT(ports[18].detail, HasSubstr("at 10.0.1.40"));
    for (const CheckedPort& port : ports) {
        EXPECT_LE(port.connection.took, 3s) << port.name;
    }

    // What was set since the check stays.
    monitor.ports[L"C"].standard.dwPortNumber = 9101;
    for (const CheckedPort& port : ports) {
        if (!port.found.empty()) {
            RepairPort(*channel, port);
        }
    }
    EXPECT_EQ(Destination(monitor.ports[L"C"]), "raw to 10.0.1.4:9101");
    EXPECT_EQ(AddressInUse(monitor.ports[L"D"]), "fd00::5");
    EXPECT_EQ(FieldText(monitor.ports[L"D"].standard.sztIPAddress), "10.0.0.5");
    EXPECT_EQ(AddressInUse(monitor.ports[L"E"]), "10.0.1.6");
    const auto states = [&](const std::vector<std::wstring>& wanted) {
        std::vector<PortState> result;
        for (const CheckedPort& port : check(wanted)) {
            result.push_back(port.state);
        }
        return result;
    };
    check({L"B"});
    EXPECT_EQ(printers.searches, 1) << "it has nothing to be searched by";
    printers.noFile = true;
    EXPECT_THAT(states({L"A", L"A SILENT ONE", L"I", L"J"}),
                ElementsAre(PortState::NoConfiguration, PortState::Ok, PortState::CannotFollow,
                            PortState::Unreachable));
    EXPECT_EQ(printers.asked, 3);
    const CheckedPort tested = TestPort(L"N", monitor.ports[L"N"], printers.Network(), 3s);
    EXPECT_EQ(tested.state, PortState::NotRecognised);
    EXPECT_EQ(TestPort(L"A", monitor.ports[L"A"], printers.Network(), 3s).state, PortState::Ok);
}

}  // namespace
