// The logged allocation calls: the line comes first, whatever becomes of the call, and the call is
// the plain one.
//
// Drawings of heaps: see heap.h, "4 [2]" is a segment with 4 free units below a live block of 2.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace
{
using rmtest::badPointer;
using rmtest::bytesFor;
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::draw;
using rmtest::Drawn;
using rmtest::fatalLines;
using rmtest::fill;
using rmtest::holdsPattern;
using rmtest::invalidTag;
using rmtest::kForever;
using rmtest::kShutdown;
using rmtest::layout;
using rmtest::Lines;
using rmtest::linesOf;
using rmtest::ScopedFault;
using rmtest::wholeHeap;

class LogGetMemory : public rmtest::HeapTest
{
};

class LogCGetMemory : public rmtest::HeapTest
{
};

class LogExtendMemory : public rmtest::HeapTest
{
};

class LogGrowMemory : public rmtest::HeapTest
{
};

class LogStrdup : public rmtest::HeapTest
{
};

class LogFreeMemory : public rmtest::HeapTest
{
};

class LogZFreeMemory : public rmtest::HeapTest
{
};

class LogCalls : public rmtest::HeapTest
{
};

Tag newTag()
{
    return rm_allocTag(nullptr, RM_NO_LIMIT);
}

// The lines of an invalid tag in a call that cannot go on without one.
Lines fatalInvalidTag(const std::string& first, int tag)
{
    return {first, invalidTag(tag, "rm_getMemory"), kShutdown};
}

Lines withoutMemory(const std::string& first)
{
    return {first, "Out of memory!", kShutdown};
}

// Bytes that a tag gave back, so that the next block of the tag is not clear.
void leaveDirt(Tag tag)
{
    rm_getMemory(0, tag);
    void* block = rm_getMemory(200, tag);
    std::memset(block, 0xA5, 200);
    rm_freeMemory(block, tag);
}

// --- rm_LOG_getMemory

TEST_F(LogGetMemory, LogsAndGivesABlock)
{
    const Tag tag = newTag();
    void* block = nullptr;
    EXPECT_EQ(linesOf([&] { block = rm_LOG_getMemory(10, tag, "host.c", 12); }),
              Lines{"WARNING: Calling rm_LOG_getMemory from host.c, 12"});
    ASSERT_NE(block, nullptr);
    std::memset(block, 1, 10);
    EXPECT_EQ(layout(tag), "1018 [3]");
}

TEST_F(LogGetMemory, MakesTheFirstTagsAsThePlainCallDoes)
{
    EXPECT_EQ(linesOf([] { rm_LOG_getMemory(10, 1, "host.c", 12); }).size(), 1U);
    EXPECT_EQ(rmalloc::nTags, 2);
    EXPECT_EQ(layout(1), "1018 [3]");
}

TEST_F(LogGetMemory, DoesNotClear)
{
    const Tag tag = newTag();
    leaveDirt(tag);
    void* block = nullptr;
    linesOf([&] { block = rm_LOG_getMemory(200, tag, "f", 1); });
    EXPECT_EQ(static_cast<uint8_t*>(block)[100], 0xA5);
}

TEST_F(LogGetMemory, LogsBeforeAnInvalidTagEndsIt)
{
    newTag();
    EXPECT_EQ(fatalLines([] { rm_LOG_getMemory(10, 7, "host.c", 12); }),
              fatalInvalidTag("WARNING: Calling rm_LOG_getMemory from host.c, 12", 7));
}

TEST_F(LogGetMemory, LogsBeforeTheEndOfMemoryEndsIt)
{
    const Tag tag = newTag();
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    EXPECT_EQ(fatalLines([=] { rm_LOG_getMemory(10, tag, "host.c", 12); }),
              withoutMemory("WARNING: Calling rm_LOG_getMemory from host.c, 12"));
}

// --- rm_LOG_cGetMemory

TEST_F(LogCGetMemory, LogsAndGivesABlock)
{
    const Tag tag = newTag();
    void* block = nullptr;
    EXPECT_EQ(linesOf([&] { block = rm_LOG_cGetMemory(10, tag, "host.c", 12); }),
              Lines{"WARNING: Calling rm_LOG_cGetMemory from host.c, 12"});
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(layout(tag), "1018 [3]");
}

TEST_F(LogCGetMemory, ClearsTheBytesAskedForAndNoMore)
{
    const Tag tag = newTag();
    leaveDirt(tag);
    void* block = nullptr;
    linesOf([&] { block = rm_LOG_cGetMemory(197, tag, "f", 1); });
    EXPECT_EQ(std::string(static_cast<char*>(block), 200),
              std::string(197, '\0') + std::string(3, '\xA5'));
}

TEST_F(LogCGetMemory, OfNothingClearsNothing)
{
    const Tag tag = newTag();
    void* low = rm_getMemory(8, tag);
    std::memset(low, 0xA5, 8);
    void* block = nullptr;
    linesOf([&] { block = rm_LOG_cGetMemory(0, tag, "f", 1); });
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(layout(tag), "1018 [1] [2]");
    EXPECT_EQ(*static_cast<uint8_t*>(low), 0xA5);
}

TEST_F(LogCGetMemory, LogsBeforeAnInvalidTagEndsIt)
{
    newTag();
    EXPECT_EQ(fatalLines([] { rm_LOG_cGetMemory(10, -1, "host.c", 12); }),
              fatalInvalidTag("WARNING: Calling rm_LOG_cGetMemory from host.c, 12", -1));
}

TEST_F(LogCGetMemory, LogsBeforeTheEndOfMemoryEndsIt)
{
    const Tag tag = newTag();
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    EXPECT_EQ(fatalLines([=] { rm_LOG_cGetMemory(10, tag, "host.c", 12); }),
              withoutMemory("WARNING: Calling rm_LOG_cGetMemory from host.c, 12"));
}

// What it is made of is rm_getMemory, which a host can never see fail; the answer to one that did
// is kept all the same.
TEST_F(LogCGetMemory, ClearsNothingWhenNoBlockCameBack)
{
    const Tag tag = newTag();
    ScopedFault fault({.call = Call::kGetMemory, .result = 0});
    void* block = &fault;
    linesOf([&] { block = rm_LOG_cGetMemory(10, tag, "f", 1); });
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(block, nullptr);
}

// --- rm_LOG_extendMemory

TEST_F(LogExtendMemory, LogsAndResizesInPlace)
{
    const Drawn drawn = draw("2 [3] 1 [1]");
    fill(drawn.live[0], bytesFor(3), 5);
    void* block = nullptr;
    EXPECT_EQ(linesOf([&] {
                  block = rm_LOG_extendMemory(drawn.live[0], bytesFor(5), drawn.tag, "host.c", 12);
              }),
              Lines{"WARNING: Calling rm_LOG_extendMemory from host.c, 12"});
    EXPECT_EQ(layout(drawn.tag), "[5] 1 [1]");
    EXPECT_TRUE(holdsPattern(block, bytesFor(3), 5));
}

TEST_F(LogExtendMemory, MovesABlockThatHasNoRoom)
{
    const Drawn drawn = draw("[3] 9 [1]");
    const Drawn tight = draw("[3] [1]");
    fill(tight.live[0], bytesFor(3), 5);
    void* block = nullptr;
    linesOf([&] { block = rm_LOG_extendMemory(tight.live[0], bytesFor(5), tight.tag, "f", 1); });
    EXPECT_NE(block, tight.live[0]);
    EXPECT_EQ(layout(tight.tag), "3 [1] | 1016 [5]");
    EXPECT_EQ(layout(drawn.tag), "[3] 9 [1]");
    EXPECT_TRUE(holdsPattern(block, bytesFor(3), 5));
}

TEST_F(LogExtendMemory, OfNullIsANewBlock)
{
    const Tag tag = newTag();
    void* block = nullptr;
    EXPECT_EQ(linesOf([&] { block = rm_LOG_extendMemory(nullptr, 10, tag, "host.c", 12); }),
              Lines{"WARNING: Calling rm_LOG_extendMemory from host.c, 12"});
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(layout(tag), "1018 [3]");
}

TEST_F(LogExtendMemory, LogsBeforeTheWarningOfABadPointer)
{
    const Drawn drawn = draw("2 [3]");
    char foreign[16] = {};
    const std::string before = wholeHeap();
    void* block = foreign;
    EXPECT_EQ(
        linesOf([&] { block = rm_LOG_extendMemory(foreign + 8, 10, drawn.tag, "host.c", 12); }),
        (Lines{"WARNING: Calling rm_LOG_extendMemory from host.c, 12", badPointer(foreign + 8)}));
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(wholeHeap(), before);
}

TEST_F(LogExtendMemory, LogsBeforeTheWarningOfAnInvalidTag)
{
    const Drawn drawn = draw("2 [3]");
    void* block = drawn.live[0];
    EXPECT_EQ(linesOf([&] { block = rm_LOG_extendMemory(drawn.live[0], 10, 9, "host.c", 12); }),
              (Lines{"WARNING: Calling rm_LOG_extendMemory from host.c, 12",
                     invalidTag(9, "rm_extendMemory")}));
    EXPECT_EQ(block, nullptr);
}

TEST_F(LogExtendMemory, LogsBeforeTheLinesOfAnotherTagsBlock)
{
    const Drawn drawn = draw("2 [3]");
    const Tag other = newTag();
    void* block = drawn.live[0];
    Lines expected = rmtest::notFound(other, drawn.live[0]);
    expected.insert(expected.begin(), "WARNING: Calling rm_LOG_extendMemory from host.c, 12");
    EXPECT_EQ(linesOf([&] { block = rm_LOG_extendMemory(drawn.live[0], 10, other, "host.c", 12); }),
              expected);
    EXPECT_EQ(block, nullptr);
}

TEST_F(LogExtendMemory, LogsBeforeTheEndOfMemoryEndsItAndKeepsTheBlock)
{
    const Drawn drawn = draw("[3]");
    fill(drawn.live[0], bytesFor(3), 5);
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    EXPECT_EQ(fatalLines([&] { rm_LOG_extendMemory(drawn.live[0], 100, drawn.tag, "host.c", 12); }),
              withoutMemory("WARNING: Calling rm_LOG_extendMemory from host.c, 12"));
    EXPECT_TRUE(holdsPattern(drawn.live[0], bytesFor(3), 5));
}

// --- rm_LOG_growMemory

TEST_F(LogGrowMemory, LogsAndTakesALargerBlock)
{
    const Drawn drawn = draw("9 [3] [1]");
    void* block = nullptr;
    EXPECT_EQ(linesOf([&] {
                  block = rm_LOG_growMemory(drawn.live[0], bytesFor(5), drawn.tag, "host.c", 12);
              }),
              Lines{"WARNING: Calling rm_LOG_growMemory from host.c, 12"});
    EXPECT_EQ(layout(drawn.tag), "7 [5] [1]");
}

TEST_F(LogGrowMemory, KeepsABlockThatIsLargeEnough)
{
    const Drawn drawn = draw("9 [3] [1]");
    void* block = nullptr;
    EXPECT_EQ(
        linesOf([&] { block = rm_LOG_growMemory(drawn.live[0], 4, drawn.tag, "host.c", 12); }),
        Lines{"WARNING: Calling rm_LOG_growMemory from host.c, 12"});
    EXPECT_EQ(block, drawn.live[0]);
    EXPECT_EQ(layout(drawn.tag), "9 [3] [1]");
}

TEST_F(LogGrowMemory, OfNullIsANewBlock)
{
    const Tag tag = newTag();
    void* block = nullptr;
    EXPECT_EQ(linesOf([&] { block = rm_LOG_growMemory(nullptr, 10, tag, "host.c", 12); }),
              Lines{"WARNING: Calling rm_LOG_growMemory from host.c, 12"});
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(layout(tag), "1018 [3]");
}

TEST_F(LogGrowMemory, LogsBeforeTheWarningOfAnInvalidTag)
{
    newTag();
    void* block = &block;
    EXPECT_EQ(linesOf([&] { block = rm_LOG_growMemory(nullptr, 10, 9, "host.c", 12); }),
              (Lines{"WARNING: Calling rm_LOG_growMemory from host.c, 12",
                     invalidTag(9, "rm_growMemory")}));
    EXPECT_EQ(block, nullptr);
}

TEST_F(LogGrowMemory, LogsBeforeTheWarningOfABadPointer)
{
    const Tag tag = newTag();
    char foreign[16] = {};
    void* block = foreign;
    EXPECT_EQ(
        linesOf([&] { block = rm_LOG_growMemory(foreign + 8, 10, tag, "host.c", 12); }),
        (Lines{"WARNING: Calling rm_LOG_growMemory from host.c, 12", badPointer(foreign + 8)}));
    EXPECT_EQ(block, nullptr);
}

TEST_F(LogGrowMemory, LogsBeforeTheEndOfMemoryEndsIt)
{
    const Drawn drawn = draw("2 [3] [1]");
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    EXPECT_EQ(fatalLines([&] { rm_LOG_growMemory(drawn.live[0], 100, drawn.tag, "host.c", 12); }),
              withoutMemory("WARNING: Calling rm_LOG_growMemory from host.c, 12"));
    EXPECT_EQ(layout(drawn.tag), "5 [1]");
}

// --- rm_LOG_Strdup

TEST_F(LogStrdup, LogsAndCopies)
{
    const Tag tag = newTag();
    const char* text = "twelve bytes";
    char* copy = nullptr;
    EXPECT_EQ(linesOf([&] { copy = rm_LOG_Strdup(text, tag, "host.c", 12); }),
              Lines{"WARNING: Calling rm_LOG_Strdup from host.c, 12"});
    EXPECT_NE(copy, text);
    EXPECT_STREQ(copy, text);
    EXPECT_EQ(layout(tag), "1018 [3]");
}

TEST_F(LogStrdup, ReadsNullAsTheEmptyText)
{
    const Tag tag = newTag();
    char* copy = nullptr;
    EXPECT_EQ(linesOf([&] { copy = rm_LOG_Strdup(nullptr, tag, "host.c", 12); }),
              Lines{"WARNING: Calling rm_LOG_Strdup from host.c, 12"});
    EXPECT_STREQ(copy, "");
    EXPECT_EQ(layout(tag), "1019 [2]");
}

TEST_F(LogStrdup, OfTheEmptyTextTakesAByte)
{
    const Tag tag = newTag();
    char* copy = nullptr;
    linesOf([&] { copy = rm_LOG_Strdup("", tag, "host.c", 12); });
    EXPECT_STREQ(copy, "");
    EXPECT_EQ(layout(tag), "1019 [2]");
}

TEST_F(LogStrdup, LogsBeforeAnInvalidTagEndsIt)
{
    newTag();
    EXPECT_EQ(fatalLines([] { rm_LOG_Strdup("text", 7, "host.c", 12); }),
              fatalInvalidTag("WARNING: Calling rm_LOG_Strdup from host.c, 12", 7));
    EXPECT_EQ(fatalLines([] { rm_LOG_Strdup(nullptr, 7, "host.c", 13); }),
              fatalInvalidTag("WARNING: Calling rm_LOG_Strdup from host.c, 13", 7));
}

TEST_F(LogStrdup, LogsBeforeTheEndOfMemoryEndsIt)
{
    const Tag tag = newTag();
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    EXPECT_EQ(fatalLines([=] { rm_LOG_Strdup("text", tag, "host.c", 12); }),
              withoutMemory("WARNING: Calling rm_LOG_Strdup from host.c, 12"));
}

// --- rm_LOG_freeMemory

TEST_F(LogFreeMemory, LogsNoPositionAndFrees)
{
    const Drawn drawn = draw("2 [3] [1]");
    EXPECT_EQ(linesOf([&] { rm_LOG_freeMemory(drawn.live[0], drawn.tag); }),
              Lines{"WARNING: Calling rm_LOG_freeMemory"});
    EXPECT_EQ(layout(drawn.tag), "5 [1]");
}

TEST_F(LogFreeMemory, OfNullLogsAndDoesNothing)
{
    const Drawn drawn = draw("2 [3] [1]");
    EXPECT_EQ(linesOf([&] { rm_LOG_freeMemory(nullptr, drawn.tag); }),
              Lines{"WARNING: Calling rm_LOG_freeMemory"});
    EXPECT_EQ(layout(drawn.tag), "2 [3] [1]");
}

TEST_F(LogFreeMemory, LogsBeforeTheWarningOfASecondFree)
{
    const Drawn drawn = draw("2 [3] [1]");
    linesOf([&] { rm_LOG_freeMemory(drawn.live[0], drawn.tag); });
    EXPECT_EQ(linesOf([&] { rm_LOG_freeMemory(drawn.live[0], drawn.tag); }),
              (Lines{"WARNING: Calling rm_LOG_freeMemory", badPointer(drawn.live[0])}));
}

TEST_F(LogFreeMemory, LogsBeforeTheWarningOfAnInvalidTag)
{
    const Drawn drawn = draw("2 [3] [1]");
    EXPECT_EQ(linesOf([&] { rm_LOG_freeMemory(drawn.live[0], 9); }),
              (Lines{"WARNING: Calling rm_LOG_freeMemory", invalidTag(9, "rm_freeMemory")}));
    EXPECT_EQ(layout(drawn.tag), "2 [3] [1]");
}

TEST_F(LogFreeMemory, LogsBeforeTheLinesOfAnotherTagsBlock)
{
    const Drawn drawn = draw("2 [3]");
    const Tag other = newTag();
    Lines expected = rmtest::notFound(other, drawn.live[0]);
    expected.insert(expected.begin(), "WARNING: Calling rm_LOG_freeMemory");
    EXPECT_EQ(linesOf([&] { rm_LOG_freeMemory(drawn.live[0], other); }), expected);
    EXPECT_EQ(layout(drawn.tag), "2 [3]");
}

// --- rm_LOG_zFreeMemory

TEST_F(LogZFreeMemory, LogsNoPositionFreesAndClearsThePointer)
{
    const Drawn drawn = draw("2 [3] [1]");
    void* pointer = drawn.live[0];
    EXPECT_EQ(linesOf([&] { rm_LOG_zFreeMemory(&pointer, drawn.tag); }),
              Lines{"WARNING: Calling rm_LOG_zFreeMemory"});
    EXPECT_EQ(pointer, nullptr);
    EXPECT_EQ(layout(drawn.tag), "5 [1]");
}

TEST_F(LogZFreeMemory, OfANullPointerLogsAndDoesNothing)
{
    const Drawn drawn = draw("2 [3] [1]");
    void* pointer = nullptr;
    EXPECT_EQ(linesOf([&] { rm_LOG_zFreeMemory(&pointer, drawn.tag); }),
              Lines{"WARNING: Calling rm_LOG_zFreeMemory"});
    EXPECT_EQ(layout(drawn.tag), "2 [3] [1]");
}

TEST_F(LogZFreeMemory, OfNoPointerLogsAndDoesNothing)
{
    const Drawn drawn = draw("2 [3] [1]");
    EXPECT_EQ(linesOf([&] { rm_LOG_zFreeMemory(nullptr, drawn.tag); }),
              Lines{"WARNING: Calling rm_LOG_zFreeMemory"});
    EXPECT_EQ(layout(drawn.tag), "2 [3] [1]");
}

TEST_F(LogZFreeMemory, LogsBeforeTheWarningOfABadPointer)
{
    const Tag tag = newTag();
    char foreign[16] = {};
    void* pointer = foreign + 8;
    EXPECT_EQ(linesOf([&] { rm_LOG_zFreeMemory(&pointer, tag); }),
              (Lines{"WARNING: Calling rm_LOG_zFreeMemory", badPointer(foreign + 8)}));
    EXPECT_EQ(pointer, nullptr);
}

TEST_F(LogZFreeMemory, LogsBeforeTheWarningOfAnInvalidTag)
{
    const Drawn drawn = draw("2 [3]");
    void* pointer = drawn.live[0];
    EXPECT_EQ(linesOf([&] { rm_LOG_zFreeMemory(&pointer, 9); }),
              (Lines{"WARNING: Calling rm_LOG_zFreeMemory", invalidTag(9, "rm_freeMemory")}));
    EXPECT_EQ(layout(drawn.tag), "2 [3]");
}

// --- All of them

// Makes each call; the blocks stay in the tag.
void makeEveryCall(Tag tag, const char* file, unsigned line)
{
    void* block = rm_LOG_getMemory(8, tag, file, line);
    block = rm_LOG_extendMemory(block, 20, tag, file, line);
    block = rm_LOG_growMemory(block, 30, tag, file, line);
    rm_LOG_cGetMemory(8, tag, file, line);
    rm_LOG_Strdup("text", tag, file, line);
    rm_LOG_freeMemory(rm_getMemory(8, tag), tag);
    rm_LOG_zFreeMemory(&block, tag);
}

Lines everyLine(const std::string& from)
{
    return {"WARNING: Calling rm_LOG_getMemory from " + from,
            "WARNING: Calling rm_LOG_extendMemory from " + from,
            "WARNING: Calling rm_LOG_growMemory from " + from,
            "WARNING: Calling rm_LOG_cGetMemory from " + from,
            "WARNING: Calling rm_LOG_Strdup from " + from,
            "WARNING: Calling rm_LOG_freeMemory",
            "WARNING: Calling rm_LOG_zFreeMemory"};
}

TEST_F(LogCalls, DoWhatThePlainOnesDo)
{
    const Tag logged = newTag();
    const Tag plain = newTag();
    linesOf([=] { makeEveryCall(logged, "f", 1); });
    EXPECT_EQ(linesOf([=] {
                  void* block = rm_getMemory(8, plain);
                  block = rm_extendMemory(block, 20, plain);
                  block = rm_growMemory(block, 30, plain);
                  rm_cGetMemory(8, plain);
                  rm_Strdup("text", plain);
                  rm_freeMemory(rm_getMemory(8, plain), plain);
                  rm_zFreeMemory(&block, plain);
              }),
              Lines{});
    EXPECT_EQ(layout(logged), layout(plain));
}

TEST_F(LogCalls, NameTheLineUnsigned)
{
    const Tag tag = newTag();
    EXPECT_EQ(linesOf([=] { makeEveryCall(tag, "dir/host.c", 0xFFFFFFFF); }),
              everyLine("dir/host.c, 4294967295"));
    EXPECT_EQ(linesOf([=] { makeEveryCall(tag, "", 0); }), everyLine(", 0"));
}

TEST_F(LogCalls, DoNotInterpretPercentSignsInAFileName)
{
    const Tag tag = newTag();
    EXPECT_EQ(linesOf([=] { makeEveryCall(tag, "%s%n%%", 3); }), everyLine("%s%n%%, 3"));
}

TEST_F(LogCalls, CutALineWithALongFileNameAfter259Bytes)
{
    const Tag tag = newTag();
    const std::string name(300, 'n');
    Lines expected = everyLine(name);
    for (std::string& line : expected) {
        line = line.substr(0, 259);
    }
    EXPECT_EQ(linesOf([&] { makeEveryCall(tag, name.c_str(), 3); }), expected);
}

TEST_F(LogCalls, LogAtLevelZeroToo)
{
    const Tag tag = newTag();
    rm_systemLog(0);
    EXPECT_EQ(linesOf([=] { makeEveryCall(tag, "f", 1); }), everyLine("f, 1"));
}

// The line is there before anything happens to the heap.
TEST_F(LogCalls, LogBeforeTheyTakeMemory)
{
    const Tag tag = newTag();
    linesOf([=] { rm_LOG_getMemory(8, tag, "f", 1); });
    const std::vector<CallRecord> calls = rmtest::callTrace({Call::kFwrite, Call::kMalloc});
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[0].call, Call::kMalloc);  // the table
    EXPECT_EQ(calls[1].call, Call::kFwrite);
    EXPECT_EQ(calls[2].call, Call::kMalloc);
}
}  // namespace
