// Text streams: what becomes of a line buffer beside the line, and which calls a stream leaves out.
#include "tests/rmutil/textstream_case.h"

#include <cstdint>
#include <cstring>
#include <string>

using namespace streamtest;

namespace
{

constexpr char kOld = 'x';  // what a buffer is full of before a line comes

class StreamLastByte : public StreamTest
{
};

class StreamGivenBack : public StreamTest
{
};

class StreamWide : public StreamTest
{
};

class StreamOneWay : public StreamTest
{
};

// A block of tag 0 full of something that is no zero.
LineBuffer* fill(LineBuffer* lines)
{
    std::memset(lines->buffer, kOld, lines->size);
    return lines;
}

// --- The last byte of a line buffer

TEST_F(StreamLastByte, IsZeroBehindAShortLine)
{
    FileStream* stream = reading("one\n");
    LineBuffer lines(50);
    EXPECT_EQ(fill(&lines)->next(stream), "one\n");
    EXPECT_EQ(lines.buffer[49], '\0');
    EXPECT_EQ(std::string(lines.buffer + 5, 44), std::string(44, kOld)) << "nothing else is";
    rm_fileStreamClose(stream);
}

TEST_F(StreamLastByte, IsZeroBehindALineThatMadeTheBufferLonger)
{
    FileStream* stream = reading(lineOf(60) + lineOf(10));
    LineBuffer lines(50);
    // It grows into memory that has been something else before.
    LineBuffer used(150);
    const LineBuffer neighbour(8);
    rm_zFreeMemory(&fill(&used)->buffer, 0);

    EXPECT_EQ(fill(&lines)->next(stream), lineOf(60));
    ASSERT_EQ(lines.size, 150U);
    EXPECT_EQ(lines.buffer[149], '\0');
    EXPECT_EQ(fill(&lines)->next(stream), lineOf(10));
    EXPECT_EQ(lines.buffer[149], '\0');
    rm_fileStreamClose(stream);
}

TEST_F(StreamLastByte, StaysAsItIsAtTheEndOfTheFile)
{
    FileStream* stream = reading("");
    LineBuffer lines(50);
    EXPECT_EQ(fill(&lines)->next(stream), Line());
    EXPECT_EQ(std::string(lines.buffer, 50), std::string(50, kOld));
    rm_fileStreamClose(stream);
}

// --- What is given back when there is no line

TEST_F(StreamGivenBack, AtTheEndOfTheFileAreBufferAndSizeToo)
{
    FileStream* stream = reading("");
    LineBuffer lines(1);
    EXPECT_EQ(lines.next(stream), Line());
    EXPECT_EQ(lines.size, 101U) << "a byte has no room for a line, so it was made longer";
    EXPECT_EQ(lines.units(), rmalloc::unitsFor(101));
    lines.size = 0;
    EXPECT_EQ(lines.next(stream), Line());
    EXPECT_EQ(lines.size, 100U) << "which 0 stands for";
    rm_fileStreamClose(stream);
}

// --- Lines of more bytes than 16 bits count

TEST_F(StreamWide, TheResultOfAPutIsTheWholeLength)
{
    FileStream* stream = writing();
    EXPECT_EQ(puts(stream, letters(70'000)), 70'000U);
    EXPECT_EQ(puts(stream, letters(0x20000)), 0x20000U);
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), letters(70'000) + "\n" + letters(0x20000) + "\n");
}

TEST_F(StreamWide, ABufferOfThatManyBytesGetsTheWholeLine)
{
    FileStream* stream = reading(lineOf(0x20000) + lineOf(70'000) + "next\n");
    EXPECT_EQ(gets(stream, 0x20001), lineOf(0x20000));
    EXPECT_EQ(gets(stream, 70'000), letters(69'999));
    EXPECT_EQ(gets(stream, 70'000), "\n") << "which had no room";
    EXPECT_EQ(gets(stream, 70'000), "next\n");
    rm_fileStreamClose(stream);
}

// --- Calls that are not made

TEST_F(StreamOneWay, WritingNeverReadsAndDoesNotAskForTheLength)
{
    FileStream* stream = writing(kPath, "w+");
    resetCalls();
    puts(stream, letters(2000));
    rm_fileStreamClose(stream);
    EXPECT_EQ(callCount(Call::kRead), 0);
    const std::vector<CallRecord> seeks = callTrace({Call::kLseek});
    EXPECT_FALSE(seeks.empty());
    for (const CallRecord& seek : seeks) {
        EXPECT_EQ(seek.args[2], SEEK_SET) << "the end is the length";
    }
    EXPECT_EQ(sizeOnDisk(), 2001U);
}

TEST_F(StreamOneWay, ClosingWritesTheRestBeforeTheDescriptorGoes)
{
    FileStream* stream = writing();
    puts(stream, "one");
    const int fd = entryOf(stream->handle)->fd;
    resetCalls();
    rm_fileStreamClose(stream);
    std::vector<Call> calls;
    for (const CallRecord& call : callTrace({Call::kWrite, Call::kClose})) {
        EXPECT_EQ(call.args[0], fd);
        calls.push_back(call.call);
    }
    EXPECT_THAT(calls, ElementsAre(Call::kWrite, Call::kClose));
}

}  // namespace
