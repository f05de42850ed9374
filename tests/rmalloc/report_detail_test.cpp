// The memory report in detail: tags and segments, and the list of blocks.
//
// Cases are drawings, see heap.h: "4 [2]" is a segment with 4 free units below a live block of 2.
#include "tests/rmalloc/report_case.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <csetjmp>
#include <cstdint>
#include <string>

namespace
{
using rmtest::draw;
using rmtest::Drawn;
using rmtest::headerBefore;
using rmtest::joined;
using rmtest::kEverything;
using rmtest::kReportDone;
using rmtest::kReportHeading;
using rmtest::Lines;
using rmtest::linesThatBegin;
using rmtest::pointerText;
using rmtest::report;
using rmtest::reportBody;
using rmtest::segmentsOf;

class ReportDetail : public rmtest::HeapTest
{
};

class ReportDetailOfOneTag : public rmtest::HeapTest
{
};

class ReportBlocks : public rmtest::HeapTest
{
};

class ReportEverything : public rmtest::HeapTest
{
};

Tag newTag(uint32_t limit = RM_NO_LIMIT)
{
    return rm_allocTag(nullptr, limit);
}

// The lines of the tag alone.
Lines detailOf(int tag, int more = 0)
{
    return reportBody(RM_REPORT_DETAIL | RM_REPORT_TAG | more, tag);
}

std::string segmentLine(Tag tag, std::size_t n, uint32_t bytes)
{
    return "SEGMENT @ " + pointerText(segmentsOf(tag).at(n)) + "   size=" + std::to_string(bytes);
}

const Lines kTagZero = {"TAG 0(          ): limit=-1, allocated=0",
                        "TAG: 0 allocated bytes in 0 blocks,", "     0 free bytes in 0 blocks",
                        "     and contains 0 segments"};

const Lines kEmptyReport = {kReportDone};

// --- Tags and segments

TEST_F(ReportDetail, OfAFreshTagWithTenBytesIsAnOrderOfLinesPerTag)
{
    const Tag tag = newTag();
    rm_getMemory(10, tag);
    EXPECT_EQ(reportBody(RM_REPORT_DETAIL),
              joined({kTagZero,
                      {"TAG 1(          ): limit=-1, allocated=24", segmentLine(tag, 0, 8168),
                       "SEGMENT: 24 allocated bytes in 1 block",
                       "         8144 free bytes in 1 block", "TAG: 24 allocated bytes in 1 block,",
                       "     8144 free bytes in 1 block", "     and contains 1 segment"}}));
}

TEST_F(ReportDetail, IsAskedForByItsBitAlone)
{
    draw("2 [3] 1 [4]");
    EXPECT_EQ(report(0x0010), report(0x0010 | 0x7FA8));
}

TEST_F(ReportDetail, BeforeAnyMemoryIsNothing)
{
    EXPECT_EQ(report(RM_REPORT_DETAIL), kEmptyReport);
}

TEST_F(ReportDetail, NamesTheLimitAsATagHasIt)
{
    EXPECT_EQ(detailOf(newTag(123'456)).at(0), "TAG 1(          ): limit=123456, allocated=0");
    EXPECT_EQ(detailOf(newTag(0)).at(0), "TAG 2(          ): limit=0, allocated=0");
}

TEST_F(ReportDetail, NamesNoLimitAsMinusOne)
{
    EXPECT_EQ(detailOf(newTag(RM_NO_LIMIT)).at(0), "TAG 1(          ): limit=-1, allocated=0");
}

TEST_F(ReportDetail, NamesALimitFrom2GiBOnAsTheSignedNumberOf32Bits)
{
    EXPECT_EQ(detailOf(newTag(0x7FFFFFFF)).at(0),
              "TAG 1(          ): limit=2147483647, allocated=0");
    EXPECT_EQ(detailOf(newTag(0x80000000)).at(0),
              "TAG 2(          ): limit=-2147483648, allocated=0");
    EXPECT_EQ(detailOf(newTag(0xFFFFFFFE)).at(0), "TAG 3(          ): limit=-2, allocated=0");
}

TEST_F(ReportDetail, NamesTheLimitOfTheTagThatTheFirstAllocationMakes)
{
    rm_setMemoryLimit(5000);
    rm_getMemory(10, 1);
    EXPECT_EQ(reportBody(RM_REPORT_DETAIL).at(0), "TAG 0(          ): limit=-1, allocated=0");
    EXPECT_EQ(detailOf(1).at(0), "TAG 1(          ): limit=5000, allocated=24");
}

TEST_F(ReportDetail, ShowsTheNameOnTheRight)
{
    rm_setTagName("name", newTag());
    EXPECT_EQ(detailOf(1).at(0), "TAG 1(      name): limit=-1, allocated=16");
}

TEST_F(ReportDetail, ShowsANameOfTenBytesWithoutABlank)
{
    rm_setTagName("0123456789", newTag());
    EXPECT_EQ(detailOf(1).at(0), "TAG 1(0123456789): limit=-1, allocated=24");
}

TEST_F(ReportDetail, ShowsALongerNameWhole)
{
    rm_setTagName("0123456789a", newTag());
    EXPECT_EQ(detailOf(1).at(0), "TAG 1(0123456789a): limit=-1, allocated=24");
}

TEST_F(ReportDetail, CutsALineWithALongNameAfter259Bytes)
{
    for (const std::size_t length : {240U, 253U, 259U, 260U, 1000U}) {
        const Tag tag = newTag();
        const std::string name(length, 'n');
        rm_setTagName(name.c_str(), tag);
        const std::string line = detailOf(tag).at(0);
        EXPECT_EQ(
            line,
            ("TAG " + std::to_string(tag) + "(" + name + "): limit=-1, allocated=").substr(0, 259))
            << length;
        EXPECT_EQ(line.size(), 259U);
    }
}

TEST_F(ReportDetail, DoesNotInterpretPercentSignsInAName)
{
    rm_setTagName("%s%n%d%%", newTag());
    EXPECT_EQ(detailOf(1).at(0), "TAG 1(  %s%n%d%%): limit=-1, allocated=24");
}

TEST_F(ReportDetail, OfATagWithoutSegmentsHasNoSegmentLine)
{
    const Tag tag = newTag();
    EXPECT_EQ(
        detailOf(tag),
        (Lines{"TAG 1(          ): limit=-1, allocated=0", "TAG: 0 allocated bytes in 0 blocks,",
               "     0 free bytes in 0 blocks", "     and contains 0 segments"}));
}

TEST_F(ReportDetail, ListsSegmentsInTheOrderInWhichTheyWereGot)
{
    const Drawn drawn = draw("2 [3] 1 [4] | [1] | [2] 6 [1]");
    EXPECT_EQ(detailOf(drawn.tag),
              (Lines{"TAG 1(          ): limit=-1, allocated=88", segmentLine(drawn.tag, 0, 80),
                     "SEGMENT: 56 allocated bytes in 2 blocks",
                     "         24 free bytes in 2 blocks", segmentLine(drawn.tag, 1, 8),
                     "SEGMENT: 8 allocated bytes in 1 block", "         0 free bytes in 0 blocks",
                     segmentLine(drawn.tag, 2, 72), "SEGMENT: 24 allocated bytes in 2 blocks",
                     "         48 free bytes in 1 block", "TAG: 88 allocated bytes in 5 blocks,",
                     "     72 free bytes in 3 blocks", "     and contains 3 segments"}));
}

TEST_F(ReportDetail, HasTheSegmentThatWasGotAnewAtTheEnd)
{
    const Drawn drawn = draw("[2] | [3] | [4]");
    rm_freeMemory(drawn.live[0], drawn.tag);
    rm_setTagAlloc(0, drawn.tag);
    rm_getMemory(0, drawn.tag);
    EXPECT_EQ(linesThatBegin(detailOf(drawn.tag), "SEGMENT @"),
              (Lines{segmentLine(drawn.tag, 0, 24), segmentLine(drawn.tag, 1, 32),
                     segmentLine(drawn.tag, 2, 8)}));
}

TEST_F(ReportDetail, HasPluralsForTwoSegments)
{
    EXPECT_EQ(detailOf(draw("[1] | [1]").tag).back(), "     and contains 2 segments");
}

TEST_F(ReportDetail, SaysNothingOfATagThatWasReleasedInBetween)
{
    draw("[1]");
    const Drawn released = draw("[2]");
    draw("[3]");
    rm_freeTagMemory(released.tag, 1);
    EXPECT_EQ(linesThatBegin(reportBody(RM_REPORT_DETAIL), "TAG "),
              (Lines{"TAG 0(          ): limit=-1, allocated=0",
                     "TAG 1(          ): limit=-1, allocated=8",
                     "TAG 3(          ): limit=-1, allocated=24"}));
}

TEST_F(ReportDetail, IsTheSameForATagWithAJumpBuffer)
{
    jmp_buf env = {};
    const Tag tag = rm_allocTag(env, 500);
    rm_getMemory(10, tag);
    const Lines lines = detailOf(tag);
    EXPECT_EQ(lines.at(0), "TAG 1(          ): limit=500, allocated=24");
    EXPECT_EQ(lines.size(), 7U);
}

TEST_F(ReportDetail, NeverSaysUnused)
{
    rm_freeTagMemory(draw("[2]").tag, 1);
    for (const std::string& line : report(RM_REPORT_DETAIL | RM_REPORT_SUMMARY)) {
        EXPECT_EQ(line.find("UNUSED"), std::string::npos) << line;
    }
}

TEST_F(ReportDetail, SaysNothingOfTagZeroWhenItWasReleased)
{
    draw("[1]");
    rm_freeTagMemory(0, 1);
    EXPECT_EQ(reportBody(RM_REPORT_DETAIL).at(0), "TAG 1(          ): limit=-1, allocated=8");
}

TEST_F(ReportDetail, HasTheLineOfTheTableAtTheEndOfEachTag)
{
    draw("2 [3]");
    const Lines lines = reportBody(RM_REPORT_DETAIL | RM_REPORT_SUMMARY);
    EXPECT_EQ(lines.at(0), rmtest::kTableHeading);
    EXPECT_EQ(lines.at(4), "     and contains 0 segments");
    EXPECT_EQ(lines.at(5), "TAG  0(          ):        0/    0 :        0/    0 :   0");
    EXPECT_EQ(lines.at(6), "TAG 1(          ): limit=-1, allocated=24");
    EXPECT_EQ(lines.at(12), "     and contains 1 segment");
    EXPECT_EQ(lines.at(13), "TAG  1(          ):       24/    1 :       16/    1 :   1");
    EXPECT_EQ(lines.at(14), "TOTAL :       24/    1 :       16/    1 :   2");
}

TEST_F(ReportDetail, ListsNoBlocksWithoutTheSign)
{
    draw("2 [3] 1 [4]");
    EXPECT_EQ(linesThatBegin(report(0x7FFF & ~(RM_REPORT_TAG | RM_REPORT_TOTALS)), "    0x"),
              Lines{});
    EXPECT_EQ(linesThatBegin(report(RM_REPORT_DETAIL | RM_REPORT_FREE), "    0x"), Lines{});
}

TEST_F(ReportDetail, HasNoTotals)
{
    draw("2 [3] 1 [4]");
    EXPECT_EQ(linesThatBegin(report(RM_REPORT_DETAIL), "TOTAL"), Lines{});
}

// --- One tag

TEST_F(ReportDetailOfOneTag, IsItsLinesAlone)
{
    draw("[1]");
    const Drawn drawn = draw("2 [3]");
    draw("[1]");
    EXPECT_EQ(detailOf(drawn.tag),
              (Lines{"TAG 2(          ): limit=-1, allocated=24", segmentLine(drawn.tag, 0, 40),
                     "SEGMENT: 24 allocated bytes in 1 block", "         16 free bytes in 1 block",
                     "TAG: 24 allocated bytes in 1 block,", "     16 free bytes in 1 block",
                     "     and contains 1 segment"}));
}

TEST_F(ReportDetailOfOneTag, ThatWasReleasedIsNothing)
{
    const Drawn drawn = draw("2 [3]");
    draw("[1]");
    rm_freeTagMemory(drawn.tag, 1);
    EXPECT_EQ(report(RM_REPORT_DETAIL | RM_REPORT_TAG, drawn.tag), kEmptyReport);
}

TEST_F(ReportDetailOfOneTag, OutOfTheTableIsNothing)
{
    draw("2 [3]");
    for (const int tag : {2, 39, 40, INT16_MAX}) {
        EXPECT_EQ(report(RM_REPORT_DETAIL | RM_REPORT_TAG, tag), kEmptyReport) << tag;
    }
}

TEST_F(ReportDetailOfOneTag, BelowZeroIsNothing)
{
    draw("2 [3]");
    for (const int tag : {-1, -2, INT16_MIN}) {
        EXPECT_EQ(report(RM_REPORT_DETAIL | RM_REPORT_TAG, tag), kEmptyReport) << tag;
    }
}

TEST_F(ReportDetailOfOneTag, ThatIsNotThereIsNotCounted)
{
    draw("2 [3]");
    for (const int tag : {2, 32'767, -1}) {
        EXPECT_EQ(detailOf(tag, RM_REPORT_TOTALS | RM_REPORT_SUMMARY),
                  (Lines{rmtest::kTableHeading, "TOTAL: 0 allocated bytes in 0 blocks,",
                         "       0 free bytes in 0 blocks", "       System contains 0 active tags",
                         "TOTAL :        0/    0 :        0/    0 :   0"}))
            << tag;
    }
}

TEST_F(ReportDetailOfOneTag, BeforeAnyMemoryIsNothing)
{
    EXPECT_EQ(report(RM_REPORT_DETAIL | RM_REPORT_TAG, 0), kEmptyReport);
}

// --- Blocks

// The line of the header at `units` from the anchor of the tag's segment `n`.
std::string blockLine(Tag tag, std::size_t n, uint32_t units, const std::string& rest)
{
    return "    " + pointerText(&segmentsOf(tag).at(n)->anchor + units) + "    " + rest;
}

Lines blocksOf(int tag, int more = 0)
{
    return linesThatBegin(report(kEverything | RM_REPORT_TAG | more, tag), "    0x");
}

TEST_F(ReportBlocks, AreTheLiveOnesFromTheLowEnd)
{
    const Drawn drawn = draw("2 [3] 1 [4] [1]");
    EXPECT_EQ(blocksOf(drawn.tag), (Lines{blockLine(drawn.tag, 0, 3, "    24 (1)"),
                                          blockLine(drawn.tag, 0, 7, "    32 (1)"),
                                          blockLine(drawn.tag, 0, 11, "     8 (1)")}));
}

TEST_F(ReportBlocks, StandAtTheAddressesOfTheirHeaders)
{
    const Drawn drawn = draw("2 [3]");
    EXPECT_EQ(blocksOf(drawn.tag),
              Lines{"    " + pointerText(headerBefore(drawn.live[0])) + "        24 (1)"});
}

TEST_F(ReportBlocks, AreTheFreeOnesTooWithTheirFlag)
{
    const Drawn drawn = draw("2 [3] 1 [4]");
    EXPECT_EQ(blocksOf(drawn.tag, RM_REPORT_FREE),
              (Lines{blockLine(drawn.tag, 0, 0, "     0 (1) free"),
                     blockLine(drawn.tag, 0, 1, "    16 (1) free"),
                     blockLine(drawn.tag, 0, 3, "    24 (1)"),
                     blockLine(drawn.tag, 0, 6, "     8 (1) free"),
                     blockLine(drawn.tag, 0, 7, "    32 (1)")}));
}

TEST_F(ReportBlocks, BeginWithTheAnchorOfNoBytesWhichIsNotCounted)
{
    const Drawn drawn = draw("[3]");
    const Lines lines = reportBody(kEverything | RM_REPORT_TAG | RM_REPORT_FREE, drawn.tag);
    EXPECT_EQ(lines.at(2), blockLine(drawn.tag, 0, 0, "     0 (1) free"));
    EXPECT_EQ(lines.at(5), "         0 free bytes in 0 blocks");
}

TEST_F(ReportBlocks, ReachToABareHeaderInTheLastUnit)
{
    const Drawn drawn = draw("2 [1]");
    EXPECT_EQ(blocksOf(drawn.tag), Lines{blockLine(drawn.tag, 0, 3, "     8 (1)")});
}

TEST_F(ReportBlocks, ReachToAFreeBareHeaderInTheLastUnit)
{
    const Drawn drawn = draw("[2] 1");
    EXPECT_EQ(blocksOf(drawn.tag, RM_REPORT_FREE).back(),
              blockLine(drawn.tag, 0, 3, "     8 (1) free"));
}

TEST_F(ReportBlocks, FollowTheLineOfTheirSegment)
{
    const Drawn drawn = draw("[3] | [2]");
    EXPECT_EQ(reportBody(kEverything | RM_REPORT_TAG, drawn.tag),
              (Lines{"TAG 1(          ): limit=-1, allocated=40", segmentLine(drawn.tag, 0, 24),
                     blockLine(drawn.tag, 0, 1, "    24 (1)"),
                     "SEGMENT: 24 allocated bytes in 1 block", "         0 free bytes in 0 blocks",
                     segmentLine(drawn.tag, 1, 16), blockLine(drawn.tag, 1, 1, "    16 (1)"),
                     "SEGMENT: 16 allocated bytes in 1 block", "         0 free bytes in 0 blocks",
                     "TAG: 40 allocated bytes in 2 blocks,", "     0 free bytes in 0 blocks",
                     "     and contains 2 segments", "TOTAL: 40 allocated bytes in 2 blocks,",
                     "       0 free bytes in 0 blocks", "       System contains 1 active tag"}));
}

TEST_F(ReportBlocks, NameTheirTag)
{
    for (int i = 0; i < 11; ++i) {
        newTag();
    }
    const Drawn drawn = draw("[3]");
    EXPECT_EQ(blocksOf(drawn.tag), Lines{blockLine(drawn.tag, 0, 1, "    24 (12)")});
}

TEST_F(ReportBlocks, WidenForMoreThanSixDigits)
{
    const Tag tag = newTag();
    rm_getMemory(999'984, tag);
    rm_getMemory(9'999'984, tag);
    EXPECT_EQ(blocksOf(tag),
              (Lines{blockLine(tag, 0, 1, "999992 (1)"), blockLine(tag, 1, 1, "9999992 (1)")}));
}

TEST_F(ReportBlocks, WithSegAllocAreOnePerSegment)
{
    seg_alloc = 1;
    const Tag tag = newTag();
    rm_getMemory(0, tag);
    rm_getMemory(10, tag);
    EXPECT_EQ(blocksOf(tag, RM_REPORT_FREE),
              (Lines{blockLine(tag, 0, 0, "     0 (1) free"), blockLine(tag, 0, 1, "     8 (1)"),
                     blockLine(tag, 1, 0, "     0 (1) free"), blockLine(tag, 1, 1, "    24 (1)")}));
}

TEST_F(ReportBlocks, AreNotListedWithTheTotalsFlag)
{
    const Drawn drawn = draw("2 [3] 1 [4]");
    EXPECT_EQ(blocksOf(drawn.tag, RM_REPORT_TOTALS | RM_REPORT_FREE), Lines{});
    EXPECT_EQ(detailOf(drawn.tag, RM_REPORT_TOTALS),
              reportBody(kEverything | RM_REPORT_TAG | RM_REPORT_TOTALS, drawn.tag));
}

TEST_F(ReportBlocks, AreNotListedForATagThatIsNotThere)
{
    draw("2 [3] 1 [4]");
    EXPECT_EQ(blocksOf(5, RM_REPORT_FREE), Lines{});
}

// --- The sign

TEST_F(ReportEverything, IsDetailBlocksAndTotals)
{
    const Drawn drawn = draw("2 [3]");
    EXPECT_EQ(
        report(RM_REPORT_ALL),
        joined({{kReportHeading, ""},
                kTagZero,
                {"TAG 1(          ): limit=-1, allocated=24", segmentLine(drawn.tag, 0, 40),
                 blockLine(drawn.tag, 0, 3, "    24 (1)"), "SEGMENT: 24 allocated bytes in 1 block",
                 "         16 free bytes in 1 block", "TAG: 24 allocated bytes in 1 block,",
                 "     16 free bytes in 1 block", "     and contains 1 segment",
                 "TOTAL: 24 allocated bytes in 1 block,", "       16 free bytes in 1 block",
                 "       System contains 2 active tags", kReportDone}}));
}

TEST_F(ReportEverything, IsWhatTheSignBitStandsForInANumberBelowZero)
{
    draw("2 [3]");
    EXPECT_EQ(report(-1 & ~(RM_REPORT_TAG | RM_REPORT_TOTALS)),
              report(kEverything | RM_REPORT_FREE | RM_REPORT_SUMMARY));
}

TEST_F(ReportEverything, HasNoTable)
{
    draw("2 [3]");
    EXPECT_EQ(linesThatBegin(report(RM_REPORT_ALL), "TOTAL :"), Lines{});
    EXPECT_EQ(linesThatBegin(report(RM_REPORT_ALL), rmtest::kTableHeading), Lines{});
}

TEST_F(ReportEverything, BeforeAnyMemoryIsTheTotals)
{
    EXPECT_EQ(reportBody(RM_REPORT_ALL),
              (Lines{"TOTAL: 0 allocated bytes in 0 blocks,", "       0 free bytes in 0 blocks",
                     "       System contains 0 active tags"}));
}

TEST_F(ReportEverything, CountsOnlyTagsInUse)
{
    draw("[1]");
    rm_freeTagMemory(draw("[2]").tag, 1);
    EXPECT_EQ(reportBody(RM_REPORT_ALL).back(), "       System contains 2 active tags");
}
}  // namespace
