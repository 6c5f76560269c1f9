// The options that describe ports, shared by the commands that add and change them.
#pragma once

#include <string>
#include <vector>

#include "admin/ports/PortPlan.h"
#include "kestctl/Command.h"

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
                      const std::string& description = "Port names, or patterns with * and ?");

std::vector<std::wstring> WideNames(const std::vector<std::string>& names);

// Returns true for one name without a pattern: JSON output is one document then, not a list.
bool IsOneName(const std::vector<std::string>& names);

// Adds the options for all settings, and --follow.
//   mayBeOwn: whether --follow may stand without a value; see FollowsInPlace.
void AddSettings(CLI::App& command, PortArguments& arguments, bool mayBeOwn);

// Returns true if each port is to follow the printer at its own address: --follow without a value.
bool FollowsInPlace(const PortArguments& arguments);

// Refuses an address for more than one port, as wrong usage.
void RequireOnePort(const PortArguments& arguments, const std::vector<std::wstring>& ports);

// Asks before more than one port that a pattern matched is changed. Returns if the answer is yes;
// throws CommandFailed for no, and CLI::ValidationError without a terminal and without --yes.
//   verb: what is done with the ports, "delete".
void ConfirmPorts(const PortArguments& arguments, const std::vector<std::wstring>& ports,
                  const std::string& verb);

// Returns the settings that the arguments describe, with the printer that --follow names.
// Throws CommandFailed.
PortWishes WishesOf(const PortArguments& arguments, const PrinterIdentifier& identify);

// The error for settings that contradict each other, as wrong usage.
CLI::ValidationError UsageError(const SettingsClash& clash);
