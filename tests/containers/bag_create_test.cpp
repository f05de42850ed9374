// Making a bag and giving it back, and what is in it before anything was added.
#include "tests/containers/bag_case.h"

#include <cstddef>
#include <type_traits>

using namespace bagtest;

namespace
{

class BagRecord : public BagTest
{
};

class BagCreate : public BagTest
{
};

class BagDestroy : public BagTest
{
};

bool allZero(const void* bytes, std::size_t count)
{
    const auto* begin = static_cast<const char*>(bytes);
    return std::all_of(begin, begin + count, [](char byte) { return byte == 0; });
}

uint32_t unitsOf(void* block)
{
    return rmalloc::headerOf(block)->units;
}

// Fields in the order of memory.
TEST_F(BagRecord, ControlRecordsHaveTheirFieldsInOrder)
{
    const BagCtl ctl = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(ctl.flags, 1);
    EXPECT_EQ(ctl.initialSlots, 2);
    EXPECT_EQ(ctl.growIncrement, 3);
    EXPECT_EQ(ctl.growThreshold, 4);
    EXPECT_EQ(ctl.elementSize, 5);
    EXPECT_EQ(ctl.tag, 6);
    EXPECT_EQ(ctl.keyOffset, 7U);
    EXPECT_EQ(ctl.keyLength, 8);
    EXPECT_TRUE((std::is_same_v<decltype(ctl.tag), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(ctl.keyOffset), uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(ctl.elementSize), uint16_t>));
}

TEST_F(BagRecord, BagsHaveTheirFieldsInOrder)
{
    EXPECT_EQ(offsetof(Bag, ctl), 0U);
    EXPECT_EQ(offsetof(Bag, slotCount), sizeof(void*));
    EXPECT_EQ(offsetof(Bag, usedCount), sizeof(void*) + 2);
    EXPECT_EQ(offsetof(Bag, curSlot), sizeof(void*) + 4);
    EXPECT_EQ(offsetof(Bag, nextSlot), sizeof(void*) + 6);
    EXPECT_EQ(offsetof(Bag, data), 8 + sizeof(void*));
    EXPECT_EQ(offsetof(Bag, slotMap), 8 + 2 * sizeof(void*));
}

TEST_F(BagRecord, FlagsHaveTheirValues)
{
    EXPECT_EQ(BAG_KEY_STRING, 1);
    EXPECT_EQ(BAG_KEY_ISTRING, 2);
    EXPECT_EQ(BAG_KEY_BINARY, 3);
    EXPECT_EQ(BAG_KEY_INDIRECT, 0x0080);
    EXPECT_EQ(BAG_SLOT_MAP, 0x0100);
    EXPECT_EQ(BAG_POINTERS, 0x0200);
    EXPECT_EQ(BAG_RING, 0x0400);
    EXPECT_EQ(RM_NO_SLOT, 65535);
}

// --- Creation

TEST_F(BagCreate, GivesAnEmptyBagOfTheControlRecord)
{
    const BagCtl ctl = control({.initialSlots = 5, .elementSize = 12});
    const Bag* bag = makeFrom(ctl);
    EXPECT_EQ(bag->slotCount, 5);
    EXPECT_EQ(bag->usedCount, 0);
    EXPECT_EQ(bag->curSlot, RM_NO_SLOT);
    EXPECT_EQ(bag->nextSlot, 0);
    EXPECT_NE(bag->data, nullptr);
    EXPECT_EQ(bag->slotMap, nullptr);
}

TEST_F(BagCreate, KeepsAPointerToTheControlRecord)
{
    const BagCtl ctl = control({});
    Bag* bag = nullptr;
    ASSERT_EQ(bagCreate(&ctl, &bag), RM_SUCCESS);
    EXPECT_EQ(bag->ctl, &ctl);
    bagDestroy(bag);
}

TEST_F(BagCreate, WithoutSlotsMakesNoDataArea)
{
    const Bag* bag = make({.initialSlots = 0});
    EXPECT_EQ(bag->slotCount, 0);
    EXPECT_EQ(bag->data, nullptr);
    EXPECT_EQ(bag->curSlot, RM_NO_SLOT);
}

TEST_F(BagCreate, ClearsTheDataArea)
{
    // Blocks that come again hold what was in them.
    void* keeper = rm_getMemory(8, 0);
    void* used = rm_getMemory(4000, 0);
    std::memset(used, 0xEE, 4000);
    rm_freeMemory(used, 0);
    const Bag* bag = make({.initialSlots = 60, .elementSize = 50});
    EXPECT_TRUE(allZero(bag->data, std::size_t{60} * 50));
    EXPECT_EQ(unitsOf(bag->data), rmalloc::unitsFor(60 * 50));
    rm_freeMemory(keeper, 0);
}

TEST_F(BagCreate, ClearsTheSlotMap)
{
    void* keeper = rm_getMemory(8, 0);
    void* used = rm_getMemory(4000, 0);
    std::memset(used, 0xEE, 4000);
    rm_freeMemory(used, 0);
    const Bag* bag = make({.flags = kMapped, .initialSlots = 1000});
    EXPECT_TRUE(allZero(bag->slotMap, 126));
    rm_freeMemory(keeper, 0);
}

TEST_F(BagCreate, MakesASlotMapEvenWithoutSlots)
{
    const Bag* bag = make({.flags = kMapped, .initialSlots = 0});
    ASSERT_NE(bag->slotMap, nullptr);
    EXPECT_TRUE(allZero(bag->slotMap, 4));
    EXPECT_EQ(unitsOf(bag->slotMap), rmalloc::unitsFor(4));
}

TEST_F(BagCreate, MakesASlotMapOfTheSizeForItsSlots)
{
    const Bag* bag = make({.flags = kMapped, .initialSlots = 1000});
    EXPECT_EQ(unitsOf(bag->slotMap), rmalloc::unitsFor(126));
}

TEST_F(BagCreate, MakesNoSlotMapForCompactBagsAndRings)
{
    EXPECT_EQ(make({.flags = kCompact})->slotMap, nullptr);
    EXPECT_EQ(make({.flags = kRing})->slotMap, nullptr);
}

TEST_F(BagCreate, TakesAllMemoryFromTheTagOfTheControlRecord)
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    const Bag* bag = make({.flags = kMapped, .initialSlots = 100, .elementSize = 3, .tag = tag});
    EXPECT_EQ(
        rmalloc::tagTable[tag].allocated,
        8 * (rmalloc::unitsFor(sizeof(Bag)) + rmalloc::unitsFor(300) + rmalloc::unitsFor(14)));
    EXPECT_EQ(bag->ctl->tag, tag);
    EXPECT_EQ(rmalloc::tagTable[0].allocated, 0U);
}

TEST_F(BagCreate, TakesEveryKindOfKey)
{
    for (uint16_t kind = 0; kind <= 0x7F; ++kind) {
        for (const uint16_t indirect : Numbers{0, BAG_KEY_INDIRECT}) {
            const BagCtl ctl = control({.flags = static_cast<uint16_t>(kind | indirect)});
            Bag* bag = nullptr;
            ASSERT_EQ(bagCreate(&ctl, &bag), RM_SUCCESS) << kind;
            bagDestroy(bag);
        }
    }
}

TEST_F(BagCreate, MakesAsManySlotsAsThereAreHandles)
{
    const Bag* bag = make({.flags = kMapped, .initialSlots = 65535});
    EXPECT_EQ(bag->slotCount, 65535);
    EXPECT_EQ(unitsOf(bag->slotMap), rmalloc::unitsFor(8192));
    EXPECT_EQ(unitsOf(bag->data), rmalloc::unitsFor(65535));
}

TEST_F(BagCreate, ClearsLargeDataAreasWhole)
{
    // The product needs more than 16 bits.
    const Bag* bag = make({.initialSlots = 1000, .elementSize = 1000});
    EXPECT_EQ(unitsOf(bag->data), rmalloc::unitsFor(1'000'000));
    EXPECT_TRUE(allZero(bag->data, 1'000'000));
}

TEST_F(BagCreate, LogsNothing)
{
    EXPECT_EQ(linesOf([&] {
                  make({.flags = kCompact});
                  make({.flags = kMapped});
                  make({.flags = kRing});
              }),
              Lines{});
}

TEST_F(BagCreate, RefusesPointersThatDoNotFitTheirSlots)
{
    const BagCtl ctl = control({.flags = BAG_POINTERS, .elementSize = sizeof(void*) - 1});
    Bag* const untouched = reinterpret_cast<Bag*>(this);
    Bag* bag = untouched;
    int16_t status = 0;
    EXPECT_EQ(linesOf([&] { status = bagCreate(&ctl, &bag); }), Lines{"bagCreate failed"});
    EXPECT_EQ(status, RM_INVALID);
    EXPECT_EQ(bag, untouched);
    EXPECT_EQ(rmalloc::nTags, 0);
}

TEST_F(BagCreate, RefusesPointersInSlotsOfNoBytes)
{
    const BagCtl ctl = control({.flags = BAG_POINTERS | kRing, .elementSize = 0});
    Bag* bag = nullptr;
    captureStderr([&] { EXPECT_EQ(bagCreate(&ctl, &bag), RM_INVALID); });
    EXPECT_EQ(bag, nullptr);
}

TEST_F(BagCreate, TakesPointersInSlotsThatAreLarger)
{
    Bag* bag = make({.flags = BAG_POINTERS, .elementSize = sizeof(void*) + 5});
    int element = 0;
    ASSERT_EQ(bagAdd(bag, &element), RM_SUCCESS);
    ASSERT_EQ(bagAdd(bag, &bag), RM_SUCCESS);
    void* pointer = nullptr;
    EXPECT_EQ(bagSetCurHandle(bag, 1), RM_SUCCESS);
    EXPECT_EQ(bagGetCurPtr(bag, &pointer), RM_SUCCESS);
    EXPECT_EQ(pointer, &bag);
}

TEST_F(BagCreate, TakesElementsOfNoBytes)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 0, .elementSize = 0});
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(bagAdd(bag, ""), RM_SUCCESS);
    }
    EXPECT_EQ(bag->usedCount, 5);
    EXPECT_EQ(deleteAt(bag, 1), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 2);
}

// --- The end

TEST_F(BagDestroy, GivesAllMemoryBack)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing}) {
        const BagCtl ctl = control({.flags = flags, .initialSlots = 0, .elementSize = 40});
        Bag* bag = nullptr;
        ASSERT_EQ(bagCreate(&ctl, &bag), RM_SUCCESS);
        fill(bag, 90);
        EXPECT_EQ(bagDestroy(bag), RM_SUCCESS);
        EXPECT_EQ(rmalloc::tagTable[0].allocated, 0U) << flags;
    }
}

TEST_F(BagDestroy, GivesBackABagWithoutDataArea)
{
    const BagCtl ctl = control({.initialSlots = 0});
    Bag* bag = nullptr;
    ASSERT_EQ(bagCreate(&ctl, &bag), RM_SUCCESS);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagDestroy(bag), RM_SUCCESS); }), Lines{});
}

TEST_F(BagDestroy, GivesBackASlotMapWhoseMapIsMissing)
{
    const BagCtl ctl = control({.flags = kMapped});
    Bag* bag = nullptr;
    ASSERT_EQ(bagCreate(&ctl, &bag), RM_SUCCESS);
    loseMap(bag);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagDestroy(bag), RM_SUCCESS); }), Lines{});
}

TEST_F(BagDestroy, LeavesTheElementsOfABagOfPointers)
{
    const BagCtl ctl = control({.flags = BAG_POINTERS, .elementSize = sizeof(void*)});
    auto* element = static_cast<char*>(rm_cGetMemory(10, 0));
    Bag* bag = nullptr;
    ASSERT_EQ(bagCreate(&ctl, &bag), RM_SUCCESS);
    ASSERT_EQ(bagAdd(bag, element), RM_SUCCESS);
    EXPECT_EQ(bagDestroy(bag), RM_SUCCESS);
    EXPECT_NE(rmalloc::segmentOfLiveBlock(element, 0), nullptr);
    rm_freeMemory(element, 0);
}

TEST_F(BagDestroy, LeavesTheCallersPointer)
{
    const BagCtl ctl = control({});
    Bag* bag = nullptr;
    ASSERT_EQ(bagCreate(&ctl, &bag), RM_SUCCESS);
    const Bag* const before = bag;
    bagDestroy(bag);
    EXPECT_EQ(bag, before);
}

TEST_F(BagDestroy, OfNullDoesNothing)
{
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagDestroy(nullptr), RM_SUCCESS); }), Lines{});
}

// --- A bag that nothing was added to

class BagEmpty : public BagTest, public ::testing::WithParamInterface<uint16_t>
{
};

TEST_P(BagEmpty, HasNoElementForAnyCall)
{
    for (const uint16_t slots : Numbers{0, 1, 4}) {
        Bag* bag = make({.flags = static_cast<uint16_t>(GetParam() | BAG_KEY_STRING),
                         .initialSlots = slots,
                         .elementSize = 4});
        const std::string before = snapshot(bag);
        uint16_t handle = 77;
        void* pointer = this;
        char buffer[4] = {'b', 'u', 'f', 'f'};
        EXPECT_EQ(bagFirst(bag), RM_NO_ELEMENT);
        EXPECT_EQ(bagLast(bag), RM_NO_ELEMENT);
        EXPECT_EQ(bagDelete(bag), RM_NO_ELEMENT);
        EXPECT_EQ(bagGetCurHandle(bag, &handle), RM_NO_ELEMENT);
        EXPECT_EQ(bagGetCurPtr(bag, &pointer), RM_NO_ELEMENT);
        EXPECT_EQ(bagGetCurData(bag, buffer), RM_NO_ELEMENT);
        EXPECT_EQ(bagFind(bag, "a", &handle, &pointer), RM_NOT_FOUND);
        EXPECT_EQ(handle, 77);
        EXPECT_EQ(pointer, this);
        EXPECT_EQ(std::string_view(buffer, 4), "buff");
        EXPECT_EQ(snapshot(bag), before);
        EXPECT_EQ(bagSetCurHandle(bag, 0), RM_NOT_FOUND);
        EXPECT_EQ(bagNext(bag), RM_NO_ELEMENT);
        EXPECT_EQ(bagPrev(bag), RM_NO_ELEMENT);
        EXPECT_EQ(bag->curSlot, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(EveryKind, BagEmpty,
                         ::testing::Values(kCompact, kMapped, kRing,
                                           static_cast<uint16_t>(kMapped | kRing)));

}  // namespace
