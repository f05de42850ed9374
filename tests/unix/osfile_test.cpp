// Descriptors: what each primitive does, and what its small status values mean.
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gmock/gmock.h>

namespace
{
// While true, no time passes for whoever asks by clock_gettime.
bool clockStands = false;
}  // namespace

// Stands in for the platform's, which is not among the calls that the faults reach.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the platform's are reserved
int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (clockStands) {
        *time = {1'000'000'000, 0};
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::kForever;
using rmtest::Peer;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using rmtest::writeFile;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uint32_t kOwner = 0600;
constexpr uint32_t kReadWrite = RM_O_RDWR | RM_O_CREAT;
constexpr int64_t kGiB = int64_t{1} << 30;
constexpr uint32_t kLargest = std::numeric_limits<uint32_t>::max();

class AboveStandard : public rmtest::RmTest
{
};

class FlOpen : public rmtest::RmTest
{
};

class FlClose : public rmtest::RmTest
{
};

class FlRead : public rmtest::RmTest
{
};

class FlWrite : public rmtest::RmTest
{
};

class FlSeek : public rmtest::RmTest
{
};

class FlSize : public rmtest::RmTest
{
};

class FlSetSize : public rmtest::RmTest
{
};

class FlSync : public rmtest::RmTest
{
};

class FlPaths : public rmtest::RmTest
{
};

class FlTempName : public rmtest::RmTest
{
};

class FlDiskFreeSpace : public rmtest::RmTest
{
};

class FileValidate : public rmtest::RmTest
{
};

// A descriptor for the test's own use, closed at its end.
class Descriptor
{
  public:
    explicit Descriptor(const char* path, uint32_t flags = kReadWrite)
    {
        EXPECT_EQ(rm_flOpen(path, flags, 0, kOwner, &fd_), 0);
    }

    ~Descriptor() { close(fd_); }

    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    operator int32_t() const { return fd_; }  // NOLINT(google-explicit-constructor)

  private:
    int32_t fd_ = -1;
};

int64_t positionOf(int32_t fd)
{
    return lseek(fd, 0, SEEK_CUR);
}

int64_t sizeOf(const char* path)
{
    struct stat status = {};
    return stat(path, &status) == 0 ? status.st_size : -1;
}

// A file of that many bytes without room on the disk.
void makeSparse(const char* path, int64_t bytes)
{
    writeFile(path, "");
    ASSERT_EQ(truncate(path, bytes), 0);
}

// The lengths of the writes made since the last reset.
std::vector<int64_t> writes()
{
    std::vector<int64_t> lengths;
    for (const CallRecord& call : callTrace({Call::kWrite})) {
        lengths.push_back(call.args[2]);
    }
    return lengths;
}

// --- Opening

struct FlagPair {
    uint32_t ours;
    int host;
};

// The values of the interface and this system's names for them.
const std::vector<FlagPair> kFlags = {
    {0x001, O_WRONLY},   {0x002, O_RDWR},  {0x004, O_NDELAY}, {0x008, O_APPEND}, {0x010, O_SYNC},
    {0x080, O_NONBLOCK}, {0x100, O_CREAT}, {0x200, O_TRUNC},  {0x400, O_EXCL},   {0x800, O_NOCTTY},
};

// The flags that open is called with for `openFlags`; nothing is opened.
int flagsGiven(uint32_t openFlags, uint16_t modeFlags = 0)
{
    ScopedFault fault({.call = Call::kOpen, .error = EACCES});
    resetCalls();
    int32_t fd = 0;
    EXPECT_EQ(rm_flOpen("file", openFlags, modeFlags, kOwner, &fd), EACCES);
    const std::vector<CallRecord> calls = callTrace({Call::kOpen});
    EXPECT_EQ(calls.size(), 1U);
    return calls.empty() ? -1 : static_cast<int>(calls[0].args[1]);
}

TEST_F(FlOpen, TheNamesHaveTheValuesOfTheInterface)
{
    EXPECT_EQ(RM_O_RDONLY, 0);
    EXPECT_EQ(RM_O_WRONLY, 0x001U);
    EXPECT_EQ(RM_O_RDWR, 0x002U);
    EXPECT_EQ(RM_O_APPEND, 0x008U);
    EXPECT_EQ(RM_O_CREAT, 0x100U);
    EXPECT_EQ(RM_O_TRUNC, 0x200U);
    EXPECT_EQ(RM_O_EXCL, 0x400U);
}

TEST_F(FlOpen, NoFlagReads)
{
    EXPECT_EQ(flagsGiven(0), O_RDONLY);
}

TEST_F(FlOpen, EachFlagIsTranslated)
{
    for (const FlagPair& flag : kFlags) {
        EXPECT_EQ(flagsGiven(flag.ours), flag.host) << std::hex << flag.ours;
    }
}

TEST_F(FlOpen, EveryCombinationIsTranslated)
{
    const std::size_t combinations = std::size_t{1} << kFlags.size();
    for (std::size_t chosen = 0; chosen < combinations && !HasFailure(); ++chosen) {
        uint32_t ours = 0;
        int host = 0;
        for (std::size_t i = 0; i < kFlags.size(); ++i) {
            if ((chosen >> i & 1) != 0) {
                ours |= kFlags[i].ours;
                host |= kFlags[i].host;
            }
        }
        if ((ours & 0x3) == 0x3) {
            host = (host & ~O_ACCMODE) | O_RDWR;  // both: reading and writing
        }
        EXPECT_EQ(flagsGiven(ours), host) << std::hex << ours;
    }
}

TEST_F(FlOpen, BitsThatMeanNothingAreDropped)
{
    EXPECT_EQ(flagsGiven(0x020 | 0x040 | 0x1000 | 0xFFFF0000U), O_RDONLY);
    EXPECT_EQ(flagsGiven(0xFFFFFFFFU),
              O_RDWR | O_NDELAY | O_APPEND | O_SYNC | O_CREAT | O_TRUNC | O_EXCL | O_NOCTTY);
}

TEST_F(FlOpen, ModeFlagsOfTheHandleChangeNothing)
{
    EXPECT_EQ(flagsGiven(RM_O_WRONLY, 0xFFFF), O_WRONLY);
}

TEST_F(FlOpen, GivesPathAndPermissionsOn)
{
    ScopedFault fault({.call = Call::kOpen, .error = EACCES});
    resetCalls();
    int32_t fd = 0;
    rm_flOpen("a path", RM_O_WRONLY | RM_O_CREAT, 0, 0640, &fd);
    const CallRecord call = callTrace({Call::kOpen}).at(0);
    EXPECT_EQ(call.path(), "a path");
    EXPECT_EQ(call.args[2], 0640);
}

TEST_F(FlOpen, StoresTheDescriptor)
{
    writeFile("file", "text");
    int32_t fd = -1;
    EXPECT_EQ(rm_flOpen("file", RM_O_RDONLY, 0, kOwner, &fd), 0);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(close(fd), 0);
}

TEST_F(FlOpen, FailureGivesErrnoAndStoresMinusOne)
{
    int32_t fd = 77;
    EXPECT_EQ(rm_flOpen("missing", RM_O_RDONLY, 0, kOwner, &fd), ENOENT);
    EXPECT_EQ(fd, -1);
}

TEST_F(FlOpen, CreatesWithThePermissions)
{
    const mode_t mask = umask(0);
    const Descriptor fd("file", RM_O_WRONLY | RM_O_CREAT);
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat("file", &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(FlOpen, Truncates)
{
    writeFile("file", "text");
    const Descriptor fd("file", RM_O_WRONLY | RM_O_TRUNC);
    EXPECT_EQ(sizeOf("file"), 0);
}

TEST_F(FlOpen, WithoutTheFlagDoesNotTruncate)
{
    writeFile("file", "text");
    const Descriptor fd("file", kReadWrite);
    EXPECT_EQ(sizeOf("file"), 4);
}

TEST_F(FlOpen, ExclusivelyRefusesWhatExists)
{
    writeFile("file", "text");
    int32_t fd = 0;
    EXPECT_EQ(rm_flOpen("file", kReadWrite | RM_O_EXCL, 0, kOwner, &fd), EEXIST);
    EXPECT_EQ(fd, -1);
}

TEST_F(FlOpen, AppendingWritesAtTheEnd)
{
    writeFile("file", "text");
    const Descriptor fd("file", RM_O_WRONLY | RM_O_APPEND);
    EXPECT_EQ(rm_flWrite(fd, "more", 4), 4);
    EXPECT_EQ(readFile("file"), "textmore");
}

// --- Numbers above the standard streams

TEST_F(AboveStandard, AnyOtherNumberIsKeptWithoutACall)
{
    resetCalls();
    for (const int fd : {-1, 3, 4, 1000}) {
        errno = EACCES;
        EXPECT_EQ(os::aboveStandard(fd, os::OnExec::kCloses), fd);
        EXPECT_EQ(errno, EACCES);
    }
    EXPECT_THAT(callTrace(), IsEmpty());
}

TEST_F(AboveStandard, EachOfTheThreeIsMovedWithItsFile)
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        const rmtest::ChildResult child = rmtest::runChild([fd] {
            close(fd);
            EXPECT_EQ(open("file", O_RDWR | O_CREAT | O_APPEND, kOwner), fd);
            const int32_t moved = os::aboveStandard(fd, os::OnExec::kStaysOpen);
            EXPECT_GT(moved, STDERR_FILENO);
            EXPECT_EQ(fcntl(fd, F_GETFD), -1);
            EXPECT_EQ(fcntl(moved, F_GETFD), 0);
            EXPECT_EQ(rm_flWrite(moved, "x", 1), 1);
        });
        EXPECT_EQ(child.status, 0) << fd;
    }
    EXPECT_EQ(readFile("file"), "xxx");
}

TEST_F(AboveStandard, WhatIsNotInheritedStaysSo)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        close(STDIN_FILENO);
        EXPECT_EQ(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        const int32_t moved = os::aboveStandard(STDIN_FILENO, os::OnExec::kCloses);
        EXPECT_EQ(fcntl(moved, F_GETFD), FD_CLOEXEC);
    });
    EXPECT_EQ(child.status, 0);
}

// --- Closing

TEST_F(FlClose, GivesTheDescriptorBack)
{
    int32_t fd = -1;
    ASSERT_EQ(rm_flOpen("file", kReadWrite, 0, kOwner, &fd), 0);
    EXPECT_EQ(rm_flClose(fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(FlClose, OfNoDescriptorIsMinusOne)
{
    EXPECT_EQ(rm_flClose(-1), -1);
    EXPECT_EQ(rm_flClose(9999), -1);
    EXPECT_EQ(errno, EBADF);
}

// --- Reading

TEST_F(FlRead, GivesTheBytesAndTheirCount)
{
    writeFile("file", "text");
    const Descriptor fd("file", RM_O_RDONLY);
    char buffer[5] = "????";
    int32_t count = -1;
    EXPECT_EQ(rm_flRead(fd, buffer, 4, &count), 0);
    EXPECT_EQ(count, 4);
    EXPECT_STREQ(buffer, "text");
}

TEST_F(FlRead, AWholeReadIsOneCall)
{
    writeFile("file", "text");
    const Descriptor fd("file", RM_O_RDONLY);
    char buffer[4];
    int32_t count = -1;
    resetCalls();
    rm_flRead(fd, buffer, 4, &count);
    EXPECT_EQ(callCount(Call::kRead), 1);
}

TEST_F(FlRead, AtTheEndOfTheFileIsSuccessWithCountZero)
{
    writeFile("file", "");
    const Descriptor fd("file", RM_O_RDONLY);
    char buffer[4];
    int32_t count = -1;
    resetCalls();
    EXPECT_EQ(rm_flRead(fd, buffer, 4, &count), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(callCount(Call::kRead), 1);
}

TEST_F(FlRead, AShortReadIsSuccessAndNotCompleted)
{
    writeFile("file", "te");
    const Descriptor fd("file", RM_O_RDONLY);
    char buffer[4];
    int32_t count = -1;
    resetCalls();
    EXPECT_EQ(rm_flRead(fd, buffer, 4, &count), 0);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(callCount(Call::kRead), 1);
}

TEST_F(FlRead, OfNoBytesIsSuccess)
{
    writeFile("file", "text");
    const Descriptor fd("file", RM_O_RDONLY);
    char untouched = '?';
    int32_t count = -1;
    EXPECT_EQ(rm_flRead(fd, &untouched, 0, &count), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(untouched, '?');
}

TEST_F(FlRead, AnOldErrnoDoesNotCount)
{
    writeFile("file", "te");
    const Descriptor fd("file", RM_O_RDONLY);
    char buffer[4];
    int32_t count = -1;
    errno = EIO;
    EXPECT_EQ(rm_flRead(fd, buffer, 4, &count), 0);
    errno = EINTR;
    EXPECT_EQ(rm_flRead(fd, buffer, 4, &count), 0);
    EXPECT_EQ(count, 0);
}

TEST_F(FlRead, FailureGivesErrnoAndCountMinusOne)
{
    const Descriptor fd("file", RM_O_WRONLY | RM_O_CREAT);
    char buffer[4];
    int32_t count = 7;
    EXPECT_EQ(rm_flRead(fd, buffer, 4, &count), EBADF);
    EXPECT_EQ(count, -1);
}

TEST_F(FlRead, OfADirectoryIsAnError)
{
    const Descriptor fd(".", RM_O_RDONLY);
    char buffer[4];
    int32_t count = 7;
    EXPECT_EQ(rm_flRead(fd, buffer, 4, &count), EISDIR);
    EXPECT_EQ(count, -1);
}

TEST_F(FlRead, ANegativeLengthReadsNothing)
{
    writeFile("file", "text");
    const Descriptor fd("file", RM_O_RDONLY);
    char untouched = '?';
    resetCalls();
    for (const int32_t length : {-1, INT32_MIN}) {
        int32_t count = 7;
        EXPECT_EQ(rm_flRead(fd, &untouched, length, &count), EINVAL);
        EXPECT_EQ(count, -1);
    }
    EXPECT_EQ(untouched, '?');
    EXPECT_EQ(callCount(Call::kRead), 0);
}

TEST_F(FlRead, MovesThePosition)
{
    writeFile("file", "textmore");
    const Descriptor fd("file", RM_O_RDONLY);
    char buffer[4];
    int32_t count = 0;
    rm_flRead(fd, buffer, 4, &count);
    EXPECT_EQ(positionOf(fd), 4);
}

// --- Writing

TEST_F(FlWrite, GivesTheCount)
{
    const Descriptor fd("file");
    EXPECT_EQ(rm_flWrite(fd, "text", 4), 4);
    EXPECT_EQ(readFile("file"), "text");
}

TEST_F(FlWrite, OfNoBytesIsZero)
{
    const Descriptor fd("file");
    EXPECT_EQ(rm_flWrite(fd, "text", 0), 0);
    EXPECT_EQ(sizeOf("file"), 0);
}

TEST_F(FlWrite, FailureIsZeroWithErrno)
{
    writeFile("file", "text");
    const Descriptor fd("file", RM_O_RDONLY);
    EXPECT_EQ(rm_flWrite(fd, "more", 4), 0);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(FlWrite, OnAFullDeviceIsZeroWithErrno)
{
    const Descriptor fd("/dev/full", RM_O_WRONLY);
    EXPECT_EQ(rm_flWrite(fd, "text", 4), 0);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(FlWrite, ANegativeLengthWritesNothing)
{
    const Descriptor fd("file");
    resetCalls();
    for (const int32_t length : {-1, INT32_MIN}) {
        errno = 0;
        EXPECT_EQ(rm_flWrite(fd, "text", length), 0);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(callCount(Call::kWrite), 0);
    EXPECT_EQ(sizeOf("file"), 0);
}

// --- Seeking

TEST_F(FlSeek, GoesFromTheStart)
{
    const Descriptor fd("file");
    uint32_t position = 0;
    EXPECT_EQ(rm_flSeek(fd, 100, 0, &position), 0);
    EXPECT_EQ(position, 100U);
}

TEST_F(FlSeek, GoesFromTheCurrentPosition)
{
    const Descriptor fd("file");
    uint32_t position = 0;
    rm_flSeek(fd, 100, 0, nullptr);
    EXPECT_EQ(rm_flSeek(fd, -30, 1, &position), 0);
    EXPECT_EQ(position, 70U);
}

TEST_F(FlSeek, GoesFromTheEnd)
{
    writeFile("file", "0123456789");
    const Descriptor fd("file");
    uint32_t position = 0;
    EXPECT_EQ(rm_flSeek(fd, -3, 2, &position), 0);
    EXPECT_EQ(position, 7U);
    EXPECT_EQ(rm_flSeek(fd, 5, 2, &position), 0);
    EXPECT_EQ(position, 15U);
}

TEST_F(FlSeek, ThePositionMayBeNull)
{
    const Descriptor fd("file");
    EXPECT_EQ(rm_flSeek(fd, 100, 0, nullptr), 0);
    EXPECT_EQ(positionOf(fd), 100);
    EXPECT_EQ(rm_flSeek(fd, -1, 0, nullptr), -1);
}

TEST_F(FlSeek, BeforeTheStartFails)
{
    const Descriptor fd("file");
    uint32_t position = 0;
    EXPECT_EQ(rm_flSeek(fd, -1, 0, &position), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(position, kLargest);
    EXPECT_EQ(positionOf(fd), 0);
}

TEST_F(FlSeek, FromAnUnknownPlaceFails)
{
    const Descriptor fd("file");
    for (const int whence : {-1, 99, INT16_MAX, INT16_MIN}) {
        EXPECT_EQ(rm_flSeek(fd, 0, static_cast<int16_t>(whence), nullptr), -1);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST_F(FlSeek, OnAPipeFails)
{
    std::array<int, 2> ends = {-1, -1};
    ASSERT_EQ(pipe(ends.data()), 0);
    EXPECT_EQ(rm_flSeek(ends[0], 0, 0, nullptr), -1);
    EXPECT_EQ(errno, ESPIPE);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(FlSeek, ReachesBeyondTwoGiBInSteps)
{
    const Descriptor fd("file");
    uint32_t position = 0;
    EXPECT_EQ(rm_flSeek(fd, INT32_MAX, 0, &position), 0);
    EXPECT_EQ(position, 0x7FFFFFFFU);
    EXPECT_EQ(rm_flSeek(fd, INT32_MAX, 1, &position), 0);
    EXPECT_EQ(position, 0xFFFFFFFEU);
}

TEST_F(FlSeek, APositionBeyondFourGiBIsGivenAsTheLargest)
{
    makeSparse("file", 6 * kGiB);
    const Descriptor fd("file");
    uint32_t position = 0;
    EXPECT_EQ(rm_flSeek(fd, 0, 2, &position), 0);
    EXPECT_EQ(position, kLargest);
    EXPECT_EQ(positionOf(fd), 6 * kGiB);
}

TEST_F(FlSeek, TheManagedLayersOffsetsReachFourGiB)
{
    const Descriptor fd("file");
    for (const int64_t offset : {2 * kGiB - 1, 2 * kGiB, 3 * kGiB, 4 * kGiB - 2}) {
        uint32_t position = 0;
        EXPECT_EQ(os::seekDescriptor(fd, offset, SEEK_SET, &position), 0);
        EXPECT_EQ(int64_t{position}, offset);
        EXPECT_EQ(positionOf(fd), offset);
    }
    EXPECT_EQ(os::seekDescriptor(fd, 5 * kGiB, SEEK_SET, nullptr), 0);
    EXPECT_EQ(positionOf(fd), 5 * kGiB);
}

// --- The size

TEST_F(FlSize, IsThatOfTheFile)
{
    writeFile("file", "0123456789");
    const Descriptor fd("file");
    uint32_t size = 0;
    EXPECT_EQ(rm_flSize(fd, &size), 0);
    EXPECT_EQ(size, 10U);
}

TEST_F(FlSize, KeepsThePosition)
{
    writeFile("file", "0123456789");
    const Descriptor fd("file");
    uint32_t size = 0;
    for (const int64_t position : {int64_t{0}, int64_t{4}, int64_t{10}, int64_t{99}, 5 * kGiB}) {
        ASSERT_EQ(lseek(fd, position, SEEK_SET), position);
        EXPECT_EQ(rm_flSize(fd, &size), 0);
        EXPECT_EQ(positionOf(fd), position);
    }
}

TEST_F(FlSize, BeyondTwoGiBIsWhole)
{
    for (const int64_t bytes : {2 * kGiB - 1, 2 * kGiB, 3 * kGiB, 4 * kGiB - 2}) {
        makeSparse("file", bytes);
        const Descriptor fd("file");
        uint32_t size = 0;
        EXPECT_EQ(rm_flSize(fd, &size), 0);
        EXPECT_EQ(int64_t{size}, bytes);
    }
}

TEST_F(FlSize, FromFourGiBOnIsTheLargestNumber)
{
    for (const int64_t bytes : {4 * kGiB - 1, 4 * kGiB, 4 * kGiB + 1, 9 * kGiB}) {
        makeSparse("file", bytes);
        const Descriptor fd("file");
        uint32_t size = 0;
        EXPECT_EQ(rm_flSize(fd, &size), 0);
        EXPECT_EQ(size, kLargest);
    }
}

TEST_F(FlSize, OfAPipeFails)
{
    std::array<int, 2> ends = {-1, -1};
    ASSERT_EQ(pipe(ends.data()), 0);
    uint32_t size = 0;
    EXPECT_EQ(rm_flSize(ends[0], &size), -1);
    EXPECT_EQ(errno, ESPIPE);
    EXPECT_EQ(size, kLargest);
    close(ends[0]);
    close(ends[1]);
}

// --- Setting the size

TEST_F(FlSetSize, OfAnEmptyFileTo1300Writes512And512And276)
{
    const Descriptor fd("file");
    resetCalls();
    EXPECT_EQ(rm_flSetSize(fd, 1300), 0);
    EXPECT_THAT(writes(), ElementsAre(512, 512, 276));
}

TEST_F(FlSetSize, WritesZeros)
{
    const Descriptor fd("file");
    EXPECT_EQ(rm_flSetSize(fd, 1300), 0);
    EXPECT_EQ(readFile("file"), std::string(1300, '\0'));
}

TEST_F(FlSetSize, LeavesThePositionAtTheStart)
{
    const Descriptor fd("file");
    ASSERT_EQ(lseek(fd, 77, SEEK_SET), 77);
    EXPECT_EQ(rm_flSetSize(fd, 1300), 0);
    EXPECT_EQ(positionOf(fd), 0);
}

TEST_F(FlSetSize, KeepsWhatIsThere)
{
    writeFile("file", "text");
    const Descriptor fd("file");
    EXPECT_EQ(rm_flSetSize(fd, 10), 0);
    EXPECT_EQ(readFile("file"), "text" + std::string(6, '\0'));
}

TEST_F(FlSetSize, BeginsAtTheEndWhateverThePosition)
{
    writeFile("file", "0123456789");
    const Descriptor fd("file");
    ASSERT_EQ(lseek(fd, 3, SEEK_SET), 3);
    resetCalls();
    EXPECT_EQ(rm_flSetSize(fd, 600), 0);
    EXPECT_THAT(writes(), ElementsAre(512, 78));
    EXPECT_EQ(readFile("file").substr(0, 10), "0123456789");
}

TEST_F(FlSetSize, ToASmallerSizeWritesNothing)
{
    writeFile("file", "0123456789");
    const Descriptor fd("file");
    ASSERT_EQ(lseek(fd, 3, SEEK_SET), 3);
    resetCalls();
    for (const uint32_t size : {9U, 1U, 0U}) {
        EXPECT_EQ(rm_flSetSize(fd, size), 0);
    }
    EXPECT_THAT(writes(), IsEmpty());
    EXPECT_EQ(readFile("file"), "0123456789");
    EXPECT_EQ(positionOf(fd), 0);
}

TEST_F(FlSetSize, ToItsOwnSizeWritesNothing)
{
    writeFile("file", "0123456789");
    const Descriptor fd("file");
    resetCalls();
    EXPECT_EQ(rm_flSetSize(fd, 10), 0);
    EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(FlSetSize, ByAWholeNumberOfBlocksWritesNoRest)
{
    const Descriptor fd("file");
    resetCalls();
    EXPECT_EQ(rm_flSetSize(fd, 1024), 0);
    EXPECT_THAT(writes(), ElementsAre(512, 512));
}

TEST_F(FlSetSize, ByOneByteWritesOne)
{
    const Descriptor fd("file");
    resetCalls();
    EXPECT_EQ(rm_flSetSize(fd, 1), 0);
    EXPECT_THAT(writes(), ElementsAre(1));
}

TEST_F(FlSetSize, ClearsItsBlockOnceOnFirstUse)
{
    EXPECT_EQ(os::null_block_filled, 0);
    os::null_block.fill('x');
    const Descriptor fd("file");
    EXPECT_EQ(rm_flSetSize(fd, 600), 0);
    EXPECT_EQ(os::null_block_filled, 1);
    EXPECT_EQ(readFile("file"), std::string(600, '\0'));
    EXPECT_EQ(std::count(os::null_block.begin(), os::null_block.end(), '\0'), os::kBlockSize);
}

TEST_F(FlSetSize, DoesNotClearItsBlockAgain)
{
    const Descriptor fd("file");
    EXPECT_EQ(rm_flSetSize(fd, 1), 0);
    os::null_block.fill('x');
    EXPECT_EQ(rm_flSetSize(fd, 2), 0);
    EXPECT_EQ(readFile("file"), std::string("\0x", 2));
}

TEST_F(FlSetSize, WorksBeyondTwoGiB)
{
    makeSparse("file", 3 * kGiB - 100);
    const Descriptor fd("file");
    resetCalls();
    EXPECT_EQ(rm_flSetSize(fd, static_cast<uint32_t>(3 * kGiB + 600)), 0);
    EXPECT_THAT(writes(), ElementsAre(512, 188));
    EXPECT_EQ(sizeOf("file"), 3 * kGiB + 600);
    EXPECT_EQ(positionOf(fd), 0);
}

TEST_F(FlSetSize, WorksUpToTheLargestSize)
{
    makeSparse("file", 4 * kGiB - 11);
    const Descriptor fd("file");
    resetCalls();
    EXPECT_EQ(rm_flSetSize(fd, kLargest), 0);
    EXPECT_THAT(writes(), ElementsAre(10));
    EXPECT_EQ(sizeOf("file"), 4 * kGiB - 1);
}

TEST_F(FlSetSize, OfALargerFileThanCanBeNamedWritesNothing)
{
    makeSparse("file", 5 * kGiB);
    const Descriptor fd("file");
    resetCalls();
    EXPECT_EQ(rm_flSetSize(fd, kLargest), 0);
    EXPECT_EQ(rm_flSetSize(fd, 100), 0);
    EXPECT_THAT(writes(), IsEmpty());
    EXPECT_EQ(sizeOf("file"), 5 * kGiB);
}

TEST_F(FlSetSize, OfAFileOpenForReadingFails)
{
    writeFile("file", "text");
    const Descriptor fd("file", RM_O_RDONLY);
    EXPECT_EQ(rm_flSetSize(fd, 10), -1);
    EXPECT_EQ(sizeOf("file"), 4);
}

TEST_F(FlSetSize, OnAFullDeviceFailsAtTheFirstBlock)
{
    const Descriptor fd("/dev/full", RM_O_WRONLY);
    resetCalls();
    EXPECT_EQ(rm_flSetSize(fd, 10'000), -1);
    EXPECT_THAT(writes(), ElementsAre(512));
}

TEST_F(FlSetSize, OnAPipeFails)
{
    std::array<int, 2> ends = {-1, -1};
    ASSERT_EQ(pipe(ends.data()), 0);
    EXPECT_EQ(rm_flSetSize(ends[1], 100), -1);
    close(ends[0]);
    close(ends[1]);
}

// --- Syncing

TEST_F(FlSync, SyncsTheDescriptor)
{
    const Descriptor fd("file");
    fileCommit = 1;
    resetCalls();
    EXPECT_EQ(rm_flSync(fd), 0);
    const std::vector<CallRecord> calls = callTrace({Call::kFsync});
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].args[0], fd);
}

TEST_F(FlSync, WithFileCommitZeroNeverSyncs)
{
    const Descriptor fd("file");
    fileCommit = 0;
    resetCalls();
    EXPECT_EQ(rm_flSync(fd), 0);
    EXPECT_EQ(callCount(Call::kFsync), 0);
}

TEST_F(FlSync, WithAnyOtherFileCommitSyncs)
{
    const Descriptor fd("file");
    for (const int commit : {-1, 1, 2, INT16_MIN, INT16_MAX}) {
        fileCommit = static_cast<int16_t>(commit);
        resetCalls();
        EXPECT_EQ(rm_flSync(fd), 0);
        EXPECT_EQ(callCount(Call::kFsync), 1) << commit;
    }
}

TEST_F(FlSync, OfNoDescriptorIsSuccessAllTheSame)
{
    EXPECT_EQ(rm_flSync(-1), 0);
}

TEST_F(FlSync, WriteThroughIsNotOffered)
{
    const Descriptor fd("file");
    resetCalls();
    EXPECT_EQ(rm_flSetWriteThrough(fd), 0);
    EXPECT_EQ(rm_flSetWriteThrough(-1), 0);
    EXPECT_THAT(callTrace(), IsEmpty());
}

// --- Paths

TEST_F(FlPaths, RemovesAFile)
{
    writeFile("file", "");
    EXPECT_EQ(rm_flRemove("file"), 0);
    EXPECT_EQ(sizeOf("file"), -1);
}

TEST_F(FlPaths, RemovesAnEmptyDirectory)
{
    ASSERT_EQ(mkdir("directory", 0700), 0);
    EXPECT_EQ(rm_flRemove("directory"), 0);
}

TEST_F(FlPaths, WhatIsNotThereIsNotRemoved)
{
    EXPECT_EQ(rm_flRemove("missing"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FlPaths, RenamesAFile)
{
    writeFile("old", "text");
    EXPECT_EQ(rm_flRename("old", "new"), 0);
    EXPECT_EQ(readFile("new"), "text");
    EXPECT_EQ(sizeOf("old"), -1);
}

TEST_F(FlPaths, RenamesOverAFile)
{
    writeFile("old", "text");
    writeFile("new", "replaced");
    EXPECT_EQ(rm_flRename("old", "new"), 0);
    EXPECT_EQ(readFile("new"), "text");
}

TEST_F(FlPaths, WhatIsNotThereIsNotRenamed)
{
    writeFile("new", "kept");
    EXPECT_EQ(rm_flRename("missing", "new"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(readFile("new"), "kept");
}

// --- Temporary names

std::string tempName()
{
    char* name = rm_flTempName();
    std::string copy = name;
    rm_freeMemory(name, 0);
    return copy;
}

TEST_F(FlTempName, BelongsToTheCallerUnderTagZero)
{
    char* name = rm_flTempName();
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(captureStderr([name] { rm_freeMemory(name, 0); }), "");
    // Tag 0 has nothing left: its segment has gone back at once, the table stays.
    const uint32_t table = rm_memused();
    rm_freeMemory(rm_flTempName(), 0);
    EXPECT_EQ(rm_memused(), table);
}

TEST_F(FlTempName, IsAnAbsolutePathOfTheSystemsOwnPlace)
{
    EXPECT_EQ(tempName().rfind('/'), std::strlen(P_tmpdir));
    EXPECT_TRUE(tempName().starts_with(P_tmpdir));
}

TEST_F(FlTempName, IsNotThere)
{
    const std::string name = tempName();
    struct stat status = {};
    EXPECT_EQ(lstat(name.c_str(), &status), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FlTempName, CanBeCreated)
{
    const std::string name = tempName();
    int32_t fd = -1;
    EXPECT_EQ(rm_flOpen(name.c_str(), kReadWrite | RM_O_EXCL, 0, kOwner, &fd), 0);
    rm_flClose(fd);
    EXPECT_EQ(rm_flRemove(name.c_str()), 0);
}

TEST_F(FlTempName, DiffersFromCallToCall)
{
    std::set<std::string> names;
    constexpr int kCalls = 10'000;
    for (int i = 0; i < kCalls; ++i) {
        names.insert(tempName());
    }
    EXPECT_EQ(names.size(), static_cast<std::size_t>(kCalls));
}

TEST_F(FlTempName, DiffersFromCallToCallWhenNoTimePasses)
{
    std::set<std::string> names;
    constexpr int kCalls = 100;
    clockStands = true;
    for (int i = 0; i < kCalls; ++i) {
        names.insert(tempName());
    }
    clockStands = false;
    EXPECT_EQ(names.size(), static_cast<std::size_t>(kCalls));
}

TEST_F(FlTempName, DiffersBetweenProcesses)
{
    // Copies of one process at one time, which have the same counter.
    constexpr int kProcesses = 4;
    constexpr int kCalls = 200;
    std::set<std::string> names;
    static_cast<void>(tempName());
    std::vector<std::unique_ptr<Peer>> peers;
    peers.reserve(kProcesses);
    for (int i = 0; i < kProcesses; ++i) {
        peers.push_back(std::make_unique<Peer>([](Peer::Channel& ch) {
            ch.say("ready");
            ch.hear();
            for (int n = 0; n < kCalls; ++n) {
                clockStands = true;
                const std::string name = tempName();
                clockStands = false;
                ch.say(name);
            }
        }));
    }
    for (const auto& peer : peers) {
        EXPECT_EQ(peer->hear(), "ready");
    }
    for (const auto& peer : peers) {
        peer->say("go");
    }
    for (const auto& peer : peers) {
        for (int n = 0; n < kCalls; ++n) {
            names.insert(peer->hear());
        }
    }
    EXPECT_EQ(names.size(), static_cast<std::size_t>(kProcesses * kCalls));
    for (const auto& peer : peers) {
        EXPECT_EQ(peer->wait().status, 0);
    }
}

TEST_F(FlTempName, PassesOverWhatIsThere)
{
    // The first two names are taken.
    ScopedFault fault({.call = Call::kLstat, .times = 2, .result = 0});
    resetCalls();
    const std::string name = tempName();
    const std::vector<CallRecord> looks = callTrace({Call::kLstat});
    ASSERT_EQ(looks.size(), 3U);
    EXPECT_NE(looks[0].path(), looks[1].path());
    EXPECT_NE(looks[1].path(), looks[2].path());
    EXPECT_EQ(looks[2].path(), name);
}

TEST_F(FlTempName, PassesOverALinkThatLeadsNowhere)
{
    // Whoever writes through it would make a stranger's file.
    static std::string taken;
    ScopedFault fault({.call = Call::kLstat, .action = [](const CallRecord& call) {
                           taken = call.path();
                           EXPECT_EQ(symlink("nowhere", taken.c_str()), 0);
                           return rmtest::passThrough(call);
                       }});
    EXPECT_NE(tempName(), taken);
    unlink(taken.c_str());
}

// --- Free space

// statvfs succeeds with these fields.
rmtest::Fault disk(uint64_t blocksFree, uint64_t blocksForUsers, uint64_t blockSize)
{
    return {.call = Call::kStatvfs,
            .times = kForever,
            .action = [=](const CallRecord& call) -> int64_t {
                auto* status = call.pointer<struct statvfs>(1);
                *status = {};
                status->f_bfree = blocksFree;
                status->f_bavail = blocksForUsers;
                status->f_bsize = static_cast<unsigned long>(blockSize);
                status->f_frsize = static_cast<unsigned long>(blockSize);
                status->f_blocks = blocksFree * 2;
                return 0;
            }};
}

TEST_F(FlDiskFreeSpace, IsTheFreeBlocksTimes512)
{
    ScopedFault fault(disk(1000, 1000, 512));
    EXPECT_EQ(rm_flGetDiskFreeSpace("."), 512'000.0);
}

TEST_F(FlDiskFreeSpace, TheBlockSizeIsNotAsked)
{
    ScopedFault fault(disk(1000, 1000, 4096));
    EXPECT_EQ(rm_flGetDiskFreeSpace("."), 512'000.0);
}

TEST_F(FlDiskFreeSpace, TheBlocksOfTheSystemCount)
{
    ScopedFault fault(disk(1000, 10, 512));
    EXPECT_EQ(rm_flGetDiskFreeSpace("."), 512'000.0);
}

TEST_F(FlDiskFreeSpace, BlocksAreThirtyTwoBits)
{
    {
        ScopedFault fault(disk(0xFFFFFFFFU, 0, 512));
        EXPECT_EQ(rm_flGetDiskFreeSpace("."), 4294967295.0 * 512.0);
    }
    {
        ScopedFault fault(disk((uint64_t{1} << 32) + 5, 0, 512));
        EXPECT_EQ(rm_flGetDiskFreeSpace("."), 5 * 512.0);
    }
}

TEST_F(FlDiskFreeSpace, OfAFullDiskIsZero)
{
    ScopedFault fault(disk(0, 0, 4096));
    EXPECT_EQ(rm_flGetDiskFreeSpace("."), 0.0);
}

TEST_F(FlDiskFreeSpace, AsksForThePath)
{
    resetCalls();
    rm_flGetDiskFreeSpace(".");
    const std::vector<CallRecord> calls = callTrace({Call::kStatvfs});
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].path(), ".");
}

TEST_F(FlDiskFreeSpace, OfThisDiskIsWhatTheSystemSays)
{
    // Of a file system that nobody writes to.
    struct statvfs status = {};
    ASSERT_EQ(statvfs("/proc", &status), 0);
    EXPECT_EQ(rm_flGetDiskFreeSpace("/proc"), static_cast<uint32_t>(status.f_bfree) * 512.0);
}

TEST_F(FlDiskFreeSpace, OfAPathThatDoesNotExistIsMinusOne)
{
    EXPECT_EQ(rm_flGetDiskFreeSpace("missing"), -1.0);
}

// --- Existence

TEST_F(FileValidate, OfAFileIsZero)
{
    writeFile("file", "");
    EXPECT_EQ(rm_fileValidate("file"), 0);
}

TEST_F(FileValidate, OfADirectoryIsZero)
{
    EXPECT_EQ(rm_fileValidate("."), 0);
}

TEST_F(FileValidate, OfAMissingPathIsMinusOne)
{
    EXPECT_EQ(rm_fileValidate("missing"), -1);
    EXPECT_EQ(rm_fileValidate("missing/file"), -1);
    EXPECT_EQ(rm_fileValidate(""), -1);
}

TEST_F(FileValidate, FollowsLinks)
{
    writeFile("file", "");
    ASSERT_EQ(symlink("file", "link"), 0);
    ASSERT_EQ(symlink("missing", "dangling"), 0);
    EXPECT_EQ(rm_fileValidate("link"), 0);
    EXPECT_EQ(rm_fileValidate("dangling"), -1);
}

TEST_F(FileValidate, OfALargeFileIsZero)
{
    makeSparse("file", 9 * kGiB);
    EXPECT_EQ(rm_fileValidate("file"), 0);
}

TEST_F(FileValidate, OpensNothing)
{
    writeFile("file", "");
    ASSERT_EQ(chmod("file", 0), 0);
    resetCalls();
    EXPECT_EQ(rm_fileValidate("file"), 0);
    EXPECT_EQ(callCount(Call::kOpen), 0);
}

TEST_F(FlWrite, AWholeWriteIsOneCall)
{
    const Descriptor fd("file");
    const std::string data(100'000, 'x');
    resetCalls();
    EXPECT_EQ(rm_flWrite(fd, data.data(), 100'000), 100'000);
    const std::vector<CallRecord> calls = callTrace({Call::kWrite});
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].args[0], fd);
    EXPECT_EQ(calls[0].pointer<const char>(1), data.data());
    EXPECT_EQ(calls[0].args[2], 100'000);
}
}  // namespace
