// The tagged allocator as a plain walk: segments, headers and free chains, and nothing beside them.
//
// Why: the library finds the place of a block by maps and trees that it keeps beside the segments.
// Where that place is has always been defined by a walk: along the segments of the tag in the order
// in which they were got, along the free chain of each in the order of addresses, to the first free
// block that is large enough. This is that walk, in real memory and with the same headers and
// links, so that long random runs can compare the two word for word, and a benchmark can tell what
// the walk costs. allocator_model.h says what must come out; this says it as fast as a walk can,
// which heaps of 100,000 blocks ask for.
//
// It shares nothing with the library and checks nothing: pointers and tags are to be good ones.
// Memory for segments comes from std::malloc; without any, it throws.
//
// Invariant: a free chain ascends and ends with link 0; no two free blocks touch; live and free
// blocks tile the data area; `blocks` counts the live ones and is not 0 between calls.
#ifndef RM_TESTS_MODELS_PLAIN_ALLOCATOR_H
#define RM_TESTS_MODELS_PLAIN_ALLOCATOR_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace rmtest
{

// A walk that is not optimised is ten times as slow, and test programs are not.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC push_options
#pragma GCC optimize("O2")
#endif

class PlainAllocator
{
  public:
    static constexpr uint32_t kUnit = 8;                  // bytes; links and sizes count in units
    static constexpr uint32_t kLiveMagic = 0xFFEEDDCC;    // word 1 of a live block
    static constexpr uint32_t kTableStep = 40;            // tags that the table grows by
    static constexpr uint32_t kSegmentOfTagZero = 49152;  // bytes
    static constexpr uint32_t kSegmentOfOthers = 8192;    // bytes

    // The 8 bytes before every block.
    struct Block {
        uint32_t word1;  // live: kLiveMagic; free: offset of the next free block, 0 at the end
        uint32_t units;  // with this header
    };

    // The head of a segment; the data area follows. Offsets count from the anchor.
    struct Segment {
        Segment* next;
        uint32_t units;               // of the data area
        uint32_t blocks;              // live ones
        alignas(kUnit) Block anchor;  // word1: the first free block
    };

    static constexpr uint32_t kSegmentHeader = sizeof(Segment);
    static_assert(sizeof(Block) == kUnit && sizeof(Segment) == 24);

    // `recordBytes`: what a record of the tag table adds to memused(); 0 counts segments alone.
    explicit PlainAllocator(uint32_t recordBytes = 0) : recordBytes_(recordBytes) {}

    ~PlainAllocator() { releaseAll(); }

    PlainAllocator(const PlainAllocator&) = delete;
    PlainAllocator& operator=(const PlainAllocator&) = delete;

    // Whether every segment is as large as one request, from now on.
    void setSegAlloc(bool on) { segAlloc_ = on; }

    // --- Tags. The first allocation makes 0 and 1.

    // The lowest free one from 1 up. A full table grows even when a record in it is free.
    int16_t allocTag()
    {
        if (tags_.empty()) {
            growTable();
            tags_.push_back({nullptr, 0, kSegmentOfTagZero, true});
            lowestFree_ = 1;
        }
        while (lowestFree_ < tags_.size() && tags_[lowestFree_].inUse) {
            ++lowestFree_;
        }
        if (tags_.size() == capacity_) {
            growTable();
        }
        if (lowestFree_ == tags_.size()) {
            tags_.push_back({});
        }
        tags_[lowestFree_] = {nullptr, 0, kSegmentOfOthers, true};
        return static_cast<int16_t>(lowestFree_);
    }

    // Bytes that the tag's next segment has at least; tag 0 keeps what it has.
    void setTagAlloc(uint32_t bytes, int16_t tag)
    {
        if (tag != 0) {
            at(tag)->segmentSize = bytes;
        }
    }

    void releaseTag(int16_t tag, bool withRecord)
    {
        Tag* record = at(tag);
        while (record->segments != nullptr) {
            Segment* next = record->segments->next;
            returnSegment(record->segments);
            record->segments = next;
        }
        record->allocated = 0;
        if (withRecord) {
            record->inUse = false;
            if (tag != 0) {
                lowestFree_ = std::min(lowestFree_, static_cast<std::size_t>(tag));
            }
        }
    }

    // The table goes too.
    void releaseAll()
    {
        for (std::size_t tag = 0; tag < tags_.size(); ++tag) {
            releaseTag(static_cast<int16_t>(tag), true);
        }
        tags_.clear();
        memused_ -= capacity_ * recordBytes_;
        capacity_ = 0;
    }

    // --- Blocks

    void* get(uint32_t size, int16_t tag)
    {
        if (tags_.empty()) {
            allocTag();
        }
        Tag* record = at(tag);
        const uint32_t need = unitsFor(size);
        Segment** where = &record->segments;
        for (Segment* segment = *where; segment != nullptr; segment = *where) {
            Block* link = &segment->anchor;
            while (link->word1 != 0) {
                Block* block = blockAt(segment, link->word1);
                if (block->units >= need) {
                    return cut(record, segment, link, block, need);
                }
                link = block;
            }
            where = &segment->next;
        }
        *where = getSegment(*record, need);
        return cut(record, *where, &(*where)->anchor, blockAt(*where, 1), need);
    }

    void release(void* pointer, int16_t tag)
    {
        Tag* record = at(tag);
        Block* block = headerOf(pointer);
        Segment** where = find(record, block);
        Segment* segment = *where;
        record->allocated -= block->units * kUnit;
        merge(segment, findPlace(segment, block), block);
        if (--segment->blocks == 0) {
            *where = segment->next;
            returnSegment(segment);
        }
    }

    // In place, at the low end of the block and its free neighbours, when they are large enough
    // together; else a new block is taken and the old one released.
    void* extend(void* pointer, uint32_t size, int16_t tag)
    {
        if (pointer == nullptr) {
            return get(size, tag);
        }
        Tag* record = at(tag);
        Block* block = headerOf(pointer);
        Segment* segment = *find(record, block);
        const Place place = findPlace(segment, block);
        const uint32_t oldUnits = block->units;
        const uint32_t need = unitsFor(size);
        if (spanOf(place, block) < need) {
            void* moved = get(size, tag);
            std::memcpy(moved, pointer, dataBytes(oldUnits));
            release(pointer, tag);
            return moved;
        }
        const bool down = endOf(place.previous) == block;
        Block* before = down ? place.beforePrevious : place.previous;
        Block* low = merge(segment, place, block);
        // Read before the contents move over them.
        const Block span = *low;
        if (low < block) {
            std::memmove(low + 1, pointer, std::min(size, dataBytes(oldUnits)));
        }
        if (span.units > need) {
            low[need] = {span.word1, span.units - need};
            before->word1 = offsetOf(segment, low + need);
        } else {
            before->word1 = span.word1;
        }
        *low = {kLiveMagic, need};
        record->allocated += (need - oldUnits) * kUnit;
        lastPlacedIn_ = segment;
        return low + 1;
    }

    // A block that is too small is released and another one taken; its contents are lost.
    void* grow(void* pointer, uint32_t size, int16_t tag)
    {
        if (pointer != nullptr) {
            if (headerOf(pointer)->units >= unitsFor(size)) {
                return pointer;
            }
            release(pointer, tag);
        }
        return get(size, tag);
    }

    // --- Figures

    // Bytes of table and segments. A segment is counted whole when it is got and in units when it
    // is given back, so a size that is no multiple of 8 leaves something behind.
    uint32_t memused() const { return memused_; }

    std::size_t tags() const { return tags_.size(); }  // the highest that was ever in use + 1

    std::size_t capacity() const { return capacity_; }

    bool inUse(int16_t tag) const { return at(tag).inUse; }

    uint32_t allocated(int16_t tag) const { return at(tag).allocated; }  // bytes in live blocks

    const Segment* segments(int16_t tag) const { return at(tag).segments; }

    // The segment in which a block was last placed, new or resized. It may have gone since.
    const Segment* lastPlacedIn() const { return lastPlacedIn_; }

    uint64_t segmentsGot() const { return segmentsGot_; }

    uint64_t segmentsReturned() const { return segmentsReturned_; }

    static const Block* blockAt(const Segment* segment, uint32_t offset)
    {
        return &segment->anchor + offset;
    }

  private:
    struct Tag {
        Segment* segments;
        uint32_t allocated;    // bytes
        uint32_t segmentSize;  // bytes
        bool inUse;
    };

    // Where a block belongs in the free chain of its segment.
    struct Place {
        Block* beforePrevious;  // null when the previous one is the anchor
        Block* previous;        // the free block, or anchor, below
        Block* next;            // the free block above, or null
    };

    static Block* blockAt(Segment* segment, uint32_t offset) { return &segment->anchor + offset; }

    static uint32_t offsetOf(const Segment* segment, const Block* block)
    {
        return static_cast<uint32_t>(block - &segment->anchor);
    }

    static Block* headerOf(void* pointer) { return static_cast<Block*>(pointer) - 1; }

    static Block* endOf(Block* block) { return block + block->units; }

    static uint32_t unitsFor(uint32_t size)
    {
        return static_cast<uint32_t>((uint64_t{size} + (kUnit - 1)) / kUnit + 1);
    }

    static uint32_t dataBytes(uint32_t units) { return (units - 1) * kUnit; }

    Tag* at(int16_t tag) { return &tags_[static_cast<std::size_t>(tag)]; }

    const Tag& at(int16_t tag) const { return tags_[static_cast<std::size_t>(tag)]; }

    void growTable()
    {
        capacity_ += kTableStep;
        memused_ += kTableStep * recordBytes_;
    }

    // What leads to the segment in which the block lies.
    static Segment** find(Tag* record, const Block* block)
    {
        const auto address = reinterpret_cast<uintptr_t>(block);
        Segment** where = &record->segments;
        for (;;) {
            const auto begin = reinterpret_cast<uintptr_t>(*where);
            if (address > begin &&
                address - begin < uintptr_t{(*where)->units} * kUnit + kSegmentHeader) {
                return where;
            }
            where = &(*where)->next;
        }
    }

    static Place findPlace(Segment* segment, const Block* block)
    {
        Place place = {nullptr, &segment->anchor, nullptr};
        while (place.previous->word1 != 0) {
            Block* next = blockAt(segment, place.previous->word1);
            if (next > block) {
                place.next = next;
                break;
            }
            place.beforePrevious = place.previous;
            place.previous = next;
        }
        return place;
    }

    static uint32_t spanOf(const Place& place, Block* block)
    {
        return block->units + (place.next == endOf(block) ? place.next->units : 0) +
               (endOf(place.previous) == block ? place.previous->units : 0);
    }

    // Puts a live block into the free chain; the free block that it is part of then.
    static Block* merge(Segment* segment, const Place& place, Block* block)
    {
        block->word1 = place.previous->word1;
        if (place.next == endOf(block)) {
            block->word1 = place.next->word1;
            block->units += place.next->units;
        }
        // The anchor has no units, so it ends before the data area begins.
        if (endOf(place.previous) == block) {
            place.previous->word1 = block->word1;
            place.previous->units += block->units;
            return place.previous;
        }
        place.previous->word1 = offsetOf(segment, block);
        return block;
    }

    // Cuts a live block from the high end of a free one.
    void* cut(Tag* record, Segment* segment, Block* link, Block* block, uint32_t need)
    {
        if (block->units == need) {
            link->word1 = block->word1;
        } else {
            block->units -= need;
            block = endOf(block);
        }
        *block = {kLiveMagic, need};
        ++segment->blocks;
        record->allocated += need * kUnit;
        lastPlacedIn_ = segment;
        return block + 1;
    }

    Segment* getSegment(const Tag& record, uint32_t need)
    {
        uint64_t bytes = uint64_t{need} * kUnit + kSegmentHeader;
        uint32_t units = need;
        if (!segAlloc_ && bytes < record.segmentSize) {
            bytes = record.segmentSize;
            units = (record.segmentSize - kSegmentHeader) / kUnit;
        }
        auto* segment = static_cast<Segment*>(std::malloc(static_cast<std::size_t>(bytes)));
        if (segment == nullptr) {
            throw std::bad_alloc();
        }
        *segment = {nullptr, units, 0, {1, 0}};
        *blockAt(segment, 1) = {0, units};
        memused_ += static_cast<uint32_t>(bytes);
        ++segmentsGot_;
        return segment;
    }

    void returnSegment(Segment* segment)
    {
        memused_ -= segment->units * kUnit + kSegmentHeader;
        ++segmentsReturned_;
        std::free(segment);
    }

    uint32_t recordBytes_;
    bool segAlloc_ = false;
    std::vector<Tag> tags_;
    uint32_t capacity_ = 0;       // of the tag table, in records
    std::size_t lowestFree_ = 1;  // no record from 1 up to here is free
    uint32_t memused_ = 0;
    uint64_t segmentsGot_ = 0;
    uint64_t segmentsReturned_ = 0;
    const Segment* lastPlacedIn_ = nullptr;
};

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC pop_options
#endif

}  // namespace rmtest

#endif
