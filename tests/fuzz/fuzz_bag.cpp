// Operations on a bag of any kind, beside the model of the tests.
//
// Input: a byte for the discipline, those of the control record and of the elements as they are
// asked for, then one for each operation with what it needs behind it. An operation is a byte: the
// low four bits say which, the high ones how often.
#include "fuzz.h"
#include "tests/models/bag_pair.h"

#include "rm.h"

#include <array>

namespace
{
using rmtest::BagPair;
using rmtest::BagStep;

constexpr int kMostSteps = 1500;

// By the low bits of an operation; additions are wanted most.
constexpr std::array<BagStep, 16> kSteps = {
    BagStep::kAdd,       BagStep::kDelete,     BagStep::kFirst,     BagStep::kNext,
    BagStep::kLast,      BagStep::kPrev,       BagStep::kSetHandle, BagStep::kFind,
    BagStep::kGetHandle, BagStep::kGetPointer, BagStep::kGetData,   BagStep::kLoseMap,
    BagStep::kAdd,       BagStep::kAdd,        BagStep::kDelete,    BagStep::kNext};

constexpr std::array<uint16_t, 4> kDisciplines = {0, BAG_SLOT_MAP, BAG_RING,
                                                  BAG_SLOT_MAP | BAG_RING};

// The bytes of elements are no matter of the fuzzer's: they follow from one of its bytes.
class Filler
{
  public:
    explicit Filler(uint32_t seed) : state_(seed) {}

    uint32_t operator()(uint32_t bound)
    {
        state_ = state_ * 1664525 + 1013904223;
        return (state_ >> 16) % bound;
    }

  private:
    uint32_t state_;
};
}  // namespace

void rmfuzz::fuzzInput(Input& input)
{
    expectLog();
    const uint16_t discipline = kDisciplines.at(input.byte() % kDisciplines.size());
    const rmtest::Below below = [&input](uint32_t bound) { return input.byte() % bound; };
    const BagCtl ctl = rmtest::anyBagCtl(discipline, 0, below);
    BagPair pair(ctl, Filler(input.byte()), below, rmfuzz::takeLog);
    FUZZ_CHECK(pair.create());
    if (!pair.exists()) {
        return;
    }
    for (int left = kMostSteps; left > 0 && !input.empty();) {
        const unsigned operation = input.byte();
        const BagStep step = kSteps.at(operation & 15U);
        for (unsigned times = 1 + (operation >> 4U); times > 0; --times, --left) {
            if (step != BagStep::kLoseMap || pair.model().isMapped()) {
                FUZZ_CHECK(pair.step(step));
            }
        }
    }
    FUZZ_CHECK(pair.destroy());
}
