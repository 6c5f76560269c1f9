// kestctl port migrate and rename: ports that take the printers of others.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <iostream>

#include "admin/ports/Migration.h"
#include "admin/ports/MigrationFile.h"
#include "admin/ports/PortJson.h"
#include "admin/ports/PortRename.h"
#include "admin/ports/PortStore.h"
#include "admin/search/Hosts.h"
#include "base/Text.h"
#include "kestctl/Interruption.h"
#include "kestctl/PortOptions.h"

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

struct RenameArguments {
    std::string name;
    std::string newName;
    bool dryRun = false;
    bool json = false;
};

void PrintPlan(const std::vector<Migration>& plan, std::ostream& out) {
    std::vector<Row> rows;
    for (const Migration& migration : plan) {
        const bool done = migration.obstacle.empty();
        std::string remark = done ? migration.remark : "NOT MIGRATED: " + migration.obstacle;
        if (done && migration.isThere) {
            remark = "port exists" + (remark.empty() ? "" : "; " + remark);
        }
        rows.push_back({WideToUtf8(migration.from), done ? WideToUtf8(migration.to) : "-",
                        done ? Destination(migration.records) : "-",
                        Cell(JoinedNames(migration.queues)), Cell(remark)});
    }
    PrintTable({"STANDARD PORT", "BECOMES", "SENDS", "PRINTERS", "REMARK"}, rows, out);
}

// The results of all ports, as text and as JSON.
class Outcome {
  public:
    //   done: the participle of the run, "migrated".
    //   already: the same for ports where there was nothing to do.
    Outcome(const char* done, const char* already) : done_(done), already_(already) {}

    void Add(const Migration& migration, const MigrationResult& result) {
        const std::string failure =
            migration.obstacle.empty() ? result.failure : migration.obstacle;
        const bool complete = failure.empty() && result.waiting.empty();
        ++(!complete ? incomplete_ : result.changed ? complete_ : unchanged_);
        documents_.push_back({{"name", WideToUtf8(migration.to)},
                              {"from", WideToUtf8(migration.from)},
                              {"to", WideToUtf8(migration.to)},
                              {"moved", NamesAsJson(result.moved)},
                              {"waiting", NamesAsJson(result.waiting)},
                              {"changed", result.changed},
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
            std::cout << Count(complete_, "port") << ' ' << done_
                      << (unchanged_ == 0 ? "" : ", " + Count(unchanged_, "port") + ' ' + already_)
                      << (incomplete_ == 0 ? ""
                                           : ", " + Count(incomplete_, "port") + " incomplete:")
                      << '\n'
                      << text_;
            if (!undoFile.empty()) {
                std::cout << "To undo the migration: " << CommandLine("port migrate --undo ")
                          << Quoted(Utf8ToWide(undoFile)) << '\n';
            }
        }
        if (incomplete_ != 0) {
            throw CommandFailed(Count(incomplete_, "port") + " could not be " + done_ +
                                " completely");
        }
    }

  private:
    const char* const done_;
    const char* const already_;
    nlohmann::json documents_ = nlohmann::json::array();
    std::string text_;
    size_t complete_ = 0;
    size_t unchanged_ = 0;
    size_t incomplete_ = 0;
};

// Processes one port after the other and reports them; Ctrl-C ends it between two ports.
void RunEach(const std::vector<Migration>& plan, bool json, const std::string& undoFile,
             Outcome outcome, const std::function<MigrationResult(const Migration&)>& work) {
    const Interruption interruption;
    Progress progress(!json);
    for (size_t i = 0; i < plan.size(); ++i) {
        progress.Show(PortsBar(i, plan.size()));
        MigrationResult result;
        if (interruption.Requested()) {
            result.failure = "not started because of Ctrl-C";
        } else if (plan[i].obstacle.empty()) {
            result = work(plan[i]);
        }
        outcome.Add(plan[i], result);
    }
    progress.Clear();
    outcome.Report(json, undoFile);
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
        progress.Show(Bar(done, all) + "  planning " + Count(all, "port"));
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
        undoFile = SaveMigration(arguments.undoFile, plan, server);
    }
    RunEach(plan, arguments.json, undoFile, {"migrated", "already migrated"},
            [&channel](const Migration& migration) { return Migrate(channel, migration); });
}

// Shows which printers would move back and which ports would be deleted.
void PrintUndoPlan(const std::vector<Migration>& plan, SpoolerChannel& channel, bool json) {
    nlohmann::json documents = nlohmann::json::array();
    std::vector<Row> rows;
    for (const Migration& migration : plan) {
        const MigrationResult result = Undo(channel, migration, true);
        documents.push_back(ToJson(migration));
        documents.back()["moved"] = NamesAsJson(result.moved);
        documents.back()["waiting"] = NamesAsJson(result.waiting);
        documents.back()["deleted"] = result.deleted;
        documents.back()["error"] = result.failure;
        const std::string remark =
            !result.waiting.empty() ? "not moved: print jobs wait in " + JoinedNames(result.waiting)
                                    : result.failure;
        rows.push_back({WideToUtf8(migration.to), WideToUtf8(migration.from),
                        Cell(JoinedNames(result.moved)),
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
    const std::vector<Migration> plan = LoadMigration(arguments.undo, server);
    if (arguments.dryRun) {
        PrintUndoPlan(plan, channel, arguments.json);
        return;
    }
    RunEach(plan, arguments.json, {}, {"undone", "unchanged since"},
            [&channel](const Migration& migration) { return Undo(channel, migration); });
}

void ReportRename(const RenameArguments& arguments, const Migration& plan) {
    if (arguments.json) {
        PrintJson({{"name", WideToUtf8(plan.to)},
                   {"before", WideToUtf8(plan.from)},
                   {"moved", NamesAsJson(plan.queues)},
                   {"dryRun", arguments.dryRun}});
        return;
    }
    std::cout << "port " << WideToUtf8(plan.from) << (arguments.dryRun ? " would be" : "")
              << " renamed to " << WideToUtf8(plan.to);
    if (!plan.queues.empty()) {
        std::cout << (plan.queues.size() == 1 ? ", with the printer " : ", with the printers ")
                  << JoinedNames(plan.queues);
    }
    std::cout << '\n';
}

void RunRename(const RenameArguments& arguments, SpoolerChannel& channel) {
    const Interruption untilDone;  // half a rename would leave two ports
    const Migration plan =
        PlanRename(channel, Utf8ToWide(arguments.name), Utf8ToWide(arguments.newName));
    if (untilDone.Requested()) {
        throw Interrupted();
    }
    if (!arguments.dryRun) {
        RenamePort(channel, plan);
    }
    ReportRename(arguments, plan);
}

void AddRename(CLI::App& port, const ChannelFactory& openChannel) {
    const auto [command, arguments] = AddCommand<RenameArguments>(
        port, "rename",
        "Rename a port: add a port with the same settings, move the printers to it and delete the "
        "old port, completely or not at all",
        "port rename OFFICE RECEPTION",
        [openChannel](const RenameArguments& given) { RunRename(given, *openChannel()); });
    AddText(command, "NAME", arguments.name, "The port").required();
    command.add_option("NEW-NAME", arguments.newName, "Its new name")
        ->required()
        ->transform(Checked(CheckPortName));
    AddDryRunFlag(command, arguments.dryRun);
    AddJsonFlag(command, arguments.json);
}

}  // namespace

void AddPortMigrate(CLI::App& port, const ChannelFactory& openChannel,
                    const PrinterIdentifier& identify,
                    const std::function<std::wstring()>& server) {
    AddRename(port, openChannel);
    const auto [command, arguments] = AddCommand<MigrateArguments>(
        port, "migrate",
        "Replace Windows' standard TCP/IP ports by ports with the same settings, and move the "
        "printers that have no waiting print jobs; shows the plan first",
        "port migrate \"IP_10.*\" --follow --dry-run",
        [openChannel, identify, server](const MigrateArguments& given) {
            const auto channel = openChannel();
            if (given.undo.empty()) {
                RunMigrate(given, *channel, identify, server());
            } else {
                RunUndo(given, *channel, server());
            }
        });
    CLI::Option& names = AddNames(command, arguments.names,
                                  "Standard ports, or patterns with * and ?; all by default");
    CLI::Option* undo =
        command.add_option("--undo", arguments.undo, "Undo the migration that wrote this file");
    undo->check(NotEmpty())->excludes(&names);
    command
        .add_option("--name-format", arguments.nameFormat,
                    "Names of the new ports, with {name} and {address} ({name}-kestmon)")
        ->check(Checked(CheckNameFormat))
        ->excludes(undo);
    command
        .add_flag("--follow", arguments.follow,
                  "Read MAC address and host name from each printer, and follow it")
        ->excludes(undo);
    AddText(command, "--undo-file", arguments.undoFile,
            "File to write for --undo (migration-DATE-TIME.json)")
        .excludes(undo);
    AddDryRunFlag(command, arguments.dryRun);
    AddYesFlag(command, arguments.yes);
    AddJsonFlag(command, arguments.json);
}
