// The map of a small segment that an overrun has met: its first word, which says where the segment
// is, is another one. What leads through the map takes the segment from where the map stands, or
// looks before it believes the word; so the calls that only pass by do what they always do.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/segments.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{
using rmalloc::checkMemory;
using rmalloc::Segment;
using rmalloc::SegmentMap;
using rmtest::badPointer;
using rmtest::bytesFor;
using rmtest::layout;
using rmtest::Lines;
using rmtest::linesOf;

// Nothing is there: whoever reads or writes it ends the process.
auto* const kNowhere = reinterpret_cast<Segment*>(uintptr_t{0x41414140});

class DamagedMap : public rmtest::HeapTest
{
  protected:
    void SetUp() override
    {
        HeapTest::SetUp();
        tag_ = rm_allocTag(nullptr, RM_NO_LIMIT);
    }

    void* take(uint32_t units) const { return rm_getMemory(bytesFor(units), tag_); }

    // So many blocks, each a segment of its own.
    std::vector<void*> takeAlone(int count) const
    {
        seg_alloc = 1;
        std::vector<void*> blocks(static_cast<std::size_t>(count));
        for (void*& block : blocks) {
            block = take(6);
        }
        return blocks;
    }

    // A segment of 47 units that has more than the one block.
    void* takeFromShared() const
    {
        rm_setTagAlloc(400, tag_);
        return take(6);
    }

    // How many segments the tag's own chain has.
    std::size_t linked() const
    {
        std::size_t count = 0;
        for (const Segment* at = rmalloc::tagTable[tag_].segments; at != nullptr; at = at->next) {
            ++count;
        }
        return count;
    }

    Tag tag_ = 0;
};

// Breaks the map of the segment that has the block.
class Broken
{
  public:
    explicit Broken(void* block)
        : map_(rmalloc::mapHolding(rmalloc::headerOf(block))), segment_(map_->segment)
    {
        map_->segment = kNowhere;
    }

    void mend() const { map_->segment = segment_; }

  private:
    SegmentMap* map_;
    Segment* segment_;
};

TEST_F(DamagedMap, GoesWithTheMemoryOfItsTag)
{
    const uint32_t before = rm_memused();
    for (const std::size_t damaged : {0U, 2U, 4U}) {
        const Broken map(takeAlone(5)[damaged]);
        EXPECT_EQ(linesOf([&] { rm_freeTagMemory(tag_, 0); }), Lines{});
        EXPECT_EQ(rm_memused(), before);
        EXPECT_EQ(checkMemory(), 0U);
    }
}

TEST_F(DamagedMap, GoesWithAllMemory)
{
    const Broken map(takeAlone(5)[2]);
    EXPECT_EQ(linesOf([] { rm_freeall(); }), Lines{});
    EXPECT_EQ(rm_memused(), 0U);
}

TEST_F(DamagedMap, OfTheLastSegmentIsFollowedByTheNextOne)
{
    const std::vector<void*> blocks = takeAlone(3);
    const Broken map(blocks[2]);
    EXPECT_NE(take(9), nullptr);
    EXPECT_EQ(linked(), 4U);
    map.mend();
    EXPECT_EQ(layout(tag_), "[6] | [6] | [6] | [9]");
    EXPECT_EQ(checkMemory(), 0U);
}

TEST_F(DamagedMap, BetweenLargeSegmentsIsPassedBy)
{
    seg_alloc = 1;
    take(200);
    const std::vector<void*> blocks = takeAlone(5);
    take(200);
    const Broken map(blocks[2]);
    EXPECT_EQ(linesOf([&] { rm_freeMemory(blocks[3], tag_); }), Lines{});
    EXPECT_EQ(linked(), 6U);
    EXPECT_EQ(linesOf([&] { rm_freeMemory(blocks[1], tag_); }), Lines{});
    EXPECT_EQ(linked(), 5U);
    EXPECT_EQ(linesOf([&] { rm_freeMemory(blocks[2], tag_); }), Lines{badPointer(blocks[2])});
    map.mend();
    EXPECT_EQ(layout(tag_), "[200] | [6] | [6] | [6] | [200]");
    EXPECT_EQ(checkMemory(), 0U);
}

TEST_F(DamagedMap, IsNotNeededWhereABlockHasJustBeenCut)
{
    const Broken map(takeFromShared());
    void* block = take(9);
    void* last = take(3);
    EXPECT_EQ(linesOf([&] { rm_freeMemory(last, tag_); }), Lines{});
    map.mend();
    EXPECT_EQ(layout(tag_), "32 [9] [6]");
    EXPECT_EQ(rmalloc::mapHolding(rmalloc::headerOf(block)), rmalloc::chains[tag_].first);
    EXPECT_EQ(checkMemory(), 0U);
}

TEST_F(DamagedMap, TakesItsFreeBlocksOutOfUse)
{
    void* first = takeFromShared();
    void* second = take(9);
    take(3);
    rm_freeMemory(second, tag_);  // what was cut last is not known any more
    const Broken map(first);
    EXPECT_NE(take(9), nullptr);
    EXPECT_NE(take(29), nullptr);
    map.mend();
    EXPECT_EQ(layout(tag_), "29 [3] 9 [6] | 9 [29] [9]");
    EXPECT_EQ(checkMemory(), 0U);
}
}  // namespace
