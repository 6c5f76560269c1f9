#include "monitor/Lpr.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <future>

#include "tests/support/FakeSpooler.h"
#include "tests/support/TcpPeer.h"

namespace {

std::string Host() {
    char name[49] = {};
    gethostname(name, sizeof(name));
    return name;
}

std::string User() {
    char name[128] = {};
    DWORD size = sizeof(name);
    GetUserNameA(name, &size);
    return name;
}

// The subcommand that announces the data file.
std::string DataCommand(const std::string& text) {
    return "\x03" + text + Host() + "\n";
}

// What a daemon was told in one connection.
struct Dialogue {
    std::vector<std::string> commands;
    std::string controlFile;
    std::string data;  // with the closing zero octet
};

// A line printer daemon. Acknowledges everything, unless told to answer one step (numbered from
// 0: receive job, control file subcommand, control file, data file subcommand, end of data)
// otherwise.
class Daemon {
  public:
    explicit Daemon(int oddStep = -1, std::string oddAnswer = "")
        : peer_([=, this](PeerConnection& job) { Serve(job, oddStep, oddAnswer); }) {}

    WORD Port() const { return peer_.port; }
    std::vector<Dialogue> Finish() {
        peer_.Finish();
        return dialogues_;
    }

  private:
    void Serve(PeerConnection& job, int oddStep, const std::string& oddAnswer) {
        Dialogue dialogue;
        int step = 0;
        const auto answer = [&] {
            job.Write(step++ == oddStep ? oddAnswer : std::string(1, '\0'));
        };
        const auto command = [&] {
            const std::string line = job.ReadLine();
            if (!line.empty()) {
                dialogue.commands.push_back(line);
                answer();
            }
            return line;
        };
        command();
        if (const std::string line = command(); !line.empty()) {
            dialogue.controlFile = job.Read(std::stoul(line.substr(1)) + 1);
            answer();
            const std::string data = command();
            const size_t length = data.empty() ? 0 : std::stoul(data.substr(1));
            dialogue.data = length > 0 ? job.Read(length) : "";
            if (length == 0 || dialogue.data.size() == length) {
                dialogue.data += job.Read(length > 0 ? 1 : SIZE_MAX);
            }
            answer();
        }
        dialogues_.push_back(dialogue);
    }

    std::vector<Dialogue> dialogues_;
    TcpPeer peer_;
};

class LprTest : public testing::Test {
  protected:
    void SetUp() override {
        // A failed job's file may still be there when the next test begins.
        folder = std::filesystem::temp_directory_path() /
                 testing::UnitTest::GetInstance()->current_test_info()->name();
        std::filesystem::create_directory(folder);
        SetEnvironmentVariableW(L"TMP", folder.c_str());
        ASSERT_TRUE(spooler.Start());
    }
    void TearDown() override {
        SetEnvironmentVariableW(L"TMP", folder.parent_path().c_str());
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }

    HANDLE OpenPort(WORD tcpPort, bool doubleSpool) {
        return spooler.OpenNew(L"P", 2, tcpPort, doubleSpool);
    }

    void Print(HANDLE port, std::string data) {
        ASSERT_TRUE(spooler.Start(port));  // does nothing where one runs already
        EXPECT_TRUE(spooler.WriteAll(port, data));
        EXPECT_TRUE(spooler->pfnEndDocPort(port));
    }

    size_t TempFiles() const {
        size_t count = 0;
        for (const auto& file : std::filesystem::directory_iterator(folder)) {
            const std::wstring name = file.path().filename().wstring();
            count += _wcsnicmp(name.c_str(), L"NPM", 3) == 0;
        }
        return count;
    }

    FakeSpooler spooler;
    std::filesystem::path folder;
};

TEST_F(LprTest, AStreamedJobSpeaksTheDialogueOfADaemon) {
    // A length of 0 leaves the end of the data to the connection's end, so this daemon sees the
    // closing zero octet as data and never acknowledges it in time: that costs the job nothing.
    Daemon daemon;
    HANDLE port = OpenPort(daemon.Port(), false);
    ASSERT_TRUE(spooler.Start(port));
    DWORD count = 7;
    BYTE byte = 0;
    SetLastError(1234);
    EXPECT_FALSE(spooler->pfnReadPort(port, &byte, 1, &count)) << "LPR ports are not read from";
    EXPECT_EQ(GetLastError(), 1234u);
    EXPECT_EQ(count, 0u);
    Print(port, "hello");
    const Dialogue dialogue = daemon.Finish().at(0);
    const std::string control = "H" + Host() + "\nP" + User() + "\nldfA001" + Host() + "\n";
    EXPECT_THAT(dialogue.commands,
                testing::ElementsAre(
                    "\x02lp\n", "\x02" + std::to_string(control.size()) + " cfA001" + Host() + "\n",
                    DataCommand("0 dfA001")));
    EXPECT_EQ(dialogue.controlFile, control + '\0');
    EXPECT_EQ(dialogue.data, std::string("hello") + '\0');
}

// Each announcement counts the jobs before it again; what is sent ends with the file.
TEST_F(LprTest, ADoubleSpooledJobAnnouncesTheRunningTotal) {
    std::string large(1'000'003, '\0');
    for (size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>(i * 7);
    }
    const struct {
        std::string document;
        const char* announced;
    } jobs[] = {{"", "0 dfA001"}, {large, "1000003 dfA002"}, {"page", "1000007 dfA003"}};
    HANDLE port = OpenPort(0, true);
    for (const auto& job : jobs) {
        Daemon daemon;
        spooler.ConfigurePort(L"P", 2, daemon.Port(), true);
        Print(port, job.document);
        const Dialogue dialogue = daemon.Finish().at(0);
        EXPECT_EQ(dialogue.commands.back(), DataCommand(job.announced));
        EXPECT_EQ(dialogue.data, job.document + '\0');
    }
    EXPECT_EQ(TempFiles(), 0u);
    // Opening the port starts the numbers again, but not that of the job that runs.
    Daemon daemon;
    spooler.ConfigurePort(L"P", 2, daemon.Port(), true);
    ASSERT_TRUE(spooler.Start(port));
    spooler.Open(L"P");
    spooler->pfnEndDocPort(port);
    EXPECT_EQ(daemon.Finish().at(0).commands.back(), DataCommand("1000007 dfA004"));
}

TEST_F(LprTest, TheJobNumberIsOneByteAndStartsAgainWhenThePortIsOpened) {
    TcpPeer refusing([](PeerConnection& job) {
        job.ReadLine();
        job.Write("\x01");
    });
    Daemon daemon;
    HANDLE port = OpenPort(refusing.port, true);
    for (int i = 1; i < 256; ++i) {
        EXPECT_FALSE(spooler.Start(port));
    }
    spooler.ConfigurePort(L"P", 2, daemon.Port(), true);
    Print(port, "x");
    Print(port, "x");
    spooler.Open(L"p");
    Print(port, "x");
    spooler->pfnClosePort(port);
    const auto dialogues = daemon.Finish();
    ASSERT_EQ(dialogues.size(), 3u);
    const char* const numbers[] = {"000", "001", "001"};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_THAT(dialogues[i].commands[1],
                    testing::EndsWith(" cfA" + (numbers[i] + Host()) + "\n"));
    }
}

TEST_F(LprTest, ADaemonThatDoesNotAcknowledgeFailsTheStart) {
    for (const char* answer : {"\x01", "no queue\n"}) {
        for (int step = 0; step < 4; ++step) {
            Daemon daemon(step, answer);
            HANDLE port = OpenPort(daemon.Port(), false);
            EXPECT_FALSE(spooler.Start(port)) << step;
            EXPECT_EQ(daemon.Finish().size(), 1u);
            EXPECT_FALSE(spooler.WriteAll(port, "x"));
        }
    }
    // Announced when it has been spooled, a job that is refused stays on disk.
    Daemon daemon(3, "\x01");
    Print(OpenPort(daemon.Port(), true), "somebody's invoice");
    EXPECT_EQ(TempFiles(), 1u);
}

TEST_F(LprTest, ADaemonThatClosesOrStaysSilentFailsTheStart) {
    TcpPeer closing([](PeerConnection& job) { job.ReadLine(); });
    HANDLE port = OpenPort(closing.port, false);
    EXPECT_FALSE(spooler.Start(port));
    EXPECT_EQ(GetLastError(), DWORD{WSAENOTCONN});

    TcpPeer silent([](PeerConnection& job) { job.ReadAll(); });
    spooler.ConfigurePort(L"P", 2, silent.port);
    const ULONGLONG begin = GetTickCount64();
    EXPECT_FALSE(spooler.Start(port));
    EXPECT_GE(GetTickCount64() - begin, 3900u);
    EXPECT_EQ(GetLastError(), 0u);  // of the resolver, the last that had something to say
}

// A printer that reads nothing, or a daemon that acknowledges everything and then reads nothing,
// keeps its own job waiting, and nobody else.
TEST_F(LprTest, APrinterThatStopsReadingHoldsUpItsOwnJobAlone) {
    for (const bool lpr : {true, false}) {
        SCOPED_TRACE(lpr);
        HANDLE hung = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        HANDLE over = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        TcpPeer printer([&](PeerConnection& job) {
            if (lpr) {
                job.ReadLine();
                job.Write(std::string(1, '\0'));
                const std::string line = job.ReadLine();
                job.Write(std::string(1, '\0'));
                job.Read(std::stoul(line.substr(1)) + 1);
                job.Write(std::string(1, '\0'));
                job.ReadLine();
                job.Write(std::string(1, '\0'));
            }
            SetEvent(hung);
            WaitForSingleObject(over, INFINITE);
            job.Reset();
        });
        HANDLE port = lpr ? OpenPort(printer.port, true) : spooler.OpenNew(L"R", 1, printer.port);
        auto job = std::async(std::launch::async, [&] {
            EXPECT_TRUE(spooler.Start(port));
            // A spooled job is taken at once, and sent at its end.
            EXPECT_EQ(spooler.WriteAll(port, std::string(32'000'000, 'x')), lpr);
            spooler->pfnEndDocPort(port);
        });
        WaitForSingleObject(hung, INFINITE);
        // What fits the buffers between here and there goes out before it hangs.
        while (job.wait_for(std::chrono::milliseconds(500)) == std::future_status::ready) {
            FAIL() << "the job ended";
        }
        auto others = std::async(std::launch::async, [&] {
            DWORD needed = 0;
            DWORD returned = 0;
            spooler->pfnEnumPorts(spooler.monitor, nullptr, 1, nullptr, 0, &needed, &returned);
            spooler->pfnClosePort(spooler.Open(L"P"));
            return needed;
        });
        EXPECT_EQ(others.wait_for(std::chrono::seconds(30)), std::future_status::ready);
        EXPECT_NE(job.wait_for(std::chrono::seconds(0)), std::future_status::ready);
        SetEvent(over);
        EXPECT_GT(others.get(), 0u);
        job.get();
        CloseHandle(hung);
        CloseHandle(over);
    }
}

// A job that cannot be read back must not look whole: the octet that ends it stays away.
TEST_F(LprTest, AJobThatCannotBeReadBackIsNotClosed) {
    static decltype(&ReadFile) readFile = ReadFile;
    static int reads = 0;
    ImportPatch patch(
        spooler.dll, "ReadFile",
        +[](HANDLE file, LPVOID to, DWORD size, LPDWORD got, LPOVERLAPPED o) -> BOOL WINAPI {
            if (++reads > 2) {
                SetLastError(ERROR_CRC);
                return FALSE;
            }
            return readFile(file, to, size, got, o);
        });
    Daemon daemon;
    Print(OpenPort(daemon.Port(), true), std::string(2000, 'x'));
    EXPECT_EQ(daemon.Finish().at(0).data, std::string(1024, 'x'));
    EXPECT_EQ(TempFiles(), 0u);
}

TEST_F(LprTest, WithoutATemporaryFileTheJobDoesNotStart) {
    ImportPatch patch(
        spooler.dll, "GetTempPathW", +[](DWORD, LPWSTR) -> DWORD WINAPI {
            SetLastError(ERROR_PATH_NOT_FOUND);
            return 0;
        });
    Daemon daemon;
    HANDLE port = OpenPort(daemon.Port(), true);
    EXPECT_FALSE(spooler.Start(port));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(daemon.Finish().at(0).commands.size(), 2u);
}

}  // namespace
