// Watches a soak: how long each call into the monitor takes, beside how long it may, and what was
// not as it has to be.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

enum class Call {
    Open,
    Close,
    StartRaw,
    StartLpr,
    Write,
    Read,
    EndRaw,
    EndLpr,
    Enum,
    Add,
    Delete,
    Xcv,
    XcvOpen,
    XcvClose,
    Count
};

struct CallRecord {
    const char* name;
    double bound;        // seconds, on a machine that is never late
    const char* reason;  // for the bound
    std::atomic<uint64_t> count = 0;
    std::atomic<int64_t> total = 0;    // microseconds
    std::atomic<int64_t> longest = 0;  // microseconds
};
extern CallRecord calls[static_cast<int>(Call::Count)];

// Says what is not as it has to be, and counts it.
void Violated(const std::string& what);
extern std::atomic<uint64_t> violations;

// The call that a thread is in, for the length of a scope.
class CallScope {
  public:
    explicit CallScope(Call call);
    ~CallScope();
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

  private:
    struct Slot* slot_;
};

// Makes a call of the monitor; the last error is the call's afterwards.
template <class Function>
auto Timed(Call call, Function&& function) {
    const CallScope scope(call);
    return function();
}

// Looks how late the machine is, for as long as it lives: waits of a hundredth of a second, one
// after the other, through the same system that the monitor's calls go through. What they take
// beyond that is allowed to calls that are made meanwhile.
class LatenessClock {
  public:
    LatenessClock();
    ~LatenessClock();
    LatenessClock(const LatenessClock&) = delete;
    LatenessClock& operator=(const LatenessClock&) = delete;

  private:
    std::atomic<bool> done_ = false;
    std::thread thread_;
};

// How late the machine has been so far, in seconds.
double Lateness();

// Whether a call takes so much longer than it may that it will not come back; says which.
bool HasHang();

// Prints which calls have begun and not come back, for a run that does not go on.
void PrintCallsUnderWay();
