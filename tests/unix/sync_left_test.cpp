// Sync objects: how much of a wait is left after a signal, to the nanosecond, on a clock of the
// test's own.
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <ostream>
#include <string>

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::kForever;
using rmtest::ScopedFault;

constexpr int64_t kNsPerSecond = 1'000'000'000;

struct Moment {
    const char* name;
    uint32_t timeoutMs;
    int64_t start;    // ns, of the clock
    int64_t current;  // when the signal comes
    int64_t left;     // 0: the wait is over
};

void PrintTo(const Moment& moment, std::ostream* out)
{
    *out << moment.name;
}

int64_t nsOf(const timespec& time)
{
    return time.tv_sec * kNsPerSecond + time.tv_nsec;
}

class SyncTimeLeft : public rmtest::RmTest, public ::testing::WithParamInterface<Moment>
{
  protected:
    void TearDown() override
    {
        alarm(0);
        signal(SIGALRM, SIG_DFL);
        rm_syncTerminate();
        RmTest::TearDown();
    }
};

TEST_P(SyncTimeLeft, IsWhatTheNextAttemptWaits)
{
    rm_syncCreate("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    const Moment& moment = GetParam();
    int64_t now = moment.start;
    const ScopedFault clock(
        {.call = Call::kClockGettime, .times = kForever, .action = [&](const CallRecord& call) {
             *call.pointer<timespec>(1) = {.tv_sec = static_cast<time_t>(now / kNsPerSecond),
                                           .tv_nsec = static_cast<long>(now % kNsPerSecond)};
             return int64_t{0};
         }});
    const ScopedFault noAlarm({.call = Call::kAlarm, .times = kForever});
    const ScopedFault first({.call = Call::kSemtimedop, .action = [&](const CallRecord& call) {
                                 EXPECT_EQ(nsOf(*call.pointer<const timespec>(3)),
                                           int64_t{moment.timeoutMs} * 1'000'000);
                                 now = moment.current;
                                 errno = EINTR;
                                 return int64_t{-1};
                             }});
    int64_t left = 0;
    const ScopedFault second(
        {.call = Call::kSemtimedop, .times = kForever, .action = [&](const CallRecord& call) {
             const timespec limit = *call.pointer<const timespec>(3);
             EXPECT_GE(limit.tv_nsec, 0);
             EXPECT_LT(limit.tv_nsec, kNsPerSecond);
             left = nsOf(limit);
             errno = EAGAIN;
             return int64_t{-1};
         }});
    EXPECT_EQ(rm_syncEnterExcl(0, moment.timeoutMs), RM_TIMEOUT);
    EXPECT_EQ(first.hits(), 1);
    EXPECT_EQ(second.hits(), moment.left > 0 ? 1 : 0);
    EXPECT_EQ(left, moment.left);
}

INSTANTIATE_TEST_SUITE_P(
    After, SyncTimeLeft,
    ::testing::Values(
        Moment{"NoTime", 3000, 100'500'000'000, 100'500'000'000, 3'000'000'000},
        Moment{"PartOfASecond", 3000, 100'500'000'000, 100'700'000'000, 2'800'000'000},
        Moment{"ThePointWhereSecondsTurn", 3000, 100'500'000'000, 101'000'000'000, 2'500'000'000},
        Moment{"LessOfASecondThanItBeganAt", 3000, 100'900'000'000, 102'100'000'000, 1'800'000'000},
        Moment{"MoreOfASecondThanItBeganAt", 3000, 100'100'000'000, 101'900'000'000, 1'200'000'000},
        Moment{"OneNanosecond", 1000, 100'000'000'000, 100'000'000'001, 999'999'999},
        Moment{"AllButOneNanosecond", 1000, 100'000'000'001, 101'000'000'000, 1},
        Moment{"AllOfIt", 3000, 100'900'000'000, 103'900'000'000, 0},
        Moment{"ANanosecondTooMuch", 3000, 100'900'000'000, 103'900'000'001, 0},
        Moment{"LessThanASecondTooMuch", 3000, 100'100'000'000, 103'900'000'000, 0},
        Moment{"ManySecondsTooMuch", 3000, 100'100'000'000, 200'000'000'000, 0}),
    [](const ::testing::TestParamInfo<Moment>& moment) { return std::string(moment.param.name); });
}  // namespace
