#include "diag/Log.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <regex>
#include <stdexcept>
#include <thread>

#include "diag/KestLogger.h"
#include "base/Handles.h"
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
#line 101
    LogInfo("Network::Start", "Network started!");
    LogSystemError("PD_X", "failed=", -104, " at ", static_cast<const void*>(nullptr));
    LogSystemInfo("SetV6Scope", std::string(70, 'x'));
    LogCodeError("a::B", std::string("Need to initdiscovery first!"), 'c');

    const auto line = [](std::string body, const char* place) {
        body.resize(std::max<size_t>(body.size(), 80), ' ');
        return "} - " + body + "\t[" + place + " - .\\LogTest.cpp]\r\n";
    };
    const std::regex time(std::string("\\") + date + R"( \d\d:\d\d:\d\d(?=\} - \[))");
    EXPECT_EQ(std::regex_replace(capture.Text(), time, ""),
              line("[info]          - Network started!", "Network::Start - 101") +
                  line("[system error]  - failed=-104 at 0", "PD_X - 102") +
                  line("[system info]   - " + std::string(70, 'x'), "SetV6Scope - 103") +
                  line("[code error]    - Need to initdiscovery first!c", "a::B - 104"));
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

DWORD TokenError() {
    UniqueFile token;
    return OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.Out()) ? 0 : GetLastError();
}

// A thread that acts for a client asks for the folder and opens the file as the process, and has
// its client back behind that.
TEST(Log, TheFileIsOpenedAsTheProcess) {
    static std::vector<DWORD> tokens;
    const LogCapture capture;
    const HMODULE self = GetModuleHandleW(nullptr);
    const auto tempPath = +[](DWORD, LPWSTR) -> DWORD {
        tokens.push_back(TokenError());
        return 0;
    };
    const auto open = +[](const wchar_t*, const wchar_t*) -> FILE* {
        tokens.push_back(TokenError());
        return nullptr;
    };
    const ImportPatch path(self, "GetTempPathW", tempPath);
    const ImportPatch file(self, "_wfopen", open);
    ASSERT_TRUE(ImpersonateSelf(SecurityImpersonation));
    LogInfo("f", "for a client");
    EXPECT_EQ(TokenError(), 0u);
    RevertToSelf();
    EXPECT_THAT(tokens, ElementsAre(ERROR_NO_TOKEN, ERROR_NO_TOKEN));
}

TEST(Log, ThePathDecidesTheFile) {
    const LogCapture capture;
    const auto folder = capture.Path().parent_path();
    const auto first = folder / L"first.log";
    const auto second = folder / L"\u03b2eta.log";
    const auto late = folder / L"late" / L"third.log";
    KestLogger logger;
    const auto write = [&logger](const std::filesystem::path& path) {
        std::stringstream line("a line\n");
        logger.SetLogFile(path.wstring());
        logger.Write(line);
    };
    write(first);
    // Flushed, and open for others to read and write, while it is still in use.
    EXPECT_EQ(FileText(first), "a line\r\n");
    std::ofstream(first, std::ios::app | std::ios::binary) << "another's\n";
    write(first);
    EXPECT_EQ(FileText(first), "a line\r\nanother's\na line\r\n");
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
}

TEST(Log, FoldersThatCannotBeUsedLeadToDriveC) {
    const LogCapture capture;
    const std::filesystem::path fallback = L"c:\\KestSetupWizard.log";
    std::filesystem::remove(fallback);
    // 237 characters and the file's name still fit, 238 do not; beyond 255 the platform declines.
    for (const size_t length : {237, 238, 255, 256, 300}) {
        const std::wstring folder = L"C:\\none\\" + std::wstring(length - 9, L'x') + L"\\";
        SetEnvironmentVariableW(L"TMP", folder.c_str());
        LogInfo("f", length);
        EXPECT_EQ(std::filesystem::exists(fallback), length > 237) << length;
    }
    KestLogger().SetLogFile(L"");
    const std::string text = FileText(fallback);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text;
    std::filesystem::remove(fallback);
}

TEST(Log, LinesOfManyThreadsStayWhole) {
    const LogCapture capture;
    const auto body = [](char c) { return std::string(500, c); };
    {
        std::vector<std::jthread> threads;
        for (char c = 'a'; c < 'i'; ++c) {
            threads.emplace_back([&body, c] {
                for (int n = 0; n < 200; ++n) {
                    LogInfo("thread", body(c));
                }
            });
        }
    }
    const auto lines = capture.Lines();
    EXPECT_THAT(lines, SizeIs(8 * 200));
    for (const auto& line : lines) {
        ASSERT_EQ(line, "[info]          - " + body(line[18]) + "|thread");
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
