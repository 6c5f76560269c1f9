// kestctl resolve, ping and interfaces: the network as the monitor sees it.
#include <winsock2.h>
#include <windows.h>

#include <iostream>
#include <memory>
#include <string>

#include "admin/Hosts.h"
#include "tools/kestctl/Command.h"

namespace {

// What the three commands are told.
struct NetworkArguments {
    std::string target;
    bool json = false;
};

const char* Family(const IPAddress& address) {
    return address.GetType() == IPV6 ? "IPv6" : "IPv4";
}

void RunResolve(const NetworkArguments& arguments) {
    const IPAddress address = Resolve(StartedNetwork(), arguments.target);
    if (arguments.json) {
        PrintJson({{"name", arguments.target},
                   {"address", address.GetText()},
                   {"family", Family(address)}});
    } else {
        std::cout << address << '\n';
    }
}

void RunPing(const NetworkArguments& arguments) {
    const Network& network = StartedNetwork();
    const IPAddress address = AddressOf(network, arguments.target);
    const bool answered = network.Ping(address) == 0;
    if (arguments.json) {
        PrintJson({{"address", address.GetText()}, {"answered", answered}});
    } else if (answered) {
        std::cout << address << " answers\n";
    }
    if (!answered) {
        throw CommandFailed(address.GetText() +
                            " does not answer: check that the printer is on and connected, and "
                            "that no firewall keeps ICMP echo from it");
    }
}

const char* Reason(AddressVerdict verdict) {
    switch (verdict) {
        case AddressVerdict::Taken:
            return "";
        case AddressVerdict::NoAddress:
            return "the interface has no address";
        case AddressVerdict::NoMask:
            return "it has no subnet mask";
        case AddressVerdict::ZeroNetwork:
            return "it lies in 0.0.0.0/8";
        case AddressVerdict::Loopback:
            return "it is the machine's loopback";
        case AddressVerdict::SelfAssigned:
            return "it is self-assigned: the interface got none";
        case AddressVerdict::GatewayUnusable:
            return "the default gateway's address is unusable";
        case AddressVerdict::IsGateway:
            return "it is the default gateway's";
        case AddressVerdict::BeyondLimit:
            return "ten were taken before it";
    }
    return "";
}

std::string Dotted(DWORD address) {
    in_addr bytes = {};
    bytes.s_addr = address;
    return IPAddress(bytes).GetText();
}

void RunInterfaces(const NetworkArguments& arguments) {
    const Network& network = StartedNetwork();
    if (network.GetAddressTable() == nullptr) {
        throw CommandFailed(
            "the system does not tell its addresses and routes: check with "
            "'ipconfig' and 'route print' that it has any");
    }
    auto addresses = nlohmann::json::array();
    std::vector<std::vector<std::string>> rows;
    for (const auto& [address, mask, verdict] : network.GetJudgedAddresses()) {
        const bool used = verdict == AddressVerdict::Taken;
        nlohmann::json row = {{"address", Dotted(address)}, {"mask", Dotted(mask)}, {"used", used}};
        if (!used) {
            row["reason"] = Reason(verdict);
        }
        addresses.push_back(std::move(row));
        rows.push_back(
            {Dotted(address), Dotted(mask), used ? "yes" : std::string("no: ") + Reason(verdict)});
    }
    if (arguments.json) {
        PrintJson({{"interfaces", network.GetNumInterfaces()}, {"addresses", addresses}});
    } else {
        PrintTable({"ADDRESS", "MASK", "USED"}, rows);
    }
}

// A command and, unless `target` is null, what it is asked about.
void AddCommand(CLI::App& app, const char* name, const char* text, const char* target,
                const char* targetText, const char* example, void (*run)(const NetworkArguments&)) {
    const auto arguments = std::make_shared<NetworkArguments>();
    CLI::App& command = *app.add_subcommand(name, text);
    AddExample(command, example);
    if (target != nullptr) {
        command.add_option(target, arguments->target, targetText)->required()->check(NotEmpty());
    }
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, run] { run(*arguments); });
}

}  // namespace

void AddNetworkCommands(CLI::App& app) {
    AddCommand(app, "resolve", "Show the address that the monitor finds for a host name", "NAME",
               "The host name", "resolve printer-2.example.com", RunResolve);
    AddCommand(app, "ping", "Ask a printer for an ICMP echo, as the search for printers does",
               "ADDRESS", "The printer's IPv4 or IPv6 address, or its host name",
               "ping 192.168.1.20", RunPing);
    AddCommand(app, "interfaces",
               "Show this machine's IPv4 addresses, which are used, and why the others are not",
               nullptr, nullptr, "interfaces", RunInterfaces);
}
