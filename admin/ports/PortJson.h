// A port as JSON.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>

#include "admin/ports/PortSettings.h"

// All settings of a port by name, for --json.
nlohmann::json ToJson(const std::wstring& name, const PortRecords& records);

// What differs between two ports as JSON: {"address": {"from": ..., "to": ...}}, the SNMP settings
// as "snmp/community" and so on.
nlohmann::json Changes(const nlohmann::json& before, const nlohmann::json& after);

// One of these differences for a report: "address: 10.0.0.1 -> 10.0.0.9".
std::string ChangeText(const std::string& key, const nlohmann::json& values);
