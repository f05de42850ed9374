// The map of a heap as an SVG file.
//
// Why: fragmentation, leaks and waste have shapes that figures do not show. The file has to open
// anywhere: no script, no font of its own, colours that are read on light and on dark ground, and
// every text is kept inside of its box, whatever its characters are as wide as.
#include "svg.h"

#include "layout.h"
#include "table.h"
#include "text.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace rmheap
{
namespace
{
// Lengths in px.
constexpr double kMargin = 24;
constexpr double kGutter = 64;  // left of the rows: offsets
constexpr double kInset = 16;   // right of them
constexpr double kCard = kGutter + kRowWidth + kInset;
constexpr double kPage = kCard + 2 * kMargin;
constexpr double kStrip = 18;  // height of the blocks
constexpr double kAbove = 16;  // for the address of a segment
constexpr double kAxis = 14;   // height of the axis below the last row
constexpr double kBetweenRows = 6;
constexpr double kHead = 40;  // of a card
constexpr double kHeadAlone = 36;
constexpr double kBetweenCards = 12;
constexpr double kLegendLine = 22;
constexpr double kFindingLine = 17;
constexpr std::size_t kMostFindings = 6;
constexpr std::size_t kMostBands = 400;
constexpr double kLeastLabel = 72;  // width of a strip that has a label
constexpr double kLeastStep = 100;  // between ticks, at least
constexpr double kHeaderSeen = 2;   // width from which block headers are drawn
constexpr double kSmall = 11;       // sizes of text
constexpr double kFinding = 12;
constexpr double kName = 14;
constexpr double kTitle = 20;
constexpr std::size_t kLevels = 8;  // of density

constexpr const char* kStyle = R"(<style>
text{font-family:system-ui,-apple-system,"Segoe UI",Roboto,"Helvetica Neue",Arial,"Noto Sans","DejaVu Sans",sans-serif;font-size:11px;fill:#5b6470}
.title{font-size:20px;font-weight:700;fill:#1b222c}
.name{font-size:14px;font-weight:700;fill:#1b222c}
.strong{fill:#1b222c}
.noname{font-size:14px;font-style:italic}
.number{font-weight:700;fill:#fff}
.mid{text-anchor:middle}.end{text-anchor:end}
.page{fill:#f4f6f9}.card{fill:#fff;stroke:#dde2e9}
.pill{fill:#56616f}
.alarm{fill:#fdeaea;stroke:#d93b3b}.doubt{fill:#fff5dc;stroke:#c98a06}
.alarm-text{font-size:12px;fill:#a31919}.doubt-text{font-size:12px;fill:#7a5200}
.bold{font-weight:700}
.f{fill:#e3e8ee}.n{fill:#6b7a8c}
.x{fill:url(#lost)}
.h{fill:#0b1220;fill-opacity:.42;pointer-events:none}
.tick{stroke:#9aa4b1;stroke-width:1}
.a{fill:#8ed6b0}.b{fill:#45b8ac}.c{fill:#2b93c4}.d{fill:#3f6bd0}.e{fill:#7f62c9}.g{fill:#b469ab}.i{fill:#e0995e}
.o1{fill-opacity:.12}.o2{fill-opacity:.25}.o3{fill-opacity:.38}.o4{fill-opacity:.5}.o5{fill-opacity:.62}.o6{fill-opacity:.75}.o7{fill-opacity:.88}
@media (prefers-color-scheme:dark){
text{fill:#9aa6b5}.title,.name,.strong{fill:#eef2f7}.number{fill:#12161c}
.page{fill:#12161c}.card{fill:#1a2029;stroke:#2c3540}.pill{fill:#9aa6b5}
.alarm{fill:#3a1a1d}.doubt{fill:#352a12}.alarm-text{fill:#ff9a9a}.doubt-text{fill:#f3c969}
.f{fill:#303a47}.n{fill:#8a98aa}.tick{stroke:#5d6977}
}
</style>
)";

constexpr const char* kClassNames[kSizeClasses] = {"a", "b", "c", "d", "e", "g", "i"};
constexpr const char* kClassLabels[kSizeClasses] = {"to 32 bytes", "to 64", "to 128", "to 256",
                                                    "to 1K",       "to 4K", "larger"};

std::string escaped(std::string_view text)
{
    std::string result;
    for (const char c : text) {
        switch (c) {
            case '&':
                result += "&amp;";
                break;
            case '<':
                result += "&lt;";
                break;
            case '>':
                result += "&gt;";
                break;
            case '"':
                result += "&quot;";
                break;
            default:
                result += c;
                break;
        }
    }
    return result;
}

// A length with at most two decimals.
std::string px(double value)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%.2f", value);
    std::string result = text;
    while (result.ends_with('0')) {
        result.pop_back();
    }
    if (result.ends_with('.')) {
        result.pop_back();
    }
    return result;
}

std::string attribute(const char* name, double value)
{
    return std::string(" ") + name + "=\"" + px(value) + "\"";
}

std::string rect(double x, double y, double width, double height, const std::string& kind)
{
    return "<rect" + attribute("x", x) + attribute("y", y) + attribute("width", width) +
           attribute("height", height) + " class=\"" + kind + "\"";
}

// The width of a character in a wide font, in sizes of the font. What is bold is wider still.
double widthOf(char32_t code)
{
    constexpr std::string_view kNarrow = " .,:;'|!()[]fijlrtI·/-";
    constexpr std::string_view kWide = "mwMW@%_&<>+=#";
    if (code >= 0x80) {
        return code == U'·' ? 0.4 : code >= 0x1100 ? 1.1 : 0.8;
    }
    const char c = static_cast<char>(code);
    if (kNarrow.find(c) != std::string_view::npos) {
        return 0.45;
    }
    if (kWide.find(c) != std::string_view::npos) {
        return 1.1;
    }
    return c >= 'A' && c <= 'Z' ? 0.8 : 0.66;
}

double widthOf(std::string_view text, double size)
{
    double sum = 0;
    for (Character c = {}; (c = firstCharacter(text)).length != 0; text.remove_prefix(c.length)) {
        sum += widthOf(c.code);
    }
    return sum * size;
}

// As much of the text as the width has room for.
std::string cutTo(double width, double size, const std::string& text)
{
    if (widthOf(text, size) <= width) {
        return text;
    }
    std::string_view rest = text;
    double room = width - size;
    for (Character c = {}; (c = firstCharacter(rest)).length != 0; rest.remove_prefix(c.length)) {
        room -= widthOf(c.code) * size;
        if (room < 0) {
            break;
        }
    }
    return text.substr(0, text.size() - rest.size()) + "…";
}

// A text that is cut where it could leave the width, and then has itself as its tooltip. Should a
// font be wider than any, what leaves the box is not seen.
std::string textIn(double x, double y, double width, double size, const char* kind,
                   const std::string& text)
{
    const double room = std::max(0.0, width);
    const std::string shown = cutTo(room, size, text);
    const std::string tip = shown != text ? "<title>" + escaped(text) + "</title>" : "";
    return "<svg" + attribute("x", x) + attribute("y", y - size * 1.2) + attribute("width", room) +
           attribute("height", size * 1.7) + "><text" + attribute("y", size * 1.2) + " class=\"" +
           kind + "\">" + tip + escaped(shown) + "</text></svg>\n";
}

std::string plainText(double x, double y, const char* kind, const std::string& text)
{
    return "<text" + attribute("x", x) + attribute("y", y) +
           (*kind != '\0' ? std::string(" class=\"") + kind + "\"" : "") + ">" + escaped(text) +
           "</text>\n";
}

std::string bytesText(uint64_t bytes)
{
    return counted(bytes, "byte");
}

std::string orUnknown(const Figure& figure, std::string_view thing)
{
    return figure ? counted(*figure, thing) : "unknown " + std::string(thing) + "s";
}

// "1,234 bytes in 12 blocks and 2 segments · 567 free, largest 345, fragmentation 39%"
std::string summaryOf(const Figures& figures)
{
    std::string text =
        orUnknown(figures.bytes, "byte") + " in " + orUnknown(figures.blocks, "block");
    if (figures.segments) {
        text += ", " + counted(*figures.segments, "segment");
    }
    if (figures.free) {
        text += " · " + grouped(*figures.free) + " free";
        if (figures.largest && *figures.free != 0) {
            text += ", largest " + grouped(*figures.largest) + ", fragmentation " +
                    percent(fragmentation(figures));
        }
    }
    return text;
}

// A number of bytes on an axis of which all are multiples of a step.
std::string axisText(uint64_t bytes, uint64_t step)
{
    constexpr const char* kUnits[] = {"", "K", "M", "G", "T", "P"};
    std::size_t unit = 0;
    while (step % 1024 == 0 && unit + 1 < std::size(kUnits)) {
        bytes /= 1024;
        step /= 1024;
        ++unit;
    }
    return grouped(bytes) + (bytes != 0 ? kUnits[unit] : "");
}

std::string tooltip(const Cell& cell)
{
    const std::string place = cell.address != 0 ? hexadecimal(cell.address) + ": " : "";
    switch (cell.kind) {
        case CellKind::kUsed:
            return place + bytesText(cell.size) + " used";
        case CellKind::kFree:
            return place + bytesText(cell.size) + " free";
        case CellKind::kPortion:
            return bytesText(cell.size) + " used, places not known";
        case CellKind::kRest:
            return bytesText(cell.size) + " free, places not known";
        case CellKind::kLost:
            return place + bytesText(cell.size) + " of which the report has no sense";
        default:
            return "from " + place + counted(cell.used.blocks, "block") + " used, " +
                   bytesText(cell.used.bytes) + "; " + grouped(cell.free.blocks) + " free, " +
                   bytesText(cell.free.bytes);
    }
}

std::string classOf(const Cell& cell)
{
    switch (cell.kind) {
        case CellKind::kUsed:
            return kClassNames[cell.sizeClass];
        case CellKind::kPortion:
            return "n";
        case CellKind::kLost:
            return "x";
        case CellKind::kMixed: {
            const uint64_t all = std::max<uint64_t>(cell.used.bytes + cell.free.bytes, 1);
            const double share = static_cast<double>(cell.used.bytes) / static_cast<double>(all);
            const auto level =
                static_cast<std::size_t>(std::lround(share * static_cast<double>(kLevels)));
            if (level == 0 || cell.used.bytes == 0) {
                return "f";
            }
            return std::string(kClassNames[cell.sizeClass]) +
                   (level >= kLevels ? "" : " o" + std::to_string(level));
        }
        default:
            return "f";
    }
}

// Draws a map from the top.
class Map
{
  public:
    Map(const Report& report, const Analysis& analysis, std::size_t count, Layout layout)
        : report_(report), analysis_(analysis), count_(count), layout_(std::move(layout))
    {
    }

    std::string draw()
    {
        drawHead();
        drawFindings(analysis_.damage, "alarm", "The heap is damaged");
        drawFindings(analysis_.doubts, "doubt", "The report is not sound");
        drawLegend();
        for (const Band& band : layout_.bands) {
            drawBand(band);
        }
        const std::size_t missing = report_.tags.size() - layout_.bands.size();
        if (report_.tags.empty() || missing != 0) {
            body_ += plainText(kMargin, y_ + 10, "",
                               missing != 0 ? "and " + counted(missing, "tag") + " more"
                                            : "The report lists no tags.");
            y_ += 28;
        }
        return page();
    }

  private:
    void drawHead();
    void drawFindings(const Findings& findings, const std::string& kind, const char* headline);
    void drawLegend();
    double drawSwatch(double x, const std::string& kind, const std::string& label);
    void drawBand(const Band& band);
    void drawBandHead(const Tag& tag, const Figures& figures);
    void drawRow(const MapRow& row);
    void drawLabels(const Strip& strip, double room, double top);
    void drawTicks(const Strip& strip, double top);
    void drawAxis(const MapRow& row);
    double pxPerByte() const;
    uint64_t step() const;
    void drawCells(const Strip& strip, double top);
    std::string page() const;

    const Report& report_;
    const Analysis& analysis_;
    std::size_t count_;
    Layout layout_;
    std::string body_;
    double y_ = kMargin;
};

void Map::drawHead()
{
    const std::string title = report_.title.empty() ? "Heap map" : report_.title;
    body_ += textIn(kMargin, y_ + 18, kCard, kTitle, "title", title);
    body_ += textIn(kMargin, y_ + 38, kCard, kSmall, "", placeOf(report_, count_));
    const Figure& tags = analysis_.tagCount;
    body_ += textIn(kMargin, y_ + 55, kCard, kSmall, "strong",
                    (tags ? counted(*tags, "tag") + " · " : "") + summaryOf(analysis_.total));
    y_ += 70;
}

void Map::drawFindings(const Findings& findings, const std::string& kind, const char* headline)
{
    if (findings.empty()) {
        return;
    }
    const std::size_t shown = std::min(findings.texts.size(), kMostFindings);
    const uint64_t more = findings.count() - shown;
    const double height = 14 + kFindingLine * static_cast<double>(shown + 1 + (more != 0 ? 1 : 0));
    body_ += rect(kMargin, y_, kCard, height, kind) + " rx=\"6\"/>\n";
    const std::string text = kind + "-text";
    double line = y_ + 20;
    body_ += plainText(kMargin + 14, line, (text + " bold").c_str(), headline);
    for (std::size_t i = 0; i < shown; ++i) {
        line += kFindingLine;
        body_ += textIn(kMargin + 14, line, kCard - 28, kFinding, text.c_str(), findings.texts[i]);
    }
    if (more != 0) {
        body_ += plainText(kMargin + 14, line + kFindingLine, text.c_str(),
                           "and " + grouped(more) + " more");
    }
    y_ += height + kBetweenCards;
}

double Map::drawSwatch(double x, const std::string& kind, const std::string& label)
{
    body_ += rect(x, y_ + 2, 14, 12, kind) + " rx=\"2\"/>\n";
    body_ += plainText(x + 19, y_ + 12, "", label);
    return x + 19 + widthOf(label, kSmall) + 14;
}

void Map::drawLegend()
{
    double x = kMargin;
    bool used[kSizeClasses] = {};
    bool portion = false;
    bool mixed = false;
    bool lost = false;
    for (const Band& band : layout_.bands) {
        for (const MapRow& row : band.rows) {
            for (const Strip& strip : row.strips) {
                for (const Cell& cell : strip.cells) {
                    used[cell.sizeClass] |= cell.used.blocks != 0;
                    portion |= cell.kind == CellKind::kPortion || cell.kind == CellKind::kRest;
                    mixed |= cell.kind == CellKind::kMixed;
                    lost |= cell.kind == CellKind::kLost;
                }
            }
        }
    }
    if (std::ranges::any_of(used, [](bool is) { return is; })) {
        body_ += plainText(x, y_ + 12, "strong", "Used blocks");
        x += 76;
        for (std::size_t i = 0; i < kSizeClasses; ++i) {
            x = drawSwatch(x, kClassNames[i], kClassLabels[i]);
        }
    }
    if (portion) {
        x = drawSwatch(x, "n", "used, not in its place");
    }
    x = drawSwatch(x, "f", "free");
    if (lost) {
        x = drawSwatch(x, "x", "unknown");
    }
    y_ += kLegendLine;
    std::string scale = "A row is " + bytesText(layout_.bytesPerRow) + ", 1 px " +
                        px(static_cast<double>(layout_.bytesPerRow) / kRowWidth) + " bytes.";
    if (mixed) {
        scale += " Where blocks are narrower than " + px(layout_.narrowest) +
                 " px they are drawn together: the fainter, the more of it is free.";
    }
    if (portion) {
        scale +=
            " The report does not list the blocks: used and free bytes are to scale, and "
            "not in their places.";
    }
    body_ += textIn(kMargin, y_ + 11, kCard, kSmall, "", scale);
    y_ += kLegendLine + 2;
}

void Map::drawBandHead(const Tag& tag, const Figures& figures)
{
    const std::string number = tag.number == kNoTag ? "?" : std::to_string(tag.number);
    const double pill = std::max(26.0, static_cast<double>(number.size()) * 7.5 + 12);
    body_ += rect(kMargin + 12, y_ + 10, pill, 17, "pill") + " rx=\"8.5\"/>\n";
    body_ += plainText(kMargin + 12 + pill / 2, y_ + 22.5, "number mid", number);
    const std::string summary =
        summaryOf(figures) + (tag.limit.value_or(-1) >= 0
                                  ? " · limit " + grouped(static_cast<uint64_t>(*tag.limit))
                                  : "");
    const double summaryWidth = widthOf(summary, kSmall);
    const double left = kMargin + 12 + pill + 10;
    const double right = kMargin + kCard - kInset;
    body_ += textIn(left, y_ + 23.5, right - summaryWidth - 16 - left, kName,
                    tag.name.empty() ? "noname" : "name", tag.name.empty() ? "no name" : tag.name);
    body_ += plainText(right, y_ + 23, "end", summary);
}

void Map::drawBand(const Band& band)
{
    const Tag& tag = report_.tags[band.tag];
    const double top = y_;
    const std::size_t place = body_.size();
    drawBandHead(tag, analysis_.tags[band.tag]);
    y_ += band.rows.empty() ? kHeadAlone : kHead;
    for (const MapRow& row : band.rows) {
        drawRow(row);
    }
    if (!band.rows.empty()) {
        drawAxis(band.rows.back());
    }
    y_ += band.rows.empty() ? 0 : 6;
    body_.insert(place, "<g>" + rect(kMargin, top, kCard, y_ - top, "card") + " rx=\"8\"/>\n");
    body_ += "</g>\n";
    y_ += kBetweenCards;
}

void Map::drawRow(const MapRow& row)
{
    const bool labelled = std::ranges::any_of(
        row.strips, [](const Strip& strip) { return strip.first && strip.width >= kLeastLabel; });
    const double top = y_ + (labelled ? kAbove : 0);
    for (std::size_t i = 0; i < row.strips.size(); ++i) {
        const Strip& strip = row.strips[i];
        const double end = i + 1 < row.strips.size() ? row.strips[i + 1].x : kRowWidth;
        drawLabels(strip, end - strip.x - 4, top);
        drawCells(strip, top);
        drawTicks(strip, top + kStrip);
    }
    y_ = top + kStrip + kBetweenRows;
}

void Map::drawLabels(const Strip& strip, double room, double top)
{
    const double x = kMargin + kGutter + strip.x;
    if (!strip.first) {
        body_ += plainText(x - 8, top + 13, "end", "+" + axisText(strip.from, layout_.bytesPerRow));
        return;
    }
    if (strip.width < kLeastLabel) {
        return;
    }
    const std::string size = bytesText(strip.size);
    const std::string address = hexadecimal(strip.address);
    std::string label = address + " · " + size;
    if (!strip.known) {
        label = size;
    } else if (strip.segments > 1) {
        label = counted(strip.segments, "small segment") + " from " + address + " · " + size;
    }
    // Half an address is none.
    for (const std::string& text : {label, address}) {
        if (widthOf(text, kSmall) <= room) {
            body_ += plainText(x, top - 4, "", text);
            return;
        }
    }
}

double Map::pxPerByte() const
{
    return kRowWidth / static_cast<double>(layout_.bytesPerRow);
}

// The distance of the ticks, in bytes.
uint64_t Map::step() const
{
    uint64_t bytes = kUnit;
    while (static_cast<double>(bytes) * pxPerByte() < kLeastStep) {
        bytes *= 2;
    }
    return bytes;
}

void Map::drawTicks(const Strip& strip, double top)
{
    if (strip.segments > 1 || strip.width < 3 * kLeastStep) {
        return;
    }
    const double x = kMargin + kGutter + strip.x;
    const double distance = static_cast<double>(step()) * pxPerByte();
    std::string ticks;
    for (double at = 0; at <= strip.width; at += distance) {
        ticks += "M" + px(x + at) + " " + px(top) + "v3";
    }
    body_ += "<path class=\"tick\" d=\"" + ticks + "\"/>\n";
}

// What the ticks below the last row mean; in the others they mean the same, from the beginning of a
// segment on or from the offset that is written on the left.
void Map::drawAxis(const MapRow& row)
{
    double end = 0;
    for (const Strip& strip : row.strips) {
        const bool alone = strip.x == 0 && strip.segments == 1;
        end = alone && strip.width >= 3 * kLeastStep ? strip.width : end;
    }
    if (end == 0) {
        return;
    }
    for (uint64_t at = 0; static_cast<double>(at) * pxPerByte() <= end; at += step()) {
        const double place = static_cast<double>(at) * pxPerByte();
        body_ += plainText(kMargin + kGutter + place, y_ + 8, at == 0 ? "" : "mid",
                           axisText(at, step()));
    }
    y_ += kAxis;
}

void Map::drawCells(const Strip& strip, double top)
{
    const double header =
        static_cast<double>(kUnit) * kRowWidth / static_cast<double>(layout_.bytesPerRow);
    body_ += "<g transform=\"translate(" + px(kMargin + kGutter + strip.x) + "," + px(top) +
             ")\"><rect width=\"" + px(strip.width) + "\" height=\"" + px(kStrip) +
             "\" class=\"f\"/>\n";
    for (const Cell& cell : strip.cells) {
        // A hair of the ground between neighbours.
        const double width = cell.width >= 4     ? cell.width - 0.75
                             : cell.width >= 1.5 ? cell.width - 0.3
                                                 : cell.width;
        body_ += "<rect" + attribute("x", cell.x) + attribute("width", width) +
                 attribute("height", kStrip) + " class=\"" + classOf(cell) + "\"><title>" +
                 tooltip(cell) + "</title></rect>\n";
        // Not where a block goes on that began in the row above.
        if (cell.begins && cell.kind == CellKind::kUsed && header >= kHeaderSeen) {
            body_ += "<rect" + attribute("x", cell.x) +
                     attribute("width", std::min(header, width)) + attribute("height", kStrip) +
                     " class=\"h\"/>\n";
        }
    }
    body_ += "</g>\n";
}

std::string Map::page() const
{
    const double height = y_ + kMargin - kBetweenCards;
    const std::string title = report_.title.empty() ? "Heap map" : report_.title;
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" +
           px(kPage) + "\" height=\"" + px(height) + "\" viewBox=\"0 0 " + px(kPage) + " " +
           px(height) + "\" role=\"img\">\n<title>" + escaped(title) + "</title>\n<desc>" +
           escaped(placeOf(report_, count_)) + "</desc>\n" + kStyle +
           "<defs><pattern id=\"lost\" width=\"6\" height=\"6\" patternUnits=\"userSpaceOnUse\" "
           "patternTransform=\"rotate(45)\"><rect width=\"6\" height=\"6\" fill=\"#f7b7b7\"/>"
           "<rect width=\"3\" height=\"6\" fill=\"#d93b3b\"/></pattern></defs>\n" +
           rect(0, 0, kPage, height, "page") + "/>\n" + body_ + "</svg>\n";
}
}  // namespace

std::string svgOf(const Report& report, const Analysis& analysis, std::size_t count,
                  const std::vector<std::size_t>& order)
{
    std::vector<std::size_t> shown = order;
    shown.resize(std::min(order.size(), kMostBands));
    return Map(report, analysis, count, layOut(report, analysis, shown)).draw();
}

}  // namespace rmheap
