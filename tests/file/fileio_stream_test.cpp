// Streams of files whose lines the system has refused: a stream that has failed once is not marked
// as failed for ever. The calls of this system's own C library go on with the mark; others need
// not.
#include "tests/file/file_case.h"

#include <cstdio>

#include <signal.h>
#include <sys/resource.h>

using namespace filetest;

namespace
{
class FileStreamFailed : public FileTest
{
};

// Files that this process writes end at `bytes` for as long as it lives.
class FileSizeLimit
{
  public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        old_ = signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &unlimited_);
        const rlimit small = {bytes, unlimited_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
    }

    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &unlimited_);
        signal(SIGXFSZ, old_);
    }

    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  private:
    void (*old_)(int);
    rlimit unlimited_ = {};
};

TEST_F(FileStreamFailed, IsNotMarkedByARefusedLine)
{
    openNew("f", FILE_STREAM);
    EXPECT_EQ(rm_filePrintf(0, "before "), 7);
    {
        const FileSizeLimit limit(7);
        EXPECT_EQ(rm_filePrintf(0, "lost"), 0);
    }
    EXPECT_EQ(std::ferror(entryOf(0)->stream), 0);
    EXPECT_EQ(rm_filePrintf(0, "after"), 5);
    EXPECT_EQ(std::ferror(entryOf(0)->stream), 0);
    rm_fileClose(0);
    EXPECT_EQ(readFile("f"), "before after");
}

// stdio does not tell how much of it has left: the part stays, and the next text follows it.
TEST_F(FileStreamFailed, IsNotMarkedByALineThatTheSystemTakesInPart)
{
    openNew("f", FILE_STREAM);
    EXPECT_EQ(rm_filePrintf(0, "before "), 7);
    {
        const FileSizeLimit limit(9);
        EXPECT_EQ(rm_filePrintf(0, "lost"), 0);
    }
    EXPECT_EQ(std::ferror(entryOf(0)->stream), 0);
    EXPECT_EQ(rm_filePosition(0), 7U);
    EXPECT_EQ(rm_filePrintf(0, "after"), 5);
    rm_fileClose(0);
    EXPECT_EQ(readFile("f"), "before loafter");
}

// Longer than what stdio collects: the formatting itself meets the refusal.
TEST_F(FileStreamFailed, IsNotMarkedByARefusedLineThatIsLong)
{
    openNew("f", FILE_STREAM);
    const std::string text(100'000, 'x');
    {
        const FileSizeLimit limit(0);
        EXPECT_EQ(rm_filePrintf(0, "%s", text.c_str()), 0);
    }
    EXPECT_EQ(std::ferror(entryOf(0)->stream), 0);
    EXPECT_EQ(rm_filePosition(0), 0U);
    EXPECT_EQ(rm_filePrintf(0, "after"), 5);
    rm_fileClose(0);
    EXPECT_EQ(readFile("f"), "after");
}

TEST_F(FileStreamFailed, IsNotMarkedByADeviceThatIsFull)
{
    rm_fileOpen("/dev/full", RM_O_WRONLY, FILE_STREAM, 0, 0);
    for (int line = 0; line < 3; ++line) {
        EXPECT_EQ(rm_filePrintf(0, "lost"), 0);
        EXPECT_EQ(std::ferror(entryOf(0)->stream), 0);
    }
}
}  // namespace
