// Responses as printers send them, for the tests of this folder.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "mdns/Message.h"

inline std::string Number(size_t value, int size) {
    std::string bytes;
    while (size-- > 0) {
        bytes += static_cast<char>(value >> 8 * size & 0xFF);
    }
    return bytes;
}

// A label or a string of a TXT record; a name in a message ends with Label("").
inline std::string Label(std::string_view text) {
    return Number(text.size(), 1) + std::string(text);
}

// The name of labels that are separated by dots, as mdns::Record has it.
inline std::string NameOf(std::string_view dotted) {
    std::string name;
    for (size_t dot = 0; !dotted.empty(); dotted.remove_prefix(dot)) {
        dot = dotted.find('.');
        name += Label(dotted.substr(0, dot));
        dot = dot == dotted.npos ? dotted.size() : dot + 1;
    }
    return name;
}

// One record of a message. The owner's name comes as bytes, so that it may be a wrong one.
inline std::string RawRecord(const std::string& name, unsigned type, const std::string& data,
                             unsigned ttl = 10, unsigned recordClass = 1) {
    return name + Number(type, 2) + Number(recordClass, 2) + Number(ttl, 4) +
           Number(data.size(), 2) + data;
}

inline std::string Pointer(std::string_view service, std::string_view instance) {
    return RawRecord(NameOf(service) + Label(""), 12,
                     Label(instance) + NameOf(service) + Label(""));
}

inline std::string Target(unsigned port, std::string_view host) {
    return Number(0, 4) + Number(port, 2) + NameOf(host) + Label("");
}

inline std::string Location(std::string_view service, std::string_view instance, unsigned port,
                            std::string_view host) {
    return RawRecord(Label(instance) + NameOf(service) + Label(""), 33, Target(port, host));
}

inline std::string Texts(std::string_view service, std::string_view instance,
                         std::initializer_list<std::string_view> texts) {
    std::string data;
    for (const std::string_view text : texts) {
        data += Label(text);
    }
    return RawRecord(Label(instance) + NameOf(service) + Label(""), 16, data);
}

inline std::string Address(std::string_view host, const std::string& bytes) {
    return RawRecord(NameOf(host) + Label(""), bytes.size() == 4 ? 1 : 28, bytes);
}

inline std::string Response(uint16_t id, std::initializer_list<std::string> records) {
    std::string message =
        Number(id, 2) + Number(0x8400, 2) + Number(0, 2) + Number(records.size(), 2) + Number(0, 4);
    for (const std::string& record : records) {
        message += record;
    }
    return message;
}
