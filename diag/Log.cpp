#include "diag/Log.h"

#include <iomanip>
#include <string>
#include <string_view>

#include "diag/KestLogger.h"
#include "base/Handles.h"

namespace {

// Compatibility: the log has the name of a set-up wizard, also that of the monitor; tools that read
// or collect the log rely on the name.
constexpr wchar_t kFileName[] = L"KestSetupWizard.log";
constexpr wchar_t kFallbackPath[] = L"c:\\KestSetupWizard.log";
constexpr DWORD kFolderSize = 256;  // characters, with terminator
constexpr size_t kPathSize = 257;   // characters, with terminator
constexpr int kBodyWidth = 80;

// Lets the thread act as the process itself, and as its client again when this ends. A spooler's
// thread often acts for who has sent the job: the log's file would be that client's, a drive could
// be the client's own, and the next client could not write there.
class AsProcess {
  public:
    AsProcess() noexcept {
        if (OpenThreadToken(GetCurrentThread(), TOKEN_IMPERSONATE, TRUE, client_.Out())) {
            self_ = SetThreadToken(nullptr, nullptr) != FALSE;
        } else {
            self_ = GetLastError() == ERROR_NO_TOKEN;
        }
    }
    ~AsProcess() {
        // Going on would be to do the client's work with the process's rights.
        if (client_ && self_ && !SetThreadToken(nullptr, client_.Get())) {
            RaiseFailFastException(nullptr, nullptr, 0);
        }
    }
    AsProcess(const AsProcess&) = delete;
    AsProcess& operator=(const AsProcess&) = delete;

    // False when the thread's token cannot be laid aside: it is still the client.
    explicit operator bool() const noexcept { return self_; }

  private:
    UniqueHandle client_;
    bool self_ = false;
};

std::string_view BaseName(std::string_view path) {
    const size_t slash = path.find_last_of("/\\");
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

}  // namespace

// Asked for anew at every line: the folder is the environment's, and some accounts have one of
// their own. A folder that cannot be had, or is too long, sends the lines to the root of drive C.
std::wstring LogPath() {
    wchar_t folder[kFolderSize];
    const DWORD length = GetTempPathW(kFolderSize, folder);
    if (length == 0 || length >= kFolderSize) {
        return kFallbackPath;
    }
    std::wstring path(folder, length);
    if (path.back() != L'\\' && path.back() != L'/') {
        path += L'\\';
    }
    path += kFileName;
    return path.size() < kPathSize ? path : kFallbackPath;
}

void log_detail::WriteLine(const std::stringstream& body, const char* function,
                           const std::source_location& where) {
    KestLogger logger;
    if (const AsProcess self; self) {
        logger.SetLogFile(LogPath());
    }
    std::stringstream line;
    line << '{' << logger.TimeStamp() << "} - " << std::left << std::setw(kBodyWidth) << body.view()
         << "\t[" << function << " - " << where.line() << " - .\\" << BaseName(where.file_name())
         << "]\n";
    logger.Write(line);
}
