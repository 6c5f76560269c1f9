// kestctl find: the printers of the network, as the monitor's own search sees them.
#include <winsock2.h>
#include <windows.h>

#include <chrono>
#include <condition_variable>
#include <iomanip>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tools/kestctl/Command.h"
#include "admin/Hosts.h"
#include "admin/PortSettings.h"
#include "admin/PrinterSearch.h"
#include "admin/Text.h"

namespace {

struct FindArguments {
    std::string mac;
    std::string hostName;
    std::string ip;
    std::string model;
    bool json = false;
};

// Shows printers one by one, in columns of a fixed width (79 characters in all, for a console of
// 80): who comes next is not known yet.
class Table {
  public:
    void Add(const Printer& printer) {
        ClearProgress();
        if (!headed_) {
            PrintRow("NAME", "MODEL", "ADDRESS", "MAC");
            headed_ = true;
        }
        const auto& mac = printer.GetMacAddress();
        PrintRow(printer.GetHostName(), printer.GetModelName(), printer.GetIPAddress().GetText(),
                 mac.IsValid() ? mac.GetText() : "");
    }

    // What is going on, on a line that goes away again; for terminals.
    void Progress(const std::string& text) {
        std::cout << '\r' << std::left << std::setw(kProgressWidth) << text << std::flush;
        progress_ = true;
    }
    void ClearProgress() {
        if (std::exchange(progress_, false)) {
            std::cout << '\r' << std::string(kProgressWidth, ' ') << '\r';
        }
    }

  private:
    static constexpr int kProgressWidth = 40;

    static void PrintRow(const std::string& name, const std::string& model,
                         const std::string& address, const std::string& mac) {
        const auto cell = [](const std::string& text) {
            return text.empty() ? "-" : Printable(text);
        };
        std::cout << std::left << std::setw(20) << cell(name) << "  " << std::setw(25)
                  << cell(model) << "  " << std::setw(16) << cell(address) << "  " << cell(mac)
                  << std::endl;
    }

    bool headed_ = false;
    bool progress_ = false;
};

nlohmann::json ToJson(const Printer& printer) {
    const auto address = [](const IPAddress& ip) { return ip.IsValid() ? ip.GetText() : ""; };
    const auto& mac = printer.GetMacAddress();
    return {{"name", printer.GetHostName()},
            {"model", printer.GetModelName()},
            {"description", printer.GetDescription()},
            {"address", address(printer.GetFirstIPAddress())},
            {"address2", address(printer.GetSecondIPAddress())},
            {"mac", mac.IsValid() ? mac.GetText() : ""},
            {"deviceId", printer.GetDeviceId()}};
}

// What arrives on the search's thread, for the command's own.
struct Arrivals {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Printer> printers;
    bool over = false;

    static void Ended(int32_t, void* arrivals) {
        auto* self = static_cast<Arrivals*>(arrivals);
        const std::lock_guard lock(self->mutex);
        self->over = true;
        self->changed.notify_one();
    }
    void Add(const Printer& printer) {
        const std::lock_guard lock(mutex);
        printers.push_back(printer);
        changed.notify_one();
    }
};

// Ends a search for all printers, whatever happens.
class SearchEnd {
  public:
    explicit SearchEnd(PrinterDiscovery& search) : search_(search) {}
    ~SearchEnd() { search_.EndAllPrinterDiscovery(); }
    SearchEnd(const SearchEnd&) = delete;
    SearchEnd& operator=(const SearchEnd&) = delete;

  private:
    PrinterDiscovery& search_;
};

// Finds all printers, shown as they answer, unless as JSON.
//   withoutAddress: receives how many answered, but not with an address.
std::vector<Printer> FindAll(PrinterDiscovery& search, bool json, size_t& withoutAddress) {
    using namespace std::chrono;
    Arrivals arrivals;
    search.SetFoundCallback([&arrivals](const Printer& printer) { arrivals.Add(printer); });
    if (!search.InitAllPrinterDiscovery()) {
        throw CommandFailed("the search cannot be begun: the log says why");
    }
    const SearchEnd end(search);
    if (!search.SearchForAllPrinterWithModelName(Arrivals::Ended, &arrivals)) {
        throw CommandFailed(
            "the search cannot be begun: check service name, multicast address and version in "
            "SLPConf.xml, and with `kestctl interfaces` that there is a network");
    }

    Table table;
    std::vector<Printer> found;
    const bool progress = !json && OutputIsTerminal();
    const auto begin = steady_clock::now();
    for (bool over = false; !over;) {
        std::vector<Printer> news;
        {
            std::unique_lock lock(arrivals.mutex);
            arrivals.changed.wait_for(lock, milliseconds(200), [&arrivals] {
                return arrivals.over || !arrivals.printers.empty();
            });
            news.swap(arrivals.printers);
            over = arrivals.over;
        }
        for (const Printer& printer : news) {
            if (!printer.IsValid()) {
                ++withoutAddress;
                continue;
            }
            found.push_back(printer);
            if (!json) {
                table.Add(printer);
            }
        }
        if (progress) {
            const auto tenths = duration_cast<milliseconds>(steady_clock::now() - begin) / 100;
            table.Progress("searching, " + std::to_string(tenths.count() / 10) + '.' +
                           std::to_string(tenths.count() % 10) + " s, " +
                           std::to_string(found.size()) + " found");
        }
    }
    table.ClearProgress();
    return found;
}

//   withoutAddress: receives whether it answered, but not with an address.
std::vector<Printer> FindOne(PrinterDiscovery& search, const FindArguments& arguments,
                             size_t& withoutAddress) {
    Table table;
    if (!arguments.json && OutputIsTerminal()) {
        table.Progress("searching");
    }
    Printer printer;
    const bool found =
        !arguments.mac.empty() ? search.FindPrinterByMacAddress(MacAddress(arguments.mac), printer)
        : !arguments.hostName.empty()
            ? search.FindPrinterByHostName(arguments.hostName, printer)
            : search.FindPrinterByIPAddress(AddressOf(StartedNetwork(), arguments.ip), printer);
    table.ClearProgress();
    if (!found || !printer.IsValid()) {
        withoutAddress = found ? 1 : 0;
        return {};
    }
    if (!arguments.json) {
        table.Add(printer);
    }
    return {printer};
}

void RunFind(const FindArguments& arguments) {
    StartedNetwork();
    PrinterDiscovery search;
    SetUpSearch(search, arguments.model);

    const bool one = !arguments.mac.empty() || !arguments.hostName.empty() || !arguments.ip.empty();
    size_t withoutAddress = 0;
    const std::vector<Printer> found = one ? FindOne(search, arguments, withoutAddress)
                                           : FindAll(search, arguments.json, withoutAddress);
    if (arguments.json) {
        auto document = nlohmann::json::array();
        for (const Printer& printer : found) {
            document.push_back(ToJson(printer));
        }
        PrintJson(document);
    }
    const std::string incomplete =
        std::to_string(withoutAddress) +
        " answered, but without an address in the attributes that SLPConf.xml names: compare them "
        "with what `kestctl slp find` shows";
    if (!found.empty()) {
        if (withoutAddress != 0) {
            std::cerr << "kestctl: " << incomplete << '\n';
        }
        return;
    }
    if (withoutAddress != 0) {
        throw CommandFailed(incomplete);
    }
    throw CommandFailed(one ? "that printer did not answer" : "no printer answered",
                        Remedy::CheckSearch);
}

}  // namespace

void AddFindCommand(CLI::App& app) {
    const auto arguments = std::make_shared<FindArguments>();
    CLI::App& command =
        *app.add_subcommand("find", "Find printers on the network, all of them or one");
    AddExample(command, "find --mac 00:04:00:4a:1b:2c");
    CLI::Option* mac =
        command.add_option("--mac", arguments->mac, "Find the printer with this hardware address");
    mac->transform(CLI::Validator(
        [](std::string& text) {
            const std::string problem = CheckMacAddress(text);
            return problem.empty() && text.empty() ? std::string("which one?") : problem;
        },
        ""));
    CLI::Option* hostName = command.add_option("--host-name", arguments->hostName,
                                               "Find the printer that announces this host name");
    CLI::Option* ip = command.add_option(
        "--ip", arguments->ip, "Ask the printer at this address, or of this name, who it is");
    hostName->check(NotEmpty());
    ip->check(NotEmpty());
    mac->excludes(hostName)->excludes(ip);
    hostName->excludes(ip);
    command
        .add_option("--model", arguments->model,
                    "Only models that match this pattern: * for any characters, ? for one")
        ->check(NotEmpty());
    AddJsonFlag(command, arguments->json);
    command.callback([arguments] { RunFind(*arguments); });
}
