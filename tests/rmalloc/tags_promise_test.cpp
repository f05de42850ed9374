// What hosts rely on beside the plain cases: the order in which a pointer and a tag are looked at,
// which bytes of a block are left alone, what a limit is, how an address is printed.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include <sys/mman.h>

#include <gtest/gtest.h>

namespace
{
using rmalloc::tagTable;
using rmtest::badPointer;
using rmtest::bytesFor;
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::fill;
using rmtest::holdsPattern;
using rmtest::layout;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::pointerText;
using rmtest::ScopedFault;
using rmtest::wholeHeap;

// Before the fixture, or anything else, has set them.
const int16_t segAllocAtFirst = seg_alloc;
const uint32_t memoryLimitAtFirst = rmemavail;

class MemoryAtFirst : public rmtest::HeapTest
{
};

class RequestedBytes : public rmtest::HeapTest
{
};

class ResizedBlock : public rmtest::HeapTest
{
};

class ReportedLimit : public rmtest::HeapTest
{
};

class KeptJumpBuffer : public rmtest::HeapTest
{
};

class LineOfAnotherTag : public rmtest::HeapTest
{
};

class NewTable : public rmtest::HeapTest
{
};

Tag newTag()
{
    return rm_allocTag(nullptr, RM_NO_LIMIT);
}

// --- Before anything was called

TEST_F(MemoryAtFirst, HasSegmentsOfTheUsualSize)
{
    EXPECT_EQ(segAllocAtFirst, 0);
}

TEST_F(MemoryAtFirst, HasNoLimit)
{
    EXPECT_EQ(memoryLimitAtFirst, 0xFFFFFFFFU);
}

// --- What a request gives

TEST_F(RequestedBytes, AreNotCleared)
{
    const Tag tag = newTag();
    rm_getMemory(1, tag);  // keeps the segment
    void* used = rm_getMemory(100, tag);
    fill(used, 100, 5);
    rm_freeMemory(used, tag);
    ASSERT_EQ(rm_getMemory(100, tag), used);
    EXPECT_TRUE(holdsPattern(used, 100, 5));
}

// Segments of every size begin and end anywhere; what is cut from them does not.
TEST_F(RequestedBytes, AreAlignedWhateverTheSizeOfTheSegment)
{
    const Tag tag = newTag();
    for (uint32_t size = 0; size < 600; ++size) {
        rm_setTagAlloc(size, tag);
        const void* block = rm_getMemory(size % 40, tag);
        ASSERT_EQ(reinterpret_cast<uintptr_t>(block) % 8, 0U) << size;
    }
    rm_freeTagMemory(tag, 1);
    rmalloc::memused = rmtest::kFirstTable;  // odd sizes do not come back to the byte
}

// How much of the disk has to stay free says nothing of memory.
TEST_F(RequestedBytes, DoNotDependOnTheSpaceThatHasToStayFree)
{
    const double before = rminfree;
    for (const double space : {0.0, 1e18, -1.0}) {
        rminfree = space;
        const Tag tag = newTag();
        EXPECT_EQ(linesOf([&] {
                      rm_getMemory(10, tag);
                      rm_getMemory(1'000'000, tag);
                  }),
                  Lines{});
        EXPECT_EQ(layout(tag), "1018 [3] | [125001]");
    }
    rminfree = before;
}

TEST_F(RequestedBytes, BeyondTheLimitOfTheTagAreGivenWithoutAWord)
{
    const Tag tag = rm_allocTag(nullptr, 16);
    void* first = nullptr;
    void* second = nullptr;
    EXPECT_EQ(linesOf([&] {
                  first = rm_getMemory(8, tag);
                  second = rm_getMemory(1, tag);
                  first = rm_extendMemory(first, 5000, tag);
                  second = rm_growMemory(second, 5000, tag);
              }),
              Lines{});
    EXPECT_NE(first, nullptr);
    EXPECT_NE(second, nullptr);
    EXPECT_EQ(rm_memoryAvail(tag), 16 - 2 * 5008);
}

// --- Resizing

TEST_F(ResizedBlock, IsLookedAtBeforeTheTag)
{
    const Drawn drawn = draw("2 [6] [1]");
    char* inside = static_cast<char*>(drawn.live[0]) + 8;
    std::memset(drawn.live[0], 0, bytesFor(6));
    const std::string before = wholeHeap();
    for (const int tag : {77, -1, -56, 32767}) {
        void* result = inside;
        EXPECT_EQ(linesOf([&] { result = rm_extendMemory(inside, 10, static_cast<Tag>(tag)); }),
                  Lines{badPointer(inside)});
        EXPECT_EQ(result, nullptr);
    }
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(ResizedBlock, ThatWasFreedIsLookedAtBeforeTheTag)
{
    const Drawn drawn = draw("2 [6] [1]");
    rm_freeMemory(drawn.live[0], drawn.tag);
    EXPECT_EQ(linesOf([&] { rm_extendMemory(drawn.live[0], 10, 77); }),
              Lines{badPointer(drawn.live[0])});
}

// To the byte: what stood behind them in the free space stays there.
TEST_F(ResizedBlock, ThatShrinksDownwardBringsTheBytesOfItsNewSizeAndNoMore)
{
    const Drawn drawn = draw("[8] [6] [1]");
    std::memset(drawn.live[0], 0x55, bytesFor(8));
    fill(drawn.live[1], bytesFor(6), 3);
    rm_freeMemory(drawn.live[0], drawn.tag);

    const auto* block = static_cast<const char*>(rm_extendMemory(drawn.live[1], 13, drawn.tag));

    ASSERT_EQ(layout(drawn.tag), "[3] 11 [1]");
    EXPECT_TRUE(holdsPattern(block, 13, 3));
    EXPECT_EQ(std::string(block + 13, 3), std::string(3, 0x55));
}

TEST_F(ResizedBlock, ThatGrowsDownwardBringsItsOldBytesAndNoMore)
{
    const Drawn drawn = draw("[8] [2] [1]");
    std::memset(drawn.live[0], 0x55, bytesFor(8));
    fill(drawn.live[1], bytesFor(2), 3);
    rm_freeMemory(drawn.live[0], drawn.tag);

    const auto* block =
        static_cast<const char*>(rm_extendMemory(drawn.live[1], bytesFor(5), drawn.tag));

    ASSERT_EQ(layout(drawn.tag), "[5] 5 [1]");
    EXPECT_TRUE(holdsPattern(block, bytesFor(2), 3));
    EXPECT_EQ(std::string(block + bytesFor(2), 24), std::string(24, 0x55));
}

TEST_F(ResizedBlock, ThatMovesBringsItsOldBytesAndNoMore)
{
    const Drawn drawn = draw("[9] [1] [3] [1]");
    std::memset(drawn.live[0], 0x55, bytesFor(9));
    fill(drawn.live[2], bytesFor(3), 3);
    rm_freeMemory(drawn.live[0], drawn.tag);

    const auto* block =
        static_cast<const char*>(rm_extendMemory(drawn.live[2], bytesFor(6), drawn.tag));

    ASSERT_EQ(layout(drawn.tag), "3 [6] [1] 3 [1]");
    EXPECT_TRUE(holdsPattern(block, bytesFor(3), 3));
    EXPECT_EQ(std::string(block + bytesFor(3), 24), std::string(24, 0x55));
}

// --- Limits

TEST_F(ReportedLimit, IsNoneAtItsLargestValueOnly)
{
    EXPECT_EQ(rm_memoryAvail(rm_allocTag(nullptr, 0xFFFFFFFF)), -1);
    EXPECT_EQ(rm_memoryAvail(rm_allocTag(nullptr, 0xFFFFFFFE)), -2);
    EXPECT_EQ(rm_memoryAvail(rm_allocTag(nullptr, 0xFFFFFFFD)), -3);
}

TEST_F(ReportedLimit, HasTheSignOfThirtyTwoBits)
{
    EXPECT_EQ(rm_memoryAvail(rm_allocTag(nullptr, 0x7FFFFFFF)), INT32_MAX);
    const Tag tag = rm_allocTag(nullptr, 0x80000007);
    EXPECT_EQ(rm_memoryAvail(tag), INT32_MIN + 7);
    rm_getMemory(0, tag);
    EXPECT_EQ(rm_memoryAvail(tag), INT32_MAX);
}

// A tag with a limit that has none left is another thing than a tag without a limit.
TEST_F(ReportedLimit, IsUsedUpToTheByte)
{
    const Tag tag = rm_allocTag(nullptr, 48);
    rm_getMemory(40, tag);
    EXPECT_EQ(rm_memoryAvail(tag), 0);
}

// --- Jump buffers

TEST_F(KeptJumpBuffer, IsStillTheTagsWhenTheTableHasGrown)
{
    const ScopedFault fault({.call = Call::kAllocBlock});  // no block comes back
    jmp_buf env;
    volatile int value = -1;
    switch (setjmp(env)) {
        case 0: {
            const Tag tag = rm_allocTag(env, RM_NO_LIMIT);
            rm_resetTag(nullptr, tag);
            while (newTag() < 81) {
            }
            rm_getMemory(10, tag);
            break;
        }
        case 1:
            value = 1;
            break;
        default:
            value = 99;
    }
    EXPECT_EQ(value, 1);
    EXPECT_EQ(rmalloc::tagTabSize, 120);
}

// --- The lines about a block of another tag

constexpr uint32_t kLowSegment = 65536;  // bytes

// Memory at an address of less than eight digits; null where the system gives none.
void* lowMemory()
{
    for (uintptr_t at = 0x00100000; at < 0x0FF00000; at += 0x00100000) {
        void* got = mmap(reinterpret_cast<void*>(at), kLowSegment, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        if (got == reinterpret_cast<void*>(at)) {
            return got;
        }
        if (got != MAP_FAILED) {
            munmap(got, kLowSegment);
        }
    }
    return nullptr;
}

TEST_F(LineOfAnotherTag, ShowsTheAddressOfTheHeaderWithEightDigitsAtLeast)
{
    void* low = lowMemory();
    ASSERT_NE(low, nullptr) << "no memory below 0x0FF00000";
    const auto address = reinterpret_cast<intptr_t>(low);
    const ScopedFault get({.call = Call::kMalloc,
                           .when = [](const CallRecord& c) { return c.args[0] == kLowSegment; },
                           .action = [=](const CallRecord&) { return int64_t{address}; }});
    const ScopedFault giveBack({.call = Call::kFree,
                                .when = [=](const CallRecord& c) { return c.args[0] == address; },
                                .action = [](const CallRecord&) { return int64_t{0}; }});
    const Tag owner = newTag();
    const Tag other = newTag();
    rm_setTagAlloc(kLowSegment, owner);
    void* block = rm_getMemory(100, owner);
    ASSERT_EQ(get.hits(), 1);

    char digits[32];
    std::snprintf(digits, sizeof digits, "%lX",
                  static_cast<unsigned long>(reinterpret_cast<uintptr_t>(block) - 8));
    std::string header = digits;
    ASSERT_LT(header.size(), 8U);
    header.insert(0, 8 - header.size(), '0');
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, other); }),
              (Lines{"tag = " + std::to_string(other) + ", freeHDR = " + header,
                     "WARNING: pointer not found within tag segments, " + pointerText(block)}));

    rm_freeTagMemory(owner, 1);
    EXPECT_EQ(giveBack.hits(), 1);
    munmap(low, kLowSegment);
}

// --- The table after rm_freeall

TEST_F(NewTable, IsBuiltByTheNextAllocationWithTheLimitOfThen)
{
    rm_getMemory(10, 1);
    rm_setTagName("first", 1);
    rm_setMemoryLimit(60'000);
    rm_freeall();
    rm_getMemory(10, 1);
    EXPECT_EQ(rmalloc::nTags, 2);
    EXPECT_EQ(tagTable[1].limit, 60'000U);
    EXPECT_EQ(tagTable[1].name, nullptr);
    EXPECT_EQ(layout(1), "1018 [3]");
    EXPECT_EQ(rm_memused(), rmtest::kFirstTable + 8192);
}

TEST_F(NewTable, KnowsNothingOfTheTagsThatHadBeenReleased)
{
    while (newTag() < 9) {
    }
    for (const Tag tag : std::initializer_list<Tag>{2, 5, 9}) {
        rm_freeTagMemory(tag, 1);
    }
    EXPECT_EQ(linesOf([] { rm_freeall(); }), Lines{});
    for (Tag tag = 1; tag <= 10; ++tag) {
        EXPECT_EQ(newTag(), tag);
    }
    rm_freeTagMemory(7, 1);
    EXPECT_EQ(newTag(), 7);
    EXPECT_EQ(newTag(), 11);
}
}  // namespace
