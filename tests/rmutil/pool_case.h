// What the tests of pools share: a tag of their own, ways to look at a free list and at the lock.
#ifndef RM_TESTS_RMUTIL_POOL_CASE_H
#define RM_TESTS_RMUTIL_POOL_CASE_H

#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmutil/rmutil.h"
#include "rm/unix/unix.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace pooltest
{

using rmtest::badPointer;
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::catchFatal;
using rmtest::fatalLines;
using rmtest::kForever;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::outOfMemory;
using rmtest::Peer;
using rmtest::ScopedFault;
using rmutil::PoolElement;

using Channel = Peer::Channel;

constexpr uint32_t kLink = sizeof(PoolElement);  // bytes before the caller's

// The block of an element that a caller holds.
inline PoolElement* blockOf(void* element)
{
    return static_cast<PoolElement*>(element) - 1;
}

// What stands in the place of its link while somebody holds it.
inline PoolElement* markOf(void* element, const RmPool* pool)
{
    return rmutil::heldMark(blockOf(element), rmalloc::tagTable[pool->tag].epoch);
}

// Units of the block, its header included.
inline uint32_t unitsOf(void* element)
{
    return rmalloc::headerOf(blockOf(element))->units;
}

// Addresses that the next calls of rm_getFromPool will give. A list that does not end is cut.
inline std::vector<void*> freeElements(const RmPool* pool)
{
    constexpr std::size_t kMost = 10'000;
    std::vector<void*> elements;
    for (PoolElement* free = pool->freeList; free != nullptr && elements.size() < kMost;
         free = free->next) {
        elements.push_back(free + 1);
    }
    return elements;
}

// Value of the pool's semaphore: 1 is free, 0 is held.
inline int lockOf(const RmPool* pool)
{
    return rmtest::semValue(os::iSem, pool->lock);
}

// Several elements, so that no two calls of a case are alike.
inline std::vector<void*> getMany(RmPool* pool, int count, uint32_t size)
{
    std::vector<void*> elements(static_cast<std::size_t>(count));
    for (void*& element : elements) {
        element = rm_getFromPool(size, pool);
    }
    return elements;
}

// A process that holds the pool's lock until it is told to go on. It says "held" first.
inline std::unique_ptr<Peer> holderOf(const RmPool* pool)
{
    auto peer = std::make_unique<Peer>([lock = pool->lock](Channel& channel) {
        rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
        channel.say("held");
        channel.hear();
        rm_syncExitExcl(lock);
        channel.say("left");
    });
    EXPECT_EQ(peer->hear(), "held");
    return peer;
}

// The pool is made under `tag_`, which nothing else uses.
class PoolTest : public rmtest::HeapTest
{
  protected:
    void SetUp() override
    {
        HeapTest::SetUp();
        tag_ = rm_allocTag(nullptr, RM_NO_LIMIT);
    }

    void TearDown() override
    {
        EXPECT_EQ(os::checkSync(), 0U);
        rm_syncTerminate();
        HeapTest::TearDown();
    }

    RmPool* unlocked(uint32_t maximum = 0) const
    {
        return rm_allocPool(maximum, tag_, nullptr, RM_WAIT_FOREVER);
    }

    RmPool* locked(uint32_t timeout = RM_WAIT_FOREVER) const
    {
        return rm_allocPool(0, tag_, "pool", timeout);
    }

    Tag tag_ = RM_NONE;
};

}  // namespace pooltest

#endif
