// The map of used slots: its size, the order of its bits, and what happens when it is missing.
#include "tests/containers/bag_case.h"

using namespace bagtest;

namespace
{

using bags::findEmptySlot;
using bags::isSlotUsed;
using bags::markSlotUsed;
using bags::usedSlotMapBytes;

class BagMap : public BagTest
{
};

class BagWithoutMap : public BagTest
{
};

// The words of the map.
std::vector<uint16_t> words(const Bag* bag)
{
    return {bag->slotMap, bag->slotMap + usedSlotMapBytes(bag->slotCount) / 2};
}

// --- Size

TEST_F(BagMap, HasTheNumberOfBytesForItsSlots)
{
    const std::vector<std::pair<int, int>> table = {
        {0, 4},        {1, 4},        {8, 4},        {16, 4},       {31, 4},       {32, 4},
        {33, 6},       {40, 6},       {41, 6},       {48, 6},       {49, 8},       {56, 8},
        {57, 8},       {64, 8},       {65, 10},      {80, 10},      {81, 12},      {96, 12},
        {97, 14},      {112, 14},     {113, 16},     {224, 28},     {448, 56},     {1000, 126},
        {8, 4},        {32767, 4096}, {32768, 4096}, {32769, 4098}, {65520, 8190}, {65521, 8192},
        {65528, 8192}, {65529, 8192}, {65535, 8192}};
    for (const auto& [slots, bytes] : table) {
        EXPECT_EQ(usedSlotMapBytes(static_cast<uint16_t>(slots)), bytes) << slots;
    }
}

TEST_F(BagMap, HasABitForEverySlotAndIsEvenForEveryCount)
{
    uint32_t before = 4;
    for (uint32_t slots = 0; slots <= 65535; ++slots) {
        const uint32_t bytes = usedSlotMapBytes(static_cast<uint16_t>(slots));
        ASSERT_GE(bytes * 8, slots);
        ASSERT_GE(bytes, before) << slots;
        ASSERT_EQ(bytes % 2, 0U) << slots;
        // No word more than is needed, but two at least.
        ASSERT_TRUE(bytes == 4 || (bytes - 2) * 8 < slots) << slots;
        before = bytes;
    }
}

// --- Bits

TEST_F(BagMap, HasTheFirstSlotOfAWordAsItsHighestBit)
{
    const Bag* bag = make({.flags = kMapped, .initialSlots = 16}, "a");
    EXPECT_EQ(words(bag), (std::vector<uint16_t>{0x8000, 0}));
}

TEST_F(BagMap, FillsWordsFromTheHighestBitDown)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 40}, "abc");
    EXPECT_EQ(words(bag), (std::vector<uint16_t>{0xE000, 0, 0}));
    fill(bag, 14);
    EXPECT_EQ(words(bag), (std::vector<uint16_t>{0xFFFF, 0x8000, 0}));
    fill(bag, 23);
    EXPECT_EQ(words(bag), (std::vector<uint16_t>{0xFFFF, 0xFFFF, 0xFF00}));
}

TEST_F(BagMap, HasSlotsOfEachWordInTheirOrder)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 48});
    for (uint16_t slot = 0; slot < 48; ++slot) {
        ASSERT_EQ(markSlotUsed(bag, slot, 1), RM_SUCCESS);
        std::vector<uint16_t> expected(3, 0);
        expected[slot / 16] = static_cast<uint16_t>(1U << (15 - slot % 16));
        ASSERT_EQ(words(bag), expected) << slot;
        ASSERT_EQ(markSlotUsed(bag, slot, 0), RM_SUCCESS);
        ASSERT_EQ(words(bag), std::vector<uint16_t>(3, 0)) << slot;
    }
}

TEST_F(BagMap, KeepsTheOtherBitsOfAWord)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 32});
    bag->slotMap[0] = 0x5A5A;
    EXPECT_EQ(markSlotUsed(bag, 0, 1), RM_SUCCESS);
    EXPECT_EQ(bag->slotMap[0], 0xDA5A);
    EXPECT_EQ(markSlotUsed(bag, 1, 0), RM_SUCCESS);
    EXPECT_EQ(bag->slotMap[0], 0x9A5A);
    EXPECT_EQ(bag->slotMap[1], 0);
    bag->slotMap[0] = 0;
}

TEST_F(BagMap, IsMarkedByAnyFlagButZero)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 8});
    EXPECT_EQ(markSlotUsed(bag, 3, 0x100), RM_SUCCESS);
    EXPECT_EQ(isSlotUsed(bag, 3), 1);
    EXPECT_EQ(markSlotUsed(bag, 3, 1), RM_SUCCESS);
    EXPECT_EQ(isSlotUsed(bag, 3), 1);
    EXPECT_EQ(markSlotUsed(bag, 3, 0), RM_SUCCESS);
    EXPECT_EQ(isSlotUsed(bag, 3), 0);
    EXPECT_EQ(markSlotUsed(bag, 3, 0), RM_SUCCESS);
    EXPECT_EQ(isSlotUsed(bag, 3), 0);
}

TEST_F(BagMap, SaysOneOrZeroForASlot)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 40});
    markSlotUsed(bag, 17, 1);
    markSlotUsed(bag, 39, 1);
    for (uint16_t slot = 0; slot < 40; ++slot) {
        EXPECT_EQ(isSlotUsed(bag, slot), slot == 17 || slot == 39 ? 1 : 0) << slot;
    }
    bag->usedCount = 2;
}

TEST_F(BagMap, SaysZeroForSlotsThatDoNotExist)
{
    const Bag* bag = make({.flags = kMapped, .initialSlots = 4}, "abcd");
    for (uint32_t slot = 4; slot <= 65535; ++slot) {
        ASSERT_EQ(isSlotUsed(bag, static_cast<uint16_t>(slot)), 0) << slot;
    }
}

TEST_F(BagMap, HasNoBitsBehindTheLastSlot)
{
    for (const uint16_t slots : Numbers{1, 5, 15, 17, 31, 33, 50}) {
        Bag* bag = make({.flags = kMapped, .initialSlots = slots, .growIncrement = 3});
        for (int i = 0; i < 70; ++i) {
            fill(bag, 1);
            ASSERT_EQ(bags::checkBag(bag), 0U);
            uint32_t bits = 0;
            for (const uint16_t word : words(bag)) {
                for (uint32_t rest = word; rest != 0; rest &= rest - 1) {
                    ++bits;
                }
            }
            ASSERT_EQ(bits, bag->usedCount);
            ASSERT_EQ(isSlotUsed(bag, static_cast<uint16_t>(bag->usedCount - 1)), 1);
        }
    }
}

TEST_F(BagMap, IsNotAskedInCompactBagsAndRings)
{
    for (const uint16_t flags : Numbers{kCompact, kRing}) {
        const Bag* bag = make({.flags = flags}, "abc");
        EXPECT_EQ(isSlotUsed(bag, 0), 1);
        EXPECT_EQ(isSlotUsed(bag, 2), 1);
        EXPECT_EQ(isSlotUsed(bag, 3), 0);
        EXPECT_EQ(isSlotUsed(bag, 65535), 0);
    }
}

// --- The slot of the next element

TEST_F(BagMap, GivesTheLowestFreeSlot)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 80});
    fill(bag, 80);
    for (const uint16_t hole : Numbers{0, 1, 15, 16, 31, 32, 47, 48, 63, 64, 78, 79}) {
        deleteAt(bag, 79);
        if (hole != 79) {
            deleteAt(bag, hole);
        }
        void* slot = nullptr;
        ASSERT_EQ(findEmptySlot(bag, &slot), RM_SUCCESS);
        ASSERT_EQ(slot, static_cast<char*>(bag->data) + hole) << hole;
        ASSERT_EQ(bag->curSlot, hole);
        fill(bag, hole == 79 ? 1 : 2);
    }
}

TEST_F(BagMap, GivesNoSlotWhenEveryBitIsSetThoughTheCountSaysOtherwise)
{
    Bag* bag = make({.flags = kMapped}, "abcd");
    bag->usedCount = 3;
    const std::string before = snapshot(bag);
    int16_t status = 0;
    EXPECT_EQ(linesOf([&] { status = bagAdd(bag, "e"); }), Lines{kNoSlotFound});
    EXPECT_EQ(status, RM_INVALID);
    EXPECT_EQ(snapshot(bag), before);
    bag->usedCount = 4;
}

// --- Without a map

TEST_F(BagWithoutMap, MarkingFails)
{
    Bag* bag = make({.flags = kMapped});
    loseMap(bag);
    for (const uint16_t used : Numbers{0, 1}) {
        int16_t status = 0;
        EXPECT_EQ(linesOf([&] { status = markSlotUsed(bag, 2, used); }), Lines{kNoMark});
        EXPECT_EQ(status, RM_INVALID);
    }
}

TEST_F(BagWithoutMap, MarkingFailsInACompactBag)
{
    Bag* bag = make({.flags = kCompact}, "ab");
    int16_t status = 0;
    EXPECT_EQ(linesOf([&] { status = markSlotUsed(bag, 0, 0); }), Lines{kNoMark});
    EXPECT_EQ(status, RM_INVALID);
    EXPECT_EQ(draw(bag), "ab.. @-");
}

TEST_F(BagWithoutMap, AskingForASlotFailsWithTheLineOfMarking)
{
    Bag* bag = make({.flags = kMapped});
    loseMap(bag);
    int16_t status = 0;
    EXPECT_EQ(linesOf([&] { status = isSlotUsed(bag, 2); }), Lines{kNoMark});
    EXPECT_EQ(status, RM_INVALID);
}

TEST_F(BagWithoutMap, FindingASlotFails)
{
    Bag* bag = make({.flags = kMapped}, "ab");
    loseMap(bag);
    const std::string before = snapshot(bag);
    void* slot = this;
    int16_t status = 0;
    EXPECT_EQ(linesOf([&] { status = findEmptySlot(bag, &slot); }), Lines{kNoSlotFound});
    EXPECT_EQ(status, RM_INVALID);
    EXPECT_EQ(slot, this);
    EXPECT_EQ(snapshot(bag), before);
}

TEST_F(BagWithoutMap, AddingFailsWithNothingChanged)
{
    Bag* bag = make({.flags = kMapped}, "ab");
    loseMap(bag);
    const std::string before = snapshot(bag);
    int16_t status = 0;
    EXPECT_EQ(linesOf([&] { status = bagAdd(bag, "c"); }), Lines{kNoSlotFound});
    EXPECT_EQ(status, RM_INVALID);
    EXPECT_EQ(snapshot(bag), before);
}

TEST_F(BagWithoutMap, AnAdditionForWhichItGrowsOnlyFailsToMark)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 32, .growIncrement = 8});
    fill(bag, 32);
    loseMap(bag);
    int16_t status = 0;
    EXPECT_EQ(linesOf([&] { status = bagAdd(bag, "z"); }), Lines{kNoMark});
    EXPECT_EQ(status, RM_SUCCESS);
    EXPECT_EQ(bag->slotMap, nullptr);
    EXPECT_EQ(bag->slotCount, 40);
    EXPECT_EQ(bag->usedCount, 33);
    EXPECT_EQ(bag->curSlot, 32);
    EXPECT_EQ(static_cast<char*>(bag->data)[32], 'z');
}

TEST_F(BagWithoutMap, DeletingLogsAndDeletes)
{
    Bag* bag = make({.flags = kMapped}, "abc");
    bagSetCurHandle(bag, 1);
    loseMap(bag);
    int16_t status = 0;
    // One line for the bit, one for the next slot.
    EXPECT_EQ(linesOf([&] { status = bagDelete(bag); }), (Lines{kNoMark, kNoMark}));
    EXPECT_EQ(status, RM_SUCCESS);
    EXPECT_EQ(bag->usedCount, 2);
    EXPECT_EQ(bag->curSlot, 2);
    EXPECT_EQ(std::string_view(static_cast<char*>(bag->data), 4), std::string_view("a\0c\0", 4));
}

TEST_F(BagWithoutMap, DeletingEndsWhenNoElementIsLeft)
{
    Bag* bag = make({.flags = kMapped}, "a");
    loseMap(bag);
    captureStderr([&] { bagDelete(bag); });
    EXPECT_EQ(bag->usedCount, 0);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagDelete(bag), RM_NO_ELEMENT); }), Lines{});
    EXPECT_EQ(bag->usedCount, 0);
}

TEST_F(BagWithoutMap, IterationTakesEverySlotAsUsed)
{
    Bag* bag = make({.flags = kMapped}, "a");
    loseMap(bag);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagFirst(bag), RM_SUCCESS); }), Lines{kNoMark});
    EXPECT_EQ(bag->curSlot, 0);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagNext(bag), RM_SUCCESS); }), Lines{kNoMark});
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagNext(bag), RM_SUCCESS); }), Lines{kNoMark});
    EXPECT_EQ(bag->curSlot, 2);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagNext(bag), RM_NO_ELEMENT); }), Lines{});
    EXPECT_EQ(bag->curSlot, 3);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagLast(bag), RM_SUCCESS); }), Lines{kNoMark});
    EXPECT_EQ(bag->curSlot, 3);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagPrev(bag), RM_SUCCESS); }), Lines{kNoMark});
    EXPECT_EQ(bag->curSlot, 2);
}

TEST_F(BagWithoutMap, NothingIsReadWhereNoSlotIs)
{
    Bag* bag = make({.flags = kMapped}, "ab");
    loseMap(bag);
    bag->curSlot = RM_NO_SLOT;
    captureStderr([&] { bagPrev(bag); });
    const std::string before = snapshot(bag);
    void* pointer = this;
    char byte = 'u';
    EXPECT_EQ(bagGetCurPtr(bag, &pointer), RM_NO_ELEMENT);
    EXPECT_EQ(bagGetCurData(bag, &byte), RM_NO_ELEMENT);
    EXPECT_EQ(bagDelete(bag), RM_NO_ELEMENT);
    EXPECT_EQ(pointer, this);
    EXPECT_EQ(byte, 'u');
    EXPECT_EQ(snapshot(bag), before);
}

TEST_F(BagWithoutMap, LookupsGoThroughAllSlots)
{
    Bag* bag = make({.flags = kMapped | BAG_KEY_BINARY, .keyLength = 1}, "abc");
    deleteAt(bag, 0);
    loseMap(bag);
    uint16_t handle = 0;
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagFind(bag, "c", &handle, nullptr), RM_SUCCESS); }),
              (Lines{kNoMark, kNoMark, kNoMark}));
    EXPECT_EQ(handle, 2);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagFind(bag, "x", nullptr, nullptr), RM_NOT_FOUND); }).size(),
              3U);
}

}  // namespace
