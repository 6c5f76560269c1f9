#include "admin/setup/Installation.h"

#include <gmock/gmock.h>

#include <functional>

#include "base/CommandFailed.h"
#include "tests/support/FakeMachine.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

// Installs the machine's package. Returns the report, with the failure if there is one.
std::string Install(FakeMachine& machine, bool force = false, Remedy remedy = Remedy::None) {
    std::string report;
    try {
        InstallMonitor(machine, machine.package, {.force = force},
                       [&report](const std::string& line) { report += line + '\n'; });
    } catch (const CommandFailed& failed) {
        report += std::string("FAILED: ") + failed.what();
        EXPECT_TRUE(remedy == Remedy::None || failed.remedy == remedy) << report;
    }
    return report;
}

TEST(Installation, InstallUpdateAndInstallAgain) {
    FakeMachine machine;
    EXPECT_THAT(Install(machine), AllOf(HasSubstr("has loaded it"), Not(HasSubstr("stopping"))));
    auto state = machine.State();
    EXPECT_EQ(state[L"driver"], "registered");
    EXPECT_THAT(Install(machine), HasSubstr("nothing to do"));
    EXPECT_EQ(machine.State(), state);

    // An update replaces libraries that the spooler uses, and an SLPConf.xml that differs from the
    // shipped one in its line ends only.
    std::string text = machine.shipped;
    for (size_t i = 0; (i = text.find('\n', i)) != text.npos; i += 2) {
        text.insert(i, 1, '\r');
    }
    WriteAll(machine.system / "SLPConf.xml", text);
    machine.MakePackage(2);
    EXPECT_THAT(Install(machine),
                AllOf(HasSubstr(kThisRelease + " becomes " + kNextRelease),
                      HasSubstr("stopping Fax\nstopping Spooler\nstarting Spooler\nstarting Fax\n"),
                      HasSubstr("kestmon " + kNextRelease + " is installed")));
    state[L"SLPConf.xml"] = "<another";
    state[L"kestmon.dll"] = state[L"slp64.dll"] = state[L"loaded"] = "2";
    EXPECT_EQ(machine.State(), state);  // no copy and no old file is left
    machine.MakePackage(1);
    EXPECT_THAT(Install(machine, false, Remedy::Force), HasSubstr("newer"));
    EXPECT_EQ(machine.State(), state);

    // A spooler that is disabled stays so; an SLPConf.xml that was changed, too.
    machine.running.clear();
    WriteAll(machine.system / "SLPConf.xml", "<mine/>");
    EXPECT_THAT(Install(machine, true),
                AllOf(HasSubstr("is disabled, loads it when it starts"), HasSubstr(".new.xml")));
    EXPECT_TRUE(machine.running.empty());
    EXPECT_EQ(machine.State()[L"SLPConf.xml"], "<mine/>");
    EXPECT_EQ(machine.State()[L"SLPConf.new.xml"], machine.shipped);
    EXPECT_THAT(Install(machine), HasSubstr("nothing to do"));
}

// Each step in turn fails, once: either all is as it was before, or all is done.
TEST(Installation, InstallIsAllOrNothing) {
    const auto update = [](FakeMachine& machine) {
        Install(machine);
        WriteAll(machine.system / "SLPConf.xml", "<mine/>");
        machine.MakePackage(2);
    };
    const std::function<void(FakeMachine&)> beginnings[] = {[](FakeMachine&) {}, update,
                                                            [](FakeMachine& stopped) {
                                                                stopped.running.clear();
                                                                stopped.Set(kPort, L"Protocol",
                                                                            DWORD{1});
                                                            }};
    for (const auto& prepare : beginnings) {
        int failures = 0;
        int steps = 0;
        for (int failing = 1; steps >= failing - 1; ++failing) {
            FakeMachine machine;
            prepare(machine);
            auto before = machine.State();
            machine.steps = 0;
            machine.failing = failing;
            const std::string output = Install(machine);
            SCOPED_TRACE(std::to_string(failing) + ": " + output);
            steps = machine.steps;
            if (output.find("FAILED") != output.npos) {
                ++failures;
                EXPECT_THAT(output, HasSubstr("as it was before"));
                EXPECT_EQ(machine.State(), before);
            } else {
                EXPECT_EQ(machine.State()[L"driver"], "registered");
                EXPECT_NE(machine.State()[L"kestmon.dll"], before[L"kestmon.dll"]);
            }
        }
        EXPECT_GE(failures, 6);
    }

    // A release that does not load, after all steps worked.
    FakeMachine machine;
    update(machine);
    machine.refused = ReadAll(machine.package / "kestmon.dll");
    const auto before = machine.State();
    EXPECT_THAT(Install(machine), HasSubstr("as it was before"));
    EXPECT_EQ(machine.State(), before);
}

TEST(Installation, InstallRefusesBeforeItChangesAnything) {
    FakeMachine machine;
    const auto refuses = [&machine](const std::string& why, Remedy remedy = Remedy::None) {
        EXPECT_THAT(Install(machine, false, remedy), AllOf(HasSubstr("FAILED"), HasSubstr(why)));
        EXPECT_EQ(machine.steps, 0);
    };
    machine.elevated = false;
    refuses("administrator's rights", Remedy::RunAsAdministrator);
    machine.elevated = true;
    machine.x64 = false;
    refuses("not an x64 one");
    machine.x64 = true;
    const std::string library = ReadAll(machine.package / "slp64.dll");
    machine.MakePackage(2);
    WriteAll(machine.package / "slp64.dll", library);
    refuses("different releases, " + kNextRelease + " and " + kThisRelease);
    machine.MakePackage(1);
    WriteAll(machine.system / "slp64.dll", "of another product");
    refuses("another product's");
    machine.package = machine.system;
    refuses("system folder itself");
}

}  // namespace
