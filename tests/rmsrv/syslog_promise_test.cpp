// The log writer: the order of its ways, the levels as a whole, and every month and hour of a
// stamp.
#include "frame.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <type_traits>
#include <utility>

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::captureStderr;
using rmtest::fileLines;
using rmtest::kForever;
using rmtest::logLines;
using rmtest::openLog;
using rmtest::outcomeOf;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LogWays : public rmtest::FrameTest
{
};

class LogLevels : public rmtest::FrameTest
{
};

class LogStampWhole : public rmtest::FrameTest
{
};

// --- The ways of a line

// What is done with a line, in its order.
std::vector<std::string> stepsOf(void (*body)())
{
    std::vector<std::string> steps;
    const auto note = [&steps](const char* name, const void* stream) {
        return [&steps, name, stream](const CallRecord& call) {
            const std::size_t place = call.call == Call::kFwrite ? 3 : 0;
            if (call.pointer<void>(place) == stream) {
                steps.emplace_back(name);
            }
            return false;
        };
    };
    captureStderr([&] {
        ScopedFault flush({.call = Call::kFflush, .when = note("flush", stdout)});
        ScopedFault line({.call = Call::kFwrite, .when = note("standard error", stderr)});
        ScopedFault file(
            {.call = Call::kVfprintf, .when = note("log file", file::ftab[sysfile]->stream)});
        body();
    });
    return steps;
}

TEST_F(LogWays, OfALineAreStandardErrorBetweenTwoFlushesAndThenTheFile)
{
    openLog();
    EXPECT_THAT(stepsOf([] { rm_systemLogWrite("a line"); }),
                ElementsAre("flush", "standard error", "flush", "log file"));
}

TEST_F(LogWays, OfAnOptionalLineAreTheSame)
{
    openLog();
    EXPECT_THAT(stepsOf([] { rm_systemLogOptWrite("a line"); }),
                ElementsAre("flush", "standard error", "flush", "log file"));
}

TEST_F(LogWays, AreEachTakenOnceForEachLine)
{
    openLog();
    EXPECT_THAT(stepsOf([] {
                    rm_systemLogWrite("one");
                    rm_systemLogWrite("two");
                }),
                ElementsAre("flush", "standard error", "flush", "log file", "flush",
                            "standard error", "flush", "log file"));
}

TEST_F(LogWays, OfALineThatTheFileCausesEndAtStandardError)
{
    openLog();
    static bool nested = false;
    nested = false;
    ScopedFault cause({.call = Call::kVfprintf, .times = kForever, .when = [](const CallRecord&) {
                           if (!std::exchange(nested, true)) {
                               rm_systemLogWrite("caused");
                               rm_systemLogOptWrite("caused too");
                           }
                           return false;
                       }});
    const std::string err = captureStderr([] { rm_systemLogWrite("a line"); });
    EXPECT_THAT(logLines(err), ElementsAre("a line", "caused", "caused too"));
    captureStderr([] { rm_systemLogWrite("the next"); });
    EXPECT_THAT(fileLines(), ElementsAre("a line", "the next"));
}

// --- Levels

TEST_F(LogLevels, DecideForTheThreeKindsOfWay)
{
    openLog();
    std::vector<std::string> expected;
    for (const int level : {INT16_MIN, -2, -1, 0, 1, 2, 3, INT16_MAX}) {
        SCOPED_TRACE(level);
        rm_systemLog(static_cast<int16_t>(level));
        const std::vector<std::string> plain =
            logLines(captureStderr([] { rm_systemLogWrite("plain"); }));
        const std::vector<std::string> optional =
            logLines(captureStderr([] { rm_systemLogOptWrite("optional"); }));
        EXPECT_THAT(plain, ElementsAre("plain"));
        EXPECT_EQ(optional.size(), level == 0 ? 0U : 1U);
        if (level >= 2) {
            expected.insert(expected.end(), {"plain", "optional"});
        }
        EXPECT_EQ(fileLines(), expected);
    }
}

TEST_F(LogLevels, AreSetInSilence)
{
    openLog();
    const int16_t handle = sysfile;
    EXPECT_EQ(captureStderr([] {
                  resetCalls();
                  for (const int level : {3, 1, 0, 2}) {
                      rm_systemLog(static_cast<int16_t>(level));
                  }
                  EXPECT_THAT(rmtest::callTrace(), IsEmpty());
              }),
              "");
    EXPECT_EQ(sysfile, handle);
    EXPECT_THAT(fileLines(), IsEmpty());
}

TEST_F(LogLevels, OutliveAFatalErrorAndNotAnExit)
{
    rm_systemLog(3);
    static_cast<void>(outcomeOf([] { rm_errorExit(); }));
    EXPECT_EQ(syslogon, 3);
    EXPECT_EQ(rmtest::catchExit([] { rm_exit(5); }), 5);
    EXPECT_EQ(rm_systemLog(1), 3) << "with no log file open there is nothing to close";
    openLog(3);
    EXPECT_EQ(rmtest::catchExit([] { rm_exit(5); }), 5);
    EXPECT_EQ(rm_systemLog(1), 0);
}

TEST_F(LogLevels, HaveTheWidthsOfTheInterface)
{
    EXPECT_TRUE((std::is_same_v<decltype(&rm_systemLog), int16_t (*)(int16_t)>));
    EXPECT_TRUE((std::is_same_v<decltype(syslogon), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(sysfile), int16_t>));
}

// --- The stamp

// The line of a message "x" at a moment.
std::string lineAt(time_t moment)
{
    ScopedFault clock({.call = Call::kTime, .times = kForever, .result = moment});
    return captureStderr([] { rm_systemLogWrite("x"); });
}

TEST_F(LogStampWhole, ShowsEveryMonthByItsThreeLetters)
{
    setenv("TZ", "UTC0", 1);
    const std::array<const char*, 12> months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    tm first = {};
    first.tm_year = 99;
    first.tm_mday = 9;
    for (std::size_t month = 0; month < months.size(); ++month) {
        first.tm_mon = static_cast<int>(month);
        EXPECT_EQ(lineAt(timegm(&first)),
                  std::string("[09-") + months[month] + "-99 00:00:00]  x\n");
    }
}

TEST_F(LogStampWhole, ShowsEveryHourMinuteAndSecondWithTwoDigits)
{
    setenv("TZ", "UTC0", 1);
    constexpr time_t kMidnight = 826156800;  // 07-Mar-96
    for (int hour = 0; hour < 24; ++hour) {
        const int minute = (hour * 7) % 60;
        const int second = (hour * 11) % 60;
        std::array<char, 40> expected = {};
        std::snprintf(expected.data(), expected.size(), "[07-Mar-96 %02d:%02d:%02d]  x\n", hour,
                      minute, second);
        EXPECT_EQ(lineAt(kMidnight + hour * 3600 + minute * 60 + second), expected.data());
    }
}

TEST_F(LogStampWhole, IsTakenWhenTheLineIsWrittenAndNotWhenItsTextWasMade)
{
    // An optional line is two expansions and one stamp.
    setenv("TZ", "UTC0", 1);
    rm_systemLog(1);
    resetCalls();
    ScopedFault clock({.call = Call::kTime, .times = kForever, .result = 826207509});
    EXPECT_EQ(captureStderr([] { rm_systemLogOptWrite("%s", "%d"); }), "[07-Mar-96 14:05:09]  0\n");
    EXPECT_EQ(clock.hits(), 1);
}
}  // namespace
