// kestctl port list|show|add|set|delete
#include <iostream>
#include <memory>

#include "address/AddressText.h"
#include "tools/kestctl/Command.h"
#include "admin/PortStore.h"
#include "admin/Text.h"
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

// The checks of addresses, with the option that a refused value belongs to.
std::string CheckAddressOption(std::string& text) {
    std::string problem = CheckIPv4Address(text);
    if (!problem.empty() && IsIPv6AddressText(text)) {
        problem += ": give it with --ipv6";
    } else if (!problem.empty() && IsIPv4AddressText(text) && text.find(':') != text.npos) {
        problem += ": give it with --port " + text.substr(text.find(':') + 1);
    }
    return problem;
}
std::string CheckIPv6Option(std::string& text) {
    const std::string problem = CheckIPv6Host(text);
    return problem.empty() || !IsIPv4AddressText(text) ? problem
                                                       : problem + ": give it with --address";
}

void AddSettings(CLI::App& command, PortArguments& arguments) {
    PortChange& change = arguments.change;
    const auto text = [&command](const char* name, std::optional<std::string>& value,
                                 const char* description, std::string (*check)(std::string&)) {
        return command.add_option(name, value, description)->transform(Checked(check));
    };
    text("--address", change.address, "The printer's IPv4 address", CheckAddressOption);
    text("--ipv6", change.ipv6, "The printer's IPv6 address or host name: send to it over IPv6",
         CheckIPv6Option);
    command.add_option("--protocol", change.protocol, "raw (a plain stream; the default) or lpr")
        ->check(CLI::IsMember({"raw", "lpr"}));
    command.add_option("--port", change.portNumber, "TCP port number (raw: 9100, lpr: 515)")
        ->check(CLI::Validator(CheckNumber, ""))
        ->check(CLI::Range(1, 65535));
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
                                  "Turn SNMP status on, with this community", CheckCommunity);
    CLI::Option* index =
        command.add_option("--snmp-index", change.snmpIndex, "SNMP device index (1)");
    index->check(CLI::Validator(CheckNumber, ""))->check(CLI::Range(1, 65535));
    command.add_flag("--no-snmp", change.noSnmp, "Turn SNMP status off")
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
        for (const std::wstring& name : channel->PortNames()) {
            const PortRecords port = ReadPort(*channel, name);
            const nlohmann::json settings = ToJson(name, port);
            document.push_back(settings);
            rows.push_back({settings["name"], Destination(port), OrNone(settings["mac"]),
                            port.extended.dwAlwaysPrint != 0 ? "yes" : "no"});
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
                                       "port add OFFICE --address 192.168.1.20 "
                                       "--mac 00:04:00:4a:1b:2c --always-print");
    const auto arguments = std::make_shared<PortArguments>();
    command.add_option("NAME", arguments->name, "The new port's name")
        ->required()
        ->transform(Checked(CheckPortName));
    AddSettings(command, *arguments);
    AddFollow(command, *arguments);
    command.callback([arguments, openChannel, identify] {
        PortRecords records;
        const std::string following = Follow(*arguments, identify, records);
        ApplyArguments(*arguments, records);
        const auto channel = openChannel();
        AddPort(*channel, ToWide(arguments->name), records);
        std::cout << "port " << arguments->name << " added: " << Destination(records) << following
                  << '\n';
    });
}

void AddSet(CLI::App& port, const ChannelFactory& openChannel, const PrinterIdentifier& identify) {
    CLI::App& command = AddPortCommand(port, "set", "Change settings of a port; the others stay",
                                       "port set OFFICE --follow 192.168.1.20");
    const auto arguments = std::make_shared<PortArguments>();
    command.add_option("NAME", arguments->name, "The port")->required()->check(NotEmpty());
    AddSettings(command, *arguments);
    AddFollow(command, *arguments);
    command.callback([arguments, openChannel, identify, &command] {
        const auto isGiven = [](const CLI::Option* option) { return option->count() > 0; };
        if (command.get_options(isGiven).size() == 1) {  // NAME alone
            throw CLI::RequiredError("a setting to change");
        }
        const auto channel = openChannel();
        const std::wstring name = FindPort(*channel, ToWide(arguments->name));
        const PortRecords before = ReadPort(*channel, name);
        const std::string following = Follow(*arguments, identify, before);
        PortRecords after = before;
        ApplyArguments(*arguments, after);
        ChangePort(*channel, name, before, after);
        std::cout << "port " << ToUtf8(name) << " set: " << Destination(after) << following << '\n';
    });
}

void AddDelete(CLI::App& port, const ChannelFactory& openChannel) {
    CLI::App& command =
        AddPortCommand(port, "delete", "Delete a port that no printer uses", "port delete OFFICE");
    const auto arguments = std::make_shared<PortArguments>();
    command.add_option("NAME", arguments->name, "The port")->required()->check(NotEmpty());
    command.callback([arguments, openChannel] {
        const auto channel = openChannel();
        const std::wstring name = FindPort(*channel, ToWide(arguments->name));
        if (const auto queues = channel->QueuesOn(name); !queues.empty()) {
            throw CommandFailed(
                "port " + ToUtf8(name) + " is used by printer " + ToUtf8(queues.front()),
                Remedy::MovePrinter);
        }
        DeletePort(*channel, name);
        std::cout << "port " << ToUtf8(name) << " deleted\n";
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
