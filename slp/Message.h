// The messages of the Service Location Protocol that an attribute request needs, version 2
// (RFC 2608) and version 1 (RFC 2165), and the cursor that everything from outside is read with.
// Portable: knows neither sockets nor Windows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace slp {

// A message's first bytes that tell its version and whole length.
inline constexpr size_t kLengthPrefix = 5;

// Reads forward through bytes that it does not own and never past their end. The first read that
// asks for more than is left fails; from then on every read gives zero or an empty text.
class Cursor {
  public:
    explicit Cursor(std::string_view bytes) : bytes_(bytes) {}

    bool ok() const { return ok_; }
    size_t left() const { return bytes_.size(); }
    // The character that the next read begins with, zero at the end.
    char Next() const { return bytes_.empty() ? '\0' : bytes_.front(); }

    // The next `count` bytes.
    std::string_view Bytes(size_t count);
    // A big-endian number of `size` bytes (1 to 4).
    uint32_t Number(size_t size);
    // A text behind its 16-bit length.
    std::string_view Text() { return Bytes(Number(2)); }
    // Everything before the first of the characters `stops`, or the rest if none follows.
    std::string_view Until(std::string_view stops);

  private:
    std::string_view bytes_;
    bool ok_ = true;
};

// What an attribute request says (RFC 2608, section 10.3; RFC 2165, section 13).
struct AttributeRequest {
    unsigned version = 2;    // 1 or 2
    uint16_t xid = 1;        // never 0
    std::string language;    // version 1: two letters
    bool multicast = false;  // version 2 tells the agents
    std::string responders;  // comma-separated numeric addresses
    std::string service;     // URL or service type
    std::string scopes;
    std::string attributeIds;
};

// The bytes of a request. The last responders are left out until it fits into kMaxRequest
// (Limits.h); nothing when it does not fit without any.
std::optional<std::string> Encode(const AttributeRequest& request);

struct AttributeReply {
    bool overflow = false;        // cut short by the datagram; the rest is then empty
    unsigned error = 0;           // the agent's error code (RFC 2608, section 7)
    std::string_view attributes;  // part of the message; holds no zero byte
};

// Reads a whole datagram, or a whole message from a stream, as the reply to the request with
// this version and transaction id. Nothing when it is not that: another version, function or
// transaction, a length that is not the message's own, a field that runs past the end, an
// attribute list with a zero byte in it.
// Only a datagram can be marked as cut short; it may then say the length that it would have had.
enum class Carrier { Datagram, Stream };
std::optional<AttributeReply> DecodeReply(std::string_view message, unsigned version, uint16_t xid,
                                          Carrier carrier);

// Puts one message together from the pieces in which a stream brings it, and never wants a byte
// more than the message has.
class StreamMessage {
  public:
    // How many bytes to read next at most; 0 when the message is whole.
    size_t Wanted() const;
    // Adds at most Wanted() bytes. False when no acceptable message can come of them: another
    // version than 1 or 2, a length that no message has or above kMaxReply.
    bool Add(std::string_view bytes);
    // What has come so far.
    std::string_view bytes() const { return bytes_; }

  private:
    std::string bytes_;
    size_t length_ = 0;  // 0 until it is known
};

}  // namespace slp
