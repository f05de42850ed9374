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
// Where things lie is asked of the map of the segment; the headers and the free chain in the
// segment are kept as a plain walk would keep them, and compared before they are written to. What
// does not agree has been written over by the host: a block is not given back next to a free block
// to which that has happened, and such a free block is not given out.
//
// Owns: the contents of segments. A free chain is kept as offsets in units from the segment's
// anchor, which is the same 8 bytes on every machine.
//
// Invariant: chain ascending and inside the data area; no two free blocks touch; live and free
// blocks tile the data area; `blocks` counts the live ones; the map says the same. checkMemory()
// tests it.
//
// Fatal: no memory for a segment. Nothing has been changed by then.
#include "rm/rmalloc/segments.h"

#include "rm/rmsrv/rmsrv.h"

#include <cstring>
#include <limits>

using namespace rmalloc;

namespace
{
// True when the header at `offset` is that of a free block of `units`, or of the anchor, whose
// units nothing depends on.
inline bool agrees(const SegmentMap* map, uint32_t offset, uint32_t units)
{
    const BlockHeader* header = blockAt(map->segment, offset);
    return (offset == 0 || header->units == units) && isLink(map, offset, header->word1);
}

// True when the free chain around a live block is as the map has it.
[[gnu::always_inline]] inline bool chainAgrees(const LiveBlock& block)
{
    const Neighbours& around = block.around;
    const SegmentMap* map = block.map;
    const uint32_t end = block.offset + block.units;
    const uint32_t link = blockAt(map->segment, around.previous)->word1;
    if (!agrees(map, around.previous, around.previousUnits) || (link != 0 && link < end)) {
        return false;
    }
    const uint32_t first = map->segment->anchor.word1;
    if (around.previous != 0 && (first == 0 || first > around.previous || !isFreeAt(map, first))) {
        return false;
    }
    return around.nextUnits == 0 || (link == end && agrees(map, end, around.nextUnits));
}

// A free block that a request can be cut from.
inline bool isUsable(const FreeBlock& free, uint32_t need)
{
    if (!isIntact(free.map)) {
        return false;
    }
    const BlockHeader* header = blockAt(free.map->segment, free.offset);
    if (header->units != free.units) {
        return false;
    }
    // One that fits exactly is unlinked: what is below it gets its link.
    return header->units != need ||
           (isLink(free.map, free.offset, header->word1) &&
            blockAt(free.map->segment, freeBefore(free.map, free.offset))->word1 == free.offset);
}

const SegmentMap* mapOfTagHolding(Tag tag, const BlockHeader* header)
{
    const SegmentMap* map = mapHolding(header);
    return map != nullptr && map->tag == tag ? map : nullptr;
}

// False when the header in the segment is no live block's, or its units lead out of the segment.
bool looksLive(const SegmentMap* map, const BlockHeader* header)
{
    return header->word1 == kLiveMagic && header->units > 0 &&
           header->units <= map->units - offsetOf(map->segment, header) + 1;
}

inline bool touchesPrevious(const LiveBlock& block)
{
    const Neighbours& around = block.around;
    return around.previous != 0 && around.previous + around.previousUnits == block.offset;
}

// Carves `need` units out of a free block that is large enough.
void* allocSegBlock(uint32_t need, const FreeBlock& free, Tag tag)
{
    SegmentMap* map = free.map;
    Segment* segment = map->segment;
    BlockHeader* block = blockAt(segment, free.offset);
    Chain* chain = &chains[tag];
    RM_ASSERT(free.units >= need && block->units == free.units);
    const uint32_t rest = free.units - need;
    if (rest == 0) {
        const uint32_t before = freeBefore(map, free.offset);
        blockAt(segment, before)->word1 = block->word1;
        if (isPlace(chain, {map, before, 0})) {
            chain->place.link = block->word1;
        }
        if (isPlace(chain, free)) {
            forgetPlace(chain);
        }
    } else {
        block->units = rest;
        notePlace(chain, free, need, block);
        block = &block[rest];
    }
    const Bound known = chain->bounds.row[map->slot];
    const Bound largest = cutFree(map, free, need, known);
    if (largest < known) {
        lowerBound(chain->bounds, map->slot, largest);
    }
    *block = {kLiveMagic, need};
    segment->blocks = ++map->blocks;
    tagTable[tag].allocated += need * kUnit;
    return block + 1;
}

// Appends a segment with room for `need` units to the tag's chain: one free block.
SegmentMap* allocSeg(Tag tag, uint32_t need)
{
    TagRecord* record = &tagTable[tag];
    uint64_t bytes = uint64_t{need} * kUnit + kSegmentHeader;
    uint32_t units = need;
    if (seg_alloc == 0 && bytes < record->segmentSize) {
        bytes = record->segmentSize;
        units = (record->segmentSize - kSegmentHeader) / kUnit;
    }
    SegmentMap* map = nullptr;
    if (bytes <= std::numeric_limits<uint32_t>::max()) {
        map = newSegment(static_cast<uint32_t>(bytes), units);
    }
    if (map == nullptr || !reserveSlot(&chains[tag]) || !addToPageTable(map)) {
        freeSegment(map);
        rmsrv::outOfMemory();
    }
    map->tag = tag;
    Segment* segment = map->segment;
    segment->next = nullptr;
    segment->units = units;
    segment->blocks = 0;
    segment->anchor = {1, 0};
    *blockAt(segment, 1) = {0, units};
    drawEmpty(map);
    append(&chains[tag], record, map);
    memused += static_cast<uint32_t>(bytes);
    return map;
}

// Links a block between its free neighbours, or merges it with those that it touches. The result is
// the free block that it is part of then; the map does not show it yet.
FreeBlock checkMerge(const LiveBlock& block)
{
    SegmentMap* map = block.map;
    const Neighbours& around = block.around;
    const bool down = touchesPrevious(block);
    const bool up = around.nextUnits != 0;
    const uint32_t end = block.offset + block.units;
    const uint32_t low = down ? around.previous : block.offset;
    const uint32_t units = block.units + around.nextUnits + (down ? around.previousUnits : 0);
    const uint32_t link = blockAt(map->segment, up ? end : around.previous)->word1;
    block.header->word1 = link;  // the magic goes, also when the block below absorbs this one
    blockAt(map->segment, around.previous)->word1 = down ? link : low;
    *blockAt(map->segment, low) = {link, units};
    clearEndIf(map, block.offset - 1, down);
    clearEndIf(map, end - 1, up);
    if (up) {
        clearFree(map, end);
    }
    return {map, low, units};
}

// On its own, so that the short way in allocBlock needs none of its registers.
[[gnu::noinline]] void* allocBySearch(uint32_t need, Tag tag)
{
    Chain* chain = &chains[tag];
    FreeBlock free = firstFit(chain, need, 0);
    bool skipped = false;
    while (free.map != nullptr && !isUsable(free, need)) {
        free = firstFit(chain, need, free.map->slot + 1);
        skipped = true;
    }
    const bool none = free.map == nullptr;
    if (none) {
        SegmentMap* map = allocSeg(tag, need);
        free = {map, 1, map->units};
    }
    void* block = allocSegBlock(need, free, tag);
    if (none) {
        noteFree(chain, free.map, free.units - need);
    }
    if (skipped) {
        forgetPlace(chain);  // it is not the first one where such a request fits
    }
    return block;
}

void sayNotFound(Tag tag, BlockHeader* header)
{
    rm_systemLogWrite("tag = %d, freeHDR = %08lX", tag,
                      static_cast<unsigned long>(reinterpret_cast<uintptr_t>(header)));
    rm_systemLogWrite("WARNING: pointer not found within tag segments, %p",
                      static_cast<void*>(header + 1));
}

void sayCorrupted(BlockHeader* header)
{
    rm_systemLogWrite("WARNING: corrupted free chain searching for %p",
                      static_cast<void*>(header + 1));
}

// False, with a line in the log, when the block cannot be given back or resized under the tag.
[[gnu::always_inline]] inline bool isInOrder(Tag tag, const LiveBlock& block)
{
    if (block.map->tag != tag) {
        sayNotFound(tag, block.header);
        return false;
    }
    if (!chainAgrees(block)) {
        sayCorrupted(block.header);
        return false;
    }
    return true;
}

// Puts a live block into its segment's free chain. False when that failed (logged).
inline bool freeBlock(Tag tag, const LiveBlock& block)
{
    if (!isInOrder(tag, block)) {
        return false;
    }
    forgetPlace(&chains[tag]);
    if (block.map->blocks == 1) {
        return true;  // the segment goes as a whole
    }
    const FreeBlock free = checkMerge(block);
    setFree(block.map, free.offset, free.units);
    noteFree(&chains[tag], block.map, free.units);
    return true;
}

// Accounts for `units` given back; returns the segment to the platform when it holds no block.
inline void adjustNumbers(Tag tag, uint32_t units, SegmentMap* map)
{
    tagTable[tag].allocated -= units * kUnit;
    map->segment->blocks = --map->blocks;
    if (map->blocks == 0) {
        unlink(&chains[tag], &tagTable[tag], map);
        returnSegment(map);
    }
}
}  // namespace

void rmalloc::warnBadPointer(void* pointer)
{
    rm_systemLogWrite("WARNING: attempting to free bad pointer, %p", pointer);
}

Segment* rmalloc::findInTag(Tag tag, const BlockHeader* header)
{
    const SegmentMap* map = mapOfTagHolding(tag, header);
    return map != nullptr ? map->segment : nullptr;
}

// With a short way for a tag of one segment: pools ask it of every element. A map that may have
// been written over, that of a small segment, does not lead that way.
Segment* rmalloc::segmentOfLiveBlock(void* pointer, Tag tag)
{
    if (tag < 0 || tag >= nTags || !isAligned(pointer)) {
        return nullptr;
    }
    const BlockHeader* header = headerOf(pointer);
    const Chain& chain = chains[tag];
    const SegmentMap* map = chain.large == chain.segments ? chain.first : nullptr;
    if (map == nullptr || !holds(map->segment, map->units, header)) {
        map = mapOfTagHolding(tag, header);
    }
    return map != nullptr && looksLive(map, header) ? map->segment : nullptr;
}

bool rmalloc::isFreeable(void* pointer, Tag tag)
{
    const LiveBlock block = liveBlockAt(pointer);
    return block.map != nullptr && isInUse(tag) && block.map->tag == tag && chainAgrees(block);
}

void* rmalloc::allocBlock(uint32_t size, Tag tag)
{
    const uint32_t need = unitsFor(size);
    void* block = cutAtPlace(tag, need);
    return block != nullptr ? block : allocBySearch(need, tag);
}

void rmalloc::giveBack(void* pointer, Tag tag)
{
    const LiveBlock block = liveBlockAt(pointer);
    if (block.map == nullptr) {
        warnBadPointer(pointer);
    } else if (checkTag(tag, "rm_freeMemory") == RM_SUCCESS && freeBlock(tag, block)) {
        adjustNumbers(tag, block.units, block.map);
    }
}

void rmalloc::returnSegment(SegmentMap* map)
{
    memused -= map->units * kUnit + kSegmentHeader;
    removeFromPageTable(map);
    freeSegment(map);
}

void* rmalloc::resizeInPlace(Tag tag, const LiveBlock& block, uint32_t need, uint32_t keepBytes,
                             bool* fits)
{
    *fits = true;
    if (!isInOrder(tag, block)) {
        return nullptr;
    }
    const Neighbours& around = block.around;
    SegmentMap* map = block.map;
    Segment* segment = map->segment;
    const bool down = touchesPrevious(block);
    const uint32_t span = block.units + around.nextUnits + (down ? around.previousUnits : 0);
    *fits = span >= need;
    if (!*fits || (span == block.units && span == need)) {
        return block.header + 1;
    }
    const uint32_t low = down ? around.previous : block.offset;
    const uint32_t before = down ? freeBefore(map, around.previous) : around.previous;
    if (down && blockAt(segment, before)->word1 != low) {
        sayCorrupted(block.header);
        return nullptr;
    }
    // Read before the contents move over them.
    const uint32_t behind =
        blockAt(segment, around.nextUnits != 0 ? block.offset + block.units : around.previous)
            ->word1;
    block.header->word1 = behind;  // no magic where no block begins any more
    BlockHeader* header = blockAt(segment, low);
    if (down) {
        std::memmove(header + 1, block.header + 1, keepBytes);
        clearEnd(map, block.offset - 1);
        clearFree(map, around.previous);
    }
    if (around.nextUnits != 0) {
        clearEnd(map, block.offset + block.units - 1);
        clearFree(map, block.offset + block.units);
    }
    *header = {kLiveMagic, need};
    if (span > need) {
        *blockAt(segment, low + need) = {behind, span - need};
        blockAt(segment, before)->word1 = low + need;
        setEnd(map, low + need - 1);
        setFree(map, low + need, span - need);
        noteFree(&chains[tag], map, span - need);
    } else {
        blockAt(segment, before)->word1 = behind;
    }
    tagTable[tag].allocated += (need - block.units) * kUnit;
    forgetPlace(&chains[tag]);
    return header + 1;
}
