// The transfers and questions that the library keeps for itself: a read that tells the end of the
// file from a failure, and a sync that tells whether the disk took the bytes.
#include "tests/file/fault_case.h"

using namespace filetest;

namespace
{

class ReadNext : public FileTest
{
};

class ReadNextFails : public FileTest
{
};

class BringToDisk : public FileTest
{
};

class BringToDiskFails : public FileTest
{
};

constexpr int16_t kUnset = 77;
constexpr int16_t kBadHandles[] = {-1, 1, 32, INT16_MAX, INT16_MIN};

// What a read of `length` bytes gives.
struct Got {
    std::string bytes;
    int16_t error;

    bool operator==(const Got&) const = default;
};

void PrintTo(const Got& got, std::ostream* out)
{
    *out << '"' << got.bytes << "\", error " << got.error;
}

Got readNext(int16_t handle, uint32_t length)
{
    Got got = {std::string(length, '\0'), kUnset};
    got.bytes.resize(file::readNext(handle, got.bytes.data(), length, &got.error));
    return got;
}

std::string readFailure(int error)
{
    return "rm_fileRead: " + errnoText(error) + ": unable to read, file=f";
}

// --- Reading

TEST_F(ReadNext, GivesTheBytesAtThePositionAndNoError)
{
    const int16_t handle = openWith("f", kDigits);
    EXPECT_EQ(readNext(handle, 4), (Got{"0123", 0}));
    EXPECT_EQ(readNext(handle, 4), (Got{"4567", 0}));
    EXPECT_EQ(rm_filePosition(handle), 8U);
    rm_fileClose(handle);
}

TEST_F(ReadNext, GivesWhatThereIsBeforeTheEnd)
{
    const int16_t handle = openWith("f", kDigits);
    EXPECT_EQ(readNext(handle, 100), (Got{std::string(kDigits), 0}));
    rm_fileClose(handle);
}

TEST_F(ReadNext, TheEndIsNoError)
{
    const int16_t handle = openWith("f", kDigits);
    readNext(handle, 10);
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(readNext(handle, 10), (Got{"", 0})); }), IsEmpty());
    EXPECT_EQ(readNext(handle, 10), (Got{"", 0}));
    rm_fileClose(handle);
}

TEST_F(ReadNext, AShortReadIsNoError)
{
    const int16_t handle = openWith("f", kDigits);
    const ScopedFault fault({.call = Call::kRead, .result = 3});
    EXPECT_EQ(readNext(handle, 10), (Got{"012", 0}));
    EXPECT_EQ(readNext(handle, 10), (Got{"3456789", 0}));
    rm_fileClose(handle);
}

TEST_F(ReadNext, BringsAParkedFileBackToItsPlace)
{
    const int16_t handle = openWith("f", kDigits);
    readNext(handle, 4);
    park(handle);
    EXPECT_EQ(readNext(handle, 4), (Got{"4567", 0}));
    EXPECT_EQ(counts(), (Counts{1, 0, 1, 1}));
    rm_fileClose(handle);
}

TEST_F(ReadNext, CountsAsOneOperationAndAsUse)
{
    const int16_t handle = openWith("f", kDigits);
    entryOf(handle)->recentlyUsed = 0;
    readNext(handle, 4);
    EXPECT_EQ(file::fileOps, 1);
    EXPECT_EQ(entryOf(handle)->recentlyUsed, 1);
    rm_fileClose(handle);
}

TEST_F(ReadNextFails, WithTheErrorAndItsLineAndDoesNotMove)
{
    const int16_t handle = openWith("f", kDigits);
    readNext(handle, 4);
    forEach("read", kReadErrors, [&](int error, int times) {
        if (error == EINTR && times == 1) {
            return;  // is repeated
        }
        Got got = {"", kUnset};
        const Outcome outcome = under({.call = Call::kRead, .error = error, .times = times},
                                      [&] { got = readNext(handle, 4); });
        EXPECT_EQ(got, (Got{"", static_cast<int16_t>(error)}));
        EXPECT_THAT(outcome.lines, ElementsAre(readFailure(error)));
        EXPECT_FALSE(outcome.jumped);
        EXPECT_EQ(rm_filePosition(handle), 4U);
    });
    EXPECT_EQ(readNext(handle, 4), (Got{"4567", 0}));
    rm_fileClose(handle);
}

TEST_F(ReadNextFails, NotWhenItIsInterruptedOnce)
{
    const int16_t handle = openWith("f", kDigits);
    const ScopedFault fault({.call = Call::kRead, .error = EINTR});
    EXPECT_EQ(readNext(handle, 4), (Got{"0123", 0}));
    EXPECT_EQ(fault.hits(), 1);
    rm_fileClose(handle);
}

TEST_F(ReadNextFails, WithTheErrorOfTheSeekBeforeIt)
{
    const int16_t handle = openWith("f", kDigits);
    Got got = {"", kUnset};
    const Outcome outcome =
        under({.call = Call::kLseek, .error = EIO}, [&] { got = readNext(handle, 4); });
    EXPECT_EQ(got, (Got{"", EIO}));
    EXPECT_THAT(outcome.lines, ElementsAre(readFailure(EIO)));
    rm_fileClose(handle);
}

TEST_F(ReadNextFails, OnADirectory)
{
    std::filesystem::create_directory("f");
    const int16_t handle = rm_fileOpen("f", RM_O_RDONLY, 0, 0, 0);
    ASSERT_NE(handle, RM_NONE);
    EXPECT_THAT(linesOf([&] {
                    EXPECT_EQ(readNext(handle, 4), (Got{"", EISDIR}));
                }),
                ElementsAre(readFailure(EISDIR)));
    rm_fileClose(handle);
}

TEST_F(ReadNextFails, OnAHandleThatIsNone)
{
    const int16_t handle = openWith("f", kDigits);
    for (const int16_t bad : kBadHandles) {
        EXPECT_THAT(linesOf([&] {
                        EXPECT_EQ(readNext(bad, 4), (Got{"", EBADF}));
                    }),
                    ElementsAre("rm_fileRead: invalid handle " + std::to_string(bad)));
    }
    rm_fileClose(handle);
}

TEST_F(ReadNextFails, OnAFileThatIsGone)
{
    const int16_t handle = parkedWith("f", kDigits);
    std::filesystem::remove("f");
    EXPECT_THAT(linesOf([&] {
                    EXPECT_EQ(readNext(handle, 4), (Got{"", EBADF}));
                }),
                ElementsAre("WARNING: failed file reopen in rm_fileRead(0)", readFailure(EBADF)));
    EXPECT_EQ(file::ftab, nullptr);
}

TEST_F(ReadNextFails, FatallyInFatalMode)
{
    const int16_t handle = openWith("f", kDigits, FILE_FATAL);
    char buffer[4];
    int16_t error = 0;
    const Outcome outcome = under({.call = Call::kRead, .error = EIO},
                                  [&] { file::readNext(handle, buffer, 4, &error); });
    EXPECT_TRUE(outcome.jumped);
    EXPECT_THAT(outcome.lines, ElementsAre(readFailure(EIO)));
    rm_fileClose(handle);
}

// --- Bringing to disk

TEST_F(BringToDisk, SyncsTheDescriptor)
{
    const int16_t handle = openWith("f", kDigits);
    resetCalls();
    EXPECT_EQ(file::bringToDisk(handle), 0);
    const std::vector<CallRecord> calls = callTrace({Call::kFsync});
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].args[0], entryOf(handle)->fd);
    rm_fileClose(handle);
}

TEST_F(BringToDisk, SyncsOutsideOfTheLock)
{
    const int16_t handle = openWith("f", kDigits);
    const Spy spy(Call::kFsync, [](const CallRecord&) { EXPECT_EQ(fileSemValue(), 1); });
    EXPECT_EQ(file::bringToDisk(handle), 0);
    EXPECT_EQ(spy.seen(), 1);
    rm_fileClose(handle);
}

TEST_F(BringToDisk, HoldsTheFileMeanwhile)
{
    const int16_t handle = openWith("f", kDigits);
    entryOf(handle)->recentlyUsed = 0;
    const Spy spy(Call::kFsync,
                  [handle](const CallRecord&) { EXPECT_EQ(entryOf(handle)->busyCount, 1); });
    EXPECT_EQ(file::bringToDisk(handle), 0);
    EXPECT_EQ(spy.seen(), 1);
    EXPECT_EQ(entryOf(handle)->busyCount, 0);
    EXPECT_EQ(entryOf(handle)->recentlyUsed, 1);
    rm_fileClose(handle);
}

TEST_F(BringToDisk, WithoutFileCommitSyncsNothing)
{
    const int16_t handle = openWith("f", kDigits);
    fileCommit = 0;
    resetCalls();
    EXPECT_EQ(file::bringToDisk(handle), 0);
    EXPECT_EQ(callCount(Call::kFsync), 0);
    rm_fileClose(handle);
}

TEST_F(BringToDisk, BringsAParkedFileBackAndSyncsIt)
{
    const int16_t handle = parkedWith("f", kDigits);
    resetCalls();
    EXPECT_EQ(file::bringToDisk(handle), 0);
    EXPECT_EQ(counts(), (Counts{1, 0, 1, 1}));
    EXPECT_EQ(callCount(Call::kFsync), 1);
    rm_fileClose(handle);
}

TEST_F(BringToDisk, ParksAnotherFileForAParkedOneAtTheLimit)
{
    const int16_t handle = openWith("f", kDigits);
    const int16_t other = openWith("g", kDigits);
    park(handle);
    fileHandleLimit = 1;
    EXPECT_EQ(file::bringToDisk(handle), 0);
    EXPECT_EQ(entryOf(handle)->state, file::kSlotOpen);
    EXPECT_EQ(entryOf(other)->state, file::kSlotParked);
    rm_fileClose(handle);
    rm_fileClose(other);
}

TEST_F(BringToDisk, RepeatsAnInterruptedSync)
{
    const int16_t handle = openWith("f", kDigits);
    const ScopedFault fault({.call = Call::kFsync, .error = EINTR, .times = 5});
    EXPECT_EQ(file::bringToDisk(handle), 0);
    EXPECT_EQ(fault.hits(), 5);
    EXPECT_EQ(callCount(Call::kFsync), 6);
    rm_fileClose(handle);
}

TEST_F(BringToDisk, OfADeviceThatHasNothingToSyncIsFine)
{
    const int16_t handle = rm_fileOpen("/dev/null", RM_O_WRONLY, 0, 0, 0);
    ASSERT_NE(handle, RM_NONE);
    EXPECT_EQ(file::bringToDisk(handle), 0);
    EXPECT_EQ(callTrace({Call::kFsync}).at(0).error, EINVAL);
    const ScopedFault fault({.call = Call::kFsync, .error = ENOTSUP});
    EXPECT_EQ(file::bringToDisk(handle), 0);
    rm_fileClose(handle);
}

TEST_F(BringToDiskFails, WithTheErrorOfTheDiskAndWithoutALine)
{
    const int16_t handle = openWith("f", kDigits);
    for (const int error : {EIO, ENOSPC, EDQUOT, EBADF}) {
        resetCalls();
        EXPECT_THAT(linesOf([&] {
                        const ScopedFault fault({.call = Call::kFsync, .error = error});
                        EXPECT_EQ(file::bringToDisk(handle), error);
                    }),
                    IsEmpty());
        EXPECT_EQ(callCount(Call::kFsync), 1) << error;
    }
    EXPECT_EQ(file::bringToDisk(handle), 0);
    rm_fileClose(handle);
}

TEST_F(BringToDiskFails, AfterInterruptionsWithTheErrorThatFollowsThem)
{
    const int16_t handle = openWith("f", kDigits);
    const ScopedFault interrupted({.call = Call::kFsync, .error = EINTR, .times = 2});
    const ScopedFault failed({.call = Call::kFsync, .error = EIO});
    EXPECT_EQ(file::bringToDisk(handle), EIO);
    rm_fileClose(handle);
}

TEST_F(BringToDiskFails, WhenItIsInterruptedForEver)
{
    const int16_t handle = openWith("f", kDigits);
    const ScopedFault fault({.call = Call::kFsync, .error = EINTR, .times = kForever});
    EXPECT_EQ(file::bringToDisk(handle), EINTR);
    EXPECT_EQ(fault.hits(), 6);
    rm_fileClose(handle);
}

TEST_F(BringToDiskFails, OnAHandleThatIsNone)
{
    EXPECT_THAT(linesOf([] { EXPECT_EQ(file::bringToDisk(0), EBADF); }),
                ElementsAre("rm_fileSync: invalid handle 0"));
    const int16_t handle = openWith("f", kDigits);
    for (const int16_t bad : kBadHandles) {
        EXPECT_THAT(linesOf([&] { EXPECT_EQ(file::bringToDisk(bad), EBADF); }),
                    ElementsAre("rm_fileSync: invalid handle " + std::to_string(bad)));
    }
    rm_fileClose(handle);
}

TEST_F(BringToDiskFails, OnAFileThatIsGone)
{
    const int16_t handle = parkedWith("f", kDigits);
    std::filesystem::remove("f");
    resetCalls();
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(file::bringToDisk(handle), EBADF); }),
                ElementsAre("WARNING: failed file reopen in rm_fileSync(0)"));
    EXPECT_EQ(callCount(Call::kFsync), 0);
    EXPECT_EQ(file::ftab, nullptr);
}

TEST_F(BringToDiskFails, FatallyWhenTheLockIsNotFree)
{
    const int16_t handle = openWith("f", kDigits);
    const Outcome outcome =
        under(timeout(fileSem), [handle] { static_cast<void>(file::bringToDisk(handle)); });
    EXPECT_TRUE(outcome.jumped);
    EXPECT_EQ(outcome.lines.back(), "    Specific problem: fileSem timeout in rm_fileSync");
    rm_fileClose(handle);
}

}  // namespace
