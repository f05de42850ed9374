// The map of a segment: where its blocks begin and end, kept beside it.
//
// Why: the headers inside a segment say everything, but one has to walk through them to learn it,
// with a cache miss at every step. The map says the same in two bits for each unit, so that the
// blocks around a place, and their sizes, are found in one or two words of 64 units. And it stands
// outside of the segment, where the host's overruns come last: what the allocator decides, it
// decides by the map, and a header that does not agree with it has been written over.
//
//   starts   bit u: a free block starts at unit u
//   ends     bit u: a block, free or live, ends with unit u; the anchor at 0 does
//
// 64 units are a strip. For each strip a bound says how large the largest free block is that starts
// in it, and a tree of maxima over the bounds leads to the first that is large enough. A block of
// at most 64 units shows its end in the 64 bits from its start on. There is at most one larger free
// block that starts in a strip, and it is the largest, so the strip's bound is its size exactly.
//
// A segment whose bits fit into one strip is small. Where every block is a segment of its own all
// of them are, and there are as many as there are blocks: the map of a small one stands right
// before it, in the same memory, so that each leads to the other without a look at it.
//
// A block of more than 64 units is believed to be live only when none of the words between its ends
// has a bit set: one word for 512 bytes of it.
//
// Invariant: the bits are as above. A bound is at least the size of each free block that starts in
// the strip, equal to it when that is above 64, and 0 when none starts there. checkSegmentMap()
// tests the map against the headers.
//
// Cost: 2 bits for a unit and 4 bytes for a strip, that is 1 byte for 25 bytes of the segment; what
// SegmentMap itself takes; and up to two lines for rounding. Before a small segment, 128 bytes, 96
// where pointers are half as large. The memory comes from the platform and is not counted in
// memused.
#ifndef RM_RMALLOC_SEGMENTMAP_H
#define RM_RMALLOC_SEGMENTMAP_H

#include "rm/rmalloc/maxtree.h"
#include "rm/rmalloc/rmalloc.h"

#include <cstddef>
#include <cstdint>

namespace rmalloc
{

constexpr uint32_t kStrip = 64;  // units

struct Strip {
    uint64_t starts;
    uint64_t ends;
};

// The strips stand behind it, in the same memory, and then the bounds; behind those of a small
// segment, the segment.
struct alignas(Strip) SegmentMap {
    Segment* segment;
    SegmentMap* next;      // in the chain of the tag
    SegmentMap* previous;  // in the chain of the tag
    SegmentMap* below;     // for the page table: the large one at lower addresses in the same page
    MaxTree bounds;
    uint32_t units;    // of the segment's data area
    uint32_t blocks;   // live ones; the segment says the same to whoever reads it
    uint32_t slot;     // in the chain of the tag
    Bound bound;       // the row of bounds of a chain that has only had this segment
    SegmentMap* self;  // and its row of slots
    Tag tag;
};

// Strips that a segment uses: the anchor has a bit, and so has the unit behind the segment, which
// is asked for a free block that begins there.
constexpr uint32_t usedStrips(uint32_t units)
{
    return (units + 1) / kStrip + 1;
}

// Those, and one that endsFrom() may read.
constexpr uint32_t allStrips(uint32_t units)
{
    return usedStrips(units) + 1;
}

constexpr bool isSmall(uint32_t units)
{
    return usedStrips(units) == 1;
}

// What a small segment has before it. It begins where memory from the platform could.
constexpr std::size_t kBeforeSmall = (sizeof(SegmentMap) + allStrips(1) * sizeof(Strip) +
                                      sizeof(Bound) + (alignof(std::max_align_t) - 1)) /
                                     alignof(std::max_align_t) * alignof(std::max_align_t);

static_assert(kBeforeSmall % alignof(Segment) == 0);

inline Segment* smallSegmentOf(const SegmentMap* map)
{
    return reinterpret_cast<Segment*>(reinterpret_cast<uintptr_t>(map) + kBeforeSmall);
}

inline SegmentMap* mapOfSmall(uintptr_t segment)
{
    return reinterpret_cast<SegmentMap*>(segment - kBeforeSmall);
}

// False when an overrun from the memory in front has reached the map of a small segment: it meets
// the first word first.
inline bool isIntact(const SegmentMap* map)
{
    return !isSmall(map->units) || map->segment == smallSegmentOf(map);
}

// What lies around a block, as the plain walk along the free chain would find it.
struct Neighbours {
    uint32_t previous;       // offset of the free block below, 0 for the anchor
    uint32_t previousUnits;  // of it, 0 for the anchor
    uint32_t nextUnits;      // of the free block that begins where this one ends; 0 for none
};

struct FreeBlock {
    SegmentMap* map;  // null: there is none
    uint32_t offset;
    uint32_t units;
};

// The map of a new segment of `bytes`, with so many units; null when there is no memory. Nothing is
// drawn in it, and nothing written to the segment.
SegmentMap* newSegment(uint32_t bytes, uint32_t units);

// Gives both back to the platform.
void freeSegment(SegmentMap* map);

// Draws the segment as one free block.
void drawEmpty(SegmentMap* map);

// Counts what does not hold, against the headers in the segment, which the caller has found sound.
uint32_t checkSegmentMap(const SegmentMap* map);

// Asks for a map that is about to be read. In a large heap maps are far away, and each line of one
// would be waited for in turn. This is all of one that belongs to a segment of the default size.
// The address may be anything, as it may for every prefetch.
inline void prefetchMap(const SegmentMap* map)
{
    const auto address = reinterpret_cast<uintptr_t>(map);
    __builtin_prefetch(reinterpret_cast<const void*>(address), 1);
    __builtin_prefetch(reinterpret_cast<const void*>(address + 64), 1);
    __builtin_prefetch(reinterpret_cast<const void*>(address + 128), 1);
    __builtin_prefetch(reinterpret_cast<const void*>(address + 192), 1);
    __builtin_prefetch(reinterpret_cast<const void*>(address + 256), 1);
    __builtin_prefetch(reinterpret_cast<const void*>(address + 320), 1);
    __builtin_prefetch(reinterpret_cast<const void*>(address + 384), 1);
}

// The same for that of a small segment.
inline void prefetchSmallMap(const SegmentMap* map)
{
    const auto address = reinterpret_cast<uintptr_t>(map);
    __builtin_prefetch(reinterpret_cast<const void*>(address), 1);
    __builtin_prefetch(reinterpret_cast<const void*>(address + 64), 1);
}

// --- Reading

inline Strip* stripsOf(SegmentMap* map)
{
    return reinterpret_cast<Strip*>(map + 1);
}

inline const Strip* stripsOf(const SegmentMap* map)
{
    return reinterpret_cast<const Strip*>(map + 1);
}

constexpr uint64_t bitOf(uint32_t offset)
{
    return uint64_t{1} << (offset % kStrip);
}

inline bool isFreeAt(const SegmentMap* map, uint32_t offset)
{
    return (stripsOf(map)[offset / kStrip].starts & bitOf(offset)) != 0;
}

inline bool endsAt(const SegmentMap* map, uint32_t offset)
{
    return (stripsOf(map)[offset / kStrip].ends & bitOf(offset)) != 0;
}

// The ends of the 64 units from `offset` on. There is a strip more than units need.
inline uint64_t endsFrom(const SegmentMap* map, uint32_t offset)
{
    const Strip* strip = &stripsOf(map)[offset / kStrip];
    const uint32_t shift = offset % kStrip;
    return strip[0].ends >> shift | strip[1].ends << 1 << (kStrip - 1 - shift);
}

inline uint32_t firstBit(uint64_t bits)
{
    return static_cast<uint32_t>(__builtin_ctzll(bits));
}

inline uint32_t lastBit(uint64_t bits)
{
    return kStrip - 1 - static_cast<uint32_t>(__builtin_clzll(bits));
}

// Units of the free block at `offset`; some number when none starts there. `offset` may be one
// behind the segment. Without a branch: which of the two it is cannot be foreseen.
inline uint32_t freeUnitsAt(const SegmentMap* map, uint32_t offset)
{
    const uint64_t ends = endsFrom(map, offset);
    const auto large = static_cast<uint32_t>(map->bounds.row[offset / kStrip]);
    const uint32_t small = firstBit(ends | bitOf(kStrip - 1)) + 1;
    return ends != 0 ? small : large;
}

// True when no block ends at or behind `offset` and before `end`.
bool noEndBetween(const SegmentMap* map, uint32_t offset, uint32_t end);

// Units of the live block at `offset`, which is inside the segment; 0 when none begins there. The
// header is read only when the block is too large for its end to be seen at once.
inline uint32_t liveUnitsAt(const SegmentMap* map, uint32_t offset)
{
    if (!endsAt(map, offset - 1) || isFreeAt(map, offset)) {
        return 0;
    }
    const uint64_t ends = endsFrom(map, offset);
    if (ends != 0) {
        return firstBit(ends) + 1;
    }
    const uint32_t units = blockAt(map->segment, offset)->units;
    const bool holds = units > kStrip && units <= map->units - offset + 1 &&
                       noEndBetween(map, offset + kStrip, offset + units - 1) &&
                       endsAt(map, offset + units - 1);
    return holds ? units : 0;
}

// The free block below `offset`; 0 when there is none.
inline uint32_t freeBefore(const SegmentMap* map, uint32_t offset)
{
    const uint64_t starts = stripsOf(map)[offset / kStrip].starts & (bitOf(offset) - 1);
    if (starts != 0) {
        return offset / kStrip * kStrip + lastBit(starts);
    }
    const uint32_t strip = lastBefore(map->bounds, offset / kStrip);
    return strip == kNoEntry ? 0 : strip * kStrip + lastBit(stripsOf(map)[strip].starts);
}

[[gnu::always_inline]] inline Neighbours neighboursOf(const SegmentMap* map, uint32_t offset,
                                                      uint32_t units)
{
    Neighbours around = {freeBefore(map, offset), 0, 0};
    if (around.previous != 0) {
        around.previousUnits = freeUnitsAt(map, around.previous);
    }
    const uint32_t nextUnits = freeUnitsAt(map, offset + units);
    around.nextUnits = isFreeAt(map, offset + units) ? nextUnits : 0;
    return around;
}

// True when the free chain of the segment can go on with `link` behind `offset`.
inline bool isLink(const SegmentMap* map, uint32_t offset, uint32_t link)
{
    return link == 0 || (link > offset && link <= map->units && isFreeAt(map, link));
}

// The first free block of at least `need` units. Bounds that turn out too large on the way are
// lowered.
inline FreeBlock firstFitIn(SegmentMap* map, uint32_t need)
{
    const auto bound = static_cast<Bound>(need);
    for (;;) {
        const uint32_t strip = firstAtLeast(map->bounds, bound, 0);
        if (strip == kNoEntry) {
            return {nullptr, 0, 0};
        }
        Bound largest = 0;
        for (uint64_t starts = stripsOf(map)[strip].starts; starts != 0; starts &= starts - 1) {
            const uint32_t offset = strip * kStrip + firstBit(starts);
            const auto units = static_cast<Bound>(freeUnitsAt(map, offset));
            if (units >= bound) {
                return {map, offset, static_cast<uint32_t>(units)};
            }
            largest = units > largest ? units : largest;
        }
        lowerBound(map->bounds, strip, largest);
    }
}

// --- Changing

inline void setEnd(SegmentMap* map, uint32_t offset)
{
    stripsOf(map)[offset / kStrip].ends |= bitOf(offset);
}

inline void clearEnd(SegmentMap* map, uint32_t offset)
{
    stripsOf(map)[offset / kStrip].ends &= ~bitOf(offset);
}

// The same when `really`. Without a branch.
inline void clearEndIf(SegmentMap* map, uint32_t offset, bool really)
{
    stripsOf(map)[offset / kStrip].ends &= ~(uint64_t{really} << (offset % kStrip));
}

// A free block of `units` starts at `offset`. Its end is the caller's.
inline void setFree(SegmentMap* map, uint32_t offset, uint32_t units)
{
    const uint32_t strip = offset / kStrip;
    stripsOf(map)[strip].starts |= bitOf(offset);
    const auto bound = static_cast<Bound>(units);
    const Bound was = map->bounds.row[strip];
    setBound(map->bounds, strip, units > kStrip || bound > was ? bound : was);
}

// The size of the largest free block that starts in a strip.
inline uint32_t largestInStrip(const SegmentMap* map, uint32_t strip)
{
    uint32_t largest = 0;
    for (uint64_t starts = stripsOf(map)[strip].starts; starts != 0; starts &= starts - 1) {
        const uint32_t units = freeUnitsAt(map, strip * kStrip + firstBit(starts));
        largest = units > largest ? units : largest;
    }
    return largest;
}

// No free block starts at `offset` any more.
inline void clearFree(SegmentMap* map, uint32_t offset)
{
    const uint32_t strip = offset / kStrip;
    uint64_t& starts = stripsOf(map)[strip].starts;
    starts &= ~bitOf(offset);
    if (starts == 0) {
        lowerBound(map->bounds, strip, 0);
    }
}

// The free block at `offset` has become larger: it has `units` now. Its end is the caller's.
inline void growFree(SegmentMap* map, uint32_t offset, uint32_t units)
{
    const auto bound = static_cast<Bound>(units);
    if (units > kStrip || bound > map->bounds.row[offset / kStrip]) {
        setBound(map->bounds, offset / kStrip, bound);
    }
}

// The free block at `offset` has become smaller: `units` are left. A bound that is not exact may
// stay too large.
inline void shrinkFree(SegmentMap* map, uint32_t offset, uint32_t units)
{
    setEnd(map, offset + units - 1);
    if (units > kStrip) {
        map->bounds.row[offset / kStrip] = static_cast<Bound>(units);
    }
}

// Cuts `need` units from the high end of a free block; one that fits exactly goes. The bounds are
// lowered where that is soon done and where it matters: a large block stays large. `known` is a
// bound for the whole segment; the result is a lower one if there is, else kUnchanged.
inline Bound cutFree(SegmentMap* map, const FreeBlock& free, uint32_t need, Bound known)
{
    const uint32_t strip = free.offset / kStrip;
    const uint32_t rest = free.units - need;
    uint64_t& starts = stripsOf(map)[strip].starts;
    Bound& bound = map->bounds.row[strip];
    const auto units = static_cast<Bound>(free.units);
    if (rest == 0) {
        starts &= ~bitOf(free.offset);
    } else {
        setEnd(map, free.offset + rest - 1);
    }
    if (rest > kStrip) {
        bound = static_cast<Bound>(rest);
        return kUnchanged;
    }
    if (units < bound && starts != 0) {
        return kUnchanged;
    }
    const auto left = static_cast<Bound>(largestInStrip(map, strip));
    if (units < known && map->bounds.height == 0) {
        bound = left;
        return kUnchanged;
    }
    return lowerBound(map->bounds, strip, left);
}

}  // namespace rmalloc

#endif
