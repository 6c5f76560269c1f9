#include "admin/channel/ControlJob.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "base/CommandFailed.h"
#include "base/Text.h"

namespace {

// The jobs that stand in a queue now. Whoever takes one out of here removes it from the queue:
// its destructor, or the console's event thread when the user ends the program.
std::mutex liveLock;
std::vector<ControlJob*> live;

std::wstring DefaultPrinter() {
    DWORD size = 0;
    GetDefaultPrinterW(nullptr, &size);
    std::wstring name(size, L'\0');
    if (size == 0 || !GetDefaultPrinterW(name.data(), &size)) {
        return {};
    }
    name.resize(wcslen(name.c_str()));
    return name;
}

// A queue with this attribute opens its port as soon as a job starts, held or not.
bool PrintsDirectly(HANDLE printer) {
    DWORD needed = 0;
    GetPrinterW(printer, 2, nullptr, 0, &needed);
    std::vector<BYTE> buffer(needed);
    return needed != 0 && GetPrinterW(printer, 2, buffer.data(), needed, &needed) &&
           (reinterpret_cast<PRINTER_INFO_2W*>(buffer.data())->Attributes &
            PRINTER_ATTRIBUTE_DIRECT) != 0;
}

[[noreturn]] void Fail(const std::wstring& printer, const std::string& what) {
    throw CommandFailed("printer " + WideToUtf8(printer) + " " + what +
                        "; name another with --printer");
}

}  // namespace

ControlJob::ControlJob(const std::wstring& printer, const std::wstring& document)
    : printerName_(printer.empty() ? DefaultPrinter() : printer) {
    if (printerName_.empty()) {
        throw CommandFailed(
            "there is no default printer to control the job with: "
            "name a printer with --printer");
    }
    PRINTER_DEFAULTSW access = {nullptr, nullptr, PRINTER_ACCESS_USE};
    if (!OpenPrinterW(printerName_.data(), printer_.Out(), &access)) {
        Fail(printerName_, "cannot be opened: " + ErrorText(GetLastError()));
    }
    if (PrintsDirectly(printer_.Get())) {
        Fail(printerName_, "prints without spooling");
    }
    std::wstring documentName = document;
    wchar_t raw[] = L"RAW";
    DOC_INFO_1W info = {documentName.data(), nullptr, raw};
    id_ = StartDocPrinterW(printer_.Get(), 1, reinterpret_cast<LPBYTE>(&info));
    if (id_ == 0) {
        Fail(printerName_, "gives no job: " + ErrorText(GetLastError()));
    }
    if (!SetJobW(printer_.Get(), id_, 0, nullptr, JOB_CONTROL_PAUSE)) {
        const DWORD error = GetLastError();
        Remove();
        Fail(printerName_, "does not hold its job: " + ErrorText(error));
    }
    {
        const std::lock_guard lock(liveLock);
        live.push_back(this);
    }
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
}

ControlJob::~ControlJob() {
    SetConsoleCtrlHandler(OnConsoleEvent, FALSE);
    const std::lock_guard lock(liveLock);
    if (std::erase(live, this) != 0) {
        Remove();
    }
}

// Deleted first, aborted then: closing a printer while its document is open would end the
// document, and with that release the job to the queue.
void ControlJob::Remove() noexcept {
    SetJobW(printer_.Get(), id_, 0, nullptr, JOB_CONTROL_DELETE);
    AbortPrinter(printer_.Get());
}

BOOL WINAPI ControlJob::OnConsoleEvent(DWORD) {
    const std::lock_guard lock(liveLock);
    for (ControlJob* job : live) {
        job->Remove();
    }
    live.clear();
    return FALSE;  // and now what the system does by default: it ends the process
}
