#include "admin/ports/PortEditing.h"

#include <algorithm>

#include "admin/ports/PortStore.h"
#include "base/CommandFailed.h"
#include "base/Text.h"

void RequireAdministrator(SpoolerChannel& channel) {
    // The spooler checks the account's rights before the monitor gets the command.
    WCHAR library[64] = {};
    if (channel.Xcv(L"MonitorUI", nullptr, 0, library, sizeof(library)) == ERROR_ACCESS_DENIED) {
        throw CommandFailed(ErrorText(ERROR_ACCESS_DENIED), Remedy::RunAsAdministrator);
    }
}

std::string CheckHost(std::string& text) {
    const bool dotted = text.find_first_not_of("0123456789.") == std::string::npos;
    return dotted ? CheckIPv4Address(text) : CheckIPv6Host(text);
}

PORT_DATA_1 DefaultSettings(const std::string& protocol) {
    PortRecords records;
    PortChange change;
    change.address = "127.0.0.1";
    change.protocol = protocol;
    Apply(change, records);
    return records.standard;
}

PrinterIdentity StoredPrinter(const PortRecords& records) {
    return {AddressInUse(records), FieldText(records.extended.sztHWAddress),
            FieldText(records.standard.sztHostAddress)};
}

bool IsStoredPrinter(const PortRecords& records, const PrinterIdentity& printer) {
    const PrinterIdentity stored = StoredPrinter(records);
    if (!stored.mac.empty() && !printer.mac.empty()) {
        return stored.mac == printer.mac;
    }
    return !stored.hostName.empty() &&
           SameName(Utf8ToWide(stored.hostName), Utf8ToWide(printer.hostName));
}

std::wstring SuggestPortName(const std::vector<std::wstring>& candidates,
                             const std::vector<std::wstring>& taken) {
    const auto isFree = [&taken](const std::wstring& name) {
        return std::none_of(taken.begin(), taken.end(),
                            [&name](const std::wstring& other) { return SameName(name, other); });
    };
    for (const std::wstring& candidate : candidates) {
        std::wstring name = candidate;
        for (size_t number = 2; number <= taken.size() + 2; ++number) {
            std::string checked = WideToUtf8(name);
            if (!CheckPortName(checked).empty()) {
                break;
            }
            if (isFree(name)) {
                return name;
            }
            name = candidate + L" (" + std::to_wstring(number) + L")";
        }
    }
    return {};
}

void DeleteUnusedPort(SpoolerChannel& channel, const std::wstring& name) {
    const std::wstring port = FindPort(channel, name);
    if (!QueuesOn(channel.Queues(), port).empty()) {
        throw CommandFailed("printers use port " + WideToUtf8(port), Remedy::MovePrinter);
    }
    DeletePort(channel, port);
}
