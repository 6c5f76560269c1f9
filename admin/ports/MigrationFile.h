// The file by which a migration is undone.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <vector>

#include "admin/ports/Migration.h"

// A planned migration of one port, for --json and for the file.
nlohmann::json ToJson(const Migration& migration);

// Writes the file for the ports of a plan that will be migrated. Throws CommandFailed, also if the
// file exists.
//   file: its name; empty: migration-DATE-TIME.json in the current folder.
//   server: the print server, \\SERVER; empty for this computer.
// Returns the name of the file.
std::string SaveMigration(std::string file, const std::vector<Migration>& plan,
                          const std::wstring& server);

// Reads the file. Throws CommandFailed, also if it is of another print server: it would move the
// printers of this one.
std::vector<Migration> LoadMigration(const std::string& file, const std::wstring& server);
