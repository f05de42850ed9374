// A slot map in which every bit of every word is set while the bag counts fewer elements: an
// addition finds no slot, changes nothing, and nothing behind the map is read for one.
#include "tests/containers/bag_case.h"

using namespace bagtest;

namespace
{

// Each block is a segment of its own: a sanitizer sees where the map ends.
class BagFullMap : public BagTest, public ::testing::WithParamInterface<uint16_t>
{
  protected:
    void SetUp() override
    {
        BagTest::SetUp();
        seg_alloc = 1;
    }

    void TearDown() override
    {
        BagTest::TearDown();
        seg_alloc = 0;
    }
};

TEST_P(BagFullMap, HasNoSlotForAnElementThatTheCountHasRoomFor)
{
    const uint16_t slots = GetParam();
    Bag* bag = make({.flags = kMapped, .initialSlots = slots, .growIncrement = 16});
    fill(bag, slots);
    ASSERT_EQ(bag->slotCount, slots);
    bag->usedCount = static_cast<uint16_t>(slots - 1);
    const std::string before = snapshot(bag);
    int16_t status = RM_SUCCESS;
    EXPECT_EQ(linesOf([&] { status = bagAdd(bag, "z"); }), Lines{kNoSlotFound});
    EXPECT_EQ(status, RM_INVALID);
    EXPECT_EQ(snapshot(bag), before);
    bag->usedCount = slots;
    EXPECT_EQ(linesOf([&] { status = bagAdd(bag, "z"); }), Lines{});
    EXPECT_EQ(status, RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, slots) << "it grows for the next one";
}

// The map has two words at least, and is looked at eight words at a time.
INSTANTIATE_TEST_SUITE_P(Slots, BagFullMap, ::testing::Values(32, 48, 128, 144, 256),
                         [](const ::testing::TestParamInfo<uint16_t>& slots) {
                             return std::to_string(slots.param);
                         });

}  // namespace
