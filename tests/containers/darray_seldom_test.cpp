// The checker of dynamic arrays, on arrays whose bookkeeping was written over: what it counts, what
// it says, and that it comes to an end. What a case damages it puts right again.
#include "tests/containers/darray_case.h"

#include <utility>

#include <gmock/gmock.h>

using namespace arraytest;

namespace
{
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kNoEnd = "WARNING: dynamic array check: a free list does not end";
constexpr const char* kNotOnce =
    "WARNING: dynamic array check: a free entry is on no list, or on it twice";
constexpr const char* kPassedOver =
    "WARNING: dynamic array check: a block with room is passed over";

class DArrayChecker : public ArrayTest
{
  protected:
    // What it says about the array; each line is one violation.
    static Lines linesOfCheck(const DArray* array)
    {
        uint32_t violations = 0;
        Lines lines = rmtest::logLines(
            rmtest::captureStderr([&] { violations = darrays::checkDArray(array); }));
        EXPECT_EQ(violations, lines.size());
        return lines;
    }
};

TEST_F(DArrayChecker, FollowsAFreeListToWhereItLeadsOutOfTheBlock)
{
    DArray* array = makeWith(3, 100, 10);
    int16_t& next = array->blocks[0]->entries[3].nextFree;
    const int16_t sound = next;
    for (const int16_t outside : {int16_t{10}, int16_t{32'767}, int16_t{-2}, int16_t{-32'768}}) {
        next = outside;
        EXPECT_THAT(linesOfCheck(array), ElementsAre(kNoEnd, kNotOnce)) << outside;
    }
    next = sound;
    EXPECT_THAT(linesOfCheck(array), IsEmpty());
}

TEST_F(DArrayChecker, SeesAFirstEntryOutsideOfTheBlock)
{
    DArray* array = makeWith(3, 100, 10);
    const int16_t sound = std::exchange(array->blocks[0]->freeHead, int16_t{10});
    EXPECT_THAT(linesOfCheck(array), ElementsAre(kNoEnd, kNotOnce));
    array->blocks[0]->freeHead = sound;
}

// The last block reaches beyond the largest index: what is behind that is on no list.
TEST_F(DArrayChecker, SeesAListThatGoesOnBehindTheLargestIndex)
{
    constexpr int16_t kPerBlock = 20'000;
    constexpr int16_t kLastSlot = 12'767;
    DArray* array = make(32'767, kPerBlock, 0);
    createMany(array, kPerBlock + 1);
    ASSERT_EQ(array->blockCount, 2);
    int16_t& next = array->blocks[1]->entries[kLastSlot].nextFree;
    ASSERT_EQ(next, kNoSlot);
    next = kLastSlot + 1;
    EXPECT_THAT(linesOfCheck(array), ElementsAre(kNoEnd));
    next = kNoSlot;
}

TEST_F(DArrayChecker, ComesToAnEndWhereAListDoesNot)
{
    DArray* array = makeWith(3, 100, 10);
    int16_t& next = array->blocks[0]->entries[9].nextFree;
    next = 3;
    EXPECT_THAT(linesOfCheck(array), ElementsAre(kNoEnd, kNotOnce));
    next = kNoSlot;
}

TEST_F(DArrayChecker, SeesABlockWithRoomBelowTheFirstOne)
{
    DArray* array = makeWith(25, 100, 10);
    darrayDeleteEntry(array, 4);
    const int16_t sound = std::exchange(array->firstWithRoom, int16_t{2});
    EXPECT_THAT(linesOfCheck(array), ElementsAre(kPassedOver));
    array->firstWithRoom = 3;  // all of them full
    EXPECT_THAT(linesOfCheck(array), ElementsAre(kPassedOver, kPassedOver));
    array->firstWithRoom = sound;
}

TEST_F(DArrayChecker, SeesASecondBlockWithRoomBesideTheOnlyOne)
{
    DArray* array = makeWith(25, 100, 10);
    darrayDeleteEntry(array, 4);
    const int16_t sound = std::exchange(array->firstWithRoom, int16_t{~2});
    EXPECT_THAT(linesOfCheck(array), ElementsAre(kPassedOver));
    array->firstWithRoom = int16_t{~0};
    EXPECT_THAT(linesOfCheck(array), ElementsAre(kPassedOver));
    array->firstWithRoom = sound;
    EXPECT_THAT(linesOfCheck(array), IsEmpty());
}

}  // namespace
