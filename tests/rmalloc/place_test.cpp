// The place where blocks are being cut: when it is known, when it is kept and when forgotten, when
// the short way is not taken, and that it leads to what a search would have found.
//
// Cases are drawings, see heap.h. The place of a drawing that has just been made is forgotten, as
// long as something was freed in it.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/segments.h"

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace
{
using rmalloc::BlockHeader;
using rmalloc::Chain;
using rmalloc::checkPlace;
using rmalloc::cutAtPlace;
using rmalloc::forgetPlace;
using rmalloc::isLastCut;
using rmalloc::Place;
using rmalloc::undoLastCut;
using rmtest::bytesFor;
using rmtest::Call;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::headerBefore;
using rmtest::layout;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::segmentsOf;
using rmtest::wholeHeap;

class PlaceTest : public rmtest::HeapTest
{
};

class PlaceKnown : public PlaceTest
{
};

class PlaceForgotten : public PlaceTest
{
};

class CutAtPlace : public PlaceTest
{
};

class UndoLastCut : public PlaceTest
{
};

class CheckPlace : public PlaceTest
{
};

Chain* chainOf(Tag tag)
{
    return &rmalloc::chains[tag];
}

const Place& placeOf(Tag tag)
{
    return chainOf(tag)->place;
}

// "floor 3: 6 at 4 of segment 0, last cut 3", "none".
std::string placeText(Tag tag)
{
    const Place& place = placeOf(tag);
    if (place.units == 0) {
        return place.cut == 0 ? "none" : "none, and yet a block";
    }
    const std::vector<rmalloc::Segment*> segments = segmentsOf(tag);
    std::size_t n = 0;
    while (n < segments.size() && segments[n] != place.map->segment) {
        ++n;
    }
    std::string text = "floor " + std::to_string(place.floor) + ": " + std::to_string(place.units) +
                       " at " + std::to_string(place.offset) + " of segment " + std::to_string(n);
    if (place.cut != 0) {
        text += ", last cut " + std::to_string(place.cut);
    }
    return text;
}

void* take(uint32_t units, Tag tag)
{
    return rm_getMemory(bytesFor(units), tag);
}

// A heap of one segment, "9 [1]", and then a block of 3 that was cut from it: "6 [3] [1]".
struct Cut {
    Drawn drawn;
    Tag tag;
    void* block;
    BlockHeader* header;
    BlockHeader* from;  // the free block
};

Cut cutThree(std::string_view drawing = "9 [1]")
{
    Cut cut = {};
    cut.drawn = draw(drawing);
    cut.tag = cut.drawn.tag;
    EXPECT_EQ(placeText(cut.tag), "none");
    cut.block = take(3, cut.tag);
    cut.header = headerBefore(cut.block);
    cut.from = cut.header - placeOf(cut.tag).units;
    return cut;
}

// --- When it is known

TEST_F(PlaceKnown, NowhereInATagWithoutMemory)
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    EXPECT_EQ(placeText(tag), "none");
}

TEST_F(PlaceKnown, WhereASearchHasCutABlock)
{
    const Cut cut = cutThree("2 [1] 9 [1]");
    EXPECT_EQ(placeText(cut.tag), "floor 3: 6 at 4 of segment 0, last cut 3");
}

TEST_F(PlaceKnown, InTheSegmentThatWasMadeForTheBlock)
{
    const Drawn drawn = draw("2 [1]");
    rm_setTagAlloc(104, drawn.tag);
    take(4, drawn.tag);
    EXPECT_EQ(placeText(drawn.tag), "floor 4: 6 at 1 of segment 1, last cut 4");
}

TEST_F(PlaceKnown, NotWhereABlockTookAllThatWasFree)
{
    const Drawn drawn = draw("4 [1]");
    take(4, drawn.tag);
    EXPECT_EQ(placeText(drawn.tag), "none");
}

TEST_F(PlaceKnown, AsTheNextBlockLeavesIt)
{
    const Cut cut = cutThree();
    take(5, cut.tag);
    EXPECT_EQ(placeText(cut.tag), "floor 3: 1 at 1 of segment 0, last cut 5");
    EXPECT_EQ(layout(cut.tag), "1 [5] [3] [1]");
}

TEST_F(PlaceKnown, AgainAsItWasWhenItsLastBlockIsGivenBack)
{
    const Cut cut = cutThree();
    rm_freeMemory(cut.block, cut.tag);
    EXPECT_EQ(placeText(cut.tag), "floor 3: 9 at 1 of segment 0");
    EXPECT_EQ(take(3, cut.tag), cut.block);
    EXPECT_EQ(placeText(cut.tag), "floor 3: 6 at 1 of segment 0, last cut 3");
}

TEST_F(PlaceKnown, AlsoAfterASmallerRequestThatFitsBeforeIt)
{
    const Cut cut = cutThree("2 [1] 9 [1]");
    take(1, cut.tag);
    EXPECT_EQ(layout(cut.tag), "1 [1] [1] 6 [3] [1]");
    EXPECT_EQ(placeText(cut.tag), "floor 3: 6 at 4 of segment 0, last cut 3");
}

TEST_F(PlaceKnown, AlsoAfterASmallerRequestThatTakesAllOfWhatIsBeforeIt)
{
    const Cut cut = cutThree("2 [1] 9 [1]");
    take(2, cut.tag);
    EXPECT_EQ(layout(cut.tag), "[2] [1] 6 [3] [1]");
    EXPECT_EQ(placeText(cut.tag), "floor 3: 6 at 4 of segment 0, last cut 3");
}

TEST_F(PlaceKnown, ForSmallerRequestsTooOnceOneHasComeThere)
{
    const Cut cut = cutThree("1 [1] 9 [1]");
    take(2, cut.tag);
    EXPECT_EQ(layout(cut.tag), "1 [1] 4 [2] [3] [1]");
    EXPECT_EQ(placeText(cut.tag), "floor 2: 4 at 3 of segment 0, last cut 2");
}

TEST_F(PlaceKnown, FurtherUpWhenALargerRequestHasToGoThere)
{
    const Cut cut = cutThree("9 [1] 20 [1]");
    take(7, cut.tag);
    EXPECT_EQ(layout(cut.tag), "6 [3] [1] 13 [7] [1]");
    EXPECT_EQ(placeText(cut.tag), "floor 7: 13 at 11 of segment 0, last cut 7");
    take(3, cut.tag);
    EXPECT_EQ(layout(cut.tag), "3 [3] [3] [1] 13 [7] [1]");
}

TEST_F(PlaceKnown, AfterABadPointerToo)
{
    const Cut cut = cutThree();
    linesOf([&] { rm_freeMemory(static_cast<char*>(cut.block) + 8, cut.tag); });
    linesOf([&] { rm_freeMemory(cut.block, 4000); });
    EXPECT_EQ(placeText(cut.tag), "floor 3: 6 at 1 of segment 0, last cut 3");
}

TEST_F(PlaceKnown, AfterWhatOtherTagsDo)
{
    const Cut cut = cutThree();
    const Cut other = cutThree();
    rm_freeMemory(other.drawn.live[0], other.tag);
    rm_freeTagMemory(other.tag, 1);
    EXPECT_EQ(placeText(cut.tag), "floor 3: 6 at 1 of segment 0, last cut 3");
}

TEST_F(PlaceKnown, AfterTheTagTableHasGrown)
{
    const Cut cut = cutThree();
    while (rm_allocTag(nullptr, RM_NO_LIMIT) < 40) {
    }
    EXPECT_EQ(placeText(cut.tag), "floor 3: 6 at 1 of segment 0, last cut 3");
    EXPECT_EQ(take(3, cut.tag), cut.block == nullptr ? nullptr : cut.from + 3 + 1);
}

TEST_F(PlaceKnown, AfterAnExtensionThatChangesNothing)
{
    const Cut cut = cutThree();
    EXPECT_EQ(rm_extendMemory(cut.drawn.live[0], 0, cut.tag), cut.drawn.live[0]);
    EXPECT_EQ(placeText(cut.tag), "floor 3: 6 at 1 of segment 0, last cut 3");
}

// --- When it is forgotten

TEST_F(PlaceForgotten, WhenAnotherBlockIsGivenBack)
{
    const Cut cut = cutThree("[1] 9 [1]");
    rm_freeMemory(cut.drawn.live[0], cut.tag);
    EXPECT_EQ(placeText(cut.tag), "none");
    take(1, cut.tag);
    EXPECT_EQ(layout(cut.tag), "6 [1] [3] [1]");
}

TEST_F(PlaceForgotten, WhenABlockThatWasCutBeforeTheLastIsGivenBack)
{
    const Cut cut = cutThree();
    take(2, cut.tag);
    rm_freeMemory(cut.block, cut.tag);
    EXPECT_EQ(placeText(cut.tag), "none");
    EXPECT_EQ(layout(cut.tag), "4 [2] 3 [1]");
}

TEST_F(PlaceForgotten, WhenTwoAreGivenBackInTurn)
{
    const Cut cut = cutThree();
    void* second = take(2, cut.tag);
    rm_freeMemory(second, cut.tag);
    EXPECT_EQ(placeText(cut.tag), "floor 2: 6 at 1 of segment 0");
    rm_freeMemory(cut.block, cut.tag);
    EXPECT_EQ(placeText(cut.tag), "none");
    EXPECT_EQ(layout(cut.tag), "9 [1]");
}

TEST_F(PlaceForgotten, WhenABlockIsResized)
{
    const Cut cut = cutThree("[4] 9 [1]");
    rm_extendMemory(cut.drawn.live[0], 0, cut.tag);
    EXPECT_EQ(placeText(cut.tag), "none");
    EXPECT_EQ(layout(cut.tag), "[1] 9 [3] [1]");
}

TEST_F(PlaceForgotten, WhenTheLastBlockItselfIsResized)
{
    const Cut cut = cutThree();
    rm_extendMemory(cut.block, bytesFor(4), cut.tag);
    EXPECT_EQ(placeText(cut.tag), "none");
    EXPECT_EQ(layout(cut.tag), "[4] 5 [1]");
}

TEST_F(PlaceForgotten, WhenAnExtensionMovesABlock)
{
    const Cut cut = cutThree("[2] [1] 9 [1]");
    rm_extendMemory(cut.drawn.live[0], bytesFor(4), cut.tag);
    EXPECT_EQ(placeText(cut.tag), "none");
    EXPECT_EQ(layout(cut.tag), "2 [1] 2 [4] [3] [1]");
}

TEST_F(PlaceForgotten, WhenABlockTakesAllThatIsLeft)
{
    const Cut cut = cutThree();
    take(6, cut.tag);
    EXPECT_EQ(placeText(cut.tag), "none");
    EXPECT_EQ(layout(cut.tag), "[6] [3] [1]");
}

TEST_F(PlaceForgotten, WithItsSegment)
{
    const Drawn drawn = draw("[5] | [1]");
    rm_setTagAlloc(104, drawn.tag);
    void* block = take(3, drawn.tag);
    EXPECT_EQ(placeText(drawn.tag), "floor 3: 7 at 1 of segment 2, last cut 3");
    rm_freeMemory(block, drawn.tag);
    EXPECT_EQ(placeText(drawn.tag), "none");
    EXPECT_EQ(layout(drawn.tag), "[5] | [1]");
}

TEST_F(PlaceForgotten, WithTheTagsMemory)
{
    const Cut cut = cutThree();
    rm_freeTagMemory(cut.tag, 0);
    EXPECT_EQ(placeText(cut.tag), "none");
    take(2, cut.tag);
    EXPECT_EQ(layout(cut.tag), "1019 [2]");
}

TEST_F(PlaceForgotten, WhenABlockThatWouldHaveFittedWasPassedBy)
{
    const Drawn drawn = draw("5 [1] | 9 [1]");
    BlockHeader* damaged = rmalloc::blockAt(segmentsOf(drawn.tag)[0], 1);
    damaged->units = 4;
    take(3, drawn.tag);
    damaged->units = 5;
    take(3, drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [3] [1] | 6 [3] [1]");
}

TEST_F(PlaceForgotten, WhenItIsWrittenOverItself)
{
    const Cut cut = cutThree("9 [1] | 9 [1]");
    cut.from->units = 5;
    take(3, cut.tag);
    cut.from->units = 6;
    take(3, cut.tag);
    EXPECT_EQ(layout(cut.tag), "3 [3] [3] [1] | 6 [3] [1]");
}

// --- Cutting

TEST_F(CutAtPlace, GivesTheBlockThatASearchWouldGive)
{
    const Cut cut = cutThree("2 [1] 9 [1] 30 [1]");
    EXPECT_EQ(cutAtPlace(cut.tag, 4), cut.from + 2 + 1);
    EXPECT_EQ(layout(cut.tag), "2 [1] 2 [4] [3] [1] 30 [1]");
    EXPECT_EQ(rmtest::allocated(cut.tag), 10 * 8U);
    EXPECT_EQ(segmentsOf(cut.tag)[0]->blocks, 5U);
}

TEST_F(CutAtPlace, LeavesAtLeastOneUnit)
{
    const Cut cut = cutThree();
    EXPECT_EQ(cutAtPlace(cut.tag, 6), nullptr);
    EXPECT_NE(cutAtPlace(cut.tag, 5), nullptr);
    EXPECT_EQ(layout(cut.tag), "1 [5] [3] [1]");
    EXPECT_EQ(cutAtPlace(cut.tag, 3), nullptr);
}

void expectNotCut(Tag tag, uint32_t need)
{
    const std::string heap = wholeHeap();
    const std::string place = placeText(tag);
    EXPECT_EQ(cutAtPlace(tag, need), nullptr);
    EXPECT_EQ(wholeHeap(), heap);
    EXPECT_EQ(placeText(tag), place);
}

TEST_F(CutAtPlace, IsRefusedWhereNoneIsKnown)
{
    const Drawn drawn = draw("9 [1]");
    expectNotCut(drawn.tag, 1);
    expectNotCut(drawn.tag, 3);
    expectNotCut(rm_allocTag(nullptr, RM_NO_LIMIT), 1);
}

TEST_F(CutAtPlace, IsRefusedBelowTheFloor)
{
    const Cut cut = cutThree();
    expectNotCut(cut.tag, 2);
    expectNotCut(cut.tag, 1);
    EXPECT_NE(cutAtPlace(cut.tag, 3), nullptr);
}

TEST_F(CutAtPlace, IsRefusedForAnExactFit)
{
    const Cut cut = cutThree();
    expectNotCut(cut.tag, 6);
}

TEST_F(CutAtPlace, IsRefusedForMoreThanThereIs)
{
    const Cut cut = cutThree();
    expectNotCut(cut.tag, 7);
    expectNotCut(cut.tag, 0xFFFFFFFF);
}

TEST_F(CutAtPlace, IsRefusedWhereTheUnitsWereWrittenOver)
{
    const Cut cut = cutThree();
    for (const uint32_t units : {0U, 5U, 7U, 0xFFFFFFFFU}) {
        cut.from->units = units;
        expectNotCut(cut.tag, 3);
    }
    cut.from->units = 6;
    EXPECT_NE(cutAtPlace(cut.tag, 3), nullptr);
}

TEST_F(CutAtPlace, IsRefusedToATagThatKnowsNone)
{
    cutThree();
    const Drawn other = draw("9 [1]");
    expectNotCut(other.tag, 3);
}

// --- Putting back

TEST_F(UndoLastCut, PutsTheBlockBackAsGivingBackWould)
{
    const Cut cut = cutThree("2 [1] 9 [1] 4 [1]");
    const uint32_t link = cut.from->word1;
    ASSERT_TRUE(isLastCut(cut.tag, cut.header));
    EXPECT_TRUE(undoLastCut(cut.tag));
    EXPECT_EQ(layout(cut.tag), "2 [1] 9 [1] 4 [1]");
    EXPECT_EQ(cut.header->word1, link);
    EXPECT_EQ(rmtest::allocated(cut.tag), 3 * 8U);
    EXPECT_EQ(segmentsOf(cut.tag)[0]->blocks, 3U);
    EXPECT_FALSE(isLastCut(cut.tag, cut.header));
}

TEST_F(UndoLastCut, IsWhatRmFreeMemoryDoes)
{
    const Cut cut = cutThree();
    EXPECT_EQ(linesOf([&] { rm_freeMemory(cut.block, cut.tag); }), Lines{});
    EXPECT_EQ(placeText(cut.tag), "floor 3: 9 at 1 of segment 0");
    EXPECT_EQ(linesOf([&] { rm_freeMemory(cut.block, cut.tag); }),
              Lines{rmtest::badPointer(cut.block)});
}

TEST_F(UndoLastCut, MakesRoomThatASearchFinds)
{
    const Cut cut = cutThree("200 [1]");
    rm_freeMemory(cut.block, cut.tag);
    forgetPlace(chainOf(cut.tag));
    take(200, cut.tag);
    EXPECT_EQ(layout(cut.tag), "[200] [1]");
}

TEST_F(UndoLastCut, MakesRoomInASmallStripThatASearchFinds)
{
    const Cut cut = cutThree("4 [1] | 2 [1]");
    linesOf([&] { take(100, cut.tag); });  // a search lowers what is too large
    rm_freeMemory(cut.block, cut.tag);
    take(4, cut.tag);
    EXPECT_EQ(layout(cut.tag).substr(0, 7), "[4] [1]");
}

void expectNotUndone(const Cut& cut)
{
    const std::string heap = wholeHeap();
    const std::string place = placeText(cut.tag);
    EXPECT_TRUE(isLastCut(cut.tag, cut.header));
    EXPECT_FALSE(undoLastCut(cut.tag));
    EXPECT_EQ(wholeHeap(), heap);
    EXPECT_EQ(placeText(cut.tag), place);
}

TEST_F(UndoLastCut, IsRefusedWithoutTheMagic)
{
    const Cut cut = cutThree();
    cut.header->word1 = 0xFFEEDDCD;
    expectNotUndone(cut);
    EXPECT_EQ(linesOf([&] { rm_freeMemory(cut.block, cut.tag); }),
              Lines{rmtest::badPointer(cut.block)});
    cut.header->word1 = 0xFFEEDDCC;
}

TEST_F(UndoLastCut, IsRefusedWithOtherUnits)
{
    const Cut cut = cutThree("9 [1] [1]");
    for (const uint32_t units : {0U, 2U, 4U, 5U, 0xFFFFFFFFU}) {
        cut.header->units = units;
        expectNotUndone(cut);
        EXPECT_EQ(linesOf([&] { rm_freeMemory(cut.block, cut.tag); }),
                  Lines{rmtest::badPointer(cut.block)});
    }
    cut.header->units = 3;
}

TEST_F(UndoLastCut, IsRefusedWhereTheUnitsBelowWereWrittenOver)
{
    const Cut cut = cutThree();
    for (const uint32_t units : {0U, 5U, 9U, 0xFFFFFFFFU}) {
        cut.from->units = units;
        expectNotUndone(cut);
        EXPECT_EQ(linesOf([&] { rm_freeMemory(cut.block, cut.tag); }),
                  Lines{rmtest::corruptedChain(cut.block)});
    }
    cut.from->units = 6;
    rm_freeMemory(cut.block, cut.tag);
    EXPECT_EQ(layout(cut.tag), "9 [1]");
}

// What is below it may have been written over in either of its words.
TEST_F(UndoLastCut, IsRefusedWhereTheLinkBelowWasWrittenOver)
{
    const Cut cut = cutThree();
    for (const uint32_t link : {1U, 7U, 11U, 0x41414141U, 0xFFEEDDCCU}) {
        cut.from->word1 = link;
        EXPECT_EQ(linesOf([&] { rm_freeMemory(cut.block, cut.tag); }),
                  Lines{rmtest::corruptedChain(cut.block)})
            << link;
        EXPECT_EQ(layout(cut.tag), link == 0xFFEEDDCC ? "[6] [3] [1]" : "6 [3] [1]");
    }
    cut.from->word1 = 0;
}

TEST_F(UndoLastCut, IsRefusedForTheLastBlockOfItsSegment)
{
    Cut cut = {};
    cut.tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    cut.block = take(3, cut.tag);
    cut.header = headerBefore(cut.block);
    expectNotUndone(cut);
    rm_freeMemory(cut.block, cut.tag);
    EXPECT_EQ(layout(cut.tag), "");
    EXPECT_EQ(rm_memused(), rmtest::kFirstTable);
}

TEST_F(UndoLastCut, IsNotForABlockOfAnotherTag)
{
    const Cut cut = cutThree();
    const Cut other = cutThree();
    EXPECT_FALSE(isLastCut(other.tag, cut.header));
    const std::string heap = wholeHeap();
    EXPECT_EQ(linesOf([&] { rm_freeMemory(cut.block, other.tag); }),
              rmtest::notFound(other.tag, cut.block));
    EXPECT_EQ(wholeHeap(), heap);
    EXPECT_TRUE(isLastCut(cut.tag, cut.header));
}

TEST_F(UndoLastCut, IsNotForATagThatIsNone)
{
    const Cut cut = cutThree();
    for (const int tag : {-1, -32768, rmalloc::nTags + 0, 40, 32767}) {
        EXPECT_FALSE(isLastCut(static_cast<Tag>(tag), cut.header)) << tag;
        EXPECT_EQ(linesOf([&] { rm_freeMemory(cut.block, static_cast<Tag>(tag)); }),
                  Lines{rmtest::invalidTag(tag, "rm_freeMemory")});
    }
    EXPECT_EQ(layout(cut.tag), "6 [3] [1]");
}

// There is no block there, and no header of one is remembered either.
TEST_F(UndoLastCut, IsNotForAPointerWhoseHeaderWouldBeAtZero)
{
    const Drawn drawn = draw("9 [1]");
    void* pointer = reinterpret_cast<void*>(uintptr_t{8});
    EXPECT_FALSE(isLastCut(drawn.tag, nullptr));
    EXPECT_EQ(linesOf([&] { rm_freeMemory(pointer, drawn.tag); }),
              Lines{rmtest::badPointer(pointer)});
}

// --- The same as by searching

// Two tags are treated alike; before every call the place of the second is forgotten, so that it
// searches. Segments come zeroed from the platform, so that they can be compared as bytes.
class PlaceRandom : public PlaceTest, public ::testing::WithParamInterface<uint32_t>
{
  protected:
    PlaceRandom() : largest_(GetParam()), random_(seed()) {}

    void makeTags()
    {
        for (Tag& tag : tags_) {
            tag = rm_allocTag(nullptr, RM_NO_LIMIT);
            rm_setTagAlloc(largest_ * 40, tag);
        }
    }

    uint32_t below(std::size_t bound) { return static_cast<uint32_t>(random_() % bound); }

    void step(bool growing)
    {
        forgetPlace(chainOf(tags_[1]));
        const uint32_t chance = below(100);
        const uint32_t size = below(below(3) == 0 ? largest_ : 40);
        const std::size_t n = live_.empty() ? 0 : below(live_.size());
        if (live_.empty() || chance < (growing ? 55U : 35U)) {
            live_.emplace_back(rm_getMemory(size, tags_[0]), rm_getMemory(size, tags_[1]));
        } else if (chance < 90) {
            // Mostly the one that came last, as a server does.
            const std::size_t which = below(3) == 0 ? n : live_.size() - 1;
            rm_freeMemory(live_[which].first, tags_[0]);
            rm_freeMemory(live_[which].second, tags_[1]);
            live_.erase(live_.begin() + static_cast<std::ptrdiff_t>(which));
        } else {
            live_[n].first = rm_extendMemory(live_[n].first, size, tags_[0]);
            live_[n].second = rm_extendMemory(live_[n].second, size, tags_[1]);
        }
    }

    void expectSame() const
    {
        EXPECT_EQ(checkPlace(chainOf(tags_[0])), 0U);
        const auto segments = segmentsOf(tags_[0]);
        const auto searched = segmentsOf(tags_[1]);
        ASSERT_EQ(segments.size(), searched.size());
        for (std::size_t n = 0; n < segments.size(); ++n) {
            ASSERT_EQ(segments[n]->units, searched[n]->units);
            EXPECT_EQ(segments[n]->blocks, searched[n]->blocks);
            EXPECT_EQ(std::memcmp(&segments[n]->anchor, &searched[n]->anchor,
                                  (segments[n]->units + std::size_t{1}) * 8),
                      0);
        }
    }

  private:
    static uint32_t seed() { return static_cast<uint32_t>(rmtest::seedOfThisRun(GetParam())); }

    uint32_t largest_;  // request, in bytes
    std::mt19937 random_;
    Tag tags_[2] = {};
    std::vector<std::pair<void*, void*>> live_;
};

int64_t zeroedMemory(const rmtest::CallRecord& call)
{
    const int64_t memory = rmtest::passThrough(call);
    std::memset(reinterpret_cast<void*>(memory), 0, static_cast<std::size_t>(call.args[0]));
    return memory;
}

TEST_P(PlaceRandom, GivesTheSameBytesAsSearching)
{
    const rmtest::ScopedFault zeroes(
        {.call = Call::kMalloc, .times = rmtest::kForever, .action = zeroedMemory});
    makeTags();
    bool growing = true;
    const long operations = rmtest::operationsOfThisRun(8000);
    for (long i = 0; i < operations && !HasFailure(); ++i) {
        SCOPED_TRACE(i);
        growing = below(300) == 0 ? !growing : growing;
        step(growing);
        expectSame();
        if (i % 16 == 0) {
            EXPECT_EQ(rmalloc::checkMemory(), 0U);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(BlocksUpTo, PlaceRandom, ::testing::Values(60, 300, 2000),
                         [](const ::testing::TestParamInfo<uint32_t>& size) {
                             return std::to_string(size.param) + "Bytes";
                         });

// --- The checker. What a case changes it puts right again.

TEST_F(CheckPlace, FindsNothingInASoundPlace)
{
    const Cut cut = cutThree("2 [1] 9 [1]");
    EXPECT_EQ(checkPlace(chainOf(cut.tag)), 0U);
    rm_freeMemory(cut.block, cut.tag);
    EXPECT_EQ(checkPlace(chainOf(cut.tag)), 0U);
    forgetPlace(chainOf(cut.tag));
    EXPECT_EQ(checkPlace(chainOf(cut.tag)), 0U);
}

template <typename T>
void expectSeen(Tag tag, T Place::*field, T wrong)
{
    Place& place = chainOf(tag)->place;
    const T sound = place.*field;
    place.*field = wrong;
    EXPECT_EQ(checkPlace(chainOf(tag)), 1U);
    place.*field = sound;
    EXPECT_EQ(checkPlace(chainOf(tag)), 0U);
}

TEST_F(CheckPlace, SeesABlockOfNoPlace)
{
    const Cut cut = cutThree();
    expectSeen(cut.tag, &Place::units, 0U);
}

TEST_F(CheckPlace, SeesOtherUnits)
{
    const Cut cut = cutThree();
    expectSeen(cut.tag, &Place::units, 5U);
    rm_freeMemory(cut.block, cut.tag);
    expectSeen(cut.tag, &Place::units, 5U);
}

TEST_F(CheckPlace, SeesAnOffsetWhereNothingIsFree)
{
    const Cut cut = cutThree("2 [1] 9 [1]");
    expectSeen(cut.tag, &Place::offset, 5U);
    expectSeen(cut.tag, &Place::offset, 3U);
}

TEST_F(CheckPlace, SeesASegmentOfAnotherTag)
{
    const Cut cut = cutThree();
    const Cut other = cutThree();
    expectSeen(cut.tag, &Place::map, placeOf(other.tag).map);
}

TEST_F(CheckPlace, SeesThatTheLastBlockIsNotBehindTheFreeOne)
{
    const Cut cut = cutThree();
    expectSeen(cut.tag, &Place::from, placeOf(cut.tag).from - 1);
}

TEST_F(CheckPlace, SeesThatTheLastBlockIsNotLive)
{
    const Cut cut = cutThree();
    cut.header->word1 = 0;
    EXPECT_EQ(checkPlace(chainOf(cut.tag)), 1U);
    cut.header->word1 = 0xFFEEDDCC;
}

TEST_F(CheckPlace, SeesThatTheLastBlockHasOtherUnits)
{
    const Cut cut = cutThree();
    expectSeen(cut.tag, &Place::cut, 4U);
}

TEST_F(CheckPlace, SeesAFreeBlockBeforeItThatIsLargeEnough)
{
    const Cut cut = cutThree("2 [1] 9 [1]");
    expectSeen(cut.tag, &Place::floor, 2U);
    expectSeen(cut.tag, &Place::floor, 1U);
}

TEST_F(CheckPlace, SeesOneInASegmentBeforeIt)
{
    const Cut cut = cutThree("1 [1] 2 [1] | 1 [1] 9 [1]");
    expectSeen(cut.tag, &Place::floor, 2U);
}
}  // namespace
