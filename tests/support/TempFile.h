// A file's name that is this process's own; what is written there goes away with the object.
#pragma once

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "base/Text.h"

class TempFile {
  public:
    explicit TempFile(const std::string& name)
        : path_(std::filesystem::temp_directory_path() /
                (std::to_string(GetCurrentProcessId()) + name)) {}
    TempFile(const std::string& name, const std::string& text) : TempFile(name) { Write(text); }
    ~TempFile() { std::filesystem::remove(path_); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    void Write(const std::string& text) const { std::ofstream(path_, std::ios::binary) << text; }
    std::string Name() const { return WideToUtf8(path_.native()); }

  private:
    std::filesystem::path path_;
};
