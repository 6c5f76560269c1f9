// kestctl port export and import: all ports in a file.
#include <algorithm>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "base/Ascii.h"
#include "base/Parallel.h"
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

struct ExportArguments {
    std::string file;
    bool csv = false;
    bool force = false;
};

struct ImportArguments {
    std::string file;
    bool dryRun = false;
    bool replace = false;
    bool json = false;
};

bool IsCsvName(const std::string& file) {
    return EqualsIgnoreCase(
        WideToUtf8(std::filesystem::path(Utf8ToWide(file)).extension().native()), ".csv");
}

void RunExport(const ExportArguments& arguments, SpoolerChannel& channel) {
    const bool toFile = !arguments.file.empty() && arguments.file != kStandardStream;
    const bool csv = arguments.csv || IsCsvName(arguments.file);
    if (toFile && !arguments.force && std::filesystem::exists(Utf8ToWide(arguments.file))) {
        throw CommandFailed(arguments.file + " already exists", Remedy::Force);
    }
    nlohmann::json documents = nlohmann::json::array();
    std::vector<PortRow> rows;
    for (const std::wstring& name : channel.PortNames()) {
        const PortRecords records = ReadPort(channel, name);
        documents.push_back(ToJson(name, records));
        rows.push_back(ToRow(name, records));
    }
    if (toFile) {
        // Spreadsheets know UTF-8 by its mark.
        SaveFile(arguments.file, csv ? "\xEF\xBB\xBF" + ToCsv(rows) : JsonText(documents),
                 arguments.force);
        std::cout << arguments.file << ": " << rows.size()
                  << (rows.size() == 1 ? " port\n" : " ports\n");
    } else if (csv) {
        std::cout << ToCsv(rows);
    } else {
        PrintJson(documents);
    }
}

struct LessByName {
    bool operator()(const std::wstring& one, const std::wstring& other) const {
        return lstrcmpiW(one.c_str(), other.c_str()) < 0;
    }
};

// A row of the file with the port that it is about.
struct ImportedRow {
    const PortRow* row;
    PortStep step;
    RowLookup lookup = {};
};

// What a file comes to for the existing ports.
struct ImportPlan {
    std::vector<ImportedRow> rows;
    std::vector<PortStep> steps;  // what is to be done
    size_t unchanged = 0;
    std::vector<std::string> problems;

    void Problem(const PortRow& row, const std::string& text) {
        problems.push_back("line " + std::to_string(row.line) + ": " + text);
    }
};

std::string ChangesText(const PortStep& step) {
    std::string text;
    const nlohmann::json changes =
        Changes(ToJson(step.name, *step.before), ToJson(step.name, step.after));
    for (const auto& [key, values] : changes.items()) {
        text += (text.empty() ? "" : ", ") + ChangeText(key, values);
    }
    return text;
}

// Finds the port of each row.
void TakeRows(const PortTable& table, SpoolerChannel& channel, ImportPlan& plan) {
    std::map<std::wstring, std::wstring, LessByName> existing;  // as named, as the monitor has it
    for (const std::wstring& name : channel.PortNames()) {
        existing.emplace(name, name);
    }
    const std::vector<std::wstring> others = channel.OtherPortNames();
    const std::set<std::wstring, LessByName> taken(others.begin(), others.end());
    std::map<std::wstring, size_t, LessByName> lines;
    for (const PortRow& row : table.rows) {
        const std::wstring name = Utf8ToWide(NameOf(row, plan.problems));
        if (name.empty()) {
            continue;
        }
        if (const auto [other, first] = lines.emplace(name, row.line); !first) {
            plan.Problem(row, "port " + WideToUtf8(name) + " is already in line " +
                                  std::to_string(other->second));
            continue;
        }
        PortStep step = {name, std::nullopt, {}};
        if (const auto found = existing.find(name); found != existing.end()) {
            step.name = found->second;
            step.before = ReadPort(channel, step.name);
        } else if (taken.contains(name)) {
            plan.Problem(row, NameTaken(name).what());
        }
        step.after = step.before.value_or(PortRecords());
        const RowLookup lookup = LookupFor(row, step.after, plan.problems);
        plan.rows.push_back({&row, std::move(step), lookup});
    }
}

// Resolves the host names, and asks the printers, of all rows, 32 at a time.
void LookUp(ImportPlan& plan, const PrinterIdentifier& identify, Progress& progress) {
    std::vector<ImportedRow*> rows;
    for (ImportedRow& row : plan.rows) {
        if (row.lookup.IsNeeded()) {
            rows.push_back(&row);
        }
    }
    std::vector<std::string> failures(rows.size());
    const auto lookUp = [&](size_t at) {
        RowLookup& lookup = rows[at]->lookup;
        try {
            if (!lookup.hostName.empty()) {
                PortChange change;
                change.address = lookup.hostName;
                ResolveAddress(change);
                lookup.address = change.address;
            }
            if (!lookup.printer.empty()) {
                lookup.identity = identify(lookup.printer);
            }
        } catch (const std::exception& failed) {
            failures[at] = failed.what();
        }
    };
    constexpr size_t kAtOnce = 32;
    ForEach(rows.size(), kAtOnce, lookUp,
            [&](size_t done) { progress.Show(Bar(done, rows.size()) + "  asking the network"); });
    for (size_t i = 0; i < rows.size(); ++i) {
        if (!failures[i].empty()) {
            plan.Problem(*rows[i]->row, failures[i]);
        }
    }
}

// Plans the change of a row's port.
void PlanPort(ImportedRow& imported, bool replace, ImportPlan& plan) {
    const size_t before = plan.problems.size();
    PortStep& step = imported.step;
    Apply(*imported.row, step.after, plan.problems, imported.lookup);
    if (plan.problems.size() != before) {
        return;
    }
    if (step.before && SameSettings(*step.before, step.after)) {
        ++plan.unchanged;
    } else if (step.before && !replace) {
        plan.Problem(*imported.row, "port " + WideToUtf8(step.name) +
                                        " already exists with other settings (" +
                                        ChangesText(step) + "). --replace changes it");
    } else {
        plan.steps.push_back(std::move(step));
    }
}

// The network is only asked if the file has no problems of its own.
ImportPlan MakePlan(const PortTable& table, bool replace, SpoolerChannel& channel,
                    const PrinterIdentifier& identify, Progress& progress) {
    ImportPlan plan;
    plan.problems = table.problems;
    TakeRows(table, channel, plan);
    const bool asks = plan.problems.empty();
    if (asks) {
        LookUp(plan, identify, progress);
    }
    for (ImportedRow& row : plan.rows) {
        if (!row.lookup.IsNeeded() || (asks && plan.problems.empty())) {
            PlanPort(row, replace, plan);
        }
    }
    return plan;
}

void Refuse(const std::string& file, const std::vector<std::string>& problems) {
    std::string text = SourceName(file) + ": nothing was changed, because of these problems:";
    for (const std::string& problem : problems) {
        text += "\n  " + Printable(problem);
    }
    throw CommandFailed(text);
}

void Report(const ImportArguments& arguments, const ImportPlan& plan) {
    nlohmann::json added = nlohmann::json::array();
    nlohmann::json changed = nlohmann::json::array();
    for (const PortStep& step : plan.steps) {
        nlohmann::json port = ToJson(step.name, step.after);
        if (step.before) {
            port["changed"] = Changes(ToJson(step.name, *step.before), port);
        }
        (step.before ? changed : added).push_back(std::move(port));
        if (!arguments.json) {
            std::cout << "port " << WideToUtf8(step.name) << (arguments.dryRun ? " would be " : " ")
                      << (step.before ? "changed: " + ChangesText(step)
                                      : "added: " + Destination(step.after))
                      << '\n';
        }
    }
    if (arguments.json) {
        PrintJson({{"dryRun", arguments.dryRun},
                   {"added", added},
                   {"changed", changed},
                   {"unchanged", plan.unchanged}});
        return;
    }
    std::cout << added.size() << " added, " << changed.size() << " changed, " << plan.unchanged
              << " unchanged\n"
              << (arguments.dryRun ? "Dry run: nothing was changed\n" : "");
}

void RunImport(const ImportArguments& arguments, SpoolerChannel& channel,
               const PrinterIdentifier& identify) {
    Progress progress(!arguments.json);
    progress.Show("checking");
    const PortTable table = ReadPortTable(ReadFileOrInput(arguments.file));
    const ImportPlan plan = MakePlan(table, arguments.replace, channel, identify, progress);
    if (!plan.problems.empty()) {
        progress.Clear();
        Refuse(arguments.file, plan.problems);
    }
    if (!arguments.dryRun) {
        const Interruption interruption;
        Carry(channel, plan.steps, [&](size_t done) {
            if (interruption.Requested()) {
                throw Interrupted();  // Carry undoes what was done
            }
            progress.Show(Bar(done, plan.steps.size()) + "  " + std::to_string(done) + " of " +
                          std::to_string(plan.steps.size()) + " ports");
        });
    }
    progress.Clear();
    Report(arguments, plan);
}

}  // namespace

void AddPortTransfer(CLI::App& port, const ChannelFactory& openChannel,
                     const PrinterIdentifier& identify) {
    CLI::App& exporting =
        *port.add_subcommand("export", "Write all ports to a file, as JSON or CSV");
    AddExample(exporting, "port export ports.csv");
    const auto exported = std::make_shared<ExportArguments>();
    exporting.add_option("FILE", exported->file,
                         "File to write, CSV if its name ends in .csv; standard output by default");
    exporting.add_flag("--csv", exported->csv, "Write CSV for any file name");
    exporting.add_flag("--force", exported->force, "Overwrite an existing file");
    exporting.callback([exported, openChannel] { RunExport(*exported, *openChannel()); });

    CLI::App& importing =
        *port.add_subcommand("import", "Create the ports of a file, all of them or none");
    AddExample(importing, "port import ports.csv --dry-run");
    const auto imported = std::make_shared<ImportArguments>();
    importing
        .add_option("FILE", imported->file,
                    "File from `port export` or a spreadsheet: JSON, or CSV in UTF-8 with commas, "
                    "semicolons or tabs and a heading; - for standard input. New ports need the "
                    "columns name and address (or a host name). With yes, an address or a host "
                    "name in the column follow, the port follows the printer there")
        ->required()
        ->check(NotEmpty());
    AddDryRunFlag(importing, imported->dryRun);
    importing.add_flag("--replace", imported->replace,
                       "Change existing ports; settings that the file does not have are kept");
    AddJsonFlag(importing, imported->json);
    importing.callback(
        [imported, openChannel, identify] { RunImport(*imported, *openChannel(), identify); });
}
