// What a report says, put together.
//
// Why: a report can hold the same figure in several places, and in none, as the flags were that it
// was asked for with. A figure is taken from the line that says it, added up from lines that must
// all be there, or it is not known; nothing is guessed.
//
// Sums of a report are kept in 32 bits by whoever writes it: they are compared modulo 2^32.
#include "figures.h"

#include "text.h"
#include "warnings.h"

#include <algorithm>
#include <cmath>

namespace rmheap
{
namespace
{
constexpr std::size_t kMostFindings = 50;

// A sum of which one part may not be known.
struct Sum {
    Figure value = uint64_t{0};

    void add(const Figure& part) { value = value && part ? Figure(*value + *part) : Figure(); }
};

void add(Figures& sum, const Figures& part)
{
    const auto join = [](Figure& to, const Figure& from) {
        to = to && from ? Figure(*to + *from) : Figure();
    };
    join(sum.bytes, part.bytes);
    join(sum.blocks, part.blocks);
    join(sum.segments, part.segments);
    join(sum.free, part.free);
    join(sum.freeBlocks, part.freeBlocks);
    if (sum.largest && part.largest) {
        sum.largest = std::max(*sum.largest, *part.largest);
    } else {
        sum.largest.reset();
    }
}

constexpr Figures kZero = {0, 0, 0, 0, 0, 0};

// Of one free block the size is known, and of none.
void deriveLargest(Figures& figures)
{
    if (!figures.largest && figures.free && figures.freeBlocks && *figures.freeBlocks <= 1) {
        figures.largest = figures.free;
    }
}

Figures figuresOf(const Report& report, const Segment& segment)
{
    Figures figures;
    figures.segments = 1;
    if (segment.used) {
        figures.bytes = segment.used->bytes;
        figures.blocks = segment.used->blocks;
    }
    if (segment.free) {
        figures.free = segment.free->bytes;
        figures.freeBlocks = segment.free->blocks;
    }
    if (segment.lastBlock > segment.firstBlock && segment.headed) {
        const SegmentPieces pieces = piecesOf(report, segment);
        figures.bytes = figures.bytes ? figures.bytes : pieces.used.bytes;
        figures.blocks = figures.blocks ? figures.blocks : pieces.used.blocks;
        figures.free = figures.free ? figures.free : pieces.free.bytes;
        figures.freeBlocks = figures.freeBlocks ? figures.freeBlocks : pieces.free.blocks;
        figures.largest = pieces.largestFree;
    }
    deriveLargest(figures);
    return figures;
}

// What the lines of the tag itself say goes before what its segments add up to.
Figures figuresOf(const Report& report, const Tag& tag)
{
    Figures figures;
    if (!tag.segments.empty() || tag.headed) {
        figures = kZero;
        for (const Segment& segment : tag.segments) {
            add(figures, figuresOf(report, segment));
        }
    }
    const Row* row = tag.row ? &*tag.row : nullptr;
    if (tag.used || row != nullptr) {
        const Count used = tag.used ? *tag.used : row->used;
        figures.bytes = used.bytes;
        figures.blocks = used.blocks;
    } else if (tag.headed && tag.segments.empty() && tag.kept != uint64_t{0}) {
        figures = {};  // the list of its segments is missing
        figures.bytes = tag.kept;
    }
    if (tag.free || row != nullptr) {
        const Count free = tag.free ? *tag.free : row->free;
        figures.free = free.bytes;
        figures.freeBlocks = free.blocks;
    }
    if (tag.segmentCount || row != nullptr) {
        figures.segments = tag.segmentCount ? *tag.segmentCount : row->segments;
    }
    if (!tag.headed && tag.segments.empty()) {
        figures.largest.reset();
    }
    deriveLargest(figures);
    return figures;
}

Figures totalOf(const Report& report, const std::vector<Figures>& tags)
{
    Figures total;
    if (!report.tags.empty()) {
        total = kZero;
        for (const Figures& figures : tags) {
            add(total, figures);
        }
    }
    if (report.used || report.row) {
        const Count used = report.used ? *report.used : report.row->used;
        total.bytes = used.bytes;
        total.blocks = used.blocks;
    }
    if (report.free || report.row) {
        const Count free = report.free ? *report.free : report.row->free;
        total.free = free.bytes;
        total.freeBlocks = free.blocks;
    }
    deriveLargest(total);
    return total;
}

// Where the walk over the blocks of a segment is.
struct Walk {
    SegmentPieces* to = nullptr;
    PieceKind between = PieceKind::kFree;  // what lies between two lines of blocks
    uint64_t offset = 0;
    uint64_t empty = 0;             // blocks of 0 bytes
    uint64_t beyond = 0;            // blocks that leave the segment
    uint64_t overlaps = 0;          // blocks that begin before the end of another
    uint64_t touching = 0;          // free blocks that have not been merged
    uint64_t holes = 0;             // between blocks that should touch
    const Block* before = nullptr;  // the block before the one that is looked at
    std::string first;              // where the first trouble is
};

void addPiece(Walk& walk, uint64_t size, PieceKind kind)
{
    if (size == 0) {
        return;
    }
    walk.to->pieces.push_back({walk.offset, size, kind});
    walk.offset += size;
    if (kind == PieceKind::kFree) {
        walk.to->free.bytes += size;
        ++walk.to->free.blocks;
        walk.to->largestFree = std::max(walk.to->largestFree, size);
    }
}

std::string textOf(const Block& block)
{
    return std::string(block.used ? "the used block of " : "the free block of ") +
           counted(block.size, "byte") + " at " + hexadecimal(block.address);
}

void count(Walk& walk, const Block& block, uint64_t& trouble)
{
    ++trouble;
    if (walk.first.empty()) {
        walk.first = "first at " + hexadecimal(block.address) +
                     (walk.before != nullptr ? ", behind " + textOf(*walk.before) : "");
    }
}

// Places a block that lies in the segment.
void placeBlock(Walk& walk, const Block& block)
{
    uint64_t offset = block.address - walk.to->start;
    // The walk of the library goes on with the next unit behind a header without a size.
    uint64_t size = block.size == 0 ? kUnit : block.size;
    if (block.size == 0) {
        count(walk, block, walk.empty);
    }
    if (size > walk.to->size - offset) {
        count(walk, block, walk.beyond);
        size = walk.to->size - offset;
    }
    if (offset < walk.offset) {
        count(walk, block, walk.overlaps);
        size -= std::min(size, walk.offset - offset);
        offset = walk.offset;
    }
    if (offset > walk.offset && walk.between == PieceKind::kLost) {
        count(walk, block, walk.holes);
    }
    const bool free = !block.used && block.size != 0;
    if (free && offset == walk.offset && !walk.to->pieces.empty() &&
        walk.to->pieces.back().kind == PieceKind::kFree) {
        count(walk, block, walk.touching);
    }
    addPiece(walk, offset - walk.offset, walk.between);
    addPiece(walk, size,
             block.size == 0 ? PieceKind::kLost
             : block.used    ? PieceKind::kUsed
                             : PieceKind::kFree);
}

void takeBlock(Walk& walk, const Block& block)
{
    const uint64_t data = walk.to->start;
    const bool anchor = block.size == 0 && !block.used && block.address == data - kUnit;
    if (anchor) {
        return;
    }
    if (block.used) {
        walk.to->used.bytes += block.size;
        ++walk.to->used.blocks;
    }
    if (block.address < data || block.address - data >= walk.to->size) {
        count(walk, block, walk.beyond);
    } else {
        placeBlock(walk, block);
    }
    walk.before = &block;
}

std::string troubleOf(const Walk& walk)
{
    std::string text;
    const auto say = [&text](uint64_t count, std::string_view thing, const char* one,
                             const char* several) {
        if (count != 0) {
            text +=
                (text.empty() ? "" : ", ") + counted(count, thing) + (count == 1 ? one : several);
        }
    };
    say(walk.empty, "block", " of 0 bytes", " of 0 bytes");
    say(walk.beyond, "block", " reaches out of it", " reach out of it");
    say(walk.overlaps, "block", " overlaps the one before", " overlap the one before");
    say(walk.touching, "free block", " touches another", " touch others");
    say(walk.holes, "hole", " between blocks", " between blocks");
    return walk.first.empty() || text.empty() ? text : text + "; " + walk.first;
}
}  // namespace

std::optional<double> fragmentation(const Figures& figures)
{
    if (!figures.free || !figures.largest) {
        return {};
    }
    if (*figures.free == 0 || *figures.largest >= *figures.free) {
        return 0;
    }
    return 1 - static_cast<double>(*figures.largest) / static_cast<double>(*figures.free);
}

std::string percent(const std::optional<double>& share)
{
    if (!share) {
        return "-";
    }
    const double least = *share > 0 ? 1 : 0;
    const double most = *share < 1 ? 99 : 100;
    return std::to_string(std::lround(std::clamp(*share * 100, least, most))) + "%";
}

SegmentPieces piecesOf(const Report& report, const Segment& segment)
{
    SegmentPieces result;
    const auto* begin = report.blocks.data() + segment.firstBlock;
    const auto* end = report.blocks.data() + segment.lastBlock;
    result.size = segment.size;
    result.start = segment.address + kSegmentHeader;
    result.listed = report.blocksListed;
    if (!segment.headed && begin != end) {
        // Its beginning is missing: as far as its blocks show it. The first may be the anchor.
        result.start = begin->address + (begin->size == 0 && !begin->used ? kUnit : 0);
        const Block& last = *(end - 1);
        const uint64_t length = last.address - result.start;
        result.size = last.address >= result.start && length < UINT32_MAX ? length + last.size : 0;
    }
    if (!result.listed) {
        return result;
    }
    Walk walk;
    walk.to = &result;
    walk.between = report.freeListed ? PieceKind::kLost : PieceKind::kFree;
    std::for_each(begin, end, [&walk](const Block& block) { takeBlock(walk, block); });
    // A report that was cut in the middle of the segment says nothing of the rest.
    const bool cut = !segment.used && !report.ended;
    walk.holes += !cut && walk.between == PieceKind::kLost && walk.offset < result.size ? 1 : 0;
    addPiece(walk, result.size - walk.offset, cut ? PieceKind::kLost : walk.between);
    result.trouble = cut ? "" : troubleOf(walk);
    return result;
}

std::string nameOf(const Tag& tag)
{
    if (tag.number == kNoTag) {
        return "a tag whose first lines are missing";
    }
    return "tag " + std::to_string(tag.number) + (tag.name.empty() ? "" : " (" + tag.name + ")");
}

std::string nameOf(const Report& report, int tag)
{
    const auto found = std::ranges::find(report.tags, tag, &Tag::number);
    return found != report.tags.end() ? nameOf(*found) : "tag " + std::to_string(tag);
}

void Findings::add(std::string text)
{
    if (texts.size() < kMostFindings) {
        texts.push_back(std::move(text));
    } else {
        ++more;
    }
}

Analysis analyse(const Report& report)
{
    Analysis analysis;
    for (const Tag& tag : report.tags) {
        analysis.tags.push_back(figuresOf(report, tag));
    }
    analysis.total = totalOf(report, analysis.tags);
    analysis.tagCount = report.tagCount;
    if (!analysis.tagCount && report.row) {
        analysis.tagCount = report.row->segments;
    }
    if (!analysis.tagCount && !report.tags.empty()) {
        analysis.tagCount = report.tags.size();
    }
    findDamage(report, analysis);
    findDoubts(report, analysis);
    describe(report, analysis);
    analysis.status = !analysis.damage.empty() ? 3 : !analysis.doubts.empty() ? 4 : 0;
    return analysis;
}

}  // namespace rmheap
