#include "admin/ports/Migration.h"

#include <algorithm>
#include <cstring>
#include <exception>

#include "address/AddressText.h"
#include "base/CommandFailed.h"
#include "admin/ports/Following.h"
#include "base/Parallel.h"
#include "admin/ports/PortStore.h"
#include "admin/search/PrinterSearch.h"
#include "base/Text.h"

namespace {

constexpr char kNamePlaceholder[] = "{name}";
constexpr char kAddressPlaceholder[] = "{address}";

// Checks a value; throws CommandFailed.
std::string Checked(const char* what, std::string text, std::string (*check)(std::string&)) {
    if (const std::string problem = check(text); !problem.empty()) {
        throw CommandFailed(what + (" " + problem));
    }
    return text;
}

// Takes the address of the standard port; its name, if it has one, is resolved.
void TakeAddress(const StandardPort& port, const MigrationWishes& wishes, PortChange& change,
                 std::string& remark) {
    std::string host = port.hostName.empty() ? port.address : port.hostName;
    if (!IsIPv4AddressText(host) && !IsIPv6AddressText(host)) {
        try {
            host = wishes.resolve(host);
            remark = port.hostName + " has the address " + host;
        } catch (const CommandFailed&) {
            if (port.address.empty()) {
                throw;
            }
            host = port.address;
            remark = port.hostName + " cannot be resolved, its last address was " + host;
        }
    }
    if (IsIPv4AddressText(host)) {
        change.address = Checked("address", host, CheckIPv4Address);
    } else {
        change.ipv6 = Checked("address", host, CheckIPv6Host);
    }
}

void TakeSnmp(const StandardPort& port, PortChange& change) {
    if (port.snmpEnabled && !port.snmpCommunity.empty()) {
        change.snmpCommunity = Checked("SNMP community", port.snmpCommunity, CheckCommunity);
        change.snmpIndex = port.snmpIndex == 0 ? 1 : port.snmpIndex;
    }
}

void AddRemark(std::string& remark, const std::string& more) {
    remark += (remark.empty() ? "" : "; ") + more;
}

// How the LPR protocol of this monitor differs from what the port's users know.
void WarnOfLpr(bool doubleSpool, std::string& remark) {
    AddRemark(remark, doubleSpool
                          ? "WARNING: double spooled, nothing is sent after 2 GiB in total until "
                            "the spooler restarts"
                          : "WARNING: not double spooled, each job takes 4 s longer");
}

void TakeIdentity(const std::string& address, const MigrationWishes& wishes, PortChange& change,
                  std::string& remark) {
    if (!wishes.identify) {
        return;
    }
    try {
        const PrinterIdentity printer = wishes.identify(address);
        FollowInPlace(printer, {}, change);
        AddRemark(remark, "follows " + IdentityText(printer));
    } catch (const CommandFailed&) {
        AddRemark(remark, "reports no identity, cannot be followed");
    }
}

// The settings of a standard port as this monitor's. Throws CommandFailed and SettingsClash.
PortRecords Translated(const StandardPort& port, const MigrationWishes& wishes,
                       std::string& remark) {
    PortChange change;
    TakeAddress(port, wishes, change, remark);
    if (port.protocol != kProtocolRaw && port.protocol != kProtocolLpr) {
        throw CommandFailed("protocol " + std::to_string(port.protocol) +
                            " is neither RAW nor LPR");
    }
    change.protocol = ProtocolName(port.protocol);
    if (port.portNumber != 0) {
        std::string number = std::to_string(port.portNumber);
        Checked("TCP port", number, CheckPortNumber);
        change.portNumber = port.portNumber;
    }
    if (port.protocol == kProtocolLpr) {
        if (!port.queue.empty()) {
            change.queue = Checked("queue", port.queue, CheckQueue);
        }
        change.doubleSpool = port.doubleSpool;
        WarnOfLpr(port.doubleSpool, remark);
    }
    TakeSnmp(port, change);
    TakeIdentity(change.address.value_or(change.ipv6.value_or("")), wishes, change, remark);
    PortRecords records;
    Apply(change, records);
    return records;
}

std::string Replaced(std::string text, const std::string& what, const std::string& by) {
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
        text.replace(at, what.size(), by);
    }
    return text;
}

std::wstring NewName(const StandardPort& port, const std::string& format,
                     const PortRecords& records) {
    const std::string name = Replaced(Replaced(format, kAddressPlaceholder, AddressInUse(records)),
                                      kNamePlaceholder, WideToUtf8(port.name));
    return Utf8ToWide(Checked(("the name '" + name + "'").c_str(), name, CheckPortName));
}

const Queue* FindQueue(const std::vector<Queue>& queues, const std::wstring& name) {
    const auto found = std::find_if(queues.begin(), queues.end(), [&name](const Queue& queue) {
        return SameName(queue.name, name);
    });
    return found != queues.end() ? &*found : nullptr;
}

// Has a queue print to one port in place of another; a pool's other ports stay.
void Move(SpoolerChannel& channel, const Queue& queue, const std::wstring& from,
          const std::wstring& to) {
    std::vector<std::wstring> ports = queue.ports;
    std::replace_if(
        ports.begin(), ports.end(),
        [&from](const std::wstring& port) { return SameName(port, from); }, to);
    channel.MoveQueue(queue.name, ports);
}

// Moves those of the queues that print to a port; which have jobs now is asked for each.
void MoveAll(SpoolerChannel& channel, const std::vector<std::wstring>& names,
             const std::wstring& from, const std::wstring& to, MigrationResult& result,
             bool dryRun = false) {
    for (const std::wstring& name : names) {
        const std::vector<Queue> queues = channel.Queues();
        const Queue* queue = FindQueue(queues, name);
        if (queue == nullptr || QueuesOn({*queue}, from).empty()) {
            continue;
        }
        if (queue->jobs != 0) {
            result.waiting.push_back(queue->name);
            continue;
        }
        if (!dryRun) {
            Move(channel, *queue, from, to);
        }
        result.moved.push_back(queue->name);
    }
}

// True when nobody has changed a port since it was made; one that has followed its printer has
// another address.
bool IsAsMade(const PortRecords& now, PortRecords made) {
    if (made.extended.dwAlwaysPrint != 0) {
        memcpy(made.standard.sztIPAddress, now.standard.sztIPAddress,
               sizeof(now.standard.sztIPAddress));
        memcpy(made.extended.sztIPv6HostName, now.extended.sztIPv6HostName,
               sizeof(now.extended.sztIPv6HostName));
        made.extended.dwUseIPV6 = now.extended.dwUseIPV6;
    }
    return SameSettings(now, made);
}

// Finds what keeps a planned port from being made, or that it is there already.
void CompareWithPorts(SpoolerChannel& channel, std::vector<Migration>& plan) {
    const std::vector<std::wstring> names = channel.PortNames();
    const std::vector<std::wstring> others = channel.OtherPortNames();
    for (Migration& migration : plan) {
        const auto sameName = [&migration](const std::wstring& name) {
            return SameName(name, migration.to);
        };
        if (!migration.obstacle.empty()) {
            continue;
        }
        const auto twice = std::find_if(plan.begin(), plan.end(), [&](const Migration& other) {
            return &other != &migration && SameName(other.to, migration.to);
        });
        const auto there = std::find_if(names.begin(), names.end(), sameName);
        if (twice != plan.end()) {
            migration.obstacle = WideToUtf8(twice->from) + " would have the same name";
        } else if (there != names.end()) {
            migration.to = *there;
            migration.isThere = SameSettings(ReadPort(channel, *there), migration.records);
            if (!migration.isThere) {
                migration.obstacle =
                    "port " + WideToUtf8(*there) + " already exists with other settings";
            }
        } else if (std::any_of(others.begin(), others.end(), sameName)) {
            migration.obstacle = NameTaken(migration.to).what();
        }
    }
}

// The standard ports that names and patterns mean, in their order. Throws CommandFailed.
std::vector<StandardPort> WantedPorts(SpoolerChannel& channel,
                                      const std::vector<std::wstring>& wanted) {
    std::vector<StandardPort> ports = channel.StandardPorts();
    std::vector<std::wstring> names;
    for (const StandardPort& port : ports) {
        names.push_back(port.name);
    }
    for (const std::wstring& pattern : wanted) {
        if (MatchPorts(names, {pattern}, true).empty()) {
            throw CommandFailed("there is no standard TCP/IP port " + WideToUtf8(pattern),
                                Remedy::ListStandardPorts);
        }
    }
    const std::vector<std::wstring> meant = MatchPorts(names, wanted, true);
    std::erase_if(ports, [&meant](const StandardPort& port) {
        return std::find(meant.begin(), meant.end(), port.name) == meant.end();
    });
    return ports;
}

}  // namespace

std::string CheckNameFormat(std::string& format) {
    const std::string rest =
        Replaced(Replaced(format, kNamePlaceholder, ""), kAddressPlaceholder, "");
    if (const size_t at = rest.find_first_of("{}"); at != std::string::npos) {
        const size_t end = rest.find('}', at);
        return "has the unknown placeholder " +
               rest.substr(at, end == std::string::npos ? end : end - at + 1) +
               "; the placeholders are {name} and {address}";
    }
    return format.empty() ? "must not be empty" : "";
}

std::vector<Migration> PlanMigration(SpoolerChannel& channel, const MigrationWishes& wishes,
                                     const std::function<void(size_t, size_t)>& tell) {
    const std::vector<StandardPort> ports = WantedPorts(channel, wishes.wanted);
    const std::vector<Queue> queues = channel.Queues();
    std::vector<Migration> plan(ports.size());
    const auto planOne = [&](size_t at) {
        Migration& migration = plan[at];
        migration.from = ports[at].name;
        migration.queues = QueuesOn(queues, ports[at].name);
        try {
            migration.records = Translated(ports[at], wishes, migration.remark);
            migration.to = NewName(ports[at], wishes.nameFormat, migration.records);
        } catch (const std::exception& failed) {
            migration.obstacle = failed.what();
        }
    };
    ForEach(ports.size(), kPrintersAtOnce, planOne, [&](size_t done) { tell(done, ports.size()); });
    CompareWithPorts(channel, plan);
    for (Migration& migration : plan) {
        migration.busy = BusyQueues(queues, migration.queues);
        if (migration.obstacle.empty() && !migration.busy.empty()) {
            AddRemark(migration.remark,
                      "not moved: print jobs wait in " + JoinedNames(migration.busy));
        }
    }
    return plan;
}

namespace {

// Moves the queues back that Migrate has moved and deletes the port that it added. Returns what
// became of that, for the message; `moved` keeps the queues that could not be moved back.
std::string RollBack(SpoolerChannel& channel, const Migration& migration, bool added,
                     std::vector<std::wstring>& moved) {
    std::vector<std::wstring> remaining;
    std::string failure;
    MigrationResult back;
    for (const std::wstring& queue : moved) {
        try {
            MoveAll(channel, {queue}, migration.to, migration.from, back);
        } catch (const CommandFailed& failed) {
            remaining.push_back(queue);
            failure = failed.what();
        }
    }
    moved = back.waiting;
    moved.insert(moved.end(), remaining.begin(), remaining.end());
    try {
        if (added && moved.empty()) {
            DeletePort(channel, migration.to);
        }
    } catch (const CommandFailed& failed) {
        failure = failed.what();
    }
    if (!failure.empty()) {
        return "; not all changes could be undone: " + failure;
    }
    return back.waiting.empty()
               ? "; all changes were undone"
               : "; not moved back: print jobs arrived in " + JoinedNames(back.waiting);
}

}  // namespace

MigrationResult Migrate(SpoolerChannel& channel, const Migration& migration) {
    MigrationResult result;
    if (!migration.HasWork()) {
        result.waiting = migration.busy;
        return result;
    }
    result.changed = true;
    try {
        if (!migration.isThere) {
            AddPort(channel, migration.to, migration.records);
        }
    } catch (const CommandFailed& failed) {
        result.failure = failed.what();  // which also tells whether the port remains
        return result;
    }
    try {
        MoveAll(channel, migration.queues, migration.from, migration.to, result);
    } catch (const CommandFailed& failed) {
        result.failure = failed.what();
        result.failure += RollBack(channel, migration, !migration.isThere, result.moved);
    }
    result.changed = !migration.isThere || !result.moved.empty();
    return result;
}

MigrationResult Undo(SpoolerChannel& channel, const Migration& migration, bool dryRun) {
    MigrationResult result;
    try {
        MoveAll(channel, migration.queues, migration.to, migration.from, result, dryRun);
        result.changed = !result.moved.empty();
        const std::optional<std::wstring> there = PortCalled(channel, migration.to);
        if (migration.isThere || !there) {
            return result;
        }
        auto users = QueuesOn(channel.Queues(), migration.to);
        std::erase_if(users, [&result](const std::wstring& queue) {
            return std::ranges::find(result.moved, queue) != result.moved.end();
        });
        if (!users.empty()) {
            result.failure = "port " + WideToUtf8(migration.to) + " stays: " + JoinedNames(users) +
                             (users.size() == 1 ? " prints" : " print") + " to it";
        } else if (!IsAsMade(ReadPort(channel, *there), migration.records)) {
            result.failure = "port " + WideToUtf8(migration.to) +
                             " stays: its settings were changed since the migration";
        } else {
            if (!dryRun) {
                DeletePort(channel, *there);
            }
            result.changed = result.deleted = true;
        }
    } catch (const CommandFailed& failed) {
        result.failure = failed.what();
    }
    return result;
}
