// One line of a log: its stamp, and what it says in a memory report.
#ifndef RMHEAP_LINE_H
#define RMHEAP_LINE_H

#include <cstdint>
#include <string_view>

namespace rmheap
{

enum class Kind {
    kOther,  // none of a report
    kHeading,
    kTableHeading,
    kTagHead,      // tag, name, limit, first: allocated
    kTagRow,       // tag, name, first to fifth
    kSegment,      // address, first: size
    kBlock,        // address, first: size, tag, used
    kSegmentUsed,  // first: bytes, second: blocks
    kTagUsed,
    kTotalUsed,
    kFree,           // of a segment, a tag or everything: what stands before tells
    kTagSegments,    // first
    kTagCount,       // first
    kTotalRow,       // first to fifth
    kBlockMismatch,  // first: stored, second: found
    kUnitMismatch,
    kByteMismatch,
    kChainBroken,  // tag, address of the segment
    kDone,
    kTagBroken,  // tag, name: a line of a tag without its end
};

struct Line {
    Kind kind = Kind::kOther;
    int tag = 0;
    std::string_view name;  // with the blanks that fill it up taken off
    int64_t limit = 0;
    uint64_t address = 0;
    uint64_t first = 0;
    uint64_t second = 0;
    uint64_t third = 0;
    uint64_t fourth = 0;
    uint64_t fifth = 0;
    bool used = false;
};

// What a message says.
Line classify(std::string_view message);

struct Message {
    std::string_view text;
    std::string_view time;  // what the brackets hold; empty without a stamp
};

// A line of a log without its stamp, without what was put before the stamp by others, and without
// its end.
Message messageOf(std::string_view line);

}  // namespace rmheap

#endif
