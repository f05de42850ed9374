// Bags that get no memory, or whose memory was written over.
//
// Why: a growth that fails leaves the bag as it was, whether it comes back or ends fatally. A host
// that jumped out goes on with it.
#include "tests/containers/bag_case.h"

#include <cerrno>
#include <cstdlib>

using namespace bagtest;

namespace
{

// Every block is a request to the platform, so that each can be failed.
class BagFault : public BagTest
{
  protected:
    void SetUp() override
    {
        setenv("SEG_ALLOC", "1", 1);
        BagTest::SetUp();
    }

    // True when `body` ended fatally for want of memory, of which the platform still had `pieces`.
    static bool fatalAfter(int pieces, const std::function<void()>& body)
    {
        int jumped = 0;
        Lines lines;
        {
            ScopedFault fault({.call = Call::kMalloc,
                               .error = ENOMEM,
                               .skip = pieces,
                               .times = rmtest::kForever});
            lines = linesOf([&] { jumped = catchFatal(body); });
        }
        return jumped == 1 && !lines.empty() && lines.front() == "Out of memory!";
    }

    // Writes over the header of a block, for as long as `body` runs.
    static void damaged(void* block, const std::function<void()>& body)
    {
        uint32_t& word = rmalloc::headerOf(block)->word1;
        const uint32_t before = word;
        word = 0;
        body();
        word = before;
    }
};

class EveryFault : public BagFault, public ::testing::WithParamInterface<uint16_t>
{
};

INSTANTIATE_TEST_SUITE_P(BagFault, EveryFault,
                         ::testing::Values(kCompact, kMapped, kRing,
                                           static_cast<uint16_t>(kMapped | kRing)));

// --- No memory

TEST_P(EveryFault, CreationWithoutMemoryIsFatalAndStoresNothing)
{
    const BagCtl ctl = control({.flags = GetParam()});
    rm_freeMemory(rm_getMemory(8, 0), 0);
    const int pieces = (GetParam() & kMapped) != 0 ? 3 : 2;
    for (int had = 0; had < pieces; ++had) {
        Bag* const untouched = reinterpret_cast<Bag*>(this);
        Bag* bag = untouched;
        EXPECT_TRUE(fatalAfter(had, [&] { bagCreate(&ctl, &bag); })) << had;
        EXPECT_EQ(bag, untouched);
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
    }
    rm_freeTagMemory(0, 0);
}

TEST_P(EveryFault, GrowthWithoutMemoryIsFatalAndLeavesTheBagUsable)
{
    Bag* bag = make({.flags = GetParam(), .initialSlots = 8, .growIncrement = 8}, "abcdefgh");
    bagFirst(bag);
    const std::string before = snapshot(bag);
    EXPECT_TRUE(fatalAfter(0, [&] { bagAdd(bag, "i"); }));
    EXPECT_TRUE(snapshot(bag) == before);
    EXPECT_EQ(bags::checkBag(bag), 0U);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    addAll(bag, "i");
    EXPECT_EQ(bag->slotCount, 16);
    EXPECT_EQ(bag->usedCount, 9);
    EXPECT_EQ(static_cast<char*>(bag->data)[8], 'i');
}

TEST_P(EveryFault, TheFirstGrowthWithoutMemoryLeavesABagWithoutDataArea)
{
    Bag* bag = make({.flags = GetParam(), .initialSlots = 0});
    const std::string before = snapshot(bag);
    EXPECT_TRUE(fatalAfter(0, [&] { bagAdd(bag, "a"); }));
    EXPECT_EQ(snapshot(bag), before);
    addAll(bag, "a");
    EXPECT_EQ(bag->slotCount, 4);
}

// The data area may have moved by then; everything else is as before.
TEST_F(BagFault, GrowthWithoutMemoryForTheMapLeavesTheBagUsable)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 64, .growIncrement = 64});
    fill(bag, 64);
    bagSetCurHandle(bag, 5);
    const Bag before = *bag;
    const std::string bytes = snapshot(bag).substr(sizeof(Bag));
    EXPECT_TRUE(fatalAfter(1, [&] { bagAdd(bag, "z"); }));
    EXPECT_EQ(bag->slotCount, before.slotCount);
    EXPECT_EQ(bag->usedCount, before.usedCount);
    EXPECT_EQ(bag->curSlot, before.curSlot);
    EXPECT_EQ(bag->nextSlot, before.nextSlot);
    EXPECT_EQ(bag->slotMap, before.slotMap);
    EXPECT_EQ(snapshot(bag).substr(sizeof(Bag)), bytes);
    EXPECT_NE(rmalloc::segmentOfLiveBlock(bag->data, 0), nullptr);
    EXPECT_EQ(bags::checkBag(bag), 0U);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

TEST_F(BagFault, ABagWhoseMapCouldNotGrowGoesOn)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 64, .growIncrement = 64});
    fill(bag, 64);
    ASSERT_TRUE(fatalAfter(1, [&] { bagAdd(bag, "z"); }));
    deleteAt(bag, 5);
    addAll(bag, "y");
    EXPECT_EQ(bag->curSlot, 5);
    addAll(bag, "z");
    EXPECT_EQ(bag->slotCount, 128);
    EXPECT_EQ(bag->usedCount, 65);
    EXPECT_EQ(bag->curSlot, 64);
    EXPECT_EQ(bags::isSlotUsed(bag, 64), 1);
    EXPECT_EQ(bags::isSlotUsed(bag, 65), 0);
}

TEST_P(EveryFault, AGrowthThatFailsManyTimesSucceedsInTheEnd)
{
    Bag* bag = make({.flags = GetParam(), .initialSlots = 64, .growIncrement = 64});
    fill(bag, 64);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(fatalAfter(0, [&] { bagAdd(bag, "z"); }));
    }
    fill(bag, 1);
    EXPECT_EQ(bag->usedCount, 65);
    EXPECT_EQ(bag->slotCount, 128);
}

// --- Memory that was written over

TEST_P(EveryFault, GrowthOfADamagedDataAreaFailsWithNothingChanged)
{
    Bag* bag = make({.flags = GetParam(), .initialSlots = 64, .growIncrement = 64});
    fill(bag, 64);
    bagFirst(bag);
    const std::string before = snapshot(bag);
    int16_t status = 0;
    Lines lines;
    damaged(bag->data, [&] { lines = linesOf([&] { status = bagAdd(bag, "z"); }); });
    EXPECT_EQ(status, RM_OUT_OF_MEMORY);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].find("WARNING: attempting to free bad pointer, "), 0U);
    EXPECT_TRUE(snapshot(bag) == before);
    fill(bag, 1);
    EXPECT_EQ(bag->usedCount, 65);
}

TEST_F(BagFault, GrowthOfADamagedMapLosesTheMap)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 64, .growIncrement = 64});
    fill(bag, 64);
    uint16_t* map = bag->slotMap;
    int16_t status = 0;
    Lines lines;
    damaged(map, [&] { lines = linesOf([&] { status = bagAdd(bag, "z"); }); });
    EXPECT_EQ(status, RM_SUCCESS);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].find("WARNING: attempting to free bad pointer, "), 0U);
    EXPECT_EQ(lines[1], kNoMark);
    EXPECT_EQ(bag->slotMap, nullptr);
    EXPECT_EQ(bag->slotCount, 128);
    EXPECT_EQ(bag->usedCount, 65);
    EXPECT_EQ(bag->curSlot, 64);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagAdd(bag, "y"), RM_INVALID); }), Lines{kNoSlotFound});
    rm_freeMemory(map, 0);
}

}  // namespace
