// Pools without another process: the record, which element a caller gets and what is in it, and
// what goes when a pool goes.
#include "tests/rmutil/pool_case.h"

#include <cerrno>
#include <limits>

using namespace pooltest;

namespace
{
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PoolAlloc : public PoolTest
{
};

class PoolGet : public PoolTest
{
};

class PoolPut : public PoolTest
{
};

class PoolFree : public PoolTest
{
};

std::vector<uint8_t> bytesOf(const void* element, std::size_t size)
{
    const auto* bytes = static_cast<const uint8_t*>(element);
    return {bytes, bytes + size};
}

// --- The record

TEST_F(PoolAlloc, TheFieldsStandInTheirOrder)
{
    EXPECT_EQ(offsetof(RmPool, freeList), 0U);
    EXPECT_EQ(offsetof(RmPool, tag), sizeof(void*));
    EXPECT_EQ(offsetof(RmPool, maximum), sizeof(void*) + 4);
    EXPECT_EQ(offsetof(RmPool, count), sizeof(void*) + 8);
    EXPECT_EQ(offsetof(RmPool, lock), sizeof(void*) + 12);
    EXPECT_EQ(offsetof(RmPool, timeout), sizeof(void*) + 16);
    EXPECT_EQ(sizeof(PoolElement), sizeof(void*));
}

TEST_F(PoolAlloc, FillsEveryFieldInMemoryThatWasUsedBefore)
{
    const ScopedFault dirty(
        {.call = Call::kMalloc, .times = kForever, .action = [](const CallRecord& record) {
             const int64_t memory = rmtest::passThrough(record);
             std::memset(reinterpret_cast<void*>(memory), 0xA5,
                         static_cast<std::size_t>(record.args[0]));
             return memory;
         }});
    const RmPool* pool = rm_allocPool(7, tag_, nullptr, 1500);
    EXPECT_EQ(pool->freeList, nullptr);
    EXPECT_EQ(pool->tag, tag_);
    EXPECT_EQ(pool->maximum, 7U);
    EXPECT_EQ(pool->count, 0U);
    EXPECT_EQ(pool->lock, -1);
    EXPECT_EQ(pool->timeout, 1500U);
}

TEST_F(PoolAlloc, TheRecordIsABlockOfTheTag)
{
    RmPool* pool = unlocked();
    EXPECT_EQ(rmtest::segmentsOf(tag_).size(), 1U);
    EXPECT_EQ(rmtest::allocated(tag_), rmalloc::unitsFor(sizeof(RmPool)) * rmalloc::kUnit);
    rm_freeMemory(pool, tag_);
    EXPECT_EQ(rmtest::allocated(tag_), 0U);
}

TEST_F(PoolAlloc, WorksInTagZero)
{
    RmPool* pool = rm_allocPool(0, 0, nullptr, 0);
    void* element = rm_getFromPool(10, pool);
    EXPECT_EQ(rm_putInPool(element, pool), 0);
    EXPECT_EQ(rm_getFromPool(10, pool), element);
}

TEST_F(PoolAlloc, WithoutANameMakesNoSyncObject)
{
    EXPECT_EQ(unlocked()->lock, -1);
    EXPECT_EQ(os::nSems, 0);
    EXPECT_EQ(callCount(Call::kSemget), 0);
}

TEST_F(PoolAlloc, WithANameMakesASyncObjectThatIsFree)
{
    const RmPool* pool = locked();
    EXPECT_EQ(pool->lock, rm_syncOpen("pool"));
    EXPECT_GE(pool->lock, 0);
    EXPECT_EQ(lockOf(pool), 1);
}

TEST_F(PoolAlloc, WithAnEmptyNameHasTheNullObject)
{
    RmPool* pool = rm_allocPool(0, tag_, "", 1000);
    EXPECT_EQ(pool->lock, RM_NULL_SYNC);
    EXPECT_EQ(os::nSems, 0);
    void* element = rm_getFromPool(10, pool);
    EXPECT_EQ(rm_putInPool(element, pool), 0);
    EXPECT_EQ(rm_getFromPool(10, pool), element);
    EXPECT_EQ(rm_putInPool(element, pool), 0);
    EXPECT_EQ(rm_zFreePool(&pool), 0);
    EXPECT_EQ(callCount(Call::kSemop) + callCount(Call::kSemtimedop), 0);
}

TEST_F(PoolAlloc, InATagThatIsNoneIsFatal)
{
    EXPECT_EQ(fatalLines([] { rm_allocPool(0, 99, nullptr, 0); }),
              (Lines{"Invalid tag 99 supplied to rm_getMemory", rmtest::kShutdown}));
}

TEST_F(PoolAlloc, WithoutMemoryIsFatalAndMakesNoSyncObject)
{
    const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    EXPECT_EQ(fatalLines([this] { locked(); }), outOfMemory());
    EXPECT_EQ(os::nSems, 0);
}

// --- Getting

TEST_F(PoolGet, FromAnEmptyPoolGivesAClearedElement)
{
    rm_freeMemory(std::memset(rm_getMemory(200, tag_), 0xA5, 200), tag_);
    RmPool* pool = unlocked();
    void* element = rm_getFromPool(100, pool);
    EXPECT_THAT(bytesOf(element, 100), Each(0));
}

TEST_F(PoolGet, TheElementIsABlockOfTheTagWithALinkBefore)
{
    RmPool* pool = unlocked();
    for (const uint32_t size : {0U, 1U, 8U, 9U, 100U, 20'000U}) {
        void* element = rm_getFromPool(size, pool);
        const rmalloc::BlockHeader* header = rmalloc::headerOf(blockOf(element));
        EXPECT_EQ(header->word1, rmalloc::kLiveMagic) << size;
        EXPECT_EQ(header->units, rmalloc::unitsFor(size + kLink)) << size;
    }
}

TEST_F(PoolGet, TheElementIsAlignedToTheSizeOfAPointer)
{
    RmPool* pool = unlocked();
    for (uint32_t size = 0; size < 40; ++size) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(rm_getFromPool(size, pool)) % sizeof(void*), 0U);
    }
}

TEST_F(PoolGet, EveryByteOfTheElementIsTheCallers)
{
    seg_alloc = 1;  // a sanitizer sees the end of each block
    RmPool* pool = unlocked();
    for (const uint32_t size : {1U, 7U, 8U, 100U}) {
        void* element = rm_getFromPool(size, pool);
        std::memset(element, 0xFF, size);
        EXPECT_EQ(rm_putInPool(element, pool), 0);
    }
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    seg_alloc = 0;
}

TEST_F(PoolGet, OfNoBytesGivesDistinctElements)
{
    RmPool* pool = unlocked();
    void* one = rm_getFromPool(0, pool);
    void* other = rm_getFromPool(0, pool);
    EXPECT_NE(one, nullptr);
    EXPECT_NE(one, other);
    rm_putInPool(one, pool);
    EXPECT_EQ(rm_getFromPool(0, pool), one);
}

TEST_F(PoolGet, OfTheSameSizeGivesTheSameAddressAndTheBytesOfItsLastUser)
{
    RmPool* pool = unlocked();
    void* element = rm_getFromPool(64, pool);
    std::memset(element, 0x5A, 64);
    rm_putInPool(element, pool);
    EXPECT_EQ(rm_getFromPool(64, pool), element);
    EXPECT_THAT(bytesOf(element, 64), Each(0x5A));
}

TEST_F(PoolGet, OfASmallerSizeGivesTheLargerElementAsItIs)
{
    RmPool* pool = unlocked();
    void* element = rm_getFromPool(64, pool);
    std::memset(element, 0x5A, 64);
    const uint32_t units = unitsOf(element);
    rm_putInPool(element, pool);
    EXPECT_EQ(rm_getFromPool(3, pool), element);
    EXPECT_EQ(unitsOf(element), units);
    EXPECT_THAT(bytesOf(element, 64), Each(0x5A));
}

TEST_F(PoolGet, WhatFitsIntoTheElementsUnitsIsNotTooLarge)
{
    RmPool* pool = unlocked();
    constexpr uint32_t kFull = 64 - sizeof(void*);  // with the link, a whole number of units
    void* element = rm_getFromPool(kFull - 7, pool);
    rm_putInPool(element, pool);
    EXPECT_EQ(rm_getFromPool(kFull, pool), element);
    rm_putInPool(element, pool);
    EXPECT_NE(rm_getFromPool(kFull + 1, pool), element);
}

TEST_F(PoolGet, OfALargerSizeFreesTheElementAndGivesAFreshBlock)
{
    RmPool* pool = unlocked();
    void* small = rm_getFromPool(64, pool);
    rm_putInPool(small, pool);
    const uint32_t before = rmtest::allocated(tag_);
    void* large = rm_getFromPool(1000, pool);
    EXPECT_NE(large, small);
    EXPECT_EQ(rmtest::allocated(tag_),
              before + (rmalloc::unitsFor(1000 + kLink) - rmalloc::unitsFor(64 + kLink)) *
                           rmalloc::kUnit);
    EXPECT_EQ(linesOf([&] { rm_freeMemory(blockOf(small), tag_); }).size(), 1U) << "not freed";
}

TEST_F(PoolGet, ABlockInThePlaceOfASmallElementIsNotCleared)
{
    RmPool* pool = unlocked();
    void* small = rm_getFromPool(8, pool);
    rm_freeMemory(std::memset(rm_getMemory(2000, tag_), 0xA5, 2000), tag_);
    rm_putInPool(small, pool);
    void* large = rm_getFromPool(1000, pool);
    EXPECT_THAT(bytesOf(large, 500), Each(0xA5));
}

TEST_F(PoolGet, ASmallElementGoesThoughALargerOneLiesBehindIt)
{
    RmPool* pool = unlocked();
    void* large = rm_getFromPool(1000, pool);
    void* small = rm_getFromPool(8, pool);
    rm_putInPool(large, pool);
    rm_putInPool(small, pool);
    void* fresh = rm_getFromPool(1000, pool);
    EXPECT_NE(fresh, large);
    EXPECT_THAT(freeElements(pool), ElementsAre(large));
}

TEST_F(PoolGet, ElementsOfManySizesShareAPool)
{
    RmPool* pool = unlocked();
    std::vector<void*> elements;
    for (uint32_t size = 0; size < 3000; size += 100) {
        elements.push_back(
            std::memset(rm_getFromPool(size, pool), static_cast<int>(size / 100), size));
    }
    for (uint32_t i = 0; i < elements.size(); ++i) {
        EXPECT_THAT(bytesOf(elements[i], std::size_t{i} * 100), Each(i));
    }
}

TEST_F(PoolGet, NeverMarksAnElementThatIsInUseAsFree)
{
    RmPool* pool = unlocked();
    void* one = rm_getFromPool(8, pool);
    EXPECT_EQ(blockOf(one)->next, markOf(one, pool));
    rm_putInPool(one, pool);
    EXPECT_EQ(blockOf(one)->next, nullptr);
    rm_getFromPool(8, pool);
    EXPECT_EQ(blockOf(one)->next, markOf(one, pool));
    rm_putInPool(one, pool);
    void* grown = rm_getFromPool(100, pool);
    EXPECT_EQ(blockOf(grown)->next, markOf(grown, pool));
}

// --- The maximum

class PoolMaximum : public PoolTest, public ::testing::WithParamInterface<uint32_t>
{
};

TEST_P(PoolMaximum, LimitsNothing)
{
    RmPool* pool = unlocked(GetParam());
    for (int i = 0; i < 50; ++i) {
        ASSERT_NE(rm_getFromPool(16, pool), nullptr) << i;
    }
    EXPECT_EQ(pool->maximum, GetParam());
}

TEST_P(PoolMaximum, LeavesTheCountAtZero)
{
    RmPool* pool = unlocked(GetParam());
    for (void* element : getMany(pool, 5, 16)) {
        EXPECT_EQ(pool->count, 0U);
        rm_putInPool(element, pool);
    }
    EXPECT_EQ(pool->count, 0U);
}

INSTANTIATE_TEST_SUITE_P(All, PoolMaximum,
                         ::testing::Values(0U, 1U, 2U, 49U, std::numeric_limits<uint32_t>::max()));

// A pool whose record says so is as full as it looks: the test is there, with nothing to meet it.
TEST_F(PoolGet, GivesNullWhenTheRecordCountsAsManyAsTheMaximum)
{
    RmPool* pool = locked();
    pool->maximum = 3;
    pool->count = 2;
    EXPECT_NE(rm_getFromPool(16, pool), nullptr);
    pool->count = 3;
    EXPECT_EQ(rm_getFromPool(16, pool), nullptr);
    EXPECT_EQ(lockOf(pool), 1);
    pool->maximum = 0;
    EXPECT_NE(rm_getFromPool(16, pool), nullptr);
}

// --- Putting

TEST_F(PoolPut, KeepsTheElementAllocated)
{
    RmPool* pool = unlocked();
    void* element = rm_getFromPool(64, pool);
    const uint32_t before = rmtest::allocated(tag_);
    EXPECT_EQ(rm_putInPool(element, pool), 0);
    EXPECT_EQ(rmtest::allocated(tag_), before);
}

TEST_F(PoolPut, LinksTheElementBeforeTheOthers)
{
    RmPool* pool = unlocked();
    const std::vector<void*> elements = getMany(pool, 3, 16);
    for (void* element : elements) {
        rm_putInPool(element, pool);
    }
    EXPECT_EQ(pool->freeList, blockOf(elements[2]));
    EXPECT_EQ(blockOf(elements[2])->next, blockOf(elements[1]));
    EXPECT_EQ(blockOf(elements[1])->next, blockOf(elements[0]));
    EXPECT_EQ(blockOf(elements[0])->next, nullptr);
}

TEST_F(PoolPut, TheLastOneIsTheFirstToBeUsedAgain)
{
    RmPool* pool = unlocked();
    const std::vector<void*> elements = getMany(pool, 4, 16);
    rm_putInPool(elements[2], pool);
    rm_putInPool(elements[0], pool);
    rm_putInPool(elements[3], pool);
    EXPECT_EQ(rm_getFromPool(16, pool), elements[3]);
    EXPECT_EQ(rm_getFromPool(16, pool), elements[0]);
    rm_putInPool(elements[1], pool);
    EXPECT_EQ(rm_getFromPool(16, pool), elements[1]);
    EXPECT_EQ(rm_getFromPool(16, pool), elements[2]);
}

TEST_F(PoolPut, ChangesNoByteOfTheElement)
{
    RmPool* pool = unlocked();
    void* element = std::memset(rm_getFromPool(64, pool), 0x5A, 64);
    rm_putInPool(element, pool);
    EXPECT_THAT(bytesOf(element, 64), Each(0x5A));
}

TEST_F(PoolPut, OfNullDoesNothing)
{
    RmPool* pool = unlocked();
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_putInPool(nullptr, pool), 0); }), IsEmpty());
    EXPECT_EQ(pool->freeList, nullptr);
}

TEST_F(PoolPut, MovesAnElementToAnotherPoolOfTheTag)
{
    RmPool* one = unlocked();
    RmPool* other = unlocked();
    void* element = rm_getFromPool(16, one);
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_putInPool(element, other), 0); }), IsEmpty());
    EXPECT_EQ(one->freeList, nullptr);
    EXPECT_EQ(rm_getFromPool(16, other), element);
}

// --- Freeing

TEST_F(PoolFree, FreesTheFreeElementsAndTheRecord)
{
    RmPool* pool = unlocked();
    for (void* element : getMany(pool, 2, 100)) {
        rm_putInPool(element, pool);
    }
    EXPECT_EQ(rm_zFreePool(&pool), 0);
    EXPECT_EQ(pool, nullptr);
    EXPECT_EQ(rmtest::allocated(tag_), 0U);
    EXPECT_EQ(rmtest::layout(tag_), "");
}

TEST_F(PoolFree, LeavesElementsThatCallersHold)
{
    RmPool* pool = unlocked();
    std::vector<void*> elements = getMany(pool, 4, 100);
    std::memset(elements[3], 0x5A, 100);
    rm_putInPool(elements[0], pool);
    rm_putInPool(elements[2], pool);
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_zFreePool(&pool), 0); }), IsEmpty());
    EXPECT_EQ(rmtest::allocated(tag_), 2 * rmalloc::unitsFor(100 + kLink) * rmalloc::kUnit);
    EXPECT_THAT(bytesOf(elements[3], 100), Each(0x5A));
    EXPECT_EQ(rmalloc::headerOf(blockOf(elements[1]))->word1, rmalloc::kLiveMagic);
}

TEST_F(PoolFree, WorksOnAnEmptyPool)
{
    RmPool* pool = unlocked();
    EXPECT_EQ(rm_zFreePool(&pool), 0);
    EXPECT_EQ(pool, nullptr);
    EXPECT_EQ(rmtest::allocated(tag_), 0U);
}

TEST_F(PoolFree, LeavesTheOtherPoolsOfTheTag)
{
    RmPool* gone = unlocked();
    RmPool* stays = unlocked();
    void* element = rm_getFromPool(16, stays);
    rm_putInPool(element, stays);
    rm_putInPool(rm_getFromPool(16, gone), gone);
    EXPECT_EQ(rm_zFreePool(&gone), 0);
    EXPECT_EQ(rm_getFromPool(16, stays), element);
}

TEST_F(PoolFree, OfNullDoesNothing)
{
    RmPool* none = nullptr;
    EXPECT_EQ(rm_zFreePool(nullptr), 0);
    EXPECT_EQ(rm_zFreePool(&none), 0);
    EXPECT_EQ(none, nullptr);
}

TEST_F(PoolFree, DeletesTheSyncObject)
{
    RmPool* pool = locked();
    const SyncHandle other = rm_syncCreate("other");
    EXPECT_EQ(rm_zFreePool(&pool), 0);
    EXPECT_EQ(rm_syncOpen("pool"), -1);
    EXPECT_EQ(rm_syncOpen("other"), other);
    EXPECT_EQ(rmtest::semValue(os::iSem, other), 1);
}

TEST_F(PoolFree, TakesTheLastSyncObjectsSetAlong)
{
    RmPool* pool = locked();
    EXPECT_EQ(rm_zFreePool(&pool), 0);
    EXPECT_EQ(os::iSem, -1);
    EXPECT_THAT(rmtest::ipcObjects(), IsEmpty());
}

// --- Sizes that cannot be had

TEST_F(PoolGet, OfTheLargestSizeAsksForAllOfIt)
{
    RmPool* pool = unlocked();
    rm_putInPool(rm_getFromPool(16, pool), pool);
    int64_t asked = 0;
    const ScopedFault watch({.call = Call::kAllocBlock,
                             .when =
                                 [&](const CallRecord& record) {
                                     asked = record.args[0];
                                     return false;
                                 },
                             .action = nullptr});
    constexpr uint32_t kLargest = 0xFFFF'FFFFU - sizeof(void*);
    EXPECT_EQ(fatalLines([&] { rm_getFromPool(kLargest, pool); }), outOfMemory());
    EXPECT_EQ(static_cast<uint32_t>(asked), 0xFFFF'FFFFU);
}

// With the link they are more than 32 bits count.
class PoolHugeSize : public PoolTest, public ::testing::WithParamInterface<uint32_t>
{
};

TEST_P(PoolHugeSize, IsOutOfMemoryAndLeavesThePoolAsItWas)
{
    RmPool* pool = locked();
    void* element = rm_getFromPool(16, pool);
    rm_putInPool(element, pool);
    EXPECT_EQ(fatalLines([&] { rm_getFromPool(GetParam(), pool); }), outOfMemory());
    EXPECT_EQ(lockOf(pool), 1);
    EXPECT_THAT(freeElements(pool), ElementsAre(element));
    EXPECT_EQ(rm_getFromPool(16, pool), element);
}

INSTANTIATE_TEST_SUITE_P(All, PoolHugeSize,
                         ::testing::Values(0U - kLink, 1U - kLink, 0xFFFF'FFFDU, 0xFFFF'FFFEU,
                                           0xFFFF'FFFFU));

// --- Without memory

TEST_F(PoolGet, WithoutMemoryForANewElementIsFatal)
{
    RmPool* pool = locked();
    {
        const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
        EXPECT_EQ(fatalLines([&] { rm_getFromPool(10'000, pool); }), outOfMemory());
    }
    EXPECT_EQ(lockOf(pool), 1);
    EXPECT_EQ(pool->freeList, nullptr);
    EXPECT_NE(rm_getFromPool(10'000, pool), nullptr);
}

TEST_F(PoolGet, WithoutMemoryForALargerElementLeavesTheOtherElements)
{
    RmPool* pool = locked();
    const std::vector<void*> elements = getMany(pool, 3, 16);
    for (void* element : elements) {
        rm_putInPool(element, pool);
    }
    {
        const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
        EXPECT_EQ(fatalLines([&] { rm_getFromPool(10'000, pool); }), outOfMemory());
    }
    EXPECT_EQ(lockOf(pool), 1);
    EXPECT_THAT(freeElements(pool), ElementsAre(elements[1], elements[0]));
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    EXPECT_EQ(rm_getFromPool(16, pool), elements[1]);
    EXPECT_EQ(rm_zFreePool(&pool), 0);
}

TEST_F(PoolGet, WithoutMemoryAnElementThatIsLargeEnoughIsStillGiven)
{
    RmPool* pool = unlocked();
    void* element = rm_getFromPool(10'000, pool);
    rm_putInPool(element, pool);
    const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    EXPECT_EQ(rm_getFromPool(10'000, pool), element);
}

// The other process or pool that has the name has an object of its own.
TEST_F(PoolAlloc, WithANameInUseMakesALockOfItsOwn)
{
    RmPool* one = locked(10);
    RmPool* other = locked(10);
    EXPECT_NE(one->lock, other->lock);
    ASSERT_EQ(rm_syncEnterExcl(one->lock, RM_WAIT_FOREVER), 0);
    EXPECT_NE(rm_getFromPool(16, other), nullptr);
    EXPECT_EQ(lockOf(one), 0);
    EXPECT_EQ(lockOf(other), 1);
    rm_syncExitExcl(one->lock);
}

TEST_F(PoolAlloc, LeavesTheNameWithTheCaller)
{
    char name[] = "pool";
    const RmPool* pool = rm_allocPool(0, tag_, name, 1000);
    EXPECT_EQ(rmtest::allocated(tag_), rmalloc::unitsFor(sizeof(RmPool)) * rmalloc::kUnit);
    name[0] = 'f';
    EXPECT_EQ(rm_syncOpen("fool"), pool->lock);
    EXPECT_EQ(rm_syncOpen("pool"), -1);
}

TEST_F(PoolAlloc, WithoutASyncObjectLeftIsFatal)
{
    for (int i = 0; i < os::kSyncSlots; ++i) {
        rm_syncCreate("other");
    }
    EXPECT_THAT(fatalLines([this] { locked(); }),
                ::testing::Contains(::testing::HasSubstr("Out of Semaphores!")));
    EXPECT_EQ(rm_syncOpen("pool"), -1);
    // The record was there first, and goes with the tag.
    EXPECT_EQ(rmtest::allocated(tag_), rmalloc::unitsFor(sizeof(RmPool)) * rmalloc::kUnit);
}

TEST_F(PoolFree, ByTheReleaseOfTheTagLeavesTheSyncObject)
{
    const int16_t lock = locked()->lock;
    rm_freeTagMemory(tag_, 0);
    EXPECT_EQ(rmtest::allocated(tag_), 0U);
    EXPECT_EQ(rm_syncOpen("pool"), lock);
    EXPECT_EQ(rmtest::semValue(os::iSem, lock), 1);
}

}  // namespace
