// kestctl port list|show|add|set|delete
#include <nlohmann/json.hpp>

#include <algorithm>
#include <iostream>

#include "address/AddressText.h"
#include "admin/ports/PortJson.h"
#include "admin/ports/PortPlan.h"
#include "admin/ports/PortStore.h"
#include "admin/search/PrinterSearch.h"
#include "base/Text.h"
#include "kestctl/Interruption.h"
#include "kestctl/PortOptions.h"

namespace {

// The system's queues; none if they cannot be listed.
std::optional<std::vector<Queue>> KnownQueues(SpoolerChannel& channel) {
    try {
        return channel.Queues();
    } catch (const CommandFailed&) {
        return std::nullopt;
    }
}

// The queues on a port as JSON, and these in words; null and "?" if they are unknown.
nlohmann::json UsedBy(const std::optional<std::vector<Queue>>& queues, const std::wstring& port) {
    if (!queues) {
        return nullptr;
    }
    return NamesAsJson(QueuesOn(*queues, port));
}

std::string Joined(const nlohmann::json& usedBy) {
    if (usedBy.is_null()) {
        return "?";
    }
    std::string text;
    for (const auto& name : usedBy) {
        text += (text.empty() ? "" : ", ") + name.get<std::string>();
    }
    return Cell(text);
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

// The rows and documents of `port list`.
struct PortTableRows {
    nlohmann::json documents = nlohmann::json::array();
    std::vector<Row> rows;
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
                                 Cell(list.documents.back()["mac"]),
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

void RunList(const PortArguments& arguments, const ChannelFactory& openChannel) {
    const PortTableRows list = ListPorts(*openChannel());
    if (!list.namesOnly.empty()) {
        std::cerr << "kestctl: only the names are shown: " << list.namesOnly << '\n';
    }
    if (arguments.json) {
        PrintJson(list.documents);
    } else if (list.rows.empty()) {
        std::cout << "There are no ports. Add one with " << Advised("port add") << '\n';
    } else {
        PrintTable({"PORT", "SENDS", "MAC", "ALWAYS PRINT", "USED BY"}, list.rows);
    }
}

void ShowPort(const nlohmann::json& settings, const PortRecords& port) {
    const auto yesNo = [](bool value) { return std::string(value ? "yes" : "no"); };
    const nlohmann::json& snmp = settings["snmp"];
    PrintTable({"port", settings["name"]},
               {{"sends", Destination(port)},
                {"IPv4 address", Cell(settings["address"])},
                {"IPv6 host", Cell(settings["ipv6Host"])},
                {"always print", yesNo(settings["alwaysPrint"])},
                {"MAC address", Cell(settings["mac"])},
                {"host name", Cell(settings["hostName"])},
                {"SNMP", snmp["enabled"] ? "community " + std::string(snmp["community"]) +
                                               ", device " + snmp["index"].dump()
                                         : "off"},
                {"used by", Joined(settings["usedBy"])}});
}

void RunShow(const PortArguments& arguments, const ChannelFactory& openChannel) {
    const auto channel = openChannel();
    const auto queues = KnownQueues(*channel);
    nlohmann::json documents = nlohmann::json::array();
    for (const std::wstring& name : FindPorts(*channel, WideNames(arguments.names))) {
        const PortRecords port = ReadPort(*channel, name);
        documents.push_back(ToJson(name, port));
        documents.back()["usedBy"] = UsedBy(queues, name);
        if (!arguments.json) {
            std::cout << (documents.size() > 1 ? "\n" : "");
            ShowPort(documents.back(), port);
        }
    }
    if (arguments.json) {
        PrintDocuments(arguments, std::move(documents));
    }
}

nlohmann::json ChangesOf(const PlannedPort& port) {
    return Changes(ToJson(port.name, port.before), ToJson(port.name, port.after));
}

std::string ResolvedText(const std::string& name) {
    return name.empty() ? std::string() : ", the address of " + name;
}

std::string FollowingText(const std::optional<PrinterIdentity>& printer) {
    if (!printer) {
        return {};
    }
    return printer->source == SearchSource::DnsSd
               ? ", the address of " + IdentityText(*printer) +
                     "\nThis printer does not answer SLP. Jobs will not follow it; `kestctl port "
                     "check --repair` can."
               : ", following " + IdentityText(*printer);
}

// Changes a port unless it is a dry run, and reports it. Returns it as JSON.
//   resolved: the host name that the address was given by, if any.
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
              << ResolvedText(resolved) << FollowingText(port.printer) << '\n';
    for (const auto& [key, values] : changes.items()) {
        std::cout << "  " << ChangeText(key, values) << '\n';
    }
    if (changes.empty()) {
        std::cout << "  no change: the port already has these settings\n";
    }
    return document;
}

// Adds a port unless it is a dry run, and reports it. Returns it as JSON.
nlohmann::json AddNewPort(SpoolerChannel& channel, const std::wstring& name,
                          const PortArguments& arguments, const PortWishes& wishes,
                          const std::string& resolved) {
    PortRecords records;
    ApplyWishes(wishes, records);
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
                  << ResolvedText(resolved) << FollowingText(wishes.printer) << '\n';
    }
    return document;
}

void RunAdd(PortArguments& arguments, const ChannelFactory& openChannel,
            const PrinterIdentifier& identifyByBoth) {
    const std::string resolved = ResolveAddress(arguments.change);
    const PortWishes wishes = WishesOf(arguments, identifyByBoth);
    const std::wstring name = Utf8ToWide(arguments.names[0]);
    if (!arguments.tolerant) {
        PortRecords unused;
        ApplyWishes(wishes, unused);  // wrong usage opens nothing
    }
    const auto channel = openChannel();
    const Interruption untilDone;  // a port without settings would remain
    const auto there = arguments.tolerant ? PortCalled(*channel, name) : std::nullopt;
    const nlohmann::json document =
        there ? SetPort(*channel, PlanChanges(*channel, {*there}, wishes, identifyByBoth, {})[0],
                        arguments, resolved)
              : AddNewPort(*channel, name, arguments, wishes, resolved);
    if (arguments.json) {
        PrintJson(document);
    }
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

// Plans all ports, so that settings that contradict each other are refused before the first change.
std::vector<PlannedPort> PlanPorts(SpoolerChannel& channel, const std::vector<std::wstring>& names,
                                   const PortArguments& arguments,
                                   const PrinterIdentifier& identify) {
    const PortWishes wishes = WishesOf(arguments, identify);
    Progress progress(!arguments.json);
    return PlanChanges(channel, names, wishes, identify, [&](size_t done) {
        progress.Show(Bar(done, names.size()) + "  asking " + Count(names.size(), "printer"));
    });
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

void RunDelete(const PortArguments& arguments, const ChannelFactory& openChannel) {
    const auto opened = openChannel();
    SpoolerChannel& channel = *opened;
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

using RunFunction = void (*)(const PortArguments&, const ChannelFactory&);

AddedCommand<PortArguments> Add(CLI::App& port, const char* name, const char* text,
                                const char* example, const ChannelFactory& openChannel,
                                RunFunction run) {
    return AddCommand<PortArguments>(
        port, name, text, example,
        [openChannel, run](const PortArguments& given) { run(given, openChannel); });
}

// The same for a command that adds or changes ports.
AddedCommand<PortArguments> AddChanging(CLI::App& port, const char* name, const char* text,
                                        const char* example,
                                        const std::function<void(PortArguments&)>& run) {
    return AddCommand<PortArguments>(port, name, text, example, [run](PortArguments& given) {
        try {
            run(given);
        } catch (const SettingsClash& clash) {
            throw UsageError(clash);
        }
    });
}

void AddAdd(CLI::App& port, const ChannelFactory& openChannel, const PrinterIdentifier& identify) {
    const auto [command, arguments] = AddChanging(
        port, "add", "Add a port for a printer", "port add OFFICE --follow 192.168.1.20",
        [openChannel, identify](PortArguments& given) { RunAdd(given, openChannel, identify); });
    arguments.names.resize(1);
    command.add_option("NAME", arguments.names[0], "Name of the new port")
        ->required()
        ->transform(Checked(CheckPortName));
    AddSettings(command, arguments, false);
    command.add_flag("--or-set", arguments.tolerant,
                     "Change the port if it exists, as `port set` does; only a new port needs an "
                     "address");
    AddDryRunFlag(command, arguments.dryRun);
    AddJsonFlag(command, arguments.json);
}

// Refuses a command line that changes nothing.
void RequireSetting(const CLI::App& command, const PortArguments& arguments) {
    const auto isSetting = [](const CLI::Option* option) {
        return option->count() > 0 && option->nonpositional() && !option->check_lname("json") &&
               !option->check_lname("yes") && !option->check_lname("dry-run");
    };
    if (command.get_options(isSetting).empty()) {
        throw CLI::RequiredError("a setting to change");
    }
    // CLI11 does not check an empty value that may be missing.
    if (command.count("--follow") != 0 && arguments.follow.empty()) {
        throw CLI::ValidationError("--follow", "must not be empty");
    }
}

void AddSet(CLI::App& port, const ChannelFactory& openChannel, const PrinterIdentifier& identify) {
    const auto [command, arguments] =
        AddChanging(port, "set", "Change settings of ports and keep the others",
                    "port set OFFICE --follow 192.168.1.20",
                    [openChannel, identify, &port](PortArguments& given) {
                        RequireSetting(*port.get_subcommand("set"), given);
                        RunSet(given, openChannel, identify);
                    });
    AddNames(command, arguments.names).required();
    AddSettings(command, arguments, true);
    AddYesFlag(command, arguments.yes);
    AddDryRunFlag(command, arguments.dryRun);
    AddJsonFlag(command, arguments.json);
}

}  // namespace

void AddPortCommands(CLI::App& app, const ChannelFactory& openChannel,
                     const PrinterIdentifier& identify, const std::function<std::wstring()>& server,
                     const PrinterIdentifier& identifyByBoth) {
    CLI::App& port = AddGroup(app, "port", "Manage the monitor's ports");
    const auto [list, listed] =
        Add(port, "list", "List the ports with their addresses and printers", "port list --json",
            openChannel, RunList);
    AddJsonFlag(list, listed.json);
    const auto [show, shown] =
        Add(port, "show", "Show all settings of ports", "port show OFFICE", openChannel, RunShow);
    AddNames(show, shown.names).required();
    AddJsonFlag(show, shown.json);
    AddAdd(port, openChannel, identifyByBoth ? identifyByBoth : identify);
    AddSet(port, openChannel, identify);
    const auto [remove, removed] = Add(port, "delete", "Delete ports that no printer uses",
                                       "port delete OFFICE", openChannel, RunDelete);
    AddNames(remove, removed.names).required();
    remove.add_flag("--if-there", removed.tolerant, "Succeed if the port does not exist");
    AddYesFlag(remove, removed.yes);
    AddDryRunFlag(remove, removed.dryRun);
    AddJsonFlag(remove, removed.json);
    AddPortCheck(port, openChannel);
    AddPortTransfer(port, openChannel, identify);
    AddPortMigrate(port, openChannel, identify, server);
}
