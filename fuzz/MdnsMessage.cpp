// Everything that a search for DNS-SD printers does with what the network sends, without the
// sockets. The input is datagrams: sender, 16-bit length, bytes; sender 255 ends a round.
#include <iconv.h>

#include <cstdint>
#include <string>

#include "fuzz/Check.h"
#include "mdns/Collector.h"
#include "mdns/Limits.h"
#include "mdns/Message.h"

namespace {

constexpr uint16_t kId = 0x4242;

// Text is UTF-8 to a decoder of another project, and has no control characters.
void CheckText(std::string text) {
    static const iconv_t decoder = iconv_open("UTF-32LE", "UTF-8");
    char32_t characters[256];
    Check(text.size() <= 255);
    char* in = text.data();
    char* out = reinterpret_cast<char*>(characters);
    size_t inLeft = text.size();
    size_t outLeft = sizeof characters;
    Check(iconv(decoder, &in, &inLeft, &out, &outLeft) == 0 && inLeft == 0);
    for (const char32_t* at = characters; at < reinterpret_cast<char32_t*>(out); ++at) {
        Check(*at >= 0x20 && !(*at >= 0x7F && *at < 0xA0));
    }
}

void CheckPrinters(const mdns::Collector& collector) {
    std::string lastHost;
    for (const mdns::Printer& printer : collector.Printers()) {
        Check(printer.host.size() > 6 && !printer.addresses.empty() && !printer.services.empty());
        Check(lastHost < mdns::Lower(printer.host));
        lastHost = mdns::Lower(printer.host);
        for (const std::string* text :
             {&printer.host, &printer.instance, &printer.model, &printer.adminUrl, &printer.uuid}) {
            CheckText(*text);
        }
        for (const std::string& address : printer.addresses) {
            Check(address.find_first_not_of("0123456789abcdef.:") == address.npos &&
                  address.size() >= 3);
        }
        for (const mdns::Service& service : printer.services) {
            Check(service.port != 0);
            CheckText(service.queue);
        }
    }
}

// What is sent can be read back, once it is marked as a response.
void CheckQueries(const mdns::Collector& collector) {
    const auto queries = collector.Queries();
    Check(!queries.empty() && queries.size() <= 4 + mdns::kMaxFurtherQueries);
    for (std::string query : queries) {
        Check(query.size() <= mdns::kMaxQuery);
        query[2] = '\x84';
        Check(mdns::ParseResponse(query, kId).has_value());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    mdns::Cursor in({reinterpret_cast<const char*>(data), size});
    mdns::Collector collector(kId);
    while (in.left() > 0) {
        const uint32_t sender = in.Number(1);
        if (sender == 255) {
            CheckQueries(collector);
            if (!collector.NextRound()) {
                break;
            }
            continue;
        }
        collector.Take((sender % 2 == 0 ? "10.0.0." : "fd77::") + std::to_string(sender),
                       in.Bytes(in.Number(2)));
    }
    CheckQueries(collector);
    CheckPrinters(collector);
    return 0;
}
