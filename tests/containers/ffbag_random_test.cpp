// Random operations on FF bags of every shape, several at a time, compared step by step with a
// model of their own; and, as long as nobody has written over a header, with a plain queue.
//
// The same run every time; RM_TEST_SEED makes another one, RM_TEST_OPERATIONS makes it longer or
// shorter.
#include "tests/containers/ffbag_case.h"

#include <deque>
#include <memory>
#include <random>

using namespace ffbagtest;

namespace
{

#ifdef __SANITIZE_ADDRESS__
constexpr long kOperations = 60'000;  // each costs several times as much
#else
constexpr long kOperations = 300'000;
#endif

using Random = std::mt19937_64;

uint32_t below(Random& random, uint32_t bound)
{
    return static_cast<uint32_t>(random() % bound);
}

// What has been looked at.
struct Tally {
    long done = 0;  // successful pushes and pops
    long refused = 0;
    long damaged = 0;
    long rounds = 0;  // times that next went back to slot 0
};

// A bag, its model and a plain queue of its elements.
class Trio
{
  public:
    Trio(uint16_t capacity, uint16_t elementSize, bool hostile)
        : bag_(makeBag(capacity, elementSize)),
          bytes_(wholePages(sizeOf(capacity, elementSize))),
          model_(capacity, elementSize, reinterpret_cast<uintptr_t>(bag_.area), Bytes(bytes_)),
          element_(elementSize),
          buffer_(elementSize),
          expected_(elementSize),
          isHostile_(hostile)
    {
    }

    bool step(Random& random, Tally& tally)
    {
        if (isHostile_ && below(random, 8) == 0) {
            damage(random);
        }
        const bool pushing = below(random, 100) < mood_;
        if (below(random, 40) == 0) {
            mood_ = 10 + below(random, 81);
        }
        const bool same = pushing ? push(random, tally) : pop(tally);
        return same && std::memcmp(bag_.area, model_.memory().data(), bytes_) == 0 &&
               (isHostile_ || (ffbag::checkFfBag(bag_.bag) == 0 && model_.isSound()));
    }

  private:
    bool push(Random& random, Tally& tally)
    {
        for (std::size_t i = 0; i < element_.size(); ++i) {
            element_.data()[i] = static_cast<unsigned char>(random());
        }
        const uint16_t next = bag_.get(FfBagModel::kNext);
        const int16_t result = ffBagPush(bag_.bag, element_.data());
        const bool wasFull = queue_.size() == model_.get(FfBagModel::kCapacity);
        if (result != model_.push(element_.data())) {
            return false;
        }
        count(result, tally);
        tally.rounds += bag_.get(FfBagModel::kNext) < next ? 1 : 0;
        if (isHostile_) {
            return true;
        }
        if (!wasFull) {
            queue_.push_back(element_.contents());
        }
        return result == (wasFull ? RM_FULL : RM_SUCCESS);
    }

    bool pop(Tally& tally)
    {
        buffer_.fill(0xA5);
        std::fill(expected_.begin(), expected_.end(), static_cast<unsigned char>(0xA5));
        const int16_t result = ffBagPop(bag_.bag, buffer_.data());
        if (result != model_.pop(expected_.data()) || buffer_.contents() != expected_) {
            return false;
        }
        count(result, tally);
        if (isHostile_) {
            return true;
        }
        if (queue_.empty()) {
            return result == RM_NO_ELEMENT;
        }
        const bool same = result == RM_SUCCESS && queue_.front() == buffer_.contents();
        queue_.pop_front();
        return same;
    }

    static void count(int16_t result, Tally& tally)
    {
        ++(result == RM_SUCCESS   ? tally.done
           : result == RM_INVALID ? tally.damaged
                                  : tally.refused);
    }

    // A field gets any value, or one that it could have. Sometimes all are put right.
    void damage(Random& random)
    {
        constexpr std::array<FfBagModel::Field, 4> kFields = {
            FfBagModel::kCapacity, FfBagModel::kCount, FfBagModel::kNext, FfBagModel::kElementSize};
        const FfBagModel::Field field = kFields.at(below(random, kFields.size()));
        const auto slots = static_cast<uint32_t>(bytes_ / (element_.size() + 1) + 2);
        switch (below(random, 4)) {
            case 0:
                set(field, below(random, 65536));
                break;
            case 1:
                set(field, below(random, slots));
                break;
            case 2:
                set(field, static_cast<uint32_t>(element_.size()) + below(random, 3) - 1);
                break;
            default:
                set(FfBagModel::kElementSize, static_cast<uint32_t>(element_.size()));
                set(FfBagModel::kCapacity, slots / 2);
                set(FfBagModel::kCount, below(random, slots / 2));
                set(FfBagModel::kNext, below(random, slots / 2));
        }
    }

    void set(FfBagModel::Field field, uint32_t value)
    {
        bag_.set(field, value);
        model_.set(field, value);
    }

    FfBag bag_;
    std::size_t bytes_;
    FfBagModel model_;
    EdgeBytes element_;
    EdgeBytes buffer_;
    Bytes expected_;
    bool isHostile_;
    std::deque<Bytes> queue_;
    uint32_t mood_ = 50;  // pushes of a hundred operations
};

class FfBagRandom : public FfBagCase
{
  protected:
    // Bags come in generations, up to as many at a time as there are shared memory objects.
    Tally run(bool hostile)
    {
        Random random(rmtest::seedOfThisRun());
        const long operations = rmtest::operationsOfThisRun(kOperations);
        Tally tally;
        for (long done = 0; done < operations;) {
            std::vector<std::unique_ptr<Trio>> bags;
            for (uint32_t n = 1 + below(random, os::kGshmSlots); n > 0; --n) {
                const uint32_t elementSize =
                    below(random, 8) == 0 ? below(random, 500) : below(random, 20);
                const uint32_t capacity =
                    below(random, 8) == 0 ? below(random, 400) : below(random, 12);
                bags.push_back(std::make_unique<Trio>(static_cast<uint16_t>(capacity),
                                                      static_cast<uint16_t>(elementSize), hostile));
            }
            for (uint32_t left = 200 + below(random, 3000); left > 0; --left, ++done) {
                Trio& bag = *bags[below(random, static_cast<uint32_t>(bags.size()))];
                const bool same = bag.step(random, tally);
                EXPECT_TRUE(same) << "seed " << rmtest::seedOfThisRun() << ", operation " << done;
                if (!same) {
                    return tally;
                }
            }
            rm_gshmTerminate();
        }
        return tally;
    }

  private:
    GuardedSegments guard_;
};

TEST_F(FfBagRandom, AgreesWithTheModelAndAPlainQueue)
{
    const Tally tally = run(false);
    EXPECT_GT(tally.done, 1000);
    EXPECT_GT(tally.refused, 100);
    EXPECT_GT(tally.rounds, 100);
    EXPECT_EQ(tally.damaged, 0);
}

TEST_F(FfBagRandom, AgreesWithTheModelUnderDamage)
{
    const Tally tally = run(true);
    EXPECT_GT(tally.done, 1000);
    EXPECT_GT(tally.refused, 100);
    EXPECT_GT(tally.damaged, 1000);
}
}  // namespace
