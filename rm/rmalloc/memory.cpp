// The allocation calls of the interface.
//
// Why: what a host may get wrong - a pointer that is no block, a tag that is none - is found out
// before a header is written to. A bad pointer is a warning in the log and nothing else: a server
// that frees twice must neither crash nor damage the heap of every session in it.
//
// Locks: critical section 0 around everything that changes the heap, for ports with threads.
//
// Fatal: no memory; an invalid tag in rm_getMemory.
#include "rm/rmalloc/segments.h"
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>
#include <cstring>
#include <limits>

using namespace rmalloc;

namespace
{
// The live block at `pointer`; none, with a warning, when that is no live block. The pointer is
// looked up among the segments of all tags before anything is read through it: its segment may have
// gone long ago.
LiveBlock liveBlock(void* pointer)
{
    const LiveBlock block = liveBlockAt(pointer);
    if (block.map == nullptr) {
        warnBadPointer(pointer);
    }
    return block;
}

uint32_t dataBytes(uint32_t units)
{
    return (units - 1) * kUnit;
}

// A new block is taken first and the old one given back afterwards: taking may not return, and
// until it has, the caller's block stays what it is. The old space is too small to be chosen, so
// the order makes no difference to where the new block goes.
void* resizeByMoving(Tag tag, const LiveBlock& old, uint32_t newSize)
{
    void* block = allocBlock(newSize, tag);
    std::memcpy(block, old.header + 1, dataBytes(old.units));
    giveBack(old.header + 1, tag);  // looked up again: its neighbours may be others now
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
    if (!isLastCut(tag, headerOf(pointer)) || !undoLastCut(tag)) {
        giveBack(pointer, tag);
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
    const LiveBlock old = liveBlock(pointer);
    if (old.map != nullptr && checkTag(tag, "rm_extendMemory") == RM_SUCCESS) {
        bool fits = true;
        block = resizeInPlace(tag, old, unitsFor(newSize), std::min(newSize, dataBytes(old.units)),
                              &fits);
        if (!fits) {
            block = resizeByMoving(tag, old, newSize);
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
    const LiveBlock block = liveBlock(pointer);
    if (block.map == nullptr) {
        return nullptr;
    }
    if (block.units >= unitsFor(size)) {
        return pointer;
    }
    rm_freeMemory(pointer, tag);
    return rm_getMemory(size, tag);
}
