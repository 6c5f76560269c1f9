// The shipped kestmon.dll in the tool's own spooler, with the real registry.
#include "admin/channel/DirectChannel.h"

#include <gmock/gmock.h>

#include "admin/ports/PortRename.h"
#include "admin/ports/PortStore.h"
#include "tests/support/FailureOf.h"
#include "tests/support/ImportPatch.h"
#include "tests/support/TcpPeer.h"
#include "tests/support/WinePrinter.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class DirectChannelTest : public testing::Test {
  protected:
    DirectChannelTest() { Start(); }
    ~DirectChannelTest() override {
        host_.reset();
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, key_.c_str());
    }

    void Start() {
        host_.reset();
        host_ = std::make_unique<DirectChannel>(KESTMON_DLL, key_.c_str());
    }
    void Add(const std::wstring& name, DWORD portNumber) {
        PortRecords records;
        Apply({.address = "127.0.0.1", .portNumber = portNumber}, records);
        AddPort(*host_, name, records);
    }
    // Sends a job until it is through; returns what went wrong, or nothing.
    std::string Print(const std::string& data) {
        try {
            const auto job = host_->StartJob(L"OFFICE", L"a document", printer_.Name());
            for (size_t sent = 0; sent < data.size();) {
                sent += job->Write(reinterpret_cast<const BYTE*>(data.data()) + sent,
                                   std::min<size_t>(65536, data.size() - sent));
            }
            job->End();
        } catch (const CommandFailed& failed) {
            return failed.what();
        }
        return {};
    }

    size_t WaitingJobs() {
        const std::vector<Queue> queues = host_->Queues();
        return queues.size() == 1 ? queues.front().jobs : SIZE_MAX;
    }

    const WinePrinter printer_{L"LPT1:,OFFICE"};
    std::wstring key_ = L"SOFTWARE\\kestmon-test-" + std::to_wstring(GetCurrentProcessId());
    std::unique_ptr<DirectChannel> host_;
};

TEST_F(DirectChannelTest, PortsLastInTheRegistry) {
    EXPECT_THAT(host_->PortNames(), IsEmpty());
    Add(L"OFFICE", 9100);
    Add(L"B\u00fcro", 9101);
    EXPECT_THAT(host_->PortNames(), ElementsAre(L"OFFICE", L"B\u00fcro"));
    Start();
    EXPECT_THAT(host_->PortNames(), testing::UnorderedElementsAre(L"OFFICE", L"B\u00fcro"));
    EXPECT_EQ(Destination(ReadPort(*host_, L"B\u00fcro")), "raw to 127.0.0.1:9101");
    DeletePort(*host_, L"OFFICE");
    Start();
    EXPECT_THAT(host_->PortNames(), ElementsAre(L"B\u00fcro"));
}

TEST_F(DirectChannelTest, RenamesPortsAndMovesTheSystemsQueues) {
    Add(L"OFFICE", 9100);
    RenamePort(*host_, PlanRename(*host_, L"office", L"HALL"));
    EXPECT_EQ(Destination(ReadPort(*host_, L"HALL")), "raw to 127.0.0.1:9100");
    EXPECT_THAT(QueuesOn(host_->Queues(), L"HALL"), ElementsAre(printer_.Name()));
    // One that was never configured, too.
    host_->Xcv(L"AddPort", L"NEW", 8, nullptr, 0);
    RenamePort(*host_, PlanRename(*host_, L"NEW", L"NEWER"));
    EXPECT_THAT(host_->PortNames(), testing::UnorderedElementsAre(L"HALL", L"NEWER"));
}

TEST_F(DirectChannelTest, KnowsTheQueuesOfASpoolerThatDoesNotRunAndOfNoneThatHidesThem) {
    const HMODULE self = GetModuleHandleW(nullptr);
    {
        const ImportPatch patch(self, "EnumPrintersW",
                                Refusing<RPC_S_SERVER_UNAVAILABLE>(EnumPrintersW));
        EXPECT_THAT(QueuesOn(host_->Queues(), L"office"), ElementsAre(printer_.Name()));
    }
    const ImportPatch patch(self, "EnumPrintersW", Refusing<ERROR_ACCESS_DENIED>(EnumPrintersW));
    EXPECT_THROW(host_->Queues(), CommandFailed);
}

TEST_F(DirectChannelTest, SaysWhyAJobDidNotGoThroughAndCarriesTheNext) {
    EXPECT_THAT(Print("x"), HasSubstr("OFFICE"));  // there is no such port yet
    host_->Xcv(L"AddPort", L"OFFICE", 14, nullptr, 0);
    EXPECT_THAT(Print("x"), HasSubstr("is not configured"));
    DeletePort(*host_, L"OFFICE");

    std::atomic<bool> breaks = true;
    std::string received;
    TcpPeer printer([&](PeerConnection& connection) {
        if (breaks.exchange(false)) {
            connection.Read(1000);
            connection.Reset();
        } else {
            received = connection.ReadAll();
        }
    });
    Add(L"OFFICE", printer.port);
    EXPECT_THAT(Print(std::string(50000000, 'x')), HasSubstr("print it again"));
    std::string next(3'000'000, '\0');
    for (size_t i = 0; i < next.size(); ++i) {
        next[i] = static_cast<char>(i * i >> 8);
    }
    EXPECT_EQ(Print(next), "");
    EXPECT_EQ(received, next);
    printer.Finish();
    EXPECT_THAT(Print("x"), HasSubstr("(10061)"));
    EXPECT_EQ(WaitingJobs(), 0u);
}

BOOL WINAPI KnowNoPrinter(LPWSTR, LPDWORD size) {
    *size = 0;
    return SetLastError(ERROR_FILE_NOT_FOUND), FALSE;
}
int deletedJobs = 0;
BOOL WINAPI RefuseToPause(HANDLE printer, DWORD job, DWORD level, LPBYTE info, DWORD command) {
    // Not ::SetJobW, which is replaced.
    static const auto real = reinterpret_cast<decltype(&::SetJobW)>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"winspool.drv"), "SetJobW")));
    deletedJobs += command == JOB_CONTROL_DELETE ? 1 : 0;
    return command == JOB_CONTROL_PAUSE ? (SetLastError(ERROR_ACCESS_DENIED), FALSE)
                                        : real(printer, job, level, info, command);
}

TEST_F(DirectChannelTest, AJobNeedsAPrinterThatHoldsItsOwn) {
    Add(L"OFFICE", 9100);
    const auto refusal = [this](const std::wstring& printer) -> std::string {
        return FailureOf([&] { host_->StartJob(L"OFFICE", L"a document", printer); }).what();
    };
    const HMODULE self = GetModuleHandleW(nullptr);
    EXPECT_THAT(refusal(L"no such printer"),
                AllOf(HasSubstr("no such printer cannot be opened"), HasSubstr("--printer")));
    {
        const ImportPatch patch(self, "GetDefaultPrinterW", KnowNoPrinter);
        EXPECT_THAT(refusal(L""), HasSubstr("there is no default printer"));
    }
    {
        const ImportPatch patch(self, "StartDocPrinterW",
                                Refusing<ERROR_ACCESS_DENIED>(StartDocPrinterW));
        EXPECT_THAT(refusal(printer_.Name()), HasSubstr("gives no job"));
    }
    const ImportPatch patch(self, "SetJobW", RefuseToPause);
    EXPECT_THAT(refusal(printer_.Name()), HasSubstr("does not hold its job"));
    EXPECT_EQ(deletedJobs, 1) << "the spooler would print it";
    EXPECT_EQ(WaitingJobs(), 0u);
}

TEST(DirectChannel, RefusesWhatIsNoMonitor) {
    EXPECT_THROW(DirectChannel("no-such-file.dll"), CommandFailed);
    EXPECT_THROW(DirectChannel("kernel32.dll"), CommandFailed);
}

}  // namespace
