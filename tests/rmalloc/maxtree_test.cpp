// The tree of maxima on its own: rows of bounds, searched and changed, against a plain row.
//
// The lengths lie on both sides of each size at which a tree gets another node or another level. A
// row is written to directly in some cases, as the map of a segment does when it has cut a large
// block smaller: what is above is too large then, and that must show in no answer.
//
//     RM_TEST_SEED=123            repeats a random run; a failure prints its seed
//     RM_TEST_OPERATIONS=1000000  makes longer ones
#include "rm/rmalloc/maxtree.h"

#include "tests/support/support.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{
using rmalloc::Bound;
using rmalloc::bytesOfMaxTree;
using rmalloc::checkMaxTree;
using rmalloc::firstAtLeast;
using rmalloc::kFanOut;
using rmalloc::kNoEntry;
using rmalloc::kUnchanged;
using rmalloc::largestBound;
using rmalloc::lastBefore;
using rmalloc::lowerBound;
using rmalloc::makeMaxTree;
using rmalloc::MaxTree;
using rmalloc::raiseBound;
using rmalloc::setBound;

constexpr Bound kLarge = 1 << 29;

const uint32_t kLengths[] = {1, 2, 15, 16, 17, 255, 256, 257, 4096, 4097, 65536, 70'000, 1'200'000};

// The number of entries of each level, the row first; written down apart from the library's way.
std::vector<uint32_t> lengthsOfLevels(uint32_t length)
{
    std::vector<uint32_t> levels{length};
    while (levels.back() > 16) {
        levels.push_back((levels.back() + 15) / 16);
    }
    return levels;
}

std::size_t wholeNodes(uint32_t length)
{
    return std::size_t{(length + 15) / 16} * 16;
}

std::size_t expectedBytes(uint32_t length)
{
    std::size_t entries = 0;
    for (const uint32_t level : lengthsOfLevels(length)) {
        entries += wholeNodes(level);
    }
    return (length == 1 ? 1 : entries) * 4;
}

// A tree in memory of exactly its size.
class Tree
{
  public:
    explicit Tree(uint32_t length)
        : memory(bytesOfMaxTree(length) / sizeof(Bound)), tree(makeMaxTree(memory.data(), length))
    {
    }

    // The entries of a level, 0 for the row, 1 for the one above it.
    Bound* level(std::size_t number)
    {
        Bound* entries = memory.data() + memory.size();
        const std::vector<uint32_t> levels = lengthsOfLevels(tree.length);
        for (std::size_t i = 0; i <= number; ++i) {
            entries -= tree.length == 1 ? 1 : wholeNodes(levels[i]);
        }
        return entries;
    }

    // True when each entry is exactly the largest of those below it.
    bool isExact()
    {
        const std::vector<uint32_t> levels = lengthsOfLevels(tree.length);
        for (std::size_t i = 1; i < levels.size(); ++i) {
            const Bound* below = level(i - 1);
            for (uint32_t entry = 0; entry < levels[i]; ++entry) {
                const Bound* node = below + std::size_t{entry} * 16;
                if (level(i)[entry] != *std::max_element(node, node + 16)) {
                    return false;
                }
            }
        }
        return true;
    }

    std::vector<Bound> memory;
    MaxTree tree;
};

// The same row without a tree.
class Row
{
  public:
    explicit Row(uint32_t length) : bounds(length) {}

    uint32_t first(Bound need, uint32_t from) const
    {
        for (uint32_t i = from; i < bounds.size(); ++i) {
            if (bounds[i] >= need) {
                return i;
            }
        }
        return kNoEntry;
    }

    uint32_t last(uint32_t before) const
    {
        for (uint32_t i = before; i > 0; --i) {
            if (bounds[i - 1] > 0) {
                return i - 1;
            }
        }
        return kNoEntry;
    }

    Bound largest() const { return *std::max_element(bounds.begin(), bounds.end()); }

    std::vector<Bound> bounds;
};

// Positions of a row near each border of a node of each level, and at its ends.
std::vector<uint32_t> placesOf(uint32_t length)
{
    std::vector<uint32_t> places;
    for (const uint32_t around : {0U, 16U, 32U, 256U, 512U, 4096U, 8192U, 65'536U, 131'072U,
                                  1'048'576U, length / 2, length}) {
        for (uint32_t place = around > 2 ? around - 2 : 0; place < around + 3; ++place) {
            if (place < length) {
                places.push_back(place);
            }
        }
    }
    std::sort(places.begin(), places.end());
    places.erase(std::unique(places.begin(), places.end()), places.end());
    return places;
}

std::string rowOf(uint32_t length)
{
    return "a row of " + std::to_string(length);
}

class Maxima : public rmtest::RmTest
{
};

class MaximaCheck : public rmtest::RmTest
{
};

// --- The memory of a tree

TEST_F(Maxima, TakeOneNumberForARowOfOne)
{
    EXPECT_EQ(bytesOfMaxTree(1), sizeof(Bound));
}

TEST_F(Maxima, TakeWholeNodesForEveryLevelOfALongerRow)
{
    for (const uint32_t length : kLengths) {
        EXPECT_EQ(bytesOfMaxTree(length), expectedBytes(length)) << rowOf(length);
    }
}

TEST_F(Maxima, HaveTheTopmostLevelFirstAndTheRowLast)
{
    for (const uint32_t length : kLengths) {
        Tree made(length);
        EXPECT_EQ(made.tree.top, made.memory.data()) << rowOf(length);
        EXPECT_EQ(made.tree.row, made.level(0)) << rowOf(length);
        EXPECT_EQ(made.tree.length, length);
        EXPECT_EQ(made.tree.height, 4 * (lengthsOfLevels(length).size() - 1)) << rowOf(length);
    }
}

TEST_F(Maxima, HaveNoLevelAboveARowOfUpToSixteen)
{
    for (uint32_t length = 1; length <= 16; ++length) {
        Tree made(length);
        EXPECT_EQ(made.tree.top, made.tree.row) << rowOf(length);
        EXPECT_EQ(made.tree.height, 0U) << rowOf(length);
    }
}

TEST_F(Maxima, StayInsideOfTheirMemory)
{
    constexpr std::size_t kGuard = 16;
    for (const uint32_t length : {1U, 2U, 16U, 17U, 256U, 257U, 4097U}) {
        const std::size_t entries = expectedBytes(length) / sizeof(Bound);
        std::vector<Bound> memory(entries + 2 * kGuard, kLarge);
        std::fill_n(memory.begin() + kGuard, entries, 0);
        const MaxTree tree = makeMaxTree(memory.data() + kGuard, length);
        for (const uint32_t entry : placesOf(length)) {
            setBound(tree, entry, 9);
            raiseBound(tree, entry, 10);
            firstAtLeast(tree, 11, entry);
            lowerBound(tree, entry, entry % 2 == 0 ? 0 : 3);
        }
        EXPECT_EQ(std::count(memory.begin(), memory.begin() + kGuard, kLarge), kGuard);
        EXPECT_EQ(std::count(memory.end() - kGuard, memory.end(), kLarge), kGuard);
        EXPECT_EQ(checkMaxTree(tree), 0U) << rowOf(length);
    }
}

// --- Searching

TEST_F(Maxima, OfZerosHaveNoEntry)
{
    for (const uint32_t length : kLengths) {
        Tree made(length);
        EXPECT_EQ(firstAtLeast(made.tree, 1, 0), kNoEntry) << rowOf(length);
        EXPECT_EQ(firstAtLeast(made.tree, kLarge, 0), kNoEntry) << rowOf(length);
        EXPECT_EQ(firstAtLeast(made.tree, 1, length - 1), kNoEntry) << rowOf(length);
        EXPECT_EQ(lastBefore(made.tree, length - 1), kNoEntry) << rowOf(length);
        EXPECT_EQ(largestBound(made.tree), 0) << rowOf(length);
        EXPECT_EQ(checkMaxTree(made.tree), 0U) << rowOf(length);
    }
}

TEST_F(Maxima, FindEveryEntryThatIsTheOnlyOne)
{
    for (const uint32_t length : kLengths) {
        Tree made(length);
        uint32_t wrong = 0;
        for (uint32_t entry = 0; entry < length; ++entry) {
            setBound(made.tree, entry, 7);
            wrong += firstAtLeast(made.tree, 7, 0) == entry ? 0 : 1;
            wrong += largestBound(made.tree) == 7 ? 0 : 1;
            wrong += lowerBound(made.tree, entry, 0) == 0 ? 0 : 1;
        }
        EXPECT_EQ(wrong, 0U) << rowOf(length);
        EXPECT_EQ(std::count(made.memory.begin(), made.memory.end(), 0),
                  static_cast<std::ptrdiff_t>(made.memory.size()));
    }
}

TEST_F(Maxima, FindTheOnlyEntryFromWhereItIsAndFromBeforeButNotFromBehind)
{
    for (const uint32_t length : kLengths) {
        const std::vector<uint32_t> places = placesOf(length);
        Tree made(length);
        for (const uint32_t entry : places) {
            setBound(made.tree, entry, 1);
            for (const uint32_t from : places) {
                ASSERT_EQ(firstAtLeast(made.tree, 1, from), from <= entry ? entry : kNoEntry)
                    << rowOf(length) << ", " << entry << " from " << from;
            }
            lowerBound(made.tree, entry, 0);
        }
    }
}

TEST_F(Maxima, FindTheOnlyEntryAsTheLastBeforeWhatIsBehindIt)
{
    for (const uint32_t length : kLengths) {
        const std::vector<uint32_t> places = placesOf(length);
        Tree made(length);
        for (const uint32_t entry : places) {
            setBound(made.tree, entry, 1);
            for (const uint32_t before : places) {
                ASSERT_EQ(lastBefore(made.tree, before), entry < before ? entry : kNoEntry)
                    << rowOf(length) << ", " << entry << " before " << before;
            }
            lowerBound(made.tree, entry, 0);
        }
    }
}

TEST_F(Maxima, FindABoundOfTheNeedAndNoneThatIsOneBelow)
{
    for (const uint32_t length : kLengths) {
        for (const Bound bound : {1, 2, 64, 65, kLarge - 1, kLarge}) {
            Tree made(length);
            setBound(made.tree, length / 2, bound);
            EXPECT_EQ(firstAtLeast(made.tree, bound, 0), length / 2) << rowOf(length);
            EXPECT_EQ(firstAtLeast(made.tree, 1, 0), length / 2) << rowOf(length);
            EXPECT_EQ(firstAtLeast(made.tree, bound + 1, 0), kNoEntry) << rowOf(length);
        }
    }
}

TEST_F(Maxima, FindTheFirstOfEqualBounds)
{
    for (const uint32_t length : kLengths) {
        Tree made(length);
        Row row(length);
        const std::vector<uint32_t> places = placesOf(length);
        for (const uint32_t place : places) {
            setBound(made.tree, place, 12);
            row.bounds[place] = 12;
        }
        for (const uint32_t from : places) {
            EXPECT_EQ(firstAtLeast(made.tree, 12, from), from) << rowOf(length);
            EXPECT_EQ(firstAtLeast(made.tree, 12, from + 1), row.first(12, from + 1))
                << rowOf(length);
        }
    }
}

TEST_F(Maxima, PassEntriesThatAreTooSmall)
{
    for (const uint32_t length : {16U, 17U, 257U, 4097U, 70'000U}) {
        Tree made(length);
        for (uint32_t entry = 0; entry < length; ++entry) {
            setBound(made.tree, entry, entry == length - 1 ? 6 : 5);
        }
        EXPECT_EQ(firstAtLeast(made.tree, 5, 0), 0U);
        EXPECT_EQ(firstAtLeast(made.tree, 6, 0), length - 1);
        EXPECT_EQ(firstAtLeast(made.tree, 6, 1), length - 1);
        EXPECT_EQ(firstAtLeast(made.tree, 7, 0), kNoEntry);
    }
}

TEST_F(Maxima, FindNothingFromBehindTheRow)
{
    for (const uint32_t length : kLengths) {
        Tree made(length);
        for (const uint32_t entry : placesOf(length)) {
            setBound(made.tree, entry, 3);
        }
        for (const uint32_t from : {length, length + 1, length + 15, length + 16, length + 32}) {
            EXPECT_EQ(firstAtLeast(made.tree, 1, from), kNoEntry) << rowOf(length) << " " << from;
        }
    }
}

TEST_F(Maxima, HaveNothingBeforeTheFirstEntry)
{
    for (const uint32_t length : kLengths) {
        Tree made(length);
        setBound(made.tree, 0, 3);
        EXPECT_EQ(lastBefore(made.tree, 0), kNoEntry) << rowOf(length);
    }
}

TEST_F(Maxima, TakeTheLastOfSeveralEntries)
{
    for (const uint32_t length : kLengths) {
        Tree made(length);
        Row row(length);
        for (uint32_t entry = 0; entry < length; entry += 1 + entry / 3) {
            setBound(made.tree, entry, entry % 2 == 0 ? 1 : kLarge);
            row.bounds[entry] = 1;
        }
        for (const uint32_t before : placesOf(length)) {
            EXPECT_EQ(lastBefore(made.tree, before), row.last(before)) << rowOf(length);
        }
    }
}

// --- Raising

TEST_F(Maxima, RiseOnEveryLevelWithAnEntry)
{
    for (const uint32_t length : kLengths) {
        Tree made(length);
        for (const uint32_t entry : placesOf(length)) {
            setBound(made.tree, entry, static_cast<Bound>(entry + 1));
        }
        EXPECT_TRUE(made.isExact()) << rowOf(length);
        EXPECT_EQ(largestBound(made.tree), static_cast<Bound>(length)) << rowOf(length);
    }
}

TEST_F(Maxima, KeepALargerBoundAboveASmallerEntry)
{
    for (const uint32_t length : {2U, 16U, 17U, 257U, 4097U}) {
        Tree made(length);
        setBound(made.tree, 0, 9);
        setBound(made.tree, 1, 4);
        EXPECT_EQ(made.tree.row[1], 4);
        EXPECT_EQ(largestBound(made.tree), 9);
        EXPECT_TRUE(made.isExact()) << rowOf(length);
    }
}

TEST_F(Maxima, RaiseAnEntryThatIsSmallerAndNoOther)
{
    for (const uint32_t length : kLengths) {
        Tree made(length);
        const uint32_t entry = length / 2;
        raiseBound(made.tree, entry, 5);
        EXPECT_EQ(made.tree.row[entry], 5) << rowOf(length);
        raiseBound(made.tree, entry, 5);
        raiseBound(made.tree, entry, 4);
        EXPECT_EQ(made.tree.row[entry], 5) << rowOf(length);
        raiseBound(made.tree, entry, 6);
        EXPECT_EQ(made.tree.row[entry], 6) << rowOf(length);
        EXPECT_TRUE(made.isExact()) << rowOf(length);
    }
}

// --- Lowering

TEST_F(Maxima, TellTheNewLargestWhenTheLargestIsLowered)
{
    for (const uint32_t length : kLengths) {
        Tree made(length);
        const uint32_t entry = length - 1;
        setBound(made.tree, entry, 90);
        EXPECT_EQ(lowerBound(made.tree, entry, 40), 40) << rowOf(length);
        EXPECT_EQ(largestBound(made.tree), 40) << rowOf(length);
        EXPECT_EQ(lowerBound(made.tree, entry, 0), 0) << rowOf(length);
        EXPECT_EQ(largestBound(made.tree), 0) << rowOf(length);
    }
}

TEST_F(Maxima, TellTheOneThatIsTheLargestThen)
{
    for (const uint32_t length : {2U, 15U, 16U, 17U, 257U, 4097U, 70'000U}) {
        Tree made(length);
        setBound(made.tree, 0, 30);
        setBound(made.tree, length - 1, 90);
        EXPECT_EQ(lowerBound(made.tree, length - 1, 10), 30) << rowOf(length);
    }
}

TEST_F(Maxima, TellThatNothingChangedWhenTheEntryWasNotTheLargestOfItsNode)
{
    for (const uint32_t length : {17U, 257U, 4097U, 70'000U}) {
        Tree made(length);
        setBound(made.tree, 3, 30);
        setBound(made.tree, 4, 20);
        EXPECT_EQ(lowerBound(made.tree, 4, 10), kUnchanged) << rowOf(length);
        EXPECT_EQ(made.tree.row[4], 10);
        EXPECT_TRUE(made.isExact()) << rowOf(length);
    }
}

TEST_F(Maxima, TellThatNothingChangedWhenAnotherNodeHasTheLargest)
{
    for (const uint32_t length : {257U, 4097U, 70'000U}) {
        Tree made(length);
        setBound(made.tree, 0, 30);
        setBound(made.tree, 16, 20);
        EXPECT_EQ(lowerBound(made.tree, 16, 10), kUnchanged) << rowOf(length);
        EXPECT_EQ(largestBound(made.tree), 30);
        EXPECT_TRUE(made.isExact()) << rowOf(length);
    }
}

TEST_F(Maxima, StayWhatTheyAreWhenAnEqualOneIsLeft)
{
    for (const uint32_t length : {2U, 16U, 17U, 257U, 4097U}) {
        Tree made(length);
        setBound(made.tree, 0, 8);
        setBound(made.tree, length - 1, 8);
        const Bound told = lowerBound(made.tree, 0, 2);
        EXPECT_TRUE(told == 8 || told == kUnchanged) << rowOf(length);
        EXPECT_EQ(largestBound(made.tree), 8);
        EXPECT_TRUE(made.isExact()) << rowOf(length);
    }
}

TEST_F(Maxima, AreLoweredToTheLeastOnEveryLevel)
{
    for (const uint32_t length : {16U, 17U, 255U, 256U, 257U, 4096U, 4097U}) {
        Tree made(length);
        const std::vector<uint32_t> places = placesOf(length);
        for (const uint32_t entry : places) {
            setBound(made.tree, entry, static_cast<Bound>(entry + 10));
        }
        for (const uint32_t entry : places) {
            lowerBound(made.tree, entry, static_cast<Bound>(entry % 10));
            ASSERT_TRUE(made.isExact()) << rowOf(length) << ", entry " << entry;
        }
    }
}

// --- Bounds that are too large

TEST_F(Maxima, LeadNowhereWhenAllThatIsLeftIsTooSmall)
{
    for (const uint32_t length : {2U, 16U, 17U, 257U, 4097U, 70'000U}) {
        Tree made(length);
        setBound(made.tree, length - 1, 90);
        made.tree.row[length - 1] = 40;
        EXPECT_EQ(firstAtLeast(made.tree, 41, 0), kNoEntry) << rowOf(length);
        EXPECT_EQ(largestBound(made.tree), 40) << rowOf(length);
        EXPECT_TRUE(made.isExact()) << rowOf(length);
        EXPECT_EQ(firstAtLeast(made.tree, 40, 0), length - 1) << rowOf(length);
    }
}

TEST_F(Maxima, LeadOnToWhatIsBehindAnEntryThatBecameTooSmall)
{
    for (const uint32_t length : {17U, 257U, 4097U, 70'000U}) {
        Tree made(length);
        setBound(made.tree, 0, 90);
        setBound(made.tree, length - 1, 70);
        made.tree.row[0] = 40;
        EXPECT_EQ(firstAtLeast(made.tree, 50, 0), length - 1) << rowOf(length);
        EXPECT_TRUE(made.isExact()) << rowOf(length);
        EXPECT_EQ(largestBound(made.tree), 70) << rowOf(length);
    }
}

TEST_F(Maxima, AreLoweredOnTheWayFromTheMiddleOfARow)
{
    Tree made(4097);
    // One in the node in which the search begins, one in the next node, one far behind.
    for (const uint32_t entry : {1003U, 1010U, 3000U}) {
        setBound(made.tree, entry, 90);
        made.tree.row[entry] = 40;
    }
    EXPECT_EQ(firstAtLeast(made.tree, 50, 1001), kNoEntry);
    for (const uint32_t entry : {1003U, 1010U, 3000U}) {
        EXPECT_EQ(made.level(1)[entry / 16], 40) << entry;
        EXPECT_EQ(made.level(2)[entry / 256], 40) << entry;
    }
    EXPECT_EQ(made.level(3)[0], 40);
    EXPECT_EQ(checkMaxTree(made.tree), 0U);
    EXPECT_EQ(firstAtLeast(made.tree, 40, 1001), 1003U);
    EXPECT_EQ(firstAtLeast(made.tree, 40, 1004), 1010U);
    EXPECT_EQ(firstAtLeast(made.tree, 40, 1011), 3000U);
}

TEST_F(Maxima, AreNotLoweredBelowAnEntryBeforeTheBeginningOfTheSearch)
{
    Tree made(4097);
    setBound(made.tree, 1000, 80);
    setBound(made.tree, 1003, 90);
    made.tree.row[1003] = 40;
    EXPECT_EQ(firstAtLeast(made.tree, 50, 1001), kNoEntry);
    EXPECT_EQ(made.level(1)[1000 / 16], 80);
    EXPECT_EQ(firstAtLeast(made.tree, 50, 0), 1000U);
    EXPECT_EQ(checkMaxTree(made.tree), 0U);
}

TEST_F(Maxima, BecomeZeroWithTheLastEntryAlsoWhereTheyWereTooLarge)
{
    for (const uint32_t length : {17U, 257U, 4097U, 70'000U}) {
        Tree made(length);
        for (const uint32_t entry : {1U, 5U}) {
            setBound(made.tree, entry, 90);
            made.tree.row[entry] = 40;
        }
        lowerBound(made.tree, 1, 0);
        EXPECT_EQ(checkMaxTree(made.tree), 0U) << rowOf(length);
        EXPECT_EQ(lowerBound(made.tree, 5, 0), 0) << rowOf(length);
        EXPECT_EQ(std::count(made.memory.begin(), made.memory.end(), 0),
                  static_cast<std::ptrdiff_t>(made.memory.size()))
            << rowOf(length);
    }
}

TEST_F(Maxima, StayAboveZeroWhileAnEntryIs)
{
    for (const uint32_t length : {17U, 257U, 4097U, 70'000U}) {
        Tree made(length);
        for (uint32_t entry = 0; entry < 16; ++entry) {
            setBound(made.tree, entry, 90);
            made.tree.row[entry] = 1;
        }
        for (uint32_t entry = 0; entry < 15; ++entry) {
            lowerBound(made.tree, entry, 0);
            ASSERT_EQ(checkMaxTree(made.tree), 0U) << rowOf(length) << ", entry " << entry;
            ASSERT_EQ(lastBefore(made.tree, 16), 15U) << rowOf(length) << ", entry " << entry;
        }
        EXPECT_EQ(firstAtLeast(made.tree, 1, 0), 15U);
    }
}

// --- The checker

TEST_F(MaximaCheck, PassesBoundsThatAreTooLarge)
{
    Tree made(4097);
    setBound(made.tree, 2000, 90);
    made.tree.row[2000] = 1;
    made.level(1)[2000 / 16] = 50;
    EXPECT_EQ(checkMaxTree(made.tree), 0U);
}

TEST_F(MaximaCheck, SeesABoundThatIsSmallerThanOneBelowIt)
{
    for (const uint32_t length : {17U, 257U, 4097U}) {
        for (std::size_t level = 1; level < lengthsOfLevels(length).size(); ++level) {
            for (const uint32_t entry : placesOf(length)) {
                Tree made(length);
                setBound(made.tree, entry, 90);
                made.level(level)[entry >> (4 * level)] = 89;
                EXPECT_GT(checkMaxTree(made.tree), 0U) << rowOf(length) << ", " << entry;
            }
        }
    }
}

TEST_F(MaximaCheck, SeesABoundOfZeroAboveOneThatIsNot)
{
    for (const uint32_t length : {17U, 257U, 4097U}) {
        Tree made(length);
        setBound(made.tree, length - 1, 90);
        made.level(1)[(length - 1) / 16] = 0;
        EXPECT_GT(checkMaxTree(made.tree), 0U) << rowOf(length);
    }
}

TEST_F(MaximaCheck, SeesABoundAboveZeroOverNothing)
{
    for (const uint32_t length : {17U, 257U, 4097U}) {
        for (std::size_t level = 1; level < lengthsOfLevels(length).size(); ++level) {
            Tree made(length);
            made.level(level)[0] = 1;
            EXPECT_GT(checkMaxTree(made.tree), 0U) << rowOf(length) << ", level " << level;
        }
    }
}

TEST_F(MaximaCheck, SeesWhatStandsBehindTheEndOfALevel)
{
    for (const uint32_t length : {2U, 15U, 17U, 257U, 4097U}) {
        const std::vector<uint32_t> levels = lengthsOfLevels(length);
        for (std::size_t level = 0; level < levels.size(); ++level) {
            Tree made(length);
            setBound(made.tree, length - 1, 90);
            for (std::size_t entry = levels[level]; entry < wholeNodes(levels[level]); ++entry) {
                for (const Bound bound : {1, -1}) {
                    made.level(level)[entry] = bound;
                    EXPECT_GT(checkMaxTree(made.tree), 0U) << rowOf(length) << ", " << entry;
                }
                made.level(level)[entry] = 0;
            }
            EXPECT_EQ(checkMaxTree(made.tree), 0U);
        }
    }
}

TEST_F(MaximaCheck, SeesABoundBelowZero)
{
    for (const uint32_t length : kLengths) {
        Tree made(length);
        made.tree.row[length / 2] = -1;
        EXPECT_GT(checkMaxTree(made.tree), 0U) << rowOf(length);
    }
}

TEST_F(MaximaCheck, SeesATopThatIsNotTheTopmostLevel)
{
    for (const uint32_t length : {2U, 17U, 257U}) {
        Tree made(length);
        made.tree.top += kFanOut;
        EXPECT_GT(checkMaxTree(made.tree), 0U) << rowOf(length);
    }
}

// --- Random runs

struct Run {
    uint32_t length;
    long oneOf;         // as many of the operations are made
    bool writesTheRow;  // directly, which leaves bounds above too large
};

void PrintTo(const Run& run, std::ostream* out)
{
    *out << rowOf(run.length);
}

class MaximaRandom : public rmtest::RmTest, public ::testing::WithParamInterface<Run>
{
  protected:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }

    // Small ones most of the time, so that many are equal.
    Bound anyBound()
    {
        const uint32_t kind = below(8);
        return static_cast<Bound>(kind == 0 ? 1 + below(kLarge) : 1 + below(kind < 4 ? 6 : 200));
    }

    void change(Tree* made, Row* row)
    {
        const uint32_t entry = below(4) == 0 ? row->last(made->tree.length) % made->tree.length
                                             : below(made->tree.length);
        Bound& bound = row->bounds[entry];
        const uint32_t kind = below(GetParam().writesTheRow ? 5 : 4);
        if (kind == 0) {
            bound = std::max(bound, anyBound());
            setBound(made->tree, entry, bound);
        } else if (kind == 1) {
            const Bound least = anyBound();
            bound = std::max(bound, least);
            raiseBound(made->tree, entry, least);
        } else if (kind < 4) {
            const Bound before = row->largest();
            bound = kind == 2 ? 0 : std::min(bound, anyBound());
            const Bound told = lowerBound(made->tree, entry, bound);
            ASSERT_TRUE(told == largestBound(made->tree) || told == kUnchanged);
            ASSERT_TRUE(GetParam().writesTheRow || told != kUnchanged || row->largest() == before);
        } else if (bound > 1) {
            bound = 1 + static_cast<Bound>(below(static_cast<uint32_t>(bound)));
            made->tree.row[entry] = bound;
        }
    }

    void ask(const Tree& made, const Row& row)
    {
        const uint32_t length = made.tree.length;
        const Bound need = below(3) == 0 ? std::max(row.largest(), 1) : anyBound();
        const uint32_t from = below(2) == 0 ? 0 : below(length + 1);
        const uint32_t before = below(length);
        ASSERT_EQ(firstAtLeast(made.tree, need, from), row.first(need, from))
            << "at least " << need << " from " << from;
        ASSERT_EQ(lastBefore(made.tree, before), row.last(before)) << "before " << before;
    }

  private:
    std::mt19937_64 random_{rmtest::seedOfThisRun()};
};

TEST_P(MaximaRandom, AgreeWithAPlainRowAfterEveryOperation)
{
    const uint32_t length = GetParam().length;
    const long operations = rmtest::operationsOfThisRun(100'000) / GetParam().oneOf;
    Tree made(length);
    Row row(length);
    for (long done = 0; done < operations; ++done) {
        SCOPED_TRACE("seed " + std::to_string(rmtest::seedOfThisRun()) + ", operation " +
                     std::to_string(done));
        change(&made, &row);
        ask(made, row);
        ASSERT_TRUE(std::equal(row.bounds.begin(), row.bounds.end(), made.tree.row));
        ASSERT_EQ(checkMaxTree(made.tree), 0U);
        ASSERT_GE(largestBound(made.tree), row.largest());
        ASSERT_TRUE(GetParam().writesTheRow || length > 300 || made.isExact());
        ASSERT_FALSE(HasFatalFailure());
    }
}

INSTANTIATE_TEST_SUITE_P(Of, MaximaRandom,
                         ::testing::Values(Run{1, 1, true}, Run{2, 1, true}, Run{16, 1, true},
                                           Run{17, 1, true}, Run{17, 1, false}, Run{256, 4, false},
                                           Run{257, 4, true}, Run{257, 4, false},
                                           Run{4097, 50, true}, Run{70'000, 1000, true}),
                         [](const ::testing::TestParamInfo<Run>& run) {
                             return std::to_string(run.param.length) + (run.param.writesTheRow
                                                                            ? "WithBoundsTooLarge"
                                                                            : "WithExactBounds");
                         });
}  // namespace
