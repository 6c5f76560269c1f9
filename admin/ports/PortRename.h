// Gives a port another name: a new port, the queues moved to it, the old port deleted.
#pragma once

#include <string>

#include "admin/ports/Migration.h"

// Plans a rename: the settings and the queues that move.
// Throws CommandFailed if there is no such port, the new name is taken, or print jobs wait in one
// of its queues.
Migration PlanRename(SpoolerChannel& channel, const std::wstring& name,
                     const std::wstring& newName);

// Carries a planned rename out. If a step fails, the steps before it are undone.
// Throws CommandFailed.
void RenamePort(SpoolerChannel& channel, const Migration& plan);
