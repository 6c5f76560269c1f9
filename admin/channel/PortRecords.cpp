#include "admin/channel/PortRecords.h"

#include "base/CommandFailed.h"

std::string ProtocolName(DWORD protocol) {
    switch (protocol) {
        case 0:
            return "not configured";
        case kProtocolRaw:
            return "raw";
        case kProtocolLpr:
            return "lpr";
        default:
            return "unknown (" + std::to_string(protocol) + ")";
    }
}

std::string AddressInUse(const PortRecords& records) {
    return records.extended.dwUseIPV6 != 0 ? FieldText(records.extended.sztIPv6HostName)
                                           : FieldText(records.standard.sztIPAddress);
}

std::string Destination(const PortRecords& records) {
    const PORT_DATA_1& port = records.standard;
    if (port.dwProtocol == 0) {
        return ProtocolName(0);
    }
    const std::string address = AddressInUse(records);
    const bool brackets = address.find(':') != std::string::npos;
    std::string text = ProtocolName(port.dwProtocol) + " to " +
                       (brackets ? "[" + address + "]" : address) + ":" +
                       std::to_string(port.dwPortNumber);
    if (port.dwProtocol == kProtocolLpr) {
        text += ", queue " + FieldText(port.sztQueue);
        if (port.dwDoubleSpool != 0) {
            text += ", double spooled";
        }
    }
    return text;
}

void RequireSuccess(DWORD code, const std::string& failure) {
    if (code != ERROR_SUCCESS) {
        throw CommandFailed(failure + ": " + ErrorText(code), code == ERROR_ACCESS_DENIED
                                                                  ? Remedy::RunAsAdministrator
                                                                  : Remedy::None);
    }
}

DWORD SendPortName(SpoolerChannel& channel, LPCWSTR command, const std::wstring& name, void* output,
                   DWORD outputSize) {
    return channel.Xcv(command, name.c_str(), static_cast<DWORD>((name.size() + 1) * sizeof(WCHAR)),
                       output, outputSize);
}

PortRecords ReadPort(SpoolerChannel& channel, const std::wstring& name) {
    const std::string failure = "port " + WideToUtf8(name) + " cannot be read";
    PortRecords records;
    const auto read = [&](LPCWSTR command, auto& record) {
        RequireSuccess(SendPortName(channel, command, name, &record, sizeof(record)), failure);
    };
    read(L"GetConfigInfo", records.standard);
    read(L"GetConfigExData", records.extended);
    return records;
}
