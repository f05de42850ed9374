// Maps of segments: making, searching and checking them. What they are: segmentmap.h.
#include "rm/rmalloc/segmentmap.h"

#include "rm/rmalloc/pieces.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

using namespace rmalloc;

namespace
{
uint32_t linesOf(std::size_t bytes)
{
    return static_cast<uint32_t>((bytes + kLine - 1) / kLine);
}

// Bytes of a map before its bounds. A node of them is one line when the map begins with one.
std::size_t bytesBeforeBounds(uint32_t units)
{
    const std::size_t bytes = sizeof(SegmentMap) + allStrips(units) * sizeof(Strip);
    return isSmall(units) ? bytes : linesOf(bytes) * kLine;
}

std::size_t bytesOfMap(uint32_t units)
{
    return bytesBeforeBounds(units) + bytesOfMaxTree(usedStrips(units));
}

// Maps of segments of the usual sizes are. A larger one is zeroed by the platform: what it needs is
// then not touched before it is used.
bool isPiece(uint32_t units)
{
    return bytesOfMap(units) <= kLargestPiece * kLine;
}

// For the map of a segment that is not small.
void* newMemory(uint32_t units)
{
    const std::size_t bytes = bytesOfMap(units);
    return isPiece(units) ? newPiece(linesOf(bytes)) : std::calloc(1, bytes);
}

void freeMemory(SegmentMap* map)
{
    if (isPiece(map->units)) {
        freePiece(map, linesOf(bytesOfMap(map->units)));
    } else {
        std::free(map);
    }
}

SegmentMap* newSmallSegment(uint32_t bytes)
{
    void* memory = rm_getSeg(static_cast<uint32_t>(kBeforeSmall) + bytes);
    if (memory == nullptr) {
        return nullptr;
    }
    auto* map = static_cast<SegmentMap*>(std::memset(memory, 0, kBeforeSmall));
    map->segment = smallSegmentOf(map);
    return map;
}

SegmentMap* newLargeSegment(uint32_t bytes, uint32_t units)
{
    auto* segment = static_cast<Segment*>(rm_getSeg(bytes));
    auto* map = segment == nullptr ? nullptr : static_cast<SegmentMap*>(newMemory(units));
    if (map == nullptr) {
        rm_freeSeg(segment);
        return nullptr;
    }
    map->segment = segment;
    return map;
}
}  // namespace

SegmentMap* rmalloc::newSegment(uint32_t bytes, uint32_t units)
{
    SegmentMap* map = isSmall(units) ? newSmallSegment(bytes) : newLargeSegment(bytes, units);
    if (map != nullptr) {
        char* bounds = reinterpret_cast<char*>(map) + bytesBeforeBounds(units);
        map->bounds = makeMaxTree(bounds, usedStrips(units));
        map->units = units;
    }
    return map;
}

void rmalloc::freeSegment(SegmentMap* map)
{
    if (map == nullptr) {
        return;
    }
    if (isSmall(map->units)) {
        rm_freeSeg(map);
    } else {
        rm_freeSeg(map->segment);
        freeMemory(map);
    }
}

void rmalloc::drawEmpty(SegmentMap* map)
{
    setEnd(map, 0);
    setEnd(map, map->units);
    setFree(map, 1, map->units);
}

bool rmalloc::noEndBetween(const SegmentMap* map, uint32_t offset, uint32_t end)
{
    if (offset >= end) {
        return true;
    }
    const Strip* strips = stripsOf(map);
    const uint32_t last = (end - 1) / kStrip;
    uint64_t ends = strips[offset / kStrip].ends & ~(bitOf(offset) - 1);
    for (uint32_t strip = offset / kStrip; strip < last;) {
        if (ends != 0) {
            return false;
        }
        ends = strips[++strip].ends;
    }
    // Of the last strip, what is below `end`.
    return (ends & (~uint64_t{0} >> (kStrip - 1 - (end - 1) % kStrip))) == 0;
}

uint32_t rmalloc::checkSegmentMap(const SegmentMap* map)
{
    Segment* segment = map->segment;
    const Strip* strips = stripsOf(map);
    uint32_t violations = map->units == segment->units && map->blocks == segment->blocks ? 0 : 1;
    violations += checkMaxTree(map->bounds);
    uint32_t free = segment->anchor.word1;  // the next free block of the chain
    uint32_t offset = 1;                    // of the block that is looked at
    Strip drawn = {0, bitOf(0)};            // one strip as the headers have it
    Bound largest = 0;                      // of its free blocks
    for (uint32_t strip = 0; strip < usedStrips(map->units); ++strip) {
        // A block may end in a strip without starting there, or do neither.
        while (offset <= segment->units && offset / kStrip == strip) {
            const BlockHeader* block = blockAt(segment, offset);
            if (offset == free) {
                drawn.starts |= bitOf(offset);
                largest = std::max(largest, static_cast<Bound>(block->units));
                free = block->word1;
            }
            offset += block->units;
            if ((offset - 1) / kStrip == strip) {
                drawn.ends |= bitOf(offset - 1);
            }
        }
        const Bound bound = map->bounds.row[strip];
        const bool holds = strips[strip].starts == drawn.starts &&
                           strips[strip].ends == drawn.ends && bound >= largest &&
                           (bound == 0) == (largest == 0) &&
                           (largest <= static_cast<Bound>(kStrip) || bound == largest);
        violations += holds ? 0 : 1;
        const bool endsInNext = (offset - 1) / kStrip == strip + 1;
        drawn = {0, endsInNext ? bitOf(offset - 1) : 0};
        largest = 0;
    }
    const Strip& spare = strips[usedStrips(map->units)];
    return violations + (spare.starts == 0 && spare.ends == 0 ? 0 : 1);
}
