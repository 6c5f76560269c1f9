// What an action fails with.
#pragma once

#include "base/CommandFailed.h"

template <class Action>
CommandFailed FailureOf(const Action& action) {
    try {
        action();
    } catch (const CommandFailed& failed) {
        return failed;
    }
    return CommandFailed("nothing failed");
}
