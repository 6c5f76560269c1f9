// kestctl port migrate: from Windows' own TCP/IP ports to ports that follow their printers.
#include <ctime>
#include <iostream>
#include <memory>

#include "admin/Hosts.h"
#include "admin/Migration.h"
#include "admin/PortStore.h"
#include "admin/Text.h"
#include "tools/kestctl/Command.h"
#include "tools/kestctl/Files.h"
#include "tools/kestctl/Interruption.h"
#include "tools/kestctl/PortFile.h"
#include "tools/kestctl/PortJson.h"
#include "tools/kestctl/PortOptions.h"
#include "tools/kestctl/Progress.h"

namespace {

struct MigrateArguments {
    std::vector<std::string> names;
    std::string nameFormat = "{name}-kestmon";
    std::string undo;
    std::string undoFile;
    bool follow = false;
    bool dryRun = false;
    bool yes = false;
    bool json = false;
};

std::string Joined(const std::vector<std::wstring>& names) {
    std::string text;
    for (const std::wstring& name : names) {
        text += (text.empty() ? "" : ", ") + ToUtf8(name);
    }
    return text;
}

nlohmann::json ToJson(const std::vector<std::wstring>& names) {
    nlohmann::json list = nlohmann::json::array();
    for (const std::wstring& name : names) {
        list.push_back(ToUtf8(name));
    }
    return list;
}

nlohmann::json ToJson(const Migration& migration) {
    nlohmann::json document = {{"from", ToUtf8(migration.from)},
                               {"to", ToUtf8(migration.to)},
                               {"queues", ToJson(migration.queues)},
                               {"remark", migration.remark}};
    if (migration.obstacle.empty()) {
        document["wasThere"] = migration.isThere;
        document["settings"] = ToJson(migration.to, migration.records);
    } else {
        document["error"] = migration.obstacle;
    }
    return document;
}

// Where a port's settings in the file of a migration are wrong, the file is.
Migration FromJson(const nlohmann::json& document) {
    Migration migration;
    migration.from = ToWide(document.at("from").get<std::string>());
    migration.to = ToWide(document.at("to").get<std::string>());
    migration.isThere = document.at("wasThere").get<bool>();
    for (const auto& queue : document.at("queues")) {
        migration.queues.push_back(ToWide(queue.get<std::string>()));
    }
    const PortTable table = ReadPortTable(document.at("settings").dump());
    std::vector<std::string> problems = table.problems;
    if (problems.empty() && table.rows.size() == 1) {
        Apply(table.rows[0], migration.records, problems);
    }
    if (!problems.empty() || table.rows.size() != 1) {
        throw CommandFailed("the settings of port " + ToUtf8(migration.to) +
                            " are wrong: " + (problems.empty() ? "none" : Printable(problems[0])));
    }
    return migration;
}

void PrintPlan(const std::vector<Migration>& plan, std::ostream& out) {
    std::vector<std::vector<std::string>> rows;
    for (const Migration& migration : plan) {
        const bool done = migration.obstacle.empty();
        std::string remark = done ? migration.remark : "LEFT ALONE: " + migration.obstacle;
        if (done && migration.isThere) {
            remark = "there already" + (remark.empty() ? "" : "; " + remark);
        }
        rows.push_back({ToUtf8(migration.from), done ? ToUtf8(migration.to) : "-",
                        done ? Destination(migration.records) : "-",
                        migration.queues.empty() ? "-" : Joined(migration.queues),
                        remark.empty() ? "-" : Printable(remark)});
    }
    PrintTable({"STANDARD PORT", "BECOMES", "SENDS", "PRINTERS", "REMARK"}, rows, out);
}

// Writes down what --undo needs, before anything is changed. Returns the file's name.
std::string WriteUndoFile(const MigrateArguments& arguments, const std::vector<Migration>& plan,
                          const std::wstring& server) {
    std::string file = arguments.undoFile;
    if (file.empty()) {
        char text[64];
        const std::time_t now = std::time(nullptr);
        std::strftime(text, sizeof(text), "migration-%Y%m%d-%H%M%S.json", std::localtime(&now));
        file = text;
    }
    nlohmann::json ports = nlohmann::json::array();
    for (const Migration& migration : plan) {
        if (migration.obstacle.empty()) {
            ports.push_back(ToJson(migration));
        }
    }
    SaveFile(file,
             nlohmann::json({{"server", ToUtf8(server)}, {"ports", ports}})
                     .dump(2, ' ', false, nlohmann::json::error_handler_t::replace) +
                 "\n",
             false);
    return file;
}

// What became of the ports, as text and as JSON, and whether all is done.
class Outcome {
  public:
    explicit Outcome(const char* done) : done_(done) {}

    void Add(const Migration& migration, const MigrationResult& result) {
        const std::string failure =
            migration.obstacle.empty() ? result.failure : migration.obstacle;
        const bool complete = failure.empty() && result.waiting.empty();
        ++(complete ? complete_ : incomplete_);
        documents_.push_back({{"from", ToUtf8(migration.from)},
                              {"to", ToUtf8(migration.to)},
                              {"moved", ToJson(result.moved)},
                              {"waiting", ToJson(result.waiting)},
                              {"error", failure}});
        if (!complete) {
            text_ += "  " + ToUtf8(migration.from) + ": " +
                     (failure.empty() ? "jobs wait in " + Joined(result.waiting) + ", left alone"
                                      : Printable(failure)) +
                     '\n';
        }
    }

    // Shows all, and throws CommandFailed unless all is done.
    void Report(bool json, const std::string& undoFile) const {
        if (json) {
            PrintJson({{"ports", documents_}, {"undoFile", undoFile}});
        } else {
            std::cout << complete_ << (complete_ == 1 ? " port " : " ports ") << done_;
            if (incomplete_ != 0) {
                std::cout << ", " << incomplete_ << " not or in part:\n" << text_;
            } else {
                std::cout << '\n';
            }
            if (!undoFile.empty()) {
                std::cout << Advised("port migrate --undo " + undoFile) << " takes it back\n";
            }
        }
        if (incomplete_ != 0) {
            throw CommandFailed("not all ports are " + std::string(done_));
        }
    }

  private:
    const char* done_;
    nlohmann::json documents_ = nlohmann::json::array();
    std::string text_;
    size_t complete_ = 0;
    size_t incomplete_ = 0;
};

// Does something with one port after the other, with progress; Ctrl-C ends it between two ports.
void ForEachPort(const std::vector<Migration>& plan, bool json, Outcome& outcome,
                 const std::function<MigrationResult(const Migration&)>& work) {
    const Interruption interruption;
    Progress progress(!json);
    for (size_t i = 0; i < plan.size(); ++i) {
        progress.Show(Bar(i, plan.size()) + "  " + std::to_string(i) + " of " +
                      std::to_string(plan.size()) + " ports");
        MigrationResult result;
        if (interruption.Requested()) {
            result.failure = "not begun, because of Ctrl-C";
        } else if (plan[i].obstacle.empty()) {
            result = work(plan[i]);
        }
        outcome.Add(plan[i], result);
    }
}

std::vector<Migration> Planned(const MigrateArguments& arguments, SpoolerChannel& channel,
                               const PrinterIdentifier& identify) {
    const Interruption interruption;
    Progress progress(!arguments.json);
    MigrationWishes wishes = {
        WideNames(arguments.names), arguments.nameFormat, {}, [](const std::string& name) {
            return AddressOf(StartedNetwork(), name).GetText();
        }};
    if (arguments.follow) {
        wishes.identify = identify;
    }
    return PlanMigration(channel, wishes, [&](size_t done, size_t all) {
        if (interruption.Requested()) {
            progress.Clear();
            EndInterrupted();  // nothing was changed yet
        }
        progress.Show(Bar(done, all) + "  planning " + std::to_string(all) + " ports");
    });
}

void RunMigrate(const MigrateArguments& arguments, SpoolerChannel& channel,
                const PrinterIdentifier& identify, const std::wstring& server) {
    if (!arguments.dryRun && !arguments.yes && !InputIsTerminal()) {
        throw CLI::RequiredError("--yes (there is no terminal to ask on), or --dry-run");
    }
    const std::vector<Migration> plan = Planned(arguments, channel, identify);
    if (plan.empty()) {
        throw CommandFailed("there is no standard TCP/IP port");
    }
    if (arguments.json && arguments.dryRun) {
        nlohmann::json documents = nlohmann::json::array();
        for (const Migration& migration : plan) {
            documents.push_back(ToJson(migration));
        }
        PrintJson({{"dryRun", true}, {"ports", documents}});
        return;
    }
    PrintPlan(plan, arguments.json ? std::cerr : std::cout);
    if (arguments.dryRun) {
        std::cout << "a dry run: nothing was done\n";
        return;
    }
    if (!arguments.yes && !IsConfirmed("Make these ports and move the printers?")) {
        throw CommandFailed("nothing was changed");
    }
    const std::string undoFile = WriteUndoFile(arguments, plan, server);
    Outcome outcome("migrated");
    ForEachPort(plan, arguments.json, outcome,
                [&channel](const Migration& migration) { return Migrate(channel, migration); });
    outcome.Report(arguments.json, undoFile);
}

// A file of another server would move the printers of this one.
std::vector<Migration> ReadUndoFile(const std::string& file, const std::wstring& server) {
    const std::string text = ReadFileOrInput(file);
    try {
        const nlohmann::json document = nlohmann::json::parse(text);
        if (const auto other = document.at("server").get<std::string>();
            !SameName(ToWide(other), server)) {
            throw CommandFailed("is about " + (other.empty() ? "the computer itself" : other) +
                                ": run it there, or name it with --server");
        }
        std::vector<Migration> plan;
        for (const auto& port : document.at("ports")) {
            plan.push_back(FromJson(port));
        }
        return plan;
    } catch (const nlohmann::json::exception&) {
        throw CommandFailed(SourceName(file) + " is no file of a migration");
    } catch (const CommandFailed& failed) {
        throw CommandFailed(SourceName(file) + ": " + failed.what());
    }
}

void RunUndo(const MigrateArguments& arguments, SpoolerChannel& channel,
             const std::wstring& server) {
    Outcome outcome("taken back");
    ForEachPort(ReadUndoFile(arguments.undo, server), arguments.json, outcome,
                [&channel](const Migration& migration) { return Undo(channel, migration); });
    outcome.Report(arguments.json, {});
}

}  // namespace

void AddPortMigrate(CLI::App& port, const ChannelFactory& openChannel,
                    const PrinterIdentifier& identify,
                    const std::function<std::wstring()>& server) {
    CLI::App& command = *port.add_subcommand(
        "migrate",
        "Make ports of the same settings for Windows' own TCP/IP ports, and move the printers to "
        "them, but those with waiting jobs; shows a plan first");
    AddExample(command, "port migrate \"IP_10.*\" --follow --dry-run");
    const auto arguments = std::make_shared<MigrateArguments>();
    CLI::Option& names =
        AddNames(command, arguments->names,
                 "The standard ports, or patterns with * and ?; all if there is none");
    CLI::Option* undo = command.add_option("--undo", arguments->undo,
                                           "Take a migration back: the file that it wrote");
    undo->check(NotEmpty())->excludes(&names);
    command
        .add_option("--name-format", arguments->nameFormat,
                    "The new ports' names, of {name} and {address} ({name}-kestmon)")
        ->check(NotEmpty())
        ->excludes(undo);
    command
        .add_flag("--follow", arguments->follow,
                  "Ask each printer who it is, and have its port follow it")
        ->excludes(undo);
    command
        .add_option("--undo-file", arguments->undoFile,
                    "Where to write what --undo needs (migration-DATE-TIME.json)")
        ->check(NotEmpty())
        ->excludes(undo);
    command.add_flag("--dry-run", arguments->dryRun, "Only show the plan")->excludes(undo);
    command.add_flag("--yes", arguments->yes, "Do it without asking")->excludes(undo);
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel, identify, server] {
        const auto channel = openChannel();
        if (arguments->undo.empty()) {
            RunMigrate(*arguments, *channel, identify, server());
        } else {
            RunUndo(*arguments, *channel, server());
        }
    });
}
