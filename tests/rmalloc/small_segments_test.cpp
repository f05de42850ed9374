// Segments whose map stands right before them in the same memory: up to 62 units, got one by one
// for every block, or by tags that ask for segments of such a size.
//
// Why: they are kept in another way than larger ones, and nobody may notice. Placement, headers,
// links and figures are those of the plain walk; a tag may own both kinds in any order; what has
// gone is not touched again; a map that a host has written over takes its own block out of use and
// no other.
#include "tests/rmalloc/heap_pair.h"

#include "rm.h"
#include "rm/rmalloc/pieces.h"
#include "rm/rmalloc/segments.h"
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace
{
using rmalloc::kBeforeSmall;
using rmalloc::pageTable;
using rmalloc::Segment;
using rmtest::badPointer;
using rmtest::bytesFor;
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::HeapPair;
using rmtest::kForever;
using rmtest::layout;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::ScopedFault;
using rmtest::wholeHeap;

constexpr uint32_t kMostUnits = 62;  // of a small segment
constexpr Tag kTag = 1;

// Around the border, in bytes, so that the kinds alternate.
const std::vector<uint32_t> kSizesAround = {0,   488, 489, 1,   496, 497, 487, 505, 8,
                                            504, 9,   480, 490, 495, 498, 481, 503, 2};

class SmallSegments : public rmtest::HeapTest
{
};

using MixedChain = SmallSegments;
using SmallSegmentPointer = SmallSegments;
using DamagedSmallMap = SmallSegments;
using NoSmallSegment = SmallSegments;
using ManySmallSegments = SmallSegments;

// Of its only block.
Segment* segmentOf(void* block)
{
    return reinterpret_cast<Segment*>(static_cast<char*>(block) - 32);
}

void* takeUnits(uint32_t units, Tag tag)
{
    return rm_getMemory(bytesFor(units), tag);
}

// A tag in which each block is a segment of its own.
Tag newTag()
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    seg_alloc = 1;
    return tag;
}

// --- As the plain walk has it

// Each is taken, larger and smaller ones in turn, and they go in an order of their own.
TEST_F(SmallSegments, AroundTheBorderComeAndGoAsInThePlainWalk)
{
    for (std::size_t stride = 1; stride < kSizesAround.size(); ++stride) {
        HeapPair pair(2 * static_cast<uint32_t>(kSizesAround.size()));
        pair.setSegAlloc(true);
        std::vector<uint32_t> names;
        for (int n = 0; n < 2; ++n) {
            for (const uint32_t size : kSizesAround) {
                names.push_back(pair.take(size, kTag));
                pair.compareWhole();
            }
        }
        while (!names.empty()) {
            const auto at = static_cast<std::ptrdiff_t>(stride * 7 % names.size());
            pair.give(names[static_cast<std::size_t>(at)]);
            names.erase(names.begin() + at);
            pair.compareWhole();
        }
        ASSERT_FALSE(pair.failed()) << pair.story();
        pair.freeAll();
    }
}

// From each size to each other, where what is left of the first has been given to another block.
void resizeEach(void (HeapPair::*resize)(uint32_t, uint32_t))
{
    HeapPair pair(64);
    pair.setSegAlloc(true);
    pair.take(20, kTag);
    for (const uint32_t from : kSizesAround) {
        for (const uint32_t to : kSizesAround) {
            const uint32_t name = pair.take(from, kTag);
            (pair.*resize)(name, to);
            const uint32_t other = pair.take(from / 2, kTag);
            (pair.*resize)(name, from);
            pair.compareWhole();
            pair.give(name);
            pair.give(other);
            ASSERT_FALSE(pair.failed()) << from << " to " << to << '\n' << pair.story();
        }
    }
}

TEST_F(SmallSegments, AreLeftAndReachedByExtendingAsInThePlainWalk)
{
    resizeEach(&HeapPair::extend);
}

TEST_F(SmallSegments, AreLeftAndReachedByGrowingAsInThePlainWalk)
{
    resizeEach(&HeapPair::grow);
}

// Segments of 10 to 65 units hold several blocks, which grow, shrink and go.
TEST_F(SmallSegments, OfTagsThatAskForThemAreAsInThePlainWalk)
{
    for (uint32_t bytes = 104; bytes <= 544; bytes += 8) {
        HeapPair pair(400);
        pair.take(4, kTag);
        pair.setTagAlloc(bytes, kTag);
        for (uint32_t n = 0; n < 120; ++n) {
            pair.take(n * 29 % 66, kTag);
            const std::vector<uint32_t>& live = pair.live();
            const uint32_t name = live[n * 13 % live.size()];
            if (n % 3 == 0) {
                pair.extend(name, n * 17 % 130);
            } else if (n % 3 == 1) {
                pair.grow(name, n * 11 % 90);
            } else if (n % 6 == 2) {
                pair.give(name);
            }
            if (n % 8 == 0) {
                pair.compareWhole();
            }
        }
        while (!pair.live().empty() && !pair.failed()) {
            pair.give(pair.live()[pair.live().size() / 2]);
        }
        pair.compareWhole();
        ASSERT_FALSE(pair.failed()) << bytes << '\n' << pair.story();
        pair.freeAll();
    }
}

TEST_F(SmallSegments, AreOnePieceOfThePlatformsMemory)
{
    EXPECT_EQ(kBeforeSmall % alignof(std::max_align_t), 0U);
    const Tag tag = newTag();
    takeUnits(5, tag);
    for (const uint32_t units : {1U, 2U, 61U, kMostUnits}) {
        rmtest::resetCalls();
        void* block = takeUnits(units, tag);
        const auto calls = rmtest::callTrace({Call::kMalloc});
        ASSERT_EQ(calls.size(), 1U);
        EXPECT_EQ(calls[0].args[0], static_cast<int64_t>(kBeforeSmall + 24 + units * 8));
        EXPECT_EQ(reinterpret_cast<intptr_t>(segmentOf(block)),
                  calls[0].result + static_cast<intptr_t>(kBeforeSmall));
        rm_freeMemory(block, tag);
        const auto returned = rmtest::callTrace({Call::kFree});
        ASSERT_FALSE(returned.empty());
        EXPECT_EQ(returned.back().args[0], calls[0].result);
        EXPECT_EQ(rmtest::callCount(Call::kAlignedAlloc), 0);
    }
    rm_freeall();
    rmtest::resetCalls();
}

// What the platform gives has been used before.
TEST_F(SmallSegments, MakeNothingOfWhatTheirMemoryHeld)
{
    const Tag tag = newTag();
    takeUnits(3, tag);
    const ScopedFault dirty(
        {.call = Call::kMalloc, .times = kForever, .action = [](const CallRecord& call) {
             const int64_t result = rmtest::passThrough(call);
             std::memset(reinterpret_cast<void*>(static_cast<intptr_t>(result)), 0xFF,
                         static_cast<std::size_t>(call.args[0]));
             return result;
         }});
    takeUnits(kMostUnits, tag);
    rm_setTagAlloc(504, tag);
    seg_alloc = 0;
    takeUnits(7, tag);
    EXPECT_EQ(layout(tag), "[3] | [62] | 53 [7]");
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

// --- Both kinds in one chain

// 's' or 'l' for each segment.
struct Mixed {
    Tag tag;
    std::vector<void*> blocks;

    explicit Mixed(const std::string& kinds) : tag(newTag())
    {
        for (const char kind : kinds) {
            blocks.push_back(take(kind));
        }
    }

    void* take(char kind) const
    {
        const auto n = static_cast<uint32_t>(blocks.size());
        return takeUnits(kind == 's' ? kMostUnits - n : kMostUnits + 1 + n, tag);
    }

    void give(std::size_t n)
    {
        rm_freeMemory(blocks[n], tag);
        blocks.erase(blocks.begin() + static_cast<std::ptrdiff_t>(n));
    }

    // The segments' own pointers lead from block to block.
    bool isLinked() const
    {
        const Segment* next = rmalloc::tagTable[tag].segments;
        uint32_t large = 0;
        for (void* block : blocks) {
            const Segment* segment = segmentOf(block);
            if (segment != next) {
                return false;
            }
            large += segment->units > kMostUnits ? 1 : 0;
            next = segment->next;
        }
        const rmalloc::Chain& chain = rmalloc::chains[tag];
        return next == nullptr && chain.large == large && chain.segments == blocks.size();
    }

    bool isSound() const { return isLinked() && rmalloc::checkMemory() == 0; }
};

const std::vector<std::string> kKinds = {"s",   "l",   "ss",  "sl",  "ls",  "ll",  "sss",  "ssl",
                                         "sls", "lss", "sll", "lsl", "lls", "lll", "lssl", "slsl"};

TEST_F(MixedChain, IsLinkedWhicheverSegmentsComeAndGo)
{
    for (const std::string& kinds : kKinds) {
        std::vector<std::size_t> order;
        while (order.size() < kinds.size()) {
            order.push_back(order.size());
        }
        do {
            Mixed mixed(kinds);
            ASSERT_TRUE(mixed.isSound()) << kinds;
            std::vector<std::size_t> left = order;
            while (!left.empty()) {
                const std::size_t at = left.back();
                left.pop_back();
                mixed.give(at);
                for (std::size_t& other : left) {
                    other -= other > at ? 1 : 0;
                }
                ASSERT_TRUE(mixed.isSound()) << kinds << " without " << at;
                if (left.size() == kinds.size() / 2) {
                    mixed.blocks.push_back(mixed.take(kinds[at]));
                    ASSERT_TRUE(mixed.isSound()) << kinds << " with another one for " << at;
                }
            }
            rm_freeTagMemory(mixed.tag, 0);
            mixed.blocks.clear();
            ASSERT_TRUE(mixed.isSound());
            rm_freeTagMemory(mixed.tag, 1);
        } while (std::next_permutation(order.begin(), order.end()));
    }
}

// Large ones are found in the pages from which small ones have gone, and the other way round.
TEST_F(MixedChain, LeavesThePagesOfOneKindWhenTheOtherGoes)
{
    for (const std::size_t first : {0U, 1U}) {
        const std::vector<Tag> tags = {newTag(), newTag()};
        for (uint32_t n = 0; n < 1500; ++n) {
            takeUnits(kMostUnits + n % 2, tags[n % 2]);
        }
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        rm_freeTagMemory(tags[first], 0);
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        rm_freeTagMemory(tags[1 - first], 0);
        EXPECT_EQ(pageTable.count, 0U);
    }
}

// --- Pointers that are no live block

// Nothing but the line, from each call.
void expectBad(void* pointer, Tag tag)
{
    const std::string before = wholeHeap();
    void* result = &result;
    EXPECT_EQ(linesOf([&] { rm_freeMemory(pointer, tag); }), Lines{badPointer(pointer)});
    EXPECT_EQ(linesOf([&] { result = rm_extendMemory(pointer, 600, tag); }),
              Lines{badPointer(pointer)});
    EXPECT_EQ(result, nullptr);
    result = &result;
    EXPECT_EQ(linesOf([&] { result = rm_growMemory(pointer, 0, tag); }),
              Lines{badPointer(pointer)});
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(SmallSegmentPointer, IsBadWhenItsSegmentHasGone)
{
    const Tag tag = newTag();
    takeUnits(3, tag);
    for (const uint32_t units : {1U, 2U, kMostUnits}) {
        void* block = takeUnits(units, tag);
        rm_freeMemory(block, tag);
        expectBad(block, tag);
    }
}

TEST_F(SmallSegmentPointer, IsBadWhenItsBlockHasGoneAndTheSegmentHasNot)
{
    const Drawn drawn = draw("[3] [4] [5]");
    for (const std::size_t n : {1U, 0U}) {
        rm_freeMemory(drawn.live[n], drawn.tag);
        expectBad(drawn.live[n], drawn.tag);
    }
}

// From the first byte of the map, through the heads, to what is behind the segment.
TEST_F(SmallSegmentPointer, IsBadEverywhereButAtTheBlock)
{
    for (const uint32_t units : {1U, 2U, kMostUnits}) {
        const Tag tag = newTag();
        takeUnits(units, tag);
        auto* block = static_cast<char*>(takeUnits(units, tag));
        for (char* at = block - 32 - kBeforeSmall; at < block + units * 8 + 64; ++at) {
            if (at != block) {
                expectBad(at, tag);
            }
        }
        EXPECT_EQ(rmalloc::mapHolding(rmalloc::headerOf(block + units * 8)), nullptr);
        EXPECT_EQ(linesOf([&] { rm_freeMemory(block, tag); }), Lines{});
    }
}

TEST_F(SmallSegmentPointer, IsNotFoundUnderAnotherTag)
{
    const Tag tag = newTag();
    const Tag other = newTag();
    void* block = takeUnits(6, tag);
    const std::string before = wholeHeap();
    void* result = &result;
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, other); }), rmtest::notFound(other, block));
    EXPECT_EQ(linesOf([&] { result = rm_extendMemory(block, 600, other); }),
              rmtest::notFound(other, block));
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(wholeHeap(), before);
}

// --- A map that has been written over

// Where a map that has been written over may lead. What is written or read there was not asked for.
Segment decoy;

// The first word of the block's map, which is what an overrun meets first, is another one.
class Overwritten
{
  public:
    explicit Overwritten(void* block, Segment* other = &decoy)
        : map_(rmalloc::mapOfSmall(reinterpret_cast<uintptr_t>(segmentOf(block)))),
          sound_(map_->segment)
    {
        decoy = {&decoy, 7, 7, {7, 7}};
        map_->segment = other;
    }

    ~Overwritten()
    {
        map_->segment = sound_;
        EXPECT_TRUE(decoy.next == &decoy && decoy.units == 7 && decoy.blocks == 7);
        EXPECT_TRUE(decoy.anchor.word1 == 7 && decoy.anchor.units == 7);
    }

    Overwritten(const Overwritten&) = delete;
    Overwritten& operator=(const Overwritten&) = delete;

  private:
    rmalloc::SegmentMap* map_;
    Segment* sound_;
};

TEST_F(DamagedSmallMap, TakesItsBlockOutOfUseUntilItIsMended)
{
    Mixed mixed("sss");
    void* block = mixed.blocks[1];
    auto* filled = reinterpret_cast<Segment*>(uintptr_t{0x41414141});
    for (Segment* other : {&decoy, static_cast<Segment*>(nullptr), filled, segmentOf(block) + 1}) {
        const Overwritten damage(block, other);
        expectBad(block, mixed.tag);
        linesOf([] { EXPECT_NE(rmalloc::checkMemory(), 0U); });
    }
    EXPECT_TRUE(mixed.isSound());
    EXPECT_EQ(linesOf([&] { mixed.give(1); }), Lines{});
    EXPECT_TRUE(mixed.isSound());
}

TEST_F(DamagedSmallMap, LetsTheBlocksAroundItComeAndGo)
{
    for (std::size_t damaged = 0; damaged < 4; ++damaged) {
        for (const std::size_t gone : {damaged + 1, damaged + 3}) {
            Mixed mixed("sssss");
            {
                const Overwritten damage(mixed.blocks[damaged]);
                EXPECT_EQ(linesOf([&] { mixed.give(gone % 5); }), Lines{});
                EXPECT_TRUE(mixed.isLinked()) << gone << " beside " << damaged;
            }
            EXPECT_TRUE(mixed.isSound());
        }
    }
}

TEST_F(DamagedSmallMap, OnBothSidesIsPassedByWhenTheLastLargeSegmentHasGone)
{
    for (const std::string kinds : {"lsss", "slss", "ssls", "sssl", "llsss", "lslssl"}) {
        Mixed mixed(kinds);
        for (std::size_t at = kinds.size(); at > 0; --at) {
            if (kinds[at - 1] == 'l') {
                mixed.give(at - 1);
            }
        }
        ASSERT_EQ(mixed.blocks.size(), 3U);
        {
            const Overwritten before(mixed.blocks[0]);
            const Overwritten behind(mixed.blocks[2]);
            EXPECT_EQ(linesOf([&] { mixed.give(1); }), Lines{});
            EXPECT_TRUE(mixed.isLinked()) << kinds;
        }
        EXPECT_TRUE(mixed.isSound());
        rm_freeTagMemory(mixed.tag, 1);
    }
}

// --- Without memory

// Makes each request of one kind that the call needs fail, alone, and then makes the call without a
// failure. The result is the number of failures.
int failEach(Call which, const std::function<void()>& call)
{
    for (int skip = 0;; ++skip) {
        rmalloc::trimPieces();
        rmalloc::trimPageTable();
        const std::string before = wholeHeap();
        Lines lines;
        int hits = 0;
        {
            const ScopedFault fault({.call = which, .error = ENOMEM, .skip = skip});
            lines = rmtest::fatalLines(call);
            hits = fault.hits();
        }
        if (hits == 0) {
            EXPECT_EQ(lines, Lines{"(it came back)"});
            EXPECT_EQ(rmalloc::checkMemory(), 0U);
            return skip;
        }
        EXPECT_EQ(lines, rmtest::outOfMemory()) << skip;
        EXPECT_EQ(wholeHeap(), before) << skip;
        EXPECT_EQ(rmalloc::checkMemory(), 0U) << skip;
        EXPECT_FALSE(rmsrv::inFatalPath());
    }
}

TEST_F(NoSmallSegment, LeavesNoneWhenItIsTheFirstOfAll)
{
    const Tag tag = newTag();
    const std::function<void()> take = [&] { takeUnits(4, tag); };
    EXPECT_EQ(failEach(Call::kCalloc, take), 2);  // the table's places, the units of pages
    rm_freeTagMemory(tag, 0);
    EXPECT_EQ(failEach(Call::kMalloc, take), 1);
    rm_freeTagMemory(tag, 0);
    EXPECT_EQ(failEach(Call::kAlignedAlloc, take), 0);
    EXPECT_EQ(layout(tag), "[4]");
}

TEST_F(NoSmallSegment, LeavesTheOthersWhenTheSlotsRunOut)
{
    const Tag tag = newTag();
    for (const uint32_t slots : {1U, 16U, 32U}) {
        while (rmalloc::chains[tag].segments < slots) {
            takeUnits(4, tag);
        }
        EXPECT_GE(failEach(Call::kCalloc, [&] { takeUnits(5, tag); }), 2);
        EXPECT_EQ(rmalloc::chains[tag].segments, slots + 1);
    }
}

TEST_F(NoSmallSegment, AndNoLargeOneLeaveThePagesOfTheOtherKind)
{
    for (const uint32_t units : {kMostUnits, kMostUnits + 1}) {
        for (const Call which : {Call::kMalloc, Call::kCalloc, Call::kAlignedAlloc}) {
            const Tag tag = newTag();
            for (uint32_t n = 0; n < 3; ++n) {
                takeUnits(2 * kMostUnits + 1 - units, tag);
            }
            const bool isAsked = which != Call::kAlignedAlloc || units > kMostUnits;
            EXPECT_EQ(failEach(which, [&] { takeUnits(units, tag); }) > 0, isAsked);
            EXPECT_EQ(rmalloc::chains[tag].segments, 4U);
            rm_freeTagMemory(tag, 1);
        }
    }
}

// --- Thousands of them

// What was got with malloc and has not gone: the tag table and the segments.
class Held
{
  public:
    std::set<int64_t> pieces;

  private:
    ScopedFault got_{
        {.call = Call::kMalloc, .times = kForever, .action = [this](const CallRecord& call) {
             return *pieces.insert(rmtest::passThrough(call)).first;
         }}};
    ScopedFault given_{
        {.call = Call::kFree, .times = kForever, .action = [this](const CallRecord& call) {
             pieces.erase(call.args[0]);
             return rmtest::passThrough(call);
         }}};
};

constexpr uint32_t kThousands = 5000;

TEST_F(ManySmallSegments, GoBackWithTheMemoryOfTheirTag)
{
    const Held held;
    const Tag tag = newTag();
    takeUnits(8, newTag());
    const uint32_t before = rm_memused();
    for (uint32_t n = 0; n < kThousands; ++n) {
        takeUnits(1 + n % kMostUnits, tag);
    }
    EXPECT_EQ(held.pieces.size(), kThousands + 2);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    rm_freeTagMemory(tag, 1);
    EXPECT_EQ(held.pieces.size(), 2U);
    EXPECT_EQ(rm_memused(), before);
    EXPECT_EQ(pageTable.count, 1U);
}

TEST_F(ManySmallSegments, GoBackWithAllMemory)
{
    const Held held;
    const std::vector<Tag> tags = {newTag(), newTag(), newTag()};
    for (uint32_t n = 0; n < kThousands; ++n) {
        takeUnits(1 + n * 7 % 66, tags[n % 3]);
    }
    EXPECT_EQ(held.pieces.size(), kThousands + 1);
    rm_freeall();
    EXPECT_TRUE(held.pieces.empty());
}

// They lie in a dozen regions at least, and some of them across a border.
TEST_F(ManySmallSegments, AreFoundInEveryRegionAndGoBackOneByOne)
{
    const Held held;
    const Tag tag = newTag();
    std::vector<void*> blocks(kThousands);
    for (void*& block : blocks) {
        block = takeUnits(kMostUnits, tag);
    }
    EXPECT_GE(pageTable.count, 12U);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    EXPECT_EQ(linesOf([&] {
                  for (std::size_t n = 0; n < blocks.size(); ++n) {
                      rm_freeMemory(blocks[n * 1237 % blocks.size()], tag);
                  }
              }),
              Lines{});
    EXPECT_EQ(held.pieces.size(), 1U);
    EXPECT_EQ(pageTable.count, 0U);
}
}  // namespace
