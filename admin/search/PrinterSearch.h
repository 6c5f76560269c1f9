// The search for printers as administration uses it: by the SLPConf.xml that the monitor reads, the
// one beside the installed kestmon.dll or, where there is none, beside this program.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "base/CommandFailed.h"
#include "admin/search/PrinterIdentity.h"
#include "discovery/Printer.h"

// SLPConf.xml is missing or is not well-formed XML.
struct NoSearchFile : CommandFailed {
    using CommandFailed::CommandFailed;
};

// All functions here throw NoSearchFile, and CommandFailed when a request cannot be made and when a
// search for one printer does not find it.
//   modelPattern: as PrinterDiscovery::Configure takes it; empty for all models.

// The path of the SLPConf.xml that these searches read, whether there is one or not.
std::wstring SearchFilePath();

// Searches for all printers whose model matches, and returns when no other one answers: after about
// 1 s, or 3.5 s without an answer, 5 s at most.
//   found: called on this thread for each printer with an address, as it answers.
//   goOn: asked on this thread, about five times a second; false ends the search at once.
//   file: the path of a file that the search reads in place of SLPConf.xml.
// Returns how many answered without an address in the attributes that the file names. What
// `found` or `goOn` throws ends the search and goes on to the caller.
size_t FindPrinters(const std::string& modelPattern,
                    const std::function<void(const Printer&)>& found,
                    const std::function<bool()>& goOn, const std::wstring& file = {});

// Returns all printers that such a search finds. A printer with two addresses is listed under both,
// the one that a job would take first.
std::vector<PrinterIdentity> FindIdentities(const std::function<bool()>& goOn,
                                            const std::wstring& file = {});

// Search for one printer, as long as that; the record has an address.
//   hostName: the whole name that it announces, in any letter case.
//   host: where it is asked, an address or a name. A printer there that answers, but not as one
//         with that address, is a failure that tells what it announces instead.
Printer FindPrinterByMacAddress(const MacAddress& mac, const std::string& modelPattern);
Printer FindPrinterByHostName(const std::string& hostName, const std::string& modelPattern);
Printer FindPrinterAt(const std::string& host, const std::string& modelPattern);

// Throws CommandFailed for a printer that announces neither MAC address nor host name.
void RequireKeys(const PrinterIdentity& printer);

// Asks the printer at a host for its MAC address and its name; also fails when it announces
// neither.
PrinterIdentity IdentifyPrinter(const std::string& host);

// The same of a printer that is known to be there, by unicast alone and without the reasons, at
// half the wait where nobody answers; both may be empty.
PrinterIdentity IdentityAt(const std::string& host);

// What a printer's record says of itself; MAC address and name may both be empty.
PrinterIdentity IdentityOf(const Printer& printer);

// Both for a report: "0004004A1B2C, prn-office".
std::string IdentityText(const PrinterIdentity& printer);

// A MAC address as administration writes it: twelve upper-case digits; empty for none.
std::string MacText(const MacAddress& mac);
