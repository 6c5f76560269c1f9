// A job that stands in a real queue for one that SpoolerHost carries.
#pragma once

#include <optional>
#include <string>

#include "diag/Resource.h"

// A queue that lives as long as this object, for Wine, where there is often none: Wine's own
// driver. Nothing is ever printed through it unless a port is given that can print.
class WineQueue {
  public:
    explicit WineQueue(std::wstring port = L"NUL:");  // throws CommandFailed
    ~WineQueue();
    WineQueue(const WineQueue&) = delete;
    WineQueue& operator=(const WineQueue&) = delete;

    const std::wstring& Name() const { return name_; }

  private:
    std::wstring name_;
    UniquePrinter printer_;
};

// The monitor reports on its job to the spooler by a printer's name and a job's id. This gives it
// both: a job without a byte, held from the first moment, so that the queue never prints it, and
// taken out at the end, also when the user ends the program in between.
class ControlJob {
  public:
    // printer: the queue; empty: the user's default printer, or under Wine a queue of its own.
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

    std::optional<WineQueue> ownQueue_;
    std::wstring printerName_;
    UniquePrinter printer_;
    DWORD id_ = 0;
};
