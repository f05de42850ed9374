// One node of a tree of maxima: sixteen bounds that are compared and changed together, in each way
// that there is for it, and wherever the node stands in memory.
#include "tests/support/support.h"

#include "rm/rmalloc/maxtree.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>

#include <gtest/gtest.h>

namespace
{
using rmalloc::Bound;
using rmalloc::kFanOut;
using rmalloc::largestOf;
using rmalloc::setAndGetLargest;

constexpr Bound kLarge = 1 << 29;

// A node at each distance from a multiple of 16 bytes.
class MaximaNode : public rmtest::RmTest, public ::testing::WithParamInterface<uint32_t>
{
  protected:
    MaximaNode() { entries_.fill(kOutside); }

    // What stands around the node has not been written to.
    void TearDown() override
    {
        EXPECT_EQ(std::count(entries_.begin(), entries_.begin() + GetParam(), kOutside),
                  static_cast<std::ptrdiff_t>(GetParam()));
        EXPECT_EQ(std::count(entries_.begin() + GetParam() + kFanOut, entries_.end(), kOutside),
                  static_cast<std::ptrdiff_t>(4 - GetParam()));
        RmTest::TearDown();
    }

    Bound* node() { return entries_.data() + GetParam(); }

    void fill(Bound bound) { std::fill(node(), node() + kFanOut, bound); }

    // The bits of the machine's own way, which must be those of the one for every machine.
    uint32_t atLeast(Bound need)
    {
        const uint32_t bits = rmalloc::atLeast(node(), need);
        EXPECT_EQ(rmalloc::atLeastAnywhere(node(), need), bits);
        return bits;
    }

  private:
    static constexpr Bound kOutside = kLarge + 7;  // larger than any bound of the cases

    alignas(16) std::array<Bound, kFanOut + 4> entries_{};
};

TEST_P(MaximaNode, HasABitForEachEntryThatIsLargeEnough)
{
    for (uint32_t entry = 0; entry < kFanOut; ++entry) {
        for (const Bound bound :
             {1, 63, 64, 65, 255, 256, 0x7FFF, 0x8000, 0xFFFF, 0x10000, kLarge}) {
            fill(0);
            node()[entry] = bound;
            EXPECT_EQ(atLeast(bound), 1U << entry);
            EXPECT_EQ(atLeast(bound + 1), 0U);
            EXPECT_EQ(atLeast(1), 1U << entry);
            EXPECT_EQ(atLeast(0), 0xFFFFU);
        }
    }
}

TEST_P(MaximaNode, HasTheBitsOfAllItsEntriesTogether)
{
    for (uint32_t bits = 0; bits <= 0xFFFF; ++bits) {
        for (uint32_t entry = 0; entry < kFanOut; ++entry) {
            node()[entry] = (bits >> entry & 1) != 0 ? 8 + static_cast<Bound>(entry) : 7;
        }
        ASSERT_EQ(atLeast(8), bits);
    }
}

TEST_P(MaximaNode, HasTheBitsOfBoundsOfAnySize)
{
    std::mt19937 random(static_cast<uint32_t>(rmtest::seedOfThisRun()));
    for (int round = 0; round < 10'000; ++round) {
        for (uint32_t entry = 0; entry < kFanOut; ++entry) {
            node()[entry] = static_cast<Bound>(random() % (1U << random() % 31));
        }
        const Bound need = node()[random() % kFanOut];
        uint32_t bits = 0;
        for (uint32_t entry = 0; entry < kFanOut; ++entry) {
            bits |= node()[entry] >= need ? 1U << entry : 0;
        }
        ASSERT_EQ(atLeast(need), bits);
    }
}

TEST_P(MaximaNode, KnowsItsLargestWhereverItIs)
{
    for (uint32_t entry = 0; entry < kFanOut; ++entry) {
        fill(5);
        EXPECT_EQ(largestOf(node()), 5);
        node()[entry] = kLarge;
        EXPECT_EQ(largestOf(node()), kLarge) << entry;
    }
}

TEST_P(MaximaNode, SetsAnEntryAndGivesTheLargestOfAll)
{
    for (uint32_t entry = 0; entry < kFanOut; ++entry) {
        for (uint32_t other = 0; other < kFanOut; ++other) {
            fill(0);
            node()[entry] = 50;
            node()[other] = other == entry ? 50 : 20;
            EXPECT_EQ(setAndGetLargest(node(), entry, 10), other == entry ? 10 : 20);
            EXPECT_EQ(setAndGetLargest(node(), entry, 30), 30);
            EXPECT_EQ(node()[entry], 30);
            EXPECT_EQ(std::count(node(), node() + kFanOut, 0), other == entry ? 15 : 14);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(At, MaximaNode, ::testing::Range(0U, 5U));
}  // namespace
