// Moving whole files: by their names where that is possible, else by a copy that is brought to the
// disk before the source goes.
#include "tests/rmutil/copy_case.h"

#include <cstdlib>

using namespace copytest;

namespace
{

class FileMove : public CopyCase
{
};

// Between file systems: a rename is refused.
class FileMoveAcross : public CopyCase
{
  private:
    ScopedFault refused_{{.call = Call::kRename, .error = EXDEV, .times = kForever}};
};

// --- By the name

TEST_F(FileMove, RenamesTheFile)
{
    writeFile("src", pattern(10'000));
    const ino_t inode = inodeOf("src");
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS); }), IsEmpty());
    EXPECT_EQ(readFile("dst"), pattern(10'000));
    EXPECT_EQ(inodeOf("dst"), inode);
    EXPECT_FALSE(isThere("src"));
}

TEST_F(FileMove, KeepsThePermissionsOfARenamedFile)
{
    writeFile("src", "text");
    std::filesystem::permissions("src", std::filesystem::perms{0751});
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(permissionsOf("dst"), 0751U);
}

TEST_F(FileMove, RemovesTheDestinationAndThenTriesToRename)
{
    writeFile("src", "text");
    writeFile("dst", "old");
    resetCalls();
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_THAT(
        pathCalls({Call::kRemove, Call::kRename, Call::kOpen, Call::kFsync, Call::kGetMemory}),
        ElementsAre("remove dst", "rename src dst"));
    EXPECT_EQ(readFile("dst"), "text");
}

TEST_F(FileMove, ToTheSameTextDoesNothing)
{
    writeFile("src", "text");
    resetCalls();
    const int16_t result = rm_fileMove("src", "src");
    EXPECT_TRUE(callTrace().empty());
    EXPECT_EQ(result, RM_SUCCESS);
    EXPECT_EQ(readFile("src"), "text");
}

TEST_F(FileMove, ToTheSameTextDoesNothingAlsoWhenThereIsNoSuchFile)
{
    const std::string one = "missing";
    const std::string other = "missing";
    resetCalls();
    const int16_t result = rm_fileMove(one.c_str(), other.c_str());
    EXPECT_TRUE(callTrace().empty());
    EXPECT_EQ(result, RM_SUCCESS);
}

TEST_F(FileMove, ToAnotherSpellingOfItsPathLosesTheFile)
{
    writeFile("src", "text");
    EXPECT_EQ(rm_fileMove("src", "./src"), RM_COPY_FAILED);
    EXPECT_FALSE(isThere("src"));
}

TEST_F(FileMove, OfAMissingSourceFailsAndLosesTheDestination)
{
    writeFile("dst", "old");
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileMove("src", "dst"), -1018); }), IsEmpty());
    EXPECT_FALSE(isThere("dst"));
}

TEST_F(FileMove, IntoAMissingDirectoryFailsAndKeepsTheSource)
{
    writeFile("src", "text");
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileMove("src", "missing/dst"), -1018); }), IsEmpty());
    EXPECT_EQ(readFile("src"), "text");
}

TEST_F(FileMove, OfADirectoryRenamesIt)
{
    std::filesystem::create_directory("src");
    writeFile("src/inside", "text");
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst/inside"), "text");
    EXPECT_FALSE(isThere("src"));
}

TEST_F(FileMove, OntoADirectoryWithFilesFailsAndKeepsBoth)
{
    writeFile("src", "text");
    std::filesystem::create_directory("dst");
    writeFile("dst/inside", "more");
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_COPY_FAILED);
    EXPECT_EQ(readFile("src"), "text");
    EXPECT_EQ(readFile("dst/inside"), "more");
}

TEST_F(FileMove, OfALinkMovesTheLink)
{
    writeFile("file", "text");
    std::filesystem::create_symlink("file", "src");
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_TRUE(std::filesystem::is_symlink("dst"));
    EXPECT_EQ(readFile("file"), "text");
}

// A rename asks no table: the file that is open stays what it was, and its path leads to the new
// one.
TEST_F(FileMove, OntoAFileThatIsOpenReplacesItsName)
{
    writeFile("src", "text");
    const int16_t held = openWith("dst", "held");
    expectHandles(1);
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), "text");
    EXPECT_EQ(read(held, 10), "held");
}

TEST_F(FileMove, OfAFileThatIsOpenLeavesItsHandle)
{
    const int16_t held = openWith("src", kDigits);
    expectHandles(1);
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(read(held, 20), kDigits);
    EXPECT_FALSE(isThere("src"));
}

TEST_F(FileMove, RenamesAlsoWhenTheDestinationCouldNotBeRemoved)
{
    writeFile("src", "text");
    writeFile("dst", "old");
    const ScopedFault fault({.call = Call::kRemove, .error = EBUSY, .times = kForever});
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), "text");
    EXPECT_FALSE(isThere("src"));
}

class FileMoveHandleZero : public FileTest
{
};

TEST_F(FileMoveHandleZero, IsNotNeededForARename)
{
    writeFile("src", "text");
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), "text");
    EXPECT_EQ(file::ftab, nullptr);
}

TEST_F(FileMoveHandleZero, FailsTheCopyAndKeepsTheSource)
{
    writeFile("src", "text");
    const ScopedFault fault({.call = Call::kRename, .error = EXDEV, .times = kForever});
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_COPY_FAILED);
    EXPECT_EQ(readFile("src"), "text");
    EXPECT_FALSE(isThere("dst"));
    EXPECT_EQ(file::nHandles, 1);
    // What it has opened takes handle 0, and the path of the source with it.
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), "text");
    EXPECT_EQ(readFile("src"), "text");
}

// --- By a copy

class FileMoveAcrossOfSize : public FileMoveAcross,
                             public ::testing::WithParamInterface<std::size_t>
{
};

TEST_P(FileMoveAcrossOfSize, MovesEveryByte)
{
    const std::string bytes = pattern(GetParam());
    writeFile("src", bytes);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS); }), IsEmpty());
    EXPECT_EQ(readFile("dst"), bytes);
    EXPECT_FALSE(isThere("src"));
}

INSTANTIATE_TEST_SUITE_P(Bytes, FileMoveAcrossOfSize,
                         ::testing::Values(0, 1, 4095, 4096, 4097, 8192, 100'000),
                         ::testing::PrintToStringParamName());

TEST_F(FileMoveAcross, CopiesSyncsAndOnlyThenRemovesTheSource)
{
    writeFile("src", "text");
    writeFile("dst", "old");
    resetCalls();
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_THAT(pathCalls({Call::kRemove, Call::kRename, Call::kOpen, Call::kRead, Call::kWrite,
                           Call::kFsync, Call::kClose}),
                ElementsAre("remove dst", "rename src dst", "remove dst", "open src", "open dst",
                            "read", "write", "read", "fsync", "close", "close", "open .", "fsync",
                            "close", "remove src"));
}

TEST_F(FileMoveAcross, SyncsTheDestination)
{
    writeFile("src", "text");
    resetCalls();
    rm_fileMove("src", "dst");
    const auto syncs = callTrace({Call::kFsync});
    ASSERT_EQ(syncs.size(), 2U);
    EXPECT_EQ(syncs[0].args[0], descriptorOf("dst"));
    EXPECT_EQ(syncs[1].args[0], descriptorOf("."));
}

TEST_F(FileMoveAcross, SyncsTheDirectoryOfTheDestination)
{
    writeFile("src", "text");
    std::filesystem::create_directories("one/two");
    resetCalls();
    EXPECT_EQ(rm_fileMove("src", "one/two/dst"), RM_SUCCESS);
    const auto syncs = callTrace({Call::kFsync});
    ASSERT_EQ(syncs.size(), 2U);
    EXPECT_EQ(syncs[1].args[0], descriptorOf("one/two/"));
}

TEST_F(FileMoveAcross, IsDoneAlsoWhenTheDirectoryCannotBeSynced)
{
    writeFile("src", "text");
    const ScopedFault fault(failing(Call::kFsync, EIO, 1));
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_FALSE(isThere("src"));
}

// Under another descriptor than the one that has made it, it could be another file.
TEST_F(FileMoveAcross, NeverParksItsDestination)
{
    fileHandleLimit = 1;
    writeFile("src", pattern(2 * kStep));
    resetCalls();
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_THAT(pathCalls({Call::kOpen, Call::kRead, Call::kWrite, Call::kFsync}),
                ElementsAre("open src", "open dst", "open src", "read", "write", "read", "write",
                            "read", "fsync", "open .", "fsync"));
    EXPECT_EQ(readFile("dst"), pattern(2 * kStep));
    EXPECT_FALSE(isThere("src"));
}

TEST_F(FileMoveAcross, DoesNotSyncWhenTheServerNeverDoes)
{
    fileCommit = 0;
    writeFile("src", "text");
    resetCalls();
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(callCount(Call::kFsync), 0);
    EXPECT_FALSE(isThere("src"));
    EXPECT_EQ(readFile("dst"), "text");
}

TEST_F(FileMoveAcross, GivesTheDestinationThePermissionsOfNewFiles)
{
    writeFile("src", "text");
    std::filesystem::permissions("src", std::filesystem::perms{0751});
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(permissionsOf("dst"), 0600U);
}

TEST_F(FileMoveAcross, OfALinkMovesWhatItLeadsToAndRemovesTheLink)
{
    writeFile("file", "text");
    std::filesystem::create_symlink("file", "src");
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_FALSE(std::filesystem::is_symlink("dst"));
    EXPECT_EQ(readFile("dst"), "text");
    EXPECT_FALSE(isThere("src"));
    EXPECT_EQ(readFile("file"), "text");
}

// An empty file in its place would be all that is left.
TEST_F(FileMoveAcross, OfADirectoryFailsAndKeepsIt)
{
    std::filesystem::create_directory("src");
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileMove("src", "dst"), -1018); }),
                ElementsAre(cannotRead(EISDIR)));
    EXPECT_TRUE(std::filesystem::is_directory("src"));
}

TEST_F(FileMoveAcross, OfAMissingSourceFails)
{
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_COPY_FAILED);
    EXPECT_FALSE(isThere("dst"));
}

TEST_F(FileMoveAcross, OntoAFileThatIsOpenFailsAndKeepsBoth)
{
    writeFile("src", "text");
    const int16_t held = openWith("dst", "held");
    expectHandles(1);
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_COPY_FAILED);
    EXPECT_EQ(readFile("src"), "text");
    EXPECT_EQ(readFile("dst"), "held");
    EXPECT_EQ(read(held, 10), "held");
}

// A file that a handle holds is never removed, and the move does not mind.
TEST_F(FileMoveAcross, OfAFileThatIsOpenLeavesItWhereItIs)
{
    const int16_t held = openWith("src", kDigits);
    expectHandles(1);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS); }), IsEmpty());
    EXPECT_EQ(readFile("dst"), kDigits);
    EXPECT_EQ(readFile("src"), kDigits);
    EXPECT_EQ(read(held, 20), kDigits);
}

TEST_F(FileMoveAcross, ThatCannotRemoveTheSourceLeavesBoth)
{
    writeFile("src", "text");
    const ScopedFault fault({.call = Call::kRemove,
                             .error = EPERM,
                             .when = [](const CallRecord& c) { return c.path() == "src"; }});
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(readFile("src"), "text");
    EXPECT_EQ(readFile("dst"), "text");
}

TEST_F(FileMoveAcross, ToAFileThatAppearsMeanwhileFailsAndKeepsBoth)
{
    writeFile("src", "text");
    const ScopedFault fault(
        {.call = Call::kOpen, .when = makesFile, .action = [](const CallRecord& call) {
             writeFile("dst", "another's");
             return passThrough(call);
         }});
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_COPY_FAILED);
    EXPECT_EQ(readFile("src"), "text");
    EXPECT_EQ(readFile("dst"), "another's");
}

TEST_F(FileMoveAcross, OfALargeFileMovesWhatLiesBeyondTwoGiB)
{
    constexpr uint32_t kStart = 0x7FFFF000U;
    writeSparse("src", int64_t{kStart} + 10'000, {{kStart, pattern(10'000)}});
    const OnceOpen once([] { startAt(kStart); });
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readSome("dst", kStart, 20'000), pattern(10'000));
    EXPECT_FALSE(isThere("src"));
}

TEST_F(FileMoveAcross, OfAFileThatIsTooLargeFailsAndKeepsIt)
{
    constexpr uint32_t kStart = 0xFFFFE000U;
    constexpr int64_t kFourGiB = int64_t{1} << 32;
    writeSparse("src", kFourGiB, {});
    const OnceOpen once([] { startAt(kStart); });
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileMove("src", "dst"), -1018); }),
                ElementsAre(cannotRead(EFBIG)));
    EXPECT_EQ(std::filesystem::file_size("src"), static_cast<uint64_t>(kFourGiB));
}

// Steps of another length lead to the last position exactly, with more behind it.
TEST_F(FileMoveAcross, OfAFileThatIsTooLargeFailsAndKeepsItWhateverTheSteps)
{
    constexpr int64_t kFourGiB = int64_t{1} << 32;
    writeSparse("src", kFourGiB + 100, {});
    const OnceOpen once([] { startAt(0xFFFFFFFFU - 30); });
    const ScopedFault fault({.call = Call::kRead, .result = 10});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileMove("src", "dst"), -1018); }),
                ElementsAre(cannotRead(EFBIG)));
    EXPECT_TRUE(isThere("src"));
}

// Whatever the reason why the rename was refused.
class FileMoveRefusedRename : public CopyCase, public ::testing::WithParamInterface<int>
{
};

TEST_P(FileMoveRefusedRename, IsFollowedByACopy)
{
    writeFile("src", pattern(5000));
    const ScopedFault fault({.call = Call::kRename, .error = GetParam()});
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(readFile("dst"), pattern(5000));
    EXPECT_FALSE(isThere("src"));
}

INSTANTIATE_TEST_SUITE_P(With, FileMoveRefusedRename,
                         ::testing::Values(EACCES, EBUSY, EDQUOT, EINVAL, EISDIR, ELOOP, EMLINK,
                                           ENAMETOOLONG, ENOENT, ENOMEM, ENOSPC, ENOTDIR, ENOTEMPTY,
                                           EEXIST, EPERM, EROFS, EXDEV, EIO),
                         [](const ::testing::TestParamInfo<int>& error) {
                             return std::string(strerrorname_np(error.param));
                         });

// --- What is lost, and what is not

class FileMoveIncomplete : public FileMoveAcross
{
  protected:
    // A move of three blocks fails with these lines; the source is kept whole, and the destination
    // has what arrived.
    static void expectKept(const Lines& lines, const std::string& arrived)
    {
        writeFile("src", block('a') + block('b') + block('c'));
        EXPECT_EQ(linesOf([] { EXPECT_EQ(rm_fileMove("src", "dst"), -1018); }), lines);
        EXPECT_EQ(readFile("src"), block('a') + block('b') + block('c'));
        EXPECT_EQ(readFile("dst"), arrived);
    }
};

TEST_F(FileMoveIncomplete, OntoAFullDiskKeepsTheSource)
{
    const ScopedFault fault(failing(Call::kWrite, ENOSPC, 1, kForever));
    expectKept({cannotWrite(ENOSPC), cannotWrite(ENOSPC)}, block('a'));
}

TEST_F(FileMoveIncomplete, WithOneFailedWriteKeepsTheSource)
{
    const ScopedFault fault(failing(Call::kWrite, EIO, 1));
    expectKept({cannotWrite(EIO)}, block('a') + block('c'));
}

TEST_F(FileMoveIncomplete, WithTheFirstWriteFailedKeepsTheSource)
{
    const ScopedFault fault(failing(Call::kWrite, EIO));
    expectKept({cannotWrite(EIO)}, block('b') + block('c'));
}

TEST_F(FileMoveIncomplete, WithTheLastWriteFailedKeepsTheSource)
{
    const ScopedFault fault(failing(Call::kWrite, EIO, 2));
    expectKept({cannotWrite(EIO)}, block('a') + block('b'));
}

TEST_F(FileMoveIncomplete, WithAShortWriteAndNoRoomForTheRestKeepsTheSource)
{
    const ScopedFault partial({.call = Call::kWrite, .skip = 1, .result = 4095});
    const ScopedFault full(failing(Call::kWrite, ENOSPC, 1));
    expectKept({cannotWrite(ENOSPC)}, block('a') + std::string(4095, 'b') + block('c'));
}

TEST_F(FileMoveAcross, WithShortWritesMovesEveryByte)
{
    writeFile("src", pattern(20'000));
    const ScopedFault fault({.call = Call::kWrite, .times = 7, .result = 999});
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), pattern(20'000));
    EXPECT_FALSE(isThere("src"));
}

TEST_F(FileMoveIncomplete, WithAReadFailedAtOnceKeepsTheSource)
{
    const ScopedFault fault(failing(Call::kRead, EIO));
    expectKept({cannotRead(EIO)}, "");
}

TEST_F(FileMoveIncomplete, WithAReadFailedInTheMiddleKeepsTheSource)
{
    const ScopedFault fault(failing(Call::kRead, EIO, 2));
    expectKept({cannotRead(EIO)}, block('a') + block('b'));
}

TEST_F(FileMoveIncomplete, WithTheReadOfTheEndFailedKeepsTheSource)
{
    const ScopedFault fault(failing(Call::kRead, EIO, 3));
    expectKept({cannotRead(EIO)}, block('a') + block('b') + block('c'));
}

TEST_F(FileMoveIncomplete, NeedsNoSync)
{
    const ScopedFault fault(failing(Call::kWrite, EIO));
    resetCalls();
    expectKept({cannotWrite(EIO)}, block('b') + block('c'));
    EXPECT_EQ(callCount(Call::kFsync), 0);
}

TEST_F(FileMoveIncomplete, ThatTheDiskDoesNotTakeKeepsTheSource)
{
    const ScopedFault fault(failing(Call::kFsync, EIO));
    expectKept({}, block('a') + block('b') + block('c'));
}

TEST_F(FileMoveIncomplete, WhoseSyncIsInterruptedSixTimesKeepsTheSource)
{
    const ScopedFault fault(failing(Call::kFsync, EINTR, 0, 6));
    expectKept({}, block('a') + block('b') + block('c'));
    EXPECT_EQ(fault.hits(), 6);
}

TEST_F(FileMoveAcross, WhoseSyncIsInterruptedFiveTimesIsDone)
{
    writeFile("src", "text");
    const ScopedFault fault(failing(Call::kFsync, EINTR, 0, 5));
    EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
    EXPECT_FALSE(isThere("src"));
}

TEST_F(FileMoveAcross, ToWhatHasNothingToSyncIsDone)
{
    for (const int error : {EINVAL, ENOTSUP}) {
        writeFile("src", "text");
        const ScopedFault fault(failing(Call::kFsync, error));
        EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS);
        EXPECT_FALSE(isThere("src"));
    }
}

TEST_F(FileMoveIncomplete, WhoseSourceVanishesMeanwhileFails)
{
    fileHandleLimit = 1;
    writeFile("src", block('a') + block('b'));
    const OnceOpen once([] { std::filesystem::remove("src"); });
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileMove("src", "dst"), -1018); }),
                ElementsAre("WARNING: failed file reopen in rm_fileRead(1)", cannotRead(EBADF),
                            "rm_fileClose: invalid handle 1"));
    EXPECT_EQ(readFile("dst"), "");
}

// Another process removes the destination: the bytes and the sync go where no path leads.
TEST_F(FileMoveIncomplete, WhoseDestinationIsGoneBeforeTheSyncKeepsTheSource)
{
    for (const int16_t limit : {int16_t{32}, int16_t{1}}) {
        for (const Call moment : {Call::kRead, Call::kWrite, Call::kFsync}) {
            fileHandleLimit = limit;
            writeFile("src", pattern(3 * kStep));
            const Spy remover(moment, [](const CallRecord&) { std::filesystem::remove("dst"); });
            EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileMove("src", "dst"), -1018); }), IsEmpty());
            EXPECT_GT(remover.seen(), 0);
            EXPECT_TRUE(isThere("src")) << "the file is lost";
            EXPECT_FALSE(isThere("dst"));
        }
    }
}

// The file that takes its place is also a file of as many bytes.
TEST_F(FileMoveIncomplete, WhoseDestinationIsAnotherFileByThenKeepsTheSource)
{
    for (const int16_t limit : {int16_t{32}, int16_t{1}}) {
        fileHandleLimit = limit;
        writeFile("src", block('a') + block('b'));
        const Spy replacer(Call::kFsync, [](const CallRecord&) {
            std::filesystem::remove("dst");
            writeFile("dst", block('x') + block('y'));
        });
        EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileMove("src", "dst"), -1018); }), IsEmpty());
        EXPECT_EQ(replacer.seen(), 1);
        EXPECT_EQ(readFile("src"), block('a') + block('b'));
        EXPECT_EQ(readFile("dst"), block('x') + block('y'));
    }
}

// --- Really between two file systems, where the machine has them at these places

class FileMoveBetween : public CopyCase
{
  protected:
    void SetUp() override
    {
        CopyCase::SetUp();
        std::string path = "/dev/shm/rmtest-XXXXXX";
        ASSERT_NE(mkdtemp(path.data()), nullptr);
        there_ = path;
    }

    void TearDown() override
    {
        std::filesystem::remove_all(there_);
        CopyCase::TearDown();
    }

    std::string there(const char* name) const { return there_ / name; }

  private:
    std::filesystem::path there_;
};

TEST_F(FileMoveBetween, TwoPlacesTakesTheFileAlong)
{
    writeFile("src", pattern(20'000));
    writeFile(there("dst"), "old");
    EXPECT_EQ(rm_fileMove("src", there("dst").c_str()), RM_SUCCESS);
    EXPECT_EQ(readFile(there("dst")), pattern(20'000));
    EXPECT_FALSE(isThere("src"));
}

TEST_F(FileMoveBetween, TwoPlacesAndBackAgainIsTheSameFile)
{
    writeFile("src", pattern(20'000));
    EXPECT_EQ(rm_fileMove("src", there("dst").c_str()), RM_SUCCESS);
    EXPECT_EQ(rm_fileMove(there("dst").c_str(), "src"), RM_SUCCESS);
    EXPECT_EQ(readFile("src"), pattern(20'000));
    EXPECT_FALSE(isThere(there("dst")));
}

TEST_F(FileMoveBetween, TwoPlacesSyncsWhereItHasToCopy)
{
    writeFile("src", "text");
    struct stat here = {};
    struct stat other = {};
    ASSERT_EQ(stat(".", &here), 0);
    ASSERT_EQ(stat(there(".").c_str(), &other), 0);
    resetCalls();
    EXPECT_EQ(rm_fileMove("src", there("dst").c_str()), RM_SUCCESS);
    EXPECT_EQ(callCount(Call::kFsync), here.st_dev == other.st_dev ? 0 : 2);
    EXPECT_EQ(readFile(there("dst")), "text");
}

TEST_F(FileMoveBetween, TwoPlacesOfWhichOneIsADirectoryWithFilesKeepsTheSource)
{
    writeFile("src", "text");
    std::filesystem::create_directory(there("dst"));
    writeFile(there("dst") + "/inside", "more");
    EXPECT_EQ(rm_fileMove("src", there("dst").c_str()), RM_COPY_FAILED);
    EXPECT_EQ(readFile("src"), "text");
}

}  // namespace
