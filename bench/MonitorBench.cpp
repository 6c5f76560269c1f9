// What the monitor costs over the bare system: jobs through kestmon.dll beside the same bytes sent
// with nothing in between, measured in turn in one run, and the cost of many ports.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <winspool.h>
#include <winsplp.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/SideBySide.h"
#include "tests/support/ImportPatch.h"
#include "admin/channel/MonitorRegistry.h"

namespace {

struct Library {
    Library() {
        WCHAR self[MAX_PATH];
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        const auto path =
            std::filesystem::path(self).parent_path().parent_path() / "bin" / "kestmon.dll";
        module = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
        if (module == nullptr) {
            Fail("kestmon.dll does not load");
        }
    }
    ~Library() { FreeLibrary(module); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    HMODULE module;
};

// A spooler that costs nothing: its registry answers from memory, its print API does nothing.
class FreeSpooler : public MonitorRegistry {
  public:
    explicit FreeSpooler(size_t ports, WORD tcpPort = 0)
        : ports_(ports), tcpPort_(tcpPort), init_(MonitorInit(nullptr)) {}

    void Start() {
        using Initialize = LPMONITOR2(WINAPI*)(PMONITORINIT, PHANDLE);
        table = reinterpret_cast<Initialize>(reinterpret_cast<void*>(
            GetProcAddress(dll_.module, "InitializePrintMonitor2")))(&init_, &monitor);
        if (table == nullptr) {
            Fail("InitializePrintMonitor2");
        }
    }
    void Stop() { table->pfnShutdown(monitor); }

    void Print(HANDLE port, const std::vector<char>& chunk, size_t total) {
        if (!table->pfnStartDocPort(port, printer_, 1, 1, nullptr)) {
            Fail("StartDocPort");
        }
        auto* bytes = reinterpret_cast<LPBYTE>(const_cast<char*>(chunk.data()));
        for (size_t left = total; left > 0;) {
            DWORD written = 0;
            if (!table->pfnWritePort(port, bytes, static_cast<DWORD>(std::min(left, chunk.size())),
                                     &written)) {
                Fail("WritePort");
            }
            left -= written;
        }
        table->pfnEndDocPort(port);
    }

    MONITOR2* table = nullptr;
    HANDLE monitor = nullptr;

  private:
    LONG CreateKey(HKEY, LPCWSTR, DWORD, REGSAM, SECURITY_ATTRIBUTES*, HKEY* result,
                   DWORD*) override {
        *result = reinterpret_cast<HKEY>(1);
        return 0;
    }
    LONG OpenKey(HKEY, LPCWSTR, REGSAM, HKEY* result) override {
        *result = reinterpret_cast<HKEY>(1);
        return 0;
    }
    LONG CloseKey(HKEY) override { return 0; }
    LONG EnumKey(HKEY, DWORD index, LPWSTR name, DWORD*, FILETIME*) override {
        if (index >= ports_) {
            return ERROR_NO_MORE_ITEMS;
        }
        swprintf(name, 12, L"Port %lu", index);
        return 0;
    }
    LONG QueryInfoKey(HKEY, DWORD* subKeys, DWORD* longest, DWORD*, DWORD*, DWORD*, DWORD*,
                      FILETIME*) override {
        *subKeys = static_cast<DWORD>(ports_);
        *longest = 12;
        return 0;
    }
    LONG QueryValue(HKEY, LPCWSTR value, DWORD*, BYTE* data, DWORD* size) override {
        static constexpr WCHAR kAddress[] = L"127.0.0.1";
        if (wcscmp(value, L"IPAddress") == 0) {
            memcpy(data, kAddress, *size = sizeof(kAddress));
        } else if (wcscmp(value, L"PortNumber") == 0) {
            *reinterpret_cast<DWORD*>(data) = tcpPort_;
        } else {
            memset(data, 0, *size);
        }
        return 0;
    }

    size_t ports_;
    WORD tcpPort_;
    MONITORINIT init_;
    WCHAR printer_[7] = L"Office";

    Library dll_;
    ImportPatch closeKey_{dll_.module, "RegCloseKey", +[](HKEY) -> LONG WINAPI { return 0; }};
    ImportPatch revert_{dll_.module, "RevertToPrinterSelf",
                        +[]() -> HANDLE WINAPI { return nullptr; }};
    ImportPatch openPrinter_{dll_.module, "OpenPrinterW",
                             +[](LPWSTR, LPHANDLE printer, LPPRINTER_DEFAULTSW) -> BOOL WINAPI {
                                 *printer = reinterpret_cast<HANDLE>(1);
                                 return TRUE;
                             }};
    ImportPatch closePrinter_{dll_.module, "ClosePrinter",
                              +[](HANDLE) -> BOOL WINAPI { return TRUE; }};
    ImportPatch setJob_{dll_.module, "SetJobW",
                        +[](HANDLE, DWORD, DWORD, LPBYTE, DWORD) -> BOOL WINAPI { return TRUE; }};
};

// The same job with nothing between the bytes and the system.
void SendBare(const sockaddr_in& to, const std::vector<char>& chunk, size_t total) {
    const SOCKET job = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (connect(job, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) != 0) {
        Fail("connect");
    }
    for (size_t left = total; left > 0;) {
        const int sent = send(job, chunk.data(), static_cast<int>(std::min(left, chunk.size())), 0);
        if (sent <= 0) {
            Fail("send");
        }
        left -= sent;
    }
    shutdown(job, SD_SEND);
    char answer[4096];
    while (recv(job, answer, sizeof(answer), 0) > 0) {
    }
    closesocket(job);
}

// Each job offers its bytes in pieces of chunkSize.
void CompareJobs(const Comparison& what, size_t bytes, size_t chunkSize) {
    const Sink sink;
    FreeSpooler spooler(1, ntohs(sink.address.sin_port));
    spooler.Start();
    HANDLE port = nullptr;
    WCHAR name[] = L"Port 0";
    if (!spooler.table->pfnOpenPort(spooler.monitor, name, &port)) {
        Fail("OpenPort");
    }
    const std::vector<char> chunk(chunkSize, 'k');
    Compare(
        what,
        [&] {
            for (int job = 0; job < what.jobs; ++job) {
                SendBare(sink.address, chunk, bytes);
            }
        },
        [&] {
            for (int job = 0; job < what.jobs; ++job) {
                spooler.Print(port, chunk, bytes);
            }
        });
    spooler.table->pfnClosePort(port);
    spooler.Stop();
}

double LoadAndList(size_t ports) {
    FreeSpooler spooler(ports);
    std::vector<BYTE> buffer(ports * 256 + 256);
    const double time = Seconds([&] {
        spooler.Start();
        DWORD needed = 0;
        DWORD returned = 0;
        if (!spooler.table->pfnEnumPorts(spooler.monitor, nullptr, 2, buffer.data(),
                                         static_cast<DWORD>(buffer.size()), &needed, &returned) ||
            returned != ports) {
            Fail("EnumPorts");
        }
    });
    spooler.Stop();
    return time;
}

// LoadAndList in a process of its own, as a spooler that starts meets it: with cold memory.
double LoadAndListAfresh(const std::string& self, size_t ports) {
    FILE* child = _popen(("\"" + self + "\" " + std::to_string(ports)).c_str(), "r");
    double seconds = 0;
    if (child == nullptr || fscanf(child, "%lf", &seconds) != 1) {
        Fail("cannot run myself");
    }
    _pclose(child);
    return seconds;
}

void CompareManyPorts(const std::string& self, int rounds) {
    std::vector<double> ratios;
    printf("\nLoading and listing ports (level 2), each in a new process\n  %-6s %12s %12s %8s\n",
           "round", "1,000", "10,000", "ratio");
    for (int round = 1; round <= rounds; ++round) {
        const double few = LoadAndListAfresh(self, 1000);
        const double many = LoadAndListAfresh(self, 10000);
        ratios.push_back(many / few);
        printf("  %-6d %9.3f ms %9.3f ms %8.2f\n", round, 1000 * few, 1000 * many, ratios.back());
    }
    // Loading grows tenfold. Listing walks entries of some 700 bytes each, the file name of a
    // double-spooled job included, and 10,000 of those are more than the processor's caches hold.
    printf("  median ratio %.2f (aim: at most 15)\n", Median(ratios));
}

}  // namespace

int main(int argumentCount, char** arguments) {
    setvbuf(stdout, nullptr, _IONBF, 0);
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
    if (argumentCount > 1) {
        printf("%f\n", LoadAndList(std::stoul(arguments[1])));
        return 0;
    }
    CompareJobs({.title = "One RAW job of 1 GiB in chunks of 64 KiB, WritePort beside send",
                 .name = "monitor",
                 .rounds = 7,
                 .jobs = 1,
                 .mebibytes = 1024,
                 .aim = 0.97},
                1024 * kMebibyte, size_t{64} * 1024);
    CompareJobs({.title = "1,000 RAW jobs of 1 KiB, time for each",
                 .name = "monitor",
                 .rounds = 7,
                 .jobs = 1000,
                 .mebibytes = 0,
                 .aim = 1.3},
                1024, 1024);
    CompareManyPorts(arguments[0], 9);
    return 0;
}
