// A model of the memory manager: where each block lies, and what the counters say.
//
// Why: placement is promised down to the byte, and the allocator may become as clever as it likes
// in finding its places. This model is as simple as it can be: a segment is the list of its pieces
// from the low end to the high end, free or live, and everything is found by looking at them one
// after the other. It shares no code and no structure with the library, and knows no addresses.
//
// Invariant: the pieces of a segment add up to its units, no two free pieces touch, and every
// segment has a live piece.
#ifndef RM_TESTS_MODELS_ALLOCATOR_MODEL_H
#define RM_TESTS_MODELS_ALLOCATOR_MODEL_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

namespace rmtest
{

class AllocatorModel
{
  public:
    using Block = uint32_t;  // the caller's own name for a block; 0 is none
    static constexpr Block kFree = 0;

    struct Piece {
        uint32_t units;
        Block block;  // kFree, or the block that lies here
    };

    struct Segment {
        uint32_t units;
        uint32_t live;
        std::vector<Piece> pieces;
    };

    struct Tag {
        bool inUse;
        uint32_t segmentSize;  // bytes
        uint32_t allocated;    // bytes
        std::vector<Segment> segments;
    };

    // How a request ended. Without memory nothing has changed, except as grow() says.
    enum class Outcome { kKept, kMoved, kNoMemory };

    explicit AllocatorModel(uint32_t recordBytes) : recordBytes_(recordBytes) {}

    // --- The world around it

    // The number of requests to the platform that will still be met; none for all of them.
    void setSupply(std::optional<int> requests) { supply_ = requests; }

    // Whether SEG_ALLOC will be on when the table is made the next time.
    void setExactSegments(bool on) { exactNext_ = on; }

    // --- Tags

    // The new tag; none without memory.
    std::optional<int16_t> allocTag()
    {
        if (tags_.empty() && !makeTable()) {
            return std::nullopt;
        }
        if (tags_.size() >= capacity_) {
            if (!supplied()) {
                return std::nullopt;
            }
            capacity_ += kTableStep;
            used_ += kTableStep * recordBytes_;
        }
        std::size_t tag = 1;
        while (tag < tags_.size() && tags_[tag].inUse) {
            ++tag;
        }
        if (tag == tags_.size()) {
            tags_.emplace_back();
        }
        tags_[tag] = {true, 8192, 0, {}};
        return static_cast<int16_t>(tag);
    }

    void setSegmentSize(int16_t tag, uint32_t bytes) { at(tag).segmentSize = bytes; }

    void freeTag(int16_t tag, bool release)
    {
        for (const Segment& segment : at(tag).segments) {
            used_ -= bytesOf(segment);
        }
        at(tag).segments.clear();
        at(tag).allocated = 0;
        at(tag).inUse = !release;
    }

    void freeAll()
    {
        for (std::size_t tag = 0; tag < tags_.size(); ++tag) {
            freeTag(static_cast<int16_t>(tag), true);
        }
        used_ -= static_cast<uint32_t>(capacity_) * recordBytes_;
        capacity_ = 0;
        tags_.clear();
    }

    // --- Blocks

    // A new block. False without memory.
    bool take(int16_t tag, uint32_t size, Block block)
    {
        if (tags_.empty() && !allocTag()) {
            return false;
        }
        return place(at(tag), unitsOf(size), block);
    }

    void give(int16_t tag, Block block)
    {
        Tag& owner = at(tag);
        const Where where = find(owner, block);
        const uint32_t units = pieceAt(owner, where).units;
        release(owner.segments[where.segment], where.piece);
        account(owner, where.segment, units);
    }

    // In place when the block and its free neighbours are large enough, and then at the low end.
    Outcome extend(int16_t tag, Block block, uint32_t size)
    {
        Tag& owner = at(tag);
        const std::vector<Segment> before = supply_ ? owner.segments : std::vector<Segment>{};
        const Where where = find(owner, block);
        Segment& segment = owner.segments[where.segment];
        const uint32_t oldUnits = pieceAt(owner, where).units;
        const uint32_t need = unitsOf(size);
        const std::size_t hole = release(segment, where.piece);
        if (segment.pieces[hole].units >= need) {
            const uint32_t rest = segment.pieces[hole].units - need;
            segment.pieces[hole] = {need, block};
            if (rest > 0) {
                segment.pieces.insert(segment.pieces.begin() + difference(hole) + 1, {rest, kFree});
            }
            owner.allocated += (need - oldUnits) * kUnit;
            return Outcome::kKept;
        }
        if (!place(owner, need, block)) {
            owner.segments = before;
            return Outcome::kNoMemory;
        }
        account(owner, where.segment, oldUnits);
        return Outcome::kMoved;
    }

    // A block that is too small is given back first: without memory it has gone.
    Outcome grow(int16_t tag, Block block, uint32_t size)
    {
        Tag& owner = at(tag);
        if (pieceAt(owner, find(owner, block)).units >= unitsOf(size)) {
            return Outcome::kKept;
        }
        give(tag, block);
        return place(owner, unitsOf(size), block) ? Outcome::kMoved : Outcome::kNoMemory;
    }

    // --- What it says

    uint32_t used() const { return used_; }

    std::size_t capacity() const { return capacity_; }

    const std::vector<Tag>& tags() const { return tags_; }

    static uint32_t unitsOf(uint32_t size)
    {
        return static_cast<uint32_t>((uint64_t{size} + 7) / 8) + 1;
    }

  private:
    static constexpr uint32_t kUnit = 8;
    static constexpr uint32_t kSegmentHeader = 24;
    static constexpr uint32_t kTableStep = 40;

    struct Where {
        std::size_t segment;
        std::size_t piece;
    };

    static std::ptrdiff_t difference(std::size_t index)
    {
        return static_cast<std::ptrdiff_t>(index);
    }

    static uint32_t bytesOf(const Segment& segment)
    {
        return segment.units * kUnit + kSegmentHeader;
    }

    Tag& at(int16_t tag) { return tags_.at(static_cast<std::size_t>(tag)); }

    static Piece& pieceAt(Tag& owner, const Where& where)
    {
        return owner.segments[where.segment].pieces[where.piece];
    }

    bool supplied()
    {
        if (!supply_) {
            return true;
        }
        if (*supply_ == 0) {
            return false;
        }
        --*supply_;
        return true;
    }

    bool makeTable()
    {
        exact_ = exactNext_;
        if (!supplied()) {
            return false;
        }
        capacity_ = kTableStep;
        used_ += kTableStep * recordBytes_;
        tags_.push_back({true, 49152, 0, {}});
        return true;
    }

    static Where find(const Tag& owner, Block block)
    {
        for (std::size_t s = 0; s < owner.segments.size(); ++s) {
            const std::vector<Piece>& pieces = owner.segments[s].pieces;
            for (std::size_t p = 0; p < pieces.size(); ++p) {
                if (pieces[p].block == block) {
                    return {s, p};
                }
            }
        }
        return {owner.segments.size(), 0};  // indexing with it fails, as it should
    }

    // Cuts a block from the high end of a free piece.
    static void cut(Segment& segment, std::size_t piece, uint32_t need, Block block)
    {
        ++segment.live;
        if (segment.pieces[piece].units == need) {
            segment.pieces[piece].block = block;
            return;
        }
        segment.pieces[piece].units -= need;
        segment.pieces.insert(segment.pieces.begin() + difference(piece) + 1, {need, block});
    }

    // First fit, else a new segment behind the others.
    bool place(Tag& owner, uint32_t need, Block block)
    {
        Segment* segment = nullptr;
        std::size_t piece = 0;
        for (std::size_t s = 0; s < owner.segments.size() && segment == nullptr; ++s) {
            const std::vector<Piece>& pieces = owner.segments[s].pieces;
            for (std::size_t p = 0; p < pieces.size(); ++p) {
                if (pieces[p].block == kFree && pieces[p].units >= need) {
                    segment = &owner.segments[s];
                    piece = p;
                    break;
                }
            }
        }
        if (segment == nullptr) {
            uint64_t bytes = uint64_t{need} * kUnit + kSegmentHeader;
            if (!exact_) {
                bytes = std::max<uint64_t>(bytes, owner.segmentSize);
            }
            if (bytes > std::numeric_limits<uint32_t>::max() || !supplied()) {
                return false;
            }
            const auto units = static_cast<uint32_t>((bytes - kSegmentHeader) / kUnit);
            used_ += static_cast<uint32_t>(bytes);
            owner.segments.push_back({units, 0, {{units, kFree}}});
            segment = &owner.segments.back();
        }
        cut(*segment, piece, need, block);
        owner.allocated += need * kUnit;
        return true;
    }

    // Makes a piece free and merges it with its free neighbours; the result is where it is then.
    // The count of live pieces is left to account().
    static std::size_t release(Segment& segment, std::size_t piece)
    {
        std::vector<Piece>& pieces = segment.pieces;
        pieces[piece].block = kFree;
        if (piece + 1 < pieces.size() && pieces[piece + 1].block == kFree) {
            pieces[piece].units += pieces[piece + 1].units;
            pieces.erase(pieces.begin() + difference(piece) + 1);
        }
        if (piece > 0 && pieces[piece - 1].block == kFree) {
            pieces[piece - 1].units += pieces[piece].units;
            pieces.erase(pieces.begin() + difference(piece));
            --piece;
        }
        return piece;
    }

    // Counts a block that was released; a segment without a live block goes back.
    void account(Tag& owner, std::size_t segment, uint32_t units)
    {
        owner.allocated -= units * kUnit;
        if (--owner.segments[segment].live == 0) {
            used_ -= bytesOf(owner.segments[segment]);
            owner.segments.erase(owner.segments.begin() + difference(segment));
        }
    }

    uint32_t recordBytes_;
    std::optional<int> supply_;
    bool exactNext_ = false;
    bool exact_ = false;
    std::size_t capacity_ = 0;  // records
    uint32_t used_ = 0;         // bytes
    std::vector<Tag> tags_;
};

}  // namespace rmtest

#endif
