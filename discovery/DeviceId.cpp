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
    // Compatibility: four characters are skipped whatever the key's length: the value of a longer
    // key starts inside the key, and a field of fewer characters gets the text that follows it.
    // SLPConf.xml files with longer keys rely on it.
    return deviceId.substr(start + kKeyLength, end - start - kKeyLength);
}

bool MatchesModel(const char* pattern, const char* model) {
    return MatchesWildcards(std::string_view(model), std::string_view(pattern), std::equal_to<>());
}
