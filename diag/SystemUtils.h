// Texts of the system for the log: error codes and locales.
#pragma once

#include <windows.h>

#include <string>

namespace system_helper {

// The system's own words for an error code (Win32 or Windows Sockets), in the language of the
// machine and on one line, ending as the system ends it (often with a blank). A code that the
// system has no words for gives "error " and the code in decimal.
std::string ErrorText(DWORD code);

// The locale's abbreviated language name, three letters: 1033 gives ENU. An identifier that the
// system does not know gives an empty text and a line in the log.
std::wstring LCIDToTLA(LCID lcid);

}  // namespace system_helper
