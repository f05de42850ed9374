// The page table on its own: segments that do not exist, wherever in the address space.
//
// pagetable_case.h says what is there of them, and which reads and writes where there is nothing
// would be seen. What the table keeps, and its checker: pagetable_state_test.cpp.
#include "tests/rmalloc/pagetable_case.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <vector>

namespace
{
using rmalloc::checkPageTable;
using rmalloc::pageTable;
using rmalloc::Segment;
using rmalloc::SegmentMap;
using rmalloc::trimPageTable;
using rmtest::agreesAtTheEnds;
using rmtest::agreesBetween;
using rmtest::Arena;
using rmtest::base;
using rmtest::beyond;
using rmtest::expectedAt;
using rmtest::holding;
using rmtest::isFound;
using rmtest::kBefore;
using rmtest::kLargestSmall;
using rmtest::kPage;
using rmtest::kRegion;
using rmtest::kSmallest;
using rmtest::kSmallestLarge;
using rmtest::Placed;
using rmtest::placed;
using rmtest::regionAt;
using rmtest::Shape;
using rmtest::smallBehind;

class PageTableTest : public rmtest::PageTableCase
{
  protected:
    // A segment alone is found where it is, and nothing anywhere near it.
    static void expectFoundAtItsUnitsOnly(const Shape& shape)
    {
        std::vector<Placed> one = placed({shape});
        ASSERT_TRUE(one[0].add());
        EXPECT_TRUE(isFound(one[0])) << std::hex << shape.begin << ", " << shape.bytes;
        EXPECT_TRUE(agreesBetween(one, (shape.begin / kPage - 2) * kPage, shape.end() + 2 * kPage))
            << std::hex << shape.begin << ", " << shape.bytes;
        one[0].remove();
    }
};

// --- Looking up

TEST_F(PageTableTest, HoldsNothingAtFirst)
{
    for (const uintptr_t address : {uintptr_t{0}, uintptr_t{8}, base(), UINTPTR_MAX - 7}) {
        EXPECT_EQ(holding(address), nullptr);
    }
}

TEST_F(PageTableTest, FindsALargeSegmentAtEveryUnitOfItsDataAreaAndNowhereElse)
{
    for (const uintptr_t bytes :
         {kSmallestLarge, 2 * kPage - 8, 2 * kPage, uintptr_t{1104}, uintptr_t{8192}}) {
        for (const uintptr_t offset : {uintptr_t{0}, uintptr_t{8}, uintptr_t{488}, kPage - 16}) {
            expectFoundAtItsUnitsOnly({base() + offset, bytes});
        }
    }
}

TEST_F(PageTableTest, FindsASmallSegmentAtEveryUnitOfItsDataAreaAndNowhereElse)
{
    for (const uintptr_t bytes :
         {uintptr_t{32}, uintptr_t{40}, uintptr_t{104}, kPage - 8, kPage, kLargestSmall}) {
        for (uintptr_t offset = 0; offset < kPage; offset += 8) {
            expectFoundAtItsUnitsOnly({base() + offset, bytes});
        }
    }
}

TEST_F(PageTableTest, FindsASmallSegmentThatEndsInTheNextRegion)
{
    for (uintptr_t below = 8; below < kLargestSmall; below += 8) {
        expectFoundAtItsUnitsOnly({base() + kRegion - below, kLargestSmall});
    }
}

// The page behind the one in which it begins has a small one too, or a large one only, or nothing;
// so has the region.
TEST_F(PageTableTest, FindsASmallSegmentThatEndsWhereOthersBegin)
{
    for (const uintptr_t border : {base() + kPage, base() + kRegion}) {
        for (const uintptr_t bytes : {kSmallest, kLargestSmall, kSmallestLarge, 2 * kRegion}) {
            const Shape lower = {border - 64, 200};
            const Shape other =
                bytes <= kLargestSmall ? smallBehind(lower, bytes) : Shape{lower.end(), bytes};
            std::vector<Placed> segments = placed({lower, other});
            addAll(&segments);
            EXPECT_TRUE(agreesBetween(segments, border - kPage, other.begin + 2 * kPage)) << bytes;
            segments[1].remove();
            EXPECT_TRUE(agreesBetween(segments, border - kPage, other.begin + 2 * kPage)) << bytes;
            segments[0].remove();
        }
    }
}

TEST_F(PageTableTest, FindsTheLargestSmallSegmentThatBeginsAtTheLastUnitOfAPage)
{
    for (const uintptr_t border : {base() + kPage, base() + kRegion}) {
        const Shape first = {border - 8, kLargestSmall};
        std::vector<Placed> segments = placed({first, smallBehind(first, kLargestSmall)});
        ASSERT_EQ(segments[0].last(), border + kPage - 8);
        addAll(&segments);
        EXPECT_EQ(holding(border + kPage - 8), segments[0].map());
        EXPECT_EQ(holding(border + kPage), nullptr);
        EXPECT_TRUE(agreesBetween(segments, border - kPage, border + 4 * kPage));
        removeAll(&segments);
    }
}

TEST_F(PageTableTest, FindsSegmentsOfEverySizeAtEveryPlaceOfAPageAndARegion)
{
    for (const uintptr_t bytes :
         {uintptr_t{32}, uintptr_t{40}, kPage - 8, kPage, kLargestSmall, kSmallestLarge,
          2 * kPage - 8, 2 * kPage, 2 * kPage + 8, uintptr_t{8192}, kRegion - kPage, kRegion,
          kRegion + 8, 8 * kRegion, 9 * kRegion + 24}) {
        for (const uintptr_t border : {base(), base() + kPage, base() + kRegion}) {
            for (const uintptr_t below : {0U, 8U, 16U, 24U, 32U, 40U, 1016U, 1024U}) {
                std::vector<Placed> segments = placed({{border - below, bytes}});
                expectAllFound(&segments);
            }
        }
    }
}

TEST_F(PageTableTest, FindsEachOfManySmallSegmentsInOnePage)
{
    std::vector<Shape> shapes = {{base(), kSmallest}};
    while (smallBehind(shapes.back(), kSmallest).begin < base() + kPage) {
        shapes.push_back(smallBehind(shapes.back(), kSmallest));
    }
    ASSERT_GE(shapes.size(), 4U);
    std::vector<Placed> segments = placed(shapes);
    expectAllFound(&segments);
    std::reverse(segments.begin(), segments.end());
    expectAllFound(&segments);
    addAll(&segments);
    EXPECT_TRUE(agreesBetween(segments, base() - kPage, base() + 3 * kPage));
    removeAll(&segments);
}

TEST_F(PageTableTest, FindsSegmentsAsCloseAsTheyCanBe)
{
    std::vector<Shape> shapes = {{base() + kRegion - 5000, 536}};
    for (const uintptr_t bytes :
         {uintptr_t{32}, uintptr_t{4096}, uintptr_t{48}, uintptr_t{904}, 2 * kRegion, uintptr_t{32},
          kPage, kPage, 2 * kPage, 2 * kPage, uintptr_t{8192}}) {
        shapes.push_back(bytes <= kLargestSmall ? smallBehind(shapes.back(), bytes)
                                                : Shape{shapes.back().end(), bytes});
    }
    std::vector<Placed> segments = placed(shapes);
    expectAllFound(&segments);
    std::rotate(segments.begin(), segments.begin() + 4, segments.end());
    expectAllFound(&segments);
}

TEST_F(PageTableTest, HoldsNothingBetweenSmallSegmentsOfOnePage)
{
    std::vector<Placed> segments = placed({{base() + 400, 64}, {base() + 104, 64}});
    addAll(&segments);
    EXPECT_EQ(holding(base()), nullptr);
    EXPECT_EQ(holding(base() + 104), nullptr);
    EXPECT_EQ(holding(base() + 104 + 64), nullptr);
    EXPECT_EQ(holding(base() + 240), nullptr);
    EXPECT_EQ(holding(base() + 400 - kBefore), nullptr);
    EXPECT_EQ(holding(base() + 400), nullptr);
    EXPECT_EQ(holding(base() + 400 + 64), nullptr);
    removeAll(&segments);
}

TEST_F(PageTableTest, HoldsNothingBetweenLargeSegmentsOfOnePage)
{
    std::vector<Placed> segments = placed({{beyond() - 600, 704}, {beyond() + 304, 600}});
    addAll(&segments);
    EXPECT_EQ(holding(beyond() + 96), segments[0].map());
    EXPECT_EQ(holding(beyond() + 104), nullptr);
    EXPECT_EQ(holding(beyond() + 200), nullptr);
    EXPECT_EQ(holding(beyond() + 304), nullptr);
    EXPECT_EQ(holding(beyond() + 328), segments[1].map());
    removeAll(&segments);
}

TEST_F(PageTableTest, HoldsNothingInTheGapsHeadersAndMapsAmongBothKinds)
{
    const Shape lower = {base() - 1000, 1040};
    const Shape first = smallBehind(lower, 40);
    const Shape second = smallBehind({first.begin, 64}, 32);
    std::vector<Placed> segments = placed({lower, first, second, {second.end() + 16, 3000}});
    addAll(&segments);
    EXPECT_TRUE(agreesBetween(segments, base() - 3 * kPage, base() + 10 * kPage));
    std::reverse(segments.begin(), segments.end());
    EXPECT_TRUE(agreesBetween(segments, base() - 3 * kPage, base() + 10 * kPage));
    removeAll(&segments);
}

TEST_F(PageTableTest, HoldsNothingWhereOnlyTheHeaderOfASegmentReachesIntoAPage)
{
    for (const uintptr_t bytes : {uintptr_t{200}, uintptr_t{4096}}) {
        for (const uintptr_t below : {8U, 16U, 24U}) {
            const uintptr_t begin = base() - below;
            std::vector<Placed> segments = placed({{begin - kBefore - 200, 200}, {begin, bytes}});
            addAll(&segments);
            for (uintptr_t address = begin; address < begin + rmtest::kHeader; address += 8) {
                EXPECT_EQ(holding(address), nullptr) << below;
            }
            EXPECT_TRUE(isFound(segments[0]) && isFound(segments[1]));
            removeAll(&segments);
        }
    }
}

TEST_F(PageTableTest, FindsLargeSegmentsAtBothEndsOfTheAddressSpace)
{
    std::vector<Placed> segments = placed({{8, 1000},
                                           {3 * kPage, 544},
                                           {UINTPTR_MAX - 4095, 4096 - 8},
                                           {UINTPTR_MAX - 3 * kRegion + 1, kRegion}});
    expectAllFound(&segments);
    Placed last({UINTPTR_MAX - 8191, 8192});
    ASSERT_TRUE(last.add());
    EXPECT_EQ(holding(UINTPTR_MAX - 7), last.map());
    EXPECT_EQ(holding(last.first()), last.map());
    EXPECT_EQ(holding(last.first() - 8), nullptr);
    EXPECT_EQ(holding(0), nullptr);
    EXPECT_EQ(checkPageTable(), 0U);
    last.remove();
}

TEST_F(PageTableTest, TellsRegionsApartThatHaveTheSamePage)
{
    std::vector<Shape> shapes;
    for (uintptr_t number = 1; number < 40; ++number) {
        shapes.push_back({base() + number * kRegion + 64, number % 3 == 0 ? 1024U : 512U});
    }
    std::vector<Placed> segments = placed(shapes);
    expectAllFound(&segments);
}

// --- A map that was written over

TEST_F(PageTableTest, DoesNotFindASmallSegmentWhoseMapHasLostItsFirstWord)
{
    const Shape first = {base() + 8, 32};
    const Shape second = smallBehind(first, 40);
    std::vector<Placed> segments = placed({first, second, smallBehind(second, 48)});
    addAll(&segments);
    for (Placed& broken : segments) {
        for (const uintptr_t word :
             {uintptr_t{0}, broken.begin() - 8, segments[0].begin() + 24, uintptr_t{0x4141'4140}}) {
            broken.map()->segment = reinterpret_cast<Segment*>(word);
            for (uintptr_t address = base(); address < segments[2].end() + kPage; address += 8) {
                const SegmentMap* expected = expectedAt(segments, address);
                ASSERT_EQ(holding(address), expected == broken.map() ? nullptr : expected);
            }
        }
        broken.map()->segment = reinterpret_cast<Segment*>(broken.begin());
        EXPECT_TRUE(isFound(broken));
    }
    removeAll(&segments);
}

// All but the first word stands where nothing can be read.
TEST_F(PageTableTest, ReadsNoMoreOfAMapThatHasLostItsFirstWord)
{
    const uintptr_t border = base() + 16 * Arena::get().machinePage();
    const Shape broken = {border - 8 + kBefore, 200};
    std::vector<Placed> segments =
        placed({{border - 8 - 40, 40}, broken, {border + Arena::get().machinePage() + 200, 40}});
    addAll(&segments);
    segments[1].map()->segment = reinterpret_cast<Segment*>(border);
    Arena::poison(border, broken.begin - border);
    Arena::forbid(border, kPage);
    for (uintptr_t address = segments[1].first(); address <= segments[1].last(); address += 8) {
        EXPECT_EQ(holding(address), nullptr);
    }
    EXPECT_TRUE(isFound(segments[0]));
    EXPECT_TRUE(isFound(segments[2]));
    Arena::allow(border, kPage);
    Arena::unpoison(border, broken.begin - border);
    segments[1].map()->segment = reinterpret_cast<Segment*>(broken.begin);
    EXPECT_TRUE(isFound(segments[1]));
    removeAll(&segments);
}

// --- Orders

class PageTableOrders : public PageTableTest
{
  protected:
    static constexpr std::array<std::size_t, 5> kOrder = {0, 1, 2, 3, 4};

    // Adds and removes all five in every order.
    static void expectFoundInEveryOrder(const std::array<Shape, 5>& shapes)
    {
        std::vector<Placed> segments = placed({shapes.begin(), shapes.end()});
        auto adding = kOrder;
        do {
            auto removing = kOrder;
            do {
                for (const std::size_t n : adding) {
                    ASSERT_TRUE(segments[n].add());
                }
                for (const std::size_t n : removing) {
                    segments[n].remove();
                    for (const Placed& segment : segments) {
                        const SegmentMap* expected = segment.isKnown() ? segment.map() : nullptr;
                        ASSERT_EQ(holding(segment.first()), expected);
                        ASSERT_EQ(holding(segment.last()), expected);
                        ASSERT_EQ(holding(segment.begin()), nullptr);
                    }
                }
                ASSERT_EQ(pageTable.count, 0U);
            } while (std::next_permutation(removing.begin(), removing.end()));
        } while (std::next_permutation(adding.begin(), adding.end()));
    }
};

// One reaches in from below, one begins in the page and reaches out of it.
TEST_F(PageTableOrders, OfLargeSegmentsInNeighbouringPages)
{
    expectFoundInEveryOrder({{{beyond() - 600, 640},
                              {beyond() + 40, 528},
                              {beyond() + 568, 600},
                              {beyond() + 1168, kRegion},
                              {beyond() + 1168 + kRegion, 1024}}});
}

// A large one reaches into the page; small ones begin in it; one of them ends in the next page,
// where a large one begins.
TEST_F(PageTableOrders, OfSmallSegmentsBetweenLargeOnes)
{
    const Shape lower = {base() - 3000, 3040};
    const Shape first = smallBehind(lower, 32);
    const Shape second = smallBehind(first, 40);
    const Shape third = smallBehind(second, kLargestSmall);
    expectFoundInEveryOrder({lower, first, second, third, Shape{third.end(), kRegion}});
}

// Both begin and end in one page, a large one between small ones.
TEST_F(PageTableOrders, OfALargeSegmentBetweenSmallOnes)
{
    const Shape first = {base() + 16, 32};
    const Shape second = smallBehind(first, 48);
    const Shape large = {second.end(), kSmallestLarge};
    const Shape third = smallBehind(large, 64);
    expectFoundInEveryOrder({first, second, large, third, Shape{third.end() + 8, 2 * kPage}});
}

TEST_F(PageTableOrders, LeaveTheTableSoundAfterEachStep)
{
    const Shape lower = {base() - 600, 640};
    const Shape small = smallBehind(lower, 56);
    std::vector<Placed> segments =
        placed({lower, small, {small.end(), 4096}, {base() + kRegion - 8, kLargestSmall}});
    std::vector<std::size_t> order = {0, 1, 2, 3};
    do {
        for (const std::size_t n : order) {
            ASSERT_TRUE(segments[n].add());
            ASSERT_EQ(checkPageTable(), 0U);
            ASSERT_TRUE(agreesAtTheEnds(segments));
        }
        for (const std::size_t n : order) {
            segments[(n + 1) % 4].remove();
            ASSERT_EQ(checkPageTable(), 0U);
            ASSERT_TRUE(agreesAtTheEnds(segments));
        }
    } while (std::next_permutation(order.begin(), order.end()));
}

// --- The table

TEST_F(PageTableTest, HasARegionAsLongAsASegmentIsInIt)
{
    std::vector<Placed> segments = placed({{base(), 64},
                                           {base() + kPage, kSmallestLarge},
                                           {base() + 4 * kPage, 64},
                                           {base() + kRegion - 600, 1200}});
    addAll(&segments);
    EXPECT_EQ(pageTable.count, 2U);
    segments[3].remove();
    EXPECT_EQ(pageTable.count, 1U);
    segments[0].remove();
    EXPECT_EQ(pageTable.count, 1U);
    segments[1].remove();
    EXPECT_EQ(pageTable.count, 1U);
    segments[2].remove();
    EXPECT_EQ(pageTable.count, 0U);
}

// The next region would be there for nothing: who looks there looks in the page before too.
TEST_F(PageTableTest, HasASmallSegmentInTheRegionWhereItBegins)
{
    Placed segment({base() + kRegion - 8, kLargestSmall});
    ASSERT_TRUE(segment.add());
    EXPECT_EQ(pageTable.count, 1U);
    EXPECT_NE(regionAt(base()), nullptr);
    segment.remove();
}

TEST_F(PageTableTest, GrowsSoThatHalfOfItsPlacesStayFree)
{
    std::vector<Placed> segments;
    for (uintptr_t number = 0; number < 300; ++number) {
        if (number < 210) {
            segments.emplace_back(Shape{base() + number * kRegion, 64});
        } else {
            const uintptr_t far = (number - 210) * (number - 209) / 2;
            segments.emplace_back(Shape{beyond() + far * kRegion, 1024});
        }
    }
    for (Placed& segment : segments) {
        ASSERT_TRUE(segment.add());
        ASSERT_LE(pageTable.count * 2, pageTable.capacity);
        ASSERT_EQ(pageTable.capacity & (pageTable.capacity - 1), 0U);
    }
    EXPECT_EQ(pageTable.count, 300U);
    EXPECT_EQ(checkPageTable(), 0U);
    for (const Placed& segment : segments) {
        EXPECT_TRUE(isFound(segment));
    }
    for (Placed& segment : segments) {
        segment.remove();
        ASSERT_TRUE(&segment == &segments.back() || isFound(segments.back()));
    }
}

TEST_F(PageTableTest, FindsWhatIsLeftWhenRegionsGoInAnyOrder)
{
    std::mt19937_64 random(rmtest::seedOfThisRun());
    for (int round = 0; round < 300; ++round) {
        std::vector<Placed> segments;
        for (uintptr_t number = 0; number < 16; ++number) {
            const bool isSmall = number % 2 == 0;
            const auto row = static_cast<uintptr_t>(random() % (isSmall ? 15 : 64));
            const uintptr_t region = row * 16 + number;
            segments.emplace_back(Shape{(isSmall ? base() : beyond()) + region * kRegion,
                                        isSmall ? uintptr_t{64} : uintptr_t{600}});
        }
        for (Placed& segment : segments) {
            ASSERT_TRUE(segment.add());
        }
        std::shuffle(segments.begin(), segments.end(), random);
        while (!segments.empty()) {
            segments.back().remove();
            segments.pop_back();
            for (const Placed& left : segments) {
                ASSERT_TRUE(isFound(left)) << "seed " << rmtest::seedOfThisRun();
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
            Placed segment({base() - before, before + 2 * kRegion + behind});
            ASSERT_TRUE(segment.add());
            EXPECT_EQ(held(), 1 + (before != 0 ? 1 : 0) + (behind != 0 ? 1 : 0));
            EXPECT_TRUE(isFound(segment));
            segment.remove();
            trimPageTable();
        }
    }
}

TEST_F(PageTableTest, FindsBothWhereALargeSegmentLeavesRoomInTheFirstOrLastPageOfARegion)
{
    for (const uintptr_t lower : {uintptr_t{64}, 2 * kPage}) {
        for (const uintptr_t room : {uintptr_t{8}, uintptr_t{32}, uintptr_t{80}, kPage - 8}) {
            const Shape first = {base() - lower, lower + room};
            const uintptr_t last = base() + 3 * kRegion - room;
            for (const uintptr_t bytes : {kSmallest, kPage - 8, kPage + 16}) {
                const uintptr_t end = last - (bytes <= kLargestSmall ? kBefore : 0);
                std::vector<Placed> segments =
                    placed({first, {first.end(), end - first.end()}, {last, bytes}});
                expectAllFound(&segments);
                std::rotate(segments.begin(), segments.begin() + 1, segments.end());
                expectAllFound(&segments);
            }
        }
    }
}
}  // namespace
