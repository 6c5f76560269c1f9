// kestctl settings show and set: a printer's IPv4 settings, over SNMP.
#include <winsock2.h>
#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "address/AddressText.h"
#include "admin/Hosts.h"
#include "discovery/Printer.h"
#include "net/Network.h"
#include "net/SnmpSession.h"
#include "tools/kestctl/Command.h"

namespace {

// IPv4 addresses as dotted text.
struct Settings {
    std::string address;
    std::string mask;
    std::string gateway;
};

struct SettingsArguments {
    std::string printer;
    Settings wanted;  // empty: as it is
    bool yes = false;
    bool json = false;
};

// In host order. A leading zero is just a zero.
std::optional<uint32_t> ToNumber(const std::string& text) {
    unsigned octets[4] = {};
    if (!IsIPv4AddressText(text) || text.find(':') != std::string::npos ||
        std::sscanf(text.c_str(), "%3u.%3u.%3u.%3u", &octets[0], &octets[1], &octets[2],
                    &octets[3]) != 4) {
        return std::nullopt;
    }
    return octets[0] << 24 | octets[1] << 16 | octets[2] << 8 | octets[3];
}

std::string ToText(uint32_t address) {
    std::string text = std::to_string(address >> 24);
    for (int shift = 16; shift >= 0; shift -= 8) {
        text += "." + std::to_string(address >> shift & 0xFF);
    }
    return text;
}

// Brings an address into its plain form; says what is wrong with it (CLI11's convention).
std::string CheckAddress(std::string& text) {
    const auto number = ToNumber(text);
    if (!number) {
        return "'" + text + "' is not an IPv4 address: give it like 192.168.1.20";
    }
    text = ToText(*number);
    return {};
}

// What keeps a printer with these settings from working; empty if nothing does. A gateway of
// 0.0.0.0 is none.
std::string Problem(const Settings& settings) {
    const auto address = ToNumber(settings.address);
    const auto mask = ToNumber(settings.mask);
    const auto gateway = ToNumber(settings.gateway);
    if (!address || !mask || !gateway) {
        return "address '" + settings.address + "', mask '" + settings.mask + "', gateway '" +
               settings.gateway + "': these are not all IPv4 addresses";
    }
    const uint32_t hosts = ~*mask;
    if ((hosts & (hosts + 1)) != 0) {
        return "the mask " + settings.mask +
               " has ones behind its zeros: a mask is like 255.255.255.0";
    }
    if (*mask == 0 || hosts < 3) {
        return "the mask " + settings.mask + " leaves no network that a printer can be in";
    }
    if (const uint32_t first = *address >> 24; first == 0 || first == 127 || first >= 224) {
        return settings.address + " cannot be the address of a printer";
    }
    const auto isReserved = [hosts](uint32_t host) {
        return (host & hosts) == 0 || (host & hosts) == hosts;
    };
    const std::string network = ToText(*address & *mask) + " with mask " + settings.mask;
    if (isReserved(*address)) {
        return settings.address + " is the network's own or its broadcast address, in " + network;
    }
    if (*gateway == 0) {
        return {};
    }
    if ((*gateway & *mask) != (*address & *mask)) {
        return "the gateway " + settings.gateway + " is outside the printer's network, " + network;
    }
    if (isReserved(*gateway) || *gateway == *address) {
        return "the gateway " + settings.gateway +
               " is the printer's, the network's own or its broadcast address, in " + network;
    }
    return {};
}

constexpr char kNoWinSnmp[] =
    "this machine has no working WinSNMP (wsnmp32.dll): ask from a Windows machine";

// Wine's library raises an exception in the entries that it only has the names of.
LONG WINAPI OnNoWinSnmp(EXCEPTION_POINTERS*) {
    std::cerr << "kestctl: " << kNoWinSnmp << std::endl;
    std::_Exit(1);
}

void RequireWinSnmp() {
    smiUINT32 unused[5] = {};
    const auto previous = SetUnhandledExceptionFilter(OnNoWinSnmp);
    const bool started =
        SnmpStartup(&unused[0], &unused[1], &unused[2], &unused[3], &unused[4]) != SNMPAPI_FAILURE;
    const HSNMP_SESSION session =
        started ? SnmpCreateSession(nullptr, 0, SnmpSession::Callback, nullptr) : nullptr;
    if (session != nullptr) {
        SnmpClose(session);
    }
    if (started) {
        SnmpCleanup();
    }
    SetUnhandledExceptionFilter(previous);
    if (session == nullptr) {
        throw CommandFailed(kNoWinSnmp);
    }
}

// Every step may take seconds.
void ShowStep(const std::string& step) {
    if (OutputIsTerminal()) {
        std::cerr << step << "...\n";
    }
}

// Reads the settings into the record. It is filled where it stands: a copy would not have them.
void Read(Printer& printer, const std::string& address) {
    const Network& network = StartedNetwork();
    RequireWinSnmp();
    if (network.GetLocalAddress(0) == nullptr) {
        throw CommandFailed(
            "this machine has no IPv4 address to ask from: 'kestctl interfaces' "
            "tells why");
    }
    printer.SetFirstIPAddress(IPAddress(address));
    ShowStep("asking " + address + " for its settings");
    if (printer.RetrieveSnmpSettings() == 0) {
        return;
    }
    ShowStep("looking whether it answers at all");
    throw CommandFailed(
        network.Ping(printer.GetIPAddress()) == 0
            ? address +
                  " is there but does not tell its settings: SNMP may be turned off or "
                  "want another community, or the device does not know these settings"
            : address +
                  " does not answer, not to a ping either: check the address, and that the "
                  "printer is on and connected");
}

Settings SettingsOf(const Printer& printer) {
    return {printer.GetIPAddress().GetText(), printer.GetSubnetMask(), printer.GetGateway()};
}

nlohmann::json ToJson(const Settings& settings) {
    return {{"address", settings.address}, {"mask", settings.mask}, {"gateway", settings.gateway}};
}

void RunShow(const SettingsArguments& arguments) {
    Printer printer;
    Read(printer, arguments.printer);
    const Settings settings = SettingsOf(printer);
    if (arguments.json) {
        nlohmann::json document = ToJson(settings);
        document["method"] = printer.GetConfigMethod();
        PrintJson(document);
        return;
    }
    PrintTable({"address", settings.address},
               {{"mask", settings.mask},
                {"gateway", settings.gateway},
                {"method", std::to_string(printer.GetConfigMethod())}});
}

// Shows what would change and asks for it.
bool IsConfirmed(const Settings& before, const Settings& after) {
    const auto show = [](const char* name, const std::string& old, const std::string& wanted) {
        std::cerr << name << old << (old == wanted ? "" : " -> " + wanted) << '\n';
    };
    show("address  ", before.address, after.address);
    show("mask     ", before.mask, after.mask);
    show("gateway  ", before.gateway, after.gateway);
    return ::IsConfirmed("Write these settings to the printer?");
}

void RunSet(const SettingsArguments& arguments) {
    const Settings& wanted = arguments.wanted;
    if (wanted.address.empty() && wanted.mask.empty() && wanted.gateway.empty()) {
        throw CLI::RequiredError("a setting to change");
    }
    if (!arguments.yes && !InputIsTerminal()) {
        throw CLI::RequiredError("--yes (there is no terminal to ask on)");
    }
    if (!wanted.address.empty() && !wanted.mask.empty() && !wanted.gateway.empty()) {
        if (const std::string problem = Problem(wanted); !problem.empty()) {
            throw CLI::ValidationError(problem);
        }
    }
    Printer printer;
    Read(printer, arguments.printer);
    const Settings before = SettingsOf(printer);
    const auto chosen = [](const std::string& given, const std::string& old) {
        return given.empty() ? old : given;
    };
    const Settings after = {chosen(wanted.address, before.address),
                            chosen(wanted.mask, before.mask),
                            chosen(wanted.gateway, before.gateway)};
    if (const std::string problem = Problem(after); !problem.empty()) {
        throw CommandFailed(problem + "; nothing was written");
    }
    const Network& network = StartedNetwork();
    const IPAddress newAddress(after.address);
    if (after.address != before.address) {
        ShowStep("looking whether somebody has " + after.address);
        if (network.Ping(newAddress) == 0) {
            throw CommandFailed(after.address +
                                " answers already, another device has it; nothing was written");
        }
    }
    if (!arguments.yes && !IsConfirmed(before, after)) {
        throw CommandFailed("nothing was written");
    }
    ShowStep("writing, and waiting for the printer at " + after.address);
    if (printer.UpdateSnmpSettings(after.address, after.mask, after.gateway) != 0) {
        throw CommandFailed(before.address +
                            " refused the settings or did not confirm them: 'kestctl settings "
                            "show' at its old and its new address tells which it has");
    }
    const bool answers = network.Ping(newAddress) == 0;
    if (arguments.json) {
        PrintJson({{"before", ToJson(before)}, {"after", ToJson(after)}, {"answers", answers}});
    } else {
        std::cout << "written to " << before.address << ": address " << after.address << ", mask "
                  << after.mask << ", gateway " << after.gateway << '\n'
                  << "the printer "
                  << (answers ? "answers at " + after.address
                              : "does not answer at " + after.address +
                                    " (yet): some take a minute, or have to be turned off and on")
                  << '\n';
    }
}

CLI::App& AddCommand(CLI::App& settings, const char* name, const char* text, const char* example,
                     void (*run)(const SettingsArguments&),
                     const std::shared_ptr<SettingsArguments>& arguments) {
    CLI::App& command = *settings.add_subcommand(name, text);
    AddExample(command, example);
    command.add_option("ADDRESS", arguments->printer, "The printer's IPv4 address")
        ->required()
        ->transform(CLI::Validator(CheckAddress, ""));
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, run] { run(*arguments); });
    return command;
}

}  // namespace

void AddSettingsCommands(CLI::App& app) {
    CLI::App& settings =
        *app.add_subcommand("settings", "Read and write a printer's own IPv4 settings (SNMP)");
    settings.require_subcommand(1);
    AddCommand(settings, "show", "Show the address, mask and gateway that a printer has",
               "settings show 192.168.1.20", RunShow, std::make_shared<SettingsArguments>());

    const auto arguments = std::make_shared<SettingsArguments>();
    CLI::App& set =
        AddCommand(settings, "set", "Give a printer another address, mask or gateway",
                   "settings set 192.168.1.20 --address 192.168.1.21", RunSet, arguments);
    const auto add = [&set](const char* name, std::string& value, const char* text) {
        set.add_option(name, value, text)->transform(CLI::Validator(CheckAddress, ""));
    };
    add("--address", arguments->wanted.address, "Its new address (default: as it is)");
    add("--mask", arguments->wanted.mask, "Its subnet mask (default: as it is)");
    add("--gateway", arguments->wanted.gateway,
        "Its default gateway, 0.0.0.0 for none (default: as it is)");
    set.add_flag("--yes", arguments->yes, "Write without asking");
}
