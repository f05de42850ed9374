// Adding, deleting and reading in compact bags and slot maps. Rings have their own file.
#include "tests/containers/bag_case.h"

using namespace bagtest;

namespace
{

class BagAdd : public BagTest
{
};

class BagDelete : public BagTest
{
};

class BagRead : public BagTest
{
};

// --- Adding

TEST_F(BagAdd, PutsElementsOneBehindTheOtherInACompactBag)
{
    EXPECT_EQ(draw(make({}, "abc")), "abc. @-");
}

TEST_F(BagAdd, KeepsThePositionOfACompactBag)
{
    Bag* bag = make({}, "abc");
    for (const uint16_t position : Numbers{0, 2, 4, 65534}) {
        bag->curSlot = position;
        addAll(bag, "d");
        EXPECT_EQ(bag->curSlot, position);
    }
}

TEST_F(BagAdd, KeepsThePositionOfACompactBagThatGrows)
{
    Bag* bag = make({}, "abcd");
    bagSetCurHandle(bag, 1);
    addAll(bag, "e");
    EXPECT_EQ(bag->slotCount, 8);
    EXPECT_EQ(bag->curSlot, 1);
}

TEST_F(BagAdd, MakesTheElementOfASlotMapCurrent)
{
    Bag* bag = make({.flags = kMapped}, "a");
    EXPECT_EQ(draw(bag), "a... x... @0");
    addAll(bag, "b");
    EXPECT_EQ(draw(bag), "ab.. xx.. @1");
    addAll(bag, "cde");
    EXPECT_EQ(draw(bag), "abcde... xxxxx... @4");
}

TEST_F(BagAdd, FillsTheLowestHoleOfASlotMapFirst)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 6}, "abcdef");
    deleteAt(bag, 4);
    deleteAt(bag, 1);
    deleteAt(bag, 3);
    EXPECT_EQ(draw(bag), "a.c..f x.x..x @5");
    addAll(bag, "g");
    EXPECT_EQ(draw(bag), "agc..f xxx..x @1");
    addAll(bag, "h");
    EXPECT_EQ(draw(bag), "agch.f xxxx.x @3");
    addAll(bag, "i");
    EXPECT_EQ(draw(bag), "agchif xxxxxx @4");
}

TEST_F(BagAdd, CopiesTheBytesOfTheElement)
{
    Bag* bag = make({.elementSize = 3});
    char element[] = {'x', 'y', 'z', '!'};
    EXPECT_EQ(bagAdd(bag, element), RM_SUCCESS);
    element[0] = '?';
    EXPECT_EQ(draw(bag), "xyz......... @-");
}

TEST_F(BagAdd, CopiesElementsOfEverySize)
{
    for (uint16_t size = 1; size <= 300; ++size) {
        Bag* bag = make({.flags = kMapped, .initialSlots = 3, .elementSize = size});
        std::string expected;
        for (int i = 0; i < 2; ++i) {
            std::string element;
            for (uint16_t at = 0; at < size; ++at) {
                element += static_cast<char>(at + i * 7 + 1);
            }
            ASSERT_EQ(bagAdd(bag, element.data()), RM_SUCCESS);
            expected += element;
            std::string copy(size, '?');
            ASSERT_EQ(bagGetCurData(bag, copy.data()), RM_SUCCESS);
            ASSERT_EQ(copy, element) << size;
        }
        expected.append(size, '\0');
        ASSERT_EQ(std::string(static_cast<char*>(bag->data), expected.size()), expected) << size;
    }
}

TEST_F(BagAdd, TakesAnElementOfTheBagItself)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped}) {
        Bag* bag = make({.flags = flags, .elementSize = 40});
        const std::string wanted(40, 'w');
        bagAdd(bag, wanted.data());
        fill(bag, 1);
        // The third has room, the fifth and the ninth have not.
        for (int i = 2; i < 9; ++i) {
            ASSERT_EQ(bagAdd(bag, bag->data), RM_SUCCESS);
            const auto* bytes = static_cast<const char*>(bag->data);
            ASSERT_EQ(std::string(bytes + std::ptrdiff_t{i} * 40, 40), wanted) << i;
        }
    }
}

TEST_F(BagAdd, StoresPointersThemselves)
{
    Bag* bag = make({.flags = kMapped | BAG_POINTERS, .elementSize = sizeof(void*)});
    char element = 'x';
    EXPECT_EQ(bagAdd(bag, &element), RM_SUCCESS);
    EXPECT_EQ(bagAdd(bag, nullptr), RM_SUCCESS);
    auto* const* slots = static_cast<char* const*>(bag->data);
    EXPECT_EQ(slots[0], &element);
    EXPECT_EQ(slots[1], nullptr);
    EXPECT_EQ(bag->usedCount, 2);
}

TEST_F(BagAdd, LogsNothing)
{
    EXPECT_EQ(linesOf([&] {
                  make({.flags = kCompact}, "abcdefghi");
                  make({.flags = kMapped}, "abcdefghi");
              }),
              Lines{});
}

// --- Deleting in a compact bag

TEST_F(BagDelete, OfTheThirdOfFiveMovesTheFifthAndLeavesNoPosition)
{
    Bag* bag = make({.initialSlots = 5}, "abcde");
    int16_t status = -1;
    EXPECT_EQ(linesOf([&] { status = deleteAt(bag, 2); }), Lines{kNoMark});
    EXPECT_EQ(status, RM_SUCCESS);
    EXPECT_EQ(draw(bag), "abed. @-");
    EXPECT_EQ(bag->usedCount, 4);
}

TEST_F(BagDelete, OfAPointerMovesTheLastOneWithoutALine)
{
    Bag* bag = make({.flags = BAG_POINTERS, .elementSize = sizeof(void*)});
    char elements[5] = {};
    for (char& element : elements) {
        bagAdd(bag, &element);
    }
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(deleteAt(bag, 2), RM_SUCCESS); }), Lines{});
    auto* const* slots = static_cast<char* const*>(bag->data);
    EXPECT_EQ(slots[2], &elements[4]);
    EXPECT_EQ(slots[3], &elements[3]);
    EXPECT_EQ(slots[4], nullptr);
    EXPECT_EQ(bag->curSlot, RM_NO_SLOT);
}

TEST_F(BagDelete, OfTheLastElementZeroesNothingAndLogsNothing)
{
    Bag* bag = make({}, "abc");
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(deleteAt(bag, 2), RM_SUCCESS); }), Lines{});
    EXPECT_EQ(draw(bag), "abc. @-");
    EXPECT_EQ(bag->usedCount, 2);
}

TEST_F(BagDelete, OfTheOnlyElementEmptiesTheBag)
{
    Bag* bag = make({}, "a");
    EXPECT_EQ(deleteAt(bag, 0), RM_SUCCESS);
    EXPECT_EQ(bag->usedCount, 0);
    EXPECT_EQ(bagFirst(bag), RM_NO_ELEMENT);
}

TEST_F(BagDelete, MovesElementsOfEverySize)
{
    captureStderr([&] {
        for (uint16_t size = 1; size <= 300; ++size) {
            Bag* bag = make({.initialSlots = 2, .elementSize = size});
            const std::string first(size, 'f');
            std::string last;
            for (uint16_t at = 0; at < size; ++at) {
                last += static_cast<char>(at + 1);
            }
            bagAdd(bag, first.data());
            bagAdd(bag, last.data());
            deleteAt(bag, 0);
            ASSERT_EQ(std::string(static_cast<char*>(bag->data), size), last);
            ASSERT_EQ(std::string(static_cast<char*>(bag->data) + size, size),
                      std::string(size, '\0'));
        }
    });
}

TEST_F(BagDelete, MovesWholeElements)
{
    Bag* bag = make({.initialSlots = 3, .elementSize = 3});
    for (const char* element : {"abc", "def", "ghi"}) {
        bagAdd(bag, element);
    }
    EXPECT_EQ(linesOf([&] { deleteAt(bag, 0); }), Lines{kNoMark});
    EXPECT_EQ(draw(bag), "ghidef... @-");
}

// --- Deleting in a slot map

TEST_F(BagDelete, LeavesAHoleInASlotMapAndGoesToTheElementBehindIt)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 5}, "abcd");
    EXPECT_EQ(deleteAt(bag, 1), RM_SUCCESS);
    EXPECT_EQ(draw(bag), "a.cd. x.xx. @2");
    EXPECT_EQ(bag->usedCount, 3);
}

TEST_F(BagDelete, GoesOverHolesToTheNextElement)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 6}, "abcdef");
    deleteAt(bag, 2);
    deleteAt(bag, 3);
    EXPECT_EQ(deleteAt(bag, 1), RM_SUCCESS);
    EXPECT_EQ(draw(bag), "a...ef x...xx @4");
}

TEST_F(BagDelete, InASlotMapGivesNoElementWhenNoneFollowsThoughItHasDeleted)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 6}, "abc");
    EXPECT_EQ(deleteAt(bag, 2), RM_NO_ELEMENT);
    EXPECT_EQ(draw(bag), "ab.... xx.... @5");
    EXPECT_EQ(bag->usedCount, 2);
}

TEST_F(BagDelete, InASlotMapDoesNotGoToTheLastSlot)
{
    Bag* bag = make({.flags = kMapped}, "abcd");
    EXPECT_EQ(deleteAt(bag, 2), RM_NO_ELEMENT);
    EXPECT_EQ(draw(bag), "ab.d xx.x @3");
}

TEST_F(BagDelete, ReachesTheLastSlotOfASlotMapByItsHandle)
{
    Bag* bag = make({.flags = kMapped}, "abcd");
    EXPECT_EQ(deleteAt(bag, 3), RM_NO_ELEMENT);
    EXPECT_EQ(draw(bag), "abc. xxx. @4");
}

TEST_F(BagDelete, InASlotMapKeepsTheHandlesOfTheOthers)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 6}, "abcdef");
    deleteAt(bag, 0);
    deleteAt(bag, 3);
    for (const uint16_t handle : Numbers{1, 2, 4, 5}) {
        char byte = '\0';
        EXPECT_EQ(bagSetCurHandle(bag, handle), RM_SUCCESS);
        EXPECT_EQ(bagGetCurData(bag, &byte), RM_SUCCESS);
        EXPECT_EQ(byte, "abcdef"[handle]);
    }
}

TEST_F(BagDelete, InASlotMapLogsNothing)
{
    EXPECT_EQ(linesOf([&] { deleteAt(make({.flags = kMapped}, "abcd"), 0); }), Lines{});
}

TEST_F(BagDelete, ZeroesPointersInASlotMap)
{
    Bag* bag = make({.flags = kMapped | BAG_POINTERS, .elementSize = sizeof(void*)});
    bagAdd(bag, this);
    bagAdd(bag, this);
    deleteAt(bag, 0);
    EXPECT_EQ(*static_cast<void**>(bag->data), nullptr);
}

// --- Where no element is

TEST_F(BagDelete, WithoutAPositionDeletesNothing)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing}) {
        Bag* bag = make({.flags = flags}, "abc");
        bag->curSlot = RM_NO_SLOT;
        const std::string before = snapshot(bag);
        EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagDelete(bag), RM_NO_ELEMENT); }), Lines{});
        EXPECT_EQ(snapshot(bag), before);
    }
}

TEST_F(BagDelete, PastTheEndDeletesNothing)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing}) {
        Bag* bag = make({.flags = flags}, "abc");
        const int end = flags == kCompact ? 3 : 4;
        for (const int position : {end, end + 1, 65534}) {
            bag->curSlot = static_cast<uint16_t>(position);
            const std::string before = snapshot(bag);
            EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagDelete(bag), RM_NO_ELEMENT); }), Lines{});
            EXPECT_EQ(snapshot(bag), before) << flags << ", " << position;
        }
    }
}

TEST_F(BagDelete, OnAHoleOfASlotMapDeletesNothing)
{
    Bag* bag = make({.flags = kMapped}, "abc");
    for (const uint16_t hole : Numbers{3, 1}) {
        if (hole == 1) {
            deleteAt(bag, 1);
        }
        bag->curSlot = hole;
        const std::string before = snapshot(bag);
        EXPECT_EQ(linesOf([&] { EXPECT_EQ(bagDelete(bag), RM_NO_ELEMENT); }), Lines{});
        EXPECT_EQ(snapshot(bag), before);
    }
}

// --- Reading

TEST_F(BagRead, GivesTheHandleOfThePosition)
{
    Bag* bag = make({.flags = kMapped}, "abc");
    uint16_t handle = 77;
    EXPECT_EQ(bagGetCurHandle(bag, &handle), RM_SUCCESS);
    EXPECT_EQ(handle, 2);
}

TEST_F(BagRead, GivesTheHandleWhereverThePositionStands)
{
    Bag* bag = make({}, "abc");
    for (const uint16_t position : Numbers{3, 4, 1000, 65534}) {
        uint16_t handle = 77;
        bag->curSlot = position;
        EXPECT_EQ(bagGetCurHandle(bag, &handle), RM_SUCCESS);
        EXPECT_EQ(handle, position);
    }
}

TEST_F(BagRead, GivesTheAddressOfTheSlot)
{
    Bag* bag = make({.flags = kMapped, .elementSize = 6});
    fill(bag, 3);
    void* pointer = nullptr;
    EXPECT_EQ(bagGetCurPtr(bag, &pointer), RM_SUCCESS);
    EXPECT_EQ(pointer, static_cast<char*>(bag->data) + 12);
}

TEST_F(BagRead, GivesThePointerInTheSlot)
{
    Bag* bag = make({.flags = kMapped | BAG_POINTERS, .elementSize = sizeof(void*)});
    bagAdd(bag, this);
    void* pointer = nullptr;
    EXPECT_EQ(bagGetCurPtr(bag, &pointer), RM_SUCCESS);
    EXPECT_EQ(pointer, this);
}

TEST_F(BagRead, CopiesTheBytesOfTheSlotAndNoMore)
{
    Bag* bag = make({.flags = kMapped, .elementSize = 3});
    bagAdd(bag, "xyz");
    char buffer[] = {'1', '2', '3', '4'};
    EXPECT_EQ(bagGetCurData(bag, buffer), RM_SUCCESS);
    EXPECT_EQ(std::string_view(buffer, 4), "xyz4");
}

TEST_F(BagRead, CopiesThePointerOfABagOfPointers)
{
    Bag* bag = make({.flags = kMapped | BAG_POINTERS, .elementSize = sizeof(void*)});
    bagAdd(bag, this);
    void* buffer = nullptr;
    EXPECT_EQ(bagGetCurData(bag, &buffer), RM_SUCCESS);
    EXPECT_EQ(buffer, this);
}

TEST_F(BagRead, WithoutAPositionOrPastTheEndStoresNothing)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing}) {
        Bag* bag = make({.flags = flags}, "abc");
        const int end = flags == kCompact ? 3 : 4;
        for (const int position : {end, end + 1, 65534, 65535}) {
            bag->curSlot = static_cast<uint16_t>(position);
            const std::string before = snapshot(bag);
            void* pointer = this;
            char byte = 'u';
            EXPECT_EQ(bagGetCurPtr(bag, &pointer), RM_NO_ELEMENT);
            EXPECT_EQ(bagGetCurData(bag, &byte), RM_NO_ELEMENT);
            EXPECT_EQ(pointer, this);
            EXPECT_EQ(byte, 'u');
            EXPECT_EQ(snapshot(bag), before);
        }
    }
}

TEST_F(BagRead, GivesZeroesOnAHoleOfASlotMap)
{
    Bag* bag = make({.flags = kMapped}, "abc");
    deleteAt(bag, 1);
    bag->curSlot = 1;
    char byte = 'u';
    EXPECT_EQ(bagGetCurData(bag, &byte), RM_SUCCESS);
    EXPECT_EQ(byte, '\0');
}

TEST_F(BagRead, GoesToASlotThatIsUsed)
{
    Bag* bag = make({.flags = kMapped}, "abcd");
    deleteAt(bag, 1);
    EXPECT_EQ(bagSetCurHandle(bag, 3), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 3);
    EXPECT_EQ(bagSetCurHandle(bag, 1), RM_NOT_FOUND);
    EXPECT_EQ(bag->curSlot, RM_NO_SLOT);
}

TEST_F(BagRead, GoesNowhereForAHandleThatIsNone)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing}) {
        Bag* bag = make({.flags = flags}, "abc");
        for (const uint16_t handle : Numbers{3, 4, 15, 16, 31, 32, 1000, 65534, 65535}) {
            bag->curSlot = 0;
            EXPECT_EQ(bagSetCurHandle(bag, handle), RM_NOT_FOUND) << flags << ", " << handle;
            EXPECT_EQ(bag->curSlot, RM_NO_SLOT);
        }
    }
}

TEST_F(BagRead, ReachesEveryElementByItsHandle)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing}) {
        Bag* bag = make({.flags = flags}, "abcd");
        for (const uint16_t handle : Numbers{0, 1, 2, 3}) {
            char byte = '\0';
            EXPECT_EQ(bagSetCurHandle(bag, handle), RM_SUCCESS);
            EXPECT_EQ(bagGetCurData(bag, &byte), RM_SUCCESS);
            EXPECT_EQ(byte, "abcd"[handle]);
        }
    }
}

// Compact bags have a shorter way for short elements.
TEST_F(BagAdd, WritesIntoItsOwnSlotOnlyWhateverTheSize)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing}) {
        for (uint16_t size = 1; size <= 80; ++size) {
            Bag* bag = make({.flags = flags, .initialSlots = 3, .elementSize = size});
            std::string expected;
            for (int i = 0; i < 3; ++i) {
                std::string element;
                for (uint16_t at = 0; at < size; ++at) {
                    element += static_cast<char>(at + i * 83 + 1);
                }
                ASSERT_EQ(bagAdd(bag, element.data()), RM_SUCCESS);
                expected += element;
                std::string all = expected;
                all.resize(std::size_t{3} * size, '\0');
                ASSERT_EQ(std::string(static_cast<char*>(bag->data), all.size()), all)
                    << flags << ", " << size;
            }
        }
    }
}

}  // namespace
