// Rings: which slot an addition takes, what growth moves, and what deletions leave.
#include "tests/containers/bag_case.h"

using namespace bagtest;

namespace
{

class BagRing : public BagTest
{
  protected:
    // A ring of 4 slots in which the oldest element has given its slot to "e": "ebcd >1".
    Bag* wrapped(uint16_t increment, uint16_t threshold = 100)
    {
        Bag* bag =
            make({.flags = kRing, .growIncrement = increment, .growThreshold = threshold}, "abcd");
        deleteAt(bag, 0);
        addAll(bag, "e");
        EXPECT_EQ(draw(bag), "ebcd @0 >1");
        return bag;
    }
};

TEST_F(BagRing, HandsOutItsSlotsInTurnAndMakesThemCurrent)
{
    Bag* bag = make({.flags = kRing}, "a");
    EXPECT_EQ(draw(bag), "a... @0 >1");
    addAll(bag, "b");
    EXPECT_EQ(draw(bag), "ab.. @1 >2");
    addAll(bag, "c");
    EXPECT_EQ(draw(bag), "abc. @2 >3");
}

TEST_F(BagRing, GoesRoundBehindTheLastSlot)
{
    Bag* bag = make({.flags = kRing}, "abcd");
    EXPECT_EQ(draw(bag), "abcd @3 >0");
}

TEST_F(BagRing, TakesTheNextSlotThoughALowerOneIsFree)
{
    Bag* bag = make({.flags = kRing}, "ab");
    deleteAt(bag, 0);
    addAll(bag, "c");
    EXPECT_EQ(draw(bag), ".bc. @2 >3");
}

TEST_F(BagRing, TakesTheSlotsOfDeletedElementsOnTheNextRound)
{
    Bag* bag = make({.flags = kRing}, "abcd");
    deleteAt(bag, 0);
    deleteAt(bag, 1);
    addAll(bag, "e");
    EXPECT_EQ(draw(bag), "e.cd @0 >1");
    addAll(bag, "f");
    EXPECT_EQ(draw(bag), "efcd @1 >2");
}

TEST_F(BagRing, OfOneSlotStaysAtIt)
{
    Bag* bag = make({.flags = kRing, .initialSlots = 1}, "a");
    EXPECT_EQ(draw(bag), "a @0 >0");
    EXPECT_EQ(deleteAt(bag, 0), RM_NO_ELEMENT);
    addAll(bag, "b");
    EXPECT_EQ(draw(bag), "b @0 >0");
}

// --- Growth

TEST_F(BagRing, WithoutSlotsGrowsWithoutMoving)
{
    EXPECT_EQ(draw(make({.flags = kRing, .initialSlots = 0, .growIncrement = 3}, "a")),
              "a.. @0 >1");
}

TEST_F(BagRing, WithoutSlotsGrowsByOneAndGoesRound)
{
    EXPECT_EQ(draw(make({.flags = kRing, .initialSlots = 0, .growIncrement = 1}, "a")), "a @0 >0");
}

// The bytes from 1 on, as many as the elements from the next slot on have, go to those from 3 on:
// the increment further, and one byte short of the old end. The new element comes on top.
TEST_F(BagRing, GrowsByTheByteMoveThatEndsOneByteShort)
{
    Bag* bag = wrapped(2);
    addAll(bag, "f");
    EXPECT_EQ(draw(bag), "ebcbfd @1 >5");
}

// The third byte of the move would go behind the data area.
TEST_F(BagRing, DoesNotMoveBytesBehindTheDataArea)
{
    Bag* bag = wrapped(1);
    addAll(bag, "f");
    EXPECT_EQ(draw(bag), "ebccf @1 >0");
}

// The first byte of the move would come from before the data area.
TEST_F(BagRing, DoesNotMoveBytesFromBeforeTheDataArea)
{
    Bag* bag = make({.flags = kRing}, "abcd");
    addAll(bag, "e");
    EXPECT_EQ(draw(bag), "abcdebc. @0 >5");
}

TEST_F(BagRing, DoesNotMoveWhenAllBytesComeFromBeforeTheDataArea)
{
    Bag* bag = wrapped(9);
    addAll(bag, "f");
    EXPECT_EQ(draw(bag), "ebcdf........ @1 >5");
}

TEST_F(BagRing, DoublesByTheSameMove)
{
    Bag* bag = wrapped(1, 4);
    addAll(bag, "f");
    EXPECT_EQ(draw(bag), "ebcdfb.. @1 >5");
}

TEST_F(BagRing, MovesBytesAndNotElements)
{
    Bag* bag = make({.flags = kRing, .initialSlots = 3, .growIncrement = 1, .elementSize = 2});
    for (const char* element : {"Aa", "Bb", "Cc"}) {
        bagAdd(bag, element);
    }
    deleteAt(bag, 0);
    bagAdd(bag, "Dd");
    EXPECT_EQ(draw(bag), "DdBbCc @0 >1");
    bagAdd(bag, "Ee");
    EXPECT_EQ(draw(bag), "DdBbCbEe @1 >0");
}

TEST_F(BagRing, GrowsByOneSlotAndGoesRoundEachTime)
{
    Bag* bag = make({.flags = kRing, .initialSlots = 1, .growIncrement = 1}, "a");
    addAll(bag, "b");
    EXPECT_EQ(draw(bag), "ab @0 >0");
    addAll(bag, "c");
    EXPECT_EQ(draw(bag), "aac @0 >0");
}

TEST_F(BagRing, LeavesItsNeighboursInMemoryWhenItGrows)
{
    for (uint16_t increment = 1; increment <= 12; ++increment) {
        for (int turns = 0; turns < 6; ++turns) {
            Bag* bag = make(
                {.flags = kRing, .initialSlots = 6, .growIncrement = increment, .elementSize = 8});
            fill(bag, 6);
            for (int i = 0; i < turns; ++i) {
                deleteAt(bag, 0);
                fill(bag, 1);
            }
            fill(bag, 1);
            ASSERT_EQ(rmalloc::checkMemory(), 0U) << increment << ", " << turns;
            ASSERT_EQ(bags::checkBag(bag), 0U) << increment << ", " << turns;
        }
    }
}

TEST_F(BagRing, LeavesThePositionWhereTheNextElementWouldHaveGone)
{
    Bag* bag = wrapped(8);
    bagLast(bag);
    addAll(bag, "f");
    EXPECT_EQ(bag->curSlot, 1);
    EXPECT_EQ(bag->nextSlot, 5);
}

// --- Deletion

TEST_F(BagRing, DeletesAndGoesToTheNextElement)
{
    Bag* bag = make({.flags = kRing}, "abc");
    EXPECT_EQ(deleteAt(bag, 0), RM_SUCCESS);
    EXPECT_EQ(draw(bag), ".bc. @1 >3");
    EXPECT_EQ(bag->usedCount, 2);
}

// What is left is 2 elements, so slot 2 is no longer reached.
TEST_F(BagRing, GivesTheStatusOfTheStepBehindADeletion)
{
    Bag* bag = make({.flags = kRing}, "abc");
    EXPECT_EQ(deleteAt(bag, 1), RM_NO_ELEMENT);
    EXPECT_EQ(draw(bag), "a.c. @2 >3");
    EXPECT_EQ(bag->usedCount, 2);
}

TEST_F(BagRing, DeletesSlotsBeyondTheCountOfElements)
{
    Bag* bag = make({.flags = kRing}, "abcd");
    deleteAt(bag, 0);
    bagLast(bag);
    EXPECT_EQ(bagDelete(bag), RM_NO_ELEMENT);
    EXPECT_EQ(draw(bag), ".bc. @4 >0");
    EXPECT_EQ(bag->usedCount, 2);
}

TEST_F(BagRing, DeletesAHoleLikeAnElement)
{
    Bag* bag = make({.flags = kRing}, "abcd");
    deleteAt(bag, 0);
    EXPECT_EQ(deleteAt(bag, 0), RM_SUCCESS);
    EXPECT_EQ(bag->usedCount, 2);
    EXPECT_EQ(draw(bag), ".bcd @1 >0");
}

TEST_F(BagRing, WithoutElementsDeletesNothing)
{
    Bag* bag = make({.flags = kRing}, "a");
    deleteAt(bag, 0);
    bag->curSlot = 0;
    EXPECT_EQ(bagDelete(bag), RM_NO_ELEMENT);
    EXPECT_EQ(draw(bag), ".... @0 >1");
    EXPECT_EQ(bag->usedCount, 0);
}

TEST_F(BagRing, LogsNothing)
{
    EXPECT_EQ(linesOf([&] {
                  Bag* bag = wrapped(1);
                  addAll(bag, "fgh");
                  bagFirst(bag);
                  bagDelete(bag);
              }),
              Lines{});
}

// --- First, last, next, previous

TEST_F(BagRing, BeginsWithTheOldest)
{
    Bag* bag = make({.flags = kRing}, "abc");
    EXPECT_EQ(bagFirst(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 0);
    deleteAt(bag, 0);
    EXPECT_EQ(bagFirst(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 1);
}

TEST_F(BagRing, BeginsWithTheOldestAfterItWentRound)
{
    Bag* bag = wrapped(4);
    EXPECT_EQ(bagFirst(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 1);
}

TEST_F(BagRing, BeginsWithSlotZeroWhenItIsJustFull)
{
    Bag* bag = make({.flags = kRing}, "abcd");
    EXPECT_EQ(bagFirst(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 0);
}

TEST_F(BagRing, EndsWithTheNewest)
{
    Bag* bag = make({.flags = kRing}, "abc");
    bagFirst(bag);
    EXPECT_EQ(bagLast(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 2);
}

TEST_F(BagRing, EndsWithTheNewestAfterItWentRound)
{
    Bag* bag = make({.flags = kRing}, "abcd");
    bagFirst(bag);
    EXPECT_EQ(bagLast(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 3);
    bag = wrapped(4);
    bagFirst(bag);
    EXPECT_EQ(bagLast(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 0);
}

TEST_F(BagRing, DoesNotGoRoundInAnIteration)
{
    Bag* bag = wrapped(4);
    bagFirst(bag);
    EXPECT_EQ(bagNext(bag), RM_SUCCESS);
    EXPECT_EQ(bagNext(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 3);
    EXPECT_EQ(bagNext(bag), RM_NO_ELEMENT);
    EXPECT_EQ(bag->curSlot, 4);
}

TEST_F(BagRing, IteratesToTheCountOfElementsOnly)
{
    Bag* bag = make({.flags = kRing}, "abcd");
    deleteAt(bag, 0);
    bagFirst(bag);
    EXPECT_EQ(bagNext(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 2);
    EXPECT_EQ(bagNext(bag), RM_NO_ELEMENT);
    EXPECT_EQ(bag->curSlot, 3);
}

TEST_F(BagRing, GoesBackOverTheFirstSlots)
{
    Bag* bag = make({.flags = kRing}, "abcd");
    deleteAt(bag, 0);
    bag->curSlot = RM_NO_SLOT;
    EXPECT_EQ(bagPrev(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 2);
    EXPECT_EQ(bagPrev(bag), RM_SUCCESS);
    EXPECT_EQ(bagPrev(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 0);
    EXPECT_EQ(bagPrev(bag), RM_NO_ELEMENT);
}

TEST_F(BagRing, TakesHandlesBelowTheCountOfElements)
{
    Bag* bag = make({.flags = kRing}, "abcd");
    deleteAt(bag, 0);
    EXPECT_EQ(bagSetCurHandle(bag, 2), RM_SUCCESS);
    EXPECT_EQ(bagSetCurHandle(bag, 3), RM_NOT_FOUND);
    EXPECT_EQ(draw(bag), ".bcd @- >0");
}

TEST_F(BagRing, ReadsEverySlot)
{
    Bag* bag = make({.flags = kRing}, "abcd");
    deleteAt(bag, 0);
    char byte = 'u';
    bag->curSlot = 3;
    EXPECT_EQ(bagGetCurData(bag, &byte), RM_SUCCESS);
    EXPECT_EQ(byte, 'd');
    bag->curSlot = 0;
    EXPECT_EQ(bagGetCurData(bag, &byte), RM_SUCCESS);
    EXPECT_EQ(byte, '\0');
    bag->curSlot = 4;
    EXPECT_EQ(bagGetCurData(bag, &byte), RM_NO_ELEMENT);
}

// --- With a slot map as well

class BagRingWithMap : public BagTest
{
};

TEST_F(BagRingWithMap, TakesItsSlotsAsARing)
{
    Bag* bag = make({.flags = kRing | kMapped}, "abc");
    deleteAt(bag, 0);
    addAll(bag, "d");
    EXPECT_EQ(draw(bag), ".bcd xxxx @3 >0");
}

TEST_F(BagRingWithMap, DeletesAsARing)
{
    Bag* bag = make({.flags = kRing | kMapped}, "abc");
    EXPECT_EQ(deleteAt(bag, 1), RM_SUCCESS);
    EXPECT_EQ(draw(bag), "a.c. xxx. @2 >3");
    EXPECT_EQ(bag->usedCount, 2);
}

TEST_F(BagRingWithMap, GrowsAsBoth)
{
    Bag* bag = make({.flags = kRing | kMapped, .growIncrement = 2}, "abcd");
    deleteAt(bag, 0);
    addAll(bag, "ef");
    EXPECT_EQ(draw(bag), "ebcbfd xxxxx. @4 >5");
}

TEST_F(BagRingWithMap, IteratesAsASlotMap)
{
    Bag* bag = make({.flags = kRing | kMapped}, "abcd");
    EXPECT_EQ(bagFirst(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 0);
    EXPECT_EQ(bagNext(bag), RM_SUCCESS);
    EXPECT_EQ(bagNext(bag), RM_SUCCESS);
    EXPECT_EQ(bagNext(bag), RM_NO_ELEMENT);
    EXPECT_EQ(bag->curSlot, 3);
    EXPECT_EQ(bagLast(bag), RM_SUCCESS);
    EXPECT_EQ(bag->curSlot, 3);
}

}  // namespace
