// The options that describe a port, shared by the commands that make and change ports.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "admin/PortSettings.h"
#include "tools/kestctl/Command.h"

// What the arguments of one command are read into; it lives as long as the command does.
struct PortArguments {
    std::vector<std::string> names;
    PortChange change;
    std::string follow;
    bool json = false;
    bool tolerant = false;  // --or-set, --if-there
};

// Adds the ports that a command is for: names, or patterns with * and ?.
CLI::Option& AddNames(CLI::App& command, std::vector<std::string>& names,
                      const std::string& description);

// The same as the channel's ports are called.
std::vector<std::wstring> WideNames(const std::vector<std::string>& names);

// True when the names mean one port and no pattern: then JSON output is one document, not a list.
bool IsOneName(const std::vector<std::string>& names);

// A check of one value as CLI11 wants it.
CLI::Validator Checked(std::string (*check)(std::string&));

// Adds the options for all settings, and --follow.
void AddSettings(CLI::App& command, PortArguments& arguments);
void AddFollow(CLI::App& command, PortArguments& arguments);

// Replaces a host name in --address by its IPv4 address. Returns words about it for the report.
// Throws CommandFailed.
std::string ResolveAddress(PortChange& change);

// The printer that --follow names, asked who it is; none without one. Throws CommandFailed.
std::optional<PrinterIdentity> PrinterToFollow(const PortArguments& arguments,
                                               const PrinterIdentifier& identify);

// Lays the arguments, and the printer to follow, over a port's records.
// Returns words about the printer for the report. What does not go together is wrong usage; throws
// CommandFailed where the port could not follow the printer.
std::string ApplyArguments(const PortArguments& arguments,
                           const std::optional<PrinterIdentity>& printer, PortRecords& records);
