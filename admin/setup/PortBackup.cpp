#include "admin/setup/PortBackup.h"

#include <filesystem>

#include "admin/channel/Files.h"
#include "admin/channel/MonitorKey.h"
#include "admin/ports/PortExport.h"
#include "admin/setup/Installation.h"
#include "admin/setup/PackageFiles.h"
#include "base/CommandFailed.h"
#include "base/Text.h"

namespace fs = std::filesystem;

namespace {

// Throws CommandFailed unless all stored ports are read.
std::vector<NamedPort> ReadStoredPorts(Machine& machine, const ChannelFactory& openChannel) {
    const size_t stored = StoredPorts(machine.PrintKey()).size();
    if (stored == 0) {
        return {};
    }
    std::vector<NamedPort> ports = ReadAllPorts(*openChannel());
    // A spooler that has not loaded the monitor knows none of them.
    if (ports.size() < stored) {
        throw CommandFailed("the print spooler knows " + std::to_string(ports.size()) + " of " +
                            Count(stored, "port") +
                            ", nothing was removed. Bypass it with `kestctl --direct monitor "
                            "remove --keep-ports FILE`");
    }
    return ports;
}

}  // namespace

void KeepPorts(const std::string& file, Machine& machine, const ChannelFactory& openChannel,
               const Report& report) {
    const fs::path path(Utf8ToWide(file));
    const fs::path configuration(fs::path(path).replace_extension(kConfigurationFile));
    const bool keepConfiguration = HasOwnConfiguration(machine);
    for (const fs::path& taken : {path, configuration}) {
        std::error_code ignored;
        if (fs::exists(taken, ignored) && (taken == path || keepConfiguration)) {
            throw CommandFailed(WideToUtf8(taken.native()) +
                                " already exists, nothing was removed. Choose another name");
        }
    }
    const std::vector<NamedPort> ports = ReadStoredPorts(machine, openChannel);
    try {
        SaveFile(file, PortsAsJson(ports), false);
    } catch (const CommandFailed& failed) {
        throw CommandFailed("nothing was removed: " + std::string(failed.what()));
    }
    report(Count(ports.size(), "port") + (ports.size() == 1 ? " is" : " are") + " kept in " + file);
    if (keepConfiguration) {
        const DWORD code = machine.Copy(machine.SystemFolder() / kConfigurationFile, configuration);
        Require(code, "nothing was removed: " + WideToUtf8(configuration.native()) +
                          " cannot be written");
        report("the modified SLPConf.xml is kept in " + WideToUtf8(configuration.native()));
    }
}
