// What the processes that share an FF bag rely on beside its order: the numbers that they compare
// with, whose address stands in the area, and how long the area lives.
#include "tests/containers/ffbag_case.h"

#include <gmock/gmock.h>

using namespace ffbagtest;

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::captureStdout;
using rmtest::resetCalls;
using ::testing::ElementsAre;

class FfBagStatus : public FfBagCase
{
};

class FfBagArea : public FfBagCase
{
};

class FfBagLifetime : public FfBagCase
{
};

// Where the slots stand, as the area itself says.
uint32_t slotsOf(const FfBag& bag)
{
    uint32_t address = 0;
    std::memcpy(&address, bag.area + 12, sizeof(address));
    return address;
}

uint32_t slotsFrom(const FfBag& bag)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(bag.area + 16));
}

// True while the segment is there and nobody has asked for its removal.
bool isThere(int32_t id)
{
    shmid_ds segment = {};
    return shmctl(id, IPC_STAT, &segment) == 0 && (segment.shm_perm.mode & SHM_DEST) == 0;
}

// --- Results

// Hosts in other languages know them as numbers.
TEST_F(FfBagStatus, IsZeroFiveWhenFullAndOneWhenEmpty)
{
    const FfBag bag = makeBag(1, 1);
    char letter = 'a';
    EXPECT_EQ(ffBagPop(bag.bag, &letter), 1);
    EXPECT_EQ(ffBagPush(bag.bag, &letter), 0);
    EXPECT_EQ(ffBagPush(bag.bag, &letter), 5);
    EXPECT_EQ(ffBagPop(bag.bag, &letter), 0);
    EXPECT_EQ(ffBagPop(bag.bag, &letter), 1);
}

TEST_F(FfBagStatus, IsFiveAndOneOfABagWithoutSlots)
{
    const FfBag bag = makeBag(0, 1);
    char letter = 'a';
    EXPECT_EQ(ffBagPush(bag.bag, &letter), 5);
    EXPECT_EQ(ffBagPop(bag.bag, &letter), 1);
}

TEST_F(FfBagStatus, IsAllThatIsSaid)
{
    std::string out;
    const std::string log = captureStderr([&] {
        out = captureStdout([] {
            const FfBag bag = makeBag(1, 1);
            char letter = 'a';
            ffBagPush(bag.bag, &letter);
            ffBagPush(bag.bag, &letter);
            ffBagPop(bag.bag, &letter);
            ffBagPop(bag.bag, &letter);
        });
    });
    EXPECT_EQ(log, "");
    EXPECT_EQ(out, "");
}

// --- The area

// It stands where its creator has it, and the last one to create it counts.
TEST_F(FfBagArea, HoldsTheAddressOfItsLastCreator)
{
    const FfBag first = makeBag(3, 4);
    EXPECT_EQ(slotsOf(first), slotsFrom(first));
    rm_freeall();  // this process forgets the object, which stays attached
    const FfBag second = makeBag(3, 4);
    ASSERT_NE(second.area, first.area);
    EXPECT_EQ(slotsOf(second), slotsFrom(second));
    EXPECT_EQ(slotsOf(first), slotsFrom(second));
    second.area[16] = 'x';
    EXPECT_EQ(first.area[16], 'x');
}

TEST_F(FfBagArea, TakesASharedMemoryObjectAndNoLock)
{
    resetCalls();
    makeBag(3, 4);
    std::vector<Call> ipc;
    for (const CallRecord& call :
         callTrace({Call::kShmget, Call::kShmat, Call::kShmctl, Call::kSemget, Call::kSemop,
                    Call::kSemtimedop, Call::kSemctl, Call::kMsgget})) {
        ipc.push_back(call.call);
    }
    EXPECT_THAT(ipc, ElementsAre(Call::kShmget, Call::kShmat));
}

// --- Its life

TEST_F(FfBagLifetime, EndsWithItsSharedMemoryObject)
{
    makeBag(3, 1);
    const FfBag other = makeBag(3, 1);
    const int32_t id = os::rmGshm[0].id;
    const int32_t otherId = os::rmGshm[1].id;
    rm_gshmDelete(0);
    EXPECT_FALSE(isThere(id));
    EXPECT_TRUE(isThere(otherId));
    EXPECT_EQ(push(other, 'a'), "ok");
    EXPECT_EQ(pop(other), "a");
}

TEST_F(FfBagLifetime, EndsWithAllSharedMemoryObjects)
{
    makeBag(3, 1);
    makeBag(3, 1);
    const int32_t id = os::rmGshm[0].id;
    const int32_t otherId = os::rmGshm[1].id;
    ASSERT_TRUE(isThere(id));
    ASSERT_TRUE(isThere(otherId));
    rm_gshmTerminate();
    EXPECT_FALSE(isThere(id));
    EXPECT_FALSE(isThere(otherId));
}

// Pushes and pops alone never end it, and never make it larger.
TEST_F(FfBagLifetime, GoesOnWhileItIsFullAndWhileItIsEmpty)
{
    const FfBag bag = makeBag(2, 1);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(push(bag, 'a'), "ok");
        EXPECT_EQ(push(bag, 'b'), "ok");
        EXPECT_EQ(push(bag, 'c'), "full");
        EXPECT_EQ(pop(bag), "a");
        EXPECT_EQ(pop(bag), "b");
        EXPECT_EQ(pop(bag), "empty");
    }
    shmid_ds segment = {};
    ASSERT_EQ(shmctl(os::rmGshm[0].id, IPC_STAT, &segment), 0);
    EXPECT_EQ(segment.shm_segsz, sizeOf(2, 1));
    EXPECT_EQ(bag.get(FfBagModel::kCapacity), 2);
}
}  // namespace
