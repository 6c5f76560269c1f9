#include "admin/Installation.h"

#include <algorithm>
#include <iterator>
#include <system_error>

#include "admin/CommandFailed.h"
#include "admin/MonitorKey.h"
#include "admin/PackageFiles.h"
#include "admin/Text.h"

namespace fs = std::filesystem;

namespace {

constexpr wchar_t kCopySuffix[] = L".kest-new";  // a new file on its way
constexpr wchar_t kAsideSuffix[] = L".kest-old";  // a file that was replaced
constexpr wchar_t kLogFile[] = L"KestSetupWizard.log";

bool Exists(const fs::path& path) {
    std::error_code ignored;
    return fs::exists(path, ignored);
}

std::string Name(const fs::path& path) {
    return ToUtf8(path.filename().native());
}

void Require(DWORD code, const std::string& failure) {
    if (code != ERROR_SUCCESS) {
        throw CommandFailed(failure + ": " + ErrorText(code), code == ERROR_ACCESS_DENIED
                                                                  ? Remedy::RunAsAdministrator
                                                                  : Remedy::None);
    }
}

// A line every five seconds of waiting.
Waiting Patiently(const Report& report, const std::string& what) {
    return [&report, what, seconds = 0]() mutable {
        if (++seconds % 5 == 0) {
            report("  waiting for " + what + ", " + std::to_string(seconds) + " s");
        }
    };
}

// What was done so far, and how to take it back.
class Undo {
  public:
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

// The first free name of those under which a replaced file is set aside: the one before may still
// be in use.
fs::path AsideName(const fs::path& file) {
    fs::path aside = file.native() + kAsideSuffix;
    for (int i = 2; Exists(aside); ++i) {
        aside = file.native() + kAsideSuffix + std::to_wstring(i);
    }
    return aside;
}

// Deletes a file. One that is in use gets out of the way of a file of its name that may come, and
// goes at the next start of Windows.
DWORD Discard(Machine& machine, const fs::path& file, const Report& report) {
    if (!Exists(file) || machine.Delete(file) == ERROR_SUCCESS) {
        return ERROR_SUCCESS;
    }
    fs::path left = file;
    if (file.native().find(kAsideSuffix) == std::wstring::npos) {
        if (const fs::path aside = AsideName(file); machine.Move(file, aside) == ERROR_SUCCESS) {
            left = aside;
        }
    }
    const DWORD code = machine.DeleteAtNextStart(left);
    if (code == ERROR_SUCCESS) {
        report("  " + Name(file) + " is still in use; Windows deletes it (" +
               ToUtf8(left.native()) + ") at its next start");
    }
    return code;
}

// Everything of a name in a folder that set-up may have left there: set aside, or on its way.
std::vector<fs::path> Remains(const fs::path& folder, const std::wstring& name) {
    std::vector<fs::path> found;
    std::error_code ignored;
    for (const wchar_t* suffix : {kCopySuffix, kAsideSuffix}) {
        const std::wstring start = name + suffix;
        for (const auto& entry : fs::directory_iterator(folder, ignored)) {
            if (entry.path().filename().native().starts_with(start)) {
                found.push_back(entry.path());
            }
        }
    }
    return found;
}

// Stopped for the length of an update, with all that hangs on it.
class SpoolerPause {
  public:
    SpoolerPause(Machine& machine, const Report& report) : machine_(machine), report_(report) {}

    // Throws CommandFailed; what was stopped until then waits for Resume.
    void Stop() {
        std::vector<std::wstring> services = machine_.RunningDependents();
        services.emplace_back(kSpoolerService);
        for (const std::wstring& name : services) {
            const std::string text = ToUtf8(name);
            report_("stopping " + text);
            if (std::ranges::find(stopped_, name) == stopped_.end()) {
                stopped_.push_back(name);  // one that stops too late is started again, too
            }
            Require(machine_.Stop(name, Patiently(report_, text)),
                    "the service " + text + " does not stop");
        }
    }

    // Starts what was stopped, the spooler first; without it, the others wait for the next Resume.
    // Returns the failure of the spooler; those of others are told.
    DWORD Resume() {
        for (; !stopped_.empty(); stopped_.pop_back()) {
            const std::wstring name = stopped_.back();
            const std::string text = ToUtf8(name);
            report_("starting " + text);
            const DWORD code = machine_.Start(name, Patiently(report_, text));
            if (code != ERROR_SUCCESS && name == kSpoolerService) {
                return code;
            }
            if (code != ERROR_SUCCESS) {
                report_("  it does not start: " + ErrorText(code) + "; start it by hand: net start " +
                        text);
            }
        }
        return ERROR_SUCCESS;
    }

  private:
    Machine& machine_;
    const Report& report_;
    std::vector<std::wstring> stopped_;
};

// A file that goes into the system folder.
struct NewFile {
    fs::path source;
    fs::path target;

    fs::path Copy() const { return target.native() + kCopySuffix; }
};

// What a run has to do.
struct Plan {
    std::string version;
    std::vector<NewFile> files;
    bool stopSpooler = false;
};

void RequireElevated(Machine& machine) {
    if (!machine.IsElevated()) {
        throw CommandFailed("this needs an administrator's rights", Remedy::RunAsAdministrator);
    }
}

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
            throw CommandFailed(Name(file) + (Exists(file) ? " is damaged, or not kestmon's, in "
                                                           : " is missing in ") +
                                    ToUtf8(package.native()),
                                Remedy::UnpackRelease);
        }
        if (release && release->number != version->number) {
            throw CommandFailed("the files in " + ToUtf8(package.native()) +
                                    " are of different releases, " + release->Text() + " and " +
                                    version->Text() + " (" + Name(file) + ")",
                                Remedy::UnpackRelease);
        }
        release = version;
    }
    if (!Exists(package / kConfigurationFile)) {
        throw CommandFailed("SLPConf.xml is missing in " + ToUtf8(package.native()),
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
        throw CommandFailed("there is no room in " + ToUtf8(folder.native()) + ": " +
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
            throw CommandFailed(ToUtf8(file.target.native()) +
                                    " is damaged, or another product's: see what it is, and "
                                    "whether something needs it",
                                Remedy::Force);
        }
        if (installed && !force && installed->number > release.number) {
            throw CommandFailed("a newer release is installed: " + Name(file.target) + " is " +
                                    installed->Text() + ", this would make it " + release.Text(),
                                Remedy::Force);
        }
        report("  " + Name(file.target) +
               (installed ? ": " + installed->Text() + " becomes " + release.Text()
                          : " " + release.Text() + " is new"));
        plan.stopSpooler = plan.stopSpooler || machine.IsInUse(file.target);
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
        const fs::path copy = file.Copy();
        undo.Add("delete " + ToUtf8(copy.native()),
                 [&machine, &report, copy] { return Discard(machine, copy, report); });
        Require(machine.Copy(file.source, copy),
                Name(file.source) + " cannot be copied to " + ToUtf8(copy.native()));
    }
}

// Each old file aside, each new one in its place: renaming works for a library in use, too.
// Returns the old ones.
std::vector<fs::path> SwapFiles(const Plan& plan, Machine& machine, Undo& undo) {
    std::vector<fs::path> asides;
    const auto move = [&machine, &undo](const fs::path& from, const fs::path& to) {
        Require(machine.Move(from, to), Name(from) + " cannot be renamed to " + Name(to));
        undo.Add("rename " + ToUtf8(to.native()) + " to " + Name(from),
                 [&machine, from, to] { return machine.Move(to, from); });
    };
    for (const NewFile& file : plan.files) {
        if (Exists(file.target)) {
            asides.push_back(AsideName(file.target));
            move(file.target, asides.back());
        }
        move(file.Copy(), file.target);
    }
    return asides;
}

// Makes the spooler load the monitor now or, when it does not run, when it starts.
// Returns true when it is loaded.
bool Register(Machine& machine, Undo& undo) {
    const bool hadKey = MonitorKeyExists(machine);
    const bool hadDriver = !RegisteredDriver(machine).empty();
    if (machine.SpoolerState() != ServiceState::Running) {
        if (!hadDriver) {
            undo.Add("unregister the monitor",
                     [&machine, hadKey] { return machine.Unregister(hadKey); });
            Require(machine.Register(), "the monitor cannot be registered");
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
        throw CommandFailed("the print spooler has not loaded the monitor: see its events (Event "
                            "Viewer, Microsoft-Windows-PrintService/Admin)");
    }
    return true;
}

bool IsComplete(const Plan& plan, Machine& machine) {
    bool listed = true;
    return plan.files.empty() && !RegisteredDriver(machine).empty() &&
           (machine.SpoolerState() != ServiceState::Running ||
            (machine.ListsMonitor(listed) == ERROR_SUCCESS && listed));
}

const char* SpoolerWord(ServiceState state) {
    return state == ServiceState::Disabled ? "is disabled" : "does not run";
}

// The steps of RemoveMonitor.

void Unregister(Machine& machine, bool force, const Report& report) {
    bool listed = false;
    if (machine.SpoolerState() == ServiceState::Running) {
        Require(machine.ListsMonitor(listed), "the print spooler does not list its monitors");
    }
    SpoolerPause pause(machine, report);
    if (listed) {
        const DWORD code = machine.DeleteFromSpooler();
        if (code != ERROR_SUCCESS && !force) {
            throw CommandFailed("the print spooler does not let go of the monitor, nothing was "
                                "removed: " +
                                    ErrorText(code),
                                Remedy::Force);
        }
        if (code != ERROR_SUCCESS) {
            report("the print spooler does not let go of the monitor: " + ErrorText(code));
            try {
                pause.Stop();
            } catch (const CommandFailed& failed) {
                pause.Resume();
                throw CommandFailed(failed.what() + std::string("; nothing was removed"));
            }
        }
    }
    const DWORD unregistered =
        MonitorKeyExists(machine) ? machine.Unregister(false) : ERROR_SUCCESS;
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
            report("  " + ToUtf8(file.native()) + " is not kestmon's, and stays");
        }
        std::ranges::copy(Remains(folder, name), std::back_inserter(files));
    };
    for (const PackageLibrary& library : kPackageLibraries) {
        const std::optional<FileVersion> version = ReadFileVersion(folder / library.name);
        add(library.name, version && version->ours);
    }
    add(kConfigurationFile, true);
    add(kNewConfigurationFile, true);
    return files;
}

}  // namespace

bool HasOwnConfiguration(Machine& machine) {
    const fs::path file = machine.SystemFolder() / kConfigurationFile;
    return Exists(file) && !IsShippedConfiguration(file);
}

void InstallMonitor(Machine& machine, const fs::path& package, bool force, const Report& report) {
    CheckMachine(machine);
    const fs::path folder = machine.SystemFolder();
    const FileVersion release = CheckPackage(package, folder);
    Plan plan = {release.Text(), {}, false};
    std::vector<std::string> lines;
    const Report later = [&lines](const std::string& line) { lines.push_back(line); };
    PlanLibraries(plan, machine, package, release, force, later);
    PlanConfiguration(plan, package, folder, later);
    if (IsComplete(plan, machine)) {
        report("kestmon " + plan.version + " is installed already; nothing to do");
        return;
    }
    CheckSpace(plan, folder);
    report("installing kestmon " + plan.version + " in " + ToUtf8(folder.native()));
    std::ranges::for_each(lines, report);

    plan.stopSpooler = plan.stopSpooler && machine.SpoolerState() == ServiceState::Running;
    Undo undo;
    SpoolerPause pause(machine, report);
    std::vector<fs::path> asides;
    bool loaded = false;
    try {
        CopyFiles(plan, machine, undo, report);
        if (plan.stopSpooler) {
            undo.Add("start the print spooler", [&pause] { return pause.Resume(); });
            pause.Stop();
        }
        asides = SwapFiles(plan, machine, undo);
        if (plan.stopSpooler) {
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
        loaded = Register(machine, undo);
    } catch (const CommandFailed& failed) {
        const std::string left = undo.TakeBack();
        throw CommandFailed(failed.what() +
                                (left.empty() ? "; everything is as it was before"
                                              : "; and not all could be taken back" + left),
                            failed.remedy);
    }
    for (const fs::path& aside : asides) {
        Discard(machine, aside, report);
    }
    report("kestmon " + plan.version + " is installed, " +
           (loaded ? "and the print spooler has loaded it"
                   : std::string("and the print spooler, which ") +
                         SpoolerWord(machine.SpoolerState()) + ", loads it when it starts"));
}

void CheckRemoval(Machine& machine, bool force) {
    RequireElevated(machine);
    if (const std::vector<StoredQueue> queues = QueuesOnPorts(machine); !queues.empty() && !force) {
        std::string users;
        for (const auto& [queue, port] : queues) {
            users += (users.empty() ? "" : ", ") + ToUtf8(queue) + " on " + ToUtf8(port);
        }
        throw CommandFailed("printers print to its ports: " + users, Remedy::MoveQueues);
    }
}

void RemoveMonitor(Machine& machine, bool force, const Report& report) {
    CheckRemoval(machine, force);
    const std::vector<fs::path> files = InstalledFiles(machine, report);
    if (files.empty() && !MonitorKeyExists(machine)) {
        report("kestmon is not installed; nothing to do");
        return;
    }
    const size_t ports = StoredPorts(machine).size();
    Unregister(machine, force, report);
    report("the monitor is no longer registered; its ports are gone: " + std::to_string(ports));
    std::string failures;
    const auto discard = [&](const fs::path& file) {
        if (const DWORD code = Discard(machine, file, report); code != ERROR_SUCCESS) {
            failures += "; " + ToUtf8(file.native()) + ": " + ErrorText(code);
        }
    };
    std::ranges::for_each(files, discard);
    for (const fs::path& folder : machine.TemporaryFolders()) {
        discard(folder / kLogFile);
    }
    for (const auto& [folder, count] : LeftoverJobs(machine)) {
        report("  " + ToUtf8(folder.native()) + " holds " + std::to_string(count) +
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
        for (const auto& entry : fs::directory_iterator(folder, ignored)) {
            std::wstring name = entry.path().filename().native();
            CharUpperW(name.data());
            found.count += name.starts_with(L"NPM") && name.ends_with(L".TMP");
        }
        if (found.count != 0) {
            all.push_back(found);
        }
    }
    return all;
}
