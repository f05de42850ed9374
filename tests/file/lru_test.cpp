// Parking and coming back: the sweep that chooses a victim, what a parked file keeps, and how the
// next operation finds it.
#include "tests/file/file_case.h"

#include <fstream>

#include <fcntl.h>

using namespace filetest;

namespace
{

class FileSweep : public FileTest
{
  protected:
    // The next victim, -1 when there is none.
    static int sweep()
    {
        std::vector<uint8_t> before;
        for (int16_t slot = 0; slot < file::ftabSize; ++slot) {
            before.push_back(entryOf(slot)->state);
        }
        file::closeOneOpenFile();
        for (int16_t slot = 0; slot < file::ftabSize; ++slot) {
            if (entryOf(slot)->state != before[static_cast<std::size_t>(slot)]) {
                EXPECT_EQ(entryOf(slot)->state, file::kSlotParked);
                return slot;
            }
        }
        return -1;
    }

    static void clearBits()
    {
        for (int16_t slot = 0; slot < file::ftabSize; ++slot) {
            entryOf(slot)->recentlyUsed = 0;
        }
    }

    static void setBits()
    {
        for (int16_t slot = 0; slot < file::ftabSize; ++slot) {
            entryOf(slot)->recentlyUsed = 1;
        }
    }

    static std::vector<int> bits(int16_t n)
    {
        std::vector<int> values;
        for (int16_t slot = 0; slot < n; ++slot) {
            values.push_back(entryOf(slot)->recentlyUsed);
        }
        return values;
    }
};

class FileParking : public FileTest
{
};

class FileReopen : public FileTest
{
};

class FileReopenBy : public FileTest, public ::testing::WithParamInterface<FileOperation>
{
};

INSTANTIATE_TEST_SUITE_P(Operations, FileReopenBy, ::testing::ValuesIn(fileOperations()),
                         operationName);

// --- Who is chosen

TEST_F(FileSweep, The33rdOpenParksExactlyOneFileAtTheDefaultLimit)
{
    openMany(32);
    EXPECT_EQ(counts(), (Counts{32, 0, 0, 0}));
    openNew("f32");
    EXPECT_EQ(counts(), (Counts{32, 1, 1, 0}));
}

TEST_F(FileSweep, OfFilesThatWereAllUsedParksTheOneItBeganAt)
{
    openMany(33);
    EXPECT_EQ(entryOf(0)->state, file::kSlotParked);
    EXPECT_EQ(file::lruNext, 1);
}

TEST_F(FileSweep, BeginsAtLruNext)
{
    openMany(32);
    file::lruNext = 20;
    openNew("f32");
    EXPECT_EQ(entryOf(20)->state, file::kSlotParked);
    EXPECT_EQ(file::lruNext, 21);
}

TEST_F(FileSweep, TakesTheFirstFileThatWasNotUsedSinceItCameBy)
{
    openMany(8);
    clearBits();
    for (const int16_t used : std::to_array<int16_t>({0, 1, 3})) {
        rm_filePosition(used);
    }
    EXPECT_EQ(sweep(), 2);
}

TEST_F(FileSweep, AFileTouchedSinceTheLastOneSurvivesOnePass)
{
    openMany(33);
    rm_filePosition(1);
    openNew("f33");
    EXPECT_EQ(entryOf(1)->state, file::kSlotOpen);
    EXPECT_EQ(entryOf(1)->recentlyUsed, 0);
    EXPECT_EQ(entryOf(2)->state, file::kSlotParked);
}

TEST_F(FileSweep, AFileTouchedOnceDoesNotSurviveTwoPasses)
{
    openMany(4);
    clearBits();
    rm_filePosition(0);
    EXPECT_EQ(sweep(), 1);
    EXPECT_EQ(sweep(), 2);
    EXPECT_EQ(sweep(), 3);
    EXPECT_EQ(sweep(), 0);
}

TEST_F(FileSweep, ClearsTheBitsThatItPassesAndNoOthers)
{
    openMany(6);
    setBits();
    entryOf(3)->recentlyUsed = 0;
    file::lruNext = 1;
    EXPECT_EQ(sweep(), 3);
    EXPECT_THAT(bits(6), ElementsAre(1, 0, 0, 0, 1, 1));
}

TEST_F(FileSweep, ClearsTheBitsOfBusyPinnedParkedAndFreeSlotsToo)
{
    openMany(6);
    park(2);
    rm_fileClose(3);
    setBits();
    entryOf(0)->busyCount = 1;
    entryOf(1)->modeFlags |= FILE_PINNED;
    entryOf(4)->recentlyUsed = 0;
    file::lruNext = 0;
    EXPECT_EQ(sweep(), 4);
    EXPECT_THAT(bits(6), ElementsAre(0, 0, 0, 0, 0, 1));
    entryOf(0)->busyCount = 0;
}

TEST_F(FileSweep, NeverParksABusyFile)
{
    openMany(3);
    clearBits();
    file::lruNext = 0;
    entryOf(0)->busyCount = 1;
    EXPECT_EQ(sweep(), 1);
    EXPECT_EQ(sweep(), 2);
    EXPECT_EQ(sweep(), -1);
    entryOf(0)->busyCount = 0;
    EXPECT_EQ(sweep(), 0);
}

TEST_F(FileSweep, NeverParksAPinnedFile)
{
    openNew("pinned", FILE_PINNED);
    openMany(2);
    clearBits();
    file::lruNext = 0;
    EXPECT_EQ(sweep(), 1);
    EXPECT_EQ(sweep(), 2);
    EXPECT_EQ(sweep(), -1);
}

TEST_F(FileSweep, FindsItsVictimsInTurnOverSeveralRounds)
{
    fileHandleLimit = 4;
    std::vector<int> victims;
    openMany(4);
    for (int16_t i = 4; i < 10; ++i) {
        openNew(("f" + std::to_string(i)).c_str());
        for (int16_t slot = 0; slot < i; ++slot) {
            if (entryOf(slot)->state == file::kSlotParked &&
                std::find(victims.begin(), victims.end(), slot) == victims.end()) {
                victims.push_back(slot);
            }
        }
    }
    // 0 1 2 3 have lost their bits in the first turn. 4 and 5 come with a bit and keep it until the
    // sweep comes by; having passed them, it goes all the way round before it parks them.
    EXPECT_THAT(victims, ElementsAre(0, 1, 2, 3, 4, 5));
}

TEST_F(FileSweep, PassesFilesThatWereUsedInEveryRound)
{
    openMany(6);
    clearBits();
    file::lruNext = 0;
    std::vector<int> victims;
    for (int round = 0; round < 4; ++round) {
        rm_filePosition(2);
        rm_filePosition(5);
        victims.push_back(sweep());
    }
    EXPECT_THAT(victims, ElementsAre(0, 1, 3, 4));
    EXPECT_EQ(sweep(), 5);
    EXPECT_EQ(sweep(), 2);
}

TEST_F(FileSweep, WrapsAtTheEndOfTheTable)
{
    openMany(3);
    clearBits();
    file::lruNext = 31;
    EXPECT_EQ(sweep(), 0);
    EXPECT_EQ(file::lruNext, 1);
}

TEST_F(FileSweep, WrapsPastAVictimInTheLastSlot)
{
    openMany(32);
    clearBits();
    file::lruNext = 31;
    EXPECT_EQ(sweep(), 31);
    EXPECT_EQ(file::lruNext, 0);
}

TEST_F(FileSweep, GoesOverTheNewSlotsOfATableThatHasGrown)
{
    fileHandleLimit = -1;
    openMany(34);
    clearBits();
    file::lruNext = 32;
    EXPECT_EQ(sweep(), 32);
    EXPECT_EQ(sweep(), 33);
    EXPECT_EQ(sweep(), 0);
}

TEST_F(FileSweep, WithoutAVictimGivesUpAfterTwoTurns)
{
    openMany(3, FILE_PINNED);
    setBits();
    file::lruNext = 5;
    EXPECT_EQ(file::closeOneOpenFile(), -1);
    EXPECT_EQ(file::lruNext, 5);
    EXPECT_THAT(bits(32), ::testing::Each(0));
    EXPECT_EQ(counts(), (Counts{3, 0, 0, 0}));
}

TEST_F(FileSweep, WithoutAVictimLetsTheLimitBeExceededByOne)
{
    fileHandleLimit = 4;
    openMany(4, FILE_PINNED);
    EXPECT_EQ(openNew("one more"), 4);
    EXPECT_EQ(counts(), (Counts{5, 0, 0, 0}));
    EXPECT_EQ(openNew("another"), 5);
    EXPECT_EQ(counts(), (Counts{5, 1, 1, 0}));
}

TEST_F(FileSweep, WithoutAVictimLetsAFileComeBackToo)
{
    fileHandleLimit = 4;
    parkedWith("f", kDigits);
    openMany(4, FILE_PINNED);
    EXPECT_EQ(rm_fileLength(0), 10U);
    EXPECT_EQ(counts(), (Counts{5, 0, 1, 1}));
}

TEST_F(FileSweep, OfATableWithoutOpenFilesEnds)
{
    parkedWith("f", "");
    EXPECT_EQ(sweep(), -1);
}

TEST_F(FileSweep, IsNotMadeWithoutALimit)
{
    fileHandleLimit = -1;
    openMany(70);
    EXPECT_EQ(counts(), (Counts{70, 0, 0, 0}));
}

TEST_F(FileSweep, IsNotMadeBelowTheLimit)
{
    fileHandleLimit = 4;
    openMany(4);
    EXPECT_EQ(counts(), (Counts{4, 0, 0, 0}));
}

TEST_F(FileSweep, AfterTheLimitWasLoweredByTheHostParksOneFileAtATime)
{
    openMany(8);
    fileHandleLimit = 4;
    openNew("f8");
    EXPECT_EQ(counts(), (Counts{8, 1, 1, 0}));
}

TEST_F(FileSweep, WithALimitOf1KeepsOneFileOpen)
{
    fileHandleLimit = 1;
    openMany(3);
    EXPECT_EQ(counts(), (Counts{1, 2, 2, 0}));
    EXPECT_EQ(rm_fileLength(0), 0U);
    EXPECT_EQ(counts(), (Counts{1, 2, 3, 1}));
}

TEST_F(FileSweep, ReturnsTheResultOfTheClose)
{
    openMany(1);
    clearBits();
    ScopedFault fault({.call = Call::kClose, .error = EIO});
    EXPECT_EQ(file::closeOneOpenFile(), -1);
    EXPECT_EQ(entryOf(0)->state, file::kSlotParked);
    EXPECT_EQ(counts(), (Counts{0, 1, 1, 0}));
}

TEST_F(FileSweep, ReturnsZeroForACloseThatWorked)
{
    openMany(2);
    clearBits();
    EXPECT_EQ(file::closeOneOpenFile(), 0);
}

// --- What a parked file keeps

TEST_F(FileParking, ClosesTheDescriptor)
{
    openMany(2);
    const int fd = entryOf(0)->fd;
    park(0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(file::nFilesOpen, 1);
    EXPECT_EQ(file::nHandles, 2);
}

TEST_F(FileParking, KeepsTheHandleAndItsName)
{
    parkedWith("f", "");
    EXPECT_STREQ(entryOf(0)->name, "f");
    EXPECT_EQ(entryOf(0)->state, file::kSlotParked);
}

TEST_F(FileParking, KeepsThePosition)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 7);
    park(0);
    EXPECT_EQ(rm_filePosition(0), 7U);
}

TEST_F(FileParking, OfAStreamRecordsTheEndOfTheFile)
{
    openWith("f", kDigits, FILE_STREAM);
    rm_fileSeek(0, 3);
    park(0);
    EXPECT_EQ(rm_filePosition(0), 10U);
}

TEST_F(FileParking, OfAStreamClosesItThroughTheStream)
{
    openWith("f", kDigits, FILE_STREAM);
    resetCalls();
    park(0);
    EXPECT_EQ(callCount(Call::kFclose), 1);
    EXPECT_EQ(callCount(Call::kClose), 0);
}

TEST_F(FileParking, OfAnyOtherFileClosesTheDescriptorItself)
{
    openWith("f", kDigits);
    resetCalls();
    park(0);
    EXPECT_EQ(callCount(Call::kClose), 1);
    EXPECT_EQ(callCount(Call::kFclose), 0);
    EXPECT_EQ(callCount(Call::kLseek), 0);
}

TEST_F(FileParking, OfAStreamModeFileWithoutAStreamClosesTheDescriptor)
{
    openWith("f", kDigits, FILE_STREAM);
    rm_fileSeek(0, 3);
    const int fd = entryOf(0)->fd;
    FILE* stream = std::exchange(entryOf(0)->stream, nullptr);
    park(0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(rm_filePosition(0), 3U);
    std::fclose(stream);  // its descriptor has gone
}

// A place that is not known must not become the place where the next line goes.
TEST_F(FileParking, OfAStreamWhoseEndCannotBeFoundKeepsThePosition)
{
    openWith("f", kDigits, FILE_STREAM);
    rm_fileSeek(0, 10);
    {
        ScopedFault fault({.call = Call::kLseek, .error = EINVAL});
        park(0);
    }
    EXPECT_EQ(rm_filePosition(0), 10U);
    rm_filePrintf(0, "x");
    EXPECT_EQ(std::filesystem::file_size("f"), 11U);
}

TEST_F(FileParking, HappensInsideFileSem)
{
    fileHandleLimit = 4;
    openMany(4);
    int value = -1;
    Spy spy(Call::kClose, [&](const CallRecord&) { value = fileSemValue(); });
    openNew("f4");
    EXPECT_EQ(spy.seen(), 1);
    EXPECT_EQ(value, 0);
}

// --- Coming back

TEST_P(FileReopenBy, TheOperationWorksAsIfNothingHadHappened)
{
    const FileOperation& operation = GetParam();
    parkedWith("f", kDigits, operation.mode());
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(operation.run(0), operation.good); }), IsEmpty());
    EXPECT_EQ(entryOf(0)->state, file::kSlotOpen);
    EXPECT_EQ(counts(), (Counts{1, 0, 1, 1}));
}

TEST_P(FileReopenBy, AnotherFileIsParkedFirstAtTheLimit)
{
    const FileOperation& operation = GetParam();
    fileHandleLimit = 4;
    parkedWith("f", kDigits, operation.mode());
    openMany(4);
    std::vector<Call> order;
    Spy closing(Call::kClose, [&](const CallRecord&) { order.push_back(Call::kClose); });
    Spy opening(Call::kOpen, [&](const CallRecord&) { order.push_back(Call::kOpen); });
    operation.run(0);
    EXPECT_THAT(order, ElementsAre(Call::kClose, Call::kOpen));
    EXPECT_EQ(counts(), (Counts{4, 1, 2, 1}));
}

TEST_P(FileReopenBy, NoOtherFileIsParkedBelowTheLimit)
{
    const FileOperation& operation = GetParam();
    parkedWith("f", kDigits, operation.mode());
    openMany(4);
    operation.run(0);
    EXPECT_EQ(counts(), (Counts{5, 0, 1, 1}));
}

TEST_P(FileReopenBy, NoOtherFileIsParkedWithoutALimit)
{
    const FileOperation& operation = GetParam();
    fileHandleLimit = -1;
    parkedWith("f", kDigits, operation.mode());
    openMany(40);
    operation.run(0);
    EXPECT_EQ(counts(), (Counts{41, 0, 1, 1}));
}

TEST_P(FileReopenBy, AFileThatIsOpenIsNotTouched)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    resetCalls();
    EXPECT_EQ(operation.run(0), operation.good);
    EXPECT_EQ(callCount(Call::kOpen) + callCount(Call::kClose), 0);
    EXPECT_EQ(counts(), (Counts{1, 0, 0, 0}));
}

TEST_P(FileReopenBy, TheWorkIsDoneInsideFileSem)
{
    const FileOperation& operation = GetParam();
    parkedWith("f", kDigits, operation.mode());
    int value = -1;
    Spy spy(Call::kOpen, [&](const CallRecord&) { value = fileSemValue(); });
    operation.run(0);
    EXPECT_EQ(spy.seen(), 1);
    EXPECT_EQ(value, 0);
}

TEST_P(FileReopenBy, TheFileCannotBeParkedMeanwhile)
{
    const FileOperation& operation = GetParam();
    parkedWith("f", kDigits, operation.mode());
    int busy = -1;
    Spy spy(Call::kOpen, [&](const CallRecord&) { busy = entryOf(0)->busyCount; });
    operation.run(0);
    EXPECT_EQ(busy, 1);
}

TEST_F(FileReopen, ReadsOnAtTheSavedPosition)
{
    openWith("f", kDigits);
    EXPECT_EQ(read(0, 4), "0123");
    park(0);
    EXPECT_EQ(read(0, 4), "4567");
    park(0);
    EXPECT_EQ(read(0, 4), "89");
}

TEST_F(FileReopen, WritesOnAtTheSavedPosition)
{
    openNew("f");
    write(0, "0123");
    park(0);
    write(0, "4567");
    EXPECT_EQ(readFile("f"), "01234567");
}

TEST_F(FileReopen, BringsTheDescriptorBackToItsPlace)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 6);
    park(0);
    rm_fileLength(0);
    EXPECT_EQ(lseek(entryOf(0)->fd, 0, SEEK_CUR), 6);
    EXPECT_EQ(seekRead(0, RM_CURRENT_POSITION, 4), "6789");
}

TEST_F(FileReopen, GoesBackToAPlaceBeyond2GiB)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 0xFFFFFFFEU);
    park(0);
    rm_fileLength(0);
    EXPECT_EQ(lseek(entryOf(0)->fd, 0, SEEK_CUR), 0xFFFFFFFELL);
}

TEST_F(FileReopen, OfAStreamGoesOnAtTheEndAndNotWhereItStood)
{
    openWith("f", kDigits, FILE_STREAM);
    rm_fileSeek(0, 2);
    park(0);
    rm_filePrintf(0, "end");
    EXPECT_EQ(readFile("f"), "0123456789end");
}

TEST_F(FileReopen, OfAStreamKeepsWhatOthersHaveAppended)
{
    openNew("f", FILE_STREAM);
    rm_filePrintf(0, "mine ");
    std::ofstream("f", std::ios::app) << "theirs ";
    park(0);
    rm_filePrintf(0, "mine again");
    EXPECT_EQ(readFile("f"), "mine theirs mine again");
}

TEST_F(FileReopen, AttachesANewStream)
{
    parkedWith("f", "", FILE_STREAM);
    EXPECT_EQ(entryOf(0)->stream, nullptr);
    rm_filePrintf(0, "x");
    EXPECT_NE(entryOf(0)->stream, nullptr);
}

TEST_F(FileReopen, DoesNotTruncateASecondTime)
{
    rm_fileOpen("f", kReadWrite | RM_O_TRUNC, 0, 0, 0);
    write(0, kDigits);
    park(0);
    EXPECT_EQ(rm_fileLength(0), 10U);
    EXPECT_EQ(readFile("f"), kDigits);
}

TEST_F(FileReopen, OfAFileThatWasCreatedExclusivelyFindsIt)
{
    rm_fileOpen("f", kReadWrite | RM_O_EXCL, 0, 0, 0);
    write(0, kDigits);
    park(0);
    EXPECT_EQ(seekRead(0, 0, 10), kDigits);
}

TEST_F(FileReopen, CreatesAFileThatIsGoneWhenItWasOpenedToCreate)
{
    openNew("f");
    park(0);
    std::filesystem::remove("f");
    EXPECT_EQ(write(0, "new"), 3U);
    EXPECT_EQ(readFile("f"), "new");
}

TEST_F(FileReopen, MeasuresTheFileAgain)
{
    parkedWith("f", kDigits);
    std::ofstream("f", std::ios::app) << "grown by others";
    rm_fileLength(0);
    EXPECT_EQ(entryOf(0)->knownSize, 25U);
}

TEST_F(FileReopen, ExtendsAFileThatIsBelowItsInitialSizeAgain)
{
    rmDiskFull = 0;
    openNew("f", 0, 600);
    park(0);
    std::filesystem::resize_file("f", 10);
    EXPECT_EQ(rm_fileLength(0), 600U);
    EXPECT_EQ(entryOf(0)->knownSize, 600U);
}

TEST_F(FileReopen, StandsAtItsPositionAfterExtending)
{
    rmDiskFull = 0;
    openNew("f", 0, 600);
    rm_fileSeek(0, 5);
    park(0);
    std::filesystem::resize_file("f", 10);
    EXPECT_EQ(seekWrite(0, RM_CURRENT_POSITION, "x"), 1U);
    EXPECT_EQ(readFile("f").substr(0, 7), std::string("\0\0\0\0\0x\0", 7));
}

TEST_F(FileReopen, IsNotMadeByAskingForThePosition)
{
    parkedWith("f", kDigits);
    resetCalls();
    EXPECT_EQ(rm_filePosition(0), 0U);
    EXPECT_EQ(entryOf(0)->state, file::kSlotParked);
    EXPECT_EQ(callCount(Call::kOpen), 0);
}

TEST_F(FileReopen, IsNotMadeBySync)
{
    parkedWith("f", kDigits);
    resetCalls();
    EXPECT_EQ(rm_fileSync(0), 0);
    EXPECT_EQ(entryOf(0)->state, file::kSlotParked);
    EXPECT_EQ(callCount(Call::kOpen) + callCount(Call::kFsync), 0);
}

TEST_F(FileReopen, GoesByThePathAsItWasGiven)
{
    parkedWith("f", kDigits);
    std::filesystem::create_directory("elsewhere");
    writeFile("elsewhere/f", "another file");
    std::filesystem::current_path("elsewhere");
    EXPECT_EQ(read(0, 7), "another");
    std::filesystem::current_path("..");
}

TEST_F(FileReopen, OfManyFilesLosesNothing)
{
    fileHandleLimit = 4;
    openMany(12);
    for (int round = 0; round < 5; ++round) {
        for (int16_t handle = 0; handle < 12; ++handle) {
            ASSERT_EQ(write(handle, std::to_string(handle % 10)), 1U);
        }
    }
    for (int handle = 0; handle < 12; ++handle) {
        EXPECT_EQ(readFile("f" + std::to_string(handle)),
                  std::string(5, static_cast<char>('0' + handle % 10)));
    }
    EXPECT_EQ(counts().open, 4U);
    EXPECT_EQ(counts().parked, 8U);
}

}  // namespace
