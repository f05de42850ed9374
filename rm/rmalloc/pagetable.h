// The page table: in which segment does an address lie?
//
// Why: a pointer that comes from outside is looked up before anything is read through it, among the
// segments of all tags. The table answers from the address alone, in the same few steps whether
// there is one segment or a million, and touches nothing at the address.
//
// The address space is cut into pages of 512 bytes, which have nothing to do with the machine's.
// 512 of them are a region, and a hash table leads from a region's number to what its pages know:
//
//   large segments  are larger than a page. A page knows the one that begins last of those that
//                   reach into it, and that one knows the other. A region that lies in one segment
//                   as a whole needs no pages.
//   small segments  have their maps before them, so it is enough to know where they begin: a page
//                   has a bit for each of its units. Where one comes, goes or is looked up, no map
//                   of another is read; in a large heap each would be a cache miss. A small segment
//                   ends in the page behind the one in which it begins at the latest.
//
// What was had for the pages of the region that was emptied last is kept for the next one, and so
// is the hash table: a segment that comes and goes at the border of a region, or alone, costs no
// more than any other.
//
// Invariant: the large segments of a page hang together in descending order of their addresses; a
// region is there as long as a large one reaches into it or a small one begins in it.
// checkPageTable() tests it.
//
// Cost: 8 bytes (for large segments, one pointer) for 512 bytes of a segment; 4 KiB for a region
// that is used at all, 8 KiB for one with segments of both kinds, and 10 to 20 words for its entry.
// The memory comes from the platform and is not counted in memused.
#ifndef RM_RMALLOC_PAGETABLE_H
#define RM_RMALLOC_PAGETABLE_H

#include "rm/rmalloc/segmentmap.h"

#include <cstddef>
#include <cstdint>

namespace rmalloc
{

constexpr unsigned kPageShift = 9;     // 512 bytes
constexpr unsigned kRegionShift = 18;  // 512 pages
constexpr uint32_t kPagesOfRegion = 1U << (kRegionShift - kPageShift);
constexpr uint32_t kUnitsOfPage = (1U << kPageShift) / kUnit;

struct Region {
    uintptr_t number;    // address >> kRegionShift
    SegmentMap* whole;   // the segment that the region lies in as a whole; null
    SegmentMap** pages;  // kPagesOfRegion of them; null until there is another large one
    uint64_t* smalls;    // as many; bit u: a small one begins at unit u; null until there is one
    uint32_t used;  // pages with a large one, or the one; small ones; reservations; 0: not there
};

struct PageTable {
    Region* regions;    // open addressing: a region stands at its hash or in one of the next places
    uint32_t capacity;  // places, a power of two
    uint32_t shift;     // from the hash, 64 bits, to a place
    uint32_t count;     // regions
};

extern PageTable pageTable;

// Makes the segment known to the table. False when there is no memory; nothing has been done then.
bool addToPageTable(SegmentMap* map);
void removeFromPageTable(SegmentMap* map);

// Gives back what an empty table has kept. One with segments in it stays as it is.
void trimPageTable();

// Counts what does not hold; 0 is sound.
uint32_t checkPageTable();

// Neighbouring numbers are spread over the table: the multiplier is 2^64 by the golden ratio.
// Numbers that differ by a Fibonacci number would not be, if they were not folded first.
inline uint32_t placeOfRegion(const PageTable& table, uintptr_t number)
{
    const uint64_t folded = number ^ number >> 9;
    return static_cast<uint32_t>(folded * 0x9E3779B97F4A7C15U >> table.shift);
}

// The region of that number; null.
inline const Region* regionOf(const PageTable& table, uintptr_t number)
{
    uint32_t place = placeOfRegion(table, number);
    while (table.regions[place].used != 0) {
        if (table.regions[place].number == number) {
            return &table.regions[place];
        }
        place = (place + 1) & (table.capacity - 1);
    }
    return nullptr;
}

// Where a segment is and how far it reaches, for whoever reads it though it may be damaged.
struct Extent {
    Segment* segment;
    uint32_t units;  // 0 when its map has been written over: nothing says how many there are
};

// Of a segment that the table has. What stands in its own header is not looked at.
Extent extentOf(const SegmentMap* map);

// The small segment in whose data area the address lies; null, also when its map is not intact.
SegmentMap* smallHolding(uintptr_t address);

// The segment in whose data area the header lies; null. Reads nothing at `header`.
inline SegmentMap* mapHolding(const BlockHeader* header)
{
    const auto address = reinterpret_cast<uintptr_t>(header);
    const Region* region = regionOf(pageTable, address >> kRegionShift);
    SegmentMap* map = nullptr;
    if (region != nullptr) {
        map = region->whole;
        if (region->pages != nullptr) {
            map = region->pages[address >> kPageShift & (kPagesOfRegion - 1)];
            prefetchMap(map);
        }
    }
    for (; map != nullptr; map = map->below) {
        const auto anchor = reinterpret_cast<uintptr_t>(&map->segment->anchor);
        if (address > anchor) {
            if (address - anchor <= uintptr_t{map->units} * kUnit) {
                return map;
            }
            break;
        }
    }
    return smallHolding(address);
}

}  // namespace rmalloc

#endif
