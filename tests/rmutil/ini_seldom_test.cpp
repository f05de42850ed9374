// Questions to an INI file that end in the middle: half of a long value, and a stream that is open
// while the table of the files goes.
#include "tests/rmutil/ini_case.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>

using namespace initest;

namespace
{
using rmtest::captureStderr;
using rmutil::kStreamBlock;

class IniHalfValue : public IniTest
{
  protected:
    // A section of so many bytes, none of whose lines needs a second step.
    static std::string shortLines(std::size_t bytes)
    {
        const std::string comment = ";" + std::string(48, 'x') + "\n";
        std::string text = "[a]\n";
        while (text.size() + comment.size() + 2 <= bytes) {
            text += comment;
        }
        return text + ";" + std::string(bytes - text.size() - 2, 'y') + "\n";
    }
};

// A line is read in steps of 99 bytes. Where one of them ends with the block, or short of it, the
// next one meets the failure with a part of the value in hand.
TEST_F(IniHalfValue, ThatIsReadInStepsIsNotGiven)
{
    constexpr std::size_t kStep = 99;
    for (const std::size_t before : {kStep, kStep + 1, 2 * kStep, 2 * kStep + 1}) {
        writeFile(kFile, shortLines(kStreamBlock - before) + "k=" + std::string(600, 'v') + "\n");
        captureStderr([] {
            const ScopedFault fault({.call = Call::kRead, .error = EIO, .skip = 1});
            EXPECT_EQ(ask("a", "k"), notFound());
            EXPECT_EQ(fault.hits(), 1);
        });
        EXPECT_EQ(value("a", "k"), std::string(600, 'v')) << "the next question is answered";
    }
}

// --- The table of the files goes while a stream is open

constexpr const char* kLog = "log";

class IniStreamLeftOpen : public IniTest
{
  protected:
    static uint32_t bytes() { return rmalloc::tagTable[0].allocated; }

    // A question that ends fatally with its first byte unread: the lock of the read fails.
    void askInVain()
    {
        const uint32_t before = bytes();
        fileSem = rm_syncCreate("fileSem");
        captureStderr([] {
            bool opened = false;
            const ScopedFault watch = look(Call::kOpen, [&opened](const rmtest::CallRecord& call) {
                opened = opened || call.path() == kFile;
            });
            const ScopedFault fault(
                {.call = Call::kSemtimedop,
                 .error = EINVAL,
                 .when = [&opened](const rmtest::CallRecord&) { return opened; }});
            EXPECT_EQ(catchFatal([] {
                          static char text[10];  // no destructor for the jump to pass by
                          rm_iniGetPrivate("a", "k", text, sizeof(text), 0, kFile);
                      }),
                      1);
            EXPECT_EQ(fault.hits(), 1);
        });
        rm_syncTerminate();
        fileSem = RM_NULL_SYNC;
        EXPECT_NE(file::ftab, nullptr);
        EXPECT_EQ(bytes(), before + kLine + kRecord) << "its stream and its line are left";
        lineLeft_ = before + kLine;
    }

    // A change with one descriptor, whose file has gone when it is opened to be read. The handle
    // of that file, 0, vanishes; the one of the copy is 1. Then the change ends fatally: the lock
    // of its next step fails, or the log file cannot take the line that tells it.
    static void changeInVain(bool withLog)
    {
        fileSem = rm_syncCreate("fileSem");
        fileHandleLimit = 1;
        captureStderr([withLog] {
            int opens = 0;
            const ScopedFault vanish({.call = Call::kOpen,
                                      .error = ENOENT,
                                      .when = [&opens](const rmtest::CallRecord& call) {
                                          opens += call.path() == kFile ? 1 : 0;
                                          return call.path() == kFile && opens == 2;
                                      }});
            const ScopedFault late({.call = Call::kSemtimedop,
                                    .error = EINVAL,
                                    .when = [&opens](const auto&) { return opens == 2; }});
            const ScopedFault full({.call = Call::kOpen,
                                    .error = EMFILE,
                                    .times = kForever,
                                    .when = [&opens, withLog](const rmtest::CallRecord& call) {
                                        return withLog && opens == 2 && call.path() == kLog;
                                    }});
            EXPECT_EQ(catchFatal([] { set("a", "k", "2"); }), 1);
            EXPECT_EQ(vanish.hits(), 1);
            EXPECT_EQ(withLog ? late.hits() : full.hits(), 0);
        });
        rm_syncTerminate();
        fileSem = RM_NULL_SYNC;
        fileHandleLimit = 32;
    }

    // The line stays: the frames that knew of it are gone.
    void expectRecordGone()
    {
        EXPECT_EQ(bytes(), lineLeft_);
        keepMemory();
    }

  private:
    static constexpr uint32_t kLine = rmalloc::unitsFor(rmutil::kLineStep) * rmalloc::kUnit;
    static constexpr uint32_t kRecord = rmalloc::unitsFor(sizeof(FileStream)) * rmalloc::kUnit;

    uint32_t lineLeft_ = 0;
};

// The stream had handle 0, and so has the host's file.
TEST_F(IniStreamLeftOpen, DoesNotTakeAFileAlongThatTheHostHasOpenedSince)
{
    writeFile(kFile, "[a]\nk=1\n");
    askInVain();
    rm_freeTagMemory(file::fileTag, 0);
    ASSERT_EQ(file::ftab, nullptr);
    ASSERT_EQ(rm_fileOpen("host", RM_O_RDWR | RM_O_CREAT, 0, 0, 0), 0);
    EXPECT_EQ(value("a", "k"), "1");
    expectRecordGone();
    uint32_t open = 0;
    rm_fileCounts(&open, nullptr, nullptr, nullptr);
    EXPECT_EQ(open, 1U);
    EXPECT_EQ(rm_fileWrite(0, "x", 1), 1U);
    rm_fileClose(0);
    EXPECT_EQ(readFile("host"), "x");
}

TEST_F(IniStreamLeftOpen, IsForgottenWhenItsHandleHasVanished)
{
    writeFile(kFile, "[a]\nk=1\n");
    changeInVain(false);
    const int16_t handle = rm_fileOpen("host", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    EXPECT_EQ(handle, 0);
    rm_freeTagMemory(0, 0);
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_EQ(rm_fileWrite(handle, "x", 1), 1U);
    rm_fileClose(handle);
    EXPECT_EQ(readFile("host"), "x");
    keepMemory();
}

// The stream does not know yet: the call ends within the step in which the handle vanishes.
TEST_F(IniStreamLeftOpen, IsForgottenWhenItsHandleVanishesInTheStepThatEndsTheCall)
{
    writeFile(kFile, "[a]\nk=1\n");
    sysfile = rm_fileOpen(kLog, RM_O_WRONLY | RM_O_CREAT, FILE_FATAL | FILE_STREAM, 0, 0);
    rm_systemLog(2);
    changeInVain(true);
    const int16_t handle = rm_fileOpen("host", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    EXPECT_EQ(handle, 1);
    EXPECT_EQ(value("a", "k"), "1");
    EXPECT_EQ(rm_fileWrite(handle, "x", 1), 1U);
    rm_fileClose(handle);
    EXPECT_EQ(readFile("host"), "x");
    rm_systemLogClose();
    rm_systemLog(0);
    keepMemory();
}

// Without anybody else's file the record of the stream goes with the next question.
TEST_F(IniStreamLeftOpen, IsGivenBackByTheNextQuestion)
{
    writeFile(kFile, "[a]\nk=1\n");
    askInVain();
    rm_freeTagMemory(file::fileTag, 0);
    EXPECT_EQ(value("a", "k"), "1");
    expectRecordGone();
    EXPECT_EQ(set("a", "k", "2"), RM_SUCCESS);
    EXPECT_EQ(value("a", "k"), "2");
}

}  // namespace
