// Keeping the chains of tags, and first fit. What a chain is: chain.h.
#include "rm/rmalloc/chain.h"

#include "rm/rmalloc/place.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

using namespace rmalloc;

namespace rmalloc
{
Chain* chains = nullptr;
}  // namespace rmalloc

namespace
{
constexpr uint32_t kFirstSlots = 16;  // after the very first, which is in the map of its segment

constexpr uint32_t kAhead = 8;  // maps that are on their way while one is written to

// The segment of a map of the chain. Where all are small, no look at the map is needed: those of
// neighbours in the chain are far from each other.
Segment* segmentOf(const Chain* chain, const SegmentMap* map)
{
    return chain->large == 0 || isSmall(map->units) ? smallSegmentOf(map) : map->segment;
}

// A row of one slot is part of a map.
void freeSlots(Chain* chain)
{
    if (chain->bounds.length > 1) {
        std::free(chain->slots);
        std::free(chain->bounds.top);
    }
}

// Moves the segments into a row of `length` slots, without gaps.
bool moveInto(Chain* chain, uint32_t length)
{
    auto* slots = static_cast<SegmentMap**>(std::calloc(length, sizeof(void*)));
    void* bounds = std::calloc(1, bytesOfMaxTree(length));
    if (slots == nullptr || bounds == nullptr) {
        std::free(slots);
        std::free(bounds);
        return false;
    }
    const MaxTree tree = makeMaxTree(bounds, length);
    uint32_t slot = 0;
    for (uint32_t i = 0; i < chain->used; ++i) {
        // Maps are far from each other.
        __builtin_prefetch(chain->slots[std::min(i + kAhead, chain->used - 1)], 1);
        SegmentMap* map = chain->slots[i];
        if (map != nullptr) {
            slots[slot] = map;
            raiseBound(tree, slot, chain->bounds.row[i]);
            map->slot = slot;
            ++slot;
        }
    }
    freeSlots(chain);
    chain->slots = slots;
    chain->bounds = tree;
    chain->used = slot;
    return true;
}
}  // namespace

Chain* rmalloc::newChains(int16_t count)
{
    return static_cast<Chain*>(std::calloc(static_cast<std::size_t>(count), sizeof(Chain)));
}

void rmalloc::freeChains(Chain* row)
{
    std::free(row);
}

bool rmalloc::reserveSlot(Chain* chain)
{
    if (chain->used < chain->bounds.length) {
        return true;
    }
    return chain->bounds.length == 0 || moveInto(chain, std::max(kFirstSlots, chain->segments * 2));
}

void rmalloc::append(Chain* chain, TagRecord* record, SegmentMap* map)
{
    if (chain->bounds.length == 0) {
        chain->slots = &map->self;
        chain->bounds = makeMaxTree(&map->bound, 1);
    }
    map->next = nullptr;
    map->previous = chain->last;
    map->slot = chain->used;
    if (chain->last == nullptr) {
        chain->first = map;
        record->segments = map->segment;
    } else {
        chain->last->next = map;
        segmentOf(chain, chain->last)->next = map->segment;
    }
    chain->last = map;
    chain->slots[map->slot] = map;
    ++chain->used;
    ++chain->segments;
    chain->large += isSmall(map->units) ? 0 : 1;
}

void rmalloc::unlink(Chain* chain, TagRecord* record, SegmentMap* map)
{
    Segment* next = map->next == nullptr ? nullptr : segmentOf(chain, map->next);
    if (map->previous == nullptr) {
        chain->first = map->next;
        record->segments = next;
    } else {
        map->previous->next = map->next;
        segmentOf(chain, map->previous)->next = next;
    }
    (map->next == nullptr ? chain->last : map->next->previous) = map->previous;
    chain->slots[map->slot] = nullptr;
    lowerBound(chain->bounds, map->slot, 0);
    --chain->segments;
    chain->large -= isSmall(map->units) ? 0 : 1;
    if (map->slot + 1 == chain->used) {
        --chain->used;
    }
    if (chain->bounds.length == 1) {
        chain->slots = nullptr;
        chain->bounds = {};
        chain->used = 0;
    }
    // Without memory the row stays as long as it is.
    if (chain->bounds.length > kFirstSlots && chain->segments < chain->bounds.length / 8) {
        moveInto(chain, std::max(kFirstSlots, chain->segments * 2));
    }
}

void rmalloc::emptyChain(Chain* chain)
{
    freeSlots(chain);
    *chain = {};
}

uint32_t rmalloc::checkPlace(const Chain* chain)
{
    const Place& place = chain->place;
    if (place.units == 0) {
        return place.cut == 0 ? 0 : 1;
    }
    for (const SegmentMap* map = chain->first; map != nullptr; map = map->next) {
        Segment* segment = map->segment;
        for (uint32_t free = segment->anchor.word1; free != 0;) {
            const BlockHeader* block = blockAt(segment, free);
            if (map == place.map && free == place.offset) {
                const BlockHeader* cut = &block[place.units];
                const bool holds =
                    block == place.from && block->units == place.units &&
                    (place.cut == 0 || (cut->word1 == kLiveMagic && cut->units == place.cut));
                return holds ? 0 : 1;
            }
            if (block->units >= place.floor) {
                return 1;
            }
            free = block->word1;
        }
    }
    return 1;
}

namespace
{
// By the headers, which the caller has found sound.
Bound largestFreeOf(const SegmentMap* map)
{
    uint32_t largest = 0;
    for (uint32_t free = map->segment->anchor.word1; free != 0;) {
        const BlockHeader* block = blockAt(map->segment, free);
        largest = std::max(largest, block->units);
        free = block->word1;
    }
    return static_cast<Bound>(largest);
}
}  // namespace

uint32_t rmalloc::checkChain(const Chain* chain, const TagRecord* record)
{
    uint32_t violations = 0;
    uint32_t segments = 0;
    uint32_t large = 0;
    uint32_t slot = 0;
    const SegmentMap* previous = nullptr;
    const Segment* segment = record->segments;
    for (const SegmentMap* map = chain->first; map != nullptr; map = map->next) {
        const bool holds = map->previous == previous && map->segment == segment &&
                           map->slot < chain->used && (segments == 0 || map->slot > slot) &&
                           chain->slots[map->slot] == map &&
                           chain->bounds.row[map->slot] >= largestFreeOf(map);
        if (!holds) {
            return violations + 1;  // nothing behind it can be trusted
        }
        slot = map->slot;
        previous = map;
        segment = segment->next;
        ++segments;
        large += isSmall(map->units) ? 0 : 1;
    }
    violations += segment == nullptr && previous == chain->last ? 0 : 1;
    violations += segments == chain->segments && large == chain->large ? 0 : 1;
    for (uint32_t i = 0; i < chain->bounds.length; ++i) {
        const bool empty = chain->slots[i] == nullptr;
        violations += empty && chain->bounds.row[i] != 0 ? 1 : 0;
        segments -= empty ? 0 : 1;
    }
    violations += segments == 0 ? 0 : 1;
    return violations + (chain->bounds.length == 0 ? 0 : checkMaxTree(chain->bounds));
}
