// Locks and memory of the managed files that cannot be had: always fatal, and the end comes at
// once, with everything in order behind it.
#include "tests/file/fault_case.h"

#include <sys/ipc.h>

using namespace filetest;

namespace
{

class FileFaultSync : public FileFault
{
  protected:
    void SetUp() override
    {
        FileFault::SetUp();
        fileSem = rm_syncCreate("fileSem");
    }

    // Whatever a fault has left, the lock is free and its alarm is off.
    static void freeLock()
    {
        alarm(0);
        while (fileSemValue() < 1) {
            rm_syncExitExcl(fileSem);
        }
    }
};

class FileFaultLock : public FileFaultSync, public ::testing::WithParamInterface<FileOperation>
{
};

INSTANTIATE_TEST_SUITE_P(Operations, FileFaultLock, ::testing::ValuesIn(lockedOperations()),
                         operationName);

class FileFaultMemory : public FileFault
{
};

// --- Locks

TEST_P(FileFaultLock, TheLockCannotBeEnteredAndTheEndIsFatal)
{
    const FileOperation& operation = GetParam();
    forEach("semtimedop", kSemopErrors, [&](int error, int times) {
        openWith("f", kDigits, operation.mode());
        const Outcome outcome = under({.call = Call::kSemtimedop, .error = error, .times = times},
                                      [&] { operation.run(0); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_THAT(outcome.out, ::testing::StartsWith("**** rm_syncEnterExcl() semop() failure, " +
                                                       errnoText(error)));
        EXPECT_LT(outcome.seconds, 1.0);
        freeLock();
        expectSound();
        EXPECT_EQ(operation.run(0), operation.good);
        fresh();
    });
}

TEST_P(FileFaultLock, TheLockCannotBeEnteredWithALogFileOpenAndTheEndIsFatal)
{
    const FileOperation& operation = GetParam();
    forEach("semtimedop", kSemopErrors, [&](int error, int times) {
        openWith("f", kDigits, operation.mode());
        openLog("log");
        const Outcome outcome = under({.call = Call::kSemtimedop, .error = error, .times = times},
                                      [&] { operation.run(0); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_LT(outcome.seconds, 1.0);
        freeLock();
        expectSound();
        rm_systemLogClose();
        EXPECT_EQ(operation.run(0), operation.good);
        fresh();
    });
}

TEST_P(FileFaultLock, TheLockCannotBeLeftAndTheEndIsFatal)
{
    const FileOperation& operation = GetParam();
    forEach("semop", kSemopErrors, [&](int error, int times) {
        openWith("f", kDigits, operation.mode());
        const Outcome outcome = under(
            {.call = Call::kSemop, .error = error, .times = times, .when = isStep(leaves(fileSem))},
            [&] { operation.run(0); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_THAT(outcome.out, ::testing::StartsWith("**** rm_syncExitExcl() semop() failure, " +
                                                       errnoText(error)));
        EXPECT_LT(outcome.seconds, 1.0);
        if (times == 1) {
            EXPECT_EQ(fileSemValue(), 1) << "it is left on the way out";
        }
        freeLock();
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultSync, TheLockCannotBeMadeAndTheEndIsFatal)
{
    rm_syncTerminate();

    struct Step {
        Call call;
        int error;
    };

    const Step steps[] = {{Call::kOpen, EACCES},   {Call::kFdopen, ENOMEM}, {Call::kSemget, ENOSPC},
                          {Call::kSemget, ENOMEM}, {Call::kSemget, EEXIST}, {Call::kSemop, EIDRM},
                          {Call::kSemop, ERANGE}};
    for (const Step& step : steps) {
        for (const int times : {1, kForever}) {
            SCOPED_TRACE(named("making fileSem", step.error, times));
            const Outcome outcome = under({.call = step.call, .error = step.error, .times = times},
                                          [] { openNew("f"); });
            EXPECT_TRUE(outcome.jumped);
            EXPECT_THAT(outcome.out, ::testing::StartsWith("**** rm_syncCreate() "));
            EXPECT_LT(outcome.seconds, 1.0);
            EXPECT_EQ(file::ftab, nullptr);
            EXPECT_EQ(openNew("f"), 0);
            EXPECT_EQ(fileSemValue(), 1);
            expectSound();
            fresh();
            rm_syncTerminate();
        }
    }
}

TEST_F(FileFaultSync, GrowSemCannotBeEnteredAndTheEndIsFatal)
{
    growSem = rm_syncCreate("growSem");
    forEach("semop", kSemopErrors, [&](int error, int times) {
        rmDiskFull = 0;
        openNew("f", 0, 0, 1000);
        const Outcome outcome = under(
            {.call = Call::kSemop, .error = error, .times = times, .when = isStep(enters(growSem))},
            [] { seekWrite(0, 0, "x"); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_THAT(outcome.out, ::testing::StartsWith("**** rm_syncEnterExcl() semop() failure, " +
                                                       errnoText(error)));
        EXPECT_EQ(growSemValue(), 1);
        expectSound();
        EXPECT_EQ(seekWrite(0, 0, "x"), 1U);
        fresh();
    });
}

TEST_F(FileFaultSync, GrowSemCannotBeLeftAndTheEndIsFatal)
{
    growSem = rm_syncCreate("growSem");
    forEach("semop", kSemopErrors, [&](int error, int times) {
        rmDiskFull = 0;
        openNew("f", 0, 0, 1000);
        const Outcome outcome = under(
            {.call = Call::kSemop, .error = error, .times = times, .when = isStep(leaves(growSem))},
            [] { seekWrite(0, 0, "x"); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_LT(outcome.seconds, 1.0);
        if (times == 1) {
            EXPECT_EQ(growSemValue(), 1) << "it is left on the way out";
        }
        while (growSemValue() < 1) {
            rm_syncExitExcl(growSem);
        }
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultSync, TheSetIsRemovedByAnotherProcessAndTheEndIsFatal)
{
    openMany(2);
    const int set = os::iSem;
    ASSERT_EQ(semctl(set, 0, IPC_RMID), 0);
    const FatalEnd end = fatalEnd([] { rm_fileLength(0); });
    EXPECT_TRUE(end.jumped);
    EXPECT_LT(end.seconds, 1.0);
    EXPECT_EQ(file::checkFtab(), 0U);
    // What is left of the objects is forgotten, and new ones can be made.
    os::rmSem.fill(nullptr);
    os::nSems = 0;
    os::iSem = -1;
    fileSem = RM_NONE;
    EXPECT_EQ(write(0, "works"), 5U);
}

// --- Memory

// Fails the allocations of an operation one after the other, until it makes no more.
void failEveryAllocation(const std::function<void()>& prepare, const std::function<void()>& run,
                         const std::function<void()>& check)
{
    for (const int times : {1, kForever}) {
        bool failed = true;
        for (int skip = 0; failed; ++skip) {
            SCOPED_TRACE("allocation " + std::to_string(skip));
            prepare();
            const Outcome outcome =
                under({.call = Call::kMalloc, .error = ENOMEM, .skip = skip, .times = times}, run);
            failed = outcome.hits > 0;
            EXPECT_EQ(outcome.jumped, failed);
            if (failed) {
                EXPECT_THAT(outcome.lines, ElementsAre("Out of memory!"));
            }
            EXPECT_LT(outcome.seconds, 1.0);
            check();
            ASSERT_LT(skip, 200) << "it does not come to an end";
        }
    }
}

TEST_F(FileFaultMemory, EveryAllocationOfTheFirstOpenFailsAndTheNextOpenWorks)
{
    failEveryAllocation([] { rm_freeall(); }, [] { openNew("f"); },
                        [&] {
                            expectSound();
                            EXPECT_NE(openNew("g"), -1);
                            EXPECT_EQ(counts().parked + counts().open,
                                      static_cast<uint32_t>(file::nHandles));
                            expectSound();
                            rm_freeall();
                        });
}

TEST_F(FileFaultMemory, EveryAllocationOfTheFirstOpenWithOneBlockPerSegmentFails)
{
    failEveryAllocation(
        [] {
            rm_freeall();
            rm_freeMemory(rm_getMemory(8, 0), 0);
            seg_alloc = 1;
        },
        [] { openNew("f"); },
        [&] {
            expectSound();
            EXPECT_NE(openNew("g"), -1);
            expectSound();
            rm_freeall();
        });
    seg_alloc = 0;
}

TEST_F(FileFaultMemory, EveryAllocationOfTheOpenThatGrowsTheTableFails)
{
    fileHandleLimit = 8;
    failEveryAllocation(
        [&] {
            rm_freeall();
            openMany(32);
            seg_alloc = 1;  // so that every block of the growth is an allocation
        },
        [] { openNew("one more"); },
        [&] {
            seg_alloc = 0;
            expectSound();
            const int16_t next = openNew("next");
            EXPECT_GE(next, 32);
            EXPECT_EQ(file::ftabSize, 64);
            EXPECT_EQ(write(next, "works"), 5U);
            for (int16_t handle = 0; handle < 32; ++handle) {
                EXPECT_EQ(write(handle, "works"), 5U);
            }
            expectSound();
            rm_freeall();
        });
}

TEST_F(FileFaultMemory, EveryAllocationOfTheFirstOpenFailsWithALogFileOpen)
{
    failEveryAllocation(
        [] {
            openLog("log");
            seg_alloc = 1;
        },
        [] { openNew("f"); },
        [&] {
            seg_alloc = 0;
            expectSound();
            EXPECT_NE(openNew("g"), -1);
            rm_freeall();
        });
}

TEST_F(FileFaultMemory, ATableThatCouldNotBeBuiltLeavesNoTagBehind)
{
    rm_freeMemory(rm_getMemory(8, 0), 0);
    const auto tagsInUse = [] {
        return std::count_if(
            rmalloc::tagTable, rmalloc::tagTable + rmalloc::nTags,
            [](const rmalloc::TagRecord& tag) { return tag.state != rmalloc::kTagFree; });
    };
    const auto before = tagsInUse();
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(under({.call = Call::kMalloc, .error = ENOMEM}, [] { openNew("f"); }).jumped);
        EXPECT_EQ(file::ftab, nullptr);
    }
    EXPECT_EQ(openNew("f"), 0);
    EXPECT_EQ(tagsInUse(), before + 1);
    rm_fileClose(0);
    EXPECT_EQ(tagsInUse(), before);
}

TEST_F(FileFaultMemory, ATableThatCouldNotBeBuiltIsForgottenWithAllMemory)
{
    rm_freeMemory(rm_getMemory(8, 0), 0);
    under({.call = Call::kMalloc, .error = ENOMEM}, [] { openNew("f"); });
    EXPECT_NE(file::fileTag, 0);
    rm_freeall();
    EXPECT_EQ(file::fileTag, 0);
    EXPECT_EQ(openNew("f"), 0);
}

TEST_F(FileFaultMemory, WithoutATargetTheProcessEnds)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
        openNew("f");
        _exit(99);
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_LT(child.seconds, 1.0);
    const Lines lines = logLines(child.err);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "Out of memory!");
    EXPECT_EQ(lines.back(), "Exiting to operating system");
}

}  // namespace
