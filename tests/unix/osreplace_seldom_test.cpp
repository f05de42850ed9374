// Replacing a file where the system is asked for something that it seldom refuses: a lock while a
// signal comes in, and a directory whose path is longer than any.
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>

#include <gmock/gmock.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::callTrace;
using rmtest::kForever;
using rmtest::openDescriptors;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using rmtest::writeFile;
using ::testing::SizeIs;

constexpr const char* kPath = "temp";
constexpr uint32_t kLongMs = 20'000;  // that no case waits for
constexpr uint32_t kShortMs = 20;

class LockFileInterrupted : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        writeFile(kPath, "bytes");
    }
};

class BringNameToDisk : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        fileCommit = -1;
    }

    // The longest path of a directory that the system opens, "././...//", its last slash included.
    static std::string longestDirectory()
    {
        constexpr std::size_t kLongest = PATH_MAX - 1;  // without the zero at the end
        std::string path;
        while (path.size() + 2 < kLongest) {
            path += "./";
        }
        return path + std::string(kLongest - path.size(), '/');
    }
};

TEST_F(LockFileInterrupted, AsksAgain)
{
    ScopedFault fault({.call = Call::kFlock, .error = EINTR, .times = 3});
    resetCalls();
    const int32_t lock = os::lockFile(kPath, kLongMs, nullptr);
    EXPECT_GE(lock, 0);
    EXPECT_EQ(fault.hits(), 3);
    EXPECT_EQ(callCount(Call::kFlock), 4);
    EXPECT_EQ(callCount(Call::kNanosleep), 3);
    os::unlockFile(lock);
}

TEST_F(LockFileInterrupted, ForEverIsBusy)
{
    const auto before = openDescriptors();
    const ScopedFault fault({.call = Call::kFlock, .error = EINTR, .times = kForever});
    EXPECT_EQ(os::lockFile(kPath, kShortMs, nullptr), os::kFileBusy);
    EXPECT_EQ(openDescriptors(), before);
}

// Who asks waits a little then, and asks again: that is safer than to take it for free.
TEST_F(LockFileInterrupted, IsTakenForLocked)
{
    const ScopedFault fault({.call = Call::kFlock, .error = EINTR});
    EXPECT_TRUE(os::isLocked(kPath));
    EXPECT_FALSE(os::isLocked(kPath));
}

TEST_F(BringNameToDisk, OfAPathLongerThanAnyAsksTheSystemForNothing)
{
    const std::string longer = longestDirectory() + "/name";
    const std::string muchLonger = std::string(5000, 'd') + "/name";
    for (const std::string& path : {longer, muchLonger}) {
        resetCalls();
        os::bringNameToDisk(path.c_str());
        EXPECT_THAT(callTrace(), SizeIs(0)) << path.size();
    }
}

TEST_F(BringNameToDisk, OfTheLongestDirectorySyncsIt)
{
    const std::string directory = longestDirectory();
    ASSERT_EQ(directory.size(), PATH_MAX - 1U);
    resetCalls();
    os::bringNameToDisk((directory + "name").c_str());
    EXPECT_EQ(callCount(Call::kOpen), 1);
    EXPECT_EQ(callCount(Call::kFsync), 1);
    EXPECT_EQ(callCount(Call::kClose), 1);
}

}  // namespace
