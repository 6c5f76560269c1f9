// Attribute lists as agents send them: "(tag=value,value),(tag=value),keyword" (RFC 2608,
// section 5). Portable.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "slp/Message.h"

namespace slp {

// One attribute as it stands in a list, without the blanks around its tag and its value. A keyword,
// and an attribute without '=', has an empty value.
struct Attribute {
    std::string_view tag;
    std::string_view value;  // several are separated by commas; escapes are not resolved
    bool whole = true;       // false when the list is cut off inside it
};

// Takes the next attribute off a list, or nothing when there is none left. What is no attribute is
// passed over. An agent that does not escape brackets gets no further with a value than the first.
std::optional<Attribute> NextAttribute(Cursor& list);

// Resolves the escapes (\HH) of a value. "\00" and what is no escape stay as they are: agents do
// send bare backslashes, and a zero byte would let whoever reads the value as a C string see less
// than what was sent.
std::string Unescape(std::string_view value);

// The value, unescaped, of the first attribute with this tag, or nothing when the list does not
// have it or is cut off inside it.
//   tag  compared without regard to the case of ASCII letters and to blanks around it.
std::optional<std::string> FindAttribute(std::string_view list, std::string_view tag);

}  // namespace slp
