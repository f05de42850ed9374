// Tags: the table of them, what is kept with each, and how their memory goes back as a whole.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmalloc/chain.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmalloc/segmentmap.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/rmutil/rmutil.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace
{
using rmalloc::kBeforeSmall;
using rmalloc::nTags;
using rmalloc::tagTable;
using rmalloc::tagTabSize;
using rmtest::allocated;
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::fatalLines;
using rmtest::invalidTag;
using rmtest::kFirstTable;
using rmtest::kForever;
using rmtest::kRecord;
using rmtest::kShutdown;
using rmtest::layout;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::outOfMemory;
using rmtest::ScopedFault;
using rmtest::segmentsOf;
using rmtest::wholeHeap;

constexpr int16_t kMostRecords = 32767;

class TagTable : public rmtest::HeapTest
{
};

class LargestTagTable : public rmtest::HeapTest
{
};

class AllocTag : public rmtest::HeapTest
{
};

class SetTagName : public rmtest::HeapTest
{
};

class SetTagAlloc : public rmtest::HeapTest
{
};

class ResetTag : public rmtest::HeapTest
{
};

class FreeTagMemory : public rmtest::HeapTest
{
};

class FreeAll : public rmtest::HeapTest
{
};

class MemoryAvail : public rmtest::HeapTest
{
};

class MemoryLimit : public rmtest::HeapTest
{
};

class CheckTag : public rmtest::HeapTest
{
};

class SegAllocVariable : public rmtest::HeapTest
{
  protected:
    // Makes the table with the variable set to `value`; null unsets it.
    static int16_t readFrom(const char* value)
    {
        if (value == nullptr) {
            unsetenv("SEG_ALLOC");
        } else {
            setenv("SEG_ALLOC", value, 1);
        }
        rm_freeall();
        rm_allocTag(nullptr, RM_NO_LIMIT);
        return seg_alloc;
    }

    void TearDown() override
    {
        unsetenv("SEG_ALLOC");
        HeapTest::TearDown();
    }
};

Tag newTag()
{
    return rm_allocTag(nullptr, RM_NO_LIMIT);
}

// Takes tags until the one returned is `last`.
void takeTagsUpTo(Tag last)
{
    while (newTag() < last) {
    }
}

// A table in which all but the last few tags are in use, put in place at once: to take them one
// after the other copies gigabytes.
void makeTableAlmostFull()
{
    constexpr int16_t kRecords = 32'760;  // a whole number of steps; the last one is cut short
    newTag();
    auto* table = static_cast<rmalloc::TagRecord*>(rm_getSeg(kRecords * kRecord));
    std::memset(table, 0, kRecords * kRecord);
    std::copy_n(tagTable, 2, table);
    for (int16_t tag = 2; tag < kRecords; ++tag) {
        table[tag] = tagTable[1];
    }
    rm_freeSeg(tagTable);
    tagTable = table;
    rmalloc::freeChains(rmalloc::chains);
    rmalloc::chains = rmalloc::newChains(kRecords);
    rmalloc::memused += kRecords * kRecord - kFirstTable;
    tagTabSize = kRecords;
    nTags = kRecords;
}

// Makes what malloc gives look used. A test of what is cleared would else meet zeros by luck.
int64_t dirtyMemory(const CallRecord& call)
{
    const int64_t result = rmtest::passThrough(call);
    std::memset(reinterpret_cast<void*>(result), 0xA5, static_cast<std::size_t>(call.args[0]));
    return result;
}

// --- The table

TEST_F(TagTable, DoesNotExistBeforeTheFirstCall)
{
    EXPECT_EQ(tagTable, nullptr);
    EXPECT_EQ(nTags, 0);
    EXPECT_EQ(tagTabSize, 0);
    EXPECT_EQ(rm_memused(), 0U);
}

TEST_F(TagTable, HasRoomForFortyRecordsAtFirst)
{
    newTag();
    EXPECT_EQ(tagTabSize, 40);
    EXPECT_EQ(rm_memused(), kFirstTable);
}

TEST_F(TagTable, ComesFromThePlatformInOnePiece)
{
    newTag();
    const auto calls = callTrace({Call::kMalloc});
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].args[0], kFirstTable);
}

TEST_F(TagTable, IsClearedWhenItIsMade)
{
    ScopedFault dirt({.call = Call::kMalloc, .times = kForever, .action = dirtyMemory});
    newTag();
    const std::vector<unsigned char> zeros(38 * kRecord, 0);
    EXPECT_EQ(std::memcmp(tagTable + 2, zeros.data(), zeros.size()), 0);
}

TEST_F(TagTable, BeginsWithTagZero)
{
    ScopedFault dirt({.call = Call::kMalloc, .times = kForever, .action = dirtyMemory});
    newTag();
    EXPECT_EQ(tagTable[0].state, rmalloc::kTagInUse);
    EXPECT_EQ(tagTable[0].limit, RM_NO_LIMIT);
    EXPECT_EQ(tagTable[0].segmentSize, 49152U);
    EXPECT_EQ(tagTable[0].allocated, 0U);
    EXPECT_EQ(tagTable[0].segments, nullptr);
    EXPECT_EQ(tagTable[0].name, nullptr);
}

TEST_F(TagTable, HoldsThirtyNineTagsBeforeItGrows)
{
    takeTagsUpTo(39);
    EXPECT_EQ(tagTabSize, 40);
    EXPECT_EQ(callCount(Call::kMalloc), 1);
}

TEST_F(TagTable, GrowsByFortyRecordsWhenItIsFull)
{
    takeTagsUpTo(39);
    EXPECT_EQ(newTag(), 40);
    EXPECT_EQ(tagTabSize, 80);
    EXPECT_EQ(nTags, 41);
    EXPECT_EQ(rm_memused(), 80 * kRecord);
}

TEST_F(TagTable, GrowsAsOftenAsItIsFull)
{
    takeTagsUpTo(120);
    EXPECT_EQ(tagTabSize, 160);
    EXPECT_EQ(rm_memused(), 160 * kRecord);
}

TEST_F(TagTable, GivesTheOldTableBackAfterGrowing)
{
    takeTagsUpTo(39);
    const auto old = reinterpret_cast<intptr_t>(tagTable);
    newTag();
    auto calls = callTrace({Call::kMalloc, Call::kFree});
    std::erase_if(calls, [](const CallRecord& call) { return call.args[0] == 0; });
    ASSERT_EQ(calls.size(), 4U);
    EXPECT_EQ(calls[1].call, Call::kMalloc);
    EXPECT_EQ(calls[1].args[0], 80 * kRecord);
    EXPECT_EQ(calls[2].call, Call::kFree);
    EXPECT_EQ(calls[2].args[0], old);
    EXPECT_EQ(calls[3].call, Call::kFree);  // the row of chains beside it
}

TEST_F(TagTable, KeepsItsRecordsWhenItGrows)
{
    const Tag tag = rm_allocTag(nullptr, 5000);
    rm_setTagAlloc(2048, tag);
    rm_setTagName("kept", tag);
    void* block = rm_getMemory(100, tag);
    rmtest::fill(block, 100, 1);
    takeTagsUpTo(39);
    const rmalloc::TagRecord before = tagTable[tag];

    newTag();

    EXPECT_EQ(std::memcmp(&tagTable[tag], &before, sizeof before), 0);
    EXPECT_TRUE(rmtest::holdsPattern(block, 100, 1));
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, tag); }), Lines{});
}

TEST_F(TagTable, GrowsBeforeAFreeRecordInItIsReused)
{
    takeTagsUpTo(39);
    rm_freeTagMemory(7, 1);
    EXPECT_EQ(newTag(), 7);
    EXPECT_EQ(tagTabSize, 80);
    EXPECT_EQ(nTags, 40);
}

TEST_F(TagTable, IsLeftAsItIsWhenItCannotGrow)
{
    takeTagsUpTo(39);
    rmtest::fill(rm_getMemory(64, 39), 64, 3);
    const std::string before = wholeHeap();
    Lines lines;
    {
        ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
        lines = fatalLines([] { newTag(); });
    }
    EXPECT_EQ(lines, outOfMemory());
    EXPECT_EQ(wholeHeap(), before);
    EXPECT_EQ(newTag(), 40);
}

TEST_F(TagTable, IsNotThereWhenItCannotBeMade)
{
    Lines lines;
    {
        ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
        lines = fatalLines([] { newTag(); });
    }
    EXPECT_EQ(lines, outOfMemory());
    EXPECT_EQ(tagTable, nullptr);
    EXPECT_EQ(nTags, 0);
    EXPECT_EQ(tagTabSize, 0);
    EXPECT_EQ(rm_memused(), 0U);
    EXPECT_EQ(newTag(), 1);
}

TEST_F(LargestTagTable, GivesOutTagsUpTo32766)
{
    Tag next = 1;
    while (next < kMostRecords - 1) {
        ASSERT_EQ(newTag(), next);
        ++next;
    }
    EXPECT_EQ(newTag(), next);
    EXPECT_EQ(nTags, kMostRecords);
    EXPECT_EQ(tagTabSize, kMostRecords);
    EXPECT_EQ(rm_memused(), uint32_t{kMostRecords} * kRecord);
}

TEST_F(LargestTagTable, GrowsByWhatIsLeftInItsLastStep)
{
    makeTableAlmostFull();
    EXPECT_EQ(newTag(), 32'760);
    EXPECT_EQ(tagTabSize, kMostRecords);
    EXPECT_EQ(rm_memused(), uint32_t{kMostRecords} * kRecord);
}

TEST_F(LargestTagTable, IsFatalForOneTagMore)
{
    makeTableAlmostFull();
    takeTagsUpTo(kMostRecords - 1);
    const int mallocs = callCount(Call::kMalloc);
    EXPECT_EQ(fatalLines([] { newTag(); }), outOfMemory());
    EXPECT_EQ(callCount(Call::kMalloc), mallocs);
    EXPECT_EQ(nTags, kMostRecords);
    EXPECT_EQ(tagTabSize, kMostRecords);
}

TEST_F(LargestTagTable, ReusesAReleasedTag)
{
    makeTableAlmostFull();
    takeTagsUpTo(kMostRecords - 1);
    rm_freeTagMemory(12345, 1);
    EXPECT_EQ(newTag(), 12345);
    EXPECT_EQ(fatalLines([] { newTag(); }), outOfMemory());
}

TEST_F(LargestTagTable, WorksWithItsLastTag)
{
    makeTableAlmostFull();
    const Tag last = kMostRecords - 1;
    takeTagsUpTo(last);
    rm_setTagName("last", last);
    void* block = rm_getMemory(10, last);
    EXPECT_EQ(allocated(last), 16U + 24U);
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, last); }), Lines{});
}

// --- rm_allocTag

TEST_F(AllocTag, GivesOneFirst)
{
    EXPECT_EQ(newTag(), 1);
    EXPECT_EQ(nTags, 2);
}

TEST_F(AllocTag, GivesTheNextNumberWhileNoneIsFree)
{
    EXPECT_EQ(newTag(), 1);
    EXPECT_EQ(newTag(), 2);
    EXPECT_EQ(newTag(), 3);
}

TEST_F(AllocTag, ReusesTheLowestReleasedNumberFirst)
{
    takeTagsUpTo(6);
    rm_freeTagMemory(5, 1);
    rm_freeTagMemory(2, 1);
    rm_freeTagMemory(3, 1);
    EXPECT_EQ(newTag(), 2);
    EXPECT_EQ(newTag(), 3);
    EXPECT_EQ(newTag(), 5);
    EXPECT_EQ(newTag(), 7);
}

TEST_F(AllocTag, ReusesTheHighestNumberWhenItWasReleased)
{
    takeTagsUpTo(4);
    rm_freeTagMemory(4, 1);
    EXPECT_EQ(nTags, 5);
    EXPECT_EQ(newTag(), 4);
    EXPECT_EQ(nTags, 5);
}

TEST_F(AllocTag, NeverGivesOutTagZero)
{
    takeTagsUpTo(2);
    rm_freeTagMemory(0, 1);
    EXPECT_EQ(newTag(), 3);
    EXPECT_EQ(tagTable[0].state, rmalloc::kTagFree);
}

TEST_F(AllocTag, StartsEmptyWithSegmentsOf8192Bytes)
{
    ScopedFault dirt({.call = Call::kMalloc, .times = kForever, .action = dirtyMemory});
    const Tag tag = rm_allocTag(nullptr, 12345);
    EXPECT_EQ(tagTable[tag].segments, nullptr);
    EXPECT_EQ(tagTable[tag].allocated, 0U);
    EXPECT_EQ(tagTable[tag].segmentSize, 8192U);
    EXPECT_EQ(tagTable[tag].name, nullptr);
    EXPECT_EQ(tagTable[tag].limit, 12345U);
}

TEST_F(AllocTag, ForgetsWhatAReusedRecordWas)
{
    const Tag tag = rm_allocTag(nullptr, 100);
    rm_setTagAlloc(512, tag);
    rm_setTagName("former", tag);
    rm_freeTagMemory(tag, 1);

    ASSERT_EQ(rm_allocTag(nullptr, 200), tag);

    EXPECT_EQ(tagTable[tag].segmentSize, 8192U);
    EXPECT_EQ(tagTable[tag].name, nullptr);
    EXPECT_EQ(tagTable[tag].limit, 200U);
    EXPECT_EQ(tagTable[tag].state, rmalloc::kTagInUse);
}

TEST_F(AllocTag, WithoutABufferIsInStateOne)
{
    const Tag tag = newTag();
    EXPECT_EQ(tagTable[tag].state, 1);
}

TEST_F(AllocTag, WithABufferIsInStateTwoAndKeepsAWholeCopy)
{
    jmp_buf env;
    std::memset(&env, 0x3C, sizeof env);
    const Tag tag = rm_allocTag(env, RM_NO_LIMIT);
    jmp_buf copy;
    std::memset(&copy, 0x3C, sizeof copy);
    std::memset(&env, 0, sizeof env);
    EXPECT_EQ(tagTable[tag].state, 2);
    EXPECT_EQ(std::memcmp(&tagTable[tag].env, &copy, sizeof copy), 0);
}

TEST_F(AllocTag, TakesNoMemoryForTheTagItself)
{
    newTag();
    newTag();
    EXPECT_EQ(rm_memused(), kFirstTable);
}

// --- rm_setTagName

TEST_F(SetTagName, ReturnsACopyThatIsRecorded)
{
    const Tag tag = newTag();
    const char name[] = "session";
    char* copy = rm_setTagName(name, tag);
    EXPECT_STREQ(copy, "session");
    EXPECT_NE(copy, name);
    EXPECT_EQ(tagTable[tag].name, copy);
}

TEST_F(SetTagName, PutsTheCopyIntoTheTagItself)
{
    const Tag tag = newTag();
    rm_setTagName("12345678", tag);  // 9 bytes with the terminator: 3 units
    EXPECT_EQ(layout(tag), "1018 [3]");
    EXPECT_EQ(allocated(tag), 24U);
}

TEST_F(SetTagName, TakesAnEmptyName)
{
    const Tag tag = newTag();
    EXPECT_STREQ(rm_setTagName("", tag), "");
    EXPECT_EQ(layout(tag), "1019 [2]");
}

TEST_F(SetTagName, LeavesAnEarlierNameAllocated)
{
    const Tag tag = newTag();
    const char* first = rm_setTagName("first", tag);
    rm_setTagName("second", tag);
    EXPECT_STREQ(first, "first");
    EXPECT_STREQ(tagTable[tag].name, "second");
    EXPECT_EQ(layout(tag), "1017 [2] [2]");
}

TEST_F(SetTagName, WorksForATagWithAJumpBuffer)
{
    jmp_buf env;
    std::memset(&env, 0, sizeof env);
    const Tag tag = rm_allocTag(env, RM_NO_LIMIT);
    EXPECT_STREQ(rm_setTagName("jumps", tag), "jumps");
}

TEST_F(SetTagName, IsFatalForTagZero)
{
    newTag();
    const std::string before = wholeHeap();
    EXPECT_EQ(fatalLines([] { rm_setTagName("zero", 0); }), (Lines{"invalid tag", kShutdown}));
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(SetTagName, IsFatalForAReleasedTag)
{
    takeTagsUpTo(2);
    rm_freeTagMemory(1, 1);
    EXPECT_EQ(fatalLines([] { rm_setTagName("gone", 1); }), (Lines{"invalid tag", kShutdown}));
}

TEST_F(SetTagName, IsFatalBeforeAnyTable)
{
    EXPECT_EQ(fatalLines([] { rm_setTagName("none", 1); }), (Lines{"invalid tag", kShutdown}));
    EXPECT_EQ(tagTable, nullptr);
}

TEST_F(SetTagName, KeepsTheEarlierNameWhenThereIsNoMemory)
{
    const Tag tag = newTag();
    rm_setTagName("before", tag);
    const std::string longName(9000, 'x');
    Lines lines;
    {
        ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
        lines = fatalLines([&] { rm_setTagName(longName.c_str(), tag); });
    }
    EXPECT_EQ(lines, outOfMemory());
    EXPECT_STREQ(tagTable[tag].name, "before");
    EXPECT_EQ(layout(tag), "1019 [2]");
}

// --- rm_setTagAlloc

TEST_F(SetTagAlloc, SetsTheSizeOfTheNextSegment)
{
    const Tag tag = newTag();
    rm_setTagAlloc(1024, tag);
    rm_getMemory(10, tag);
    EXPECT_EQ(layout(tag), "122 [3]");
    EXPECT_EQ(rm_memused(), kFirstTable + 1024);
}

TEST_F(SetTagAlloc, LeavesExistingSegmentsAsTheyAre)
{
    const Tag tag = newTag();
    rm_getMemory(10, tag);
    rm_setTagAlloc(104, tag);
    EXPECT_EQ(layout(tag), "1018 [3]");
    rm_getMemory(8136, tag);
    EXPECT_EQ(layout(tag), "[1018] [3]");
    rm_getMemory(8, tag);
    EXPECT_EQ(layout(tag), "[1018] [3] | 8 [2]");
}

TEST_F(SetTagAlloc, GivesALargerRequestWhatItNeeds)
{
    const Tag tag = newTag();
    rm_setTagAlloc(104, tag);
    rm_getMemory(80, tag);
    EXPECT_EQ(layout(tag), "[11]");
    EXPECT_EQ(rm_memused(), kFirstTable + 11 * 8 + 24);
}

TEST_F(SetTagAlloc, TakesZeroForSegmentsAsLargeAsTheRequest)
{
    const Tag tag = newTag();
    rm_setTagAlloc(0, tag);
    rm_getMemory(0, tag);
    EXPECT_EQ(layout(tag), "[1]");
    EXPECT_EQ(rm_memused(), kFirstTable + 8 + 24);
}

TEST_F(SetTagAlloc, TakesASizeBelowTheSegmentHeader)
{
    const Tag tag = newTag();
    rm_setTagAlloc(23, tag);
    rm_getMemory(1, tag);
    EXPECT_EQ(layout(tag), "[2]");
}

TEST_F(SetTagAlloc, AsksThePlatformForTheWholeSize)
{
    const Tag tag = newTag();
    rm_setTagAlloc(0xFFFFFFFF, tag);
    Lines lines;
    {
        ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM});
        lines = fatalLines([&] { rm_getMemory(8, tag); });
    }
    EXPECT_EQ(lines, outOfMemory());
    EXPECT_EQ(callTrace({Call::kMalloc}).back().args[0], 0xFFFFFFFF);
}

TEST_F(SetTagAlloc, WithNoMultipleOfEightUsesWholeUnitsOfIt)
{
    const Tag tag = newTag();
    rm_setTagAlloc(111, tag);
    rm_getMemory(8, tag);
    EXPECT_EQ(layout(tag), "8 [2]");
    rm_setTagAlloc(8192, tag);
    expectDrift(7);
}

TEST_F(SetTagAlloc, WithNoMultipleOfEightCountsTheBytesAskedForAndGivesBackUnits)
{
    const Tag tag = newTag();
    rm_setTagAlloc(111, tag);
    void* block = rm_getMemory(8, tag);
    EXPECT_EQ(rm_memused(), kFirstTable + 111);
    rm_freeMemory(block, tag);
    EXPECT_EQ(rm_memused(), kFirstTable + 111 - 104);
    expectDrift(7);
}

TEST_F(SetTagAlloc, IsWhatThePlatformIsAskedForAndWhatStandsBeforeASmallOne)
{
    const Tag tag = newTag();
    rm_setTagAlloc(1111, tag);
    rm_getMemory(8, tag);
    EXPECT_EQ(callTrace({Call::kMalloc}).back().args[0], 1111);
    rm_setTagAlloc(111, tag);
    rm_getMemory(1056, tag);  // all that is left in the first one
    rm_getMemory(8, tag);
    EXPECT_EQ(callTrace({Call::kMalloc}).back().args[0], static_cast<int64_t>(kBeforeSmall + 111));
    rm_freeTagMemory(tag, 1);
    expectDrift(7 + 7);
}

TEST_F(SetTagAlloc, WithNoMultipleOfEightDriftsInTheSameWayWhenATagIsFreed)
{
    const Tag tag = newTag();
    rm_setTagAlloc(105, tag);
    rm_getMemory(40, tag);
    rm_getMemory(40, tag);
    EXPECT_EQ(layout(tag), "4 [6] | 4 [6]");
    rm_freeTagMemory(tag, 1);
    EXPECT_EQ(rm_memused(), kFirstTable + 2);
    expectDrift(2);
}

TEST_F(SetTagAlloc, IgnoresTagZeroWithoutAWord)
{
    newTag();
    EXPECT_EQ(linesOf([] { rm_setTagAlloc(512, 0); }), Lines{});
    EXPECT_EQ(tagTable[0].segmentSize, 49152U);
}

TEST_F(SetTagAlloc, IgnoresNumbersOutOfRangeWithoutAWord)
{
    newTag();
    const std::string before = wholeHeap();
    EXPECT_EQ(linesOf([] {
                  rm_setTagAlloc(512, -1);
                  rm_setTagAlloc(512, INT16_MIN);
                  rm_setTagAlloc(512, nTags);
                  rm_setTagAlloc(512, INT16_MAX);
              }),
              Lines{});
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(SetTagAlloc, IgnoresEveryNumberBeforeAnyTable)
{
    EXPECT_EQ(linesOf([] { rm_setTagAlloc(512, 1); }), Lines{});
    EXPECT_EQ(tagTable, nullptr);
}

TEST_F(SetTagAlloc, IsFatalForAReleasedTag)
{
    takeTagsUpTo(2);
    rm_freeTagMemory(1, 1);
    EXPECT_EQ(fatalLines([] { rm_setTagAlloc(512, 1); }), (Lines{"invalid tag", kShutdown}));
}

// --- rm_resetTag

TEST_F(ResetTag, WithABufferCopiesItAndMakesStateTwo)
{
    const Tag tag = newTag();
    jmp_buf env;
    std::memset(&env, 0x5A, sizeof env);
    rm_resetTag(env, tag);
    EXPECT_EQ(tagTable[tag].state, 2);
    EXPECT_EQ(std::memcmp(&tagTable[tag].env, &env, sizeof env), 0);
}

TEST_F(ResetTag, WithoutABufferMakesStateOneAndKeepsTheOldBuffer)
{
    jmp_buf env;
    std::memset(&env, 0x5A, sizeof env);
    const Tag tag = rm_allocTag(env, RM_NO_LIMIT);
    rm_resetTag(nullptr, tag);
    EXPECT_EQ(tagTable[tag].state, 1);
    EXPECT_EQ(std::memcmp(&tagTable[tag].env, &env, sizeof env), 0);
}

TEST_F(ResetTag, ReplacesABuffer)
{
    jmp_buf env;
    std::memset(&env, 0x11, sizeof env);
    const Tag tag = rm_allocTag(env, RM_NO_LIMIT);
    std::memset(&env, 0x22, sizeof env);
    rm_resetTag(env, tag);
    EXPECT_EQ(tagTable[tag].state, 2);
    EXPECT_EQ(std::memcmp(&tagTable[tag].env, &env, sizeof env), 0);
}

TEST_F(ResetTag, WorksForTagZero)
{
    newTag();
    jmp_buf env;
    std::memset(&env, 0x5A, sizeof env);
    rm_resetTag(env, 0);
    EXPECT_EQ(tagTable[0].state, 2);
}

TEST_F(ResetTag, LeavesTheTagsMemoryAlone)
{
    const Tag tag = newTag();
    rm_getMemory(10, tag);
    rm_resetTag(nullptr, tag);
    EXPECT_EQ(layout(tag), "1018 [3]");
}

TEST_F(ResetTag, IsFatalForAReleasedTag)
{
    takeTagsUpTo(2);
    rm_freeTagMemory(1, 1);
    EXPECT_EQ(fatalLines([] { rm_resetTag(nullptr, 1); }), (Lines{"invalid tag", kShutdown}));
    EXPECT_EQ(tagTable[1].state, 0);
}

TEST_F(ResetTag, IsFatalOutOfRangeAsForAReleasedTag)
{
    newTag();
    for (const Tag tag : std::initializer_list<Tag>{INT16_MIN, -1, 2, INT16_MAX}) {
        EXPECT_EQ(fatalLines([tag] { rm_resetTag(nullptr, tag); }),
                  (Lines{"invalid tag", kShutdown}))
            << tag;
    }
}

TEST_F(ResetTag, IsFatalBeforeAnyTable)
{
    EXPECT_EQ(fatalLines([] { rm_resetTag(nullptr, 0); }), (Lines{"invalid tag", kShutdown}));
}

// --- rm_freeTagMemory

TEST_F(FreeTagMemory, GivesAllSegmentsBack)
{
    const Tag tag = newTag();
    rm_getMemory(8000, tag);
    rm_getMemory(20000, tag);
    rm_getMemory(8000, tag);
    std::vector<int64_t> segments;
    for (const rmalloc::Segment* segment : segmentsOf(tag)) {
        segments.push_back(reinterpret_cast<intptr_t>(segment));
    }
    ASSERT_EQ(segments.size(), 3U);
    rm_freeTagMemory(tag, 0);
    const auto frees = callTrace({Call::kFree});
    for (const int64_t segment : segments) {
        EXPECT_EQ(std::count_if(frees.begin(), frees.end(),
                                [&](const CallRecord& call) { return call.args[0] == segment; }),
                  1);
    }
    EXPECT_EQ(rm_memused(), kFirstTable);
}

TEST_F(FreeTagMemory, LeavesOtherTagsAlone)
{
    const Tag tag = newTag();
    const Tag other = newTag();
    rm_getMemory(10, tag);
    void* block = rm_getMemory(10, other);
    rmtest::fill(block, 10, 5);
    rm_freeTagMemory(tag, 1);
    EXPECT_EQ(layout(other), "1018 [3]");
    EXPECT_TRUE(rmtest::holdsPattern(block, 10, 5));
    EXPECT_EQ(rm_memused(), kFirstTable + 8192);
}

TEST_F(FreeTagMemory, EmptiesTheRecordAndItsName)
{
    const Tag tag = newTag();
    rm_setTagName("gone", tag);
    rm_freeTagMemory(tag, 0);
    EXPECT_EQ(tagTable[tag].segments, nullptr);
    EXPECT_EQ(tagTable[tag].allocated, 0U);
    EXPECT_EQ(tagTable[tag].name, nullptr);
}

TEST_F(FreeTagMemory, WithoutReleaseKeepsTheTagAsItWasSet)
{
    jmp_buf env;
    std::memset(&env, 0x77, sizeof env);
    const Tag tag = rm_allocTag(env, 4711);
    rm_setTagAlloc(2048, tag);
    rm_getMemory(10, tag);
    rm_freeTagMemory(tag, 0);
    EXPECT_EQ(tagTable[tag].state, 2);
    EXPECT_EQ(tagTable[tag].limit, 4711U);
    EXPECT_EQ(tagTable[tag].segmentSize, 2048U);
    EXPECT_EQ(std::memcmp(&tagTable[tag].env, &env, sizeof env), 0);
    EXPECT_EQ(newTag(), tag + 1);
}

TEST_F(FreeTagMemory, WithoutReleaseLeavesATagThatCanBeUsed)
{
    const Tag tag = newTag();
    rm_getMemory(10, tag);
    rm_freeTagMemory(tag, 0);
    EXPECT_NE(rm_getMemory(10, tag), nullptr);
    EXPECT_EQ(layout(tag), "1018 [3]");
}

TEST_F(FreeTagMemory, WithReleaseLetsTheNextTagHaveTheNumber)
{
    takeTagsUpTo(3);
    rm_getMemory(10, 2);
    rm_freeTagMemory(2, 1);
    EXPECT_EQ(tagTable[2].state, 0);
    EXPECT_EQ(newTag(), 2);
}

TEST_F(FreeTagMemory, ReleasesForEveryValueButZero)
{
    takeTagsUpTo(3);
    rm_freeTagMemory(1, -1);
    rm_freeTagMemory(2, 0x0100);
    rm_freeTagMemory(3, INT16_MIN);
    EXPECT_EQ(tagTable[1].state, 0);
    EXPECT_EQ(tagTable[2].state, 0);
    EXPECT_EQ(tagTable[3].state, 0);
}

TEST_F(FreeTagMemory, WorksForATagWithoutMemory)
{
    const Tag tag = newTag();
    EXPECT_EQ(linesOf([&] { rm_freeTagMemory(tag, 1); }), Lines{});
    EXPECT_EQ(rm_memused(), kFirstTable);
}

TEST_F(FreeTagMemory, OfMinusOneReturnsAtOnce)
{
    EXPECT_EQ(linesOf([] { rm_freeTagMemory(-1, 1); }), Lines{});
    newTag();
    const std::string before = wholeHeap();
    EXPECT_EQ(linesOf([] { rm_freeTagMemory(-1, 1); }), Lines{});
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(FreeTagMemory, LogsAnInvalidTag)
{
    newTag();
    const std::string before = wholeHeap();
    EXPECT_EQ(linesOf([] {
                  rm_freeTagMemory(2, 0);
                  rm_freeTagMemory(-2, 1);
              }),
              (Lines{invalidTag(2, "rm_freeTagMemory"), invalidTag(-2, "rm_freeTagMemory")}));
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(FreeTagMemory, LogsATagThatWasReleasedBefore)
{
    takeTagsUpTo(2);
    rm_freeTagMemory(1, 1);
    EXPECT_EQ(linesOf([] { rm_freeTagMemory(1, 1); }), Lines{invalidTag(1, "rm_freeTagMemory")});
}

TEST_F(FreeTagMemory, LogsEveryTagBeforeAnyTable)
{
    EXPECT_EQ(linesOf([] { rm_freeTagMemory(0, 0); }), Lines{invalidTag(0, "rm_freeTagMemory")});
}

TEST_F(FreeTagMemory, OfTagZeroTakesTheLocalEnvironmentAlong)
{
    rm_putLocalEnv("COLOUR=RED");
    rm_freeTagMemory(0, 0);
    EXPECT_EQ(rm_memused(), kFirstTable);
    EXPECT_EQ(rmutil::LocalEnv, nullptr);
    EXPECT_EQ(rmutil::NumLocalEnv, 0);
    EXPECT_EQ(rm_getLocalEnv("COLOUR"), nullptr);
    rm_putLocalEnv("COLOUR=BLUE");
    EXPECT_STREQ(rm_getLocalEnv("COLOUR"), "BLUE");
    EXPECT_EQ(rmutil::checkLocalEnv(), 0U);
}

TEST_F(FreeTagMemory, OfTagZeroWithReleaseLeavesNothingToAllocateFrom)
{
    rm_putLocalEnv("COLOUR=RED");
    rm_freeTagMemory(0, 1);
    EXPECT_EQ(rm_getLocalEnv("COLOUR"), nullptr);
    EXPECT_EQ(fatalLines([] { rm_getMemory(1, 0); }),
              (Lines{invalidTag(0, "rm_getMemory"), kShutdown}));
}

TEST_F(FreeTagMemory, OfAnotherTagLeavesTheLocalEnvironmentAlone)
{
    const Tag tag = newTag();
    rm_putLocalEnv("COLOUR=RED");
    rm_freeTagMemory(tag, 1);
    EXPECT_STREQ(rm_getLocalEnv("COLOUR"), "RED");
}

TEST_F(FreeTagMemory, OfTheFileTableClosesItsFiles)
{
    const std::vector<int> before = rmtest::openDescriptors();
    const int16_t handle = rm_fileOpen("data", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    ASSERT_GE(handle, 0);
    rm_freeTagMemory(file::fileTag, 1);
    EXPECT_EQ(rmtest::openDescriptors().size(), before.size() + 1);  // the token file
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_EQ(file::fileTag, 0);
    EXPECT_EQ(file::nHandles, 0);
    EXPECT_EQ(file::nFilesOpen, 0);
    EXPECT_EQ(file::checkFtab(), 0U);
    rm_syncTerminate();
}

TEST_F(FreeTagMemory, OfTheFileTableWithoutReleaseLeavesFilesThatCanBeOpened)
{
    rm_fileOpen("data", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    rm_freeTagMemory(file::fileTag, 0);
    const int16_t handle = rm_fileOpen("data", RM_O_RDWR, 0, 0, 0);
    EXPECT_GE(handle, 0);
    EXPECT_EQ(file::checkFtab(), 0U);
    rm_fileClose(handle);
    rm_syncTerminate();
}

TEST_F(FreeTagMemory, OfTheFileTableForgetsTheLogFile)
{
    sysfile =
        rm_fileOpen("a.log", RM_O_WRONLY | RM_O_CREAT | RM_O_TRUNC, FILE_FATAL | FILE_STREAM, 0, 0);
    rm_freeTagMemory(file::fileTag, 1);
    EXPECT_EQ(sysfile, -1);
    rm_syncTerminate();
}

// --- rm_freeall

TEST_F(FreeAll, GivesEverythingBack)
{
    takeTagsUpTo(45);
    for (Tag tag = 0; tag <= 45; ++tag) {
        rm_getMemory(10'000, tag);
        rm_getMemory(50'000, tag);
    }
    rm_freeall();
    EXPECT_EQ(rm_memused(), 0U);
    EXPECT_TRUE(rmtest::outstanding().empty());
}

TEST_F(FreeAll, LeavesNoTable)
{
    takeTagsUpTo(3);
    rm_freeall();
    EXPECT_EQ(tagTable, nullptr);
    EXPECT_EQ(nTags, 0);
    EXPECT_EQ(tagTabSize, 0);
}

TEST_F(FreeAll, LetsTheNextCallBuildANewTable)
{
    takeTagsUpTo(50);
    rm_freeall();
    EXPECT_EQ(newTag(), 1);
    EXPECT_EQ(tagTabSize, 40);
    EXPECT_EQ(rm_memused(), kFirstTable);
    EXPECT_EQ(tagTable[0].segmentSize, 49152U);
}

TEST_F(FreeAll, DoesNothingWithoutATable)
{
    EXPECT_EQ(linesOf([] { rm_freeall(); }), Lines{});
    EXPECT_EQ(rm_memused(), 0U);
}

TEST_F(FreeAll, CanBeCalledTwice)
{
    newTag();
    rm_freeall();
    EXPECT_EQ(linesOf([] { rm_freeall(); }), Lines{});
    EXPECT_EQ(rm_memused(), 0U);
}

TEST_F(FreeAll, FreesAReleasedTagZeroToo)
{
    newTag();
    rm_freeTagMemory(0, 1);
    rm_freeall();
    rm_getMemory(1, 0);
    EXPECT_EQ(layout(0), "6139 [2]");
}

TEST_F(FreeAll, EmptiesTheLocalEnvironment)
{
    rm_putLocalEnv("COLOUR=RED");
    rm_freeall();
    EXPECT_EQ(rmutil::LocalEnv, nullptr);
    EXPECT_EQ(rmutil::NumLocalEnv, 0);
    EXPECT_EQ(rm_getLocalEnv("COLOUR"), nullptr);
}

TEST_F(FreeAll, ClosesAllFiles)
{
    const std::vector<int> before = rmtest::openDescriptors();
    rm_fileOpen("a", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    rm_fileOpen("b", RM_O_WRONLY | RM_O_CREAT, FILE_STREAM, 0, 0);
    rm_freeall();
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_EQ(file::ftabSize, 0);
    EXPECT_EQ(file::nHandles, 0);
    EXPECT_EQ(file::nFilesOpen, 0);
    EXPECT_EQ(file::lruNext, 0);
    EXPECT_EQ(file::fileTag, 0);
    rm_syncTerminate();
    EXPECT_EQ(rmtest::openDescriptors(), before);
}

TEST_F(FreeAll, WritesTheLogFileOutAndForgetsIt)
{
    sysfile =
        rm_fileOpen("a.log", RM_O_WRONLY | RM_O_CREAT | RM_O_TRUNC, FILE_FATAL | FILE_STREAM, 0, 0);
    rm_systemLog(2);
    const Lines lines = linesOf([] {
        rm_systemLogWrite("before");
        rm_freeall();
        rm_systemLogWrite("after");
    });
    rm_systemLog(0);
    EXPECT_EQ(sysfile, -1);
    EXPECT_EQ(lines, (Lines{"before", "after"}));
    EXPECT_EQ(rmtest::logLines(rmtest::readFile("a.log")), Lines{"before"});
    rm_syncTerminate();
}

TEST_F(FreeAll, ForgetsALogFileThatNoTableKnows)
{
    newTag();
    sysfile = 5;
    rm_freeall();
    EXPECT_EQ(sysfile, -1);
}

TEST_F(FreeAll, ForgetsTheTagOfAFileTableThatWasNeverFinished)
{
    Lines lines;
    {
        // The tag itself can be had, its first segment cannot.
        ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .when = [](const CallRecord& c) {
                               return c.args[0] == file::kTagSegmentSize;
                           }});
        lines = fatalLines([] { rm_fileOpen("data", RM_O_RDWR | RM_O_CREAT, 0, 0, 0); });
    }
    EXPECT_EQ(lines, outOfMemory());
    EXPECT_NE(file::fileTag, 0);
    rm_freeall();
    EXPECT_EQ(file::fileTag, 0);
    rm_syncTerminate();
}

TEST_F(FreeAll, LetsAHostThatJumpedOutCallOn)
{
    rm_putLocalEnv("COLOUR=RED");
    ASSERT_GE(rm_fileOpen("data", RM_O_RDWR | RM_O_CREAT, 0, 0, 0), 0);
    Lines lines;
    {
        ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
        lines = fatalLines([] { rm_getMemory(1'000'000, 0); });
        rm_freeall();
        rm_syncTerminate();
    }
    EXPECT_EQ(lines, outOfMemory());

    rm_putLocalEnv("COLOUR=BLUE");
    EXPECT_STREQ(rm_getenv("COLOUR"), "BLUE");
    const int16_t handle = rm_fileOpen("data", RM_O_RDWR, 0, 0, 0);
    ASSERT_GE(handle, 0);
    EXPECT_EQ(rm_fileWrite(handle, "text", 4), 4U);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    EXPECT_EQ(rmutil::checkLocalEnv(), 0U);
    EXPECT_EQ(file::checkFtab(), 0U);
    rm_fileClose(handle);
    rm_syncTerminate();
}

// --- rm_memoryAvail

TEST_F(MemoryAvail, IsMinusOneWithoutALimit)
{
    const Tag tag = newTag();
    rm_getMemory(100, tag);
    EXPECT_EQ(rm_memoryAvail(tag), -1);
}

TEST_F(MemoryAvail, IsTheLimitLessWhatLiveBlocksTakeWithTheirHeaders)
{
    const Tag tag = rm_allocTag(nullptr, 10'000);
    EXPECT_EQ(rm_memoryAvail(tag), 10'000);
    void* block = rm_getMemory(10, tag);
    EXPECT_EQ(rm_memoryAvail(tag), 10'000 - 24);
    rm_freeMemory(block, tag);
    EXPECT_EQ(rm_memoryAvail(tag), 10'000);
}

TEST_F(MemoryAvail, IsNegativeOnceTheLimitIsPassed)
{
    const Tag tag = rm_allocTag(nullptr, 100);
    rm_getMemory(1000, tag);
    EXPECT_EQ(rm_memoryAvail(tag), 100 - 1008);
}

TEST_F(MemoryAvail, TakesALimitOfZero)
{
    const Tag tag = rm_allocTag(nullptr, 0);
    EXPECT_EQ(rm_memoryAvail(tag), 0);
    rm_getMemory(0, tag);
    EXPECT_EQ(rm_memoryAvail(tag), -8);
}

TEST_F(MemoryAvail, IsZeroForAnInvalidTagWhichIsLogged)
{
    newTag();
    int32_t left = -7;
    EXPECT_EQ(linesOf([&] { left = rm_memoryAvail(2); }), Lines{invalidTag(2, "rm_memoryAvail")});
    EXPECT_EQ(left, 0);
}

TEST_F(MemoryAvail, IsZeroBeforeAnyTable)
{
    int32_t left = -7;
    EXPECT_EQ(linesOf([&] { left = rm_memoryAvail(0); }), Lines{invalidTag(0, "rm_memoryAvail")});
    EXPECT_EQ(left, 0);
    EXPECT_EQ(tagTable, nullptr);
}

// --- rm_setMemoryLimit

TEST_F(MemoryLimit, IsNoneAtFirst)
{
    EXPECT_EQ(rmemavail, 0xFFFFFFFFU);
}

TEST_F(MemoryLimit, IsStoredInRmemavail)
{
    rm_setMemoryLimit(123456);
    EXPECT_EQ(rmemavail, 123456U);
}

TEST_F(MemoryLimit, GoesToTagOneWhenTheFirstAllocationMakesIt)
{
    rm_setMemoryLimit(50'000);
    rm_getMemory(10, 1);
    EXPECT_EQ(tagTable[1].limit, 50'000U);
    EXPECT_EQ(rm_memoryAvail(1), 50'000 - 24);
}

TEST_F(MemoryLimit, DoesNotGoToTagZero)
{
    rm_setMemoryLimit(50'000);
    rm_getMemory(10, 1);
    EXPECT_EQ(rm_memoryAvail(0), -1);
}

TEST_F(MemoryLimit, DoesNotGoToATagThatTheHostMakes)
{
    rm_setMemoryLimit(50'000);
    const Tag tag = rm_allocTag(nullptr, 70'000);
    EXPECT_EQ(rm_memoryAvail(tag), 70'000);
}

TEST_F(MemoryLimit, LeavesExistingTagsAlone)
{
    rm_getMemory(10, 1);
    rm_setMemoryLimit(50'000);
    EXPECT_EQ(rm_memoryAvail(1), -1);
}

TEST_F(MemoryLimit, IsNeverEnforced)
{
    rm_setMemoryLimit(100);
    EXPECT_NE(rm_getMemory(1'000'000, 1), nullptr);
    EXPECT_EQ(rm_memoryAvail(1), 100 - 1'000'008);
}

// --- checkTag

TEST_F(CheckTag, AcceptsTagsInUseInEitherState)
{
    jmp_buf env;
    std::memset(&env, 0, sizeof env);
    const Tag plain = newTag();
    const Tag jumping = rm_allocTag(env, RM_NO_LIMIT);
    EXPECT_EQ(linesOf([&] {
                  EXPECT_EQ(rmalloc::checkTag(0, "a"), 0);
                  EXPECT_EQ(rmalloc::checkTag(plain, "a"), 0);
                  EXPECT_EQ(rmalloc::checkTag(jumping, "a"), 0);
              }),
              Lines{});
}

TEST_F(CheckTag, GivesMinus56ForAnyOtherAndLogsTheCaller)
{
    takeTagsUpTo(2);
    rm_freeTagMemory(1, 1);
    EXPECT_EQ(linesOf([] {
                  EXPECT_EQ(rmalloc::checkTag(1, "someCall"), -56);
                  EXPECT_EQ(rmalloc::checkTag(3, "someCall"), -56);
                  EXPECT_EQ(rmalloc::checkTag(-1, "otherCall"), -56);
              }),
              (Lines{"Invalid tag 1 supplied to someCall", "Invalid tag 3 supplied to someCall",
                     "Invalid tag -1 supplied to otherCall"}));
}

// --- SEG_ALLOC

TEST_F(SegAllocVariable, MakesEverySegmentAsLargeAsItsRequest)
{
    ASSERT_EQ(readFrom("1"), 1);
    rm_getMemory(10, 1);
    rm_getMemory(0, 1);
    rm_getMemory(8, 1);
    EXPECT_EQ(layout(1), "[3] | [1] | [2]");
    EXPECT_EQ(rm_memused(), kFirstTable + 6 * 8 + 3 * 24);
}

TEST_F(SegAllocVariable, AlsoHoldsForTagZero)
{
    ASSERT_EQ(readFrom("1"), 1);
    rm_getMemory(10, 0);
    EXPECT_EQ(layout(0), "[3]");
}

TEST_F(SegAllocVariable, LeavesALargeRequestAsItIs)
{
    ASSERT_EQ(readFrom("1"), 1);
    rm_getMemory(100'000, 1);
    EXPECT_EQ(layout(1), "[12501]");
}

TEST_F(SegAllocVariable, OfZeroTurnsItOff)
{
    ASSERT_EQ(readFrom("1"), 1);
    EXPECT_EQ(readFrom("0"), 0);
    rm_getMemory(10, 1);
    EXPECT_EQ(layout(1), "1018 [3]");
}

TEST_F(SegAllocVariable, IsReadAgainForEveryTable)
{
    EXPECT_EQ(readFrom("0"), 0);
    EXPECT_EQ(readFrom("1"), 1);
    EXPECT_EQ(readFrom("7"), 7);
    EXPECT_EQ(readFrom("0"), 0);
}

TEST_F(SegAllocVariable, IsNotReadWhileATableExists)
{
    newTag();
    setenv("SEG_ALLOC", "1", 1);
    rmtest::resetCalls();
    takeTagsUpTo(40);  // the table grows
    EXPECT_EQ(seg_alloc, 0);
    EXPECT_EQ(callCount(Call::kGetenv), 0);
    rm_freeall();
    rmtest::resetCalls();
}

TEST_F(SegAllocVariable, LeavesSegAllocAloneWhenItIsAbsent)
{
    seg_alloc = 5;
    EXPECT_EQ(readFrom(nullptr), 5);
    rm_getMemory(10, 1);
    EXPECT_EQ(layout(1), "[3]");
}

TEST_F(SegAllocVariable, StaysAsItWasReadWhenItIsAbsentLater)
{
    ASSERT_EQ(readFrom("3"), 3);
    EXPECT_EQ(readFrom(nullptr), 3);
}

TEST_F(SegAllocVariable, KeepsSixteenBitsOfTheNumber)
{
    EXPECT_EQ(readFrom("65536"), 0);
    EXPECT_EQ(readFrom("131072"), 0);
    EXPECT_EQ(readFrom("65537"), 1);
    EXPECT_EQ(readFrom("32768"), INT16_MIN);
}

TEST_F(SegAllocVariable, OfAMultipleOf65536TurnsItOff)
{
    ASSERT_EQ(readFrom("1"), 1);
    ASSERT_EQ(readFrom("65536"), 0);
    rm_getMemory(10, 1);
    EXPECT_EQ(layout(1), "1018 [3]");
}

TEST_F(SegAllocVariable, TakesANegativeNumberForOn)
{
    ASSERT_EQ(readFrom("-1"), -1);
    rm_getMemory(10, 1);
    EXPECT_EQ(layout(1), "[3]");
}

TEST_F(SegAllocVariable, ReadsTheNumberAtTheStartOfItsText)
{
    EXPECT_EQ(readFrom("12 blocks"), 12);
    EXPECT_EQ(readFrom("yes"), 0);
    EXPECT_EQ(readFrom(""), 0);
}

TEST_F(SegAllocVariable, ComesFromTheLocalEnvironmentFirst)
{
    setenv("SEG_ALLOC", "1", 1);
    char entry[] = "SEG_ALLOC=9";
    char* entries[] = {entry};
    rmutil::LocalEnv = entries;
    rmutil::NumLocalEnv = 1;
    newTag();
    EXPECT_EQ(seg_alloc, 9);
    rmutil::LocalEnv = nullptr;
    rmutil::NumLocalEnv = 0;
}

TEST_F(SegAllocVariable, IsReadBeforeThereIsATable)
{
    newTag();
    const auto calls = callTrace({Call::kGetenv, Call::kMalloc});
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].call, Call::kGetenv);
    EXPECT_EQ(calls[0].path(), "SEG_ALLOC");
    EXPECT_EQ(calls[1].call, Call::kMalloc);
}

TEST_F(SegAllocVariable, IsLookedForInTheEnvironmentAgainAfterTheLocalOneWasFreed)
{
    rm_putLocalEnv("SEG_ALLOC=9");
    EXPECT_EQ(readFrom("2"), 2);
}

TEST_F(LargestTagTable, ReusesTheLowestOfManyReleasedTags)
{
    makeTableAlmostFull();
    for (const Tag tag : std::initializer_list<Tag>{32'001, 4096, 64, 12'345, 4095, 63, 65}) {
        rm_freeTagMemory(tag, 1);
    }
    for (const Tag tag : std::initializer_list<Tag>{63, 64, 65, 4095, 4096, 12'345, 32'001}) {
        EXPECT_EQ(newTag(), tag);
    }
    EXPECT_EQ(newTag(), 32'760);
}

TEST_F(LargestTagTable, IsForgottenWithItsReleasedTags)
{
    makeTableAlmostFull();
    rm_freeTagMemory(70, 1);
    rm_freeTagMemory(12'345, 1);
    rm_freeall();
    EXPECT_EQ(newTag(), 1);
    EXPECT_EQ(newTag(), 2);
}
}  // namespace
