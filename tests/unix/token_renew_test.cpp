// A token file that is made again: other processes may be meeting by it, so it stays the same file.
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace
{
class TokenRenewed : public rmtest::RmTest
{
};

// Held open, so that its number is not given to another file.
class HeldFile
{
  public:
    explicit HeldFile(const char* path) : fd_(open(path, O_RDONLY | O_CLOEXEC)) {}

    HeldFile(const HeldFile&) = delete;
    HeldFile& operator=(const HeldFile&) = delete;

    ~HeldFile() { close(fd_); }

    // True while the file still has its name.
    bool isNamed() const
    {
        struct stat status = {};
        return fstat(fd_, &status) == 0 && status.st_nlink == 1;
    }

  private:
    int fd_;
};

TEST_F(TokenRenewed, UnderTheSamePathIsTheSameFile)
{
    FILE* stream = nullptr;
    char path[os::kTokenPathSize] = "";
    ASSERT_TRUE(os::renewToken(&stream, path, ".TOKEN"));
    {
        const HeldFile file(path);
        ASSERT_TRUE(os::renewToken(&stream, path, ".TOKEN"));
        EXPECT_TRUE(file.isNamed());
    }
    os::dropToken(&stream, path);
}

TEST_F(TokenRenewed, UnderAnotherPathIsAnotherFileAndTheFirstOneGoes)
{
    FILE* stream = nullptr;
    char path[os::kTokenPathSize] = "";
    ASSERT_TRUE(os::renewToken(&stream, path, ".TOKEN"));
    {
        const HeldFile file(path);
        rm_tokenName("other");
        ASSERT_TRUE(os::renewToken(&stream, path, ".TOKEN"));
        EXPECT_FALSE(file.isNamed());
    }
    EXPECT_STREQ(path, "other.TOKEN");
    os::dropToken(&stream, path);
}
}  // namespace
