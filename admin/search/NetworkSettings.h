// The IPv4 settings of a printer, read and written over SNMP.
#pragma once

#include <functional>
#include <string>

#include "discovery/Printer.h"

// IPv4 addresses as dotted text.
struct NetworkSettings {
    std::string address;
    std::string mask;
    std::string gateway;  // 0.0.0.0 for none

    bool operator==(const NetworkSettings&) const = default;
};

// Called before each step, which can take seconds: "reading the settings of 10.0.0.1".
using StepListener = std::function<void(const std::string& step)>;

// Brings an IPv4 address into its plain form. Returns what is wrong with it, or nothing.
std::string CheckPlainAddress(std::string& text);

// Returns what keeps a printer with these settings from working; empty if nothing does.
std::string ProblemOf(const NetworkSettings& settings);

// Reads a printer's settings into its record, which UpdateSnmpSettings needs: a copy of the record
// would not have them. Throws CommandFailed.
NetworkSettings ReadSettings(Printer& printer, const std::string& address,
                             const StepListener& begin);

// Returns the settings after a change. Throws CommandFailed if the printer cannot have them, or if
// another device uses the new address.
//   wanted: empty texts for what does not change.
NetworkSettings PlanSettings(const NetworkSettings& before, const NetworkSettings& wanted,
                             const StepListener& begin);

// Writes the settings. Returns whether the printer answers at its address afterwards.
// Throws CommandFailed if it refuses them.
//   printer: a record that ReadSettings has filled.
bool WriteSettings(Printer& printer, const NetworkSettings& before, const NetworkSettings& after,
                   const StepListener& begin);
