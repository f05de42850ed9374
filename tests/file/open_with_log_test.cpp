// The managed files while the log file, a managed file itself, is open: every line that they write
// reaches both places without a wait, whatever lock they hold and whoever is parked; and an open
// that cannot get its memory or its locks ends at once, with the same lines in both places.
#include "tests/file/fault_case.h"
#include "tests/support/slowness.h"

#include <signal.h>
#include <sys/ipc.h>

using namespace filetest;

namespace
{

using rmtest::ChildResult;
using rmtest::runChild;
using ::testing::StartsWith;

constexpr const char* kLog = "server.log";
constexpr const char* kOwnLog = "own.log";

// Seconds within which something has happened at once. The locks are waited for fourteen.
#ifdef __SANITIZE_ADDRESS__
const double kAtOnce = rmtest::atOnce(4.0);
#else
const double kAtOnce = rmtest::atOnce(1.0);
#endif

// Seconds that are no wait for a lock, however busy the machine is: for sweeps of hundreds of
// processes, whose mean has to be at once.
const double kNoWait = rmtest::atOnce(7.0);

void openServerLog()
{
    rm_systemLog(2);
    rm_systemLogOpen(kLog);
    ASSERT_NE(sysfile, RM_NONE);
}

// What came of a call, as it stands in both places.
struct Seen {
    bool jumped = false;
    std::string err;  // standard error
    std::string log;  // what the log file got in the meantime
    Lines lines;      // of standard error, the frame of a fatal end included
    std::string out;  // standard output
    double seconds = 0;
    int hits = 0;  // of the fault
};

std::string logBytes()
{
    return std::filesystem::exists(kLog) ? readFile(kLog) : "";
}

Seen seenOf(const rmtest::Fault& fault, const std::function<void()>& body)
{
    Seen seen;
    const std::size_t before = logBytes().size();
    const auto started = std::chrono::steady_clock::now();
    seen.out = captureStdout([&] {
        seen.err = captureStderr([&] {
            const ScopedFault armed(fault);
            seen.jumped = catchFatal(body) != 0;
            seen.hits = armed.hits();
        });
    });
    seen.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    seen.lines = logLines(seen.err);
    seen.log = logBytes().substr(before);
    return seen;
}

Seen seenOf(const std::function<void()>& body)
{
    return seenOf({}, body);
}

// The lines are in both places, and nobody was waited for.
void expectInBoth(const Seen& seen, double limit = kAtOnce)
{
    EXPECT_EQ(seen.log, seen.err);
    EXPECT_LT(seen.seconds, limit);
    EXPECT_EQ(fileSemValue(), 1);
}

// --- Lines of files that work, or fail, on

// How many descriptors the table may hold. With one or two, the log file is parked again and again,
// and a line brings it back.
class OpenWithLog : public FileFault, public ::testing::WithParamInterface<int16_t>
{
  protected:
    void SetUp() override
    {
        FileFault::SetUp();
        openServerLog();
        fileHandleLimit = GetParam();
    }

    // The lines of `body`, which returns.
    static Lines linesInBoth(const std::function<void()>& body)
    {
        const Seen seen = seenOf(body);
        EXPECT_FALSE(seen.jumped);
        expectInBoth(seen);
        return seen.lines;
    }

    // A log of the host's own, below its initial size and parked.
    static int16_t parkOwnLog()
    {
        rmDiskFull = 1;
        sysfile = rm_fileOpen(kOwnLog, kLogFlags, FILE_STREAM, 1000, 0);
        rm_systemLog(2);
        park(sysfile);
        return sysfile;
    }

    // The free space is below what has to be left.
    static void makeDiskSmall()
    {
        rmDiskFull = 0;
        rminfree = 1e18;
    }
};

std::string limitName(const ::testing::TestParamInfo<int16_t>& info)
{
    return info.param == -1 ? "Unlimited" : std::to_string(info.param);
}

INSTANTIATE_TEST_SUITE_P(Descriptors, OpenWithLog, ::testing::Values(1, 2, 3, 32, -1), limitName);

const Lines kOwnGrowthLines = {"extending file own.log exceeded min threshold by 2147483647 bytes",
                               "READ ACCESS ONLY!"};

const Lines kGrowthLines = {"extending file f exceeded min threshold by 2147483647 bytes",
                            "READ ACCESS ONLY!"};

TEST_P(OpenWithLog, TheWarningsOfAFileThatHasGoneAreInBoth)
{
    for (const FileOperation& operation : fileOperations()) {
        SCOPED_TRACE(operation.name);
        const int16_t handle = openWith("f", kDigits, operation.mode());
        if (entryOf(handle)->state == file::kSlotOpen) {
            park(handle);
        }
        std::filesystem::remove("f");
        int64_t result = -2;
        EXPECT_EQ(linesInBoth([&] { result = operation.run(handle); }),
                  operation.gone(handle, "f"));
        EXPECT_EQ(result, operation.refused);
        EXPECT_EQ(file::usedEntry(handle), nullptr);
        expectSound();
    }
}

TEST_P(OpenWithLog, TheLinesOfAnOpenThatGrowsAreInBoth)
{
    makeDiskSmall();
    int16_t handle = RM_NONE;
    EXPECT_EQ(linesInBoth([&] { handle = openNew("f", 0, 1000); }), kGrowthLines);
    EXPECT_EQ(rm_fileLength(handle), 1000U);
    EXPECT_EQ(rmDiskFull, 1);
    expectSound();
}

TEST_P(OpenWithLog, TheLinesOfAWriteThatGrowsAreInBoth)
{
    makeDiskSmall();
    const int16_t handle = openNew("f", 0, 0, 1000);
    EXPECT_EQ(linesInBoth([&] { EXPECT_EQ(seekWrite(handle, 10, "text"), 4U); }), kGrowthLines);
    EXPECT_EQ(seekRead(handle, 10, 4), "text");
    expectSound();
}

TEST_P(OpenWithLog, TheLinesOfAWriteUnderALockOfItsOwnAreInBoth)
{
    makeDiskSmall();
    const int16_t handle = openNew("f", 0, 0, 1000);
    const int16_t seekSem = rm_syncCreate("seekSem");
    entryOf(handle)->seekSem = seekSem;
    EXPECT_EQ(linesInBoth([&] { EXPECT_EQ(seekWrite(handle, 10, "text"), 4U); }), kGrowthLines);
    EXPECT_EQ(semValue(os::iSem, seekSem), 1);
    EXPECT_EQ(growSemValue(), 1);
}

TEST_P(OpenWithLog, TheLinesOfAParkedFileThatGrowsWhenItComesBackAreInBoth)
{
    const int16_t handle = openNew("f", 0, 1000);
    if (entryOf(handle)->state == file::kSlotOpen) {
        park(handle);
    }
    makeDiskSmall();
    EXPECT_EQ(linesInBoth([&] { EXPECT_EQ(rm_fileLength(handle), 1000U); }), kGrowthLines);
    expectSound();
}

TEST_P(OpenWithLog, TheLineOfATransferThatFailsIsInBoth)
{
    const int16_t handle = openWith("f", kDigits);
    const Seen seen = seenOf({.call = Call::kWrite,
                              .error = ENOSPC,
                              .when = [](const CallRecord& call) { return call.args[2] == 4; }},
                             [&] { EXPECT_EQ(write(handle, "text"), 0U); });
    EXPECT_EQ(seen.hits, 1);
    expectInBoth(seen);
    EXPECT_THAT(seen.lines, ElementsAre("rm_fileWrite: errno=28: unable to write, file=f"));
}

TEST_P(OpenWithLog, TheLineOfAnInvalidHandleIsInBoth)
{
    EXPECT_THAT(linesInBoth([] { rm_fileClose(77); }),
                ElementsAre("rm_fileClose: invalid handle 77"));
    EXPECT_THAT(linesInBoth([] { rm_fileSync(77); }),
                ElementsAre("rm_fileSync: invalid handle 77"));
}

TEST_P(OpenWithLog, AnOpenThatIsRefusedHasNoLine)
{
    EXPECT_THAT(linesInBoth([] { EXPECT_EQ(openNew("no/f"), RM_NONE); }), IsEmpty());
}

TEST_P(OpenWithLog, TheLinesOfAFatalOpenAreInBoth)
{
    for (const bool openOthers : {false, true}) {
        if (openOthers) {
            openMany(3);
        }
        const Seen seen = seenOf([] { rm_fileOpen("no/f", RM_O_RDWR, FILE_FATAL, 0, 0); });
        EXPECT_TRUE(seen.jumped);
        expectInBoth(seen);
        EXPECT_THAT(withoutFrame(seen.lines),
                    ElementsAre("reopenFile: errno=2: failed to open file 'no/f'"));
        EXPECT_EQ(file::checkFtab(), 0U);
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
    }
}

TEST_P(OpenWithLog, AFatalOpenLeavesTheLockBeforeItsLineIsWritten)
{
    std::vector<int> values;
    const Spy spy(Call::kFwrite, [&](const CallRecord& call) {
        if (call.pointer<FILE>(3) == stderr) {
            values.push_back(fileSemValue());
        }
    });
    const Seen seen = seenOf([] { rm_fileOpen("no/f", RM_O_RDWR, FILE_FATAL, 0, 0); });
    EXPECT_TRUE(seen.jumped);
    EXPECT_EQ(values.size(), seen.lines.size());
    EXPECT_THAT(values, ::testing::Each(1));
}

TEST_P(OpenWithLog, TheLinesOfAFatalReopenAreInBoth)
{
    const int16_t handle = openWith("f", kDigits, FILE_FATAL);
    if (entryOf(handle)->state == file::kSlotOpen) {
        park(handle);
    }
    std::filesystem::remove("f");
    const Seen seen = seenOf([&] { read(handle, 4); });
    EXPECT_TRUE(seen.jumped);
    expectInBoth(seen);
    EXPECT_THAT(withoutFrame(seen.lines),
                ElementsAre("reopenFile: errno=2: failed to open file 'f'"));
    EXPECT_EQ(entryOf(handle)->busyCount, 0);
}

TEST_P(OpenWithLog, TheLinesOfAStreamThatIsNotHadAreInBoth)
{
    // The log file may come back itself for the line; its stream is not the one that fails.
    const Seen seen = seenOf({.call = Call::kFdopen, .error = EMFILE},
                             [] { rm_fileOpen("f", kLogFlags, FILE_FATAL | FILE_STREAM, 0, 0); });
    EXPECT_TRUE(seen.jumped);
    EXPECT_EQ(seen.hits, 1);
    expectInBoth(seen);
    EXPECT_THAT(withoutFrame(seen.lines),
                ElementsAre("reopenFile: errno=24: failed to create file 'f'"));
}

TEST_P(OpenWithLog, TheLastLinesBeforeAGrowthThatFailsClosesTheLogAreInBoth)
{
    rmDiskFull = 0;
    const Seen seen = seenOf({.call = Call::kWrite,
                              .error = ENOSPC,
                              .times = kForever,
                              .when =
                                  [](const CallRecord& call) {
                                      return call.pointer<const char>(1) == os::null_block.data();
                                  }},
                             [] { openNew("f", 0, 1000); });
    EXPECT_TRUE(seen.jumped);
    EXPECT_THAT(logLines(seen.log),
                ElementsAre("Error expanding file f", "Fatal Exit: System Shutting down!"));
    EXPECT_THAT(seen.err, StartsWith(seen.log));
    EXPECT_THAT(withoutFrame(seen.lines),
                ElementsAre("Error expanding file f", "Fatal Exit: System Shutting down!"));
    EXPECT_LT(seen.seconds, kAtOnce);
    EXPECT_EQ(sysfile, RM_NONE);
    EXPECT_EQ(fileSemValue(), 1);
    EXPECT_EQ(growSemValue(), 2) << "it is left twice";
    EXPECT_EQ(file::checkFtab(), 0U);
}

TEST_P(OpenWithLog, ALogFileThatCannotComeBackForALineEndsTheOpenFatally)
{
    makeDiskSmall();
    park(sysfile);
    const Seen seen = seenOf({.call = Call::kOpen,
                              .error = EACCES,
                              .times = kForever,
                              .when = [](const CallRecord& call) { return call.path() == kLog; }},
                             [] { openNew("f", 0, 1000); });
    EXPECT_TRUE(seen.jumped);
    EXPECT_EQ(seen.hits, 1) << "it is not tried again";
    EXPECT_LT(seen.seconds, kAtOnce);
    EXPECT_THAT(
        withoutFrame(seen.lines),
        ElementsAre(kGrowthLines[0], "reopenFile: errno=13: failed to create file 'server.log'"));
    EXPECT_EQ(seen.log, "");
    // The file that was being opened has given its descriptor back, and the lock is free.
    EXPECT_EQ(counts().open, 0U);
    expectSound();
    rm_systemLogClose();
    openServerLog();
    expectInBoth(seenOf([] { rm_systemLogWrite("works"); }));
}

TEST_P(OpenWithLog, ALogFileThatGrowsWhenAQuestionBringsItBackTakesTheLinesOfIt)
{
    // A log of the host's own, with an initial size: the line brings it back a second time, in the
    // middle of the first.
    rm_systemLogClose();
    sysfile = rm_fileOpen(kOwnLog, kLogFlags, FILE_FATAL | FILE_STREAM, 1000, 0);
    rm_systemLog(2);
    const std::string first = captureStderr([] { rm_systemLogWrite("first"); });
    park(sysfile);
    makeDiskSmall();
    const std::string err = captureStderr([] { EXPECT_EQ(rm_fileLength(sysfile), 1000U); });
    const std::string last = captureStderr([] { rm_systemLogWrite("last"); });
    EXPECT_EQ(logLines(err), kOwnGrowthLines);
    const std::string lines = first + err + last;
    EXPECT_EQ(readFile(kOwnLog), lines + std::string(1000 - lines.size(), '\0'));
    expectSound();
}

TEST_P(OpenWithLog, ALogFileThatTheLineAboutItsGrowthHasBroughtBackIsAtItsPlace)
{
    rm_systemLogClose();
    const int16_t handle = parkOwnLog();
    makeDiskSmall();
    // A second look for its place could fail, and would close what the line has opened.
    const Seen seen = seenOf(
        {.call = Call::kLseek,
         .error = EINVAL,
         .times = kForever,
         .when =
             [](const CallRecord& call) { return rmDiskFull != 0 && call.args[2] == SEEK_SET; }},
        [=] { EXPECT_EQ(rm_filePrintf(handle, "behind them"), 11); });
    EXPECT_EQ(seen.hits, 0);
    EXPECT_EQ(seen.lines, kOwnGrowthLines);
    const std::string text = seen.err + "behind them";
    EXPECT_EQ(readFile(kOwnLog), text + std::string(1000 - text.size(), '\0'));
    EXPECT_EQ(counts().open, 1U);
    expectSound();
}

TEST_P(OpenWithLog, ALogFileThatTheLineAboutItsGrowthDoesNotGetIsGoneOnce)
{
    for (const bool isLast : {false, true}) {
        SCOPED_TRACE(isLast ? "the only handle" : "another handle");
        rm_systemLogClose();
        const int16_t other = isLast ? int16_t{RM_NONE} : openNew("x");
        const int16_t handle = parkOwnLog();
        makeDiskSmall();
        const Seen seen =
            seenOf({.call = Call::kOpen,
                    .error = EACCES,
                    .skip = 1,
                    .when = [](const CallRecord& call) { return call.path() == kOwnLog; }},
                   [=] { EXPECT_EQ(rm_fileLength(handle), 0U); });
        EXPECT_EQ(seen.hits, 1);
        EXPECT_FALSE(seen.jumped);
        const std::string number = "(" + std::to_string(handle) + ")";
        EXPECT_THAT(
            seen.lines,
            ElementsAre(kOwnGrowthLines[0], "WARNING: failed file reopen in rm_filePrintf" + number,
                        kOwnGrowthLines[1],
                        "WARNING: failed file reopen in rm_fileLength" + number));
        EXPECT_EQ(sysfile, RM_NONE);
        EXPECT_EQ(file::usedEntry(handle), nullptr);
        EXPECT_EQ(file::nHandles, isLast ? 0 : 1);
        EXPECT_EQ(file::ftab == nullptr, isLast);
        expectSound();
        if (!isLast) {
            EXPECT_EQ(write(other, "works"), 5U);
            rm_fileClose(other);
        }
    }
}

TEST_P(OpenWithLog, ALogFileThatIsParkedWhileItsLineWaitsLosesNothing)
{
    // Every line makes the log come back, every open parks it again.
    Lines expected;
    for (int i = 0; i < 50; ++i) {
        park(sysfile);
        const Lines lines = linesInBoth([i] { rm_systemLogWrite("line %d", i); });
        expected.insert(expected.end(), lines.begin(), lines.end());
        rm_fileClose(openNew("f"));
    }
    EXPECT_EQ(expected.size(), 50U);
    EXPECT_EQ(logLines(readFile(kLog)), expected);
}

TEST_P(OpenWithLog, TheLogFileIsBackAfterALine)
{
    openMany(4);
    const uint32_t before = counts().reopens;
    const bool parked = file::usedEntry(sysfile)->state == file::kSlotParked;
    linesInBoth([] { rm_fileClose(77); });
    EXPECT_EQ(file::usedEntry(sysfile)->state, file::kSlotOpen);
    EXPECT_EQ(counts().reopens, before + (parked ? 1 : 0));
}

TEST_P(OpenWithLog, TheDescriptorsOfManyLinesStayWithinTheLimit)
{
    makeDiskSmall();
    for (int round = 0; round < 30; ++round) {
        rmDiskFull = 0;
        const std::string name = "f" + std::to_string(round);
        const Lines lines = linesInBoth([&] { openNew(name.c_str(), 0, 100); });
        EXPECT_EQ(lines.size(), 2U);
        if (GetParam() != -1) {
            EXPECT_LE(counts().open, static_cast<uint32_t>(GetParam()));
        }
        expectSound();
    }
    EXPECT_EQ(logLines(readFile(kLog)).size(), 60U);
}

TEST_P(OpenWithLog, AReopeningWhoseLineBringsTheLogBackStaysWithinTheLimit)
{
    const int16_t handle = openNew("f", 0, 1000);
    if (entryOf(handle)->state == file::kSlotOpen) {
        park(handle);
    }
    openMany(3);
    if (entryOf(sysfile)->state == file::kSlotOpen) {
        park(sysfile);
    }
    makeDiskSmall();
    linesInBoth([&] { EXPECT_EQ(rm_fileLength(handle), 1000U); });
    EXPECT_EQ(entryOf(handle)->state, file::kSlotOpen);
    if (GetParam() != -1) {
        EXPECT_LE(counts().open, static_cast<uint32_t>(GetParam()));
    }
    expectSound();
}

// More are open than the limit allows by now: each opening parks one, and the line one for the log.
TEST_P(OpenWithLog, AnOpenBeyondTheLimitParksOneFileForItselfAndOneForItsLine)
{
    fileHandleLimit = -1;
    openMany(6);
    park(sysfile);
    fileHandleLimit = 4;
    makeDiskSmall();
    const Counts before = counts();
    linesInBoth([] { openNew("f", 0, 1000); });
    EXPECT_EQ(counts(),
              (Counts{before.open, before.parked + 1, before.parkings + 2, before.reopens + 1}));
}

// --- An open that cannot get its memory or its locks

// What an open meets, and what it needs beyond a free slot.
struct Scene {
    const char* name;
    bool hasLog;
    int others;       // files opened beside it
    int16_t limit;    // of descriptors, in force for the open itself
    bool growMutex;   // growSem exists
    int allocations;  // that the open makes, at least, with one block per allocation
};

void PrintTo(const Scene& scene, std::ostream* out)
{
    *out << scene.name;
}

const Scene kScenes[] = {
    {"TheTableIsBuilt", false, 0, 32, true, 35},
    {"ASlotIsFree", true, 0, 32, true, 1},
    {"GrowSemIsMade", true, 0, 32, false, 1},
    {"TheTableGrows", true, 31, -1, true, 34},
    {"TheTableGrowsAndAFileIsParked", true, 31, 8, true, 34},
    {"TheLogFileIsParked", true, 0, 1, true, 1},
    {"AnotherFileIsParked", true, 1, 2, true, 1},
    {"OneOfManyIsParked", true, 10, 4, true, 1},
};

// An operation of the system that an open makes, and the way in which it fails.
struct Failing {
    const char* name;
    Call call;
    int error;
    int least;  // operations of it that an open makes, at least; for memory, the scene says
};

const Failing kLockFailures[] = {
    {"semtimedop with EIDRM", Call::kSemtimedop, EIDRM, 1},
    {"semtimedop with EINVAL", Call::kSemtimedop, EINVAL, 1},
    {"semtimedop with EAGAIN", Call::kSemtimedop, EAGAIN, 1},
    // growSem entered and left, fileSem left.
    {"semop with EIDRM", Call::kSemop, EIDRM, 3},
    {"semop with ERANGE", Call::kSemop, ERANGE, 3},
    {"semctl with EIDRM", Call::kSemctl, EIDRM, 0},
};

const Failing kMemoryFailure = {"malloc", Call::kMalloc, ENOMEM, 0};

// The open that is tried: it grows, and says so while it holds fileSem.
void openTheFile()
{
    rm_fileOpen("f", kReadWrite, 0, 1000, 0);
}

class OpenFailing : public FileFault, public ::testing::WithParamInterface<Scene>
{
  protected:
    void TearDown() override
    {
        seg_alloc = 0;
        FileFault::TearDown();
    }

    // Sets the scene, in this process.
    void set()
    {
        const Scene& scene = GetParam();
        alarm(0);
        seg_alloc = 0;
        rm_systemLogClose();
        rm_freeall();
        rm_syncTerminate();
        fresh();
        rm_freeMemory(rm_getMemory(1, 0), 0);  // tag 0 is there
        seg_alloc = 1;                         // from here on every block is an allocation
        fileHandleLimit = -1;
        rminfree = 1e18;
        fileSem = rm_syncCreate("fileSem");
        if (scene.growMutex) {
            growSem = rm_syncCreate("growSem");
        }
        rm_systemLog(2);
        if (scene.hasLog) {
            openServerLog();
        }
        openMany(scene.others);
        fileHandleLimit = scene.limit;
        rmDiskFull = 0;
    }

    static rmtest::Fault nth(const Failing& failing, int skip, int times)
    {
        return {.call = failing.call, .error = failing.error, .skip = skip, .times = times};
    }

    // What failed for ever keeps lines from the log file, and the lock from being given back.
    static bool logIsUsable(const Failing& failing, int times)
    {
        return times == 1 || failing.call == Call::kMalloc || failing.error == EAGAIN ||
               failing.call == Call::kSemctl;
    }

    static bool lockCanBeLeft(const Failing& failing, int times)
    {
        return times == 1 || failing.call != Call::kSemop;
    }

    static void expectCause(const Seen& seen, const Failing& failing)
    {
        if (failing.call == Call::kMalloc) {
            EXPECT_EQ(seen.lines.front(), "Out of memory!");
        } else if (failing.error == EAGAIN) {
            EXPECT_THAT(seen.lines, ::testing::Contains("    Specific problem: fileSem timeout "
                                                        "in rm_fileOpen"));
        } else {
            EXPECT_THAT(seen.out, ::testing::MatchesRegex(
                                      "\\*\\*\\*\\* rm_sync[A-Za-z]*\\(\\) semop\\(\\) failure, "
                                      "errno=(.|\n)*"));
        }
    }

    // Another process can have the locks within a second.
    static void expectLocksFree()
    {
        EXPECT_EQ(fileSemValue(), 1);
        const ChildResult peer = runChild([] {
            EXPECT_EQ(rm_syncEnterExcl(fileSem, 1000), RM_SUCCESS);
            rm_syncExitExcl(fileSem);
            if (growSem != RM_NONE) {
                EXPECT_EQ(rm_syncEnterExcl(growSem, 1000), RM_SUCCESS);
                rm_syncExitExcl(growSem);
            }
        });
        EXPECT_EQ(peer.status, 0);
    }

    // The files that there were, a new one and the log all work.
    void expectUsable()
    {
        seg_alloc = 0;
        alarm(0);
        rmDiskFull = 1;
        const int16_t next = openNew("next");
        EXPECT_NE(next, RM_NONE);
        EXPECT_EQ(write(next, "works"), 5U);
        for (int i = 0; i < GetParam().others; ++i) {
            EXPECT_EQ(write(static_cast<int16_t>(i + 1), "works"), 5U);
        }
        rm_systemLogClose();
        openServerLog();
        expectInBoth(seenOf([] { rm_systemLogWrite("works"); }), kNoWait);
        expectTablesSound();
    }

    static void expectTablesSound()
    {
        EXPECT_EQ(file::checkFtab(), 0U);
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        for (int16_t slot = 0; slot < file::ftabSize; ++slot) {
            EXPECT_EQ(entryOf(slot)->busyCount, 0) << "slot " << slot;
        }
    }

    void expectEnd(const Seen& seen, const Failing& failing, int times)
    {
        ASSERT_FALSE(seen.lines.empty());
        EXPECT_EQ(seen.lines.back(), "Exiting to shutdown processing");
        expectCause(seen, failing);
        if (!GetParam().hasLog) {
            EXPECT_EQ(seen.log, "");
        } else if (logIsUsable(failing, times)) {
            EXPECT_EQ(seen.log, seen.err);
        } else {
            EXPECT_THAT(seen.err, StartsWith(seen.log));
        }
        EXPECT_EQ(rmsrv::writingLogFile, 0);
        EXPECT_FALSE(rmsrv::inFatalPath());
        expectTablesSound();
        if (lockCanBeLeft(failing, times)) {
            expectLocksFree();
        }
        while (fileSemValue() < 1) {
            rm_syncExitExcl(fileSem);
        }
        expectUsable();
    }

    // Fails the n-th operation of the kind, for every n. Returns how many there were.
    int failEach(const Failing& failing, int times)
    {
        double total = 0;
        for (int skip = 0; skip < 200; ++skip) {
            SCOPED_TRACE(std::string(failing.name) + ", after " + std::to_string(skip) +
                         (times == kForever ? ", for ever" : ", once"));
            set();
            const Seen seen = seenOf(nth(failing, skip, times), openTheFile);
            EXPECT_EQ(seen.jumped, seen.hits > 0);
            EXPECT_LT(seen.seconds, kNoWait);
            total += seen.seconds;
            if (seen.hits == 0) {
                EXPECT_EQ(seen.log, GetParam().hasLog ? seen.err : "");
                EXPECT_LT(total, kAtOnce * (skip + 1));
                return skip;
            }
            expectEnd(seen, failing, times);
        }
        ADD_FAILURE() << "it does not come to an end";
        return 0;
    }

    // The same in processes without a target. They bring the scene with them.
    int failEachWithoutTarget(const Failing& failing, int times)
    {
        double total = 0;
        for (int skip = 0; skip < 200; ++skip) {
            SCOPED_TRACE(std::string(failing.name) + ", after " + std::to_string(skip) +
                         (times == kForever ? ", for ever" : ", once"));
            constexpr int kWentThrough = 99;
            std::filesystem::remove(kLog);
            const ChildResult child = runChild([&] {
                set();
                static ScopedFault fault(nth(failing, skip, times));
                openTheFile();
                _exit(kWentThrough);
            });
            for (const rmtest::IpcObject& object : rmtest::ipcObjects()) {
                rmtest::removeIpcObject(object);
            }
            std::filesystem::remove(".ZNT.RM.SEM");
            EXPECT_TRUE(child.exited);
            EXPECT_LT(child.seconds, kNoWait);
            total += child.seconds;
            if (child.status == kWentThrough) {
                EXPECT_LT(total, kAtOnce * (skip + 1));
                return skip;
            }
            EXPECT_EQ(child.status, 0);
            const Lines lines = logLines(child.err);
            EXPECT_THAT(lines, ::testing::Contains("Exiting to operating system"));
            if (!GetParam().hasLog) {
                EXPECT_FALSE(std::filesystem::exists(kLog));
            } else if (logIsUsable(failing, times)) {
                EXPECT_EQ(readFile(kLog), child.err);
            } else {
                EXPECT_THAT(child.err, StartsWith(readFile(kLog)));
            }
        }
        ADD_FAILURE() << "it does not come to an end";
        return 0;
    }
};

std::string sceneName(const ::testing::TestParamInfo<Scene>& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Scenes, OpenFailing, ::testing::ValuesIn(kScenes), sceneName);

TEST_P(OpenFailing, WorksWhenNothingFails)
{
    set();
    const Seen seen = seenOf(openTheFile);
    EXPECT_FALSE(seen.jumped);
    EXPECT_EQ(seen.lines, kGrowthLines);
    EXPECT_EQ(seen.log, GetParam().hasLog ? seen.err : "");
    expectLocksFree();
    expectUsable();
}

TEST_P(OpenFailing, AnyAllocationEndsItAtOnce)
{
    EXPECT_GE(failEach(kMemoryFailure, 1), GetParam().allocations);
}

TEST_P(OpenFailing, EveryAllocationFromOneOnEndsItAtOnce)
{
    EXPECT_GE(failEach(kMemoryFailure, kForever), GetParam().allocations);
}

TEST_P(OpenFailing, AnyOperationOnALockEndsItAtOnce)
{
    for (const Failing& failing : kLockFailures) {
        EXPECT_GE(failEach(failing, 1), failing.least) << failing.name;
    }
}

TEST_P(OpenFailing, EveryOperationOnALockFromOneOnEndsItAtOnce)
{
    for (const Failing& failing : kLockFailures) {
        EXPECT_GE(failEach(failing, kForever), failing.least) << failing.name;
    }
}

TEST_P(OpenFailing, WithoutATargetAnAllocationEndsTheProcess)
{
    EXPECT_GE(failEachWithoutTarget(kMemoryFailure, kForever), GetParam().allocations);
}

TEST_P(OpenFailing, WithoutATargetAnyOperationOnALockEndsTheProcess)
{
    for (const Failing& failing : kLockFailures) {
        for (const int times : {1, kForever}) {
            EXPECT_GE(failEachWithoutTarget(failing, times), failing.least) << failing.name;
        }
    }
}

}  // namespace
