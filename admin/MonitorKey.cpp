#include "admin/MonitorKey.h"

#include <algorithm>
#include <sstream>

#include "diag/Resource.h"
#include "monitor/PortConfig.h"

namespace {

// Null when there is no such key.
UniqueRegistryKey Open(HKEY parent, const std::wstring& name) {
    UniqueRegistryKey key;
    return RegOpenKeyExW(parent, name.c_str(), 0, KEY_READ, key.Out()) == ERROR_SUCCESS
               ? std::move(key)
               : UniqueRegistryKey();
}

std::vector<std::wstring> Subkeys(const UniqueRegistryKey& key) {
    std::vector<std::wstring> names;
    wchar_t name[256];
    DWORD length = 0;
    while (length = 256,
           key && RegEnumKeyExW(key.Get(), static_cast<DWORD>(names.size()), name, &length, nullptr,
                                nullptr, nullptr, nullptr) == ERROR_SUCCESS) {
        names.emplace_back(name, length);
    }
    return names;
}

std::wstring ReadText(HKEY key, LPCWSTR value) {
    DWORD size = 0;
    if (RegGetValueW(key, nullptr, value, RRF_RT_REG_SZ, nullptr, nullptr, &size) != 0) {
        return {};
    }
    std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
    size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (RegGetValueW(key, nullptr, value, RRF_RT_REG_SZ, nullptr, text.data(), &size) != 0) {
        return {};
    }
    return text.c_str();
}

DWORD ReadNumber(HKEY key, LPCWSTR value) {
    DWORD number = 0;
    DWORD size = sizeof(number);
    return RegGetValueW(key, nullptr, value, RRF_RT_REG_DWORD, nullptr, &number, &size) == 0
               ? number
               : 0;
}

}  // namespace

std::wstring MonitorKey(Machine& machine) {
    return machine.PrintKey() + L"\\Monitors\\" + kMonitorName;
}

bool MonitorKeyExists(Machine& machine) {
    return static_cast<bool>(Open(HKEY_LOCAL_MACHINE, MonitorKey(machine)));
}

std::wstring RegisteredDriver(Machine& machine) {
    const UniqueRegistryKey key = Open(HKEY_LOCAL_MACHINE, MonitorKey(machine));
    return key ? ReadText(key.Get(), L"Driver") : std::wstring();
}

std::vector<StoredPort> StoredPorts(Machine& machine) {
    const UniqueRegistryKey key = Open(HKEY_LOCAL_MACHINE, MonitorKey(machine) + L"\\Ports");
    std::vector<StoredPort> ports;
    for (const std::wstring& name : Subkeys(key)) {
        const UniqueRegistryKey port = Open(key.Get(), name);
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

std::vector<StoredQueue> QueuesOnPorts(Machine& machine) {
    const std::vector<StoredPort> ports = StoredPorts(machine);
    const UniqueRegistryKey key = Open(HKEY_LOCAL_MACHINE, machine.PrintKey() + L"\\Printers");
    std::vector<StoredQueue> queues;
    for (const std::wstring& name : Subkeys(key)) {
        const UniqueRegistryKey queue = Open(key.Get(), name);
        // A queue may print to several ports: "LPT1:,OFFICE".
        std::wistringstream stream(queue ? ReadText(queue.Get(), L"Port") : std::wstring());
        for (std::wstring used; std::getline(stream, used, L',');) {
            if (std::any_of(ports.begin(), ports.end(), [&used](const StoredPort& port) {
                    return lstrcmpiW(port.name.c_str(), used.c_str()) == 0;
                })) {
                queues.push_back({name, used});
            }
        }
    }
    return queues;
}
