// kestctl settings show and set: a printer's IPv4 settings, over SNMP.
#include <winsock2.h>
#include <windows.h>

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <iostream>
#include <string>

#include "admin/search/Hosts.h"
#include "admin/search/NetworkSettings.h"
#include "kestctl/Command.h"
#include "net/SnmpSession.h"

namespace {

struct SettingsArguments {
    std::string printer;
    NetworkSettings wanted;  // empty: as it is
    bool yes = false;
    bool dryRun = false;
    bool json = false;
};

constexpr char kNoWinSnmp[] =
    "this computer has no working WinSNMP (wsnmp32.dll). Run the command on Windows";

// Wine's library raises an exception in the entries that it only has the names of.
template <bool Json>
LONG WINAPI OnNoWinSnmp(EXCEPTION_POINTERS*) {
    if (Json) {
        PrintJson({{"error", kNoWinSnmp}, {"exitCode", 1}});
        std::cout.flush();
    } else {
        std::cerr << "kestctl: " << kNoWinSnmp << std::endl;
    }
    std::_Exit(1);
}

void RequireWinSnmp(bool json) {
    smiUINT32 unused[5] = {};
    const auto previous =
        SetUnhandledExceptionFilter(json ? OnNoWinSnmp<true> : OnNoWinSnmp<false>);
    const bool started =
        SnmpStartup(&unused[0], &unused[1], &unused[2], &unused[3], &unused[4]) != SNMPAPI_FAILURE;
    const HSNMP_SESSION session =
        started ? SnmpCreateSession(nullptr, 0, SnmpSession::Callback, nullptr) : nullptr;
    if (session != nullptr) {
        SnmpClose(session);
    }
    if (started) {
        SnmpCleanup();
    }
    SetUnhandledExceptionFilter(previous);
    if (session == nullptr) {
        throw CommandFailed(kNoWinSnmp);
    }
}

void ShowStep(const std::string& step) {
    if (OutputIsTerminal()) {
        std::cerr << step << "...\n";
    }
}

NetworkSettings Read(Printer& printer, const SettingsArguments& arguments) {
    StartedNetwork();
    RequireWinSnmp(arguments.json);
    return ReadSettings(printer, arguments.printer, ShowStep);
}

nlohmann::json ToJson(const NetworkSettings& settings) {
    return {{"address", settings.address}, {"mask", settings.mask}, {"gateway", settings.gateway}};
}

void RunShow(const SettingsArguments& arguments) {
    Printer printer;
    const NetworkSettings settings = Read(printer, arguments);
    if (arguments.json) {
        nlohmann::json document = ToJson(settings);
        document["method"] = printer.GetConfigMethod();
        PrintJson(document);
        return;
    }
    PrintTable({"address", settings.address},
               {{"mask", settings.mask},
                {"gateway", settings.gateway},
                {"method", std::to_string(printer.GetConfigMethod())}});
}

void ShowChanges(const NetworkSettings& before, const NetworkSettings& after, std::ostream& out) {
    const auto show = [&out](const char* name, const std::string& old, const std::string& wanted) {
        out << name << old << (old == wanted ? "" : " -> " + wanted) << '\n';
    };
    show("address  ", before.address, after.address);
    show("mask     ", before.mask, after.mask);
    show("gateway  ", before.gateway, after.gateway);
}

// Refuses wrong usage before the printer is queried.
void CheckArguments(const SettingsArguments& arguments) {
    const NetworkSettings& wanted = arguments.wanted;
    if (wanted == NetworkSettings()) {
        throw CLI::RequiredError("a setting to change");
    }
    if (!arguments.yes && !arguments.dryRun && !InputIsTerminal()) {
        throw CLI::RequiredError("--yes (there is no terminal to ask on), or --dry-run");
    }
    if (!wanted.address.empty() && !wanted.mask.empty() && !wanted.gateway.empty()) {
        if (const std::string problem = ProblemOf(wanted); !problem.empty()) {
            throw CLI::ValidationError(problem);
        }
    }
}

void PrintWritten(const std::string& printer, const NetworkSettings& after, bool answers) {
    std::cout << "written to " << printer << ": address " << after.address << ", mask "
              << after.mask << ", gateway " << after.gateway << "\nthe printer "
              << (answers ? "answers at " + after.address
                          : "does not answer at " + after.address +
                                " yet: some need a minute or a restart")
              << '\n';
}

void RunSet(const SettingsArguments& arguments) {
    CheckArguments(arguments);
    Printer printer;
    const NetworkSettings before = Read(printer, arguments);
    const NetworkSettings after = PlanSettings(before, arguments.wanted, ShowStep);
    bool answers = true;
    if (arguments.dryRun) {
        if (!arguments.json) {
            ShowChanges(before, after, std::cout);
            std::cout << "Dry run: nothing was written\n";
        }
    } else if (after == before) {
        if (!arguments.json) {
            std::cout << "no change: the printer already has these settings\n";
        }
    } else {
        if (!arguments.yes) {
            ShowChanges(before, after, std::cerr);
        }
        Confirm("Write these settings to the printer?", arguments.yes, "Nothing was written");
        answers = WriteSettings(printer, before, after, ShowStep);
        if (!arguments.json) {
            PrintWritten(before.address, after, answers);
        }
    }
    if (arguments.json) {
        nlohmann::json document = {{"before", ToJson(before)}, {"after", ToJson(after)}};
        document[arguments.dryRun ? "dryRun" : "answers"] = arguments.dryRun || answers;
        PrintJson(document);
    }
}

AddedCommand<SettingsArguments> Add(CLI::App& settings, const char* name, const char* text,
                                    const char* example, void (*run)(const SettingsArguments&)) {
    const auto added = AddCommand<SettingsArguments>(settings, name, text, example, run);
    added.command.add_option("ADDRESS", added.arguments.printer, "IPv4 address of the printer")
        ->required()
        ->transform(Checked(CheckPlainAddress));
    AddJsonFlag(added.command, added.arguments.json);
    return added;
}

}  // namespace

void AddSettingsCommands(CLI::App& app) {
    CLI::App& settings =
        AddGroup(app, "settings", "Read and write the IPv4 settings of a printer with SNMP");
    Add(settings, "show", "Show address, mask and gateway of a printer",
        "settings show 192.168.1.20", RunShow);
    const auto [set, arguments] =
        Add(settings, "set", "Change address, mask or gateway of a printer",
            "settings set 192.168.1.20 --address 192.168.1.21", RunSet);
    const auto add = [](CLI::App& to, const char* name, std::string& value, const char* text) {
        to.add_option(name, value, text)->transform(Checked(CheckPlainAddress));
    };
    add(set, "--address", arguments.wanted.address, "New address (unchanged by default)");
    add(set, "--mask", arguments.wanted.mask, "Subnet mask (unchanged by default)");
    add(set, "--gateway", arguments.wanted.gateway,
        "Default gateway, 0.0.0.0 for none (unchanged by default)");
    AddDryRunFlag(set, arguments.dryRun);
    AddYesFlag(set, arguments.yes);
}
