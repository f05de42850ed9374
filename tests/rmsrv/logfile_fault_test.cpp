// Every call of the system that opening the log file makes, failed once and for ever: what costs
// the backup only, what is fatal, and that the library works on afterwards. Then the lines that a
// log file which cannot be written causes.
#include "frame.h"

#include <chrono>
#include <cstring>

#include <fcntl.h>
#include <sys/sem.h>
#include <sys/stat.h>

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::captureStderr;
using rmtest::ChildResult;
using rmtest::contains;
using rmtest::expectEndAtOnce;
using rmtest::Fault;
using rmtest::fileLines;
using rmtest::kForever;
using rmtest::kLogPath;
using rmtest::logLines;
using rmtest::Outcome;
using rmtest::outcomeOf;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::ScopedFault;
using rmtest::writeFile;
using ::testing::ElementsAre;
using ::testing::StartsWith;

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kBackupPath = "server.bak";
constexpr int kTimes[] = {1, kForever};

void openAt(const char* path)
{
    rm_systemLog(2);
    rm_systemLogOpen(path);
}

bool isLog(const CallRecord& call)
{
    return call.path() == kLogPath;
}

bool isBackup(const CallRecord& call)
{
    return call.path() == kBackupPath;
}

class LogFileOpenFault : public rmtest::FrameTest
{
  protected:
    struct Result {
        Outcome outcome;
        int hits = 0;
        double seconds = 0;
    };

    // The state that each opening begins with: a log of the previous run, and an older backup.
    static void previousRun()
    {
        rm_systemLogClose();
        rm_freeall();
        fs::remove_all(kLogPath);
        fs::remove_all(kBackupPath);
        writeFile(kLogPath, "previous");
        writeFile(kBackupPath, "older");
    }

    static Result openUnder(const Fault& fault)
    {
        Result result;
        std::string err;
        const auto started = Clock::now();
        // Armed within the capturing, which makes calls of its own.
        result.outcome.out = rmtest::captureStdout([&] {
            err = captureStderr([&] {
                const ScopedFault armed(fault);
                result.outcome.jumped = rmtest::catchFatal([] { openAt(kLogPath); });
                result.hits = armed.hits();
            });
        });
        result.outcome.lines = logLines(err);
        result.seconds = std::chrono::duration<double>(Clock::now() - started).count();
        return result;
    }

    // The log is open, empty, and takes lines.
    static void expectWorks()
    {
        ASSERT_NE(sysfile, RM_NONE);
        EXPECT_EQ(readFile(kLogPath), "");
        EXPECT_THAT(logLines(captureStderr([] { rm_systemLogWrite("works"); })),
                    ElementsAre("works"));
        EXPECT_THAT(fileLines(), ElementsAre("works"));
        EXPECT_EQ(rmtest::violations(), 0U);
    }

    // The opening has failed fatally and in order; the next one works.
    static void expectFatal(const Result& result)
    {
        EXPECT_EQ(result.outcome.jumped, 1);
        EXPECT_LT(result.seconds, rmtest::kAtOnce);
        ASSERT_FALSE(result.outcome.lines.empty());
        EXPECT_EQ(result.outcome.lines.back(), "Exiting to shutdown processing");
        EXPECT_EQ(sysfile, RM_NONE);
        EXPECT_EQ(syslogon, 2);
        EXPECT_EQ(rmalloc::checkMemory() + file::checkFtab(), 0U);
        if (fileSem != RM_NONE) {
            EXPECT_EQ(os::checkSync(), 0U);
            EXPECT_EQ(rmtest::semValue(os::iSem, fileSem), 1);
        }
        EXPECT_EQ(outcomeOf([] { openAt(kLogPath); }).jumped, 0);
        expectWorks();
    }
};

class LogFileWriteFault : public rmtest::FrameTest
{
};

// --- What costs the backup

TEST_F(LogFileOpenFault, APreviousFileThatIsNotSeenIsCut)
{
    for (const int error : {EACCES, EIO, ENOMEM}) {
        for (const int times : kTimes) {
            previousRun();
            const Result result =
                openUnder({.call = Call::kStat, .error = error, .times = times, .when = isLog});
            EXPECT_EQ(result.hits, 1);
            EXPECT_EQ(result.outcome.jumped, 0);
            EXPECT_THAT(result.outcome.lines, ElementsAre());
            EXPECT_EQ(readFile(kBackupPath), "older");
            expectWorks();
        }
    }
}

TEST_F(LogFileOpenFault, AnOlderBackupThatIsNotSeenIsReplacedByTheRename)
{
    for (const int times : kTimes) {
        previousRun();
        const Result result =
            openUnder({.call = Call::kStat, .error = EIO, .times = times, .when = isBackup});
        EXPECT_EQ(result.hits, 1);
        EXPECT_THAT(result.outcome.lines, ElementsAre());
        EXPECT_EQ(readFile(kBackupPath), "previous");
        expectWorks();
    }
}

TEST_F(LogFileOpenFault, AnOlderBackupThatCannotBeRemovedIsPassedOver)
{
    for (const int error : {EACCES, EBUSY, EIO, EISDIR, ENOTEMPTY, EPERM, EROFS}) {
        for (const int times : kTimes) {
            previousRun();
            const Result result =
                openUnder({.call = Call::kRemove, .error = error, .times = times});
            EXPECT_EQ(result.hits, 1) << "it is tried once";
            EXPECT_EQ(result.outcome.jumped, 0);
            EXPECT_THAT(result.outcome.lines, ElementsAre());
            EXPECT_EQ(readFile(kBackupPath), "previous") << "the rename has replaced it";
            expectWorks();
        }
    }
}

TEST_F(LogFileOpenFault, AFileThatCannotBeRenamedIsCut)
{
    for (const int error : {EACCES, EBUSY, EDQUOT, EIO, EISDIR, ENOSPC, EPERM, EROFS, EXDEV}) {
        for (const int times : kTimes) {
            previousRun();
            const Result result =
                openUnder({.call = Call::kRename, .error = error, .times = times});
            EXPECT_EQ(result.hits, 1) << "it is tried once";
            EXPECT_EQ(result.outcome.jumped, 0);
            EXPECT_THAT(result.outcome.lines, ElementsAre());
            EXPECT_FALSE(fs::exists(kBackupPath));
            expectWorks();
        }
    }
}

TEST_F(LogFileOpenFault, NothingOfTheBackupWorksAndTheLogIsOpenedAllTheSame)
{
    previousRun();
    const ScopedFault removing({.call = Call::kRemove, .error = EIO, .times = kForever});
    const Result result = openUnder({.call = Call::kRename, .error = EIO, .times = kForever});
    EXPECT_EQ(result.outcome.jumped, 0);
    EXPECT_THAT(result.outcome.lines, ElementsAre());
    EXPECT_EQ(readFile(kBackupPath), "older");
    expectWorks();
}

// --- What is fatal

TEST_F(LogFileOpenFault, AFileThatIsNotOpenedIsFatal)
{
    for (const int error :
         {EACCES, EINTR, EIO, EISDIR, ELOOP, EMFILE, ENFILE, ENOSPC, EPERM, EROFS, ETXTBSY}) {
        for (const int times : kTimes) {
            previousRun();
            const Result result =
                openUnder({.call = Call::kOpen, .error = error, .times = times, .when = isLog});
            EXPECT_EQ(result.hits, 1) << "it is tried once";
            EXPECT_EQ(result.outcome.lines.front(), "reopenFile: errno=" + std::to_string(error) +
                                                        ": failed to create file 'server.log'");
            EXPECT_EQ(readFile(kBackupPath), "previous") << "the backup is made by then";
            expectFatal(result);
        }
    }
}

TEST_F(LogFileOpenFault, AStreamThatIsNotHadIsFatalAndTheDescriptorIsGivenBack)
{
    openAt("first.log");  // the token's stream is made
    for (const int error : {EINVAL, ENOMEM, EMFILE}) {
        for (const int times : kTimes) {
            previousRun();
            const std::vector<int> before = rmtest::openDescriptors();
            const Result result =
                openUnder({.call = Call::kFdopen, .error = error, .times = times});
            EXPECT_EQ(result.hits, 1);
            EXPECT_EQ(result.outcome.lines.front(), "reopenFile: errno=" + std::to_string(error) +
                                                        ": failed to create file 'server.log'");
            EXPECT_EQ(rmtest::openDescriptors(), before);
            expectFatal(result);
        }
    }
}

TEST_F(LogFileOpenFault, APlaceThatIsNotReachedIsFatal)
{
    openAt("first.log");
    for (const int error : {EBADF, EINVAL, EOVERFLOW}) {
        previousRun();
        const Result result = openUnder({.call = Call::kLseek, .error = error, .times = kForever});
        EXPECT_EQ(result.outcome.lines.front(), "reopenFile: errno=" + std::to_string(error) +
                                                    ": failed to create file 'server.log'");
        expectFatal(result);
    }
}

TEST_F(LogFileOpenFault, ADeviceWithoutPlacesIsOpened)
{
    for (const int times : kTimes) {
        previousRun();
        const Result result = openUnder({.call = Call::kLseek, .error = ESPIPE, .times = times});
        EXPECT_GT(result.hits, 0);
        EXPECT_EQ(result.outcome.jumped, 0);
        expectWorks();
    }
}

TEST_F(LogFileOpenFault, ALockThatIsNotMadeIsFatal)
{
    struct Step {
        Call call;
        int error;
        const char* message;
    };

    constexpr Step kSteps[] = {
        {Call::kOpen, EACCES, "fopen() failure"},    {Call::kOpen, ENOSPC, "fopen() failure"},
        {Call::kFdopen, ENOMEM, "fopen() failure"},  {Call::kSemget, ENOSPC, "semget() failure"},
        {Call::kSemget, ENOMEM, "semget() failure"}, {Call::kSemop, EIDRM, "semop() failure"},
        {Call::kSemop, ERANGE, "semop() failure"}};
    for (const Step& step : kSteps) {
        for (const int times : kTimes) {
            SCOPED_TRACE(step.message);
            previousRun();
            rm_syncTerminate();
            const Result result =
                openUnder({.call = step.call, .error = step.error, .times = times});
            EXPECT_THAT(result.outcome.out,
                        StartsWith(std::string("**** rm_syncCreate() ") + step.message +
                                   ", errno=" + std::to_string(step.error)));
            expectFatal(result);
        }
    }
}

TEST_F(LogFileOpenFault, ALockThatIsNotHadInTimeIsFatal)
{
    for (const int times : kTimes) {
        previousRun();
        const Result result =
            openUnder({.call = Call::kSemtimedop, .error = EAGAIN, .times = times});
        EXPECT_EQ(result.hits, 1);
        EXPECT_THAT(std::vector(result.outcome.lines.begin(), result.outcome.lines.begin() + 2),
                    ElementsAre("***Fatal resource manager error***",
                                "    Specific problem: fileSem timeout in rm_fileOpen"));
        expectFatal(result);
    }
}

TEST_F(LogFileOpenFault, ALockThatIsNotEnteredIsFatal)
{
    for (const int error : {E2BIG, EACCES, EFAULT, EFBIG, EIDRM, EINVAL, ENOMEM, ERANGE}) {
        for (const int times : kTimes) {
            previousRun();
            const Result result =
                openUnder({.call = Call::kSemtimedop, .error = error, .times = times});
            EXPECT_THAT(result.outcome.out, StartsWith("**** rm_syncEnterExcl() semop() failure, "
                                                       "errno=" +
                                                       std::to_string(error)));
            expectFatal(result);
        }
    }
}

// Fails the n-th call of a kind for every n. Each opening works, or ends fatally; after either the
// library does.
TEST_F(LogFileOpenFault, AnyCallOfAnyKindMayFail)
{
    struct Kind {
        Call call;
        int error;
        int least;  // calls of it that an opening makes at least
    };

    constexpr Kind kKinds[] = {
        {Call::kStat, EIO, 2},      {Call::kRemove, EIO, 1},       {Call::kRename, EIO, 1},
        {Call::kMalloc, ENOMEM, 3}, {Call::kOpen, EIO, 1},         {Call::kFdopen, ENOMEM, 1},
        {Call::kLseek, EIO, 1},     {Call::kSemtimedop, EIDRM, 1}, {Call::kGetenv, 0, 1},
        {Call::kFclose, EIO, 0},    {Call::kSemctl, EIDRM, 0},
    };
    openAt("first.log");  // the lock is there
    for (const Kind& kind : kKinds) {
        for (const int times : kTimes) {
            bool failed = true;
            int calls = 0;
            for (int skip = 0; failed; ++skip) {
                ASSERT_LT(skip, 100) << "it does not come to an end";
                previousRun();
                resetCalls();
                const Result result = openUnder(
                    {.call = kind.call, .error = kind.error, .skip = skip, .times = times});
                SCOPED_TRACE(std::string("call ") + std::to_string(static_cast<int>(kind.call)) +
                             ", after " + std::to_string(skip));
                failed = result.hits > 0;
                calls += failed ? 1 : 0;
                if (result.outcome.jumped == 1) {
                    EXPECT_TRUE(failed);
                    expectFatal(result);
                } else {
                    EXPECT_THAT(result.outcome.lines, ElementsAre());
                    expectWorks();
                }
            }
            EXPECT_GE(calls, kind.least);
        }
    }
}

TEST_F(LogFileOpenFault, EveryAllocationIsFatal)
{
    for (const int times : kTimes) {
        bool failed = true;
        int allocations = 0;
        for (int skip = 0; failed; ++skip) {
            ASSERT_LT(skip, 100) << "it does not come to an end";
            previousRun();
            rm_freeMemory(rm_getMemory(1, 0), 0);
            seg_alloc = 1;  // so that every block is an allocation
            const Result result =
                openUnder({.call = Call::kMalloc, .error = ENOMEM, .skip = skip, .times = times});
            failed = result.hits > 0;
            EXPECT_EQ(result.outcome.jumped, failed ? 1 : 0) << skip;
            if (failed) {
                ++allocations;
                EXPECT_EQ(result.outcome.lines.front(), "Out of memory!");
                expectFatal(result);
            }
        }
        // The copy of the path, the tag's name, the table, 32 entries, the name of the file.
        EXPECT_GE(allocations, 36);
    }
    seg_alloc = 0;
}

TEST_F(LogFileOpenFault, WithoutACopyOfThePathTheLogOfThePreviousRunStays)
{
    previousRun();
    const Result result = openUnder({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    EXPECT_EQ(result.outcome.jumped, 1);
    EXPECT_EQ(readFile(kLogPath), "previous");
    EXPECT_EQ(readFile(kBackupPath), "older");
    expectFatal(result);
}

TEST_F(LogFileOpenFault, WithoutATargetTheProcessEnds)
{
    struct Kind {
        Call call;
        int error;
    };

    for (const Kind& kind :
         {Kind{Call::kMalloc, ENOMEM}, Kind{Call::kOpen, EMFILE}, Kind{Call::kFdopen, ENOMEM},
          Kind{Call::kSemget, ENOSPC}, Kind{Call::kSemop, EIDRM}, Kind{Call::kSemtimedop, EIDRM},
          Kind{Call::kSemtimedop, EAGAIN}, Kind{Call::kLseek, EIO}}) {
        writeFile(kLogPath, "previous");
        const ChildResult child = runChild([&kind] {
            static ScopedFault fault({.call = kind.call, .error = kind.error, .times = kForever});
            openAt(kLogPath);
            _exit(99);
        });
        expectEndAtOnce(child, 0);
        const std::vector<std::string> lines = logLines(child.err);
        EXPECT_EQ(rmtest::banners(lines), 1);
        EXPECT_EQ(lines.back(), "Exiting to operating system");
        rmtest::removeLeftovers();
    }
}

// --- Lines that cannot be written

TEST_F(LogFileWriteFault, TheLinesOfALockThatFailsGoToStandardErrorOnly)
{
    openAt(kLogPath);
    captureStderr([] { rm_systemLogWrite("before"); });
    Outcome outcome;
    {
        const ScopedFault fault({.call = Call::kSemtimedop, .error = EIDRM});
        outcome = outcomeOf([] { rm_systemLogWrite("lost"); });
    }
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(outcome.lines.front(), "lost");
    EXPECT_TRUE(contains(outcome.lines, std::string("**** rm_syncEnterExcl() semop() failure, "
                                                    "errno=43 (") +
                                            std::strerror(EIDRM) + ")"));
    EXPECT_THAT(fileLines(), ElementsAre("before"));
}

TEST_F(LogFileWriteFault, TheWarningOfAParkedLogThatHasGoneIsNotWrittenIntoAnother)
{
    openAt(kLogPath);
    const int16_t handle = sysfile;
    // In a host's own mode the handle goes with the failed reopening.
    file::usedEntry(handle)->modeFlags = FILE_STREAM;
    fileHandleLimit = 1;
    const int16_t other = rm_fileOpen("other", RM_O_RDWR | RM_O_CREAT, FILE_PINNED, 0, 0);
    ASSERT_EQ(file::usedEntry(handle)->state, file::kSlotParked);
    const ScopedFault fault(
        {.call = Call::kOpen, .error = ENOENT, .times = kForever, .when = isLog});
    const Outcome outcome = outcomeOf([] { rm_systemLogWrite("a line"); });
    EXPECT_EQ(outcome.jumped, 0);
    EXPECT_THAT(outcome.lines,
                ElementsAre("a line", "WARNING: failed file reopen in rm_filePrintf(" +
                                          std::to_string(handle) + ")"));
    EXPECT_EQ(readFile("other"), "");
    EXPECT_EQ(sysfile, RM_NONE);
    rm_fileClose(other);
}

TEST_F(LogFileWriteFault, AFullDeviceTakesNothingAndStopsNobody)
{
    openAt("/dev/full");
    ASSERT_NE(sysfile, RM_NONE);
    const Outcome outcome = outcomeOf([] {
        rm_systemLogWrite("one");
        rm_systemLogWrite("two");
    });
    EXPECT_EQ(outcome.jumped, 0);
    EXPECT_THAT(outcome.lines, ElementsAre("one", "two"));
    EXPECT_EQ(rm_filePosition(sysfile), 0U);
}

TEST_F(LogFileWriteFault, AfterALineThatTheDiskRefusedTheNextOneIsWhole)
{
    openAt(kLogPath);
    const FILE* stream = file::usedEntry(sysfile)->stream;
    for (const Call call : {Call::kVfprintf, Call::kFflush}) {
        const ScopedFault fault(
            {.call = call, .error = ENOSPC, .when = [stream](const CallRecord& record) {
                 return record.pointer<FILE>(0) == stream;
             }});
        EXPECT_THAT(logLines(captureStderr([] { rm_systemLogWrite("lost"); })),
                    ElementsAre("lost"));
        EXPECT_EQ(fault.hits(), 1);
    }
    captureStderr([] { rm_systemLogWrite("after"); });
    EXPECT_THAT(fileLines(), ElementsAre("after"));
}

TEST_F(LogFileWriteFault, AfterAFatalOneAnotherOpeningIsTrusted)
{
    openAt(kLogPath);
    {
        const ScopedFault fault({.call = Call::kSemtimedop, .error = EIDRM});
        EXPECT_EQ(outcomeOf([] { rm_systemLogWrite("lost"); }).jumped, 1);
    }
    rm_systemLogClose();
    openAt(kLogPath);
    captureStderr([] { rm_systemLogWrite("anew"); });
    EXPECT_THAT(fileLines(), ElementsAre("anew"));
}

TEST_F(LogFileWriteFault, AProcessThatLogsUnderAForeverFailingLockEndsAtOnce)
{
    const ChildResult child = runChild([] {
        openAt(kLogPath);
        static ScopedFault fault({.call = Call::kSemtimedop, .error = EIDRM, .times = kForever});
        rm_systemLogWrite("work");
        _exit(99);
    });
    expectEndAtOnce(child, 0);
    EXPECT_EQ(logLines(child.err).back(), "Exiting to operating system");
    rmtest::removeLeftovers();
}
}  // namespace
