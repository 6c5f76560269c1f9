#include "admin/ports/Following.h"

#include "address/AddressText.h"
#include "base/Parallel.h"

namespace {
constexpr size_t kAtOnce = 32;
}

bool KeepsOtherName(const PrinterIdentity& printer, const PortRecords& before) {
    return printer.hostName.empty() && !FieldText(before.standard.sztHostAddress).empty() &&
           FieldText(before.extended.sztHWAddress) != printer.mac;
}

void Follow(const PrinterIdentity& printer, const PortRecords& before, PortChange& change) {
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
    change.mac = printer.mac;
    if (!printer.hostName.empty()) {
        change.hostName = printer.hostName;
    }
    change.alwaysPrint = true;
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
    ForEach(hosts.size(), kAtOnce, identifyOne, tell);
    return printers;
}
