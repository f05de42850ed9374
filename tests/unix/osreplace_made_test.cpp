// Replacing a file: whether the lock has made the file that it locks. Who has made none removes
// none.
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>

#include <fcntl.h>

#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::readFile;
using rmtest::ScopedFault;
using rmtest::writeFile;

constexpr const char* kPath = "temp";
constexpr uint32_t kLongMs = 20'000;  // that no case waits for

class LockFileMade : public rmtest::RmTest
{
};

TEST_F(LockFileMade, IsNotAFileWhoseDirectoryIsMissing)
{
    bool made = true;
    EXPECT_EQ(os::lockFile("absent/temp", 0, &made), RM_NONE);
    EXPECT_FALSE(made);
}

TEST_F(LockFileMade, IsNotAFileThatTheSystemRefuses)
{
    for (const int error : {EACCES, EDQUOT, EMFILE, ENOSPC, EROFS}) {
        const ScopedFault fault(
            {.call = Call::kOpen,
             .error = error,
             .when = [](const CallRecord& call) { return (call.args[1] & O_CREAT) != 0; },
             .action = nullptr});
        bool made = true;
        EXPECT_EQ(os::lockFile(kPath, 0, &made), RM_NONE) << error;
        EXPECT_FALSE(made) << error;
        EXPECT_FALSE(std::filesystem::exists(kPath));
    }
}

// The look finds nothing there, and the making finds that another one has made it.
TEST_F(LockFileMade, IsNotAFileThatAnotherMakesInBetween)
{
    for (const uint32_t timeoutMs : {0U, kLongMs}) {
        writeFile(kPath, "another's");
        const ScopedFault notYet({.call = Call::kOpen, .error = ENOENT});
        bool made = true;
        const int32_t lock = os::lockFile(kPath, timeoutMs, &made);
        EXPECT_EQ(lock >= 0, timeoutMs != 0);
        EXPECT_FALSE(made);
        EXPECT_EQ(readFile(kPath), "another's");
        os::unlockFile(lock);
    }
}
}  // namespace
