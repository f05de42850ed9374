// Copying whole files: the end of a copy, when each block of memory is an allocation of its own,
// and what is not done to the source.
#include "tests/rmutil/copy_case.h"

#include <algorithm>
#include <cstdlib>

using namespace copytest;

namespace
{

class FileCopyEnd : public CopyCase
{
  protected:
    void SetUp() override
    {
        rm_freeall();
        setenv("SEG_ALLOC", "1", 1);
        CopyCase::SetUp();
    }

    void TearDown() override
    {
        CopyCase::TearDown();
        unsetenv("SEG_ALLOC");
    }
};

class FileCopySource : public CopyCase
{
};

TEST_F(FileCopyEnd, GivesTheBufferBackWhenBothFilesAreClosed)
{
    writeFile("src", pattern(3 * kStep));
    int64_t buffer = 0;
    const Spy spy(Call::kRead, [&buffer](const CallRecord& call) { buffer = call.args[1]; });
    resetCalls();
    rm_fileCopy("src", "dst");

    // The segment lies a little before its only block.
    std::vector<Call> calls;
    for (const CallRecord& call : callTrace({Call::kRead, Call::kClose, Call::kFree})) {
        const int64_t before = buffer - call.args[0];
        if (call.call != Call::kFree || (before > 0 && before < 64)) {
            calls.push_back(call.call);
        }
    }
    ASSERT_GE(calls.size(), 3U);
    EXPECT_THAT(std::vector<Call>(calls.end() - 3, calls.end()),
                ElementsAre(Call::kClose, Call::kClose, Call::kFree));
    EXPECT_EQ(std::count(calls.begin(), calls.end(), Call::kFree), 1);
}

// It is opened as a file of 8192 bytes, and has fewer.
TEST_F(FileCopySource, IsNeitherGrownNorWritten)
{
    rmDiskFull = 0;
    writeFile("src", pattern(100));
    const auto written = std::filesystem::last_write_time("src");
    resetCalls();
    EXPECT_EQ(rm_fileCopy("src", "dst"), RM_SUCCESS);
    EXPECT_THAT(lengthsOf(Call::kWrite), ElementsAre(100));
    EXPECT_EQ(readFile("src"), pattern(100));
    EXPECT_EQ(std::filesystem::last_write_time("src"), written);
}

}  // namespace
