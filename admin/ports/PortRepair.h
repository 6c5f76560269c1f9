// Ports that were checked, and their repair.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "admin/channel/SpoolerChannel.h"
#include "admin/ports/PortCheck.h"
#include "base/CommandFailed.h"

struct RepairResult {
    CheckedPort port;
    bool repaired = false;
    bool wouldBeRepaired = false;               // in a dry run
    std::optional<CommandFailed> failure = {};  // why it was not repaired

    bool IsWell() const { return repaired || port.state == PortState::Ok; }
};

// Has the ports whose printers were found elsewhere send there; a failure does not keep the others
// from it.
//   goOn: asked before each port; false leaves this port and the rest as they are.
void RepairPorts(SpoolerChannel& channel, bool dryRun, const std::function<bool()>& goOn,
                 std::vector<RepairResult>& results);

// The state in words: "not recognised".
std::string StateText(PortState state);

// Host and TCP port, an IPv6 address in brackets; "-" without an address.
std::string TargetText(const CheckedPort& port);
