// The locks of the managed files: time-outs, nesting, and what a fatal end gives back.
//
// Time-outs are shown to the library by a fault on the waiting call, so that they take no time. The
// real one, with a holder that was killed, stands with the tests of several processes.
#include "tests/file/file_case.h"

#include <fstream>

#include <signal.h>

using namespace filetest;

namespace
{

class FileSemTimeout : public FileTest, public ::testing::WithParamInterface<FileOperation>
{
};

INSTANTIATE_TEST_SUITE_P(Operations, FileSemTimeout, ::testing::ValuesIn(lockedOperations()),
                         operationName);

class FileSem : public FileTest
{
};

class FileSeekSem : public FileTest
{
  protected:
    // A file whose entry has a real sync object.
    static int16_t openLocked(const char* name = "f", uint16_t modeFlags = 0)
    {
        const int16_t handle = openWith(name, kDigits, modeFlags);
        entryOf(handle)->seekSem = rm_syncCreate("seek");
        return handle;
    }

    static int16_t lockOf(int16_t handle) { return entryOf(handle)->seekSem; }
};

class FileUnwinding : public FileTest
{
};

class FileNesting : public FileTest
{
};

constexpr const char* kFatalHead = "***Fatal resource manager error***";

Lines problem(const std::string& text)
{
    return {kFatalHead, "    Specific problem: " + text};
}

// --- fileSem is not free in time

TEST_P(FileSemTimeout, IsFatalWithTheNameOfTheOperation)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    ScopedFault fault(timeout(fileSem));
    const FatalEnd end = fatalEnd([&] { operation.run(0); });
    EXPECT_TRUE(end.jumped);
    EXPECT_EQ(end.lines, problem(operation.timeout()));
}

TEST_P(FileSemTimeout, ByTheAlarmIsFatalToo)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    ScopedFault fault({.call = Call::kSemtimedop, .action = [](const CallRecord&) {
                           raise(SIGALRM);
                           errno = EINTR;
                           return int64_t{-1};
                       }});
    EXPECT_EQ(fatalEnd([&] { operation.run(0); }).lines, problem(operation.timeout()));
}

TEST_P(FileSemTimeout, TouchesNeitherTheFileNorTheLock)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    const Counts before = counts();
    {
        ScopedFault fault(timeout(fileSem));
        fatalEnd([&] { operation.run(0); });
    }
    EXPECT_EQ(counts(), before);
    EXPECT_EQ(entryOf(0)->busyCount, 0);
    EXPECT_EQ(fileSemValue(), 1);
    EXPECT_EQ(readFile("f"), kDigits);
}

TEST_P(FileSemTimeout, DoesNotKeepTheOperationFromWorkingLater)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    {
        ScopedFault fault(timeout(fileSem));
        fatalEnd([&] { operation.run(0); });
    }
    EXPECT_EQ(operation.run(0), operation.good);
    expectSound();
}

TEST_P(FileSemTimeout, IsNotWaitedForAgainByTheLinesOfTheFatalEnd)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    openLog("log");
    ScopedFault fault(timeout(fileSem, kForever));
    const FatalEnd end = fatalEnd([&] { operation.run(0); });
    EXPECT_EQ(end.lines, problem(operation.timeout()));
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_LT(end.seconds, 1.0);
    EXPECT_EQ(withoutFrame(logLines(readFile("log"))), end.lines);
}

TEST_P(FileSemTimeout, IsSurvivedByASignalThatIsNoAlarm)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    ScopedFault fault({.call = Call::kSemtimedop, .error = EINTR, .times = 3});
    EXPECT_EQ(operation.run(0), operation.good);
    EXPECT_EQ(fault.hits(), 3);
}

TEST_F(FileSem, AnOpenThatTimesOutLeavesNoTable)
{
    fileSem = rm_syncCreate("fileSem");
    ScopedFault fault(timeout(fileSem));
    EXPECT_EQ(fatalEnd([] { rm_fileOpen("f", kReadWrite, 0, 0, 0); }).lines,
              problem("fileSem timeout in rm_fileOpen"));
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_FALSE(std::filesystem::exists("f"));
}

TEST_F(FileSem, IsWaitedForAnewByTheNextOperation)
{
    openMany(1);
    ScopedFault fault(timeout(fileSem, 2));
    EXPECT_TRUE(fatalEnd([] { rm_fileLength(0); }).jumped);
    EXPECT_TRUE(fatalEnd([] { rm_fileLength(0); }).jumped);
    EXPECT_EQ(rm_fileLength(0), 0U);
    EXPECT_EQ(fault.hits(), 2);
}

// A log line is worth writing without the lock, and not worth another 14 seconds.
TEST_F(FileSem, OnceItTimedOutIsNotWaitedForByALogLine)
{
    openLog("log");
    openMany(1);
    ScopedFault fault(timeout(fileSem, kForever));
    fatalEnd([] { rm_fileLength(1); });
    const std::size_t before = readFile("log").size();
    captureStderr([] { rm_systemLogWrite("shutting down"); });
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_THAT(logLines(readFile("log").substr(before)), ElementsAre("shutting down"));
}

TEST_F(FileSem, IsWaitedForByALogLineAgainOnceItWasFree)
{
    openLog("log");
    openMany(1);
    {
        ScopedFault fault(timeout(fileSem));
        fatalEnd([] { rm_fileLength(1); });
    }
    rm_fileLength(1);
    LockWatch locks;
    captureStderr([] { rm_systemLogWrite("a line"); });
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem)));
}

TEST_F(FileSem, ThatTimedOutDoesNotHoldUpTheEndOfTheProcess)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        openLog("log");
        openMany(1);
        ScopedFault fault(timeout(fileSem, kForever));
        rm_fileLength(1);
        _exit(99);
    });
    EXPECT_EQ(child.status, 0);
    const Lines lines = logLines(child.err);
    EXPECT_EQ((Lines{lines[0], lines[1]}), problem("fileSem timeout in rm_fileLength"));
    EXPECT_EQ(lines.back(), "Exiting to operating system");
    EXPECT_EQ(logLines(readFile("log")), lines);
}

// --- seekSem

TEST_F(FileSeekSem, IsTheNullObject)
{
    openMany(1);
    EXPECT_EQ(entryOf(0)->seekSem, RM_NULL_SYNC);
    EXPECT_EQ(os::nSems, 1);
}

TEST_F(FileSeekSem, IsHeldAroundAPositionedWrite)
{
    openLocked();
    int value = -1;
    Spy spy(Call::kWrite, [&](const CallRecord&) { value = semValue(os::iSem, lockOf(0)); });
    LockWatch locks;
    seekWrite(0, 2, "x");
    EXPECT_EQ(value, 0);
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem), enters(lockOf(0)),
                                           leaves(lockOf(0))));
}

TEST_F(FileSeekSem, IsHeldAroundAPositionedRead)
{
    openLocked();
    int value = -1;
    Spy spy(Call::kRead, [&](const CallRecord&) { value = semValue(os::iSem, lockOf(0)); });
    LockWatch locks;
    seekRead(0, 2, 3);
    EXPECT_EQ(value, 0);
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem), enters(lockOf(0)),
                                           leaves(lockOf(0))));
}

TEST_F(FileSeekSem, HoldsTheSeekTogetherWithItsTransfer)
{
    openLocked();
    std::vector<int> values;
    Spy spy(Call::kLseek,
            [&](const CallRecord&) { values.push_back(semValue(os::iSem, lockOf(0))); });
    seekWrite(0, 2, "x");
    seekRead(0, 2, 3);
    EXPECT_THAT(values, ElementsAre(0, 0));
}

TEST_F(FileSeekSem, IsWaitedForFor14Seconds)
{
    openLocked();
    std::vector<int64_t> seconds;
    Spy spy(Call::kSemtimedop, [&](const CallRecord& call) {
        if (lockStep(call) == enters(lockOf(0))) {
            seconds.push_back(call.pointer<const timespec>(3)->tv_sec);
        }
    });
    seekWrite(0, 2, "x");
    seekRead(0, 2, 3);
    EXPECT_THAT(seconds, ElementsAre(14, 14));
}

TEST_F(FileSeekSem, ThatIsNotFreeInTimeForAWriteIsFatalWithThePath)
{
    openLocked();
    ScopedFault fault(timeout(lockOf(0)));
    const FatalEnd end = fatalEnd([] { seekWrite(0, 2, "x"); });
    EXPECT_TRUE(end.jumped);
    EXPECT_EQ(end.lines, problem("seekSem timeout in rm_fileSeekWrite, file f"));
}

TEST_F(FileSeekSem, ThatIsNotFreeInTimeForAReadIsFatalWithoutThePath)
{
    openLocked();
    ScopedFault fault(timeout(lockOf(0)));
    const FatalEnd end = fatalEnd([] { rm_fileSeekRead(0, 2, operationBuffer, 3); });
    EXPECT_TRUE(end.jumped);
    EXPECT_EQ(end.lines, problem("seekSem timeout in rm_fileSeekRead"));
}

TEST_F(FileSeekSem, ThatIsNotFreeInTimeLetsNothingHappen)
{
    openLocked();
    {
        ScopedFault fault(timeout(lockOf(0), 2));
        fatalEnd([] { seekWrite(0, 2, "x"); });
        fatalEnd([] { rm_fileSeekRead(0, 2, operationBuffer, 3); });
    }
    EXPECT_EQ(readFile("f"), kDigits);
    EXPECT_EQ(rm_filePosition(0), 0U);
    EXPECT_EQ(file::fileOps, 0);
    EXPECT_EQ(entryOf(0)->busyCount, 0);
    EXPECT_EQ(semValue(os::iSem, lockOf(0)), 1);
}

TEST_F(FileSeekSem, CutsALongPathInItsLine)
{
    const std::string folder(200, 'd');
    std::filesystem::create_directory(folder);
    const std::string path = folder + "/" + std::string(200, 'x');
    openLocked(path.c_str());
    ScopedFault fault(timeout(lockOf(0)));
    const FatalEnd end = fatalEnd([] { seekWrite(0, 2, "x"); });
    const std::string whole = "    Specific problem: seekSem timeout in rm_fileSeekWrite, file ";
    EXPECT_EQ(end.lines, (Lines{kFatalHead, (whole + path).substr(0, 259)}));
}

TEST_F(FileSeekSem, IsLeftBeforeTheFatalEndOfAWrite)
{
    openLocked("f", FILE_FATAL);
    ScopedFault fault({.call = Call::kWrite, .error = EIO});
    EXPECT_TRUE(fatalEnd([] { seekWrite(0, 2, "x"); }).jumped);
    EXPECT_EQ(semValue(os::iSem, lockOf(0)), 1);
}

TEST_F(FileSeekSem, IsLeftBeforeTheFatalEndOfARead)
{
    openLocked("f", FILE_FATAL);
    ScopedFault fault({.call = Call::kRead, .error = EIO});
    EXPECT_TRUE(fatalEnd([] { rm_fileSeekRead(0, 2, operationBuffer, 3); }).jumped);
    EXPECT_EQ(semValue(os::iSem, lockOf(0)), 1);
}

TEST_F(FileSeekSem, IsLeftAfterAFailureThatIsNotFatal)
{
    openLocked();
    ScopedFault writing({.call = Call::kWrite, .error = EIO});
    ScopedFault reading({.call = Call::kLseek, .error = EINVAL, .skip = 1});
    linesOf([] {
        seekWrite(0, 2, "x");
        rm_fileSeekRead(0, 2, operationBuffer, 3);
    });
    EXPECT_EQ(semValue(os::iSem, lockOf(0)), 1);
}

// --- What a fatal end gives back

TEST_F(FileUnwinding, GivesBackFileSem)
{
    openMany(1);
    EXPECT_TRUE(fatalEnd([] {
                    file::enterFileSem("held");
                    rm_errorExit();
                }).jumped);
    EXPECT_EQ(fileSemValue(), 1);
    EXPECT_EQ(rm_fileLength(0), 0U);
}

TEST_F(FileUnwinding, GivesBackANestedFileSemOnce)
{
    openMany(1);
    fatalEnd([] {
        file::enterFileSem("held");
        file::enterFileSem("held");
        file::enterFileSem("held");
        rm_errorExit();
    });
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(FileUnwinding, GivesBackGrowSem)
{
    growSem = rm_syncCreate("growSem");
    fatalEnd([] {
        file::enterGrowSem();
        rm_errorExit();
    });
    EXPECT_EQ(growSemValue(), 1);
}

TEST_F(FileUnwinding, OutOfTheExitFindsTheLocksRemoved)
{
    openMany(1);
    growSem = rm_syncCreate("growSem");
    int code = 0;
    captureStderr([&] {
        code = rmtest::catchExit([] {
            file::enterFileSem("held");
            file::enterGrowSem();
            rm_exit(5);
        });
    });
    EXPECT_EQ(code, 5);
    EXPECT_EQ(fileSem, -1);
    EXPECT_EQ(growSem, -1);
    EXPECT_EQ(openNew("again"), 0);
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(FileUnwinding, GivesBackNothingThatIsNotHeld)
{
    openMany(1);
    growSem = rm_syncCreate("growSem");
    fatalEnd([] { rm_errorExit(); });
    EXPECT_EQ(fileSemValue(), 1);
    EXPECT_EQ(growSemValue(), 1);
}

TEST_F(FileUnwinding, EndsEveryOperation)
{
    openMany(3);
    entryOf(0)->busyCount = 1;
    entryOf(2)->busyCount = 2;
    fatalEnd([] { rm_errorExit(); });
    EXPECT_EQ(entryOf(0)->busyCount, 0);
    EXPECT_EQ(entryOf(2)->busyCount, 0);
}

TEST_F(FileUnwinding, OutOfTheJumpOfATagDoesTheSame)
{
    openMany(1);
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    ScopedFault fault({.call = Call::kAllocBlock});
    jmp_buf here;
    volatile bool arrived = false;
    if (setjmp(here) == 0) {
        rm_resetTag(here, tag);
        rm_resetTag(nullptr, tag);  // the buffer is kept, and used
        file::enterFileSem("held");
        rm_getMemory(8, tag);
    } else {
        arrived = true;
    }
    EXPECT_TRUE(arrived);
    EXPECT_EQ(fileSemValue(), 1);
}

// The system refuses to take the lock back. The line about it must not wait for the very lock, and
// the way out tries again.
TEST_F(FileUnwinding, TriesAgainToLeaveALockThatCouldNotBeLeft)
{
    openMany(1);
    ScopedFault fault({.call = Call::kSemop, .error = ENOMEM, .when = isStep(leaves(fileSem))});
    const FatalEnd end = fatalEnd([] { rm_fileLength(0); });
    EXPECT_TRUE(end.jumped);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_LT(end.seconds, 1.0);
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(FileUnwinding, OfALockThatCouldNotBeLeftDoesNotWaitForItselfInTheLogFile)
{
    openLog("log");
    openMany(1);
    ScopedFault fault({.call = Call::kSemop, .error = ENOMEM, .when = isStep(leaves(fileSem))});
    std::vector<int> waits;
    Spy spy(Call::kSemtimedop, [&](const CallRecord&) { waits.push_back(fileSemValue()); });
    const FatalEnd end = fatalEnd([] { rm_fileLength(1); });
    EXPECT_TRUE(end.jumped);
    EXPECT_LT(end.seconds, 1.0);
    EXPECT_THAT(waits, ::testing::Each(1)) << "it waited for a lock that it held";
    // Whatever the case found, it leaves the lock free.
    while (fileSemValue() < 1) {
        rm_syncExitExcl(fileSem);
    }
}

TEST_F(FileUnwinding, EndsWhenTheLockCannotBeLeftAtAll)
{
    openMany(1);
    {
        ScopedFault fault({.call = Call::kSemop,
                           .error = EINVAL,
                           .times = kForever,
                           .when = isStep(leaves(fileSem))});
        const FatalEnd end = fatalEnd([] { rm_fileLength(0); });
        EXPECT_TRUE(end.jumped);
        EXPECT_LT(end.seconds, 1.0);
    }
    EXPECT_EQ(file::checkFtab(), 0U);
    rm_syncExitExcl(fileSem);
}

TEST_F(FileUnwinding, DoesNotMakeALockAnew)
{
    openLog("log");
    rm_syncTerminate();
    ScopedFault fault({.call = Call::kSemget, .error = ENOSPC});
    resetCalls();
    const FatalEnd end = fatalEnd([] { rm_fileOpen("f", kReadWrite, 0, 0, 0); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.out, ::testing::StartsWith("**** rm_syncCreate() semget() failure, errno=28"));
    EXPECT_EQ(callCount(Call::kSemget), 1);
    EXPECT_EQ(fileSem, -1);
    EXPECT_EQ(withoutFrame(logLines(readFile("log"))), end.lines);
    rm_syncTerminate();  // the slot of the object that could not be made
}

// --- Nested entries

TEST_F(FileNesting, ASecondEntryOfTheProcessDoesNotWait)
{
    openMany(1);
    LockWatch locks;
    file::enterFileSem("outer");
    file::enterFileSem("inner");
    file::leaveFileSem();
    EXPECT_EQ(fileSemValue(), 0);
    file::leaveFileSem();
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem)));
}

TEST_F(FileNesting, ASecondGrowthOfTheProcessDoesNotWait)
{
    growSem = rm_syncCreate("growSem");
    LockWatch locks;
    file::enterGrowSem();
    file::enterGrowSem();
    file::leaveGrowSem();
    EXPECT_EQ(growSemValue(), 0);
    file::leaveGrowSem();
    EXPECT_THAT(locks.steps(), ElementsAre(enters(growSem), leaves(growSem)));
}

TEST_F(FileNesting, AnOperationInsideTheLockDoesNotWait)
{
    openWith("f", kDigits);
    park(0);
    file::enterFileSem("outer");
    EXPECT_EQ(read(0, 4), "0123");
    EXPECT_EQ(fileSemValue(), 0);
    file::leaveFileSem();
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(FileNesting, ALineInsideTheLockReachesTheLogFile)
{
    openLog("log");
    file::enterFileSem("outer");
    LockWatch locks;
    captureStderr([] { rm_systemLogWrite("inside"); });
    EXPECT_THAT(locks.steps(), IsEmpty());
    file::leaveFileSem();
    EXPECT_THAT(logLines(readFile("log")), ElementsAre("inside"));
}

TEST_F(FileNesting, AParkedLogFileComesBackForALine)
{
    fileHandleLimit = 4;
    openLog("log");
    captureStderr([] { rm_systemLogWrite("first"); });
    openMany(8);
    EXPECT_EQ(entryOf(sysfile)->state, file::kSlotParked);
    captureStderr([] { rm_systemLogWrite("second"); });
    EXPECT_EQ(entryOf(sysfile)->state, file::kSlotOpen);
    EXPECT_THAT(logLines(readFile("log")), ElementsAre("first", "second"));
}

TEST_F(FileNesting, AParkedLogFileComesBackForALineInsideTheLock)
{
    fileHandleLimit = 4;
    openLog("log");
    writeFile("gone", "");
    const int16_t gone = rm_fileOpen("gone", RM_O_RDWR, 0, 0, 0);
    openMany(8);
    ASSERT_EQ(entryOf(sysfile)->state, file::kSlotParked);
    ASSERT_EQ(entryOf(gone)->state, file::kSlotParked);
    std::filesystem::remove("gone");
    const Lines lines = linesOf([&] { rm_fileSeek(gone, 5); });
    EXPECT_EQ(lines.size(), 1U);
    EXPECT_EQ(logLines(readFile("log")), lines);
    EXPECT_LE(counts().open, 4U);
}

TEST_F(FileNesting, AParkedLogFileKeepsWhatOthersHadAppendedByThen)
{
    openLog("log");
    captureStderr([] { rm_systemLogWrite("mine"); });
    std::ofstream("log", std::ios::app) << "[07-Mar-96 14:05:09]  theirs\n";
    park(sysfile);
    captureStderr([] { rm_systemLogWrite("mine again"); });
    EXPECT_THAT(logLines(readFile("log")), ElementsAre("mine", "theirs", "mine again"));
}

TEST_F(FileNesting, TheLogFilesOwnFailureGoesToStandardErrorOnly)
{
    openLog("log");
    park(sysfile);
    ScopedFault fault({.call = Call::kOpen, .error = EMFILE, .times = kForever});
    const FatalEnd end = fatalEnd([] { rm_systemLogWrite("a line"); });
    EXPECT_TRUE(end.jumped) << "it was opened in fatal mode";
    EXPECT_THAT(end.lines,
                ElementsAre("a line", "reopenFile: errno=24: failed to create file 'log'"));
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(std::filesystem::file_size("log"), 0U);
}

TEST_F(FileNesting, ALogFileThatHasEndedFatallyIsLeftAloneUntilItIsClosed)
{
    openLog("log");
    park(sysfile);
    {
        ScopedFault fault({.call = Call::kOpen, .error = EMFILE});
        EXPECT_TRUE(fatalEnd([] { rm_systemLogWrite("lost"); }).jumped);
    }
    EXPECT_THAT(linesOf([] { rm_systemLogWrite("at the target"); }), ElementsAre("at the target"));
    EXPECT_EQ(readFile("log"), "");
    rm_systemLogClose();
    openLog("log");
    captureStderr([] { rm_systemLogWrite("a new start"); });
    EXPECT_THAT(logLines(readFile("log")), ElementsAre("a new start"));
}

// The slot of a handle that is gone belongs to the next file, and no line may get into that.
TEST_F(FileNesting, ALogFileThatIsGoneIsNoLogFileAnyMore)
{
    std::filesystem::create_directory("d");
    sysfile = rm_fileOpen("d/log", kLogFlags, FILE_STREAM, 0, 0);
    rm_systemLog(2);
    const int16_t gone = sysfile;
    openMany(1);
    park(sysfile);
    std::filesystem::remove_all("d");
    EXPECT_THAT(linesOf([] { rm_systemLogWrite("a line"); }),
                ElementsAre("a line", "WARNING: failed file reopen in rm_filePrintf(" +
                                          std::to_string(gone) + ")"));
    EXPECT_EQ(sysfile, -1);
    ASSERT_EQ(openNew("next", FILE_STREAM), gone);
    captureStderr([] { rm_systemLogWrite("not for the next file"); });
    EXPECT_EQ(std::filesystem::file_size("next"), 0U);
}

TEST_F(FileNesting, ALogFileThatIsGoneAsTheLastHandleIsNoLogFileAnyMore)
{
    std::filesystem::create_directory("d");
    sysfile = rm_fileOpen("d/log", kLogFlags, FILE_STREAM, 0, 0);
    rm_systemLog(2);
    park(sysfile);
    std::filesystem::remove_all("d");
    captureStderr([] { rm_systemLogWrite("a line"); });
    EXPECT_EQ(sysfile, -1);
    const FatalEnd next = fatalEnd([] { rm_systemLogWrite("the next line"); });
    EXPECT_FALSE(next.jumped);
    EXPECT_THAT(next.lines, ElementsAre("the next line"));
}

TEST_F(FileNesting, ALogFileThatTheHostClosesByItsHandleIsNoLogFileAnyMore)
{
    openLog("log");
    openMany(1);
    rm_fileClose(sysfile);
    EXPECT_EQ(sysfile, -1);
    EXPECT_THAT(linesOf([] { rm_systemLogWrite("a line"); }), ElementsAre("a line"));
}

// Its lines open it while it is being opened.
TEST_F(FileNesting, ALogFileThatLogsAboutItsOwnReopeningIsOpenOnce)
{
    rmDiskFull = 0;
    sysfile = rm_fileOpen("log", kLogFlags, FILE_STREAM, 600, 0);
    rm_systemLog(2);
    rm_fileSeek(sysfile, 0);
    park(sysfile);
    std::filesystem::resize_file("log", 0);
    entryOf(sysfile)->position = 0;
    rminfree = 1e18;
    const Lines lines = linesOf([] { EXPECT_EQ(rm_fileLength(sysfile), 600U); });
    EXPECT_THAT(lines, ElementsAre("extending file log exceeded min threshold by 2147483647 bytes",
                                   "READ ACCESS ONLY!"));
    const std::string log = readFile("log");
    EXPECT_EQ(logLines(log.substr(0, log.find('\0'))), lines);
    EXPECT_EQ(counts().open, 1U);
    EXPECT_EQ(file::nHandles, 1);
    expectSound();
}

}  // namespace
