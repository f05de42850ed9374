// Changing INI files: the lock on the temporary file, by which processes take turns, and the moment
// in which there is no file. Other processes are played by this one: a lock belongs to a
// descriptor.
#include "tests/rmutil/ini_case.h"

#include <cerrno>
#include <memory>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace initest;

namespace
{

using rmtest::callCount;
using rmtest::CallRecord;

constexpr const char* kText = "[a]\nk=1\n";
constexpr const char* kChanged = "[a]\nk=2\n";

class IniLock : public IniTest
{
  protected:
    void SetUp() override
    {
        IniTest::SetUp();
        enterFastDirectory();
        writeFile(kFile, kText);
    }
};

class IniGap : public IniLock
{
};

// The lock that processes share which change files of one directory, as another process has it.
class CopyLock
{
  public:
    explicit CopyLock(const char* path = kTemporary)
        : fd_(open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
        taken_ = flock(fd_, LOCK_EX | LOCK_NB) == 0;
    }

    ~CopyLock() { close(fd_); }

    CopyLock(const CopyLock&) = delete;
    CopyLock& operator=(const CopyLock&) = delete;

    bool taken() const { return taken_; }

    void giveBack() const { flock(fd_, LOCK_UN); }

  private:
    int fd_;
    bool taken_ = false;
};

// Another process that replaces kFile again and again, at the worst moments: `moments` has a bit
// for each look that somebody takes at the file or the copy, the lowest one first. Before a look
// whose bit is set the file is taken away, or put back when it had been; and it always comes back
// while somebody waits. It is taken away only with the lock.
class BusyRewriter
{
  public:
    explicit BusyRewriter(uint32_t moments) : moments_(moments) {}

    ~BusyRewriter() { putBack(); }

    BusyRewriter(const BusyRewriter&) = delete;
    BusyRewriter& operator=(const BusyRewriter&) = delete;

    // Times that it has taken the file away.
    int taken() const { return taken_; }

  private:
    ScopedFault beforeEach(Call call)
    {
        return look(call, [this](const CallRecord& record) {
            const bool looked = record.path() == kFile || record.path() == kTemporary;
            const bool moves = looked && (moments_ & 1U) != 0;
            moments_ >>= looked ? 1U : 0U;
            if (moves) {
                change();
            }
        });
    }

    void change()
    {
        if (lock_ != nullptr) {
            putBack();
        } else {
            takeAway();
        }
    }

    void takeAway()
    {
        lock_ = std::make_unique<CopyLock>();
        if (!lock_->taken()) {
            lock_.reset();
            return;
        }
        std::filesystem::copy_file(kFile, kTemporary,
                                   std::filesystem::copy_options::overwrite_existing);
        std::filesystem::remove(kFile);
        ++taken_;
    }

    void putBack()
    {
        if (lock_ != nullptr) {
            std::filesystem::rename(kTemporary, kFile);
            lock_.reset();
        }
    }

    uint32_t moments_;
    int taken_ = 0;
    std::unique_ptr<CopyLock> lock_;
    ScopedFault atOpen_ = beforeEach(Call::kOpen);
    ScopedFault atStat_ = beforeEach(Call::kStat);
    FastTime time_{[this] { putBack(); }};
};

constexpr uint32_t kMoments = 1U << 8U;  // all patterns of eight looks

// --- The lock

TEST_F(IniLock, IsHeldWhileTheFileIsReadAndReplaced)
{
    int looks = 0;
    const auto taken = [&](const CallRecord&) {
        EXPECT_FALSE(CopyLock().taken());
        ++looks;
    };
    const ScopedFault atRead = look(Call::kRead, taken);
    const ScopedFault atRemove = look(Call::kRemove, taken);
    const ScopedFault atRename = look(Call::kRename, taken);
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(looks, 4) << "the block, the end of the file, and the two steps";
    EXPECT_TRUE(CopyLock().taken());
}

TEST_F(IniLock, IsGivenBackByEveryFailure)
{
    {
        const ScopedFault fault({.call = Call::kRename, .error = EIO});
        EXPECT_EQ(set("a", "k", "2"), RM_RENAME_FAILED);
        EXPECT_TRUE(CopyLock().taken());
    }
    EXPECT_EQ(set("a", "k", "2"), RM_CANNOT_OPEN) << "the file has gone";
    EXPECT_TRUE(CopyLock().taken());
    std::filesystem::rename(kTemporary, kFile);
    const ScopedFault fault({.call = Call::kWrite, .error = ENOSPC});
    rmtest::captureStderr([] { EXPECT_EQ(set("a", "k", "3"), RM_RENAME_FAILED); });
    EXPECT_TRUE(CopyLock().taken());
}

TEST_F(IniLock, IsWaitedForAndThenGivenUp)
{
    const CopyLock other;
    ASSERT_TRUE(other.taken());
    const FastTime time;
    EXPECT_EQ(set("a", "k", "2"), RM_CANNOT_OPEN);
    EXPECT_GT(time.waits(), 10);
    EXPECT_NEAR(time.seconds() * 100, 14.0, 0.2);
    EXPECT_EQ(readFile(kFile), kText);
    EXPECT_EQ(readFile(kTemporary), "") << "what the other has made is not touched";
}

TEST_F(IniLock, IsTakenAsSoonAsItIsFree)
{
    const CopyLock other;
    ASSERT_TRUE(other.taken());
    const FastTime time([&] { other.giveBack(); });
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(time.waits(), 1);
    EXPECT_EQ(readFile(kFile), kChanged);
}

TEST_F(IniLock, IsTakenAnewWhenTheOtherHasRenamedItsCopy)
{
    const CopyLock other;
    writeFile(kTemporary, "the other's");
    const FastTime time([&] {
        if (std::filesystem::exists(kTemporary)) {
            std::filesystem::rename(kTemporary, "y.ini");
        }
        other.giveBack();
    });
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(readFile(kFile), kChanged);
    EXPECT_EQ(readFile("y.ini"), "the other's");
}

TEST_F(IniLock, IsTakenAnewWhenTheOtherHasRemovedItsCopy)
{
    const CopyLock other;
    const FastTime time([&] {
        std::filesystem::remove(kTemporary);
        other.giveBack();
    });
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(readFile(kFile), kChanged);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

TEST_F(IniLock, IsTakenAnewWhenTheOtherWasDoneBetweenOpeningAndLocking)
{
    bool first = true;
    const ScopedFault spy = look(Call::kFlock, [&](const CallRecord&) {
        if (std::exchange(first, false)) {
            std::filesystem::rename(kTemporary, "y.ini");
        }
    });
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(readFile(kFile), kChanged);
    EXPECT_EQ(readFile("y.ini"), "");
}

TEST_F(IniLock, WithoutItsFileEndsTheChangeBeforeTheOldOneIsRemoved)
{
    fileCommit = -1;
    // Somebody cleans up without asking for the lock.
    const ScopedFault spy =
        look(Call::kFsync, [](const CallRecord&) { std::filesystem::remove(kTemporary); });
    EXPECT_EQ(set("a", "k", "2"), RM_RENAME_FAILED);
    EXPECT_EQ(readFile(kFile), kText);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

TEST_F(IniLock, IsTakenAnewWhenTheOneWhoMadeItWasSlower)
{
    // Between the two attempts to open the copy another process makes it, and is done with it.
    const ScopedFault made(
        {.call = Call::kOpen, .error = EEXIST, .when = [](const CallRecord& call) {
             return call.path() == kTemporary && (call.args[1] & O_EXCL) != 0;
         }});
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(made.hits(), 1);
    EXPECT_EQ(readFile(kFile), kChanged);
}

TEST_F(IniLock, IsOneForEachDirectory)
{
    std::filesystem::create_directory("d");
    writeFile("d/x.ini", kText);
    const CopyLock other;
    ASSERT_TRUE(other.taken());
    EXPECT_EQ(set("a", "k", "2", "d/x.ini"), RM_SUCCESS);
    EXPECT_EQ(readFile("d/x.ini"), kChanged);
    EXPECT_EQ(callCount(Call::kNanosleep), 0);
}

TEST_F(IniLock, IsNotThatOfTheHostOnItsDirectory)
{
    const int host = open(".", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(host, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(callCount(Call::kNanosleep), 0);
    close(host);
}

TEST_F(IniLock, IsDoneWithoutWhereTheSystemHasNone)
{
    for (const int error : {ENOSYS, EOPNOTSUPP, ENOLCK, EBADF, EINVAL}) {
        const ScopedFault fault({.call = Call::kFlock, .error = error, .times = kForever});
        EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS) << error;
        EXPECT_EQ(fault.hits(), 1);
    }
    EXPECT_EQ(callCount(Call::kNanosleep), 0);
}

TEST_F(IniLock, OnALinkIsRefused)
{
    writeFile("other", "text");
    std::filesystem::create_symlink("other", kTemporary);
    EXPECT_EQ(set("a", "k", "2"), RM_CANNOT_OPEN);
    EXPECT_EQ(readFile(kFile), kText);
    EXPECT_EQ(readFile("other"), "text");
    EXPECT_TRUE(std::filesystem::is_symlink(kTemporary));
}

TEST_F(IniLock, OnAFileWithAnotherNameIsRefused)
{
    writeFile("other", "text");
    std::filesystem::create_hard_link("other", kTemporary);
    EXPECT_EQ(set("a", "k", "2"), RM_CANNOT_OPEN);
    EXPECT_EQ(readFile(kFile), kText);
    EXPECT_EQ(readFile("other"), "text");
}

TEST_F(IniLock, OnAPipeIsRefused)
{
    ASSERT_EQ(mkfifo(kTemporary, 0600), 0);
    EXPECT_EQ(set("a", "k", "2"), RM_CANNOT_OPEN);
    const int reader = open(kTemporary, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(set("a", "k", "2"), RM_CANNOT_OPEN);
    close(reader);
    EXPECT_EQ(readFile(kFile), kText);
}

TEST_F(IniLock, ThatWasTakenInVainLeavesNoFile)
{
    const ScopedFault fault({.call = Call::kOpen, .error = EACCES, .when = [](const auto& call) {
                                 return call.path() == kFile;
                             }});
    EXPECT_EQ(set("a", "k", "2"), RM_CANNOT_OPEN);
    EXPECT_EQ(namesIn("."), (std::set<std::string>{kFile}));
}

TEST_F(IniLock, ThatWasTakenInVainLeavesAFileOfAnother)
{
    writeFile(kTemporary, "all that is left");
    const ScopedFault fault({.call = Call::kOpen, .error = EACCES, .when = [](const auto& call) {
                                 return call.path() == kFile;
                             }});
    EXPECT_EQ(set("a", "k", "2"), RM_CANNOT_OPEN);
    EXPECT_EQ(readFile(kTemporary), "all that is left");
}

// --- The moment in which there is no file

TEST_F(IniGap, IsNothingToAReaderThatFindsTheFile)
{
    const CopyLock other;
    ASSERT_TRUE(other.taken());
    rmtest::resetCalls();
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_EQ(ask("a", "no"), notFound());
    EXPECT_EQ(callCount(Call::kFlock), 0);
}

TEST_F(IniGap, IsNotWaitedForWithoutATemporaryFile)
{
    std::filesystem::remove(kFile);
    EXPECT_EQ(ask("a", "k"), notFound());
    EXPECT_EQ(callCount(Call::kNanosleep), 0);
    EXPECT_THAT(namesIn("."), IsEmpty());
}

TEST_F(IniGap, OfADeadProcessHoldsNoReaderUp)
{
    std::filesystem::rename(kFile, kTemporary);
    EXPECT_EQ(ask("a", "k"), notFound());
    EXPECT_EQ(callCount(Call::kNanosleep), 0);
    EXPECT_EQ(readFile(kTemporary), kText);
}

TEST_F(IniGap, MakesAReaderWait)
{
    std::filesystem::rename(kFile, kTemporary);
    const CopyLock other;
    ASSERT_TRUE(other.taken());
    const FastTime time([&] {
        std::filesystem::rename(kTemporary, kFile);
        other.giveBack();
    });
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_EQ(time.waits(), 1);
}

TEST_F(IniGap, MakesAChangeWait)
{
    std::filesystem::rename(kFile, kTemporary);
    const CopyLock other;
    ASSERT_TRUE(other.taken());
    const FastTime time([&] {
        std::filesystem::rename(kTemporary, kFile);
        other.giveBack();
    });
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(readFile(kFile), kChanged);
}

TEST_F(IniGap, IsNotSeenByAReaderHoweverOftenTheFileIsReplaced)
{
    int taken = 0;
    for (uint32_t moments = 0; moments < kMoments; ++moments) {
        const BusyRewriter other(moments);
        ASSERT_EQ(value("a", "k"), "1") << moments;
        taken += other.taken();
    }
    EXPECT_GT(taken, 100);
}

TEST_F(IniGap, IsNotSeenByAChangeHoweverOftenTheFileIsReplaced)
{
    int taken = 0;
    for (uint32_t moments = 0; moments < kMoments; ++moments) {
        writeFile(kFile, kText);
        {
            const BusyRewriter other(moments);
            ASSERT_EQ(set("a", "k", "2"), RM_SUCCESS) << moments;
            taken += other.taken();
        }
        ASSERT_EQ(readFile(kFile), kChanged) << moments;
    }
    EXPECT_GT(taken, 100);
}

TEST_F(IniGap, IsWaitedForByAReaderOnlySoLong)
{
    std::filesystem::remove(kFile);
    const CopyLock other;
    ASSERT_TRUE(other.taken());
    const FastTime time;
    EXPECT_EQ(ask("a", "k"), notFound());
    EXPECT_GT(time.waits(), 10);
    EXPECT_NEAR(time.seconds() * 100, 14.0, 0.2);
}

}  // namespace
