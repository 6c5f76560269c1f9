// kestctl monitor install|remove|status, and kestctl selftest
#include <winsock2.h>
#include <windows.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>

#include "Version.h"
#include "admin/channel/DirectChannel.h"
#include "admin/setup/Installation.h"
#include "admin/setup/MonitorStatus.h"
#include "admin/setup/PortBackup.h"
#include "admin/setup/SelfTest.h"
#include "admin/setup/StatusFindings.h"
#include "base/Text.h"
#include "kestctl/Command.h"
#include "kestctl/Interruption.h"

namespace fs = std::filesystem;

namespace {

struct SetupArguments {
    std::string from;
    std::string keepPorts;
    std::string log;
    SetupOptions options;
    bool json = false;
};

// Reports what set-up does: as text at once or as JSON at the end, and in a log file if one is
// named, for an installation without a terminal.
class SetupReport {
  public:
    // Throws CommandFailed when the log cannot be written.
    explicit SetupReport(const SetupArguments& arguments) : arguments_(arguments) {
        if (!arguments.log.empty()) {
            log_.open(fs::path(Utf8ToWide(arguments.log)), std::ios::app);
            if (!log_) {
                throw CommandFailed("the log " + arguments.log + " cannot be written");
            }
        }
    }

    // Does the work, and reports its failure in the log and in JSON, too.
    void Run(const std::function<void(const Report& report)>& work) {
        const Interruption untilDone;  // Ctrl-C must not leave the spooler stopped
        try {
            work([this](const std::string& line) { Line(line); });
        } catch (const CommandFailed& failed) {
            Fail(Explained(failed));
            throw;
        } catch (const std::exception& failed) {
            Fail(failed.what());
            throw;
        }
        Print({});
    }

  private:
    void Line(const std::string& line) {
        if (!arguments_.json) {
            std::cout << line << std::endl;  // at once: some steps take their time
        }
        lines_.push_back(line);
        Log(line);
    }

    void Fail(const std::string& message) {
        Log("failed: " + message);
        Print(message);
    }

    void Print(const std::string& failure) const {
        if (arguments_.json) {
            nlohmann::json document = {{"dryRun", arguments_.options.dryRun}, {"report", lines_}};
            if (!failure.empty()) {
                document["error"] = failure;
                document["exitCode"] = FailureCode();
            }
            PrintJson(document);
        }
    }

    void Log(const std::string& line) {
        if (log_.is_open()) {
            SYSTEMTIME now;
            GetLocalTime(&now);
            char time[32];
            snprintf(time, sizeof(time), "%04u-%02u-%02u %02u:%02u:%02u  ", now.wYear, now.wMonth,
                     now.wDay, now.wHour, now.wMinute, now.wSecond);
            log_ << time << line << std::endl;
        }
    }

    const SetupArguments& arguments_;
    std::vector<std::string> lines_;
    std::ofstream log_;
};

void AddSetupOptions(CLI::App& command, SetupArguments& arguments, const char* force) {
    command.add_flag("--force", arguments.options.force, force);
    AddText(command, "--log", arguments.log,
            "Also append the report to this file, for an installation without a terminal");
    AddDryRunFlag(command, arguments.options.dryRun);
    AddJsonFlag(command, arguments.json);
}

void RunInstall(const SetupArguments& arguments, Machine& machine) {
    SetupReport(arguments).Run([&](const Report& report) {
        const fs::path package = arguments.from.empty()
                                     ? DirectChannel::LibraryBesideProgram().parent_path()
                                     : fs::absolute(Utf8ToWide(arguments.from));
        InstallMonitor(machine, package, arguments.options, report);
    });
}

void AddInstall(CLI::App& monitor, Machine& machine) {
    const auto [command, arguments] = AddCommand<SetupArguments>(
        monitor, "install",
        "Install or update the monitor, completely or not at all. Ports and a modified SLPConf.xml "
        "are kept",
        "monitor install", [&machine](const SetupArguments& given) { RunInstall(given, machine); });
    AddText(command, "--from", arguments.from,
            "Folder with the files of the release (that of this program)");
    AddSetupOptions(command, arguments,
                    "Also replace a newer release, and libraries that are damaged or belong to "
                    "another product");
}

void RunRemove(const SetupArguments& arguments, const ChannelFactory& openChannel,
               Machine& machine) {
    SetupReport(arguments).Run([&](const Report& report) {
        CheckRemoval(machine, arguments.options.force);
        if (!arguments.keepPorts.empty() && !arguments.options.dryRun) {
            KeepPorts(arguments.keepPorts, machine, openChannel, report);
        }
        RemoveMonitor(machine, arguments.options, report);
    });
}

void AddRemove(CLI::App& monitor, const ChannelFactory& openChannel, Machine& machine) {
    const auto [command, arguments] = AddCommand<SetupArguments>(
        monitor, "remove",
        "Remove the monitor with its ports, SLPConf.xml and log. Fails while printers use its "
        "ports, and succeeds if nothing is installed",
        "monitor remove --keep-ports ports.json",
        [openChannel, &machine](const SetupArguments& given) {
            RunRemove(given, openChannel, machine);
        });
    AddText(command, "--keep-ports", arguments.keepPorts,
            "First write the ports to this file as JSON, and a modified SLPConf.xml to a "
            "file beside it (ports.SLPConf.xml for ports.json)");
    AddSetupOptions(command, arguments,
                    "Also remove ports that printers use, and stop the spooler if necessary");
}

// The advice for a line is printed below it.
void PrintFindings(const std::vector<Finding>& findings) {
    size_t width = 0;
    for (const Finding& finding : findings) {
        width = std::max(width, finding.what.size());
    }
    for (const Finding& finding : findings) {
        std::cout << (finding.toDo.empty() ? "  " : "! ") << finding.what
                  << std::string(width - finding.what.size() + 2, ' ') << finding.state << '\n';
        if (!finding.toDo.empty()) {
            std::cout << std::string(width + 4, ' ') << "-> " << finding.toDo << '\n';
        }
    }
}

nlohmann::json ToJson(const MonitorStatus& status, const std::vector<Finding>& findings) {
    nlohmann::json libraries = nlohmann::json::array();
    for (const InstalledLibrary& library : status.libraries) {
        libraries.push_back({{"file", WideToUtf8(library.file.native())},
                             {"present", library.present},
                             {"version", library.version ? library.version->Text() : ""}});
    }
    nlohmann::json logs = nlohmann::json::array();
    for (const auto& [file, bytes] : status.logs) {
        logs.push_back({{"file", WideToUtf8(file.native())}, {"bytes", bytes.value_or(0)}});
    }
    nlohmann::json problems = nlohmann::json::array();
    for (const Finding& finding : findings) {
        if (!finding.toDo.empty()) {
            problems.push_back({{"what", finding.what},
                                {"state", finding.state},
                                {"toDo", finding.toDo},
                                {"broken", finding.broken}});
        }
    }
    return {{"kestctl", KESTMON_VERSION_STRING},
            {"libraries", libraries},
            {"driver", WideToUtf8(status.driver)},
            {"spoolerRuns", status.spooler == ServiceState::Running},
            {"loaded", status.listed ? nlohmann::json(*status.listed) : nlohmann::json()},
            {"ports", status.ports.size()},
            {"configuration",
             {{"file", WideToUtf8(status.configurationFile.native())},
              {"good", status.configurationState == ConfigurationState::Good},
              {"version", status.configuration.GetVersion()},
              {"serviceName", status.configuration.GetServiceName()},
              {"multicastAddress", status.configuration.GetMulticastAddress()}}},
            {"addresses", status.addresses},
            {"logs", logs},
            {"problems", problems}};
}

struct StatusArguments {
    bool json = false;
};

void RunStatus(const StatusArguments& arguments, Machine& machine) {
    const MonitorStatus status = ReadMonitorStatus(machine);
    const std::vector<Finding> findings = Findings(status, machine, [](const std::wstring& port) {
        return CommandLine("port set " + Quoted(port));
    });
    if (arguments.json) {
        PrintJson(ToJson(status, findings));
    } else {
        PrintFindings(findings);
    }
    if (std::ranges::any_of(findings, &Finding::broken)) {
        throw CommandFailed(
            "The monitor does not work completely. Follow the advice at the lines marked with !");
    }
}

void AddStatus(CLI::App& monitor, Machine& machine) {
    const auto [command, arguments] = AddCommand<StatusArguments>(
        monitor, "status",
        "Check the monitor's installation and show what to do about each line marked with !. Exit "
        "code 1 if a port would not print or not follow its printer",
        "monitor status", [&machine](const StatusArguments& given) { RunStatus(given, machine); });
    AddJsonFlag(command, arguments.json);
}

struct SelfTestArguments {
    std::string printer;
    bool json = false;
};

void RunSelfTest(const SelfTestArguments& arguments, const ChannelFactory& openChannel,
                 bool queues) {
    const Interruption interruption;
    nlohmann::json steps = nlohmann::json::array();
    const auto report = [&](const SelfTestStep& step) {
        const bool ended = step.result == SelfTestStep::Ended;
        const char* const result = step.failure ? "FAILED" : ended ? "ended" : "ok";
        const std::string text = step.failure ? Explained(*step.failure)
                                 : ended      ? "by Ctrl-C"
                                              : step.text;
        steps.push_back({{"name", step.name}, {"result", result}, {"text", text}});
        if (!arguments.json) {
            std::cout << Padded(result, 8) << Padded(step.name, 10) << text << std::endl;
        }
    };
    const bool succeeded = RunSelfTest(openChannel,
                                       {queues, Utf8ToWide(arguments.printer),
                                        [&interruption] { return !interruption.Requested(); }},
                                       report);
    if (arguments.json) {
        PrintJson({{"succeeded", succeeded}, {"steps", steps}});
    }
    if (interruption.Requested()) {
        throw Interrupted();
    }
    if (!succeeded) {
        throw CommandFailed("the self-test failed");
    }
}

}  // namespace

void AddMonitorCommands(CLI::App& app, const ChannelFactory& openChannel, Machine& machine) {
    CLI::App& monitor = AddGroup(app, "monitor", "Install, remove and check the monitor");
    AddInstall(monitor, machine);
    AddRemove(monitor, openChannel, machine);
    AddStatus(monitor, machine);
}

void AddSelfTestCommand(CLI::App& app, const ChannelFactory& openChannel) {
    const auto [command, arguments] = AddCommand<SelfTestArguments>(
        app, "selftest",
        "Print through the monitor to a printer that kestctl simulates on this computer, with RAW "
        "and with LPR, and compare the received data",
        "selftest", [openChannel, &app](const SelfTestArguments& given) {
            RunSelfTest(given, openChannel, !IsDirect(app));
        });
    AddText(command, "--printer", arguments.printer,
            "With --direct: printer for job control (the default printer)");
    AddJsonFlag(command, arguments.json);
}
