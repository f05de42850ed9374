// The page table: in which segment does an address lie?
//
// Why: a pointer that comes from outside is looked up before anything is read through it, among the
// segments of all tags. The table answers from the address alone, in the same few steps whether
// there is one segment or a million, and touches nothing at the address.
//
// The address space is cut into pages of 512 bytes, which have nothing to do with the machine's.
// 512 of them are a region; a hash table leads from a region's number to its pages. A page knows
// the segment that begins last of those that reach into it, and each segment knows the one below it
// in the page in which it begins. Segments are at least 32 bytes, and most are larger than a page,
// so the way down is short. A region that lies in one segment as a whole needs no pages.
//
// The pages of the region that was emptied last are kept for the next one, and so is the hash
// table: a segment that comes and goes at the border of a region, or alone, costs no more than any
// other.
//
// Invariant: the segments of a page hang together in descending order of their addresses; a region
// is there as long as a page of it has a segment. checkPageTable() tests it.
//
// Cost: one pointer for 512 bytes of a segment; 4 KiB for a region that is used at all, and 8 to 16
// words for its entry. The memory comes from the platform and is not counted in memused.
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

struct Region {
    uintptr_t number;    // address >> kRegionShift
    SegmentMap* whole;   // the segment that the region lies in as a whole; null
    SegmentMap** pages;  // kPagesOfRegion of them; null when there is such a segment
    uint32_t used;       // pages with a segment, or the one segment, and reservations; 0: not there
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

// The segment in whose data area the header lies; null. Reads nothing at `header`.
inline SegmentMap* mapHolding(const BlockHeader* header)
{
    const auto address = reinterpret_cast<uintptr_t>(header);
    const Region* region = regionOf(pageTable, address >> kRegionShift);
    if (region == nullptr) {
        return nullptr;
    }
    SegmentMap* map = region->whole;
    if (map == nullptr) {
        map = region->pages[address >> kPageShift & (kPagesOfRegion - 1)];
        prefetchMap(map);
    }
    while (map != nullptr) {
        const auto anchor = reinterpret_cast<uintptr_t>(&map->segment->anchor);
        if (address > anchor) {
            return address - anchor <= uintptr_t{map->units} * kUnit ? map : nullptr;
        }
        map = map->below;
    }
    return nullptr;
}

}  // namespace rmalloc

#endif
