#include "diag/LogSink.h"

#include <cstddef>
#include <cstdlib>
#include <new>

#include "base/Handles.h"

LogFile::LogFile(const std::wstring& path) : path_(path) {
    try {
        // The platform's run-time library opens files shared unless told otherwise.
        stream_.open(path_.c_str(), std::ios::out | std::ios::app);
    } catch (const std::exception&) {
    }
}

void LogFile::Write(int indent, std::stringstream& line) {
    if (!stream_.is_open()) {
        return;
    }
    for (int i = 0; i < indent; ++i) {
        stream_ << '\t';
    }
    stream_ << line.view() << std::flush;
    // One full disk must not silence the log for ever.
    stream_.clear();
}

LogSink& LogSink::Instance() {
    // The sink itself is never destroyed: a destructor or a thread that logs while the process
    // ends, or the library is unloaded, still finds it whole. Only its file is closed at exit, and
    // opened once more for each line that still comes.
    alignas(LogSink) static std::byte storage[sizeof(LogSink)];
    static LogSink* const sink = [] {
        auto* made = new (storage) LogSink;
        std::atexit([] { Instance().CloseAtExit(); });
        return made;
    }();
    return *sink;
}

void LogSink::CloseAtExit() noexcept {
    // At process exit the other threads are gone, perhaps with the lock: then the system closes
    // the file.
    if (TryAcquireSRWLockExclusive(&lock_)) {
        atExit_ = true;
        file_.reset();
        ReleaseSRWLockExclusive(&lock_);
    }
}

void LogSink::SetLogFile(const std::wstring& path) {
    const ExclusiveGuard lock(lock_);
    if (file_ && file_->Path() != path) {
        file_.reset();
    }
    // Compatibility: a file that could not be opened is not tried again while the path is the same;
    // the spooler relies on one attempt instead of one for each line.
    if (!file_) {
        file_ = std::make_unique<LogFile>(path);
    }
}

void LogSink::Write(std::stringstream& line) {
    const ExclusiveGuard lock(lock_);
    if (file_) {
        file_->Write(indent_, line);
    }
    if (atExit_) {
        file_.reset();
    }
}
