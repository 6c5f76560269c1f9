// Everything that a request does with what the network sends, without the sockets. The input is
// a version and then datagrams: sender, 16-bit length, bytes; sender 255 ends a round.
#include <cstdint>
#include <set>

#include "fuzz/Check.h"
#include "slp/AttributeList.h"
#include "slp/Collector.h"
#include "slp/Message.h"

namespace {

constexpr uint16_t kXid = 0x4242;

void Read(std::string_view attributes) {
    for (const char* tag : {"ip", "mac", "x-hostname", "color"}) {
        if (const auto value = slp::FindAttribute(attributes, tag)) {
            Check(value->size() <= attributes.size() && value->find('\0') == std::string::npos);
        }
    }
}

// The same bytes as an agent's TCP server would send them.
void Fetch(slp::Collector& collector, std::string_view bytes) {
    slp::StreamMessage stream;
    for (size_t at = 0; stream.Wanted() > 0; at = stream.bytes().size()) {
        if (at == bytes.size() ||
            !stream.Add(bytes.substr(at, std::min<size_t>(stream.Wanted(), 100)))) {
            return;
        }
    }
    if (const auto attributes = collector.TakeFetched(stream.bytes())) {
        Read(*attributes);
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
        Read(answer.attributes);
        if (answer.verdict == slp::Collector::Verdict::Overflow) {
            Fetch(collector, in.Text());
        }
    }
    return 0;
}
