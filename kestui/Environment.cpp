#include "kestui/Environment.h"

#include <chrono>

#include "admin/search/Hosts.h"
#include "admin/search/PrinterSearch.h"
#include "admin/channel/SpoolerService.h"
#include "base/Connect.h"

namespace {

constexpr std::chrono::seconds kConnectTime{5};

bool Connects(const std::string& text, WORD port, const GoOn& goOn) {
    StartedNetwork();
    const IPAddress address(text);
    int length = 0;
    const sockaddr* found = address.GetSockAddr(length);
    if (found == nullptr) {
        return false;
    }
    sockaddr_storage target = {};
    memcpy(&target, found, static_cast<size_t>(length));
    // The port stands at the same place in both families.
    reinterpret_cast<sockaddr_in&>(target).sin_port = htons(port);
    if (target.ss_family == AF_INET6) {
        // A link-local address is one only together with its zone.
        const size_t zone = text.find('%');
        reinterpret_cast<sockaddr_in6&>(target).sin6_scope_id =
            zone == std::string::npos ? 0 : strtoul(text.c_str() + zone + 1, nullptr, 10);
    }
    UniqueSocket connection;
    return Connect(connection, reinterpret_cast<const sockaddr*>(&target), length, kConnectTime,
                   goOn) == 0;
}

}  // namespace

Environment SystemEnvironment() {
    Environment environment;
    environment.openChannel = [](const std::wstring& server) {
        return std::make_unique<SpoolerService>(L"kestmon", server);
    };
    environment.search = [](const auto& found, const GoOn& goOn) {
        return FindPrinters(
            "",
            [&found](const Printer& printer) {
                found({IdentityOf(printer), printer.GetHostName(), printer.GetModelName()});
            },
            goOn);
    };
    environment.resolve = [](const std::string& host) {
        return AddressOf(StartedNetwork(), host).GetText();
    };
    environment.identify = IdentifyPrinter;
    environment.connects = Connects;
    environment.language = GetThreadUILanguage();
    return environment;
}
