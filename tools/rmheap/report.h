// A memory report as a log holds it. Plain data; what a line did not say is not there.
#ifndef RMHEAP_REPORT_H
#define RMHEAP_REPORT_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace rmheap
{

constexpr uint64_t kUnit = 8;            // bytes: a block header, and what sizes are multiples of
constexpr uint64_t kSegmentHeader = 24;  // bytes between the address of a segment and its data
constexpr int kNoTag = INT_MIN;          // the number of a tag whose first line is missing

struct Count {
    uint64_t bytes;
    uint64_t blocks;
};

struct Block {
    uint64_t address;  // of the header
    uint32_t size;     // bytes, header included
    bool used;
};

struct Segment {
    uint64_t address = 0;
    uint64_t size = 0;    // bytes of the data area
    bool headed = false;  // the line with its address and size was there
    std::optional<Count> used;
    std::optional<Count> free;
    std::size_t firstBlock = 0;  // in Report::blocks
    std::size_t lastBlock = 0;   // behind the last one
};

// The line of a tag in the summary table.
struct Row {
    Count used;
    Count free;
    uint64_t segments;  // in that of the totals: tags
};

struct Tag {
    int number = kNoTag;
    std::string name;              // printable UTF-8
    bool headed = false;           // the detail line was there
    bool cut = false;              // a line of it was longer than a log can have
    std::optional<int64_t> limit;  // bytes, -1 for none
    std::optional<uint64_t> kept;  // allocated bytes, as the record of the tag has them
    std::optional<Count> used;
    std::optional<Count> free;
    std::optional<uint64_t> segmentCount;
    std::optional<Row> row;
    std::vector<Segment> segments;
};

enum class Mismatch { kSegmentBlocks, kSegmentBytes, kTagBytes, kChain };

// Where the library says that what it has counted is not what it has found, or that a segment does
// not lead to the next one.
struct Warning {
    Mismatch kind;
    int tag;           // kNoTag: not said
    uint64_t segment;  // address; 0: not said
    uint64_t stored;
    uint64_t found;
};

struct Report {
    std::size_t number = 0;  // in the log, from 1
    std::string file;
    uint64_t line = 0;        // of the first line, from 1
    std::string time;         // as stamped; empty without a stamp
    std::string title;        // printable UTF-8
    bool headed = false;      // the heading was there
    bool ended = false;       // the closing line was there
    bool anything = false;    // there was a line between the two
    bool table = false;       // the summary table was there, or began
    bool freeListed = false;  // a free block was listed
    bool blocksListed = false;
    std::vector<Tag> tags;
    std::vector<Block> blocks;
    std::optional<Count> used;
    std::optional<Count> free;
    std::optional<uint64_t> tagCount;
    std::optional<Row> row;
    std::vector<Warning> warnings;
    uint64_t moreWarnings = 0;  // that were not kept
    uint64_t unreadable = 0;    // lines that are cut or damaged
    uint64_t misplaced = 0;     // lines that stand twice, or where they do not belong
    uint64_t notKept = 0;       // lines of tags, segments and blocks beyond what is kept
};

inline bool isComplete(const Report& report)
{
    return report.headed && report.ended;
}

}  // namespace rmheap

#endif
