// What the tests of the memory manager share: a way to draw a heap, and to read one.
//
// Why: placement is a promise, so most cases are a drawing before and a drawing after. A drawing
// lists the blocks of a tag from the low end of a segment to its high end, in units of 8 bytes with
// the header counted: "4 [2] 1 [3]" is a free block of 4, a live one of 2, a free one of 1 and a
// live one of 3. Segments follow in the order of their chain, with " | " between them.
//
// The drawing is read from the block headers themselves and not from the free chain, whose
// agreement with them is what checkMemory() tests after every case.
#ifndef RM_TESTS_RMALLOC_HEAP_H
#define RM_TESTS_RMALLOC_HEAP_H

#include "tests/support/faults.h"
#include "tests/support/support.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace rmtest
{

using Lines = std::vector<std::string>;

constexpr uint32_t kRecord = sizeof(rmalloc::TagRecord);
constexpr uint32_t kFirstTable = 40 * kRecord;  // bytes of a table as it is first made
constexpr uint32_t kHeader = 24;                // bytes of a segment before its data area
constexpr uint32_t kUnitBytes = 8;

// --- Reading a heap

inline std::vector<rmalloc::Segment*> segmentsOf(Tag tag)
{
    std::vector<rmalloc::Segment*> segments;
    for (rmalloc::Segment* s = rmalloc::tagTable[tag].segments; s != nullptr; s = s->next) {
        segments.push_back(s);
    }
    return segments;
}

// The drawing of one segment.
inline std::string drawing(const rmalloc::Segment* segment)
{
    std::ostringstream text;
    const auto* blocks = reinterpret_cast<const rmalloc::BlockHeader*>(segment + 1);
    for (uint32_t at = 0; at < segment->units;) {
        const rmalloc::BlockHeader& block = blocks[at];
        text << (at == 0 ? "" : " ");
        if (block.units == 0 || block.units > segment->units - at) {
            text << "damaged";
            break;
        }
        if (block.word1 == 0xFFEEDDCC) {
            text << '[' << block.units << ']';
        } else {
            text << block.units;
        }
        at += block.units;
    }
    return text.str();
}

// The drawing of a tag; empty when it owns no segment.
inline std::string layout(Tag tag)
{
    std::string text;
    for (const rmalloc::Segment* segment : segmentsOf(tag)) {
        text += (text.empty() ? "" : " | ") + drawing(segment);
    }
    return text;
}

inline uint32_t allocated(Tag tag)
{
    return rmalloc::tagTable[tag].allocated;
}

// All that can be seen of the heap, for calls that must change nothing.
inline std::string wholeHeap()
{
    std::ostringstream text;
    text << rm_memused() << " bytes, " << rmalloc::nTags << " of " << rmalloc::tagTabSize << '\n';
    for (Tag tag = 0; tag < rmalloc::nTags; ++tag) {
        const rmalloc::TagRecord& record = rmalloc::tagTable[tag];
        text << tag << ": state " << record.state << " limit " << record.limit << " allocated "
             << record.allocated << " segment size " << record.segmentSize << " name "
             << static_cast<const void*>(record.name) << ": " << layout(tag) << '\n';
    }
    return text.str();
}

// Bytes from the start of the tag's segment `n` to the pointer.
inline std::ptrdiff_t offsetInSegment(const void* pointer, Tag tag, std::size_t n = 0)
{
    return static_cast<const char*>(pointer) - reinterpret_cast<const char*>(segmentsOf(tag).at(n));
}

inline rmalloc::BlockHeader* headerBefore(void* pointer)
{
    return static_cast<rmalloc::BlockHeader*>(pointer) - 1;
}

// --- Drawing a heap

constexpr uint32_t bytesFor(uint32_t units)
{
    return (units - 1) * kUnitBytes;
}

struct Drawn {
    Tag tag = -1;
    std::vector<void*> live;  // from low to high, segment by segment
};

// Makes the heap of a drawing under `tag`, each segment exactly as large as what is drawn in it.
// Every segment needs a live block, and no two free ones may touch. Blocks are taken from the high
// end downward, all live at first, so that each has its place before the first one is freed.
inline Drawn draw(std::string_view text, Tag tag)
{
    struct Token {
        uint32_t units;
        bool live;
        void* pointer;
    };

    Drawn drawn;
    drawn.tag = tag;
    std::vector<Token> all;
    const uint32_t sizeBefore = rmalloc::tagTable[tag].segmentSize;
    std::istringstream words{std::string(text) + " |"};
    std::vector<Token> tokens;
    for (std::string word; words >> word;) {
        if (word != "|") {
            const bool live = word.front() == '[';
            tokens.push_back(
                {static_cast<uint32_t>(std::stoul(live ? word.substr(1) : word)), live, nullptr});
            continue;
        }
        uint32_t units = 0;
        for (const Token& token : tokens) {
            units += token.units;
        }
        rmalloc::tagTable[tag].segmentSize = units * kUnitBytes + kHeader;
        for (auto token = tokens.rbegin(); token != tokens.rend(); ++token) {
            token->pointer = rm_getMemory(bytesFor(token->units), tag);
            // Who reads a damaged heap comes by what the host has in its blocks.
            std::memset(token->pointer, 0xA5, bytesFor(token->units));
        }
        all.insert(all.end(), tokens.begin(), tokens.end());
        tokens.clear();
    }
    rmalloc::tagTable[tag].segmentSize = sizeBefore;
    for (const Token& token : all) {
        if (token.live) {
            drawn.live.push_back(token.pointer);
        } else {
            rm_freeMemory(token.pointer, tag);
        }
    }
    EXPECT_EQ(layout(tag), text) << "the heap could not be made as drawn";
    return drawn;
}

inline Drawn draw(std::string_view text)
{
    return draw(text, rm_allocTag(nullptr, RM_NO_LIMIT));
}

// --- Contents

// Blocks are filled with a row of bytes that repeats after 127, begun at another one for each seed:
// what has moved by whole units then differs, and no byte is one of the magic's.
constexpr std::size_t kPatternPeriod = 127;

inline const uint8_t* patternFrom(std::size_t start)
{
    static const std::vector<uint8_t> row = [] {
        std::vector<uint8_t> bytes(2 * kPatternPeriod);
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<uint8_t>(i % kPatternPeriod * 52 % kPatternPeriod);
        }
        return bytes;
    }();
    return row.data() + start % kPatternPeriod;
}

inline uint8_t patternByte(uint32_t seed, std::size_t at)
{
    return *patternFrom(seed + at);
}

inline void fill(void* pointer, std::size_t size, uint32_t seed, std::size_t from = 0)
{
    for (std::size_t at = from; at < size; at += kPatternPeriod) {
        std::memcpy(static_cast<char*>(pointer) + at, patternFrom(seed + at),
                    std::min(kPatternPeriod, size - at));
    }
}

inline bool holdsPattern(const void* pointer, std::size_t size, uint32_t seed)
{
    for (std::size_t at = 0; at < size; at += kPatternPeriod) {
        if (std::memcmp(static_cast<const char*>(pointer) + at, patternFrom(seed + at),
                        std::min(kPatternPeriod, size - at)) != 0) {
            return false;
        }
    }
    return true;
}

// --- Log lines

// %p and %08lX as the library prints them.
inline std::string pointerText(const void* pointer)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

inline std::string badPointer(const void* pointer)
{
    return "WARNING: attempting to free bad pointer, " + pointerText(pointer);
}

inline Lines notFound(Tag tag, const void* pointer)
{
    char text[64];
    std::snprintf(text, sizeof text, "tag = %d, freeHDR = %08lX", tag,
                  static_cast<unsigned long>(reinterpret_cast<uintptr_t>(pointer) - kUnitBytes));
    return {text, "WARNING: pointer not found within tag segments, " + pointerText(pointer)};
}

inline std::string corruptedChain(const void* pointer)
{
    return "WARNING: corrupted free chain searching for " + pointerText(pointer);
}

inline std::string invalidTag(int tag, std::string_view function)
{
    return "Invalid tag " + std::to_string(tag) + " supplied to " + std::string(function);
}

// What `body` logs. It must come back.
inline Lines linesOf(const std::function<void()>& body)
{
    return logLines(captureStderr(body));
}

// The last line of the fatal path of a process that has a target.
inline const char* const kShutdown = "Exiting to shutdown processing";

// The banner of the fatal path comes once per process, and so not in every case that could bring
// it.
inline Lines withoutBanner(Lines lines)
{
    std::erase_if(lines, [](const std::string& line) {
        return line.size() == 35 && line.front() == '*' && line.back() == '*';
    });
    return lines;
}

// What a `body` that ends fatally logs, without the banner.
inline Lines fatalLines(const std::function<void()>& body)
{
    int jumped = 0;
    Lines lines = withoutBanner(linesOf([&] { jumped = catchFatal(body); }));
    if (jumped != 1) {
        lines.emplace_back("(it came back)");
    }
    return lines;
}

inline Lines outOfMemory()
{
    return {"Out of memory!", kShutdown};
}

// --- Segments of the platform

// True while the trace still holds every call since the case began.
inline bool traceIsWhole()
{
    return callTrace().size() < 4096;
}

// What the library has got from the platform since the case began and not given back, by the trace:
// segments from malloc, with the maps of small ones; what is kept beside from calloc and
// aligned_alloc.
inline std::vector<int64_t> outstanding()
{
    std::vector<int64_t> held;
    for (const CallRecord& call :
         callTrace({Call::kMalloc, Call::kAlignedAlloc, Call::kCalloc, Call::kFree})) {
        if (call.call != Call::kFree) {
            if (call.result != 0) {
                held.push_back(call.result);
            }
        } else if (call.args[0] != 0) {
            const auto at = std::find(held.begin(), held.end(), call.args[0]);
            if (at == held.end()) {
                ADD_FAILURE() << "given back, but not held: " << call.args[0];
            } else {
                held.erase(at);
            }
        }
    }
    return held;
}

// --- The fixture

// Cases start without SEG_ALLOC, whatever the environment of the run says, and must leave a heap
// that is sound and goes back to the platform as a whole.
class HeapTest : public RmTest
{
  protected:
    void SetUp() override
    {
        unsetenv("SEG_ALLOC");
        seg_alloc = 0;
        rmemavail = RM_NO_LIMIT;
        RmTest::SetUp();
    }

    void TearDown() override
    {
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        rm_freeall();
        EXPECT_EQ(rm_memused(), drift_);
        rmalloc::memused = 0;
        if (traceIsWhole()) {
            EXPECT_TRUE(outstanding().empty()) << "memory of the platform is lost";
        }
        RmTest::TearDown();
    }

    // The case leaves this much in rm_memused: a segment size that is no multiple of 8 is counted
    // whole when the segment is got, and in units when it is given back.
    void expectDrift(uint32_t bytes) { drift_ = bytes; }

  private:
    uint32_t drift_ = 0;
};

}  // namespace rmtest

#endif
