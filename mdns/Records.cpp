#include "mdns/Records.h"

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else  // the fuzz targets
#include <arpa/inet.h>
#endif

#include <algorithm>

namespace mdns {
namespace {

constexpr std::array<std::string_view, 5> kKeys{"rp", "ty", "product", "adminurl", "uuid"};
constexpr std::string_view kLocal = "\x05local";  // RFC 6762, section 3

// Whether a port can store this address and one host can have it. Link-local addresses of IPv6 say
// nothing without the interface. ::/8 has the unspecified, loopback and IPv4-mapped addresses.
bool IsHostAddress(std::string_view data) {
    const auto first = static_cast<unsigned char>(data[0]);
    const auto second = static_cast<unsigned char>(data[1]);
    if (data.size() == 4) {
        return first != 0 && first != 127 && first < 224;
    }
    return first != 0 && first != 0xFF && !(first == 0xFE && (second & 0xC0) == 0x80);
}

// The key of a string in TXT data, in lower case.
std::string KeyOf(std::string_view text) {
    return Lower(text.substr(0, text.find('=')));
}

std::string FirstOfEachKey(std::string_view data) {
    std::string reduced;
    for (const std::string_view key : kKeys) {
        for (std::string_view rest = data; !rest.empty();) {
            const std::string_view text = TakeLabel(rest);  // a length and bytes, like a label
            if (KeyOf(text) == key) {
                reduced += static_cast<char>(text.size());
                reduced += text;
                break;
            }
        }
    }
    return reduced;
}

}  // namespace

bool Reduce(Record& record) {
    record.name = Lower(record.name);
    if (!record.name.ends_with(kLocal)) {
        return false;
    }
    std::string_view service = record.data;
    switch (record.type) {
        case Type::Ptr:
            TakeLabel(service);
            return Lower(service) == record.name &&
                   std::ranges::find(kServiceNames, record.name) != kServiceNames.end();
        case Type::Srv:
            return Lower(record.data).ends_with(kLocal);
        case Type::Txt:
            record.data = FirstOfEachKey(record.data);
            return true;
        case Type::A:
        case Type::Aaaa:
            return IsHostAddress(record.data);
    }
    return false;
}

std::string TextValue(std::string_view data, std::string_view key) {
    while (!data.empty()) {
        const std::string_view text = TakeLabel(data);
        if (KeyOf(text) == key) {
            return LabelText(text.substr(std::min(key.size() + 1, text.size())));
        }
    }
    return {};
}

std::string LabelText(std::string_view label) {
    return IsClean(label) ? std::string(label) : std::string();
}

std::string HostText(std::string_view name) {
    std::string text;
    while (!name.empty()) {
        const std::string_view label = TakeLabel(name);
        if (!IsClean(label) || label.find_first_of(". ") != label.npos) {
            return {};
        }
        text += text.empty() ? "" : ".";
        text += label;
    }
    return text;
}

std::string AddressText(std::string_view data) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(data.size() == 4 ? AF_INET : AF_INET6, data.data(), text, sizeof text);
    return text;
}

bool IsClean(std::string_view text) {
    while (!text.empty()) {
        const auto lead = static_cast<unsigned char>(text[0]);
        const size_t size = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        if (size > text.size() || (lead >= 0x80 && lead < 0xC2) || lead > 0xF4) {
            return false;
        }
        uint32_t character = size == 1 ? lead : lead & 0x7Fu >> size;
        for (const char next : text.substr(1, size - 1)) {
            if ((static_cast<unsigned char>(next) & 0xC0) != 0x80) {
                return false;
            }
            character = character << 6 | (next & 0x3Fu);
        }
        constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
        const auto isIn = [&](uint32_t from, uint32_t to) {
            return character >= from && character <= to;
        };
        if (character < kSmallest[size] || character > 0x10FFFF || isIn(0xD800, 0xDFFF) ||
            isIn(0, 0x1F) || isIn(0x7F, 0x9F) || isIn(0x200E, 0x200F) || isIn(0x2028, 0x202E) ||
            isIn(0x2066, 0x2069)) {
            return false;
        }
        text.remove_prefix(size);
    }
    return true;
}

}  // namespace mdns
