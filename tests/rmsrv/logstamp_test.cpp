// The stamp of a log line: kept for a second, and right in every one; and the line as a whole,
// which leaves in one piece and leaves the caller's error number alone.
#include "frame.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>

#include <fcntl.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::captureStderr;
using rmtest::kForever;
using rmtest::kLogPath;
using rmtest::logLines;
using rmtest::openLog;
using rmtest::passThrough;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::ScopedFault;
using ::testing::ElementsAre;

constexpr time_t kMarch1996 = 826207509;  // 07-Mar-96 14:05:09 UTC
constexpr std::size_t kStampLength = 22;
constexpr const char* kMarchLine = "[07-Mar-96 14:05:09]  x\n";

time_t clockTime = kMarch1996;  // what the clock shows while it is stopped

// A clock that shows `clockTime`, in the zone that a case begins in.
class LogClock : public rmtest::FrameTest
{
  protected:
    void SetUp() override
    {
        FrameTest::SetUp();
        setenv("TZ", "UTC0", 1);
    }

  private:
    ScopedFault clock_{{.call = Call::kTime, .times = kForever, .action = [](const CallRecord&) {
                            return static_cast<int64_t>(clockTime);
                        }}};
};

class LogStampKept : public LogClock
{
};

class LogStampZone : public LogClock
{
};

class LogStampFails : public LogClock
{
};

class LogLinePiece : public rmtest::FrameTest
{
};

class LogLineErrno : public LogClock
{
};

// The line of a message "x".
std::string line()
{
    return captureStderr([] { rm_systemLogWrite("x"); });
}

// What the line of a message "x" has to be, by the platform's own calendar.
std::string expectedLine()
{
    std::array<char, 64> text = {};
    std::strftime(text.data(), text.size(), "[%d-%b-%y %H:%M:%S]  x\n", std::localtime(&clockTime));
    return text.data();
}

// How often a line asks for the calendar.
int calendarsOf(const std::function<void()>& body)
{
    resetCalls();
    captureStderr(body);
    return callCount(Call::kLocaltime);
}

// --- Within a second, and from one to the next

TEST_F(LogStampKept, IsFormattedOnceASecond)
{
    EXPECT_EQ(calendarsOf([] {
                  for (int i = 0; i < 100; ++i) {
                      rm_systemLogWrite("line %d", i);
                  }
              }),
              1);
}

TEST_F(LogStampKept, OfABurstIsTheSameOnEveryLine)
{
    const std::string err = captureStderr([] {
        for (int i = 0; i < 3; ++i) {
            rm_systemLogWrite("x");
        }
    });
    EXPECT_EQ(err, std::string(kMarchLine) + kMarchLine + kMarchLine);
}

TEST_F(LogStampKept, TheClockIsReadOnceForEachLine)
{
    openLog();
    resetCalls();
    captureStderr([] {
        rm_systemLogWrite("one");
        rm_systemLogWrite("two");
    });
    EXPECT_EQ(callCount(Call::kTime), 2);
}

TEST_F(LogStampKept, IsSharedByOptionalLines)
{
    rm_systemLog(1);
    EXPECT_EQ(calendarsOf([] {
                  rm_systemLogWrite("one");
                  rm_systemLogOptWrite("two");
              }),
              1);
}

TEST_F(LogStampKept, FollowsEverySecond)
{
    for (int i = 0; i < 200; ++i) {
        clockTime = kMarch1996 + i;
        EXPECT_EQ(line(), expectedLine());
        EXPECT_EQ(line(), expectedLine());
    }
}

TEST_F(LogStampKept, OfTheNextSecondIsFormattedOnceMore)
{
    line();
    clockTime = kMarch1996 + 1;
    EXPECT_EQ(calendarsOf([] {
                  rm_systemLogWrite("x");
                  rm_systemLogWrite("x");
              }),
              1);
    EXPECT_EQ(line(), "[07-Mar-96 14:05:10]  x\n");
}

TEST_F(LogStampKept, FollowsAClockThatStepsBack)
{
    line();
    clockTime = kMarch1996 - 3600;
    EXPECT_EQ(line(), "[07-Mar-96 13:05:09]  x\n");
    clockTime = kMarch1996;
    EXPECT_EQ(line(), kMarchLine);
}

TEST_F(LogStampKept, FollowsDaysMonthsAndYears)
{
    clockTime = 951782399;  // the last second before a leap day
    EXPECT_EQ(line(), "[28-Feb-00 23:59:59]  x\n");
    ++clockTime;
    EXPECT_EQ(line(), "[29-Feb-00 00:00:00]  x\n");
    clockTime = 978307199;
    EXPECT_EQ(line(), "[31-Dec-00 23:59:59]  x\n");
    ++clockTime;
    EXPECT_EQ(line(), "[01-Jan-01 00:00:00]  x\n");
}

TEST_F(LogStampKept, OfTheFirstSecondOfAllIsThereOnTheFirstLine)
{
    clockTime = 0;
    EXPECT_EQ(line(), "[01-Jan-70 00:00:00]  x\n");
    clockTime = -1;
    EXPECT_EQ(line(), "[31-Dec-69 23:59:59]  x\n");
}

TEST_F(LogStampKept, IsNotTheOneOfAnotherProcess)
{
    line();
    EXPECT_EQ(runChild([] {
                  clockTime = kMarch1996 + 60;
                  EXPECT_EQ(line(), "[07-Mar-96 14:06:09]  x\n");
              }).status,
              0);
    EXPECT_EQ(line(), kMarchLine);
}

TEST_F(LogStampKept, IsTheSameInTheFile)
{
    openLog();
    std::string expected;
    for (int i = 0; i < 5; ++i) {
        clockTime = kMarch1996 + i / 2;
        expected += line();
    }
    EXPECT_EQ(readFile(kLogPath), expected);
}

TEST_F(LogStampKept, IsRightByTheRealClock)
{
    rmtest::disarmFaults();
    for (int i = 0; i < 1000; ++i) {
        const time_t before = time(nullptr);
        const std::string stamped = line();
        const time_t after = time(nullptr);
        bool found = false;
        for (clockTime = before; clockTime <= after; ++clockTime) {
            found = found || stamped == expectedLine();
        }
        ASSERT_TRUE(found) << stamped;
    }
}

// --- The time zone, within one second

TEST_F(LogStampZone, ThatChangesIsFollowedAtOnce)
{
    EXPECT_EQ(line(), kMarchLine);
    setenv("TZ", "TZT-11:30", 1);
    EXPECT_EQ(line(), "[08-Mar-96 01:35:09]  x\n");
    setenv("TZ", "TZT5", 1);
    EXPECT_EQ(line(), "[07-Mar-96 09:05:09]  x\n");
    setenv("TZ", "UTC0", 1);
    EXPECT_EQ(line(), kMarchLine);
}

TEST_F(LogStampZone, OfTheSameLengthIsFollowedAtOnce)
{
    setenv("TZ", "TZT1", 1);
    EXPECT_EQ(line(), "[07-Mar-96 13:05:09]  x\n");
    setenv("TZ", "TZT2", 1);
    EXPECT_EQ(line(), "[07-Mar-96 12:05:09]  x\n");
}

TEST_F(LogStampZone, ThatGrowsOrShrinksByAByteIsFollowedAtOnce)
{
    setenv("TZ", "TZT1", 1);
    EXPECT_EQ(line(), "[07-Mar-96 13:05:09]  x\n");
    setenv("TZ", "TZT12", 1);
    EXPECT_EQ(line(), "[07-Mar-96 02:05:09]  x\n");
    setenv("TZ", "TZT1", 1);
    EXPECT_EQ(line(), "[07-Mar-96 13:05:09]  x\n");
}

TEST_F(LogStampZone, ChangedInPlaceIsFollowedAtOnce)
{
    static char variable[] = "TZ=TZT1";
    ASSERT_EQ(putenv(variable), 0);
    EXPECT_EQ(line(), "[07-Mar-96 13:05:09]  x\n");
    variable[std::strlen(variable) - 1] = '2';
    EXPECT_EQ(line(), "[07-Mar-96 12:05:09]  x\n");
    setenv("TZ", "UTC0", 1);
}

TEST_F(LogStampZone, SetUnsetOrEmptiedIsLookedUpAnew)
{
    setenv("TZ", "TZT-11:30", 1);
    line();
    EXPECT_EQ(calendarsOf([] { rm_systemLogWrite("x"); }), 0);
    unsetenv("TZ");
    EXPECT_EQ(calendarsOf([] { rm_systemLogWrite("x"); }), 1);
    EXPECT_EQ(line(), expectedLine());
    setenv("TZ", "", 1);
    EXPECT_EQ(calendarsOf([] { rm_systemLogWrite("x"); }), 1) << "an empty one is not none";
    EXPECT_EQ(line(), kMarchLine);
    unsetenv("TZ");
    EXPECT_EQ(calendarsOf([] { rm_systemLogWrite("x"); }), 1);
    EXPECT_EQ(line(), expectedLine());
    EXPECT_EQ(calendarsOf([] { rm_systemLogWrite("x"); }), 0);
    setenv("TZ", "TZT-11:30", 1);
    EXPECT_EQ(line(), "[08-Mar-96 01:35:09]  x\n");
}

// "<zone><offset>" of `length` bytes.
std::string zoneOfLength(std::size_t length, const std::string& offset)
{
    return "<" + std::string(length - offset.size() - 2, 'Z') + ">" + offset;
}

TEST_F(LogStampZone, WhateverItsLengthIsFollowedAtOnce)
{
    for (std::size_t length = 10; length <= 200; ++length) {
        setenv("TZ", zoneOfLength(length, "1").c_str(), 1);
        EXPECT_EQ(line(), expectedLine()) << length;
        EXPECT_EQ(line(), "[07-Mar-96 13:05:09]  x\n") << length;
        setenv("TZ", zoneOfLength(length, "2").c_str(), 1);
        EXPECT_EQ(line(), "[07-Mar-96 12:05:09]  x\n") << length;
    }
}

TEST_F(LogStampZone, ThatBeginsLikeTheLastOneIsFollowedAtOnce)
{
    // "...>1" and "...>12": the first is the beginning of the second.
    for (std::size_t length = 10; length <= 200; ++length) {
        const std::string shorter = zoneOfLength(length, "1");
        const std::string longer = shorter + "2";
        setenv("TZ", shorter.c_str(), 1);
        EXPECT_EQ(line(), "[07-Mar-96 13:05:09]  x\n") << length;
        setenv("TZ", longer.c_str(), 1);
        EXPECT_EQ(line(), "[07-Mar-96 02:05:09]  x\n") << length;
        setenv("TZ", shorter.c_str(), 1);
        EXPECT_EQ(line(), "[07-Mar-96 13:05:09]  x\n") << length;
    }
}

TEST_F(LogStampZone, OfTheLocalEnvironmentIsNoneOfTheStamp)
{
    // The stamp shows the process's own local time; the calendar is the platform's.
    rm_putLocalEnv("TZ=TZT5");
    EXPECT_EQ(line(), kMarchLine);
}

// --- Failures

TEST_F(LogStampFails, WithoutACalendarThereIsNoneAndItIsNotKept)
{
    ScopedFault fault({.call = Call::kLocaltime, .error = EOVERFLOW});
    EXPECT_EQ(line(), "x\n");
    EXPECT_EQ(line(), kMarchLine);
}

TEST_F(LogStampFails, TheOneOfAnEarlierSecondIsNotShownInstead)
{
    line();
    clockTime = kMarch1996 + 1;
    ScopedFault fault({.call = Call::kLocaltime, .error = EOVERFLOW});
    EXPECT_EQ(line(), "x\n");
    clockTime = kMarch1996;
    EXPECT_EQ(line(), kMarchLine);
}

TEST_F(LogStampFails, ForEverEveryLineIsWithoutOne)
{
    openLog();
    ScopedFault fault({.call = Call::kLocaltime, .error = EOVERFLOW, .times = kForever});
    EXPECT_EQ(line() + line(), "x\nx\n");
    EXPECT_EQ(readFile(kLogPath), "x\nx\n");
    EXPECT_EQ(fault.hits(), 2) << "it is tried each time";
}

TEST_F(LogStampFails, AKeptOneNeedsNoCalendar)
{
    line();
    ScopedFault fault({.call = Call::kLocaltime, .error = EOVERFLOW, .times = kForever});
    EXPECT_EQ(line(), kMarchLine);
    EXPECT_EQ(fault.hits(), 0);
}

// Where a time has 32 bits it ends before the calendar does.
#if __TIMESIZE == 64
TEST_F(LogStampFails, AYearBeyondTheCalendarHasNone)
{
    clockTime = std::numeric_limits<time_t>::max();
    EXPECT_EQ(line(), "x\n");
    clockTime = kMarch1996;
    EXPECT_EQ(line(), kMarchLine);
}
#endif

// --- The line in one piece

// What `body` writes to standard error, one entry for each write.
std::vector<std::string> writesOf(const std::function<void()>& body)
{
    // A pipe that keeps writes apart.
    std::array<int, 2> packets = {-1, -1};
    EXPECT_EQ(pipe2(packets.data(), O_CLOEXEC | O_DIRECT), 0);
    EXPECT_EQ(runChild([&] {
                  dup2(packets[1], STDERR_FILENO);
                  body();
              }).status,
              0);
    close(packets[1]);
    std::vector<std::string> writes;
    std::string packet(4096, '\0');
    for (ssize_t n = read(packets[0], packet.data(), packet.size()); n > 0;
         n = read(packets[0], packet.data(), packet.size())) {
        writes.push_back(packet.substr(0, static_cast<std::size_t>(n)));
    }
    close(packets[0]);
    return writes;
}

TEST_F(LogLinePiece, EveryLineLeavesStandardErrorInOneWrite)
{
    constexpr std::size_t kLengths[] = {0, 1, 100, 127, 128, 258, 259, 260, 1000};
    const std::vector<std::string> writes = writesOf([&] {
        for (const std::size_t length : kLengths) {
            rm_systemLogWrite("%s", std::string(length, 'm').c_str());
        }
    });
    ASSERT_EQ(writes.size(), std::size(kLengths));
    for (std::size_t i = 0; i < writes.size(); ++i) {
        const std::size_t length = std::min<std::size_t>(kLengths[i], 259);
        EXPECT_EQ(writes[i].substr(kStampLength), std::string(length, 'm') + '\n');
    }
}

TEST_F(LogLinePiece, AnOptionalLineLeavesInOneWriteToo)
{
    const std::vector<std::string> writes = writesOf([] {
        rm_systemLog(1);
        rm_systemLogOptWrite("%s", "100%%");
    });
    ASSERT_EQ(writes.size(), 1U);
    EXPECT_EQ(writes[0].substr(kStampLength), "100%\n");
}

TEST_F(LogLinePiece, WithTheLogFileOpenItLeavesInOneWriteToo)
{
    const std::vector<std::string> writes = writesOf([] {
        openLog();
        rm_systemLogWrite("one");
        rm_systemLogWrite("two");
    });
    EXPECT_EQ(writes.size(), 2U);
    EXPECT_THAT(rmtest::fileLines(), ElementsAre("one", "two"));
    rmtest::removeLeftovers();
}

TEST_F(LogLinePiece, AMessageOfSeveralLinesIsNotTornApart)
{
    const std::vector<std::string> writes =
        writesOf([] { rm_systemLogWrite("first\nsecond\nthird"); });
    ASSERT_EQ(writes.size(), 1U);
    EXPECT_EQ(writes[0].substr(kStampLength), "first\nsecond\nthird\n");
}

TEST_F(LogLinePiece, ReachesTheFileInOnePiece)
{
    openLog();
    resetCalls();
    captureStderr([] { rm_systemLogWrite("a line"); });
    EXPECT_EQ(callCount(Call::kVfprintf), 1);
}

// --- errno

TEST_F(LogLineErrno, IsTheCallersThoughTheStampIsMadeAnew)
{
    ScopedFault calendar(
        {.call = Call::kLocaltime, .times = kForever, .action = [](const CallRecord& call) {
             const int64_t result = passThrough(call);
             errno = EIO;
             return result;
         }});
    for (int i = 0; i < 3; ++i) {
        clockTime = kMarch1996 + i;
        errno = ENOENT;
        EXPECT_EQ(logLines(captureStderr([] {
                      errno = ENOENT;
                      rm_systemLogWrite("%m");
                      EXPECT_EQ(errno, ENOENT);
                  })),
                  std::vector<std::string>{"No such file or directory"});
    }
    EXPECT_EQ(calendar.hits(), 3);
}

TEST_F(LogLineErrno, IsTheCallersWithAKeptStampToo)
{
    line();
    captureStderr([] {
        for (const int error : {0, EINTR, ENOSPC, 12345}) {
            errno = error;
            rm_systemLogWrite("x");
            EXPECT_EQ(errno, error);
        }
    });
}

TEST_F(LogLineErrno, IsTheCallersInAMessageForBothWays)
{
    openLog();
    captureStderr([] {
        errno = EACCES;
        rm_systemLogWrite("%s: %m", "open");
    });
    EXPECT_THAT(rmtest::fileLines(), ElementsAre("open: Permission denied"));
}

TEST_F(LogLineErrno, IsTheCallersWhenThereIsNoCalendar)
{
    ScopedFault fault({.call = Call::kLocaltime, .error = EOVERFLOW, .times = kForever});
    EXPECT_EQ(captureStderr([] {
                  errno = EACCES;
                  rm_systemLogWrite("%m");
                  EXPECT_EQ(errno, EACCES);
              }),
              "Permission denied\n");
}
}  // namespace
