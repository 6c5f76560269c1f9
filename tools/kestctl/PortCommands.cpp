// kestctl port list|show|add|set|delete
#include <iostream>
#include <memory>

#include "admin/PortStore.h"
#include "admin/PrinterSearch.h"
#include "admin/Text.h"
#include "tools/kestctl/Command.h"
#include "tools/kestctl/PortJson.h"
#include "tools/kestctl/PortOptions.h"

namespace {

std::string OrNone(const std::string& text) {
    return text.empty() ? "-" : text;
}

// The system's queues, for what is said of ports; none known where they cannot be listed.
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
        names.push_back(ToUtf8(name));
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

// One document for a port that was named, a list where several were.
void PrintDocuments(const PortArguments& arguments, nlohmann::json documents) {
    const bool one = IsOneName(arguments.names) && documents.size() == 1;
    PrintJson(one ? documents[0] : std::move(documents));
}

// Does something with one port after the other. One that fails ends it; with --json, what was done
// before is told all the same.
//   work: gives the document for its port.
void ForEachPort(const PortArguments& arguments, const std::vector<std::wstring>& names,
                 const std::function<nlohmann::json(const std::wstring&)>& work) {
    nlohmann::json documents = nlohmann::json::array();
    try {
        for (const std::wstring& name : names) {
            documents.push_back({{"name", ToUtf8(name)}});
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
}

CLI::App& AddPortCommand(CLI::App& port, const std::string& name, const std::string& description,
                         const std::string& example) {
    CLI::App& command = *port.add_subcommand(name, description);
    AddExample(command, example);
    return command;
}

void AddList(CLI::App& port, const ChannelFactory& openChannel) {
    CLI::App& command = AddPortCommand(port, "list",
                                       "List the ports, where they send to and which printers use "
                                       "them",
                                       "port list --json");
    const auto arguments = std::make_shared<PortArguments>();
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel] {
        const auto channel = openChannel();
        const auto queues = KnownQueues(*channel);
        nlohmann::json documents = nlohmann::json::array();
        std::vector<std::vector<std::string>> rows;
        std::string namesAlone;
        for (const std::wstring& name : channel->PortNames()) {
            const nlohmann::json usedBy = UsedBy(queues, name);
            try {
                const PortRecords port = ReadPort(*channel, name);
                documents.push_back(ToJson(name, port));
                rows.push_back({ToUtf8(name), Destination(port), OrNone(documents.back()["mac"]),
                                port.extended.dwAlwaysPrint != 0 ? "yes" : "no", Joined(usedBy)});
            } catch (const CommandFailed& failed) {
                // Everybody may see which ports there are.
                if (failed.remedy != Remedy::RunAsAdministrator) {
                    throw;
                }
                namesAlone = Explained(failed);
                documents.push_back({{"name", ToUtf8(name)}});
                rows.push_back({ToUtf8(name), "?", "?", "?", Joined(usedBy)});
            }
            documents.back()["usedBy"] = usedBy;
        }
        if (!namesAlone.empty()) {
            std::cerr << "kestctl: only the names are shown: " << namesAlone << '\n';
        }
        if (arguments->json) {
            PrintJson(documents);
        } else if (rows.empty()) {
            std::cout << "there is no port yet: " << Advised("port add") << " makes one\n";
        } else {
            PrintTable({"PORT", "SENDS", "MAC", "ALWAYS PRINT", "USED BY"}, rows);
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
    AddNames(command, arguments->names, "The ports, or patterns with * and ?").required();
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

// Changes a port that is there, and says what came of it. Returns it as JSON.
nlohmann::json SetPort(SpoolerChannel& channel, const std::wstring& name,
                       const PortArguments& arguments,
                       const std::optional<PrinterIdentity>& printer, const std::string& resolved) {
    const PortRecords before = ReadPort(channel, name);
    PortRecords after = before;
    const std::string following = ApplyArguments(arguments, printer, after);
    nlohmann::json document = ToJson(name, after);
    const nlohmann::json changes = Changes(ToJson(name, before), document);
    if (!changes.empty()) {
        ChangePort(channel, name, before, after);
    }
    document["changed"] = changes;
    if (arguments.json) {
        return document;
    }
    std::cout << "port " << ToUtf8(name) << " set: " << Destination(after) << resolved << following
              << '\n';
    for (const auto& [key, values] : changes.items()) {
        std::cout << "  " << ChangeText(key, values) << '\n';
    }
    if (changes.empty()) {
        std::cout << "  nothing changed: all of it was so\n";
    }
    return document;
}

void AddAdd(CLI::App& port, const ChannelFactory& openChannel, const PrinterIdentifier& identify) {
    CLI::App& command = AddPortCommand(port, "add", "Add a port for a printer",
                                       "port add OFFICE --follow 192.168.1.20");
    const auto arguments = std::make_shared<PortArguments>();
    arguments->names.resize(1);
    command.add_option("NAME", arguments->names[0], "The new port's name")
        ->required()
        ->transform(Checked(CheckPortName));
    AddSettings(command, *arguments);
    AddFollow(command, *arguments);
    command.add_flag("--or-set", arguments->tolerant,
                     "Change a port of this name that is there already, as `port set` does; only "
                     "a new one needs an address");
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel, identify] {
        const std::string resolved = ResolveAddress(arguments->change);
        const auto printer = PrinterToFollow(*arguments, identify);
        const std::wstring name = ToWide(arguments->names[0]);
        if (!arguments->tolerant) {
            PortRecords unused;
            ApplyArguments(*arguments, printer, unused);  // wrong usage opens nothing
        }
        const auto channel = openChannel();
        const auto there = arguments->tolerant ? PortCalled(*channel, name) : std::nullopt;
        nlohmann::json document;
        if (there) {
            document = SetPort(*channel, *there, *arguments, printer, resolved);
        } else {
            PortRecords records;
            const std::string following = ApplyArguments(*arguments, printer, records);
            AddPort(*channel, name, records);
            document = ToJson(name, records);
            if (!arguments->json) {
                std::cout << "port " << arguments->names[0] << " added: " << Destination(records)
                          << resolved << following << '\n';
            }
        }
        if (arguments->json) {
            PrintJson(document);
        }
    });
}

void AddSet(CLI::App& port, const ChannelFactory& openChannel, const PrinterIdentifier& identify) {
    CLI::App& command = AddPortCommand(port, "set", "Change settings of ports; the others stay",
                                       "port set OFFICE --follow 192.168.1.20");
    const auto arguments = std::make_shared<PortArguments>();
    AddNames(command, arguments->names, "The ports, or patterns with * and ?").required();
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
        const auto names = FindPorts(*channel, WideNames(arguments->names));
        const auto printer = PrinterToFollow(*arguments, identify);
        // What does not go together is refused before the first port is changed.
        for (const std::wstring& name : names) {
            PortRecords records = ReadPort(*channel, name);
            ApplyArguments(*arguments, printer, records);
        }
        ForEachPort(*arguments, names, [&](const std::wstring& name) {
            return SetPort(*channel, name, *arguments, printer, resolved);
        });
    });
}

// Refuses ports that printers print to, and names all of these; and all ports where the printers
// are not known.
void RequireUnused(SpoolerChannel& channel, const std::vector<std::wstring>& ports) {
    std::optional<std::vector<Queue>> queues;
    try {
        queues = channel.Queues();
    } catch (const CommandFailed& failed) {
        throw CommandFailed(
            "nothing is deleted while its printers are not known: " + std::string(failed.what()),
            failed.remedy);
    }
    std::string used;
    for (const std::wstring& port : ports) {
        const nlohmann::json usedBy = UsedBy(queues, port);
        if (!usedBy.empty()) {
            used += (used.empty() ? "port " : "; port ") + ToUtf8(port) + " is used by printer" +
                    (usedBy.size() == 1 ? " " : "s ") + Joined(usedBy);
        }
    }
    if (!used.empty()) {
        throw CommandFailed(used, Remedy::MovePrinter);
    }
}

void AddDelete(CLI::App& port, const ChannelFactory& openChannel) {
    CLI::App& command =
        AddPortCommand(port, "delete", "Delete ports that no printer uses", "port delete OFFICE");
    const auto arguments = std::make_shared<PortArguments>();
    AddNames(command, arguments->names, "The ports, or patterns with * and ?").required();
    command.add_flag("--if-there", arguments->tolerant,
                     "Do nothing, and succeed, where there is no such port");
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel] {
        const auto channel = openChannel();
        const auto names = FindPorts(*channel, WideNames(arguments->names), arguments->tolerant);
        if (!names.empty()) {
            RequireUnused(*channel, names);
        }
        ForEachPort(*arguments, names, [&](const std::wstring& name) -> nlohmann::json {
            DeletePort(*channel, name);
            if (!arguments->json) {
                std::cout << "port " << ToUtf8(name) << " deleted\n";
            }
            return {{"deleted", ToUtf8(name)}};
        });
        if (!arguments->json && names.empty()) {
            std::cout << "nothing to delete: there is no such port\n";
        }
    });
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
    AddPortTransfer(port, openChannel);
    AddPortMigrate(port, openChannel, identify, server);
}
