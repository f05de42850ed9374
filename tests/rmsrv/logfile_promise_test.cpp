// The log file where one call more or less makes the difference: what opening leaves alone, what it
// gives back on every way, and which states of the handle count as closed.
#include "frame.h"

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::fileLines;
using rmtest::kForever;
using rmtest::kLogPath;
using rmtest::logLines;
using rmtest::outcomeOf;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::ScopedFault;
using rmtest::writeFile;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace fs = std::filesystem;

constexpr const char* kBackupPath = "server.bak";
constexpr int16_t kNoHandle = -2;  // none that a file ever had, and not the closed state either

class LogFileCopy : public rmtest::FrameTest
{
  protected:
    // Tag 0 exists from here on, so that what it holds can be compared.
    void SetUp() override
    {
        FrameTest::SetUp();
        rm_freeMemory(rm_getMemory(1, 0), 0);
        before_ = rmalloc::tagTable[0].allocated;
    }

    uint32_t before_ = 0;  // bytes under tag 0
};

class LogFileSteps : public rmtest::FrameTest
{
};

class LogFileHandle : public rmtest::FrameTest
{
};

void openAt(const char* path)
{
    rm_systemLog(2);
    rm_systemLogOpen(path);
}

// --- The copy of the path

TEST_F(LogFileCopy, IsMadeAndGivenBackForAPathWithoutADotToo)
{
    writeFile("server", "previous");
    resetCalls();
    openAt("server");
    const std::vector<CallRecord> requests = callTrace({Call::kGetMemory});
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(requests[0].args[0], 6 + 4);
    EXPECT_EQ(requests[0].args[1], 0) << "tag 0";
    EXPECT_EQ(rmalloc::tagTable[0].allocated, before_);
}

TEST_F(LogFileCopy, IsGivenBackBeforeTheFileIsOpened)
{
    for (const char* path : {kLogPath, "server"}) {
        writeFile(path, "previous");
        uint32_t atOpen = 0;
        const ScopedFault watch({.call = Call::kOpen, .when = [&](const CallRecord& call) {
                                     if (call.path() == path) {
                                         atOpen = rmalloc::tagTable[0].allocated;
                                     }
                                     return false;
                                 }});
        openAt(path);
        EXPECT_EQ(atOpen, before_) << path;
        rm_systemLogClose();
    }
}

TEST_F(LogFileCopy, IsGivenBackThoughTheFileCannotBeOpened)
{
    writeFile(kLogPath, "previous");
    const ScopedFault fault({.call = Call::kOpen, .error = EMFILE, .when = [](const auto& call) {
                                 return call.path() == kLogPath;
                             }});
    EXPECT_EQ(outcomeOf([] { openAt(kLogPath); }).jumped, 1);
    EXPECT_EQ(rmalloc::tagTable[0].allocated, before_);
}

TEST_F(LogFileCopy, IsGivenBackThoughTheLogCannotBeRenamed)
{
    writeFile(kLogPath, "previous");
    const ScopedFault fault({.call = Call::kRename, .error = EPERM, .times = kForever});
    openAt(kLogPath);
    EXPECT_EQ(rmalloc::tagTable[0].allocated, before_);
}

// --- The steps

TEST_F(LogFileSteps, ABackupThatIsNotThereIsLookedForAndNotRemoved)
{
    writeFile(kLogPath, "previous");
    resetCalls();
    openAt(kLogPath);
    const std::vector<CallRecord> steps = callTrace({Call::kStat, Call::kRemove, Call::kRename});
    ASSERT_EQ(steps.size(), 3U);
    EXPECT_EQ(steps[0].path(), kLogPath);
    EXPECT_EQ(steps[1].call, Call::kStat);
    EXPECT_EQ(steps[1].path(), kBackupPath);
    EXPECT_EQ(steps[2].call, Call::kRename);
}

TEST_F(LogFileSteps, TheBackupIsMadeBeforeTheFileIsOpened)
{
    writeFile(kLogPath, "previous");
    resetCalls();
    openAt(kLogPath);
    std::vector<CallRecord> steps = callTrace({Call::kRename, Call::kOpen});
    std::erase_if(steps, [](const CallRecord& call) { return call.path() != kLogPath; });
    ASSERT_EQ(steps.size(), 2U);
    EXPECT_EQ(steps[0].call, Call::kRename);
    EXPECT_EQ(steps[1].call, Call::kOpen);
}

TEST_F(LogFileSteps, ADirectoryInThePlaceOfTheLogIsMovedAsALogWouldBe)
{
    fs::create_directory(kLogPath);
    writeFile(fs::path(kLogPath) / "inside", "kept");
    EXPECT_EQ(captureStderr([] { openAt(kLogPath); }), "");
    EXPECT_EQ(readFile("server.bak/inside"), "kept");
    EXPECT_EQ(readFile(kLogPath), "");
}

TEST_F(LogFileSteps, OfOneOpeningLeaveTheBackupAloneForTheNextOnesThatDoNothing)
{
    writeFile(kLogPath, "previous");
    openAt(kLogPath);
    captureStderr([] { rm_systemLogWrite("a line"); });
    for (const int16_t level : std::to_array<int16_t>({2, 1, 0})) {
        rm_systemLog(level);
        rm_systemLogOpen(kLogPath);
    }
    EXPECT_EQ(readFile(kBackupPath), "previous");
    EXPECT_THAT(fileLines(), ElementsAre("a line"));
}

// --- The handle

TEST_F(LogFileHandle, AnyButMinusOneCountsAsOpen)
{
    writeFile(kLogPath, "previous");
    rm_systemLog(2);
    for (const int16_t handle : std::to_array<int16_t>({kNoHandle, INT16_MIN, 0, INT16_MAX})) {
        sysfile = handle;
        resetCalls();
        rm_systemLogOpen(kLogPath);
        EXPECT_THAT(callTrace(), IsEmpty()) << handle;
        EXPECT_EQ(sysfile, handle);
    }
    EXPECT_EQ(readFile(kLogPath), "previous");
    sysfile = RM_NONE;
}

TEST_F(LogFileHandle, AnyButMinusOneIsClosed)
{
    rm_fileClose(rm_fileOpen("other", RM_O_WRONLY | RM_O_CREAT, 0, 0, 0));
    for (const int16_t handle : std::to_array<int16_t>({kNoHandle, INT16_MIN, INT16_MAX})) {
        rm_systemLog(1);
        sysfile = handle;
        EXPECT_THAT(logLines(captureStderr([] { rm_systemLogClose(); })),
                    ElementsAre("rm_fileClose: invalid handle " + std::to_string(handle)));
        EXPECT_EQ(sysfile, RM_NONE);
        EXPECT_EQ(syslogon, 0);
    }
}

TEST_F(LogFileHandle, IsClosedThoughLoggingIsOff)
{
    openAt(kLogPath);
    const int16_t handle = sysfile;
    rm_systemLog(0);
    resetCalls();
    rm_systemLogClose();
    EXPECT_EQ(callCount(Call::kFclose), 1);
    EXPECT_EQ(file::usedEntry(handle), nullptr);
    EXPECT_EQ(sysfile, RM_NONE);
}
}  // namespace
