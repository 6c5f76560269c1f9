// Makes ports follow their printers. Jobs cannot follow a printer that does not answer SLP: its
// port gets the MAC address and the host name, but not "always print".
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "base/CommandFailed.h"
#include "admin/ports/PortSettings.h"
#include "admin/search/PrinterIdentity.h"

// Returns true if a port that follows the printer would keep the host name of another one and
// search for that as well: the monitor cannot clear a stored host name.
bool KeepsOtherName(const PrinterIdentity& printer, const PortRecords& before);

// Completes a change so that the port follows a printer. Without an address in the change, the port
// also sends to the address where the printer answered. A new port gets the protocol, TCP port and
// queue that the printer announces, unless the change has them.
//   before: the port's records, all zero for a new port.
// Throws CommandFailed if the port would keep the host name of another printer.
void Follow(const PrinterIdentity& printer, const PortRecords& before, PortChange& change);

// Completes a change so that the port follows the printer at its own address, which stays.
void FollowInPlace(const PrinterIdentity& printer, const PortRecords& before, PortChange& change);

// The answer of one printer.
struct IdentifiedPrinter {
    PrinterIdentity printer;
    std::string failure;  // why the printer could not be identified; empty: it was
    Remedy remedy = Remedy::None;
};

// How many printers are queried at the same time.
constexpr size_t kPrintersAtOnce = 32;

// Asks the printers at these hosts for their identity, kPrintersAtOnce at a time.
//   tell: called on this thread, about ten times a second, with the number of hosts that are done.
std::vector<IdentifiedPrinter> IdentifyPrinters(const std::vector<std::string>& hosts,
                                                const PrinterIdentifier& identify,
                                                const std::function<void(size_t done)>& tell);
