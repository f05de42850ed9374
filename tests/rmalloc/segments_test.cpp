// Segments and blocks: sizes, the place of each block, what happens when one is given back.
//
// Cases are drawings, see heap.h: "4 [2]" is a segment with 4 free units below a live block of 2.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace
{
using rmtest::allocated;
using rmtest::bytesFor;
using rmtest::Call;
using rmtest::callCount;
using rmtest::callTrace;
using rmtest::corruptedChain;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::fatalLines;
using rmtest::headerBefore;
using rmtest::kFirstTable;
using rmtest::layout;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::offsetInSegment;
using rmtest::outOfMemory;
using rmtest::ScopedFault;
using rmtest::segmentsOf;
using rmtest::wholeHeap;

class Units : public rmtest::HeapTest
{
};

class SegmentSize : public rmtest::HeapTest
{
};

class SegmentHeader : public rmtest::HeapTest
{
};

class BlockHeader : public rmtest::HeapTest
{
};

class Taking : public rmtest::HeapTest
{
};

class GivingBack : public rmtest::HeapTest
{
};

class EmptySegment : public rmtest::HeapTest
{
};

class DamagedChain : public rmtest::HeapTest
{
};

Tag newTag()
{
    return rm_allocTag(nullptr, RM_NO_LIMIT);
}

void* take(uint32_t units, Tag tag)
{
    return rm_getMemory(bytesFor(units), tag);
}

// The chain of a segment as it is linked: offsets in units from the start of the data area.
std::vector<uint32_t> freeChain(Tag tag, std::size_t n = 0)
{
    rmalloc::Segment* segment = segmentsOf(tag).at(n);
    std::vector<uint32_t> chain;
    for (const rmalloc::BlockHeader* at = &segment->anchor; at->word1 != 0;) {
        at = &segment->anchor + at->word1;
        chain.push_back(static_cast<uint32_t>(at - &segment->anchor) - 1);
    }
    return chain;
}

// --- Units of a request

TEST_F(Units, OfARequestForNothingIsTheHeaderAlone)
{
    const Tag tag = newTag();
    rm_getMemory(0, tag);
    EXPECT_EQ(layout(tag), "1020 [1]");
    EXPECT_EQ(allocated(tag), 8U);
}

TEST_F(Units, AreTwoForOneToEightBytes)
{
    for (uint32_t size = 1; size <= 8; ++size) {
        const Tag tag = newTag();
        rm_getMemory(size, tag);
        EXPECT_EQ(layout(tag), "1019 [2]") << size;
        EXPECT_EQ(allocated(tag), 16U) << size;
    }
}

TEST_F(Units, AreThreeForTenBytes)
{
    const Tag tag = newTag();
    rm_getMemory(10, tag);
    EXPECT_EQ(layout(tag), "1018 [3]");
    EXPECT_EQ(allocated(tag), 24U);
}

TEST_F(Units, RoundUpAtEveryMultipleOfEight)
{
    for (uint32_t size = 0; size < 4000; ++size) {
        ASSERT_EQ(rmalloc::unitsFor(size), (size + 7) / 8 + 1) << size;
    }
}

TEST_F(Units, OfTheLargestRequestsDoNotWrap)
{
    EXPECT_EQ(rmalloc::unitsFor(0xFFFFFFFF), 0x20000001U);
    EXPECT_EQ(rmalloc::unitsFor(0xFFFFFFF9), 0x20000001U);
    EXPECT_EQ(rmalloc::unitsFor(0xFFFFFFF8), 0x20000000U);
}

// --- The size of a segment

TEST_F(SegmentSize, Is8192BytesForASmallRequestInANewTag)
{
    const Tag tag = newTag();
    rm_getMemory(1, tag);
    EXPECT_EQ(callTrace({Call::kMalloc}).back().args[0], 8192);
    EXPECT_EQ(segmentsOf(tag)[0]->units, 1021U);
    EXPECT_EQ(rm_memused(), kFirstTable + 8192);
}

TEST_F(SegmentSize, Is49152BytesForTagZero)
{
    rm_getMemory(1, 0);
    EXPECT_EQ(callTrace({Call::kMalloc}).back().args[0], 49152);
    EXPECT_EQ(segmentsOf(0)[0]->units, 6141U);
    EXPECT_EQ(rm_memused(), kFirstTable + 49152);
}

TEST_F(SegmentSize, IsTheTagsForTheLargestRequestBelowIt)
{
    const Tag tag = newTag();
    take(1020, tag);
    EXPECT_EQ(layout(tag), "1 [1020]");
    EXPECT_EQ(rm_memused(), kFirstTable + 8192);
}

TEST_F(SegmentSize, IsTheTagsForARequestThatFillsIt)
{
    const Tag tag = newTag();
    take(1021, tag);
    EXPECT_EQ(layout(tag), "[1021]");
    EXPECT_EQ(rm_memused(), kFirstTable + 8192);
}

TEST_F(SegmentSize, IsTheRequestsAboveTheTags)
{
    const Tag tag = newTag();
    take(1022, tag);
    EXPECT_EQ(layout(tag), "[1022]");
    EXPECT_EQ(rm_memused(), kFirstTable + 8192 + 8);
}

TEST_F(SegmentSize, IsTheTagsAgainForTheNextSmallRequest)
{
    const Tag tag = newTag();
    rm_getMemory(100'000, tag);
    rm_getMemory(10, tag);
    EXPECT_EQ(layout(tag), "[12501] | 1018 [3]");
    EXPECT_EQ(rm_memused(), kFirstTable + 12501 * 8 + 24 + 8192);
}

TEST_F(SegmentSize, IsTheRequestsAlwaysWithSegAlloc)
{
    const Tag tag = newTag();
    seg_alloc = 1;
    take(1, tag);
    take(1021, tag);
    take(1022, tag);
    EXPECT_EQ(layout(tag), "[1] | [1021] | [1022]");
    EXPECT_EQ(rm_memused(), kFirstTable + (1 + 1021 + 1022) * 8 + 3 * 24);
}

TEST_F(SegmentSize, WithSegAllocFreeSpaceOfAnEarlierSegmentIsUsedAllTheSame)
{
    const Tag tag = newTag();
    take(3, tag);
    seg_alloc = 1;
    take(2, tag);
    EXPECT_EQ(layout(tag), "1016 [2] [3]");
}

TEST_F(SegmentSize, WithSegAllocASegmentGoesBackWithItsBlock)
{
    const Tag tag = newTag();
    seg_alloc = 1;
    take(5, tag);
    void* block = take(7, tag);
    rm_freeMemory(block, tag);
    EXPECT_EQ(layout(tag), "[5]");
    EXPECT_EQ(rm_memused(), kFirstTable + 5 * 8 + 24);
}

// --- What stands before the data area

TEST_F(SegmentHeader, IsTwentyFourBytes)
{
    EXPECT_EQ(sizeof(rmalloc::Segment), 24U);
    const Tag tag = newTag();
    EXPECT_EQ(offsetInSegment(take(1021, tag), tag), 24 + 8);
}

TEST_F(SegmentHeader, CountsUnitsAndLiveBlocks)
{
    const Drawn drawn = draw("3 [2] 1 [4] [1]");
    const rmalloc::Segment* segment = segmentsOf(drawn.tag)[0];
    EXPECT_EQ(segment->units, 11U);
    EXPECT_EQ(segment->blocks, 3U);
}

TEST_F(SegmentHeader, EndsWithAnAnchorOfNoUnits)
{
    const Drawn drawn = draw("3 [2] 1 [4]");
    const rmalloc::Segment* segment = segmentsOf(drawn.tag)[0];
    EXPECT_EQ(segment->anchor.units, 0U);
    EXPECT_EQ(reinterpret_cast<const char*>(&segment->anchor) + 8,
              reinterpret_cast<const char*>(segment + 1));
}

TEST_F(SegmentHeader, HasAnEmptyAnchorWhenNothingIsFree)
{
    const Drawn drawn = draw("[2] [4]");
    EXPECT_EQ(segmentsOf(drawn.tag)[0]->anchor.word1, 0U);
}

TEST_F(SegmentHeader, LinksTheSegmentsInTheOrderInWhichTheyWereGot)
{
    const Drawn drawn = draw("[2] | [3] | [4]");
    const auto segments = segmentsOf(drawn.tag);
    ASSERT_EQ(segments.size(), 3U);
    EXPECT_EQ(segments[0]->next, segments[1]);
    EXPECT_EQ(segments[1]->next, segments[2]);
    EXPECT_EQ(segments[2]->next, nullptr);
}

// --- What stands before a block

TEST_F(BlockHeader, IsTheMagicAndTheUnitsInALiveBlock)
{
    const Tag tag = newTag();
    const rmalloc::BlockHeader* header = headerBefore(rm_getMemory(10, tag));
    EXPECT_EQ(header->word1, 0xFFEEDDCCU);
    EXPECT_EQ(header->units, 3U);
}

TEST_F(BlockHeader, IsEightBytesBeforeThePointer)
{
    const Tag tag = newTag();
    EXPECT_EQ(offsetInSegment(take(3, tag), tag), 24 + 1018 * 8 + 8);
}

TEST_F(BlockHeader, IsTheLinkAndTheUnitsInAFreeBlock)
{
    const Drawn drawn = draw("3 [2] 4 [5]");
    rmalloc::Segment* segment = segmentsOf(drawn.tag)[0];
    const auto* blocks = reinterpret_cast<const rmalloc::BlockHeader*>(segment + 1);
    EXPECT_EQ(blocks[0].word1, 6U);  // the second free block, counted from the anchor
    EXPECT_EQ(blocks[0].units, 3U);
    EXPECT_EQ(blocks[5].word1, 0U);
    EXPECT_EQ(blocks[5].units, 4U);
}

TEST_F(BlockHeader, LosesTheMagicWhenTheBlockIsFreed)
{
    const Drawn drawn = draw("[2] [2] [2]");
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_NE(headerBefore(drawn.live[1])->word1, 0xFFEEDDCCU);
}

TEST_F(BlockHeader, LosesTheMagicAlsoWhenALowerBlockAbsorbsIt)
{
    const Drawn drawn = draw("3 [2] [2]");
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_NE(headerBefore(drawn.live[0])->word1, 0xFFEEDDCCU);
}

// --- Taking: first fit, from the high end

TEST_F(Taking, CutsTheBlockFromTheHighEnd)
{
    const Tag tag = newTag();
    take(3, tag);
    take(2, tag);
    take(10, tag);
    EXPECT_EQ(layout(tag), "1006 [10] [2] [3]");
}

TEST_F(Taking, LeavesTheRestInItsPlaceInTheChain)
{
    const Drawn drawn = draw("2 [1] 9 [1] 3 [1]");
    take(4, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] 5 [4] [1] 3 [1]");
    EXPECT_EQ(freeChain(drawn.tag), (std::vector<uint32_t>{0, 3, 13}));
}

TEST_F(Taking, UnlinksABlockThatFitsExactly)
{
    const Drawn drawn = draw("2 [1] 4 [1] 3 [1]");
    take(4, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] [4] [1] 3 [1]");
    EXPECT_EQ(freeChain(drawn.tag), (std::vector<uint32_t>{0, 8}));
}

TEST_F(Taking, UnlinksTheFirstFreeBlockWhenItFitsExactly)
{
    const Drawn drawn = draw("4 [1] 3 [1]");
    take(4, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[4] [1] 3 [1]");
    EXPECT_EQ(freeChain(drawn.tag), std::vector<uint32_t>{5});
}

TEST_F(Taking, UnlinksTheLastFreeBlockWhenItFitsExactly)
{
    const Drawn drawn = draw("2 [1] 3 [1]");
    take(3, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] [3] [1]");
    EXPECT_EQ(freeChain(drawn.tag), std::vector<uint32_t>{0});
}

TEST_F(Taking, KeepsARestOfOneUnitAsAFreeBlock)
{
    const Drawn drawn = draw("[1] 5 [1]");
    take(4, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[1] 1 [4] [1]");
    EXPECT_EQ(freeChain(drawn.tag), std::vector<uint32_t>{1});
}

TEST_F(Taking, UsesARestOfOneUnitForARequestOfNothing)
{
    const Drawn drawn = draw("[2] 1 [3]");
    void* block = rm_getMemory(0, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[2] [1] [3]");
    EXPECT_EQ(offsetInSegment(block, drawn.tag), 24 + 2 * 8 + 8);
}

TEST_F(Taking, UsesTheFirstFreeBlockThatIsLargeEnough)
{
    const Drawn drawn = draw("2 [1] 6 [1] 8 [1]");
    take(4, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] 2 [4] [1] 8 [1]");
}

TEST_F(Taking, DoesNotLookForABetterFitFurtherUp)
{
    const Drawn drawn = draw("9 [1] 4 [1]");
    take(4, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "5 [4] [1] 4 [1]");
}

TEST_F(Taking, SearchesSegmentsInTheOrderOfTheirChain)
{
    const Drawn drawn = draw("2 [1] | 5 [1] | 9 [1]");
    take(4, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] | 1 [4] [1] | 9 [1]");
}

TEST_F(Taking, DoesNotLookForABetterFitInALaterSegment)
{
    const Drawn drawn = draw("9 [1] | 4 [1]");
    take(4, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "5 [4] [1] | 4 [1]");
}

TEST_F(Taking, ComesBackToAnEarlierSegmentThatHasRoomAgain)
{
    const Drawn drawn = draw("[4] [1] | [2] | 6 [1]");
    rm_freeMemory(drawn.live[0], drawn.tag);
    take(3, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "1 [3] [1] | [2] | 6 [1]");
}

TEST_F(Taking, AppendsANewSegmentAfterTheLastOne)
{
    const Drawn drawn = draw("2 [1] | 3 [1]");
    rm_setTagAlloc(104, drawn.tag);
    take(4, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] | 3 [1] | 6 [4]");
}

TEST_F(Taking, GoesOnInTheNewSegment)
{
    const Drawn drawn = draw("2 [1]");
    rm_setTagAlloc(104, drawn.tag);
    take(3, drawn.tag);
    take(4, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] | 3 [4] [3]");
}

TEST_F(Taking, TakesAWholeFreeSegment)
{
    const Tag tag = newTag();
    rm_setTagAlloc(104, tag);
    take(10, tag);
    EXPECT_EQ(layout(tag), "[10]");
    EXPECT_EQ(freeChain(tag), std::vector<uint32_t>{});
}

TEST_F(Taking, CountsTheBlockInItsSegmentAndTag)
{
    const Drawn drawn = draw("9 [1]");
    take(4, drawn.tag);
    EXPECT_EQ(segmentsOf(drawn.tag)[0]->blocks, 2U);
    EXPECT_EQ(allocated(drawn.tag), 5 * 8U);
}

TEST_F(Taking, DoesNotUseSegmentsOfAnotherTag)
{
    const Drawn other = draw("9 [1]");
    const Tag tag = newTag();
    take(3, tag);
    EXPECT_EQ(layout(other.tag), "9 [1]");
    EXPECT_EQ(layout(tag), "1018 [3]");
}

TEST_F(Taking, AsksThePlatformOnlyWhenNothingFits)
{
    const Drawn drawn = draw("9 [1] | 4 [1]");
    const int mallocs = callCount(Call::kMalloc);
    take(9, drawn.tag);
    take(4, drawn.tag);
    EXPECT_EQ(callCount(Call::kMalloc), mallocs);
    take(1, drawn.tag);
    EXPECT_EQ(callCount(Call::kMalloc), mallocs + 1);
}

TEST_F(Taking, ChangesNothingWhenNoSegmentCanBeHad)
{
    const Drawn drawn = draw("9 [1] | 4 [1]");
    const std::string before = wholeHeap();
    Lines lines;
    {
        ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
        lines = fatalLines([&] { take(10, drawn.tag); });
    }
    EXPECT_EQ(lines, outOfMemory());
    EXPECT_EQ(wholeHeap(), before);
}

// --- Giving back: merged with free neighbours

TEST_F(GivingBack, LinksABlockBetweenLiveOnes)
{
    const Drawn drawn = draw("[2] [3] [4]");
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[2] 3 [4]");
    EXPECT_EQ(freeChain(drawn.tag), std::vector<uint32_t>{2});
}

TEST_F(GivingBack, MergesWithTheFreeBlockAbove)
{
    const Drawn drawn = draw("[1] [3] 4 [1]");
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[1] 7 [1]");
    EXPECT_EQ(freeChain(drawn.tag), std::vector<uint32_t>{1});
}

TEST_F(GivingBack, MergesWithTheFreeBlockBelow)
{
    const Drawn drawn = draw("[1] 4 [3] [1]");
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[1] 7 [1]");
    EXPECT_EQ(freeChain(drawn.tag), std::vector<uint32_t>{1});
}

TEST_F(GivingBack, MergesWithTheFreeBlocksOnBothSides)
{
    const Drawn drawn = draw("[1] 4 [3] 5 [1]");
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[1] 12 [1]");
    EXPECT_EQ(freeChain(drawn.tag), std::vector<uint32_t>{1});
}

TEST_F(GivingBack, MergesWithBareHeadersOnBothSides)
{
    const Drawn drawn = draw("1 [1] 1 [1]");
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "3 [1]");
}

TEST_F(GivingBack, DoesNotMergeTheFirstBlockWithTheAnchor)
{
    const Drawn drawn = draw("[3] [1]");
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "3 [1]");
    EXPECT_EQ(segmentsOf(drawn.tag)[0]->anchor.units, 0U);
    EXPECT_EQ(segmentsOf(drawn.tag)[0]->anchor.word1, 1U);
}

TEST_F(GivingBack, KeepsTheTailOfTheChainWhenItMergesInTheMiddle)
{
    const Drawn drawn = draw("2 [1] 2 [2] 2 [1] 2 [1]");
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] 6 [1] 2 [1]");
    EXPECT_EQ(freeChain(drawn.tag), (std::vector<uint32_t>{0, 3, 10}));
}

TEST_F(GivingBack, LinksABlockBelowTheFirstFreeOneAfterTheAnchor)
{
    const Drawn drawn = draw("[2] [1] 3 [1] 2 [1]");
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] 3 [1] 2 [1]");
    EXPECT_EQ(freeChain(drawn.tag), (std::vector<uint32_t>{0, 3, 7}));
}

TEST_F(GivingBack, LinksABlockBetweenTwoFreeOnesInTheOrderOfAddresses)
{
    const Drawn drawn = draw("2 [1] [2] [1] 2 [1]");
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(freeChain(drawn.tag), (std::vector<uint32_t>{0, 3, 6}));
}

TEST_F(GivingBack, LinksABlockAboveTheLastFreeOneAtTheEnd)
{
    const Drawn drawn = draw("2 [1] 2 [1] [2]");
    rm_freeMemory(drawn.live[2], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] 2 [1] 2");
    EXPECT_EQ(freeChain(drawn.tag), (std::vector<uint32_t>{0, 3, 6}));
}

TEST_F(GivingBack, KeepsTheChainInOrderWhateverTheOrderOfFreeing)
{
    const Drawn drawn = draw("[2] [1] [2] [1] [2] [1] [2] [1]");
    for (const std::size_t i : {4U, 0U, 6U, 2U}) {
        rm_freeMemory(drawn.live[i], drawn.tag);
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
    }
    EXPECT_EQ(layout(drawn.tag), "2 [1] 2 [1] 2 [1] 2 [1]");
    EXPECT_EQ(freeChain(drawn.tag), (std::vector<uint32_t>{0, 3, 6, 9}));
}

TEST_F(GivingBack, LowersTheAllocatedBytesByTheWholeBlock)
{
    const Drawn drawn = draw("[3] [1]");
    EXPECT_EQ(allocated(drawn.tag), 32U);
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(allocated(drawn.tag), 8U);
}

TEST_F(GivingBack, CountsTheBlockNotItsMergedSize)
{
    const Drawn drawn = draw("4 [3] 5 [1]");
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(allocated(drawn.tag), 8U);
    EXPECT_EQ(segmentsOf(drawn.tag)[0]->blocks, 1U);
}

TEST_F(GivingBack, LeavesMemusedWhileTheSegmentHoldsABlock)
{
    const Drawn drawn = draw("[3] [1]");
    const uint32_t before = rm_memused();
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(rm_memused(), before);
}

TEST_F(GivingBack, LetsTheSameRequestHaveTheSamePlace)
{
    const Drawn drawn = draw("[2] [3] [4]");
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(take(3, drawn.tag), drawn.live[1]);
}

// --- Segments without a live block

TEST_F(EmptySegment, GoesBackAtOnceWithItsLastBlock)
{
    const Tag tag = newTag();
    void* block = rm_getMemory(10, tag);
    const auto segment = reinterpret_cast<intptr_t>(segmentsOf(tag)[0]);
    rm_freeMemory(block, tag);
    EXPECT_EQ(layout(tag), "");
    EXPECT_EQ(rm_memused(), kFirstTable);
    const auto frees = callTrace({Call::kFree});
    EXPECT_EQ(std::count_if(frees.begin(), frees.end(),
                            [&](const auto& call) { return call.args[0] == segment; }),
              1);
}

TEST_F(EmptySegment, GoesBackWhicheverBlockIsTheLast)
{
    for (const std::size_t last : {0U, 1U, 2U}) {
        const Drawn drawn = draw("2 [2] [3] 1 [4]");
        for (std::size_t i = 0; i < 3; ++i) {
            if (i != last) {
                rm_freeMemory(drawn.live[i], drawn.tag);
            }
        }
        EXPECT_EQ(segmentsOf(drawn.tag).size(), 1U);
        rm_freeMemory(drawn.live[last], drawn.tag);
        EXPECT_EQ(segmentsOf(drawn.tag).size(), 0U) << last;
        EXPECT_EQ(allocated(drawn.tag), 0U);
    }
}

TEST_F(EmptySegment, LeavesTheChainAtItsHead)
{
    const Drawn drawn = draw("[2] | [3] | [4]");
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[3] | [4]");
    EXPECT_EQ(rm_memused(), kFirstTable + 7 * 8 + 2 * 24);
}

TEST_F(EmptySegment, LeavesTheChainInTheMiddle)
{
    const Drawn drawn = draw("[2] | [3] | [4]");
    rm_freeMemory(drawn.live[1], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[2] | [4]");
    EXPECT_EQ(rm_memused(), kFirstTable + 6 * 8 + 2 * 24);
}

TEST_F(EmptySegment, LeavesTheChainAtItsEnd)
{
    const Drawn drawn = draw("[2] | [3] | [4]");
    rm_freeMemory(drawn.live[2], drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[2] | [3]");
    EXPECT_EQ(rm_memused(), kFirstTable + 5 * 8 + 2 * 24);
}

TEST_F(EmptySegment, IsGotAnewByTheNextRequest)
{
    const Tag tag = newTag();
    const int mallocs = callCount(Call::kMalloc);
    for (int i = 0; i < 3; ++i) {
        rm_freeMemory(rm_getMemory(10, tag), tag);
    }
    EXPECT_EQ(callCount(Call::kMalloc), mallocs + 3);
}

TEST_F(EmptySegment, ComesToTheEndOfTheChainWhenItIsGotAnew)
{
    const Drawn drawn = draw("[2] | [3] | [4]");
    rm_freeMemory(drawn.live[0], drawn.tag);
    rm_setTagAlloc(0, drawn.tag);
    take(2, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[3] | [4] | [2]");
}

// --- A free chain that an overrun has damaged

// The heap is put right again at the end of each case, since the fixture checks it.
void expectRefused(const Drawn& drawn, rmalloc::BlockHeader* damaged, uint32_t link)
{
    const uint32_t sound = damaged->word1;
    damaged->word1 = link;
    const std::string before = wholeHeap();
    void* block = drawn.live[2];
    void* extended = block;
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, drawn.tag); }), Lines{corruptedChain(block)});
    EXPECT_EQ(linesOf([&] { extended = rm_extendMemory(block, 100, drawn.tag); }),
              Lines{corruptedChain(block)});
    EXPECT_EQ(extended, nullptr);
    EXPECT_EQ(damaged->word1, link);
    EXPECT_EQ(headerBefore(block)->word1, 0xFFEEDDCCU);
    EXPECT_EQ(wholeHeap(), before);
    damaged->word1 = sound;
}

const char* const kDamagedDrawing = "2 [1] 3 [1] [2] 1 [1]";

TEST_F(DamagedChain, ThatLinksBackIsReportedAndNothingIsChanged)
{
    const Drawn drawn = draw(kDamagedDrawing);
    rmalloc::Segment* segment = segmentsOf(drawn.tag)[0];
    expectRefused(drawn, &segment->anchor + 4, 1);
}

TEST_F(DamagedChain, ThatLinksToItselfIsReportedAndNothingIsChanged)
{
    const Drawn drawn = draw(kDamagedDrawing);
    rmalloc::Segment* segment = segmentsOf(drawn.tag)[0];
    expectRefused(drawn, &segment->anchor + 4, 4);
}

TEST_F(DamagedChain, ThatLeavesTheSegmentIsReportedAndNothingIsChanged)
{
    const Drawn drawn = draw(kDamagedDrawing);
    rmalloc::Segment* segment = segmentsOf(drawn.tag)[0];
    expectRefused(drawn, &segment->anchor + 4, segment->units + 1);
    expectRefused(drawn, &segment->anchor + 4, 0x41414141);
    expectRefused(drawn, &segment->anchor + 4, 0xFFFFFFFF);
}

TEST_F(DamagedChain, IsReportedAtTheAnchorToo)
{
    const Drawn drawn = draw(kDamagedDrawing);
    rmalloc::Segment* segment = segmentsOf(drawn.tag)[0];
    expectRefused(drawn, &segment->anchor, 0x41414141);
}

TEST_F(DamagedChain, WithAFreeBlockThatLeavesTheSegmentIsReportedAndNothingIsChanged)
{
    const Drawn drawn = draw(kDamagedDrawing);
    rmalloc::Segment* segment = segmentsOf(drawn.tag)[0];
    rmalloc::BlockHeader* damaged = &segment->anchor + 4;
    void* block = drawn.live[2];
    for (const uint32_t units : {0U, segment->units - 2, 0x41414141U, 0xFFFFFFFFU}) {
        damaged->units = units;
        const std::string before = wholeHeap();
        EXPECT_EQ(linesOf([&] { rm_freeMemory(block, drawn.tag); }), Lines{corruptedChain(block)})
            << units;
        EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_extendMemory(block, 8, drawn.tag), nullptr); }),
                  Lines{corruptedChain(block)})
            << units;
        EXPECT_EQ(wholeHeap(), before);
    }
    damaged->units = 3;
}

TEST_F(DamagedChain, WithAFreeBlockThatLeavesTheSegmentIsNotUsed)
{
    const Drawn drawn = draw("[1] 3 [1]");
    rmalloc::BlockHeader* damaged = &segmentsOf(drawn.tag)[0]->anchor + 2;
    rm_setTagAlloc(104, drawn.tag);
    damaged->units = 0x41414141;
    take(3, drawn.tag);
    damaged->units = 3;
    EXPECT_EQ(layout(drawn.tag), "[1] 3 [1] | 7 [3]");
}

TEST_F(DamagedChain, ThatIsPutRightIsUsedFromThenOn)
{
    const Drawn drawn = draw("[1] 3 [1]");
    rmalloc::BlockHeader* damaged = &segmentsOf(drawn.tag)[0]->anchor + 2;
    rm_setTagAlloc(104, drawn.tag);
    damaged->units = 2;
    take(2, drawn.tag);
    damaged->units = 3;
    take(2, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[1] 1 [2] [1] | 8 [2]");
}

// The search goes on in the next segment and not behind the damaged block.
TEST_F(DamagedChain, WithADamagedBlockThatWouldFitLeadsToTheNextSegment)
{
    const Drawn drawn = draw("5 [1] 5 [1] | 7 [1]");
    rmalloc::BlockHeader* damaged = &segmentsOf(drawn.tag)[0]->anchor + 1;
    damaged->units = 0;
    take(3, drawn.tag);
    damaged->units = 5;
    EXPECT_EQ(layout(drawn.tag), "5 [1] 5 [1] | 4 [3] [1]");
}

TEST_F(DamagedChain, FurtherDownDoesNotMatterWhenABlockIsCut)
{
    const Drawn drawn = draw("2 [1] 3 [1] 9 [1]");
    rmalloc::BlockHeader* damaged = &segmentsOf(drawn.tag)[0]->anchor + 4;
    const uint32_t sound = damaged->word1;
    damaged->word1 = 0x41414141;
    take(5, drawn.tag);
    damaged->word1 = sound;
    EXPECT_EQ(layout(drawn.tag), "2 [1] 3 [1] 4 [5] [1]");
}

TEST_F(DamagedChain, FurtherDownOrUpDoesNotMatterWhenABlockIsGivenBackOrExtended)
{
    const Drawn drawn = draw("3 [1] 2 [2] [1] 2 [1] [2] 1 [1] 3 [1]");
    rmalloc::Segment* segment = segmentsOf(drawn.tag)[0];
    rmalloc::BlockHeader* low = &segment->anchor + 1;
    rmalloc::BlockHeader* high = &segment->anchor + 17;
    const rmalloc::BlockHeader lowSound = *low;
    const rmalloc::BlockHeader highSound = *high;
    ASSERT_EQ(lowSound.units, 3U);
    ASSERT_EQ(highSound.units, 3U);
    *low = {0x41414141, 0xFFFFFFFF};
    *high = {4, 0};
    EXPECT_EQ(linesOf([&] { rm_freeMemory(drawn.live[1], drawn.tag); }), Lines{});
    EXPECT_EQ(linesOf([&] { EXPECT_NE(rm_extendMemory(drawn.live[4], 16, drawn.tag), nullptr); }),
              Lines{});
    *low = lowSound;
    *high = highSound;
    EXPECT_EQ(layout(drawn.tag), "3 [1] 4 [1] 2 [1] [3] [1] 3 [1]");
}

// One that fits exactly goes out of the chain, so that its link and the one to it are needed.
TEST_F(DamagedChain, IsNotFollowedWhenABlockIsTaken)
{
    for (const std::size_t offset : {4U, 8U}) {
        const Drawn drawn = draw("2 [1] 3 [1] 9 [1]");
        rm_setTagAlloc(104, drawn.tag);
        rmalloc::BlockHeader* damaged = &segmentsOf(drawn.tag)[0]->anchor + offset;
        const uint32_t sound = damaged->word1;
        damaged->word1 = 0x41414141;
        take(9, drawn.tag);
        damaged->word1 = sound;
        EXPECT_EQ(layout(drawn.tag), "2 [1] 3 [1] 9 [1] | 1 [9]") << offset;
    }
}

TEST_F(DamagedChain, DoesNotKeepTheTagFromBeingFreed)
{
    const Drawn drawn = draw(kDamagedDrawing);
    segmentsOf(drawn.tag)[0]->anchor.word1 = 0x41414141;
    EXPECT_EQ(linesOf([&] { rm_freeTagMemory(drawn.tag, 1); }), Lines{});
    EXPECT_EQ(rm_memused(), kFirstTable);
}

TEST_F(SegmentHeader, HasItsFieldsInTheirOrder)
{
    EXPECT_EQ(offsetof(rmalloc::Segment, next), 0U);
    EXPECT_EQ(offsetof(rmalloc::Segment, units), sizeof(void*));
    EXPECT_EQ(offsetof(rmalloc::Segment, blocks), sizeof(void*) + 4);
    EXPECT_EQ(offsetof(rmalloc::Segment, anchor), 16U);
    EXPECT_EQ(offsetof(rmalloc::BlockHeader, word1), 0U);
    EXPECT_EQ(offsetof(rmalloc::BlockHeader, units), 4U);
}

// Where addresses have 32 bits, a word before the anchor is nobody's.
TEST_F(SegmentHeader, LeavesTheWordBeforeTheAnchorAsItCame)
{
    constexpr std::size_t kWord = offsetof(rmalloc::Segment, blocks) + 4;
    constexpr std::size_t kBytes = offsetof(rmalloc::Segment, anchor) - kWord;
    EXPECT_EQ(kBytes, 8 - sizeof(void*));
    const rmtest::ScopedFault dirt({.call = rmtest::Call::kMalloc,
                                    .times = rmtest::kForever,
                                    .action = [](const rmtest::CallRecord& call) {
                                        const int64_t memory = rmtest::passThrough(call);
                                        std::memset(reinterpret_cast<void*>(memory), 0xA5,
                                                    static_cast<std::size_t>(call.args[0]));
                                        return memory;
                                    }});
    const Drawn drawn = draw("2 [3] 1 [4]");
    rm_freeMemory(drawn.live[0], drawn.tag);
    const auto* bytes = reinterpret_cast<const char*>(segmentsOf(drawn.tag)[0]) + kWord;
    EXPECT_EQ(std::string(bytes, kBytes), std::string(kBytes, '\xA5'));
}
}  // namespace
