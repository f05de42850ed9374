// What the tests of dynamic arrays share: a fixture that checks every array at the end, and short
// ways to fill one.
#ifndef RM_TESTS_CONTAINERS_DARRAY_CASE_H
#define RM_TESTS_CONTAINERS_DARRAY_CASE_H

#include "tests/support/faults.h"
#include "tests/support/support.h"

#include "rm.h"
#include "rm/darray.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace arraytest
{

using darrays::Block;
using darrays::Entry;
using darrays::kNoSlot;
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::ScopedFault;

using Lines = std::vector<std::string>;
using Slots = std::vector<int16_t>;

constexpr uint8_t kDirt = 0xA5;  // of memory that has been used before

// The platform's memory comes with kDirt in every byte for as long as this lives.
class DirtyMemory
{
  private:
    ScopedFault fault_{
        {.call = Call::kMalloc, .times = rmtest::kForever, .action = [](const CallRecord& record) {
             const int64_t result = rmtest::passThrough(record);
             auto* memory = reinterpret_cast<void*>(static_cast<intptr_t>(result));
             if (memory != nullptr) {
                 std::memset(memory, kDirt, static_cast<std::size_t>(record.args[0]));
             }
             return result;
         }}};
};

// A creation: the index, and what was stored as the address of the record.
struct Made {
    int16_t index;
    void* data;
};

// Stands in a pointer that a call is expected to set, or to leave alone.
inline char untouchedByte = 0;
inline void* const kUntouched = &untouchedByte;

inline Made create(DArray* array, const char* name = "entry")
{
    Made made = {0, kUntouched};
    made.index = darrayCreateEntry(array, name, &made.data);
    return made;
}

// The indexes that `count` creations give.
inline Slots createMany(DArray* array, int count, const char* name = "entry")
{
    Slots indexes;
    for (int i = 0; i < count; ++i) {
        indexes.push_back(darrayCreateEntry(array, name, nullptr));
    }
    return indexes;
}

// Gives every byte of the first `count` records a value: what is in a new one is not told.
inline void fillRecords(DArray* array, int16_t count, char byte)
{
    for (int16_t index = 0; index < count; ++index) {
        std::memset(darrayGetEntryPtr(array, index), byte,
                    static_cast<std::size_t>(array->dataSize));
    }
}

// first, first + 1, ... `count` of them.
inline Slots upFrom(int first, int count)
{
    Slots indexes;
    for (int i = 0; i < count; ++i) {
        indexes.push_back(static_cast<int16_t>(first + i));
    }
    return indexes;
}

// The free list of a block, from its head. One that does not end is cut.
inline Slots freeList(const DArray* array, int16_t number)
{
    const Block* block = array->blocks[number];
    Slots slots;
    for (int16_t slot = block->freeHead;
         slot != kNoSlot && slots.size() <= static_cast<std::size_t>(array->entriesPerBlock);
         slot = block->entries[slot].nextFree) {
        slots.push_back(slot);
    }
    return slots;
}

// True when the tag owns the segment that the pointer leads into.
inline bool belongsTo(const void* pointer, Tag tag)
{
    const auto* header = static_cast<const rmalloc::BlockHeader*>(pointer) - 1;
    return rmalloc::findInTag(tag, header) != nullptr && header->word1 == rmalloc::kLiveMagic;
}

// Arrays that make() gives are sound at the end of the case and go with it.
class ArrayTest : public rmtest::RmTest
{
  protected:
    void TearDown() override
    {
        for (const DArray* array : arrays_) {
            EXPECT_EQ(darrays::checkDArray(array), 0U);
        }
        RmTest::TearDown();
    }

    DArray* make(int16_t maxEntries, int16_t entriesPerBlock, int16_t dataSize)
    {
        DArray* array = darrayCreate(maxEntries, entriesPerBlock, dataSize);
        EXPECT_NE(array, nullptr);
        arrays_.push_back(array);
        return array;
    }

    // One with `count` entries, all called "entry".
    DArray* makeWith(int count, int16_t maxEntries, int16_t entriesPerBlock, int16_t dataSize = 8)
    {
        DArray* array = make(maxEntries, entriesPerBlock, dataSize);
        EXPECT_EQ(createMany(array, count), upFrom(0, count));
        return array;
    }

    void destroy(DArray* array)
    {
        forget(array);
        darrayDestroy(array);
    }

    // Segments as without SEG_ALLOC, and as with it: every block its own allocation, so that a
    // sanitizer sees its borders. Before the case's first allocation.
    static void usualSegments()
    {
        unsetenv("SEG_ALLOC");
        seg_alloc = 0;
    }

    static void segmentsOfOneBlock() { setenv("SEG_ALLOC", "1", 1); }

    // The case has damaged it, or it is gone.
    void forget(const DArray* array) { std::erase(arrays_, array); }

  private:
    std::vector<const DArray*> arrays_;
};

}  // namespace arraytest

#endif
