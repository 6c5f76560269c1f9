#include "bench/soak/Watch.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <mutex>

#include "monitor/Lpr.h"
#include "bench/soak/Plan.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t Now() {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
        .count();
}

// For the work itself, while all the others do theirs.
constexpr double kSlack = 5;
// A call that needs the lock may come behind an acknowledgment that every LPR port waits for.
constexpr uint32_t kLprPorts = kPorts - kPorts / 3;
constexpr double kLock = kAcknowledgeSeconds * kLprPorts;
// A printer of the soak goes on after a third of a second at the latest.
constexpr double kPrinter = 1;

constexpr int kSlots = 256;
constexpr uint64_t kMostLines = 100;

}  // namespace

struct Slot {
    std::atomic<bool> taken = false;
    std::atomic<int> call = 0;
    std::atomic<int64_t> since = 0;
    std::atomic<int64_t> latenessBefore = 0;
};

namespace {

Slot slots[kSlots];

// In all, in microseconds.
std::atomic<int64_t> lateness = 0;

double Allowed(const Slot& slot) {
    return calls[slot.call].bound * 1e6 + static_cast<double>(lateness - slot.latenessBefore);
}

}  // namespace

std::atomic<uint64_t> violations = 0;

CallRecord calls[] = {
    {"OpenPort", kLock + kSlack, "the lock"},
    {"ClosePort", kSlack, "waits for nothing"},
    {"StartDocPort, RAW", kLock + kSlack, "the lock"},
    {"StartDocPort, LPR", 4 * kAcknowledgeSeconds + kLock + kSlack, "4 acknowledgments, the lock"},
    {"WritePort", kPrinter + kSlack, "the printer"},
    {"ReadPort", kSlack, "waits for nothing"},
    {"EndDocPort, RAW", kPrinter + kSlack, "the printer"},
    {"EndDocPort, LPR", 2 * kAcknowledgeSeconds + kPrinter + kLock + kSlack,
     "2 acknowledgments, the printer, the lock"},
    {"EnumPorts", kLock + kSlack, "the lock"},
    {"AddPort, AddPortEx", kLock + kSlack, "the lock"},
    {"DeletePort", kLock + kSlack, "the lock"},
    {"XcvDataPort, others", kSlack, "waits for nothing"},
    {"XcvOpenPort", kSlack, "waits for nothing"},
    {"XcvClosePort", kLock + kSlack, "the lock"},
};
static_assert(std::size(calls) == static_cast<size_t>(Call::Count));

void Violated(const std::string& what) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    if (++violations <= kMostLines) {
        printf("VIOLATED: %s\n", what.c_str());
    }
}

CallScope::CallScope(Call call) : slot_(slots) {
    while (slot_->taken.exchange(true)) {
        slot_ = slot_ + 1 < slots + kSlots ? slot_ + 1 : slots;
    }
    slot_->call = static_cast<int>(call);
    slot_->latenessBefore = lateness.load();
    slot_->since = Now();
}

CallScope::~CallScope() {
    const DWORD lastError = GetLastError();
    CallRecord& record = calls[slot_->call];
    const int64_t took = Now() - slot_->since.exchange(0);
    const double allowed = Allowed(*slot_);
    slot_->taken = false;
    ++record.count;
    record.total += took;
    int64_t longest = record.longest;
    while (took > longest && !record.longest.compare_exchange_weak(longest, took)) {
    }
    if (static_cast<double>(took) > allowed) {
        Violated(std::string(record.name) + " took " + std::to_string(took / 1000) +
                 " ms, and may take " + std::to_string(static_cast<int64_t>(allowed / 1000)));
    }
    SetLastError(lastError);
}

double Lateness() {
    return static_cast<double>(lateness) / 1e6;
}

bool HasHang() {
    for (const Slot& slot : slots) {
        const int64_t since = slot.since;
        if (since != 0 && static_cast<double>(Now() - since) > 2 * Allowed(slot) + 60e6) {
            Violated(std::string(calls[slot.call].name) + " does not come back");
            return true;
        }
    }
    return false;
}

void PrintCallsUnderWay() {
    printf("\ncalls under way\n");
    for (const Slot& slot : slots) {
        if (const int64_t since = slot.since; since != 0) {
            printf("  %-32s %8.1f s\n", calls[slot.call].name,
                   static_cast<double>(Now() - since) / 1e6);
        }
    }
}

LatenessClock::LatenessClock()
    : thread_([this] {
          constexpr DWORD kWait = 10;
          const HANDLE never = CreateEventW(nullptr, TRUE, FALSE, nullptr);
          while (!done_) {
              const int64_t begin = Now();
              WaitForSingleObject(never, kWait);
              lateness += std::max<int64_t>(Now() - begin - int64_t{1000} * kWait, 0);
          }
          CloseHandle(never);
      }) {}

LatenessClock::~LatenessClock() {
    done_ = true;
    thread_.join();
}
