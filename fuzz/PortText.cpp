// A text of a port as the registry gives it: the length that is claimed, then characters that fill
// the buffer, a byte each.
#include <cstdint>
#include <memory>
#include <regex>
#include <string>

#include "fuzz/Check.h"
#include "monitor/PortText.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > 300) {
        return 0;
    }
    const std::string given(data + 1, data + size);
    const auto buffer = std::make_unique<wchar_t[]>(given.size());  // not a character more
    std::copy(data + 1, data + size, buffer.get());
    const size_t length = EndText(buffer.get(), given.size(), data[0]);

    Check(length < given.size() && buffer[length] == L'\0');
    const std::string text(buffer.get(), buffer.get() + length);
    Check(text == given.substr(0, std::min<size_t>(data[0], given.size() - 1)).c_str());
    static const std::regex pseudo("[Nn][Ee]-?[0-9]*:");
    Check(IsSpoolerPseudoPort(buffer.get()) == std::regex_match(text, pseudo));
    return 0;
}
