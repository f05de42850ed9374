// The memory manager without memory: every request to the platform fails, once or for ever.
//
// Why: a server meets the end of memory in the middle of a call, leaves by a jump, and goes on with
// the same heap to shut itself down, or to serve the sessions that are still well. So each failure
// must be logged and fatal, and must leave a sound heap in which everything that was not given back
// still is.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmsrv/rmsrv.h"

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace
{
using rmalloc::nTags;
using rmalloc::tagTable;
using rmtest::allocated;
using rmtest::bytesFor;
using rmtest::Call;
using rmtest::callCount;
using rmtest::callTrace;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::fatalLines;
using rmtest::fill;
using rmtest::holdsPattern;
using rmtest::kFirstTable;
using rmtest::kForever;
using rmtest::layout;
using rmtest::Lines;
using rmtest::outOfMemory;
using rmtest::ScopedFault;
using rmtest::wholeHeap;

class NoMemory : public rmtest::HeapTest
{
};

class HugeRequest : public rmtest::HeapTest
{
};

Tag newTag()
{
    return rm_allocTag(nullptr, RM_NO_LIMIT);
}

// What the call logs when all of malloc fails from here on.
Lines withoutMemory(const std::function<void()>& call)
{
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    return fatalLines(call);
}

// --- Each request, alone

TEST_F(NoMemory, ForTheTableLeavesNone)
{
    EXPECT_EQ(withoutMemory([] { rm_getMemory(10, 1); }), outOfMemory());
    EXPECT_EQ(tagTable, nullptr);
    EXPECT_EQ(nTags, 0);
    EXPECT_EQ(rm_memused(), 0U);
}

TEST_F(NoMemory, ForTheFirstSegmentLeavesTheTableThatWasMadeForIt)
{
    Lines lines;
    {
        ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .skip = 1});
        lines = fatalLines([] { rm_getMemory(10, 1); });
    }
    EXPECT_EQ(lines, outOfMemory());
    EXPECT_EQ(nTags, 2);
    EXPECT_EQ(layout(1), "");
    EXPECT_EQ(allocated(1), 0U);
    EXPECT_EQ(rm_memused(), kFirstTable);
    EXPECT_NE(rm_getMemory(10, 1), nullptr);
}

TEST_F(NoMemory, ForAFurtherSegmentLeavesTheOthers)
{
    const Drawn drawn = draw("2 [3] | [4]");
    const std::string before = wholeHeap();
    EXPECT_EQ(withoutMemory([&] { rm_getMemory(100, drawn.tag); }), outOfMemory());
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(NoMemory, DoesNotMatterWhereAFreeBlockFits)
{
    const Drawn drawn = draw("2 [3] | [4]");
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    rm_getMemory(8, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[2] [3] | [4]");
    EXPECT_EQ(fault.hits(), 0);
}

TEST_F(NoMemory, ForRmCGetMemoryLeavesTheHeap)
{
    const Drawn drawn = draw("2 [3]");
    const std::string before = wholeHeap();
    EXPECT_EQ(withoutMemory([&] { rm_cGetMemory(100, drawn.tag); }), outOfMemory());
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(NoMemory, ForRmStrdupLeavesTheHeap)
{
    const Drawn drawn = draw("2 [3]");
    const std::string text(100, 'x');
    const std::string before = wholeHeap();
    EXPECT_EQ(withoutMemory([&] { rm_Strdup(text.c_str(), drawn.tag); }), outOfMemory());
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(NoMemory, ForATagsFirstNameLeavesItWithoutOne)
{
    const Tag tag = newTag();
    EXPECT_EQ(withoutMemory([&] { rm_setTagName("name", tag); }), outOfMemory());
    EXPECT_EQ(tagTable[tag].name, nullptr);
    EXPECT_EQ(layout(tag), "");
    EXPECT_STREQ(rm_setTagName("name", tag), "name");
}

TEST_F(NoMemory, ForAnExtensionThatMovesLeavesTheBlockAndItsContents)
{
    const Drawn drawn = draw("2 [3] 1 [1]");
    fill(drawn.live[0], bytesFor(3), 4);
    const std::string before = wholeHeap();
    EXPECT_EQ(withoutMemory([&] { rm_extendMemory(drawn.live[0], 100, drawn.tag); }),
              outOfMemory());
    EXPECT_EQ(wholeHeap(), before);
    EXPECT_TRUE(holdsPattern(drawn.live[0], bytesFor(3), 4));
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "6 [1]");
}

TEST_F(NoMemory, ForAnExtensionThatMovesLeavesTheOnlyBlockOfASegment)
{
    const Drawn drawn = draw("[3]");
    fill(drawn.live[0], bytesFor(3), 4);
    const std::string before = wholeHeap();
    EXPECT_EQ(withoutMemory([&] { rm_extendMemory(drawn.live[0], 100, drawn.tag); }),
              outOfMemory());
    EXPECT_EQ(wholeHeap(), before);
    EXPECT_TRUE(holdsPattern(drawn.live[0], bytesFor(3), 4));
}

TEST_F(NoMemory, DoesNotMatterToAnExtensionInPlace)
{
    const Drawn drawn = draw("2 [3] 1 [1]");
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    rm_extendMemory(drawn.live[0], bytesFor(6), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[6] [1]");
}

TEST_F(NoMemory, ForRmExtendMemoryOfNullLeavesTheHeap)
{
    const Drawn drawn = draw("2 [3]");
    const std::string before = wholeHeap();
    EXPECT_EQ(withoutMemory([&] { rm_extendMemory(nullptr, 100, drawn.tag); }), outOfMemory());
    EXPECT_EQ(wholeHeap(), before);
}

// The old block was given back before the new one was asked for, so it has gone.
TEST_F(NoMemory, ForRmGrowMemoryLeavesASoundHeapWithoutTheOldBlock)
{
    const Drawn drawn = draw("2 [3] 1 [1]");
    EXPECT_EQ(withoutMemory([&] { rm_growMemory(drawn.live[0], 100, drawn.tag); }), outOfMemory());
    EXPECT_EQ(layout(drawn.tag), "6 [1]");
    EXPECT_EQ(allocated(drawn.tag), 8U);
}

TEST_F(NoMemory, ForRmGrowMemoryOfTheOnlyBlockLeavesATagWithoutSegments)
{
    const Drawn drawn = draw("2 [3]");
    EXPECT_EQ(withoutMemory([&] { rm_growMemory(drawn.live[0], 100, drawn.tag); }), outOfMemory());
    EXPECT_EQ(layout(drawn.tag), "");
    EXPECT_EQ(allocated(drawn.tag), 0U);
    EXPECT_EQ(rm_memused(), kFirstTable);
}

TEST_F(NoMemory, DoesNotMatterToRmGrowMemoryOfALargeEnoughBlock)
{
    const Drawn drawn = draw("2 [3]");
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    EXPECT_EQ(rm_growMemory(drawn.live[0], 16, drawn.tag), drawn.live[0]);
}

TEST_F(NoMemory, ForTheTableToGrowLeavesTagsAndBlocks)
{
    while (newTag() < 39) {
    }
    void* block = rm_getMemory(100, 39);
    fill(block, 100, 1);
    const std::string before = wholeHeap();
    EXPECT_EQ(withoutMemory([] { newTag(); }), outOfMemory());
    EXPECT_EQ(wholeHeap(), before);
    EXPECT_TRUE(holdsPattern(block, 100, 1));
}

TEST_F(NoMemory, DoesNotKeepMemoryFromBeingGivenBack)
{
    const Drawn drawn = draw("[2] [3] | [4]");
    const Drawn other = draw("[2] [3] | [4]");
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    rm_freeMemory(drawn.live[0], drawn.tag);
    rm_freeTagMemory(other.tag, 1);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    rm_freeall();
    EXPECT_EQ(rm_memused(), 0U);
    EXPECT_EQ(fault.hits(), 0);
}

TEST_F(NoMemory, EndsAProcessWithoutATargetWithStatusZero)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
        rm_getMemory(10, 1);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 0);
    const Lines lines = rmtest::withoutBanner(rmtest::logLines(child.err));
    EXPECT_EQ(lines, (Lines{"Out of memory!", "Exiting to operating system"}));
}

TEST_F(NoMemory, MarksAWorkerWithATargetAsUnwinding)
{
    newTag();
    rm_setForegroundThread();
    const rmtest::ChildResult child = rmtest::runChild([] {
        rmanTerm = 0;
        ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
        EXPECT_EQ(rmtest::catchFatal([] { rm_getMemory(10, 1); }), 1);
        EXPECT_EQ(rmanTerm, 2);
    });
    EXPECT_EQ(child.status, 0);
}

// --- Every request of a whole scenario

// Each step is one call of the library, so that the jump out of it passes no frame of a step. State
// that the steps share is outside of them; a step that was jumped out of is made again.
struct Scenario {
    Tag tags[3] = {-1, -1, -1};
    void* blocks[6] = {};
    uint32_t sizes[6] = {};
};

using Step = std::function<void(Scenario&)>;

void keep(Scenario& s, int n, void* block, uint32_t size)
{
    s.blocks[n] = block;
    s.sizes[n] = size;
    fill(block, size, static_cast<uint32_t>(n));
}

// Uses blocks 0 to 5 of five tags. The step that gives a block back before it takes another one
// forgets it first, since that is what remains when it does not return.
std::vector<Step> scenario()
{
    const std::string longText(20'000, 't');
    std::vector<Step> steps = {
        [](Scenario& s) { keep(s, 0, rm_getMemory(10, 1), 10); },
        [](Scenario& s) { s.tags[0] = rm_allocTag(nullptr, RM_NO_LIMIT); },
        [](Scenario& s) { s.tags[1] = rm_allocTag(nullptr, RM_NO_LIMIT); },
        [](Scenario& s) { rm_setTagAlloc(256, s.tags[1]); },
        [](Scenario& s) { rm_setTagName("scenario", s.tags[0]); },
        [](Scenario& s) { keep(s, 1, rm_getMemory(100, s.tags[1]), 100); },
        [](Scenario& s) { keep(s, 2, rm_cGetMemory(500, s.tags[1]), 500); },
        [](Scenario& s) { keep(s, 3, rm_getMemory(50'000, s.tags[0]), 50'000); },
        [=](Scenario& s) { keep(s, 4, rm_Strdup(longText.c_str(), s.tags[0]), 20'001); },
        [](Scenario& s) { keep(s, 1, rm_extendMemory(s.blocks[1], 400, s.tags[1]), 400); },
        [](Scenario& s) {
            void* old = s.blocks[2];
            s.blocks[2] = nullptr;
            keep(s, 2, rm_growMemory(old, 3000, s.tags[1]), 3000);
        },
        [](Scenario& s) { keep(s, 5, rm_getMemory(60'000, 0), 60'000); },
        [](Scenario& s) { rm_zFreeMemory(&s.blocks[3], s.tags[0]); },
    };
    for (int i = 0; i < 40; ++i) {  // until the table has grown
        steps.push_back([](Scenario& s) { s.tags[2] = rm_allocTag(nullptr, RM_NO_LIMIT); });
    }
    steps.push_back([](Scenario& s) { rm_setTagName("last", s.tags[2]); });
    return steps;
}

constexpr int kRequests = 12;  // to the platform, in a scenario in which nothing fails

// Makes the scenario; the result is the number of jumps out of it. A step that jumps is made again,
// up to `tries` times in all: the host has freed something elsewhere and tries once more.
int runScenario(Scenario& s, int tries)
{
    int jumps = 0;
    const std::vector<Step> steps = scenario();
    const Step* current = nullptr;
    const std::function<void()> body = [&] { (*current)(s); };
    for (const Step& step : steps) {
        current = &step;
        int jumped = 1;
        for (int n = 0; n < tries && jumped == 1; ++n) {
            void* const before = s.blocks[2];
            const Lines lines = rmtest::linesOf([&] { jumped = rmtest::catchFatal(body); });
            EXPECT_EQ(rmtest::withoutBanner(lines), jumped == 1 ? outOfMemory() : Lines{});
            EXPECT_EQ(rmalloc::checkMemory(), 0U);
            EXPECT_FALSE(rmsrv::inFatalPath());
            for (int block = 0; block < 6; ++block) {
                EXPECT_TRUE(
                    s.blocks[block] == nullptr ||
                    holdsPattern(s.blocks[block], s.sizes[block], static_cast<uint32_t>(block)))
                    << block;
            }
            EXPECT_TRUE(jumped == 0 || s.blocks[2] == before || s.blocks[2] == nullptr);
            jumps += jumped;
        }
        if (jumped == 1) {
            break;
        }
    }
    return jumps;
}

// With every request of the scenario in turn as the first that fails.
class NoMemoryAtRequest : public rmtest::HeapTest, public ::testing::WithParamInterface<int>
{
};

INSTANTIATE_TEST_SUITE_P(Each, NoMemoryAtRequest, ::testing::Range(0, kRequests));

TEST_F(NoMemory, HasAScenarioOfTwelveRequests)
{
    Scenario s;
    EXPECT_EQ(runScenario(s, 1), 0);
    EXPECT_EQ(callCount(Call::kMalloc), kRequests);
}

TEST_P(NoMemoryAtRequest, OnceIsOvercomeByTryingAgain)
{
    Scenario s;
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .skip = GetParam()});
    EXPECT_EQ(runScenario(s, 2), 1);
    EXPECT_EQ(fault.hits(), 1);
}

TEST_P(NoMemoryAtRequest, ThreeTimesIsOvercomeByTryingAgain)
{
    Scenario s;
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .skip = GetParam(), .times = 3});
    EXPECT_EQ(runScenario(s, 4), 3);
    EXPECT_EQ(fault.hits(), 3);
}

// The first call that needs memory ends the scenario, and the host shuts down with what it has.
TEST_P(NoMemoryAtRequest, ForEverLeavesAHeapThatCanBeGivenBack)
{
    Scenario s;
    ScopedFault fault(
        {.call = Call::kMalloc, .error = ENOMEM, .skip = GetParam(), .times = kForever});
    EXPECT_EQ(runScenario(s, 1), 1);
    rm_zFreeMemory(&s.blocks[0], 1);
    rm_zFreeMemory(&s.blocks[5], 0);
    for (const Tag tag : s.tags) {
        rm_freeTagMemory(tag, 1);
    }
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    rm_freeall();
    EXPECT_EQ(rm_memused(), 0U);
    EXPECT_EQ(fault.hits(), 1);  // nothing that is given back needs memory
}

TEST_P(NoMemoryAtRequest, ForAWhileIsForgottenAfterRmFreeall)
{
    Scenario s;
    {
        ScopedFault fault(
            {.call = Call::kMalloc, .error = ENOMEM, .skip = GetParam(), .times = kForever});
        runScenario(s, 1);
        rm_freeall();
    }
    Scenario again;
    EXPECT_EQ(runScenario(again, 1), 0);
}

// --- Requests near 4 GiB

constexpr uint32_t kLargestPossible = 4294967256;  // 536,870,908 units and a segment header

TEST_F(HugeRequest, ThatNoSegmentCanHoldIsOutOfMemoryAndNotAskedFor)
{
    const Drawn drawn = draw("2 [3] [1]");
    const std::string before = wholeHeap();
    const int mallocs = callCount(Call::kMalloc);
    for (const uint32_t size : {0xFFFFFFFFU, 0xFFFFFFFEU, 0xFFFFFFF9U, 0xFFFFFFF8U, 0xFFFFFFF1U,
                                0xFFFFFFF0U, 0xFFFFFFE8U, kLargestPossible + 1}) {
        EXPECT_EQ(fatalLines([&] { rm_getMemory(size, drawn.tag); }), outOfMemory()) << size;
        EXPECT_EQ(fatalLines([&] { rm_cGetMemory(size, drawn.tag); }), outOfMemory()) << size;
        EXPECT_EQ(fatalLines([&] { rm_extendMemory(nullptr, size, drawn.tag); }), outOfMemory());
        EXPECT_EQ(fatalLines([&] { rm_growMemory(nullptr, size, drawn.tag); }), outOfMemory());
    }
    EXPECT_EQ(wholeHeap(), before);
    EXPECT_EQ(callCount(Call::kMalloc), mallocs);
}

TEST_F(HugeRequest, ThatASegmentCanJustHoldIsAskedForInFull)
{
    const Tag tag = newTag();
    Lines lines;
    {
        ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
        lines = fatalLines([&] { rm_getMemory(kLargestPossible, tag); });
    }
    EXPECT_EQ(lines, outOfMemory());
    EXPECT_EQ(callTrace({Call::kMalloc}).back().args[0], 4294967288);
}

TEST_F(HugeRequest, IsTheSameWithSegAlloc)
{
    const Tag tag = newTag();
    seg_alloc = 1;
    const int mallocs = callCount(Call::kMalloc);
    EXPECT_EQ(fatalLines([&] { rm_getMemory(0xFFFFFFFF, tag); }), outOfMemory());
    EXPECT_EQ(callCount(Call::kMalloc), mallocs);
}

TEST_F(HugeRequest, IsTheSameInATagWithTheLargestSegmentSize)
{
    const Tag tag = newTag();
    rm_setTagAlloc(0xFFFFFFFF, tag);
    EXPECT_EQ(fatalLines([&] { rm_getMemory(0xFFFFFFFF, tag); }), outOfMemory());
    EXPECT_EQ(layout(tag), "");
}

TEST_F(HugeRequest, InAnExtensionLeavesTheBlock)
{
    const Drawn drawn = draw("2 [3] 1 [1]");
    fill(drawn.live[0], bytesFor(3), 4);
    const std::string before = wholeHeap();
    for (const uint32_t size : {0xFFFFFFFFU, 0xFFFFFFF8U, 0xFFFFFFF0U, kLargestPossible + 1}) {
        EXPECT_EQ(fatalLines([&] { rm_extendMemory(drawn.live[0], size, drawn.tag); }),
                  outOfMemory());
    }
    EXPECT_EQ(wholeHeap(), before);
    EXPECT_TRUE(holdsPattern(drawn.live[0], bytesFor(3), 4));
}

TEST_F(HugeRequest, InRmGrowMemoryDoesNotPassForASmallOne)
{
    const Drawn drawn = draw("2 [3] 1 [1]");
    EXPECT_EQ(fatalLines([&] { rm_growMemory(drawn.live[0], 0xFFFFFFFF, drawn.tag); }),
              outOfMemory());
    EXPECT_EQ(layout(drawn.tag), "6 [1]");
}
}  // namespace
