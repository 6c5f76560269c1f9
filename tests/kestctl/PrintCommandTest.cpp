#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "base/Text.h"
#include "tests/kestctl/CommandLine.h"

using testing::AllOf;
using testing::HasSubstr;

namespace {

class PrintCommand : public testing::Test {
  protected:
    PrintCommand() {
        monitor_.ports[L"OFFICE"] = {};
        Fill(std::string(150000, 'a') + "the end");
    }
    ~PrintCommand() override { std::filesystem::remove(file_); }

    void Fill(const std::string& content) {
        content_ = content;
        std::ofstream(file_, std::ios::binary) << content;
    }
    std::string File() const { return WideToUtf8(file_.native()); }

    FakeMonitor monitor_;
    std::filesystem::path file_ =
        std::filesystem::temp_directory_path() /
        (L"kest-B\u00fcro-" + std::to_wstring(GetCurrentProcessId()) + L".prn");
    std::string content_;
};

TEST_F(PrintCommand, SendsTheWholeFileHoweverLittleIsTakenAtATime) {
    EXPECT_EQ(Kestctl(monitor_, {"print", File(), "--port", "office"}),
              File() + ": 150007 bytes sent\n");  // and no progress: this is no terminal
    EXPECT_TRUE(monitor_.ended);
    EXPECT_EQ(monitor_.received, content_);
    EXPECT_EQ(monitor_.document, file_.filename().native());
    Kestctl(monitor_, {"print", File(), "--port", "OFFICE", "--as", "Monats\u00fcbersicht"});
    EXPECT_EQ(monitor_.document, L"Monats\u00fcbersicht");
}

TEST_F(PrintCommand, SaysHowFarABrokenJobCame) {
    monitor_.accepts = 70500;
    EXPECT_THAT(Failure(monitor_, {"print", File(), "--port", "OFFICE"}),
                AllOf(HasSubstr("70500 of 150007 bytes"), HasSubstr("connection lost")));
    EXPECT_FALSE(monitor_.ended);
}

TEST_F(PrintCommand, OpensNothingForAFileThatCannotBePrinted) {
    EXPECT_THAT(Failure(monitor_, {"print", File() + ".none", "--port", "OFFICE"}),
                HasSubstr("cannot be read"));
    Fill("");
    EXPECT_THAT(Failure(monitor_, {"print", File(), "--port", "OFFICE"}), HasSubstr("is empty"));
    EXPECT_EQ(monitor_.opened, 0);
}

}  // namespace
