// What a soak does, job by job. All of it follows from one number, so that a run that found a fault
// can be had again.
#pragma once

#include <cstdint>
#include <string>

#include "bench/soak/Injection.h"
#include "tests/support/OddPrinter.h"

constexpr uint32_t kPorts = 16;
constexpr uint32_t kSharedPorts = 3;  // beside them, one of each protocol

enum class Protocol { Raw, Lpr, DoubleSpooledLpr, Count };

// A generator of numbers that gives the same ones for the same seeds.
class Random {
  public:
    explicit Random(uint64_t seed, uint64_t first = 0, uint64_t second = 0) : state_(seed) {
        state_ = Next() + first;
        state_ = Next() + second;
    }
    uint64_t Next() {
        uint64_t z = state_ += 0x9E3779B97F4A7C15;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
        return z ^ (z >> 31);
    }
    // From 0 to limit - 1.
    uint32_t Below(uint32_t limit) { return static_cast<uint32_t>(Next() % limit); }
    bool Happens(double probability) { return Below(1'000'000) < probability * 1'000'000; }

  private:
    uint64_t state_;
};

// One run of a job through its port.
struct AttemptPlan {
    Behaviour behaviour = Behaviour::Takes;
    size_t after = 0;
    int step = 0;
    int milliseconds = 0;
    Strike strike;
    uint32_t piece = 65536;  // bytes that the spooler offers at a time
    bool reads = false;      // asks for what the printer sends, between the pieces
};

Protocol ProtocolOf(uint32_t port);
uint32_t PortOfJob(uint64_t job);

// Nothing goes wrong from the attempt of this number on.
constexpr int kQuietAttempt = 5;

size_t SizeOfJob(uint64_t seed, uint64_t job);
std::string Document(uint64_t seed, uint64_t job);
AttemptPlan PlanAttempt(uint64_t seed, uint64_t job, int attempt);

// SHA-256 of the plan of the jobs from 0 to jobs - 1, as text.
std::string PlanDigest(uint64_t seed, uint64_t jobs);

// SHA-256 of the bytes, as text.
std::string Sha256(const std::string& bytes);
