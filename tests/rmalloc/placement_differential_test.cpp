// Long random runs of the memory manager beside the plain walk that says where blocks go.
//
// Each call is made twice: of the library, and of the allocator that walks along its segments and
// free chains in real memory and keeps nothing beside them. After every call the block lies at the
// same offset of the segment with the same number, and the figures agree. In proportion to its size
// the whole heap is compared, word for word: segments in their order, units, counts, anchors, every
// header and every link. What is in live blocks is compared when one is resized or freed, and for
// all of them now and then.
//
// placement_random_test.cpp asks a model about small heaps, bad pointers and memory that runs out;
// here heaps are large, and the calls are good ones.
//
//     RM_TEST_SEED=123            repeats a run; a failure prints its seed and the last calls
//     RM_TEST_OPERATIONS=1000000  makes longer ones: the number of calls in each case
#include "tests/rmalloc/heap_pair.h"

#include "rm.h"
#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace
{
using rmtest::Chance;
using rmtest::HeapPair;
using rmtest::kManyBlocks;
using rmtest::SegAlloc;

enum class Phase {
    kGrowing,
    kShrinking,           // at random
    kShrinkingInOrder,    // the oldest first
    kShrinkingInReverse,  // the newest first
    kReplacing,
    kReplacingEqual,  // blocks of one size, so that many fit exactly
    kAlternating,     // one block is taken and given back, again and again
    kResizing
};

constexpr uint32_t kPhases = 8;

// One kind of run.
struct Mix {
    const char* name;
    uint32_t operations;
    uint32_t seed;
    std::vector<uint32_t> segmentSizes;  // bytes; given to tags now and then
    std::vector<uint32_t> requestSizes;  // upper bounds in bytes, each as likely as the others
    uint32_t mostBlocks;                 // live at a time
    int16_t mostTags;
    SegAlloc segAlloc = SegAlloc::kOff;
    uint32_t leastBlocks = 0;        // what shrinking leaves
    uint32_t resetsEvery = 5000;     // calls, on average, until a tag is freed, or all of them
    uint32_t longestPhase = 10'000;  // calls
};

void PrintTo(const Mix& mix, std::ostream* out)
{
    *out << mix.name;
}

constexpr uint32_t kKiB = 1024;
constexpr uint32_t kMiB = 1024 * kKiB;
const Mix kMixes[] = {
    {.name = "EverydaySizes",
     .operations = 200'000,
     .seed = 201,
     .segmentSizes = {104, 512, 1000, 4096, 8192, 65'536, kMiB},
     .requestSizes = {16, 64, 64, 200, 400, 3000, 20'000},
     .mostBlocks = 400,
     .mostTags = 6},
    {.name = "TightSegments",
     .operations = 200'000,
     .seed = 202,
     .segmentSizes = {0, 31, 104, 105, 111, 128, 184, 250},
     .requestSizes = {0, 8, 40, 90, 120},
     .mostBlocks = 300,
     .mostTags = 4,
     .longestPhase = 2000},
    {.name = "SmallestSegments",
     .operations = 150'000,
     .seed = 203,
     .segmentSizes = {104},
     .requestSizes = {8, 16, 30, 72},
     .mostBlocks = 6000,
     .mostTags = 2,
     .resetsEvery = 60'000},
    {.name = "StripsOfBareHeaders",
     .operations = 150'000,
     .seed = 204,
     .segmentSizes = {1000, 2000, 8192, 16'384},
     .requestSizes = {0, 0, 8, 8, 16, 600},
     .mostBlocks = 2000,
     .mostTags = 3},
    {.name = "ThousandsInSegmentsOfTheDefaultSize",
     .operations = 200'000,
     .seed = 205,
     .segmentSizes = {8192},
     .requestSizes = {64, 219, 219, 219},
     .mostBlocks = 10'000,
     .mostTags = 3,
     .resetsEvery = 50'000,
     .longestPhase = 20'000},
    {.name = "ThousandsInLargeSegments",
     .operations = 150'000,
     .seed = 206,
     .segmentSizes = {64 * kKiB, 256 * kKiB, kMiB, 2 * kMiB},
     .requestSizes = {20, 219, 219, 1000, 5000},
     .mostBlocks = 10'000,
     .mostTags = 4,
     .resetsEvery = 50'000,
     .longestPhase = 20'000},
    {.name = "OneCrowdedSegment",
     .operations = 150'000,
     .seed = 207,
     .segmentSizes = {2 * kMiB},
     .requestSizes = {0, 20, 60, 219},
     .mostBlocks = 10'000,
     .mostTags = 1,
     .resetsEvery = 50'000},
    {.name = "SegAllocOn",
     .operations = 100'000,
     .seed = 208,
     .segmentSizes = {104, 8192, kMiB},
     .requestSizes = {0, 16, 64, 200, 1000},
     .mostBlocks = 3000,
     .mostTags = 4,
     .segAlloc = SegAlloc::kOn},
    {.name = "SegAllocChanging",
     .operations = 150'000,
     .seed = 209,
     .segmentSizes = {104, 8192, 10'001, 2 * kMiB},
     .requestSizes = {0, 16, 64, 200, 1000},
     .mostBlocks = 1000,
     .mostTags = 5,
     .segAlloc = SegAlloc::kChanging},
    {.name = "SegAllocChangingAmongThousands",
     .operations = 80'000,
     .seed = 210,
     .segmentSizes = {512, 8192, kMiB},
     .requestSizes = {16, 64, 200, 1000},
     .mostBlocks = 10'000,
     .mostTags = 5,
     .segAlloc = SegAlloc::kChanging,
     .resetsEvery = 30'000},
    {.name = "ManyTags",
     .operations = 200'000,
     .seed = 211,
     .segmentSizes = {104, 512, 8192, 20'000},
     .requestSizes = {16, 64, 200},
     .mostBlocks = 5000,
     .mostTags = 600,
     .segAlloc = SegAlloc::kChanging,
     .resetsEvery = 1000,
     .longestPhase = 2000},
    {.name = "HundredThousandBlocks",
     .operations = 160'000,
     .seed = 212,
     .segmentSizes = {8192, 16'384},
     .requestSizes = {20, 219, 219, 219},
     .mostBlocks = 100'000,
     .mostTags = 3,
     .leastBlocks = kManyBlocks,
     .resetsEvery = 300'000,
     .longestPhase = 100'000},
    {.name = "HundredThousandBlocksInLargeSegments",
     .operations = 160'000,
     .seed = 213,
     .segmentSizes = {256 * kKiB, kMiB, 2 * kMiB},
     .requestSizes = {20, 60, 120, 219},
     .mostBlocks = 100'000,
     .mostTags = 3,
     .leastBlocks = kManyBlocks,
     .resetsEvery = 300'000,
     .longestPhase = 100'000},
};

class DifferentialRun
{
  public:
    DifferentialRun(const Mix& mix, uint32_t seed)
        : mix_(mix), chance_(seed), heaps_(mix.mostBlocks)
    {
        heaps_.setSegAlloc(mix.segAlloc == SegAlloc::kOn);
    }

    // Makes up to `operations` calls. False at the first difference, which story() tells.
    bool make(uint64_t operations)
    {
        while (heaps_.calls() < operations && !heaps_.failed()) {
            step();
            if (!heaps_.failed() && (heaps_.isDue() || heaps_.calls() >= operations)) {
                heaps_.compareWhole();
            }
        }
        return !heaps_.failed();
    }

    std::string story() const { return heaps_.story(); }

    const HeapPair::Figures& figures() const { return heaps_.figures(); }

    // Ends the run with rm_freeall; the result is what is counted even then.
    uint32_t end()
    {
        heaps_.freeAll();
        return heaps_.plain().memused();
    }

  private:
    // A block that may be another one by the time that it is looked at.
    struct Born {
        uint32_t name;
        uint64_t born;
    };

    // --- Chance

    uint32_t requestSize() { return chance_.below(chance_.oneOf(mix_.requestSizes) + 1); }

    // False for tag 0 too when there is no table.
    bool inUse(Tag tag) const
    {
        return static_cast<std::size_t>(tag) < heaps_.plain().tags() && heaps_.plain().inUse(tag);
    }

    // A tag in use. On an empty table the first allocation makes 0 and 1.
    Tag anyTag()
    {
        const std::size_t tags = heaps_.plain().tags();
        if (tags == 0) {
            return static_cast<Tag>(chance_.below(2));
        }
        auto tag = static_cast<Tag>(chance_.below(static_cast<uint32_t>(tags)));
        while (!inUse(tag)) {
            tag = static_cast<Tag>(static_cast<std::size_t>(tag + 1) % tags);
        }
        return tag;
    }

    // Most often the tag of the phase.
    Tag someTag() { return inUse(tag_) && !chance_.oneIn(4) ? tag_ : anyTag(); }

    uint32_t anyBlock()
    {
        return heaps_.live()[chance_.below(static_cast<uint32_t>(heaps_.live().size()))];
    }

    // --- Calls that change where the next segments come from, or take blocks away

    void makeTag()
    {
        const Tag tag = heaps_.makeTag();
        if (!heaps_.failed()) {
            heaps_.setTagAlloc(chance_.oneOf(mix_.segmentSizes), tag);
        }
    }

    void change()
    {
        const uint32_t kind = chance_.below(mix_.segAlloc == SegAlloc::kChanging ? 3 : 2);
        if (kind == 2) {
            heaps_.setSegAlloc(chance_.oneIn(2));
            return;
        }
        int16_t tags = 0;
        for (Tag tag = 0; static_cast<std::size_t>(tag) < heaps_.plain().tags(); ++tag) {
            tags = static_cast<int16_t>(tags + (inUse(tag) ? 1 : 0));
        }
        if (kind == 0 && tags <= mix_.mostTags) {
            makeTag();
        } else if (tags > 0) {
            heaps_.setTagAlloc(chance_.oneOf(mix_.segmentSizes), someTag());
        }
    }

    void reset()
    {
        if (chance_.oneIn(12)) {
            heaps_.freeAll();
        } else if (heaps_.plain().tags() > 0) {
            const Tag tag = anyTag();
            heaps_.freeTag(tag, tag != 0 && !chance_.oneIn(3));
        }
    }

    // --- Phases

    void beginPhase()
    {
        const bool nothingYet = heaps_.figures().mostBlocks == 0;
        phase_ = nothingYet || chance_.oneIn(4) ? Phase::kGrowing
                                                : static_cast<Phase>(chance_.below(kPhases));
        const uint32_t range = mix_.mostBlocks - mix_.leastBlocks;
        target_ = phase_ == Phase::kGrowing
                      ? mix_.mostBlocks - (nothingYet ? 0 : chance_.below(range / 4 + 1))
                      : mix_.leastBlocks + chance_.below(range / 2 + 1);
        left_ = 1 + chance_.below(mix_.longestPhase);
        tag_ = anyTag();
        equal_ = std::min(requestSize(), 500U);
        passing_ = {0, 0};
        queue_.clear();
        if (phase_ == Phase::kShrinkingInOrder || phase_ == Phase::kShrinkingInReverse) {
            for (const uint32_t name : heaps_.live()) {
                queue_.push_back({name, heaps_[name].born});
            }
            const bool newestLast = phase_ == Phase::kShrinkingInReverse;
            std::sort(queue_.begin(), queue_.end(), [newestLast](const Born& a, const Born& b) {
                return newestLast ? a.born < b.born : a.born > b.born;
            });
        }
    }

    bool phaseIsOver() const
    {
        switch (phase_) {
            case Phase::kGrowing:
                return heaps_.live().size() >= target_;
            case Phase::kShrinking:
                return heaps_.live().size() <= target_;
            case Phase::kShrinkingInOrder:
            case Phase::kShrinkingInReverse:
                return heaps_.live().size() <= target_ || queue_.empty();
            default:
                return left_ == 0;
        }
    }

    void takeOrGive(bool takes, uint32_t size)
    {
        if (heaps_.live().empty() || (takes && !heaps_.isFull())) {
            heaps_.take(size, someTag());
        } else {
            heaps_.give(anyBlock());
        }
    }

    // By a few bytes as often as to another size; the newest block as often as any.
    void resize(bool extends)
    {
        if (heaps_.live().empty()) {
            return;
        }
        const uint32_t name = chance_.oneIn(2) ? heaps_.live().back() : anyBlock();
        const uint32_t size =
            chance_.oneIn(2) ? heaps_[name].size % kMiB + chance_.below(40) : requestSize();
        if (extends) {
            heaps_.extend(name, size);
        } else {
            heaps_.grow(name, size);
        }
    }

    // Gives back the next block in the order of the phase; one that has gone is passed over.
    void giveNext()
    {
        while (!queue_.empty()) {
            const Born next = queue_.back();
            queue_.pop_back();
            if (heaps_[next.name].born == next.born) {
                heaps_.give(next.name);
                return;
            }
        }
    }

    // Takes the passing block or gives it back. Now and then it is resized in between.
    void alternate()
    {
        if (passing_.born != 0 && heaps_[passing_.name].born == passing_.born) {
            if (chance_.oneIn(8)) {
                heaps_.extend(passing_.name, equal_ + chance_.below(20));
            } else {
                heaps_.give(passing_.name);
                passing_ = {0, 0};
            }
        } else if (heaps_.isFull()) {
            heaps_.give(anyBlock());
        } else {
            passing_.name = heaps_.take(equal_, someTag());
            passing_.born = heaps_[passing_.name].born;
        }
    }

    void stepOfPhase()
    {
        const uint32_t chance = chance_.below(1000);
        left_ -= left_ == 0 ? 0 : 1;
        switch (phase_) {
            case Phase::kGrowing:
            case Phase::kShrinking:
                if (chance < 900) {
                    takeOrGive((chance < 780) == (phase_ == Phase::kGrowing), requestSize());
                } else {
                    resize(chance < 970);
                }
                break;
            case Phase::kShrinkingInOrder:
            case Phase::kShrinkingInReverse:
                if (chance < 900) {
                    giveNext();
                } else {
                    takeOrGive(true, requestSize());
                }
                break;
            case Phase::kReplacing:
                if (chance < 900) {
                    takeOrGive(chance < 450 || heaps_.live().size() <= mix_.leastBlocks,
                               requestSize());
                } else {
                    resize(chance < 970);
                }
                break;
            case Phase::kReplacingEqual:
                takeOrGive(chance < 500 || heaps_.live().size() <= mix_.leastBlocks, equal_);
                break;
            case Phase::kAlternating:
                alternate();
                break;
            case Phase::kResizing:
                if (chance < 800) {
                    resize(chance < 600);
                } else {
                    takeOrGive(chance < 900, requestSize());
                }
                break;
        }
    }

    void step()
    {
        const auto tags = static_cast<int16_t>(heaps_.plain().tags());
        if (tags <= mix_.mostTags / 2 && chance_.oneIn(3)) {
            makeTag();
        } else if (chance_.oneIn(mix_.resetsEvery)) {
            reset();
        } else if (chance_.oneIn(150)) {
            change();
        } else {
            if (phaseIsOver()) {
                beginPhase();
            }
            stepOfPhase();
        }
    }

    const Mix& mix_;
    Chance chance_;
    HeapPair heaps_;
    Phase phase_ = Phase::kReplacing;
    uint32_t target_ = 0;      // blocks at which growing or shrinking ends
    uint32_t left_ = 0;        // calls of another phase
    Tag tag_ = 0;              // of the phase
    uint32_t equal_ = 0;       // bytes, where all are the same
    std::vector<Born> queue_;  // to be given back in order, from its end
    Born passing_{};           // where one is taken and given back again and again
};

class PlacementDifferential : public rmtest::HeapTest, public ::testing::WithParamInterface<Mix>
{
  protected:
    // A line on standard output, and a property of the test's report for each figure.
    static void tell(const HeapPair::Figures& figures, uint32_t seed)
    {
        std::string text = GetParam().name;
        const auto add = [&text](const char* what, uint64_t figure) {
            RecordProperty(what, std::to_string(figure));
            text += std::string(", ") + what + ' ' + std::to_string(figure);
        };
        uint64_t calls = 0;
        for (const uint64_t kind : figures.calls) {
            calls += kind;
        }
        add("seed", seed);
        add("calls", calls);
        for (std::size_t kind = 0; kind < HeapPair::kKinds.size(); ++kind) {
            add(HeapPair::kKinds[kind], figures.calls[kind]);
        }
        add("most_blocks", figures.mostBlocks);
        add("most_segments", figures.mostSegments);
        add("calls_among_20000_blocks", figures.amongMany);
        add("whole_heaps_compared", figures.compared);
        std::puts(text.c_str());
    }
};

TEST_P(PlacementDifferential, AgreesWithThePlainWalkAfterEveryCall)
{
    const auto seed = static_cast<uint32_t>(rmtest::seedOfThisRun(GetParam().seed));
    const auto operations = static_cast<uint64_t>(
        rmtest::operationsOfThisRun(static_cast<long>(GetParam().operations)));
    DifferentialRun run(GetParam(), seed);
    bool agrees = false;
    const std::string logged = rmtest::captureStderr([&] { agrees = run.make(operations); });
    EXPECT_TRUE(agrees) << run.story() << "\nRM_TEST_SEED=" << seed
                        << " RM_TEST_OPERATIONS=" << operations;
    EXPECT_EQ(logged, "");
    tell(run.figures(), seed);
    expectDrift(run.end());
}

INSTANTIATE_TEST_SUITE_P(With, PlacementDifferential, ::testing::ValuesIn(kMixes),
                         [](const ::testing::TestParamInfo<Mix>& mix) {
                             return std::string(mix.param.name);
                         });
}  // namespace
