// kestctl port check and test: whether the printers answer where their ports send to.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>

#include "admin/ports/PortCheck.h"
#include "admin/ports/PortRepair.h"
#include "admin/ports/PortStore.h"
#include "admin/search/PrinterSearch.h"
#include "base/Text.h"
#include "kestctl/Interruption.h"
#include "kestctl/PortOptions.h"

namespace {

struct CheckArguments {
    std::vector<std::string> names;
    double timeout = 3;  // seconds
    bool repair = false;
    bool dryRun = false;
    bool json = false;
};

std::chrono::milliseconds Timeout(const CheckArguments& arguments) {
    return std::chrono::milliseconds(static_cast<int>(arguments.timeout * 1000));
}

std::string Remark(const RepairResult& result) {
    std::string text = result.port.detail;
    const auto add = [&text](const std::string& more) {
        text += (text.empty() ? "" : "; ") + more;
    };
    if (!result.port.found.empty()) {
        add((result.repaired          ? "now sends to "
             : result.wouldBeRepaired ? "would send to "
                                      : "found at ") +
            result.port.found);
    }
    if (result.failure) {
        add("not repaired: " + Explained(*result.failure));
    }
    return text.empty() ? "-" : text;
}

nlohmann::json ToJson(const RepairResult& result) {
    const CheckedPort& port = result.port;
    nlohmann::json document = {{"name", WideToUtf8(port.name)},
                               {"address", AddressInUse(port.records)},
                               {"portNumber", port.records.standard.dwPortNumber},
                               {"state", StateText(port.state)},
                               {"milliseconds", port.connection.took.count()},
                               {"mac", port.printer.mac},
                               {"hostName", port.printer.hostName},
                               {"found", port.found},
                               {"repaired", result.repaired},
                               {"detail", port.detail}};
    if (result.wouldBeRepaired) {
        document["dryRun"] = true;
    }
    if (result.failure) {
        document["error"] = Explained(*result.failure);
    }
    return document;
}

// "300 ports: 148 ok, 2 moved; 2 repaired".
std::string Summary(const std::vector<RepairResult>& results) {
    std::map<PortState, size_t> counts;
    size_t repaired = 0;
    for (const RepairResult& result : results) {
        ++counts[result.port.state];
        repaired += result.repaired ? 1 : 0;
    }
    std::string text;
    for (const auto& [state, count] : counts) {
        text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + StateText(state);
    }
    return Count(results.size(), "port") + ": " + text +
           (repaired == 0 ? "" : "; " + std::to_string(repaired) + " repaired");
}

void Print(const std::vector<RepairResult>& results) {
    std::vector<Row> rows;
    for (const RepairResult& result : results) {
        rows.push_back({WideToUtf8(result.port.name), TargetText(result.port),
                        StateText(result.port.state), Remark(result)});
    }
    PrintTable({"PORT", "ADDRESS", "STATE", "REMARK"}, rows);
    std::cout << Summary(results) << '\n';
}

// The command line that repairs the checked ports.
std::string RepairLine(const CheckArguments& arguments) {
    std::string line = "port check ";
    for (const std::string& name : arguments.names) {
        line += Quoted(Utf8ToWide(name)) + ' ';
    }
    return Advised(line + "--repair");
}

// Throws CommandFailed unless all ports are ok.
void Report(const CheckArguments& arguments, const std::vector<RepairResult>& results) {
    if (arguments.json) {
        nlohmann::json documents = nlohmann::json::array();
        std::transform(results.begin(), results.end(), std::back_inserter(documents), ToJson);
        PrintJson(documents);
    } else if (results.empty()) {
        std::cout << "There are no ports. Add one with " << Advised("port add") << '\n';
    } else {
        Print(results);
    }
    const auto failed =
        results.size() - static_cast<size_t>(std::ranges::count_if(results, &RepairResult::IsWell));
    if (failed == 0) {
        return;
    }
    const bool found = std::ranges::any_of(results, [](const RepairResult& result) {
        return !result.port.found.empty() && !result.repaired;
    });
    throw CommandFailed(
        Count(failed, "port") + " did not pass the check" +
        (!arguments.repair && found
             ? ". " + RepairLine(arguments) + " changes the ports whose printer was found elsewhere"
             : ""));
}

// Ctrl-C ends the process during the check, which changes nothing, and between two repairs.
void RunCheck(const CheckArguments& arguments, SpoolerChannel& channel) {
    const Interruption interruption;
    Progress progress(!arguments.json);
    const auto tell = [&](size_t done, size_t all) {
        if (interruption.Requested()) {
            progress.Clear();
            EndInterrupted();
        }
        progress.Show(done < all ? PortsBar(done, all)
                                 : "searching for the printers that did not answer");
    };
    std::vector<RepairResult> results;
    for (CheckedPort& port : CheckPorts(channel, WideNames(arguments.names), RealCheckNetwork(),
                                        Timeout(arguments), tell)) {
        results.push_back({std::move(port)});
    }
    progress.Clear();
    if (arguments.repair) {
        const auto goOn = [&interruption] { return !interruption.Requested(); };
        RepairPorts(channel, arguments.dryRun, goOn, results);
    }
    Report(arguments, results);
}

void PrintTest(const CheckedPort& port) {
    if (port.state == PortState::NotConfigured) {
        std::cout << "port " << WideToUtf8(port.name) << ": not configured\n";
        return;
    }
    const bool connected = port.connection.error.empty();
    std::cout << "port " << WideToUtf8(port.name) << ": " << TargetText(port)
              << (connected ? " accepts connections, after " : " accepts no connection, after ")
              << port.connection.took.count() << " ms"
              << (connected ? "" : ": " + port.connection.error) << '\n';
    if (!IdentityText(port.printer).empty()) {
        std::cout << "printer there: " << IdentityText(port.printer)
                  << (port.state == PortState::AnotherPrinter ? ", not the port's printer" : "")
                  << '\n';
    } else if (connected) {
        std::cout << "printer there: unknown"
                  << (port.state == PortState::NoConfiguration ? ": " : ", it ")
                  << (port.detail.empty() ? "reports neither MAC address nor host name"
                                          : port.detail)
                  << '\n';
    }
    if (port.state == PortState::NotRecognised && !IdentityText(port.printer).empty() &&
        !port.detail.empty()) {
        std::cout << "not recognised: the printer " << port.detail << '\n';
    }
    if (port.state == PortState::CannotFollow) {
        std::cout << "the port " << port.detail << '\n';
    }
}

void RunTest(const CheckArguments& arguments, SpoolerChannel& channel) {
    const CheckNetwork network = RealCheckNetwork();
    Progress progress(!arguments.json);
    nlohmann::json documents = nlohmann::json::array();
    std::string failures;
    for (const std::wstring& name : FindPorts(channel, WideNames(arguments.names))) {
        const PortRecords records = ReadPort(channel, name);
        progress.Show("asking " + Printable(AddressInUse(records)));
        const RepairResult result = {TestPort(name, records, network, Timeout(arguments))};
        progress.Clear();
        documents.push_back(ToJson(result));
        if (!arguments.json) {
            PrintTest(result.port);
        }
        if (result.port.state != PortState::Ok) {
            failures += (failures.empty() ? "port " : "; port ") + WideToUtf8(name) + ": " +
                        StateText(result.port.state);
        }
    }
    if (arguments.json) {
        PrintJson(IsOneName(arguments.names) ? documents[0] : documents);
    }
    if (!failures.empty()) {
        throw CommandFailed(failures);
    }
}

std::string CheckSeconds(std::string& text) {
    char* end = nullptr;
    const double value = strtod(text.c_str(), &end);
    const bool fits = *end == '\0' && value >= 0.1 && value <= 60;
    return fits ? "" : "'" + text + "' is not a number of seconds from 0.1 to 60";
}

void AddTimeout(CLI::App& command, double& timeout) {
    command.add_option("--timeout", timeout, "Seconds that a connection may take (3)")
        ->check(Checked(CheckSeconds));
}

}  // namespace

void AddPortCheck(CLI::App& port, const ChannelFactory& openChannel) {
    const auto [check, checked] = AddCommand<CheckArguments>(
        port, "check",
        "Check that printers answer where their ports send to, and are still the same; search for "
        "those that are not; exit code 1 unless all are ok",
        "port check \"OFFICE-*\" --repair",
        [openChannel](const CheckArguments& given) { RunCheck(given, *openChannel()); });
    AddNames(check, checked.names, "Port names, or patterns with * and ?; all by default");
    AddTimeout(check, checked.timeout);
    CLI::Option* repair =
        check.add_flag("--repair", checked.repair,
                       "Change ports with --always-print, and those of printers without SLP, to "
                       "the address where the printer was found");
    AddDryRunFlag(check, checked.dryRun);
    check.get_option("--dry-run")->needs(repair);
    AddJsonFlag(check, checked.json);

    const auto [test, tested] = AddCommand<CheckArguments>(
        port, "test",
        "Connect to the printers of ports without a print job, and read their identity",
        "port test OFFICE",
        [openChannel](const CheckArguments& given) { RunTest(given, *openChannel()); });
    AddNames(test, tested.names).required();
    AddTimeout(test, tested.timeout);
    AddJsonFlag(test, tested.json);
}
