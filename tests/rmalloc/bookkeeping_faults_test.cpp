// The memory manager without memory for what it keeps beside the segments: every such request to
// the platform fails, once, a few times, or for ever.
//
// Why: a segment is of no use without its map, its slot in the chain and its pages, and a tag table
// without its row of chains. They are had all together or not at all: what was got by then goes
// back, the failure is that of the segment, and the host may try again. What is given back needs no
// memory; a row that is to become shorter stays as it is.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/pieces.h"
#include "rm/rmalloc/segments.h"
#include "rm/rmsrv/rmsrv.h"

#include <cerrno>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace
{
using rmalloc::kPagesOfRegion;
using rmalloc::pageTable;
using rmalloc::SegmentMap;
using rmtest::bytesFor;
using rmtest::Call;
using rmtest::CallRecord;
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

constexpr uint32_t kRegionBytes = 1U << rmalloc::kRegionShift;

class NoBookkeeping : public rmtest::HeapTest
{
};

// What is held of the platform's memory, and how often memory was asked for that is no segment. Of
// calls that a fault answers nothing is seen, so it is made after the faults.
class Holdings
{
  public:
    Holdings()
        : malloc_(watch(Call::kMalloc)),
          beside_(watch(Call::kCalloc, Call::kAlignedAlloc)),
          free_(watch(Call::kFree))
    {
    }

    const std::set<int64_t>& held() const { return held_; }

    int requests() const { return beside_.hits(); }

  private:
    rmtest::Fault watch(Call which, Call also = Call::kNone)
    {
        return {.call = which,
                .also = also,
                .times = kForever,
                .action = [this](const CallRecord& call) {
                    const int64_t result = rmtest::passThrough(call);
                    if (call.call == Call::kFree) {
                        held_.erase(call.args[0]);
                    } else if (result != 0) {
                        held_.insert(result);
                    }
                    return result;
                }};
    }

    std::set<int64_t> held_;
    ScopedFault malloc_;
    ScopedFault beside_;
    ScopedFault free_;
};

// Makes each request for memory beside the segments that the call needs fail, alone, and then makes
// the call without a failure. Nothing may have changed after a failure, and nothing may be lost.
int failEachRequest(const std::function<void()>& call)
{
    for (int skip = 0;; ++skip) {
        rmalloc::trimPieces();  // a slab that was had before the failure is asked for again
        const std::string before = wholeHeap();
        const uint32_t regions = pageTable.count;
        Lines lines;
        int hits = 0;
        {
            ScopedFault fault({.call = Call::kCalloc,
                               .also = Call::kAlignedAlloc,
                               .error = ENOMEM,
                               .skip = skip});
            lines = fatalLines(call);
            hits = fault.hits();
        }
        if (hits == 0) {
            EXPECT_EQ(lines, Lines{"(it came back)"});
            return skip;
        }
        EXPECT_EQ(lines, outOfMemory()) << skip;
        EXPECT_EQ(wholeHeap(), before) << skip;
        EXPECT_EQ(pageTable.count, regions) << skip;
        EXPECT_EQ(rmalloc::checkMemory(), 0U) << skip;
        EXPECT_FALSE(rmsrv::inFatalPath());
    }
}

// --- Each request, alone

TEST_F(NoBookkeeping, ForTheRowOfChainsLeavesNoTable)
{
    EXPECT_EQ(failEachRequest([] { rm_allocTag(nullptr, RM_NO_LIMIT); }), 1);
    EXPECT_EQ(rmalloc::nTags, 2);
    EXPECT_EQ(rm_memused(), kFirstTable);
}

TEST_F(NoBookkeeping, ForALongerRowOfChainsLeavesTheTable)
{
    while (rm_allocTag(nullptr, RM_NO_LIMIT) < 39) {
    }
    fill(rm_getMemory(100, 39), 100, 3);
    EXPECT_EQ(failEachRequest([] { rm_allocTag(nullptr, RM_NO_LIMIT); }), 1);
    EXPECT_EQ(rmalloc::nTags, 41);
    while (rm_allocTag(nullptr, RM_NO_LIMIT) < 79) {
    }
    EXPECT_EQ(failEachRequest([] { rm_allocTag(nullptr, RM_NO_LIMIT); }), 1);
    EXPECT_EQ(rmalloc::nTags, 81);
}

// Map, slot and bound, the table's places and a region. A slot that was had before the failure
// stays with the tag, so that fewer are needed the next time.
TEST_F(NoBookkeeping, ForTheFirstSegmentLeavesNone)
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    void* block = nullptr;
    EXPECT_GE(failEachRequest([&] { block = rm_getMemory(100, tag); }), 3);
    EXPECT_EQ(layout(tag), "1007 [14]");
    EXPECT_NE(block, nullptr);
}

TEST_F(NoBookkeeping, ForTheFirstRegionLeavesTheTableOfRegionsEmpty)
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    const std::string before = wholeHeap();
    for (int i = 0; i < 3; ++i) {
        ScopedFault fault({.call = Call::kCalloc, .error = ENOMEM, .when = [](const CallRecord& c) {
                               return c.args[1] == sizeof(SegmentMap* [kPagesOfRegion]);
                           }});
        EXPECT_EQ(fatalLines([&] { rm_getMemory(100, tag); }), outOfMemory());
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(wholeHeap(), before);
        EXPECT_EQ(pageTable.count, 0U);
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
    }
    rm_getMemory(100, tag);
    EXPECT_EQ(layout(tag), "1007 [14]");
}

TEST_F(NoBookkeeping, ForTheSecondSegmentLeavesTheFirst)
{
    const Drawn drawn = draw("2 [3]");
    EXPECT_GE(failEachRequest([&] { rm_getMemory(bytesFor(9), drawn.tag); }), 3);
    EXPECT_EQ(layout(drawn.tag).substr(0, 8), "2 [3] | ");
}

TEST_F(NoBookkeeping, ForTheSegmentForWhichTheSlotsRunOutLeavesTheOthers)
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    seg_alloc = 1;
    for (int i = 0; i < 32; ++i) {
        rm_getMemory(8, tag);
    }
    EXPECT_GE(failEachRequest([&] { rm_getMemory(8, tag); }), 2);  // two for the longer row
    EXPECT_EQ(rmalloc::chains[tag].segments, 33U);
}

// Its regions are reserved one after the other; those that were got are let go again.
TEST_F(NoBookkeeping, ForALargeSegmentLeavesNoRegionOfIt)
{
    const Drawn drawn = draw("2 [3]");
    EXPECT_GE(failEachRequest([&] { rm_getMemory(12 * kRegionBytes, drawn.tag); }), 4);
    EXPECT_GE(pageTable.count, 12U);
    rm_freeTagMemory(drawn.tag, 0);
    EXPECT_EQ(pageTable.count, 0U);
}

// As the one before, and the failed ones lie in regions that other segments hold.
TEST_F(NoBookkeeping, ForALargeSegmentLeavesRegionsThatAreInUse)
{
    const Drawn drawn = draw("2 [3]");
    std::vector<void*> others(8);
    for (void*& other : others) {
        other = rm_getMemory(40'000, drawn.tag);
    }
    failEachRequest([&] { rm_getMemory(5 * kRegionBytes, drawn.tag); });
    for (void* other : others) {
        rm_freeMemory(other, drawn.tag);
    }
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

TEST_F(NoBookkeeping, ForAnExtensionThatMovesLeavesTheBlockAndItsContents)
{
    const Drawn drawn = draw("2 [3] 1 [1]");
    fill(drawn.live[0], bytesFor(3), 4);
    void* block = nullptr;
    failEachRequest([&] {
        EXPECT_TRUE(holdsPattern(drawn.live[0], bytesFor(3), 4));
        block = rm_extendMemory(drawn.live[0], 100, drawn.tag);
    });
    EXPECT_TRUE(holdsPattern(block, bytesFor(3), 4));
    EXPECT_EQ(layout(drawn.tag), "6 [1] | 1007 [14]");
}

TEST_F(NoBookkeeping, ForRmStrdupAndRmCGetMemoryLeavesTheHeap)
{
    const Drawn drawn = draw("2 [3]");
    const std::string text(100, 'x');
    EXPECT_GE(failEachRequest([&] { rm_Strdup(text.c_str(), drawn.tag); }), 3);
    EXPECT_GE(failEachRequest([&] { rm_cGetMemory(10'000, drawn.tag); }), 1);
    EXPECT_GE(failEachRequest([&] { rm_extendMemory(nullptr, 20'000, drawn.tag); }), 1);
    EXPECT_GE(failEachRequest([&] { rm_growMemory(nullptr, 20'000, drawn.tag); }), 1);
}

TEST_F(NoBookkeeping, ForATagsNameLeavesItWithoutOne)
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    EXPECT_GE(failEachRequest([&] {
                  EXPECT_EQ(rmalloc::tagTable[tag].name, nullptr);
                  rm_setTagName("name", tag);
              }),
              3);
    EXPECT_STREQ(rmalloc::tagTable[tag].name, "name");
}

// The old block was given back before the new one was asked for, so it has gone.
TEST_F(NoBookkeeping, ForRmGrowMemoryLeavesASoundHeapWithoutTheOldBlock)
{
    const Drawn drawn = draw("2 [3] 1 [1]");
    ScopedFault fault(
        {.call = Call::kCalloc, .also = Call::kAlignedAlloc, .error = ENOMEM, .times = kForever});
    EXPECT_EQ(fatalLines([&] { rm_growMemory(drawn.live[0], 100, drawn.tag); }), outOfMemory());
    EXPECT_EQ(layout(drawn.tag), "6 [1]");
    EXPECT_EQ(rmtest::allocated(drawn.tag), 8U);
}

TEST_F(NoBookkeeping, DoesNotMatterWhereAFreeBlockFits)
{
    const Drawn drawn = draw("2 [3] | [4]");
    ScopedFault fault(
        {.call = Call::kCalloc, .also = Call::kAlignedAlloc, .error = ENOMEM, .times = kForever});
    rm_getMemory(8, drawn.tag);
    EXPECT_EQ(rm_extendMemory(drawn.live[1], 0, drawn.tag), drawn.live[1]);
    EXPECT_EQ(layout(drawn.tag), "[2] [3] | [1] 3");
    EXPECT_EQ(fault.hits(), 0);
}

TEST_F(NoBookkeeping, DoesNotKeepHundredsOfSegmentsFromBeingGivenBack)
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    seg_alloc = 1;
    std::vector<void*> blocks(300);
    for (void*& block : blocks) {
        block = rm_getMemory(8, tag);
    }
    ScopedFault fault(
        {.call = Call::kCalloc, .also = Call::kAlignedAlloc, .error = ENOMEM, .times = kForever});
    EXPECT_EQ(rmtest::linesOf([&] {
                  for (void* block : blocks) {
                      rm_freeMemory(block, tag);
                      EXPECT_EQ(rmalloc::checkMemory(), 0U);
                  }
              }),
              Lines{});
    EXPECT_GT(fault.hits(), 0);  // for a shorter row
    EXPECT_EQ(layout(tag), "");
    EXPECT_EQ(rm_memused(), kFirstTable);
}

TEST_F(NoBookkeeping, EndsAProcessWithoutATargetWithStatusZero)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        ScopedFault fault({.call = Call::kCalloc, .also = Call::kAlignedAlloc, .error = ENOMEM});
        rm_getMemory(10, 1);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 0);
    const Lines lines = rmtest::withoutBanner(rmtest::logLines(child.err));
    EXPECT_EQ(lines, (Lines{"Out of memory!", "Exiting to operating system"}));
}

// --- Every request of a whole scenario

constexpr std::size_t kBlocks = 60;
constexpr Tag kTags = 90;  // the table grows twice on the way

// State that the steps share; a step that was jumped out of is made again.
struct Scenario {
    std::vector<void*> blocks = std::vector<void*>(kBlocks);
    std::vector<uint32_t> sizes = std::vector<uint32_t>(kBlocks);
    std::vector<Tag> tags = std::vector<Tag>(kBlocks);
    int made = 0;  // steps
};

struct Step {
    std::function<void(Scenario&)> make;
    bool mayChange;  // something when it does not return
};

void keep(Scenario& s, std::size_t n, void* block, uint32_t size, Tag tag)
{
    s.blocks[n] = block;
    s.sizes[n] = size;
    s.tags[n] = tag;
    fill(block, size, static_cast<uint32_t>(n));
}

Step take(std::size_t n, uint32_t size, Tag tag)
{
    return {[=](Scenario& s) { keep(s, n, rm_getMemory(size, tag), size, tag); }, false};
}

Step give(std::size_t n)
{
    return {[=](Scenario& s) { rm_zFreeMemory(&s.blocks[n], s.tags[n]); }, false};
}

// Not in the frame of a step, which a jump abandons.
const std::string& longText()
{
    static const std::string text(20'000, 't');
    return text;
}

// Blocks 0 to 19 share small segments of tag 1, 20 to 43 have segments of their own in tag 2, some
// of them in many regions; the others are resized, copied, or in tags with high numbers.
std::vector<Step> scenario()
{
    std::vector<Step> steps = {{[](Scenario& s) { keep(s, 0, rm_getMemory(30, 1), 30, 1); }, true}};
    const auto then = [&](const std::function<void(Scenario&)>& make) {
        steps.push_back({make, false});
    };
    for (Tag tag = 2; tag <= kTags; ++tag) {
        then([=](Scenario&) { EXPECT_EQ(rm_allocTag(nullptr, RM_NO_LIMIT), tag); });
    }
    then([](Scenario&) { rm_setTagAlloc(104, 1); });
    for (uint32_t n = 1; n < 20; ++n) {
        steps.push_back(take(n, 40 + n, 1));
    }
    for (uint32_t n = 20; n < 44; ++n) {
        steps.push_back(take(n, n % 6 == 0 ? n * kRegionBytes / 10 : n * 500, 2));
    }
    then([](Scenario&) { rm_setTagName("scenario", 85); });
    steps.push_back(take(50, 60'000, 0));
    then([](Scenario& s) { keep(s, 51, rm_Strdup(longText().c_str(), 80), 20'001, 80); });
    then([](Scenario& s) { keep(s, 52, rm_cGetMemory(500, 41), 500, 41); });
    then([](Scenario& s) { keep(s, 53, rm_extendMemory(nullptr, 500, 39), 500, 39); });
    then([](Scenario& s) { keep(s, 52, rm_extendMemory(s.blocks[52], 9000, 41), 9000, 41); });
    // It gives a block back before it takes another one, and forgets it first.
    steps.push_back({[](Scenario& s) {
                         void* old = s.blocks[53];
                         s.blocks[53] = nullptr;
                         keep(s, 53, rm_growMemory(old, 9000, 39), 9000, 39);
                     },
                     true});
    for (uint32_t n = 20; n < 44; ++n) {
        steps.push_back(give(n));
    }
    for (uint32_t n = 20; n < 24; ++n) {
        steps.push_back(take(n, n * kRegionBytes / 10, 2));
    }
    then([](Scenario&) { rm_freeTagMemory(80, 1); });
    then([](Scenario& s) { s.blocks[51] = nullptr; });
    then([](Scenario&) { EXPECT_EQ(rm_allocTag(nullptr, RM_NO_LIMIT), 80); });
    steps.push_back(take(51, 100, 80));
    return steps;
}

void expectContents(const Scenario& s)
{
    for (std::size_t n = 0; n < kBlocks; ++n) {
        EXPECT_TRUE(s.blocks[n] == nullptr ||
                    holdsPattern(s.blocks[n], s.sizes[n], static_cast<uint32_t>(n)))
            << n;
    }
}

// Makes the scenario; the result is the number of jumps out of it. A step that jumps is made again,
// up to `tries` times in all.
int runScenario(Scenario& s, int tries)
{
    int jumps = 0;
    const std::vector<Step> steps = scenario();
    const Step* current = nullptr;
    const std::function<void()> body = [&] { current->make(s); };
    for (const Step& step : steps) {
        current = &step;
        const std::string before = wholeHeap();
        int jumped = 1;
        for (int n = 0; n < tries && jumped == 1; ++n) {
            const Lines lines = rmtest::linesOf([&] { jumped = rmtest::catchFatal(body); });
            EXPECT_EQ(rmtest::withoutBanner(lines), jumped == 1 ? outOfMemory() : Lines{});
            jumps += jumped;
            if (jumped == 1) {
                EXPECT_TRUE(step.mayChange || wholeHeap() == before);
                EXPECT_EQ(rmalloc::checkMemory(), 0U);
                EXPECT_FALSE(rmsrv::inFatalPath());
                expectContents(s);
            }
        }
        if (jumped == 1) {
            return jumps;
        }
        ++s.made;
    }
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    expectContents(s);
    return jumps;
}

// Requests of the scenario, which differ with where the platform puts the segments.
int requestsOfScenario()
{
    Scenario s;
    int requests = 0;
    {
        const Holdings holdings;
        EXPECT_EQ(runScenario(s, 1), 0);
        requests = holdings.requests();
        rm_freeall();
        EXPECT_TRUE(holdings.held().empty());
    }
    return requests;
}

TEST_F(NoBookkeeping, HasAScenarioOfManyRequests)
{
    EXPECT_GT(requestsOfScenario(), 40);
}

// A failure of a request that is only for a shorter row is none.
void runWithFailures(int failures, int skip)
{
    Scenario s;
    ScopedFault fault({.call = Call::kCalloc,
                       .also = Call::kAlignedAlloc,
                       .error = ENOMEM,
                       .skip = skip,
                       .times = failures});
    const Holdings holdings;
    const int jumps = runScenario(s, failures + 1);
    EXPECT_LE(jumps, failures);
    EXPECT_EQ(s.made, static_cast<int>(scenario().size()));
    rm_freeall();
    EXPECT_EQ(rm_memused(), 0U);
    EXPECT_TRUE(holdings.held().empty()) << "request " << skip << " loses memory";
}

TEST_F(NoBookkeeping, OnceAtEachRequestIsOvercomeByTryingAgain)
{
    const int requests = requestsOfScenario();
    for (int skip = 0; skip < requests; ++skip) {
        runWithFailures(1, skip);
    }
}

TEST_F(NoBookkeeping, ThreeTimesAtEachRequestIsOvercomeByTryingAgain)
{
    const int requests = requestsOfScenario();
    for (int skip = 0; skip < requests; skip += 3) {
        runWithFailures(3, skip);
    }
}

// The first call that needs memory ends the scenario, and the host gives back what it has.
TEST_F(NoBookkeeping, ForEverFromEachRequestOnLeavesAHeapThatCanBeGivenBack)
{
    const int requests = requestsOfScenario();
    for (int skip = 0; skip < requests; skip += 2) {
        Scenario s;
        ScopedFault fault({.call = Call::kCalloc,
                           .also = Call::kAlignedAlloc,
                           .error = ENOMEM,
                           .skip = skip,
                           .times = kForever});
        const Holdings holdings;
        runScenario(s, 1);
        const Lines lines = rmtest::linesOf([&] {
            for (std::size_t n = 0; n < kBlocks; n += 2) {
                if (s.blocks[n] != nullptr) {
                    rm_zFreeMemory(&s.blocks[n], s.tags[n]);
                }
            }
            EXPECT_EQ(rmalloc::checkMemory(), 0U);
            for (Tag tag = 0; tag < rmalloc::nTags; tag = static_cast<Tag>(tag + 2)) {
                rm_freeTagMemory(tag, 0);
            }
            for (std::size_t n = 0; n < kBlocks; ++n) {
                s.blocks[n] = s.tags[n] % 2 == 0 ? nullptr : s.blocks[n];
            }
            EXPECT_EQ(rmalloc::checkMemory(), 0U);
            expectContents(s);
            rm_freeall();
        });
        EXPECT_EQ(lines, Lines{});
        EXPECT_EQ(rm_memused(), 0U);
        EXPECT_TRUE(holdings.held().empty()) << "request " << skip << " loses memory";
    }
}
}  // namespace
