// How the project logs: one statement, one line of the log.
//
//   LogInfo("Network::Start", "Network started!");
//   LogSystemError("PD_DiscoverPrintersSynch", "SLPOpen - PDE_INTERNAL_ERROR=", code);
//
// The first argument is the function's name as it is to be read in the log; the parts of the
// message follow and are streamed in order (anything with an operator<<). Source file and line are
// the statement's own.
//
// Logging never throws, whatever fails, and costs the caller nothing: GetLastError and
// WSAGetLastError are afterwards what they were before. Lines of several threads stay whole.
// Always on; docs/log.md says where the file lies and how to read it.
#pragma once

#include <winsock2.h>
#include <windows.h>

#include <source_location>
#include <sstream>
#include <string>

// Where the calling process's log lies: "KestSetupWizard.log" in its folder for temporary files.
std::wstring LogPath();

namespace log_detail {

// The levels' tags, as wide as each other so that messages stand in one column.
inline constexpr char kInfo[] = "[info]          - ";
inline constexpr char kSystemError[] = "[system error]  - ";
inline constexpr char kSystemInfo[] = "[system info]   - ";
inline constexpr char kCodeError[] = "[code error]    - ";

// Gives the thread its error codes back.
class LastErrorKeeper {
  public:
    LastErrorKeeper() = default;
    ~LastErrorKeeper() {
        WSASetLastError(socketsError_);
        SetLastError(error_);
    }
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;

  private:
    DWORD error_ = GetLastError();
    int socketsError_ = WSAGetLastError();
};

// Puts time, function, line and file around the body (tag and message) and writes it.
void WriteLine(const std::stringstream& body, const char* function,
               const std::source_location& where);

template <class... Parts>
void Compose(const char* tag, const char* function, const std::source_location& where,
             const Parts&... parts) noexcept {
    const LastErrorKeeper keeper;
    try {
        std::stringstream body;
        body << tag;
        (body << ... << parts);
        WriteLine(body, function, where);
    } catch (...) {
    }
}

}  // namespace log_detail

// Each level is a class only so that the place of the statement can follow the parts as a
// defaulted argument.

// Progress and results.
template <class... Parts>
struct LogInfo {
    LogInfo(const char* function, const Parts&... parts,
            const std::source_location& where = std::source_location::current()) noexcept {
        log_detail::Compose(log_detail::kInfo, function, where, parts...);
    }
};
template <class... Parts>
LogInfo(const char*, Parts...) -> LogInfo<Parts...>;

// A platform call failed; the message is often system_helper::ErrorText of its code.
template <class... Parts>
struct LogSystemError {
    LogSystemError(const char* function, const Parts&... parts,
                   const std::source_location& where = std::source_location::current()) noexcept {
        log_detail::Compose(log_detail::kSystemError, function, where, parts...);
    }
};
template <class... Parts>
LogSystemError(const char*, Parts...) -> LogSystemError<Parts...>;

// A platform call's outcome that is worth a line without being a failure of the operation.
template <class... Parts>
struct LogSystemInfo {
    LogSystemInfo(const char* function, const Parts&... parts,
                  const std::source_location& where = std::source_location::current()) noexcept {
        log_detail::Compose(log_detail::kSystemInfo, function, where, parts...);
    }
};
template <class... Parts>
LogSystemInfo(const char*, Parts...) -> LogSystemInfo<Parts...>;

// Something that the code itself should not have let happen.
template <class... Parts>
struct LogCodeError {
    LogCodeError(const char* function, const Parts&... parts,
                 const std::source_location& where = std::source_location::current()) noexcept {
        log_detail::Compose(log_detail::kCodeError, function, where, parts...);
    }
};
template <class... Parts>
LogCodeError(const char*, Parts...) -> LogCodeError<Parts...>;
