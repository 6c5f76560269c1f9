#include "base/Handles.h"

#include <gmock/gmock.h>

#include <vector>

#include "base/LastError.h"

namespace {

using testing::ElementsAre;

std::vector<int> closed;
struct NumberTraits {
    using Type = int;
    static constexpr int kNone = -1;
    static void Close(int number) { closed.push_back(number); }
};
using Number = UniqueResource<NumberTraits>;

TEST(Handles, CloseEachResourceOnce) {
    closed.clear();
    {
        Number first(0);  // a valid value, as it is for sockets
        EXPECT_TRUE(first);
        Number second(std::move(first));
        EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): it must be empty now
        Number third(2);
        third = std::move(second);
        EXPECT_THAT(closed, ElementsAre(2));
        *third.Out() = 3;
        EXPECT_THAT(closed, ElementsAre(2, 0));
        EXPECT_EQ(Number(4).Release(), 4);
    }
    EXPECT_THAT(closed, ElementsAre(2, 0, 3));
}

struct Seen : NumberTraits {
    static void Close(int) { value = number->Get(); }
    static inline UniqueResource<Seen>* number;
    static inline int value;
};

// Another thread must not see a resource that is being closed.
TEST(Handles, ReplaceAValueBeforeClosingIt) {
    UniqueResource<Seen> number(1);
    Seen::number = &number;
    number.Reset(2);
    EXPECT_EQ(Seen::value, 2);
    number.Reset();
    EXPECT_EQ(Seen::value, -1);
}

TEST(LastError, IsKeptAndRenewed) {
    SetLastError(1);
    {
        LastErrorKeeper keeper;
        SetLastError(2);
    }
    EXPECT_EQ(GetLastError(), 1u);
    {
        LastErrorKeeper keeper;
        SetLastError(2);
        keeper.Renew();
        SetLastError(3);
    }
    EXPECT_EQ(GetLastError(), 2u);
}

}  // namespace
