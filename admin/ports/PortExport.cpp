#include "admin/ports/PortExport.h"

#include <nlohmann/json.hpp>

#include "admin/ports/PortFile.h"
#include "admin/ports/PortJson.h"
#include "admin/ports/PortStore.h"

std::vector<NamedPort> ReadAllPorts(SpoolerChannel& channel) {
    std::vector<NamedPort> ports;
    for (const std::wstring& name : channel.PortNames()) {
        ports.push_back({name, ReadPort(channel, name)});
    }
    return ports;
}

std::string PortsAsJson(const std::vector<NamedPort>& ports) {
    nlohmann::json documents = nlohmann::json::array();
    for (const auto& [name, records] : ports) {
        documents.push_back(ToJson(name, records));
    }
    return JsonText(documents);
}

std::string PortsAsCsv(const std::vector<NamedPort>& ports) {
    std::vector<PortRow> rows;
    for (const auto& [name, records] : ports) {
        rows.push_back(ToRow(name, records));
    }
    return ToCsv(rows);
}
