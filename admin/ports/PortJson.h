// A port as JSON.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <vector>

#include "admin/ports/PortSettings.h"

// All settings of a port by name, for --json.
nlohmann::json ToJson(const std::wstring& name, const PortRecords& records);

// What differs between two ports as JSON: {"address": {"from": ..., "to": ...}}, the SNMP settings
// as "snmp/community" and so on.
nlohmann::json Changes(const nlohmann::json& before, const nlohmann::json& after);

// One of these differences for a report: "address: 10.0.0.1 -> 10.0.0.9".
std::string ChangeText(const std::string& key, const nlohmann::json& values);

// Names of queues or ports as a list of UTF-8 texts.
nlohmann::json NamesAsJson(const std::vector<std::wstring>& names);

// Returns a document as indented text with a line end. Objects begin with their member "name".
// Bytes that are not UTF-8 are replaced.
std::string JsonText(const nlohmann::json& document);
