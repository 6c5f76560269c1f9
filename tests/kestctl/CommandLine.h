// Command lines of kestctl with a FakeMonitor behind them.
#pragma once

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "kestctl/Command.h"
#include "tests/support/FakeMonitor.h"

// Runs a command line. Puts what it printed into `printed`; what it throws passes.
inline void Parse(CLI::App& app, std::vector<std::string> arguments, std::string& printed) {
    std::ostringstream output;
    std::streambuf* const before = std::cout.rdbuf(output.rdbuf());
    struct Restore {
        ~Restore() {
            std::cout.rdbuf(buffer);
            printed = output.str();
        }
        std::streambuf* buffer;
        const std::ostringstream& output;
        std::string& printed;
    } restore{before, output, printed};
    std::reverse(arguments.begin(), arguments.end());
    app.parse(arguments);
}

// As Parse, and keeps why the command failed or was not understood.
inline std::string Parse(CLI::App& app, std::vector<std::string> arguments, std::string& failure,
                         std::string& usageError) {
    std::string printed;
    failure = usageError = "";
    try {
        Parse(app, std::move(arguments), printed);
    } catch (const CommandFailed& failed) {
        failure = Explained(failed);
    } catch (const CLI::ParseError& error) {
        usageError = error.what();
    }
    return printed;
}

// Runs a command line with this monitor behind it. Returns what it printed; what it throws passes.
inline std::string Kestctl(FakeMonitor& monitor, std::vector<std::string> arguments) {
    CLI::App app;
    app.allow_windows_style_options(false);
    AddPortCommands(
        app, monitor.Factory(),
        [&monitor](const std::string& host) {
            const auto found = monitor.printers.find(host);
            return found != monitor.printers.end() ? found->second
                                                   : throw CommandFailed("no answer");
        },
        [] { return std::wstring(); });
    AddPrintCommand(app, monitor.Factory());
    Parse(app, std::move(arguments), monitor.printed);
    return monitor.printed;
}

// Runs a command line with --json. Returns what it printed.
inline nlohmann::json Json(FakeMonitor& monitor, std::vector<std::string> arguments) {
    arguments.emplace_back("--json");
    return nlohmann::json::parse(Kestctl(monitor, std::move(arguments)));
}

// What a command line fails with, or nothing.
inline std::string Failure(FakeMonitor& monitor, std::vector<std::string> arguments) {
    try {
        Kestctl(monitor, std::move(arguments));
    } catch (const CommandFailed& failed) {
        return Explained(failed);
    } catch (const std::exception& error) {
        return error.what();
    }
    return {};
}
