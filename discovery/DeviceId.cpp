#include "discovery/DeviceId.h"

#include <algorithm>

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
    const char* star = nullptr;  // the last one met
    const char* resume = nullptr;
    while (*model != '\0') {
        if (*pattern == '*') {
            star = pattern++;
            resume = model;
        } else if (*pattern == '?' || *pattern == *model) {
            ++pattern;
            ++model;
        } else if (star != nullptr) {
            // The star takes one character more.
            pattern = star + 1;
            model = ++resume;
        } else {
            return false;
        }
    }
    while (*pattern == '*') {
        ++pattern;
    }
    return *pattern == '\0';
}
