// kestctl print
#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <optional>
#include <sstream>

#include "admin/channel/Sending.h"
#include "admin/ports/PortStore.h"
#include "kestctl/Command.h"
#include "kestctl/Interruption.h"

namespace {

struct PrintArguments {
    std::string file;
    std::string port;
    std::string name;
    std::string printer;
    bool json = false;
};

// How far the job is, for the thread that shows it.
struct JobState : SendingState {
    std::atomic<bool> started = false;
    std::mutex mutex;
    PrintJob* job = nullptr;  // while it can be abandoned

    void SetJob(PrintJob* value) {
        const std::lock_guard lock(mutex);
        job = value;
    }
};

// "12.3 of 45.6 kB": both in the unit that fits the larger.
std::string Amounts(uint64_t done, uint64_t total) {
    const auto [unit, name] = total < 1000        ? std::pair(1.0, "bytes")
                              : total < 1'000'000 ? std::pair(1e3, "kB")
                                                  : std::pair(1e6, "MB");
    std::ostringstream text;
    text << std::fixed << std::setprecision(unit > 1 ? 1 : 0) << static_cast<double>(done) / unit
         << " of " << static_cast<double>(total) / unit << ' ' << name;
    return text.str();
}

std::string Shown(const JobState& state, const std::optional<uint64_t>& size) {
    return state.ending     ? "all sent, waiting for the printer to close"
           : !state.started ? "connecting"
           : size           ? Bar(state.sent, *size) + "  " + Amounts(state.sent, *size)
                            : std::to_string(state.sent) + " bytes sent";
}

// "stopped after 1000 of 3000 bytes".
std::string StoppedText(const JobState& state, const Document& document) {
    return "stopped after " + std::to_string(state.sent) +
           (document.Size() ? " of " + std::to_string(*document.Size()) : "") + " bytes";
}

// Prints the document. Returns the job's outcome.
std::string Print(const PrintArguments& arguments, Document& document, SpoolerChannel& channel,
                  JobState& state) {
    const std::wstring name =
        arguments.name.empty()
            ? std::filesystem::path(Utf8ToWide(document.Name())).filename().native()
            : Utf8ToWide(arguments.name);
    const auto job = channel.StartJob(FindPort(channel, Utf8ToWide(arguments.port)), name,
                                      Utf8ToWide(arguments.printer));
    const std::shared_ptr<void> unpublish(nullptr, [&state](void*) { state.SetJob(nullptr); });
    state.SetJob(job.get());
    state.started = true;
    try {
        Send(document, *job, state);
    } catch (const CommandFailed& failed) {
        throw CommandFailed("not printed, " + StoppedText(state, document) + ": " + failed.what(),
                            failed.remedy, failed.subject);
    }
    return job->Outcome();
}

// Ctrl-C ends the job wherever it waits, and the program with it.
[[noreturn]] void Stop(const PrintArguments& arguments, JobState& state, const Document& document) {
    {
        const std::lock_guard lock(state.mutex);
        if (state.job != nullptr) {
            state.job->Abandon();
        }
    }
    const std::string message = document.Name() + ": " + StoppedText(state, document);
    if (arguments.json) {
        PrintJson({{"error", message}, {"exitCode", kInterrupted}});
    } else {
        std::cerr << "kestctl: " << message << '\n';
    }
    EndInterrupted();
}

void RunPrint(const PrintArguments& arguments, const ChannelFactory& openChannel) {
    Document document(arguments.file);
    const auto channel = openChannel();
    const Interruption interruption;
    Progress progress(!arguments.json);
    JobState state;
    auto printed =
        std::async(std::launch::async, [&] { return Print(arguments, document, *channel, state); });
    while (printed.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
        if (interruption.Requested()) {
            progress.Clear();
            Stop(arguments, state, document);
        }
        progress.Show(Shown(state, document.Size()));
    }
    progress.Clear();
    const std::string outcome = printed.get();
    if (arguments.json) {
        PrintJson({{"name", arguments.port},
                   {"port", arguments.port},
                   {"file", arguments.file},
                   {"bytes", state.sent.load()},
                   {"outcome", outcome}});
    } else {
        std::cout << document.Name() << ": " << state.sent << " bytes " << outcome << '\n';
    }
}

}  // namespace

void AddPrintCommand(CLI::App& app, const ChannelFactory& openChannel) {
    const auto [command, arguments] = AddCommand<PrintArguments>(
        app, "print", "Send a file unchanged through a port",
        "print report.prn --port OFFICE --as \"Monthly report\"",
        [openChannel](const PrintArguments& given) { RunPrint(given, openChannel); });
    AddText(command, "FILE", arguments.file,
            "File in the language of the printer; - for standard input")
        .required();
    AddText(command, "--port", arguments.port, "The port").required();
    AddText(command, "--as", arguments.name, "Name of the print job (the file name)");
    command.add_option("--printer", arguments.printer,
                       "Printer to use (one that uses the port); with --direct the printer for job "
                       "control (the default printer)");
    AddJsonFlag(command, arguments.json);
}
