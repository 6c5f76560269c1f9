#include "tools/kestctl/PortOptions.h"

#include <algorithm>

#include "address/AddressText.h"
#include "admin/Hosts.h"
#include "admin/PrinterSearch.h"
#include "admin/Text.h"
#include "tools/kestctl/Progress.h"

namespace {

// The checks of addresses, with the option that a refused value belongs to. A host name passes: it
// is resolved when the command runs.
std::string CheckAddressOption(std::string& text) {
    std::string problem = CheckIPv4Address(text);
    if (problem.empty() || text == "none") {
        return problem;
    }
    if (IsIPv6AddressText(text)) {
        return problem + ": give it with --ipv6";
    }
    if (const size_t colon = text.find(':'); colon != std::string::npos) {
        return IsIPv4AddressText(text) ? problem + ": give it with --port " + text.substr(colon + 1)
                                       : problem;
    }
    const bool isNumber = text.find_first_not_of("0123456789.") == std::string::npos;
    return isNumber ? problem : CheckIPv6Host(text);  // which takes host names
}
std::string CheckIPv6Option(std::string& text) {
    const std::string problem = CheckIPv6Host(text);
    return problem.empty() || !IsIPv4AddressText(text) ? problem
                                                       : problem + ": give it with --address";
}

// Lays the change over the records. What does not go together is wrong usage.
void ApplyChange(const PortChange& change, PortRecords& records) {
    try {
        Apply(change, records);
    } catch (const SettingsClash& clash) {
        const auto [option, hint] = [&clash]() -> std::pair<const char*, const char*> {
            switch (clash.setting) {
                case PortSetting::Address:
                    return {"--address", ""};
                case PortSetting::Queue:
                    return {"--queue", ": add --protocol lpr"};
                case PortSetting::DoubleSpool:
                    return {"--double-spool", ": add --protocol lpr"};
                case PortSetting::SnmpIndex:
                    return {"--snmp-index", ": add --snmp COMMUNITY"};
                case PortSetting::AlwaysPrint:
                    return {"--always-print",
                            " (--mac or --host-name; --no-always-print turns it off)"};
            }
            return {};
        }();
        throw CLI::ValidationError(option, clash.what() + std::string(hint));
    }
}

// Completes a change of a port by what the printer to follow says of itself.
void Follow(const PrinterIdentity& printer, const PortRecords& before, PortChange& change) {
    if (!change.address && !change.ipv6) {
        (IsIPv4AddressText(printer.address) ? change.address : change.ipv6) = printer.address;
    }
    change.mac = printer.mac;
    if (!printer.hostName.empty()) {
        change.hostName = printer.hostName;
    } else if (const std::string name = FieldText(before.standard.sztHostAddress);
               !name.empty() && FieldText(before.extended.sztHWAddress) != printer.mac) {
        // The monitor keeps a name that it has, and would go to the printer that bears it.
        throw CommandFailed(
            "this printer announces no host name, and the port has one that would stay, " + name +
            ": delete the port and add it with --follow");
    }
    change.alwaysPrint = true;
}

}  // namespace

CLI::Option& AddNames(CLI::App& command, std::vector<std::string>& names,
                      const std::string& description) {
    return *command.add_option("NAME", names, description)->check(NotEmpty());
}

std::vector<std::wstring> WideNames(const std::vector<std::string>& names) {
    std::vector<std::wstring> wide;
    std::transform(names.begin(), names.end(), std::back_inserter(wide), ToWide);
    return wide;
}

bool IsOneName(const std::vector<std::string>& names) {
    return names.size() == 1 && names[0].find_first_of("*?") == std::string::npos;
}

CLI::Validator Checked(std::string (*check)(std::string&)) {
    return CLI::Validator(check, "");
}

std::string ResolveAddress(PortChange& change) {
    std::string name = change.address.value_or("");
    if (name.empty() || CheckIPv4Address(name).empty()) {
        return {};
    }
    const IPAddress address = AddressOf(StartedNetwork(), name);
    if (address.GetType() != IPV4) {
        throw CommandFailed("the name '" + name + "' has the IPv6 address " + address.GetText() +
                            " alone: give it with --ipv6");
    }
    change.address = address.GetText();
    return ", the address of " + name;
}

void AddSettings(CLI::App& command, PortArguments& arguments) {
    PortChange& change = arguments.change;
    const auto text = [&command](const char* name, std::optional<std::string>& value,
                                 const char* description, std::string (*check)(std::string&)) {
        return command.add_option(name, value, description)->transform(Checked(check));
    };
    text("--address", change.address,
         "The printer's IPv4 address, or a host name: what it resolves to now is stored",
         CheckAddressOption);
    text("--ipv6", change.ipv6, "The printer's IPv6 address or host name: send to it over IPv6",
         CheckIPv6Option);
    command
        .add_option("--protocol", change.protocol, "raw (a plain stream) or lpr; a new port is raw")
        ->check(CLI::IsMember({"raw", "lpr"}));
    command
        .add_option("--port", change.portNumber,
                    "TCP port number; a new port has 9100 for raw, 515 for lpr")
        ->check(Checked(CheckPortNumber));
    text("--queue", change.queue, "LPR: the printer's queue; a new port has lp", CheckQueue);
    command.add_flag_function(
        "--double-spool,!--no-double-spool",
        [&change](int64_t count) { change.doubleSpool = count > 0; },
        "LPR: collect the job first, so that its length can be announced");
    text("--host-name", change.hostName, "The printer's own name, to find it again by",
         CheckHostName);
    text("--mac", change.mac,
         "The printer's hardware address, to find it again by; none forgets it", CheckMacAddress);

    command.add_flag_function(
        "--always-print,!--no-always-print",
        [&change](int64_t count) { change.alwaysPrint = count > 0; },
        "When the printer cannot be reached, search the network for it and follow it; a new port "
        "does so with --follow");
    CLI::Option* community = text("--snmp", change.snmpCommunity,
                                  "Store that SNMP status is wanted, with this community: kestmon "
                                  "itself asks no printer, only dialogues show it",
                                  CheckCommunity);
    CLI::Option* index = command.add_option("--snmp-index", change.snmpIndex,
                                            "SNMP device index; 1 where there was none");
    index->check(Checked(CheckSnmpIndex));
    command.add_flag("--no-snmp", change.noSnmp, "Store that SNMP status is not wanted")
        ->excludes(community)
        ->excludes(index);
}

void AddFollow(CLI::App& command, PortArguments& arguments) {
    command
        .add_option("--follow", arguments.follow,
                    "Ask the printer at this address, or of this name, for its MAC address and "
                    "host name, and make the port send to it and follow it")
        ->check(NotEmpty())
        ->excludes("--mac")
        ->excludes("--host-name")
        ->excludes("--always-print");
}

std::optional<PrinterIdentity> PrinterToFollow(const PortArguments& arguments,
                                               const PrinterIdentifier& identify) {
    if (arguments.follow.empty()) {
        return std::nullopt;
    }
    Progress progress(!arguments.json);
    progress.Show("asking the printer who it is");
    return identify(arguments.follow);
}

std::string ApplyArguments(const PortArguments& arguments,
                           const std::optional<PrinterIdentity>& printer, PortRecords& records) {
    PortChange change = arguments.change;
    if (printer) {
        Follow(*printer, records, change);
    }
    ApplyChange(change, records);
    return printer ? ", following " + IdentityText(*printer) : std::string();
}
