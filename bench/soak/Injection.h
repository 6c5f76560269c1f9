// Calls of the monitor into the system that fail when they are told to: on the thread that was
// told, and none other. What the monitor holds of the system is counted on the way.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

enum class Fault {
    None,
    // The spooler's.
    RegistryOpen,
    RegistryCreate,
    RegistryRead,
    RegistryWrite,
    RegistryDelete,
    UnknownPrinter,
    // Memory.
    GlobalMemory,
    Memory,
    // The connection.
    Resolve,
    Socket,
    Connect,
    SocketOption,
    Select,
    Send,
    Receive,
    Shutdown,
    // The temporary file.
    TempFolder,
    TempName,
    MakeFile,
    WriteFile,
    ReadFile,
    SeekFile,
    // No faults: less is done at a time than was asked for.
    ShortSend,
    ShortWrite,
    ShortRead,
    Count
};

const char* NameOf(Fault fault);

// Which of a thread's calls fails: the first-th of its kind (from 0), and as many as `times`.
struct Strike {
    Fault fault = Fault::None;
    int first = 0;
    int times = 1;
};

// The faults that a job can meet, and those that somebody can who manages ports.
struct FaultRange {
    Fault first, last;
    double probability;
};
constexpr FaultRange kJobFaults = {Fault::RegistryOpen, Fault::ShortRead, 0.1};
constexpr FaultRange kPortFaults = {Fault::RegistryOpen, Fault::Memory, 0.15};
Strike PlanStrike(uint64_t random, const FaultRange& range);

// Has this thread's calls fail for the length of a scope.
class Injection {
  public:
    explicit Injection(const Strike& strike);
    ~Injection();
    Injection(const Injection&) = delete;
    Injection& operator=(const Injection&) = delete;

    // Whether a call has failed so far.
    bool Struck() const;
    // How many of the temporary files that the thread has made are still there.
    int FilesLeft() const;
};

// Whether the call of this kind that the thread is about to make is one that fails.
bool Strikes(Fault fault) noexcept;

// The address on loopback that the thread's next connections come from: 127.0.0.0 and this.
// 0 leaves it to the system.
void ConnectFrom(uint32_t host) noexcept;
// Whether one of the thread's connections was made since.
bool HasConnected() noexcept;

// What the monitor holds at this moment.
struct Held {
    std::atomic<long> blocks = 0;  // of memory
    std::atomic<long> addressLists = 0;
    std::atomic<long> sockets = 0;
    std::atomic<long> printers = 0;
};
extern Held held;

// How often each fault has struck.
extern std::atomic<uint64_t> struck[static_cast<int>(Fault::Count)];

// Replaces the imports of the loaded kestmon.dll while it lives.
class InjectedImports {
  public:
    InjectedImports();
    ~InjectedImports();
    InjectedImports(const InjectedImports&) = delete;
    InjectedImports& operator=(const InjectedImports&) = delete;

  private:
    struct Patches;
    std::unique_ptr<Patches> patches_;
};
