#include "admin/setup/Installation.h"

#include <gmock/gmock.h>

#include <functional>
#include <thread>

#include "tests/kestctl/CommandLine.h"
#include "tests/support/FakeMachine.h"
#include "tests/support/LogCapture.h"
#include "kestctl/Interruption.h"

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

namespace {

// What `kestctl ARGUMENT...` prints, with what it ends with if that is no success.
std::string Tool(FakeMachine& machine, std::vector<std::string> arguments) {
    CLI::App app;
    app.allow_windows_style_options(false);
    app.fallthrough();
    AddDirectFlag(app);
    AddMonitorCommands(app, machine.monitor.Factory(), machine);
    AddSelfTestCommand(app, machine.monitor.Factory());
    std::string printed;
    try {
        Parse(app, std::move(arguments), printed);
    } catch (const CommandFailed& failed) {
        printed += "FAILED: " + Explained(failed);
    } catch (const Interrupted&) {
        printed += "INTERRUPTED";
    }
    return printed;
}

std::string Install(FakeMachine& machine, bool force = false) {
    std::vector<std::string> arguments = {"monitor", "install", "--from", machine.package.string()};
    arguments.insert(arguments.end(), force, "--force");
    return Tool(machine, arguments);
}

void ExpectStatus(FakeMachine& machine, const std::string& line, const std::string& toDo,
                  bool broken) {
    const std::string output = Tool(machine, {"monitor", "status"});
    EXPECT_THAT(output, AllOf(HasSubstr(line), HasSubstr(toDo)));
    EXPECT_EQ(output.find("FAILED") != output.npos, broken) << output;
}

TEST(MonitorCommands, RemoveLeavesNothingBehind) {
    FakeMachine machine;
    const auto clean = machine.State();
    Install(machine);
    machine.Set(kPort, L"Protocol", DWORD{1});
    machine.Set(L"\\Printers\\Laser", L"Port", L"LPT1:,my port");
    WriteAll(machine.system / "SLPConf.xml", "<mine/>");
    WriteAll(machine.system / "kestmon.dll.kest-old2", "left");
    WriteAll(machine.temporary / "KestSetupWizard.log", "log");
    WriteAll(machine.temporary / "npm12.tmp", "a job");
    const auto keep = machine.root / "ports.json";
    std::vector<std::string> remove = {"monitor", "remove", "--keep-ports", keep.string()};
    const auto before = machine.State();
    EXPECT_EQ(Tool(machine, remove),
              "FAILED: printers use its ports: Laser on MY PORT. Move them to other ports, or "
              "remove the monitor anyway with --force");
    // Nor does the function remove it, whoever calls it.
    EXPECT_THROW(RemoveMonitor(machine, {}, [](const std::string&) {}), CommandFailed);
    machine.Set(L"\\Printers\\Laser", L"Port", L"LPT1:");
    EXPECT_THAT(Tool(machine, remove), HasSubstr("knows 0 of 1 port, nothing was removed"));
    machine.monitor.ports[L"MY PORT"] = {};
    machine.failing = machine.steps + 3;  // the spooler does not let go of it
    EXPECT_THAT(Tool(machine, remove), AllOf(HasSubstr("(3008)"), HasSubstr("--force")));
    EXPECT_THAT(Tool(machine, remove), HasSubstr("already exists"));
    EXPECT_EQ(machine.State(), before);

    // The spooler is stopped for it, and starts without the monitor.
    remove.emplace_back("--force");
    EXPECT_THAT(Tool(machine, remove), HasSubstr("already exists")) << "what was kept stays";
    fs::remove(keep);
    fs::remove(machine.root / "ports.SLPConf.xml");
    machine.failing = machine.steps + 3;
    EXPECT_THAT(Tool(machine, remove),
                AllOf(HasSubstr("starting Fax"), HasSubstr("holds 1 files NPM*.tmp"),
                      HasSubstr("kestmon is removed")));
    EXPECT_EQ(machine.State(), clean);
    EXPECT_FALSE(fs::exists(machine.temporary / "KestSetupWizard.log"));
    EXPECT_TRUE(fs::exists(machine.temporary / "npm12.tmp"));
    EXPECT_EQ(nlohmann::json::parse(ReadAll(keep))[0]["name"], "MY PORT");
    EXPECT_EQ(ReadAll(machine.root / "ports.SLPConf.xml"), "<mine/>");
    EXPECT_THAT(Tool(machine, {"monitor", "remove"}), HasSubstr("nothing to do"));

    // A library that a program holds gets out of the way of the next installation.
    Install(machine);
    machine.running.clear();
    EXPECT_THAT(Tool(machine, {"monitor", "remove"}), HasSubstr("at its next start"));
    EXPECT_THAT(machine.atNextStart, Contains(machine.system / "kestmon.dll.kest-old"));
    EXPECT_THAT(Install(machine), HasSubstr("is installed"));
}

TEST(MonitorCommands, DryRunsAndJson) {
    FakeMachine machine;
    const auto run = [&machine](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "monitor");
        arguments.emplace_back("--json");
        const std::string output = Tool(machine, arguments);
        return nlohmann::json::parse(output.substr(0, output.find("FAILED")));
    };
    const std::string package = machine.package.string();
    const auto clean = machine.State();
    auto document = run({"install", "--from", package, "--dry-run"});
    EXPECT_EQ(document["dryRun"], true);
    EXPECT_EQ(document["report"].back(), "dry run: nothing was changed");
    EXPECT_EQ(machine.State(), clean);
    EXPECT_EQ(machine.steps, 0);
    document = run({"install", "--from", package});
    EXPECT_EQ(document["report"].back(),
              "kestmon " + kThisRelease + " is installed, and the print spooler has loaded it");
    const auto installed = machine.State();
    machine.MakePackage(2);
    EXPECT_THAT(run({"install", "--from", package, "--dry-run"})["report"],
                Contains("  the print spooler would be restarted"));
    EXPECT_THAT(run({"remove", "--dry-run"})["report"],
                Contains("would unregister the monitor and delete its ports: 0"));
    EXPECT_EQ(machine.State(), installed);
    machine.elevated = false;
    document = run({"remove"});
    EXPECT_THAT(document["error"].get<std::string>(), HasSubstr("as administrator"));
    EXPECT_EQ(document["exitCode"], 1);
    machine.elevated = true;
    EXPECT_EQ(run({"remove"})["report"].back(), "kestmon is removed");
}

TEST(MonitorCommands, StatusSaysWhatIsWrongAndWhatToDo) {
    const LogCapture log;
    FakeMachine machine;
    const auto expect = std::bind_front(ExpectStatus, std::ref(machine));
    expect("missing", "-> kestctl monitor install", true);
    Install(machine);
    expect("SLP version 2, service:printer at 239.255.255.253", "loaded          yes", false);

    machine.Set(kPort, L"Protocol", DWORD{1});
    expect("not configured", "kestctl port set \"MY PORT\" --address", true);
    machine.Set(kPort, L"Double Spool", DWORD{0});
    machine.Set(kPort, L"IPAddress", L"10.0.0.1");
    WriteAll(machine.system / "SLPConf.xml", "<broken");
    expect("not well-formed XML", "docs/SLPConf.md", false);  // nobody needs it yet
    machine.Set(kPort, L"AlwaysPrint", DWORD{1});
    expect("cannot follow", "kestctl port set \"MY PORT\" --follow", true);
    machine.Set(kPort, L"HostName", L"prn-1");
    expect("not well-formed XML", "docs/SLPConf.md", true);
    fs::remove(machine.system / "SLPConf.xml");
    expect("no port follows", "-> kestctl monitor install", true);
    WriteAll(machine.system / "SLPConf.xml", machine.shipped);
    expect("ports           1", "", false);
    const std::string slp = ReadAll(machine.system / "slp64.dll");
    fs::remove(machine.system / "slp64.dll");
    expect("slp64.dll       missing", "-> kestctl monitor install", true);
    WriteAll(machine.system / "slp64.dll", slp);

    WriteAll(machine.temporary / "KestSetupWizard.log", "");
    fs::resize_file(machine.temporary / "KestSetupWizard.log", 99'999'999);
    EXPECT_THAT(Tool(machine, {"monitor", "status"}), Not(HasSubstr("remove it")));
    fs::resize_file(machine.temporary / "KestSetupWizard.log", 100'000'000);
    expect("100000 kB", "-> remove it: net stop spooler, del \"", false);
    machine.MakePackage(2);
    WriteAll(machine.system / "slp64.dll", ReadAll(machine.package / "slp64.dll"));
    expect(kNextRelease, "from different releases", false);
    machine.loaded.clear();
    expect("loaded          no", "restart the spooler", true);
    machine.running.clear();
    expect("disabled", "net start spooler", true);
    const std::string json = Tool(machine, {"monitor", "status", "--json"});
    EXPECT_EQ(nlohmann::json::parse(json.substr(0, json.rfind("FAILED")))["ports"], 1);
}

TEST(MonitorCommands, StatusNamesWhatOthersHaveChanged) {
    constexpr wchar_t kKey[] = L"\\Monitors\\kestmon";
    const LogCapture log;
    FakeMachine machine;
    Install(machine);
    const auto expect = std::bind_front(ExpectStatus, std::ref(machine));
    const std::string slp = ReadAll(machine.system / "slp64.dll");
    WriteAll(machine.system / "slp64.dll", "of another product");
    expect("damaged, or of another product", "kestctl monitor install --force", true);
    WriteAll(machine.system / "slp64.dll", slp);
    machine.Set(kKey, L"Driver", L"other.dll");
    expect("as other.dll", "set Driver to kestmon.dll", true);
    machine.Set(kKey, L"Driver", L"kestmon.dll");
    machine.failing = machine.steps + 1;
    expect("unknown: the spooler does not respond", "net stop spooler, then net start", true);
    WriteAll(machine.system / "SLPConf.xml", "<slp_config/>");
    expect("(none) at (none)", "fill in version, service_name and multicast_address", false);
    WriteAll(machine.temporary / "npm12.tmp", "a job");
    expect("1 in " + machine.temporary.string(), "check and delete them", false);
    fs::remove(machine.system / "kestmon.dll");
    expect("not checked without kestmon.dll", "-> kestctl monitor install", true);
}

TEST(SelfTest, TakesEverythingAwayWhenItFailsAndWhenItIsInterrupted) {
    FakeMachine machine;
    FakeMonitor& monitor = machine.monitor;
    monitor.accepts = 100'000;  // its connection breaks
    EXPECT_THAT(Tool(machine, {"selftest", "--direct"}),
                AllOf(HasSubstr("FAILED  RAW"), HasSubstr("FAILED  LPR"),
                      HasSubstr("ok      clean-up"), HasSubstr("the self-test failed")));
    EXPECT_TRUE(monitor.ports.empty());
    const std::string json = Tool(machine, {"selftest", "--direct", "--json"});
    const auto document = nlohmann::json::parse(json.substr(0, json.find("FAILED: ")));
    EXPECT_EQ(document["succeeded"], false);
    EXPECT_EQ(document["steps"][2]["name"], "RAW");
    EXPECT_EQ(document["steps"][2]["result"], "FAILED");

    // This monitor sends nothing: the job would be waited for, for a minute.
    monitor.accepts = SIZE_MAX;
    std::jthread user([&monitor] {
        while (!monitor.ended) {
            Sleep(10);
        }
        Interruption::Note(CTRL_C_EVENT);
    });
    EXPECT_THAT(
        Tool(machine, {"selftest", "--direct"}),
        AllOf(HasSubstr("ended   RAW"), HasSubstr("ok      clean-up"), HasSubstr("INTERRUPTED")));
    EXPECT_TRUE(monitor.ports.empty());
}

}  // namespace
