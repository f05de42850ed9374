// Growing files ahead of writes: how far, when, and what the disk has to say about it.
#include "tests/file/file_case.h"

#include <limits>

using namespace filetest;

namespace
{

class FileGrowth : public FileTest
{
  protected:
    void SetUp() override
    {
        FileTest::SetUp();
        rmDiskFull = 0;
    }

    // A new file with a growth increment.
    static int16_t openStepped(uint32_t increment, uint16_t modeFlags = 0)
    {
        return openNew("f", modeFlags, 0, increment);
    }

    // The zeros that a file is extended with do not get onto the disk.
    static rmtest::Fault failedGrowth(int error, int times = 1)
    {
        return {.call = Call::kWrite, .error = error, .times = times, .when = isZeroBlock};
    }

    static bool isZeroBlock(const CallRecord& call)
    {
        return call.pointer<const char>(1) == os::null_block.data();
    }
};

class DiskWatch : public FileGrowth
{
  protected:
    // The lines of a growth that leaves `blocks` blocks of 512 bytes.
    static Lines linesWith(uint64_t blocks)
    {
        openNew("f");
        ScopedFault space(freeBlocks(blocks));
        return linesOf([] { EXPECT_EQ(seekWrite(0, 0, "x"), 1U); });
    }
};

class FailedGrowth : public FileGrowth
{
};

// --- How far

TEST_F(FileGrowth, AWriteThatEndsAt1500WithSteps1000GrowsTheFileTo2000)
{
    openStepped(1000);
    EXPECT_EQ(seekWrite(0, 1400, std::string(100, 'x')), 100U);
    EXPECT_EQ(rm_fileLength(0), 2000U);
    EXPECT_EQ(entryOf(0)->knownSize, 2000U);
}

TEST_F(FileGrowth, AWriteThatEndsAt2000WithSteps1000GrowsTheFileTo3000)
{
    openStepped(1000);
    EXPECT_EQ(seekWrite(0, 1900, std::string(100, 'x')), 100U);
    EXPECT_EQ(rm_fileLength(0), 3000U);
    EXPECT_EQ(entryOf(0)->knownSize, 3000U);
}

TEST_F(FileGrowth, AWriteThatEndsAt1500WithoutStepsGrowsTheFileTo1500)
{
    openStepped(0);
    EXPECT_EQ(seekWrite(0, 1400, std::string(100, 'x')), 100U);
    EXPECT_EQ(rm_fileLength(0), 1500U);
    EXPECT_EQ(entryOf(0)->knownSize, 1500U);
}

TEST_F(FileGrowth, OfOneByteWithSteps1GrowsTo2)
{
    openStepped(1);
    seekWrite(0, 0, "x");
    EXPECT_EQ(rm_fileLength(0), 2U);
}

TEST_F(FileGrowth, FillsWithZeros)
{
    openStepped(1000);
    seekWrite(0, 600, "abc");
    EXPECT_EQ(readFile("f"), std::string(600, '\0') + "abc" + std::string(397, '\0'));
}

TEST_F(FileGrowth, WritesTheZerosInBlocksOf512)
{
    openStepped(1300);
    std::vector<int64_t> sizes;
    Spy spy(Call::kWrite, [&](const CallRecord& call) {
        if (isZeroBlock(call)) {
            sizes.push_back(call.args[2]);
        }
    });
    seekWrite(0, 0, "x");
    EXPECT_THAT(sizes, ElementsAre(512, 512, 276));
}

TEST_F(FileGrowth, KeepsWhatTheFileHolds)
{
    writeFile("f", kDigits);
    rm_fileOpen("f", RM_O_RDWR, 0, 0, 20);
    seekWrite(0, 12, "abc");
    EXPECT_EQ(readFile("f"), std::string("0123456789\0\0abc\0\0\0\0\0", 20));
}

// The sizes are chosen, and on a full disk not one of these zeros is written.
TEST_F(FileGrowth, WithAStepThatDoesNotFit32BitsGoesToTheEndOfTheWrite)
{
    rmDiskFull = 1;
    openStepped(0xF0000000U);
    seekWrite(0, 0xF0000000U, "x");
    EXPECT_EQ(entryOf(0)->knownSize, 0xF0000001U);
}

TEST_F(FileGrowth, WithTheLargestStepThatFits32BitsGoesThere)
{
    rmDiskFull = 1;
    openStepped(0xFFFFFFFFU);
    seekWrite(0, 0, "x");
    EXPECT_EQ(entryOf(0)->knownSize, 0xFFFFFFFFU);
}

TEST_F(FileGrowth, LeavesAFileAsItIsThatOthersHaveGrown)
{
    openStepped(1000);
    writeFile("f", std::string(5000, 'o'));
    seekWrite(0, 0, "x");
    EXPECT_EQ(rm_fileLength(0), 5000U);
    EXPECT_EQ(entryOf(0)->knownSize, 1000U);
}

// --- When

TEST_F(FileGrowth, IsNotMadeWithinTheKnownSize)
{
    openStepped(1000);
    seekWrite(0, 0, "x");
    resetCalls();
    LockWatch locks;
    EXPECT_EQ(seekWrite(0, 999, "y"), 1U);
    EXPECT_EQ(callCount(Call::kStatvfs), 0);
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem)));
    EXPECT_EQ(rm_fileLength(0), 1000U);
}

TEST_F(FileGrowth, IsMadeOneByteBeyondTheKnownSize)
{
    openStepped(1000);
    seekWrite(0, 0, "x");
    seekWrite(0, 999, "yz");
    EXPECT_EQ(rm_fileLength(0), 2000U);
}

TEST_F(FileGrowth, GoesByTheKnownSizeAndNotByTheTrueOne)
{
    openStepped(1000);
    entryOf(0)->knownSize = 500;
    seekWrite(0, 400, "x");
    EXPECT_EQ(rm_fileLength(0), 401U);
}

TEST_F(FileGrowth, MakesGrowSemOnFirstNeed)
{
    openStepped(1000);
    EXPECT_EQ(growSem, -1);
    seekWrite(0, 0, "x");
    EXPECT_EQ(rm_syncOpen("growSem"), growSem);
    EXPECT_NE(growSem, -1);
    EXPECT_EQ(growSemValue(), 1);
}

TEST_F(FileGrowth, TakesTheGrowSemThatTheHostHasMade)
{
    growSem = rm_syncCreate("growSem");
    openStepped(1000);
    seekWrite(0, 0, "x");
    EXPECT_EQ(os::nSems, 2);
    EXPECT_EQ(growSemValue(), 1);
}

TEST_F(FileGrowth, HoldsGrowSemWhileItExtends)
{
    openStepped(1000);
    std::vector<int> values;
    Spy spy(Call::kWrite, [&](const CallRecord& call) {
        if (isZeroBlock(call)) {
            values.push_back(growSemValue());
        }
    });
    seekWrite(0, 0, "x");
    EXPECT_THAT(values, ElementsAre(0, 0));
}

TEST_F(FileGrowth, HoldsGrowSemWhileItLooksAtTheDisk)
{
    openStepped(1000);
    int value = -1;
    Spy spy(Call::kStatvfs, [&](const CallRecord& call) {
        EXPECT_EQ(call.path(), "f");
        value = growSemValue();
    });
    seekWrite(0, 0, "x");
    EXPECT_EQ(spy.seen(), 1);
    EXPECT_EQ(value, 0);
}

TEST_F(FileGrowth, LeavesGrowSemBeforeTheWriteItself)
{
    openStepped(1000);
    int value = -1;
    Spy spy(Call::kWrite, [&](const CallRecord& call) {
        if (!isZeroBlock(call)) {
            value = growSemValue();
        }
    });
    seekWrite(0, 0, "x");
    EXPECT_EQ(value, 1);
}

TEST_F(FileGrowth, WaitsForGrowSemWithoutLimit)
{
    growSem = rm_syncCreate("growSem");
    openStepped(1000);
    std::vector<Call> waits;
    Spy plain(Call::kSemop, [&](const CallRecord& call) {
        if (lockStep(call) == enters(growSem)) {
            waits.push_back(Call::kSemop);
        }
    });
    Spy timed(Call::kSemtimedop, [&](const CallRecord& call) {
        if (lockStep(call) == enters(growSem)) {
            waits.push_back(Call::kSemtimedop);
        }
    });
    seekWrite(0, 0, "x");
    EXPECT_THAT(waits, ElementsAre(Call::kSemop));
}

TEST_F(FileGrowth, TakesGrowSemInsideTheLockOfTheFile)
{
    growSem = rm_syncCreate("growSem");
    openStepped(1000);
    const int16_t seekSem = rm_syncCreate("seek");
    entryOf(0)->seekSem = seekSem;
    LockWatch locks;
    seekWrite(0, 0, "x");
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem), enters(seekSem),
                                           enters(growSem), leaves(growSem), leaves(seekSem)));
}

TEST_F(FileGrowth, ComesBackToAWaitThatASignalHasInterrupted)
{
    growSem = rm_syncCreate("growSem");
    openStepped(1000);
    // An alarm of a wait that is over, for instance: there is no time-out here.
    ScopedFault fault(
        {.call = Call::kSemop, .when = isStep(enters(growSem)), .action = [](const CallRecord&) {
             os::alarm_signal = 1;
             errno = EINTR;
             return int64_t{-1};
         }});
    EXPECT_EQ(seekWrite(0, 0, "x"), 1U);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(growSemValue(), 1);
}

// --- At the current position

TEST_F(FileGrowth, LetsAWriteAtTheCurrentPositionLandAtOffset0)
{
    openStepped(1000);
    rm_fileSeek(0, 500);
    const std::string text(1200, 'x');
    EXPECT_EQ(rm_fileSeekWrite(0, RM_CURRENT_POSITION, text.data(), 1200), 1200U);
    EXPECT_EQ(readFile("f"), text + std::string(800, '\0'));
}

TEST_F(FileGrowth, CountsTheEndOfAWriteAtTheCurrentPositionFromItsLengthLess1)
{
    openStepped(0);
    EXPECT_EQ(seekWrite(0, RM_CURRENT_POSITION, "abcdef"), 6U);
    EXPECT_EQ(entryOf(0)->knownSize, 5U);
    EXPECT_EQ(readFile("f"), "abcdef");
}

TEST_F(FileGrowth, LetsTheNextWriteAtTheCurrentPositionGoOnFromThere)
{
    openStepped(1000);
    rm_fileSeek(0, 500);
    seekWrite(0, RM_CURRENT_POSITION, "ab");
    seekWrite(0, RM_CURRENT_POSITION, "cd");
    EXPECT_EQ(readFile("f").substr(0, 6), std::string("abcd\0\0", 6));
    EXPECT_EQ(rm_filePosition(0), 504U);
}

TEST_F(FileGrowth, IsNotNeededForAWriteAtTheCurrentPositionOfALargeFile)
{
    writeFile("f", kDigits);
    rm_fileOpen("f", RM_O_RDWR, 0, 0, 1000);
    rm_fileSeek(0, 4);
    EXPECT_EQ(seekWrite(0, RM_CURRENT_POSITION, "abc"), 3U);
    EXPECT_EQ(readFile("f"), "0123abc789");
}

// --- The full disk

TEST_F(FileGrowth, IsNotMadeOnAFullDisk)
{
    rmDiskFull = 1;
    openStepped(1000);
    resetCalls();
    EXPECT_EQ(seekWrite(0, 1400, "abc"), 3U);
    EXPECT_EQ(rm_fileLength(0), 1403U);
    EXPECT_EQ(callCount(Call::kStatvfs), 0);
    EXPECT_EQ(growSem, -1);
}

TEST_F(FileGrowth, OnAFullDiskMovesTheKnownSizeAllTheSame)
{
    rmDiskFull = 1;
    openStepped(1000);
    seekWrite(0, 1400, "abc");
    EXPECT_EQ(entryOf(0)->knownSize, 2000U);
}

TEST_F(FileGrowth, ThatWasSkippedIsNotMadeUpForLater)
{
    rmDiskFull = 1;
    openStepped(1000);
    seekWrite(0, 1400, "abc");
    rmDiskFull = 0;
    seekWrite(0, 1500, "abc");
    EXPECT_EQ(rm_fileLength(0), 1503U);
    seekWrite(0, 1999, "xy");
    EXPECT_EQ(rm_fileLength(0), 3000U);
}

TEST_F(FileGrowth, ThatWasSkippedIsMadeAfterTheFileWasParked)
{
    rmDiskFull = 1;
    openStepped(1000);
    seekWrite(0, 1400, "abc");
    rmDiskFull = 0;
    park(0);
    seekWrite(0, 1500, "abc");
    EXPECT_EQ(rm_fileLength(0), 2000U);
}

TEST_F(FileGrowth, AnyValueButZeroMeansAFullDisk)
{
    rmDiskFull = -3;
    openStepped(1000);
    seekWrite(0, 0, "x");
    EXPECT_EQ(rm_fileLength(0), 1U);
}

TEST_F(FileGrowth, OnAFullDiskLetsAWriteAtTheCurrentPositionLandWhereItStands)
{
    rmDiskFull = 1;
    openStepped(1000);
    rm_fileSeek(0, 5);
    seekWrite(0, RM_CURRENT_POSITION, "abc");
    EXPECT_EQ(readFile("f"), std::string("\0\0\0\0\0abc", 8));
}

// --- The watch on the disk

TEST_F(DiskWatch, SaysNothingWhileThereIsRoom)
{
    rminfree = 512'000;
    EXPECT_THAT(linesWith(1001), IsEmpty());
    EXPECT_EQ(rmDiskFull, 0);
}

TEST_F(DiskWatch, SaysNothingWhenExactlyEnoughIsLeft)
{
    rminfree = 512'000;
    EXPECT_THAT(linesWith(1000), IsEmpty());
    EXPECT_EQ(rmDiskFull, 0);
}

TEST_F(DiskWatch, LogsTheShortfallAndTurnsReadOnly)
{
    rminfree = 1'000'000;
    EXPECT_THAT(linesWith(1000),
                ElementsAre("extending file f exceeded min threshold by 488000 bytes",
                            "READ ACCESS ONLY!"));
    EXPECT_EQ(rmDiskFull, 1);
}

TEST_F(DiskWatch, CutsTheFractionOfTheShortfall)
{
    rminfree = 512'000.9;
    EXPECT_THAT(linesWith(1000), ElementsAre("extending file f exceeded min threshold by 0 bytes",
                                             "READ ACCESS ONLY!"));
}

TEST_F(DiskWatch, ShowsTheLargestShortfallThatFitsAndNoMore)
{
    rminfree = 2'147'483'647.0;
    EXPECT_THAT(linesWith(0),
                ElementsAre("extending file f exceeded min threshold by 2147483647 bytes",
                            "READ ACCESS ONLY!"));
}

TEST_F(DiskWatch, ShowsAShortfallBeyond32BitsAsTheLargest)
{
    rminfree = 1e18;
    EXPECT_THAT(linesWith(1000),
                ElementsAre("extending file f exceeded min threshold by 2147483647 bytes",
                            "READ ACCESS ONLY!"));
}

TEST_F(DiskWatch, ShowsAShortfallOfOneByteMoreAsTheLargest)
{
    rminfree = 2'147'483'648.0;
    EXPECT_THAT(linesWith(0),
                ElementsAre("extending file f exceeded min threshold by 2147483647 bytes",
                            "READ ACCESS ONLY!"));
}

TEST_F(DiskWatch, ShowsAnInfiniteShortfallAsTheLargest)
{
    rminfree = std::numeric_limits<double>::infinity();
    EXPECT_THAT(linesWith(1000),
                ElementsAre("extending file f exceeded min threshold by 2147483647 bytes",
                            "READ ACCESS ONLY!"));
}

TEST_F(DiskWatch, TakesADiskWithNothingFreeAsBelowTheLeast)
{
    rminfree = 0.5;
    EXPECT_THAT(linesWith(0), ElementsAre("extending file f exceeded min threshold by 0 bytes",
                                          "READ ACCESS ONLY!"));
}

TEST_F(DiskWatch, SaysNothingWithoutALeastAmount)
{
    rminfree = 0.0;
    EXPECT_THAT(linesWith(0), IsEmpty());
}

TEST_F(DiskWatch, SaysNothingWhenTheDiskCannotBeAsked)
{
    rminfree = 1e18;
    openNew("f");
    ScopedFault fault({.call = Call::kStatvfs, .error = EIO});
    EXPECT_THAT(linesOf([] { seekWrite(0, 0, "x"); }), IsEmpty());
    EXPECT_EQ(rmDiskFull, 0);
    EXPECT_EQ(growSemValue(), 1);
}

TEST_F(DiskWatch, KeepsTheGrowthThatCrossedTheThreshold)
{
    rminfree = 1e18;
    openStepped(1000);
    linesOf([] { seekWrite(0, 0, "x"); });
    EXPECT_EQ(rm_fileLength(0), 1000U);
    EXPECT_EQ(entryOf(0)->knownSize, 1000U);
}

TEST_F(DiskWatch, LetsNothingGrowAfterwards)
{
    rminfree = 1e18;
    openStepped(1000);
    linesOf([] { seekWrite(0, 0, "x"); });
    EXPECT_THAT(linesOf([] { EXPECT_EQ(seekWrite(0, 1000, "y"), 1U); }), IsEmpty());
    EXPECT_EQ(rm_fileLength(0), 1001U);
}

TEST_F(DiskWatch, LeavesGrowSem)
{
    rminfree = 1e18;
    openStepped(1000);
    linesOf([] { seekWrite(0, 0, "x"); });
    EXPECT_EQ(growSemValue(), 1);
}

TEST_F(DiskWatch, GoesOnAfterInterruptedQuestions)
{
    rminfree = 1e18;
    openStepped(1000);
    ScopedFault fault({.call = Call::kStatvfs, .error = EINTR, .times = 3});
    EXPECT_EQ(linesOf([] { seekWrite(0, 0, "x"); }).size(), 2U);
    EXPECT_EQ(fault.hits(), 3);
}

// Its lines may have to wait for fileSem, and whoever holds that may be waiting for growSem: an
// open that extends its file.
TEST_F(DiskWatch, LeavesGrowSemBeforeItsLinesGoIntoTheLogFile)
{
    rminfree = 1e18;
    openLog("log");
    const int16_t handle = openStepped(1000);
    growSem = rm_syncCreate("growSem");
    std::vector<int> values;
    Spy spy(Call::kSemtimedop, [&](const CallRecord&) { values.push_back(growSemValue()); });
    captureStderr([&] { seekWrite(handle, 0, "x"); });
    EXPECT_EQ(logLines(readFile("log")).size(), 2U);
    EXPECT_THAT(values, ElementsAre(1, 1, 1));
}

TEST_F(DiskWatch, IsKeptWhenAFileIsExtendedByOpening)
{
    rminfree = 1e18;
    EXPECT_THAT(linesOf([] { EXPECT_EQ(openNew("f", 0, 600), 0); }),
                ElementsAre("extending file f exceeded min threshold by 2147483647 bytes",
                            "READ ACCESS ONLY!"));
    EXPECT_EQ(rm_fileLength(0), 600U);
    EXPECT_EQ(rmDiskFull, 1);
}

TEST_F(DiskWatch, InsideFileSemReachesTheLogFileWithoutAWait)
{
    rminfree = 1e18;
    openLog("log");
    std::vector<int> waits;
    Spy spy(Call::kSemtimedop, [&](const CallRecord&) { waits.push_back(fileSemValue()); });
    const Lines lines = linesOf([] { openNew("f", 0, 600); });
    EXPECT_EQ(lines.size(), 2U);
    EXPECT_EQ(logLines(readFile("log")), lines);
    EXPECT_THAT(waits, ElementsAre(1));
}

// --- Growth that fails

const Lines kGrowthLines = {"Error expanding file f", "Fatal Exit: System Shutting down!"};

TEST_F(FailedGrowth, LogsTwoLinesAndIsFatal)
{
    openStepped(1000);
    ScopedFault fault(failedGrowth(ENOSPC));
    const FatalEnd end = fatalEnd([] { seekWrite(0, 0, "x"); });
    EXPECT_TRUE(end.jumped);
    EXPECT_EQ(end.lines, kGrowthLines);
    EXPECT_LT(end.seconds, 1.0);
}

TEST_F(FailedGrowth, IsFatalWhateverTheModeOfTheFile)
{
    for (const uint16_t mode : std::to_array<uint16_t>({0, FILE_FATAL, FILE_STREAM})) {
        const int16_t handle = openStepped(1000, mode);
        ScopedFault fault(failedGrowth(ENOSPC));
        EXPECT_TRUE(fatalEnd([&] { seekWrite(handle, 5000, "x"); }).jumped) << "mode " << mode;
    }
}

TEST_F(FailedGrowth, ByAShortWriteIsFatalToo)
{
    openStepped(1000);
    ScopedFault fault({.call = Call::kWrite, .result = 511, .when = isZeroBlock});
    EXPECT_EQ(fatalEnd([] { seekWrite(0, 0, "x"); }).lines, kGrowthLines);
}

TEST_F(FailedGrowth, InALaterBlockIsFatalToo)
{
    openStepped(2000);
    ScopedFault fault({.call = Call::kWrite, .error = EDQUOT, .skip = 3, .when = isZeroBlock});
    EXPECT_EQ(fatalEnd([] { seekWrite(0, 0, "x"); }).lines, kGrowthLines);
    EXPECT_EQ(rm_fileLength(0), 3U * 512);
}

TEST_F(FailedGrowth, WritesNothingOfTheCaller)
{
    openStepped(1000);
    ScopedFault fault(failedGrowth(ENOSPC));
    fatalEnd([] { seekWrite(0, 0, "x"); });
    EXPECT_EQ(rm_fileLength(0), 0U);
    EXPECT_EQ(entryOf(0)->knownSize, 0U);
    EXPECT_EQ(rm_filePosition(0), 0U);
}

TEST_F(FailedGrowth, LeavesGrowSemTwice)
{
    growSem = rm_syncCreate("growSem");
    openStepped(1000);
    ScopedFault fault(failedGrowth(ENOSPC));
    LockWatch locks;
    fatalEnd([] { seekWrite(0, 0, "x"); });
    std::vector<LockStep> steps = locks.steps();
    std::erase_if(steps, [](const LockStep& step) { return step.number != growSem; });
    EXPECT_THAT(steps, ElementsAre(enters(growSem), leaves(growSem), leaves(growSem)));
    EXPECT_EQ(growSemValue(), 2);
}

TEST_F(FailedGrowth, LeavesGrowSemOnceBeforeItsLinesAndOnceAfterThem)
{
    openStepped(1000);
    ScopedFault fault(failedGrowth(ENOSPC));
    std::vector<int> values;
    Spy spy(Call::kFwrite, [&](const CallRecord&) { values.push_back(growSemValue()); });
    fatalEnd([] { seekWrite(0, 0, "x"); });
    ASSERT_GE(values.size(), 3U);
    EXPECT_EQ(values[0], 1);
    EXPECT_EQ(values[1], 1);
    EXPECT_EQ(values[2], 2);
}

TEST_F(FailedGrowth, IsSeenTwiceByAnotherProcess)
{
    growSem = rm_syncCreate("growSem");
    openStepped(1000);
    ScopedFault fault(failedGrowth(ENOSPC));
    fatalEnd([] { seekWrite(0, 0, "x"); });
    rmtest::inChild([] {
        EXPECT_EQ(rm_syncEnterExcl(growSem, RM_WAIT_FOREVER), 0);
        EXPECT_EQ(rm_syncEnterExcl(growSem, RM_WAIT_FOREVER), 0);
        EXPECT_EQ(growSemValue(), 0);
    });
}

TEST_F(FailedGrowth, LeavesTheFileUsable)
{
    openStepped(1000);
    {
        ScopedFault fault(failedGrowth(ENOSPC));
        fatalEnd([] { seekWrite(0, 0, "x"); });
    }
    expectSound();
    EXPECT_EQ(seekWrite(0, 0, "x"), 1U);
    EXPECT_EQ(rm_fileLength(0), 1000U);
}

TEST_F(FailedGrowth, OfAFileThatIsOpenedIsFatal)
{
    rm_fileClose(openNew("other"));
    const std::size_t descriptors = rmtest::openDescriptors().size();
    ScopedFault fault(failedGrowth(ENOSPC));
    const FatalEnd end = fatalEnd([] { openNew("f", 0, 600); });
    EXPECT_EQ(end.lines, kGrowthLines);
    EXPECT_EQ(rmtest::openDescriptors().size(), descriptors);
    expectSound();
}

TEST_F(FailedGrowth, OfAFileThatIsReopenedIsFatalAndKeepsTheHandle)
{
    openMany(1);
    openNew("f", 0, 600);
    rm_fileSeek(1, 100);
    park(1);
    std::filesystem::resize_file("f", 10);
    {
        ScopedFault fault(failedGrowth(ENOSPC));
        EXPECT_EQ(fatalEnd([] { rm_fileLength(1); }).lines, kGrowthLines);
    }
    expectSound();
    EXPECT_EQ(counts(), (Counts{1, 1, 1, 0}));
    EXPECT_EQ(rm_fileLength(1), 600U);
    EXPECT_EQ(rm_filePosition(1), 100U);
}

TEST_F(FailedGrowth, ReachesTheLogFileAndClosesIt)
{
    openLog("log");
    const int16_t handle = openStepped(1000);
    ScopedFault fault(failedGrowth(ENOSPC));
    const FatalEnd end = fatalEnd([&] { seekWrite(handle, 0, "x"); });
    EXPECT_EQ(end.lines, kGrowthLines);
    EXPECT_EQ(sysfile, -1);
    EXPECT_EQ(syslogon, 0);
    EXPECT_EQ(logLines(readFile("log")), kGrowthLines);
    EXPECT_EQ(file::nHandles, 1);
}

TEST_F(FailedGrowth, InsideFileSemReachesTheLogFileWithoutAWait)
{
    openLog("log");
    std::vector<int> waits;
    Spy spy(Call::kSemtimedop, [&](const CallRecord&) { waits.push_back(fileSemValue()); });
    ScopedFault fault(failedGrowth(ENOSPC));
    const FatalEnd end = fatalEnd([] { openNew("f", 0, 600); });
    EXPECT_EQ(end.lines, kGrowthLines);
    EXPECT_EQ(logLines(readFile("log")), kGrowthLines);
    EXPECT_THAT(waits, ElementsAre(1));
}

TEST_F(FailedGrowth, AppendsToALogFileThatIsAnotherFile)
{
    openLog("log");
    captureStderr([] { rm_systemLogWrite("an earlier line"); });
    const int16_t handle = openStepped(1000);
    ScopedFault fault(failedGrowth(ENOSPC));
    fatalEnd([&] { seekWrite(handle, 0, "x"); });
    EXPECT_THAT(logLines(readFile("log")),
                ElementsAre("an earlier line", kGrowthLines[0], kGrowthLines[1]));
}

TEST_F(FailedGrowth, OfTheLogFileItselfIsLoggedAtItsStart)
{
    openLog("log");
    for (int i = 0; i < 10; ++i) {
        captureStderr([] { rm_systemLogWrite("a line that was there before"); });
    }
    const std::size_t before = readFile("log").size();
    ScopedFault fault(failedGrowth(ENOSPC));
    const FatalEnd end = fatalEnd([] { rm_fileSeekWrite(sysfile, 5000, "x", 1); });
    const std::string log = readFile("log");
    EXPECT_EQ(end.lines, (Lines{"Error expanding file log", kGrowthLines[1]}));
    EXPECT_EQ(log.size(), before) << "nothing was added at the end";
    const std::size_t second = log.find('\n', log.find('\n') + 1);
    EXPECT_EQ(logLines(log.substr(0, second + 1)), end.lines);
    EXPECT_EQ(sysfile, -1);
}

TEST_F(FailedGrowth, OfALogFileThatIsBeingReopenedEnds)
{
    sysfile = rm_fileOpen("log", kLogFlags, FILE_STREAM, 600, 0);
    rm_systemLog(2);
    park(sysfile);
    std::filesystem::resize_file("log", 10);
    ScopedFault fault(failedGrowth(ENOSPC, kForever));
    const FatalEnd end = fatalEnd([] { rm_systemLogWrite("a line"); });
    EXPECT_TRUE(end.jumped);
    EXPECT_EQ(end.lines, (Lines{"a line", "Error expanding file log", kGrowthLines[1]}));
    EXPECT_LT(end.seconds, 1.0);
    EXPECT_EQ(sysfile, -1);
    expectSound();
}

TEST_F(FailedGrowth, OfALogFileThatIsReopenedByAQuestionEnds)
{
    sysfile = rm_fileOpen("log", kLogFlags, FILE_STREAM, 600, 0);
    rm_systemLog(2);
    park(sysfile);
    std::filesystem::resize_file("log", 10);
    ScopedFault fault(failedGrowth(ENOSPC, kForever));
    const FatalEnd end = fatalEnd([] { rm_fileLength(sysfile); });
    EXPECT_TRUE(end.jumped);
    EXPECT_LT(end.seconds, 1.0);
    EXPECT_EQ(sysfile, -1);
    expectSound();
}

// Whoever held growSem may have been killed, and the dying would wait for ever.
TEST_F(FailedGrowth, IsNotRiskedByTheDying)
{
    growSem = rm_syncCreate("growSem");
    sysfile = rm_fileOpen("log", kLogFlags, FILE_STREAM, 600, 0);
    rm_systemLog(2);
    rm_fileSeek(sysfile, 0);
    park(sysfile);
    std::filesystem::resize_file("log", 0);
    entryOf(sysfile)->position = 0;
    rm_syncEnterExcl(growSem, RM_WAIT_FOREVER);
    const FatalEnd end = fatalEnd([] { fatalRMExit("a problem"); });
    EXPECT_LT(end.seconds, 1.0);
    EXPECT_EQ(end.lines.size(), 2U);
    EXPECT_EQ(withoutFrame(logLines(readFile("log"))), end.lines);
    rm_syncExitExcl(growSem);
}

TEST_F(FailedGrowth, WithoutATargetExitsAndRemovesTheLocks)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        openLog("log");
        ScopedFault fault(failedGrowth(ENOSPC));
        openNew("f", 0, 600);
        _exit(99);
    });
    EXPECT_EQ(child.status, 0);
    const Lines lines = logLines(child.err);
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[0], kGrowthLines[0]);
    EXPECT_EQ(lines[1], kGrowthLines[1]);
    EXPECT_EQ(lines.back(), "Exiting to operating system");
    EXPECT_EQ(logLines(readFile("log")), kGrowthLines);
}

TEST_F(FailedGrowth, WhoseEndCannotBeFoundIsFatalToo)
{
    openStepped(1000);
    ScopedFault fault({.call = Call::kLseek, .error = EINVAL});
    EXPECT_EQ(fatalEnd([] { seekWrite(0, 0, "x"); }).lines, kGrowthLines);
}

}  // namespace
