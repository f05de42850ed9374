// The checker of the file table, where the table and its size contradict each other and nothing
// else does: no slot is used.
#include "tests/file/file_case.h"

using namespace filetest;

namespace
{

class FileTableChecker : public FileTest
{
};

TEST_F(FileTableChecker, SeesATableWithoutASize)
{
    const int16_t kept = rm_fileOpen("kept", kReadWrite, 0, 0, 0);
    ASSERT_NE(kept, RM_NONE);
    // Without a file there would be no table: the last one that is closed takes it along.
    const int16_t handles = std::exchange(file::nHandles, int16_t{0});
    const int16_t open = std::exchange(file::nFilesOpen, int16_t{0});
    const int16_t size = std::exchange(file::ftabSize, int16_t{0});
    uint32_t violations = 0;
    EXPECT_THAT(linesOf([&] { violations = file::checkFtab(); }),
                ElementsAre("WARNING: file table: 0 slots, 0 handles for 0, 0 open for 0"));
    EXPECT_EQ(violations, 1U);
    file::nHandles = handles;
    file::nFilesOpen = open;
    file::ftabSize = size;
    EXPECT_THAT(linesOf([&] { violations = file::checkFtab(); }), IsEmpty());
    EXPECT_EQ(violations, 0U);
    rm_fileClose(kept);
}

}  // namespace
