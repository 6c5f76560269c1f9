#include <gmock/gmock.h>

#include "admin/ports/Migration.h"
#include "admin/ports/PortStore.h"
#include "tests/kestctl/CommandLine.h"
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
            text += WideToUtf8(queue.name + L" " + port) + "\n";
        }
    }
    return text;
}

class MigrateCommand : public testing::Test {
  protected:
    // `port migrate ARGUMENT... --yes`, with the file to undo it.
    std::vector<std::string> Command(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"port", "migrate"});
        arguments.insert(arguments.end(), {"--yes", "--undo-file", file.Name()});
        return arguments;
    }

    FakeMonitor monitor = Server();
    const TempFile file{"undo.json"};
    const std::vector<std::string> undo = {"port", "migrate", "--undo", file.Name()};
};

TEST_F(MigrateCommand, MovesWhatItCanAndTakesItBack) {
    const std::string before = State(monitor);
    EXPECT_THAT(Kestctl(monitor, {"port", "migrate", "--dry-run"}),
                AllOf(HasSubstr("LABELS         LABELS-kestmon       lpr to 127.0.0.1:515, queue "
                                "zebra, double spooled  Pool "),
                      HasSubstr("localhost has the address 127.0.0.1"),
                      HasSubstr("NOT MIGRATED: protocol 7"), HasSubstr("jobs wait in Busy")));
    EXPECT_THAT(Failure(monitor, {"port", "migrate"}), HasSubstr("--yes"));
    EXPECT_EQ(State(monitor), before);

    EXPECT_THAT(Failure(monitor, Command({})), HasSubstr("2 ports could not be migrated"));
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
    const std::string after = State(monitor);
    EXPECT_THAT(Kestctl(monitor, {"port", "migrate", "--undo", file.Name(), "--dry-run"}),
                AllOf(HasSubstr("IP_10.0.0.4-kestmon  IP_10.0.0.4"), HasSubstr("Dry run")));
    EXPECT_EQ(State(monitor), after);
    EXPECT_EQ(Kestctl(monitor, undo), "3 ports undone\n");
    EXPECT_EQ(State(monitor), before);
    EXPECT_EQ(Kestctl(monitor, undo), "0 ports undone, 3 ports unchanged since\n");
    EXPECT_EQ(State(monitor), before);
}

TEST_F(MigrateCommand, APrinterWithOneWaitingJobStays) {
    monitor.queues[0].jobs = 1;
    EXPECT_THAT(Kestctl(monitor, {"port", "migrate", "IP_10.0.0.1", "--dry-run"}),
                HasSubstr("not moved: print jobs wait in Laser"));
    // The job comes between the plan and the move.
    monitor.queues[0].jobs = 0;
    monitor.added = [this] { monitor.queues[0].jobs = 1; };
    Failure(monitor, Command({"IP_10.0.0.1", "--json"}));
    EXPECT_THAT(monitor.queues[0].ports, ElementsAre(L"IP_10.0.0.1"));
    const auto port = nlohmann::json::parse(monitor.printed)["ports"][0];
    EXPECT_EQ(port["waiting"], nlohmann::json({"Laser"}));
    EXPECT_EQ(port["moved"], nlohmann::json({"Pool"}));
}

TEST_F(MigrateCommand, ThePlanShowsWhatTheNewPortsCannotDo) {
    monitor = {};
    StandardPort lpr = {L"LPR", "10.0.0.1", "", 515, 2, "q", true, false, "", 1};
    monitor.standardPorts = {lpr};
    lpr.name = L"LPR PLAIN";
    lpr.doubleSpool = false;
    monitor.standardPorts.push_back(lpr);
    // SNMP status without a community is not configured.
    monitor.standardPorts.push_back({L"RAW", "10.0.0.2", "", 9100, 1, "", false, true, "", 1});
    const auto plan = Json(monitor, {"port", "migrate", "--dry-run"})["ports"];
    ASSERT_EQ(plan.size(), 3u);
    EXPECT_THAT(plan[0]["remark"].get<std::string>(), HasSubstr("after 2 GiB in total"));
    EXPECT_THAT(plan[1]["remark"].get<std::string>(), HasSubstr("each job takes 4 s longer"));
    EXPECT_EQ(plan[2]["remark"], "");
    ASSERT_TRUE(plan[2].contains("settings")) << plan[2];
    EXPECT_EQ(plan[2]["settings"]["snmp"]["enabled"], false) << plan[2];
}

TEST_F(MigrateCommand, WrongArgumentsAndNothingToDo) {
    EXPECT_THAT(Failure(monitor, {"port", "migrate", "LABELS", "nosuch*", "--dry-run"}),
                AllOf(HasSubstr("no standard TCP/IP port nosuch*"),
                      HasSubstr("`kestctl port migrate --dry-run` shows")));
    for (const char* format : {"{name}-{nmae}", "x{", "}", ""}) {
        EXPECT_THROW(Kestctl(monitor, {"port", "migrate", "--dry-run", "--name-format", format}),
                     CLI::ValidationError);
    }
    EXPECT_THAT(Kestctl(monitor, {"port", "migrate", "LABELS", "--dry-run", "--name-format",
                                  "{name}/{name}"}),
                HasSubstr(" LABELS/LABELS "));
    EXPECT_THAT(Failure(monitor, {"port", "migrate", "--undo", "no-such-file"}), HasSubstr("(2)"));

    Kestctl(monitor, Command({"LABELS"}));
    // No file is written for a way back that nobody needs: the name of this one is taken.
    EXPECT_THAT(Kestctl(monitor, Command({"LABELS"})),
                HasSubstr("0 ports migrated, 1 port already migrated\n"));
}

TEST_F(MigrateCommand, UndoRefusesAFileOfAnotherServerOrWithWrongSettings) {
    Kestctl(monitor, Command({"LABELS"}));
    const std::string migrated = State(monitor);
    const auto written = nlohmann::json::parse(std::ifstream(file.Name()));
    const auto refusal = [&](const nlohmann::json& document) {
        file.Write(document.dump());
        const std::string failure = Failure(monitor, undo);
        EXPECT_EQ(State(monitor), migrated);
        return failure;
    };
    auto document = written;
    document["server"] = "PRINT2";
    EXPECT_THAT(refusal(document), HasSubstr("with --server PRINT2. Undo it in the same way"));
    document = written;
    document["ports"][0]["settings"]["portNumber"] = 70000;
    EXPECT_THAT(refusal(document), HasSubstr("the settings of port LABELS-kestmon are wrong: "));
    document = written;
    document["ports"][0].erase("queues");
    EXPECT_THAT(refusal(document), HasSubstr("is not a file that `port migrate` wrote"));
    EXPECT_THAT(refusal("text"), HasSubstr("is not a file that `port migrate` wrote"));
    file.Write(written.dump());
    EXPECT_EQ(Kestctl(monitor, undo), "1 port undone\n");
}

FakeMonitor Office() {
    FakeMonitor monitor;
    Kestctl(monitor, {"port", "add", "OFFICE", "--address", "10.0.0.1", "--mac", "0004004A1B2C",
                      "--always-print", "--snmp", "pub"});
    Kestctl(monitor, {"port", "add", "OTHER", "--address", "10.0.0.2"});
    monitor.otherPorts = {L"LPT1:"};
    monitor.queues = {{L"Laser", {L"LPT1:", L"OFFICE"}}, {L"Color", {L"OFFICE"}}};
    return monitor;
}

TEST(RenameCommand, MovesThePrinters) {
    FakeMonitor monitor = Office();
    const std::string before = State(monitor);
    EXPECT_THAT(Kestctl(monitor, {"port", "rename", "OFFICE", "HALL", "--dry-run"}),
                HasSubstr("would be renamed to HALL, with the printers Laser, Color"));
    EXPECT_EQ(State(monitor), before);
    EXPECT_EQ(Json(monitor, {"port", "rename", "office", "HALL"}),
              nlohmann::json::parse(R"({"name": "HALL", "before": "OFFICE", "dryRun": false,
                                        "moved": ["Laser", "Color"]})"));
    std::string expected = before;
    for (size_t at = 0; (at = expected.find("OFFICE")) != expected.npos;) {
        expected.replace(at, 6, "HALL");
    }
    EXPECT_EQ(State(monitor), expected);
    // The new name is the shorter one: nothing of the old one may be left in the records.
    EXPECT_STREQ(monitor.ports[L"HALL"].standard.sztPortName, L"HALL");
    EXPECT_STREQ(monitor.ports[L"HALL"].extended.sztPortName, L"HALL");
}

TEST(RenameCommand, AFailureChangesNothing) {
    const struct {
        const char* failure;
        std::function<void(FakeMonitor&)> prepare;
        const char* newName = "HALL";
    } cases[] = {
        {"cannot be added", [](FakeMonitor& m) { m.refused = L"HALL"; }},
        {"all changes were undone", [](FakeMonitor& m) { m.refused = L"OFFICE"; }},
        {"all changes were undone", [](FakeMonitor& m) { m.unmovable = L"Color"; }},
        {"print jobs wait in Color", [](FakeMonitor& m) { m.queues[1].jobs = 1; }},
        {"print jobs arrived in Color; all changes were undone",
         [](FakeMonitor& m) { m.added = [&m] { m.queues[1].jobs = 1; }; }},
        {"a printer was added to the port: New; all changes were undone",
         [](FakeMonitor& m) { m.added = [&m] {
                                  m.queues.push_back({L"New", {L"OFFICE"}});
                              }; }},
        {"port OTHER already exists", [](FakeMonitor&) {}, "other"},
        {"belongs to a port of another monitor", [](FakeMonitor&) {}, "lpt1:"},
        {"the printers are hidden", [](FakeMonitor& m) { m.hidesQueues = true; }},
    };
    for (const auto& [failure, prepare, newName] : cases) {
        FakeMonitor monitor = Office();
        const std::string before = State(monitor);
        prepare(monitor);
        EXPECT_THAT(Failure(monitor, {"port", "rename", "OFFICE", newName}), HasSubstr(failure));
        std::erase_if(monitor.queues, [](const Queue& queue) { return queue.name == L"New"; });
        EXPECT_EQ(State(monitor), before) << failure;
    }
}

TEST_F(MigrateCommand, APortThatFailsIsAsItWasAndTheOthersGoOn) {
    const std::vector<std::string> migrate = Command({"IP_*", "LABELS"});
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
    Failure(monitor, undo);
    EXPECT_THAT(Kestctl(monitor, {"port", "list"}), HasSubstr("10.0.0.4:9101"));
    // Names: one for two ports, and two that are taken.
    monitor.otherPorts = {L"LPT1:"};
    for (const char* format : {"same", "IP_10.0.0.4-kestmon", "lpt1:"}) {
        EXPECT_THAT(
            Kestctl(monitor, {"port", "migrate", "IP_*", "--dry-run", "--name-format", format}),
            HasSubstr("NOT MIGRATED: "));
    }
}

TEST_F(MigrateCommand, FollowsThePrintersThatSayWhoTheyAre) {
    monitor.printers = {{"10.0.0.1", {"10.0.0.1", "0004004A1B2C", "prn-1"}}};
    Kestctl(monitor, Command({"IP_10.0.0.1", "--follow", "--name-format", "OFFICE {address}"}));
    const PortRecords& port = monitor.ports[L"OFFICE 10.0.0.1"];
    EXPECT_EQ(FieldText(port.extended.sztHWAddress), "0004004A1B2C");
    EXPECT_EQ(FieldText(port.standard.sztHostAddress), "prn-1");
    EXPECT_EQ(port.extended.dwAlwaysPrint, 1u);
    // It has followed its printer since.
    Kestctl(monitor, {"port", "set", "OFFICE 10.0.0.1", "--ipv6", "fd00::1"});
    Kestctl(monitor, undo);
    EXPECT_TRUE(monitor.ports.empty());
}

// Moves printers away from standard ports only.
struct RefusesToMoveBack : FakeChannel {
    using FakeChannel::FakeChannel;
    void MoveQueue(const std::wstring& queue, const std::vector<std::wstring>& to) override {
        if (QueuesOn({{queue, to}}, L"IP_10.0.0.1").size() == 1) {
            throw CommandFailed("printer cannot be moved back");
        }
        FakeChannel::MoveQueue(queue, to);
    }
};

TEST_F(MigrateCommand, AFailedRollbackReportsWhatRemains) {
    // Laser is moved, Pool cannot be, and then Laser cannot be moved back.
    monitor.unmovable = L"Pool";
    RefusesToMoveBack channel(monitor);
    const auto plan =
        PlanMigration(channel, {{L"IP_10.0.0.1"}, "{name} new", {}, {}}, [](size_t, size_t) {});
    const MigrationResult result = Migrate(channel, plan[0]);
    EXPECT_THAT(result.moved, ElementsAre(L"Laser"));
    EXPECT_THAT(result.failure, HasSubstr("not all changes could be undone"));
    // The port itself cannot be configured, and cannot be deleted.
    FakeMonitor other = Server();
    other.failing = {{L"SetConfigExData", ERROR_ACCESS_DENIED}, {L"DeletePort", ERROR_BUSY}};
    Failure(other, Command({"IP_10.0.0.1", "--json"}));
    const auto port = nlohmann::json::parse(other.printed)["ports"][0];
    EXPECT_EQ(port["name"], "IP_10.0.0.1-kestmon");
    EXPECT_THAT(port["error"].get<std::string>(),
                AllOf(HasSubstr("incomplete port remains"), Not(HasSubstr("were undone"))));
}

TEST_F(MigrateCommand, UndoDryRunShowsThePresentState) {
    Kestctl(monitor, Command({"LABELS"}));
    // Nothing is left to do, and no terminal is needed to hear that.
    EXPECT_THAT(Kestctl(monitor, {"port", "migrate", "LABELS"}), HasSubstr("already migrated"));
    std::vector<std::string> dryRun = undo;
    dryRun.emplace_back("--dry-run");
    EXPECT_THAT(Kestctl(monitor, dryRun), HasSubstr("Pool      is deleted"));
    monitor.queues[0].ports = {L"LABELS-kestmon"};
    EXPECT_THAT(Kestctl(monitor, dryRun), HasSubstr("no change  port LABELS-kestmon stays: Laser"));
}

}  // namespace
