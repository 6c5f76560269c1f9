#include "admin/ports/PortPrinters.h"

#include <algorithm>
#include <set>
#include <string>
#include <utility>

#include "address/IPAddress.h"
#include "admin/channel/MonitorKey.h"
#include "admin/ports/PortCheck.h"
#include "admin/ports/PortStore.h"

std::vector<PortRecords> PrintersOfPorts(SpoolerChannel& channel, bool following) {
    std::vector<PortRecords> ports;
    std::set<std::pair<std::string, std::string>> known;
    for (const std::wstring& name : FindPorts(channel, {})) {
        const PortRecords records = ReadPort(channel, name);
        if ((!following || records.extended.dwAlwaysPrint != 0) && HasKeys(records) &&
            known
                .emplace(FieldText(records.extended.sztHWAddress),
                         FieldText(records.standard.sztHostAddress))
                .second) {
            ports.push_back(records);
        }
    }
    return ports;
}

bool MayHavePorts(const CommandFailed& failed) {
    return failed.remedy != Remedy::InstallMonitor || !StoredPorts().empty();
}

size_t CountFound(const std::vector<PortRecords>& ports,
                  const std::vector<PrinterIdentity>& printers) {
    return static_cast<size_t>(std::count_if(
        ports.begin(), ports.end(),
        [&printers](const PortRecords& port) { return !FindOwnPrinter(port, printers).empty(); }));
}

size_t CountLost(const std::vector<PortRecords>& ports, const std::vector<PrinterIdentity>& before,
                 const std::vector<PrinterIdentity>& after) {
    return static_cast<size_t>(
        std::count_if(ports.begin(), ports.end(), [&](const PortRecords& port) {
            const std::string first = FindOwnPrinter(port, before);
            const std::string second = FindOwnPrinter(port, after);
            const IPAddress own(AddressInUse(port));
            return !first.empty() &&
                   (second.empty() || (own == IPAddress(first) && !(own == IPAddress(second))));
        }));
}
