#include <algorithm>
#include <iterator>

#include "base/CommandFailed.h"
#include "admin/setup/Installation.h"
#include "admin/channel/MonitorKey.h"
#include "admin/setup/PackageFiles.h"
#include "admin/ports/PortStore.h"
#include "admin/setup/SetupSteps.h"
#include "base/Text.h"

namespace fs = std::filesystem;

namespace {

void Unregister(Machine& machine, bool force, const Report& report) {
    bool listed = false;
    if (machine.SpoolerState() == ServiceState::Running) {
        Require(machine.ListsMonitor(listed), "the print spooler does not list its monitors");
    }
    SpoolerPause pause(machine, report);
    if (listed) {
        const DWORD code = machine.DeleteFromSpooler();
        if (code != ERROR_SUCCESS && !force) {
            throw CommandFailed(
                "the print spooler does not let go of the monitor, nothing was "
                "removed: " +
                    ErrorText(code),
                Remedy::Force);
        }
        if (code != ERROR_SUCCESS) {
            report("the print spooler does not let go of the monitor: " + ErrorText(code));
            try {
                pause.Stop();
            } catch (const CommandFailed& failed) {
                const DWORD resumed = pause.Resume();
                throw CommandFailed(
                    failed.what() + std::string("; nothing was removed") +
                    (resumed == ERROR_SUCCESS
                         ? ""
                         : ", and the print spooler does not start again: " + ErrorText(resumed)));
            }
        }
    }
    const DWORD unregistered =
        MonitorKeyExists(machine.PrintKey()) ? machine.Unregister(false) : ERROR_SUCCESS;
    Require(pause.Resume(), "the print spooler does not start again");
    Require(unregistered, "the monitor's registry key cannot be deleted");
}

// What is on the machine of the monitor's files.
std::vector<fs::path> InstalledFiles(Machine& machine, const Report& report) {
    const fs::path folder = machine.SystemFolder();
    std::vector<fs::path> files;
    const auto add = [&](const wchar_t* name, bool ours) {
        const fs::path file = folder / name;
        if (Exists(file) && ours) {
            files.push_back(file);
        } else if (Exists(file)) {
            report("  " + WideToUtf8(file.native()) + " is not kestmon's, and stays");
        }
        std::ranges::copy(Remains(file), std::back_inserter(files));
    };
    for (const PackageLibrary& library : kPackageLibraries) {
        const std::optional<FileVersion> version = ReadFileVersion(folder / library.name);
        add(library.name, version && version->ours);
    }
    add(kConfigurationFile, true);
    add(kNewConfigurationFile, true);
    return files;
}

void ReportRemoval(const std::vector<fs::path>& files, size_t ports, const Report& report) {
    report("would unregister the monitor and delete its ports: " + std::to_string(ports));
    for (const fs::path& file : files) {
        report("would delete " + WideToUtf8(file.native()));
    }
    report("dry run: nothing was changed");
}

// Returns what could not be deleted, each with a leading "; ".
std::string DiscardAll(Machine& machine, std::vector<fs::path> files, const Report& report) {
    for (const fs::path& folder : machine.TemporaryFolders()) {
        files.push_back(folder / kLogFile);
    }
    std::string failures;
    for (const fs::path& file : files) {
        if (const DWORD code = Discard(machine, file, report); code != ERROR_SUCCESS) {
            failures += "; " + WideToUtf8(file.native()) + ": " + ErrorText(code);
        }
    }
    return failures;
}

}  // namespace

bool HasOwnConfiguration(Machine& machine) {
    const fs::path file = machine.SystemFolder() / kConfigurationFile;
    return Exists(file) && !IsShippedConfiguration(file);
}

void CheckRemoval(Machine& machine, bool force) {
    RequireElevated(machine);
    const std::vector<Queue> queues = StoredQueues(machine.PrintKey());
    std::string users;
    for (const StoredPort& port : StoredPorts(machine.PrintKey())) {
        for (const std::wstring& queue : QueuesOn(queues, port.name)) {
            users +=
                (users.empty() ? "" : ", ") + WideToUtf8(queue) + " on " + WideToUtf8(port.name);
        }
    }
    if (!users.empty() && !force) {
        throw CommandFailed("printers use its ports: " + users, Remedy::MoveQueues);
    }
}

void RemoveMonitor(Machine& machine, const SetupOptions& options, const Report& report) {
    CheckRemoval(machine, options.force);
    const std::vector<fs::path> files = InstalledFiles(machine, report);
    if (files.empty() && !MonitorKeyExists(machine.PrintKey())) {
        report("kestmon is not installed; nothing to do");
        return;
    }
    const size_t ports = StoredPorts(machine.PrintKey()).size();
    if (options.dryRun) {
        ReportRemoval(files, ports, report);
        return;
    }
    Unregister(machine, options.force, report);
    report("the monitor is no longer registered; deleted ports: " + std::to_string(ports));
    const std::string failures = DiscardAll(machine, files, report);
    for (const auto& [folder, count] : LeftoverJobs(machine)) {
        report("  " + WideToUtf8(folder.native()) + " holds " + std::to_string(count) +
               " files NPM*.tmp: data of jobs that a daemon never took, unless another program "
               "made them; look at them and delete them");
    }
    if (!failures.empty()) {
        throw CommandFailed("kestmon is no longer a monitor of the spooler, but files are left" +
                            failures);
    }
    report("kestmon is removed");
}

std::vector<Leftovers> LeftoverJobs(Machine& machine) {
    std::vector<Leftovers> all;
    for (const fs::path& folder : machine.TemporaryFolders()) {
        Leftovers found = {folder};
        std::error_code ignored;
        for (fs::directory_iterator at(folder, ignored), end; !ignored && at != end;
             at.increment(ignored)) {
            std::wstring name = at->path().filename().native();
            CharUpperW(name.data());
            found.count += name.starts_with(L"NPM") && name.ends_with(L".TMP");
        }
        if (found.count != 0) {
            all.push_back(found);
        }
    }
    return all;
}
