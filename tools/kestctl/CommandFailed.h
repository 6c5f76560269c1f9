// How a command of kestctl fails.
#pragma once

#include <stdexcept>

// Ends a command with exit code 1. The message says what went wrong and, where there is
// something to do about it, what.
struct CommandFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};
