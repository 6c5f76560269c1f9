#include "admin/ports/PortRepair.h"

namespace {

void RepairOne(SpoolerChannel& channel, bool dryRun, const std::function<bool()>& goOn,
               RepairResult& result) {
    // No job can follow a printer without SLP: its ports are without --always-print.
    if (result.port.records.extended.dwAlwaysPrint == 0 && !result.port.foundByDnsSd) {
        throw CommandFailed("the port does not follow its printer (--always-print)");
    }
    if (!goOn()) {
        throw CommandFailed("not started because of Ctrl-C");
    }
    if (dryRun) {
        result.wouldBeRepaired = true;
    } else {
        RepairPort(channel, result.port);
        result.repaired = true;
    }
}

}  // namespace

void RepairPorts(SpoolerChannel& channel, bool dryRun, const std::function<bool()>& goOn,
                 std::vector<RepairResult>& results) {
    for (RepairResult& result : results) {
        try {
            if (!result.port.found.empty()) {
                RepairOne(channel, dryRun, goOn, result);
            }
        } catch (const CommandFailed& failed) {
            result.failure = failed;
        }
    }
}

std::string StateText(PortState state) {
    switch (state) {
        case PortState::Ok:
            return "ok";
        case PortState::Unreachable:
            return "unreachable";
        case PortState::Moved:
            return "moved";
        case PortState::AnotherPrinter:
            return "another printer";
        case PortState::NotRecognised:
            return "not recognised";
        case PortState::NoConfiguration:
            return "no configuration";
        case PortState::CannotFollow:
            return "cannot follow";
        case PortState::NotConfigured:
            return "not configured";
    }
    return {};
}

std::string TargetText(const CheckedPort& port) {
    const std::string host = AddressInUse(port.records);
    const bool isIPv6 = host.find(':') != std::string::npos;
    return host.empty() ? "-"
                        : (isIPv6 ? "[" + host + "]" : host) + ":" +
                              std::to_string(port.records.standard.dwPortNumber);
}
