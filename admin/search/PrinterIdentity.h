// The identity of a printer: the values by which a port finds its printer again.
#pragma once

#include <cstddef>
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
    std::string hostName;  // its own name (UTF-8); empty when it announces none that can be stored
    SearchSource source = SearchSource::Slp;
    std::vector<AnnouncedService> services = {};  // the one to prefer first
};

// Asks the printer at a host (an address or a name) for its identity; see IdentifyPrinter.
using PrinterIdentifier = std::function<PrinterIdentity(const std::string& host)>;

// How many characters a port stores of the printer's host name.
constexpr size_t kHostNameRoom = 48;

// The checks of values that a port stores. Each takes the text as it was given (UTF-8), may bring
// it into the form that is stored, and returns what is wrong with it, or nothing. "none" clears the
// value; the check of a value that cannot be cleared returns that.
std::string CheckHostName(std::string& text);
std::string CheckMacAddress(std::string& text);  // stored as twelve digits; "none" as no text

// What every stored text must be: not empty, of at most `room` characters, without control
// characters. The monitor keeps the old value if the new one is empty.
std::string CheckStoredText(const std::string& text, size_t room);
