// Segments and blocks: where a block is placed, and how it is given back.
//
// Why: the placement is part of what the library promises. Hosts compare memory reports between
// releases and machines, so the same calls must give the same blocks at the same offsets.
//
//   taking    first fit: segments in chain order, free blocks in address order; cut from the high
//             end of the free block, even when a bare header is all that remains of it
//   giving    back into the free chain in address order, merged with both free neighbours; a
//             segment without live blocks goes back to the platform at once
//   resizing  in place whenever the block and its free neighbours are large enough together, and
//             then at the low end of that space
//
// Owns: the contents of segments. A free chain is kept as offsets in units from the segment's
// anchor, which is the same 8 bytes on every machine.
//
// Invariant: chain ascending and inside the data area; no two free blocks touch; live and free
// blocks tile the data area; `blocks` counts the live ones. checkMemory() tests it.
//
// Fatal: no memory for a segment. Nothing has been changed by then.
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>
#include <cstring>
#include <limits>

using namespace rmalloc;

namespace rmalloc
{
uint32_t segmentsReturned = 0;
}  // namespace rmalloc

namespace
{
BlockHeader* endOf(BlockHeader* block)
{
    return block + block->units;
}

// Where a block belongs in the free chain of its segment.
struct Place {
    BlockHeader* beforePrevious;  // null when the previous one is the anchor
    BlockHeader* previous;        // the free block, or anchor, below the block; null: chain damaged
    BlockHeader* next;            // the free block above it, or null
};

Place findPlace(Segment* segment, const BlockHeader* header)
{
    Place place = {nullptr, &segment->anchor, nullptr};
    while (place.previous->word1 != 0) {
        if (!isChainLink(segment, place.previous)) {
            return {nullptr, nullptr, nullptr};
        }
        BlockHeader* next = blockAt(segment, place.previous->word1);
        if (next > header) {
            place.next = next;
            break;
        }
        place.beforePrevious = place.previous;
        place.previous = next;
    }
    return place;
}

// False when the header lies inside a free block, or its block reaches into one: an old header,
// left in memory that has gone back and come again, or one that was written over.
bool isBetween(const Place& place, BlockHeader* header)
{
    return endOf(place.previous) <= header &&
           (place.next == nullptr || endOf(header) <= place.next);
}

// Words of the header: the chain ends with 0.
uint32_t linkTo(const Segment* segment, const BlockHeader* block)
{
    return block == nullptr ? 0 : offsetOf(segment, block);
}
}  // namespace

bool rmalloc::isChainLink(const Segment* segment, const BlockHeader* block)
{
    const uint32_t next = block->word1;
    if (next <= offsetOf(segment, block) || next > segment->units) {
        return false;
    }
    const uint32_t units = (&segment->anchor + next)->units;
    return units > 0 && units <= segment->units - next + 1;
}

void rmalloc::warnBadPointer(void* pointer)
{
    rm_systemLogWrite("WARNING: attempting to free bad pointer, %p", pointer);
}

void* rmalloc::allocBlock(uint32_t size, Tag tag)
{
    const uint32_t need = unitsFor(size);
    TagRecord* record = &tagTable[tag];
    if (record->segments == nullptr) {
        allocSeg(record, need, &record->segments);
    }
    Fit fit = firstFit(record, need);
    if (fit.segment == nullptr) {
        Segment** last = &record->segments;
        while (*last != nullptr) {
            last = &(*last)->next;
        }
        allocSeg(record, need, last);
        fit = {*last, &(*last)->anchor, blockAt(*last, 1)};
    }
    return allocSegBlock(need, fit.block, fit.link, fit.segment, record);
}

void* rmalloc::allocSegBlock(uint32_t need, BlockHeader* block, BlockHeader* link, Segment* segment,
                             TagRecord* record)
{
    RM_ASSERT(block->units >= need);
    if (block->units == need) {
        link->word1 = block->word1;
    } else {
        block->units -= need;
        block = endOf(block);
    }
    block->word1 = kLiveMagic;
    block->units = need;
    ++segment->blocks;
    record->allocated += need * kUnit;
    return block + 1;
}

void rmalloc::allocSeg(TagRecord* record, uint32_t need, Segment** where)
{
    uint64_t bytes = uint64_t{need} * kUnit + kSegmentHeader;
    uint32_t units = need;
    if (seg_alloc == 0 && bytes < record->segmentSize) {
        bytes = record->segmentSize;
        units = (record->segmentSize - kSegmentHeader) / kUnit;
    }
    void* memory = nullptr;
    if (bytes <= std::numeric_limits<uint32_t>::max()) {
        memory = rm_getSeg(static_cast<uint32_t>(bytes));
    }
    if (memory == nullptr) {
        rmsrv::outOfMemory();
    }
    auto* segment = static_cast<Segment*>(memory);
    segment->next = nullptr;
    segment->units = units;
    segment->blocks = 0;
    segment->anchor = {1, 0};
    *blockAt(segment, 1) = {0, units};
    memused += static_cast<uint32_t>(bytes);
    *where = segment;
}

BlockHeader* rmalloc::freeBlock(Tag tag, BlockHeader* header, Segment** segment,
                                Segment** previousSegment, BlockHeader** holder)
{
    *segment = findInTag(&tagTable[tag], header, previousSegment);
    if (*segment == nullptr) {
        rm_systemLogWrite("tag = %d, freeHDR = %08lX", tag,
                          static_cast<unsigned long>(reinterpret_cast<uintptr_t>(header)));
        rm_systemLogWrite("WARNING: pointer not found within tag segments, %p",
                          static_cast<void*>(header + 1));
        return nullptr;
    }
    const Place place = findPlace(*segment, header);
    if (place.previous == nullptr) {
        rm_systemLogWrite("WARNING: corrupted free chain searching for %p",
                          static_cast<void*>(header + 1));
        *segment = nullptr;
        return nullptr;
    }
    if (!isBetween(place, header)) {
        warnBadPointer(header + 1);
        *segment = nullptr;
        return nullptr;
    }
    checkMerge(*segment, header, place.next);
    checkMerge(*segment, place.previous, header);
    const bool absorbed = place.previous->word1 != offsetOf(*segment, header);
    *holder = absorbed ? place.previous : header;
    return absorbed ? place.beforePrevious : place.previous;
}

void rmalloc::checkMerge(Segment* segment, BlockHeader* first, BlockHeader* second)
{
    if (second != nullptr && endOf(first) == second) {
        first->units += second->units;
        first->word1 = second->word1;
    } else {
        first->word1 = linkTo(segment, second);
    }
}

void rmalloc::adjustNumbers(TagRecord* record, uint32_t units, Segment* segment,
                            Segment* previousSegment)
{
    record->allocated -= units * kUnit;
    --segment->blocks;
    if (segment->blocks > 0) {
        return;
    }
    if (previousSegment == nullptr) {
        record->segments = segment->next;
    } else {
        previousSegment->next = segment->next;
    }
    returnSegment(segment);
}

void rmalloc::returnSegment(Segment* segment)
{
    memused -= segment->units * kUnit + kSegmentHeader;
    ++segmentsReturned;
    rm_freeSeg(segment);
}

bool rmalloc::liesInFreeSpace(Segment* segment, BlockHeader* header)
{
    const Place place = findPlace(segment, header);
    return place.previous != nullptr && !isBetween(place, header);
}

uint32_t rmalloc::spanWithNeighbours(Segment* segment, BlockHeader* header)
{
    const Place place = findPlace(segment, header);
    if (place.previous == nullptr || !isBetween(place, header)) {
        return 0;
    }
    uint32_t units = header->units;
    if (place.next == endOf(header)) {
        units += place.next->units;
    }
    if (endOf(place.previous) == header) {
        units += place.previous->units;
    }
    return units;
}

void* rmalloc::rebuildAtLowEnd(Segment* segment, BlockHeader* before, BlockHeader* holder,
                               BlockHeader* oldHeader, uint32_t need, uint32_t keepBytes)
{
    // Read before the contents move over them.
    const BlockHeader span = *holder;
    if (holder < oldHeader) {
        std::memmove(holder + 1, oldHeader + 1, keepBytes);
    }
    if (span.units > need) {
        BlockHeader* rest = holder + need;
        *rest = {span.word1, span.units - need};
        before->word1 = offsetOf(segment, rest);
    } else {
        before->word1 = span.word1;
    }
    *holder = {kLiveMagic, need};
    return holder + 1;
}
