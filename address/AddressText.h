// What counts as the text of an address. Portable: nothing here asks the platform.
//
// All texts are 8-bit and may come from the network: any length, any bytes, NULs included.
#pragma once

#include <string>

// True for a dotted IPv4 address, with or without a port: "10.1.2.3", "10.1.2.3:9100". Octets have
// one to three decimal digits and are below 256, the port is below 65536; no other character.
bool IsIPv4AddressText(const std::string& text);

// True for an IPv6 address (RFC 4291, 2.2): eight groups of one to four hexadecimal digits, "::"
// at most once, an embedded IPv4 tail for IPv4-compatible and IPv4-mapped addresses only
// ("::10.1.2.3", "::ffff:10.1.2.3"). May stand in brackets and may end with a zone and a prefix
// length, in this order (RFC 4007, 11.7): "[fe80::1%4/64]". A zone is the decimal index of an
// interface, as the platform's sockets take it; the name of one is not accepted.
bool IsIPv6AddressText(const std::string& text);

// True for exactly twelve hexadecimal digits, without separators: "0004004A1B2C".
bool IsMacAddressText(const std::string& text);

// The value of a hexadecimal digit of either case, -1 for any other character.
int HexDigitValue(char digit);

// Takes the leading zeros from the groups of an address text, for comparing texts; what it gives
// is not always an address.
//   in: the text; it need not be an address.
//   out: receives the result, at most 47 characters; a longer one is cut.
//   ipv6: false: groups are separated by "." and an empty one becomes "0"
//             (010.000.001.002 gives 10.0.1.2);
//         true: groups are separated by ":" and every run of zero groups collapses, not only the
//             first (2001:0db8:0:1:0:0:0:1 gives 2001:db8::1::1; fe80:0 gives fe80:).
void NormalizeAddressText(const std::string& in, std::string& out, bool ipv6);
