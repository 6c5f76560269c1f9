// The options that describe a port, shared by the commands that make and change ports.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "admin/ports/PortSettings.h"
#include "kestctl/Command.h"

// What the arguments of one command are read into; it lives as long as the command does.
struct PortArguments {
    std::vector<std::string> names;
    PortChange change;
    std::string follow;
    bool json = false;
    bool tolerant = false;  // --or-set, --if-there
    bool dryRun = false;
    bool yes = false;
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
//   mayBeOwn: whether --follow may stand without a value; see FollowsInPlace.
void AddSettings(CLI::App& command, PortArguments& arguments);
void AddFollow(CLI::App& command, PortArguments& arguments, bool mayBeOwn);

// True if each port is to follow the printer at its own address: --follow without a value.
bool FollowsInPlace(const PortArguments& arguments);

// Refuses an address for more than one port, as wrong usage.
void RequireOnePort(const PortArguments& arguments, const std::vector<std::wstring>& ports);

// Ports for a message: "2 ports (A, B)".
std::string CountedPorts(const std::vector<std::wstring>& ports);

// Asks before more than one port that a pattern matched is changed. Returns if the answer is yes;
// throws CommandFailed for no, and CLI::ValidationError without a terminal and without --yes.
//   verb: what is done with the ports, "delete".
void ConfirmPorts(const PortArguments& arguments, const std::vector<std::wstring>& ports,
                  const std::string& verb);

// Replaces a host name in --address by its IPv4 address. Returns words about it for the report.
// Throws CommandFailed.
std::string ResolveAddress(PortChange& change);

// The identity of the printer that --follow names; none without a name. Throws CommandFailed.
std::optional<PrinterIdentity> PrinterToFollow(const PortArguments& arguments,
                                               const PrinterIdentifier& identify);

// Lays the arguments, and the printer to follow, over a port's records.
// Returns words about the printer for the report. What does not go together is wrong usage; throws
// CommandFailed where the port could not follow the printer.
std::string ApplyArguments(const PortArguments& arguments,
                           const std::optional<PrinterIdentity>& printer, PortRecords& records);
