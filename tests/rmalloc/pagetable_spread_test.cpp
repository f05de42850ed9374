// Where the page table places its regions: segments at equal distances, whatever the distance, come
// to stand all over the table. In one place, a search would pass all the others.
#include "tests/support/support.h"

#include "rm/rmalloc/pagetable.h"

#include <cstddef>
#include <cstdint>
#include <set>

#include <gtest/gtest.h>

namespace
{
using rmalloc::PageTable;
using rmalloc::placeOfRegion;

class PageTableSpread : public rmtest::RmTest
{
};

constexpr uint32_t kRegions = 1024;
constexpr uint32_t kShift = 64 - 11;  // a table of twice as many places
constexpr uintptr_t kFirst = 0x1FC0000;

std::size_t placesOf(uintptr_t distance)
{
    const PageTable table = {nullptr, 2 * kRegions, kShift, kRegions};
    std::set<uint32_t> places;
    for (uintptr_t i = 0; i < kRegions; ++i) {
        const uint32_t place = placeOfRegion(table, kFirst + i * distance);
        EXPECT_LT(place, table.capacity);
        places.insert(place);
    }
    return places.size();
}

TEST_F(PageTableSpread, OfNeighboursIsEven)
{
    EXPECT_GT(placesOf(1), kRegions * 3 / 4);
}

// The multiplier is made of the golden ratio, of which they are what comes nearest.
TEST_F(PageTableSpread, OfRegionsAtFibonacciDistancesIsEvenToo)
{
    uintptr_t before = 1;
    for (uintptr_t distance = 2; distance < (uintptr_t{1} << 22);) {
        EXPECT_GT(placesOf(distance), kRegions / 2) << "at a distance of " << distance;
        const uintptr_t next = before + distance;
        before = distance;
        distance = next;
    }
}
}  // namespace
