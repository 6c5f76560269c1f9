#include "diag/Log.h"

#include <iomanip>
#include <string>
#include <string_view>

#include "diag/KestLogger.h"

namespace {

constexpr wchar_t kFileName[] = L"KestSetupWizard.log";
constexpr wchar_t kFallbackPath[] = L"c:\\KestSetupWizard.log";
constexpr DWORD kFolderSize = 256;  // characters, with terminator
constexpr size_t kPathSize = 257;   // characters, with terminator
constexpr int kBodyWidth = 80;

// The log's path, asked for anew at every line: the folder is the environment's. A folder that
// cannot be had, or is too long, sends the lines to the root of drive C.
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

std::string_view BaseName(std::string_view path) {
    const size_t slash = path.find_last_of("/\\");
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

}  // namespace

void log_detail::WriteLine(const std::stringstream& body, const char* function,
                           const std::source_location& where) {
    KestLogger logger;
    logger.SetLogFile(LogPath());
    std::stringstream line;
    line << '{' << logger.TimeStamp() << "} - " << std::left << std::setw(kBodyWidth) << body.view()
         << "\t[" << function << " - " << where.line() << " - .\\" << BaseName(where.file_name())
         << "]\n";
    logger.Write(line);
}
