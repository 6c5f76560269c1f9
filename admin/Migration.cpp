#include "admin/Migration.h"

#include <algorithm>
#include <cstring>
#include <exception>

#include "address/AddressText.h"
#include "admin/CommandFailed.h"
#include "admin/Parallel.h"
#include "admin/PortStore.h"
#include "admin/PrinterSearch.h"
#include "admin/Text.h"

namespace {

constexpr size_t kAtOnce = 32;

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
            remark = port.hostName + " is " + host + " now";
        } catch (const CommandFailed&) {
            if (port.address.empty()) {
                throw;
            }
            host = port.address;
            remark = port.hostName + " has no address, was " + host;
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

void TakeIdentity(const std::string& address, const MigrationWishes& wishes, PortChange& change,
                  std::string& remark) {
    if (!wishes.identify) {
        return;
    }
    remark += remark.empty() ? "" : "; ";
    try {
        const PrinterIdentity printer = wishes.identify(address);
        change.mac = printer.mac;
        if (!printer.hostName.empty()) {
            change.hostName = printer.hostName;
        }
        change.alwaysPrint = true;
        remark += "follows " + IdentityText(printer);
    } catch (const CommandFailed&) {
        remark += "does not say who it is: follows nobody";
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
    }
    TakeSnmp(port, change);
    TakeIdentity(change.address.value_or(change.ipv6.value_or("")), wishes, change, remark);
    PortRecords records;
    Apply(change, records);
    return records;
}

std::string Replaced(std::string text, const std::string& what, const std::string& by) {
    if (const size_t at = text.find(what); at != std::string::npos) {
        text.replace(at, what.size(), by);
    }
    return text;
}

std::wstring NewName(const StandardPort& port, const std::string& format,
                     const PortRecords& records) {
    const std::string name =
        Replaced(Replaced(format, "{address}", AddressInUse(records)), "{name}", ToUtf8(port.name));
    return ToWide(Checked(("the name '" + name + "'").c_str(), name, CheckPortName));
}

std::string Joined(const std::vector<std::wstring>& names) {
    std::string text;
    for (const std::wstring& name : names) {
        text += (text.empty() ? "" : ", ") + ToUtf8(name);
    }
    return text;
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
             const std::wstring& from, const std::wstring& to, MigrationResult& result) {
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
        Move(channel, *queue, from, to);
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
            migration.obstacle = ToUtf8(twice->from) + " would have the same name";
        } else if (there != names.end()) {
            migration.to = *there;
            migration.isThere = SameSettings(ReadPort(channel, *there), migration.records);
            if (!migration.isThere) {
                migration.obstacle = "port " + ToUtf8(*there) + " is there with other settings";
            }
        } else if (std::any_of(others.begin(), others.end(), sameName)) {
            migration.obstacle = NameTaken(migration.to).what();
        }
    }
}

}  // namespace

std::vector<Migration> PlanMigration(SpoolerChannel& channel, const MigrationWishes& wishes,
                                     const std::function<void(size_t, size_t)>& tell) {
    const std::vector<StandardPort> all = channel.StandardPorts();
    std::vector<std::wstring> names;
    for (const StandardPort& port : all) {
        names.push_back(port.name);
    }
    const std::vector<std::wstring> wanted = Meant(names, wishes.wanted);
    std::vector<StandardPort> ports;
    std::copy_if(all.begin(), all.end(), std::back_inserter(ports), [&](const StandardPort& port) {
        return std::find(wanted.begin(), wanted.end(), port.name) != wanted.end();
    });

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
    ForEach(ports.size(), kAtOnce, planOne, [&](size_t done) { tell(done, ports.size()); });
    CompareWithPorts(channel, plan);
    for (Migration& migration : plan) {
        std::vector<std::wstring> busy;
        for (const std::wstring& name : migration.queues) {
            if (FindQueue(queues, name)->jobs != 0) {
                busy.push_back(name);
            }
        }
        if (migration.obstacle.empty() && !busy.empty()) {
            migration.remark += (migration.remark.empty() ? "" : "; ") +
                                std::string("jobs wait in ") + Joined(busy) + ", left alone";
        }
    }
    return plan;
}

MigrationResult Migrate(SpoolerChannel& channel, const Migration& migration) {
    MigrationResult result;
    bool made = false;
    try {
        if (!migration.isThere) {
            AddPort(channel, migration.to, migration.records);
            made = true;
        }
        MoveAll(channel, migration.queues, migration.from, migration.to, result);
    } catch (const CommandFailed& failed) {
        result.failure = failed.what();
        MigrationResult back;
        try {
            MoveAll(channel, result.moved, migration.to, migration.from, back);
            if (made && back.waiting.empty()) {
                DeletePort(channel, migration.to);
            }
            result.failure += back.waiting.empty() ? "; it is as it was"
                                                   : "; " + Joined(back.waiting) +
                                                         " has jobs by now, and stays moved";
        } catch (const CommandFailed& stays) {
            result.failure += "; not all could be taken back: " + std::string(stays.what());
        }
        result.moved = back.waiting;
    }
    return result;
}

MigrationResult Undo(SpoolerChannel& channel, const Migration& migration) {
    MigrationResult result;
    try {
        MoveAll(channel, migration.queues, migration.to, migration.from, result);
        const std::optional<std::wstring> there = PortCalled(channel, migration.to);
        if (migration.isThere || !there) {
            return result;
        }
        if (const auto users = QueuesOn(channel.Queues(), migration.to); !users.empty()) {
            result.failure = "port " + ToUtf8(migration.to) + " stays: " + Joined(users) +
                             (users.size() == 1 ? " prints" : " print") + " to it";
        } else if (!IsAsMade(ReadPort(channel, *there), migration.records)) {
            result.failure = "port " + ToUtf8(migration.to) +
                             " stays: it has other settings than the migration gave it";
        } else {
            DeletePort(channel, *there);
        }
    } catch (const CommandFailed& failed) {
        result.failure = failed.what();
    }
    return result;
}
