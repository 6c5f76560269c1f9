// kestctl port export and import: all ports in a file.
#include <nlohmann/json.hpp>

#include <filesystem>
#include <iostream>

#include "admin/channel/Files.h"
#include "admin/ports/PortExport.h"
#include "admin/ports/PortImport.h"
#include "admin/ports/PortJson.h"
#include "kestctl/Interruption.h"
#include "kestctl/PortOptions.h"

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
    return SameName(std::filesystem::path(Utf8ToWide(file)).extension().native(), L".csv");
}

void RunExport(const ExportArguments& arguments, SpoolerChannel& channel) {
    const bool toFile = !arguments.file.empty() && arguments.file != kStandardStream;
    const bool csv = arguments.csv || IsCsvName(arguments.file);
    if (toFile && !arguments.force && std::filesystem::exists(Utf8ToWide(arguments.file))) {
        throw CommandFailed(arguments.file + " already exists", Remedy::Force);
    }
    const std::vector<NamedPort> ports = ReadAllPorts(channel);
    const std::string text = csv ? PortsAsCsv(ports) : PortsAsJson(ports);
    if (toFile) {
        // Spreadsheets recognize UTF-8 by its mark.
        SaveFile(arguments.file, (csv ? "\xEF\xBB\xBF" : "") + text, arguments.force);
        std::cout << arguments.file << ": " << Count(ports.size(), "port") << '\n';
    } else {
        std::cout << text;
    }
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
    const ImportPlan plan = PlanImport(ReadFileOrInput(arguments.file), arguments.replace, channel,
                                       identify, [&progress](size_t done, size_t all) {
                                           progress.Show(Bar(done, all) + "  asking the network");
                                       });
    if (!plan.problems.empty()) {
        progress.Clear();
        Refuse(arguments.file, plan.problems);
    }
    if (!arguments.dryRun) {
        const Interruption interruption;
        ApplyAllOrNothing(channel, plan.steps, [&](size_t done) {
            if (interruption.Requested()) {
                throw Interrupted();  // ApplyAllOrNothing undoes what was done
            }
            progress.Show(PortsBar(done, plan.steps.size()));
        });
    }
    progress.Clear();
    Report(arguments, plan);
}

}  // namespace

void AddPortTransfer(CLI::App& port, const ChannelFactory& openChannel,
                     const PrinterIdentifier& identify) {
    const auto [exporting, exported] = AddCommand<ExportArguments>(
        port, "export", "Write all ports to a file, as JSON or CSV", "port export ports.csv",
        [openChannel](const ExportArguments& given) { RunExport(given, *openChannel()); });
    exporting.add_option("FILE", exported.file,
                         "File to write, CSV if its name ends in .csv; standard output by default");
    exporting.add_flag("--csv", exported.csv, "Write CSV for any file name");
    exporting.add_flag("--force", exported.force, "Overwrite an existing file");

    const auto [importing, imported] = AddCommand<ImportArguments>(
        port, "import", "Create the ports of a file, all of them or none",
        "port import ports.csv --dry-run", [openChannel, identify](const ImportArguments& given) {
            RunImport(given, *openChannel(), identify);
        });
    AddText(importing, "FILE", imported.file,
            "File from `port export` or a spreadsheet: JSON, or CSV in UTF-8 with commas, "
            "semicolons or tabs and a heading; - for standard input. New ports need the "
            "columns name and address (or a host name). With yes, an address or a host "
            "name in the column follow, the port follows the printer there")
        .required();
    AddDryRunFlag(importing, imported.dryRun);
    importing.add_flag("--replace", imported.replace,
                       "Change existing ports; settings that the file does not have are kept");
    AddJsonFlag(importing, imported.json);
}
