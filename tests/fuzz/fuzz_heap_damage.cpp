// A host that writes over headers between allocation calls: before live and free blocks, in
// anchors, with blocks forged inside of others. A call is refused with its line, or does what it
// should. A block whose own header is damaged is always refused; one around which nothing is
// damaged never is.
//
// Input: two bytes that say how segments are got and how large they are, then one for each call or
// damage with what it needs behind it.
//
// The target knows each live block and its units, and so every header as it ought to be. In the end
// it puts all of them right, and the heap must be sound in every respect.
#include "fuzz.h"
#include "memory.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <set>

// The linker leads all calls of rm_getSeg to the first. Their names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" void* __wrap_rm_getSeg(uint32_t size);
extern "C" void* __real_rm_getSeg(uint32_t size);

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace
{
using rmalloc::blockAt;
using rmalloc::BlockHeader;
using rmalloc::kLiveMagic;
using rmalloc::offsetOf;
using rmalloc::Segment;
using rmfuzz::badPointer;
using rmfuzz::corruptedChain;
using rmfuzz::holdsPattern;
using rmfuzz::Input;
using Lines = std::vector<std::string>;

constexpr int kMostSteps = 250;
constexpr std::size_t kMostBlocks = 60;
constexpr int16_t kTags = 2;  // tags 1 and 2 are used
constexpr std::array<uint32_t, 4> kSegmentSizes = {184, 1024, 8192, 32'768};

enum Step : uint8_t {
    kTake,
    kTakeToo,
    kGive,
    kGiveToo,
    kExtend,
    kGrow,
    kDamageHeader,
    kDamageUnits,
    kDamageLink,
    kOverrun,
    kForge,
    kOldHeader,
    kMisuse,
    kReport,
    kPutRight,
    kFreeTag,
    kSteps,
};

struct Block {
    int16_t tag;
    uint32_t size;
    uint32_t units;
    uint32_t seed;
    bool dirty;  // what is in it was written over
};

using Live = std::map<char*, Block>;

// A block as it ought to be, or an anchor.
struct Piece {
    BlockHeader* header;
    BlockHeader truth;
};

BlockHeader* headerBefore(char* pointer)
{
    return reinterpret_cast<BlockHeader*>(pointer) - 1;
}

bool isRight(const Piece& piece)
{
    return piece.header->word1 == piece.truth.word1 && piece.header->units == piece.truth.units;
}

bool isOwnRight(const Live::value_type& one)
{
    const BlockHeader* header = headerBefore(one.first);
    return header->word1 == kLiveMagic && header->units == one.second.units;
}

class Damaged
{
  public:
    explicit Damaged(Input& input) : input_(input)
    {
        rmfuzz::beginAnew(input.byte() % 2 == 1);
        const uint32_t size = kSegmentSizes.at(input.byte() % kSegmentSizes.size());
        for (int16_t tag = 1; tag <= kTags; ++tag) {
            FUZZ_CHECK(rm_allocTag(nullptr, RM_NO_LIMIT) == tag);
            rm_setTagAlloc(size, tag);
        }
        rmfuzz::takeLog();
    }

    void step()
    {
        expected_.clear();
        ++seed_;
        const auto step = static_cast<Step>(input_.byte() % kSteps);
        make(step);
        FUZZ_CHECK(step == kReport || rmfuzz::takeLines() == expected_);
        checkFigures();
    }

    void end()
    {
        for (const auto& one : live_) {
            checkContents(one, one.second.size);
        }
        putRight();
        while (!live_.empty()) {
            rm_freeMemory(live_.begin()->first, live_.begin()->second.tag);
            live_.erase(live_.begin());
        }
        checkFigures();
        FUZZ_CHECK(rmfuzz::takeLog().empty());
    }

  private:
    struct Surroundings {
        bool own;
        bool around;
        bool whole;
    };

    // --- What is there

    int16_t tag() { return static_cast<int16_t>(1 + input_.byte() % kTags); }

    uint32_t word() { return static_cast<uint16_t>(input_.int16()); }

    uint32_t size()
    {
        const uint8_t first = input_.byte();
        return first < 240 ? first : word() % 10'000;
    }

    Live::iterator block()
    {
        auto at = live_.begin();
        std::advance(at, static_cast<std::ptrdiff_t>(input_.byte() % live_.size()));
        return at;
    }

    Segment* segment()
    {
        std::vector<Segment*> all;
        for (int16_t tag = 1; tag <= kTags; ++tag) {
            for (Segment* one = rmalloc::tagTable[tag].segments; one != nullptr; one = one->next) {
                all.push_back(one);
            }
        }
        return all.empty() ? nullptr : all[input_.byte() % all.size()];
    }

    static Segment* segmentHolding(int16_t tag, const BlockHeader* header)
    {
        Segment* one = rmalloc::tagTable[tag].segments;
        while (one != nullptr && !rmalloc::holds(one, one->units, header)) {
            one = one->next;
        }
        return one;
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
        const char* end = reinterpret_cast<char*>(blockAt(segment, segment->units + 1));
        for (auto at = live_.upper_bound(reinterpret_cast<char*>(segment));
             at != live_.end() && at->first <= end; ++at) {
            const uint32_t begin = offsetOf(segment, headerBefore(at->first));
            addFree(offset, begin);
            pieces.push_back({blockAt(segment, begin), {kLiveMagic, at->second.units}});
            offset = begin + at->second.units;
        }
        addFree(offset, segment->units + 1);
        return pieces;
    }

    // Whether the block, the anchor and the free blocks next to it are right.
    static bool isAroundRight(const std::vector<Piece>& pieces, const char* pointer)
    {
        const Piece* below = pieces.data();
        for (std::size_t i = 1; i < pieces.size(); ++i) {
            const bool isFree = pieces[i].truth.word1 != kLiveMagic;
            if (reinterpret_cast<char*>(pieces[i].header + 1) == pointer) {
                const bool hasNext =
                    i + 1 < pieces.size() && pieces[i + 1].truth.word1 != kLiveMagic;
                return isRight(pieces[0]) && isRight(*below) && isRight(pieces[i]) &&
                       (!hasNext || isRight(pieces[i + 1]));
            }
            if (isFree) {
                below = &pieces[i];
            }
        }
        return false;
    }

    Surroundings surroundingsOf(const Live::value_type& one) const
    {
        Segment* segment = segmentHolding(one.second.tag, headerBefore(one.first));
        FUZZ_CHECK(segment != nullptr);
        const std::vector<Piece> pieces = piecesOf(segment);
        return {isOwnRight(one), isAroundRight(pieces, one.first),
                std::all_of(pieces.begin(), pieces.end(), isRight)};
    }

    static uint32_t allocated(int16_t tag) { return rmalloc::tagTable[tag].allocated; }

    // --- Damage

    uint32_t anyWord(Segment* segment)
    {
        switch (input_.byte() % 6) {
            case 0:
                return kLiveMagic;
            case 1:
                return 0;
            case 2: {
                const uint32_t high = word();
                return high << 16U | word();
            }
            default:
                return word() % (segment->units + 3);  // plausible units, a plausible link
        }
    }

    void markDirty(const char* from, const char* to)
    {
        for (auto& [pointer, block] : live_) {
            if (std::less<>()(pointer, to) && std::less<>()(from, pointer + block.size)) {
                block.dirty = true;
            }
        }
    }

    void damageHeader(Segment* segment)
    {
        const std::vector<Piece> pieces = piecesOf(segment);
        BlockHeader* header = pieces[input_.byte() % pieces.size()].header;
        const unsigned which = 1 + input_.byte() % 3U;
        if ((which & 1U) != 0) {
            header->word1 = anyWord(segment);
        }
        if ((which & 2U) != 0) {
            header->units = anyWord(segment);
        }
    }

    // The units lead to the end of another block.
    void damageUnits(Segment* segment)
    {
        const std::vector<Piece> pieces = piecesOf(segment);
        const std::size_t first = 1 + input_.byte() % (pieces.size() - 1);
        const std::size_t last = first + input_.byte() % (pieces.size() - first);
        pieces[first].header->units = offsetOf(segment, pieces[last].header) +
                                      pieces[last].truth.units -
                                      offsetOf(segment, pieces[first].header);
    }

    void damageLink(Segment* segment)
    {
        const std::vector<Piece> pieces = piecesOf(segment);
        const Piece& from = pieces[input_.byte() % pieces.size()];
        const Piece& to = pieces[input_.byte() % pieces.size()];
        from.header->word1 = offsetOf(segment, to.header);
    }

    void overrun(Segment* segment)
    {
        auto* begin = reinterpret_cast<char*>(&segment->anchor);
        const uint32_t bytes = (segment->units + 1) * rmalloc::kUnit;
        const uint32_t from = word() % bytes;
        const uint32_t length = 1 + input_.byte() % std::min<uint32_t>(bytes - from, UINT8_MAX);
        std::memset(begin + from, input_.byte(), length);
        markDirty(begin + from, begin + from + length);
    }

    // The header of a block, good to look at, where there is none.
    void forgeAt(BlockHeader* header, uint32_t units)
    {
        *header = {kLiveMagic, units};
        markDirty(reinterpret_cast<char*>(header), reinterpret_cast<char*>(header + 1));
    }

    void forge(Segment* segment)
    {
        BlockHeader* header = blockAt(segment, 1 + word() % segment->units);
        forgeAt(header, 1 + input_.byte() % (segment->units - offsetOf(segment, header) + 1));
        forged_.push_back(reinterpret_cast<char*>(header + 1));
    }

    void oldHeader()
    {
        if (stale_.empty()) {
            return;
        }
        char* pointer = stale_[input_.byte() % stale_.size()];
        const int16_t owner = tag();
        const uint8_t units = input_.byte();
        // As numbers: the segment may have gone.
        auto* header = reinterpret_cast<BlockHeader*>(reinterpret_cast<uintptr_t>(pointer) - 8);
        if (Segment* segment = segmentHolding(owner, header)) {
            forgeAt(header, 1 + units % segment->units);
        }
    }

    void damage(Step step)
    {
        if (step == kOldHeader) {
            oldHeader();
        } else if (Segment* one = segment()) {
            switch (step) {
                case kDamageUnits:
                    damageUnits(one);
                    break;
                case kDamageLink:
                    damageLink(one);
                    break;
                case kOverrun:
                    overrun(one);
                    break;
                case kForge:
                    forge(one);
                    break;
                default:
                    damageHeader(one);
                    break;
            }
        }
        damaged_.clear();
        for (const auto& one : live_) {
            if (!isOwnRight(one)) {
                damaged_.insert(one.first);
            }
        }
    }

    void putRight()
    {
        for (int16_t tag = 1; tag <= kTags; ++tag) {
            for (Segment* one = rmalloc::tagTable[tag].segments; one != nullptr; one = one->next) {
                for (const Piece& piece : piecesOf(one)) {
                    *piece.header = piece.truth;
                }
            }
        }
        for (auto& [pointer, block] : live_) {
            if (block.dirty) {
                fill(pointer, block);
            }
        }
        forged_.clear();
        damaged_.clear();
        FUZZ_CHECK(rmalloc::checkMemory() == 0);
    }

    // --- Calls

    static void fill(char* pointer, Block& block)
    {
        rmfuzz::fillPattern(pointer, block.size, block.seed);
        block.dirty = false;
    }

    static void checkContents(const Live::value_type& one, uint32_t bytes)
    {
        FUZZ_CHECK(one.second.dirty || holdsPattern(one.first, bytes, one.second.seed));
    }

    // A new block lies in a segment of its tag and touches no other one, whatever the headers say.
    void add(void* memory, uint32_t size, int16_t tag)
    {
        auto* pointer = static_cast<char*>(memory);
        const Block block = {tag, size, rmalloc::unitsFor(size), seed_, false};
        const char* end = pointer + (block.units - 1) * std::size_t{rmalloc::kUnit};
        const auto next = live_.lower_bound(pointer);
        FUZZ_CHECK(next == live_.end() ||
                   end <= reinterpret_cast<char*>(headerBefore(next->first)));
        if (next != live_.begin()) {
            const auto& [previous, other] = *std::prev(next);
            FUZZ_CHECK(previous + (other.units - 1) * std::size_t{rmalloc::kUnit} <=
                       reinterpret_cast<char*>(headerBefore(pointer)));
        }
        Segment* segment = segmentHolding(tag, headerBefore(pointer));
        FUZZ_CHECK(segment != nullptr &&
                   end <= reinterpret_cast<char*>(blockAt(segment, segment->units + 1)));
        const auto placed = live_.insert_or_assign(pointer, block).first;
        FUZZ_CHECK(isOwnRight(*placed));
        fill(pointer, placed->second);
        damaged_.erase(pointer);
    }

    // Whether the call was done must be what the surroundings of its block say.
    void judge(const char* pointer, bool own, bool around, bool done)
    {
        FUZZ_CHECK(own || !done);
        FUZZ_CHECK(done || !around);
        if (!done) {
            expected_.push_back(own ? corruptedChain(pointer) : badPointer(pointer));
        }
    }

    void take()
    {
        const int16_t owner = tag();
        const uint32_t bytes = size();
        if (live_.size() < kMostBlocks) {
            add(seed_ % 2 == 0 ? rm_getMemory(bytes, owner) : rm_cGetMemory(bytes, owner), bytes,
                owner);
        }
    }

    void give()
    {
        const auto at = block();
        const auto [pointer, block] = *at;
        checkContents(*at, block.size);
        const Surroundings before = surroundingsOf(*at);
        const uint32_t allocatedBefore = allocated(block.tag);
        rm_freeMemory(pointer, block.tag);
        const bool done = allocated(block.tag) != allocatedBefore;
        judge(pointer, before.own, before.around, done);
        if (done) {
            live_.erase(at);
            stale_.push_back(pointer);
        }
    }

    void extend()
    {
        const auto at = block();
        const auto [pointer, block] = *at;
        const uint32_t bytes = size();
        checkContents(*at, block.size);
        const Surroundings before = surroundingsOf(*at);
        const uint32_t allocatedBefore = allocated(block.tag);
        void* result = rm_extendMemory(pointer, bytes, block.tag);
        // One free block further down is written to when the block below is absorbed.
        judge(pointer, before.own, before.whole, result != nullptr);
        if (result == nullptr) {
            return;
        }
        // The new block may take what was free below the old one, where there is damage: then the
        // old one cannot be given back any more.
        const bool isLeft =
            result != pointer &&
            allocated(block.tag) == allocatedBefore + rmalloc::unitsFor(bytes) * rmalloc::kUnit;
        FUZZ_CHECK(!isLeft || !before.whole);
        if (isLeft) {
            expected_.push_back(corruptedChain(pointer));
        } else {
            live_.erase(at);
        }
        const uint32_t kept = std::min(bytes, block.size);
        FUZZ_CHECK(block.dirty || holdsPattern(result, kept, block.seed));
        add(result, bytes, block.tag);
    }

    void grow()
    {
        const auto at = block();
        const auto [pointer, block] = *at;
        const uint32_t bytes = size();
        const Surroundings before = surroundingsOf(*at);
        const uint32_t allocatedBefore = allocated(block.tag);
        void* result = rm_growMemory(pointer, bytes, block.tag);
        if (result == nullptr) {
            judge(pointer, before.own, before.around, false);
            return;
        }
        if (rmalloc::unitsFor(bytes) <= block.units) {
            FUZZ_CHECK(result == pointer && before.own);
            return;
        }
        const uint32_t added = rmalloc::unitsFor(bytes) * rmalloc::kUnit;
        const bool given =
            allocated(block.tag) == allocatedBefore + added - block.units * rmalloc::kUnit;
        judge(pointer, before.own, before.around, given);
        if (given) {
            live_.erase(at);
        }
        add(result, bytes, block.tag);
    }

    // A pointer that is no block: an old one, a forged one, one into a block or into free space.
    void misuse()
    {
        const int16_t owner = tag();
        const uint8_t choice = input_.byte();
        char* pointer = nullptr;
        if (choice % 3 == 0 && !forged_.empty()) {
            pointer = forged_[input_.byte() % forged_.size()];
        } else if (choice % 3 == 1 && !stale_.empty()) {
            pointer = stale_[input_.byte() % stale_.size()];
        } else if (Segment* one = segment()) {
            pointer = reinterpret_cast<char*>(&one->anchor) +
                      word() % ((one->units + 2) * rmalloc::kUnit);
        }
        if (pointer == nullptr || live_.contains(pointer)) {
            return;
        }
        const uint32_t used = rm_memused();
        switch (choice / 3 % 3) {
            case 0:
                rm_freeMemory(pointer, owner);
                break;
            case 1:
                FUZZ_CHECK(rm_extendMemory(pointer, choice, owner) == nullptr);
                break;
            default:
                FUZZ_CHECK(rm_growMemory(pointer, choice, owner) == nullptr);
                break;
        }
        FUZZ_CHECK(rm_memused() == used);
        expected_.push_back(badPointer(pointer));
    }

    // Of whatever is in the segments. Its lines are another target's.
    void report()
    {
        const auto flags = input_.int16();
        rm_memReport(flags, static_cast<int16_t>(input_.byte() - 2), "damage");
        const Lines lines = rmfuzz::takeLines();
        FUZZ_CHECK(!lines.empty() && lines.back() == "MEMORY REPORT DONE");
    }

    void freeTag()
    {
        const int16_t owner = tag();
        rm_freeTagMemory(owner, 0);
        std::erase_if(live_, [owner](const auto& one) { return one.second.tag == owner; });
        stale_.clear();
        forged_.clear();
    }

    void make(Step step)
    {
        switch (step) {
            case kTake:
            case kTakeToo:
                take();
                break;
            case kGive:
            case kGiveToo:
            case kExtend:
            case kGrow:
                if (!live_.empty()) {
                    step == kExtend ? extend() : step == kGrow ? grow() : give();
                }
                break;
            case kMisuse:
                misuse();
                break;
            case kReport:
                report();
                break;
            case kPutRight:
                putRight();
                break;
            case kFreeTag:
                freeTag();
                break;
            default:
                damage(step);
                break;
        }
    }

    // --- What holds after every step, whatever is damaged

    void checkFigures() const
    {
        uint32_t used = rmalloc::kTableStep * static_cast<uint32_t>(sizeof(rmalloc::TagRecord));
        std::array<uint32_t, kTags + 1> expected{};
        for (const auto& one : live_) {
            expected.at(static_cast<std::size_t>(one.second.tag)) +=
                one.second.units * rmalloc::kUnit;
            FUZZ_CHECK(damaged_.contains(one.first) || isOwnRight(one));
        }
        for (int16_t tag = 0; tag <= kTags; ++tag) {
            for (const Segment* one = rmalloc::tagTable[tag].segments; one != nullptr;
                 one = one->next) {
                used += one->units * rmalloc::kUnit + rmalloc::kSegmentHeader;
            }
            FUZZ_CHECK(tag == 0 || allocated(tag) == expected.at(static_cast<std::size_t>(tag)));
        }
        FUZZ_CHECK(rm_memused() == used);
    }

    Input& input_;
    Live live_;
    std::set<char*> damaged_;    // live blocks with a header that is not theirs
    std::vector<char*> stale_;   // were blocks
    std::vector<char*> forged_;  // look like blocks
    Lines expected_;
    uint32_t seed_ = 0;
};
}  // namespace

// Walks along damaged headers read any byte of a segment: the same ones each time that an input
// runs.
void* __wrap_rm_getSeg(uint32_t size)
{
    void* segment = __real_rm_getSeg(size);
    return segment == nullptr ? nullptr : std::memset(segment, 0x5a, size);
}

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();
    Damaged heap(input);
    for (int i = 0; i < kMostSteps && !input.empty(); ++i) {
        heap.step();
    }
    heap.end();
}
