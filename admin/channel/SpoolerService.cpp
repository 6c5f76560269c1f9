#include "admin/channel/SpoolerService.h"

#include <algorithm>

#include "base/CommandFailed.h"
#include "base/Text.h"

namespace {

// What helps where the spooler is not reached, or refuses; anything else has a remedy of its own.
Remedy RemedyFor(DWORD error, Remedy otherwise = Remedy::None) {
    switch (error) {
        case ERROR_ACCESS_DENIED:
            return Remedy::RunAsAdministrator;
        case RPC_S_SERVER_UNAVAILABLE:
        case ERROR_BAD_NETPATH:
        case ERROR_INVALID_NAME:
            return Remedy::StartSpooler;
        default:
            return otherwise;
    }
}

// Calls one of the spooler's Enum functions until its buffer is large enough.
//   failure: what to say when it fails, without the reason.
//   enumerate: takes buffer, its size in bytes, needed size, number of records; TRUE on success.
// Returns the buffer and the number of `Info` records at its start.
template <class Info, class Enumerate>
std::pair<std::vector<BYTE>, size_t> Enumerated(const std::string& failure, Enumerate enumerate) {
    std::vector<BYTE> buffer;
    DWORD needed = 0;
    DWORD count = 0;
    // What is listed may grow between two calls.
    while (!enumerate(buffer.data(), static_cast<DWORD>(buffer.size()), &needed, &count)) {
        const DWORD error = GetLastError();
        if (error != ERROR_INSUFFICIENT_BUFFER || needed <= buffer.size()) {
            throw CommandFailed(failure + ": " + ErrorText(error), RemedyFor(error));
        }
        buffer.resize(needed);
    }
    return {std::move(buffer), count};
}

class QueuedJob : public PrintJob {
  public:
    QueuedJob(const std::wstring& queue, const std::wstring& document) : queue_(WideToUtf8(queue)) {
        std::wstring name = queue;
        std::wstring documentName = document;
        if (!OpenPrinterW(name.data(), printer_.Out(), nullptr)) {
            throw CommandFailed("printer " + queue_ +
                                " cannot be opened: " + ErrorText(GetLastError()));
        }
        wchar_t raw[] = L"RAW";
        DOC_INFO_1W info = {documentName.data(), nullptr, raw};
        id_ = StartDocPrinterW(printer_.Get(), 1, reinterpret_cast<LPBYTE>(&info));
        if (id_ == 0) {
            throw CommandFailed("printer " + queue_ +
                                " does not take the job: " + ErrorText(GetLastError()));
        }
        StartPagePrinter(printer_.Get());
    }

    ~QueuedJob() override {
        if (!ended_) {
            AbortPrinter(printer_.Get());
        }
    }

    size_t Write(const BYTE* bytes, size_t count) override {
        DWORD taken = 0;
        if (!WritePrinter(printer_.Get(), const_cast<BYTE*>(bytes), static_cast<DWORD>(count),
                          &taken) ||
            taken == 0) {
            throw CommandFailed("printer " + queue_ + " takes no more of job " +
                                std::to_string(id_) + ": " + ErrorText(GetLastError()));
        }
        return taken;
    }

    void End() override {
        if (!EndPagePrinter(printer_.Get()) || !EndDocPrinter(printer_.Get())) {
            throw CommandFailed("printer " + queue_ + " does not end job " + std::to_string(id_) +
                                ": " + ErrorText(GetLastError()));
        }
        ended_ = true;
    }

    void Abandon() noexcept override {
        SetJobW(printer_.Get(), id_, 0, nullptr, JOB_CONTROL_DELETE);
    }

    std::string Outcome() const override {
        return "in queue " + queue_ + " as job " + std::to_string(id_) +
               "; the spooler sends it from there";
    }

  private:
    std::string queue_;
    UniquePrinter printer_;
    DWORD id_ = 0;
    bool ended_ = false;
};

}  // namespace

std::vector<Queue> SpoolerService::Queues() {
    const auto [buffer, count] = Enumerated<PRINTER_INFO_2W>(
        Name() + " does not list its printers",
        [this](BYTE* to, DWORD size, DWORD* needed, DWORD* returned) {
            const DWORD which = server_.empty() ? PRINTER_ENUM_LOCAL : PRINTER_ENUM_NAME;
            return EnumPrintersW(which, Server(), 2, to, size, needed, returned);
        });
    std::vector<Queue> queues;
    const auto* info = reinterpret_cast<const PRINTER_INFO_2W*>(buffer.data());
    for (size_t i = 0; i < count; ++i) {
        const LPCWSTR ports = info[i].pPortName != nullptr ? info[i].pPortName : L"";
        queues.push_back({info[i].pPrinterName, PortsIn(ports), info[i].cJobs});
    }
    return queues;
}

void SpoolerService::MoveQueue(const std::wstring& queue, const std::vector<std::wstring>& ports) {
    const auto failed = [&queue](const char* what) {
        const DWORD error = GetLastError();
        return CommandFailed("printer " + WideToUtf8(queue) + what + ErrorText(error),
                             RemedyFor(error));
    };
    UniquePrinter printer;
    std::wstring name = queue;
    PRINTER_DEFAULTSW defaults = {nullptr, nullptr, PRINTER_ALL_ACCESS};
    if (!OpenPrinterW(name.data(), printer.Out(), &defaults)) {
        throw failed(" cannot be opened: ");
    }
    DWORD needed = 0;
    GetPrinterW(printer.Get(), 2, nullptr, 0, &needed);
    std::vector<BYTE> buffer(needed);
    if (!GetPrinterW(printer.Get(), 2, buffer.data(), needed, &needed)) {
        throw failed(" cannot be read: ");
    }
    std::wstring text;
    for (const std::wstring& port : ports) {
        text += (text.empty() ? L"" : L",") + port;
    }
    auto* info = reinterpret_cast<PRINTER_INFO_2W*>(buffer.data());
    info->pPortName = text.data();
    info->pSecurityDescriptor = nullptr;  // stays as it is
    if (!SetPrinterW(printer.Get(), 2, buffer.data(), 0)) {
        throw failed((" cannot be moved to port " + WideToUtf8(text) + ": ").c_str());
    }
}

// The ports of the monitor, or those of all others.
std::vector<std::wstring> SpoolerService::Ports(bool own) {
    const auto [buffer, count] =
        Enumerated<PORT_INFO_2W>(Name() + " does not list its ports",
                                 [this](BYTE* to, DWORD size, DWORD* needed, DWORD* returned) {
                                     return EnumPortsW(Server(), 2, to, size, needed, returned);
                                 });
    std::vector<std::wstring> names;
    const auto* info = reinterpret_cast<const PORT_INFO_2W*>(buffer.data());
    for (size_t i = 0; i < count; ++i) {
        const LPCWSTR monitor = info[i].pMonitorName != nullptr ? info[i].pMonitorName : L"";
        if (SameName(monitor, monitor_) == own) {
            names.emplace_back(info[i].pPortName);
        }
    }
    return names;
}

std::vector<std::wstring> SpoolerService::PortNames() {
    std::vector<std::wstring> names = Ports(true);
    if (names.empty()) {
        RequireMonitor();
    }
    return names;
}

std::string SpoolerService::Name() const {
    return server_.empty() ? "the spooler" : "the spooler of " + WideToUtf8(server_);
}

// A monitor without ports and no monitor at all look the same in the list of ports.
void SpoolerService::RequireMonitor() {
    const auto [buffer, count] = Enumerated<MONITOR_INFO_1W>(
        Name() + " does not list its monitors",
        [this](BYTE* to, DWORD size, DWORD* needed, DWORD* returned) {
            return EnumMonitorsW(Server(), 1, to, size, needed, returned);
        });
    const auto* info = reinterpret_cast<const MONITOR_INFO_1W*>(buffer.data());
    if (std::none_of(info, info + count, [this](const MONITOR_INFO_1W& loaded) {
            return lstrcmpiW(loaded.pName, monitor_.c_str()) == 0;
        })) {
        throw CommandFailed(Name() + " has not loaded " + WideToUtf8(monitor_),
                            Remedy::InstallMonitor);
    }
}

DWORD SpoolerService::Xcv(LPCWSTR command, const void* input, DWORD inputSize, void* output,
                          DWORD outputSize) {
    if (!xcv_) {
        std::wstring name = server_ + (server_.empty() ? L"" : L"\\") + L",XcvMonitor " + monitor_;
        PRINTER_DEFAULTSW defaults = {nullptr, nullptr, SERVER_ACCESS_ADMINISTER};
        if (!OpenPrinterW(name.data(), xcv_.Out(), &defaults)) {
            const DWORD error = GetLastError();
            throw CommandFailed(Name() + " gives no access to the monitor " + WideToUtf8(monitor_) +
                                    ": " + ErrorText(error),
                                RemedyFor(error, Remedy::InstallMonitor));
        }
    }
    DWORD needed = 0;
    DWORD status = ERROR_SUCCESS;
    if (!XcvDataW(xcv_.Get(), command, static_cast<BYTE*>(const_cast<void*>(input)), inputSize,
                  static_cast<BYTE*>(output), outputSize, &needed, &status)) {
        const DWORD error = GetLastError();
        throw CommandFailed(
            Name() + " does not pass on " + WideToUtf8(command) + ": " + ErrorText(error),
            RemedyFor(error));
    }
    return status;
}

std::unique_ptr<PrintJob> SpoolerService::StartJob(const std::wstring& port,
                                                   const std::wstring& document,
                                                   const std::wstring& printer) {
    const std::vector<std::wstring> queues = QueuesOn(Queues(), port);
    const auto queue =
        std::find_if(queues.begin(), queues.end(), [&printer](const std::wstring& name) {
            return printer.empty() || lstrcmpiW(name.c_str(), printer.c_str()) == 0;
        });
    if (queue != queues.end()) {
        return std::make_unique<QueuedJob>(*queue, document);
    }
    throw CommandFailed((printer.empty() ? "no printer prints"
                                         : "printer " + WideToUtf8(printer) + " does not print") +
                            " to port " + WideToUtf8(port),
                        Remedy::AddPrinter);
}
