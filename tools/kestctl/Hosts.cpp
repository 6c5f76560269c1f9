#include "tools/kestctl/Hosts.h"

#include "diag/SystemUtils.h"
#include "tools/kestctl/Command.h"
#include "tools/kestctl/Text.h"

Network& StartedNetwork() {
    Network& network = Singleton<Network>::GetInstance();
    if (network.Start() != 0) {
        throw CommandFailed("Windows Sockets cannot be started: " + ErrorText(WSAGetLastError()));
    }
    return network;
}

IPAddress Resolve(const Network& network, const std::string& name) {
    IPAddress address;
    const std::string ansi = system_helper::ToNarrow(ToWide(name));
    if (network.GetIpAddress(ansi, address) != 0 || !address.IsValid()) {
        throw CommandFailed("the name '" + name +
                            "' has no address: check its spelling, and with 'nslookup " + name +
                            "' that the name server knows it");
    }
    return address;
}

IPAddress AddressOf(const Network& network, const std::string& host) {
    const IPAddress address(host);
    return address.IsValid() ? address : Resolve(network, host);
}
