// Corners of the memory manager that only damage, or one number among many, leads to: a place that
// is nowhere, a search that would begin behind the last slot of a row, and a free chain that leads
// into a live block in which the map has a free one too.
//
// Cases are drawings, see heap.h.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/segments.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace
{
using rmalloc::BlockHeader;
using rmalloc::checkPlace;
using rmalloc::Place;
using rmalloc::SegmentMap;
using rmtest::bytesFor;
using rmtest::corruptedChain;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::headerBefore;
using rmtest::layout;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::segmentsOf;
using rmtest::wholeHeap;

// --- The checker of the place

class CheckPlaceNowhere : public rmtest::HeapTest
{
};

TEST_F(CheckPlaceNowhere, SeesAPlaceThatIsInNoSegmentOfItsTag)
{
    const Drawn drawn = draw("2 [1] 9 [1] | 4 [1]");
    const Drawn other = draw("9 [1]");
    rm_getMemory(bytesFor(3), other.tag);
    rm_getMemory(bytesFor(6), drawn.tag);
    Place& place = rmalloc::chains[drawn.tag].place;
    ASSERT_EQ(place.floor, 6U);
    const Place sound = place;
    // Nothing in the tag reaches the floor, so every free block of it is looked at.
    place.map = rmalloc::chains[other.tag].place.map;
    EXPECT_EQ(checkPlace(&rmalloc::chains[drawn.tag]), 1U);
    place = sound;
    place.offset = 2;
    EXPECT_EQ(checkPlace(&rmalloc::chains[drawn.tag]), 1U);
    place = sound;
    EXPECT_EQ(checkPlace(&rmalloc::chains[drawn.tag]), 0U);
}

TEST_F(CheckPlaceNowhere, SeesAPlaceOfATagThatHasNothingFree)
{
    const Drawn full = draw("[4] [1]");
    const Drawn other = draw("9 [1]");
    rm_getMemory(bytesFor(3), other.tag);
    Place& place = rmalloc::chains[full.tag].place;
    place = rmalloc::chains[other.tag].place;
    EXPECT_EQ(checkPlace(&rmalloc::chains[full.tag]), 1U);
    rmalloc::forgetPlace(&rmalloc::chains[full.tag]);
    EXPECT_EQ(checkPlace(&rmalloc::chains[full.tag]), 0U);
}

// --- The last slot of a row

class LastOfARow : public rmtest::HeapTest
{
  protected:
    static constexpr int kSlots = 16;  // of a row in which no other row stands above

    // The last segment of a tag that has `kSlots` of them, with a free block of 5 in that one
    // alone.
    static Drawn drawRow()
    {
        std::string text;
        for (int slot = 0; slot + 1 < kSlots; ++slot) {
            text += "[2] [3] | ";
        }
        return draw(text + "[2] 5 [1]");
    }
};

TEST_F(LastOfARow, IsWhereARequestIsCutFrom)
{
    const Drawn drawn = drawRow();
    ASSERT_EQ(rmalloc::chains[drawn.tag].bounds.length, 16U);
    rm_getMemory(bytesFor(4), drawn.tag);
    EXPECT_TRUE(layout(drawn.tag).ends_with(" | [2] 1 [4] [1]"));
    EXPECT_EQ(segmentsOf(drawn.tag).size(), 16U);
}

TEST_F(LastOfARow, WithAFreeBlockThatWasWrittenOverIsFollowedByANewSegment)
{
    const Drawn drawn = drawRow();
    rmalloc::forgetPlace(&rmalloc::chains[drawn.tag]);
    BlockHeader* header = rmalloc::blockAt(segmentsOf(drawn.tag).back(), 3);
    ASSERT_EQ(header->units, 5U);
    const BlockHeader sound = *header;
    const BlockHeader damaged = {sound.word1, 500};
    *header = damaged;
    rm_setTagAlloc(104, drawn.tag);
    void* block = nullptr;
    EXPECT_EQ(linesOf([&] { block = rm_getMemory(bytesFor(4), drawn.tag); }), Lines{});
    ASSERT_EQ(segmentsOf(drawn.tag).size(), 17U);
    EXPECT_EQ(rmtest::drawing(segmentsOf(drawn.tag).back()), "6 [4]");
    EXPECT_EQ(headerBefore(block)->units, 4U);
    EXPECT_EQ(header->units, damaged.units) << "what was written over is left alone";
    EXPECT_EQ(header->word1, damaged.word1);
    *header = sound;
}

// --- A free chain into a live block

// The map says that a free block starts inside a live one, and the free chain leads there: the two
// agree, and both are wrong. Nothing else around the block is.
class ChainIntoALiveBlock : public rmtest::HeapTest
{
  protected:
    static constexpr uint32_t kInside = 9;  // a unit of the live block of 6 at 6

    void damage(const Drawn& drawn, void* block, uint32_t linkFrom)
    {
        block_ = block;
        map_ = rmalloc::mapHolding(headerBefore(block_));
        from_ = rmalloc::blockAt(segmentsOf(drawn.tag)[0], linkFrom);
        ASSERT_EQ(rmalloc::offsetOf(map_->segment, headerBefore(block_)), 6U);
        rmalloc::stripsOf(map_)[0].starts |= rmalloc::bitOf(kInside);
        link_ = std::exchange(from_->word1, kInside);
    }

    void mend() const
    {
        rmalloc::stripsOf(map_)[0].starts &= ~rmalloc::bitOf(kInside);
        from_->word1 = link_;
    }

    // Nothing is changed, and the log says why.
    void expectRefused(Tag tag) const
    {
        const std::string before = wholeHeap();
        EXPECT_EQ(linesOf([&] { rm_freeMemory(block_, tag); }), Lines{corruptedChain(block_)});
        for (const uint32_t units : {2U, 20U}) {
            void* extended = block_;
            EXPECT_EQ(linesOf([&] { extended = rm_extendMemory(block_, bytesFor(units), tag); }),
                      Lines{corruptedChain(block_)});
            EXPECT_EQ(extended, nullptr);
        }
        EXPECT_EQ(wholeHeap(), before);
    }

    void* block_ = nullptr;

  private:
    SegmentMap* map_ = nullptr;
    BlockHeader* from_ = nullptr;
    uint32_t link_ = 0;
};

TEST_F(ChainIntoALiveBlock, FromTheFreeBlockBelowIsRefused)
{
    const Drawn drawn = draw("[1] 2 [2] [6] [1]");
    damage(drawn, drawn.live[2], 2);
    expectRefused(drawn.tag);
    mend();
    rm_freeMemory(block_, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[1] 2 [2] 6 [1]");
}

TEST_F(ChainIntoALiveBlock, FromTheAnchorIsRefused)
{
    const Drawn drawn = draw("[5] [6] [1]");
    damage(drawn, drawn.live[1], 0);
    expectRefused(drawn.tag);
    mend();
    rm_freeMemory(block_, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[5] 6 [1]");
}

}  // namespace
