#include "slp/AttributeList.h"

#include <algorithm>
#include <charconv>

#include "base/Ascii.h"

namespace slp {
namespace {}  // namespace

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
        if (EqualsIgnoreCase(attribute->tag, tag)) {
            return attribute->whole ? std::optional(Unescape(attribute->value)) : std::nullopt;
        }
    }
    return std::nullopt;
}

}  // namespace slp
