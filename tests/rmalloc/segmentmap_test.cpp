// The map of a segment on its own, as it is read: drawn beside headers that the case has written,
// asked at every unit, and searched.
#include "tests/rmalloc/segmentmap_case.h"

#include "rm/rmalloc/pieces.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <gtest/gtest.h>

namespace
{
using rmalloc::Bound;
using rmalloc::FreeBlock;
using rmalloc::kLiveMagic;
using rmalloc::SegmentMap;
using rmtest::Call;
using rmtest::kSegmentSizes;
using rmtest::kSizes;
using rmtest::Made;
using rmtest::newMap;
using rmtest::Piece;
using rmtest::Pieces;
using rmtest::same;
using rmtest::ScopedFault;
using rmtest::wrong;

class MapOfSegment : public rmtest::RmTest
{
};

class MapSearch : public rmtest::RmTest
{
};

// --- A new map

TEST_F(MapOfSegment, IsGotBesideTheSegment)
{
    rmtest::resetCalls();
    const Made made(10'000);
    EXPECT_EQ(rmtest::callCount(Call::kCalloc), 1);
    const auto calls = rmtest::callTrace({Call::kMalloc});
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].args[0], 24 + 10'000 * 8);
    EXPECT_EQ(calls[0].result, reinterpret_cast<intptr_t>(made.map->segment));
}

TEST_F(MapOfSegment, GoesBackWithTheSegment)
{
    SegmentMap* map = newMap(10'000);
    rmtest::resetCalls();
    rmalloc::freeSegment(map);
    EXPECT_EQ(rmtest::callCount(Call::kFree), 2);
}

TEST_F(MapOfSegment, GoesBackWhenThereIsNone)
{
    rmalloc::freeSegment(nullptr);
    EXPECT_EQ(rmalloc::checkPieces(), 0U);
}

// The bits of 62 units, with that of the anchor and that behind them, are one strip.
TEST_F(MapOfSegment, OfASmallSegmentStandsBeforeItInTheSameMemory)
{
    for (const uint32_t units : {1U, 2U, 61U, 62U}) {
        ASSERT_TRUE(rmalloc::isSmall(units));
        rmtest::resetCalls();
        SegmentMap* map = newMap(units);
        const auto calls = rmtest::callTrace({Call::kMalloc});
        ASSERT_EQ(calls.size(), 1U);
        EXPECT_EQ(calls[0].result, reinterpret_cast<intptr_t>(map));
        EXPECT_EQ(calls[0].args[0], static_cast<int64_t>(rmalloc::kBeforeSmall + 24 + units * 8));
        EXPECT_EQ(rmtest::callCount(Call::kCalloc), 0);
        EXPECT_EQ(rmtest::callCount(Call::kAlignedAlloc), 0);
        EXPECT_EQ(map->segment, rmalloc::smallSegmentOf(map));
        EXPECT_EQ(rmalloc::mapOfSmall(reinterpret_cast<uintptr_t>(map->segment)), map);
        EXPECT_LE(reinterpret_cast<uintptr_t>(map->bounds.row + 1),
                  reinterpret_cast<uintptr_t>(map->segment));
        EXPECT_EQ(reinterpret_cast<uintptr_t>(map->segment) % alignof(std::max_align_t), 0U);
        rmtest::resetCalls();
        rmalloc::freeSegment(map);
        EXPECT_EQ(rmtest::callCount(Call::kFree), 1);
    }
    EXPECT_FALSE(rmalloc::isSmall(63));
}

// It may get the memory of another one that was in use.
TEST_F(MapOfSegment, OfASmallSegmentShowsNothingOfAnEarlierOne)
{
    SegmentMap* map = newMap(7);
    rmalloc::drawEmpty(map);
    map->slot = 5;
    map->blocks = 3;
    rmalloc::freeSegment(map);
    SegmentMap* next = newMap(7);
    EXPECT_EQ(next->units, 7U);
    EXPECT_EQ(next->slot, 0U);
    EXPECT_EQ(next->blocks, 0U);
    EXPECT_EQ(rmalloc::stripsOf(next)->starts, 0U);
    EXPECT_EQ(rmalloc::stripsOf(next)->ends, 0U);
    EXPECT_EQ(largestBound(next->bounds), 0);
    rmalloc::freeSegment(next);
}

// Pieces of memory that have gone back to the platform.
int givenBack()
{
    int count = 0;
    for (const auto& call : rmtest::callTrace({Call::kFree})) {
        count += call.args[0] != 0 ? 1 : 0;
    }
    return count;
}

// The usual size of a segment has 1,021 units.
TEST_F(MapOfSegment, OfTheUsualSizesIsAPieceOfASlab)
{
    rmalloc::trimPieces();
    for (const uint32_t units : {63U, 200U, 1000U, 1021U, 1022U}) {
        rmtest::resetCalls();
        SegmentMap* map = newMap(units);
        EXPECT_EQ(rmtest::callCount(Call::kCalloc), 0) << units;
        EXPECT_EQ(rmtest::callCount(Call::kAlignedAlloc), 1) << units;
        rmalloc::freeSegment(map);
        SegmentMap* next = newMap(units);
        EXPECT_EQ(next, map);
        rmalloc::freeSegment(next);
        EXPECT_EQ(rmalloc::checkPieces(), 0U);
        rmalloc::trimPieces();
        EXPECT_EQ(givenBack(), 2 + 1) << units;  // the segments, and the slab
    }
}

TEST_F(MapOfSegment, IsNullWithoutMemory)
{
    for (const uint32_t units : {1000U, 10'000U}) {
        rmalloc::trimPieces();
        rmtest::resetCalls();
        const ScopedFault fault(
            {.call = Call::kCalloc, .also = Call::kAlignedAlloc, .error = ENOMEM});
        EXPECT_EQ(newMap(units), nullptr);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(givenBack(), 1) << "the segment";
    }
}

TEST_F(MapOfSegment, IsNullWithoutMemoryForTheSegment)
{
    for (const uint32_t units : {10U, 1000U, 10'000U}) {
        rmtest::resetCalls();
        const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
        EXPECT_EQ(newMap(units), nullptr);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(rmtest::callCount(Call::kCalloc), 0);
        EXPECT_EQ(givenBack(), 0);
    }
}

TEST_F(MapOfSegment, HasItsStripsBehindItAndThenItsBounds)
{
    for (const uint32_t units : kSegmentSizes) {
        const Made made(units);
        EXPECT_EQ(static_cast<void*>(stripsOf(made.map)), made.map + 1);
        EXPECT_GT(static_cast<void*>(made.map->bounds.top), stripsOf(made.map) + units / 64 + 1);
    }
}

TEST_F(MapOfSegment, HasABoundForEveryStripThatIsInUse)
{
    for (const uint32_t units : kSegmentSizes) {
        const Made made(units);
        EXPECT_EQ(made.map->units, units);
        EXPECT_GE(made.map->bounds.length, units / 64 + 1) << units;
        EXPECT_LE(made.map->bounds.length, units / 64 + 2) << units;
    }
}

TEST_F(MapOfSegment, TakesOneByteForTwentyFiveOfTheSegmentAndItsOwnSize)
{
    for (const uint32_t units : kSegmentSizes) {
        rmtest::resetCalls();
        const Made made(units);
        const auto calls = rmtest::callTrace({Call::kCalloc});
        ASSERT_EQ(calls.empty(), units < 1023) << units;
        // A piece ends with its one node of bounds, that of a small segment where this begins.
        const char* end = units <= 62 ? reinterpret_cast<char*>(made.map->segment)
                                      : reinterpret_cast<char*>(made.map->bounds.row + 16);
        const int64_t bytes = calls.empty() ? end - reinterpret_cast<char*>(made.map)
                                            : calls[0].args[0] * calls[0].args[1];
        // Rounded up to strips and whole nodes on each of a few levels.
        EXPECT_LE(bytes, static_cast<int64_t>(sizeof(SegmentMap)) + units * 8 / 25 + 5 * 64);
    }
}

TEST_F(MapOfSegment, ShowsNothingAtFirst)
{
    for (const uint32_t units : {1U, 63U, 64U, 1000U}) {
        const Made made(units);
        for (uint32_t offset = 0; offset <= units; ++offset) {
            ASSERT_FALSE(isFreeAt(made.map, offset));
            ASSERT_FALSE(endsAt(made.map, offset));
        }
        EXPECT_EQ(firstFitIn(made.map, 1).map, nullptr);
    }
}

TEST_F(MapOfSegment, IsDrawnEmptyAsOneFreeBlock)
{
    for (const uint32_t units : kSegmentSizes) {
        const Made made(units);
        drawEmpty(made.map);
        EXPECT_EQ(wrong(made), "") << units;
        EXPECT_EQ(largestBound(made.map->bounds), static_cast<Bound>(units));
        EXPECT_EQ(firstFitIn(made.map, units).offset, 1U) << units;
        EXPECT_EQ(firstFitIn(made.map, units + 1).map, nullptr) << units;
    }
}

// --- Reading

TEST_F(MapOfSegment, KnowsBlocksOfEverySizeOnBothSidesOfEveryBorder)
{
    for (const uint32_t before : {0U, 1U, 61U, 62U, 63U, 64U, 65U, 126U, 127U, 128U, 1023U}) {
        for (const uint32_t units : kSizes) {
            for (const uint32_t behind : {0U, 1U, 64U, 65U}) {
                for (const bool isFree : {false, true}) {
                    Pieces pieces;
                    if (before > 0) {
                        pieces.push_back({1, before, !isFree});
                    }
                    pieces.push_back({before + 1, units, isFree});
                    if (behind > 0) {
                        pieces.push_back({before + units + 1, behind, !isFree});
                    }
                    const Made made(pieces, true);
                    ASSERT_EQ(wrong(made), "") << before << ", " << units << ", " << behind;
                }
            }
        }
    }
}

TEST_F(MapOfSegment, KnowsBlocksOfThousandsOfUnits)
{
    EXPECT_EQ(wrong(Made("[5000] 7000 [64] 4096 [9999] 65")), "");
    EXPECT_EQ(wrong(Made("12345 [1] 30000 [30000] 1 [4096]")), "");
}

TEST_F(MapOfSegment, KnowsManyBlocksInOneStrip)
{
    EXPECT_EQ(wrong(Made("1 [1] 1 [1] 1 [1] 2 [1] 3 [1] [1] [1] 4 [2] 5 [7] 30 [1] 1")), "");
    EXPECT_EQ(wrong(Made("[1] [1] [1] [1] [1] [1]")), "");
}

TEST_F(MapOfSegment, KnowsASegmentThatIsFull)
{
    EXPECT_EQ(wrong(Made("[1]")), "");
    EXPECT_EQ(wrong(Made("[63]")), "");
    EXPECT_EQ(wrong(Made("[64]")), "");
    EXPECT_EQ(wrong(Made("[400] [1] [65] [200]")), "");
}

TEST_F(MapOfSegment, FindsTheNeighboursOfABlock)
{
    const Made made("3 [4] 5 [6] [2] 7");
    EXPECT_TRUE(same(neighboursOf(made.map, 4, 4), {1, 3, 5}));
    EXPECT_TRUE(same(neighboursOf(made.map, 13, 6), {8, 5, 0}));
    EXPECT_TRUE(same(neighboursOf(made.map, 19, 2), {8, 5, 7}));
}

TEST_F(MapOfSegment, HasTheAnchorBelowAndNothingBehindAtItsEnds)
{
    const Made low("[4] 5 [6]");
    EXPECT_TRUE(same(neighboursOf(low.map, 1, 4), {0, 0, 5}));
    EXPECT_TRUE(same(neighboursOf(low.map, 10, 6), {5, 5, 0}));
    for (const uint32_t units : kSegmentSizes) {
        const Made full(Pieces{{1, units, false}}, true);
        EXPECT_TRUE(same(neighboursOf(full.map, 1, units), {0, 0, 0})) << units;
    }
}

TEST_F(MapOfSegment, FindsAFreeNeighbourThatIsManyStripsAway)
{
    const Made made("5 [20000] [70] [1] 300");
    EXPECT_TRUE(same(neighboursOf(made.map, 20'076, 1), {1, 5, 300}));
}

TEST_F(MapOfSegment, HasTheEndsOfTheNextSixtyFourUnits)
{
    const Made made("3 [1] [1] 60 [63] 64 [65] 7 [128] [1] 200 [1]");
    for (uint32_t offset = 0; offset <= made.map->units; ++offset) {
        uint64_t expected = 0;
        for (const Piece& piece : made.pieces) {
            const uint32_t last = piece.offset + piece.units - 1;
            if (last >= offset && last - offset < 64) {
                expected |= uint64_t{1} << (last - offset);
            }
        }
        expected |= offset == 0 ? 1 : 0;
        ASSERT_EQ(endsFrom(made.map, offset), expected) << offset;
    }
}

TEST_F(MapOfSegment, KnowsWhetherABlockEndsBetweenTwoPlaces)
{
    const Made made("[3] [60] [1] [128] [64] [70] [1] [1] [200]");
    for (uint32_t offset = 1; offset <= made.map->units; ++offset) {
        bool none = true;
        for (uint32_t end = offset; end <= made.map->units + 1; ++end) {
            ASSERT_EQ(noEndBetween(made.map, offset, end), none) << offset << " to " << end;
            none = none &&
                   std::none_of(made.pieces.begin(), made.pieces.end(), [end](const Piece& piece) {
                       return piece.offset + piece.units - 1 == end;
                   });
        }
        EXPECT_TRUE(noEndBetween(made.map, offset, offset - 1));
    }
}

// --- Headers that were written over

TEST_F(MapOfSegment, NeedsNoHeaderForALiveBlockOfUpToAStrip)
{
    for (const uint32_t units : {1U, 2U, 63U, 64U}) {
        for (const uint32_t before : {1U, 40U, 63U, 64U}) {
            Made made(Pieces{{1, before, true}, {before + 1, units, false}}, true);
            for (const uint32_t damaged : {0U, units - 1, units + 1, 0xFFFFFFFFU}) {
                *made.header(before + 1) = {0, damaged};
                EXPECT_EQ(liveUnitsAt(made.map, before + 1), units);
            }
        }
    }
}

TEST_F(MapOfSegment, HasNoLargeBlockWhereTheUnitsOfItsHeaderAreNotItsOwn)
{
    for (const std::string_view drawing :
         {"[10] [65] [70] 9", "[63] [200] [70] 9", "[64] [129] [64] [1]", "[1] [300] [300]"}) {
        Made made(drawing);
        const Piece block = made.pieces[1];
        for (uint32_t units = 0; units < made.map->units + 70; ++units) {
            made.header(block.offset)->units = units;
            ASSERT_EQ(liveUnitsAt(made.map, block.offset), units == block.units ? units : 0)
                << drawing << ", units " << units;
        }
        for (const uint32_t units : {0x80000000U, 0xFFFFFFFFU, 0U - block.offset, kLiveMagic}) {
            made.header(block.offset)->units = units;
            EXPECT_EQ(liveUnitsAt(made.map, block.offset), 0U) << drawing << ", units " << units;
        }
    }
}

TEST_F(MapOfSegment, HasNoBlockAtAForgedHeaderInsideOfALargeOne)
{
    for (const std::string_view drawing : {"[400] [3]", "[3] [400]", "[64] [1000] [64]"}) {
        Made made(drawing);
        for (const Piece& piece : made.pieces) {
            const uint32_t end = piece.offset + piece.units;
            for (uint32_t offset = piece.offset + 1; offset < end; ++offset) {
                // What a block here would have if it ended where this one does.
                *made.header(offset) = {kLiveMagic, end - offset};
                ASSERT_EQ(liveUnitsAt(made.map, offset), 0U) << drawing << ", unit " << offset;
            }
        }
        EXPECT_EQ(wrong(made), "");
    }
}

TEST_F(MapOfSegment, HasNoLiveBlockInFreeSpace)
{
    Made made("[64] 400 [64]");
    for (uint32_t offset = 65; offset < 465; ++offset) {
        *made.header(offset) = {kLiveMagic, 465 - offset};
        ASSERT_EQ(liveUnitsAt(made.map, offset), 0U) << offset;
    }
}

// --- firstFitIn

TEST_F(MapSearch, FindsWhatAWalkFindsForEveryNeed)
{
    for (const std::string_view drawing :
         {"1", "[1]", "[3] 5 [1]", "2 [1] 4 [1] 6 [1] 4 [1]", "64 [1] 65 [1] 63", "[64] 64 [64] 65",
          "[70] 20 [5] 10 [3] 129 [200] 128 [1] 1000 [64] 999 [65] 2000 [1]",
          "1 [4000] 3 [4000] 2 [4000] 5 [4000] 4"}) {
        for (const bool descending : {false, true}) {
            const Made made(drawing);
            const uint32_t most = made.largestFree() + 2;
            for (uint32_t i = 1; i <= most; ++i) {
                const uint32_t need = descending ? most + 1 - i : i;
                const FreeBlock found = firstFitIn(made.map, need);
                const Piece* expected = made.firstFit(need);
                ASSERT_EQ(found.map, expected == nullptr ? nullptr : made.map)
                    << drawing << ", " << need;
                if (expected != nullptr) {
                    ASSERT_EQ(found.offset, expected->offset) << drawing << ", " << need;
                    ASSERT_EQ(found.units, expected->units) << drawing << ", " << need;
                }
            }
            EXPECT_EQ(wrong(made), "") << drawing;
        }
    }
}

TEST_F(MapSearch, FindsNothingForTheLargestNeed)
{
    EXPECT_EQ(firstFitIn(Made("5 [1] 400000").map, 1U << 29).map, nullptr);
}

TEST_F(MapSearch, LowersBoundsThatAreTooLarge)
{
    Made made("60 [1] 60 [1] 60 [1] 60 [1] 60 [1]");
    // Each is made smaller, which leaves its bound.
    for (std::size_t n = 0; n < 10; n += 2) {
        Piece& piece = made.pieces[n];
        shrinkFree(made.map, piece.offset, 20);
        piece.units = 20;
        made.pieces.push_back({piece.offset + 20, 40, false});
    }
    std::sort(made.pieces.begin(), made.pieces.end(),
              [](const Piece& a, const Piece& b) { return a.offset < b.offset; });
    made.writeHeaders();
    EXPECT_EQ(wrong(made), "");
    EXPECT_EQ(largestBound(made.map->bounds), 60);
    EXPECT_EQ(firstFitIn(made.map, 21).map, nullptr);
    EXPECT_EQ(largestBound(made.map->bounds), 20);
    EXPECT_EQ(wrong(made), "");
    EXPECT_EQ(firstFitIn(made.map, 20).offset, 1U);
}
}  // namespace
