// The search for printers as the commands use it.
#pragma once

#include <string>

#include "discovery/PrinterDiscoveryClass.h"
#include "tools/kestctl/PrinterIdentity.h"

// Sets a search for printers up from the SLPConf.xml that the monitor reads: the one beside the
// installed kestmon.dll or, where there is none, beside this program.
//   modelPattern: as PrinterDiscovery::Configure takes it.
// Throws CommandFailed when the file is missing or broken.
void SetUpSearch(PrinterDiscovery& search, const std::string& modelPattern);

// What an administrator can do when printers do not answer: the end of a message.
extern const char kSearchHint[];

// Asks the printer at a host for its MAC address and its name. Throws CommandFailed when it does
// not answer, or announces neither.
PrinterIdentity IdentifyPrinter(const std::string& host);
