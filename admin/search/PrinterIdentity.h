// What a printer says of itself that it can be found again by.
#pragma once

#include <functional>
#include <string>

struct PrinterIdentity {
    std::string address;   // where it was asked, IPv4 or IPv6
    std::string mac;       // twelve upper-case digits; empty when it announces none
    std::string hostName;  // its own name (UTF-8); empty when it announces none that can be kept
};

// Asks the printer at a host (an address or a name) who it is; see IdentifyPrinter.
using PrinterIdentifier = std::function<PrinterIdentity(const std::string& host)>;
