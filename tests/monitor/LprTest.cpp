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
        // A folder of its own: other tests spool at the same time.
        folder = std::filesystem::temp_directory_path() /
                 ("kestmon lpr " + std::to_string(GetCurrentProcessId()));
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
        LPCWSTR name = L"P";
        spooler->pfnAddPortEx(spooler.monitor, nullptr, 1, reinterpret_cast<LPBYTE>(&name),
                              nullptr);
        spooler.ConfigurePort(L"P", 2, tcpPort, doubleSpool);
        return spooler.Open(L"P");
    }

    BOOL Start(HANDLE port) {
        return spooler->pfnStartDocPort(port, const_cast<LPWSTR>(L"Office"), 7, 1, nullptr);
    }

    void Print(HANDLE port, std::string data) {
        ASSERT_TRUE(Start(port));
        DWORD written = 0;
        EXPECT_TRUE(spooler->pfnWritePort(port, reinterpret_cast<LPBYTE>(data.data()),
                                          static_cast<DWORD>(data.size()), &written));
        EXPECT_EQ(written, data.size());
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
    Print(port, "hello");
    const auto dialogues = daemon.Finish();
    ASSERT_EQ(dialogues.size(), 1u);
    const std::string control = "H" + Host() + "\nP" + User() + "\nldfA001" + Host() + "\n";
    EXPECT_THAT(dialogues[0].commands,
                testing::ElementsAre(
                    "\x02lp\n", "\x02" + std::to_string(control.size()) + " cfA001" + Host() + "\n",
                    "\x03"
                    "0 dfA001" +
                        Host() + "\n"));
    EXPECT_EQ(dialogues[0].controlFile, control + '\0');
    EXPECT_EQ(dialogues[0].data, std::string("hello") + '\0');
}

TEST_F(LprTest, ADoubleSpooledJobAnnouncesTheRunningTotal) {
    Daemon first;
    HANDLE port = OpenPort(first.Port(), true);
    const size_t before = TempFiles();
    const std::string hundred(100, 'a');
    Print(port, hundred);
    const auto dialogues = first.Finish();
    ASSERT_EQ(dialogues.size(), 1u);
    EXPECT_EQ(dialogues[0].commands.back(),
              "\x03"
              "100 dfA001" +
                  Host() + "\n");
    EXPECT_EQ(dialogues[0].data, hundred + '\0');

    // The second job's announcement counts the first job's bytes again; what is sent ends with
    // the file and the closing zero octet.
    Daemon second;
    spooler.ConfigurePort(L"P", 2, second.Port(), true);
    Print(port, std::string(50, 'b'));
    const auto next = second.Finish();
    ASSERT_EQ(next.size(), 1u);
    EXPECT_EQ(next[0].commands.back(),
              "\x03"
              "150 dfA002" +
                  Host() + "\n");
    EXPECT_EQ(next[0].data, std::string(50, 'b') + '\0');
    EXPECT_EQ(TempFiles(), before);
}

TEST_F(LprTest, OpeningThePortDoesNotRenumberTheJobThatRuns) {
    Daemon daemon;
    HANDLE port = OpenPort(daemon.Port(), true);
    ASSERT_TRUE(Start(port));
    spooler.Open(L"P");
    spooler->pfnEndDocPort(port);
    EXPECT_THAT(daemon.Finish().at(0).commands.back(),
                testing::EndsWith(" dfA001" + Host() + "\n"));
}

TEST_F(LprTest, ADoubleSpooledJobOfManyChunksArrivesWhole) {
    Daemon daemon;
    HANDLE port = OpenPort(daemon.Port(), true);
    std::string document(1'000'003, '\0');
    for (size_t i = 0; i < document.size(); ++i) {
        document[i] = static_cast<char>(i * 7);
    }
    Print(port, document);
    EXPECT_EQ(daemon.Finish().at(0).data, document + '\0');
}

TEST_F(LprTest, AnEmptyDoubleSpooledJobStillEndsItsDialogue) {
    Daemon daemon;
    HANDLE port = OpenPort(daemon.Port(), true);
    ASSERT_TRUE(Start(port));
    EXPECT_TRUE(spooler->pfnEndDocPort(port));
    const Dialogue dialogue = daemon.Finish().at(0);
    EXPECT_EQ(dialogue.commands.back(),
              "\x03"
              "0 dfA001" +
                  Host() + "\n");
    EXPECT_EQ(dialogue.data, std::string(1, '\0'));
}

TEST_F(LprTest, TheJobNumberIsOneByteAndStartsAgainWhenThePortIsOpened) {
    TcpPeer refusing([](PeerConnection& job) {
        job.ReadLine();
        job.Write("\x01");
    });
    Daemon daemon;
    HANDLE port = OpenPort(refusing.port, true);
    for (int i = 1; i < 256; ++i) {
        EXPECT_FALSE(Start(port));
    }
    spooler.ConfigurePort(L"P", 2, daemon.Port(), true);
    Print(port, "x");
    spooler.Open(L"p");
    Print(port, "x");
    spooler->pfnClosePort(port);
    const auto dialogues = daemon.Finish();
    ASSERT_EQ(dialogues.size(), 2u);
    EXPECT_THAT(dialogues[0].commands[1], testing::EndsWith(" cfA000" + Host() + "\n"));
    EXPECT_THAT(dialogues[1].commands[1], testing::EndsWith(" cfA001" + Host() + "\n"));
}

TEST_F(LprTest, ADaemonThatDoesNotAcknowledgeFailsTheStart) {
    for (const char* answer : {"\x01", "no queue\n"}) {
        for (int step = 0; step < 4; ++step) {
            Daemon daemon(step, answer);
            HANDLE port = OpenPort(daemon.Port(), false);
            EXPECT_FALSE(Start(port)) << step;
            EXPECT_EQ(daemon.Finish().size(), 1u);
            DWORD written = 0;
            BYTE byte = 0;
            EXPECT_FALSE(spooler->pfnWritePort(port, &byte, 1, &written));
        }
    }
}

TEST_F(LprTest, ADaemonThatClosesOrStaysSilentFailsTheStart) {
    TcpPeer closing([](PeerConnection& job) { job.ReadLine(); });
    HANDLE port = OpenPort(closing.port, false);
    EXPECT_FALSE(Start(port));
    EXPECT_EQ(GetLastError(), DWORD{WSAENOTCONN});

    TcpPeer silent([](PeerConnection& job) { job.ReadAll(); });
    spooler.ConfigurePort(L"P", 2, silent.port);
    const ULONGLONG begin = GetTickCount64();
    EXPECT_FALSE(Start(port));
    EXPECT_GE(GetTickCount64() - begin, 3900u);
    EXPECT_EQ(GetLastError(), 0u);  // of the resolver, the last that had something to say
}

// While a daemon is waited for, ports are not listed, opened or deleted; jobs that already run go
// on, and channels are opened.
TEST_F(LprTest, ASilentDaemonHoldsUpTheListButNoRunningJob) {
    HANDLE asked = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    TcpPeer silent([&](PeerConnection& job) {
        job.ReadLine();
        SetEvent(asked);
        job.ReadAll();
    });
    TcpPeer raw([](PeerConnection& job) { job.ReadAll(); });
    LPCWSTR name = L"RAW";
    spooler->pfnAddPortEx(spooler.monitor, nullptr, 1, reinterpret_cast<LPBYTE>(&name), nullptr);
    spooler.ConfigurePort(L"RAW", 1, raw.port);
    HANDLE running = spooler.Open(L"RAW");
    ASSERT_TRUE(Start(running));
    HANDLE port = OpenPort(silent.port, false);

    auto started = std::async(std::launch::async, [&] { return Start(port); });
    WaitForSingleObject(asked, INFINITE);
    const ULONGLONG begin = GetTickCount64();
    DWORD written = 0;
    BYTE page = 0;
    EXPECT_TRUE(spooler->pfnWritePort(running, &page, 1, &written));
    EXPECT_TRUE(spooler->pfnEndDocPort(running));
    spooler.OpenXcv();
    EXPECT_LT(GetTickCount64() - begin, 2000u);
    EXPECT_NE(spooler.Open(L"RAW"), nullptr);
    EXPECT_GE(GetTickCount64() - begin, 3000u);
    EXPECT_FALSE(started.get());
    CloseHandle(asked);
}

TEST_F(LprTest, ARefusedAnnouncementLeavesTheJobOnDisk) {
    Daemon daemon(3, "\x01");
    HANDLE port = OpenPort(daemon.Port(), true);
    const size_t before = TempFiles();
    Print(port, "somebody's invoice");
    EXPECT_EQ(TempFiles(), before + 1);
    daemon.Finish();
}

TEST_F(LprTest, WithoutATemporaryFileTheJobDoesNotStart) {
    ImportPatch patch(
        spooler.dll, "GetTempPathW", +[](DWORD, LPWSTR) -> DWORD WINAPI {
            SetLastError(ERROR_PATH_NOT_FOUND);
            return 0;
        });
    Daemon daemon;
    HANDLE port = OpenPort(daemon.Port(), true);
    EXPECT_FALSE(Start(port));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(daemon.Finish().at(0).commands.size(), 2u);
}

TEST_F(LprTest, LprPortsAreNotReadFrom) {
    Daemon daemon;
    HANDLE port = OpenPort(daemon.Port(), true);
    ASSERT_TRUE(Start(port));
    DWORD count = 7;
    BYTE byte = 0;
    SetLastError(1234);
    EXPECT_FALSE(spooler->pfnReadPort(port, &byte, 1, &count));
    EXPECT_EQ(GetLastError(), 1234u);
    EXPECT_EQ(count, 0u);
    spooler->pfnEndDocPort(port);
}

}  // namespace
