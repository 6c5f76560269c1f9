// What a row of a file of ports means for a port.
#pragma once

#include <string>
#include <vector>

#include "admin/PortSettings.h"
#include "tools/kestctl/PortTable.h"

// The row that a port is in a file.
PortRow ToRow(const std::wstring& name, const PortRecords& records);

// The name of the row's port in UTF-8, in the form that is stored.
//   problems: receives what is wrong with it, "line 3: ...".
std::string NameOf(const PortRow& row, std::vector<std::string>& problems);

// Lays a row over a port's records (all zero for a port that is new). An empty cell, or a column
// that the file does not have, leaves the setting as it is; a port that was never configured leaves
// all of them.
//   problems: receives what is wrong, "line 3: ..."; the records are undefined then.
void Apply(const PortRow& row, PortRecords& records, std::vector<std::string>& problems);
