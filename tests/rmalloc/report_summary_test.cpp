// The memory report without detail: nothing at all, the table of one line per tag, the totals, and
// which tags they are about.
#include "tests/rmalloc/report_case.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <cstdint>
#include <string>

namespace
{
using rmtest::bytesFor;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::kReportDone;
using rmtest::kReportHeading;
using rmtest::kTableHeading;
using rmtest::Lines;
using rmtest::report;
using rmtest::reportBody;
using rmtest::wholeHeap;

class ReportOfNothing : public rmtest::HeapTest
{
};

class ReportSummary : public rmtest::HeapTest
{
};

class ReportTotals : public rmtest::HeapTest
{
};

class ReportOneTag : public rmtest::HeapTest
{
};

Tag newTag()
{
    return rm_allocTag(nullptr, RM_NO_LIMIT);
}

// --- Flags that ask for no line

TEST_F(ReportOfNothing, IsTheClosingLineAlone)
{
    rm_getMemory(10, 1);
    EXPECT_EQ(report(0), Lines{kReportDone});
}

TEST_F(ReportOfNothing, DropsItsTitle)
{
    rm_getMemory(10, 1);
    EXPECT_EQ(rmtest::linesOf([] { rm_memReport(0, 0, "a title"); }), Lines{kReportDone});
}

TEST_F(ReportOfNothing, IsTheSameBeforeAnyMemoryAndMakesNoTable)
{
    EXPECT_EQ(report(0), Lines{kReportDone});
    EXPECT_EQ(rmalloc::tagTable, nullptr);
}

TEST_F(ReportOfNothing, ComesOfFreeBlocksAlone)
{
    draw("2 [1] 3 [1]");
    EXPECT_EQ(report(RM_REPORT_FREE), Lines{kReportDone});
}

TEST_F(ReportOfNothing, ComesOfASingleTagAlone)
{
    const Drawn drawn = draw("2 [1] 3 [1]");
    for (const int tag : {int{drawn.tag}, 0, 39, -1}) {
        EXPECT_EQ(report(RM_REPORT_TAG | RM_REPORT_FREE, tag), Lines{kReportDone}) << tag;
    }
}

TEST_F(ReportOfNothing, ComesOfEveryBitWithoutAMeaning)
{
    draw("2 [1] 3 [1]");
    EXPECT_EQ(report(0x7FA8), Lines{kReportDone});
}

// --- The table

TEST_F(ReportSummary, OfTagsZeroAndOneIsTwoLinesInItsFrame)
{
    rm_getMemory(10, 1);
    EXPECT_EQ(report(RM_REPORT_SUMMARY),
              (Lines{kReportHeading, "", "       allocated/blocks     freed/blocks  segs",
                     "TAG  0(          ):        0/    0 :        0/    0 :   0",
                     "TAG  1(          ):       24/    1 :     8144/    1 :   1",
                     "TOTAL :       24/    1 :     8144/    1 :   2", kReportDone}));
}

TEST_F(ReportSummary, IsAskedForByItsBitAlone)
{
    rm_getMemory(10, 1);
    EXPECT_EQ(report(0x0040), report(0x0040 | 0x7FA8));
}

TEST_F(ReportSummary, BeforeAnyMemoryHasNoTag)
{
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY),
              (Lines{kTableHeading, "TOTAL :        0/    0 :        0/    0 :   0"}));
    EXPECT_EQ(rmalloc::tagTable, nullptr);
}

TEST_F(ReportSummary, OfAFreshTagWithTenBytesHasTheRestOfTheSegmentAsOneFreeBlock)
{
    rm_getMemory(10, newTag());
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY).at(2),
              "TAG  1(          ):       24/    1 :     8144/    1 :   1");
}

TEST_F(ReportSummary, OfATagWithoutSegmentsIsZeros)
{
    rm_setTagAlloc(0, newTag());
    rm_freeTagMemory(1, 0);
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY).at(2),
              "TAG  1(          ):        0/    0 :        0/    0 :   0");
}

TEST_F(ReportSummary, SumsUpAllSegmentsOfATag)
{
    draw("2 [3] 1 [4] | [1] | [2] 6 [1]");
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY).at(2),
              "TAG  1(          ):       88/    5 :       72/    3 :   3");
}

TEST_F(ReportSummary, SumsUpAllTags)
{
    draw("2 [3] 1 [4]");
    draw("[1] | [2] 6 [1]");
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY),
              (Lines{kTableHeading, "TAG  0(          ):        0/    0 :        0/    0 :   0",
                     "TAG  1(          ):       56/    2 :       24/    2 :   1",
                     "TAG  2(          ):       32/    3 :       48/    1 :   2",
                     "TOTAL :       88/    5 :       72/    3 :   3"}));
}

TEST_F(ReportSummary, WithSegAllocHasASegmentForEachBlockAndNothingFree)
{
    seg_alloc = 1;
    const Tag tag = newTag();
    for (const uint32_t size : {0U, 10U, 100U}) {
        rm_getMemory(size, tag);
    }
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY).at(2),
              "TAG  1(          ):      144/    3 :        0/    0 :   3");
}

TEST_F(ReportSummary, ShowsTheNameOnTheRight)
{
    rm_setTagName("name", newTag());
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY).at(2),
              "TAG  1(      name):       16/    1 :     8152/    1 :   1");
}

TEST_F(ReportSummary, ShowsANameOfTenBytesWithoutABlank)
{
    rm_setTagName("0123456789", newTag());
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY).at(2),
              "TAG  1(0123456789):       24/    1 :     8144/    1 :   1");
}

TEST_F(ReportSummary, ShowsALongerNameWhole)
{
    rm_setTagName("0123456789a", newTag());
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY).at(2),
              "TAG  1(0123456789a):       24/    1 :     8144/    1 :   1");
}

TEST_F(ReportSummary, CutsALineWithALongNameAfter259Bytes)
{
    for (const std::size_t length : {252U, 253U, 259U, 260U, 1000U}) {
        const Tag tag = newTag();
        rm_setTagName(std::string(length, 'n').c_str(), tag);
        const std::string line = reportBody(RM_REPORT_SUMMARY | RM_REPORT_TAG, tag).at(1);
        EXPECT_EQ(line,
                  ("TAG  " + std::to_string(tag) + "(" + std::string(length, 'n') + "):        0")
                      .substr(0, 259))
            << length;
        EXPECT_EQ(line.size(), 259U);
    }
}

TEST_F(ReportSummary, DoesNotInterpretPercentSignsInANameOrTakeThemForArguments)
{
    rm_setTagName("%s%n%d%%", newTag());
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY).at(2),
              "TAG  1(  %s%n%d%%):       24/    1 :     8144/    1 :   1");
}

TEST_F(ReportSummary, WidensForTagsAbove99)
{
    while (newTag() < 100) {
    }
    const Lines lines = reportBody(RM_REPORT_SUMMARY);
    EXPECT_EQ(lines.at(100), "TAG 99(          ):        0/    0 :        0/    0 :   0");
    EXPECT_EQ(lines.at(101), "TAG 100(          ):        0/    0 :        0/    0 :   0");
    EXPECT_EQ(lines.at(102), "TOTAL :        0/    0 :        0/    0 : 101");
}

TEST_F(ReportSummary, WidensForFiguresThatAreLongerThanTheirColumns)
{
    const Tag tag = newTag();
    rm_setTagAlloc(110'000'024, tag);
    rm_getMemory(100'000'000, tag);
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY),
              (Lines{kTableHeading, "TAG  0(          ):        0/    0 :        0/    0 :   0",
                     "TAG  1(          ): 100000008/    1 :  9999992/    1 :   1",
                     "TOTAL : 100000008/    1 :  9999992/    1 :   2"}));
}

TEST_F(ReportSummary, WidensForMoreThan99999Blocks)
{
    const Tag tag = newTag();
    rm_setTagAlloc(100'001 * 8 + 24, tag);
    for (int i = 0; i < 100'000; ++i) {
        rm_getMemory(0, tag);
    }
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY).at(2),
              "TAG  1(          ):   800000/100000 :        8/    1 :   1");
}

TEST_F(ReportSummary, KeepsTheLineOfATagThatWasReleasedInBetween)
{
    draw("[1]");
    const Drawn released = draw("[2]");
    rm_setTagName("released", released.tag);
    draw("[3]");
    rm_freeTagMemory(released.tag, 1);
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY),
              (Lines{kTableHeading, "TAG  0(          ):        0/    0 :        0/    0 :   0",
                     "TAG  1(          ):        8/    1 :        0/    0 :   1",
                     "TAG  2(          ):        0/    0 :        0/    0 :   0",
                     "TAG  3(          ):       24/    1 :        0/    0 :   1",
                     "TOTAL :       32/    2 :        0/    0 :   4"}));
}

TEST_F(ReportSummary, KeepsTheLinesOfReleasedTagsAtTheEndOfTheTable)
{
    const Tag tag = newTag();
    rm_freeTagMemory(tag, 1);
    rm_freeTagMemory(0, 1);
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY).back(),
              "TOTAL :        0/    0 :        0/    0 :   2");
}

TEST_F(ReportSummary, WithDetailLeavesOutATagThatWasReleased)
{
    draw("[1]");
    const Drawn released = draw("[2]");
    draw("[3]");
    rm_freeTagMemory(released.tag, 1);
    const Lines lines = reportBody(RM_REPORT_SUMMARY | RM_REPORT_DETAIL);
    EXPECT_EQ(rmtest::linesThatBegin(lines, "TAG  2"), Lines{});
    EXPECT_EQ(lines.back(), "TOTAL :       32/    2 :        0/    0 :   3");
}

TEST_F(ReportSummary, AfterRmFreeallHasNoTag)
{
    rm_getMemory(10, 1);
    rm_freeall();
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY),
              (Lines{kTableHeading, "TOTAL :        0/    0 :        0/    0 :   0"}));
}

TEST_F(ReportSummary, ChangesNothing)
{
    draw("2 [3] 1 [4] | [1] | [2] 6 [1]");
    const std::string before = wholeHeap();
    report(RM_REPORT_SUMMARY | RM_REPORT_ALL | RM_REPORT_FREE);
    EXPECT_EQ(wholeHeap(), before);
    EXPECT_EQ(rmtest::callCount(rmtest::Call::kMalloc), 4);  // the table and three segments
}

// --- The totals

TEST_F(ReportTotals, AreThreeLinesInTheirFrame)
{
    rm_getMemory(10, 1);
    EXPECT_EQ(report(RM_REPORT_TOTALS),
              (Lines{kReportHeading, "", "TOTAL: 24 allocated bytes in 1 block,",
                     "       8144 free bytes in 1 block", "       System contains 2 active tags",
                     kReportDone}));
}

TEST_F(ReportTotals, OfNothingHavePlurals)
{
    EXPECT_EQ(reportBody(RM_REPORT_TOTALS),
              (Lines{"TOTAL: 0 allocated bytes in 0 blocks,", "       0 free bytes in 0 blocks",
                     "       System contains 0 active tags"}));
}

TEST_F(ReportTotals, OfOneBlockOfEachKindAndOneTagHaveNoPlurals)
{
    rm_getMemory(bytesFor(2), 1);
    EXPECT_EQ(reportBody(RM_REPORT_TOTALS | RM_REPORT_TAG, 1),
              (Lines{"TOTAL: 16 allocated bytes in 1 block,", "       8152 free bytes in 1 block",
                     "       System contains 1 active tag"}));
}

TEST_F(ReportTotals, OfTwoBlocksOfEachKindAndTwoTagsHavePlurals)
{
    draw("2 [3] 1 [4]");
    EXPECT_EQ(reportBody(RM_REPORT_TOTALS),
              (Lines{"TOTAL: 56 allocated bytes in 2 blocks,", "       24 free bytes in 2 blocks",
                     "       System contains 2 active tags"}));
}

TEST_F(ReportTotals, SumUpAllTags)
{
    draw("2 [3] 1 [4]");
    draw("[1] | [2] 6 [1]");
    EXPECT_EQ(reportBody(RM_REPORT_TOTALS),
              (Lines{"TOTAL: 88 allocated bytes in 5 blocks,", "       72 free bytes in 3 blocks",
                     "       System contains 3 active tags"}));
}

TEST_F(ReportTotals, CountReleasedTagsWithoutDetail)
{
    rm_freeTagMemory(draw("[1]").tag, 1);
    EXPECT_EQ(reportBody(RM_REPORT_TOTALS).back(), "       System contains 2 active tags");
}

TEST_F(ReportTotals, DoNotCountReleasedTagsWithDetail)
{
    rm_freeTagMemory(draw("[1]").tag, 1);
    EXPECT_EQ(reportBody(RM_REPORT_TOTALS | RM_REPORT_DETAIL).back(),
              "       System contains 1 active tag");
}

TEST_F(ReportTotals, ComeBeforeTheLastLineOfTheTable)
{
    rm_getMemory(10, 1);
    EXPECT_EQ(reportBody(RM_REPORT_TOTALS | RM_REPORT_SUMMARY),
              (Lines{kTableHeading, "TAG  0(          ):        0/    0 :        0/    0 :   0",
                     "TAG  1(          ):       24/    1 :     8144/    1 :   1",
                     "TOTAL: 24 allocated bytes in 1 block,", "       8144 free bytes in 1 block",
                     "       System contains 2 active tags",
                     "TOTAL :       24/    1 :     8144/    1 :   2"}));
}

// --- One tag

// What the table says of `tag` alone.
Lines tableOf(int tag)
{
    return reportBody(RM_REPORT_SUMMARY | RM_REPORT_TAG, tag);
}

TEST_F(ReportOneTag, IsAllThatIsReportedAndSummedUp)
{
    draw("[1]");
    const Drawn drawn = draw("2 [3]");
    draw("[1]");
    EXPECT_EQ(tableOf(drawn.tag),
              (Lines{kTableHeading, "TAG  2(          ):       24/    1 :       16/    1 :   1",
                     "TOTAL :       24/    1 :       16/    1 :   1"}));
}

TEST_F(ReportOneTag, IsNotLookedAtWithoutItsFlag)
{
    draw("[1]");
    draw("2 [3]");
    EXPECT_EQ(reportBody(RM_REPORT_SUMMARY, 2), reportBody(RM_REPORT_SUMMARY, 0));
}

TEST_F(ReportOneTag, MayBeTagZero)
{
    draw("[1]");
    EXPECT_EQ(tableOf(0).at(1), "TAG  0(          ):        0/    0 :        0/    0 :   0");
}

TEST_F(ReportOneTag, ThatWasReleasedIsZerosAndCounted)
{
    const Drawn drawn = draw("2 [3]");
    rm_freeTagMemory(drawn.tag, 1);
    EXPECT_EQ(tableOf(drawn.tag),
              (Lines{kTableHeading, "TAG  1(          ):        0/    0 :        0/    0 :   0",
                     "TOTAL :        0/    0 :        0/    0 :   1"}));
}

TEST_F(ReportOneTag, BehindTheTagsInUseIsZerosAndCounted)
{
    draw("2 [3]");
    EXPECT_EQ(tableOf(2),
              (Lines{kTableHeading, "TAG  2(          ):        0/    0 :        0/    0 :   0",
                     "TOTAL :        0/    0 :        0/    0 :   1"}));
}

TEST_F(ReportOneTag, OutOfTheTableIsZerosAndCounted)
{
    draw("2 [3]");
    EXPECT_EQ(tableOf(40).at(1), "TAG 40(          ):        0/    0 :        0/    0 :   0");
    EXPECT_EQ(tableOf(INT16_MAX).at(1),
              "TAG 32767(          ):        0/    0 :        0/    0 :   0");
    EXPECT_EQ(tableOf(INT16_MAX).at(2), "TOTAL :        0/    0 :        0/    0 :   1");
}

// The table ends at the end of a page here: a look at a record behind it ends the case.
TEST_F(ReportOneTag, BehindATableThatIsFullIsZerosToo)
{
    rmtest::GuardedMemory guard;
    while (newTag() < 39) {
    }
    ASSERT_EQ(rmalloc::nTags, rmalloc::tagTabSize);
    EXPECT_EQ(tableOf(40).at(1), "TAG 40(          ):        0/    0 :        0/    0 :   0");
    EXPECT_EQ(report(RM_REPORT_DETAIL | RM_REPORT_TAG, 40), Lines{kReportDone});
    rm_freeall();
}

TEST_F(ReportOneTag, BelowZeroIsZerosAndCounted)
{
    draw("2 [3]");
    EXPECT_EQ(tableOf(-1).at(1), "TAG -1(          ):        0/    0 :        0/    0 :   0");
    EXPECT_EQ(tableOf(INT16_MIN).at(1),
              "TAG -32768(          ):        0/    0 :        0/    0 :   0");
    EXPECT_EQ(tableOf(INT16_MIN).at(2), "TOTAL :        0/    0 :        0/    0 :   1");
}

TEST_F(ReportOneTag, BeforeAnyMemoryIsNotThere)
{
    EXPECT_EQ(tableOf(0), (Lines{kTableHeading, "TOTAL :        0/    0 :        0/    0 :   0"}));
}

TEST_F(ReportOneTag, OutOfTheTableIsCountedInTheTotals)
{
    draw("2 [3]");
    EXPECT_EQ(reportBody(RM_REPORT_TOTALS | RM_REPORT_TAG, -5).back(),
              "       System contains 1 active tag");
}
}  // namespace
