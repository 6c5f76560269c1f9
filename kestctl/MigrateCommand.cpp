// kestctl port migrate: from Windows' own TCP/IP ports to ports that follow their printers.
#include <ctime>
#include <iostream>
#include <memory>

#include "admin/search/Hosts.h"
#include "admin/ports/Migration.h"
#include "admin/ports/PortStore.h"
#include "base/Text.h"
#include "kestctl/Command.h"
#include "kestctl/Files.h"
#include "kestctl/Interruption.h"
#include "admin/ports/PortFile.h"
#include "admin/ports/PortJson.h"
#include "kestctl/PortOptions.h"
#include "kestctl/Progress.h"

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

nlohmann::json ToJson(const std::vector<std::wstring>& names) {
    nlohmann::json list = nlohmann::json::array();
    for (const std::wstring& name : names) {
        list.push_back(WideToUtf8(name));
    }
    return list;
}

nlohmann::json ToJson(const Migration& migration) {
    nlohmann::json document = {{"name", WideToUtf8(migration.to)},
                               {"from", WideToUtf8(migration.from)},
                               {"to", WideToUtf8(migration.to)},
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

// Throws CommandFailed if the port's settings in the file are wrong.
Migration FromJson(const nlohmann::json& document) {
    Migration migration;
    migration.from = Utf8ToWide(document.at("from").get<std::string>());
    migration.to = Utf8ToWide(document.at("to").get<std::string>());
    migration.isThere = document.at("wasThere").get<bool>();
    for (const auto& queue : document.at("queues")) {
        migration.queues.push_back(Utf8ToWide(queue.get<std::string>()));
    }
    const PortTable table = ReadPortTable(document.at("settings").dump());
    std::vector<std::string> problems = table.problems;
    if (problems.empty() && table.rows.size() == 1) {
        Apply(table.rows[0], migration.records, problems);
    }
    if (!problems.empty() || table.rows.size() != 1) {
        throw CommandFailed("the settings of port " + WideToUtf8(migration.to) +
                            " are wrong: " + (problems.empty() ? "none" : Printable(problems[0])));
    }
    return migration;
}

void PrintPlan(const std::vector<Migration>& plan, std::ostream& out) {
    std::vector<std::vector<std::string>> rows;
    for (const Migration& migration : plan) {
        const bool done = migration.obstacle.empty();
        std::string remark = done ? migration.remark : "NOT MIGRATED: " + migration.obstacle;
        if (done && migration.isThere) {
            remark = "port exists" + (remark.empty() ? "" : "; " + remark);
        }
        rows.push_back({WideToUtf8(migration.from), done ? WideToUtf8(migration.to) : "-",
                        done ? Destination(migration.records) : "-",
                        migration.queues.empty() ? "-" : JoinedNames(migration.queues),
                        remark.empty() ? "-" : Printable(remark)});
    }
    PrintTable({"STANDARD PORT", "BECOMES", "SENDS", "PRINTERS", "REMARK"}, rows, out);
}

// Writes the file for --undo, before anything is changed. Returns its name.
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
    SaveFile(file, JsonText({{"server", WideToUtf8(server)}, {"ports", ports}}), false);
    return file;
}

// What is printed about a run, with the verb of the run: "migrated".
struct OutcomeWords {
    const char* done;     // "migrated"
    const char* already;  // of ports where there was nothing to do
};

// The results of all ports, as text and as JSON.
class Outcome {
  public:
    explicit Outcome(const OutcomeWords& words) : words_(words) {}

    //   changed: whether there was anything to do.
    void Add(const Migration& migration, const MigrationResult& result, bool changed) {
        const std::string failure =
            migration.obstacle.empty() ? result.failure : migration.obstacle;
        const bool complete = failure.empty() && result.waiting.empty();
        ++(!complete ? incomplete_ : changed ? complete_ : already_);
        documents_.push_back({{"name", WideToUtf8(migration.to)},
                              {"from", WideToUtf8(migration.from)},
                              {"to", WideToUtf8(migration.to)},
                              {"moved", ToJson(result.moved)},
                              {"waiting", ToJson(result.waiting)},
                              {"changed", changed},
                              {"error", failure}});
        if (!complete) {
            text_ +=
                "  " + WideToUtf8(migration.from) + ": " +
                (failure.empty() ? "not moved: print jobs wait in " + JoinedNames(result.waiting)
                                 : Printable(failure)) +
                '\n';
        }
    }

    // Prints everything. Throws CommandFailed unless all ports are complete.
    void Report(bool json, const std::string& undoFile) const {
        if (json) {
            PrintJson({{"ports", documents_}, {"undoFile", undoFile}});
        } else {
            std::cout << Counted(complete_) << words_.done
                      << (already_ == 0 ? "" : ", " + Counted(already_) + words_.already)
                      << (incomplete_ == 0 ? "" : ", " + Counted(incomplete_) + "incomplete:")
                      << '\n'
                      << text_;
            if (!undoFile.empty()) {
                std::cout << "To undo the migration: " << CommandLine("port migrate --undo ")
                          << Quoted(Utf8ToWide(undoFile)) << '\n';
            }
        }
        if (incomplete_ != 0) {
            throw CommandFailed(Counted(incomplete_) + "could not be " + words_.done +
                                " completely");
        }
    }

  private:
    static std::string Counted(size_t count) {
        return std::to_string(count) + (count == 1 ? " port " : " ports ");
    }

    const OutcomeWords words_;
    nlohmann::json documents_ = nlohmann::json::array();
    std::string text_;
    size_t complete_ = 0;
    size_t already_ = 0;
    size_t incomplete_ = 0;
};

constexpr OutcomeWords kMigrated = {"migrated", "already migrated"};
constexpr OutcomeWords kUndone = {"undone", "unchanged since"};

// Processes one port after the other with progress; Ctrl-C ends it between two ports.
//   work: also says whether there was anything to do, in `changed`.
void ForEachPort(const std::vector<Migration>& plan, bool json, Outcome& outcome,
                 const std::function<MigrationResult(const Migration&)>& work) {
    const Interruption interruption;
    Progress progress(!json);
    for (size_t i = 0; i < plan.size(); ++i) {
        progress.Show(Bar(i, plan.size()) + "  " + std::to_string(i) + " of " +
                      std::to_string(plan.size()) + " ports");
        MigrationResult result;
        if (interruption.Requested()) {
            result.failure = "not started because of Ctrl-C";
        } else if (plan[i].obstacle.empty()) {
            result = work(plan[i]);
        }
        outcome.Add(plan[i], result, result.changed);
    }
}

std::vector<Migration> Planned(const MigrateArguments& arguments, SpoolerChannel& channel,
                               const PrinterIdentifier& identify) {
    Progress progress(!arguments.json);
    MigrationWishes wishes = {
        WideNames(arguments.names), arguments.nameFormat, {}, [](const std::string& name) {
            return AddressOf(StartedNetwork(), name).GetText();
        }};
    if (arguments.follow) {
        wishes.identify = identify;
    }
    return PlanMigration(channel, wishes, [&](size_t done, size_t all) {
        progress.Show(Bar(done, all) + "  planning " + std::to_string(all) + " ports");
    });
}

void PrintDryRun(const MigrateArguments& arguments, const std::vector<Migration>& plan) {
    if (!arguments.json) {
        PrintPlan(plan, std::cout);
        std::cout << "Dry run: nothing was changed\n";
        return;
    }
    nlohmann::json documents = nlohmann::json::array();
    for (const Migration& migration : plan) {
        documents.push_back(ToJson(migration));
    }
    PrintJson({{"dryRun", true}, {"ports", documents}});
}

void RunMigrate(const MigrateArguments& arguments, SpoolerChannel& channel,
                const PrinterIdentifier& identify, const std::wstring& server) {
    const std::vector<Migration> plan = Planned(arguments, channel, identify);
    if (plan.empty()) {
        throw CommandFailed("there is no standard TCP/IP port");
    }
    if (arguments.dryRun) {
        PrintDryRun(arguments, plan);
        return;
    }
    PrintPlan(plan, arguments.json ? std::cerr : std::cout);
    const bool hasWork = std::ranges::any_of(plan, &Migration::HasWork);
    std::string undoFile;
    if (hasWork) {
        Confirm("Create these ports and move the printers?", arguments.yes, "Nothing was changed");
        undoFile = WriteUndoFile(arguments, plan, server);
    }
    Outcome outcome(kMigrated);
    ForEachPort(plan, arguments.json, outcome, [&channel](const Migration& migration) {
        MigrationResult result;
        if (!migration.HasWork()) {
            result.waiting = migration.busy;
            return result;
        }
        result = Migrate(channel, migration);
        result.changed = !migration.isThere || !result.moved.empty();
        return result;
    });
    outcome.Report(arguments.json, undoFile);
}

// A file of another server would move the printers of this one.
std::vector<Migration> ReadUndoFile(const std::string& file, const std::wstring& server) {
    const std::string text = ReadFileOrInput(file);
    try {
        const nlohmann::json document = nlohmann::json::parse(text);
        if (const auto other = document.at("server").get<std::string>();
            !SameName(Utf8ToWide(other), server)) {
            throw CommandFailed("the migration was run " +
                                (other.empty() ? "without --server" : "with --server " + other) +
                                ". Undo it in the same way");
        }
        std::vector<Migration> plan;
        for (const auto& port : document.at("ports")) {
            plan.push_back(FromJson(port));
        }
        return plan;
    } catch (const nlohmann::json::exception&) {
        throw CommandFailed(SourceName(file) + " is not a file that `port migrate` wrote");
    } catch (const CommandFailed& failed) {
        throw CommandFailed(SourceName(file) + ": " + failed.what());
    }
}

// Shows which printers would move back and which ports would be deleted.
void PrintUndoPlan(const std::vector<Migration>& plan, SpoolerChannel& channel, bool json) {
    nlohmann::json documents = nlohmann::json::array();
    std::vector<std::vector<std::string>> rows;
    for (const Migration& migration : plan) {
        const MigrationResult result = Undo(channel, migration, true);
        documents.push_back(ToJson(migration));
        documents.back()["moved"] = ToJson(result.moved);
        documents.back()["waiting"] = ToJson(result.waiting);
        documents.back()["deleted"] = result.deleted;
        documents.back()["error"] = result.failure;
        const std::string remark =
            !result.waiting.empty() ? "not moved: print jobs wait in " + JoinedNames(result.waiting)
                                    : result.failure;
        rows.push_back({WideToUtf8(migration.to), WideToUtf8(migration.from),
                        result.moved.empty() ? "-" : JoinedNames(result.moved),
                        result.deleted ? "is deleted" : "no change", Cell(remark)});
    }
    if (json) {
        PrintJson({{"dryRun", true}, {"ports", documents}});
        return;
    }
    PrintTable({"PORT", "BECOMES", "PRINTERS", "PORT THEN", "REMARK"}, rows);
    std::cout << "Dry run: nothing was changed\n";
}

void RunUndo(const MigrateArguments& arguments, SpoolerChannel& channel,
             const std::wstring& server) {
    const std::vector<Migration> plan = ReadUndoFile(arguments.undo, server);
    if (arguments.dryRun) {
        PrintUndoPlan(plan, channel, arguments.json);
        return;
    }
    Outcome outcome(kUndone);
    ForEachPort(plan, arguments.json, outcome,
                [&channel](const Migration& migration) { return Undo(channel, migration); });
    outcome.Report(arguments.json, {});
}

}  // namespace

void AddPortMigrate(CLI::App& port, const ChannelFactory& openChannel,
                    const PrinterIdentifier& identify,
                    const std::function<std::wstring()>& server) {
    CLI::App& command = *port.add_subcommand(
        "migrate",
        "Replace Windows' standard TCP/IP ports by ports with the same settings, and move the "
        "printers that have no waiting print jobs; shows the plan first");
    AddExample(command, "port migrate \"IP_10.*\" --follow --dry-run");
    const auto arguments = std::make_shared<MigrateArguments>();
    CLI::Option& names = AddNames(command, arguments->names,
                                  "Standard ports, or patterns with * and ?; all by default");
    CLI::Option* undo =
        command.add_option("--undo", arguments->undo, "Undo the migration that wrote this file");
    undo->check(NotEmpty())->excludes(&names);
    command
        .add_option("--name-format", arguments->nameFormat,
                    "Names of the new ports, with {name} and {address} ({name}-kestmon)")
        ->check(Checked(CheckNameFormat))
        ->excludes(undo);
    command
        .add_flag("--follow", arguments->follow,
                  "Read MAC address and host name from each printer, and follow it")
        ->excludes(undo);
    command
        .add_option("--undo-file", arguments->undoFile,
                    "File to write for --undo (migration-DATE-TIME.json)")
        ->check(NotEmpty())
        ->excludes(undo);
    AddDryRunFlag(command, arguments->dryRun);
    AddYesFlag(command, arguments->yes);
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
