// kestctl config: SLPConf.xml shown, checked, and fitted to a printer.
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "admin/Hosts.h"
#include "admin/PrinterSearch.h"
#include "tools/kestctl/SearchSettings.h"
#include "admin/Text.h"
#include "diag/SystemUtils.h"
#include "tools/kestctl/Command.h"
#include "tools/kestctl/ConfigLearning.h"
#include "tools/kestctl/Progress.h"

namespace {

// What printers are asked under, beside what the file says: the types that are registered, for
// printers in general and for their protocols.
constexpr const char* kServices[] = {
    "service:printer",     "service:printer:lpr", "service:printer:raw-tcp",
    "service:printer:ipp", "service:lpr",         "service:ipp"};

struct ConfigArguments {
    std::string file;
    std::string address;
    std::vector<std::string> services;
    bool write = false;
    bool json = false;
};

std::wstring PathOf(const ConfigArguments& arguments) {
    return arguments.file.empty() ? SearchFilePath()
                                  : std::filesystem::absolute(ToWide(arguments.file)).native();
}

std::string Cell(const std::string& text) {
    return text.empty() ? "-" : Printable(text);
}

std::string Count(size_t number, const std::string& what) {
    return std::to_string(number) + ' ' + what + (number == 1 ? "" : "s");
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
        throw CommandFailed(ToUtf8(path) +
                            " is not well-formed XML: `kestctl config check` says where");
    }
    auto values = nlohmann::json::object();
    std::vector<std::vector<std::string>> rows;
    for (size_t i = 0; i < kSearchElements; ++i) {
        const char* name = NameOf(static_cast<SearchElement>(i));
        values[name] = file.values[i];
        rows.push_back({name, Cell(file.values[i])});
    }
    if (arguments.json) {
        PrintJson({{"file", ToUtf8(path)}, {"values", values}});
    } else {
        std::cout << ToUtf8(path) << "\n\n";
        PrintTable({"ELEMENT", "VALUE"}, rows);
    }
    if (const size_t problems = Problems(file); problems != 0) {
        std::cerr << "kestctl: it has " << Count(problems, "problem")
                  << ": `kestctl config check` shows what is wrong\n";
    }
}

void RunCheck(const ConfigArguments& arguments) {
    const std::wstring path = PathOf(arguments);
    const SearchFile file = ReadSearchFile(path);
    const size_t problems = Problems(file);
    auto findings = nlohmann::json::array();
    for (const auto& [line, problem, text] : file.findings) {
        findings.push_back({{"line", line}, {"problem", problem}, {"text", text}});
        if (!arguments.json) {
            std::cout << "line " << line << ": " << (problem ? "" : "note: ") << text << '\n';
        }
    }
    if (arguments.json) {
        PrintJson(
            {{"file", ToUtf8(path)}, {"wellFormed", file.wellFormed}, {"findings", findings}});
    }
    if (problems != 0) {
        throw CommandFailed(ToUtf8(path) + ": " + Count(problems, "problem") +
                            (file.wellFormed ? "" : "; nothing of it is read until it is mended"));
    }
    if (!arguments.json) {
        std::cout << ToUtf8(path) << ": no problem\n";
    }
}

// Whether a search by what a printer is known by finds it; none where it has no such thing.
struct Tried {
    std::optional<bool> byMac;
    std::optional<bool> byName;

    bool WorseThan(const Tried& other) const {
        return (other.byMac.value_or(false) && !byMac.value_or(false)) ||
               (other.byName.value_or(false) && !byName.value_or(false));
    }
    bool Any() const { return byMac.value_or(false) || byName.value_or(false); }
};

bool Finds(const IPAddress& address, const std::function<Printer()>& search) {
    try {
        const Printer printer = search();
        return address == printer.GetIPAddress() || address == printer.GetOtherIPAddress();
    } catch (const CommandFailed&) {
        return false;
    }
}

// What the printer at an address is searched by: what it announces, whichever file says where.
struct Sought {
    IPAddress address;
    MacAddress mac;
    std::string hostName;
};

Tried TryOut(const Sought& sought) {
    Tried tried;
    if (sought.mac.IsValid()) {
        tried.byMac =
            Finds(sought.address, [&] { return FindPrinterByMacAddress(sought.mac, ""); });
    }
    if (!sought.hostName.empty()) {
        tried.byName =
            Finds(sought.address, [&] { return FindPrinterByHostName(sought.hostName, ""); });
    }
    return tried;
}

std::string Verdict(const std::optional<bool>& found) {
    return !found   ? "not tried: it announces none that can be used"
           : *found ? "found"
                    : "not found";
}

void PrintLearned(const LearnedSettings& learned) {
    std::vector<std::vector<std::string>> rows;
    for (size_t i = 0; i < kSearchElements; ++i) {
        const auto& [value, says, why, recognised] = learned.elements[i];
        rows.push_back(
            {NameOf(static_cast<SearchElement>(i)), Cell(value), Cell(says), Printable(why)});
    }
    PrintTable({"ELEMENT", "VALUE", "THE PRINTER SAYS", "WHY"}, rows);
    for (const std::string& remark : learned.remarks) {
        std::cout << "note: " << Printable(remark) << '\n';
    }
}

nlohmann::json ToJson(const LearnedSettings& learned) {
    auto elements = nlohmann::json::object();
    for (size_t i = 0; i < kSearchElements; ++i) {
        const auto& [value, says, why, recognised] = learned.elements[i];
        elements[NameOf(static_cast<SearchElement>(i))] = {
            {"value", value}, {"says", says}, {"why", why}, {"recognised", recognised}};
    }
    return {{"elements", elements}, {"notes", learned.remarks}};
}

// The file, written and tried out.
struct Written {
    bool changed = false;
    bool putBack = false;
    std::wstring kept;
    Tried tried;
};

Written WriteAndTry(const std::wstring& path, const SearchFile& present,
                    const SearchSettings& settings, const Sought& sought) {
    Written written;
    if (present.wellFormed && present.values == settings) {
        written.tried = TryOut(sought);
        return written;
    }
    const Tried before = present.wellFormed ? TryOut(sought) : Tried();
    written.kept = ReplaceSearchFile(path, ToXml(settings));
    written.changed = true;
    written.tried = TryOut(sought);
    if (written.tried.WorseThan(before)) {
        RestoreSearchFile(path, written.kept);
        written.putBack = true;
    }
    return written;
}

void PrintWritten(const std::wstring& path, const Written& written) {
    if (!written.changed) {
        std::cout << ToUtf8(path) << " says so already, and stays\n";
    } else if (written.putBack) {
        std::cout << "the old file found this printer better, and is back: " << ToUtf8(path)
                  << '\n';
    } else {
        std::cout << "written: " << ToUtf8(path) << '\n';
        if (!written.kept.empty()) {
            std::cout << "the old file is kept: " << ToUtf8(written.kept) << '\n';
        }
    }
    std::cout << "a search by MAC address: " << Verdict(written.tried.byMac)
              << "\na search by host name:   " << Verdict(written.tried.byName) << '\n';
}

SearchFile PresentFile(const std::wstring& path) {
    const bool there = GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
    return there ? ReadSearchFile(path) : SearchFile();
}

// The answer of which the most is recognised; of equals the first, which is version 2's, under the
// type that the file has now.
std::pair<LearnedSettings, const SearchAnswer*> Best(const std::vector<SearchAnswer>& answers,
                                                     const IPAddress& address,
                                                     const SearchSettings& present) {
    const NameResolver resolve = [](const std::string& name) {
        IPAddress found;
        StartedNetwork().GetIpAddress(system_helper::ToNarrow(ToWide(name)), found);
        return found;
    };
    std::pair<LearnedSettings, const SearchAnswer*> best;
    for (const SearchAnswer& answer : answers) {
        LearnedSettings learned = Learn(answer, address, present, resolve);
        if (best.second == nullptr || learned.Recognised() > best.first.Recognised()) {
            best = {std::move(learned), &answer};
        }
    }
    return best;
}

Sought SoughtFrom(const LearnedSettings& learned, const IPAddress& address) {
    const auto says = [&](SearchElement element) {
        return learned.elements[element].recognised ? learned.elements[element].says : "";
    };
    return {address, MacAddress(says(kMacAddrKey)), says(kHostNameKey)};
}

// The types to ask for, each once: those that were given, the file's, and the usual ones.
std::vector<std::string> ServicesToAsk(const ConfigArguments& arguments,
                                       const SearchSettings& present) {
    std::vector<std::string> services = arguments.services;
    services.push_back(present[kServiceName]);
    services.insert(services.end(), std::begin(kServices), std::end(kServices));
    std::vector<std::string> distinct;
    for (const std::string& service : services) {
        if (!service.empty() &&
            std::find(distinct.begin(), distinct.end(), service) == distinct.end()) {
            distinct.push_back(service);
        }
    }
    return distinct;
}

std::vector<SearchAnswer> Asked(const IPAddress& address,
                                const std::vector<std::string>& services) {
    std::vector<SearchAnswer> answers = AskEverything(address, services);
    if (answers.empty()) {
        throw CommandFailed(address.GetText() + " did not answer under any of " +
                            Count(services.size(), "service type") +
                            " in either version of SLP: see that SLP is turned on there, and name "
                            "its own service type, from its manual or web page, with --service");
    }
    return answers;
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

void PrintAnswers(const std::vector<SearchAnswer>& answers, const SearchAnswer* taken) {
    for (const SearchAnswer& answer : answers) {
        std::cout << (&answer == taken ? "taken:    " : "answered: ") << Printable(answer.service)
                  << " in version " << answer.version << ", "
                  << Count(answer.attributes.size(), "attribute") << '\n';
    }
    std::cout << '\n';
}

// Why a printer cannot be followed, whatever the file says; empty if it can.
std::string Obstacle(const LearnedSettings& learned, const Sought& sought) {
    if (!learned.elements[kIpAddrKey].recognised) {
        return "that printer cannot be followed: it announces its own address nowhere";
    }
    return sought.mac.IsValid() || !sought.hostName.empty()
               ? ""
               : "that printer cannot be followed: it announces neither a MAC address nor a host "
                 "name that can be used";
}

// Reports on the file that was written, as text or in the document. Throws CommandFailed unless the
// printer is found by it.
void ReportWritten(const ConfigArguments& arguments, const std::wstring& path,
                   const Written& written, nlohmann::json document) {
    if (arguments.json) {
        document["written"] = written.changed && !written.putBack;
        document["putBack"] = written.putBack;
        document["kept"] = ToUtf8(written.putBack ? L"" : written.kept);
        document["byMac"] = written.tried.byMac.value_or(false);
        document["byName"] = written.tried.byName.value_or(false);
        PrintJson(document);
    } else {
        std::cout << '\n';
        PrintWritten(path, written);
    }
    if (written.putBack) {
        throw CommandFailed("the new file found less of this printer than the old one");
    }
    if (!written.tried.Any()) {
        throw CommandFailed(
            "the search by multicast does not find that printer, although it answers at its "
            "address: see that both are in one subnet, and that multicast passes between them");
    }
}

void RunLearn(const ConfigArguments& arguments) {
    const IPAddress address = AddressOf(StartedNetwork(), arguments.address);
    const std::wstring path = PathOf(arguments);
    const SearchFile present = PresentFile(path);
    Progress progress(!arguments.json);
    progress.Show("asking in both versions");
    const std::vector<SearchAnswer> answers =
        Asked(address, ServicesToAsk(arguments, present.values));
    const auto [learned, taken] = Best(answers, address, present.values);
    const Sought sought = SoughtFrom(learned, address);
    const std::string obstacle = Obstacle(learned, sought);
    progress.Clear();

    nlohmann::json document = ToJson(learned);
    document["file"] = ToUtf8(path);
    document["address"] = address.GetText();
    document["answers"] = ToJson(answers);
    if (!arguments.json) {
        PrintAnswers(answers, taken);
        PrintLearned(learned);
    }
    if (arguments.write && obstacle.empty()) {
        progress.Show("trying");
        const Written written = WriteAndTry(path, present, learned.Settings(), sought);
        progress.Clear();
        ReportWritten(arguments, path, written, std::move(document));
        return;
    }
    if (arguments.json) {
        PrintJson(document);
    }
    if (!obstacle.empty()) {
        throw CommandFailed(obstacle + (arguments.write ? "; nothing is written" : ""));
    }
    if (!arguments.json) {
        std::cout << "nothing is written: --write puts this into " << ToUtf8(path) << '\n';
    }
}

CLI::App& AddCommand(CLI::App& group, const char* name, const char* text, const char* example,
                     const std::shared_ptr<ConfigArguments>& arguments,
                     void (*run)(const ConfigArguments&)) {
    CLI::App& command = *group.add_subcommand(name, text);
    AddExample(command, example);
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, run] { run(*arguments); });
    return command;
}

}  // namespace

void AddConfigCommands(CLI::App& app) {
    CLI::App& group = *app.add_subcommand(
        "config", "Show, check and fit SLPConf.xml, by which printers are found");
    group.require_subcommand(1);
    const auto arguments = std::make_shared<ConfigArguments>();
    AddCommand(group, "show", "Show which file is read, and what it says", "config show", arguments,
               RunShow);
    AddCommand(group, "check",
               "Say what is wrong in the file, with line numbers; exit code 1 if anything is",
               "config check --file SLPConf.new.xml", arguments, RunCheck)
        .add_option("--file", arguments->file, "Check this file, before it is installed")
        ->check(NotEmpty());
    CLI::App& learn = AddCommand(
        group, "learn",
        "Ask one printer, recognise its attributes by their values, and show what the file should "
        "say",
        "config learn 192.168.1.20 --write", arguments, RunLearn);
    learn.add_option("ADDRESS", arguments->address, "The printer's address or host name")
        ->required()
        ->check(NotEmpty());
    learn
        .add_option("--service", arguments->services,
                    "Ask for this service type, too; may be given several times")
        ->check(NotEmpty());
    learn.add_flag("--write", arguments->write,
                   "Write the file (the old one is kept beside it), try it with the search, and "
                   "put the old one back if that found the printer and the new one does not");
}
