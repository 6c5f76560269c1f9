// kestctl port export and import: all ports in a file.
#include <algorithm>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "admin/PortStore.h"
#include "admin/Text.h"
#include "tools/kestctl/Command.h"
#include "tools/kestctl/Files.h"
#include "tools/kestctl/Interruption.h"
#include "tools/kestctl/PortFile.h"
#include "tools/kestctl/PortJson.h"
#include "tools/kestctl/Progress.h"

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
    std::string extension = ToUtf8(std::filesystem::path(ToWide(file)).extension().native());
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    return extension == ".csv";
}

void RunExport(const ExportArguments& arguments, SpoolerChannel& channel) {
    const bool toFile = !arguments.file.empty() && arguments.file != kStandardStream;
    const bool csv = arguments.csv || IsCsvName(arguments.file);
    if (toFile && !arguments.force && std::filesystem::exists(ToWide(arguments.file))) {
        throw CommandFailed(arguments.file + " is there already", Remedy::Force);
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
        SaveFile(
            arguments.file,
            csv ? "\xEF\xBB\xBF" + ToCsv(rows)
                : documents.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n",
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

// What a file comes to for the ports that there are.
struct ImportPlan {
    std::vector<PortStep> steps;  // what is to be done
    size_t unchanged = 0;
    std::vector<std::string> problems;
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

// Plans the row of a port that is there, or is to be.
void PlanPort(const PortRow& row, PortStep step, bool replace, ImportPlan& plan) {
    const size_t before = plan.problems.size();
    step.after = step.before.value_or(PortRecords());
    Apply(row, step.after, plan.problems);
    if (plan.problems.size() != before) {
        return;
    }
    if (step.before && SameSettings(*step.before, step.after)) {
        ++plan.unchanged;
    } else if (step.before && !replace) {
        plan.problems.push_back("line " + std::to_string(row.line) + ": port " + ToUtf8(step.name) +
                                " is there with other settings (" + ChangesText(step) +
                                "): --replace changes it");
    } else {
        plan.steps.push_back(std::move(step));
    }
}

ImportPlan MakePlan(const PortTable& table, bool replace, SpoolerChannel& channel) {
    ImportPlan plan;
    plan.problems = table.problems;
    std::map<std::wstring, std::wstring, LessByName> there;  // as named, as the monitor has it
    for (const std::wstring& name : channel.PortNames()) {
        there.emplace(name, name);
    }
    const std::vector<std::wstring> others = channel.OtherPortNames();
    const std::set<std::wstring, LessByName> taken(others.begin(), others.end());
    std::map<std::wstring, size_t, LessByName> lines;
    for (const PortRow& row : table.rows) {
        const std::wstring name = ToWide(NameOf(row, plan.problems));
        if (name.empty()) {
            continue;
        }
        if (const auto [other, first] = lines.emplace(name, row.line); !first) {
            plan.problems.push_back("line " + std::to_string(row.line) + ": port " + ToUtf8(name) +
                                    " is in line " + std::to_string(other->second) + " already");
            continue;
        }
        PortStep step = {name, std::nullopt, {}};
        if (const auto found = there.find(name); found != there.end()) {
            step.name = found->second;
            step.before = ReadPort(channel, step.name);
        } else if (taken.contains(name)) {
            plan.problems.push_back("line " + std::to_string(row.line) + ": " +
                                    NameTaken(name).what());
        }
        PlanPort(row, std::move(step), replace, plan);
    }
    return plan;
}

void Refuse(const std::string& file, const std::vector<std::string>& problems) {
    std::string text = SourceName(file) + ": nothing was changed, because of";
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
            std::cout << "port " << ToUtf8(step.name) << (arguments.dryRun ? " would be " : " ")
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
              << " as they were" << (arguments.dryRun ? ": a dry run, nothing was done\n" : "\n");
}

void RunImport(const ImportArguments& arguments, SpoolerChannel& channel) {
    Progress progress(!arguments.json);
    progress.Show("checking");
    const ImportPlan plan =
        MakePlan(ReadPortTable(ReadFileOrInput(arguments.file)), arguments.replace, channel);
    if (!plan.problems.empty()) {
        progress.Clear();
        Refuse(arguments.file, plan.problems);
    }
    if (!arguments.dryRun) {
        const Interruption interruption;
        Carry(channel, plan.steps, [&](size_t done) {
            if (interruption.Requested()) {
                throw Interrupted();  // what was done is taken back
            }
            progress.Show(Bar(done, plan.steps.size()) + "  " + std::to_string(done) + " of " +
                          std::to_string(plan.steps.size()) + " ports");
        });
    }
    progress.Clear();
    Report(arguments, plan);
}

}  // namespace

void AddPortTransfer(CLI::App& port, const ChannelFactory& openChannel) {
    CLI::App& exporting = *port.add_subcommand(
        "export", "Write all ports to a file, as JSON or, for a spreadsheet, as CSV");
    AddExample(exporting, "port export ports.csv");
    const auto exported = std::make_shared<ExportArguments>();
    exporting.add_option("FILE", exported->file,
                         "The file, CSV if it ends in .csv; standard output if there is none");
    exporting.add_flag("--csv", exported->csv, "Write CSV whatever the file's name");
    exporting.add_flag("--force", exported->force, "Write over a file that is there");
    exporting.callback([exported, openChannel] { RunExport(*exported, *openChannel()); });

    CLI::App& importing =
        *port.add_subcommand("import", "Make the ports of a file, all of them or none");
    AddExample(importing, "port import ports.csv --dry-run");
    const auto imported = std::make_shared<ImportArguments>();
    importing
        .add_option(
            "FILE", imported->file,
            "What `port export` or a spreadsheet wrote, JSON or CSV (UTF-8, cells separated by "
            "commas or semicolons, a heading as `port export` has it; of its columns a new port "
            "needs name and address); - for standard input")
        ->required()
        ->check(NotEmpty());
    importing.add_flag("--dry-run", imported->dryRun, "Only show what would be done");
    importing.add_flag("--replace", imported->replace,
                       "Change ports that are there with other settings; what the file does not "
                       "say stays");
    AddJsonFlag(importing, imported->json);
    importing.callback([imported, openChannel] { RunImport(*imported, *openChannel()); });
}
