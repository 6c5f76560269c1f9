// A port of the soak that several callers use at once, which the spooler never does: each opens it,
// starts a job, writes, ends the job (some of them early) and closes it, while the port is deleted
// and added again. The bytes of a job may come
// from any caller; nothing may break.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "bench/soak/Plan.h"
#include "tests/support/FakeSpooler.h"

class SharedPort {
  public:
    static constexpr uint32_t kCallers = 3;

    SharedPort(FakeSpooler& spooler, uint64_t seed, uint32_t number);
    SharedPort(const SharedPort&) = delete;
    SharedPort& operator=(const SharedPort&) = delete;

    // Some jobs of one caller (from 0), on a thread that is new.
    void Use(uint32_t caller);
    // Prints a page while no other caller uses the port, and verifies that the port is idle then.
    void PrintQuietly();

  private:
    void UseOnce(uint32_t caller);
    void Replace();
    void WritePieces(HANDLE port, Random& random);
    BOOL Start(HANDLE port, DWORD job);
    void End(HANDLE port);
    void TakeJob(const PeerConnection& connection);

    FakeSpooler& spooler_;
    const uint64_t seed_;
    const uint32_t number_;
    const Protocol protocol_;
    const std::wstring name_;
    const char mark_;  // that all bytes of this port's RAW jobs have
    std::array<uint64_t, kCallers> rounds_ = {};
    std::mutex replacing_;
    std::unique_ptr<TcpPeer> printer_;  // last: its threads use the rest
};
