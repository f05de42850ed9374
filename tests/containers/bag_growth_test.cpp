// Growth: by how much, to what limit, and what stays as it was.
#include "tests/containers/bag_case.h"

using namespace bagtest;

namespace
{

class BagGrowth : public BagTest
{
  protected:
    // The slot counts that the bag passes while elements are added, up to `elements`.
    static std::vector<int> series(Bag* bag, uint32_t elements)
    {
        std::vector<int> counts = {bag->slotCount};
        while (bag->usedCount < elements) {
            fill(bag, 1);
            if (bag->slotCount != counts.back()) {
                counts.push_back(bag->slotCount);
            }
        }
        return counts;
    }

    // The next addition finds no room, and nothing of the bag changes.
    static void expectFull(Bag* bag)
    {
        const std::string before = snapshot(bag);
        const uint32_t memory = rm_memused();
        const std::vector<char> element(bag->ctl->elementSize, 'z');
        for (int i = 0; i < 2; ++i) {
            int16_t status = 0;
            EXPECT_EQ(linesOf([&] { status = bagAdd(bag, element.data()); }), Lines{});
            EXPECT_EQ(status, RM_OUT_OF_MEMORY);
            EXPECT_TRUE(snapshot(bag) == before);
            EXPECT_EQ(rm_memused(), memory);
        }
    }
};

class EveryGrowth : public BagGrowth, public ::testing::WithParamInterface<uint16_t>
{
};

INSTANTIATE_TEST_SUITE_P(BagGrowth, EveryGrowth,
                         ::testing::Values(kCompact, kMapped, kRing,
                                           static_cast<uint16_t>(kMapped | kRing)));

// --- By how much

TEST_P(EveryGrowth, StepsBySixteenFromSixteenTo112AndThenDoubles)
{
    Bag* bag = make({.flags = GetParam(), .initialSlots = 16, .growIncrement = 16});
    EXPECT_EQ(series(bag, 449), (std::vector<int>{16, 32, 48, 64, 80, 96, 112, 224, 448, 896}));
}

TEST_P(EveryGrowth, StepsByThreeFromNothingTo21AndThenDoubles)
{
    Bag* bag =
        make({.flags = GetParam(), .initialSlots = 0, .growIncrement = 3, .growThreshold = 20});
    EXPECT_EQ(series(bag, 85), (std::vector<int>{0, 3, 6, 9, 12, 15, 18, 21, 42, 84, 168}));
}

TEST_P(EveryGrowth, GrowsWithTheFirstElementBeyondTheLastSlot)
{
    Bag* bag = make({.flags = GetParam()}, "abcd");
    EXPECT_EQ(bag->slotCount, 4);
    fill(bag, 1);
    EXPECT_EQ(bag->slotCount, 8);
    EXPECT_EQ(bag->usedCount, 5);
}

TEST_P(EveryGrowth, WithoutSlotsMakesItsDataAreaWithTheFirstElement)
{
    Bag* bag = make({.flags = GetParam(), .initialSlots = 0, .growIncrement = 3}, "a");
    EXPECT_EQ(bag->slotCount, 3);
    EXPECT_EQ(bag->nextSlot, 1);
    EXPECT_EQ(*static_cast<char*>(bag->data), 'a');
}

TEST_P(EveryGrowth, GrowsByOneSlotAtATime)
{
    Bag* bag = make({.flags = GetParam(), .initialSlots = 1, .growIncrement = 1});
    for (uint16_t elements = 1; elements <= 40; ++elements) {
        fill(bag, 1);
        ASSERT_EQ(bag->slotCount, elements);
        ASSERT_EQ(bag->usedCount, elements);
        ASSERT_EQ(bags::checkBag(bag), 0U);
    }
}

TEST_P(EveryGrowth, DoublesFromTheThresholdOn)
{
    EXPECT_EQ(series(make({.flags = GetParam(), .initialSlots = 7, .growThreshold = 8}), 12),
              (std::vector<int>{7, 11, 22}));
    EXPECT_EQ(series(make({.flags = GetParam(), .initialSlots = 8, .growThreshold = 8}), 9),
              (std::vector<int>{8, 16}));
    EXPECT_EQ(series(make({.flags = GetParam(), .initialSlots = 5, .growThreshold = 0}), 11),
              (std::vector<int>{5, 10, 20}));
}

TEST_F(BagGrowth, LeavesAddedSlotsOfSlotMapsAndRingsZero)
{
    void* keeper = rm_getMemory(8, 0);
    void* used = rm_getMemory(4000, 0);
    std::memset(used, 0xEE, 4000);
    rm_freeMemory(used, 0);
    for (const uint16_t flags : Numbers{kMapped, kRing, kMapped | kRing}) {
        Bag* bag = make({.flags = flags, .initialSlots = 2, .growIncrement = 60, .elementSize = 7});
        fill(bag, 3);
        const auto* bytes = static_cast<const char*>(bag->data);
        EXPECT_EQ(std::string(bytes + 3 * 7, bytes + 62 * 7), std::string(59 * 7, '\0')) << flags;
    }
    rm_freeMemory(keeper, 0);
}

TEST_P(EveryGrowth, SetsTheNextSlotBehindTheAddedElement)
{
    Bag* bag = make({.flags = GetParam()}, "abcde");
    EXPECT_EQ(bag->nextSlot, 5);
}

TEST_F(BagGrowth, ClearsTheAddedPartOfTheMap)
{
    void* keeper = rm_getMemory(8, 0);
    void* used = rm_getMemory(4000, 0);
    std::memset(used, 0xEE, 4000);
    rm_freeMemory(used, 0);
    Bag* bag = make({.flags = kMapped, .initialSlots = 64, .growIncrement = 900});
    fill(bag, 65);
    EXPECT_EQ(bag->slotMap[3], 0xFFFF);
    EXPECT_EQ(bag->slotMap[4], 0x8000);
    for (uint32_t word = 5; word < bags::usedSlotMapBytes(964) / 2; ++word) {
        ASSERT_EQ(bag->slotMap[word], 0) << word;
    }
    rm_freeMemory(keeper, 0);
}

// Even where it could move down.
TEST_F(BagGrowth, LeavesAMapThatIsLargeEnough)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 8, .growIncrement = 8});
    fill(bag, 8);
    void* below = rm_getMemory(100, 0);
    void* floor = rm_getMemory(8, 0);
    rm_freeMemory(below, 0);
    const uint16_t* map = bag->slotMap;
    for (const uint16_t slots : Numbers{16, 24, 32}) {
        fill(bag, 8);
        EXPECT_EQ(bag->slotCount, slots);
        EXPECT_EQ(bag->slotMap, map);
        EXPECT_EQ(rmalloc::headerOf(bag->slotMap)->units, rmalloc::unitsFor(4));
    }
    rm_freeMemory(floor, 0);
}

TEST_F(BagGrowth, KeepsElementsAndTheirHandlesInASlotMap)
{
    Bag* bag = make({.flags = kMapped, .elementSize = 2});
    for (uint16_t i = 0; i < 1000; ++i) {
        ASSERT_EQ(bagAdd(bag, &i), RM_SUCCESS);
        uint16_t handle = 0;
        ASSERT_EQ(bagGetCurHandle(bag, &handle), RM_SUCCESS);
        ASSERT_EQ(handle, i);
    }
    for (uint16_t i = 0; i < 1000; ++i) {
        uint16_t element = 0;
        ASSERT_EQ(bagSetCurHandle(bag, i), RM_SUCCESS);
        ASSERT_EQ(bagGetCurData(bag, &element), RM_SUCCESS);
        ASSERT_EQ(element, i);
    }
}

TEST_F(BagGrowth, KeepsHolesOutOfTheWay)
{
    // It grows when no slot is free, not when the last one is used.
    Bag* bag = make({.flags = kMapped}, "abcd");
    deleteAt(bag, 1);
    addAll(bag, "e");
    EXPECT_EQ(draw(bag), "aecd xxxx @1");
    addAll(bag, "f");
    EXPECT_EQ(draw(bag), "aecdf... xxxxx... @4");
}

TEST_F(BagGrowth, NeverShrinks)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing}) {
        Bag* bag = make({.flags = flags}, "abcdefghi");
        const void* data = bag->data;
        while (bag->usedCount > 0) {
            bagFirst(bag);
            captureStderr([&] { bagDelete(bag); });
        }
        EXPECT_EQ(bag->slotCount, 12);
        EXPECT_EQ(bag->data, data);
    }
}

// --- The limit

TEST_F(BagGrowth, DoublesAsLongAsThereAreHandles)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 16, .growIncrement = 16});
    const std::vector<int> counts = series(bag, 57344);
    EXPECT_EQ(counts.back(), 57344);
    EXPECT_EQ(counts.size(), 16U);
    expectFull(bag);
}

TEST_P(EveryGrowth, GrowsTo65535Slots)
{
    Bag* bag = make(
        {.flags = GetParam(), .initialSlots = 65530, .growIncrement = 5, .growThreshold = 65535});
    fill(bag, 65530);
    fill(bag, 1);
    EXPECT_EQ(bag->slotCount, 65535);
    fill(bag, 4);
    EXPECT_EQ(bag->usedCount, 65535);
    expectFull(bag);
}

TEST_P(EveryGrowth, DoesNotGrowBeyond65535Slots)
{
    Bag* bag = make(
        {.flags = GetParam(), .initialSlots = 65530, .growIncrement = 6, .growThreshold = 65535});
    fill(bag, 65530);
    expectFull(bag);
}

TEST_P(EveryGrowth, DoesNotDoubleBeyond65535Slots)
{
    Bag* bag = make({.flags = GetParam(), .initialSlots = 32768, .growThreshold = 0});
    fill(bag, 32768);
    expectFull(bag);
}

TEST_P(EveryGrowth, DoublesTo65534Slots)
{
    Bag* bag = make({.flags = GetParam(), .initialSlots = 32767, .growThreshold = 0});
    fill(bag, 32768);
    EXPECT_EQ(bag->slotCount, 65534);
}

TEST_P(EveryGrowth, DoesNotGrowByNothing)
{
    Bag* bag = make({.flags = GetParam(), .growIncrement = 0}, "abcd");
    expectFull(bag);
}

TEST_P(EveryGrowth, DoesNotGrowByNothingFromTheStart)
{
    expectFull(make({.flags = GetParam(), .initialSlots = 0, .growIncrement = 0}));
}

TEST_P(EveryGrowth, DoesNotDoubleNothing)
{
    expectFull(make({.flags = GetParam(), .initialSlots = 0, .growThreshold = 0}));
}

TEST_P(EveryGrowth, HasRoomAgainWhenAFullBagLosesAnElement)
{
    Bag* bag = make({.flags = GetParam(), .growIncrement = 0}, "abcd");
    captureStderr([&] { deleteAt(bag, 1); });
    EXPECT_EQ(bagAdd(bag, "e"), RM_SUCCESS);
    EXPECT_EQ(bag->usedCount, 4);
}

}  // namespace
