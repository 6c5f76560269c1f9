#include "admin/ports/PortJson.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>

#include "base/Text.h"

namespace {

// The same document with the member "name" before the others, which are sorted.
nlohmann::ordered_json NameFirst(const nlohmann::json& document) {
    if (document.is_array()) {
        auto list = nlohmann::ordered_json::array();
        std::transform(document.begin(), document.end(), std::back_inserter(list), NameFirst);
        return list;
    }
    if (!document.is_object()) {
        return document;
    }
    auto object = nlohmann::ordered_json::object();
    if (const auto name = document.find("name"); name != document.end()) {
        object["name"] = NameFirst(*name);
    }
    for (const auto& [key, value] : document.items()) {
        object.emplace(key, NameFirst(value));
    }
    return object;
}

}  // namespace

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

nlohmann::json NamesAsJson(const std::vector<std::wstring>& names) {
    nlohmann::json list = nlohmann::json::array();
    for (const std::wstring& name : names) {
        list.push_back(WideToUtf8(name));
    }
    return list;
}

std::string JsonText(const nlohmann::json& document) {
    return NameFirst(document).dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
}
