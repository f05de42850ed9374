// What the tests of the service core share: a fixture with a log file, a host with shutdown
// processing, and what the end of a process must look like.
#ifndef RM_TESTS_RMSRV_FRAME_H
#define RM_TESTS_RMSRV_FRAME_H

#include "tests/support/slowness.h"
#include "tests/support/support.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmsrv/rmsrv.h"
#include "rm/rmutil/rmutil.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace rmtest
{

constexpr const char* kLogPath = "server.log";
constexpr const char* kSemToken = ".ZNT.RM.SEM";

// Seconds within which a process has ended that waits for nobody. The lock that a test holds
// against it is waited for fourteen. An instrumented process is slower in everything.
#ifdef __SANITIZE_ADDRESS__
const double kAtOnce = rmtest::atOnce(4.0);
#else
const double kAtOnce = rmtest::atOnce(1.0);
#endif

// Opens the log file, as a host does at its start.
inline void openLog(int16_t level = 2, uint16_t modeFlags = FILE_FATAL | FILE_STREAM)
{
    sysfile = rm_fileOpen(kLogPath, RM_O_WRONLY | RM_O_CREAT | RM_O_TRUNC, modeFlags, 0, 0);
    ASSERT_NE(sysfile, RM_NONE);
    rm_systemLog(level);
}

// The lines of the log file, without their stamps.
inline std::vector<std::string> fileLines()
{
    return logLines(readFile(kLogPath));
}

// Broken invariants of all tables together.
inline uint32_t violations()
{
    return rmalloc::checkMemory() + file::checkFtab() + os::checkSync() + rmutil::checkLocalEnv();
}

// Closes what openLog and the sync objects have opened.
class FrameTest : public RmTest
{
  protected:
    void TearDown() override
    {
        EXPECT_EQ(violations(), 0U);
        rm_systemLogClose();
        rm_syncTerminate();
        RmTest::TearDown();
    }
};

// Takes away what a teardown that was made to fail has left.
inline void removeLeftovers()
{
    for (const IpcObject& object : ipcObjects()) {
        removeIpcObject(object);
    }
    std::filesystem::remove(kSemToken);
}

// What came of a call that may end in the fatal path.
struct Outcome {
    int jumped = -1;  // 1 when the fatal target was reached, 0 when the call returned
    std::vector<std::string> lines;  // of the log, as standard error got them
    std::string out;                 // standard output
};

inline Outcome outcomeOf(const std::function<void()>& body)
{
    Outcome outcome;
    std::string err;
    outcome.out =
        captureStdout([&] { err = captureStderr([&] { outcome.jumped = catchFatal(body); }); });
    outcome.lines = logLines(err);
    return outcome;
}

// A host: `shutdown` runs after a fatal error that came out of `work`, and again after each one
// that comes out of itself, up to a bound that a sound library never reaches.
constexpr int kHostGivesUp = 99;  // exit status of a host that fatal errors come back to for ever
constexpr int kHostReturns = 50;

inline void runHost(void (*work)(), void (*shutdown)())
{
    static jmp_buf target;
    static int returns = 0;
    if (setjmp(target) == 0) {
        rm_errorJump(target);
        work();
        return;
    }
    if (++returns > kHostReturns) {
        _exit(kHostGivesUp);
    }
    shutdown();
}

inline auto count(const std::vector<std::string>& lines, std::string_view line)
{
    return std::count(lines.begin(), lines.end(), line);
}

inline bool contains(const std::vector<std::string>& lines, std::string_view line)
{
    return count(lines, line) > 0;
}

// How often the banner was logged.
inline auto banners(const std::vector<std::string>& lines)
{
    return count(lines, "* Please report this condition to *");
}

// Lines that report a failed system call.
inline auto systemCallLines(const std::vector<std::string>& lines)
{
    return std::count_if(lines.begin(), lines.end(),
                         [](const std::string& line) { return line.starts_with("**** "); });
}

inline void expectEnd(const ChildResult& child, int status)
{
    EXPECT_TRUE(child.exited) << "ended by signal " << child.signal << '\n' << child.err;
    EXPECT_EQ(child.status, status) << child.err;
}

// The log lines of a child that ends with status 0.
inline std::vector<std::string> linesOfChild(const std::function<void()>& body)
{
    const ChildResult child = runChild(body);
    expectEnd(child, 0);
    return logLines(child.err);
}

// As expectEnd, and without having waited for anybody.
inline void expectEndAtOnce(const ChildResult& child, int status)
{
    expectEnd(child, status);
    EXPECT_LT(child.seconds, kAtOnce);
}

// Errors that the manual pages of these calls name.
inline constexpr std::array kSemopErrors = {E2BIG, EACCES, EAGAIN, EFAULT, EFBIG,
                                            EIDRM, EINTR,  EINVAL, ENOMEM, ERANGE};
inline constexpr std::array kSemctlErrors = {EACCES, EFAULT, EIDRM, EINVAL, EPERM, ERANGE};
inline constexpr std::array kCloseErrors = {EBADF, EINTR, EIO, ENOSPC, EDQUOT};
inline constexpr std::array kWriteErrors = {EAGAIN, EBADF,  EDESTADDRREQ, EDQUOT, EFAULT, EFBIG,
                                            EINTR,  EINVAL, EIO,          ENOSPC, EPERM,  EPIPE};

}  // namespace rmtest

#endif
