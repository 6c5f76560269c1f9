// The printers of the monitor's ports, as a search by an SLPConf.xml finds them.
#pragma once

#include <vector>

#include "base/CommandFailed.h"
#include "admin/ports/PortSettings.h"
#include "admin/search/PrinterIdentity.h"
#include "admin/channel/SpoolerChannel.h"

// One port for each printer that the ports know by MAC address or host name. Ports with the same of
// both have the same printer.
//   following: only ports with AlwaysPrint.
// Throws CommandFailed.
std::vector<PortRecords> PrintersOfPorts(SpoolerChannel& channel, bool following);

// Returns whether the monitor has ports although they could not be listed: only without the monitor
// and without stored ports there are certainly none.
//   failed: why they could not be listed.
bool MayHavePorts(const CommandFailed& failed);

// Returns how many of these printers a search has found.
size_t CountFound(const std::vector<PortRecords>& ports,
                  const std::vector<PrinterIdentity>& printers);

// Returns how many of these printers the second search no longer finds, or finds at an address
// other than the port's, where the first found it.
size_t CountLost(const std::vector<PortRecords>& ports, const std::vector<PrinterIdentity>& before,
                 const std::vector<PrinterIdentity>& after);
