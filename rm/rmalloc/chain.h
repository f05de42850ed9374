// The chain of a tag: its segments in their order, and which is the first with room.
//
// Why: first fit looks through the segments of a tag in the order in which they were got. Each has
// a slot here, in that order, with a bound for its largest free block; a tree of maxima over the
// bounds leads to the first that may have room. The chain of the segments' own `next` pointers
// stays as it is and is kept from here.
//
// A segment that goes leaves an empty slot with a bound of 0. When the slots run out, those in use
// move together into a row of twice their number; a row that is mostly empty is made smaller. The
// first segment of a tag brings its slot along, in its map: most tags have no other.
//
// The place where blocks are being cut is remembered: a server that takes block after block, or
// takes one and gives it back again and again, needs no search for most of them.
//
// Invariant: slots in use are in chain order; the bound of a slot is at least that of each free
// block in the segment, and 0 when the slot is empty. checkChain() tests it.
//
// Cost: sizeof(Chain) for each tag that the tag table has room for; a slot of a pointer and a bound
// for each segment, and up to seven empty ones beside it. The memory comes from the platform and is
// not counted in memused.
#ifndef RM_RMALLOC_CHAIN_H
#define RM_RMALLOC_CHAIN_H

#include "rm/rmalloc/maxtree.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmalloc/segmentmap.h"

#include <cstdint>

namespace rmalloc
{

// The free block that blocks are being cut from: place.h.
struct Place {
    uint32_t floor;     // units: requests of at least so many do not fit before it
    uint32_t offset;    // of the free block
    SegmentMap* map;    // its segment
    BlockHeader* from;  // its header
    uint32_t units;     // of the free block as it is now; 0: no place is known
    uint32_t link;      // in its header
    uint32_t cut;  // units of the block behind it that was cut last, while that is live; 0: none
};

struct Chain {
    SegmentMap* first;
    SegmentMap* last;
    SegmentMap** slots;  // null: empty
    MaxTree bounds;      // one for each slot
    uint32_t used;       // slots given out so far, those that have become empty included
    uint32_t segments;
    uint32_t large;  // those of them that are not small
    Place place;
};

// One for each record of the tag table.
extern Chain* chains;

// A row of empty chains; null when there is no memory.
Chain* newChains(int16_t count);
void freeChains(Chain* row);

// Makes sure that the chain has a slot for one segment more. False when there is no memory.
bool reserveSlot(Chain* chain);

// Appends a segment, into the slot that was reserved. Whoever leaves free space in it says so with
// noteFree().
void append(Chain* chain, TagRecord* record, SegmentMap* map);

// Takes a segment out.
void unlink(Chain* chain, TagRecord* record, SegmentMap* map);

// Forgets all segments. Whoever calls it has the maps.
void emptyChain(Chain* chain);

// The first free block of at least `need` units in the slots from `from` on: segments in chain
// order, blocks in address order.
inline FreeBlock firstFit(Chain* chain, uint32_t need, uint32_t from)
{
    if (chain->first == nullptr) {
        return {nullptr, 0, 0};
    }
    for (;;) {
        const uint32_t slot = firstAtLeast(chain->bounds, static_cast<Bound>(need), from);
        if (slot == kNoEntry) {
            return {nullptr, 0, 0};
        }
        SegmentMap* map = chain->slots[slot];
        const FreeBlock free = firstFitIn(map, need);
        if (free.map != nullptr) {
            return free;
        }
        lowerBound(chain->bounds, slot, largestBound(map->bounds));
    }
}

// The map in a slot; null when that is empty. Where there is only one, the row of slots stands in
// the map of a segment, which may have been written over.
inline SegmentMap* mapInSlot(const Chain* chain, uint32_t slot)
{
    return chain->bounds.length == 1 ? chain->first : chain->slots[slot];
}

// Counts what does not hold; 0 is sound.
uint32_t checkChain(const Chain* chain, const TagRecord* record);

// There is a free block of `units` in the segment.
inline void noteFree(Chain* chain, const SegmentMap* map, uint32_t units)
{
    raiseBound(chain->bounds, map->slot, static_cast<Bound>(units));
}

}  // namespace rmalloc

#endif
