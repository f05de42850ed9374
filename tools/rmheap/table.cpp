// The report as a table.
//
// Why: who looks at it has an incident. The largest tag comes first, damage cannot be overlooked,
// and what the report did not say is "-" and never 0.
#include "table.h"

#include "sizes.h"
#include "text.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

namespace rmheap
{
namespace
{
constexpr std::size_t kLeastName = 10;  // columns
constexpr std::size_t kUsualName = 16;
constexpr std::size_t kMostName = 24;
constexpr std::size_t kLeastBar = 8;
constexpr std::size_t kMostBar = 40;

std::string limitOf(const Writing& writing, const Tag& tag)
{
    if (!tag.limit) {
        return "-";
    }
    return *tag.limit < 0 ? "none" : writing.size(static_cast<uint64_t>(*tag.limit));
}

double keyOf(const Figures& figures, Sort sort)
{
    const auto value = [](const Figure& figure) {
        return figure ? static_cast<double>(*figure) : -1.0;
    };
    switch (sort) {
        case Sort::kBlocks:
            return value(figures.blocks);
        case Sort::kFree:
            return value(figures.free);
        case Sort::kFragmentation:
            return fragmentation(figures).value_or(-1);
        case Sort::kLargest:
            return value(figures.largest);
        case Sort::kSegments:
            return value(figures.segments);
        default:
            return value(figures.bytes);
    }
}

// Used and free bytes of a tag, `scale` bytes being the whole width.
std::string barOf(const Writing& writing, const Figures& figures, uint64_t scale, std::size_t width)
{
    constexpr const char* kParts[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
    constexpr std::size_t kEighths = 8;
    const auto cells = [&](uint64_t bytes) {
        const double share = static_cast<double>(bytes) / static_cast<double>(scale);
        return static_cast<std::size_t>(
            std::lround(std::min(share, 1.0) * static_cast<double>(width * kEighths)));
    };
    if (scale == 0 || !figures.bytes) {
        return "";
    }
    std::size_t used = cells(*figures.bytes);
    std::size_t all = cells(*figures.bytes + figures.free.value_or(0));
    if (!writing.terminal->blocks) {
        used = (used + kEighths / 2) / kEighths;
        all = std::max(used, (all + kEighths / 2) / kEighths);
        used = std::max<std::size_t>(used, *figures.bytes != 0 ? 1 : 0);
        return std::string(used, '#') + std::string(all - std::min(all, used), '.');
    }
    used = std::max<std::size_t>(used, *figures.bytes != 0 ? 1 : 0);
    std::string solid;
    for (std::size_t i = 0; i < used / kEighths; ++i) {
        solid += "█";
    }
    solid += kParts[used % kEighths];
    std::string light;
    for (std::size_t i = (used + kEighths - 1) / kEighths; i < (all + kEighths / 2) / kEighths;
         ++i) {
        light += "░";
    }
    return writing.colour(kCyan, solid) + writing.colour(kDim, light);
}

struct View {
    const Report* report;
    const Analysis* analysis;
    std::vector<std::size_t> order;
    bool limits;  // a tag has one
};

// All columns but the bar.
Grid gridOf(const View& view, const Writing& writing, std::size_t nameWidth)
{
    Grid grid;
    grid.columns = {{"TAG"},  {"NAME", true}, {"BYTES"},   {"BLOCKS"},
                    {"SEGS"}, {"FREE"},       {"LARGEST"}, {"FRAG"}};
    if (view.limits) {
        grid.columns.push_back({"LIMIT"});
    }
    const auto addRow = [&](const std::string& tag, const std::string& name, const Figures& figures,
                            const std::string& limit) {
        std::vector<std::string> row = {tag,
                                        name,
                                        writing.size(figures.bytes),
                                        writing.figure(figures.blocks),
                                        writing.figure(figures.segments),
                                        writing.size(figures.free),
                                        writing.size(figures.largest),
                                        percent(fragmentation(figures))};
        if (view.limits) {
            row.push_back(limit);
        }
        grid.rows.push_back(row);
    };
    const char* mark = writing.terminal->utf8 ? "…" : "..";
    for (const std::size_t i : view.order) {
        const Tag& tag = view.report->tags[i];
        addRow(tag.number == kNoTag ? "?" : std::to_string(tag.number),
               fitted(writing.name(tag.name), nameWidth, mark), view.analysis->tags[i],
               limitOf(writing, tag));
    }
    const Figures& total = view.analysis->total;
    const Figure& tags = view.analysis->tagCount;
    addRow("", tags ? counted(*tags, "tag") : "total", total, "");
    return grid;
}

std::size_t widthOf(const Grid& grid, std::size_t gap)
{
    const std::vector<std::size_t> widths = grid.widths();
    return std::accumulate(widths.begin(), widths.end(), std::size_t{0}) + gap * widths.size();
}

std::string withoutEnd(std::string text)
{
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

void printTable(const View& view, Writing& writing)
{
    const std::size_t width = writing.terminal->width;
    std::size_t longest = kLeastName;
    for (const Tag& tag : view.report->tags) {
        longest = std::max(longest, columns(writing.name(tag.name)));
    }
    // What does not fit gives way: long names, the second blank, names, groups of digits, the bar.
    std::size_t nameWidth = std::min(longest, kMostName);
    std::size_t gap = 2;
    Grid grid = gridOf(view, writing, nameWidth);
    const auto tooWide = [&] { return widthOf(grid, gap) + kLeastBar > width; };
    const auto narrowNames = [&](std::size_t least) {
        while (tooWide() && nameWidth > least) {
            grid = gridOf(view, writing, --nameWidth);
        }
    };
    narrowNames(kUsualName);
    gap = tooWide() ? 1 : 2;
    narrowNames(kLeastName);
    if (tooWide()) {
        writing.group = false;
        grid = gridOf(view, writing, nameWidth);
    }
    const std::size_t used = widthOf(grid, gap);
    const std::size_t bar = tooWide() ? 0 : std::min(width - used, kMostBar);
    uint64_t scale = 0;
    for (const Figures& figures : view.analysis->tags) {
        scale = std::max(scale, figures.bytes.value_or(0) + figures.free.value_or(0));
    }
    const std::vector<std::string> lines = grid.lines(gap);
    print(writing.colour(kBold, withoutEnd(lines[0])) + "\n");
    for (std::size_t i = 0; i < view.order.size(); ++i) {
        const std::string text =
            bar == 0 ? "" : barOf(writing, view.analysis->tags[view.order[i]], scale, bar);
        print(text.empty() ? withoutEnd(lines[i + 1]) + "\n"
                           : lines[i + 1] + std::string(gap, ' ') + text + "\n");
    }
    print(writing.colour(kBold, withoutEnd(lines.back())) + "\n");
}

void printSizes(const View& view, const Writing& writing)
{
    print("\n" + writing.colour(kBold, "Block sizes that hold most of each tag") + "\n");
    if (!view.report->blocksListed) {
        print("  not known: the report lists no blocks\n");
        return;
    }
    Grid grid;
    grid.columns = {{"TAG"}, {"NAME", true}, {"SIZE"}, {"BLOCKS"}, {"BYTES"}, {"OF TAG"}};
    for (const std::size_t i : view.order) {
        const Tag& tag = view.report->tags[i];
        const std::vector<SizeCount> sizes = sizesByBytes(*view.report, tag);
        uint64_t all = 0;
        for (const SizeCount& size : sizes) {
            all += size.size * size.blocks;
        }
        for (std::size_t k = 0; k < std::min(sizes.size(), writing.options->sizes); ++k) {
            const uint64_t bytes = sizes[k].size * sizes[k].blocks;
            const double share =
                all == 0 ? 0 : static_cast<double>(bytes) / static_cast<double>(all);
            grid.rows.push_back({k != 0 ? "" : std::to_string(tag.number),
                                 k != 0 ? "" : fitted(writing.name(tag.name), kMostName, ".."),
                                 writing.figure(sizes[k].size), writing.figure(sizes[k].blocks),
                                 writing.size(bytes), percent(share)});
        }
    }
    for (const std::string& line : grid.lines(2)) {
        print(withoutEnd(line) + "\n");
    }
}

void printTexts(const Writing& writing, const char* code, const std::string& headline,
                const Findings& findings)
{
    if (findings.empty()) {
        return;
    }
    print("\n" + writing.colour(code, headline) + "\n");
    for (const std::string& text : findings.texts) {
        print(wrapped(writing, text, 2));
    }
    if (findings.more != 0) {
        print("  and " + grouped(findings.more) + " more\n");
    }
}
}  // namespace

std::vector<std::size_t> sorted(const Report& report, const Analysis& analysis, Sort sort)
{
    std::vector<std::size_t> order(report.tags.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::stable_sort(order, [&](std::size_t a, std::size_t b) {
        return report.tags[a].number < report.tags[b].number;
    });
    if (sort == Sort::kName) {
        std::ranges::stable_sort(order, [&](std::size_t a, std::size_t b) {
            return report.tags[a].name < report.tags[b].name;
        });
    } else if (sort != Sort::kTag) {
        std::ranges::stable_sort(order, [&](std::size_t a, std::size_t b) {
            return keyOf(analysis.tags[a], sort) > keyOf(analysis.tags[b], sort);
        });
    }
    return order;
}

std::vector<std::size_t> Grid::widths() const
{
    std::vector<std::size_t> result;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        std::size_t width = rmheap::columns(columns[i].title);
        for (const std::vector<std::string>& row : rows) {
            width = std::max(width, rmheap::columns(row[i]));
        }
        result.push_back(width);
    }
    return result;
}

std::vector<std::string> Grid::lines(std::size_t gap) const
{
    const std::vector<std::size_t> wide = widths();
    std::vector<std::string> result;
    const auto add = [&](const auto& cell) {
        std::string line;
        for (std::size_t i = 0; i < columns.size(); ++i) {
            const std::string& text = cell(i);
            const std::string blanks(wide[i] - rmheap::columns(text), ' ');
            line += (i == 0 ? "" : std::string(gap, ' ')) +
                    (columns[i].left ? text + blanks : blanks + text);
        }
        result.push_back(line);
    };
    add([this](std::size_t i) -> const std::string& { return columns[i].title; });
    for (const std::vector<std::string>& row : rows) {
        add([&row](std::size_t i) -> const std::string& { return row[i]; });
    }
    return result;
}

std::string Writing::figure(const Figure& value) const
{
    if (!value) {
        return "-";
    }
    return group ? grouped(*value) : std::to_string(*value);
}

std::string Writing::size(const Figure& bytes) const
{
    return bytes && options->human ? rounded(*bytes) : figure(bytes);
}

std::string Writing::name(const std::string& printable) const
{
    return terminal->utf8 ? printable : asciiOnly(printable);
}

std::string Writing::colour(const char* code, const std::string& text) const
{
    return terminal->colour && !text.empty() ? std::string("\033[") + code + "m" + text + "\033[0m"
                                             : text;
}

std::string wrapped(const Writing& writing, const std::string& text, std::size_t indent)
{
    const std::size_t width = std::max<std::size_t>(writing.terminal->width, 40);
    std::string result;
    std::string line(indent, ' ');
    std::string_view rest = text;
    bool begun = false;
    const std::string shown = writing.name(text);
    rest = shown;
    while (!rest.empty()) {
        const std::string word(rest.substr(0, rest.find(' ')));
        rest.remove_prefix(std::min(word.size() + 1, rest.size()));
        if (begun && columns(line) + 1 + columns(word) > width) {
            result += line + "\n";
            line = std::string(indent + 2, ' ');
            begun = false;
        }
        line += (begun ? " " : "") + word;
        begun = true;
    }
    return result + line + "\n";
}

std::string placeOf(const Report& report, std::size_t count)
{
    std::string text = "report " + std::to_string(report.number);
    text += count != 0 ? " of " + std::to_string(count) : "";
    text += ", " + printable(report.file) + ":" + std::to_string(report.line);
    return text + ", " + (report.time.empty() ? "no time given" : report.time);
}

void printFindings(const Writing& writing, const Analysis& analysis)
{
    printTexts(writing, kRed, "DAMAGED: what the allocator has counted is not what is there",
               analysis.damage);
    printTexts(writing, kYellow, "DOUBTFUL: the report is not sound", analysis.doubts);
}

void printReport(const Report& report, const Analysis& analysis, const Reports& reports,
                 const Options& options, const Terminal& terminal)
{
    Writing writing = {&options, &terminal};
    View view = {&report, &analysis, sorted(report, analysis, options.sort), false};
    for (const Tag& tag : report.tags) {
        view.limits |= tag.limit.value_or(-1) >= 0;
    }
    const std::string title = report.title.empty() ? "Memory report" : report.title;
    print(writing.colour(kBold, writing.name(title)) + "\n");
    std::string place = placeOf(report, reports.count);
    place += !isComplete(report)                              ? ", cut"
             : options.report == kNewest && reports.count > 1 ? ", the last complete one"
                                                              : "";
    print(writing.name(place) + "\n\n");
    printTable(view, writing);
    if (options.sizes != 0) {
        printSizes(view, writing);
    }
    printFindings(writing, analysis);
    std::vector<std::string> notes = analysis.notes;
    if (options.report == kNewest && isComplete(report) && reports.lastCut > report.number) {
        notes.push_back(
            "Report " + std::to_string(reports.lastCut) +
            " is newer and cut; see it with --report=" + std::to_string(reports.lastCut) + ".");
    }
    print(notes.empty() ? "" : "\n");
    for (const std::string& note : notes) {
        print(wrapped(writing, note, 0));
    }
}

void printListed(const Report& report, const Terminal& terminal, bool first)
{
    const Options options;
    const Writing writing = {&options, &terminal};
    if (first) {
        print(
            writing.colour(kBold, "  NO  TIME                STATE     TAGS         BYTES  TITLE") +
            "\n");
    }
    const Analysis analysis = analyse(report);
    const char* state = !report.anything           ? "empty"
                        : !isComplete(report)      ? "cut"
                        : !analysis.damage.empty() ? "damaged"
                        : !analysis.doubts.empty() ? "doubtful"
                                                   : "complete";
    const std::string time = report.time.empty() ? "-" : report.time;
    const std::string tags = writing.figure(analysis.tagCount);
    const std::string bytes = writing.size(analysis.total.bytes);
    char text[160];
    std::snprintf(text, sizeof(text), "%4zu  %-18.40s  %-8s  %4s %13s  ", report.number,
                  time.c_str(), state, tags.c_str(), bytes.c_str());
    print(withoutEnd(text + writing.name(report.title)) + "\n");
}

}  // namespace rmheap
