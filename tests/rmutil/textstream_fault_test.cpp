// Text streams when the system refuses: reads, writes and seeks that fail, files that are gone,
// locks that are not free, memory that is not there.
#include "tests/file/fault_case.h"
#include "tests/rmutil/textstream_case.h"

#include <cstdlib>

#include <sys/stat.h>

using namespace streamtest;

namespace
{

using rmtest::Fault;

class StreamReadFault : public StreamTest
{
};

class StreamWriteFault : public StreamTest
{
};

class StreamParkedFault : public StreamTest
{
};

class StreamLockFault : public StreamTest
{
};

std::string readFailure(int error)
{
    return "rm_fileRead: errno=" + std::to_string(error) + ": unable to read, file=f";
}

std::string writeFailure(int error)
{
    return "rm_fileWrite: errno=" + std::to_string(error) + ": unable to write, file=f";
}

// Failures of the calls behind a stream. The framework's own reads and writes have other sizes.
Fault blockFault(Call call, int error, int skip = 0)
{
    return {.call = call, .error = error, .skip = skip, .when = [](const CallRecord& record) {
                return record.args[2] == kStreamBlock;
            }};
}

// --- Reading

TEST_F(StreamReadFault, OfAnyKindGivesNullItsLineAndAMarkInTheStream)
{
    for (const int error : {EIO, EISDIR, EBADF, EAGAIN, EFAULT, EINVAL, ENOMEM}) {
        FileStream* stream = reading("one\n");
        EXPECT_THAT(linesOf([&] {
                        const ScopedFault fault(blockFault(Call::kRead, error));
                        EXPECT_EQ(gets(stream, 100), Line());
                    }),
                    ElementsAre(readFailure(error)));
        EXPECT_TRUE(stream->failed);
        rm_fileStreamClose(stream);
    }
}

TEST_F(StreamReadFault, AtAnyBlockGivesTheLinesBeforeIt)
{
    for (int block = 0; block < 4; ++block) {
        FileStream* stream = reading(linesUpTo(2048, 64));
        Lines lines;
        EXPECT_THAT(linesOf([&] {
                        const ScopedFault fault(blockFault(Call::kRead, EIO, block));
                        lines = allLines(stream, 100);
                    }),
                    ElementsAre(readFailure(EIO)));
        EXPECT_EQ(lines, Lines(static_cast<std::size_t>(block) * 8, lineOf(64)));
        EXPECT_TRUE(stream->failed);
        rm_fileStreamClose(stream);
    }
}

TEST_F(StreamReadFault, ThatIsOverIsReadOnFromTheSameBlock)
{
    FileStream* stream = reading(linesUpTo(1024, 64));
    Lines lines;
    linesOf([&] {
        const ScopedFault fault(blockFault(Call::kRead, EIO, 1));
        lines = allLines(stream, 100);
    });
    for (const std::string& line : allLines(stream, 100)) {
        lines.push_back(line);
    }
    EXPECT_EQ(joined(lines), linesUpTo(1024, 64));
    EXPECT_TRUE(stream->failed) << "it has failed once";
    rm_fileStreamClose(stream);
}

TEST_F(StreamReadFault, InTheMiddleOfALineGivesNullAndTerminatesWhatCameBefore)
{
    FileStream* stream = reading(lineOf(600));
    Guarded buffer(1000);
    linesOf([&] {
        const ScopedFault fault(blockFault(Call::kRead, EIO, 1));
        EXPECT_EQ(rm_fileStreamGets(stream, buffer.data(), 1000), nullptr);
    });
    EXPECT_EQ(std::string(buffer.data()), letters(512));
    EXPECT_TRUE(buffer.intact());
    rm_fileStreamClose(stream);
}

TEST_F(StreamReadFault, OfALongLineGivesWhatCameBefore)
{
    FileStream* stream = reading(lineOf(600));
    LineBuffer lines;
    Line line;
    linesOf([&] {
        const ScopedFault fault(blockFault(Call::kRead, EIO, 1));
        line = lines.next(stream);
    });
    EXPECT_EQ(line, letters(512));
    EXPECT_TRUE(stream->failed);
    rm_fileStreamClose(stream);
}

TEST_F(StreamReadFault, OfWholeLinesGivesWhatCameBeforeAndThenNothing)
{
    FileStream* stream = reading(lineOf(500) + lineOf(100));
    rmutil::LineContext lines = rmutil::linesOf(stream);
    Lines given;
    std::string_view line;
    const ScopedFault fault(
        {.call = Call::kRead,
         .error = EIO,
         .skip = 1,
         .times = kForever,
         .when = [](const auto& call) { return call.args[2] == kStreamBlock; }});
    captureStderr([&] {
        while (rmutil::nextWhole(&lines, &line)) {
            given.emplace_back(line);
        }
    });
    EXPECT_THAT(given, ElementsAre(letters(499), letters(12)));
    EXPECT_TRUE(stream->failed);
    rm_freeMemory(lines.buffer, 0);
    rm_fileStreamClose(stream);
}

TEST_F(StreamReadFault, InterruptedReadsAreRepeated)
{
    FileStream* stream = reading("one\n");
    Fault interrupted = blockFault(Call::kRead, EINTR);
    interrupted.times = 5;
    EXPECT_THAT(linesOf([&] {
                    const ScopedFault fault(interrupted);
                    EXPECT_EQ(gets(stream, 100), "one\n");
                }),
                IsEmpty());
    EXPECT_FALSE(stream->failed);
    rm_fileStreamClose(stream);
}

TEST_F(StreamReadFault, AReadInterruptedForEverIsAFailure)
{
    FileStream* stream = reading("one\n");
    Fault interrupted = blockFault(Call::kRead, EINTR);
    interrupted.times = kForever;
    EXPECT_THAT(linesOf([&] {
                    const ScopedFault fault(interrupted);
                    EXPECT_EQ(gets(stream, 100), Line());
                }),
                ElementsAre(readFailure(EINTR)));
    EXPECT_TRUE(stream->failed);
    rm_fileStreamClose(stream);
}

TEST_F(StreamReadFault, AShortReadIsTakenForTheEnd)
{
    FileStream* stream = reading(linesUpTo(1024, 64));
    Fault shortRead = blockFault(Call::kRead, 0);
    shortRead.result = 100;
    const ScopedFault fault(shortRead);
    EXPECT_EQ(gets(stream, 100), lineOf(64));
    EXPECT_EQ(gets(stream, 100), Line());
    EXPECT_EQ(gets(stream, 100), Line());
    EXPECT_FALSE(stream->failed);
    rm_fileStreamClose(stream);
}

TEST_F(StreamReadFault, AShortReadIsNoEndForWholeLines)
{
    FileStream* stream = reading(linesUpTo(1024, 64));
    rmutil::LineContext lines = rmutil::linesOf(stream);
    Fault shortRead = blockFault(Call::kRead, 0);
    shortRead.result = 100;
    const ScopedFault fault(shortRead);
    Lines given;
    std::string_view line;
    while (rmutil::nextWhole(&lines, &line)) {
        given.emplace_back(line);
    }
    EXPECT_EQ(given, Lines(16, letters(63)));
    rm_freeMemory(lines.buffer, 0);
    rm_fileStreamClose(stream);
}

// A damaged heap: the buffer in which a line is put together is no block of tag 0 any more.
TEST_F(StreamReadFault, OfABufferThatCannotGrowEndsTheLinesAndIsRemembered)
{
    FileStream* stream = reading(letters(1000) + "\nnext\n");
    char foreign[600] = "";
    for (const bool whole : {true, false}) {
        rmutil::LineContext lines = rmutil::linesOf(stream);
        lines.buffer = foreign;
        lines.size = sizeof(foreign);
        lines.capacity = sizeof(foreign);
        std::string_view line;
        const std::string text = captureStderr([&] {
            EXPECT_FALSE(whole ? rmutil::nextWhole(&lines, &line)
                               : rmutil::nextLine(&lines, &line));
        });
        EXPECT_THAT(text, testing::HasSubstr("WARNING: attempting to free bad pointer"));
        EXPECT_EQ(lines.size, sizeof(foreign));
        EXPECT_EQ(lines.buffer, foreign);
        EXPECT_TRUE(stream->failed || !whole);
        rm_fileStreamClose(stream);
        stream = reading(letters(1000) + "\nnext\n");
    }
    rm_fileStreamClose(stream);
}

TEST_F(StreamReadFault, AFailedSeekGivesNullAndReadsNothing)
{
    FileStream* stream = reading("one\n");
    resetCalls();
    EXPECT_THAT(linesOf([&] {
                    const ScopedFault fault({.call = Call::kLseek, .error = EIO});
                    EXPECT_EQ(gets(stream, 100), Line());
                    EXPECT_EQ(callCount(Call::kRead), 0);
                }),
                ElementsAre(readFailure(EIO)));
    EXPECT_TRUE(stream->failed);
    EXPECT_EQ(gets(stream, 100), "one\n");
    rm_fileStreamClose(stream);
}

TEST_F(StreamReadFault, ADirectoryIsOpenedAndCannotBeRead)
{
    std::filesystem::create_directory(kPath);
    FileStream* stream = rm_fileStreamOpen(kPath, "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(gets(stream, 100), Line()); }),
                ElementsAre(readFailure(EISDIR)));
    EXPECT_TRUE(stream->failed);
    rm_fileStreamClose(stream);
}

TEST_F(StreamReadFault, TheEndOfTheFileIsNone)
{
    FileStream* stream = reading("one\n");
    allLines(stream, 100);
    EXPECT_FALSE(stream->failed);
    rm_fileStreamClose(stream);
}

// A pipe has no offsets: it is read where it is, and a block may come short.
TEST_F(StreamReadFault, APipeGivesItsLines)
{
    ASSERT_EQ(mkfifo(kPath, 0600), 0);
    rmtest::Peer peer([](rmtest::Peer::Channel&) { writeFile(kPath, "one\ntwo\n"); });
    FileStream* stream = rm_fileStreamOpen(kPath, "r");
    ASSERT_NE(stream, nullptr);
    peer.wait();
    EXPECT_THAT(allLines(stream, 100), ElementsAre("one\n", "two\n"));
    EXPECT_FALSE(stream->failed);
    rm_fileStreamClose(stream);
}

// --- Writing

// Five blocks, in lines of 64 bytes.
constexpr std::size_t kLines = 40;

void putLines(FileStream* stream)
{
    for (std::size_t i = 0; i < kLines; ++i) {
        EXPECT_EQ(rm_fileStreamPuts(stream, letters(63).c_str()), 63U);
    }
}

TEST_F(StreamWriteFault, AtAnyBlockLosesThatBlockOnlyAndIsRemembered)
{
    for (int block = 0; block < 5; ++block) {
        FileStream* stream = writing();
        bool failed = false;
        EXPECT_THAT(linesOf([&] {
                        const ScopedFault fault(blockFault(Call::kWrite, ENOSPC, block));
                        putLines(stream);
                        failed = !rmutil::flushStream(stream);
                        rm_fileStreamClose(stream);
                    }),
                    ElementsAre(writeFailure(ENOSPC)))
            << block;
        EXPECT_TRUE(failed);
        EXPECT_EQ(readFile(kPath), linesUpTo(2048, 64)) << block;
    }
}

TEST_F(StreamWriteFault, OfAnyKindIsLoggedWithItsError)
{
    for (const int error : {EIO, ENOSPC, EDQUOT, EFBIG, EINTR, EAGAIN, EBADF, EPIPE}) {
        FileStream* stream = writing();
        EXPECT_THAT(linesOf([&] {
                        const ScopedFault fault(blockFault(Call::kWrite, error));
                        puts(stream, letters(600));
                    }),
                    ElementsAre(writeFailure(error)));
        EXPECT_TRUE(stream->failed);
        EXPECT_EQ(stream->pending, 89U);
        rm_fileStreamClose(stream);
        EXPECT_EQ(readFile(kPath), letters(600).substr(512) + "\n");
    }
}

TEST_F(StreamWriteFault, ForEverIsLoggedForEachBlockAndTheCallsGoOn)
{
    FileStream* stream = writing();
    Fault full = blockFault(Call::kWrite, ENOSPC);
    full.times = kForever;
    EXPECT_THAT(linesOf([&] {
                    const ScopedFault fault(full);
                    putLines(stream);
                    rm_fileStreamClose(stream);
                }),
                ::testing::AllOf(::testing::SizeIs(5), ::testing::Each(writeFailure(ENOSPC))));
    EXPECT_EQ(sizeOnDisk(), 0U);
}

TEST_F(StreamWriteFault, AShortWriteAtAnyBlockLosesItsRestAndIsRemembered)
{
    for (int block = 0; block < 5; ++block) {
        FileStream* stream = writing();
        Fault shortWrite = blockFault(Call::kWrite, 0, block);
        shortWrite.result = 100;
        bool failed = false;
        EXPECT_THAT(linesOf([&] {
                        const ScopedFault fault(shortWrite);
                        putLines(stream);
                        failed = !rmutil::flushStream(stream);
                        rm_fileStreamClose(stream);
                    }),
                    IsEmpty());
        EXPECT_TRUE(failed);
        std::string expected = linesUpTo(2560, 64);
        expected.erase(static_cast<std::size_t>(block) * kStreamBlock + 100, kStreamBlock - 100);
        EXPECT_EQ(readFile(kPath), expected) << block;
    }
}

TEST_F(StreamWriteFault, IsRememberedWhateverIsWrittenAfterwards)
{
    FileStream* stream = writing();
    linesOf([&] {
        const ScopedFault fault(blockFault(Call::kWrite, EIO));
        puts(stream, letters(600));
    });
    EXPECT_FALSE(rmutil::flushStream(stream));
    puts(stream, "more");
    EXPECT_FALSE(rmutil::flushStream(stream));
    EXPECT_TRUE(stream->failed);
    rm_fileStreamClose(stream);
}

TEST_F(StreamWriteFault, AtCloseIsLoggedAndTheStreamIsGoneAllTheSame)
{
    FileStream* stream = writing();
    puts(stream, "one");
    const uint32_t allocated = rmalloc::tagTable[0].allocated;
    EXPECT_THAT(linesOf([&] {
                    const ScopedFault fault(
                        {.call = Call::kWrite, .error = ENOSPC, .when = [](const CallRecord& call) {
                             return call.args[2] == 4;
                         }});
                    rm_fileStreamClose(stream);
                }),
                ElementsAre(writeFailure(ENOSPC)));
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_LT(rmalloc::tagTable[0].allocated, allocated);
    EXPECT_EQ(sizeOnDisk(), 0U);
}

TEST_F(StreamWriteFault, AFailedSeekWritesNothing)
{
    FileStream* stream = writing();
    puts(stream, "one");
    EXPECT_THAT(linesOf([&] {
                    const ScopedFault fault({.call = Call::kLseek, .error = EIO});
                    EXPECT_FALSE(rmutil::flushStream(stream));
                }),
                ElementsAre(writeFailure(EIO)));
    rm_fileStreamClose(stream);
    EXPECT_EQ(sizeOnDisk(), 0U);
}

TEST_F(StreamWriteFault, AFailedCloseOfTheDescriptorGivesTheHandleBack)
{
    FileStream* stream = writing();
    puts(stream, "one");
    const int fd = entryOf(stream->handle)->fd;
    {
        const ScopedFault fault(
            {.call = Call::kClose, .error = EIO, .when = [fd](const CallRecord& call) {
                 return call.args[0] == fd;
             }});
        rm_fileStreamClose(stream);
        EXPECT_EQ(fault.hits(), 1);
    }
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_EQ(readFile(kPath), "one\n");
}

TEST_F(StreamWriteFault, OfAStreamThatIsOpenForReadingIsRemembered)
{
    FileStream* stream = reading("one\n");
    puts(stream, "two");
    EXPECT_THAT(linesOf([&] { EXPECT_FALSE(rmutil::flushStream(stream)); }),
                ElementsAre(writeFailure(EBADF)));
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), "one\n");
}

// --- Files that are parked and do not come back

TEST_F(StreamParkedFault, AReadOfAFileThatIsGoneGivesNullAndClosingIsSafe)
{
    FileStream* stream = reading(linesUpTo(1024, 64));
    const int16_t handle = stream->handle;
    gets(stream, 100);
    park(handle);
    std::filesystem::remove(kPath);
    Lines lines;
    EXPECT_THAT(linesOf([&] { lines = allLines(stream, 100); }),
                ElementsAre("WARNING: failed file reopen in rm_fileRead(0)", readFailure(EBADF)));
    EXPECT_EQ(lines.size(), 7U);
    EXPECT_TRUE(stream->failed);
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(gets(stream, 100), Line()); }),
                ElementsAre("rm_fileRead: invalid handle -1"));
    EXPECT_THAT(linesOf([&] { rm_fileStreamClose(stream); }), testing::IsEmpty());
}

TEST_F(StreamParkedFault, AWriteToAFileThatIsGoneIsRememberedAndClosingIsSafe)
{
    FileStream* stream = writing();
    puts(stream, letters(100));
    park(stream->handle);
    // "w" makes it anew, so the way to it has to go.
    std::filesystem::remove(kPath);
    std::filesystem::create_directory(kPath);
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(puts(stream, letters(600)), 600U); }),
                ElementsAre("WARNING: failed file reopen in rm_fileWrite(0)", writeFailure(EBADF)));
    EXPECT_TRUE(stream->failed);
    EXPECT_THAT(linesOf([&] { rm_fileStreamClose(stream); }),
                ElementsAre("rm_fileWrite: invalid handle -1"));
}

TEST_F(StreamParkedFault, AHandleThatIsGoneIsNotTakenForTheNextFileWithItsNumber)
{
    FileStream* stream = reading(linesUpTo(1024, 64));
    const int16_t number = stream->handle;
    gets(stream, 100);
    park(number);
    std::filesystem::remove(kPath);
    captureStderr([&] { allLines(stream, 100); });
    writeFile("other", "text");
    const int16_t other = rm_fileOpen("other", RM_O_RDONLY, 0, 0, 0);
    EXPECT_EQ(other, number);
    captureStderr([&] { EXPECT_EQ(gets(stream, 100), Line()); });
    rm_fileStreamClose(stream);
    EXPECT_EQ(rm_filePosition(other), 0U);
    rm_fileClose(other);
}

TEST_F(StreamParkedFault, AReadWithoutADescriptorLeftGivesNull)
{
    FileStream* stream = reading("one\n");
    park(stream->handle);
    Lines log = linesOf([&] {
        const ScopedFault fault({.call = Call::kOpen,
                                 .error = EMFILE,
                                 .when = [](const auto& call) { return call.path() == kPath; }});
        EXPECT_EQ(gets(stream, 100), Line());
    });
    EXPECT_THAT(log,
                ElementsAre("WARNING: failed file reopen in rm_fileRead(0)", readFailure(EBADF)));
    captureStderr([&] { rm_fileStreamClose(stream); });
}

TEST_F(StreamParkedFault, OthersAreNotTouched)
{
    FileStream* stream = reading(linesUpTo(600, 50));
    FileStream* other = reading("other\n", "g");
    park(stream->handle);
    std::filesystem::remove(kPath);
    captureStderr([&] {
        EXPECT_EQ(gets(stream, 100), Line());
        rm_fileStreamClose(stream);
    });
    EXPECT_EQ(gets(other, 100), "other\n");
    rm_fileStreamClose(other);
}

// --- Locks

Lines timedOut(const std::string& problem)
{
    return {"***Fatal resource manager error***", "    Specific problem: " + problem};
}

TEST_F(StreamLockFault, ATimeOutOfAReadIsFatalAndTheStreamStaysGood)
{
    FileStream* stream = reading("one\n");
    char buffer[100];
    const Outcome outcome =
        under(timeout(fileSem), [&] { rm_fileStreamGets(stream, buffer, sizeof(buffer)); });
    EXPECT_TRUE(outcome.jumped);
    EXPECT_EQ(outcome.lines, timedOut("fileSem timeout in rm_fileRead"));
    EXPECT_EQ(gets(stream, 100), "one\n");
    rm_fileStreamClose(stream);
}

TEST_F(StreamLockFault, ATimeOutOfAWriteIsFatalAndNothingIsLost)
{
    FileStream* stream = writing();
    puts(stream, "one");
    const Outcome outcome = under(timeout(fileSem), [&] { rmutil::flushStream(stream); });
    EXPECT_TRUE(outcome.jumped);
    EXPECT_EQ(outcome.lines, timedOut("fileSem timeout in rm_fileWrite"));
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), "one\n");
}

// Of the line that was being put nothing is left, and the lines around it are whole.
TEST_F(StreamLockFault, ATimeOutInTheMiddleOfALineIsFatalAndLosesThatLineOnly)
{
    const std::string line = letters(600);  // what the jump passes by needs no destructor
    FileStream* stream = writing();
    puts(stream, "one");
    const Outcome outcome =
        under(timeout(fileSem), [&] { rm_fileStreamPuts(stream, line.c_str()); });
    EXPECT_TRUE(outcome.jumped);
    EXPECT_EQ(outcome.lines, timedOut("fileSem timeout in rm_fileWrite"));
    puts(stream, "two");
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), "one\ntwo\n");
}

TEST_F(StreamLockFault, ATimeOutBehindABlockOfALineLeavesThatBlock)
{
    const std::string line = letters(1500);
    FileStream* stream = writing();
    puts(stream, "one");
    Fault late = timeout(fileSem);
    late.skip = 1;
    EXPECT_TRUE(under(late, [&] { rm_fileStreamPuts(stream, line.c_str()); }).jumped);
    puts(stream, "two");
    rm_fileStreamClose(stream);
    EXPECT_EQ(readFile(kPath), "one\n" + letters(508) + "two\n");
}

TEST_F(StreamLockFault, ATimeOutInTheMiddleOfALineThatIsReadLosesItsBeginning)
{
    FileStream* stream = reading(lineOf(600) + "next\n");
    char buffer[1000];
    Fault late = timeout(fileSem);
    late.skip = 1;
    EXPECT_TRUE(under(late, [&] { rm_fileStreamGets(stream, buffer, sizeof(buffer)); }).jumped);
    EXPECT_THAT(allLines(stream, 1000), ElementsAre(lineOf(600).substr(512), "next\n"));
    rm_fileStreamClose(stream);
}

TEST_F(StreamLockFault, ATimeOutOfAnOpenIsFatalAndLeavesNoHandle)
{
    rm_fileStreamClose(writing());
    const Outcome outcome = under(timeout(fileSem), [] { rm_fileStreamOpen(kPath, "r"); });
    EXPECT_TRUE(outcome.jumped);
    EXPECT_EQ(outcome.lines, timedOut("fileSem timeout in rm_fileOpen"));
    EXPECT_EQ(file::ftab, nullptr);
}

// --- Memory

// Every segment is one request, so each allocation asks the platform and can be refused.
class StreamWithoutMemory : public StreamTest
{
  protected:
    void SetUp() override
    {
        rm_freeall();
        setenv("SEG_ALLOC", "1", 1);
        StreamTest::SetUp();
    }

    void TearDown() override
    {
        StreamTest::TearDown();
        unsetenv("SEG_ALLOC");
    }

    // Runs `body` while the allocation number `failing` (from 0) is refused. True when there was
    // such an allocation, which must have been fatal.
    static bool isFatal(int failing, const std::function<void()>& body)
    {
        const Outcome outcome =
            under({.call = Call::kMalloc, .error = ENOMEM, .skip = failing}, body);
        EXPECT_EQ(outcome.jumped, outcome.hits == 1) << failing;
        if (outcome.jumped) {
            EXPECT_THAT(outcome.lines, ElementsAre("Out of memory!")) << failing;
        }
        expectSound();
        return outcome.jumped;
    }
};

TEST_F(StreamWithoutMemory, EveryRefusedAllocationOfAnOpenIsFatalAndTheNextOpenWorks)
{
    int failing = 0;
    FileStream* stream = nullptr;
    while (isFatal(failing, [&] { stream = rm_fileStreamOpen(kPath, "w"); })) {
        FileStream* again = writing("again");
        puts(again, "text");
        rm_fileStreamClose(again);
        ASSERT_EQ(readFile("again"), "text\n");
        rm_freeall();
        ++failing;
    }
    EXPECT_GT(failing, 30) << "a table of 32 entries is made";
    rm_fileStreamClose(stream);
}

TEST_F(StreamWithoutMemory, ARefusedRecordLeavesNothing)
{
    rm_fileStreamClose(writing());
    resetCalls();
    EXPECT_TRUE(isFatal(0, [] { rm_fileStreamOpen(kPath, "w"); }));
    EXPECT_EQ(callCount(Call::kOpen), 0);
    EXPECT_EQ(file::ftab, nullptr);
}

TEST_F(StreamWithoutMemory, EveryRefusedAllocationOfALineIsFatalAndTheStreamStaysGood)
{
    const std::string text = lineOf(3000) + "next\n";
    int failing = 0;
    bool fatal = true;
    while (fatal) {
        FileStream* stream = reading(text);
        char* buffer = nullptr;
        uint32_t size = 0;
        fatal = isFatal(failing, [&] { rm_fileStreamGetLine(stream, &buffer, &size); });
        if (fatal) {
            // The buffer has moved, and the pointer leads to where it is.
            EXPECT_THAT(linesOf([&] { rm_freeMemory(buffer, 0); }), IsEmpty()) << failing;
            const Lines rest = allLines(stream, 4000);
            ASSERT_FALSE(rest.empty());
            ASSERT_EQ(rest.back(), "next\n") << failing;
        } else {
            EXPECT_TRUE(buffer != nullptr && lineOf(3000) == buffer);
        }
        rm_fileStreamClose(stream);
        rm_freeall();
        ++failing;
    }
    EXPECT_GT(failing, 5) << "the buffer is made and extended";
}

TEST_F(StreamWithoutMemory, ReadingIntoABufferAndWritingNeedNone)
{
    FileStream* stream = writing();
    EXPECT_FALSE(isFatal(0, [&] {
        rm_fileStreamPuts(stream, "one");
        rm_fileStreamClose(stream);
    }));
    stream = rm_fileStreamOpen(kPath, "r");
    char buffer[10];
    EXPECT_FALSE(isFatal(0, [&] { rm_fileStreamGets(stream, buffer, sizeof(buffer)); }));
    EXPECT_STREQ(buffer, "one\n");
    rm_fileStreamClose(stream);
}

}  // namespace
