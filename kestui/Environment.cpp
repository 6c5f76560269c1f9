#include "kestui/Environment.h"

#include "admin/search/Hosts.h"
#include "admin/search/PrinterSearch.h"
#include "admin/channel/SpoolerService.h"
#include "base/Handles.h"

namespace {

constexpr DWORD kConnectTime = 5000;  // ms
constexpr DWORD kAskInterval = 100;   // ms

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
    const UniqueSocket connection(socket(target.ss_family, SOCK_STREAM, IPPROTO_TCP));
    u_long nonBlocking = 1;
    ioctlsocket(connection.Get(), FIONBIO, &nonBlocking);
    // It has not connected yet when this returns; the loop below waits for that.
    (void)connect(connection.Get(), reinterpret_cast<sockaddr*>(&target), length);
    const ULONGLONG end = GetTickCount64() + kConnectTime;
    while (connection && goOn() && GetTickCount64() < end) {
        fd_set connected;
        fd_set refused;
        FD_ZERO(&connected);
        FD_ZERO(&refused);
        FD_SET(connection.Get(), &connected);
        FD_SET(connection.Get(), &refused);
        timeval wait = {0, kAskInterval * 1000};
        if (const int ready = select(0, nullptr, &connected, &refused, &wait); ready != 0) {
            return ready > 0 && FD_ISSET(connection.Get(), &connected) != 0;
        }
    }
    return false;
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
