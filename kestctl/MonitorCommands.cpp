// kestctl monitor install|remove|status
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>

#include "Version.h"
#include "admin/setup/Installation.h"
#include "admin/setup/MonitorStatus.h"
#include "admin/ports/PortStore.h"
#include "base/Text.h"
#include "base/Handles.h"
#include "kestctl/Command.h"
#include "kestctl/Interruption.h"
#include "admin/ports/PortJson.h"
#include "admin/channel/DirectChannel.h"

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
            log_.open(fs::path(ToWide(arguments.log)), std::ios::app);
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
        if (arguments_.json) {
            PrintJson({{"dryRun", arguments_.options.dryRun}, {"report", lines_}});
        }
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
        if (arguments_.json) {
            PrintJson(
                {{"dryRun", arguments_.options.dryRun}, {"report", lines_}, {"error", message}});
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

void AddSetupOptions(CLI::App& command, SetupArguments& arguments, const std::string& force) {
    command.add_flag("--force", arguments.options.force, force);
    command
        .add_option("--log", arguments.log,
                    "Also append the report to this file, for an installation without a terminal")
        ->check(NotEmpty());
    AddDryRunFlag(command, arguments.options.dryRun);
    AddJsonFlag(command, arguments.json);
}

CLI::App& AddMonitorCommand(CLI::App& monitor, const std::string& name,
                            const std::string& description, const std::string& example) {
    CLI::App& command = *monitor.add_subcommand(name, description);
    AddExample(command, example);
    return command;
}

void AddInstall(CLI::App& monitor, Machine& machine) {
    CLI::App& command = AddMonitorCommand(
        monitor, "install",
        "Install or update the monitor, completely or not at all. Ports and a modified SLPConf.xml "
        "are kept",
        "monitor install");
    const auto arguments = std::make_shared<SetupArguments>();
    command
        .add_option("--from", arguments->from,
                    "Folder with the files of the release (that of this program)")
        ->check(NotEmpty());
    AddSetupOptions(command, *arguments,
                    "Also replace a newer release, and libraries that are damaged or belong to "
                    "another product");
    command.callback([arguments, &machine] {
        SetupReport(*arguments).Run([&](const Report& report) {
            const fs::path package = arguments->from.empty()
                                         ? DirectChannel::LibraryBesideProgram().parent_path()
                                         : fs::absolute(ToWide(arguments->from));
            InstallMonitor(machine, package, arguments->options, report);
        });
    });
}

// All ports as `port show --json` shows them. Throws CommandFailed unless all stored ports are
// read.
nlohmann::json StoredPortsAsJson(Machine& machine, const ChannelFactory& openChannel) {
    nlohmann::json ports = nlohmann::json::array();
    const size_t stored = StoredPorts(machine.PrintKey()).size();
    if (stored == 0) {
        return ports;
    }
    const auto channel = openChannel();
    for (const std::wstring& port : channel->PortNames()) {
        ports.push_back(ToJson(port, ReadPort(*channel, port)));
    }
    // A spooler that has not loaded the monitor knows none of them.
    if (ports.size() < stored) {
        throw CommandFailed("the print spooler knows " + std::to_string(ports.size()) + " of " +
                            std::to_string(stored) +
                            " ports, nothing was removed. Bypass it with `kestctl --direct "
                            "monitor remove --keep-ports FILE`");
    }
    return ports;
}

void WriteNewFile(const fs::path& file, const std::string& text) {
    const UniqueFile kept(CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!kept ||
        !WriteFile(kept.Get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr)) {
        throw CommandFailed(ToUtf8(file.native()) + " cannot be written, nothing was removed: " +
                            ErrorText(GetLastError()));
    }
}

// Saves the ports and, if it was modified, SLPConf.xml before they are removed. Never overwrites a
// file.
void KeepPorts(const std::string& name, Machine& machine, const ChannelFactory& openChannel,
               const Report& report) {
    const fs::path file(ToWide(name));
    const fs::path configuration(fs::path(file).replace_extension(kConfigurationFile));
    const bool keepConfiguration = HasOwnConfiguration(machine);
    for (const fs::path& path : {file, configuration}) {
        std::error_code ignored;
        if (fs::exists(path, ignored) && (path == file || keepConfiguration)) {
            throw CommandFailed(ToUtf8(path.native()) +
                                " already exists, nothing was removed. Choose another name");
        }
    }
    const nlohmann::json ports = StoredPortsAsJson(machine, openChannel);
    WriteNewFile(file, JsonText(ports));
    report(std::to_string(ports.size()) + " ports are kept in " + name);
    if (keepConfiguration) {
        const DWORD code = machine.Copy(machine.SystemFolder() / kConfigurationFile, configuration);
        if (code != ERROR_SUCCESS) {
            throw CommandFailed(ToUtf8(configuration.native()) +
                                " cannot be written, nothing was removed: " + ErrorText(code));
        }
        report("the modified SLPConf.xml is kept in " + ToUtf8(configuration.native()));
    }
}

void AddRemove(CLI::App& monitor, const ChannelFactory& openChannel, Machine& machine) {
    CLI::App& command = AddMonitorCommand(
        monitor, "remove",
        "Remove the monitor with its ports, SLPConf.xml and log. Fails while printers use its "
        "ports, and succeeds if nothing is installed",
        "monitor remove --keep-ports ports.json");
    const auto arguments = std::make_shared<SetupArguments>();
    command
        .add_option("--keep-ports", arguments->keepPorts,
                    "First write the ports to this file as JSON, and a modified SLPConf.xml to a "
                    "file beside it (ports.SLPConf.xml for ports.json)")
        ->check(NotEmpty());
    AddSetupOptions(command, *arguments,
                    "Also remove ports that printers use, and stop the spooler if necessary");
    command.callback([arguments, openChannel, &machine] {
        SetupReport(*arguments).Run([&](const Report& report) {
            CheckRemoval(machine, arguments->options.force);
            if (!arguments->keepPorts.empty() && !arguments->options.dryRun) {
                KeepPorts(arguments->keepPorts, machine, openChannel, report);
            }
            RemoveMonitor(machine, arguments->options, report);
        });
    });
}

// One line of the table.
struct Finding {
    std::string what;
    std::string state;
    std::string toDo = {};  // when it is not as it should be
    bool broken = false;    // a port would not print, or not follow its printer, for it
};

constexpr char kInstall[] = "kestctl monitor install";

Finding LibraryFinding(const InstalledLibrary& library, bool oneRelease) {
    Finding finding = {ToUtf8(library.file.filename().native()), "not installed"};
    if (library.version && library.version->ours) {
        finding.state = library.version->Text();
        if (!oneRelease) {
            finding.toDo = std::string("the files are from different releases: ") + kInstall;
        }
    } else if (library.present) {
        finding.state = "damaged, or of another product";
        finding.toDo =
            std::string("check which product it belongs to, then ") + kInstall + " --force";
        finding.broken = true;
    } else if (!library.optional) {
        finding.state = "missing";
        finding.toDo = kInstall;
        finding.broken = true;
    }
    return finding;
}

Finding ServiceFinding(ServiceState spooler) {
    switch (spooler) {
        case ServiceState::Stopped:
            return {"print spooler", "stopped", "net start spooler", true};
        case ServiceState::Disabled:
            return {"print spooler", "disabled",
                    "sc config spooler start= auto, then net start spooler", true};
        default:
            return {"print spooler", "running"};
    }
}

std::vector<Finding> SpoolerFindings(const MonitorStatus& status) {
    const std::string driver = ToUtf8(status.driver);
    std::vector<Finding> findings;
    if (driver.empty()) {
        findings.push_back({"registered", "no", kInstall, true});
    } else if (lstrcmpiW(status.driver.c_str(), kMonitorLibrary) != 0) {
        findings.push_back({"registered", "as " + driver,
                            "in the registry, at Control\\Print\\Monitors\\kestmon, set Driver to "
                            "kestmon.dll; then restart the spooler",
                            true});
    } else {
        findings.push_back({"registered", "yes"});
    }
    findings.push_back(ServiceFinding(status.spooler));
    if (!status.listed && status.spooler == ServiceState::Running) {
        findings.push_back({"loaded", "unknown: the spooler does not respond",
                            "net stop spooler, then net start spooler", true});
    } else if (!status.listed) {
        findings.push_back({"loaded", "unknown"});
    } else if (*status.listed || driver.empty()) {
        findings.push_back({"loaded", *status.listed ? "yes" : "no"});
    } else {
        findings.push_back(
            {"loaded", "no",
             "restart the spooler; if that does not help, see the reason in its events "
             "(Event Viewer, PrintService/Admin)",
             true});
    }
    return findings;
}

std::vector<Finding> PortFindings(const MonitorStatus& status) {
    std::vector<Finding> findings = {{"ports", std::to_string(status.ports.size())}};
    for (const StoredPort& port : status.ports) {
        const std::string what = "port " + ToUtf8(port.name);
        const std::string set = CommandLine("port set " + Quoted(port.name));
        if (!port.configured) {
            findings.push_back({what, "not configured: print jobs cannot start",
                                set + " --address ADDRESS", true});
        } else if (port.alwaysPrint && !port.hasKey) {
            findings.push_back(
                {what, "cannot follow its printer: no MAC address and no host name is stored",
                 set + " --follow ADDRESS", true});
        }
    }
    return findings;
}

// What a well-formed SLPConf.xml has the monitor search for.
std::vector<Finding> SearchFindings(const MonitorStatus& status, const Finding& file, bool needed) {
    const Config& values = status.configuration;
    const auto shown = [](const std::string& value) {
        return value.empty() ? std::string("(none)") : Printable(value);
    };
    Finding search = {"  search", "SLP version " + std::to_string(values.GetVersion()) + ", " +
                                      shown(values.GetServiceName()) + " at " +
                                      shown(values.GetMulticastAddress())};
    if ((values.GetVersion() != 1 && values.GetVersion() != 2) || values.GetServiceName().empty() ||
        values.GetMulticastAddress().empty()) {
        search.toDo = "fill in version, service_name and multicast_address (docs/SLPConf.md)";
        search.broken = needed;
    }
    return {file,
            search,
            {"  addresses", shown(values.GetIpAddrKey()) + ", " + shown(values.GetIpAddr2Key()) +
                                ", " + shown(values.GetMacAddrKey())},
            {"  names",
             shown(values.GetHostNameKey()) + ", " + shown(values.GetDeviceIdStringKey()) + " (" +
                 shown(values.GetModelNameKey()) + ", " + shown(values.GetDescriptionKey()) + ")"}};
}

std::vector<Finding> ConfigurationFindings(const MonitorStatus& status) {
    const bool needed = std::ranges::any_of(status.ports, &StoredPort::alwaysPrint);
    Finding file = {"SLPConf.xml", ToUtf8(status.configurationFile.native())};
    switch (status.configurationState) {
        case ConfigurationState::Good:
            break;
        case ConfigurationState::Missing:
            file = {file.what, "missing: no port follows its printer", kInstall, needed};
            break;
        case ConfigurationState::Unreadable:
            file = {file.what, "cannot be read",
                    "check its permissions: icacls " + ToUtf8(status.configurationFile.native()),
                    needed};
            break;
        case ConfigurationState::NotWellFormed:
            file = {file.what, "not well-formed XML: no port follows its printer",
                    "correct it (docs/SLPConf.md), or delete it and " + std::string(kInstall),
                    needed};
            break;
        case ConfigurationState::NotChecked:
            file.state += ", not checked without kestmon.dll";
            break;
    }
    if (status.configurationState != ConfigurationState::Good) {
        return {file};
    }
    return SearchFindings(status, file, needed);
}

std::vector<Finding> SurroundingFindings(const MonitorStatus& status, Machine& machine) {
    Finding addresses = {"searches from", ""};
    for (const std::string& address : status.addresses) {
        addresses.state += (addresses.state.empty() ? "" : ", ") + address;
    }
    if (addresses.state.empty()) {
        addresses = {addresses.what, "no address", "kestctl interfaces shows the reason"};
    }
    std::vector<Finding> findings = {addresses};
    for (const auto& [file, bytes] : status.logs) {
        const bool spoolers = &file == &status.logs.front().file;
        Finding log = {
            spoolers ? "log, spooler's" : "log, yours",
            ToUtf8(file.native()) + (bytes ? ", " + std::to_string((*bytes + 999) / 1000) + " kB"
                                           : ": no file that this user may read")};
        if (bytes.value_or(0) >= kLargeLog) {
            const std::string remove = "del \"" + ToUtf8(file.native()) + '"';
            log.toDo = "remove it: " +
                       (spoolers ? "net stop spooler, " + remove + ", net start spooler" : remove);
        }
        findings.push_back(log);
    }
    for (const auto& [folder, count] : LeftoverJobs(machine)) {
        findings.push_back({"NPM*.tmp", std::to_string(count) + " in " + ToUtf8(folder.native()),
                            "data of jobs that no daemon accepted, unless another program created "
                            "them: check and delete them"});
    }
    return findings;
}

std::vector<Finding> Findings(const MonitorStatus& status, Machine& machine) {
    std::vector<Finding> all;
    Finding self = {"kestctl", KESTMON_VERSION_STRING};
    for (const InstalledLibrary& library : status.libraries) {
        all.push_back(LibraryFinding(library, status.OneRelease()));
        if (library.version && library.version->Text() != KESTMON_VERSION_STRING) {
            self.toDo =
                "the libraries are from another release: use its kestctl, or install this one";
        }
    }
    all.insert(all.begin(), self);
    for (const auto& part : {SpoolerFindings(status), PortFindings(status),
                             ConfigurationFindings(status), SurroundingFindings(status, machine)}) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
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
        libraries.push_back({{"file", ToUtf8(library.file.native())},
                             {"present", library.present},
                             {"version", library.version ? library.version->Text() : ""}});
    }
    nlohmann::json logs = nlohmann::json::array();
    for (const auto& [file, bytes] : status.logs) {
        logs.push_back({{"file", ToUtf8(file.native())}, {"bytes", bytes.value_or(0)}});
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
            {"driver", ToUtf8(status.driver)},
            {"spoolerRuns", status.spooler == ServiceState::Running},
            {"loaded", status.listed ? nlohmann::json(*status.listed) : nlohmann::json()},
            {"ports", status.ports.size()},
            {"configuration",
             {{"file", ToUtf8(status.configurationFile.native())},
              {"good", status.configurationState == ConfigurationState::Good},
              {"version", status.configuration.GetVersion()},
              {"serviceName", status.configuration.GetServiceName()},
              {"multicastAddress", status.configuration.GetMulticastAddress()}}},
            {"addresses", status.addresses},
            {"logs", logs},
            {"problems", problems}};
}

void AddStatus(CLI::App& monitor, Machine& machine) {
    CLI::App& command = AddMonitorCommand(
        monitor, "status",
        "Check the monitor's installation and show what to do about each line marked with !. Exit "
        "code 1 if a port would not print or not follow its printer",
        "monitor status");
    const auto json = std::make_shared<bool>(false);
    AddJsonFlag(command, *json);
    command.callback([json, &machine] {
        const MonitorStatus status = ReadMonitorStatus(machine);
        const std::vector<Finding> findings = Findings(status, machine);
        if (*json) {
            PrintJson(ToJson(status, findings));
        } else {
            PrintFindings(findings);
        }
        if (std::ranges::any_of(findings, &Finding::broken)) {
            throw CommandFailed(
                "The monitor does not work completely. Follow the advice at the lines marked with "
                "!");
        }
    });
}

}  // namespace

void AddMonitorCommands(CLI::App& app, const ChannelFactory& openChannel, Machine& machine) {
    CLI::App& monitor = *app.add_subcommand("monitor", "Install, remove and check the monitor");
    monitor.require_subcommand(1);
    AddInstall(monitor, machine);
    AddRemove(monitor, openChannel, machine);
    AddStatus(monitor, machine);
}
