// The map of a segment on its own, as it is changed: cut, merged and resized as the allocator does
// it, and what its checker sees.
//
//     RM_TEST_SEED=123            repeats a random run; a failure prints its seed
//     RM_TEST_OPERATIONS=1000000  makes longer ones
#include "tests/rmalloc/segmentmap_case.h"

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <random>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace
{
using rmalloc::Bound;
using rmalloc::FreeBlock;
using rmalloc::kStrip;
using rmalloc::kUnchanged;
using rmalloc::Neighbours;
using rmtest::kSizes;
using rmtest::Made;
using rmtest::Piece;
using rmtest::Pieces;
using rmtest::piecesOf;
using rmtest::same;
using rmtest::wrong;

class MapChange : public rmtest::RmTest
{
};

class MapCheck : public rmtest::RmTest
{
};

// --- Changing

TEST_F(MapChange, SetsAndClearsTheEndOfABlock)
{
    for (const uint32_t offset : {1U, 63U, 64U, 65U, 127U, 128U, 200U}) {
        const Made made(200);
        setEnd(made.map, offset);
        EXPECT_EQ(endsFrom(made.map, offset), 1U);
        clearEndIf(made.map, offset, false);
        EXPECT_TRUE(endsAt(made.map, offset));
        clearEndIf(made.map, offset, true);
        EXPECT_FALSE(endsAt(made.map, offset));
        setEnd(made.map, offset);
        clearEnd(made.map, offset);
        EXPECT_FALSE(endsAt(made.map, offset));
    }
}

TEST_F(MapChange, LeavesTheOtherEndsAlone)
{
    const Made made(200);
    for (uint32_t offset = 0; offset <= 200; ++offset) {
        setEnd(made.map, offset);
    }
    clearEnd(made.map, 64);
    clearEndIf(made.map, 127, true);
    for (uint32_t offset = 0; offset <= 200; ++offset) {
        EXPECT_EQ(endsAt(made.map, offset), offset != 64 && offset != 127) << offset;
    }
}

// The blocks are then: `rest` free, when it is not 0, and `need` live at the free block's high end.
void takeFrom(Made* made, std::size_t n, uint32_t need)
{
    Piece& piece = made->pieces[n];
    const uint32_t rest = piece.units - need;
    if (rest == 0) {
        piece.isFree = false;
    } else {
        piece.units = rest;
        made->pieces.insert(made->pieces.begin() + static_cast<std::ptrdiff_t>(n) + 1,
                            {piece.offset + rest, need, false});
    }
    made->writeHeaders();
}

TEST_F(MapChange, CutsABlockFromTheHighEndOfAFreeOne)
{
    for (const uint32_t before : {1U, 40U, 62U, 63U, 64U}) {
        for (const uint32_t units : kSizes) {
            for (const uint32_t need : kSizes) {
                if (need <= units) {
                    Made made(Pieces{{1, before, false}, {before + 1, units, true}}, true);
                    const FreeBlock free = {made.map, before + 1, units};
                    const Bound told = cutFree(made.map, free, need, static_cast<Bound>(units));
                    takeFrom(&made, 1, need);
                    ASSERT_EQ(wrong(made), "") << before << ", " << units << ", " << need;
                    ASSERT_GE(told, static_cast<Bound>(units - need));
                }
            }
        }
    }
}

TEST_F(MapChange, TellsWhatIsLeftOfTheLargestWhenThatIsSmall)
{
    Made made("100 [1] 30 [1] 40");
    EXPECT_EQ(cutFree(made.map, {made.map, 1, 100}, 95, 100), 40);
    takeFrom(&made, 0, 95);
    EXPECT_EQ(wrong(made), "");
}

TEST_F(MapChange, TellsThatNothingIsLeftOfTheOnlyFreeBlock)
{
    for (const uint32_t units : {1U, 63U, 64U, 65U, 5000U, 400'000U}) {
        Made made(units);
        drawEmpty(made.map);
        EXPECT_EQ(cutFree(made.map, {made.map, 1, units}, units, static_cast<Bound>(units)), 0);
        takeFrom(&made, 0, units);
        EXPECT_EQ(wrong(made), "") << units;
        EXPECT_EQ(firstFitIn(made.map, 1).map, nullptr);
    }
}

TEST_F(MapChange, TellsNothingWhileTheFreeBlockStaysLarge)
{
    Made made("300 [1] 30");
    EXPECT_EQ(cutFree(made.map, {made.map, 1, 300}, 235, 300), kUnchanged);
    takeFrom(&made, 0, 235);
    EXPECT_EQ(made.map->bounds.row[0], 65);
    EXPECT_EQ(wrong(made), "");
}

TEST_F(MapChange, TellsNoLessThanWhatAnotherFreeBlockHas)
{
    for (const std::string_view drawing :
         {"50 [1] 50 [90] 50", "20 [1] 64 [90] 300", "64 [1] 64"}) {
        for (std::size_t n = 0; n < piecesOf(drawing).size(); n += 2) {
            Made made(drawing);
            const Piece piece = made.pieces[n];
            const auto known = static_cast<Bound>(made.largestFree());
            const FreeBlock free = {made.map, piece.offset, piece.units};
            const Bound told = cutFree(made.map, free, piece.units, known);
            takeFrom(&made, n, piece.units);
            EXPECT_GE(told, static_cast<Bound>(made.largestFree())) << drawing << ", " << n;
            EXPECT_EQ(wrong(made), "") << drawing << ", " << n;
        }
    }
}

TEST_F(MapChange, MakesAFreeBlockSmaller)
{
    for (const uint32_t before : {1U, 40U, 62U, 63U, 64U}) {
        for (const uint32_t units : kSizes) {
            for (const uint32_t rest : kSizes) {
                if (rest < units) {
                    Made made(Pieces{{1, before, false}, {before + 1, units, true}}, true);
                    shrinkFree(made.map, before + 1, rest);
                    takeFrom(&made, 1, units - rest);
                    ASSERT_EQ(wrong(made), "") << before << ", " << units << " to " << rest;
                }
            }
        }
    }
}

TEST_F(MapChange, MakesAFreeBlockLarger)
{
    for (const uint32_t before : {1U, 40U, 62U, 63U, 64U}) {
        for (const uint32_t units : kSizes) {
            for (const uint32_t more : kSizes) {
                Made made(Pieces{{1, before, false},
                                 {before + 1, units, true},
                                 {before + 1 + units, more, false}},
                          true);
                clearEnd(made.map, before + units);
                growFree(made.map, before + 1, units + more);
                made.pieces.pop_back();
                made.pieces[1].units += more;
                made.writeHeaders();
                ASSERT_EQ(wrong(made), "") << before << ", " << units << " and " << more;
            }
        }
    }
}

TEST_F(MapChange, SetsAFreeBlockBesideOthersInItsStrip)
{
    for (const uint32_t units : {1U, 9U, 10U, 11U, 64U, 65U, 500U}) {
        Made made(Pieces{{1, 10, true}, {11, 5, false}, {16, units, false}}, true);
        setFree(made.map, 16, units);
        made.pieces[2].isFree = true;
        made.writeHeaders();
        EXPECT_EQ(wrong(made), "") << units;
    }
}

TEST_F(MapChange, SetsTheExactBoundOfALargeBlockWhereALargerOneWas)
{
    Made made("[1] 500 [5] 3 [1]");
    clearFree(made.map, 2);
    made.pieces[1].isFree = false;
    made.writeHeaders();
    EXPECT_EQ(wrong(made), "");
    setEnd(made.map, 101);
    setFree(made.map, 2, 100);
    made.pieces[1] = {2, 100, true};
    made.pieces.insert(made.pieces.begin() + 2, {102, 400, false});
    made.writeHeaders();
    EXPECT_EQ(wrong(made), "");
}

TEST_F(MapChange, ClearsAFreeBlock)
{
    for (const std::string_view drawing :
         {"[1] 5 [1]", "3 [1] 5 [1] 7", "3 [1] 64 [1]", "3 [1] 65 [1] 7", "1 [64] 1000 [64] 1"}) {
        const std::size_t blocks = piecesOf(drawing).size();
        for (std::size_t n = 0; n < blocks; ++n) {
            Made made(drawing);
            if (made.pieces[n].isFree) {
                clearFree(made.map, made.pieces[n].offset);
                made.pieces[n].isFree = false;
                made.writeHeaders();
                EXPECT_EQ(wrong(made), "") << drawing << ", block " << n;
            }
        }
    }
}

TEST_F(MapChange, KnowsTheLargestFreeBlockOfAStrip)
{
    const Made made("3 [1] 5 [1] 4 [50] 9 [1] 64 [150] [1] 300");
    EXPECT_EQ(largestInStrip(made.map, 0), 5U);
    EXPECT_EQ(largestInStrip(made.map, 1), 64U);
    EXPECT_EQ(largestInStrip(made.map, 3), 0U);
    EXPECT_EQ(largestInStrip(made.map, 4), 300U);
}

// --- The checker

const std::string_view kSound = "3 [1] 5 [70] 200 [64] 10 [1]";

TEST_F(MapCheck, SeesABitTooManyOrTooFewOfEachKind)
{
    Made made(kSound);
    EXPECT_EQ(rmalloc::checkSegmentMap(made.map), 0U);
    const uint32_t strips = made.map->units / kStrip + 2;  // the spare one too
    for (uint32_t offset = 0; offset < strips * kStrip; ++offset) {
        stripsOf(made.map)[offset / kStrip].starts ^= rmalloc::bitOf(offset);
        EXPECT_GT(rmalloc::checkSegmentMap(made.map), 0U) << "starts, " << offset;
        stripsOf(made.map)[offset / kStrip].starts ^= rmalloc::bitOf(offset);
        stripsOf(made.map)[offset / kStrip].ends ^= rmalloc::bitOf(offset);
        EXPECT_GT(rmalloc::checkSegmentMap(made.map), 0U) << "ends, " << offset;
        stripsOf(made.map)[offset / kStrip].ends ^= rmalloc::bitOf(offset);
    }
    EXPECT_EQ(rmalloc::checkSegmentMap(made.map), 0U);
}

TEST_F(MapCheck, SeesABoundThatIsTooSmall)
{
    for (const uint32_t strip : {0U, 1U, 5U}) {
        const Made made(kSound);
        ASSERT_GT(made.map->bounds.row[strip], 0);
        --made.map->bounds.row[strip];
        EXPECT_GT(rmalloc::checkSegmentMap(made.map), 0U) << strip;
    }
}

TEST_F(MapCheck, SeesABoundOfALargeBlockThatIsNotExact)
{
    const Made made(kSound);
    rmalloc::setBound(made.map->bounds, 1, 201);
    EXPECT_GT(rmalloc::checkSegmentMap(made.map), 0U);
}

TEST_F(MapCheck, PassesABoundOfSmallBlocksThatIsTooLarge)
{
    const Made made(kSound);
    rmalloc::setBound(made.map->bounds, 0, 64);
    rmalloc::setBound(made.map->bounds, 5, 1000);
    EXPECT_EQ(rmalloc::checkSegmentMap(made.map), 0U);
}

TEST_F(MapCheck, SeesABoundOfAStripInWhichNothingStarts)
{
    const Made made(kSound);
    ASSERT_EQ(made.map->bounds.row[2], 0);
    rmalloc::setBound(made.map->bounds, 2, 1);
    EXPECT_GT(rmalloc::checkSegmentMap(made.map), 0U);
}

TEST_F(MapCheck, SeesABoundOfZeroWhereAFreeBlockStarts)
{
    const Made made(kSound);
    rmalloc::lowerBound(made.map->bounds, 0, 0);
    EXPECT_GT(rmalloc::checkSegmentMap(made.map), 0U);
}

TEST_F(MapCheck, SeesATreeThatDoesNotHold)
{
    const Made made("3 [2000]");
    ASSERT_NE(made.map->bounds.top, made.map->bounds.row);
    made.map->bounds.top[0] = 0;
    EXPECT_GT(rmalloc::checkSegmentMap(made.map), 0U);
}

TEST_F(MapCheck, SeesASizeThatIsNotTheSegments)
{
    const Made made(kSound);
    --made.map->units;
    EXPECT_GT(rmalloc::checkSegmentMap(made.map), 0U);
    made.map->units += 2;
    EXPECT_GT(rmalloc::checkSegmentMap(made.map), 0U);
}

TEST_F(MapCheck, SeesAnotherOrderOfBlocksInTheSegment)
{
    for (const std::string_view other :
         {"3 [1] 5 [71] 199 [64] 10 [1]", "3 [1] 5 [70] 200 [64] [10] [1]",
          "[3] [1] 5 [70] 200 [64] 10 [1]", "3 [1] 5 [70] [200] [64] 10 [1]",
          "3 [1] 5 [70] 200 [63] 11 [1]", "3 [1] 5 [70] 200 [64] 10 1"}) {
        Made made(kSound);
        made.pieces = piecesOf(other);
        made.writeHeaders();
        EXPECT_GT(rmalloc::checkSegmentMap(made.map), 0U) << other;
    }
}

// --- Random runs

struct Run {
    uint32_t units;
    uint32_t largest;  // block that is asked for
    long oneOf;        // as many of the operations are made
};

void PrintTo(const Run& run, std::ostream* out)
{
    *out << "a segment of " << run.units;
}

// Takes blocks and gives them back as the allocator does, on the map and on the list of blocks.
class MapRandom : public rmtest::RmTest, public ::testing::WithParamInterface<Run>
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        drawEmpty(made_.map);
    }

    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }

    uint32_t anyNeed()
    {
        const uint32_t kind = below(10);
        return kind == 0 ? 62 + below(5) : 1 + below(kind < 7 ? 20 : GetParam().largest);
    }

    // A live block, by its place in the list; that of the list's end when there is none.
    std::size_t anyLive()
    {
        const auto count = static_cast<uint32_t>(made_.pieces.size());
        const uint32_t first = below(count);
        for (uint32_t i = 0; i < count; ++i) {
            const std::size_t n = (first + i) % count;
            if (!made_.pieces[n].isFree) {
                return n;
            }
        }
        return count;
    }

    void take()
    {
        const uint32_t need = anyNeed();
        const FreeBlock found = firstFitIn(made_.map, need);
        const Piece* expected = made_.firstFit(need);
        ASSERT_EQ(found.map == nullptr, expected == nullptr) << need;
        if (expected == nullptr) {
            return;
        }
        ASSERT_EQ(found.offset, expected->offset) << need;
        ASSERT_EQ(found.units, expected->units) << need;
        if (need < found.units && below(4) == 0) {
            shrinkFree(made_.map, found.offset, found.units - need);
        } else {
            known_ = std::min(known_, cutFree(made_.map, found, need, known_));
        }
        takeFrom(&made_, static_cast<std::size_t>(expected - made_.pieces.data()), need);
    }

    // Puts back what was cut from the free block below it.
    void undo()
    {
        const std::size_t n = anyLive();
        if (n == made_.pieces.size() || n == 0 || !made_.pieces[n - 1].isFree ||
            (n + 1 < made_.pieces.size() && made_.pieces[n + 1].isFree)) {
            return;
        }
        Piece& below = made_.pieces[n - 1];
        clearEnd(made_.map, below.offset + below.units - 1);
        below.units += made_.pieces[n].units;
        growFree(made_.map, below.offset, below.units);
        known_ = std::max(known_, static_cast<Bound>(below.units));
        made_.pieces.erase(made_.pieces.begin() + static_cast<std::ptrdiff_t>(n));
        made_.writeHeaders();
    }

    // Makes one free space of a live block and the free ones that it touches, and puts a block of
    // `need` at its low end, when it is not 0.
    void putBack(uint32_t need)
    {
        const std::size_t n = anyLive();
        if (n == made_.pieces.size()) {
            return;
        }
        const Piece block = made_.pieces[n];
        const uint32_t units = liveUnitsAt(made_.map, block.offset);
        ASSERT_EQ(units, block.units);
        const Neighbours around = neighboursOf(made_.map, block.offset, units);
        ASSERT_TRUE(same(around, made_.neighbours(n)));
        const bool down =
            around.previous != 0 && around.previous + around.previousUnits == block.offset;
        const bool up = around.nextUnits != 0;
        const uint32_t low = down ? around.previous : block.offset;
        const uint32_t span = units + around.nextUnits + (down ? around.previousUnits : 0);
        if (need > span) {
            return;
        }
        clearEndIf(made_.map, block.offset - 1, down);
        clearEndIf(made_.map, block.offset + units - 1, up);
        if (up) {
            clearFree(made_.map, block.offset + units);
        }
        if (down && need != 0) {
            clearFree(made_.map, low);
        }
        if (need != 0) {
            setEnd(made_.map, low + need - 1);
        }
        if (span > need) {
            setFree(made_.map, low + need, span - need);
            known_ = std::max(known_, static_cast<Bound>(span - need));
        }
        const auto first = made_.pieces.begin() + static_cast<std::ptrdiff_t>(down ? n - 1 : n);
        const auto rest = made_.pieces.erase(first, first + 1 + (down ? 1 : 0) + (up ? 1 : 0));
        const auto behind =
            span > need ? made_.pieces.insert(rest, {low + need, span - need, true}) : rest;
        if (need != 0) {
            made_.pieces.insert(behind, {low, need, false});
        }
        made_.writeHeaders();
    }

    void step()
    {
        if (below(200) == 0) {
            growing_ = !growing_;
        }
        const uint32_t kind = below(10);
        if (kind < (growing_ ? 6U : 2U)) {
            take();
        } else if (kind == 6) {
            putBack(anyNeed());
        } else if (kind == 7) {
            undo();
        } else {
            putBack(0);
        }
    }

    Made made_{GetParam().units};
    Bound known_ = static_cast<Bound>(GetParam().units);  // for the whole segment

  private:
    std::mt19937_64 random_{rmtest::seedOfThisRun()};
    bool growing_ = true;
};

TEST_P(MapRandom, AgreesWithTheListOfBlocksAfterEveryOperation)
{
    const long operations = rmtest::operationsOfThisRun(100'000) / GetParam().oneOf;
    for (long done = 0; done < operations; ++done) {
        SCOPED_TRACE("seed " + std::to_string(rmtest::seedOfThisRun()) + ", operation " +
                     std::to_string(done));
        step();
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_EQ(rmalloc::checkSegmentMap(made_.map), 0U);
        ASSERT_GE(known_, static_cast<Bound>(made_.largestFree()));
        if (done % 50 == 0) {
            ASSERT_EQ(wrong(made_, true), "");
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Of, MapRandom,
                         ::testing::Values(Run{1, 1, 10}, Run{63, 70, 1}, Run{64, 20, 1},
                                           Run{127, 70, 1}, Run{200, 100, 1}, Run{1000, 200, 2},
                                           Run{5000, 1000, 10}, Run{17'000, 3000, 20},
                                           Run{400'000, 50'000, 200}),
                         [](const ::testing::TestParamInfo<Run>& run) {
                             return std::to_string(run.param.units) + "Units";
                         });
}  // namespace
