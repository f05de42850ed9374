// The checker of the memory manager: it must see every kind of damage that it is there for, and
// must not be led out of a segment by one. Each case puts the heap right again.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

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
