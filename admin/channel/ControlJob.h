// A job that stands in a real queue for one that DirectChannel carries.
#pragma once

#include <string>

#include "base/Handles.h"

// The monitor reports on its job to the spooler by a printer's name and a job's id. This gives it
// both: a job without a byte, held from the first moment, so that the queue never prints it, and
// taken out at the end, also when the user ends the program in between.
class ControlJob {
  public:
    // printer: the queue; empty: the user's default printer.
    // document: the job's name there.
    // Throws CommandFailed.
    ControlJob(const std::wstring& printer, const std::wstring& document);
    ~ControlJob();
    ControlJob(const ControlJob&) = delete;
    ControlJob& operator=(const ControlJob&) = delete;

    const std::wstring& Printer() const { return printerName_; }
    DWORD Id() const { return id_; }

  private:
    static BOOL WINAPI OnConsoleEvent(DWORD event);
    void Remove() noexcept;

    std::wstring printerName_;
    UniquePrinter printer_;
    DWORD id_ = 0;
};
