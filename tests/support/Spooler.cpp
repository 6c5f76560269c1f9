// Calls the print functions of Windows for the end-to-end tests:
//   spooler.exe add-printer NAME PORT    with Wine's own driver
//   spooler.exe delete-printer NAME
//   spooler.exe printers                 prints name and port of each
//   spooler.exe ports                    prints the names of all monitors' ports
//   spooler.exe add-port MONITOR         opens the monitor's dialog
//   spooler.exe configure-port NAME      opens the dialog of the port
//   spooler.exe delete-port NAME         opens the dialog of the port
// Prints "ok", or the last error of the function that failed; ends with 1 then.
#include <windows.h>
#include <winspool.h>

#include <iostream>
#include <string>
#include <vector>

#include "admin/Text.h"
#include "tests/support/WinePrinter.h"

namespace {

bool DeletePrinterNamed(std::wstring name) {
    UniquePrinter printer;
    PRINTER_DEFAULTSW access = {nullptr, nullptr, PRINTER_ALL_ACCESS};
    return OpenPrinterW(name.data(), printer.Out(), &access) && DeletePrinter(printer.Get());
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
        std::cout << ToUtf8(printers[i].pPrinterName) << ' ' << ToUtf8(printers[i].pPortName)
                  << '\n';
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
        std::cout << ToUtf8(ports[i].pName) << '\n';
    }
    return true;
}

bool Run(const std::wstring& command, std::wstring name, const std::wstring& port) {
    SetLastError(ERROR_SUCCESS);
    if (command == L"add-printer") {
        return static_cast<bool>(AddWinePrinter(name, port));
    }
    if (command == L"delete-printer") {
        return DeletePrinterNamed(name);
    }
    if (command == L"printers") {
        return PrintPrinters();
    }
    if (command == L"ports") {
        return PrintPorts();
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
    const bool done = Run(word(0), word(1), word(2));
    const DWORD error = GetLastError();
    std::cout << (done ? "ok" : "error " + std::to_string(error)) << std::endl;
    return done ? 0 : 1;
}
