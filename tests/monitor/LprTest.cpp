#include "monitor/Lpr.h"

#include <gmock/gmock.h>

#include <deque>
#include <filesystem>
#include <future>

#include "tests/support/FakeSpooler.h"
#include "tests/support/HeldCall.h"
#include "tests/support/OddPrinter.h"

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

// A line printer daemon that treats each of its connections in the same way.
class Daemon {
  public:
    // Parameters: the size of the jobs, and how the daemon acknowledges one step.
    explicit Daemon(size_t size = 0, Behaviour behaviour = Behaviour::Takes, int step = 0)
        : peer_([=, this](PeerConnection& job) {
              Visit& visit = visits_.emplace_back();
              visit.lpr = true;
              visit.size = size;
              visit.behaviour = behaviour;
              visit.step = step;
              Serve(job, visit);
          }) {}

    WORD Port() const { return peer_.port; }
    const std::deque<Visit>& Finish() {
        peer_.Finish();
        return visits_;
    }

  private:
    std::deque<Visit> visits_;
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
    // With a length of 0 the data ends where the connection does: daemons take the closing zero
    // octet as data and do not acknowledge it, and the job succeeds.
    Daemon daemon(5, Behaviour::AcksNever, kEndOfData);
    HANDLE port = OpenPort(daemon.Port(), false);
    ASSERT_TRUE(spooler.Start(port));
    DWORD count = 7;
    BYTE byte = 0;
    SetLastError(1234);
    EXPECT_FALSE(spooler->pfnReadPort(port, &byte, 1, &count)) << "LPR ports are not read from";
    EXPECT_EQ(GetLastError(), 1234u);
    EXPECT_EQ(count, 0u);
    Print(port, "hello");
    const Visit& visit = daemon.Finish().at(0);
    const std::string control = "H" + Host() + "\nP" + User() + "\nldfA001" + Host() + "\n";
    EXPECT_THAT(visit.commands,
                testing::ElementsAre(
                    "\x02lp\n", "\x02" + std::to_string(control.size()) + " cfA001" + Host() + "\n",
                    DataCommand("0 dfA001")));
    EXPECT_EQ(visit.controlFile, control + '\0');
    EXPECT_EQ(visit.data, "hello");
    EXPECT_EQ(visit.complaint, "") << "one zero octet ends the data";
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
        Daemon daemon(job.document.size());
        spooler.ConfigurePort(L"P", 2, daemon.Port(), true);
        Print(port, job.document);
        const Visit& visit = daemon.Finish().at(0);
        EXPECT_EQ(visit.commands.back(), DataCommand(job.announced));
        EXPECT_EQ(visit.data, job.document);
        EXPECT_EQ(visit.complaint, "");
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
    Daemon daemon(1);
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
    const auto& visits = daemon.Finish();
    ASSERT_EQ(visits.size(), 3u);
    const char* const numbers[] = {"000", "001", "001"};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_THAT(visits[i].commands[1],
                    testing::EndsWith(" cfA" + (numbers[i] + Host()) + "\n"));
    }
}

TEST_F(LprTest, ADaemonThatDoesNotAcknowledgeFailsTheStart) {
    for (const Behaviour answer : {Behaviour::AcksNegative, Behaviour::AcksWrong}) {
        for (int step = kReceiveJob; step <= kDataFileCommand; ++step) {
            Daemon daemon(0, answer, step);
            HANDLE port = OpenPort(daemon.Port(), false);
            EXPECT_FALSE(spooler.Start(port)) << step;
            spooler->pfnEndDocPort(port);
            ASSERT_EQ(daemon.Finish().size(), 1u);
            EXPECT_EQ(daemon.Finish()[0].complaint, "");
            EXPECT_FALSE(spooler.WriteAll(port, "x"));
        }
    }
    // Announced when it has been spooled, a job that is refused stays on disk.
    Daemon daemon(0, Behaviour::AcksNegative, kDataFileCommand);
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
        HeldCall hung;
        Visit visit;
        visit.lpr = lpr;
        visit.behaviour = Behaviour::ResetsAfter;  // takes no data
        TcpPeer printer([&](PeerConnection& job) {
            Serve(job, visit);
            hung.Hold();
        });
        HANDLE port = lpr ? OpenPort(printer.port, true) : spooler.OpenNew(L"R", 1, printer.port);
        auto job = std::async(std::launch::async, [&] {
            EXPECT_TRUE(spooler.Start(port));
            // A spooled job is taken at once, and sent at its end.
            EXPECT_EQ(spooler.WriteAll(port, std::string(32'000'000, 'x')), lpr);
            spooler->pfnEndDocPort(port);
        });
        hung.Await();
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
        hung.Release();
        EXPECT_GT(others.get(), 0u);
        job.get();
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
    Daemon daemon(2000);
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
