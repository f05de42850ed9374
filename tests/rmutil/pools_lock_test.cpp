// The lock of a pool: that every call holds it around the list and nothing else, what a call does
// that does not get it, and processes that were forked after the pool was made.
#include "tests/rmutil/pool_case.h"

#include <chrono>
#include <thread>

#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

using namespace pooltest;

namespace
{
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Clock = std::chrono::steady_clock;

class PoolLock : public PoolTest
{
  protected:
    // Steps of the semaphore that the body makes: -1 enters, 1 leaves.
    static std::vector<int> stepsOf(const std::function<void()>& body)
    {
        std::vector<int> steps;
        const auto note = [&steps](const CallRecord& record) {
            steps.push_back(record.pointer<sembuf>(1)->sem_op);
            return false;
        };
        const ScopedFault untimed({.call = Call::kSemop, .when = note, .action = nullptr});
        const ScopedFault timed({.call = Call::kSemtimedop, .when = note, .action = nullptr});
        body();
        return steps;
    }

    // Values of the lock at each request to the memory manager that the body makes.
    static std::vector<int> lockInRequests(const RmPool* pool, const std::function<void()>& body)
    {
        std::vector<int> values;
        const ScopedFault watch({.call = Call::kAllocBlock,
                                 .when =
                                     [&](const CallRecord& /*record*/) {
                                         values.push_back(lockOf(pool));
                                         return false;
                                     },
                                 .action = nullptr});
        body();
        return values;
    }
};

// Another process holds the lock; the pool's time-out is a second.
class PoolTimeout : public PoolTest
{
  protected:
    void SetUp() override
    {
        PoolTest::SetUp();
        pool_ = locked(kTimeout);
        held_ = rm_getFromPool(16, pool_);
        free_ = rm_getFromPool(16, pool_);
        rm_putInPool(free_, pool_);
        holder_ = holderOf(pool_);
    }

    void letGo()
    {
        holder_->say("go");
        EXPECT_EQ(holder_->hear(), "left");
        EXPECT_EQ(holder_->wait().status, 0);
    }

    static constexpr uint32_t kTimeout = 10;  // milliseconds, and so a second

    RmPool* pool_ = nullptr;
    void* held_ = nullptr;
    void* free_ = nullptr;
    std::unique_ptr<Peer> holder_;
};

// --- Each call

TEST_F(PoolLock, IsEnteredAndLeftOnceByEachGet)
{
    RmPool* pool = locked();
    void* element = nullptr;
    EXPECT_THAT(stepsOf([&] { element = rm_getFromPool(16, pool); }), ElementsAre(-1, 1));
    rm_putInPool(element, pool);
    EXPECT_THAT(stepsOf([&] { rm_getFromPool(16, pool); }), ElementsAre(-1, 1));
    rm_putInPool(element, pool);
    EXPECT_THAT(stepsOf([&] { rm_getFromPool(1000, pool); }), ElementsAre(-1, 1));
}

TEST_F(PoolLock, IsEnteredAndLeftOnceByEachPut)
{
    RmPool* pool = locked();
    void* element = rm_getFromPool(16, pool);
    EXPECT_THAT(stepsOf([&] { rm_putInPool(element, pool); }), ElementsAre(-1, 1));
}

TEST_F(PoolLock, IsLeftByAPutThatIsIgnored)
{
    RmPool* pool = locked();
    void* element = rm_getFromPool(16, pool);
    rm_putInPool(element, pool);
    linesOf([&] {
        EXPECT_THAT(stepsOf([&] { EXPECT_EQ(rm_putInPool(element, pool), 0); }),
                    ElementsAre(-1, 1));
    });
    EXPECT_EQ(lockOf(pool), 1);
}

TEST_F(PoolLock, IsEnteredLeftAndDeletedByTheFreeing)
{
    RmPool* pool = locked();
    rm_syncCreate("other");
    // The deletion takes the value of a free lock down to 0.
    EXPECT_THAT(stepsOf([&] { rm_zFreePool(&pool); }), ElementsAre(-1, 1, -1));
}

TEST_F(PoolLock, IsNotEnteredWithoutAName)
{
    RmPool* pool = unlocked();
    rm_syncCreate("other");
    EXPECT_THAT(stepsOf([&] {
                    rm_putInPool(rm_getFromPool(16, pool), pool);
                    rm_getFromPool(1000, pool);
                    rm_zFreePool(&pool);
                }),
                IsEmpty());
}

TEST_F(PoolLock, IsNotEnteredToPutNull)
{
    RmPool* pool = locked();
    EXPECT_THAT(stepsOf([&] { rm_putInPool(nullptr, pool); }), IsEmpty());
}

TEST_F(PoolLock, IsFreeWhileANewElementIsAllocated)
{
    RmPool* pool = locked();
    EXPECT_THAT(lockInRequests(pool, [&] { rm_getFromPool(16, pool); }), ElementsAre(1));
}

TEST_F(PoolLock, IsFreeWhileAnElementIsGrown)
{
    RmPool* pool = locked();
    rm_putInPool(rm_getFromPool(16, pool), pool);
    EXPECT_THAT(lockInRequests(pool, [&] { rm_getFromPool(1000, pool); }), ElementsAre(1));
}

TEST_F(PoolLock, IsFreeWhileThePlatformsMemoryIsAskedFor)
{
    RmPool* pool = locked();
    int value = -1;
    const ScopedFault watch({.call = Call::kMalloc, .action = [&](const CallRecord& record) {
                                 value = lockOf(pool);
                                 return rmtest::passThrough(record);
                             }});
    rm_getFromPool(100'000, pool);
    EXPECT_EQ(value, 1);
}

TEST_F(PoolLock, IsHeldWhileTheElementsAreFreed)
{
    rm_syncCreate("other");
    RmPool* pool = locked();
    rm_putInPool(rm_getFromPool(100'000, pool), pool);  // a segment of its own
    const SyncHandle lock = pool->lock;
    std::vector<int> values;
    const ScopedFault watch({.call = Call::kFree,
                             .when =
                                 [&](const CallRecord& /*record*/) {
                                     values.push_back(rmtest::semValue(os::iSem, lock));
                                     return false;
                                 },
                             .action = nullptr});
    rm_zFreePool(&pool);
    // The element's segment and the record's, and what is kept beside them.
    EXPECT_GE(values.size(), 2U);
    EXPECT_THAT(values, Each(0));
}

TEST_F(PoolLock, IsEnteredWithThePoolsTimeout)
{
    RmPool* pool = locked(2500);
    rm_getFromPool(16, pool);
    ASSERT_EQ(callCount(Call::kSemtimedop), 1);
    EXPECT_EQ(callTrace({Call::kAlarm}).at(0).args[0], 3);
}

TEST_F(PoolLock, IsWaitedForWithoutLimitForEverAndForZero)
{
    for (const uint32_t timeout : {RM_WAIT_FOREVER, 0U}) {
        RmPool* pool = locked(timeout);
        const int before = callCount(Call::kSemop);
        rm_putInPool(rm_getFromPool(16, pool), pool);
        EXPECT_EQ(callCount(Call::kSemtimedop), 0);
        EXPECT_EQ(callCount(Call::kSemop), before + 4);
        EXPECT_EQ(rm_zFreePool(&pool), 0);
    }
}

TEST_F(PoolLock, ThatIsGoneIsFatal)
{
    RmPool* pool = locked();
    rm_syncTerminate();
    const Lines lines = fatalLines([&] { rm_getFromPool(16, pool); });
    EXPECT_THAT(lines, ::testing::Contains(::testing::HasSubstr("Invalid Semaphore Handle")));
}

// --- Held by another process

TEST_F(PoolTimeout, OfAGetGivesNull)
{
    EXPECT_EQ(rm_getFromPool(16, pool_), nullptr);
    EXPECT_EQ(lockOf(pool_), 0);
    letGo();
    EXPECT_EQ(lockOf(pool_), 1);
    EXPECT_EQ(rm_getFromPool(16, pool_), free_);
}

TEST_F(PoolTimeout, OfAPutGivesOneAndLeavesTheElementToTheCaller)
{
    EXPECT_EQ(rm_putInPool(held_, pool_), 1);
    EXPECT_THAT(freeElements(pool_), ElementsAre(free_));
    std::memset(held_, 0x5A, 16);
    letGo();
    EXPECT_EQ(rm_putInPool(held_, pool_), 0);
    EXPECT_THAT(freeElements(pool_), ElementsAre(held_, free_));
}

TEST_F(PoolTimeout, OfAFreeingGivesOneAndLeavesThePool)
{
    RmPool* pool = pool_;
    EXPECT_EQ(rm_zFreePool(&pool), 1);
    EXPECT_EQ(pool, pool_);
    EXPECT_THAT(freeElements(pool_), ElementsAre(free_));
    letGo();
    EXPECT_EQ(rm_zFreePool(&pool), 0);
    EXPECT_EQ(pool, nullptr);
}

TEST_F(PoolTimeout, ComesAfterWholeSecondsRoundedUp)
{
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(rm_getFromPool(16, pool_), nullptr);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(900));
    letGo();
}

TEST_F(PoolTimeout, DoesNotComeToAPutOfNull)
{
    EXPECT_EQ(rm_putInPool(nullptr, pool_), 0);
    letGo();
}

TEST_F(PoolLock, ThatIsLeftInTimeGivesTheElement)
{
    RmPool* pool = locked(20'000);
    const std::unique_ptr<Peer> holder = holderOf(pool);
    Peer waiting([&](Channel& channel) {
        void* element = rm_getFromPool(16, pool);
        channel.say(element != nullptr ? "element" : "none");
    });
    EXPECT_TRUE(rmtest::waitFor([&] { return rmtest::semWaiters(os::iSem, pool->lock) == 1; }));
    holder->say("go");
    EXPECT_EQ(waiting.hear(), "element");
    EXPECT_EQ(waiting.wait().status, 0);
    EXPECT_EQ(holder->wait().status, 0);
    EXPECT_EQ(lockOf(pool), 1);
}

// --- Several processes

// What the processes share: how many are inside, and the most that ever were.
struct Inside {
    volatile int now;
    volatile int most;
    volatile int entries;
};

TEST_F(PoolLock, SerialisesTheProcessesThatWereForkedAfterThePoolWasMade)
{
    constexpr int kProcesses = 4;
    constexpr int kRounds = 300;
    RmPool* pool = locked();
    void* page =
        mmap(nullptr, sizeof(Inside), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    auto* inside = static_cast<Inside*>(page);
    std::vector<std::unique_ptr<Peer>> peers;
    peers.reserve(kProcesses);
    for (int i = 0; i < kProcesses; ++i) {
        peers.push_back(std::make_unique<Peer>([=](Channel& channel) {
            channel.hear();
            // Behind the step that enters and before the one that leaves, the counts change as
            // they would under no lock at all.
            const ScopedFault watch(
                {.call = Call::kSemop, .times = kForever, .action = [=](const CallRecord& record) {
                     const int step = record.pointer<sembuf>(1)->sem_op;
                     if (step > 0) {
                         inside->now = inside->now - 1;
                     }
                     const int64_t result = rmtest::passThrough(record);
                     if (step < 0) {
                         inside->now = inside->now + 1;
                         inside->most = std::max<int>(int{inside->most}, int{inside->now});
                         inside->entries = inside->entries + 1;
                     }
                     return result;
                 }});
            for (int round = 0; round < kRounds; ++round) {
                void* element = rm_getFromPool(16, pool);
                std::memset(element, round, 16);
                rm_putInPool(element, pool);
            }
        }));
    }
    for (const auto& peer : peers) {
        peer->say("go");
    }
    for (const auto& peer : peers) {
        EXPECT_EQ(peer->wait().status, 0);
    }
    EXPECT_EQ(inside->most, 1);
    EXPECT_EQ(inside->now, 0);
    EXPECT_EQ(inside->entries, kProcesses * kRounds * 2);
    EXPECT_EQ(lockOf(pool), 1);
    EXPECT_EQ(munmap(page, sizeof(Inside)), 0);
}

TEST_F(PoolLock, GuardsACopyOfThePoolInEachProcess)
{
    RmPool* pool = locked();
    void* element = rm_getFromPool(16, pool);
    rm_putInPool(element, pool);
    Peer peer([=](Channel& channel) {
        channel.say(rm_getFromPool(16, pool) == element ? "same" : "other");
    });
    EXPECT_EQ(peer.hear(), "same");
    EXPECT_EQ(peer.wait().status, 0);
    EXPECT_EQ(rm_getFromPool(16, pool), element);
}

TEST_F(PoolLock, ThatIsGoneIsFatalInEveryCall)
{
    RmPool* pool = locked();
    void* element = rm_getFromPool(16, pool);
    rm_syncTerminate();
    const std::vector<std::function<void()>> calls = {[&] { rm_getFromPool(16, pool); },
                                                      [&] { rm_putInPool(element, pool); },
                                                      [&] { rm_zFreePool(&pool); }};
    for (const std::function<void()>& call : calls) {
        const auto failed = [&] { EXPECT_EQ(rmtest::catchFatal(call), 1); };
        rmtest::captureStdout([&] { rmtest::captureStderr(failed); });
    }
    EXPECT_NE(pool, nullptr);
    EXPECT_THAT(freeElements(pool), IsEmpty());
}

}  // namespace
