// Making and destroying a dynamic array: its record, its tag, its arguments.
#include "tests/containers/darray_case.h"

#include <cerrno>
#include <limits>
#include <string_view>

#include <gmock/gmock.h>

using namespace arraytest;

namespace
{
using rmalloc::tagTable;
using rmtest::callCount;
using rmtest::callTrace;
using rmtest::captureStderr;
using ::testing::IsEmpty;

constexpr int16_t kLargest = std::numeric_limits<int16_t>::max();
constexpr int16_t kLowest = std::numeric_limits<int16_t>::min();

class DArrayCreate : public ArrayTest
{
  protected:
    int16_t blocksFor(int16_t maxEntries, int16_t entriesPerBlock)
    {
        return make(maxEntries, entriesPerBlock, 4)->maxBlocks;
    }
};

class DArrayDestroy : public ArrayTest
{
};

// --- How many blocks

TEST_F(DArrayCreate, AHundredEntriesByTenAreTenBlocks)
{
    EXPECT_EQ(blocksFor(100, 10), 10);
}

TEST_F(DArrayCreate, AHundredAndOneEntriesByTenAreElevenBlocks)
{
    EXPECT_EQ(blocksFor(101, 10), 11);
}

TEST_F(DArrayCreate, OneEntryIsOneBlock)
{
    EXPECT_EQ(blocksFor(1, 10), 1);
}

TEST_F(DArrayCreate, BlocksOfOneAreAsManyAsEntries)
{
    EXPECT_EQ(blocksFor(7, 1), 7);
    EXPECT_EQ(blocksFor(kLargest, 1), kLargest);
}

TEST_F(DArrayCreate, ABlockLargerThanAllEntriesIsOne)
{
    EXPECT_EQ(blocksFor(10, kLargest), 1);
    EXPECT_EQ(blocksFor(kLargest, kLargest), 1);
    EXPECT_EQ(blocksFor(kLargest, kLargest - 1), 2);
}

TEST_F(DArrayCreate, NoEntriesByManyAreABlockAllTheSame)
{
    EXPECT_EQ(blocksFor(0, 10), 1);
    EXPECT_EQ(blocksFor(0, 2), 1);
}

TEST_F(DArrayCreate, NoEntriesByOneAreNoBlockAndNoEntryCanBeMade)
{
    DArray* array = make(0, 1, 4);
    EXPECT_EQ(array->maxBlocks, 0);
    EXPECT_EQ(create(array).index, -1);
    EXPECT_EQ(array->blocks, nullptr);
}

// --- The record

TEST_F(DArrayCreate, TheFieldsStandInTheirOrder)
{
    EXPECT_EQ(offsetof(DArray, maxBlocks), 0U);
    EXPECT_EQ(offsetof(DArray, blockCount), 2U);
    EXPECT_EQ(offsetof(DArray, entriesPerBlock), 4U);
    EXPECT_EQ(offsetof(DArray, dataSize), 6U);
    EXPECT_EQ(offsetof(DArray, tag), 8U);
    // The next place that a pointer can have.
    EXPECT_EQ(offsetof(DArray, blocks),
              (10 + alignof(void*) - 1) / alignof(void*) * alignof(void*));
}

TEST_F(DArrayCreate, KeepsWhatItWasGivenAndMakesNoBlock)
{
    const DArray* array = make(100, 10, 24);
    EXPECT_EQ(array->entriesPerBlock, 10);
    EXPECT_EQ(array->dataSize, 24);
    EXPECT_EQ(array->blockCount, 0);
    EXPECT_EQ(array->blocks, nullptr);
}

TEST_F(DArrayCreate, TheRecordIsClearedInMemoryThatWasUsedBefore)
{
    const DirtyMemory dirty;
    const DArray* array = make(100, 10, 24);
    EXPECT_EQ(array->blockCount, 0);
    EXPECT_EQ(array->firstWithRoom, 0);
    EXPECT_EQ(array->blocks, nullptr);
}

TEST_F(DArrayCreate, TheRecordLiesInTheArraysOwnTag)
{
    DArray* array = make(100, 10, 24);
    EXPECT_TRUE(belongsTo(array, array->tag));
    EXPECT_EQ(rmalloc::headerOf(array)->units, rmalloc::unitsFor(sizeof(DArray)));
}

TEST_F(DArrayCreate, TakesOneSegmentAndNothingElse)
{
    usualSegments();
    make(100, 10, 24);
    rmtest::resetCalls();
    make(100, 10, 24);
    EXPECT_EQ(callCount(Call::kMalloc), 1);
}

// --- The tag

TEST_F(DArrayCreate, EachArrayHasATagOfItsOwn)
{
    const DArray* one = make(10, 10, 4);
    const DArray* other = make(10, 10, 4);
    EXPECT_GT(one->tag, 0);
    EXPECT_GT(other->tag, 0);
    EXPECT_NE(one->tag, other->tag);
}

TEST_F(DArrayCreate, TheTagIsTheLowestFreeOne)
{
    const Tag before = rm_allocTag(nullptr, RM_NO_LIMIT);
    const Tag between = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_freeTagMemory(between, 1);
    EXPECT_EQ(make(10, 10, 4)->tag, between);
    EXPECT_NE(before, between);
}

TEST_F(DArrayCreate, TheTagIsCalledDynamicArrayTag)
{
    const DArray* array = make(10, 10, 4);
    char* name = tagTable[array->tag].name;
    EXPECT_STREQ(name, "dynamic array tag");
    EXPECT_TRUE(belongsTo(name, array->tag)) << "the copy lies elsewhere";
}

TEST_F(DArrayCreate, TheTagHasNoLimitAndNoJump)
{
    const DArray* array = make(10, 10, 4);
    EXPECT_EQ(tagTable[array->tag].limit, RM_NO_LIMIT);
    EXPECT_EQ(tagTable[array->tag].state, rmalloc::kTagInUse);
    EXPECT_EQ(rm_memoryAvail(array->tag), -1);
}

TEST_F(DArrayCreate, TheTagTakesSegmentsOf2048Bytes)
{
    usualSegments();
    DArray* array = make(100, 10, 4);
    EXPECT_EQ(tagTable[array->tag].segmentSize, 2048U);
    rmtest::resetCalls();
    // The name came first, into a segment of the usual size: what is left there does for a while.
    while (callCount(Call::kMalloc) == 0) {
        rm_getMemory(200, array->tag);
    }
    EXPECT_EQ(callTrace({Call::kMalloc}).at(0).args[0], 2048);
}

TEST_F(DArrayCreate, TheNameLiesInASegmentOfTheUsualSizeOfATag)
{
    usualSegments();
    make(100, 10, 4);
    rmtest::resetCalls();
    make(100, 10, 4);
    EXPECT_EQ(callTrace({Call::kMalloc}).at(0).args[0], rmalloc::kDefaultSegmentSize);
}

TEST_F(DArrayCreate, ThereMayBeAsManyArraysAsTags)
{
    constexpr int kMany = 200;  // some steps of the tag table
    std::vector<DArray*> arrays;
    for (int i = 0; i < kMany; ++i) {
        arrays.push_back(make(4, 2, 8));
        ASSERT_EQ(create(arrays.back()).index, 0);
    }
    for (DArray* array : arrays) {
        ASSERT_STREQ(darrayGetEntryName(array, 0), "entry");
    }
}

// --- Arguments out of range

struct Arguments {
    int16_t maxEntries;
    int16_t entriesPerBlock;
    int16_t dataSize;
};

void PrintTo(const Arguments& given, std::ostream* out)
{
    *out << given.maxEntries << " by " << given.entriesPerBlock << ", " << given.dataSize;
}

class DArrayCreateOutOfRange : public ArrayTest, public ::testing::WithParamInterface<Arguments>
{
};

TEST_P(DArrayCreateOutOfRange, GivesNullAndTakesNothing)
{
    rm_getMemory(8, 0);
    const uint32_t memory = rm_memused();
    const int16_t tags = rmalloc::nTags;
    const Arguments& given = GetParam();
    const std::string log = captureStderr([&] {
        EXPECT_EQ(darrayCreate(given.maxEntries, given.entriesPerBlock, given.dataSize), nullptr);
    });
    EXPECT_THAT(log, IsEmpty());
    EXPECT_EQ(rm_memused(), memory);
    EXPECT_EQ(rmalloc::nTags, tags);
}

INSTANTIATE_TEST_SUITE_P(All, DArrayCreateOutOfRange,
                         ::testing::Values(Arguments{10, 0, 4}, Arguments{10, -1, 4},
                                           Arguments{10, kLowest, 4}, Arguments{-1, 10, 4},
                                           Arguments{kLowest, 10, 4}, Arguments{10, 10, -1},
                                           Arguments{10, 10, kLowest}, Arguments{0, 0, 0}));

TEST_F(DArrayCreate, TheSmallestArgumentsAreInRange)
{
    EXPECT_EQ(create(make(1, 1, 0)).index, 0);
}

// --- Without memory

TEST_F(DArrayCreate, WithoutMemoryForTheTagsSegmentIsFatal)
{
    rm_getMemory(8, 0);
    const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
    const std::string log =
        captureStderr([] { EXPECT_EQ(rmtest::catchFatal([] { darrayCreate(10, 10, 4); }), 1); });
    EXPECT_THAT(log, ::testing::HasSubstr("Out of memory!"));
}

TEST_F(DArrayCreate, AfterOneThatWasFatalAnotherSucceeds)
{
    rm_getMemory(8, 0);
    captureStderr([] {
        const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
        rmtest::catchFatal([] { darrayCreate(10, 10, 4); });
    });
    EXPECT_EQ(create(make(10, 10, 4)).index, 0);
}

// --- Destroying

TEST_F(DArrayDestroy, GivesBackEverything)
{
    rm_getMemory(8, 0);
    const uint32_t memory = rm_memused();
    DArray* array = make(1000, 10, 100);
    createMany(array, 95);
    EXPECT_GT(rm_memused(), memory);
    destroy(array);
    EXPECT_EQ(rm_memused(), memory);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

TEST_F(DArrayDestroy, FreesTheTagForReuse)
{
    DArray* array = make(10, 10, 4);
    const Tag tag = array->tag;
    destroy(array);
    EXPECT_EQ(tagTable[tag].state, rmalloc::kTagFree);
    EXPECT_EQ(rm_allocTag(nullptr, RM_NO_LIMIT), tag);
}

TEST_F(DArrayDestroy, LeavesOtherArraysAsTheyAre)
{
    DArray* gone = makeWith(15, 100, 10);
    DArray* stays = make(100, 10, 8);
    const Made made = create(stays, "kept");
    std::memcpy(made.data, "contents", 8);
    destroy(gone);
    EXPECT_STREQ(darrayGetEntryName(stays, made.index), "kept");
    EXPECT_EQ(std::memcmp(made.data, "contents", 8), 0);
}

TEST_F(DArrayDestroy, WorksOnAnArrayWithoutBlocks)
{
    rm_getMemory(8, 0);
    const uint32_t memory = rm_memused();
    destroy(make(10, 10, 4));
    EXPECT_EQ(rm_memused(), memory);
}

TEST_F(DArrayDestroy, DoesNothingToNull)
{
    const uint32_t memory = rm_memused();
    EXPECT_THAT(captureStderr([] { darrayDestroy(nullptr); }), IsEmpty());
    EXPECT_EQ(rm_memused(), memory);
}

TEST_F(DArrayCreate, WithoutMemoryForItsRecordIsFatalAndTheOthersGoOn)
{
    segmentsOfOneBlock();
    DArray* other = makeWith(1, 10, 10);
    {
        // The name of the tag, then the record.
        const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .skip = 1});
        const std::string log = captureStderr(
            [] { EXPECT_EQ(rmtest::catchFatal([] { darrayCreate(10, 10, 4); }), 1); });
        EXPECT_THAT(log, ::testing::HasSubstr("Out of memory!"));
        EXPECT_EQ(fault.hits(), 1);
    }
    EXPECT_EQ(create(other).index, 1);
    EXPECT_EQ(create(make(10, 10, 4)).index, 0);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

}  // namespace
