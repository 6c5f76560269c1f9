#include "tools/kestctl/PrinterSearch.h"

#include <algorithm>
#include <cctype>

#include "tools/kestctl/Command.h"
#include "tools/kestctl/Hosts.h"

const char kSearchHint[] =
    "check that it is on, that `kestctl slp find` shows it with the attributes that SLPConf.xml "
    "names (docs/SLPConf.md explains how), and that no firewall keeps UDP port 427 from it";

void SetUpSearch(PrinterDiscovery& search, const std::string& modelPattern) {
    if (!search.Configure(modelPattern)) {
        throw CommandFailed(
            "SLPConf.xml, which says how printers are searched for, is missing beside "
            "kestctl.exe or is not well-formed XML");
    }
}

PrinterIdentity IdentifyPrinter(const std::string& host) {
    const IPAddress address = AddressOf(StartedNetwork(), host);
    PrinterDiscovery search;
    SetUpSearch(search, "");
    Printer printer;
    if (!search.FindPrinterByIPAddress(address, printer)) {
        throw CommandFailed("the printer at " + address.GetText() +
                            " does not say who it is: " + kSearchHint);
    }
    PrinterIdentity identity = {address.GetText(), "", printer.GetHostName()};
    if (printer.GetMacAddress().IsValid()) {
        identity.mac = printer.GetMacAddress().GetText();
        std::transform(identity.mac.begin(), identity.mac.end(), identity.mac.begin(),
                       [](unsigned char digit) { return std::toupper(digit); });
    }
    // Without a name of its own, a record has its last address for one.
    const std::string& name = identity.hostName;
    if (IPAddress(name).IsValid() || MacAddress(name).IsValid()) {
        identity.hostName.clear();
    }
    if (identity.mac.empty() && identity.hostName.empty()) {
        throw CommandFailed("the printer at " + address.GetText() +
                            " announces neither a MAC address nor a host name: " + kSearchHint);
    }
    return identity;
}
