// The anchor of a segment that a host has written over: it leads to the first free block. When it
// does not, a block with a free one somewhere below is neither given back nor resized.
//
// Cases are drawings, see heap.h. Offsets are those of headers from the anchor, in units.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <cstdint>
#include <string>

namespace
{
using rmtest::bytesFor;
using rmtest::corruptedChain;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::layout;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::segmentsOf;
using rmtest::wholeHeap;

class DamagedAnchor : public rmtest::HeapTest
{
};

// Neither given back nor resized, with the anchor leading elsewhere.
void expectRefused(const Drawn& drawn, void* block, uint32_t link)
{
    uint32_t* anchor = &segmentsOf(drawn.tag)[0]->anchor.word1;
    const uint32_t sound = *anchor;
    *anchor = link;
    const std::string before = wholeHeap();
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, drawn.tag); }), Lines{corruptedChain(block)});
    void* extended = block;
    EXPECT_EQ(linesOf([&] { extended = rm_extendMemory(block, bytesFor(9), drawn.tag); }),
              Lines{corruptedChain(block)});
    EXPECT_EQ(extended, nullptr);
    EXPECT_EQ(wholeHeap(), before);
    *anchor = sound;
}

TEST_F(DamagedAnchor, ThatLeadsNowhereIsRefused)
{
    const Drawn drawn = draw("2 [1] [3] [1]");
    expectRefused(drawn, drawn.live[1], 0);
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] 3 [1]");
}

TEST_F(DamagedAnchor, ThatLeadsBehindTheFreeBlockBelowIsRefused)
{
    const Drawn drawn = draw("2 [1] [3] [1] 4 [1]");
    expectRefused(drawn, drawn.live[1], 8);
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] 3 [1] 4 [1]");
}

TEST_F(DamagedAnchor, ThatLeadsToNoFreeBlockIsRefused)
{
    const Drawn drawn = draw("[1] [1] 2 [1] [3] [1]");
    for (const uint32_t link : {1U, 2U, 4U}) {
        expectRefused(drawn, drawn.live[3], link);
    }
    rm_freeMemory(drawn.live[3], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[1] [1] 2 [1] 3 [1]");
}
}  // namespace
