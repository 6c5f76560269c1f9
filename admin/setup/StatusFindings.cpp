#include "admin/setup/StatusFindings.h"

#include <algorithm>
#include <optional>

#include "Version.h"
#include "admin/setup/Installation.h"
#include "base/Text.h"

namespace {

constexpr char kInstall[] = "kestctl monitor install";

Finding LibraryFinding(const InstalledLibrary& library, bool oneRelease) {
    Finding finding = {WideToUtf8(library.file.filename().native()), "not installed"};
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
    const std::string driver = WideToUtf8(status.driver);
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

std::vector<Finding> PortFindings(const MonitorStatus& status, const SetPortCommand& setPort) {
    std::vector<Finding> findings = {{"ports", std::to_string(status.ports.size())}};
    for (const StoredPort& port : status.ports) {
        const std::string what = "port " + WideToUtf8(port.name);
        const std::string set = setPort(port.name);
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
    Finding file = {"SLPConf.xml", WideToUtf8(status.configurationFile.native())};
    switch (status.configurationState) {
        case ConfigurationState::Good:
            break;
        case ConfigurationState::Missing:
            file = {file.what, "missing: no port follows its printer", kInstall, needed};
            break;
        case ConfigurationState::Unreadable:
            file = {
                file.what, "cannot be read",
                "check its permissions: icacls " + WideToUtf8(status.configurationFile.native()),
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
        Finding log = {spoolers ? "log, spooler's" : "log, yours",
                       WideToUtf8(file.native()) +
                           (bytes ? ", " + std::to_string((*bytes + 999) / 1000) + " kB"
                                  : ": no file that this user may read")};
        if (bytes.value_or(0) >= kLargeLog) {
            const std::string remove = "del \"" + WideToUtf8(file.native()) + '"';
            log.toDo = "remove it: " +
                       (spoolers ? "net stop spooler, " + remove + ", net start spooler" : remove);
        }
        findings.push_back(log);
    }
    for (const auto& [folder, count] : LeftoverJobs(machine)) {
        findings.push_back({"NPM*.tmp",
                            std::to_string(count) + " in " + WideToUtf8(folder.native()),
                            "data of jobs that no daemon accepted, unless another program created "
                            "them: check and delete them"});
    }
    return findings;
}

}  // namespace

std::vector<Finding> Findings(const MonitorStatus& status, Machine& machine,
                              const SetPortCommand& setPort) {
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
    for (const auto& part : {SpoolerFindings(status), PortFindings(status, setPort),
                             ConfigurationFindings(status), SurroundingFindings(status, machine)}) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}
