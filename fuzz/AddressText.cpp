// The checks of IPv4, IPv6 and MAC address texts, held against the C library's own reading.
#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <string>

#include "address/AddressText.h"
#include "fuzz/Check.h"

namespace {

// Without a port, which C libraries read differently when it is too great for them.
bool SscanfTakesIPv4(const std::string& text) {
    unsigned octet[4];
    char more = 0;
    return text.find_first_not_of("0123456789.") == std::string::npos &&
           std::sscanf(text.c_str(), "%3u.%3u.%3u.%3u%c", &octet[0], &octet[1], &octet[2],
                       &octet[3], &more) == 4 &&
           octet[0] < 256 && octet[1] < 256 && octet[2] < 256 && octet[3] < 256;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const bool ipv4 = IsIPv4AddressText(text);
    const bool ipv6 = IsIPv6AddressText(text);
    Check(!(ipv4 && ipv6));
    Check(IsMacAddressText(text) ==
          (size == 12 && std::all_of(data, data + size, [](int c) { return std::isxdigit(c); })));
    if (text.find(':') == std::string::npos) {
        Check(ipv4 == SscanfTakesIPv4(text));
    }
    // Where no decoration and no embedded IPv4 address is in play, the two agree.
    if (text.find_first_not_of("0123456789ABCDEFabcdef:") == std::string::npos) {
        in6_addr address;
        Check(ipv6 == (inet_pton(AF_INET6, text.c_str(), &address) == 1));
    }
    return 0;
}
