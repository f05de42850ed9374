// A model of the memory report: its lines, from a description of a heap.
//
// Why: every figure of the report, and the place of every line, is read by people who compare
// reports of different releases and machines, and by programs. The model is told what lies where
// and never looks at a heap; it pads and adds by itself. What lies in a segment is a list of
// pieces, so a damaged segment is described like a sound one: by what a walk over it meets.
//
// Invariant: it shares neither code nor formats with the library. Sums are modulo 2^32.
#ifndef RM_TESTS_MODELS_REPORT_MODEL_H
#define RM_TESTS_MODELS_REPORT_MODEL_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace rmtest
{

class ReportModel
{
  public:
    // What stands in one header.
    struct Piece {
        uint32_t units;
        bool live;
    };

    // What the host has left of the first words of a segment.
    struct Header {
        uint32_t units;
        uint32_t blocks;
        bool leadsToNext;
    };

    struct Segment {
        uint64_t anchor;                // address of the first piece
        uint32_t units;                 // of the data area
        uint32_t blocks;                // as the allocator has counted them
        std::vector<Piece> pieces;      // the anchor first
        std::optional<Header> found{};  // when it may say something else
    };

    struct Tag {
        bool inUse = false;
        std::string name;
        uint32_t limit = 0;
        uint32_t allocated = 0;  // as stored
        std::vector<Segment> segments;
    };

    static constexpr uint64_t kAnchorInSegment = 16;  // bytes from a segment's address

    explicit ReportModel(std::vector<Tag> tags) : tags_(std::move(tags)) {}

    // The lines of a report. The title is what is left of it after both expansions.
    std::vector<std::string> lines(int flags, int tag, const std::string& title = "")
    {
        flags_ = flags & 0xFFFF;
        title_ = title;
        lines_.clear();
        total_ = {};
        reported_ = 0;
        if (has(kTable)) {
            say("       allocated/blocks     freed/blocks  segs");
        }
        if (has(kOneTag)) {
            if (!tags_.empty()) {
                sayTag(tag);
            }
        } else {
            for (std::size_t i = 0; i < tags_.size(); ++i) {
                sayTag(static_cast<int>(i));
            }
        }
        sayTotals();
        lines_.emplace_back("MEMORY REPORT DONE");
        return lines_;
    }

  private:
    static constexpr int kFreeToo = 0x0001;
    static constexpr int kOneTag = 0x0002;
    static constexpr int kTotals = 0x0004;
    static constexpr int kDetail = 0x0010;
    static constexpr int kTable = 0x0040;
    static constexpr int kSign = 0x8000;
    static constexpr std::size_t kLongestLine = 259;

    struct Sum {
        uint32_t blocks[2] = {0, 0};  // free, live
        uint32_t units[2] = {0, 0};

        void add(const Sum& other)
        {
            for (int i = 0; i < 2; ++i) {
                blocks[i] += other.blocks[i];
                units[i] += other.units[i];
            }
        }

        std::string bytesText(bool live, std::size_t width = 0) const
        {
            return right(std::to_string(uint32_t{units[live ? 1 : 0] * 8}), width);
        }

        std::string blocksText(bool live, std::size_t width = 0) const
        {
            return right(std::to_string(blocks[live ? 1 : 0]), width);
        }

        // "24 allocated bytes in 1 block"
        std::string sentence(bool live) const
        {
            return bytesText(live) + (live ? " allocated" : " free") + " bytes in " +
                   several(blocks[live ? 1 : 0], "block");
        }

        // The columns of the table.
        std::string columns(uint32_t last) const
        {
            return bytesText(true, 8) + "/" + blocksText(true, 5) + " : " + bytesText(false, 8) +
                   "/" + blocksText(false, 5) + " : " + right(std::to_string(last), 3);
        }
    };

    bool has(int flag) const { return (flags_ & flag) != 0; }

    bool detailed() const { return has(kDetail) || has(kSign); }

    static std::string right(const std::string& text, std::size_t width)
    {
        return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
    }

    static std::string several(uint32_t count, const std::string& thing)
    {
        return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
    }

    static std::string address(uint64_t value)
    {
        std::string digits;
        for (; value > 0; value /= 16) {
            digits.insert(digits.begin(), "0123456789abcdef"[value % 16]);
        }
        return "0x" + digits;
    }

    void say(const std::string& line)
    {
        if (lines_.empty()) {
            lines_.emplace_back("--------VIRLO MEMORY REPORT--------");
            lines_.push_back(title_);
        }
        lines_.push_back(line.substr(0, kLongestLine));
    }

    void sayTag(int number)
    {
        static const Tag none;
        const bool inTable = number >= 0 && static_cast<std::size_t>(number) < tags_.size();
        const Tag& tag = inTable ? tags_[static_cast<std::size_t>(number)] : none;
        if (detailed()) {
            if (!tag.inUse) {
                return;
            }
            say("TAG " + std::to_string(number) + "(" + right(tag.name, 10) +
                "): limit=" + std::to_string(static_cast<int32_t>(tag.limit)) +
                ", allocated=" + std::to_string(static_cast<int32_t>(tag.allocated)));
        }
        Sum sum;
        for (const Segment& segment : tag.segments) {
            sum.add(saySegment(segment, number));
        }
        const auto segments = static_cast<uint32_t>(tag.segments.size());
        if (tag.allocated != uint32_t{sum.units[1] * 8}) {
            say("WARNING: Tag byte count, " + std::to_string(tag.allocated) +
                " mismatch with counted blocks, " + sum.bytesText(true));
        }
        if (detailed()) {
            say("TAG: " + sum.sentence(true) + ",");
            say("     " + sum.sentence(false));
            say("     and contains " + several(segments, "segment"));
        }
        if (has(kTable)) {
            say("TAG " + right(std::to_string(number), 2) + "(" + right(tag.name, 10) +
                "): " + sum.columns(segments));
        }
        total_.add(sum);
        ++reported_;
    }

    Sum saySegment(const Segment& segment, int tag)
    {
        if (detailed()) {
            say("SEGMENT @ " + address(segment.anchor - kAnchorInSegment) +
                "   size=" + std::to_string(uint32_t{segment.units * 8}));
        }
        Sum sum;
        uint64_t at = segment.anchor;
        for (const Piece& piece : segment.pieces) {
            if (has(kSign) && !has(kTotals) && (piece.live || has(kFreeToo))) {
                say("    " + address(at) + "    " +
                    right(std::to_string(uint32_t{piece.units * 8}), 6) + " (" +
                    std::to_string(tag) + ")" + (piece.live ? "" : " free"));
            }
            sum.blocks[piece.live ? 1 : 0] += piece.live || piece.units > 0 ? 1 : 0;
            sum.units[piece.live ? 1 : 0] += piece.units;
            at += uint64_t{8} * std::max(piece.units, 1U);
        }
        if (detailed()) {
            say("SEGMENT: " + sum.sentence(true));
            say("         " + sum.sentence(false));
        }
        compare(segment, tag, sum);
        return sum;
    }

    // The header, and what is kept beside the segment, against what was found.
    void compare(const Segment& segment, int tag, const Sum& sum)
    {
        const Header header = segment.found.value_or(Header{segment.units, segment.blocks, true});
        const uint32_t live = sum.blocks[1];
        if (live != header.blocks || live != segment.blocks) {
            say("WARNING: Segment block count, " +
                std::to_string(live != header.blocks ? header.blocks : segment.blocks) +
                " mismatch with counted blocks, " + std::to_string(live));
        }
        const uint32_t counted = sum.units[0] + sum.units[1];
        if (counted != header.units || counted != segment.units) {
            say("WARNING: Segment unit count, " + std::to_string(counted) +
                " mismatch with counted units, " +
                std::to_string(counted != header.units ? header.units : segment.units));
        }
        if (!header.leadsToNext) {
            say("WARNING: memory check: tag " + std::to_string(tag) + ", segment " +
                address(segment.anchor - kAnchorInSegment) +
                ": the chain of segments is not as it is kept");
        }
    }

    void sayTotals()
    {
        if (has(kTotals) || has(kSign)) {
            say("TOTAL: " + total_.sentence(true) + ",");
            say("       " + total_.sentence(false));
            say("       System contains " + several(reported_, "active tag"));
        }
        if (has(kTable)) {
            say("TOTAL : " + total_.columns(reported_));
        }
    }

    std::vector<Tag> tags_;
    int flags_ = 0;
    std::string title_;
    std::vector<std::string> lines_;
    Sum total_;
    uint32_t reported_ = 0;
};

}  // namespace rmtest

#endif
