// Reads, writes and questions on a handle: what they move, what they return, what they log.
#include "tests/file/file_case.h"

#include <cstdio>
#include <fstream>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace filetest;

namespace
{

constexpr uint32_t kTwoGiB = 0x80000000U;
constexpr uint32_t kLargestOffset = 0xFFFFFFFEU;  // 4 GiB - 2

class FileSeek : public FileTest
{
};

class FilePrintf : public FileTest
{
};

class FileWrite : public FileTest
{
};

class FileSeekWrite : public FileTest
{
};

class FileRead : public FileTest
{
};

class FileSeekRead : public FileTest
{
};

class FileLength : public FileTest
{
};

class FilePosition : public FileTest
{
};

class FileSync : public FileTest
{
};

class FileLarge : public FileTest
{
};

// How many operations are inside handle 0 when the last line of its fatal end is written: the host
// must not find a file that can never be parked again.
int busyAtTheEndOf(Call failing, const std::function<void()>& run)
{
    int busy = -1;
    ScopedFault fault({.call = failing, .error = EIO});
    Spy spy(Call::kFwrite, [&](const CallRecord&) { busy = entryOf(0)->busyCount; });
    EXPECT_TRUE(fatalEnd(run).jumped);
    return busy;
}

// --- Seek

TEST_F(FileSeek, MovesTheHandle)
{
    openWith("f", kDigits);
    EXPECT_EQ(rm_fileSeek(0, 4), 4U);
    EXPECT_EQ(rm_filePosition(0), 4U);
    EXPECT_EQ(read(0, 3), "456");
}

TEST_F(FileSeek, MovesTheDescriptorToo)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 4);
    EXPECT_EQ(lseek(entryOf(0)->fd, 0, SEEK_CUR), 4);
}

TEST_F(FileSeek, MayLieBehindTheEnd)
{
    openWith("f", kDigits);
    EXPECT_EQ(rm_fileSeek(0, 15), 15U);
    write(0, "x");
    EXPECT_EQ(readFile("f"), std::string("0123456789\0\0\0\0\0x", 16));
}

TEST_F(FileSeek, ThatFailsReturnsMinusOneAndDoesNotMove)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 4);
    ScopedFault fault({.call = Call::kLseek, .error = EINVAL});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileSeek(0, 7), kFailedSeek); }), IsEmpty());
    EXPECT_EQ(rm_filePosition(0), 4U);
}

TEST_F(FileSeek, OnAPipeReturnsMinusOne)
{
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    rm_fileOpen("pipe", RM_O_RDWR, 0, 0, 0);
    EXPECT_EQ(rm_fileSeek(0, 7), kFailedSeek);
}

// --- Printf

TEST_F(FilePrintf, WritesFormattedText)
{
    openNew("f", FILE_STREAM);
    EXPECT_EQ(rm_filePrintf(0, "%s-%03d\n", "text", 7), 9);
    EXPECT_EQ(readFile("f"), "text-007\n");
}

TEST_F(FilePrintf, MovesTheHandleByWhatItWrote)
{
    openNew("f", FILE_STREAM);
    rm_filePrintf(0, "12345");
    rm_filePrintf(0, "678");
    EXPECT_EQ(rm_filePosition(0), 8U);
}

TEST_F(FilePrintf, LetsTheTextLeaveTheProcessAtOnce)
{
    openNew("f", FILE_STREAM);
    int flushes = 0;
    Spy spy(Call::kFflush, [&](const CallRecord&) { ++flushes; });
    rm_filePrintf(0, "text");
    EXPECT_EQ(flushes, 1);
    EXPECT_EQ(std::filesystem::file_size("f"), 4U);
}

TEST_F(FilePrintf, OfNothingReturnsZero)
{
    openNew("f", FILE_STREAM);
    const char* nothing = "";
    EXPECT_EQ(rm_filePrintf(0, "%s", nothing), 0);
    EXPECT_EQ(rm_filePosition(0), 0U);
}

TEST_F(FilePrintf, ReturnsTheLow16BitsOfTheNumber)
{
    openNew("f", FILE_STREAM);
    const std::string text(70'000, 'x');
    EXPECT_EQ(rm_filePrintf(0, "%s", text.c_str()), 70'000 - 65'536);
    EXPECT_EQ(std::filesystem::file_size("f"), 70'000U);
}

TEST_F(FilePrintf, MovesTheHandleByTheLow16BitsOfTheNumber)
{
    openNew("f", FILE_STREAM);
    const std::string text(70'000, 'x');
    rm_filePrintf(0, "%s", text.c_str());
    EXPECT_EQ(rm_filePosition(0), 70'000U - 65'536U);
}

TEST_F(FilePrintf, WritesWhereTheHandleWasMoved)
{
    openWith("f", kDigits, FILE_STREAM);
    rm_fileSeek(0, 3);
    rm_filePrintf(0, "abc");
    EXPECT_EQ(readFile("f"), "012abc6789");
    EXPECT_EQ(rm_filePosition(0), 6U);
}

TEST_F(FilePrintf, ExtendsTheFileByWritingAndNotAhead)
{
    rmDiskFull = 0;
    openNew("f", FILE_STREAM, 0, 1000);
    rm_filePrintf(0, "text");
    EXPECT_EQ(std::filesystem::file_size("f"), 4U);
    EXPECT_EQ(entryOf(0)->knownSize, 0U);
}

TEST_F(FilePrintf, WithoutATableIsFatal)
{
    const FatalEnd end = fatalEnd([] { rm_filePrintf(3, "x"); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre(badStatus(3, nullptr)));
}

TEST_F(FilePrintf, OnAHandleWithoutAStreamIsFatal)
{
    openMany(2);
    const void* table = file::ftab;
    const FatalEnd end = fatalEnd([] { rm_filePrintf(1, "x"); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre(badStatus(1, table)));
    EXPECT_EQ(std::filesystem::file_size("f1"), 0U);
}

TEST_F(FilePrintf, OnAParkedHandleWithoutAStreamIsFatalToo)
{
    parkedWith("f", "");
    const void* table = file::ftab;
    const FatalEnd end = fatalEnd([] { rm_filePrintf(0, "x"); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre(badStatus(0, table)));
    EXPECT_EQ(entryOf(0)->state, file::kSlotParked);
}

TEST_F(FilePrintf, OnAFreeSlotOfATableIsNotFatal)
{
    openNew("f", FILE_STREAM);
    EXPECT_EQ(catchFatal([] {
                  captureStderr([] {
                      rm_filePrintf(1, "x");
                      rm_filePrintf(32, "x");
                      rm_filePrintf(-1, "x");
                  });
              }),
              0);
}

TEST_F(FilePrintf, WhoseFlushFailsCountsAsZero)
{
    openNew("f", FILE_STREAM);
    rm_filePrintf(0, "before ");
    EXPECT_THAT(linesOf([] {
                    ScopedFault fault({.call = Call::kFflush, .error = ENOSPC});
                    EXPECT_EQ(rm_filePrintf(0, "lost"), 0);
                }),
                IsEmpty());
    EXPECT_EQ(rm_filePosition(0), 7U);
}

TEST_F(FilePrintf, WhoseFlushFailsLeavesNothingThatComesOutLater)
{
    openNew("f", FILE_STREAM);
    rm_filePrintf(0, "before ");
    {
        ScopedFault fault({.call = Call::kFflush, .error = ENOSPC});
        rm_filePrintf(0, "lost");
    }
    EXPECT_EQ(rm_filePrintf(0, "after"), 5);
    rm_fileClose(0);
    EXPECT_EQ(readFile("f"), "before after");
}

TEST_F(FilePrintf, WhoseFormattingFailsCountsAsZero)
{
    openNew("f", FILE_STREAM);
    ScopedFault fault({.call = Call::kVfprintf, .error = EILSEQ});
    EXPECT_EQ(rm_filePrintf(0, "lost"), 0);
    EXPECT_EQ(rm_filePosition(0), 0U);
}

TEST_F(FilePrintf, OntoAFullDiskCountsAsZeroAndComesBack)
{
    rm_fileOpen("/dev/full", RM_O_WRONLY, FILE_STREAM, 0, 0);
    EXPECT_EQ(rm_filePrintf(0, "lost"), 0);
    EXPECT_EQ(rm_filePrintf(0, "lost again"), 0);
    EXPECT_EQ(rm_filePosition(0), 0U);
}

// A limit on the size of files makes the system itself refuse the bytes, and later take them.
TEST_F(FilePrintf, LeavesNothingBehindOfALineThatTheSystemRefused)
{
    openNew("f", FILE_STREAM);
    rm_filePrintf(0, "before ");
    signal(SIGXFSZ, SIG_IGN);
    rlimit unlimited = {};
    getrlimit(RLIMIT_FSIZE, &unlimited);
    const rlimit small = {7, unlimited.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    const uint16_t refused = rm_filePrintf(0, "lost");
    setrlimit(RLIMIT_FSIZE, &unlimited);
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(rm_filePrintf(0, "after"), 5);
    EXPECT_EQ(readFile("f"), "before after");
}

// --- Write

TEST_F(FileWrite, WritesAtThePositionAndMovesOn)
{
    openNew("f");
    EXPECT_EQ(write(0, "abc"), 3U);
    EXPECT_EQ(write(0, "de"), 2U);
    EXPECT_EQ(rm_filePosition(0), 5U);
    EXPECT_EQ(readFile("f"), "abcde");
}

TEST_F(FileWrite, SeeksToItsPositionFirst)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 4);
    lseek(entryOf(0)->fd, 0, SEEK_END);
    write(0, "x");
    EXPECT_EQ(readFile("f"), "0123x56789");
}

TEST_F(FileWrite, OfNothingReturnsZeroBeforeTheHandleIsLookedAt)
{
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileWrite(-7, "x", 0), 0U); }), IsEmpty());
    EXPECT_EQ(file::fileOps, 0);
}

TEST_F(FileWrite, ExtendsTheFileByWritingAndNotAhead)
{
    rmDiskFull = 0;
    openNew("f", 0, 0, 1000);
    write(0, "text");
    EXPECT_EQ(std::filesystem::file_size("f"), 4U);
    EXPECT_EQ(entryOf(0)->knownSize, 0U);
    EXPECT_EQ(growSem, -1);
}

TEST_F(FileWrite, TakesNoLockAroundItsTransfer)
{
    openNew("f");
    entryOf(0)->seekSem = rm_syncCreate("seek");
    LockWatch locks;
    write(0, "text");
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem)));
}

TEST_F(FileWrite, ThatFallsShortMovesByWhatWasWritten)
{
    openNew("f");
    ScopedFault fault({.call = Call::kWrite, .result = 3});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(write(0, "abcdef"), 3U); }), IsEmpty());
    EXPECT_EQ(rm_filePosition(0), 3U);
    EXPECT_EQ(readFile("f"), "abc");
}

TEST_F(FileWrite, ThatFailsLogsAndReturnsZero)
{
    openNew("f");
    write(0, "abc");
    ScopedFault fault({.call = Call::kWrite, .error = ENOSPC});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(write(0, "def"), 0U); }),
                ElementsAre("rm_fileWrite: errno=28: unable to write, file=f"));
    EXPECT_EQ(rm_filePosition(0), 3U);
}

TEST_F(FileWrite, ThatFailsCountsAsAnOperation)
{
    openNew("f");
    ScopedFault fault({.call = Call::kWrite, .error = ENOSPC});
    linesOf([] { write(0, "def"); });
    EXPECT_EQ(file::fileOps, 1);
    EXPECT_EQ(entryOf(0)->busyCount, 0);
}

TEST_F(FileWrite, OfNoBytesByTheSystemIsAFailure)
{
    openNew("f");
    ScopedFault fault({.call = Call::kWrite, .result = 0});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(write(0, "def"), 0U); }),
                ElementsAre("rm_fileWrite: errno=0: unable to write, file=f"));
}

TEST_F(FileWrite, OntoAFullDeviceFails)
{
    rm_fileOpen("/dev/full", RM_O_WRONLY, 0, 0, 0);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(write(0, "abc"), 0U); }),
                ElementsAre("rm_fileWrite: errno=28: unable to write, file=/dev/full"));
}

TEST_F(FileWrite, ToAFileOpenForReadingFails)
{
    writeFile("f", kDigits);
    rm_fileOpen("f", RM_O_RDONLY, 0, 0, 0);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(write(0, "abc"), 0U); }),
                ElementsAre("rm_fileWrite: errno=9: unable to write, file=f"));
}

TEST_F(FileWrite, ThatFailsInFatalModeIsOverBeforeTheEnd)
{
    openWith("f", kDigits, FILE_FATAL);
    EXPECT_EQ(busyAtTheEndOf(Call::kWrite, [] { write(0, "abc"); }), 0);
}

TEST_F(FileWrite, ThatFailsInFatalModeEndsAfterItsLine)
{
    openNew("f", FILE_FATAL);
    ScopedFault fault({.call = Call::kWrite, .error = ENOSPC});
    const FatalEnd end = fatalEnd([] { write(0, "abc"); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre("rm_fileWrite: errno=28: unable to write, file=f"));
}

TEST_F(FileWrite, ThatFailsInFatalModeIsNotInsideTheFileAnyMore)
{
    openNew("f", FILE_FATAL);
    ScopedFault fault({.call = Call::kWrite, .error = ENOSPC});
    fatalEnd([] { write(0, "abc"); });
    EXPECT_EQ(entryOf(0)->busyCount, 0);
    EXPECT_EQ(rm_filePosition(0), 0U);
    EXPECT_EQ(write(0, "abc"), 3U);
}

TEST_F(FileWrite, WhoseSeekFailsWritesNothing)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 4);
    lseek(entryOf(0)->fd, 0, SEEK_SET);
    ScopedFault fault({.call = Call::kLseek, .error = EOVERFLOW});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(write(0, "abc"), 0U); }),
                ElementsAre("rm_fileWrite: errno=75: unable to write, file=f"));
    EXPECT_EQ(readFile("f"), kDigits);
    EXPECT_EQ(rm_filePosition(0), 4U);
}

TEST_F(FileWrite, WhoseSeekFailsIsFatalInFatalMode)
{
    openWith("f", kDigits, FILE_FATAL);
    ScopedFault fault({.call = Call::kLseek, .error = EINVAL});
    const FatalEnd end = fatalEnd([] { write(0, "abc"); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre("rm_fileWrite: errno=22: unable to write, file=f"));
}

TEST_F(FileWrite, ToADeviceWithoutOffsetsWritesWhereItIs)
{
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    rm_fileOpen("pipe", RM_O_RDWR, 0, 0, 0);
    EXPECT_EQ(write(0, "through"), 7U);
    EXPECT_EQ(read(0, 7), "through");
    EXPECT_EQ(rm_filePosition(0), 14U);
}

TEST_F(FileWrite, ToAnAppendingFileGoesToItsEnd)
{
    writeFile("f", kDigits);
    rm_fileOpen("f", RM_O_WRONLY | RM_O_APPEND, 0, 0, 0);
    EXPECT_EQ(write(0, "abc"), 3U);
    EXPECT_EQ(readFile("f"), "0123456789abc");
    EXPECT_EQ(rm_filePosition(0), 3U);
}

// --- Positioned write

TEST_F(FileSeekWrite, WritesAtTheOffset)
{
    openWith("f", kDigits);
    EXPECT_EQ(seekWrite(0, 4, "abc"), 3U);
    EXPECT_EQ(readFile("f"), "0123abc789");
}

TEST_F(FileSeekWrite, MovesTheHandleBehindWhatItWrote)
{
    openWith("f", kDigits);
    seekWrite(0, 4, "abc");
    EXPECT_EQ(rm_filePosition(0), 7U);
}

TEST_F(FileSeekWrite, AtTheCurrentPositionMakesNoSeek)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 4);
    resetCalls();
    EXPECT_EQ(seekWrite(0, RM_CURRENT_POSITION, "abc"), 3U);
    EXPECT_EQ(callCount(Call::kLseek), 0);
    EXPECT_EQ(readFile("f"), "0123abc789");
    EXPECT_EQ(rm_filePosition(0), 7U);
}

TEST_F(FileSeekWrite, OfNothingReturnsZeroBeforeTheHandleIsLookedAt)
{
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileSeekWrite(-7, 0, "x", 0), 0U); }), IsEmpty());
    EXPECT_EQ(file::fileOps, 0);
}

TEST_F(FileSeekWrite, ThatFallsShortMovesByWhatWasWritten)
{
    openWith("f", kDigits);
    ScopedFault fault({.call = Call::kWrite, .result = 2});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(seekWrite(0, 4, "abc"), 2U); }), IsEmpty());
    EXPECT_EQ(rm_filePosition(0), 6U);
    EXPECT_EQ(readFile("f"), "0123ab6789");
}

TEST_F(FileSeekWrite, ThatFailsLogsTwoLinesAndReturnsZero)
{
    openWith("f", kDigits);
    ScopedFault fault({.call = Call::kWrite, .error = EIO});
    EXPECT_THAT(
        linesOf([] { EXPECT_EQ(seekWrite(0, 4, "abc"), 0U); }),
        ElementsAre("rm_fileSeekWrite: unable to write f", "    seek address=4, bytes=3, errno=5"));
    EXPECT_EQ(entryOf(0)->busyCount, 0);
    EXPECT_EQ(file::fileOps, 1);
}

TEST_F(FileSeekWrite, ThatFailsStandsAtTheOffset)
{
    openWith("f", kDigits);
    ScopedFault fault({.call = Call::kWrite, .error = EIO});
    linesOf([] { seekWrite(0, 4, "abc"); });
    EXPECT_EQ(rm_filePosition(0), 4U);
}

TEST_F(FileSeekWrite, ThatFailsShowsTheCurrentPositionAsItWasGiven)
{
    openWith("f", kDigits);
    ScopedFault fault({.call = Call::kWrite, .error = EIO});
    EXPECT_THAT(linesOf([] { seekWrite(0, RM_CURRENT_POSITION, "abc"); }),
                ElementsAre("rm_fileSeekWrite: unable to write f",
                            "    seek address=4294967295, bytes=3, errno=5"));
}

TEST_F(FileSeekWrite, ThatFailsInFatalModeIsOverBeforeTheEnd)
{
    openWith("f", kDigits, FILE_FATAL);
    EXPECT_EQ(busyAtTheEndOf(Call::kWrite, [] { seekWrite(0, 4, "abc"); }), 0);
}

TEST_F(FileSeekWrite, ThatFailsInFatalModeEndsAfterItsLines)
{
    openWith("f", kDigits, FILE_FATAL);
    ScopedFault fault({.call = Call::kWrite, .error = EIO});
    const FatalEnd end = fatalEnd([] { seekWrite(0, 4, "abc"); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre("rm_fileSeekWrite: unable to write f",
                                       "    seek address=4, bytes=3, errno=5"));
    EXPECT_EQ(entryOf(0)->busyCount, 0);
}

TEST_F(FileSeekWrite, WhoseSeekFailsWritesNothing)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 2);
    ScopedFault fault({.call = Call::kLseek, .error = EINVAL});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(seekWrite(0, 4, "abc"), 0U); }),
                ElementsAre("rm_fileSeekWrite: unable to write f",
                            "    seek address=4, bytes=3, errno=22"));
    EXPECT_EQ(readFile("f"), kDigits);
    EXPECT_EQ(rm_filePosition(0), 2U);
}

TEST_F(FileSeekWrite, WhoseSeekFailsIsFatalInFatalMode)
{
    openWith("f", kDigits, FILE_FATAL);
    ScopedFault fault({.call = Call::kLseek, .error = EINVAL});
    const FatalEnd end = fatalEnd([] { seekWrite(0, 4, "abc"); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre("rm_fileSeekWrite: unable to write f",
                                       "    seek address=4, bytes=3, errno=22"));
}

TEST_F(FileSeekWrite, ToADeviceWithoutOffsetsWritesWhereItIs)
{
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    rm_fileOpen("pipe", RM_O_RDWR, 0, 0, 0);
    EXPECT_EQ(seekWrite(0, 100, "through"), 7U);
    EXPECT_EQ(seekRead(0, 500, 7), "through");
}

// --- Read

TEST_F(FileRead, ReadsAtThePositionAndMovesOn)
{
    openWith("f", kDigits);
    EXPECT_EQ(read(0, 4), "0123");
    EXPECT_EQ(read(0, 4), "4567");
    EXPECT_EQ(rm_filePosition(0), 8U);
}

TEST_F(FileRead, SeeksToItsPositionFirst)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 4);
    lseek(entryOf(0)->fd, 0, SEEK_END);
    EXPECT_EQ(read(0, 3), "456");
}

TEST_F(FileRead, AtTheEndReturnsWhatIsThere)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 7);
    EXPECT_EQ(read(0, 10), "789");
    EXPECT_EQ(read(0, 10), "");
    EXPECT_EQ(rm_filePosition(0), 10U);
}

TEST_F(FileRead, BehindTheEndReturnsZeroWithoutALine)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 50);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(read(0, 10), ""); }), IsEmpty());
}

TEST_F(FileRead, OfNothingReturnsZeroBeforeTheHandleIsLookedAt)
{
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileRead(-7, operationBuffer, 0), 0U); }), IsEmpty());
    EXPECT_EQ(file::fileOps, 0);
}

TEST_F(FileRead, TakesNoLockAroundItsTransfer)
{
    openWith("f", kDigits);
    entryOf(0)->seekSem = rm_syncCreate("seek");
    LockWatch locks;
    read(0, 4);
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem)));
}

TEST_F(FileRead, ThatFallsShortMovesByWhatWasRead)
{
    openWith("f", kDigits);
    ScopedFault fault({.call = Call::kRead, .result = 3});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(read(0, 6), "012"); }), IsEmpty());
    EXPECT_EQ(rm_filePosition(0), 3U);
}

TEST_F(FileRead, ThatFailsLogsReturnsZeroAndDoesNotMove)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 2);
    ScopedFault fault({.call = Call::kRead, .error = EIO});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(read(0, 6), ""); }),
                ElementsAre("rm_fileRead: errno=5: unable to read, file=f"));
    EXPECT_EQ(rm_filePosition(0), 2U);
    EXPECT_EQ(file::fileOps, 1);
    EXPECT_EQ(entryOf(0)->busyCount, 0);
}

TEST_F(FileRead, OfADirectoryFailsAndTouchesNothing)
{
    rm_fileOpen(".", RM_O_RDONLY, 0, 0, 0);
    std::string buffer = "untouched";
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_fileRead(0, buffer.data(), 9), 0U); }),
                ElementsAre("rm_fileRead: errno=21: unable to read, file=."));
    EXPECT_EQ(buffer, "untouched");
    EXPECT_EQ(rm_filePosition(0), 0U);
}

TEST_F(FileRead, OfAFileOpenForWritingFails)
{
    rm_fileOpen("f", RM_O_WRONLY | RM_O_CREAT, 0, 0, 0);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(read(0, 6), ""); }),
                ElementsAre("rm_fileRead: errno=9: unable to read, file=f"));
}

TEST_F(FileRead, ThatFailsInFatalModeIsOverBeforeTheEnd)
{
    openWith("f", kDigits, FILE_FATAL);
    EXPECT_EQ(busyAtTheEndOf(Call::kRead, [] { rm_fileRead(0, operationBuffer, 6); }), 0);
}

TEST_F(FileRead, ThatFailsInFatalModeEndsAfterItsLine)
{
    openWith("f", kDigits, FILE_FATAL);
    ScopedFault fault({.call = Call::kRead, .error = EIO});
    const FatalEnd end = fatalEnd([] { rm_fileRead(0, operationBuffer, 6); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre("rm_fileRead: errno=5: unable to read, file=f"));
    EXPECT_EQ(entryOf(0)->busyCount, 0);
}

TEST_F(FileRead, WhoseSeekFailsReadsNothing)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 4);
    EXPECT_THAT(linesOf([] {
                    ScopedFault fault({.call = Call::kLseek, .error = EINVAL});
                    resetCalls();
                    EXPECT_EQ(read(0, 3), "");
                    EXPECT_EQ(callCount(Call::kRead), 0);
                }),
                ElementsAre("rm_fileRead: errno=22: unable to read, file=f"));
    EXPECT_EQ(rm_filePosition(0), 4U);
}

TEST_F(FileRead, WhoseSeekFailsIsFatalInFatalMode)
{
    openWith("f", kDigits, FILE_FATAL);
    ScopedFault fault({.call = Call::kLseek, .error = EINVAL});
    const FatalEnd end = fatalEnd([] { rm_fileRead(0, operationBuffer, 6); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre("rm_fileRead: errno=22: unable to read, file=f"));
}

// --- Positioned read

TEST_F(FileSeekRead, ReadsAtTheOffset)
{
    openWith("f", kDigits);
    EXPECT_EQ(seekRead(0, 4, 3), "456");
}

TEST_F(FileSeekRead, MovesTheHandleBehindWhatItRead)
{
    openWith("f", kDigits);
    seekRead(0, 4, 3);
    EXPECT_EQ(rm_filePosition(0), 7U);
    EXPECT_EQ(read(0, 2), "78");
}

TEST_F(FileSeekRead, AtTheCurrentPositionMakesNoSeek)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 4);
    resetCalls();
    EXPECT_EQ(seekRead(0, RM_CURRENT_POSITION, 3), "456");
    EXPECT_EQ(callCount(Call::kLseek), 0);
    EXPECT_EQ(rm_filePosition(0), 7U);
}

TEST_F(FileSeekRead, OfNothingReturnsZeroBeforeTheHandleIsLookedAt)
{
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileSeekRead(-7, 0, operationBuffer, 0), 0U); }),
                IsEmpty());
    EXPECT_EQ(file::fileOps, 0);
}

TEST_F(FileSeekRead, NeverGrowsTheFile)
{
    rmDiskFull = 0;
    writeFile("f", kDigits);
    rm_fileOpen("f", RM_O_RDWR, 0, 0, 1000);
    EXPECT_EQ(seekRead(0, 5000, 3), "");
    EXPECT_EQ(rm_fileLength(0), 10U);
    EXPECT_EQ(growSem, -1);
}

TEST_F(FileSeekRead, ThatFallsShortMovesByWhatWasRead)
{
    openWith("f", kDigits);
    ScopedFault fault({.call = Call::kRead, .result = 2});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(seekRead(0, 4, 5), "45"); }), IsEmpty());
    EXPECT_EQ(rm_filePosition(0), 6U);
}

TEST_F(FileSeekRead, ThatFailsLogsTwoLinesAndReturnsZero)
{
    openWith("f", kDigits);
    ScopedFault fault({.call = Call::kRead, .error = EIO});
    EXPECT_THAT(
        linesOf([] { EXPECT_EQ(seekRead(0, 4, 3), ""); }),
        ElementsAre("rm_fileSeekRead: unable to read f", "    seek address=4, bytes=0, errno=5"));
    EXPECT_EQ(rm_filePosition(0), 4U);
    EXPECT_EQ(file::fileOps, 1);
    EXPECT_EQ(entryOf(0)->busyCount, 0);
}

TEST_F(FileSeekRead, ThatFailsInFatalModeIsOverBeforeTheEnd)
{
    openWith("f", kDigits, FILE_FATAL);
    EXPECT_EQ(busyAtTheEndOf(Call::kRead, [] { rm_fileSeekRead(0, 4, operationBuffer, 3); }), 0);
}

TEST_F(FileSeekRead, ThatFailsInFatalModeEndsAfterItsLines)
{
    openWith("f", kDigits, FILE_FATAL);
    ScopedFault fault({.call = Call::kRead, .error = EIO});
    const FatalEnd end = fatalEnd([] { rm_fileSeekRead(0, 4, operationBuffer, 3); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre("rm_fileSeekRead: unable to read f",
                                       "    seek address=4, bytes=0, errno=5"));
    EXPECT_EQ(entryOf(0)->busyCount, 0);
}

TEST_F(FileSeekRead, OfADirectoryFailsAndTouchesNothing)
{
    rm_fileOpen(".", RM_O_RDONLY, 0, 0, 0);
    std::string buffer = "untouched";
    EXPECT_THAT(
        linesOf([&] { EXPECT_EQ(rm_fileSeekRead(0, 0, buffer.data(), 9), 0U); }),
        ElementsAre("rm_fileSeekRead: unable to read .", "    seek address=0, bytes=0, errno=21"));
    EXPECT_EQ(buffer, "untouched");
}

TEST_F(FileSeekRead, WhoseSeekFailsReadsNothing)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 2);
    ScopedFault fault({.call = Call::kLseek, .error = EINVAL});
    EXPECT_THAT(
        linesOf([] { EXPECT_EQ(seekRead(0, 4, 3), ""); }),
        ElementsAre("rm_fileSeekRead: unable to read f", "    seek address=4, bytes=0, errno=22"));
    EXPECT_EQ(rm_filePosition(0), 2U);
}

// --- Length

TEST_F(FileLength, IsTheTrueSize)
{
    openWith("f", kDigits);
    EXPECT_EQ(rm_fileLength(0), 10U);
    std::ofstream("f", std::ios::app) << "more";
    EXPECT_EQ(rm_fileLength(0), 14U);
}

TEST_F(FileLength, IsNotTheSizeThatTheHandleKnows)
{
    openWith("f", kDigits);
    entryOf(0)->knownSize = 5000;
    EXPECT_EQ(rm_fileLength(0), 10U);
    EXPECT_EQ(entryOf(0)->knownSize, 5000U);
}

TEST_F(FileLength, LeavesTheHandleWhereItStands)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 4);
    rm_fileLength(0);
    EXPECT_EQ(rm_filePosition(0), 4U);
    EXPECT_EQ(seekRead(0, RM_CURRENT_POSITION, 2), "45");
}

TEST_F(FileLength, ThatCannotBeMeasuredIsZero)
{
    openWith("f", kDigits);
    ScopedFault fault({.call = Call::kLseek, .error = EINVAL, .times = kForever});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileLength(0), 0U); }), IsEmpty());
}

TEST_F(FileLength, OfAPipeIsZero)
{
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    rm_fileOpen("pipe", RM_O_RDWR, 0, 0, 0);
    EXPECT_EQ(rm_fileLength(0), 0U);
}

// --- Position

TEST_F(FilePosition, OfAParkedFileThatIsGoneIsStillKnown)
{
    openWith("f", kDigits);
    rm_fileSeek(0, 4);
    park(0);
    std::filesystem::remove("f");
    EXPECT_EQ(rm_filePosition(0), 4U);
    EXPECT_EQ(rm_fileSync(0), 0);
    EXPECT_EQ(entryOf(0)->state, file::kSlotParked);
}

TEST_F(FilePosition, TakesNoLock)
{
    openMany(1);
    LockWatch locks;
    rm_filePosition(0);
    EXPECT_THAT(locks.steps(), IsEmpty());
}

TEST_F(FilePosition, MarksAParkedFileAsUsed)
{
    parkedWith("f", "");
    rm_filePosition(0);
    EXPECT_EQ(entryOf(0)->recentlyUsed, 1);
}

// --- Sync

TEST_F(FileSync, FlushesAnOpenFile)
{
    openWith("f", kDigits);
    Spy spy(Call::kFsync, [](const CallRecord& call) { EXPECT_EQ(call.args[0], entryOf(0)->fd); });
    EXPECT_EQ(rm_fileSync(0), 0);
    EXPECT_EQ(spy.seen(), 1);
}

TEST_F(FileSync, IsSwitchedOffByFileCommit)
{
    openWith("f", kDigits);
    fileCommit = 0;
    resetCalls();
    EXPECT_EQ(rm_fileSync(0), 0);
    EXPECT_EQ(callCount(Call::kFsync), 0);
    fileCommit = 5;
    EXPECT_EQ(rm_fileSync(0), 0);
    EXPECT_EQ(callCount(Call::kFsync), 1);
}

TEST_F(FileSync, HappensOutsideFileSemWithTheFileBusy)
{
    openWith("f", kDigits);
    int value = -1;
    int busy = -1;
    Spy spy(Call::kFsync, [&](const CallRecord&) {
        value = fileSemValue();
        busy = entryOf(0)->busyCount;
    });
    LockWatch locks;
    rm_fileSync(0);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(busy, 1);
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem)));
}

TEST_F(FileSync, ThatFailsReturnsZeroAllTheSame)
{
    openWith("f", kDigits);
    ScopedFault fault({.call = Call::kFsync, .error = EIO});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileSync(0), 0); }), IsEmpty());
    EXPECT_EQ(entryOf(0)->busyCount, 0);
}

TEST_F(FileSync, OfAParkedFileEntersAndLeavesFileSem)
{
    parkedWith("f", kDigits);
    LockWatch locks;
    EXPECT_EQ(rm_fileSync(0), 0);
    EXPECT_THAT(locks.steps(), ElementsAre(enters(fileSem), leaves(fileSem)));
    EXPECT_EQ(entryOf(0)->busyCount, 0);
}

TEST_F(FileSync, OfAParkedFileDoesNotCountAsUse)
{
    parkedWith("f", kDigits);
    rm_fileSync(0);
    EXPECT_EQ(entryOf(0)->recentlyUsed, 0);
}

// --- Large files and lengths

TEST_F(FileLarge, OffsetsBeyond2GiBWork)
{
    openNew("f");
    EXPECT_EQ(seekWrite(0, kTwoGiB + 5, "beyond"), 6U);
    EXPECT_EQ(rm_filePosition(0), kTwoGiB + 11);
    EXPECT_EQ(rm_fileLength(0), kTwoGiB + 11);
    EXPECT_EQ(seekRead(0, kTwoGiB + 5, 10), "beyond");
}

TEST_F(FileLarge, ReadsAndWritesGoOnBeyond2GiB)
{
    openNew("f");
    EXPECT_EQ(rm_fileSeek(0, kTwoGiB - 2), kTwoGiB - 2);
    EXPECT_EQ(write(0, "over"), 4U);
    EXPECT_EQ(rm_filePosition(0), kTwoGiB + 2);
    EXPECT_EQ(rm_fileSeek(0, kTwoGiB - 2), kTwoGiB - 2);
    EXPECT_EQ(read(0, 10), "over");
}

TEST_F(FileLarge, TheLargestOffsetIs4GiBLess2)
{
    openNew("f");
    EXPECT_EQ(rm_fileSeek(0, kLargestOffset), kLargestOffset);
    EXPECT_EQ(seekWrite(0, kLargestOffset - 3, "end"), 3U);
    EXPECT_EQ(rm_fileLength(0), kLargestOffset);
    EXPECT_EQ(rm_filePosition(0), kLargestOffset);
    EXPECT_EQ(seekRead(0, kLargestOffset - 3, 10), "end");
}

TEST_F(FileLarge, AByteAtTheLargestOffsetIsWrittenAndRead)
{
    openNew("f");
    EXPECT_EQ(seekWrite(0, kLargestOffset, "x"), 1U);
    EXPECT_EQ(seekRead(0, kLargestOffset, 1), "x");
    EXPECT_EQ(std::filesystem::file_size("f"), uint64_t{kLargestOffset} + 1);
}

TEST_F(FileLarge, AParkedFileComesBackBeyond2GiB)
{
    openNew("f");
    seekWrite(0, kTwoGiB + 5, "beyond");
    rm_fileSeek(0, kTwoGiB + 6);
    park(0);
    EXPECT_EQ(read(0, 10), "eyond");
}

TEST_F(FileLarge, AFileAbove4GiBShowsTheLargestLength)
{
    openWith("f", "");
    std::filesystem::resize_file("f", 5'000'000'000ULL);
    EXPECT_EQ(rm_fileLength(0), 0xFFFFFFFFU);
    park(0);
    rm_fileLength(0);
    EXPECT_EQ(entryOf(0)->knownSize, 0xFFFFFFFFU);
}

TEST_F(FileLarge, AFileAbove4GiBIsNeverGrown)
{
    rmDiskFull = 0;
    writeFile("f", "");
    std::filesystem::resize_file("f", 5'000'000'000ULL);
    rm_fileOpen("f", RM_O_RDWR, 0, 0, 1000);
    EXPECT_EQ(seekWrite(0, 0xFFFFFF00U, "x"), 1U);
    EXPECT_EQ(std::filesystem::file_size("f"), 5'000'000'000ULL);
    EXPECT_EQ(growSem, -1);
}

TEST_F(FileLarge, AWriteOf2GiBIsRefused)
{
    openWith("f", kDigits);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileWrite(0, "x", kTwoGiB), 0U); }),
                ElementsAre("rm_fileWrite: errno=22: unable to write, file=f"));
    EXPECT_EQ(readFile("f"), kDigits);
}

TEST_F(FileLarge, APositionedWriteOf2GiBIsRefusedAndGrowsNothing)
{
    rmDiskFull = 0;
    openWith("f", kDigits);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileSeekWrite(0, 4, "x", kTwoGiB), 0U); }),
                ElementsAre("rm_fileSeekWrite: unable to write f",
                            "    seek address=4, bytes=2147483648, errno=22"));
    EXPECT_EQ(readFile("f"), kDigits);
    EXPECT_EQ(entryOf(0)->knownSize, 10U);
}

TEST_F(FileLarge, ReadsOf2GiBAreRefused)
{
    openWith("f", kDigits);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileRead(0, operationBuffer, kTwoGiB), 0U); }),
                ElementsAre("rm_fileRead: errno=22: unable to read, file=f"));
    EXPECT_THAT(
        linesOf([] { EXPECT_EQ(rm_fileSeekRead(0, 4, operationBuffer, 0xFFFFFFFFU), 0U); }),
        ElementsAre("rm_fileSeekRead: unable to read f", "    seek address=4, bytes=0, errno=22"));
    EXPECT_EQ(operationBuffer[0], '\0');
}

}  // namespace
