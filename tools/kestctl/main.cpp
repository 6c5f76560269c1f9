// kestctl, the administrator's command line of the kestmon port monitor.
//
// Exit codes: 0 done, 1 failed, 2 wrong usage.
#include <windows.h>
#include <shellapi.h>

#include <fcntl.h>
#include <io.h>

#include <iostream>
#include <memory>

#include "Version.h"
#include "tools/kestctl/Command.h"
#include "admin/PrinterSearch.h"
#include "admin/Text.h"
#include "admin/WindowsMachine.h"

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

// Output is UTF-8: into pipes and files as it is, on a console by its code page, which is the
// console's own again when the program ends. Line ends stay LF.
class Utf8Output {
  public:
    Utf8Output() : previous_(GetConsoleOutputCP()) {
        SetConsoleOutputCP(CP_UTF8);
        _setmode(_fileno(stdout), _O_BINARY);
        _setmode(_fileno(stderr), _O_BINARY);
    }
    ~Utf8Output() {
        std::cout.flush();
        SetConsoleOutputCP(previous_);
    }
    Utf8Output(const Utf8Output&) = delete;
    Utf8Output& operator=(const Utf8Output&) = delete;

  private:
    UINT previous_;
};

// The arguments without the program's name, last one first, as CLI11 takes them.
std::vector<std::string> Arguments() {
    int count = 0;
    const std::unique_ptr<LPWSTR[], decltype(&LocalFree)> arguments(
        CommandLineToArgvW(GetCommandLineW(), &count), LocalFree);
    std::vector<std::string> result;
    for (int i = count - 1; i > 0; --i) {
        result.push_back(ToUtf8(arguments[i]));
    }
    return result;
}

// CLI11 says that a command is missing also where one was given that it does not know.
std::string UnknownCommand(const CLI::App& app) {
    const CLI::App* group = &app;
    while (!group->get_subcommands().empty()) {
        group = group->get_subcommands().front();
    }
    const std::vector<std::string> rest = app.remaining(true);
    if (rest.empty() || group->get_require_subcommand_min() == 0) {
        return {};
    }
    std::string known;
    for (const CLI::App* command : group->get_subcommands(nullptr)) {
        known += (known.empty() ? "" : ", ") + command->get_name();
    }
    return "There is no command '" + rest.front() + "' here, there are: " + known;
}

int Fail(const std::string& message) {
    std::cout.flush();
    std::cerr << "kestctl: " << message << '\n';
    return kFailed;
}

int Run() {
    CLI::App app{"Manages the network printer ports of the kestmon port monitor.", "kestctl"};
    // "/tmp/report.prn" is a file, not an option.
    app.allow_windows_style_options(false);
    app.fallthrough();
    app.require_subcommand(1);
    app.set_help_all_flag("--help-all", "Print the help of all commands and exit");
    app.set_version_flag("--version", "kestctl " KESTMON_VERSION_STRING);
    AddDirectFlag(app);

    const ChannelFactory openChannel = [&app] { return OpenChannel(app); };
    AddPortCommands(app, openChannel, IdentifyPrinter);
    AddPrintCommand(app, openChannel);
    AddNetworkCommands(app);
    AddSlpCommands(app);
    AddSettingsCommands(app);
    AddFindCommand(app);
    WindowsMachine machine;
    AddMonitorCommands(app, openChannel, machine);
    app.footer("Examples:" + Examples(app));

    try {
        app.parse(Arguments());
        if (!std::cout.flush()) {
            throw CommandFailed("not all of the output could be written");
        }
        return 0;
    } catch (const CLI::RequiredError& error) {
        const std::string unknown = UnknownCommand(app);
        app.exit(unknown.empty() ? error : CLI::RequiredError(unknown, error.get_exit_code()));
        return kWrongUsage;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kWrongUsage;
    } catch (const CommandFailed& failed) {
        return Fail(Explained(failed));
    } catch (const std::exception& error) {
        return Fail(error.what());
    }
}

}  // namespace

int main() {
    const Utf8Output output;
    return Run();
}
