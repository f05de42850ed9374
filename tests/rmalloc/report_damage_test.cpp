// The memory report of a damaged heap: which of the allocator's counts it finds wrong, with the
// figures in their order, and that no header leads it out of a segment.
//
// Cases are drawings, see heap.h: "4 [2]" is a segment with 4 free units below a live block of 2.
// What a case damages is put right at its end, since the fixture checks the heap.
#include "tests/rmalloc/report_case.h"

#include "rm.h"
#include "rm/rmalloc/segments.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace
{
using rmalloc::BlockHeader;
using rmalloc::Segment;
using rmalloc::SegmentMap;
using rmalloc::tagTable;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::foundHeap;
using rmtest::headerBefore;
using rmtest::kEverything;
using rmtest::kReportDone;
using rmtest::kReportHeading;
using rmtest::Lines;
using rmtest::linesThatBegin;
using rmtest::logLines;
using rmtest::makeReport;
using rmtest::mapsOf;
using rmtest::pointerText;
using rmtest::report;
using rmtest::segmentsOf;

constexpr uint32_t kMagic = 0xFFEEDDCC;

// A heap of one tag in one segment, with room for damage, and what it was before that.
class ReportOfDamage : public rmtest::HeapTest
{
  protected:
    void TearDown() override
    {
        mend();
        HeapTest::TearDown();
    }

    // The data of the live blocks is 0.
    void makeHeap(const char* drawing)
    {
        drawn_ = draw(drawing);
        segments_ = segmentsOf(drawn_.tag);
        for (void* block : drawn_.live) {
            const uint32_t units = headerBefore(block)->units;
            std::memset(block, 0, (units - 1) * rmtest::kUnitBytes);
        }
        for (const Segment* segment : segments_) {
            const auto* words = reinterpret_cast<const uint32_t*>(segment);
            saved_.emplace_back(words, words + 6 + std::size_t{segment->units} * 2);
        }
        allocated_ = tagTable[drawn_.tag].allocated;
    }

    void mend()
    {
        if (drawn_.tag == -1) {
            return;
        }
        for (std::size_t i = 0; i < segments_.size(); ++i) {
            std::memcpy(static_cast<void*>(segments_[i]), saved_[i].data(),
                        saved_[i].size() * sizeof(uint32_t));
        }
        tagTable[drawn_.tag].allocated = allocated_;
    }

    Segment* segment(std::size_t n = 0) const { return segments_.at(n); }

    // The header at so many units from the anchor.
    BlockHeader* header(uint32_t units, std::size_t n = 0) const
    {
        return &segment(n)->anchor + units;
    }

    Tag tag() const { return drawn_.tag; }

    void* live(std::size_t n) const { return drawn_.live.at(n); }

    // The warnings of a report that is asked for nothing else.
    static Lines warnings()
    {
        Lines lines = report(0);
        if (lines.size() > 1) {
            EXPECT_EQ(lines[0], kReportHeading);
            EXPECT_EQ(lines[1], "");
            lines.erase(lines.begin(), lines.begin() + 2);
        }
        EXPECT_EQ(lines.back(), kReportDone);
        lines.pop_back();
        return lines;
    }

  private:
    Drawn drawn_;
    std::vector<Segment*> segments_;
    std::vector<std::vector<uint32_t>> saved_;
    uint32_t allocated_ = 0;
};

class ReportOfAnyDamage : public rmtest::HeapTest
{
};

// Headers at 0 (the anchor), 1, 3, 6 and 7; the data area ends behind 10.
constexpr const char* kDrawing = "2 [3] 1 [4]";

TEST_F(ReportOfDamage, ThatThereIsNoneIsNothing)
{
    makeHeap(kDrawing);
    EXPECT_EQ(warnings(), Lines{});
}

// --- Live blocks

TEST_F(ReportOfDamage, OfAMagicCountsABlockLess)
{
    makeHeap(kDrawing);
    header(3)->word1 = 0;
    EXPECT_EQ(warnings(), (Lines{"WARNING: Segment block count, 2 mismatch with counted blocks, 1",
                                 "WARNING: Tag byte count, 56 mismatch with counted blocks, 32"}));
}

TEST_F(ReportOfDamage, OfAMagicByOneBitCountsABlockLess)
{
    makeHeap(kDrawing);
    for (int bit = 0; bit < 32; ++bit) {
        header(7)->word1 = kMagic ^ (1U << bit);
        EXPECT_EQ(warnings(),
                  (Lines{"WARNING: Segment block count, 2 mismatch with counted blocks, 1",
                         "WARNING: Tag byte count, 56 mismatch with counted blocks, 24"}))
            << bit;
    }
}

TEST_F(ReportOfDamage, OfUnitsThatAreZeroGoesOnAUnitFurther)
{
    makeHeap(kDrawing);
    header(3)->units = 0;
    EXPECT_EQ(warnings(), (Lines{"WARNING: Segment unit count, 7 mismatch with counted units, 10",
                                 "WARNING: Tag byte count, 56 mismatch with counted blocks, 32"}));
}

TEST_F(ReportOfDamage, OfUnitsThatAreOneGoesOnAUnitFurther)
{
    makeHeap(kDrawing);
    header(3)->units = 1;
    EXPECT_EQ(warnings(), (Lines{"WARNING: Segment unit count, 8 mismatch with counted units, 10",
                                 "WARNING: Tag byte count, 56 mismatch with counted blocks, 40"}));
}

TEST_F(ReportOfDamage, OfUnitsThatAreHugeEndsTheSegment)
{
    makeHeap(kDrawing);
    header(3)->units = 0xFFFFFFFF;
    EXPECT_EQ(warnings(),
              (Lines{"WARNING: Segment block count, 2 mismatch with counted blocks, 1",
                     "WARNING: Segment unit count, 1 mismatch with counted units, 10",
                     "WARNING: Tag byte count, 56 mismatch with counted blocks, 4294967288"}));
}

// The position that such a block leads to is the anchor again when it is kept in 32 bits.
TEST_F(ReportOfDamage, OfUnitsThatLeadAroundDoesNotBeginAgain)
{
    makeHeap(kDrawing);
    for (const uint32_t units : {0xFFFFFFFDU, 0xFFFFFFFEU, 0x1FFFFFFDU, 0x1FFFFFFEU, 0x20000000U,
                                 0x7FFFFFFFU, 0x80000000U, 0xE0000000U}) {
        header(3)->units = units;
        EXPECT_EQ(warnings().at(1), "WARNING: Segment unit count, " + std::to_string(units + 2) +
                                        " mismatch with counted units, 10");
    }
}

TEST_F(ReportOfDamage, OfUnitsThatLeadJustPastTheEndEndsTheSegment)
{
    makeHeap(kDrawing);
    header(3)->units = 9;
    EXPECT_EQ(warnings(), (Lines{"WARNING: Segment block count, 2 mismatch with counted blocks, 1",
                                 "WARNING: Segment unit count, 11 mismatch with counted units, 10",
                                 "WARNING: Tag byte count, 56 mismatch with counted blocks, 72"}));
}

TEST_F(ReportOfDamage, OfUnitsThatLeadToTheEndEndsTheSegmentWithAllUnits)
{
    makeHeap(kDrawing);
    header(3)->units = 8;
    EXPECT_EQ(warnings(), (Lines{"WARNING: Segment block count, 2 mismatch with counted blocks, 1",
                                 "WARNING: Tag byte count, 56 mismatch with counted blocks, 64"}));
}

TEST_F(ReportOfDamage, OfUnitsThatLeadToTheLastUnitReadsThatOne)
{
    makeHeap(kDrawing);
    header(3)->units = 7;
    *header(10) = {kMagic, 1};
    EXPECT_EQ(warnings(), Lines{"WARNING: Tag byte count, 56 mismatch with counted blocks, 64"});
}

TEST_F(ReportOfDamage, OfUnitsThatLeadIntoABlockReadsWhatLiesThere)
{
    makeHeap(kDrawing);
    *header(8) = {kMagic, 3};
    header(3)->units = 5;
    EXPECT_EQ(warnings(), Lines{"WARNING: Tag byte count, 56 mismatch with counted blocks, 64"});
}

TEST_F(ReportOfDamage, InsideABlockIsNotSeen)
{
    makeHeap(kDrawing);
    *header(8) = {kMagic, 0xFFFFFFFF};
    *header(4) = {kMagic, 0};
    EXPECT_EQ(warnings(), Lines{});
}

// --- Free blocks, the anchor

TEST_F(ReportOfDamage, OfTheFreeChainIsNotSeen)
{
    makeHeap(kDrawing);
    for (const uint32_t link : {0U, 1U, 11U, 0x41414141U, 0xFFFFFFFFU}) {
        header(0)->word1 = link;
        header(1)->word1 = link;
        header(6)->word1 = link;
        EXPECT_EQ(warnings(), Lines{}) << link;
    }
}

TEST_F(ReportOfDamage, OfAFreeBlockThatLooksLiveCountsABlockMore)
{
    makeHeap(kDrawing);
    header(6)->word1 = kMagic;
    EXPECT_EQ(warnings(), (Lines{"WARNING: Segment block count, 2 mismatch with counted blocks, 3",
                                 "WARNING: Tag byte count, 56 mismatch with counted blocks, 64"}));
}

TEST_F(ReportOfDamage, OfAFreeBlocksUnitsCountsTheUnitsThatItSays)
{
    makeHeap(kDrawing);
    header(6)->units = 5;
    EXPECT_EQ(warnings(), (Lines{"WARNING: Segment block count, 2 mismatch with counted blocks, 1",
                                 "WARNING: Tag byte count, 56 mismatch with counted blocks, 24"}));
}

TEST_F(ReportOfDamage, OfAFreeBlocksUnitsThatAreZeroGoesOnAUnitFurther)
{
    makeHeap(kDrawing);
    header(6)->units = 0;
    EXPECT_EQ(warnings(), Lines{"WARNING: Segment unit count, 9 mismatch with counted units, 10"});
}

TEST_F(ReportOfDamage, OfAFreeBlocksUnitsThatAreHugeEndsTheSegment)
{
    makeHeap(kDrawing);
    header(1)->units = 0xFFFFFFFF;
    EXPECT_EQ(warnings(),
              (Lines{"WARNING: Segment block count, 2 mismatch with counted blocks, 0",
                     "WARNING: Segment unit count, 4294967295 mismatch with counted units, 10",
                     "WARNING: Tag byte count, 56 mismatch with counted blocks, 0"}));
}

TEST_F(ReportOfDamage, OfAnAnchorThatLooksLiveCountsABlockOfNoUnits)
{
    makeHeap(kDrawing);
    header(0)->word1 = kMagic;
    EXPECT_EQ(warnings(), Lines{"WARNING: Segment block count, 2 mismatch with counted blocks, 3"});
}

TEST_F(ReportOfDamage, OfAnAnchorWithUnitsIsCountedAndStandsForWhatItCovers)
{
    makeHeap(kDrawing);
    header(0)->units = 3;
    EXPECT_EQ(warnings(), Lines{"WARNING: Segment unit count, 11 mismatch with counted units, 10"});
    EXPECT_EQ(linesThatBegin(report(RM_REPORT_DETAIL), "         "),
              Lines{"         32 free bytes in 2 blocks"});
}

TEST_F(ReportOfDamage, OfAnAnchorWithHugeUnitsEndsTheSegment)
{
    makeHeap(kDrawing);
    header(0)->units = 11;
    EXPECT_EQ(warnings(), (Lines{"WARNING: Segment block count, 2 mismatch with counted blocks, 0",
                                 "WARNING: Segment unit count, 11 mismatch with counted units, 10",
                                 "WARNING: Tag byte count, 56 mismatch with counted blocks, 0"}));
}

// --- What the allocator has counted

TEST_F(ReportOfDamage, OfABlockCountNamesTheStoredOneFirst)
{
    makeHeap(kDrawing);
    segment()->blocks = 4294967295;
    EXPECT_EQ(warnings(),
              Lines{"WARNING: Segment block count, 4294967295 mismatch with counted blocks, 2"});
}

TEST_F(ReportOfDamage, OfASegmentsUnitsNamesTheCountedOnesFirst)
{
    makeHeap(kDrawing);
    segment()->units = 8;
    EXPECT_EQ(warnings(), Lines{"WARNING: Segment unit count, 10 mismatch with counted units, 8"});
}

TEST_F(ReportOfDamage, OfASegmentsUnitsDoesNotLeadTheWalk)
{
    makeHeap("2 [3] 1 [4] | [2]");
    const Lines sizes = {"SEGMENT @ " + pointerText(segment(0)) + "   size=80",
                         "SEGMENT @ " + pointerText(segment(1)) + "   size=16"};
    for (const uint32_t units : {0U, 6U, 11U, 0x41414141U, 0xFFFFFFFFU}) {
        segment()->units = units;
        EXPECT_EQ(warnings(),
                  Lines{"WARNING: Segment unit count, 10 mismatch with counted units, " +
                        std::to_string(units)});
        EXPECT_EQ(linesThatBegin(report(RM_REPORT_DETAIL), "SEGMENT @ "), sizes);
    }
}

// Both have been written over, and say the same: what is known beside the segment does not.
TEST_F(ReportOfDamage, OfASegmentsCountsThatIsLikeThatOfItsBlocksIsSeen)
{
    makeHeap(kDrawing);
    header(7)->units = 9;
    segment()->units = 15;
    EXPECT_EQ(warnings(), (Lines{"WARNING: Segment unit count, 15 mismatch with counted units, 10",
                                 "WARNING: Tag byte count, 56 mismatch with counted blocks, 96"}));
    mend();
    header(7)->word1 = 0;
    segment()->blocks = 1;
    EXPECT_EQ(warnings(), (Lines{"WARNING: Segment block count, 2 mismatch with counted blocks, 1",
                                 "WARNING: Tag byte count, 56 mismatch with counted blocks, 24"}));
}

TEST_F(ReportOfDamage, OfTheNextSegmentIsSaidAndNotFollowed)
{
    makeHeap("[1] | [2] | [3]");
    const Lines sound = report(RM_REPORT_SUMMARY);
    auto* const nowhere = reinterpret_cast<Segment*>(uintptr_t{0x41414140});
    const auto expectSaid = [&](std::size_t n) {
        const std::string line = "WARNING: memory check: tag 1, segment " +
                                 pointerText(segment(n)) +
                                 ": the chain of segments is not as it is kept";
        EXPECT_EQ(warnings(), Lines{line});
        Lines lines = report(RM_REPORT_SUMMARY);
        EXPECT_EQ(std::erase(lines, line), 1U);
        EXPECT_EQ(lines, sound);
    };
    for (Segment* wrong : {static_cast<Segment*>(nullptr), segment(0), segment(2), nowhere}) {
        segment(0)->next = wrong;
        expectSaid(0);
    }
    mend();
    for (Segment* wrong : {segment(0), segment(2), nowhere}) {
        segment(2)->next = wrong;
        expectSaid(2);
    }
}

// The overrun for which a report is recommended: three headers are text.
TEST_F(ReportOfAnyDamage, InFrontOfTheLowestBlockStaysInsideTheSegment)
{
    rmtest::GuardedMemory guard;
    for (const uint32_t units : {3U, 200U}) {  // the map before the segment, and elsewhere
        const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
        rm_setTagAlloc(0, tag);
        auto* block = static_cast<char*>(
            std::memset(rm_getMemory(rmtest::bytesFor(units), tag), 0, rmtest::bytesFor(units)));
        const std::string before(block - 24, 24);
        std::memset(block - 24, 'A', 24);
        EXPECT_EQ(linesThatBegin(report(RM_REPORT_TAG, tag), "WARNING: "),
                  (Lines{"WARNING: Segment block count, 1094795585 mismatch with counted blocks, 0",
                         "WARNING: Segment unit count, 1094795585 mismatch with counted units, " +
                             std::to_string(units),
                         "WARNING: Tag byte count, " + std::to_string(units * 8) +
                             " mismatch with counted blocks, 0"}));
        before.copy(block - 24, 24);
    }
    rm_freeall();
}

TEST_F(ReportOfDamage, OfATagsBytesNamesTheStoredOnesFirst)
{
    makeHeap(kDrawing);
    tagTable[tag()].allocated = 4294967295;
    EXPECT_EQ(warnings(),
              Lines{"WARNING: Tag byte count, 4294967295 mismatch with counted blocks, 56"});
}

TEST_F(ReportOfDamage, OfTheBytesOfATagWithoutSegmentsIsSeen)
{
    makeHeap("[1]");
    tagTable[0].allocated = 8;
    EXPECT_EQ(warnings(), Lines{"WARNING: Tag byte count, 8 mismatch with counted blocks, 0"});
    tagTable[0].allocated = 0;
}

TEST_F(ReportOfDamage, OfATagsBytesIsShownSignedInItsHead)
{
    makeHeap(kDrawing);
    tagTable[tag()].allocated = 0xFFFFFFF8;
    EXPECT_EQ(linesThatBegin(report(RM_REPORT_DETAIL), "TAG 1").at(0),
              "TAG 1(          ): limit=-1, allocated=-8");
}

TEST_F(ReportOfDamage, IsSeenInASingleTagOnlyWhenItIsThatOne)
{
    makeHeap(kDrawing);
    segment()->blocks = 9;
    EXPECT_EQ(report(RM_REPORT_TAG, 0), Lines{kReportDone});
    EXPECT_EQ(report(RM_REPORT_TAG, tag()).size(), 4U);
}

TEST_F(ReportOfDamage, OfSeveralSegmentsIsSaidOfEachInOrder)
{
    makeHeap("[1] | [2] | [3]");
    header(1, 0)->word1 = 0;
    segment(1)->blocks = 5;
    header(1, 2)->units = 6;
    EXPECT_EQ(warnings(), (Lines{"WARNING: Segment block count, 1 mismatch with counted blocks, 0",
                                 "WARNING: Segment block count, 5 mismatch with counted blocks, 1",
                                 "WARNING: Segment unit count, 6 mismatch with counted units, 3",
                                 "WARNING: Tag byte count, 48 mismatch with counted blocks, 64"}));
}

// --- In a report of more

TEST_F(ReportOfDamage, StandsBehindTheCountsOfItsSegmentAndBeforeThoseOfItsTag)
{
    makeHeap(kDrawing);
    header(3)->units = 9;
    EXPECT_EQ(rmtest::reportBody(RM_REPORT_DETAIL | RM_REPORT_SUMMARY | RM_REPORT_TAG, tag()),
              (Lines{rmtest::kTableHeading, "TAG 1(          ): limit=-1, allocated=56",
                     "SEGMENT @ " + pointerText(segment()) + "   size=80",
                     "SEGMENT: 72 allocated bytes in 1 block", "         16 free bytes in 1 block",
                     "WARNING: Segment block count, 2 mismatch with counted blocks, 1",
                     "WARNING: Segment unit count, 11 mismatch with counted units, 10",
                     "WARNING: Tag byte count, 56 mismatch with counted blocks, 72",
                     "TAG: 72 allocated bytes in 1 block,", "     16 free bytes in 1 block",
                     "     and contains 1 segment",
                     "TAG  1(          ):       72/    1 :       16/    1 :   1",
                     "TOTAL :       72/    1 :       16/    1 :   1"}));
}

TEST_F(ReportOfDamage, InFrontOfAPointerIsSaidOfTheSegmentAndTheTag)
{
    makeHeap(kDrawing);
    std::memset(static_cast<char*>(live(0)) - 8, 'x', 8);
    EXPECT_EQ(linesThatBegin(report(RM_REPORT_DETAIL), "WARNING: "),
              (Lines{"WARNING: Segment block count, 2 mismatch with counted blocks, 0",
                     "WARNING: Segment unit count, 2021161082 mismatch with counted units, 10",
                     "WARNING: Tag byte count, 56 mismatch with counted blocks, 0"}));
}

TEST_F(ReportOfDamage, ShowsInTheListOfBlocks)
{
    makeHeap(kDrawing);
    header(3)->units = 0;
    header(7)->units = 0xFFFFFFFF;
    const Lines lines = report(kEverything | RM_REPORT_FREE | RM_REPORT_TAG, tag());
    const auto line = [this](uint32_t at, const std::string& rest) {
        return "    " + pointerText(header(at)) + "    " + rest;
    };
    EXPECT_EQ(linesThatBegin(lines, "    0x"),
              (Lines{line(0, "     0 (1) free"), line(1, "    16 (1) free"), line(3, "     0 (1)"),
                     line(4, "     0 (1) free"), line(5, "     0 (1) free"),
                     line(6, "     8 (1) free"), line(7, "4294967288 (1)")}));
}

TEST_F(ReportOfDamage, ShowsInTheTotals)
{
    makeHeap(kDrawing);
    header(1)->units = 0xFFFFFFFF;
    EXPECT_EQ(linesThatBegin(report(RM_REPORT_TOTALS | RM_REPORT_SUMMARY), "TOTAL"),
              (Lines{"TOTAL: 0 allocated bytes in 0 blocks,",
                     "TOTAL :        0/    0 : 4294967288/    1 :   2"}));
}

TEST_F(ReportOfDamage, ChangesNothingAndMendsNothing)
{
    makeHeap(kDrawing);
    header(3)->units = 9;
    const Lines first = report(RM_REPORT_ALL);
    EXPECT_EQ(report(RM_REPORT_ALL), first);
    EXPECT_EQ(header(3)->units, 9U);
}

// --- Never outside of a segment

const uint32_t kWords[] = {0,          1,          2,          3,          7,
                           8,          kMagic,     0x1FFFFFFF, 0x20000000, 0x7FFFFFFF,
                           0x80000000, 0xE0000000, 0xFFFFFFF0, 0xFFFFFFFE, 0xFFFFFFFF};

constexpr int kFlags = kEverything | RM_REPORT_FREE;

// Writes each of them over each of the words, one after the other.
void damageWords(uint32_t* words, std::size_t count, const std::function<void()>& look)
{
    for (std::size_t at = 0; at < count; ++at) {
        const uint32_t before = words[at];
        for (const uint32_t word : kWords) {
            SCOPED_TRACE(std::to_string(at) + ": " + std::to_string(word));
            words[at] = word;
            look();
        }
        words[at] = before;
    }
}

// Segments that share a row of slots, and one that is alone with it; with the maps before them and
// elsewhere.
std::vector<Tag> drawAlone()
{
    seg_alloc = 1;
    return {draw("[2] | [1] | [80] | [6]").tag, draw("[3]").tag, draw("[70]").tag};
}

// The words of a segment, those of its header first, at the end of a page.
TEST_F(ReportOfAnyDamage, OfOneWordStaysInsideTheSegment)
{
    rmtest::GuardedMemory guard;
    std::vector<Tag> tags = {draw("2 [3] 1 [4] | [1] | [2] 1 | 60 [5]").tag};
    const std::vector<Tag> alone = drawAlone();
    tags.insert(tags.end(), alone.begin(), alone.end());
    constexpr int kOfTag = kFlags | RM_REPORT_TAG;
    constexpr uint32_t kMost = 10;  // units: those behind them are like these
    for (const Tag tag : tags) {
        for (Segment* segment : segmentsOf(tag)) {
            damageWords(reinterpret_cast<uint32_t*>(segment),
                        6 + 2 * std::min(segment->units, kMost),
                        [tag] { ASSERT_EQ(report(kOfTag, tag), foundHeap().lines(kOfTag, tag)); });
        }
    }
    rm_freeall();
}

// Lines about segments, up to their addresses.
Lines withoutSizes(Lines lines)
{
    for (std::string& line : lines) {
        line.resize(line.find("   size="));
    }
    return lines;
}

// What stands before a segment that is a block's own, and says where it is and how far it reaches.
// The report then does not know that, and reads only where there is a segment without doubt.
TEST_F(ReportOfAnyDamage, OfOneWordOfAMapStaysInsideTheSegment)
{
    rmtest::GuardedMemory guard;
    constexpr int kOfTag = kFlags | RM_REPORT_TAG;
    for (const Tag tag : drawAlone()) {
        const Lines segments = linesThatBegin(report(kOfTag, tag), "SEGMENT @ ");
        for (Segment* segment : segmentsOf(tag)) {
            if (!rmalloc::isSmall(segment->units)) {
                continue;
            }
            auto* map = rmalloc::mapOfSmall(reinterpret_cast<uintptr_t>(segment));
            damageWords(reinterpret_cast<uint32_t*>(map), rmalloc::kBeforeSmall / 4, [&] {
                const Lines lines = report(kOfTag, tag);
                ASSERT_EQ(withoutSizes(linesThatBegin(lines, "SEGMENT @ ")),
                          withoutSizes(segments));
                ASSERT_EQ(lines.back(), kReportDone);
            });
        }
    }
    rm_freeall();
}

TEST_F(ReportOfAnyDamage, OfTheMapOfASegmentIsSaid)
{
    rmtest::GuardedMemory guard;
    seg_alloc = 1;
    const Drawn drawn = draw("[2] | [6] | [3]");
    auto* map = rmalloc::mapOfSmall(reinterpret_cast<uintptr_t>(segmentsOf(drawn.tag)[1]));
    Segment* const before = map->segment;
    map->segment = reinterpret_cast<Segment*>(uintptr_t{0x41414140});
    EXPECT_EQ(linesThatBegin(report(0), "WARNING: "),
              (Lines{"WARNING: Segment block count, 1 mismatch with counted blocks, 0",
                     "WARNING: Segment unit count, 0 mismatch with counted units, 6",
                     "WARNING: Tag byte count, 88 mismatch with counted blocks, 40"}));
    map->segment = before;
    rm_freeall();
}

// The same where every unit looks like the same header, so that a step of any size meets one.
TEST_F(ReportOfAnyDamage, OfAllWordsStaysInsideTheSegment)
{
    rmtest::GuardedMemory guard;
    const Drawn drawn = draw("[3] 9 [5] | [4] | 50 [20]");
    const std::vector<Segment*> segments = segmentsOf(drawn.tag);
    for (const uint32_t word1 : {0U, kMagic}) {
        for (uint32_t units = 0; units < 40; ++units) {
            std::vector<std::vector<BlockHeader>> saved;
            for (Segment* segment : segments) {
                auto* headers = reinterpret_cast<BlockHeader*>(segment);
                saved.emplace_back(headers, headers + segment->units + 3);
                std::fill_n(headers, saved.back().size(), BlockHeader{word1, units});
            }
            EXPECT_EQ(report(kFlags), foundHeap().lines(kFlags, 0)) << word1 << ", " << units;
            for (std::size_t i = 0; i < saved.size(); ++i) {
                std::copy(saved[i].begin(), saved[i].end(),
                          reinterpret_cast<BlockHeader*>(segments[i]));
            }
        }
    }
    rm_freeall();
}

// Damages words of a heap at random and puts them right again.
class Vandal
{
  public:
    explicit Vandal(uint64_t seed) : random_(seed) {}

    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }

    void damage(Tag tag)
    {
        const std::vector<const SegmentMap*> maps = mapsOf(tag);
        const SegmentMap* map = maps[below(static_cast<uint32_t>(maps.size()))];
        auto* words = reinterpret_cast<uint32_t*>(map->segment);
        switch (below(12)) {
            case 0:
            case 1:
                set(&words[below(6)], anyWord());  // of its header
                break;
            case 2:
                set(&tagTable[tag].allocated, anyWord());
                break;
            default:
                set(&words[6 + below(map->units * 2)], anyWord());
        }
    }

    void mend()
    {
        for (; !damaged_.empty(); damaged_.pop_back()) {
            *damaged_.back().where = damaged_.back().before;
        }
    }

  private:
    struct Damaged {
        uint32_t* where;
        uint32_t before;
    };

    uint32_t anyWord()
    {
        switch (below(4)) {
            case 0:
                return below(16);
            case 1:
                return kMagic;
            case 2:
                return kWords[below(static_cast<uint32_t>(std::size(kWords)))];
            default:
                return static_cast<uint32_t>(random_());
        }
    }

    void set(uint32_t* where, uint32_t word)
    {
        damaged_.push_back({where, *where});
        *where = word;
    }

    std::mt19937_64 random_;
    std::vector<Damaged> damaged_;
};

// RM_TEST_OPERATIONS=1000000 damages as often; RM_TEST_SEED=123 repeats a run.
TEST_F(ReportOfAnyDamage, AtRandomStaysInsideTheSegmentsAndCountsWhatItMeets)
{
    const uint64_t seed = rmtest::seedOfThisRun(23);
    SCOPED_TRACE("RM_TEST_SEED=" + std::to_string(seed));
    rmtest::GuardedMemory guard;
    std::vector<Tag> tags = {draw("2 [3] 1 [4] | [1] | [2] 1").tag, draw("[5] 3 [1] 1 [2]").tag};
    seg_alloc = 1;
    tags.push_back(draw("[2] | [1]").tag);
    tags.push_back(draw("[3]").tag);
    Vandal vandal(seed);
    const long damages = rmtest::operationsOfThisRun(100'000);
    constexpr long kChunk = 5000;  // damages; the lines about them are compared together
    for (long done = 0; done < damages && !HasFailure(); done += kChunk) {
        std::vector<Lines> expected;
        const std::string text = rmtest::captureStderr([&] {
            for (long i = 0; i < kChunk;) {
                for (uint32_t n = vandal.below(4); n < 4; ++n, ++i) {
                    vandal.damage(tags[vandal.below(static_cast<uint32_t>(tags.size()))]);
                }
                const int flags = static_cast<int>(vandal.below(0x10000));
                const int tag = static_cast<int>(vandal.below(5));
                makeReport(flags, tag);
                expected.push_back(foundHeap().lines(flags, tag));
                vandal.mend();
            }
        });
        const Lines lines = logLines(text);
        auto at = lines.begin();
        for (const Lines& one : expected) {
            const auto end = at + std::min<std::ptrdiff_t>(lines.end() - at,
                                                           static_cast<std::ptrdiff_t>(one.size()));
            ASSERT_EQ(Lines(at, end), one);
            at = end;
        }
        ASSERT_EQ(at, lines.end());
    }
    rm_freeall();
}
}  // namespace
