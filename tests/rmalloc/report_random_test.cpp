// The memory report of whole heaps against the model of it: every combination of flags, and heaps
// that random calls have made. Where the blocks of those lie is known from the allocator's model,
// so nothing of a heap is read but the addresses of its segments.
//
//     RM_TEST_SEED=123          repeats a run; a failure prints its seed
//     RM_TEST_OPERATIONS=10000  the number of calls between the first report and the last
#include "tests/models/allocator_model.h"
#include "tests/rmalloc/report_case.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace
{
using rmtest::AllocatorModel;
using rmtest::bytesFor;
using rmtest::draw;
using rmtest::drawnTag;
using rmtest::kEverything;
using rmtest::kReportDone;
using rmtest::kReportHeading;
using rmtest::Lines;
using rmtest::report;
using rmtest::ReportModel;
using rmtest::segmentsOf;

class ReportCombinations : public rmtest::HeapTest
{
};

class ReportCost : public rmtest::HeapTest
{
};

class ReportOfRandomHeap : public rmtest::HeapTest, public ::testing::WithParamInterface<bool>
{
};

INSTANTIATE_TEST_SUITE_P(Segments, ReportOfRandomHeap, ::testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Exact" : "Shared"; });

// The six bits that mean something, in all combinations.
std::vector<int> allFlags()
{
    std::vector<int> all;
    for (int i = 0; i < 64; ++i) {
        int flags = 0;
        int bit = 1;
        for (const int flag : {RM_REPORT_FREE, RM_REPORT_TAG, RM_REPORT_TOTALS, RM_REPORT_DETAIL,
                               RM_REPORT_SUMMARY, kEverything}) {
            flags |= (i & bit) != 0 ? flag : 0;
            bit *= 2;
        }
        all.push_back(flags);
    }
    return all;
}

// Every combination of flags, with every tag that is one and some that are not.
void expectEveryReport(ReportModel model)
{
    for (const int flags : allFlags()) {
        std::vector<int> tags = {0};
        if ((flags & RM_REPORT_TAG) != 0) {
            tags = {-32'768, -1, 0, 1, 2, 3, 4, 5, 6, 39, 40, 32'767};
        }
        for (const int tag : tags) {
            ASSERT_EQ(report(flags, tag), model.lines(flags, tag)) << flags << " of " << tag;
        }
    }
}

// --- Every combination of flags

TEST_F(ReportCombinations, AreRightBeforeAnyMemory)
{
    expectEveryReport(ReportModel({}));
}

TEST_F(ReportCombinations, AreRightForTagZeroAlone)
{
    rm_getMemory(0, 0);
    ReportModel::Tag tagOne{.inUse = true, .name = "", .limit = RM_NO_LIMIT, .segments = {}};
    expectEveryReport(ReportModel({drawnTag("6140 [1]", 0), tagOne}));
}

TEST_F(ReportCombinations, AreRightForSeveralTagsWithOneThatWasReleased)
{
    const char* const drawings[] = {"2 [3] 1 [4] | [1] | [2] 6 [1]", "[5]", "", "3 [1] 1"};
    const Tag first = draw(drawings[0]).tag;
    const Tag released = draw(drawings[1]).tag;
    const Tag empty = rm_allocTag(nullptr, 1000);
    const Tag last = draw(drawings[3]).tag;
    rm_freeTagMemory(released, 1);
    ReportModel::Tag tagZero{.inUse = true, .name = "", .limit = RM_NO_LIMIT, .segments = {}};
    expectEveryReport(ReportModel({tagZero,
                                   drawnTag(drawings[0], first),
                                   {},
                                   drawnTag(drawings[2], empty, "", 1000),
                                   drawnTag(drawings[3], last)}));
}

TEST_F(ReportCombinations, AreRightForTagsWithNamesAndLimits)
{
    const Tag shortName = rm_allocTag(nullptr, 0x80000001);
    const Tag longName = rm_allocTag(nullptr, 77);
    const std::string name(300, '%');
    rm_setTagName("abc", shortName);
    rm_setTagName(name.c_str(), longName);
    ReportModel::Tag tagZero{.inUse = true, .name = "", .limit = RM_NO_LIMIT, .segments = {}};
    expectEveryReport(ReportModel({tagZero, drawnTag("1019 [2]", shortName, "abc", 0x80000001),
                                   drawnTag("982 [39]", longName, name, 77)}));
}

TEST_F(ReportCombinations, AreRightForExactSegments)
{
    seg_alloc = 1;
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    for (const uint32_t units : {1U, 3U, 100U}) {
        rm_getMemory(bytesFor(units), tag);
    }
    ReportModel::Tag tagZero{.inUse = true, .name = "", .limit = RM_NO_LIMIT, .segments = {}};
    expectEveryReport(ReportModel({tagZero, drawnTag("[1] | [3] | [100]", tag)}));
}

TEST_F(ReportCombinations, BringTheHeadingExactlyWhenThereIsALine)
{
    draw("2 [3]");
    for (const int flags : allFlags()) {
        const Lines lines = report(flags, 1);
        const bool more = (flags & ~(RM_REPORT_FREE | RM_REPORT_TAG)) != 0;
        EXPECT_EQ(lines.front(), more ? kReportHeading : kReportDone) << flags;
        EXPECT_EQ(lines.size() > 1, more) << flags;
        EXPECT_EQ(lines.back(), kReportDone) << flags;
    }
}

// --- Random heaps

// The heap as the allocator's model has it, and the names and limits that this test has given.
ReportModel describe(const AllocatorModel& allocator, const std::map<Tag, std::string>& names,
                     const std::map<Tag, uint32_t>& limits)
{
    std::vector<ReportModel::Tag> tags;
    for (const AllocatorModel::Tag& from : allocator.tags()) {
        const Tag number = static_cast<Tag>(tags.size());
        ReportModel::Tag tag{.inUse = from.inUse,
                             .name = names.contains(number) ? names.at(number) : "",
                             .limit = limits.contains(number) ? limits.at(number) : RM_NO_LIMIT,
                             .allocated = from.allocated,
                             .segments = {}};
        for (const AllocatorModel::Segment& segment : from.segments) {
            ReportModel::Segment to{rmtest::anchorOf(segmentsOf(number).at(tag.segments.size())),
                                    segment.units,
                                    segment.live,
                                    {{0, false}}};
            for (const AllocatorModel::Piece& piece : segment.pieces) {
                to.pieces.push_back({piece.units, piece.block != AllocatorModel::kFree});
            }
            tag.segments.push_back(to);
        }
        tags.push_back(tag);
    }
    return ReportModel(tags);
}

class RandomHeap
{
  public:
    RandomHeap(uint64_t seed, bool exactSegments) : random_(seed)
    {
        allocator_.setExactSegments(exactSegments);
    }

    void makeCall()
    {
        const uint32_t choice = below(100);
        if (tags_.empty() || (choice < 3 && tags_.size() < 20)) {
            makeTag();
        } else if (choice < 4) {
            freeTag(below(2) == 0);
        } else if (choice < 55 || blocks_.empty()) {
            take(anyTag());
        } else if (choice < 85) {
            give(below(static_cast<uint32_t>(blocks_.size())));
        } else {
            extend(blocks_[below(static_cast<uint32_t>(blocks_.size()))]);
        }
    }

    // A report with any flags about any tag, and what it has to be.
    void expectReport()
    {
        const std::vector<int> all = allFlags();
        const int flags = all[below(64)];
        const int tag = static_cast<int>(below(24)) - 1;
        ReportModel model = describe(allocator_, names_, limits_);
        ASSERT_EQ(report(flags, tag), model.lines(flags, tag)) << flags << " of " << tag;
        constexpr int kFull = kEverything | RM_REPORT_FREE | RM_REPORT_SUMMARY;
        ASSERT_EQ(report(kFull), model.lines(kFull, 0));
    }

    std::size_t blockCount() const { return blocks_.size(); }

  private:
    struct Held {
        void* pointer;
        AllocatorModel::Block name;
        Tag tag;
    };

    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }

    Tag anyTag() { return tags_[below(static_cast<uint32_t>(tags_.size()))]; }

    uint32_t anySize()
    {
        constexpr std::array<uint32_t, 5> kBounds = {8, 40, 40, 300, 3000};
        return below(kBounds[below(5)] + 1);
    }

    void makeTag()
    {
        const uint32_t limit = below(3) == 0 ? RM_NO_LIMIT : static_cast<uint32_t>(random_());
        const Tag tag = rm_allocTag(nullptr, limit);
        ASSERT_EQ(allocator_.allocTag(), tag);
        tags_.push_back(tag);
        limits_[tag] = limit;
        if (below(2) == 0) {
            const uint32_t bytes = 104 + 8 * below(200);
            rm_setTagAlloc(bytes, tag);
            allocator_.setSegmentSize(tag, bytes);
        }
        if (below(2) == 0) {
            names_[tag] = std::string(below(30), static_cast<char>('a' + below(26)));
            rm_setTagName(names_[tag].c_str(), tag);
            allocator_.take(tag, static_cast<uint32_t>(names_[tag].size()) + 1, ++lastName_);
        }
    }

    void freeTag(bool release)
    {
        const Tag tag = anyTag();
        rm_freeTagMemory(tag, release ? 1 : 0);
        allocator_.freeTag(tag, release);
        names_.erase(tag);
        std::erase_if(blocks_, [=](const Held& held) { return held.tag == tag; });
        if (release) {
            std::erase(tags_, tag);
            limits_[tag] = 0;
        }
    }

    void take(Tag tag)
    {
        const uint32_t size = anySize();
        blocks_.push_back({rm_getMemory(size, tag), ++lastName_, tag});
        allocator_.take(tag, size, lastName_);
    }

    void give(uint32_t index)
    {
        const Held held = blocks_[index];
        rm_freeMemory(held.pointer, held.tag);
        allocator_.give(held.tag, held.name);
        blocks_.erase(blocks_.begin() + index);
    }

    void extend(Held& held)
    {
        const uint32_t size = anySize();
        held.pointer = rm_extendMemory(held.pointer, size, held.tag);
        allocator_.extend(held.tag, held.name, size);
    }

    std::mt19937_64 random_;
    AllocatorModel allocator_{rmtest::kRecord};
    std::vector<Tag> tags_;
    std::vector<Held> blocks_;
    std::map<Tag, std::string> names_;
    std::map<Tag, uint32_t> limits_;
    AllocatorModel::Block lastName_ = 0;
};

TEST_P(ReportOfRandomHeap, IsTheModelsOne)
{
    if (GetParam()) {
        setenv("SEG_ALLOC", "1", 1);
    }
    const uint64_t seed = rmtest::seedOfThisRun(20'260);
    SCOPED_TRACE("RM_TEST_SEED=" + std::to_string(seed));
    RandomHeap heap(seed, GetParam());
    const long calls = rmtest::operationsOfThisRun(4000);
    for (long i = 0; i < calls && !HasFatalFailure(); ++i) {
        heap.makeCall();
        if (i % 10 == 9) {
            heap.expectReport();
        }
    }
    EXPECT_GT(heap.blockCount(), 10U);
    unsetenv("SEG_ALLOC");
}

// --- What a report costs

// Lines of a full report of a tag with so many blocks, every other one of them free.
std::size_t linesForBlocks(uint32_t blocks)
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_setTagAlloc(blocks * 16 + 24, tag);
    std::vector<void*> held;
    for (uint32_t i = 0; i < blocks; ++i) {
        held.push_back(rm_getMemory(8, tag));
    }
    for (uint32_t i = 0; i < blocks; i += 2) {
        rm_freeMemory(held[i], tag);
    }
    const Lines lines = report(kEverything | RM_REPORT_FREE | RM_REPORT_TAG, tag);
    rm_freeTagMemory(tag, 1);
    return lines.size();
}

TEST_F(ReportCost, IsALineForEachBlock)
{
    const std::size_t frame = linesForBlocks(1000) - 1000;
    EXPECT_EQ(linesForBlocks(10'000), 10'000 + frame);
}

// Looking through the segments again after each line would make this one the square of itself.
TEST_F(ReportCost, OfManySegmentsIsFourLinesForEachBlockOfItsOwn)
{
    seg_alloc = 1;
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    for (int i = 0; i < 3000; ++i) {
        rm_getMemory(8, tag);
    }
    EXPECT_EQ(report(kEverything | RM_REPORT_TAG, tag).size(), 3000U * 4 + 2 + 1 + 3 + 3 + 1);
}
}  // namespace
