// Processes, environment and raw memory. Each call is small; what counts is that it does exactly
// this much and no more.
#include "tests/support/support.h"

#include "rm/unix/unix.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::inChild;
using rmtest::resetCalls;
using rmtest::ScopedFault;

// What the process began with, before any case could change it.
const int32_t initialForeground = os::ForegroundThreadID;
const int16_t initialPriority = os::DefaultPriority;
const int16_t initialTerm = rmanTerm;

TEST(FreshProcess, HasNoForegroundYet)
{
    EXPECT_EQ(initialForeground, -1);
}

TEST(FreshProcess, HasTheDefaultPriorityZero)
{
    EXPECT_EQ(initialPriority, 0);
}

TEST(FreshProcess, IsNotTerminating)
{
    EXPECT_EQ(initialTerm, 0);
}

// The state of a fresh process, whatever cases ran before in this one.
class ProcessTest : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        os::ForegroundThreadID = -1;
        os::DefaultPriority = 0;
        rmanTerm = 0;
        RmTest::SetUp();
    }
};

class Foreground : public ProcessTest
{
};

class Threads : public ProcessTest
{
};

class CriticalSections : public ProcessTest
{
};

class Sleeping : public ProcessTest
{
};

class Environment : public ProcessTest
{
};

class Termination : public ProcessTest
{
};

class RawSegments : public ProcessTest
{
};

class HandleLimit : public ProcessTest
{
};

// --- Foreground

TEST_F(Foreground, IsTheProcessThatAsksFirst)
{
    EXPECT_EQ(rm_foregroundThread(), 1);
    EXPECT_EQ(os::ForegroundThreadID, getpid());
}

TEST_F(Foreground, StaysWhatItIsWhenAskedAgain)
{
    EXPECT_EQ(rm_foregroundThread(), 1);
    EXPECT_EQ(rm_foregroundThread(), 1);
    EXPECT_EQ(os::ForegroundThreadID, getpid());
}

TEST_F(Foreground, AForkedChildIsNot)
{
    EXPECT_EQ(rm_foregroundThread(), 1);
    const pid_t parent = getpid();
    inChild([parent] {
        EXPECT_EQ(rm_foregroundThread(), 0);
        EXPECT_EQ(os::ForegroundThreadID, parent);
    });
}

TEST_F(Foreground, AChildForkedBeforeAnybodyAskedIsItsOwn)
{
    inChild([] { EXPECT_EQ(rm_foregroundThread(), 1); });
    EXPECT_EQ(os::ForegroundThreadID, -1);
}

TEST_F(Foreground, AChildBecomesItWhenItSaysSo)
{
    EXPECT_EQ(rm_foregroundThread(), 1);
    inChild([] {
        EXPECT_EQ(rm_setForegroundThread(), static_cast<int16_t>(getpid()));
        EXPECT_EQ(rm_foregroundThread(), 1);
        EXPECT_EQ(os::ForegroundThreadID, getpid());
    });
    EXPECT_EQ(rm_foregroundThread(), 1);
}

TEST_F(Foreground, SettingItReplacesAnEarlierProcess)
{
    os::ForegroundThreadID = getpid() + 1;
    EXPECT_EQ(rm_foregroundThread(), 0);
    rm_setForegroundThread();
    EXPECT_EQ(rm_foregroundThread(), 1);
}

TEST_F(Foreground, SettingItReturnsTheIdCutTo16Bits)
{
    constexpr std::array<std::pair<int32_t, int16_t>, 5> kIds = {
        {{1, 1}, {32767, 32767}, {32768, -32768}, {65536, 0}, {4194303, -1}}};
    for (const auto& [pid, cut] : kIds) {
        const ScopedFault fault({.call = Call::kGetpid, .result = pid});
        EXPECT_EQ(rm_setForegroundThread(), cut);
        EXPECT_EQ(os::ForegroundThreadID, pid) << "kept whole";
    }
}

TEST_F(Foreground, IdsAreComparedWhole)
{
    rm_setForegroundThread();
    const ScopedFault fault({.call = Call::kGetpid, .result = getpid() + 65536});
    EXPECT_EQ(rm_foregroundThread(), 0);
}

// --- Threads

int16_t threadsNow()
{
    return static_cast<int16_t>(
        std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                      std::filesystem::directory_iterator()));
}

TEST_F(Threads, BeginReturnsOneAndDecidesTheForeground)
{
    EXPECT_EQ(rm_threadBegin(), 1);
    EXPECT_EQ(os::ForegroundThreadID, getpid());
    EXPECT_EQ(rm_foregroundThread(), 1);
}

TEST_F(Threads, BeginReturnsOneAndLeavesADecidedForegroundAlone)
{
    os::ForegroundThreadID = 12345;
    EXPECT_EQ(rm_threadBegin(), 1);
    EXPECT_EQ(os::ForegroundThreadID, 12345);
}

TEST_F(Threads, BeginTakesUpToFourArgumentsAndIgnoresThem)
{
    bool called = false;
    void (*start)(void*) = [](void* flag) { *static_cast<bool*>(flag) = true; };
    EXPECT_EQ(rm_threadBegin(start), 1);
    EXPECT_EQ(rm_threadBegin(start, &called), 1);
    EXPECT_EQ(rm_threadBegin(start, &called, 3L), 1);
    EXPECT_EQ(rm_threadBegin(start, &called, 3L, "four"), 1);
    EXPECT_FALSE(called);
}

TEST_F(Threads, BeginStartsNone)
{
    const int16_t before = threadsNow();
    void (*start)() = [] { ADD_FAILURE() << "was started"; };
    EXPECT_EQ(rm_threadBegin(start), 1);
    EXPECT_EQ(threadsNow(), before);
}

TEST_F(Threads, EndDoesNothingAndReturns)
{
    resetCalls();
    rm_threadEnd();
    EXPECT_TRUE(callTrace().empty());
    EXPECT_EQ(os::ForegroundThreadID, -1);
}

TEST_F(Threads, TheDefaultPriorityIsStored)
{
    for (const int16_t priority :
         {int16_t{7}, int16_t{-1}, int16_t{INT16_MAX}, int16_t{INT16_MIN}}) {
        EXPECT_EQ(rm_threadDefaultPriority(priority), 0);
        EXPECT_EQ(os::DefaultPriority, priority);
    }
}

TEST_F(Threads, TheDefaultPriorityIsUsedForNothing)
{
    const int before = getpriority(PRIO_PROCESS, 0);
    rm_threadDefaultPriority(19);
    rm_threadBegin();
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), before);
}

// --- Critical sections

TEST_F(CriticalSections, DoNothingInPairs)
{
    resetCalls();
    for (const int16_t section : {int16_t{0}, int16_t{1}, int16_t{-1}, int16_t{INT16_MAX}}) {
        rm_enterCritSec(section);
        rm_exitCritSec(section);
    }
    EXPECT_TRUE(callTrace().empty());
}

TEST_F(CriticalSections, EnteredTwiceDoNotBlock)
{
    rm_enterCritSec(0);
    rm_enterCritSec(0);
    rm_exitCritSec(0);
    rm_exitCritSec(0);
}

TEST_F(CriticalSections, MayBeLeftWithoutHavingBeenEntered)
{
    rm_exitCritSec(0);
    rm_exitCritSec(1);
    rm_enterCritSec(0);
}

// --- Sleeping

// The seconds that the platform was asked to sleep for `milliseconds`, without sleeping them.
int64_t secondsFor(uint32_t milliseconds)
{
    const ScopedFault fault({.call = Call::kSleep, .result = 0});
    resetCalls();
    EXPECT_EQ(rm_sleep(milliseconds), 0U);
    const std::vector<CallRecord> trace = callTrace({Call::kSleep});
    EXPECT_EQ(trace.size(), 1U);
    return trace.empty() ? -1 : trace[0].args[0];
}

TEST_F(Sleeping, ForZeroMillisecondsCallsSleepWithZero)
{
    EXPECT_EQ(secondsFor(0), 0);
}

TEST_F(Sleeping, ForOneMillisecondTakesOneSecond)
{
    EXPECT_EQ(secondsFor(1), 1);
}

TEST_F(Sleeping, ForAThousandMillisecondsTakesOneSecond)
{
    EXPECT_EQ(secondsFor(1000), 1);
}

TEST_F(Sleeping, ForAThousandAndOneMillisecondsTakesTwoSeconds)
{
    EXPECT_EQ(secondsFor(1001), 2);
}

TEST_F(Sleeping, RoundsUpEverywhere)
{
    for (const uint32_t ms : {999U, 1999U, 2000U, 2001U, 60000U, 2147483647U, 2147483648U}) {
        EXPECT_EQ(secondsFor(ms), (static_cast<int64_t>(ms) + 999) / 1000) << ms;
    }
}

TEST_F(Sleeping, TheLargestValuesWrapAroundInUnsignedArithmetic)
{
    EXPECT_EQ(secondsFor(UINT32_MAX - 999), 4294967);
    EXPECT_EQ(secondsFor(UINT32_MAX - 998), 0);
    EXPECT_EQ(secondsFor(UINT32_MAX), 0);
}

TEST_F(Sleeping, ReturnsWhatSleepReturns)
{
    const ScopedFault fault({.call = Call::kSleep, .result = 17});
    EXPECT_EQ(rm_sleep(20000), 17U);
}

TEST_F(Sleeping, ReallySleeps)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(rm_sleep(1), 0U);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990));
}

// --- Environment

TEST_F(Environment, AVariableGivesThePlatformsOwnValue)
{
    setenv("RM_TEST_VARIABLE", "a Value", 1);
    EXPECT_STREQ(rm_OSgetenv("RM_TEST_VARIABLE"), "a Value");
    EXPECT_EQ(rm_OSgetenv("RM_TEST_VARIABLE"), std::getenv("RM_TEST_VARIABLE"));
    unsetenv("RM_TEST_VARIABLE");
}

TEST_F(Environment, AnUnknownNameGivesNull)
{
    unsetenv("RM_TEST_VARIABLE");
    EXPECT_EQ(rm_OSgetenv("RM_TEST_VARIABLE"), nullptr);
}

TEST_F(Environment, NamesAreTakenWithTheirCase)
{
    setenv("rm_test_variable", "x", 1);
    unsetenv("RM_TEST_VARIABLE");
    EXPECT_EQ(rm_OSgetenv("RM_TEST_VARIABLE"), nullptr);
    unsetenv("rm_test_variable");
}

TEST_F(Environment, AnEmptyValueIsAValue)
{
    setenv("RM_TEST_VARIABLE", "", 1);
    EXPECT_STREQ(rm_OSgetenv("RM_TEST_VARIABLE"), "");
    unsetenv("RM_TEST_VARIABLE");
}

TEST_F(Environment, LocalSettingsAreNotSeen)
{
    unsetenv("RM_TEST_VARIABLE");
    rm_putLocalEnv("RM_TEST_VARIABLE=local");
    EXPECT_EQ(rm_OSgetenv("RM_TEST_VARIABLE"), nullptr);
}

// --- Termination state

TEST_F(Termination, IsWhatWasSet)
{
    for (const int16_t state :
         {int16_t{2}, int16_t{3}, int16_t{0}, int16_t{INT16_MAX}, int16_t{INT16_MIN}}) {
        rm_setOSTerm(state);
        EXPECT_EQ(rm_getOSTerm(), state);
        EXPECT_EQ(rmanTerm, state);
    }
}

TEST_F(Termination, IsTheExportedVariable)
{
    rmanTerm = 9;
    EXPECT_EQ(rm_getOSTerm(), 9);
}

TEST_F(Termination, IsInheritedByAChildAndThenItsOwn)
{
    rm_setOSTerm(2);
    inChild([] {
        EXPECT_EQ(rm_getOSTerm(), 2);
        rm_setOSTerm(3);
    });
    EXPECT_EQ(rm_getOSTerm(), 2);
}

// --- Raw segments

TEST_F(RawSegments, ComeFromTheHeapOfTheProcess)
{
    resetCalls();
    void* segment = rm_getSeg(100);
    ASSERT_NE(segment, nullptr);
    rm_freeSeg(segment);
    const std::vector<CallRecord> trace = callTrace();
    ASSERT_EQ(trace.size(), 2U);
    EXPECT_EQ(trace[0].call, Call::kMalloc);
    EXPECT_EQ(trace[0].args[0], 100);
    EXPECT_EQ(trace[0].result, static_cast<int64_t>(reinterpret_cast<intptr_t>(segment)));
    EXPECT_EQ(trace[1].call, Call::kFree);
    EXPECT_EQ(trace[1].args[0], trace[0].result);
}

TEST_F(RawSegments, ThatCannotBeHadAreNull)
{
    const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
    EXPECT_EQ(rmtest::captureStderr([] { EXPECT_EQ(rm_getSeg(100), nullptr); }), "");
}

TEST_F(RawSegments, OfTheLargestSizeAreAskedForInFull)
{
    const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
    resetCalls();
    EXPECT_EQ(rm_getSeg(UINT32_MAX), nullptr);
    EXPECT_EQ(callTrace({Call::kMalloc}).at(0).args[0], int64_t{UINT32_MAX});
}

TEST_F(RawSegments, OfSizeZeroAreLeftToThePlatform)
{
    resetCalls();
    rm_freeSeg(rm_getSeg(0));
    EXPECT_EQ(callTrace({Call::kMalloc}).at(0).args[0], 0);
}

TEST_F(RawSegments, NullMayBeFreed)
{
    rm_freeSeg(nullptr);
}

TEST_F(RawSegments, DoNotCountAsMemoryOfTheLibrary)
{
    void* segment = rm_getSeg(100);
    EXPECT_EQ(rm_memused(), 0U);
    rm_freeSeg(segment);
}

// --- Descriptor limit of the platform

TEST_F(HandleLimit, OfThePlatformIsLeftAlone)
{
    struct rlimit before = {};
    struct rlimit after = {};
    getrlimit(RLIMIT_NOFILE, &before);
    resetCalls();
    rm_setOSHandleLimit();
    EXPECT_TRUE(callTrace().empty());
    getrlimit(RLIMIT_NOFILE, &after);
    EXPECT_EQ(after.rlim_cur, before.rlim_cur);
    EXPECT_EQ(after.rlim_max, before.rlim_max);
}
}  // namespace
