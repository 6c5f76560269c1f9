#include "tools/kestctl/Command.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>

#include "admin/Text.h"

namespace {

bool printedJson = false;
std::string server;  // without its backslashes; empty for this computer

void PrintRow(const std::vector<std::string>& row, const std::vector<size_t>& widths,
              std::ostream& out) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
        line += Padded(row[i], widths[i]) + "  ";
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
}

// What helps on another server in another way than on this computer; empty where nothing does.
std::string RemedyOnServer(Remedy remedy) {
    switch (server.empty() ? Remedy::None : remedy) {
        case Remedy::RunAsAdministrator:
            return "; run kestctl as somebody who may manage the print server " + server;
        case Remedy::StartSpooler:
            return "; see that " + server +
                   " is the right name, that its service Print Spooler runs, and that no firewall "
                   "is in between";
        case Remedy::InstallMonitor:
            return "; install the monitor with `kestctl monitor install` on " + server;
        case Remedy::AddPrinter:
            return ": add one that does (Windows: Add-Printer -ComputerName " + server +
                   " -PortName)";
        default:
            return {};
    }
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
    const std::string text = ToUtf8(name);
    return text.find(' ') == std::string::npos ? text : '"' + text + '"';
}

void SpeakOfServer(const std::string& name) {
    server = name.substr(name.find_first_not_of('\\'));
}

std::string Advised(const std::string& arguments) {
    return "`kestctl " + (server.empty() ? "" : "--server " + server + " ") + arguments + "`";
}

std::string Explained(const CommandFailed& failed) {
    const std::string message = failed.what();
    const std::string port = Quoted(failed.subject);
    if (const std::string there = RemedyOnServer(failed.remedy); !there.empty()) {
        return message + there;
    }
    switch (failed.remedy) {
        case Remedy::None:
        case Remedy::ChooseName:
            break;
        case Remedy::RunAsAdministrator:
            return message + "; run kestctl as administrator";
        case Remedy::StartSpooler:
            return message + "; start its service: net start spooler";
        case Remedy::InstallMonitor:
            return message +
                   "; install the monitor with `kestctl monitor install`, or go without: --direct";
        case Remedy::ListPorts:
            return message + ": " + Advised("port list") + " shows those there are";
        case Remedy::ChangePort:
            return message + ": " + Advised("port set " + port + " ...") + " changes it";
        case Remedy::ShowPort:
            return message + "; look at it with " + Advised("port show " + port);
        case Remedy::DeletePort:
            return message + ": try " + Advised("port delete " + port);
        case Remedy::MovePrinter:
            return message + ": move the printer to another port first";
        case Remedy::AddPrinter:
            return message +
                   ": add one that does (Windows: Add-Printer -PortName), or send without one: "
                   "--direct";
        case Remedy::CheckSearch:
            return message +
                   ": check that it is on, that `kestctl slp find` shows it with the attributes "
                   "that SLPConf.xml names (docs/SLPConf.md explains how), and that no firewall "
                   "keeps UDP port 427 from it";
        case Remedy::UnpackRelease:
            return message +
                   ": unpack the whole archive into a folder of its own, and run kestctl from "
                   "there "
                   "or name the folder with --from";
        case Remedy::Force:
            return message + "; --force does it all the same";
        case Remedy::MoveQueues:
            return message + ": move them to other ports, or remove it all the same with --force";
    }
    return message;
}

void AddJsonFlag(CLI::App& command, bool& wanted) {
    command.add_flag("--json", wanted, "Print JSON instead of text");
}

void PrintJson(const nlohmann::json& document) {
    printedJson = true;
    std::cout << document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
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
            return fits ? "" : "'" + text + "' is no number of seconds from 0.1 to 60";
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

bool IsConfirmed(const std::string& question) {
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return !answer.empty() && (answer[0] == 'y' || answer[0] == 'Y');
}

bool OutputIsTerminal() {
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != FALSE;
}
