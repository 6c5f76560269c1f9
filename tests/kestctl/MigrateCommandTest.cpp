#include <gmock/gmock.h>

#include "admin/Migration.h"
#include "admin/PortStore.h"
#include "tests/support/FakeMonitor.h"
#include "tests/support/TempFile.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

// Four standard ports; the last one's printer has waiting jobs.
FakeMonitor Server() {
    FakeMonitor monitor;
    const auto port = [&monitor](const wchar_t* name, const char* host) -> StandardPort& {
        monitor.standardPorts.push_back({name, host, "", 9100, 1, "", false, true, "public", 1});
        return monitor.standardPorts.back();
    };
    port(L"IP_10.0.0.1", "10.0.0.1");
    StandardPort& labels = port(L"LABELS", "localhost");
    labels.protocol = 2;
    labels.portNumber = 515;
    labels.queue = "zebra";
    labels.doubleSpool = true;
    labels.snmpEnabled = false;
    port(L"STRANGE", "10.0.0.3").queue = "";
    monitor.standardPorts.back().protocol = 7;
    port(L"IP_10.0.0.4", "10.0.0.4").portNumber = 0;
    monitor.queues = {{L"Laser", {L"IP_10.0.0.1"}},
                      {L"Pool", {L"LPT1:", L"IP_10.0.0.1", L"LABELS"}},
                      {L"Busy", {L"IP_10.0.0.4"}, 3},
                      {L"Other", {L"STRANGE"}}};
    return monitor;
}

// All that there is to change: ports and queues.
std::string State(FakeMonitor& monitor) {
    std::string text = Kestctl(monitor, {"port", "export"});
    for (const Queue& queue : monitor.queues) {
        for (const std::wstring& port : queue.ports) {
            text += ToUtf8(queue.name + L" " + port) + "\n";
        }
    }
    return text;
}

TEST(MigrateCommand, MovesWhatItCanAndTakesItBack) {
    FakeMonitor monitor = Server();
    const std::string before = State(monitor);
    const TempFile file("undo.json");
    EXPECT_THAT(Kestctl(monitor, {"port", "migrate", "--dry-run"}),
                AllOf(HasSubstr("LABELS         LABELS-kestmon       lpr to 127.0.0.1:515, queue "
                                "zebra, double spooled  Pool "),
                      HasSubstr("localhost is 127.0.0.1 now"), HasSubstr("LEFT ALONE: protocol 7"),
                      HasSubstr("jobs wait in Busy")));
    EXPECT_THAT(Failure(monitor, {"port", "migrate"}), HasSubstr("--yes"));
    EXPECT_EQ(State(monitor), before);

    EXPECT_THAT(Failure(monitor, {"port", "migrate", "--yes", "--undo-file", file.Name()}),
                HasSubstr("not all ports are migrated"));
    EXPECT_THAT(monitor.queues[0].ports, ElementsAre(L"IP_10.0.0.1-kestmon"));
    EXPECT_THAT(monitor.queues[2].ports, ElementsAre(L"IP_10.0.0.4"));
    EXPECT_EQ(Destination(monitor.ports[L"LABELS-kestmon"]),
              "lpr to 127.0.0.1:515, queue zebra, double spooled");
    EXPECT_EQ(Destination(monitor.ports[L"IP_10.0.0.4-kestmon"]), "raw to 10.0.0.4:9100");
    EXPECT_THAT(monitor.queues[1].ports,
                ElementsAre(L"LPT1:", L"IP_10.0.0.1-kestmon", L"LABELS-kestmon"));
    // Once more, for the printer that had jobs: what is done stays.
    monitor.queues[2].jobs = 0;
    const TempFile second("undo2.json");
    Failure(monitor, {"port", "migrate", "--yes", "--undo-file", second.Name()});
    EXPECT_THAT(monitor.queues[2].ports, ElementsAre(L"IP_10.0.0.4-kestmon"));
    // The first file gives that printer back, too.
    Kestctl(monitor, {"port", "migrate", "--undo", file.Name()});
    EXPECT_EQ(State(monitor), before);
    Kestctl(monitor, {"port", "migrate", "--undo", file.Name()});
    EXPECT_EQ(State(monitor), before);
}

TEST(MigrateCommand, APortThatFailsIsAsItWasAndTheOthersGoOn) {
    FakeMonitor monitor = Server();
    const TempFile file("undo.json");
    const std::vector<std::string> migrate = {"port",  "migrate",     "IP_*",     "LABELS",
                                              "--yes", "--undo-file", file.Name()};
    monitor.unmovable = L"Pool";
    Failure(monitor, migrate);
    EXPECT_THAT(monitor.queues[0].ports, ElementsAre(L"IP_10.0.0.1"));
    EXPECT_THAT(monitor.queues[1].ports, ElementsAre(L"LPT1:", L"IP_10.0.0.1", L"LABELS"));
    EXPECT_THAT(Kestctl(monitor, {"port", "list"}),
                AllOf(HasSubstr("IP_10.0.0.4-kestmon"), Not(HasSubstr("10.0.0.1")),
                      Not(HasSubstr("LABELS"))));
    // A file that is there is somebody's way back.
    EXPECT_THAT(Failure(monitor, migrate), HasSubstr("cannot be written"));
    // A port that was changed since, or is used by somebody else, is not taken back.
    Kestctl(monitor, {"port", "set", "IP_10.0.0.4-kestmon", "--port", "9101"});
    Failure(monitor, {"port", "migrate", "--undo", file.Name()});
    EXPECT_THAT(Kestctl(monitor, {"port", "list"}), HasSubstr("10.0.0.4:9101"));
    // Names: one for two ports, and two that are taken.
    monitor.otherPorts = {L"LPT1:"};
    for (const char* format : {"same", "IP_10.0.0.4-kestmon", "lpt1:"}) {
        EXPECT_THAT(
            Kestctl(monitor, {"port", "migrate", "IP_*", "--dry-run", "--name-format", format}),
            HasSubstr("LEFT ALONE: "));
    }
}

TEST(MigrateCommand, FollowsThePrintersThatSayWhoTheyAre) {
    FakeMonitor monitor = Server();
    monitor.printer = {"10.0.0.1", "0004004A1B2C", "prn-1"};
    const TempFile file("undo.json");
    Kestctl(monitor, {"port", "migrate", "IP_10.0.0.1", "--follow", "--yes", "--name-format",
                      "OFFICE {address}", "--undo-file", file.Name()});
    const PortRecords& port = monitor.ports[L"OFFICE 10.0.0.1"];
    EXPECT_EQ(FieldText(port.extended.sztHWAddress), "0004004A1B2C");
    EXPECT_EQ(FieldText(port.standard.sztHostAddress), "prn-1");
    EXPECT_EQ(port.extended.dwAlwaysPrint, 1u);
    // It has followed its printer since.
    Kestctl(monitor, {"port", "set", "OFFICE 10.0.0.1", "--ipv6", "fd00::1"});
    Kestctl(monitor, {"port", "migrate", "--undo", file.Name()});
    EXPECT_TRUE(monitor.ports.empty());
}

}  // namespace
