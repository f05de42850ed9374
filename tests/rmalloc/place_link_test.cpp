// The place where blocks are being cut, when the free block behind it is taken or comes again: the
// place still is what it was, and the short way still leads there.
//
// Cases are drawings, see heap.h.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/segments.h"

#include <cstdint>
#include <string_view>

namespace
{
using rmalloc::BlockHeader;
using rmtest::bytesFor;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::headerBefore;
using rmtest::layout;

void* take(uint32_t units, Tag tag)
{
    return rm_getMemory(bytesFor(units), tag);
}

class PlaceNextTaken : public rmtest::HeapTest
{
  protected:
    // A place of 6 with the last cut of 3 behind it, and then an exact fit of 7 for `taken_`.
    void takeNext(std::string_view drawing)
    {
        const Drawn drawn = draw(drawing);
        tag_ = drawn.tag;
        last_ = take(3, tag_);
        taken_ = take(7, tag_);
    }

    Tag tag_ = RM_NONE;
    void* last_ = nullptr;
    void* taken_ = nullptr;
};

TEST_F(PlaceNextTaken, IsCutAsBefore)
{
    takeNext("9 [1] 7 [1]");
    ASSERT_EQ(layout(tag_), "6 [3] [1] [7] [1]");
    const BlockHeader* expected = headerBefore(last_) - 4;
    EXPECT_EQ(rmalloc::cutAtPlace(tag_, 4), expected + 1);
    EXPECT_EQ(layout(tag_), "2 [4] [3] [1] [7] [1]");
}

TEST_F(PlaceNextTaken, IsCutAsBeforeWithOthersBehindIt)
{
    takeNext("9 [1] 7 [1] 20 [1]");
    ASSERT_EQ(layout(tag_), "6 [3] [1] [7] [1] 20 [1]");
    EXPECT_NE(rmalloc::cutAtPlace(tag_, 3), nullptr);
    EXPECT_EQ(layout(tag_), "3 [3] [3] [1] [7] [1] 20 [1]");
}

TEST_F(PlaceNextTaken, GetsItsLastBlockBack)
{
    takeNext("9 [1] 7 [1] 20 [1]");
    EXPECT_TRUE(rmalloc::undoLastCut(tag_));
    EXPECT_EQ(layout(tag_), "9 [1] [7] [1] 20 [1]");
    // What is free behind it is still reached from it.
    EXPECT_NE(take(15, tag_), nullptr);
    EXPECT_EQ(layout(tag_), "9 [1] [7] [1] 5 [15] [1]");
}

TEST_F(PlaceNextTaken, TimeAndAgain)
{
    takeNext("9 [1] 7 [1] 8 [1] 20 [1]");
    EXPECT_NE(take(8, tag_), nullptr);
    EXPECT_NE(rmalloc::cutAtPlace(tag_, 3), nullptr);
    EXPECT_EQ(layout(tag_), "3 [3] [3] [1] [7] [1] [8] [1] 20 [1]");
}

TEST_F(PlaceNextTaken, AndGivenBackAgain)
{
    takeNext("9 [1] 7 [1] 20 [1]");
    rm_freeMemory(taken_, tag_);
    EXPECT_EQ(layout(tag_), "6 [3] [1] 7 [1] 20 [1]");
    EXPECT_NE(take(2, tag_), nullptr);
    EXPECT_EQ(take(7, tag_), taken_);
    EXPECT_NE(rmalloc::cutAtPlace(tag_, 3), nullptr);
    EXPECT_EQ(layout(tag_), "1 [3] [2] [3] [1] [7] [1] 20 [1]");
}

TEST_F(PlaceNextTaken, DoesNotMatterWhereItLiesElsewhere)
{
    takeNext("9 [1] 5 [1] 7 [1]");
    EXPECT_NE(rmalloc::cutAtPlace(tag_, 3), nullptr);
    EXPECT_EQ(layout(tag_), "3 [3] [3] [1] 5 [1] [7] [1]");
}
}  // namespace
