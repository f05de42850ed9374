// First, next, last and previous in compact bags and slot maps. Rings have their own file.
#include "tests/containers/bag_case.h"

#include <numeric>

using namespace bagtest;

namespace
{

class BagIterate : public BagTest
{
  protected:
    // A compact bag of three elements, and a slot map with holes.
    Bag* compact() { return make({}, "abc"); }

    Bag* mapped()
    {
        Bag* bag = make({.flags = kMapped, .initialSlots = 7}, "abcdefg");
        deleteAt(bag, 0);
        deleteAt(bag, 3);
        deleteAt(bag, 4);
        EXPECT_EQ(draw(bag).substr(0, 15), ".bc..fg .xx..xx");
        return bag;
    }
};

// The positions that a walk passes, until it ends.
std::vector<int> forward(Bag* bag)
{
    std::vector<int> passed;
    for (int16_t status = bagFirst(bag); status == RM_SUCCESS; status = bagNext(bag)) {
        passed.push_back(bag->curSlot);
    }
    return passed;
}

std::vector<int> backward(Bag* bag)
{
    std::vector<int> passed;
    for (int16_t status = bagLast(bag); status == RM_SUCCESS; status = bagPrev(bag)) {
        passed.push_back(bag->curSlot);
    }
    return passed;
}

std::vector<int> upTo(std::size_t end)
{
    std::vector<int> numbers(end);
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

// --- Forwards

TEST_F(BagIterate, PassesAllElementsOfACompactBag)
{
    EXPECT_EQ(forward(compact()), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(forward(make({}, "abcd")), (std::vector<int>{0, 1, 2, 3}));
}

TEST_F(BagIterate, EndsBehindTheLastElementOfACompactBag)
{
    Bag* bag = compact();
    forward(bag);
    EXPECT_EQ(bag->curSlot, 3);
}

TEST_F(BagIterate, PassesTheUsedSlotsOfASlotMapButTheLast)
{
    EXPECT_EQ(forward(mapped()), (std::vector<int>{1, 2, 5}));
}

TEST_F(BagIterate, EndsAtTheLastSlotOfASlotMap)
{
    Bag* bag = mapped();
    forward(bag);
    EXPECT_EQ(bag->curSlot, 6);
}

TEST_F(BagIterate, NeverReachesTheSixteenthOfSixteenElementsGoingForward)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 16, .growIncrement = 16});
    fill(bag, 16);
    EXPECT_EQ(forward(bag), upTo(15));
    EXPECT_EQ(bag->curSlot, 15);
    EXPECT_EQ(bagLast(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 15);
}

TEST_F(BagIterate, ReachesTheSixteenthElementWhenTheBagHasGrown)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 16, .growIncrement = 16});
    fill(bag, 17);
    EXPECT_EQ(forward(bag), upTo(17));
    EXPECT_EQ(bag->curSlot, 31);
}

TEST_F(BagIterate, PassesElementsInEveryWordOfTheMap)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 200});
    fill(bag, 200);
    std::vector<int> kept;
    for (int slot = 0; slot < 200; ++slot) {
        if (slot % 17 == 3 || slot % 32 == 15 || slot % 16 == 0) {
            kept.push_back(slot);
        } else {
            deleteAt(bag, static_cast<uint16_t>(slot));
        }
    }
    EXPECT_EQ(forward(bag), kept);
    std::reverse(kept.begin(), kept.end());
    EXPECT_EQ(backward(bag), kept);
}

TEST_F(BagIterate, GoesOverEmptyWordsOfTheMap)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 200});
    fill(bag, 200);
    for (uint16_t slot = 0; slot < 199; ++slot) {
        if (slot != 130) {
            deleteAt(bag, slot);
        }
    }
    EXPECT_EQ(forward(bag), std::vector<int>{130});
    EXPECT_EQ(bag->curSlot, 199);
    EXPECT_EQ(backward(bag), (std::vector<int>{199, 130}));
}

TEST_F(BagIterate, FirstOfOneSlotIsItsElement)
{
    // Though that is the last slot as well.
    Bag* bag = make({.flags = kMapped, .initialSlots = 1}, "a");
    EXPECT_EQ(forward(bag), std::vector<int>{0});
    EXPECT_EQ(bag->curSlot, 1);
}

TEST_F(BagIterate, FirstGivesNoElementWhenOnlyTheLastSlotIsUsed)
{
    Bag* bag = make({.flags = kMapped}, "abcd");
    for (const uint16_t slot : Numbers{0, 1, 2}) {
        deleteAt(bag, slot);
    }
    EXPECT_EQ(bagFirst(bag), RM_NO_ELEMENT);
    EXPECT_EQ(bag->curSlot, 3);
}

TEST_F(BagIterate, FirstOfAnEmptyBagKeepsThePosition)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing}) {
        Bag* bag = make({.flags = flags});
        for (const uint16_t position : Numbers{0, 2, 9, 65535}) {
            bag->curSlot = position;
            EXPECT_EQ(bagFirst(bag), RM_NO_ELEMENT);
            EXPECT_EQ(bagLast(bag), RM_NO_ELEMENT);
            EXPECT_EQ(bag->curSlot, position);
        }
    }
}

TEST_F(BagIterate, NextFromNowhereStartsAtSlotZero)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing}) {
        Bag* bag = make({.flags = flags}, "abc");
        bag->curSlot = RM_NO_SLOT;
        EXPECT_EQ(bagNext(bag), RM_SUCCESS);
        EXPECT_EQ(bag->curSlot, 0);
    }
}

TEST_F(BagIterate, NextFromNowhereGoesOverHoles)
{
    Bag* bag = mapped();
    bag->curSlot = RM_NO_SLOT;
    EXPECT_EQ(bagNext(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 1);
}

TEST_F(BagIterate, NextAtTheEndGoesOneSlotOnEachTime)
{
    for (Bag* bag : {compact(), mapped()}) {
        forward(bag);
        for (int i = 1, end = bag->curSlot; i <= 5; ++i) {
            EXPECT_EQ(bagNext(bag), RM_NO_ELEMENT);
            EXPECT_EQ(bag->curSlot, end + i);
        }
    }
}

TEST_F(BagIterate, NextFromTheLastHandleGoesNowhereAndThenToSlotZero)
{
    for (Bag* bag : {compact(), make({.flags = kMapped}, "abc"), make({.flags = kRing}, "abc")}) {
        bag->curSlot = 65534;
        EXPECT_EQ(bagNext(bag), RM_NO_ELEMENT);
        EXPECT_EQ(bag->curSlot, RM_NO_SLOT);
        EXPECT_EQ(bagNext(bag), RM_SUCCESS);
        EXPECT_EQ(bag->curSlot, 0);
    }
}

TEST_F(BagIterate, NextOfAnEmptyBagGoesOneSlotOn)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing}) {
        Bag* bag = make({.flags = flags, .initialSlots = 0});
        EXPECT_EQ(bagNext(bag), RM_NO_ELEMENT);
        EXPECT_EQ(bag->curSlot, 0);
        EXPECT_EQ(bagNext(bag), RM_NO_ELEMENT);
        EXPECT_EQ(bag->curSlot, 1);
    }
}

// One step to the limit, whatever the number of free slots.
TEST_F(BagIterate, NextOfAnEmptySlotMapGoesToItsLastSlot)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 100});
    EXPECT_EQ(bagNext(bag), RM_NO_ELEMENT);
    EXPECT_EQ(bag->curSlot, 99);
}

TEST_F(BagIterate, GoesThroughAllHandles)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 65535});
    fill(bag, 65535);
    EXPECT_EQ(forward(bag), upTo(65534));
    EXPECT_EQ(bag->curSlot, 65534);
    EXPECT_EQ(backward(bag).size(), 65535U);
    Bag* compactBag = make({.initialSlots = 65535});
    fill(compactBag, 65535);
    EXPECT_EQ(forward(compactBag), upTo(65535));
    EXPECT_EQ(compactBag->curSlot, RM_NO_SLOT);
}

// --- Backwards

TEST_F(BagIterate, PassesAllElementsGoingBackward)
{
    EXPECT_EQ(backward(compact()), (std::vector<int>{2, 1, 0}));
    EXPECT_EQ(backward(mapped()), (std::vector<int>{6, 5, 2, 1}));
}

TEST_F(BagIterate, EndsAtSlotZeroGoingBackward)
{
    for (Bag* bag : {compact(), mapped()}) {
        backward(bag);
        EXPECT_EQ(bag->curSlot, 0);
        EXPECT_EQ(bagPrev(bag), RM_NO_ELEMENT);
        EXPECT_EQ(bag->curSlot, 0);
    }
}

TEST_F(BagIterate, LastGoesOverFreeSlotsAtTheEnd)
{
    Bag* bag = make({.flags = kMapped, .initialSlots = 100}, "ab");
    EXPECT_EQ(bagLast(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 1);
}

TEST_F(BagIterate, LastMayBeSlotZero)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing}) {
        Bag* bag = make({.flags = flags}, "a");
        bag->curSlot = 3;
        EXPECT_EQ(bagLast(bag), RM_SUCCESS);
        EXPECT_EQ(bag->curSlot, 0);
    }
}

TEST_F(BagIterate, PreviousFromNowhereGoesToTheLastElement)
{
    for (Bag* bag : {compact(), mapped()}) {
        const int last = (bag->ctl->flags & BAG_SLOT_MAP) != 0 ? 6 : 2;
        for (const int position : {65535, 65534, last + 1}) {
            bag->curSlot = static_cast<uint16_t>(position);
            EXPECT_EQ(bagPrev(bag), RM_SUCCESS);
            EXPECT_EQ(bag->curSlot, last);
        }
    }
}

TEST_F(BagIterate, PreviousOfAnEmptyBagEndsAtSlotZero)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing}) {
        Bag* bag = make({.flags = flags});
        EXPECT_EQ(bagPrev(bag), RM_NO_ELEMENT);
        EXPECT_EQ(bag->curSlot, 0);
    }
}

TEST_F(BagIterate, PreviousOverAHoleInSlotZeroEndsThere)
{
    Bag* bag = mapped();
    bagSetCurHandle(bag, 1);
    EXPECT_EQ(bagPrev(bag), RM_NO_ELEMENT);
    EXPECT_EQ(bag->curSlot, 0);
}

TEST_F(BagIterate, LogsNothing)
{
    for (Bag* bag : {compact(), mapped()}) {
        EXPECT_EQ(linesOf([&] {
                      forward(bag);
                      backward(bag);
                  }),
                  Lines{});
    }
}

}  // namespace
