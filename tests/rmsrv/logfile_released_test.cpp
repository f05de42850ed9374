// The log file when the memory of the file table is released under it.
//
// Its handle is a number. The table that comes next gives that number to whatever is opened first,
// and that file would get the log's lines.
#include "frame.h"

#include "rm/file/file.h"

namespace
{
using rmtest::captureStderr;
using rmtest::kLogPath;
using rmtest::openLog;
using rmtest::readFile;

class LogFileReleased : public rmtest::FrameTest
{
};

TEST_F(LogFileReleased, WithTheTableIsForgotten)
{
    openLog();
    rm_freeTagMemory(file::fileTag, 1);
    EXPECT_EQ(sysfile, RM_NONE);
}

TEST_F(LogFileReleased, DoesNotGoOnInAFileThatGetsItsNumber)
{
    openLog();
    const int16_t number = sysfile;
    rm_freeTagMemory(file::fileTag, 1);
    ASSERT_EQ(rm_fileOpen("next", RM_O_RDWR | RM_O_CREAT, FILE_STREAM, 0, 0), number);
    captureStderr([] { rm_systemLogWrite("a line"); });
    rm_fileClose(number);
    EXPECT_EQ(readFile("next"), "");
}

TEST_F(LogFileReleased, KeepsTheLinesFromBefore)
{
    openLog();
    captureStderr([] { rm_systemLogWrite("a line"); });
    rm_freeTagMemory(file::fileTag, 1);
    EXPECT_NE(readFile(kLogPath).find("a line"), std::string::npos);
}
}  // namespace
