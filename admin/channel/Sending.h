// Sends a document through a job.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "admin/channel/Files.h"
#include "admin/channel/SpoolerChannel.h"

// A document to print, read from its start to its end.
class Document {
  public:
    // Standard input is read until its first bytes arrive, so that no job starts without data.
    //   file: its path, or "-" for standard input.
    // Throws CommandFailed if it cannot be read or is empty.
    explicit Document(const std::string& file);

    // Its name for messages.
    const std::string& Name() const { return name_; }

    // Its size in bytes; no value for standard input.
    std::optional<uint64_t> Size() const { return size_; }

    // Returns the number of bytes that were read, 0 at the end. Throws CommandFailed.
    //   room: at least 64 KiB.
    size_t Read(BYTE* to, size_t room);

  private:
    InputFile input_;
    const std::string name_;
    std::optional<uint64_t> size_;
    std::vector<BYTE> first_;  // of standard input
};

// How far a job is, for other threads.
struct SendingState {
    std::atomic<uint64_t> sent = 0;    // bytes
    std::atomic<bool> ending = false;  // all bytes are sent
};

// Sends the whole document and ends the job. Throws CommandFailed.
void Send(Document& document, PrintJob& job, SendingState& state);
