// Opening the log file: what becomes of the one of the previous run, and what reaches the new one.
#include "frame.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

#include <fcntl.h>
#include <sys/stat.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::ChildResult;
using rmtest::expectEndAtOnce;
using rmtest::fileLines;
using rmtest::kForever;
using rmtest::kLogPath;
using rmtest::logLines;
using rmtest::Outcome;
using rmtest::outcomeOf;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::ScopedFault;
using rmtest::writeFile;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace fs = std::filesystem;

constexpr const char* kBackupPath = "server.bak";
constexpr time_t kMarch1996 = 826207509;  // 07-Mar-96 14:05:09 UTC
constexpr const char* kMarchStamp = "[07-Mar-96 14:05:09]  ";
constexpr std::size_t kLongestMessage = 259;

// Opens the log file at level 2 with the call that hosts use.
void openAt(const char* path, int16_t level = 2)
{
    rm_systemLog(level);
    rm_systemLogOpen(path);
}

// What stands in the case's directory, the library's token aside.
std::vector<std::string> names()
{
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(".")) {
        if (entry.path().filename() != rmtest::kSemToken) {
            found.push_back(entry.path().filename());
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

class LogFileOpen : public rmtest::FrameTest
{
};

class LogFileBackup : public rmtest::FrameTest
{
};

class LogFileContents : public rmtest::FrameTest
{
};

class LogFileReopened : public rmtest::FrameTest
{
};

class LogFileOpenFails : public rmtest::FrameTest
{
};

// --- When it opens

TEST_F(LogFileOpen, WithLoggingOffDoesNothing)
{
    writeFile(kLogPath, "previous");
    resetCalls();
    rm_systemLogOpen(kLogPath);
    EXPECT_THAT(callTrace(), IsEmpty());
    EXPECT_EQ(sysfile, RM_NONE);
    EXPECT_THAT(names(), ElementsAre(kLogPath));
    EXPECT_EQ(readFile(kLogPath), "previous");
}

TEST_F(LogFileOpen, AtEveryOtherLevelOpensTheFile)
{
    for (const int level : {1, 2, 3, INT16_MAX, -1, INT16_MIN}) {
        openAt(kLogPath, static_cast<int16_t>(level));
        EXPECT_NE(sysfile, RM_NONE) << level;
        EXPECT_EQ(syslogon, level);
        rm_systemLogClose();
    }
}

TEST_F(LogFileOpen, OfNoPathDoesNothing)
{
    rm_systemLog(2);
    resetCalls();
    rm_systemLogOpen(nullptr);
    EXPECT_THAT(callTrace(), IsEmpty());
    EXPECT_EQ(sysfile, RM_NONE);
}

TEST_F(LogFileOpen, ASecondTimeDoesNothing)
{
    openAt(kLogPath);
    const int16_t handle = sysfile;
    captureStderr([] { rm_systemLogWrite("a line"); });
    resetCalls();
    rm_systemLogOpen(kLogPath);
    EXPECT_THAT(callTrace(), IsEmpty());
    EXPECT_EQ(sysfile, handle);
    EXPECT_THAT(names(), ElementsAre(kLogPath));
    EXPECT_THAT(fileLines(), ElementsAre("a line"));
}

TEST_F(LogFileOpen, OfAnotherPathWhileOneIsOpenDoesNothing)
{
    openAt(kLogPath);
    rm_systemLogOpen("other.log");
    captureStderr([] { rm_systemLogWrite("a line"); });
    EXPECT_THAT(names(), ElementsAre(kLogPath));
    EXPECT_THAT(fileLines(), ElementsAre("a line"));
}

TEST_F(LogFileOpen, WhileAHandleOfTheHostIsTheLogDoesNothing)
{
    rmtest::openLog();
    const int16_t handle = sysfile;
    rm_systemLogOpen("other.log");
    EXPECT_EQ(sysfile, handle);
    EXPECT_THAT(names(), ElementsAre(kLogPath));
}

// --- How it opens

TEST_F(LogFileOpen, MakesAnEmptyFileForItsOwnerAlone)
{
    const mode_t mask = umask(0);
    openAt(kLogPath);
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat(kLogPath, &status), 0);
    EXPECT_EQ(status.st_size, 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(LogFileOpen, LogsNothingItself)
{
    EXPECT_EQ(captureStderr([] { openAt(kLogPath); }), "");
    EXPECT_EQ(readFile(kLogPath), "");
}

TEST_F(LogFileOpen, IsForWritingCreatesAndCutsTheFile)
{
    resetCalls();
    openAt(kLogPath);
    std::vector<CallRecord> opens = callTrace({Call::kOpen});
    std::erase_if(opens, [](const CallRecord& call) { return call.path() != kLogPath; });
    ASSERT_EQ(opens.size(), 1U);
    constexpr int kAsked = O_WRONLY | O_CREAT | O_TRUNC;
    EXPECT_EQ(opens[0].args[1] & (O_ACCMODE | O_CREAT | O_TRUNC | O_EXCL | O_APPEND), kAsked);
}

TEST_F(LogFileOpen, IsFatalModeWithAStreamAndWithoutGrowth)
{
    rmDiskFull = 0;
    openAt(kLogPath);
    const file::FileEntry* entry = file::usedEntry(sysfile);
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->name, kLogPath);
    EXPECT_EQ(entry->modeFlags, 9);
    EXPECT_EQ(entry->openFlags, 769U & ~RM_O_TRUNC);  // cut once, and never again
    EXPECT_EQ(entry->initialSize, 0U);
    EXPECT_EQ(entry->growIncrement, 0U);
    EXPECT_NE(entry->stream, nullptr);
    EXPECT_EQ(growSem, RM_NONE);
}

TEST_F(LogFileOpen, TakesTheLowestFreeHandle)
{
    const int16_t other = rm_fileOpen("other", RM_O_WRONLY | RM_O_CREAT, 0, 0, 0);
    openAt(kLogPath);
    EXPECT_EQ(sysfile, other + 1);
    rm_fileClose(other);
}

TEST_F(LogFileOpen, WithoutAPreviousFileLooksOnceAndAsksForNoMemory)
{
    writeFile(kBackupPath, "older");
    resetCalls();
    openAt(kLogPath);
    EXPECT_EQ(callCount(Call::kStat), 1);
    EXPECT_EQ(callCount(Call::kRemove), 0);
    EXPECT_EQ(callCount(Call::kRename), 0);
    for (const CallRecord& call : callTrace({Call::kGetMemory})) {
        EXPECT_NE(call.args[1], 0) << "tag 0";
    }
    EXPECT_EQ(readFile(kBackupPath), "older");
}

// --- The backup

TEST_F(LogFileBackup, IsThePreviousFileUnderTheOtherExtension)
{
    writeFile(kLogPath, "previous");
    openAt(kLogPath);
    EXPECT_THAT(names(), ElementsAre(kBackupPath, kLogPath));
    EXPECT_EQ(readFile(kBackupPath), "previous");
    EXPECT_EQ(readFile(kLogPath), "");
}

TEST_F(LogFileBackup, IsTheSameFileNotACopy)
{
    writeFile(kLogPath, "previous");
    struct stat before = {};
    ASSERT_EQ(stat(kLogPath, &before), 0);
    openAt(kLogPath);
    struct stat after = {};
    ASSERT_EQ(stat(kBackupPath, &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
}

TEST_F(LogFileBackup, ReplacesAnOlderOne)
{
    writeFile(kLogPath, "previous");
    writeFile(kBackupPath, "older and longer");
    openAt(kLogPath);
    EXPECT_THAT(names(), ElementsAre(kBackupPath, kLogPath));
    EXPECT_EQ(readFile(kBackupPath), "previous");
}

TEST_F(LogFileBackup, TheOlderOneIsRemovedThenTheLogRenamed)
{
    writeFile(kLogPath, "previous");
    writeFile(kBackupPath, "older");
    resetCalls();
    openAt(kLogPath);
    const std::vector<CallRecord> steps = callTrace({Call::kStat, Call::kRemove, Call::kRename});
    ASSERT_EQ(steps.size(), 4U);
    EXPECT_EQ(steps[0].path(), kLogPath);
    EXPECT_EQ(steps[1].path(), kBackupPath);
    EXPECT_EQ(steps[2].call, Call::kRemove);
    EXPECT_EQ(steps[2].path(), kBackupPath);
    EXPECT_EQ(steps[3].call, Call::kRename);
    EXPECT_EQ(steps[3].path(), kLogPath);
    EXPECT_EQ(steps[3].path2(), kBackupPath);
}

TEST_F(LogFileBackup, OfTheRunBeforeTheLastIsGone)
{
    for (const char* text : {"one", "two", "three"}) {
        openAt(kLogPath);
        captureStderr([text] { rm_systemLogWrite("%s", text); });
        rm_systemLogClose();
    }
    EXPECT_THAT(names(), ElementsAre(kBackupPath, kLogPath));
    EXPECT_THAT(logLines(readFile(kBackupPath)), ElementsAre("two"));
    EXPECT_THAT(fileLines(), ElementsAre("three"));
}

TEST_F(LogFileBackup, OfAnEmptyFileIsMadeToo)
{
    writeFile(kLogPath, "");
    openAt(kLogPath);
    EXPECT_THAT(names(), ElementsAre(kBackupPath, kLogPath));
}

TEST_F(LogFileBackup, OnlyTheLastDotCounts)
{
    writeFile("log.old.txt", "previous");
    openAt("log.old.txt");
    EXPECT_THAT(names(), ElementsAre("log.old.bak", "log.old.txt"));
    EXPECT_EQ(readFile("log.old.bak"), "previous");
}

TEST_F(LogFileBackup, ADotOfADirectoryCountsWhenTheFileHasNone)
{
    fs::create_directory("logs.d");
    writeFile("logs.d/server", "previous");
    writeFile("logs.bak", "older");
    openAt("logs.d/server");
    EXPECT_THAT(names(), ElementsAre("logs.bak", "logs.d"));
    EXPECT_EQ(readFile("logs.bak"), "previous");
    EXPECT_EQ(readFile("logs.d/server"), "");
}

TEST_F(LogFileBackup, TheDotOfTheCurrentDirectoryCountsToo)
{
    writeFile("server", "previous");
    openAt("./server");
    EXPECT_THAT(names(), ElementsAre(".bak", "server"));
    EXPECT_EQ(readFile(".bak"), "previous");
}

TEST_F(LogFileBackup, OfAHiddenFileIsNothingButTheExtension)
{
    writeFile(".server", "previous");
    openAt(".server");
    EXPECT_THAT(names(), ElementsAre(".bak", ".server"));
    EXPECT_EQ(readFile(".bak"), "previous");
}

TEST_F(LogFileBackup, StandsBesideTheLogInItsDirectory)
{
    fs::create_directory("logs");
    writeFile("logs/server.log", "previous");
    openAt("logs/server.log");
    EXPECT_EQ(readFile("logs/server.bak"), "previous");
    EXPECT_THAT(names(), ElementsAre("logs"));
}

TEST_F(LogFileBackup, WithoutADotThereIsNoneAndTheLogIsCut)
{
    writeFile("server", "previous");
    resetCalls();
    openAt("server");
    EXPECT_EQ(callCount(Call::kRename), 0);
    EXPECT_EQ(callCount(Call::kRemove), 0);
    EXPECT_THAT(names(), ElementsAre("server"));
    EXPECT_EQ(readFile("server"), "");
}

TEST_F(LogFileBackup, OfANameThatEndsWithTheDotIsMade)
{
    writeFile("a.", "previous");
    openAt("a.");
    EXPECT_THAT(names(), ElementsAre("a.", "a.bak"));
    EXPECT_EQ(readFile("a.bak"), "previous");
}

TEST_F(LogFileBackup, OfTheCurrentDirectoryIsNone)
{
    // It cannot be renamed, which is passed over, and cannot be written.
    const Outcome outcome = outcomeOf([] { openAt("."); });
    EXPECT_EQ(outcome.jumped, 1);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(LogFileBackup, ALogThatIsItsOwnBackupStartsEmpty)
{
    writeFile(kBackupPath, "previous");
    EXPECT_EQ(captureStderr([] { openAt(kBackupPath); }), "");
    EXPECT_THAT(names(), ElementsAre(kBackupPath));
    EXPECT_EQ(readFile(kBackupPath), "");
}

TEST_F(LogFileBackup, OfALinkMovesTheLink)
{
    writeFile("real", "previous");
    fs::create_symlink("real", kLogPath);
    openAt(kLogPath);
    EXPECT_TRUE(fs::is_symlink(kBackupPath));
    EXPECT_EQ(readFile("real"), "previous");
    EXPECT_FALSE(fs::is_symlink(kLogPath));
}

// The name of the backup takes four bytes more than the path at most: when the path ends with its
// dot. Whatever the length, the copy fills its block and no more.
TEST_F(LogFileBackup, FitsItsCopyWhateverTheLengthOfThePath)
{
    for (const int16_t oneBlockEach : std::to_array<int16_t>({0, 1})) {
        seg_alloc = oneBlockEach;
        for (std::size_t length = 1; length <= 40; ++length) {
            for (const char* tail : {".", ".x", ".log", ".extension"}) {
                const std::string stem(length, 'n');
                const std::string path = stem + tail;
                writeFile(path, "previous");
                resetCalls();
                openAt(path.c_str());
                const std::vector<CallRecord> requests = callTrace({Call::kGetMemory});
                ASSERT_FALSE(requests.empty());
                EXPECT_EQ(requests[0].args[0], static_cast<int64_t>(path.size() + 4));
                EXPECT_EQ(requests[0].args[1], 0) << "tag 0";
                EXPECT_EQ(readFile(stem + ".bak"), "previous");
                EXPECT_EQ(rmtest::violations(), 0U);
                rm_systemLogClose();
            }
        }
    }
    seg_alloc = 0;
}

TEST_F(LogFileBackup, GivesItsCopyBack)
{
    writeFile(kLogPath, "previous");
    rm_freeMemory(rm_getMemory(1, 0), 0);
    const uint32_t before = rmalloc::tagTable[0].allocated;
    openAt(kLogPath);
    EXPECT_EQ(rmalloc::tagTable[0].allocated, before);
}

TEST_F(LogFileBackup, ThatIsADirectoryWithFilesIsLeftAlone)
{
    fs::create_directory(kBackupPath);
    writeFile(fs::path(kBackupPath) / "inside", "kept");
    writeFile(kLogPath, "previous");
    EXPECT_EQ(captureStderr([] { openAt(kLogPath); }), "");
    EXPECT_NE(sysfile, RM_NONE);
    EXPECT_EQ(readFile("server.bak/inside"), "kept");
    EXPECT_EQ(readFile(kLogPath), "");
}

TEST_F(LogFileBackup, ThatIsAnEmptyDirectoryIsReplaced)
{
    fs::create_directory(kBackupPath);
    writeFile(kLogPath, "previous");
    openAt(kLogPath);
    EXPECT_EQ(readFile(kBackupPath), "previous");
}

TEST_F(LogFileBackup, ThatIsALinkToNowhereIsReplaced)
{
    fs::create_symlink("nowhere", kBackupPath);
    writeFile(kLogPath, "previous");
    openAt(kLogPath);
    EXPECT_FALSE(fs::is_symlink(kBackupPath));
    EXPECT_EQ(readFile(kBackupPath), "previous");
}

TEST_F(LogFileBackup, WhoseNameIsTooLongIsMissedInSilence)
{
    const std::string path = std::string(252, 'n') + ".l";  // 254 bytes, and 256 with ".bak"
    writeFile(path, "previous");
    EXPECT_EQ(captureStderr([&] { openAt(path.c_str()); }), "");
    EXPECT_NE(sysfile, RM_NONE);
    EXPECT_THAT(names(), ElementsAre(path));
    EXPECT_EQ(readFile(path), "");
}

// --- What reaches the file

TEST_F(LogFileContents, AtLevelOneIsNothing)
{
    openAt(kLogPath, 1);
    EXPECT_THAT(logLines(captureStderr([] { rm_systemLogWrite("a line"); })),
                ElementsAre("a line"));
    EXPECT_EQ(readFile(kLogPath), "");
}

TEST_F(LogFileContents, FollowsTheLevelWithoutAnotherOpening)
{
    openAt(kLogPath, 1);
    captureStderr([] {
        rm_systemLogWrite("one");
        rm_systemLog(2);
        rm_systemLogWrite("two");
        rm_systemLog(0);
        rm_systemLogWrite("three");
        rm_systemLog(3);
        rm_systemLogWrite("four");
    });
    EXPECT_THAT(fileLines(), ElementsAre("two", "four"));
}

TEST_F(LogFileContents, AtLevelTwoIsEveryLine)
{
    openAt(kLogPath);
    const std::string err = captureStderr([] {
        rm_systemLogWrite("one");
        rm_systemLogOptWrite("two");
        rm_systemLogWrite("three");
    });
    EXPECT_THAT(fileLines(), ElementsAre("one", "two", "three"));
    EXPECT_EQ(readFile(kLogPath), err);
}

TEST_F(LogFileContents, IsStampMessageAndNewlineByteForByte)
{
    setenv("TZ", "UTC0", 1);
    ScopedFault clock({.call = Call::kTime, .times = kForever, .result = kMarch1996});
    openAt(kLogPath);
    std::string everyByte;
    for (int byte = 1; byte < 256; ++byte) {
        everyByte += static_cast<char>(byte);
    }
    std::string expected;
    for (const std::string& message :
         {std::string(), std::string("text"), std::string(kLongestMessage, 'm'),
          std::string(kLongestMessage + 1, 'n'), std::string(1000, 'o'),
          std::string("%s %d 100% %n %%"), everyByte, std::string("\x80\xC3\xA4\xFF"),
          std::string(258, 'm') + "\xC3\xA4"}) {
        captureStderr([&] { rm_systemLogWrite("%s", message.c_str()); });
        expected += kMarchStamp + message.substr(0, kLongestMessage) + '\n';
    }
    EXPECT_EQ(readFile(kLogPath), expected);
}

TEST_F(LogFileContents, IsThereWhenTheCallReturns)
{
    openAt(kLogPath);
    std::string expected;
    for (int i = 0; i < 10; ++i) {
        expected += captureStderr([i] { rm_systemLogWrite("line %d", i); });
        EXPECT_EQ(readFile(kLogPath), expected);
    }
}

TEST_F(LogFileContents, IsTheHandlesPosition)
{
    openAt(kLogPath);
    const std::string err = captureStderr([] { rm_systemLogWrite("a line"); });
    EXPECT_EQ(rm_filePosition(sysfile), err.size());
    EXPECT_EQ(rm_fileLength(sysfile), err.size());
}

// --- Closed, opened again, parked

TEST_F(LogFileReopened, AfterTheCloseTheLevelWasOff)
{
    openAt(kLogPath);
    rm_systemLogClose();
    EXPECT_EQ(sysfile, RM_NONE);
    EXPECT_EQ(rm_systemLog(2), 0);
}

TEST_F(LogFileReopened, AfterTheCloseOpeningNeedsTheLevelAgain)
{
    openAt(kLogPath);
    rm_systemLogClose();
    rm_systemLogOpen(kLogPath);
    EXPECT_EQ(sysfile, RM_NONE);
    rm_systemLog(1);
    rm_systemLogOpen(kLogPath);
    EXPECT_NE(sysfile, RM_NONE);
}

TEST_F(LogFileReopened, AnotherPathGetsTheLaterLines)
{
    openAt(kLogPath);
    captureStderr([] { rm_systemLogWrite("one"); });
    rm_systemLogClose();
    openAt("other.log");
    captureStderr([] { rm_systemLogWrite("two"); });
    EXPECT_THAT(fileLines(), ElementsAre("one"));
    EXPECT_THAT(logLines(readFile("other.log")), ElementsAre("two"));
}

TEST_F(LogFileReopened, AfterAllMemoryHasGoneItIsOpenedAnew)
{
    openAt(kLogPath);
    captureStderr([] { rm_systemLogWrite("one"); });
    rm_freeall();
    EXPECT_EQ(sysfile, RM_NONE);
    rm_systemLogOpen(kLogPath);
    captureStderr([] { rm_systemLogWrite("two"); });
    EXPECT_THAT(logLines(readFile(kBackupPath)), ElementsAre("one"));
    EXPECT_THAT(fileLines(), ElementsAre("two"));
}

TEST_F(LogFileReopened, AnExitClosesItOnce)
{
    openAt(kLogPath);
    resetCalls();
    EXPECT_EQ(rmtest::catchExit([] { rm_exit(3); }), 3);
    EXPECT_EQ(callCount(Call::kFclose), 2);  // the log's stream and the token's
    EXPECT_EQ(sysfile, RM_NONE);
    EXPECT_EQ(syslogon, 0);
    // A host that goes on after it and opens a log has closed it when it exits again only by way
    // of its memory: the level stays.
    openAt(kLogPath);
    captureStderr([] { rm_systemLogWrite("a line"); });
    EXPECT_EQ(rmtest::catchExit([] { rm_exit(3); }), 3);
    EXPECT_EQ(syslogon, 2);
    EXPECT_THAT(fileLines(), ElementsAre("a line"));
    rm_freeall();
    EXPECT_EQ(sysfile, RM_NONE);
}

// Parks the log file by opening others; from then on a line brings it back.
void parkLog()
{
    fileHandleLimit = 1;
    rm_fileClose(rm_fileOpen("other", RM_O_RDWR | RM_O_CREAT, 0, 0, 0));
    ASSERT_EQ(file::usedEntry(sysfile)->state, file::kSlotParked);
}

TEST_F(LogFileReopened, AfterParkingItGoesOnAtItsEnd)
{
    openAt(kLogPath);
    captureStderr([] { rm_systemLogWrite("one"); });
    parkLog();
    captureStderr([] { rm_systemLogWrite("two"); });
    EXPECT_EQ(file::usedEntry(sysfile)->state, file::kSlotOpen);
    EXPECT_THAT(fileLines(), ElementsAre("one", "two"));
    EXPECT_FALSE(fs::exists(kBackupPath));
}

TEST_F(LogFileReopened, AfterParkingNothingOfOthersIsWrittenOver)
{
    openAt(kLogPath);
    captureStderr([] { rm_systemLogWrite("one"); });
    const std::string foreign = "[07-Mar-96 14:05:09]  a line of another process\n";
    std::ofstream(kLogPath, std::ios::app | std::ios::binary) << foreign;
    parkLog();
    captureStderr([] { rm_systemLogWrite("two"); });
    EXPECT_THAT(fileLines(), ElementsAre("one", "a line of another process", "two"));
}

TEST_F(LogFileReopened, ParkedHundredsOfTimesItLosesNothing)
{
    openAt(kLogPath);
    std::vector<std::string> expected;
    for (int i = 0; i < 200; ++i) {
        expected.push_back("line " + std::to_string(i));
        captureStderr([i] { rm_systemLogWrite("line %d", i); });
        parkLog();
    }
    EXPECT_EQ(fileLines(), expected);
}

TEST_F(LogFileReopened, ParkedItIsClosedWithoutBeingOpened)
{
    openAt(kLogPath);
    parkLog();
    resetCalls();
    rm_systemLogClose();
    EXPECT_EQ(callCount(Call::kOpen), 0);
    EXPECT_EQ(sysfile, RM_NONE);
}

// --- A file that cannot be opened

struct Refused {
    const char* name;
    std::string path;
    int error;
};

std::vector<Refused> refusedPaths()
{
    return {{"a missing directory", "missing/server.log", ENOENT},
            {"a directory", "directory", EISDIR},
            {"a file as directory", "file/server.log", ENOTDIR},
            {"no name", "", ENOENT},
            {"a long name", std::string(256, 'n'), ENAMETOOLONG}};
}

TEST_F(LogFileOpenFails, IsFatalAndSaysWhichFile)
{
    fs::create_directory("directory");
    writeFile("file", "");
    for (const Refused& refused : refusedPaths()) {
        SCOPED_TRACE(refused.name);
        const Outcome outcome = outcomeOf([&] { openAt(refused.path.c_str()); });
        EXPECT_EQ(outcome.jumped, 1);
        const std::string line = "reopenFile: errno=" + std::to_string(refused.error) +
                                 ": failed to create file '" + refused.path + "'";
        ASSERT_FALSE(outcome.lines.empty());
        EXPECT_EQ(outcome.lines.front(), line.substr(0, kLongestMessage));
        EXPECT_EQ(outcome.lines.back(), "Exiting to shutdown processing");
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(sysfile, RM_NONE);
        EXPECT_EQ(syslogon, 2);
        EXPECT_EQ(rmtest::violations(), 0U);
        EXPECT_EQ(rmtest::semValue(os::iSem, fileSem), 1);
    }
}

TEST_F(LogFileOpenFails, ThenAnotherPathWorks)
{
    EXPECT_EQ(outcomeOf([] { openAt("missing/server.log"); }).jumped, 1);
    rm_systemLogOpen(kLogPath);
    ASSERT_NE(sysfile, RM_NONE);
    captureStderr([] { rm_systemLogWrite("a line"); });
    EXPECT_THAT(fileLines(), ElementsAre("a line"));
}

TEST_F(LogFileOpenFails, WithoutATargetTheProcessEnds)
{
    const ChildResult child = runChild([] {
        openAt("missing/server.log");
        _exit(99);
    });
    expectEndAtOnce(child, 0);
    const std::vector<std::string> lines = logLines(child.err);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "reopenFile: errno=2: failed to create file 'missing/server.log'");
    EXPECT_EQ(rmtest::banners(lines), 1);
    EXPECT_EQ(lines.back(), "Exiting to operating system");
    EXPECT_THAT(rmtest::ipcObjects(), IsEmpty());
}
}  // namespace
