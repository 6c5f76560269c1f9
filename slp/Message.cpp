#include "slp/Message.h"

#include <algorithm>
#include <utility>

#include "slp/Limits.h"

namespace slp {
namespace {

constexpr unsigned kAttributeRequest = 6;
constexpr unsigned kAttributeReply = 7;

constexpr unsigned kOverflow1 = 0x80;
constexpr unsigned kOverflow2 = 0x8000;
constexpr unsigned kMulticast2 = 0x2000;

constexpr unsigned kUtf8 = 106;  // IANA's number of the character set

class Writer {
  public:
    void Number(size_t value, int size) {
        for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
            bytes_ += static_cast<char>(value >> shift & 0xFF);
        }
    }
    void Bytes(std::string_view bytes) { bytes_ += bytes; }
    void Text(std::string_view text) {
        Number(text.size(), 2);
        bytes_ += text;
    }
    std::string Take() { return std::move(bytes_); }

  private:
    std::string bytes_;
};

std::string Body(const AttributeRequest& request, std::string_view responders) {
    Writer body;
    body.Text(responders);
    body.Text(request.service);
    body.Text(request.scopes);
    body.Text(request.attributeIds);
    if (request.version == 2) {
        body.Text("");  // no SPI: signed replies are not asked for
    }
    return body.Take();
}

void Header1(Writer& out, const AttributeRequest& request, size_t bodySize) {
    constexpr size_t kSize = 12;
    out.Number(1, 1);
    out.Number(kAttributeRequest, 1);
    out.Number(kSize + bodySize, 2);
    out.Number(0, 1);  // flags
    out.Number(0, 1);  // dialect
    out.Bytes(request.language);
    out.Number(kUtf8, 2);
    out.Number(request.xid, 2);
}

void Header2(Writer& out, const AttributeRequest& request, size_t bodySize) {
    constexpr size_t kFixedSize = 14;
    out.Number(2, 1);
    out.Number(kAttributeRequest, 1);
    out.Number(kFixedSize + request.language.size() + bodySize, 3);
    out.Number(request.multicast ? kMulticast2 : 0, 2);
    out.Number(0, 3);  // no extensions
    out.Number(request.xid, 2);
    out.Text(request.language);
}

std::string Whole(const AttributeRequest& request, std::string_view responders) {
    const std::string body = Body(request, responders);
    Writer out;
    if (request.version == 1) {
        Header1(out, request, body.size());
    } else {
        Header2(out, request, body.size());
    }
    out.Bytes(body);
    return out.Take();
}

// The first of the comma-separated responders, as many as fit into so many bytes.
std::string_view Shortened(std::string_view responders, size_t room) {
    if (responders.size() <= room) {
        return responders;
    }
    const size_t comma = responders.rfind(',', room);
    return responders.substr(0, comma == responders.npos ? 0 : comma);
}

// The fixed part of a reply's header, behind version and function.
struct ReplyHeader {
    size_t length = 0;
    bool overflow = false;
    uint32_t xid = 0;
};

ReplyHeader ReadHeader1(Cursor& in) {
    ReplyHeader header;
    header.length = in.Number(2);
    header.overflow = (in.Number(1) & kOverflow1) != 0;
    in.Bytes(1 + 2 + 2);  // dialect, language, character encoding
    header.xid = in.Number(2);
    return header;
}

ReplyHeader ReadHeader2(Cursor& in) {
    ReplyHeader header;
    header.length = in.Number(3);
    header.overflow = (in.Number(2) & kOverflow2) != 0;
    in.Bytes(3);  // offset of the first extension: none is known here
    header.xid = in.Number(2);
    in.Text();  // language tag
    return header;
}

// Authentication blocks are not verified (no keys are configured), but have to be in order.
// Their 16-bit length counts the whole block, which is at least the two numbers.
void SkipAuthBlocks(Cursor& in) {
    for (uint32_t blocks = in.Number(1); blocks > 0 && in.ok(); --blocks) {
        in.Number(2);  // block structure descriptor
        const uint32_t length = in.Number(2);
        in.Bytes(length >= 4 ? length - 4 : in.left() + 1);
    }
}

}  // namespace

std::string_view Cursor::Bytes(size_t count) {
    if (!ok_ || count > bytes_.size()) {
        ok_ = false;
        bytes_ = {};
        return {};
    }
    const std::string_view taken = bytes_.substr(0, count);
    bytes_.remove_prefix(count);
    return taken;
}

uint32_t Cursor::Number(size_t size) {
    uint32_t value = 0;
    for (const char byte : Bytes(size)) {
        value = value << 8 | static_cast<unsigned char>(byte);
    }
    return value;
}

std::string_view Cursor::Until(std::string_view stops) {
    return Bytes(std::min(bytes_.find_first_of(stops), bytes_.size()));
}

std::optional<std::string> Encode(const AttributeRequest& request) {
    const size_t size = Whole(request, {}).size();
    if (size > kMaxRequest) {
        return std::nullopt;
    }
    return Whole(request, Shortened(request.responders, kMaxRequest - size));
}

std::optional<AttributeReply> DecodeReply(std::string_view message, unsigned version, uint16_t xid,
                                          Carrier carrier) {
    Cursor in(message);
    if (in.Number(1) != version || in.Number(1) != kAttributeReply) {
        return std::nullopt;
    }
    const ReplyHeader header = version == 1 ? ReadHeader1(in) : ReadHeader2(in);
    if (!in.ok() || header.xid != xid) {
        return std::nullopt;
    }
    if (carrier == Carrier::Datagram && header.overflow && header.length >= message.size()) {
        return AttributeReply{true, 0, {}};
    }
    if (header.length != message.size()) {
        return std::nullopt;
    }

    AttributeReply reply;
    reply.error = in.Number(2);
    if (reply.error != 0 && in.ok()) {
        return reply;  // RFC 2608, section 7: whatever follows an error may be left out
    }
    reply.attributes = in.Text();
    if (version == 2) {
        SkipAuthBlocks(in);
    }
    // Version 1 announces its one block by a flag and puts it last: nothing comes after it.
    if (!in.ok() || reply.attributes.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    return reply;
}

size_t StreamMessage::Wanted() const {
    return (length_ == 0 ? kLengthPrefix : length_) - bytes_.size();
}

bool StreamMessage::Add(std::string_view bytes) {
    bytes_ += bytes;
    if (length_ != 0 || bytes_.size() < kLengthPrefix) {
        return true;
    }
    Cursor in(bytes_);
    const uint32_t version = in.Number(1);
    in.Number(1);  // function
    length_ = in.Number(version == 1 ? 2 : 3);
    return (version == 1 || version == 2) && length_ > kLengthPrefix && length_ <= kMaxReply;
}

}  // namespace slp
