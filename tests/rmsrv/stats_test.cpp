// Statistics: counters of events.
#include "frame.h"

#include <cstdint>
#include <limits>
#include <random>
#include <type_traits>

namespace
{
using rmtest::Call;
using rmtest::captureStderr;
using rmtest::ChildResult;
using rmtest::kForever;
using rmtest::Outcome;
using rmtest::outcomeOf;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::ScopedFault;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr uint16_t kDefault = 54;
constexpr uint32_t kLargest = std::numeric_limits<uint32_t>::max();

using Counters = std::vector<uint32_t>;

// All counters, as the host reads them.
Counters counters()
{
    uint16_t count = 12345;
    const uint32_t* first = rm_statRep(&count);
    return first == nullptr ? Counters() : Counters(first, first + count);
}

// Bytes in live blocks of tag 0.
uint32_t allocated()
{
    return rmalloc::nTags == 0 ? 0 : rmalloc::tagTable[0].allocated;
}

// What a block of `bytes` counts for.
uint32_t blockBytes(uint32_t bytes)
{
    return rmalloc::unitsFor(bytes) * rmalloc::kUnit;
}

class Stat : public rmtest::FrameTest
{
  protected:
    void TearDown() override
    {
        EXPECT_EQ(rmsrv::stattab == nullptr && rmsrv::statcount != 0, false);
        FrameTest::TearDown();
    }
};

class StatInit : public Stat
{
};

class StatInc : public Stat
{
};

class StatClear : public Stat
{
};

class StatRep : public Stat
{
};

class StatMemory : public Stat
{
};

// --- Before the first use

TEST_F(StatRep, BeforeTheFirstUseIsNullAndStoresZero)
{
    uint16_t count = 7;
    EXPECT_EQ(rm_statRep(&count), nullptr);
    EXPECT_EQ(count, 0);
}

TEST_F(StatRep, MakesNoCounters)
{
    rm_statRep(nullptr);
    EXPECT_EQ(rmsrv::stattab, nullptr);
    EXPECT_EQ(rm_memused(), 0U);
}

TEST_F(StatRep, TakesNoPointerForTheCount)
{
    EXPECT_EQ(rm_statRep(nullptr), nullptr);
    rm_statInit(3);
    EXPECT_EQ(rm_statRep(nullptr), rmsrv::stattab);
}

TEST_F(StatRep, GivesTheCountersThemselves)
{
    rm_statInit(4);
    uint16_t count = 0;
    const uint32_t* first = rm_statRep(&count);
    EXPECT_EQ(count, 4);
    rm_statInc(2, 5);
    EXPECT_EQ(first[2], 5U);
    EXPECT_EQ(rm_statRep(nullptr), first);
}

TEST_F(StatRep, HasTheWidthsOfTheInterface)
{
    EXPECT_TRUE((std::is_same_v<decltype(&rm_statInit), void (*)(uint16_t)>));
    EXPECT_TRUE((std::is_same_v<decltype(&rm_statInc), void (*)(int16_t, uint16_t)>));
    EXPECT_TRUE((std::is_same_v<decltype(&rm_statClear), void (*)(int16_t)>));
    EXPECT_TRUE((std::is_same_v<decltype(&rm_statRep), uint32_t* (*)(uint16_t*)>));
}

TEST_F(StatClear, BeforeTheFirstUseDoesNothing)
{
    rm_statClear(0);
    rm_statClearAll();
    EXPECT_EQ(rmsrv::stattab, nullptr);
    EXPECT_EQ(rm_memused(), 0U);
}

// --- Making them

TEST_F(StatInit, MakesZeros)
{
    rm_statInit(10);
    EXPECT_EQ(counters(), Counters(10));
}

TEST_F(StatInit, MakesZerosOfMemoryThatHeldSomething)
{
    auto* block = static_cast<uint8_t*>(rm_getMemory(400, 0));
    std::fill_n(block, 400, uint8_t{0xFF});
    rm_freeMemory(block, 0);
    rm_statInit(100);
    EXPECT_EQ(counters(), Counters(100));
}

TEST_F(StatInit, AfterUseDiscardsTheOldOnes)
{
    rm_statInit(20);
    for (int16_t index = 0; index < 20; ++index) {
        rm_statInc(index, 9);
    }
    rm_statInit(10);
    EXPECT_EQ(counters(), Counters(10));
    EXPECT_EQ(rmsrv::statcount, 10);
}

TEST_F(StatInit, OfAsManyAgainClearsThem)
{
    rm_statInit(5);
    rm_statInc(4, 1);
    rm_statInit(5);
    EXPECT_EQ(counters(), Counters(5));
}

TEST_F(StatInit, OfMoreMakesMore)
{
    rm_statInit(5);
    rm_statInit(500);
    rm_statInc(499, 1);
    EXPECT_EQ(counters().back(), 1U);
    EXPECT_THAT(counters(), SizeIs(500));
}

TEST_F(StatInit, OfZeroMakesNone)
{
    rm_statInit(0);
    EXPECT_THAT(counters(), IsEmpty());
    uint16_t count = 7;
    rm_statRep(&count);
    EXPECT_EQ(count, 0);
}

TEST_F(StatInit, OfZeroIsNotUndoneByAnEvent)
{
    // There are counters, if none at all: the default is for those who never asked.
    rm_statInit(0);
    rm_statInc(0, 1);
    rm_statClear(0);
    rm_statClearAll();
    EXPECT_THAT(counters(), IsEmpty());
}

TEST_F(StatInit, OfTheLargestCountMakesAsMany)
{
    constexpr uint16_t kCount = 65535;
    rm_statInit(kCount);
    EXPECT_THAT(counters(), SizeIs(kCount));
    EXPECT_THAT(counters(), Each(0U));
    rm_statInc(0, 1);
    rm_statInc(INT16_MAX, 2);
    EXPECT_EQ(counters()[0], 1U);
    EXPECT_EQ(counters()[INT16_MAX], 2U);
    // A negative index is none of the upper half.
    for (const int index : {-1, INT16_MIN, -100}) {
        rm_statInc(static_cast<int16_t>(index), 3);
    }
    EXPECT_EQ(counters()[65535 - 1], 0U);
    EXPECT_EQ(counters()[32768], 0U);
    rm_statClearAll();
    EXPECT_THAT(counters(), Each(0U));
}

TEST_F(StatInit, LogsNothing)
{
    EXPECT_EQ(captureStderr([] {
                  rm_statInit(10);
                  rm_statInit(20);
                  rm_statInc(100, 1);
              }),
              "");
}

// --- Counting

TEST_F(StatInc, InAFreshProcessMakes54)
{
    rm_statInc(3, 2);
    Counters expected(kDefault);
    expected[3] = 2;
    EXPECT_EQ(counters(), expected);
}

TEST_F(StatInc, OfAnIndexThatIsNoneMakesThemAllTheSame)
{
    rm_statInc(-1, 2);
    EXPECT_EQ(counters(), Counters(kDefault));
}

TEST_F(StatInc, OfTheLastDefaultCounterCounts)
{
    rm_statInc(53, 1);
    rm_statInc(54, 1);
    EXPECT_EQ(counters().back(), 1U);
    EXPECT_THAT(counters(), SizeIs(kDefault));
}

TEST_F(StatInc, KeepsTheCountersThatThereAre)
{
    rm_statInit(3);
    rm_statInc(0, 1);
    EXPECT_THAT(counters(), ElementsAre(1, 0, 0));
}

TEST_F(StatInc, AddsUp)
{
    rm_statInit(2);
    rm_statInc(1, 65535);
    rm_statInc(1, 65535);
    rm_statInc(1, 1);
    EXPECT_THAT(counters(), ElementsAre(0, 131071));
}

TEST_F(StatInc, OfZeroAddsNothing)
{
    rm_statInc(1, 0);
    EXPECT_EQ(counters(), Counters(kDefault));
}

TEST_F(StatInc, TouchesNoOtherCounter)
{
    rm_statInit(5);
    rm_statInc(2, 7);
    EXPECT_THAT(counters(), ElementsAre(0, 0, 7, 0, 0));
}

TEST_F(StatInc, WrapsWithoutNotice)
{
    rm_statInit(2);
    rm_statRep(nullptr)[0] = kLargest;
    EXPECT_EQ(captureStderr([] { rm_statInc(0, 1); }), "");
    EXPECT_THAT(counters(), ElementsAre(0, 0));
    rm_statRep(nullptr)[0] = kLargest - 10;
    rm_statInc(0, 65535);
    EXPECT_THAT(counters(), ElementsAre(65535 - 11, 0));
}

TEST_F(StatInc, OfAnIndexOutsideIsIgnored)
{
    rm_statInit(10);
    const uint32_t before = allocated();
    for (const int index : {-1, 10, 11, 54, 255, 256, INT16_MAX, INT16_MIN}) {
        rm_statInc(static_cast<int16_t>(index), 65535);
        EXPECT_EQ(counters(), Counters(10)) << index;
        EXPECT_EQ(rmtest::violations(), 0U) << index;
    }
    EXPECT_EQ(allocated(), before);
}

TEST_F(StatInc, AsksTheSystemForNothing)
{
    rm_statInit(10);
    resetCalls();
    rm_statInc(1, 1);
    rm_statClear(1);
    rm_statClearAll();
    rm_statRep(nullptr);
    EXPECT_THAT(rmtest::callTrace(), IsEmpty());
}

// --- Clearing

TEST_F(StatClear, OfOneSetsItToZero)
{
    rm_statInit(3);
    for (int16_t index = 0; index < 3; ++index) {
        rm_statInc(index, 5);
    }
    rm_statClear(1);
    EXPECT_THAT(counters(), ElementsAre(5, 0, 5));
}

TEST_F(StatClear, OfAnIndexOutsideIsIgnored)
{
    rm_statInit(3);
    for (int16_t index = 0; index < 3; ++index) {
        rm_statInc(index, 5);
    }
    for (const int index : {-1, 3, 4, INT16_MAX, INT16_MIN}) {
        rm_statClear(static_cast<int16_t>(index));
        EXPECT_THAT(counters(), ElementsAre(5, 5, 5)) << index;
        EXPECT_EQ(rmtest::violations(), 0U) << index;
    }
}

TEST_F(StatClear, OfAllSetsEveryOneToZero)
{
    rm_statInit(300);
    for (int16_t index = 0; index < 300; ++index) {
        rm_statInc(index, 5);
    }
    const uint32_t* first = rm_statRep(nullptr);
    rm_statClearAll();
    EXPECT_EQ(counters(), Counters(300));
    EXPECT_EQ(rm_statRep(nullptr), first);
}

TEST_F(StatClear, CountingGoesOnAfterwards)
{
    rm_statInc(1, 5);
    rm_statClearAll();
    rm_statInc(1, 2);
    rm_statClear(1);
    rm_statInc(1, 1);
    EXPECT_EQ(counters()[1], 1U);
    EXPECT_THAT(counters(), SizeIs(kDefault));
}

// --- Any order

TEST_F(Stat, InAnyOrderDoesWhatAnArrayWould)
{
    std::mt19937 random(4711);
    Counters model;
    bool made = false;
    const auto make = [&](uint16_t count) {
        model.assign(count, 0);
        made = true;
    };
    for (int step = 0; step < 20'000; ++step) {
        const auto index = static_cast<int16_t>(static_cast<int>(random() % 80) - 5);
        const auto amount = static_cast<uint16_t>(random());
        const bool fits = index >= 0 && static_cast<std::size_t>(index) < model.size();
        switch (random() % 100) {
            case 0: {
                const auto count = static_cast<uint16_t>(random() % 70);
                rm_statInit(count);
                make(count);
                break;
            }
            case 1:
                rm_statClearAll();
                std::fill(model.begin(), model.end(), 0U);
                break;
            case 2:
                rm_freeall();
                model.clear();
                made = false;
                break;
            case 3:
            case 4:
            case 5:
                rm_statClear(index);
                if (fits) {
                    model[static_cast<std::size_t>(index)] = 0;
                }
                break;
            default:
                rm_statInc(index, amount);
                if (!made) {
                    make(kDefault);
                }
                if (index >= 0 && static_cast<std::size_t>(index) < model.size()) {
                    model[static_cast<std::size_t>(index)] += amount;
                }
        }
        ASSERT_EQ(counters(), model) << "step " << step;
    }
}

// --- Memory

TEST_F(StatMemory, IsOneBlockUnderTagZero)
{
    rm_freeMemory(rm_getMemory(1, 0), 0);
    rm_statInit(10);
    EXPECT_EQ(allocated(), blockBytes(10 * 4));
    rm_statInit(kDefault);
    EXPECT_EQ(allocated(), blockBytes(kDefault * 4));
    rm_statInit(0);
    EXPECT_EQ(allocated(), blockBytes(0));
}

TEST_F(StatMemory, OfTheDefaultIs54TimesFour)
{
    rm_statInc(0, 1);
    EXPECT_EQ(allocated(), blockBytes(54 * 4));
}

TEST_F(StatMemory, OfTheOldOnesIsGivenBackFirst)
{
    rm_statInit(65535);
    const uint32_t used = rm_memused();
    // As many again fit where the old ones stood.
    rm_statInit(65535);
    EXPECT_EQ(rm_memused(), used);
    rm_statInit(1);
    EXPECT_LT(rm_memused(), used);
}

TEST_F(StatMemory, DoesNotGrowHoweverOftenTheyAreMade)
{
    rm_statInit(100);
    const uint32_t used = rm_memused();
    for (uint16_t count = 0; count < 1000; ++count) {
        rm_statInit(static_cast<uint16_t>(count % 101));
    }
    rm_statInit(100);
    EXPECT_EQ(rm_memused(), used);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

TEST_F(StatMemory, WhenAllOfItGoesTheCountersGo)
{
    rm_statInc(3, 2);
    rm_freeall();
    uint16_t count = 7;
    EXPECT_EQ(rm_statRep(&count), nullptr);
    EXPECT_EQ(count, 0);
    rm_statClear(3);
    rm_statClearAll();
    EXPECT_EQ(rm_memused(), 0U);
    rm_statInc(3, 1);
    Counters expected(kDefault);
    expected[3] = 1;
    EXPECT_EQ(counters(), expected);
}

TEST_F(StatMemory, WhenThatOfTagZeroGoesTheCountersGo)
{
    for (const int16_t release : std::to_array<int16_t>({0, 1})) {
        rm_statInit(3);
        rm_freeTagMemory(0, release);
        EXPECT_EQ(rm_statRep(nullptr), nullptr);
        EXPECT_EQ(rmsrv::statcount, 0);
        rm_statClearAll();
        rm_statClear(0);
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        rm_freeall();
    }
}

TEST_F(StatMemory, WhenThatOfAnotherTagGoesTheCountersStay)
{
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_getMemory(10, tag);
    rm_statInit(3);
    rm_statInc(1, 1);
    rm_freeTagMemory(tag, 1);
    EXPECT_THAT(counters(), ElementsAre(0, 1, 0));
}

TEST_F(StatMemory, AnExitLetsTheCountersGo)
{
    rm_statInit(3);
    EXPECT_EQ(rmtest::catchExit([] { rm_exit(1); }), 1);
    EXPECT_EQ(rm_statRep(nullptr), nullptr);
    EXPECT_EQ(rm_memused(), 0U);
}

// Runs `make` while the n-th allocation fails, for every n, once and from there on for ever.
void failEachAllocation(const std::function<void()>& prepare, const std::function<void()>& make)
{
    for (const int times : {1, kForever}) {
        bool failed = true;
        for (int skip = 0; failed; ++skip) {
            SCOPED_TRACE("allocation " + std::to_string(skip));
            ASSERT_LT(skip, 20) << "it does not come to an end";
            prepare();
            Outcome outcome;
            {
                ScopedFault fault(
                    {.call = Call::kMalloc, .error = ENOMEM, .skip = skip, .times = times});
                outcome = outcomeOf(make);
                failed = fault.hits() > 0;
            }
            EXPECT_EQ(outcome.jumped, failed ? 1 : 0);
            EXPECT_EQ(rmtest::violations(), 0U);
            if (failed) {
                ASSERT_FALSE(outcome.lines.empty());
                EXPECT_EQ(outcome.lines.front(), "Out of memory!");
                EXPECT_EQ(rm_statRep(nullptr), nullptr);
                EXPECT_EQ(rmsrv::statcount, 0);
                rm_statClear(0);
                rm_statClearAll();
            }
            // The library works on.
            rm_statInc(1, 1);
            EXPECT_EQ(counters()[1], 1U);
            rm_freeall();
        }
        EXPECT_EQ(rm_memused(), 0U);
    }
}

TEST_F(StatMemory, ThatCannotBeHadAtFirstLeavesNoCounters)
{
    failEachAllocation([] {}, [] { rm_statInit(10); });
}

TEST_F(StatMemory, ThatCannotBeHadForAnEventLeavesNoCounters)
{
    failEachAllocation([] {}, [] { rm_statInc(3, 2); });
}

TEST_F(StatMemory, ThatCannotBeHadForMoreLeavesNoCountersEither)
{
    failEachAllocation(
        [] {
            rm_statInit(10);
            rm_statInc(1, 1);
        },
        [] { rm_statInit(65535); });
}

TEST_F(StatMemory, ThatCannotBeHadWithOneBlockPerSegmentLeavesNoCounters)
{
    failEachAllocation(
        [] {
            rm_freeMemory(rm_getMemory(1, 0), 0);
            seg_alloc = 1;
            rm_statInit(10);
        },
        [] { rm_statInit(20); });
    seg_alloc = 0;
}

TEST_F(StatMemory, ThatCannotBeHadWithoutATargetEndsTheProcess)
{
    const ChildResult child = runChild([] {
        static ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
        rm_statInc(0, 1);
        _exit(99);
    });
    rmtest::expectEndAtOnce(child, 0);
    EXPECT_EQ(rmtest::logLines(child.err).front(), "Out of memory!");
}

TEST_F(StatMemory, WhenThatOfTagZeroGoesTheCountersCanBeUsedAgain)
{
    rm_statInit(3);
    rm_statInc(1, 1);
    rm_freeTagMemory(0, 0);
    rm_statInc(2, 5);
    Counters expected(kDefault);
    expected[2] = 5;
    EXPECT_EQ(counters(), expected);
}
}  // namespace
