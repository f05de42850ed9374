// The settings that start-up gives to the other services: the values before anybody set them, and
// what they make the library do.
#include "frame.h"

#include <type_traits>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::resetCalls;

class StartupSettings : public rmtest::FrameTest
{
};

TEST_F(StartupSettings, MemoryHasNoLimit)
{
    EXPECT_EQ(rmemavail, 0xFFFFFFFFU);
}

TEST_F(StartupSettings, TheFirstAllocationMakesATagWithoutALimit)
{
    rm_freeMemory(rm_getMemory(1, 1), 1);
    EXPECT_EQ(rm_memoryAvail(1), -1);
}

TEST_F(StartupSettings, ThirtyTwoDescriptorsAreHeldAtMost)
{
    EXPECT_EQ(fileHandleLimit, 32);
}

TEST_F(StartupSettings, NoFreeSpaceIsAskedFor)
{
    EXPECT_EQ(rminfree, 0.0);
}

TEST_F(StartupSettings, NoLockExists)
{
    EXPECT_EQ(fileSem, -1);
    EXPECT_EQ(growSem, -1);
    EXPECT_FALSE(std::filesystem::exists(rmtest::kSemToken));
}

TEST_F(StartupSettings, FileSemIsMadeByTheFirstFile)
{
    const int16_t handle = rm_fileOpen("file", RM_O_WRONLY | RM_O_CREAT, 0, 0, 0);
    EXPECT_EQ(fileSem, rm_syncOpen("fileSem"));
    EXPECT_EQ(growSem, -1);
    rm_fileClose(handle);
}

TEST_F(StartupSettings, TheDiskCountsAsFull)
{
    EXPECT_EQ(rmDiskFull, 1);
}

TEST_F(StartupSettings, NoFileIsGrownBeforeTheHostClearsTheDisk)
{
    const int16_t handle = rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 1000, 500);
    EXPECT_EQ(rm_fileLength(handle), 0U);
    EXPECT_EQ(rm_fileSeekWrite(handle, 0, "text", 4), 4U);
    EXPECT_EQ(rm_fileLength(handle), 4U);
    EXPECT_EQ(growSem, -1);
    rm_fileClose(handle);
}

TEST_F(StartupSettings, FilesAreGrownOnceItIsCleared)
{
    rmDiskFull = 0;
    const int16_t handle = rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 1000, 500);
    EXPECT_EQ(rm_fileLength(handle), 1000U);
    rm_fileClose(handle);
}

TEST_F(StartupSettings, FilesAreSyncedThoughNobodyHasSaidSo)
{
    EXPECT_EQ(fileCommit, -1);
    const int16_t handle = rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    resetCalls();
    EXPECT_EQ(rm_fileSync(handle), 0);
    EXPECT_EQ(callCount(Call::kFsync), 1);
    rm_fileClose(handle);
}

TEST_F(StartupSettings, NothingIsLoggedOrTerminated)
{
    EXPECT_EQ(syslogon, 0);
    EXPECT_EQ(sysfile, -1);
    EXPECT_EQ(rm_getOSTerm(), 0);
}

TEST_F(StartupSettings, HaveTheWidthsOfTheInterface)
{
    EXPECT_TRUE((std::is_same_v<decltype(rmemavail), uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(rminfree), double>));
    EXPECT_TRUE((std::is_same_v<decltype(fileHandleLimit), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(fileSem), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(growSem), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(fileCommit), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(rmDiskFull), int16_t>));
}
}  // namespace
