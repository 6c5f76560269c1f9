#include "tools/kestctl/PortJson.h"

#include <nlohmann/json.hpp>

#include "admin/Text.h"

nlohmann::json ToJson(const std::wstring& name, const PortRecords& records) {
    const PORT_DATA_1& standard = records.standard;
    const PortDataEx& extended = records.extended;
    return {{"name", ToUtf8(name)},
            {"configured", standard.dwProtocol != 0},
            {"protocol", ProtocolName(standard.dwProtocol)},
            {"address", FieldText(standard.sztIPAddress)},
            {"ipv6Host", FieldText(extended.sztIPv6HostName)},
            {"useIPv6", extended.dwUseIPV6 != 0},
            {"portNumber", standard.dwPortNumber},
            {"queue", FieldText(standard.sztQueue)},
            {"doubleSpool", standard.dwDoubleSpool != 0},
            {"hostName", FieldText(standard.sztHostAddress)},
            {"mac", FieldText(extended.sztHWAddress)},
            {"alwaysPrint", extended.dwAlwaysPrint != 0},
            {"snmp",
             {{"enabled", standard.dwSNMPEnabled != 0},
              {"community", FieldText(standard.sztSNMPCommunity)},
              {"index", standard.dwSNMPDevIndex}}}};
}
