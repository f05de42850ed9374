// Where the map draws what.
//
// Why: a heap has ten blocks or a hundred thousand, and the picture has to be looked at in both
// cases. One scale holds for the whole map, so that what is large looks large; it is the finest
// with which the map does not become too long. Blocks that are too narrow for it are drawn
// together, and the more of them the wider, until the file is small enough to be opened.
#include "layout.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>

namespace rmheap
{
namespace
{
constexpr uint64_t kFinest = 2048;       // bytes in a row
constexpr uint64_t kComfortable = 8192;  // bytes in a row: a usual segment fits into it
constexpr std::size_t kFewRows = 40;     // for which a scale finer than that is taken
constexpr std::size_t kMostRows = 180;
constexpr double kBetween = 6;     // px between segments in a row
constexpr double kSmall = 4;       // px; narrower segments are drawn without a distance
constexpr double kLeastWidth = 1;  // px
constexpr std::size_t kMostCells = 24000;
constexpr double kFirstNarrowest = 0.75;  // px

// A part of what is drawn, of one kind.
struct Part {
    uint64_t address;
    uint64_t size;
    CellKind kind;
};

// A segment, or small ones that are drawn as one.
struct Run {
    const Segment* first;
    std::size_t segments;
    uint64_t size;
};

// What a tag consists of that has no segments in the report.
struct Totals {
    uint64_t used;
    uint64_t free;
};

struct Spot {
    std::size_t run;
    std::size_t row;
    double x;
    uint64_t from;
    uint64_t to;
};

struct Flow {
    std::vector<Run> runs;
    std::vector<Spot> spots;
    std::size_t rows;
};

// The pieces of a segment whose beginning is missing reach as far as its blocks do.
uint64_t extentOf(const Report& report, const Segment& segment)
{
    return segment.headed ? segment.size : piecesOf(report, segment).size;
}

double widthOf(uint64_t bytes, uint64_t bytesPerRow)
{
    return static_cast<double>(bytes) * kRowWidth / static_cast<double>(bytesPerRow);
}

std::vector<Run> runsOf(const std::vector<Segment>& segments, const std::vector<uint64_t>& extents,
                        uint64_t bytesPerRow)
{
    std::vector<Run> runs;
    bool small = false;
    for (std::size_t i = 0; i < segments.size(); ++i) {
        const bool alsoSmall = widthOf(extents[i], bytesPerRow) < kSmall;
        if (small && alsoSmall) {
            ++runs.back().segments;
            runs.back().size += extents[i];
        } else {
            runs.push_back({&segments[i], 1, extents[i]});
        }
        small = alsoSmall;
    }
    return runs;
}

// Where a run stands: at x in its first row, and from the left on in the others.
struct Place {
    std::size_t row;
    std::size_t rows;
    double x;
};

// Places runs one behind the other. It does not grow with the rows: a segment has millions of them
// at a scale that is too fine for it.
class Placer
{
  public:
    explicit Placer(uint64_t bytesPerRow) : bytesPerRow_(bytesPerRow) {}

    Place place(uint64_t size)
    {
        const double width = std::max(widthOf(size, bytesPerRow_), kLeastWidth);
        const double gap = x_ > 0 ? kBetween : 0;
        if (x_ + gap + width <= kRowWidth) {
            const Place place = {rows_ - 1, 1, x_ + gap};
            x_ += gap + width;
            return place;
        }
        const uint64_t whole = size / bytesPerRow_ + (size % bytesPerRow_ != 0 ? 1 : 0);
        const Place place = {rows_, static_cast<std::size_t>(std::max<uint64_t>(whole, 1)), 0};
        rows_ += place.rows;
        // Nothing stands behind the end of a segment that fills rows.
        x_ = size > bytesPerRow_ ? kRowWidth : width;
        return place;
    }

    std::size_t rows() const { return rows_; }

  private:
    uint64_t bytesPerRow_;
    std::size_t rows_ = 0;
    double x_ = kRowWidth;
};

std::size_t rowsOf(const std::vector<Run>& runs, uint64_t bytesPerRow)
{
    Placer placer(bytesPerRow);
    for (const Run& run : runs) {
        placer.place(run.size);
    }
    return placer.rows();
}

Flow flowOf(std::vector<Run> runs, uint64_t bytesPerRow)
{
    Flow flow = {std::move(runs), {}, 0};
    Placer placer(bytesPerRow);
    for (std::size_t i = 0; i < flow.runs.size(); ++i) {
        const uint64_t size = flow.runs[i].size;
        const Place place = placer.place(size);
        uint64_t from = 0;
        for (std::size_t row = 0; row < place.rows; ++row) {
            const uint64_t to = std::min(size, from + bytesPerRow);
            flow.spots.push_back({i, place.row + row, place.x, from, to});
            from = to;
        }
    }
    flow.rows = placer.rows();
    return flow;
}

std::size_t sizeClassOf(uint64_t size)
{
    std::size_t result = 0;
    while (result < kSizeClasses - 1 && size > kClassLimits[result]) {
        ++result;
    }
    return result;
}

void addParts(const Report& report, const Segment& segment, std::vector<Part>& parts)
{
    const SegmentPieces pieces = piecesOf(report, segment);
    if (!pieces.listed) {
        const uint64_t used =
            std::min(segment.used ? segment.used->bytes : uint64_t{0}, segment.size);
        const uint64_t rest = segment.size - used;
        if (!segment.used) {
            parts.push_back({pieces.start, segment.size, CellKind::kLost});
            return;
        }
        if (used != 0) {
            parts.push_back({0, used, CellKind::kPortion});
        }
        if (rest != 0) {
            parts.push_back({0, rest, CellKind::kRest});
        }
        return;
    }
    for (const Piece& piece : pieces.pieces) {
        const CellKind kind = piece.kind == PieceKind::kUsed   ? CellKind::kUsed
                              : piece.kind == PieceKind::kFree ? CellKind::kFree
                                                               : CellKind::kLost;
        parts.push_back({pieces.start + piece.offset, piece.size, kind});
    }
}

std::vector<Part> partsOf(const Report& report, const Run& run)
{
    std::vector<Part> parts;
    for (std::size_t i = 0; i < run.segments; ++i) {
        addParts(report, run.first[i], parts);
    }
    return parts;
}

// Cells that are too narrow, until they are wide enough together.
struct Gathering {
    Cell cell = {};
    std::array<uint64_t, kSizeClasses> bytes = {};
    std::size_t parts = 0;

    void add(const Cell& other)
    {
        if (parts++ == 0) {
            cell = other;
            bytes = {};
        } else {
            cell.kind = cell.kind == CellKind::kLost || other.kind == CellKind::kLost
                            ? CellKind::kLost
                            : CellKind::kMixed;
            cell.width += other.width;
            cell.size += other.size;
            cell.used.bytes += other.used.bytes;
            cell.used.blocks += other.used.blocks;
            cell.free.bytes += other.free.bytes;
            cell.free.blocks += other.free.blocks;
        }
        if (other.used.blocks != 0) {
            bytes[other.sizeClass] += other.used.bytes;
        }
        cell.sizeClass = static_cast<std::size_t>(std::ranges::max_element(bytes) - bytes.begin());
    }

    void flush(std::vector<Cell>& cells)
    {
        if (parts != 0) {
            cells.push_back(cell);
        }
        parts = 0;
    }
};

Cell cellOf(const Part& part, double x, double width)
{
    Cell cell = {x,  width, part.kind, sizeClassOf(part.size), part.address, part.size,
                 {}, {},    true};
    if (part.kind == CellKind::kUsed) {
        cell.used = {part.size, 1};
    } else if (part.kind == CellKind::kFree) {
        cell.free = {part.size, 1};
    }
    return cell;
}

// Draws parts in order, strip by strip.
class Drawer
{
  public:
    Drawer(const std::vector<Part>& parts, uint64_t bytesPerRow, double narrowest)
        : parts_(parts), bytesPerRow_(bytesPerRow), narrowest_(narrowest)
    {
    }

    std::vector<Cell> draw(uint64_t from, uint64_t to)
    {
        std::vector<Cell> cells;
        Gathering narrow;
        while (next_ < parts_.size() && begin_ < to) {
            const Part& part = parts_[next_];
            const uint64_t end = begin_ + part.size;
            const uint64_t first = std::max(begin_, from);
            const uint64_t last = std::min(end, to);
            Cell cell = cellOf(part, widthOf(first - from, bytesPerRow_),
                               widthOf(last - first, bytesPerRow_));
            cell.begins = first == begin_;
            if (cell.width >= narrowest_) {
                narrow.flush(cells);
                cells.push_back(cell);
            } else {
                narrow.add(cell);
                if (narrow.cell.width >= narrowest_) {
                    narrow.flush(cells);
                }
            }
            if (end > to) {
                break;
            }
            begin_ = end;
            ++next_;
        }
        narrow.flush(cells);
        return cells;
    }

  private:
    const std::vector<Part>& parts_;
    uint64_t bytesPerRow_;
    double narrowest_;
    std::size_t next_ = 0;
    uint64_t begin_ = 0;  // offset of the next part
};

Strip stripOf(const Run& run, const Spot& spot, uint64_t bytesPerRow)
{
    Strip strip = {};
    strip.x = spot.x;
    strip.width = std::max(widthOf(spot.to - spot.from, bytesPerRow), kLeastWidth);
    strip.segments = run.segments;
    strip.known = run.first != nullptr;
    strip.address = strip.known ? run.first->address : 0;
    strip.size = run.size;
    strip.from = spot.from;
    strip.first = spot.from == 0;
    strip.last = spot.to == run.size;
    return strip;
}

// A tag as the scale needs it.
struct Subject {
    const Tag* tag;
    std::vector<uint64_t> extents;  // of its segments
    Totals totals = {};             // when it has none in the report, otherwise 0

    uint64_t bytes() const
    {
        return std::accumulate(extents.begin(), extents.end(), totals.used + totals.free);
    }

    std::vector<Run> runs(uint64_t bytesPerRow) const
    {
        if (!tag->segments.empty()) {
            return runsOf(tag->segments, extents, bytesPerRow);
        }
        const uint64_t all = totals.used + totals.free;
        return all == 0 ? std::vector<Run>{} : std::vector<Run>{{nullptr, 1, all}};
    }
};

std::vector<Part> partsOf(const Report& report, const Subject& subject, const Run& run)
{
    if (run.first != nullptr) {
        return partsOf(report, run);
    }
    std::vector<Part> parts;
    if (subject.totals.used != 0) {
        parts.push_back({0, subject.totals.used, CellKind::kPortion});
    }
    if (subject.totals.free != 0) {
        parts.push_back({0, subject.totals.free, CellKind::kRest});
    }
    return parts;
}

Band bandOf(const Report& report, const Subject& subject, const Layout& layout)
{
    Band band = {};
    const Flow flow = flowOf(subject.runs(layout.bytesPerRow), layout.bytesPerRow);
    band.rows.resize(flow.rows);
    for (std::size_t i = 0; i < flow.spots.size();) {
        const std::size_t run = flow.spots[i].run;
        const std::vector<Part> parts = partsOf(report, subject, flow.runs[run]);
        Drawer drawer(parts, layout.bytesPerRow, layout.narrowest);
        for (; i < flow.spots.size() && flow.spots[i].run == run; ++i) {
            const Spot& spot = flow.spots[i];
            Strip strip = stripOf(flow.runs[run], spot, layout.bytesPerRow);
            strip.cells = drawer.draw(spot.from, spot.to);
            band.rows[spot.row].strips.push_back(std::move(strip));
        }
    }
    return band;
}

std::size_t cellsIn(const Layout& layout)
{
    std::size_t sum = 0;
    for (const Band& band : layout.bands) {
        for (const MapRow& row : band.rows) {
            for (const Strip& strip : row.strips) {
                sum += strip.cells.size() + 1;
            }
        }
    }
    return sum;
}

std::vector<Subject> subjectsOf(const Report& report, const Analysis& analysis)
{
    std::vector<Subject> subjects;
    for (std::size_t i = 0; i < report.tags.size(); ++i) {
        Subject subject = {&report.tags[i], {}, {}};
        for (const Segment& segment : report.tags[i].segments) {
            subject.extents.push_back(extentOf(report, segment));
        }
        if (subject.extents.empty()) {
            subject.totals = {analysis.tags[i].bytes.value_or(0),
                              analysis.tags[i].free.value_or(0)};
        }
        subjects.push_back(std::move(subject));
    }
    return subjects;
}

// Where no blocks are drawn a fine scale would show nothing more.
//
// No tag gets more than kMostRows rows, and a segment in a row is wider than 4 px or joined with
// its neighbours: that bounds what is drawn, however many segments there are and however large.
uint64_t scaleFor(const std::vector<Subject>& subjects, bool blocks)
{
    uint64_t bytes = 0;
    for (const Subject& subject : subjects) {
        bytes += subject.bytes();
    }
    uint64_t bytesPerRow = blocks ? kFinest : kComfortable;
    // Rows hold no more than they are wide: scales that cannot do are not tried.
    while (bytes / bytesPerRow > kMostRows + subjects.size()) {
        bytesPerRow *= 2;
    }
    for (;; bytesPerRow *= 2) {
        std::size_t rows = 0;
        std::size_t used = 0;  // tags that have rows; each takes one at least
        for (const Subject& subject : subjects) {
            const std::size_t own = rowsOf(subject.runs(bytesPerRow), bytesPerRow);
            rows += own;
            used += own != 0 ? 1 : 0;
        }
        if (rows <= std::max(bytesPerRow < kComfortable ? kFewRows : kMostRows, used) ||
            bytesPerRow >= uint64_t{1} << 50) {
            return bytesPerRow;
        }
    }
}
}  // namespace

Layout layOut(const Report& report, const Analysis& analysis, const std::vector<std::size_t>& order)
{
    const std::vector<Subject> subjects = subjectsOf(report, analysis);
    Layout layout = {scaleFor(subjects, report.blocksListed), kFirstNarrowest, {}};
    for (;; layout.narrowest *= 1.5) {
        layout.bands.clear();
        for (const std::size_t i : order) {
            layout.bands.push_back(bandOf(report, subjects[i], layout));
            layout.bands.back().tag = i;
        }
        if (cellsIn(layout) <= kMostCells || layout.narrowest > kRowWidth) {
            return layout;
        }
    }
}

}  // namespace rmheap
