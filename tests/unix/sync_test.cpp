// Sync objects within one process: the table, the set and its token file, locks, events, time-outs
// and the system calls that each operation makes. What takes several processes is tested in
// tests/multiprocess, what takes a failing system call in sync_fault_test.cpp.
#include "tests/support/printed.h"
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::catchFatal;
using rmtest::kForever;
using rmtest::printedBy;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using rmtest::semValue;
using rmtest::writeFile;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr const char* kToken = ".ZNT.RM.SEM";
constexpr int kEverySlot = 20;

// --- Watching

// Notes in words each call that the sync layer makes, as it is made.
class Calls
{
  public:
    Calls()
    {
        for (const Call call :
             {Call::kOpen, Call::kFdopen, Call::kFopen, Call::kFclose, Call::kUnlink, Call::kFtok,
              Call::kSemget, Call::kSemop, Call::kSemtimedop, Call::kSemctl, Call::kSignal,
              Call::kAlarm, Call::kSleep}) {
            watchers_.push_back(std::make_unique<ScopedFault>(
                rmtest::Fault{.call = call, .when = [this](const CallRecord& record) {
                                  notes_.push_back(inWords(record));
                                  return false;
                              }}));
        }
    }

    // Those since the last take().
    std::vector<std::string> take() { return std::exchange(notes_, {}); }

  private:
    static std::string operation(const CallRecord& record)
    {
        const auto* op = record.pointer<const sembuf>(1);
        std::string text = std::string(record.name) + " " + std::to_string(op->sem_num) + " ";
        text += (op->sem_op > 0 ? "+" : "") + std::to_string(op->sem_op);
        if (op->sem_flg != 0) {
            text += op->sem_flg == IPC_NOWAIT ? " nowait" : " flags " + std::to_string(op->sem_flg);
        }
        return record.args[2] == 1 ? text : text + " and more";
    }

    static std::string inWords(const CallRecord& record)
    {
        std::string name = record.name;
        switch (record.call) {
            case Call::kOpen:
            case Call::kUnlink:
                return name + " " + std::string(record.path());
            case Call::kFtok:
                return name + " " + std::string(record.path()) + " " +
                       std::to_string(record.args[1]);
            case Call::kSemget:
                return name + " " + std::to_string(record.args[1]) + " " +
                       std::to_string(record.args[2]);
            case Call::kSemop:
                return operation(record);
            case Call::kSemtimedop: {
                const auto* limit = record.pointer<const timespec>(3);
                return operation(record) + " within " + std::to_string(limit->tv_sec) + "s";
            }
            case Call::kSemctl:
                return name +
                       (record.args[2] == GETVAL     ? " GETVAL"
                        : record.args[2] == IPC_RMID ? " IPC_RMID"
                                                     : " other") +
                       " " + std::to_string(record.args[1]);
            case Call::kSignal:
                return name + (record.args[0] == SIGALRM ? " SIGALRM" : " other") +
                       (record.pointer<void>(1) == reinterpret_cast<void*>(&catchAlarm)
                            ? " catchAlarm"
                            : " other");
            case Call::kAlarm:
                return name + " " + std::to_string(record.args[0]);
            default:
                return name;
        }
    }

    std::vector<std::string> notes_;
    std::vector<std::unique_ptr<ScopedFault>> watchers_;
};

using Clock = std::chrono::steady_clock;

double secondsOf(const std::function<void()>& body)
{
    const Clock::time_point start = Clock::now();
    body();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// What a call on a failed sync object prints.
std::string failure(const char* function, const char* message, int error)
{
    std::array<char, 512> line;
    std::snprintf(line.data(), line.size(), "**** %s() %s, errno=%d (%s)\n", function, message,
                  error, std::strerror(error));
    return line.data();
}

int valueOf(int16_t handle)
{
    return semValue(os::iSem, handle);
}

// An alarm that is left would reach a later case that runs in this process.
unsigned takeAlarm()
{
    return alarm(0);
}

SyncHandle create(const char* name)
{
    const SyncHandle handle = rm_syncCreate(name);
    EXPECT_GE(handle, 0);
    return handle;
}

// Leaves nothing behind, whatever the case has made.
class SyncCase : public rmtest::RmTest
{
  protected:
    void TearDown() override
    {
        takeAlarm();
        signal(SIGALRM, SIG_DFL);
        EXPECT_EQ(os::checkSync(), 0U);
        rm_syncTerminate();
        RmTest::TearDown();
    }
};

class SyncCreate : public SyncCase
{
};

class SyncOpen : public SyncCase
{
};

class SyncDelete : public SyncCase
{
};

class SyncEnter : public SyncCase
{
};

class SyncExit : public SyncCase
{
};

class SyncEvent : public SyncCase
{
};

class SyncAlarm : public SyncCase
{
};

class SyncPrefix : public SyncCase
{
};

class SyncTerminate : public SyncCase
{
};

class SyncModel : public SyncCase
{
};

class SyncNullObject : public SyncCase
{
};

class SyncEmptiedName : public SyncCase
{
};

// --- Before the first object

TEST(SyncAtStart, HasNeitherObjectsNorASet)
{
    EXPECT_THAT(os::rmSem, ::testing::Each(nullptr));
    EXPECT_EQ(os::nSems, 0);
    EXPECT_EQ(os::iSem, -1);
    EXPECT_EQ(os::gfpRMSemTokenFile, nullptr);
    EXPECT_EQ(os::alarm_signal, 0);
    EXPECT_EQ(os::checkSync(), 0U);
}

TEST(SyncAtStart, TheLocksOfTheFileLayerDoNotExist)
{
    EXPECT_EQ(fileSem, -1);
    EXPECT_EQ(growSem, -1);
}

// --- Creating

TEST_F(SyncCreate, OfANullNameGivesTheNullObject)
{
    EXPECT_EQ(rm_syncCreate(nullptr), -2);
}

TEST_F(SyncCreate, OfAnEmptyNameGivesTheNullObject)
{
    EXPECT_EQ(rm_syncCreate(""), -2);
}

TEST_F(SyncCreate, OfTheNullObjectMakesNoSystemCall)
{
    resetCalls();
    rm_syncCreate("");
    rm_syncCreate(nullptr);
    EXPECT_TRUE(callTrace().empty());
    EXPECT_FALSE(std::filesystem::exists(kToken));
    EXPECT_EQ(os::nSems, 0);
}

TEST_F(SyncCreate, MakesTheTokenFileAndTheSetOnce)
{
    Calls calls;
    create("first");
    EXPECT_THAT(calls.take(), ElementsAre("open .ZNT.RM.SEM", "fdopen", "ftok .ZNT.RM.SEM 1",
                                          "semget 20 1023", "semop 0 +1"));
    create("second");
    EXPECT_THAT(calls.take(), ElementsAre("semop 1 +1"));
}

TEST_F(SyncCreate, MakesTheSetUnderTheKeyOfTheTokenFile)
{
    create("lock");
    EXPECT_EQ(semget(ftok(kToken, 1), 0, 0), os::iSem);
}

TEST_F(SyncCreate, MakesASetOf20ForEverybody)
{
    create("lock");
    semid_ds state = {};

    union {
        semid_ds* buf;
        long whole;
    } argument = {&state};

    ASSERT_EQ(semctl(os::iSem, 0, IPC_STAT, argument), 0);
    EXPECT_EQ(state.sem_nsems, 20U);
    EXPECT_EQ(state.sem_perm.mode & 0777U, 0777U);
}

TEST_F(SyncCreate, LeavesTheOtherSemaphoresAtZero)
{
    create("lock");
    for (int16_t n = 1; n < kEverySlot; ++n) {
        EXPECT_EQ(valueOf(n), 0) << n;
    }
}

TEST_F(SyncCreate, AddsOneToTheSemaphore)
{
    EXPECT_EQ(valueOf(create("lock")), 1);
}

TEST_F(SyncCreate, MakesAnEmptyTokenFileAndKeepsItOpen)
{
    create("lock");
    EXPECT_EQ(readFile(kToken), "");
    ASSERT_NE(os::gfpRMSemTokenFile, nullptr);
    EXPECT_NE(fcntl(fileno(os::gfpRMSemTokenFile), F_GETFD), -1);
}

TEST_F(SyncCreate, TruncatesATokenFileThatIsThere)
{
    writeFile(kToken, "left behind");
    create("lock");
    EXPECT_EQ(readFile(kToken), "");
}

TEST_F(SyncCreate, KeepsTheTokenFileFromProgramsThatTheServerStarts)
{
    create("lock");
    ASSERT_NE(os::gfpRMSemTokenFile, nullptr);
    EXPECT_NE(fcntl(fileno(os::gfpRMSemTokenFile), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(SyncCreate, JoinsASetThatIsThere)
{
    writeFile(kToken, "");
    const int set = semget(ftok(kToken, 1), 20, 0777 | IPC_CREAT);
    ASSERT_NE(set, -1);
    sembuf add = {0, 4, 0};
    ASSERT_EQ(semop(set, &add, 1), 0);
    create("lock");
    EXPECT_EQ(os::iSem, set);
    EXPECT_EQ(valueOf(0), 5);
}

TEST_F(SyncCreate, CountsTheObjects)
{
    create("one");
    EXPECT_EQ(os::nSems, 1);
    create("two");
    EXPECT_EQ(os::nSems, 2);
    EXPECT_EQ(os::checkSync(), 0U);
}

TEST_F(SyncCreate, KeepsThePointerToTheName)
{
    const std::string name = "lock";
    const SyncHandle handle = create(name.c_str());
    EXPECT_EQ(os::rmSem.at(static_cast<std::size_t>(handle)), name.c_str());
}

TEST_F(SyncCreate, HandsOutHandles0To19)
{
    for (int n = 0; n < kEverySlot; ++n) {
        EXPECT_EQ(rm_syncCreate("lock"), n);
        EXPECT_EQ(os::checkSync(), 0U);
    }
}

TEST_F(SyncCreate, GivesEveryOneOf20ItsOwnSemaphore)
{
    for (int n = 0; n < kEverySlot; ++n) {
        create("lock");
    }
    rm_syncExitExcl(7);
    for (int16_t n = 0; n < kEverySlot; ++n) {
        EXPECT_EQ(valueOf(n), n == 7 ? 2 : 1) << n;
    }
}

TEST_F(SyncCreate, OfThe21stIsFatal)
{
    for (int n = 0; n < kEverySlot; ++n) {
        create("lock");
    }
    const std::string printed = printedBy([] {
        errno = ENOTTY;
        rm_syncCreate("one too many");
    });
    EXPECT_EQ(printed, failure("rm_syncCreate", "Out of Semaphores!", ENOTTY));
}

TEST_F(SyncCreate, OfThe21stLeavesTheOthersAsTheyAre)
{
    for (int n = 0; n < kEverySlot; ++n) {
        create("lock");
    }
    Calls calls;
    printedBy([] { rm_syncCreate("one too many"); });
    EXPECT_THAT(calls.take(), IsEmpty());
    EXPECT_EQ(os::nSems, 20);
    EXPECT_EQ(rm_syncOpen("one too many"), -1);
    EXPECT_EQ(rm_syncEnterExcl(19, RM_WAIT_FOREVER), 0);
}

TEST_F(SyncCreate, TakesTheLowestFreeHandle)
{
    for (const char* name : {"a", "b", "c", "d"}) {
        create(name);
    }
    rm_syncDelete(2);
    rm_syncDelete(1);
    EXPECT_EQ(rm_syncCreate("e"), 1);
    EXPECT_EQ(rm_syncCreate("f"), 2);
    EXPECT_EQ(rm_syncCreate("g"), 4);
}

TEST_F(SyncCreate, StartsAFreedHandleAt1)
{
    create("keeper");
    const SyncHandle handle = create("lock");
    rm_syncExitExcl(handle);
    rm_syncDelete(handle);
    EXPECT_EQ(create("again"), handle);
    EXPECT_EQ(valueOf(handle), 1);
}

TEST_F(SyncCreate, OfANameInUseMakesAnotherObject)
{
    EXPECT_EQ(create("lock"), 0);
    EXPECT_EQ(create("lock"), 1);
}

// Slots that a failed creation has named are not in use.
TEST_F(SyncCreate, ClearsTheTableWhenNoObjectCounts)
{
    os::rmSem[0] = "stale";
    os::rmSem[11] = "stale too";
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(rm_syncOpen("lock"), 0);
    EXPECT_EQ(os::rmSem[11], nullptr);
    EXPECT_EQ(os::checkSync(), 0U);
}

TEST_F(SyncCreate, MakesANewSetAfterTheLastObjectHasGone)
{
    rm_syncDelete(create("lock"));
    const SyncHandle handle = create("lock");
    EXPECT_EQ(handle, 0);
    EXPECT_EQ(valueOf(handle), 1);
    EXPECT_TRUE(std::filesystem::exists(kToken));
}

TEST_F(SyncCreate, RefusesASymbolicLinkInTheTokensPlace)
{
    writeFile("target", "precious");
    std::filesystem::create_symlink("target", kToken);
    EXPECT_EQ(printedBy([] { rm_syncCreate("lock"); }),
              failure("rm_syncCreate", "fopen() failure", ELOOP));
    EXPECT_EQ(readFile("target"), "precious");
    std::filesystem::remove(kToken);
    os::rmSem.fill(nullptr);
}

TEST_F(SyncCreate, DoesNotHangOnAPipeInTheTokensPlace)
{
    ASSERT_EQ(mkfifo(kToken, 0600), 0);
    const rmtest::ChildResult result = rmtest::runChild([] { rm_syncCreate("lock"); });
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.out, failure("rm_syncCreate", "fopen() failure", ENXIO));
    std::filesystem::remove(kToken);
}

// --- The prefix of the token file

TEST_F(SyncPrefix, IsPutBeforeTheTokenFile)
{
    std::filesystem::create_directory("run");
    rm_tokenName("run/");
    create("lock");
    EXPECT_TRUE(std::filesystem::exists("run/.ZNT.RM.SEM"));
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

TEST_F(SyncPrefix, NeedsNotBeADirectory)
{
    rm_tokenName("host1");
    create("lock");
    EXPECT_TRUE(std::filesystem::exists("host1.ZNT.RM.SEM"));
}

TEST_F(SyncPrefix, PartsTheSets)
{
    writeFile("other.ZNT.RM.SEM", "");
    rm_tokenName("mine");
    create("lock");
    EXPECT_EQ(semget(ftok("other.ZNT.RM.SEM", 1), 0, 0), -1);
}

TEST_F(SyncPrefix, ThatChangesDoesNotMoveTheSet)
{
    create("first");
    const int set = os::iSem;
    std::filesystem::create_directory("run");
    rm_tokenName("run/");
    create("second");
    EXPECT_EQ(os::iSem, set);
    EXPECT_FALSE(std::filesystem::exists("run/.ZNT.RM.SEM"));
}

TEST_F(SyncPrefix, ThatChangesDoesNotChangeWhichTokenFileGoes)
{
    create("lock");
    writeFile("other.ZNT.RM.SEM", "another server's");
    rm_tokenName("other");
    rm_syncDelete(0);
    EXPECT_FALSE(std::filesystem::exists(kToken));
    EXPECT_EQ(readFile("other.ZNT.RM.SEM"), "another server's");
}

TEST_F(SyncPrefix, ThatChangesDoesNotChangeWhichTokenFileTerminationRemoves)
{
    create("lock");
    writeFile("other.ZNT.RM.SEM", "another server's");
    rm_tokenName("other");
    rm_syncTerminate();
    EXPECT_FALSE(std::filesystem::exists(kToken));
    EXPECT_EQ(readFile("other.ZNT.RM.SEM"), "another server's");
}

TEST_F(SyncPrefix, ThatChangesCountsForTheNextSet)
{
    create("lock");
    rm_tokenName("other");
    rm_syncDelete(0);
    create("lock");
    EXPECT_TRUE(std::filesystem::exists("other.ZNT.RM.SEM"));
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

// --- Opening

TEST_F(SyncOpen, FindsNothingBeforeTheFirstObject)
{
    EXPECT_EQ(rm_syncOpen("lock"), -1);
}

TEST_F(SyncOpen, FindsAnObjectByItsName)
{
    create("a");
    create("b");
    create("c");
    EXPECT_EQ(rm_syncOpen("b"), 1);
}

TEST_F(SyncOpen, ComparesTheTextsAndNotThePointers)
{
    create("lock");
    EXPECT_EQ(rm_syncOpen(std::string("lock").c_str()), 0);
}

TEST_F(SyncOpen, FindsTheFirstOfEqualNames)
{
    create("other");
    create("lock");
    create("lock");
    EXPECT_EQ(rm_syncOpen("lock"), 1);
}

TEST_F(SyncOpen, TellsUpperFromLowerCase)
{
    create("lock");
    EXPECT_EQ(rm_syncOpen("Lock"), -1);
}

TEST_F(SyncOpen, DoesNotTakeABeginningForTheName)
{
    create("lock");
    EXPECT_EQ(rm_syncOpen("loc"), -1);
    EXPECT_EQ(rm_syncOpen("locks"), -1);
}

TEST_F(SyncOpen, DoesNotFindAFreeSlot)
{
    create("keeper");
    rm_syncDelete(create("lock"));
    EXPECT_EQ(rm_syncOpen("lock"), -1);
}

TEST_F(SyncOpen, PassesOverFreeSlots)
{
    create("a");
    create("b");
    create("c");
    rm_syncDelete(0);
    rm_syncDelete(1);
    EXPECT_EQ(rm_syncOpen("c"), 2);
}

TEST_F(SyncOpen, FindsNothingForAnEmptyName)
{
    create("lock");
    EXPECT_EQ(rm_syncOpen(""), -1);
}

TEST_F(SyncOpen, FindsNothingForANullName)
{
    create("lock");
    EXPECT_EQ(rm_syncOpen(nullptr), -1);
}

TEST_F(SyncOpen, MakesNoSystemCall)
{
    create("lock");
    resetCalls();
    rm_syncOpen("lock");
    rm_syncOpen("other");
    EXPECT_TRUE(callTrace().empty());
}

// --- Deleting

TEST_F(SyncDelete, ReturnsZeroAndFreesTheSlot)
{
    create("keeper");
    create("lock");
    EXPECT_EQ(rm_syncDelete(1), 0);
    EXPECT_EQ(os::rmSem[1], nullptr);
    EXPECT_EQ(os::nSems, 1);
    EXPECT_EQ(os::checkSync(), 0U);
}

TEST_F(SyncDelete, TakesTheSemaphoreDownToZero)
{
    create("keeper");
    create("lock");
    rm_syncExitExcl(1);
    rm_syncExitExcl(1);
    Calls calls;
    rm_syncDelete(1);
    EXPECT_THAT(calls.take(), ElementsAre("semctl GETVAL 1", "semop 1 -1 nowait",
                                          "semop 1 -1 nowait", "semop 1 -1 nowait"));
    EXPECT_EQ(valueOf(1), 0);
}

TEST_F(SyncDelete, LeavesAHeldLockAtZero)
{
    create("keeper");
    create("lock");
    rm_syncEnterExcl(1, RM_WAIT_FOREVER);
    Calls calls;
    EXPECT_EQ(rm_syncDelete(1), 0);
    EXPECT_THAT(calls.take(), ElementsAre("semctl GETVAL 1"));
}

// No semaphore is ever below zero; the loop is there for the day on which one is.
TEST_F(SyncDelete, BringsAValueBelowZeroUpToZero)
{
    create("keeper");
    create("lock");
    Calls calls;
    ScopedFault below({.call = Call::kSemctl, .result = -3});
    EXPECT_EQ(rm_syncDelete(1), 0);
    EXPECT_THAT(calls.take(), ElementsAre("semctl GETVAL 1", "semop 1 +1 nowait",
                                          "semop 1 +1 nowait", "semop 1 +1 nowait"));
}

TEST_F(SyncDelete, OfOneOfSeveralKeepsTheSetAndTheTokenFile)
{
    create("keeper");
    create("lock");
    rm_syncDelete(1);
    EXPECT_TRUE(std::filesystem::exists(kToken));
    EXPECT_EQ(valueOf(0), 1);
}

TEST_F(SyncDelete, OfTheLastRemovesTheSetAndTheTokenFile)
{
    create("lock");
    const int set = os::iSem;
    EXPECT_EQ(rm_syncDelete(0), 0);
    EXPECT_EQ(semValue(set, 0), -1);
    EXPECT_FALSE(std::filesystem::exists(kToken));
    EXPECT_EQ(os::iSem, -1);
    EXPECT_EQ(os::gfpRMSemTokenFile, nullptr);
    EXPECT_EQ(os::nSems, 0);
}

TEST_F(SyncDelete, OfTheLastMakesTheseCalls)
{
    create("lock");
    Calls calls;
    rm_syncDelete(0);
    EXPECT_THAT(calls.take(), ElementsAre("semctl GETVAL 0", "semop 0 -1 nowait",
                                          "semctl IPC_RMID 0", "fclose", "unlink .ZNT.RM.SEM"));
}

TEST_F(SyncDelete, InAnyOrderEndsWithTheLast)
{
    for (const char* name : {"a", "b", "c"}) {
        create(name);
    }
    for (const SyncHandle handle : {SyncHandle{1}, SyncHandle{2}, SyncHandle{0}}) {
        EXPECT_NE(os::iSem, -1);
        EXPECT_EQ(rm_syncDelete(handle), 0);
        EXPECT_EQ(os::checkSync(), 0U);
    }
    EXPECT_EQ(os::iSem, -1);
}

// The slot is not looked at: the semaphore of a free one is brought to zero like any other.
TEST_F(SyncDelete, OfAFreeSlotTakesItsSemaphoreDownToZero)
{
    create("lock");
    sembuf add = {5, 2, 0};
    ASSERT_EQ(semop(os::iSem, &add, 1), 0);
    EXPECT_EQ(rm_syncDelete(5), 0);
    EXPECT_EQ(valueOf(5), 0);
    EXPECT_EQ(os::nSems, 1);
}

TEST_F(SyncDelete, WithoutASetIsFatal)
{
    EXPECT_EQ(printedBy([] { rm_syncDelete(0); }),
              failure("rm_syncDelete", "semctl() failure", EINVAL));
}

TEST_F(SyncDelete, TwiceOfTheLastIsFatal)
{
    create("lock");
    rm_syncDelete(0);
    EXPECT_EQ(printedBy([] { rm_syncDelete(0); }),
              failure("rm_syncDelete", "semctl() failure", EINVAL));
}

TEST_F(SyncDelete, OutsideTheTableIsFatalWithoutASystemCall)
{
    create("lock");
    Calls calls;
    EXPECT_EQ(printedBy([] { rm_syncDelete(20); }),
              failure("rm_syncDelete", "semctl() failure", EINVAL));
    EXPECT_EQ(printedBy([] { rm_syncDelete(-1); }),
              failure("rm_syncDelete", "semctl() failure", EINVAL));
    EXPECT_THAT(calls.take(), IsEmpty());
    EXPECT_EQ(os::nSems, 1);
}

// --- The null object

struct HandleCall {
    const char* name;
    int16_t (*call)(SyncHandle);
    const char* function;
    const char* message;  // for a handle that names no object
};

void PrintTo(const HandleCall& operation, std::ostream* out)
{
    *out << operation.name;
}

constexpr const char* kInvalid = "Invalid Semaphore Handle";

const std::vector<HandleCall> kHandleCalls = {
    {"Enter", [](SyncHandle h) { return rm_syncEnterExcl(h, RM_WAIT_FOREVER); }, "rm_syncEnterExcl",
     kInvalid},
    {"EnterTimed", [](SyncHandle h) { return rm_syncEnterExcl(h, 1000); }, "rm_syncEnterExcl",
     kInvalid},
    {"Exit",
     [](SyncHandle h) {
         errno = 0;
         return rm_syncExitExcl(h);
     },
     "rm_syncExitExcl", kInvalid},
    {"Wait", [](SyncHandle h) { return rm_syncWait(h, RM_WAIT_FOREVER); }, "rm_syncWait", kInvalid},
    {"WaitTimed", [](SyncHandle h) { return rm_syncWait(h, 1000); }, "rm_syncWait", kInvalid},
    {"Start", [](SyncHandle h) { return rm_syncStart(h); }, "rm_syncStart", kInvalid},
    {"Resume", [](SyncHandle h) { return rm_syncResume(h); }, "rm_syncResume", kInvalid},
};

std::string nameOf(const ::testing::TestParamInfo<HandleCall>& info)
{
    return info.param.name;
}

class SyncNullObjectCall : public SyncCase, public ::testing::WithParamInterface<HandleCall>
{
};

TEST_P(SyncNullObjectCall, SucceedsBeforeTheFirstObject)
{
    EXPECT_EQ(GetParam().call(RM_NULL_SYNC), 0);
}

TEST_P(SyncNullObjectCall, MakesNoSystemCall)
{
    create("lock");
    resetCalls();
    EXPECT_EQ(GetParam().call(RM_NULL_SYNC), 0);
    EXPECT_TRUE(callTrace().empty());
    EXPECT_EQ(valueOf(0), 1);
}

INSTANTIATE_TEST_SUITE_P(Every, SyncNullObjectCall, ::testing::ValuesIn(kHandleCalls), nameOf);

TEST_F(SyncNullObject, IsDeletedWithoutASystemCall)
{
    create("lock");
    resetCalls();
    EXPECT_EQ(rm_syncDelete(RM_NULL_SYNC), 0);
    EXPECT_TRUE(callTrace().empty());
    EXPECT_EQ(os::nSems, 1);
}

TEST_F(SyncNullObject, IsDeletedBeforeTheFirstObject)
{
    EXPECT_EQ(rm_syncDelete(RM_NULL_SYNC), 0);
}

TEST_F(SyncNullObject, IsWhatAnEmptyNameGivesAndIsEnteredAtOnce)
{
    resetCalls();
    EXPECT_EQ(rm_syncEnterExcl(rm_syncCreate(""), 0), 0);
    EXPECT_TRUE(callTrace().empty());
}

// --- An object whose name the caller has emptied

class SyncEmptiedNameCall : public SyncCase, public ::testing::WithParamInterface<HandleCall>
{
};

TEST_P(SyncEmptiedNameCall, SucceedsWithoutASystemCall)
{
    std::array<char, 5> name = {"lock"};
    const SyncHandle handle = create(name.data());
    name[0] = '\0';
    resetCalls();
    EXPECT_EQ(GetParam().call(handle), 0);
    EXPECT_TRUE(callTrace().empty());
    EXPECT_EQ(valueOf(handle), 1);
    rm_syncTerminate();
}

INSTANTIATE_TEST_SUITE_P(Every, SyncEmptiedNameCall, ::testing::ValuesIn(kHandleCalls), nameOf);

TEST_F(SyncEmptiedName, IsDeletedLikeAnyOther)
{
    std::array<char, 5> name = {"lock"};
    create("keeper");
    const SyncHandle handle = create(name.data());
    name[0] = '\0';
    EXPECT_EQ(rm_syncDelete(handle), 0);
    EXPECT_EQ(os::nSems, 1);
    EXPECT_EQ(valueOf(handle), 0);
}

TEST_F(SyncEmptiedName, IsFoundByAnEmptyName)
{
    std::array<char, 5> name = {"lock"};
    const SyncHandle handle = create(name.data());
    name[0] = '\0';
    EXPECT_EQ(rm_syncOpen(""), handle);
    rm_syncTerminate();
}

// --- Handles that name no object

class SyncHandles : public SyncCase, public ::testing::WithParamInterface<HandleCall>
{
};

TEST_P(SyncHandles, OfAFreeSlotIsFatal)
{
    create("keeper");
    rm_syncDelete(create("lock"));
    EXPECT_EQ(printedBy([] { GetParam().call(1); }),
              failure(GetParam().function, GetParam().message, 0));
}

TEST_P(SyncHandles, BeforeTheFirstObjectIsFatal)
{
    EXPECT_EQ(printedBy([] { GetParam().call(0); }),
              failure(GetParam().function, GetParam().message, 0));
}

// 65,000 fatal errors take a few seconds in an instrumented program, and longer on a busy machine.
constexpr rmtest::Milliseconds kSweepLimit{100'000};

// Runs `call` on every signed 16-bit handle that `accepted` refuses. All must print `line`, and
// none may reach a semaphore.
void sweep(int16_t (*call)(SyncHandle), bool (*accepted)(int32_t), const std::string& line)
{
    const rmtest::ChildResult result = rmtest::runChild(
        [&] {
            int32_t jumps = 0;
            int32_t tried = 0;
            resetCalls();
            for (int32_t handle = INT16_MIN; handle <= INT16_MAX; ++handle) {
                if (!accepted(handle)) {
                    ++tried;
                    jumps += catchFatal([&] { call(static_cast<SyncHandle>(handle)); });
                }
            }
            EXPECT_EQ(jumps, tried);
            EXPECT_EQ(callCount(Call::kSemop) + callCount(Call::kSemtimedop) +
                          callCount(Call::kSemctl) + callCount(Call::kAlarm),
                      0);
        },
        kSweepLimit);
    std::size_t lines = 0;
    std::size_t at = 0;
    for (; result.out.compare(at, line.size(), line) == 0 && at < result.out.size();
         at += line.size()) {
        ++lines;
    }
    EXPECT_EQ(at, result.out.size()) << "printed instead: " << result.out.substr(at, 200);
    EXPECT_GT(lines, 65'000U);
}

class SyncHandleRange : public SyncHandles
{
};

TEST_P(SyncHandleRange, OutsideTheTableIsFatal)
{
    create("lock");
    sweep(
        GetParam().call, [](int32_t handle) { return handle == 0 || handle == RM_NULL_SYNC; },
        failure(GetParam().function, GetParam().message, 0));
    EXPECT_EQ(valueOf(0), 1);
}

INSTANTIATE_TEST_SUITE_P(Every, SyncHandles, ::testing::ValuesIn(kHandleCalls), nameOf);

// The handle is looked at before the time-out: the timed calls need no sweep of their own.
std::vector<HandleCall> callsOnce()
{
    std::vector<HandleCall> calls = kHandleCalls;
    std::erase_if(calls,
                  [](const HandleCall& c) { return std::string(c.name).ends_with("Timed"); });
    return calls;
}

INSTANTIATE_TEST_SUITE_P(Every, SyncHandleRange, ::testing::ValuesIn(callsOnce()), nameOf);

TEST_F(SyncDelete, OutsideTheTableIsFatalOverTheWholeRange)
{
    create("lock");
    sweep(
        rm_syncDelete,
        [](int32_t handle) { return (handle >= 0 && handle < 20) || handle == RM_NULL_SYNC; },
        failure("rm_syncDelete", "semctl() failure", EINVAL));
    EXPECT_EQ(valueOf(0), 1);
}

TEST_F(SyncDelete, OfEveryFreeSlotOfTheTableSucceeds)
{
    create("lock");
    for (SyncHandle handle = 1; handle < kEverySlot; ++handle) {
        EXPECT_EQ(rm_syncDelete(handle), 0) << handle;
    }
    EXPECT_EQ(os::nSems, 1);
}

// The other operations say 0, since no system call has failed.
TEST_F(SyncExit, OfABadHandleGivesTheErrnoOfTheCaller)
{
    EXPECT_EQ(printedBy([] {
                  errno = EDOM;
                  rm_syncExitExcl(3);
              }),
              failure("rm_syncExitExcl", "Invalid Semaphore Handle", EDOM));
}

TEST_F(SyncEnter, OfABadHandleGivesNoErrnoWhateverItWas)
{
    EXPECT_EQ(printedBy([] {
                  errno = EDOM;
                  rm_syncEnterExcl(3, RM_WAIT_FOREVER);
              }),
              failure("rm_syncEnterExcl", "Invalid Semaphore Handle", 0));
}

// --- Entering and leaving a lock

TEST_F(SyncEnter, TakesAFreeLock)
{
    create("lock");
    EXPECT_EQ(rm_syncEnterExcl(0, RM_WAIT_FOREVER), 0);
    EXPECT_EQ(valueOf(0), 0);
}

TEST_F(SyncEnter, TakesAFreeLockWithATimeout)
{
    create("lock");
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
    EXPECT_EQ(valueOf(0), 0);
}

TEST_F(SyncEnter, TakesAFreeLockWithATimeoutOfZero)
{
    create("lock");
    EXPECT_EQ(rm_syncEnterExcl(0, 0), 0);
    EXPECT_EQ(valueOf(0), 0);
}

TEST_F(SyncEnter, WithoutLimitMakesTheseCalls)
{
    create("lock");
    Calls calls;
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    EXPECT_THAT(calls.take(), ElementsAre("semop 0 -1", "alarm 0"));
}

TEST_F(SyncEnter, WithATimeoutMakesTheseCalls)
{
    create("keeper");
    create("lock");
    Calls calls;
    rm_syncEnterExcl(1, 3000);
    EXPECT_THAT(calls.take(), ElementsAre("signal SIGALRM catchAlarm", "alarm 3",
                                          "semtimedop 1 -1 within 3s", "alarm 0"));
}

TEST_F(SyncEnter, CancelsAnAlarmOfTheHostAlsoWithoutLimit)
{
    create("lock");
    alarm(100);
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    EXPECT_EQ(takeAlarm(), 0U);
}

TEST_F(SyncEnter, CancelsItsOwnAlarmWhenItHasTheLock)
{
    create("lock");
    rm_syncEnterExcl(0, 100'000);
    EXPECT_EQ(takeAlarm(), 0U);
}

TEST_F(SyncEnter, ReplacesTheHandlerOfTheHostAndDoesNotRestoreIt)
{
    create("lock");
    signal(SIGALRM, SIG_IGN);
    rm_syncEnterExcl(0, 1000);
    EXPECT_EQ(signal(SIGALRM, SIG_DFL), &catchAlarm);
}

TEST_F(SyncEnter, WithoutLimitLeavesTheHandlerOfTheHost)
{
    create("lock");
    signal(SIGALRM, SIG_IGN);
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    EXPECT_EQ(signal(SIGALRM, SIG_DFL), SIG_IGN);
}

TEST_F(SyncEnter, WithATimeoutForgetsAnEarlierAlarm)
{
    create("lock");
    os::alarm_signal = 1;
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
    EXPECT_EQ(os::alarm_signal, 0);
}

TEST_F(SyncEnter, WithoutLimitDoesNotForgetAnEarlierAlarm)
{
    create("lock");
    os::alarm_signal = 1;
    EXPECT_EQ(rm_syncEnterExcl(0, RM_WAIT_FOREVER), 0);
    EXPECT_EQ(os::alarm_signal, 1);
}

TEST_F(SyncEnter, WithATimeoutOfZeroDoesNotForgetAnEarlierAlarm)
{
    create("lock");
    os::alarm_signal = 1;
    EXPECT_EQ(rm_syncEnterExcl(0, 0), 0);
    EXPECT_EQ(os::alarm_signal, 1);
}

TEST_F(SyncEnter, TwiceByOneProcessWaitsForItself)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    EXPECT_EQ(rm_syncEnterExcl(0, 1), 1);
}

TEST_F(SyncExit, AddsOne)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    EXPECT_EQ(rm_syncExitExcl(0), 0);
    EXPECT_EQ(valueOf(0), 1);
}

TEST_F(SyncExit, MakesOneCall)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    Calls calls;
    rm_syncExitExcl(0);
    EXPECT_THAT(calls.take(), ElementsAre("semop 0 +1"));
}

TEST_F(SyncExit, LetsTheNextOneIn)
{
    create("lock");
    for (int n = 0; n < 100; ++n) {
        ASSERT_EQ(rm_syncEnterExcl(0, 1000), 0);
        ASSERT_EQ(rm_syncExitExcl(0), 0);
    }
    EXPECT_EQ(valueOf(0), 1);
}

TEST_F(SyncExit, DoesNotCheckThatTheCallerHoldsTheLock)
{
    create("lock");
    EXPECT_EQ(rm_syncExitExcl(0), 0);
    EXPECT_EQ(valueOf(0), 2);
}

TEST_F(SyncExit, OnceTooOftenLetsTwoIn)
{
    create("lock");
    rm_syncExitExcl(0);
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
}

// --- Time-outs

struct Timeout {
    const char* name;
    uint32_t ms;
    int32_t seconds;  // 0: waits without limit
};

void PrintTo(const Timeout& timeout, std::ostream* out)
{
    *out << timeout.ms << " ms";
}

class SyncTimeout : public SyncCase, public ::testing::WithParamInterface<Timeout>
{
};

TEST_P(SyncTimeout, OfALock)
{
    create("lock");
    Calls calls;
    EXPECT_EQ(rm_syncEnterExcl(0, GetParam().ms), 0);
    if (GetParam().seconds == 0) {
        EXPECT_THAT(calls.take(), ElementsAre("semop 0 -1", "alarm 0"));
    } else {
        const std::string seconds = std::to_string(GetParam().seconds);
        EXPECT_THAT(calls.take(),
                    ElementsAre("signal SIGALRM catchAlarm", "alarm " + seconds,
                                "semtimedop 0 -1 within " + seconds + "s", "alarm 0"));
    }
}

TEST_P(SyncTimeout, OfAnEvent)
{
    create("event");
    rm_syncResume(0);
    Calls calls;
    EXPECT_EQ(rm_syncWait(0, GetParam().ms), 0);
    if (GetParam().seconds == 0) {
        EXPECT_THAT(calls.take(), ElementsAre("semop 0 0", "alarm 0", "semop 0 +1"));
    } else {
        const std::string seconds = std::to_string(GetParam().seconds);
        EXPECT_THAT(calls.take(),
                    ElementsAre("signal SIGALRM catchAlarm", "alarm " + seconds,
                                "semtimedop 0 0 within " + seconds + "s", "alarm 0", "semop 0 +1"));
    }
}

// The sum with 999 is a signed 32-bit number: from 0x7FFFFC19 up it is negative, or so small again
// that no second is left of it.
INSTANTIATE_TEST_SUITE_P(
    Every, SyncTimeout,
    ::testing::Values(Timeout{"ZeroIsWithoutLimit", 0, 0}, Timeout{"OneMsIsOneSecond", 1, 1},
                      Timeout{"999MsAreOneSecond", 999, 1}, Timeout{"1000MsAreOneSecond", 1000, 1},
                      Timeout{"1001MsAreTwoSeconds", 1001, 2},
                      Timeout{"1500MsAreTwoSeconds", 1500, 2},
                      Timeout{"2000MsAreTwoSeconds", 2000, 2},
                      Timeout{"2001MsAreThreeSeconds", 2001, 3},
                      Timeout{"14000MsAre14Seconds", 14000, 14},
                      Timeout{"TheLongestIsTimed", 0x7FFFFC18, 2'147'483},
                      Timeout{"TheFirstThatOverflowsIsWithoutLimit", 0x7FFFFC19, 0},
                      Timeout{"TheLargestSignedIsWithoutLimit", 0x7FFFFFFF, 0},
                      Timeout{"TheSmallestSignedIsWithoutLimit", 0x80000000, 0},
                      Timeout{"Minus1000IsWithoutLimit", 0xFFFFFC18, 0},
                      Timeout{"Minus999IsWithoutLimit", 0xFFFFFC19, 0},
                      Timeout{"Minus998IsWithoutLimit", 0xFFFFFC1A, 0},
                      Timeout{"Minus2IsWithoutLimit", 0xFFFFFFFE, 0},
                      Timeout{"ForEverIsWithoutLimit", RM_WAIT_FOREVER, 0}),
    [](const ::testing::TestParamInfo<Timeout>& timeout) { return timeout.param.name; });

TEST_F(SyncEnter, GivesUpAfterTheTimeout)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    int16_t result = -1;
    const double seconds = secondsOf([&] { result = rm_syncEnterExcl(0, 1000); });
    EXPECT_EQ(result, RM_TIMEOUT);
    EXPECT_GE(seconds, 0.95);
    EXPECT_EQ(valueOf(0), 0);
}

TEST_F(SyncEnter, GivesUpAfterTwoSecondsWhenGiven1500Ms)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    int16_t result = -1;
    const double seconds = secondsOf([&] { result = rm_syncEnterExcl(0, 1500); });
    EXPECT_EQ(result, RM_TIMEOUT);
    EXPECT_GE(seconds, 1.95);
    EXPECT_LT(seconds, 4.0);
}

// The system's own bound and the alarm are up at the same time. Without the bound, the alarm alone
// ends the wait.
rmtest::Fault withoutBound()
{
    return {.call = Call::kSemtimedop, .action = [](const CallRecord& record) {
                CallRecord unbounded = record;
                unbounded.args[3] = 0;
                return rmtest::passThrough(unbounded);
            }};
}

TEST_F(SyncEnter, ThatTheAlarmEndsCancelsNothing)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    Calls calls;
    ScopedFault alarmOnly(withoutBound());
    EXPECT_EQ(rm_syncEnterExcl(0, 1), RM_TIMEOUT);
    EXPECT_THAT(calls.take(),
                ElementsAre("signal SIGALRM catchAlarm", "alarm 1", "semtimedop 0 -1 within 1s"));
    EXPECT_EQ(alarmOnly.hits(), 1);
    EXPECT_EQ(os::alarm_signal, 1);
}

TEST_F(SyncEnter, CanTimeOutTwice)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    EXPECT_EQ(rm_syncEnterExcl(0, 1), 1);
    const double seconds = secondsOf([] { EXPECT_EQ(rm_syncEnterExcl(0, 1), 1); });
    EXPECT_GE(seconds, 0.95);
}

TEST_F(SyncEnter, AfterATimeoutTakesTheLockAsSoonAsItIsFree)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    EXPECT_EQ(rm_syncEnterExcl(0, 1), 1);
    rm_syncExitExcl(0);
    EXPECT_EQ(rm_syncEnterExcl(0, 1), 0);
}

// --- The alarm

TEST_F(SyncAlarm, HandlerNotesTheAlarm)
{
    catchAlarm(SIGALRM);
    EXPECT_EQ(os::alarm_signal, 1);
}

TEST_F(SyncAlarm, HandlerInstallsItselfAgain)
{
    signal(SIGALRM, SIG_DFL);
    catchAlarm(SIGALRM);
    EXPECT_EQ(signal(SIGALRM, SIG_DFL), &catchAlarm);
}

TEST_F(SyncAlarm, HandlerDoesNotLookAtTheSignal)
{
    signal(SIGALRM, SIG_DFL);
    catchAlarm(SIGUSR1);
    EXPECT_EQ(os::alarm_signal, 1);
    EXPECT_EQ(signal(SIGALRM, SIG_DFL), &catchAlarm);
}

// Fires the alarm at the worst moment: after it was set, before the process waits.
rmtest::Fault alarmBeforeTheWait()
{
    return {.call = Call::kSemtimedop, .action = [](const CallRecord& record) {
                raise(SIGALRM);
                return rmtest::passThrough(record);
            }};
}

TEST_F(SyncAlarm, ThatFiresBeforeTheWaitDoesNotMakeItEndless)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    ScopedFault early(alarmBeforeTheWait());
    // The real alarm must not help.
    ScopedFault noAlarm({.call = Call::kAlarm, .times = kForever});
    int16_t result = -1;
    const double seconds = secondsOf([&] { result = rm_syncEnterExcl(0, 1); });
    EXPECT_EQ(result, RM_TIMEOUT);
    EXPECT_EQ(early.hits(), 1);
    EXPECT_GE(seconds, 0.95);
}

TEST_F(SyncAlarm, ThatFiresBeforeTheWaitForAnEventDoesNotMakeItEndless)
{
    create("event");
    ScopedFault early(alarmBeforeTheWait());
    ScopedFault noAlarm({.call = Call::kAlarm, .times = kForever});
    EXPECT_EQ(rm_syncWait(0, 1), RM_TIMEOUT);
    EXPECT_EQ(early.hits(), 1);
    EXPECT_EQ(valueOf(0), 1);
}

TEST_F(SyncAlarm, ThatFiresBeforeTheWaitDoesNotLoseAFreeLock)
{
    create("lock");
    ScopedFault early(alarmBeforeTheWait());
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
    EXPECT_EQ(valueOf(0), 0);
}

// A wait for an event that a signal ended leaves its alarm running. It ends the next wait, whatever
// that one waits for, also when that has no limit.
TEST_F(SyncAlarm, ThatAWaitHasLeftEndsTheNextWaitWithoutLimit)
{
    create("event");
    create("lock");
    rm_syncEnterExcl(1, RM_WAIT_FOREVER);
    {
        const ScopedFault interrupted({.call = Call::kSemtimedop, .error = EINTR});
        EXPECT_EQ(rm_syncWait(0, 1), RM_TIMEOUT);
    }
    EXPECT_EQ(rm_syncEnterExcl(1, RM_WAIT_FOREVER), RM_TIMEOUT);
    EXPECT_EQ(os::alarm_signal, 1);
}

TEST_F(SyncAlarm, ThatAWaitHasLeftIsReplacedByTheNextTimedWait)
{
    create("event");
    create("lock");
    rm_syncEnterExcl(1, RM_WAIT_FOREVER);
    {
        const ScopedFault interrupted({.call = Call::kSemtimedop, .error = EINTR});
        EXPECT_EQ(rm_syncWait(0, 1), RM_TIMEOUT);
    }
    const double seconds = secondsOf([] { EXPECT_EQ(rm_syncEnterExcl(1, 2000), RM_TIMEOUT); });
    EXPECT_GE(seconds, 1.95);
}

class SyncBlockedAlarm : public SyncCase
{
  protected:
    void SetUp() override
    {
        SyncCase::SetUp();
        sigemptyset(&alarmOnly_);
        sigaddset(&alarmOnly_, SIGALRM);
        sigprocmask(SIG_BLOCK, &alarmOnly_, nullptr);
    }

    void TearDown() override
    {
        signal(SIGALRM, SIG_IGN);  // forgets one that is still to be delivered
        sigprocmask(SIG_UNBLOCK, &alarmOnly_, nullptr);
        SyncCase::TearDown();
    }

    static bool blocked()
    {
        sigset_t set;
        sigprocmask(SIG_BLOCK, nullptr, &set);
        return sigismember(&set, SIGALRM) == 1;
    }

  private:
    sigset_t alarmOnly_ = {};
};

TEST_F(SyncBlockedAlarm, LetsALockTimeOutThroughItsOwnBound)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    int16_t result = -1;
    const double seconds = secondsOf([&] { result = rm_syncEnterExcl(0, 1000); });
    EXPECT_EQ(result, RM_TIMEOUT);
    EXPECT_GE(seconds, 0.95);
    EXPECT_EQ(os::alarm_signal, 0);
}

TEST_F(SyncBlockedAlarm, LetsAnEventTimeOutThroughItsOwnBound)
{
    create("event");
    EXPECT_EQ(rm_syncWait(0, 1000), RM_TIMEOUT);
    EXPECT_EQ(os::alarm_signal, 0);
    EXPECT_EQ(valueOf(0), 1);
}

TEST_F(SyncBlockedAlarm, StaysBlocked)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    rm_syncEnterExcl(0, 1);
    EXPECT_TRUE(blocked());
}

// --- Interruptions

rmtest::Fault interruptedOnce(Call call)
{
    return {.call = call, .error = EINTR};
}

TEST_F(SyncEnter, WithoutLimitGoesOnAfterASignal)
{
    create("lock");
    ScopedFault fault(interruptedOnce(Call::kSemop));
    resetCalls();
    EXPECT_EQ(rm_syncEnterExcl(0, RM_WAIT_FOREVER), 0);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(callCount(Call::kAlarm), 1);
    EXPECT_EQ(valueOf(0), 0);
}

TEST_F(SyncEnter, WithoutLimitGoesOnAfterAnyNumberOfSignals)
{
    create("lock");
    ScopedFault fault({.call = Call::kSemop, .error = EINTR, .times = 1000});
    EXPECT_EQ(rm_syncEnterExcl(0, RM_WAIT_FOREVER), 0);
    EXPECT_EQ(fault.hits(), 1000);
}

TEST_F(SyncEnter, WithATimeoutGoesOnAfterASignal)
{
    create("lock");
    ScopedFault fault(interruptedOnce(Call::kSemtimedop));
    resetCalls();
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
    EXPECT_EQ(callCount(Call::kSemtimedop), 2);
    EXPECT_EQ(valueOf(0), 0);
}

// The clock goes on while signals come: the wait is not set up again.
TEST_F(SyncEnter, SetsTheAlarmOnceHoweverManySignalsCome)
{
    create("lock");
    ScopedFault fault({.call = Call::kSemtimedop, .error = EINTR, .times = 5});
    resetCalls();
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
    EXPECT_EQ(callCount(Call::kSignal), 1);
    EXPECT_EQ(callCount(Call::kAlarm), 2);  // set and cancelled
}

TEST_F(SyncEnter, AfterASignalWaitsForTheTimeThatIsLeft)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    ScopedFault noAlarm({.call = Call::kAlarm, .times = kForever});
    double left = 0;
    ScopedFault late({.call = Call::kSemtimedop, .action = [](const CallRecord&) {
                          const timespec pause = {0, 400'000'000};
                          nanosleep(&pause, nullptr);
                          errno = EINTR;
                          return -1;
                      }});
    ScopedFault second({.call = Call::kSemtimedop, .action = [&](const CallRecord& record) {
                            const auto* limit = record.pointer<const timespec>(3);
                            left = static_cast<double>(limit->tv_sec) +
                                   static_cast<double>(limit->tv_nsec) / 1e9;
                            errno = EAGAIN;
                            return -1;
                        }});
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), RM_TIMEOUT);
    EXPECT_EQ(second.hits(), 1);
    EXPECT_GT(left, 0.0);
    EXPECT_LE(left, 0.6);
}

TEST_F(SyncEnter, EndsWhenASignalComesAfterTheTimeIsUpAndTheAlarmWasLost)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    ScopedFault noAlarm({.call = Call::kAlarm, .times = kForever});
    ScopedFault interrupted({.call = Call::kSemtimedop, .error = EINTR, .times = kForever});
    const double seconds = secondsOf([] { EXPECT_EQ(rm_syncEnterExcl(0, 1000), RM_TIMEOUT); });
    EXPECT_GE(seconds, 0.95);
}

// The flag of an alarm that has gone off is only cleared by the next timed wait. Until then any
// signal ends a wait without limit: hosts look at the result.
TEST_F(SyncEnter, WithoutLimitEndsAtASignalWhenAnEarlierWaitHasTimedOut)
{
    create("lock");
    os::alarm_signal = 1;
    ScopedFault fault(interruptedOnce(Call::kSemop));
    resetCalls();
    EXPECT_EQ(rm_syncEnterExcl(0, RM_WAIT_FOREVER), RM_TIMEOUT);
    EXPECT_EQ(callCount(Call::kSemop), 1);
    EXPECT_EQ(callCount(Call::kAlarm), 0);
}

TEST_F(SyncEnter, WithATimeoutOfZeroEndsAtASignalWhenAnEarlierWaitHasTimedOut)
{
    create("lock");
    os::alarm_signal = 1;
    ScopedFault fault(interruptedOnce(Call::kSemop));
    EXPECT_EQ(rm_syncEnterExcl(0, 0), RM_TIMEOUT);
}

TEST_F(SyncEnter, ThatTheSystemTimesOutCancelsTheAlarm)
{
    create("lock");
    ScopedFault fault({.call = Call::kSemtimedop, .error = EAGAIN});
    EXPECT_EQ(rm_syncEnterExcl(0, 5000), RM_TIMEOUT);
    EXPECT_EQ(callTrace({Call::kAlarm}).back().args[0], 0);
    EXPECT_EQ(takeAlarm(), 0U);
    EXPECT_EQ(valueOf(0), 1);
}

// --- Events

TEST_F(SyncEvent, IsResetWhenItIsMade)
{
    create("event");
    EXPECT_EQ(rm_syncWait(0, 1), RM_TIMEOUT);
}

TEST_F(SyncEvent, ThatIsSignalledIsSeenAtOnceAndResetByTheWaiter)
{
    create("event");
    rm_syncResume(0);
    EXPECT_EQ(rm_syncWait(0, RM_WAIT_FOREVER), 0);
    EXPECT_EQ(valueOf(0), 1);
}

TEST_F(SyncEvent, IsSeenOnce)
{
    create("event");
    rm_syncResume(0);
    EXPECT_EQ(rm_syncWait(0, 1000), 0);
    EXPECT_EQ(rm_syncWait(0, 1), RM_TIMEOUT);
}

TEST_F(SyncEvent, CanBeSignalledAgainAfterItWasSeen)
{
    create("event");
    for (int n = 0; n < 3; ++n) {
        rm_syncResume(0);
        EXPECT_EQ(rm_syncWait(0, 1000), 0);
    }
    EXPECT_EQ(valueOf(0), 1);
}

TEST_F(SyncEvent, ResumeSignalsIt)
{
    create("event");
    Calls calls;
    EXPECT_EQ(rm_syncResume(0), 0);
    EXPECT_THAT(calls.take(), ElementsAre("semctl GETVAL 0", "semop 0 -1 nowait"));
    EXPECT_EQ(valueOf(0), 0);
}

TEST_F(SyncEvent, ResumeOfASignalledOneDoesNothing)
{
    create("event");
    rm_syncResume(0);
    Calls calls;
    EXPECT_EQ(rm_syncResume(0), 0);
    EXPECT_THAT(calls.take(), ElementsAre("semctl GETVAL 0"));
    EXPECT_EQ(valueOf(0), 0);
}

TEST_F(SyncEvent, ResumeOfOneAtTwoDoesNothing)
{
    create("event");
    rm_syncExitExcl(0);
    Calls calls;
    EXPECT_EQ(rm_syncResume(0), 0);
    EXPECT_THAT(calls.take(), ElementsAre("semctl GETVAL 0"));
    EXPECT_EQ(valueOf(0), 2);
}

TEST_F(SyncEvent, StartResetsIt)
{
    create("event");
    rm_syncResume(0);
    Calls calls;
    EXPECT_EQ(rm_syncStart(0), 0);
    EXPECT_THAT(calls.take(), ElementsAre("semctl GETVAL 0", "semop 0 +1"));
    EXPECT_EQ(valueOf(0), 1);
}

TEST_F(SyncEvent, StartOfOneThatIsResetDoesNothing)
{
    create("event");
    Calls calls;
    EXPECT_EQ(rm_syncStart(0), 0);
    EXPECT_THAT(calls.take(), ElementsAre("semctl GETVAL 0"));
    EXPECT_EQ(valueOf(0), 1);
}

TEST_F(SyncEvent, StartOfOneAtTwoDoesNothing)
{
    create("event");
    rm_syncExitExcl(0);
    Calls calls;
    EXPECT_EQ(rm_syncStart(0), 0);
    EXPECT_THAT(calls.take(), ElementsAre("semctl GETVAL 0"));
    EXPECT_EQ(valueOf(0), 2);
}

TEST_F(SyncEvent, WaitsNoLongerThanTheTimeout)
{
    create("event");
    int16_t result = -1;
    const double seconds = secondsOf([&] { result = rm_syncWait(0, 1500); });
    EXPECT_EQ(result, RM_TIMEOUT);
    EXPECT_GE(seconds, 1.95);
    EXPECT_EQ(valueOf(0), 1);
}

TEST_F(SyncEvent, ThatTheAlarmEndsCancelsNothing)
{
    create("event");
    Calls calls;
    ScopedFault alarmOnly(withoutBound());
    EXPECT_EQ(rm_syncWait(0, 1), RM_TIMEOUT);
    EXPECT_THAT(calls.take(),
                ElementsAre("signal SIGALRM catchAlarm", "alarm 1", "semtimedop 0 0 within 1s"));
    EXPECT_EQ(alarmOnly.hits(), 1);
    EXPECT_EQ(os::alarm_signal, 1);
}

TEST_F(SyncEvent, WaitDoesNotForgetAnEarlierAlarm)
{
    create("event");
    rm_syncResume(0);
    os::alarm_signal = 1;
    EXPECT_EQ(rm_syncWait(0, 1000), 0);
    EXPECT_EQ(os::alarm_signal, 1);
}

TEST_F(SyncEvent, WaitCancelsItsAlarmWhenTheEventIsSeen)
{
    create("event");
    rm_syncResume(0);
    rm_syncWait(0, 100'000);
    EXPECT_EQ(takeAlarm(), 0U);
}

TEST_F(SyncEvent, WaitCancelsAnAlarmOfTheHostAlsoWithoutLimit)
{
    create("event");
    rm_syncResume(0);
    alarm(100);
    rm_syncWait(0, RM_WAIT_FOREVER);
    EXPECT_EQ(takeAlarm(), 0U);
}

TEST_F(SyncEvent, WaitWithoutLimitEndsAtAnySignal)
{
    create("event");
    ScopedFault fault(interruptedOnce(Call::kSemop));
    resetCalls();
    EXPECT_EQ(rm_syncWait(0, RM_WAIT_FOREVER), RM_TIMEOUT);
    EXPECT_EQ(callCount(Call::kSemop), 1);
    EXPECT_EQ(callCount(Call::kAlarm), 0);
    EXPECT_EQ(valueOf(0), 1);
}

TEST_F(SyncEvent, WaitWithATimeoutEndsAtAnySignalAndLeavesTheAlarm)
{
    create("event");
    ScopedFault fault(interruptedOnce(Call::kSemtimedop));
    resetCalls();
    EXPECT_EQ(rm_syncWait(0, 100'000), RM_TIMEOUT);
    EXPECT_EQ(callCount(Call::kSemtimedop), 1);
    EXPECT_GT(takeAlarm(), 0U);
}

TEST_F(SyncEvent, WaitThatTheSystemTimesOutCancelsTheAlarm)
{
    create("event");
    ScopedFault fault({.call = Call::kSemtimedop, .error = EAGAIN});
    EXPECT_EQ(rm_syncWait(0, 5000), RM_TIMEOUT);
    EXPECT_EQ(takeAlarm(), 0U);
    EXPECT_EQ(valueOf(0), 1);
}

// --- Nothing is undone when a process ends

TEST_F(SyncExit, AsEveryOperationAsksForNoUndo)
{
    Calls calls;
    create("keeper");
    create("lock");
    rm_syncEnterExcl(1, 1000);
    rm_syncExitExcl(1);
    rm_syncResume(1);
    rm_syncWait(1, 1000);
    rm_syncResume(1);
    rm_syncStart(1);
    rm_syncDelete(1);
    EXPECT_THAT(calls.take(), ::testing::Each(::testing::Not(::testing::HasSubstr("flags"))));
}

// --- Terminating

TEST_F(SyncTerminate, WithoutObjectsDoesNothing)
{
    resetCalls();
    EXPECT_EQ(rm_syncTerminate(), 0);
    EXPECT_TRUE(callTrace().empty());
}

TEST_F(SyncTerminate, DeletesEveryObjectInOrder)
{
    create("a");
    create("b");
    create("c");
    create("d");
    rm_syncDelete(1);
    Calls calls;
    EXPECT_EQ(rm_syncTerminate(), 0);
    EXPECT_THAT(calls.take(),
                ElementsAre("semctl GETVAL 0", "semop 0 -1 nowait", "semctl GETVAL 2",
                            "semop 2 -1 nowait", "semctl GETVAL 3", "semop 3 -1 nowait",
                            "semctl IPC_RMID 0", "fclose", "unlink .ZNT.RM.SEM"));
}

TEST_F(SyncTerminate, LeavesNeitherSetNorTokenFile)
{
    create("a");
    create("b");
    const int set = os::iSem;
    rm_syncTerminate();
    EXPECT_EQ(semValue(set, 0), -1);
    EXPECT_FALSE(std::filesystem::exists(kToken));
    EXPECT_THAT(os::rmSem, ::testing::Each(nullptr));
    EXPECT_EQ(os::nSems, 0);
    EXPECT_EQ(os::iSem, -1);
    EXPECT_EQ(os::gfpRMSemTokenFile, nullptr);
}

TEST_F(SyncTerminate, OfHeldLocksDoesNotWait)
{
    create("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    EXPECT_EQ(rm_syncTerminate(), 0);
}

TEST_F(SyncTerminate, TwiceDoesNothingTheSecondTime)
{
    create("lock");
    rm_syncTerminate();
    resetCalls();
    EXPECT_EQ(rm_syncTerminate(), 0);
    EXPECT_TRUE(callTrace().empty());
}

TEST_F(SyncTerminate, ForgetsTheLocksOfTheFileLayer)
{
    fileSem = create("fileSem");
    growSem = create("growSem");
    rm_syncTerminate();
    EXPECT_EQ(fileSem, -1);
    EXPECT_EQ(growSem, -1);
}

TEST_F(SyncTerminate, LeavesAProcessThatCanGoOn)
{
    create("a");
    rm_syncTerminate();
    EXPECT_EQ(create("b"), 0);
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
}

TEST_F(SyncTerminate, LeavesManagedFilesUsable)
{
    rm_fileClose(rm_fileOpen("before", RM_O_RDWR | RM_O_CREAT, FILE_NOPRESIZE, 0, 0));
    rm_syncTerminate();
    const int16_t handle = rm_fileOpen("after", RM_O_RDWR | RM_O_CREAT, FILE_NOPRESIZE, 0, 0);
    EXPECT_GE(handle, 0);
    rm_fileClose(handle);
}

TEST_F(SyncTerminate, CountsNothingEvenIfTheCountWasWrong)
{
    create("a");
    os::nSems = 7;
    rm_syncTerminate();
    EXPECT_EQ(os::nSems, 0);
    os::iSem = -1;
}

// A set without objects is what a failed removal leaves. Its id is kept.
TEST_F(SyncTerminate, RemovesASetWithoutObjectsAndKeepsItsId)
{
    create("lock");
    const int set = os::iSem;
    os::rmSem[0] = nullptr;
    os::nSems = 0;
    Calls calls;
    EXPECT_EQ(rm_syncTerminate(), 0);
    EXPECT_THAT(calls.take(), ElementsAre("semctl IPC_RMID 0", "fclose", "unlink .ZNT.RM.SEM"));
    EXPECT_EQ(semValue(set, 0), -1);
    EXPECT_FALSE(std::filesystem::exists(kToken));
    EXPECT_EQ(os::gfpRMSemTokenFile, nullptr);
    EXPECT_EQ(os::iSem, set);
    os::iSem = -1;
}

// --- What the fatal path asks before it gives a lock back

class SyncExists : public SyncCase
{
};

TEST_F(SyncExists, IsFalseBeforeTheFirstObject)
{
    EXPECT_FALSE(os::exists(0));
}

TEST_F(SyncExists, IsTrueOfAnObject)
{
    create("a");
    create("b");
    EXPECT_TRUE(os::exists(0));
    EXPECT_TRUE(os::exists(1));
}

TEST_F(SyncExists, IsFalseOfAFreeSlot)
{
    create("keeper");
    rm_syncDelete(create("lock"));
    EXPECT_FALSE(os::exists(1));
}

TEST_F(SyncExists, IsFalseOfANamedSlotWithoutASet)
{
    os::rmSem[0] = "lock";
    EXPECT_FALSE(os::exists(0));
    os::rmSem[0] = nullptr;
}

TEST_F(SyncExists, IsFalseOfEveryHandleOutsideTheTable)
{
    for (int n = 0; n < kEverySlot; ++n) {
        create("lock");
    }
    for (int32_t handle = INT16_MIN; handle <= INT16_MAX; ++handle) {
        ASSERT_EQ(os::exists(static_cast<SyncHandle>(handle)), handle >= 0 && handle < kEverySlot);
    }
}

// --- The checker

class SyncCheck : public SyncCase
{
};

TEST_F(SyncCheck, CountsAWrongCount)
{
    create("lock");
    os::nSems = 2;
    uint32_t violations = 0;
    const auto lines = rmtest::logLines(captureStderr([&] { violations = os::checkSync(); }));
    os::nSems = 1;
    EXPECT_EQ(violations, 1U);
    EXPECT_THAT(lines, ElementsAre("WARNING: sync objects: 1 named, 2 counted"));
}

TEST_F(SyncCheck, CountsASetWithoutATokenStream)
{
    create("lock");
    FILE* stream = std::exchange(os::gfpRMSemTokenFile, nullptr);
    uint32_t violations = 0;
    const auto lines = rmtest::logLines(captureStderr([&] { violations = os::checkSync(); }));
    os::gfpRMSemTokenFile = stream;
    EXPECT_EQ(violations, 1U);
    EXPECT_THAT(lines, ElementsAre(StartsWith("WARNING: sync objects: set ")));
}

// --- Random runs against a model

// What the table and the semaphores must be. Only operations that cannot block are chosen.
class Model
{
  public:
    static constexpr std::array<const char*, 4> kNames = {"a", "b", "c", "d"};

    void step(std::mt19937& random)
    {
        const auto slot = static_cast<SyncHandle>(random() % kEverySlot);
        switch (random() % 8) {
            case 0:
            case 1:
                create(kNames.at(random() % kNames.size()));
                break;
            case 2:
                if (random() % 3 == 0) {
                    remove(slot);
                }
                break;
            case 3:
                enter(slot, random() % 2 == 0 ? RM_WAIT_FOREVER : 5000U);
                break;
            case 4:
                leave(slot);
                break;
            case 5:
                start(slot);
                break;
            case 6:
                resume(slot);
                break;
            default:
                wait(slot);
        }
    }

    void compare() const
    {
        ASSERT_EQ(os::checkSync(), 0U);
        int16_t used = 0;
        for (SyncHandle n = 0; n < kEverySlot; ++n) {
            const Object& object = objects_.at(static_cast<std::size_t>(n));
            ASSERT_EQ(os::rmSem.at(static_cast<std::size_t>(n)), object.name);
            used = static_cast<int16_t>(used + (object.name != nullptr ? 1 : 0));
        }
        ASSERT_EQ(os::nSems, used);
        ASSERT_EQ(os::iSem == -1, used == 0);
        ASSERT_EQ(std::filesystem::exists(kToken), used != 0);
        for (SyncHandle n = 0; used != 0 && n < kEverySlot; ++n) {
            ASSERT_EQ(valueOf(n), objects_.at(static_cast<std::size_t>(n)).value) << n;
        }
        for (const char* name : kNames) {
            ASSERT_EQ(rm_syncOpen(name), find(name));
        }
    }

  private:
    struct Object {
        const char* name = nullptr;
        int value = 0;
    };

    Object& at(SyncHandle slot) { return objects_.at(static_cast<std::size_t>(slot)); }

    SyncHandle find(const char* name) const
    {
        for (std::size_t n = 0; n < objects_.size(); ++n) {
            const char* used = objects_.at(n).name;
            if (used != nullptr && std::strcmp(used, name) == 0) {
                return static_cast<SyncHandle>(n);
            }
        }
        return -1;
    }

    void create(const char* name)
    {
        for (std::size_t n = 0; n < objects_.size(); ++n) {
            if (objects_.at(n).name == nullptr) {
                objects_.at(n) = {name, 1};
                ASSERT_EQ(rm_syncCreate(name), n);
                return;
            }
        }
    }

    void remove(SyncHandle slot)
    {
        if (at(slot).name != nullptr) {
            at(slot) = {};
            ASSERT_EQ(rm_syncDelete(slot), 0);
        }
    }

    void enter(SyncHandle slot, uint32_t timeout)
    {
        if (at(slot).name != nullptr && at(slot).value > 0) {
            --at(slot).value;
            ASSERT_EQ(rm_syncEnterExcl(slot, timeout), 0);
        }
    }

    void leave(SyncHandle slot)
    {
        if (at(slot).name != nullptr) {
            ++at(slot).value;
            ASSERT_EQ(rm_syncExitExcl(slot), 0);
        }
    }

    void start(SyncHandle slot)
    {
        if (at(slot).name != nullptr) {
            at(slot).value += at(slot).value == 0 ? 1 : 0;
            ASSERT_EQ(rm_syncStart(slot), 0);
        }
    }

    void resume(SyncHandle slot)
    {
        if (at(slot).name != nullptr) {
            at(slot).value -= at(slot).value == 1 ? 1 : 0;
            ASSERT_EQ(rm_syncResume(slot), 0);
        }
    }

    void wait(SyncHandle slot)
    {
        if (at(slot).name != nullptr && at(slot).value == 0) {
            at(slot).value = 1;
            ASSERT_EQ(rm_syncWait(slot, RM_WAIT_FOREVER), 0);
        }
    }

    std::array<Object, kEverySlot> objects_;
};

TEST_F(SyncModel, HoldsOverRandomOperations)
{
    for (const unsigned seed : {1U, 2U, 3U, 4U}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        Model model;
        for (int n = 0; n < 1500 && !HasFatalFailure(); ++n) {
            model.step(random);
            model.compare();
        }
        rm_syncTerminate();
    }
}

TEST_F(SyncCreate, OnASemaphoreAtItsLimitIsFatal)
{
    create("keeper");

    union {
        int val;
        long whole;
    } most = {32767};

    ASSERT_EQ(semctl(os::iSem, 1, SETVAL, most), 0);
    EXPECT_EQ(printedBy([] { rm_syncCreate("lock"); }),
              failure("rm_syncCreate", "semop() failure", ERANGE));
    EXPECT_EQ(valueOf(1), 32767);
    EXPECT_EQ(os::nSems, 1);
    os::rmSem[1] = nullptr;  // named, and not counted
}

// Looking and signalling are two steps.
TEST_F(SyncEvent, ThatAnotherOneSignalsBetweenTheTwoStepsIsFatal)
{
    create("event");
    const ScopedFault meanwhile(
        {.call = Call::kSemctl, .action = [](const CallRecord& record) -> int64_t {
             const int64_t value = rmtest::passThrough(record);
             sembuf step = {0, -1, IPC_NOWAIT};
             EXPECT_EQ(semop(os::iSem, &step, 1), 0);
             return value;
         }});
    EXPECT_EQ(printedBy([] { rm_syncResume(0); }),
              failure("rm_syncResume", "semop() failure", EAGAIN));
    EXPECT_EQ(valueOf(0), 0);
}

// So are looking and resetting. No signal and no reset does anything then.
TEST_F(SyncEvent, ThatAnotherOneResetsBetweenTheTwoStepsStandsAtTwo)
{
    create("event");
    rm_syncResume(0);
    const ScopedFault meanwhile(
        {.call = Call::kSemctl, .action = [](const CallRecord& record) -> int64_t {
             const int64_t value = rmtest::passThrough(record);
             EXPECT_EQ(rm_syncWait(0, 1000), 0);
             return value;
         }});
    EXPECT_EQ(rm_syncStart(0), 0);
    EXPECT_EQ(valueOf(0), 2);
    EXPECT_EQ(rm_syncResume(0), 0);
    EXPECT_EQ(rm_syncStart(0), 0);
    EXPECT_EQ(valueOf(0), 2);
}

TEST_F(SyncEvent, WaitReplacesTheHandlerOfTheHostAndDoesNotRestoreIt)
{
    create("event");
    rm_syncResume(0);
    signal(SIGALRM, SIG_IGN);
    EXPECT_EQ(rm_syncWait(0, 1000), 0);
    EXPECT_EQ(signal(SIGALRM, SIG_DFL), &catchAlarm);
}

TEST_F(SyncEvent, WaitWithoutLimitLeavesTheHandlerOfTheHost)
{
    create("event");
    rm_syncResume(0);
    signal(SIGALRM, SIG_IGN);
    EXPECT_EQ(rm_syncWait(0, RM_WAIT_FOREVER), 0);
    EXPECT_EQ(signal(SIGALRM, SIG_DFL), SIG_IGN);
}
}  // namespace
