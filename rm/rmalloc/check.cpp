// The checker of the memory manager: walks every table, segment and block and reports what does
// not hold. It reads only what it has found to be inside a segment, so a damaged heap is reported
// and never walked out of.
#include "rm/rmalloc/pieces.h"
#include "rm/rmalloc/segments.h"

using namespace rmalloc;

namespace
{
struct Tally {
    uint32_t violations;
    uint64_t bytes;      // of segments, as they will be given back
    uint64_t allocated;  // in live blocks
};

void report(Tally* tally, Tag tag, const Segment* segment, const char* what)
{
    ++tally->violations;
    rm_systemLogWrite("WARNING: memory check: tag %d, segment %p: %s", tag,
                      static_cast<const void*>(segment), what);
}

// Blocks tile the data area; the free ones among them are exactly those of the chain, in order.
void checkSegment(Tally* tally, Tag tag, Segment* segment)
{
    uint32_t live = 0;
    uint32_t offset = 1;
    const BlockHeader* link = &segment->anchor;
    bool previousFree = false;
    if (segment->anchor.units != 0) {
        report(tally, tag, segment, "the anchor has units");
    }
    while (offset <= segment->units) {
        const BlockHeader* block = blockAt(segment, offset);
        if (block->units == 0 || block->units > segment->units - offset + 1) {
            report(tally, tag, segment, "a block leaves the segment");
            return;
        }
        const bool isFree = link->word1 == offset;
        if (isFree && previousFree) {
            report(tally, tag, segment, "two free blocks touch");
        }
        if (isFree) {
            link = block;
        } else if (block->word1 == kLiveMagic) {
            ++live;
            tally->allocated += uint64_t{block->units} * kUnit;
        } else {
            report(tally, tag, segment, "a block is neither live nor in the free chain");
        }
        previousFree = isFree;
        offset += block->units;
    }
    if (link->word1 != 0) {
        report(tally, tag, segment, "the free chain does not end");
    }
    if (live != segment->blocks) {
        report(tally, tag, segment, "the block count is wrong");
    }
    if (live == 0) {
        report(tally, tag, segment, "the segment is empty");
    }
}

// What is kept beside the segments of a tag, compared with segments that are sound.
void checkBeside(Tally* tally, Tag tag)
{
    if (checkChain(&chains[tag], &tagTable[tag]) != 0) {
        report(tally, tag, nullptr, "the chain of segments is not as it is kept");
        return;
    }
    if (checkPlace(&chains[tag]) != 0) {
        report(tally, tag, nullptr, "the place where blocks are cut is not as it is kept");
    }
    for (const SegmentMap* map = chains[tag].first; map != nullptr; map = map->next) {
        if (map->tag != tag || mapHolding(blockAt(map->segment, 1)) != map ||
            mapHolding(blockAt(map->segment, map->units)) != map || checkSegmentMap(map) != 0) {
            report(tally, tag, map->segment, "the blocks are not as the map has them");
        }
    }
}
}  // namespace

uint32_t rmalloc::checkMemory()
{
    Tally whole = {0, 0, 0};
    if (nTags > tagTabSize || (tagTable == nullptr) != (tagTabSize == 0)) {
        report(&whole, RM_NONE, nullptr, "the table's size is wrong");
        return whole.violations;
    }
    for (Tag tag = 0; tag < nTags; ++tag) {
        Tally own = {0, 0, 0};
        for (Segment* segment = tagTable[tag].segments; segment != nullptr;
             segment = segment->next) {
            checkSegment(&own, tag, segment);
            own.bytes += uint64_t{segment->units} * kUnit + kSegmentHeader;
        }
        if (tagTable[tag].state == kTagFree && tagTable[tag].segments != nullptr) {
            report(&own, tag, nullptr, "a free record owns segments");
        }
        if (static_cast<uint32_t>(own.allocated) != tagTable[tag].allocated) {
            report(&own, tag, nullptr, "the allocated bytes are wrong");
        }
        if (own.violations == 0) {
            checkBeside(&own, tag);
        }
        whole.violations += own.violations;
        whole.bytes += own.bytes;
    }
    if (checkPageTable() != 0) {
        report(&whole, RM_NONE, nullptr, "the page table is wrong");
    }
    if (checkPieces() != 0) {
        report(&whole, RM_NONE, nullptr, "the slabs of maps are wrong");
    }
    // A segment size that is no multiple of the unit is counted whole when it is got and in units
    // when it is given back, so the total may exceed the sum.
    whole.bytes += static_cast<uint64_t>(tagTabSize) * sizeof(TagRecord);
    if (memused < static_cast<uint32_t>(whole.bytes)) {
        report(&whole, RM_NONE, nullptr, "the bytes in use are wrong");
    }
    return whole.violations;
}
