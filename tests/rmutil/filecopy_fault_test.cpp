// Copy and move on a disk that fails: what is logged, what arrives, and that every call comes to
// its end, whichever of its system calls fails, once or for ever after. Some of the two files is
// always whole.
#include "tests/file/fault_case.h"
#include "tests/rmutil/copy_case.h"

#include <fcntl.h>
#include <sys/stat.h>

using namespace copytest;

namespace
{

// --- A copy does not tell

// Three blocks are copied while something fails.
class CopyFault : public CopyCase
{
  protected:
    void SetUp() override
    {
        CopyCase::SetUp();
        writeFile("src", block('a') + block('b') + block('c'));
    }

    static void expectCopied(const Lines& lines, const std::string& arrived)
    {
        EXPECT_EQ(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS); }), lines);
        EXPECT_EQ(readFile("dst"), arrived);
        EXPECT_EQ(readFile("src"), block('a') + block('b') + block('c'));
    }
};

TEST_F(CopyFault, OfOneWriteLosesOneStep)
{
    const ScopedFault fault(failing(Call::kWrite, EIO, 1));
    expectCopied({cannotWrite(EIO)}, block('a') + block('c'));
}

TEST_F(CopyFault, OfAllWritesMakesAnEmptyFile)
{
    const ScopedFault fault(failing(Call::kWrite, ENOSPC, 0, kForever));
    expectCopied({cannotWrite(ENOSPC), cannotWrite(ENOSPC), cannotWrite(ENOSPC)}, "");
}

TEST_F(CopyFault, OfADiskThatFillsKeepsWhatWasThere)
{
    const ScopedFault fault(failing(Call::kWrite, ENOSPC, 2, kForever));
    expectCopied({cannotWrite(ENOSPC)}, block('a') + block('b'));
}

TEST_F(CopyFault, OfADiskThatFillsInTheMiddleOfAStepKeepsItsBeginning)
{
    const ScopedFault partial({.call = Call::kWrite, .skip = 1, .result = 1000});
    const ScopedFault full(failing(Call::kWrite, ENOSPC, 1, kForever));
    expectCopied({cannotWrite(ENOSPC), cannotWrite(ENOSPC)}, block('a') + std::string(1000, 'b'));
}

TEST_F(CopyFault, OfAShortWriteLosesNothing)
{
    const ScopedFault fault({.call = Call::kWrite, .skip = 1, .result = 10});
    expectCopied({}, block('a') + block('b') + block('c'));
}

TEST_F(CopyFault, OfTheRestOfAShortWriteLosesTheRest)
{
    const ScopedFault partial({.call = Call::kWrite, .skip = 1, .result = 10});
    const ScopedFault fault(failing(Call::kWrite, EIO, 1));
    expectCopied({cannotWrite(EIO)}, block('a') + std::string(10, 'b') + block('c'));
}

TEST_F(CopyFault, OfTwoWritesLosesTwoSteps)
{
    const ScopedFault fault(failing(Call::kWrite, EIO, 0, 2));
    expectCopied({cannotWrite(EIO), cannotWrite(EIO)}, block('c'));
}

TEST_F(CopyFault, OfAWriteThatTakesNothingIsLoggedWithoutAnErrno)
{
    const ScopedFault fault({.call = Call::kWrite, .result = 0});
    expectCopied({cannotWrite(0)}, block('b') + block('c'));
}

TEST_F(CopyFault, OfAnInterruptedWriteIsNotRepeated)
{
    const ScopedFault fault(failing(Call::kWrite, EINTR, 1));
    expectCopied({cannotWrite(EINTR)}, block('a') + block('c'));
}

TEST_F(CopyFault, OfTheFirstReadMakesAnEmptyFile)
{
    const ScopedFault fault(failing(Call::kRead, EIO));
    expectCopied({cannotRead(EIO)}, "");
}

TEST_F(CopyFault, OfAReadInTheMiddleEndsTheCopy)
{
    const ScopedFault fault(failing(Call::kRead, EIO, 1));
    expectCopied({cannotRead(EIO)}, block('a'));
    EXPECT_EQ(fault.hits(), 1);
}

TEST_F(CopyFault, OfAllReadsEndsTheCopyWithTheFirst)
{
    resetCalls();
    const Outcome outcome = under(failing(Call::kRead, EIO, 0, kForever), [] {
        EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
        EXPECT_EQ(callCount(Call::kWrite), 0);
    });
    EXPECT_EQ(outcome.hits, 1);
    EXPECT_THAT(outcome.lines, ElementsAre(cannotRead(EIO)));
    EXPECT_EQ(readFile("dst"), "");
}

TEST_F(CopyFault, OfAReadInterruptedFiveTimesLosesNothing)
{
    const ScopedFault fault(failing(Call::kRead, EINTR, 1, 5));
    expectCopied({}, block('a') + block('b') + block('c'));
    EXPECT_EQ(fault.hits(), 5);
}

TEST_F(CopyFault, OfAReadInterruptedSixTimesEndsTheCopy)
{
    const ScopedFault fault(failing(Call::kRead, EINTR, 1, 6));
    expectCopied({cannotRead(EINTR)}, block('a'));
}

TEST_F(CopyFault, OfASeekBeforeAReadEndsTheCopy)
{
    const ScopedFault fault({.call = Call::kLseek,
                             .error = EINVAL,
                             .when = [](const CallRecord& call) { return call.args[1] == 4096; }});
    expectCopied({cannotRead(EINVAL)}, block('a'));
}

TEST_F(CopyFault, OfASeekBeforeAWriteLosesTheStep)
{
    const ScopedFault fault(
        {.call = Call::kLseek, .error = EINVAL, .skip = 1, .when = [](const CallRecord& call) {
             return call.args[1] == 4096;
         }});
    expectCopied({cannotWrite(EINVAL)}, block('a') + block('c'));
}

TEST_F(CopyFault, OfTheClosesIsNotNoticed)
{
    const ScopedFault fault(failing(Call::kClose, EIO, 0, kForever));
    expectCopied({}, block('a') + block('b') + block('c'));
}

TEST_F(CopyFault, OfASourceThatVanishesWhileItIsParkedEndsTheCopy)
{
    fileHandleLimit = 1;
    const ScopedFault fault({.call = Call::kWrite, .action = [](const CallRecord& call) {
                                 std::filesystem::rename("src", "gone");
                                 return passThrough(call);
                             }});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS); }),
                ElementsAre("WARNING: failed file reopen in rm_fileRead(1)", cannotRead(EBADF),
                            "rm_fileClose: invalid handle 1"));
    EXPECT_EQ(readFile("dst"), block('a'));
}

// Each step that follows meets a handle that is none.
TEST_F(CopyFault, OfADestinationThatCannotBeReopenedLosesTheRest)
{
    fileHandleLimit = 1;
    int opens = 0;
    const ScopedFault fault(
        {.call = Call::kOpen, .error = EMFILE, .when = [&](const CallRecord& call) {
             opens += call.path() == "dst" ? 1 : 0;
             return call.path() == "dst" && opens == 3;
         }});
    expectCopied({"WARNING: failed file reopen in rm_fileWrite(2)", cannotWrite(EBADF),
                  "rm_fileWrite: invalid handle 2", "rm_fileClose: invalid handle 2"},
                 block('a'));
}

TEST_F(CopyFault, IsWrittenIntoTheLogFileToo)
{
    openLog("log");
    expectHandles(1);
    const ScopedFault fault({.call = Call::kWrite, .error = EIO, .when = [](const CallRecord& c) {
                                 return c.args[2] == static_cast<int64_t>(kStep);
                             }});
    expectCopied({cannotWrite(EIO)}, block('b') + block('c'));
    EXPECT_THAT(logLines(readFile("log")), ElementsAre(cannotWrite(EIO)));
}

// Each failed write makes the source longer by a line.
TEST_F(CopyFault, OfACopyOfTheLogFileItselfComesToAnEnd)
{
    openLog("log");
    expectHandles(1);
    linesOf([] {
        for (int n = 0; n < 60; ++n) {
            rm_systemLogWrite("%s", std::string(100, 'x').c_str());
        }
    });
    constexpr int kEndless = 1000;
    int writes = 0;
    int destination = -1;
    const OnceOpen once([&] { destination = entryOf(kTo + 1)->fd; });
    const ScopedFault full({.call = Call::kWrite,
                            .error = ENOSPC,
                            .times = kEndless,
                            .when = [&](const CallRecord& call) {
                                return call.args[0] == destination && ++writes > 0;
                            }});
    linesOf([] { EXPECT_EQ(rm_fileCopy("log", "dst"), RM_SUCCESS); });
    EXPECT_GT(writes, 0);
    EXPECT_LT(writes, kEndless);
}

TEST_F(CopyFault, OfAWriteEndsTheCopyWhereTheSourceEndedThen)
{
    resetCalls();
    under(failing(Call::kWrite, EIO), [] {
        EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
        EXPECT_EQ(callCount(Call::kRead), 3);
    });
    EXPECT_EQ(readFile("dst"), block('b') + block('c'));
}

// It may give bytes for ever.
TEST_F(CopyFault, OfAWriteEndsTheCopyOfWhatHasNoLength)
{
    under(failing(Call::kWrite, EIO), [] {
        EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("/dev/zero", "dst"), RM_SUCCESS); }),
                    ElementsAre(cannotWrite(EIO)));
    });
    EXPECT_EQ(readFile("dst"), "");
}

// --- No memory, and no lock: fatal

class CopyFatal : public CopyFault
{
  protected:
    void SetUp() override
    {
        CopyFault::SetUp();
        expectFatal();
    }

    static void expectTimeout(const FatalEnd& end, const std::string& problem)
    {
        EXPECT_TRUE(end.jumped);
        EXPECT_THAT(end.lines, ElementsAre("***Fatal resource manager error***",
                                           "    Specific problem: " + problem));
    }
};

TEST_F(CopyFatal, WithoutMemoryForTheBufferLeavesNoHandle)
{
    const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    const FatalEnd end = fatalEnd([] { rm_fileCopy("src", "dst"); });
    EXPECT_TRUE(end.jumped);
    EXPECT_THAT(end.lines, ElementsAre(::testing::StartsWith("Out of memory!")));
    EXPECT_GT(fault.hits(), 0);
    EXPECT_EQ(file::nHandles, 1);
    EXPECT_FALSE(isThere("dst"));
    EXPECT_EQ(readFile("src").size(), 3 * kStep);
}

TEST_F(CopyFatal, WhenTheTableIsNotFreeInTime)
{
    const ScopedFault fault(timeout(fileSem));
    const FatalEnd end = fatalEnd([] { rm_fileCopy("src", "dst"); });
    expectTimeout(end, "fileSem timeout in rm_fileOpen");
    EXPECT_FALSE(isThere("dst"));
}

TEST_F(CopyFatal, WhenTheTableIsNotFreeInTimeForARead)
{
    rmtest::Fault late = timeout(fileSem);
    late.skip = 4;
    const ScopedFault fault(late);
    const FatalEnd end = fatalEnd([] { rm_fileCopy("src", "dst"); });
    expectTimeout(end, "fileSem timeout in rm_fileRead");
    EXPECT_EQ(readFile("dst"), block('a'));
}

TEST_F(CopyFatal, KeepsTheSourceOfAMove)
{
    const ScopedFault refused({.call = Call::kRename, .error = EXDEV, .times = kForever});
    rmtest::Fault late = timeout(fileSem);
    late.skip = 9;
    const ScopedFault fault(late);
    const FatalEnd end = fatalEnd([] { rm_fileMove("src", "dst"); });
    expectTimeout(end, "fileSem timeout in rm_fileSync");
    EXPECT_EQ(readFile("src").size(), 3 * kStep);
}

// --- What a fatal end leaves open

class CopyLeft : public CopyFatal
{
  protected:
    // A copy that ends before its second read: both files are open, and the buffer is there.
    static void abandonACopy()
    {
        rmtest::Fault late = timeout(fileSem);
        late.skip = 4;
        const ScopedFault fault(late);
        EXPECT_TRUE(fatalEnd([] { rm_fileCopy("src", "dst"); }).jumped);
        EXPECT_EQ(fault.hits(), 1);
    }

    // Opens as many files as were left and one more, copies, and looks whether they are still
    // there.
    static void expectFilesOfTheHostStay()
    {
        std::vector<int16_t> handles;
        for (const char* name : {"h0", "h1", "h2"}) {
            handles.push_back(openNew(name));
        }
        EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
        EXPECT_EQ(readFile("dst").size(), 3 * kStep);
        for (const int16_t handle : handles) {
            EXPECT_EQ(write(handle, "x"), 1U) << "handle " << handle;
        }
    }
};

TEST_F(CopyLeft, IsClosedByTheNextCopy)
{
    const uint32_t memory = rm_memused();
    abandonACopy();
    EXPECT_EQ(file::nHandles, 3);
    EXPECT_GT(rm_memused(), memory + kStep);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS); }), IsEmpty());
    EXPECT_EQ(readFile("dst"), block('a') + block('b') + block('c'));
    EXPECT_EQ(file::nHandles, 1);
    EXPECT_EQ(rm_memused(), memory);
}

TEST_F(CopyLeft, IsClosedByTheNextMove)
{
    abandonACopy();
    const ScopedFault refused({.call = Call::kRename, .error = EXDEV, .times = kForever});
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_fileMove("src", "dst"), RM_SUCCESS); }), IsEmpty());
    EXPECT_EQ(readFile("dst"), block('a') + block('b') + block('c'));
    EXPECT_FALSE(isThere("src"));
    EXPECT_EQ(file::nHandles, 1);
}

TEST_F(CopyLeft, IsNoHandleThatTheHostHasClosed)
{
    abandonACopy();
    rm_fileClose(1);
    rm_fileClose(2);
    expectFilesOfTheHostStay();
}

TEST_F(CopyLeft, OfAnOpeningIsClosedByTheNextCopy)
{
    rmtest::Fault late = timeout(fileSem);
    late.skip = 1;
    {
        const ScopedFault fault(late);
        EXPECT_TRUE(fatalEnd([] { rm_fileCopy("src", "dst"); }).jumped);
    }
    EXPECT_EQ(file::nHandles, 2);
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(file::nHandles, 1);
}

// The table's lock is left behind each step: a file that was opened meanwhile is open by then.
TEST_F(CopyLeft, OfALockThatFailsIsClosedByTheNextCopy)
{
    int failed = 0;
    for (int skip = 0, hits = 1; hits > 0 && !HasFailure(); ++skip) {
        SCOPED_TRACE("call " + std::to_string(skip));
        {
            const ScopedFault fault(
                {.call = Call::kSemop, .also = Call::kSemtimedop, .error = EACCES, .skip = skip});
            const bool jumped = fatalEnd([] { rm_fileCopy("src", "dst"); }).jumped;
            hits = fault.hits();
            EXPECT_EQ(jumped, hits > 0);
        }
        failed += hits;
        EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
        EXPECT_EQ(readFile("dst").size(), 3 * kStep);
        EXPECT_EQ(file::nHandles, 1);
    }
    EXPECT_GT(failed, 20);
}

TEST_F(CopyLeft, GoesWithAllMemory)
{
    abandonACopy();
    rm_freeall();
    expectFilesOfTheHostStay();
}

TEST_F(CopyLeft, GoesWithTheTableOfTheFiles)
{
    abandonACopy();
    rm_freeTagMemory(file::fileTag, 0);
    expectFilesOfTheHostStay();
}

TEST_F(CopyLeft, GoesWithTheEndOfTheServer)
{
    abandonACopy();
    rmtest::catchExit([] { rm_exit(0); });
    expectFilesOfTheHostStay();
}

// The block is the host's by now, and the handles are closed all the same.
TEST_F(CopyLeft, HasNoBufferAfterTheReleaseOfItsTag)
{
    abandonACopy();
    rm_freeTagMemory(0, 0);
    std::vector<void*> blocks(20);
    for (void*& block : blocks) {
        block = rm_getMemory(kStep, 0);
    }
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(file::nHandles, 1);
    EXPECT_THAT(linesOf([&blocks] {
                    for (void* block : blocks) {
                        rm_freeMemory(block, 0);
                    }
                }),
                IsEmpty())
        << "one was freed with the copy";
}

// The source vanishes when it is reopened, and the copy ends fatally behind that.
TEST_F(CopyLeft, IsNoHandleThatVanishedBefore)
{
    fileHandleLimit = 1;
    {
        const OnceOpen once([] { std::filesystem::rename("src", "away"); });
        bool gone = false;
        const Spy watch(Call::kOpen, [&gone](const CallRecord& call) {
            gone |= call.path() == "src" && !isThere("src");
        });
        const ScopedFault fault({.call = Call::kSemtimedop,
                                 .error = EAGAIN,
                                 .when = [&gone](const CallRecord&) { return gone; }});
        EXPECT_TRUE(fatalEnd([] { rm_fileCopy("src", "dst"); }).jumped);
        EXPECT_EQ(fault.hits(), 1);
    }
    fileHandleLimit = 32;
    std::filesystem::rename("away", "src");
    EXPECT_EQ(openNew("host"), kFrom);
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_EQ(write(kFrom, "x"), 1U);
    EXPECT_EQ(readFile("host"), "x");
}

// --- Every call of every scenario, with every error

struct Scenario {
    const char* name;
    int16_t limit;  // of descriptors
    bool across;    // file systems
    int32_t (*run)();
};

int32_t copyThem()
{
    return rm_fileCopy("src", "dst");
}

int32_t moveThem()
{
    return rm_fileMove("src", "dst");
}

const Scenario kScenarios[] = {
    {"Copy", 32, false, copyThem},
    {"CopyWithOneDescriptor", 1, false, copyThem},
    {"Move", 32, false, moveThem},
    {"MoveAcross", 32, true, moveThem},
    {"MoveAcrossWithOneDescriptor", 1, true, moveThem},
};

struct Failing {
    Call call;
    const char* name;
    std::vector<int> errors;  // those that are told apart somewhere below, and the likely ones
};

const Failing kFailing[] = {
    {Call::kRemove, "remove", {ENOENT, EACCES, EIO}},
    {Call::kRename, "rename", {EXDEV, ENOENT, EACCES}},
    {Call::kOpen, "open", {EACCES, EMFILE, ENOENT, EEXIST, EINTR}},
    {Call::kLseek, "lseek", {EINVAL, EOVERFLOW}},
    {Call::kRead, "read", {EIO, EINTR, EAGAIN, EISDIR}},
    {Call::kWrite, "write", {ENOSPC, EIO, EINTR, EFBIG}},
    {Call::kFsync, "fsync", {EIO, EINTR, EINVAL, ENOTSUP, ENOSPC}},
    {Call::kClose, "close", {EIO, EINTR}},
    {Call::kSemop, "semop", {EIDRM, ENOMEM}},
    {Call::kSemtimedop, "semtimedop", {EIDRM, ENOMEM}},
    {Call::kMalloc, "malloc", {ENOMEM}},
};

void PrintTo(const Scenario& scenario, std::ostream* out)
{
    *out << scenario.name;
}

// Both begin with contents of their own.
class CopyFaultSweep : public FileFault, public ::testing::WithParamInterface<Scenario>
{
  protected:
    void SetUp() override
    {
        FileFault::SetUp();
        bytes_ = pattern(2 * kStep + 100);
        fileSem = rm_syncCreate("fileSem");
        growSem = rm_syncCreate("growSem");
        descriptors_ = rmtest::openDescriptors().size();
    }

    void prepare()
    {
        rm_freeall();
        fresh();
        fileHandleLimit = GetParam().limit;
        openNew(kKeeper);
        writeFile("src", bytes_);
        writeFile("dst", "old");
        result_ = 1;
    }

    // The refusal is older, so that it answers before the fault of the sweep does.
    Outcome runUnder(const rmtest::Fault& fault)
    {
        const ScopedFault refused({.call = Call::kRename,
                                   .error = EXDEV,
                                   .times = kForever,
                                   .when = [](const CallRecord&) { return GetParam().across; }});
        return under(fault, [&] { result_ = GetParam().run(); });
    }

    static bool has(const char* path, const std::string& bytes)
    {
        return std::filesystem::is_regular_file(path) && readFile(path) == bytes;
    }

    void check(const Outcome& outcome)
    {
        EXPECT_LT(outcome.seconds, 1.0);
        const bool moves = GetParam().run == moveThem;
        const bool sourceWhole = has("src", bytes_);
        if (!moves || outcome.jumped || result_ != RM_SUCCESS) {
            EXPECT_TRUE(sourceWhole);
        } else {
            EXPECT_TRUE(has("dst", bytes_)) << "the file is lost";
        }
        if (!outcome.jumped) {
            EXPECT_THAT(result_, ::testing::AnyOf(RM_SUCCESS, RM_COPY_FAILED));
            EXPECT_EQ(file::nHandles, 1);
        }
        if (!outcome.jumped && outcome.hits == 0) {
            EXPECT_EQ(result_, RM_SUCCESS);
            EXPECT_EQ(sourceWhole, !moves);
        }
        checkState();
    }

    void checkState()
    {
        for (const int16_t lock : {fileSem, growSem}) {
            EXPECT_EQ(semValue(os::iSem, lock), 1) << "lock " << lock;
        }
        alarm(0);
        expectSound();
        EXPECT_EQ(rmtest::openDescriptors().size(),
                  descriptors_ + static_cast<std::size_t>(file::nFilesOpen));
    }

    // One call of the run after the other fails, until the run does not come to the next one.
    // Returns how many calls failed.
    int sweep(rmtest::Fault fault)
    {
        int failed = 0;
        for (int hits = 1; hits > 0; ++fault.skip) {
            SCOPED_TRACE("call " + std::to_string(fault.skip));
            prepare();
            const Outcome outcome = runUnder(fault);
            hits = outcome.hits;
            failed += hits;
            if (fault.call == Call::kSemop && fault.times == kForever) {
                freeLocks();
            }
            check(outcome);
            if (HasFailure()) {
                break;  // one report is enough
            }
        }
        return failed;
    }

    // A failed exit that never succeeds leaves the lock held: nothing else is possible.
    static void freeLocks()
    {
        for (const int16_t lock : {fileSem, growSem}) {
            while (semValue(os::iSem, lock) < 1) {
                rm_syncExitExcl(lock);
            }
        }
    }

    std::string bytes_;
    std::size_t descriptors_ = 0;  // with the locks made and no file open
    int32_t result_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Scenarios, CopyFaultSweep, ::testing::ValuesIn(kScenarios),
                         [](const ::testing::TestParamInfo<Scenario>& scenario) {
                             return std::string(scenario.param.name);
                         });

TEST_P(CopyFaultSweep, LosesNothingWhicheverCallFails)
{
    int failed = 0;
    for (const Failing& failing : kFailing) {
        for (const int error : failing.errors) {
            for (const int times : {1, kForever}) {
                SCOPED_TRACE(named(failing.name, error, times));
                failed += sweep({.call = failing.call, .error = error, .times = times});
                if (HasFailure()) {
                    return;
                }
            }
        }
    }
    EXPECT_GT(failed, 0);
}

TEST_P(CopyFaultSweep, LosesNothingWhateverIsShort)
{
    for (const Call call : {Call::kRead, Call::kWrite}) {
        for (const int64_t length : {7, 99, 4095}) {
            for (const int times : {1, kForever}) {
                SCOPED_TRACE("moved " + std::to_string(length));
                sweep({.call = call, .times = times, .result = length});
            }
        }
    }
}

// A file that seems to end early is not missed by anybody; that it ends is what counts.
TEST_P(CopyFaultSweep, EndsWhenWritesTakeNothing)
{
    for (const int times : {1, kForever}) {
        sweep({.call = Call::kWrite, .times = times, .result = 0});
    }
}

TEST_F(CopyFatal, WithoutMemoryForTheBufferCostsTheDestination)
{
    writeFile("dst", "old");
    const ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
    EXPECT_TRUE(fatalEnd([] { rm_fileCopy("src", "dst"); }).jumped);
    EXPECT_FALSE(isThere("dst"));
}

}  // namespace
