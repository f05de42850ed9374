// What the tests of the page table share: segments that do not exist, and what the table must say.
//
// A large segment is two numbers, with its map anywhere: no memory stands at its address. A small
// one has its map before it, where the table reads it, so it lies in the arena, a part of the
// address space in which only the machine's pages with such maps can be read and written. What the
// table must answer follows from the places and sizes alone.
//
// What that shows: who reads or writes a large segment, an address that was asked for, the map of a
// small segment that has gone, or a map where there was none, ends the program. But not near the
// map of a small segment, in the same page of the machine, and most small segments are that near to
// their own: there it is seen in a build with the address sanitizer only, which knows what is a
// map.
#ifndef RM_TESTS_RMALLOC_PAGETABLE_CASE_H
#define RM_TESTS_RMALLOC_PAGETABLE_CASE_H

#include "tests/support/support.h"

#include "rm/rmalloc/pagetable.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

namespace rmtest
{

constexpr uintptr_t kPage = uintptr_t{1} << rmalloc::kPageShift;
constexpr uintptr_t kRegion = uintptr_t{1} << rmalloc::kRegionShift;
constexpr uintptr_t kHeader = 24;  // bytes of a segment before its data area
constexpr uintptr_t kBefore = rmalloc::kBeforeSmall;
constexpr uintptr_t kSmallest = 32;                    // bytes of a segment
constexpr uintptr_t kLargestSmall = kHeader + 62 * 8;  // has its map before it
constexpr uintptr_t kSmallestLarge = kLargestSmall + 8;

// The part of the address space in which small segments are. One for all cases, never given back.
class Arena
{
  public:
    static Arena& get()
    {
        static Arena arena;
        return arena;
    }

    // Where cases begin to place segments; some regions below it belong to the arena too.
    uintptr_t base() const { return begin_ + kBelowBase * kRegion; }

    uintptr_t end() const { return begin_ + kRegions * kRegion; }

    bool has(uintptr_t from, uintptr_t to) const { return from >= begin_ && to <= end(); }

    uintptr_t machinePage() const { return machinePage_; }

    // Makes the memory before a small segment usable. It is zero, or what an earlier one has left.
    void openBefore(uintptr_t segment)
    {
        if (!has(segment - kBefore, segment)) {
            std::fputs("a small segment outside of the arena\n", stderr);
            std::abort();
        }
        for (uintptr_t page : pagesBefore(segment)) {
            if (uses_[page]++ == 0) {
                allow(begin_ + page * machinePage_, machinePage_);
            }
        }
        unpoison(segment - kBefore, kBefore);
    }

    void closeBefore(uintptr_t segment)
    {
        poison(segment - kBefore, kBefore);
        for (uintptr_t page : pagesBefore(segment)) {
            if (--uses_[page] == 0) {
                map(begin_ + page * machinePage_, machinePage_, MAP_FIXED);
            }
        }
    }

    static void allow(uintptr_t address, uintptr_t bytes)
    {
        protect(address, bytes, PROT_READ | PROT_WRITE);
    }

    static void forbid(uintptr_t address, uintptr_t bytes) { protect(address, bytes, PROT_NONE); }

    // For the sanitizer: it reports who reads or writes there.
    static void poison([[maybe_unused]] uintptr_t address, [[maybe_unused]] uintptr_t bytes)
    {
#ifdef __SANITIZE_ADDRESS__
        ASAN_POISON_MEMORY_REGION(reinterpret_cast<void*>(address), bytes);
#endif
    }

    static void unpoison([[maybe_unused]] uintptr_t address, [[maybe_unused]] uintptr_t bytes)
    {
#ifdef __SANITIZE_ADDRESS__
        ASAN_UNPOISON_MEMORY_REGION(reinterpret_cast<void*>(address), bytes);
#endif
    }

  private:
    static constexpr uintptr_t kRegions = 256;
    static constexpr uintptr_t kBelowBase = 4;
    static constexpr uintptr_t kWished = 1000 * kRegion;  // there is seldom anything behind it

    Arena()
        : machinePage_(static_cast<uintptr_t>(sysconf(_SC_PAGESIZE))),
          begin_((map(kWished, (kRegions + 1) * kRegion, 0) + kRegion - 1) / kRegion * kRegion),
          uses_(kRegions * kRegion / machinePage_)
    {
        poison(begin_, kRegions * kRegion);
    }

    // Address space without memory.
    static uintptr_t map(uintptr_t address, uintptr_t bytes, int flags)
    {
        void* got = mmap(reinterpret_cast<void*>(address), bytes, PROT_NONE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | flags, -1, 0);
        if (got == MAP_FAILED) {
            std::perror("mmap");
            std::abort();
        }
        return reinterpret_cast<uintptr_t>(got);
    }

    static void protect(uintptr_t address, uintptr_t bytes, int protection)
    {
        if (mprotect(reinterpret_cast<void*>(address), bytes, protection) != 0) {
            std::perror("mprotect");
            std::abort();
        }
    }

    // The machine's pages that the map of a small segment lies in; they are two at most.
    std::vector<uintptr_t> pagesBefore(uintptr_t segment) const
    {
        const uintptr_t first = (segment - kBefore - begin_) / machinePage_;
        const uintptr_t last = (segment - 1 - begin_) / machinePage_;
        return first == last ? std::vector{first} : std::vector{first, last};
    }

    uintptr_t machinePage_;
    uintptr_t begin_;
    std::vector<uint32_t> uses_;  // maps in each of the machine's pages
};

inline uintptr_t base()
{
    return Arena::get().base();
}

// Where there is no memory: for large segments only.
inline uintptr_t beyond()
{
    return Arena::get().end() + 8 * kRegion;
}

struct Shape {
    uintptr_t begin;
    uintptr_t bytes;

    uintptr_t end() const { return begin + bytes; }
};

// A small segment as close behind another one as it can be.
inline Shape smallBehind(const Shape& other, uintptr_t bytes)
{
    return {other.end() + kBefore, bytes};
}

// A segment, as far as the table knows of it.
class Placed
{
  public:
    explicit Placed(const Shape& shape)
        : begin_(shape.begin),
          units_(static_cast<uint32_t>((shape.bytes - kHeader) / 8)),
          map_(newMap())
    {
        map_->segment = reinterpret_cast<rmalloc::Segment*>(begin_);
        map_->units = units_;
    }

    rmalloc::SegmentMap* map() const { return map_.get(); }

    bool isSmall() const { return units_ <= 62; }

    uintptr_t begin() const { return begin_; }

    uintptr_t end() const { return begin_ + kHeader + uintptr_t{units_} * 8; }

    // The first header of the data area, and the last one.
    uintptr_t first() const { return begin_ + kHeader; }

    uintptr_t last() const { return end() - 8; }

    // Where what belongs to it begins: the map of a small one does.
    uintptr_t from() const { return begin_ - (isSmall() ? kBefore : 0); }

    bool add()
    {
        isKnown_ = rmalloc::addToPageTable(map());
        return isKnown_;
    }

    void remove()
    {
        rmalloc::removeFromPageTable(map());
        isKnown_ = false;
    }

    bool isKnown() const { return isKnown_; }

  private:
    struct GiveBack {
        void operator()(rmalloc::SegmentMap* map) const
        {
            const auto address = reinterpret_cast<uintptr_t>(map);
            if (Arena::get().has(address, address + kBefore)) {
                Arena::get().closeBefore(address + kBefore);
            } else {
                delete map;
            }
        }
    };

    rmalloc::SegmentMap* newMap() const
    {
        if (!isSmall()) {
            return new rmalloc::SegmentMap{};
        }
        Arena::get().openBefore(begin_);
        return new (reinterpret_cast<void*>(begin_ - kBefore)) rmalloc::SegmentMap{};
    }

    uintptr_t begin_;
    uint32_t units_;
    std::unique_ptr<rmalloc::SegmentMap, GiveBack> map_;
    bool isKnown_ = false;
};

inline std::vector<Placed> placed(const std::vector<Shape>& shapes)
{
    return {shapes.begin(), shapes.end()};
}

inline const rmalloc::SegmentMap* holding(uintptr_t address)
{
    return rmalloc::mapHolding(reinterpret_cast<const rmalloc::BlockHeader*>(address));
}

// What the table must answer.
inline const rmalloc::SegmentMap* expectedAt(const std::vector<Placed>& segments, uintptr_t address)
{
    for (const Placed& segment : segments) {
        if (segment.isKnown() && address >= segment.first() && address <= segment.last()) {
            return segment.map();
        }
    }
    return nullptr;
}

// It answers so at every unit.
inline bool agreesBetween(const std::vector<Placed>& segments, uintptr_t from, uintptr_t to)
{
    bool agrees = true;
    for (uintptr_t address = from; address != to; address += 8) {
        agrees = agrees && holding(address) == expectedAt(segments, address);
    }
    return agrees;
}

// And so at both ends of each of them, of its data area, and of its map.
inline bool agreesAtTheEnds(const std::vector<Placed>& segments)
{
    bool agrees = true;
    for (const Placed& segment : segments) {
        for (const uintptr_t address :
             {segment.from() - 8, segment.from(), segment.begin() - 8, segment.begin(),
              segment.first() - 8, segment.first(), segment.last(), segment.end()}) {
            agrees = agrees && holding(address) == expectedAt(segments, address);
        }
    }
    return agrees;
}

// True when the segment is found at each end of its data area and at the borders of the pages, a
// small one at every unit, and neither before nor behind it.
inline bool isFound(const Placed& segment)
{
    const rmalloc::SegmentMap* map = segment.map();
    bool found = holding(segment.first()) == map && holding(segment.last()) == map;
    for (uintptr_t border = (segment.first() / kPage + 1) * kPage;
         border > segment.first() && border <= segment.last(); border += kPage) {
        found = found && holding(border) == map &&
                (border - 8 < segment.first() || holding(border - 8) == map);
    }
    const uintptr_t smallEnd = segment.isSmall() ? segment.end() : segment.first();
    for (uintptr_t address = segment.first(); address < smallEnd; address += 8) {
        found = found && holding(address) == map;
    }
    return found && holding(segment.from()) != map && holding(segment.begin()) != map &&
           holding(segment.first() - 8) != map && holding(segment.end()) != map;
}

inline bool isForgotten(const Placed& segment)
{
    const rmalloc::SegmentMap* map = segment.map();
    return holding(segment.first()) != map && holding(segment.last()) != map &&
           holding(segment.first() + (segment.last() - segment.first()) / 16 * 8) != map;
}

// The region of an address; null.
inline rmalloc::Region* regionAt(uintptr_t address)
{
    return const_cast<rmalloc::Region*>(
        rmalloc::regionOf(rmalloc::pageTable, address >> rmalloc::kRegionShift));
}

// Every case leaves the table empty.
class PageTableCase : public RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        ASSERT_EQ(rmalloc::pageTable.count, 0U);
    }

    // The table is empty, and holds no memory any more once it was asked to give it back.
    void TearDown() override
    {
        EXPECT_EQ(rmalloc::pageTable.count, 0U);
        EXPECT_EQ(rmalloc::checkPageTable(), 0U);
        rmalloc::trimPageTable();
        EXPECT_EQ(rmalloc::checkPageTable(), 0U);
        if (callTrace().size() < 4000) {
            EXPECT_EQ(held(), 0);
        }
        RmTest::TearDown();
    }

    // Pieces of memory that the table has got since the case began and not given back.
    static int held()
    {
        int pieces = 0;
        for (const auto& call : callTrace({Call::kCalloc, Call::kFree})) {
            pieces += call.call == Call::kCalloc && call.result != 0 ? 1 : 0;
            pieces -= call.call == Call::kFree && call.args[0] != 0 ? 1 : 0;
        }
        return pieces;
    }

    static void addAll(std::vector<Placed>* segments)
    {
        for (Placed& segment : *segments) {
            ASSERT_TRUE(segment.add());
            ASSERT_EQ(rmalloc::checkPageTable(), 0U);
        }
    }

    static void removeAll(std::vector<Placed>* segments)
    {
        for (Placed& segment : *segments) {
            segment.remove();
            EXPECT_TRUE(isForgotten(segment)) << std::hex << segment.begin();
            ASSERT_EQ(rmalloc::checkPageTable(), 0U);
        }
    }

    // Adds them all, looks them up, and takes them out again.
    static void expectAllFound(std::vector<Placed>* segments)
    {
        addAll(segments);
        for (const Placed& segment : *segments) {
            EXPECT_TRUE(isFound(segment)) << std::hex << segment.begin() << " to " << segment.end();
        }
        EXPECT_TRUE(agreesAtTheEnds(*segments));
        removeAll(segments);
    }
};

}  // namespace rmtest

#endif
