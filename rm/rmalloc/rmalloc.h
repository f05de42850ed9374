// Memory manager, front page.
//
//   report.cpp      the memory report: what each tag holds, and where its counts are wrong
//   memory.cpp      the allocation calls of the interface
//   tags.cpp        the tag table: making, naming, limiting and releasing tags
//   segments.cpp    segments and blocks: where a block is placed and how it is given back
//   place.h         where blocks are being cut: the short way for most requests
//   chain.cpp       the segments of a tag in their order, and which is the first with room
//   pagetable.cpp   in which segment an address lies
//   segmentmap.cpp  where the blocks of a segment begin and end, and which is the first that fits
//   maxtree.cpp     which entry of a row is the first that is large enough
//   check.cpp       the checker of all of it, which reads all of them
//
// Layers go downward only, in this order. What stands in the segments is what a walk along chains
// and headers would read and write; from place.h down it is found without walking. What that takes
// is kept beside the segments, and memused does not count it.
#ifndef RM_RMALLOC_RMALLOC_H
#define RM_RMALLOC_RMALLOC_H

#include "rm/base.h"

#include <csetjmp>
#include <cstddef>
#include <cstdint>

namespace rmalloc
{

constexpr uint32_t kUnit = 8;                    // bytes; sizes inside a segment count in units
constexpr uint32_t kLiveMagic = 0xFFEEDDCC;      // word 1 of a live block
constexpr int16_t kTableStep = 40;               // records that the tag table grows by
constexpr uint32_t kDefaultSegmentSize = 8192;   // bytes, for a new tag
constexpr uint32_t kTagZeroSegmentSize = 49152;  // bytes, for tag 0

enum TagState : int16_t {
    kTagFree = 0,
    kTagInUse = 1,         // without a jump buffer of the host
    kTagInUseWithJump = 2  // with one
};

// The 8 bytes before every block, live or free. The free chain of a segment is kept as offsets in
// units from the segment's anchor, not as addresses, so that a header is 8 bytes on every machine.
struct BlockHeader {
    uint32_t word1;  // live: kLiveMagic; free: offset of the next free block, 0 at the end
    uint32_t units;  // size of the block in units, this header included
};

// The head of every segment that a tag gets from the platform; the data area follows.
// The anchor has the shape of a free block of 0 units: merging with it never happens, and linking
// after it is the same step as linking after a real free block. On a 32-bit machine its alignment
// leaves an unused word before it, so the header is 24 bytes everywhere.
struct Segment {
    Segment* next;                      // the tag's next segment, or null
    uint32_t units;                     // size of the data area
    uint32_t blocks;                    // live blocks in it
    alignas(kUnit) BlockHeader anchor;  // word1: the first free block
};

constexpr uint32_t kSegmentHeader = sizeof(Segment);
static_assert(sizeof(BlockHeader) == kUnit);
static_assert(kSegmentHeader == 24, "the figures of the memory report depend on it");

struct TagRecord {
    Segment* segments;     // chain, in the order in which the segments were got
    jmp_buf env;           // the host's; meaningful in state 2, kept in state 1
    uint32_t limit;        // bytes, RM_NO_LIMIT for none; reported, never enforced
    uint32_t allocated;    // bytes in live blocks, headers included
    uint32_t segmentSize;  // bytes, smallest segment that the tag asks for
    int16_t state;         // TagState
    uint16_t epoch;        // another one whenever the tag's memory goes as a whole
    char* name;            // a copy inside the tag itself, or null
};

extern TagRecord* tagTable;  // null while there is no table
extern int16_t nTags;        // highest index that was ever in use + 1
extern int16_t tagTabSize;   // records that the table has room for
extern uint32_t memused;     // bytes got for the table and for all segments

// Times that the memory of tag 0 went as a whole, modulo 2^32. The library keeps records in it:
// whoever runs foreign code, which may let it go, compares before and after.
extern uint32_t tagZeroReleases;

// --- tags.cpp

inline bool isInUse(Tag tag)
{
    // A negative one is a large one here.
    return static_cast<uint16_t>(tag) < static_cast<uint16_t>(nTags) &&
           tagTable[tag].state != kTagFree;
}

// Logs "Invalid tag %d supplied to %s".
void sayInvalidTag(Tag tag, const char* function);

// 0 when `tag` is in use; otherwise says so in the log and returns RM_INVALID.
inline int16_t checkTag(Tag tag, const char* function)
{
    if (isInUse(tag)) {
        return RM_SUCCESS;
    }
    sayInvalidTag(tag, function);
    return RM_INVALID;
}

// Makes the table with tag 0 in it. Fatal when there is no memory.
void newTagTable();

// --- segments.cpp

// Units for a request of `size` bytes, header included.
constexpr uint32_t unitsFor(uint32_t size)
{
    return static_cast<uint32_t>((static_cast<uint64_t>(size) + (kUnit - 1)) / kUnit + 1);
}

inline BlockHeader* blockAt(Segment* segment, uint32_t offset)
{
    return &segment->anchor + offset;
}

// The segment that has the block at `offset`.
inline Segment* segmentAt(BlockHeader* block, uint32_t offset)
{
    const auto anchor = reinterpret_cast<uintptr_t>(block) - uintptr_t{offset} * kUnit;
    return reinterpret_cast<Segment*>(anchor - offsetof(Segment, anchor));
}

inline uint32_t offsetOf(const Segment* segment, const BlockHeader* block)
{
    return static_cast<uint32_t>(block - &segment->anchor);
}

// As a number first: `pointer` may be anything, also one that has no room before it.
inline BlockHeader* headerOf(void* pointer)
{
    return reinterpret_cast<BlockHeader*>(reinterpret_cast<uintptr_t>(pointer) - kUnit);
}

// The line about a pointer that is no live block.
void warnBadPointer(void* pointer);

// True when the header lies in the data area of a segment of so many units. Addresses are compared
// as numbers: the two may not belong to one object.
inline bool holds(const Segment* segment, uint32_t units, const BlockHeader* header)
{
    const auto anchor = reinterpret_cast<uintptr_t>(&segment->anchor);
    const auto address = reinterpret_cast<uintptr_t>(header);
    return address > anchor && address <= anchor + uintptr_t{units} * kUnit;
}

// The segment of the tag in whose data area the header lies; null. Reads nothing at `header`.
Segment* findInTag(Tag tag, const BlockHeader* header);

// The segment of the tag in which `pointer` looks like a live block; null. Reads nothing outside of
// it, so the pointer may be anything. What looks like a block may be an old header in free space.
Segment* segmentOfLiveBlock(void* pointer, Tag tag);

// True when rm_freeMemory would give the block back without a line in the log.
bool isFreeable(void* pointer, Tag tag);

inline bool isAligned(const void* pointer)
{
    return reinterpret_cast<uintptr_t>(pointer) % kUnit == 0;
}

// --- check.cpp

// Counts and logs what does not hold in the tag table and in the segments; 0 is sound.
uint32_t checkMemory();

}  // namespace rmalloc

#endif
