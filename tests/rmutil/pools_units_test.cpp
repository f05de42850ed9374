// Pools with an element whose header says a size that it cannot have: it would reach over the end
// of its segment. Somebody has written there, and only there. It must never be given to a caller
// that would get more bytes than there are.
#include "tests/rmutil/pool_case.h"

using namespace pooltest;

namespace
{
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PoolUnits : public PoolTest
{
  protected:
    void SetUp() override
    {
        PoolTest::SetUp();
        pool_ = unlocked();
        element_ = rm_getFromPool(16, pool_);
        header_ = rmalloc::headerOf(blockOf(element_));
        before_ = header_->units;
        rmalloc::Segment* segment = rmalloc::segmentOfLiveBlock(blockOf(element_), tag_);
        ASSERT_NE(segment, nullptr);
        toTheEnd_ = segment->units - rmalloc::offsetOf(segment, header_) + 1;
    }

    void TearDown() override
    {
        header_->units = before_;
        PoolTest::TearDown();
    }

    RmPool* pool_ = nullptr;
    void* element_ = nullptr;
    rmalloc::BlockHeader* header_ = nullptr;
    uint32_t before_ = 0;
    uint32_t toTheEnd_ = 0;  // units from its header to the end of its segment
};

TEST_F(PoolUnits, BeyondTheEndAreNoElementToPutBack)
{
    for (const uint32_t units : {toTheEnd_ + 1, 0x5A5A'5A5AU, 0xFFFF'FFFFU}) {
        header_->units = units;
        EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_putInPool(element_, pool_), 0); }),
                  (Lines{badPointer(element_)}))
            << units;
        EXPECT_THAT(freeElements(pool_), IsEmpty());
    }
}

TEST_F(PoolUnits, BeyondTheEndAreNoElementToTake)
{
    for (const uint32_t units : {toTheEnd_ + 1, 0x5A5A'5A5AU, 0xFFFF'FFFFU}) {
        header_->units = before_;
        blockOf(element_)->next = markOf(element_, pool_);
        rm_putInPool(element_, pool_);
        ASSERT_THAT(freeElements(pool_), ElementsAre(element_));
        header_->units = units;
        void* other = nullptr;
        EXPECT_EQ(linesOf([&] { other = rm_getFromPool(3000, pool_); }),
                  (Lines{badPointer(element_)}))
            << units;
        EXPECT_NE(other, element_);
        EXPECT_GE(unitsOf(other), rmalloc::unitsFor(3000 + kLink));
    }
}

TEST_F(PoolUnits, BeyondTheEndEndTheFreeingOfThePool)
{
    rm_putInPool(element_, pool_);
    header_->units = toTheEnd_ + 1;
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_zFreePool(&pool_), 0); }), (Lines{badPointer(element_)}));
    EXPECT_EQ(pool_, nullptr);
}

// The segment's own word, which is as easily written over, leads to nothing outside of it.
TEST_F(PoolUnits, OfTheSegmentMakeNothingBehindItAnElement)
{
    for (const bool alone : {false, true}) {
        seg_alloc = alone ? 1 : 0;
        RmPool* pool = rm_allocPool(0, rm_allocTag(nullptr, RM_NO_LIMIT), nullptr, 0);
        void* element = rm_getFromPool(16, pool);
        for (rmalloc::Segment* segment : rmtest::segmentsOf(pool->tag)) {
            const uint32_t before = segment->units;
            for (const uint32_t units : {0U, before + 100, 0x5A5A'5A5AU, 0xFFFF'FFFFU}) {
                segment->units = units;
                const uintptr_t far = uintptr_t{units / 2} * rmalloc::kUnit;
                void* claimed =
                    reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(element) + far + kLink);
                EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_putInPool(claimed, pool), 0); }),
                          (Lines{badPointer(claimed)}));
                EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_putInPool(element, pool), 0); }), IsEmpty());
                EXPECT_EQ(rm_getFromPool(16, pool), element);
            }
            segment->units = before;
        }
    }
    seg_alloc = 0;
}

// Nothing that is known of a block speaks against it.
TEST_F(PoolUnits, ThatReachTheEndAreThoseOfAnElement)
{
    header_->units = toTheEnd_;
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_putInPool(element_, pool_), 0); }), IsEmpty());
    EXPECT_THAT(freeElements(pool_), ElementsAre(element_));
}
}  // namespace
