// Attribute replies as agents put them together, for tests that play the agent.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

inline std::string BigEndian(size_t value, int size) {
    std::string bytes;
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xFF);
    }
    return bytes;
}

inline std::string Text(std::string_view text) {
    return BigEndian(text.size(), 2) + std::string(text);
}

// A message of either version with a body of the test's own.
inline std::string Reply(unsigned version, uint16_t xid, const std::string& body,
                         unsigned flags = 0, unsigned function = 7) {
    if (version == 1) {
        return BigEndian(1, 1) + BigEndian(function, 1) + BigEndian(12 + body.size(), 2) +
               BigEndian(flags, 1) + BigEndian(0, 1) + "en" + BigEndian(106, 2) +
               BigEndian(xid, 2) + body;
    }
    return BigEndian(2, 1) + BigEndian(function, 1) + BigEndian(16 + body.size(), 3) +
           BigEndian(flags, 2) + BigEndian(0, 3) + BigEndian(xid, 2) + Text("en") + body;
}

inline std::string AttributeBody(unsigned version, std::string_view list, unsigned error = 0) {
    return BigEndian(error, 2) + Text(list) + (version == 2 ? BigEndian(0, 1) : "");
}

inline std::string ListReply(unsigned version, uint16_t xid, std::string_view list) {
    return Reply(version, xid, AttributeBody(version, list));
}

inline std::string ErrorReply(unsigned version, uint16_t xid, unsigned error) {
    return Reply(version, xid, BigEndian(error, 2));
}

inline std::string OverflowReply(unsigned version, uint16_t xid) {
    return Reply(version, xid, AttributeBody(version, "(cut=off"), version == 1 ? 0x80 : 0x8000);
}
