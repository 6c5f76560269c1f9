#include "address/AddressText.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace {

constexpr char kDigits[] = "0123456789";

// Takes up to `maxDigits` decimal digits off the front of `text`. None if there is no digit; what
// does not fit into 32 bits reads as 2^32, however long it is.
std::optional<uint64_t> TakeNumber(std::string_view& text, size_t maxDigits) {
    const size_t length = std::min({text.find_first_not_of(kDigits), text.size(), maxDigits});
    if (length == 0) {
        return std::nullopt;
    }
    uint64_t value = 0;
    for (const char digit : text.substr(0, length)) {
        value = std::min(value * 10 + static_cast<unsigned>(digit - '0'), uint64_t{1} << 32);
    }
    text.remove_prefix(length);
    return value;
}

bool TakeCharacter(std::string_view& text, char wanted) {
    if (text.empty() || text.front() != wanted) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

// The whole text as a number up to `greatest`.
bool IsNumber(std::string_view text, uint64_t greatest) {
    const auto value = TakeNumber(text, text.size());
    return value && *value <= greatest && text.empty();
}

// Reads what sscanf("%3u.%3u.%3u.%3u%c%u%c") reads of a text that has only digits, dots and
// colons, where neither blanks nor signs can lead a number; but a port that is too great stays so,
// on which C libraries differ.
bool IsIPv4(std::string_view text) {
    for (int octet = 0; octet < 4; ++octet) {
        if (octet > 0 && !TakeCharacter(text, '.')) {
            return false;
        }
        const auto value = TakeNumber(text, 3);
        if (!value || *value > 255) {
            return false;
        }
    }
    return text.empty() || (TakeCharacter(text, ':') && IsNumber(text, 65535));
}

// The text without its brackets, its prefix length and its zone; none if one of them is malformed.
std::optional<std::string_view> StripIPv6Decoration(std::string_view text) {
    if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
        text = text.substr(1, text.size() - 2);
    }
    if (text.size() < 2) {
        return std::nullopt;
    }
    if (const size_t slash = text.rfind('/'); slash != std::string_view::npos) {
        if (!IsNumber(text.substr(slash + 1), 128)) {
            return std::nullopt;
        }
        text = text.substr(0, slash);
    }
    if (const size_t percent = text.find('%'); percent != std::string_view::npos) {
        if (!IsNumber(text.substr(percent + 1), UINT32_MAX)) {
            return std::nullopt;
        }
        text = text.substr(0, percent);
    }
    return text;
}

// Takes an embedded IPv4 tail off the text. The colon before it goes too, unless it belongs to a
// "::". False when there is a tail that is no IPv4 address.
bool TakeIPv4Tail(std::string_view& text, bool& found) {
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return false;
    }
    const std::string_view tail = text.substr(colon + 1);
    found = tail.find('.') != std::string_view::npos;
    if (found) {
        const bool gap = colon > 0 && text[colon - 1] == ':';
        text = text.substr(0, gap ? colon + 1 : colon);
    }
    return !found || IsIPv4(tail);
}

// Consecutive groups of an IPv6 address.
struct Groups {
    std::array<uint16_t, 8> value = {};
    size_t count = 0;
};

std::optional<uint16_t> ReadGroup(std::string_view text) {
    if (text.empty() || text.size() > 4) {
        return std::nullopt;
    }
    unsigned value = 0;
    for (const char digit : text) {
        const int nibble = HexDigitValue(digit);
        if (nibble < 0) {
            return std::nullopt;
        }
        value = value << 4 | static_cast<unsigned>(nibble);
    }
    return static_cast<uint16_t>(value);
}

// Reads the groups of one side of a "::", or of a text without one.
bool ReadGroups(std::string_view text, Groups& groups) {
    if (text.empty()) {
        return true;
    }
    for (;;) {
        const size_t length = std::min(text.find(':'), text.size());
        const auto group = ReadGroup(text.substr(0, length));
        if (!group || groups.count == groups.value.size()) {
            return false;
        }
        groups.value[groups.count++] = *group;
        if (length == text.size()) {
            return true;
        }
        text.remove_prefix(length + 1);
    }
}

// Reads an address of `slots` groups, one "::" filled up with zeros. A "::" counts as a group: it
// stands for at least one.
bool ReadAddress(std::string_view text, size_t slots, Groups& groups) {
    const size_t gap = text.find("::");
    if (gap == std::string_view::npos) {
        return ReadGroups(text, groups) && groups.count == slots;
    }
    Groups after;
    if (!ReadGroups(text.substr(0, gap), groups) || !ReadGroups(text.substr(gap + 2), after) ||
        groups.count + 1 + after.count > slots) {
        return false;
    }
    std::copy_n(after.value.begin(), after.count, groups.value.begin() + (slots - after.count));
    return true;
}

// The text under construction of NormalizeAddressText.
class FixedText {
  public:
    void Append(char character) {
        if (length_ < sizeof text_ - 1) {
            text_[length_++] = character;
        }
    }
    // The character `back` places from the end (1 is the last), NUL when there is none.
    char Last(size_t back) const { return back <= length_ ? text_[length_ - back] : '\0'; }
    std::string Text() const { return std::string(text_, length_); }

  private:
    char text_[48];
    size_t length_ = 0;
};

}  // namespace

bool IsIPv4AddressText(const std::string& text) {
    return IsIPv4(text);
}

bool IsIPv6AddressText(const std::string& text) {
    auto address = StripIPv6Decoration(text);
    bool hasTail = false;
    if (!address || !TakeIPv4Tail(*address, hasTail)) {
        return false;
    }
    Groups groups;
    if (!ReadAddress(*address, hasTail ? 6 : 8, groups)) {
        return false;
    }
    const auto& group = groups.value;
    return !hasTail || (std::all_of(group.begin(), group.begin() + 5, [](auto g) { return !g; }) &&
                        (group[5] == 0 || group[5] == 0xFFFF));
}

bool IsMacAddressText(const std::string& text) {
    return text.size() == 12 && std::all_of(text.begin(), text.end(),
                                            [](char digit) { return HexDigitValue(digit) >= 0; });
}

int HexDigitValue(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    const char upper = digit >= 'a' && digit <= 'f' ? static_cast<char>(digit - 'a' + 'A') : digit;
    return upper >= 'A' && upper <= 'F' ? upper - 'A' + 10 : -1;
}

void NormalizeAddressText(const std::string& in, std::string& out, bool ipv6) {
    const char separator = ipv6 ? ':' : '.';
    FixedText text;
    char previous = separator;
    bool atGroupStart = true;
    for (const char character : in) {
        if (atGroupStart && character == '0') {
            continue;
        }
        atGroupStart = character == separator;
        if (character == separator && previous == separator) {
            if (!ipv6) {
                text.Append('0');
                // Compatibility: every run of zero groups collapses, so the result is not always
                // an address; callers that compare two such texts could rely on it.
            } else if (text.Last(2) == separator) {
                continue;
            }
        }
        text.Append(character);
        previous = character;
    }
    if (!ipv6 && text.Last(1) == separator) {
        text.Append('0');
    }
    out = text.Text();
}
