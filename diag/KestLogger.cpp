#include "diag/KestLogger.h"

#include <ctime>

#include "diag/LogSink.h"

void KestLogger::SetLogFile(const std::wstring& path) {
    LogSink::Instance().SetLogFile(path);
}

void KestLogger::Write(std::stringstream& line) {
    LogSink::Instance().Write(line);
}

std::string KestLogger::TimeStamp() {
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    localtime_s(&local, &now);
    char text[32];
    const size_t length = std::strftime(text, sizeof text, "%y%m%d %H:%M:%S", &local);
    return std::string(text, length);
}
