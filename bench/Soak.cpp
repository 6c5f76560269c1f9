// Years inside the spooler in an hour: jobs through many ports at once, to printers that misbehave,
// on a system whose calls fail, while somebody manages the ports. Ends with 1 when anything was not
// as it has to be; tests/README.md tells how to read what it prints.
//
//   Soak [--jobs N] [--minutes M] [--seed S] [--log FILE] [--watch]
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "bench/soak/Administrator.h"
#include "bench/soak/SharedPort.h"
#include "bench/soak/Watch.h"
#include "tests/support/HandleCount.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTenths = 10;
constexpr uint32_t kAdministrators = 3;
constexpr uint64_t kDefaultJobs = 100'000;
constexpr std::chrono::minutes kStandstill{5};  // longer than any job, and its replays, may take

struct Settings {
    uint64_t jobs = 0;  // 0: as many as the time allows
    double minutes = 0;
    uint64_t seed = 1;
    std::string log;  // empty: none
    bool watch = false;
};

long HeapInUse() {
    HANDLE heaps[64];
    const DWORD count = std::min<DWORD>(GetProcessHeaps(std::size(heaps), heaps), 64);
    size_t bytes = 0;
    for (DWORD i = 0; i < count; ++i) {
        PROCESS_HEAP_ENTRY entry = {};
        HeapLock(heaps[i]);
        while (HeapWalk(heaps[i], &entry)) {
            bytes += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0 ? entry.cbData : 0;
        }
        HeapUnlock(heaps[i]);
    }
    return static_cast<long>(bytes / 1024);
}

// Threads that have ended give their handles back a little later.
long SettledHandles() {
    size_t least = CountHandles();
    for (int i = 0; i < 10; ++i) {
        Sleep(50);
        least = std::min(least, CountHandles());
    }
    return static_cast<long>(least);
}

long GuiObjects() {
    return static_cast<long>(GetGuiResources(GetCurrentProcess(), GR_GDIOBJECTS) +
                             GetGuiResources(GetCurrentProcess(), GR_USEROBJECTS));
}

// Beside those whose announcement was not taken: they stay, on purpose.
long FilesTooMany() {
    auto files = -static_cast<long>(tally.leftFiles);
    for (const auto& entry :
         std::filesystem::directory_iterator(std::filesystem::temp_directory_path())) {
        files += entry.path().extension() == ".tmp";
    }
    return files;
}

// What a process holds when nothing runs, and how much more than after the first tenth may be there
// at the end. The monitor's own is counted where it takes it; of memory its C++ library takes some
// pieces once, when it first needs them. Wine's handles and this program's heap are rougher.
struct Measure {
    const char* name;
    long tolerance;
    long (*take)();
};
constexpr Measure kMeasures[] = {
    {"blocks of the monitor", 0, [] { return held.blocks.load(); }},
    {"sockets of the monitor", 0, [] { return held.sockets.load(); }},
    {"address lists of the monitor", 0, [] { return held.addressLists.load(); }},
    {"printers of the monitor", 0, [] { return held.printers.load(); }},
    {"handles of the process", 32, SettledHandles},
    {"heap in use, KiB", 1024, HeapInUse},
    {"GDI and USER objects", 0, GuiObjects},
    {"temporary files too many", 0, FilesTooMany},
};
constexpr size_t kMeasureCount = std::size(kMeasures);
using Measurement = std::array<long, kMeasureCount>;

class Soak {
  public:
    explicit Soak(const Settings& settings) : settings_(settings) {
        folder_ = std::filesystem::temp_directory_path() /
                  ("kestmon soak " + std::to_string(GetCurrentProcessId()));
        std::filesystem::create_directory(folder_);
        SetEnvironmentVariableW(L"TMP", folder_.c_str());
        spooler_.listener = ListenToMonitor;
        if (!spooler_.Start()) {
            throw std::runtime_error("the monitor does not start");
        }
        for (uint32_t i = 0; i < kPorts; ++i) {
            queues_.push_back(std::make_unique<PrintQueue>(spooler_, settings.seed, i));
        }
        for (uint32_t i = 0; i < kSharedPorts; ++i) {
            sharedPorts_.push_back(std::make_unique<SharedPort>(spooler_, settings.seed, i));
        }
        for (uint32_t i = 0; i < kAdministrators; ++i) {
            administrators_.emplace_back(spooler_, settings.seed, i, queues_);
        }
    }
    ~Soak() {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    Soak(const Soak&) = delete;
    Soak& operator=(const Soak&) = delete;

    void Run() {
        const LatenessClock clock;
        std::thread watch([this] { Watch(); });
        for (int tenth = 1; tenth <= kTenths; ++tenth) {
            RunTenth(tenth);
            Measurement& measurement = measurements_.emplace_back();
            std::transform(std::begin(kMeasures), std::end(kMeasures), measurement.begin(),
                           [](const Measure& measure) { return measure.take(); });
        }
        done_ = true;
        watch.join();
        Judge();
        Report();
    }

  private:
    double Minutes() const {
        return std::chrono::duration<double, std::ratio<60>>(Clock::now() - begin_).count();
    }

    void RunTenth(int tenth) {
        const auto mayPrint = [&](uint64_t job) {
            return (settings_.jobs == 0 || job < settings_.jobs * tenth / kTenths) &&
                   (settings_.minutes == 0 || Minutes() < settings_.minutes * tenth / kTenths);
        };
        std::atomic<bool> printed = false;
        std::vector<std::thread> managing;
        for (Administrator& administrator : administrators_) {
            managing.emplace_back([&] {
                while (!printed) {
                    administrator.Work();
                }
            });
        }
        for (auto& port : sharedPorts_) {
            for (uint32_t caller = 0; caller < SharedPort::kCallers; ++caller) {
                managing.emplace_back([&printed, &port, caller] {
                    while (!printed) {
                        port->Use(caller);
                    }
                });
            }
        }
        std::vector<std::thread> printing;
        for (auto& queue : queues_) {
            printing.emplace_back([&] { queue->Print(mayPrint); });
        }
        for (std::thread& thread : printing) {
            thread.join();
        }
        printed = true;
        for (std::thread& thread : managing) {
            thread.join();
        }
        for (auto& queue : queues_) {
            queue->PrintQuietly();
            queue->WaitForPrinter();
        }
        for (auto& port : sharedPorts_) {
            port->PrintQuietly();
        }
    }

    void Watch() {
        int minute = 0;
        while (!done_) {
            Sleep(1000);
            if (HasHang()) {
                Report();
                PrintCallsUnderWay();
                TerminateProcess(GetCurrentProcess(), 1);  // its threads cannot be ended otherwise
            }
            uint64_t jobs = 0;
            uint64_t replays = 0;
            for (size_t i = 0; i < std::size(tally.jobs); ++i) {
                jobs += tally.jobs[i];
                replays += tally.replays[i];
            }
            if (IsStandstill(jobs)) {
                Report();
                PrintCallsUnderWay();
                TerminateProcess(GetCurrentProcess(), 1);
            }
            char line[160];
            snprintf(line, sizeof(line), "%5.1f min: %llu jobs, %llu replays, %llu violations",
                     Minutes(), static_cast<unsigned long long>(jobs),
                     static_cast<unsigned long long>(replays),
                     static_cast<unsigned long long>(violations));
            if (settings_.watch) {
                fprintf(stderr, "\r%s ", line);
            }
            if (!settings_.log.empty() && Minutes() >= minute) {
                ++minute;
                if (FILE* log = fopen(settings_.log.c_str(), "a")) {
                    fprintf(log, "%s\n", line);
                    fclose(log);
                }
            }
        }
        if (settings_.watch) {
            fprintf(stderr, "\n");
        }
    }

    // Whether no job has come to its end for so long that none will.
    bool IsStandstill(uint64_t jobs) {
        if (jobs != jobsBefore_) {
            jobsBefore_ = jobs;
            jobsChanged_ = Clock::now();
        }
        if (Clock::now() - jobsChanged_ < kStandstill) {
            return false;
        }
        Violated("no job comes to its end any more");
        return true;
    }

    void Judge() const {
        const Measurement& first = measurements_.front();
        const Measurement& last = measurements_.back();
        for (size_t i = 0; i < kMeasureCount; ++i) {
            if (last[i] > first[i] + kMeasures[i].tolerance) {
                Violated(std::string(kMeasures[i].name) + " have become more: " +
                         std::to_string(first[i]) + ", then " + std::to_string(last[i]));
            }
        }
    }

    void Report() const {
        printf("\njobs%31s %10s %14s %10s\n", "", "done", "bytes", "replays");
        for (int i = 0; i < static_cast<int>(Protocol::Count); ++i) {
            printf("  %-32s %10llu %14llu %10llu\n", NameOf(static_cast<Protocol>(i)),
                   Number(tally.jobs[i]), Number(tally.bytes[i]), Number(tally.replays[i]));
        }
        const struct {
            const char* name;
            uint64_t count;
        } lines[] = {{"had to arrive whole, and did", tally.whole},
                     {"damaged by a fault, sent for all that", tally.lost},
                     {"temporary files left, as they may be", tally.leftFiles},
                     {"of callers that share a port", tally.shared},
                     {"ended early, or by another caller", tally.endedEarly},
                     {"ports listed", tally.listed},
                     {"ports added", tally.added},
                     {"ports changed", tally.changed},
                     {"ports deleted", tally.deleted},
                     {"ports replaced under their jobs", tally.replaced}};
        for (const auto& line : lines) {
            printf("  %-38s %10llu\n", line.name, Number(line.count));
        }
        printf("\nprinters that\n");
        for (int i = 0; i < static_cast<int>(Behaviour::Count); ++i) {
            printf("  %-38s %10llu\n", NameOf(static_cast<Behaviour>(i)),
                   Number(tally.behaviours[i]));
        }
        printf("\ncalls that were made to fail\n");
        for (int i = 1; i < static_cast<int>(Fault::Count); ++i) {
            printf("  %-38s %10llu\n", NameOf(static_cast<Fault>(i)), Number(struck[i]));
        }
        printf("\ncalls%29s %10s %10s %12s %12s\n", "", "made", "mean, ms", "longest, s",
               "allowed, s");
        for (const CallRecord& call : calls) {
            printf("  %-32s %10llu %10.2f %12.3f %12.0f  %s\n", call.name, Number(call.count),
                   static_cast<double>(call.total) / 1000.0 /
                       static_cast<double>(std::max<uint64_t>(call.count, 1)),
                   static_cast<double>(call.longest) / 1e6, call.bound, call.reason);
        }
        printf("\nheld, with no job running, after each tenth\n");
        for (size_t i = 0; i < kMeasureCount; ++i) {
            printf("  %-30s", kMeasures[i].name);
            for (const Measurement& measurement : measurements_) {
                printf(" %7ld", measurement[i]);
            }
            printf("  (at most %ld more)\n", kMeasures[i].tolerance);
        }
        printf("\n%.1f minutes, %llu violations\n", Minutes(), Number(violations));
    }

    static unsigned long long Number(uint64_t number) { return number; }

    const Settings settings_;
    const Clock::time_point begin_ = Clock::now();
    std::filesystem::path folder_;
    FakeSpooler spooler_;
    InjectedImports imports_;
    std::vector<std::unique_ptr<PrintQueue>> queues_;
    std::vector<std::unique_ptr<SharedPort>> sharedPorts_;
    std::vector<Administrator> administrators_;
    std::vector<Measurement> measurements_;
    std::atomic<bool> done_ = false;
    uint64_t jobsBefore_ = 0;
    Clock::time_point jobsChanged_ = Clock::now();
};

Settings Parse(const std::vector<std::string>& arguments) {
    Settings settings;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& option = arguments[i];
        const auto value = [&] { return arguments.at(++i); };
        if (option == "--jobs") {
            settings.jobs = std::stoull(value());
        } else if (option == "--minutes") {
            settings.minutes = std::stod(value());
        } else if (option == "--seed") {
            settings.seed = std::stoull(value());
        } else if (option == "--log") {
            settings.log = value();
        } else if (option == "--watch") {
            settings.watch = true;
        } else {
            throw std::invalid_argument(option);
        }
    }
    if (settings.jobs == 0 && settings.minutes == 0) {
        settings.jobs = kDefaultJobs;
    }
    return settings;
}

}  // namespace

int main(int count, char** arguments) {
    setvbuf(stdout, nullptr, _IONBF, 0);
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
    try {
        const Settings settings = Parse({arguments + 1, arguments + count});
        const uint64_t planned = settings.jobs != 0 ? settings.jobs : kDefaultJobs;
        printf("seed %llu, plan of the first %llu jobs: %s\n",
               static_cast<unsigned long long>(settings.seed),
               static_cast<unsigned long long>(planned),
               PlanDigest(settings.seed, planned).c_str());
        Soak(settings).Run();
    } catch (const std::logic_error&) {
        printf("usage: soak [--jobs N] [--minutes M] [--seed S] [--log FILE] [--watch]\n");
        return 2;
    } catch (const std::exception& error) {
        printf("soak: %s\n", error.what());
        return 1;
    }
    return violations == 0 ? 0 : 1;
}
