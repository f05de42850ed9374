// Dynamic arrays, front page: the records behind an array, for darray.cpp and the tests.
#ifndef RM_DARRAY_H
#define RM_DARRAY_H

#include "rm/base.h"

#include <cstdint>

namespace darrays
{

constexpr int16_t kNoSlot = -1;
constexpr uint32_t kSegmentSize = 2048;  // bytes, of the segments of an array's tag
constexpr int32_t kMostEntries = 32768;  // an index is a signed 16-bit number from 0 up

struct Entry {
    const char* name;  // the caller's own; null for a free entry
    int16_t nextFree;  // the next free slot of the block, kNoSlot at the end of the list
};

struct Block {
    int16_t freeHead;  // the first free slot, kNoSlot when the block is full
    Entry* entries;
    char* data;  // the records of the entries, one after the other
};

}  // namespace darrays

struct DArray {
    int16_t maxBlocks;
    int16_t blockCount;
    int16_t entriesPerBlock;
    int16_t dataSize;       // bytes of an entry's record
    Tag tag;                // the array's own; everything here lies in it
    int16_t firstWithRoom;  // no block below this one has a free entry; ~n: block n alone has some
    darrays::Block** blocks;  // room for maxBlocks; null before the first block
};

namespace darrays
{

// The header of an entry, with its block and slot; null, null and kNoSlot when there is none. The
// last two may be null when they are not wanted.
Entry* darrayGetEntryPtrEx(const DArray* array, int16_t index, Block** block, int16_t* slot);

// Adds a block, all of it free.
void darrayMakeNewBlock(DArray* array);

// Counts and logs what does not hold in an array; 0 is sound.
uint32_t checkDArray(const DArray* array);

}  // namespace darrays

#endif
