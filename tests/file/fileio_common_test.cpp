// What all operations on a handle have in common: how they take handles, the steps around the
// transfer, and what becomes of a file that is not there any more.
#include "tests/file/file_case.h"

using namespace filetest;

namespace
{

class FileHandles : public FileTest, public ::testing::WithParamInterface<FileOperation>
{
};

// Those of the table and the two that have no part in its way in.
std::vector<FileOperation> allOperations()
{
    std::vector<FileOperation> operations = fileOperations();
    operations.push_back(
        {"rm_filePosition", [](int16_t h) -> int64_t { return rm_filePosition(h); }, 0, 0, false});
    operations.push_back(
        {"rm_fileSync", [](int16_t h) -> int64_t { return rm_fileSync(h); }, 0, 0, false});
    return operations;
}

INSTANTIATE_TEST_SUITE_P(Operations, FileHandles, ::testing::ValuesIn(allOperations()),
                         operationName);

class FileSteps : public FileTest, public ::testing::WithParamInterface<FileOperation>
{
};

INSTANTIATE_TEST_SUITE_P(Operations, FileSteps, ::testing::ValuesIn(fileOperations()),
                         operationName);

class FileGone : public FileTest, public ::testing::WithParamInterface<FileOperation>
{
  protected:
    // A parked file whose path leads nowhere any more.
    static int16_t vanished(uint16_t modeFlags)
    {
        const int16_t handle = parkedWith("f", kDigits, modeFlags);
        std::filesystem::remove("f");
        return handle;
    }
};

INSTANTIATE_TEST_SUITE_P(Operations, FileGone, ::testing::ValuesIn(fileOperations()),
                         operationName);

// --- Every operation: handles

TEST_P(FileHandles, AFreeSlotIsLoggedAndRefused)
{
    const FileOperation& operation = GetParam();
    openMany(2, operation.mode());
    rm_fileClose(1);
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(operation.run(1), operation.refused); }),
                ElementsAre(operation.invalid(1)));
}

TEST_P(FileHandles, AFreeSlotIsRefusedWithoutALock)
{
    const FileOperation& operation = GetParam();
    openMany(2, operation.mode());
    rm_fileClose(1);
    LockWatch locks;
    linesOf([&] { operation.run(1); });
    EXPECT_THAT(locks.steps(), IsEmpty());
}

TEST_P(FileHandles, AFreeSlotIsLeftAsItIs)
{
    const FileOperation& operation = GetParam();
    openMany(2, operation.mode());
    rm_fileClose(1);
    const Counts before = counts();
    const int32_t operations = file::fileOps;
    linesOf([&] { operation.run(1); });
    EXPECT_EQ(entryOf(1)->state, file::kSlotFree);
    EXPECT_EQ(entryOf(1)->busyCount, 0);
    EXPECT_EQ(counts(), before);
    EXPECT_EQ(file::fileOps, operations);
}

TEST_P(FileHandles, AnyHandleOfTheWholeRangeIsTaken)
{
    const FileOperation& operation = GetParam();
    openMany(3, operation.mode());
    rm_fileClose(1);
    const Counts before = counts();
    bool refused = true;
    const Lines lines = linesOf([&] {
        for (int handle = INT16_MIN; handle <= INT16_MAX; ++handle) {
            if (handle != 0 && handle != 2) {
                refused &= operation.run(static_cast<int16_t>(handle)) == operation.refused;
            }
        }
    });
    EXPECT_TRUE(refused);
    Lines expected;
    for (int handle = INT16_MIN; handle <= INT16_MAX; ++handle) {
        if (handle != 0 && handle != 2) {
            expected.push_back(operation.invalid(handle));
        }
    }
    EXPECT_EQ(lines.size(), expected.size());
    EXPECT_TRUE(lines == expected);
    EXPECT_EQ(counts(), before);
}

TEST_P(FileHandles, NoHandleIsGoodBeforeThereIsATable)
{
    const FileOperation& operation = GetParam();
    for (const int handle : {0, -1, 31, INT16_MAX, INT16_MIN}) {
        const auto run = [&] {
            EXPECT_EQ(operation.run(static_cast<int16_t>(handle)), operation.refused);
        };
        if (operation.stream) {
            EXPECT_THAT(fatalEnd(run).lines, ElementsAre(badStatus(handle, nullptr)));
        } else {
            EXPECT_THAT(linesOf(run), ElementsAre(operation.invalid(handle)));
        }
    }
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_EQ(fileSem, -1);
}

TEST_P(FileHandles, TheFileCountsAsUsed)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    entryOf(0)->recentlyUsed = 0;
    operation.run(0);
    EXPECT_EQ(entryOf(0)->recentlyUsed, 1);
}

TEST_P(FileHandles, NothingIsInsideTheFileAfterwards)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    EXPECT_EQ(operation.run(0), operation.good);
    EXPECT_EQ(entryOf(0)->busyCount, 0);
}

// --- Every operation: its steps

// The call that does an operation's transfer.
Call transferOf(const FileOperation& operation)
{
    const std::string_view name = operation.name;
    if (name == "rm_filePrintf") {
        return Call::kVfprintf;
    }
    if (name == "rm_fileWrite" || name == "rm_fileSeekWrite") {
        return Call::kWrite;
    }
    return name == "rm_fileRead" || name == "rm_fileSeekRead" ? Call::kRead : Call::kLseek;
}

TEST_P(FileSteps, FileSemIsLeftBeforeTheTransfer)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    std::vector<int> values;
    Spy spy(transferOf(operation), [&](const CallRecord&) { values.push_back(fileSemValue()); });
    LockWatch locks;
    operation.run(0);
    ASSERT_FALSE(values.empty());
    EXPECT_THAT(values, ::testing::Each(1));
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem)));
}

TEST_P(FileSteps, TheFileIsBusyDuringTheTransfer)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    std::vector<int> busy;
    Spy spy(transferOf(operation),
            [&](const CallRecord&) { busy.push_back(entryOf(0)->busyCount); });
    operation.run(0);
    ASSERT_FALSE(busy.empty());
    EXPECT_THAT(busy, ::testing::Each(1));
}

// The positioned write marks the file before it waits for its lock; the others when they are done.
TEST_P(FileSteps, TheFileCountsAsUsedAtTheRightMoment)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    entryOf(0)->recentlyUsed = 0;
    std::vector<int> used;
    Spy spy(transferOf(operation),
            [&](const CallRecord&) { used.push_back(entryOf(0)->recentlyUsed); });
    operation.run(0);
    ASSERT_FALSE(used.empty());
    const bool before = std::string_view(operation.name) == "rm_fileSeekWrite";
    EXPECT_THAT(used, ::testing::Each(before ? 1 : 0));
}

TEST_P(FileSteps, FileSemIsWaitedForFor14Seconds)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    std::vector<int64_t> seconds;
    Spy spy(Call::kSemtimedop, [&](const CallRecord& call) {
        seconds.push_back(call.pointer<const timespec>(3)->tv_sec);
    });
    operation.run(0);
    EXPECT_THAT(seconds, ElementsAre(14));
}

TEST_P(FileSteps, OnlyReadsAndWritesAreCounted)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    const int32_t before = file::fileOps;
    operation.run(0);
    const Call transfer = transferOf(operation);
    const bool counted = transfer == Call::kRead || transfer == Call::kWrite;
    EXPECT_EQ(file::fileOps, before + (counted ? 1 : 0));
}

TEST_P(FileSteps, NoLineIsWrittenWhenAllGoesWell)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    EXPECT_THAT(linesOf([&] { operation.run(0); }), IsEmpty());
}

// --- Every operation: a file that is not there any more

TEST_P(FileGone, LogsAndFailsLikeABadDescriptor)
{
    const FileOperation& operation = GetParam();
    openMany(1);
    const int16_t handle = vanished(operation.mode());
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(operation.run(handle), operation.refused); }),
                ::testing::ElementsAreArray(operation.gone(handle, "f")));
}

TEST_P(FileGone, FreesTheSlot)
{
    const FileOperation& operation = GetParam();
    openMany(1);
    const int16_t handle = vanished(operation.mode());
    linesOf([&] { operation.run(handle); });
    EXPECT_EQ(entryOf(handle)->state, file::kSlotFree);
    EXPECT_EQ(entryOf(handle)->name, nullptr);
    EXPECT_EQ(counts(), (Counts{1, 0, 1, 0}));
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_P(FileGone, MakesTheHandleInvalid)
{
    const FileOperation& operation = GetParam();
    openMany(1);
    const int16_t handle = vanished(operation.mode());
    linesOf([&] { operation.run(handle); });
    EXPECT_THAT(linesOf([&] { operation.run(handle); }), ElementsAre(operation.invalid(handle)));
}

TEST_P(FileGone, GivesItsNumberToTheNextFile)
{
    const FileOperation& operation = GetParam();
    openMany(1);
    const int16_t handle = vanished(operation.mode());
    linesOf([&] { operation.run(handle); });
    EXPECT_EQ(openNew("next"), handle);
}

TEST_P(FileGone, TakesTheTableAlongWhenItIsTheLastHandle)
{
    const FileOperation& operation = GetParam();
    const int16_t handle = vanished(operation.mode());
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(operation.run(handle), operation.refused); }),
                ::testing::ElementsAreArray(operation.gone(handle, "f")));
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_EQ(file::fileTag, 0);
    EXPECT_EQ(openNew("next"), 0);
}

TEST_P(FileGone, DeletesTheLockOfTheFile)
{
    const FileOperation& operation = GetParam();
    openMany(1);
    const int16_t handle = vanished(operation.mode());
    entryOf(handle)->seekSem = rm_syncCreate("seek");
    linesOf([&] { operation.run(handle); });
    EXPECT_EQ(rm_syncOpen("seek"), -1);
}

TEST_P(FileGone, TransfersAndGrowsNothing)
{
    const FileOperation& operation = GetParam();
    rmDiskFull = 0;
    openMany(1);
    const int16_t handle = vanished(operation.mode());
    const int32_t before = file::fileOps;
    linesOf([&] {
        // Standard error goes through stdio, so every write that is seen would be a transfer.
        resetCalls();
        operation.run(handle);
        EXPECT_EQ(callCount(Call::kRead) + callCount(Call::kWrite), 0);
        EXPECT_EQ(callCount(Call::kVfprintf), 0);
    });
    EXPECT_EQ(file::fileOps, before);
    EXPECT_EQ(growSem, -1);
}

TEST_P(FileGone, CutsALongPathInItsLines)
{
    const FileOperation& operation = GetParam();
    std::string folder = std::string(200, 'd');
    std::filesystem::create_directory(folder);
    const std::string path = folder + "/" + std::string(200, 'x');
    const int16_t handle = parkedWith(path.c_str(), kDigits, operation.mode());
    std::filesystem::remove(path);
    Lines expected = operation.gone(handle, path);
    for (std::string& line : expected) {
        line.resize(std::min<std::size_t>(line.size(), 259));
    }
    EXPECT_THAT(linesOf([&] { operation.run(handle); }), ::testing::ElementsAreArray(expected));
}

TEST_P(FileGone, ParksAnotherFileFirstAllTheSame)
{
    const FileOperation& operation = GetParam();
    fileHandleLimit = 4;
    vanished(operation.mode());
    openMany(4);
    linesOf([&] { operation.run(0); });
    EXPECT_EQ(counts(), (Counts{3, 1, 2, 0}));
}

TEST_P(FileGone, IsFatalInFatalMode)
{
    const FileOperation& operation = GetParam();
    openMany(1);
    const auto mode = static_cast<uint16_t>(operation.mode() | FILE_FATAL);
    const int16_t handle = vanished(mode);
    const FatalEnd end = fatalEnd([&] { operation.run(handle); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre("reopenFile: errno=2: failed to open file 'f'"));
    EXPECT_LT(end.seconds, 1.0);
}

TEST_P(FileGone, IsFatalInFatalModeAsTheLastHandleToo)
{
    const FileOperation& operation = GetParam();
    const int16_t handle = vanished(static_cast<uint16_t>(operation.mode() | FILE_FATAL));
    const FatalEnd end = fatalEnd([&] { operation.run(handle); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre("reopenFile: errno=2: failed to open file 'f'"));
}

TEST_P(FileGone, LeavesEverythingInOrderAfterTheFatalEnd)
{
    const FileOperation& operation = GetParam();
    openMany(1);
    const int16_t handle = vanished(static_cast<uint16_t>(operation.mode() | FILE_FATAL));
    fatalEnd([&] { operation.run(handle); });
    expectSound();
    EXPECT_EQ(write(0, "works"), 5U);
    writeFile("f", kDigits);  // it is back, and the handle is still parked
    EXPECT_EQ(operation.run(handle), operation.good);
}

TEST_P(FileGone, LogsIntoTheLogFileWithoutWaitingForItself)
{
    const FileOperation& operation = GetParam();
    openLog("log");
    const int16_t handle = vanished(operation.mode());
    std::vector<int> waits;
    Spy spy(Call::kSemtimedop, [&](const CallRecord&) { waits.push_back(fileSemValue()); });
    const Lines lines = linesOf([&] { operation.run(handle); });
    EXPECT_THAT(lines, ::testing::ElementsAreArray(operation.gone(handle, "f")));
    EXPECT_EQ(logLines(readFile("log")), lines);
    EXPECT_THAT(waits, ::testing::Each(1));
}

}  // namespace
