// The two searches of the allocator, asked directly: where a block goes, and whose a pointer is.
//
// The cases ask for nothing that follows from how they search. That nothing in the heap is changed
// by asking is checked in each.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/segments.h"

#include <cstdint>
#include <string>
#include <vector>

#include <sys/mman.h>

namespace
{
using rmalloc::findInTag;
using rmalloc::firstFit;
using rmalloc::FreeBlock;
using rmalloc::mapHolding;
using rmalloc::Segment;
using rmalloc::SegmentMap;
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
    const FreeBlock fit = firstFit(&rmalloc::chains[tag], need, 0);
    EXPECT_EQ(wholeHeap(), before);
    if (fit.map == nullptr) {
        return "none";
    }
    const std::vector<Segment*> segments = segmentsOf(tag);
    std::size_t n = 0;
    while (n < segments.size() && segments[n] != fit.map->segment) {
        ++n;
    }
    const uint32_t link = freeBefore(fit.map, fit.offset);
    EXPECT_EQ(blockAt(fit.map->segment, link)->word1, fit.offset);
    EXPECT_EQ(blockAt(fit.map->segment, fit.offset)->units, fit.units);
    return std::to_string(n) + ":" + std::to_string(fit.offset - 1) + " after " +
           (link == 0 ? "anchor" : std::to_string(link - 1));
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

TEST_F(FindInTag, FindsTheSegmentOfEachBlock)
{
    const Drawn drawn = draw("2 [1] | 3 [4] | [5]");
    const std::vector<Segment*> segments = segmentsOf(drawn.tag);
    for (std::size_t n = 0; n < 3; ++n) {
        EXPECT_EQ(findInTag(drawn.tag, headerBefore(drawn.live[n])), segments[n]);
    }
}

TEST_F(FindInTag, HoldsEveryUnitOfTheDataAreaAndNoMore)
{
    const Drawn drawn = draw("2 [1] 3 [4]");
    Segment* segment = segmentsOf(drawn.tag)[0];
    for (uint32_t unit = 0; unit < segment->units; ++unit) {
        EXPECT_EQ(findInTag(drawn.tag, dataOf(segment) + unit), segment);
    }
    EXPECT_EQ(findInTag(drawn.tag, dataOf(segment) + segment->units), nullptr);
}

TEST_F(FindInTag, DoesNotHoldTheSegmentsHeaderNorItsAnchor)
{
    const Drawn drawn = draw("2 [1] 3 [4]");
    Segment* segment = segmentsOf(drawn.tag)[0];
    EXPECT_EQ(findInTag(drawn.tag, &segment->anchor), nullptr);
    EXPECT_EQ(findInTag(drawn.tag, reinterpret_cast<rmalloc::BlockHeader*>(segment)), nullptr);
}

TEST_F(FindInTag, FindsNothingInATagWithoutSegments)
{
    const Drawn drawn = draw("2 [1]");
    const Tag empty = rm_allocTag(nullptr, RM_NO_LIMIT);
    EXPECT_EQ(findInTag(empty, headerBefore(drawn.live[0])), nullptr);
}

TEST_F(FindInTag, DoesNotFindSegmentsOfAnotherTag)
{
    const Drawn drawn = draw("2 [1]");
    const Drawn other = draw("2 [1] | [3]");
    EXPECT_EQ(findInTag(other.tag, headerBefore(drawn.live[0])), nullptr);
}

// --- mapHolding

// The tag of the segment that the header lies in; -1 when it lies in none.
int ownerOf(const rmalloc::BlockHeader* header)
{
    const SegmentMap* map = mapHolding(header);
    return map == nullptr ? -1 : map->tag;
}

TEST_F(FindOwner, FindsTheTagOfEachBlock)
{
    const Drawn first = draw("2 [1] | 3 [1]");
    const Drawn second = draw("4 [1]");
    const Drawn third = draw("[1] | [2] | [3] 1");
    rm_getMemory(1, 0);
    for (const Drawn& drawn : {first, second, third}) {
        for (void* block : drawn.live) {
            ASSERT_EQ(ownerOf(headerBefore(block)), drawn.tag);
            EXPECT_EQ(mapHolding(headerBefore(block))->segment,
                      findInTag(drawn.tag, headerBefore(block)));
        }
    }
}

TEST_F(FindOwner, FindsTagZero)
{
    void* block = rm_getMemory(1, 0);
    ASSERT_EQ(ownerOf(headerBefore(block)), 0);
    EXPECT_EQ(mapHolding(headerBefore(block))->segment, segmentsOf(0)[0]);
}

TEST_F(FindOwner, GivesNoneForAPointerInNoSegment)
{
    draw("2 [1]");
    alignas(8) char bytes[16] = "";
    EXPECT_EQ(ownerOf(headerBefore(bytes + 8)), -1);
}

TEST_F(FindOwner, ReadsNothingAtThePointer)
{
    draw("2 [1]");
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    EXPECT_EQ(ownerOf(static_cast<rmalloc::BlockHeader*>(page)), -1);
    munmap(page, 4096);
}

TEST_F(FindOwner, ForgetsASegmentThatHasGone)
{
    const Drawn drawn = draw("[2] | [3]");
    const rmalloc::BlockHeader* gone = headerBefore(drawn.live[0]);
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(ownerOf(gone), -1);
}

TEST_F(FindOwner, ForgetsTheSegmentsOfAReleasedTag)
{
    const Drawn drawn = draw("[2] | [3]");
    const rmalloc::BlockHeader* gone = headerBefore(drawn.live[1]);
    rm_freeTagMemory(drawn.tag, 1);
    EXPECT_EQ(ownerOf(gone), -1);
}

TEST_F(FindOwner, GivesNoneBeforeAnyTable)
{
    alignas(8) char bytes[16] = "";
    EXPECT_EQ(ownerOf(headerBefore(bytes + 8)), -1);
}
}  // namespace
