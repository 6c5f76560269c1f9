// kestctl port list|show|add|set|delete
#include <algorithm>
#include <iostream>
#include <memory>

#include "address/AddressText.h"
#include "admin/ports/Following.h"
#include "admin/ports/PortStore.h"
#include "admin/search/PrinterSearch.h"
#include "base/Text.h"
#include "kestctl/Command.h"
#include "kestctl/Interruption.h"
#include "admin/ports/PortJson.h"
#include "kestctl/PortOptions.h"
#include "kestctl/Progress.h"

namespace {

std::string OrNone(const std::string& text) {
    return text.empty() ? "-" : text;
}

// The system's queues; none if they cannot be listed.
std::optional<std::vector<Queue>> KnownQueues(SpoolerChannel& channel) {
    try {
        return channel.Queues();
    } catch (const CommandFailed&) {
        return std::nullopt;
    }
}

// The queues on a port as JSON and in words.
nlohmann::json UsedBy(const std::optional<std::vector<Queue>>& queues, const std::wstring& port) {
    if (!queues) {
        return nullptr;
    }
    nlohmann::json names = nlohmann::json::array();
    for (const std::wstring& name : QueuesOn(*queues, port)) {
        names.push_back(WideToUtf8(name));
    }
    return names;
}

std::string Joined(const nlohmann::json& usedBy) {
    if (usedBy.is_null()) {
        return "?";
    }
    std::string text;
    for (const auto& name : usedBy) {
        text += (text.empty() ? "" : ", ") + name.get<std::string>();
    }
    return OrNone(text);
}

// One document for one name, a list for several names or a pattern.
void PrintDocuments(const PortArguments& arguments, nlohmann::json documents) {
    const bool one = IsOneName(arguments.names) && documents.size() == 1;
    PrintJson(one ? documents[0] : std::move(documents));
}

// Marks the document of a port that was not changed.
void MarkDryRun(const PortArguments& arguments, nlohmann::json& document) {
    if (arguments.dryRun) {
        document["dryRun"] = true;
    }
}

// Processes one port after the other, and stops at a failure or between two ports at Ctrl-C. With
// --json, the ports that were processed before are reported all the same.
//   work: returns the document for its port.
void ForEachPort(const PortArguments& arguments, const std::vector<std::wstring>& names,
                 const std::function<nlohmann::json(const std::wstring&)>& work) {
    const Interruption interruption;
    nlohmann::json documents = nlohmann::json::array();
    try {
        for (const std::wstring& name : names) {
            if (interruption.Requested()) {
                break;
            }
            documents.push_back({{"name", WideToUtf8(name)}});
            documents.back() = work(name);
        }
    } catch (const CommandFailed& failed) {
        if (arguments.json && !IsOneName(arguments.names)) {
            documents.back()["error"] = Explained(failed);
            PrintDocuments(arguments, std::move(documents));
        }
        throw;
    }
    if (arguments.json) {
        PrintDocuments(arguments, std::move(documents));
    }
    if (interruption.Requested()) {
        throw Interrupted();
    }
}

CLI::App& AddPortCommand(CLI::App& port, const std::string& name, const std::string& description,
                         const std::string& example) {
    CLI::App& command = *port.add_subcommand(name, description);
    AddExample(command, example);
    return command;
}

// The rows and documents of `port list`.
struct PortTableRows {
    nlohmann::json documents = nlohmann::json::array();
    std::vector<std::vector<std::string>> rows;
    std::string namesOnly;  // why only the names are known; empty: all settings are
};

PortTableRows ListPorts(SpoolerChannel& channel) {
    const auto queues = KnownQueues(channel);
    PortTableRows list;
    for (const std::wstring& name : channel.PortNames()) {
        const nlohmann::json usedBy = UsedBy(queues, name);
        try {
            const PortRecords port = ReadPort(channel, name);
            list.documents.push_back(ToJson(name, port));
            list.rows.push_back({WideToUtf8(name), Destination(port),
                                 OrNone(list.documents.back()["mac"]),
                                 port.extended.dwAlwaysPrint != 0 ? "yes" : "no", Joined(usedBy)});
        } catch (const CommandFailed& failed) {
            // Every account may list the names.
            if (failed.remedy != Remedy::RunAsAdministrator) {
                throw;
            }
            list.namesOnly = Explained(failed);
            list.documents.push_back({{"name", WideToUtf8(name)}});
            list.rows.push_back({WideToUtf8(name), "?", "?", "?", Joined(usedBy)});
        }
        list.documents.back()["usedBy"] = usedBy;
    }
    return list;
}

void AddList(CLI::App& port, const ChannelFactory& openChannel) {
    CLI::App& command = AddPortCommand(
        port, "list", "List the ports with their addresses and printers", "port list --json");
    const auto arguments = std::make_shared<PortArguments>();
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel] {
        const PortTableRows list = ListPorts(*openChannel());
        if (!list.namesOnly.empty()) {
            std::cerr << "kestctl: only the names are shown: " << list.namesOnly << '\n';
        }
        if (arguments->json) {
            PrintJson(list.documents);
        } else if (list.rows.empty()) {
            std::cout << "There are no ports. Add one with " << Advised("port add") << '\n';
        } else {
            PrintTable({"PORT", "SENDS", "MAC", "ALWAYS PRINT", "USED BY"}, list.rows);
        }
    });
}

void ShowPort(const nlohmann::json& settings, const PortRecords& port) {
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
                                         : "off"},
                {"used by", Joined(settings["usedBy"])}});
}

void AddShow(CLI::App& port, const ChannelFactory& openChannel) {
    CLI::App& command =
        AddPortCommand(port, "show", "Show all settings of ports", "port show OFFICE");
    const auto arguments = std::make_shared<PortArguments>();
    AddNames(command, arguments->names, "Port names, or patterns with * and ?").required();
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel] {
        const auto channel = openChannel();
        const auto queues = KnownQueues(*channel);
        nlohmann::json documents = nlohmann::json::array();
        for (const std::wstring& name : FindPorts(*channel, WideNames(arguments->names))) {
            const PortRecords port = ReadPort(*channel, name);
            documents.push_back(ToJson(name, port));
            documents.back()["usedBy"] = UsedBy(queues, name);
            if (!arguments->json) {
                std::cout << (documents.size() > 1 ? "\n" : "");
                ShowPort(documents.back(), port);
            }
        }
        if (arguments->json) {
            PrintDocuments(*arguments, std::move(documents));
        }
    });
}

// What a command line comes to for an existing port.
struct PlannedPort {
    std::wstring name;
    PortRecords before = {};
    PortRecords after = {};
    std::string following = {};  // for the report
    std::string failure = {};    // why nothing is changed
    Remedy remedy = Remedy::None;
};

nlohmann::json ChangesOf(const PlannedPort& port) {
    return Changes(ToJson(port.name, port.before), ToJson(port.name, port.after));
}

// Changes a port unless it is a dry run, and reports it. Returns it as JSON.
nlohmann::json SetPort(SpoolerChannel& channel, const PlannedPort& port,
                       const PortArguments& arguments, const std::string& resolved) {
    nlohmann::json document = ToJson(port.name, port.after);
    const nlohmann::json changes = ChangesOf(port);
    if (!changes.empty() && !arguments.dryRun) {
        ChangePort(channel, port.name, port.before, port.after);
    }
    document["changed"] = changes;
    MarkDryRun(arguments, document);
    if (arguments.json) {
        return document;
    }
    std::cout << "port " << WideToUtf8(port.name)
              << (arguments.dryRun ? " would be set: " : " set: ") << Destination(port.after)
              << resolved << port.following << '\n';
    for (const auto& [key, values] : changes.items()) {
        std::cout << "  " << ChangeText(key, values) << '\n';
    }
    if (changes.empty()) {
        std::cout << "  no change: the port already has these settings\n";
    }
    return document;
}

PlannedPort PlanPort(SpoolerChannel& channel, const std::wstring& name,
                     const PortArguments& arguments,
                     const std::optional<PrinterIdentity>& printer) {
    PlannedPort port = {name, ReadPort(channel, name)};
    port.after = port.before;
    port.following = ApplyArguments(arguments, printer, port.after);
    return port;
}

// The address that a change gives to a port; empty if it gives none.
std::string NewAddress(const PortChange& change) {
    const std::string address = change.address.value_or("");
    return address.empty() ? change.ipv6.value_or("") : address;
}

// Plans that each port follows the printer at its own address. A port whose printer cannot be
// identified is not changed.
std::vector<PlannedPort> PlanInPlace(SpoolerChannel& channel,
                                     const std::vector<std::wstring>& names,
                                     const PortArguments& arguments,
                                     const PrinterIdentifier& identify) {
    std::vector<std::string> hosts;
    for (const std::wstring& name : names) {
        hosts.push_back(NewAddress(arguments.change));
        if (hosts.back().empty()) {
            hosts.back() = AddressInUse(ReadPort(channel, name));
        }
    }
    Progress progress(!arguments.json);
    const auto printers = IdentifyPrinters(hosts, identify, [&](size_t done) {
        progress.Show(Bar(done, hosts.size()) + "  asking " + std::to_string(hosts.size()) +
                      (hosts.size() == 1 ? " printer" : " printers"));
    });
    std::vector<PlannedPort> plan;
    for (size_t i = 0; i < names.size(); ++i) {
        std::string failure = hosts[i].empty() ? "the port has no address" : printers[i].failure;
        const Remedy remedy = hosts[i].empty() ? Remedy::None : printers[i].remedy;
        try {
            if (failure.empty()) {
                plan.push_back(PlanPort(channel, names[i], arguments, printers[i].printer));
            }
        } catch (const CommandFailed& failed) {
            failure = failed.what();
        }
        if (!failure.empty()) {
            plan.push_back({names[i], {}, {}, {}, failure, remedy});
        }
    }
    return plan;
}

// Plans all ports, so that settings that contradict each other are refused before the first change.
std::vector<PlannedPort> PlanPorts(SpoolerChannel& channel, const std::vector<std::wstring>& names,
                                   const PortArguments& arguments,
                                   const PrinterIdentifier& identify) {
    if (FollowsInPlace(arguments)) {
        return PlanInPlace(channel, names, arguments, identify);
    }
    const auto printer = PrinterToFollow(arguments, identify);
    std::vector<PlannedPort> plan;
    for (const std::wstring& name : names) {
        plan.push_back(PlanPort(channel, name, arguments, printer));
    }
    return plan;
}

// Adds a port unless it is a dry run, and reports it. Returns it as JSON.
nlohmann::json AddNewPort(SpoolerChannel& channel, const std::wstring& name,
                          const PortArguments& arguments,
                          const std::optional<PrinterIdentity>& printer,
                          const std::string& resolved) {
    PortRecords records;
    const std::string following = ApplyArguments(arguments, printer, records);
    if (arguments.dryRun) {
        RequireFreeName(channel, name);
    } else {
        AddPort(channel, name, records);
    }
    nlohmann::json document = ToJson(name, records);
    MarkDryRun(arguments, document);
    if (!arguments.json) {
        std::cout << "port " << WideToUtf8(name)
                  << (arguments.dryRun ? " would be added: " : " added: ") << Destination(records)
                  << resolved << following << '\n';
    }
    return document;
}

void RunAdd(PortArguments& arguments, const ChannelFactory& openChannel,
            const PrinterIdentifier& identify) {
    const std::string resolved = ResolveAddress(arguments.change);
    const auto printer = PrinterToFollow(arguments, identify);
    const std::wstring name = Utf8ToWide(arguments.names[0]);
    if (!arguments.tolerant) {
        PortRecords unused;
        ApplyArguments(arguments, printer, unused);  // wrong usage opens nothing
    }
    const auto channel = openChannel();
    const Interruption untilDone;  // a port without settings would remain
    const auto there = arguments.tolerant ? PortCalled(*channel, name) : std::nullopt;
    const nlohmann::json document =
        there
            ? SetPort(*channel, PlanPort(*channel, *there, arguments, printer), arguments, resolved)
            : AddNewPort(*channel, name, arguments, printer, resolved);
    if (arguments.json) {
        PrintJson(document);
    }
}

void AddAdd(CLI::App& port, const ChannelFactory& openChannel, const PrinterIdentifier& identify) {
    CLI::App& command = AddPortCommand(port, "add", "Add a port for a printer",
                                       "port add OFFICE --follow 192.168.1.20");
    const auto arguments = std::make_shared<PortArguments>();
    arguments->names.resize(1);
    command.add_option("NAME", arguments->names[0], "Name of the new port")
        ->required()
        ->transform(Checked(CheckPortName));
    AddSettings(command, *arguments);
    AddFollow(command, *arguments, false);
    command.add_flag("--or-set", arguments->tolerant,
                     "Change the port if it exists, as `port set` does; only a new port needs an "
                     "address");
    AddDryRunFlag(command, arguments->dryRun);
    AddJsonFlag(command, arguments->json);
    command.callback(
        [arguments, openChannel, identify] { RunAdd(*arguments, openChannel, identify); });
}

// Throws CommandFailed if printers could not be identified, with the remedy for the first of them.
void RequireIdentified(const std::vector<PlannedPort>& plan) {
    const auto failed = [](const PlannedPort& port) { return !port.failure.empty(); };
    if (const auto first = std::ranges::find_if(plan, failed); first != plan.end()) {
        throw CommandFailed(std::to_string(std::ranges::count_if(plan, failed)) + " of " +
                                std::to_string(plan.size()) +
                                " printers could not be identified; their ports were not changed",
                            first->remedy);
    }
}

// Refuses the name of a port that CLI11 has taken for the value of --follow.
void RequireHost(SpoolerChannel& channel, const std::string& follow,
                 const std::vector<std::wstring>& names) {
    const auto port =
        IsIPv4AddressText(follow) ? std::nullopt : PortCalled(channel, Utf8ToWide(follow));
    if (port && std::ranges::find(names, *port) == names.end()) {
        throw CLI::ValidationError("--follow", WideToUtf8(*port) +
                                                   " is the name of a port. Write the names of "
                                                   "ports before --follow");
    }
}

void RunSet(PortArguments& arguments, const ChannelFactory& openChannel,
            const PrinterIdentifier& identify) {
    const auto channel = openChannel();
    const auto names = FindPorts(*channel, WideNames(arguments.names));
    RequireHost(*channel, arguments.follow, names);
    RequireOnePort(arguments, names);
    const std::string resolved = ResolveAddress(arguments.change);
    const auto plan = PlanPorts(*channel, names, arguments, identify);
    std::vector<std::wstring> changing;
    for (const PlannedPort& port : plan) {
        if (port.failure.empty() && !ChangesOf(port).empty()) {
            changing.push_back(port.name);
        }
    }
    if (!arguments.dryRun) {
        ConfirmPorts(arguments, changing, "change");
    }
    size_t at = 0;
    ForEachPort(arguments, names, [&](const std::wstring& name) -> nlohmann::json {
        const PlannedPort& port = plan[at++];
        if (port.failure.empty()) {
            return SetPort(*channel, port, arguments, resolved);
        }
        if (!arguments.json) {
            std::cerr << "port " << WideToUtf8(name) << " not set: " << Printable(port.failure)
                      << '\n';
        }
        return {{"name", WideToUtf8(name)}, {"error", port.failure}};
    });
    RequireIdentified(plan);
}

void AddSet(CLI::App& port, const ChannelFactory& openChannel, const PrinterIdentifier& identify) {
    CLI::App& command = AddPortCommand(port, "set", "Change settings of ports and keep the others",
                                       "port set OFFICE --follow 192.168.1.20");
    const auto arguments = std::make_shared<PortArguments>();
    AddNames(command, arguments->names, "Port names, or patterns with * and ?").required();
    AddSettings(command, *arguments);
    AddFollow(command, *arguments, true);
    AddYesFlag(command, arguments->yes);
    AddDryRunFlag(command, arguments->dryRun);
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel, identify, &command] {
        const auto isSetting = [](const CLI::Option* option) {
            return option->count() > 0 && option->nonpositional() && !option->check_lname("json") &&
                   !option->check_lname("yes") && !option->check_lname("dry-run");
        };
        if (command.get_options(isSetting).empty()) {
            throw CLI::RequiredError("a setting to change");
        }
        // CLI11 does not check an empty value that may be missing.
        if (command.count("--follow") != 0 && arguments->follow.empty()) {
            throw CLI::ValidationError("--follow", "must not be empty");
        }
        RunSet(*arguments, openChannel, identify);
    });
}

// Throws CommandFailed if printers use the ports, with their names, or if the printers are unknown.
void RequireUnused(SpoolerChannel& channel, const std::vector<std::wstring>& ports) {
    std::optional<std::vector<Queue>> queues;
    try {
        queues = channel.Queues();
    } catch (const CommandFailed& failed) {
        throw CommandFailed("cannot determine which printers use the port; nothing was deleted: " +
                                std::string(failed.what()),
                            failed.remedy);
    }
    std::string used;
    for (const std::wstring& port : ports) {
        const nlohmann::json usedBy = UsedBy(queues, port);
        if (!usedBy.empty()) {
            used += (used.empty() ? "port " : "; port ") + WideToUtf8(port) +
                    " is used by printer" + (usedBy.size() == 1 ? " " : "s ") + Joined(usedBy);
        }
    }
    if (!used.empty()) {
        throw CommandFailed(used, Remedy::MovePrinter);
    }
}

void RunDelete(const PortArguments& arguments, SpoolerChannel& channel) {
    const auto names = FindPorts(channel, WideNames(arguments.names), arguments.tolerant);
    if (!names.empty()) {
        RequireUnused(channel, names);
    }
    if (!arguments.dryRun) {
        ConfirmPorts(arguments, names, "delete");
    }
    ForEachPort(arguments, names, [&](const std::wstring& name) {
        if (!arguments.dryRun) {
            DeletePort(channel, name);
        }
        if (!arguments.json) {
            std::cout << "port " << WideToUtf8(name)
                      << (arguments.dryRun ? " would be deleted\n" : " deleted\n");
        }
        nlohmann::json document = {{"name", WideToUtf8(name)}, {"deleted", !arguments.dryRun}};
        MarkDryRun(arguments, document);
        return document;
    });
    if (!arguments.json && names.empty()) {
        std::cout << "Nothing to delete: no port has this name\n";
    }
}

void AddDelete(CLI::App& port, const ChannelFactory& openChannel) {
    CLI::App& command =
        AddPortCommand(port, "delete", "Delete ports that no printer uses", "port delete OFFICE");
    const auto arguments = std::make_shared<PortArguments>();
    AddNames(command, arguments->names, "Port names, or patterns with * and ?").required();
    command.add_flag("--if-there", arguments->tolerant, "Succeed if the port does not exist");
    AddYesFlag(command, arguments->yes);
    AddDryRunFlag(command, arguments->dryRun);
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel] { RunDelete(*arguments, *openChannel()); });
}

}  // namespace

void AddPortCommands(CLI::App& app, const ChannelFactory& openChannel,
                     const PrinterIdentifier& identify,
                     const std::function<std::wstring()>& server) {
    CLI::App& port = *app.add_subcommand("port", "Manage the monitor's ports");
    port.require_subcommand(1);
    AddList(port, openChannel);
    AddShow(port, openChannel);
    AddAdd(port, openChannel, identify);
    AddSet(port, openChannel, identify);
    AddDelete(port, openChannel);
    AddPortCheck(port, openChannel);
    AddPortRename(port, openChannel);
    AddPortTransfer(port, openChannel, identify);
    AddPortMigrate(port, openChannel, identify, server);
}
