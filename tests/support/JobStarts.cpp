// job_starts KESTMON.DLL FILE PORT...: prints the file through all these ports at once, from one
// process as the spooler is one, and tells how many milliseconds each job took to start. Ends with
// 1 when a job failed.
#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <thread>

#include "base/Text.h"
#include "tests/support/WinePrinter.h"
#include "admin/channel/ControlJob.h"
#include "admin/channel/DirectChannel.h"

namespace {

bool PrintThrough(DirectChannel& spooler, const ControlJob& job, std::wstring port,
                  std::string bytes) {
    const MONITOR2& monitor = spooler.Table();
    HANDLE handle = nullptr;
    if (!monitor.pfnOpenPort(spooler.Monitor(), port.data(), &handle)) {
        printf("%s: no such port\n", WideToUtf8(port).c_str());
        return false;
    }
    std::wstring printer = job.Printer();
    const auto begin = std::chrono::steady_clock::now();
    const bool started = monitor.pfnStartDocPort(handle, printer.data(), job.Id(), 1, nullptr);
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
    printf("%s: %.0f ms%s\n", WideToUtf8(port).c_str(), took.count(), started ? "" : ", failed");
    DWORD written = 0;
    while (started && !bytes.empty() &&
           monitor.pfnWritePort(handle, reinterpret_cast<BYTE*>(bytes.data()),
                                static_cast<DWORD>(bytes.size()), &written)) {
        bytes.erase(0, written);
    }
    monitor.pfnEndDocPort(handle);
    monitor.pfnClosePort(handle);
    return started && bytes.empty();
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
    try {
        DirectChannel spooler(arguments[1]);
        std::ifstream file(std::filesystem::path(arguments[2]), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), {}};
        const WinePrinter printer;
        const ControlJob job(printer.Name(), L"job_starts");
        std::atomic<int> failed = 0;
        std::vector<std::thread> threads;
        for (int i = 3; i < count; ++i) {
            threads.emplace_back(
                [&, i] { failed += !PrintThrough(spooler, job, arguments[i], bytes); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        return failed != 0;
    } catch (const std::exception& error) {
        printf("job_starts: %s\n", error.what());
        return 1;
    }
}
