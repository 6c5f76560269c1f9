// SNMP messages on the wire: the part of BER (X.690) that SNMP uses.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace ber {

using Bytes = std::basic_string<uint8_t>;
using Oid = std::vector<uint32_t>;

constexpr uint8_t kInteger = 0x02;
constexpr uint8_t kOctets = 0x04;
constexpr uint8_t kOid = 0x06;
constexpr uint8_t kSequence = 0x30;

inline Bytes Element(uint8_t tag, const Bytes& content) {
    Bytes element{tag};
    if (content.size() >= 0x80) {
        element += 0x82;
        element += static_cast<uint8_t>(content.size() >> 8);
    }
    element += static_cast<uint8_t>(content.size());
    return element + content;
}

inline Bytes FromInteger(int32_t value) {
    Bytes content;
    do {
        content.insert(content.begin(), static_cast<uint8_t>(value));
        value >>= 8;
    } while (value != (content[0] & 0x80 ? -1 : 0));
    return content;
}

inline Bytes FromOid(const Oid& oid) {
    Bytes content{static_cast<uint8_t>(oid.at(0) * 40 + oid.at(1))};
    for (size_t i = 2; i < oid.size(); ++i) {
        Bytes part{static_cast<uint8_t>(oid[i] & 0x7F)};
        for (uint32_t rest = oid[i] >> 7; rest != 0; rest >>= 7) {
            part.insert(part.begin(), static_cast<uint8_t>(0x80 | (rest & 0x7F)));
        }
        content += part;
    }
    return content;
}

// Takes elements one after the other from bytes of a peer; throws where they are no such thing.
class Cursor {
  public:
    explicit Cursor(const Bytes& bytes) : rest_(bytes) {}

    bool AtEnd() const { return rest_.empty(); }

    // The content of the next element, whichever it is.
    Bytes Take(uint8_t& tag) {
        tag = Byte();
        size_t length = Byte();
        if (length > 0x80) {
            int count = static_cast<int>(length & 0x7F);
            for (length = 0; count > 0; --count) {
                length = length << 8 | Byte();
                Require(length <= rest_.size());
            }
        }
        Require(length <= rest_.size());
        const Bytes content = rest_.substr(0, length);
        rest_.erase(0, length);
        return content;
    }
    Bytes Take(int wanted) {
        uint8_t tag = 0;
        Bytes content = Take(tag);
        Require(tag == wanted);
        return content;
    }

    static int32_t ToInteger(const Bytes& content) {
        Require(!content.empty() && content.size() <= 5);
        uint32_t value = content[0] & 0x80 ? ~0U : 0;
        for (const uint8_t byte : content) {
            value = value << 8 | byte;
        }
        return static_cast<int32_t>(value);
    }
    static Oid ToOid(const Bytes& content) {
        Require(!content.empty() && content.back() < 0x80 && content.size() <= 128);
        Oid oid{content[0] / 40U, content[0] % 40U};
        uint32_t part = 0;
        for (const uint8_t byte : content.substr(1)) {
            part = part << 7 | (byte & 0x7F);
            if (byte < 0x80) {
                oid.push_back(part);
                part = 0;
            }
        }
        return oid;
    }

  private:
    static void Require(bool condition) {
        if (!condition) {
            throw std::runtime_error("not BER");
        }
    }
    uint8_t Byte() {
        Require(!rest_.empty());
        const uint8_t byte = rest_[0];
        rest_.erase(0, 1);
        return byte;
    }

    Bytes rest_;
};

}  // namespace ber
