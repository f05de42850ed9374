// Descriptors when the operating system refuses: each call that the primitives make is failed with
// each error that its manual page names, once and for ever, and with short counts where it has
// them.
#include "osfile_case.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <gmock/gmock.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::captureStdout;
using rmtest::catchFatal;
using rmtest::kForever;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using rmtest::writeFile;
using ::testing::Each;

constexpr std::array kOpenErrors = {
    EACCES, EBUSY,  EDQUOT, EEXIST,  EFAULT,     EFBIG,     EINTR,  EINVAL,      EISDIR,
    ELOOP,  EMFILE, ENFILE, ENODEV,  ENOENT,     ENOMEM,    EPERM,  ENOSPC,      ENOTDIR,
    ENXIO,  EROFS,  EBADF,  ETXTBSY, EOPNOTSUPP, EOVERFLOW, EAGAIN, ENAMETOOLONG};
constexpr std::array kCloseErrors = {EBADF, EINTR, EIO, ENOSPC, EDQUOT};
constexpr std::array kReadErrors = {EAGAIN, EBADF, EFAULT, EINVAL, EIO, EISDIR};
constexpr std::array kWriteErrors = {EAGAIN, EBADF,  EDESTADDRREQ, EDQUOT, EFAULT, EFBIG,
                                     EINTR,  EINVAL, EIO,          ENOSPC, EPERM,  EPIPE};
constexpr std::array kLseekErrors = {EBADF, EINTR, EINVAL, ENXIO, EOVERFLOW, ESPIPE};
constexpr std::array kFsyncErrors = {EBADF, EINTR, EIO, ENOSPC, EROFS, EINVAL, EDQUOT};
constexpr std::array kRemoveErrors = {EACCES, EBUSY,     EFAULT, EINTR,       EINVAL, EIO,
                                      EISDIR, ELOOP,     ENOENT, ENOMEM,      EPERM,  ENOTDIR,
                                      EROFS,  ENOTEMPTY, EEXIST, ENAMETOOLONG};
constexpr std::array kRenameErrors = {
    EACCES, EBUSY,  EDQUOT,  EFAULT, EINTR, EINVAL, EISDIR,    ELOOP, EMLINK,      ENOENT,
    ENOMEM, ENOSPC, ENOTDIR, EEXIST, EPERM, EROFS,  ENOTEMPTY, EXDEV, ENAMETOOLONG};
constexpr std::array kStatErrors = {EACCES, EFAULT,  EINTR,     ELOOP,       ENOENT,
                                    ENOMEM, ENOTDIR, EOVERFLOW, ENAMETOOLONG};
constexpr std::array kFcntlErrors = {EBADF, EINVAL, EMFILE};
constexpr std::array kStatvfsErrors = {EACCES, EFAULT, EIO,     ELOOP,     ENOENT,
                                       ENOMEM, ENOSYS, ENOTDIR, EOVERFLOW, ENAMETOOLONG};

class FlOpenFaults : public rmtest::RmTest
{
};

class AboveStandardFaults : public rmtest::RmTest
{
};

class FlCloseFaults : public rmtest::RmTest
{
};

class FlWriteFaults : public rmtest::RmTest
{
};

class FlSyncFaults : public rmtest::RmTest
{
};

class FlPathFaults : public rmtest::RmTest
{
};

class FlTempNameFaults : public rmtest::RmTest
{
};

class FlDiskFreeSpaceFaults : public rmtest::RmTest
{
};

class FileValidateFaults : public rmtest::RmTest
{
};

class FlReadFaults : public rmtest::DigitsTest
{
};

class FlSeekFaults : public rmtest::DigitsTest
{
};

class FlSizeFaults : public rmtest::DigitsTest
{
};

class FlSetSizeFaults : public rmtest::DigitsTest
{
};

// --- open

TEST_F(FlOpenFaults, AnErrorIsTheResultOnce)
{
    writeFile("file", "");
    for (const int error : kOpenErrors) {
        int32_t fd = 77;
        {
            ScopedFault fault({.call = Call::kOpen, .error = error});
            EXPECT_EQ(rm_flOpen("file", RM_O_RDONLY, 0, 0600, &fd), error);
            EXPECT_EQ(fd, -1);
        }
        EXPECT_EQ(rm_flOpen("file", RM_O_RDONLY, 0, 0600, &fd), 0);
        EXPECT_EQ(rm_flClose(fd), 0);
    }
}

TEST_F(FlOpenFaults, AnErrorForEverIsMetByOneCallEach)
{
    for (const int error : kOpenErrors) {
        ScopedFault fault({.call = Call::kOpen, .error = error, .times = kForever});
        resetCalls();
        int32_t fd = 77;
        EXPECT_EQ(rm_flOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 0600, &fd), error);
        EXPECT_EQ(fd, -1);
        EXPECT_EQ(callCount(Call::kOpen), 1);
    }
    EXPECT_FALSE(std::filesystem::exists("file"));
}

// --- numbers above the standard streams

TEST_F(AboveStandardFaults, AnErrorIsMinusOneAndTheDescriptorClosed)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        for (const int error : kFcntlErrors) {
            close(STDIN_FILENO);
            EXPECT_EQ(open("/dev/null", O_RDONLY), STDIN_FILENO);
            // The error is that of the number, though the close fails too.
            ScopedFault fault({.call = Call::kFcntl, .error = error});
            ScopedFault closing({.call = Call::kClose, .error = EIO});
            EXPECT_EQ(os::aboveStandard(STDIN_FILENO, os::OnExec::kCloses), -1);
            EXPECT_EQ(errno, error);
            EXPECT_EQ(fault.hits(), 1);
            EXPECT_EQ(closing.hits(), 1);
            EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
        }
    });
    EXPECT_EQ(child.status, 0);
}

// --- close

TEST_F(FlCloseFaults, AnErrorIsMinusOneAndNotRepeated)
{
    for (const int times : {1, kForever}) {
        for (const int error : kCloseErrors) {
            int32_t fd = -1;
            ASSERT_EQ(rm_flOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 0600, &fd), 0);
            {
                ScopedFault fault({.call = Call::kClose, .error = error, .times = times});
                resetCalls();
                errno = 0;
                EXPECT_EQ(rm_flClose(fd), -1);
                EXPECT_EQ(errno, error);
                EXPECT_EQ(callCount(Call::kClose), 1);
            }
            if (error == EBADF) {
                close(fd);  // the only one with which a descriptor stays
            }
        }
    }
}

// --- read

TEST_F(FlReadFaults, AnErrorIsTheResultAndTheCountIsMinusOne)
{
    for (const int times : {1, kForever}) {
        for (const int error : kReadErrors) {
            ScopedFault fault({.call = Call::kRead, .error = error, .times = times});
            resetCalls();
            count_ = 7;
            EXPECT_EQ(rm_flRead(fd_, buffer_.data(), 10, &count_), error);
            EXPECT_EQ(count_, -1);
            EXPECT_EQ(callCount(Call::kRead), 1);
        }
    }
    EXPECT_THAT(buffer_, Each('\0'));
}

TEST_F(FlReadFaults, AfterAnErrorTheNextReadIsMade)
{
    ScopedFault fault({.call = Call::kRead, .error = EIO});
    EXPECT_EQ(rm_flRead(fd_, buffer_.data(), 10, &count_), EIO);
    EXPECT_EQ(rm_flRead(fd_, buffer_.data(), 10, &count_), 0);
    EXPECT_EQ(count_, 10);
}

TEST_F(FlReadFaults, InterruptedUpToFiveTimesTheNextAttemptDecides)
{
    for (int interruptions = 1; interruptions <= 5; ++interruptions) {
        ASSERT_EQ(lseek(fd_, 0, SEEK_SET), 0);
        ScopedFault fault({.call = Call::kRead, .error = EINTR, .times = interruptions});
        resetCalls();
        EXPECT_EQ(rm_flRead(fd_, buffer_.data(), 10, &count_), 0);
        EXPECT_EQ(count_, 10);
        EXPECT_EQ(std::string(buffer_.data(), 10), "0123456789");
        EXPECT_EQ(callCount(Call::kRead), interruptions + 1);
    }
}

TEST_F(FlReadFaults, TheSixthAttemptMayMeetTheEndOfTheFile)
{
    ASSERT_EQ(lseek(fd_, 0, SEEK_END), 10);
    ScopedFault fault({.call = Call::kRead, .error = EINTR, .times = 5});
    EXPECT_EQ(rm_flRead(fd_, buffer_.data(), 10, &count_), 0);
    EXPECT_EQ(count_, 0);
}

TEST_F(FlReadFaults, TheSixthAttemptMayMeetAnotherError)
{
    ScopedFault interrupted({.call = Call::kRead, .error = EINTR, .times = 5});
    ScopedFault broken({.call = Call::kRead, .error = EIO});
    EXPECT_EQ(rm_flRead(fd_, buffer_.data(), 10, &count_), EIO);
    EXPECT_EQ(count_, -1);
    EXPECT_EQ(callCount(Call::kRead), 6);
}

TEST_F(FlReadFaults, InterruptedSixTimesIsInterrupted)
{
    ScopedFault fault({.call = Call::kRead, .error = EINTR, .times = 6});
    EXPECT_EQ(rm_flRead(fd_, buffer_.data(), 10, &count_), EINTR);
    EXPECT_EQ(count_, -1);
    EXPECT_EQ(callCount(Call::kRead), 6);
}

TEST_F(FlReadFaults, InterruptedForEverIsTriedSixTimes)
{
    ScopedFault fault({.call = Call::kRead, .error = EINTR, .times = kForever});
    EXPECT_EQ(rm_flRead(fd_, buffer_.data(), 10, &count_), EINTR);
    EXPECT_EQ(callCount(Call::kRead), 6);
}

TEST_F(FlReadFaults, EveryAttemptReadsTheWholeLengthIntoTheSameBuffer)
{
    // Interrupted after three bytes, which the next attempt does not count.
    ScopedFault fault({.call = Call::kRead, .error = EINTR, .result = 3});
    EXPECT_EQ(rm_flRead(fd_, buffer_.data(), 10, &count_), 0);
    const std::vector<CallRecord> calls = callTrace({Call::kRead});
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[1].pointer<char>(1), buffer_.data());
    EXPECT_EQ(calls[1].args[2], 10);
    EXPECT_EQ(count_, 7);
    EXPECT_EQ(std::string(buffer_.data(), 7), "3456789");
}

TEST_F(FlReadFaults, AShortCountIsSuccess)
{
    for (const int64_t shortCount : {0, 1, 9}) {
        ASSERT_EQ(lseek(fd_, 0, SEEK_SET), 0);
        ScopedFault fault({.call = Call::kRead, .result = shortCount});
        resetCalls();
        EXPECT_EQ(rm_flRead(fd_, buffer_.data(), 10, &count_), 0);
        EXPECT_EQ(count_, shortCount);
        EXPECT_EQ(callCount(Call::kRead), 1);
    }
}

TEST_F(FlReadFaults, AShortCountWithAnErrorIsTheErrorAndTheCount)
{
    ScopedFault fault({.call = Call::kRead, .error = EIO, .result = 4});
    EXPECT_EQ(rm_flRead(fd_, buffer_.data(), 10, &count_), EIO);
    EXPECT_EQ(count_, 4);
    EXPECT_EQ(callCount(Call::kRead), 1);
}

TEST_F(FlReadFaults, AWholeCountIsSuccessWhateverErrnoSays)
{
    ScopedFault fault({.call = Call::kRead, .error = EIO, .result = 10});
    EXPECT_EQ(rm_flRead(fd_, buffer_.data(), 10, &count_), 0);
    EXPECT_EQ(count_, 10);
}

// --- write

TEST_F(FlWriteFaults, AnErrorIsZeroAndNotRepeated)
{
    int32_t fd = -1;
    ASSERT_EQ(rm_flOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 0600, &fd), 0);
    for (const int times : {1, kForever}) {
        for (const int error : kWriteErrors) {
            ScopedFault fault({.call = Call::kWrite, .error = error, .times = times});
            resetCalls();
            EXPECT_EQ(rm_flWrite(fd, "text", 4), 0);
            EXPECT_EQ(errno, error);
            EXPECT_EQ(callCount(Call::kWrite), 1);
        }
    }
    EXPECT_EQ(rm_flWrite(fd, "text", 4), 4);
    rm_flClose(fd);
    EXPECT_EQ(readFile("file"), "text");
}

TEST_F(FlWriteFaults, AShortCountIsTheResultAndNotCompleted)
{
    int32_t fd = -1;
    ASSERT_EQ(rm_flOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 0600, &fd), 0);
    for (const int32_t shortCount : {1, 3}) {
        ScopedFault fault({.call = Call::kWrite, .result = shortCount});
        resetCalls();
        EXPECT_EQ(rm_flWrite(fd, "text", 4), shortCount);
        EXPECT_EQ(callCount(Call::kWrite), 1);
    }
    rm_flClose(fd);
    EXPECT_EQ(readFile("file"), "ttex");
}

TEST_F(FlWriteFaults, AShortCountWithAnErrorIsTheCount)
{
    int32_t fd = -1;
    ASSERT_EQ(rm_flOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 0600, &fd), 0);
    ScopedFault fault({.call = Call::kWrite, .error = ENOSPC, .result = 2});
    EXPECT_EQ(rm_flWrite(fd, "text", 4), 2);
    rm_flClose(fd);
}

TEST_F(FlWriteFaults, NothingWrittenIsZeroWithoutAnError)
{
    int32_t fd = -1;
    ASSERT_EQ(rm_flOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 0600, &fd), 0);
    ScopedFault fault({.call = Call::kWrite, .result = 0});
    errno = EIO;
    EXPECT_EQ(rm_flWrite(fd, "text", 4), 0);
    EXPECT_EQ(errno, 0);
    rm_flClose(fd);
}

// --- lseek

TEST_F(FlSeekFaults, AnErrorIsMinusOneAndThePositionAllBits)
{
    for (const int times : {1, kForever}) {
        for (const int error : kLseekErrors) {
            ScopedFault fault({.call = Call::kLseek, .error = error, .times = times});
            resetCalls();
            uint32_t position = 0;
            EXPECT_EQ(rm_flSeek(fd_, 5, 0, &position), -1);
            EXPECT_EQ(position, 0xFFFFFFFFU);
            EXPECT_EQ(errno, error);
            EXPECT_EQ(callCount(Call::kLseek), 1);
        }
    }
    EXPECT_EQ(position(), 0);
}

TEST_F(FlSeekFaults, AnErrorWithoutAPositionIsMinusOne)
{
    for (const int error : kLseekErrors) {
        ScopedFault fault({.call = Call::kLseek, .error = error});
        EXPECT_EQ(rm_flSeek(fd_, 5, 0, nullptr), -1);
        EXPECT_EQ(rm_flSeek(fd_, 5, 0, nullptr), 0);
    }
}

// --- size

TEST_F(FlSizeFaults, AnEndThatCannotBeFoundIsMinusOneAndThePositionKept)
{
    ASSERT_EQ(lseek(fd_, 4, SEEK_SET), 4);
    for (const int error : kLseekErrors) {
        ScopedFault fault({.call = Call::kLseek, .error = error, .when = [](const CallRecord& c) {
                               return c.args[2] == SEEK_END;
                           }});
        uint32_t size = 0;
        EXPECT_EQ(rm_flSize(fd_, &size), -1);
        EXPECT_EQ(size, 0xFFFFFFFFU);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(position(), 4);
    }
}

TEST_F(FlSizeFaults, OnlyTheEndDecides)
{
    // Neither the position before nor the way back to it makes the size unknown.
    for (const int whence : {SEEK_CUR, SEEK_SET}) {
        for (const int error : kLseekErrors) {
            ScopedFault fault(
                {.call = Call::kLseek, .error = error, .when = [whence](const CallRecord& c) {
                     return c.args[2] == whence;
                 }});
            uint32_t size = 0;
            EXPECT_EQ(rm_flSize(fd_, &size), 0);
            EXPECT_EQ(size, 10U);
        }
    }
}

TEST_F(FlSizeFaults, TheErrorIsThatOfTheEndThoughTheWayBackFailsToo)
{
    ScopedFault end({.call = Call::kLseek, .error = EOVERFLOW, .when = [](const CallRecord& c) {
                         return c.args[2] == SEEK_END;
                     }});
    ScopedFault back({.call = Call::kLseek, .error = EINVAL, .when = [](const CallRecord& c) {
                          return c.args[2] == SEEK_SET;
                      }});
    uint32_t size = 0;
    EXPECT_EQ(rm_flSize(fd_, &size), -1);
    EXPECT_EQ(errno, EOVERFLOW);
}

TEST_F(FlSizeFaults, AnErrorForEverIsMinusOne)
{
    for (const int error : kLseekErrors) {
        ScopedFault fault({.call = Call::kLseek, .error = error, .times = kForever});
        uint32_t size = 0;
        EXPECT_EQ(rm_flSize(fd_, &size), -1);
        EXPECT_EQ(errno, error);
    }
}

// --- setting the size

TEST_F(FlSetSizeFaults, AWriteThatFailsEndsItAtOnce)
{
    for (const int times : {1, kForever}) {
        for (const int error : kWriteErrors) {
            ScopedFault fault({.call = Call::kWrite, .error = error, .times = times});
            resetCalls();
            EXPECT_EQ(rm_flSetSize(fd_, 5000), -1);
            EXPECT_EQ(errno, error);
            EXPECT_EQ(callCount(Call::kWrite), 1);
        }
    }
    EXPECT_EQ(readFile("file"), "0123456789");
}

TEST_F(FlSetSizeFaults, AShortWriteEndsItAtOnce)
{
    for (const int64_t shortCount : {0, 1, 511}) {
        ASSERT_EQ(truncate("file", 10), 0);
        ScopedFault fault({.call = Call::kWrite, .result = shortCount});
        resetCalls();
        EXPECT_EQ(rm_flSetSize(fd_, 5000), -1);
        EXPECT_EQ(callCount(Call::kWrite), 1);
        EXPECT_EQ(readFile("file").size(), 10U + static_cast<std::size_t>(shortCount));
    }
}

TEST_F(FlSetSizeFaults, ALaterBlockThatFailsLeavesTheEarlierOnes)
{
    ScopedFault fault({.call = Call::kWrite, .error = ENOSPC, .skip = 2});
    EXPECT_EQ(rm_flSetSize(fd_, 5000), -1);
    EXPECT_EQ(callCount(Call::kWrite), 3);
    EXPECT_EQ(readFile("file").size(), 10U + 1024U);
}

TEST_F(FlSetSizeFaults, AShortRestEndsIt)
{
    ScopedFault fault({.call = Call::kWrite, .skip = 1, .result = 5});
    EXPECT_EQ(rm_flSetSize(fd_, 10 + 512 + 100), -1);
}

TEST_F(FlSetSizeFaults, AfterAFailureItCanBeMadeAgain)
{
    {
        ScopedFault fault({.call = Call::kWrite, .error = ENOSPC, .skip = 1});
        EXPECT_EQ(rm_flSetSize(fd_, 1300), -1);
    }
    EXPECT_EQ(rm_flSetSize(fd_, 1300), 0);
    EXPECT_EQ(readFile("file"), "0123456789" + std::string(1290, '\0'));
}

TEST_F(FlSetSizeFaults, AnEndThatCannotBeFoundWritesNothing)
{
    for (const int times : {1, kForever}) {
        for (const int error : kLseekErrors) {
            ScopedFault fault({.call = Call::kLseek, .error = error, .times = times});
            resetCalls();
            EXPECT_EQ(rm_flSetSize(fd_, 5000), -1);
            EXPECT_EQ(callCount(Call::kWrite), 0);
        }
    }
}

TEST_F(FlSetSizeFaults, AWayBackThatFailsIsNotAskedFor)
{
    for (const int error : kLseekErrors) {
        ASSERT_EQ(truncate("file", 10), 0);
        ScopedFault fault({.call = Call::kLseek, .error = error, .when = [](const CallRecord& c) {
                               return c.args[2] == SEEK_SET;
                           }});
        EXPECT_EQ(rm_flSetSize(fd_, 100), 0);
        EXPECT_EQ(readFile("file").size(), 100U);
    }
}

// --- fsync

TEST_F(FlSyncFaults, AnErrorIsSuccessAndNotRepeated)
{
    for (const int times : {1, kForever}) {
        for (const int error : kFsyncErrors) {
            ScopedFault fault({.call = Call::kFsync, .error = error, .times = times});
            resetCalls();
            EXPECT_EQ(rm_flSync(0), 0);
            EXPECT_EQ(callCount(Call::kFsync), 1);
        }
    }
}

// --- remove and rename

TEST_F(FlPathFaults, ARemoveThatFailsIsMinusOne)
{
    writeFile("file", "text");
    for (const int times : {1, kForever}) {
        for (const int error : kRemoveErrors) {
            ScopedFault fault({.call = Call::kRemove, .error = error, .times = times});
            resetCalls();
            EXPECT_EQ(rm_flRemove("file"), -1);
            EXPECT_EQ(errno, error);
            EXPECT_EQ(callCount(Call::kRemove), 1);
        }
    }
    EXPECT_EQ(readFile("file"), "text");
}

TEST_F(FlPathFaults, ARenameThatFailsIsMinusOne)
{
    writeFile("old", "text");
    for (const int times : {1, kForever}) {
        for (const int error : kRenameErrors) {
            ScopedFault fault({.call = Call::kRename, .error = error, .times = times});
            resetCalls();
            EXPECT_EQ(rm_flRename("old", "new"), -1);
            EXPECT_EQ(errno, error);
            EXPECT_EQ(callCount(Call::kRename), 1);
        }
    }
    EXPECT_EQ(readFile("old"), "text");
    EXPECT_FALSE(std::filesystem::exists("new"));
}

// --- temporary names

TEST_F(FlTempNameFaults, WhatCannotBeLookedAtCountsAsFree)
{
    for (const int times : {1, kForever}) {
        for (const int error : kStatErrors) {
            ScopedFault fault({.call = Call::kLstat, .error = error, .times = times});
            resetCalls();
            char* name = rm_flTempName();
            EXPECT_NE(name, nullptr);
            EXPECT_EQ(callCount(Call::kLstat), 1);
            rm_freeMemory(name, 0);
        }
    }
}

TEST_F(FlTempNameFaults, WhenEveryNameIsTakenTheSearchEnds)
{
    ScopedFault fault({.call = Call::kLstat, .times = kForever, .result = 0});
    char* name = rm_flTempName();
    EXPECT_NE(name, nullptr);
    rm_freeMemory(name, 0);
}

TEST_F(FlTempNameFaults, WithoutMemoryIsFatal)
{
    ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    const std::string err =
        captureStderr([] { EXPECT_EQ(catchFatal([] { static_cast<void>(rm_flTempName()); }), 1); });
    EXPECT_EQ(rmtest::logLines(err).at(0), "Out of memory!");
}

// --- free space

TEST_F(FlDiskFreeSpaceFaults, AnErrorIsMinusOneAndNotRepeated)
{
    for (const int times : {1, kForever}) {
        for (const int error : kStatvfsErrors) {
            ScopedFault fault({.call = Call::kStatvfs, .error = error, .times = times});
            resetCalls();
            EXPECT_EQ(rm_flGetDiskFreeSpace("."), -1.0);
            EXPECT_EQ(callCount(Call::kStatvfs), 1);
        }
    }
}

TEST_F(FlDiskFreeSpaceFaults, AnInterruptionIsRepeated)
{
    for (const int interruptions : {1, 2, 20}) {
        ScopedFault fault({.call = Call::kStatvfs, .error = EINTR, .times = interruptions});
        resetCalls();
        EXPECT_GE(rm_flGetDiskFreeSpace("."), 0.0);
        EXPECT_EQ(callCount(Call::kStatvfs), interruptions + 1);
    }
}

TEST_F(FlDiskFreeSpaceFaults, AnErrorAfterAnInterruptionIsMinusOne)
{
    ScopedFault interrupted({.call = Call::kStatvfs, .error = EINTR});
    ScopedFault broken({.call = Call::kStatvfs, .error = EIO});
    EXPECT_EQ(rm_flGetDiskFreeSpace("."), -1.0);
    EXPECT_EQ(callCount(Call::kStatvfs), 2);
}

TEST_F(FlDiskFreeSpaceFaults, AnInterruptionForEverEnds)
{
    ScopedFault fault({.call = Call::kStatvfs, .error = EINTR, .times = kForever});
    EXPECT_EQ(rm_flGetDiskFreeSpace("."), -1.0);
    EXPECT_GT(fault.hits(), 1);
}

// --- existence

TEST_F(FileValidateFaults, AnErrorIsMinusOneAndNotRepeated)
{
    writeFile("file", "");
    for (const int times : {1, kForever}) {
        for (const int error : kStatErrors) {
            ScopedFault fault({.call = Call::kStat, .error = error, .times = times});
            resetCalls();
            EXPECT_EQ(rm_fileValidate("file"), -1);
            EXPECT_EQ(errno, error);
            EXPECT_EQ(callCount(Call::kStat), 1);
        }
    }
    EXPECT_EQ(rm_fileValidate("file"), 0);
}

// --- nothing here logs or ends anything

TEST_F(FlWriteFaults, NothingIsLoggedOrPrintedByAnyFailure)
{
    std::string out;
    const std::string err = captureStderr([&out] {
        out = captureStdout([] {
            int32_t fd = 0;
            int32_t count = 0;
            uint32_t size = 0;
            char byte = 0;
            rm_flOpen("missing", RM_O_RDONLY, 0, 0600, &fd);
            rm_flClose(-1);
            rm_flRead(-1, &byte, 1, &count);
            rm_flWrite(-1, &byte, 1);
            rm_flSeek(-1, 0, 0, &size);
            rm_flSize(-1, &size);
            rm_flSetSize(-1, 100);
            rm_flSync(-1);
            rm_flSetWriteThrough(-1);
            rm_flRemove("missing");
            rm_flRename("missing", "other");
            rm_flGetDiskFreeSpace("missing");
            rm_fileValidate("missing");
        });
    });
    EXPECT_EQ(err, "");
    EXPECT_EQ(out, "");
}
}  // namespace
