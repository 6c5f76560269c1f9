// kestctl port list|show|add|set|delete
#include <iostream>
#include <memory>

#include "address/AddressText.h"
#include "admin/Hosts.h"
#include "admin/PortStore.h"
#include "admin/Text.h"
#include "tools/kestctl/Command.h"
#include "tools/kestctl/PortJson.h"

namespace {

// What the arguments of one command are read into; it lives as long as the command does.
struct PortArguments {
    std::string name;
    PortChange change;
    std::string follow;
    bool json = false;
};

std::string OrNone(const std::string& text) {
    return text.empty() ? "-" : text;
}

CLI::Validator Checked(std::string (*check)(std::string&)) {
    return CLI::Validator(check, "");
}

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

// Replaces a host name in --address by its IPv4 address. Returns words about it for the report.
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
    command.add_option("--protocol", change.protocol, "raw (a plain stream; the default) or lpr")
        ->check(CLI::IsMember({"raw", "lpr"}));
    command.add_option("--port", change.portNumber, "TCP port number (raw: 9100, lpr: 515)")
        ->check(Checked(CheckPortNumber));
    text("--queue", change.queue, "LPR: the printer's queue (lp)", CheckQueue);
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
        "When the printer cannot be reached, search the network for it and follow it");
    CLI::Option* community = text("--snmp", change.snmpCommunity,
                                  "Store that SNMP status is wanted, with this community: kestmon "
                                  "itself asks no printer, only dialogues show it",
                                  CheckCommunity);
    CLI::Option* index =
        command.add_option("--snmp-index", change.snmpIndex, "SNMP device index (1)");
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

// Lays the change over the records. What does not go together is wrong usage.
void ApplyArguments(const PortArguments& arguments, PortRecords& records) {
    try {
        Apply(arguments.change, records);
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

// Completes a change of a port by what the printer to follow says of itself; does nothing without
// one. Returns words about it for the command's report.
std::string Follow(PortArguments& arguments, const PrinterIdentifier& identify,
                   const PortRecords& before) {
    if (arguments.follow.empty()) {
        return {};
    }
    const PrinterIdentity printer = identify(arguments.follow);
    PortChange& change = arguments.change;
    if (!change.address && !change.ipv6) {
        (IsIPv4AddressText(printer.address) ? change.address : change.ipv6) = printer.address;
    }
    change.mac = printer.mac;
    if (!printer.hostName.empty()) {
        change.hostName = printer.hostName;
    } else if (const nlohmann::json port = ToJson({}, before);
               port["hostName"] != "" && port["mac"] != printer.mac) {
        // The monitor keeps a name that it has, and would go to the printer that bears it.
        throw CommandFailed(
            "this printer announces no host name, and the port has one that would "
            "stay, " +
            std::string(port["hostName"]) + ": delete the port and add it with --follow");
    }
    change.alwaysPrint = true;
    return ", following " + Printable(printer.mac) +
           (printer.mac.empty() || printer.hostName.empty() ? "" : ", ") +
           Printable(printer.hostName);
}

CLI::App& AddPortCommand(CLI::App& port, const std::string& name, const std::string& description,
                         const std::string& example) {
    CLI::App& command = *port.add_subcommand(name, description);
    AddExample(command, example);
    return command;
}

void AddList(CLI::App& port, const ChannelFactory& openChannel) {
    CLI::App& command =
        AddPortCommand(port, "list", "List the ports and where they send to", "port list --json");
    const auto arguments = std::make_shared<PortArguments>();
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel] {
        const auto channel = openChannel();
        nlohmann::json document = nlohmann::json::array();
        std::vector<std::vector<std::string>> rows;
        std::string namesAlone;
        for (const std::wstring& name : channel->PortNames()) {
            try {
                const PortRecords port = ReadPort(*channel, name);
                document.push_back(ToJson(name, port));
                rows.push_back({ToUtf8(name), Destination(port), OrNone(document.back()["mac"]),
                                port.extended.dwAlwaysPrint != 0 ? "yes" : "no"});
            } catch (const CommandFailed& failed) {
                // Everybody may see which ports there are.
                if (failed.remedy != Remedy::RunAsAdministrator) {
                    throw;
                }
                namesAlone = Explained(failed);
                document.push_back({{"name", ToUtf8(name)}});
                rows.push_back({ToUtf8(name), "?", "?", "?"});
            }
        }
        if (!namesAlone.empty()) {
            std::cerr << "kestctl: only the names are shown: " << namesAlone << '\n';
        }
        if (arguments->json) {
            PrintJson(document);
        } else if (rows.empty()) {
            std::cout << "there is no port yet: `kestctl port add` makes one\n";
        } else {
            PrintTable({"PORT", "SENDS", "MAC", "ALWAYS PRINT"}, rows);
        }
    });
}

void AddShow(CLI::App& port, const ChannelFactory& openChannel) {
    CLI::App& command =
        AddPortCommand(port, "show", "Show all settings of a port", "port show OFFICE");
    const auto arguments = std::make_shared<PortArguments>();
    command.add_option("NAME", arguments->name, "The port")->required()->check(NotEmpty());
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel] {
        const auto channel = openChannel();
        const std::wstring name = FindPort(*channel, ToWide(arguments->name));
        const PortRecords port = ReadPort(*channel, name);
        const nlohmann::json settings = ToJson(name, port);
        if (arguments->json) {
            PrintJson(settings);
            return;
        }
        const auto yesNo = [](bool value) { return std::string(value ? "yes" : "no"); };
        const nlohmann::json& snmp = settings["snmp"];
        PrintTable({"port", settings["name"]},
                   {{"sends", Destination(port)},
                    {"IPv4 address", OrNone(settings["address"])},
                    {"IPv6 host", OrNone(settings["ipv6Host"])},
                    {"always print", yesNo(settings["alwaysPrint"])},
                    {"MAC address", OrNone(settings["mac"])},
                    {"host name", OrNone(settings["hostName"])},
                    {"SNMP", snmp["enabled"] ? "community " + std::string(snmp["community"]) +
                                                   ", device " + snmp["index"].dump()
                                             : "off"}});
    });
}

void AddAdd(CLI::App& port, const ChannelFactory& openChannel, const PrinterIdentifier& identify) {
    CLI::App& command = AddPortCommand(port, "add", "Add a port for a printer",
                                       "port add OFFICE --follow 192.168.1.20");
    const auto arguments = std::make_shared<PortArguments>();
    command.add_option("NAME", arguments->name, "The new port's name")
        ->required()
        ->transform(Checked(CheckPortName));
    AddSettings(command, *arguments);
    AddFollow(command, *arguments);
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel, identify] {
        PortRecords records;
        const std::string resolved = ResolveAddress(arguments->change);
        const std::string following = Follow(*arguments, identify, records);
        ApplyArguments(*arguments, records);
        const auto channel = openChannel();
        AddPort(*channel, ToWide(arguments->name), records);
        if (arguments->json) {
            PrintJson(ToJson(ToWide(arguments->name), records));
        } else {
            std::cout << "port " << arguments->name << " added: " << Destination(records)
                      << resolved << following << '\n';
        }
    });
}

std::string ValueText(const nlohmann::json& value) {
    return value.is_string() ? OrNone(Printable(value.get<std::string>())) : value.dump();
}

// What differs between two ports as JSON: {"address": {"from": ..., "to": ...}}, the SNMP settings
// as "snmp/community" and so on.
nlohmann::json Changes(const nlohmann::json& before, const nlohmann::json& after) {
    const nlohmann::json old = before.flatten();
    const nlohmann::json now = after.flatten();
    nlohmann::json changes = nlohmann::json::object();
    for (const auto& [key, value] : now.items()) {
        if (old.at(key) != value) {
            changes[key.substr(1)] = {{"from", old.at(key)}, {"to", value}};
        }
    }
    return changes;
}

void AddSet(CLI::App& port, const ChannelFactory& openChannel, const PrinterIdentifier& identify) {
    CLI::App& command = AddPortCommand(port, "set", "Change settings of a port; the others stay",
                                       "port set OFFICE --follow 192.168.1.20");
    const auto arguments = std::make_shared<PortArguments>();
    command.add_option("NAME", arguments->name, "The port")->required()->check(NotEmpty());
    AddSettings(command, *arguments);
    AddFollow(command, *arguments);
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel, identify, &command] {
        const auto isSetting = [](const CLI::Option* option) {
            return option->count() > 0 && option->nonpositional() && !option->check_lname("json");
        };
        if (command.get_options(isSetting).empty()) {
            throw CLI::RequiredError("a setting to change");
        }
        const std::string resolved = ResolveAddress(arguments->change);
        const auto channel = openChannel();
        const std::wstring name = FindPort(*channel, ToWide(arguments->name));
        const PortRecords before = ReadPort(*channel, name);
        const std::string following = Follow(*arguments, identify, before);
        PortRecords after = before;
        ApplyArguments(*arguments, after);
        const nlohmann::json changes = Changes(ToJson(name, before), ToJson(name, after));
        ChangePort(*channel, name, before, after);
        if (arguments->json) {
            nlohmann::json document = ToJson(name, after);
            document["changed"] = changes;
            PrintJson(document);
            return;
        }
        std::cout << "port " << ToUtf8(name) << " set: " << Destination(after) << resolved
                  << following << '\n';
        for (const auto& [key, values] : changes.items()) {
            std::cout << "  " << key << ": " << ValueText(values["from"]) << " -> "
                      << ValueText(values["to"]) << '\n';
        }
        if (changes.empty()) {
            std::cout << "  nothing changed: all of it was so\n";
        }
    });
}

void AddDelete(CLI::App& port, const ChannelFactory& openChannel) {
    CLI::App& command =
        AddPortCommand(port, "delete", "Delete a port that no printer uses", "port delete OFFICE");
    const auto arguments = std::make_shared<PortArguments>();
    command.add_option("NAME", arguments->name, "The port")->required()->check(NotEmpty());
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel] {
        const auto channel = openChannel();
        const std::wstring name = FindPort(*channel, ToWide(arguments->name));
        if (const auto queues = QueuesOn(channel->Queues(), name); !queues.empty()) {
            throw CommandFailed(
                "port " + ToUtf8(name) + " is used by printer " + ToUtf8(queues.front()),
                Remedy::MovePrinter);
        }
        DeletePort(*channel, name);
        if (arguments->json) {
            PrintJson({{"deleted", ToUtf8(name)}});
        } else {
            std::cout << "port " << ToUtf8(name) << " deleted\n";
        }
    });
}

}  // namespace

void AddPortCommands(CLI::App& app, const ChannelFactory& openChannel,
                     const PrinterIdentifier& identify) {
    CLI::App& port = *app.add_subcommand("port", "Manage the monitor's ports");
    port.require_subcommand(1);
    AddList(port, openChannel);
    AddShow(port, openChannel);
    AddAdd(port, openChannel, identify);
    AddSet(port, openChannel, identify);
    AddDelete(port, openChannel);
}
