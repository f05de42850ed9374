// The page table on its own: segments that do not exist, wherever in the address space.
//
// Their addresses are numbers only, with no memory behind them, so the table would be caught when
// it read anything there. What it must answer follows from a std::map of the segments by address.
// Every case leaves the table empty.
//
//     RM_TEST_SEED=123            repeats a random run; a failure prints its seed
//     RM_TEST_OPERATIONS=1000000  makes longer ones
#include "rm/rmalloc/pagetable.h"

#include "tests/support/support.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{
using rmalloc::addToPageTable;
using rmalloc::BlockHeader;
using rmalloc::checkPageTable;
using rmalloc::kPagesOfRegion;
using rmalloc::pageTable;
using rmalloc::Region;
using rmalloc::removeFromPageTable;
using rmalloc::Segment;
using rmalloc::SegmentMap;
using rmalloc::trimPageTable;
using rmtest::Call;
using rmtest::kForever;
using rmtest::ScopedFault;

constexpr uintptr_t kPage = uintptr_t{1} << rmalloc::kPageShift;
constexpr uintptr_t kRegion = uintptr_t{1} << rmalloc::kRegionShift;
constexpr uintptr_t kBase = 1000 * kRegion;  // where most cases have their segments
constexpr uintptr_t kHeader = 24;            // bytes of a segment before its data area
constexpr uint32_t kSmallest = 32;           // bytes

// A map of a segment of so many bytes at that address.
SegmentMap mapAt(uintptr_t address, uintptr_t bytes)
{
    SegmentMap map{};
    map.segment = reinterpret_cast<Segment*>(address);
    map.units = static_cast<uint32_t>((bytes - kHeader) / 8);
    return map;
}

uintptr_t beginOf(const SegmentMap& map)
{
    return reinterpret_cast<uintptr_t>(map.segment);
}

// The first header of the data area, and the last one.
uintptr_t firstOf(const SegmentMap& map)
{
    return beginOf(map) + kHeader;
}

uintptr_t lastOf(const SegmentMap& map)
{
    return beginOf(map) + kHeader + (uintptr_t{map.units} - 1) * 8;
}

const SegmentMap* holding(uintptr_t address)
{
    return rmalloc::mapHolding(reinterpret_cast<const BlockHeader*>(address));
}

// True when the segment is found at each end of its data area, at the borders of the pages near
// them, and not one unit outside.
bool isFound(const SegmentMap& map)
{
    bool found = holding(firstOf(map)) == &map && holding(lastOf(map)) == &map;
    for (uintptr_t border = (firstOf(map) / kPage + 1) * kPage;
         border > firstOf(map) && border <= lastOf(map); border += kPage) {
        found = found && holding(border) == &map &&
                (border - 8 < firstOf(map) || holding(border - 8) == &map);
    }
    return found && holding(beginOf(map)) != &map && holding(firstOf(map) - 8) != &map &&
           holding(lastOf(map) + 8) != &map;
}

bool isForgotten(const SegmentMap& map)
{
    return holding(firstOf(map)) != &map && holding(lastOf(map)) != &map &&
           holding(firstOf(map) + (lastOf(map) - firstOf(map)) / 16 * 8) != &map;
}

class PageTableTest : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        ASSERT_EQ(pageTable.count, 0U);
    }

    // The table is empty, and holds no memory any more once it was asked to give it back.
    void TearDown() override
    {
        EXPECT_EQ(pageTable.count, 0U);
        EXPECT_EQ(checkPageTable(), 0U);
        trimPageTable();
        EXPECT_EQ(checkPageTable(), 0U);
        if (rmtest::callTrace().size() < 4000) {
            EXPECT_EQ(held(), 0);
        }
        RmTest::TearDown();
    }

    // Pieces of memory that the table has got since the case began and not given back.
    static int held()
    {
        int pieces = 0;
        for (const auto& call : rmtest::callTrace({Call::kCalloc, Call::kFree})) {
            pieces += call.call == Call::kCalloc && call.result != 0 ? 1 : 0;
            pieces -= call.call == Call::kFree && call.args[0] != 0 ? 1 : 0;
        }
        return pieces;
    }

    // Adds them all, looks them up, and takes them out again.
    static void expectAllFound(std::vector<SegmentMap>* maps)
    {
        for (SegmentMap& map : *maps) {
            ASSERT_TRUE(addToPageTable(&map));
            ASSERT_EQ(checkPageTable(), 0U);
        }
        for (const SegmentMap& map : *maps) {
            EXPECT_TRUE(isFound(map)) << std::hex << beginOf(map) << ", units " << map.units;
        }
        for (SegmentMap& map : *maps) {
            removeFromPageTable(&map);
            EXPECT_TRUE(isForgotten(map)) << std::hex << beginOf(map);
            ASSERT_EQ(checkPageTable(), 0U);
        }
    }
};

class PageTableCheck : public PageTableTest
{
};

// --- Looking up

TEST_F(PageTableTest, HoldsNothingAtFirst)
{
    for (const uintptr_t address : {uintptr_t{0}, uintptr_t{8}, kBase, UINTPTR_MAX - 7}) {
        EXPECT_EQ(holding(address), nullptr);
    }
}

TEST_F(PageTableTest, FindsASegmentAtEveryUnitOfItsDataAreaAndNowhereElse)
{
    for (const uintptr_t bytes :
         {uintptr_t{32}, uintptr_t{104}, uintptr_t{1024}, uintptr_t{8192}}) {
        for (const uintptr_t offset :
             {uintptr_t{0}, uintptr_t{8}, uintptr_t{500 * 2}, kPage - 16}) {
            SegmentMap map = mapAt(kBase + offset, bytes);
            ASSERT_TRUE(addToPageTable(&map));
            for (uintptr_t at = kBase - 64; at < kBase + offset + bytes + 64; at += 8) {
                const bool isInside = at >= firstOf(map) && at <= lastOf(map);
                ASSERT_EQ(holding(at), isInside ? &map : nullptr) << bytes << ", " << offset;
            }
            removeFromPageTable(&map);
        }
    }
}

TEST_F(PageTableTest, FindsSegmentsOfEverySizeAtEveryPlaceOfAPageAndARegion)
{
    for (const uintptr_t bytes :
         {uintptr_t{32}, uintptr_t{40}, kPage - 8, kPage, kPage + 8, 2 * kPage, uintptr_t{8192},
          kRegion - kPage, kRegion, kRegion + 8, 8 * kRegion, 9 * kRegion + 24}) {
        for (const uintptr_t border : {kBase, kBase + kPage, kBase + kRegion}) {
            for (const uintptr_t below : {0U, 8U, 16U, 24U, 32U, 40U, 1016U, 1024U}) {
                std::vector<SegmentMap> maps = {mapAt(border - below, bytes)};
                expectAllFound(&maps);
            }
        }
    }
}

TEST_F(PageTableTest, FindsEachOfManySegmentsInOnePage)
{
    std::vector<SegmentMap> maps;
    for (uintptr_t address = kBase; address < kBase + kPage; address += kSmallest) {
        maps.push_back(mapAt(address, kSmallest));
    }
    expectAllFound(&maps);
    std::reverse(maps.begin(), maps.end());
    expectAllFound(&maps);
}

TEST_F(PageTableTest, FindsSegmentsThatTouchOneAnother)
{
    std::vector<SegmentMap> maps;
    uintptr_t address = kBase + kRegion - 5000;
    for (const uintptr_t bytes : {uintptr_t{32}, uintptr_t{4096}, uintptr_t{48}, uintptr_t{904},
                                  2 * kRegion, uintptr_t{32}, kPage, kPage, uintptr_t{8192}}) {
        maps.push_back(mapAt(address, bytes));
        address += bytes;
    }
    expectAllFound(&maps);
    std::rotate(maps.begin(), maps.begin() + 4, maps.end());
    expectAllFound(&maps);
}

TEST_F(PageTableTest, HoldsNothingBetweenSegmentsOfOnePage)
{
    std::vector<SegmentMap> maps = {mapAt(kBase + 600, 64), mapAt(kBase + 104, 64)};
    for (SegmentMap& map : maps) {
        ASSERT_TRUE(addToPageTable(&map));
    }
    EXPECT_EQ(holding(kBase), nullptr);
    EXPECT_EQ(holding(kBase + 104 + 64), nullptr);
    EXPECT_EQ(holding(kBase + 400), nullptr);
    EXPECT_EQ(holding(kBase + 600), nullptr);
    EXPECT_EQ(holding(kBase + 600 + 64), nullptr);
    for (SegmentMap& map : maps) {
        removeFromPageTable(&map);
    }
}

TEST_F(PageTableTest, HoldsNothingWhereOnlyTheHeaderOfASegmentReachesIntoAPage)
{
    for (const uintptr_t below : {8U, 16U, 24U}) {
        SegmentMap lower = mapAt(kBase - below - 200, 200);
        SegmentMap map = mapAt(kBase - below, 4096);
        ASSERT_TRUE(addToPageTable(&lower));
        ASSERT_TRUE(addToPageTable(&map));
        for (uintptr_t address = kBase - below; address < firstOf(map); address += 8) {
            EXPECT_EQ(holding(address), nullptr) << below;
        }
        EXPECT_TRUE(isFound(map) && isFound(lower));
        removeFromPageTable(&lower);
        removeFromPageTable(&map);
    }
}

TEST_F(PageTableTest, FindsSegmentsAtBothEndsOfTheAddressSpace)
{
    std::vector<SegmentMap> maps = {mapAt(8, 32), mapAt(kPage, 64),
                                    mapAt(UINTPTR_MAX - 4095, 4096 - 8),
                                    mapAt(UINTPTR_MAX - 3 * kRegion + 1, kRegion)};
    expectAllFound(&maps);
    SegmentMap last = mapAt(UINTPTR_MAX - 8191, 8192);
    ASSERT_TRUE(addToPageTable(&last));
    EXPECT_EQ(holding(UINTPTR_MAX - 7), &last);
    EXPECT_EQ(holding(firstOf(last)), &last);
    EXPECT_EQ(holding(firstOf(last) - 8), nullptr);
    EXPECT_EQ(holding(0), nullptr);
    EXPECT_EQ(checkPageTable(), 0U);
    removeFromPageTable(&last);
}

TEST_F(PageTableTest, TellsRegionsApartThatHaveTheSamePage)
{
    std::vector<SegmentMap> maps;
    for (uintptr_t number = 1; number < 40; ++number) {
        maps.push_back(mapAt(number * kRegion + 64, 512));
    }
    expectAllFound(&maps);
}

// --- Orders

TEST_F(PageTableTest, TakesAndForgetsAFewSegmentsInEveryOrder)
{
    // One reaches in from below, three lie in the page, one reaches out of it.
    const std::vector<SegmentMap> shapes = {mapAt(kBase - 3000, 3104), mapAt(kBase + 104, 200),
                                            mapAt(kBase + 304, 32), mapAt(kBase + 504, 400),
                                            mapAt(kBase + 1000, kRegion)};
    std::vector<std::size_t> adding = {0, 1, 2, 3, 4};
    do {
        std::vector<std::size_t> removing = {0, 1, 2, 3, 4};
        do {
            std::vector<SegmentMap> maps = shapes;
            for (const std::size_t n : adding) {
                ASSERT_TRUE(addToPageTable(&maps[n]));
            }
            ASSERT_EQ(checkPageTable(), 0U);
            std::vector<bool> isThere(maps.size(), true);
            for (const std::size_t n : removing) {
                removeFromPageTable(&maps[n]);
                isThere[n] = false;
                for (std::size_t i = 0; i < maps.size(); ++i) {
                    const SegmentMap* expected = isThere[i] ? &maps[i] : nullptr;
                    ASSERT_EQ(holding(firstOf(maps[i])), expected);
                    ASSERT_EQ(holding(lastOf(maps[i])), expected);
                }
            }
            ASSERT_EQ(pageTable.count, 0U);
        } while (std::next_permutation(removing.begin(), removing.end()));
    } while (std::next_permutation(adding.begin(), adding.end()));
}

TEST_F(PageTableTest, IsSoundAfterEachStepOfEveryOrder)
{
    const std::vector<SegmentMap> shapes = {mapAt(kBase - 600, 640), mapAt(kBase + 40, 56),
                                            mapAt(kBase + 96, 4096), mapAt(kBase + kRegion, 32)};
    std::vector<std::size_t> order = {0, 1, 2, 3};
    do {
        std::vector<SegmentMap> maps = shapes;
        for (const std::size_t n : order) {
            ASSERT_TRUE(addToPageTable(&maps[n]));
            ASSERT_EQ(checkPageTable(), 0U);
        }
        for (const std::size_t n : order) {
            removeFromPageTable(&maps[(n + 1) % 4]);
            ASSERT_EQ(checkPageTable(), 0U);
        }
    } while (std::next_permutation(order.begin(), order.end()));
}

// --- The table

TEST_F(PageTableTest, HasARegionAsLongAsAPageOfItHasASegment)
{
    std::vector<SegmentMap> maps = {mapAt(kBase, 64), mapAt(kBase + 64, 64),
                                    mapAt(kBase + kRegion - 64, 128)};
    for (SegmentMap& map : maps) {
        ASSERT_TRUE(addToPageTable(&map));
    }
    EXPECT_EQ(pageTable.count, 2U);
    removeFromPageTable(&maps[2]);
    EXPECT_EQ(pageTable.count, 1U);
    removeFromPageTable(&maps.front());
    EXPECT_EQ(pageTable.count, 1U);
    removeFromPageTable(&maps[1]);
    EXPECT_EQ(pageTable.count, 0U);
}

TEST_F(PageTableTest, GrowsSoThatHalfOfItsPlacesStayFree)
{
    std::vector<SegmentMap> maps;
    for (uintptr_t number = 0; number < 300; ++number) {
        maps.push_back(mapAt(kBase + number * number * kRegion, 64));
    }
    for (SegmentMap& map : maps) {
        ASSERT_TRUE(addToPageTable(&map));
        ASSERT_LE(pageTable.count * 2, pageTable.capacity);
        ASSERT_EQ(pageTable.capacity & (pageTable.capacity - 1), 0U);
    }
    EXPECT_EQ(pageTable.count, 300U);
    EXPECT_EQ(checkPageTable(), 0U);
    for (const SegmentMap& map : maps) {
        EXPECT_TRUE(isFound(map));
    }
    for (SegmentMap& map : maps) {
        removeFromPageTable(&map);
        ASSERT_TRUE(&map == &maps.back() || isFound(maps.back()));
    }
}

TEST_F(PageTableTest, FindsWhatIsLeftWhenRegionsGoInAnyOrder)
{
    std::mt19937_64 random(rmtest::seedOfThisRun());
    for (int round = 0; round < 300; ++round) {
        std::vector<SegmentMap> maps;
        for (uintptr_t number = 0; number < 16; ++number) {
            maps.push_back(mapAt(kBase + (random() % 64 * 16 + number) * kRegion, 64));
        }
        for (SegmentMap& map : maps) {
            ASSERT_TRUE(addToPageTable(&map));
        }
        std::vector<SegmentMap*> order;
        order.reserve(maps.size());
        for (SegmentMap& map : maps) {
            order.push_back(&map);
        }
        std::shuffle(order.begin(), order.end(), random);
        while (!order.empty()) {
            removeFromPageTable(order.back());
            order.pop_back();
            for (const SegmentMap* left : order) {
                ASSERT_TRUE(isFound(*left)) << "seed " << rmtest::seedOfThisRun();
            }
        }
    }
}

TEST_F(PageTableTest, NeedsNoPagesForARegionThatLiesInOneSegment)
{
    // Bytes before and behind the two regions that it covers.
    for (const uintptr_t before : {0U, 8U, 1024U}) {
        for (const uintptr_t behind : {0U, 8U, 1024U}) {
            rmtest::resetCalls();
            SegmentMap map = mapAt(kBase - before, before + 2 * kRegion + behind);
            ASSERT_TRUE(addToPageTable(&map));
            EXPECT_EQ(held(), 1 + (before != 0 ? 1 : 0) + (behind != 0 ? 1 : 0));
            EXPECT_TRUE(isFound(map));
            removeFromPageTable(&map);
            trimPageTable();
        }
    }
}

TEST_F(PageTableTest, FindsBothWhereALargeSegmentLeavesRoomInTheFirstOrLastPageOfARegion)
{
    for (const bool isLargeFirst : {false, true}) {
        for (const uintptr_t room : {uintptr_t{32}, uintptr_t{80}, kPage - 8}) {
            std::vector<SegmentMap> maps = {mapAt(kBase - 64, 64 + room),
                                            mapAt(kBase + room, 3 * kRegion - 2 * room),
                                            mapAt(kBase + 3 * kRegion - room, room)};
            std::rotate(maps.begin(), maps.begin() + (isLargeFirst ? 1 : 0), maps.end());
            expectAllFound(&maps);
        }
    }
}

TEST_F(PageTableTest, GetsNoMemoryForASegmentThatComesAndGoes)
{
    SegmentMap map = mapAt(kBase, 4096);
    ASSERT_TRUE(addToPageTable(&map));
    removeFromPageTable(&map);
    rmtest::resetCalls();
    for (int round = 0; round < 10; ++round) {
        ASSERT_TRUE(addToPageTable(&map));
        EXPECT_TRUE(isFound(map));
        removeFromPageTable(&map);
    }
    EXPECT_EQ(rmtest::callCount(Call::kCalloc), 0);
    trimPageTable();
    rmtest::resetCalls();
}

TEST_F(PageTableTest, KeepsThePagesOfOneRegionAtMost)
{
    SegmentMap map = mapAt(kBase + kRegion - 64, 128);
    ASSERT_TRUE(addToPageTable(&map));
    EXPECT_EQ(held(), 1 + 2);
    removeFromPageTable(&map);
    EXPECT_EQ(held(), 1 + 1);
}

TEST_F(PageTableTest, GivesBackWhatItHasKeptWhenItIsTrimmed)
{
    for (int round = 0; round < 3; ++round) {
        SegmentMap map = mapAt(kBase - 64, 3 * kRegion);
        ASSERT_TRUE(addToPageTable(&map));
        removeFromPageTable(&map);
        trimPageTable();
        EXPECT_EQ(held(), 0);
        trimPageTable();
        EXPECT_EQ(holding(kBase), nullptr);
    }
}

TEST_F(PageTableTest, KeepsItsSegmentsWhenItIsTrimmed)
{
    SegmentMap map = mapAt(kBase, 4096);
    ASSERT_TRUE(addToPageTable(&map));
    trimPageTable();
    EXPECT_EQ(checkPageTable(), 0U);
    EXPECT_TRUE(isFound(map));
    removeFromPageTable(&map);
}

// --- No memory

TEST_F(PageTableTest, DoesNothingWhenAnyOfItsAllocationsFails)
{
    // Regions enough for the table to grow on the way.
    for (const uint32_t present : {0U, 2U, 3U, 4U}) {
        for (int skip = 0;; ++skip) {
            std::vector<SegmentMap> maps;
            for (uint32_t n = 0; n < present; ++n) {
                maps.push_back(mapAt(n == 0 ? kBase : kBase * 2 + n * kRegion, kPage / 2));
            }
            for (SegmentMap& map : maps) {
                ASSERT_TRUE(addToPageTable(&map));
            }
            // It begins in the region of the first one.
            // Regions that it does not lie in as a whole need pages.
            SegmentMap map = mapAt(kBase + kPage / 2, 6 * kRegion);
            const uint32_t count = pageTable.count;
            bool added = false;
            {
                const ScopedFault fault(
                    {.call = Call::kCalloc, .error = ENOMEM, .skip = skip, .times = kForever});
                added = addToPageTable(&map);
                ASSERT_EQ(added, fault.hits() == 0);
            }
            ASSERT_EQ(checkPageTable(), 0U);
            if (!added) {
                ASSERT_EQ(pageTable.count, count) << "call " << skip;
                ASSERT_TRUE(isForgotten(map));
                ASSERT_TRUE(addToPageTable(&map)) << "call " << skip;
            }
            ASSERT_TRUE(isFound(map));
            removeFromPageTable(&map);
            for (SegmentMap& other : maps) {
                ASSERT_TRUE(isFound(other));
                removeFromPageTable(&other);
            }
            trimPageTable();
            ASSERT_EQ(held(), 0);
            if (added) {
                ASSERT_GE(skip, 1);
                break;
            }
        }
    }
}

TEST_F(PageTableTest, KeepsNoMemoryOfWhatFailed)
{
    for (int skip = 0; skip < 3; ++skip) {
        SegmentMap map = mapAt(kBase - 64, 6 * kRegion);
        const ScopedFault fault({.call = Call::kCalloc, .error = ENOMEM, .skip = skip});
        ASSERT_FALSE(addToPageTable(&map));
        EXPECT_EQ(pageTable.count, 0U);
        trimPageTable();
        EXPECT_EQ(held(), 0) << skip;
    }
    SegmentMap map = mapAt(kBase, 64);
    ASSERT_TRUE(addToPageTable(&map));
    removeFromPageTable(&map);
    trimPageTable();
    EXPECT_EQ(held(), 0);
}

// --- The checker

// The only region of the table.
Region* onlyRegion()
{
    for (uint32_t place = 0; place < pageTable.capacity; ++place) {
        if (pageTable.regions[place].used != 0) {
            return &pageTable.regions[place];
        }
    }
    return nullptr;
}

class PageTableBroken : public PageTableCheck
{
  protected:
    void SetUp() override
    {
        PageTableCheck::SetUp();
        for (SegmentMap* map : {&low_, &middle_, &high_}) {
            ASSERT_TRUE(addToPageTable(map));
        }
        region_ = onlyRegion();
        ASSERT_EQ(checkPageTable(), 0U);
    }

    void TearDown() override
    {
        EXPECT_EQ(checkPageTable(), 0U) << "the case has not mended what it broke";
        for (SegmentMap* map : {&low_, &middle_, &high_}) {
            removeFromPageTable(map);
        }
        PageTableCheck::TearDown();
    }

    // Breaks one value, and mends it.
    template <typename T>
    static void expectSeen(T* value, T broken)
    {
        const T sound = *value;
        *value = broken;
        EXPECT_GT(checkPageTable(), 0U);
        *value = sound;
    }

    SegmentMap low_ = mapAt(kBase, 1200);
    SegmentMap middle_ = mapAt(kBase + 1200, 104);
    SegmentMap high_ = mapAt(kBase + 1400, 3000);
    Region* region_ = nullptr;
};

TEST_F(PageTableBroken, ShowsWhenRegionsAreCountedWrong)
{
    expectSeen(&pageTable.count, 0U);
    expectSeen(&pageTable.count, 2U);
}

TEST_F(PageTableBroken, ShowsWhenTheUsedPagesAreCountedWrong)
{
    expectSeen(&region_->used, region_->used - 1);
    expectSeen(&region_->used, region_->used + 1);
}

TEST_F(PageTableBroken, ShowsWhenARegionStandsWhereNoSearchFindsIt)
{
    const auto place = static_cast<uint32_t>(region_ - pageTable.regions);
    Region& other = pageTable.regions[(place + pageTable.capacity - 1) % pageTable.capacity];
    other = *region_;
    *region_ = {};
    EXPECT_GT(checkPageTable(), 0U);
    *region_ = other;
    other = {};
}

TEST_F(PageTableBroken, ShowsWhenARegionStandsTwice)
{
    const auto place = static_cast<uint32_t>(region_ - pageTable.regions);
    Region& other = pageTable.regions[(place + 1) % pageTable.capacity];
    other = *region_;
    EXPECT_GT(checkPageTable(), 0U);
    other = {};
}

TEST_F(PageTableBroken, ShowsWhenAPageLacksItsSegment)
{
    expectSeen<SegmentMap*>(&region_->pages[3], nullptr);
}

TEST_F(PageTableBroken, ShowsWhenAPageHasASegmentThatDoesNotReachIt)
{
    expectSeen(&region_->pages[0], &high_);
    expectSeen(&region_->pages[100], &high_);
}

TEST_F(PageTableBroken, ShowsWhenTheSegmentsOfAPageAreOutOfOrder)
{
    low_.segment = reinterpret_cast<Segment*>(kBase + 1296);  // on top of the next one
    EXPECT_GT(checkPageTable(), 0U);
    low_.segment = reinterpret_cast<Segment*>(kBase);
    ASSERT_EQ(middle_.below, &low_);
    SegmentMap above = mapAt(kBase + 1304, 96);
    expectSeen(&middle_.below, &above);
}

TEST_F(PageTableBroken, ShowsWhenARegionIsThereForNothing)
{
    SegmentMap** pages = region_->pages;
    std::vector<SegmentMap*> none(kPagesOfRegion);
    const uint32_t used = region_->used;
    region_->pages = none.data();
    region_->used = 0;
    EXPECT_GT(checkPageTable(), 0U);
    region_->pages = pages;
    region_->used = used;
}

// --- Random runs

struct Run {
    const char* name;
    uintptr_t space;    // bytes from kBase on
    uintptr_t largest;  // bytes of a segment
    uint32_t segments;  // at a time
    uint32_t checkEvery;
};

void PrintTo(const Run& run, std::ostream* out)
{
    *out << run.name;
}

class PageTableRandom : public PageTableTest, public ::testing::WithParamInterface<Run>
{
  protected:
    uint64_t below(uint64_t limit) { return random_() % limit; }

    // The model's answer.
    const SegmentMap* expectedAt(uintptr_t address) const
    {
        const auto behind = present_.upper_bound(address);
        if (behind == present_.begin()) {
            return nullptr;
        }
        const SegmentMap& map = *std::prev(behind)->second;
        return address >= firstOf(map) && address <= lastOf(map) ? &map : nullptr;
    }

    bool isRoom(uintptr_t address, uintptr_t bytes) const
    {
        const auto behind = present_.lower_bound(address);
        return (behind == present_.end() || behind->first >= address + bytes) &&
               (behind == present_.begin() || lastOf(*std::prev(behind)->second) + 8 <= address);
    }

    void add()
    {
        uintptr_t bytes = kSmallest + below(below(2) == 0 ? 200 : GetParam().largest) / 8 * 8;
        uintptr_t address = kBase + below(GetParam().space) / 8 * 8;
        const auto near = present_.lower_bound(address);
        if (below(3) == 0 && near != present_.begin()) {
            address = lastOf(*std::prev(near)->second) + 8;  // touching
        } else if (below(4) == 0) {
            address = address / kPage * kPage - 8 * below(5);
        }
        if (!isRoom(address, bytes)) {
            bytes = kSmallest;
        }
        if (isRoom(address, bytes)) {
            SegmentMap* map = spare_.back();
            spare_.pop_back();
            *map = mapAt(address, bytes);
            ASSERT_TRUE(addToPageTable(map));
            present_[address] = map;
            look(address, bytes);
        }
    }

    void remove()
    {
        auto one = present_.lower_bound(kBase + below(GetParam().space));
        one = one == present_.end() ? present_.begin() : one;
        SegmentMap* map = one->second;
        removeFromPageTable(map);
        present_.erase(one);
        spare_.push_back(map);
        look(beginOf(*map), map->units * 8 + kHeader);
    }

    // Around a segment that has come or gone, and anywhere.
    void look(uintptr_t address, uintptr_t bytes)
    {
        const uintptr_t pageBehind = (address / kPage + 1) * kPage;
        for (const uintptr_t at :
             {address - 8, address, address + 16, address + 24, address + bytes - 8,
              address + bytes, address + bytes + 24, pageBehind - 8, pageBehind, pageBehind + 24,
              address / kPage * kPage, address + below(bytes) / 8 * 8,
              kBase + below(GetParam().space) / 8 * 8}) {
            ASSERT_EQ(holding(at), expectedAt(at)) << std::hex << at;
        }
    }

    void step()
    {
        if (below(500) == 0) {
            growing_ = !growing_;
        }
        if (spare_.empty() || (!present_.empty() && below(10) < (growing_ ? 3 : 7))) {
            remove();
        } else {
            add();
        }
    }

    std::map<uintptr_t, SegmentMap*> present_;
    std::vector<SegmentMap*> spare_;

  private:
    std::mt19937_64 random_{rmtest::seedOfThisRun()};
    bool growing_ = true;
};

TEST_P(PageTableRandom, AgreesWithAMapByAddressAfterEveryStep)
{
    const long operations = rmtest::operationsOfThisRun(100'000);
    std::vector<SegmentMap> maps(GetParam().segments);
    for (SegmentMap& map : maps) {
        spare_.push_back(&map);
    }
    for (long done = 0; done < operations; ++done) {
        SCOPED_TRACE("seed " + std::to_string(rmtest::seedOfThisRun()) + ", step " +
                     std::to_string(done));
        step();
        if (done % GetParam().checkEvery == 0) {
            ASSERT_EQ(checkPageTable(), 0U);
        }
        ASSERT_EQ(pageTable.count == 0, present_.empty());
        ASSERT_FALSE(HasFatalFailure());
    }
    while (!present_.empty()) {
        remove();
    }
}

INSTANTIATE_TEST_SUITE_P(
    With, PageTableRandom,
    ::testing::Values(Run{"CrowdedPages", 8 * kPage, 200, 200, 10},
                      Run{"SegmentsOfSomePages", 64 * kPage, 8 * kPage, 60, 10},
                      Run{"FewSegmentsThatComeAndGo", 20 * kRegion, 4 * kPage, 3, 10},
                      Run{"SegmentsOfSomeRegions", 40 * kRegion, 3 * kRegion, 12, 100},
                      Run{"ManyRegions", 4000 * kRegion, 4 * kPage, 300, 2000}),
    [](const ::testing::TestParamInfo<Run>& run) { return std::string(run.param.name); });
}  // namespace
