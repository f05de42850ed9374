// Start-up: the settings that it gives to the other services, their values before anybody set them,
// what is read from the profile, and what happens when something cannot be had.
#include "startup_case.h"

#include <cmath>
#include <cstdlib>
#include <limits>
#include <type_traits>

#include <sys/sem.h>
#include <sys/statvfs.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::ChildResult;
using rmtest::contains;
using rmtest::kForever;
using rmtest::kProfile;
using rmtest::logLines;
using rmtest::Outcome;
using rmtest::outcomeOf;
using rmtest::passThrough;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::ScopedFault;
using rmtest::semValue;
using rmtest::writeFile;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace fs = std::filesystem;

class StartupSettings : public rmtest::FrameTest
{
};

class Startup : public rmtest::StartupCase
{
};

class StartupLocks : public rmtest::StartupCase
{
};

class StartupFails : public rmtest::StartupCase
{
};

class StartupDisk : public rmtest::StartupCase
{
};

// A profile with one section.
void writeProfile(std::string_view entries, const fs::path& path = kProfile)
{
    writeFile(path, "[server]\n" + std::string(entries));
}

// Notes what happens to semaphores, and the opening of the profile, in order.
class StepWatch
{
  public:
    const std::vector<std::string>& steps() const { return steps_; }

  private:
    static std::string step(const CallRecord& call)
    {
        const auto* operation = call.pointer<const sembuf>(1);
        return (operation->sem_op < 0 ? "enter " : "raise ") + std::to_string(operation->sem_num);
    }

    std::function<bool(const CallRecord&)> noteLock()
    {
        return [this](const CallRecord& call) {
            steps_.push_back(step(call));
            return false;
        };
    }

    std::vector<std::string> steps_;
    ScopedFault plain_{{.call = Call::kSemop, .when = noteLock()}};
    ScopedFault timed_{{.call = Call::kSemtimedop, .when = noteLock()}};
    ScopedFault profile_{{.call = Call::kOpen, .when = [this](const CallRecord& call) {
                              if (call.path() == kProfile) {
                                  steps_.emplace_back("profile");
                              }
                              return false;
                          }}};
};

void start()
{
    rm_init(RM_NO_LIMIT, 32, 0.0);
}

TEST_F(StartupSettings, MemoryHasNoLimit)
{
    EXPECT_EQ(rmemavail, 0xFFFFFFFFU);
}

TEST_F(StartupSettings, TheFirstAllocationMakesATagWithoutALimit)
{
    rm_freeMemory(rm_getMemory(1, 1), 1);
    EXPECT_EQ(rm_memoryAvail(1), -1);
}

TEST_F(StartupSettings, ThirtyTwoDescriptorsAreHeldAtMost)
{
    EXPECT_EQ(fileHandleLimit, 32);
}

TEST_F(StartupSettings, NoFreeSpaceIsAskedFor)
{
    EXPECT_EQ(rminfree, 0.0);
}

TEST_F(StartupSettings, NoLockExists)
{
    EXPECT_EQ(fileSem, -1);
    EXPECT_EQ(growSem, -1);
    EXPECT_FALSE(std::filesystem::exists(rmtest::kSemToken));
}

TEST_F(StartupSettings, FileSemIsMadeByTheFirstFile)
{
    const int16_t handle = rm_fileOpen("file", RM_O_WRONLY | RM_O_CREAT, 0, 0, 0);
    EXPECT_EQ(fileSem, rm_syncOpen("fileSem"));
    EXPECT_EQ(growSem, -1);
    rm_fileClose(handle);
}

TEST_F(StartupSettings, TheDiskCountsAsFull)
{
    EXPECT_EQ(rmDiskFull, 1);
}

TEST_F(StartupSettings, NoFileIsGrownBeforeTheHostClearsTheDisk)
{
    const int16_t handle = rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 1000, 500);
    EXPECT_EQ(rm_fileLength(handle), 0U);
    EXPECT_EQ(rm_fileSeekWrite(handle, 0, "text", 4), 4U);
    EXPECT_EQ(rm_fileLength(handle), 4U);
    EXPECT_EQ(growSem, -1);
    rm_fileClose(handle);
}

TEST_F(StartupSettings, FilesAreGrownOnceItIsCleared)
{
    rmDiskFull = 0;
    const int16_t handle = rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 1000, 500);
    EXPECT_EQ(rm_fileLength(handle), 1000U);
    rm_fileClose(handle);
}

TEST_F(StartupSettings, FilesAreSyncedThoughNobodyHasSaidSo)
{
    EXPECT_EQ(fileCommit, -1);
    const int16_t handle = rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    resetCalls();
    EXPECT_EQ(rm_fileSync(handle), 0);
    EXPECT_EQ(callCount(Call::kFsync), 1);
    rm_fileClose(handle);
}

TEST_F(StartupSettings, NothingIsLoggedOrTerminated)
{
    EXPECT_EQ(syslogon, 0);
    EXPECT_EQ(sysfile, -1);
    EXPECT_EQ(rm_getOSTerm(), 0);
}

TEST_F(StartupSettings, HaveTheWidthsOfTheInterface)
{
    EXPECT_TRUE((std::is_same_v<decltype(rmemavail), uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(rminfree), double>));
    EXPECT_TRUE((std::is_same_v<decltype(fileHandleLimit), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(fileSem), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(growSem), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(fileCommit), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(rmDiskFull), int16_t>));
    EXPECT_TRUE((std::is_same_v<decltype(hNormSh), uint32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(hPriSh), uint32_t>));
}

TEST_F(StartupSettings, TheHandlesOfTheHostAreNone)
{
    EXPECT_EQ(hNormSh, 0U);
    EXPECT_EQ(hPriSh, 0U);
}

// --- The limits

TEST_F(Startup, TakesTheLimits)
{
    rm_init(123'456, 17, 2.5e6);
    EXPECT_EQ(rmemavail, 123'456U);
    EXPECT_EQ(fileHandleLimit, 17);
    EXPECT_EQ(rminfree, 2.5e6);
}

TEST_F(Startup, TakesAHandleLimitAsItIs)
{
    for (const int limit : {3, 1, 0, -1, 10000, INT16_MAX, INT16_MIN, 4, 32}) {
        rm_init(RM_NO_LIMIT, static_cast<int16_t>(limit), 0.0);
        EXPECT_EQ(fileHandleLimit, limit);
    }
}

TEST_F(Startup, TakesAMemoryLimitAsItIs)
{
    for (const uint32_t limit : {0U, 1U, 0x80000000U, 0xFFFFFFFFU}) {
        rm_init(limit, 32, 0.0);
        EXPECT_EQ(rmemavail, limit);
    }
}

TEST_F(Startup, TakesAFreeSpaceAsItIs)
{
    for (const double space : {-5.0, 0.5, 1e18, std::numeric_limits<double>::infinity()}) {
        rm_init(RM_NO_LIMIT, 32, space);
        EXPECT_EQ(rminfree, space);
    }
    rm_init(RM_NO_LIMIT, 32, std::nan(""));
    EXPECT_TRUE(std::isnan(rminfree));
}

TEST_F(Startup, BeforeTheFirstAllocationLimitsTagOne)
{
    rm_init(5000, 32, 0.0);
    rm_freeMemory(rm_getMemory(1, 1), 1);
    EXPECT_EQ(rm_memoryAvail(0), -1);
    EXPECT_EQ(rm_memoryAvail(1), 5000);
}

TEST_F(Startup, ALimitOfOneDescriptorIsEnoughForTheProfile)
{
    writeProfile("FileCommit=0\n");
    rm_init(RM_NO_LIMIT, 1, 0.0);
    EXPECT_EQ(fileCommit, 0);
}

TEST_F(Startup, LeavesTheDiskAndTheHandlesOfTheHost)
{
    for (const int16_t full : std::to_array<int16_t>({1, 0, 7})) {
        rmDiskFull = full;
        hNormSh = 11;
        hPriSh = 12;
        start();
        EXPECT_EQ(rmDiskFull, full);
        EXPECT_EQ(hNormSh, 11U);
        EXPECT_EQ(hPriSh, 12U);
    }
}

TEST_F(Startup, LeavesNoDiskThatIsNotFull)
{
    start();
    EXPECT_EQ(rm_getDiskFull(), 1);
    const int16_t handle = rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 1000, 0);
    EXPECT_EQ(rm_fileLength(handle), 0U);
    rm_fileClose(handle);
}

TEST_F(Startup, LogsNothingAndOpensNoLog)
{
    writeProfile("FileCommit=1\n");
    EXPECT_EQ(captureStderr([] { start(); }), "");
    EXPECT_EQ(syslogon, 0);
    EXPECT_EQ(sysfile, RM_NONE);
}

TEST_F(Startup, KeepsNoFileAndNoMemory)
{
    rm_freeMemory(rm_getMemory(1, 0), 0);
    const uint32_t used = rmalloc::tagTable[0].allocated;
    writeProfile("FileCommit=1\n");
    start();
    EXPECT_EQ(file::ftab, nullptr);
    EXPECT_EQ(rmalloc::tagTable[0].allocated, used);
}

TEST_F(Startup, ASecondTimeChangesTheLimitsOnly)
{
    writeProfile("FileCommit=5\n");
    rm_init(1000, 10, 1.0);
    writeProfile("FileCommit=0\n");
    resetCalls();
    rm_init(2000, 20, 2.0);
    EXPECT_THAT(callTrace(), IsEmpty()) << "the system is asked for nothing";
    EXPECT_EQ(rmemavail, 2000U);
    EXPECT_EQ(fileHandleLimit, 20);
    EXPECT_EQ(rminfree, 2.0);
    EXPECT_EQ(fileCommit, 5);
    EXPECT_EQ(semValue(os::iSem, fileSem), 1);
    EXPECT_EQ(semValue(os::iSem, growSem), 1);
}

TEST_F(Startup, ASecondTimeMayLowerTheHandleLimit)
{
    rm_init(RM_NO_LIMIT, 100, 0.0);
    rm_init(RM_NO_LIMIT, 4, 0.0);
    EXPECT_EQ(fileHandleLimit, 4);
}

TEST_F(Startup, MakesTheLocksBeforeItReadsTheProfile)
{
    writeProfile("FileCommit=1\n");
    const StepWatch watch;
    start();
    // The profile is a managed file: opened, read and closed under the lock.
    EXPECT_THAT(watch.steps(), ElementsAre("raise 0", "raise 1", "enter 0", "profile", "raise 0",
                                           "enter 0", "raise 0", "enter 0", "raise 0"));
}

TEST_F(Startup, OpensTheTokenAndTheProfileAndNothingElse)
{
    writeProfile("FileCommit=1\n");
    resetCalls();
    start();
    std::vector<std::string> paths;
    for (const CallRecord& call : callTrace({Call::kOpen, Call::kFopen})) {
        paths.emplace_back(call.path());
    }
    EXPECT_THAT(paths, ElementsAre(rmtest::kSemToken, kProfile));
}

TEST_F(Startup, AsksTheEnvironmentForNothingButThePlaceOfTheProfile)
{
    rm_freeMemory(rm_getMemory(1, 0), 0);  // asks for SEG_ALLOC
    resetCalls();
    start();
    for (const CallRecord& call : callTrace({Call::kGetenv})) {
        EXPECT_EQ(call.path(), "CATPATH");
    }
}

TEST_F(Startup, AfterTheLogFileIsOpenWorksToo)
{
    rm_systemLog(2);
    rm_systemLogOpen(rmtest::kLogPath);
    writeProfile("FileCommit=0\n");
    rm_init(RM_NO_LIMIT, 1, 0.0);  // the profile takes the log's descriptor
    EXPECT_EQ(fileCommit, 0);
    EXPECT_EQ(fileSem, 0);
    EXPECT_EQ(growSem, 1);
    EXPECT_EQ(file::usedEntry(sysfile)->state, file::kSlotParked);
    captureStderr([] { rm_systemLogWrite("a line"); });
    EXPECT_THAT(rmtest::fileLines(), ElementsAre("a line"));
}

TEST_F(Startup, TakesNothingElseFromTheProfile)
{
    writeFile(kProfile,
              "[server]\nFileCommit=1\nrminfree=7\nfileHandleLimit=7\nrmDiskFull=0\n\n"
              "[ENVIRONMENT]\nRM_TEST_VARIABLE=set\n");
    start();
    EXPECT_EQ(rm_getenv("RM_TEST_VARIABLE"), nullptr);
    EXPECT_EQ(rmutil::LocalEnv, nullptr);
    EXPECT_EQ(fileHandleLimit, 32);
    EXPECT_EQ(rmDiskFull, 1);
    EXPECT_EQ(rminfree, 0.0);
}

TEST_F(Startup, LeavesTheProfileAsItIs)
{
    writeProfile("FileCommit=0\r\nother=1");
    start();
    EXPECT_EQ(rmtest::readFile(kProfile), "[server]\nFileCommit=0\r\nother=1");
}

// --- The locks

TEST_F(StartupLocks, AreTheFirstTwoObjectsAndFree)
{
    start();
    EXPECT_EQ(fileSem, 0);
    EXPECT_EQ(growSem, 1);
    EXPECT_EQ(rm_syncOpen("fileSem"), fileSem);
    EXPECT_EQ(rm_syncOpen("growSem"), growSem);
    EXPECT_EQ(semValue(os::iSem, fileSem), 1);
    EXPECT_EQ(semValue(os::iSem, growSem), 1);
    EXPECT_EQ(os::nSems, 2);
}

TEST_F(StartupLocks, AreTheOnesThatTheFilesUse)
{
    start();
    rmDiskFull = 0;
    resetCalls();
    const StepWatch watch;
    rm_fileClose(rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 100, 0));
    EXPECT_EQ(callCount(Call::kSemget), 0);
    EXPECT_EQ(os::nSems, 2);
    EXPECT_THAT(watch.steps(),
                ElementsAre("enter 0", "enter 1", "raise 1", "raise 0", "enter 0", "raise 0"));
}

TEST_F(StartupLocks, ThatFilesHaveMadeAreNotMadeAgain)
{
    rmDiskFull = 0;
    const int16_t handle = rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 100, 0);
    const int16_t fileLock = fileSem;
    const int16_t growLock = growSem;
    ASSERT_NE(growLock, RM_NONE);
    start();
    EXPECT_EQ(fileSem, fileLock);
    EXPECT_EQ(growSem, growLock);
    EXPECT_EQ(semValue(os::iSem, fileSem), 1);
    EXPECT_EQ(semValue(os::iSem, growSem), 1);
    EXPECT_EQ(os::nSems, 2);
    rm_fileClose(handle);
}

TEST_F(StartupLocks, OfWhichOneIsThereGetTheOther)
{
    rm_fileClose(rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, 0, 0, 0));
    ASSERT_EQ(fileSem, 0);
    start();
    EXPECT_EQ(fileSem, 0);
    EXPECT_EQ(growSem, 1);
    EXPECT_EQ(semValue(os::iSem, fileSem), 1);
}

TEST_F(StartupLocks, ThatTheHostHasSetToNoneAtAllAreNotMade)
{
    fileSem = RM_NULL_SYNC;
    growSem = RM_NULL_SYNC;
    writeProfile("FileCommit=0\n");
    resetCalls();
    start();
    EXPECT_EQ(fileSem, RM_NULL_SYNC);
    EXPECT_EQ(growSem, RM_NULL_SYNC);
    EXPECT_EQ(fileCommit, 0);
    EXPECT_EQ(callCount(Call::kSemget) + callCount(Call::kSemop) + callCount(Call::kSemtimedop), 0);
    EXPECT_FALSE(fs::exists(rmtest::kSemToken));
}

TEST_F(StartupLocks, ThatTheHostHasMadeItselfAreKept)
{
    const int16_t other = rm_syncCreate("other");
    growSem = rm_syncCreate("growth");
    start();
    EXPECT_EQ(other, 0);
    EXPECT_EQ(growSem, 1);
    EXPECT_EQ(fileSem, 2);
    EXPECT_EQ(rm_syncOpen("growSem"), RM_NONE);
}

TEST_F(StartupLocks, ThatWereTerminatedAreMadeAgain)
{
    start();
    rm_syncTerminate();
    EXPECT_EQ(fileSem, RM_NONE);
    start();
    EXPECT_EQ(fileSem, 0);
    EXPECT_EQ(growSem, 1);
    EXPECT_EQ(semValue(os::iSem, fileSem), 1);
}

TEST_F(StartupLocks, StandUnderTheTokenOfTheHost)
{
    fs::create_directory("ipc");
    rm_tokenName("ipc/");
    start();
    EXPECT_TRUE(fs::exists("ipc/.ZNT.RM.SEM"));
    EXPECT_FALSE(fs::exists(rmtest::kSemToken));
    rm_syncTerminate();
    rm_tokenName("");
}

TEST_F(StartupLocks, GoWithTheExit)
{
    start();
    const int32_t set = os::iSem;
    EXPECT_EQ(rmtest::catchExit([] { rm_exit(1); }), 1);
    EXPECT_EQ(semValue(set, 0), -1);
    EXPECT_FALSE(fs::exists(rmtest::kSemToken));
    EXPECT_EQ(fileSem, RM_NONE);
    EXPECT_EQ(growSem, RM_NONE);
}

// --- What cannot be had

TEST_F(StartupFails, LocksThatCannotBeMadeAreFatal)
{
    struct Step {
        Call call;
        int error;
        int skip;  // the second operation on a semaphore is growSem's
        const char* message;
    };

    constexpr Step kSteps[] = {{Call::kOpen, EACCES, 0, "fopen() failure"},
                               {Call::kFdopen, ENOMEM, 0, "fopen() failure"},
                               {Call::kSemget, ENOSPC, 0, "semget() failure"},
                               {Call::kSemget, EEXIST, 0, "semget() failure"},
                               {Call::kSemop, EIDRM, 0, "semop() failure"},
                               {Call::kSemop, ERANGE, 1, "semop() failure"}};
    for (const Step& step : kSteps) {
        for (const int times : {1, kForever}) {
            SCOPED_TRACE(std::string(step.message) + (times == 1 ? " once" : " for ever"));
            fileCommit = -1;
            writeProfile("FileCommit=0\n");
            Outcome outcome;
            {
                const ScopedFault fault(
                    {.call = step.call, .error = step.error, .skip = step.skip, .times = times});
                outcome = outcomeOf([] { rm_init(1000, 10, 1.0); });
            }
            EXPECT_EQ(outcome.jumped, 1);
            EXPECT_THAT(outcome.out,
                        StartsWith(std::string("**** rm_syncCreate() ") + step.message +
                                   ", errno=" + std::to_string(step.error)));
            EXPECT_EQ(outcome.lines.back(), "Exiting to shutdown processing");
            // The limits are there by then; nothing else is.
            EXPECT_EQ(rmemavail, 1000U);
            EXPECT_EQ(fileHandleLimit, 10);
            EXPECT_EQ(rminfree, 1.0);
            EXPECT_EQ(fileSem != RM_NONE, step.skip == 1);
            EXPECT_EQ(growSem, RM_NONE);
            EXPECT_EQ(fileCommit, -1);
            // The next start makes up for it.
            start();
            EXPECT_EQ(semValue(os::iSem, fileSem), 1);
            EXPECT_EQ(semValue(os::iSem, growSem), 1);
            EXPECT_EQ(fileCommit, 0);
            rm_syncTerminate();
        }
    }
}

TEST_F(StartupFails, NoMoreSyncObjectsAreFatal)
{
    for (int i = 0; i < 20; ++i) {
        rm_syncCreate("object");
    }
    const Outcome outcome = outcomeOf([] { start(); });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_THAT(outcome.out, StartsWith("**** rm_syncCreate() Out of Semaphores!"));
    EXPECT_EQ(fileSem, RM_NONE);
}

TEST_F(StartupFails, LocksThatCannotBeMadeEndAProcessWithoutATarget)
{
    const ChildResult child = runChild([] {
        static ScopedFault fault({.call = Call::kSemget, .error = ENOSPC, .times = kForever});
        start();
        _exit(99);
    });
    rmtest::expectEndAtOnce(child, 0);
    EXPECT_THAT(logLines(child.err).front(), StartsWith("**** rm_syncCreate() semget() failure"));
    EXPECT_EQ(logLines(child.err).back(), "Exiting to operating system");
    rmtest::removeLeftovers();
}

TEST_F(StartupFails, ALockThatIsNotHadInTimeForTheProfileIsFatal)
{
    writeProfile("FileCommit=0\n");
    Outcome outcome;
    {
        const ScopedFault fault({.call = Call::kSemtimedop, .error = EAGAIN, .times = kForever});
        outcome = outcomeOf([] { start(); });
        EXPECT_EQ(fault.hits(), 1);
    }
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_TRUE(contains(outcome.lines, "    Specific problem: fileSem timeout in rm_fileOpen"));
    EXPECT_EQ(fileCommit, -1);
    start();
    EXPECT_EQ(fileCommit, 0);
}

TEST_F(StartupFails, AnyAllocationIsFatalAndTheNextStartWorks)
{
    for (const int times : {1, kForever}) {
        bool failed = true;
        int allocations = 0;
        for (int skip = 0; failed; ++skip) {
            ASSERT_LT(skip, 100) << "it does not come to an end";
            rm_freeall();
            fileCommit = -1;
            writeProfile("FileCommit=0\n");
            rm_freeMemory(rm_getMemory(1, 0), 0);
            seg_alloc = 1;
            Outcome outcome;
            {
                const ScopedFault fault(
                    {.call = Call::kMalloc, .error = ENOMEM, .skip = skip, .times = times});
                outcome = outcomeOf([] { start(); });
                failed = fault.hits() > 0;
            }
            seg_alloc = 0;
            EXPECT_EQ(outcome.jumped, failed ? 1 : 0) << skip;
            EXPECT_EQ(rmtest::violations(), 0U);
            EXPECT_EQ(semValue(os::iSem, fileSem), 1);
            if (failed) {
                ++allocations;
                EXPECT_EQ(outcome.lines.front(), "Out of memory!");
                EXPECT_EQ(fileCommit, -1);
                start();
            }
            EXPECT_EQ(fileCommit, 0);
        }
        EXPECT_GE(allocations, 36);  // path, stream, table with 32 entries, names
    }
}

// --- The disk

TEST_F(StartupDisk, IsFullBeforeAnybodySaysSo)
{
    EXPECT_EQ(rm_getDiskFull(), 1);
}

TEST_F(StartupDisk, IsAsTheHostSays)
{
    for (const int flag : {0, 1, -1, 2, INT16_MAX, INT16_MIN}) {
        rm_setDiskFull(static_cast<int16_t>(flag));
        EXPECT_EQ(rm_getDiskFull(), flag);
        EXPECT_EQ(rmDiskFull, flag);
    }
}

TEST_F(StartupDisk, IsFullWhenGrowthSaysSo)
{
    rm_init(RM_NO_LIMIT, 32, 1e18);
    rm_setDiskFull(0);
    captureStderr([] { rm_fileClose(rm_fileOpen("f", RM_O_RDWR | RM_O_CREAT, 0, 100, 0)); });
    EXPECT_EQ(rm_getDiskFull(), 1);
}

TEST_F(StartupDisk, ItsFreeSpaceIsThatOfTheFileLayer)
{
    for (const uint64_t blocks : {uint64_t{0}, uint64_t{1}, uint64_t{4711}, uint64_t{0xFFFFFFFF}}) {
        const ScopedFault fault(
            {.call = Call::kStatvfs, .times = kForever, .action = [blocks](const CallRecord& call) {
                 const int64_t result = passThrough(call);
                 call.pointer<struct statvfs>(1)->f_bfree = blocks;
                 return result;
             }});
        EXPECT_EQ(rm_getDiskFreeSpace("."), static_cast<double>(blocks) * 512.0);
        EXPECT_EQ(rm_getDiskFreeSpace("."), rm_flGetDiskFreeSpace("."));
        EXPECT_EQ(callTrace({Call::kStatvfs}).back().path(), ".");
    }
}

TEST_F(StartupDisk, ItsFreeSpaceIsMinusOneWhenItCannotBeHad)
{
    EXPECT_EQ(rm_getDiskFreeSpace("missing"), -1.0);
    EXPECT_EQ(rm_getDiskFreeSpace(""), -1.0);
    const ScopedFault fault({.call = Call::kStatvfs, .error = EIO, .times = kForever});
    EXPECT_EQ(rm_getDiskFreeSpace("."), -1.0);
}
}  // namespace
