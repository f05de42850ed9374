// The lines of a memory report.
//
// Why: a log is read as it was found: with or without stamps, with lines of other processes between
// those of a report, with the prefix of whatever collected it. So every line is judged by itself
// and whole: what only begins like a line of a report is none.
#include "line.h"

#include "text.h"

#include <algorithm>

namespace rmheap
{
namespace
{
constexpr std::string_view kHeadingText = "--------VIRLO MEMORY REPORT--------";
constexpr std::string_view kTableText = "allocated/blocks     freed/blocks  segs";
constexpr std::string_view kDoneText = "MEMORY REPORT DONE";
constexpr std::size_t kNameWidth = 10;     // shorter names are filled up on the left
constexpr std::size_t kLongestMonth = 16;  // bytes, in any language
constexpr std::size_t kLongestStamp = 40;  // bytes
constexpr uint64_t kMostTag = 32767;       // the table of the tags ends there
constexpr uint64_t kWrap = uint64_t{1} << 32;

// "07-Mar-96 14:05:09", whatever the language of the month.
bool isTime(std::string_view text)
{
    constexpr std::string_view kEnd = "-00 00:00:00";
    if (text.size() < 2 + kEnd.size() + 1 || !isDigit(text[0]) || !isDigit(text[1]) ||
        text[2] != '-') {
        return false;
    }
    const std::size_t month = text.size() - kEnd.size() - 3;
    if (month == 0 || month > kLongestMonth) {
        return false;
    }
    const std::string_view end = text.substr(text.size() - kEnd.size());
    for (std::size_t i = 0; i < kEnd.size(); ++i) {
        if (kEnd[i] == '0' ? !isDigit(end[i]) : end[i] != kEnd[i]) {
            return false;
        }
    }
    return true;
}

// A number as 32-bit machines print it: what does not fit there is negative.
uint64_t unwrapped(int64_t value)
{
    return value < 0 ? static_cast<uint64_t>(value + static_cast<int64_t>(kWrap))
                     : static_cast<uint64_t>(value);
}

// "%lu/%lu", with blanks before each.
bool scanPair(Scanner& scanner, uint64_t& bytes, uint64_t& blocks)
{
    scanner.blanks();
    if (!scanner.number(bytes) || !scanner.literal("/")) {
        return false;
    }
    scanner.blanks();
    return scanner.number(blocks);
}

// The five figures of a line of the summary table, up to its end.
bool scanRow(Scanner scanner, Line& line)
{
    if (!scanPair(scanner, line.first, line.second) || !scanner.literal(" :") ||
        !scanPair(scanner, line.third, line.fourth) || !scanner.literal(" :")) {
        return false;
    }
    scanner.blanks();
    return scanner.number(line.fifth) && scanner.rest.empty();
}

bool scanHead(Scanner scanner, Line& line)
{
    int64_t allocated = 0;
    if (!scanner.literal(" limit=") || !scanner.integer(line.limit) ||
        !scanner.literal(", allocated=") || !scanner.integer(allocated) || !scanner.rest.empty()) {
        return false;
    }
    line.limit = line.limit == -1 ? -1 : static_cast<int64_t>(unwrapped(line.limit));
    line.first = unwrapped(allocated);
    return true;
}

// A name without the blanks that fill it up. Of a name that begins with blanks itself, those of one
// that is filled up cannot be told apart.
std::string_view nameIn(std::string_view field)
{
    if (field.size() == kNameWidth) {
        field.remove_prefix(std::min(field.find_first_not_of(' '), field.size()));
    }
    return field;
}

// Behind "TAG ". A name may hold whatever else the line does, so it ends where the rest of the line
// is what it has to be.
Line classifyTag(Scanner scanner)
{
    Line line;
    scanner.blanks();
    int64_t tag = 0;
    if (!scanner.integer(tag) || tag > static_cast<int64_t>(kMostTag) || tag < -32768 ||
        !scanner.literal("(")) {
        return line;
    }
    line.tag = static_cast<int>(tag);
    const std::string_view rest = scanner.rest;
    for (std::size_t end = rest.rfind("):"); end != std::string_view::npos && end <= rest.size();
         end = end == 0 ? std::string_view::npos : rest.rfind("):", end - 1)) {
        const Scanner behind = {rest.substr(end + 2)};
        line.name = nameIn(rest.substr(0, end));
        if (scanHead(behind, line)) {
            line.kind = Kind::kTagHead;
            return line;
        }
        if (scanRow(behind, line)) {
            line.kind = Kind::kTagRow;
            return line;
        }
    }
    line.kind = Kind::kTagBroken;
    line.name = rest.substr(std::min(rest.find_first_not_of(' '), rest.size()));
    return line;
}

// "N<what>M block" or "N<what>M blocks", and what may follow.
bool scanCount(Scanner& scanner, std::string_view what, Line& line)
{
    if (!scanner.number(line.first) || !scanner.literal(what) || !scanner.number(line.second) ||
        !scanner.literal(" block")) {
        return false;
    }
    scanner.literal("s");
    return true;
}

// "N<what>" or "N<what>s", up to the end.
bool scanNumber(Scanner scanner, std::string_view what, uint64_t& value)
{
    return scanner.number(value) && scanner.literal(what) &&
           (scanner.rest.empty() || scanner.rest == "s");
}

Line classifyUsed(Scanner scanner, Kind kind)
{
    Line line;
    if (scanCount(scanner, " allocated bytes in ", line) &&
        (scanner.rest.empty() || scanner.rest == ",")) {
        line.kind = kind;
    }
    return line;
}

Line classifySegment(Scanner scanner)
{
    Line line;
    if (!scanner.address(line.address)) {
        return line;
    }
    scanner.blanks();
    if (scanner.literal("size=") && scanner.number(line.first) && scanner.rest.empty()) {
        line.kind = Kind::kSegment;
    }
    return line;
}

// "memory check: tag 3, segment 0x7f0123456000: the chain of segments is not as it is kept"
Line classifyMemoryCheck(Scanner scanner)
{
    Line line;
    uint64_t tag = 0;
    if (scanner.number(tag) && tag <= INT16_MAX && scanner.literal(", segment ") &&
        scanner.address(line.address) &&
        scanner.rest == ": the chain of segments is not as it is kept") {
        line.kind = Kind::kChainBroken;
        line.tag = static_cast<int>(tag);
    }
    return line;
}

Line classifyWarning(Scanner scanner)
{
    if (scanner.literal("memory check: tag ")) {
        return classifyMemoryCheck(scanner);
    }
    Line line;
    Kind kind = Kind::kBlockMismatch;
    std::string_view middle = " mismatch with counted blocks, ";
    if (scanner.literal("Segment unit count, ")) {
        kind = Kind::kUnitMismatch;
        middle = " mismatch with counted units, ";
    } else if (scanner.literal("Tag byte count, ")) {
        kind = Kind::kByteMismatch;
    } else if (!scanner.literal("Segment block count, ")) {
        return line;
    }
    if (scanner.number(line.first) && scanner.literal(middle) && scanner.number(line.second) &&
        scanner.rest.empty()) {
        line.kind = kind;
    }
    // The units stand the other way round: first what was found.
    if (kind == Kind::kUnitMismatch) {
        std::swap(line.first, line.second);
    }
    return line;
}

// "0x7f0123456018        24 (3) free". What stands between the tag and " free" is the name of a
// source file, where a port knows it.
Line classifyBlock(Scanner scanner)
{
    Line line;
    uint64_t tag = 0;
    if (!scanner.address(line.address) || !scanner.rest.starts_with(' ')) {
        return line;
    }
    scanner.blanks();
    if (!scanner.number(line.first) || !scanner.literal(" (") || !scanner.number(tag) ||
        !scanner.literal(")") || tag > UINT16_MAX) {
        return line;
    }
    line.tag = static_cast<int>(static_cast<int16_t>(tag));
    line.used = !scanner.rest.ends_with(" free");
    line.kind = Kind::kBlock;
    return line;
}

// Lines that begin with a digit, perhaps a hexadecimal one.
Line classifyFigures(Scanner scanner)
{
    Line line;
    Scanner free = scanner;
    if (scanCount(free, " free bytes in ", line) && (free.rest.empty() || free.rest == ",")) {
        line.kind = Kind::kFree;
        return line;
    }
    return classifyBlock(scanner);
}

Line ofKind(bool is, Kind kind)
{
    Line line;
    line.kind = is ? kind : Kind::kOther;
    return line;
}

// Lines that begin with "T".
Line classifyTags(Scanner scanner)
{
    if (scanner.literal("TAG: ")) {
        return classifyUsed(scanner, Kind::kTagUsed);
    }
    if (scanner.literal("TAG ")) {
        return classifyTag(scanner);
    }
    if (scanner.literal("TOTAL: ")) {
        return classifyUsed(scanner, Kind::kTotalUsed);
    }
    Line line;
    if (scanner.literal("TOTAL :") && scanRow(scanner, line)) {
        line.kind = Kind::kTotalRow;
    }
    return line;
}

// Lines that begin with "S".
Line classifySegments(Scanner scanner)
{
    if (scanner.literal("SEGMENT @ ")) {
        return classifySegment(scanner);
    }
    if (scanner.literal("SEGMENT: ")) {
        return classifyUsed(scanner, Kind::kSegmentUsed);
    }
    Line line;
    if (scanner.literal("System contains ") && scanNumber(scanner, " active tag", line.first)) {
        line.kind = Kind::kTagCount;
    }
    return line;
}

// Lines that begin with "a", perhaps an address.
Line classifyWords(Scanner scanner)
{
    Line line;
    if (scanner.rest == kTableText) {
        line.kind = Kind::kTableHeading;
        return line;
    }
    if (scanner.literal("and contains ") && scanNumber(scanner, " segment", line.first)) {
        line.kind = Kind::kTagSegments;
        return line;
    }
    return classifyBlock(scanner);
}
}  // namespace

Line classify(std::string_view message)
{
    Scanner scanner = {message};
    scanner.blanks();
    if (scanner.rest.empty()) {
        return {};
    }
    switch (scanner.rest.front()) {
        case '-':
            return ofKind(scanner.rest == kHeadingText, Kind::kHeading);
        case 'M':
            return ofKind(scanner.rest == kDoneText, Kind::kDone);
        case 'T':
            return classifyTags(scanner);
        case 'S':
            return classifySegments(scanner);
        case 'W':
            return scanner.literal("WARNING: ") ? classifyWarning(scanner) : Line{};
        case 'a':
            return classifyWords(scanner);
        default:
            return classifyFigures(scanner);
    }
}

Message messageOf(std::string_view line)
{
    while (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    std::size_t open = line.find('[');
    // The name of a tag may look like a stamp.
    const bool ofTag =
        open != 0 && open != std::string_view::npos && classify(line).kind != Kind::kOther;
    for (; !ofTag && open != std::string_view::npos; open = line.find('[', open + 1)) {
        const std::string_view inside = line.substr(open + 1, kLongestStamp);
        const std::string_view time = inside.substr(0, inside.find(']'));
        const std::string_view behind =
            line.substr(std::min(open + 1 + time.size() + 1, line.size()));
        if (time.size() < inside.size() && isTime(time) &&
            (behind.empty() || behind.starts_with(' '))) {
            return {behind.substr(std::min<std::size_t>(2, behind.size())), time};
        }
    }
    return {line, {}};
}

}  // namespace rmheap
