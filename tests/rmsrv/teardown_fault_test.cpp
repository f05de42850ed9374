// A teardown in which a step fails, once or for ever: the steps behind it still run, each at most
// once, the process ends at once, and what stays is what the failed step was to remove.
#include "teardown_case.h"

#include <memory>
#include <ostream>

using namespace teardown;

namespace
{
using Errors = std::vector<int>;

struct Failure {
    const char* name;
    Call call;
    bool (*fits)(const CallRecord&);
    Errors errors;
    bool isFatal;                          // whether it leads into the fatal path
    std::vector<std::string> missing;      // steps that are not come to
    char kind = 0;                         // of the objects that stay; one a failure
    std::vector<std::string> tokens = {};  // files that stay
};

void PrintTo(const Failure& failure, std::ostream* out)
{
    *out << failure.name;
}

bool any(const CallRecord&)
{
    return true;
}

bool isControlRemoval(const CallRecord& call)
{
    return call.args[1] == IPC_RMID;
}

bool isSetRemoval(const CallRecord& call)
{
    return call.args[2] == IPC_RMID;
}

bool isValue(const CallRecord& call)
{
    return call.args[2] == GETVAL;
}

bool hasNoWait(const CallRecord& call)
{
    return (call.pointer<sembuf>(1)->sem_flg & IPC_NOWAIT) != 0;
}

const Errors kControlErrors = {EACCES, EFAULT, EIDRM, EINVAL, EPERM};
const Errors kUnlinkErrors = {EACCES, EBUSY, EIO, ENOENT, EPERM, EROFS};
const Errors kCloseErrors = {EBADF, EINTR, EIO, ENOSPC, EDQUOT};

const std::vector<Failure> kFailures = {
    {"RemovalOfSegments", Call::kShmctl, isControlRemoval, kControlErrors, true, {}, 'm'},
    {"RemovalOfQueues", Call::kMsgctl, isControlRemoval, kControlErrors, false, {}, 'q'},
    {"ValueOfASemaphore",
     Call::kSemctl,
     isValue,
     {EACCES, EIDRM, EINVAL},
     true,
     {"set removed", "token of the set closed", "token of the set removed"},
     's',
     {kSetToken}},
    {"ResetOfASemaphore",
     Call::kSemop,
     hasNoWait,
     {EAGAIN, EIDRM, EINVAL, ERANGE},
     true,
     {"set removed", "token of the set closed", "token of the set removed"},
     's',
     {kSetToken}},
    {"RemovalOfTheSet",
     Call::kSemctl,
     isSetRemoval,
     kControlErrors,
     true,
     {"token of the set closed", "token of the set removed"},
     's',
     {kSetToken}},
    {"RemovalOfTokenFiles", Call::kUnlink, any, kUnlinkErrors, false, {}},
    {"CloseOfStreams", Call::kFclose, any, kCloseErrors, false, {}},
};

struct Ending {
    const char* name;
    Host host;
    void (*act)();
    int code;  // of a teardown without a failure
};

void PrintTo(const Ending& ending, std::ostream* out)
{
    *out << ending.name;
}

void exitPlainly()
{
    rm_exit(5);
}

void failPlainly()
{
    fatalRMExit("a problem");
}

const std::vector<Ending> kEndings = {
    {"Exit", {}, exitPlainly, 5},
    {"ExitWithoutLog", {.log = false}, exitPlainly, 5},
    {"ExitToTarget", {.exitTarget = true}, exitPlainly, kLanded},
    {"ExitWithFatalTarget", {.fatalTarget = true}, exitPlainly, 5},
    {"FatalError", {}, failPlainly, 0},
    {"FatalErrorWithTargets", {.fatalTarget = true, .exitTarget = true}, failPlainly, kLanded},
    {"FatalErrorIntoShutdown", {.fatalTarget = true}, failPlainly, kShutdownCode},
};

class TeardownFault : public TeardownTest,
                      public ::testing::WithParamInterface<std::tuple<Failure, Ending>>
{
  protected:
    static const Failure& failing() { return std::get<0>(GetParam()); }

    static const Ending& ending() { return std::get<1>(GetParam()); }

    static int expectedCode()
    {
        const Host& host = ending().host;
        if (!failing().isFatal || host.exitTarget) {
            return ending().code;
        }
        return host.fatalTarget ? kShutdownCode : 0;
    }

    void expectEnd(int error, int times)
    {
        SCOPED_TRACE(std::string(std::strerror(error)) + (times == 1 ? " once" : " for ever"));
        const End end = endOfHost(ending().host, ending().act, [&] {
            static ScopedFault fault(
                {.call = failing().call, .error = error, .times = times, .when = failing().fits});
        });
        expectEndSoon(end.child, expectedCode());
        std::vector<std::string> missing = failing().missing;
        if (error == EIDRM || error == EINVAL) {
            std::erase(missing,
                       "token of the set closed");  // it is forgotten: it is said to be gone
        }
        if (!ending().host.log) {
            missing.emplace_back("log file closed");
        }
        EXPECT_THAT(end.steps, ElementsAreArray(without(kWhole, missing)));
        EXPECT_EQ(end.memoryLeft, 0);
        EXPECT_EQ(end.failures.size(), failing().isFatal ? 1U : 0U);
        expectLeft(times);
        removeEverythingLeft();
    }

    static void expectLeft(int times)
    {
        const int several = times == 1 ? 1 : 2;
        EXPECT_EQ(objectsLeft('m'), failing().kind == 'm' ? several : 0);
        EXPECT_EQ(objectsLeft('q'), failing().kind == 'q' ? several : 0);
        EXPECT_EQ(objectsLeft('s'), failing().kind == 's' ? 1 : 0);
        std::vector<std::string> tokens = failing().tokens;
        if (failing().call == Call::kUnlink) {
            tokens = {kSegmentToken, kQueueToken, kSetToken};
            tokens.resize(times == 1 ? 1 : 3);
        }
        EXPECT_EQ(tokensLeft(), tokens);
    }
};

TEST_P(TeardownFault, OnceTheOtherStepsAreMadeOnce)
{
    for (const int error : failing().errors) {
        expectEnd(error, 1);
    }
}

TEST_P(TeardownFault, ForEverTheOtherStepsAreMadeOnce)
{
    for (const int error : failing().errors) {
        expectEnd(error, kForever);
    }
}

INSTANTIATE_TEST_SUITE_P(Steps, TeardownFault,
                         ::testing::Combine(::testing::ValuesIn(kFailures),
                                            ::testing::ValuesIn(kEndings)),
                         [](const auto& test) {
                             return std::string(std::get<0>(test.param).name) +
                                    std::get<1>(test.param).name;
                         });

// --- Failures inside the steps that no system call brings

class TeardownCounts : public TeardownTest
{
};

// Slots that were named by creations which failed: one deletion too many each.
void spoilCounts()
{
    static void* address = nullptr;
    static int jumps = 0;
    captureStderr([] {
        rmtest::captureStdout([] {
            {
                ScopedFault noMemory({.call = Call::kMalloc, .error = ENOMEM, .times = kForever});
                jumps += catchFatal([] { rm_queueCreate("lost"); });
            }
            ScopedFault noAttachment({.call = Call::kShmat, .error = ENOMEM});
            jumps += catchFatal([] { rm_gshmCreate("lost", 100, &address); });
        });
    });
    if (jumps != 2) {
        _exit(rmtest::kChildTestFailed);
    }
}

const std::string kTooManySegments =
    "**** rm_gshmDelete() Deleted too many global shared memory objects, errno=0 (Success)";
const std::string kTooManyQueues =
    "**** rm_queueDelete() Deleted too many Message Queues!, errno=0 (Success)";

TEST_F(TeardownCounts, BelowZeroEndInTheFatalPathAndTheNextStepsAreMade)
{
    const ChildResult child = runChild([] {
        spoilCounts();
        rm_syncCreate("lock");
        startRecord();
        std::atexit(printRecord);
        rm_exit(5);
    });
    const End end = endOf(child);
    expectEndSoon(child, 0);
    EXPECT_THAT(end.failures, ElementsAre(kTooManySegments, kTooManyQueues));
    EXPECT_EQ(end.steps.back(), "memory freed");
    EXPECT_EQ(end.memoryLeft, 0);
    expectNothingLeft();
}

TEST_F(TeardownCounts, BelowZeroWithSoundObjectsRemoveThoseFirst)
{
    const End end = endOfHost({}, exitPlainly, spoilCounts);
    expectEndSoon(end.child, 0);
    EXPECT_THAT(end.failures, ElementsAre(kTooManySegments, kTooManyQueues));
    EXPECT_THAT(without(end.steps, {"segment 2 removed"}), ElementsAreArray(kWhole));
    EXPECT_EQ(end.memoryLeft, 0);
    expectNothingLeft();
}

// --- Everything at once

class TeardownAll : public TeardownTest
{
};

// Arms everything that the way out can meet.
void failEverything()
{
    static std::deque<ScopedFault> faults;
    for (const Call call : {Call::kShmctl, Call::kMsgctl, Call::kSemctl, Call::kSemop,
                            Call::kSemtimedop, Call::kClose, Call::kFclose, Call::kUnlink,
                            Call::kWrite, Call::kFflush, Call::kVfprintf, Call::kMalloc}) {
        faults.emplace_back(rmtest::Fault{.call = call, .error = EIDRM, .times = kForever});
    }
}

void expectEachStepAtMostOnce(const End& end)
{
    for (const std::string& step : kWhole) {
        EXPECT_LE(std::count(end.steps.begin(), end.steps.end(), step), 1) << step;
    }
    EXPECT_EQ(std::count(end.steps.begin(), end.steps.end(), "memory freed"), 1);
    EXPECT_EQ(objectsLeft('m'), 2);
    EXPECT_EQ(objectsLeft('q'), 2);
    EXPECT_EQ(objectsLeft('s'), 1);
    removeEverythingLeft();
}

TEST_F(TeardownAll, AnExitEndsWhenEveryCallFailsForEver)
{
    const End end = endOfHost({}, exitPlainly, failEverything);
    expectEndSoon(end.child, 0);
    expectEachStepAtMostOnce(end);
}

TEST_F(TeardownAll, AFatalErrorEndsWhenEveryCallFailsForEver)
{
    const End end = endOfHost({}, failPlainly, failEverything);
    expectEndSoon(end.child, 0);
    expectEachStepAtMostOnce(end);
}

TEST_F(TeardownAll, AShutdownThatExitsEndsWhenEveryCallFailsForEver)
{
    const End end = endOfHost({.fatalTarget = true}, failPlainly, failEverything);
    expectEndSoon(end.child, kShutdownCode);
    expectEachStepAtMostOnce(end);
}

TEST_F(TeardownAll, AnExitTargetIsReachedWhenEveryCallFailsForEver)
{
    const End end =
        endOfHost({.fatalTarget = true, .exitTarget = true}, failPlainly, failEverything);
    expectEndSoon(end.child, kLanded);
    EXPECT_EQ(end.exitValue, kShutdownCode);
    expectEachStepAtMostOnce(end);
}

// Every failed step leads back to the host, which exits again, and finds the next one to do.
TEST_F(TeardownAll, EachFatalStepComesBackToTheHostOnce)
{
    const End end = endOfHost({.log = false, .fatalTarget = true}, exitPlainly, [] {
        static ScopedFault segments({.call = Call::kShmctl, .error = EPERM, .times = kForever});
        static ScopedFault set({.call = Call::kSemctl, .error = EPERM, .times = kForever});
    });
    expectEndSoon(end.child, kShutdownCode);
    EXPECT_EQ(end.lines.back(), "shutting down, 2");
    EXPECT_THAT(
        end.failures,
        ElementsAre("**** rm_gshmDelete() shmctl() failure, errno=1 (Operation not permitted)",
                    "**** rm_syncDelete() semctl() failure, errno=1 (Operation not permitted)"));
    EXPECT_EQ(end.memoryLeft, 0);
    removeEverythingLeft();
}

TEST_F(TeardownAll, TheLogFileThatDoesNotCloseHoldsNothingBack)
{
    for (const int times : {1, kForever}) {
        const End end = endOfHost({}, exitPlainly, [times] {
            static ScopedFault lock({.call = Call::kSemtimedop, .error = EIDRM, .times = times});
        });
        expectEndSoon(end.child, 0);
        EXPECT_THAT(without(end.steps, {"log file closed"}),
                    ElementsAreArray(without(kWhole, {"log file closed"})));
        EXPECT_LE(std::count(end.steps.begin(), end.steps.end(), "log file closed"), 1);
        expectNothingLeft();
    }
}

}  // namespace
