#include "kestui/Environment.h"

#include "admin/channel/SpoolerService.h"
#include "admin/search/Hosts.h"
#include "admin/search/MergedSearch.h"

Environment SystemEnvironment() {
    Environment environment;
    environment.openChannel = [](const std::wstring& server) {
        return std::make_unique<SpoolerService>(L"kestmon", server);
    };
    environment.search = [](const auto& found, const auto& mayContinue) {
        return FindPrinters(
            {}, "",
            [&found](const SearchHit& hit) {
                found({hit.identity, hit.record.GetHostName(), hit.record.GetModelName()});
            },
            mayContinue);
    };
    environment.resolve = [](const std::string& host) {
        return AddressOf(StartedNetwork(), host).GetText();
    };
    environment.identify = IdentifyPrinterByBoth;
    environment.connect = [](const std::string& host, DWORD port,
                             std::chrono::milliseconds timeout) {
        return RealCheckNetwork().connect(host, port, timeout);
    };
    environment.language = GetThreadUILanguage();
    return environment;
}
