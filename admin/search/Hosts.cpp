#include "admin/search/Hosts.h"

#include <mutex>

#include "base/CommandFailed.h"
#include "base/Text.h"

Network& StartedNetwork() {
    // The dialogues search and ask on several threads, and the network starts on one.
    static std::mutex starting;
    const std::lock_guard lock(starting);
    Network& network = Singleton<Network>::GetInstance();
    if (network.Start() != 0) {
        throw CommandFailed("Windows Sockets cannot be started: " + ErrorText(WSAGetLastError()));
    }
    return network;
}

IPAddress Resolve(const Network& network, const std::string& name) {
    IPAddress address;
    const std::string ansi = WideToAnsi(Utf8ToWide(name));
    if (network.GetIpAddress(ansi, address) != 0 || !address.IsValid()) {
        throw CommandFailed("the name '" + name +
                            "' could not be resolved. Check the spelling, and with `nslookup " +
                            name + "` that the name server knows it");
    }
    return address;
}

IPAddress AddressOf(const Network& network, const std::string& host) {
    const IPAddress address(host);
    // The resolver takes 1.2.3 for 1.2.0.3.
    if (!address.IsValid() && host.find_first_not_of("0123456789.") == std::string::npos) {
        throw CommandFailed("'" + host +
                            "' is not an IPv4 address. Use, for example, 192.168.1.20");
    }
    return address.IsValid() ? address : Resolve(network, host);
}
