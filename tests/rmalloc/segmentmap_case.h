// What the tests of the map of a segment share: a segment with its blocks, and what the map says
// wrong about them.
//
// A case lists the blocks of a segment as rmtest::drawing() does: "4 [2] 1" is a free block of 4
// units, a live one of 2 and a free one of 1. What the map must say follows from that list alone.
// Where the segment has no header it is full of old ones, of live blocks of 70 units: whoever takes
// one of them for a block has found one.
#ifndef RM_TESTS_RMALLOC_SEGMENTMAP_CASE_H
#define RM_TESTS_RMALLOC_SEGMENTMAP_CASE_H

#include "tests/support/support.h"

#include "rm/rmalloc/segmentmap.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rmtest
{

constexpr uint32_t kSegmentUnits = sizeof(rmalloc::Segment) / sizeof(rmalloc::BlockHeader);
constexpr rmalloc::BlockHeader kOldHeader = {rmalloc::kLiveMagic, 70};

struct Piece {
    uint32_t offset;
    uint32_t units;
    bool isFree;
};

using Pieces = std::vector<Piece>;

inline Pieces piecesOf(std::string_view drawing)
{
    Pieces pieces;
    uint32_t offset = 1;
    std::istringstream words{std::string(drawing)};
    for (std::string word; words >> word;) {
        const bool live = word.front() == '[';
        const auto units = static_cast<uint32_t>(std::stoul(live ? word.substr(1) : word));
        pieces.push_back({offset, units, !live});
        offset += units;
    }
    return pieces;
}

inline uint32_t unitsOf(const Pieces& pieces)
{
    return pieces.back().offset + pieces.back().units - 1;
}

// The map of a new segment with room for so many units and no more.
inline rmalloc::SegmentMap* newMap(uint32_t units)
{
    return rmalloc::newSegment(rmalloc::kSegmentHeader + units * rmalloc::kUnit, units);
}

// A segment with its blocks, and a map of it.
class Made
{
  public:
    // The map shows nothing yet, the segment is one free block.
    explicit Made(uint32_t units) : Made(Pieces{{1, units, true}}, false) {}

    explicit Made(std::string_view drawing) : Made(piecesOf(drawing), true) {}

    Made(Pieces blocks, bool isDrawn) : pieces(std::move(blocks)), map(newMap(unitsOf(pieces)))
    {
        std::fill_n(reinterpret_cast<rmalloc::BlockHeader*>(map->segment),
                    kSegmentUnits + unitsOf(pieces), kOldHeader);
        new (map->segment) rmalloc::Segment{};
        map->segment->units = unitsOf(pieces);
        writeHeaders();
        if (isDrawn) {
            drawMap();
        }
    }

    ~Made() { rmalloc::freeSegment(map); }

    Made(const Made&) = delete;
    Made& operator=(const Made&) = delete;

    rmalloc::BlockHeader* header(uint32_t offset) { return rmalloc::blockAt(map->segment, offset); }

    // Makes the segment what the pieces are. Old headers stay where they are.
    void writeHeaders()
    {
        rmalloc::BlockHeader* link = &map->segment->anchor;
        for (const Piece& piece : pieces) {
            *header(piece.offset) = {piece.isFree ? 0 : rmalloc::kLiveMagic, piece.units};
            if (piece.isFree) {
                link->word1 = piece.offset;
                link = header(piece.offset);
            }
        }
        link->word1 = 0;
    }

    void drawMap()
    {
        rmalloc::setEnd(map, 0);
        for (const Piece& piece : pieces) {
            rmalloc::setEnd(map, piece.offset + piece.units - 1);
            if (piece.isFree) {
                rmalloc::setFree(map, piece.offset, piece.units);
            }
        }
    }

    // The first free block in address order, as a plain walk finds it; null.
    const Piece* firstFit(uint32_t need) const
    {
        const auto found = std::find_if(pieces.begin(), pieces.end(), [need](const Piece& piece) {
            return piece.isFree && piece.units >= need;
        });
        return found == pieces.end() ? nullptr : &*found;
    }

    uint32_t largestFree() const
    {
        uint32_t largest = 0;
        for (const Piece& piece : pieces) {
            largest = std::max(largest, piece.isFree ? piece.units : 0);
        }
        return largest;
    }

    rmalloc::Neighbours neighbours(std::size_t n) const
    {
        rmalloc::Neighbours around = {0, 0, 0};
        for (std::size_t i = n; i > 0 && around.previous == 0; --i) {
            if (pieces[i - 1].isFree) {
                around.previous = pieces[i - 1].offset;
                around.previousUnits = pieces[i - 1].units;
            }
        }
        if (n + 1 < pieces.size() && pieces[n + 1].isFree) {
            around.nextUnits = pieces[n + 1].units;
        }
        return around;
    }

    Pieces pieces;

  private:
  public:
    rmalloc::SegmentMap* map;
};

inline bool same(const rmalloc::Neighbours& a, const rmalloc::Neighbours& b)
{
    return a.previous == b.previous && a.previousUnits == b.previousUnits &&
           a.nextUnits == b.nextUnits;
}

// What the map says wrong about block `n`, asked at each of its units; empty when it says nothing
// wrong. A large block is asked only near its ends when `isShort`.
inline std::string wrongAt(const Made& made, std::size_t n, bool isShort)
{
    const Piece& piece = made.pieces[n];
    const rmalloc::Neighbours around = made.neighbours(n);
    const uint32_t end = piece.offset + piece.units;
    const auto say = [&](const char* what, uint32_t offset) {
        return std::string(what) + " at unit " + std::to_string(offset) + " of the block at " +
               std::to_string(piece.offset) + " of " + std::to_string(piece.units);
    };
    for (uint32_t offset = piece.offset; offset < end; ++offset) {
        const bool begins = offset == piece.offset;
        if (rmalloc::isFreeAt(made.map, offset) != (begins && piece.isFree)) {
            return say("isFreeAt", offset);
        }
        if (rmalloc::endsAt(made.map, offset) != (offset + 1 == end)) {
            return say("endsAt", offset);
        }
        if (rmalloc::liveUnitsAt(made.map, offset) != (begins && !piece.isFree ? piece.units : 0)) {
            return say("liveUnitsAt", offset);
        }
        if (rmalloc::freeBefore(made.map, offset) !=
            (!begins && piece.isFree ? piece.offset : around.previous)) {
            return say("freeBefore", offset);
        }
        if (isShort && offset - piece.offset == 130 && end - offset > 130) {
            offset = end - 130;
        }
    }
    if (piece.isFree && rmalloc::freeUnitsAt(made.map, piece.offset) != piece.units) {
        return say("freeUnitsAt", piece.offset);
    }
    return same(rmalloc::neighboursOf(made.map, piece.offset, piece.units), around)
               ? ""
               : say("neighboursOf", piece.offset);
}

// The first thing that the map says wrong.
inline std::string wrong(const Made& made, bool isShort = false)
{
    for (std::size_t n = 0; n < made.pieces.size(); ++n) {
        std::string text = wrongAt(made, n, isShort);
        if (!text.empty()) {
            return text;
        }
    }
    if (!rmalloc::endsAt(made.map, 0) || rmalloc::isFreeAt(made.map, made.map->units + 1)) {
        return "the ends of the segment";
    }
    const uint32_t violations = rmalloc::checkSegmentMap(made.map);
    return violations == 0 ? "" : std::to_string(violations) + " violations";
}

// Sizes on both sides of one and two strips.
constexpr uint32_t kSizes[] = {1, 2, 62, 63, 64, 65, 66, 127, 128, 129, 130, 191, 193, 1000};

// Segments of which the last unit, or the one behind it, is at either side of a border.
constexpr uint32_t kSegmentSizes[] = {
    1,    2,    61,   62,   63,   64,   65,     66,     126,    127,    128,    129,    130,
    1022, 1023, 1024, 1025, 4095, 4096, 16'383, 16'384, 16'385, 65'535, 65'536, 400'000};

}  // namespace rmtest

#endif
