// The check of hardware address texts.
#include <cctype>
#include <cstdint>
#include <string>

#include "address/AddressText.h"
#include "fuzz/Check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    bool expected = size == 12;
    for (size_t i = 0; i < size; ++i) {
        expected = expected && std::isxdigit(data[i]);
    }
    Check(IsMacAddressText(std::string(reinterpret_cast<const char*>(data), size)) == expected);
    return 0;
}
