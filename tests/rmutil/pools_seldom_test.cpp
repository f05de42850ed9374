// Pools that meet what only looks like an element: bytes of a user that read as the header of a
// live block, behind which the map of the segment has none; and pools whose own tag was written
// over.
#include "tests/rmutil/pool_case.h"

#include <cstdint>
#include <limits>

using namespace pooltest;

namespace
{
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// An element of 200 bytes in whose middle a user has written a header.
class PoolFalseHeader : public PoolTest
{
  protected:
    void SetUp() override
    {
        PoolTest::SetUp();
        pool_ = unlocked();
        element_ = rm_getFromPool(200, pool_);
        std::memset(element_, 0, 200);
        header_ = reinterpret_cast<rmalloc::BlockHeader*>(blockOf(element_)) + 5;
    }

    // What a user would give back who believes in the header.
    void* claimed() const { return reinterpret_cast<PoolElement*>(header_ + 1) + 1; }

    void write(uint32_t units) const { *header_ = {rmalloc::kLiveMagic, units}; }

    // One that the pool's other users hold is marked as held.
    void markHeld() const { blockOf(claimed())->next = markOf(claimed(), pool_); }

    void expectIgnored() const
    {
        EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_putInPool(claimed(), pool_), 0); }),
                  (Lines{badPointer(claimed())}));
        EXPECT_THAT(freeElements(pool_), IsEmpty());
    }

    RmPool* pool_ = nullptr;
    void* element_ = nullptr;
    rmalloc::BlockHeader* header_ = nullptr;
};

TEST_F(PoolFalseHeader, OfNoUnitsIsNoElement)
{
    write(0);
    markHeld();
    expectIgnored();
}

TEST_F(PoolFalseHeader, WhoseUnitsLeadOutOfTheSegmentIsNoElement)
{
    const rmalloc::Segment* segment = rmtest::segmentsOf(tag_).at(0);
    const uint32_t rest = segment->units - rmalloc::offsetOf(segment, header_) + 1;
    for (const uint32_t units : {rest + 1, rest + 1000, std::numeric_limits<uint32_t>::max()}) {
        write(units);
        markHeld();
        expectIgnored();
    }
}

// As the first of a free list it would be resized, which the memory manager refuses: it knows of no
// block there. The caller gets a fresh element, and the bytes of the other user stay.
TEST_F(PoolFalseHeader, ThatIsTooSmallForARequestIsFollowedByAFreshElement)
{
    constexpr uint32_t kUnits = 4;
    write(kUnits);
    pool_->freeList = blockOf(claimed());
    const std::string before(static_cast<char*>(element_), 200);
    void* given = nullptr;
    EXPECT_EQ(linesOf([&] { given = rm_getFromPool(100, pool_); }),
              (Lines{badPointer(blockOf(claimed()))}));
    EXPECT_NE(given, claimed());
    EXPECT_GE(unitsOf(given), rmalloc::unitsFor(100 + kLink));
    EXPECT_EQ(std::string(static_cast<char*>(given), 100), std::string(100, '\0'));
    EXPECT_EQ(std::string(static_cast<char*>(element_), 200), before);
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_putInPool(given, pool_), 0); }), IsEmpty());
    EXPECT_THAT(freeElements(pool_), ElementsAre(given));
}

// --- The pool itself

class PoolOfAnotherTag : public PoolTest
{
  protected:
    // Gives an element back while the pool says that it is of that tag, and again when it is right.
    void expectIgnored(Tag wrong) const
    {
        RmPool* pool = unlocked();
        void* element = rm_getFromPool(16, pool);
        pool->tag = wrong;
        EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_putInPool(element, pool), 0); }),
                  (Lines{badPointer(element)}));
        EXPECT_EQ(pool->freeList, nullptr);
        pool->tag = tag_;
        EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_putInPool(element, pool), 0); }), IsEmpty());
        EXPECT_THAT(freeElements(pool), ElementsAre(element));
    }
};

TEST_F(PoolOfAnotherTag, ThatIsNoneTakesNoElement)
{
    for (const int wrong : {-1, -32'768, int{rmalloc::nTags}, 32'767}) {
        expectIgnored(static_cast<Tag>(wrong));
    }
}

TEST_F(PoolOfAnotherTag, WithoutMemoryTakesNoElement)
{
    const Tag empty = rm_allocTag(nullptr, RM_NO_LIMIT);
    ASSERT_EQ(rmalloc::tagTable[empty].segments, nullptr);
    expectIgnored(empty);
}

}  // namespace
