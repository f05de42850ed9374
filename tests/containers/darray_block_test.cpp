// Blocks of a dynamic array: when one is made, what it consists of, how far indexes reach.
#include "tests/containers/darray_case.h"

#include <cerrno>
#include <limits>

#include <gmock/gmock.h>

using namespace arraytest;

namespace
{
using rmtest::callTrace;
using ::testing::Each;
using ::testing::ElementsAre;

constexpr int16_t kLargest = std::numeric_limits<int16_t>::max();

class DArrayBlock : public ArrayTest
{
  protected:
    // Bytes that `body` asks the memory manager for, in order.
    static std::vector<int64_t> requestsOf(const std::function<void()>& body)
    {
        rmtest::resetCalls();
        body();
        std::vector<int64_t> sizes;
        for (const CallRecord& call : callTrace({Call::kAllocBlock})) {
            sizes.push_back(call.args[0]);
        }
        return sizes;
    }

    static int64_t bytesOf(std::size_t count, std::size_t size)
    {
        return static_cast<int64_t>(count * size);
    }
};

class DArrayIndex : public ArrayTest
{
};

// --- When, and in which order

TEST_F(DArrayBlock, TheFirstEntryMakesTheFirstBlock)
{
    DArray* array = make(100, 10, 8);
    EXPECT_EQ(create(array).index, 0);
    EXPECT_EQ(array->blockCount, 1);
}

TEST_F(DArrayBlock, TheEleventhOfTensMakesTheSecondBlock)
{
    DArray* array = makeWith(10, 100, 10);
    EXPECT_EQ(array->blockCount, 1);
    EXPECT_EQ(create(array).index, 10);
    EXPECT_EQ(array->blockCount, 2);
}

TEST_F(DArrayBlock, TheFirstIsTheTableTheBlockItsHeadersAndItsRecords)
{
    DArray* array = make(95, 10, 24);
    EXPECT_THAT(requestsOf([&] { create(array); }),
                ElementsAre(bytesOf(10, sizeof(Block*)), bytesOf(1, sizeof(Block)),
                            bytesOf(10, sizeof(Entry)), bytesOf(10, 24)));
}

TEST_F(DArrayBlock, AFurtherOneLeavesTheTableAsItIs)
{
    DArray* array = makeWith(10, 95, 10, 24);
    Block** table = array->blocks;
    EXPECT_THAT(
        requestsOf([&] { create(array); }),
        ElementsAre(bytesOf(1, sizeof(Block)), bytesOf(10, sizeof(Entry)), bytesOf(10, 24)));
    EXPECT_EQ(array->blocks, table);
}

TEST_F(DArrayBlock, NoneIsMadeWhileThereIsRoom)
{
    DArray* array = makeWith(1, 95, 10, 24);
    EXPECT_THAT(requestsOf([&] { createMany(array, 9); }), ElementsAre());
}

TEST_F(DArrayBlock, NoneIsRemovedWhenItsEntriesAreDeleted)
{
    DArray* array = makeWith(20, 100, 10);
    for (const int16_t index : upFrom(0, 20)) {
        darrayDeleteEntry(array, index);
    }
    EXPECT_EQ(array->blockCount, 2);
    EXPECT_NE(darrayGetEntryPtr(array, 19), nullptr);
}

TEST_F(DArrayBlock, AllOfItLiesInTheArraysTag)
{
    DArray* array = makeWith(1, 100, 10, 24);
    Block* block = array->blocks[0];
    EXPECT_TRUE(belongsTo(array->blocks, array->tag));
    EXPECT_TRUE(belongsTo(block, array->tag));
    EXPECT_TRUE(belongsTo(block->entries, array->tag));
    EXPECT_TRUE(belongsTo(block->data, array->tag));
}

TEST_F(DArrayBlock, MakingOneDirectlyAddsItBehindTheOthers)
{
    DArray* array = makeWith(10, 100, 10);
    Block* first = array->blocks[0];
    darrays::darrayMakeNewBlock(array);
    EXPECT_EQ(array->blockCount, 2);
    EXPECT_EQ(array->blocks[0], first);
    EXPECT_EQ(freeList(array, 1), upFrom(0, 10));
}

// --- What it is made of

TEST_F(DArrayBlock, TheFieldsStandInTheirOrder)
{
    EXPECT_EQ(offsetof(Block, freeHead), 0U);
    EXPECT_EQ(offsetof(Block, entries), sizeof(void*));
    EXPECT_EQ(offsetof(Block, data), 2 * sizeof(void*));
    EXPECT_EQ(offsetof(Entry, name), 0U);
    EXPECT_EQ(offsetof(Entry, nextFree), sizeof(void*));
}

TEST_F(DArrayBlock, ANewOneHandsOutItsSlotsUpward)
{
    DArray* array = make(100, 10, 8);
    darrays::darrayMakeNewBlock(array);
    EXPECT_EQ(array->blocks[0]->freeHead, 0);
    EXPECT_EQ(freeList(array, 0), upFrom(0, 10));
    EXPECT_EQ(createMany(array, 10), upFrom(0, 10));
}

TEST_F(DArrayBlock, TheLastSlotEndsTheList)
{
    DArray* array = make(100, 10, 8);
    darrays::darrayMakeNewBlock(array);
    EXPECT_EQ(array->blocks[0]->entries[9].nextFree, kNoSlot);
}

TEST_F(DArrayBlock, AFullOneHasNoHead)
{
    const DArray* array = makeWith(10, 100, 10);
    EXPECT_EQ(array->blocks[0]->freeHead, kNoSlot);
}

TEST_F(DArrayBlock, ABlockOfOneIsFullWithOne)
{
    DArray* array = make(3, 1, 8);
    EXPECT_EQ(createMany(array, 4), (Slots{0, 1, 2, -1}));
    EXPECT_EQ(array->blocks[2]->freeHead, kNoSlot);
}

TEST_F(DArrayBlock, NamesAreNullInMemoryThatWasUsedBefore)
{
    const DirtyMemory dirty;
    DArray* array = make(100, 10, 8);
    create(array);
    for (const int16_t index : upFrom(1, 9)) {
        EXPECT_EQ(darrayGetEntryName(array, index), nullptr) << index;
    }
}

TEST_F(DArrayBlock, RecordsAreNotClearedInMemoryThatWasUsedBefore)
{
    const DirtyMemory dirty;
    DArray* array = make(100, 10, 100);
    const Made made = create(array);
    const auto* bytes = static_cast<const uint8_t*>(made.data);
    EXPECT_THAT(std::vector<uint8_t>(bytes, bytes + 100), Each(kDirt));
}

TEST_F(DArrayBlock, RecordsFollowEachOtherBySize)
{
    for (const int16_t size : Slots{1, 3, 8, 100}) {
        DArray* array = makeWith(3, 100, 10, size);
        const char* first = array->blocks[0]->data;
        for (int16_t index = 0; index < 10; ++index) {
            EXPECT_EQ(darrayGetEntryPtr(array, index), first + std::ptrdiff_t{index} * size);
        }
    }
}

TEST_F(DArrayBlock, RecordsOfAMultipleOfEightAreAlignedToEight)
{
    DArray* array = make(100, 5, 24);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(create(array).data) % 8, 0U);
    }
}

TEST_F(DArrayBlock, RecordsOfNoBytesAllStandAtTheStartOfTheirBlock)
{
    DArray* array = make(20, 10, 0);
    const Made first = create(array);
    const Made second = create(array);
    EXPECT_NE(first.data, nullptr);
    EXPECT_EQ(second.data, first.data);
    EXPECT_EQ(second.index, 1);
    EXPECT_EQ(createMany(array, 19),
              (Slots{2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, -1}));
}

TEST_F(DArrayBlock, EveryByteOfEveryRecordIsTheCallers)
{
    segmentsOfOneBlock();
    DArray* array = make(21, 7, 13);
    std::vector<void*> records;
    for (int i = 0; i < 21; ++i) {
        records.push_back(create(array).data);
        std::memset(records.back(), i, 13);
    }
    for (int i = 0; i < 21; ++i) {
        const std::string expected(13, static_cast<char>(i));
        EXPECT_EQ(std::memcmp(records[static_cast<std::size_t>(i)], expected.data(), 13), 0) << i;
    }
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

// --- Index, block and slot

TEST_F(DArrayIndex, IsBlockTimesSizePlusSlot)
{
    DArray* array = makeWith(25, 100, 7);
    for (int16_t index = 0; index < 28; ++index) {
        Block* block = nullptr;
        int16_t slot = kNoSlot;
        const Entry* entry = darrays::darrayGetEntryPtrEx(array, index, &block, &slot);
        EXPECT_EQ(block, array->blocks[index / 7]);
        EXPECT_EQ(slot, index % 7);
        EXPECT_EQ(entry, &block->entries[slot]);
        EXPECT_EQ(darrayGetEntryPtr(array, index), block->data + std::ptrdiff_t{slot} * 8);
    }
}

TEST_F(DArrayIndex, StoresBlockAndSlotOnlyWhereTheyAreWanted)
{
    DArray* array = makeWith(25, 100, 7);
    Block* block = nullptr;
    int16_t slot = kNoSlot;
    const Entry* entry = &array->blocks[1]->entries[2];
    EXPECT_EQ(darrays::darrayGetEntryPtrEx(array, 9, nullptr, nullptr), entry);
    EXPECT_EQ(darrays::darrayGetEntryPtrEx(array, 9, &block, nullptr), entry);
    EXPECT_EQ(darrays::darrayGetEntryPtrEx(array, 9, nullptr, &slot), entry);
    EXPECT_EQ(block, array->blocks[1]);
    EXPECT_EQ(slot, 2);
}

TEST_F(DArrayIndex, BeyondTheBlocksGivesNullNullAndNoSlot)
{
    DArray* array = makeWith(25, 100, 7);  // 4 blocks
    for (const int16_t index : {int16_t{28}, int16_t{34}, int16_t{35}, int16_t{99}, kLargest}) {
        Block* block = array->blocks[0];
        int16_t slot = 0;
        EXPECT_EQ(darrays::darrayGetEntryPtrEx(array, index, &block, &slot), nullptr) << index;
        EXPECT_EQ(block, nullptr) << index;
        EXPECT_EQ(slot, -1) << index;
        EXPECT_EQ(darrays::darrayGetEntryPtrEx(array, index, nullptr, nullptr), nullptr) << index;
    }
}

TEST_F(DArrayIndex, InTheBlockThatComesNextGivesNull)
{
    DArray* array = makeWith(10, 100, 10);
    EXPECT_EQ(darrayGetEntryPtr(array, 10), nullptr);
    EXPECT_EQ(darrayGetEntryPtr(array, 19), nullptr);
    EXPECT_EQ(darrayGetEntryName(array, 10), nullptr);
}

TEST_F(DArrayIndex, InTheBlockBehindTheLastPossibleOneGivesNull)
{
    DArray* array = makeWith(20, 20, 10);
    EXPECT_EQ(darrayGetEntryPtr(array, 20), nullptr);
    EXPECT_EQ(darrayGetEntryName(array, 20), nullptr);
    darrayDeleteEntry(array, 20);
}

TEST_F(DArrayIndex, WithoutBlocksGivesNull)
{
    DArray* array = make(20, 10, 8);
    for (const int16_t index : {int16_t{0}, int16_t{9}, int16_t{10}, int16_t{-1}, kLargest}) {
        EXPECT_EQ(darrayGetEntryPtr(array, index), nullptr) << index;
        EXPECT_EQ(darrayGetEntryName(array, index), nullptr) << index;
        darrayDeleteEntry(array, index);
    }
}

TEST_F(DArrayIndex, BelowZeroGivesNull)
{
    DArray* array = makeWith(25, 100, 10);
    constexpr int16_t kLowest = std::numeric_limits<int16_t>::min();
    for (const int16_t index : {int16_t{-1}, int16_t{-9}, int16_t{-10}, int16_t{-11}, kLowest}) {
        Block* block = array->blocks[0];
        int16_t slot = 0;
        EXPECT_EQ(darrays::darrayGetEntryPtrEx(array, index, &block, &slot), nullptr) << index;
        EXPECT_EQ(block, nullptr) << index;
        EXPECT_EQ(slot, -1) << index;
        EXPECT_EQ(darrayGetEntryPtr(array, index), nullptr) << index;
        EXPECT_EQ(darrayGetEntryName(array, index), nullptr) << index;
    }
}

// --- As far as indexes go

TEST_F(DArrayIndex, EndsAt32767ThoughTheLastBlockWouldReachFurther)
{
    constexpr int16_t kPerBlock = 20'000;
    DArray* array = make(kLargest, kPerBlock, 0);
    EXPECT_EQ(array->maxBlocks, 2);
    for (int32_t expected = 0; expected <= kLargest; ++expected) {
        ASSERT_EQ(darrayCreateEntry(array, "entry", nullptr), expected);
    }
    EXPECT_EQ(create(array).index, -1);
    EXPECT_STREQ(darrayGetEntryName(array, kLargest), "entry");
}

TEST_F(DArrayIndex, TheLastOneIsDeletedAndMadeAgain)
{
    constexpr int16_t kPerBlock = 20'000;
    DArray* array = make(kLargest, kPerBlock, 0);
    createMany(array, 32'768, "many");
    darrayDeleteEntry(array, kLargest);
    EXPECT_EQ(create(array, "last").index, kLargest);
    EXPECT_EQ(darrayFindEntry(array, "last", nullptr), kLargest);
    EXPECT_EQ(create(array).index, -1);
}

TEST_F(DArrayIndex, TheLargestBlockHoldsEveryIndexBelow32767)
{
    DArray* array = make(kLargest, kLargest, 1);
    EXPECT_EQ(array->maxBlocks, 1);
    EXPECT_EQ(createMany(array, kLargest).back(), kLargest - 1);
    EXPECT_EQ(create(array).index, -1);
    EXPECT_EQ(darrayGetEntryPtr(array, kLargest), nullptr);
}

TEST_F(DArrayIndex, ManyBlocksReachTheLastIndexExactly)
{
    DArray* array = make(kLargest, 16, 0);
    EXPECT_EQ(array->maxBlocks, 2048);
    EXPECT_EQ(createMany(array, 32'768).back(), kLargest);
    EXPECT_EQ(create(array).index, -1);
    EXPECT_STREQ(darrayGetEntryName(array, kLargest), "entry");
}

// As a number without a sign it would lie in the last block.
TEST_F(DArrayIndex, BelowZeroGivesNullThoughTheLastBlockReachesBeyondTheLargest)
{
    DArray* array = make(kLargest, 20'000, 1);
    createMany(array, 20'001);
    for (const int16_t index : {int16_t{-1}, std::numeric_limits<int16_t>::min()}) {
        EXPECT_EQ(darrayGetEntryPtr(array, index), nullptr) << index;
        EXPECT_EQ(darrayGetEntryName(array, index), nullptr) << index;
        darrayDeleteEntry(array, index);
    }
}

TEST_F(DArrayBlock, TheLargestRecordsAreAskedForInFull)
{
    DArray* array = make(kLargest, kLargest, kLargest);
    int64_t asked = 0;
    const ScopedFault fault({.call = Call::kMalloc,
                             .error = ENOMEM,
                             .when =
                                 [&](const CallRecord& call) {
                                     asked = call.args[0];
                                     return asked > 1'000'000'000;
                                 },
                             .action = nullptr});
    rmtest::captureStderr([&] { rmtest::catchFatal([&] { create(array); }); });
    EXPECT_GE(asked, int64_t{kLargest} * kLargest);
    EXPECT_EQ(array->blockCount, 0);
}

}  // namespace
