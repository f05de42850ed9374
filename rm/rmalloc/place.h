// The place: the short way for most requests.
//
// Why: a server takes block after block, or takes one and gives it back, again and again. First fit
// then finds the same free block each time. It is remembered, with what is known of it: requests of
// at least `floor` units fit nowhere before it. Such a request is cut from it without a search, and
// the block that was cut last is put back without looking anything up.
//
// Taking blocks elsewhere makes no room, so the place stays known. Giving a block back or resizing
// one may make room before it, or merge it: the place is forgotten then. Putting back the block
// that was cut last makes it what it was before.
//
// Invariant: while a place is known, its free block is as it says, no free block before it in the
// chain has `floor` units or more, and behind it is a live block of `cut` units, if that is not 0.
// checkPlace() tests it.
#ifndef RM_RMALLOC_PLACE_H
#define RM_RMALLOC_PLACE_H

#include "rm/rmalloc/chain.h"
#include "rm/rmalloc/segmentmap.h"

#include <cstdint>

namespace rmalloc
{

inline void forgetPlace(Chain* chain)
{
    chain->place.units = 0;
    chain->place.cut = 0;
}

inline bool isPlace(const Chain* chain, const FreeBlock& free)
{
    const Place& place = chain->place;
    return place.units != 0 && place.map == free.map && place.offset == free.offset;
}

// Remembers where a block was cut after a search. A request that is smaller than the floor may have
// found a free block before the place; the place stays what it is then.
inline void notePlace(Chain* chain, const FreeBlock& free, uint32_t need, BlockHeader* from)
{
    Place& place = chain->place;
    if (place.units == 0 || need >= place.floor || isPlace(chain, free)) {
        place = {need, free.offset, free.map, from, free.units - need, from->word1, need};
        if (!isLink(free.map, free.offset, from->word1)) {
            forgetPlace(chain);  // written over; what is given back there has to be looked at
        }
    }
}

// Cuts a block at the place when that is the first one where it fits. Null when it is not, or when
// the header there has been written over. What is left over keeps the bound that it has: it is not
// too small, and a search that it leads astray will lower it.
inline void* cutAtPlace(Tag tag, uint32_t need)
{
    Place& place = chains[tag].place;
    if (need >= place.units || need < place.floor) {
        return nullptr;
    }
    SegmentMap* map = place.map;
    BlockHeader* from = place.from;
    if (from->units != place.units || from->word1 != place.link) {
        return nullptr;
    }
    const uint32_t rest = place.units - need;
    from->units = rest;
    shrinkFree(map, place.offset, rest);
    BlockHeader* header = &from[rest];
    *header = {kLiveMagic, need};
    segmentAt(from, place.offset)->blocks = ++map->blocks;
    tagTable[tag].allocated += need * kUnit;
    place.units = rest;
    place.cut = need;
    return header + 1;
}

// True for the block that was cut last at the place, which is still known.
inline bool isLastCut(Tag tag, const BlockHeader* header)
{
    if (static_cast<uint16_t>(tag) >= static_cast<uint16_t>(nTags)) {
        return false;
    }
    const Place& place = chains[tag].place;
    return place.from + place.units == header && place.cut != 0;
}

// Puts the block that was cut last back to where it was cut from. False, with nothing changed, when
// one of the two headers has been written over, or it is the last block of its segment.
[[gnu::always_inline]] inline bool undoLastCut(Tag tag)
{
    Chain* chain = &chains[tag];
    Place& place = chain->place;
    SegmentMap* map = place.map;
    BlockHeader* from = place.from;
    BlockHeader* header = from + place.units;
    const bool sound = header->word1 == kLiveMagic && header->units == place.cut &&
                       from->units == place.units && from->word1 == place.link;
    if (!sound || map->blocks == 1) {
        return false;
    }
    place.units += place.cut;
    header->word1 = place.link;
    from->units = place.units;
    clearEnd(map, place.offset + from->units - place.cut - 1);
    growFree(map, place.offset, place.units);
    noteFree(chain, map, place.units);
    segmentAt(from, place.offset)->blocks = --map->blocks;
    tagTable[tag].allocated -= place.cut * kUnit;
    place.cut = 0;
    return true;
}

// Counts what does not hold; 0 is sound.
uint32_t checkPlace(const Chain* chain);

}  // namespace rmalloc

#endif
