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
#include "admin/search/Hosts.h"
#include "discovery/Printer.h"
#include "net/Network.h"
#include "net/SnmpSession.h"
#include "kestctl/Command.h"

namespace {

// IPv4 addresses as dotted text.
struct Settings {
    std::string address;
    std::string mask;
    std::string gateway;

    bool operator==(const Settings&) const = default;
};

struct SettingsArguments {
    std::string printer;
    Settings wanted;  // empty: as it is
    bool yes = false;
    bool dryRun = false;
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
        return "'" + text + "' is not an IPv4 address, for example 192.168.1.20";
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
    "this computer has no working WinSNMP (wsnmp32.dll). Run the command on Windows";

// Wine's library raises an exception in the entries that it only has the names of.
template <bool Json>
LONG WINAPI OnNoWinSnmp(EXCEPTION_POINTERS*) {
    if (Json) {
        PrintJson({{"error", kNoWinSnmp}, {"exitCode", 1}});
        std::cout.flush();
    } else {
        std::cerr << "kestctl: " << kNoWinSnmp << std::endl;
    }
    std::_Exit(1);
}

void RequireWinSnmp(bool json) {
    smiUINT32 unused[5] = {};
    const auto previous =
        SetUnhandledExceptionFilter(json ? OnNoWinSnmp<true> : OnNoWinSnmp<false>);
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
void Read(Printer& printer, const SettingsArguments& arguments) {
    const std::string& address = arguments.printer;
    const Network& network = StartedNetwork();
    RequireWinSnmp(arguments.json);
    if (network.GetLocalAddress(0) == nullptr) {
        throw CommandFailed(
            "this computer has no usable IPv4 address. `kestctl interfaces` shows why");
    }
    printer.SetFirstIPAddress(IPAddress(address));
    ShowStep("reading the settings of " + address);
    if (printer.RetrieveSnmpSettings() == 0) {
        return;
    }
    ShowStep("checking whether it is reachable");
    throw CommandFailed(
        network.Ping(printer.GetIPAddress()) == 0
            ? address +
                  " answers, but does not report its settings. Check that SNMP is enabled and "
                  "that the device supports these settings"
            : address +
                  " is unreachable. Check the address, and that the printer is on and connected");
}

Settings SettingsOf(const Printer& printer) {
    return {printer.GetIPAddress().GetText(), printer.GetSubnetMask(), printer.GetGateway()};
}

nlohmann::json ToJson(const Settings& settings) {
    return {{"address", settings.address}, {"mask", settings.mask}, {"gateway", settings.gateway}};
}

void RunShow(const SettingsArguments& arguments) {
    Printer printer;
    Read(printer, arguments);
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

void ShowChanges(const Settings& before, const Settings& after, std::ostream& out) {
    const auto show = [&out](const char* name, const std::string& old, const std::string& wanted) {
        out << name << old << (old == wanted ? "" : " -> " + wanted) << '\n';
    };
    show("address  ", before.address, after.address);
    show("mask     ", before.mask, after.mask);
    show("gateway  ", before.gateway, after.gateway);
}

// Refuses wrong usage before the printer is asked.
void CheckArguments(const SettingsArguments& arguments) {
    const Settings& wanted = arguments.wanted;
    if (wanted.address.empty() && wanted.mask.empty() && wanted.gateway.empty()) {
        throw CLI::RequiredError("a setting to change");
    }
    if (!arguments.yes && !arguments.dryRun && !InputIsTerminal()) {
        throw CLI::RequiredError("--yes (there is no terminal to ask on), or --dry-run");
    }
    if (!wanted.address.empty() && !wanted.mask.empty() && !wanted.gateway.empty()) {
        if (const std::string problem = Problem(wanted); !problem.empty()) {
            throw CLI::ValidationError(problem);
        }
    }
}

// The settings after the change. Throws CommandFailed if the printer cannot have them.
Settings Changed(const Settings& before, const Settings& wanted) {
    const auto chosen = [](const std::string& given, const std::string& old) {
        return given.empty() ? old : given;
    };
    const Settings after = {chosen(wanted.address, before.address),
                            chosen(wanted.mask, before.mask),
                            chosen(wanted.gateway, before.gateway)};
    if (const std::string problem = Problem(after); !problem.empty()) {
        throw CommandFailed(problem + "; nothing was written");
    }
    if (after.address != before.address) {
        ShowStep("checking whether " + after.address + " is in use");
        if (StartedNetwork().Ping(IPAddress(after.address)) == 0) {
            throw CommandFailed("another device already uses " + after.address +
                                "; nothing was written");
        }
    }
    return after;
}

void ReportUnwritten(const SettingsArguments& arguments, const Settings& before,
                     const Settings& after) {
    if (arguments.json) {
        PrintJson({{"before", ToJson(before)}, {"after", ToJson(after)}, {"dryRun", true}});
    } else {
        ShowChanges(before, after, std::cout);
        std::cout << "Dry run: nothing was written\n";
    }
}

void Write(const SettingsArguments& arguments, Printer& printer, const Settings& before,
           const Settings& after) {
    ShowStep("writing, and waiting for the printer at " + after.address);
    if (printer.UpdateSnmpSettings(after.address, after.mask, after.gateway) != 0) {
        throw CommandFailed(before.address +
                            " refused the settings or did not confirm them. Check its old and its "
                            "new address with `kestctl settings show`");
    }
    const bool answers = StartedNetwork().Ping(IPAddress(after.address)) == 0;
    if (arguments.json) {
        PrintJson({{"before", ToJson(before)}, {"after", ToJson(after)}, {"answers", answers}});
    } else {
        std::cout << "written to " << before.address << ": address " << after.address << ", mask "
                  << after.mask << ", gateway " << after.gateway << '\n'
                  << "the printer "
                  << (answers ? "answers at " + after.address
                              : "does not answer at " + after.address +
                                    " yet: some need a minute or a restart")
                  << '\n';
    }
}

void RunSet(const SettingsArguments& arguments) {
    CheckArguments(arguments);
    Printer printer;
    Read(printer, arguments);
    const Settings before = SettingsOf(printer);
    const Settings after = Changed(before, arguments.wanted);
    if (arguments.dryRun) {
        ReportUnwritten(arguments, before, after);
        return;
    }
    if (after == before) {
        if (arguments.json) {
            PrintJson({{"before", ToJson(before)}, {"after", ToJson(after)}, {"answers", true}});
        } else {
            std::cout << "no change: the printer already has these settings\n";
        }
        return;
    }
    if (!arguments.yes) {
        ShowChanges(before, after, std::cerr);
    }
    Confirm("Write these settings to the printer?", arguments.yes, "Nothing was written");
    Write(arguments, printer, before, after);
}

CLI::App& AddCommand(CLI::App& settings, const char* name, const char* text, const char* example,
                     void (*run)(const SettingsArguments&),
                     const std::shared_ptr<SettingsArguments>& arguments) {
    CLI::App& command = *settings.add_subcommand(name, text);
    AddExample(command, example);
    command.add_option("ADDRESS", arguments->printer, "IPv4 address of the printer")
        ->required()
        ->transform(CLI::Validator(CheckAddress, ""));
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, run] { run(*arguments); });
    return command;
}

}  // namespace

void AddSettingsCommands(CLI::App& app) {
    CLI::App& settings =
        *app.add_subcommand("settings", "Read and write the IPv4 settings of a printer with SNMP");
    settings.require_subcommand(1);
    AddCommand(settings, "show", "Show address, mask and gateway of a printer",
               "settings show 192.168.1.20", RunShow, std::make_shared<SettingsArguments>());

    const auto arguments = std::make_shared<SettingsArguments>();
    CLI::App& set =
        AddCommand(settings, "set", "Change address, mask or gateway of a printer",
                   "settings set 192.168.1.20 --address 192.168.1.21", RunSet, arguments);
    const auto add = [&set](const char* name, std::string& value, const char* text) {
        set.add_option(name, value, text)->transform(CLI::Validator(CheckAddress, ""));
    };
    add("--address", arguments->wanted.address, "New address (unchanged by default)");
    add("--mask", arguments->wanted.mask, "Subnet mask (unchanged by default)");
    add("--gateway", arguments->wanted.gateway,
        "Default gateway, 0.0.0.0 for none (unchanged by default)");
    AddDryRunFlag(set, arguments->dryRun);
    AddYesFlag(set, arguments->yes);
}
