// What the tests of the managed files share: a fixture, the operations as a table, eyes on the
// entries, the locks and the log, and the way in which a fatal end is taken apart.
//
// The tests are white-box: entries, bits and counts of the table are read and set directly, so that
// a case can begin in the state that it is about.
#ifndef RM_TESTS_FILE_FILE_CASE_H
#define RM_TESTS_FILE_FILE_CASE_H

#include "tests/support/faults.h"
#include "tests/support/support.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/sem.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace filetest
{

using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::captureStdout;
using rmtest::catchFatal;
using rmtest::kForever;
using rmtest::logLines;
using rmtest::passThrough;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using rmtest::semValue;
using rmtest::writeFile;

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Lines = std::vector<std::string>;

constexpr uint32_t kReadWrite = RM_O_RDWR | RM_O_CREAT;
constexpr uint32_t kLogFlags = RM_O_WRONLY | RM_O_CREAT | RM_O_TRUNC;
constexpr uint32_t kFailedSeek = 0xFFFFFFFFU;
constexpr std::string_view kDigits = "0123456789";

inline uint32_t sizeOf(std::string_view text)
{
    return static_cast<uint32_t>(text.size());
}

// The slot of a handle, free or not.
inline file::FileEntry* entryOf(int16_t handle)
{
    return file::ftab[handle];
}

inline int fileSemValue()
{
    return semValue(os::iSem, fileSem);
}

inline int growSemValue()
{
    return semValue(os::iSem, growSem);
}

// The lines that `body` logs. It must come back.
inline Lines linesOf(const std::function<void()>& body)
{
    return logLines(captureStderr(body));
}

struct Counts {
    uint32_t open;
    uint32_t parked;
    uint32_t parkings;
    uint32_t reopens;

    bool operator==(const Counts&) const = default;
};

inline Counts counts()
{
    Counts now = {};
    rm_fileCounts(&now.open, &now.parked, &now.parkings, &now.reopens);
    return now;
}

inline void PrintTo(const Counts& c, std::ostream* out)
{
    *out << "open " << c.open << ", parked " << c.parked << ", parkings " << c.parkings
         << ", reopens " << c.reopens;
}

// Parks one handle, by the sweep itself.
inline void park(int16_t handle)
{
    file::FileEntry* entry = entryOf(handle);
    file::lruNext = handle;
    entry->recentlyUsed = 0;
    file::closeOneOpenFile();
    ASSERT_EQ(entry->state, file::kSlotParked);
}

// --- The fatal end

constexpr std::size_t kBannerLines = 7;

// A call that was expected to end fatally, with a target registered.
struct FatalEnd {
    bool jumped = false;
    Lines lines;      // before the banner and the closing line
    std::string out;  // standard output
    double seconds = 0;
};

// Takes the banner and the closing line off the lines of a fatal end. The banner comes once per
// process, so it may be missing.
inline Lines withoutFrame(Lines lines)
{
    EXPECT_FALSE(lines.empty());
    if (!lines.empty()) {
        EXPECT_EQ(lines.back(), "Exiting to shutdown processing");
        lines.pop_back();
    }
    const std::string border(35, '*');
    if (lines.size() >= kBannerLines && lines.back() == border) {
        lines.resize(lines.size() - kBannerLines);
    }
    return lines;
}

inline FatalEnd fatalEnd(const std::function<void()>& body)
{
    FatalEnd end;
    int jumped = 0;
    std::string err;
    const auto started = std::chrono::steady_clock::now();
    end.out = captureStdout([&] { err = captureStderr([&] { jumped = catchFatal(body); }); });
    end.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    end.jumped = jumped != 0;
    end.lines = end.jumped ? withoutFrame(logLines(err)) : logLines(err);
    return end;
}

// --- Operations as a table

// An operation on a handle whose file holds kDigits, and what it says.
struct FileOperation {
    const char* name;                  // "rm_fileSeek"
    int64_t (*run)(int16_t handle);    // its result
    int64_t good;                      // the result when it works
    int64_t refused;                   // the result for an invalid handle
    bool stream;                       // needs a handle with a stream
    const char* firstGone = nullptr;   // lines for a file that could not be reopened, with the
    const char* secondGone = nullptr;  // path put after the first one when it ends with "="

    std::string invalid(int handle) const
    {
        return std::string(name) + ": invalid handle " + std::to_string(handle);
    }

    std::string noReopen(int handle) const
    {
        return std::string("WARNING: failed file reopen in ") + name + "(" +
               std::to_string(handle) + ")";
    }

    std::string timeout() const { return std::string("fileSem timeout in ") + name; }

    // What it logs when the file behind `handle` is not there any more.
    Lines gone(int handle, const std::string& path) const
    {
        Lines lines = {noReopen(handle)};
        if (firstGone != nullptr) {
            lines.push_back(firstGone + path);
        }
        if (secondGone != nullptr) {
            lines.emplace_back(secondGone);
        }
        return lines;
    }

    uint16_t mode() const { return stream ? FILE_STREAM : 0; }
};

inline void PrintTo(const FileOperation& operation, std::ostream* out)
{
    *out << operation.name;
}

inline char operationBuffer[16];

// Those that share one way in: the handle is looked up, and a parked file is reopened.
inline const std::vector<FileOperation>& fileOperations()
{
    static const std::vector<FileOperation> kOperations = {
        {"rm_fileSeek", [](int16_t h) -> int64_t { return rm_fileSeek(h, 3); }, 3, kFailedSeek,
         false},
        {"rm_filePrintf", [](int16_t h) -> int64_t { return rm_filePrintf(h, "ab%d", 7); }, 3, 0,
         true},
        {"rm_fileWrite", [](int16_t h) -> int64_t { return rm_fileWrite(h, "xyz", 3); }, 3, 0,
         false, "rm_fileWrite: errno=9: unable to write, file="},
        {"rm_fileSeekWrite", [](int16_t h) -> int64_t { return rm_fileSeekWrite(h, 2, "xyz", 3); },
         3, 0, false, "rm_fileSeekWrite: unable to write ", "    seek address=2, bytes=3, errno=9"},
        {"rm_fileRead", [](int16_t h) -> int64_t { return rm_fileRead(h, operationBuffer, 4); }, 4,
         0, false, "rm_fileRead: errno=9: unable to read, file="},
        {"rm_fileSeekRead",
         [](int16_t h) -> int64_t { return rm_fileSeekRead(h, 2, operationBuffer, 4); }, 4, 0,
         false, "rm_fileSeekRead: unable to read ", "    seek address=2, bytes=0, errno=9"},
        {"rm_fileLength", [](int16_t h) -> int64_t { return rm_fileLength(h); }, 10, 0, false},
    };
    return kOperations;
}

// The name of a parameterised case: the operation without its prefix.
inline std::string operationName(const ::testing::TestParamInfo<FileOperation>& info)
{
    return std::string(info.param.name).substr(std::strlen("rm_"));
}

// The line of a print that has no stream to go to.
inline std::string badStatus(int handle, const void* table)
{
    std::array<char, 96> text = {};
    std::snprintf(text.data(), text.size(), "Bad status in rm_filePrintf: %d, %p", handle, table);
    return text.data();
}

// --- Locks, as the system sees them

// An operation on a semaphore.
struct LockStep {
    int number;
    int op;

    bool operator==(const LockStep&) const = default;
};

inline void PrintTo(const LockStep& step, std::ostream* out)
{
    *out << "sem " << step.number << (step.op < 0 ? " entered" : " left");
}

inline LockStep enters(int16_t sync)
{
    return {sync, -1};
}

inline LockStep leaves(int16_t sync)
{
    return {sync, 1};
}

inline LockStep lockStep(const CallRecord& call)
{
    const auto* operation = call.pointer<const sembuf>(1);
    return {operation->sem_num, operation->sem_op};
}

// True for the call that enters, or leaves, the sync object.
inline std::function<bool(const CallRecord&)> isStep(LockStep step)
{
    return [step](const CallRecord& call) { return lockStep(call) == step; };
}

// Notes every operation on a semaphore and lets it pass.
class LockWatch
{
  public:
    const std::vector<LockStep>& steps() const { return steps_; }

  private:
    std::function<bool(const CallRecord&)> note()
    {
        return [this](const CallRecord& call) {
            steps_.push_back(lockStep(call));
            return false;
        };
    }

    std::vector<LockStep> steps_;
    ScopedFault plain_{{.call = Call::kSemop, .when = note()}};
    ScopedFault timed_{{.call = Call::kSemtimedop, .when = note()}};
};

// A fault that only looks: `look` runs just before each call of the kind.
class Spy
{
  public:
    Spy(Call call, const std::function<void(const CallRecord&)>& look)
        : fault_({.call = call, .when = [this, look](const CallRecord& record) {
                      ++seen_;
                      look(record);
                      return false;
                  }})
    {
    }

    int seen() const { return seen_; }

  private:
    int seen_ = 0;
    ScopedFault fault_;
};

// The wait for a lock is over at once, as if the time had passed.
inline rmtest::Fault timeout(int16_t sync, int times = 1)
{
    return {
        .call = Call::kSemtimedop, .error = EAGAIN, .times = times, .when = isStep(enters(sync))};
}

// --- The disk

// The file system reports `blocks` free blocks of 512 bytes.
inline rmtest::Fault freeBlocks(uint64_t blocks)
{
    return {.call = Call::kStatvfs, .times = kForever, .action = [blocks](const CallRecord& call) {
                const int64_t result = passThrough(call);
                call.pointer<struct statvfs>(1)->f_bfree = blocks;
                return result;
            }};
}

// --- The fixture

// On top of what RmTest checks: the table is sound, nothing is inside an operation, and fileSem is
// free.
class FileTest : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        fileHandleLimit = 32;
        rmDiskFull = 1;
        rminfree = 0.0;
        fileCommit = -1;
        file::fileOps = 0;
        file::parkings = 0;
        file::reopens = 0;
    }

    void TearDown() override
    {
        expectSound();
        rm_systemLogClose();
        rm_freeall();
        rm_syncTerminate();
        RmTest::TearDown();
    }

    // What holds between any two calls.
    static void expectSound()
    {
        EXPECT_EQ(file::checkFtab(), 0U);
        EXPECT_EQ(rmalloc::checkMemory(), 0U);
        EXPECT_EQ(os::checkSync(), 0U);
        for (int16_t slot = 0; slot < file::ftabSize; ++slot) {
            EXPECT_EQ(entryOf(slot)->busyCount, 0) << "slot " << slot;
        }
        if (fileSem != RM_NONE) {
            EXPECT_EQ(fileSemValue(), 1) << "fileSem is held";
        }
    }

    static int16_t openNew(const char* name, uint16_t modeFlags = 0, uint32_t initialSize = 0,
                           uint32_t growIncrement = 0)
    {
        return rm_fileOpen(name, kReadWrite, modeFlags, initialSize, growIncrement);
    }

    // A file with `text` in it, open for reading and writing.
    static int16_t openWith(const char* name, std::string_view text, uint16_t modeFlags = 0)
    {
        writeFile(name, text);
        return rm_fileOpen(name, RM_O_RDWR, modeFlags, 0, 0);
    }

    // A file with `text` in it, parked.
    static int16_t parkedWith(const char* name, std::string_view text, uint16_t modeFlags = 0)
    {
        const int16_t handle = openWith(name, text, modeFlags);
        park(handle);
        return handle;
    }

    // Opens "f0" and so on; the handles are 0 to n - 1 in a new table.
    static void openMany(int n, uint16_t modeFlags = 0)
    {
        for (int i = 0; i < n; ++i) {
            ASSERT_NE(openNew(("f" + std::to_string(i)).c_str(), modeFlags), -1);
        }
    }

    static std::string read(int16_t handle, uint32_t length)
    {
        std::string buffer(length, '\0');
        buffer.resize(rm_fileRead(handle, buffer.data(), length));
        return buffer;
    }

    static std::string seekRead(int16_t handle, uint32_t offset, uint32_t length)
    {
        std::string buffer(length, '\0');
        buffer.resize(rm_fileSeekRead(handle, offset, buffer.data(), length));
        return buffer;
    }

    static uint32_t write(int16_t handle, std::string_view text)
    {
        return rm_fileWrite(handle, text.data(), sizeOf(text));
    }

    static uint32_t seekWrite(int16_t handle, uint32_t offset, std::string_view text)
    {
        return rm_fileSeekWrite(handle, offset, text.data(), sizeOf(text));
    }

    // Makes `name` the log file at level 2.
    static void openLog(const char* name, uint16_t modeFlags = FILE_FATAL | FILE_STREAM)
    {
        sysfile = rm_fileOpen(name, kLogFlags, modeFlags, 0, 0);
        ASSERT_NE(sysfile, -1);
        rm_systemLog(2);
    }
};

inline int16_t openAnother()
{
    return rm_fileOpen("another", kReadWrite, 0, 0, 0);
}

// Everything that waits for fileSem: the operations of the table, and the rest of the interface.
inline std::vector<FileOperation> lockedOperations()
{
    std::vector<FileOperation> operations = fileOperations();
    operations.push_back(
        {"rm_fileOpen", [](int16_t) -> int64_t { return openAnother(); }, 1, 0, false});
    operations.push_back({"rm_fileClose",
                          [](int16_t h) -> int64_t {
                              rm_fileClose(h);
                              return 0;
                          },
                          0, 0, false});
    operations.push_back(
        {"rm_fileSync", [](int16_t h) -> int64_t { return rm_fileSync(h); }, 0, 0, false});
    return operations;
}

}  // namespace filetest

#endif
