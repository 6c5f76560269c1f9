// Messages of multicast DNS (RFC 6762, section 18; RFC 1035, section 4), read with one cursor that
// cannot run past its end. Portable: knows neither sockets nor Windows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mdns {

// The record types that a search needs (RFC 1035, 3.2.2; RFC 3596, 2.1; RFC 2782).
enum class Type : uint16_t { A = 1, Ptr = 12, Txt = 16, Aaaa = 28, Srv = 33 };

// Names are kept as in a message, without compression and the closing zero byte: each label behind
// its length. A label may hold any byte, a dot or zero included.

// Returns the name in lower case, by which names are compared (RFC 6762, section 16: ASCII only).
std::string Lower(std::string_view name);
// Removes the first label of a name and returns it.
std::string_view TakeLabel(std::string_view& name);

// A record of the Internet class. `data` depends on the type: A and AAAA the address in network
// order; PTR a name; SRV the port in two bytes, then the target's name; TXT the strings, each
// behind its length, all of them whole.
struct Record {
    std::string name;
    Type type;
    std::string data;
};

// Reads forward through a part of a message. The first read that asks for more than is left fails;
// from then on every read gives zero or an empty text.
class Cursor {
  public:
    explicit Cursor(std::string_view message) : message_(message), end_(message.size()) {}

    bool ok() const { return ok_; }
    size_t left() const { return end_ - at_; }

    // The next `count` bytes.
    std::string_view Bytes(size_t count);
    // A big-endian number of `size` bytes (1 to 4).
    uint32_t Number(size_t size);
    // A name. Compression pointers must lead backwards (RFC 1035, section 4.1.4). Fails if it
    // exceeds the limits of a name.
    std::string Name();
    // A cursor for the next `count` bytes alone. Names in it may refer to all that comes before.
    Cursor Part(size_t count);

  private:
    std::string Fail();

    std::string_view message_;
    size_t at_ = 0;
    size_t end_;
    bool ok_ = true;
};

// Reads a response to the query with this identifier. Returns the records of the types above, in
// their order, from all sections; records that the responder withdraws (TTL 0) are left out.
// Returns nothing if it is no such response, reports an error, or is malformed anywhere.
std::optional<std::vector<Record>> ParseResponse(std::string_view message, uint16_t id);

// Puts a query together (RFC 6762, sections 5.4 and 7.1). Questions come before known answers.
class QueryWriter {
  public:
    explicit QueryWriter(uint16_t id) : id_(id) {}

    // Adds a question for a name, which may be answered by unicast. Returns false, and adds
    // nothing, if the message would exceed kMaxQuery.
    bool Ask(std::string_view name, Type type);
    // Adds the PTR record from the name of question number `question` to that name with one more
    // label in front, as an answer that responders need not repeat. Returns false as Ask does.
    bool AddKnown(size_t question, std::string_view label);
    // Returns the message with its header.
    std::string Message() const;

  private:
    uint16_t id_;
    std::string body_;           // what follows the header
    std::vector<size_t> names_;  // where in the message the names of the questions begin
    size_t known_ = 0;
};

}  // namespace mdns
