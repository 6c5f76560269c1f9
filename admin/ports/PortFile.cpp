#include "admin/ports/PortFile.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <optional>

#include "address/AddressText.h"
#include "base/Ascii.h"
#include "base/CommandFailed.h"
#include "admin/ports/Following.h"
#include "base/Text.h"
#include "admin/ports/PortJson.h"

namespace {

// Bytes: more than any setting has, and not too many for a message.
constexpr size_t kLongestValue = 512;

// In lower case.
bool IsYes(const std::string& text) {
    return text == "yes" || text == "true" || text == "1";
}
bool IsNo(const std::string& text) {
    return text == "no" || text == "false" || text == "0";
}

// Reads the cells of one row, each checked; what is wrong is noted.
class RowReader {
  public:
    RowReader(const PortRow& row, std::vector<std::string>& problems)
        : row_(row), problems_(problems) {}

    void Problem(const std::string& column, const std::string& text) {
        problems_.push_back("line " + std::to_string(row_.line) + ": " + column + " " + text);
    }

    // The cell's text as it is stored; none where it is empty.
    std::optional<std::string> Text(const char* column, std::string (*check)(std::string&)) {
        const auto cell = row_.values.find(column);
        if (cell == row_.values.end() || cell->second.empty()) {
            return std::nullopt;
        }
        std::string text = cell->second;
        if (text.size() > kLongestValue) {
            Problem(column, "is too long");
            return std::nullopt;
        }
        if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(),
                                static_cast<int>(text.size()), nullptr, 0) == 0) {
            Problem(column, "is not UTF-8 text. Save the file as UTF-8");
            return std::nullopt;
        }
        if (const std::string problem = check(text); !problem.empty()) {
            Problem(column, problem);
            return std::nullopt;
        }
        return text;
    }

    std::optional<DWORD> Number(const char* column, std::string (*check)(std::string&)) {
        const auto text = Text(column, check);
        return text ? std::optional<DWORD>(std::stoul(*text)) : std::nullopt;
    }

    std::optional<bool> Truth(const char* column) {
        const auto text = Text(column, [](std::string& cell) {
            cell = ToLower(cell);
            return IsYes(cell) || IsNo(cell) ? "" : "is '" + cell + "', not yes or no";
        });
        return text ? std::optional(IsYes(*text)) : std::nullopt;
    }

    bool IsEmpty(const char* column) const {
        const auto cell = row_.values.find(column);
        return cell != row_.values.end() && cell->second.empty();
    }

  private:
    const PortRow& row_;
    std::vector<std::string>& problems_;
};

std::string CheckProtocol(std::string& text) {
    text = ToLower(text);
    return text == "raw" || text == "lpr" ? "" : "is '" + text + "', not raw or lpr";
}

// An IPv4 address, or a host name to resolve.
std::string CheckAddress(std::string& text) {
    const bool isNumber = text.find_first_not_of("0123456789.") == std::string::npos;
    const bool isName = !isNumber && text.find(':') == std::string::npos;
    return isName ? CheckIPv6Host(text) : CheckIPv4Address(text);
}

// yes, no, or a host.
std::string CheckFollow(std::string& text) {
    if (const std::string lower = ToLower(text); IsYes(lower) || IsNo(lower)) {
        text = lower;
        return {};
    }
    return CheckIPv6Host(text).empty() || CheckIPv4Address(text).empty()
               ? ""
               : "is '" + text + "', not yes, no, an address or a host name";
}

// A device index of 0 is that of a port without SNMP.
std::string CheckIndexOrNone(std::string& text) {
    return text == "0" ? "" : CheckSnmpIndex(text);
}

void ReadSnmp(RowReader& reader, PortChange& change) {
    change.snmpCommunity = reader.Text("snmp/community", CheckCommunity);
    change.snmpIndex = reader.Number("snmp/index", CheckIndexOrNone);
    change.noSnmp = !reader.Truth("snmp/enabled").value_or(true);
    if (change.snmpIndex == 0u || (change.noSnmp && !change.snmpCommunity)) {
        change.snmpIndex.reset();
    }
}

std::string ColumnOf(PortSetting setting) {
    switch (setting) {
        case PortSetting::Address:
            return "address";
        case PortSetting::Queue:
            return "queue";
        case PortSetting::DoubleSpool:
            return "doubleSpool";
        case PortSetting::SnmpIndex:
            return "snmp/index";
        case PortSetting::AlwaysPrint:
            return "alwaysPrint";
    }
    return {};
}

// Both addresses may be given, and which one is used.
void ChooseAddress(RowReader& reader, const PortChange& change, std::optional<bool> useIPv6,
                   PortRecords& records) {
    if (useIPv6 || (change.address && change.ipv6)) {
        records.extended.dwUseIPV6 = useIPv6.value_or(false);
    }
    if (AddressInUse(records).empty()) {
        reader.Problem(records.extended.dwUseIPV6 != 0 ? "ipv6Host" : "address", "is missing");
    }
}

PortChange ReadChange(RowReader& reader) {
    PortChange change;
    change.protocol = reader.Text("protocol", CheckProtocol);
    change.address = reader.Text("address", CheckAddress);
    change.ipv6 = reader.Text("ipv6Host", CheckIPv6Host);
    reader.Truth("useIPv6");
    change.portNumber = reader.Number("portNumber", CheckPortNumber);
    change.queue = reader.Text("queue", CheckQueue);
    change.doubleSpool = reader.Truth("doubleSpool");
    change.hostName = reader.Text("hostName", CheckHostName);
    change.mac = reader.Text("mac", CheckMacAddress);
    change.alwaysPrint = reader.Truth("alwaysPrint");
    ReadSnmp(reader, change);
    return change;
}

// Refuses an empty cell that would seem to clear a key by which the printer is found.
void CheckEmptyKeys(RowReader& reader, const PortRecords& records) {
    if (const std::string mac = FieldText(records.extended.sztHWAddress);
        reader.IsEmpty("mac") && !mac.empty()) {
        reader.Problem("mac", "is empty, but the port has " + mac + ". Write none to clear it");
    }
    // The monitor keeps the name, and would search for the printer that has it.
    if (const std::string name = FieldText(records.standard.sztHostAddress);
        reader.IsEmpty("hostName") && !name.empty()) {
        reader.Problem("hostName", "is empty, but the port would keep " + name +
                                       ". Delete the port first to clear it");
    }
}

}  // namespace

PortRow ToRow(const std::wstring& name, const PortRecords& records) {
    const nlohmann::json port = ToJson(name, records).flatten();
    PortRow row;
    for (const std::string& column : kPortColumns) {
        const nlohmann::json& value = port.at("/" + column);
        row.values[column] = value.is_boolean()  ? value.get<bool>() ? "yes" : "no"
                             : value.is_string() ? value.get<std::string>()
                                                 : value.dump();
    }
    if (records.standard.dwProtocol == 0) {
        row.values["protocol"].clear();
    }
    // Spreadsheets take twelve digits for a number.
    std::string& mac = row.values["mac"];
    for (size_t at = 2; at < mac.size(); at += 3) {
        mac.insert(at, 1, '-');
    }
    return row;
}

std::string NameOf(const PortRow& row, std::vector<std::string>& problems) {
    RowReader reader(row, problems);
    const size_t before = problems.size();
    const auto name = reader.Text("name", CheckPortName);
    if (!name && problems.size() == before) {
        reader.Problem("name", "is missing");
    }
    return name.value_or("");
}

RowLookup LookupFor(const PortRow& row, const PortRecords& before,
                    std::vector<std::string>& problems) {
    RowReader reader(row, problems);
    std::vector<std::string> reportedByApply;
    RowReader addresses(row, reportedByApply);
    RowLookup lookup;
    const auto address = addresses.Text("address", CheckAddress);
    if (address && !IsIPv4AddressText(*address)) {
        lookup.hostName = *address;
    }
    const auto follow = reader.Text(kFollowColumn, CheckFollow);
    if (!follow || IsNo(*follow)) {
        return lookup;
    }
    if (!RowReader(row, reportedByApply).Truth("configured").value_or(true)) {
        reader.Problem(kFollowColumn, "is not possible for a port that is not configured");
    }
    lookup.keepsAddress = IsYes(*follow);
    lookup.printer = !lookup.keepsAddress ? *follow
                     : address
                         ? *address
                         : addresses.Text("ipv6Host", CheckIPv6Host).value_or(AddressInUse(before));
    if (lookup.printer.empty()) {
        reader.Problem(kFollowColumn, "needs an address or a host name");
    }
    return lookup;
}

void Apply(const PortRow& row, PortRecords& records, std::vector<std::string>& problems,
           const RowLookup& lookup) {
    RowReader reader(row, problems);
    const size_t before = problems.size();
    if (!reader.Truth("configured").value_or(true)) {
        return;
    }
    PortChange change = ReadChange(reader);
    if (problems.size() != before) {
        return;
    }
    if (lookup.address) {
        change.address = lookup.address;
    }
    // A RAW port may remember the queue of a time when it was an LPR port.
    if (change.protocol.value_or(ProtocolName(records.standard.dwProtocol)) == "raw") {
        change.queue.reset();
    }
    try {
        if (lookup.identity) {
            (lookup.keepsAddress ? FollowInPlace : Follow)(*lookup.identity, records, change);
        }
        Apply(change, records);
        ChooseAddress(reader, change, reader.Truth("useIPv6"), records);
    } catch (const SettingsClash& clash) {
        reader.Problem(ColumnOf(clash.setting), clash.what());
    } catch (const CommandFailed& failed) {
        reader.Problem(kFollowColumn, std::string("is not possible: ") + failed.what());
    }
    if (reader.Truth("snmp/enabled").value_or(false) && records.standard.dwSNMPEnabled == 0) {
        reader.Problem("snmp/enabled", "needs a community in snmp/community");
    }
    if (!lookup.identity) {
        CheckEmptyKeys(reader, records);
    }
}
