#include "admin/PrinterSearch.h"

#include <algorithm>
#include <cctype>

#include "admin/CommandFailed.h"
#include "admin/Hosts.h"
#include "admin/PortSettings.h"

namespace {

// kestmon.dll in the system's folder, where the spooler has it from; null when it is not installed.
HMODULE InstalledMonitor() {
    wchar_t folder[MAX_PATH];
    const UINT length = GetSystemDirectoryW(folder, MAX_PATH);
    const std::wstring path = std::wstring(folder, length) + L"\\kestmon.dll";
    return LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

}  // namespace

void SetUpSearch(PrinterDiscovery& search, const std::string& modelPattern) {
    const HMODULE monitor = InstalledMonitor();
    Config::SetModule(monitor);
    if (!search.Configure(modelPattern)) {
        throw CommandFailed(
            std::string(
                "SLPConf.xml, which says how printers are searched for, is missing beside ") +
            (monitor != nullptr ? "the installed kestmon.dll" : "this program") +
            " or is not well-formed XML");
    }
}

PrinterIdentity IdentifyPrinter(const std::string& host) {
    const IPAddress address = AddressOf(StartedNetwork(), host);
    PrinterDiscovery search;
    SetUpSearch(search, "");
    Printer printer;
    if (!search.FindPrinterByIPAddress(address, printer)) {
        throw CommandFailed("the printer at " + address.GetText() + " does not say who it is",
                            Remedy::CheckSearch);
    }
    PrinterIdentity identity = {address.GetText(), "", printer.GetHostName()};
    if (printer.GetMacAddress().IsValid()) {
        identity.mac = printer.GetMacAddress().GetText();
        std::transform(identity.mac.begin(), identity.mac.end(), identity.mac.begin(),
                       [](unsigned char digit) { return std::toupper(digit); });
    }
    // Without a name of its own, a record has its last address for one.
    std::string& name = identity.hostName;
    if (IPAddress(name).IsValid() || MacAddress(name).IsValid() || !CheckHostName(name).empty()) {
        name.clear();
    }
    if (identity.mac.empty() && identity.hostName.empty()) {
        throw CommandFailed("the printer at " + address.GetText() +
                                " announces neither a MAC address nor a host name",
                            Remedy::CheckSearch);
    }
    return identity;
}
