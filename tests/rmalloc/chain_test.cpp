// The chain of a tag's segments, tested alone: slots in order, gaps, longer and shorter rows, and
// what it keeps in the segments themselves.
//
// The segments stand in no page table and hold no live block: each is one free block, of which a
// case cuts what it wants.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/segments.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

namespace
{
using rmalloc::Bound;
using rmalloc::Chain;
using rmalloc::checkChain;
using rmalloc::FreeBlock;
using rmalloc::Segment;
using rmalloc::SegmentMap;
using rmalloc::TagRecord;
using rmtest::Call;
using rmtest::kForever;
using rmtest::ScopedFault;

constexpr uint32_t kUnits = 9;  // of a segment of which nothing else is asked

class ChainTest : public rmtest::HeapTest
{
  protected:
    void TearDown() override
    {
        while (!order_.empty()) {
            remove(order_.size() - 1);
        }
        rmalloc::emptyChain(&chain_);
        HeapTest::TearDown();
    }

    // A segment that is in no chain yet.
    static SegmentMap* makeSegment(uint32_t units)
    {
        SegmentMap* map = rmalloc::newSegment(rmalloc::kSegmentHeader + units * 8, units);
        Segment* segment = map->segment;
        segment->next = nullptr;
        segment->units = units;
        segment->blocks = 0;
        segment->anchor = {1, 0};
        *blockAt(segment, 1) = {0, units};
        rmalloc::drawEmpty(map);
        return map;
    }

    SegmentMap* add(uint32_t units = kUnits)
    {
        SegmentMap* map = makeSegment(units);
        EXPECT_TRUE(rmalloc::reserveSlot(&chain_));
        rmalloc::append(&chain_, &record_, map);
        rmalloc::noteFree(&chain_, map, units);
        order_.push_back(map);
        return map;
    }

    void addMany(int count)
    {
        for (int i = 0; i < count; ++i) {
            add();
        }
    }

    void remove(std::size_t n)
    {
        SegmentMap* map = order_[n];
        rmalloc::unlink(&chain_, &record_, map);
        rmalloc::freeSegment(map);
        order_.erase(order_.begin() + static_cast<std::ptrdiff_t>(n));
    }

    void removeTo(std::size_t count)
    {
        while (order_.size() > count) {
            remove(order_.size() - 1);
        }
    }

    // Both chains, the segments' own and that of their maps, are what was added and not removed.
    void expectOrder() const
    {
        const SegmentMap* map = chain_.first;
        const SegmentMap* previous = nullptr;
        const Segment* segment = record_.segments;
        for (const SegmentMap* expected : order_) {
            ASSERT_EQ(map, expected);
            ASSERT_EQ(map->previous, previous);
            ASSERT_EQ(map->segment, segment);
            ASSERT_EQ(chain_.slots[map->slot], map);
            ASSERT_TRUE(previous == nullptr || previous->slot < map->slot);
            previous = map;
            map = map->next;
            segment = segment->next;
        }
        EXPECT_EQ(map, nullptr);
        EXPECT_EQ(segment, nullptr);
        EXPECT_EQ(chain_.last, previous);
        EXPECT_EQ(chain_.segments, order_.size());
        EXPECT_EQ(checkChain(&chain_, &record_), 0U);
    }

    // Cuts the only free block of the segment from `units` to less.
    void cut(SegmentMap* map, uint32_t units, uint32_t need)
    {
        const Bound known = chain_.bounds.row[map->slot];
        const Bound largest = rmalloc::cutFree(map, {map, 1, units}, need, known);
        if (units == need) {
            map->segment->anchor.word1 = 0;
        } else {
            blockAt(map->segment, 1)->units = units - need;
        }
        if (largest < known) {
            lowerBound(chain_.bounds, map->slot, largest);
        }
    }

    // The number, in the chain, of the first segment with room; -1.
    int firstWithRoom(uint32_t need, uint32_t from = 0)
    {
        const FreeBlock free = firstFit(&chain_, need, from);
        const auto at = std::find(order_.begin(), order_.end(), free.map);
        return at == order_.end() ? -1 : static_cast<int>(at - order_.begin());
    }

    Chain chain_{};
    TagRecord record_{};
    std::vector<SegmentMap*> order_;
};

class ChainOrder : public ChainTest
{
};

class ChainSlots : public ChainTest
{
};

class ChainWithoutMemory : public ChainTest
{
};

class ChainFirstFit : public ChainTest
{
};

class CheckChain : public ChainTest
{
};

class ChainsOfTags : public rmtest::HeapTest
{
};

// --- Order

TEST_F(ChainOrder, OfNothingIsEmpty)
{
    expectOrder();
    EXPECT_EQ(chain_.bounds.length, 0U);
}

TEST_F(ChainOrder, OfOneSegmentIsThatSegment)
{
    add();
    expectOrder();
}

TEST_F(ChainOrder, IsThatOfAppendingThroughEveryLengthOfTheRow)
{
    for (int i = 0; i < 300; ++i) {
        add();
        expectOrder();
    }
}

TEST_F(ChainOrder, OfManyThousandsIsThatOfAppending)
{
    addMany(20'000);
    expectOrder();
}

TEST_F(ChainOrder, LosesItsHead)
{
    addMany(4);
    remove(0);
    expectOrder();
}

TEST_F(ChainOrder, LosesOneInTheMiddle)
{
    addMany(4);
    remove(2);
    expectOrder();
    remove(1);
    expectOrder();
}

TEST_F(ChainOrder, LosesItsEnd)
{
    addMany(4);
    remove(3);
    expectOrder();
}

TEST_F(ChainOrder, LosesItsOnlySegmentAndIsBegunAnew)
{
    add();
    remove(0);
    expectOrder();
    add();
    expectOrder();
}

TEST_F(ChainOrder, GoesOnBehindTheLastOneAfterTheEndWasLost)
{
    addMany(4);
    remove(3);
    addMany(2);
    expectOrder();
}

TEST_F(ChainOrder, IsKeptFromEitherEndDownToNothing)
{
    for (const bool fromHead : {true, false}) {
        addMany(400);
        while (!order_.empty()) {
            remove(fromHead ? 0 : order_.size() - 1);
            expectOrder();
        }
    }
}

TEST_F(ChainOrder, IsForgottenAsAWhole)
{
    addMany(40);
    rmalloc::emptyChain(&chain_);
    EXPECT_EQ(chain_.first, nullptr);
    EXPECT_EQ(chain_.last, nullptr);
    EXPECT_EQ(chain_.slots, nullptr);
    EXPECT_EQ(chain_.bounds.length, 0U);
    EXPECT_EQ(chain_.segments, 0U);
    EXPECT_EQ(chain_.place.units, 0U);
    for (SegmentMap* map : order_) {
        rmalloc::freeSegment(map);
    }
    order_.clear();
    record_.segments = nullptr;
}

// --- Slots

TEST_F(ChainSlots, OfASingleSegmentAreOne)
{
    add();
    EXPECT_EQ(chain_.bounds.length, 1U);
    EXPECT_EQ(chain_.used, 1U);
}

TEST_F(ChainSlots, OfASegmentThatComesAndGoesNeedNoMemory)
{
    const int callocs = rmtest::callCount(Call::kCalloc);
    for (int i = 0; i < 10; ++i) {
        add();
        EXPECT_EQ(chain_.bounds.length, 1U);
        remove(0);
        EXPECT_EQ(chain_.bounds.length, 0U);
    }
    EXPECT_LE(rmtest::callCount(Call::kCalloc), callocs + 1);  // the first map, which is kept
    add();
    expectOrder();
}

TEST_F(ChainSlots, OfTheSecondSegmentAreSixteen)
{
    addMany(2);
    EXPECT_EQ(chain_.bounds.length, 16U);
    addMany(14);
    EXPECT_EQ(chain_.bounds.length, 16U);
    EXPECT_EQ(chain_.used, 16U);
}

TEST_F(ChainSlots, AreTwiceTheSegmentsWhenTheyRunOut)
{
    addMany(17);
    EXPECT_EQ(chain_.bounds.length, 32U);
    addMany(16);
    EXPECT_EQ(chain_.bounds.length, 64U);
    expectOrder();
}

TEST_F(ChainSlots, OfALostEndAreUsedAgain)
{
    addMany(16);
    remove(15);
    EXPECT_EQ(chain_.used, 15U);
    add();
    EXPECT_EQ(chain_.used, 16U);
    EXPECT_EQ(chain_.bounds.length, 16U);
    expectOrder();
}

TEST_F(ChainSlots, OfThoseThatAreLostStayEmptyAtFirst)
{
    addMany(10);
    remove(3);
    remove(3);
    EXPECT_EQ(chain_.used, 10U);
    EXPECT_EQ(chain_.slots[3], nullptr);
    EXPECT_EQ(chain_.slots[4], nullptr);
    EXPECT_EQ(chain_.bounds.row[3], 0);
    EXPECT_EQ(chain_.bounds.row[4], 0);
    EXPECT_EQ(order_[3]->slot, 5U);
    expectOrder();
}

TEST_F(ChainSlots, MoveTogetherWhenTheyRunOut)
{
    addMany(16);
    remove(0);
    remove(7);
    remove(7);
    add();
    EXPECT_EQ(chain_.bounds.length, 26U);
    EXPECT_EQ(chain_.used, 14U);
    for (uint32_t i = 0; i < 14; ++i) {
        EXPECT_EQ(order_[i]->slot, i);
    }
    expectOrder();
}

// The row of a chain in which the oldest always goes moves together now and then, and stays short.
TEST_F(ChainSlots, StayFewWhileSegmentsComeAndGo)
{
    addMany(5);
    for (int i = 0; i < 1000; ++i) {
        add();
        remove(0);
        ASSERT_LE(chain_.bounds.length, 16U);
    }
    expectOrder();
}

TEST_F(ChainSlots, BecomeFewerWhenMostAreEmpty)
{
    addMany(200);
    EXPECT_EQ(chain_.bounds.length, 256U);
    removeTo(32);
    EXPECT_EQ(chain_.bounds.length, 256U);
    remove(0);
    EXPECT_EQ(chain_.bounds.length, 62U);
    EXPECT_EQ(chain_.used, 31U);
    expectOrder();
}

TEST_F(ChainSlots, NeverBecomeFewerThanSixteen)
{
    addMany(200);
    removeTo(0);
    EXPECT_EQ(chain_.bounds.length, 16U);
    EXPECT_EQ(chain_.used, 0U);
    expectOrder();
    addMany(16);
    EXPECT_EQ(chain_.bounds.length, 16U);
    expectOrder();
}

TEST_F(ChainSlots, AreAtMostEightTimesTheSegmentsThatAreLeft)
{
    addMany(3000);
    std::mt19937 random(7);
    while (order_.size() > 2) {
        remove(random() % order_.size());
        ASSERT_LE(chain_.bounds.length, std::max<std::size_t>(16, order_.size() * 8 + 7));
    }
    expectOrder();
}

// --- Without memory

// The only segment of a chain brings its slot with it.
TEST_F(ChainWithoutMemory, NoneIsNeededForTheFirstSlot)
{
    ScopedFault fault({.call = Call::kCalloc, .error = ENOMEM, .times = kForever});
    EXPECT_TRUE(rmalloc::reserveSlot(&chain_));
    EXPECT_EQ(fault.hits(), 0);
    EXPECT_EQ(chain_.bounds.length, 0U);
}

TEST_F(ChainWithoutMemory, ASecondSlotIsNotHad)
{
    add();
    for (const int skip : {0, 1}) {
        ScopedFault fault({.call = Call::kCalloc, .error = ENOMEM, .skip = skip});
        EXPECT_FALSE(rmalloc::reserveSlot(&chain_));
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(chain_.bounds.length, 1U);
        expectOrder();
        EXPECT_EQ(firstWithRoom(kUnits), 0);
    }
    add();
    expectOrder();
}

TEST_F(ChainWithoutMemory, AFullRowStaysAsItIs)
{
    addMany(32);
    for (const int skip : {0, 1}) {
        ScopedFault fault({.call = Call::kCalloc, .error = ENOMEM, .skip = skip});
        EXPECT_FALSE(rmalloc::reserveSlot(&chain_));
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(chain_.bounds.length, 32U);
        expectOrder();
        EXPECT_EQ(firstWithRoom(kUnits), 0);
    }
    add();
    expectOrder();
}

TEST_F(ChainWithoutMemory, NoneIsNeededWhereASlotIsFree)
{
    addMany(3);
    ScopedFault fault({.call = Call::kCalloc, .error = ENOMEM, .times = kForever});
    EXPECT_TRUE(rmalloc::reserveSlot(&chain_));
    EXPECT_EQ(fault.hits(), 0);
}

TEST_F(ChainWithoutMemory, AMostlyEmptyRowStaysAsLongAsItIs)
{
    addMany(200);
    for (const int skip : {0, 1}) {
        ScopedFault fault(
            {.call = Call::kCalloc, .error = ENOMEM, .skip = skip, .times = kForever});
        removeTo(skip == 0 ? 20 : 19);
        EXPECT_GT(fault.hits(), 0);
        EXPECT_EQ(chain_.bounds.length, 256U);
        expectOrder();
    }
    remove(0);
    EXPECT_EQ(chain_.bounds.length, 36U);
    expectOrder();
}

TEST_F(ChainWithoutMemory, ARowOfChainsIsNull)
{
    ScopedFault fault({.call = Call::kCalloc, .error = ENOMEM});
    EXPECT_EQ(rmalloc::newChains(40), nullptr);
}

// --- First fit

TEST_F(ChainFirstFit, IsNoneInAChainThatNeverHadASegment)
{
    EXPECT_EQ(firstFit(&chain_, 1, 0).map, nullptr);
}

TEST_F(ChainFirstFit, IsNoneInAChainThatHasLostThemAll)
{
    for (const int count : {1, 20, 300}) {
        addMany(count);
        removeTo(0);
        EXPECT_EQ(firstFit(&chain_, 1, 0).map, nullptr);
    }
}

TEST_F(ChainFirstFit, IsInTheFirstSegmentThatIsLargeEnough)
{
    for (const uint32_t units : {3U, 9U, 5U, 9U, 200U}) {
        add(units);
    }
    EXPECT_EQ(firstWithRoom(1), 0);
    EXPECT_EQ(firstWithRoom(3), 0);
    EXPECT_EQ(firstWithRoom(4), 1);
    EXPECT_EQ(firstWithRoom(9), 1);
    EXPECT_EQ(firstWithRoom(10), 4);
    EXPECT_EQ(firstWithRoom(200), 4);
    EXPECT_EQ(firstWithRoom(201), -1);
}

TEST_F(ChainFirstFit, BeginsAtTheSlotThatIsAskedFor)
{
    addMany(20);
    remove(5);
    EXPECT_EQ(firstWithRoom(kUnits, 4), 4);
    EXPECT_EQ(firstWithRoom(kUnits, 5), 5);
    EXPECT_EQ(firstWithRoom(kUnits, order_.back()->slot), 18);
    EXPECT_EQ(firstWithRoom(kUnits, order_.back()->slot + 1), -1);
}

TEST_F(ChainFirstFit, IsNotInWhatIsLost)
{
    add(100);
    add(3);
    add(100);
    remove(0);
    EXPECT_EQ(firstWithRoom(50), 1);
    remove(1);
    EXPECT_EQ(firstWithRoom(50), -1);
}

TEST_F(ChainFirstFit, LowersABoundThatItHasFoundTooLarge)
{
    addMany(3);
    raiseBound(chain_.bounds, 0, 500);
    raiseBound(chain_.bounds, 1, 500);
    EXPECT_EQ(firstWithRoom(300), -1);
    EXPECT_EQ(chain_.bounds.row[0], static_cast<Bound>(kUnits));
    EXPECT_EQ(chain_.bounds.row[1], static_cast<Bound>(kUnits));
    expectOrder();
}

TEST_F(ChainFirstFit, KnowsOfFreeBlocksThatItIsToldOf)
{
    SegmentMap* map = add(70);
    cut(map, 70, 66);
    EXPECT_EQ(firstWithRoom(5), -1);
    rmalloc::clearEnd(map, 4);
    rmalloc::growFree(map, 1, 70);
    rmalloc::noteFree(&chain_, map, 70);
    EXPECT_EQ(firstWithRoom(70), 0);
}

TEST_F(ChainFirstFit, IsNotMisledByASmallerBlockThatItIsToldOf)
{
    SegmentMap* map = add(70);
    rmalloc::noteFree(&chain_, map, 3);
    EXPECT_EQ(firstWithRoom(70), 0);
}

// Segments come and go, and the free block of each is cut and restored, as a plain walk has it.
class ChainRandom : public ChainTest
{
  protected:
    uint32_t below(std::size_t bound) { return static_cast<uint32_t>(random_() % bound); }

    void come()
    {
        const uint32_t units = 1 + below(below(8) == 0 ? 3000 : 60);
        add(units);
        left_.push_back(units);
    }

    void go(std::size_t n)
    {
        remove(n);
        left_.erase(left_.begin() + static_cast<std::ptrdiff_t>(n));
    }

    void cutSome(std::size_t n)
    {
        if (left_[n] > 1) {
            const uint32_t need = 1 + below(left_[n] - 1);
            cut(order_[n], left_[n], need);
            left_[n] -= need;
        }
    }

    void restore(std::size_t n)
    {
        SegmentMap* map = order_[n];
        for (uint32_t end = left_[n]; end < map->units; ++end) {
            rmalloc::clearEnd(map, end);
        }
        rmalloc::growFree(map, 1, map->units);
        rmalloc::noteFree(&chain_, map, map->units);
        left_[n] = map->units;
    }

    void expectFirst(uint32_t need)
    {
        const auto at =
            std::find_if(left_.begin(), left_.end(), [&](uint32_t units) { return units >= need; });
        EXPECT_EQ(firstWithRoom(need),
                  at == left_.end() ? -1 : static_cast<int>(at - left_.begin()));
    }

    void step(bool growing)
    {
        const uint32_t chance = below(100);
        const std::size_t n = order_.empty() ? 0 : below(order_.size());
        if (order_.empty() || chance < (growing ? 40U : 5U)) {
            come();
        } else if (chance < 45) {
            go(below(4) == 0 ? 0 : n);
        } else if (chance < 70) {
            cutSome(n);
        } else if (chance < 80) {
            restore(n);
        } else {
            expectFirst(1 + below(below(4) == 0 ? 3200 : 70));
        }
    }

    std::mt19937 random_{static_cast<uint32_t>(rmtest::seedOfThisRun(11))};
    std::vector<uint32_t> left_;  // units of the free blocks, in chain order
};

TEST_F(ChainRandom, AgreesWithAWalkOverThousandsOfChanges)
{
    bool growing = true;
    const long operations = rmtest::operationsOfThisRun(40'000);
    for (long i = 0; i < operations && !HasFailure(); ++i) {
        growing = below(1500) == 0 ? !growing : growing;
        step(growing);
        if (i % 64 == 0) {
            expectOrder();
        }
    }
    expectOrder();
}

// --- The checker. What a case changes it puts right again.

TEST_F(CheckChain, SeesALinkBackThatIsWrong)
{
    addMany(3);
    order_[2]->previous = order_[0];
    EXPECT_NE(checkChain(&chain_, &record_), 0U);
    order_[2]->previous = order_[1];
    order_[0]->previous = order_[2];
    EXPECT_NE(checkChain(&chain_, &record_), 0U);
    order_[0]->previous = nullptr;
}

TEST_F(CheckChain, SeesSegmentsThatAreLinkedInAnotherWay)
{
    addMany(3);
    record_.segments = order_[1]->segment;
    EXPECT_NE(checkChain(&chain_, &record_), 0U);
    record_.segments = nullptr;
    EXPECT_NE(checkChain(&chain_, &record_), 0U);
    record_.segments = order_[0]->segment;
    order_[0]->segment->next = order_[2]->segment;
    EXPECT_NE(checkChain(&chain_, &record_), 0U);
    order_[0]->segment->next = nullptr;
    EXPECT_NE(checkChain(&chain_, &record_), 0U);
    order_[0]->segment->next = order_[1]->segment;
}

TEST_F(CheckChain, SeesASegmentBehindTheLastOne)
{
    addMany(2);
    SegmentMap* other = makeSegment(kUnits);
    order_[1]->segment->next = other->segment;
    EXPECT_NE(checkChain(&chain_, &record_), 0U);
    order_[1]->segment->next = nullptr;
    rmalloc::freeSegment(other);
}

TEST_F(CheckChain, SeesAnotherLastOne)
{
    addMany(2);
    chain_.last = order_[0];
    EXPECT_EQ(checkChain(&chain_, &record_), 1U);
    chain_.last = order_[1];
}

TEST_F(CheckChain, SeesAWrongCountOfLargeSegments)
{
    addMany(2);
    add(200);
    ASSERT_EQ(chain_.large, 1U);
    for (const uint32_t count : {0U, 2U}) {
        chain_.large = count;
        EXPECT_NE(checkChain(&chain_, &record_), 0U) << count;
    }
    chain_.large = 1;
    EXPECT_EQ(checkChain(&chain_, &record_), 0U);
}

TEST_F(CheckChain, SeesAWrongCount)
{
    addMany(2);
    for (const uint32_t count : {1U, 3U}) {
        chain_.segments = count;
        EXPECT_EQ(checkChain(&chain_, &record_), 1U);
    }
    chain_.segments = 2;
}

TEST_F(CheckChain, SeesASlotBehindThoseInUse)
{
    addMany(3);
    chain_.used = 2;
    EXPECT_NE(checkChain(&chain_, &record_), 0U);
    chain_.used = 3;
}

TEST_F(CheckChain, SeesSlotsOutOfOrder)
{
    addMany(3);
    std::swap(chain_.slots[1], chain_.slots[2]);
    EXPECT_NE(checkChain(&chain_, &record_), 0U);
    std::swap(order_[1]->slot, order_[2]->slot);
    EXPECT_NE(checkChain(&chain_, &record_), 0U);
    std::swap(chain_.slots[1], chain_.slots[2]);
    std::swap(order_[1]->slot, order_[2]->slot);
}

TEST_F(CheckChain, SeesAnEmptySlotOfASegment)
{
    addMany(3);
    chain_.slots[1] = nullptr;
    EXPECT_NE(checkChain(&chain_, &record_), 0U);
    chain_.slots[1] = order_[1];
}

TEST_F(CheckChain, SeesASegmentInTwoSlots)
{
    addMany(3);
    chain_.slots[5] = order_[1];
    EXPECT_EQ(checkChain(&chain_, &record_), 1U);
    chain_.slots[5] = nullptr;
}

TEST_F(CheckChain, SeesABoundThatIsTooSmall)
{
    addMany(3);
    chain_.bounds.row[1] = kUnits - 1;
    EXPECT_NE(checkChain(&chain_, &record_), 0U);
    chain_.bounds.row[1] = kUnits;
}

TEST_F(CheckChain, LeavesABoundThatIsTooLargeAlone)
{
    addMany(3);
    chain_.bounds.row[1] = kUnits + 1;
    EXPECT_EQ(checkChain(&chain_, &record_), 0U);
}

TEST_F(CheckChain, SeesABoundOfAnEmptySlot)
{
    addMany(3);
    chain_.bounds.row[9] = 1;
    EXPECT_EQ(checkChain(&chain_, &record_), 1U);
    chain_.bounds.row[9] = 0;
}

TEST_F(CheckChain, SeesATreeThatDoesNotHoldAboveTheRow)
{
    addMany(40);
    const Bound sound = chain_.bounds.top[1];
    chain_.bounds.top[1] = kUnits - 1;
    EXPECT_EQ(checkChain(&chain_, &record_), 1U);
    chain_.bounds.top[1] = sound;
}

TEST_F(CheckChain, GoesOnAfterAnEmptyChainThatHasSlots)
{
    addMany(3);
    removeTo(0);
    EXPECT_EQ(checkChain(&chain_, &record_), 0U);
    chain_.first = nullptr;
    chain_.segments = 1;
    EXPECT_EQ(checkChain(&chain_, &record_), 1U);
    chain_.segments = 0;
}

// --- Those of the tag table

const TagRecord* recordOf(Tag tag)
{
    return &rmalloc::tagTable[tag];
}

TEST_F(ChainsOfTags, StandBesideTheTagTableAndGrowWithIt)
{
    const rmtest::Drawn drawn = rmtest::draw("[2] | 1 [3] | [4]");
    const Chain before = rmalloc::chains[drawn.tag];
    EXPECT_EQ(before.segments, 3U);
    while (rm_allocTag(nullptr, RM_NO_LIMIT) < 80) {
    }
    const Chain& after = rmalloc::chains[drawn.tag];
    EXPECT_EQ(after.first, before.first);
    EXPECT_EQ(after.last, before.last);
    EXPECT_EQ(checkChain(&after, recordOf(drawn.tag)), 0U);
    for (const Tag tag : {Tag{39}, Tag{40}, Tag{79}, Tag{80}}) {
        EXPECT_EQ(rmalloc::chains[tag].first, nullptr);
        EXPECT_EQ(rmalloc::chains[tag].bounds.length, 0U);
    }
}

TEST_F(ChainsOfTags, FollowTheSegmentsThatComeAndGo)
{
    const rmtest::Drawn drawn = rmtest::draw("[2] | [3] | [4] | [5]");
    rm_freeMemory(drawn.live[2], drawn.tag);
    rm_freeMemory(drawn.live[0], drawn.tag);
    rm_freeMemory(drawn.live[3], drawn.tag);
    const Chain& chain = rmalloc::chains[drawn.tag];
    EXPECT_EQ(rmtest::layout(drawn.tag), "[3]");
    EXPECT_EQ(chain.first, chain.last);
    EXPECT_EQ(chain.first->segment, recordOf(drawn.tag)->segments);
    EXPECT_EQ(checkChain(&chain, recordOf(drawn.tag)), 0U);
}

TEST_F(ChainsOfTags, AreEmptyWhenTheTagsMemoryHasGone)
{
    const rmtest::Drawn drawn = rmtest::draw("[2] | [3] | [4] | [5]");
    for (const int16_t release : {int16_t{0}, int16_t{1}}) {
        rm_freeTagMemory(drawn.tag, release);
        const Chain& chain = rmalloc::chains[drawn.tag];
        EXPECT_EQ(chain.first, nullptr);
        EXPECT_EQ(chain.slots, nullptr);
        EXPECT_EQ(checkChain(&chain, recordOf(drawn.tag)), 0U);
    }
}

TEST_F(ChainsOfTags, GoWithTheTable)
{
    rmtest::draw("[2] | [3]");
    rm_freeall();
    EXPECT_EQ(rmalloc::chains, nullptr);
}
}  // namespace
