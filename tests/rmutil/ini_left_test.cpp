// What a call that went wrong leaves alone: half of a value, a copy that is another's by now, a
// file that the host has opened since.
#include "tests/rmutil/ini_case.h"

#include "rm.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

namespace
{
using initest::ask;
using initest::kFile;
using initest::kTemporary;
using initest::notFound;
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::captureStderr;
using rmtest::catchFatal;
using rmtest::readFile;
using rmtest::ScopedFault;
using rmtest::writeFile;

class IniLeft : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        fileSem = RM_NULL_SYNC;
        growSem = RM_NULL_SYNC;
    }

    void TearDown() override
    {
        rm_freeall();
        rm_syncTerminate();
        RmTest::TearDown();
    }
};

// The line of the value begins in the first block of 512 bytes and ends in the second one.
TEST_F(IniLeft, AValueWhoseLineCannotBeReadIsNotThere)
{
    writeFile(kFile, "[a]\n" + std::string(500, 'x') + "\nkey=a value of two halves\n");
    captureStderr([] {
        const ScopedFault fault({.call = Call::kRead, .error = EIO, .skip = 1});
        EXPECT_EQ(ask("a", "key"), notFound());
        EXPECT_EQ(fault.hits(), 1);
    });
}

TEST_F(IniLeft, ACopyThatIsAnothersByNowStays)
{
    writeFile(kFile, "[a]\nkey=1\n");
    captureStderr([] {
        const ScopedFault fault({.call = Call::kWrite, .action = [](const CallRecord&) {
                                     std::filesystem::rename(kTemporary, "away");
                                     writeFile(kTemporary, "another's");
                                     errno = ENOSPC;
                                     return int64_t{-1};
                                 }});
        EXPECT_NE(rm_iniSetPrivate("a", "key", "2", kFile), RM_SUCCESS);
        EXPECT_EQ(fault.hits(), 1);
    });
    EXPECT_EQ(readFile(kTemporary), "another's");
    EXPECT_EQ(readFile(kFile), "[a]\nkey=1\n");
}

// The handle of the question is the first of its table, and so is that of the host's file.
TEST_F(IniLeft, AFileThatTheHostHasOpenedSinceStaysOpen)
{
    writeFile(kFile, "[a]\nkey=1\n");
    fileSem = rm_syncCreate("fileSem");
    captureStderr([] {
        // The locks of the opening are taken; that of the read is not.
        bool opened = false;
        const ScopedFault watch({.call = Call::kOpen, .when = [&opened](const CallRecord& call) {
                                     opened = opened || call.path() == kFile;
                                     return false;
                                 }});
        const ScopedFault fault({.call = Call::kSemtimedop,
                                 .error = EINVAL,
                                 .when = [&opened](const CallRecord&) { return opened; }});
        EXPECT_EQ(catchFatal([] {
                      char value[16];  // what the jump passes by needs no destructor
                      rm_iniGetPrivate("a", "key", value, sizeof(value), 1, kFile);
                  }),
                  1);
        EXPECT_EQ(fault.hits(), 1);
    });
    rm_freeall();
    fileSem = RM_NULL_SYNC;
    const int16_t handle = rm_fileOpen("host", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    ASSERT_EQ(handle, 0);
    captureStderr([] { ask("a", "key"); });
    uint32_t open = 0;
    rm_fileCounts(&open, nullptr, nullptr, nullptr);
    EXPECT_EQ(open, 1U);
    EXPECT_EQ(rm_fileWrite(handle, "x", 1), 1U);
    rm_fileClose(handle);
}
}  // namespace
