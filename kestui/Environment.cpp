#include "kestui/Environment.h"

#include "admin/channel/SpoolerService.h"
#include "admin/search/Hosts.h"
#include "admin/search/PrinterSearch.h"

Environment SystemEnvironment() {
    Environment environment;
    environment.openChannel = [](const std::wstring& server) {
        return std::make_unique<SpoolerService>(L"kestmon", server);
    };
    environment.search = [](const auto& found, const auto& mayContinue) {
        return FindPrinters(
            "",
            [&found](const Printer& printer) {
                found({IdentityOf(printer), printer.GetHostName(), printer.GetModelName()});
            },
            mayContinue);
    };
    environment.resolve = [](const std::string& host) {
        return AddressOf(StartedNetwork(), host).GetText();
    };
    environment.identify = IdentifyPrinter;
    environment.connect = [](const std::string& host, DWORD port,
                             std::chrono::milliseconds timeout) {
        return RealCheckNetwork().connect(host, port, timeout);
    };
    environment.language = GetThreadUILanguage();
    return environment;
}
