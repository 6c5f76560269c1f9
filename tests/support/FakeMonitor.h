// The monitor behind a channel, as a few maps: keeps ports, fails where it is told to, and collects
// what jobs are sent.
#pragma once

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>

#include "admin/channel/PortRecords.h"
#include "admin/search/PrinterIdentity.h"
#include "base/CommandFailed.h"

struct FakeMonitor {
    std::map<std::wstring, PortRecords> ports;
    std::map<std::wstring, DWORD> failing;  // command, the code it answers with
    std::wstring refused;                   // port that is not made and not deleted
    std::vector<std::wstring> otherPorts;   // of other monitors
    std::wstring ignored;                   // command that answers 0 and does nothing
    std::vector<Queue> queues;
    bool hidesQueues = false;             // does not list them
    std::function<void()> added = [] {};  // told of each port that was made
    std::string printed;                  // by the last command line
    std::wstring unmovable;               // queue
    std::vector<StandardPort> standardPorts;
    int opened = 0;
    std::map<std::string, PrinterIdentity> printers;  // that answer who they are, by host

    std::wstring document;      // name of the last job
    std::string received;       // its bytes
    size_t accepts = SIZE_MAX;  // bytes until its connection breaks
    bool ended = false;

    ChannelFactory Factory();
};

class FakeJob : public PrintJob {
  public:
    explicit FakeJob(FakeMonitor& monitor) : monitor_(monitor) {}
    // Never more than 1,000 bytes at a time: everybody must offer the rest once more.
    size_t Write(const BYTE* bytes, size_t count) override {
        const size_t room = monitor_.accepts - monitor_.received.size();
        const size_t taken = std::min({count, room, size_t{1000}});
        if (taken == 0) {
            throw CommandFailed("connection lost");
        }
        monitor_.received.append(reinterpret_cast<const char*>(bytes), taken);
        return taken;
    }
    void Abandon() noexcept override {}
    void End() override { monitor_.ended = true; }
    std::string Outcome() const override { return "sent"; }

  private:
    FakeMonitor& monitor_;
};

class FakeChannel : public SpoolerChannel {
  public:
    explicit FakeChannel(FakeMonitor& monitor) : monitor_(monitor) { ++monitor_.opened; }

    std::vector<std::wstring> PortNames() override {
        std::vector<std::wstring> names;
        for (const auto& [name, records] : monitor_.ports) {
            names.push_back(name);
        }
        return names;
    }

    std::vector<std::wstring> OtherPortNames() override { return monitor_.otherPorts; }

    DWORD Xcv(LPCWSTR command, const void* input, DWORD, void* output, DWORD) override {
        if (const auto failing = monitor_.failing.find(command);
            failing != monitor_.failing.end()) {
            return failing->second;
        }
        // The records begin with the port's name, too.
        const std::wstring name = input == nullptr ? L"" : static_cast<LPCWSTR>(input);
        const std::wstring is = command;
        if (is == monitor_.ignored) {
            return ERROR_SUCCESS;
        }
        if ((is == L"AddPort" || is == L"DeletePort") && name == monitor_.refused) {
            return ERROR_DISK_FULL;
        }
        if (is == L"AddPort") {
            monitor_.ports[name] = {};
            monitor_.added();
        } else if (is == L"DeletePort") {
            monitor_.ports.erase(name);
        } else if (is == L"ConfigurePort") {
            memcpy(&monitor_.ports[name].standard, input, sizeof(PORT_DATA_1));
        } else if (is == L"SetConfigExData") {
            memcpy(&monitor_.ports[name].extended, input, sizeof(PortDataEx));
        } else if (is == L"GetConfigInfo") {
            memcpy(output, &monitor_.ports[name].standard, sizeof(PORT_DATA_1));
        } else if (is == L"GetConfigExData") {
            memcpy(output, &monitor_.ports[name].extended, sizeof(PortDataEx));
        } else {
            return ERROR_INVALID_PARAMETER;
        }
        return ERROR_SUCCESS;
    }

    std::vector<Queue> Queues() override {
        if (monitor_.hidesQueues) {
            throw CommandFailed("the printers are hidden", Remedy::RunAsAdministrator);
        }
        return monitor_.queues;
    }
    void MoveQueue(const std::wstring& queue, const std::vector<std::wstring>& ports) override {
        if (queue == monitor_.unmovable) {
            throw CommandFailed("printer cannot be moved");
        }
        std::find_if(monitor_.queues.begin(), monitor_.queues.end(), [&](const Queue& other) {
            return other.name == queue;
        })->ports = ports;
    }
    std::vector<StandardPort> StandardPorts() override { return monitor_.standardPorts; }

    std::unique_ptr<PrintJob> StartJob(const std::wstring&, const std::wstring& document,
                                       const std::wstring&) override {
        monitor_.document = document;
        return std::make_unique<FakeJob>(monitor_);
    }

  private:
    FakeMonitor& monitor_;
};

inline ChannelFactory FakeMonitor::Factory() {
    return [this] { return std::make_unique<FakeChannel>(*this); };
}
