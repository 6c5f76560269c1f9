// What `kestctl print` costs over the bare system: PrintBench DOCUMENT prints it past the spooler,
// beside a program that reads the same file and sends it, each a process of its own.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/SideBySide.h"
#include "base/Handles.h"
#include "tests/support/WinePrinter.h"

namespace {

std::wstring Quoted(const std::wstring& text) {
    return L'"' + text + L'"';
}

// Runs a program to its end, without its output; what it complains of is shown. Returns whether it
// did what it was to do.
bool Run(std::wstring commandLine) {
    SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
    const UniqueFile nowhere(CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                         &inherited, OPEN_EXISTING, 0, nullptr));
    STARTUPINFOW start = {};
    start.cb = sizeof(start);
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdOutput = nowhere.Get();
    start.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION started = {};
    if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                        &start, &started)) {
        Fail("a program does not start");
    }
    const UniqueFile process(started.hProcess);
    const UniqueFile thread(started.hThread);
    WaitForSingleObject(process.Get(), INFINITE);
    DWORD code = 1;
    GetExitCodeProcess(process.Get(), &code);
    return code == 0;
}

// In pieces of the size that kestctl comes to on a printer that is quick.
void SendBare(const std::wstring& document, u_short tcpPort) {
    const UniqueFile file(CreateFileW(document.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                      OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    const UniqueSocket job(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(tcpPort);
    if (!file || connect(job.Get(), reinterpret_cast<const sockaddr*>(&to), sizeof(to)) != 0) {
        Fail("no document or no connection");
    }
    std::vector<char> piece(kMebibyte);
    DWORD count = 0;
    while (ReadFile(file.Get(), piece.data(), static_cast<DWORD>(piece.size()), &count, nullptr) &&
           count > 0) {
        for (DWORD sent = 0; sent < count;) {
            const int step =
                send(job.Get(), piece.data() + sent, static_cast<int>(count - sent), 0);
            if (step <= 0) {
                Fail("send");
            }
            sent += static_cast<DWORD>(step);
        }
    }
    shutdown(job.Get(), SD_SEND);
    while (recv(job.Get(), piece.data(), static_cast<int>(piece.size()), 0) > 0) {
    }
}

// Returns false if the table is of no worth, since not every program came to its end.
bool ComparePrinting(const std::filesystem::path& self, const std::wstring& document) {
    const Sink sink;
    const std::wstring tcpPort = std::to_wstring(ntohs(sink.address.sin_port));
    const std::wstring port = L"Bench-" + std::to_wstring(GetCurrentProcessId());
    const std::wstring bare = Quoted(self.native()) + L' ' + Quoted(document) + L' ' + tcpPort;
    const std::wstring kestctl =
        Quoted((self.parent_path().parent_path() / L"bin" / L"kestctl.exe").native()) +
        L" --direct ";
    if (!Run(kestctl + L"port add " + port + L" --address 127.0.0.1 --port " + tcpPort)) {
        return false;
    }
    const WinePrinter printer;  // for the control job of --direct
    const std::wstring print = kestctl + L"print " + Quoted(document) + L" --port " + port +
                               L" --printer " + printer.Name();
    bool done = true;
    Compare(
        {.title = "A document of 1 GiB, kestctl print --direct beside read and send",
         .name = "kestctl",
         .rounds = 7,
         .jobs = 1,
         .mebibytes = 0,
         .aim = 1.2},
        [&] { done = Run(bare) && done; }, [&] { done = Run(print) && done; });
    return Run(kestctl + L"port delete " + port) && done;
}

}  // namespace

int wmain(int argumentCount, wchar_t** arguments) {
    setvbuf(stdout, nullptr, _IONBF, 0);
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
    if (argumentCount == 3) {
        SendBare(arguments[1], static_cast<u_short>(std::stoul(arguments[2])));
        return 0;
    }
    return ComparePrinting(arguments[0], arguments[1]) ? 0 : 1;
}
