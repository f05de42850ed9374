// Start-up and the state of the disk: what they leave as it was.
#include "startup_case.h"

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::kProfile;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using rmtest::writeFile;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class StartupAgain : public rmtest::StartupCase
{
};

class StartupValues : public rmtest::StartupCase
{
};

class DiskState : public rmtest::StartupCase
{
};

// --- Another start

TEST_F(StartupAgain, LeavesTheLimitOfATagThatIsThere)
{
    rm_init(5000, 32, 0.0);
    rm_freeMemory(rm_getMemory(1, 1), 1);
    rm_init(9000, 32, 0.0);
    EXPECT_EQ(rm_memoryAvail(1), 5000);
}

TEST_F(StartupAgain, ReadsNoProfileThatHasComeInTheMeantime)
{
    rm_init(RM_NO_LIMIT, 32, 0.0);
    writeFile(kProfile, "[server]\nFileCommit=0\n");
    for (int i = 0; i < 3; ++i) {
        resetCalls();
        rm_init(RM_NO_LIMIT, 32, 0.0);
        EXPECT_EQ(callCount(Call::kOpen), 0);
    }
    EXPECT_EQ(fileCommit, 1);
}

TEST_F(StartupAgain, WithTheLocksThereStillReadsAProfileThatNobodyHasRead)
{
    rm_init(RM_NO_LIMIT, 32, 0.0);
    fileCommit = -1;
    writeFile(kProfile, "[server]\nFileCommit=0\n");
    resetCalls();
    rm_init(RM_NO_LIMIT, 32, 0.0);
    EXPECT_EQ(fileCommit, 0);
    EXPECT_EQ(callCount(Call::kSemget), 0);
}

// --- The values

// Nobody may see a limit of the start before: not even the reading of the profile.
TEST_F(StartupValues, AreThereWhenTheLocksAreMadeAndTheProfileIsRead)
{
    writeFile(kProfile, "[server]\nFileCommit=0\n");
    std::vector<bool> seen;
    const auto look = [&seen](const CallRecord&) {
        seen.push_back(rmemavail == 1234 && fileHandleLimit == 7 && rminfree == 1.5);
        return false;
    };
    const ScopedFault sets({.call = Call::kSemget, .when = look});
    const ScopedFault files({.call = Call::kOpen, .when = look});
    rm_init(1234, 7, 1.5);
    EXPECT_THAT(seen, ElementsAre(true, true, true)) << "the token, the set, the profile";
}

TEST_F(StartupValues, OfTheSyncsComesAfterTheProfileWasRead)
{
    // While the profile is read, nobody has said yet.
    writeFile(kProfile, "[server]\nFileCommit=0\n");
    std::vector<int16_t> seen;
    const ScopedFault files({.call = Call::kOpen, .when = [&seen](const CallRecord& call) {
                                 if (call.path() == kProfile) {
                                     seen.push_back(fileCommit);
                                 }
                                 return false;
                             }});
    rm_init(RM_NO_LIMIT, 32, 0.0);
    EXPECT_THAT(seen, ElementsAre(-1));
    EXPECT_EQ(fileCommit, 0);
}

// A path that cannot be built leaves no text behind to be taken for a number.
TEST_F(StartupValues, OfTheSyncsAreOnWithoutAPathToTheProfile)
{
    writeFile(kProfile, "[server]\nFileCommit=0\n");
    rm_freeMemory(rm_getMemory(1, 0), 0);
    int refused = 0;
    const ScopedFault fault({.call = Call::kGetMemory,
                             .when = [&refused](const CallRecord&) { return ++refused == 1; }});
    EXPECT_EQ(captureStderr([] { rm_init(RM_NO_LIMIT, 32, 0.0); }), "");
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(refused, 1) << "nothing else is asked for: there is no file to be read";
    EXPECT_EQ(fileCommit, 1);
}

// --- The disk

TEST_F(DiskState, IsNotJudgedByAQuestionForItsSpace)
{
    rm_init(RM_NO_LIMIT, 32, 1e300);  // more than any disk has
    rm_setDiskFull(0);
    EXPECT_EQ(captureStderr([] { EXPECT_GT(rm_getDiskFreeSpace("."), 0.0); }), "");
    EXPECT_EQ(rm_getDiskFull(), 0);
    EXPECT_EQ(rminfree, 1e300);
}

TEST_F(DiskState, IsANumberAndNothingElse)
{
    const std::string err = captureStderr([] {
        resetCalls();
        for (const int16_t flag : std::to_array<int16_t>({1, 0, -1, 1})) {
            rm_setDiskFull(flag);
            EXPECT_EQ(rm_getDiskFull(), flag);
        }
        EXPECT_THAT(callTrace(), IsEmpty());
    });
    EXPECT_EQ(err, "");
}

TEST_F(DiskState, TurnsGrowthOnAndOffAtOnce)
{
    const int16_t handle = rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 0, 1000);
    rm_setDiskFull(0);
    EXPECT_EQ(rm_fileSeekWrite(handle, 0, "x", 1), 1U);
    EXPECT_EQ(rm_fileLength(handle), 1000U);
    for (const int16_t full : std::to_array<int16_t>({1, -1, 2, INT16_MIN})) {
        rm_setDiskFull(full);
        const uint32_t at = rm_fileLength(handle);
        EXPECT_EQ(rm_fileSeekWrite(handle, at + 5000, "x", 1), 1U);
        EXPECT_EQ(rm_fileLength(handle), at + 5001) << full;
    }
    rm_setDiskFull(0);
    const uint32_t at = rm_fileLength(handle);
    EXPECT_EQ(rm_fileSeekWrite(handle, at + 5000, "x", 1), 1U);
    EXPECT_EQ(rm_fileLength(handle) % 1000, 0U);
    rm_fileClose(handle);
}
}  // namespace
