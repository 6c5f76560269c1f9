#include "admin/ports/PortPlan.h"

#include "admin/ports/Following.h"
#include "admin/ports/PortStore.h"
#include "admin/search/Hosts.h"
#include "base/Text.h"

namespace {

PlannedPort PlanPort(SpoolerChannel& channel, const std::wstring& name, const PortWishes& wishes) {
    PlannedPort port = {name, ReadPort(channel, name)};
    port.after = port.before;
    port.printer = wishes.printer;
    ApplyWishes(wishes, port.after);
    return port;
}

// Where the printer of a port is queried that follows in place; empty without an address.
std::string HostToQuery(SpoolerChannel& channel, const std::wstring& name,
                        const PortChange& change) {
    std::string host = change.address.value_or("");
    if (host.empty()) {
        host = change.ipv6.value_or("");
    }
    return host.empty() ? AddressInUse(ReadPort(channel, name)) : host;
}

PlannedPort PlanInPlace(SpoolerChannel& channel, const std::wstring& name, PortWishes wishes,
                        const IdentifiedPrinter& answer) {
    if (!answer.failure.empty()) {
        return {name, {}, {}, {}, answer.failure, answer.remedy};
    }
    wishes.printer = answer.printer;
    try {
        return PlanPort(channel, name, wishes);
    } catch (const CommandFailed& failed) {
        return {name, {}, {}, {}, failed.what()};
    }
}

}  // namespace

std::string IPv4AddressOf(const std::string& name) {
    const IPAddress address = AddressOf(StartedNetwork(), name);
    if (address.GetType() != IPV4) {
        throw CommandFailed("the name '" + name + "' only has the IPv6 address " +
                            address.GetText() + ". Use --ipv6 for it");
    }
    return address.GetText();
}

std::string ResolveAddress(PortChange& change) {
    std::string name = change.address.value_or("");
    if (name.empty() || CheckIPv4Address(name).empty()) {
        return {};
    }
    change.address = IPv4AddressOf(name);
    return name;
}

void ApplyWishes(const PortWishes& wishes, PortRecords& records) {
    PortChange change = wishes.change;
    if (wishes.printer) {
        (wishes.followInPlace ? FollowInPlace : Follow)(*wishes.printer, records, change);
    }
    Apply(change, records);
}

std::vector<PlannedPort> PlanChanges(SpoolerChannel& channel,
                                     const std::vector<std::wstring>& names,
                                     const PortWishes& wishes, const PrinterIdentifier& identify,
                                     const std::function<void(size_t)>& tell) {
    std::vector<PlannedPort> plan;
    if (!wishes.followInPlace) {
        for (const std::wstring& name : names) {
            plan.push_back(PlanPort(channel, name, wishes));
        }
        return plan;
    }
    std::vector<std::string> hosts;
    for (const std::wstring& name : names) {
        hosts.push_back(HostToQuery(channel, name, wishes.change));
    }
    const auto answers = IdentifyPrinters(hosts, identify, tell);
    for (size_t i = 0; i < names.size(); ++i) {
        plan.push_back(hosts[i].empty()
                           ? PlannedPort{names[i], {}, {}, {}, "the port has no address"}
                           : PlanInPlace(channel, names[i], wishes, answers[i]));
    }
    return plan;
}

void RequireUnused(SpoolerChannel& channel, const std::vector<std::wstring>& ports) {
    std::vector<Queue> queues;
    try {
        queues = channel.Queues();
    } catch (const CommandFailed& failed) {
        throw CommandFailed("cannot determine which printers use the port; nothing was deleted: " +
                                std::string(failed.what()),
                            failed.remedy);
    }
    std::string used;
    for (const std::wstring& port : ports) {
        if (const auto names = QueuesOn(queues, port); !names.empty()) {
            used += (used.empty() ? "port " : "; port ") + WideToUtf8(port) +
                    " is used by printer" + (names.size() == 1 ? " " : "s ") + JoinedNames(names);
        }
    }
    if (!used.empty()) {
        throw CommandFailed(used, Remedy::MovePrinter);
    }
}
