#include "admin/ports/Following.h"

#include <algorithm>

#include "address/AddressText.h"
#include "base/Parallel.h"

bool KeepsOtherName(const PrinterIdentity& printer, const PortRecords& before) {
    return printer.hostName.empty() && !FieldText(before.standard.sztHostAddress).empty() &&
           FieldText(before.extended.sztHWAddress) != printer.mac;
}

namespace {

// Has a new port print as the printer announces, as far as the change does not say otherwise.
void TakeService(const PrinterIdentity& printer, PortChange& change) {
    const auto service = std::ranges::find_if(printer.services, [&](const auto& announced) {
        return change.protocol ? *change.protocol == announced.protocol
                               : !change.portNumber || *change.portNumber == announced.port;
    });
    if (service == printer.services.end()) {
        return;
    }
    change.protocol = service->protocol;
    change.portNumber = change.portNumber.value_or(service->port);
    std::string queue = service->queue;
    if (!change.queue && service->protocol == "lpr" && CheckQueue(queue).empty()) {
        change.queue = queue;
    }
}

}  // namespace

void Follow(const PrinterIdentity& printer, const PortRecords& before, PortChange& change) {
    if (before.standard.dwProtocol == 0) {
        TakeService(printer, change);
    }
    if (!change.address && !change.ipv6) {
        (IsIPv4AddressText(printer.address) ? change.address : change.ipv6) = printer.address;
    }
    FollowInPlace(printer, before, change);
}

void FollowInPlace(const PrinterIdentity& printer, const PortRecords& before, PortChange& change) {
    if (KeepsOtherName(printer, before)) {
        throw CommandFailed(
            "The printer announces no host name, and the port would keep the name " +
            FieldText(before.standard.sztHostAddress) +
            " of another printer. Delete the port and add it again");
    }
    // A port that follows its printer by SLP must not lose this because of one lost answer.
    const bool keeps = before.standard.dwProtocol != 0 && printer.source == SearchSource::DnsSd;
    if (!keeps || !printer.mac.empty()) {
        change.mac = printer.mac;
    }
    if (!printer.hostName.empty()) {
        change.hostName = printer.hostName;
    }
    if (!keeps) {
        change.alwaysPrint = printer.source != SearchSource::DnsSd;
    }
}

std::vector<IdentifiedPrinter> IdentifyPrinters(const std::vector<std::string>& hosts,
                                                const PrinterIdentifier& identify,
                                                const std::function<void(size_t)>& tell) {
    std::vector<IdentifiedPrinter> printers(hosts.size());
    const auto identifyOne = [&](size_t at) {
        try {
            printers[at].printer = identify(hosts[at]);
        } catch (const CommandFailed& failed) {
            printers[at].failure = failed.what();
            printers[at].remedy = failed.remedy;
        } catch (const std::exception& failed) {
            printers[at].failure = failed.what();
        }
    };
    ForEach(hosts.size(), kPrintersAtOnce, identifyOne, tell);
    return printers;
}
