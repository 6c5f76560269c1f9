// The normalizer of address texts: its size holds, and what it gives stays as it is when it is
// normalized again.
#include <cstdint>
#include <string>

#include "address/AddressText.h"
#include "fuzz/Check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const bool ipv6 = data[0] & 1;
    std::string once;
    NormalizeAddressText(std::string(reinterpret_cast<const char*>(data + 1), size - 1), once,
                         ipv6);
    std::string twice;
    NormalizeAddressText(once, twice, ipv6);
    Check(once.size() <= 47);
    // A text that was cut can end at another place than a group's end.
    Check(once.size() == 47 || twice == once);
    return 0;
}
