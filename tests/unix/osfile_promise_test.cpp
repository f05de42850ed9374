// Descriptors after a failure and over many interruptions: where the position stands, what the
// block of zeros holds, how often the system is asked again.
#include "osfile_case.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <array>
#include <cerrno>
#include <string>
#include <vector>

#include <unistd.h>

#include <gmock/gmock.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using ::testing::ElementsAre;

class FlSetSizeFailed : public rmtest::DigitsTest
{
};

class FlSetSizeCalls : public rmtest::DigitsTest
{
};

class FlSizeCalls : public rmtest::DigitsTest
{
};

class FlManyInterruptions : public rmtest::DigitsTest
{
};

// The seeks since the last reset: "4 from the start".
std::vector<std::string> seeks()
{
    std::vector<std::string> found;
    for (const CallRecord& record : callTrace({Call::kLseek})) {
        const char* whence = record.args[2] == SEEK_SET   ? " from the start"
                             : record.args[2] == SEEK_CUR ? " from here"
                                                          : " from the end";
        found.push_back(std::to_string(record.args[1]) + whence);
    }
    return found;
}

// Only what has succeeded goes back to the start of the file.
TEST_F(FlSetSizeFailed, LeavesThePositionWhereItsLastWriteEnded)
{
    ScopedFault shortWrite({.call = Call::kWrite, .skip = 1, .result = 100});
    EXPECT_EQ(rm_flSetSize(fd_, 5000), -1);
    EXPECT_EQ(shortWrite.hits(), 1);
    EXPECT_EQ(position(), 10 + 512 + 100);
    EXPECT_EQ(callCount(Call::kLseek), 1 + 1);  // for the end, and just now
}

TEST_F(FlSetSizeFailed, LeavesThePositionAtTheEndWhenNothingCouldBeWritten)
{
    ASSERT_EQ(lseek(fd_, 3, SEEK_SET), 3);
    ScopedFault noRoom({.call = Call::kWrite, .error = ENOSPC});
    EXPECT_EQ(rm_flSetSize(fd_, 5000), -1);
    EXPECT_EQ(position(), 10);
}

TEST_F(FlSetSizeCalls, AreOneLookForTheEndTheWritesAndTheWayBack)
{
    EXPECT_EQ(rm_flSetSize(fd_, 1300), 0);
    std::vector<std::string> calls;
    for (const CallRecord& record : callTrace({Call::kLseek, Call::kWrite})) {
        calls.push_back(
            std::string(record.name).substr(0, 5) + " " +
            std::to_string(record.call == Call::kLseek ? record.args[1] : record.args[2]));
    }
    EXPECT_THAT(calls, ElementsAre("lseek 0", "write 512", "write 512", "write 266", "lseek 0"));
    EXPECT_EQ(callTrace({Call::kLseek}).front().args[2], SEEK_END);
    EXPECT_EQ(callTrace({Call::kLseek}).back().args[2], SEEK_SET);
}

// By the first of them.
TEST_F(FlSetSizeCalls, ClearTheBlockOfZerosAlsoWithNothingToWrite)
{
    os::null_block_filled = 0;
    os::null_block.fill('x');
    EXPECT_EQ(rm_flSetSize(fd_, 0), 0);
    EXPECT_EQ(os::null_block_filled, 1);
    EXPECT_THAT(os::null_block, ::testing::Each('\0'));
}

TEST_F(FlSizeCalls, AreThePositionTheEndAndTheWayBack)
{
    ASSERT_EQ(lseek(fd_, 4, SEEK_SET), 4);
    uint32_t size = 0;
    resetCalls();
    EXPECT_EQ(rm_flSize(fd_, &size), 0);
    EXPECT_THAT(seeks(), ElementsAre("0 from here", "0 from the end", "4 from the start"));
}

// A descriptor may have moved although its end is not known.
TEST_F(FlSizeCalls, AreTheSameWhenTheEndCannotBeFound)
{
    ASSERT_EQ(lseek(fd_, 4, SEEK_SET), 4);
    const ScopedFault fault({.call = Call::kLseek, .error = EOVERFLOW, .skip = 1});
    uint32_t size = 0;
    resetCalls();
    EXPECT_EQ(rm_flSize(fd_, &size), -1);
    EXPECT_THAT(seeks(), ElementsAre("0 from here", "0 from the end", "4 from the start"));
}

TEST_F(FlManyInterruptions, DoNotEndTheQuestionForFreeSpace)
{
    ScopedFault fault({.call = Call::kStatvfs, .error = EINTR, .times = 900});
    EXPECT_GE(rm_flGetDiskFreeSpace("."), 0.0);
    EXPECT_EQ(callCount(Call::kStatvfs), 901);
}

// Only a read and this question are made again.
TEST_F(FlManyInterruptions, AreMetOnceByEveryOtherCall)
{
    {
        const ScopedFault fault({.call = Call::kWrite, .error = EINTR});
        EXPECT_EQ(rm_flSetSize(fd_, 100), -1);
        EXPECT_EQ(callCount(Call::kWrite), 1);
    }
    {
        const ScopedFault fault({.call = Call::kFsync, .error = EINTR});
        fileCommit = 1;
        EXPECT_EQ(rm_flSync(fd_), 0);
        EXPECT_EQ(callCount(Call::kFsync), 1);
    }
}

// An errno that the caller has kept is not one of the read's, at any attempt.
TEST_F(FlManyInterruptions, LeaveNoErrnoToTheAttemptThatReadsLess)
{
    std::array<char, 20> buffer = {};
    int32_t count = 0;
    ScopedFault fault({.call = Call::kRead, .error = EINTR, .times = 5});
    EXPECT_EQ(rm_flRead(fd_, buffer.data(), 20, &count), 0);
    EXPECT_EQ(count, 10);
    EXPECT_EQ(std::string(buffer.data()), "0123456789");
    EXPECT_EQ(callCount(Call::kRead), 6);
}
}  // namespace
