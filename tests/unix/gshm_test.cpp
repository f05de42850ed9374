// Shared memory objects of one process: slots, keys, names, sizes, deletion. The token file and the
// checker stand in gshm_token_test.cpp, failing system calls in gshm_fault_test.cpp.
#include "tests/unix/gshm_case.h"

#include "rm/rmalloc/rmalloc.h"

#include <algorithm>
#include <limits>
#include <set>
#include <string_view>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <gmock/gmock.h>

using namespace gshmtest;

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::catchExit;
using rmtest::ChildResult;
using rmtest::inChild;
using rmtest::kForever;
using rmtest::logLines;
using rmtest::openDescriptors;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::ScopedFault;
using rmtest::writeFile;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr uint32_t kPage = 4096;

class GshmCreate : public GshmCase
{
};

class GshmKeys : public GshmCase
{
};

class GshmName : public GshmCase
{
};

class GshmSize : public GshmFaultCase
{
};

class GshmDelete : public GshmCase
{
};

class GshmTerminate : public GshmCase
{
};

class GshmForget : public GshmCase
{
};

void makeAll()
{
    for (int n = 0; n < os::kGshmSlots; ++n) {
        make();
    }
}

bool allZero(const char* bytes, std::size_t size)
{
    return std::all_of(bytes, bytes + size, [](char c) { return c == '\0'; });
}

// --- Before anything

TEST(GshmAtStart, HasNoObjects)
{
    EXPECT_EQ(stateNow(), kNothing);
    EXPECT_EQ(os::checkGshm(), 0U);
}

// --- Creation

TEST_F(GshmCreate, GivesHandleZeroFirst)
{
    EXPECT_EQ(make().handle, 0);
    EXPECT_EQ(stateNow(), kOne);
}

TEST_F(GshmCreate, GivesTheLowestFreeHandle)
{
    makeAll();
    for (const int16_t handle : std::array<int16_t, 3>{7, 3, 12}) {
        rm_gshmDelete(handle);
    }
    EXPECT_EQ(make().handle, 3);
    EXPECT_EQ(make().handle, 7);
    EXPECT_EQ(make().handle, 12);
}

TEST_F(GshmCreate, GivesMemoryThatCanBeReadAndWrittenToItsEnd)
{
    const Object object = make("object", 3 * kPage);
    ASSERT_NE(object.address, nullptr);
    std::memset(object.address, 0x5A, 3 * kPage);
    EXPECT_EQ(object.address[0], 0x5A);
    EXPECT_EQ(object.address[3 * kPage - 1], 0x5A);
}

TEST_F(GshmCreate, GivesNewMemoryAsZeros)
{
    EXPECT_TRUE(allZero(make("object", 2 * kPage).address, 2 * kPage));
}

TEST_F(GshmCreate, NotesTheAddressInTheSlot)
{
    make();
    const Object second = make();
    EXPECT_EQ(slotOf(1).address, second.address);
}

TEST_F(GshmCreate, GivesAnAddressThatBeginsAPage)
{
    make();
    EXPECT_EQ(reinterpret_cast<uintptr_t>(make("odd", 13).address) % kPage, 0U);
}

TEST_F(GshmCreate, GivesEachObjectMemoryOfItsOwn)
{
    const Object first = make();
    const Object second = make();
    first.address[0] = 'a';
    second.address[0] = 'b';
    EXPECT_EQ(first.address[0], 'a');
    EXPECT_NE(idOf(0), idOf(1));
}

TEST_F(GshmCreate, AttachesOnceAnywhereAndForWriting)
{
    resetCalls();
    make();
    const std::vector<CallRecord> calls = callTrace({Call::kShmat});
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].args[0], idOf(0));
    EXPECT_EQ(calls[0].args[1], 0);
    EXPECT_EQ(calls[0].args[2], 0);
}

TEST_F(GshmCreate, OpensTheSegmentToEverybodyWhateverTheMask)
{
    const mode_t before = umask(077);
    resetCalls();
    make();
    umask(before);
    shmid_ds segment;
    ASSERT_TRUE(stateOfSegment(idOf(0), &segment));
    EXPECT_EQ(segment.shm_perm.mode & 0777U, 0777U);
    const std::vector<CallRecord> calls = callTrace({Call::kShmget});
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].args[2], 1023);
}

TEST_F(GshmCreate, GivesTwentyObjectsThatAllWork)
{
    std::set<char*> addresses;
    for (int16_t expected = 0; expected < 20; ++expected) {
        const Object object = make();
        EXPECT_EQ(object.handle, expected);
        object.address[0] = static_cast<char>(expected);
        addresses.insert(object.address);
    }
    EXPECT_THAT(addresses, SizeIs(20));
    EXPECT_EQ(stateNow(), (State{20, 20, true}));
    for (int16_t handle = 0; handle < 20; ++handle) {
        EXPECT_EQ(static_cast<char*>(slotOf(handle).address)[0], handle);
    }
}

TEST_F(GshmCreate, OfA21stObjectIsFatalWithTheErrorOfThatMoment)
{
    makeAll();
    const Outcome outcome = outcomeOf([] {
        errno = ENOTTY;
        make();
    });
    expectFirstFailure(outcome, failure("rm_gshmCreate", "Out of Shared Memory Objects!", ENOTTY));
    EXPECT_EQ(outcome.out, "**** rm_gshmCreate() Out of Shared Memory Objects!, errno=25 (" +
                               std::string(std::strerror(ENOTTY)) + ")\n");
}

TEST_F(GshmCreate, OfA21stObjectLeavesTheOthersAsTheyAre)
{
    makeAll();
    resetCalls();
    void* address = this;
    EXPECT_EQ(fatalQuietly([&] { rm_gshmCreate("one more", 10, &address); }), 1);
    EXPECT_EQ(address, this);
    EXPECT_EQ(callCount(Call::kShmget), 0);
    EXPECT_EQ(stateNow(), (State{20, 20, true}));
    rm_gshmDelete(19);
    EXPECT_EQ(make().handle, 19);
}

TEST_F(GshmCreate, OfA21stObjectEndsAProcessWithoutATargetAndLeavesNothing)
{
    const ChildResult result = runChild([] {
        makeAll();
        errno = 0;
        make();
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, failure("rm_gshmCreate", "Out of Shared Memory Objects!", 0) + '\n');
    EXPECT_EQ(logLines(result.err).back(), "Exiting to operating system");
    expectNothingLeft();
}

TEST_F(GshmCreate, LogsAndPrintsNothing)
{
    const Outcome outcome = outcomeOf([] {
        make();
        rm_gshmDelete(0);
    });
    EXPECT_EQ(outcome.jumped, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.log, IsEmpty());
}

// --- Keys

TEST_F(GshmKeys, AreThoseOfTheTokenFileAndTheSlotCountedFromOne)
{
    make();
    for (int16_t slot = 0; slot < os::kGshmSlots; ++slot) {
        EXPECT_EQ(slotOf(slot).key, ftok(kToken, slot + 1)) << slot;
    }
}

TEST_F(GshmKeys, LeadToTheSegmentsOfTheSlots)
{
    makeAll();
    for (int16_t slot = 0; slot < os::kGshmSlots; ++slot) {
        EXPECT_EQ(shmget(ftok(kToken, slot + 1), 0, 0), idOf(slot)) << slot;
    }
}

TEST_F(GshmKeys, AreMadeOnceForAllObjects)
{
    make();
    resetCalls();
    make();
    make();
    EXPECT_EQ(callCount(Call::kFtok), 0);
}

TEST_F(GshmKeys, OfASlotAreTheSameWhenItIsUsedAgain)
{
    make();
    make();
    const int32_t key = slotOf(0).key;
    rm_gshmDelete(0);
    EXPECT_EQ(make("another").handle, 0);
    EXPECT_EQ(slotOf(0).key, key);
    EXPECT_EQ(shmget(key, 0, 0), idOf(0));
}

TEST_F(GshmKeys, OfTheOnlyObjectAreThoseOfTheTokenFileAgainAfterItWasDeleted)
{
    make();
    rm_gshmDelete(0);
    EXPECT_EQ(make().handle, 0);
    EXPECT_EQ(slotOf(0).key, ftok(kToken, 1));
    EXPECT_EQ(shmget(ftok(kToken, 1), 0, 0), idOf(0));
}

// A deleted segment that is still attached has no key any more.
TEST_F(GshmKeys, LeadToANewSegmentAfterADeletion)
{
    make();
    const Object old = make();
    const int oldId = idOf(1);
    old.address[0] = 'x';
    rm_gshmDelete(1);
    const Object young = make();
    EXPECT_NE(idOf(1), oldId);
    EXPECT_EQ(young.address[0], '\0');
    EXPECT_EQ(old.address[0], 'x');
}

TEST_F(GshmKeys, FollowThePrefix)
{
    rm_tokenName("here");
    make();
    EXPECT_EQ(slotOf(4).key, ftok("here.ZNT.RM.MEM", 5));
    rm_gshmDelete(0);
}

TEST_F(GshmKeys, StayThoseOfThePrefixOfTheFirstObjectUntilTheLastHasGone)
{
    make();
    rm_tokenName("other");
    make();
    EXPECT_EQ(shmget(ftok(kToken, 2), 0, 0), idOf(1));
    EXPECT_FALSE(std::filesystem::exists("other.ZNT.RM.MEM"));
    rm_gshmDelete(0);
    rm_gshmDelete(1);
    EXPECT_FALSE(tokenExists());
    make();
    EXPECT_EQ(slotOf(0).key, ftok("other.ZNT.RM.MEM", 1));
    EXPECT_FALSE(tokenExists());
    rm_gshmDelete(0);
    EXPECT_FALSE(std::filesystem::exists("other.ZNT.RM.MEM"));
}

// --- Names

TEST_F(GshmName, IsACopy)
{
    std::array<char, 16> name = {"counters"};
    make(name.data());
    std::strcpy(name.data(), "overwritten");
    EXPECT_STREQ(slotOf(0).name, "counters");
}

TEST_F(GshmName, IsKeptUnderTagZeroAndFreedByTheDeletion)
{
    rm_freeMemory(rm_getMemory(8, 0), 0);
    const uint32_t before = rmalloc::tagTable[0].allocated;
    make(std::string(3000, 'n').c_str());
    EXPECT_GE(rmalloc::tagTable[0].allocated, before + 3000);
    EXPECT_THAT(logLines(captureStderr([] { rm_gshmDelete(0); })), IsEmpty());
    EXPECT_EQ(rmalloc::tagTable[0].allocated, before);
    EXPECT_EQ(rmalloc::checkMemory(), 0U);
}

TEST_F(GshmName, MayBeNull)
{
    EXPECT_EQ(make(nullptr).handle, 0);
    EXPECT_STREQ(slotOf(0).name, "");
    EXPECT_EQ(make(nullptr).handle, 1);
}

TEST_F(GshmName, MayBeEmpty)
{
    EXPECT_EQ(make("").handle, 0);
    EXPECT_EQ(make("").handle, 1);
    EXPECT_EQ(stateNow(), kTwo);
    EXPECT_EQ(rm_gshmDelete(0), 0);
    EXPECT_EQ(stateNow(), kOne);
}

// It does not decide which segment an object gets.
TEST_F(GshmName, MayBeThatOfAnotherObject)
{
    make("same");
    EXPECT_EQ(make("same").handle, 1);
    EXPECT_NE(idOf(0), idOf(1));
}

// --- Sizes

TEST_F(GshmSize, IsTheSegments)
{
    for (const uint32_t size : {1U, 13U, kPage - 1, kPage, kPage + 1, 1'000'000U}) {
        const Object object = make("object", size);
        shmid_ds segment;
        ASSERT_TRUE(stateOfSegment(idOf(object.handle), &segment));
        EXPECT_EQ(segment.shm_segsz, size);
    }
}

TEST_F(GshmSize, OfZeroIsFatalForANewObject)
{
    const Outcome outcome = outcomeOf([] { make("none", 0); });
    expectFirstFailure(outcome, failure("rm_gshmCreate", "shmget() failure", EINVAL));
}

// Unsigned, and whole: 32 bits in the interface are not a negative number of bytes.
TEST_F(GshmSize, NearTheLimitOfItsTypeReachesTheSystemAsItIs)
{
    for (const uint32_t size : {0x7FFFFFFFU, 0x80000000U, 0xFFFFF000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(size);
        resetCalls();
        ScopedFault fault({.call = Call::kShmget, .error = ENOMEM});
        const Outcome outcome = outcomeOf([=] { make("huge", size); });
        EXPECT_EQ(outcome.out, failure("rm_gshmCreate", "shmget() failure", ENOMEM) + '\n');
        const std::vector<CallRecord> calls = callTrace({Call::kShmget});
        ASSERT_THAT(calls, SizeIs(1));
        EXPECT_EQ(calls[0].args[1], int64_t{size});
        giveBack();
    }
}

// The machine's limit is lowered for the child alone. Where that is not allowed, a fault stands in.
TEST_F(GshmSize, BeyondTheLimitOfTheMachineIsFatal)
{
    const ChildResult result = runChild([] {
        constexpr uint32_t kLimit = 8192;
        if (unshare(CLONE_NEWIPC) == 0) {
            const int fd = open("/proc/sys/kernel/shmmax", O_WRONLY | O_CLOEXEC);
            static_cast<void>(write(fd, "8192", 4));
            close(fd);
        }
        const std::string text = readFile("/proc/sys/kernel/shmmax");
        const bool lowered = std::stoull(text) == kLimit;
        const ScopedFault fault({.call = Call::kShmget,
                                 .error = EINVAL,
                                 .times = kForever,
                                 .when = [=](const CallRecord& record) {
                                     return !lowered && record.args[1] > int64_t{kLimit};
                                 }});
        make("too large", kLimit + 1);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out,
                ::testing::StartsWith(failure("rm_gshmCreate", "shmget() failure", EINVAL) + '\n'));
    EXPECT_FALSE(tokenExists());
}

// --- Deletion

TEST_F(GshmDelete, MarksTheSegmentForRemoval)
{
    make();
    make();
    const int id = idOf(1);
    EXPECT_EQ(rm_gshmDelete(1), 0);
    EXPECT_TRUE(isMarkedForRemoval(id));
    EXPECT_FALSE(isMarkedForRemoval(idOf(0)));
    EXPECT_EQ(stateNow(), kOne);
}

TEST_F(GshmDelete, FreesTheSlot)
{
    make();
    make();
    rm_gshmDelete(0);
    EXPECT_EQ(slotOf(0).name, nullptr);
    EXPECT_EQ(slotOf(0).id, -1);
    EXPECT_EQ(slotOf(0).address, nullptr);
    EXPECT_STREQ(slotOf(1).name, "object");
}

TEST_F(GshmDelete, LeavesTheMemoryAttached)
{
    const Object object = make("object", 2 * kPage);
    const int id = idOf(0);
    object.address[2 * kPage - 1] = 'z';
    rm_gshmDelete(0);
    EXPECT_EQ(object.address[2 * kPage - 1], 'z');
    object.address[0] = 'a';
    EXPECT_EQ(object.address[0], 'a');
    shmid_ds segment;
    ASSERT_TRUE(stateOfSegment(id, &segment));
    EXPECT_EQ(segment.shm_nattch, 1U);
}

TEST_F(GshmDelete, LetsTheSystemRemoveTheSegmentWhenTheProcessEnds)
{
    int* id = static_cast<int*>(static_cast<void*>(make("id").address));
    inChild([=] {
        make();
        *id = idOf(1);
        rm_gshmDelete(1);
        EXPECT_TRUE(isMarkedForRemoval(*id));
    });
    EXPECT_FALSE(segmentExists(*id));
}

TEST_F(GshmDelete, OfAFreeSlotBesideOthersDoesNothing)
{
    make();
    make();
    rm_gshmDelete(0);
    resetCalls();
    for (const int16_t handle : std::array<int16_t, 3>{0, 2, 19}) {
        EXPECT_EQ(rm_gshmDelete(handle), 0);
    }
    EXPECT_TRUE(callTrace().empty());
    EXPECT_EQ(stateNow(), kOne);
    EXPECT_TRUE(tokenExists());
}

TEST_F(GshmDelete, OfTheSameObjectTwiceDoesNothingTheSecondTime)
{
    make();
    make();
    EXPECT_EQ(rm_gshmDelete(1), 0);
    EXPECT_EQ(rm_gshmDelete(1), 0);
    EXPECT_EQ(stateNow(), kOne);
}

TEST_F(GshmDelete, BeforeThereWasAnObjectDoesNothing)
{
    writeFile(kToken, "another server's");
    EXPECT_EQ(rm_gshmDelete(0), 0);
    EXPECT_EQ(readFile(kToken), "another server's");
    EXPECT_EQ(stateNow(), kNothing);
    std::filesystem::remove(kToken);
}

TEST_F(GshmDelete, AfterTheLastObjectDoesNothing)
{
    make();
    rm_gshmDelete(0);
    writeFile(kToken, "another server's");
    EXPECT_EQ(rm_gshmDelete(0), 0);
    EXPECT_EQ(readFile(kToken), "another server's");
    std::filesystem::remove(kToken);
}

TEST_F(GshmDelete, OfAHandleOutOfRangeDoesNothing)
{
    makeAll();
    resetCalls();
    for (int handle = std::numeric_limits<int16_t>::min();
         handle <= std::numeric_limits<int16_t>::max(); ++handle) {
        if (handle < 0 || handle >= os::kGshmSlots) {
            ASSERT_EQ(rm_gshmDelete(static_cast<int16_t>(handle)), 0) << handle;
        }
    }
    EXPECT_TRUE(callTrace().empty());
    EXPECT_EQ(stateNow(), (State{20, 20, true}));
}

// --- Termination

TEST_F(GshmTerminate, DeletesAllObjectsInTheOrderOfTheirHandles)
{
    std::vector<int64_t> ids;
    ids.reserve(5);
    for (int n = 0; n < 5; ++n) {
        ids.push_back(idOf(make().handle));
    }
    rm_gshmDelete(2);
    ids.erase(ids.begin() + 2);
    resetCalls();
    EXPECT_EQ(rm_gshmTerminate(), 0);
    std::vector<int64_t> removed;
    for (const CallRecord& record : callTrace({Call::kShmctl})) {
        EXPECT_EQ(record.args[1], IPC_RMID);
        removed.push_back(record.args[0]);
    }
    EXPECT_EQ(removed, ids);
    EXPECT_EQ(stateNow(), kNothing);
    expectNothingLeft();
}

TEST_F(GshmTerminate, DeletesTheLastSlotToo)
{
    makeAll();
    EXPECT_EQ(rm_gshmTerminate(), 0);
    EXPECT_EQ(stateNow(), kNothing);
    expectNothingLeft();
}

TEST_F(GshmTerminate, WithoutObjectsDoesNothing)
{
    writeFile(kToken, "another server's");
    resetCalls();
    EXPECT_EQ(rm_gshmTerminate(), 0);
    EXPECT_TRUE(callTrace().empty());
    EXPECT_EQ(readFile(kToken), "another server's");
    std::filesystem::remove(kToken);
}

TEST_F(GshmTerminate, CanBeFollowedByObjects)
{
    make();
    rm_gshmTerminate();
    EXPECT_EQ(make().handle, 0);
    EXPECT_EQ(stateNow(), kOne);
}

TEST_F(GshmTerminate, IsPartOfTheEndOfTheProcess)
{
    const ChildResult result = runChild([] {
        make();
        make();
        rm_exit(3);
    });
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.out, "");
    expectNothingLeft();
}

TEST_F(GshmTerminate, ByTheExitHasRunWhenControlIsBackAtTheHost)
{
    inChild([] {
        const Object object = make();
        object.address[0] = 'k';
        EXPECT_EQ(catchExit([] { rm_exit(4); }), 4);
        EXPECT_EQ(stateNow(), kNothing);
        EXPECT_FALSE(tokenExists());
        EXPECT_EQ(object.address[0], 'k');
    });
}

// --- Release of the memory that the names are in

TEST_F(GshmForget, ByFreeallLeavesTheSegmentsAndTheTokenFile)
{
    const Object object = make();
    make();
    const int id = idOf(0);
    const int otherId = idOf(1);
    object.address[0] = 'k';
    rm_freeall();
    EXPECT_EQ(stateNow(), kNothing);
    EXPECT_TRUE(tokenExists());
    EXPECT_FALSE(isMarkedForRemoval(id));
    EXPECT_EQ(object.address[0], 'k');
    shmctl(id, IPC_RMID, nullptr);
    shmctl(otherId, IPC_RMID, nullptr);
    std::filesystem::remove(kToken);
}

TEST_F(GshmForget, ByFreeallLetsTheHostJoinItsObjectsAgainAndDeleteThem)
{
    const Object object = make();
    const int id = idOf(0);
    object.address[5] = 'k';
    rm_freeall();
    const Object again = make();
    EXPECT_EQ(again.handle, 0);
    EXPECT_EQ(idOf(0), id);
    EXPECT_EQ(again.address[5], 'k');
    rm_gshmDelete(0);
    expectNothingLeft();
}

TEST_F(GshmForget, ByTheReleaseOfTagZeroDoesTheSame)
{
    const Object object = make();
    const int id = idOf(0);
    object.address[5] = 'k';
    rm_freeTagMemory(0, 0);
    EXPECT_EQ(stateNow(), kNothing);
    EXPECT_TRUE(tokenExists());
    EXPECT_EQ(make().handle, 0);
    EXPECT_EQ(idOf(0), id);
}

TEST_F(GshmForget, ByTheReleaseOfAnotherTagDoesNot)
{
    const Tag tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    make();
    rm_freeTagMemory(tag, 1);
    EXPECT_EQ(stateNow(), kOne);
    EXPECT_STREQ(slotOf(0).name, "object");
}

TEST_F(GshmForget, MakesDeletionAndTerminationDoNothing)
{
    make();
    const int id = idOf(0);
    rm_freeall();
    resetCalls();
    EXPECT_EQ(rm_gshmDelete(0), 0);
    EXPECT_EQ(rm_gshmTerminate(), 0);
    EXPECT_TRUE(callTrace().empty());
    EXPECT_TRUE(tokenExists());
    shmctl(id, IPC_RMID, nullptr);
    std::filesystem::remove(kToken);
}

TEST_F(GshmForget, ClosesTheStreamOfTheTokenFile)
{
    const std::vector<int> before = openDescriptors();
    make();
    rm_freeall();
    EXPECT_EQ(openDescriptors(), before);
    make();
}
}  // namespace
