// What is on the machine of the monitor, and what is wrong with it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "admin/setup/Machine.h"
#include "admin/channel/MonitorKey.h"
#include "admin/setup/PackageFiles.h"
#include "discovery/Config.h"

// From this size on a log is reported: nothing ever shortens it.
constexpr uintmax_t kLargeLog = 100'000'000;  // bytes

struct InstalledLibrary {
    std::filesystem::path file;
    bool present = false;
    bool optional = false;
    std::optional<FileVersion> version;  // nothing: missing, or damaged
};

enum class ConfigurationState {
    Good,
    Missing,
    Unreadable,  // this user may not read it
    NotWellFormed,
    NotChecked,  // there is no kestmon.dll beside it that could be asked
};

struct LogFileSize {
    std::filesystem::path file;
    std::optional<uintmax_t> bytes;  // nothing: there is none
};

struct MonitorStatus {
    std::vector<InstalledLibrary> libraries;
    std::wstring driver;  // as registered; empty when the monitor is not
    ServiceState spooler = ServiceState::Stopped;
    std::optional<bool> listed;  // nothing: the spooler could not be asked
    std::vector<StoredPort> ports;
    std::filesystem::path configurationFile;
    ConfigurationState configurationState = ConfigurationState::Missing;
    Config configuration;                // when it is good
    std::vector<std::string> addresses;  // of the machine, that a search goes out by
    std::vector<LogFileSize> logs;       // the spooler's, then this user's if another

    // The libraries that are there are of one release.
    bool OneRelease() const;
};

// Changes nothing, and needs no rights beyond a user's. Throws CommandFailed.
MonitorStatus ReadMonitorStatus(Machine& machine);
