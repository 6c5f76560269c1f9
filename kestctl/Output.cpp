#include "kestctl/Command.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <iterator>

#include "base/Text.h"

namespace {

bool printedJson = false;
std::string server;  // without its backslashes; empty for this computer
bool direct = false;

void PrintRow(const std::vector<std::string>& row, const std::vector<size_t>& widths,
              std::ostream& out) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
        line += Padded(row[i], widths[i]) + "  ";
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
}

// The remedy on another server where it differs from that on this computer; else empty.
std::string RemedyOnServer(Remedy remedy) {
    switch (server.empty() ? Remedy::None : remedy) {
        case Remedy::RunAsAdministrator:
            return ". Run kestctl with an account that may manage the print server " + server;
        case Remedy::StartSpooler:
            return ". Check that " + server +
                   " is the right name, that its service Print Spooler is running, and that no "
                   "firewall blocks the connection";
        case Remedy::InstallMonitor:
            return ". Install the monitor with `kestctl monitor install` on " + server;
        case Remedy::AddPrinter:
            return ". Add a printer for the port (Windows: Add-Printer -ComputerName " + server +
                   " -PortName)";
        default:
            return {};
    }
}

// The remedy for a failure that is about the port `port`, as a sentence.
std::string RemedyText(Remedy remedy, const std::string& port) {
    switch (remedy) {
        case Remedy::RunAsAdministrator:
            return ". Run kestctl as administrator";
        case Remedy::StartSpooler:
            return ". Start the print spooler: net start spooler";
        case Remedy::InstallMonitor:
            return ". Install the monitor with `kestctl monitor install`, or bypass the spooler "
                   "with --direct";
        case Remedy::ListPorts:
            return ". " + Advised("port list") + " shows the existing ports";
        case Remedy::ListStandardPorts:
            return ". " + Advised("port migrate --dry-run") + " shows the existing ports";
        case Remedy::ChangePort:
            return ". " + Advised("port set " + port + " ...") + " changes it";
        case Remedy::ConfigurePort:
            return ". Configure it with " + Advised("port set " + port);
        case Remedy::ShowPort:
            return ". Check its settings with " + Advised("port show " + port);
        case Remedy::DeletePort:
            return ". Delete it with " + Advised("port delete " + port);
        case Remedy::MovePrinter:
            return ". Move the printer to another port first";
        case Remedy::AddPrinter:
            return ". Add a printer for the port (Windows: Add-Printer -PortName), or send "
                   "without a printer with --direct";
        case Remedy::CheckSearch:
            return ". Check that the printer is on, that `kestctl slp find` shows it with the "
                   "attributes that SLPConf.xml names (docs/SLPConf.md), and that no firewall "
                   "blocks UDP port 427";
        case Remedy::UnpackRelease:
            return ". Unpack the whole archive into a folder of its own, and run kestctl from "
                   "there or name the folder with --from";
        case Remedy::Force:
            return ". To do it anyway, add --force";
        case Remedy::MoveQueues:
            return ". Move them to other ports, or remove the monitor anyway with --force";
        default:
            return {};
    }
}

// The same document with the member "name" before the others, which are sorted.
nlohmann::ordered_json NameFirst(const nlohmann::json& document) {
    if (document.is_array()) {
        auto list = nlohmann::ordered_json::array();
        std::transform(document.begin(), document.end(), std::back_inserter(list), NameFirst);
        return list;
    }
    if (!document.is_object()) {
        return document;
    }
    auto object = nlohmann::ordered_json::object();
    if (const auto name = document.find("name"); name != document.end()) {
        object["name"] = NameFirst(*name);
    }
    for (const auto& [key, value] : document.items()) {
        object.emplace(key, NameFirst(value));
    }
    return object;
}

}  // namespace

// Code points, which is what a column is wide for the names that ports and printers have.
size_t Width(const std::string& text) {
    return static_cast<size_t>(std::count_if(
        text.begin(), text.end(), [](unsigned char byte) { return (byte & 0xC0) != 0x80; }));
}

std::string Padded(std::string text, size_t width) {
    return text.append(width - std::min(width, Width(text)), ' ');
}

std::string Quoted(const std::wstring& name) {
    const std::string text = WideToUtf8(name);
    return text.find(' ') == std::string::npos ? text : '"' + text + '"';
}

void SpeakOfServer(const std::string& name) {
    server = name.substr(name.find_first_not_of('\\'));
}

void SpeakOfDirect() {
    direct = true;
}

std::string CommandLine(const std::string& arguments) {
    return "kestctl " + (server.empty() ? "" : "--server " + server + " ") +
           (direct ? "--direct " : "") + arguments;
}

std::string Advised(const std::string& arguments) {
    return "`" + CommandLine(arguments) + "`";
}

std::string Explained(const CommandFailed& failed) {
    const std::string onServer = RemedyOnServer(failed.remedy);
    return failed.what() +
           (onServer.empty() ? RemedyText(failed.remedy, Quoted(failed.subject)) : onServer);
}

void AddJsonFlag(CLI::App& command, bool& wanted) {
    command.add_flag("--json", wanted, "Print JSON instead of text");
}

void PrintJson(const nlohmann::json& document) {
    printedJson = true;
    std::cout << JsonText(document);
}

std::string JsonText(const nlohmann::json& document) {
    return NameFirst(document).dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
}

bool HasPrintedJson() {
    return printedJson;
}

void PrintTable(const std::vector<std::string>& heading,
                const std::vector<std::vector<std::string>>& rows, std::ostream& out) {
    std::vector<size_t> widths(heading.size());
    const auto widen = [&widths](const std::vector<std::string>& row) {
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], Width(row[i]));
        }
    };
    widen(heading);
    std::for_each(rows.begin(), rows.end(), widen);
    PrintRow(heading, widths, out);
    for (const auto& row : rows) {
        PrintRow(row, widths, out);
    }
}

std::string Cell(const std::string& text) {
    return text.empty() ? "-" : Printable(text);
}

std::string Count(size_t number, const std::string& what) {
    return std::to_string(number) + ' ' + what + (number == 1 ? "" : "s");
}

void AddExample(CLI::App& command, const std::string& line) {
    command.footer("Example:\n  kestctl " + line);
}

CLI::Validator NotEmpty() {
    return CLI::Validator(
        [](std::string& text) { return text.empty() ? "must not be empty" : std::string(); }, "");
}

CLI::Validator Seconds() {
    return CLI::Validator(
        [](std::string& text) {
            char* end = nullptr;
            const double value = strtod(text.c_str(), &end);
            const bool fits = *end == '\0' && value >= 0.1 && value <= 60;
            return fits ? "" : "'" + text + "' is not a number of seconds from 0.1 to 60";
        },
        "");
}

std::string Examples(const CLI::App& app) {
    std::string text;
    for (const CLI::App* command : app.get_subcommands(nullptr)) {
        const std::string footer = command->get_footer();
        text += Examples(*command);
        if (const size_t line = footer.find('\n'); line != std::string::npos) {
            text += footer.substr(line);
        }
    }
    return text;
}

bool InputIsTerminal() {
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_INPUT_HANDLE), &mode) != FALSE;
}

void Confirm(const std::string& question, bool yes, const std::string& refusal) {
    if (yes) {
        return;
    }
    if (!InputIsTerminal()) {
        throw CLI::RequiredError("--yes (there is no terminal to ask on), or --dry-run");
    }
    std::cout.flush();
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer.empty() || (answer[0] != 'y' && answer[0] != 'Y')) {
        throw CommandFailed(refusal);
    }
}

void AddDryRunFlag(CLI::App& command, bool& wanted) {
    command.add_flag("--dry-run", wanted, "Show what would be done, and change nothing");
}

void AddYesFlag(CLI::App& command, bool& wanted) {
    command.add_flag("--yes", wanted, "Do not ask for confirmation");
}

bool OutputIsTerminal() {
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != FALSE;
}
