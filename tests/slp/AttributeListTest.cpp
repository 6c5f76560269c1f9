#include "slp/AttributeList.h"

#include <gtest/gtest.h>

#include "slp/Slp.h"

namespace {

TEST(AttributeList, FindsValues) {
    const struct {
        const char* list;
        const char* tag;
        const char* value;  // null: not found
    } cases[] = {
        {"(ip=10.0.0.1),(mac=00)", "ip", "10.0.0.1"},
        {"(ip=10.0.0.1),(mac=00)", "mac", "00"},
        {"(ip=10.0.0.1)", "i", nullptr},
        {"(ip=10.0.0.1)", "ip2", nullptr},
        {"", "ip", nullptr},
        {"(X-Hrw=a)", "x-hRW", "a"},
        {"(\xC3\x84=a)", "\xC3\xA4", nullptr},  // only ASCII letters have two cases here
        // blanks
        {" ( ip \t=\r\n 10.0.0.1 ) , ( b = c d ) ", " ip ", "10.0.0.1"},
        {" ( ip = 10.0.0.1 ) , ( b = c d ) ", "b", "c d"},
        // several values, no value, keywords
        {"(ip=10.0.0.1, 10.0.0.2 ,x)", "ip", "10.0.0.1, 10.0.0.2 ,x"},
        {"(ip=),(b=1)", "ip", ""},
        {"(ip),(b=1)", "ip", ""},
        {"color , (b=1),duplex", "COLOR", ""},
        {"color,(b=1),duplex", "duplex", ""},
        {"(b=color)", "color", nullptr},
        {"(a=x=y)", "a", "x=y"},
        // the first of two
        {"(a=1),(a=2)", "a", "1"},
        // escapes
        {R"((a=\28x\29\2C\5c\7E))", "a", "(x),\\~"},
        {R"((a=\20x\20))", "a", " x "},
        {R"((a=\5c28))", "a", "\\28"},
        {R"((a=\FF\01))", "a", "\xFF\x01"},
        {R"((a=x\00y))", "a", "x\\00y"},
        {R"((a=c:\temp\x\1))", "a", R"(c:\temp\x\1)"},
        {R"((a=\))", "a", "\\"},
        {R"((a=\-1\+2\ 3))", "a", R"(\-1\+2\ 3)"},
        // lists that are not in order
        {"(a=1),(ip=10.0.0.1", "ip", nullptr},
        {"(a=1),(ip=10.0.0.1", "a", "1"},
        {"(a=1),(ip", "ip", nullptr},
        {"(a=HP (mono)),(b=2)", "a", "HP (mono"},
        {"(a=HP (mono)),(b=2)", "b", "2"},
        {"),,=((,a,(b=2)", "b", nullptr},
        {"),,=,a,(b=2)", "b", "2"},
        {"junk(b=2)", "b", "2"},
    };
    for (const auto& c : cases) {
        const auto wanted = c.value != nullptr ? std::optional<std::string>(c.value) : std::nullopt;
        EXPECT_EQ(slp::FindAttribute(c.list, c.tag), wanted) << c.list << ' ' << c.tag;
    }
}

TEST(AttributeList, IsHandedOutByTheLibrary) {
    char* value = nullptr;
    EXPECT_EQ(SLPParseAttrs(R"((a=\41b),c)", "A", &value), SLP_OK);
    EXPECT_STREQ(value, "Ab");
    SLPFree(value);
    SLPFree(nullptr);

    const std::tuple<const char*, const char*, SLPError> cases[] = {
        {"(a=1)", "b", SLP_PARSE_ERROR},
        {nullptr, "a", SLP_PARAMETER_BAD},
        {"(a=1)", nullptr, SLP_PARAMETER_BAD},
        {"(a=1)", "", SLP_PARAMETER_BAD}};
    char unset = 'x';
    for (const auto& [list, tag, result] : cases) {
        value = &unset;
        EXPECT_EQ(SLPParseAttrs(list, tag, &value), result);
        EXPECT_EQ(value, nullptr);
    }
    EXPECT_EQ(SLPParseAttrs("(a=1)", "a", nullptr), SLP_PARAMETER_BAD);
}

}  // namespace
