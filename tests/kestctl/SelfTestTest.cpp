#include <gmock/gmock.h>

#include <thread>

#include "tests/support/FakeMonitor.h"
#include "tools/kestctl/Interruption.h"

using testing::AllOf;
using testing::HasSubstr;

namespace {

// What `kestctl --direct selftest` prints, with what it ends with.
std::string SelfTest(FakeMonitor& monitor) {
    CLI::App app;
    AddDirectFlag(app);
    AddSelfTestCommand(app, monitor.Factory());
    std::ostringstream output;
    std::streambuf* const before = std::cout.rdbuf(output.rdbuf());
    try {
        app.parse(std::vector<std::string>{"selftest", "--direct"});
    } catch (const CommandFailed& failed) {
        output << failed.what();
    } catch (const Interrupted&) {
        output << "interrupted";
    }
    std::cout.rdbuf(before);
    return output.str();
}

TEST(SelfTest, TakesEverythingAwayWhenItFailsAndWhenItIsInterrupted) {
    FakeMonitor monitor;
    monitor.accepts = 100'000;  // its connection breaks
    EXPECT_THAT(SelfTest(monitor), AllOf(HasSubstr("ok      ports"), HasSubstr("FAILED  RAW"),
                                         HasSubstr("FAILED  LPR"), HasSubstr("ok      clean-up"),
                                         HasSubstr("the self-test failed")));
    EXPECT_TRUE(monitor.ports.empty());

    // This monitor sends nothing: the job would be waited for, for a minute.
    monitor.accepts = SIZE_MAX;
    std::jthread user([&monitor] {
        while (!monitor.ended) {
            Sleep(10);
        }
        Interruption::Note(CTRL_C_EVENT);
    });
    EXPECT_THAT(SelfTest(monitor), AllOf(HasSubstr("ended   RAW"), HasSubstr("ended   LPR"),
                                         HasSubstr("ok      clean-up"), HasSubstr("interrupted")));
    EXPECT_TRUE(monitor.ports.empty());
}

}  // namespace
