// The texts of the dialogs: the string tables of this library, and texts from the network.
#pragma once

#include <windows.h>

#include <initializer_list>
#include <string>
#include <string_view>

// Returns the module with this code and its resources.
HMODULE OwnModule() noexcept;

class Texts {
  public:
    // language: of the user; English if there is no table for it.
    explicit Texts(LANGID language) : language_(language) {}

    // Returns a text with the values for %1 and %2 inserted; empty if there is no such text.
    std::wstring operator()(UINT id, std::initializer_list<std::wstring> inserts = {}) const;

    // Returns the text for a count: the singular has the identifier `one`, the plural the next.
    std::wstring Count(UINT one, size_t count) const;

  private:
    LANGID language_;
};

// Returns text from the network (UTF-8) for display on one line: with question marks for control
// characters and for characters that reverse or hide text, and at most `most` characters long.
std::wstring DisplayText(std::string_view utf8, size_t most = 100);

// Returns "00:04:00:4A:1B:2C" for "0004004A1B2C".
std::wstring DisplayMac(const std::string& digits);
