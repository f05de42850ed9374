// Sequential reads and writes where the 32 bits of a position end.
#include "tests/file/file_case.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

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

}  // namespace
