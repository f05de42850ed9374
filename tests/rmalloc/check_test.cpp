// The checker of the memory manager: it must see every kind of damage that it is there for, and
// must not be led out of a segment by one. Each case puts the heap right again.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/segments.h"

#include <cstdint>
#include <cstdio>
#include <string>

namespace
{
using rmalloc::checkMemory;
using rmalloc::nTags;
using rmalloc::Segment;
using rmalloc::tagTable;
using rmalloc::tagTabSize;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::headerBefore;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::pointerText;
using rmtest::segmentsOf;

class CheckMemory : public rmtest::HeapTest
{
};

Segment* firstSegment(const Drawn& drawn)
{
    return segmentsOf(drawn.tag).front();
}

std::string found(Tag tag, const Segment* segment, const char* what)
{
    return "WARNING: memory check: tag " + std::to_string(tag) + ", segment " +
           (segment == nullptr ? "(nil)" : pointerText(segment)) + ": " + what;
}

// What the checker logs; its result must be the number of lines.
Lines check()
{
    uint32_t violations = 0;
    Lines lines = linesOf([&] { violations = checkMemory(); });
    EXPECT_EQ(violations, lines.size());
    return lines;
}

TEST_F(CheckMemory, FindsNothingBeforeAnyTable)
{
    EXPECT_EQ(check(), Lines{});
}

TEST_F(CheckMemory, FindsNothingInASoundHeap)
{
    draw("2 [1] 4 [1] | [3] | 1 [1] 1");
    draw("[1]");
    rm_getMemory(10, 0);
    rm_freeTagMemory(rm_allocTag(nullptr, RM_NO_LIMIT), 1);
    EXPECT_EQ(check(), Lines{});
}

TEST_F(CheckMemory, FindsNothingWhereASegmentSizeIsNoMultipleOfEight)
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_setTagAlloc(111, tag);
    rm_freeMemory(rm_getMemory(8, tag), tag);
    rm_getMemory(8, tag);
    EXPECT_EQ(check(), Lines{});
    expectDrift(14);
}

TEST_F(CheckMemory, SeesUnitsInAnAnchor)
{
    const Drawn drawn = draw("2 [1]");
    firstSegment(drawn)->anchor.units = 1;
    EXPECT_EQ(check(), Lines{found(drawn.tag, firstSegment(drawn), "the anchor has units")});
    firstSegment(drawn)->anchor.units = 0;
}

TEST_F(CheckMemory, SeesABlockOfNoUnits)
{
    const Drawn drawn = draw("2 [1] [3]");
    headerBefore(drawn.live[0])->units = 0;
    const Lines lines = check();
    headerBefore(drawn.live[0])->units = 1;
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], found(drawn.tag, firstSegment(drawn), "a block leaves the segment"));
}

TEST_F(CheckMemory, SeesABlockThatIsLargerThanTheRestOfItsSegment)
{
    const Drawn drawn = draw("2 [1] [3]");
    for (const uint32_t units : {4U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        headerBefore(drawn.live[1])->units = units;
        const Lines lines = check();
        headerBefore(drawn.live[1])->units = 3;
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0], found(drawn.tag, firstSegment(drawn), "a block leaves the segment"));
    }
}

TEST_F(CheckMemory, SeesFreeBlocksThatTouch)
{
    const Drawn drawn = draw("5 [1]");
    auto* blocks = reinterpret_cast<rmalloc::BlockHeader*>(firstSegment(drawn) + 1);
    blocks[2] = {0, 3};
    blocks[0] = {3, 2};
    EXPECT_EQ(check(), Lines{found(drawn.tag, firstSegment(drawn), "two free blocks touch")});
    blocks[0] = {0, 5};
}

TEST_F(CheckMemory, SeesABlockThatIsNeitherLiveNorInTheChain)
{
    const Drawn drawn = draw("2 [1] [3]");
    headerBefore(drawn.live[0])->word1 = 0;
    const Lines lines = check();
    headerBefore(drawn.live[0])->word1 = 0xFFEEDDCC;
    EXPECT_EQ(lines, (Lines{found(drawn.tag, firstSegment(drawn),
                                  "a block is neither live nor in the free chain"),
                            found(drawn.tag, firstSegment(drawn), "the block count is wrong"),
                            found(drawn.tag, nullptr, "the allocated bytes are wrong")}));
}

TEST_F(CheckMemory, SeesAChainThatDoesNotEnd)
{
    const Drawn drawn = draw("2 [1] 4 [3]");
    auto* blocks = reinterpret_cast<rmalloc::BlockHeader*>(firstSegment(drawn) + 1);
    for (const uint32_t link : {1U, 2U, 4U, 8U, 10U, 11U, 12U, 0x41414141U}) {
        blocks[3].word1 = link;
        EXPECT_NE(check(), Lines{}) << link;
    }
    blocks[3].word1 = 99;
    EXPECT_EQ(check(), Lines{found(drawn.tag, firstSegment(drawn), "the free chain does not end")});
    blocks[3].word1 = 0;
}

TEST_F(CheckMemory, SeesAFreeBlockThatTheChainLeavesOut)
{
    const Drawn drawn = draw("2 [1] 4 [3]");
    auto* blocks = reinterpret_cast<rmalloc::BlockHeader*>(firstSegment(drawn) + 1);
    blocks[0].word1 = 0;
    EXPECT_EQ(check(), Lines{found(drawn.tag, firstSegment(drawn),
                                   "a block is neither live nor in the free chain")});
    blocks[0].word1 = 4;
}

TEST_F(CheckMemory, SeesAWrongBlockCount)
{
    const Drawn drawn = draw("2 [1]");
    for (const uint32_t count : {0U, 2U}) {
        firstSegment(drawn)->blocks = count;
        EXPECT_EQ(check(),
                  Lines{found(drawn.tag, firstSegment(drawn), "the block count is wrong")});
    }
    firstSegment(drawn)->blocks = 1;
}

TEST_F(CheckMemory, SeesASegmentWithoutALiveBlock)
{
    const Drawn drawn = draw("5 [1]");
    auto* blocks = reinterpret_cast<rmalloc::BlockHeader*>(firstSegment(drawn) + 1);
    blocks[0].units = 6;
    firstSegment(drawn)->blocks = 0;
    tagTable[drawn.tag].allocated = 0;
    EXPECT_EQ(check(), Lines{found(drawn.tag, firstSegment(drawn), "the segment is empty")});
    blocks[0].units = 5;
    firstSegment(drawn)->blocks = 1;
    tagTable[drawn.tag].allocated = 8;
}

TEST_F(CheckMemory, SeesAFreeRecordThatOwnsSegments)
{
    const Drawn drawn = draw("5 [1]");
    tagTable[drawn.tag].state = 0;
    EXPECT_EQ(check(), Lines{found(drawn.tag, nullptr, "a free record owns segments")});
    tagTable[drawn.tag].state = 1;
}

TEST_F(CheckMemory, SeesWrongAllocatedBytes)
{
    const Drawn drawn = draw("5 [1]");
    tagTable[drawn.tag].allocated = 16;
    EXPECT_EQ(check(), Lines{found(drawn.tag, nullptr, "the allocated bytes are wrong")});
    tagTable[drawn.tag].allocated = 8;
}

TEST_F(CheckMemory, SeesThatTooFewBytesAreInUse)
{
    draw("5 [1]");
    const uint32_t sound = rm_memused();
    rmalloc::memused = sound - 1;
    EXPECT_EQ(check(), Lines{found(-1, nullptr, "the bytes in use are wrong")});
    rmalloc::memused = sound;
}

TEST_F(CheckMemory, SeesATableThatIsSmallerThanItsContents)
{
    draw("5 [1]");
    tagTabSize = 1;
    EXPECT_EQ(check(), Lines{found(-1, nullptr, "the table's size is wrong")});
    tagTabSize = 40;
}

TEST_F(CheckMemory, SeesATableWithoutASizeAndASizeWithoutATable)
{
    tagTabSize = 40;
    EXPECT_EQ(check(), Lines{found(-1, nullptr, "the table's size is wrong")});
    tagTabSize = 0;
    rm_allocTag(nullptr, RM_NO_LIMIT);
    const int16_t used = nTags;
    nTags = 0;
    tagTabSize = 0;
    EXPECT_EQ(check(), Lines{found(-1, nullptr, "the table's size is wrong")});
    nTags = used;
    tagTabSize = 40;
}

// --- What is kept beside the segments

constexpr const char* kWrongChain = "the chain of segments is not as it is kept";
constexpr const char* kWrongPlace = "the place where blocks are cut is not as it is kept";
constexpr const char* kWrongMap = "the blocks are not as the map has them";

TEST_F(CheckMemory, SeesAChainThatIsNotThatOfTheSegments)
{
    const Drawn drawn = draw("5 [1] | [2] | 1 [3]");
    rmalloc::Chain& chain = rmalloc::chains[drawn.tag];
    chain.segments = 2;
    EXPECT_EQ(check(), Lines{found(drawn.tag, nullptr, kWrongChain)});
    chain.segments = 3;
    Segment* second = segmentsOf(drawn.tag)[1];
    Segment* third = second->next;
    firstSegment(drawn)->next = third;
    second->next = nullptr;
    third->next = second;
    EXPECT_EQ(check(), Lines{found(drawn.tag, nullptr, kWrongChain)});
    firstSegment(drawn)->next = second;
    second->next = third;
    third->next = nullptr;
}

TEST_F(CheckMemory, SeesAChainOfATagWithoutSegments)
{
    const Drawn drawn = draw("5 [1]");
    const Tag other = rm_allocTag(nullptr, RM_NO_LIMIT);
    rmalloc::chains[other].first = rmalloc::chains[drawn.tag].first;
    EXPECT_EQ(check(), Lines{found(other, nullptr, kWrongChain)});
    rmalloc::chains[other].first = nullptr;
}

TEST_F(CheckMemory, SaysNothingMoreOfATagWhoseChainIsWrong)
{
    const Drawn drawn = draw("5 [1] | [2]");
    rmalloc::Chain& chain = rmalloc::chains[drawn.tag];
    chain.segments = 1;
    chain.place.cut = 2;
    chain.first->tag = 0;
    EXPECT_EQ(check(), Lines{found(drawn.tag, nullptr, kWrongChain)});
    chain.segments = 2;
    chain.place.cut = 0;
    chain.first->tag = drawn.tag;
}

TEST_F(CheckMemory, SeesAPlaceThatIsNone)
{
    const Drawn drawn = draw("5 [1]");
    rm_getMemory(8, drawn.tag);
    rmalloc::Place& place = rmalloc::chains[drawn.tag].place;
    ASSERT_EQ(place.units, 3U);
    place.units = 2;
    EXPECT_EQ(check(), Lines{found(drawn.tag, nullptr, kWrongPlace)});
    place.units = 3;
}

TEST_F(CheckMemory, SeesAMapOfAnotherTag)
{
    const Drawn drawn = draw("5 [1] | [2]");
    rmalloc::SegmentMap* map = rmalloc::chains[drawn.tag].last;
    map->tag = 0;
    EXPECT_EQ(check(), Lines{found(drawn.tag, map->segment, kWrongMap)});
    map->tag = drawn.tag;
}

TEST_F(CheckMemory, SeesAMapThatDiffersFromTheHeaders)
{
    const Drawn drawn = draw("5 [1] | [2] [3]");
    rmalloc::SegmentMap* map = rmalloc::chains[drawn.tag].last;
    rmalloc::clearEnd(map, 2);
    EXPECT_EQ(check(), Lines{found(drawn.tag, map->segment, kWrongMap)});
    rmalloc::setEnd(map, 2);
    rmalloc::stripsOf(map)->starts |= rmalloc::bitOf(3);
    EXPECT_EQ(check(), Lines{found(drawn.tag, map->segment, kWrongMap)});
    rmalloc::stripsOf(map)->starts &= ~rmalloc::bitOf(3);
}

TEST_F(CheckMemory, SeesASegmentThatThePageTableDoesNotKnow)
{
    const Drawn drawn = draw("5 [1] | [2]");
    rmalloc::SegmentMap* map = rmalloc::chains[drawn.tag].first;
    rmalloc::removeFromPageTable(map);
    EXPECT_EQ(check(), Lines{found(drawn.tag, map->segment, kWrongMap)});
    EXPECT_TRUE(rmalloc::addToPageTable(map));
}

// A segment of many pages, of which the last one is not the table's.
TEST_F(CheckMemory, SeesASegmentOfWhichThePageTableDoesNotKnowTheEnd)
{
    const Drawn drawn = draw("[2000]");
    rmalloc::SegmentMap* map = rmalloc::chains[drawn.tag].first;
    const auto end = reinterpret_cast<uintptr_t>(blockAt(map->segment, map->units));
    rmalloc::SegmentMap** page =
        &regionOf(rmalloc::pageTable, end >> rmalloc::kRegionShift)
             ->pages[end >> rmalloc::kPageShift & (rmalloc::kPagesOfRegion - 1)];
    ASSERT_EQ(*page, map);
    *page = nullptr;
    EXPECT_EQ(check(), (Lines{found(drawn.tag, map->segment, kWrongMap),
                              found(-1, nullptr, "the page table is wrong")}));
    *page = map;
}

TEST_F(CheckMemory, SeesASegmentOfWhichThePageTableDoesNotKnowTheBeginning)
{
    const Drawn drawn = draw("[2000]");
    rmalloc::SegmentMap* map = rmalloc::chains[drawn.tag].first;
    const auto begin = reinterpret_cast<uintptr_t>(blockAt(map->segment, 1));
    rmalloc::SegmentMap** page =
        &regionOf(rmalloc::pageTable, begin >> rmalloc::kRegionShift)
             ->pages[begin >> rmalloc::kPageShift & (rmalloc::kPagesOfRegion - 1)];
    ASSERT_EQ(*page, map);
    *page = nullptr;
    EXPECT_EQ(check(), (Lines{found(drawn.tag, map->segment, kWrongMap),
                              found(-1, nullptr, "the page table is wrong")}));
    *page = map;
}

TEST_F(CheckMemory, SeesAPageTableThatIsWrong)
{
    draw("5 [1]");
    ++rmalloc::pageTable.count;
    EXPECT_EQ(check(), Lines{found(-1, nullptr, "the page table is wrong")});
    --rmalloc::pageTable.count;
}

// They are walked to compare with the map, so they must be sound.
TEST_F(CheckMemory, DoesNotCompareSegmentsThatAreDamagedWithTheirMaps)
{
    const Drawn drawn = draw("2 [1] [3]");
    rmalloc::chains[drawn.tag].first->tag = 0;
    firstSegment(drawn)->anchor.units = 1;
    EXPECT_EQ(check(), Lines{found(drawn.tag, firstSegment(drawn), "the anchor has units")});
    firstSegment(drawn)->anchor.units = 0;
    rmalloc::chains[drawn.tag].first->tag = drawn.tag;
}

TEST_F(CheckMemory, LooksAtWhatIsBesideEveryTag)
{
    const Drawn drawn[] = {draw("5 [1]"), draw("[3] | 1 [1]"), draw("[2]")};
    for (const Drawn& one : drawn) {
        ++rmalloc::chains[one.tag].segments;
    }
    EXPECT_EQ(check(), (Lines{found(drawn[0].tag, nullptr, kWrongChain),
                              found(drawn[1].tag, nullptr, kWrongChain),
                              found(drawn[2].tag, nullptr, kWrongChain)}));
    for (const Drawn& one : drawn) {
        --rmalloc::chains[one.tag].segments;
    }
}

// --- All of it

TEST_F(CheckMemory, LooksAtEverySegmentOfEveryTag)
{
    const Drawn first = draw("5 [1] | 2 [1]");
    const Drawn second = draw("[4] | 2 [1] | [3]");
    Segment* damaged[] = {segmentsOf(first.tag)[1], segmentsOf(second.tag)[2]};
    for (Segment* segment : damaged) {
        ++segment->blocks;
    }
    EXPECT_EQ(check(), (Lines{found(first.tag, damaged[0], "the block count is wrong"),
                              found(second.tag, damaged[1], "the block count is wrong")}));
    for (Segment* segment : damaged) {
        --segment->blocks;
    }
}
}  // namespace
