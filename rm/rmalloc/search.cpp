// The two searches of the allocator, as plain walks.
//
// Why: where a block goes, and to whom a pointer belongs, are the only questions whose answers take
// long in a large heap. They stand alone, so that a faster way can take their place; whatever does
// must give the same answers, which is why these stay the measure that the tests compare with.
//
// Invariant: nothing here changes anything, and nothing is read outside of segments.
#include "rm/rmalloc/rmalloc.h"

using namespace rmalloc;

Fit rmalloc::firstFit(TagRecord* record, uint32_t need)
{
    for (Segment* segment = record->segments; segment != nullptr; segment = segment->next) {
        BlockHeader* link = &segment->anchor;
        while (isChainLink(segment, link)) {
            BlockHeader* block = blockAt(segment, link->word1);
            if (block->units >= need) {
                return {segment, link, block};
            }
            link = block;
        }
    }
    return {nullptr, nullptr, nullptr};
}

Segment* rmalloc::findInTag(TagRecord* record, const BlockHeader* header, Segment** previousSegment)
{
    *previousSegment = nullptr;
    for (Segment* segment = record->segments; segment != nullptr; segment = segment->next) {
        if (holds(segment, header)) {
            return segment;
        }
        *previousSegment = segment;
    }
    return nullptr;
}

Tag rmalloc::findOwner(const BlockHeader* header, Tag likely, Segment** segment)
{
    Segment* previous = nullptr;
    if (likely >= 0 && likely < nTags) {
        *segment = findInTag(&tagTable[likely], header, &previous);
        if (*segment != nullptr) {
            return likely;
        }
    }
    for (Tag tag = 0; tag < nTags; ++tag) {
        *segment = findInTag(&tagTable[tag], header, &previous);
        if (*segment != nullptr) {
            return tag;
        }
    }
    return RM_NONE;
}
