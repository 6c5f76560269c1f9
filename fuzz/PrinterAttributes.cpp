// What a printer says of itself, read by the values of SLPConf.xml: an attribute list, behind a
// line each with the attribute's tag, the key of a field in its value, and a model pattern.
#include <cstdint>
#include <stdexcept>

#include "discovery/DeviceId.h"
#include "fuzz/Check.h"
#include "slp/AttributeList.h"

namespace {

// The obvious way, for texts that are short enough for it.
bool Matches(std::string_view pattern, std::string_view model) {
    if (pattern.empty() || model.empty()) {
        return pattern.find_first_not_of('*') == pattern.npos && model.empty();
    }
    if (pattern[0] == '*') {
        return Matches(pattern.substr(1), model) || Matches(pattern, model.substr(1));
    }
    return (pattern[0] == '?' || pattern[0] == model[0]) &&
           Matches(pattern.substr(1), model.substr(1));
}

void ReadField(const std::string& deviceId, const std::string& key, const std::string& pattern) {
    const size_t at = deviceId.find(key);
    try {
        const auto field = DeviceIdField(deviceId, key);
        Check(field.has_value() == (at != deviceId.npos));
        if (!field) {
            return;
        }
        Check(deviceId.compare(at + 4, field->size(), *field) == 0);
        const bool ordinary = key.size() == 3 && key.find(';') == key.npos;
        Check(!ordinary || deviceId.find(';', at) < at + 4 || field->find(';') == field->npos);
        if (pattern.size() < 8 && field->size() < 12) {
            Check(MatchesModel(pattern.c_str(), field->c_str()) ==
                  Matches(pattern.c_str(), field->c_str()));
        }
    } catch (const std::out_of_range&) {
        Check(deviceId.size() < at + 4);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    slp::Cursor in({reinterpret_cast<const char*>(data), size});
    std::string lines[3];
    for (std::string& line : lines) {
        line = in.Until("\n");
        in.Bytes(1);
    }
    const std::string_view list = in.Bytes(in.left());
    if (const auto value = slp::FindAttribute(list, lines[0])) {
        Check(value->size() <= list.size());
        Check(list.find('\0') != list.npos || value->find('\0') == value->npos);
        ReadField(*value, lines[1], lines[2]);
    }
    return 0;
}
