// One message, as a datagram and as a stream that brings it in pieces. The first byte chooses the
// pieces; the transaction asked for is the one that the message names, so that this check is
// passed.
#include <cstdint>

#include "fuzz/Check.h"
#include "slp/Limits.h"
#include "slp/Message.h"

namespace {

bool Inside(std::string_view part, std::string_view whole) {
    return part.empty() || (part.data() >= whole.data() &&
                            part.data() + part.size() <= whole.data() + whole.size());
}

void Decode(std::string_view message, slp::Carrier carrier) {
    const auto byte = [&](size_t at) {
        return at < message.size() ? static_cast<unsigned char>(message[at]) : 0u;
    };
    const auto xid = static_cast<uint16_t>(byte(10) << 8 | byte(11));
    for (const unsigned version : {1u, 2u}) {
        if (const auto reply = slp::DecodeReply(message, version, xid, carrier)) {
            Check(Inside(reply->attributes, message));
            Check(reply->attributes.find('\0') == std::string_view::npos);
            Check(reply->error == 0 || reply->attributes.empty());
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const size_t piece = data[0] % 16 + 1u;
    const std::string_view message(reinterpret_cast<const char*>(data) + 1, size - 1);
    Decode(message, slp::Carrier::Datagram);

    slp::StreamMessage stream;
    size_t at = 0;
    while (stream.Wanted() > 0 && at < message.size()) {
        const std::string_view part = message.substr(at, std::min(piece, stream.Wanted()));
        at += part.size();
        if (!stream.Add(part)) {
            return 0;
        }
        Check(stream.bytes() == message.substr(0, at) && at <= slp::kMaxReply);
    }
    if (stream.Wanted() == 0) {
        Decode(stream.bytes(), slp::Carrier::Stream);
    }
    return 0;
}
