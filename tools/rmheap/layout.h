// Where the map draws what.
#ifndef RMHEAP_LAYOUT_H
#define RMHEAP_LAYOUT_H

#include "figures.h"
#include "report.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace rmheap
{

constexpr double kRowWidth = 1024;  // px
constexpr std::size_t kSizeClasses = 7;

// The largest block of each class but the last, in bytes.
constexpr uint32_t kClassLimits[kSizeClasses - 1] = {32, 64, 128, 256, 1024, 4096};

enum class CellKind {
    kUsed,     // one block
    kFree,     // one free block
    kLost,     // where the report has no sense
    kMixed,    // blocks that are too narrow to be seen one by one
    kPortion,  // used bytes, of which the places are not known
    kRest,     // free bytes, likewise
};

struct Cell {
    double x;  // px from the beginning of the row
    double width;
    CellKind kind;
    std::size_t sizeClass;  // of a block; of several, that which holds most bytes
    uint64_t address;
    uint64_t size;  // bytes
    Count used;
    Count free;
    bool begins;  // false: it goes on from the row above
};

// A segment, or the part of it that stands in one row; or many small segments one behind the other.
struct Strip {
    double x;
    double width;
    uint64_t address;      // of the segment
    uint64_t size;         // bytes of the segment, or of all
    uint64_t from;         // offset of the strip in it
    std::size_t segments;  // more than 1: many small ones
    bool known;            // false: no address belongs to it
    bool first;            // its beginning
    bool last;             // its end
    std::vector<Cell> cells;
};

struct MapRow {
    std::vector<Strip> strips;
};

struct Band {
    std::size_t tag;  // in Report::tags
    std::vector<MapRow> rows;
};

struct Layout {
    uint64_t bytesPerRow;
    double narrowest;  // px of a cell that is drawn by itself
    std::vector<Band> bands;
};

Layout layOut(const Report& report, const Analysis& analysis,
              const std::vector<std::size_t>& order);

}  // namespace rmheap

#endif
