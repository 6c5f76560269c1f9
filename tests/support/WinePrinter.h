// Printers for tests, with Wine's own driver.
#pragma once

#include <string>

#include "base/Handles.h"

// Adds a printer. Returns an empty handle, with the last error set, if that failed.
//   port: its port, or several separated by commas.
UniquePrinter AddWinePrinter(std::wstring name, std::wstring port);

// A printer that exists as long as this object. Its default port prints nothing.
class WinePrinter {
  public:
    explicit WinePrinter(const std::wstring& port = L"NUL:");
    ~WinePrinter() { DeletePrinter(printer_.Get()); }
    WinePrinter(const WinePrinter&) = delete;
    WinePrinter& operator=(const WinePrinter&) = delete;

    const std::wstring& Name() const { return name_; }

  private:
    std::wstring name_;
    UniquePrinter printer_;
};
