// Attribute lists as agents send them: "(tag=value,value),(tag=value),keyword" (RFC 2608,
// section 5). Portable.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace slp {

// The value of the first attribute with this tag, or nothing when the list does not have it or is
// cut off inside it.
//   tag  compared without regard to the case of ASCII letters and to blanks around it.
// Blanks around the value are dropped first, then escapes (\HH) resolved; several values stay
// separated by their commas. A keyword, and an attribute without '=', has an empty value. "\00"
// and what is no escape stay as they are: agents do send bare backslashes, and a zero byte would
// let whoever reads the value as a C string see less than what was sent.
std::optional<std::string> FindAttribute(std::string_view list, std::string_view tag);

}  // namespace slp
