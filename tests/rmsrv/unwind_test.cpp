// The way out of the library: what the abandoned frames held for others is given back.
#include "frame.h"

#include <cstring>

#include <fcntl.h>
#include <sys/sem.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::captureStderr;
using rmtest::catchExit;
using rmtest::catchFatal;
using rmtest::fileLines;
using rmtest::kForever;
using rmtest::openLog;
using rmtest::Outcome;
using rmtest::outcomeOf;
using rmtest::Peer;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using rmtest::semValue;
using ::testing::Each;
using ::testing::ResultOf;

class Unwind : public rmtest::FrameTest
{
};

class UnwindLocks : public rmtest::FrameTest
{
};

class UnwindFiles : public rmtest::FrameTest
{
};

class UnwindFaults : public rmtest::FrameTest
{
};

// Makes fileSem and growSem, as start-up does.
void makeLocks()
{
    fileSem = rm_syncCreate("fileSem");
    growSem = rm_syncCreate("growSem");
}

int fileSemValue()
{
    return semValue(os::iSem, fileSem);
}

int growSemValue()
{
    return semValue(os::iSem, growSem);
}

int16_t openData(uint16_t modeFlags = 0, uint32_t initialSize = 0)
{
    return rm_fileOpen("data", RM_O_RDWR | RM_O_CREAT, modeFlags, initialSize, 0);
}

bool isOperationOn(const CallRecord& call, int16_t handle, int op)
{
    const auto* operation = call.pointer<sembuf>(1);
    return operation->sem_num == handle && operation->sem_op == op;
}

bool givesBackFileSem(const CallRecord& call)
{
    return isOperationOn(call, fileSem, 1);
}

bool givesBackGrowSem(const CallRecord& call)
{
    return isOperationOn(call, growSem, 1);
}

// Whether the call is on the descriptor of a managed file.
bool isOnAFile(const CallRecord& call)
{
    for (int16_t slot = 0; slot < file::ftabSize; ++slot) {
        if (file::ftab[slot]->fd == call.args[0]) {
            return true;
        }
    }
    return false;
}

// --- The jump

TEST_F(Unwind, ArrivesWithTheValue)
{
    static jmp_buf target;
    static volatile int arrived = 0;
    const auto body = [] {
        arrived = setjmp(target);
        if (arrived == 0) {
            rmsrv::unwindTo(target, 42);
        }
    };
    body();
    EXPECT_EQ(arrived, 42);
}

TEST_F(Unwind, ArrivesWithOneForZero)
{
    static jmp_buf target;
    static volatile int arrived = -1;
    static volatile bool jumped = false;
    const auto body = [] {
        arrived = setjmp(target);
        if (!jumped) {
            jumped = true;
            rmsrv::unwindTo(target, 0);
        }
    };
    body();
    EXPECT_EQ(arrived, 1);
}

TEST_F(Unwind, MakesNoSystemCallWhenNothingIsHeld)
{
    makeLocks();
    const int16_t handle = openData();
    captureStderr([] { EXPECT_EQ(catchFatal([] { rm_errorExit(); }), 1); });
    resetCalls();
    captureStderr([] { EXPECT_EQ(catchFatal([] { rm_errorExit(); }), 1); });
    EXPECT_EQ(callCount(Call::kSemop), 0);
    EXPECT_EQ(callCount(Call::kSemtimedop), 0);
    EXPECT_EQ(callCount(Call::kSemctl), 0);
    EXPECT_THAT(rmtest::callTrace({Call::kClose}), Each(ResultOf(isOnAFile, false)));
    rm_fileClose(handle);
}

TEST_F(Unwind, TheFatalPathIsOverAtTheFatalTarget)
{
    EXPECT_FALSE(rmsrv::inFatalPath());
    captureStderr([] { EXPECT_EQ(catchFatal([] { fatalRMExit("a problem"); }), 1); });
    EXPECT_FALSE(rmsrv::inFatalPath());
}

TEST_F(Unwind, TheFatalPathIsOverAtTheExitTarget)
{
    EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
    EXPECT_FALSE(rmsrv::inFatalPath());
}

TEST_F(Unwind, EveryEntryPointBeginsTheFatalPath)
{
    static bool dying = false;
    ScopedFault watch({.call = Call::kFwrite, .when = [](const CallRecord&) {
                           dying = rmsrv::inFatalPath();
                           return false;
                       }});
    const std::array<void (*)(), 4> entries = {
        [] { internalErrorExit("f", "m", 0); }, [] { fatalRMExit("a problem"); },
        [] { rm_errorExit(); }, [] { rmsrv::outOfMemory(); }};
    for (const auto entry : entries) {
        dying = false;
        EXPECT_EQ(outcomeOf(entry).jumped, 1);
        EXPECT_TRUE(dying);
    }
}

// --- Locks

TEST_F(UnwindLocks, FileSemIsGivenBack)
{
    makeLocks();
    const Outcome outcome = outcomeOf([] {
        file::enterFileSem("unused");
        fatalRMExit("a problem");
    });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(UnwindLocks, ANestedFileSemIsGivenBackOnce)
{
    makeLocks();
    static_cast<void>(outcomeOf([] {
        file::enterFileSem("unused");
        file::enterFileSem("unused");
        file::enterFileSem("unused");
        fatalRMExit("a problem");
    }));
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(UnwindLocks, GrowSemIsGivenBack)
{
    makeLocks();
    static_cast<void>(outcomeOf([] {
        file::enterGrowSem();
        fatalRMExit("a problem");
    }));
    EXPECT_EQ(growSemValue(), 1);
}

TEST_F(UnwindLocks, BothAreGivenBack)
{
    makeLocks();
    static_cast<void>(outcomeOf([] {
        file::enterFileSem("unused");
        file::enterGrowSem();
        fatalRMExit("a problem");
    }));
    EXPECT_EQ(fileSemValue(), 1);
    EXPECT_EQ(growSemValue(), 1);
}

TEST_F(UnwindLocks, AnExitJumpGivesNothingBackThatHasGone)
{
    makeLocks();
    static volatile int code = 0;
    const std::string err = captureStderr([] {
        code = catchExit([] {
            file::enterFileSem("unused");
            file::enterGrowSem();
            rm_exit(5);
        });
    });
    EXPECT_EQ(code, 5);
    EXPECT_EQ(err, "");
    EXPECT_TRUE(rmtest::ipcObjects().empty());
}

TEST_F(UnwindLocks, ThatAnotherProcessHoldsStayHeld)
{
    makeLocks();
    Peer peer([](Peer::Channel& ch) {
        file::enterFileSem("unused");
        file::enterGrowSem();
        ch.say("held");
        ch.hear();
        file::leaveGrowSem();
        file::leaveFileSem();
    });
    ASSERT_EQ(peer.hear(), "held");
    static_cast<void>(outcomeOf([] { fatalRMExit("a problem"); }));
    EXPECT_EQ(fileSemValue(), 0);
    EXPECT_EQ(growSemValue(), 0);
    peer.say("go");
    EXPECT_EQ(peer.wait().status, 0);
    EXPECT_EQ(fileSemValue(), 1);
    EXPECT_EQ(growSemValue(), 1);
}

TEST_F(UnwindLocks, ThatWereLeftBeforeAreNotGivenBackAgain)
{
    makeLocks();
    static_cast<void>(outcomeOf([] {
        file::enterFileSem("unused");
        file::leaveFileSem();
        file::enterGrowSem();
        file::leaveGrowSem();
        fatalRMExit("a problem");
    }));
    EXPECT_EQ(fileSemValue(), 1);
    EXPECT_EQ(growSemValue(), 1);
}

TEST_F(UnwindLocks, AWaiterOfAnotherProcessGetsThroughAtOnce)
{
    makeLocks();
    file::enterFileSem("unused");
    Peer peer([](Peer::Channel& ch) {
        ch.say("waiting");
        // The depth is this process's copy of its parent's: the semaphore itself is waited for.
        rm_syncEnterExcl(fileSem, 14'000);
        ch.say("in");
        rm_syncExitExcl(fileSem);
    });
    ASSERT_EQ(peer.hear(), "waiting");
    ASSERT_TRUE(rmtest::waitFor([] { return rmtest::semWaiters(os::iSem, fileSem) == 1; }));
    static_cast<void>(outcomeOf([] { fatalRMExit("a problem"); }));
    EXPECT_EQ(peer.hear(rmtest::Milliseconds(2000)), "in");
    EXPECT_EQ(peer.wait().status, 0);
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(UnwindLocks, AreUsedAsBeforeAfterwards)
{
    makeLocks();
    static_cast<void>(outcomeOf([] {
        file::enterFileSem("unused");
        file::enterGrowSem();
        fatalRMExit("a problem");
    }));
    resetCalls();
    file::enterFileSem("unused");
    EXPECT_EQ(fileSemValue(), 0);
    file::leaveFileSem();
    EXPECT_EQ(fileSemValue(), 1);
    file::enterGrowSem();
    EXPECT_EQ(growSemValue(), 0);
    file::leaveGrowSem();
    EXPECT_EQ(growSemValue(), 1);
}

TEST_F(UnwindLocks, LinesForTheLogFileTakeFileSemAsBeforeAfterwards)
{
    openLog();
    static_cast<void>(outcomeOf([] {
        file::enterFileSem("unused");
        fatalRMExit("a problem");
    }));
    resetCalls();
    captureStderr([] { rm_systemLogWrite("a line"); });
    EXPECT_EQ(callCount(Call::kSemtimedop), 1);
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(UnwindLocks, AFailedGrowthLeavesTwiceAndNotAThirdTime)
{
    makeLocks();
    rmDiskFull = 0;
    const int16_t handle = openData();
    ScopedFault fault({.call = Call::kWrite, .error = ENOSPC, .when = [](const CallRecord& call) {
                           return call.args[2] == os::kBlockSize;
                       }});
    static int16_t target = 0;
    target = handle;
    const Outcome outcome =
        outcomeOf([] { static_cast<void>(rm_fileSeekWrite(target, 5000, "x", 1)); });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(growSemValue(), 2);
    EXPECT_EQ(fileSemValue(), 1);
    rm_fileClose(handle);
}

TEST_F(UnwindLocks, AFatalOpenLeavesFileSemOnce)
{
    makeLocks();
    const Outcome outcome = outcomeOf(
        [] { static_cast<void>(rm_fileOpen("nowhere/data", RM_O_RDONLY, FILE_FATAL, 0, 0)); });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(UnwindLocks, AnOpenWithoutMemoryLeavesFileSem)
{
    makeLocks();
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    const Outcome outcome = outcomeOf([] { static_cast<void>(openData()); });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(outcome.lines.front(), "Out of memory!");
    EXPECT_EQ(fileSemValue(), 1);
}

// --- Files

TEST_F(UnwindFiles, OperationsInProgressAreOver)
{
    const int16_t one = openData();
    const int16_t two = openData();
    static_cast<void>(outcomeOf([] {
        file::ftab[0]->busyCount = 1;
        file::ftab[1]->busyCount = 7;
        fatalRMExit("a problem");
    }));
    EXPECT_EQ(file::ftab[one]->busyCount, 0);
    EXPECT_EQ(file::ftab[two]->busyCount, 0);
    rm_fileClose(one);
    rm_fileClose(two);
}

TEST_F(UnwindFiles, AFailedWriteInFatalModeLeavesTheFileFreeToBeParked)
{
    fileHandleLimit = 1;
    static int16_t handle = -1;
    handle = openData(FILE_FATAL);
    {
        ScopedFault fault({.call = Call::kWrite, .error = ENOSPC});
        EXPECT_EQ(outcomeOf([] { static_cast<void>(rm_fileWrite(handle, "x", 1)); }).jumped, 1);
    }
    const int16_t other = rm_fileOpen("other", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    EXPECT_EQ(file::ftab[handle]->state, file::kSlotParked);
    rm_fileClose(handle);
    rm_fileClose(other);
}

TEST_F(UnwindFiles, AnOpenThatDidNotComeToItsEndGivesItsDescriptorBack)
{
    makeLocks();
    rmDiskFull = 0;
    const std::vector<int> before = rmtest::openDescriptors();
    for (const bool withStream : {false, true}) {
        static uint16_t modeFlags = 0;
        modeFlags = withStream ? FILE_STREAM : 0;
        ScopedFault fault({.call = Call::kWrite, .error = ENOSPC, .when = [](const CallRecord& c) {
                               return c.args[2] == os::kBlockSize;
                           }});
        EXPECT_EQ(outcomeOf([] { static_cast<void>(openData(modeFlags, 5000)); }).jumped, 1);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(rmtest::openDescriptors(), before);
        EXPECT_EQ(rmtest::violations(), 0U);
    }
}

TEST_F(UnwindFiles, AReopenThatDidNotComeToItsEndCanBeMadeAgain)
{
    makeLocks();
    fileHandleLimit = 1;
    static int16_t handle = -1;
    handle = openData(0, 5000);
    const int16_t other = rm_fileOpen("other", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    ASSERT_EQ(file::ftab[handle]->state, file::kSlotParked);
    rmDiskFull = 0;
    {
        ScopedFault fault({.call = Call::kWrite, .error = ENOSPC, .when = [](const CallRecord& c) {
                               return c.args[2] == os::kBlockSize;
                           }});
        EXPECT_EQ(outcomeOf([] { static_cast<void>(rm_fileLength(handle)); }).jumped, 1);
    }
    EXPECT_EQ(file::ftab[handle]->fd, -1);
    EXPECT_EQ(rmtest::violations(), 0U);
    EXPECT_EQ(rm_fileLength(handle), 5000U);
    rm_fileClose(handle);
    rm_fileClose(other);
}

TEST_F(UnwindFiles, OpenFilesStayOpenWithTheirPositions)
{
    const int16_t handle = openData();
    EXPECT_EQ(rm_fileWrite(handle, "text", 4), 4U);
    const int32_t fd = file::ftab[handle]->fd;
    static_cast<void>(outcomeOf([] { fatalRMExit("a problem"); }));
    EXPECT_EQ(file::ftab[handle]->fd, fd);
    EXPECT_EQ(rm_filePosition(handle), 4U);
    EXPECT_EQ(rm_fileWrite(handle, "more", 4), 4U);
    rm_fileClose(handle);
    EXPECT_EQ(rmtest::readFile("data"), "textmore");
}

TEST_F(UnwindFiles, ALineThatWasOnItsWayIntoTheLogFileIsOver)
{
    openLog();
    rmsrv::writingLogFile = 1;
    static_cast<void>(outcomeOf([] { fatalRMExit("a problem"); }));
    EXPECT_EQ(rmsrv::writingLogFile, 0);
}

TEST_F(UnwindFiles, WithoutSuchALineTheLogFileIsTrustedFurther)
{
    openLog();
    static_cast<void>(outcomeOf([] { fatalRMExit("a problem"); }));
    captureStderr([] { rm_systemLogWrite("afterwards"); });
    EXPECT_EQ(fileLines().back(), "afterwards");
}

// --- The giving back fails

TEST_F(UnwindFaults, AnUnlockThatFailedOnceIsMadeUpFor)
{
    // The end of an ordinary operation fails, which is fatal: the process still holds the lock.
    makeLocks();
    const int16_t handle = openData();
    static int16_t used = -1;
    used = handle;
    for (const int error : rmtest::kSemopErrors) {
        ScopedFault fault({.call = Call::kSemop, .error = error, .when = givesBackFileSem});
        EXPECT_EQ(outcomeOf([] { static_cast<void>(rm_fileLength(used)); }).jumped, 1);
        EXPECT_EQ(fileSemValue(), 1) << error;
        if (HasFailure()) {
            rm_syncExitExcl(fileSem);
            break;
        }
    }
    rm_fileClose(handle);
}

TEST_F(UnwindFaults, AnUnlockOfGrowSemThatFailedOnceIsMadeUpFor)
{
    makeLocks();
    for (const int error : rmtest::kSemopErrors) {
        ScopedFault fault({.call = Call::kSemop, .error = error, .when = givesBackGrowSem});
        const Outcome outcome = outcomeOf([] {
            file::enterGrowSem();
            file::leaveGrowSem();
        });
        EXPECT_EQ(outcome.jumped, 1);
        EXPECT_EQ(growSemValue(), 1) << error;
        if (HasFailure()) {
            rm_syncExitExcl(growSem);
            break;
        }
    }
}

TEST_F(UnwindFaults, AGiveBackThatFailsStillArrives)
{
    makeLocks();
    for (const int error : rmtest::kSemopErrors) {
        {
            ScopedFault fault({.call = Call::kSemop, .error = error, .times = kForever});
            const Outcome outcome = outcomeOf([] {
                file::enterFileSem("unused");
                fatalRMExit("a problem");
            });
            EXPECT_EQ(outcome.jumped, 1);
            EXPECT_EQ(outcome.lines.back(), "Exiting to shutdown processing");
            EXPECT_GE(fault.hits(), 1);
            EXPECT_LE(fault.hits(), 2);
            EXPECT_FALSE(rmsrv::inFatalPath());
        }
        EXPECT_EQ(fileSemValue(), 0);
        rm_syncExitExcl(fileSem);
    }
}

TEST_F(UnwindFaults, AGiveBackThatFailsDoesNotKeepTheOtherLock)
{
    // Whichever is tried first: nobody waits for growSem with a time-out.
    makeLocks();
    {
        ScopedFault fault({.call = Call::kSemop, .error = EINVAL, .when = givesBackFileSem});
        const Outcome outcome = outcomeOf([] {
            file::enterFileSem("unused");
            file::enterGrowSem();
            fatalRMExit("a problem");
        });
        EXPECT_EQ(outcome.jumped, 1);
    }
    EXPECT_EQ(growSemValue(), 1);
}

TEST_F(UnwindFaults, AGrowSemThatIsNotGivenBackDoesNotKeepFileSem)
{
    makeLocks();
    {
        ScopedFault fault({.call = Call::kSemop, .error = EINVAL, .when = givesBackGrowSem});
        const Outcome outcome = outcomeOf([] {
            file::enterFileSem("unused");
            file::enterGrowSem();
            fatalRMExit("a problem");
        });
        EXPECT_EQ(outcome.jumped, 1);
    }
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(UnwindFaults, LocksWhoseSetAnotherProcessRemovedDoNotStopIt)
{
    makeLocks();
    const Outcome outcome = outcomeOf([] {
        file::enterFileSem("unused");
        file::enterGrowSem();
        rmtest::removeLeftovers();
        fatalRMExit("a problem");
    });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(outcome.lines.back(), "Exiting to shutdown processing");
    // The library's record of a set that has gone.
    os::rmSem.fill(nullptr);
    os::nSems = 0;
    os::iSem = -1;
    fclose(os::gfpRMSemTokenFile);
    os::gfpRMSemTokenFile = nullptr;
}

TEST_F(UnwindFaults, ACloseOfAnUnfinishedOpenThatFailsStillArrives)
{
    makeLocks();
    rmDiskFull = 0;
    for (const int error : rmtest::kCloseErrors) {
        if (error == EBADF) {
            continue;
        }
        const std::vector<int> before = rmtest::openDescriptors();
        ScopedFault full({.call = Call::kWrite, .error = ENOSPC, .when = [](const CallRecord& c) {
                              return c.args[2] == os::kBlockSize;
                          }});
        ScopedFault fault(
            {.call = Call::kClose, .error = error, .times = kForever, .when = isOnAFile});
        EXPECT_EQ(outcomeOf([] { static_cast<void>(openData(0, 5000)); }).jumped, 1);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(rmtest::openDescriptors(), before);
    }
}
}  // namespace
