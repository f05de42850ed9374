// The allocation calls: what they return, what they do with pointers and tags that are none, and
// how a block changes its size. Cases are drawings, see heap.h.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/chain.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>
#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace
{
using rmalloc::nTags;
using rmalloc::tagTable;
using rmtest::allocated;
using rmtest::badPointer;
using rmtest::bytesFor;
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::fatalLines;
using rmtest::fill;
using rmtest::headerBefore;
using rmtest::holdsPattern;
using rmtest::invalidTag;
using rmtest::kFirstTable;
using rmtest::kShutdown;
using rmtest::layout;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::notFound;
using rmtest::offsetInSegment;
using rmtest::ScopedFault;
using rmtest::wholeHeap;

class GetMemory : public rmtest::HeapTest
{
};

class StateOneJump : public rmtest::HeapTest
{
};

class CGetMemory : public rmtest::HeapTest
{
};

class Strdup : public rmtest::HeapTest
{
};

class FreeMemory : public rmtest::HeapTest
{
};

class ForeignPointer : public rmtest::HeapTest
{
};

class ZFreeMemory : public rmtest::HeapTest
{
};

class ExtendInPlace : public rmtest::HeapTest
{
};

class ExtendMoving : public rmtest::HeapTest
{
};

class ExtendMemory : public rmtest::HeapTest
{
};

class GrowMemory : public rmtest::HeapTest
{
};

class Memused : public rmtest::HeapTest
{
};

Tag newTag()
{
    return rm_allocTag(nullptr, RM_NO_LIMIT);
}

void* get(Tag tag, uint32_t size, uint32_t seed)
{
    void* block = rm_getMemory(size, tag);
    fill(block, size, seed);
    return block;
}

// --- rm_getMemory

TEST_F(GetMemory, OnAnEmptyTableMakesTagsZeroAndOne)
{
    EXPECT_NE(rm_getMemory(10, 1), nullptr);
    EXPECT_EQ(nTags, 2);
    EXPECT_EQ(tagTable[0].state, 1);
    EXPECT_EQ(tagTable[1].state, 1);
    EXPECT_EQ(layout(1), "1018 [3]");
    EXPECT_EQ(layout(0), "");
}

TEST_F(GetMemory, OnAnEmptyTableAlsoWorksForTagZero)
{
    EXPECT_NE(rm_getMemory(10, 0), nullptr);
    EXPECT_EQ(nTags, 2);
    EXPECT_EQ(layout(0), "6138 [3]");
}

TEST_F(GetMemory, OnAnEmptyTableIsFatalForAnyOtherTag)
{
    EXPECT_EQ(fatalLines([] { rm_getMemory(10, 2); }),
              (Lines{invalidTag(2, "rm_getMemory"), kShutdown}));
    EXPECT_EQ(nTags, 2);
}

TEST_F(GetMemory, DoesNotMakeTagOneWhenATableExists)
{
    rm_getMemory(10, 1);
    rm_freeTagMemory(1, 1);
    EXPECT_EQ(fatalLines([] { rm_getMemory(10, 1); }),
              (Lines{invalidTag(1, "rm_getMemory"), kShutdown}));
}

TEST_F(GetMemory, IsFatalForAnInvalidTag)
{
    newTag();
    const std::string before = wholeHeap();
    EXPECT_EQ(fatalLines([] { rm_getMemory(10, -1); }),
              (Lines{invalidTag(-1, "rm_getMemory"), kShutdown}));
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(GetMemory, OfNothingGivesAValidPointerEachTime)
{
    const Tag tag = newTag();
    std::set<void*> pointers;
    for (int i = 0; i < 100; ++i) {
        pointers.insert(rm_getMemory(0, tag));
    }
    EXPECT_EQ(pointers.size(), 100U);
    EXPECT_EQ(pointers.count(nullptr), 0U);
    EXPECT_EQ(linesOf([&] {
                  for (void* pointer : pointers) {
                      rm_freeMemory(pointer, tag);
                  }
              }),
              Lines{});
    EXPECT_EQ(rm_memused(), kFirstTable);
}

TEST_F(GetMemory, AlignsEveryBlockToEightBytes)
{
    const Tag tag = newTag();
    for (uint32_t size = 0; size < 200; ++size) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(rm_getMemory(size, tag)) % 8, 0U) << size;
    }
}

TEST_F(GetMemory, GivesAllTheBytesThatWereAskedFor)
{
    const Tag tag = newTag();
    std::vector<void*> blocks;
    for (uint32_t size = 0; size < 300; ++size) {
        blocks.push_back(get(tag, size, size));
    }
    for (uint32_t size = 0; size < 300; ++size) {
        EXPECT_TRUE(holdsPattern(blocks[size], size, size)) << size;
    }
}

TEST_F(GetMemory, WorksForATagWithAJumpBuffer)
{
    jmp_buf env;
    std::memset(&env, 0, sizeof env);
    const Tag tag = rm_allocTag(env, RM_NO_LIMIT);
    EXPECT_NE(rm_getMemory(10, tag), nullptr);
}

// No block comes back: it cannot happen, since a segment that cannot be had is fatal before.

// The value with which control arrived at the tag's buffer, or -1 when it did not. `state` is the
// tag's when the block fails to come.
int jumpValue(int16_t state, Lines* lines)
{
    jmp_buf env;
    volatile int value = -1;
    volatile int fatal = 0;
    const std::string text = rmtest::captureStderr([&] {
        ScopedFault fault({.call = Call::kAllocBlock});
        switch (setjmp(env)) {
            case 0:
                fatal = rmtest::catchFatal([&] {
                    const Tag tag = rm_allocTag(env, RM_NO_LIMIT);
                    if (state == rmalloc::kTagInUse) {
                        rm_resetTag(nullptr, tag);
                    }
                    rm_getMemory(10, tag);
                });
                break;
            case 1:
                value = 1;
                break;
            default:
                value = 99;
        }
    });
    *lines = rmtest::logLines(text);
    EXPECT_EQ(fatal, value == -1 ? 1 : 0);
    return value;
}

TEST_F(StateOneJump, GoesToTheTagsBufferWithOne)
{
    Lines lines;
    EXPECT_EQ(jumpValue(rmalloc::kTagInUse, &lines), 1);
    EXPECT_EQ(lines, Lines{});
    EXPECT_FALSE(rmsrv::inFatalPath());
}

TEST_F(StateOneJump, IsNotTakenInStateTwoWhichIsFatal)
{
    Lines lines;
    EXPECT_EQ(jumpValue(rmalloc::kTagInUseWithJump, &lines), -1);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), kShutdown);
}

TEST_F(StateOneJump, LeavesAHeapThatCanBeUsed)
{
    Lines lines;
    jumpValue(rmalloc::kTagInUse, &lines);
    EXPECT_EQ(layout(1), "");
    EXPECT_NE(rm_getMemory(10, 1), nullptr);
    EXPECT_EQ(layout(1), "1018 [3]");
}

// --- rm_cGetMemory

TEST_F(CGetMemory, ClearsTheBlock)
{
    const Tag tag = newTag();
    void* keeper = rm_getMemory(1, tag);
    rm_freeMemory(get(tag, 500, 3), tag);
    const auto* block = static_cast<const char*>(rm_cGetMemory(500, tag));
    EXPECT_EQ(std::string(block, 500), std::string(500, '\0'));
    rm_freeMemory(keeper, tag);
}

TEST_F(CGetMemory, ClearsTheBytesAskedForAndNoMore)
{
    const Tag tag = newTag();
    void* keeper = rm_getMemory(1, tag);
    void* dirty = get(tag, 16, 3);
    rm_freeMemory(dirty, tag);
    ASSERT_EQ(rm_cGetMemory(9, tag), dirty);
    const auto* bytes = static_cast<const uint8_t*>(dirty);
    EXPECT_EQ(bytes[8], 0);
    EXPECT_EQ(bytes[9], rmtest::patternByte(3, 9));
    rm_freeMemory(keeper, tag);
}

TEST_F(CGetMemory, IsPlacedAsRmGetMemoryPlaces)
{
    const Drawn drawn = draw("2 [1] 9 [1]");
    rm_cGetMemory(bytesFor(4), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] 5 [4] [1]");
}

TEST_F(CGetMemory, OfNothingGivesAValidPointer)
{
    const Tag tag = newTag();
    EXPECT_NE(rm_cGetMemory(0, tag), nullptr);
    EXPECT_EQ(layout(tag), "1020 [1]");
}

TEST_F(CGetMemory, OnAnEmptyTableMakesTagOne)
{
    EXPECT_NE(rm_cGetMemory(10, 1), nullptr);
}

TEST_F(CGetMemory, IsFatalForAnInvalidTag)
{
    newTag();
    EXPECT_EQ(fatalLines([] { rm_cGetMemory(10, 2); }),
              (Lines{invalidTag(2, "rm_getMemory"), kShutdown}));
}

// --- rm_Strdup

TEST_F(Strdup, CopiesTheText)
{
    const Tag tag = newTag();
    const char text[] = "a text";
    char* copy = rm_Strdup(text, tag);
    EXPECT_STREQ(copy, "a text");
    EXPECT_NE(copy, text);
}

TEST_F(Strdup, TakesTheLengthAndTheTerminator)
{
    const Tag tag = newTag();
    rm_Strdup("1234567", tag);
    EXPECT_EQ(layout(tag), "1019 [2]");
    rm_Strdup("12345678", tag);
    EXPECT_EQ(layout(tag), "1016 [3] [2]");
}

TEST_F(Strdup, CopiesAnEmptyText)
{
    const Tag tag = newTag();
    EXPECT_STREQ(rm_Strdup("", tag), "");
    EXPECT_EQ(layout(tag), "1019 [2]");
}

TEST_F(Strdup, CopiesALongText)
{
    const Tag tag = newTag();
    const std::string text(100'000, 'q');
    EXPECT_EQ(rm_Strdup(text.c_str(), tag), text);
}

TEST_F(Strdup, OnAnEmptyTableMakesTagOne)
{
    EXPECT_STREQ(rm_Strdup("x", 1), "x");
}

TEST_F(Strdup, IsFatalForAnInvalidTag)
{
    newTag();
    EXPECT_EQ(fatalLines([] { rm_Strdup("x", 2); }),
              (Lines{invalidTag(2, "rm_getMemory"), kShutdown}));
}

#if SIZE_MAX > UINT32_MAX
// The text is one small piece of memory, mapped again and again.
TEST_F(Strdup, OfATextThatSizesCannotCountIsOutOfMemory)
{
    constexpr std::size_t kPiece = std::size_t{1} << 26;
    constexpr std::size_t kText = std::size_t{1} << 32;
    const int fd = memfd_create("piece", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(fd, kPiece), 0);
    void* whole = mmap(nullptr, kText + kPiece, PROT_READ,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(whole, MAP_FAILED);
    auto* text = static_cast<char*>(whole);
    void* piece = mmap(text, kPiece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0);
    ASSERT_NE(piece, MAP_FAILED);
    std::memset(text, 'x', kPiece);
    for (std::size_t at = kPiece; at < kText; at += kPiece) {
        ASSERT_NE(mmap(text + at, kPiece, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0), MAP_FAILED);
    }
    close(fd);
    const Tag tag = newTag();

    EXPECT_EQ(fatalLines([&] { rm_Strdup(text, tag); }), rmtest::outOfMemory());

    EXPECT_EQ(layout(tag), "");
    munmap(text, kText + kPiece);
}
#endif

// --- rm_freeMemory

TEST_F(FreeMemory, OfNullDoesNothing)
{
    EXPECT_EQ(linesOf([] { rm_freeMemory(nullptr, 1); }), Lines{});
    EXPECT_EQ(tagTable, nullptr);
    newTag();
    EXPECT_EQ(linesOf([] { rm_freeMemory(nullptr, 999); }), Lines{});
}

TEST_F(FreeMemory, GivesABlockBack)
{
    const Drawn drawn = draw("[2] [3] [1]");
    EXPECT_EQ(linesOf([&] { rm_freeMemory(drawn.live[1], drawn.tag); }), Lines{});
    EXPECT_EQ(layout(drawn.tag), "[2] 3 [1]");
}

TEST_F(FreeMemory, LeavesTheOtherBlocksContents)
{
    const Tag tag = newTag();
    void* first = get(tag, 100, 1);
    void* second = get(tag, 200, 2);
    void* third = get(tag, 300, 3);
    rm_freeMemory(second, tag);
    EXPECT_TRUE(holdsPattern(first, 100, 1));
    EXPECT_TRUE(holdsPattern(third, 300, 3));
}

TEST_F(FreeMemory, LogsASecondFreeOfTheSamePointer)
{
    const Drawn drawn = draw("[2] [3] [1]");
    void* block = drawn.live[1];
    rm_freeMemory(block, drawn.tag);
    const std::string before = wholeHeap();
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, drawn.tag); }), Lines{badPointer(block)});
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(FreeMemory, LogsASecondFreeOfABlockThatItsNeighbourAbsorbed)
{
    const Drawn drawn = draw("4 [3] 2 [1]");
    void* block = drawn.live[0];
    rm_freeMemory(block, drawn.tag);
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, drawn.tag); }), Lines{badPointer(block)});
    EXPECT_EQ(layout(drawn.tag), "9 [1]");
}

TEST_F(FreeMemory, LogsASecondFreeAfterTheSegmentHasGone)
{
    const Tag tag = newTag();
    rm_setTagAlloc(0, tag);
    void* block = rm_getMemory(1'000'000, tag);  // a mapping of its own, gone once it is freed
    rm_freeMemory(block, tag);
    const std::string before = wholeHeap();
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, tag); }), Lines{badPointer(block)});
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(FreeMemory, LogsAFreeAfterTheTagsMemoryHasGone)
{
    const Tag tag = newTag();
    void* block = rm_getMemory(1'000'000, tag);
    rm_freeTagMemory(tag, 0);
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, tag); }), Lines{badPointer(block)});
}

TEST_F(FreeMemory, LogsAFreeAfterTheTagWasReleased)
{
    const Tag tag = newTag();
    void* block = rm_getMemory(1'000'000, tag);
    rm_freeTagMemory(tag, 1);
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, tag); }), Lines{badPointer(block)});
}

TEST_F(FreeMemory, LogsAFreeAfterRmFreeall)
{
    void* block = rm_getMemory(1'000'000, 1);
    rm_freeall();
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, 1); }), Lines{badPointer(block)});
    EXPECT_EQ(tagTable, nullptr);
}

TEST_F(FreeMemory, LogsAnInvalidTagAndKeepsTheBlock)
{
    const Drawn drawn = draw("2 [3] [1]");
    fill(drawn.live[0], bytesFor(3), 9);
    const std::string before = wholeHeap();
    EXPECT_EQ(linesOf([&] { rm_freeMemory(drawn.live[0], 77); }),
              Lines{invalidTag(77, "rm_freeMemory")});
    EXPECT_EQ(wholeHeap(), before);
    EXPECT_TRUE(holdsPattern(drawn.live[0], bytesFor(3), 9));
}

TEST_F(FreeMemory, LooksAtThePointerBeforeTheTag)
{
    const Drawn drawn = draw("2 [3] [1]");
    auto* inside = static_cast<char*>(drawn.live[0]) + 8;
    fill(drawn.live[0], bytesFor(3), 9);
    EXPECT_EQ(linesOf([&] { rm_freeMemory(inside, 77); }), Lines{badPointer(inside)});
}

TEST_F(FreeMemory, LogsTwoLinesForABlockOfAnotherTag)
{
    const Drawn owner = draw("2 [3] [1]");
    const Drawn other = draw("2 [3] [1]");
    const std::string before = wholeHeap();
    EXPECT_EQ(linesOf([&] { rm_freeMemory(owner.live[0], other.tag); }),
              notFound(other.tag, owner.live[0]));
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(FreeMemory, LogsTwoLinesForABlockOfAnotherTagAlsoWhenTheTagOwnsNothing)
{
    const Drawn owner = draw("2 [3] [1]");
    const Tag empty = newTag();
    EXPECT_EQ(linesOf([&] { rm_freeMemory(owner.live[0], empty); }),
              notFound(empty, owner.live[0]));
    EXPECT_EQ(linesOf([&] { rm_freeMemory(owner.live[0], 0); }), notFound(0, owner.live[0]));
}

TEST_F(FreeMemory, LogsABadPointerForAFreedBlockOfAnotherTag)
{
    const Drawn owner = draw("2 [3] [1]");
    const Drawn other = draw("2 [3] [1]");
    rm_freeMemory(owner.live[0], owner.tag);
    EXPECT_EQ(linesOf([&] { rm_freeMemory(owner.live[0], other.tag); }),
              Lines{badPointer(owner.live[0])});
}

TEST_F(FreeMemory, LogsABadPointerWhenAnOverrunHasHitTheMagic)
{
    const Drawn drawn = draw("2 [3] [1]");
    void* block = drawn.live[0];
    headerBefore(block)->word1 = 0x41414141;
    EXPECT_EQ(linesOf([&] { rm_freeMemory(block, drawn.tag); }), Lines{badPointer(block)});
    headerBefore(block)->word1 = 0xFFEEDDCC;
}

// An overrun may also have hit the units; what is outside of the segment is never touched.
TEST_F(FreeMemory, LogsABadPointerWhenTheUnitsLeaveTheSegment)
{
    const Drawn drawn = draw("2 [3] [1]");
    void* block = drawn.live[0];
    for (const uint32_t units : {0U, 5U, 0x20000000U, 0xFFFFFFFEU, 0xFFFFFFFFU}) {
        headerBefore(block)->units = units;
        EXPECT_EQ(linesOf([&] { rm_freeMemory(block, drawn.tag); }), Lines{badPointer(block)})
            << units;
        EXPECT_EQ(linesOf([&] { rm_extendMemory(block, 8, drawn.tag); }), Lines{badPointer(block)})
            << units;
        EXPECT_EQ(linesOf([&] { rm_growMemory(block, 8, drawn.tag); }), Lines{badPointer(block)})
            << units;
    }
    headerBefore(block)->units = 3;
    EXPECT_EQ(layout(drawn.tag), "2 [3] [1]");
}

// --- Pointers that are no block

// All calls that take a pointer refuse it with the bad-pointer line and change nothing.
void expectForeign(void* pointer, Tag tag)
{
    const std::string before = wholeHeap();
    void* extended = pointer;
    void* grown = pointer;
    EXPECT_EQ(linesOf([&] { rm_freeMemory(pointer, tag); }), Lines{badPointer(pointer)});
    EXPECT_EQ(linesOf([&] { extended = rm_extendMemory(pointer, 100, tag); }),
              Lines{badPointer(pointer)});
    EXPECT_EQ(extended, nullptr);
    EXPECT_EQ(linesOf([&] { grown = rm_growMemory(pointer, 100, tag); }),
              Lines{badPointer(pointer)});
    EXPECT_EQ(grown, nullptr);
    void* variable = pointer;
    EXPECT_EQ(linesOf([&] { rm_zFreeMemory(&variable, tag); }), Lines{badPointer(pointer)});
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(ForeignPointer, IntoTheStackIsRefused)
{
    const Tag tag = draw("2 [3] [1]").tag;
    alignas(8) char bytes[64] = "";
    expectForeign(bytes + 16, tag);
}

// What lies before it looks like a live block; it is not read, since no segment holds it.
TEST_F(ForeignPointer, WithAMagicBeforeItIsRefusedAllTheSame)
{
    const Tag tag = draw("2 [3] [1]").tag;
    alignas(8) uint32_t words[8] = {0xFFEEDDCC, 2, 0, 0, 0xFFEEDDCC, 1, 0, 0};
    expectForeign(words + 2, tag);
}

TEST_F(ForeignPointer, OfMallocIsRefused)
{
    const Tag tag = draw("2 [3] [1]").tag;
    void* block = std::malloc(64);
    expectForeign(block, tag);
    std::free(block);
}

TEST_F(ForeignPointer, IntoMemoryThatCannotBeReadIsNotRead)
{
    const Tag tag = draw("2 [3] [1]").tag;
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    expectForeign(page, tag);
    expectForeign(static_cast<char*>(page) + 2048, tag);
    munmap(page, 4096);
}

TEST_F(ForeignPointer, NearTheEndsOfTheAddressSpaceIsRefused)
{
    const Tag tag = draw("2 [3] [1]").tag;
    for (const uintptr_t address : {uintptr_t{1}, uintptr_t{4}, uintptr_t{7}, uintptr_t{8},
                                    uintptr_t{9}, uintptr_t{16}, ~uintptr_t{0}, ~uintptr_t{7}}) {
        expectForeign(reinterpret_cast<void*>(address), tag);
    }
}

TEST_F(ForeignPointer, ThatIsMisalignedIsRefused)
{
    const Drawn drawn = draw("2 [3] [1]");
    for (int off = 1; off < 8; ++off) {
        expectForeign(static_cast<char*>(drawn.live[0]) + off, drawn.tag);
        expectForeign(static_cast<char*>(drawn.live[0]) - off, drawn.tag);
    }
}

// The bytes of a block may be anything, also those of a header.
TEST_F(ForeignPointer, ThatIsMisalignedIsRefusedWithAHeaderBeforeIt)
{
    const Drawn drawn = draw("2 [6] [1]");
    const rmalloc::BlockHeader forged = {0xFFEEDDCC, 2};
    for (int off = 1; off < 8; ++off) {
        char* at = static_cast<char*>(drawn.live[0]) + off;
        std::memcpy(at, &forged, sizeof forged);
        expectForeign(at + sizeof forged, drawn.tag);
    }
}

TEST_F(ForeignPointer, IntoTheMiddleOfABlockIsRefused)
{
    const Drawn drawn = draw("2 [6] [1]");
    fill(drawn.live[0], bytesFor(6), 4);
    for (int off = 8; off < 40; off += 8) {
        expectForeign(static_cast<char*>(drawn.live[0]) + off, drawn.tag);
    }
    EXPECT_TRUE(holdsPattern(drawn.live[0], bytesFor(6), 4));
}

// A tag was released with its blocks live, and the platform gave the same memory to a new segment.
// A pointer that somebody has kept from then still finds a header before it.
TEST_F(ForeignPointer, IntoFreeSpaceThatShowsTheHeaderOfAnOldBlockIsRefused)
{
    const Tag tag = newTag();
    ScopedFault oldHeaders({.call = Call::kMalloc, .action = [](const CallRecord& call) {
                                const int64_t result = rmtest::passThrough(call);
                                const rmalloc::BlockHeader old = {0xFFEEDDCC, 2};
                                auto* at = reinterpret_cast<char*>(result);
                                for (int64_t i = 0; i + 8 <= call.args[0]; i += 8) {
                                    std::memcpy(at + i, &old, sizeof old);
                                }
                                return result;
                            }});
    char* live = static_cast<char*>(rm_getMemory(24, tag));
    ASSERT_EQ(layout(tag), "1017 [4]");
    expectForeign(live - 100 * 8, tag);
    EXPECT_EQ(layout(tag), "1017 [4]");
}

TEST_F(ForeignPointer, ToAFreeBlockIsRefused)
{
    const Drawn drawn = draw("2 [3] 4 [1]");
    rmalloc::BlockHeader* first = headerBefore(drawn.live[0]) - 2;
    expectForeign(first + 1, drawn.tag);
    expectForeign(first + 6, drawn.tag);
}

TEST_F(ForeignPointer, ToTheSegmentOrItsAnchorIsRefused)
{
    const Drawn drawn = draw("2 [3] [1]");
    rmalloc::Segment* segment = tagTable[drawn.tag].segments;
    expectForeign(segment, drawn.tag);
    expectForeign(&segment->anchor, drawn.tag);
    expectForeign(segment + 1, drawn.tag);
}

TEST_F(ForeignPointer, RightBehindASegmentIsRefused)
{
    const Drawn drawn = draw("2 [3] [1]");
    rmalloc::BlockHeader* end = headerBefore(drawn.live[1]) + 1;
    ASSERT_EQ(end, drawn.live[1]);
    expectForeign(end + 1, drawn.tag);
}

TEST_F(ForeignPointer, IsRefusedBeforeAnyTable)
{
    alignas(8) char bytes[64] = "";
    EXPECT_EQ(linesOf([&] {
                  rm_freeMemory(bytes + 8, 1);
                  EXPECT_EQ(rm_extendMemory(bytes + 8, 8, 1), nullptr);
              }),
              (Lines{badPointer(bytes + 8), badPointer(bytes + 8)}));
    EXPECT_EQ(tagTable, nullptr);
}

// --- rm_zFreeMemory

TEST_F(ZFreeMemory, FreesTheBlockAndSetsThePointerToNull)
{
    const Drawn drawn = draw("[2] [3] [1]");
    char* pointer = static_cast<char*>(drawn.live[1]);
    EXPECT_EQ(linesOf([&] { rm_zFreeMemory(&pointer, drawn.tag); }), Lines{});
    EXPECT_EQ(pointer, nullptr);
    EXPECT_EQ(layout(drawn.tag), "[2] 3 [1]");
}

TEST_F(ZFreeMemory, OfANullPointerDoesNothing)
{
    newTag();
    void* pointer = nullptr;
    EXPECT_EQ(linesOf([&] { rm_zFreeMemory(&pointer, 77); }), Lines{});
    EXPECT_EQ(pointer, nullptr);
}

TEST_F(ZFreeMemory, OfANullAddressDoesNothing)
{
    newTag();
    EXPECT_EQ(linesOf([] { rm_zFreeMemory(nullptr, 77); }), Lines{});
}

TEST_F(ZFreeMemory, SetsThePointerToNullEvenWhenItIsRefused)
{
    const Drawn drawn = draw("2 [3] [1]");
    alignas(8) char bytes[16] = "";
    void* pointer = bytes + 8;
    EXPECT_EQ(linesOf([&] { rm_zFreeMemory(&pointer, drawn.tag); }), Lines{badPointer(bytes + 8)});
    EXPECT_EQ(pointer, nullptr);
}

TEST_F(ZFreeMemory, SetsThePointerToNullEvenWhenTheTagIsInvalid)
{
    const Drawn drawn = draw("2 [3] [1]");
    void* pointer = drawn.live[0];
    EXPECT_EQ(linesOf([&] { rm_zFreeMemory(&pointer, 77); }),
              Lines{invalidTag(77, "rm_freeMemory")});
    EXPECT_EQ(pointer, nullptr);
    EXPECT_EQ(layout(drawn.tag), "2 [3] [1]");
}

// --- rm_extendMemory, in place

void fillAll(const Drawn& drawn)
{
    for (std::size_t i = 0; i < drawn.live.size(); ++i) {
        fill(drawn.live[i], bytesFor(headerBefore(drawn.live[i])->units), static_cast<uint32_t>(i));
    }
}

// The live blocks but one still hold what fillAll() gave them.
void expectOthersIntact(const Drawn& drawn, std::size_t except)
{
    for (std::size_t i = 0; i < drawn.live.size(); ++i) {
        EXPECT_TRUE(i == except ||
                    holdsPattern(drawn.live[i], bytesFor(headerBefore(drawn.live[i])->units),
                                 static_cast<uint32_t>(i)))
            << i;
    }
}

// Extends live block `n` of the drawing to `units` and expects the drawing `after`, with the block
// `place` units from the start, its contents kept, and nothing got from the platform.
void expectInPlace(const char* before, std::size_t n, uint32_t units, const char* after,
                   std::ptrdiff_t place)
{
    const Drawn drawn = draw(before);
    const uint32_t oldUnits = headerBefore(drawn.live[n])->units;
    const uint32_t oldAllocated = allocated(drawn.tag);
    const uint32_t used = rm_memused();
    const int mallocs = callCount(Call::kMalloc);
    fillAll(drawn);
    void* block = nullptr;

    EXPECT_EQ(linesOf([&] { block = rm_extendMemory(drawn.live[n], bytesFor(units), drawn.tag); }),
              Lines{});

    ASSERT_EQ(layout(drawn.tag), after);
    EXPECT_EQ(offsetInSegment(block, drawn.tag), 24 + place * 8 + 8);
    EXPECT_TRUE(holdsPattern(block, bytesFor(std::min(units, oldUnits)), static_cast<uint32_t>(n)));
    expectOthersIntact(drawn, n);
    EXPECT_EQ(allocated(drawn.tag), oldAllocated + (units - oldUnits) * 8);
    EXPECT_EQ(rm_memused(), used);
    EXPECT_EQ(callCount(Call::kMalloc), mallocs);
}

TEST_F(ExtendInPlace, ToTheSameSizeLeavesABlockBetweenLiveOnes)
{
    expectInPlace("[1] [3] [1]", 1, 3, "[1] [3] [1]", 1);
}

TEST_F(ExtendInPlace, GrowsIntoTheFreeBlockAbove)
{
    expectInPlace("[1] [2] 4 [1]", 1, 4, "[1] [4] 2 [1]", 1);
}

TEST_F(ExtendInPlace, TakesAllOfTheFreeBlockAbove)
{
    expectInPlace("[1] [2] 4 [1]", 1, 6, "[1] [6] [1]", 1);
}

TEST_F(ExtendInPlace, KeepsAOneUnitRestOfTheFreeBlockAbove)
{
    expectInPlace("[1] [2] 4 [1]", 1, 5, "[1] [5] 1 [1]", 1);
}

TEST_F(ExtendInPlace, GrowsIntoTheFreeBlockBelowFromItsLowEnd)
{
    expectInPlace("[1] 4 [3] [1]", 1, 5, "[1] [5] 2 [1]", 1);
}

TEST_F(ExtendInPlace, TakesAllOfTheFreeBlockBelow)
{
    expectInPlace("[1] 4 [3] [1]", 1, 7, "[1] [7] [1]", 1);
}

TEST_F(ExtendInPlace, GrowsIntoBothSides)
{
    expectInPlace("[1] 2 [3] 3 [1]", 1, 7, "[1] [7] 1 [1]", 1);
}

TEST_F(ExtendInPlace, TakesAllOfBothSides)
{
    expectInPlace("[1] 2 [3] 3 [1]", 1, 8, "[1] [8] [1]", 1);
}

TEST_F(ExtendInPlace, MovesDownAlsoWhenTheFreeBlockAboveAloneWouldDo)
{
    expectInPlace("[1] 2 [3] 9 [1]", 1, 5, "[1] [5] 9 [1]", 1);
}

TEST_F(ExtendInPlace, MovesDownToTheStartOfTheSegment)
{
    expectInPlace("3 [2] [1]", 0, 4, "[4] 1 [1]", 0);
}

TEST_F(ExtendInPlace, MovesDownToTheSameSize)
{
    expectInPlace("3 [4] [1]", 0, 4, "[4] 3 [1]", 0);
}

TEST_F(ExtendInPlace, MovesContentsThatOverlapTheirNewPlace)
{
    expectInPlace("1 [20] [1]", 0, 21, "[21] [1]", 0);
}

TEST_F(ExtendInPlace, ShrinksBetweenLiveBlocks)
{
    expectInPlace("[1] [6] [1]", 1, 2, "[1] [2] 4 [1]", 1);
}

TEST_F(ExtendInPlace, ShrinksByOneUnit)
{
    expectInPlace("[1] [6] [1]", 1, 5, "[1] [5] 1 [1]", 1);
}

TEST_F(ExtendInPlace, ShrinksTowardTheFreeBlockAbove)
{
    expectInPlace("[1] [6] 2 [1]", 1, 2, "[1] [2] 6 [1]", 1);
}

TEST_F(ExtendInPlace, ShrinksIntoTheFreeBlockBelow)
{
    expectInPlace("[1] 3 [6] [1]", 1, 4, "[1] [4] 5 [1]", 1);
}

TEST_F(ExtendInPlace, ShrinksIntoTheFreeBlockBelowWithoutReachingItsOldPlace)
{
    expectInPlace("[1] 8 [6] [1]", 1, 3, "[1] [3] 11 [1]", 1);
}

TEST_F(ExtendInPlace, ShrinksWithFreeBlocksOnBothSides)
{
    expectInPlace("[1] 3 [6] 2 [1]", 1, 2, "[1] [2] 9 [1]", 1);
}

TEST_F(ExtendInPlace, ShrinksToABareHeader)
{
    expectInPlace("[1] [6] [1]", 1, 1, "[1] [1] 5 [1]", 1);
}

TEST_F(ExtendInPlace, GrowsABareHeader)
{
    expectInPlace("[2] [1] 3 [2]", 1, 3, "[2] [3] 1 [2]", 2);
}

TEST_F(ExtendInPlace, PutsTheRestBetweenTheOtherFreeBlocks)
{
    expectInPlace("2 [1] 3 [4] [1] 2 [1] 5", 1, 5, "2 [1] [5] 2 [1] 2 [1] 5", 3);
}

TEST_F(ExtendInPlace, TakesItsFreeNeighboursOutOfTheChain)
{
    expectInPlace("2 [1] 3 [4] 2 [1] 5 [1]", 1, 9, "2 [1] [9] [1] 5 [1]", 3);
}

TEST_F(ExtendInPlace, TakesTheFirstFreeBlockOutOfTheChain)
{
    expectInPlace("3 [4] [1] 5 [1]", 0, 7, "[7] [1] 5 [1]", 0);
}

TEST_F(ExtendInPlace, FillsAWholeSegmentAlone)
{
    expectInPlace("4 [3] 5", 0, 12, "[12]", 0);
}

TEST_F(ExtendInPlace, WorksInALaterSegment)
{
    const Drawn drawn = draw("[2] | [2] 4 [1]");
    fill(drawn.live[1], 8, 5);
    void* block = rm_extendMemory(drawn.live[1], bytesFor(4), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[2] | [4] 2 [1]");
    EXPECT_EQ(block, drawn.live[1]);
    EXPECT_TRUE(holdsPattern(block, 8, 5));
}

TEST_F(ExtendInPlace, DoesNotUseFreeBlocksThatItDoesNotTouch)
{
    const Drawn drawn = draw("9 [1] [3] 1 [1] 9");
    rm_setTagAlloc(0, drawn.tag);
    rm_extendMemory(drawn.live[1], bytesFor(5), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "4 [5] [1] 4 [1] 9");
}

// --- rm_extendMemory, to another place

TEST_F(ExtendMoving, GoesWhereANewBlockWouldGo)
{
    const Drawn drawn = draw("2 [1] [3] [1] 9 [1]");
    fill(drawn.live[1], bytesFor(3), 8);
    void* block = rm_extendMemory(drawn.live[1], bytesFor(6), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "2 [1] 3 [1] 3 [6] [1]");
    EXPECT_EQ(offsetInSegment(block, drawn.tag), 24 + 10 * 8 + 8);
    EXPECT_TRUE(holdsPattern(block, bytesFor(3), 8));
}

TEST_F(ExtendMoving, MergesTheOldPlaceWithItsNeighbours)
{
    const Drawn drawn = draw("2 [3] 1 [1] 9 [1]");
    rm_extendMemory(drawn.live[0], bytesFor(7), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "6 [1] 2 [7] [1]");
}

TEST_F(ExtendMoving, GoesToANewSegmentWhenNoneHasRoom)
{
    const Drawn drawn = draw("2 [3] 1 [1]");
    rm_setTagAlloc(104, drawn.tag);
    fill(drawn.live[0], bytesFor(3), 8);
    void* block = rm_extendMemory(drawn.live[0], bytesFor(7), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "6 [1] | 3 [7]");
    EXPECT_TRUE(holdsPattern(block, bytesFor(3), 8));
    EXPECT_EQ(rm_memused(), kFirstTable + 7 * 8 + 24 + 104);
}

TEST_F(ExtendMoving, GivesTheOldSegmentBackWhenItWasItsLastBlock)
{
    const Drawn drawn = draw("2 [3]");
    rm_setTagAlloc(0, drawn.tag);
    fill(drawn.live[0], bytesFor(3), 8);
    void* block = rm_extendMemory(drawn.live[0], bytesFor(6), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[6]");
    EXPECT_TRUE(holdsPattern(block, bytesFor(3), 8));
    EXPECT_EQ(rm_memused(), kFirstTable + 6 * 8 + 24);
}

TEST_F(ExtendMoving, GivesAnOldSegmentInTheMiddleOfTheChainBack)
{
    const Drawn drawn = draw("[2] | [3] | [4]");
    rm_setTagAlloc(0, drawn.tag);
    rm_extendMemory(drawn.live[1], bytesFor(6), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[2] | [4] | [6]");
}

TEST_F(ExtendMoving, MayGoToAnEarlierSegment)
{
    const Drawn drawn = draw("9 [1] | [3] [1]");
    rm_extendMemory(drawn.live[1], bytesFor(5), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "4 [5] [1] | 3 [1]");
}

TEST_F(ExtendMoving, CountsTheNewSizeInsteadOfTheOld)
{
    const Drawn drawn = draw("[3] [1]");
    rm_extendMemory(drawn.live[0], bytesFor(10), drawn.tag);
    EXPECT_EQ(allocated(drawn.tag), 11 * 8U);
}

TEST_F(ExtendMoving, KeepsAllBytesOfALargeBlock)
{
    const Tag tag = newTag();
    void* block = get(tag, 100'000, 6);
    block = rm_extendMemory(block, 300'000, tag);
    EXPECT_TRUE(holdsPattern(block, 100'000, 6));
}

TEST_F(ExtendMoving, KeepsABareHeadersNothing)
{
    const Drawn drawn = draw("[1] [1]");
    void* block = rm_extendMemory(drawn.live[0], 8, drawn.tag);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(allocated(drawn.tag), 24U);
}

TEST_F(ExtendMoving, MakesTheOldPointerABadOne)
{
    const Drawn drawn = draw("[3] [1]");
    rm_extendMemory(drawn.live[0], 100, drawn.tag);
    EXPECT_EQ(linesOf([&] { rm_freeMemory(drawn.live[0], drawn.tag); }),
              Lines{badPointer(drawn.live[0])});
}

TEST_F(ExtendMoving, WithSegAllocGoesToASegmentOfItsOwn)
{
    const Drawn drawn = draw("[3]");
    seg_alloc = 1;
    rm_extendMemory(drawn.live[0], bytesFor(5), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[5]");
}

// --- rm_extendMemory

TEST_F(ExtendMemory, OfNullIsRmGetMemory)
{
    const Drawn drawn = draw("2 [1] 9 [1]");
    EXPECT_NE(rm_extendMemory(nullptr, bytesFor(4), drawn.tag), nullptr);
    EXPECT_EQ(layout(drawn.tag), "2 [1] 5 [4] [1]");
}

TEST_F(ExtendMemory, OfNullOnAnEmptyTableMakesTagOne)
{
    EXPECT_NE(rm_extendMemory(nullptr, 10, 1), nullptr);
    EXPECT_EQ(layout(1), "1018 [3]");
}

TEST_F(ExtendMemory, OfNullIsFatalForAnInvalidTag)
{
    newTag();
    EXPECT_EQ(fatalLines([] { rm_extendMemory(nullptr, 10, 2); }),
              (Lines{invalidTag(2, "rm_getMemory"), kShutdown}));
}

TEST_F(ExtendMemory, ToABitMoreInTheSameUnitsKeepsThePlace)
{
    const Tag tag = newTag();
    void* keeper = rm_getMemory(1, tag);
    void* block = rm_getMemory(9, tag);
    rm_getMemory(1, tag);
    EXPECT_EQ(rm_extendMemory(block, 16, tag), block);
    EXPECT_EQ(layout(tag), "1014 [2] [3] [2]");
    rm_freeMemory(keeper, tag);
}

TEST_F(ExtendMemory, KeepsOnlyTheNewSizeOfAShrunkenBlockThatMovesDown)
{
    const Drawn drawn = draw("8 [6] [1]");
    fill(drawn.live[0], bytesFor(6), 3);
    void* block = rm_extendMemory(drawn.live[0], 13, drawn.tag);
    EXPECT_TRUE(holdsPattern(block, 13, 3));
    EXPECT_EQ(layout(drawn.tag), "[3] 11 [1]");
}

TEST_F(ExtendMemory, LogsABadPointerAndReturnsNull)
{
    const Drawn drawn = draw("2 [3] [1]");
    rm_freeMemory(drawn.live[0], drawn.tag);
    void* result = drawn.live[0];
    EXPECT_EQ(linesOf([&] { result = rm_extendMemory(result, 10, drawn.tag); }),
              Lines{badPointer(drawn.live[0])});
    EXPECT_EQ(result, nullptr);
}

TEST_F(ExtendMemory, LogsABlockWhoseSegmentHasGone)
{
    const Tag tag = newTag();
    void* block = rm_getMemory(1'000'000, tag);
    rm_freeMemory(block, tag);
    void* result = block;
    EXPECT_EQ(linesOf([&] { result = rm_extendMemory(block, 10, tag); }), Lines{badPointer(block)});
    EXPECT_EQ(result, nullptr);
}

TEST_F(ExtendMemory, LogsAnInvalidTagAndReturnsNull)
{
    const Drawn drawn = draw("2 [3] [1]");
    const std::string before = wholeHeap();
    void* result = drawn.live[0];
    EXPECT_EQ(linesOf([&] { result = rm_extendMemory(drawn.live[0], 10, 77); }),
              Lines{invalidTag(77, "rm_extendMemory")});
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(ExtendMemory, LogsTwoLinesForABlockOfAnotherTagAndReturnsNull)
{
    const Drawn owner = draw("2 [3] 4 [1]");
    const Drawn other = draw("2 [3] [1]");
    fill(owner.live[0], bytesFor(3), 2);
    const std::string before = wholeHeap();
    for (const uint32_t size : {0U, 8U, 40U, 10'000U}) {
        void* result = owner.live[0];
        EXPECT_EQ(linesOf([&] { result = rm_extendMemory(owner.live[0], size, other.tag); }),
                  notFound(other.tag, owner.live[0]));
        EXPECT_EQ(result, nullptr);
    }
    EXPECT_EQ(wholeHeap(), before);
    EXPECT_TRUE(holdsPattern(owner.live[0], bytesFor(3), 2));
}

// --- rm_growMemory

TEST_F(GrowMemory, ToASmallerSizeReturnsTheSamePointer)
{
    const Drawn drawn = draw("2 [6] [1]");
    fill(drawn.live[0], bytesFor(6), 2);
    EXPECT_EQ(rm_growMemory(drawn.live[0], 3, drawn.tag), drawn.live[0]);
    EXPECT_EQ(layout(drawn.tag), "2 [6] [1]");
    EXPECT_TRUE(holdsPattern(drawn.live[0], bytesFor(6), 2));
}

TEST_F(GrowMemory, ToTheSameSizeReturnsTheSamePointer)
{
    const Drawn drawn = draw("2 [6] [1]");
    EXPECT_EQ(rm_growMemory(drawn.live[0], bytesFor(6), drawn.tag), drawn.live[0]);
    EXPECT_EQ(layout(drawn.tag), "2 [6] [1]");
}

TEST_F(GrowMemory, ToZeroReturnsTheSamePointer)
{
    const Drawn drawn = draw("2 [6] [1]");
    EXPECT_EQ(rm_growMemory(drawn.live[0], 0, drawn.tag), drawn.live[0]);
    EXPECT_EQ(layout(drawn.tag), "2 [6] [1]");
}

TEST_F(GrowMemory, ToALargerSizeFreesTheBlockAndTakesANewOne)
{
    const Drawn drawn = draw("2 [6] [1] 9 [1]");
    void* block = rm_growMemory(drawn.live[0], bytesFor(9), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "8 [1] [9] [1]");
    EXPECT_EQ(offsetInSegment(block, drawn.tag), 24 + 9 * 8 + 8);
}

TEST_F(GrowMemory, FreesBeforeItTakesSoThatTheOldPlaceIsUsed)
{
    const Drawn drawn = draw("2 [6] [1] 9 [1]");
    void* block = rm_growMemory(drawn.live[0], bytesFor(7), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "1 [7] [1] 9 [1]");
    EXPECT_EQ(offsetInSegment(block, drawn.tag), 24 + 8 + 8);
}

// The contents are not promised, so this shows them lost where they would have to be copied.
TEST_F(GrowMemory, ToALargerSizeLosesTheContents)
{
    const Drawn drawn = draw("[6] [1] 9 [1]");
    void* filler = rm_getMemory(bytesFor(9), drawn.tag);
    std::memset(filler, 0x55, bytesFor(9));
    rm_freeMemory(filler, drawn.tag);
    fill(drawn.live[0], bytesFor(6), 2);
    const auto* block =
        static_cast<const char*>(rm_growMemory(drawn.live[0], bytesFor(8), drawn.tag));
    EXPECT_EQ(std::string(block, bytesFor(8)), std::string(bytesFor(8), 0x55));
}

TEST_F(GrowMemory, GivesTheSegmentOfItsLastBlockBackFirst)
{
    const Drawn drawn = draw("[6]");
    rm_setTagAlloc(0, drawn.tag);
    const auto old = reinterpret_cast<intptr_t>(rmalloc::chains[drawn.tag].first);  // small
    rm_growMemory(drawn.live[0], bytesFor(9), drawn.tag);
    EXPECT_EQ(layout(drawn.tag), "[9]");
    const auto calls = rmtest::callTrace({Call::kMalloc, Call::kFree});
    EXPECT_EQ(calls[calls.size() - 2].call, Call::kFree);
    EXPECT_EQ(calls[calls.size() - 2].args[0], old);
    EXPECT_EQ(calls.back().call, Call::kMalloc);
}

TEST_F(GrowMemory, OfNullIsRmGetMemory)
{
    const Drawn drawn = draw("2 [1] 9 [1]");
    EXPECT_NE(rm_growMemory(nullptr, bytesFor(4), drawn.tag), nullptr);
    EXPECT_EQ(layout(drawn.tag), "2 [1] 5 [4] [1]");
}

TEST_F(GrowMemory, LogsAnInvalidTagAndReturnsNull)
{
    const Drawn drawn = draw("2 [3] [1]");
    const std::string before = wholeHeap();
    void* result = drawn.live[0];
    EXPECT_EQ(linesOf([&] { result = rm_growMemory(drawn.live[0], 100, 77); }),
              Lines{invalidTag(77, "rm_growMemory")});
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(GrowMemory, OfNullLooksAtTheTagFirst)
{
    newTag();
    void* result = &result;
    EXPECT_EQ(linesOf([&] { result = rm_growMemory(nullptr, 100, 77); }),
              Lines{invalidTag(77, "rm_growMemory")});
    EXPECT_EQ(result, nullptr);
}

TEST_F(GrowMemory, DoesNotMakeTagOneOnAnEmptyTable)
{
    void* result = &result;
    EXPECT_EQ(linesOf([&] { result = rm_growMemory(nullptr, 100, 1); }),
              Lines{invalidTag(1, "rm_growMemory")});
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(tagTable, nullptr);
}

TEST_F(GrowMemory, LooksAtTheTagBeforeThePointer)
{
    newTag();
    alignas(8) char bytes[16] = "";
    EXPECT_EQ(linesOf([&] { rm_growMemory(bytes + 8, 100, 77); }),
              Lines{invalidTag(77, "rm_growMemory")});
}

TEST_F(GrowMemory, ReturnsABlockOfAnotherTagThatIsLargeEnough)
{
    const Drawn owner = draw("2 [3] [1]");
    const Drawn other = draw("2 [3] [1]");
    const std::string before = wholeHeap();
    EXPECT_EQ(
        linesOf([&] { EXPECT_EQ(rm_growMemory(owner.live[0], 16, other.tag), owner.live[0]); }),
        Lines{});
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(GrowMemory, KeepsABlockOfAnotherTagThatIsTooSmallAndTakesANewOne)
{
    const Drawn owner = draw("2 [3] [1]");
    const Drawn other = draw("9 [1]");
    void* block = nullptr;
    EXPECT_EQ(linesOf([&] { block = rm_growMemory(owner.live[0], bytesFor(4), other.tag); }),
              notFound(other.tag, owner.live[0]));
    EXPECT_EQ(layout(owner.tag), "2 [3] [1]");
    EXPECT_EQ(layout(other.tag), "5 [4] [1]");
    EXPECT_EQ(offsetInSegment(block, other.tag), 24 + 5 * 8 + 8);
}

// --- rm_memused, step by step

TEST_F(Memused, FollowsTheTableAndEverySegment)
{
    EXPECT_EQ(rm_memused(), 0U);
    const Tag tag = newTag();
    EXPECT_EQ(rm_memused(), kFirstTable);
    void* small = rm_getMemory(10, tag);
    EXPECT_EQ(rm_memused(), kFirstTable + 8192);
    void* second = rm_getMemory(20, tag);
    EXPECT_EQ(rm_memused(), kFirstTable + 8192);
    void* large = rm_getMemory(50'000, tag);
    EXPECT_EQ(rm_memused(), kFirstTable + 8192 + 6251 * 8 + 24);
    void* ofZero = rm_getMemory(10, 0);
    EXPECT_EQ(rm_memused(), kFirstTable + 8192 + 6251 * 8 + 24 + 49152);
    rm_freeMemory(small, tag);
    EXPECT_EQ(rm_memused(), kFirstTable + 8192 + 6251 * 8 + 24 + 49152);
    rm_freeMemory(second, tag);
    EXPECT_EQ(rm_memused(), kFirstTable + 6251 * 8 + 24 + 49152);
    rm_freeMemory(large, tag);
    EXPECT_EQ(rm_memused(), kFirstTable + 49152);
    rm_freeMemory(ofZero, 0);
    EXPECT_EQ(rm_memused(), kFirstTable);
    rm_freeall();
    EXPECT_EQ(rm_memused(), 0U);
}

TEST_F(Memused, AllocatedFollowsEveryBlock)
{
    const Tag tag = newTag();
    void* first = rm_getMemory(0, tag);
    EXPECT_EQ(allocated(tag), 8U);
    void* second = rm_getMemory(24, tag);
    EXPECT_EQ(allocated(tag), 8U + 32U);
    second = rm_extendMemory(second, 100, tag);
    EXPECT_EQ(allocated(tag), 8U + 112U);
    second = rm_extendMemory(second, 10, tag);
    EXPECT_EQ(allocated(tag), 8U + 24U);
    second = rm_growMemory(second, 10, tag);
    EXPECT_EQ(allocated(tag), 8U + 24U);
    second = rm_growMemory(second, 17, tag);
    EXPECT_EQ(allocated(tag), 8U + 32U);
    rm_freeMemory(first, tag);
    EXPECT_EQ(allocated(tag), 32U);
    rm_freeMemory(second, tag);
    EXPECT_EQ(allocated(tag), 0U);
}
}  // namespace
