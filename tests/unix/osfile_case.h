// What the tests of descriptors share: a file of ten digits.
#ifndef RM_TESTS_UNIX_OSFILE_CASE_H
#define RM_TESTS_UNIX_OSFILE_CASE_H

#include "tests/support/support.h"

#include "rm.h"

#include <array>

#include <unistd.h>

namespace rmtest
{

// With a file of ten digits behind the descriptor `fd_`, and no call counted yet.
class DigitsTest : public RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        writeFile("file", "0123456789");
        ASSERT_EQ(rm_flOpen("file", RM_O_RDWR, 0, 0600, &fd_), 0);
        resetCalls();
    }

    void TearDown() override
    {
        close(fd_);
        RmTest::TearDown();
    }

    off_t position() const { return lseek(fd_, 0, SEEK_CUR); }

    int32_t fd_ = -1;
    int32_t count_ = 7;
    std::array<char, 10> buffer_ = {};
};

}  // namespace rmtest

#endif
