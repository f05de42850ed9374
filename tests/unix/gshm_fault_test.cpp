// Shared memory objects whose system calls fail: once and for ever after, with each errno that the
// call documents. A failure is never returned: what is logged and printed, what state is left, what
// a host that jumped out can still do, and what stays behind when the process ends.
#include "tests/unix/gshm_case.h"

#include <cstdlib>

#include <gmock/gmock.h>

using namespace gshmtest;

namespace
{
using rmtest::Call;
using rmtest::CallRecord;
using rmtest::catchFatal;
using rmtest::ChildResult;
using rmtest::Fault;
using rmtest::ipcObjects;
using rmtest::kForever;
using rmtest::logLines;
using rmtest::runChild;
using rmtest::ScopedFault;

// --- The table: every call of every operation whose failure ends the operation

using Errors = std::vector<int>;

const Errors kOpenErrors = {EACCES,     EDQUOT,    EEXIST, EFAULT, EFBIG,        EINTR,
                            EINVAL,     EISDIR,    ELOOP,  EMFILE, ENAMETOOLONG, ENFILE,
                            ENODEV,     ENOENT,    ENOMEM, ENOSPC, ENOTDIR,      ENXIO,
                            EOPNOTSUPP, EOVERFLOW, EPERM,  EROFS,  ETXTBSY};
const Errors kFdopenErrors = {EINVAL, ENOMEM};
const Errors kFtokErrors = {EACCES, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW};
const Errors kShmgetErrors = {EACCES, EEXIST, EINVAL, ENFILE, ENOENT, ENOMEM, ENOSPC, EPERM};
const Errors kShmatErrors = {EACCES, EIDRM, EINVAL, EMFILE, ENOMEM};
const Errors kShmctlErrors = {EACCES, EFAULT, EIDRM, EINVAL, EPERM};

struct Point {
    const char* name;
    Call call;             // that fails
    const Errors& errors;  // with which it fails
    int objects;           // that there are before anything fails
    void (*act)();         // meets the failure
    const char* function;  // of the failure line
    const char* message;
    State after;
    uint32_t violations;            // that the checker sees then
    bool endsWithTooMany = false;   // the end deletes what was never counted
    bool leavesTokenFile = false;   // there is no stream by which to tell that it is ours
    std::size_t leavesOnce = 0;     // segments that nobody in the process knows any more
    std::size_t leavesForEver = 0;  // likewise, when the call never works again
    int countToo = 0;               // objects that still count then, since they were not removed
};

void PrintTo(const Point& point, std::ostream* out)
{
    *out << point.name;
}

void makeOne()
{
    make();
}

const std::vector<Point> kPoints = {
    {.name = "CreateOpen",
     .call = Call::kOpen,
     .errors = kOpenErrors,
     .objects = 0,
     .act = makeOne,
     .function = "rm_gshmCreate",
     .message = "fopen() failure",
     .after = kNothing,
     .violations = 0},
    {.name = "CreateFdopen",
     .call = Call::kFdopen,
     .errors = kFdopenErrors,
     .objects = 0,
     .act = makeOne,
     .function = "rm_gshmCreate",
     .message = "fopen() failure",
     .after = kNothing,
     .violations = 0,
     .leavesTokenFile = true},
    {.name = "CreateFtok",
     .call = Call::kFtok,
     .errors = kFtokErrors,
     .objects = 0,
     .act = makeOne,
     .function = "rm_gshmCreate",
     .message = "ftok() failure",
     .after = {0, 0, true},
     .violations = 1},
    // The slot has its name before anything can fail, and counts when nothing can fail any more.
    {.name = "CreateFirstShmget",
     .call = Call::kShmget,
     .errors = kShmgetErrors,
     .objects = 0,
     .act = makeOne,
     .function = "rm_gshmCreate",
     .message = "shmget() failure",
     .after = {1, 0, true},
     .violations = 2,
     .endsWithTooMany = true},
    {.name = "CreateThirdShmget",
     .call = Call::kShmget,
     .errors = kShmgetErrors,
     .objects = 2,
     .act = makeOne,
     .function = "rm_gshmCreate",
     .message = "shmget() failure",
     .after = {3, 2, true},
     .violations = 2,
     .endsWithTooMany = true},
    {.name = "CreateFirstShmat",
     .call = Call::kShmat,
     .errors = kShmatErrors,
     .objects = 0,
     .act = makeOne,
     .function = "rm_gshmCreate",
     .message = "shmat() failure",
     .after = {1, 0, true},
     .violations = 2,
     .endsWithTooMany = true},
    {.name = "CreateThirdShmat",
     .call = Call::kShmat,
     .errors = kShmatErrors,
     .objects = 2,
     .act = makeOne,
     .function = "rm_gshmCreate",
     .message = "shmat() failure",
     .after = {3, 2, true},
     .violations = 2,
     .endsWithTooMany = true},

    // The slot is free before anything can fail.
    {.name = "DeleteShmctl",
     .call = Call::kShmctl,
     .errors = kShmctlErrors,
     .objects = 2,
     .act = [] { rm_gshmDelete(1); },
     .function = "rm_gshmDelete",
     .message = kShmctl,
     .after = {1, 2, true},
     .violations = 1,
     .leavesOnce = 1,
     .leavesForEver = 2},
    {.name = "DeleteLastShmctl",
     .call = Call::kShmctl,
     .errors = kShmctlErrors,
     .objects = 1,
     .act = [] { rm_gshmDelete(0); },
     .function = "rm_gshmDelete",
     .message = kShmctl,
     .after = {0, 1, false},
     .violations = 1,
     .leavesOnce = 1,
     .leavesForEver = 1},
    // All are removed, as far as the system lets go of them, before the first failure is told.
    {.name = "TerminateShmctl",
     .call = Call::kShmctl,
     .errors = kShmctlErrors,
     .objects = 3,
     .act = [] { rm_gshmTerminate(); },
     .function = "rm_gshmDelete",
     .message = kShmctl,
     .after = {0, 1, false},
     .violations = 1,
     .leavesOnce = 1,
     .leavesForEver = 3,
     .countToo = 2},
};

Fault faultOf(const Point& point, int error, int times)
{
    return {.call = point.call,
            .error = error,
            .times = times,
            .when = [call = point.call](const CallRecord& record) {
                return call != Call::kShmctl || isRemoval(record);
            }};
}

// In a child: meets the failure, looks at the state, and leaves through rm_exit.
ChildResult meetAndExit(const Point& point, int error, int times)
{
    return runChild([&] {
        makeSome(point.objects);
        ScopedFault fault(faultOf(point, error, times));
        State after = point.after;
        after.counted = static_cast<int16_t>(after.counted + (times == 1 ? 0 : point.countToo));
        EXPECT_EQ(catchFatal(point.act), 1) << "no fatal error";
        EXPECT_GE(fault.hits(), 1);
        EXPECT_EQ(stateNow(), after);
        EXPECT_EQ(violationsNow(), point.violations);
        if (!::testing::Test::HasFailure()) {
            rm_exit(0);
        }
    });
}

class GshmFaults : public rmtest::RmTest, public ::testing::WithParamInterface<Point>
{
};

TEST_P(GshmFaults, OfACallThatFailsOnceAreFatal)
{
    const Point& point = GetParam();
    for (const int error : point.errors) {
        SCOPED_TRACE(std::strerror(error));
        if (point.call == Call::kShmctl) {
            pinToken();
        }
        const ChildResult result = meetAndExit(point, error, 1);
        expectEndedAtOnce(result);
        const std::string line = failure(point.function, point.message, error);
        EXPECT_EQ(result.out, line + '\n' + (point.endsWithTooMany ? deletedTooMany() + '\n' : ""));
        // The log has the first failure only.
        Lines log = logOfFirstFailure(line);
        if (point.endsWithTooMany) {
            log.emplace_back("Exiting to operating system");
        }
        EXPECT_EQ(logLines(result.err), log);
        EXPECT_EQ(ipcObjects().size(), point.leavesOnce);
        EXPECT_EQ(tokenExists(), point.leavesTokenFile);
        takeAwayWhatIsLeft();
    }
}

TEST_P(GshmFaults, OfACallThatFailsForEverDoNotKeepTheProcessFromEnding)
{
    const Point& point = GetParam();
    for (const int error : point.errors) {
        SCOPED_TRACE(std::strerror(error));
        if (point.call == Call::kShmctl) {
            pinToken();
        }
        const ChildResult result = meetAndExit(point, error, kForever);
        expectEndedAtOnce(result);
        const std::string line = failure(point.function, point.message, error) + '\n';
        const bool failsAgain = point.leavesForEver == 2;  // at the object that is still there
        EXPECT_EQ(result.out, line + (failsAgain ? line : "") +
                                  (point.endsWithTooMany ? deletedTooMany() + '\n' : ""));
        EXPECT_EQ(ipcObjects().size(), point.leavesForEver);
        takeAwayWhatIsLeft();
    }
}

// The same failure without a fatal target: the process ends by itself.
TEST_P(GshmFaults, OfACallThatFailsOnceEndAProcessWithoutATarget)
{
    const Point& point = GetParam();
    const int error = point.errors.back();
    if (point.call == Call::kShmctl) {
        pinToken();
    }
    const ChildResult result = runChild([&] {
        makeSome(point.objects);
        const ScopedFault fault(faultOf(point, error, 1));
        point.act();
        ADD_FAILURE() << "no fatal error";
    });
    expectEndedAtOnce(result);
    EXPECT_EQ(result.out, failure(point.function, point.message, error) + '\n' +
                              (point.endsWithTooMany ? deletedTooMany() + '\n' : ""));
    EXPECT_EQ(logLines(result.err).back(), "Exiting to operating system");
    EXPECT_EQ(ipcObjects().size(), point.leavesOnce);
    EXPECT_EQ(tokenExists(), point.leavesTokenFile);
    takeAwayWhatIsLeft();
}

INSTANTIATE_TEST_SUITE_P(At, GshmFaults, ::testing::ValuesIn(kPoints),
                         [](const ::testing::TestParamInfo<Point>& point) {
                             return std::string(point.param.name);
                         });
}  // namespace
