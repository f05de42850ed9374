// Log lines leave errno as it was, also when the message cannot be put together: callers log first
// and look at it afterwards.
#include "tests/support/support.h"

#include "rm.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace
{
using rmtest::captureStderr;

constexpr int kBefore = ENOTTY;
constexpr wchar_t kNoByte[] = L"\x4e2d";  // has no bytes in the locale "C": EILSEQ

class LogErrno : public rmtest::RmTest
{
  protected:
    // errno after an optional message that cannot be put together, at a log level.
    static int afterOptional(int16_t level)
    {
        rm_systemLog(level);
        int after = 0;
        captureStderr([&] {
            errno = kBefore;
            rm_systemLogOptWrite("cannot show %ls", kNoByte);
            after = errno;
        });
        rm_systemLog(0);
        return after;
    }
};

TEST_F(LogErrno, StaysAfterAnOptionalMessageThatIsNotWritten)
{
    EXPECT_EQ(afterOptional(0), kBefore);
}

TEST_F(LogErrno, StaysAfterAnOptionalMessageThatIsWritten)
{
    EXPECT_EQ(afterOptional(1), kBefore);
}

TEST_F(LogErrno, StaysAfterAMessageThatCannotBeShown)
{
    int after = 0;
    captureStderr([&] {
        errno = kBefore;
        rm_systemLogWrite("cannot show %ls", kNoByte);
        after = errno;
    });
    EXPECT_EQ(after, kBefore);
}
}  // namespace
