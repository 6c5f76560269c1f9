#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "kestctl/Interruption.h"
#include "tests/kestctl/CommandLine.h"
#include "tests/support/ImportPatch.h"

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

fs::path SystemFolder() {
    wchar_t folder[MAX_PATH];
    return std::wstring(folder, GetSystemDirectoryW(folder, MAX_PATH));
}

std::string Text(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// An installed library with a configuration and its previous version.
class ConfigCommands : public testing::Test {
  protected:
    ConfigCommands() {
        fs::copy_file(BUILT "/kestmon.dll", SystemFolder() / "kestmon.dll",
                      fs::copy_options::overwrite_existing);
        shipped_ = Text(BUILT "/SLPConf.xml");
        Write("SLPConf.xml", shipped_);
        Write("SLPConf.xml.old", "<old/>");
    }
    ~ConfigCommands() override {
        for (const char* name : {"kestmon.dll", "SLPConf.xml", "SLPConf.xml.old"}) {
            fs::remove(SystemFolder() / name);
        }
    }

    static void Write(const char* name, const std::string& text) {
        std::ofstream(SystemFolder() / name, std::ios::binary) << text;
    }

    // What `kestctl config ARGUMENT...` prints, with what it fails with.
    std::string Run(std::vector<std::string> arguments) {
        CLI::App app;
        AddConfigCommands(app, factory_);
        arguments.insert(arguments.begin(), "config");
        std::string failure;
        std::string usageError;
        const std::string printed = Parse(app, std::move(arguments), failure, usageError);
        return printed + failure + usageError;
    }

    std::string shipped_;
    ChannelFactory factory_ = []() -> std::unique_ptr<SpoolerChannel> {
        throw CommandFailed("the spooler is down", Remedy::StartSpooler);
    };
};

TEST_F(ConfigCommands, ACheckReportsWhyItDidNotSearch) {
    const auto json = nlohmann::json::parse(Run({"check", "--json"}));
    EXPECT_THAT(json["notSearched"].get<std::string>(),
                AllOf(HasSubstr("the spooler is down"), HasSubstr("net start spooler")));
    EXPECT_FALSE(json.contains("recognised"));
    EXPECT_THAT(Run({"check"}), HasSubstr("were not searched for: the spooler is down"));
}

TEST_F(ConfigCommands, ADryRunRestoresNothing) {
    EXPECT_THAT(Run({"restore", "--dry-run"}),
                AllOf(HasSubstr("would be restored: "), HasSubstr("SLPConf.xml.old\n")));
    EXPECT_EQ(nlohmann::json::parse(Run({"restore", "--dry-run", "--json"}))["dryRun"], true);
    EXPECT_EQ(Text(SystemFolder() / "SLPConf.xml"), shipped_);
    EXPECT_EQ(Text(SystemFolder() / "SLPConf.xml.old"), "<old/>");
}

// Ctrl-C at each move of a file; without the command's protection it ends this process.
BOOL WINAPI MoveAtCtrlC(LPCWSTR from, LPCWSTR to, DWORD flags) {
    Interruption::Note(CTRL_C_EVENT);
    return MoveFileWithProgressW(from, to, nullptr, nullptr, flags);
}

TEST_F(ConfigCommands, ARestoreIsCompletedAfterCtrlC) {
    const ImportPatch patch(GetModuleHandleW(nullptr), "MoveFileExW", MoveAtCtrlC);
    EXPECT_THAT(Run({"restore"}), HasSubstr("the file that it replaced is kept: "));
    EXPECT_TRUE(Interruption::WasRequested());
    EXPECT_EQ(Text(SystemFolder() / "SLPConf.xml"), "<old/>");
    EXPECT_EQ(Text(SystemFolder() / "SLPConf.xml.old"), shipped_);
}

// The last one: the process keeps --direct.
TEST_F(ConfigCommands, AdviceRepeatsDirect) {
    Write("SLPConf.xml", "<printer");
    EXPECT_THAT(Run({"show"}), HasSubstr("`kestctl config check`"));
    SpeakOfDirect();
    EXPECT_THAT(Run({"show"}), HasSubstr("`kestctl --direct config check`"));
}

}  // namespace
