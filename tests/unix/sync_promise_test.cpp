// Sync objects at the places where two rules meet: the errno of a handle that is none, the order of
// flag, handler and alarm, waits that end fatally, and a set that no object uses.
#include "tests/support/printed.h"
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <array>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include <signal.h>
#include <sys/sem.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::failure;
using rmtest::printedBy;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using rmtest::semValue;

constexpr const char* kToken = ".ZNT.RM.SEM";

class SyncPromiseCase : public rmtest::RmTest
{
  protected:
    void TearDown() override
    {
        alarm(0);
        signal(SIGALRM, SIG_DFL);
        rm_syncTerminate();
        RmTest::TearDown();
    }
};

// --- Handles that name no object, with an errno that has nothing to do with it

struct Operation {
    const char* name;
    int16_t (*call)(SyncHandle);
    const char* function;
    int error;  // in the message, when errno was EDOM before
};

void PrintTo(const Operation& operation, std::ostream* out)
{
    *out << operation.name;
}

class SyncBadHandle : public SyncPromiseCase, public ::testing::WithParamInterface<Operation>
{
};

TEST_P(SyncBadHandle, GivesTheErrnoOfTheCallerOnlyOnTheWayOutOfALock)
{
    rm_syncCreate("keeper");
    const std::string line =
        failure(GetParam().function, "Invalid Semaphore Handle", GetParam().error) + '\n';
    for (const SyncHandle handle : {SyncHandle{1}, SyncHandle{20}, SyncHandle{-1}}) {
        EXPECT_EQ(printedBy([&] {
                      errno = EDOM;
                      GetParam().call(handle);
                  }),
                  line)
            << handle;
    }
}

INSTANTIATE_TEST_SUITE_P(
    In, SyncBadHandle,
    ::testing::Values(
        Operation{"Enter", [](SyncHandle h) { return rm_syncEnterExcl(h, RM_WAIT_FOREVER); },
                  "rm_syncEnterExcl", 0},
        Operation{"EnterTimed", [](SyncHandle h) { return rm_syncEnterExcl(h, 1000); },
                  "rm_syncEnterExcl", 0},
        Operation{"Exit", rm_syncExitExcl, "rm_syncExitExcl", EDOM},
        Operation{"Wait", [](SyncHandle h) { return rm_syncWait(h, RM_WAIT_FOREVER); },
                  "rm_syncWait", 0},
        Operation{"WaitTimed", [](SyncHandle h) { return rm_syncWait(h, 1000); }, "rm_syncWait", 0},
        Operation{"Start", rm_syncStart, "rm_syncStart", 0},
        Operation{"Resume", rm_syncResume, "rm_syncResume", 0}),
    [](const ::testing::TestParamInfo<Operation>& operation) {
        return std::string(operation.param.name);
    });

// --- The last of the twenty

class SyncLastSlot : public SyncPromiseCase
{
  protected:
    void SetUp() override
    {
        SyncPromiseCase::SetUp();
        for (int n = 0; n < 19; ++n) {
            rm_syncCreate("other");
        }
        EXPECT_EQ(rm_syncCreate("last"), 19);
    }
};

TEST_F(SyncLastSlot, IsFoundByItsName)
{
    EXPECT_EQ(rm_syncOpen("last"), 19);
}

TEST_F(SyncLastSlot, IsALockAndAnEventLikeTheOthers)
{
    EXPECT_EQ(rm_syncEnterExcl(19, 1000), 0);
    EXPECT_EQ(semValue(os::iSem, 19), 0);
    EXPECT_EQ(rm_syncExitExcl(19), 0);
    EXPECT_EQ(rm_syncResume(19), 0);
    EXPECT_EQ(rm_syncWait(19, 1000), 0);
    EXPECT_EQ(rm_syncResume(19), 0);
    EXPECT_EQ(rm_syncStart(19), 0);
    for (int n = 0; n < 20; ++n) {
        EXPECT_EQ(semValue(os::iSem, n), 1) << n;
    }
}

// The set's id is only forgotten when its last object is deleted.
TEST_F(SyncLastSlot, IsDeletedByTheTerminationToo)
{
    EXPECT_EQ(rm_syncTerminate(), 0);
    EXPECT_EQ(os::rmSem[19], nullptr);
    EXPECT_EQ(os::iSem, -1);
    EXPECT_EQ(rm_syncCreate("again"), 0);
}

// --- The alarm of a wait

class SyncWaitAlarm : public SyncPromiseCase
{
};

// An alarm that comes as soon as it is set must not be forgotten again.
TEST_F(SyncWaitAlarm, IsSetAfterTheFlagOfAnEarlierOneWasCleared)
{
    rm_syncCreate("lock");
    os::alarm_signal = 1;
    std::vector<int> flags;
    const auto note = [&](const CallRecord& record) {
        if (record.args[0] != 0) {  // not the alarm(0) at the end
            flags.push_back(int{os::alarm_signal});
        }
        return false;
    };
    const ScopedFault handler({.call = Call::kSignal, .when = note});
    const ScopedFault clock({.call = Call::kAlarm, .when = note});
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
    EXPECT_THAT(flags, ::testing::ElementsAre(0, 0));
}

TEST_F(SyncWaitAlarm, ThatGoesOffRightAfterItWasSetIsNotForgotten)
{
    rm_syncCreate("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    const ScopedFault early({.call = Call::kAlarm, .action = [](const CallRecord&) -> int64_t {
                                 raise(SIGALRM);
                                 return 0;
                             }});
    const ScopedFault interrupted({.call = Call::kSemtimedop, .error = EINTR});
    resetCalls();
    EXPECT_EQ(rm_syncEnterExcl(0, 60'000), RM_TIMEOUT);
    EXPECT_EQ(callCount(Call::kSemtimedop), 1);
}

// Every interruption is looked at, not only the first: other signals may come before the alarm.
TEST_F(SyncWaitAlarm, EndsTheWaitForALockAfterOtherSignals)
{
    rm_syncCreate("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    for (const uint32_t timeout : {60'000U, RM_WAIT_FOREVER}) {
        os::alarm_signal = 0;
        const Call wait = timeout == RM_WAIT_FOREVER ? Call::kSemop : Call::kSemtimedop;
        const ScopedFault others({.call = wait, .error = EINTR, .times = 3});
        const ScopedFault ours({.call = wait, .action = [](const CallRecord&) -> int64_t {
                                    raise(SIGALRM);
                                    errno = EINTR;
                                    return -1;
                                }});
        // A wait that has missed the alarm gets the lock instead of waiting for ever.
        const ScopedFault instead({.call = wait, .result = 0});
        resetCalls();
        EXPECT_EQ(rm_syncEnterExcl(0, timeout), RM_TIMEOUT);
        EXPECT_EQ(callCount(wait), 4);
        EXPECT_EQ(os::alarm_signal, 1);
    }
}

// A host that jumped out has the alarm still to come: its handler is there for it.
TEST_F(SyncWaitAlarm, IsLeftSetWhenTheWaitEndsFatally)
{
    rm_syncCreate("object");
    int16_t (*const waits[])() = {[] { return rm_syncEnterExcl(0, 100'000); },
                                  [] { return rm_syncWait(0, 100'000); }};
    for (const auto wait : waits) {
        const ScopedFault fault({.call = Call::kSemtimedop, .error = EIDRM});
        printedBy([=] { wait(); });
        EXPECT_GT(alarm(0), 0U);
        EXPECT_EQ(signal(SIGALRM, SIG_DFL), &catchAlarm);
    }
}

TEST_F(SyncWaitAlarm, IsGoneWhenTheEventCannotBeResetAgain)
{
    rm_syncCreate("event");
    rm_syncResume(0);
    const ScopedFault fault({.call = Call::kSemop, .error = ERANGE});
    EXPECT_EQ(printedBy([] { rm_syncWait(0, 100'000); }),
              failure("rm_syncWait", "semop() failure", ERANGE) + '\n');
    EXPECT_EQ(alarm(0), 0U);
}

// It would end the process.
TEST_F(SyncWaitAlarm, IsNotSetWithoutItsHandler)
{
    rm_syncCreate("object");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    const ScopedFault fault({.call = Call::kSignal, .error = EINVAL, .times = rmtest::kForever});
    resetCalls();
    EXPECT_EQ(rm_syncEnterExcl(0, 1), RM_TIMEOUT);
    rm_syncExitExcl(0);
    EXPECT_EQ(rm_syncWait(0, 1), RM_TIMEOUT);
    for (const CallRecord& record : callTrace({Call::kAlarm})) {
        EXPECT_EQ(record.args[0], 0);
    }
}

// The clock of a timed wait is the process's own alarm.
TEST_F(SyncWaitAlarm, NeedsNoThread)
{
    const auto threads = [] {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return std::distance(begin(tasks), end(tasks));
    };
    const auto before = threads();
    rm_syncCreate("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    auto during = before;
    const ScopedFault look({.call = Call::kSemtimedop, .action = [&](const CallRecord& record) {
                                during = threads();
                                return rmtest::passThrough(record);
                            }});
    EXPECT_EQ(rm_syncEnterExcl(0, 1), RM_TIMEOUT);
    EXPECT_EQ(during, before);
    EXPECT_EQ(threads(), before);
}

// --- A set that no object uses

class SyncUnusedSet : public SyncPromiseCase
{
  protected:
    void SetUp() override
    {
        SyncPromiseCase::SetUp();
        rm_syncCreate("lock");
        set_ = os::iSem;
        const ScopedFault fault(
            {.call = Call::kSemctl, .error = EPERM, .when = [](const CallRecord& record) {
                 return record.args[2] == IPC_RMID;
             }});
        printedBy([] { rm_syncDelete(0); });
        EXPECT_EQ(os::nSems, 0);
        EXPECT_NE(semValue(set_, 0), -1);
    }

    int set_ = -1;
};

TEST_F(SyncUnusedSet, GoesWithTheDeletionOfAFreeSlot)
{
    EXPECT_EQ(rm_syncDelete(7), 0);
    EXPECT_EQ(semValue(set_, 0), -1);
    EXPECT_EQ(os::iSem, -1);
    EXPECT_EQ(os::gfpRMSemTokenFile, nullptr);
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

TEST_F(SyncUnusedSet, IsJoinedByTheNextObjectWithoutANewTokenFile)
{
    resetCalls();
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(os::iSem, set_);
    EXPECT_EQ(semValue(set_, 0), 1);
    EXPECT_TRUE(callTrace({Call::kOpen, Call::kFtok, Call::kSemget}).empty());
}

// The id is kept there: the next object finds no set behind it.
TEST_F(SyncUnusedSet, ThatATerminationRemovedMakesTheNextObjectFatal)
{
    EXPECT_EQ(rm_syncTerminate(), 0);
    EXPECT_EQ(os::iSem, set_);
    EXPECT_EQ(printedBy([] { rm_syncCreate("lock"); }),
              failure("rm_syncCreate", "semop() failure", EINVAL) + '\n');
}

TEST_F(SyncUnusedSet, ThatATerminationRemovedIsForgottenByTheObjectThatFails)
{
    EXPECT_EQ(rm_syncTerminate(), 0);
    printedBy([] { rm_syncCreate("lock"); });
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(os::checkSync(), 0U);
    EXPECT_EQ(semValue(os::iSem, 0), 1);
    EXPECT_TRUE(std::filesystem::exists(kToken));
}

TEST_F(SyncUnusedSet, ThatATerminationRemovedIsForgottenByASecondOne)
{
    EXPECT_EQ(rm_syncTerminate(), 0);
    EXPECT_EQ(printedBy([] { rm_syncTerminate(); }),
              failure("rm_syncTerminate", "semctl() failure", EINVAL) + '\n');
    EXPECT_EQ(rm_syncTerminate(), 0);
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(semValue(os::iSem, 0), 1);
}
}  // namespace
