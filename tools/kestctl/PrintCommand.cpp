// kestctl print
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <iomanip>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>

#include "admin/PortStore.h"
#include "admin/Text.h"
#include "diag/Resource.h"
#include "tools/kestctl/Command.h"
#include "tools/kestctl/Interruption.h"
#include "tools/kestctl/Progress.h"

namespace {

// What the monitor is offered at a time, in bytes.
constexpr size_t kSmallestChunk = 64 << 10;
constexpr size_t kLargestChunk = 1 << 20;

// A document, read from its start to its end.
class Document {
  public:
    explicit Document(const std::filesystem::path& path) : path_(ToUtf8(path.native())) {
        file_.Reset(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
        LARGE_INTEGER size = {};
        if (!file_ || !GetFileSizeEx(file_.Get(), &size)) {
            Fail();
        }
        size_ = static_cast<uint64_t>(size.QuadPart);
        if (size_ == 0) {
            throw CommandFailed(path_ + " is empty: there is nothing to print");
        }
    }

    uint64_t Size() const { return size_; }

    // Returns the bytes that were read, 0 at the end.
    size_t Read(BYTE* to, size_t room) {
        DWORD count = 0;
        if (!ReadFile(file_.Get(), to, static_cast<DWORD>(room), &count, nullptr)) {
            Fail();
        }
        return count;
    }

  private:
    [[noreturn]] void Fail() {
        throw CommandFailed(path_ + " cannot be read: " + ErrorText(GetLastError()));
    }

    std::string path_;
    UniqueFile file_;
    uint64_t size_ = 0;
};

// How far a job is, for the thread that shows it.
struct JobState {
    std::atomic<uint64_t> sent = 0;  // bytes
    std::atomic<bool> started = false;
    std::atomic<bool> ending = false;  // all sent
    std::mutex mutex;
    PrintJob* job = nullptr;  // while it can be given up
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

std::string Bar(uint64_t done, uint64_t total) {
    constexpr size_t kWidth = 30;
    const double part = std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
    const auto filled = static_cast<size_t>(part * kWidth);
    return '[' + std::string(filled, '#') + std::string(kWidth - filled, '.') + "] " +
           std::to_string(static_cast<int>(part * 100)) + " %  " + Amounts(done, total);
}

// Sends the whole document; a job may take fewer bytes at a time than it is offered. What it is
// offered grows while it takes it quickly: large pieces cost the least, small ones show how a slow
// printer gets on.
void Send(Document& document, PrintJob& job, JobState& state) {
    using namespace std::chrono;
    std::vector<BYTE> buffer(kLargestChunk);
    size_t chunk = kSmallestChunk;
    while (const size_t count = document.Read(buffer.data(), chunk)) {
        const auto begin = steady_clock::now();
        for (size_t taken = 0; taken < count;) {
            const size_t step = job.Write(buffer.data() + taken, count - taken);
            taken += step;
            state.sent += step;
        }
        const auto took = steady_clock::now() - begin;
        if (took < milliseconds(50)) {
            chunk = std::min(2 * chunk, kLargestChunk);
        } else if (took > milliseconds(500)) {
            chunk = std::max(chunk / 2, kSmallestChunk);
        }
    }
    state.ending = true;
    job.End();
}

struct PrintArguments {
    std::string file;
    std::string port;
    std::string name;
    std::string printer;
    bool json = false;
};

// Prints the document. Returns the job's outcome.
std::string Print(const PrintArguments& arguments, Document& document, SpoolerChannel& channel,
                  JobState& state) {
    const std::wstring name =
        arguments.name.empty() ? std::filesystem::path(ToWide(arguments.file)).filename().native()
                               : ToWide(arguments.name);
    const auto job = channel.StartJob(FindPort(channel, ToWide(arguments.port)), name,
                                      ToWide(arguments.printer));
    struct Published {
        Published(JobState& where, PrintJob* what) : state(where) { Set(what); }
        ~Published() { Set(nullptr); }
        void Set(PrintJob* what) {
            const std::lock_guard lock(state.mutex);
            state.job = what;
        }
        JobState& state;
    } published(state, job.get());
    state.started = true;
    try {
        Send(document, *job, state);
    } catch (const CommandFailed& failed) {
        throw CommandFailed("not printed, stopped after " + std::to_string(state.sent) + " of " +
                                std::to_string(document.Size()) + " bytes: " + failed.what(),
                            failed.remedy, failed.subject);
    }
    return job->Outcome();
}

// Ctrl-C ends the job wherever it waits, and the program with it.
[[noreturn]] void Stop(const PrintArguments& arguments, JobState& state, uint64_t size) {
    {
        const std::lock_guard lock(state.mutex);
        if (state.job != nullptr) {
            state.job->Abandon();
        }
    }
    const std::string message = arguments.file + ": stopped after " + std::to_string(state.sent) +
                                " of " + std::to_string(size) + " bytes";
    if (arguments.json) {
        PrintJson({{"error", message}, {"exitCode", kInterrupted}});
    } else {
        std::cerr << "kestctl: " << message << '\n';
    }
    EndInterrupted();
}

void RunPrint(const PrintArguments& arguments, const ChannelFactory& openChannel) {
    const std::filesystem::path path(ToWide(arguments.file));
    Document document(path);
    const auto channel = openChannel();
    const Interruption interruption;
    Progress progress(!arguments.json);
    JobState state;
    auto printed =
        std::async(std::launch::async, [&] { return Print(arguments, document, *channel, state); });
    while (printed.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
        if (interruption.Requested()) {
            progress.Clear();
            Stop(arguments, state, document.Size());
        }
        progress.Show(state.ending     ? "all sent, waiting for the printer to close"
                      : !state.started ? "connecting"
                                       : Bar(state.sent, document.Size()));
    }
    progress.Clear();
    const std::string outcome = printed.get();
    if (arguments.json) {
        PrintJson({{"file", arguments.file},
                   {"port", arguments.port},
                   {"bytes", document.Size()},
                   {"outcome", outcome}});
    } else {
        std::cout << arguments.file << ": " << document.Size() << " bytes " << outcome << '\n';
    }
}

}  // namespace

void AddPrintCommand(CLI::App& app, const ChannelFactory& openChannel) {
    CLI::App& command = *app.add_subcommand("print", "Send a file, as it is, through a port");
    AddExample(command, "print report.prn --port OFFICE --as \"Monthly report\"");
    const auto arguments = std::make_shared<PrintArguments>();
    command.add_option("FILE", arguments->file, "A file in the printer's own language")
        ->required()
        ->check(NotEmpty());
    command.add_option("--port", arguments->port, "The port")->required()->check(NotEmpty());
    command.add_option("--as", arguments->name, "The job's name in the queue (the file's name)")
        ->check(NotEmpty());
    command.add_option("--printer", arguments->printer,
                       "The queue to use (one that prints to the port); with --direct the printer "
                       "that the job is controlled by (the default printer)");
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel] { RunPrint(*arguments, openChannel); });
}
