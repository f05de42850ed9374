// Free blocks next to a live one whose headers a host has written over: which of them keep the
// block from being given back or resized, and that nothing is changed then.
//
// Cases are drawings, see heap.h. Offsets are those of headers from the anchor, in units.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <cstdint>
#include <string>

namespace
{
using rmalloc::BlockHeader;
using rmtest::bytesFor;
using rmtest::corruptedChain;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::layout;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::segmentsOf;
using rmtest::wholeHeap;

class DamagedNeighbour : public rmtest::HeapTest
{
};

BlockHeader* headerAt(const Drawn& drawn, uint32_t offset)
{
    return rmalloc::blockAt(segmentsOf(drawn.tag)[0], offset);
}

void expectNotResized(const Drawn& drawn, void* block, uint32_t units)
{
    const std::string before = wholeHeap();
    void* extended = block;
    EXPECT_EQ(linesOf([&] { extended = rm_extendMemory(block, bytesFor(units), drawn.tag); }),
              Lines{corruptedChain(block)});
    EXPECT_EQ(extended, nullptr);
    EXPECT_EQ(wholeHeap(), before);
}

// Neither given back nor resized, with the other header in place of the sound one.
void expectRefused(const Drawn& drawn, void* block, uint32_t offset, const BlockHeader& other)
{
    BlockHeader* header = headerAt(drawn, offset);
    const BlockHeader sound = *header;
    *header = other;
    const std::string before = wholeHeap();
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, drawn.tag); }), Lines{corruptedChain(block)});
    EXPECT_EQ(wholeHeap(), before);
    expectNotResized(drawn, block, 5);
    EXPECT_EQ(header->word1, other.word1);
    EXPECT_EQ(header->units, other.units);
    *header = sound;
}

TEST_F(DamagedNeighbour, AboveWithOtherUnitsIsRefused)
{
    const Drawn drawn = draw("[1] [3] 4 [1] 2 [1]");
    for (const uint32_t units : {0U, 3U, 5U, 7U, 0xFFFFFFFFU}) {
        expectRefused(drawn, drawn.live[1], 5, {10, units});
    }
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[1] 7 [1] 2 [1]");
}

TEST_F(DamagedNeighbour, AboveWithALinkThatIsNoneIsRefused)
{
    const Drawn drawn = draw("[1] [3] 4 [1] 2 [1]");
    for (const uint32_t link : {1U, 5U, 9U, 11U, 12U, 13U, 0x41414141U, 0xFFEEDDCCU}) {
        expectRefused(drawn, drawn.live[1], 5, {link, 4});
    }
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[1] 7 [1] 2 [1]");
}

TEST_F(DamagedNeighbour, AboveThatTheChainLeavesOutIsRefused)
{
    const Drawn drawn = draw("2 [1] [3] 4 [1] 2 [1]");
    expectRefused(drawn, drawn.live[1], 1, {0, 2});
    expectRefused(drawn, drawn.live[1], 1, {12, 2});
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] 7 [1] 2 [1]");
}

TEST_F(DamagedNeighbour, BelowWithOtherUnitsIsRefused)
{
    const Drawn drawn = draw("2 [3] [1]");
    for (const uint32_t units : {0U, 1U, 3U, 0xFFFFFFFFU}) {
        expectRefused(drawn, drawn.live[0], 1, {0, units});
    }
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "5 [1]");
}

TEST_F(DamagedNeighbour, BelowThatDoesNotTouchIsRefusedToo)
{
    const Drawn drawn = draw("2 [1] [3] [1]");
    expectRefused(drawn, drawn.live[1], 1, {0, 3});
    expectRefused(drawn, drawn.live[1], 1, {4, 2});
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] 3 [1]");
}

// The link to the block below is written when that is absorbed by a block that grows downward. A
// block that is given back leaves it alone.
TEST_F(DamagedNeighbour, TwoBelowMattersOnlyToABlockThatGrowsDownward)
{
    const Drawn drawn = draw("2 [1] 3 [2] [1]");
    BlockHeader* header = headerAt(drawn, 1);
    for (const uint32_t link : {0U, 5U, 0x41414141U}) {
        header->word1 = link;
        expectNotResized(drawn, drawn.live[1], 4);
    }
    EXPECT_EQ(linesOf([&] { rm_freeMemory(drawn.live[1], drawn.tag); }), Lines{});
    EXPECT_EQ(header->word1, 0x41414141U);
    header->word1 = 4;
    EXPECT_EQ(layout(drawn.tag), "2 [1] 5 [1]");
}
}  // namespace
