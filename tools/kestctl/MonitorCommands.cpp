// kestctl monitor install|remove|status
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>

#include "Version.h"
#include "admin/Installation.h"
#include "admin/MonitorStatus.h"
#include "admin/PortStore.h"
#include "admin/Text.h"
#include "tools/kestctl/Command.h"
#include "tools/kestctl/PortJson.h"
#include "tools/kestctl/SpoolerHost.h"

namespace fs = std::filesystem;

namespace {

void PrintLine(const std::string& line) {
    std::cout << line << std::endl;  // at once: some steps take their time
}

CLI::App& AddMonitorCommand(CLI::App& monitor, const std::string& name,
                            const std::string& description, const std::string& example) {
    CLI::App& command = *monitor.add_subcommand(name, description);
    AddExample(command, example);
    return command;
}

void AddInstall(CLI::App& monitor, Machine& machine) {
    struct Arguments {
        std::string from;
        bool force = false;
    };
    CLI::App& command = AddMonitorCommand(
        monitor, "install",
        "Install the monitor, or update it: all or nothing. Ports, and an SLPConf.xml that was "
        "changed, stay as they are",
        "monitor install");
    const auto arguments = std::make_shared<Arguments>();
    command
        .add_option("--from", arguments->from, "The folder with the release's files (kestctl's own)")
        ->check(NotEmpty());
    command.add_flag("--force", arguments->force,
                     "Also an older release over a newer one, and over libraries that are damaged "
                     "or another product's");
    command.callback([arguments, &machine] {
        const fs::path package = arguments->from.empty()
                                     ? SpoolerHost::LibraryBesideProgram().parent_path()
                                     : fs::absolute(ToWide(arguments->from));
        InstallMonitor(machine, package, arguments->force, PrintLine);
    });
}

// Keeps what remove would take away: the ports as `kestctl port show --json` shows them and, if
// it was changed, SLPConf.xml.
void KeepPorts(const std::string& name, bool force, Machine& machine,
               const ChannelFactory& openChannel) {
    const fs::path file(ToWide(name));
    const fs::path configuration(fs::path(file).replace_extension(kConfigurationFile));
    const bool keepConfiguration = HasOwnConfiguration(machine);
    for (const fs::path& path : {file, configuration}) {
        if (!force && fs::exists(path) && (path == file || keepConfiguration)) {
            throw CommandFailed(ToUtf8(path.native()) +
                                    " is there already, nothing was removed: choose another name",
                                Remedy::Force);
        }
    }
    nlohmann::json ports = nlohmann::json::array();
    if (!StoredPorts(machine).empty()) {
        const auto channel = openChannel();
        for (const std::wstring& port : channel->PortNames()) {
            ports.push_back(ToJson(port, ReadPort(*channel, port)));
        }
    }
    std::ofstream stream(file, std::ios::binary);
    stream << ports.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
    if (!stream.flush()) {
        throw CommandFailed(name + " cannot be written, nothing was removed");
    }
    PrintLine(std::to_string(ports.size()) + " ports are kept in " + name);
    if (keepConfiguration) {
        const DWORD code =
            machine.Copy(machine.SystemFolder() / kConfigurationFile, configuration);
        if (code != ERROR_SUCCESS) {
            throw CommandFailed(ToUtf8(configuration.native()) +
                                " cannot be written, nothing was removed: " + ErrorText(code));
        }
        PrintLine("SLPConf.xml, which was changed, is kept in " + ToUtf8(configuration.native()));
    }
}

void AddRemove(CLI::App& monitor, const ChannelFactory& openChannel, Machine& machine) {
    struct Arguments {
        std::string keepPorts;
        bool force = false;
    };
    CLI::App& command = AddMonitorCommand(
        monitor, "remove",
        "Remove the monitor with its ports, SLPConf.xml and log. Refuses while printers print to "
        "its ports. Where nothing is installed, it says so and succeeds",
        "monitor remove --keep-ports ports.json");
    const auto arguments = std::make_shared<Arguments>();
    command
        .add_option("--keep-ports", arguments->keepPorts,
                    "First write the ports to this file, as JSON; an SLPConf.xml that was changed "
                    "is kept beside it (ports.SLPConf.xml)")
        ->check(NotEmpty());
    command.add_flag("--force", arguments->force,
                     "Also when printers print to its ports, stopping the spooler if it has to be; "
                     "and write over the files of --keep-ports");
    command.callback([arguments, openChannel, &machine] {
        CheckRemoval(machine, arguments->force);
        if (!arguments->keepPorts.empty()) {
            KeepPorts(arguments->keepPorts, arguments->force, machine, openChannel);
        }
        RemoveMonitor(machine, arguments->force, PrintLine);
    });
}

// One line of the table.
struct Finding {
    std::string what;
    std::string state;
    std::string toDo = {};
};

}  // namespace

void AddMonitorCommands(CLI::App& app, const ChannelFactory& openChannel, Machine& machine) {
    CLI::App& monitor =
        *app.add_subcommand("monitor", "Install, remove and check the monitor itself");
    monitor.require_subcommand(1);
    AddInstall(monitor, machine);
    AddRemove(monitor, openChannel, machine);
}
