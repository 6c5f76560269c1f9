// Messages for arguments that no command knows.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

// Returns what is wrong with the first unknown command or option of a command line that was parsed,
// with the commands that exist or the most similar option; empty if there is none.
std::string UnknownArgument(const CLI::App& app);
