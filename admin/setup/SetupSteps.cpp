#include "admin/setup/SetupSteps.h"

#include <algorithm>
#include <system_error>

#include "base/CommandFailed.h"
#include "base/Text.h"

namespace fs = std::filesystem;

namespace {

constexpr wchar_t kCopySuffix[] = L".kest-new";   // a new file on its way
constexpr wchar_t kAsideSuffix[] = L".kest-old";  // a file that was replaced

// A line every five seconds of waiting.
Waiting Patiently(const Report& report, const std::string& what) {
    return [&report, what, seconds = 0]() mutable {
        if (++seconds % 5 == 0) {
            report("  waiting for " + what + ", " + std::to_string(seconds) + " s");
        }
    };
}

}  // namespace

bool Exists(const fs::path& path) {
    std::error_code ignored;
    return fs::exists(path, ignored);
}

std::string Name(const fs::path& path) {
    return WideToUtf8(path.filename().native());
}

void Require(DWORD code, const std::string& failure) {
    if (code != ERROR_SUCCESS) {
        throw CommandFailed(failure + ": " + ErrorText(code));
    }
}

void RequireElevated(Machine& machine) {
    if (!machine.IsElevated()) {
        throw CommandFailed("this needs an administrator's rights", Remedy::RunAsAdministrator);
    }
}

fs::path CopyName(const fs::path& file) {
    return file.native() + kCopySuffix;
}

fs::path AsideName(const fs::path& file) {
    fs::path aside = file.native() + kAsideSuffix;
    for (int i = 2; Exists(aside); ++i) {
        aside = file.native() + kAsideSuffix + std::to_wstring(i);
    }
    return aside;
}

std::vector<fs::path> Remains(const fs::path& file) {
    std::vector<fs::path> found;
    std::error_code ignored;
    for (const wchar_t* suffix : {kCopySuffix, kAsideSuffix}) {
        const std::wstring start = file.filename().native() + suffix;
        for (fs::directory_iterator at(file.parent_path(), ignored), end; !ignored && at != end;
             at.increment(ignored)) {
            if (at->path().filename().native().starts_with(start)) {
                found.push_back(at->path());
            }
        }
    }
    return found;
}

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
               WideToUtf8(left.native()) + ") at its next start");
    }
    return code;
}

void SpoolerPause::Stop() {
    std::vector<std::wstring> services = machine_.RunningDependents();
    services.emplace_back(kSpoolerService);
    for (const std::wstring& name : services) {
        const std::string text = WideToUtf8(name);
        report_("stopping " + text);
        if (std::ranges::find(stopped_, name) == stopped_.end()) {
            stopped_.push_back(name);  // one that stops too late is started again, too
        }
        Require(machine_.Stop(name, Patiently(report_, text)),
                "the service " + text + " does not stop");
    }
}

DWORD SpoolerPause::Resume() {
    for (; !stopped_.empty(); stopped_.pop_back()) {
        const std::wstring name = stopped_.back();
        const std::string text = WideToUtf8(name);
        report_("starting " + text);
        const DWORD code = machine_.Start(name, Patiently(report_, text));
        if (code != ERROR_SUCCESS) {
            report_("  it does not start: " + ErrorText(code) + "; start it by hand: net start " +
                    text);
        }
        if (code != ERROR_SUCCESS && name == kSpoolerService) {
            for (size_t i = 0; i + 1 < stopped_.size(); ++i) {
                report_("  then net start " + WideToUtf8(stopped_[i]));
            }
            return code;
        }
    }
    return ERROR_SUCCESS;
}
