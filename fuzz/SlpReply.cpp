// Everything that a request does with what the network sends, without the sockets. The input is
// a version and then datagrams: sender, 16-bit length, bytes; sender 255 ends a round. A list that
// has to be fetched comes as one more datagram, in pieces that the sender chooses.
#include <cstdint>
#include <set>
#include <string>
#include <utility>

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

// The lists that were reported: each once for an agent, and within the limits.
class Reports {
  public:
    void Add(const std::string& agent, std::string_view attributes) {
        Check(lists_.emplace(agent, attributes).second);
        bytes_ += attributes.size();
        large_ += attributes.size() > slp::kLargeList ? attributes.size() : 0;
        Check(lists_.size() <= slp::kMaxLists && bytes_ <= slp::kMaxReported &&
              large_ <= slp::kMaxReportedLarge);
    }

  private:
    std::set<std::pair<std::string, std::string>> lists_;
    size_t bytes_ = 0;
    size_t large_ = 0;
};

// The same bytes as an agent's TCP server would send them.
void Fetch(slp::Collector& collector, const std::string& agent, std::string_view bytes,
           size_t piece, Reports& reports) {
    slp::StreamMessage stream;
    for (size_t at = 0; stream.Wanted() > 0; at = stream.bytes().size()) {
        Check(stream.bytes() == bytes.substr(0, at) && stream.Wanted() <= slp::kMaxReply - at);
        if (at == bytes.size() || !stream.Add(bytes.substr(at, std::min(stream.Wanted(), piece)))) {
            return;
        }
    }
    if (const auto attributes = collector.TakeFetched(agent, stream.bytes())) {
        reports.Add(agent, *attributes);
        Read(*attributes, stream.bytes());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    slp::Cursor in({reinterpret_cast<const char*>(data), size});
    const unsigned version = in.Number(1) % 2 + 1;
    slp::Collector collector(version, kXid);
    slp::AttributeRequest request{version, kXid, "en", true, "", "service:printer", "", ""};
    Reports reports;
    std::set<uint32_t> fetched;
    while (in.left() > 0) {
        const uint32_t sender = in.Number(1);
        if (sender == 255) {
            if (!collector.NextRound()) {
                break;
            }
            request.responders = collector.responders();
            Check(slp::Encode(request).has_value());
            continue;
        }
        const std::string_view datagram = in.Text();
        const std::string agent = "10.0.0." + std::to_string(sender);
        const auto answer = collector.TakeDatagram({agent, sender > 200}, datagram);
        if (answer.verdict == slp::Collector::Verdict::Attributes) {
            reports.Add(agent, answer.attributes);
        }
        Read(answer.attributes, datagram);
        if (answer.verdict == slp::Collector::Verdict::Overflow) {
            Check(fetched.insert(sender).second);
            Fetch(collector, agent, in.Text(), sender % 16 + 1, reports);
        }
    }
    return 0;
}
