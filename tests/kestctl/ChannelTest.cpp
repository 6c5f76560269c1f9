// What --server changes of a command and its advice.
#include <gmock/gmock.h>

#include "admin/channel/PortRecords.h"
#include "kestctl/Command.h"
#include "tests/support/ImportPatch.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

BOOL WINAPI ListNothing(LPWSTR, DWORD, LPBYTE, DWORD, LPDWORD, LPDWORD) {
    return TRUE;
}
BOOL WINAPI FindNoServer(LPWSTR, DWORD, LPBYTE, DWORD, LPDWORD, LPDWORD) {
    SetLastError(RPC_S_SERVER_UNAVAILABLE);
    return FALSE;
}
BOOL WINAPI RefusePrinter(LPWSTR, LPHANDLE, LPPRINTER_DEFAULTSW) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}
BOOL WINAPI ListNoPrinters(DWORD, LPWSTR, DWORD, LPBYTE, DWORD, LPDWORD, LPDWORD) {
    return FALSE;
}

std::string Refusal(const std::function<void()>& action) {
    try {
        action();
    } catch (const CommandFailed& failed) {
        return Explained(failed);
    }
    return {};
}

TEST(Channel, AnotherServersNameReachesTheAdvice) {
    const HMODULE self = GetModuleHandleW(nullptr);
    const ImportPatch patches[] = {{self, "EnumPrintersW", ListNoPrinters},
                                   {self, "EnumPortsW", ListNothing},
                                   {self, "EnumMonitorsW", FindNoServer},
                                   {self, "OpenPrinterW", RefusePrinter}};
    CLI::App app;
    app.fallthrough();
    AddDirectFlag(app);
    AddServerOption(app);
    AddPortCommands(
        app, [&app] { return OpenChannel(app); }, {}, [&app] { return ServerName(app); });
    EXPECT_THAT(Refusal([&app] { app.parse("--server PRINT1 port list"); }),
                HasSubstr("Check that PRINT1 is the right name"));
    EXPECT_THAT(Refusal([&app] { ReadPort(*OpenChannel(app), L"OFFICE"); }),
                HasSubstr("may manage the print server PRINT1"));
    for (const Remedy remedy : {Remedy::InstallMonitor, Remedy::ListPorts, Remedy::ChangePort,
                                Remedy::ShowPort, Remedy::DeletePort, Remedy::AddPrinter}) {
        EXPECT_THAT(Explained(CommandFailed("", remedy, L"OFFICE")),
                    AllOf(HasSubstr("PRINT1"), Not(HasSubstr("--direct"))));
    }
}

}  // namespace
