// The channel through the system's own print spooler.
#pragma once

#include <string>

#include "admin/channel/SpoolerChannel.h"
#include "base/Handles.h"

class SpoolerService : public SpoolerChannel {
  public:
    // monitor: the name under which the monitor is installed.
    // server: the machine whose spooler it is, with its backslashes (\\SERVER); empty for this
    // one.
    explicit SpoolerService(std::wstring monitor = L"kestmon", std::wstring server = {})
        : monitor_(std::move(monitor)), server_(std::move(server)) {}

    std::vector<std::wstring> PortNames() override;
    std::vector<std::wstring> OtherPortNames() override { return Ports(false); }
    DWORD Xcv(LPCWSTR command, const void* input, DWORD inputSize, void* output,
              DWORD outputSize) override;
    std::vector<Queue> Queues() override;
    void MoveQueue(const std::wstring& queue, const std::vector<std::wstring>& ports) override;
    std::vector<StandardPort> StandardPorts() override { return ReadStandardPorts(server_); }

    // The job goes into the queue `printer`, or into the first that prints to the port.
    std::unique_ptr<PrintJob> StartJob(const std::wstring& port, const std::wstring& document,
                                       const std::wstring& printer) override;

  private:
    LPWSTR Server() { return server_.empty() ? nullptr : server_.data(); }
    std::string Name() const;
    std::vector<std::wstring> Ports(bool own);
    void RequireMonitor();

    std::wstring monitor_;
    std::wstring server_;
    UniquePrinter xcv_;  // opened by the first command
};
