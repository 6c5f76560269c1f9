// The one place of the process that holds the diagnostic log's file open.
#pragma once

#include <windows.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

// One log file, open from construction to destruction. Other processes may read, write and append
// to it meanwhile.
class LogFile {
  public:
    // Opens the file for appending, in text mode (a newline becomes CR LF).
    //   path: full path; kept whether or not the file could be opened.
    // A file that cannot be opened is not reported: Write then does nothing.
    explicit LogFile(const std::wstring& path);
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    const std::wstring& Path() const noexcept { return path_; }

    // Writes `indent` tabs and the line's text, and flushes. Nothing when the file is not open.
    void Write(int indent, std::stringstream& line);

  private:
    std::wstring path_;
    std::ofstream stream_;
};

// Whatever the process logs goes through here, one whole line at a time, from any thread.
class LogSink {
  public:
    // The process's sink, made on the first call.
    static LogSink& Instance();

    // Names the file that lines go to from now on. A path that differs (exactly, by case too) from
    // that of the current file closes it and opens the new one. The same path does nothing, not
    // even after a failed open: a log that cannot be written costs one attempt, not one per line.
    void SetLogFile(const std::wstring& path);

    // Writes one composed line, its newline included. Nothing while no file was named.
    void Write(std::stringstream& line);

  private:
    LogSink() = default;
    ~LogSink() = default;
    void CloseAtExit() noexcept;

    SRWLOCK lock_ = SRWLOCK_INIT;
    bool atExit_ = false;
    int indent_ = 0;
    std::unique_ptr<LogFile> file_;
};
