// What the commands share, and the global options: the choice between the channels.
#include "kestctl/Command.h"

#include <algorithm>
#include <iostream>

#include "admin/channel/DirectChannel.h"
#include "admin/channel/SpoolerService.h"
#include "base/Text.h"

namespace {

constexpr char kDirect[] = "--direct";
constexpr char kServer[] = "--server";

// Brings a machine's name into the spooler's form, \\SERVER (CLI11's convention).
std::string CheckServer(std::string& text) {
    const std::string name = text.substr(std::min(text.find_first_not_of('\\'), text.size()));
    if (name.empty() || name.find_first_of("\\/, ") != std::string::npos) {
        return "'" + text + "' is not a computer name. Use, for example, PRINT1";
    }
    text = R"(\\)" + name;
    return {};
}
}  // namespace

CLI::App& AddGroup(CLI::App& app, const std::string& name, const std::string& description) {
    CLI::App& group = *app.add_subcommand(name, description);
    group.require_subcommand(1);
    return group;
}

CLI::Option& AddText(CLI::App& command, const char* name, std::string& value,
                     const char* description) {
    return *command.add_option(name, value, description)->check(NotEmpty());
}

void AddJsonFlag(CLI::App& command, bool& wanted) {
    command.add_flag("--json", wanted, "Print JSON instead of text");
}

void AddDryRunFlag(CLI::App& command, bool& wanted) {
    command.add_flag("--dry-run", wanted, "Show what would be done, and change nothing");
}

void AddYesFlag(CLI::App& command, bool& wanted) {
    command.add_flag("--yes", wanted, "Do not ask for confirmation");
}

void Confirm(const std::string& question, bool yes, const std::string& refusal) {
    if (yes) {
        return;
    }
    if (!InputIsTerminal()) {
        throw CLI::RequiredError("--yes (there is no terminal to ask on), or --dry-run");
    }
    std::cout.flush();
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer.empty() || (answer[0] != 'y' && answer[0] != 'Y')) {
        throw CommandFailed(refusal);
    }
}

CLI::Validator Checked(std::string (*check)(std::string&)) {
    return CLI::Validator(check, "");
}

CLI::Validator NotEmpty() {
    return CLI::Validator(
        [](std::string& text) { return text.empty() ? "must not be empty" : std::string(); }, "");
}

void AddDirectFlag(CLI::App& app) {
    const std::string description =
        "Bypass the print spooler: load kestmon.dll from this program's folder and use the ports "
        "in the monitor's registry key. The spooler sees new ports after its next start";
    app.add_flag_callback(kDirect, SpeakOfDirect, description);
}

void AddServerOption(CLI::App& app) {
    app.add_option(
           kServer,
           "Print server to administer, for `port` and `print`. Network requests are sent from "
           "this computer")
        ->transform(CLI::Validator(CheckServer, ""))
        ->excludes(app.get_option(kDirect));
    app.parse_complete_callback([&app] {
        const CLI::Option* server = app.get_option(kServer);
        if (server->empty()) {
            return;
        }
        for (const CLI::App* command : app.get_subcommands()) {
            if (command->get_name() != "port" && command->get_name() != "print") {
                throw CLI::ValidationError(
                    kServer,
                    "only works with `port` and `print`, not with `" + command->get_name() + "`");
            }
        }
        SpeakOfServer(server->as<std::string>());
    });
}

bool IsDirect(const CLI::App& app) {
    return app.get_option(kDirect)->count() > 0;
}

std::wstring ServerName(const CLI::App& app) {
    const CLI::Option* server = app.get_option(kServer);
    return server->empty() ? std::wstring() : Utf8ToWide(server->as<std::string>());
}

std::unique_ptr<SpoolerChannel> OpenChannel(const CLI::App& app) {
    if (IsDirect(app)) {
        return std::make_unique<DirectChannel>(DirectChannel::LibraryBesideProgram());
    }
    return std::make_unique<SpoolerService>(L"kestmon", ServerName(app));
}
