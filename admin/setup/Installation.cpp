#include "admin/setup/Installation.h"

#include <algorithm>
#include <system_error>

#include "base/CommandFailed.h"
#include "admin/channel/MonitorKey.h"
#include "admin/setup/PackageFiles.h"
#include "admin/setup/SetupSteps.h"
#include "base/Text.h"

namespace fs = std::filesystem;

namespace {

// What was done so far, and how to take it back: for whatever ends before Commit.
class Undo {
  public:
    Undo() = default;
    ~Undo() { TakeBack(); }
    Undo(const Undo&) = delete;
    Undo& operator=(const Undo&) = delete;

    void Commit() { steps_.clear(); }
    void Add(const std::string& what, std::function<DWORD()> takeBack) {
        steps_.push_back({what, std::move(takeBack)});
    }

    // Takes everything back, the last step first. Returns what could not be.
    std::string TakeBack() {
        std::string failures;
        for (; !steps_.empty(); steps_.pop_back()) {
            if (const DWORD code = steps_.back().takeBack(); code != ERROR_SUCCESS) {
                failures += "; " + steps_.back().what + ": " + ErrorText(code);
            }
        }
        return failures;
    }

  private:
    struct Step {
        std::string what;
        std::function<DWORD()> takeBack;
    };
    std::vector<Step> steps_;
};

// A file that goes into the system folder.
struct NewFile {
    fs::path source;
    fs::path target;
};

// What a run has to do.
struct Plan {
    std::string version;
    std::vector<NewFile> files;
    bool stopSpooler = false;
};

void CheckMachine(Machine& machine) {
    if (!machine.IsX64()) {
        throw CommandFailed(
            "this machine's processor is not an x64 one, and its print spooler cannot load an x64 "
            "library: install kestmon on an x64 Windows");
    }
    RequireElevated(machine);
}

// Returns the version of the release in the package.
FileVersion CheckPackage(const fs::path& package, const fs::path& folder) {
    std::error_code ignored;
    if (fs::equivalent(package, folder, ignored)) {
        throw CommandFailed("the files to install are those in the system folder itself",
                            Remedy::UnpackRelease);
    }
    std::optional<FileVersion> release;
    for (const auto& [name, optional] : kPackageLibraries) {
        const fs::path file = package / name;
        const std::optional<FileVersion> version = ReadFileVersion(file);
        if (!version && optional && !Exists(file)) {
            continue;
        }
        if (!version || !version->ours) {
            throw CommandFailed(
                Name(file) +
                    (Exists(file) ? " is damaged, or not kestmon's, in " : " is missing in ") +
                    WideToUtf8(package.native()),
                Remedy::UnpackRelease);
        }
        if (release && release->number != version->number) {
            throw CommandFailed("the files in " + WideToUtf8(package.native()) +
                                    " are of different releases, " + release->Text() + " and " +
                                    version->Text() + " (" + Name(file) + ")",
                                Remedy::UnpackRelease);
        }
        release = version;
    }
    if (!Exists(package / kConfigurationFile)) {
        throw CommandFailed("SLPConf.xml is missing in " + WideToUtf8(package.native()),
                            Remedy::UnpackRelease);
    }
    return *release;
}

void CheckSpace(const Plan& plan, const fs::path& folder) {
    uintmax_t needed = 1 << 20;
    std::error_code error;
    for (const NewFile& file : plan.files) {
        needed += fs::file_size(file.source, error);
    }
    const fs::space_info space = fs::space(folder, error);
    if (!error && space.available < needed) {
        throw CommandFailed("there is no room in " + WideToUtf8(folder.native()) + ": " +
                            std::to_string(needed >> 20) + " MB are needed");
    }
}

// A library is replaced by any other of its version, too: it may be damaged.
void PlanLibraries(Plan& plan, Machine& machine, const fs::path& package,
                   const FileVersion& release, bool force, const Report& report) {
    for (const auto& [name, optional] : kPackageLibraries) {
        const NewFile file = {package / name, machine.SystemFolder() / name};
        if (!Exists(file.source) || SameContents(file.source, file.target)) {
            continue;
        }
        const std::optional<FileVersion> installed = ReadFileVersion(file.target);
        if (Exists(file.target) && !force && (!installed || !installed->ours)) {
            throw CommandFailed(WideToUtf8(file.target.native()) +
                                    " is damaged, or another product's: see what it is, and "
                                    "whether something needs it",
                                Remedy::Force);
        }
        if (installed && !force && installed->number > release.number) {
            throw CommandFailed("a newer release is installed: " + Name(file.target) + " is " +
                                    installed->Text() + ", this would make it " + release.Text(),
                                Remedy::Force);
        }
        const bool same = installed && installed->number == release.number;
        report("  " + Name(file.target) + " " +
               (same        ? release.Text() + " is not as it was released, and is replaced"
                : installed ? installed->Text() + " becomes " + release.Text()
                            : release.Text() + " is new"));
        // The optional one is loaded by programs, which keep the old one until they end.
        plan.stopSpooler = plan.stopSpooler || (!optional && machine.IsInUse(file.target));
        plan.files.push_back(file);
    }
}

void PlanConfiguration(Plan& plan, const fs::path& package, const fs::path& folder,
                       const Report& report) {
    const fs::path source = package / kConfigurationFile;
    const fs::path target = folder / kConfigurationFile;
    const fs::path beside = folder / kNewConfigurationFile;
    if (!Exists(target)) {
        report("  SLPConf.xml is new");
        plan.files.push_back({source, target});
    } else if (SameText(source, target)) {
        return;
    } else if (IsShippedConfiguration(target)) {
        report("  SLPConf.xml was that of an earlier release, and becomes this one's");
        plan.files.push_back({source, target});
    } else if (!SameText(source, beside)) {
        report("  SLPConf.xml was changed and stays; this release's is put beside it as " +
               Name(beside));
        plan.files.push_back({source, beside});
    }
}

// New files beside the old ones, under names that nobody looks for.
void CopyFiles(const Plan& plan, Machine& machine, Undo& undo, const Report& report) {
    for (const NewFile& file : plan.files) {
        const fs::path copy = CopyName(file.target);
        undo.Add("delete " + WideToUtf8(copy.native()),
                 [&machine, &report, copy] { return Discard(machine, copy, report); });
        Require(machine.Copy(file.source, copy),
                Name(file.source) + " cannot be copied to " + WideToUtf8(copy.native()));
    }
}

// Each old file aside, each new one in its place: renaming works for a library in use, too.
void SwapFiles(const Plan& plan, Machine& machine, Undo& undo) {
    const auto move = [&machine, &undo](const fs::path& from, const fs::path& to) {
        Require(machine.Move(from, to), Name(from) + " cannot be renamed to " + Name(to));
        undo.Add("rename " + WideToUtf8(to.native()) + " to " + Name(from),
                 [&machine, from, to] { return machine.Move(to, from); });
    };
    for (const NewFile& file : plan.files) {
        if (Exists(file.target)) {
            move(file.target, AsideName(file.target));
        }
        move(CopyName(file.target), file.target);
    }
}

// Makes the spooler load the monitor now or, when it does not run, when it starts.
// Returns true when it is loaded.
bool Register(Machine& machine, Undo& undo) {
    const bool hadKey = MonitorKeyExists(machine.PrintKey());
    const std::wstring driver = RegisteredDriver(machine.PrintKey());
    const bool hadDriver = !driver.empty();
    if (hadDriver && lstrcmpiW(driver.c_str(), kMonitorLibrary) != 0) {
        throw CommandFailed("the registry names " + WideToUtf8(driver) +
                            " as the monitor's library: at Control\\Print\\Monitors\\kestmon, set "
                            "Driver to kestmon.dll first");
    }
    if (machine.SpoolerState() != ServiceState::Running) {
        if (!hadDriver) {
            Require(machine.Register(), "the monitor cannot be registered");
            undo.Add("unregister the monitor",
                     [&machine, hadKey] { return machine.Unregister(hadKey); });
        }
        return false;
    }
    bool listed = false;
    Require(machine.ListsMonitor(listed), "the print spooler does not list its monitors");
    if (!listed) {
        const DWORD code = machine.AddToSpooler();
        if (code != ERROR_PRINT_MONITOR_ALREADY_INSTALLED) {
            Require(code, "the print spooler does not take the monitor");
            // With the monitor the spooler would delete the ports of a key that was there before.
            undo.Add("unregister the monitor", [&machine, hadKey, hadDriver] {
                return hadDriver ? ERROR_SUCCESS
                       : hadKey  ? machine.Unregister(true)
                                 : machine.DeleteFromSpooler();
            });
        }
        Require(machine.ListsMonitor(listed), "the print spooler does not list its monitors");
    }
    if (!listed) {
        throw CommandFailed(
            "the print spooler has not loaded the monitor: see its events (Event "
            "Viewer, Microsoft-Windows-PrintService/Admin)");
    }
    return true;
}

bool IsComplete(const Plan& plan, Machine& machine) {
    bool listed = true;
    return plan.files.empty() &&
           lstrcmpiW(RegisteredDriver(machine.PrintKey()).c_str(), kMonitorLibrary) == 0 &&
           (machine.SpoolerState() != ServiceState::Running ||
            (machine.ListsMonitor(listed) == ERROR_SUCCESS && listed));
}

const char* SpoolerWord(ServiceState state) {
    return state == ServiceState::Disabled ? "is disabled" : "does not run";
}

Plan MakePlan(Machine& machine, const fs::path& package, bool force,
              std::vector<std::string>& lines) {
    CheckMachine(machine);
    const fs::path folder = machine.SystemFolder();
    const FileVersion release = CheckPackage(package, folder);
    Plan plan = {release.Text(), {}, false};
    const Report later = [&lines](const std::string& line) { lines.push_back(line); };
    PlanLibraries(plan, machine, package, release, force, later);
    PlanConfiguration(plan, package, folder, later);
    plan.stopSpooler = plan.stopSpooler && machine.SpoolerState() == ServiceState::Running;
    return plan;
}

// Starts the spooler with the new files.
void ResumeSpooler(SpoolerPause& pause, Undo& undo) {
    undo.Add("stop the print spooler", [&pause] {
        try {
            pause.Stop();
        } catch (const CommandFailed&) {
            return static_cast<DWORD>(ERROR_SERVICE_REQUEST_TIMEOUT);
        }
        return static_cast<DWORD>(ERROR_SUCCESS);
    });
    Require(pause.Resume(), "the print spooler does not start with the new files");
}

// Returns true if the spooler has loaded the monitor. Throws CommandFailed when everything is
// undone.
bool CarryOut(const Plan& plan, Machine& machine, const Report& report) {
    SpoolerPause pause(machine, report);
    Undo undo;
    bool loaded = false;
    try {
        CopyFiles(plan, machine, undo, report);
        if (plan.stopSpooler) {
            undo.Add("start the print spooler", [&pause] { return pause.Resume(); });
            pause.Stop();
        }
        SwapFiles(plan, machine, undo);
        if (plan.stopSpooler) {
            ResumeSpooler(pause, undo);
        }
        loaded = Register(machine, undo);
    } catch (const CommandFailed& failed) {
        const std::string left = undo.TakeBack();
        throw CommandFailed(
            failed.what() + (left.empty() ? "; everything is as it was before"
                                          : "; not all changes could be undone" + left),
            failed.remedy);
    }
    undo.Commit();
    return loaded;
}

void DiscardOldFiles(const Plan& plan, Machine& machine, const Report& report) {
    for (const NewFile& file : plan.files) {
        for (const fs::path& old : Remains(file.target)) {
            if (const DWORD code = Discard(machine, old, report); code != ERROR_SUCCESS) {
                report("  " + WideToUtf8(old.native()) + " stays: " + ErrorText(code));
            }
        }
    }
}

}  // namespace

void InstallMonitor(Machine& machine, const fs::path& package, const SetupOptions& options,
                    const Report& report) {
    std::vector<std::string> lines;
    const Plan plan = MakePlan(machine, package, options.force, lines);
    if (IsComplete(plan, machine)) {
        report("kestmon " + plan.version + " is already installed; nothing to do");
        return;
    }
    const fs::path folder = machine.SystemFolder();
    CheckSpace(plan, folder);
    report((options.dryRun ? "would install kestmon " : "installing kestmon ") + plan.version +
           " in " + WideToUtf8(folder.native()));
    std::ranges::for_each(lines, report);
    if (options.dryRun) {
        if (plan.stopSpooler) {
            report("  the print spooler would be restarted");
        }
        report("dry run: nothing was changed");
        return;
    }
    const bool loaded = CarryOut(plan, machine, report);
    DiscardOldFiles(plan, machine, report);
    report("kestmon " + plan.version + " is installed, " +
           (loaded ? "and the print spooler has loaded it"
                   : std::string("and the print spooler, which ") +
                         SpoolerWord(machine.SpoolerState()) + ", loads it when it starts"));
}
