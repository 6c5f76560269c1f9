// kestctl config show, check and restore: SLPConf.xml.
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "admin/search/PrinterSearch.h"
#include "base/Text.h"
#include "kestctl/Command.h"
#include "kestctl/Interruption.h"
#include "admin/ports/PortPrinters.h"
#include "admin/search/SearchSettings.h"

namespace {

struct ConfigArguments {
    std::string file;
    bool dryRun = false;
    bool json = false;
};

std::wstring PathOf(const ConfigArguments& arguments) {
    return arguments.file.empty() ? SearchFilePath()
                                  : std::filesystem::absolute(Utf8ToWide(arguments.file)).native();
}

size_t Problems(const SearchFile& file) {
    return static_cast<size_t>(
        std::count_if(file.findings.begin(), file.findings.end(),
                      [](const SearchFinding& finding) { return finding.problem; }));
}

void RunShow(const ConfigArguments& arguments) {
    const std::wstring path = PathOf(arguments);
    const SearchFile file = ReadSearchFile(path);
    if (!file.wellFormed) {
        throw CommandFailed(WideToUtf8(path) + " is not well-formed XML. " +
                            Advised("config check") + " shows the line");
    }
    auto values = nlohmann::json::object();
    std::vector<std::vector<std::string>> rows;
    for (size_t i = 0; i < kSearchElements; ++i) {
        const char* name = NameOf(static_cast<SearchElement>(i));
        values[name] = file.values[i];
        rows.push_back({name, Cell(file.values[i])});
    }
    if (arguments.json) {
        PrintJson({{"file", WideToUtf8(path)}, {"values", values}});
    } else {
        std::cout << WideToUtf8(path) << "\n\n";
        PrintTable({"ELEMENT", "VALUE"}, rows);
    }
    if (const size_t problems = Problems(file); problems != 0) {
        std::cerr << "kestctl: the file has " << Count(problems, "problem") << ". "
                  << Advised("config check") << " shows what is wrong\n";
    }
}

// How many printers of ports that follow them a search with the installed file finds.
struct Recognition {
    size_t printers = 0;
    size_t found = 0;
    std::string failure = {};  // why it is not known
};

Recognition Recognise(const ChannelFactory& openChannel) {
    Recognition result;
    try {
        const std::vector<PortRecords> ports = PrintersOfPorts(*openChannel(), true);
        result.printers = ports.size();
        if (!ports.empty()) {
            result.found = CountFound(ports, FindIdentities([] { return true; }));
        }
    } catch (const CommandFailed& failed) {
        result.failure = MayHavePorts(failed) ? Explained(failed) : "";
    }
    return result;
}

void PrintRecognition(const Recognition& result) {
    if (!result.failure.empty()) {
        std::cout << "note: the printers of the ports were not searched for: " << result.failure
                  << '\n';
    } else if (result.printers != 0) {
        std::cout << "a search with this file finds " << result.found << " of "
                  << Count(result.printers, "printer") << " that ports are to follow\n";
    }
}

void RunCheck(const ConfigArguments& arguments, const ChannelFactory& openChannel) {
    const std::wstring path = PathOf(arguments);
    const SearchFile file = ReadSearchFile(path);
    const size_t problems = Problems(file);
    const bool searched = arguments.file.empty() && file.wellFormed;
    const Recognition recognised = searched ? Recognise(openChannel) : Recognition();
    auto findings = nlohmann::json::array();
    for (const auto& [line, problem, text] : file.findings) {
        findings.push_back({{"line", line}, {"problem", problem}, {"text", text}});
        if (!arguments.json) {
            std::cout << "line " << line << ": " << (problem ? "" : "note: ") << text << '\n';
        }
    }
    if (arguments.json) {
        nlohmann::json document = {
            {"file", WideToUtf8(path)}, {"wellFormed", file.wellFormed}, {"findings", findings}};
        if (!recognised.failure.empty()) {
            document["notSearched"] = recognised.failure;
        } else if (searched) {
            document["printers"] = recognised.printers;
            document["recognised"] = recognised.found;
        }
        PrintJson(document);
    } else {
        PrintRecognition(recognised);
    }
    if (problems != 0) {
        throw CommandFailed(
            WideToUtf8(path) + ": " + Count(problems, "problem") +
            (file.wellFormed ? "" : ". The file is not used until it is corrected"));
    }
    if (recognised.failure.empty() && recognised.printers != 0 && recognised.found == 0) {
        throw CommandFailed(WideToUtf8(path) +
                            ": a search with this file recognises no port's printer. Check that "
                            "the printers are on. " +
                            Advised("config learn ADDRESS") + " shows what one of them announces");
    }
    if (!arguments.json) {
        std::cout << WideToUtf8(path) << ": no problem\n";
    }
}

void RunRestore(const ConfigArguments& arguments) {
    const std::wstring path = PathOf(arguments);
    const Interruption untilDone;  // half an exchange would leave no file
    const std::wstring kept = PreviousFile(path);
    if (arguments.dryRun) {
        if (arguments.json) {
            PrintJson(
                {{"file", WideToUtf8(path)}, {"restoredFrom", WideToUtf8(kept)}, {"dryRun", true}});
        } else {
            std::cout << "would be restored: " << WideToUtf8(path) << " from " << WideToUtf8(kept)
                      << '\n';
        }
        return;
    }
    RestorePreviousFile(path);
    const bool exchanged = GetFileAttributesW(kept.c_str()) != INVALID_FILE_ATTRIBUTES;
    if (arguments.json) {
        PrintJson({{"file", WideToUtf8(path)},
                   {"restoredFrom", WideToUtf8(kept)},
                   {"kept", WideToUtf8(exchanged ? kept : L"")}});
        return;
    }
    std::cout << "restored: " << WideToUtf8(path) << '\n';
    if (exchanged) {
        std::cout << "the file that it replaced is kept: " << WideToUtf8(kept) << '\n';
    }
}

CLI::App& AddCommand(CLI::App& group, const char* name, const char* text, const char* example,
                     const std::shared_ptr<ConfigArguments>& arguments,
                     const std::function<void(const ConfigArguments&)>& run) {
    CLI::App& command = *group.add_subcommand(name, text);
    AddExample(command, example);
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, run] { run(*arguments); });
    return command;
}

}  // namespace

void AddConfigCommands(CLI::App& app, const ChannelFactory& openChannel) {
    CLI::App& group = *app.add_subcommand(
        "config", "Show, check and fit SLPConf.xml, by which printers are found");
    group.require_subcommand(1);
    const auto arguments = std::make_shared<ConfigArguments>();
    AddCommand(group, "show", "Show which file is read, and what it says", "config show", arguments,
               RunShow);
    AddCommand(
        group, "check",
        "Report errors in the file, with line numbers, and how many printers of ports with "
        "--always-print a search with it finds; exit code 1 for an error, or if it finds none",
        "config check --file SLPConf.new.xml", arguments,
        [openChannel](const ConfigArguments& given) { RunCheck(given, openChannel); })
        .add_option("--file", arguments->file,
                    "Check this file, before it is installed, without a search")
        ->check(NotEmpty());
    AddConfigLearn(group, openChannel);
    CLI::App& restore =
        AddCommand(group, "restore",
                   "Exchange the file with its previous version, which `config learn --write` kept",
                   "config restore", arguments, RunRestore);
    AddDryRunFlag(restore, arguments->dryRun);
}
