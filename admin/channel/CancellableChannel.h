// A channel for changes that the user can cancel while they are written.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "admin/channel/SpoolerChannel.h"
#include "base/CommandFailed.h"

// Forwards commands to another channel. The first command after the user has canceled throws
// CommandFailed; the commands that roll the change back pass again.
class CancellableChannel : public SpoolerChannel {
  public:
    CancellableChannel(std::unique_ptr<SpoolerChannel> channel, std::function<bool()> isCancelled)
        : channel_(std::move(channel)), isCancelled_(std::move(isCancelled)) {}

    // Returns true if the user has canceled and no command has failed for that reason yet.
    bool TakeCancellation() { return isCancelled_() && !std::exchange(taken_, true); }

    DWORD Xcv(LPCWSTR command, const void* input, DWORD inputSize, void* output,
              DWORD outputSize) override {
        if (TakeCancellation()) {
            throw CommandFailed("canceled");
        }
        return channel_->Xcv(command, input, inputSize, output, outputSize);
    }
    std::vector<std::wstring> PortNames() override { return channel_->PortNames(); }
    std::vector<std::wstring> OtherPortNames() override { return channel_->OtherPortNames(); }
    std::vector<Queue> Queues() override { return channel_->Queues(); }
    void MoveQueue(const std::wstring& queue, const std::vector<std::wstring>& ports) override {
        channel_->MoveQueue(queue, ports);
    }
    std::vector<StandardPort> StandardPorts() override { return channel_->StandardPorts(); }
    std::unique_ptr<PrintJob> StartJob(const std::wstring& port, const std::wstring& document,
                                       const std::wstring& printer) override {
        return channel_->StartJob(port, document, printer);
    }

  private:
    std::unique_ptr<SpoolerChannel> channel_;
    std::function<bool()> isCancelled_;
    bool taken_ = false;
};
