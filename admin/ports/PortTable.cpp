#include "admin/ports/PortTable.h"

// Its own thread for reading ahead would only cost here: the text is in memory.
#define CSV_IO_NO_THREAD
#include <libfccp/csv.h>
#include <nlohmann/json.hpp>
#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <utility>

const std::vector<std::string> kPortColumns = {
    "name",    "configured",  "protocol",     "address",        "ipv6Host",
    "useIPv6", "portNumber",  "queue",        "doubleSpool",    "hostName",
    "mac",     "alwaysPrint", "snmp/enabled", "snmp/community", "snmp/index"};
const char kFollowColumn[] = "follow";

namespace {

constexpr char kFormulaStarts[] = "=+-@";

constexpr size_t kLongestColumn = 100;  // that a message repeats, in bytes

// What `port show` says of a port that is no setting of its own.
bool IsRemark(const std::string& column) {
    return column == "usedBy" || column == "changed";
}

// True for what a spreadsheet would take for a formula, behind any apostrophes that say it is none.
bool IsFormula(const std::string& text) {
    const size_t start = text.find_first_not_of('\'');
    return start != std::string::npos &&
           std::string_view(kFormulaStarts).find(text[start]) != std::string_view::npos;
}

std::string At(size_t line) {
    return "line " + std::to_string(line) + ": ";
}

std::string KnownColumns() {
    std::string text = kFollowColumn;
    for (const std::string& column : kPortColumns) {
        text += ", " + column;
    }
    return text;
}

// Notes a value of a row, or what is wrong with its column.
void Take(PortTable& table, PortRow& row, const std::string& column, const std::string& value,
          size_t line) {
    if (IsRemark(column)) {
        return;
    }
    if (column != kFollowColumn &&
        std::find(kPortColumns.begin(), kPortColumns.end(), column) == kPortColumns.end()) {
        table.problems.push_back(At(line) + "unknown setting '" + column.substr(0, kLongestColumn) +
                                 (column.size() > kLongestColumn ? "...'" : "'") +
                                 (std::exchange(table.listsColumns, true)
                                      ? ""
                                      : "; the settings are " + KnownColumns()));
    } else if (!row.values.emplace(column, value).second) {
        table.problems.push_back(At(line) + "the setting '" + column + "' occurs twice");
    }
}

// A text's characters; whoever reads them can be asked for the line that he is at.
class CountingIterator {
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    CountingIterator(const char* at, size_t& line) : at_(at), line_(&line) {}
    reference operator*() const { return *at_; }
    CountingIterator& operator++() {
        *line_ += *at_++ == '\n' ? 1 : 0;
        return *this;
    }
    bool operator==(const CountingIterator& other) const { return at_ == other.at_; }
    bool operator!=(const CountingIterator& other) const { return at_ != other.at_; }

  private:
    const char* at_;
    size_t* line_;
};

// Takes the rows out of JSON while it is read: only so the lines are known.
class JsonReader : public nlohmann::json_sax<nlohmann::json> {
  public:
    JsonReader(PortTable& table, const size_t& line) : table_(table), line_(line) {}

    bool null() override { return Value(""); }
    bool boolean(bool value) override { return Value(value ? "true" : "false"); }
    bool number_integer(number_integer_t value) override { return Value(std::to_string(value)); }
    bool number_unsigned(number_unsigned_t value) override { return Value(std::to_string(value)); }
    bool number_float(number_float_t, const string_t& text) override { return Value(text); }
    bool string(string_t& value) override { return Value(value); }
    bool binary(binary_t&) override { return Value(""); }

    bool start_object(size_t) override {
        if (ignored_ > 0) {
            ++ignored_;
        } else if (!inPort_) {
            inPort_ = true;
            row_ = {line_, {}};
        } else if (prefix_.empty() && key_ == "snmp") {
            prefix_ = "snmp/";
        } else {
            Ignore();
        }
        return true;
    }
    bool key(string_t& name) override {
        if (ignored_ == 0) {
            key_ = name;
        }
        return true;
    }
    bool end_object() override {
        if (ignored_ > 0) {
            --ignored_;
        } else if (!prefix_.empty()) {
            prefix_.clear();
        } else {
            inPort_ = false;
            table_.rows.push_back(std::move(row_));
        }
        return true;
    }
    bool start_array(size_t) override {
        if (ignored_ > 0) {
            ++ignored_;
        } else if (inPort_ || inList_) {
            Ignore();
        }
        inList_ = true;
        return true;
    }
    bool end_array() override {
        ignored_ -= ignored_ > 0 ? 1 : 0;
        return true;
    }
    bool parse_error(size_t, const std::string&, const nlohmann::json::exception& error) override {
        std::string text = error.what();
        text.erase(0, text.find("] ") + 2);                  // the library's own number
        text = text.substr(0, text.find("; last read: '"));  // it may be as long as the file
        table_.problems.push_back(text);
        return false;
    }

  private:
    // Begins a list or an object that is no setting's value.
    void Ignore() {
        ignored_ = 1;
        if (!inPort_ || !IsRemark(prefix_ + key_)) {
            Misplaced();
        }
    }
    void Misplaced() {
        table_.problems.push_back(At(line_) +
                                  "not the settings of a port, for example {\"name\": "
                                  "\"OFFICE\", \"address\": \"192.168.1.20\"}");
    }
    bool Value(const std::string& value) {
        if (ignored_ > 0) {
            return true;
        }
        if (inPort_) {
            Take(table_, row_, prefix_ + key_, value, line_);
        } else {
            Misplaced();
        }
        return true;
    }

    PortTable& table_;
    const size_t& line_;
    PortRow row_;
    std::string key_;
    std::string prefix_;  // of the object within the port that is being read
    size_t ignored_ = 0;  // how deep in something that is not taken
    bool inList_ = false;
    bool inPort_ = false;
};

// The separator that a line "sep=;" declares for a spreadsheet; '\0' in any other line.
char SeparatorIn(std::string_view line) {
    constexpr std::string_view kPrefix = "sep=";
    line = line.substr(0, line.find_first_of("\r\n"));
    const bool declares = line.size() == kPrefix.size() + 1 &&
                          strncasecmp(line.data(), kPrefix.data(), kPrefix.size()) == 0;
    return declares ? line.back() : '\0';
}

// Takes a line of CSV apart. Throws io::error::base.
template <char Separator>
std::vector<std::string> Cells(char* line) {
    using Quotes = io::double_quote_escape<Separator, '"'>;
    std::vector<std::string> cells;
    while (line != nullptr) {
        char* begin = line;
        char* end = line + (Quotes::find_next_column_end(line) - line);  // not const
        line = *end == Separator ? end + 1 : nullptr;
        *end = '\0';
        io::trim_chars<' ', '\t'>::trim(begin, end);
        Quotes::unescape(begin, end);
        cells.emplace_back(*begin == '\'' && IsFormula(begin) ? begin + 1 : begin);
    }
    // Spreadsheets fill up rows with empty cells.
    while (!cells.empty() && cells.back().empty()) {
        cells.pop_back();
    }
    return cells;
}

// A column as it is called here, for a heading in any letter case.
std::string ColumnFor(const std::string& heading) {
    if (strcasecmp(heading.c_str(), kFollowColumn) == 0) {
        return kFollowColumn;
    }
    const auto column =
        std::find_if(kPortColumns.begin(), kPortColumns.end(), [&heading](const std::string& name) {
            return strcasecmp(name.c_str(), heading.c_str()) == 0;
        });
    return column != kPortColumns.end() ? *column : heading;
}

// Takes a line of CSV into the table; the first one with text is the heading.
void TakeCsvLine(PortTable& table, std::vector<std::string>& heading,
                 std::vector<std::string> cells, size_t line) {
    if (heading.empty()) {
        PortRow once;
        for (const std::string& cell : cells) {
            heading.push_back(ColumnFor(cell));
            Take(table, once, heading.back(), "", line);
        }
        return;
    }
    if (cells.size() > heading.size()) {
        table.problems.push_back(At(line) + "the row has more cells than the heading");
        return;
    }
    cells.resize(heading.size());
    PortRow row = {line, {}};
    for (size_t i = 0; i < cells.size(); ++i) {
        row.values.emplace(heading[i], cells[i]);
    }
    table.rows.push_back(std::move(row));
}

template <char Separator>
void ReadCsv(const std::string& text, PortTable& table) {
    io::LineReader lines("", text.data(), text.data() + text.size());
    std::vector<std::string> heading;
    bool first = true;
    while (char* line = lines.next_line()) {
        const size_t number = lines.get_file_line();
        if (std::exchange(first, false) && SeparatorIn(line) != '\0') {
            continue;
        }
        std::vector<std::string> cells;
        try {
            cells = Cells<Separator>(line);
        } catch (const io::error::base&) {
            table.problems.push_back(At(number) + "a quoted cell has no closing quote");
            continue;
        }
        if (!cells.empty()) {  // spreadsheets keep rows that were emptied
            TakeCsvLine(table, heading, std::move(cells), number);
        }
    }
}

//   line: the first one.
void ReadAnyCsv(std::string_view line, const std::string& text, PortTable& table) {
    const char declared = SeparatorIn(line);
    const auto separatedBy = [&](char separator) {
        return declared == separator ||
               (declared == '\0' && line.find(separator) != std::string_view::npos);
    };
    if (separatedBy('\t')) {
        ReadCsv<'\t'>(text, table);
    } else if (separatedBy(';')) {
        ReadCsv<';'>(text, table);
    } else {
        ReadCsv<','>(text, table);
    }
}

void ReadJson(const std::string& text, PortTable& table) {
    size_t line = 1;
    JsonReader reader(table, line);
    nlohmann::json::sax_parse(CountingIterator(text.data(), line),
                              CountingIterator(text.data() + text.size(), line), &reader);
}

std::string Cell(const std::string& value) {
    const std::string cell = (IsFormula(value) ? "'" : "") + value;
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    if (cell.empty() || (cell.find_first_of("\",;\r\n") == std::string::npos &&
                         !isBlank(cell.front()) && !isBlank(cell.back()))) {
        return cell;
    }
    std::string quoted = "\"";
    for (const char c : cell) {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + '"';
}

}  // namespace

PortTable ReadPortTable(const std::string& text) {
    PortTable table;
    const size_t start = text.find_first_not_of("\xEF\xBB\xBF \t\r\n");
    if (text.size() > kMaxPortFile) {
        table.problems.push_back("the file is larger than 16 MiB");
    } else if (text.find('\0') != std::string::npos) {
        table.problems.push_back("the file is not UTF-8 text. Save it as UTF-8");
    } else if (start == std::string::npos) {
        table.problems.push_back("the file is empty");
    } else if (text[start] == '[' || text[start] == '{') {
        ReadJson(text, table);
    } else {
        ReadAnyCsv(std::string_view(text).substr(start, text.find('\n', start) - start), text,
                   table);
    }
    return table;
}

std::string ToCsv(const std::vector<PortRow>& rows) {
    const auto line = [](const auto& cellOf) {
        std::string text;
        for (const std::string& column : kPortColumns) {
            text +=
                (text.empty() && column == kPortColumns.front() ? "" : ",") + Cell(cellOf(column));
        }
        return text + "\r\n";
    };
    std::string text = line([](const std::string& column) { return column; });
    for (const PortRow& row : rows) {
        text += line([&row](const std::string& column) {
            const auto value = row.values.find(column);
            return value == row.values.end() ? std::string() : value->second;
        });
    }
    return text;
}
