#include "slp/AttributeList.h"

#include <algorithm>
#include <charconv>

namespace slp {
namespace {

std::string_view Trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool SameTag(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return Lower(x) == Lower(y); });
}

}  // namespace

std::optional<Attribute> NextAttribute(Cursor& list) {
    while (list.left() > 0) {
        Attribute found{Trim(list.Until("(,")), {}, true};
        if (list.Next() == '(') {
            list.Bytes(1);
            found.tag = Trim(list.Until("=)"));
            if (list.Next() == '=') {
                list.Bytes(1);
            }
            found.value = Trim(list.Until(")"));
            found.whole = list.Next() == ')';
            list.Until(",");
        }
        if (list.left() > 0) {
            list.Bytes(1);  // the comma
        }
        if (!found.tag.empty()) {
            return found;
        }
    }
    return std::nullopt;
}

std::string Unescape(std::string_view escaped) {
    std::string value;
    value.reserve(escaped.size());
    while (!escaped.empty()) {
        unsigned char byte = 0;
        const char* const digits = escaped.data() + 1;
        if (escaped[0] == '\\' && escaped.size() >= 3 &&
            std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2 && byte != 0) {
            value += static_cast<char>(byte);
            escaped.remove_prefix(3);
        } else {
            value += escaped[0];
            escaped.remove_prefix(1);
        }
    }
    return value;
}

std::optional<std::string> FindAttribute(std::string_view list, std::string_view tag) {
    tag = Trim(tag);
    Cursor rest(list);
    while (const auto attribute = NextAttribute(rest)) {
        if (SameTag(attribute->tag, tag)) {
            return attribute->whole ? std::optional(Unescape(attribute->value)) : std::nullopt;
        }
    }
    return std::nullopt;
}

}  // namespace slp
