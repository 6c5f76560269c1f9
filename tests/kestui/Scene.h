// A simulated outside world of the dialogs: printers, hosts and the monitor behind a channel.
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/FakeMonitor.h"
#include "kestui/Environment.h"

struct Scene {
    FakeMonitor monitor;
    std::vector<FoundPrinter> printers;
    size_t withoutAddress = 0;
    std::string searchFails;                   // message of the failure
    std::atomic<bool> searchGoesOn = false;    // until it is stopped
    std::atomic<int> running = 0;              // searches and identity queries
    std::map<std::string, std::string> hosts;  // names with addresses
    std::atomic<bool> silent = false;          // identity queries block while this is set
    bool answers = true;                       // connections are accepted
    std::wstring held;                         // command that waits until `release`
    std::atomic<bool> waits = false;           // a thread waits there
    std::atomic<bool> release = false;
    std::wstring asked;   // print server to open
    std::wstring server;  // server of the last channel
    Environment environment;

    Scene();
    void AddPrinters(size_t count);
};

class HeldChannel : public FakeChannel {
  public:
    explicit HeldChannel(Scene& scene) : FakeChannel(scene.monitor), scene_(scene) {}
    DWORD Xcv(LPCWSTR command, const void* input, DWORD inputSize, void* output,
              DWORD outputSize) override {
        if (scene_.held == command && !scene_.release) {
            scene_.waits = true;
            while (!scene_.release) {
                Sleep(5);
            }
        }
        return FakeChannel::Xcv(command, input, inputSize, output, outputSize);
    }

  private:
    Scene& scene_;
};

inline Scene::Scene() {
    environment.openChannel = [this](const std::wstring& name) {
        server = name;
        return std::make_unique<HeldChannel>(*this);
    };
    environment.search = [this](const auto& found, const std::function<bool()>& mayContinue) {
        ++running;
        for (const FoundPrinter& printer : printers) {
            found(printer);
        }
        while (mayContinue() && searchGoesOn) {
            Sleep(10);
        }
        --running;
        if (!searchFails.empty()) {
            throw CommandFailed(searchFails);
        }
        return withoutAddress;
    };
    environment.resolve = [this](const std::string& host) {
        if (host.find_first_not_of("0123456789.:") == std::string::npos) {
            return host;
        }
        if (hosts.count(host) == 0) {
            throw CommandFailed("no such host");
        }
        return hosts[host];
    };
    environment.identify = [this](const std::string& address) {
        ++running;
        while (silent) {
            Sleep(5);
        }
        --running;
        for (const FoundPrinter& printer : printers) {
            if (printer.identity.address == address) {
                return printer.identity;
            }
        }
        throw CommandFailed("did not answer");
    };
    environment.connect = [this](const std::string&, DWORD, std::chrono::milliseconds) {
        return Connection{answers ? "" : "refuses connections"};
    };
    environment.language = MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US);
}

inline void Scene::AddPrinters(size_t count) {
    const char* const models[] = {"Laser 400", "Color Laser 620", "Office Ink 9020",
                                  "Line Printer 2000"};
    for (size_t i = printers.size() + 1; count > 0; ++i, --count) {
        char mac[13];
        snprintf(mac, sizeof mac, "0004004A%04X", static_cast<unsigned>(i * 37 & 0xFFFF));
        const std::string name = "prn-" + std::to_string(i);
        printers.push_back(
            {{"10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1), mac, name},
             name,
             models[i % 4]});
    }
}
