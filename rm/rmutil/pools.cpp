// Pools: elements that are used again instead of being freed.
//
// Why: request buffers come and go by the thousand. A pool keeps those that come back and hands
// them out again, last in, first out, while they are warm; several users share it under a lock.
//
// Owns: nothing of its own. A pool is a record in the tag that its host named, and the elements on
// its free list lie in that tag too.
//
// Invariant: an element that a caller holds has a mark in the place of its link; one on a free list
// leads to the next one, or nowhere. So putting back what is there already is noticed at once,
// and no link is followed before it is known to lead to a live block of the tag.
//
// Locks: the pool's own sync object, around changes of the free list. Elements are allocated and
// grown outside, and lines written: neither need come back. Freeing a pool gives its memory back
// inside, so that nobody takes an element meanwhile; the lock is left for a block that cannot be
// given back without a line.
//
// Fatal: no memory; a failure of the sync object.
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/rmutil/rmutil.h"

#include <limits>

using namespace rmutil;

namespace
{
constexpr uint32_t kSmallest = rmalloc::unitsFor(sizeof(PoolElement));  // units of an element

void* dataOf(PoolElement* element)
{
    return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(element) + sizeof(PoolElement));
}

// As a number first: what a caller puts back may be anything.
PoolElement* elementOf(void* data)
{
    return reinterpret_cast<PoolElement*>(reinterpret_cast<uintptr_t>(data) - sizeof(PoolElement));
}

// True for a live block of the pool's tag that has room for a link.
bool isElement(const RmPool* pool, PoolElement* element)
{
    return rmalloc::segmentOfLiveBlock(element, pool->tag) != nullptr &&
           rmalloc::headerOf(element)->units >= kSmallest;
}

PoolElement* markOf(const RmPool* pool, const PoolElement* element)
{
    return heldMark(element, rmalloc::tagTable[pool->tag].epoch);
}

bool enter(const RmPool* pool)
{
    return pool->lock == RM_NONE || rm_syncEnterExcl(pool->lock, pool->timeout) != RM_TIMEOUT;
}

void leave(const RmPool* pool)
{
    if (pool->lock != RM_NONE) {
        rm_syncExitExcl(pool->lock);
    }
}

// Null, and the list given up, when the first free element is no block any more, or one that
// somebody holds: a caller has written in front of an element, or freed one, that it no longer
// held. `*bad` is for the warning, which is written when the lock has been left: writing a line may
// not come back.
PoolElement* takeFirst(RmPool* pool, PoolElement** bad)
{
    PoolElement* element = pool->freeList;
    if (element == nullptr) {
        return nullptr;
    }
    if (!isElement(pool, element) || element->next == markOf(pool, element)) {
        pool->freeList = nullptr;
        *bad = element;
        return nullptr;
    }
    pool->freeList = element->next;
    return element;
}

void warn(PoolElement* bad)
{
    if (bad != nullptr) {
        rmalloc::warnBadPointer(dataOf(bad));
    }
}

// Frees an element of a pool whose lock is held. What has been written over around it keeps it
// where it is, and a line says so, with the lock left: that may not come back. False when the lock
// could not be entered again in time.
bool giveBack(RmPool* pool, PoolElement* element)
{
    if (rmalloc::isFreeable(element, pool->tag)) {
        rm_freeMemory(element, pool->tag);
        return true;
    }
    element->next = nullptr;  // or a list that leads around would not end
    leave(pool);
    rm_freeMemory(element, pool->tag);
    return enter(pool);
}

// The element with room for `bytes`, or one in its place. Deliberate: what its last user left in it
// is still there.
PoolElement* sizedFor(uint32_t bytes, PoolElement* element, Tag tag)
{
    if (element == nullptr) {
        return static_cast<PoolElement*>(rm_cGetMemory(bytes, tag));
    }
    if (rmalloc::headerOf(element)->units >= rmalloc::unitsFor(bytes)) {
        return element;  // takeFirst has looked at its header
    }
    void* grown = rm_growMemory(element, bytes, tag);
    return static_cast<PoolElement*>(grown != nullptr ? grown : rm_cGetMemory(bytes, tag));
}
}  // namespace

RmPool* rm_allocPool(uint32_t maximum, int16_t tag, const char* name, uint32_t timeout)
{
    auto* pool = static_cast<RmPool*>(rm_getMemory(sizeof(RmPool), tag));
    if (pool == nullptr) {
        return nullptr;
    }
    pool->freeList = nullptr;
    pool->tag = tag;
    pool->maximum = maximum;
    pool->count = 0;
    pool->lock = name == nullptr ? SyncHandle{RM_NONE} : rm_syncCreate(name);
    pool->timeout = timeout;
    return pool;
}

void* rm_getFromPool(uint32_t size, RmPool* pool)
{
    const uint64_t bytes = uint64_t{size} + sizeof(PoolElement);
    if (bytes > std::numeric_limits<uint32_t>::max()) {
        rmsrv::outOfMemory();
    }
    if (!enter(pool)) {
        return nullptr;
    }
    // Deliberate: nothing counts the elements, so the maximum never limits. Hosts pass estimates.
    if (pool->maximum != 0 && pool->maximum < pool->count + 1) {
        leave(pool);
        return nullptr;
    }
    PoolElement* bad = nullptr;
    PoolElement* element = takeFirst(pool, &bad);
    leave(pool);
    warn(bad);
    element = sizedFor(static_cast<uint32_t>(bytes), element, pool->tag);
    element->next = markOf(pool, element);
    return dataOf(element);
}

int rm_putInPool(void* element, RmPool* pool)
{
    if (element == nullptr) {
        return RM_SUCCESS;
    }
    if (!enter(pool)) {
        return RM_TIMEOUT;
    }
    PoolElement* given = elementOf(element);
    // One that lies on a free list, of whichever pool, leads elsewhere. So does one whose holder
    // has written in front of it; it is not used again.
    const bool held = isElement(pool, given) && given->next == markOf(pool, given);
    if (held) {
        given->next = pool->freeList;
        pool->freeList = given;
    }
    leave(pool);
    if (!held) {
        rmalloc::warnBadPointer(element);
    }
    return RM_SUCCESS;
}

int rm_zFreePool(RmPool** pool)
{
    if (pool == nullptr || *pool == nullptr) {
        return RM_SUCCESS;
    }
    RmPool* gone = *pool;
    if (!enter(gone)) {
        return RM_TIMEOUT;
    }
    const SyncHandle lock = gone->lock;
    PoolElement* bad = nullptr;
    for (PoolElement* element = takeFirst(gone, &bad); element != nullptr;
         element = takeFirst(gone, &bad)) {
        if (!giveBack(gone, element)) {
            return RM_TIMEOUT;
        }
    }
    *pool = nullptr;
    const Tag tag = gone->tag;
    const bool stays = !rmalloc::isFreeable(gone, tag);
    if (!stays) {
        rm_freeMemory(gone, tag);
    }
    if (lock != RM_NONE) {
        rm_syncExitExcl(lock);
        rm_syncDelete(lock);
    }
    if (stays) {
        rm_freeMemory(gone, tag);  // says why
    }
    warn(bad);
    return RM_SUCCESS;
}
