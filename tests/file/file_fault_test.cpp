// Each call to the system that managed files make is failed here, once and for ever after, with
// each error that its manual page names.
//
// One call at a time: the result, the lines, the state afterwards. Locks and memory, whose failure
// is always fatal, stand in file_fault_fatal_test.cpp; whole operations, every call of which fails
// in turn, in file_fault_sweep_test.cpp.
#include "tests/file/fault_case.h"

#include <fcntl.h>

using namespace filetest;

namespace
{

class FileFaultOpen : public FileFault
{
};

class FileFaultReopen : public FileFault, public ::testing::WithParamInterface<FileOperation>
{
};

INSTANTIATE_TEST_SUITE_P(Operations, FileFaultReopen, ::testing::ValuesIn(fileOperations()),
                         operationName);

class FileFaultClose : public FileFault
{
};

class FileFaultTransfer : public FileFault
{
};

class FileFaultQuestion : public FileFault
{
};

class FileFaultPath : public FileFault
{
};

// --- Opening

TEST_F(FileFaultOpen, OpenFailsAndTheFileIsRefusedWithoutALine)
{
    rm_fileClose(openNew("f"));
    const std::size_t descriptors = rmtest::openDescriptors().size();
    forEach("open", kOpenErrors, [&](int error, int times) {
        const Outcome outcome = under({.call = Call::kOpen, .error = error, .times = times},
                                      [] { EXPECT_EQ(openNew("f"), -1); });
        EXPECT_EQ(outcome.hits, 1);
        EXPECT_FALSE(outcome.jumped);
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(file::ftab, nullptr);
        EXPECT_EQ(rmtest::openDescriptors().size(), descriptors);
        expectSound();
    });
}

TEST_F(FileFaultOpen, OpenFailsInFatalModeAndTheLineGivesTheError)
{
    rm_fileClose(openNew("f"));
    forEach("open", kOpenErrors, [&](int error, int times) {
        const Outcome outcome = under({.call = Call::kOpen, .error = error, .times = times},
                                      [] { openNew("f", FILE_FATAL); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_THAT(outcome.lines,
                    ElementsAre("reopenFile: " + errnoText(error) + ": failed to create file 'f'"));
        EXPECT_LT(outcome.seconds, 1.0);
        expectSound();
        fresh();
    });
}

// In a child, which has no standard input any more.
TEST_F(FileFaultOpen, NoNumberAboveTheStandardStreamsIsFreeAndTheFileIsRefused)
{
    fileSem = rm_syncCreate("fileSem");
    const rmtest::ChildResult child = rmtest::runChild([] {
        const Outcome outcome = under({.call = Call::kFcntl, .error = EMFILE}, [] {
            close(STDIN_FILENO);
            EXPECT_EQ(openNew("f"), -1);
        });
        EXPECT_EQ(outcome.hits, 1);
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
        EXPECT_EQ(file::ftab, nullptr);
        const Outcome fatal = under({.call = Call::kFcntl, .error = EMFILE}, [] {
            close(STDIN_FILENO);  // it was free for what captures the output
            openNew("f", FILE_FATAL);
        });
        EXPECT_TRUE(fatal.jumped);
        EXPECT_THAT(fatal.lines, ElementsAre("reopenFile: errno=24: failed to create file 'f'"));
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
        expectSound();
    });
    EXPECT_EQ(child.status, 0);
}

TEST_F(FileFaultOpen, ManyFailuresInARowLeaveNothingBehind)
{
    openMany(1);
    const uint32_t memory = rm_memused();
    const std::size_t descriptors = rmtest::openDescriptors().size();
    under({.call = Call::kOpen, .error = EMFILE, .times = kForever}, [] {
        for (int i = 0; i < 500; ++i) {
            EXPECT_EQ(openNew("f"), -1);
        }
    });
    EXPECT_EQ(rm_memused(), memory);
    EXPECT_EQ(rmtest::openDescriptors().size(), descriptors);
    EXPECT_EQ(counts(), (Counts{1, 0, 0, 0}));
}

TEST_F(FileFaultOpen, FdopenFailsAndTheFileIsRefusedWithItsDescriptorClosed)
{
    rm_fileClose(openNew("f"));
    const std::size_t descriptors = rmtest::openDescriptors().size();
    forEach("fdopen", kFdopenErrors, [&](int error, int times) {
        const Outcome outcome = under({.call = Call::kFdopen, .error = error, .times = times},
                                      [] { EXPECT_EQ(openNew("f", FILE_STREAM), -1); });
        EXPECT_EQ(outcome.hits, 1);
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(file::ftab, nullptr);
        EXPECT_EQ(rmtest::openDescriptors().size(), descriptors);
        expectSound();
    });
}

TEST_F(FileFaultOpen, FdopenFailsInFatalModeAndTheLineGivesTheError)
{
    rm_fileClose(openNew("f"));
    const std::size_t descriptors = rmtest::openDescriptors().size();
    forEach("fdopen", kFdopenErrors, [&](int error, int times) {
        const Outcome outcome = under({.call = Call::kFdopen, .error = error, .times = times},
                                      [] { openNew("f", FILE_STREAM | FILE_FATAL); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_THAT(outcome.lines,
                    ElementsAre("reopenFile: " + errnoText(error) + ": failed to create file 'f'"));
        EXPECT_EQ(rmtest::openDescriptors().size(), descriptors);
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultOpen, FdopenFailsAndSoDoesTheCloseAfterIt)
{
    rm_fileClose(openNew("f"));
    const ScopedFault closing(
        {.call = Call::kClose, .error = EIO, .when = [](const CallRecord& call) {
             return file::ftab != nullptr && call.args[0] == entryOf(0)->fd;
         }});
    const Outcome outcome = under({.call = Call::kFdopen, .error = ENOMEM},
                                  [] { openNew("f", FILE_STREAM | FILE_FATAL); });
    EXPECT_EQ(closing.hits(), 1);
    EXPECT_THAT(outcome.lines, ElementsAre("reopenFile: errno=12: failed to create file 'f'"));
}

TEST_F(FileFaultOpen, TheLastSeekFailsAndTheFileIsRefused)
{
    rm_fileClose(openNew("f"));
    const std::size_t descriptors = rmtest::openDescriptors().size();
    const auto lastSeek = [](const CallRecord& call) {
        return call.args[1] == 0 && call.args[2] == SEEK_SET && entryOf(0)->knownSize == 10;
    };
    forEach("lseek", kLseekErrors, [&](int error, int times) {
        writeFile("f", kDigits);
        // The measuring seeks back to 0 first, before the size is known.
        const Outcome outcome =
            under({.call = Call::kLseek,
                   .error = error,
                   .skip = 1,
                   .times = times,
                   .when = [&](const CallRecord& call) { return lastSeek(call); }},
                  [] { EXPECT_EQ(rm_fileOpen("f", RM_O_RDWR, 0, 0, 0), -1); });
        EXPECT_EQ(outcome.hits, 1);
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(rmtest::openDescriptors().size(), descriptors);
        EXPECT_EQ(file::ftab, nullptr);
    });
}

TEST_F(FileFaultOpen, AFileThatCannotBeMeasuredIsOpenedAndNeverGrown)
{
    forEach("lseek", kLseekErrors, [&](int error, int) {
        rmDiskFull = 0;
        const Outcome outcome = under({.call = Call::kLseek, .error = error, .times = 2},
                                      [] { EXPECT_EQ(openNew("f", 0, 600, 1000), 0); });
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(rm_fileLength(0), 0U);
        EXPECT_EQ(seekWrite(0, 100, "x"), 1U);
        EXPECT_EQ(rm_fileLength(0), 101U);
        fresh();
    });
}

// --- Reopening

TEST_P(FileFaultReopen, OpenFailsAndTheHandleIsGone)
{
    const FileOperation& operation = GetParam();
    forEach("open", kOpenErrors, [&](int error, int times) {
        parkedWith("f", kDigits, operation.mode());
        const Outcome outcome = under({.call = Call::kOpen, .error = error, .times = times},
                                      [&] { EXPECT_EQ(operation.run(0), operation.refused); });
        EXPECT_FALSE(outcome.jumped);
        EXPECT_EQ(outcome.lines, operation.gone(0, "f"));
        EXPECT_EQ(file::ftab, nullptr);
        EXPECT_EQ(readFile("f"), kDigits);
        expectSound();
        fresh();
    });
}

TEST_P(FileFaultReopen, OpenFailsInFatalModeAndTheHandleStaysParked)
{
    const FileOperation& operation = GetParam();
    forEach("open", kOpenErrors, [&](int error, int times) {
        parkedWith("f", kDigits, static_cast<uint16_t>(operation.mode() | FILE_FATAL));
        const Outcome outcome =
            under({.call = Call::kOpen, .error = error, .times = times}, [&] { operation.run(0); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_THAT(outcome.lines,
                    ElementsAre("reopenFile: " + errnoText(error) + ": failed to open file 'f'"));
        expectSound();
        EXPECT_EQ(operation.run(0), operation.good);
        fresh();
    });
}

TEST_P(FileFaultReopen, FdopenFailsAndTheHandleIsGone)
{
    const FileOperation& operation = GetParam();
    forEach("fdopen", kFdopenErrors, [&](int error, int times) {
        parkedWith("f", kDigits, FILE_STREAM);
        const std::size_t descriptors = rmtest::openDescriptors().size();
        const Outcome outcome = under({.call = Call::kFdopen, .error = error, .times = times},
                                      [&] { EXPECT_EQ(operation.run(0), operation.refused); });
        EXPECT_EQ(outcome.lines, operation.gone(0, "f"));
        EXPECT_EQ(rmtest::openDescriptors().size(), descriptors);
        expectSound();
        fresh();
    });
}

// Its bytes would go where they do not belong.
TEST_P(FileFaultReopen, TheSeekToThePositionFailsAndTheHandleIsGone)
{
    const FileOperation& operation = GetParam();
    forEach("lseek", kLseekErrors, [&](int error, int times) {
        parkedWith("f", kDigits, operation.mode());
        entryOf(0)->position = 7;
        const std::size_t descriptors = rmtest::openDescriptors().size();
        const Outcome outcome =
            under({.call = Call::kLseek,
                   .error = error,
                   .times = times,
                   .when = [](const CallRecord& call) { return call.args[1] == 7; }},
                  [&] { EXPECT_EQ(operation.run(0), operation.refused); });
        EXPECT_EQ(outcome.hits, 1);
        EXPECT_EQ(outcome.lines, operation.gone(0, "f"));
        EXPECT_EQ(rmtest::openDescriptors().size(), descriptors);
        EXPECT_EQ(readFile("f"), kDigits);
        expectSound();
        fresh();
    });
}

TEST_P(FileFaultReopen, TheSeekToThePositionFailsInFatalModeAndTheLineGivesTheError)
{
    const FileOperation& operation = GetParam();
    forEach("lseek", kLseekErrors, [&](int error, int times) {
        parkedWith("f", kDigits, static_cast<uint16_t>(operation.mode() | FILE_FATAL));
        entryOf(0)->position = 7;
        const Outcome outcome =
            under({.call = Call::kLseek,
                   .error = error,
                   .times = times,
                   .when = [](const CallRecord& call) { return call.args[1] == 7; }},
                  [&] { operation.run(0); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_THAT(outcome.lines,
                    ElementsAre("reopenFile: " + errnoText(error) + ": failed to open file 'f'"));
        expectSound();
        fresh();
    });
}

TEST_P(FileFaultReopen, TheCloseOfTheFileThatMakesRoomFailsAndNobodyNotices)
{
    const FileOperation& operation = GetParam();
    fileHandleLimit = 4;
    forEach("close", kCloseErrors, [&](int error, int times) {
        parkedWith("f", kDigits, operation.mode());
        openMany(4);
        const Outcome outcome = under({.call = Call::kClose, .error = error, .times = times},
                                      [&] { EXPECT_EQ(operation.run(0), operation.good); });
        EXPECT_EQ(outcome.hits, 1);
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(counts(), (Counts{4, 1, 2, 1}));
        expectSound();
        fresh();
    });
}

// --- Closing

TEST_F(FileFaultClose, CloseFailsAndTheHandleIsFreeAllTheSame)
{
    forEach("close", kCloseErrors, [&](int error, int times) {
        openMany(2);
        const Outcome outcome =
            under({.call = Call::kClose, .error = error, .times = times}, [] { rm_fileClose(0); });
        EXPECT_EQ(outcome.hits, 1);
        EXPECT_FALSE(outcome.jumped);
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(counts(), (Counts{1, 0, 0, 0}));
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultClose, FcloseFailsAndTheHandleIsFreeAllTheSame)
{
    forEach("fclose", kWriteErrors, [&](int error, int times) {
        if (error == EBADF) {
            return;  // that one does not close at all, see the next case
        }
        openMany(2, FILE_STREAM);
        const Outcome outcome =
            under({.call = Call::kFclose, .error = error, .times = times}, [] { rm_fileClose(0); });
        EXPECT_EQ(outcome.hits, 1);
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(counts(), (Counts{1, 0, 0, 0}));
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultClose, OfADescriptorThatTheHostHasClosedFreesTheHandle)
{
    openMany(2);
    close(entryOf(0)->fd);
    EXPECT_THAT(linesOf([] { rm_fileClose(0); }), IsEmpty());
    EXPECT_EQ(counts(), (Counts{1, 0, 0, 0}));
}

TEST_F(FileFaultClose, OfTheLastHandleTakesTheTableAlong)
{
    forEach("close", kCloseErrors, [&](int error, int times) {
        openMany(1);
        under({.call = Call::kClose, .error = error, .times = times}, [] { rm_fileClose(0); });
        EXPECT_EQ(file::ftab, nullptr);
    });
}

TEST_F(FileFaultClose, FcloseFailsWhileParkingAndTheFileIsParkedAllTheSame)
{
    forEach("fclose", kCloseErrors, [&](int error, int times) {
        openWith("f", kDigits, FILE_STREAM);
        entryOf(0)->recentlyUsed = 0;
        const Outcome outcome = under({.call = Call::kFclose, .error = error, .times = times},
                                      [] { EXPECT_EQ(file::closeOneOpenFile(), -1); });
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(rm_filePosition(0), 10U);
        EXPECT_EQ(rm_filePrintf(0, "x"), 1);
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultClose, SemctlFailsForTheLockOfTheFileAndTheHandleIsFree)
{
    forEach("semctl", kSemctlErrors, [&](int error, int times) {
        openMany(2);
        entryOf(0)->seekSem = rm_syncCreate("seek");
        const Outcome outcome =
            under({.call = Call::kSemctl, .error = error, .times = times}, [] { rm_fileClose(0); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_THAT(outcome.out, ::testing::StartsWith("**** rm_syncDelete() semctl() failure, " +
                                                       errnoText(error)));
        EXPECT_EQ(counts(), (Counts{1, 0, 0, 0}));
        expectSound();
        fresh();
    });
}

// --- Transfers

TEST_F(FileFaultTransfer, WriteFailsAndTheLineGivesTheError)
{
    forEach("write", kWriteErrors, [&](int error, int times) {
        openWith("f", kDigits);
        const Outcome outcome = under({.call = Call::kWrite, .error = error, .times = times},
                                      [] { EXPECT_EQ(write(0, "abc"), 0U); });
        EXPECT_EQ(outcome.hits, 1) << "a write is not made again";
        EXPECT_FALSE(outcome.jumped);
        EXPECT_THAT(outcome.lines,
                    ElementsAre("rm_fileWrite: " + errnoText(error) + ": unable to write, file=f"));
        EXPECT_EQ(rm_filePosition(0), 0U);
        EXPECT_EQ(readFile("f"), kDigits);
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultTransfer, WriteFailsInFatalModeAfterItsLine)
{
    forEach("write", kWriteErrors, [&](int error, int times) {
        openWith("f", kDigits, FILE_FATAL);
        const Outcome outcome =
            under({.call = Call::kWrite, .error = error, .times = times}, [] { write(0, "abc"); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_THAT(outcome.lines,
                    ElementsAre("rm_fileWrite: " + errnoText(error) + ": unable to write, file=f"));
        expectSound();
        EXPECT_EQ(write(0, "abc"), 3U);
        fresh();
    });
}

TEST_F(FileFaultTransfer, PositionedWriteFailsAndTheLinesGiveTheError)
{
    forEach("write", kWriteErrors, [&](int error, int times) {
        openWith("f", kDigits);
        const Outcome outcome = under({.call = Call::kWrite, .error = error, .times = times},
                                      [] { EXPECT_EQ(seekWrite(0, 4, "abc"), 0U); });
        EXPECT_FALSE(outcome.jumped);
        EXPECT_THAT(outcome.lines, ElementsAre("rm_fileSeekWrite: unable to write f",
                                               "    seek address=4, bytes=3, " + errnoText(error)));
        EXPECT_EQ(readFile("f"), kDigits);
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultTransfer, PositionedWriteFailsInFatalModeAfterItsLines)
{
    forEach("write", kWriteErrors, [&](int error, int times) {
        openWith("f", kDigits, FILE_FATAL);
        const Outcome outcome = under({.call = Call::kWrite, .error = error, .times = times},
                                      [] { seekWrite(0, 4, "abc"); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_THAT(outcome.lines, ElementsAre("rm_fileSeekWrite: unable to write f",
                                               "    seek address=4, bytes=3, " + errnoText(error)));
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultTransfer, WritesOfEveryShortLengthMoveByWhatWasWritten)
{
    for (int64_t length = 1; length < 6; ++length) {
        SCOPED_TRACE(length);
        openWith("f", "");
        const auto expected = static_cast<uint32_t>(length);
        under({.call = Call::kWrite, .result = length},
              [&] { EXPECT_EQ(write(0, "abcdef"), expected); });
        under({.call = Call::kWrite, .result = length},
              [&] { EXPECT_EQ(seekWrite(0, RM_CURRENT_POSITION, "uvwxyz"), expected); });
        EXPECT_EQ(rm_filePosition(0), 2 * expected);
        EXPECT_EQ(readFile("f"), std::string("abcdef").substr(0, expected) +
                                     std::string("uvwxyz").substr(0, expected));
        fresh();
    }
}

TEST_F(FileFaultTransfer, ReadFailsAndTheLineGivesTheError)
{
    forEach("read", kReadErrors, [&](int error, int times) {
        if (error == EINTR) {
            return;  // made again, see below
        }
        openWith("f", kDigits);
        const Outcome outcome = under({.call = Call::kRead, .error = error, .times = times},
                                      [] { EXPECT_EQ(read(0, 4), ""); });
        EXPECT_EQ(outcome.hits, 1);
        EXPECT_FALSE(outcome.jumped);
        EXPECT_THAT(outcome.lines,
                    ElementsAre("rm_fileRead: " + errnoText(error) + ": unable to read, file=f"));
        EXPECT_EQ(rm_filePosition(0), 0U);
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultTransfer, ReadFailsInFatalModeAfterItsLine)
{
    forEach("read", kReadErrors, [&](int error, int) {
        openWith("f", kDigits, FILE_FATAL);
        const Outcome outcome = under({.call = Call::kRead, .error = error, .times = kForever},
                                      [] { rm_fileRead(0, operationBuffer, 4); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_THAT(outcome.lines,
                    ElementsAre("rm_fileRead: " + errnoText(error) + ": unable to read, file=f"));
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultTransfer, PositionedReadFailsAndTheLinesGiveTheError)
{
    forEach("read", kReadErrors, [&](int error, int) {
        openWith("f", kDigits);
        const Outcome outcome = under({.call = Call::kRead, .error = error, .times = kForever},
                                      [] { EXPECT_EQ(seekRead(0, 4, 3), ""); });
        EXPECT_FALSE(outcome.jumped);
        EXPECT_THAT(outcome.lines, ElementsAre("rm_fileSeekRead: unable to read f",
                                               "    seek address=4, bytes=0, " + errnoText(error)));
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultTransfer, PositionedReadFailsInFatalModeAfterItsLines)
{
    forEach("read", kReadErrors, [&](int error, int) {
        openWith("f", kDigits, FILE_FATAL);
        const Outcome outcome = under({.call = Call::kRead, .error = error, .times = kForever},
                                      [] { rm_fileSeekRead(0, 4, operationBuffer, 3); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_THAT(outcome.lines, ElementsAre("rm_fileSeekRead: unable to read f",
                                               "    seek address=4, bytes=0, " + errnoText(error)));
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultTransfer, AReadThatIsInterrupted5TimesIsMadeAgain)
{
    openWith("f", kDigits);
    const Outcome outcome = under({.call = Call::kRead, .error = EINTR, .times = 5},
                                  [] { EXPECT_EQ(read(0, 4), "0123"); });
    EXPECT_EQ(outcome.hits, 5);
    EXPECT_THAT(outcome.lines, IsEmpty());
}

TEST_F(FileFaultTransfer, AReadThatIsInterrupted6TimesFails)
{
    openWith("f", kDigits);
    const Outcome outcome = under({.call = Call::kRead, .error = EINTR, .times = kForever},
                                  [] { EXPECT_EQ(read(0, 4), ""); });
    EXPECT_EQ(outcome.hits, 6);
    EXPECT_THAT(outcome.lines, ElementsAre("rm_fileRead: errno=4: unable to read, file=f"));
}

TEST_F(FileFaultTransfer, ReadsOfEveryShortLengthMoveByWhatWasRead)
{
    for (int64_t length = 0; length < 5; ++length) {
        SCOPED_TRACE(length);
        openWith("f", kDigits);
        const auto expected = static_cast<uint32_t>(length);
        const Outcome sequential = under({.call = Call::kRead, .result = length}, [&] {
            EXPECT_EQ(read(0, 5), kDigits.substr(0, expected));
        });
        const Outcome positioned = under({.call = Call::kRead, .result = length}, [&] {
            EXPECT_EQ(seekRead(0, 5, 5), kDigits.substr(5, expected));
        });
        EXPECT_THAT(sequential.lines, IsEmpty());
        EXPECT_THAT(positioned.lines, IsEmpty());
        EXPECT_EQ(rm_filePosition(0), 5 + expected);
        fresh();
    }
}

TEST_F(FileFaultTransfer, TheSeekFailsAndNothingIsTransferred)
{
    forEach("lseek", kLseekErrors, [&](int error, int times) {
        openWith("f", kDigits);
        const rmtest::Fault fault = {.call = Call::kLseek, .error = error, .times = times};
        EXPECT_THAT(under(fault, [] { EXPECT_EQ(write(0, "abc"), 0U); }).lines,
                    ElementsAre("rm_fileWrite: " + errnoText(error) + ": unable to write, file=f"));
        EXPECT_THAT(under(fault, [] { EXPECT_EQ(read(0, 3), ""); }).lines,
                    ElementsAre("rm_fileRead: " + errnoText(error) + ": unable to read, file=f"));
        EXPECT_THAT(under(fault, [] { EXPECT_EQ(seekWrite(0, 4, "abc"), 0U); }).lines,
                    ElementsAre("rm_fileSeekWrite: unable to write f",
                                "    seek address=4, bytes=3, " + errnoText(error)));
        EXPECT_THAT(under(fault, [] { EXPECT_EQ(seekRead(0, 4, 3), ""); }).lines,
                    ElementsAre("rm_fileSeekRead: unable to read f",
                                "    seek address=4, bytes=0, " + errnoText(error)));
        EXPECT_EQ(readFile("f"), kDigits);
        EXPECT_EQ(rm_filePosition(0), 0U);
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultTransfer, TheSeekFailsForADeviceWithoutOffsetsAndTheTransferIsMade)
{
    openWith("f", kDigits);
    const rmtest::Fault fault = {.call = Call::kLseek, .error = ESPIPE, .times = kForever};
    EXPECT_THAT(under(fault,
                      [] {
                          EXPECT_EQ(read(0, 3), "012");
                          EXPECT_EQ(seekRead(0, 8, 2), "34");
                          EXPECT_EQ(write(0, "abc"), 3U);
                          EXPECT_EQ(seekWrite(0, 1, "x"), 1U);
                      })
                    .lines,
                IsEmpty());
    EXPECT_EQ(readFile("f"), "01234abcx9");
}

TEST_F(FileFaultTransfer, AFormattedWriteFailsAndCountsAsZero)
{
    for (const Call call : {Call::kVfprintf, Call::kFflush}) {
        forEach(call == Call::kFflush ? "fflush" : "vfprintf", kPrintErrors,
                [&](int error, int times) {
                    openNew("f", FILE_STREAM | FILE_FATAL);
                    const Outcome outcome = under({.call = call, .error = error, .times = times},
                                                  [] { EXPECT_EQ(rm_filePrintf(0, "lost"), 0); });
                    EXPECT_FALSE(outcome.jumped);
                    EXPECT_THAT(outcome.lines, IsEmpty());
                    EXPECT_EQ(rm_filePosition(0), 0U);
                    EXPECT_EQ(rm_filePrintf(0, "after"), 5);
                    rm_fileClose(0);
                    EXPECT_EQ(readFile("f"), "after");
                    expectSound();
                    fresh();
                });
    }
}

// --- Questions

TEST_F(FileFaultQuestion, TheSeekFailsAndIsMinusOne)
{
    forEach("lseek", kLseekErrors, [&](int error, int times) {
        openWith("f", kDigits);
        const Outcome outcome = under({.call = Call::kLseek, .error = error, .times = times},
                                      [] { EXPECT_EQ(rm_fileSeek(0, 5), kFailedSeek); });
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(rm_filePosition(0), 0U);
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultQuestion, TheLengthCannotBeMeasuredAndIsZero)
{
    forEach("lseek", kLseekErrors, [&](int error, int times) {
        openWith("f", kDigits);
        const Outcome outcome =
            under({.call = Call::kLseek,
                   .error = error,
                   .times = times,
                   .when = [](const CallRecord& call) { return call.args[2] == SEEK_END; }},
                  [] { EXPECT_EQ(rm_fileLength(0), 0U); });
        EXPECT_EQ(outcome.hits, 1);
        EXPECT_THAT(outcome.lines, IsEmpty());
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultQuestion, FsyncFailsAndTheResultIsZero)
{
    openWith("f", kDigits, FILE_FATAL);
    forEach("fsync", kFsyncErrors, [&](int error, int times) {
        const Outcome outcome = under({.call = Call::kFsync, .error = error, .times = times},
                                      [] { EXPECT_EQ(rm_fileSync(0), 0); });
        EXPECT_EQ(outcome.hits, 1);
        EXPECT_FALSE(outcome.jumped);
        EXPECT_THAT(outcome.lines, IsEmpty());
        expectSound();
    });
}

TEST_F(FileFaultQuestion, StatvfsFailsAndTheGrowthIsTakenForGood)
{
    rminfree = 1e18;
    forEach("statvfs", kStatvfsErrors, [&](int error, int times) {
        if (error == EINTR && times == 1) {
            return;  // asked again
        }
        rmDiskFull = 0;
        openNew("f", 0, 0, 1000);
        const Outcome outcome = under({.call = Call::kStatvfs, .error = error, .times = times},
                                      [] { EXPECT_EQ(seekWrite(0, 0, "x"), 1U); });
        EXPECT_GE(outcome.hits, 1);
        EXPECT_FALSE(outcome.jumped);
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(rmDiskFull, 0);
        EXPECT_EQ(rm_fileLength(0), 1000U);
        EXPECT_EQ(growSemValue(), 1);
        expectSound();
        fresh();
    });
}

TEST_F(FileFaultQuestion, TheGrowthItselfFailsWithEveryErrorOfWrite)
{
    forEach("write", kWriteErrors, [&](int error, int times) {
        rmDiskFull = 0;
        openNew("f", 0, 0, 1000);
        const Outcome outcome = under({.call = Call::kWrite, .error = error, .times = times},
                                      [] { seekWrite(0, 0, "x"); });
        EXPECT_TRUE(outcome.jumped);
        EXPECT_THAT(outcome.lines,
                    ElementsAre("Error expanding file f", "Fatal Exit: System Shutting down!"));
        EXPECT_LT(outcome.seconds, 1.0);
        expectSound();
        fresh();
    });
}

// --- Paths

TEST_F(FileFaultPath, RemoveFailsAndIsMinusOne)
{
    forEach("remove", kRemoveErrors, [&](int error, int times) {
        writeFile("f", kDigits);
        const Outcome outcome = under({.call = Call::kRemove, .error = error, .times = times}, [&] {
            EXPECT_EQ(rm_fileRemove("f"), -1);
            EXPECT_EQ(errno, error);
        });
        EXPECT_EQ(outcome.hits, 1);
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(readFile("f"), kDigits);
    });
}

TEST_F(FileFaultPath, RenameFailsAndIsMinusOne)
{
    forEach("rename", kRenameErrors, [&](int error, int times) {
        writeFile("f", kDigits);
        const Outcome outcome = under({.call = Call::kRename, .error = error, .times = times}, [&] {
            EXPECT_EQ(rm_fileRename("f", "g"), -1);
            EXPECT_EQ(errno, error);
        });
        EXPECT_EQ(outcome.hits, 1);
        EXPECT_THAT(outcome.lines, IsEmpty());
        EXPECT_EQ(readFile("f"), kDigits);
    });
}

}  // namespace
