// The handle of the log file and its closing.
#include "frame.h"

#include <cstring>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::fileLines;
using rmtest::kForever;
using rmtest::kLogPath;
using rmtest::openLog;
using rmtest::Outcome;
using rmtest::outcomeOf;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using ::testing::ElementsAre;

class LogFileClose : public rmtest::FrameTest
{
};

class LogFileCloseFails : public rmtest::FrameTest
{
};

TEST_F(LogFileClose, NoneIsOpenInAFreshProcess)
{
    EXPECT_EQ(sysfile, RM_NONE);
}

TEST_F(LogFileClose, ForgetsTheHandle)
{
    openLog();
    rm_systemLogClose();
    EXPECT_EQ(sysfile, RM_NONE);
}

TEST_F(LogFileClose, TurnsLoggingOff)
{
    openLog();
    rm_systemLogClose();
    EXPECT_EQ(rm_systemLog(1), 0);
}

TEST_F(LogFileClose, TurnsLoggingOffWhenNoneIsOpenToo)
{
    rm_systemLog(2);
    rm_systemLogClose();
    EXPECT_EQ(syslogon, 0);
    EXPECT_EQ(sysfile, RM_NONE);
}

TEST_F(LogFileClose, WithNoneOpenMakesNoCall)
{
    rm_systemLog(2);
    resetCalls();
    rm_systemLogClose();
    EXPECT_TRUE(callTrace().empty());
}

TEST_F(LogFileClose, ASecondOneChangesNothing)
{
    openLog();
    rm_systemLogClose();
    EXPECT_EQ(captureStderr([] { rm_systemLogClose(); }), "");
    EXPECT_EQ(sysfile, RM_NONE);
}

TEST_F(LogFileClose, GivesTheDescriptorBack)
{
    const std::vector<int> before = rmtest::openDescriptors();
    openLog();
    rm_systemLogClose();
    // The token file stays with the lock.
    EXPECT_EQ(rmtest::openDescriptors().size(), before.size() + 1);
}

TEST_F(LogFileClose, GivesTheHandleBack)
{
    openLog();
    const int16_t other = rm_fileOpen("other", RM_O_WRONLY | RM_O_CREAT, 0, 0, 0);
    const int16_t handle = sysfile;
    rm_systemLogClose();
    EXPECT_EQ(file::usedEntry(handle), nullptr);
    EXPECT_NE(file::usedEntry(other), nullptr);
    rm_fileClose(other);
}

TEST_F(LogFileClose, OfTheOnlyFileGivesTheTableBack)
{
    openLog();
    rm_systemLogClose();
    EXPECT_EQ(file::ftab, nullptr);
}

TEST_F(LogFileClose, KeepsTheLinesInTheFile)
{
    openLog();
    captureStderr([] { rm_systemLogWrite("a line"); });
    rm_systemLogClose();
    EXPECT_THAT(fileLines(), ElementsAre("a line"));
}

TEST_F(LogFileClose, LaterLinesGoToStandardErrorOnly)
{
    openLog();
    rm_systemLogClose();
    rm_systemLog(2);
    EXPECT_THAT(rmtest::logLines(captureStderr([] { rm_systemLogWrite("later"); })),
                ElementsAre("later"));
    EXPECT_EQ(rmtest::readFile(kLogPath), "");
}

TEST_F(LogFileClose, LaterOptionalLinesAreDropped)
{
    openLog();
    rm_systemLogClose();
    EXPECT_EQ(captureStderr([] { rm_systemLogOptWrite("later"); }), "");
}

TEST_F(LogFileClose, OfAParkedFileOpensNothing)
{
    openLog();
    fileHandleLimit = 1;
    const int16_t other = rm_fileOpen("other", RM_O_WRONLY | RM_O_CREAT, FILE_PINNED, 0, 0);
    ASSERT_EQ(file::ftab[sysfile]->state, file::kSlotParked);
    resetCalls();
    rm_systemLogClose();
    EXPECT_EQ(callCount(Call::kOpen), 0);
    EXPECT_EQ(callCount(Call::kFclose), 0);
    EXPECT_EQ(sysfile, RM_NONE);
    rm_fileClose(other);
}

TEST_F(LogFileClose, LogsNothingItself)
{
    openLog();
    EXPECT_EQ(captureStderr([] { rm_systemLogClose(); }), "");
    EXPECT_EQ(rmtest::readFile(kLogPath), "");
}

TEST_F(LogFileClose, OfAHandleThatHasGoneSaysSo)
{
    openLog();
    const int16_t handle = sysfile;
    rm_fileClose(handle);
    rm_systemLog(1);
    sysfile = handle;  // a host that sets it to what it had kept
    EXPECT_THAT(rmtest::logLines(captureStderr([] { rm_systemLogClose(); })),
                ElementsAre("rm_fileClose: invalid handle " + std::to_string(handle)));
    EXPECT_EQ(sysfile, RM_NONE);
    EXPECT_EQ(syslogon, 0);
}

// --- The handle closed by others

TEST_F(LogFileClose, ByItsHandleForgetsItToo)
{
    openLog();
    rm_fileClose(sysfile);
    EXPECT_EQ(sysfile, RM_NONE);
    EXPECT_EQ(syslogon, 2);
}

TEST_F(LogFileClose, ByItsHandleGivesTheNextFileNoLines)
{
    openLog();
    const int16_t handle = sysfile;
    const int16_t other = rm_fileOpen("other", RM_O_WRONLY | RM_O_CREAT, 0, 0, 0);
    rm_fileClose(handle);
    const int16_t next = rm_fileOpen("next", RM_O_WRONLY | RM_O_CREAT, FILE_STREAM, 0, 0);
    ASSERT_EQ(next, handle);
    EXPECT_THAT(rmtest::logLines(captureStderr([] { rm_systemLogWrite("a line"); })),
                ElementsAre("a line"));
    EXPECT_EQ(rmtest::readFile("next"), "");
    rm_fileClose(next);
    rm_fileClose(other);
}

TEST_F(LogFileClose, ByTheEndOfAllMemoryForgetsItToo)
{
    openLog();
    rm_freeall();
    EXPECT_EQ(sysfile, RM_NONE);
    EXPECT_THAT(rmtest::logLines(captureStderr([] { rm_systemLogWrite("a line"); })),
                ElementsAre("a line"));
}

TEST_F(LogFileClose, OfAnotherFileKeepsIt)
{
    openLog();
    const int16_t other = rm_fileOpen("other", RM_O_WRONLY | RM_O_CREAT, 0, 0, 0);
    rm_fileClose(other);
    captureStderr([] { rm_systemLogWrite("a line"); });
    EXPECT_THAT(fileLines(), ElementsAre("a line"));
}

// --- Failures

TEST_F(LogFileCloseFails, AStreamThatCannotBeClosedIsGivenUp)
{
    for (const int error : rmtest::kCloseErrors) {
        if (error == EBADF) {
            continue;  // the descriptor would stay, as it does for a stranger's
        }
        openLog();
        ScopedFault fault({.call = Call::kFclose, .error = error, .times = kForever});
        EXPECT_EQ(outcomeOf([] { rm_systemLogClose(); }).jumped, 0);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(sysfile, RM_NONE);
        EXPECT_EQ(syslogon, 0);
        EXPECT_EQ(file::ftab, nullptr);
    }
}

TEST_F(LogFileCloseFails, ALockThatCannotBeTakenIsFatal)
{
    openLog(1);
    for (const int error : rmtest::kSemopErrors) {
        if (error == EINTR || error == EAGAIN) {
            continue;  // an interruption is none, and time-outs have a case of their own
        }
        ScopedFault fault({.call = Call::kSemtimedop, .error = error, .times = kForever});
        const Outcome outcome = outcomeOf([] { rm_systemLogClose(); });
        EXPECT_EQ(outcome.jumped, 1);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(outcome.out, "**** rm_syncEnterExcl() semop() failure, errno=" +
                                   std::to_string(error) + " (" + std::strerror(error) + ")\n");
    }
}

TEST_F(LogFileCloseFails, ALockThatIsNotHadInTimeIsFatal)
{
    openLog();
    ScopedFault fault({.call = Call::kSemtimedop, .error = EAGAIN, .times = kForever});
    const Outcome outcome = outcomeOf([] { rm_systemLogClose(); });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_TRUE(
        rmtest::contains(outcome.lines, "    Specific problem: fileSem timeout in rm_fileClose"));
    EXPECT_EQ(fileLines(), outcome.lines);
}

TEST_F(LogFileCloseFails, AfterAFatalOneTheExitGivesTheFileBack)
{
    const std::vector<int> before = rmtest::openDescriptors();
    openLog();
    {
        ScopedFault fault({.call = Call::kSemtimedop, .error = EIDRM, .times = kForever});
        EXPECT_EQ(outcomeOf([] { rm_systemLogClose(); }).jumped, 1);
        EXPECT_NE(sysfile, RM_NONE);
        // The exit's own closing fails as well, and comes back to the target; its next steps do
        // not need the lock.
        EXPECT_EQ(outcomeOf([] { rm_exit(5); }).jumped, 1);
    }
    EXPECT_EQ(rmtest::catchExit([] { rm_exit(5); }), 5);
    EXPECT_EQ(sysfile, RM_NONE);
    EXPECT_EQ(rmtest::openDescriptors(), before);
}
}  // namespace
