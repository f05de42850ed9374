// What grew from one report to another.
//
// Why: of a heap that grows one wants to know which tag it is, and of that tag which size of block:
// that is mostly enough to name the call that does not give back.
#include "compare.h"

#include "json.h"
#include "sizes.h"
#include "table.h"
#include "text.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace rmheap
{
namespace
{
constexpr std::size_t kDefaultSizes = 5;
constexpr std::size_t kMostName = 24;
constexpr std::size_t kMostBar = 30;
constexpr std::size_t kLeastBar = 8;
constexpr Figures kNothing = {0, 0, 0, 0, 0, 0};

using Change = std::optional<int64_t>;

struct Pair {
    int tag;
    const Tag* before;  // null: not in that report
    const Tag* after;
    Figures from;
    Figures to;
};

struct SizeChange {
    int tag;
    uint32_t size;
    uint64_t from;  // blocks
    uint64_t to;
};

Change change(const Figure& from, const Figure& to)
{
    return from && to ? Change(static_cast<int64_t>(*to) - static_cast<int64_t>(*from)) : Change();
}

Change growthOf(const Pair& pair)
{
    return change(pair.from.bytes, pair.to.bytes);
}

// A tag that is in one report alone held nothing in the other.
std::vector<Pair> pairsOf(const Side& from, const Side& to)
{
    std::map<int, Pair> pairs;
    for (std::size_t i = 0; i < from.report->tags.size(); ++i) {
        const Tag& tag = from.report->tags[i];
        pairs[tag.number] = {tag.number, &tag, nullptr, from.analysis->tags[i], kNothing};
    }
    for (std::size_t i = 0; i < to.report->tags.size(); ++i) {
        const Tag& tag = to.report->tags[i];
        Pair& pair = pairs.try_emplace(tag.number, Pair{tag.number, nullptr, nullptr, kNothing, {}})
                         .first->second;
        pair.after = &tag;
        pair.to = to.analysis->tags[i];
    }
    std::vector<Pair> result;
    result.reserve(pairs.size());
    for (const auto& [tag, pair] : pairs) {
        result.push_back(pair);
    }
    std::ranges::stable_sort(result, [](const Pair& a, const Pair& b) {
        return growthOf(a).value_or(INT64_MIN) > growthOf(b).value_or(INT64_MIN);
    });
    return result;
}

std::string nameOf(const Pair& pair)
{
    if (pair.before == nullptr || pair.after == nullptr) {
        return pair.before == nullptr ? pair.after->name + " (new)" : pair.before->name + " (gone)";
    }
    return pair.before->name == pair.after->name ? pair.after->name
                                                 : pair.before->name + " > " + pair.after->name;
}

uint64_t distance(int64_t value)
{
    return value < 0 ? uint64_t{0} - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
}

std::string signedText(const Writing& writing, const Change& value, bool size)
{
    if (!value) {
        return "-";
    }
    const Figure amount = distance(*value);
    return (*value > 0   ? "+"
            : *value < 0 ? "-"
                         : "") +
           (size ? writing.size(amount) : writing.figure(amount));
}

std::string barOf(const Writing& writing, const Change& value, uint64_t scale, std::size_t width)
{
    if (!value || *value == 0 || scale == 0) {
        return "";
    }
    const double share = static_cast<double>(distance(*value)) / static_cast<double>(scale);
    const auto cells = std::max<long>(1, std::lround(share * static_cast<double>(width)));
    std::string bar;
    for (long i = 0; i < cells; ++i) {
        bar += *value < 0 ? (writing.terminal->blocks ? "░" : ".")
                          : (writing.terminal->blocks ? "█" : "#");
    }
    return writing.colour(*value < 0 ? kDim : kCyan, bar);
}

std::vector<SizeChange> sizeChanges(const Side& from, const Side& to,
                                    const std::vector<Pair>& pairs)
{
    std::vector<SizeChange> result;
    for (const Pair& pair : pairs) {
        std::map<uint32_t, SizeChange> sizes;
        if (pair.before != nullptr) {
            for (const auto& [size, blocks] : blocksBySize(*from.report, *pair.before)) {
                sizes[size] = {pair.tag, size, blocks, 0};
            }
        }
        if (pair.after != nullptr) {
            for (const auto& [size, blocks] : blocksBySize(*to.report, *pair.after)) {
                sizes.try_emplace(size, SizeChange{pair.tag, size, 0, 0}).first->second.to = blocks;
            }
        }
        for (const auto& [size, sizeChange] : sizes) {
            result.push_back(sizeChange);
        }
    }
    std::ranges::stable_sort(result, [](const SizeChange& a, const SizeChange& b) {
        const auto growth = [](const SizeChange& one) {
            return (static_cast<int64_t>(one.to) - static_cast<int64_t>(one.from)) * one.size;
        };
        return growth(a) > growth(b);
    });
    return result;
}

void printPlace(const Writing& writing, const char* word, const Report& report, std::size_t count)
{
    const std::string title = report.title.empty() ? "" : ": " + report.title;
    print(word + writing.name(placeOf(report, count) + title) + "\n");
}

void printRows(const Writing& writing, const std::vector<Pair>& pairs, const Side& from,
               const Side& to)
{
    Grid grid;
    grid.columns = {{"TAG"},    {"NAME", true}, {"FROM"}, {"TO"},
                    {"GROWTH"}, {"BLOCKS"},     {"SEGS"}, {"FREE"}};
    const auto addRow = [&](const std::string& tag, const std::string& name, const Figures& a,
                            const Figures& b) {
        grid.rows.push_back({tag, name, writing.size(a.bytes), writing.size(b.bytes),
                             signedText(writing, change(a.bytes, b.bytes), true),
                             signedText(writing, change(a.blocks, b.blocks), false),
                             signedText(writing, change(a.segments, b.segments), false),
                             signedText(writing, change(a.free, b.free), true)});
    };
    uint64_t scale = 0;
    for (const Pair& pair : pairs) {
        const std::string number = pair.tag == kNoTag ? "?" : std::to_string(pair.tag);
        addRow(number, fitted(writing.name(nameOf(pair)), kMostName, ".."), pair.from, pair.to);
        scale = std::max(scale, distance(growthOf(pair).value_or(0)));
    }
    addRow("", "total", from.analysis->total, to.analysis->total);
    std::vector<std::string> lines = grid.lines(2);
    const std::size_t used = columns(lines.front()) + 2;
    const std::size_t width = writing.terminal->width;
    const std::size_t bar = used + kLeastBar <= width ? std::min(width - used, kMostBar) : 0;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const bool framed = i == 0 || i + 1 == lines.size();
        const std::string text =
            framed || bar == 0 ? "" : barOf(writing, growthOf(pairs[i - 1]), scale, bar);
        print((framed ? writing.colour(kBold, lines[i]) : lines[i]) +
              (text.empty() ? "" : "  " + text) + "\n");
    }
}

void printSizes(const Writing& writing, const std::vector<Pair>& pairs, const Side& from,
                const Side& to)
{
    if (!from.report->blocksListed || !to.report->blocksListed) {
        print("\nWhich sizes of block grew is not known: not both reports list blocks.\n");
        return;
    }
    const std::size_t most = writing.options->sizes != 0 ? writing.options->sizes : kDefaultSizes;
    Grid grid;
    grid.columns = {{"TAG"}, {"NAME", true}, {"SIZE"}, {"BLOCKS"}, {"BYTES"}};
    for (const SizeChange& size : sizeChanges(from, to, pairs)) {
        const int64_t blocks = static_cast<int64_t>(size.to) - static_cast<int64_t>(size.from);
        if (grid.rows.size() >= most || blocks <= 0) {
            break;
        }
        const auto pair = std::ranges::find(pairs, size.tag, &Pair::tag);
        grid.rows.push_back({std::to_string(size.tag),
                             fitted(writing.name(nameOf(*pair)), kMostName, ".."),
                             writing.figure(size.size), signedText(writing, blocks, false),
                             signedText(writing, blocks * size.size, true)});
    }
    if (grid.rows.empty()) {
        print("\nNo size of block grew.\n");
        return;
    }
    print("\n" + writing.colour(kBold, "Block sizes that grew most") + "\n");
    for (const std::string& line : grid.lines(2)) {
        print(line + "\n");
    }
}

std::string both(const char* name, const Figure& from, const Figure& to)
{
    return std::string("\"") + name + "\": [" + orNull(from) + ", " + orNull(to) + "]";
}

std::string bothFigures(const Figures& from, const Figures& to)
{
    return both("bytes", from.bytes, to.bytes) + ", " + both("blocks", from.blocks, to.blocks) +
           ", " + both("segments", from.segments, to.segments) + ", " +
           both("free", from.free, to.free);
}
}  // namespace

void printComparison(const Side& from, const Side& to, std::size_t count, const Options& options,
                     const Terminal& terminal)
{
    const Writing writing = {&options, &terminal};
    const std::vector<Pair> pairs = pairsOf(from, to);
    printPlace(writing, "From ", *from.report, count);
    printPlace(writing, "to   ", *to.report, count);
    print("\n");
    printRows(writing, pairs, from, to);
    printSizes(writing, pairs, from, to);
    for (const Side& side : {from, to}) {
        if (!side.analysis->damage.empty() || !side.analysis->doubts.empty()) {
            print("\nReport " + std::to_string(side.report->number) + ":\n");
            printFindings(writing, *side.analysis);
        }
    }
}

void printJsonComparison(const Side& from, const Side& to)
{
    const std::vector<Pair> pairs = pairsOf(from, to);
    print("{\n  \"from\": {" + jsonPlace(*from.report) + "},\n  \"to\": {" + jsonPlace(*to.report) +
          "},\n  \"total\": {" + bothFigures(from.analysis->total, to.analysis->total) +
          "},\n  \"tags\": [");
    const char* separator = "\n";
    for (const Pair& pair : pairs) {
        const Tag& tag = pair.after != nullptr ? *pair.after : *pair.before;
        print(std::string(separator) +
              "    {\"tag\": " + (pair.tag == kNoTag ? "null" : std::to_string(pair.tag)) +
              ", \"name\": " + quoted(tag.name) + ", " + bothFigures(pair.from, pair.to) + "}");
        separator = ",\n";
    }
    print("],\n  \"sizes\": ");
    if (!from.report->blocksListed || !to.report->blocksListed) {
        print("null\n}\n");
        return;
    }
    print("[");
    separator = "\n";
    for (const SizeChange& size : sizeChanges(from, to, pairs)) {
        print(std::string(separator) +
              "    {\"tag\": " + (size.tag == kNoTag ? "null" : std::to_string(size.tag)) +
              ", \"size\": " + std::to_string(size.size) + ", " +
              both("blocks", size.from, size.to) + "}");
        separator = ",\n";
    }
    print("]\n}\n");
}

}  // namespace rmheap
