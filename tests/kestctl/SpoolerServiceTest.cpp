// Against the spooler of the machine that runs the tests, with the monitor that every one has.
#include "admin/SpoolerService.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "admin/CommandFailed.h"
#include "admin/PortStore.h"
#include "tools/kestctl/ControlJob.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

TEST(SpoolerService, ListsOnlyThePortsOfItsMonitor) {
    EXPECT_THAT(SpoolerService(L"Local Monitor").PortNames(), Contains(L"LPT1:"));
    // One without ports, and one that the spooler has not loaded.
    EXPECT_THAT(SpoolerService(L"Local Port").PortNames(), IsEmpty());
    try {
        SpoolerService(L"no monitor").PortNames();
        ADD_FAILURE();
    } catch (const CommandFailed& failed) {
        EXPECT_EQ(failed.remedy, Remedy::InstallMonitor);
    }
}

TEST(SpoolerService, SendsCommandsAndPassesTheirCodesOn) {
    SpoolerService spooler(L"Local Port");
    WCHAR library[64] = {};
    EXPECT_EQ(spooler.Xcv(L"MonitorUI", nullptr, 0, library, sizeof(library)), ERROR_SUCCESS);
    EXPECT_STREQ(library, L"localui.dll");
    EXPECT_EQ(spooler.Xcv(L"MonitorUI", nullptr, 0, library, 2), ERROR_INSUFFICIENT_BUFFER);
    try {
        SpoolerService(L"no monitor").Xcv(L"MonitorUI", nullptr, 0, library, sizeof(library));
        ADD_FAILURE();
    } catch (const CommandFailed& failed) {
        EXPECT_EQ(failed.remedy, Remedy::InstallMonitor);
    }
}

TEST(SpoolerService, PrintsThroughTheQueueOfThePort) {
    // Wine's spooler prints to files by itself.
    const std::filesystem::path port =
        std::filesystem::temp_directory_path() /
        (L"kest-port-" + std::to_wstring(GetCurrentProcessId()) + L".prn");
    SpoolerService spooler;
    EXPECT_THROW(spooler.StartJob(port, L"document", L""), CommandFailed);  // no queue there
    const WineQueue queue(port);
    EXPECT_THAT(QueuesOn(spooler.Queues(), port), ElementsAre(queue.Name()));
    EXPECT_THROW(spooler.StartJob(port, L"document", L"another"), CommandFailed);
    const auto job = spooler.StartJob(port, L"document", L"");
    EXPECT_EQ(job->Write(reinterpret_cast<const BYTE*>("a job"), 5), 5u);
    job->End();
    EXPECT_THAT(job->Outcome(), HasSubstr("kestctl-"));
    std::ifstream printed(port, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(printed), {}), "a job");
    printed.close();
    std::filesystem::remove(port);
}

}  // namespace
