#include "kestctl/Output.h"

#include <gtest/gtest.h>
#include <windows.h>

namespace {

TEST(Output, NoticesThatItsOutputIsClosed) {
    const HANDLE before = GetStdHandle(STD_OUTPUT_HANDLE);
    HANDLE reader = nullptr;
    HANDLE writer = nullptr;
    ASSERT_TRUE(CreatePipe(&reader, &writer, nullptr, 0));
    SetStdHandle(STD_OUTPUT_HANDLE, writer);
    const bool open = OutputIsClosed();
    CloseHandle(reader);
    const bool closed = OutputIsClosed();
    SetStdHandle(STD_OUTPUT_HANDLE, before);
    CloseHandle(writer);
    EXPECT_FALSE(open);
    EXPECT_TRUE(closed);
}

}  // namespace
