// An attribute list behind the tag that is looked for in it, on a line of its own.
#include <cstdint>

#include "fuzz/Check.h"
#include "slp/AttributeList.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const size_t line = std::min(input.find('\n'), size);
    const std::string_view list = input.substr(std::min(line + 1, size));
    if (const auto value = slp::FindAttribute(list, input.substr(0, line))) {
        Check(value->size() <= list.size());
        Check(list.find('\0') != std::string_view::npos || value->find('\0') == std::string::npos);
    }
    return 0;
}
