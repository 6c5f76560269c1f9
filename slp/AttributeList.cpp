#include "slp/AttributeList.h"

#include <algorithm>
#include <charconv>

#include "slp/Message.h"

namespace slp {
namespace {

std::string_view Trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool SameTag(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return Lower(x) == Lower(y); });
}

std::string Unescape(std::string_view text) {
    std::string value;
    value.reserve(text.size());
    while (!text.empty()) {
        unsigned char byte = 0;
        const char* const digits = text.data() + 1;
        if (text[0] == '\\' && text.size() >= 3 &&
            std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2 && byte != 0) {
            value += static_cast<char>(byte);
            text.remove_prefix(3);
        } else {
            value += text[0];
            text.remove_prefix(1);
        }
    }
    return value;
}

}  // namespace

std::optional<std::string> FindAttribute(std::string_view list, std::string_view tag) {
    tag = Trim(tag);
    Cursor in(list);
    while (in.left() > 0) {
        const std::string_view keyword = Trim(in.Until("(,"));
        if (in.Next() == '(') {
            in.Bytes(1);
            const std::string_view name = Trim(in.Until("=)"));
            if (in.Next() == '=')
                in.Bytes(1);
            const std::string_view value = Trim(in.Until(")"));
            const bool closed = in.Next() == ')';
            in.Until(",");  // an agent that does not escape brackets gets no further than the first
            if (SameTag(name, tag))
                return closed ? std::optional(Unescape(value)) : std::nullopt;
        } else if (SameTag(keyword, tag)) {
            return std::string();
        }
        if (in.left() > 0)
            in.Bytes(1);  // the comma
    }
    return std::nullopt;
}

}  // namespace slp
