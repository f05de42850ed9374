// The heap of the library beside the heap of the plain walk, and every call made of both.
//
// Why: the two must agree in every word that a host could see. Each call here is made of the
// library and of plain_allocator.h, and compared at once: the block lies at the same offset of the
// segment with the same number, and the figures agree. compareWhole() compares all the rest:
// segments in their order, units, counts, anchors, every header, every link, and what the live
// blocks hold. The contents of free blocks behind their headers need not agree.
//
// Segments are kept in pairs, so that the number of a segment in its chain need not be counted
// after a call: it is the same on both sides when the two segments are a pair. Chains are followed
// where they change, and as a whole by compareWhole().
//
// The first difference is kept and ends the run: nothing is read behind it.
#ifndef RM_TESTS_RMALLOC_HEAP_PAIR_H
#define RM_TESTS_RMALLOC_HEAP_PAIR_H

#include "tests/models/plain_allocator.h"
#include "tests/rmalloc/heap.h"
#include "tests/rmalloc/random_run.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <unordered_map>
#include <vector>

namespace rmtest
{

constexpr uint32_t kManyBlocks = 20'000;  // calls among so many are counted

// The segments of both sides, the first of a tag with the first, the second with the second. A pair
// is known by its index; 0 is a pair of null pointers and stands for none.
class SegmentPairs
{
  public:
    using PlainSegment = PlainAllocator::Segment;

    struct Pair {
        rmalloc::Segment* segment;
        const PlainSegment* plain;
        uint32_t previous;
        uint32_t next;
    };

    const Pair& operator[](uint32_t pair) const { return pairs_[pair]; }

    std::size_t size() const { return byPlain_.size(); }

    uint32_t of(const PlainSegment* plain) const
    {
        const auto found = byPlain_.find(plain);
        return found == byPlain_.end() ? 0 : found->second;
    }

    uint32_t first(Tag tag)
    {
        if (static_cast<std::size_t>(tag) >= chains_.size()) {
            chains_.resize(static_cast<std::size_t>(tag) + 1);
        }
        return chains_[static_cast<std::size_t>(tag)].first;
    }

    // The library's segment is the one behind the last that is known.
    void append(Tag tag, const PlainSegment* plain)
    {
        first(tag);
        Chain& chain = chains_[static_cast<std::size_t>(tag)];
        rmalloc::Segment* segment =
            chain.last == 0 ? rmalloc::tagTable[tag].segments : pairs_[chain.last].segment->next;
        if (spare_.empty()) {
            spare_.push_back(static_cast<uint32_t>(pairs_.size()));
            pairs_.push_back({});
        }
        const uint32_t pair = spare_.back();
        spare_.pop_back();
        pairs_[pair] = {segment, plain, chain.last, 0};
        (chain.last == 0 ? chain.first : pairs_[chain.last].next) = pair;
        chain.last = pair;
        byPlain_[plain] = pair;
    }

    void remove(Tag tag, uint32_t pair)
    {
        Chain& chain = chains_[static_cast<std::size_t>(tag)];
        const Pair gone = pairs_[pair];
        (gone.previous == 0 ? chain.first : pairs_[gone.previous].next) = gone.next;
        (gone.next == 0 ? chain.last : pairs_[gone.next].previous) = gone.previous;
        byPlain_.erase(gone.plain);
        spare_.push_back(pair);
    }

    void removeAll(Tag tag)
    {
        while (first(tag) != 0) {
            remove(tag, first(tag));
        }
    }

    // True when what follows a pair, or is first, follows it on both sides.
    bool isLinked(Tag tag, uint32_t previous, const PlainAllocator& plain)
    {
        const Pair& next = pairs_[previous == 0 ? first(tag) : pairs_[previous].next];
        return previous == 0 ? rmalloc::tagTable[tag].segments == next.segment &&
                                   plain.segments(tag) == next.plain
                             : pairs_[previous].segment->next == next.segment &&
                                   pairs_[previous].plain->next == next.plain;
    }

    uint32_t numberOf(uint32_t pair) const
    {
        uint32_t number = 0;
        while (pairs_[pair].previous != 0) {
            pair = pairs_[pair].previous;
            ++number;
        }
        return number;
    }

  private:
    struct Chain {
        uint32_t first;
        uint32_t last;
    };

    std::vector<Pair> pairs_ = std::vector<Pair>(1);
    std::vector<uint32_t> spare_;  // pairs that are none
    std::vector<Chain> chains_;    // by tag
    std::unordered_map<const PlainSegment*, uint32_t> byPlain_;
};

// Both heaps.
class HeapPair
{
  public:
    enum class Kind { kGet, kFree, kExtend, kGrow, kFreeTag, kAllocTag, kSetTagAlloc, kFreeAll };

    static constexpr std::array<const char*, 8> kKinds = {
        "rm_getMemory",     "rm_freeMemory", "rm_extendMemory", "rm_growMemory",
        "rm_freeTagMemory", "rm_allocTag",   "rm_setTagAlloc",  "rm_freeall"};

    // What a run has done.
    struct Figures {
        std::array<uint64_t, kKinds.size()> calls{};
        std::size_t mostBlocks = 0;
        std::size_t mostSegments = 0;
        uint64_t amongMany = 0;  // calls among kManyBlocks or more
        uint64_t compared = 0;   // times that the whole heap was compared
    };

    struct Block {
        void* pointer;
        void* plain;
        uint32_t size;
        uint32_t pair;
        uint64_t born;  // the call that made it, and the seed of the pattern in it; 0: not live
        Tag tag;
        std::size_t place;  // in live_
    };

    // Up to `mostBlocks` can be live at a time.
    explicit HeapPair(uint32_t mostBlocks) : blocks_(mostBlocks + 1), plain_(kRecord)
    {
        for (uint32_t name = mostBlocks; name > 0; --name) {
            spare_.push_back(name);
        }
    }

    // --- What there is

    bool failed() const { return difference_.found(); }

    // The last calls and what was found.
    std::string story() const
    {
        std::string text;
        for (uint64_t i = calls_ - std::min<uint64_t>(calls_, kRecent); i < calls_; ++i) {
            const Recent& call = recent_[static_cast<std::size_t>(i % kRecent)];
            std::array<char, 128> line{};
            std::snprintf(line.data(), line.size(), "%llu: %s, tag %d, block %u: %u, now %u\n",
                          static_cast<unsigned long long>(i),
                          kKinds[static_cast<std::size_t>(call.kind)], call.tag, call.name,
                          call.before, call.now);
            text += line.data();
        }
        return text + difference_.text();
    }

    const Figures& figures() const { return figures_; }

    uint64_t calls() const { return calls_; }

    const PlainAllocator& plain() const { return plain_; }

    const Block& operator[](uint32_t name) const { return blocks_[name]; }

    const std::vector<uint32_t>& live() const { return live_; }

    bool isFull() const { return spare_.empty(); }

    // True when it is time to compare the whole heap.
    bool isDue() const { return untilCompared_ == 0; }

    // Everything. The next time comes after calls in proportion to what this costs.
    void compareWhole()
    {
        std::size_t live = 0;
        for (Tag tag = 0; static_cast<std::size_t>(tag) < plain_.tags() && !failed(); ++tag) {
            if ((rmalloc::tagTable[tag].state != 0) != plain_.inUse(tag)) {
                fail("tag %d is%s in use", tag, plain_.inUse(tag) ? " not" : "");
            }
            compareTag(tag);
            live += compareSegments(tag);
        }
        if (!failed() && live != live_.size()) {
            fail("%zu live blocks, not %zu", live, live_.size());
        }
        if (!failed() && rmalloc::checkMemory() != 0) {
            fail("the heap is not sound");
        }
        if (figures_.compared % 4 == 0) {
            for (const uint32_t name : live_) {
                compareBlock(blocks_[name]);
                checkContents(blocks_[name], blocks_[name].size);
            }
        }
        ++figures_.compared;
        untilCompared_ = 1 + static_cast<uint32_t>(live_.size() / 8) + plain_.memused() / 4096;
    }

    // --- Calls

    void setSegAlloc(bool on)
    {
        seg_alloc = on ? 1 : 0;
        plain_.setSegAlloc(on);
    }

    uint32_t take(uint32_t size, Tag tag)
    {
        const uint32_t name = spare_.back();
        Block& block = blocks_[name];
        note(Kind::kGet, tag, name, 0, size);
        block = {
            rm_getMemory(size, tag), plain_.get(size, tag), size, 0, calls_, tag, live_.size()};
        follow(tag, 0);
        block.pair = segments_.of(plain_.lastPlacedIn());
        compareBlock(block);
        fillContents(block, 0);
        spare_.pop_back();
        live_.push_back(name);
        figures_.mostBlocks = std::max(figures_.mostBlocks, live_.size());
        return name;
    }

    void give(uint32_t name)
    {
        const Block& block = blocks_[name];
        note(Kind::kFree, block.tag, name, block.size);
        checkContents(block, block.size);
        rm_freeMemory(block.pointer, block.tag);
        plain_.release(block.plain, block.tag);
        if (!follow(block.tag, block.pair) && !failed()) {
            compareHeads(segments_[block.pair]);
        }
        forget(name);
    }

    void extend(uint32_t name, uint32_t size)
    {
        Block& block = blocks_[name];
        const uint32_t kept = std::min(size, block.size);
        note(Kind::kExtend, block.tag, name, block.size, size);
        checkContents(block, block.size);
        block.pointer = rm_extendMemory(block.pointer, size, block.tag);
        block.plain = plain_.extend(block.plain, size, block.tag);
        block.size = size;
        resized(&block);
        checkContents(block, kept);
        fillContents(block, kept);
    }

    void grow(uint32_t name, uint32_t size)
    {
        Block& block = blocks_[name];
        note(Kind::kGrow, block.tag, name, block.size, size);
        checkContents(block, block.size);
        const bool stays = bytesFor(plainHeader(block)->units) >= size;
        block.pointer = rm_growMemory(block.pointer, size, block.tag);
        block.plain = plain_.grow(block.plain, size, block.tag);
        if (stays) {
            follow(block.tag, block.pair);
            compareBlock(block);
            checkContents(block, block.size);
            const uint32_t from = block.size;
            block.size = std::max(block.size, size);
            fillContents(block, from);
            return;
        }
        block.size = size;
        resized(&block);
        fillContents(block, 0);
    }

    Tag makeTag()
    {
        note(Kind::kAllocTag, -1);
        const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
        const Tag expected = plain_.allocTag();
        if (tag != expected) {
            fail("tag %d was made instead of %d", tag, expected);
        }
        compareFigures();
        return expected;
    }

    void setTagAlloc(uint32_t bytes, Tag tag)
    {
        note(Kind::kSetTagAlloc, tag, 0, 0, bytes);
        rm_setTagAlloc(bytes, tag);
        plain_.setTagAlloc(bytes, tag);
    }

    void freeTag(Tag tag, bool release)
    {
        note(Kind::kFreeTag, tag, 0, 0, release ? 1 : 0);
        rm_freeTagMemory(tag, release ? 1 : 0);
        plain_.releaseTag(tag, release);
        forgetTag(tag);
        plainReturned_ = static_cast<uint32_t>(plain_.segmentsReturned());
        compareFigures();
        compareTag(tag);
    }

    void freeAll()
    {
        note(Kind::kFreeAll, -1);
        for (Tag tag = 0; static_cast<std::size_t>(tag) < plain_.tags(); ++tag) {
            forgetTag(tag);
        }
        rm_freeall();
        plain_.releaseAll();
        plainReturned_ = static_cast<uint32_t>(plain_.segmentsReturned());
        compareFigures();
    }

  private:
    struct Recent {
        Kind kind;
        Tag tag;
        uint32_t name;
        uint32_t before;  // bytes
        uint32_t now;     // bytes; for rm_freeTagMemory whether it is released
    };

    static constexpr std::size_t kRecent = 40;

    // --- Differences

    __attribute__((format(printf, 2, 3))) void fail(const char* format, ...)
    {
        va_list args;
        va_start(args, format);
        difference_.note(format, args);
        va_end(args);
    }

    // Begins a call.
    void note(Kind kind, Tag tag, uint32_t name = 0, uint32_t before = 0, uint32_t now = 0)
    {
        recent_[static_cast<std::size_t>(calls_ % kRecent)] = {kind, tag, name, before, now};
        ++calls_;
        ++figures_.calls[static_cast<std::size_t>(kind)];
        figures_.amongMany += live_.size() >= kManyBlocks ? 1 : 0;
        untilCompared_ -= untilCompared_ == 0 ? 0 : 1;
    }

    void compareTag(Tag tag)
    {
        if (rmalloc::tagTable[tag].allocated != plain_.allocated(tag)) {
            fail("tag %d: %u bytes allocated, not %u", tag, rmalloc::tagTable[tag].allocated,
                 plain_.allocated(tag));
        }
    }

    // Figures, and the segment that came or went with a call. `pair` is the one that may have gone;
    // the result is whether it has.
    bool follow(Tag tag, uint32_t pair)
    {
        const auto returned = static_cast<uint32_t>(plain_.segmentsReturned());
        const bool went = returned != plainReturned_;
        const bool came = plain_.segmentsGot() != plainGot_;
        plainReturned_ = returned;
        plainGot_ = plain_.segmentsGot();
        compareFigures();
        compareTag(tag);
        if (failed()) {
            return went;
        }
        const uint32_t previous = segments_[pair].previous;
        if (went) {
            segments_.remove(tag, pair);
        }
        if (came) {
            segments_.append(tag, plain_.lastPlacedIn());
            figures_.mostSegments = std::max(figures_.mostSegments, segments_.size());
            const uint32_t last = segments_.of(plain_.lastPlacedIn());
            if (segments_[last].segment == nullptr || !segments_.isLinked(tag, last, plain_)) {
                fail("tag %d: the new segment is not the last one", tag);
            }
        }
        if (went && !segments_.isLinked(tag, previous, plain_)) {
            fail("tag %d: not the segment that became empty has gone", tag);
        }
        return went;
    }

    void compareFigures()
    {
        if (rm_memused() != plain_.memused()) {
            fail("rm_memused is %u, not %u", rm_memused(), plain_.memused());
        }
        if (static_cast<std::size_t>(rmalloc::nTags) != plain_.tags() ||
            static_cast<std::size_t>(rmalloc::tagTabSize) != plain_.capacity()) {
            fail("%d tags of %d, not %zu of %zu", rmalloc::nTags, rmalloc::tagTabSize,
                 plain_.tags(), plain_.capacity());
        }
    }

    // The block that a call has given: where it is, and what the head of its segment says.
    void compareBlock(const Block& block)
    {
        const SegmentPairs::Pair& pair = segments_[block.pair];
        if (failed()) {
            return;
        }
        const auto offset =
            static_cast<const char*>(block.plain) - reinterpret_cast<const char*>(pair.plain);
        if (block.pointer != reinterpret_cast<char*>(pair.segment) + offset) {
            fail("tag %d: the block is %s, not at %td of segment %u", block.tag,
                 whereIs(block).c_str(), offset, segments_.numberOf(block.pair));
            return;
        }
        compareHeaders(headerBefore(block.pointer), plainHeader(block));
        compareHeads(pair);
    }

    static const PlainAllocator::Block* plainHeader(const Block& block)
    {
        return static_cast<const PlainAllocator::Block*>(block.plain) - 1;
    }

    static std::string whereIs(const Block& block)
    {
        uint32_t number = 0;
        for (rmalloc::Segment* segment = rmalloc::tagTable[block.tag].segments; segment != nullptr;
             segment = segment->next) {
            if (rmalloc::holds(segment, segment->units, headerBefore(block.pointer))) {
                const auto offset = static_cast<const char*>(block.pointer) -
                                    reinterpret_cast<const char*>(segment);
                return "at " + std::to_string(offset) + " of segment " + std::to_string(number);
            }
            ++number;
        }
        return "outside of the segments";
    }

    void compareHeaders(const rmalloc::BlockHeader* header, const PlainAllocator::Block* plain)
    {
        if (header->word1 != plain->word1 || header->units != plain->units) {
            fail("a header is %08X %u, not %08X %u", header->word1, header->units, plain->word1,
                 plain->units);
        }
    }

    void compareHeads(const SegmentPairs::Pair& pair)
    {
        if (pair.segment->units != pair.plain->units ||
            pair.segment->blocks != pair.plain->blocks) {
            fail("a segment has %u units and %u blocks, not %u and %u", pair.segment->units,
                 pair.segment->blocks, pair.plain->units, pair.plain->blocks);
        }
        compareHeaders(&pair.segment->anchor, &pair.plain->anchor);
    }

    void checkContents(const Block& block, uint32_t bytes)
    {
        if (!failed() && !holdsPattern(block.pointer, bytes, static_cast<uint32_t>(block.born))) {
            fail("tag %d: the contents of a block of %u bytes have changed", block.tag, bytes);
        }
    }

    void fillContents(const Block& block, uint32_t from)
    {
        if (!failed()) {
            fill(block.pointer, block.size, static_cast<uint32_t>(block.born), from);
        }
    }

    // The live blocks in the tag.
    std::size_t compareSegments(Tag tag)
    {
        std::size_t live = 0;
        uint32_t pair = 0;
        do {
            if (!segments_.isLinked(tag, pair, plain_)) {
                fail("tag %d: the segments are not in their order", tag);
                return live;
            }
            pair = pair == 0 ? segments_.first(tag) : segments_[pair].next;
            if (pair != 0) {
                compareHeads(segments_[pair]);
                live += compareWords(segments_[pair]);
            }
        } while (pair != 0 && !failed());
        return live;
    }

    // The live blocks in the segment.
    std::size_t compareWords(const SegmentPairs::Pair& pair)
    {
        std::size_t live = 0;
        for (uint32_t offset = 1; offset <= pair.plain->units && !failed();) {
            const PlainAllocator::Block* plain = PlainAllocator::blockAt(pair.plain, offset);
            compareHeaders(rmalloc::blockAt(pair.segment, offset), plain);
            live += plain->word1 == PlainAllocator::kLiveMagic ? 1 : 0;
            offset += plain->units;
        }
        return live;
    }

    // --- Blocks

    void forget(uint32_t name)
    {
        const std::size_t place = blocks_[name].place;
        live_[place] = live_.back();
        blocks_[live_[place]].place = place;
        live_.pop_back();
        blocks_[name].born = 0;
        spare_.push_back(name);
    }

    // The block has another place, or it has the one that it had.
    void resized(Block* block)
    {
        follow(block->tag, block->pair);
        block->pair = segments_.of(plain_.lastPlacedIn());
        compareBlock(*block);
    }

    void forgetTag(Tag tag)
    {
        for (std::size_t i = live_.size(); i > 0; --i) {
            if (blocks_[live_[i - 1]].tag == tag) {
                forget(live_[i - 1]);
            }
        }
        segments_.removeAll(tag);
    }

    std::vector<Block> blocks_;    // by name; 0 is not used
    std::vector<uint32_t> spare_;  // names without a block
    std::vector<uint32_t> live_;   // names with one
    PlainAllocator plain_;
    SegmentPairs segments_;
    uint32_t plainReturned_ = 0;  // segments that were given back so far
    uint64_t plainGot_ = 0;       // segments that were got so far
    uint64_t calls_ = 0;
    uint32_t untilCompared_ = 0;  // calls
    std::array<Recent, kRecent> recent_{};
    Figures figures_;
    Difference difference_;
};

}  // namespace rmtest

#endif
