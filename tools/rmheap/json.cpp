// The report for programs: every figure that the table has, and what the map is drawn from. What is
// not known is null.
#include "json.h"

#include "console.h"
#include "text.h"

#include <cstdio>

namespace rmheap
{
namespace
{
std::string yes(bool value)
{
    return value ? "true" : "false";
}

std::string listOf(const Findings& findings)
{
    std::string text = "[";
    for (const std::string& finding : findings.texts) {
        text += (text.size() > 1 ? ", " : "") + quoted(finding);
    }
    return text + "]";
}

std::string figuresOf(const Figures& figures)
{
    const std::optional<double> share = fragmentation(figures);
    char text[32] = "null";
    if (share) {
        std::snprintf(text, sizeof(text), "%.4f", *share);
    }
    return "\"bytes\": " + orNull(figures.bytes) + ", \"blocks\": " + orNull(figures.blocks) +
           ", \"segments\": " + orNull(figures.segments) + ", \"free\": " + orNull(figures.free) +
           ", \"freeBlocks\": " + orNull(figures.freeBlocks) +
           ", \"largestFree\": " + orNull(figures.largest) + ", \"fragmentation\": " + text;
}

void printSegment(const Report& report, const Segment& segment)
{
    const SegmentPieces pieces = piecesOf(report, segment);
    print("        {\"address\": " + quoted(hexadecimal(segment.address)) +
          ", \"size\": " + (segment.headed ? std::to_string(segment.size) : "null"));
    if (!pieces.listed) {
        print(", \"pieces\": null}");
        return;
    }
    print(", \"pieces\": [");
    bool first = true;
    for (const Piece& piece : pieces.pieces) {
        const char* kind = piece.kind == PieceKind::kUsed   ? "used"
                           : piece.kind == PieceKind::kFree ? "free"
                                                            : "lost";
        print((first ? "[" : ", [") + quoted(hexadecimal(pieces.start + piece.offset)) + ", " +
              std::to_string(piece.size) + ", \"" + kind + "\"]");
        first = false;
    }
    print("]}");
}

void printTag(const Report& report, const Tag& tag, const Figures& figures)
{
    print("    {\"tag\": " + (tag.number == kNoTag ? "null" : std::to_string(tag.number)) +
          ", \"name\": " + quoted(tag.name) +
          ", \"limit\": " + (tag.limit.value_or(-1) < 0 ? "null" : std::to_string(*tag.limit)) +
          ", \"limited\": " + (tag.limit ? yes(*tag.limit >= 0) : "null") + ", " +
          figuresOf(figures) + ",\n      \"segmentList\": [");
    const char* separator = "\n";
    for (const Segment& segment : tag.segments) {
        print(separator);
        printSegment(report, segment);
        separator = ",\n";
    }
    print("]}");
}
}  // namespace

std::string orNull(const Figure& figure)
{
    return figure ? std::to_string(*figure) : "null";
}

std::string jsonPlace(const Report& report)
{
    return "\"report\": " + std::to_string(report.number) +
           ", \"file\": " + quoted(printable(report.file)) +
           ", \"line\": " + std::to_string(report.line) +
           ", \"time\": " + (report.time.empty() ? "null" : quoted(report.time)) +
           ", \"title\": " + quoted(report.title) + ", \"complete\": " + yes(isComplete(report));
}

std::string jsonListed(const Report& report)
{
    const Analysis analysis = analyse(report);
    return "  {" + jsonPlace(report) + ", \"empty\": " + yes(!report.anything) +
           ", \"tags\": " + orNull(analysis.tagCount) +
           ", \"bytes\": " + orNull(analysis.total.bytes) +
           ", \"damaged\": " + yes(!analysis.damage.empty()) + "}";
}

void printJson(const Report& report, const Analysis& analysis, std::size_t count)
{
    print("{\n  " + jsonPlace(report) + ", \"reports\": " + std::to_string(count) +
          ",\n  \"blocksListed\": " + yes(report.blocksListed) + ", \"freeListed\": " +
          yes(report.freeListed) + ",\n  \"damage\": " + listOf(analysis.damage) +
          ",\n  \"doubts\": " + listOf(analysis.doubts) + ",\n  \"total\": {\"tags\": " +
          orNull(analysis.tagCount) + ", " + figuresOf(analysis.total) + "},\n  \"tags\": [");
    const char* separator = "\n";
    for (std::size_t i = 0; i < report.tags.size(); ++i) {
        print(separator);
        printTag(report, report.tags[i], analysis.tags[i]);
        separator = ",\n";
    }
    print("]\n}\n");
}

}  // namespace rmheap
