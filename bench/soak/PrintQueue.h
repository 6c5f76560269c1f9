// One port of the soak, and the spooler's thread that prints on it.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "bench/soak/Plan.h"
#include "tests/support/FakeSpooler.h"

// What all of a soak's threads share.
struct Tally {
    std::atomic<uint64_t> jobs[static_cast<int>(Protocol::Count)] = {};
    std::atomic<uint64_t> bytes[static_cast<int>(Protocol::Count)] = {};  // of jobs, as sent
    std::atomic<uint64_t> replays[static_cast<int>(Protocol::Count)] = {};
    std::atomic<uint64_t> behaviours[static_cast<int>(Behaviour::Count)] = {};
    std::atomic<uint64_t> whole = 0;      // jobs that had to arrive whole, and did
    std::atomic<uint64_t> lost = 0;       // reported as sent, but damaged by a fault on their way
    std::atomic<uint64_t> leftFiles = 0;  // temporary files of announcements that were not taken
    std::atomic<uint64_t> listed = 0;
    std::atomic<uint64_t> added = 0;
    std::atomic<uint64_t> changed = 0;
    std::atomic<uint64_t> deleted = 0;
    std::atomic<uint64_t> replaced = 0;  // ports with jobs, deleted and added again
};
extern Tally tally;

const char* NameOf(Protocol protocol);
const char* NameOf(Behaviour behaviour);

class PrintQueue {
  public:
    PrintQueue(FakeSpooler& spooler, uint64_t seed, uint32_t number);
    PrintQueue(const PrintQueue&) = delete;
    PrintQueue& operator=(const PrintQueue&) = delete;

    const std::wstring& Name() const { return name_; }

    // Prints this port's jobs from the next one on, while it may.
    void Print(const std::function<bool(uint64_t job)>& mayPrint);
    // Prints one that nothing goes wrong with, and looks that the port is idle behind it.
    void PrintQuietly();
    // Waits until the printer has nobody left to serve.
    void WaitForPrinter();

    // Deletes the port and adds it again, as an administrator does: never two at the same time.
    void Replace();
    // The port's configuration, which is always the same.
    void Configure() const;

  private:
    struct Attempt;

    bool Reopen();
    void PrintJob(uint64_t job);
    bool Try(uint64_t job, const AttemptPlan& plan, const std::string& document);
    bool Run(Attempt& attempt, const std::string& document);
    bool Start(Attempt& attempt);
    bool Write(Attempt& attempt, const std::string& document);
    void Look(const Attempt& attempt, const std::string& document, bool faultless, int filesLeft);
    void ServeVisitor(PeerConnection& connection);

    FakeSpooler& spooler_;
    const uint64_t seed_;
    const uint32_t number_;
    const Protocol protocol_;
    const std::wstring name_;
    uint64_t nextJob_;
    HANDLE port_ = nullptr;
    long spooled_ = 0;  // bytes, in all, into temporary files of this port entry
    std::mutex replacing_;
    std::atomic<uint32_t> epoch_ = 0;  // odd while the port is being replaced

    std::mutex visitsMutex_;
    std::map<uint32_t, std::shared_ptr<Visit>> visits_;  // by the address that they come from
    uint32_t nextVisitor_ = 0;
    std::atomic<int> visitors_ = 0;
    RefusingPort refusing_;
    std::unique_ptr<TcpPeer> printer_;  // last: its threads use the rest
};

// What the fake spooler is told by the monitor, on the thread of the job. To be its listener.
LONG ListenToMonitor(const std::string& call);
