#include "admin/ports/PortSettings.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <iterator>
#include <string_view>
#include <tuple>

#include "address/AddressText.h"
#include "base/Text.h"
#include "monitor/PortText.h"

namespace {

constexpr DWORD kRawPortNumber = 9100;
constexpr DWORD kLprPortNumber = 515;

template <size_t Size>
constexpr size_t Room(const WCHAR (&)[Size]) {
    return Size - 1;
}
constexpr PortRecords kEmpty;
constexpr size_t kPortNameRoom = Room(kEmpty.standard.sztPortName);

template <size_t Size>
void SetField(WCHAR (&field)[Size], const std::string& text) {
    const std::wstring wide = Utf8ToWide(text);
    std::fill(std::begin(field), std::end(field), L'\0');
    wide.copy(field, Room(field));
}

constexpr char kHostNameCharacters[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._";

// Printable ASCII without blanks: what goes over the wire as one word.
std::string CheckWord(const std::string& text, size_t room) {
    std::string problem = CheckStoredText(text, room);
    if (problem.empty() && std::any_of(text.begin(), text.end(),
                                       [](unsigned char c) { return c <= ' ' || c > '~'; })) {
        problem = "must consist of printable ASCII characters without blanks";
    }
    return problem;
}

// Plain decimal: some readers of numbers take 010 for 8 and 0x1F for 31.
std::string CheckNumber(const std::string& text, const std::string& what) {
    const bool plain = !text.empty() && text.size() <= 5 && text[0] != '0' &&
                       text.find_first_not_of("0123456789") == std::string::npos;
    return plain && std::stoul(text) <= 65535
               ? ""
               : "'" + text + "' is not a " + what + " from 1 to 65535";
}

constexpr char kNotClearable[] = "cannot be cleared";

static_assert(kHostNameRoom == Room(kEmpty.standard.sztHostAddress));

DWORD UsualPortNumber(DWORD protocol) {
    return protocol == kProtocolLpr ? kLprPortNumber : kRawPortNumber;
}

void ApplyAddress(const PortChange& change, PortRecords& records) {
    if (change.address) {
        SetField(records.standard.sztIPAddress, *change.address);
        records.extended.dwUseIPV6 = FALSE;
    }
    if (change.ipv6) {
        SetField(records.extended.sztIPv6HostName, *change.ipv6);
        records.extended.dwUseIPV6 = TRUE;
    }
    if (AddressInUse(records).empty()) {
        throw SettingsClash(PortSetting::Address, "is missing");
    }
}

void ApplyProtocol(const PortChange& change, PORT_DATA_1& port) {
    const DWORD before = port.dwProtocol;
    if (change.protocol) {
        port.dwProtocol = *change.protocol == "lpr" ? kProtocolLpr : kProtocolRaw;
    } else if (before == 0) {
        port.dwProtocol = kProtocolRaw;
    }

    if (change.portNumber) {
        port.dwPortNumber = *change.portNumber;
    } else if (port.dwPortNumber == 0 ||
               (before != port.dwProtocol && port.dwPortNumber == UsualPortNumber(before))) {
        port.dwPortNumber = UsualPortNumber(port.dwProtocol);
    }

    if (port.dwProtocol == kProtocolLpr) {
        if (change.queue) {
            SetField(port.sztQueue, *change.queue);
        } else if (port.sztQueue[0] == L'\0') {
            SetField(port.sztQueue, "lp");
        }
        port.dwDoubleSpool = change.doubleSpool.value_or(port.dwDoubleSpool != 0);
        return;
    }
    if (change.queue) {
        throw SettingsClash(PortSetting::Queue, "belongs to LPR");
    }
    if (change.doubleSpool.value_or(false)) {
        throw SettingsClash(PortSetting::DoubleSpool, "belongs to LPR");
    }
    port.dwDoubleSpool = FALSE;
}

void ApplySnmp(const PortChange& change, PORT_DATA_1& port) {
    if (change.snmpCommunity) {
        SetField(port.sztSNMPCommunity, *change.snmpCommunity);
        port.dwSNMPEnabled = TRUE;
    }
    if (change.snmpIndex) {
        if (port.dwSNMPEnabled == 0) {
            throw SettingsClash(PortSetting::SnmpIndex, "goes with an SNMP community");
        }
        port.dwSNMPDevIndex = *change.snmpIndex;
    } else if (port.dwSNMPEnabled != 0 && port.dwSNMPDevIndex == 0) {
        port.dwSNMPDevIndex = 1;
    }
    if (change.noSnmp) {
        port.dwSNMPEnabled = FALSE;
    }
}

}  // namespace

bool IsReservedPortName(const std::string& name) {
    return IsSpoolerPseudoPort(Utf8ToWide(name).c_str());
}

std::string CheckPortName(std::string& text) {
    if (std::string problem = CheckStoredText(text, kPortNameRoom); !problem.empty()) {
        return problem;
    }
    if (text.front() == ' ' || text.back() == ' ') {
        return "must not begin or end with a blank";
    }
    if (text.find('\\') != std::string::npos) {
        return "must not contain a backslash, because it becomes the name of a registry key";
    }
    if (text.find(',') != std::string::npos) {
        return "must not contain a comma, because the spooler separates ports by commas";
    }
    if (IsReservedPortName(text)) {
        return "is a name of the spooler's own network ports, which the monitor skips when it "
               "starts";
    }
    return {};
}

std::string CheckIPv4Address(std::string& text) {
    if (text == "none") {
        return kNotClearable + std::string(". A port needs an address");
    }
    const std::string example = ". Use, for example, 192.168.1.20";
    if (IsIPv6AddressText(text)) {
        return "'" + text + "' is an IPv6 address, not an IPv4 one";
    }
    if (!IsIPv4AddressText(text)) {
        return "'" + text + "' is not an IPv4 address" + example;
    }
    if (const size_t colon = text.find(':'); colon != std::string::npos) {
        return "takes the address alone, without the port number " + text.substr(colon + 1);
    }
    // Some resolvers read 010 as 8.
    const std::string dotted = "." + text;
    for (size_t zero = dotted.find(".0"); zero != std::string::npos;
         zero = dotted.find(".0", zero + 1)) {
        if (zero + 2 < dotted.size() && dotted[zero + 2] != '.') {
            return "'" + text + "' has a number with a leading zero" + example;
        }
    }
    if (const int first = std::stoi(text); first == 0 || first >= 224) {
        return "'" + text + "' is not the address of a host" + example;
    }
    return {};
}

std::string CheckIPv6Host(std::string& text) {
    if (std::string problem = CheckStoredText(text, Room(kEmpty.extended.sztIPv6HostName));
        !problem.empty()) {
        return problem;
    }
    if (text == "none") {
        return kNotClearable + std::string(". Set an IPv4 address to use that instead");
    }
    if (text.find(':') == std::string::npos) {
        if (IsIPv4AddressText(text)) {
            return "'" + text + "' is an IPv4 address, not an IPv6 one";
        }
        if (text.find_first_not_of(kHostNameCharacters) != std::string::npos) {
            return "'" + text + "' is neither an IPv6 address nor a host name";
        }
        return {};
    }
    if (text.front() == '[') {
        return "takes the address alone, without brackets and without a port number";
    }
    if (!IsIPv6AddressText(text) || text.find('/') != std::string::npos) {
        return "'" + text + "' is not an IPv6 address. Use, for example, fd00::20 or fe80::20%3";
    }
    in6_addr bytes = {};
    const std::string plain = text.substr(0, text.find('%'));
    if (inet_pton(AF_INET6, plain.c_str(), &bytes) == 1 &&
        (IN6_IS_ADDR_UNSPECIFIED(&bytes) || IN6_IS_ADDR_MULTICAST(&bytes))) {
        return "'" + text +
               "' is not the address of a host. Use, for example, fd00::20 or fe80::20%3";
    }
    return {};
}

std::string CheckPortNumber(std::string& text) {
    return CheckNumber(text, "TCP port");
}

std::string CheckSnmpIndex(std::string& text) {
    return CheckNumber(text, "device index");
}

std::string CheckQueue(std::string& text) {
    if (text == "none") {
        return kNotClearable + std::string(". The usual queue is lp");
    }
    return CheckWord(text, Room(kEmpty.standard.sztQueue));
}

std::string CheckCommunity(std::string& text) {
    if (text == "none") {
        return kNotClearable + std::string(". Turn SNMP status off instead");
    }
    return CheckWord(text, Room(kEmpty.standard.sztSNMPCommunity));
}

void Apply(const PortChange& change, PortRecords& records) {
    PORT_DATA_1& standard = records.standard;
    PortDataEx& extended = records.extended;
    if (standard.dwVersion == 0) {
        standard.dwVersion = 1;
    }
    standard.cbSize = sizeof(standard);
    ApplyAddress(change, records);
    ApplyProtocol(change, standard);
    ApplySnmp(change, standard);
    if (change.hostName) {
        SetField(standard.sztHostAddress, *change.hostName);
    }
    if (change.mac) {
        SetField(extended.sztHWAddress, *change.mac);
    }
    extended.dwAlwaysPrint = change.alwaysPrint.value_or(extended.dwAlwaysPrint != 0);
    if ((change.alwaysPrint || change.mac) && extended.dwAlwaysPrint != 0 &&
        extended.sztHWAddress[0] == L'\0' && standard.sztHostAddress[0] == L'\0') {
        throw SettingsClash(PortSetting::AlwaysPrint,
                            "needs a MAC address or a host name to find the printer");
    }
}

bool SameSettings(const PortRecords& one, const PortRecords& other) {
    const auto settings = [](const PortRecords& records) {
        const auto& [standard, extended] = records;
        return std::tuple(standard.dwProtocol, FieldText(standard.sztIPAddress),
                          FieldText(extended.sztIPv6HostName), extended.dwUseIPV6 != 0,
                          standard.dwPortNumber, FieldText(standard.sztQueue),
                          standard.dwDoubleSpool != 0, FieldText(standard.sztHostAddress),
                          FieldText(extended.sztHWAddress), extended.dwAlwaysPrint != 0,
                          standard.dwSNMPEnabled != 0, FieldText(standard.sztSNMPCommunity),
                          standard.dwSNMPDevIndex);
    };
    return settings(one) == settings(other);
}
