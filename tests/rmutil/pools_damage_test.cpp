// Pools whose users make mistakes: an element given back twice, pointers that are no element, and
// bytes written in front of an element. Nothing of it may crash, and no element may be handed out
// to two users.
#include "tests/rmutil/pool_case.h"

#include "rm/file/file.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>

using namespace pooltest;

namespace
{
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// An element is given back twice.
class PoolPutTwice : public PoolTest
{
  protected:
    // Logs one line, and leaves the free list of the pool as it was.
    static void expectIgnored(void* pointer, RmPool* pool)
    {
        const std::vector<void*> before = freeElements(pool);
        EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_putInPool(pointer, pool), 0); }),
                  (Lines{badPointer(pointer)}));
        EXPECT_EQ(freeElements(pool), before);
    }
};

// What is given back never was an element, or is none any more.
class PoolPutForeign : public PoolPutTwice
{
  protected:
    void SetUp() override
    {
        PoolPutTwice::SetUp();
        pool_ = unlocked();
        rm_putInPool(rm_getFromPool(16, pool_), pool_);
    }

    std::optional<rmtest::WrittenMemory> written_{std::in_place};
    RmPool* pool_ = nullptr;
};

// A user has written over the link of an element, or over the header of its block.
class PoolDamage : public PoolTest
{
  protected:
    void SetUp() override
    {
        PoolTest::SetUp();
        pool_ = unlocked();
        other_ = unlocked();
        elements_ = getMany(pool_, 4, 16);
    }

    void putAll()
    {
        for (void* element : elements_) {
            rm_putInPool(element, pool_);
        }
    }

    RmPool* pool_ = nullptr;
    RmPool* other_ = nullptr;  // of the same tag
    std::vector<void*> elements_;
};

// An element lies on the free list of a pool with a lock, and a user has written over the free
// block in front of its own: it cannot be given back, and a line says so.
class PoolBesideDamage : public PoolTest
{
  protected:
    void SetUp() override
    {
        PoolTest::SetUp();
        rm_syncCreate("other");  // the set outlives the pool
        pool_ = locked(1000);
        elements_.push_back(rm_getFromPool(16, pool_));
        rm_getMemory(6000, tag_);
        // The other one lies in a segment of its own, above the rest of a large block.
        void* large = rm_extendMemory(rm_getMemory(20'000, tag_), 12'000, tag_);
        elements_.push_back(rm_getFromPool(4000, pool_));
        below_ = rmalloc::headerOf(large) + rmalloc::headerOf(large)->units;
        rm_putInPool(elements_[0], pool_);
        rm_putInPool(elements_[1], pool_);
        whole_ = *below_;
        below_->units = 0x5A5A'5A5A;
    }

    void TearDown() override
    {
        *below_ = whole_;
        PoolTest::TearDown();
    }

    // What the second element's block brings.
    Lines refused() const { return {rmtest::corruptedChain(blockOf(elements_[1]))}; }

    RmPool* pool_ = nullptr;
    std::vector<void*> elements_;
    rmalloc::BlockHeader* below_ = nullptr;
    rmalloc::BlockHeader whole_ = {};
};

// --- Twice

TEST_F(PoolPutTwice, IsIgnoredWithAWarning)
{
    RmPool* pool = unlocked();
    void* element = rm_getFromPool(16, pool);
    rm_putInPool(element, pool);
    expectIgnored(element, pool);
    EXPECT_THAT(freeElements(pool), ElementsAre(element));
}

TEST_F(PoolPutTwice, IsIgnoredEachTime)
{
    RmPool* pool = unlocked();
    void* element = rm_getFromPool(16, pool);
    rm_putInPool(element, pool);
    for (int i = 0; i < 5; ++i) {
        expectIgnored(element, pool);
    }
}

TEST_F(PoolPutTwice, NeverGivesAnElementToTwoUsers)
{
    RmPool* pool = unlocked();
    void* element = rm_getFromPool(16, pool);
    rm_putInPool(element, pool);
    expectIgnored(element, pool);
    EXPECT_EQ(rm_getFromPool(16, pool), element);
    EXPECT_NE(rm_getFromPool(16, pool), element);
}

TEST_F(PoolPutTwice, IsIgnoredWithOthersInBetween)
{
    RmPool* pool = unlocked();
    const std::vector<void*> elements = getMany(pool, 3, 16);
    for (void* element : elements) {
        rm_putInPool(element, pool);
    }
    for (void* element : elements) {
        expectIgnored(element, pool);
    }
    EXPECT_THAT(freeElements(pool), ElementsAre(elements[2], elements[1], elements[0]));
}

TEST_F(PoolPutTwice, IsIgnoredByAnotherPoolOfTheTag)
{
    RmPool* one = unlocked();
    RmPool* other = unlocked();
    const std::vector<void*> elements = getMany(one, 2, 16);
    rm_putInPool(elements[0], one);
    rm_putInPool(elements[1], one);
    expectIgnored(elements[0], other);
    expectIgnored(elements[1], other);
    EXPECT_THAT(freeElements(one), ElementsAre(elements[1], elements[0]));
}

TEST_F(PoolPutTwice, IsIgnoredAfterThePoolIsGone)
{
    RmPool* one = unlocked();
    RmPool* other = unlocked();
    void* element = rm_getFromPool(16, one);
    rm_putInPool(element, one);
    rm_zFreePool(&one);
    expectIgnored(element, other);
}

TEST_F(PoolPutTwice, IsFineWhenItWasTakenInBetween)
{
    RmPool* pool = unlocked();
    void* element = rm_getFromPool(16, pool);
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_putInPool(element, pool), 0); }), IsEmpty());
        EXPECT_EQ(rm_getFromPool(16, pool), element);
    }
}

TEST_F(PoolPutTwice, IsLoggedWhenTheLockHasBeenLeft)
{
    RmPool* pool = locked();
    void* element = rm_getFromPool(16, pool);
    rm_putInPool(element, pool);
    int value = -1;
    linesOf([&] {
        const ScopedFault watch({.call = Call::kTime,
                                 .when =
                                     [&](const CallRecord& /*record*/) {
                                         value = lockOf(pool);
                                         return false;
                                     },
                                 .action = nullptr});
        rm_putInPool(element, pool);
    });
    EXPECT_EQ(value, 1);
}

// --- Foreign pointers

TEST_F(PoolPutForeign, OfThisProcessIsIgnored)
{
    static std::array<uint64_t, 8> fixed = {};
    std::array<uint64_t, 8> local = {};
    const std::unique_ptr<uint64_t[]> dynamic(new uint64_t[8]());
    expectIgnored(&fixed[4], pool_);
    expectIgnored(&local[4], pool_);
    expectIgnored(&dynamic[4], pool_);
}

TEST_F(PoolPutForeign, ThatIsNoAddressIsIgnored)
{
    for (const uintptr_t address : {uintptr_t{1}, uintptr_t{8}, uintptr_t{16}, uintptr_t{4096},
                                    ~uintptr_t{0}, ~uintptr_t{0} - 7, ~uintptr_t{0} / 2}) {
        expectIgnored(reinterpret_cast<void*>(address), pool_);
    }
}

TEST_F(PoolPutForeign, ThatIsNotAlignedIsIgnored)
{
    auto* element = static_cast<char*>(rm_getFromPool(16, pool_));
    for (int offset = 1; offset < 8; ++offset) {
        expectIgnored(element + offset, pool_);
        expectIgnored(element - offset, pool_);
    }
}

TEST_F(PoolPutForeign, IntoTheMiddleOfAnElementIsIgnored)
{
    auto* element = static_cast<char*>(std::memset(rm_getFromPool(200, pool_), 0, 200));
    for (std::size_t offset = 8; offset < 200; offset += 8) {
        expectIgnored(element + offset, pool_);
    }
}

TEST_F(PoolPutForeign, ToTheBlockOfAnElementIsIgnored)
{
    auto* element = static_cast<char*>(rm_getFromPool(16, pool_));
    expectIgnored(element - kLink, pool_);
    expectIgnored(element - kLink - rmalloc::kUnit, pool_);
}

TEST_F(PoolPutForeign, OfAnotherTagIsIgnored)
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    RmPool* other = rm_allocPool(0, tag, nullptr, 0);
    void* element = rm_getFromPool(16, other);
    expectIgnored(element, pool_);
    EXPECT_THAT(linesOf([&] { rm_putInPool(element, other); }), IsEmpty());
    EXPECT_THAT(freeElements(other), ElementsAre(element));
}

TEST_F(PoolPutForeign, ThatIsABlockOfTheTagIsIgnored)
{
    auto* block = static_cast<char*>(std::memset(rm_getMemory(64, tag_), 0, 64));
    expectIgnored(block, pool_);
    expectIgnored(block + kLink, pool_);
}

TEST_F(PoolPutForeign, ThatIsABlockOfNoBytesIsIgnored)
{
    seg_alloc = 1;  // nothing lies behind the block
    void* block = rm_getMemory(0, tag_);
    expectIgnored(static_cast<char*>(block) + kLink, pool_);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
    seg_alloc = 0;
}

TEST_F(PoolPutForeign, WhoseBlockWasFreedIsIgnored)
{
    void* element = rm_getFromPool(64, pool_);
    rm_freeMemory(blockOf(element), tag_);
    expectIgnored(element, pool_);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

TEST_F(PoolPutForeign, WhoseSegmentHasGoneIsIgnored)
{
    void* element = rm_getFromPool(500'000, pool_);  // given back to the system at once
    rm_freeMemory(blockOf(element), tag_);
    expectIgnored(element, pool_);
}

// The memory of a tag comes again, with everything that its blocks held, as the memory of a segment
// in which nothing is live there.
TEST_F(PoolPutForeign, FromATimeBeforeTheTagWasEmptiedIsIgnored)
{
    written_.reset();  // the case has the memory of segments itself
    RmPool* before = pool_;
    const std::vector<void*> held = getMany(before, 8, 16);
    void* memory = rmtest::segmentsOf(tag_).at(0);
    const auto bytes = rmalloc::tagTable[tag_].segmentSize;
    const std::string image(static_cast<const char*>(memory), bytes);
    const uint16_t epoch = rmalloc::tagTable[tag_].epoch;
    rm_freeTagMemory(tag_, 0);
    // The platform may give the same memory again or another; the old bytes stand in it anyhow.
    std::ptrdiff_t moved = 0;
    {
        const ScopedFault again({.call = Call::kMalloc, .action = [&](const CallRecord& record) {
                                     const int64_t result = rmtest::passThrough(record);
                                     auto* fresh =
                                         reinterpret_cast<char*>(static_cast<intptr_t>(result));
                                     image.copy(fresh, image.size());
                                     moved = fresh - static_cast<char*>(memory);
                                     return result;
                                 }});
        pool_ = unlocked();
        ASSERT_EQ(again.hits(), 1);
    }
    for (void* element : held) {
        auto* now = static_cast<char*>(element) + moved;
        blockOf(now)->next = rmutil::heldMark(blockOf(now), epoch);  // as it was in use
        expectIgnored(now, pool_);
    }
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

// --- Bytes written in front of an element

TEST_F(PoolDamage, AnElementThatWasWrittenInFrontOfIsNotUsedAgain)
{
    std::memset(blockOf(elements_[0]), 0x5A, kLink);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_putInPool(elements_[0], pool_), 0); }),
              (Lines{badPointer(elements_[0])}));
    EXPECT_THAT(freeElements(pool_), IsEmpty());
    EXPECT_NE(rm_getFromPool(16, pool_), elements_[0]);
}

TEST_F(PoolDamage, AnElementWhoseLinkIsZeroIsNotUsedAgain)
{
    blockOf(elements_[0])->next = nullptr;
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_putInPool(elements_[0], pool_), 0); }),
              (Lines{badPointer(elements_[0])}));
    EXPECT_THAT(freeElements(pool_), IsEmpty());
}

TEST_F(PoolDamage, AnElementWhoseHeaderIsGoneIsNotUsedAgain)
{
    rmalloc::BlockHeader* header = rmalloc::headerOf(blockOf(elements_[0]));
    const rmalloc::BlockHeader before = *header;
    *header = {0x5A5A'5A5A, 0x5A5A'5A5A};
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_putInPool(elements_[0], pool_), 0); }),
              (Lines{badPointer(elements_[0])}));
    *header = before;
    EXPECT_THAT(freeElements(pool_), IsEmpty());
}

struct Junk {
    const char* name;
    uintptr_t link;
};

void PrintTo(const Junk& junk, std::ostream* out)
{
    *out << junk.name;
}

const Junk kJunk[] = {{"Small", 1},
                      {"Text", ~uintptr_t{0} / 0xFF * 0x5A},
                      {"Ones", ~uintptr_t{0}},
                      {"Aligned", 0x1000},
                      {"BelowTheHeaders", 8}};

class PoolDamagedLink : public PoolDamage, public ::testing::WithParamInterface<Junk>
{
};

TEST_P(PoolDamagedLink, GivesUpWhatLiesBehindWithAWarning)
{
    putAll();
    blockOf(elements_[2])->next = reinterpret_cast<PoolElement*>(GetParam().link);
    EXPECT_EQ(rm_getFromPool(16, pool_), elements_[3]);
    EXPECT_EQ(rm_getFromPool(16, pool_), elements_[2]);
    void* fresh = nullptr;
    EXPECT_EQ(linesOf([&] { fresh = rm_getFromPool(16, pool_); }),
              (Lines{badPointer(reinterpret_cast<void*>(GetParam().link + kLink))}));
    EXPECT_NE(fresh, nullptr);
    EXPECT_THAT(elements_, ::testing::Not(::testing::Contains(fresh)));
    EXPECT_EQ(std::memcmp(fresh, "\0\0\0\0\0\0\0\0", 8), 0) << "a new element is cleared";
    EXPECT_THAT(linesOf([&] { rm_getFromPool(16, pool_); }), IsEmpty());
}

TEST_P(PoolDamagedLink, LeavesAPoolThatGoesOn)
{
    putAll();
    blockOf(elements_[3])->next = reinterpret_cast<PoolElement*>(GetParam().link);
    rm_getFromPool(16, pool_);
    linesOf([&] { rm_getFromPool(16, pool_); });
    EXPECT_THAT(linesOf([&] { rm_putInPool(elements_[3], pool_); }), IsEmpty());
    EXPECT_THAT(freeElements(pool_), ElementsAre(elements_[3]));
    EXPECT_EQ(rm_getFromPool(16, pool_), elements_[3]);
}

TEST_P(PoolDamagedLink, EndsTheFreeingOfThePoolWithAWarning)
{
    putAll();
    blockOf(elements_[2])->next = reinterpret_cast<PoolElement*>(GetParam().link);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_zFreePool(&pool_), 0); }),
              (Lines{badPointer(reinterpret_cast<void*>(GetParam().link + kLink))}));
    EXPECT_EQ(pool_, nullptr);
    EXPECT_EQ(rm_zFreePool(&other_), 0);
    EXPECT_EQ(rmtest::allocated(tag_), 2 * rmalloc::unitsFor(16 + kLink) * rmalloc::kUnit);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

TEST_P(PoolDamagedLink, IsNotMetByTwoPuts)
{
    putAll();
    blockOf(elements_[3])->next = reinterpret_cast<PoolElement*>(GetParam().link);
    EXPECT_EQ(linesOf([&] { rm_putInPool(elements_[3], pool_); }),
              (Lines{badPointer(elements_[3])}));
    EXPECT_EQ(linesOf([&] { rm_putInPool(elements_[0], pool_); }),
              (Lines{badPointer(elements_[0])}));
}

INSTANTIATE_TEST_SUITE_P(All, PoolDamagedLink, ::testing::ValuesIn(kJunk),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_F(PoolDamage, AListThatLeadsBackToItsStartEndsWithThePool)
{
    putAll();
    blockOf(elements_[0])->next = blockOf(elements_[3]);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_zFreePool(&pool_), 0); }).size(), 1U);
    EXPECT_EQ(rm_zFreePool(&other_), 0);
    EXPECT_EQ(rmtest::allocated(tag_), 0U);
}

TEST_F(PoolDamage, AFreeElementWhoseBlockWasFreedIsNotGiven)
{
    putAll();
    rm_freeMemory(blockOf(elements_[3]), tag_);
    void* fresh = nullptr;
    EXPECT_EQ(linesOf([&] { fresh = rm_getFromPool(16, pool_); }),
              (Lines{badPointer(elements_[3])}));
    EXPECT_EQ(rmalloc::headerOf(blockOf(fresh))->word1, rmalloc::kLiveMagic);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

TEST_F(PoolDamage, AFreeElementWhoseSegmentHasGoneIsNotGiven)
{
    void* element = rm_getFromPool(500'000, pool_);
    rm_putInPool(element, pool_);
    rm_freeMemory(blockOf(element), tag_);
    EXPECT_EQ(linesOf([&] { EXPECT_NE(rm_getFromPool(16, pool_), nullptr); }),
              (Lines{badPointer(element)}));
}

// Its block was freed behind the back of the pool, and came again as an element of another one.
TEST_F(PoolDamage, AnElementThatSomebodyHoldsIsNotGivenToAnother)
{
    putAll();
    rm_freeMemory(blockOf(elements_[3]), tag_);
    void* held = rm_getFromPool(16, other_);
    ASSERT_EQ(held, elements_[3]);
    void* fresh = nullptr;
    EXPECT_EQ(linesOf([&] { fresh = rm_getFromPool(16, pool_); }), (Lines{badPointer(held)}));
    EXPECT_NE(fresh, held);
    EXPECT_THAT(linesOf([&] { rm_putInPool(held, other_); }), IsEmpty());
}

TEST_F(PoolDamage, ALinkToABlockOfNoBytesIsGivenUp)
{
    seg_alloc = 1;  // nothing lies behind the block
    putAll();
    void* block = rm_getMemory(0, tag_);
    blockOf(elements_[3])->next = static_cast<PoolElement*>(block);
    EXPECT_EQ(rm_getFromPool(16, pool_), elements_[3]);
    EXPECT_EQ(linesOf([&] { EXPECT_NE(rm_getFromPool(16, pool_), nullptr); }),
              (Lines{badPointer(static_cast<char*>(block) + kLink)}));
    EXPECT_EQ(rmalloc::headerOf(block)->word1, rmalloc::kLiveMagic) << "a stranger's block went";
    seg_alloc = 0;
}

TEST_F(PoolDamage, IsLoggedWhenTheLockHasBeenLeft)
{
    RmPool* pool = locked();
    void* element = rm_getFromPool(16, pool);
    rm_putInPool(element, pool);
    rm_freeMemory(blockOf(element), tag_);
    int value = -1;
    linesOf([&] {
        const ScopedFault watch({.call = Call::kTime,
                                 .when =
                                     [&](const CallRecord& /*record*/) {
                                         value = lockOf(pool);
                                         return false;
                                     },
                                 .action = nullptr});
        rm_getFromPool(16, pool);
    });
    EXPECT_EQ(value, 1);
}

// --- Bytes written over the memory around an element

TEST_F(PoolBesideDamage, KeepsWhatCannotBeFreedAndFreesTheRest)
{
    const SyncHandle lock = pool_->lock;
    std::vector<int> values;
    const ScopedFault watch({.call = Call::kTime,
                             .when =
                                 [&](const CallRecord& /*record*/) {
                                     values.push_back(rmtest::semValue(os::iSem, lock));
                                     return false;
                                 },
                             .action = nullptr});
    const uint32_t before = rmtest::allocated(tag_);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_zFreePool(&pool_), 0); }), refused());
    EXPECT_THAT(values, ElementsAre(1)) << "the lock is left for the line";
    EXPECT_EQ(pool_, nullptr);
    EXPECT_LT(rmtest::allocated(tag_), before);
    EXPECT_EQ(rmalloc::headerOf(blockOf(elements_[1]))->word1, rmalloc::kLiveMagic);
    EXPECT_NE(rmalloc::headerOf(blockOf(elements_[0]))->word1, rmalloc::kLiveMagic);
}

// The line cannot be written, and the call does not come back. What has not been freed is still the
// pool's.
TEST_F(PoolBesideDamage, LeavesTheLockWhenTheLineEndsTheCall)
{
    std::filesystem::create_directory("logs");
    sysfile = rm_fileOpen("logs/log", RM_O_WRONLY | RM_O_CREAT, FILE_STREAM | FILE_FATAL, 0, 0);
    ASSERT_NE(sysfile, RM_NONE);
    file::usedEntry(sysfile)->recentlyUsed = 0;
    file::lruNext = sysfile;
    file::closeOneOpenFile();
    std::filesystem::rename("logs", "gone");
    rm_systemLog(2);
    linesOf([&] { EXPECT_EQ(catchFatal([&] { rm_zFreePool(&pool_); }), 1); });
    rm_systemLog(0);
    ASSERT_NE(pool_, nullptr);
    EXPECT_EQ(lockOf(pool_), 1);
    EXPECT_THAT(freeElements(pool_), ElementsAre(elements_[0]));
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_zFreePool(&pool_), 0); }), IsEmpty());
    EXPECT_EQ(pool_, nullptr);
    rm_systemLogClose();
}

// Somebody else has the lock when the line has been written.
TEST_F(PoolBesideDamage, EndsWithATimeoutAndAPoolThatCanBeFreedLater)
{
    const ScopedFault held({.call = Call::kSemtimedop, .error = EAGAIN, .skip = 1});
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_zFreePool(&pool_), 1); }), refused());
    ASSERT_NE(pool_, nullptr);
    EXPECT_THAT(freeElements(pool_), ElementsAre(elements_[0]));
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_zFreePool(&pool_), 0); }), IsEmpty());
    EXPECT_EQ(pool_, nullptr);
}

TEST_F(PoolBesideDamage, EndsOnAListThatLeadsAround)
{
    blockOf(elements_[1])->next = blockOf(elements_[1]);
    Lines twice = refused();
    twice.push_back(twice.front());
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_zFreePool(&pool_), 0); }), twice);
    EXPECT_EQ(pool_, nullptr);
}

// The record is the block that cannot be given back; the lock has gone when a line says so.
TEST_F(PoolDamage, OfTheRecordIsSaidWhenTheLockHasGone)
{
    rm_syncCreate("other");  // the set outlives the pool
    RmPool* pool = locked();
    RmPool* record = pool;
    rm_getMemory(16, tag_);  // the record is not the block that was taken last
    rmalloc::Segment* segment = rmtest::segmentsOf(tag_).at(0);
    const uint32_t before = segment->anchor.word1;
    segment->anchor.word1 = 0x5A5A'5A5A;
    int locks = -1;
    const ScopedFault watch({.call = Call::kTime,
                             .when =
                                 [&](const CallRecord& /*record*/) {
                                     locks = os::nSems;
                                     return false;
                                 },
                             .action = nullptr});
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(rm_zFreePool(&pool), 0); }),
              Lines{rmtest::corruptedChain(record)});
    segment->anchor.word1 = before;
    EXPECT_EQ(pool, nullptr);
    EXPECT_EQ(locks, 1) << "only the other one is left";
    EXPECT_EQ(rmalloc::headerOf(record)->word1, rmalloc::kLiveMagic);
}

}  // namespace
