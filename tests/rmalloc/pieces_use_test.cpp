// What stands in pieces of slabs, in a heap that is in use: maps share slabs and leave them, the
// checker of the heap looks at the slabs too. And the count of live blocks that a map keeps, which
// is believed whatever the segment says.
#include "tests/rmalloc/heap.h"
#include "tests/rmalloc/segmentmap_case.h"

#include "rm.h"
#include "rm/rmalloc/pieces.h"
#include "rm/rmalloc/segments.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{
using rmalloc::chains;
using rmalloc::checkMemory;
using rmalloc::freePiece;
using rmalloc::kLine;
using rmalloc::newPiece;
using rmalloc::SegmentMap;
using rmtest::bytesFor;
using rmtest::Call;
using rmtest::callCount;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::layout;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::newMap;
using rmtest::pointerText;
using rmtest::segmentsOf;

constexpr uint32_t kUsualUnits = 1021;  // of a segment of 8192 bytes
constexpr uint32_t kWrongCount = 77;

class MapsInSlabs : public rmtest::HeapTest
{
};

class CountOfLiveBlocks : public rmtest::HeapTest
{
  protected:
    // Takes `units`, and says how many blocks are live in the tag's first segment then.
    static uint32_t blocksAfterTaking(uint32_t units, Tag tag)
    {
        rm_getMemory(bytesFor(units), tag);
        return segmentsOf(tag)[0]->blocks;
    }

    static uint32_t blocksAfterFreeing(void* pointer, Tag tag)
    {
        rm_freeMemory(pointer, tag);
        return segmentsOf(tag)[0]->blocks;
    }

    // Writes over the count in the tag's first segment.
    static void writeOver(Tag tag, uint32_t count = kWrongCount)
    {
        segmentsOf(tag)[0]->blocks = count;
    }
};

// --- Maps

// It takes the lines that it needs, up to the end of its one node of bounds, and no more.
TEST_F(MapsInSlabs, OfTheUsualSizeFillThemAndLeaveThemEmpty)
{
    SegmentMap* first = newMap(kUsualUnits);
    const auto bytes =
        static_cast<std::size_t>(reinterpret_cast<char*>(first->bounds.row + rmalloc::kFanOut) -
                                 reinterpret_cast<char*>(first));
    const std::size_t lines = (bytes + kLine - 1) / kLine;
    const std::size_t perSlab = (16 << 10) / (lines * kLine) - 1;
    std::vector<SegmentMap*> maps = {first};
    while (maps.size() < 2 * perSlab) {
        maps.push_back(newMap(kUsualUnits));
    }
    EXPECT_EQ(callCount(Call::kAlignedAlloc), 2);
    maps.push_back(newMap(kUsualUnits));
    EXPECT_EQ(callCount(Call::kAlignedAlloc), 3);
    for (SegmentMap* map : maps) {
        rmalloc::freeSegment(map);
        ASSERT_EQ(rmalloc::checkPieces(), 0U);
    }
    rmalloc::trimPieces();
    int givenBack = 0;
    for (const auto& call : rmtest::callTrace({Call::kFree})) {
        givenBack += call.args[0] != 0 ? 1 : 0;
    }
    EXPECT_EQ(givenBack, static_cast<int>(maps.size()) + 3);
}

TEST_F(MapsInSlabs, AreLookedAtByTheCheckerOfTheHeap)
{
    void* piece = newPiece(5);
    void* other = newPiece(5);
    freePiece(piece, 5);
    const auto wrong = reinterpret_cast<uintptr_t>(piece) + 1;
    std::memcpy(piece, &wrong, sizeof wrong);
    uint32_t violations = 0;
    const Lines lines = linesOf([&] { violations = checkMemory(); });
    EXPECT_EQ(violations, 1U);
    EXPECT_EQ(lines,
              Lines{"WARNING: memory check: tag -1, segment (nil): the slabs of maps are wrong"});
    std::memset(piece, 0, sizeof wrong);
    freePiece(other, 5);
}

// --- The count of live blocks

TEST_F(CountOfLiveBlocks, OfASegmentThatWasWrittenOverIsRightAgainWhenABlockIsTaken)
{
    const Drawn drawn = draw("20 [1]");
    writeOver(drawn.tag);
    EXPECT_EQ(blocksAfterTaking(3, drawn.tag), 2U);  // by a search
    writeOver(drawn.tag);
    EXPECT_EQ(blocksAfterTaking(3, drawn.tag), 3U);  // at the place
    EXPECT_EQ(layout(drawn.tag), "14 [3] [3] [1]");
}

TEST_F(CountOfLiveBlocks, OfASegmentThatWasWrittenOverIsRightAgainWhenABlockIsGivenBack)
{
    const Drawn drawn = draw("2 [3] [4] [5]");
    void* last = rm_getMemory(bytesFor(1), drawn.tag);
    writeOver(drawn.tag);
    EXPECT_EQ(blocksAfterFreeing(last, drawn.tag), 3U);  // at the place
    writeOver(drawn.tag);
    EXPECT_EQ(blocksAfterFreeing(drawn.live[1], drawn.tag), 2U);
    EXPECT_EQ(layout(drawn.tag), "2 [3] 4 [5]");
}

TEST_F(CountOfLiveBlocks, OfOneThatTheSegmentClaimsKeepsNoBlockFromItsFreeChain)
{
    const Drawn drawn = draw("2 [3] [4]");
    writeOver(drawn.tag, 1);
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "5 [4]");
}

TEST_F(CountOfLiveBlocks, OfOneThatTheSegmentClaimsLeavesThePlaceKnown)
{
    const Drawn drawn = draw("20 [1]");
    void* last = rm_getMemory(bytesFor(3), drawn.tag);
    writeOver(drawn.tag, 1);
    rm_freeMemory(last, drawn.tag);
    EXPECT_EQ(chains[drawn.tag].place.units, 20U);
    EXPECT_EQ(layout(drawn.tag), "20 [1]");
}

TEST_F(CountOfLiveBlocks, DecidesWhenTheSegmentGoesBack)
{
    const Drawn drawn = draw("2 [3] [4] | [5]");
    writeOver(drawn.tag);
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "5 [4] | [5]");
    writeOver(drawn.tag);
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[5]");
}

TEST_F(CountOfLiveBlocks, IsTheSameInBothAfterEveryKindOfCall)
{
    const Drawn drawn = draw("2 [3] 4 [5] 6 [7]");
    const auto same = [&] {
        const SegmentMap* map = chains[drawn.tag].first;
        return map->blocks == 3 && map->segment->blocks == 3 && checkMemory() == 0;
    };
    ASSERT_TRUE(same());
    // In place: larger, downward, smaller, and not at all.
    void* block = rm_extendMemory(drawn.live[1], bytesFor(8), drawn.tag);
    EXPECT_TRUE(same()) << layout(drawn.tag);
    block = rm_extendMemory(block, bytesFor(15), drawn.tag);
    EXPECT_TRUE(same()) << layout(drawn.tag);
    block = rm_extendMemory(block, bytesFor(2), drawn.tag);
    EXPECT_TRUE(same()) << layout(drawn.tag);
    EXPECT_EQ(rm_extendMemory(block, bytesFor(2), drawn.tag), block);
    EXPECT_TRUE(same()) << layout(drawn.tag);
    // By moving, within the segment.
    EXPECT_NE(rm_extendMemory(drawn.live[0], bytesFor(6), drawn.tag), drawn.live[0]);
    EXPECT_TRUE(same()) << layout(drawn.tag);
    EXPECT_EQ(segmentsOf(drawn.tag).size(), 1U);
}

TEST_F(CountOfLiveBlocks, OfAMapThatDiffersIsSeenByTheChecker)
{
    const Drawn drawn = draw("2 [3] [4]");
    SegmentMap* map = chains[drawn.tag].first;
    for (const uint32_t count : {0U, 1U, 3U}) {
        map->blocks = count;
        uint32_t violations = 0;
        const Lines lines = linesOf([&] { violations = checkMemory(); });
        EXPECT_EQ(violations, 1U);
        EXPECT_EQ(lines,
                  Lines{"WARNING: memory check: tag " + std::to_string(drawn.tag) + ", segment " +
                        pointerText(map->segment) + ": the blocks are not as the map has them"});
    }
    map->blocks = 2;
}
}  // namespace
