// Where a failed assertion stood: file, line and condition, in the order in which compilers say it.
// Editors lead there.
#include "tests/support/support.h"

#include "rm/base.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ::testing::EndsWith;

namespace
{
class AssertionPlace : public rmtest::RmTest
{
};

#ifndef NDEBUG
TEST_F(AssertionPlace, IsFileLineAndConditionInOneLine)
{
    constexpr int kLine = __LINE__ + 1;
    const rmtest::ChildResult child = rmtest::runChild([] { RM_ASSERT(2 + 2 == 5); });
    const std::string end = ":" + std::to_string(kLine) + ": assertion failed: 2 + 2 == 5\n";
    EXPECT_THAT(child.err, EndsWith("assert_place_test.cpp" + end));
}
#endif
}  // namespace
