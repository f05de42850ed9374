// The two searches of the allocator, asked directly: where a block goes, and whose a pointer is.
//
// Whatever takes their place must give the same answers, so the cases ask for nothing that follows
// from how they search. That nothing is changed by asking is checked in each.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <cstdint>
#include <string>
#include <vector>

#include <sys/mman.h>

namespace
{
using rmalloc::findInTag;
using rmalloc::findOwner;
using rmalloc::firstFit;
using rmalloc::Fit;
using rmalloc::Segment;
using rmalloc::tagTable;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::headerBefore;
using rmtest::segmentsOf;
using rmtest::wholeHeap;

class FirstFit : public rmtest::HeapTest
{
};

class FindInTag : public rmtest::HeapTest
{
};

class FindOwner : public rmtest::HeapTest
{
};

// The place of a fit as text: segment, units from the start of its data area, and the place of the
// block before it in the chain, "anchor" for none. "none" when nothing fits.
std::string placeOf(Tag tag, uint32_t need)
{
    const std::string before = wholeHeap();
    const Fit fit = firstFit(&tagTable[tag], need);
    EXPECT_EQ(wholeHeap(), before);
    if (fit.segment == nullptr) {
        EXPECT_EQ(fit.block, nullptr);
        EXPECT_EQ(fit.link, nullptr);
        return "none";
    }
    const std::vector<Segment*> segments = segmentsOf(tag);
    std::size_t n = 0;
    while (n < segments.size() && segments[n] != fit.segment) {
        ++n;
    }
    const auto* data = reinterpret_cast<rmalloc::BlockHeader*>(fit.segment + 1);
    const std::string link =
        fit.link == &fit.segment->anchor ? "anchor" : std::to_string(fit.link - data);
    return std::to_string(n) + ":" + std::to_string(fit.block - data) + " after " + link;
}

rmalloc::BlockHeader* dataOf(Segment* segment)
{
    return reinterpret_cast<rmalloc::BlockHeader*>(segment + 1);
}

// --- firstFit

TEST_F(FirstFit, FindsNothingInATagWithoutSegments)
{
    EXPECT_EQ(placeOf(rm_allocTag(nullptr, RM_NO_LIMIT), 1), "none");
}

TEST_F(FirstFit, FindsNothingInAFullTag)
{
    EXPECT_EQ(placeOf(draw("[3] [2] | [4]").tag, 1), "none");
}

TEST_F(FirstFit, FindsTheFirstFreeBlockThatIsLargeEnough)
{
    const Tag tag = draw("2 [1] 4 [1] 6 [1] 4 [1]").tag;
    EXPECT_EQ(placeOf(tag, 1), "0:0 after anchor");
    EXPECT_EQ(placeOf(tag, 2), "0:0 after anchor");
    EXPECT_EQ(placeOf(tag, 3), "0:3 after 0");
    EXPECT_EQ(placeOf(tag, 4), "0:3 after 0");
    EXPECT_EQ(placeOf(tag, 5), "0:8 after 3");
    EXPECT_EQ(placeOf(tag, 6), "0:8 after 3");
    EXPECT_EQ(placeOf(tag, 7), "none");
}

TEST_F(FirstFit, FindsTheFirstBlockOfASegmentBehindTheAnchor)
{
    EXPECT_EQ(placeOf(draw("[2] 5 [1]").tag, 5), "0:2 after anchor");
}

TEST_F(FirstFit, FindsABlockAtTheEndOfASegment)
{
    EXPECT_EQ(placeOf(draw("1 [2] 5").tag, 5), "0:3 after 0");
}

TEST_F(FirstFit, GoesThroughTheSegmentsInTheOrderOfTheChain)
{
    const Tag tag = draw("2 [1] | 5 [1] | 3 [1] | 9 [1]").tag;
    EXPECT_EQ(placeOf(tag, 2), "0:0 after anchor");
    EXPECT_EQ(placeOf(tag, 3), "1:0 after anchor");
    EXPECT_EQ(placeOf(tag, 5), "1:0 after anchor");
    EXPECT_EQ(placeOf(tag, 6), "3:0 after anchor");
    EXPECT_EQ(placeOf(tag, 10), "none");
}

TEST_F(FirstFit, PassesFullSegments)
{
    EXPECT_EQ(placeOf(draw("[3] | [3] | [1] 3").tag, 2), "2:1 after anchor");
}

TEST_F(FirstFit, FollowsEveryChange)
{
    const Drawn drawn = draw("[3] [4] | 5 [1]");
    EXPECT_EQ(placeOf(drawn.tag, 3), "1:0 after anchor");
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(placeOf(drawn.tag, 3), "0:0 after anchor");
    rm_freeMemory(drawn.live[1], drawn.tag);  // the first segment goes
    EXPECT_EQ(placeOf(drawn.tag, 3), "0:0 after anchor");
    rm_getMemory(rmtest::bytesFor(3), drawn.tag);
    EXPECT_EQ(placeOf(drawn.tag, 3), "none");
    EXPECT_EQ(placeOf(drawn.tag, 2), "0:0 after anchor");
}

TEST_F(FirstFit, FindsNothingForTheLargestRequest)
{
    EXPECT_EQ(placeOf(draw("2 [1] 9 [1]").tag, rmalloc::unitsFor(0xFFFFFFFF)), "none");
}

// --- findInTag

TEST_F(FindInTag, FindsTheSegmentAndTheOneBeforeIt)
{
    const Drawn drawn = draw("2 [1] | 3 [4] | [5]");
    const std::vector<Segment*> segments = segmentsOf(drawn.tag);
    for (std::size_t n = 0; n < 3; ++n) {
        Segment* previous = segments[2];
        EXPECT_EQ(findInTag(&tagTable[drawn.tag], headerBefore(drawn.live[n]), &previous),
                  segments[n]);
        EXPECT_EQ(previous, n == 0 ? nullptr : segments[n - 1]);
    }
}

TEST_F(FindInTag, HoldsEveryUnitOfTheDataAreaAndNoMore)
{
    const Drawn drawn = draw("2 [1] 3 [4]");
    Segment* segment = segmentsOf(drawn.tag)[0];
    Segment* previous = nullptr;
    for (uint32_t unit = 0; unit < segment->units; ++unit) {
        EXPECT_EQ(findInTag(&tagTable[drawn.tag], dataOf(segment) + unit, &previous), segment);
    }
    EXPECT_EQ(findInTag(&tagTable[drawn.tag], dataOf(segment) + segment->units, &previous),
              nullptr);
}

TEST_F(FindInTag, DoesNotHoldTheSegmentsHeaderNorItsAnchor)
{
    const Drawn drawn = draw("2 [1] 3 [4]");
    Segment* segment = segmentsOf(drawn.tag)[0];
    Segment* previous = nullptr;
    EXPECT_EQ(findInTag(&tagTable[drawn.tag], &segment->anchor, &previous), nullptr);
    EXPECT_EQ(findInTag(&tagTable[drawn.tag], reinterpret_cast<rmalloc::BlockHeader*>(segment),
                        &previous),
              nullptr);
}

TEST_F(FindInTag, FindsNothingInATagWithoutSegments)
{
    const Drawn drawn = draw("2 [1]");
    const Tag empty = rm_allocTag(nullptr, RM_NO_LIMIT);
    Segment* previous = segmentsOf(drawn.tag)[0];
    EXPECT_EQ(findInTag(&tagTable[empty], headerBefore(drawn.live[0]), &previous), nullptr);
    EXPECT_EQ(previous, nullptr);
}

TEST_F(FindInTag, DoesNotFindSegmentsOfAnotherTag)
{
    const Drawn drawn = draw("2 [1]");
    const Drawn other = draw("2 [1] | [3]");
    Segment* previous = nullptr;
    EXPECT_EQ(findInTag(&tagTable[other.tag], headerBefore(drawn.live[0]), &previous), nullptr);
}

// --- findOwner

TEST_F(FindOwner, FindsTheTagWhateverTagIsAskedFirst)
{
    const Drawn first = draw("2 [1] | 3 [1]");
    const Drawn second = draw("4 [1]");
    const Drawn third = draw("[1] | [2] | [3] 1");
    rm_getMemory(1, 0);
    for (const Drawn& drawn : {first, second, third}) {
        for (void* block : drawn.live) {
            for (const int likely : {INT16_MIN, -1, 0, 1, 2, 3, 4, INT16_MAX}) {
                Segment* segment = nullptr;
                EXPECT_EQ(findOwner(headerBefore(block), static_cast<Tag>(likely), &segment),
                          drawn.tag);
                ASSERT_NE(segment, nullptr);
                Segment* previous = nullptr;
                EXPECT_EQ(segment, findInTag(&tagTable[drawn.tag], headerBefore(block), &previous));
            }
        }
    }
}

TEST_F(FindOwner, FindsTagZero)
{
    void* block = rm_getMemory(1, 0);
    Segment* segment = nullptr;
    EXPECT_EQ(findOwner(headerBefore(block), 1, &segment), 0);
    EXPECT_EQ(segment, segmentsOf(0)[0]);
}

TEST_F(FindOwner, GivesMinusOneForAPointerInNoSegment)
{
    const Drawn drawn = draw("2 [1]");
    alignas(8) char bytes[16] = "";
    for (const int likely : {-1, 0, 1, 2}) {
        Segment* segment = segmentsOf(drawn.tag)[0];
        EXPECT_EQ(findOwner(headerBefore(bytes + 8), static_cast<Tag>(likely), &segment), -1);
        EXPECT_EQ(segment, nullptr);
    }
}

TEST_F(FindOwner, ReadsNothingAtThePointer)
{
    draw("2 [1]");
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    Segment* segment = nullptr;
    EXPECT_EQ(findOwner(static_cast<rmalloc::BlockHeader*>(page), 1, &segment), -1);
    munmap(page, 4096);
}

TEST_F(FindOwner, ForgetsASegmentThatHasGone)
{
    const Drawn drawn = draw("[2] | [3]");
    rmalloc::BlockHeader* gone = headerBefore(drawn.live[0]);
    rm_freeMemory(drawn.live[0], drawn.tag);
    Segment* segment = nullptr;
    EXPECT_EQ(findOwner(gone, drawn.tag, &segment), -1);
}

TEST_F(FindOwner, ForgetsTheSegmentsOfAReleasedTag)
{
    const Drawn drawn = draw("[2] | [3]");
    rmalloc::BlockHeader* gone = headerBefore(drawn.live[1]);
    rm_freeTagMemory(drawn.tag, 1);
    Segment* segment = nullptr;
    EXPECT_EQ(findOwner(gone, drawn.tag, &segment), -1);
}

TEST_F(FindOwner, GivesMinusOneBeforeAnyTable)
{
    alignas(8) char bytes[16] = "";
    Segment* segment = nullptr;
    EXPECT_EQ(findOwner(headerBefore(bytes + 8), 0, &segment), -1);
}
}  // namespace
