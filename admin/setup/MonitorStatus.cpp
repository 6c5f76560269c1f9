#include "admin/setup/MonitorStatus.h"

#include <algorithm>
#include <fstream>

#include "base/CommandFailed.h"
#include "admin/search/Hosts.h"
#include "admin/setup/SetupSteps.h"
#include "base/Text.h"
#include "base/Handles.h"

namespace fs = std::filesystem;

namespace {

// As the monitor itself reads it: the file beside the library. The library is mapped, not started.
ConfigurationState ReadConfiguration(const fs::path& folder, Config& configuration) {
    const fs::path file = folder / kConfigurationFile;
    if (!Exists(file)) {
        return ConfigurationState::Missing;
    }
    if (!std::ifstream(file)) {
        return ConfigurationState::Unreadable;
    }
    const UniqueLibrary library(
        LoadLibraryExW((folder / kMonitorLibrary).c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES));
    if (!library) {
        return ConfigurationState::NotChecked;
    }
    Config::SetModule(library.Get());
    const bool read = configuration.Initialize(std::wstring(L"\\") + kConfigurationFile);
    Config::SetModule(nullptr);
    return read ? ConfigurationState::Good : ConfigurationState::NotWellFormed;
}

std::vector<std::string> SearchAddresses() {
    std::vector<std::string> addresses;
    const Network& network = StartedNetwork();
    for (int i = 0; const char* const address = network.GetLocalAddress(i); ++i) {
        addresses.emplace_back(address);
    }
    return addresses;
}

}  // namespace

bool MonitorStatus::OneRelease() const {
    std::optional<uint64_t> release;
    return std::ranges::all_of(libraries, [&release](const InstalledLibrary& library) {
        if (library.version && !release) {
            release = library.version->number;
        }
        return !library.version || library.version->number == *release;
    });
}

MonitorStatus ReadMonitorStatus(Machine& machine) {
    const fs::path folder = machine.SystemFolder();
    MonitorStatus status;
    for (const auto& [name, optional] : kPackageLibraries) {
        const fs::path file = folder / name;
        status.libraries.push_back({file, Exists(file), optional, ReadFileVersion(file)});
    }
    status.driver = RegisteredDriver(machine.PrintKey());
    status.spooler = machine.SpoolerState();
    bool listed = false;
    if (status.spooler == ServiceState::Running && machine.ListsMonitor(listed) == ERROR_SUCCESS) {
        status.listed = listed;
    }
    status.ports = StoredPorts(machine.PrintKey());
    status.configurationFile = folder / kConfigurationFile;
    status.configurationState = ReadConfiguration(folder, status.configuration);
    status.addresses = SearchAddresses();
    for (const fs::path& temporary : machine.TemporaryFolders()) {
        const fs::path file = temporary / kLogFile;
        std::error_code error;
        const uintmax_t bytes = fs::file_size(file, error);
        status.logs.push_back({file, error ? std::nullopt : std::optional(bytes)});
    }
    return status;
}
