// Replacing a file: whose turn it is, which file a path leads to, what permissions the new one
// gets.
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::kForever;
using rmtest::openDescriptors;
using rmtest::passThrough;
using rmtest::Peer;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using rmtest::writeFile;
using ::testing::IsEmpty;

constexpr const char* kPath = "temp";
constexpr uint32_t kShortMs = 50;
constexpr uint32_t kLongMs = 20'000;  // that no case waits for
constexpr int64_t kPollNs = 500'000;

class LockFile : public rmtest::RmTest
{
};

class LockFileRefuses : public rmtest::RmTest
{
};

class UnlockFile : public rmtest::RmTest
{
};

class IsLocked : public rmtest::RmTest
{
};

class LeadsTo : public rmtest::RmTest
{
};

class IsEmptyFile : public rmtest::RmTest
{
};

class CopyPermissions : public rmtest::RmTest
{
};

class BringDirectoryToDisk : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        fileCommit = -1;
    }
};

mode_t modeOf(const char* path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path, &status), 0) << path;
    return status.st_mode & 07777U;
}

ino_t fileOf(int32_t fd)
{
    struct stat status = {};
    EXPECT_EQ(fstat(fd, &status), 0);
    return status.st_ino;
}

ino_t fileOf(const char* path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path, &status), 0) << path;
    return status.st_ino;
}

// Another process that has the lock until it is told to give it back, or ends.
void holdLock(Peer::Channel& channel)
{
    const int32_t lock = os::lockFile(kPath, 0);
    channel.say(lock >= 0 ? "held" : "not held");
    channel.hear();
    os::unlockFile(lock);
    channel.say("free");
    channel.hear();
}

// Gives the lock back, and ends it.
void endHolder(Peer& peer)
{
    peer.say("give back");
    EXPECT_EQ(peer.hear(), "free");
    peer.say("end");
    EXPECT_EQ(peer.wait().status, 0);
}

// --- The lock

TEST_F(LockFile, MakesAMissingFileForItsOwnerOnly)
{
    const mode_t old = umask(0);
    const int32_t lock = os::lockFile(kPath, kShortMs);
    umask(old);
    ASSERT_GE(lock, 0);
    EXPECT_EQ(fileOf(lock), fileOf(kPath));
    EXPECT_EQ(modeOf(kPath), 0600U);
    EXPECT_EQ(readFile(kPath), "");
    os::unlockFile(lock);
}

TEST_F(LockFile, KeepsTheBytesOfAFileAndItsPermissions)
{
    writeFile(kPath, "text");
    ASSERT_EQ(chmod(kPath, 0666), 0);
    const int32_t lock = os::lockFile(kPath, kShortMs);
    ASSERT_GE(lock, 0);
    EXPECT_EQ(readFile(kPath), "text");
    EXPECT_EQ(modeOf(kPath), 0666U);
    os::keepToOwner(lock);
    EXPECT_EQ(modeOf(kPath), 0600U);
    os::unlockFile(lock);
    EXPECT_EQ(readFile(kPath), "text");
}

TEST_F(LockFile, TellsWhetherTheFileIsANewOne)
{
    bool made = false;
    os::unlockFile(os::lockFile(kPath, 0, &made));
    EXPECT_TRUE(made);
    os::unlockFile(os::lockFile(kPath, 0, &made));
    EXPECT_FALSE(made);
}

TEST_F(LockFile, GivesADescriptorThatNoOtherProgramInherits)
{
    const int32_t lock = os::lockFile(kPath, kShortMs);
    ASSERT_GE(lock, 0);
    EXPECT_EQ(fcntl(lock, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    os::unlockFile(lock);
}

TEST_F(LockFile, GivesTheNumberOfNoStandardStream)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        close(STDERR_FILENO);
        const int32_t lock = os::lockFile(kPath, 0);
        EXPECT_GT(lock, STDERR_FILENO);
        EXPECT_EQ(fcntl(lock, F_GETFD), FD_CLOEXEC);
        EXPECT_TRUE(os::isLocked(kPath));
        rm_systemLogWrite("logged");
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(readFile(kPath), "");
}

TEST_F(LockFile, ExcludesAnotherProcessAndIsBusyAfterTheTime)
{
    Peer peer(holdLock);
    ASSERT_EQ(peer.hear(), "held");
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(os::lockFile(kPath, kShortMs), os::kFileBusy);
    // Whole milliseconds are counted.
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(kShortMs - 1));
    endHolder(peer);
}

TEST_F(LockFile, OfABusyFileKeepsNoDescriptorAndChangesNothing)
{
    writeFile(kPath, "text");
    Peer peer(holdLock);
    ASSERT_EQ(peer.hear(), "held");
    ASSERT_EQ(chmod(kPath, 0640), 0);
    const std::vector<int> before = openDescriptors();
    EXPECT_EQ(os::lockFile(kPath, 0), os::kFileBusy);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(modeOf(kPath), 0640U);
    EXPECT_EQ(readFile(kPath), "text");
    endHolder(peer);
}

TEST_F(LockFile, IsFreeOnceTheOtherProcessHasGivenItBack)
{
    Peer peer(holdLock);
    ASSERT_EQ(peer.hear(), "held");
    endHolder(peer);
    const int32_t lock = os::lockFile(kPath, 0);
    EXPECT_GE(lock, 0);
    os::unlockFile(lock);
}

TEST_F(LockFile, IsFreeOnceTheOtherProcessHasDied)
{
    Peer peer(holdLock);
    ASSERT_EQ(peer.hear(), "held");
    peer.kill(SIGKILL);
    EXPECT_EQ(peer.wait().signal, SIGKILL);
    const int32_t lock = os::lockFile(kPath, 0);
    EXPECT_GE(lock, 0);
    os::unlockFile(lock);
}

TEST_F(LockFile, ExcludesAChildUntilItIsGivenBack)
{
    const int32_t lock = os::lockFile(kPath, 0);
    ASSERT_GE(lock, 0);
    rmtest::inChild([] { EXPECT_EQ(os::lockFile(kPath, 0), os::kFileBusy); });
    os::unlockFile(lock);
    rmtest::inChild([] { EXPECT_GE(os::lockFile(kPath, 0), 0); });
}

TEST_F(LockFile, LeavesOtherFilesFree)
{
    const int32_t lock = os::lockFile(kPath, 0);
    ASSERT_GE(lock, 0);
    rmtest::inChild([] { EXPECT_GE(os::lockFile("other", 0), 0); });
    os::unlockFile(lock);
}

TEST_F(LockFile, IsTakenWhileItWaitsAsSoonAsItIsFree)
{
    Peer peer(holdLock);
    ASSERT_EQ(peer.hear(), "held");
    int32_t lock = RM_NONE;
    {
        // In the first pause the other one gives it back.
        const ScopedFault pause({.call = Call::kNanosleep, .action = [&peer](const CallRecord&) {
                                     peer.say("give back");
                                     peer.hear();
                                     return int64_t{0};
                                 }});
        lock = os::lockFile(kPath, kLongMs);
        EXPECT_EQ(pause.hits(), 1);
    }
    EXPECT_GE(lock, 0);
    EXPECT_EQ(callCount(Call::kFlock), 2);
    os::unlockFile(lock);
    peer.say("end");
    EXPECT_EQ(peer.wait().status, 0);
}

TEST_F(LockFile, WithoutTimeAsksOnce)
{
    const ScopedFault busy({.call = Call::kFlock, .error = EWOULDBLOCK, .times = kForever});
    EXPECT_EQ(os::lockFile(kPath, 0), os::kFileBusy);
    EXPECT_EQ(callCount(Call::kFlock), 1);
    EXPECT_EQ(callCount(Call::kNanosleep), 0);
}

TEST_F(LockFile, AsksAgainAndAgainUntilTheTimeIsOverWithoutAnAlarm)
{
    // A clock that only the pauses move.
    int64_t now = 0;
    const ScopedFault clock(
        {.call = Call::kClockGettime, .times = kForever, .action = [&now](const CallRecord& call) {
             *call.pointer<timespec>(1) = {.tv_sec = static_cast<time_t>(now / 1'000'000'000),
                                           .tv_nsec = static_cast<long>(now % 1'000'000'000)};
             return int64_t{0};
         }});
    const ScopedFault pause(
        {.call = Call::kNanosleep, .times = kForever, .action = [&now](const CallRecord& call) {
             now += call.pointer<const timespec>(0)->tv_nsec;
             return int64_t{0};
         }});
    const ScopedFault busy({.call = Call::kFlock, .error = EWOULDBLOCK, .times = kForever});
    EXPECT_EQ(os::lockFile(kPath, 14'000), os::kFileBusy);
    EXPECT_EQ(now, 14'000 * int64_t{1'000'000});
    EXPECT_EQ(pause.hits(), now / kPollNs);
    EXPECT_EQ(callCount(Call::kFlock), pause.hits() + 1);
    EXPECT_EQ(callCount(Call::kAlarm), 0);
    EXPECT_EQ(callCount(Call::kSignal), 0);
}

TEST_F(LockFile, NeverWaitsInTheSystem)
{
    os::unlockFile(os::lockFile(kPath, kLongMs));
    EXPECT_EQ(callTrace({Call::kFlock}).at(0).args[1], LOCK_EX | LOCK_NB);
    for (const CallRecord& call : callTrace({Call::kOpen})) {
        EXPECT_NE(call.args[1] & O_NONBLOCK, 0);
    }
}

TEST_F(LockFile, OfAFileThatIsMadeByAnotherMeanwhileIsThatOnes)
{
    writeFile(kPath, "another's");
    const ScopedFault notYet({.call = Call::kOpen, .error = ENOENT});
    const int32_t lock = os::lockFile(kPath, kLongMs);
    ASSERT_GE(lock, 0);
    EXPECT_EQ(callCount(Call::kOpen), 3) << "none there, one there, the one there";
    EXPECT_EQ(readFile(kPath), "another's");
    os::unlockFile(lock);
}

TEST_F(LockFile, OfAFileThatIsReplacedMeanwhileIsTheNewOnes)
{
    writeFile(kPath, "old");
    writeFile("new", "new");
    const ScopedFault replaced({.call = Call::kFlock, .action = [](const CallRecord& call) {
                                    std::filesystem::rename("new", kPath);
                                    return passThrough(call);
                                }});
    const int32_t lock = os::lockFile(kPath, kLongMs);
    ASSERT_GE(lock, 0);
    EXPECT_EQ(fileOf(lock), fileOf(kPath));
    EXPECT_EQ(readFile(kPath), "new");
    os::unlockFile(lock);
}

TEST_F(LockFile, OfAFileThatIsRemovedMeanwhileIsANewOnes)
{
    writeFile(kPath, "old");
    const ScopedFault removed({.call = Call::kFlock, .action = [](const CallRecord& call) {
                                   std::filesystem::remove(kPath);
                                   return passThrough(call);
                               }});
    const int32_t lock = os::lockFile(kPath, kLongMs);
    ASSERT_GE(lock, 0);
    EXPECT_EQ(fileOf(lock), fileOf(kPath));
    EXPECT_EQ(readFile(kPath), "");
    os::unlockFile(lock);
}

TEST_F(LockFile, WhereTheSystemHasNoLocksIsHadByAll)
{
    for (const int error : {ENOLCK, ENOSYS, EOPNOTSUPP, EINVAL}) {
        const ScopedFault fault({.call = Call::kFlock, .error = error, .times = kForever});
        const int32_t lock = os::lockFile(kPath, 0);
        const int32_t other = os::lockFile(kPath, 0);
        EXPECT_GE(lock, 0) << error;
        EXPECT_GE(other, 0) << error;
        os::unlockFile(other);
        os::unlockFile(lock);
    }
}

TEST_F(LockFile, WhosePermissionsCannotBeTakenIsKeptAllTheSame)
{
    const ScopedFault fault({.call = Call::kFchmod, .error = EPERM, .times = kForever});
    const int32_t lock = os::lockFile(kPath, 0);
    os::keepToOwner(lock);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_TRUE(os::isLocked(kPath));
    os::unlockFile(lock);
}

// --- What cannot take the place of a file

// No lock, nothing changed, no descriptor left, and that at once.
void expectRefused(const char* path)
{
    const std::vector<int> before = openDescriptors();
    EXPECT_EQ(os::lockFile(path, kLongMs), RM_NONE) << path;
    EXPECT_EQ(openDescriptors(), before) << path;
    EXPECT_EQ(callCount(Call::kNanosleep), 0) << path;
    EXPECT_EQ(callCount(Call::kFchmod), 0) << path;
}

TEST_F(LockFileRefuses, ASymbolicLinkWhereverItLeads)
{
    writeFile("target", "text");
    std::filesystem::create_symlink("target", "link");
    std::filesystem::create_symlink("nowhere", "dangling");
    expectRefused("link");
    expectRefused("dangling");
    EXPECT_FALSE(std::filesystem::exists("nowhere"));
}

TEST_F(LockFileRefuses, AFileWithASecondName)
{
    writeFile(kPath, "text");
    std::filesystem::create_hard_link(kPath, "second");
    expectRefused(kPath);
    EXPECT_EQ(readFile("second"), "text");
}

TEST_F(LockFileRefuses, ADirectory)
{
    std::filesystem::create_directory(kPath);
    expectRefused(kPath);
}

TEST_F(LockFileRefuses, AFifoWithAReaderOrWithout)
{
    ASSERT_EQ(mkfifo(kPath, 0600), 0);
    expectRefused(kPath);
    const int reader = open(kPath, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    expectRefused(kPath);
    close(reader);
}

TEST_F(LockFileRefuses, ADevice)
{
    expectRefused("/dev/null");
}

TEST_F(LockFileRefuses, AFileForWhichThereIsNoNumberAboveTheStandardStreams)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        close(STDERR_FILENO);
        ScopedFault fault({.call = Call::kFcntl, .error = EMFILE});
        EXPECT_EQ(os::lockFile(kPath, kLongMs), RM_NONE);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFD), -1);
    });
    EXPECT_EQ(child.status, 0);
}

TEST_F(LockFileRefuses, APathWithoutADirectory)
{
    expectRefused("missing/temp");
    expectRefused("");
}

TEST_F(LockFileRefuses, AFileThatCannotBeOpened)
{
    writeFile(kPath, "text");
    for (const int error : {EMFILE, ENFILE, EROFS, ENOMEM, ETXTBSY}) {
        const ScopedFault fault({.call = Call::kOpen, .error = error});
        expectRefused(kPath);
        EXPECT_EQ(fault.hits(), 1);
    }
}

TEST_F(LockFileRefuses, AFileThatMayNeitherBeWrittenNorRead)
{
    writeFile(kPath, "text");
    const ScopedFault fault({.call = Call::kOpen, .error = EACCES, .times = kForever});
    expectRefused(kPath);
    EXPECT_EQ(fault.hits(), 2);
}

TEST_F(LockFile, ThatMayOnlyBeReadIsWaitedForAllTheSame)
{
    writeFile(kPath, "text");
    const int32_t first = os::lockFile(kPath, 0);
    const auto toWrite = [](const CallRecord& call) {
        return (call.args[1] & O_ACCMODE) == O_WRONLY;
    };
    const ScopedFault fault(
        {.call = Call::kOpen, .error = EACCES, .times = kForever, .when = toWrite});
    EXPECT_EQ(os::lockFile(kPath, 20), os::kFileBusy);
    os::unlockFile(first);
    const int32_t second = os::lockFile(kPath, 0);
    EXPECT_GE(second, 0);
    EXPECT_TRUE(os::isLocked(kPath));
    os::unlockFile(second);
}

TEST_F(LockFileRefuses, AFileThatCannotBeMade)
{
    for (const int error : {EACCES, ENOSPC, EDQUOT, EROFS, ENOENT}) {
        const ScopedFault fault({.call = Call::kOpen, .error = error, .skip = 1});
        expectRefused(kPath);
        EXPECT_EQ(fault.hits(), 1);
    }
    EXPECT_FALSE(std::filesystem::exists(kPath));
}

TEST_F(LockFileRefuses, AFileThatCannotBeLookedAt)
{
    writeFile(kPath, "text");
    const ScopedFault fault({.call = Call::kFstat, .error = EIO});
    expectRefused(kPath);
    EXPECT_EQ(fault.hits(), 1);
}

// --- Giving it back

TEST_F(UnlockFile, OfNoneDoesNothing)
{
    os::unlockFile(RM_NONE);
    os::unlockFile(os::kFileBusy);
    EXPECT_EQ(callCount(Call::kClose), 0);
}

TEST_F(UnlockFile, ClosesTheDescriptorAndLeavesTheFile)
{
    const std::vector<int> before = openDescriptors();
    os::unlockFile(os::lockFile(kPath, 0));
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(std::filesystem::exists(kPath));
}

// --- Asking for it

TEST_F(IsLocked, WhileAnotherProcessHoldsIt)
{
    Peer peer(holdLock);
    ASSERT_EQ(peer.hear(), "held");
    EXPECT_TRUE(os::isLocked(kPath));
    endHolder(peer);
    EXPECT_FALSE(os::isLocked(kPath));
}

TEST_F(IsLocked, WhileThisProcessHoldsIt)
{
    const int32_t lock = os::lockFile(kPath, 0);
    EXPECT_TRUE(os::isLocked(kPath));
    os::unlockFile(lock);
    EXPECT_FALSE(os::isLocked(kPath));
}

TEST_F(IsLocked, NotWhileAnotherOnlyAsks)
{
    writeFile(kPath, "");
    const int other = open(kPath, O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(other, LOCK_SH), 0);
    EXPECT_FALSE(os::isLocked(kPath));
    close(other);
}

TEST_F(IsLocked, NotAMissingFileALinkADirectoryOrAFifo)
{
    const int32_t lock = os::lockFile(kPath, 0);
    std::filesystem::create_symlink(kPath, "link");
    std::filesystem::create_directory("directory");
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    for (const char* path : {"missing", "link", "directory", "fifo", ""}) {
        EXPECT_FALSE(os::isLocked(path)) << path;
    }
    os::unlockFile(lock);
    EXPECT_FALSE(std::filesystem::exists("missing"));
}

TEST_F(IsLocked, NotWhenItCannotBeOpened)
{
    const int32_t lock = os::lockFile(kPath, 0);
    const ScopedFault fault({.call = Call::kOpen, .error = EACCES});
    EXPECT_FALSE(os::isLocked(kPath));
    EXPECT_EQ(fault.hits(), 1);
    os::unlockFile(lock);
}

TEST_F(IsLocked, NotWhereTheSystemHasNoLocks)
{
    writeFile(kPath, "");
    for (const int error : {ENOLCK, ENOSYS, EOPNOTSUPP}) {
        const ScopedFault fault({.call = Call::kFlock, .error = error});
        EXPECT_FALSE(os::isLocked(kPath)) << error;
    }
}

TEST_F(IsLocked, KeepsNeitherLockNorDescriptor)
{
    writeFile(kPath, "");
    const std::vector<int> before = openDescriptors();
    EXPECT_FALSE(os::isLocked(kPath));
    EXPECT_EQ(openDescriptors(), before);
    const int32_t lock = os::lockFile(kPath, 0);
    EXPECT_GE(lock, 0);
    os::unlockFile(lock);
}

TEST_F(IsLocked, WaitsForNothing)
{
    const int32_t lock = os::lockFile(kPath, 0);
    resetCalls();
    EXPECT_TRUE(os::isLocked(kPath));
    EXPECT_EQ(callTrace({Call::kFlock}).at(0).args[1], LOCK_SH | LOCK_NB);
    EXPECT_EQ(callCount(Call::kNanosleep), 0);
    os::unlockFile(lock);
}

TEST(WaitABit, IsOnePauseOfLessThanAMillisecond)
{
    int64_t seconds = -1;
    int64_t nanoseconds = -1;
    const ScopedFault pause({.call = Call::kNanosleep, .action = [&](const CallRecord& call) {
                                 seconds = call.pointer<const timespec>(0)->tv_sec;
                                 nanoseconds = call.pointer<const timespec>(0)->tv_nsec;
                                 return int64_t{0};
                             }});
    os::waitABit();
    EXPECT_EQ(pause.hits(), 1);
    EXPECT_EQ(seconds, 0);
    EXPECT_EQ(nanoseconds, kPollNs);
}

// --- Identity

// The descriptor of a file, and what the path says of it.
bool leads(const char* path, const char* opened)
{
    const int fd = open(opened, O_RDONLY | O_CLOEXEC);
    EXPECT_NE(fd, -1) << opened;
    const bool result = os::leadsTo(path, fd);
    close(fd);
    return result;
}

TEST_F(LeadsTo, TheFileByEveryWayToIt)
{
    std::filesystem::create_directory("sub");
    writeFile("f", "text");
    std::filesystem::create_hard_link("f", "hard");
    std::filesystem::create_symlink("f", "link");
    std::filesystem::create_symlink("link", "link2");
    for (const char* path : {"f", "./f", "sub/../f", "hard", "link", "link2"}) {
        EXPECT_TRUE(leads(path, "f")) << path;
        EXPECT_TRUE(leads("f", path)) << path;
    }
}

TEST_F(LeadsTo, NotAnotherFileWithTheSameBytes)
{
    writeFile("f", "text");
    writeFile("g", "text");
    EXPECT_FALSE(leads("f", "g"));
}

TEST_F(LeadsTo, NothingWhenThePathIsMissing)
{
    writeFile("f", "text");
    std::filesystem::create_symlink("nowhere", "dangling");
    EXPECT_FALSE(leads("missing", "f"));
    EXPECT_FALSE(leads("dangling", "f"));
}

TEST_F(LeadsTo, NotAFileThatHasBeenReplaced)
{
    writeFile("f", "old");
    writeFile("new", "new");
    const int fd = open("f", O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(os::leadsTo("f", fd));
    std::filesystem::rename("new", "f");
    EXPECT_FALSE(os::leadsTo("f", fd));
    close(fd);
}

TEST_F(LeadsTo, NothingByABadDescriptor)
{
    writeFile("f", "text");
    EXPECT_FALSE(os::leadsTo("f", RM_NONE));
}

TEST_F(LeadsTo, NotTheSameNumberOnAnotherFileSystem)
{
    writeFile("f", "text");
    const ScopedFault fault({.call = Call::kStat, .action = [](const CallRecord& call) {
                                 const int64_t result = passThrough(call);
                                 ++call.pointer<struct stat>(1)->st_dev;
                                 return result;
                             }});
    EXPECT_FALSE(leads("f", "f"));
    EXPECT_EQ(fault.hits(), 1);
}

TEST_F(IsEmptyFile, OnlyWithoutAByte)
{
    const int32_t lock = os::lockFile(kPath, 0);
    EXPECT_TRUE(os::isEmptyFile(lock));
    ASSERT_EQ(write(lock, "x", 1), 1);
    EXPECT_FALSE(os::isEmptyFile(lock));
    os::unlockFile(lock);
    EXPECT_FALSE(os::isEmptyFile(RM_NONE));
}

// --- Permissions

// As the call leaves the mode of "new", which stands for a file of 0600 until then.
void copyMode(const char* from)
{
    const int fd = open("new", O_WRONLY | O_CLOEXEC);
    ASSERT_NE(fd, -1);
    EXPECT_EQ(captureStderr([from, fd] { os::copyPermissions(from, fd); }), "");
    close(fd);
}

class CopiedMode : public rmtest::RmTest, public ::testing::WithParamInterface<mode_t>
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        writeFile("old", "old");
        writeFile("new", "new");
        ASSERT_EQ(chmod("new", 0600), 0);
        ASSERT_EQ(chmod("old", GetParam()), 0);
    }
};

INSTANTIATE_TEST_SUITE_P(Modes, CopiedMode,
                         ::testing::Values(0644, 0600, 0640, 0400, 0755, 0777, 0070, 0000, 04755,
                                           02750, 01777, 06711, 07777),
                         [](const ::testing::TestParamInfo<mode_t>& mode) {
                             char text[16];
                             std::snprintf(text, sizeof(text), "%04o", mode.param);
                             return std::string(text);
                         });

TEST_P(CopiedMode, IsThatOfTheOldFile)
{
    copyMode("old");
    EXPECT_EQ(modeOf("new"), GetParam());
    EXPECT_EQ(modeOf("old"), GetParam());
}

TEST_P(CopiedMode, OfAnotherOwnersFileHasNoSpecialBits)
{
    const ScopedFault fault({.call = Call::kFchown, .error = EPERM});
    copyMode("old");
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(callCount(Call::kFchown), 2);
    EXPECT_EQ(modeOf("new"), GetParam() & 0777U);
}

TEST_P(CopiedMode, OfAnotherOwnersAndGroupsFileHasNoneOfTheGroupEither)
{
    const ScopedFault fault({.call = Call::kFchown, .error = EPERM, .times = kForever});
    copyMode("old");
    EXPECT_EQ(fault.hits(), 2);
    EXPECT_EQ(modeOf("new"), GetParam() & 0707U);
}

TEST_F(CopyPermissions, AsksForOwnerAndGroupBeforeItSetsTheMode)
{
    constexpr uid_t kOwner = 12'345;
    constexpr gid_t kGroup = 23'456;
    writeFile("old", "");
    writeFile("new", "");
    const ScopedFault status({.call = Call::kStat, .action = [](const CallRecord& call) {
                                  const int64_t result = passThrough(call);
                                  call.pointer<struct stat>(1)->st_uid = kOwner;
                                  call.pointer<struct stat>(1)->st_gid = kGroup;
                                  return result;
                              }});
    const ScopedFault refused({.call = Call::kFchown, .error = EPERM});
    resetCalls();
    copyMode("old");
    // A change of owner takes some of the mode away.
    const std::vector<CallRecord> calls = callTrace({Call::kFchown, Call::kFchmod});
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[0].args[1], int64_t{kOwner});
    EXPECT_EQ(calls[0].args[2], int64_t{kGroup});
    EXPECT_EQ(static_cast<uid_t>(calls[1].args[1]), static_cast<uid_t>(-1));
    EXPECT_EQ(calls[1].args[2], int64_t{kGroup});
    EXPECT_EQ(calls[2].call, Call::kFchmod);
}

TEST_F(CopyPermissions, OfALinkAreThoseOfItsFile)
{
    writeFile("old", "");
    writeFile("new", "");
    ASSERT_EQ(chmod("old", 0640), 0);
    std::filesystem::create_symlink("old", "link");
    copyMode("link");
    EXPECT_EQ(modeOf("new"), 0640U);
}

TEST_F(CopyPermissions, ThatCannotBeSetAreSilent)
{
    writeFile("old", "");
    writeFile("new", "");
    const ScopedFault fault({.call = Call::kFchmod, .error = EPERM});
    copyMode("old");
    EXPECT_EQ(fault.hits(), 1);
}

TEST_F(CopyPermissions, WithoutTheOldFileChangeNothing)
{
    writeFile("new", "text");
    ASSERT_EQ(chmod("new", 0640), 0);
    resetCalls();
    copyMode("missing");
    EXPECT_THAT(callTrace({Call::kFchown, Call::kFchmod}), IsEmpty());
    EXPECT_EQ(modeOf("new"), 0640U);
}

TEST_F(CopyPermissions, LeaveTheBytesAsTheyAre)
{
    writeFile("old", "old");
    writeFile("new", "new");
    copyMode("old");
    EXPECT_EQ(readFile("old"), "old");
    EXPECT_EQ(readFile("new"), "new");
}

// --- The directory on the disk

TEST_F(BringDirectoryToDisk, SyncsTheDirectoryAndClosesIt)
{
    const std::vector<int> before = openDescriptors();
    ino_t synced = 0;
    const ScopedFault look({.call = Call::kFsync, .action = [&synced](const CallRecord& call) {
                                synced = fileOf(static_cast<int32_t>(call.args[0]));
                                return passThrough(call);
                            }});
    os::bringDirectoryToDisk(".");
    EXPECT_EQ(look.hits(), 1);
    EXPECT_EQ(synced, fileOf("."));
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(BringDirectoryToDisk, WithoutFileCommitMakesNoCall)
{
    fileCommit = 0;
    resetCalls();
    os::bringDirectoryToDisk(".");
    EXPECT_THAT(callTrace(), IsEmpty());
}

TEST_F(BringDirectoryToDisk, IsSilentAboutARefusal)
{
    const std::vector<int> before = openDescriptors();
    const ScopedFault fault({.call = Call::kFsync, .error = EINVAL});
    EXPECT_EQ(captureStderr([] { os::bringDirectoryToDisk("."); }), "");
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(BringDirectoryToDisk, OfNoDirectorySyncsNothing)
{
    writeFile("file", "");
    resetCalls();
    for (const char* path : {"missing", "file", ""}) {
        EXPECT_EQ(captureStderr([path] { os::bringDirectoryToDisk(path); }), "");
    }
    EXPECT_EQ(callCount(Call::kFsync), 0);
}

}  // namespace
