#include "admin/ports/PortImport.h"

#include <nlohmann/json.hpp>

#include <map>
#include <set>
#include <utility>

#include "admin/ports/Following.h"
#include "admin/ports/PortFile.h"
#include "admin/ports/PortJson.h"
#include "admin/ports/PortPlan.h"
#include "base/Parallel.h"
#include "base/Text.h"

namespace {

struct LessByName {
    bool operator()(const std::wstring& one, const std::wstring& other) const {
        return lstrcmpiW(one.c_str(), other.c_str()) < 0;
    }
};

// A row of the file with the port that it is about.
struct ImportedRow {
    const PortRow* row;
    PortStep step;
    RowLookup lookup = {};
};

class Import {
  public:
    Import(bool replace, SpoolerChannel& channel, const PrinterIdentifier& identify)
        : replace_(replace), channel_(channel), identify_(identify) {}

    ImportPlan Plan(const PortTable& table, const std::function<void(size_t, size_t)>& tell) {
        plan_.problems = table.problems;
        TakeRows(table);
        const bool asks = plan_.problems.empty();
        if (asks) {
            LookUp(tell);
        }
        for (ImportedRow& row : rows_) {
            if (!row.lookup.IsNeeded() || (asks && plan_.problems.empty())) {
                PlanPort(row);
            }
        }
        return std::move(plan_);
    }

  private:
    void Problem(const PortRow& row, const std::string& text) {
        plan_.problems.push_back("line " + std::to_string(row.line) + ": " + text);
    }

    // Finds the port of each row.
    void TakeRows(const PortTable& table) {
        std::map<std::wstring, std::wstring, LessByName> existing;  // as named, as the monitor has
        for (const std::wstring& name : channel_.PortNames()) {
            existing.emplace(name, name);
        }
        const std::vector<std::wstring> others = channel_.OtherPortNames();
        const std::set<std::wstring, LessByName> taken(others.begin(), others.end());
        std::map<std::wstring, size_t, LessByName> lines;
        for (const PortRow& row : table.rows) {
            const std::wstring name = Utf8ToWide(NameOf(row, plan_.problems));
            if (name.empty()) {
                continue;
            }
            if (const auto [other, first] = lines.emplace(name, row.line); !first) {
                Problem(row, "port " + WideToUtf8(name) + " is already in line " +
                                 std::to_string(other->second));
                continue;
            }
            PortStep step = {name, std::nullopt, {}};
            if (const auto found = existing.find(name); found != existing.end()) {
                step.name = found->second;
                step.before = ReadPort(channel_, step.name);
            } else if (taken.contains(name)) {
                Problem(row, NameTaken(name).what());
            }
            step.after = step.before.value_or(PortRecords());
            const RowLookup lookup = LookupFor(row, step.after, plan_.problems);
            rows_.push_back({&row, std::move(step), lookup});
        }
    }

    void LookUp(const std::function<void(size_t, size_t)>& tell) {
        std::vector<ImportedRow*> rows;
        for (ImportedRow& row : rows_) {
            if (row.lookup.IsNeeded()) {
                rows.push_back(&row);
            }
        }
        std::vector<std::string> failures(rows.size());
        const auto lookUp = [&](size_t at) {
            RowLookup& lookup = rows[at]->lookup;
            try {
                if (!lookup.hostName.empty()) {
                    lookup.address = IPv4AddressOf(lookup.hostName);
                }
                if (!lookup.printer.empty()) {
                    lookup.identity = identify_(lookup.printer);
                }
            } catch (const std::exception& failed) {
                failures[at] = failed.what();
            }
        };
        ForEach(rows.size(), kPrintersAtOnce, lookUp,
                [&](size_t done) { tell(done, rows.size()); });
        for (size_t i = 0; i < rows.size(); ++i) {
            if (!failures[i].empty()) {
                Problem(*rows[i]->row, failures[i]);
            }
        }
    }

    void PlanPort(ImportedRow& imported) {
        const size_t before = plan_.problems.size();
        PortStep& step = imported.step;
        Apply(*imported.row, step.after, plan_.problems, imported.lookup);
        if (plan_.problems.size() != before) {
            return;
        }
        if (step.before && SameSettings(*step.before, step.after)) {
            ++plan_.unchanged;
        } else if (step.before && !replace_) {
            Problem(*imported.row, "port " + WideToUtf8(step.name) +
                                       " already exists with other settings (" + ChangesText(step) +
                                       "). --replace changes it");
        } else {
            plan_.steps.push_back(std::move(step));
        }
    }

    const bool replace_;
    SpoolerChannel& channel_;
    const PrinterIdentifier& identify_;
    std::vector<ImportedRow> rows_;
    ImportPlan plan_;
};

}  // namespace

ImportPlan PlanImport(const std::string& text, bool replace, SpoolerChannel& channel,
                      const PrinterIdentifier& identify,
                      const std::function<void(size_t, size_t)>& tell) {
    return Import(replace, channel, identify).Plan(ReadPortTable(text), tell);
}

std::string ChangesText(const PortStep& step) {
    std::string text;
    const nlohmann::json changes =
        Changes(ToJson(step.name, *step.before), ToJson(step.name, step.after));
    for (const auto& [key, values] : changes.items()) {
        text += (text.empty() ? "" : ", ") + ChangeText(key, values);
    }
    return text;
}
