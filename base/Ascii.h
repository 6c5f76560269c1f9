// Text whose letters and blanks are ASCII's, as protocols and files have it. Portable. All of it
// may be called by several threads at once.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

// Returns the text without the characters of `blanks` at both ends. The result refers to the
// caller's text.
inline std::string_view Trim(std::string_view text, std::string_view blanks = " \t\r\n") {
    const size_t first = text.find_first_not_of(blanks);
    return first == text.npos ? std::string_view()
                              : text.substr(first, text.find_last_not_of(blanks) + 1 - first);
}

// Returns the letter in lower case. All but A to Z stays as it is, in every locale.
constexpr char ToLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline std::string ToLower(std::string text) {
    for (char& c : text) {
        c = ToLower(c);
    }
    return text;
}

inline bool EqualsIgnoreCase(std::string_view one, std::string_view other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](char x, char y) { return ToLower(x) == ToLower(y); });
}

// Returns true if the pattern matches the whole text: '*' stands for any characters, or none, '?'
// for any one. Takes steps in proportion to the product of both lengths at most.
//   same: compares a character of the pattern, which is none of these, with one of the text.
template <class Char, class Same>
bool MatchesWildcards(std::basic_string_view<Char> text, std::basic_string_view<Char> pattern,
                      Same same) {
    size_t at = 0;
    size_t next = 0;
    size_t star = pattern.npos;  // the last '*'
    size_t taken = 0;            // the end of what it stands for
    while (at < text.size()) {
        if (next < pattern.size() && pattern[next] == Char('*')) {
            star = next++;
            taken = at;
        } else if (next < pattern.size() &&
                   (pattern[next] == Char('?') || same(pattern[next], text[at]))) {
            ++next;
            ++at;
        } else if (star != pattern.npos) {
            next = star + 1;
            at = ++taken;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of(Char('*'), next) == pattern.npos;
}
