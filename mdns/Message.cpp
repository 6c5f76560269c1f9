#include "mdns/Message.h"

#include <algorithm>
#include <utility>

#include "base/Ascii.h"
#include "mdns/Limits.h"

namespace mdns {
namespace {

constexpr uint32_t kResponse = 0x8000;
constexpr uint32_t kOpcodeAndError = 0x780F;
constexpr uint32_t kInternet = 1;
constexpr uint32_t kClass = 0x7FFF;         // the top bit of a record's class: flush the cache
constexpr uint32_t kUnicastReply = 0x8000;  // the top bit of a question's class
constexpr uint32_t kPointer = 0xC0;
constexpr size_t kHeader = 12;

// Responders to a query like this one put 10 s into their answers at most (RFC 6762, section 6.7),
// but leave a known answer out only if its TTL is at least half the true one (section 7.1). So the
// recommended TTL of such a record is sent (section 10), not the received one.
constexpr uint32_t kKnownTtl = 75 * 60;

std::string Bytes(size_t value, int size) {
    std::string bytes;
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xFF);
    }
    return bytes;
}

// Reads the data of a record as Record has it. Returns false for a type that is of no use.
bool ReadData(Cursor& in, Record& record) {
    switch (record.type) {
        case Type::Srv:
            in.Bytes(4);  // priority and weight: a printer has one host
            record.data = in.Bytes(2);
            [[fallthrough]];
        case Type::Ptr:
            record.data += in.Name();
            return true;
        case Type::A:
        case Type::Aaaa:
            record.data = in.Bytes(record.type == Type::A ? 4 : 16);
            return true;
        case Type::Txt:
            record.data = Cursor(in).Bytes(in.left());
            while (in.left() > 0) {
                in.Bytes(in.Number(1));
            }
            return true;
    }
    return false;
}

// Reads one record and appends it if it is of use. Returns false if it is malformed.
bool ReadRecord(Cursor& in, std::vector<Record>& records) {
    Record record{in.Name(), static_cast<Type>(in.Number(2)), ""};
    const uint32_t recordClass = in.Number(2) & kClass;
    const uint32_t ttl = in.Number(4);
    Cursor data = in.Part(in.Number(2));
    if (recordClass == kInternet && ReadData(data, record)) {
        if (!data.ok() || data.left() > 0) {
            return false;
        }
        if (ttl > 0) {
            records.push_back(std::move(record));
        }
    }
    return in.ok();
}

}  // namespace

std::string Lower(std::string_view name) {
    return ToLower(std::string(name));  // the length of a label, at most 63, is no letter
}

std::string_view TakeLabel(std::string_view& name) {
    if (name.empty()) {
        return {};
    }
    const size_t size = std::min<size_t>(static_cast<unsigned char>(name[0]), name.size() - 1);
    const std::string_view label = name.substr(1, size);
    name.remove_prefix(1 + size);
    return label;
}

std::string_view Cursor::Bytes(size_t count) {
    if (!ok_ || count > left()) {
        Fail();
        return {};
    }
    at_ += count;
    return message_.substr(at_ - count, count);
}

uint32_t Cursor::Number(size_t size) {
    uint32_t value = 0;
    for (const char byte : Bytes(size)) {
        value = value << 8 | static_cast<unsigned char>(byte);
    }
    return value;
}

std::string Cursor::Name() {
    std::string name;
    Cursor label = *this;  // follows the pointers; *this ends behind the first of them
    size_t earliest = at_;
    bool jumped = false;
    for (int parts = 0; parts <= kMaxNameParts; ++parts) {
        const uint32_t length = label.Number(1);
        if (length >= kPointer) {
            const size_t target = (length - kPointer) << 8 | label.Number(1);
            if (!label.ok_ || target >= earliest) {
                return Fail();
            }
            at_ = std::exchange(jumped, true) ? at_ : label.at_;
            label.at_ = earliest = target;
            continue;
        }
        const std::string_view text = label.Bytes(length);
        if (label.ok_ && length == 0) {
            at_ = jumped ? at_ : label.at_;
            return name;
        }
        if (!label.ok_ || length > kMaxLabel || name.size() + 1 + length > kMaxName) {
            return Fail();
        }
        name += static_cast<char>(length);
        name += text;
    }
    return Fail();
}

Cursor Cursor::Part(size_t count) {
    Cursor part = *this;
    Bytes(count);
    part.end_ = at_;
    part.ok_ = ok_;
    return part;
}

std::string Cursor::Fail() {
    ok_ = false;
    at_ = end_;
    return {};
}

std::optional<std::vector<Record>> ParseResponse(std::string_view message, uint16_t id) {
    Cursor in(message);
    const uint32_t replyTo = in.Number(2);
    const uint32_t flags = in.Number(2);
    const uint32_t questions = in.Number(2);
    const uint32_t records = in.Number(2) + in.Number(2) + in.Number(2);
    // RFC 6762, sections 18.3 and 18.11: a message with another opcode or an error is ignored.
    if (!in.ok() || replyTo != id || (flags & (kResponse | kOpcodeAndError)) != kResponse) {
        return std::nullopt;
    }
    for (uint32_t n = 0; n < questions && in.ok(); ++n) {
        in.Name();
        in.Bytes(4);  // type and class
    }
    std::vector<Record> found;
    for (uint32_t n = 0; n < records; ++n) {
        if (!ReadRecord(in, found)) {
            return std::nullopt;
        }
    }
    return in.ok() ? std::optional(std::move(found)) : std::nullopt;
}

bool QueryWriter::Ask(std::string_view name, Type type) {
    if (kHeader + body_.size() + name.size() + 5 > kMaxQuery) {
        return false;
    }
    names_.push_back(kHeader + body_.size());
    body_ += name;
    body_ +=
        Bytes(0, 1) + Bytes(static_cast<size_t>(type), 2) + Bytes(kUnicastReply | kInternet, 2);
    return true;
}

bool QueryWriter::AddKnown(size_t question, std::string_view label) {
    const std::string name = Bytes(kPointer << 8 | names_[question], 2);
    const std::string data = Bytes(label.size(), 1) + std::string(label) + name;
    const std::string answer = name + Bytes(static_cast<size_t>(Type::Ptr), 2) +
                               Bytes(kInternet, 2) + Bytes(kKnownTtl, 4) + Bytes(data.size(), 2) +
                               data;
    if (kHeader + body_.size() + answer.size() > kMaxQuery) {
        return false;
    }
    body_ += answer;
    ++known_;
    return true;
}

std::string QueryWriter::Message() const {
    return Bytes(id_, 2) + Bytes(0, 2) + Bytes(names_.size(), 2) + Bytes(known_, 2) + Bytes(0, 4) +
           body_;
}

}  // namespace mdns
