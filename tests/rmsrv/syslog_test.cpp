// The log writer: what a line looks like, where it goes at each level, and what happens to it when
// one of its ways is blocked.
#include "frame.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <sys/wait.h>

namespace
{
using rmtest::banners;
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::captureStdout;
using rmtest::catchExit;
using rmtest::ChildResult;
using rmtest::contains;
using rmtest::count;
using rmtest::expectEndAtOnce;
using rmtest::fileLines;
using rmtest::kForever;
using rmtest::kLogPath;
using rmtest::logLines;
using rmtest::openLog;
using rmtest::Outcome;
using rmtest::outcomeOf;
using rmtest::Peer;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::runHost;
using rmtest::ScopedFault;
using ::testing::ElementsAre;

constexpr std::size_t kLongestMessage = 259;
constexpr time_t kMarch1996 = 826207509;  // 07-Mar-96 14:05:09 UTC

class LogLevel : public rmtest::FrameTest
{
};

class LogLine : public rmtest::FrameTest
{
};

class LogStamp : public rmtest::FrameTest
{
};

class LogStandardOutput : public rmtest::FrameTest
{
};

class LogErrno : public rmtest::FrameTest
{
};

class LogOptional : public rmtest::FrameTest
{
};

class LogFaults : public rmtest::FrameTest
{
};

class LogFileFails : public rmtest::FrameTest
{
};

class LogInFatalPath : public rmtest::FrameTest
{
};

std::vector<std::string> written(void (*body)())
{
    return logLines(captureStderr(body));
}

// --- Levels

TEST_F(LogLevel, IsZeroInAFreshProcess)
{
    EXPECT_EQ(syslogon, 0);
    EXPECT_EQ(rm_systemLog(2), 0);
}

TEST_F(LogLevel, SettingItGivesThePreviousOne)
{
    for (const int level : {1, 2, INT16_MAX, INT16_MIN, -1, 0}) {
        const int16_t before = syslogon;
        EXPECT_EQ(rm_systemLog(static_cast<int16_t>(level)), before);
        EXPECT_EQ(syslogon, level);
    }
}

TEST_F(LogLevel, AtZeroALineStillGoesToStandardError)
{
    EXPECT_THAT(written([] { rm_systemLogWrite("a line"); }), ElementsAre("a line"));
}

TEST_F(LogLevel, AtZeroAnOptionalLineIsDropped)
{
    EXPECT_EQ(captureStderr([] { rm_systemLogOptWrite("a line"); }), "");
}

TEST_F(LogLevel, AtZeroNothingGoesToTheLogFile)
{
    openLog(0);
    captureStderr([] {
        rm_systemLogWrite("a line");
        rm_systemLogOptWrite("a line");
    });
    EXPECT_EQ(readFile(kLogPath), "");
}

TEST_F(LogLevel, AtOneLinesGoToStandardErrorOnly)
{
    openLog(1);
    EXPECT_THAT(written([] {
                    rm_systemLogWrite("a line");
                    rm_systemLogOptWrite("chatter");
                }),
                ElementsAre("a line", "chatter"));
    EXPECT_EQ(readFile(kLogPath), "");
}

TEST_F(LogLevel, AtTwoLinesGoToBoth)
{
    openLog(2);
    const std::string err = captureStderr([] {
        rm_systemLogWrite("a line");
        rm_systemLogOptWrite("chatter");
    });
    EXPECT_THAT(logLines(err), ElementsAre("a line", "chatter"));
    EXPECT_EQ(readFile(kLogPath), err);
}

TEST_F(LogLevel, AboveTwoLinesGoToBoth)
{
    openLog(3);
    const std::string err = captureStderr([] { rm_systemLogWrite("a line"); });
    rm_systemLog(INT16_MAX);
    const std::string more = captureStderr([] { rm_systemLogWrite("another"); });
    EXPECT_EQ(readFile(kLogPath), err + more);
}

TEST_F(LogLevel, BelowZeroIsNotOffAndHasNoFile)
{
    openLog(-1);
    EXPECT_THAT(written([] { rm_systemLogOptWrite("chatter"); }), ElementsAre("chatter"));
    EXPECT_EQ(readFile(kLogPath), "");
}

TEST_F(LogLevel, AtTwoWithoutAFileLinesGoToStandardErrorOnly)
{
    rm_systemLog(2);
    resetCalls();
    EXPECT_THAT(written([] { rm_systemLogWrite("a line"); }), ElementsAre("a line"));
    EXPECT_EQ(callCount(Call::kVfprintf), 0);
}

TEST_F(LogLevel, MayChangeWhileTheFileIsOpen)
{
    openLog(2);
    captureStderr([] {
        rm_systemLogWrite("one");
        rm_systemLog(1);
        rm_systemLogWrite("two");
        rm_systemLog(2);
        rm_systemLogWrite("three");
    });
    EXPECT_THAT(fileLines(), ElementsAre("one", "three"));
}

// --- The line

TEST_F(LogLine, IsStampMessageAndNewline)
{
    openLog();
    const std::string err = captureStderr([] { rm_systemLogWrite("%s %d", "text", 7); });
    EXPECT_EQ(err.size(), 22 + std::strlen("text 7") + 1);
    EXPECT_TRUE(err.ends_with("]  text 7\n"));
}

TEST_F(LogLine, OfAnEmptyMessageIsTheStamp)
{
    EXPECT_THAT(written([] { rm_systemLogWrite("%s", ""); }), ElementsAre(""));
}

TEST_F(LogLine, TakesEveryKindOfArgument)
{
    EXPECT_THAT(written([] {
                    rm_systemLogWrite("%d %ld %u %08X %p %s %c %5.2f %%", -1, 2L, 3U, 0xFFU,
                                      reinterpret_cast<void*>(0x10), "s", 'c', 1.5);
                }),
                ElementsAre("-1 2 3 000000FF 0x10 s c  1.50 %"));
}

TEST_F(LogLine, PercentSignsInArgumentsStay)
{
    EXPECT_THAT(written([] { rm_systemLogWrite("%s", "100%d %n %s"); }),
                ElementsAre("100%d %n %s"));
}

TEST_F(LogLine, AMessageOf259BytesIsWhole)
{
    static const std::string message(kLongestMessage, 'm');
    openLog();
    EXPECT_THAT(written([] { rm_systemLogWrite("%s", message.c_str()); }), ElementsAre(message));
    EXPECT_THAT(fileLines(), ElementsAre(message));
}

TEST_F(LogLine, ALongerMessageIsCutAt259Bytes)
{
    static std::string message;
    openLog();
    std::vector<std::string> expected;
    for (const std::size_t length : {260U, 261U, 1000U, 100'000U}) {
        message.assign(length - 1, 'm');
        message += 'e';
        expected.push_back(message.substr(0, kLongestMessage));
        EXPECT_THAT(written([] { rm_systemLogWrite("%s", message.c_str()); }),
                    ElementsAre(expected.back()));
    }
    EXPECT_EQ(fileLines(), expected);
}

TEST_F(LogLine, ALongFormatIsCutToo)
{
    EXPECT_THAT(written([] { rm_systemLogWrite("%5000d", 1); }),
                ElementsAre(std::string(kLongestMessage, ' ')));
}

TEST_F(LogLine, AMessageThatCannotBeExpandedStillEndsTheLine)
{
    // No character of the host's locale: the expansion stops there.
    static const wchar_t unknown[] = {L'a', wchar_t{0x20AC}, L'\0'};
    const std::string err = captureStderr([] { rm_systemLogWrite("text %ls", unknown); });
    EXPECT_TRUE(err.ends_with('\n'));
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);
    EXPECT_LT(err.size(), 22 + std::strlen("text ") + 8);
}

TEST_F(LogLine, AddsOneNewlineWhateverTheMessageEndsWith)
{
    const std::string err = captureStderr([] { rm_systemLogWrite("two\nlines\n"); });
    EXPECT_TRUE(err.ends_with("]  two\nlines\n\n"));
}

TEST_F(LogLine, BytesAboveAsciiAreCopied)
{
    EXPECT_THAT(written([] { rm_systemLogWrite("\x80\xC3\xA4\xFF"); }),
                ElementsAre("\x80\xC3\xA4\xFF"));
}

TEST_F(LogLine, LinesOfSeveralProcessesDoNotMix)
{
    constexpr int kWriters = 4;
    constexpr int kLines = 100;
    static int shared = -1;
    shared = open("shared", O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ASSERT_NE(shared, -1);
    {
        std::vector<std::unique_ptr<Peer>> writers;
        writers.reserve(kWriters);
        for (int i = 0; i < kWriters; ++i) {
            writers.push_back(std::make_unique<Peer>([i](Peer::Channel& ch) {
                const std::string message(100, static_cast<char>('a' + i));
                dup2(shared, STDERR_FILENO);
                ch.say("ready");
                ch.hear();
                for (int n = 0; n < kLines; ++n) {
                    rm_systemLogWrite("%s", message.c_str());
                }
            }));
        }
        for (const auto& writer : writers) {
            EXPECT_EQ(writer->hear(), "ready");
        }
        for (const auto& writer : writers) {
            writer->say("go");
        }
        for (const auto& writer : writers) {
            EXPECT_EQ(writer->wait().status, 0);
        }
    }
    close(shared);
    const std::vector<std::string> lines = logLines(readFile("shared"));
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(kWriters * kLines));
    for (int i = 0; i < kWriters; ++i) {
        EXPECT_EQ(count(lines, std::string(100, static_cast<char>('a' + i))), kLines);
    }
}

// --- The stamp

TEST_F(LogStamp, ShowsDayMonthYearAndTimeOfDay)
{
    setenv("TZ", "UTC0", 1);
    ScopedFault clock({.call = Call::kTime, .times = kForever, .result = kMarch1996});
    EXPECT_EQ(captureStderr([] { rm_systemLogWrite("x"); }), "[07-Mar-96 14:05:09]  x\n");
}

TEST_F(LogStamp, IsLocalTime)
{
    setenv("TZ", "TZT-11:30", 1);
    ScopedFault clock({.call = Call::kTime, .times = kForever, .result = kMarch1996});
    EXPECT_EQ(captureStderr([] { rm_systemLogWrite("x"); }), "[08-Mar-96 01:35:09]  x\n");
}

TEST_F(LogStamp, ShowsTheTwoDigitsOfTheYear)
{
    setenv("TZ", "UTC0", 1);
    ScopedFault clock({.call = Call::kTime, .times = kForever, .result = 946684800});
    EXPECT_EQ(captureStderr([] { rm_systemLogWrite("x"); }), "[01-Jan-00 00:00:00]  x\n");
}

TEST_F(LogStamp, IsThatOfTheMoment)
{
    const time_t before = time(nullptr);
    const std::string err = captureStderr([] { rm_systemLogWrite("x"); });
    const time_t after = time(nullptr);
    bool found = false;
    for (time_t moment = before; moment <= after; ++moment) {
        char stamp[40];
        strftime(stamp, sizeof stamp, "[%d-%b-%y %H:%M:%S]  x\n", localtime(&moment));
        found = found || err == stamp;
    }
    EXPECT_TRUE(found) << err;
}

TEST_F(LogStamp, IsTheSameInTheFile)
{
    openLog();
    setenv("TZ", "UTC0", 1);
    ScopedFault clock({.call = Call::kTime, .times = kForever, .result = kMarch1996});
    captureStderr([] { rm_systemLogWrite("x"); });
    EXPECT_EQ(readFile(kLogPath), "[07-Mar-96 14:05:09]  x\n");
}

TEST_F(LogStamp, ATimeThatHasNoCalendarLeavesItEmpty)
{
    openLog();
    ScopedFault fault({.call = Call::kLocaltime, .error = EOVERFLOW, .times = kForever});
    EXPECT_EQ(captureStderr([] { rm_systemLogWrite("x"); }), "x\n");
    EXPECT_EQ(readFile(kLogPath), "x\n");
}

TEST_F(LogStamp, AClockThatFailsDoesNotLoseTheLine)
{
    ScopedFault fault({.call = Call::kTime, .error = EFAULT, .times = kForever});
    EXPECT_THAT(written([] { rm_systemLogWrite("x"); }), ElementsAre("x"));
}

// --- Standard output

TEST_F(LogStandardOutput, PrintedTextAndLinesStandInOrderOnOnePipe)
{
    std::array<int, 2> shared = {-1, -1};
    ASSERT_EQ(pipe2(shared.data(), O_CLOEXEC), 0);
    const ChildResult child = runChild([shared] {
        dup2(shared[1], STDOUT_FILENO);
        dup2(shared[1], STDERR_FILENO);
        static std::array<char, 8192> buffer;
        setvbuf(stdout, buffer.data(), _IOFBF, buffer.size());
        std::printf("first ");
        rm_systemLogWrite("one");
        std::printf("second ");
        std::printf("third ");
        rm_systemLogWrite("two");
        std::printf("fourth");
    });
    EXPECT_EQ(child.status, 0);
    close(shared[1]);
    std::string text(4096, '\0');
    text.resize(
        static_cast<std::size_t>(std::max<ssize_t>(0, read(shared[0], text.data(), text.size()))));
    close(shared[0]);
    // Without the two stamps.
    ASSERT_EQ(text.size(), std::strlen("first one\nsecond third two\nfourth") + 2 * 22);
    text.erase(text.find("second third ") + std::strlen("second third "), 22);
    text.erase(std::strlen("first "), 22);
    EXPECT_EQ(text, "first one\nsecond third two\nfourth");
}

TEST_F(LogStandardOutput, IsFlushedBeforeAndAfterTheLine)
{
    captureStderr([] {
        resetCalls();
        rm_systemLogWrite("a line");
    });
    std::vector<std::string> steps;
    for (const CallRecord& call : callTrace({Call::kFflush, Call::kFwrite})) {
        if (call.pointer<FILE>(3) == stderr && call.call == Call::kFwrite) {
            steps.emplace_back("line");
        } else if (call.pointer<FILE>(0) == stdout) {
            steps.emplace_back("flush");
        }
    }
    EXPECT_THAT(steps, ElementsAre("flush", "line", "flush"));
}

TEST_F(LogStandardOutput, IsFlushedByAnOptionalLineToo)
{
    rm_systemLog(1);
    std::string out;
    captureStderr([&out] {
        out = captureStdout([] {
            const int reader = dup(STDOUT_FILENO);
            std::printf("text");
            EXPECT_EQ(lseek(reader, 0, SEEK_END), 0);
            rm_systemLogOptWrite("a line");
            EXPECT_EQ(lseek(reader, 0, SEEK_END), 4);
            close(reader);
        });
    });
    EXPECT_EQ(out, "text");
}

TEST_F(LogStandardOutput, IsLeftAloneByADroppedLine)
{
    resetCalls();
    rm_systemLogOptWrite("a line");
    EXPECT_EQ(callCount(Call::kFflush), 0);
}

TEST_F(LogStandardOutput, GetsNothingOfTheLine)
{
    openLog();
    EXPECT_EQ(captureStdout([] { captureStderr([] { rm_systemLogWrite("a line"); }); }), "");
}

// --- errno

TEST_F(LogErrno, IsTheCallersAfterwards)
{
    openLog();
    captureStderr([] {
        for (const int error : {0, 1, EINTR, ENOSPC, 12345}) {
            errno = error;
            rm_systemLogWrite("a line");
            EXPECT_EQ(errno, error);
            errno = error;
            rm_systemLogOptWrite("a line");
            EXPECT_EQ(errno, error);
        }
    });
}

TEST_F(LogErrno, IsTheCallersWhenTheOptionalLineIsDropped)
{
    errno = ENOSPC;
    rm_systemLogOptWrite("%s", "a line");
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(LogErrno, IsTheCallersWhenEveryWayOfTheLineFails)
{
    openLog();
    ScopedFault zone({.call = Call::kLocaltime, .error = EOVERFLOW, .times = kForever});
    ScopedFault flush({.call = Call::kFflush, .error = EIO, .times = kForever});
    ScopedFault error({.call = Call::kFwrite, .error = EPIPE, .times = kForever});
    ScopedFault file({.call = Call::kVfprintf, .error = ENOSPC, .times = kForever});
    errno = EDOM;
    rm_systemLogWrite("a line");
    EXPECT_EQ(errno, EDOM);
}

TEST_F(LogErrno, IsTheCallersInTheMessage)
{
    ScopedFault zone({.call = Call::kTime, .error = EFAULT, .result = kMarch1996});
    EXPECT_THAT(written([] {
                    errno = ENOENT;
                    rm_systemLogWrite("%m");
                }),
                ElementsAre("No such file or directory"));
}

TEST_F(LogErrno, IsTheCallersInBothExpansionsOfAnOptionalMessage)
{
    rm_systemLog(1);
    EXPECT_THAT(written([] {
                    errno = ENOENT;
                    rm_systemLogOptWrite("%m, %%m");
                }),
                ElementsAre("No such file or directory, No such file or directory"));
}

TEST_F(LogErrno, IsTheCallersInTheSecondExpansionThoughTheFirstFailed)
{
    static const wchar_t unknown[] = {wchar_t{0x20AC}, L'\0'};
    rm_systemLog(1);
    EXPECT_THAT(written([] {
                    errno = ENOENT;
                    rm_systemLogOptWrite("%%m%ls", unknown);
                }),
                ElementsAre("No such file or directory"));
}

// --- Optional messages

TEST_F(LogOptional, AreWrittenAtLevelOne)
{
    rm_systemLog(1);
    EXPECT_THAT(written([] { rm_systemLogOptWrite("%s %d", "text", 7); }), ElementsAre("text 7"));
}

TEST_F(LogOptional, APercentSignThatSurvivesIsExpandedAgain)
{
    rm_systemLog(1);
    EXPECT_THAT(written([] { rm_systemLogOptWrite("%s", "100%d"); }), ElementsAre("1000"));
}

TEST_F(LogOptional, FourPercentSignsBecomeOne)
{
    rm_systemLog(1);
    EXPECT_THAT(written([] { rm_systemLogOptWrite("100%%%%"); }), ElementsAre("100%"));
}

TEST_F(LogOptional, AMissingTextIsPrintedAsNull)
{
    rm_systemLog(1);
    EXPECT_THAT(written([] { rm_systemLogOptWrite("%%s|%s", "%s"); }),
                ElementsAre("(null)|(null)"));
}

TEST_F(LogOptional, ACountIsNotStoredAnywhere)
{
    rm_systemLog(1);
    EXPECT_THAT(written([] { rm_systemLogOptWrite("a%%nb%s", "%hhn%lln"); }), ElementsAre("ab"));
}

TEST_F(LogOptional, AreExpandedOnceEvenWhenLoggingIsOff)
{
    int stored = 0;
    rm_systemLogOptWrite("12345%n", &stored);
    EXPECT_EQ(stored, 5);
}

TEST_F(LogOptional, GoTwiceExpandedIntoTheFile)
{
    openLog(2);
    captureStderr([] { rm_systemLogOptWrite("%s", "%d%%"); });
    EXPECT_THAT(fileLines(), ElementsAre("0%"));
}

TEST_F(LogOptional, ALongMessageIsCut)
{
    static const std::string message(10'000, 'm');
    rm_systemLog(1);
    EXPECT_THAT(written([] { rm_systemLogOptWrite("%s", message.c_str()); }),
                ElementsAre(std::string(kLongestMessage, 'm')));
}

TEST_F(LogOptional, ASecondExpansionThatIsLongIsCut)
{
    rm_systemLog(1);
    EXPECT_THAT(written([] { rm_systemLogOptWrite("%s", "%400d"); }),
                ElementsAre(std::string(kLongestMessage, ' ')));
}

TEST_F(LogOptional, AMessageThatEndsWithinAConversionIsHarmless)
{
    // 258 bytes and the first of a conversion.
    static const std::string message = std::string(258, 'm') + "%d";
    rm_systemLog(1);
    EXPECT_THAT(written([] { rm_systemLogOptWrite("%s", message.c_str()); }),
                ElementsAre(std::string(258, 'm') + "%"));
}

// --- Ways of the line that are blocked, without a fatal end

TEST_F(LogFaults, AStandardErrorThatFailsDoesNotKeepTheLineFromTheFile)
{
    for (const int error : rmtest::kWriteErrors) {
        openLog();
        {
            ScopedFault fault({.call = Call::kFwrite, .error = error, .times = kForever});
            rm_systemLogWrite("a line");
        }
        EXPECT_THAT(fileLines(), ElementsAre("a line"));
        rm_systemLogClose();
    }
}

TEST_F(LogFaults, AClosedStandardErrorDoesNotKeepTheLineFromTheFile)
{
    openLog();
    const ChildResult child = runChild([] {
        close(STDERR_FILENO);
        rm_systemLogWrite("a line");
        rm_systemLogWrite("another");
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_THAT(fileLines(), ElementsAre("a line", "another"));
}

TEST_F(LogFaults, AStandardOutputThatCannotBeFlushedDoesNotKeepTheLine)
{
    openLog();
    ScopedFault fault(
        {.call = Call::kFflush,
         .error = EIO,
         .times = kForever,
         .when = [](const CallRecord& call) { return call.pointer<FILE>(0) == stdout; }});
    EXPECT_THAT(written([] { rm_systemLogWrite("a line"); }), ElementsAre("a line"));
    EXPECT_THAT(fileLines(), ElementsAre("a line"));
}

TEST_F(LogFaults, ALineThatTheFileRefusesOnceIsMissingThereOnly)
{
    for (const Call call : {Call::kVfprintf, Call::kFflush}) {
        for (const int error : rmtest::kWriteErrors) {
            openLog();
            const FILE* stream = file::ftab[sysfile]->stream;
            captureStderr([] { rm_systemLogWrite("before"); });
            {
                ScopedFault fault(
                    {.call = call, .error = error, .when = [stream](const CallRecord& record) {
                         return record.pointer<FILE>(0) == stream;
                     }});
                EXPECT_THAT(written([] { rm_systemLogWrite("lost"); }), ElementsAre("lost"));
                EXPECT_EQ(fault.hits(), 1);
            }
            captureStderr([] { rm_systemLogWrite("after"); });
            EXPECT_THAT(fileLines(), ElementsAre("before", "after"));
            rm_systemLogClose();
        }
    }
}

TEST_F(LogFaults, AFileThatRefusesForEverGetsNothingAndStopsNobody)
{
    openLog();
    const FILE* stream = file::ftab[sysfile]->stream;
    ScopedFault fault(
        {.call = Call::kVfprintf,
         .error = ENOSPC,
         .times = kForever,
         .when = [stream](const CallRecord& record) { return record.pointer<FILE>(0) == stream; }});
    EXPECT_THAT(written([] {
                    for (int i = 0; i < 5; ++i) {
                        rm_systemLogWrite("line %d", i);
                    }
                }),
                ElementsAre("line 0", "line 1", "line 2", "line 3", "line 4"));
    EXPECT_EQ(fault.hits(), 5);
    EXPECT_EQ(rmsrv::writingLogFile, 0);
}

TEST_F(LogFaults, AFullDeviceAsLogFileStopsNobody)
{
    sysfile = rm_fileOpen("/dev/full", RM_O_WRONLY | RM_O_CREAT | RM_O_TRUNC,
                          FILE_FATAL | FILE_STREAM, 0, 0);
    ASSERT_NE(sysfile, RM_NONE);
    rm_systemLog(2);
    const Outcome outcome = outcomeOf([] {
        rm_systemLogWrite("one");
        rm_systemLogWrite("two");
    });
    EXPECT_EQ(outcome.jumped, 0);
    EXPECT_THAT(outcome.lines, ElementsAre("one", "two"));
}

// --- A failure that a line meets on its way into the file

// From here on only an open can bring the log file back.
void parkLog()
{
    fileHandleLimit = 1;
    const int16_t other = rm_fileOpen("other", RM_O_RDWR | RM_O_CREAT, FILE_PINNED, 0, 0);
    ASSERT_NE(other, RM_NONE);
    ASSERT_EQ(file::ftab[sysfile]->state, file::kSlotParked);
}

TEST_F(LogFileFails, TheLinesOfTheFailureGoToStandardErrorOnly)
{
    openLog(2, FILE_STREAM);
    captureStderr([] { rm_systemLogWrite("before"); });
    parkLog();
    const int16_t handle = sysfile;
    ScopedFault fault({.call = Call::kOpen, .error = EACCES, .times = kForever});
    const Outcome outcome = outcomeOf([] { rm_systemLogWrite("a line"); });
    EXPECT_EQ(outcome.jumped, 0);
    EXPECT_THAT(outcome.lines,
                ElementsAre("a line", "WARNING: failed file reopen in rm_filePrintf(" +
                                          std::to_string(handle) + ")"));
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_THAT(fileLines(), ElementsAre("before"));
    // The handle has gone with the attempt, and is not tried again.
    EXPECT_EQ(sysfile, RM_NONE);
    EXPECT_THAT(written([] { rm_systemLogWrite("another"); }), ElementsAre("another"));
    EXPECT_EQ(fault.hits(), 1);
}

TEST_F(LogFileFails, TheFatalLinesOfTheFailureGoToStandardErrorOnly)
{
    openLog();
    captureStderr([] { rm_systemLogWrite("before"); });
    parkLog();
    ScopedFault fault({.call = Call::kOpen, .error = EACCES, .times = kForever});
    const Outcome outcome = outcomeOf([] { rm_systemLogWrite("a line"); });
    EXPECT_EQ(outcome.jumped, 1);
    ASSERT_GE(outcome.lines.size(), 2U);
    EXPECT_EQ(outcome.lines[0], "a line");
    EXPECT_EQ(outcome.lines[1], "reopenFile: errno=13: failed to create file 'server.log'");
    EXPECT_EQ(outcome.lines.back(), "Exiting to shutdown processing");
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_THAT(fileLines(), ElementsAre("before"));
}

// A file of the host's that can stand for the log.
int16_t openForTheLog(const char* path)
{
    const int16_t handle =
        rm_fileOpen(path, RM_O_WRONLY | RM_O_CREAT | RM_O_TRUNC, FILE_STREAM, 0, 0);
    EXPECT_NE(handle, RM_NONE);
    return handle;
}

// A fatal error comes out of a line that is on its way into the log file.
void failTheLog()
{
    ScopedFault fault({.call = Call::kSemtimedop, .error = EIDRM});
    EXPECT_EQ(outcomeOf([] { rm_systemLogWrite("lost"); }).jumped, 1);
}

TEST_F(LogFileFails, AfterAFatalOneTheFileIsLeftAlone)
{
    openLog();
    failTheLog();
    resetCalls();
    EXPECT_THAT(outcomeOf([] { rm_systemLogWrite("still here"); }).lines,
                ElementsAre("still here"));
    EXPECT_EQ(callCount(Call::kSemtimedop), 0);
    EXPECT_EQ(readFile(kLogPath), "");
}

// A log has failed, and the host has set another file, "other.log", in its place. Gives its handle.
int16_t replaceAFailedLog()
{
    openLog();
    failTheLog();
    return std::exchange(sysfile, openForTheLog("other.log"));
}

TEST_F(LogFileFails, AfterAFatalOneAnotherFileOfTheHostIsTrusted)
{
    const int16_t failed = replaceAFailedLog();
    rm_fileClose(failed);
    captureStderr([] { rm_systemLogWrite("there"); });
    EXPECT_THAT(logLines(readFile("other.log")), ElementsAre("there"));
    EXPECT_EQ(readFile(kLogPath), "");
}

TEST_F(LogFileFails, AfterAFatalOneItIsLeftAloneThoughAnotherHasStoodInForIt)
{
    const int16_t failed = replaceAFailedLog();
    rm_fileClose(sysfile);
    EXPECT_EQ(sysfile, RM_NONE);
    sysfile = failed;
    captureStderr([] { rm_systemLogWrite("nowhere"); });
    EXPECT_EQ(readFile(kLogPath), "");
}

TEST_F(LogFileFails, AfterAFatalOneItIsLeftAloneThoughTheLogWasClosedWithAnother)
{
    const int16_t failed = replaceAFailedLog();
    rm_systemLogClose();
    rm_systemLog(2);
    sysfile = failed;
    captureStderr([] { rm_systemLogWrite("nowhere"); });
    EXPECT_EQ(readFile(kLogPath), "");
}

TEST_F(LogFileFails, AfterTwoNoneIsTrustedUntilOneIsClosed)
{
    openLog();
    failTheLog();
    const int16_t failed = sysfile;
    const int16_t other = openForTheLog("other.log");
    sysfile = other;
    failTheLog();
    for (const int16_t log : {failed, other, openForTheLog("third.log")}) {
        sysfile = log;
        captureStderr([] { rm_systemLogWrite("nowhere"); });
    }
    EXPECT_EQ(readFile(kLogPath) + readFile("other.log") + readFile("third.log"), "");
    rm_fileClose(sysfile);
    sysfile = openForTheLog("fourth.log");
    captureStderr([] { rm_systemLogWrite("there"); });
    EXPECT_THAT(logLines(readFile("fourth.log")), ElementsAre("there"));
}

TEST_F(LogFileFails, AfterAFatalOneTheNextFileWithItsHandleIsTrusted)
{
    const int16_t failed = replaceAFailedLog();
    rm_fileClose(failed);
    const int16_t next = openForTheLog("next.log");
    ASSERT_EQ(next, failed);
    rm_fileClose(std::exchange(sysfile, next));
    captureStderr([] { rm_systemLogWrite("there"); });
    EXPECT_THAT(logLines(readFile("next.log")), ElementsAre("there"));
}

TEST_F(LogFileFails, AfterItsClosingTheNextFileIsTrusted)
{
    openLog();
    failTheLog();
    rm_systemLogClose();
    openLog();
    captureStderr([] { rm_systemLogWrite("anew"); });
    EXPECT_THAT(fileLines(), ElementsAre("anew"));
}

TEST_F(LogFileFails, AfterAllMemoryHasGoneTheNextFileIsTrusted)
{
    openLog();
    failTheLog();
    rm_freeall();
    ASSERT_EQ(sysfile, RM_NONE);
    openLog();
    captureStderr([] { rm_systemLogWrite("anew"); });
    EXPECT_THAT(fileLines(), ElementsAre("anew"));
}

TEST_F(LogFileFails, AfterAnExitThatItCausedTheNextFileIsTrusted)
{
    openLog();
    static volatile int code = 0;
    {
        ScopedFault fault({.call = Call::kSemtimedop, .error = EIDRM});
        captureStderr(
            [] { captureStdout([] { code = catchExit([] { rm_systemLogWrite("lost"); }); }); });
    }
    ASSERT_EQ(code, 1);
    ASSERT_EQ(sysfile, RM_NONE);
    openLog();
    captureStderr([] { rm_systemLogWrite("anew"); });
    EXPECT_THAT(fileLines(), ElementsAre("anew"));
}

TEST_F(LogFileFails, AHostThatLogsInItsShutdownDoesNotLoop)
{
    const ChildResult child = runChild([] {
        runHost(
            [] {
                openLog();
                static ScopedFault fault(
                    {.call = Call::kSemtimedop, .error = EIDRM, .times = kForever});
                rm_systemLogWrite("work");
            },
            [] {
                for (int i = 0; i < 3; ++i) {
                    rm_systemLogWrite("shutting down %d", i);
                }
                _exit(7);
            });
    });
    expectEndAtOnce(child, 7);
    const std::vector<std::string> lines = logLines(child.err);
    EXPECT_EQ(count(lines, "Exiting to shutdown processing"), 1);
    EXPECT_EQ(lines.back(), "shutting down 2");
    rmtest::removeLeftovers();
}

TEST_F(LogFileFails, WithoutATargetTheProcessEnds)
{
    for (const int error : {EIDRM, EINVAL, EAGAIN, ENOMEM}) {
        const ChildResult child = runChild([error] {
            openLog();
            static ScopedFault fault(
                {.call = Call::kSemtimedop, .error = error, .times = kForever});
            rm_systemLogWrite("work");
        });
        expectEndAtOnce(child, 0);
        EXPECT_EQ(banners(logLines(child.err)), 1);
        EXPECT_EQ(logLines(child.err).back(), "Exiting to operating system");
        rmtest::removeLeftovers();
    }
}

TEST_F(LogFileFails, ADefectHandleIsReportedOnceForEachLine)
{
    openLog();
    const int16_t other = rm_fileOpen("other", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    const int16_t handle = sysfile;
    rm_fileClose(handle);
    sysfile = handle;
    const std::string report = "rm_filePrintf: invalid handle " + std::to_string(handle);
    EXPECT_THAT(written([] {
                    rm_systemLogWrite("one");
                    rm_systemLogWrite("two");
                }),
                ElementsAre("one", report, "two", report));
    sysfile = RM_NONE;
    rm_fileClose(other);
}

TEST_F(LogFileFails, ADefectHandleWithoutATableIsFatalOnce)
{
    openLog();
    const int16_t handle = sysfile;
    rm_fileClose(handle);
    sysfile = handle;
    const Outcome outcome = outcomeOf([] { rm_systemLogWrite("one"); });
    EXPECT_EQ(outcome.jumped, 1);
    ASSERT_GE(outcome.lines.size(), 2U);
    EXPECT_EQ(outcome.lines[0], "one");
    EXPECT_EQ(outcome.lines[1].substr(0, 30), "Bad status in rm_filePrintf: 0");
    EXPECT_EQ(count(outcome.lines, "Exiting to shutdown processing"), 1);
    EXPECT_THAT(outcomeOf([] { rm_systemLogWrite("two"); }).lines, ElementsAre("two"));
    sysfile = RM_NONE;
}

// --- The fatal path with the log file open, whatever lock is held

TEST_F(LogInFatalPath, HeldByThisProcessTheLinesReachTheFile)
{
    openLog();
    file::enterFileSem("unused");
    const Outcome outcome = outcomeOf([] { fatalRMExit("a problem"); });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(fileLines(), outcome.lines);
    EXPECT_TRUE(contains(fileLines(), "    Specific problem: a problem"));
    EXPECT_EQ(rmtest::semValue(os::iSem, fileSem), 1);
}

TEST_F(LogInFatalPath, HeldByThisProcessItEndsAtOnce)
{
    const ChildResult child = runChild([] {
        openLog();
        file::enterFileSem("unused");
        file::enterFileSem("nested");
        fatalRMExit("a problem");
    });
    expectEndAtOnce(child, 0);
    EXPECT_EQ(fileLines(), logLines(child.err));
}

TEST_F(LogInFatalPath, InTheMiddleOfAnOpenTheLinesReachTheFile)
{
    const ChildResult child = runChild([] {
        openLog();
        // A name for which there is no memory: inside the lock.
        static const std::string name(200'000, 'n');
        static ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
        static_cast<void>(rm_fileOpen(name.c_str(), RM_O_RDONLY, 0, 0, 0));
    });
    expectEndAtOnce(child, 0);
    EXPECT_EQ(fileLines().front(), "Out of memory!");
    EXPECT_EQ(fileLines(), logLines(child.err));
}

// A peer that has taken fileSem and died with it.
void letAPeerDieWithFileSem()
{
    Peer peer([](Peer::Channel& ch) {
        rm_syncEnterExcl(fileSem, RM_WAIT_FOREVER);
        ch.say("held");
        ch.hear();
    });
    EXPECT_EQ(peer.hear(), "held");
    peer.kill(SIGKILL);
    static_cast<void>(peer.wait());
}

TEST_F(LogInFatalPath, HeldByADeadPeerItEndsAfterOneTimeOut)
{
    // The only case that waits for real: the lock is waited for once, then done without, and the
    // lines that tell what happened are in the file.
    const ChildResult child = runChild([] {
        openLog();
        letAPeerDieWithFileSem();
        static_cast<void>(rm_fileOpen("other", RM_O_RDONLY, 0, 0, 0));
    });
    rmtest::expectEnd(child, 0);
    EXPECT_GE(child.seconds, 13.9);
    EXPECT_LT(child.seconds, 14 + 2 * rmtest::kAtOnce);
    EXPECT_TRUE(contains(fileLines(), "    Specific problem: fileSem timeout in rm_fileOpen"));
    EXPECT_EQ(fileLines(), logLines(child.err));
}

// Waits for locks that are not had in time end at once.
rmtest::Fault timeOut(int times)
{
    return {.call = Call::kSemtimedop, .error = EAGAIN, .times = times};
}

TEST_F(LogInFatalPath, ATimeOutBeforeItIsNotWaitedForAgain)
{
    openLog();
    ScopedFault fault(timeOut(kForever));
    const Outcome outcome =
        outcomeOf([] { static_cast<void>(rm_fileOpen("other", RM_O_RDONLY, 0, 0, 0)); });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_TRUE(contains(fileLines(), "    Specific problem: fileSem timeout in rm_fileOpen"));
    EXPECT_EQ(fileLines(), outcome.lines);
}

TEST_F(LogInFatalPath, ATimeOutWithinItIsMetOnce)
{
    openLog();
    ScopedFault fault(timeOut(kForever));
    const Outcome outcome = outcomeOf([] { fatalRMExit("a problem"); });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(banners(outcome.lines), 1);
    EXPECT_EQ(readFile(kLogPath), "") << "the first line met it, and the others do not try";
}

TEST_F(LogInFatalPath, ATimeOutWithinALaterLineLeavesTheOnesBeforeInTheFile)
{
    openLog();
    rmtest::Fault second = timeOut(kForever);
    second.skip = 1;
    ScopedFault fault(second);
    const Outcome outcome = outcomeOf([] { fatalRMExit("a problem"); });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(banners(outcome.lines), 1);
    EXPECT_THAT(fileLines(), ElementsAre("***Fatal resource manager error***"));
}

TEST_F(LogInFatalPath, LinesOfTheShutdownDoNotWaitForTheLockAgain)
{
    openLog();
    ScopedFault fault(timeOut(kForever));
    static_cast<void>(outcomeOf([] { static_cast<void>(rm_fileOpen("other", 0, 0, 0, 0)); }));
    const Outcome outcome = outcomeOf([] { rm_systemLogWrite("shutting down"); });
    EXPECT_EQ(outcome.jumped, 0);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(fileLines().back(), "shutting down");
}

TEST_F(LogInFatalPath, AfterATimeOutTheLockIsUsedAgainOnceItIsHad)
{
    openLog();
    {
        ScopedFault fault(timeOut(1));
        static_cast<void>(outcomeOf([] { static_cast<void>(rm_fileOpen("other", 0, 0, 0, 0)); }));
    }
    EXPECT_EQ(rm_fileOpen("other", RM_O_RDONLY, 0, 0, 0), RM_NONE);  // not there, and no time-out
    resetCalls();
    captureStderr([] { rm_systemLogWrite("a line"); });
    EXPECT_EQ(callCount(Call::kSemtimedop), 1);
    EXPECT_EQ(rmtest::semValue(os::iSem, fileSem), 1);
}

TEST_F(LogInFatalPath, WhileALineIsWrittenItDoesNotWriteIntoTheFileAgain)
{
    openLog();
    ScopedFault fault({.call = Call::kVfprintf, .action = [](const CallRecord&) -> int64_t {
                           fatalRMExit("in the middle of a line");
                       }});
    const Outcome outcome = outcomeOf([] { rm_systemLogWrite("a line"); });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_TRUE(contains(outcome.lines, "    Specific problem: in the middle of a line"));
    EXPECT_EQ(readFile(kLogPath), "");
    EXPECT_EQ(rmsrv::writingLogFile, 0);
}

TEST_F(LogInFatalPath, WhileALineIsWrittenTheProcessEndsAtOnce)
{
    const ChildResult child = runChild([] {
        openLog();
        static ScopedFault fault({.call = Call::kVfprintf,
                                  .times = kForever,
                                  .action = [](const CallRecord&) -> int64_t {
                                      fatalRMExit("in the middle of a line");
                                  }});
        rm_systemLogWrite("a line");
    });
    expectEndAtOnce(child, 0);
    EXPECT_EQ(banners(logLines(child.err)), 1);
    EXPECT_EQ(readFile(kLogPath), "");
}

TEST_F(LogInFatalPath, ALockThatHasGoneIsNotMadeAnew)
{
    openLog();
    static_cast<void>(rm_syncDelete(fileSem));
    fileSem = RM_NONE;
    resetCalls();
    const Outcome outcome = outcomeOf([] { fatalRMExit("a problem"); });
    EXPECT_EQ(callCount(Call::kSemget), 0);
    EXPECT_EQ(fileLines(), outcome.lines);
}

TEST_F(LogInFatalPath, AParkedLogFileIsNotGrownByTheDying)
{
    // growSem is waited for without limit, and its holder is dead.
    const ChildResult child = runChild([] {
        growSem = rm_syncCreate("growSem");
        sysfile = rm_fileOpen(kLogPath, RM_O_WRONLY | RM_O_CREAT | RM_O_TRUNC,
                              FILE_FATAL | FILE_STREAM, 1000, 0);
        rm_systemLog(2);
        parkLog();
        rmDiskFull = 0;
        rm_syncEnterExcl(growSem, RM_WAIT_FOREVER);
        fatalRMExit("a problem");
    });
    expectEndAtOnce(child, 0);
    EXPECT_EQ(fileLines(), logLines(child.err));
}

TEST_F(LogInFatalPath, ALockWhoseSetWasRemovedEndsAtOnce)
{
    // Another process has ended in order and taken the semaphores of all with it.
    const ChildResult child = runChild([] {
        openLog();
        rmtest::removeLeftovers();
        static_cast<void>(rm_fileOpen("other", RM_O_RDONLY, 0, 0, 0));
    });
    expectEndAtOnce(child, 0);
    const std::vector<std::string> lines = logLines(child.err);
    EXPECT_EQ(rmtest::systemCallLines(lines), 1);
    EXPECT_EQ(banners(lines), 1);
    EXPECT_EQ(lines.back(), "Exiting to operating system");
}
}  // namespace
