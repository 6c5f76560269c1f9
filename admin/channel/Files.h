// Files that administration reads and writes.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "base/Handles.h"

// The name for standard input or output in place of a file's.
constexpr char kStandardStream[] = "-";

// More of a file than this is not read as a whole.
constexpr size_t kMaxFile = 16 << 20;

// A file that is read from its start to its end, or standard input for "-".
class InputFile {
  public:
    // Throws CommandFailed if it cannot be opened.
    explicit InputFile(const std::string& file);

    // Returns the number of bytes that were read, 0 at the end. Throws CommandFailed.
    size_t Read(void* to, size_t room);

    // Its size in bytes; no value for standard input.
    std::optional<uint64_t> Size() const;

  private:
    [[noreturn]] void Fail() const;

    const std::string file_;
    UniqueFile opened_;
    HANDLE input_;
};

// The name of a file for messages: "standard input" for "-".
std::string SourceName(const std::string& file);

// Writes a file, as a whole or not at all.
//   replace: whether an existing file is replaced; otherwise it is a failure.
// Throws CommandFailed.
void SaveFile(const std::string& file, const std::string& text, bool replace);

// Reads a file, or standard input for "-". Of a larger file, more than kMaxFile bytes are read, so
// that the caller can refuse it. Throws CommandFailed with the reason.
std::string ReadFileOrInput(const std::string& file);
