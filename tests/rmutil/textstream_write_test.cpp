// Text streams: writing lines, and what closing does.
#include "tests/rmutil/textstream_case.h"

#include <array>
#include <span>

#include <sys/mman.h>

using namespace streamtest;

namespace
{

class StreamPuts : public StreamTest
{
};

class StreamClose : public StreamTest
{
};

class StreamPutLine : public StreamTest
{
};

class StreamFlush : public StreamTest
{
};

// Sizes that the writes to the file were asked for.
std::vector<int64_t> writeSizes()
{
    std::vector<int64_t> sizes;
    for (const CallRecord& call : callTrace({Call::kWrite})) {
        sizes.push_back(call.args[2]);
    }
    return sizes;
}

// --- Lines

TEST_F(StreamPuts, WritesTheTextAndANewline)
{
    FileStream* stream = writing();
    puts(stream, "one");
    puts(stream, "two");
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), "one\ntwo\n");
}

TEST_F(StreamPuts, GivesTheLengthWithoutTheNewline)
{
    FileStream* stream = writing();
    for (const std::size_t length :
         std::to_array<std::size_t>({0, 1, 3, 510, 511, 512, 513, 2000})) {
        EXPECT_EQ(puts(stream, letters(length)), length);
    }
    rm_fileStreamClose(stream);
}

TEST_F(StreamPuts, AnEmptyTextIsAnEmptyLine)
{
    FileStream* stream = writing();
    puts(stream, "");
    puts(stream, "");
    EXPECT_EQ(stream->pending, 2U);
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), "\n\n");
}

TEST_F(StreamPuts, ATextWithNewlinesIsWrittenAsItIs)
{
    FileStream* stream = writing();
    puts(stream, "one\ntwo\n");
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), "one\ntwo\n\n");
}

TEST_F(StreamPuts, EveryByteButZeroIsWrittenAsItIs)
{
    std::string text;
    for (int byte = 1; byte < 256; ++byte) {
        text += static_cast<char>(byte);
    }
    FileStream* stream = writing();
    puts(stream, text);
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), text + "\n");
}

TEST_F(StreamPuts, ANullStreamGivesZero)
{
    EXPECT_EQ(rm_fileStreamPuts(nullptr, "text"), 0U);
}

TEST_F(StreamPuts, ANullTextGivesZeroAndWritesNothing)
{
    FileStream* stream = writing();
    puts(stream, "one");
    EXPECT_EQ(rm_fileStreamPuts(stream, nullptr), 0U);
    EXPECT_EQ(stream->pending, 4U);
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), "one\n");
}

TEST_F(StreamPuts, NeverWritesItsTextNorReadsBehindIt)
{
    constexpr std::size_t kPage = 4096;
    void* pages =
        mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    char* end = static_cast<char*>(pages) + kPage;
    const std::string text = letters(700);
    char* last = end - text.size() - 1;
    std::memcpy(last, text.c_str(), text.size() + 1);
    ASSERT_EQ(mprotect(pages, kPage, PROT_READ), 0);
    ASSERT_EQ(mprotect(end, kPage, PROT_NONE), 0);

    FileStream* stream = writing();
    EXPECT_EQ(rm_fileStreamPuts(stream, last), 700U);
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), text + "\n");
    munmap(pages, 2 * kPage);
}

// --- Blocks

// A first line of `length` characters in a new stream.
struct FirstLine {
    std::size_t length;
    uint32_t written;  // bytes in the file after it
    uint32_t pending;
};

void PrintTo(const FirstLine& line, std::ostream* out)
{
    *out << line.length;
}

class StreamPutsBlock : public StreamTest, public ::testing::WithParamInterface<FirstLine>
{
};

INSTANTIATE_TEST_SUITE_P(Lines, StreamPutsBlock,
                         ::testing::Values(FirstLine{0, 0, 1}, FirstLine{100, 0, 101},
                                           FirstLine{510, 0, 511}, FirstLine{511, 0, 512},
                                           FirstLine{512, 512, 1}, FirstLine{513, 512, 2},
                                           FirstLine{1022, 512, 511}, FirstLine{1023, 512, 512},
                                           FirstLine{1024, 1024, 1}, FirstLine{2000, 1536, 465},
                                           FirstLine{51199, 50688, 512}),
                         ::testing::PrintToStringParamName());

TEST_P(StreamPutsBlock, AFullBlockIsWrittenOnlyWhenTheNextByteComes)
{
    FileStream* stream = writing();
    puts(stream, letters(GetParam().length));
    EXPECT_EQ(sizeOnDisk(), GetParam().written);
    EXPECT_EQ(stream->pending, GetParam().pending);
    EXPECT_EQ(stream->cursor, GetParam().pending);
    rm_fileStreamClose(stream);
}

TEST_P(StreamPutsBlock, TheNextLineGoesOnBehindIt)
{
    FileStream* stream = writing();
    puts(stream, letters(GetParam().length));
    puts(stream, "x");
    // Two bytes more: what they do not fill of the block lies in the next one.
    const uint32_t end = GetParam().pending + 2;
    EXPECT_EQ(stream->pending, end <= kStreamBlock ? end : end - kStreamBlock);
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), letters(GetParam().length) + "\nx\n");
}

TEST_P(StreamPutsBlock, CloseWritesTheRest)
{
    FileStream* stream = writing();
    puts(stream, letters(GetParam().length));
    resetCalls();
    rm_fileStreamClose(stream);
    EXPECT_THAT(writeSizes(), ElementsAre(GetParam().pending));
    EXPECT_EQ(readFile(kPath), letters(GetParam().length) + "\n");
}

TEST_F(StreamPuts, ManyLinesFillBlocksWithoutAGap)
{
    FileStream* stream = writing();
    std::string expected;
    for (std::size_t length = 0; length < 700; ++length) {
        puts(stream, letters(length));
        expected += letters(length) + "\n";
        ASSERT_EQ(sizeOnDisk(), (expected.size() - 1) / kStreamBlock * kStreamBlock) << length;
        ASSERT_EQ(stream->pending, (expected.size() - 1) % kStreamBlock + 1) << length;
        ASSERT_EQ(stream->cursor, stream->pending) << length;
    }
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), expected);
}

TEST_F(StreamPuts, WritesWholeBlocks)
{
    FileStream* stream = writing();
    resetCalls();
    puts(stream, letters(1600));
    EXPECT_THAT(writeSizes(), ElementsAre(512, 512, 512));
    rm_fileStreamClose(stream);
}

TEST_F(StreamPuts, InTheBlockMakesNoCall)
{
    FileStream* stream = writing();
    resetCalls();
    rm_fileStreamPuts(stream, "one");
    EXPECT_THAT(callTrace(), IsEmpty());
    rm_fileStreamClose(stream);
}

TEST_F(StreamPuts, InReadPlusModeReplacesTheFirstBytesOnly)
{
    writeFile(kPath, "0123456789");
    FileStream* stream = rm_fileStreamOpen(kPath, "r+");
    puts(stream, "abc");
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), "abc\n456789");
}

TEST_F(StreamPuts, StreamsThatParkEachOtherLoseNothing)
{
    fileHandleLimit = 1;
    FileStream* one = writing("one");
    FileStream* other = writing("other");
    std::string expected;
    for (int i = 0; i < 100; ++i) {
        puts(one, letters(60));
        puts(other, letters(60));
        expected += letters(60) + "\n";
    }
    rm_fileStreamClose(one);
    rm_fileStreamClose(other);
    EXPECT_EQ(readFile("one"), expected);
    EXPECT_EQ(readFile("other"), expected);
    EXPECT_GE(counts().reopens, 10U);
}

TEST_F(StreamPuts, DoesNotGrowTheFileAhead)
{
    rmDiskFull = 0;
    FileStream* stream = writing();
    puts(stream, letters(600));
    rm_fileStreamClose(stream);
    EXPECT_EQ(sizeOnDisk(), 601U);
}

// --- Closing

TEST_F(StreamClose, OfAStreamThatOnlyReadWritesNothing)
{
    for (const char* mode : {"r", "r+"}) {
        writeFile(kPath, linesUpTo(700, 50));
        FileStream* stream = rm_fileStreamOpen(kPath, mode);
        allLines(stream, 100);
        resetCalls();
        rm_fileStreamClose(stream);
        EXPECT_EQ(callCount(Call::kWrite), 0) << mode;
        EXPECT_EQ(readFile(kPath), linesUpTo(700, 50)) << mode;
    }
}

TEST_F(StreamClose, OfAStreamThatStandsInTheMiddleOfItsBlockWritesNothing)
{
    writeFile(kPath, "one\ntwo\n");
    FileStream* stream = rm_fileStreamOpen(kPath, "r+");
    gets(stream, 100);
    resetCalls();
    rm_fileStreamClose(stream);
    EXPECT_EQ(callCount(Call::kWrite), 0);
    EXPECT_EQ(readFile(kPath), "one\ntwo\n");
}

TEST_F(StreamClose, WithNothingPutWritesNothing)
{
    FileStream* stream = writing();
    resetCalls();
    rm_fileStreamClose(stream);
    EXPECT_EQ(callCount(Call::kWrite), 0);
    EXPECT_EQ(readFile(kPath), "");
}

TEST_F(StreamClose, GivesHandleDescriptorAndRecordBack)
{
    static_cast<void>(rm_allocTag(nullptr, RM_NO_LIMIT));
    const uint32_t allocated = rmalloc::tagTable[0].allocated;
    const std::size_t descriptors = rmtest::openDescriptors().size();
    FileStream* first = writing("first");
    FileStream* stream = writing();
    puts(stream, "text");
    rm_fileStreamClose(stream);
    EXPECT_EQ(file::usedEntry(1), nullptr);
    EXPECT_EQ(counts(), (Counts{1, 0, 0, 0}));
    rm_fileStreamClose(first);
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_EQ(rmalloc::tagTable[0].allocated, allocated);
    // The token file stays with the locks.
    EXPECT_EQ(rmtest::openDescriptors().size(), descriptors + 1);
}

TEST_F(StreamClose, IgnoresNull)
{
    resetCalls();
    rm_fileStreamClose(nullptr);
    EXPECT_THAT(callTrace(), IsEmpty());
}

TEST_F(StreamClose, BringsAParkedFileBackForTheRest)
{
    FileStream* stream = writing();
    puts(stream, letters(600));
    park(stream->handle);
    rm_fileStreamClose(stream);
    EXPECT_EQ(counts(), (Counts{0, 0, 1, 1}));
    EXPECT_EQ(readFile(kPath), letters(600) + "\n");
}

TEST_F(StreamClose, OfAParkedFileWithNothingToWriteDoesNotReopenIt)
{
    FileStream* stream = reading("one\n");
    park(stream->handle);
    rm_fileStreamClose(stream);
    EXPECT_EQ(counts(), (Counts{0, 0, 1, 0}));
}

// --- Lines of pieces

void putPieces(FileStream* stream, const std::vector<std::string_view>& pieces)
{
    rmutil::putLine(stream, std::span(pieces));
}

TEST_F(StreamPutLine, WritesThePiecesAndOneNewline)
{
    FileStream* stream = writing();
    putPieces(stream, {"key", "=", "value"});
    putPieces(stream, {"[", "section", "]"});
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), "key=value\n[section]\n");
}

TEST_F(StreamPutLine, OfNoPiecesIsAnEmptyLine)
{
    FileStream* stream = writing();
    putPieces(stream, {});
    putPieces(stream, {"", ""});
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), "\n\n");
}

TEST_F(StreamPutLine, WritesZeroBytesToo)
{
    FileStream* stream = writing();
    putPieces(stream, {std::string_view("a\0b", 3)});
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), std::string("a\0b\n", 4));
}

TEST_F(StreamPutLine, PiecesMayEndAnywhereAroundABlockBoundary)
{
    for (std::size_t length = 505; length <= 515; ++length) {
        const std::string first = letters(length) + "=";
        const std::string second = letters(1100);
        FileStream* stream = writing();
        putPieces(stream, {first, second, second});
        rm_fileStreamClose(stream);
        std::string expected = first;
        expected.append(second).append(second).append("\n");
        EXPECT_EQ(readFile(kPath), expected) << length;
    }
}

// --- Flushing

TEST_F(StreamFlush, WritesWhatIsPendingOnce)
{
    FileStream* stream = writing();
    puts(stream, "one");
    resetCalls();
    EXPECT_TRUE(rmutil::flushStream(stream));
    EXPECT_TRUE(rmutil::flushStream(stream));
    EXPECT_THAT(writeSizes(), ElementsAre(4));
    EXPECT_EQ(stream->pending, 0U);
    EXPECT_EQ(stream->cursor, 0U);
    EXPECT_EQ(readFile(kPath), "one\n");
    rm_fileStreamClose(stream);
}

TEST_F(StreamFlush, LaterLinesGoOnBehindIt)
{
    FileStream* stream = writing();
    puts(stream, "one");
    rmutil::flushStream(stream);
    puts(stream, letters(600));
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), "one\n" + letters(600) + "\n");
}

TEST_F(StreamFlush, WithNothingPendingWritesNothing)
{
    FileStream* stream = writing();
    resetCalls();
    EXPECT_TRUE(rmutil::flushStream(stream));
    EXPECT_EQ(callCount(Call::kWrite), 0);
    rm_fileStreamClose(stream);
}

}  // namespace
