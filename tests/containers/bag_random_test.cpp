// Random operations on bags of every kind, compared step by step with a model of their own.
//
// The same run every time; RM_TEST_SEED makes another one, RM_TEST_OPERATIONS makes each of the
// four cases longer or shorter.
#include "tests/models/bag_pair.h"
#include "tests/support/support.h"

#include <array>
#include <cstdio>
#include <random>
#include <utility>

namespace
{

using rmtest::BagPair;
using rmtest::BagStep;

#ifdef __SANITIZE_ADDRESS__
constexpr long kOperations = 40'000;  // each costs several times as much
#else
constexpr long kOperations = 200'000;
#endif

// Standard error of the library, while it lives: lines cost no system call.
class LogTap
{
  public:
    LogTap()
    {
        cookie_io_functions_t functions = {};
        functions.write = [](void* cookie, const char* bytes, std::size_t size) {
            static_cast<std::string*>(cookie)->append(bytes, size);
            return static_cast<ssize_t>(size);
        };
        stream_ = fopencookie(&lines_, "w", functions);
        std::setvbuf(stream_, nullptr, _IONBF, 0);
        saved_ = std::exchange(stderr, stream_);
    }

    ~LogTap()
    {
        stderr = saved_;
        std::fclose(stream_);
    }

    LogTap(const LogTap&) = delete;
    LogTap& operator=(const LogTap&) = delete;

    std::string take() { return std::exchange(lines_, {}); }

  private:
    std::string lines_;
    FILE* stream_ = nullptr;
    FILE* saved_ = nullptr;
};

// How often each step is made, of the sum. A round changes between moods.
using Weights = std::array<uint32_t, static_cast<std::size_t>(BagStep::kCount)>;
constexpr std::array<Weights, 4> kMoods = {{
    //  add del  1st next last prev get  set  ptr  data find lose
    {40, 6, 2, 4, 2, 3, 1, 4, 1, 1, 4, 0},
    {6, 30, 3, 6, 3, 5, 1, 12, 1, 1, 3, 0},
    {4, 3, 6, 20, 6, 12, 2, 6, 3, 3, 10, 0},
    {18, 14, 4, 8, 3, 5, 1, 8, 2, 2, 5, 0},
}};

class BagRandom : public rmtest::RmTest
{
  protected:
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }

    bool oneIn(uint32_t n) { return below(n) == 0; }

    void run(uint16_t discipline)
    {
        const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
        const long operations = rmtest::operationsOfThisRun(kOperations);
        while (done_ < operations) {
            ++rounds_;
            const bool same = sameRound(discipline, tag);
            ASSERT_TRUE(same) << "seed " << rmtest::seedOfThisRun() << ", round " << rounds_
                              << ", operation " << done_ << ": " << what_;
            ASSERT_EQ(rmalloc::tagTable[tag].allocated, 0U) << "round " << rounds_;
        }
        // Enough has been looked at: lookups were made, and there were lines to compare.
        EXPECT_GT(finds_, done_ / 100);
        EXPECT_GT(lines_, 0);
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
    }

  private:
    // The life of one bag.
    bool sameRound(uint16_t discipline, Tag tag)
    {
        const rmtest::Below choose = [this](uint32_t bound) { return below(bound); };
        BagPair pair(rmtest::anyBagCtl(discipline, tag, choose), choose, choose,
                     [this] { return log_.take(); });
        bool same = pair.create();
        const bool losesMap = pair.model().isMapped() && oneIn(12);
        for (uint32_t left = pair.exists() ? 10 + below(600) : 0; same && left > 0; --left) {
            mood_ = oneIn(60) ? below(kMoods.size()) : mood_;
            same = pair.step(losesMap && oneIn(200) ? BagStep::kLoseMap : anyStep(pair));
            ++done_;
        }
        finds_ += pair.finds();
        lines_ += pair.linesSeen();
        what_ = pair.what();
        if (same && pair.exists()) {
            same = pair.destroy();
            what_ = pair.what();
        }
        return same;
    }

    // The way back from nowhere is one of 65535 steps: it is seldom gone.
    BagStep anyStep(const BagPair& pair)
    {
        const Weights& weights = kMoods.at(mood_);
        while (true) {
            uint32_t at = below(100);
            std::size_t step = 0;
            while (step < weights.size() && at >= weights.at(step)) {
                at -= weights.at(step++);
            }
            if (step < weights.size() && (step != static_cast<std::size_t>(BagStep::kPrev) ||
                                          pair.model().state.curSlot < 1000 || oneIn(50))) {
                return static_cast<BagStep>(step);
            }
        }
    }

    std::mt19937_64 random_{rmtest::seedOfThisRun()};
    LogTap log_;
    uint32_t mood_ = 0;
    long done_ = 0;
    long rounds_ = 0;
    long finds_ = 0;
    long lines_ = 0;
    std::string what_;
};

TEST_F(BagRandom, CompactBagsDoWhatTheModelDoes)
{
    run(0);
}

TEST_F(BagRandom, SlotMapsDoWhatTheModelDoes)
{
    run(BAG_SLOT_MAP);
}

TEST_F(BagRandom, RingsDoWhatTheModelDoes)
{
    run(BAG_RING);
}

// Nobody should make one, and whoever does gets the steps of both, in their order.
TEST_F(BagRandom, RingsWithASlotMapDoWhatTheModelDoes)
{
    run(BAG_RING | BAG_SLOT_MAP);
}

}  // namespace
