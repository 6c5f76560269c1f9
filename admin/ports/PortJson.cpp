#include "admin/ports/PortJson.h"

#include <nlohmann/json.hpp>

#include "base/Text.h"

nlohmann::json ToJson(const std::wstring& name, const PortRecords& records) {
    const PORT_DATA_1& standard = records.standard;
    const PortDataEx& extended = records.extended;
    return {{"name", WideToUtf8(name)},
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

nlohmann::json Changes(const nlohmann::json& before, const nlohmann::json& after) {
    const nlohmann::json old = before.flatten();
    const nlohmann::json now = after.flatten();
    nlohmann::json changes = nlohmann::json::object();
    for (const auto& [key, value] : now.items()) {
        if (old.at(key) != value) {
            changes[key.substr(1)] = {{"from", old.at(key)}, {"to", value}};
        }
    }
    return changes;
}

std::string ChangeText(const std::string& key, const nlohmann::json& values) {
    const auto text = [](const nlohmann::json& value) {
        if (!value.is_string()) {
            return value.dump();
        }
        return value == "" ? "-" : Printable(value.get<std::string>());
    };
    return key + ": " + text(values["from"]) + " -> " + text(values["to"]);
}
