#include "tests/support/WinePrinter.h"

#include <stdexcept>

UniquePrinter AddWinePrinter(std::wstring name, std::wstring port) {
    wchar_t driverName[] = L"Wine PostScript";
    wchar_t driverFile[] = L"wineps.drv";
    wchar_t dataFile[] = L"generic.ppd";
    wchar_t dataType[] = L"RAW";
    wchar_t processor[] = L"WinPrint";
    DRIVER_INFO_3W driver = {};
    driver.cVersion = 3;
    driver.pName = driverName;
    driver.pDriverPath = driverFile;
    driver.pDataFile = dataFile;
    driver.pConfigFile = driverFile;
    driver.pDefaultDataType = dataType;
    // Fails if the driver is already there; AddPrinterW reports a missing one.
    AddPrinterDriverExW(nullptr, 3, reinterpret_cast<BYTE*>(&driver),
                        APD_COPY_NEW_FILES | APD_COPY_FROM_DIRECTORY);
    PRINTER_INFO_2W printer = {};
    printer.pPrinterName = name.data();
    printer.pPortName = port.data();
    printer.pDriverName = driverName;
    printer.pPrintProcessor = processor;
    printer.pDatatype = dataType;
    return UniquePrinter(AddPrinterW(nullptr, 2, reinterpret_cast<BYTE*>(&printer)));
}

WinePrinter::WinePrinter(const std::wstring& port)
    : name_(L"printer-" + std::to_wstring(GetCurrentProcessId())),
      printer_(AddWinePrinter(name_, port)) {
    if (!printer_) {
        throw std::runtime_error("AddPrinterW: " + std::to_string(GetLastError()));
    }
}
