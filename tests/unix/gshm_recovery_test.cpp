// A host that jumped out of a shared memory object's fatal error and calls on: what it can still do
// after a creation or a deletion that failed, in which ways it comes to delete too many, and how
// its process ends.
#include "tests/unix/gshm_case.h"

#include <cstdlib>

#include <gmock/gmock.h>

using namespace gshmtest;

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::callTrace;
using rmtest::catchExit;
using rmtest::catchFatal;
using rmtest::ChildResult;
using rmtest::ipcObjects;
using rmtest::kForever;
using rmtest::logLines;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::ScopedFault;
using rmtest::writeFile;
using ::testing::IsEmpty;

// --- Creation that fails

class GshmFailedCreate : public GshmFaultCase
{
  protected:
    static void failToCreate(Call call, int error = ENOMEM)
    {
        ScopedFault fault({.call = call, .error = error});
        EXPECT_EQ(fatalQuietly([] { make("failed"); }), 1);
        EXPECT_EQ(fault.hits(), 1);
    }

    static void expectTooMany(const std::function<void()>& body)
    {
        const Outcome outcome = outcomeOf(body);
        EXPECT_EQ(outcome.jumped, 1);
        EXPECT_EQ(outcome.out, deletedTooMany() + '\n');
    }
};

TEST_F(GshmFailedCreate, AtTheKeyOfAnySlotIsFatal)
{
    for (int slot = 0; slot < os::kGshmSlots; ++slot) {
        SCOPED_TRACE(slot);
        ScopedFault fault({.call = Call::kFtok, .error = EACCES, .skip = slot});
        resetCalls();
        EXPECT_EQ(outcomeOf([] { make(); }).out,
                  failure("rm_gshmCreate", "ftok() failure", EACCES) + '\n');
        EXPECT_EQ(callCount(Call::kFtok), slot + 1);
        EXPECT_EQ(callCount(Call::kShmget), 0);
    }
}

TEST_F(GshmFailedCreate, DoesNotStoreAnAddress)
{
    for (const Call call : {Call::kOpen, Call::kFdopen, Call::kFtok, Call::kShmget, Call::kShmat}) {
        const ScopedFault fault({.call = call, .error = EACCES});
        void* address = this;
        EXPECT_EQ(fatalQuietly([&] { rm_gshmCreate("failed", 10, &address); }), 1);
        EXPECT_EQ(address, this);
    }
}

TEST_F(GshmFailedCreate, WithoutASegmentNeverRemovesTheSegmentMinusOne)
{
    failToCreate(Call::kShmget);
    resetCalls();
    expectTooMany([] { rm_gshmDelete(0); });
    EXPECT_EQ(callCount(Call::kShmctl), 0);
}

// An id from an earlier use of the slot is not a segment of the new object.
TEST_F(GshmFailedCreate, InASlotThatWasUsedBeforeNeverRemovesTheOldSegment)
{
    make();
    make();
    rm_gshmDelete(1);
    failToCreate(Call::kShmget);
    EXPECT_EQ(idOf(1), -1);
    EXPECT_EQ(slotOf(1).address, nullptr);
    resetCalls();
    EXPECT_EQ(rm_gshmDelete(1), 0);
    EXPECT_EQ(callCount(Call::kShmctl), 0);
}

TEST_F(GshmFailedCreate, WithASegmentRemovesItWhenItIsDeleted)
{
    failToCreate(Call::kShmat);
    const int id = idOf(0);
    EXPECT_TRUE(segmentExists(id));
    expectTooMany([] { rm_gshmDelete(0); });
    EXPECT_FALSE(segmentExists(id));
    expectNothingLeft();
}

TEST_F(GshmFailedCreate, IsInUseUntilItIsDeleted)
{
    make();
    failToCreate(Call::kShmat);
    EXPECT_STREQ(slotOf(1).name, "failed");
    EXPECT_EQ(make().handle, 2);
    rm_gshmDelete(1);
    EXPECT_EQ(slotOf(1).name, nullptr);
    EXPECT_EQ(make().handle, 1);
}

TEST_F(GshmFailedCreate, DoesNotTakeTheOthersAlong)
{
    const Object keeper = make();
    failToCreate(Call::kShmget);
    keeper.address[0] = 'k';
    EXPECT_EQ(keeper.address[0], 'k');
    EXPECT_EQ(stateNow(), (State{2, 1, true}));
    EXPECT_FALSE(isMarkedForRemoval(idOf(0)));
}

TEST_F(GshmFailedCreate, WithoutAStreamUnlinksNothing)
{
    writeFile(kToken, "another server's");
    failToCreate(Call::kOpen, EACCES);
    EXPECT_EQ(rm_gshmDelete(0), 0);
    EXPECT_EQ(rm_gshmTerminate(), 0);
    EXPECT_EQ(readFile(kToken), "another server's");
    std::filesystem::remove(kToken);
}

TEST_F(GshmFailedCreate, AtTheKeysGivesUpTheTokenFileWhenTheObjectsAreTerminated)
{
    failToCreate(Call::kFtok);
    EXPECT_TRUE(tokenExists());
    EXPECT_EQ(rm_gshmTerminate(), 0);
    EXPECT_FALSE(tokenExists());
    EXPECT_EQ(stateNow(), kNothing);
}

TEST_F(GshmFailedCreate, AtTheKeysGivesUpTheTokenFileWhenAHandleIsDeleted)
{
    failToCreate(Call::kFtok);
    EXPECT_EQ(rm_gshmDelete(0), 0);
    EXPECT_FALSE(tokenExists());
    EXPECT_EQ(stateNow(), kNothing);
}

TEST_F(GshmFailedCreate, AtTheKeysOfAnotherPrefixLeavesNoTokenFileWhenTheNextOneSucceeds)
{
    rm_tokenName("one");
    failToCreate(Call::kFtok);
    EXPECT_TRUE(std::filesystem::exists("one.ZNT.RM.MEM"));
    rm_tokenName("two");
    make();
    EXPECT_FALSE(std::filesystem::exists("one.ZNT.RM.MEM"));
    rm_gshmDelete(0);
    EXPECT_FALSE(std::filesystem::exists("two.ZNT.RM.MEM"));
}

// The file that other processes may be meeting by is not replaced by a second attempt.
TEST_F(GshmFailedCreate, KeepsTheIdentityOfTheTokenFileForTheNextOne)
{
    pinToken();  // so that a file made anew cannot have the same identity
    const ino_t before = inodeOf(kToken);
    failToCreate(Call::kShmget);
    EXPECT_EQ(make().handle, 0);
    EXPECT_EQ(inodeOf(kToken), before);
}

TEST_F(GshmFailedCreate, FindsItsOwnSegmentAgain)
{
    failToCreate(Call::kShmat);
    const int id = idOf(0);
    EXPECT_EQ(make().handle, 0);
    EXPECT_EQ(idOf(0), id);
    EXPECT_EQ(rm_gshmDelete(0), 0);
}

// Nobody knows whose segment it is: it may be that of a living process.
TEST_F(GshmFailedCreate, LeavesItsSegmentToTheNextObjectOfASlotThatWasGivenUp)
{
    make();
    failToCreate(Call::kShmat);
    const int id = idOf(1);
    rm_gshmDelete(0);
    EXPECT_EQ(make().handle, 0);
    EXPECT_EQ(slotOf(1).name, nullptr);
    EXPECT_TRUE(segmentExists(id));
    EXPECT_EQ(make().handle, 1);
    EXPECT_EQ(idOf(1), id);
}

TEST_F(GshmFailedCreate, GivesItsNameBackWhenTheTableBeginsAnew)
{
    make();
    rm_gshmDelete(0);
    const uint32_t before = rm_memused();
    for (int n = 0; n < 5; ++n) {
        const std::string name(20'000, 'n');
        const ScopedFault fault({.call = Call::kShmget, .error = ENOSPC});
        EXPECT_EQ(fatalQuietly([&] { make(name.c_str()); }), 1);
    }
    make();
    rm_gshmDelete(0);
    EXPECT_EQ(rm_memused(), before);
}

// The count is 0 then, and there is an object all the same.
class GshmCountedOut : public GshmFailedCreate
{
  protected:
    void SetUp() override
    {
        GshmFailedCreate::SetUp();
        keeper_ = make("keeper");
        keeper_.address[0] = 'k';
        id_ = idOf(0);
        failToCreate(Call::kShmat);
        EXPECT_EQ(rm_gshmDelete(1), 0);
    }

    Object keeper_;
    int id_ = -1;
};

TEST_F(GshmCountedOut, KeepsTheTokenFile)
{
    EXPECT_EQ(stateNow(), (State{1, 0, true}));
    EXPECT_TRUE(tokenExists());
}

TEST_F(GshmCountedOut, KeepsTheObjectWhenThereIsANewOne)
{
    resetCalls();
    EXPECT_EQ(make().handle, 1);
    EXPECT_EQ(stateNow(), kTwo);
    EXPECT_STREQ(slotOf(0).name, "keeper");
    EXPECT_EQ(idOf(0), id_);
    EXPECT_EQ(keeper_.address[0], 'k');
    EXPECT_EQ(os::checkGshm(), 0U);
}

TEST_F(GshmCountedOut, KeepsTheKeysWhenThereIsANewOne)
{
    resetCalls();
    make();
    EXPECT_EQ(callCount(Call::kOpen), 0);
    EXPECT_EQ(callCount(Call::kFtok), 0);
    EXPECT_EQ(slotOf(1).key, ftok(kToken, 2));
}

TEST_F(GshmCountedOut, RemovesTheObjectInTheEnd)
{
    expectTooMany([] { rm_gshmTerminate(); });
    EXPECT_TRUE(isMarkedForRemoval(id_));
    expectNothingLeft();
}

// --- Every way to delete too many

class GshmTooMany : public GshmFailedCreate
{
};

TEST_F(GshmTooMany, IsFatalWithErrorZeroAndLogged)
{
    ScopedFault fault({.call = Call::kShmget, .error = ENOSPC});
    const ChildResult result = runChild([] {
        EXPECT_EQ(catchFatal([] { make(); }), 1);
        errno = EBUSY;
        rm_gshmDelete(0);
    });
    EXPECT_EQ(result.out, failure("rm_gshmCreate", "shmget() failure", ENOSPC) + '\n' +
                              "**** rm_gshmDelete() Deleted too many global shared memory "
                              "objects, errno=0 (Success)\n");
    EXPECT_EQ(logLines(result.err).back(), "Exiting to operating system");
    expectNothingLeft();
}

// As the first failure of the process it reaches the log too.
TEST_F(GshmTooMany, ReachesTheLogWhenNothingHasFailedBefore)
{
    make();
    os::nGshm = 0;
    const Outcome outcome = outcomeOf([] {
        errno = EBUSY;
        rm_gshmDelete(0);
    });
    expectFirstFailure(outcome, deletedTooMany());
    EXPECT_EQ(stateNow(), (State{0, -1, false}));
    expectNothingLeft();
}

TEST_F(GshmTooMany, ComesFromDeletingTheOnlyCreationWhichFailed)
{
    for (const Call call : {Call::kShmget, Call::kShmat}) {
        failToCreate(call);
        expectTooMany([] { rm_gshmDelete(0); });
        EXPECT_EQ(stateNow(), (State{0, -1, false}));
        expectNothingLeft();
    }
}

TEST_F(GshmTooMany, ComesFromTerminatingAfterTheOnlyCreationFailed)
{
    failToCreate(Call::kShmat);
    expectTooMany([] { rm_gshmTerminate(); });
    EXPECT_EQ(stateNow(), (State{0, -1, false}));
    expectNothingLeft();
}

TEST_F(GshmTooMany, ComesFromDeletingAllOthersAndThenTheOneThatFailed)
{
    make();
    make();
    failToCreate(Call::kShmat);
    EXPECT_EQ(rm_gshmDelete(0), 0);
    EXPECT_EQ(rm_gshmDelete(1), 0);
    expectTooMany([] { rm_gshmDelete(2); });
    expectNothingLeft();
}

TEST_F(GshmTooMany, ComesFromDeletingTheOneThatFailedAndThenAllOthers)
{
    make();
    failToCreate(Call::kShmat);
    make();
    EXPECT_EQ(rm_gshmDelete(1), 0);
    EXPECT_EQ(rm_gshmDelete(2), 0);
    expectTooMany([] { rm_gshmDelete(0); });
    expectNothingLeft();
}

TEST_F(GshmTooMany, ComesFromTerminatingWithAFailedOneInTheMiddle)
{
    make();
    failToCreate(Call::kShmat);
    make();
    expectTooMany([] { rm_gshmTerminate(); });
    EXPECT_EQ(stateNow(), (State{0, -1, false}));
    expectNothingLeft();
}

// The count stays where it is until there is a new object.
TEST_F(GshmTooMany, ComesFromEveryFurtherDeletionWhateverItsHandle)
{
    failToCreate(Call::kShmget);
    expectTooMany([] { rm_gshmDelete(0); });
    for (const int16_t handle : std::array<int16_t, 4>{0, 7, -1, 20}) {
        expectTooMany([=] { rm_gshmDelete(handle); });
    }
    EXPECT_EQ(os::nGshm, -1);
}

TEST_F(GshmTooMany, DoesNotComeFromATerminationThatFindsNothing)
{
    failToCreate(Call::kShmget);
    expectTooMany([] { rm_gshmDelete(0); });
    EXPECT_EQ(rm_gshmTerminate(), 0);
}

TEST_F(GshmTooMany, DoesNotComeFromACreationThatFailedBeforeItHadASlot)
{
    for (const Call call : {Call::kOpen, Call::kFtok}) {
        failToCreate(call);
        EXPECT_EQ(rm_gshmDelete(0), 0);
        EXPECT_EQ(stateNow(), kNothing);
    }
}

TEST_F(GshmTooMany, IsOverWithTheNextObject)
{
    failToCreate(Call::kShmget);
    expectTooMany([] { rm_gshmDelete(0); });
    EXPECT_EQ(make().handle, 0);
    EXPECT_EQ(stateNow(), kOne);
    EXPECT_EQ(os::checkGshm(), 0U);
    EXPECT_EQ(rm_gshmDelete(0), 0);
    EXPECT_EQ(stateNow(), kNothing);
}

TEST_F(GshmTooMany, InTheExitDoesNotKeepTheProcessFromItsTarget)
{
    const ChildResult result = runChild([] {
        const ScopedFault fault({.call = Call::kShmat, .error = ENOMEM});
        EXPECT_EQ(catchFatal([] { make(); }), 1);
        EXPECT_EQ(catchFatal([] { rm_exit(0); }), 1);
        EXPECT_EQ(catchExit([] { rm_exit(6); }), 6);
    });
    EXPECT_EQ(result.status, 0);
    expectNothingLeft();
}

// --- A host that jumped out and calls on

struct Failing {
    const char* name;
    Call call;
    int objects;  // before it
};

void PrintTo(const Failing& failing, std::ostream* out)
{
    *out << failing.name;
}

class GshmAfterFailedCreate : public GshmFailedCreate, public ::testing::WithParamInterface<Failing>
{
  protected:
    void SetUp() override
    {
        GshmFailedCreate::SetUp();
        makeSome(GetParam().objects);
        failToCreate(GetParam().call);
    }
};

TEST_P(GshmAfterFailedCreate, TheNextOneSucceedsWithMemoryOfItsOwn)
{
    const Object next = make();
    next.address[0] = 'n';
    const Object another = make();
    another.address[0] = 'a';
    EXPECT_EQ(next.address[0], 'n');
    EXPECT_NE(next.handle, another.handle);
    EXPECT_NE(idOf(next.handle), idOf(another.handle));
    EXPECT_EQ(os::nGshm, GetParam().objects + 2);
}

TEST_P(GshmAfterFailedCreate, EverythingCanBeTerminatedAndBegunAnew)
{
    giveBack();
    EXPECT_EQ(make().handle, 0);
    EXPECT_EQ(stateNow(), kOne);
    EXPECT_EQ(os::checkGshm(), 0U);
    EXPECT_EQ(rm_gshmTerminate(), 0);
    EXPECT_EQ(stateNow(), kNothing);
    expectNothingLeft();
}

TEST_P(GshmAfterFailedCreate, TheProcessEndsInOrder)
{
    const ChildResult result = runChild([] { rm_exit(0); });
    expectEndedAtOnce(result);
    EXPECT_THAT(ipcObjects(), IsEmpty());
    os::forgetGshm();
}

TEST_P(GshmAfterFailedCreate, AnyNumberOfFailuresLeaksNoMemory)
{
    giveBack();
    const uint32_t before = rm_memused();
    for (int n = 0; n < 10; ++n) {
        makeSome(GetParam().objects);
        failToCreate(GetParam().call);
        giveBack();
    }
    EXPECT_EQ(rm_memused(), before);
    expectNothingLeft();
}

TEST_P(GshmAfterFailedCreate, AReleaseOfTagZeroForgetsIt)
{
    rm_freeMemory(rm_getMemory(8, 0), 0);
    std::vector<int> ids;
    ids.reserve(os::rmGshm.size());
    for (const os::GshmSlot& slot : os::rmGshm) {
        ids.push_back(slot.name != nullptr ? slot.id : -1);
    }
    rm_freeTagMemory(0, 0);
    EXPECT_EQ(stateNow(), kNothing);
    EXPECT_EQ(os::checkGshm(), 0U);
    for (const int id : ids) {
        if (id != -1) {
            EXPECT_TRUE(segmentExists(id));
        }
    }
    takeAwayWhatIsLeft();
}

INSTANTIATE_TEST_SUITE_P(At, GshmAfterFailedCreate,
                         ::testing::Values(Failing{"Open", Call::kOpen, 0},
                                           Failing{"Ftok", Call::kFtok, 0},
                                           Failing{"Shmget", Call::kShmget, 0},
                                           Failing{"Shmat", Call::kShmat, 0},
                                           Failing{"ShmgetBesideAnother", Call::kShmget, 1},
                                           Failing{"ShmatBesideAnother", Call::kShmat, 1},
                                           Failing{"ShmatBesideNineteen", Call::kShmat, 17}),
                         [](const ::testing::TestParamInfo<Failing>& failing) {
                             return std::string(failing.param.name);
                         });

// --- Deletion that fails

class GshmFailedDelete : public GshmFaultCase
{
  protected:
    void SetUp() override
    {
        GshmFaultCase::SetUp();
        pinToken();
    }

    void TearDown() override
    {
        giveBack();
        takeAwayWhatIsLeft();
        GshmFaultCase::TearDown();
    }

    static void failToDelete(int16_t handle, int error = EPERM)
    {
        ScopedFault fault({.call = Call::kShmctl, .error = error, .when = isRemoval});
        const Outcome outcome = outcomeOf([=] { rm_gshmDelete(handle); });
        EXPECT_EQ(outcome.jumped, 1);
        EXPECT_EQ(outcome.out, failure("rm_gshmDelete", kShmctl, error) + '\n');
        EXPECT_EQ(fault.hits(), 1);
    }
};

TEST_F(GshmFailedDelete, FreesTheSlotAndItsName)
{
    make();
    const uint32_t before = rm_memused();
    make(std::string(20'000, 'n').c_str());
    failToDelete(1);
    EXPECT_EQ(slotOf(1).name, nullptr);
    EXPECT_EQ(rm_memused(), before);
}

TEST_F(GshmFailedDelete, IsNotRepeatedByTheNextOne)
{
    make();
    make();
    failToDelete(1);
    resetCalls();
    EXPECT_EQ(rm_gshmDelete(1), 0);
    EXPECT_TRUE(callTrace().empty());
}

TEST_F(GshmFailedDelete, LeavesASegmentThatTheNextObjectJoins)
{
    make();
    const Object object = make();
    const int id = idOf(1);
    object.address[0] = 'o';
    failToDelete(1);
    const Object again = make();
    EXPECT_EQ(again.handle, 1);
    EXPECT_EQ(idOf(1), id);
    EXPECT_EQ(again.address[0], 'o');
}

TEST_F(GshmFailedDelete, OfTheLastObjectGivesUpTheTokenFile)
{
    make();
    failToDelete(0);
    EXPECT_FALSE(tokenExists());
    EXPECT_EQ(os::gfpRMGshmTokenFile, nullptr);
}

TEST_F(GshmFailedDelete, OfTheLastObjectIsFollowedByANewTable)
{
    make();
    failToDelete(0);
    EXPECT_EQ(make().handle, 0);
    EXPECT_EQ(stateNow(), kOne);
    EXPECT_EQ(os::checkGshm(), 0U);
    EXPECT_EQ(slotOf(0).key, ftok(kToken, 1));
}

// The end of the process does not come back to a termination that has begun.
TEST_F(GshmFailedDelete, InATerminationDoesNotKeepTheOthersFromBeingRemoved)
{
    makeSome(3);
    const int middle = idOf(1);
    ScopedFault fault({.call = Call::kShmctl, .error = EPERM, .skip = 1, .when = isRemoval});
    const Outcome outcome = outcomeOf([] { rm_gshmTerminate(); });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_EQ(outcome.out, failure("rm_gshmDelete", kShmctl, EPERM) + '\n');
    EXPECT_EQ(stateNow(), (State{0, 1, false}));
    EXPECT_THAT(ipcObjects(), ::testing::SizeIs(1));
    EXPECT_FALSE(isMarkedForRemoval(middle));
    EXPECT_EQ(rm_gshmTerminate(), 0);
}

TEST_F(GshmFailedDelete, InATerminationIsToldWithItsOwnErrorWhenOthersFailToo)
{
    makeSome(3);
    const ScopedFault first({.call = Call::kShmctl, .error = EPERM, .when = isRemoval});
    const ScopedFault second({.call = Call::kShmctl, .error = EACCES, .when = isRemoval});
    const Outcome outcome = outcomeOf([] { rm_gshmTerminate(); });
    EXPECT_EQ(outcome.out, failure("rm_gshmDelete", kShmctl, EPERM) + '\n');
}

// The removal is begun once: an end that failed at it does not come back to it.
TEST_F(GshmFailedDelete, InTheExitIsNotTriedAgain)
{
    const ChildResult result = runChild([] {
        makeSome(2);
        ScopedFault fault(
            {.call = Call::kShmctl, .error = EPERM, .times = kForever, .when = isRemoval});
        EXPECT_EQ(catchFatal([] { rm_exit(0); }), 1);
        EXPECT_EQ(fault.hits(), 2);
        EXPECT_EQ(catchExit([] { rm_exit(3); }), 3);
        EXPECT_EQ(fault.hits(), 2);
    });
    EXPECT_EQ(result.status, 0);
}

// --- No memory

class GshmNoMemory : public GshmFaultCase
{
  protected:
    void SetUp() override
    {
        setenv("SEG_ALLOC", "1", 1);  // every block is a request to the platform
        GshmFaultCase::SetUp();
        rm_freeMemory(rm_getMemory(8, 0), 0);
    }

    static void failToCreate(int times = 1)
    {
        const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = times});
        const Outcome outcome = outcomeOf([] { make(); });
        EXPECT_EQ(outcome.jumped, 1);
        EXPECT_EQ(outcome.out, "");
        ASSERT_FALSE(outcome.log.empty());
        EXPECT_EQ(outcome.log.front(), "Out of memory!");
    }
};

TEST_F(GshmNoMemory, ForTheNameIsFatalBeforeThereIsASegment)
{
    resetCalls();
    failToCreate();
    EXPECT_EQ(callCount(Call::kShmget), 0);
    EXPECT_EQ(stateNow(), (State{0, 0, true}));
    EXPECT_EQ(rm_gshmTerminate(), 0);
    expectNothingLeft();
}

TEST_F(GshmNoMemory, ForTheNameLeavesTheSlotFree)
{
    make();
    failToCreate();
    EXPECT_EQ(stateNow(), kOne);
    EXPECT_EQ(os::checkGshm(), 0U);
    EXPECT_EQ(make().handle, 1);
}

TEST_F(GshmNoMemory, EverAgainDoesNotKeepTheProcessFromEnding)
{
    const ChildResult result = runChild([] {
        make();
        const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
        make();
    });
    expectEndedAtOnce(result);
    EXPECT_EQ(logLines(result.err).back(), "Exiting to operating system");
    expectNothingLeft();
}

// --- Failures that nobody needs to know of

class GshmHarmlessFault : public GshmFaultCase, public ::testing::WithParamInterface<int>
{
};

TEST_P(GshmHarmlessFault, OfClosingTheTokenFileIsIgnored)
{
    for (const int error : {EBADF, EDQUOT, EINTR, EIO, ENOSPC}) {
        make();
        FILE* const stream = os::gfpRMGshmTokenFile;
        {
            ScopedFault fault({.call = Call::kFclose, .error = error, .times = GetParam()});
            EXPECT_EQ(rm_gshmDelete(0), 0);
            EXPECT_EQ(fault.hits(), 1);
        }
        if (error == EBADF) {
            std::fclose(stream);  // this failure leaves it open
        }
        EXPECT_EQ(stateNow(), kNothing);
        expectNothingLeft();
    }
}

TEST_P(GshmHarmlessFault, OfRemovingTheTokenFileIsIgnored)
{
    for (const int error : {EACCES, EBUSY, EIO, EISDIR, ENOENT, ENOTDIR, EPERM, EROFS}) {
        make();
        ScopedFault fault({.call = Call::kUnlink, .error = error, .times = GetParam()});
        EXPECT_EQ(rm_gshmDelete(0), 0);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(stateNow(), kNothing);
        EXPECT_THAT(ipcObjects(), IsEmpty());
    }
    EXPECT_TRUE(std::filesystem::remove(kToken));
}

INSTANTIATE_TEST_SUITE_P(For, GshmHarmlessFault, ::testing::Values(1, kForever),
                         [](const ::testing::TestParamInfo<int>& times) {
                             return times.param == 1 ? "Once" : "Ever";
                         });
}  // namespace
