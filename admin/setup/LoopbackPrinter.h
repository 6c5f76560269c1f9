// A printer without paper: listens on this machine's loopback address and keeps what it is sent.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "base/Handles.h"

class LoopbackPrinter {
  public:
    // protocol: kProtocolRaw takes a plain stream; kProtocolLpr is a line printer daemon (RFC 1179)
    // that takes jobs whose length is announced.
    // Windows Sockets must be started. Throws CommandFailed.
    explicit LoopbackPrinter(DWORD protocol);
    ~LoopbackPrinter();
    LoopbackPrinter(const LoopbackPrinter&) = delete;
    LoopbackPrinter& operator=(const LoopbackPrinter&) = delete;

    // The TCP port that it listens on, chosen by the system.
    uint16_t Port() const { return port_; }

    // The data of the first job that arrived whole; nothing when none did in this time.
    std::optional<std::string> WaitForJob(std::chrono::milliseconds time);

  private:
    void Serve(const std::stop_token& stop, DWORD protocol);

    UniqueSocket listener_;
    uint16_t port_ = 0;
    std::mutex lock_;
    std::condition_variable arrived_;
    std::optional<std::string> job_;
    std::jthread server_;  // last: it uses all the others
};
