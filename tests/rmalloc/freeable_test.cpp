// Whether a block can be given back without a line is known before it is tried: each word of a heap
// is written over, one at a time, and the answer compared with what rm_freeMemory() then does.
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <cstdint>
#include <string>

namespace
{
using rmtest::draw;
using rmtest::Drawn;
using rmtest::linesOf;
using rmtest::segmentsOf;

class Freeable : public rmtest::HeapTest
{
  protected:
    // The answer for the block, compared with what happens. The heap is gone then.
    static bool answerFor(void* pointer, Tag tag)
    {
        const bool answer = rmalloc::isFreeable(pointer, tag);
        const rmtest::Lines lines = linesOf([&] { rm_freeMemory(pointer, tag); });
        EXPECT_EQ(answer, lines.empty());
        rm_freeall();
        return answer;
    }
};

constexpr const char* kHeaps[] = {"[1] [3] 4 [1] 2 [2]", "3 [2] 2 [1] 5 [1]", "3 [2] [1] 5 [1]",
                                  "[2] 4 [1] 3", "[4]"};

// What may come to stand in a word: flags of blocks, links and counts, right and wrong.
const uint32_t kWords[] = {0, 1, 2, 3, 4, 5, 9, 10, 12, 13, 0xFFEEDDCC, 0x41414141, 0xFFFFFFFF};

// The words of the tag's first segment that the host can reach: the anchor's and all behind it.
uint32_t* wordOf(Tag tag, uint32_t number)
{
    return reinterpret_cast<uint32_t*>(&segmentsOf(tag)[0]->anchor) + number;
}

TEST_F(Freeable, IsWhatIsFreedWithoutALine)
{
    int freeable = 0;
    int refused = 0;
    for (const char* heap : kHeaps) {
        const Drawn first = draw(heap);
        const std::size_t blocks = first.live.size();
        const uint32_t words = 2 * (segmentsOf(first.tag)[0]->units + 1);
        rm_freeall();
        for (std::size_t block = 0; block < blocks; ++block) {
            for (uint32_t number = 0; number < words; ++number) {
                for (const uint32_t word : kWords) {
                    const Drawn drawn = draw(heap);
                    *wordOf(drawn.tag, number) = word;
                    SCOPED_TRACE(std::string(heap) + ", block " + std::to_string(block) +
                                 ", word " + std::to_string(number) + ": " + std::to_string(word));
                    const bool answer = answerFor(drawn.live[block], drawn.tag);
                    freeable += answer ? 1 : 0;
                    refused += answer ? 0 : 1;
                    if (HasFailure()) {
                        return;  // one report is enough
                    }
                }
            }
        }
    }
    EXPECT_GT(freeable, 0);
    EXPECT_GT(refused, 0);
}

TEST_F(Freeable, IsNoPointerThatIsNoBlockOfTheTag)
{
    static uint64_t outside[8];
    for (std::size_t way = 0; way < 6; ++way) {
        SCOPED_TRACE(way);
        const Drawn drawn = draw("[1] [3] 4 [1]");
        auto* block = static_cast<char*>(drawn.live[1]);
        const Tag other = rm_allocTag(nullptr, UINT32_MAX);
        const Tag released = rm_allocTag(nullptr, UINT32_MAX);
        rm_freeTagMemory(released, 1);
        void* const pointers[] = {block + 1, block + 8, &outside[4], block, block, block};
        const Tag tags[] = {drawn.tag, drawn.tag, drawn.tag, other, released, -1};
        EXPECT_FALSE(answerFor(pointers[way], tags[way]));
    }
}

TEST_F(Freeable, IsABlockThatIsASegmentOfItsOwn)
{
    seg_alloc = 1;
    const Tag tag = rm_allocTag(nullptr, UINT32_MAX);
    void* block = rm_getMemory(40, tag);
    EXPECT_TRUE(answerFor(block, tag));
    seg_alloc = 0;
}
}  // namespace
