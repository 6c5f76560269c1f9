// Calls the print functions of Windows for the end-to-end tests:
//   spooler.exe add-printer NAME PORT    with Wine's own driver
//   spooler.exe delete-printer NAME
//   spooler.exe print NAME FILE          also a file of no bytes
//   spooler.exe printers                 prints name and port of each
//   spooler.exe ports                    prints the names of all monitors' ports
//   spooler.exe add-port MONITOR         opens the monitor's dialog
//   spooler.exe configure-port NAME      opens the dialog of the port
//   spooler.exe delete-port NAME         opens the dialog of the port
//   spooler.exe window TITLE TEXT        waits for a window that has the focus and shows TEXT
//   spooler.exe desktop                  keeps the desktop until it is ended
// Prints "ok", or the last error of the function that failed; ends with 1 then.
#include <windows.h>
#include <winspool.h>

#include <iostream>
#include <string>
#include <vector>

#include "base/Text.h"
#include "tests/support/WinePrinter.h"

namespace {

bool DeletePrinterNamed(std::wstring name) {
    UniquePrinter printer;
    PRINTER_DEFAULTSW access = {nullptr, nullptr, PRINTER_ALL_ACCESS};
    return OpenPrinterW(name.data(), printer.Out(), &access) && DeletePrinter(printer.Get());
}

bool PrintFile(std::wstring name, const std::wstring& file) {
    const UniqueFile input(CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                       OPEN_EXISTING, 0, nullptr));
    wchar_t document[] = L"document";
    wchar_t raw[] = L"RAW";
    DOC_INFO_1W info = {document, nullptr, raw};
    UniquePrinter printer;
    if (!input || !OpenPrinterW(name.data(), printer.Out(), nullptr) ||
        StartDocPrinterW(printer.Get(), 1, reinterpret_cast<LPBYTE>(&info)) == 0) {
        return false;
    }
    char piece[65536];
    DWORD count = 0;
    DWORD written = 0;
    while (ReadFile(input.Get(), piece, sizeof(piece), &count, nullptr) && count != 0) {
        if (!WritePrinter(printer.Get(), piece, count, &written)) {
            return false;
        }
    }
    return EndDocPrinter(printer.Get());
}

bool PrintPrinters() {
    DWORD needed = 0;
    DWORD count = 0;
    EnumPrintersW(PRINTER_ENUM_LOCAL, nullptr, 2, nullptr, 0, &needed, &count);
    std::vector<BYTE> buffer(needed);
    if (!EnumPrintersW(PRINTER_ENUM_LOCAL, nullptr, 2, buffer.data(), needed, &needed, &count)) {
        return false;
    }
    const auto* printers = reinterpret_cast<const PRINTER_INFO_2W*>(buffer.data());
    for (DWORD i = 0; i < count; ++i) {
        std::cout << WideToUtf8(printers[i].pPrinterName) << ' '
                  << WideToUtf8(printers[i].pPortName) << '\n';
    }
    return true;
}

bool PrintPorts() {
    DWORD needed = 0;
    DWORD count = 0;
    EnumPortsW(nullptr, 1, nullptr, 0, &needed, &count);
    std::vector<BYTE> buffer(needed);
    if (!EnumPortsW(nullptr, 1, buffer.data(), needed, &needed, &count)) {
        return false;
    }
    const auto* ports = reinterpret_cast<const PORT_INFO_1W*>(buffer.data());
    for (DWORD i = 0; i < count; ++i) {
        std::cout << WideToUtf8(ports[i].pName) << '\n';
    }
    return true;
}

BOOL CALLBACK AppendText(HWND control, LPARAM texts) {
    WCHAR text[1024] = {};
    SendMessageW(control, WM_GETTEXT, 1024, reinterpret_cast<LPARAM>(text));
    *reinterpret_cast<std::wstring*>(texts) += std::wstring(text) + L'\n';
    return TRUE;
}

// Returns false after two minutes, and prints the texts of the window then.
bool WaitForWindow(const std::wstring& title, const std::wstring& text) {
    std::wstring shown;
    for (const ULONGLONG end = GetTickCount64() + 120'000; GetTickCount64() < end; Sleep(50)) {
        const HWND window = GetForegroundWindow();
        shown.clear();
        AppendText(window, reinterpret_cast<LPARAM>(&shown));
        const bool named = shown == title + L'\n';
        EnumChildWindows(window, AppendText, reinterpret_cast<LPARAM>(&shown));
        if (named && shown.find(text) != std::wstring::npos) {
            return true;
        }
    }
    std::cout << WideToUtf8(shown);
    return false;
}

bool Run(const std::wstring& command, std::wstring name, const std::wstring& argument) {
    SetLastError(ERROR_SUCCESS);
    if (command == L"add-printer") {
        return static_cast<bool>(AddWinePrinter(name, argument));
    }
    if (command == L"delete-printer") {
        return DeletePrinterNamed(name);
    }
    if (command == L"print") {
        return PrintFile(name, argument);
    }
    if (command == L"printers") {
        return PrintPrinters();
    }
    if (command == L"ports") {
        return PrintPorts();
    }
    if (command == L"desktop") {
        GetDesktopWindow();
        Sleep(INFINITE);
    }
    if (command == L"window") {
        return WaitForWindow(name, argument);
    }
    if (command == L"add-port") {
        return AddPortW(nullptr, GetDesktopWindow(), name.data());
    }
    if (command == L"configure-port") {
        return ConfigurePortW(nullptr, GetDesktopWindow(), name.data());
    }
    return command == L"delete-port" && DeletePortW(nullptr, GetDesktopWindow(), name.data());
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
    const std::vector<std::wstring> words(arguments + 1, arguments + count);
    const auto word = [&words](size_t i) { return i < words.size() ? words[i] : L""; };
    // Libraries that count their lines (script/coverage) write files when they are unloaded. That
    // changes the last error of the function that unloads them, so they stay until the end.
    if (GetEnvironmentVariableW(L"GCOV_PREFIX", nullptr, 0) != 0) {
        LoadLibraryW(L"kestui.dll");
        LoadLibraryW(L"spooler_bridge.dll");
    }
    const bool done = Run(word(0), word(1), word(2));
    const DWORD error = GetLastError();
    std::cout << (done ? "ok" : "error " + std::to_string(error)) << std::endl;
    return done ? 0 : 1;
}
