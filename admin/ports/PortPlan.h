// Changes of existing ports, planned before the first of them is made.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "admin/channel/SpoolerChannel.h"
#include "admin/ports/PortSettings.h"
#include "admin/search/PrinterIdentity.h"
#include "base/CommandFailed.h"

// The IPv4 address of a host name (UTF-8). Throws CommandFailed if it has none.
std::string IPv4AddressOf(const std::string& name);

// Replaces a host name in change.address by its IPv4 address. Returns the name; empty if there was
// none. Throws CommandFailed.
std::string ResolveAddress(PortChange& change);

// The settings that ports are to have.
struct PortWishes {
    PortChange change;
    bool followInPlace = false;                   // each port follows the printer at its address
    std::optional<PrinterIdentity> printer = {};  // that all ports follow otherwise
};

struct PlannedPort {
    std::wstring name;
    PortRecords before = {};
    PortRecords after = {};
    std::optional<PrinterIdentity> printer = {};  // that the port follows
    std::string failure = {};                     // why nothing is changed; empty: it is
    Remedy remedy = Remedy::None;
};

// Lays the wishes over a port's records (all zero for a new port).
// Throws SettingsClash, and CommandFailed if the port could not follow the printer.
void ApplyWishes(const PortWishes& wishes, PortRecords& records);

// Plans the changes of ports. A port that is to follow in place, and whose printer cannot be
// identified, is not changed.
//   tell: called on this thread, about ten times a second, with the number of printers that were
//         queried.
// Throws SettingsClash and CommandFailed.
std::vector<PlannedPort> PlanChanges(SpoolerChannel& channel,
                                     const std::vector<std::wstring>& names,
                                     const PortWishes& wishes, const PrinterIdentifier& identify,
                                     const std::function<void(size_t done)>& tell);

// Throws CommandFailed if printers use the ports, with their names, or if the printers are unknown.
void RequireUnused(SpoolerChannel& channel, const std::vector<std::wstring>& ports);
