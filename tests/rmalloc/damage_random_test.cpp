// A host that writes over headers, in a long random run of every allocation call.
//
// Why: an overrun in a server must not bring down the sessions whose memory it did not reach. Words
// before live and free blocks and in anchors are written over, old headers come back, blocks are
// forged inside of others; all the while blocks are taken, resized and given back. What may happen
// is little: a call is refused with one of the known lines, or does what it should. A block whose
// own header is damaged is always refused; one around which nothing is damaged never is.
//
// The run knows each live block and its units, and so every header as it ought to be: that is how
// it puts the damage right now and then, after which the heap must be sound in every respect.
//
//     RM_TEST_SEED=123            repeats a run; a failure prints its seed
//     RM_TEST_OPERATIONS=1000000  makes longer ones: the number of calls in each case
#include "tests/rmalloc/heap.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace
{
using rmalloc::blockAt;
using rmalloc::BlockHeader;
using rmalloc::kLiveMagic;
using rmalloc::offsetOf;
using rmalloc::Segment;
using rmalloc::tagTable;
using rmtest::headerBefore;
using rmtest::Lines;
using rmtest::segmentsOf;

struct Mix {
    const char* name;
    uint32_t seed;
    uint32_t operations;
    uint32_t segmentSize;  // bytes
    std::vector<uint32_t> requestSizes;
    std::size_t mostBlocks;
    int16_t segAlloc;
};

void PrintTo(const Mix& mix, std::ostream* out)
{
    *out << mix.name;
}

const Mix kMixes[] = {
    {"SmallSegments", 201, 25'000, 184, {8, 20, 40, 90}, 60, 0},
    {"OneStripOrMore", 202, 25'000, 1024, {0, 16, 40, 100, 400}, 60, 0},
    {"BlocksOfSeveralStrips", 203, 20'000, 32'768, {16, 700, 3000, 9000}, 50, 0},
    {"SegmentsOfOneBlock", 204, 20'000, 8192, {0, 16, 100, 1500}, 60, 1},
};

constexpr Tag kTags = 3;  // tags 1 to 3 are used

class DamageRun
{
  public:
    DamageRun(const Mix& mix, uint32_t seed) : mix_(mix), random_(seed)
    {
        for (Tag tag = 1; tag <= kTags; ++tag) {
            rm_allocTag(nullptr, RM_NO_LIMIT);
            rm_setTagAlloc(mix.segmentSize, tag);
        }
        seg_alloc = mix.segAlloc;
    }

    // False at the first thing that is wrong, which story() tells.
    bool make(uint64_t operations)
    {
        constexpr uint64_t kChunk = 100;
        for (uint64_t done = 0; done < operations && !failed(); done += kChunk) {
            const std::string text = rmtest::captureStderr([&] {
                for (operation_ = done; operation_ < done + kChunk && !failed(); ++operation_) {
                    step();
                    expectFigures();
                }
            });
            compareLines(rmtest::logLines(text));
            checkAll();
        }
        putRight();
        return !failed();
    }

    std::string story() const
    {
        std::string text;
        for (const std::string& line : recent_) {
            text += line + '\n';
        }
        return text + "operation " + std::to_string(operation_) + ": " + difference_;
    }

    uint32_t refusals() const { return refusals_; }

    uint32_t accepted() const { return accepted_; }

  private:
    struct Block {
        Tag tag;
        uint32_t size;
        uint32_t units;
        uint32_t seed;
        bool dirty;  // what is in it was written over
    };

    using Live = std::map<void*, Block>;

    // A block as it ought to be, or an anchor.
    struct Piece {
        BlockHeader* header;
        BlockHeader truth;
    };

    // What a call may log.
    struct Expected {
        const void* pointer;
        bool own;  // the block's own header is damaged: it is no live block
    };

    uint32_t below(std::size_t bound)
    {
        return bound == 0 ? 0 : static_cast<uint32_t>(random_() % bound);
    }

    bool oneIn(uint32_t n) { return below(n) == 0; }

    bool failed() const { return !difference_.empty(); }

    __attribute__((format(printf, 2, 3))) void fail(const char* format, ...)
    {
        char text[256];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        if (difference_.empty()) {
            difference_ = text;
        }
    }

    __attribute__((format(printf, 2, 3))) void note(const char* format, ...)
    {
        char text[128];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        recent_.emplace_back(text);
        if (recent_.size() > 30) {
            recent_.erase(recent_.begin());
        }
    }

    // --- What is there

    Tag anyTag() { return static_cast<Tag>(1 + below(kTags)); }

    Live::iterator anyBlock()
    {
        auto at = live_.begin();
        std::advance(at, below(live_.size()));
        return at;
    }

    Segment* anySegment()
    {
        std::vector<Segment*> all;
        for (Tag tag = 1; tag <= kTags; ++tag) {
            const auto some = segmentsOf(tag);
            all.insert(all.end(), some.begin(), some.end());
        }
        return all.empty() ? nullptr : all[below(all.size())];
    }

    Segment* segmentHolding(Tag tag, const void* pointer) const
    {
        for (Segment* segment = tagTable[tag].segments; segment != nullptr;
             segment = segment->next) {
            if (rmalloc::holds(segment, segment->units, static_cast<const BlockHeader*>(pointer))) {
                return segment;
            }
        }
        return nullptr;
    }

    // The anchor and the blocks of a segment, as the live ones have it.
    std::vector<Piece> piecesOf(Segment* segment) const
    {
        std::vector<Piece> pieces = {{&segment->anchor, {0, 0}}};
        std::size_t lastFree = 0;
        const auto addFree = [&](uint32_t from, uint32_t to) {
            if (from < to) {
                pieces[lastFree].truth.word1 = from;
                lastFree = pieces.size();
                pieces.push_back({blockAt(segment, from), {0, to - from}});
            }
        };
        uint32_t offset = 1;
        const BlockHeader* end = blockAt(segment, segment->units + 1);
        for (auto at = live_.upper_bound(segment); at != live_.end() && at->first <= end; ++at) {
            const uint32_t begin = offsetOf(segment, headerBefore(at->first));
            addFree(offset, begin);
            pieces.push_back({blockAt(segment, begin), {kLiveMagic, at->second.units}});
            offset = begin + at->second.units;
        }
        addFree(offset, segment->units + 1);
        return pieces;
    }

    static bool isRight(const Piece& piece)
    {
        return piece.header->word1 == piece.truth.word1 && piece.header->units == piece.truth.units;
    }

    static bool isOwnRight(const Live::value_type& block)
    {
        const BlockHeader* header = static_cast<const BlockHeader*>(block.first) - 1;
        return header->word1 == kLiveMagic && header->units == block.second.units;
    }

    // True when every header of the segment is right: then nothing may be refused.
    bool isWholeSegmentRight(Segment* segment) const
    {
        const std::vector<Piece> pieces = piecesOf(segment);
        return std::all_of(pieces.begin(), pieces.end(), isRight);
    }

    // True when the block, the anchor and the free blocks next to it are right.
    bool isAroundRight(Segment* segment, const void* pointer) const
    {
        const std::vector<Piece> pieces = piecesOf(segment);
        const Piece* below = pieces.data();
        for (std::size_t i = 1; i < pieces.size(); ++i) {
            if (pieces[i].header + 1 == pointer) {
                const bool hasNext =
                    i + 1 < pieces.size() && pieces[i + 1].truth.word1 != kLiveMagic;
                return isRight(pieces[0]) && isRight(*below) && isRight(pieces[i]) &&
                       (!hasNext || isRight(pieces[i + 1]));
            }
            if (pieces[i].truth.word1 != kLiveMagic) {
                below = &pieces[i];
            }
        }
        return false;
    }

    // --- Damage

    uint32_t anyWord(Segment* segment)
    {
        switch (below(7)) {
            case 0:
                return kLiveMagic;
            case 1:
                return 0;
            case 2:
                return 0x41414141;
            case 3:
                return static_cast<uint32_t>(random_());
            default:
                return below(segment->units + 3);  // plausible units, a plausible link
        }
    }

    // What is in live blocks that reach into the bytes counts no longer.
    void markDirty(const void* from, const void* to)
    {
        for (auto& [pointer, block] : live_) {
            if (pointer<to&& static_cast<const char*>(pointer) + block.size> from) {
                block.dirty = true;
            }
        }
    }

    void damageHeader(Segment* segment)
    {
        const std::vector<Piece> pieces = piecesOf(segment);
        BlockHeader* header = pieces[below(pieces.size())].header;
        const uint32_t which = 1 + below(3);
        note("write over words %u of the header %p", which, static_cast<void*>(header));
        if ((which & 1) != 0) {
            header->word1 = anyWord(segment);
        }
        if ((which & 2) != 0) {
            header->units = anyWord(segment);
        }
    }

    // The units lead to the end of another block.
    void damageUnits(Segment* segment)
    {
        const std::vector<Piece> pieces = piecesOf(segment);
        const std::size_t first = 1 + below(pieces.size() - 1);
        const std::size_t last = first + below(pieces.size() - first);
        const auto begin = offsetOf(segment, pieces[first].header);
        const auto end = offsetOf(segment, pieces[last].header) + pieces[last].truth.units;
        note("units of the header %p to %u", static_cast<void*>(pieces[first].header), end - begin);
        pieces[first].header->units = end - begin;
    }

    void damageLink(Segment* segment)
    {
        const std::vector<Piece> pieces = piecesOf(segment);
        const Piece& to = pieces[below(pieces.size())];
        for (const Piece& piece : pieces) {
            if (piece.truth.word1 != kLiveMagic && oneIn(3)) {
                note("link of the header %p to %p", static_cast<void*>(piece.header),
                     static_cast<void*>(to.header));
                piece.header->word1 = offsetOf(segment, to.header);
                return;
            }
        }
    }

    // A run of bytes from anywhere in the data area, the anchor included.
    void overrun(Segment* segment)
    {
        auto* begin = reinterpret_cast<char*>(&segment->anchor);
        const uint32_t bytes = (segment->units + 1) * 8;
        const uint32_t from = below(bytes);
        const uint32_t length = 1 + below(std::min(bytes - from, oneIn(4) ? 300U : 24U));
        note("overrun of %u bytes at %p", length, static_cast<void*>(begin + from));
        std::memset(begin + from, static_cast<int>(below(256)), length);
        markDirty(begin + from, begin + from + length);
    }

    // The header of a block, good to look at, where there is none.
    void forge(Segment* segment)
    {
        BlockHeader* header = blockAt(segment, 1 + below(segment->units));
        const uint32_t room = segment->units - offsetOf(segment, header) + 1;
        note("forge a block at %p", static_cast<void*>(header + 1));
        *header = {kLiveMagic, 1 + below(oneIn(2) ? room : std::min(room, 5U))};
        markDirty(header, header + 1);
        forged_.push_back(header + 1);
    }

    // Headers of live blocks that the host has written over, and not the library.
    void noteDamaged()
    {
        damaged_.clear();
        for (const auto& one : live_) {
            if (!isOwnRight(one)) {
                damaged_.insert(one.first);
            }
        }
    }

    void damage()
    {
        Segment* segment = anySegment();
        if (segment == nullptr) {
            return;
        }
        switch (below(6)) {
            case 0:
                damageUnits(segment);
                break;
            case 1:
                damageLink(segment);
                break;
            case 2:
                overrun(segment);
                break;
            case 3:
                forge(segment);
                break;
            default:
                damageHeader(segment);
                break;
        }
        noteDamaged();
    }

    // --- Putting it right

    void putRight()
    {
        note("put everything right");
        for (Tag tag = 1; tag <= kTags; ++tag) {
            for (Segment* segment : segmentsOf(tag)) {
                for (const Piece& piece : piecesOf(segment)) {
                    *piece.header = piece.truth;
                }
            }
        }
        for (auto& [pointer, block] : live_) {
            if (block.dirty) {
                rmtest::fill(pointer, block.size, block.seed);
                block.dirty = false;
            }
        }
        forged_.clear();
        damaged_.clear();
        const uint32_t violations = rmalloc::checkMemory();
        if (violations != 0) {
            fail("%u violations in a heap that was put right", violations);
        }
    }

    // --- Calls

    void add(void* pointer, uint32_t size, Tag tag)
    {
        const Block block = {tag, size, rmalloc::unitsFor(size), operationSeed(), false};
        const auto begin = reinterpret_cast<uintptr_t>(pointer) - 8;
        const auto next = live_.lower_bound(pointer);
        if (next != live_.end() &&
            begin + block.units * 8 > reinterpret_cast<uintptr_t>(next->first) - 8) {
            fail("the block at %p reaches into another one", pointer);
        }
        if (next != live_.begin()) {
            const auto& [previous, other] = *std::prev(next);
            if (reinterpret_cast<uintptr_t>(previous) - 8 + other.units * 8 > begin) {
                fail("the block at %p begins in another one", pointer);
            }
        }
        const Segment* segment = segmentHolding(tag, static_cast<char*>(pointer) - 8);
        if (segment == nullptr ||
            begin + block.units * 8 >
                reinterpret_cast<uintptr_t>(segment + 1) + uintptr_t{segment->units} * 8) {
            fail("the block at %p is in no segment", pointer);
            return;
        }
        live_[pointer] = block;
        if (!isOwnRight(*live_.find(pointer))) {
            fail("the new block at %p has a wrong header", pointer);
        }
        rmtest::fill(pointer, size, block.seed);
        last_ = pointer;
        damaged_.erase(pointer);
    }

    uint32_t operationSeed() const { return static_cast<uint32_t>(operation_); }

    uint32_t requestSize() { return below(mix_.requestSizes[below(mix_.requestSizes.size())] + 1); }

    void checkContents(const Live::value_type& one, uint32_t bytes)
    {
        const auto& [pointer, block] = one;
        if (!block.dirty && !rmtest::holdsPattern(pointer, bytes, block.seed)) {
            fail("the contents of %p have changed", pointer);
        }
    }

    void take()
    {
        const Tag tag = anyTag();
        const uint32_t size = requestSize();
        const uint32_t way = below(5);
        note("take %u bytes of tag %d, way %u", size, tag, way);
        if (way == 4) {
            const std::string text(size, 'x');
            char* copy = rm_Strdup(text.c_str(), tag);
            add(copy, size + 1, tag);
            return;
        }
        void* pointer = way == 0   ? rm_cGetMemory(size, tag)
                        : way == 1 ? rm_extendMemory(nullptr, size, tag)
                        : way == 2 ? rm_growMemory(nullptr, size, tag)
                                   : rm_getMemory(size, tag);
        add(pointer, size, tag);
    }

    // Whether the block was given back must be what its surroundings say.
    void judge(const void* pointer, bool own, bool around, bool done)
    {
        if (done && !own) {
            fail("the block at %p has a damaged header and was accepted", pointer);
        }
        if (!done && around) {
            fail("nothing around the block at %p is damaged and it was refused", pointer);
        }
        if (done) {
            ++accepted_;
        } else {
            ++refusals_;
            expected_.push_back({pointer, !own});
        }
    }

    struct Surroundings {
        bool own;
        bool around;
        bool whole;
    };

    Surroundings surroundingsOf(const Live::value_type& one) const
    {
        Segment* segment = segmentHolding(one.second.tag, headerBefore(one.first));
        return {isOwnRight(one), isAroundRight(segment, one.first), isWholeSegmentRight(segment)};
    }

    void give()
    {
        const auto at = oneIn(2) && live_.contains(last_) ? live_.find(last_) : anyBlock();
        const Block block = at->second;
        void* pointer = at->first;
        note("free %p of tag %d", pointer, block.tag);
        checkContents(*at, block.size);
        const Surroundings before = surroundingsOf(*at);
        const uint32_t allocated = tagTable[block.tag].allocated;
        void* zeroed = pointer;
        if (oneIn(4)) {
            rm_zFreeMemory(&zeroed, block.tag);
        } else {
            rm_freeMemory(pointer, block.tag);
        }
        const bool done = tagTable[block.tag].allocated != allocated;
        judge(pointer, before.own, before.around, done);
        if (done) {
            live_.erase(at);
            stale_.push_back(pointer);
        }
    }

    void extend()
    {
        const auto at = anyBlock();
        const Block block = at->second;
        void* pointer = at->first;
        const uint32_t size = oneIn(2) ? block.size + below(30) : requestSize();
        note("extend %p to %u bytes of tag %d", pointer, size, block.tag);
        checkContents(*at, block.size);
        const Surroundings before = surroundingsOf(*at);
        const uint32_t allocated = tagTable[block.tag].allocated;
        void* result = rm_extendMemory(pointer, size, block.tag);
        // One free block further down is written to when the block below is absorbed.
        judge(pointer, before.own, before.whole, result != nullptr);
        if (result == nullptr) {
            return;
        }
        // The new block took what was free below the old one, and further down there is damage: the
        // old one cannot be given back any more.
        const bool left = result != pointer &&
                          tagTable[block.tag].allocated == allocated + rmalloc::unitsFor(size) * 8;
        if (left && before.whole) {
            fail("the block at %p has moved and was not given back", pointer);
        }
        if (left) {
            expected_.push_back({pointer, false});
        } else {
            live_.erase(at);
        }
        const uint32_t kept = std::min(size, block.size);
        if (!block.dirty && !rmtest::holdsPattern(result, kept, block.seed)) {
            fail("the contents of %p were not kept", pointer);
        }
        add(result, size, block.tag);
    }

    void grow()
    {
        const auto at = anyBlock();
        const Block block = at->second;
        void* pointer = at->first;
        const uint32_t size = requestSize();
        note("grow %p to %u bytes of tag %d", pointer, size, block.tag);
        checkContents(*at, block.size);
        const Surroundings before = surroundingsOf(*at);
        const uint32_t allocated = tagTable[block.tag].allocated;
        void* result = rm_growMemory(pointer, size, block.tag);
        if (result == nullptr) {
            judge(pointer, before.own, before.around, false);
            return;
        }
        if (rmalloc::unitsFor(size) <= block.units) {
            if (result != pointer || !before.own) {
                fail("the block at %p was not kept", pointer);
            }
            return;
        }
        const uint32_t added = rmalloc::unitsFor(size) * 8;
        const bool given = tagTable[block.tag].allocated == allocated + added - block.units * 8;
        judge(pointer, before.own, before.around, given);
        if (given) {
            live_.erase(at);
        }
        add(result, size, block.tag);
    }

    // Pointers that are no block: old ones, forged ones, pointers into blocks and into free space.
    void misuse()
    {
        const Tag tag = anyTag();
        void* pointer = nullptr;
        if (!forged_.empty() && oneIn(2)) {
            pointer = forged_[below(forged_.size())];
        } else if (!stale_.empty() && oneIn(2)) {
            pointer = stale_[below(stale_.size())];
            const auto from = reinterpret_cast<uintptr_t>(pointer) - 8;
            if (Segment* segment = segmentHolding(tag, reinterpret_cast<const void*>(from))) {
                BlockHeader* header = headerBefore(pointer);
                note("an old header comes back at %p", pointer);
                *header = {kLiveMagic, 1 + below(segment->units)};
                markDirty(header, header + 1);
                noteDamaged();
            }
        } else if (Segment* segment = anySegment()) {
            pointer = reinterpret_cast<char*>(&segment->anchor) + below((segment->units + 2) * 8);
        }
        if (pointer == nullptr || live_.contains(pointer)) {
            return;
        }
        const uint32_t way = below(3);
        note("misuse %p of tag %d, way %u", pointer, tag, way);
        const std::string figures = allFigures();
        if (way == 0) {
            rm_freeMemory(pointer, tag);
        } else if ((way == 1 ? rm_extendMemory(pointer, requestSize(), tag)
                             : rm_growMemory(pointer, requestSize(), tag)) != nullptr) {
            fail("%p is no block and was accepted", pointer);
        }
        expected_.push_back({pointer, true});
        if (allFigures() != figures) {
            fail("%p is no block and was given back", pointer);
        }
    }

    std::string allFigures() const
    {
        std::string text = std::to_string(rm_memused());
        for (Tag tag = 1; tag <= kTags; ++tag) {
            text += ' ' + std::to_string(tagTable[tag].allocated);
        }
        return text;
    }

    void freeTag()
    {
        const Tag tag = anyTag();
        note("free tag %d", tag);
        rm_freeTagMemory(tag, 0);
        std::erase_if(live_, [&](const auto& one) { return one.second.tag == tag; });
        stale_.clear();
        forged_.clear();
    }

    // A report of all tags, whatever is in the segments. Its lines are for its own tests.
    void makeReport()
    {
        note("report");
        const std::string text =
            rmtest::captureStderr([&] { rm_memReport(RM_REPORT_DETAIL, 0, "damage"); });
        if (text.find("MEMORY REPORT DONE") == std::string::npos) {
            fail("the report does not end");
        }
    }

    void step()
    {
        const uint32_t chance = below(1000);
        if (chance < 120) {
            damage();
        } else if (chance < 140) {
            putRight();
        } else if (chance < 144) {
            freeTag();
        } else if (chance < 149) {
            makeReport();
        } else if (chance < 200) {
            misuse();
        } else if (live_.empty() || (live_.size() < mix_.mostBlocks && chance < 560)) {
            take();
        } else if (chance < 820) {
            give();
        } else if (chance < 930) {
            extend();
        } else {
            grow();
        }
        if (stale_.size() > 40) {
            stale_.erase(stale_.begin());
        }
    }

    // --- What must hold after every call

    void expectFigures()
    {
        uint32_t used = 40 * rmtest::kRecord;
        for (Tag tag = 0; tag <= kTags; ++tag) {
            for (const Segment* segment : segmentsOf(tag)) {
                used += segment->units * 8 + 24;
            }
        }
        for (const auto& one : live_) {
            if (!damaged_.contains(one.first) && !isOwnRight(one)) {
                fail("the header of %p has changed", one.first);
            }
        }
        if (used != rm_memused()) {
            fail("rm_memused is %u, not %u", rm_memused(), used);
        }
        uint32_t allocated[kTags + 1] = {};
        for (const auto& [pointer, block] : live_) {
            allocated[block.tag] += block.units * 8;
        }
        for (Tag tag = 1; tag <= kTags; ++tag) {
            if (tagTable[tag].allocated != allocated[tag]) {
                fail("tag %d has %u bytes allocated, not %u", tag, tagTable[tag].allocated,
                     allocated[tag]);
            }
        }
    }

    void checkAll()
    {
        for (const auto& one : live_) {
            checkContents(one, one.second.size);
        }
    }

    // One line for each call that was refused: which one, the state of the block says.
    void compareLines(const Lines& lines)
    {
        for (std::size_t i = 0; i < std::max(lines.size(), expected_.size()); ++i) {
            const std::string line = i < lines.size() ? lines[i] : "";
            const bool fits =
                i < expected_.size() &&
                line == (expected_[i].own ? rmtest::badPointer(expected_[i].pointer)
                                          : rmtest::corruptedChain(expected_[i].pointer));
            if (!fits) {
                fail("line %zu of %zu: \"%s\"", i, expected_.size(), line.c_str());
                break;
            }
        }
        expected_.clear();
    }

    const Mix& mix_;
    std::mt19937 random_;
    Live live_;
    std::set<void*> damaged_;    // live blocks with a header that is not theirs
    std::vector<void*> stale_;   // were blocks
    std::vector<void*> forged_;  // look like blocks
    std::vector<Expected> expected_;
    void* last_ = nullptr;  // the block that was had last
    uint64_t operation_ = 0;
    uint32_t refusals_ = 0;
    uint32_t accepted_ = 0;
    std::vector<std::string> recent_;
    std::string difference_;
};

class DamageRandom : public rmtest::HeapTest, public ::testing::WithParamInterface<Mix>
{
};

TEST_P(DamageRandom, IsRefusedOrDoesNotMatterAndCanBePutRight)
{
    const Mix& mix = GetParam();
    const auto seed = static_cast<uint32_t>(rmtest::seedOfThisRun(mix.seed));
    const auto operations =
        static_cast<uint64_t>(rmtest::operationsOfThisRun(static_cast<long>(mix.operations)));
    const rmtest::WrittenMemory written{};
    DamageRun run(mix, seed);
    EXPECT_TRUE(run.make(operations))
        << run.story() << "\nRM_TEST_SEED=" << seed << " RM_TEST_OPERATIONS=" << operations;
    EXPECT_GT(run.refusals(), operations / 100);
    EXPECT_GT(run.accepted(), operations / 10);
}

INSTANTIATE_TEST_SUITE_P(With, DamageRandom, ::testing::ValuesIn(kMixes),
                         [](const ::testing::TestParamInfo<Mix>& mix) {
                             return std::string(mix.param.name);
                         });
}  // namespace
