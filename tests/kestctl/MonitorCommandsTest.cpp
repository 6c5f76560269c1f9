#include "admin/Installation.h"

#include <gmock/gmock.h>

#include "tests/support/FakeMachine.h"
#include "tests/support/FakeMonitor.h"
#include "tests/support/LogCapture.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;

namespace {

// What `kestctl monitor ARGUMENT...` prints, with its failure at the end if there is one.
std::string Monitor(FakeMachine& machine, std::vector<std::string> arguments,
                    FakeMonitor monitor = {}) {
    CLI::App app;
    app.allow_windows_style_options(false);
    AddMonitorCommands(app, monitor.Factory(), machine);
    std::ostringstream output;
    std::streambuf* const before = std::cout.rdbuf(output.rdbuf());
    arguments.insert(arguments.begin(), "monitor");
    if (arguments[1] == "install") {
        arguments.insert(arguments.end(), {"--from", machine.package.string()});
    }
    std::reverse(arguments.begin(), arguments.end());
    std::string failure;
    try {
        app.parse(arguments);
    } catch (const CommandFailed& failed) {
        failure = "FAILED: " + Explained(failed);
    }
    std::cout.rdbuf(before);
    return output.str() + failure;
}

TEST(MonitorCommands, InstallUpdateAndInstallAgain) {
    FakeMachine machine;
    EXPECT_THAT(Monitor(machine, {"install"}),
                AllOf(HasSubstr("kestmon.dll 1.0.0 is new"), HasSubstr("has loaded it"),
                      Not(HasSubstr("stopping"))));
    auto state = machine.State();
    EXPECT_EQ(state[L"driver"], "registered");
    EXPECT_EQ(state[L"SLPConf.xml"], FakeMachine::Shipped());
    EXPECT_THAT(Monitor(machine, {"install"}), HasSubstr("nothing to do"));
    EXPECT_EQ(machine.State(), state);

    // The next release comes over libraries that the spooler uses, and an SLPConf.xml that nobody
    // changed, whatever its line ends.
    std::string text = FakeMachine::Shipped();
    for (size_t i = 0; (i = text.find('\n', i)) != text.npos; i += 2) {
        text.insert(i, 1, '\r');
    }
    FakeMachine::Write(machine.system / "SLPConf.xml", text);
    machine.MakePackage(2);
    EXPECT_THAT(Monitor(machine, {"install"}),
                AllOf(HasSubstr("1.0.0 becomes 2.0.0"),
                      HasSubstr("stopping Fax\nstopping Spooler\nstarting Spooler\nstarting Fax\n"),
                      HasSubstr("kestmon 2.0.0 is installed")));
    state = machine.State();
    EXPECT_EQ(state[L"loaded"], state[L"kestmon.dll"]);
    EXPECT_EQ(state[L"SLPConf.xml"], "<release 2");
    EXPECT_THAT(state, SizeIs(9));  // no copy and no old file is left
    machine.MakePackage(1);
    EXPECT_THAT(Monitor(machine, {"install"}), AllOf(HasSubstr("newer"), HasSubstr("--force")));
    EXPECT_EQ(machine.State(), state);

    // A spooler that is disabled stays so; an SLPConf.xml that was changed, too.
    machine.running.clear();
    machine.disabled = true;
    FakeMachine::Write(machine.system / "SLPConf.xml", "<mine/>");
    EXPECT_THAT(Monitor(machine, {"install", "--force"}),
                AllOf(HasSubstr("is disabled, loads it when it starts"), HasSubstr(".new.xml")));
    EXPECT_THAT(machine.running, IsEmpty());
    EXPECT_THAT(machine.State(), AllOf(Contains(Pair(L"SLPConf.xml", "<mine/>")),
                                       Contains(Pair(L"SLPConf.new.xml", machine.Shipped()))));
    EXPECT_THAT(Monitor(machine, {"install"}), HasSubstr("nothing to do"));
}

// Each step in turn fails, once: either all is as it was before, or all is done.
TEST(MonitorCommands, InstallIsAllOrNothing) {
    const auto first = [](FakeMachine&) {};
    const auto update = [](FakeMachine& machine) {
        Monitor(machine, {"install"});
        FakeMachine::Write(machine.system / "SLPConf.xml", "<mine/>");
        machine.MakePackage(2);
    };
    const auto stoppedWithPorts = [](FakeMachine& machine) {
        machine.running.clear();
        machine.SetNumber(L"OFFICE", L"Protocol", 1);
    };
    for (const auto& prepare :
         {std::function<void(FakeMachine&)>(first), std::function<void(FakeMachine&)>(update),
          std::function<void(FakeMachine&)>(stoppedWithPorts)}) {
        int failures = 0;
        int steps = 0;
        for (int failing = 1; steps >= failing - 1; ++failing) {
            FakeMachine machine;
            prepare(machine);
            const auto before = machine.State();
            machine.steps = 0;
            machine.failing = failing;
            const std::string output = Monitor(machine, {"install"});
            SCOPED_TRACE(std::to_string(failing) + ": " + output);
            if (output.find("FAILED") != output.npos) {
                ++failures;
                EXPECT_THAT(output, HasSubstr("as it was before"));
                EXPECT_EQ(machine.State(), before);
            } else {
                EXPECT_EQ(machine.State()[L"driver"], "registered");
                EXPECT_EQ(machine.State()[L"kestmon.dll"],
                          FakeMachine::Shown(FakeMachine::Read(machine.package / "kestmon.dll")));
            }
            steps = machine.steps;
        }
        EXPECT_GE(failures, 6);
    }

    // A release that does not load, after all steps worked.
    FakeMachine machine;
    update(machine);
    machine.refused = FakeMachine::Read(machine.package / "kestmon.dll");
    const auto before = machine.State();
    EXPECT_THAT(Monitor(machine, {"install"}), HasSubstr("as it was before"));
    EXPECT_EQ(machine.State(), before);
}

TEST(MonitorCommands, InstallRefusesBeforeItChangesAnything) {
    FakeMachine machine;
    const auto refuses = [&machine](const std::string& why) {
        EXPECT_THAT(Monitor(machine, {"install"}), AllOf(HasSubstr("FAILED"), HasSubstr(why)));
        EXPECT_EQ(machine.steps, 0);
    };
    machine.elevated = false;
    refuses("as administrator");
    machine.elevated = true;
    machine.x64 = false;
    refuses("x64");
    machine.x64 = true;
    const std::string library = FakeMachine::Read(machine.package / "slp64.dll");
    machine.MakePackage(2);
    FakeMachine::Write(machine.package / "slp64.dll", library);
    refuses("different releases, 2.0.0 and 1.0.0");
    FakeMachine::Write(machine.package / "slp64.dll", "cut off");
    refuses("unpack the whole archive");
    fs::remove(machine.package / "slp64.dll");
    refuses("slp64.dll is missing");
    machine.MakePackage(1);
    FakeMachine::Write(machine.system / "slp64.dll", "of another product");
    refuses("another product's");
    fs::remove_all(machine.package);
    fs::copy(machine.system, machine.package);
    machine.MakePackage(1);
    machine.package = machine.system;
    refuses("system folder itself");
}

TEST(MonitorCommands, RemoveLeavesNothingBehind) {
    FakeMachine machine;
    Monitor(machine, {"install"});
    const auto keep = machine.root / "ports.json";
    machine.SetNumber(L"OFFICE", L"Protocol", 1);
    machine.SetText(L"Printers\\Laser", L"Port", L"LPT1:,office");
    FakeMachine::Write(machine.system / "SLPConf.xml", "<mine/>");
    FakeMachine::Write(machine.system / "kestmon.dll.kest-old2", "left");
    FakeMachine::Write(machine.temporary / "KestSetupWizard.log", "log");
    FakeMachine::Write(machine.temporary / "npm12.tmp", "a job");
    const std::vector<std::string> remove = {"remove", "--keep-ports", keep.string()};
    FakeMonitor monitor;
    monitor.ports[L"OFFICE"] = {};
    const auto before = machine.State();
    EXPECT_THAT(Monitor(machine, remove, monitor), HasSubstr("Laser on office"));
    machine.SetText(L"Printers\\Laser", L"Port", L"LPT1:");
    machine.busy = true;
    EXPECT_THAT(Monitor(machine, remove, monitor),
                AllOf(HasSubstr("(3008)"), HasSubstr("--force")));
    EXPECT_EQ(machine.State(), before);
    EXPECT_THAT(Monitor(machine, remove, monitor), HasSubstr("is there already"));

    // The spooler is stopped for it, and starts without the monitor.
    machine.Write(keep, "");
    std::vector<std::string> force = remove;
    force.push_back("--force");
    EXPECT_THAT(Monitor(machine, force, monitor),
                AllOf(HasSubstr("starting Fax"), HasSubstr("holds 1 files NPM*.tmp"),
                      HasSubstr("kestmon is removed")));
    EXPECT_THAT(machine.State(), SizeIs(6));
    EXPECT_THAT(machine.State(), Contains(Pair(L"key", "")));
    EXPECT_THAT(machine.State(), Contains(Pair(L"loaded", "")));
    EXPECT_FALSE(fs::exists(machine.temporary / "KestSetupWizard.log"));
    EXPECT_TRUE(fs::exists(machine.temporary / "npm12.tmp"));
    EXPECT_EQ(nlohmann::json::parse(FakeMachine::Read(keep))[0]["name"], "OFFICE");
    EXPECT_EQ(FakeMachine::Read(machine.root / "ports.SLPConf.xml"), "<mine/>");
    EXPECT_THAT(Monitor(machine, {"remove"}), HasSubstr("nothing to do"));

    // A library that a program holds gets out of the way of the next installation.
    Monitor(machine, {"install"});
    machine.running.clear();
    EXPECT_THAT(Monitor(machine, {"remove"}), HasSubstr("at its next start"));
    EXPECT_THAT(machine.atNextStart, Contains(machine.system / "kestmon.dll.kest-old"));
    EXPECT_FALSE(fs::exists(machine.system / "kestmon.dll"));
    EXPECT_THAT(Monitor(machine, {"install"}), HasSubstr("is installed"));
}

TEST(MonitorCommands, StatusSaysWhatIsWrongAndWhatToDo) {
    const LogCapture log;
    FakeMachine machine;
    const auto expect = [&machine](const std::string& line, const std::string& toDo, bool broken) {
        const std::string output = Monitor(machine, {"status"});
        EXPECT_THAT(output, AllOf(HasSubstr(line), HasSubstr(toDo)));
        EXPECT_EQ(output.find("FAILED") != output.npos, broken) << output;
    };
    expect("missing", "-> kestctl monitor install", true);
    Monitor(machine, {"install"});
    expect("SLP version 2, service:printer at 239.255.255.253", "loaded          yes", false);

    machine.SetNumber(L"MY PORT", L"Protocol", 1);
    expect("not configured", "kestctl port set \"MY PORT\" --address", true);
    machine.SetNumber(L"MY PORT", L"Double Spool", 0);
    machine.SetText(L"Monitors\\kestmon\\Ports\\MY PORT", L"IPAddress", L"10.0.0.1");
    expect("ports           1", "", false);
    FakeMachine::Write(machine.system / "SLPConf.xml", "<broken");
    expect("no well-formed XML", "docs/SLPConf.md", false);  // nobody needs it yet
    machine.SetNumber(L"MY PORT", L"AlwaysPrint", 1);
    expect("cannot follow", "kestctl port set \"MY PORT\" --follow", true);
    machine.SetText(L"Monitors\\kestmon\\Ports\\MY PORT", L"HostName", L"prn-1");
    expect("no well-formed XML", "docs/SLPConf.md", true);
    FakeMachine::Write(machine.system / "SLPConf.xml", "<slp_config/>");
    expect("SLP version 0, (none) at (none)", "fill in", true);
    fs::remove(machine.system / "SLPConf.xml");
    expect("no port follows", "-> kestctl monitor install", true);
    FakeMachine::Write(machine.system / "SLPConf.xml", FakeMachine::Shipped());
    expect("SLP version 2", "", false);

    fs::resize_file((FakeMachine::Write(machine.temporary / "KestSetupWizard.log", ""),
                     machine.temporary / "KestSetupWizard.log"),
                    100'000'001);
    expect("100001 kB", "begin a new one: net stop spooler", false);
    machine.MakePackage(2);
    FakeMachine::Write(machine.system / "slp64.dll",
                       FakeMachine::Read(machine.package / "slp64.dll"));
    expect("2.0.0", "of different releases", false);
    machine.loaded.clear();
    expect("loaded          no", "restart the spooler", true);
    machine.running.clear();
    expect("stopped", "net start spooler", true);
    machine.disabled = true;
    const auto json = Monitor(machine, {"status", "--json"});
    const auto document = nlohmann::json::parse(json.substr(0, json.rfind("FAILED")));
    EXPECT_EQ(document["driver"], "kestmon.dll");
    EXPECT_EQ(document["ports"], 1);
    EXPECT_THAT(json, HasSubstr("\"state\": \"disabled\""));
}

}  // namespace
