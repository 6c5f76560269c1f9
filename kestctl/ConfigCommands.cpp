// kestctl config: SLPConf.xml.
#include <winsock2.h>
#include <windows.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "admin/ports/PortPrinters.h"
#include "admin/search/ConfigTrial.h"
#include "admin/search/Hosts.h"
#include "admin/search/MergedSearch.h"
#include "admin/search/PrinterSearch.h"
#include "admin/search/SearchSettings.h"
#include "base/Text.h"
#include "kestctl/Command.h"
#include "kestctl/Interruption.h"

namespace {

struct ConfigArguments {
    std::string file;
    bool dryRun = false;
    bool json = false;
};

struct LearnArguments {
    std::string address;
    std::vector<std::string> services;
    bool write = false;
    bool force = false;
    bool json = false;
};

std::wstring PathOf(const ConfigArguments& arguments) {
    return arguments.file.empty() ? SearchFilePath()
                                  : std::filesystem::absolute(Utf8ToWide(arguments.file)).native();
}

size_t Problems(const SearchFile& file) {
    return static_cast<size_t>(std::ranges::count_if(file.findings, &SearchFinding::problem));
}

const char* NameAt(size_t element) {
    return NameOf(static_cast<SearchElement>(element));
}

nlohmann::json ToJson(const SearchSettings& settings) {
    auto values = nlohmann::json::object();
    for (size_t i = 0; i < kSearchElements; ++i) {
        values[NameAt(i)] = settings[i];
    }
    return values;
}

void RunShow(const ConfigArguments& arguments) {
    const std::wstring path = PathOf(arguments);
    const SearchFile file = ReadSearchFile(path);
    if (!file.wellFormed) {
        throw CommandFailed(WideToUtf8(path) + " is not well-formed XML. " +
                            Advised("config check") + " shows the line");
    }
    if (arguments.json) {
        PrintJson({{"file", WideToUtf8(path)}, {"values", ToJson(file.values)}});
    } else {
        std::vector<Row> rows;
        for (size_t i = 0; i < kSearchElements; ++i) {
            rows.push_back({NameAt(i), Cell(file.values[i])});
        }
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

// Throws CommandFailed if the file has problems, or finds none of the printers.
void RequireGood(const std::string& path, const SearchFile& file, const Recognition& recognised) {
    if (const size_t problems = Problems(file); problems != 0) {
        throw CommandFailed(
            path + ": " + Count(problems, "problem") +
            (file.wellFormed ? "" : ". The file is not used until it is corrected"));
    }
    if (recognised.failure.empty() && recognised.printers != 0 && recognised.found == 0) {
        throw CommandFailed(path +
                            ": a search with this file recognizes no port's printer. Check that "
                            "the printers are on. " +
                            Advised("config learn ADDRESS") + " shows what one of them announces");
    }
}

void RunCheck(const ConfigArguments& arguments, const ChannelFactory& openChannel) {
    const std::wstring path = PathOf(arguments);
    const SearchFile file = ReadSearchFile(path);
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
    RequireGood(WideToUtf8(path), file, recognised);
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

std::string Verdict(const std::optional<bool>& found) {
    return !found   ? "not tried: the printer announces no usable value"
           : *found ? "found"
                    : "not found";
}

void PrintLearned(const LearnedSettings& learned) {
    std::vector<Row> rows;
    for (size_t i = 0; i < kSearchElements; ++i) {
        const auto& [value, says, why, recognised] = learned.elements[i];
        rows.push_back({NameAt(i), Cell(value), Cell(says), Printable(why)});
    }
    PrintTable({"ELEMENT", "VALUE", "PRINTER ANNOUNCES", "WHY"}, rows);
    for (const std::string& remark : learned.remarks) {
        std::cout << "note: " << Printable(remark) << '\n';
    }
}

nlohmann::json ToJson(const LearnedSettings& learned) {
    auto elements = nlohmann::json::object();
    for (size_t i = 0; i < kSearchElements; ++i) {
        const auto& [value, says, why, recognised] = learned.elements[i];
        elements[NameAt(i)] = {
            {"value", value}, {"says", says}, {"why", why}, {"recognised", recognised}};
    }
    return {{"elements", elements}, {"notes", learned.remarks}};
}

std::string LossText(size_t lost) {
    return Count(lost, "printer") + " of your ports would no longer be found";
}

// The elements in which the tried settings are not the learned ones.
std::string KeptElements(const SearchSettings& tried, const SearchSettings& learned) {
    std::string text;
    for (size_t i = 0; i < kSearchElements; ++i) {
        if (tried[i] != learned[i]) {
            text += (text.empty() ? "<" : ", <") + std::string(NameAt(i)) + "> " + Cell(tried[i]);
        }
    }
    return text;
}

void PrintWritten(const std::wstring& path, const TrialResult& result,
                  const SearchSettings& learned) {
    const std::string kept = KeptElements(result.settings, learned);
    if (!kept.empty()) {
        std::cout << "for other printers of your ports: " << kept << '\n';
    }
    if (result.lost != 0) {
        std::cout << LossText(result.lost) << '\n';
    }
    if (result.written) {
        std::cout << "written: " << WideToUtf8(path) << '\n';
        if (!result.kept.empty()) {
            std::cout << "the old file is kept: " << WideToUtf8(result.kept) << '\n';
        }
    } else if (result.lost == 0 && !result.worse) {
        std::cout << WideToUtf8(path)
                  << (kept.empty() ? ": no change, the file already has these values\n"
                                   : ": no change, the file already finds this printer\n");
    }
    std::cout << "a search by MAC address: " << Verdict(result.found.mac)
              << "\na search by host name:   " << Verdict(result.found.hostName) << '\n';
}

// The printers of all ports, none if there is no monitor and no stored port.
std::vector<PortRecords> PortsToKeep(const ChannelFactory& openChannel, bool force) {
    try {
        return PrintersOfPorts(*openChannel(), false);
    } catch (const CommandFailed& failed) {
        if (force || !MayHavePorts(failed)) {
            return {};
        }
        throw CommandFailed("Cannot read the ports whose printers the new file has to find: " +
                            Explained(failed) + ". Nothing was written; --force writes it");
    }
}

SearchFile PresentFile(const std::wstring& path) {
    const bool there = GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
    return there ? ReadSearchFile(path) : SearchFile();
}

nlohmann::json ToJson(const std::vector<SearchAnswer>& answers) {
    auto list = nlohmann::json::array();
    for (const SearchAnswer& answer : answers) {
        list.push_back({{"version", answer.version},
                        {"service", answer.service},
                        {"attributes", answer.attributes.size()}});
    }
    return list;
}

void PrintAnswers(const std::vector<SearchAnswer>& answers, size_t taken) {
    for (size_t i = 0; i < answers.size(); ++i) {
        const SearchAnswer& answer = answers[i];
        std::cout << (i == taken ? "taken:    " : "answered: ") << Printable(answer.service)
                  << " in version " << answer.version << ", "
                  << Count(answer.attributes.size(), "attribute") << '\n';
    }
    std::cout << '\n';
}

// Reports what became of the file, as text or in the document. Throws CommandFailed unless the
// printer is found by the file and no printers of ports are lost.
void ReportWritten(const LearnArguments& arguments, const std::wstring& path,
                   const TrialResult& result, const SearchSettings& learned,
                   nlohmann::json document) {
    if (arguments.json) {
        document["written"] = result.written;
        document["kept"] = WideToUtf8(result.kept);
        document["lost"] = result.lost;
        document["byMac"] = result.found.mac.value_or(false);
        document["byName"] = result.found.hostName.value_or(false);
        document["tried"] = ToJson(result.settings);
        PrintJson(document);
    } else {
        std::cout << '\n';
        PrintWritten(path, result, learned);
    }
    if (result.worse) {
        throw CommandFailed(
            "The new file finds less of this printer than the old one; nothing was written");
    }
    if (result.lost != 0 && !result.written) {
        throw CommandFailed(LossText(result.lost) +
                            "; nothing was written. Use --force to write the file");
    }
    if (!result.found.Any()) {
        throw CommandFailed(
            "the search by multicast does not find this printer, although it answers at its "
            "address. Check that this computer and the printer are in the same subnet, or that "
            "multicast is forwarded between them");
    }
}

LearnedPrinter AskPrinter(const LearnArguments& arguments, const SearchSettings& present) {
    const IPAddress address = AddressOf(StartedNetwork(), arguments.address);
    Progress progress(!arguments.json);
    progress.Show("asking in both versions");
    LearnedPrinter printer = LearnPrinter(address, arguments.services, present);
    if (printer.answers.empty()) {
        const auto dnsSd = FindByDnsSd([] { return true; });
        if (std::ranges::any_of(dnsSd, [&](const auto& hit) { return HasAddress(hit, address); })) {
            throw CommandFailed(address.GetText() +
                                " answers DNS-SD but not SLP, so jobs cannot follow this printer. "
                                "Switch SLP on in the printer's web page, under network protocols");
        }
        throw CommandFailed(address.GetText() + " did not answer under any of " +
                            Count(printer.servicesAsked, "service type") +
                            " in either version of SLP. Check that SLP is enabled on the "
                            "printer, and specify its service type (see its manual or web page) "
                            "with --service");
    }
    return printer;
}

TrialResult WriteLearned(const LearnArguments& arguments, const std::wstring& path,
                         const SearchFile& present, const LearnedPrinter& printer,
                         const ChannelFactory& openChannel) {
    const std::vector<PortRecords> ports = PortsToKeep(openChannel, arguments.force);
    const Interruption interruption;
    Progress progress(!arguments.json);
    const auto search = [&](const std::wstring& file) {
        auto found = FindIdentities(
            [&] {
                progress.Show("trying");
                return !interruption.Requested();
            },
            file);
        progress.Clear();
        if (interruption.Requested()) {
            throw Interrupted();
        }
        return found;
    };
    return TryAndInstall(path, present, printer, arguments.force,
                         {search, [&ports](const auto& before, const auto& after) {
                              return CountLost(ports, before, after);
                          }});
}

void RunLearn(const LearnArguments& arguments, const ChannelFactory& openChannel) {
    const std::wstring path = SearchFilePath();
    const SearchFile present = PresentFile(path);
    const LearnedPrinter printer = AskPrinter(arguments, present.values);
    nlohmann::json document = ToJson(printer.learned);
    document["file"] = WideToUtf8(path);
    document["address"] = printer.address.GetText();
    document["answers"] = ToJson(printer.answers);
    if (!arguments.json) {
        PrintAnswers(printer.answers, printer.taken);
        PrintLearned(printer.learned);
    }
    if (arguments.write && printer.obstacle.empty()) {
        const TrialResult result = WriteLearned(arguments, path, present, printer, openChannel);
        ReportWritten(arguments, path, result, printer.learned.Settings(), std::move(document));
        return;
    }
    if (arguments.json) {
        PrintJson(document);
    }
    if (!printer.obstacle.empty()) {
        throw CommandFailed(printer.obstacle + (arguments.write ? "; nothing was written" : ""));
    }
    if (!arguments.json) {
        std::cout << "nothing was written; --write writes these values to " << WideToUtf8(path)
                  << '\n';
    }
}

void AddLearn(CLI::App& group, const ChannelFactory& openChannel) {
    const auto [command, arguments] = AddCommand<LearnArguments>(
        group, "learn",
        "Ask one printer, recognize its attributes by their values, and show what the file should "
        "say",
        "config learn 192.168.1.20 --write",
        [openChannel](const LearnArguments& given) { RunLearn(given, openChannel); });
    AddText(command, "ADDRESS", arguments.address, "The printer's address or host name").required();
    command
        .add_option("--service", arguments.services,
                    "Also ask for this service type; may be given several times")
        ->check(NotEmpty());
    CLI::Option* write = command.add_flag(
        "--write", arguments.write,
        "Try a new file with a search, and install it if that finds this printer no worse than "
        "before, and all printers of ports that it found before. The old file is kept beside it");
    command
        .add_flag("--force", arguments.force,
                  "Install it also if printers of ports are no longer found")
        ->needs(write);
    AddJsonFlag(command, arguments.json);
}

AddedCommand<ConfigArguments> Add(CLI::App& group, const char* name, const char* text,
                                  const char* example,
                                  const std::function<void(const ConfigArguments&)>& run) {
    const auto added = AddCommand<ConfigArguments>(group, name, text, example, run);
    AddJsonFlag(added.command, added.arguments.json);
    return added;
}

}  // namespace

void AddConfigCommands(CLI::App& app, const ChannelFactory& openChannel) {
    CLI::App& group =
        AddGroup(app, "config", "Show, check and fit SLPConf.xml, by which printers are found");
    Add(group, "show", "Show which file is read, and its values", "config show", RunShow);
    const auto [check, checked] =
        Add(group, "check",
            "Report errors in the file, with line numbers, and how many printers of ports with "
            "--always-print a search with it finds; exit code 1 for an error, or if it finds none",
            "config check --file SLPConf.new.xml",
            [openChannel](const ConfigArguments& given) { RunCheck(given, openChannel); });
    AddText(check, "--file", checked.file,
            "Check this file, before it is installed, without a search");
    AddLearn(group, openChannel);
    const auto [restore, restored] =
        Add(group, "restore",
            "Exchange the file with its previous version, which `config learn --write` kept",
            "config restore", RunRestore);
    AddDryRunFlag(restore, restored.dryRun);
}
