// Against the spooler of the machine that runs the tests, with the monitor that every one has.
#include "admin/channel/SpoolerService.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "admin/channel/PortRecords.h"
#include "base/Text.h"
#include "tests/support/FailureOf.h"
#include "tests/support/ImportPatch.h"
#include "tests/support/WinePrinter.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

TEST(SpoolerService, ListsOnlyThePortsOfItsMonitor) {
    EXPECT_THAT(SpoolerService(L"Local Monitor").PortNames(), Contains(L"LPT1:"));
    // One without ports, and one that the spooler has not loaded.
    EXPECT_THAT(SpoolerService(L"Local Port").PortNames(), IsEmpty());
    EXPECT_EQ(FailureOf([] { SpoolerService(L"no monitor").PortNames(); }).remedy,
              Remedy::InstallMonitor);
}

TEST(SpoolerService, SendsCommandsAndPassesTheirCodesOn) {
    SpoolerService spooler(L"Local Port");
    WCHAR library[64] = {};
    EXPECT_EQ(spooler.Xcv(L"MonitorUI", nullptr, 0, library, sizeof(library)), ERROR_SUCCESS);
    EXPECT_STREQ(library, L"localui.dll");
    EXPECT_EQ(spooler.Xcv(L"MonitorUI", nullptr, 0, library, 2), ERROR_INSUFFICIENT_BUFFER);
    const CommandFailed failed = FailureOf([&library] {
        SpoolerService(L"no monitor").Xcv(L"MonitorUI", nullptr, 0, library, sizeof(library));
    });
    EXPECT_EQ(failed.remedy, Remedy::InstallMonitor);
}

// What another machine's spooler is asked. It has no ports, and no monitor that it tells of.
std::vector<std::string> asked;

BOOL WINAPI AskPrinters(DWORD which, LPWSTR server, DWORD, LPBYTE, DWORD, LPDWORD, LPDWORD) {
    asked.push_back((which == PRINTER_ENUM_NAME ? "printers " : "wrong ") + WideToUtf8(server));
    return FALSE;
}
BOOL WINAPI AskPorts(LPWSTR server, DWORD, LPBYTE, DWORD, LPDWORD, LPDWORD) {
    asked.push_back("ports " + WideToUtf8(server));
    return TRUE;
}
BOOL WINAPI AskMonitors(LPWSTR server, DWORD, LPBYTE, DWORD, LPDWORD, LPDWORD) {
    asked.push_back("monitors " + WideToUtf8(server));
    SetLastError(RPC_S_SERVER_UNAVAILABLE);
    return FALSE;
}
BOOL WINAPI AskForPrinter(LPWSTR name, LPHANDLE, LPPRINTER_DEFAULTSW) {
    asked.push_back("open " + WideToUtf8(name));
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

TEST(SpoolerService, AnotherServersNameReachesTheSpooler) {
    const HMODULE self = GetModuleHandleW(nullptr);
    const ImportPatch patches[] = {{self, "EnumPrintersW", AskPrinters},
                                   {self, "EnumPortsW", AskPorts},
                                   {self, "EnumMonitorsW", AskMonitors},
                                   {self, "OpenPrinterW", AskForPrinter}};
    const auto refusal = [](const auto& action) {
        SpoolerService server(L"kestmon", LR"(\\PRINT1)");
        return FailureOf([&] { action(server); }).remedy;
    };
    EXPECT_EQ(refusal([](SpoolerChannel& server) { server.Queues(); }), Remedy::None);
    EXPECT_EQ(refusal([](SpoolerChannel& server) { server.PortNames(); }), Remedy::StartSpooler);
    EXPECT_EQ(refusal([](SpoolerChannel& server) { ReadPort(server, L"OFFICE"); }),
              Remedy::RunAsAdministrator);
    EXPECT_THAT(asked, ElementsAre(R"(printers \\PRINT1)", R"(ports \\PRINT1)",
                                   R"(monitors \\PRINT1)", R"(open \\PRINT1\,XcvMonitor kestmon)"));
}

TEST(SpoolerService, PrintsThroughTheQueueOfThePort) {
    // Wine's spooler prints to files by itself.
    const std::filesystem::path port =
        std::filesystem::temp_directory_path() /
        (L"kest-port-" + std::to_wstring(GetCurrentProcessId()) + L".prn");
    SpoolerService spooler;
    EXPECT_THROW(spooler.StartJob(port, L"document", L""), CommandFailed);  // no queue there
    const WinePrinter queue(port);
    EXPECT_THAT(QueuesOn(spooler.Queues(), port), ElementsAre(queue.Name()));
    EXPECT_THROW(spooler.StartJob(port, L"document", L"another"), CommandFailed);
    const auto job = spooler.StartJob(port, L"document", L"");
    EXPECT_EQ(job->Write(reinterpret_cast<const BYTE*>("a job"), 5), 5u);
    job->End();
    EXPECT_THAT(job->Outcome(), HasSubstr(WideToUtf8(queue.Name())));
    std::ifstream printed(port, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(printed), {}), "a job");
    printed.close();
    std::filesystem::remove(port);
}

constexpr DWORD kDenied = ERROR_ACCESS_DENIED;

BOOL WINAPI TakeNothing(HANDLE, LPVOID, DWORD, LPDWORD taken) {
    *taken = 0;
    return SetLastError(ERROR_ACCESS_DENIED), TRUE;
}
int aborted = 0;
BOOL WINAPI CountAborted(HANDLE) {
    return ++aborted, TRUE;
}

TEST(SpoolerService, AJobThatTheSpoolerRefusesFailsAndIsAborted) {
    const WinePrinter queue(L"NUL:");
    const HMODULE self = GetModuleHandleW(nullptr);
    const ImportPatch counting(self, "AbortPrinter", CountAborted);
    const struct {
        const char* function;
        void* replacement;
        const char* failure;
        int aborted;
    } cases[] = {
        {"OpenPrinterW", reinterpret_cast<void*>(Refusing<kDenied>(OpenPrinterW)),
         " cannot be opened: ", 0},
        {"StartDocPrinterW", reinterpret_cast<void*>(Refusing<kDenied>(StartDocPrinterW)),
         " does not take the job: ", 0},
        {"WritePrinter", reinterpret_cast<void*>(Refusing<kDenied>(WritePrinter)),
         " takes no more of job ", 1},
        // The caller would offer the same bytes for ever.
        {"WritePrinter", reinterpret_cast<void*>(TakeNothing), " takes no more of job ", 1},
        {"EndDocPrinter", reinterpret_cast<void*>(Refusing<kDenied>(EndDocPrinter)),
         " does not end job ", 1},
    };
    for (const auto& [function, replacement, failure, expected] : cases) {
        aborted = 0;
        const ImportPatch patch(self, function, replacement);
        const CommandFailed failed = FailureOf([&queue] {
            const auto job = SpoolerService().StartJob(L"NUL:", L"document", queue.Name());
            job->Write(reinterpret_cast<const BYTE*>("a job"), 5);
            job->End();
        });
        EXPECT_THAT(failed.what(), AllOf(HasSubstr(failure), HasSubstr("(5)")));
        EXPECT_EQ(aborted, expected) << failure;
    }
}

TEST(SpoolerService, ReportsWhyAQueueIsNotMovedAndACommandNotPassedOn) {
    const WinePrinter queue(L"NUL:");
    const HMODULE self = GetModuleHandleW(nullptr);
    SpoolerService spooler(L"Local Port");
    const auto move = [&] {
        return FailureOf([&] { spooler.MoveQueue(queue.Name(), {L"LPT1:", L"LPT2:"}); });
    };
    {
        const ImportPatch patch(self, "SetPrinterW", Refusing<kDenied>(SetPrinterW));
        EXPECT_THAT(move().what(), HasSubstr(" cannot be moved to port LPT1:,LPT2:: "));
        EXPECT_EQ(move().remedy, Remedy::RunAsAdministrator);
    }
    {
        const ImportPatch patch(self, "GetPrinterW", Refusing<kDenied>(GetPrinterW));
        EXPECT_THAT(move().what(), HasSubstr(" cannot be read: "));
    }
    {
        const ImportPatch patch(self, "OpenPrinterW", Refusing<kDenied>(OpenPrinterW));
        EXPECT_THAT(move().what(), HasSubstr(" cannot be opened: "));
    }
    EXPECT_THAT(QueuesOn(spooler.Queues(), L"NUL:"), ElementsAre(queue.Name()));
    const ImportPatch patch(self, "XcvDataW", Refusing<RPC_S_SERVER_UNAVAILABLE>(XcvDataW));
    const CommandFailed failed =
        FailureOf([&spooler] { spooler.Xcv(L"MonitorUI", nullptr, 0, nullptr, 0); });
    EXPECT_THAT(failed.what(), HasSubstr("does not pass on MonitorUI: "));
    EXPECT_EQ(failed.remedy, Remedy::StartSpooler);
}

TEST(SpoolerService, NamesTheServiceThatReadsTheStandardPortsOfAServer) {
    const ImportPatch patch(
        GetModuleHandleW(nullptr), "RegConnectRegistryW",
        +[](LPCWSTR, HKEY, PHKEY) -> LONG { return ERROR_BAD_NETPATH; });
    EXPECT_THAT(
        FailureOf([] { SpoolerService(L"kestmon", LR"(\\PRINT1)").StandardPorts(); }).what(),
        AllOf(HasSubstr(R"(the registry of \\PRINT1 cannot be reached: )"),
              HasSubstr("Remote Registry")));
}

}  // namespace
