// Keeping the page table. What it is: pagetable.h.
#include "rm/rmalloc/pagetable.h"

#include <algorithm>
#include <cstdlib>

using namespace rmalloc;

namespace
{
// An empty table, so that looking something up needs no case of its own. It is never written to.
constexpr uint32_t kNoPlaces = 2;
constexpr uint32_t kFirstPlaces = 8;
constexpr uint32_t kHashBits = 64;

static_assert(kUnitsOfPage == kStrip,
              "a word of 64 bits tells where small segments begin in a page");

// The largest small segment, in the last unit of a page, ends with the next one.
static_assert(isSmall(62) && !isSmall(63) &&
              kSegmentHeader + 62 * kUnit <= (1U << kPageShift) + kUnit);

Region noRegions[kNoPlaces];

// Of the region that was emptied last, all zero; or null.
SegmentMap** sparePages = nullptr;
uint64_t* spareSmalls = nullptr;

constexpr uint32_t shiftFor(uint32_t capacity)
{
    return kHashBits - static_cast<uint32_t>(__builtin_ctz(capacity));
}
}  // namespace

namespace rmalloc
{
PageTable pageTable = {noRegions, kNoPlaces, shiftFor(kNoPlaces), 0};
}  // namespace rmalloc

namespace
{
uintptr_t beginOf(const SegmentMap* map)
{
    return reinterpret_cast<uintptr_t>(map->segment);
}

uintptr_t lastByteOf(const SegmentMap* map)
{
    return beginOf(map) + kSegmentHeader + uintptr_t{map->units} * kUnit - 1;
}

// The place of a region, or the free place where it would stand.
Region* placeFor(const PageTable& table, uintptr_t number)
{
    uint32_t place = placeOfRegion(table, number);
    while (table.regions[place].used != 0 && table.regions[place].number != number) {
        place = (place + 1) & (table.capacity - 1);
    }
    return &table.regions[place];
}

bool resize(uint32_t capacity)
{
    auto* regions = static_cast<Region*>(std::calloc(capacity, sizeof(Region)));
    if (regions == nullptr) {
        return false;
    }
    const PageTable table = {regions, capacity, shiftFor(capacity), pageTable.count};
    for (uint32_t i = 0; i < pageTable.capacity; ++i) {
        const Region& region = pageTable.regions[i];
        if (region.used != 0) {
            *placeFor(table, region.number) = region;
        }
    }
    if (pageTable.regions != noRegions) {
        std::free(pageTable.regions);
    }
    pageTable = table;
    return true;
}

// Makes sure that there is something for each page: what was kept, or what the platform gives.
template <typename OfPage>
bool provide(OfPage** row, OfPage** spare)
{
    if (*row == nullptr) {
        *row = *spare != nullptr
                   ? *spare
                   : static_cast<OfPage*>(std::calloc(1, sizeof(OfPage[kPagesOfRegion])));
        *spare = nullptr;
    }
    return *row != nullptr;
}

template <typename OfPage>
void keep(OfPage* row, OfPage** spare)
{
    if (row != nullptr) {
        std::free(*spare);
        *spare = row;
    }
}

enum class Needs { kNothing, kPages, kSmalls };

// Makes sure that the region is there with what is needed, and that it stays until release() has
// been called as often. Null when there is no memory.
Region* reserve(uintptr_t number, Needs needs)
{
    // At least half of the places stay free, so that a search soon meets one.
    const bool none = pageTable.regions == noRegions;
    if ((none || (pageTable.count + 1) * 2 > pageTable.capacity) &&
        !resize(none ? kFirstPlaces : pageTable.capacity * 2)) {
        return nullptr;
    }
    Region* place = placeFor(pageTable, number);
    Region region = place->used != 0 ? *place : Region{number, nullptr, nullptr, nullptr, 0};
    if ((needs == Needs::kPages && !provide(&region.pages, &sparePages)) ||
        (needs == Needs::kSmalls && !provide(&region.smalls, &spareSmalls))) {
        return nullptr;
    }
    pageTable.count += region.used == 0 ? 1 : 0;
    ++region.used;
    *place = region;
    return place;
}

// Takes a region out; those behind it that it has displaced move up.
void removeRegion(Region* region)
{
    keep(region->pages, &sparePages);
    keep(region->smalls, &spareSmalls);
    region->used = 0;
    --pageTable.count;
    const uint32_t mask = pageTable.capacity - 1;
    auto hole = static_cast<uint32_t>(region - pageTable.regions);
    for (uint32_t i = (hole + 1) & mask; pageTable.regions[i].used != 0; i = (i + 1) & mask) {
        const uint32_t wanted = placeOfRegion(pageTable, pageTable.regions[i].number);
        // It may move when the hole is on its way from where it wants to stand to where it stands.
        if (((i - wanted) & mask) >= ((i - hole) & mask)) {
            pageTable.regions[hole] = pageTable.regions[i];
            pageTable.regions[i].used = 0;
            hole = i;
        }
    }
}

void release(Region* region)
{
    if (--region->used == 0) {
        removeRegion(region);
    }
}

// The pages of one region that a segment reaches into, first and last, counted from the beginning
// of the address space.
struct Span {
    uintptr_t first;
    uintptr_t last;
};

Span spanIn(uintptr_t number, const SegmentMap* map)
{
    const uintptr_t begin = number * kPagesOfRegion;
    return {std::max(begin, beginOf(map) >> kPageShift),
            std::min(begin + kPagesOfRegion - 1, lastByteOf(map) >> kPageShift)};
}

// True when every byte of the region lies in the segment: nothing else can come into it.
bool isWhole(uintptr_t number, const SegmentMap* map)
{
    const uintptr_t begin = number << kRegionShift;
    const uintptr_t last = begin + ((uintptr_t{1} << kRegionShift) - 1);
    return beginOf(map) <= begin && lastByteOf(map) >= last;
}

SegmentMap** pageOf(const Region* region, uintptr_t page)
{
    return &region->pages[page & (kPagesOfRegion - 1)];
}

// For a page in which another segment may be.
void addToPage(Region* region, uintptr_t page, SegmentMap* map)
{
    SegmentMap** where = pageOf(region, page);
    region->used += *where == nullptr ? 1 : 0;
    while (*where != nullptr && beginOf(*where) > beginOf(map)) {
        where = &(*where)->below;
    }
    // In the page where it begins, the segment leads on to what was there. In the others it is the
    // lowest one.
    if (page == beginOf(map) >> kPageShift) {
        map->below = *where;
    }
    *where = map;
}

void removeFromPage(Region* region, uintptr_t page, SegmentMap* map)
{
    SegmentMap** where = pageOf(region, page);
    while (*where != map) {
        where = &(*where)->below;
    }
    *where = page == beginOf(map) >> kPageShift ? map->below : nullptr;
    region->used -= *pageOf(region, page) == nullptr ? 1 : 0;
}

// Pages between the first and the last one of a segment have no other segment in them.
void setBetween(Region* region, const Span& span, SegmentMap* map)
{
    if (span.last - span.first >= 2) {
        std::fill(pageOf(region, span.first + 1), pageOf(region, span.last - 1) + 1, map);
    }
}

uint32_t pagesBetween(const Span& span)
{
    return span.last - span.first >= 2 ? static_cast<uint32_t>(span.last - span.first - 1) : 0;
}

void addToRegion(Region* region, SegmentMap* map)
{
    if (isWhole(region->number, map)) {
        region->whole = map;
        return;  // what reserved the region keeps it
    }
    const Span span = spanIn(region->number, map);
    addToPage(region, span.first, map);
    if (span.last != span.first) {
        addToPage(region, span.last, map);
    }
    setBetween(region, span, map);
    region->used += pagesBetween(span);
    --region->used;  // the reservation: pages keep the region now
}

void removeFromRegion(Region* region, SegmentMap* map)
{
    if (region->whole != nullptr) {
        region->used = 0;
    } else {
        const Span span = spanIn(region->number, map);
        removeFromPage(region, span.first, map);
        if (span.last != span.first) {
            removeFromPage(region, span.last, map);
        }
        setBetween(region, span, nullptr);
        region->used -= pagesBetween(span);
    }
    if (region->used == 0) {
        removeRegion(region);
    }
}

bool addLarge(SegmentMap* map)
{
    const uintptr_t first = beginOf(map) >> kRegionShift;
    const uintptr_t last = lastByteOf(map) >> kRegionShift;
    for (uintptr_t number = first; number <= last; ++number) {
        if (reserve(number, isWhole(number, map) ? Needs::kNothing : Needs::kPages) == nullptr) {
            while (number > first) {
                release(placeFor(pageTable, --number));
            }
            return false;
        }
    }
    for (uintptr_t number = first; number <= last; ++number) {
        addToRegion(placeFor(pageTable, number), map);
    }
    return true;
}

void removeLarge(SegmentMap* map)
{
    const uintptr_t last = lastByteOf(map) >> kRegionShift;
    for (uintptr_t number = beginOf(map) >> kRegionShift; number <= last; ++number) {
        removeFromRegion(placeFor(pageTable, number), map);
    }
}

// The units of a page at which small segments begin.
uint64_t* smallsOf(const Region* region, uintptr_t address)
{
    return &region->smalls[address >> kPageShift & (kPagesOfRegion - 1)];
}

constexpr uint32_t unitOf(uintptr_t address)
{
    return static_cast<uint32_t>(address / kUnit) % kUnitsOfPage;
}

// Of a map that may have been written over.
uintptr_t beginOfSmall(const SegmentMap* map)
{
    return reinterpret_cast<uintptr_t>(smallSegmentOf(map));
}

bool addSmall(const SegmentMap* map)
{
    const uintptr_t begin = beginOfSmall(map);
    const Region* region = reserve(begin >> kRegionShift, Needs::kSmalls);
    if (region == nullptr) {
        return false;
    }
    *smallsOf(region, begin) |= bitOf(unitOf(begin));
    return true;
}

void removeSmall(const SegmentMap* map)
{
    const uintptr_t begin = beginOfSmall(map);
    Region* region = placeFor(pageTable, begin >> kRegionShift);
    *smallsOf(region, begin) &= ~bitOf(unitOf(begin));
    release(region);
}
}  // namespace

bool rmalloc::addToPageTable(SegmentMap* map)
{
    return isSmall(map->units) ? addSmall(map) : addLarge(map);
}

void rmalloc::removeFromPageTable(SegmentMap* map)
{
    if (isSmall(map->units)) {
        removeSmall(map);
    } else {
        removeLarge(map);
    }
}

SegmentMap* rmalloc::smallHolding(uintptr_t address)
{
    constexpr uintptr_t kPage = uintptr_t{1} << kPageShift;
    uintptr_t page = address / kPage * kPage;
    uint64_t begins = 0;
    const Region* region = regionOf(pageTable, page >> kRegionShift);
    if (region != nullptr && region->smalls != nullptr) {
        begins = *smallsOf(region, page) & (~uint64_t{0} >> (kUnitsOfPage - 1 - unitOf(address)));
    }
    if (begins == 0) {
        // It may have begun in the page before.
        page -= kPage;
        region = regionOf(pageTable, page >> kRegionShift);
        begins = region != nullptr && region->smalls != nullptr ? *smallsOf(region, page) : 0;
    }
    if (begins == 0) {
        return nullptr;
    }
    SegmentMap* map = mapOfSmall(page + uintptr_t{lastBit(begins)} * kUnit);
    prefetchSmallMap(map);
    const Segment* segment = smallSegmentOf(map);
    const auto anchor = reinterpret_cast<uintptr_t>(&segment->anchor);
    const bool holds = address > anchor && map->segment == segment &&
                       address - anchor <= uintptr_t{map->units} * kUnit;
    return holds ? map : nullptr;
}

Extent rmalloc::extentOf(const SegmentMap* map)
{
    const uintptr_t begin = beginOfSmall(map);
    const Region* region = regionOf(pageTable, begin >> kRegionShift);
    const bool small = region != nullptr && region->smalls != nullptr &&
                       (*smallsOf(region, begin) & bitOf(unitOf(begin))) != 0;
    if (!small) {
        return {map->segment, map->units};  // its map stands elsewhere
    }
    // The bits say the units once more: the last block ends with the segment.
    const uint64_t ends = stripsOf(map)->ends;
    const bool whole =
        map->segment == smallSegmentOf(map) && ends != 0 && lastBit(ends) == map->units;
    return {smallSegmentOf(map), whole ? map->units : 0};
}

void rmalloc::trimPageTable()
{
    std::free(sparePages);
    std::free(spareSmalls);
    sparePages = nullptr;
    spareSmalls = nullptr;
    if (pageTable.count == 0 && pageTable.regions != noRegions) {
        std::free(pageTable.regions);
        pageTable = {noRegions, kNoPlaces, shiftFor(kNoPlaces), 0};
    }
}

namespace
{
// The large segments of one page, from the last one down.
uint32_t checkPage(uintptr_t page, const SegmentMap* map)
{
    uint32_t violations = 0;
    while (map != nullptr) {
        const bool begins = beginOf(map) >> kPageShift == page;
        const bool reaches =
            beginOf(map) >> kPageShift <= page && lastByteOf(map) >> kPageShift >= page;
        const SegmentMap* below = begins ? map->below : nullptr;
        const bool ordered = below == nullptr || lastByteOf(below) < beginOf(map);
        violations += reaches && ordered && !isSmall(map->units) ? 0 : 1;
        map = ordered ? below : nullptr;
    }
    return violations;
}

// The small segments that begin in a page.
uint32_t checkSmalls(uintptr_t page, uint64_t begins)
{
    uint32_t violations = 0;
    for (; begins != 0; begins &= begins - 1) {
        const uintptr_t begin = (page << kPageShift) + uintptr_t{firstBit(begins)} * kUnit;
        const SegmentMap* map = mapOfSmall(begin);
        violations += beginOf(map) == begin && isSmall(map->units) ? 0 : 1;
    }
    return violations;
}

uint32_t checkRegion(const Region& region)
{
    uint32_t violations = regionOf(pageTable, region.number) == &region ? 0 : 1;
    if (region.whole != nullptr) {
        const bool holds = region.pages == nullptr && region.smalls == nullptr &&
                           region.used == 1 && isWhole(region.number, region.whole);
        return violations + (holds ? 0 : 1);
    }
    uint32_t used = 0;
    for (uint32_t i = 0; i < kPagesOfRegion; ++i) {
        const uintptr_t page = region.number * kPagesOfRegion + i;
        if (region.pages != nullptr) {
            used += region.pages[i] != nullptr ? 1 : 0;
            violations += checkPage(page, region.pages[i]);
        }
        if (region.smalls != nullptr) {
            used += static_cast<uint32_t>(__builtin_popcountll(region.smalls[i]));
            violations += checkSmalls(page, region.smalls[i]);
        }
    }
    return violations + (used == region.used ? 0 : 1);
}
}  // namespace

uint32_t rmalloc::checkPageTable()
{
    uint32_t violations = 0;
    uint32_t count = 0;
    for (uint32_t place = 0; place < pageTable.capacity; ++place) {
        if (pageTable.regions[place].used != 0) {
            ++count;
            violations += checkRegion(pageTable.regions[place]);
        }
    }
    return violations + (count == pageTable.count ? 0 : 1);
}
