// A port as JSON.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>

#include "admin/PortSettings.h"

// All settings of a port by name, for --json.
nlohmann::json ToJson(const std::wstring& name, const PortRecords& records);
