#include "admin/search/Hosts.h"

#include <mutex>

#include "base/CommandFailed.h"
#include "base/Text.h"

Network& StartedNetwork() {
    // The dialogs search and ask on several threads, and the network starts on one.
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

const char* ReasonText(AddressVerdict verdict) {
    switch (verdict) {
        case AddressVerdict::Taken:
            return "";
        case AddressVerdict::NoAddress:
            return "the interface has no address";
        case AddressVerdict::NoMask:
            return "it has no subnet mask";
        case AddressVerdict::ZeroNetwork:
            return "it is in 0.0.0.0/8";
        case AddressVerdict::Loopback:
            return "it is the loopback address";
        case AddressVerdict::SelfAssigned:
            return "it is self-assigned: the interface received no address";
        case AddressVerdict::GatewayUnusable:
            return "the default gateway's address is unusable";
        case AddressVerdict::IsGateway:
            return "it is the address of the default gateway";
        case AddressVerdict::BeyondLimit:
            return "ten other addresses are already used";
    }
    return "";
}
