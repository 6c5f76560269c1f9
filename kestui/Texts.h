// What the dialogues say: the string tables of this library, and texts from outside made fit to be
// shown.
#pragma once

#include <windows.h>

#include <initializer_list>
#include <string>
#include <string_view>

// The module that this code is in, with its resources.
HMODULE OwnModule() noexcept;

class Texts {
  public:
    // language: of the user; English where there is no table for it.
    explicit Texts(LANGID language) : language_(language) {}

    // The text of a number, with what stands for %1 and %2 put in; empty when there is none.
    std::wstring operator()(UINT id, std::initializer_list<std::wstring> inserts = {}) const;

    // The text for a count, in the form for one (the number `one`) or for several (the next).
    std::wstring Count(UINT one, size_t count) const;

  private:
    LANGID language_;
};

// Text from the network (UTF-8) on one line that says no more than it says: without control
// characters, without those that reverse or hide other text, and cut off where it is too long.
//   most: characters.
std::wstring Shown(std::string_view utf8, size_t most = 100);

// "0004004A1B2C" as it stands on printers: "00:04:00:4A:1B:2C".
std::wstring ShownMac(const std::string& digits);
