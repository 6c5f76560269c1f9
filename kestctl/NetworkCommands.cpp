// kestctl resolve, ping and interfaces: the network as the monitor sees it.
#include <winsock2.h>
#include <windows.h>

#include <nlohmann/json.hpp>

#include <iostream>
#include <string>

#include "admin/search/Hosts.h"
#include "kestctl/Command.h"

namespace {

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
    Progress progress(!arguments.json);
    progress.Show("asking " + address.GetText());
    const bool answered = network.Ping(address) == 0;
    progress.Clear();
    if (arguments.json) {
        PrintJson({{"address", address.GetText()}, {"answered", answered}});
    } else if (answered) {
        std::cout << address << " answers\n";
    }
    if (!answered) {
        throw CommandFailed(address.GetText() +
                            " does not answer. Check that the printer is on and connected, and "
                            "that no firewall blocks ICMP echo requests");
    }
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
            "the system does not report its addresses and routes. Check with `ipconfig` and "
            "`route print` that it has any");
    }
    auto addresses = nlohmann::json::array();
    std::vector<Row> rows;
    for (const auto& [address, mask, verdict] : network.GetJudgedAddresses()) {
        const bool used = verdict == AddressVerdict::Taken;
        nlohmann::json row = {{"address", Dotted(address)}, {"mask", Dotted(mask)}, {"used", used}};
        if (!used) {
            row["reason"] = ReasonText(verdict);
        }
        addresses.push_back(std::move(row));
        rows.push_back({Dotted(address), Dotted(mask),
                        used ? "yes" : std::string("no: ") + ReasonText(verdict)});
    }
    if (arguments.json) {
        PrintJson({{"interfaces", network.GetNumInterfaces()}, {"addresses", addresses}});
    } else {
        PrintTable({"ADDRESS", "MASK", "USED"}, rows);
    }
}

using RunFunction = void (*)(const NetworkArguments&);

// Adds a command with its argument; the text of the argument is null without one.
void Add(CLI::App& app, const char* name, const char* text, const char* example, RunFunction run,
         const char* target, const char* targetText) {
    const auto [command, arguments] = AddCommand<NetworkArguments>(app, name, text, example, run);
    if (targetText != nullptr) {
        command.add_option(target, arguments.target, targetText)->required()->check(NotEmpty());
    }
    AddJsonFlag(command, arguments.json);
}

}  // namespace

void AddNetworkCommands(CLI::App& app) {
    Add(app, "resolve", "Show the address to which the monitor resolves a host name",
        "resolve printer-2.example.com", RunResolve, "NAME", "Host name");
    Add(app, "ping", "Send an ICMP echo request to a printer, as the printer search does",
        "ping 192.168.1.20", RunPing, "ADDRESS",
        "IPv4 address, IPv6 address or host name of the printer");
    Add(app, "interfaces",
        "Show which IPv4 addresses of this computer the printer search uses, and why it does not "
        "use the others",
        "interfaces", RunInterfaces, nullptr, nullptr);
}
