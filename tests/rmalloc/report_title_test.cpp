// The heading and the title of the memory report, and where its lines go.
#include "tests/rmalloc/report_case.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmsrv/rmsrv.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

namespace
{
using rmtest::captureStderr;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::kReportDone;
using rmtest::kReportHeading;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::logLines;
using rmtest::makeReport;
using rmtest::readFile;
using rmtest::report;

class ReportHeading : public rmtest::HeapTest
{
};

class ReportTitle : public rmtest::HeapTest
{
};

class ReportInLogFile : public rmtest::HeapTest
{
  protected:
    void SetUp() override
    {
        HeapTest::SetUp();
        fileSem = RM_NULL_SYNC;
        growSem = RM_NULL_SYNC;
    }

    void TearDown() override
    {
        rm_systemLogClose();
        HeapTest::TearDown();
    }

    static void openLog(int16_t level)
    {
        rm_systemLog(level);
        rm_systemLogOpen("log");
        ASSERT_NE(sysfile, -1);
    }
};

constexpr std::size_t kLongest = 259;

// --- The heading

TEST_F(ReportHeading, StandsOnceBeforeTheFirstLine)
{
    draw("2 [3]");
    const Lines lines = report(RM_REPORT_ALL | RM_REPORT_SUMMARY);
    EXPECT_EQ(lines.at(0), "--------VIRLO MEMORY REPORT--------");
    EXPECT_EQ(rmtest::linesThatBegin(lines, kReportHeading).size(), 1U);
}

TEST_F(ReportHeading, ComesAgainWithEachReport)
{
    draw("2 [3]");
    const Lines first = report(RM_REPORT_SUMMARY);
    EXPECT_EQ(first.at(0), kReportHeading);
    EXPECT_EQ(report(RM_REPORT_SUMMARY), first);
}

TEST_F(ReportHeading, IsNotInAReportOfTheClosingLineAlone)
{
    draw("2 [3]");
    EXPECT_EQ(report(0), Lines{kReportDone});
    EXPECT_EQ(report(RM_REPORT_DETAIL | RM_REPORT_TAG, 7), Lines{kReportDone});
}

TEST_F(ReportHeading, ComesWithAWarning)
{
    const Drawn drawn = draw("2 [3]");
    rmalloc::tagTable[drawn.tag].allocated = 48;
    EXPECT_EQ(linesOf([] { rm_memReport(0, 0, "after %s", "work"); }),
              (Lines{kReportHeading, "after work",
                     "WARNING: Tag byte count, 48 mismatch with counted blocks, 24", kReportDone}));
    rmalloc::tagTable[drawn.tag].allocated = 24;
}

TEST_F(ReportHeading, StandsOnceBeforeSeveralWarnings)
{
    const Drawn drawn = draw("2 [3]");
    rmalloc::tagTable[drawn.tag].allocated = 48;
    rmtest::segmentsOf(drawn.tag)[0]->blocks = 2;
    EXPECT_EQ(report(0),
              (Lines{kReportHeading, "",
                     "WARNING: Segment block count, 2 mismatch with counted blocks, 1",
                     "WARNING: Tag byte count, 48 mismatch with counted blocks, 24", kReportDone}));
    rmalloc::tagTable[drawn.tag].allocated = 24;
    rmtest::segmentsOf(drawn.tag)[0]->blocks = 1;
}

TEST_F(ReportHeading, IsNotInTheReportAfterAWarningWasMended)
{
    const Drawn drawn = draw("2 [3]");
    rmalloc::tagTable[drawn.tag].allocated = 48;
    report(0);
    rmalloc::tagTable[drawn.tag].allocated = 24;
    EXPECT_EQ(report(0), Lines{kReportDone});
}

// --- The title

// The second line of what `make` logs.
std::string titleOf(const std::function<void()>& make)
{
    const Lines lines = linesOf(make);
    EXPECT_EQ(lines.at(0), kReportHeading);
    EXPECT_EQ(lines.at(2), rmtest::kTableHeading);
    return lines.at(1);
}

// The title that a report with this text as its title has.
std::string titleFrom(const std::string& text)
{
    return titleOf([&] { rm_memReport(RM_REPORT_SUMMARY, 0, "%s", text.c_str()); });
}

TEST_F(ReportTitle, FollowsTheHeading)
{
    EXPECT_EQ(titleOf([] { rm_memReport(RM_REPORT_SUMMARY, 0, "nightly"); }), "nightly");
}

TEST_F(ReportTitle, TakesArguments)
{
    EXPECT_EQ(titleOf([] {
                  rm_memReport(RM_REPORT_SUMMARY, 0, "%s %d of %lu, %c, %.2f", "session", -7, 12UL,
                               'x', 1.5);
              }),
              "session -7 of 12, x, 1.50");
}

TEST_F(ReportTitle, OfNullIsAnEmptyLine)
{
    EXPECT_EQ(titleOf([] { rm_memReport(RM_REPORT_SUMMARY, 0, nullptr); }), "");
}

TEST_F(ReportTitle, ThatIsEmptyIsAnEmptyLine)
{
    EXPECT_EQ(titleFrom(""), "");
}

TEST_F(ReportTitle, IsTheReportsOwnAndNotThatOfTheOneBefore)
{
    titleFrom("first");
    EXPECT_EQ(titleOf([] { rm_memReport(RM_REPORT_SUMMARY, 0, nullptr); }), "");
}

TEST_F(ReportTitle, ExpandsAPercentSignThatIsLeftASecondTime)
{
    EXPECT_EQ(titleOf([] { rm_memReport(RM_REPORT_SUMMARY, 0, "100%%d"); }), "1000");
}

TEST_F(ReportTitle, HasAPercentSignOfFour)
{
    EXPECT_EQ(titleOf([] { rm_memReport(RM_REPORT_SUMMARY, 0, "100%%%%"); }), "100%");
}

TEST_F(ReportTitle, IsNotExpandedAThirdTime)
{
    EXPECT_EQ(titleOf([] { rm_memReport(RM_REPORT_SUMMARY, 0, "100%%%%d %%%%n %%%%%%%%"); }),
              "100%d %n %%");
}

TEST_F(ReportTitle, ExpandsPercentSignsOfItsArgumentsToo)
{
    EXPECT_EQ(titleFrom("%d|%u|%ld|%x|%5d|%-3d|"), "0|0|0|0|    0|0  |");
}

TEST_F(ReportTitle, PrintsNoTextForOneThatIsNotThere)
{
    EXPECT_EQ(titleOf([] { rm_memReport(RM_REPORT_SUMMARY, 0, "by %%s"); }), "by (null)");
}

TEST_F(ReportTitle, WritesNothingForAConversionThatWrites)
{
    EXPECT_EQ(titleOf([] { rm_memReport(RM_REPORT_SUMMARY, 0, "[%%n]"); }), "[]");
    EXPECT_EQ(titleFrom("[%n%n%hhn%lln%n]"), "[]");
}

TEST_F(ReportTitle, ReadsNothingForAnyNumberOfConversions)
{
    std::string text;
    std::string expected;
    for (int i = 0; i < 60; ++i) {
        text += "%s%d";
        expected += "(null)0";
    }
    EXPECT_EQ(titleFrom(text), expected.substr(0, kLongest));
}

TEST_F(ReportTitle, OfTheLongestIsWhole)
{
    const std::string text(kLongest, 't');
    EXPECT_EQ(titleFrom(text), text);
}

TEST_F(ReportTitle, IsCutAfter259Bytes)
{
    for (const std::size_t length : {260U, 261U, 1000U, 100'000U}) {
        EXPECT_EQ(titleFrom(std::string(length, 't')), std::string(kLongest, 't')) << length;
    }
}

TEST_F(ReportTitle, IsCutBeforeItsSecondExpansion)
{
    // The last byte that is kept is a percent sign, whose conversion is gone.
    EXPECT_EQ(titleFrom(std::string(kLongest - 2, 't') + "%d"),
              std::string(kLongest - 2, 't') + "0");
    EXPECT_EQ(titleFrom(std::string(kLongest - 1, 't') + "%d").substr(0, kLongest - 1),
              std::string(kLongest - 1, 't'));
    EXPECT_EQ(titleFrom(std::string(kLongest, 't') + "%d"), std::string(kLongest, 't'));
}

TEST_F(ReportTitle, IsCutAfterItsSecondExpansion)
{
    EXPECT_EQ(titleFrom("%300d"), std::string(kLongest, ' '));
    EXPECT_EQ(titleFrom(std::string(200, 't') + "%100d"),
              std::string(200, 't') + std::string(59, ' '));
}

TEST_F(ReportTitle, OfLongFormatsIsCut)
{
    EXPECT_EQ(titleOf([] { rm_memReport(RM_REPORT_SUMMARY, 0, "%400d", 5); }),
              std::string(kLongest, ' '));
}

TEST_F(ReportTitle, MayBeTheNameOfATagThatIsReported)
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    const char* name = rm_setTagName("name", tag);
    EXPECT_EQ(titleFrom(name), "name");
}

// --- Where the lines go

TEST_F(ReportInLogFile, IsAllThereAtLevelTwo)
{
    draw("2 [3]");
    openLog(2);
    const std::string text = captureStderr([] { makeReport(RM_REPORT_ALL | RM_REPORT_SUMMARY); });
    EXPECT_EQ(readFile("log"), text);
    EXPECT_EQ(logLines(text).front(), kReportHeading);
    EXPECT_EQ(logLines(text).back(), kReportDone);
}

TEST_F(ReportInLogFile, HasTheClosingLineOfAReportOfNothing)
{
    openLog(2);
    captureStderr([] { makeReport(0); });
    EXPECT_EQ(logLines(readFile("log")), Lines{kReportDone});
}

TEST_F(ReportInLogFile, IsNotThereAtLevelOne)
{
    draw("2 [3]");
    openLog(1);
    const Lines lines = report(RM_REPORT_ALL);
    EXPECT_EQ(lines.front(), kReportHeading);
    EXPECT_EQ(readFile("log"), "");
}

TEST_F(ReportInLogFile, IsWrittenAtLevelZeroToStandardErrorAlone)
{
    draw("2 [3]");
    openLog(1);
    rm_systemLog(0);
    EXPECT_EQ(report(RM_REPORT_ALL).back(), kReportDone);
    EXPECT_EQ(readFile("log"), "");
}

TEST_F(ReportInLogFile, ReportsTheTagOfTheFilesItself)
{
    openLog(2);
    const Tag tag = file::fileTag;
    const Lines lines = report(RM_REPORT_SUMMARY | RM_REPORT_TAG, tag);
    EXPECT_EQ(lines, rmtest::foundHeap().lines(RM_REPORT_SUMMARY | RM_REPORT_TAG, tag));
    EXPECT_NE(lines.at(3).find("(   fileTag)"), std::string::npos) << lines.at(3);
}

TEST_F(ReportInLogFile, BringsAParkedLogFileBack)
{
    openLog(2);
    fileHandleLimit = 1;
    rm_fileClose(rm_fileOpen("other", RM_O_RDWR | RM_O_CREAT, 0, 0, 0));
    ASSERT_EQ(file::usedEntry(sysfile)->state, file::kSlotParked);
    const std::string text = captureStderr([] { makeReport(RM_REPORT_ALL | RM_REPORT_SUMMARY); });
    EXPECT_EQ(readFile("log"), text);
    EXPECT_EQ(logLines(text), rmtest::foundHeap().lines(RM_REPORT_ALL | RM_REPORT_SUMMARY, 0));
}
}  // namespace
