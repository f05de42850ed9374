// Processes: what a call that does nothing must not do, and what is the process's own after a fork.
#include "tests/support/support.h"

#include "rm/unix/unix.h"

#include <cerrno>
#include <cstdint>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace
{
using rmtest::callTrace;
using rmtest::inChild;
using rmtest::resetCalls;

class ProcessState : public rmtest::RmTest
{
  protected:
    // The state of a fresh process, whatever cases ran before in this one.
    void SetUp() override
    {
        os::ForegroundThreadID = -1;
        os::DefaultPriority = 0;
        rmanTerm = 0;
        RmTest::SetUp();
    }
};

TEST_F(ProcessState, ABeginningThreadIsNoProcessEither)
{
    void (*start)(void*) = [](void*) { _exit(1); };
    EXPECT_EQ(rm_threadBegin(start, nullptr), 1);
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(ProcessState, AThreadThatBeginsInAChildLeavesTheForegroundToTheParent)
{
    ASSERT_EQ(rm_threadBegin(), 1);
    inChild([] {
        EXPECT_EQ(rm_threadBegin(), 1);
        EXPECT_EQ(os::ForegroundThreadID, getppid());
        EXPECT_EQ(rm_foregroundThread(), 0);
    });
}

TEST_F(ProcessState, AChildOfAChildIsInTheForegroundOfNobody)
{
    ASSERT_EQ(rm_foregroundThread(), 1);
    inChild([] {
        EXPECT_EQ(rm_setForegroundThread(), static_cast<int16_t>(getpid()));
        inChild([] { EXPECT_EQ(rm_foregroundThread(), 0); });
        EXPECT_EQ(rm_foregroundThread(), 1);
    });
}

TEST_F(ProcessState, IsTheChildsOwn)
{
    rm_threadDefaultPriority(3);
    inChild([] {
        EXPECT_EQ(os::DefaultPriority, 3);
        rm_threadDefaultPriority(4);
        rm_setOSTerm(2);
        rm_setForegroundThread();
    });
    EXPECT_EQ(os::DefaultPriority, 3);
    EXPECT_EQ(rm_getOSTerm(), 0);
    EXPECT_EQ(os::ForegroundThreadID, -1);
}

TEST_F(ProcessState, IsLeftAloneByTheEndOfAThread)
{
    os::ForegroundThreadID = 12345;
    rm_threadDefaultPriority(3);
    rm_setOSTerm(2);
    rm_threadEnd();
    EXPECT_EQ(os::ForegroundThreadID, 12345);
    EXPECT_EQ(os::DefaultPriority, 3);
    EXPECT_EQ(rm_getOSTerm(), 2);
}

TEST_F(ProcessState, IsLeftAloneByAStateOrAPriority)
{
    for (const int16_t value : {int16_t{2}, int16_t{3}, int16_t{0}}) {
        resetCalls();
        rm_setOSTerm(value);
        EXPECT_EQ(rm_threadDefaultPriority(value), 0);
        EXPECT_TRUE(callTrace().empty());
        EXPECT_EQ(os::ForegroundThreadID, -1);
    }
}
}  // namespace
