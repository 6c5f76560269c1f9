#include "admin/channel/DirectChannel.h"

#include <utility>

#include "base/CommandFailed.h"
#include "admin/channel/PortRecords.h"
#include "admin/channel/SpoolerService.h"
#include "base/Text.h"
#include "admin/channel/ControlJob.h"

namespace {

// One transceive channel to the monitor, open for as long as one command takes.
class XcvChannel {
  public:
    XcvChannel(const MONITOR2& table, HANDLE monitor) : table_(table) {
        if (!table_.pfnXcvOpenPort(monitor, L"", SERVER_ACCESS_ADMINISTER, &handle_)) {
            throw CommandFailed("the monitor opens no channel: " + ErrorText(GetLastError()));
        }
    }
    ~XcvChannel() { table_.pfnXcvClosePort(handle_); }
    XcvChannel(const XcvChannel&) = delete;
    XcvChannel& operator=(const XcvChannel&) = delete;

    HANDLE Get() const { return handle_; }

  private:
    const MONITOR2& table_;
    HANDLE handle_ = nullptr;
};

class OpenedPort {
  public:
    OpenedPort(const MONITOR2& table, HANDLE monitor, const std::wstring& name) : table_(table) {
        std::wstring text = name;
        SetLastError(ERROR_FILE_NOT_FOUND);
        if (!table_.pfnOpenPort(monitor, text.data(), &handle_)) {
            throw CommandFailed("port " + WideToUtf8(name) +
                                " cannot be opened: " + ErrorText(GetLastError()));
        }
    }
    ~OpenedPort() { table_.pfnClosePort(handle_); }
    OpenedPort(const OpenedPort&) = delete;
    OpenedPort& operator=(const OpenedPort&) = delete;

    HANDLE Get() const { return handle_; }

  private:
    const MONITOR2& table_;
    HANDLE handle_ = nullptr;
};

// The log of the monitor in this process.
std::string LogPath() {
    std::error_code ignored;
    return WideToUtf8((std::filesystem::temp_directory_path(ignored) / kLogFile).native());
}

// Why a job did not start, for somebody who has to do something about it.
//   before, after: the port when the job began, and now.
//   found: a search has found the printer.
std::string StartFailure(const PortRecords& before, const PortRecords& after, bool found,
                         DWORD error) {
    // A daemon that stays silent leaves the last error as it was, and a search leaves its own
    // there.
    const bool silent = error == ERROR_SUCCESS || error == WSAEWOULDBLOCK;
    const std::string reason =
        silent ? "the printer did not accept it, or did not answer in time" : ErrorText(error);
    if (after.extended.dwAlwaysPrint == 0 || (silent && !found)) {
        return reason;
    }
    const std::string log = ". The requests and replies are in " + LogPath();
    if (!found) {
        return reason + ", and the search for it did not find it" + log;
    }
    if (Destination(after) != Destination(before)) {
        return "the printer was found, but accepts no job at the address that it announced, " +
               Destination(after) + ": " + reason + log;
    }
    return "the printer was found at the same address, and accepts no job there: " + reason + log;
}

class HostJob : public PrintJob {
  public:
    HostJob(DirectChannel& host, const std::wstring& port, const PortRecords& records,
            const std::wstring& document, const std::wstring& printer)
        : table_(host.Table()),
          portText_("port " + WideToUtf8(port) + " (" + Destination(records) + ")"),
          lpr_(records.standard.dwProtocol == kProtocolLpr),
          port_(table_, host.Monitor(), port),
          control_(printer, document) {
        std::wstring printerName = control_.Printer();
        std::wstring documentName = document;
        wchar_t raw[] = L"RAW";
        DOC_INFO_1W info = {documentName.data(), nullptr, raw};
        // A job that starts writes nothing but the address that a search has found.
        const unsigned written = host.ValuesWritten();
        SetLastError(ERROR_SUCCESS);  // the monitor leaves it alone where it knows no code
        if (!table_.pfnStartDocPort(port_.Get(), printerName.data(), control_.Id(), 1,
                                    reinterpret_cast<LPBYTE>(&info))) {
            const DWORD error = GetLastError();
            if (records.standard.dwProtocol == 0) {
                throw CommandFailed(portText_ + " does not start the job: it is not configured",
                                    Remedy::ConfigurePort, port);
            }
            throw CommandFailed(portText_ + " does not start the job: " +
                                StartFailure(records, ReadPort(host, port),
                                             host.ValuesWritten() != written, error));
        }
    }

    ~HostJob() override {
        if (!ended_) {
            table_.pfnEndDocPort(port_.Get());
        }
    }

    size_t Write(const BYTE* bytes, size_t count) override {
        DWORD taken = 0;
        SetLastError(ERROR_SUCCESS);
        if (!table_.pfnWritePort(port_.Get(), const_cast<BYTE*>(bytes), static_cast<DWORD>(count),
                                 &taken) ||
            taken == 0) {
            throw CommandFailed(portText_ +
                                " takes no more of the job: " + ErrorText(GetLastError()) +
                                "; the spooler would restart it, --direct sends it once: print it "
                                "again");
        }
        return taken;
    }

    void End() override {
        ended_ = true;
        table_.pfnEndDocPort(port_.Get());
    }

    // The monitor lets a connection linger for two minutes, which would hold up the next job. The
    // caller ends the process, so all of its connections are reset: the job's is among them.
    void Abandon() noexcept override {
        constexpr SOCKET kHandleStep = 4;
        constexpr SOCKET kHandleLimit = 0x4000;  // far above what this program opens
        const linger reset = {1, 0};
        for (SOCKET handle = kHandleStep; handle < kHandleLimit; handle += kHandleStep) {
            setsockopt(handle, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&reset),
                       sizeof(reset));  // fails for a handle that is not a socket
        }
    }

    // The monitor tells nobody how the end of an LPR job went.
    std::string Outcome() const override {
        return "sent through " + portText_ +
               (lpr_ ? "; whether its daemon kept the job, the daemon's own queue shows" : "");
    }

  private:
    const MONITOR2& table_;
    std::string portText_;
    bool lpr_;
    OpenedPort port_;
    ControlJob control_;
    bool ended_ = false;
};

//   made: receives whether the key was not there.
UniqueRegistryKey OpenRoot(const std::wstring& path, bool& made) {
    UniqueRegistryKey key;
    DWORD disposition = 0;
    const LONG error = RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0,
                                       KEY_ALL_ACCESS, nullptr, key.Out(), &disposition);
    made = disposition == REG_CREATED_NEW_KEY;
    if (error != ERROR_SUCCESS) {
        throw CommandFailed(
            "the monitor's registry key cannot be opened: " + ErrorText(static_cast<DWORD>(error)),
            error == ERROR_ACCESS_DENIED ? Remedy::RunAsAdministrator : Remedy::None);
    }
    return key;
}

}  // namespace

DirectChannel::DirectChannel(const std::filesystem::path& library, const std::wstring& rootKey)
    : rootPath_(rootKey),
      root_(OpenRoot(rootKey, madeRoot_)),
      init_(registry_.MonitorInit(root_.Get())) {
    // A full path, so that slp64.dll is found beside it.
    const auto path = std::filesystem::absolute(library).make_preferred();
    library_.Reset(LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
    if (!library_) {
        throw CommandFailed(WideToUtf8(library.native()) +
                            " cannot be loaded: " + ErrorText(GetLastError()));
    }
    const auto initialize = reinterpret_cast<decltype(&InitializePrintMonitor2)>(
        reinterpret_cast<void (*)()>(GetProcAddress(library_.Get(), "InitializePrintMonitor2")));
    table_ = initialize != nullptr ? initialize(&init_, &monitor_) : nullptr;
    if (table_ == nullptr) {
        throw CommandFailed(WideToUtf8(library.native()) +
                            " does not start as a monitor: " + ErrorText(GetLastError()));
    }
}

DirectChannel::~DirectChannel() {
    table_->pfnShutdown(monitor_);
    if (madeRoot_) {
        // Neither goes while something is below it. The system's spooler would take a key without a
        // library for a monitor that it cannot load.
        RegDeleteKeyW(root_.Get(), L"Ports");
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, rootPath_.c_str());
    }
}

LONG DirectChannel::WatchedRegistry::SetValue(HKEY key, LPCWSTR name, DWORD type, const BYTE* data,
                                              DWORD size) {
    ++valuesWritten;
    return MonitorRegistry::SetValue(key, name, type, data, size);
}

std::filesystem::path DirectChannel::LibraryBesideProgram() {
    std::wstring path(MAX_PATH, L'\0');
    DWORD length = 0;
    while ((length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()))) ==
           path.size()) {
        path.resize(2 * path.size());
    }
    path.resize(length);
    return std::filesystem::path(path).replace_filename(L"kestmon.dll");
}

std::vector<std::wstring> DirectChannel::PortNames() {
    std::vector<BYTE> buffer;
    DWORD needed = 0;
    DWORD count = 0;
    while (!table_->pfnEnumPorts(monitor_, nullptr, 1, buffer.data(),
                                 static_cast<DWORD>(buffer.size()), &needed, &count)) {
        const DWORD error = GetLastError();
        if (error != ERROR_INSUFFICIENT_BUFFER || needed <= buffer.size()) {
            throw CommandFailed("the monitor does not list its ports: " + ErrorText(error));
        }
        buffer.resize(needed);
    }
    std::vector<std::wstring> names;
    const auto* info = reinterpret_cast<const PORT_INFO_1W*>(buffer.data());
    for (DWORD i = 0; i < count; ++i) {
        names.emplace_back(info[i].pName);
    }
    return names;
}

DWORD DirectChannel::Xcv(LPCWSTR command, const void* input, DWORD inputSize, void* output,
                         DWORD outputSize) {
    const XcvChannel channel(*table_, monitor_);
    DWORD needed = 0;
    return table_->pfnXcvDataPort(channel.Get(), command,
                                  static_cast<BYTE*>(const_cast<void*>(input)), inputSize,
                                  static_cast<BYTE*>(output), outputSize, &needed);
}

// The system's own spooler may not be running: that is one reason to go past it. Then a name that
// another monitor has is only refused when its port is added.
std::vector<std::wstring> DirectChannel::OtherPortNames() {
    try {
        return SpoolerService().OtherPortNames();
    } catch (const CommandFailed& failed) {
        if (failed.remedy != Remedy::StartSpooler) {
            throw;
        }
        return {};
    }
}

// Queues are there while their spooler does not run, and print to their ports when it runs again.
std::vector<Queue> DirectChannel::Queues() {
    try {
        return SpoolerService().Queues();
    } catch (const CommandFailed& failed) {
        if (failed.remedy != Remedy::StartSpooler) {
            throw;
        }
        return StoredQueues();
    }
}

void DirectChannel::MoveQueue(const std::wstring& queue, const std::vector<std::wstring>& ports) {
    SpoolerService().MoveQueue(queue, ports);
}

std::unique_ptr<PrintJob> DirectChannel::StartJob(const std::wstring& port,
                                                  const std::wstring& document,
                                                  const std::wstring& printer) {
    return std::make_unique<HostJob>(*this, port, ReadPort(*this, port), document, printer);
}
