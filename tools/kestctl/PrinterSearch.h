// The search for printers as the commands use it.
#pragma once

#include <string>

#include "discovery/PrinterDiscoveryClass.h"

// Sets a search for printers up from the SLPConf.xml beside the program.
//   modelPattern: as PrinterDiscovery::Configure takes it.
// Throws CommandFailed when the file is missing or broken.
void SetUpSearch(PrinterDiscovery& search, const std::string& modelPattern);

// What an administrator can do when printers do not answer: the end of a message.
extern const char kSearchHint[];

// What a printer says of itself, asked at its address: what it can be found again by.
struct PrinterIdentity {
    std::string address;   // the address that was asked
    std::string mac;       // twelve digits; empty when it announces none
    std::string hostName;  // its own name; empty when it announces none
};

// Asks the printer at a host for its MAC address and its name. Throws CommandFailed when it does
// not answer, or announces neither.
PrinterIdentity IdentifyPrinter(const std::string& host);
