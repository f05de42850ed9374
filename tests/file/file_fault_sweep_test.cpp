// Whole operations of the managed files, where every call to the system that they make fails in
// turn: whatever happens, the operation ends, the tables are sound, nothing leaks, and the next
// operation works.
#include "tests/file/fault_case.h"

using namespace filetest;

namespace
{

struct Scenario {
    const char* name;
    void (*prepare)();
    void (*run)();
};

int16_t openFile(const char* name, uint32_t flags, uint16_t mode = 0, uint32_t initialSize = 0,
                 uint32_t increment = 0)
{
    return rm_fileOpen(name, flags, mode, initialSize, increment);
}

void openDigits(uint16_t mode)
{
    writeFile("f", kDigits);
    openFile("f", RM_O_RDWR, mode, 0, 1000);
}

// Handle 0, parked, among so many open files that another must be parked for it.
void parkDigits(uint16_t mode)
{
    openDigits(mode);
    park(0);
    for (const char* name : {"a", "b", "c", "d"}) {
        openFile(name, kReadWrite, FILE_STREAM);
    }
}

void logAtLevel2()
{
    sysfile = openFile("log", kLogFlags, FILE_STREAM);
    rm_systemLog(2);
}

// A log that is below its initial size, so that it grows, and says so, when it comes back.
void parkLogThatGrows(uint16_t mode)
{
    sysfile = openFile("log", kLogFlags, FILE_STREAM | mode, 1300);
    rm_systemLog(2);
    park(sysfile);
    rmDiskFull = 0;
    rminfree = 1e18;
}

const std::vector<Scenario> kScenarios = {
    {"Open", [] {}, [] { openFile("f", kReadWrite); }},
    {"OpenFatal", [] {}, [] { openFile("f", kReadWrite, FILE_FATAL); }},
    {"OpenStream", [] {}, [] { openFile("f", kReadWrite, FILE_STREAM); }},
    {"OpenExtending", [] { rmDiskFull = 0; }, [] { openFile("f", kReadWrite, 0, 1300); }},
    {"OpenExtendingBeyondTheThreshold",
     [] {
         rmDiskFull = 0;
         rminfree = 1e18;
         logAtLevel2();
     },
     [] { openFile("f", kReadWrite, FILE_STREAM, 1300); }},
    {"OpenParkingAnother",
     [] {
         for (const char* name : {"a", "b", "c", "d"}) {
             openFile(name, kReadWrite, FILE_STREAM);
         }
     },
     [] { openFile("f", kReadWrite); }},
    {"Close", [] { openDigits(0); }, [] { rm_fileClose(0); }},
    {"CloseStream",
     [] {
         openDigits(FILE_STREAM);
         openFile("g", kReadWrite);
     },
     [] { rm_fileClose(0); }},
    {"Seek", [] { openDigits(0); }, [] { rm_fileSeek(0, 5); }},
    {"Printf", [] { openDigits(FILE_STREAM); }, [] { rm_filePrintf(0, "%d", 5); }},
    {"Write", [] { openDigits(0); }, [] { rm_fileWrite(0, "abc", 3); }},
    {"WriteFatal", [] { openDigits(FILE_FATAL); }, [] { rm_fileWrite(0, "abc", 3); }},
    {"WriteWithLogFile",
     [] {
         openDigits(0);
         logAtLevel2();
     },
     [] { rm_fileWrite(0, "abc", 3); }},
    {"Read", [] { openDigits(0); }, [] { rm_fileRead(0, operationBuffer, 3); }},
    {"ReadFatal", [] { openDigits(FILE_FATAL); }, [] { rm_fileRead(0, operationBuffer, 3); }},
    {"SeekWriteGrowing",
     [] {
         rmDiskFull = 0;
         openDigits(0);
     },
     [] { rm_fileSeekWrite(0, 10, "abc", 3); }},
    {"SeekWriteGrowingWithLogFile",
     [] {
         rmDiskFull = 0;
         rminfree = 1e18;
         openDigits(FILE_FATAL);
         logAtLevel2();
     },
     [] { rm_fileSeekWrite(0, 10, "abc", 3); }},
    {"SeekRead", [] { openDigits(0); }, [] { rm_fileSeekRead(0, 5, operationBuffer, 3); }},
    {"SeekReadFatal", [] { openDigits(FILE_FATAL); },
     [] { rm_fileSeekRead(0, 5, operationBuffer, 3); }},
    {"Length", [] { openDigits(0); }, [] { rm_fileLength(0); }},
    {"Sync", [] { openDigits(0); }, [] { rm_fileSync(0); }},
    {"ReopenToRead", [] { parkDigits(0); }, [] { rm_fileRead(0, operationBuffer, 3); }},
    {"ReopenToWriteFatal", [] { parkDigits(FILE_FATAL); }, [] { rm_fileWrite(0, "abc", 3); }},
    {"ReopenStreamToPrint", [] { parkDigits(FILE_STREAM); }, [] { rm_filePrintf(0, "abc"); }},
    {"ReopenWithLogFile",
     [] {
         parkDigits(0);
         logAtLevel2();
     },
     [] { rm_fileSeekWrite(0, 2, "abc", 3); }},
    {"LineIntoAParkedLogFile",
     [] {
         logAtLevel2();
         park(sysfile);
     },
     [] { rm_systemLogWrite("a line"); }},
    {"LineIntoAParkedLogFileInFatalMode",
     [] {
         sysfile = openFile("log", kLogFlags, FILE_STREAM | FILE_FATAL);
         rm_systemLog(2);
         park(sysfile);
     },
     [] { rm_systemLogWrite("a line"); }},
    {"LogThatGrowsWhileItIsReopened", [] { parkLogThatGrows(0); }, [] { rm_fileLength(sysfile); }},
    {"LogThatGrowsWhileItIsReopenedAmongOthers",
     [] {
         openDigits(0);
         parkLogThatGrows(0);
     },
     [] { rm_filePrintf(sysfile, "a text"); }},
    {"LogThatGrowsWhileItIsReopenedInFatalMode", [] { parkLogThatGrows(FILE_FATAL); },
     [] { rm_fileLength(sysfile); }},
    {"Remove", [] { writeFile("f", ""); }, [] { rm_fileRemove("f"); }},
    {"Rename", [] { writeFile("f", ""); }, [] { rm_fileRename("f", "g"); }},
};

struct Failing {
    Call call;
    const char* name;
    std::span<const int> errors;
};

const Failing kFailing[] = {
    {Call::kOpen, "open", kOpenErrors},
    {Call::kFdopen, "fdopen", kFdopenErrors},
    {Call::kClose, "close", kCloseErrors},
    {Call::kFclose, "fclose", kCloseErrors},
    {Call::kRead, "read", kReadErrors},
    {Call::kWrite, "write", kWriteErrors},
    {Call::kLseek, "lseek", kLseekErrors},
    {Call::kFsync, "fsync", kFsyncErrors},
    {Call::kStatvfs, "statvfs", kStatvfsErrors},
    {Call::kVfprintf, "vfprintf", kPrintErrors},
    {Call::kFflush, "fflush", kPrintErrors},
    {Call::kRemove, "remove", kRemoveErrors},
    {Call::kRename, "rename", kRenameErrors},
    {Call::kSemop, "semop", kSemopErrors},
    {Call::kSemtimedop, "semtimedop", kSemopErrors},
};

void PrintTo(const Scenario& scenario, std::ostream* out)
{
    *out << scenario.name;
}

class FileFaultSweep : public FileFault, public ::testing::WithParamInterface<Scenario>
{
  protected:
    // From nothing to the beginning of the scenario.
    void prepare()
    {
        rm_systemLogClose();
        rm_freeall();
        fresh();
        fileHandleLimit = 4;
        rminfree = 0.0;
        captureStderr([] { GetParam().prepare(); });
        handlesBefore_ = file::nHandles;
    }

    // What must hold after anything.
    void check(const Outcome& outcome)
    {
        EXPECT_LT(outcome.seconds, 1.0);
        alarm(0);
        for (const int16_t lock : {fileSem, growSem}) {
            while (semValue(os::iSem, lock) < 1) {
                ADD_FAILURE() << "lock " << lock << " is held";
                rm_syncExitExcl(lock);
            }
            while (semValue(os::iSem, lock) > 1) {  // growth that failed leaves it twice
                EXPECT_EQ(lock, growSem);
                rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
            }
        }
        expectSound();
        EXPECT_EQ(rmtest::openDescriptors().size(),
                  descriptors_ + static_cast<std::size_t>(file::nFilesOpen));
        EXPECT_LE(file::nHandles, handlesBefore_ + 1);
        rm_systemLogClose();
        captureStderr([] {
            const int16_t handle = openFile("afterwards", kReadWrite);
            EXPECT_NE(handle, -1);
            EXPECT_EQ(rm_fileWrite(handle, "works", 5), 5U);
            EXPECT_EQ(seekRead(handle, 0, 5), "works");
            rm_fileClose(handle);
        });
        expectSound();
        rm_freeall();
        EXPECT_EQ(rm_memused(), 0U);
        EXPECT_EQ(rmtest::openDescriptors().size(), descriptors_);
    }

    // A failed exit that never succeeds leaves the lock held: nothing else is possible.
    void freeLocks()
    {
        for (const int16_t lock : {fileSem, growSem}) {
            while (semValue(os::iSem, lock) < 1) {
                rm_syncExitExcl(lock);
            }
        }
    }

    std::size_t descriptors_ = 0;  // with the locks made and no file open
    int handlesBefore_ = 0;
};

std::string scenarioName(const ::testing::TestParamInfo<Scenario>& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Scenarios, FileFaultSweep, ::testing::ValuesIn(kScenarios), scenarioName);

TEST_P(FileFaultSweep, EndsSoundWhicheverCallFails)
{
    fileSem = rm_syncCreate("fileSem");
    growSem = rm_syncCreate("growSem");
    descriptors_ = rmtest::openDescriptors().size();
    int failed = 0;
    for (const Failing& failing : kFailing) {
        for (const int error : failing.errors) {
            for (const int times : {1, kForever}) {
                int hits = 1;
                for (int skip = 0; hits > 0; ++skip) {
                    SCOPED_TRACE(named(failing.name, error, times) + ", call " +
                                 std::to_string(skip));
                    prepare();
                    const Outcome outcome =
                        under({.call = failing.call, .error = error, .skip = skip, .times = times},
                              GetParam().run);
                    hits = outcome.hits;
                    failed += hits;
                    if (failing.call == Call::kSemop && times == kForever) {
                        freeLocks();
                    }
                    check(outcome);
                    if (HasFailure()) {
                        return;  // one report is enough
                    }
                }
            }
        }
    }
    EXPECT_GT(failed, 0);
}

TEST_P(FileFaultSweep, EndsSoundWhateverIsShort)
{
    fileSem = rm_syncCreate("fileSem");
    growSem = rm_syncCreate("growSem");
    descriptors_ = rmtest::openDescriptors().size();
    for (const Call call : {Call::kRead, Call::kWrite}) {
        for (const int64_t length : {0, 1, 2, 511}) {
            for (const int times : {1, kForever}) {
                int hits = 1;
                for (int skip = 0; hits > 0; ++skip) {
                    SCOPED_TRACE("moved " + std::to_string(length) + ", call " +
                                 std::to_string(skip));
                    prepare();
                    const Outcome outcome =
                        under({.call = call, .skip = skip, .times = times, .result = length},
                              GetParam().run);
                    hits = outcome.hits;
                    check(outcome);
                }
            }
        }
    }
}

}  // namespace
