// The monitor's ports over a channel: what can be done with them, with every failure told.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "base/CommandFailed.h"
#include "admin/ports/PortSettings.h"
#include "admin/channel/SpoolerChannel.h"

// The port of a name in any letter case, as the monitor has it. Throws CommandFailed.
std::optional<std::wstring> PortCalled(SpoolerChannel& channel, const std::wstring& name);

// The port's name as the monitor has it, for a name in any letter case.
// Throws CommandFailed when there is no such port.
std::wstring FindPort(SpoolerChannel& channel, const std::wstring& name);

// Returns those of the names that are wanted by name or match a wanted pattern, each once and in
// their order; see FindPorts.
std::vector<std::wstring> MatchPorts(const std::vector<std::wstring>& names,
                                     const std::vector<std::wstring>& wanted, bool mayMiss = false);

// The ports that names and patterns mean, each once and in the monitor's order. See SameName
// and MatchesPattern.
//   wanted: empty for all ports.
//   mayMiss: whether one of them may mean no port; otherwise that is a failure.
// Throws CommandFailed.
std::vector<std::wstring> FindPorts(SpoolerChannel& channel,
                                    const std::vector<std::wstring>& wanted, bool mayMiss = false);

// Those of the ports that only a pattern matched, without those that were named.
std::vector<std::wstring> MatchedByPattern(const std::vector<std::wstring>& ports,
                                           const std::vector<std::wstring>& wanted);

// Names for a message: "A, B".
std::string JoinedNames(const std::vector<std::wstring>& names);

// How a port fails whose name one of another monitor has.
CommandFailed NameTaken(const std::wstring& name);

// Throws CommandFailed if a port of this name exists, of this monitor (with this remedy) or
// another.
void RequireFreeName(SpoolerChannel& channel, const std::wstring& name,
                     Remedy remedy = Remedy::ChangePort);

// Makes a port with its configuration, or, when any step fails, nothing.
// Throws CommandFailed.
void AddPort(SpoolerChannel& channel, const std::wstring& name, const PortRecords& records);

// Writes both records of a port that is there, and reads them back: the monitor itself does not
// report what the registry refused. What was there before is written again when that fails.
// Throws CommandFailed.
void ChangePort(SpoolerChannel& channel, const std::wstring& name, const PortRecords& before,
                const PortRecords& after);

// A port that is to be made, or changed.
struct PortStep {
    std::wstring name;
    std::optional<PortRecords> before;  // none: it is to be made
    PortRecords after;
};

// Makes and changes ports, all or none of them: where one fails, those before it are taken back.
//   tell: is told how many are done; what it throws ends it in the same way.
// Throws CommandFailed; the message names ports that could not be taken back.
void ApplyAllOrNothing(SpoolerChannel& channel, const std::vector<PortStep>& steps,
                       const std::function<void(size_t done)>& tell);

// Throws CommandFailed.
void DeletePort(SpoolerChannel& channel, const std::wstring& name);
