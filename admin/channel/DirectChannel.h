// A small spooler of the tool's own: loads the monitor into this process, gives it the registry
// below its real key, and calls the entries of its table as the print spooler would. For a look
// without installing, for tests, and for finding out whether a fault is the spooler's or the
// monitor's.
#pragma once

#include <winsock2.h>
#include <windows.h>
#include <winspool.h>
#include <winsplp.h>

#include <atomic>
#include <filesystem>
#include <string>

#include "admin/channel/MonitorKey.h"
#include "admin/channel/SpoolerChannel.h"
#include "base/Handles.h"
#include "admin/channel/MonitorRegistry.h"

class DirectChannel : public SpoolerChannel {
  public:
    // Loads the monitor.
    //   library: kestmon.dll.
    //   rootKey: the key below HKEY_LOCAL_MACHINE that becomes the monitor's root; made if it is
    //   not there.
    // Throws CommandFailed.
    explicit DirectChannel(const std::filesystem::path& library,
                           const std::wstring& rootKey = MonitorKey());
    ~DirectChannel() override;
    DirectChannel(const DirectChannel&) = delete;
    DirectChannel& operator=(const DirectChannel&) = delete;

    // kestmon.dll beside this program.
    static std::filesystem::path LibraryBesideProgram();

    std::vector<std::wstring> PortNames() override;
    std::vector<std::wstring> OtherPortNames() override;
    DWORD Xcv(LPCWSTR command, const void* input, DWORD inputSize, void* output,
              DWORD outputSize) override;
    std::vector<Queue> Queues() override;
    void MoveQueue(const std::wstring& queue, const std::vector<std::wstring>& ports) override;
    std::vector<StandardPort> StandardPorts() override { return ReadStandardPorts({}); }

    // The job never enters a queue; a ControlJob stands for it in `printer`.
    std::unique_ptr<PrintJob> StartJob(const std::wstring& port, const std::wstring& document,
                                       const std::wstring& printer) override;

    // What the spooler itself would call.
    const MONITOR2& Table() const { return *table_; }
    HANDLE Monitor() const { return monitor_; }

    // How many registry values the monitor has written so far.
    unsigned ValuesWritten() const { return registry_.valuesWritten; }

  private:
    struct WatchedRegistry : MonitorRegistry {
        LONG SetValue(HKEY key, LPCWSTR name, DWORD type, const BYTE* data, DWORD size) override;
        std::atomic<unsigned> valuesWritten = 0;
    };

    std::wstring rootPath_;
    bool madeRoot_ = false;
    UniqueRegistryKey root_;
    WatchedRegistry registry_;
    MONITORINIT init_;
    UniqueLibrary library_;
    MONITOR2* table_ = nullptr;
    HANDLE monitor_ = nullptr;
};
