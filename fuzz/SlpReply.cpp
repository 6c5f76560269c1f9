// Everything that a request does with what the network sends, without the sockets. The input is
// a version and then datagrams: sender, 16-bit length, bytes; sender 255 ends a round. A list that
// has to be fetched comes as one more datagram, in pieces that the sender chooses.
#include <cstdint>
#include <set>

#include "fuzz/Check.h"
#include "slp/AttributeList.h"
#include "slp/Collector.h"
#include "slp/Limits.h"
#include "slp/Message.h"

namespace {

constexpr uint16_t kXid = 0x4242;

// What is reported lies in the message that brought it.
void Read(std::string_view attributes, std::string_view message) {
    Check(attributes.empty() ||
          (attributes.data() >= message.data() &&
           attributes.data() + attributes.size() <= message.data() + message.size()));
    Check(attributes.find('\0') == attributes.npos);
    for (const char* tag : {"ip", "color"}) {
        if (const auto value = slp::FindAttribute(attributes, tag)) {
            Check(value->size() <= attributes.size() && value->find('\0') == value->npos);
        }
    }
}

// The same bytes as an agent's TCP server would send them.
void Fetch(slp::Collector& collector, std::string_view bytes, size_t piece) {
    slp::StreamMessage stream;
    for (size_t at = 0; stream.Wanted() > 0; at = stream.bytes().size()) {
        Check(stream.bytes() == bytes.substr(0, at) && stream.Wanted() <= slp::kMaxReply - at);
        if (at == bytes.size() || !stream.Add(bytes.substr(at, std::min(stream.Wanted(), piece)))) {
            return;
        }
    }
    if (const auto attributes = collector.TakeFetched(stream.bytes())) {
        Read(*attributes, stream.bytes());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    slp::Cursor in({reinterpret_cast<const char*>(data), size});
    const unsigned version = in.Number(1) % 2 + 1;
    slp::Collector collector(version, kXid);
    slp::AttributeRequest request{version, kXid, "en", true, "", "service:printer", "", ""};
    std::set<uint32_t> reported;
    while (in.left() > 0) {
        const uint32_t sender = in.Number(1);
        if (sender == 255) {
            if (!collector.NextRound()) {
                break;
            }
            request.responders = collector.responders();
            slp::Encode(request);
            continue;
        }
        const std::string_view datagram = in.Text();
        const auto answer = collector.TakeDatagram("10.0.0." + std::to_string(sender), datagram);
        if (answer.verdict == slp::Collector::Verdict::Attributes ||
            answer.verdict == slp::Collector::Verdict::Overflow) {
            Check(reported.insert(sender).second);
        }
        Read(answer.attributes, datagram);
        if (answer.verdict == slp::Collector::Verdict::Overflow) {
            Fetch(collector, in.Text(), sender % 16 + 1);
        }
    }
    return 0;
}
