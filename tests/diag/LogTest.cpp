#include "diag/Log.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <regex>
#include <stdexcept>
#include <thread>

#include "diag/KestLogger.h"
#include "diag/LogSink.h"
#include "diag/Resource.h"
#include "tests/support/ImportPatch.h"
#include "tests/support/LogCapture.h"

namespace {

using testing::ElementsAre;
using testing::SizeIs;

// A value that costs its reader the last error, or fails, while it is printed.
struct Awkward {
    bool fails;
    friend std::ostream& operator<<(std::ostream& out, const Awkward& value) {
        SetLastError(4711);
        return value.fails ? throw std::runtime_error("cannot be printed") : out << "awkward";
    }
};

std::string FileText(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(Log, LinesAreExactToTheByte) {
    const LogCapture capture;
    SYSTEMTIME now;
    GetLocalTime(&now);
    char date[8];
    snprintf(date, sizeof date, "{%02d%02d%02d", now.wYear % 100, now.wMonth, now.wDay);
    const unsigned line = __LINE__ + 1;
    LogInfo("Network::Start", "Network started!");
    LogSystemError("PD_X", "failed=", -104, " at ", static_cast<const void*>(nullptr));
    LogSystemInfo("SetV6Scope", std::string(70, 'x'));
    LogCodeError("a::B", std::string("Need to initdiscovery first!"), 'c');

    const auto place = [line](const char* function, unsigned offset) {
        return "\t[" + std::string(function) + " - " + std::to_string(line + offset) +
               " - .\\LogTest.cpp]\r\n";
    };
    const auto padded = [](std::string body) {
        body.resize(80, ' ');
        return "} - " + body;
    };
    const std::string expected =
        padded("[info]          - Network started!") + place("Network::Start", 0) +
        padded("[system error]  - failed=-104 at 0") + place("PD_X", 1) + "} - [system info]   - " +
        std::string(70, 'x') + place("SetV6Scope", 2) +
        padded("[code error]    - Need to initdiscovery first!c") + place("a::B", 3);
    const std::regex time(std::string("\\") + date + R"( \d\d:\d\d:\d\d(?=\} - \[))");
    EXPECT_EQ(std::regex_replace(capture.Text(), time, ""), expected);
}

TEST(Log, ErrorCodesSurviveAndNothingIsThrown) {
    const LogCapture capture;
    SetLastError(5);
    LogInfo("f", Awkward{false});
    EXPECT_EQ(GetLastError(), 5u);
    WSASetLastError(10060);
    LogInfo("f", Awkward{true});
    EXPECT_EQ(WSAGetLastError(), 10060);
    EXPECT_THAT(capture.Lines(), ElementsAre("[info]          - awkward|f"));

    SetEnvironmentVariableW(L"TMP", L"C:\\no\\such\\folder");
    SetLastError(122);
    LogInfo("f", "nowhere to go");
    EXPECT_EQ(GetLastError(), 122u);
}

// What an import was before it was replaced.
template <class Function>
Function Real(const wchar_t* library, const char* name) {
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(library), name)));
}

DWORD TokenError() {
    UniqueFile token;
    return OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.Out()) ? 0 : GetLastError();
}

// A thread that acts for a client asks for the folder and opens the file as the process, and has
// its client back behind that.
TEST(Log, TheFileIsOpenedAsTheProcess) {
    static std::vector<DWORD> tokens;
    static const auto tempPath = Real<decltype(&GetTempPathW)>(L"kernel32", "GetTempPathW");
    static const auto open = Real<decltype(&_wfopen)>(L"msvcrt", "_wfopen");
    const LogCapture capture;
    const HMODULE self = GetModuleHandleW(nullptr);
    const ImportPatch path(
        self, "GetTempPathW", +[](DWORD size, LPWSTR text) -> DWORD {
            tokens.push_back(TokenError());
            return tempPath(size, text);
        });
    const ImportPatch file(
        self, "_wfopen", +[](const wchar_t* name, const wchar_t* mode) {
            tokens.push_back(TokenError());
            return open(name, mode);
        });
    ASSERT_TRUE(ImpersonateSelf(SecurityImpersonation));
    EXPECT_EQ(TokenError(), 0u);
    LogInfo("f", "for a client");
    EXPECT_EQ(TokenError(), 0u);
    RevertToSelf();
    EXPECT_THAT(tokens, ElementsAre(ERROR_NO_TOKEN, ERROR_NO_TOKEN));
    EXPECT_THAT(capture.Lines(), SizeIs(1));
}

TEST(Log, ThePathDecidesTheFile) {
    const auto folder = std::filesystem::temp_directory_path() /
                        (L"kest-sink-" + std::to_wstring(GetCurrentProcessId()));
    std::filesystem::create_directories(folder);
    const auto first = folder / L"first.log";
    const auto second = folder / L"\u03b2eta.log";
    const auto late = folder / L"late" / L"third.log";
    std::stringstream line("a line\n");
    KestLogger logger;
    const auto write = [&](const std::filesystem::path& path) {
        logger.SetLogFile(path.wstring());
        logger.Write(line);
    };

    write(first);
    write(first);
    // Flushed, and open for others to read and write, while it is still in use.
    EXPECT_EQ(FileText(first), "a line\r\na line\r\n");
    std::ofstream(first, std::ios::app | std::ios::binary) << "another's\n";
    write(first);
    EXPECT_EQ(FileText(first), "a line\r\na line\r\nanother's\na line\r\n");

    write(second);
    EXPECT_TRUE(std::filesystem::remove(first)) << "the first file is still open";

    // A failed open is not tried again until another path was set.
    write(late);
    std::filesystem::create_directory(late.parent_path());
    write(late);
    EXPECT_FALSE(std::filesystem::exists(late));
    write(second);
    write(late);
    EXPECT_EQ(FileText(second), "a line\r\na line\r\n");
    EXPECT_EQ(FileText(late), "a line\r\n");

    logger.SetLogFile(L"");
    std::filesystem::remove_all(folder);
}

TEST(Log, FoldersThatCannotBeUsedLeadToDriveC) {
    const LogCapture capture;
    const std::filesystem::path fallback = L"c:\\KestSetupWizard.log";
    std::filesystem::remove(fallback);
    // 237 characters and the file's name still fit, 238 do not; beyond 255 the platform declines.
    const auto logInFolderOf = [](size_t length) {
        std::wstring folder = L"C:";
        while (folder.size() < length - 1) {
            folder += L"\\none";
        }
        folder.resize(length - 1);
        folder.back() = L'x';
        SetEnvironmentVariableW(L"TMP", (folder + L"\\").c_str());
        LogInfo("f", length);
    };
    logInFolderOf(237);
    EXPECT_FALSE(std::filesystem::exists(fallback));
    for (const size_t length : {238, 255, 256, 300}) {
        logInFolderOf(length);
    }
    KestLogger().SetLogFile(L"");
    const std::string text = FileText(fallback);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text;
    std::filesystem::remove(fallback);
}

TEST(Log, LinesOfManyThreadsStayWhole) {
    const LogCapture capture;
    constexpr int kThreads = 8;
    constexpr int kLines = 200;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([i] {
                for (int n = 0; n < kLines; ++n) {
                    LogInfo("thread", i, ' ', std::string(500, static_cast<char>('a' + i)));
                }
            });
        }
    }
    const auto lines = capture.Lines();
    EXPECT_THAT(lines, SizeIs(kThreads * kLines));
    for (const auto& line : lines) {
        const int i = line[18] - '0';
        ASSERT_EQ(line, "[info]          - " + std::to_string(i) + " " +
                            std::string(500, static_cast<char>('a' + i)) + "|thread");
    }
}

// Exit handlers run in reverse order of registration: one registered before the sink was made
// logs after the sink's own.
TEST(Log, ALineAfterTheSinkHasClosedIsWrittenAndLeavesNothingOpen) {
    EXPECT_EXIT(
        {
            static const LogCapture* const capture = new LogCapture;
            std::atexit([] {
                LogInfo("atexit", "after the sink");
                const bool written = capture->Lines().size() == 2;
                _exit(written && std::filesystem::remove(capture->Path()) ? 7 : 8);
            });
            LogInfo("f", "the sink is made");
            std::exit(0);
        },
        testing::ExitedWithCode(7), "");
}

}  // namespace
