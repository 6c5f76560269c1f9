#include "admin/ports/PortRename.h"

#include "base/CommandFailed.h"
#include "admin/ports/PortStore.h"
#include "base/Text.h"

namespace {

// Deletes the old port. Returns why that is not possible; empty if it is done.
std::string DeleteOld(SpoolerChannel& channel, const Migration& plan,
                      const MigrationResult& moved) {
    if (!moved.waiting.empty()) {
        return "print jobs arrived in " + JoinedNames(moved.waiting);
    }
    try {
        if (const auto users = QueuesOn(channel.Queues(), plan.from); !users.empty()) {
            return "a printer was added to the port: " + JoinedNames(users);
        }
        DeletePort(channel, plan.from);
    } catch (const CommandFailed& failed) {
        return failed.what();
    }
    return {};
}

}  // namespace

Migration PlanRename(SpoolerChannel& channel, const std::wstring& name,
                     const std::wstring& newName) {
    Migration plan;
    plan.from = FindPort(channel, name);
    plan.to = newName;
    RequireFreeName(channel, newName, Remedy::ListPorts);
    plan.records = ReadPort(channel, plan.from);
    const std::vector<Queue> queues = channel.Queues();
    plan.queues = QueuesOn(queues, plan.from);
    if (const auto busy = BusyQueues(queues, plan.queues); !busy.empty()) {
        throw CommandFailed("port " + WideToUtf8(plan.from) +
                            " cannot be renamed: print jobs wait in " + JoinedNames(busy) +
                            ". Repeat the command when they are printed");
    }
    return plan;
}

void RenamePort(SpoolerChannel& channel, const Migration& plan) {
    const MigrationResult moved = Migrate(channel, plan);
    std::string failure = moved.failure;
    if (failure.empty()) {
        failure = DeleteOld(channel, plan, moved);
        if (failure.empty()) {
            return;
        }
        const MigrationResult back = Undo(channel, plan);
        failure += !back.failure.empty() ? "; not all changes could be undone: " + back.failure
                   : !back.waiting.empty()
                       ? "; not moved back from port " + WideToUtf8(plan.to) +
                             ": print jobs arrived in " + JoinedNames(back.waiting)
                       : "; all changes were undone";
    }
    throw CommandFailed("port " + WideToUtf8(plan.from) + " cannot be renamed: " + failure);
}
