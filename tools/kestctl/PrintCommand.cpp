// kestctl print
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>

#include "diag/Resource.h"
#include "tools/kestctl/Command.h"
#include "admin/PortStore.h"
#include "admin/Text.h"

namespace {

constexpr size_t kChunk = 65536;

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
    size_t Read(std::vector<BYTE>& buffer) {
        DWORD count = 0;
        if (!ReadFile(file_.Get(), buffer.data(), static_cast<DWORD>(buffer.size()), &count,
                      nullptr)) {
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

// A bar that grows on a terminal, and nothing anywhere else.
class Progress {
  public:
    explicit Progress(uint64_t total) : total_(total), shown_(OutputIsTerminal()) {}
    ~Progress() {
        if (shown_) {
            std::cout << "\r" << std::string(kWidth + 40, ' ') << '\r' << std::flush;
        }
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Show(uint64_t done) {
        const auto now = std::chrono::steady_clock::now();
        if (!shown_ || (done < total_ && now < next_)) {
            return;
        }
        next_ = now + std::chrono::milliseconds(100);
        const double part = std::min(1.0, static_cast<double>(done) / static_cast<double>(total_));
        const auto filled = static_cast<size_t>(part * kWidth);
        std::ostringstream line;
        line << "\r[" << std::string(filled, '#') << std::string(kWidth - filled, '.') << "] "
             << std::setw(3) << static_cast<int>(part * 100) << " %  " << std::fixed
             << std::setprecision(1) << static_cast<double>(done) / 1e6 << " of "
             << static_cast<double>(total_) / 1e6 << " MB";
        std::cout << line.str() << std::flush;
    }

  private:
    static constexpr size_t kWidth = 30;
    uint64_t total_;
    bool shown_;
    std::chrono::steady_clock::time_point next_;
};

// Sends the whole document; a job may take fewer bytes at a time than it is offered.
void Send(Document& document, PrintJob& job) {
    Progress progress(document.Size());
    std::vector<BYTE> buffer(kChunk);
    uint64_t sent = 0;
    try {
        while (const size_t count = document.Read(buffer)) {
            for (size_t taken = 0; taken < count;) {
                const size_t step = job.Write(buffer.data() + taken, count - taken);
                taken += step;
                sent += step;
                progress.Show(sent);
            }
        }
        job.End();
    } catch (const CommandFailed& failed) {
        throw CommandFailed("not printed, stopped after " + std::to_string(sent) + " of " +
                                std::to_string(document.Size()) + " bytes: " + failed.what(),
                            failed.remedy, failed.subject);
    }
}

}  // namespace

void AddPrintCommand(CLI::App& app, const ChannelFactory& openChannel) {
    struct Arguments {
        std::string file;
        std::string port;
        std::string name;
        std::string printer;
    };
    CLI::App& command = *app.add_subcommand("print", "Send a file, as it is, through a port");
    AddExample(command, "print report.prn --port OFFICE --as \"Monthly report\"");
    const auto arguments = std::make_shared<Arguments>();
    command.add_option("FILE", arguments->file, "A file in the printer's own language")
        ->required()
        ->check(NotEmpty());
    command.add_option("--port", arguments->port, "The port")->required()->check(NotEmpty());
    command.add_option("--as", arguments->name, "The job's name in the queue (the file's name)")
        ->check(NotEmpty());
    command.add_option("--printer", arguments->printer,
                       "The queue to use (one that prints to the port); with --direct the printer "
                       "that the job is controlled by (the default printer)");
    command.callback([arguments, openChannel] {
        const std::filesystem::path path(ToWide(arguments->file));
        Document document(path);
        const auto channel = openChannel();
        const std::wstring port = FindPort(*channel, ToWide(arguments->port));
        const std::wstring name =
            arguments->name.empty() ? path.filename().native() : ToWide(arguments->name);
        const auto job = channel->StartJob(port, name, ToWide(arguments->printer));
        Send(document, *job);
        std::cout << arguments->file << ": " << document.Size() << " bytes " << job->Outcome()
                  << '\n';
    });
}
