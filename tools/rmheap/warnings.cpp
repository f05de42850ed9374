// What is wrong with a heap, or with the report on it.
//
// Why: the library counts while it reports and says where the heap is damaged; that is the first
// thing to know. What a report says twice is compared besides: lines that are lost, or those of two
// reports that were written at the same time, look like a heap and are none.
#include "warnings.h"

#include "text.h"

#include <algorithm>

namespace rmheap
{
namespace
{
constexpr uint64_t kModulus = uint64_t{1} << 32;

bool differ(uint64_t a, uint64_t b)
{
    return a % kModulus != b % kModulus;
}

// Compares what is said in two places, where it is said in both.
void compare(Findings& doubts, const std::string& what, const std::string& firstSays,
             const Figure& first, const std::string& secondSays, const Figure& second)
{
    if (first && second && differ(*first, *second)) {
        doubts.add(what + ": " + firstSays + " " + grouped(*first) + ", " + secondSays + " " +
                   grouped(*second));
    }
}

Figure bytesOf(const std::optional<Count>& count)
{
    return count ? Figure(count->bytes) : Figure();
}

Figure blocksOf(const std::optional<Count>& count)
{
    return count ? Figure(count->blocks) : Figure();
}

void compareCounts(Findings& doubts, const std::string& what, const std::string& firstSays,
                   const std::optional<Count>& first, const std::string& secondSays,
                   const std::optional<Count>& second)
{
    compare(doubts, what + " bytes", firstSays, bytesOf(first), secondSays, bytesOf(second));
    compare(doubts, what + " blocks", firstSays, blocksOf(first), secondSays, blocksOf(second));
}

// Whether the library itself has found something wrong with the tag.
bool isDamaged(const Report& report, const Tag& tag)
{
    return std::ranges::any_of(report.warnings, [&tag](const Warning& warning) {
        return warning.tag == tag.number || warning.tag == kNoTag;
    });
}

std::string placeOf(const Tag& tag, const Segment& segment)
{
    return nameOf(tag) + ", segment " + hexadecimal(segment.address);
}

void checkSegment(const Report& report, const Tag& tag, const Segment& segment, bool damaged,
                  Analysis& analysis)
{
    Findings& doubts = analysis.doubts;
    const std::string place = placeOf(tag, segment);
    const SegmentPieces pieces = piecesOf(report, segment);
    if (!pieces.trouble.empty()) {
        // In a damaged tag it shows where the damage is.
        (damaged ? analysis.damage : doubts).add(place + ": " + pieces.trouble);
    }
    if (!segment.headed && report.headed) {
        doubts.add(place + ": its first line is missing");
    }
    if (report.blocksListed) {
        compareCounts(doubts, place + ", used", "its lines add up to", pieces.used,
                      "its summary says", segment.used);
        if (report.freeListed && pieces.trouble.empty()) {
            compareCounts(doubts, place + ", free", "its lines add up to", pieces.free,
                          "its summary says", segment.free);
        }
    }
    // Where these differ the library has said so.
    if (!damaged && segment.headed && segment.used && segment.free) {
        compare(doubts, place, "used and free bytes make up",
                segment.used->bytes + segment.free->bytes, "its size is", segment.size);
    }
}

std::optional<Count> sumOf(const Tag& tag, std::optional<Count> Segment::*member)
{
    Count sum = {};
    for (const Segment& segment : tag.segments) {
        if (!(segment.*member)) {
            return {};
        }
        sum.bytes += (segment.*member)->bytes;
        sum.blocks += (segment.*member)->blocks;
    }
    return sum;
}

void checkTag(const Report& report, const Tag& tag, Analysis& analysis)
{
    Findings& doubts = analysis.doubts;
    const bool damaged = isDamaged(report, tag);
    for (const Segment& segment : tag.segments) {
        checkSegment(report, tag, segment, damaged, analysis);
    }
    const std::string name = nameOf(tag);
    if (!tag.headed && !tag.cut && (tag.used || !tag.segments.empty()) && report.headed) {
        doubts.add(name + ": its first line is missing");
    }
    if (tag.headed) {
        compareCounts(doubts, name + ", used", "its segments add up to", sumOf(tag, &Segment::used),
                      "its total says", tag.used);
        compareCounts(doubts, name + ", free", "its segments add up to", sumOf(tag, &Segment::free),
                      "its total says", tag.free);
        compare(doubts, name + ", segments", "listed are", tag.segments.size(), "its total says",
                tag.segmentCount);
    }
    if (tag.row) {
        compareCounts(doubts, name + ", used", "its total says", tag.used, "the table says",
                      tag.row->used);
        compareCounts(doubts, name + ", free", "its total says", tag.free, "the table says",
                      tag.row->free);
        compare(doubts, name + ", segments", "its total says", tag.segmentCount, "the table says",
                tag.row->segments);
    }
    if (!damaged) {
        compare(doubts, name + ", used bytes", "its record says", tag.kept, "its total says",
                bytesOf(tag.used));
    }
}

// The sums over all tags against the totals; not where tags are missing.
void checkTotals(const Report& report, const Analysis& analysis, Findings& doubts)
{
    if (report.tags.empty()) {
        return;
    }
    Figures sum = {0, 0, 0, 0, 0, 0};
    const auto join = [](Figure& to, const Figure& from) {
        to = to && from ? Figure(*to + *from) : Figure();
    };
    for (const Figures& figures : analysis.tags) {
        join(sum.bytes, figures.bytes);
        join(sum.blocks, figures.blocks);
        join(sum.free, figures.free);
        join(sum.freeBlocks, figures.freeBlocks);
    }
    const auto against = [&](const std::string& says, const Count& used, const Count& free,
                             bool hasFree) {
        compare(doubts, "total, used bytes", "the tags add up to", sum.bytes, says, used.bytes);
        compare(doubts, "total, used blocks", "the tags add up to", sum.blocks, says, used.blocks);
        if (hasFree) {
            compare(doubts, "total, free bytes", "the tags add up to", sum.free, says, free.bytes);
            compare(doubts, "total, free blocks", "the tags add up to", sum.freeBlocks, says,
                    free.blocks);
        }
    };
    if (report.used) {
        against("the total says", *report.used, report.free ? *report.free : Count{},
                report.free.has_value());
    }
    if (report.row) {
        against("the table's total says", report.row->used, report.row->free, true);
        compare(doubts, "tags", "listed are", report.tags.size(), "the table's total says",
                report.row->segments);
    }
    compare(doubts, "tags", "listed are", report.tags.size(), "the total says", report.tagCount);
}
}  // namespace

void findDamage(const Report& report, Analysis& analysis)
{
    for (const Warning& warning : report.warnings) {
        std::string text =
            warning.tag == kNoTag ? std::string("a tag") : nameOf(report, warning.tag);
        if (warning.kind == Mismatch::kTagBytes) {
            text += ": its record says " + grouped(warning.stored) +
                    " bytes in use, its blocks make up " + grouped(warning.found);
            analysis.damage.add(text);
            continue;
        }
        text += warning.segment != 0 ? ", segment " + hexadecimal(warning.segment)
                                     : std::string(", a segment");
        if (warning.kind == Mismatch::kChain) {
            text += ": its header does not lead to the next segment";
        } else if (warning.kind == Mismatch::kSegmentBlocks) {
            text += ": " + counted(warning.stored, "block") + " should be in use, " +
                    grouped(warning.found) + " can be found";
        } else {
            text += ": its size is " + grouped(warning.stored) + " bytes, its blocks make up " +
                    grouped(warning.found);
        }
        analysis.damage.add(text);
    }
    analysis.damage.more += report.moreWarnings;
}

void findDoubts(const Report& report, Analysis& analysis)
{
    Findings& doubts = analysis.doubts;
    if (!report.headed) {
        doubts.add("the report is cut: its beginning is missing");
    }
    if (!report.ended) {
        doubts.add("the report is cut: its end is missing");
    }
    if (report.unreadable != 0) {
        doubts.add(counted(report.unreadable, "line") + " cannot be read");
    }
    if (report.misplaced != 0) {
        doubts.add(counted(report.misplaced, "line") +
                   " out of place: of another report, written at the same time, or lines are "
                   "missing");
    }
    if (report.notKept != 0) {
        doubts.add(counted(report.notKept, "line") +
                   " of tags, segments and blocks left out: there are too many");
    }
    for (const Tag& tag : report.tags) {
        checkTag(report, tag, analysis);
    }
    if (isComplete(report)) {
        checkTotals(report, analysis, doubts);
    }
}

void describe(const Report& report, Analysis& analysis)
{
    std::vector<std::string>& notes = analysis.notes;
    bool detail = false;
    for (const Tag& tag : report.tags) {
        detail |= tag.headed || !tag.segments.empty();
    }
    if (report.tags.empty()) {
        notes.emplace_back(report.used || report.row
                               ? "The report has totals alone, nothing of single tags."
                               : "The report lists no tags.");
        return;
    }
    if (!detail) {
        notes.emplace_back(
            "The report has the summary table alone: segments and blocks are not listed.");
    } else if (!report.blocksListed && analysis.total.segments != uint64_t{0}) {
        notes.emplace_back("The report lists no blocks.");
    } else if (report.blocksListed && !report.freeListed) {
        notes.emplace_back(
            "The report does not list free blocks: they are what lies between used ones.");
    }
    bool unknown = false;
    for (const Figures& figures : analysis.tags) {
        unknown |= !figures.largest;
    }
    if (unknown && !report.blocksListed) {
        notes.emplace_back(
            "The largest free block is known where there is at most one, otherwise \"-\".");
    }
}

}  // namespace rmheap
