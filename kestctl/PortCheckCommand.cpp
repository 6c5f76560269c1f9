// kestctl port check and test: are the printers where their ports send to?
#include <algorithm>
#include <iostream>
#include <map>
#include <memory>

#include "admin/ports/PortCheck.h"
#include "admin/ports/PortStore.h"
#include "admin/search/PrinterSearch.h"
#include "base/Text.h"
#include "kestctl/Command.h"
#include "kestctl/Interruption.h"
#include "kestctl/PortOptions.h"
#include "kestctl/Progress.h"

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

// A port that was checked, and what was made of it.
struct Result {
    CheckedPort port;
    bool repaired = false;
    bool wouldBeRepaired = false;  // in a dry run
    std::string failure = {};      // why it was not repaired
};

std::string StateText(PortState state) {
    switch (state) {
        case PortState::Ok:
            return "ok";
        case PortState::Unreachable:
            return "unreachable";
        case PortState::Moved:
            return "moved";
        case PortState::AnotherPrinter:
            return "another printer";
        case PortState::NotRecognised:
            return "not recognised";
        case PortState::NoConfiguration:
            return "no configuration";
        case PortState::CannotFollow:
            return "cannot follow";
        case PortState::NotConfigured:
            return "not configured";
    }
    return {};
}

// Host and TCP port, an IPv6 address in brackets.
std::string Target(const CheckedPort& port) {
    const std::string host = AddressInUse(port.records);
    return host.empty() ? "-"
                        : (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" +
                              std::to_string(port.records.standard.dwPortNumber);
}

// What is said of a port behind its state.
std::string Remark(const Result& result) {
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
    if (!result.failure.empty()) {
        add("not repaired: " + result.failure);
    }
    return text.empty() ? "-" : text;
}

nlohmann::json ToJson(const Result& result) {
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
    if (!result.failure.empty()) {
        document["error"] = result.failure;
    }
    return document;
}

// Sends the ports whose printers were found to where these are; one that fails keeps no other from
// it.
void Repair(SpoolerChannel& channel, bool dryRun, const Interruption& interruption,
            std::vector<Result>& results) {
    for (Result& result : results) {
        if (result.port.found.empty()) {
            continue;
        }
        if (result.port.records.extended.dwAlwaysPrint == 0) {
            result.failure = "the port does not follow its printer (--always-print)";
            continue;
        }
        if (interruption.Requested()) {
            result.failure = "not started because of Ctrl-C";
            continue;
        }
        if (dryRun) {
            result.wouldBeRepaired = true;
            continue;
        }
        try {
            RepairPort(channel, result.port);
            result.repaired = true;
        } catch (const CommandFailed& failed) {
            result.failure = Explained(failed);
        }
    }
}

bool IsWell(const Result& result) {
    return result.port.state == PortState::Ok || result.repaired;
}

// "300 ports: 148 ok, 2 moved (2 repaired)".
std::string Summary(const std::vector<Result>& results) {
    std::map<PortState, size_t> counts;
    size_t repaired = 0;
    for (const Result& result : results) {
        ++counts[result.port.state];
        repaired += result.repaired ? 1 : 0;
    }
    std::string text;
    for (const auto& [state, count] : counts) {
        text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + StateText(state);
    }
    return std::to_string(results.size()) + (results.size() == 1 ? " port: " : " ports: ") + text +
           (repaired == 0 ? "" : "; " + std::to_string(repaired) + " repaired");
}

void Print(const std::vector<Result>& results) {
    std::vector<std::vector<std::string>> rows;
    for (const Result& result : results) {
        rows.push_back({WideToUtf8(result.port.name), Target(result.port),
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
void Report(const CheckArguments& arguments, const std::vector<Result>& results) {
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
        results.size() - static_cast<size_t>(std::count_if(results.begin(), results.end(), IsWell));
    if (failed == 0) {
        return;
    }
    const bool found = std::any_of(results.begin(), results.end(), [](const Result& result) {
        return !result.port.found.empty() && !result.repaired;
    });
    throw CommandFailed(
        Count(failed, "port") + " did not pass the check" +
        (!arguments.repair && found
             ? ". " + RepairLine(arguments) + " changes the ports whose printer was found elsewhere"
             : ""));
}

void RunCheck(const CheckArguments& arguments, SpoolerChannel& channel,
              const CheckNetwork& network) {
    const Interruption interruption;
    Progress progress(!arguments.json);
    std::vector<Result> results;
    for (CheckedPort& port : CheckPorts(
             channel, WideNames(arguments.names), network, Timeout(arguments),
             [&](size_t done, size_t all) {
                 if (interruption.Requested()) {
                     progress.Clear();
                     EndInterrupted();  // nothing was changed yet
                 }
                 progress.Show(done < all ? Bar(done, all) + "  " + std::to_string(done) + " of " +
                                                std::to_string(all) + " ports"
                                          : "searching for the printers that did not answer");
             })) {
        results.push_back({std::move(port)});
    }
    progress.Clear();
    if (arguments.repair) {
        Repair(channel, arguments.dryRun, interruption, results);
    }
    Report(arguments, results);
}

void PrintTest(const CheckedPort& port) {
    if (port.state == PortState::NotConfigured) {
        std::cout << "port " << WideToUtf8(port.name) << ": not configured\n";
        return;
    }
    const bool connected = port.connection.error.empty();
    std::cout << "port " << WideToUtf8(port.name) << ": " << Target(port)
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

void RunTest(const CheckArguments& arguments, SpoolerChannel& channel,
             const CheckNetwork& network) {
    Progress progress(!arguments.json);
    nlohmann::json documents = nlohmann::json::array();
    std::string failures;
    for (const std::wstring& name : FindPorts(channel, WideNames(arguments.names))) {
        const PortRecords records = ReadPort(channel, name);
        progress.Show("asking " + Printable(AddressInUse(records)));
        const Result result = {TestPort(name, records, network, Timeout(arguments))};
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

void AddTimeout(CLI::App& command, double& timeout) {
    command.add_option("--timeout", timeout, "Seconds that a connection may take (3)")
        ->check(Seconds());
}

}  // namespace

void AddPortCheck(CLI::App& port, const ChannelFactory& openChannel) {
    CLI::App& check = *port.add_subcommand(
        "check",
        "Check that printers answer where their ports send to, and are still the same; search for "
        "those that are not; exit code 1 unless all are ok");
    AddExample(check, "port check \"OFFICE-*\" --repair");
    const auto checked = std::make_shared<CheckArguments>();
    AddNames(check, checked->names, "The ports, or patterns with * and ?; all if there is none");
    AddTimeout(check, checked->timeout);
    check.add_flag("--repair", checked->repair,
                   "Have ports that are to follow (--always-print) send to where their printer was "
                   "found");
    AddDryRunFlag(check, checked->dryRun);
    check.get_option("--dry-run")->needs("--repair");
    AddJsonFlag(check, checked->json);
    check.callback(
        [checked, openChannel] { RunCheck(*checked, *openChannel(), RealCheckNetwork()); });

    CLI::App& test = *port.add_subcommand(
        "test", "Connect to the printers of ports without a print job, and read their identity");
    AddExample(test, "port test OFFICE");
    const auto tested = std::make_shared<CheckArguments>();
    AddNames(test, tested->names, "Port names, or patterns with * and ?").required();
    AddTimeout(test, tested->timeout);
    AddJsonFlag(test, tested->json);
    test.callback([tested, openChannel] { RunTest(*tested, *openChannel(), RealCheckNetwork()); });
}
