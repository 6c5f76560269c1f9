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
#include <optional>
#include <sstream>

#include "admin/ports/PortStore.h"
#include "base/Text.h"
#include "base/Handles.h"
#include "kestctl/Command.h"
#include "kestctl/Interruption.h"
#include "kestctl/Progress.h"

namespace {

// What the monitor is offered at a time, in bytes.
constexpr size_t kSmallestChunk = 64 << 10;
constexpr size_t kLargestChunk = 1 << 20;

// The name for standard input in place of a file's.
constexpr char kStandardInput[] = "-";

// A document, read from its start to its end.
class Document {
  public:
    explicit Document(const std::string& file)
        : name_(file == kStandardInput ? "standard input" : file) {
        if (file == kStandardInput) {
            input_ = GetStdHandle(STD_INPUT_HANDLE);
            // A job is begun only when there is something to print.
            first_.resize(kSmallestChunk);
            first_.resize(ReadInput(first_.data(), first_.size()));
        } else {
            file_.Reset(CreateFileW(Utf8ToWide(file).c_str(), GENERIC_READ, FILE_SHARE_READ,
                                    nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
            input_ = file_.Get();
            LARGE_INTEGER size = {};
            if (!file_ || !GetFileSizeEx(file_.Get(), &size)) {
                Fail(GetLastError());
            }
            size_ = static_cast<uint64_t>(size.QuadPart);
        }
        if (size_.value_or(first_.size()) == 0) {
            throw CommandFailed(name_ + " is empty");
        }
    }

    // As it is called in reports.
    const std::string& Name() const { return name_; }

    // None where only the end will tell.
    std::optional<uint64_t> Size() const { return size_; }

    // Returns the bytes that were read, 0 at the end.
    //   room: at least kSmallestChunk.
    size_t Read(BYTE* to, size_t room) {
        if (const std::vector<BYTE> first = std::exchange(first_, {}); !first.empty()) {
            std::copy(first.begin(), first.end(), to);
            return first.size();
        }
        return ReadInput(to, room);
    }

  private:
    size_t ReadInput(BYTE* to, size_t room) {
        DWORD count = 0;
        // A pipe whose writer has gone has come to its end.
        if (!ReadFile(input_, to, static_cast<DWORD>(room), &count, nullptr) &&
            GetLastError() != ERROR_BROKEN_PIPE) {
            Fail(GetLastError());
        }
        return count;
    }
    [[noreturn]] void Fail(DWORD error) {
        throw CommandFailed(name_ + " cannot be read: " + ErrorText(error));
    }

    std::string name_;
    UniqueFile file_;
    HANDLE input_ = nullptr;
    std::vector<BYTE> first_;  // of standard input, read before the job was begun
    std::optional<uint64_t> size_;
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

// How far the job is, as a bar where the document's size is known.
std::string Shown(uint64_t sent, const std::optional<uint64_t>& size) {
    return size ? Bar(sent, *size) + "  " + Amounts(sent, *size)
                : std::to_string(sent) + " bytes sent";
}

// "1000 of 3000 bytes", or "1000 bytes".
std::string SentOf(uint64_t sent, const std::optional<uint64_t>& size) {
    return std::to_string(sent) + (size ? " of " + std::to_string(*size) : "") + " bytes";
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
        arguments.name.empty()
            ? std::filesystem::path(Utf8ToWide(document.Name())).filename().native()
            : Utf8ToWide(arguments.name);
    const auto job = channel.StartJob(FindPort(channel, Utf8ToWide(arguments.port)), name,
                                      Utf8ToWide(arguments.printer));
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
        throw CommandFailed("not printed, stopped after " + SentOf(state.sent, document.Size()) +
                                ": " + failed.what(),
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
    const std::string message =
        document.Name() + ": stopped after " + SentOf(state.sent, document.Size());
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
        progress.Show(state.ending     ? "all sent, waiting for the printer to close"
                      : !state.started ? "connecting"
                                       : Shown(state.sent, document.Size()));
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
    CLI::App& command = *app.add_subcommand("print", "Send a file unchanged through a port");
    AddExample(command, "print report.prn --port OFFICE --as \"Monthly report\"");
    const auto arguments = std::make_shared<PrintArguments>();
    command
        .add_option("FILE", arguments->file,
                    "File in the language of the printer; - for standard input")
        ->required()
        ->check(NotEmpty());
    command.add_option("--port", arguments->port, "The port")->required()->check(NotEmpty());
    command.add_option("--as", arguments->name, "Name of the print job (the file name)")
        ->check(NotEmpty());
    command.add_option("--printer", arguments->printer,
                       "Printer to use (one that uses the port); with --direct the printer for job "
                       "control (the default printer)");
    AddJsonFlag(command, arguments->json);
    command.callback([arguments, openChannel] { RunPrint(*arguments, openChannel); });
}
