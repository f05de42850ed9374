// Sequential reads and writes where the 32 bits of a position end.
#include "tests/file/file_case.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>

using namespace filetest;

namespace
{

constexpr uint32_t kLastStep = 0xFFFFF000U;  // 4,096 bytes before 4 GiB
constexpr uint32_t kStep = 4096;
constexpr uint64_t kFourGib = uint64_t{1} << 32;

class PositionEnd : public FileTest
{
  protected:
    // A file without blocks, open and at the last step before 4 GiB.
    static int16_t standingAtTheLastStep(uint64_t bytes)
    {
        rmtest::writeFile("f", "");
        std::filesystem::resize_file("f", bytes);
        const int16_t handle = rm_fileOpen("f", RM_O_RDWR, 0, 0, 0);
        EXPECT_EQ(rm_fileSeek(handle, kLastStep), kLastStep);
        return handle;
    }

    std::string buffer_ = std::string(kStep, 'x');
};

TEST_F(PositionEnd, ReadsTheLastByteThatAPositionFollows)
{
    const int16_t handle = standingAtTheLastStep(kFourGib - 1);
    EXPECT_EQ(rm_fileRead(handle, buffer_.data(), kStep), kStep - 1);
    EXPECT_EQ(rm_filePosition(handle), 0xFFFFFFFFU);
    EXPECT_EQ(rm_fileRead(handle, buffer_.data(), kStep), 0U);
    rm_fileClose(handle);
}

TEST_F(PositionEnd, AReadBeyondItFailsAndStaysWhereItIs)
{
    const int16_t handle = standingAtTheLastStep(kFourGib);
    uint32_t count = 1;
    const std::string log =
        rmtest::captureStderr([&] { count = rm_fileRead(handle, buffer_.data(), kStep); });
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(rmtest::logLines(log),
              std::vector<std::string>{"rm_fileRead: errno=" + std::to_string(EFBIG) +
                                       ": unable to read, file=f"});
    EXPECT_EQ(rm_filePosition(handle), kLastStep);
    rm_fileClose(handle);
}

TEST_F(PositionEnd, AWriteBeyondItFailsAndWritesNothing)
{
    const int16_t handle = standingAtTheLastStep(kLastStep);
    uint32_t count = 1;
    const std::string log =
        rmtest::captureStderr([&] { count = rm_fileWrite(handle, buffer_.data(), kStep); });
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(rmtest::logLines(log),
              std::vector<std::string>{"rm_fileWrite: errno=" + std::to_string(EFBIG) +
                                       ": unable to write, file=f"});
    EXPECT_EQ(rm_filePosition(handle), kLastStep);
    EXPECT_EQ(std::filesystem::file_size("f"), kLastStep);
    rm_fileClose(handle);
}

TEST_F(PositionEnd, AWriteUpToItSucceeds)
{
    const int16_t handle = standingAtTheLastStep(kLastStep);
    EXPECT_EQ(rm_fileWrite(handle, buffer_.data(), kStep - 1), kStep - 1);
    EXPECT_EQ(std::filesystem::file_size("f"), kFourGib - 1);
    rm_fileClose(handle);
}

// A pipe that holds what its own handle writes.
int16_t openPipe()
{
    EXPECT_EQ(mkfifo("p", 0600), 0);
    return rm_fileOpen("p", RM_O_RDWR, 0, 0, 0);
}

TEST_F(PositionEnd, IsPassedByAWriteToADeviceWithoutOffsets)
{
    const int16_t handle = openPipe();
    EXPECT_EQ(rm_fileSeekWrite(handle, 0xFFFFFF00U, buffer_.data(), 20), 20U);
    EXPECT_EQ(rm_fileRead(handle, buffer_.data(), 20), 20U);
    uint32_t count = 0;
    const std::string log =
        rmtest::captureStderr([&] { count = rm_fileWrite(handle, buffer_.data(), 300); });
    ASSERT_EQ(count, 300U);
    EXPECT_EQ(log, "");
    EXPECT_EQ(rm_filePosition(handle), 0xFFFFFF28U + 300U);
    EXPECT_EQ(rm_fileRead(handle, buffer_.data(), kStep), 300U);
    rm_fileClose(handle);
}

TEST_F(PositionEnd, IsPassedByAReadFromADeviceWithoutOffsets)
{
    const int16_t handle = openPipe();
    EXPECT_EQ(rm_fileSeekWrite(handle, 0xFFFFFFF0U, "0123456789", 10), 10U);
    std::string got(10, '?');
    const std::string log =
        rmtest::captureStderr([&] { EXPECT_EQ(rm_fileRead(handle, got.data(), 10), 10U); });
    EXPECT_EQ(log, "");
    EXPECT_EQ(got, "0123456789");
    EXPECT_EQ(rm_filePosition(handle), 4U);
    rm_fileClose(handle);
}

TEST_F(PositionEnd, IsPassedByAWriteThatAppends)
{
    rmtest::writeFile("f", "");
    const int16_t handle = rm_fileOpen("f", RM_O_RDWR | RM_O_APPEND, 0, 0, 0);
    EXPECT_EQ(rm_fileSeek(handle, kLastStep), kLastStep);
    EXPECT_EQ(rm_fileWrite(handle, buffer_.data(), kStep), kStep);
    EXPECT_EQ(rm_filePosition(handle), 0U);
    EXPECT_EQ(readFile("f"), buffer_);
    rm_fileClose(handle);
}

// Wherever a write goes, a read goes by the position.
TEST_F(PositionEnd, IsKeptByAReadOfAFileThatAppends)
{
    rmtest::writeFile("f", "");
    std::filesystem::resize_file("f", kFourGib);
    const int16_t handle = rm_fileOpen("f", RM_O_RDWR | RM_O_APPEND, 0, 0, 0);
    EXPECT_EQ(rm_fileSeek(handle, kLastStep), kLastStep);
    rmtest::captureStderr([&] { EXPECT_EQ(rm_fileRead(handle, buffer_.data(), kStep), 0U); });
    EXPECT_EQ(rm_filePosition(handle), kLastStep);
    rm_fileClose(handle);
}

// Whether there are offsets is not known then.
TEST_F(PositionEnd, IsKeptWhenTheDescriptorCannotBeAsked)
{
    const int16_t handle = standingAtTheLastStep(kLastStep);
    const ScopedFault fault({.call = Call::kLseek,
                             .error = EINVAL,
                             .when = [](const CallRecord& c) { return c.args[2] == SEEK_CUR; }});
    rmtest::captureStderr([&] { EXPECT_EQ(rm_fileWrite(handle, buffer_.data(), kStep), 0U); });
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(std::filesystem::file_size("f"), kLastStep);
    rm_fileClose(handle);
}

}  // namespace
