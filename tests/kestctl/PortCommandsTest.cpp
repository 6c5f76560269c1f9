#include "admin/ports/PortStore.h"

#include <gmock/gmock.h>

#include "tests/kestctl/CommandLine.h"
#include "kestctl/Interruption.h"

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

FakeMonitor RawAndLpr() {
    FakeMonitor monitor;
    EXPECT_EQ(Kestctl(monitor, {"port", "add", "B\u00fcro", "--address", "10.0.0.1", "--mac",
                                "00-04-00-4a-1b-2c", "--always-print"}),
              "port B\u00fcro added: raw to 10.0.0.1:9100\n");
    Kestctl(monitor, {"port", "add", "LAGER", "--address", "10.0.0.2", "--protocol", "lpr"});
    return monitor;
}

TEST(PortCommands, AddAndShow) {
    FakeMonitor monitor;
    EXPECT_THAT(Kestctl(monitor, {"port", "list"}), HasSubstr("kestctl port add"));
    EXPECT_EQ(Kestctl(monitor, {"port", "list", "--json"}), "[]\n");
    monitor = RawAndLpr();
    EXPECT_EQ(Json(monitor, {"port", "show", "LAGER"}),
              json::parse(R"({"name": "LAGER", "configured": true, "protocol": "lpr",
                  "address": "10.0.0.2", "ipv6Host": "", "useIPv6": false, "portNumber": 515,
                  "queue": "lp", "doubleSpool": false, "hostName": "", "mac": "",
                  "alwaysPrint": false, "usedBy": [],
                  "snmp": {"enabled": false, "community": "", "index": 0}})"));
    EXPECT_EQ(Json(monitor, {"port", "add", "KELLER", "--address", "localhost"})["address"],
              "127.0.0.1");
    // Without the right to administer, the names are all there is.
    monitor.failing[L"GetConfigInfo"] = ERROR_ACCESS_DENIED;
    EXPECT_EQ(Json(monitor, {"port", "list"})[1],
              json::parse(R"({"name": "KELLER", "usedBy": []})"));
}

// By any letter case; what is not mentioned stays.
TEST(PortCommands, SetReportsWhatItChanged) {
    FakeMonitor monitor = RawAndLpr();
    EXPECT_EQ(Kestctl(monitor,
                      {"port", "set", "b\u00dcro", "--address", "10.0.0.9", "--no-always-print"}),
              "port B\u00fcro set: raw to 10.0.0.9:9100\n"
              "  address: 10.0.0.1 -> 10.0.0.9\n  alwaysPrint: true -> false\n");
    EXPECT_THAT(Kestctl(monitor, {"port", "set", "b\u00dcro", "--address", "10.0.0.9"}),
                HasSubstr("no change"));
    EXPECT_EQ(Json(monitor, {"port", "set", "LAGER", "--snmp", "public"})["changed"],
              json::parse(R"({"snmp/community": {"from": "", "to": "public"},
                  "snmp/enabled": {"from": false, "to": true},
                  "snmp/index": {"from": 0, "to": 1}})"));
    const json port = Json(monitor, {"port", "show", "b\u00fcro"});
    EXPECT_EQ(port["name"], "B\u00fcro");
    EXPECT_EQ(port["address"], "10.0.0.9");
    EXPECT_EQ(port["mac"], "0004004A1B2C");
    EXPECT_EQ(port["alwaysPrint"], false);
    const json list = Json(monitor, {"port", "list"});
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0], port);
}

TEST(PortCommands, PortsThatPrintersUseAreNotDeleted) {
    FakeMonitor monitor = RawAndLpr();
    monitor.queues = {{L"Laser", {L"b\u00fcro", L"LPT1:"}}, {L"Color", {L"B\u00fcro"}}};
    EXPECT_EQ(
        Kestctl(monitor, {"port", "list"}),
        "PORT   SENDS                          MAC           ALWAYS PRINT  USED BY\n"
        "B\u00fcro   raw to 10.0.0.1:9100           0004004A1B2C  yes           Laser, Color\n"
        "LAGER  lpr to 10.0.0.2:515, queue lp  -             no            -\n");
    monitor.hidesQueues = true;
    EXPECT_THAT(Kestctl(monitor, {"port", "list"}), HasSubstr(" no            ?\n"));
    EXPECT_TRUE(Json(monitor, {"port", "show", "LAGER"})["usedBy"].is_null());
    EXPECT_THAT(Failure(monitor, {"port", "delete", "LAGER"}),
                HasSubstr("nothing was deleted: the printers are hidden. Run kestctl as"));
    Kestctl(monitor, {"port", "delete", "NONE", "--if-there"});
    monitor.hidesQueues = false;
    EXPECT_THAT(Failure(monitor, {"port", "delete", "*"}), HasSubstr("printers Laser, Color"));
    EXPECT_EQ(Json(monitor, {"port", "delete", "lager"}),
              json::parse(R"({"name": "LAGER", "deleted": true})"));
}

FakeMonitor Ports(const std::vector<std::string>& names) {
    FakeMonitor monitor;
    for (const std::string& name : names) {
        Kestctl(monitor, {"port", "add", name, "--address", "10.0.0.1"});
    }
    return monitor;
}

std::string Shown(FakeMonitor& monitor, std::vector<std::string> names) {
    names.insert(names.begin(), {"port", "show"});
    std::string text;
    for (const json& port : Json(monitor, names)) {
        text += port["name"].get<std::string>() + ":" + port["portNumber"].dump() + " ";
    }
    return text;
}

TEST(PortCommands, PatternsSelectPorts) {
    FakeMonitor monitor = Ports({"OFFICE-1", "Office-2", "LAGER"});
    // In the monitor's order, and each once.
    EXPECT_EQ(Shown(monitor, {"office-?", "LAGER", "*"}),
              "LAGER:9100 OFFICE-1:9100 Office-2:9100 ");
    EXPECT_THAT(Failure(monitor, {"port", "show", "LAGER", "HALL-*"}), HasSubstr("HALL-*"));
    Kestctl(monitor, {"port", "set", "office-*", "--port", "9101", "--yes"});
    EXPECT_EQ(Shown(monitor, {"*"}), "LAGER:9100 OFFICE-1:9101 Office-2:9101 ");
    // One that refuses keeps all as they were.
    Kestctl(monitor, {"port", "set", "LAGER", "--protocol", "lpr"});
    EXPECT_THAT(Failure(monitor, {"port", "set", "*", "--queue", "q"}),
                HasSubstr("belongs to LPR"));
    EXPECT_EQ(Json(monitor, {"port", "show", "LAGER"})["queue"], "lp");
    // A pattern is no list, and a port that is called like one is meant alone.
    EXPECT_THAT(Failure(monitor, {"port", "delete", "X;*"}), HasSubstr("X;*"));
    EXPECT_THAT(Failure(monitor, {"port", "show", "*.*"}), HasSubstr("*.*"));
    monitor = Ports({"A*", "A1"});
    Kestctl(monitor, {"port", "add", "A?", "--address", "10.0.0.7", "--or-set"});
    Kestctl(monitor, {"port", "delete", "a*"});
    EXPECT_EQ(Shown(monitor, {"a*"}), "A1:9100 A?:9100 ");
}

TEST(PortCommands, AddOrSet) {
    FakeMonitor monitor = RawAndLpr();
    EXPECT_THAT(Kestctl(monitor, {"port", "add", "lager", "--address", "10.0.0.3", "--or-set"}),
                AllOf(HasSubstr("port LAGER set"), HasSubstr("address: 10.0.0.2 -> 10.0.0.3")));
    EXPECT_THAT(Kestctl(monitor, {"port", "add", "NEW", "--address", "10.0.0.2", "--or-set"}),
                HasSubstr("port NEW added"));
    // Only a port that is new needs an address, and what is there says which settings fit.
    Kestctl(monitor, {"port", "add", "lager", "--queue", "lp2", "--or-set"});
    EXPECT_EQ(FieldText(monitor.ports[L"LAGER"].standard.sztQueue), "lp2");
    EXPECT_THAT(Failure(monitor, {"port", "add", "NEWER", "--port", "9101", "--or-set"}),
                HasSubstr("--address"));
}

TEST(PortCommands, AFailedDeletionReportsWhatWasDoneBefore) {
    FakeMonitor monitor = Ports({"OFFICE-1", "Office-2", "LAGER", "NEW"});
    monitor.refused = L"Office-2";
    EXPECT_THAT(Failure(monitor, {"port", "delete", "O*", "LAGER", "--yes", "--json"}),
                HasSubstr("Office-2 cannot be deleted"));
    const json told = json::parse(monitor.printed);
    ASSERT_EQ(told.size(), 3u) << told;
    EXPECT_EQ(told[0]["name"], "LAGER");
    EXPECT_EQ(told[1]["deleted"], true);
    EXPECT_EQ(told[2]["name"], "Office-2");
    EXPECT_THAT(told[2]["error"].get<std::string>(), HasSubstr("cannot be deleted"));
    monitor.refused.clear();
    Kestctl(monitor, {"port", "delete", "--if-there", "office-*", "NONE", "HALL-*"});
    EXPECT_EQ(Shown(monitor, {"*"}), "NEW:9100 ");
}

TEST(PortCommands, FollowStoresWhatThePrinterSaysOfItself) {
    FakeMonitor monitor;
    const auto show = [&monitor] { return Json(monitor, {"port", "show", "OFFICE"}); };
    monitor.printers = {{"printer.example", {"10.0.0.7", "0004004A1B2C", "prn-1"}},
                        {"fd00::7", {"fd00::7", "", "prn-2"}},
                        {"p3", {"10.0.0.8", "000400000008", ""}}};
    EXPECT_EQ(Kestctl(monitor, {"port", "add", "OFFICE", "--follow", "printer.example"}),
              "port OFFICE added: raw to 10.0.0.7:9100, following 0004004A1B2C, prn-1\n");
    EXPECT_EQ(show()["hostName"], "prn-1");
    EXPECT_EQ(show()["alwaysPrint"], true);

    // Another printer, without a MAC address: the old one's must be gone.
    EXPECT_EQ(Kestctl(monitor, {"port", "set", "OFFICE", "--follow", "fd00::7"}),
              "port OFFICE set: raw to [fd00::7]:9100, following prn-2\n"
              "  hostName: prn-1 -> prn-2\n  ipv6Host: - -> fd00::7\n"
              "  mac: 0004004A1B2C -> -\n  useIPv6: false -> true\n");
    EXPECT_EQ(show()["mac"], "");
    // One without a name of its own: the old one's would stay, and lead to the old printer.
    EXPECT_THAT(Failure(monitor, {"port", "set", "OFFICE", "--follow", "p3"}),
                AllOf(HasSubstr("prn-2"), HasSubstr("Delete the port")));
    EXPECT_EQ(show()["address"], "10.0.0.7");
    EXPECT_EQ(Kestctl(monitor, {"port", "add", "3", "--follow", "p3", "--address", "10.0.0.9"}),
              "port 3 added: raw to 10.0.0.9:9100, following 000400000008\n");
    EXPECT_THAT(Failure(monitor, {"port", "set", "OFFICE", "--follow", "p", "--mac", "none"}),
                HasSubstr("excludes"));
}

TEST(PortCommands, FollowWithoutAddressAsksEachPortsPrinter) {
    FakeMonitor monitor = Ports({"A1", "A2"});
    Kestctl(monitor, {"port", "add", "A3", "--address", "10.0.0.3"});
    Kestctl(monitor, {"port", "set", "A2", "--ipv6", "printer.example"});
    monitor.printers = {{"10.0.0.1", {"10.0.0.1", "000400000001", "prn-1"}},
                        {"printer.example", {"fd00::2", "000400000002", ""}}};
    EXPECT_THAT(Failure(monitor, {"port", "set", "A*", "--follow", "--yes", "--json"}),
                HasSubstr("1 of 3 printers could not be identified"));
    const auto ports = json::parse(monitor.printed);
    ASSERT_EQ(ports.size(), 3u) << ports;
    EXPECT_EQ(ports[2], json({{"name", "A3"}, {"error", "no answer"}}));
    EXPECT_EQ(FieldText(monitor.ports[L"A1"].extended.sztHWAddress), "000400000001");
    EXPECT_EQ(FieldText(monitor.ports[L"A1"].standard.sztHostAddress), "prn-1");
    EXPECT_EQ(FieldText(monitor.ports[L"A2"].extended.sztHWAddress), "000400000002");
    EXPECT_EQ(AddressInUse(monitor.ports[L"A2"]), "printer.example");
    EXPECT_EQ(monitor.ports[L"A2"].extended.dwAlwaysPrint, 1u);
    EXPECT_EQ(monitor.ports[L"A3"].extended.dwAlwaysPrint, 0u);
    // The name comes first.
    EXPECT_THAT(Kestctl(monitor, {"port", "set", "A1", "--follow", "--json"}),
                testing::StartsWith("{\n  \"name\": \"A1\",\n"));
}

TEST(PortCommands, PatternsAskAndDryRunsChangeNothing) {
    FakeMonitor monitor = Ports({"A1", "A2", "B1"});
    const std::string before = Kestctl(monitor, {"port", "export"});
    struct Case {
        std::vector<std::string> arguments;
        const char* text;
    };
    const Case refused[] = {
        {{"delete", "A*"}, "2 ports (A1, A2). There is no terminal to ask on: add --yes to delete"},
        {{"set", "A?", "B1", "--port", "9101"}, "2 ports (A1, A2)"},
        {{"set", "A*", "--address", "10.0.0.2", "--yes"}, "--address"},
        {{"set", "A1", "B1", "--ipv6", "fd00::1"}, "--ipv6"},
        {{"set", "A1", "B1", "--follow", "10.0.0.2"}, "--follow ADDRESS"},
    };
    for (auto [arguments, refusal] : refused) {
        arguments.insert(arguments.begin(), "port");
        EXPECT_THAT(Failure(monitor, arguments), HasSubstr(refusal));
        EXPECT_THROW(Kestctl(monitor, arguments), CLI::ParseError);
    }
    const Case dry[] = {
        {{"delete", "*"}, "port B1 would be deleted"},
        {{"set", "*", "--port", "9101"}, "port A2 would be set: raw to 10.0.0.1:9101\n  portNum"},
        {{"add", "NEW", "--address", "10.0.0.1"}, "port NEW would be added: raw to 10.0.0.1:9100"},
        {{"add", "NEW", "--address", "10.0.0.1", "--json"}, "\"dryRun\": true"},
        {{"rename", "A1", "NEW"}, "port A1 would be renamed to NEW\n"},
    };
    for (auto [arguments, text] : dry) {
        arguments.insert(arguments.begin(), "port");
        arguments.emplace_back("--dry-run");
        EXPECT_THAT(Kestctl(monitor, arguments), HasSubstr(text));
    }
    EXPECT_THAT(Failure(monitor, {"port", "add", "a1", "--address", "10.0.0.1", "--dry-run"}),
                HasSubstr("already exists"));
    EXPECT_EQ(Kestctl(monitor, {"port", "export"}), before);
    // Nothing to ask: no change, one port, and ports by name.
    Kestctl(monitor, {"port", "set", "A*", "--port", "9100"});
    Kestctl(monitor, {"port", "set", "B*", "--port", "9101"});
    Kestctl(monitor, {"port", "delete", "A1", "A2"});
    EXPECT_EQ(monitor.ports.size(), 1u);
}

TEST(PortCommands, AddIsAllOrNothing) {
    const std::vector<std::string> add = {"port", "add", "OFFICE", "--address", "10.0.0.1"};
    for (const wchar_t* step :
         {L"AddPort", L"ConfigurePort", L"SetConfigExData", L"GetConfigInfo"}) {
        FakeMonitor monitor;
        monitor.failing[step] = ERROR_ACCESS_DENIED;
        EXPECT_THAT(Failure(monitor, add),
                    AllOf(HasSubstr("OFFICE"), HasSubstr("(5)"), HasSubstr("as administrator")));
        EXPECT_THAT(monitor.ports, IsEmpty()) << step;
    }
    // The monitor answers 0 although the registry took nothing.
    FakeMonitor monitor;
    monitor.ignored = L"ConfigurePort";
    EXPECT_THAT(Failure(monitor, add), HasSubstr("deleted again"));
    EXPECT_THAT(monitor.ports, IsEmpty());
    // And when not even that is possible, it says so.
    monitor.failing[L"DeletePort"] = ERROR_ACCESS_DENIED;
    EXPECT_THAT(Failure(monitor, add), HasSubstr("kestctl port delete OFFICE"));
}

TEST(PortCommands, SetRestoresWhatWasThereWhenItFails) {
    FakeMonitor monitor;
    Kestctl(monitor, {"port", "add", "OFFICE", "--address", "10.0.0.1"});
    monitor.failing[L"SetConfigExData"] = ERROR_ACCESS_DENIED;
    EXPECT_THAT(Failure(monitor, {"port", "set", "OFFICE", "--address", "10.0.0.2"}),
                HasSubstr("kestctl port show OFFICE"));
    monitor.failing.clear();
    EXPECT_EQ(Json(monitor, {"port", "show", "OFFICE"})["address"], "10.0.0.1");
}

TEST(PortCommands, FailuresSayWhatToDo) {
    FakeMonitor monitor;
    Kestctl(monitor, {"port", "add", "MY OFFICE", "--address", "10.0.0.1"});
    EXPECT_THAT(Failure(monitor, {"port", "add", "my office", "--address", "10.0.0.2"}),
                HasSubstr("`kestctl port set \"MY OFFICE\" ...` changes it"));
    for (const char* command : {"show", "delete"}) {
        EXPECT_THAT(Failure(monitor, {"port", command, "NONE"}), HasSubstr("kestctl port list"));
    }
    monitor.failing[L"AddPort"] = ERROR_ALREADY_EXISTS;
    EXPECT_THAT(Failure(monitor, {"port", "add", "LPT1:", "--address", "10.0.0.1"}),
                HasSubstr("another monitor"));
    monitor.queues = {{L"Laser", {L"LPT1:", L"my office"}}};
    EXPECT_THAT(Failure(monitor, {"port", "delete", "MY OFFICE"}), HasSubstr("printer Laser"));
    EXPECT_EQ(monitor.ports.size(), 1u);
    monitor.queues.clear();
    monitor.failing[L"DeletePort"] = ERROR_BUSY;
    EXPECT_THAT(Failure(monitor, {"port", "delete", "MY OFFICE"}), HasSubstr("another port first"));
}

// A command line that is wrong is refused before anything is opened.
TEST(PortCommands, WrongUsageReachesNoMonitor) {
    const std::vector<std::string> lines[] = {
        {"port"},
        {"port", "add", "P"},
        {"port", "add", "P", "--address", "10.0.0.1:9100"},
        {"port", "add", "P", "--address", "10.0.0.1", "--port", "0"},
        {"port", "add", "P", "--address", "10.0.0.1", "--port", "65536"},
        {"port", "add", "P", "--address", "10.0.0.1", "--protocol", "ipp"},
        {"port", "add", "P", "--address", "10.0.0.1", "--queue", "q"},
        {"port", "add", "P", "--address", "10.0.0.1", "--mac", "00:04"},
        {"port", "add", "P", "--address", "10.0.0.1", "--snmp", "public", "--no-snmp"},
        {"port", "add", "Ne01:", "--address", "10.0.0.1"},
        {"port", "add", "P", "--address", "10.0.0.1", "--port", "010"},
        {"port", "set", "P"},
        {"port", "set", "P", "--follow", ""},
        {"port", "show"},
        {"port", "delete", ""},
        {"port", "check", "--timeout", "nan"},
        {"port", "test", "P", "--timeout", "inf"},
        {"print", "file"},
    };
    for (const auto& line : lines) {
        FakeMonitor monitor;
        EXPECT_THROW(Kestctl(monitor, line), CLI::ParseError) << line.back();
        EXPECT_EQ(monitor.opened, 0) << line.back();
    }
}

TEST(PortCommands, FollowAsksTheNewAddressAndTakesNoPortForAHost) {
    FakeMonitor monitor;
    for (const char* name : {"PRN-1", "PRN-2"}) {
        Kestctl(monitor, {"port", "add", name, "--address", "10.0.0.1"});
    }
    monitor.printers = {{"10.0.0.9", {"10.0.0.9", "000400000009", "prn-9"}},
                        {"PRN-2", {"10.0.0.2", "000400000002", "prn-2"}}};
    Kestctl(monitor, {"port", "set", "PRN-1", "--address", "10.0.0.9", "--follow"});
    EXPECT_STREQ(monitor.ports[L"PRN-1"].extended.sztHWAddress, L"000400000009");
    EXPECT_EQ(AddressInUse(monitor.ports[L"PRN-1"]), "10.0.0.9");
    EXPECT_THROW(Kestctl(monitor, {"port", "set", "--follow", "prn-1", "PRN-2"}),
                 CLI::ValidationError);
    Kestctl(monitor, {"port", "set", "PRN-2", "--follow", "PRN-2"});
    EXPECT_STREQ(monitor.ports[L"PRN-2"].extended.sztHWAddress, L"000400000002");
}

// The last one: the process keeps the Ctrl-C.
TEST(PortCommands, CtrlCLeavesNoPortHalfMade) {
    FakeMonitor monitor;
    monitor.added = [] { Interruption::Note(CTRL_C_EVENT); };
    Kestctl(monitor, {"port", "add", "OFFICE", "--address", "10.0.0.1"});
    EXPECT_EQ(AddressInUse(monitor.ports[L"OFFICE"]), "10.0.0.1");
    EXPECT_THROW(Kestctl(monitor, {"port", "rename", "OFFICE", "HALL"}), Interrupted);
    EXPECT_EQ(monitor.ports.count(L"OFFICE"), 1u);
}

}  // namespace
