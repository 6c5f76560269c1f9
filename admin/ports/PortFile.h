// What a row of a file of ports means for a port.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "admin/ports/PortSettings.h"
#include "admin/search/PrinterIdentity.h"
#include "admin/ports/PortTable.h"

// The row that a port is in a file.
PortRow ToRow(const std::wstring& name, const PortRecords& records);

// The name of the row's port in UTF-8, in the form that is stored.
//   problems: receives what is wrong with it, "line 3: ...".
std::string NameOf(const PortRow& row, std::vector<std::string>& problems);

// What has to be asked on the network before a row can be applied, and the answers.
struct RowLookup {
    std::string hostName;  // the host name in the column address; empty: it has an address or none
    std::string printer;   // the host to ask for its identity; empty: none
    bool keepsAddress = true;  // whether the port keeps its address when it follows the printer

    std::optional<std::string> address = {};       // of hostName
    std::optional<PrinterIdentity> identity = {};  // of printer

    bool IsNeeded() const { return !hostName.empty() || !printer.empty(); }
};

// Returns the lookups that a row needs.
//   before: the records of the port, all zero for a new one.
//   problems: receives what is wrong with the columns address and follow, "line 3: ...".
RowLookup LookupFor(const PortRow& row, const PortRecords& before,
                    std::vector<std::string>& problems);

// Lays a row over a port's records (all zero for a new port). An empty cell, or a column that the
// file does not have, keeps the setting; a port that was never configured keeps all settings. With
// an identity in the lookup, it takes the place of the columns mac, hostName and alwaysPrint.
//   problems: receives what is wrong, "line 3: ..."; the records are undefined then.
void Apply(const PortRow& row, PortRecords& records, std::vector<std::string>& problems,
           const RowLookup& lookup = {});
