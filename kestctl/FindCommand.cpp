// kestctl find: the printers of the network, as the monitor's own search sees them.
#include <winsock2.h>
#include <windows.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <functional>
#include <future>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "admin/ports/PortSettings.h"
#include "admin/search/Hosts.h"
#include "admin/search/MergedSearch.h"
#include "admin/search/Population.h"
#include "admin/search/PrinterSearch.h"
#include "base/Ascii.h"
#include "base/Text.h"
#include "kestctl/Command.h"
#include "kestctl/Interruption.h"

namespace {

struct FindArguments {
    std::string mac;
    std::string hostName;
    std::string ip;
    std::string model;
    bool slp = false;
    bool dnsSd = false;
    bool watch = false;
    bool json = false;

    // Neither of the two options, or both: both.
    SearchSources Sources() const { return {slp || !dnsSd, dnsSd || !slp}; }
};

// Shows printers one by one as they answer, in columns of a fixed width: 79 characters in all, for
// a console of 80.
class Table {
  public:
    void Add(const SearchHit& hit) {
        const Printer& printer = hit.record;
        if (!headed_) {
            PrintRow("NAME", "MODEL", "ADDRESS", "MAC", "FOUND BY");
            headed_ = true;
        }
        PrintRow(printer.GetHostName(), printer.GetModelName(), printer.GetIPAddress().GetText(),
                 MacText(printer.GetMacAddress()), SourceText(hit.identity.source));
    }

  private:
    static void PrintRow(const std::string& name, const std::string& model,
                         const std::string& address, const std::string& mac,
                         const std::string& foundBy) {
        std::cout << Padded(Cell(name), 17) << "  " << Padded(Cell(model), 19) << "  "
                  << Padded(Cell(address), 15) << "  " << Padded(Cell(mac), 12) << "  " << foundBy
                  << std::endl;
    }

    bool headed_ = false;
};

nlohmann::json ToJson(const SearchHit& hit) {
    const Printer& printer = hit.record;
    const auto address = [](const IPAddress& ip) { return ip.IsValid() ? ip.GetText() : ""; };
    return {{"hostName", printer.GetHostName()},
            {"model", printer.GetModelName()},
            {"description", printer.GetDescription()},
            {"address", address(printer.GetFirstIPAddress())},
            {"address2", address(printer.GetSecondIPAddress())},
            {"mac", MacText(printer.GetMacAddress())},
            {"deviceId", printer.GetDeviceId()},
            {"foundBy", SourceText(hit.identity.source)}};
}

// Finds all printers, each given to `show` as it answers.
//   interruption: ends the search early.
//   withoutAddress: receives how many answered, but not with an address.
std::vector<SearchHit> FindAll(const FindArguments& arguments, const Interruption& interruption,
                               Progress& progress,
                               const std::function<void(const SearchHit&)>& show,
                               size_t& withoutAddress) {
    using namespace std::chrono;
    std::vector<SearchHit> found;
    const auto begin = steady_clock::now();
    withoutAddress = FindPrinters(
        arguments.Sources(), arguments.model,
        [&](const SearchHit& printer) {
            found.push_back(printer);
            show(printer);
        },
        [&] {
            if (interruption.Requested()) {
                return false;
            }
            const auto tenths = duration_cast<milliseconds>(steady_clock::now() - begin) / 100;
            progress.Show("searching, " + std::to_string(tenths.count() / 10) + '.' +
                          std::to_string(tenths.count() % 10) + " s, " +
                          std::to_string(found.size()) + " found");
            return true;
        });
    return found;
}

Printer FindOneBySlp(const FindArguments& arguments) {
    if (!arguments.mac.empty()) {
        return FindPrinterByMacAddress(MacAddress(arguments.mac), arguments.model);
    }
    if (!arguments.hostName.empty()) {
        return FindPrinterByHostName(arguments.hostName, arguments.model);
    }
    return FindPrinterAt(arguments.ip, arguments.model);
}

SearchHit FindOne(const FindArguments& arguments) {
    const IPAddress address =
        arguments.ip.empty() ? IPAddress() : AddressOf(StartedNetwork(), arguments.ip);
    return FindPrinter(
        arguments.Sources(), [&] { return FindOneBySlp(arguments); },
        [&](const SearchHit& hit) {
            const std::string& name = hit.identity.hostName;
            return MatchesPattern(hit, arguments.model) &&
                   (!arguments.mac.empty() ? hit.identity.mac == arguments.mac
                    : !arguments.hostName.empty()
                        ? EqualsIgnoreCase(name, arguments.hostName) ||
                              EqualsIgnoreCase(name + ".local", arguments.hostName)
                        : HasAddress(hit, address));
        });
}

// Finds one printer. Ctrl-C ends the process: the search itself cannot be stopped.
SearchHit FindOneOrEnd(const FindArguments& arguments, Progress& progress) {
    const Interruption interruption;
    auto search = std::async(std::launch::async, FindOne, arguments);
    while (search.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
        if (interruption.Requested()) {
            progress.Clear();
            EndInterrupted();
        }
    }
    return search.get();
}

// Reports printers that answered without an address. Throws CommandFailed if nothing was found.
void ReportIncomplete(bool nothingFound, size_t withoutAddress) {
    if (withoutAddress != 0) {
        const std::string incomplete =
            Count(withoutAddress, "printer") +
            " answered, but without an address in the attributes that SLPConf.xml names: compare "
            "them with what `kestctl slp find` shows";
        if (nothingFound) {
            throw CommandFailed(incomplete);
        }
        std::cerr << "kestctl: " << incomplete << '\n';
    } else if (nothingFound) {
        throw CommandFailed("no printer answered", Remedy::CheckSearch);
    }
}

std::string TimeText(const char* form, const SYSTEMTIME& time) {
    char text[40];
    snprintf(text, sizeof text, form, time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute,
             time.wSecond);
    return text;
}

// Prints one event as a line.
void PrintEvent(nlohmann::json event) {
    SYSTEMTIME time;
    GetSystemTime(&time);
    event["time"] = TimeText("%04u-%02u-%02uT%02u:%02u:%02uZ", time);
    std::cout << event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
}

void PrintEventText(const std::string& event, const PrinterIdentity& identity,
                    const std::string& before) {
    SYSTEMTIME time;
    GetLocalTime(&time);
    // Without the date, which the user knows.
    std::cout << TimeText("%04u-%02u-%02u %02u:%02u:%02u", time).substr(11) << "  "
              << Padded(event, 5) << "  " << Padded(Cell(identity.hostName), 20) << "  "
              << Padded(Cell(identity.mac), 12) << "  " << Padded(SourceText(identity.source), 6)
              << "  " << Printable(identity.address)
              << (before.empty() ? "" : ", was at " + Printable(before)) << std::endl;
}

void TellEvent(bool json, Population::Event event, const SearchHit& printer,
               const std::string& before) {
    const char* const name = event == Population::Event::Came   ? "came"
                             : event == Population::Event::Went ? "went"
                                                                : "moved";
    const PrinterIdentity& identity = printer.identity;
    if (!json) {
        PrintEventText(name, identity, before);
        return;
    }
    nlohmann::json document = {{"event", name},
                               {"address", identity.address},
                               {"mac", identity.mac},
                               {"hostName", identity.hostName},
                               {"model", printer.record.GetModelName()},
                               {"foundBy", SourceText(identity.source)}};
    if (!before.empty()) {
        document["addressBefore"] = before;
    }
    PrintEvent(std::move(document));
}

std::string HereText(const Population& population) {
    return std::to_string(population.Size()) + " here";
}

void PrintSummary(const Population& population, bool json) {
    const size_t came = population.Counted(Population::Event::Came);
    const size_t went = population.Counted(Population::Event::Went);
    const size_t moved = population.Counted(Population::Event::Moved);
    if (json) {
        PrintEvent({{"event", "end"},
                    {"here", population.Size()},
                    {"came", came},
                    {"went", went},
                    {"moved", moved}});
    } else {
        std::cout << HereText(population) << " at the end; " << came << " came, " << went
                  << " went, " << moved << " moved" << std::endl;
    }
}

// Repeats the search until Ctrl-C or until its output is a closed pipe.
void RunWatch(const FindArguments& arguments) {
    const Interruption interruption;
    Progress progress(!arguments.json);
    Population population(
        [&](Population::Event event, const SearchHit& printer, const std::string& before) {
            progress.Clear();
            TellEvent(arguments.json, event, printer, before);
        });
    const auto goOn = [&] {
        progress.Show("watching, " + HereText(population));
        return !interruption.Requested() && std::cout && !OutputIsClosed();
    };
    WatchPrinters(arguments.Sources(), arguments.model, population, goOn,
                  [&progress](const CommandFailed& failed) {
                      progress.Clear();
                      std::cerr << "kestctl: this round failed: " << Explained(failed) << std::endl;
                  });
    progress.Clear();
    if (OutputIsClosed()) {
        // Not a failure to write: the reader has read all that it wants.
        static std::ostringstream discarded;
        std::cout.rdbuf(discarded.rdbuf());
        return;
    }
    PrintSummary(population, arguments.json);
}

void PrintFound(const std::vector<SearchHit>& found) {
    auto document = nlohmann::json::array();
    for (const SearchHit& printer : found) {
        document.push_back(ToJson(printer));
    }
    PrintJson(document);
}

void RunFindAll(const FindArguments& arguments) {
    Table table;
    Progress progress(!arguments.json);
    const Interruption interruption;
    size_t withoutAddress = 0;
    const std::vector<SearchHit> found = FindAll(
        arguments, interruption, progress,
        [&](const SearchHit& printer) {
            progress.Clear();
            if (!arguments.json) {
                table.Add(printer);
            }
        },
        withoutAddress);
    progress.Clear();
    if (arguments.json) {
        PrintFound(found);
    }
    if (interruption.Requested()) {
        throw Interrupted();
    }
    ReportIncomplete(found.empty(), withoutAddress);
}

void RunFindOne(const FindArguments& arguments) {
    Progress progress(!arguments.json);
    progress.Show("searching");
    const SearchHit printer = FindOneOrEnd(arguments, progress);
    progress.Clear();
    if (arguments.json) {
        PrintFound({printer});
    } else {
        Table().Add(printer);
    }
}

void RunFind(const FindArguments& arguments) {
    if (arguments.watch) {
        RunWatch(arguments);
    } else if (arguments.mac.empty() && arguments.hostName.empty() && arguments.ip.empty()) {
        RunFindAll(arguments);
    } else {
        RunFindOne(arguments);
    }
}

std::string CheckWantedMac(std::string& text) {
    const std::string problem = CheckMacAddress(text);
    return problem.empty() && text.empty() ? "must not be empty" : problem;
}

}  // namespace

void AddFindCommand(CLI::App& app) {
    const auto [command, arguments] =
        AddCommand<FindArguments>(app, "find", "Find printers on the network, all of them or one",
                                  "find --mac 00:04:00:4a:1b:2c", RunFind);
    CLI::Option* mac =
        command.add_option("--mac", arguments.mac, "MAC address of the printer to find")
            ->transform(Checked(CheckWantedMac));
    CLI::Option& hostName =
        AddText(command, "--host-name", arguments.hostName, "Host name that the printer announces");
    CLI::Option& ip =
        AddText(command, "--ip", arguments.ip, "Address or host name at which to ask the printer");
    mac->excludes(&hostName)->excludes(&ip);
    hostName.excludes(&ip);
    AddText(command, "--model", arguments.model,
            "Only printers whose model matches this pattern (* any text, ? any character)");
    command.add_flag("--slp", arguments.slp, "Search by SLP alone");
    command.add_flag("--dns-sd", arguments.dnsSd,
                     "Search by DNS-SD alone; without both options, or with both, by both");
    command
        .add_flag(
            "--watch", arguments.watch,
            "Repeat every 5 seconds and report printers that appear, move or disappear (three "
            "rounds without an answer), until Ctrl-C or until the output is closed. With "
            "--json one document per line")
        ->excludes(mac)
        ->excludes(&hostName)
        ->excludes(&ip);
    AddJsonFlag(command, arguments.json);
}
