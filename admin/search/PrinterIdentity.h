// What a printer says of itself that it can be found again by.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// The protocols by which a printer was found.
enum class SearchSource { Slp, DnsSd, Both };

// A way to print that a printer announces by DNS-SD.
struct AnnouncedService {
    std::string protocol;  // "raw" or "lpr", as in PortChange
    uint16_t port = 0;
    std::string queue;  // of LPR; not checked, may be empty
};

struct PrinterIdentity {
    std::string address;   // where it was asked, IPv4 or IPv6
    std::string mac;       // twelve upper-case digits; empty when it announces none
    std::string hostName;  // its own name (UTF-8); empty when it announces none that can be kept
    SearchSource source = SearchSource::Slp;
    std::vector<AnnouncedService> services = {};  // the one to prefer first
};

// Asks the printer at a host (an address or a name) who it is; see IdentifyPrinter.
using PrinterIdentifier = std::function<PrinterIdentity(const std::string& host)>;
