// What --server changes of a command and its advice.
#include <gmock/gmock.h>

#include "admin/channel/PortRecords.h"
#include "kestctl/Command.h"
#include "tests/support/FailureOf.h"
#include "tests/support/ImportPatch.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

BOOL WINAPI ListNothing(LPWSTR, DWORD, LPBYTE, DWORD, LPDWORD, LPDWORD) {
    return TRUE;
}
TEST(Channel, AnotherServersNameReachesTheAdvice) {
    const HMODULE self = GetModuleHandleW(nullptr);
    const ImportPatch patches[] = {
        {self, "EnumPrintersW", Refusing<NO_ERROR>(EnumPrintersW)},
        {self, "EnumPortsW", ListNothing},
        {self, "EnumMonitorsW", Refusing<RPC_S_SERVER_UNAVAILABLE>(EnumMonitorsW)},
        {self, "OpenPrinterW", Refusing<ERROR_ACCESS_DENIED>(OpenPrinterW)}};
    CLI::App app;
    app.fallthrough();
    AddDirectFlag(app);
    AddServerOption(app);
    AddPortCommands(
        app, [&app] { return OpenChannel(app); }, {}, [&app] { return ServerName(app); });
    EXPECT_THAT(Explained(FailureOf([&app] { app.parse("--server PRINT1 port list"); })),
                HasSubstr("Check that PRINT1 is the right name"));
    EXPECT_THAT(Explained(FailureOf([&app] { ReadPort(*OpenChannel(app), L"OFFICE"); })),
                HasSubstr("may manage the print server PRINT1"));
    for (const Remedy remedy : {Remedy::InstallMonitor, Remedy::ListPorts, Remedy::ChangePort,
                                Remedy::ShowPort, Remedy::DeletePort, Remedy::AddPrinter}) {
        EXPECT_THAT(Explained(CommandFailed("", remedy, L"OFFICE")),
                    AllOf(HasSubstr("PRINT1"), Not(HasSubstr("--direct"))));
    }
}

}  // namespace
