// The checker of bags: sound ones pass, and each damage is counted and logged.
#include "tests/containers/bag_case.h"

using namespace bagtest;

namespace
{

class BagCheck : public BagTest
{
  protected:
    // The lines about a bag that `damage` is done to, one for each that is counted. The bag is as
    // before afterwards.
    static Lines violations(Bag* bag, const std::function<void()>& damage)
    {
        const Bag before = *bag;
        uint32_t count = 0;
        damage();
        Lines lines = linesOf([&] { count = bags::checkBag(bag); });
        *bag = before;
        EXPECT_EQ(count, lines.size());
        return lines;
    }
};

TEST_F(BagCheck, PassesSoundBagsWithoutALine)
{
    for (const uint16_t flags : Numbers{kCompact, kMapped, kRing, kMapped | kRing}) {
        for (const uint16_t slots : Numbers{0, 1, 4}) {
            Bag* bag = make({.flags = flags, .initialSlots = slots});
            EXPECT_EQ(violations(bag, [] {}), Lines{});
            addAll(bag, "abcdef");
            EXPECT_EQ(violations(bag, [] {}), Lines{});
        }
    }
}

TEST_F(BagCheck, PassesASlotMapWhoseMapIsMissing)
{
    Bag* bag = make({.flags = kMapped}, "ab");
    loseMap(bag);
    EXPECT_EQ(violations(bag, [] {}), Lines{});
}

TEST_F(BagCheck, FindsMoreElementsThanSlots)
{
    Bag* bag = make({}, "ab");
    EXPECT_EQ(violations(bag, [&] { bag->usedCount = 5; }),
              Lines{"WARNING: bag check: more elements than slots"});
}

TEST_F(BagCheck, FindsSlotsWithoutADataArea)
{
    Bag* bag = make({});
    EXPECT_EQ(violations(bag, [&] { bag->data = nullptr; }),
              Lines{"WARNING: bag check: slots without a data area"});
}

TEST_F(BagCheck, FindsANextSlotOfARingThatIsNone)
{
    Bag* bag = make({.flags = kRing}, "ab");
    EXPECT_EQ(violations(bag, [&] { bag->nextSlot = 4; }),
              Lines{"WARNING: bag check: the next slot is none"});
    EXPECT_EQ(violations(bag, [&] { bag->nextSlot = 3; }), Lines{});
}

TEST_F(BagCheck, FindsAMapThatNobodyAskedFor)
{
    uint16_t map[2] = {};
    Bag* bag = make({}, "ab");
    EXPECT_EQ(violations(bag, [&] { bag->slotMap = map; }),
              Lines{"WARNING: bag check: a map that nobody asked for"});
}

TEST_F(BagCheck, FindsACountThatIsNotTheMaps)
{
    Bag* bag = make({.flags = kMapped}, "ab");
    for (const uint16_t count : Numbers{1, 3}) {
        EXPECT_EQ(violations(bag, [&] { bag->usedCount = count; }),
                  Lines{"WARNING: bag check: the map and the count differ"});
    }
}

TEST_F(BagCheck, FindsBitsBehindTheLastSlot)
{
    Bag* bag = make({.flags = kMapped}, "ab");
    for (const uint16_t slot : Numbers{4, 15, 16, 31}) {
        bags::markSlotUsed(bag, slot, 1);
        EXPECT_EQ(violations(bag, [] {}),
                  Lines{"WARNING: bag check: a slot that does not exist is used"})
            << slot;
        bags::markSlotUsed(bag, slot, 0);
    }
}

}  // namespace
