// Random files read and written by text streams, call by call beside a model of their own.
//
// The same run every time; RM_TEST_SEED makes another one, RM_TEST_OPERATIONS makes it longer or
// shorter.
#include "tests/models/textstream_model.h"
#include "tests/rmutil/textstream_case.h"

#include <cstdlib>
#include <random>

using namespace streamtest;

namespace
{

using rmtest::TextReaderModel;
using rmtest::TextWriterModel;
using rmutil::LineContext;

#ifdef __SANITIZE_ADDRESS__
constexpr long kOperations = 80'000;  // each costs several times as much
#else
constexpr long kOperations = 800'000;
#endif

class StreamRandom : public StreamTest
{
  protected:
    uint32_t below(uint32_t bound)
    {
        return std::uniform_int_distribution<uint32_t>(0, bound - 1)(random_);
    }

    bool oneIn(uint32_t n) { return below(n) == 0; }

    // The length of a line: mostly short, sometimes around a block or a step, sometimes long.
    std::size_t lengthOfLine()
    {
        switch (below(24)) {
            case 0:
                return 490 + below(40);
            case 1:
                return 90 + below(20);
            case 2:
                return below(kLongest);
            case 3:
                return 0;
            default:
                return below(50);
        }
    }

    std::string line(bool zeros)
    {
        const std::size_t length = lengthOfLine();
        std::string text = bytes_.substr(below(kPool - kLongest), length);
        if (zeros && !text.empty() && oneIn(200)) {
            text[below(static_cast<uint32_t>(text.size()))] = '\0';
        }
        return text;
    }

    // Bytes for a file. The last line may lack its newline, and the whole may end with a block.
    std::string contents(bool zeros)
    {
        std::string text;
        for (uint32_t lines = oneIn(2) ? below(20) : below(600); lines > 0; --lines) {
            text += line(zeros) + "\n";
        }
        if (oneIn(3)) {
            text += line(zeros);
        }
        if (oneIn(4) && !text.empty()) {
            text.resize((text.size() / kStreamBlock + 1) * kStreamBlock, 'x');
            text.back() = oneIn(2) ? '\n' : 'y';
        }
        return text;
    }

    int32_t size()
    {
        switch (below(8)) {
            case 0:
                return static_cast<int32_t>(below(4));
            case 1:
                return static_cast<int32_t>(505 + below(20));
            case 2:
                return static_cast<int32_t>(below(2000));
            default:
                return static_cast<int32_t>(2 + below(120));
        }
    }

  private:
    static constexpr uint32_t kPool = 1U << 16;
    static constexpr uint32_t kLongest = 1500;

    // Bytes to cut lines from, all but newlines and zeros.
    std::string pool()
    {
        std::string text(kPool, '\0');
        for (char& byte : text) {
            byte = static_cast<char>(1 + below(255));
            byte = byte == '\n' ? 'z' : byte;
        }
        return text;
    }

    std::mt19937_64 random_{rmtest::seedOfThisRun()};
    const std::string bytes_ = pool();
};

// One file, read by both.
struct Readers {
    Readers(FileStream* opened, const std::string& text)
        : stream(opened), model(text), context(rmutil::linesOf(opened))
    {
    }

    FileStream* stream;
    TextReaderModel model;
    LineBuffer own;        // of a caller who keeps his buffer
    uint32_t ownSize = 0;  // that the model keeps for it
    LineContext context;   // of the INI files
    uint32_t contextSize = rmutil::kLineStep;
    int ends = 0;  // calls that gave nothing
};

bool sameGets(Readers* readers, int32_t size)
{
    const TextReaderModel::Piece expected = readers->model.gets(size);
    Guarded buffer(static_cast<std::size_t>(std::max(size, 0)));
    const bool found = rm_fileStreamGets(readers->stream, buffer.data(), size) != nullptr;
    readers->ends += expected.found ? 0 : 1;
    const bool wrote = size > 0 && (expected.found || !expected.bytes.empty());
    // What has been taken is terminated, and nothing is written behind that.
    return found == expected.found && buffer.intact() &&
           (wrote ? expected.bytes == buffer.data() : buffer.written() == 0) &&
           buffer.written() <= expected.bytes.size() + 1;
}

bool sameGetLine(Readers* readers)
{
    const TextReaderModel::Line expected = readers->model.getLine(readers->ownSize);
    readers->ownSize = expected.size;
    readers->ends += expected.found ? 0 : 1;
    const char* line =
        rm_fileStreamGetLine(readers->stream, &readers->own.buffer, &readers->own.size);
    return (line != nullptr) == expected.found && (line == nullptr || expected.bytes == line) &&
           readers->own.size == expected.size &&
           readers->own.units() == rmalloc::unitsFor(expected.size);
}

bool sameNextLine(Readers* readers)
{
    TextReaderModel::Line expected = readers->model.getLine(readers->contextSize);
    readers->contextSize = expected.size;
    readers->ends += expected.found ? 0 : 1;
    if (expected.bytes.ends_with('\n')) {
        expected.bytes.pop_back();
    }
    std::string_view line;
    const bool found = rmutil::nextLine(&readers->context, &line);
    return found == expected.found && (!found || line == expected.bytes) &&
           readers->context.size == expected.size;
}

TEST_F(StreamRandom, ReadersGiveWhatTheModelGives)
{
    const long operations = rmtest::operationsOfThisRun(kOperations);
    long done = 0;
    for (int round = 0; done < operations; ++round) {
        const std::string text = contents(oneIn(3));
        FileStream* stream = reading(text);
        const uint32_t kind = below(4);  // one reader alone, or all of them in turn
        {
            Readers readers(stream, text);
            // A few calls beyond the end, behind which the file sometimes grows.
            for (; readers.ends < 5; ++done) {
                bool same = false;
                const uint32_t which = kind < 3 ? kind : below(3);
                if (which == 0) {
                    same = sameGets(&readers, size());
                } else {
                    same = which == 1 ? sameGetLine(&readers) : sameNextLine(&readers);
                }
                ASSERT_TRUE(same) << "seed " << rmtest::seedOfThisRun() << ", round " << round
                                  << ", call " << done << ", reader " << which;
                if (oneIn(200)) {
                    const std::string more = line(false) + "\n";
                    append(more);
                    readers.model.grow(more);
                }
            }
            rmutil::finishLines(&readers.context);
            rm_freeMemory(readers.context.buffer, 0);
        }
        rm_fileStreamClose(stream);
    }
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

TEST_F(StreamRandom, WholeLinesAreEveryByteOfTheFile)
{
    for (int round = 0; round < 500; ++round) {
        std::string text = contents(true);
        FileStream* stream = reading(text);
        LineContext lines = rmutil::linesOf(stream);
        std::string again;
        std::string_view line;
        while (rmutil::nextWhole(&lines, &line)) {
            again.append(line);
            again += '\n';
        }
        if (!text.empty() && !text.ends_with('\n')) {
            text += '\n';
        }
        ASSERT_TRUE(again == text) << "seed " << rmtest::seedOfThisRun() << ", round " << round;
        ASSERT_FALSE(stream->failed);
        rm_freeMemory(lines.buffer, 0);
        rm_fileStreamClose(stream);
    }
}

TEST_F(StreamRandom, WritersLeaveWhatTheModelLeaves)
{
    const long operations = rmtest::operationsOfThisRun(kOperations) / 4;
    long done = 0;
    for (int round = 0; done < operations; ++round) {
        std::filesystem::remove(kPath);
        FileStream* stream = writing();
        TextWriterModel model;
        for (uint32_t lines = 1 + below(400); lines > 0; --lines, ++done) {
            const std::string text = line(false);
            ASSERT_EQ(puts(stream, text), text.size());
            model.puts(text);
            ASSERT_EQ(stream->pending, model.pending().size());
            ASSERT_EQ(stream->cursor, model.pending().size());
            ASSERT_EQ(std::string_view(stream->buffer, stream->pending), model.pending());
            ASSERT_EQ(rm_fileLength(stream->handle), model.file().size());
            if (oneIn(100)) {
                park(stream->handle);
            }
        }
        rm_fileStreamClose(stream);
        ASSERT_TRUE(readFile(kPath) == model.whole())
            << "seed " << rmtest::seedOfThisRun() << ", round " << round;
    }
}

}  // namespace
