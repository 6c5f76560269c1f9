#include "kestctl/Output.h"

#include <winsock2.h>
#include <windows.h>
#include <winternl.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>

#include "admin/ports/PortJson.h"

namespace {

bool printedJson = false;
std::string server;  // without its backslashes; empty for this computer
bool direct = false;

// Code points, which is what a column is wide for the names that ports and printers have.
size_t Width(const std::string& text) {
    return static_cast<size_t>(std::count_if(
        text.begin(), text.end(), [](unsigned char byte) { return (byte & 0xC0) != 0x80; }));
}

void PrintRow(const Row& row, const std::vector<size_t>& widths, std::ostream& out) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
        line += Padded(row[i], widths[i]) + "  ";
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
}

bool IsTerminal(DWORD handle) {
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(handle), &mode) != FALSE;
}

// What ntdll reports of a pipe; the SDK's headers do not declare it.
struct PipeInformation {
    ULONG type, configuration, maximumInstances, currentInstances, inboundQuota, readAvailable,
        outboundQuota, writeQuota, state, end;
};
static_assert(sizeof(PipeInformation) == 40);
constexpr auto kPipeInformation = static_cast<FILE_INFORMATION_CLASS>(24);
constexpr ULONG kConnected = 3;

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

constexpr char kCheckSearch[] =
    ". Check that the printer is on, that `kestctl slp find` shows it with the attributes that "
    "SLPConf.xml names (docs/SLPConf.md), and that no firewall blocks UDP port 427";

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
            return kCheckSearch;
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

}  // namespace

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

void PrintJson(const nlohmann::json& document) {
    printedJson = true;
    std::cout << JsonText(document);
}

bool HasPrintedJson() {
    return printedJson;
}

void PrintTable(const Row& heading, const std::vector<Row>& rows, std::ostream& out) {
    std::vector<size_t> widths(heading.size());
    const auto widen = [&widths](const Row& row) {
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

bool InputIsTerminal() {
    return IsTerminal(STD_INPUT_HANDLE);
}

bool OutputIsTerminal() {
    return IsTerminal(STD_OUTPUT_HANDLE);
}

bool OutputIsClosed() {
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    if (GetFileType(output) != FILE_TYPE_PIPE) {
        return false;
    }
    IO_STATUS_BLOCK status = {};
    PipeInformation pipe = {};
    return !std::cout ||
           (NtQueryInformationFile(output, &status, &pipe, sizeof(pipe), kPipeInformation) == 0 &&
            pipe.state != kConnected);
}

std::string Bar(uint64_t done, uint64_t total) {
    constexpr size_t kWidth = 30;
    const double part = std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
    const auto filled = static_cast<size_t>(part * kWidth);
    return '[' + std::string(filled, '#') + std::string(kWidth - filled, '.') + "] " +
           std::to_string(static_cast<int>(part * 100)) + " %";
}

std::string PortsBar(size_t done, size_t all) {
    return Bar(done, all) + "  " + std::to_string(done) + " of " + Count(all, "port");
}

void Progress::Show(const std::string& text) {
    if (shown_) {
        const size_t before = std::exchange(length_, text.size());
        std::cout << '\r' << text << std::string(before > length_ ? before - length_ : 0, ' ')
                  << std::flush;
    }
}

void Progress::Clear() {
    if (const size_t length = std::exchange(length_, 0); length != 0) {
        std::cout << '\r' << std::string(length, ' ') << '\r' << std::flush;
    }
}
