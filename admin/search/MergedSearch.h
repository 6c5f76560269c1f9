// The search for printers by SLP and DNS-SD at the same time, with one result for each printer.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "address/IPAddress.h"
#include "admin/search/PrinterIdentity.h"
#include "discovery/Printer.h"
#include "mdns/Browser.h"

// Where to search; at least one of them.
struct SearchSources {
    bool slp = true;
    bool dnsSd = true;
};

// A printer that was found.
struct SearchHit {
    SearchHit() = default;
    // A printer that answered by SLP. Implicit: the record of a search by SLP is a hit.
    SearchHit(const Printer& printer);
    // A printer that announces itself by DNS-SD. Its name is the host name without ".local", as it
    // would announce it by SLP.
    explicit SearchHit(const mdns::Printer& printer);

    Printer record;
    PrinterIdentity identity;
    std::vector<IPAddress> addresses;  // all that are known
};

// Returns "SLP", "DNS-SD" or "both".
const char* SourceText(SearchSource source);

bool HasAddress(const SearchHit& hit, const IPAddress& address);

// Returns whether the model matches; see FindPrinters.
bool MatchesPattern(const SearchHit& hit, const std::string& modelPattern);

// Finds all printers that answer DNS-SD, with their MAC addresses as far as they are known.
//   goOn: as mdns::FindPrinters calls it.
// Takes 1.0 to 2.5 s, and up to 1.5 s more for MAC addresses if many printers do not answer pings.
std::vector<SearchHit> FindByDnsSd(const std::function<bool()>& goOn);

// The same as identities, one for each address of a printer.
std::vector<PrinterIdentity> FindIdentitiesByDnsSd();

// Searches as FindPrinters does. Records of one printer, with the same MAC address or address,
// become one, with the MAC address and the name of SLP. With both sources, printers are reported
// from when the search by DNS-SD has ended. If the search by SLP fails, the failure is thrown after
// all printers have been reported.
size_t FindPrinters(const SearchSources& sources, const std::string& modelPattern,
                    const std::function<void(const SearchHit&)>& found,
                    const std::function<bool()>& goOn);

// Finds one printer. One that answers SLP is given 1.5 s for its answer by DNS-SD.
//   bySlp: throws CommandFailed if it does not answer SLP; this is thrown if DNS-SD does not find
//          it, either.
//   isWanted: whether a printer that was found by DNS-SD is that one.
SearchHit FindPrinter(const SearchSources& sources, const std::function<Printer()>& bySlp,
                      const std::function<bool(const SearchHit&)>& isWanted);

// Queries the printer at a host (an address or a name) for its identity, by SLP, and for the
// services that it announces by DNS-SD. Throws CommandFailed if it answers neither.
PrinterIdentity IdentifyPrinterByBoth(const std::string& host);
