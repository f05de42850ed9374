// The local environment beside that of the process, and beside those of other processes; and with
// more entries than a byte counts.
#include "tests/support/support.h"

#include "rm.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::inChild;
using rmtest::resetCalls;

constexpr const char* kName = "RM_TEST_VARIABLE";  // a name that no environment has

class LocalEnvBeside : public rmtest::RmTest
{
  protected:
    void TearDown() override
    {
        unsetenv(kName);
        RmTest::TearDown();
    }
};

TEST_F(LocalEnvBeside, DoesNotKnowWhatTheProcessHas)
{
    setenv(kName, "process", 1);
    rm_putLocalEnv("OTHER=1");
    EXPECT_EQ(rm_getLocalEnv(kName), nullptr);
    rm_putLocalEnv("RM_TEST_VARIABLE=local");
    rm_putLocalEnv(kName);
    EXPECT_EQ(rm_getLocalEnv(kName), nullptr) << "nor when it was there and was removed";
}

TEST_F(LocalEnvBeside, AnswersWithoutAskingTheProcess)
{
    rm_putLocalEnv("RM_TEST_VARIABLE=local");
    setenv(kName, "process", 1);
    resetCalls();
    const char* value = rm_getenv("Rm_Test_Variable");
    EXPECT_EQ(callCount(Call::kGetenv), 0);
    EXPECT_STREQ(value, "LOCAL");
}

TEST_F(LocalEnvBeside, AsksTheProcessOnceForWhatItDoesNotKnow)
{
    setenv(kName, "process", 1);
    resetCalls();
    const char* value = rm_getenv(kName);
    const auto asked = rmtest::callTrace({Call::kGetenv});
    EXPECT_STREQ(value, "process");
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_EQ(asked[0].path(), kName) << "with its case as given";
}

TEST_F(LocalEnvBeside, IsInheritedByAChildAndNotSharedWithIt)
{
    rm_putLocalEnv("INHERITED=parent");
    inChild([] {
        EXPECT_STREQ(rm_getenv("inherited"), "PARENT");
        rm_putLocalEnv("INHERITED=child");
        rm_putLocalEnv("NEW=child");
        EXPECT_STREQ(rm_getenv("inherited"), "CHILD");
    });
    EXPECT_STREQ(rm_getLocalEnv("INHERITED"), "PARENT");
    EXPECT_EQ(rm_getLocalEnv("NEW"), nullptr);
}

class LocalEnvMany : public rmtest::RmTest
{
};

TEST_F(LocalEnvMany, EachOfThemIsFoundAndReplacedInItsPlace)
{
    constexpr int kEntries = 600;
    const auto name = [](int n) { return "N" + std::to_string(1000 + n); };
    for (int n = 0; n < kEntries; ++n) {
        rm_putLocalEnv((name(n) + "=" + std::to_string(n)).c_str());
    }
    for (int n = 0; n < kEntries; ++n) {
        ASSERT_STREQ(rm_getLocalEnv(name(n).c_str()), std::to_string(n).c_str());
    }
    const char* last = rm_getLocalEnv(name(kEntries - 1).c_str());
    rm_putLocalEnv((name(400) + "=new").c_str());
    EXPECT_STREQ(rm_getLocalEnv(name(400).c_str()), "NEW");
    EXPECT_STREQ(rm_getLocalEnv(name(401).c_str()), "401");
    EXPECT_EQ(rm_getLocalEnv(name(kEntries - 1).c_str()), last) << "the others stay where they are";
}
}  // namespace
