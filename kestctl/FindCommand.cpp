// kestctl find: the printers of the network, as the monitor's own search sees them.
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "admin/ports/PortSettings.h"
#include "admin/search/PrinterSearch.h"
#include "base/Text.h"
#include "kestctl/Command.h"
#include "kestctl/FindWatch.h"
#include "kestctl/Interruption.h"
#include "kestctl/Progress.h"

namespace {

struct FindArguments {
    std::string mac;
    std::string hostName;
    std::string ip;
    std::string model;
    bool watch = false;
    bool json = false;
};

// Shows printers one by one, in columns of a fixed width (79 characters in all, for a console of
// 80): who comes next is not known yet.
class Table {
  public:
    void Add(const Printer& printer) {
        if (!headed_) {
            PrintRow("NAME", "MODEL", "ADDRESS", "MAC");
            headed_ = true;
        }
        PrintRow(printer.GetHostName(), printer.GetModelName(), printer.GetIPAddress().GetText(),
                 MacText(printer.GetMacAddress()));
    }

  private:
    static void PrintRow(const std::string& name, const std::string& model,
                         const std::string& address, const std::string& mac) {
        const auto cell = [](const std::string& text, size_t width) {
            return Padded(text.empty() ? "-" : Printable(text), width);
        };
        std::cout << cell(name, 20) << "  " << cell(model, 25) << "  " << cell(address, 16) << "  "
                  << cell(mac, 0) << std::endl;
    }

    bool headed_ = false;
};

nlohmann::json ToJson(const Printer& printer) {
    const auto address = [](const IPAddress& ip) { return ip.IsValid() ? ip.GetText() : ""; };
    return {{"hostName", printer.GetHostName()},
            {"model", printer.GetModelName()},
            {"description", printer.GetDescription()},
            {"address", address(printer.GetFirstIPAddress())},
            {"address2", address(printer.GetSecondIPAddress())},
            {"mac", MacText(printer.GetMacAddress())},
            {"deviceId", printer.GetDeviceId()}};
}

// Finds all printers, each given to `show` as it answers.
//   interruption: ends the search early.
//   withoutAddress: receives how many answered, but not with an address.
std::vector<Printer> FindAll(const std::string& model, const Interruption& interruption,
                             Progress& progress, const std::function<void(const Printer&)>& show,
                             size_t& withoutAddress) {
    using namespace std::chrono;
    std::vector<Printer> found;
    const auto begin = steady_clock::now();
    withoutAddress = FindPrinters(
        model,
        [&](const Printer& printer) {
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

Printer FindOne(const FindArguments& arguments) {
    if (!arguments.mac.empty()) {
        return FindPrinterByMacAddress(MacAddress(arguments.mac), arguments.model);
    }
    if (!arguments.hostName.empty()) {
        return FindPrinterByHostName(arguments.hostName, arguments.model);
    }
    return FindPrinterAt(arguments.ip, arguments.model);
}

// Finds one printer. Ctrl-C ends the process: the search itself cannot be stopped.
Printer FindOneOrEnd(const FindArguments& arguments, const Interruption& interruption,
                     Progress& progress) {
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
            std::to_string(withoutAddress) +
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

void RunFind(const FindArguments& arguments) {
    Table table;
    Progress progress(!arguments.json);
    const auto show = [&](const Printer& printer) {
        progress.Clear();
        if (!arguments.json) {
            table.Add(printer);
        }
    };
    const Interruption interruption;
    size_t withoutAddress = 0;
    bool interrupted = false;
    std::vector<Printer> found;
    if (arguments.mac.empty() && arguments.hostName.empty() && arguments.ip.empty()) {
        found = FindAll(arguments.model, interruption, progress, show, withoutAddress);
        interrupted = interruption.Requested();
    } else {
        progress.Show("searching");
        found.push_back(FindOneOrEnd(arguments, interruption, progress));
        show(found.front());
    }
    progress.Clear();
    if (arguments.json) {
        auto document = nlohmann::json::array();
        for (const Printer& printer : found) {
            document.push_back(ToJson(printer));
        }
        PrintJson(document);
    }
    if (interrupted) {
        throw Interrupted();
    }
    ReportIncomplete(found.empty(), withoutAddress);
}

std::string CheckWantedMac(std::string& text) {
    const std::string problem = CheckMacAddress(text);
    return problem.empty() && text.empty() ? "must not be empty" : problem;
}

}  // namespace

void AddFindCommand(CLI::App& app) {
    const auto arguments = std::make_shared<FindArguments>();
    CLI::App& command =
        *app.add_subcommand("find", "Find printers on the network, all of them or one");
    AddExample(command, "find --mac 00:04:00:4a:1b:2c");
    CLI::Option* mac =
        command.add_option("--mac", arguments->mac, "Find the printer with this hardware address");
    mac->transform(CLI::Validator(CheckWantedMac, ""));
    CLI::Option* hostName = command.add_option("--host-name", arguments->hostName,
                                               "Find the printer that announces this host name");
    CLI::Option* ip = command.add_option("--ip", arguments->ip,
                                         "Find the printer at this address, or of this name");
    hostName->check(NotEmpty());
    ip->check(NotEmpty());
    mac->excludes(hostName)->excludes(ip);
    hostName->excludes(ip);
    command
        .add_option("--model", arguments->model, "Only models like this: * any text, ? any letter")
        ->check(NotEmpty());
    command
        .add_flag(
            "--watch", arguments->watch,
            "Repeat every 5 seconds and report printers that appear, move or disappear (three "
            "rounds without an answer), until Ctrl-C or until the output is closed. With "
            "--json one document per line")
        ->excludes(mac)
        ->excludes(hostName)
        ->excludes(ip);
    AddJsonFlag(command, arguments->json);
    command.callback([arguments] {
        if (arguments->watch) {
            WatchPrinters(arguments->model, arguments->json);
        } else {
            RunFind(*arguments);
        }
    });
}
