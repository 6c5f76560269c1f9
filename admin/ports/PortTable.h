// A file of ports as text in rows and columns: JSON as `port export` writes it, or CSV as
// spreadsheets do. What the texts mean is not known here.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

// The settings that a port has in a file, in a spreadsheet's order; names with "snmp/" are those of
// the object "snmp" in JSON.
extern const std::vector<std::string> kPortColumns;

// A further column, which is only read: whether and where the printer is to be asked for its MAC
// address and host name.
extern const char kFollowColumn[];

struct PortRow {
    size_t line = 0;                            // where it begins, from 1
    std::map<std::string, std::string> values;  // UTF-8, by column; true and false for booleans
};

struct PortTable {
    std::vector<PortRow> rows;
    std::vector<std::string> problems;  // "line 3: ..."; the rows are incomplete then
    bool listsColumns = false;          // the known columns are among the problems
};

// Reads a file of at most kMaxPortFile bytes. JSON is an array of objects, or one object; CSV has
// a heading in any letter case, commas, semicolons or tabs between its cells, and quotes (RFC 4180)
// round those that need them; cells that a row does not have are empty. A byte order mark may stand
// before either, and a line "sep=;" before CSV.
PortTable ReadPortTable(const std::string& text);
constexpr size_t kMaxPortFile = 16 << 20;

// The rows as CSV, with commas and a heading. A cell that a spreadsheet would take for a formula
// begins with an apostrophe, which ReadPortTable takes away again.
std::string ToCsv(const std::vector<PortRow>& rows);
