// What a file of ports comes to for the existing ports.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "admin/channel/SpoolerChannel.h"
#include "admin/ports/PortStore.h"
#include "admin/search/PrinterIdentity.h"

struct ImportPlan {
    std::vector<PortStep> steps;        // for ApplyAllOrNothing
    size_t unchanged = 0;               // ports that already have the settings
    std::vector<std::string> problems;  // "line 3: ..."; with any, nothing is to be done
};

// Reads a file and plans its ports. Host names are resolved, and printers queried for their
// identity, 32 at a time, if the file has no problems of its own.
//   text: the file's content; see ReadPortTable.
//   replace: whether existing ports are changed; otherwise other settings are a problem.
//   tell: called on this thread, about ten times a second, with the number of rows that are looked
//         up.
// Throws CommandFailed if the ports cannot be read.
ImportPlan PlanImport(const std::string& text, bool replace, SpoolerChannel& channel,
                      const PrinterIdentifier& identify,
                      const std::function<void(size_t done, size_t all)>& tell);

// The settings that a step changes: "address: 10.0.0.1 -> 10.0.0.9, mac: ...".
std::string ChangesText(const PortStep& step);
