// What a printer says it is: the fields of its device identifier (IEEE 1284, "MFG:Acme;MDL:Model
// 100;"), which come from the network. Portable.
#pragma once

#include <optional>
#include <string>

// The value of the field with this key, up to its semicolon; nothing when there is no such field.
// Throws std::out_of_range for a key at the very end of the identifier.
std::optional<std::string> DeviceIdField(const std::string& deviceId, const std::string& key);

// True when the pattern, with '*' and '?', matches the whole model, by case.
bool MatchesModel(const char* pattern, const char* model);
