// Lines whose buffer is no block of tag 0 any more when it has to change its size: the memory
// manager refuses, says so, and the buffer stays what and where it is.
#include "tests/rmutil/textstream_case.h"

using namespace streamtest;

namespace
{
using rmutil::kLineStep;
using rmutil::LineContext;

class LineBufferLost : public StreamTest
{
  protected:
    void SetUp() override
    {
        StreamTest::SetUp();
        std::memset(buffer_, 'b', sizeof(buffer_));
    }

    Lines refused() const
    {
        char text[64];
        std::snprintf(text, sizeof(text), "WARNING: attempting to free bad pointer, %p",
                      static_cast<const void*>(buffer_));
        return {text};
    }

    // Not a block of the memory manager's.
    alignas(16) char buffer_[4 * kLineStep] = {};
};

// Lines in the block make the buffer's size grow, though none of them stands in it. The line that
// does not end in the block needs the room.
TEST_F(LineBufferLost, EndsTheLinesWhereOneNeedsMoreRoom)
{
    const std::string first = lineOf(150);
    const std::string second = lineOf(300);
    FileStream* stream = reading(first + second + lineOf(200));
    LineContext context = {stream, buffer_, kLineStep, kLineStep, nullptr};
    // The first one comes through the buffer, as every line does at the start of a block.
    LineContext own = rmutil::linesOf(stream);
    std::string_view line;
    ASSERT_TRUE(rmutil::nextLine(&own, &line));
    EXPECT_EQ(std::string(line) + "\n", first);
    ASSERT_TRUE(rmutil::nextLine(&context, &line));
    EXPECT_EQ(std::string(line) + "\n", second);
    EXPECT_EQ(context.size, 4 * kLineStep);
    EXPECT_EQ(context.capacity, kLineStep);

    bool found = true;
    EXPECT_EQ(linesOf([&] { found = rmutil::nextLine(&context, &line); }), refused());
    EXPECT_FALSE(found);
    EXPECT_EQ(context.buffer, buffer_);
    EXPECT_EQ(context.size, kLineStep) << "no more than it has";
    EXPECT_EQ(std::string(buffer_, sizeof(buffer_)), std::string(sizeof(buffer_), 'b'));
    rm_freeMemory(own.buffer, 0);
    rm_fileStreamClose(stream);
}

TEST_F(LineBufferLost, KeepsWhatItHasTooMuchOf)
{
    char* home = nullptr;
    LineContext context = {nullptr, buffer_, kLineStep, 4 * kLineStep, &home};
    EXPECT_EQ(linesOf([&] { rmutil::finishLines(&context); }), refused());
    EXPECT_EQ(context.buffer, buffer_);
    EXPECT_EQ(context.capacity, kLineStep) << "more is not promised";
    EXPECT_EQ(home, buffer_);
    EXPECT_EQ(std::string(buffer_, sizeof(buffer_)), std::string(sizeof(buffer_), 'b'));
}

// The header of the caller's block was written over before the line needs more of it.
TEST_F(LineBufferLost, OfACallerEndsTheLineAndStaysTheCallers)
{
    FileStream* stream = reading(lineOf(700));
    LineBuffer lines(kLineStep);
    rmalloc::BlockHeader* header = rmalloc::headerOf(lines.buffer);
    const rmalloc::BlockHeader sound = *header;
    char* const before = lines.buffer;
    header->word1 = 0;
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(lines.next(stream), Line()); }),
                ElementsAre(::testing::StartsWith("WARNING: attempting to free bad pointer, ")));
    *header = sound;
    EXPECT_EQ(lines.buffer, before);
    EXPECT_EQ(lines.size, kLineStep);
    rm_fileStreamClose(stream);
}

}  // namespace
