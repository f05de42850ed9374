// What happens to a pool at which moment: between which steps of the lock its list changes, how
// long each call waits for the lock, and in which order memory goes and comes.
#include "tests/rmutil/pool_case.h"

#include <ostream>
#include <string>

#include <sys/sem.h>

using namespace pooltest;

namespace
{
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// What can be seen of a pool just before a step of its lock.
struct Moment {
    int step;                 // -1 enters, 1 leaves
    std::vector<void*> free;  // elements on the list
    uint32_t bytes;           // allocated in the pool's tag

    bool operator==(const Moment&) const = default;
};

void PrintTo(const Moment& moment, std::ostream* out)
{
    *out << "step " << moment.step << " with " << ::testing::PrintToString(moment.free) << ", "
         << moment.bytes << " bytes";
}

class PoolListInLock : public PoolTest
{
  protected:
    void SetUp() override
    {
        PoolTest::SetUp();
        rm_syncCreate("other");  // the set outlives the pool
        pool_ = locked();
    }

    // The moments of a call that leaves the pool there.
    std::vector<Moment> momentsOf(const std::function<void()>& call) const
    {
        return momentsOf(call, [this] { return freeElements(pool_); });
    }

    std::vector<Moment> momentsOf(const std::function<void()>& call,
                                  const std::function<std::vector<void*>()>& list) const
    {
        std::vector<Moment> moments;
        const ScopedFault watch({.call = Call::kSemop,
                                 .when =
                                     [&](const CallRecord& record) {
                                         moments.push_back({record.pointer<sembuf>(1)->sem_op,
                                                            list(), rmtest::allocated(tag_)});
                                         return false;
                                     },
                                 .action = nullptr});
        call();
        return moments;
    }

    RmPool* pool_ = nullptr;
};

class PoolRecord : public PoolTest
{
};

class PoolWait : public PoolTest
{
  protected:
    // Seconds of the alarms that the call sets, 0 for one that is taken back.
    static std::vector<int64_t> alarmsOf(const std::function<void()>& call)
    {
        const std::size_t before = callTrace({Call::kAlarm}).size();
        call();
        std::vector<int64_t> seconds;
        for (const CallRecord& record : callTrace({Call::kAlarm})) {
            seconds.push_back(record.args[0]);
        }
        return {seconds.begin() + static_cast<std::ptrdiff_t>(before), seconds.end()};
    }
};

class PoolElementTooSmall : public PoolTest
{
};

class PoolLog : public PoolTest
{
};

// --- The list and the lock

TEST_F(PoolListInLock, TakesAnElementInBetween)
{
    const std::vector<void*> elements = getMany(pool_, 2, 16);
    rm_putInPool(elements[0], pool_);
    rm_putInPool(elements[1], pool_);
    const uint32_t bytes = rmtest::allocated(tag_);
    EXPECT_THAT(momentsOf([this] { rm_getFromPool(16, pool_); }),
                ElementsAre(Moment{-1, {elements[1], elements[0]}, bytes},
                            Moment{1, {elements[0]}, bytes}));
}

TEST_F(PoolListInLock, GetsAnElementInBetween)
{
    const std::vector<void*> elements = getMany(pool_, 2, 16);
    rm_putInPool(elements[0], pool_);
    const uint32_t bytes = rmtest::allocated(tag_);
    EXPECT_THAT(momentsOf([&] { rm_putInPool(elements[1], pool_); }),
                ElementsAre(Moment{-1, {elements[0]}, bytes},
                            Moment{1, {elements[1], elements[0]}, bytes}));
}

TEST_F(PoolListInLock, LosesASmallElementInBetweenWhichIsFreedAfterwards)
{
    void* small = rm_getFromPool(16, pool_);
    rm_putInPool(small, pool_);
    const uint32_t bytes = rmtest::allocated(tag_);
    EXPECT_THAT(momentsOf([this] { rm_getFromPool(1000, pool_); }),
                ElementsAre(Moment{-1, {small}, bytes}, Moment{1, {}, bytes}));
    EXPECT_NE(rmtest::allocated(tag_), bytes);
}

TEST_F(PoolListInLock, StaysEmptyWhenANewElementIsMadeAfterwards)
{
    const uint32_t bytes = rmtest::allocated(tag_);
    EXPECT_THAT(momentsOf([this] { rm_getFromPool(16, pool_); }),
                ElementsAre(Moment{-1, {}, bytes}, Moment{1, {}, bytes}));
    EXPECT_NE(rmtest::allocated(tag_), bytes);
}

TEST_F(PoolListInLock, GoesWithThePoolInBetween)
{
    const std::vector<void*> elements = getMany(pool_, 3, 16);
    rm_putInPool(elements[0], pool_);
    rm_putInPool(elements[1], pool_);
    const uint32_t bytes = rmtest::allocated(tag_);
    const uint32_t held = rmalloc::unitsFor(16 + kLink) * rmalloc::kUnit;
    // Behind the two steps the one that deletes the lock.
    EXPECT_THAT(momentsOf([this] { rm_zFreePool(&pool_); }, [] { return std::vector<void*>{}; }),
                ElementsAre(Moment{-1, {}, bytes}, Moment{1, {}, held}, Moment{-1, {}, held}));
}

// --- Waiting for the lock

TEST_F(PoolWait, IsThePoolsTimeoutInEveryCall)
{
    RmPool* pool = locked(2500);
    void* element = nullptr;
    EXPECT_THAT(alarmsOf([&] { element = rm_getFromPool(16, pool); }), ElementsAre(3, 0));
    EXPECT_THAT(alarmsOf([&] { rm_putInPool(element, pool); }), ElementsAre(3, 0));
    EXPECT_THAT(alarmsOf([&] { rm_getFromPool(1000, pool); }), ElementsAre(3, 0));
    EXPECT_THAT(alarmsOf([&] { rm_zFreePool(&pool); }), ElementsAre(3, 0));
}

TEST_F(PoolWait, IsWithoutLimitInEveryCallWhenThePoolSaysSo)
{
    for (const uint32_t timeout : {RM_WAIT_FOREVER, 0U}) {
        RmPool* pool = locked(timeout);
        void* element = nullptr;
        EXPECT_THAT(alarmsOf([&] { element = rm_getFromPool(16, pool); }), ElementsAre(0));
        EXPECT_THAT(alarmsOf([&] { rm_putInPool(element, pool); }), ElementsAre(0));
        EXPECT_THAT(alarmsOf([&] { rm_zFreePool(&pool); }), ElementsAre(0));
        EXPECT_EQ(callCount(Call::kSemtimedop), 0);
    }
}

TEST_F(PoolWait, ThatIsOverTakesNoMemoryLogsNothingAndLeavesTheLockToItsHolder)
{
    RmPool* pool = locked(10);
    void* held = rm_getFromPool(16, pool);
    const std::unique_ptr<Peer> holder = holderOf(pool);
    const std::string before = rmtest::wholeHeap();
    EXPECT_THAT(linesOf([&] {
                    EXPECT_EQ(rm_getFromPool(16, pool), nullptr);
                    EXPECT_EQ(rm_putInPool(held, pool), 1);
                    RmPool* gone = pool;
                    EXPECT_EQ(rm_zFreePool(&gone), 1);
                    EXPECT_EQ(gone, pool);
                }),
                IsEmpty());
    EXPECT_EQ(rmtest::wholeHeap(), before);
    EXPECT_EQ(lockOf(pool), 0);
    EXPECT_EQ(rm_syncOpen("pool"), pool->lock);
    holder->say("go");
    EXPECT_EQ(holder->hear(), "left");
    EXPECT_EQ(holder->wait().status, 0);
    EXPECT_EQ(lockOf(pool), 1);
}

// --- Memory

// Each is so large that it has a segment of its own, which the platform gives and takes back.
TEST_F(PoolElementTooSmall, IsFreedBeforeALargerBlockIsTaken)
{
    RmPool* pool = unlocked();
    void* small = rm_getFromPool(100'000, pool);
    rm_putInPool(small, pool);
    const void* segment = rmtest::segmentsOf(tag_).back();
    const std::size_t before = callTrace({Call::kMalloc, Call::kFree}).size();
    rm_getFromPool(200'000, pool);
    std::vector<std::string> calls;  // on those two segments
    const std::vector<CallRecord> trace = callTrace({Call::kMalloc, Call::kFree});
    for (std::size_t i = before; i < trace.size(); ++i) {
        if (trace[i].call == Call::kFree && trace[i].pointer<void>(0) == segment) {
            calls.emplace_back("freed");
        } else if (trace[i].call == Call::kMalloc && trace[i].args[0] > 200'000) {
            calls.emplace_back("taken");
        }
    }
    EXPECT_THAT(calls, ElementsAre("freed", "taken"));
}

TEST_F(PoolElementTooSmall, OnlyByAByteLeavesTheOthersOnTheList)
{
    RmPool* pool = unlocked();
    constexpr uint32_t kFull = 64 - sizeof(void*);  // with the link, a whole number of units
    const std::vector<void*> elements = getMany(pool, 3, kFull);
    for (void* element : elements) {
        rm_putInPool(element, pool);
    }
    void* larger = rm_getFromPool(kFull + 1, pool);
    EXPECT_EQ(unitsOf(larger), rmalloc::unitsFor(kFull + 1 + kLink));
    EXPECT_THAT(freeElements(pool), ElementsAre(elements[1], elements[0]));
}

// --- The log

TEST_F(PoolLog, HasNothingOfAPoolThatIsUsedAsItShould)
{
    EXPECT_THAT(linesOf([this] {
                    RmPool* pool = locked(2500);
                    void* element = rm_getFromPool(16, pool);
                    rm_putInPool(element, pool);
                    rm_putInPool(rm_getFromPool(8, pool), pool);
                    rm_putInPool(rm_getFromPool(1000, pool), pool);
                    rm_getFromPool(16, pool);
                    rm_getFromPool(16, pool);
                    rm_zFreePool(&pool);
                }),
                IsEmpty());
}

// An allocation that fails does not come back, so no host sees this; what it would be told is kept.
TEST_F(PoolRecord, ThatDidNotComeGivesNullAndMakesNoSyncObject)
{
    const ScopedFault fault({.call = Call::kGetMemory, .result = 0});
    EXPECT_EQ(rm_allocPool(0, tag_, "pool", 0), nullptr);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(os::nSems, 0);
}
}  // namespace
