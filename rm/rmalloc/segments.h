// Segments and blocks: what segments.cpp does, for the allocation calls and for tags.
#ifndef RM_RMALLOC_SEGMENTS_H
#define RM_RMALLOC_SEGMENTS_H

#include "rm/rmalloc/chain.h"
#include "rm/rmalloc/pagetable.h"
#include "rm/rmalloc/place.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmalloc/segmentmap.h"

#include <cstdint>

namespace rmalloc
{

struct LiveBlock {
    SegmentMap* map;  // null: there is none
    BlockHeader* header;
    uint32_t offset;
    uint32_t units;
    Neighbours around;
};

// The live block at `pointer`, which may be anything. Nothing is read outside of segments.
//
// In a large heap the header is far away. It is asked for first and looked at last, since the map
// says everything else; a prefetch of an address does nothing but that, whatever the address is.
[[gnu::always_inline]] inline LiveBlock liveBlockAt(void* pointer)
{
    BlockHeader* header = headerOf(pointer);
    __builtin_prefetch(header, 1);
    SegmentMap* map = isAligned(pointer) ? mapHolding(header) : nullptr;
    if (map != nullptr) {
        if (isSmall(map->units)) {
            __builtin_prefetch(map->previous, 1);  // the segment may go with its block
            __builtin_prefetch(map->next, 1);
        }
        const uint32_t offset = offsetOf(map->segment, header);
        const uint32_t units = liveUnitsAt(map, offset);
        const Neighbours around = neighboursOf(map, offset, units);
        __builtin_prefetch(blockAt(map->segment, around.previous), 1);
        if (units != 0 && header->word1 == kLiveMagic && header->units == units) {
            return {map, header, offset, units, around};
        }
    }
    return {};
}

// A block for `size` bytes; the caller has checked the tag. Fatal when there is no memory.
void* allocBlock(uint32_t size, Tag tag);

// Gives back the live block at `pointer`, and its segment when that holds no other. What is wrong
// with the pointer or the tag is said in the log, and nothing is changed.
void giveBack(void* pointer, Tag tag);

// Gives an unlinked segment back to the platform, and its map.
void returnSegment(SegmentMap* map);

// The block with `need` units, at the low end of the space that it and its free neighbours take,
// with its first `keepBytes` of contents. `fits` is false when that is too small; null when the
// tag's free chain is damaged or the tag is not the block's (logged).
void* resizeInPlace(Tag tag, const LiveBlock& block, uint32_t need, uint32_t keepBytes, bool* fits);

}  // namespace rmalloc

#endif
