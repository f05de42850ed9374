// Text streams: lines of any length, and the readers that the INI files use.
#include "tests/models/textstream_model.h"
#include "tests/rmutil/textstream_case.h"

#include <array>

using namespace streamtest;

namespace
{

using rmtest::TextReaderModel;
using rmutil::kLineStep;
using rmutil::LineContext;

class StreamGetLine : public StreamTest
{
};

class StreamGetLineSize : public StreamTest
{
};

class StreamGetLineEnd : public StreamTest
{
};

class StreamGetLineBuffer : public StreamTest
{
};

class StreamNextLine : public StreamTest
{
};

class StreamNextWhole : public StreamTest
{
};

// The size to which a line of `length` bytes, newline included, brings a buffer of `size` bytes.
uint32_t grownFor(std::size_t length, uint32_t size)
{
    const std::size_t needed = length + 1;
    const std::size_t steps = needed > size ? (needed - size + kLineStep - 1) / kLineStep : 0;
    return size + static_cast<uint32_t>(steps) * kLineStep;
}

// --- Lines

TEST_F(StreamGetLine, GivesALineWithItsNewlineInABufferOfItsOwn)
{
    FileStream* stream = reading("one\n");
    LineBuffer lines;
    EXPECT_EQ(lines.next(stream), "one\n");
    EXPECT_EQ(lines.size, 100U);
    EXPECT_EQ(lines.units(), rmalloc::unitsFor(100));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLine, ALineOf250CharactersComesWholeWithABufferOf100)
{
    FileStream* stream = reading(lineOf(250) + "next\n");
    LineBuffer lines(100);
    EXPECT_EQ(lines.next(stream), lineOf(250));
    EXPECT_EQ(lines.size, 300U);
    EXPECT_EQ(lines.next(stream), "next\n");
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLine, ReadsAllLinesIntoOneBuffer)
{
    FileStream* stream = reading("one\n\n" + lineOf(700) + "two\n");
    LineBuffer lines;
    EXPECT_EQ(lines.next(stream), "one\n");
    EXPECT_EQ(lines.next(stream), "\n");
    EXPECT_EQ(lines.next(stream), lineOf(700));
    EXPECT_EQ(lines.next(stream), "two\n");
    EXPECT_EQ(lines.next(stream), Line());
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLine, EveryByteButZeroAndNewlineIsOneOfTheLine)
{
    std::string line;
    for (int repeat = 0; repeat < 3; ++repeat) {
        for (int byte = 255; byte > 0; --byte) {
            if (byte != '\n') {
                line += static_cast<char>(byte);
            }
        }
    }
    line += '\n';
    FileStream* stream = reading(line + line);
    LineBuffer lines;
    EXPECT_EQ(lines.next(stream), line);
    EXPECT_EQ(lines.next(stream), line);
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLine, NullArgumentsGiveNullAndReadNothing)
{
    FileStream* stream = reading("one\n");
    char* buffer = nullptr;
    uint32_t size = 7;
    EXPECT_EQ(rm_fileStreamGetLine(nullptr, &buffer, &size), nullptr);
    EXPECT_EQ(rm_fileStreamGetLine(stream, nullptr, &size), nullptr);
    EXPECT_EQ(rm_fileStreamGetLine(stream, &buffer, nullptr), nullptr);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(size, 7U);
    EXPECT_EQ(gets(stream, 100), "one\n");
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLine, ALineOfTenMegabytesCostsNoMoreThanItsBytes)
{
    const std::string line = lineOf(10'000'000);
    FileStream* stream = reading(line + "next\n");
    LineBuffer lines;
    resetCalls();
    const char* result = rm_fileStreamGetLine(stream, &lines.buffer, &lines.size);
    // A buffer that grew by the same step each time would be copied 100,000 times.
    EXPECT_LT(callCount(Call::kMalloc), 64);
    EXPECT_EQ(callCount(Call::kRead), 19'532);
    ASSERT_NE(result, nullptr);
    EXPECT_TRUE(line == result);
    EXPECT_EQ(lines.size, grownFor(line.size(), 100));
    EXPECT_EQ(lines.units(), rmalloc::unitsFor(lines.size));
    EXPECT_EQ(lines.next(stream), "next\n");
    rm_fileStreamClose(stream);
}

// --- Sizes

TEST_F(StreamGetLineSize, ForEveryLengthIsTheLeastNumberOfStepsThatHoldsTheLine)
{
    constexpr std::size_t kLongest = 701;
    std::string text;
    for (std::size_t length = 1; length <= kLongest; ++length) {
        text += lineOf(length);
    }
    for (const uint32_t first : {0U, 2U, 3U, 50U, 99U, 100U, 101U, 500U, 702U, 1000U}) {
        FileStream* stream = reading(text);
        for (std::size_t length = 1; length <= kLongest; ++length) {
            LineBuffer lines;
            if (first > 0) {
                lines.buffer = static_cast<char*>(rm_getMemory(first, 0));
                lines.size = first;
            }
            ASSERT_EQ(lines.next(stream), lineOf(length)) << first;
            const uint32_t expected = grownFor(length, first > 0 ? first : kLineStep);
            ASSERT_EQ(lines.size, expected) << "length " << length << ", from " << first;
            ASSERT_EQ(lines.units(), rmalloc::unitsFor(expected)) << length;
        }
        rm_fileStreamClose(stream);
    }
}

TEST_F(StreamGetLineSize, OfTheLineThatJustFitsStaysAndOfTheNextGrows)
{
    FileStream* stream = reading(lineOf(99) + lineOf(100));
    LineBuffer lines;
    lines.next(stream);
    EXPECT_EQ(lines.size, 100U);
    lines.next(stream);
    EXPECT_EQ(lines.size, 200U);
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineSize, NeverBecomesSmaller)
{
    FileStream* stream = reading(lineOf(450) + "x\n" + lineOf(300));
    LineBuffer lines;
    lines.next(stream);
    EXPECT_EQ(lines.size, 500U);
    lines.next(stream);
    EXPECT_EQ(lines.size, 500U);
    lines.next(stream);
    EXPECT_EQ(lines.size, 500U);
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineSize, OfANullBufferIs100WhateverIsGiven)
{
    FileStream* stream = reading(linesUpTo(100, 10));
    for (const uint32_t size : {0U, 1U, 50U, 500U, UINT32_MAX}) {
        LineBuffer lines;
        lines.size = size;
        EXPECT_EQ(lines.next(stream), lineOf(10));
        EXPECT_EQ(lines.size, 100U);
        EXPECT_EQ(lines.units(), rmalloc::unitsFor(100));
    }
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineSize, ZeroOfABufferMeans100)
{
    FileStream* stream = reading(lineOf(99) + lineOf(150));
    LineBuffer lines(100);
    lines.size = 0;
    EXPECT_EQ(lines.next(stream), lineOf(99));
    EXPECT_EQ(lines.size, 100U);
    lines.size = 0;
    EXPECT_EQ(lines.next(stream), lineOf(150));
    EXPECT_EQ(lines.size, 200U);
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineSize, OneGrowsBeforeTheLineIsReadSoThatNoByteIsLost)
{
    FileStream* stream = reading("abc\n" + lineOf(150));
    LineBuffer lines(1);
    EXPECT_EQ(lines.next(stream), "abc\n");
    EXPECT_EQ(lines.size, 101U);
    EXPECT_EQ(lines.next(stream), lineOf(150));
    EXPECT_EQ(lines.size, 201U);
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineSize, TwoHoldsAnEmptyLine)
{
    FileStream* stream = reading("\nabc\n");
    LineBuffer lines(2);
    EXPECT_EQ(lines.next(stream), "\n");
    EXPECT_EQ(lines.size, 2U);
    EXPECT_EQ(lines.next(stream), "abc\n");
    EXPECT_EQ(lines.size, 102U);
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineSize, IsExactlyWhatIsAllocatedInTheEnd)
{
    FileStream* stream = reading(lineOf(5000) + lineOf(20'000) + lineOf(3));
    const uint32_t before = rmalloc::tagTable[0].allocated;
    LineBuffer lines;
    while (lines.next(stream).has_value()) {
        EXPECT_EQ(rmalloc::tagTable[0].allocated - before,
                  rmalloc::unitsFor(lines.size) * rmalloc::kUnit);
    }
    EXPECT_EQ(lines.size, grownFor(20'000, 100));
    rm_zFreeMemory(&lines.buffer, 0);
    EXPECT_EQ(rmalloc::tagTable[0].allocated, before);
    rm_fileStreamClose(stream);
}

// --- The end of the file

TEST_F(StreamGetLineEnd, OfAnEmptyFileGivesNullAndLeavesABuffer)
{
    FileStream* stream = reading("");
    LineBuffer lines;
    EXPECT_EQ(lines.next(stream), Line());
    EXPECT_NE(lines.buffer, nullptr);
    EXPECT_EQ(lines.size, 100U);
    EXPECT_EQ(lines.next(stream), Line());
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineEnd, NullComesAgainAndAgain)
{
    FileStream* stream = reading("one\n");
    LineBuffer lines;
    lines.next(stream);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(lines.next(stream), Line());
        EXPECT_EQ(lines.size, 100U);
    }
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineEnd, AShortLastLineWithoutANewlineCostsOneStep)
{
    FileStream* stream = reading("last");
    LineBuffer lines;
    EXPECT_EQ(lines.next(stream), "last");
    EXPECT_EQ(lines.size, 200U);
    EXPECT_EQ(lines.next(stream), Line());
    EXPECT_EQ(lines.size, 200U);
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineEnd, OfAFirstLineWithoutANewlineTheSizeFollowsThePieces)
{
    for (std::size_t length = 1; length < kStreamBlock; ++length) {
        FileStream* stream = reading(letters(length));
        LineBuffer lines;
        ASSERT_EQ(lines.next(stream), letters(length));
        // One step since the first piece does not end, one more for each that is full.
        const std::size_t fullSteps = length < 99 ? 0 : (length - 99) / 100;
        ASSERT_EQ(lines.size, 200 + 100 * fullSteps) << length;
        ASSERT_EQ(lines.next(stream), Line());
        rm_fileStreamClose(stream);
    }
}

TEST_F(StreamGetLineEnd, AShortLastLineWithoutANewlineIsNotGivenWhenItsBlockHasBeenRead)
{
    FileStream* stream = reading("first\nlast");
    LineBuffer lines;
    EXPECT_EQ(lines.next(stream), "first\n");
    EXPECT_EQ(lines.next(stream), Line());
    EXPECT_EQ(lines.size, 100U);
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineEnd, ALastLineWithoutANewlineThatFillsTheBufferIsGivenAllTheSame)
{
    for (const std::size_t length :
         std::to_array<std::size_t>({99, 100, 150, 198, 199, 200, 400})) {
        FileStream* stream = reading("first\n" + letters(length));
        LineBuffer lines;
        EXPECT_EQ(lines.next(stream), "first\n");
        EXPECT_EQ(lines.next(stream), letters(length)) << length;
        EXPECT_EQ(lines.next(stream), Line());
        rm_fileStreamClose(stream);
    }
}

TEST_F(StreamGetLineEnd, ALastLineWithoutANewlineThatLacksAByteToFillTheBufferIsNotGiven)
{
    FileStream* stream = reading("first\n" + letters(98));
    LineBuffer lines;
    EXPECT_EQ(lines.next(stream), "first\n");
    EXPECT_EQ(lines.next(stream), Line());
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineEnd, ALongLastLineWithoutANewlineThatEndsWithABlockIsGivenWhole)
{
    for (const std::size_t length : std::to_array<std::size_t>({512, 1024, 5120})) {
        FileStream* stream = reading(letters(length));
        LineBuffer lines;
        EXPECT_EQ(lines.next(stream), letters(length));
        EXPECT_EQ(lines.next(stream), Line());
        rm_fileStreamClose(stream);
    }
}

TEST_F(StreamGetLineEnd, AShortLastLineWithoutANewlineThatEndsWithABlockIsNotGiven)
{
    FileStream* stream = reading(lineOf(500) + letters(12));
    LineBuffer lines;
    EXPECT_EQ(lines.next(stream), lineOf(500));
    EXPECT_EQ(lines.next(stream), Line());
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineEnd, OfAnyFirstLineWithoutANewlineIsWhatThePiecesGive)
{
    for (std::size_t length = 0; length <= 1100; ++length) {
        const std::size_t inBlock = length % kStreamBlock;
        if (inBlock > 220 && inBlock < 490) {
            continue;  // far from a boundary, and one piece is as the other
        }
        writeFile(kPath, letters(length));
        for (const uint32_t first : {0U, 2U, 513U}) {
            FileStream* stream = rm_fileStreamOpen(kPath, "r");
            TextReaderModel model(letters(length));
            LineBuffer lines;
            if (first > 0) {
                lines.buffer = static_cast<char*>(rm_getMemory(first, 0));
                lines.size = first;
            }
            const TextReaderModel::Line expected = model.getLine(first);
            const Line line = lines.next(stream);
            ASSERT_EQ(line.has_value(), expected.found) << length << " from " << first;
            ASSERT_EQ(line.value_or(""), expected.bytes) << length << " from " << first;
            ASSERT_EQ(lines.size, expected.size) << length << " from " << first;
            rm_fileStreamClose(stream);
        }
    }
}

TEST_F(StreamGetLineEnd, AZeroByteInALineEndsTheFile)
{
    FileStream* stream = reading(std::string("one\nt\0o\nthree\n", 14));
    LineBuffer lines;
    EXPECT_EQ(lines.next(stream), "one\n");
    EXPECT_EQ(lines.next(stream), Line());
    EXPECT_EQ(lines.next(stream), Line());
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineEnd, AZeroByteBehindTheFirstPieceOfALineCutsIt)
{
    FileStream* stream = reading(letters(150) + '\0' + "rest\n");
    LineBuffer lines;
    EXPECT_EQ(lines.next(stream), letters(150));
    EXPECT_EQ(lines.next(stream), Line());
    rm_fileStreamClose(stream);
}

// --- Buffers that are none

TEST_F(StreamGetLineBuffer, ThatIsNoBlockIsFineAsLongAsTheLineFits)
{
    FileStream* stream = reading("one\n");
    Guarded memory(8);
    char* buffer = memory.data();
    uint32_t size = 8;
    EXPECT_EQ(rm_fileStreamGetLine(stream, &buffer, &size), memory.data());
    EXPECT_STREQ(buffer, "one\n");
    EXPECT_EQ(size, 8U);
    EXPECT_TRUE(memory.intact());
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineBuffer, ThatIsNoBlockGivesNullAndAWarningWhenTheLineIsLonger)
{
    FileStream* stream = reading("123456789\nnext\n");
    Guarded memory(8);
    char* buffer = memory.data();
    uint32_t size = 8;
    std::array<char, 96> warning = {};
    std::snprintf(warning.data(), warning.size(), "WARNING: attempting to free bad pointer, %p",
                  static_cast<void*>(buffer));
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_fileStreamGetLine(stream, &buffer, &size), nullptr); }),
                ElementsAre(warning.data()));
    EXPECT_EQ(buffer, memory.data());
    EXPECT_EQ(size, 8U);
    EXPECT_STREQ(buffer, "1234567");
    EXPECT_TRUE(memory.intact());
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineBuffer, ThatIsNoBlockAndHasOneByteGivesNullAndAWarning)
{
    FileStream* stream = reading("one\n");
    Guarded memory(1);
    char* buffer = memory.data();
    uint32_t size = 1;
    EXPECT_EQ(
        linesOf([&] { EXPECT_EQ(rm_fileStreamGetLine(stream, &buffer, &size), nullptr); }).size(),
        1U);
    EXPECT_EQ(size, 1U);
    EXPECT_EQ(memory.written(), 0U);
    EXPECT_EQ(gets(stream, 100), "one\n");
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetLineBuffer, OfAnotherTagGivesNullAndStaysAsItIs)
{
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    FileStream* stream = reading(lineOf(200));
    char* block = static_cast<char*>(rm_getMemory(100, tag));
    char* buffer = block;
    uint32_t size = 100;
    const Lines log =
        linesOf([&] { EXPECT_EQ(rm_fileStreamGetLine(stream, &buffer, &size), nullptr); });
    ASSERT_EQ(log.size(), 2U);
    EXPECT_THAT(log[1], ::testing::StartsWith("WARNING: pointer not found within tag segments, "));
    EXPECT_EQ(buffer, block);
    EXPECT_EQ(size, 100U);
    EXPECT_EQ(rmalloc::headerOf(block)->units, rmalloc::unitsFor(100));
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    rm_freeMemory(block, tag);
    rm_fileStreamClose(stream);
}

// --- The next line, where it lies

TEST_F(StreamNextLine, ComesWithoutItsNewlineAndLiesInTheBlock)
{
    FileStream* stream = reading("one\ntwo\n\n");
    LineContext lines = rmutil::linesOf(stream);
    std::string_view line;
    ASSERT_TRUE(rmutil::nextLine(&lines, &line));
    EXPECT_EQ(line, "one");
    ASSERT_TRUE(rmutil::nextLine(&lines, &line));
    EXPECT_EQ(line, "two");
    EXPECT_EQ(line.data(), stream->buffer + 4);
    ASSERT_TRUE(rmutil::nextLine(&lines, &line));
    EXPECT_EQ(line, "");
    EXPECT_FALSE(rmutil::nextLine(&lines, &line));
    rm_freeMemory(lines.buffer, 0);
    rm_fileStreamClose(stream);
}

TEST_F(StreamNextLine, GivesWhatTheCallerWouldGetLineByLine)
{
    std::string text;
    for (std::size_t length = 1; length <= 701; ++length) {
        text += lineOf(length);
    }
    text += letters(900);
    FileStream* stream = reading(text);
    FileStream* other = rm_fileStreamOpen(kPath, "r");
    LineContext lines = rmutil::linesOf(stream);
    LineBuffer expected;
    std::string_view line;
    int given = 0;
    while (rmutil::nextLine(&lines, &line)) {
        Line whole = expected.next(other);
        ASSERT_TRUE(whole.has_value());
        if (whole->ends_with('\n')) {
            whole->pop_back();
        }
        ASSERT_EQ(line, *whole);
        ASSERT_EQ(lines.size, expected.size);
        ++given;
    }
    EXPECT_EQ(expected.next(other), Line());
    EXPECT_EQ(given, 702);
    rmutil::finishLines(&lines);
    EXPECT_EQ(rmalloc::headerOf(lines.buffer)->units, rmalloc::unitsFor(lines.size));
    rm_freeMemory(lines.buffer, 0);
    rm_fileStreamClose(stream);
    rm_fileStreamClose(other);
}

// --- Every byte

Lines wholeLines(FileStream* stream)
{
    LineContext lines = rmutil::linesOf(stream);
    Lines all;
    std::string_view line;
    while (rmutil::nextWhole(&lines, &line)) {
        all.emplace_back(line);
    }
    rm_freeMemory(lines.buffer, 0);
    return all;
}

TEST_F(StreamNextWhole, GivesLinesWithoutTheirNewline)
{
    FileStream* stream = reading("one\n\n" + lineOf(1200) + "two\n");
    EXPECT_THAT(wholeLines(stream), ElementsAre("one", "", letters(1199), "two"));
    rm_fileStreamClose(stream);
}

TEST_F(StreamNextWhole, GivesALastLineWithoutANewlineWhereverItEnds)
{
    for (const std::size_t length : std::to_array<std::size_t>({1, 4, 511, 512, 513, 1024, 3000})) {
        FileStream* stream = reading(letters(length));
        EXPECT_THAT(wholeLines(stream), ElementsAre(letters(length)));
        rm_fileStreamClose(stream);
        stream = reading("first\n" + letters(length));
        EXPECT_THAT(wholeLines(stream), ElementsAre("first", letters(length)));
        rm_fileStreamClose(stream);
    }
}

TEST_F(StreamNextWhole, GivesZeroBytesToo)
{
    std::string text = linesUpTo(1300, 100);
    for (const std::size_t at : std::to_array<std::size_t>({0, 50, 511, 512, 1024, 1298})) {
        text[at] = '\0';
    }
    FileStream* stream = reading(text);
    std::string again;
    for (const std::string& line : wholeLines(stream)) {
        again += line + "\n";
    }
    EXPECT_EQ(again, text);
    rm_fileStreamClose(stream);
}

TEST_F(StreamNextWhole, OfAnEmptyFileGivesNothing)
{
    FileStream* stream = reading("");
    EXPECT_THAT(wholeLines(stream), IsEmpty());
    EXPECT_THAT(wholeLines(stream), IsEmpty());
    rm_fileStreamClose(stream);
}

TEST_F(StreamNextWhole, GoesOnWhereALineEnded)
{
    FileStream* stream = reading("one\ntwo\n" + std::string("th\0ree", 6));
    LineContext lines = rmutil::linesOf(stream);
    std::string_view line;
    ASSERT_TRUE(rmutil::nextLine(&lines, &line));
    EXPECT_EQ(line, "one");
    rm_freeMemory(lines.buffer, 0);
    EXPECT_THAT(wholeLines(stream), ElementsAre("two", std::string("th\0ree", 6)));
    rm_fileStreamClose(stream);
}

}  // namespace
