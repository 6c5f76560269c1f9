// How long each call of the monitor waits that can: once each, against printers and addresses that
// do not answer. Runs in a network of its own, as script/bench makes it.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <string>

#include "bench/SideBySide.h"
#include "monitor/Lpr.h"
#include "slp/Limits.h"
#include "tests/support/FakeSpooler.h"
#include "tests/support/TcpPeer.h"

namespace {

using std::chrono::milliseconds;

// Of the network that tests/support/netns.sh makes.
constexpr wchar_t kNobody[] = L"10.77.255.77";  // on the cable, with no such machine
constexpr wchar_t kNowhere[] = L"10.78.0.1";    // beyond a router that drops what goes there
constexpr wchar_t kRefusing[] = L"10.77.1.1";   // a machine where nobody listens

constexpr milliseconds kPatience(5000);  // of a printer that is to be waited for
// A daemon that is as late as it may be, at each of a step's acknowledgments.
constexpr milliseconds kAlmost(1000 * kAcknowledgeSeconds - 150);

constexpr double kSearch =
    std::chrono::duration<double>(slp::kFetchTime).count() + 0.4 + 0.6 + 1.0 + 1.5;

class Job {
  public:
    Job(FakeSpooler& spooler, DWORD protocol, WORD tcpPort, const wchar_t* address = L"127.0.0.1",
        bool doubleSpool = false)
        : spooler_(spooler) {
        LPCWSTR name = L"BOUNDS";
        spooler_->pfnAddPortEx(spooler_.monitor, nullptr, 1, reinterpret_cast<LPBYTE>(&name),
                               nullptr);
        spooler_.ConfigurePort(name, protocol, tcpPort, doubleSpool, address);
        spooler_.SetNumber(name, L"AlwaysPrint", 0);
        port_ = spooler_.Open(name);
    }
    ~Job() { spooler_->pfnClosePort(port_); }
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    void Follow(bool byName) const {
        spooler_.SetNumber(L"BOUNDS", L"AlwaysPrint", 1);
        spooler_.SetText(L"BOUNDS", L"HWAddress", L"0004004A1B2C");
        spooler_.SetText(L"BOUNDS", L"HostName", byName ? L"prn-gone" : L"");
    }
    bool Start() const {
        WCHAR printer[] = L"Office";
        return spooler_->pfnStartDocPort(port_, printer, 1, 1, nullptr);
    }
    bool Write(size_t bytes) const {
        std::string document(bytes, 'k');
        DWORD written = 0;
        while (!document.empty()) {
            if (!spooler_->pfnWritePort(port_, reinterpret_cast<LPBYTE>(document.data()),
                                        static_cast<DWORD>(document.size()), &written)) {
                return false;
            }
            document.erase(0, written);
        }
        return true;
    }
    bool End() const { return spooler_->pfnEndDocPort(port_); }

  private:
    FakeSpooler& spooler_;
    HANDLE port_ = nullptr;
};

// Shows how long a call took. `bound` in seconds; 0: the monitor has none of its own.
void Show(const char* what, double bound, const std::function<bool()>& call) {
    bool done = false;
    DWORD error = 0;
    const double took = Seconds([&] {
        SetLastError(0);
        done = call();
        error = GetLastError();
    });
    char bounded[16] = "none";
    if (bound > 0) {
        snprintf(bounded, sizeof(bounded), "%.1f s", bound);
    }
    const std::string outcome = done ? "done" : "error " + std::to_string(error);
    printf("  %-58s %8.1f s %10s  %s\n", what, took, bounded, outcome.c_str());
}

void ShowStarts(FakeSpooler& spooler) {
    printf("\nStartDocPort\n");
    Show("a machine on which nobody listens", 0,
         [&] { return Job(spooler, 1, 9100, kRefusing).Start(); });
    Show("an address of the own network that nobody has", 0,
         [&] { return Job(spooler, 1, 9100, kNobody).Start(); });
    Show("an address elsewhere from which nothing comes back", 0,
         [&] { return Job(spooler, 1, 9100, kNowhere).Start(); });
    for (const bool byName : {false, true}) {
        Job job(spooler, 1, 9100, kRefusing);
        job.Follow(byName);
        Show(byName ? "nobody listens, and searches by MAC address and name"
                    : "nobody listens, and a search by MAC address",
             byName ? 2 * kSearch : kSearch, [&] { return job.Start(); });
    }
    TcpPeer silent([](PeerConnection& job) { job.ReadAll(); });
    Show("LPR, a daemon that never acknowledges", kAcknowledgeSeconds,
         [&] { return Job(spooler, 2, silent.port).Start(); });
    TcpPeer late([](PeerConnection& job) {
        for (int step = 0; step < 5; ++step) {
            job.ReadSome();
            std::this_thread::sleep_for(kAlmost);
            job.Write(std::string(1, '\0'));
        }
    });
    const Job job(spooler, 2, late.port);
    Show("LPR, a daemon that is late with each of four", 4 * kAcknowledgeSeconds,
         [&] { return job.Start(); });
    Show("and, EndDocPort, with the last one", kAcknowledgeSeconds, [&] { return job.End(); });
}

void ShowEnds(FakeSpooler& spooler) {
    printf("\nWritePort and EndDocPort\n");
    TcpPeer busy([](PeerConnection& job) {
        std::this_thread::sleep_for(kPatience);
        job.ReadAll();
        std::this_thread::sleep_for(kPatience);
    });
    const Job raw(spooler, 1, busy.port);
    raw.Start();
    Show("RAW, WritePort: a printer that does not read for 5 s", 0,
         [&] { return raw.Write(64 * kMebibyte); });
    Show("RAW, EndDocPort: a printer that does not close for 5 s", 0, [&] { return raw.End(); });
    for (const bool doubleSpool : {false, true}) {
        // Acknowledges the start, as far as it comes before the data, and then nothing.
        TcpPeer half([=](PeerConnection& job) {
            for (int step = 0; step < (doubleSpool ? 3 : 4); ++step) {
                job.ReadSome();
                job.Write(std::string(1, '\0'));
            }
            job.ReadAll();
        });
        const Job lpr(spooler, 2, half.port, L"127.0.0.1", doubleSpool);
        lpr.Start();
        lpr.Write(1000);
        Show(doubleSpool ? "double-spooled LPR, EndDocPort: no acknowledgment"
                         : "LPR, EndDocPort: no acknowledgment",
             kAcknowledgeSeconds, [&] { return lpr.End(); });
    }
}

// What an administrator waits for while some other port's daemon is silent.
void ShowLock(FakeSpooler& spooler) {
    printf("\nOther calls, while a daemon does not acknowledge\n");
    TcpPeer silent([](PeerConnection& job) { job.ReadAll(); });
    const Job job(spooler, 2, silent.port);
    std::thread start([&] { job.Start(); });
    Sleep(500);
    Show("a port is added", kAcknowledgeSeconds, [&] {
        LPCWSTR name = L"ANOTHER";
        return spooler->pfnAddPortEx(spooler.monitor, nullptr, 1, reinterpret_cast<LPBYTE>(&name),
                                     nullptr) != 0;
    });
    start.join();
}

}  // namespace

int main() {
    setvbuf(stdout, nullptr, _IONBF, 0);
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
    FakeSpooler spooler;
    spooler.listener = [](const std::string&) -> LONG { return 0; };
    if (!spooler.Start()) {
        Fail("InitializePrintMonitor2");
    }
    printf("  %-58s %10s %10s\n", "", "measured", "bound");
    ShowLock(spooler);
    ShowEnds(spooler);
    ShowStarts(spooler);
    return 0;
}
