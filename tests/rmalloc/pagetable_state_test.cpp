// What the page table holds: the memory that it gets and keeps, what it does without any, and what
// its checker sees.
#include "tests/rmalloc/pagetable_case.h"

#include <cerrno>
#include <cstdint>
#include <map>
#include <vector>

namespace
{
using rmalloc::checkPageTable;
using rmalloc::kPagesOfRegion;
using rmalloc::pageTable;
using rmalloc::Region;
using rmalloc::SegmentMap;
using rmalloc::trimPageTable;
using rmtest::agreesAtTheEnds;
using rmtest::base;
using rmtest::Call;
using rmtest::holding;
using rmtest::isForgotten;
using rmtest::isFound;
using rmtest::kBefore;
using rmtest::kForever;
using rmtest::kLargestSmall;
using rmtest::kPage;
using rmtest::kRegion;
using rmtest::kSmallest;
using rmtest::kSmallestLarge;
using rmtest::Placed;
using rmtest::placed;
using rmtest::regionAt;
using rmtest::ScopedFault;
using rmtest::Shape;

class PageTableMemory : public rmtest::PageTableCase
{
  protected:
    // With the segments in the table, adding one more fails with each of the allocations that it
    // takes, and nothing has been done then; it succeeds as soon as there is memory.
    static void expectNothingDoneWithoutMemory(const std::vector<Shape>& present, const Shape& more,
                                               int allocations)
    {
        for (const int times : {1, kForever}) {
            for (int skip = 0; skip < allocations; ++skip) {
                std::vector<Placed> segments = placed(present);
                addAll(&segments);
                const auto before = regions();
                segments.emplace_back(more);
                {
                    const ScopedFault fault(
                        {.call = Call::kCalloc, .error = ENOMEM, .skip = skip, .times = times});
                    ASSERT_FALSE(segments.back().add()) << "allocation " << skip;
                    ASSERT_EQ(fault.hits(), 1);
                }
                ASSERT_EQ(regions(), before) << "allocation " << skip;
                ASSERT_EQ(checkPageTable(), 0U);
                ASSERT_TRUE(isForgotten(segments.back()));
                ASSERT_TRUE(agreesAtTheEnds(segments));
                ASSERT_TRUE(segments.back().add()) << "allocation " << skip;
                ASSERT_TRUE(agreesAtTheEnds(segments));
                removeAll(&segments);
                trimPageTable();
                ASSERT_EQ(held(), 0);
            }
        }
        std::vector<Placed> segments = placed(present);
        addAll(&segments);
        segments.emplace_back(more);
        const int before = rmtest::callCount(Call::kCalloc);
        ASSERT_TRUE(segments.back().add());
        EXPECT_EQ(rmtest::callCount(Call::kCalloc) - before, allocations);
        EXPECT_TRUE(agreesAtTheEnds(segments));
        removeAll(&segments);
        trimPageTable();
    }

  private:
    // What keeps each region.
    static std::map<uintptr_t, uint32_t> regions()
    {
        std::map<uintptr_t, uint32_t> all;
        for (uint32_t place = 0; place < pageTable.capacity; ++place) {
            const Region& region = pageTable.regions[place];
            if (region.used != 0) {
                all[region.number] = region.used;
            }
        }
        return all;
    }
};

// --- The memory of the table

TEST_F(PageTableMemory, HasMemoryForTheKindsOfSegmentsThatARegionHas)
{
    for (const bool isSmallFirst : {false, true}) {
        Placed small({base(), 64});
        Placed large({base() + 1024, 1024});
        Placed* first = isSmallFirst ? &small : &large;
        Placed* second = isSmallFirst ? &large : &small;
        ASSERT_TRUE(first->add());
        EXPECT_EQ(regionAt(base())->smalls != nullptr, isSmallFirst);
        EXPECT_EQ(regionAt(base())->pages != nullptr, !isSmallFirst);
        EXPECT_EQ(held(), 1 + 1);
        ASSERT_TRUE(second->add());
        EXPECT_NE(regionAt(base())->smalls, nullptr);
        EXPECT_NE(regionAt(base())->pages, nullptr);
        EXPECT_EQ(held(), 1 + 2);
        first->remove();
        second->remove();
        trimPageTable();
        EXPECT_EQ(held(), 0);
    }
}

TEST_F(PageTableMemory, GetsNoMemoryForASegmentThatComesAndGoes)
{
    for (const uintptr_t bytes : {kSmallest, kLargestSmall, uintptr_t{4096}}) {
        Placed segment({base(), bytes});
        ASSERT_TRUE(segment.add());
        segment.remove();
        rmtest::resetCalls();
        for (int round = 0; round < 10; ++round) {
            ASSERT_TRUE(segment.add());
            EXPECT_TRUE(isFound(segment));
            segment.remove();
        }
        EXPECT_EQ(rmtest::callCount(Call::kCalloc), 0);
        trimPageTable();
        rmtest::resetCalls();
    }
}

TEST_F(PageTableMemory, KeepsThePagesOfOneRegionAtMost)
{
    Placed segment({base() + kRegion - 600, 1200});
    ASSERT_TRUE(segment.add());
    EXPECT_EQ(held(), 1 + 2);
    segment.remove();
    EXPECT_EQ(held(), 1 + 1);
}

TEST_F(PageTableMemory, KeepsWhatOneRegionHadForSmallSegmentsAtMost)
{
    std::vector<Placed> segments =
        placed({{base(), 64}, {base() + kRegion, 64}, {base() + 2 * kRegion, 64}});
    addAll(&segments);
    EXPECT_EQ(held(), 1 + 3);
    removeAll(&segments);
    EXPECT_EQ(held(), 1 + 1);
}

TEST_F(PageTableMemory, KeepsBothOfARegionThatHadBothKinds)
{
    std::vector<Placed> segments = placed({{base(), 64}, {base() + kPage, 1024}});
    addAll(&segments);
    removeAll(&segments);
    EXPECT_EQ(held(), 1 + 2);
    rmtest::resetCalls();
    segments = placed({{base() + kRegion, 64}, {base() + 2 * kRegion, 1024}});
    addAll(&segments);
    EXPECT_EQ(rmtest::callCount(Call::kCalloc), 0);
    removeAll(&segments);
    trimPageTable();
    rmtest::resetCalls();
}

TEST_F(PageTableMemory, KeepsWhatItHadForTheSameKindOnly)
{
    for (const bool isSmallFirst : {false, true}) {
        Placed first({base(), isSmallFirst ? uintptr_t{64} : uintptr_t{1024}});
        Placed second({base() + kRegion, isSmallFirst ? uintptr_t{1024} : uintptr_t{64}});
        ASSERT_TRUE(first.add());
        first.remove();
        ASSERT_TRUE(second.add());
        EXPECT_EQ(held(), 1 + 2);
        EXPECT_TRUE(isFound(second));
        second.remove();
        trimPageTable();
    }
}

// Nor does a second region get it.
TEST_F(PageTableMemory, GivesWhatItHasKeptToOneRegion)
{
    for (const uintptr_t bytes : {uintptr_t{64}, uintptr_t{1024}}) {
        std::vector<Placed> segments = placed({{base(), bytes}});
        expectAllFound(&segments);
        segments = placed({{base() + 64 * kPage, bytes}, {base() + kRegion + 96 * kPage, bytes}});
        addAll(&segments);
        EXPECT_EQ(held(), 1 + 2);
        EXPECT_EQ(holding(segments[1].first() - kRegion), nullptr);
        EXPECT_EQ(holding(segments[0].first() + kRegion), nullptr);
        EXPECT_TRUE(agreesAtTheEnds(segments));
        removeAll(&segments);
        trimPageTable();
    }
}

TEST_F(PageTableMemory, GivesBackWhatItHasKeptWhenItIsTrimmed)
{
    for (int round = 0; round < 3; ++round) {
        std::vector<Placed> segments =
            placed({{base() - 1024, 3 * kRegion}, {base() - 2048, 40}, {base() - kRegion, 40}});
        addAll(&segments);
        removeAll(&segments);
        EXPECT_EQ(held(), 1 + 2);
        trimPageTable();
        EXPECT_EQ(held(), 0);
        trimPageTable();
        EXPECT_EQ(holding(base()), nullptr);
    }
}

TEST_F(PageTableMemory, KeepsItsSegmentsWhenItIsTrimmed)
{
    std::vector<Placed> segments = placed({{base(), 4096}, {base() + 5000, 64}});
    std::vector<Placed> others = placed({{base() + kRegion, 4096}, {base() + kRegion + 5000, 64}});
    addAll(&segments);
    addAll(&others);
    removeAll(&others);
    trimPageTable();
    EXPECT_EQ(held(), 1 + 2);
    EXPECT_EQ(checkPageTable(), 0U);
    EXPECT_TRUE(agreesAtTheEnds(segments));
    removeAll(&segments);
}

// --- No memory

// The table, and what the region needs.
TEST_F(PageTableMemory, DoesNothingWithoutMemoryForItsFirstSegment)
{
    expectNothingDoneWithoutMemory({}, {base(), 64}, 2);
    expectNothingDoneWithoutMemory({}, {base(), 1024}, 2);
    expectNothingDoneWithoutMemory({}, {base() - 1024, 2048}, 3);
}

// Four of eight places may be taken.
TEST_F(PageTableMemory, DoesNothingWithoutMemoryToGrow)
{
    const std::vector<Shape> four = {{base(), 64},
                                     {base() + kRegion, 1024},
                                     {base() + 2 * kRegion, 64},
                                     {base() + 3 * kRegion, 1024}};
    expectNothingDoneWithoutMemory(four, {base() + 5 * kRegion, 64}, 2);
    expectNothingDoneWithoutMemory(four, {base() + 5 * kRegion, 1024}, 2);
    // It begins in the fourth region and ends in the seventh, so one needs pages.
    expectNothingDoneWithoutMemory(four, {base() + 3 * kRegion + 1024, 3 * kRegion}, 2);
}

TEST_F(PageTableMemory, DoesNothingWithoutMemoryForASegmentOfTheOtherKind)
{
    expectNothingDoneWithoutMemory({{base() + 1024, 1024}}, {base(), 64}, 1);
    expectNothingDoneWithoutMemory({{base(), 64}}, {base() + 1024, 1024}, 1);
    expectNothingDoneWithoutMemory({{base(), 64}}, {base() + 1024, 2 * kRegion}, 2);
}

TEST_F(PageTableMemory, NeedsNoMemoryForAnotherSegmentOfTheSameKindInARegion)
{
    expectNothingDoneWithoutMemory({{base(), 64}}, {base() + kRegion - 8, 64}, 0);
    expectNothingDoneWithoutMemory({{base(), 1024}}, {base() + kRegion - 1024, 1024}, 0);
}

TEST_F(PageTableMemory, KeepsNoMemoryOfWhatFailed)
{
    for (const uintptr_t bytes : {uintptr_t{64}, 6 * kRegion}) {
        Placed segment({base() - 64, bytes});
        for (int skip = 0; skip < (segment.isSmall() ? 2 : 3); ++skip) {
            const ScopedFault fault({.call = Call::kCalloc, .error = ENOMEM, .skip = skip});
            ASSERT_FALSE(segment.add());
            EXPECT_EQ(pageTable.count, 0U);
            trimPageTable();
            EXPECT_EQ(held(), 0) << skip;
        }
        ASSERT_TRUE(segment.add());
        segment.remove();
        trimPageTable();
        EXPECT_EQ(held(), 0);
    }
}

// --- The checker

class PageTableBroken : public rmtest::PageTableCase
{
  protected:
    void SetUp() override
    {
        PageTableCase::SetUp();
        addAll(&segments_);
        region_ = regionAt(base());
        ASSERT_EQ(rowOf(fourth_), rowOf(last_));
        ASSERT_EQ(checkPageTable(), 0U);
    }

    void TearDown() override
    {
        EXPECT_EQ(checkPageTable(), 0U) << "the case has not mended what it broke";
        removeAll(&segments_);
        PageTableCase::TearDown();
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

    // The bits of the page in which the segment begins, and its bit.
    uint64_t* rowOf(const Placed& segment)
    {
        return &region_->smalls[segment.begin() / kPage % kPagesOfRegion];
    }

    static uint64_t bitOf(const Placed& segment)
    {
        return uint64_t{1} << segment.begin() % kPage / 8;
    }

    SegmentMap** pageOf(const Placed& segment)
    {
        return &region_->pages[segment.begin() / kPage % kPagesOfRegion];
    }

    // Large, small, large, and two small ones in the page where that ends. The third begins in the
    // page where the first one ends.
    std::vector<Placed> segments_ = placed({{base(), 1120},
                                            {base() + 1120 + kBefore, 48},
                                            {base() + 1168 + kBefore, 3000},
                                            {base() + 4168 + 2 * kBefore, 40},
                                            {base() + 4208 + 3 * kBefore, 40}});
    Placed& low_ = segments_[0];
    Placed& small_ = segments_[1];
    Placed& high_ = segments_[2];
    Placed& fourth_ = segments_[3];
    Placed& last_ = segments_[4];
    Placed stranger_{{base() + 6000, 40}};  // that the table does not know
    Region* region_ = nullptr;
};

TEST_F(PageTableBroken, ShowsWhenRegionsAreCountedWrong)
{
    expectSeen(&pageTable.count, 0U);
    expectSeen(&pageTable.count, 2U);
}

TEST_F(PageTableBroken, ShowsWhenWhatKeepsARegionIsCountedWrong)
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
    ++pageTable.count;
    EXPECT_GT(checkPageTable(), 0U);
    --pageTable.count;
    other = {};
}

TEST_F(PageTableBroken, ShowsWhenAPageLacksItsSegment)
{
    expectSeen<SegmentMap*>(&region_->pages[3], nullptr);
}

TEST_F(PageTableBroken, ShowsWhenAPageHasASegmentThatDoesNotReachIt)
{
    expectSeen(&region_->pages[0], high_.map());
    expectSeen(&region_->pages[7], low_.map());
}

TEST_F(PageTableBroken, ShowsWhenTheSegmentsOfAPageAreOutOfOrder)
{
    ASSERT_EQ(high_.map()->below, low_.map());
    Placed above({base() + 800, kSmallestLarge + 64});  // its end lies in the next one
    expectSeen(&high_.map()->below, above.map());
}

TEST_F(PageTableBroken, ShowsWhenASmallSegmentIsAmongTheLargeOnesOfAPage)
{
    ASSERT_EQ(*pageOf(fourth_), high_.map());
    expectSeen(pageOf(fourth_), fourth_.map());
    expectSeen(&high_.map()->below, small_.map());
}

TEST_F(PageTableBroken, ShowsABitTooMany)
{
    expectSeen(rowOf(stranger_), bitOf(stranger_));
}

TEST_F(PageTableBroken, ShowsABitTooFew)
{
    expectSeen(rowOf(fourth_), *rowOf(fourth_) & ~bitOf(fourth_));
}

TEST_F(PageTableBroken, ShowsABitWhereNoSegmentBegins)
{
    stranger_.map()->segment = nullptr;
    *rowOf(fourth_) &= ~bitOf(fourth_);
    expectSeen(rowOf(stranger_), bitOf(stranger_));
    *rowOf(fourth_) |= bitOf(fourth_);
}

TEST_F(PageTableBroken, ShowsWhenTheMapOfASmallSegmentNamesAnother)
{
    expectSeen(&small_.map()->segment, fourth_.map()->segment);
    expectSeen(&fourth_.map()->segment, low_.map()->segment);
    expectSeen(&last_.map()->segment, fourth_.map()->segment);
}

TEST_F(PageTableBroken, ShowsWhenTheMapOfASmallSegmentIsThatOfALargeOne)
{
    expectSeen(&small_.map()->units, 63U);
}

TEST_F(PageTableBroken, ShowsWhenARegionIsThereForNothing)
{
    const Region sound = *region_;
    std::vector<SegmentMap*> noPages(kPagesOfRegion);
    std::vector<uint64_t> noSmalls(kPagesOfRegion);
    region_->pages = noPages.data();
    region_->smalls = noSmalls.data();
    EXPECT_GT(checkPageTable(), 0U);
    region_->used = 0;
    EXPECT_GT(checkPageTable(), 0U);
    *region_ = sound;
}

TEST_F(PageTableBroken, ShowsWhenARegionIsNotWhole)
{
    Placed large({base() + kRegion, 2 * kRegion});
    ASSERT_TRUE(large.add());
    ASSERT_EQ(checkPageTable(), 0U);
    Region* whole = regionAt(base() + 2 * kRegion);
    ASSERT_EQ(whole->whole, large.map());
    expectSeen(&whole->used, 2U);
    expectSeen(&whole->pages, region_->pages);
    expectSeen(&whole->smalls, region_->smalls);
    expectSeen(&large.map()->units, large.map()->units - 1);
    large.remove();
}
}  // namespace
