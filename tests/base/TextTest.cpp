#include "base/Text.h"

#include <gtest/gtest.h>

#include "base/Ascii.h"

namespace {

TEST(Text, IsConvertedWhole) {
    const std::wstring wide = std::wstring(L"printer\0\u00e4", 9);
    EXPECT_EQ(WideToUtf8(wide), std::string("printer\0\xC3\xA4", 10));
    EXPECT_EQ(Utf8ToWide(WideToUtf8(wide)), wide);
    EXPECT_EQ(WideToAnsi(wide), std::string("printer\0\xE4", 9));
    EXPECT_EQ(AnsiToWide(WideToAnsi(wide)), wide);
    EXPECT_EQ(WideToAnsi(L""), "");
    EXPECT_EQ(Utf8ToWide("a\xFF"
                         "b"),
              L"a\xFFFD"
              L"b");
}

TEST(Text, FillsItsBufferAndEndsThere) {
    EXPECT_STREQ(AnsiText<8>(L"queue").text, "queue");
    EXPECT_EQ(strnlen(AnsiText<4>(L"queue").text, 9), 3u);
}

TEST(Text, IsTrimmedAtBothEnds) {
    EXPECT_EQ(Trim("\t a b\r\n"), "a b");
    EXPECT_EQ(Trim(" \t"), "");
    EXPECT_EQ(Trim(" a\n", " "), "a\n");
}

// U+212A, the Kelvin sign, is a letter K to some comparisons.
TEST(Text, ComparesLettersWithoutCase) {
    EXPECT_EQ(ToLower("AZ@[\xC4"), "az@[\xC4");
    EXPECT_TRUE(EqualsIgnoreCase("X-hp-IP", "x-HP-ip"));
    EXPECT_FALSE(EqualsIgnoreCase("tag", "tags"));
    EXPECT_FALSE(EqualsIgnoreCase("[", "{"));
    EXPECT_TRUE(SameName(L"\u00c4rger", L"\u00e4RGER"));
}

TEST(Text, MatchesPatterns) {
    struct {
        LPCWSTR pattern;
        LPCWSTR name;
        bool matches;
    } const cases[] = {
        {L"*", L"", true},
        {L"", L"", true},
        {L"?", L"", false},
        {L"ip_*", L"IP_10.1", true},
        {L"*.1", L"10.1.1.1", true},
        {L"*a*b", L"xaxbxb", true},
        {L"*a*b", L"xaxbx", false},
        {L"a?c", L"aBC", true},
        {L"ab", L"abc", false},
        {L"abc", L"ab", false},
        {L"\u00e4*", L"\u00c4", true},
    };
    for (const auto& [pattern, name, matches] : cases) {
        EXPECT_EQ(MatchesPattern(name, pattern), matches) << WideToUtf8(pattern);
    }
}

// What a printer sends is not to make a pattern of SLPConf.xml take for ever.
TEST(Text, MatchesALongNameInTime) {
    const std::wstring name(10000, L'a');
    EXPECT_FALSE(MatchesPattern(name, L"*a*a*a*a*a*a*a*a*a*a*b"));
}

}  // namespace
