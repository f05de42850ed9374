// The allocation calls of the interface.
//
// Why: what a host may get wrong is decided here - a pointer that is no block, a tag that is none -
// before the allocator touches a header. A bad pointer is a warning in the log and nothing else: a
// server that frees twice must neither crash nor damage the heap of every session in it.
//
// Locks: critical section 0 around everything that changes the heap, for ports with threads.
//
// Fatal: no memory; an invalid tag in rm_getMemory.
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>
#include <cstring>
#include <limits>

using namespace rmalloc;

namespace
{
// The header of the block at `pointer`, or null with a warning when that is no live block. The
// pointer is looked up among the segments of all tags before anything is read through it: its
// segment may have gone long ago.
BlockHeader* liveBlock(void* pointer, Tag likely)
{
    BlockHeader* header = headerOf(pointer);
    Segment* segment = nullptr;
    if (isAligned(pointer) && findOwner(header, likely, &segment) != RM_NONE &&
        isLive(segment, header)) {
        return header;
    }
    warnBadPointer(pointer);
    return nullptr;
}

uint32_t dataBytes(uint32_t units)
{
    return (units - 1) * kUnit;
}

void* resizeInPlace(Tag tag, BlockHeader* header, uint32_t newSize)
{
    const uint32_t oldUnits = header->units;
    const uint32_t need = unitsFor(newSize);
    Segment* segment = nullptr;
    Segment* previousSegment = nullptr;
    BlockHeader* holder = nullptr;
    BlockHeader* before = freeBlock(tag, header, &segment, &previousSegment, &holder);
    void* block = rebuildAtLowEnd(segment, before, holder, header, need,
                                  std::min(newSize, dataBytes(oldUnits)));
    tagTable[tag].allocated += (need - oldUnits) * kUnit;
    return block;
}

// A new block is taken first and the old one given back afterwards: taking may not return, and
// until it has, the caller's block stays what it is. The old space is too small to be chosen, so
// the order makes no difference to where the new block goes.
void* resizeByMoving(Tag tag, BlockHeader* header, uint32_t newSize)
{
    const uint32_t oldUnits = header->units;
    void* block = allocBlock(newSize, tag);
    std::memcpy(block, header + 1, dataBytes(oldUnits));
    Segment* segment = nullptr;
    Segment* previousSegment = nullptr;
    BlockHeader* holder = nullptr;
    freeBlock(tag, header, &segment, &previousSegment, &holder);
    if (segment != nullptr) {
        adjustNumbers(&tagTable[tag], oldUnits, segment, previousSegment);
    }
    return block;
}
}  // namespace

void* rm_getMemory(uint32_t size, int16_t tag)
{
    if (nTags == 0) {
        rm_allocTag(nullptr, rmemavail);
    }
    rm_enterCritSec(0);
    if (checkTag(tag, "rm_getMemory") != RM_SUCCESS) {
        rm_errorExit();
    }
    void* block = allocBlock(size, tag);
    rm_exitCritSec(0);
    if (block == nullptr) {
        // Deliberate: state 1, not 2. A buffer that was taken back by rm_resetTag is still held.
        if (tagTable[tag].state == kTagInUse) {
            rmsrv::unwindTo(tagTable[tag].env, 1);
        }
        rm_errorExit();
    }
    return block;
}

void* rm_cGetMemory(uint32_t size, int16_t tag)
{
    void* block = rm_getMemory(size, tag);
    std::memset(block, 0, size);
    return block;
}

char* rm_Strdup(const char* text, int16_t tag)
{
    const std::size_t bytes = std::strlen(text) + 1;
    if (bytes > std::numeric_limits<uint32_t>::max()) {
        rmsrv::outOfMemory();
    }
    auto* copy = static_cast<char*>(rm_getMemory(static_cast<uint32_t>(bytes), tag));
    std::memcpy(copy, text, bytes);
    return copy;
}

void rm_freeMemory(void* pointer, int16_t tag)
{
    if (pointer == nullptr) {
        return;
    }
    rm_enterCritSec(0);
    BlockHeader* header = liveBlock(pointer, tag);
    if (header != nullptr && checkTag(tag, "rm_freeMemory") == RM_SUCCESS) {
        const uint32_t units = header->units;
        Segment* segment = nullptr;
        Segment* previousSegment = nullptr;
        BlockHeader* holder = nullptr;
        freeBlock(tag, header, &segment, &previousSegment, &holder);
        if (segment != nullptr) {
            adjustNumbers(&tagTable[tag], units, segment, previousSegment);
        }
    }
    rm_exitCritSec(0);
}

void rm_zFreeMemory(void* pointerAddress, int16_t tag)
{
    if (pointerAddress == nullptr) {
        return;
    }
    void* pointer = nullptr;
    std::memcpy(&pointer, pointerAddress, sizeof(pointer));
    if (pointer != nullptr) {
        rm_freeMemory(pointer, tag);
        pointer = nullptr;
        std::memcpy(pointerAddress, &pointer, sizeof(pointer));
    }
}

void* rm_extendMemory(void* pointer, uint32_t newSize, int16_t tag)
{
    if (pointer == nullptr) {
        return rm_getMemory(newSize, tag);
    }
    rm_enterCritSec(0);
    void* block = nullptr;
    BlockHeader* header = liveBlock(pointer, tag);
    if (header != nullptr && checkTag(tag, "rm_extendMemory") == RM_SUCCESS) {
        Segment* previousSegment = nullptr;
        Segment* segment = findInTag(&tagTable[tag], header, &previousSegment);
        const uint32_t span = segment == nullptr ? 0 : spanWithNeighbours(segment, header);
        if (span == 0) {
            BlockHeader* holder = nullptr;
            freeBlock(tag, header, &segment, &previousSegment, &holder);  // says what is wrong
        } else if (span < unitsFor(newSize)) {
            block = resizeByMoving(tag, header, newSize);
        } else {
            block = resizeInPlace(tag, header, newSize);
        }
    }
    rm_exitCritSec(0);
    return block;
}

void* rm_growMemory(void* pointer, uint32_t size, int16_t tag)
{
    if (checkTag(tag, "rm_growMemory") != RM_SUCCESS) {
        return nullptr;
    }
    if (pointer == nullptr) {
        return rm_getMemory(size, tag);
    }
    BlockHeader* header = liveBlock(pointer, tag);
    if (header == nullptr) {
        return nullptr;
    }
    Segment* segment = nullptr;
    findOwner(header, tag, &segment);
    if (liesInFreeSpace(segment, header)) {
        warnBadPointer(pointer);
        return nullptr;
    }
    if (header->units >= unitsFor(size)) {
        return pointer;
    }
    rm_freeMemory(pointer, tag);
    return rm_getMemory(size, tag);
}
