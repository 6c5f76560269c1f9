#include "admin/channel/StandardPorts.h"

#include "base/CommandFailed.h"
#include "base/Registry.h"
#include "base/Text.h"

namespace {
constexpr wchar_t kPortsKey[] =
    L"SYSTEM\\CurrentControlSet\\Control\\Print\\Monitors\\Standard TCP/IP Port\\Ports";
}

std::vector<StandardPort> ReadStandardPorts(const std::wstring& server) {
    UniqueRegistryKey machine;
    const LONG error = RegConnectRegistryW(server.empty() ? nullptr : server.c_str(),
                                           HKEY_LOCAL_MACHINE, machine.Out());
    if (error != ERROR_SUCCESS) {
        throw CommandFailed(
            "the registry of " + WideToUtf8(server) +
                " cannot be reached: " + ErrorText(static_cast<DWORD>(error)) +
                "; its service \"Remote Registry\" has to run",
            error == ERROR_ACCESS_DENIED ? Remedy::RunAsAdministrator : Remedy::None);
    }
    const UniqueRegistryKey key = OpenKey(machine.Get(), kPortsKey);
    std::vector<StandardPort> ports;
    for (const std::wstring& name : Subkeys(key)) {
        const UniqueRegistryKey values = OpenKey(key.Get(), name);
        if (!values) {
            continue;
        }
        const HKEY port = values.Get();
        ports.push_back(
            {name, WideToUtf8(ReadText(port, L"HostName")),
             WideToUtf8(ReadText(port, L"IPAddress")), ReadNumber(port, L"PortNumber"),
             ReadNumber(port, L"Protocol"), WideToUtf8(ReadText(port, L"Queue")),
             ReadNumber(port, L"Double Spool") != 0, ReadNumber(port, L"SNMP Enabled") != 0,
             WideToUtf8(ReadText(port, L"SNMP Community")), ReadNumber(port, L"SNMP Index")});
    }
    return ports;
}
