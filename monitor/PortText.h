// Texts that the registry hands over: names of ports and values of their records, whatever somebody
// has put there. Portable.
#pragma once

#include <cstddef>

// Ends a text behind its first `length` characters, or with its buffer where it claims to be
// longer.
//   room: of the buffer, in characters; at least 1.
// Returns the length of the text, which is terminated within the buffer.
size_t EndText(wchar_t* buffer, size_t room, size_t length) noexcept;

// True for the names of the spooler's own network pseudo-ports: "Ne", an optional "-", digits or
// none, ":". They stand under the monitor's key on some systems and are none of its ports.
bool IsSpoolerPseudoPort(const wchar_t* name) noexcept;
