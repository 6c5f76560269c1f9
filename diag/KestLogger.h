// A logging call's way to the process's log; all state lives in the sink.
#pragma once

#include <sstream>
#include <string>

// Made on the stack for the length of one logging call. Code that wants to log uses diag/Log.h.
class KestLogger {
  public:
    KestLogger() = default;
    virtual ~KestLogger() = default;

    // Names the file that the process logs to; see LogSink::SetLogFile.
    void SetLogFile(const std::wstring& path);

    // Writes one composed line, its newline included.
    void Write(std::stringstream& line);

    // The local time now, as "%y%m%d %H:%M:%S": 240315 09:07:05 on 15 March 2024, 09:07:05.
    std::string TimeStamp();
};
