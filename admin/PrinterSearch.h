// The search for printers as administration uses it.
#pragma once

#include <string>

#include "discovery/PrinterDiscoveryClass.h"
#include "admin/PrinterIdentity.h"

// Sets a search for printers up from the SLPConf.xml that the monitor reads: the one beside the
// installed kestmon.dll or, where there is none, beside this program.
//   modelPattern: as PrinterDiscovery::Configure takes it.
// Throws CommandFailed when the file is missing or broken.
void SetUpSearch(PrinterDiscovery& search, const std::string& modelPattern);

// Asks the printer at a host for its MAC address and its name. Throws CommandFailed when it does
// not answer, or announces neither.
PrinterIdentity IdentifyPrinter(const std::string& host);
