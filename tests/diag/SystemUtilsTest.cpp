#include "diag/SystemUtils.h"

#include <gmock/gmock.h>

#include "tests/support/LogCapture.h"

namespace {

using testing::ElementsAre;

TEST(SystemUtils, LocaleNamesAndTheLineForUnknownOnes) {
    const LogCapture capture;
    EXPECT_EQ(system_helper::LCIDToTLA(1033), L"ENU");
    EXPECT_EQ(system_helper::LCIDToTLA(0x0000F123), L"");
    EXPECT_THAT(capture.Lines(),
                ElementsAre("[system error]  - LCID 61731 is invalid 87|system_helper::LCIDToTLA"));
}

TEST(SystemUtils, ErrorTextsAreOneLineEach) {
    EXPECT_THAT(system_helper::ErrorText(ERROR_ACCESS_DENIED), testing::HasSubstr("denied"));
    for (const DWORD code : {DWORD{ERROR_ACCESS_DENIED}, DWORD{10060}, DWORD{11001}}) {
        EXPECT_EQ(system_helper::ErrorText(code).find_first_of("\r\n"), std::string::npos);
    }
    EXPECT_EQ(system_helper::ErrorText(0xE0001234), "error 3758101044");
}

}  // namespace
