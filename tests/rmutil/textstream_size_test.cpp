// Lines whose size 32 bits can no longer count. Nobody waits for a test that reads one: what the
// library asks before it makes a buffer longer is asked here alone.
#include "tests/rmutil/textstream_case.h"

#include <limits>

namespace
{
using rmutil::addBytes;

constexpr uint32_t kMost = std::numeric_limits<uint32_t>::max();

class LineSize : public rmtest::RmTest
{
};

TEST_F(LineSize, IsTheSumAsLongAs32BitsCountIt)
{
    EXPECT_EQ(addBytes(0, 0), 0U);
    EXPECT_EQ(addBytes(512, 128), 640U);
    EXPECT_EQ(addBytes(kMost - 512, 512), kMost);
    EXPECT_EQ(addBytes(kMost, 0), kMost);
    EXPECT_EQ(addBytes(0, kMost), kMost);
}

TEST_F(LineSize, OneByteBeyondIsOutOfMemory)
{
    EXPECT_EQ(rmtest::catchFatal([] { addBytes(1, kMost); }), 1);
    const std::string text = rmtest::captureStderr(
        [] { EXPECT_EQ(rmtest::catchFatal([] { addBytes(kMost - 511, 512); }), 1); });
    EXPECT_EQ(rmtest::logLines(text).front(), "Out of memory!");
}
}  // namespace
