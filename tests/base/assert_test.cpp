// The debug assertion: builds with assertions end at it, with the place and the condition.
#include "tests/support/support.h"

#include "rm/base.h"

#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ::testing::HasSubstr;

namespace
{
class Assertion : public rmtest::RmTest
{
};

TEST_F(Assertion, ThatHoldsDoesNothing)
{
    const rmtest::ChildResult child = rmtest::runChild([] { RM_ASSERT(1 + 1 == 2); });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.err, "");
}

#ifndef NDEBUG
TEST_F(Assertion, ThatFailsAbortsWithItsPlaceAndCondition)
{
    const rmtest::ChildResult child = rmtest::runChild([] { RM_ASSERT(1 + 1 == 3); });
    EXPECT_FALSE(child.exited);
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_THAT(child.err, HasSubstr("assert_test.cpp:"));
    EXPECT_THAT(child.err, HasSubstr("assertion failed: 1 + 1 == 3"));
}

TEST_F(Assertion, ThatFailsUsesNeitherTheLogNorTheFatalPath)
{
    const rmtest::ChildResult child = rmtest::runChild([] { RM_ASSERT(false); });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_THAT(child.err, ::testing::Not(HasSubstr("[")));
    EXPECT_EQ(child.out, "");
}
#endif
}  // namespace
