// What the handle table promises at its edges: one descriptor more or less, one byte more or less,
// and on which side of the lock a thing happens.
#include "tests/file/file_case.h"

#include <fstream>

using namespace filetest;

namespace
{

class OpenAtTheLimit : public FileTest
{
};

class OpenToASize : public FileTest
{
  protected:
    void SetUp() override
    {
        FileTest::SetUp();
        rmDiskFull = 0;
    }
};

class OpenFatally : public FileTest
{
};

// Each mode bit alone, and what it does that no other one does.
class ModeBit : public FileTest
{
  protected:
    void SetUp() override
    {
        FileTest::SetUp();
        rmDiskFull = 0;
        writeFile("f", kDigits);
    }

    static void forEachBit(const std::function<void(uint16_t bit)>& body)
    {
        for (int shift = 0; shift < 16; ++shift) {
            SCOPED_TRACE("bit " + std::to_string(shift));
            body(static_cast<uint16_t>(1U << shift));
        }
    }
};

class CloseOrder : public FileTest
{
};

class StreamParking : public FileTest
{
};

// The lock is made before a child closes them.
class StandardStreams : public FileTest
{
  protected:
    void SetUp() override
    {
        FileTest::SetUp();
        fileSem = rm_syncCreate("fileSem");
        resetCalls();
    }
};

class ReopenAtTheLimit : public FileTest, public ::testing::WithParamInterface<FileOperation>
{
};

INSTANTIATE_TEST_SUITE_P(Operations, ReopenAtTheLimit, ::testing::ValuesIn(fileOperations()),
                         operationName);

class ReopenFatally : public FileTest, public ::testing::WithParamInterface<FileOperation>
{
};

INSTANTIATE_TEST_SUITE_P(Operations, ReopenFatally, ::testing::ValuesIn(fileOperations()),
                         operationName);

class WaitForTheTable : public FileTest, public ::testing::WithParamInterface<FileOperation>
{
};

INSTANTIATE_TEST_SUITE_P(Operations, WaitForTheTable, ::testing::ValuesIn(lockedOperations()),
                         operationName);

// The values of fileSem at each line that goes to standard error.
class LineLocks
{
  public:
    const std::vector<int>& values() const { return values_; }

  private:
    std::vector<int> values_;
    Spy spy_{Call::kFwrite, [this](const CallRecord& call) {
                 if (call.pointer<FILE>(3) == stderr) {
                     values_.push_back(fileSemValue());
                 }
             }};
};

// --- Opening

// A server that has closed them goes on printing and logging.
TEST_F(StandardStreams, ThatAreClosedLendTheirNumbersToNoFile)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            close(fd);
        }
        const int16_t handle = openNew("f");
        EXPECT_EQ(write(handle, "data"), 4U);
        const int16_t stream = openNew("g", FILE_STREAM);
        EXPECT_EQ(rm_filePrintf(stream, "text"), 4);
        std::printf("printed\n");
        rm_systemLogWrite("logged");
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(readFile("f"), "data");
    EXPECT_EQ(readFile("g"), "text");
}

TEST_F(StandardStreams, ThatAreClosedLendThemToNoFileThatComesBack)
{
    const rmtest::ChildResult child = rmtest::runChild([] {
        const int16_t handle = parkedWith("f", kDigits);
        close(STDERR_FILENO);
        EXPECT_EQ(read(handle, 4), "0123");
        rm_systemLogWrite("logged");
    });
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(readFile("f"), kDigits);
}

TEST_F(StandardStreams, ThatAreOpenCostAnOpenNoFurtherCall)
{
    openNew("f");
    EXPECT_EQ(callCount(Call::kFcntl), 0);
}

TEST_F(OpenAtTheLimit, ParksAnotherFileBeforeItOpensItsOwn)
{
    fileHandleLimit = 4;
    openMany(4);
    std::vector<Call> order;
    Spy closing(Call::kClose, [&](const CallRecord&) { order.push_back(Call::kClose); });
    Spy opening(Call::kOpen, [&](const CallRecord&) { order.push_back(Call::kOpen); });
    openNew("f4");
    EXPECT_THAT(order, ElementsAre(Call::kClose, Call::kOpen));
    EXPECT_EQ(counts(), (Counts{4, 1, 1, 0}));
}

TEST_F(OpenAtTheLimit, ParksAnotherFileEvenWhenItsOwnIsRefused)
{
    fileHandleLimit = 4;
    openMany(4);
    EXPECT_EQ(rm_fileOpen("missing", RM_O_RDWR, 0, 0, 0), -1);
    EXPECT_EQ(counts(), (Counts{3, 1, 1, 0}));
}

TEST_F(OpenToASize, DoesNotRoundItToTheSteps)
{
    const int16_t handle = openNew("f", 0, 1300, 1000);
    EXPECT_EQ(rm_fileLength(handle), 1300U);
    EXPECT_EQ(entryOf(handle)->knownSize, 1300U);
}

TEST_F(OpenToASize, ExtendsAFileThatIsOneByteShort)
{
    writeFile("f", kDigits);
    const int16_t handle = rm_fileOpen("f", RM_O_RDWR, 0, 11, 0);
    EXPECT_EQ(rm_fileLength(handle), 11U);
}

TEST_F(OpenToASize, ExtendsNoFileThatIsCreatedToBeRead)
{
    const int16_t handle = rm_fileOpen("f", RM_O_RDONLY | RM_O_CREAT, 0, 1300, 0);
    EXPECT_EQ(rm_fileLength(handle), 0U);
    EXPECT_EQ(entryOf(handle)->knownSize, 0U);
    EXPECT_EQ(growSem, -1);
}

// --- Mode bits

TEST_F(ModeBit, NoPresizeAloneKeepsAFileFromBeingExtended)
{
    forEachBit([](uint16_t bit) {
        writeFile("f", kDigits);
        const int16_t handle = rm_fileOpen("f", RM_O_RDWR, bit, 20, 0);
        EXPECT_EQ(rm_fileLength(handle), bit == FILE_NOPRESIZE ? 10U : 20U);
        rm_fileClose(handle);
    });
}

TEST_F(ModeBit, StreamAloneAttachesAStream)
{
    forEachBit([](uint16_t bit) {
        const int16_t handle = rm_fileOpen("f", RM_O_RDWR, bit, 0, 0);
        EXPECT_EQ(entryOf(handle)->stream != nullptr, bit == FILE_STREAM);
        rm_fileClose(handle);
    });
}

TEST_F(ModeBit, PinnedAloneKeepsAFileFromBeingParked)
{
    forEachBit([](uint16_t bit) {
        const int16_t handle = rm_fileOpen("f", RM_O_RDWR, bit, 0, 0);
        file::closeOneOpenFile();
        EXPECT_EQ(entryOf(handle)->state == file::kSlotOpen, bit == FILE_PINNED);
        rm_fileClose(handle);
    });
}

TEST_F(ModeBit, FatalAloneMakesAFailedOpenFatal)
{
    forEachBit([](uint16_t bit) {
        int16_t handle = 7;
        const FatalEnd end = fatalEnd([&] { handle = rm_fileOpen("no/f", RM_O_RDWR, bit, 0, 0); });
        EXPECT_EQ(end.jumped, bit == FILE_FATAL);
        EXPECT_EQ(handle, bit == FILE_FATAL ? 7 : -1);
    });
}

// A host that goes on from its target can still close it.
TEST_F(OpenFatally, LeavesTheHandleParked)
{
    fatalEnd([] { rm_fileOpen("missing", RM_O_RDWR, FILE_FATAL, 0, 0); });
    EXPECT_EQ(counts(), (Counts{0, 1, 0, 0}));
    EXPECT_STREQ(entryOf(0)->name, "missing");
    EXPECT_THAT(linesOf([] { rm_fileClose(0); }), IsEmpty());
    EXPECT_EQ(file::ftab, nullptr);
}

TEST_F(OpenFatally, WithAStreamLeavesFileSemBeforeItsLine)
{
    writeFile("f", "");
    rm_fileClose(openNew("other"));
    LineLocks locks;
    fatalEnd([] { rm_fileOpen("f", RM_O_RDONLY, FILE_FATAL | FILE_STREAM, 0, 0); });
    ASSERT_FALSE(locks.values().empty());
    EXPECT_THAT(locks.values(), ::testing::Each(1));
}

// --- Closing

TEST_F(CloseOrder, TheLockOfTheFileGoesInsideFileSem)
{
    openMany(2);
    entryOf(0)->seekSem = rm_syncCreate("seek");
    std::vector<int> values;
    Spy spy(Call::kSemctl, [&](const CallRecord&) { values.push_back(fileSemValue()); });
    rm_fileClose(0);
    ASSERT_FALSE(values.empty());
    EXPECT_THAT(values, ::testing::Each(0));
}

TEST_F(CloseOrder, OfTheLastHandleTheTableGoesInsideFileSem)
{
    openMany(1);
    std::vector<int> values;
    Spy spy(Call::kFree, [&](const CallRecord&) { values.push_back(fileSemValue()); });
    rm_fileClose(0);
    ASSERT_FALSE(values.empty());
    EXPECT_THAT(values, ::testing::Each(0));
}

// --- Parking

TEST_F(StreamParking, RecordsAnEndBeyond2GiB)
{
    openWith("f", "", FILE_STREAM);
    std::filesystem::resize_file("f", 3'000'000'000ULL);
    park(0);
    EXPECT_EQ(rm_filePosition(0), 3'000'000'000U);
}

TEST_F(StreamParking, FindsTheEndBeforeTheStreamIsClosed)
{
    openWith("f", kDigits, FILE_STREAM);
    resetCalls();
    park(0);
    const std::vector<CallRecord> calls = callTrace({Call::kLseek, Call::kFclose});
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].call, Call::kLseek);
    EXPECT_EQ(calls[0].args[2], SEEK_END);
    EXPECT_EQ(calls[1].call, Call::kFclose);
}

// --- Coming back

TEST_P(ReopenAtTheLimit, ParksNothingWhenThereIsRoomForOneMore)
{
    const FileOperation& operation = GetParam();
    fileHandleLimit = 5;
    parkedWith("f", kDigits, operation.mode());
    openMany(4);
    operation.run(0);
    EXPECT_EQ(counts(), (Counts{5, 0, 1, 1}));
}

TEST_P(ReopenFatally, LeavesFileSemBeforeItsLine)
{
    const FileOperation& operation = GetParam();
    parkedWith("f", kDigits, static_cast<uint16_t>(operation.mode() | FILE_FATAL));
    std::filesystem::remove("f");
    LineLocks locks;
    fatalEnd([&] { operation.run(0); });
    ASSERT_FALSE(locks.values().empty());
    EXPECT_THAT(locks.values(), ::testing::Each(1));
}

TEST_P(ReopenFatally, SaysCreateOfAFileThatWasOpenedToCreate)
{
    const FileOperation& operation = GetParam();
    std::filesystem::create_directory("d");
    const int16_t handle = openNew("d/f", static_cast<uint16_t>(operation.mode() | FILE_FATAL));
    park(handle);
    std::filesystem::remove_all("d");
    EXPECT_THAT(fatalEnd([&] { operation.run(handle); }).lines,
                ElementsAre("reopenFile: errno=2: failed to create file 'd/f'"));
}

TEST_P(ReopenFatally, LeavesTheHandleParked)
{
    const FileOperation& operation = GetParam();
    parkedWith("f", kDigits, static_cast<uint16_t>(operation.mode() | FILE_FATAL));
    std::filesystem::remove("f");
    fatalEnd([&] { operation.run(0); });
    EXPECT_EQ(counts(), (Counts{0, 1, 1, 0}));
    EXPECT_STREQ(entryOf(0)->name, "f");
}

// --- Waiting

TEST_P(WaitForTheTable, IsOneOf14SecondsWhateverWaits)
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

TEST_F(CloseOrder, AFreeSlotIsFoundInsideFileSem)
{
    openMany(1);
    LockWatch locks;
    EXPECT_THAT(linesOf([] { rm_fileClose(5); }), ElementsAre("rm_fileClose: invalid handle 5"));
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem)));
}

TEST_F(ModeBit, FatalAloneMakesAFailedTransferFatal)
{
    forEachBit([](uint16_t bit) {
        const int16_t handle = rm_fileOpen("f", RM_O_RDWR, bit, 0, 0);
        const auto ends = [](Call failing, const std::function<void()>& run) {
            const ScopedFault fault({.call = failing, .error = EIO});
            return fatalEnd(run).jumped;
        };
        const bool fatal = bit == FILE_FATAL;
        EXPECT_EQ(ends(Call::kWrite, [&] { write(handle, "abc"); }), fatal);
        EXPECT_EQ(ends(Call::kWrite, [&] { seekWrite(handle, 4, "abc"); }), fatal);
        EXPECT_EQ(ends(Call::kRead, [&] { rm_fileRead(handle, operationBuffer, 3); }), fatal);
        EXPECT_EQ(ends(Call::kRead, [&] { rm_fileSeekRead(handle, 4, operationBuffer, 3); }),
                  fatal);
        rm_fileClose(handle);
    });
}

// The bit counts as writing, and the system opens such a file to be read.
TEST_F(OpenToASize, WithTheAppendBitAloneIsAGrowthThatFails)
{
    writeFile("f", kDigits);
    const FatalEnd end = fatalEnd([] { rm_fileOpen("f", RM_O_APPEND, 0, 11, 0); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines,
                ElementsAre("Error expanding file f", "Fatal Exit: System Shutting down!"));
    EXPECT_EQ(readFile("f"), kDigits);
}

TEST_F(OpenToASize, NoPresizeCountsWhenTheFileComesBackToo)
{
    writeFile("f", kDigits);
    const int16_t handle = rm_fileOpen("f", RM_O_RDWR, FILE_NOPRESIZE, 600, 0);
    park(handle);
    EXPECT_EQ(rm_fileLength(handle), 10U);
    EXPECT_EQ(entryOf(handle)->knownSize, 10U);
}

TEST_F(OpenToASize, NoPresizeDoesNotKeepWritesFromGrowingTheFile)
{
    const int16_t handle = openNew("f", FILE_NOPRESIZE, 600, 1000);
    EXPECT_EQ(seekWrite(handle, 0, "x"), 1U);
    EXPECT_EQ(rm_fileLength(handle), 1000U);
}

// An end that the record cannot hold is looked for again.
TEST_F(StreamParking, GoesOnAtAnEndBeyond4GiB)
{
    constexpr uint64_t kEnd = 5'000'000'000;
    openWith("f", "", FILE_STREAM);
    std::filesystem::resize_file("f", kEnd);
    park(0);
    EXPECT_EQ(rm_filePosition(0), 0xFFFFFFFFU);
    EXPECT_EQ(rm_filePrintf(0, "end"), 3);
    park(0);
    EXPECT_EQ(rm_filePrintf(0, ", and on"), 8);
    EXPECT_EQ(std::filesystem::file_size("f"), kEnd + 11);
    std::ifstream file("f", std::ios::binary);
    file.seekg(static_cast<std::streamoff>(kEnd));
    std::string text;
    std::getline(file, text);
    EXPECT_EQ(text, "end, and on");
}

// Only a stream's place is an end: another file goes on where it stood, whatever that is.
TEST_F(StreamParking, OfAnotherFileIsAtItsPositionUpToTheLast)
{
    const int16_t handle = openWith("f", kDigits);
    ASSERT_EQ(rm_fileSeek(handle, 0xFFFFFFFFU), 0xFFFFFFFFU);
    park(handle);
    EXPECT_EQ(rm_fileLength(handle), 10U);
    EXPECT_EQ(lseek(entryOf(handle)->fd, 0, SEEK_CUR), off_t{0xFFFFFFFF});
}

TEST_F(StreamParking, GoesOnAtTheEndThatItFoundOverWhatCameLater)
{
    openWith("f", kDigits, FILE_STREAM);
    park(0);
    writeFile("f", std::string(kDigits) + "theirs");
    rm_filePrintf(0, "mine");
    EXPECT_EQ(readFile("f"), "0123456789miners");
}

}  // namespace
