#include "admin/channel/MonitorKey.h"

#include "base/Registry.h"
#include "monitor/PortText.h"

std::wstring MonitorKey(const std::wstring& printKey) {
    return printKey + L"\\Monitors\\" + kMonitorName;
}

bool MonitorKeyExists(const std::wstring& printKey) {
    return static_cast<bool>(OpenKey(HKEY_LOCAL_MACHINE, MonitorKey(printKey)));
}

std::wstring RegisteredDriver(const std::wstring& printKey) {
    const UniqueRegistryKey key = OpenKey(HKEY_LOCAL_MACHINE, MonitorKey(printKey));
    return key ? ReadText(key.Get(), L"Driver") : std::wstring();
}

std::vector<StoredPort> StoredPorts(const std::wstring& printKey) {
    const UniqueRegistryKey key = OpenKey(HKEY_LOCAL_MACHINE, MonitorKey(printKey) + L"\\Ports");
    std::vector<StoredPort> ports;
    for (const std::wstring& name : Subkeys(key)) {
        const UniqueRegistryKey port = OpenKey(key.Get(), name);
        if (!port || IsSpoolerPseudoPort(name.c_str())) {
            continue;
        }
        const bool useIPv6 = ReadNumber(port.Get(), L"UseIPV6") != 0;
        const bool complete = RegGetValueW(port.Get(), nullptr, L"Double Spool", RRF_RT_REG_DWORD,
                                           nullptr, nullptr, nullptr) == ERROR_SUCCESS;
        ports.push_back(
            {name,
             complete && ReadNumber(port.Get(), L"Protocol") != 0 &&
                 !ReadText(port.Get(), useIPv6 ? L"IPv6HostName" : L"IPAddress").empty(),
             ReadNumber(port.Get(), L"AlwaysPrint") != 0,
             !(ReadText(port.Get(), L"HWAddress") + ReadText(port.Get(), L"HostName")).empty()});
    }
    return ports;
}

std::vector<Queue> StoredQueues(const std::wstring& printKey) {
    const UniqueRegistryKey key = OpenKey(HKEY_LOCAL_MACHINE, printKey + L"\\Printers");
    std::vector<Queue> queues;
    for (const std::wstring& name : Subkeys(key)) {
        if (const UniqueRegistryKey queue = OpenKey(key.Get(), name)) {
            queues.push_back({name, PortsIn(ReadText(queue.Get(), L"Port"))});
        }
    }
    return queues;
}
