#include "bench/soak/Plan.h"

#include <windows.h>
#include <bcrypt.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <stdexcept>

namespace {

// Each has a stream of numbers of its own.
enum Purpose : uint64_t { kSize, kDocument, kAttempt };

struct Chance {
    Behaviour behaviour;
    double probability;
};

// The waits for an acknowledgment are the long ones: few jobs meet them.
constexpr Chance kRawChances[] = {
    {Behaviour::Slow, 0.02},         {Behaviour::SendsBack, 0.04},
    {Behaviour::SendsLong, 0.01},    {Behaviour::HalfCloses, 0.03},
    {Behaviour::Refuses, 0.02},      {Behaviour::ClosesAtOnce, 0.02},
    {Behaviour::ClosesAfter, 0.025}, {Behaviour::ResetsAfter, 0.03},
};
constexpr Chance kLprChances[] = {
    {Behaviour::Slow, 0.02},         {Behaviour::AcksTwice, 0.03},
    {Behaviour::AcksLate, 0.005},    {Behaviour::HalfCloses, 0.015},
    {Behaviour::Refuses, 0.02},      {Behaviour::ClosesAtOnce, 0.015},
    {Behaviour::ClosesAfter, 0.02},  {Behaviour::ResetsAfter, 0.025},
    {Behaviour::AcksNegative, 0.02}, {Behaviour::AcksWrong, 0.02},
    {Behaviour::AcksNever, 0.0005},
};

template <size_t N>
Behaviour Choose(Random& random, const Chance (&chances)[N]) {
    double draw = random.Below(1'000'000) / 1e6;
    for (const Chance& chance : chances) {
        draw -= chance.probability;
        if (draw < 0) {
            return chance.behaviour;
        }
    }
    return Behaviour::Takes;
}

class Hash {
  public:
    Hash() {
        Check(BCryptOpenAlgorithmProvider(&provider_, BCRYPT_SHA256_ALGORITHM, nullptr, 0));
        Check(BCryptCreateHash(provider_, &hash_, nullptr, 0, nullptr, 0, 0));
    }
    ~Hash() {
        BCryptDestroyHash(hash_);
        BCryptCloseAlgorithmProvider(provider_, 0);
    }
    Hash(const Hash&) = delete;
    Hash& operator=(const Hash&) = delete;

    void Add(const void* bytes, size_t size) {
        Check(BCryptHashData(hash_, static_cast<PUCHAR>(const_cast<void*>(bytes)),
                             static_cast<ULONG>(size), 0));
    }
    std::string Text() {
        UCHAR digest[32];
        Check(BCryptFinishHash(hash_, digest, sizeof(digest), 0));
        std::string text(2 * sizeof(digest), '0');
        for (size_t i = 0; i < sizeof(digest); ++i) {
            snprintf(&text[2 * i], 3, "%02x", digest[i]);
        }
        return text;
    }

  private:
    static void Check(NTSTATUS status) {
        if (status < 0) {
            throw std::runtime_error("no SHA-256 here");
        }
    }
    BCRYPT_ALG_HANDLE provider_ = nullptr;
    BCRYPT_HASH_HANDLE hash_ = nullptr;
};

}  // namespace

uint32_t PortOfJob(uint64_t job) {
    return static_cast<uint32_t>(job % kPorts);
}

Protocol ProtocolOf(uint32_t port) {
    return static_cast<Protocol>(port % static_cast<uint32_t>(Protocol::Count));
}

size_t SizeOfJob(uint64_t seed, uint64_t job) {
    static constexpr struct {
        double share;
        uint32_t largest;
    } kSizes[] = {{0.02, 0}, {0.70, 2000}, {0.22, 32768}, {0.055, 262144}, {1, 4194304}};
    Random random(seed, job, kSize);
    double draw = random.Below(1'000'000) / 1e6;
    const auto* size = kSizes;
    while ((draw -= size->share) >= 0) {
        ++size;
    }
    return random.Below(size->largest + 1);
}

std::string Document(uint64_t seed, uint64_t job) {
    Random random(seed, job, kDocument);
    std::string bytes(SizeOfJob(seed, job), '\0');
    for (size_t at = 0; at < bytes.size(); at += sizeof(uint64_t)) {
        const uint64_t number = random.Next();
        memcpy(&bytes[at], &number, std::min(sizeof(number), bytes.size() - at));
    }
    return bytes;
}

AttemptPlan PlanAttempt(uint64_t seed, uint64_t job, int attempt) {
    AttemptPlan plan;
    Random random(seed, job, kAttempt + attempt);
    static constexpr uint32_t kPieces[] = {65536, 65536, 4096, 1000, 1 << 20};
    plan.piece = kPieces[random.Below(std::size(kPieces))];
    plan.reads = random.Happens(0.2);
    const bool raw = ProtocolOf(PortOfJob(job)) == Protocol::Raw;
    const Behaviour behaviour = raw ? Choose(random, kRawChances) : Choose(random, kLprChances);
    plan.after = random.Below(static_cast<uint32_t>(SizeOfJob(seed, job)) + 1);
    plan.step = static_cast<int>(random.Below(kSteps));
    plan.milliseconds = 20 + static_cast<int>(random.Below(300));
    const Strike strike = PlanStrike(random.Next(), kJobFaults);
    if (attempt < kQuietAttempt) {
        plan.behaviour = behaviour;
        plan.strike = strike;
    }
    return plan;
}

std::string PlanDigest(uint64_t seed, uint64_t jobs) {
    Hash hash;
    for (uint64_t job = 0; job < jobs; ++job) {
        for (int attempt = 0; attempt < kQuietAttempt; ++attempt) {
            const AttemptPlan plan = PlanAttempt(seed, job, attempt);
            const uint64_t numbers[] = {SizeOfJob(seed, job),
                                        static_cast<uint64_t>(plan.behaviour),
                                        plan.after,
                                        static_cast<uint64_t>(plan.step),
                                        static_cast<uint64_t>(plan.milliseconds),
                                        static_cast<uint64_t>(plan.strike.fault),
                                        static_cast<uint64_t>(plan.strike.first),
                                        static_cast<uint64_t>(plan.strike.times),
                                        plan.piece,
                                        plan.reads};
            hash.Add(numbers, sizeof(numbers));
        }
    }
    return hash.Text();
}

std::string Sha256(const std::string& bytes) {
    Hash hash;
    hash.Add(bytes.data(), bytes.size());
    return hash.Text();
}
