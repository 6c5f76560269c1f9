// Files that commands read and write as a whole.
#pragma once

#include <cstddef>
#include <string>

// The name for standard input or output in place of a file's.
constexpr char kStandardStream[] = "-";

// More of a file than this is not read.
constexpr size_t kMaxFile = 16 << 20;

// What is read, as messages name it: a file, or standard input for "-".
std::string SourceName(const std::string& file);

// Writes a file, as a whole or not at all.
//   replace: whether one that is there is replaced; otherwise it is a failure.
// Throws CommandFailed.
void SaveFile(const std::string& file, const std::string& text, bool replace);

// Reads a file, or standard input for "-". Of a larger file, more than kMaxFile bytes are read, so
// that the caller can refuse it. Throws CommandFailed with the reason.
std::string ReadFileOrInput(const std::string& file);
