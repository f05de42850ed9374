// Random runs of the page table: it answers as a std::map of the segments by address, after every
// step, with segments of both kinds.
//
//     RM_TEST_SEED=123            repeats a random run; a failure prints its seed
//     RM_TEST_OPERATIONS=1000000  makes longer ones
#include "tests/rmalloc/pagetable_case.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <ostream>
#include <random>
#include <string>

namespace
{
using rmalloc::checkPageTable;
using rmalloc::pageTable;
using rmalloc::SegmentMap;
using rmtest::Arena;
using rmtest::base;
using rmtest::holding;
using rmtest::kBefore;
using rmtest::kHeader;
using rmtest::kLargestSmall;
using rmtest::kPage;
using rmtest::kRegion;
using rmtest::kSmallest;
using rmtest::kSmallestLarge;
using rmtest::Placed;
using rmtest::Shape;

struct Run {
    const char* name;
    uintptr_t space;       // bytes from base() on; small ones are in what the arena has of it
    uintptr_t largest;     // bytes of a segment
    std::size_t segments;  // at a time
    uint32_t smalls;       // of ten
    uint32_t checkEvery;
};

void PrintTo(const Run& run, std::ostream* out)
{
    *out << run.name;
}

class PageTableRandom : public rmtest::PageTableCase, public ::testing::WithParamInterface<Run>
{
  protected:
    uintptr_t below(uintptr_t limit) { return static_cast<uintptr_t>(random_() % limit); }

    // The model's answer.
    const SegmentMap* modelAt(uintptr_t address) const
    {
        const auto behind = present_.upper_bound(address);
        if (behind == present_.begin()) {
            return nullptr;
        }
        const Placed& segment = std::prev(behind)->second;
        return address >= segment.first() && address <= segment.last() ? segment.map() : nullptr;
    }

    // What belongs to a small segment begins with its map.
    bool isRoom(const Shape& shape) const
    {
        const uintptr_t from = shape.begin - (shape.bytes <= kLargestSmall ? kBefore : 0);
        const auto behind = present_.lower_bound(from);
        return (behind == present_.end() || behind->second.from() >= shape.end()) &&
               (behind == present_.begin() || std::prev(behind)->second.end() <= from);
    }

    Shape anyShape()
    {
        const bool isSmall = below(10) < GetParam().smalls;
        const uintptr_t arena = Arena::get().end() - 2 * kPage - base();
        const uintptr_t space = isSmall ? std::min(GetParam().space, arena) : GetParam().space;
        Shape shape{base() + below(space) / 8 * 8, 0};
        if (isSmall) {
            shape.bytes = below(4) == 0 ? kLargestSmall - below(3) * 8
                                        : kSmallest + below(kLargestSmall - kSmallest) / 8 * 8;
        } else {
            shape.bytes = kSmallestLarge + below(GetParam().largest - kSmallestLarge) / 8 * 8;
        }
        const auto near = present_.lower_bound(shape.begin);
        if (below(3) == 0 && near != present_.begin() &&
            (!isSmall || std::prev(near)->second.end() < base() + space)) {
            // As close behind another one as it can be.
            shape.begin = std::prev(near)->second.end() + (isSmall ? kBefore : 0);
        } else if (below(4) == 0) {
            shape.begin = shape.begin / kPage * kPage - 8 * below(5);
        }
        if (!isRoom(shape)) {
            shape.bytes = isSmall ? kSmallest : kSmallestLarge;
        }
        return shape;
    }

    void add()
    {
        const Shape shape = anyShape();
        if (isRoom(shape)) {
            Placed segment(shape);
            ASSERT_TRUE(segment.add());
            present_.emplace(shape.begin, std::move(segment));
            look(shape);
        }
    }

    void remove()
    {
        auto one = present_.lower_bound(base() + below(GetParam().space));
        one = one == present_.end() ? present_.begin() : one;
        one->second.remove();
        const Shape shape{one->first, one->second.end() - one->first};
        present_.erase(one);
        look(shape);
    }

    // Around a segment that has come or gone, and anywhere.
    void look(const Shape& shape)
    {
        const uintptr_t begin = shape.begin;
        const uintptr_t pageBehind = (begin / kPage + 1) * kPage;
        for (const uintptr_t at :
             {begin - kBefore - 8, begin - kBefore, begin - 8, begin, begin + kHeader - 8,
              begin + kHeader, shape.end() - 8, shape.end(), shape.end() + kHeader,
              shape.end() + kBefore + kHeader, pageBehind - 8, pageBehind, pageBehind + kHeader,
              begin / kPage * kPage, begin + below(shape.bytes) / 8 * 8,
              base() + below(GetParam().space) / 8 * 8}) {
            ASSERT_EQ(holding(at), modelAt(at)) << std::hex << at;
        }
    }

    void step()
    {
        if (below(500) == 0) {
            growing_ = !growing_;
        }
        const bool isFull = present_.size() >= GetParam().segments;
        if (isFull || (!present_.empty() && below(10) < (growing_ ? 3 : 7))) {
            remove();
        } else {
            add();
        }
    }

    std::map<uintptr_t, Placed> present_;  // by where they begin

  private:
    std::mt19937_64 random_{rmtest::seedOfThisRun()};
    bool growing_ = true;
};

TEST_P(PageTableRandom, AgreesWithAMapByAddressAfterEveryStep)
{
    const long operations = rmtest::operationsOfThisRun(100'000);
    for (long done = 0; done < operations; ++done) {
        SCOPED_TRACE("seed " + std::to_string(rmtest::seedOfThisRun()) + ", step " +
                     std::to_string(done));
        step();
        if (done % GetParam().checkEvery == 0) {
            ASSERT_EQ(checkPageTable(), 0U);
        }
        ASSERT_EQ(pageTable.count == 0, present_.empty());
        ASSERT_FALSE(HasFatalFailure());
    }
    while (!present_.empty()) {
        remove();
    }
}

// The runs have both kinds, but those that are called after one.
INSTANTIATE_TEST_SUITE_P(
    With, PageTableRandom,
    ::testing::Values(Run{"CrowdedPages", 24 * kPage, 2 * kPage, 60, 7, 10},
                      Run{"CrowdedPagesOfSmallSegments", 8 * kPage, 2 * kPage, 60, 10, 10},
                      Run{"CrowdedPagesOfLargeSegments", 24 * kPage, 2 * kPage, 60, 0, 10},
                      Run{"SegmentsOfSomePages", 64 * kPage, 8 * kPage, 60, 5, 10},
                      Run{"FewSegmentsThatComeAndGo", 20 * kRegion, 4 * kPage, 3, 5, 10},
                      Run{"SegmentsOfSomeRegions", 40 * kRegion, 3 * kRegion, 12, 5, 100},
                      Run{"ManyRegions", 4000 * kRegion, 4 * kPage, 300, 5, 2000}),
    [](const ::testing::TestParamInfo<Run>& run) { return std::string(run.param.name); });
}  // namespace
