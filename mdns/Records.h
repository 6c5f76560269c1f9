// What the records of a printer mean (RFC 6763), and which of them are of use. Portable.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "mdns/Browser.h"
#include "mdns/Message.h"

namespace mdns {

// The names that the instances of the services are listed under, in the order of Protocol.
inline constexpr std::array<std::string_view, 4> kServiceNames{
    "\x0F_pdl-datastream\x04_tcp\x05local", "\x08_printer\x04_tcp\x05local",
    "\x04_ipp\x04_tcp\x05local", "\x05_ipps\x04_tcp\x05local"};

// Reduces a record to what a search uses: the name in lower case, and of a TXT record the first
// string for each key that is read. Returns false if the record is of no use: it has or refers to a
// name outside `local`, lists another service, or has an address that no port can be set to.
bool Reduce(Record& record);

// Returns the value of a key in TXT data (RFC 6763, section 6.4), or empty text if there is none
// or it is not clean.
//   key: `rp`, `ty`, `product`, `adminurl` or `uuid`, in lower case.
std::string TextValue(std::string_view data, std::string_view key);

// Returns a label, or the name of a host with its labels separated by dots, or empty text if it is
// not clean. In the name of a host, a label with a dot or a blank is not.
std::string LabelText(std::string_view label);
std::string HostText(std::string_view name);

// Returns the numeric form of the data of an A or AAAA record.
std::string AddressText(std::string_view data);

// Returns whether text is valid UTF-8 without control characters, which include those that break
// lines or change the direction of writing.
bool IsClean(std::string_view text);

}  // namespace mdns
