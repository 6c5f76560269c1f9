#include "discovery/DeviceId.h"

#include <algorithm>
#include <functional>

#include "base/Ascii.h"

namespace {

constexpr size_t kKeyLength = 4;  // "MDL:"

}  // namespace

std::optional<std::string> DeviceIdField(const std::string& deviceId, const std::string& key) {
    const size_t start = deviceId.find(key);
    if (start == std::string::npos) {
        return std::nullopt;
    }
    const size_t end = std::min(deviceId.find(';', start), deviceId.size());
    // The keys of the standard have three letters. The skip is the same for a longer one, whose
    // value then starts inside the key, and for a field that ends before it: what follows is its
    // value.
    return deviceId.substr(start + kKeyLength, end - start - kKeyLength);
}

bool MatchesModel(const char* pattern, const char* model) {
    return MatchesWildcards(std::string_view(model), std::string_view(pattern), std::equal_to<>());
}
