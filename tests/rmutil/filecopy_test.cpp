// Copying whole files: which calls are made, what arrives, what is refused and what is lost by it.
#include "tests/rmutil/copy_case.h"

#include <limits>

using namespace copytest;

namespace
{

constexpr int64_t kMiB = 1024 * 1024;

class FileCopy : public CopyCase
{
};

class FileCopySteps : public CopyCase
{
};

class FileCopyPaths : public CopyCase
{
};

class FileCopyHandles : public CopyCase
{
};

class FileCopyLarge : public CopyCase
{
};

// True when both files have the same bytes. They may be larger than what one wants to hold.
bool sameBytes(const char* one, const char* other)
{
    const auto size = std::filesystem::file_size(one);
    if (std::filesystem::file_size(other) != size) {
        return false;
    }
    const int left = ::open(one, O_RDONLY | O_CLOEXEC);
    const int right = ::open(other, O_RDONLY | O_CLOEXEC);
    constexpr std::size_t kPiece = std::size_t{1} << 20;
    std::string a(kPiece, '\0');
    std::string b(kPiece, '\0');
    bool same = true;
    for (std::uintmax_t at = 0; same && at < size; at += kPiece) {
        const ssize_t bytes = read(left, a.data(), kPiece);
        same = bytes > 0 && read(right, b.data(), kPiece) == bytes && a == b;
    }
    close(left);
    close(right);
    return same;
}

// --- What arrives

class FileCopyOfSize : public CopyCase, public ::testing::WithParamInterface<std::size_t>
{
};

TEST_P(FileCopyOfSize, HasTheSameBytesAndLeavesTheSource)
{
    const std::string bytes = pattern(GetParam());
    writeFile("src", bytes);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS); }), IsEmpty());
    EXPECT_EQ(readFile("dst"), bytes);
    EXPECT_EQ(readFile("src"), bytes);
}

INSTANTIATE_TEST_SUITE_P(Bytes, FileCopyOfSize,
                         ::testing::Values(0, 1, 2, 511, 512, 4095, 4096, 4097, 8191, 8192, 8193,
                                           12'288, 100'000, std::size_t{kMiB}),
                         ::testing::PrintToStringParamName());

TEST_F(FileCopy, TakesThePlaceOfALongerFile)
{
    writeFile("src", "short");
    writeFile("dst", pattern(10'000));
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), "short");
}

TEST_F(FileCopy, IsANewFileWhereAnotherOneStood)
{
    writeFile("src", "new");
    writeFile("dst", "old");
    std::filesystem::create_hard_link("dst", "second name");
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), "new");
    EXPECT_EQ(readFile("second name"), "old");
}

TEST_F(FileCopy, IsForItsOwnerOnlyWhateverTheSourceIs)
{
    const mode_t before = umask(0);
    writeFile("src", "x");
    std::filesystem::permissions("src", std::filesystem::perms{0755});
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(permissionsOf("dst"), 0600U);
    umask(before);
}

TEST_F(FileCopy, IsSubjectToTheMaskOfTheProcess)
{
    writeFile("src", "x");
    const mode_t before = umask(0277);
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    umask(before);
    EXPECT_EQ(permissionsOf("dst"), 0400U);
    EXPECT_EQ(readFile("dst"), "x");
}

TEST_F(FileCopy, IsNotGrownAheadWhenTheDiskHasRoom)
{
    rmDiskFull = 0;
    writeFile("src", pattern(5000));
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(std::filesystem::file_size("dst"), 5000U);
    EXPECT_EQ(growSem, RM_NONE);
}

TEST_F(FileCopy, IsMadeAlsoWhenTheDiskCountsAsFull)
{
    rmDiskFull = 1;
    writeFile("src", pattern(5000));
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), pattern(5000));
}

TEST_F(FileCopy, OfACopyIsTheSameAgain)
{
    writeFile("src", pattern(9999));
    EXPECT_EQ(rm_fileCopy("src", "one"), RM_SUCCESS);
    EXPECT_EQ(rm_fileCopy("one", "two"), RM_SUCCESS);
    EXPECT_EQ(readFile("two"), pattern(9999));
}

TEST_F(FileCopy, CountsEveryReadAndWrite)
{
    writeFile("src", pattern(2 * kStep));
    rm_fileCopy("src", "dst");
    EXPECT_EQ(file::fileOps, 2 + 2 + 1);
}

// --- The calls

TEST_F(FileCopySteps, RemoveOpenTransferAndClose)
{
    writeFile("src", "text");
    writeFile("dst", "old");
    resetCalls();
    rm_fileCopy("src", "dst");
    EXPECT_THAT(pathCalls({Call::kRemove, Call::kOpen, Call::kRead, Call::kWrite, Call::kClose,
                           Call::kFsync, Call::kRename}),
                ElementsAre("remove dst", "open src", "open dst", "read", "write", "read", "close",
                            "close"));
}

TEST_F(FileCopySteps, OpenTheSourceToReadAndTheDestinationAsANewFile)
{
    writeFile("src", "text");
    resetCalls();
    rm_fileCopy("src", "dst");
    const auto opens = callTrace({Call::kOpen});
    ASSERT_EQ(opens.size(), 2U);
    EXPECT_EQ(opens[0].args[1], O_RDONLY);
    EXPECT_EQ(opens[1].args[1], O_RDWR | O_CREAT | O_EXCL);
    EXPECT_EQ(opens[1].args[2], 0600);
}

TEST_F(FileCopySteps, GiveTheSourceItsArguments)
{
    writeFile("src", "text");
    int seen = 0;
    const OnceOpen once([&] {
        const file::FileEntry* from = entryOf(kFrom);
        EXPECT_STREQ(from->name, "src");
        EXPECT_EQ(from->openFlags, 0U);
        EXPECT_EQ(from->modeFlags, 0);
        EXPECT_EQ(from->initialSize, 8192U);
        EXPECT_EQ(from->growIncrement, 16'384U);
        ++seen;
    });
    rm_fileCopy("src", "dst");
    EXPECT_EQ(seen, 1);
}

TEST_F(FileCopySteps, GiveTheDestinationItsArguments)
{
    writeFile("src", "text");
    const Spy spy(Call::kOpen, [&](const CallRecord& call) {
        if (call.path() == "dst") {
            const file::FileEntry* to = entryOf(kTo);
            EXPECT_EQ(to->openFlags, 0x502U);
            EXPECT_EQ(to->modeFlags, 0);
            EXPECT_EQ(to->initialSize, 0U);
            EXPECT_EQ(to->growIncrement, 16'384U);
        }
    });
    rm_fileCopy("src", "dst");
    EXPECT_EQ(spy.seen(), 2);
}

TEST_F(FileCopySteps, AreOf4096Bytes)
{
    writeFile("src", pattern(3 * kStep));
    resetCalls();
    rm_fileCopy("src", "dst");
    EXPECT_THAT(lengthsOf(Call::kRead), ElementsAre(4096, 4096, 4096, 4096));
    EXPECT_THAT(lengthsOf(Call::kWrite), ElementsAre(4096, 4096, 4096));
}

// So the read that finds the end asks for what the last piece had.
TEST_F(FileCopySteps, AskEachTimeForWhatThePreviousReadGave)
{
    writeFile("src", pattern(2 * kStep + 1808));
    resetCalls();
    rm_fileCopy("src", "dst");
    EXPECT_THAT(lengthsOf(Call::kRead), ElementsAre(4096, 4096, 4096, 1808));
    EXPECT_THAT(lengthsOf(Call::kWrite), ElementsAre(4096, 4096, 1808));
}

TEST_F(FileCopySteps, StaySmallAfterAShortRead)
{
    const std::string bytes = pattern(kStep + 250);
    writeFile("src", bytes);
    resetCalls();
    {
        const ScopedFault fault({.call = Call::kRead, .skip = 1, .result = 100});
        EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    }
    EXPECT_THAT(lengthsOf(Call::kRead), ElementsAre(4096, 100, 100, 100, 50));
    EXPECT_THAT(lengthsOf(Call::kWrite), ElementsAre(4096, 100, 100, 50));
    EXPECT_EQ(readFile("dst"), bytes);
}

TEST_F(FileCopySteps, WriteOnWhatFallsShort)
{
    const std::string bytes = pattern(2 * kStep);
    writeFile("src", bytes);
    resetCalls();
    const ScopedFault fault({.call = Call::kWrite, .times = 2, .result = 1000});
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_THAT(lengthsOf(Call::kWrite), ElementsAre(1000, 1000, 2096, 4096));
    EXPECT_EQ(readFile("dst"), bytes);
}

TEST_F(FileCopySteps, OfOneByteCopyTheWholeFile)
{
    const std::string bytes = pattern(700);
    writeFile("src", bytes);
    const ScopedFault fault({.call = Call::kRead, .result = 1});
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(callCount(Call::kWrite), 700);
    EXPECT_EQ(readFile("dst"), bytes);
}

TEST_F(FileCopySteps, NeedOneBufferUnderTagZeroAndGiveItBack)
{
    writeFile("src", pattern(20'000));
    const uint32_t before = rm_memused();
    uint32_t during = 0;
    const Spy spy(Call::kRead, [&](const CallRecord&) { during = rm_memused(); });
    resetCalls();
    rm_fileCopy("src", "dst");
    int buffers = 0;
    for (const CallRecord& call : callTrace({Call::kGetMemory})) {
        buffers += call.args[0] == 4096 && call.args[1] == 0 ? 1 : 0;
    }
    EXPECT_EQ(buffers, 1);
    EXPECT_GE(during, before + 4096);
    EXPECT_EQ(rm_memused(), before);
}

TEST_F(FileCopySteps, CloseTheSourceBeforeTheDestination)
{
    writeFile("src", "text");
    resetCalls();
    rm_fileCopy("src", "dst");
    const auto closes = callTrace({Call::kClose});
    ASSERT_EQ(closes.size(), 2U);
    EXPECT_EQ(closes[0].args[0], descriptorOf("src"));
    EXPECT_EQ(closes[1].args[0], descriptorOf("dst"));
}

TEST_F(FileCopySteps, NeverSync)
{
    writeFile("src", "text");
    fileCommit = -1;
    rm_fileCopy("src", "dst");
    EXPECT_EQ(callCount(Call::kFsync), 0);
}

// --- Paths

TEST_F(FileCopyPaths, OfEqualTextsDoNothing)
{
    writeFile("src", "text");
    resetCalls();
    const int32_t result = rm_fileCopy("src", "src");
    EXPECT_TRUE(callTrace().empty());
    EXPECT_EQ(result, RM_SUCCESS);
    EXPECT_EQ(readFile("src"), "text");
}

TEST_F(FileCopyPaths, OfEqualTextsDoNothingAlsoWhenThereIsNoSuchFile)
{
    const std::string one = "missing/file";
    const std::string other = "missing/file";
    resetCalls();
    const int32_t result = rm_fileCopy(one.c_str(), other.c_str());
    EXPECT_TRUE(callTrace().empty());
    EXPECT_EQ(result, RM_SUCCESS);
}

TEST_F(FileCopyPaths, ThatAreBothEmptyAreEqual)
{
    EXPECT_EQ(rm_fileCopy("", ""), RM_SUCCESS);
}

TEST_F(FileCopyPaths, ThatAreEmptyCannotBeOpened)
{
    writeFile("src", "text");
    EXPECT_EQ(rm_fileCopy("src", ""), RM_COPY_FAILED);
    EXPECT_EQ(readFile("src"), "text");
    EXPECT_EQ(rm_fileCopy("", "dst"), RM_COPY_FAILED);
    EXPECT_FALSE(isThere("dst"));
}

TEST_F(FileCopyPaths, OfOneFileInTwoSpellingsLoseIt)
{
    writeFile("src", "text");
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "./src"), -1018); }), IsEmpty());
    EXPECT_FALSE(isThere("src"));
}

TEST_F(FileCopyPaths, ThatDifferInCaseAreTwoFiles)
{
    writeFile("src", "text");
    EXPECT_EQ(rm_fileCopy("src", "SRC"), RM_SUCCESS);
    EXPECT_EQ(readFile("SRC"), "text");
    EXPECT_EQ(readFile("src"), "text");
}

TEST_F(FileCopyPaths, OfALinkToTheSourceReplaceTheLink)
{
    writeFile("src", "text");
    std::filesystem::create_symlink("src", "dst");
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_FALSE(std::filesystem::is_symlink("dst"));
    EXPECT_EQ(readFile("dst"), "text");
    EXPECT_EQ(readFile("src"), "text");
}

TEST_F(FileCopyPaths, OfASourceThatLinksToTheDestinationLoseTheFile)
{
    writeFile("dst", "text");
    std::filesystem::create_symlink("dst", "src");
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_COPY_FAILED);
    EXPECT_FALSE(isThere("dst"));
}

TEST_F(FileCopyPaths, OfTwoNamesOfOneFileLeaveTwoFiles)
{
    writeFile("src", "text");
    std::filesystem::create_hard_link("src", "dst");
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), "text");
    EXPECT_NE(inodeOf("dst"), inodeOf("src"));
}

TEST_F(FileCopyPaths, OfALinkCopyWhatItLeadsTo)
{
    writeFile("file", "text");
    std::filesystem::create_symlink("file", "src");
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_FALSE(std::filesystem::is_symlink("dst"));
    EXPECT_EQ(readFile("dst"), "text");
}

TEST_F(FileCopyPaths, OfAMissingSourceLoseTheDestination)
{
    writeFile("dst", "old");
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), -1018); }), IsEmpty());
    EXPECT_FALSE(isThere("dst"));
}

TEST_F(FileCopyPaths, IntoAMissingDirectoryFailAndKeepTheSource)
{
    writeFile("src", "text");
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "missing/dst"), -1018); }), IsEmpty());
    EXPECT_EQ(readFile("src"), "text");
}

TEST_F(FileCopyPaths, ThroughAFileFail)
{
    writeFile("src", "text");
    writeFile("file", "no directory");
    EXPECT_EQ(rm_fileCopy("src", "file/dst"), RM_COPY_FAILED);
    EXPECT_EQ(readFile("file"), "no directory");
}

TEST_F(FileCopyPaths, BeyondTheLimitOfTheSystemFail)
{
    writeFile("src", "text");
    EXPECT_EQ(rm_fileCopy("src", std::string(5000, 'x').c_str()), RM_COPY_FAILED);
    EXPECT_EQ(rm_fileCopy(std::string(5000, 'x').c_str(), "dst"), RM_COPY_FAILED);
}

TEST_F(FileCopyPaths, IntoAReadOnlyDirectoryFailAndKeepWhatIsThere)
{
    writeFile("src", "text");
    writeFile("dst", "old");
    const ScopedFault remove({.call = Call::kRemove, .error = EACCES});
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_COPY_FAILED);
    EXPECT_EQ(readFile("dst"), "old");
}

TEST_F(FileCopyPaths, IntoAReadOnlyDirectoryFailWithoutADestination)
{
    writeFile("src", "text");
    const ScopedFault remove({.call = Call::kRemove, .error = EACCES});
    const ScopedFault open({.call = Call::kOpen, .error = EACCES, .when = makesFile});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), -1018); }), IsEmpty());
    EXPECT_FALSE(isThere("dst"));
    EXPECT_EQ(readFile("src"), "text");
}

TEST_F(FileCopyPaths, OfADirectoryMakeAnEmptyFile)
{
    std::filesystem::create_directory("src");
    writeFile("src/inside", "text");
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS); }),
                ElementsAre(cannotRead(EISDIR)));
    EXPECT_TRUE(std::filesystem::is_regular_file("dst"));
    EXPECT_EQ(readFile("dst"), "");
    EXPECT_EQ(readFile("src/inside"), "text");
}

TEST_F(FileCopyPaths, OntoADirectoryWithFilesFailAndLeaveIt)
{
    writeFile("src", "text");
    std::filesystem::create_directory("dst");
    writeFile("dst/inside", "more");
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), -1018); }), IsEmpty());
    EXPECT_EQ(readFile("dst/inside"), "more");
    EXPECT_EQ(readFile("src"), "text");
}

// The system removes an empty directory like a file.
TEST_F(FileCopyPaths, OntoAnEmptyDirectoryTakeItsPlace)
{
    writeFile("src", "text");
    std::filesystem::create_directory("dst");
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), "text");
}

TEST_F(FileCopyPaths, OfADeviceThatIsAtItsEndMakeAnEmptyFile)
{
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("/dev/null", "dst"), RM_SUCCESS); }), IsEmpty());
    EXPECT_EQ(readFile("dst"), "");
}

// --- A destination that is there after all

TEST_F(FileCopyPaths, ToAFileThatAppearsMeanwhileFailAndLeaveIt)
{
    writeFile("src", "text");
    const ScopedFault fault(
        {.call = Call::kOpen, .when = makesFile, .action = [](const CallRecord& call) {
             writeFile("dst", "another's");
             return passThrough(call);
         }});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), -1018); }), IsEmpty());
    EXPECT_EQ(readFile("dst"), "another's");
}

TEST_F(FileCopyPaths, ToALinkThatAppearsMeanwhileDoNotWriteThroughIt)
{
    writeFile("src", "text");
    const ScopedFault fault(
        {.call = Call::kOpen, .when = makesFile, .action = [](const CallRecord& call) {
             std::filesystem::create_symlink("elsewhere", "dst");
             return passThrough(call);
         }});
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_COPY_FAILED);
    EXPECT_FALSE(isThere("elsewhere"));
}

TEST_F(FileCopyPaths, ToAFileThatCannotBeRemovedFailAndLeaveIt)
{
    writeFile("src", "text");
    writeFile("dst", "old");
    const ScopedFault fault({.call = Call::kRemove, .error = EBUSY});
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_COPY_FAILED);
    EXPECT_EQ(readFile("dst"), "old");
    EXPECT_EQ(readFile("src"), "text");
}

TEST_F(FileCopyPaths, ToANewFileDoNotMindThatNothingCouldBeRemoved)
{
    writeFile("src", "text");
    const ScopedFault fault({.call = Call::kRemove, .error = EIO});
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), "text");
}

// --- Handles

TEST_F(FileCopyHandles, OfADestinationThatIsOpenByItsPathKeepIt)
{
    writeFile("src", "text");
    const int16_t held = openWith("dst", "held");
    expectHandles(1);
    resetCalls();
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), -1018); }), IsEmpty());
    EXPECT_EQ(callCount(Call::kRemove), 0);
    EXPECT_EQ(readFile("dst"), "held");
    EXPECT_EQ(read(held, 10), "held");
}

TEST_F(FileCopyHandles, OfADestinationThatIsParkedKeepItToo)
{
    writeFile("src", "text");
    const int16_t held = parkedWith("dst", "held");
    expectHandles(1);
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_COPY_FAILED);
    EXPECT_EQ(read(held, 10), "held");
}

TEST_F(FileCopyHandles, OfADestinationThatIsOpenByAnotherSpellingGoOnWithTheOldFile)
{
    writeFile("src", "text");
    const int16_t held = openWith("./dst", "held");
    expectHandles(1);
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), "text");
    EXPECT_EQ(read(held, 10), "held");
}

TEST_F(FileCopyHandles, OfTheSourceDoNotMove)
{
    const int16_t held = openWith("src", kDigits);
    expectHandles(1);
    rm_fileSeek(held, 4);
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(rm_filePosition(held), 4U);
    EXPECT_EQ(read(held, 10), "456789");
    EXPECT_EQ(readFile("dst"), kDigits);
}

TEST_F(FileCopyHandles, AreGivenBackWhenTheDestinationCannotBeOpened)
{
    writeFile("src", "text");
    EXPECT_EQ(rm_fileCopy("src", "missing/dst"), RM_COPY_FAILED);
    EXPECT_EQ(counts(), (Counts{1, 0, 0, 0}));
    EXPECT_EQ(file::usedEntry(kFrom), nullptr);
}

// Parking has its turn among the three: each call of the transfer reopens what it needs.
class FileCopyWithLimit : public CopyCase, public ::testing::WithParamInterface<int16_t>
{
};

TEST_P(FileCopyWithLimit, HasTheSameBytes)
{
    fileHandleLimit = GetParam();
    const std::string bytes = pattern(5 * kStep + 77);
    writeFile("src", bytes);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS); }), IsEmpty());
    EXPECT_EQ(readFile("dst"), bytes);
    EXPECT_LE(counts().open, 1U);
}

INSTANTIATE_TEST_SUITE_P(Descriptors, FileCopyWithLimit, ::testing::Values(-1, 0, 1, 2, 3, 4),
                         [](const ::testing::TestParamInfo<int16_t>& limit) {
                             return limit.param == -1 ? "NoLimit" : std::to_string(limit.param);
                         });

TEST_F(FileCopyHandles, AreParkedInTurnWhenThereIsOneDescriptor)
{
    fileHandleLimit = 1;
    writeFile("src", pattern(3 * kStep));
    resetCalls();
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_THAT(pathCalls({Call::kOpen, Call::kRead, Call::kWrite}),
                ElementsAre("open src", "open dst", "open src", "read", "open dst", "write",
                            "open src", "read", "open dst", "write", "open src", "read", "open dst",
                            "write", "open src", "read"));
    EXPECT_EQ(readFile("dst"), pattern(3 * kStep));
}

TEST_F(FileCopyHandles, AreReopenedWithoutTheExclusiveBit)
{
    fileHandleLimit = 1;
    writeFile("src", pattern(kStep));
    resetCalls();
    rm_fileCopy("src", "dst");
    std::vector<int64_t> flags;
    for (const CallRecord& call : callTrace({Call::kOpen})) {
        if (call.path() == "dst") {
            flags.push_back(call.args[1]);
        }
    }
    EXPECT_THAT(flags, ElementsAre(O_RDWR | O_CREAT | O_EXCL, O_RDWR | O_CREAT));
}

// --- Handle 0, without the keeper

class FileCopyHandleZero : public FileTest
{
};

TEST_F(FileCopyHandleZero, OfTheSourceCountsAsAFailureAndStaysOpen)
{
    writeFile("src", "text");
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), -1018); }), IsEmpty());
    EXPECT_FALSE(isThere("dst"));
    ASSERT_NE(file::usedEntry(0), nullptr);
    EXPECT_STREQ(entryOf(0)->name, "src");
    EXPECT_EQ(read(0, 10), "text");
}

TEST_F(FileCopyHandleZero, OfTheSourceCostsTheDestination)
{
    writeFile("src", "text");
    writeFile("dst", "old");
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_COPY_FAILED);
    EXPECT_FALSE(isThere("dst"));
}

TEST_F(FileCopyHandleZero, StaysOpenSoThatTheSecondCopyWorks)
{
    writeFile("src", "text");
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_COPY_FAILED);
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), "text");
    EXPECT_EQ(counts().open, 1U);
}

TEST_F(FileCopyHandleZero, IsTakenByALogFile)
{
    openLog("log");
    writeFile("src", "text");
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(readFile("dst"), "text");
}

TEST_F(FileCopyHandleZero, IsNotTakenByAMissingSource)
{
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_COPY_FAILED);
    EXPECT_EQ(file::nHandles, 0);
    EXPECT_EQ(file::ftab, nullptr);
}

// It can become free between the two opens only when somebody closes it there.
TEST_F(FileCopyHandleZero, OfTheDestinationCountsAsAFailureAndStaysOpen)
{
    writeFile("src", "text");
    openNew(kKeeper);
    const ScopedFault fault({.call = Call::kOpen,
                             .when = [](const CallRecord& call) { return call.path() == "src"; },
                             .action =
                                 [](const CallRecord& call) {
                                     const int64_t fd = passThrough(call);
                                     rm_fileClose(0);
                                     return fd;
                                 }});
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_COPY_FAILED);
    EXPECT_EQ(readFile("dst"), "");
    EXPECT_EQ(file::nHandles, 1);
    ASSERT_NE(file::usedEntry(0), nullptr);
    EXPECT_STREQ(entryOf(0)->name, "dst");
}

// --- Large files

// Everyday runs copy less; RM_TEST_OPERATIONS=1024 copies the gibibyte.
TEST_F(FileCopyLarge, WithoutContentsHasTheSameBytes)
{
    const int64_t size = rmtest::operationsOfThisRun(64) * kMiB;
    writeSparse("src", size, {{0, "first"}, {size / 2 - 2, "middle"}, {size - 4, "last"}});
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_TRUE(sameBytes("src", "dst"));
}

// The position of both handles is set as it would be then, so that the rest is all to be copied.
TEST_F(FileCopyLarge, GoesOnBeyondTwoGiB)
{
    constexpr uint32_t kStart = 0x7FFFF000U;
    writeSparse("src", int64_t{kStart} + 10'000, {{kStart, pattern(10'000)}});
    const OnceOpen once([] { startAt(kStart); });
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(std::filesystem::file_size("dst"), uint64_t{kStart} + 10'000);
    EXPECT_EQ(readSome("dst", kStart, 20'000), pattern(10'000));
}

TEST_F(FileCopyLarge, ReachesTheLastOffsetThatAHandleCanHave)
{
    constexpr uint32_t kStart = 0xFFFFE000U;
    constexpr uint32_t kSize = 0xFFFFFFFEU;
    writeSparse("src", kSize, {{kStart, pattern(kSize - kStart)}});
    const OnceOpen once([] { startAt(kStart); });
    resetCalls();
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(std::filesystem::file_size("dst"), kSize);
    EXPECT_EQ(readSome("dst", kStart, 20'000), pattern(kSize - kStart));
    EXPECT_THAT(lengthsOf(Call::kRead), ElementsAre(4096, 4096, 4094));
}

TEST_F(FileCopyLarge, EndsAtTheEndOfAFileThatTakesAllPositions)
{
    constexpr uint32_t kStart = 0xFFFFE000U;
    constexpr uint32_t kSize = 0xFFFFFFFFU;
    writeSparse("src", kSize, {{kStart, pattern(kSize - kStart)}});
    const OnceOpen once([] { startAt(kStart); });
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS); }), IsEmpty());
    EXPECT_EQ(readSome("dst", kStart, 20'000), pattern(kSize - kStart));
}

// Round the 32 bits of a position it would come to the beginning again, for ever.
TEST_F(FileCopyLarge, EndsWhereAPositionWouldGoRound)
{
    constexpr uint32_t kStart = 0xFFFFE000U;
    constexpr int64_t kFourGiB = int64_t{1} << 32;
    writeSparse("src", kFourGiB + 10'000, {{kStart, pattern(10'000)}});
    const OnceOpen once([] { startAt(kStart); });
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS); }),
                ElementsAre(cannotRead(EFBIG)));
    EXPECT_EQ(readSome("dst", kStart, 20'000), pattern(kStep));
}

}  // namespace
