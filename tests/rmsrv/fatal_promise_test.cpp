// The fatal path line by line, both outputs together, and what it does when it meets itself: a
// failure in the middle of its own line, of the banner, of the last line.
#include "teardown_case.h"

#include <fcntl.h>

using namespace teardown;

namespace
{
using rmtest::Outcome;
using rmtest::outcomeOf;

constexpr const char* kShutdown = "Exiting to shutdown processing";
constexpr const char* kOperatingSystem = "Exiting to operating system";
constexpr std::size_t kStampLength = 22;
constexpr std::size_t kBannerLines = 7;

class FatalOutputs : public rmtest::RmTest
{
};

class FatalWholeLog : public rmtest::FrameTest
{
};

class FatalMeetsItself : public rmtest::FrameTest
{
};

// The line of a log file whose lock cannot be entered.
std::string lostLock()
{
    return rmtest::failure("rm_syncEnterExcl", "semop() failure", EIDRM);
}

// `lines`, the banner and one more.
std::vector<std::string> withBanner(std::vector<std::string> lines, const char* last)
{
    const std::vector<std::string> known = rmtest::logOfFirstFailure("");
    lines.insert(lines.end(), known.begin() + 1, known.begin() + 1 + kBannerLines);
    lines.emplace_back(last);
    return lines;
}

std::vector<std::string> bannerLines(std::size_t count)
{
    std::vector<std::string> lines = withBanner({}, "");
    lines.resize(count);
    return lines;
}

// --- Both outputs together

// The lines of a child whose two outputs are one pipe; a stamp becomes "log: ".
std::vector<std::string> linesOnOnePipe(const std::function<void()>& body)
{
    std::array<int, 2> shared = {-1, -1};
    EXPECT_EQ(pipe2(shared.data(), O_CLOEXEC), 0);
    const ChildResult child = runChild([&] {
        dup2(shared[1], STDOUT_FILENO);
        dup2(shared[1], STDERR_FILENO);
        static std::array<char, 8192> buffer;
        setvbuf(stdout, buffer.data(), _IOFBF, buffer.size());
        body();
    });
    EXPECT_EQ(child.status, 0);
    close(shared[1]);
    std::string text(8192, '\0');
    text.resize(
        static_cast<std::size_t>(std::max<ssize_t>(0, read(shared[0], text.data(), text.size()))));
    close(shared[0]);
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line.starts_with('[') ? "log: " + line.substr(kStampLength) : line);
    }
    return lines;
}

TEST_F(FatalOutputs, TheLogLineThePrintedLineAndTheBannerStandInThisOrder)
{
    const std::string line = "**** f() semop() failure, errno=5 (Input/output error)";
    std::vector<std::string> expected = {"log: " + line, line};
    for (const std::string& further : withBanner({}, kOperatingSystem)) {
        expected.push_back("log: " + further);
    }
    EXPECT_EQ(linesOnOnePipe([] { internalErrorExit("f", "semop() failure", EIO); }), expected);
}

TEST_F(FatalOutputs, ThePrintedLineHasLeftWhenTheTargetIsReached)
{
    // A shutdown processing that ends by itself flushes nothing.
    const ChildResult child = runChild([] {
        static std::array<char, 8192> buffer;
        setvbuf(stdout, buffer.data(), _IOFBF, buffer.size());
        rmtest::runHost([] { internalErrorExit("f", "m", 0); }, [] { _exit(7); });
    });
    EXPECT_EQ(child.status, 7);
    EXPECT_EQ(child.out, "**** f() m, errno=0 (Success)\n");
}

// --- The whole log

TEST_F(FatalWholeLog, OfAFailedSystemCallIsItsLineTheBannerAndTheWayOut)
{
    EXPECT_EQ(outcomeOf([] { internalErrorExit("f", "m", 0); }).lines,
              withBanner({"**** f() m, errno=0 (Success)"}, kShutdown));
}

TEST_F(FatalWholeLog, OfALogicalFailureIsTwoLinesTheBannerAndTheWayOut)
{
    EXPECT_EQ(outcomeOf([] { fatalRMExit("a problem"); }).lines,
              withBanner({"***Fatal resource manager error***", "    Specific problem: a problem"},
                         kShutdown));
}

TEST_F(FatalWholeLog, OfTheCommonTailIsTheBannerAndTheWayOut)
{
    EXPECT_EQ(outcomeOf([] { rm_errorExit(); }).lines, withBanner({}, kShutdown));
}

TEST_F(FatalWholeLog, WithoutATargetEndsWithTheOtherWayOut)
{
    EXPECT_EQ(rmtest::linesOfChild([] { fatalRMExit("a problem"); }),
              withBanner({"***Fatal resource manager error***", "    Specific problem: a problem"},
                         kOperatingSystem));
    EXPECT_EQ(rmtest::linesOfChild([] { internalErrorExit("f", "m", 0); }),
              withBanner({"**** f() m, errno=0 (Success)"}, kOperatingSystem));
}

TEST_F(FatalWholeLog, OfASecondFailedSystemCallIsTheWayOutAlone)
{
    static_cast<void>(outcomeOf([] { internalErrorExit("first", "m", 0); }));
    const Outcome second = outcomeOf([] { internalErrorExit("second", "m", 0); });
    EXPECT_THAT(second.lines, ElementsAre(kShutdown));
}

TEST_F(FatalWholeLog, InTheFileHasOneFailedSystemCallToo)
{
    openLog();
    static_cast<void>(outcomeOf([] { internalErrorExit("first", "m", 0); }));
    static_cast<void>(outcomeOf([] { internalErrorExit("second", "m", 0); }));
    std::vector<std::string> expected =
        withBanner({"**** first() m, errno=0 (Success)"}, kShutdown);
    expected.emplace_back(kShutdown);
    EXPECT_EQ(fileLines(), expected);
}

TEST_F(FatalWholeLog, AtEveryLevelIsTheSameOnStandardError)
{
    for (const int level : {-1, 0, 1, 2, 3}) {
        rm_systemLog(static_cast<int16_t>(level));
        EXPECT_EQ(rmtest::linesOfChild([] { rm_errorExit(); }), withBanner({}, kOperatingSystem))
            << level;
    }
}

TEST_F(FatalWholeLog, OfAWorkerIsThatOfTheForeground)
{
    ASSERT_EQ(rm_foregroundThread(), 1);
    for (const bool withTarget : {false, true}) {
        const std::vector<std::string> lines = rmtest::linesOfChild([withTarget] {
            if (withTarget) {
                catchFatal([] { rm_errorExit(); });
            } else {
                rm_errorExit();
            }
        });
        EXPECT_EQ(lines, withBanner({}, withTarget ? kShutdown : kOperatingSystem));
    }
}

// --- The path within itself

// Makes the lock of the log file fail once, at the line after `lines` others.
struct LogFileLoses {
    explicit LogFileLoses(int lines)
        : fault({.call = Call::kSemtimedop, .error = EIDRM, .skip = lines})
    {
    }

    ScopedFault fault;
};

TEST_F(FatalMeetsItself, AFailureWithinItsOwnLineIsPrintedOnly)
{
    // The first one has been logged by then, so the one that its line meets is not.
    openLog();
    const LogFileLoses at(0);
    const Outcome outcome = outcomeOf([] { internalErrorExit("outer", "m", 0); });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(outcome.lines, withBanner({"**** outer() m, errno=0 (Success)"}, kShutdown));
    EXPECT_EQ(outcome.out, lostLock() + "\n");
}

TEST_F(FatalMeetsItself, AFailureWithinTheBannerDoesNotBeginItAgain)
{
    for (int shown = 1; shown <= static_cast<int>(kBannerLines); ++shown) {
        const ChildResult child = runChild([shown] {
            openLog();
            const LogFileLoses at(shown - 1);
            rm_errorExit();
        });
        std::vector<std::string> expected = bannerLines(static_cast<std::size_t>(shown));
        expected.push_back(lostLock());
        expected.emplace_back(kOperatingSystem);
        EXPECT_EQ(child.status, 0);
        EXPECT_EQ(logLines(child.err), expected);
        rmtest::removeLeftovers();
    }
}

TEST_F(FatalMeetsItself, AFailureWithinTheLastLineLeadsToTheTargetOnce)
{
    openLog();
    const LogFileLoses at(kBannerLines);
    const Outcome outcome = outcomeOf([] { rm_errorExit(); });
    EXPECT_EQ(outcome.jumped, 1);
    std::vector<std::string> expected = withBanner({}, kShutdown);
    expected.push_back(lostLock());
    expected.emplace_back(kShutdown);
    EXPECT_EQ(outcome.lines, expected);
}

TEST_F(FatalMeetsItself, AFailureWithinTheHeadingLosesTheProblem)
{
    openLog();
    const LogFileLoses at(0);
    const Outcome outcome = outcomeOf([] { fatalRMExit("a problem"); });
    EXPECT_EQ(outcome.lines,
              withBanner({"***Fatal resource manager error***", lostLock()}, kShutdown));
}

TEST_F(FatalOutputs, AnErrorNumberIsTheSameInTheLogAndOnStandardOutput)
{
    for (const int32_t error : {-1, 99999, INT32_MIN, INT32_MAX}) {
        const ChildResult child = runChild([error] { internalErrorExit("f", "m", error); });
        rmtest::expectEnd(child, 0);
        const std::vector<std::string> lines = logLines(child.err);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.front(), rmtest::failure("f", "m", error));
        EXPECT_EQ(child.out, lines.front() + "\n");
    }
}

TEST_F(FatalWholeLog, OfALogicalFailureHasThePercentSignsOfItsProblem)
{
    EXPECT_EQ(
        outcomeOf([] { fatalRMExit("100%d of %s, %n"); }).lines,
        withBanner({"***Fatal resource manager error***", "    Specific problem: 100%d of %s, %n"},
                   kShutdown));
}

TEST_F(FatalWholeLog, OfAChildLeavesThatOfItsParentWhole)
{
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(rmtest::linesOfChild([] { internalErrorExit("f", "m", 0); }),
                  withBanner({"**** f() m, errno=0 (Success)"}, kOperatingSystem));
    }
    EXPECT_EQ(outcomeOf([] { internalErrorExit("f", "m", 0); }).lines,
              withBanner({"**** f() m, errno=0 (Success)"}, kShutdown));
}
}  // namespace
