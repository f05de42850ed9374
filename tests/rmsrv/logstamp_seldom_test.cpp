// A stamp that is longer than its room, from a calendar that knows no bounds: the line goes out
// without one, and nothing is written behind the room.
#include "frame.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::captureStderr;
using rmtest::kForever;
using rmtest::openLog;
using rmtest::readFile;
using rmtest::ScopedFault;

constexpr time_t kMarch1996 = 826207509;  // 07-Mar-96 14:05:09 UTC

std::tm beyond;  // what the calendar says

class LogStampTooLong : public rmtest::FrameTest
{
  protected:
    void SetUp() override
    {
        FrameTest::SetUp();
        setenv("TZ", "UTC0", 1);
        now_ += 60;
        now_ -= now_ % 60;
        beyond = {};
        beyond.tm_mday = INT_MAX;
        beyond.tm_hour = INT_MAX;
        beyond.tm_min = INT_MAX;
        beyond.tm_sec = INT_MAX;
    }

    static std::string line()
    {
        return captureStderr([] { rm_systemLogWrite("x"); });
    }

    // Each case begins in another minute: a stamp is kept for its second, over the end of a case.
    static inline time_t now_ = kMarch1996;

  private:
    ScopedFault clock_{{.call = Call::kTime, .times = kForever, .action = [](const CallRecord&) {
                            return static_cast<int64_t>(now_);
                        }}};
};

int64_t theOneBeyond(const CallRecord& /*call*/)
{
    return static_cast<int64_t>(reinterpret_cast<intptr_t>(&beyond));
}

TEST_F(LogStampTooLong, IsLeftOutOnTheScreenAndInTheFile)
{
    openLog();
    const ScopedFault fault({.call = Call::kLocaltime, .action = theOneBeyond});
    EXPECT_EQ(line(), "x\n");
    EXPECT_EQ(readFile(rmtest::kLogPath), "x\n");
}

TEST_F(LogStampTooLong, IsNotTheOneOfAnEarlierSecond)
{
    EXPECT_THAT(line(), ::testing::EndsWith(":00]  x\n"));
    ++now_;
    const ScopedFault fault({.call = Call::kLocaltime, .action = theOneBeyond});
    EXPECT_EQ(line(), "x\n");
}

TEST_F(LogStampTooLong, IsThatOfItsSecondAlone)
{
    ScopedFault fault({.call = Call::kLocaltime, .action = theOneBeyond});
    EXPECT_EQ(line() + line(), "x\nx\n");
    EXPECT_EQ(fault.hits(), 1) << "the calendar was there, and is not asked again";
    ++now_;
    EXPECT_THAT(line(), ::testing::EndsWith(":01]  x\n"));
}

}  // namespace
