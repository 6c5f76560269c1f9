// The files that `kestctl port import` reads.
#include <algorithm>
#include <cstdint>
#include <string>

#include "fuzz/Check.h"
#include "admin/ports/PortTable.h"

namespace {

// True for values that CSV holds: a cell has no line ends.
bool IsPlain(const PortRow& row) {
    return !row.values.empty() &&
           std::all_of(row.values.begin(), row.values.end(), [](const auto& value) {
               return value.second.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
           });
}

bool IsEmpty(const PortRow& row) {
    return std::all_of(row.values.begin(), row.values.end(),
                       [](const auto& value) { return value.second.empty(); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const PortTable table = ReadPortTable(text);
    const size_t lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    for (const PortRow& row : table.rows) {
        Check(row.line >= 1 && row.line <= lines);
        for (const auto& [column, value] : row.values) {
            Check(std::find(kPortColumns.begin(), kPortColumns.end(), column) !=
                      kPortColumns.end() ||
                  !table.problems.empty());
        }
    }
    // What is exported is imported again.
    if (table.problems.empty() &&
        std::all_of(table.rows.begin(), table.rows.end(),
                    [](const PortRow& row) { return IsPlain(row) && !IsEmpty(row); })) {
        const PortTable again = ReadPortTable(ToCsv(table.rows));
        Check(again.problems.empty() && again.rows.size() == table.rows.size());
        for (size_t i = 0; i < table.rows.size(); ++i) {
            for (const auto& [column, value] : table.rows[i].values) {
                Check(again.rows[i].values.at(column) == value);
            }
        }
    }
    return 0;
}
