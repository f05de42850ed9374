// FF bags between processes: elements that go from one to another in order and without loss, what a
// process that dies leaves in the bag, and what a second creation does to those that use it.
#include "tests/containers/ffbag_case.h"

#include <atomic>
#include <memory>

#include <sched.h>
#include <signal.h>
#include <sys/mman.h>

#include <gmock/gmock.h>

using namespace ffbagtest;

namespace
{
using rmtest::ChildResult;
using rmtest::Peer;
using rmtest::runChild;
using rmtest::waitFor;
using ::testing::StartsWith;

using Channel = Peer::Channel;
using Field = FfBagModel::Field;

constexpr uint32_t kElements = 100'000;

// Memory that the processes forked from now on share.
template <typename T>
T* sharedZero(std::size_t count = 1)
{
    void* pages = mmap(nullptr, count * sizeof(T), PROT_READ | PROT_WRITE,
                       MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    EXPECT_NE(pages, MAP_FAILED);
    return static_cast<T*>(pages);
}

// An element: its number, and bytes that follow from it.
struct Record {
    uint32_t number;
    std::array<unsigned char, 20> rest;
};

Record recordOf(uint32_t number)
{
    Record record = {number, {}};
    for (std::size_t i = 0; i < record.rest.size(); ++i) {
        record.rest[i] = static_cast<unsigned char>(number * 7 + i);
    }
    return record;
}

bool isWhole(const Record& record)
{
    return recordOf(record.number).rest == record.rest;
}

// One call under the lock. Who has nothing to do lets the other one go on.
int16_t guardedPush(SyncHandle lock, void* bag, const void* element)
{
    rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
    const int16_t result = ffBagPush(bag, element);
    rm_syncExitExcl(lock);
    if (result == RM_FULL) {
        sched_yield();
    }
    return result;
}

int16_t guardedPop(SyncHandle lock, void* bag, void* buffer)
{
    rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
    const int16_t result = ffBagPop(bag, buffer);
    rm_syncExitExcl(lock);
    if (result == RM_NO_ELEMENT) {
        sched_yield();
    }
    return result;
}

class FfBagProcessCase : public FfBagCase
{
  protected:
    void TearDown() override
    {
        rm_syncTerminate();
        FfBagCase::TearDown();
    }
};

class FfBagExchange : public FfBagProcessCase
{
};

class FfBagKilledWorker : public FfBagProcessCase
{
};

// --- Exchange

TEST_F(FfBagExchange, HandsEveryElementOverInOrder)
{
    const SyncHandle lock = rm_syncCreate("lock");
    const FfBag bag = makeBag(500, sizeof(Record));
    Peer reader([=](Channel& channel) {
        uint32_t expected = 0;
        while (expected < kElements) {
            Record record = {};
            const int16_t result = guardedPop(lock, bag.bag, &record);
            if (result == RM_SUCCESS) {
                ASSERT_EQ(record.number, expected);
                ASSERT_TRUE(isWhole(record));
                ++expected;
            } else {
                ASSERT_EQ(result, RM_NO_ELEMENT);
            }
        }
        channel.say(std::to_string(expected));
    });
    for (uint32_t number = 0; number < kElements;) {
        const Record record = recordOf(number);
        const int16_t result = guardedPush(lock, bag.bag, &record);
        ASSERT_TRUE(result == RM_SUCCESS || result == RM_FULL) << result;
        number += result == RM_SUCCESS ? 1U : 0U;
        if (result == RM_FULL && !reader.running()) {
            break;
        }
    }
    EXPECT_EQ(reader.hear(), std::to_string(kElements));
    EXPECT_EQ(reader.wait().status, 0);
    EXPECT_EQ(bag.get(Field::kCount), 0);
    EXPECT_EQ(bag.get(Field::kNext), kElements % 500);
    EXPECT_EQ(ffbag::checkFfBag(bag.bag), 0U);
}

// Several writers and readers: each element arrives once, those of a writer in its order.
TEST_F(FfBagExchange, HandsEveryElementOverOnceAmongSeveral)
{
    constexpr uint32_t kWriters = 2;
    constexpr uint32_t kReaders = 3;
    constexpr uint32_t kEach = 10'000;
    const SyncHandle lock = rm_syncCreate("lock");
    const FfBag bag = makeBag(37, sizeof(Record));
    auto* seen = sharedZero<std::atomic<uint32_t>>(kWriters * kEach);
    auto* left = sharedZero<std::atomic<uint32_t>>();
    left->store(kWriters * kEach);
    std::vector<std::unique_ptr<Peer>> peers;
    for (uint32_t writer = 0; writer < kWriters; ++writer) {
        peers.push_back(std::make_unique<Peer>([=](Channel& /*channel*/) {
            for (uint32_t n = 0; n < kEach;) {
                const Record record = recordOf(writer * kEach + n);
                n += guardedPush(lock, bag.bag, &record) == RM_SUCCESS ? 1U : 0U;
            }
        }));
    }
    for (uint32_t reader = 0; reader < kReaders; ++reader) {
        peers.push_back(std::make_unique<Peer>([=](Channel& /*channel*/) {
            std::array<int64_t, kWriters> last;
            last.fill(-1);
            while (left->load() > 0) {
                Record record = {};
                if (guardedPop(lock, bag.bag, &record) != RM_SUCCESS) {
                    continue;
                }
                ASSERT_TRUE(isWhole(record));
                ASSERT_LT(record.number, kWriters * kEach);
                EXPECT_GT(record.number, last.at(record.number / kEach));
                last.at(record.number / kEach) = record.number;
                ++seen[record.number];
                --*left;
            }
        }));
    }
    for (const auto& peer : peers) {
        EXPECT_EQ(peer->wait().status, 0);
    }
    for (uint32_t number = 0; number < kWriters * kEach; ++number) {
        ASSERT_EQ(seen[number].load(), 1U) << number;
    }
    EXPECT_EQ(bag.get(Field::kCount), 0);
}

// The slots are found from where a process has the area, not from where its creator had it.
TEST_F(FfBagExchange, WorksAtAnotherAddress)
{
    const FfBag bag = makeBag(3, 1);
    push(bag, 'a');
    void* elsewhere = shmat(os::rmGshm[0].id, nullptr, 0);
    ASSERT_NE(elsewhere, bag.area);
    const FfBag other = {static_cast<char*>(elsewhere) + 4, static_cast<unsigned char*>(elsewhere)};
    EXPECT_EQ(pop(other), "a");
    EXPECT_EQ(push(other, 'b'), "ok");
    EXPECT_EQ(push(other, 'c'), "ok");
    EXPECT_EQ(push(other, 'd'), "ok");
    EXPECT_EQ(push(other, 'e'), "full");
    EXPECT_EQ(pop(bag), "b");
    shmdt(elsewhere);
}

// --- A worker that dies

TEST_F(FfBagKilledWorker, BetweenPopsLeavesTheRestInOrder)
{
    const FfBag bag = makeBag(100, sizeof(Record));
    for (uint32_t number = 0; number < 100; ++number) {
        const Record record = recordOf(number);
        ASSERT_EQ(ffBagPush(bag.bag, &record), 0);
    }
    Peer worker([=](Channel& channel) {
        for (uint32_t number = 0; number < 42; ++number) {
            Record record = {};
            EXPECT_EQ(ffBagPop(bag.bag, &record), 0);
        }
        channel.say("42");
        channel.hear();
    });
    EXPECT_EQ(worker.hear(), "42");
    worker.kill(SIGKILL);
    EXPECT_EQ(worker.wait().signal, SIGKILL);
    EXPECT_EQ(ffbag::checkFfBag(bag.bag), 0U);
    for (uint32_t number = 42; number < 100; ++number) {
        Record record = {};
        ASSERT_EQ(ffBagPop(bag.bag, &record), 0);
        ASSERT_EQ(record.number, number);
    }
    Record record = {};
    EXPECT_EQ(ffBagPop(bag.bag, &record), RM_NO_ELEMENT);
}

// At any moment, but not within a call: whoever kills it has the lock.
TEST_F(FfBagKilledWorker, AtAnyMomentOutsideTheLockLosesNothing)
{
    constexpr int kWorkers = 10;
    const SyncHandle lock = rm_syncCreate("lock");
    const FfBag bag = makeBag(8, sizeof(Record));
    // Told under the lock, so that it is known whether a pop has happened.
    auto* popped = sharedZero<std::atomic<uint32_t>>();
    uint32_t pushed = 0;
    for (int n = 0; n < kWorkers; ++n) {
        Peer worker([=](Channel& /*channel*/) {
            while (true) {
                rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
                Record record = {};
                if (ffBagPop(bag.bag, &record) == RM_SUCCESS) {
                    EXPECT_EQ(record.number, popped->load());
                    ++*popped;
                }
                rm_syncExitExcl(lock);
            }
        });
        const uint32_t enough = popped->load() + 50 + static_cast<uint32_t>(n) * 7;
        EXPECT_TRUE(waitFor([&] {
            const Record record = recordOf(pushed);
            pushed += guardedPush(lock, bag.bag, &record) == RM_SUCCESS ? 1U : 0U;
            return popped->load() >= enough;
        }));
        rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
        worker.kill(SIGKILL);
        EXPECT_EQ(worker.wait().signal, SIGKILL);
        rm_syncExitExcl(lock);
    }
    EXPECT_EQ(bag.get(Field::kCount), pushed - popped->load());
    for (Record record = {}; ffBagPop(bag.bag, &record) == RM_SUCCESS;) {
        ASSERT_EQ(record.number, popped->load());
        ++*popped;
    }
    EXPECT_EQ(popped->load(), pushed);
}

TEST_F(FfBagKilledWorker, LeavesItsPushesToTheOthers)
{
    const FfBag bag = makeBag(3, 1);
    Peer worker([=](Channel& channel) {
        push(bag, 'a');
        push(bag, 'b');
        channel.say("done");
        channel.hear();
    });
    EXPECT_EQ(worker.hear(), "done");
    worker.kill(SIGKILL);
    worker.wait();
    EXPECT_EQ(pop(bag), "a");
    EXPECT_EQ(pop(bag), "b");
    EXPECT_EQ(pop(bag), "empty");
}

// --- A second creation, by a process of its own start

class FfBagRecreated : public FfBagProcessCase
{
  protected:
    void SetUp() override
    {
        FfBagProcessCase::SetUp();
        stranger_ = std::make_unique<Peer>([](Channel& channel) {
            FfBag bag;
            for (std::string order = channel.hear();; order = channel.hear()) {
                unsigned capacity = 0;
                unsigned elementSize = 0;
                if (std::sscanf(order.c_str(), "create %u of %u", &capacity, &elementSize) == 2) {
                    bag = makeBag(static_cast<uint16_t>(capacity),
                                  static_cast<uint16_t>(elementSize));
                    channel.say("created");
                } else if (order == "pop") {
                    channel.say(pop(bag));
                } else {
                    channel.say(push(bag, order.back()));
                }
            }
        });
    }

    void TearDown() override
    {
        stranger_.reset();
        FfBagProcessCase::TearDown();
    }

    std::string tell(const std::string& order)
    {
        stranger_->say(order);
        return stranger_->hear();
    }

    std::unique_ptr<Peer> stranger_;
};

TEST_F(FfBagRecreated, IsOneBagForBoth)
{
    const FfBag bag = makeBag(3, 1);
    EXPECT_EQ(tell("create 3 of 1"), "created");
    EXPECT_EQ(push(bag, 'a'), "ok");
    EXPECT_EQ(tell("push b"), "ok");
    EXPECT_EQ(tell("pop"), "a");
    EXPECT_EQ(pop(bag), "b");
    EXPECT_EQ(tell("pop"), "empty");
}

TEST_F(FfBagRecreated, IsEmptiedForAll)
{
    const FfBag bag = makeBag(3, 1);
    push(bag, 'a');
    push(bag, 'b');
    tell("create 3 of 1");
    EXPECT_EQ(bag.get(Field::kCount), 0);
    EXPECT_EQ(bag.get(Field::kNext), 0);
    EXPECT_EQ(Bytes(bag.area + 16, bag.area + 19), Bytes(3, 0));
    EXPECT_EQ(pop(bag), "empty");
    push(bag, 'c');
    EXPECT_EQ(tell("pop"), "c");
}

TEST_F(FfBagRecreated, WithFewerSlotsHoldsFewerForAll)
{
    const FfBag bag = makeBag(3, 1);
    tell("create 2 of 1");
    EXPECT_EQ(push(bag, 'a'), "ok");
    EXPECT_EQ(push(bag, 'b'), "ok");
    EXPECT_EQ(push(bag, 'c'), "full");
    EXPECT_EQ(ffbag::checkFfBag(bag.bag), 0U);
}

TEST_F(FfBagRecreated, WithSmallerElementsMovesThose)
{
    const GuardedSegments guard;
    const FfBag bag = makeBag(255, 16);
    tell("create 1000 of 1");
    const EdgeBytes element(16);
    element.fill('e');
    EXPECT_EQ(ffBagPush(bag.bag, element.data()), RM_SUCCESS);
    EXPECT_EQ(bag.area[16], 'e');
    EXPECT_EQ(bag.area[17], 0);
    EXPECT_EQ(tell("pop"), "e");
    EXPECT_EQ(tell("push f"), "ok");
    element.fill('b');
    EXPECT_EQ(ffBagPop(bag.bag, element.data()), RM_SUCCESS);
    EXPECT_EQ(element.data()[0], 'f');
    EXPECT_EQ(element.data()[1], 'b');
    EXPECT_EQ(ffbag::checkFfBag(bag.bag), 0U);
}

// Fewer of them, so that they fit into the area; but not into the buffers of who made it first.
TEST_F(FfBagRecreated, WithLargerElementsIsRefusedByWhoHasSmallerBuffers)
{
    const GuardedSegments guard;
    const FfBag bag = makeBag(255, 16);
    EXPECT_EQ(tell("create 100 of 17"), "created");
    const EdgeBytes element(16);
    element.fill('e');
    const Bytes before = bag.bytes(kPage);
    EXPECT_EQ(ffBagPush(bag.bag, element.data()), RM_INVALID);
    bag.set(Field::kCount, 1);
    bag.set(Field::kNext, 1);
    EXPECT_EQ(ffBagPop(bag.bag, element.data()), RM_INVALID);
    bag.set(Field::kCount, 0);
    bag.set(Field::kNext, 0);
    EXPECT_EQ(bag.bytes(kPage), before);
    EXPECT_THAT(element.contents(), ::testing::Each('e'));
}

TEST_F(FfBagRecreated, ByTheFirstOneAgainIsUsableForIt)
{
    const FfBag bag = makeBag(10, 2);
    tell("create 2 of 9");
    rm_freeall();  // this process forgets the object, which stays
    const FfBag again = makeBag(10, 2);
    const std::array<char, 2> element = {'x', 'y'};
    EXPECT_EQ(ffBagPush(again.bag, element.data()), RM_SUCCESS);
    EXPECT_EQ(bag.get(Field::kCount), 1);
}

// In a larger area than there is: the segment cannot be had.
TEST_F(FfBagRecreated, WithMoreBytesIsFatalForItsCreatorAndChangesNothing)
{
    const FfBag bag = makeBag(3, 1);
    push(bag, 'a');
    stranger_->say("create 4 of 1");
    const ChildResult result = stranger_->wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, StartsWith("**** rm_gshmCreate() shmget() failure, errno=22"));
    EXPECT_EQ(pop(bag), "a");
}

TEST_F(FfBagRecreated, IsAnotherBagInAnotherSlot)
{
    makeBag(3, 1);
    const FfBag second = makeBag(3, 1);
    push(second, 'a');
    tell("create 3 of 1");
    EXPECT_EQ(tell("pop"), "empty");
    EXPECT_EQ(pop(second), "a");
}

// --- Forked processes

TEST_F(FfBagExchange, IsInheritedOverAForkWithWhatIsKnownOfIt)
{
    const GuardedSegments guard;
    const FfBag bag = makeBag(255, 16);
    const EdgeBytes element(16);
    EXPECT_EQ(runChild([&] {
                  EXPECT_EQ(ffBagPush(bag.bag, element.data()), RM_SUCCESS);
                  bag.set(Field::kElementSize, 17);
                  EXPECT_EQ(ffBagPush(bag.bag, element.data()), RM_INVALID);
              }).status,
              0);
    EXPECT_EQ(ffBagPop(bag.bag, element.data()), RM_INVALID);
    bag.set(Field::kElementSize, 16);
    EXPECT_EQ(ffBagPop(bag.bag, element.data()), RM_SUCCESS);
}
}  // namespace
