// kestctl, the administrator's command line of the kestmon port monitor.
//
// Exit codes: 0 done, 1 failed, 2 wrong usage, 130 ended by Ctrl-C.
#include <windows.h>
#include <shellapi.h>

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <streambuf>

#include "Version.h"
#include "admin/search/MergedSearch.h"
#include "admin/search/PrinterSearch.h"
#include "base/Text.h"
#include "admin/setup/WindowsMachine.h"
#include "kestctl/Command.h"
#include "kestctl/Interruption.h"

namespace {

constexpr int kWrongUsage = 2;

// A console's side of a stream: whole characters of UTF-8 become the console's own text, whatever
// its code page. Single bytes of one, as the C library writes them, come out garbled.
class ConsoleBuffer : public std::streambuf {
  public:
    explicit ConsoleBuffer(HANDLE console) : console_(console) {}

  protected:
    int_type overflow(int_type byte) override {
        if (!traits_type::eq_int_type(byte, traits_type::eof())) {
            text_ += traits_type::to_char_type(byte);
        }
        return traits_type::not_eof(byte);
    }
    std::streamsize xsputn(const char* bytes, std::streamsize count) override {
        text_.append(bytes, static_cast<size_t>(count));
        return count;
    }
    int sync() override {
        constexpr size_t kAtOnce = 8192;  // some consoles take no more than 64 KiB
        const std::wstring wide = Utf8ToWide(text_);
        text_.clear();
        for (size_t at = 0; at < wide.size(); at += kAtOnce) {
            DWORD written = 0;
            if (!WriteConsoleW(console_, wide.data() + at,
                               static_cast<DWORD>(std::min(kAtOnce, wide.size() - at)), &written,
                               nullptr)) {
                return -1;
            }
        }
        return 0;
    }

  private:
    HANDLE console_;
    std::string text_;
};

// Output is UTF-8: into pipes and files as it is, on a console as text. Line ends stay LF.
class Utf8Output {
  public:
    Utf8Output(std::ostream& stream, DWORD handle, FILE* file)
        : stream_(stream), console_(GetStdHandle(handle)), before_(stream.rdbuf()) {
        DWORD mode = 0;
        if (GetConsoleMode(GetStdHandle(handle), &mode)) {
            stream_.rdbuf(&console_);
        } else {
            _setmode(_fileno(file), _O_BINARY);
        }
    }
    ~Utf8Output() {
        stream_.flush();
        stream_.rdbuf(before_);
    }
    Utf8Output(const Utf8Output&) = delete;
    Utf8Output& operator=(const Utf8Output&) = delete;

  private:
    std::ostream& stream_;
    ConsoleBuffer console_;
    std::streambuf* before_;
};

// The arguments without the program's name, last one first, as CLI11 takes them.
std::vector<std::string> Arguments() {
    int count = 0;
    const std::unique_ptr<LPWSTR[], decltype(&LocalFree)> arguments(
        CommandLineToArgvW(GetCommandLineW(), &count), LocalFree);
    std::vector<std::string> result;
    for (int i = count - 1; i > 0; --i) {
        result.push_back(WideToUtf8(arguments[i]));
    }
    return result;
}

// Reports a failure: as text, or as a JSON document where JSON was asked for and none was printed.
int Fail(int code, bool json, const std::string& message) {
    json = json && !HasPrintedJson();
    if (json) {
        PrintJson({{"error", message}, {"exitCode", code}});
    }
    std::cout.flush();
    std::cerr << (json ? "" : "kestctl: " + message + '\n') << std::flush;
    return code;
}

// Runs the command that the arguments name, and reports its failure. Returns the exit code.
int Parse(CLI::App& app, std::vector<std::string> arguments, bool json) {
    try {
        app.parse(arguments);
        if (!std::cout.flush()) {
            throw CommandFailed("Not all of the output could be written");
        }
        return 0;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);  // help, or the version
        }
        const bool mayBeUnknown = dynamic_cast<const CLI::RequiredError*>(&error) != nullptr ||
                                  dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr;
        const std::string unknown = mayBeUnknown ? UnknownArgument(app) : std::string();
        if (json) {
            return Fail(kWrongUsage, json, unknown.empty() ? error.what() : unknown);
        }
        app.exit(unknown.empty() ? error : CLI::ValidationError(unknown));
        return kWrongUsage;
    } catch (const Interrupted&) {
        return kInterrupted;
    } catch (const CommandFailed& failed) {
        return Fail(FailureCode(), json, Explained(failed));
    } catch (const std::exception& error) {
        return Fail(FailureCode(), json, error.what());
    }
}

int Run() {
    CLI::App app{"Manages the network printer ports of the kestmon port monitor.", "kestctl"};
    SetHelp(app);
    // "/tmp/report.prn" is a file, not an option.
    app.allow_windows_style_options(false);
    app.fallthrough();
    app.require_subcommand(1);
    app.set_help_all_flag("--help-all", "Print the help of all commands and exit");
    app.set_version_flag("--version", "kestctl " KESTMON_VERSION_STRING);
    AddDirectFlag(app);
    AddServerOption(app);

    const ChannelFactory openChannel = [&app] { return OpenChannel(app); };
    AddPortCommands(
        app, openChannel, IdentifyPrinter, [&app] { return ServerName(app); },
        IdentifyPrinterByBoth);
    AddPrintCommand(app, openChannel);
    AddNetworkCommands(app);
    AddSlpCommands(app);
    AddSettingsCommands(app);
    AddFindCommand(app);
    AddConfigCommands(app, openChannel);
    WindowsMachine machine;
    AddMonitorCommands(app, openChannel, machine);
    AddSelfTestCommand(app, openChannel);
    app.footer("Examples:" + Examples(app));

    const std::vector<std::string> arguments = Arguments();
    const bool json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
    const int code = Parse(app, arguments, json);
    // Also for a command that completes its work after Ctrl-C.
    return Interruption::WasRequested() ? kInterrupted : code;
}

}  // namespace

int main() {
    try {
        Interruption::HandleCtrlC();
        const Utf8Output output(std::cout, STD_OUTPUT_HANDLE, stdout);
        const Utf8Output errors(std::cerr, STD_ERROR_HANDLE, stderr);
        return Run();
    } catch (const std::exception& error) {  // before a command runs: no memory, for example
        std::fprintf(stderr, "kestctl: %s\n", error.what());
    } catch (...) {
        std::fputs("kestctl: the program failed for an unknown reason\n", stderr);
    }
    return FailureCode();
}
