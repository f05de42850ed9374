// What reads, writes and questions promise beyond the plain case: what they do not grow, do not
// lock and do not end, and what becomes of bytes that came along with an error.
#include "tests/file/fault_case.h"

using namespace filetest;

namespace
{

bool isPositionedWrite(const FileOperation& operation)
{
    return std::string_view(operation.name) == "rm_fileSeekWrite";
}

std::vector<FileOperation> without(const std::function<bool(const FileOperation&)>& unwanted)
{
    std::vector<FileOperation> operations = lockedOperations();
    std::erase_if(operations, [&](const FileOperation& operation) {
        const std::string_view name = operation.name;
        return name == "rm_fileOpen" || name == "rm_fileClose" || unwanted(operation);
    });
    return operations;
}

class NoGrowthBy : public FileTest, public ::testing::WithParamInterface<FileOperation>
{
};

INSTANTIATE_TEST_SUITE_P(Operations, NoGrowthBy, ::testing::ValuesIn(without(isPositionedWrite)),
                         operationName);

class NoSeekSemBy : public FileTest, public ::testing::WithParamInterface<FileOperation>
{
};

INSTANTIATE_TEST_SUITE_P(Operations, NoSeekSemBy,
                         ::testing::ValuesIn(without([](const FileOperation& operation) {
                             return isPositionedWrite(operation) ||
                                    std::string_view(operation.name) == "rm_fileSeekRead";
                         })),
                         operationName);

class GoneFileLocks : public FileTest, public ::testing::WithParamInterface<FileOperation>
{
};

INSTANTIATE_TEST_SUITE_P(Operations, GoneFileLocks, ::testing::ValuesIn(fileOperations()),
                         operationName);

class PartialRead : public FileTest
{
  protected:
    // Two bytes arrive, and the system has an error for the rest.
    static rmtest::Fault twoBytesAndAnError()
    {
        return {.call = Call::kRead, .action = [](const CallRecord& call) {
                    CallRecord two = call;
                    two.args[2] = 2;
                    const int64_t count = passThrough(two);
                    errno = EIO;
                    return count;
                }};
    }
};

class FatalMode : public FileTest
{
  protected:
    // Runs `body` on a file in fatal mode while `fault` is armed. It must come back, without a
    // line.
    static void expectReturns(const rmtest::Fault& fault, const std::function<void()>& body)
    {
        openWith("f", kDigits, FILE_FATAL);
        const Outcome outcome = under(fault, body);
        EXPECT_EQ(outcome.hits > 0, fault.call != Call::kNone);
        EXPECT_FALSE(outcome.jumped);
        EXPECT_THAT(outcome.lines, IsEmpty());
    }
};

class FilePrintfPlace : public FileTest
{
};

class NothingToTransfer : public FileTest
{
};

class WriteToARead : public FileTest
{
};

class KnownSize : public FileTest
{
};

class SeekBehindTheEnd : public FileTest
{
};

class GrowthOrder : public FileTest
{
  protected:
    void SetUp() override
    {
        FileTest::SetUp();
        rmDiskFull = 0;
    }

    static bool isZeroBlock(const CallRecord& call)
    {
        return call.pointer<const char>(1) == os::null_block.data();
    }
};

class RemoveByPath : public FileTest
{
};

class FailedSeekRead : public FileTest
{
};

// --- What does not grow, and takes no lock

TEST_P(NoGrowthBy, AnOperationBehindTheEndExtendsTheFileByItsBytesAtMost)
{
    const FileOperation& operation = GetParam();
    rmDiskFull = 0;
    writeFile("f", kDigits);
    rm_fileOpen("f", RM_O_RDWR, operation.mode(), 0, 1000);
    rm_fileSeek(0, 20);
    resetCalls();
    operation.run(0);
    EXPECT_EQ(callCount(Call::kStatvfs), 0);
    EXPECT_EQ(growSem, -1);
    EXPECT_EQ(entryOf(0)->knownSize, 10U);
    EXPECT_LE(rm_fileLength(0), 23U);
}

TEST_P(NoSeekSemBy, OnlyTheTableIsLocked)
{
    const FileOperation& operation = GetParam();
    openWith("f", kDigits, operation.mode());
    entryOf(0)->seekSem = rm_syncCreate("seek");
    LockWatch locks;
    operation.run(0);
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem)));
}

TEST_P(GoneFileLocks, TheWarningIsWrittenInsideFileSemAndTheFailureOutside)
{
    const FileOperation& operation = GetParam();
    openMany(1);
    const int16_t handle = parkedWith("f", kDigits, operation.mode());
    std::filesystem::remove("f");
    std::vector<int> values;
    Spy spy(Call::kFwrite, [&](const CallRecord&) { values.push_back(fileSemValue()); });
    linesOf([&] { operation.run(handle); });
    std::vector<int> expected(operation.gone(handle, "f").size(), 1);
    expected[0] = 0;
    EXPECT_EQ(values, expected);
}

// --- Bytes that came with an error

TEST_F(PartialRead, GivesTheBytesAndTheLineAndMovesByThem)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 3);
    const ScopedFault fault(twoBytesAndAnError());
    EXPECT_THAT(linesOf([] { EXPECT_EQ(read(0, 5), "34"); }),
                ElementsAre("rm_fileRead: errno=5: unable to read, file=f"));
    EXPECT_EQ(rm_filePosition(0), 5U);
}

TEST_F(PartialRead, AtAnOffsetGivesTheBytesAndTheirNumberInTheLine)
{
    openWith("f", kDigits);
    const ScopedFault fault(twoBytesAndAnError());
    EXPECT_THAT(
        linesOf([] { EXPECT_EQ(seekRead(0, 6, 4), "67"); }),
        ElementsAre("rm_fileSeekRead: unable to read f", "    seek address=6, bytes=2, errno=5"));
    EXPECT_EQ(rm_filePosition(0), 8U);
}

TEST_F(PartialRead, InFatalModeIsFatal)
{
    openWith("f", kDigits, FILE_FATAL);
    {
        const ScopedFault fault(twoBytesAndAnError());
        EXPECT_TRUE(fatalEnd([] { rm_fileRead(0, operationBuffer, 5); }).jumped);
    }
    const ScopedFault fault(twoBytesAndAnError());
    EXPECT_TRUE(fatalEnd([] { rm_fileSeekRead(0, 0, operationBuffer, 5); }).jumped);
}

TEST_F(FailedSeekRead, AtTheCurrentPositionShowsItAsItWasGiven)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 4);
    const ScopedFault fault({.call = Call::kRead, .error = EIO});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(seekRead(0, RM_CURRENT_POSITION, 3), ""); }),
                ElementsAre("rm_fileSeekRead: unable to read f",
                            "    seek address=4294967295, bytes=0, errno=5"));
    EXPECT_EQ(rm_filePosition(0), 4U);
}

// --- What is not fatal in fatal mode

TEST_F(FatalMode, AWriteThatFallsShortReturns)
{
    expectReturns({.call = Call::kWrite, .result = 2}, [] { EXPECT_EQ(write(0, "abc"), 2U); });
}

TEST_F(FatalMode, APositionedWriteThatFallsShortReturns)
{
    expectReturns({.call = Call::kWrite, .result = 2},
                  [] { EXPECT_EQ(seekWrite(0, 4, "abc"), 2U); });
}

TEST_F(FatalMode, AFormattedWriteThatFailsCountsAsZeroAndReturns)
{
    openNew("f", FILE_FATAL | FILE_STREAM);
    EXPECT_EQ(catchFatal([] {
                  EXPECT_THAT(linesOf([] {
                                  const ScopedFault fault({.call = Call::kFflush, .error = ENOSPC});
                                  EXPECT_EQ(rm_filePrintf(0, "lost"), 0);
                                  EXPECT_EQ(fault.hits(), 1);
                              }),
                              IsEmpty());
              }),
              0);
}

TEST_F(FatalMode, AReadThatFallsShortReturns)
{
    expectReturns({.call = Call::kRead, .result = 2},
                  [] { EXPECT_EQ(rm_fileRead(0, operationBuffer, 5), 2U); });
}

TEST_F(FatalMode, APositionedReadThatFallsShortReturns)
{
    expectReturns({.call = Call::kRead, .result = 2},
                  [] { EXPECT_EQ(rm_fileSeekRead(0, 4, operationBuffer, 5), 2U); });
}

TEST_F(FatalMode, TheEndOfTheFileReturnsZero)
{
    expectReturns({.call = Call::kNone}, [] {
        EXPECT_EQ(rm_fileSeekRead(0, 10, operationBuffer, 5), 0U);
        EXPECT_EQ(rm_fileRead(0, operationBuffer, 5), 0U);
    });
}

TEST_F(FatalMode, ASeekThatFailsReturns)
{
    expectReturns({.call = Call::kLseek, .error = EINVAL},
                  [] { EXPECT_EQ(rm_fileSeek(0, 5), kFailedSeek); });
}

TEST_F(FatalMode, ALengthThatCannotBeMeasuredReturns)
{
    expectReturns({.call = Call::kLseek, .error = EINVAL, .times = kForever},
                  [] { EXPECT_EQ(rm_fileLength(0), 0U); });
}

// --- Printing

TEST_F(FilePrintfPlace, IsWhereTheDescriptorStands)
{
    openWith("f", kDigits, FILE_STREAM);
    rm_fileSeek(0, 7);
    lseek(entryOf(0)->fd, 2, SEEK_SET);
    rm_filePrintf(0, "abc");
    EXPECT_EQ(readFile("f"), "01abc56789");
    EXPECT_EQ(rm_filePosition(0), 10U);
}

TEST_F(FilePrintfPlace, IsBehindWhatAPositionedWriteWrote)
{
    openWith("f", kDigits, FILE_STREAM);
    seekWrite(0, 2, "ab");
    rm_filePrintf(0, "cd");
    EXPECT_EQ(readFile("f"), "01abcd6789");
}

// --- Nothing to transfer

TEST_F(NothingToTransfer, LeavesAParkedFileParked)
{
    parkedWith("f", kDigits);
    LockWatch locks;
    EXPECT_EQ(rm_fileWrite(0, "x", 0), 0U);
    EXPECT_EQ(rm_fileSeekWrite(0, 4, "x", 0), 0U);
    EXPECT_EQ(rm_fileRead(0, operationBuffer, 0), 0U);
    EXPECT_EQ(rm_fileSeekRead(0, 4, operationBuffer, 0), 0U);
    EXPECT_EQ(entryOf(0)->state, file::kSlotParked);
    EXPECT_EQ(entryOf(0)->recentlyUsed, 0);
    EXPECT_EQ(rm_filePosition(0), 0U);
    EXPECT_THAT(locks.steps(), IsEmpty());
}

TEST_F(NothingToTransfer, GrowsNothing)
{
    rmDiskFull = 0;
    openNew("f", 0, 0, 1000);
    EXPECT_EQ(rm_fileSeekWrite(0, 5000, "x", 0), 0U);
    EXPECT_EQ(rm_fileLength(0), 0U);
    EXPECT_EQ(entryOf(0)->knownSize, 0U);
}

// --- The size that a handle knows

TEST_F(KnownSize, AWriteUpToTheEndThatOpeningMeasuredGrowsNothing)
{
    rmDiskFull = 0;
    writeFile("f", kDigits);
    rm_fileOpen("f", RM_O_RDWR, 0, 0, 1000);
    EXPECT_EQ(seekWrite(0, 7, "abc"), 3U);
    EXPECT_EQ(rm_fileLength(0), 10U);
    EXPECT_EQ(growSem, -1);
    EXPECT_EQ(seekWrite(0, 8, "abc"), 3U);
    EXPECT_EQ(rm_fileLength(0), 1000U);
}

// A handle for reading does not measure its file, so a write through it counts as behind the end.
TEST_F(WriteToARead, LogsTwoLinesWhenNothingCanGrow)
{
    writeFile("f", kDigits);
    rm_fileOpen("f", RM_O_RDONLY, 0, 0, 0);
    EXPECT_THAT(
        linesOf([] { EXPECT_EQ(seekWrite(0, 4, "abc"), 0U); }),
        ElementsAre("rm_fileSeekWrite: unable to write f", "    seek address=4, bytes=3, errno=9"));
    EXPECT_EQ(readFile("f"), kDigits);
}

TEST_F(WriteToARead, BehindTheEndIsAGrowthThatFails)
{
    rmDiskFull = 0;
    writeFile("f", kDigits);
    rm_fileOpen("f", RM_O_RDONLY, 0, 0, 0);
    const FatalEnd end = fatalEnd([] { seekWrite(0, 8, "abc"); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines,
                ElementsAre("Error expanding file f", "Fatal Exit: System Shutting down!"));
    EXPECT_EQ(readFile("f"), kDigits);
}

// --- The order of a growth

TEST_F(GrowthOrder, TheDiskIsAskedBetweenTheZerosAndTheBytes)
{
    openNew("f", 0, 0, 1000);
    std::vector<std::string> order;
    Spy asking(Call::kStatvfs, [&](const CallRecord&) { order.emplace_back("asked"); });
    Spy writing(Call::kWrite, [&](const CallRecord& call) {
        order.emplace_back(isZeroBlock(call) ? "zeros" : "bytes");
    });
    seekWrite(0, 0, "abc");
    EXPECT_THAT(order, ElementsAre("zeros", "zeros", "asked", "bytes"));
}

TEST_F(GrowthOrder, OfOneThatFailsTheLogFileIsClosedBeforeTheLockIsLeftAgain)
{
    openLog("log");
    const int16_t handle = openNew("f", 0, 0, 1000);
    std::vector<int> values;
    Spy closing(Call::kFclose, [&](const CallRecord&) { values.push_back(growSemValue()); });
    const ScopedFault fault({.call = Call::kWrite, .error = ENOSPC, .when = isZeroBlock});
    fatalEnd([&] { seekWrite(handle, 0, "x"); });
    EXPECT_THAT(values, ElementsAre(1));
    EXPECT_EQ(growSemValue(), 2);
}

// --- Paths

TEST_F(RemoveByPath, TellsLettersOfDifferentCaseApart)
{
    openWith("f", kDigits);
    writeFile("F", "");
    EXPECT_EQ(rm_fileRemove("F"), 0);
    EXPECT_FALSE(std::filesystem::exists("F"));
    EXPECT_EQ(rm_fileRemove("f"), -1);
}

TEST_F(SeekBehindTheEnd, ExtendsNothing)
{
    rmDiskFull = 0;
    writeFile("f", kDigits);
    rm_fileOpen("f", RM_O_RDWR, 0, 0, 1000);
    EXPECT_EQ(rm_fileSeek(0, 5000), 5000U);
    EXPECT_EQ(rm_fileLength(0), 10U);
    EXPECT_EQ(entryOf(0)->knownSize, 10U);
    EXPECT_EQ(growSem, RM_NONE);
}

TEST_F(GrowthOrder, OfAnOpenAndAReopeningGrowSemIsTakenInsideFileSem)
{
    fileSem = rm_syncCreate("fileSem");
    growSem = rm_syncCreate("growSem");
    const auto inside =
        ElementsAre(enters(fileSem), enters(growSem), leaves(growSem), leaves(fileSem));
    {
        const LockWatch locks;
        openNew("f", 0, 600);
        EXPECT_THAT(locks.steps(), inside);
    }
    park(0);
    std::filesystem::resize_file("f", 10);
    const LockWatch locks;
    EXPECT_EQ(rm_fileLength(0), 600U);
    EXPECT_THAT(locks.steps(), inside);
}

}  // namespace
