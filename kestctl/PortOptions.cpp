#include "kestctl/PortOptions.h"

#include <algorithm>

#include "address/AddressText.h"
#include "admin/ports/PortStore.h"
#include "base/Text.h"

namespace {

// The checks of addresses, with the option that a refused value belongs to. A host name passes: it
// is resolved when the command runs.
std::string CheckAddressOption(std::string& text) {
    std::string problem = CheckIPv4Address(text);
    if (problem.empty() || text == "none") {
        return problem;
    }
    if (IsIPv6AddressText(text)) {
        return problem + ". Use --ipv6 for it";
    }
    if (const size_t colon = text.find(':'); colon != std::string::npos) {
        return IsIPv4AddressText(text) ? problem + ". Use --port " + text.substr(colon + 1)
                                       : problem;
    }
    const bool isNumber = text.find_first_not_of("0123456789.") == std::string::npos;
    return isNumber ? problem : CheckIPv6Host(text);  // which takes host names
}
std::string CheckIPv6Option(std::string& text) {
    const std::string problem = CheckIPv6Host(text);
    return problem.empty() || !IsIPv4AddressText(text) ? problem
                                                       : problem + ". Use --address for it";
}

// Stands for --follow without a value; no host has this name.
constexpr char kOwnAddress[] = "the port's own address";

constexpr size_t kNamesShown = 10;

void AddStatusSettings(CLI::App& command, PortChange& change) {
    command.add_flag_function(
        "--always-print,!--no-always-print",
        [&change](int64_t count) { change.alwaysPrint = count > 0; },
        "Search for the printer when it is unreachable, and follow it; on for a new port with "
        "--follow");
    CLI::Option* community =
        command.add_option("--snmp", change.snmpCommunity,
                           "Community for SNMP status; kestmon only stores it for other programs");
    community->transform(Checked(CheckCommunity));
    CLI::Option* index = command.add_option("--snmp-index", change.snmpIndex,
                                            "SNMP device index; 1 if none was stored");
    index->check(Checked(CheckSnmpIndex));
    command.add_flag("--no-snmp", change.noSnmp, "Turn SNMP status off")
        ->excludes(community)
        ->excludes(index);
}

void AddFollow(CLI::App& command, PortArguments& arguments, bool mayBeOwn) {
    const std::string description =
        "Read MAC address and host name from the printer at this address or host name, send to it "
        "and follow it";
    CLI::Option* follow = command.add_option(
        "--follow", arguments.follow,
        description +
            (mayBeOwn ? "; without a value, from the printer at each port's own address" : ""));
    follow->check(NotEmpty())
        ->excludes("--mac")
        ->excludes("--host-name")
        ->excludes("--always-print");
    if (mayBeOwn) {
        follow->expected(0, 1)->default_str(kOwnAddress);
    }
}

// "2 ports (A, B)".
std::string CountedPorts(const std::vector<std::wstring>& ports) {
    const size_t shown = std::min(ports.size(), kNamesShown);
    return Count(ports.size(), "port") + " (" +
           JoinedNames({ports.begin(), ports.begin() + static_cast<ptrdiff_t>(shown)}) +
           (shown < ports.size() ? ", ...)" : ")");
}

}  // namespace

CLI::Option& AddNames(CLI::App& command, std::vector<std::string>& names,
                      const std::string& description) {
    return *command.add_option("NAME", names, description)->check(NotEmpty());
}

std::vector<std::wstring> WideNames(const std::vector<std::string>& names) {
    std::vector<std::wstring> wide;
    std::transform(names.begin(), names.end(), std::back_inserter(wide), Utf8ToWide);
    return wide;
}

bool IsOneName(const std::vector<std::string>& names) {
    return names.size() == 1 && names[0].find_first_of("*?") == std::string::npos;
}

void AddSettings(CLI::App& command, PortArguments& arguments, bool mayBeOwn) {
    PortChange& change = arguments.change;
    const auto text = [&command](const char* name, std::optional<std::string>& value,
                                 const char* description, std::string (*check)(std::string&)) {
        return command.add_option(name, value, description)->transform(Checked(check));
    };
    text("--address", change.address,
         "IPv4 address or host name of the printer; a name is resolved now and its address stored",
         CheckAddressOption);
    text("--ipv6", change.ipv6, "IPv6 address or host name of the printer, for IPv6",
         CheckIPv6Option);
    command.add_option("--protocol", change.protocol, "raw or lpr; raw for a new port")
        ->transform(CLI::IsMember({"raw", "lpr"}, CLI::ignore_case));
    command
        .add_option("--port", change.portNumber,
                    "TCP port number; 9100 for a new raw port, 515 for a new lpr port")
        ->check(Checked(CheckPortNumber));
    text("--queue", change.queue, "LPR: queue of the printer; lp for a new port", CheckQueue);
    command.add_flag_function(
        "--double-spool,!--no-double-spool",
        [&change](int64_t count) { change.doubleSpool = count > 0; },
        "LPR: collect the job first, so that its length can be announced");
    text("--host-name", change.hostName, "Host name that the printer announces", CheckHostName);
    text("--mac", change.mac, "MAC address of the printer (`none` to clear)", CheckMacAddress);
    AddStatusSettings(command, change);
    AddFollow(command, arguments, mayBeOwn);
}

bool FollowsInPlace(const PortArguments& arguments) {
    return arguments.follow == kOwnAddress;
}

void RequireOnePort(const PortArguments& arguments, const std::vector<std::wstring>& ports) {
    const char* const option = arguments.change.address    ? "--address"
                               : arguments.change.ipv6     ? "--ipv6"
                               : arguments.follow.empty()  ? nullptr
                               : FollowsInPlace(arguments) ? nullptr
                                                           : "--follow ADDRESS";
    if (option != nullptr && ports.size() > 1) {
        throw CLI::ValidationError(option,
                                   "is for one port, but the names match " + CountedPorts(ports));
    }
}

void ConfirmPorts(const PortArguments& arguments, const std::vector<std::wstring>& ports,
                  const std::string& verb) {
    const auto matched = MatchedByPattern(ports, WideNames(arguments.names));
    if (matched.size() < 2 || arguments.yes) {
        return;
    }
    if (!InputIsTerminal()) {
        throw CLI::ValidationError("The patterns match " + CountedPorts(matched) +
                                   ". There is no terminal to ask on: add --yes to " + verb +
                                   " them, or --dry-run to show what would be done");
    }
    Confirm("The patterns match " + CountedPorts(matched) + ". Continue to " + verb + " them?",
            false, "Nothing was changed");
}

PortWishes WishesOf(const PortArguments& arguments, const PrinterIdentifier& identify) {
    PortWishes wishes = {arguments.change, FollowsInPlace(arguments)};
    if (!arguments.follow.empty() && !wishes.followInPlace) {
        Progress progress(!arguments.json);
        progress.Show("asking the printer for its identity");
        wishes.printer = identify(arguments.follow);
    }
    return wishes;
}

CLI::ValidationError UsageError(const SettingsClash& clash) {
    const auto [option, hint] = [&clash]() -> std::pair<const char*, const char*> {
        switch (clash.setting) {
            case PortSetting::Address:
                return {"--address", ""};
            case PortSetting::Queue:
                return {"--queue", ". Add --protocol lpr"};
            case PortSetting::DoubleSpool:
                return {"--double-spool", ". Add --protocol lpr"};
            case PortSetting::SnmpIndex:
                return {"--snmp-index", ". Add --snmp COMMUNITY"};
            case PortSetting::AlwaysPrint:
                return {"--always-print", ". Add --mac or --host-name, or --no-always-print"};
        }
        return {};
    }();
    return CLI::ValidationError(option, clash.what() + std::string(hint));
}
