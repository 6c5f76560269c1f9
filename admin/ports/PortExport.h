// All ports of the monitor as one file.
#pragma once

#include <string>
#include <vector>

#include "admin/channel/SpoolerChannel.h"
#include "admin/ports/PortSettings.h"

struct NamedPort {
    std::wstring name;
    PortRecords records;
};

// Reads all ports, in the monitor's order. Throws CommandFailed.
std::vector<NamedPort> ReadAllPorts(SpoolerChannel& channel);

// The ports in a form that PlanImport reads.
std::string PortsAsJson(const std::vector<NamedPort>& ports);
std::string PortsAsCsv(const std::vector<NamedPort>& ports);
