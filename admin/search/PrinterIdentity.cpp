#include "admin/search/PrinterIdentity.h"

#include <algorithm>
#include <utility>

#include "address/AddressText.h"
#include "base/Text.h"

std::string CheckStoredText(const std::string& text, size_t room) {
    if (text.empty()) {
        return "must not be empty";
    }
    const size_t length = Utf8ToWide(text).size();
    if (length > room) {
        return "is too long: " + std::to_string(length) + " characters, " + std::to_string(room) +
               " fit";
    }
    if (std::ranges::any_of(text, [](unsigned char c) { return c < 0x20 || c == 0x7F; })) {
        return "contains a control character";
    }
    return {};
}

std::string CheckHostName(std::string& text) {
    if (text == "none") {
        return "cannot be cleared. Delete the port and add it again without a host name";
    }
    return CheckStoredText(text, kHostNameRoom);
}

std::string CheckMacAddress(std::string& text) {
    if (text == "none") {
        text.clear();
        return {};
    }
    // Six pairs, three groups of four, or no separators at all.
    std::string digits;
    for (const auto& [separator, group] : {std::pair{':', 2}, {'-', 2}, {'.', 4}}) {
        if (text.find(separator) == std::string::npos) {
            continue;
        }
        for (size_t i = 0; i < text.size(); ++i) {
            if ((i + 1) % (group + 1) != 0) {
                digits += text[i];
            } else if (text[i] != separator || i + 1 == text.size()) {
                digits += '?';
            }
        }
        break;
    }
    if (digits.empty()) {
        digits = text;
    }
    std::ranges::transform(digits, digits.begin(), [](char c) {
        return c >= 'a' && c <= 'f' ? static_cast<char>(c - 32) : c;
    });
    if (!IsMacAddressText(digits)) {
        return "'" + text + "' is not a MAC address. Use, for example, 00:04:00:4a:1b:2c";
    }
    // The lowest bit of the first byte marks a group's address, broadcast included.
    if (digits == "000000000000" || (std::stoi(digits.substr(0, 2), nullptr, 16) & 1) != 0) {
        return "'" + text +
               "' is not the MAC address of a device. Use, for example, 00:04:00:4a:1b:2c";
    }
    text = digits;
    return {};
}
