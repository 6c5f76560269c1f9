#include "admin/ports/PortCheck.h"

#include <gmock/gmock.h>

#include <atomic>

#include "admin/ports/PortRepair.h"
#include "admin/search/PrinterSearch.h"
#include "tests/support/FakeMonitor.h"

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const struct {
    const wchar_t* name;
    const char* address;
    const char* mac;
    const char* hostName;
    bool alwaysPrint;
    PortState state;
    const char* found = "";
    testing::Matcher<std::string> detail = testing::_;
} kPorts[] = {
    {L"A", "10.0.0.1", "000400000001", "prn-1", true, PortState::Ok},
    {L"A LOWER", "10.0.0.6", "0004000000ff", "", true, PortState::Ok},
    {L"A SILENT ONE", "10.0.0.2", "000400000002", "", false, PortState::Ok, "", "silent"},
    {L"B", "10.0.0.3", "", "", false, PortState::Unreachable},
    // Found by its MAC address, although another printer has its name.
    {L"C", "10.0.0.4", "000400000004", "prn-4", true, PortState::Moved, "10.0.1.4"},
    {L"D", "10.0.0.5", "000400000005", "prn-5", true, PortState::Moved, "fd00::5"},
    {L"E", "10.0.0.6", "000400000006", "", true, PortState::AnotherPrinter, "10.0.1.6"},
    {L"F", "10.0.0.7", "", "prn-7", true, PortState::Ok},
    {L"G", "10.0.0.8", "", "prn-8", false, PortState::AnotherPrinter},
    {L"H", "10.0.0.9", "000400000009", "prn-9", true, PortState::AnotherPrinter},
    {L"I", "10.0.0.1", "", "", true, PortState::CannotFollow, "",
     HasSubstr("neither a MAC address nor a host name to follow")},
    {L"J", "10.0.0.11", "00040000000B", "", true, PortState::Unreachable, "",
     HasSubstr("from there")},
    {L"K", "", "", "", false, PortState::NotConfigured},
    {L"L SLOW", "10.0.0.12", "000400000012", "", true, PortState::Ok},
    {L"M", "10.0.0.13", "", "", true, PortState::Unreachable, "", HasSubstr("neither")},
    {L"N", "10.0.0.2", "000400000002", "", true, PortState::NotRecognised, "", "silent"},
    {L"O", "10.0.0.8", "000400000008", "", true, PortState::NotRecognised, "",
     "announces only other"},
    {L"P", "10.0.0.9", "0004000000FE", "", true, PortState::NotRecognised, "",
     HasSubstr("does not answer the search")},
    // Nothing proves that it is not the port's own printer, at another of its addresses.
    {L"Q", "10.0.0.2", "000400000044", "", true, PortState::NotRecognised, "",
     HasSubstr("at 10.0.1.40")},
};

class PortCheckTest : public testing::Test {
  protected:
    PortCheckTest() {
        for (const auto& port : kPorts) {
            PortRecords& records = monitor.ports[port.name];
            if (*port.address != '\0') {
                PortChange change;
                change.address = port.address;
                change.mac = port.mac;
                change.hostName = port.hostName;
                Apply(change, records);
                records.extended.dwAlwaysPrint = port.alwaysPrint;
            }
        }
    }
    CheckNetwork Network() {
        return {[this](const std::string& host, DWORD, std::chrono::milliseconds timeout) {
                    const bool there = at.count(host) != 0 && (host != "10.0.0.12" || timeout > 2s);
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
                    return noFile ? throw NoSearchFile("no file") : found;
                }};
    }
    std::vector<CheckedPort> Check(const std::vector<std::wstring>& wanted = {}) {
        return CheckPorts(*channel, wanted, Network(), 3s, [](size_t, size_t) {});
    }

    static std::vector<RepairResult> Results(const std::vector<CheckedPort>& ports) {
        return {ports.begin(), ports.end()};
    }

    // Printers by address; one without a MAC address and a name does not answer who it is.
    const std::map<std::string, PrinterIdentity> at = {{"10.0.0.1", {"", "000400000001", "prn-1"}},
                                                       {"10.0.0.2", {}},
                                                       {"10.0.0.6", {"", "0004000000FF", "other"}},
                                                       {"10.0.0.7", {"", "", "PRN-7"}},
                                                       {"10.0.0.8", {"", "", "other"}},
                                                       {"10.0.0.9", {"", "0004000000FE", "prn-9"}},
                                                       {"10.0.0.12", {"", "000400000012", ""}}};
    const std::vector<PrinterIdentity> found = {
        {"10.0.1.40", "000400000044", "prn-4"},  {"10.0.1.4", "000400000004", "prn-x"},
        {"fd00::5", "0004000000AA", "PRN-5"},    {"10.0.1.6", "000400000006", "prn-6"},
        {"10.0.0.11", "00040000000B", "prn-11"}, {"10.0.0.1", "000400000001", "prn-1"},
        {"10.0.0.6", "0004000000FF", "other"},   {"10.0.0.7", "", "PRN-7"},
        {"10.0.0.12", "000400000012", ""}};
    std::atomic<int> searches = 0;
    std::atomic<int> asked = 0;
    bool noFile = false;
    FakeMonitor monitor;
    const std::unique_ptr<SpoolerChannel> channel = monitor.Factory()();
};

TEST_F(PortCheckTest, TellsTheStateOfEachPort) {
    const std::vector<CheckedPort> ports = Check();
    ASSERT_EQ(ports.size(), std::size(kPorts));
    for (size_t i = 0; i < ports.size(); ++i) {
        EXPECT_EQ(ports[i].name, kPorts[i].name);
        EXPECT_EQ(ports[i].state, kPorts[i].state) << ports[i].name;
        EXPECT_EQ(ports[i].found, kPorts[i].found) << ports[i].name;
        EXPECT_THAT(ports[i].detail, kPorts[i].detail) << ports[i].name;
        EXPECT_LE(ports[i].connection.took, 3s) << ports[i].name;
    }
    EXPECT_EQ(searches, 1);
    EXPECT_EQ(asked, 3) << "the search names the others, and one answer counts for all";
    Check({L"B"});
    EXPECT_EQ(searches, 1) << "it has nothing to be searched by";
}

TEST_F(PortCheckTest, ARepairKeepsWhatWasSetSinceTheCheck) {
    const std::vector<CheckedPort> ports = Check();
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
}

// Ports A, C, D and E, of printers that DNS-SD alone finds.
TEST_F(PortCheckTest, DnsSdFindsPrintersThatDoNotAnswerSlp) {
    const auto announced = [](const char* address, const char* mac, const char* name) {
        return PrinterIdentity{address, mac, name, SearchSource::DnsSd};
    };
    monitor.ports[L"D"].extended.dwAlwaysPrint = 0;
    monitor.ports[L"D"].extended.sztHWAddress[0] = 0;
    CheckNetwork network = Network();
    network.search = []() -> std::vector<PrinterIdentity> { throw NoSearchFile("no file"); };
    network.searchDnsSd = [&] {
        return std::vector<PrinterIdentity>{
            announced("10.0.0.1", "", "prn-1"), announced("10.0.1.4", "", "prn-4"),
            announced("10.0.1.5", "", "PRN-5"), announced("10.0.1.6", "000400000006", "x")};
    };
    std::vector<RepairResult> results =
        Results(CheckPorts(*channel, {L"A", L"C", L"D", L"E"}, network, 3s, [](size_t, size_t) {}));
    RepairPorts(
        *channel, false, [] { return true; }, results);
    EXPECT_EQ(results[0].port.state, PortState::NoConfiguration) << "no job can follow";
    EXPECT_EQ(results[1].port.found, "") << "a name is not enough for a port with a MAC address";
    EXPECT_TRUE(results[2].repaired) << "without `always print`, too";
    EXPECT_EQ(AddressInUse(monitor.ports[L"D"]), "10.0.1.5");

    network.search = [] { return std::vector<PrinterIdentity>(); };
    const auto again = CheckPorts(*channel, {L"A", L"E"}, network, 3s, [](size_t, size_t) {});
    EXPECT_EQ(again[0].state, PortState::NotRecognised);
    EXPECT_THAT(again[0].detail, HasSubstr("by DNS-SD, but does not answer"));
    EXPECT_EQ(again[1].found, "10.0.1.6") << "by its MAC address";

    network.searchDnsSd = [&] {
        return std::vector<PrinterIdentity>{announced("10.0.0.1", "", "x"),
                                            announced("10.0.1.9", "", "prn-1")};
    };
    const auto attacked = CheckPorts(*channel, {L"A"}, network, 3s, [](size_t, size_t) {});
    EXPECT_EQ(attacked[0].state, PortState::NotRecognised) << "its address takes connections";
    EXPECT_EQ(attacked[0].found, "");
}

TEST_F(PortCheckTest, ADryRunAndCtrlCRepairNothing) {
    monitor.ports[L"D"].extended.dwAlwaysPrint = 0;
    std::vector<RepairResult> results = Results(Check({L"A", L"C", L"D", L"E"}));
    std::vector<RepairResult> interrupted = results;
    RepairPorts(
        *channel, true, [] { return true; }, results);
    EXPECT_FALSE(results[0].wouldBeRepaired || results[0].failure) << "its printer is at its place";
    EXPECT_TRUE(results[1].wouldBeRepaired && !results[1].repaired && !results[1].IsWell());
    EXPECT_TRUE(results[2].failure && !results[2].wouldBeRepaired) << "it does not follow";
    int asked = 0;
    RepairPorts(
        *channel, false, [&asked] { return ++asked == 1; }, interrupted);
    EXPECT_TRUE(interrupted[1].repaired && interrupted[1].IsWell());
    EXPECT_THAT(interrupted[3].failure.value().what(), HasSubstr("Ctrl-C"));
    EXPECT_EQ(AddressInUse(monitor.ports[L"C"]), "10.0.1.4");
    EXPECT_EQ(AddressInUse(monitor.ports[L"E"]), "10.0.0.6");
}

TEST_F(PortCheckTest, WithoutASearchFileNoPrinterIsAsked) {
    noFile = true;
    std::vector<PortState> states;
    for (const CheckedPort& port : Check({L"A", L"A SILENT ONE", L"I", L"J"})) {
        states.push_back(port.state);
    }
    EXPECT_THAT(states, ElementsAre(PortState::NoConfiguration, PortState::Ok,
                                    PortState::CannotFollow, PortState::Unreachable));
    EXPECT_EQ(asked, 0);
}

}  // namespace
