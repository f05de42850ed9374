// Text streams: opening, and reading lines into a buffer of a given size.
#include "tests/rmutil/textstream_case.h"

#include <array>
#include <cstddef>
#include <limits>
#include <type_traits>

#include <fcntl.h>
#include <sys/stat.h>

using namespace streamtest;

namespace
{

class StreamOpen : public StreamTest
{
};

class StreamGets : public StreamTest
{
};

class StreamGetsSize : public StreamTest
{
};

class StreamGetsEnd : public StreamTest
{
};

// --- Opening

struct Mode {
    const char* name;
    const char* text;
    uint32_t flags;  // that reach the table
    int hostFlags;   // that reach the system
};

void PrintTo(const Mode& mode, std::ostream* out)
{
    *out << (mode.text != nullptr ? mode.text : "null");
}

constexpr uint32_t kNew = RM_O_CREAT | RM_O_TRUNC;
constexpr int kHostNew = O_CREAT | O_TRUNC;

const std::vector<Mode> kModes = {
    {"Read", "r", 0x000, O_RDONLY},
    {"BehindItsEnd", "r\0w", 0x000, O_RDONLY},
    {"BehindAnEmptyOne", "\0w+", 0x000, O_RDONLY},
    {"Write", "w", 0x301, O_WRONLY | kHostNew},
    {"ReadPlus", "r+", 0x002, O_RDWR},
    {"WritePlus", "w+", 0x302, O_RDWR | kHostNew},
    {"PlusWrite", "+w", 0x303, O_RDWR | kHostNew},
    {"Plus", "+", 0x002, O_RDWR},
    {"WriteTwice", "ww", 0x301, O_WRONLY | kHostNew},
    {"WritePlusWrite", "w+w", 0x303, O_RDWR | kHostNew},
    {"ReadWrite", "rw", 0x301, O_WRONLY | kHostNew},
    {"Append", "a", 0x000, O_RDONLY},
    {"WriteExclusivePlus", "wx+", 0x302, O_RDWR | kHostNew},
    {"ReadBinaryPlus", "rb+", 0x002, O_RDWR},
    {"FourthCharacterWrite", "abcw", 0x000, O_RDONLY},
    {"FourthCharacterPlus", "rbt+", 0x000, O_RDONLY},
    {"UpperCaseWrite", "W", 0x000, O_RDONLY},
    {"Empty", "", 0x000, O_RDONLY},
    {"Null", nullptr, 0x000, O_RDONLY},
};

class StreamMode : public StreamTest, public ::testing::WithParamInterface<Mode>
{
};

INSTANTIATE_TEST_SUITE_P(Modes, StreamMode, ::testing::ValuesIn(kModes),
                         [](const ::testing::TestParamInfo<Mode>& param) {
                             return std::string(param.param.name);
                         });

TEST_P(StreamMode, GivesTheseFlags)
{
    const Mode& mode = GetParam();
    writeFile(kPath, "text\n");
    std::vector<uint32_t> flags;
    std::vector<int> hostFlags;
    FileStream* stream = nullptr;
    {
        const Spy spy(Call::kOpen, [&](const CallRecord& call) {
            if (call.path() == kPath) {
                flags.push_back(entryOf(0)->openFlags);
                hostFlags.push_back(static_cast<int>(call.args[1]));
            }
        });
        stream = rm_fileStreamOpen(kPath, mode.text);
    }
    ASSERT_NE(stream, nullptr);
    EXPECT_THAT(flags, ElementsAre(mode.flags));
    EXPECT_THAT(hostFlags, ElementsAre(mode.hostFlags));
    rm_fileStreamClose(stream);
}

TEST_P(StreamMode, EmptiesTheFileOnlyWithWrite)
{
    const Mode& mode = GetParam();
    writeFile(kPath, "text\n");
    rm_fileStreamClose(rm_fileStreamOpen(kPath, mode.text));
    EXPECT_EQ(readFile(kPath), (mode.flags & RM_O_TRUNC) != 0 ? "" : "text\n");
}

TEST_P(StreamMode, MakesAMissingFileOnlyWithWrite)
{
    const Mode& mode = GetParam();
    const bool makes = (mode.flags & kNew) != 0;
    FileStream* stream = rm_fileStreamOpen(kPath, mode.text);
    EXPECT_EQ(stream != nullptr, makes);
    EXPECT_EQ(std::filesystem::exists(kPath), makes);
    rm_fileStreamClose(stream);
}

TEST_F(StreamOpen, AsksForNoModeFlagsNoSizeAndGrowthByOne)
{
    FileStream* stream = writing();
    const file::FileEntry* entry = entryOf(stream->handle);
    EXPECT_EQ(entry->modeFlags, 0);
    EXPECT_EQ(entry->initialSize, 0U);
    EXPECT_EQ(entry->growIncrement, 1U);
    EXPECT_STREQ(entry->name, kPath);
    rm_fileStreamClose(stream);
}

TEST_F(StreamOpen, MakesFilesForTheirOwnerOnly)
{
    rm_fileStreamClose(writing());
    struct stat status = {};
    ASSERT_EQ(stat(kPath, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(StreamOpen, TheRecordIsZeroBesideItsHandle)
{
    // Memory that has been something else before.
    void* neighbour = rm_getMemory(8, 0);
    const int16_t other = openNew("other");
    void* used = rm_getMemory(sizeof(FileStream), 0);
    std::memset(used, 0xFF, sizeof(FileStream));
    rm_freeMemory(used, 0);

    FileStream* stream = writing();
    EXPECT_TRUE(stream == used || seg_alloc != 0) << "the case needs the same place again";
    EXPECT_EQ(stream->handle, 1);
    EXPECT_EQ(stream->pending, 0U);
    EXPECT_EQ(stream->cursor, 0U);
    EXPECT_EQ(std::string(stream->buffer, kStreamBlock), std::string(kStreamBlock, '\0'));
    EXPECT_EQ(stream->filled, 0U);
    EXPECT_FALSE(stream->failed);
    rm_fileStreamClose(stream);
    rm_fileClose(other);
    rm_freeMemory(neighbour, 0);
}

TEST_F(StreamOpen, TheFieldsOfEveryReleaseStandInTheirOrder)
{
    EXPECT_EQ(offsetof(FileStream, handle), 0U);
    EXPECT_EQ(offsetof(FileStream, pending), 4U);
    EXPECT_EQ(offsetof(FileStream, cursor), 8U);
    EXPECT_EQ(offsetof(FileStream, buffer), 12U);
    EXPECT_EQ(sizeof(FileStream::buffer), 512U);
    EXPECT_TRUE((std::is_same_v<decltype(FileStream::handle), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(FileStream::pending), uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(FileStream::cursor), uint32_t>));
}

TEST_F(StreamOpen, TheRecordBelongsToTagZero)
{
    static_cast<void>(rm_allocTag(nullptr, RM_NO_LIMIT));
    const uint32_t before = rmalloc::tagTable[0].allocated;
    FileStream* stream = writing();
    EXPECT_EQ(rmalloc::tagTable[0].allocated - before,
              rmalloc::unitsFor(sizeof(FileStream)) * rmalloc::kUnit);
    rm_fileStreamClose(stream);
    EXPECT_EQ(rmalloc::tagTable[0].allocated, before);
}

TEST_F(StreamOpen, ReadsNothingYet)
{
    writeFile(kPath, "text\n");
    resetCalls();
    FileStream* stream = rm_fileStreamOpen(kPath, "r");
    EXPECT_EQ(callCount(Call::kRead), 0);
    rm_fileStreamClose(stream);
}

TEST_F(StreamOpen, AFileThatIsNotThereGivesNullAndLeavesNothing)
{
    static_cast<void>(rm_allocTag(nullptr, RM_NO_LIMIT));
    const uint32_t before = rm_memused();
    const uint32_t allocated = rmalloc::tagTable[0].allocated;
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileStreamOpen("missing", "r"), nullptr); }), IsEmpty());
    EXPECT_EQ(rm_memused(), before);
    EXPECT_EQ(rmalloc::tagTable[0].allocated, allocated);
    EXPECT_EQ(file::ftab, nullptr);
}

TEST_F(StreamOpen, AFileThatIsNotThereLeavesOtherStreamsAlone)
{
    FileStream* stream = reading("text\n");
    const uint32_t allocated = rmalloc::tagTable[0].allocated;
    EXPECT_EQ(rm_fileStreamOpen("missing", "r+"), nullptr);
    EXPECT_EQ(rmalloc::tagTable[0].allocated, allocated);
    EXPECT_EQ(counts(), (Counts{1, 0, 0, 0}));
    EXPECT_EQ(gets(stream, 100), "text\n");
    rm_fileStreamClose(stream);
}

TEST_F(StreamOpen, ADirectoryThatIsNotThereGivesNull)
{
    EXPECT_EQ(rm_fileStreamOpen("missing/f", "w"), nullptr);
}

TEST_F(StreamOpen, ANullPathGivesNullAndLeavesNothing)
{
    static_cast<void>(rm_allocTag(nullptr, RM_NO_LIMIT));
    const uint32_t allocated = rmalloc::tagTable[0].allocated;
    resetCalls();
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileStreamOpen(nullptr, "w"), nullptr); }), IsEmpty());
    EXPECT_EQ(callCount(Call::kOpen), 0);
    EXPECT_EQ(rmalloc::tagTable[0].allocated, allocated);
}

// --- Lines

TEST_F(StreamGets, GivesALineWithItsNewline)
{
    FileStream* stream = reading("one\ntwo\n");
    EXPECT_EQ(gets(stream, 100), "one\n");
    rm_fileStreamClose(stream);
}

TEST_F(StreamGets, GivesTheBufferItself)
{
    FileStream* stream = reading("one\n");
    char buffer[100];
    EXPECT_EQ(rm_fileStreamGets(stream, buffer, sizeof(buffer)), buffer);
    rm_fileStreamClose(stream);
}

TEST_F(StreamGets, GivesTheLinesInTheirOrderAndThenNull)
{
    FileStream* stream = reading("one\n\ntwo\n\n\nthree\n");
    EXPECT_THAT(allLines(stream, 100), ElementsAre("one\n", "\n", "two\n", "\n", "\n", "three\n"));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGets, EveryByteButZeroAndNewlineIsOneOfTheLine)
{
    std::string line;
    for (int byte = 1; byte <= std::numeric_limits<unsigned char>::max(); ++byte) {
        if (byte != '\n') {
            line += static_cast<char>(byte);
        }
    }
    line += '\n';
    FileStream* stream = reading(line + line);
    EXPECT_THAT(allLines(stream, 600), ElementsAre(line, line));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGets, ACarriageReturnStays)
{
    FileStream* stream = reading("one\r\ntwo\r\n");
    EXPECT_THAT(allLines(stream, 100), ElementsAre("one\r\n", "two\r\n"));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGets, ReadsWholeBlocksAndEachOfThemOnce)
{
    FileStream* stream = reading(linesUpTo(1200, 40));
    resetCalls();
    EXPECT_EQ(allLines(stream, 100).size(), 30U);
    std::vector<int64_t> sizes;
    for (const CallRecord& call : callTrace({Call::kRead})) {
        sizes.push_back(call.args[2]);
    }
    EXPECT_THAT(sizes, ElementsAre(512, 512, 512));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGets, ALineInTheBlockMakesNoCall)
{
    FileStream* stream = reading("one\ntwo\n");
    char buffer[100];
    rm_fileStreamGets(stream, buffer, sizeof(buffer));
    resetCalls();
    rm_fileStreamGets(stream, buffer, sizeof(buffer));
    EXPECT_STREQ(buffer, "two\n");
    EXPECT_THAT(callTrace(), IsEmpty());
    rm_fileStreamClose(stream);
}

TEST_F(StreamGets, ALineLongerThanABlockComesWhole)
{
    for (const std::size_t length : std::to_array<std::size_t>({513, 600, 1024, 1025, 5000})) {
        const std::string line = lineOf(length);
        FileStream* stream = reading("short\n" + line + "next\n");
        EXPECT_THAT(allLines(stream, 6000), ElementsAre("short\n", line, "next\n"));
        rm_fileStreamClose(stream);
    }
}

TEST_F(StreamGets, ALineMayBeginAndEndAnywhereAroundABlockBoundary)
{
    for (std::size_t before = 500; before <= 515; ++before) {
        const std::string first = lineOf(before);
        const std::string second = lineOf(520);
        FileStream* stream = reading(first + second + "x\n");
        EXPECT_THAT(allLines(stream, 2000), ElementsAre(first, second, "x\n")) << before;
        rm_fileStreamClose(stream);
    }
}

TEST_F(StreamGets, TwoStreamsOfOneFileHaveAPlaceEach)
{
    FileStream* one = reading("one\ntwo\n");
    FileStream* other = rm_fileStreamOpen(kPath, "r");
    EXPECT_EQ(gets(one, 100), "one\n");
    EXPECT_EQ(gets(other, 100), "one\n");
    EXPECT_EQ(gets(one, 100), "two\n");
    EXPECT_EQ(gets(other, 100), "two\n");
    rm_fileStreamClose(one);
    rm_fileStreamClose(other);
}

TEST_F(StreamGets, StreamsThatParkEachOtherLoseNothing)
{
    fileHandleLimit = 1;
    const std::string text = linesUpTo(3000, 30);
    FileStream* one = reading(text, "one");
    FileStream* other = reading(text, "other");
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(gets(one, 100), lineOf(30));
        ASSERT_EQ(gets(other, 100), lineOf(30));
    }
    EXPECT_EQ(gets(one, 100), Line());
    EXPECT_EQ(gets(other, 100), Line());
    EXPECT_GE(counts().reopens, 10U);
    rm_fileStreamClose(one);
    rm_fileStreamClose(other);
}

TEST_F(StreamGets, ANullStreamGivesNullAndTouchesNothing)
{
    Guarded buffer(10);
    EXPECT_EQ(rm_fileStreamGets(nullptr, buffer.data(), 10), nullptr);
    EXPECT_EQ(buffer.written(), 0U);
}

TEST_F(StreamGets, ANullBufferGivesNullAndReadsNothing)
{
    FileStream* stream = reading("one\n");
    EXPECT_EQ(rm_fileStreamGets(stream, nullptr, 10), nullptr);
    EXPECT_EQ(gets(stream, 10), "one\n");
    rm_fileStreamClose(stream);
}

// --- The size

TEST_F(StreamGetsSize, TenGivesAtMostNineBytes)
{
    FileStream* stream = reading("123456789012345678901\n");
    EXPECT_THAT(allLines(stream, 10), ElementsAre("123456789", "012345678", "901\n"));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsSize, ALineThatFillsItToTheLastByteComesWithItsNewline)
{
    FileStream* stream = reading("12345678\n12345678\n");
    EXPECT_THAT(allLines(stream, 10), ElementsAre("12345678\n", "12345678\n"));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsSize, ALineWithoutRoomForItsNewlineLeavesThatForTheNextCall)
{
    FileStream* stream = reading("123456789\n12\n");
    EXPECT_THAT(allLines(stream, 10), ElementsAre("123456789", "\n", "12\n"));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsSize, OfAnyValueNothingIsWrittenOutsideAndNoByteIsLost)
{
    const std::string text = lineOf(700) + linesUpTo(1000, 50);
    for (int32_t size = 2; size <= 720; ++size) {
        FileStream* stream = reading(text);
        const Lines lines = allLines(stream, size);
        rm_fileStreamClose(stream);
        ASSERT_EQ(joined(lines), text) << size;
        ASSERT_TRUE(std::all_of(lines.begin(), lines.end(), [size](const std::string& line) {
            return line.size() <= static_cast<std::size_t>(size) - 1;
        })) << size;
    }
}

TEST_F(StreamGetsSize, TwoGivesByteByByte)
{
    FileStream* stream = reading("ab\n\nc\n");
    EXPECT_THAT(allLines(stream, 2), ElementsAre("a", "b", "\n", "\n", "c", "\n"));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsSize, OneGivesAnEmptyTextAndPassesOverAByte)
{
    FileStream* stream = reading("abc\n");
    EXPECT_EQ(gets(stream, 1), "");
    EXPECT_EQ(gets(stream, 10), "bc\n");
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsSize, OneInALoopMeetsTheEnd)
{
    FileStream* stream = reading(linesUpTo(1500, 10));
    EXPECT_EQ(allLines(stream, 1).size(), 1500U);
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsSize, OneAtTheEndTouchesNothing)
{
    FileStream* stream = reading("");
    Guarded buffer(1);
    EXPECT_EQ(rm_fileStreamGets(stream, buffer.data(), 1), nullptr);
    EXPECT_EQ(buffer.written(), 0U);
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsSize, ZeroAndBelowGiveNullTouchNothingAndReadNothing)
{
    FileStream* stream = reading("one\n");
    resetCalls();
    for (const int32_t size : {0, -1, -512, INT32_MIN}) {
        Guarded buffer(4);
        EXPECT_EQ(rm_fileStreamGets(stream, buffer.data(), size), nullptr) << size;
        EXPECT_EQ(buffer.written(), 0U) << size;
    }
    EXPECT_EQ(callCount(Call::kRead), 0);
    EXPECT_EQ(gets(stream, 10), "one\n");
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsSize, TheLargestWritesOnlyTheLine)
{
    FileStream* stream = reading(lineOf(600) + "next\n");
    Guarded buffer(601);
    EXPECT_EQ(rm_fileStreamGets(stream, buffer.data(), INT32_MAX), buffer.data());
    EXPECT_EQ(std::string(buffer.data()), lineOf(600));
    EXPECT_TRUE(buffer.intact());
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsSize, BehindTheTerminatorNothingIsWritten)
{
    FileStream* stream = reading("12345\nabc\n");
    Guarded buffer(100);
    rm_fileStreamGets(stream, buffer.data(), 100);
    EXPECT_EQ(buffer.written(), std::strlen("12345\n") + 1);
    rm_fileStreamClose(stream);
}

// --- The end of the file

class StreamFileSize : public StreamTest, public ::testing::WithParamInterface<std::size_t>
{
};

INSTANTIATE_TEST_SUITE_P(Bytes, StreamFileSize,
                         ::testing::Values(1, 2, 511, 512, 513, 1023, 1024, 1025),
                         ::testing::PrintToStringParamName());

TEST_P(StreamFileSize, OneLineComesWholeAndThenNull)
{
    const std::string line = lineOf(GetParam());
    FileStream* stream = reading(line);
    EXPECT_THAT(allLines(stream, 2000), ElementsAre(line));
    EXPECT_EQ(gets(stream, 2000), Line());
    rm_fileStreamClose(stream);
}

TEST_P(StreamFileSize, OneLineWithoutANewlineIsGivenUnlessItEndsWithABlock)
{
    const std::string line = letters(GetParam());
    FileStream* stream = reading(line);
    if (GetParam() % kStreamBlock == 0) {
        EXPECT_THAT(allLines(stream, 2000), IsEmpty());
    } else {
        EXPECT_THAT(allLines(stream, 2000), ElementsAre(line));
    }
    EXPECT_EQ(gets(stream, 2000), Line());
    rm_fileStreamClose(stream);
}

TEST_P(StreamFileSize, ShortLinesComeOneByOneAndThenNull)
{
    const std::string text = linesUpTo(GetParam() - 1, 16) + "\n";
    FileStream* stream = reading(text);
    const Lines lines = allLines(stream, 100);
    EXPECT_EQ(joined(lines), text);
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')));
    EXPECT_EQ(gets(stream, 100), Line());
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsEnd, AnEmptyFileEndsAtOnce)
{
    FileStream* stream = reading("");
    EXPECT_EQ(gets(stream, 100), Line());
    EXPECT_EQ(gets(stream, 100), Line());
    EXPECT_FALSE(stream->failed);
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsEnd, NullComesAgainAndAgain)
{
    FileStream* stream = reading("one\n");
    allLines(stream, 100);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(gets(stream, 100), Line());
    }
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsEnd, ExactlyOneBlockEndingWithANewlineGivesItsLinesAndThenNull)
{
    const std::string text = linesUpTo(512, 64);
    FileStream* stream = reading(text);
    EXPECT_EQ(allLines(stream, 100), Lines(8, lineOf(64)));
    EXPECT_EQ(gets(stream, 100), Line());
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsEnd, ALastLineWithoutANewlineIsGivenByTheCallThatReadsItsBlock)
{
    FileStream* stream = reading(lineOf(512) + "last");
    EXPECT_THAT(allLines(stream, 600), ElementsAre(lineOf(512), "last"));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsEnd, ALastLineWithoutANewlineIsGivenWhenItReachesIntoANewBlock)
{
    FileStream* stream = reading(lineOf(500) + letters(20));
    EXPECT_THAT(allLines(stream, 600), ElementsAre(lineOf(500), letters(20)));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsEnd, ALastLineWithoutANewlineIsNotGivenWhenAnEarlierCallHasReadItsBlock)
{
    FileStream* stream = reading("first\nlast");
    EXPECT_THAT(allLines(stream, 100), ElementsAre("first\n"));
    EXPECT_EQ(gets(stream, 100), Line());
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsEnd, ALastLineWithoutANewlineIsNotGivenWhenItEndsWithABlock)
{
    FileStream* stream = reading(lineOf(500) + letters(12));
    EXPECT_THAT(allLines(stream, 600), ElementsAre(lineOf(500)));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsEnd, ALastLineWithoutANewlineInPiecesIsGivenUpToThePieceThatMeetsTheMark)
{
    FileStream* stream = reading("1234567890123");
    // The first piece has read the block; of the others only those that it cut are full.
    EXPECT_THAT(allLines(stream, 6), ElementsAre("12345", "67890"));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsEnd, BytesThatWereTakenBeforeTheEndAreTerminated)
{
    FileStream* stream = reading("first\nlast");
    gets(stream, 100);
    Guarded buffer(100);
    EXPECT_EQ(rm_fileStreamGets(stream, buffer.data(), 100), nullptr);
    EXPECT_EQ(buffer.written(), 5U);
    EXPECT_STREQ(buffer.data(), "last");
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsEnd, WithNothingTakenBeforeItTheBufferIsNotTouched)
{
    FileStream* stream = reading("first\n");
    gets(stream, 100);
    Guarded buffer(100);
    EXPECT_EQ(rm_fileStreamGets(stream, buffer.data(), 100), nullptr);
    EXPECT_EQ(buffer.written(), 0U);
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsEnd, AZeroByteAnywhereEndsTheFile)
{
    const std::string text = linesUpTo(1100, 50);
    for (std::size_t zero = 0; zero < text.size(); ++zero) {
        std::string damaged = text;
        damaged[zero] = '\0';
        FileStream* stream = reading(damaged);
        ASSERT_EQ(allLines(stream, 100), Lines(zero / 50, lineOf(50))) << zero;
        if (zero % kStreamBlock != 0) {
            ASSERT_EQ(gets(stream, 100), Line()) << zero;
        }
        rm_fileStreamClose(stream);
    }
}

TEST_F(StreamGetsEnd, BehindAZeroAtTheStartOfABlockTheNextCallReadsTheNextBlock)
{
    std::string text = linesUpTo(1100, 512);
    text[512] = '\0';
    FileStream* stream = reading(text);
    EXPECT_EQ(gets(stream, 600), lineOf(512));
    EXPECT_EQ(gets(stream, 600), Line());
    EXPECT_EQ(gets(stream, 600), letters(76));
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsEnd, AFileThatGrowsIsReadOnFromABlockBoundary)
{
    for (const std::size_t size : std::to_array<std::size_t>({0, 512, 1024})) {
        FileStream* stream = reading(linesUpTo(size, 64));
        EXPECT_EQ(allLines(stream, 100).size(), size / 64);
        append("more\n");
        EXPECT_EQ(gets(stream, 100), "more\n") << size;
        EXPECT_EQ(gets(stream, 100), Line()) << size;
        rm_fileStreamClose(stream);
    }
}

TEST_F(StreamGetsEnd, AFileThatGrowsBehindABlockThatWasNotFilledIsNotReadOn)
{
    FileStream* stream = reading("one\n");
    allLines(stream, 100);
    append("more\n");
    EXPECT_EQ(gets(stream, 100), Line());
    rm_fileStreamClose(stream);
}

TEST_F(StreamGetsEnd, WhatAnEarlierBlockHeldBehindTheMarkIsNotRead)
{
    FileStream* stream = reading(linesUpTo(512, 8) + "x\n");
    const Lines lines = allLines(stream, 100);
    EXPECT_EQ(lines.size(), 65U);
    EXPECT_EQ(lines.back(), "x\n");
    EXPECT_EQ(gets(stream, 100), Line());
    rm_fileStreamClose(stream);
}

}  // namespace
