// Random calls on several pools of several tags, with and without locks, each beside a model.
//
// Every element is filled with a pattern when it is got, and the pattern is compared when it is
// given back and when it comes again: an element that two users had would show. Elements that are
// given back twice, into the same pool or another one, and pointers that are none are mixed in;
// they must be logged and change nothing.
//
//     RM_TEST_SEED=123            repeats a run; a failure prints its seed
//     RM_TEST_OPERATIONS=1000000  makes a longer one: the number of calls
#include "tests/models/pool_model.h"
#include "tests/rmutil/pool_case.h"

#include <algorithm>
#include <array>
#include <random>

using namespace pooltest;

namespace
{
using rmtest::PoolModel;

#ifdef __SANITIZE_ADDRESS__
constexpr long kOperations = 50'000;  // each costs several times as much
#else
constexpr long kOperations = 200'000;
#endif
constexpr std::size_t kPools = 6;       // at a time
constexpr std::size_t kMostHeld = 60;   // elements, of a tag
constexpr uint32_t kFreeEvery = 300;    // calls, on average, in the life of a pool
constexpr uint32_t kEmptyEvery = 5000;  // calls, on average, between two releases of a tag's memory
constexpr uint32_t kCheckEvery = 50;    // calls, on average, between two looks at the whole heap

struct Pair {
    RmPool* pool = nullptr;
    PoolModel model;
    std::size_t tag = 0;  // index into those of the case
};

class PoolRandom : public PoolTest
{
  protected:
    void SetUp() override
    {
        PoolTest::SetUp();
        for (Tag& tag : tags_) {
            tag = rm_allocTag(nullptr, RM_NO_LIMIT);
        }
        for (std::size_t i = 0; i < kPools; ++i) {
            make(i);
        }
    }

    uint32_t below(uint32_t bound)
    {
        return std::uniform_int_distribution<uint32_t>(0, bound - 1)(random_);
    }

    bool oneIn(uint32_t n) { return below(n) == 0; }

    std::size_t anyOf(std::size_t count) { return below(static_cast<uint32_t>(count)); }

    // Pool 0 has a lock and pool 1 the null object.
    void make(std::size_t which)
    {
        const std::array<const char*, kPools> names = {"random", ""};
        Pair& pair = pairs_.at(which);
        pair.tag = anyOf(tags_.size());
        pair.model = {};
        pair.pool = rm_allocPool(below(3), tags_.at(pair.tag), names.at(which), 1000);
    }

    uint32_t size()
    {
        switch (below(10)) {
            case 0:
                return below(3000);
            case 1:
                return 0;
            case 2:
                return below(20'000);
            default:
                return below(100);
        }
    }

    // One call, good or bad. False when it did anything but what the model did.
    bool sameCall()
    {
        Pair& pair = pairs_.at(anyOf(kPools));
        if (oneIn(12)) {
            return sameBadPut(&pair);
        }
        if (oneIn(kFreeEvery)) {
            return sameFreeing(anyOf(kPools));
        }
        if (oneIn(kEmptyEvery)) {
            emptyTag(anyOf(tags_.size()));
            return true;
        }
        const std::vector<PoolModel::Element>& held = held_.at(pair.tag);
        return held.empty() || (held.size() < kMostHeld && oneIn(2)) ? sameGet(&pair)
                                                                     : samePut(&pair);
    }

    bool sameLists() const
    {
        return std::all_of(pairs_.begin(), pairs_.end(), [](const Pair& pair) {
            std::vector<void*> expected;
            for (const PoolModel::Element& element : pair.model.free()) {
                expected.insert(expected.begin(), element.address);
            }
            return freeElements(pair.pool) == expected && pair.pool->count == 0;
        });
    }

  private:
    bool sameGet(Pair* pair)
    {
        const uint32_t bytes = size();
        const PoolModel::Got expected = pair->model.get(bytes);
        void* address = rm_getFromPool(bytes, pair->pool);
        PoolModel::Element element = expected.element;
        if (expected.kind == PoolModel::kRecycled) {
            if (address != element.address ||
                !rmtest::holdsPattern(address, element.written, element.seed)) {
                return false;
            }
        } else {
            element = {address, PoolModel::roomFor(bytes), 0, 0};
            const auto* first = static_cast<const char*>(address);
            const bool cleared = std::all_of(first, first + bytes, [](char c) { return c == 0; });
            if (!cleared && expected.kind == PoolModel::kNew) {
                return false;
            }
        }
        element.seed = below(100);
        element.written = bytes;
        rmtest::fill(address, bytes, element.seed);
        held_.at(pair->tag).push_back(element);
        return unitsOf(address) * rmalloc::kUnit ==
               element.room + rmalloc::kUnit + static_cast<uint32_t>(sizeof(PoolElement));
    }

    bool samePut(Pair* pair)
    {
        std::vector<PoolModel::Element>& held = held_.at(pair->tag);
        const std::size_t which = anyOf(held.size());
        const PoolModel::Element element = held.at(which);
        held.at(which) = held.back();
        held.pop_back();
        if (!rmtest::holdsPattern(element.address, element.written, element.seed)) {
            return false;
        }
        pair->model.put(element);
        return rm_putInPool(element.address, pair->pool) == 0 &&
               rmtest::holdsPattern(element.address, element.written, element.seed);
    }

    // A pointer that no pool of the tag may take.
    void* badPointerFor(const Pair& pair)
    {
        const Pair& other = pairs_.at(anyOf(kPools));
        const std::vector<PoolModel::Element>& free = other.model.free();
        const std::vector<PoolModel::Element>& held = held_.at(other.tag);
        const uint32_t kind = below(4);
        if (kind < 2 && !free.empty()) {
            return free.at(anyOf(free.size())).address;  // given back already
        }
        if (kind == 2 && !held.empty() && other.tag != pair.tag) {
            return held.at(anyOf(held.size())).address;
        }
        if (kind == 3 && !held.empty()) {
            return static_cast<char*>(held.at(anyOf(held.size())).address) + 1 + below(7);
        }
        return &outside_;
    }

    bool sameBadPut(Pair* pair)
    {
        void* pointer = badPointerFor(*pair);
        int result = -1;
        const Lines lines = linesOf([&] { result = rm_putInPool(pointer, pair->pool); });
        return result == 0 && lines == Lines{badPointer(pointer)};
    }

    // Elements that are held stay, and go on in the other pools of the tag.
    bool sameFreeing(std::size_t which)
    {
        Pair& pair = pairs_.at(which);
        uint32_t gone = rmalloc::unitsFor(sizeof(RmPool)) * rmalloc::kUnit;
        for (const PoolModel::Element& element : pair.model.free()) {
            gone += unitsOf(element.address) * rmalloc::kUnit;
        }
        const uint32_t before = rmtest::allocated(pair.pool->tag);
        const Tag tag = pair.pool->tag;
        const bool same = rm_zFreePool(&pair.pool) == 0 && pair.pool == nullptr &&
                          rmtest::allocated(tag) == before - gone;
        make(which);
        return same;
    }

    // All elements and pools of the tag go with its memory; the locks do not.
    void emptyTag(std::size_t which)
    {
        for (std::size_t i = 0; i < kPools; ++i) {
            if (pairs_.at(i).tag == which && pairs_.at(i).pool->lock >= 0) {
                rm_zFreePool(&pairs_.at(i).pool);
            }
        }
        rm_freeTagMemory(tags_.at(which), 0);
        held_.at(which).clear();
        for (std::size_t i = 0; i < kPools; ++i) {
            if (pairs_.at(i).tag == which) {
                make(i);
            }
        }
    }

    std::array<Tag, 3> tags_ = {};
    std::array<Pair, kPools> pairs_;
    std::array<std::vector<PoolModel::Element>, 3> held_;
    rmtest::WrittenMemory written_;
    std::mt19937_64 random_{rmtest::seedOfThisRun()};
    uint64_t outside_ = 0;
};

TEST_F(PoolRandom, PoolsGiveWhatTheirModelsGive)
{
    const long operations = rmtest::operationsOfThisRun(kOperations);
    for (long done = 0; done < operations; ++done) {
        ASSERT_TRUE(sameCall()) << "seed " << rmtest::seedOfThisRun() << ", call " << done;
        if (oneIn(kCheckEvery)) {
            ASSERT_TRUE(sameLists()) << "seed " << rmtest::seedOfThisRun() << ", call " << done;
            ASSERT_EQ(rmalloc::checkMemory(), 0U)
                << "seed " << rmtest::seedOfThisRun() << ", call " << done;
        }
    }
    EXPECT_TRUE(sameLists());
}

}  // namespace
