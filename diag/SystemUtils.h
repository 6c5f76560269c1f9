// What the platform says, as text: error codes, locales, code pages.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace system_helper {

// The system's own words for an error code (Win32 or Windows Sockets), in the language of the
// machine and on one line, ending as the system ends it (often with a blank). A code that the
// system has no words for gives "error " and the code in decimal.
std::string ErrorText(DWORD code);

// The locale's abbreviated language name, three letters: 1033 gives ENU. An identifier that the
// system does not know gives an empty text and a line in the log.
std::wstring LCIDToTLA(LCID lcid);

// UTF-16 text in the machine's ANSI code page; what the code page lacks becomes its default
// character. Embedded NULs are kept.
std::string ToNarrow(std::wstring_view text);

// Text of the machine's ANSI code page as UTF-16. Embedded NULs are kept.
std::wstring ToWide(std::string_view text);

}  // namespace system_helper
