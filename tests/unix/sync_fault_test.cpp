// Sync objects whose system calls fail: once and for ever after, with each errno that the call
// documents. A failure is never returned: what is logged and printed, what state is left, and that
// the process can still end in order and leave nothing behind is looked at for each.
#include "tests/support/slowness.h"
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::captureStderr;
using rmtest::captureStdout;
using rmtest::catchExit;
using rmtest::catchFatal;
using rmtest::ChildResult;
using rmtest::failure;
using rmtest::Fault;
using rmtest::ipcObjects;
using rmtest::kForever;
using rmtest::logLines;
using rmtest::logOfFirstFailure;
using rmtest::readFile;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::ScopedFault;
using rmtest::semValue;
using rmtest::writeFile;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kToken = ".ZNT.RM.SEM";
const double kAtOnce =
    rmtest::atOnce(1.0);  // seconds; a process that must not wait for anything is gone then

// What the process knows of its objects.
struct State {
    int named;
    int16_t counted;
    bool set;
    bool stream;

    bool operator==(const State&) const = default;
};

void PrintTo(const State& state, std::ostream* out)
{
    *out << state.named << " named, " << state.counted << " counted, "
         << (state.set ? "a set, " : "no set, ") << (state.stream ? "a stream" : "no stream");
}

State stateNow()
{
    int named = 0;
    for (const char* name : os::rmSem) {
        named += name != nullptr ? 1 : 0;
    }
    return {named, os::nSems, os::iSem != -1, os::gfpRMSemTokenFile != nullptr};
}

// The checker must see exactly what does not hold.
uint32_t violationsOf(const State& state)
{
    const bool reachable = state.set && state.stream;
    return (state.named != state.counted ? 1U : 0U) + (state.counted > 0 && !reachable ? 1U : 0U);
}

uint32_t violationsNow()
{
    uint32_t violations = 0;
    captureStderr([&] { violations = os::checkSync(); });
    return violations;
}

// 1 when `body` ended in the fatal path. What it prints and logs is dropped.
int fatalQuietly(const std::function<void()>& body)
{
    int jumped = 0;
    captureStderr([&] { captureStdout([&] { jumped = catchFatal(body); }); });
    return jumped;
}

// --- The table: every call of every operation whose failure ends the operation

using Errors = std::vector<int>;

const Errors kOpenErrors = {EACCES,     EDQUOT,    EEXIST, EFAULT, EFBIG,        EINTR,
                            EINVAL,     EISDIR,    ELOOP,  EMFILE, ENAMETOOLONG, ENFILE,
                            ENODEV,     ENOENT,    ENOMEM, ENOSPC, ENOTDIR,      ENXIO,
                            EOPNOTSUPP, EOVERFLOW, EPERM,  EROFS,  ETXTBSY};
const Errors kFdopenErrors = {EINVAL, ENOMEM};
const Errors kSemgetErrors = {EACCES, EEXIST, EINVAL, ENOENT, ENOMEM, ENOSPC};
// Of an operation that is not repeated when a signal interrupts it.
const Errors kSemopErrors = {E2BIG, EACCES, EAGAIN, EFAULT, EFBIG,
                             EIDRM, EINTR,  EINVAL, ENOMEM, ERANGE};
// Of the creation, which does not mind EAGAIN.
const Errors kCreateSemopErrors = {E2BIG, EACCES, EFAULT, EFBIG, EIDRM,
                                   EINTR, EINVAL, ENOMEM, ERANGE};
// Of a wait without limit.
const Errors kWaitErrors = {E2BIG, EACCES, EAGAIN, EFAULT, EFBIG, EIDRM, EINVAL, ENOMEM, ERANGE};
// Of a wait with one.
const Errors kTimedWaitErrors = {E2BIG, EACCES, EFAULT, EFBIG, EIDRM, EINVAL, ENOMEM, ERANGE};
const Errors kGetvalErrors = {EACCES, EFAULT, EIDRM, EINVAL};
const Errors kRemoveErrors = {EACCES, EFAULT, EIDRM, EINVAL, EPERM};

constexpr int kAnyCommand = -1;

struct Point {
    const char* name;
    Call call;             // that fails
    int command;           // of semctl
    const Errors& errors;  // with which it fails
    void (*arrange)();     // before anything fails
    void (*act)();         // meets the failure
    const char* function;  // of the failure line
    const char* message;
    State after;
    // What fails again when the process ends and the call goes on failing; null when the end does
    // not need the call. The set and its token file are then left.
    const char* endFunction = nullptr;
    bool leavesTokenFile = false;  // also when the call failed only once
    // When the call tells of a set that has gone; null when that makes no difference.
    const State* whenGone = nullptr;
};

void PrintTo(const Point& point, std::ostream* out)
{
    *out << point.name;
}

void nothing() {}

void oneObject()
{
    rm_syncCreate("lock");
}

void twoObjects()
{
    rm_syncCreate("keeper");
    rm_syncCreate("lock");
}

void signalledEvent()
{
    rm_syncCreate("event");
    rm_syncResume(0);
}

// A set that no object uses any more, as a removal that failed leaves it.
void setWithoutObjects()
{
    oneObject();
    ScopedFault fault({.call = Call::kSemctl, .error = EPERM, .when = [](const CallRecord& record) {
                           return record.args[2] == IPC_RMID;
                       }});
    EXPECT_EQ(fatalQuietly([] { rm_syncDelete(0); }), 1);
}

constexpr const char* kSemop = "semop() failure";
constexpr const char* kSemctl = "semctl() failure";
constexpr State kOne = {1, 1, true, true};
constexpr State kTwo = {2, 2, true, true};
constexpr State kNone = {0, 0, false, false};
constexpr State kOnlyNamed = {1, 0, false, false};

const std::vector<Point> kPoints = {
    // The slot has its name before anything can fail, and counts when nothing can fail any more.
    {.name = "CreateOpen",
     .call = Call::kOpen,
     .command = kAnyCommand,
     .errors = kOpenErrors,
     .arrange = nothing,
     .act = oneObject,
     .function = "rm_syncCreate",
     .message = "fopen() failure",
     .after = {1, 0, false, false}},
    // The file was made and there is no stream by which to tell that it is ours.
    {.name = "CreateFdopen",
     .call = Call::kFdopen,
     .command = kAnyCommand,
     .errors = kFdopenErrors,
     .arrange = nothing,
     .act = oneObject,
     .function = "rm_syncCreate",
     .message = "fopen() failure",
     .after = {1, 0, false, false},
     .leavesTokenFile = true},
    {.name = "CreateSemget",
     .call = Call::kSemget,
     .command = kAnyCommand,
     .errors = kSemgetErrors,
     .arrange = nothing,
     .act = oneObject,
     .function = "rm_syncCreate",
     .message = "semget() failure",
     .after = {1, 0, false, true}},
    {.name = "CreateFirstSemop",
     .call = Call::kSemop,
     .command = kAnyCommand,
     .errors = kCreateSemopErrors,
     .arrange = nothing,
     .act = oneObject,
     .function = "rm_syncCreate",
     .message = kSemop,
     .after = {1, 0, true, true},
     .whenGone = &kOnlyNamed},
    {.name = "CreateSecondSemop",
     .call = Call::kSemop,
     .command = kAnyCommand,
     .errors = kCreateSemopErrors,
     .arrange = oneObject,
     .act = oneObject,
     .function = "rm_syncCreate",
     .message = kSemop,
     .after = {2, 1, true, true},
     .endFunction = "rm_syncDelete"},

    {.name = "EnterSemop",
     .call = Call::kSemop,
     .command = kAnyCommand,
     .errors = kWaitErrors,
     .arrange = oneObject,
     .act = [] { rm_syncEnterExcl(0, RM_WAIT_FOREVER); },
     .function = "rm_syncEnterExcl",
     .message = kSemop,
     .after = kOne,
     .endFunction = "rm_syncDelete"},
    {.name = "EnterSemtimedop",
     .call = Call::kSemtimedop,
     .command = kAnyCommand,
     .errors = kTimedWaitErrors,
     .arrange = oneObject,
     .act = [] { rm_syncEnterExcl(0, 5000); },
     .function = "rm_syncEnterExcl",
     .message = kSemop,
     .after = kOne},
    {.name = "ExitSemop",
     .call = Call::kSemop,
     .command = kAnyCommand,
     .errors = kSemopErrors,
     .arrange = oneObject,
     .act = [] { rm_syncExitExcl(0); },
     .function = "rm_syncExitExcl",
     .message = kSemop,
     .after = kOne,
     .endFunction = "rm_syncDelete"},

    {.name = "WaitSemop",
     .call = Call::kSemop,
     .command = kAnyCommand,
     .errors = kWaitErrors,
     .arrange = signalledEvent,
     .act = [] { rm_syncWait(0, RM_WAIT_FOREVER); },
     .function = "rm_syncWait",
     .message = kSemop,
     .after = kOne},
    {.name = "WaitSemtimedop",
     .call = Call::kSemtimedop,
     .command = kAnyCommand,
     .errors = kTimedWaitErrors,
     .arrange = signalledEvent,
     .act = [] { rm_syncWait(0, 5000); },
     .function = "rm_syncWait",
     .message = kSemop,
     .after = kOne},
    // Of a timed wait: its own semop is the one that resets the event.
    {.name = "WaitResetSemop",
     .call = Call::kSemop,
     .command = kAnyCommand,
     .errors = kSemopErrors,
     .arrange = signalledEvent,
     .act = [] { rm_syncWait(0, 5000); },
     .function = "rm_syncWait",
     .message = kSemop,
     .after = kOne},
    {.name = "StartGetval",
     .call = Call::kSemctl,
     .command = GETVAL,
     .errors = kGetvalErrors,
     .arrange = signalledEvent,
     .act = [] { rm_syncStart(0); },
     .function = "rm_syncStart",
     .message = kSemctl,
     .after = kOne,
     .endFunction = "rm_syncDelete"},
    {.name = "StartSemop",
     .call = Call::kSemop,
     .command = kAnyCommand,
     .errors = kSemopErrors,
     .arrange = signalledEvent,
     .act = [] { rm_syncStart(0); },
     .function = "rm_syncStart",
     .message = kSemop,
     .after = kOne},
    {.name = "ResumeGetval",
     .call = Call::kSemctl,
     .command = GETVAL,
     .errors = kGetvalErrors,
     .arrange = oneObject,
     .act = [] { rm_syncResume(0); },
     .function = "rm_syncResume",
     .message = kSemctl,
     .after = kOne,
     .endFunction = "rm_syncDelete"},
    {.name = "ResumeSemop",
     .call = Call::kSemop,
     .command = kAnyCommand,
     .errors = kSemopErrors,
     .arrange = oneObject,
     .act = [] { rm_syncResume(0); },
     .function = "rm_syncResume",
     .message = kSemop,
     .after = kOne,
     .endFunction = "rm_syncDelete"},

    // The slot is free before anything can fail.
    {.name = "DeleteGetval",
     .call = Call::kSemctl,
     .command = GETVAL,
     .errors = kGetvalErrors,
     .arrange = twoObjects,
     .act = [] { rm_syncDelete(1); },
     .function = "rm_syncDelete",
     .message = kSemctl,
     .after = {1, 1, true, true},
     .endFunction = "rm_syncDelete"},
    {.name = "DeleteSemop",
     .call = Call::kSemop,
     .command = kAnyCommand,
     .errors = kSemopErrors,
     .arrange = twoObjects,
     .act = [] { rm_syncDelete(1); },
     .function = "rm_syncDelete",
     .message = kSemop,
     .after = {1, 1, true, true},
     .endFunction = "rm_syncDelete"},
    {.name = "DeleteLastGetval",
     .call = Call::kSemctl,
     .command = GETVAL,
     .errors = kGetvalErrors,
     .arrange = oneObject,
     .act = [] { rm_syncDelete(0); },
     .function = "rm_syncDelete",
     .message = kSemctl,
     .after = {0, 0, true, true},
     .whenGone = &kNone},
    {.name = "DeleteLastSemop",
     .call = Call::kSemop,
     .command = kAnyCommand,
     .errors = kSemopErrors,
     .arrange = oneObject,
     .act = [] { rm_syncDelete(0); },
     .function = "rm_syncDelete",
     .message = kSemop,
     .after = {0, 0, true, true},
     .whenGone = &kNone},
    {.name = "DeleteLastRemove",
     .call = Call::kSemctl,
     .command = IPC_RMID,
     .errors = kRemoveErrors,
     .arrange = oneObject,
     .act = [] { rm_syncDelete(0); },
     .function = "rm_syncDelete",
     .message = kSemctl,
     .after = {0, 0, true, true},
     .endFunction = "rm_syncTerminate",
     .whenGone = &kNone},

    {.name = "TerminateGetval",
     .call = Call::kSemctl,
     .command = GETVAL,
     .errors = kGetvalErrors,
     .arrange = twoObjects,
     .act = [] { rm_syncTerminate(); },
     .function = "rm_syncDelete",
     .message = kSemctl,
     .after = {1, 1, true, true},
     .endFunction = "rm_syncDelete",
     .whenGone = &kNone},
    {.name = "TerminateSemop",
     .call = Call::kSemop,
     .command = kAnyCommand,
     .errors = kSemopErrors,
     .arrange = twoObjects,
     .act = [] { rm_syncTerminate(); },
     .function = "rm_syncDelete",
     .message = kSemop,
     .after = {1, 1, true, true},
     .endFunction = "rm_syncDelete",
     .whenGone = &kNone},
    {.name = "TerminateRemove",
     .call = Call::kSemctl,
     .command = IPC_RMID,
     .errors = kRemoveErrors,
     .arrange = twoObjects,
     .act = [] { rm_syncTerminate(); },
     .function = "rm_syncDelete",
     .message = kSemctl,
     .after = {0, 0, true, true},
     .endFunction = "rm_syncTerminate",
     .whenGone = &kNone},
    {.name = "TerminateRemoveWithoutObjects",
     .call = Call::kSemctl,
     .command = IPC_RMID,
     .errors = kRemoveErrors,
     .arrange = setWithoutObjects,
     .act = [] { rm_syncTerminate(); },
     .function = "rm_syncTerminate",
     .message = kSemctl,
     .after = {0, 0, true, true},
     .endFunction = "rm_syncTerminate",
     .whenGone = &kNone},
};

// Where the system refuses for ever to let go of a set, somebody else has to.
void takeAwayWhatIsLeft()
{
    for (const rmtest::IpcObject& object : ipcObjects()) {
        rmtest::removeIpcObject(object);
    }
    std::filesystem::remove(kToken);
}

// True when the failure says that another process has removed the set, and the library then knows
// of none any more.
bool tellsThatTheSetHasGone(const Point& point, int error)
{
    return point.whenGone != nullptr && (error == EINVAL || error == EIDRM);
}

Fault faultOf(const Point& point, int error, int times)
{
    const int command = point.command;
    Fault fault = {.call = point.call,
                   .error = error,
                   .times = times,
                   .when = [command](const CallRecord& record) {
                       return command == kAnyCommand || record.args[2] == command;
                   }};
    if (tellsThatTheSetHasGone(point, error)) {
        fault.action = [error](const CallRecord& /*record*/) {
            takeAwayWhatIsLeft();
            errno = error;
            return int64_t{-1};
        };
    }
    return fault;
}

// In a child: meets the failure, looks at the state, and leaves through rm_exit.
ChildResult meetAndExit(const Point& point, int error, int times)
{
    return runChild([&] {
        point.arrange();
        ScopedFault fault(faultOf(point, error, times));
        EXPECT_EQ(catchFatal(point.act), 1) << "no fatal error";
        EXPECT_EQ(fault.hits(), 1);
        const State after = tellsThatTheSetHasGone(point, error) ? *point.whenGone : point.after;
        EXPECT_EQ(stateNow(), after);
        EXPECT_EQ(violationsNow(), violationsOf(after));
        if (!::testing::Test::HasFailure()) {
            rm_exit(0);
        }
    });
}

void expectEndedAtOnce(const ChildResult& result)
{
    EXPECT_TRUE(result.exited) << "signal " << result.signal;
    EXPECT_EQ(result.status, 0);
    EXPECT_LT(result.seconds, kAtOnce);
}

void expectNothingLeft()
{
    EXPECT_THAT(ipcObjects(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

class SyncFaults : public rmtest::RmTest, public ::testing::WithParamInterface<Point>
{
};

TEST_P(SyncFaults, OfACallThatFailsOnceAreFatalAndLeaveNothingBehind)
{
    const Point& point = GetParam();
    for (const int error : point.errors) {
        SCOPED_TRACE(std::strerror(error));
        const ChildResult result = meetAndExit(point, error, 1);
        expectEndedAtOnce(result);
        // An arrangement that needs a failure of its own has used up the log line and the banner.
        const std::string line = failure(point.function, point.message, error);
        EXPECT_EQ(result.out, line + '\n');
        if (point.arrange == setWithoutObjects) {
            EXPECT_THAT(logLines(result.err), ElementsAre("Exiting to shutdown processing"));
        } else {
            EXPECT_EQ(logLines(result.err), logOfFirstFailure(line));
        }
        if (point.leavesTokenFile) {
            EXPECT_TRUE(std::filesystem::remove(kToken));
        }
        expectNothingLeft();
        takeAwayWhatIsLeft();
    }
}

TEST_P(SyncFaults, OfACallThatFailsForEverDoNotKeepTheProcessFromEnding)
{
    const Point& point = GetParam();
    for (const int error : point.errors) {
        SCOPED_TRACE(std::strerror(error));
        const ChildResult result = meetAndExit(point, error, kForever);
        expectEndedAtOnce(result);
        std::string out = failure(point.function, point.message, error) + '\n';
        if (point.endFunction != nullptr && !tellsThatTheSetHasGone(point, error)) {
            out += failure(point.endFunction, point.message, error) + '\n';
            EXPECT_EQ(ipcObjects().size(), 1U);
            EXPECT_TRUE(std::filesystem::exists(kToken));
            EXPECT_EQ(logLines(result.err).back(), "Exiting to operating system");
            takeAwayWhatIsLeft();
        } else if (point.leavesTokenFile) {
            EXPECT_TRUE(std::filesystem::remove(kToken));
        }
        EXPECT_EQ(result.out, out);
        expectNothingLeft();
        takeAwayWhatIsLeft();
    }
}

// The same failure without a fatal target: the process ends by itself.
TEST_P(SyncFaults, OfACallThatFailsOnceEndAProcessWithoutATarget)
{
    const Point& point = GetParam();
    const int error = point.errors.back();
    const ChildResult result = runChild([&] {
        point.arrange();
        const ScopedFault fault(faultOf(point, error, 1));
        point.act();
        ADD_FAILURE() << "no fatal error";
    });
    expectEndedAtOnce(result);
    EXPECT_EQ(result.out, failure(point.function, point.message, error) + '\n');
    EXPECT_EQ(logLines(result.err).back(), "Exiting to operating system");
    if (point.leavesTokenFile) {
        EXPECT_TRUE(std::filesystem::remove(kToken));
    }
    expectNothingLeft();
    takeAwayWhatIsLeft();
}

INSTANTIATE_TEST_SUITE_P(At, SyncFaults, ::testing::ValuesIn(kPoints),
                         [](const ::testing::TestParamInfo<Point>& point) {
                             return std::string(point.param.name);
                         });

// --- Creation that fails after its slot was named

class SyncFailedCreate : public rmtest::RmTest
{
  protected:
    void TearDown() override
    {
        rm_syncTerminate();
        RmTest::TearDown();
    }

    static void failToCreate(Call call, int error)
    {
        ScopedFault fault({.call = call, .error = error});
        captureStderr(
            [] { captureStdout([] { EXPECT_EQ(catchFatal([] { rm_syncCreate("lock"); }), 1); }); });
        EXPECT_EQ(fault.hits(), 1);
    }
};

TEST_F(SyncFailedCreate, WithoutATokenFileNeverRemovesTheSetMinusOne)
{
    failToCreate(Call::kOpen, EACCES);
    resetCalls();
    EXPECT_EQ(rm_syncDelete(0), 0);
    EXPECT_TRUE(rmtest::callTrace().empty());
}

TEST_F(SyncFailedCreate, WithoutASetNeverRemovesTheSetMinusOne)
{
    failToCreate(Call::kSemget, ENOSPC);
    resetCalls();
    EXPECT_EQ(rm_syncDelete(0), 0);
    EXPECT_EQ(callCount(Call::kSemctl), 0);
    EXPECT_EQ(callCount(Call::kSemop), 0);
}

TEST_F(SyncFailedCreate, CountsForNothingWhenItIsDeleted)
{
    failToCreate(Call::kOpen, EACCES);
    rm_syncDelete(0);
    EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
}

TEST_F(SyncFailedCreate, WithoutASetGivesUpTheTokenFileWhenItIsDeleted)
{
    failToCreate(Call::kSemget, ENOSPC);
    EXPECT_TRUE(std::filesystem::exists(kToken));
    rm_syncDelete(0);
    EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

// That is no set that has gone: there was none.
TEST_F(SyncFailedCreate, WithoutASetKeepsTheTokenFileWhenAFreeSlotIsDeleted)
{
    failToCreate(Call::kSemget, ENOSPC);
    EXPECT_EQ(fatalQuietly([] { rm_syncDelete(5); }), 1);
    EXPECT_EQ(stateNow(), (State{1, 0, false, true}));
    EXPECT_EQ(rm_syncDelete(0), 0);
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

TEST_F(SyncFailedCreate, WithoutASetGivesUpTheTokenFileWhenTheObjectsAreTerminated)
{
    failToCreate(Call::kSemget, ENOSPC);
    EXPECT_EQ(rm_syncTerminate(), 0);
    EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

TEST_F(SyncFailedCreate, WithoutAStreamUnlinksNothingWhenItIsDeleted)
{
    writeFile(kToken, "another server's");
    failToCreate(Call::kOpen, EACCES);
    rm_syncDelete(0);
    EXPECT_EQ(readFile(kToken), "another server's");
    std::filesystem::remove(kToken);
}

TEST_F(SyncFailedCreate, WithoutAStreamUnlinksNothingWhenTheObjectsAreTerminated)
{
    writeFile(kToken, "another server's");
    failToCreate(Call::kOpen, EACCES);
    rm_syncTerminate();
    EXPECT_EQ(readFile(kToken), "another server's");
    std::filesystem::remove(kToken);
}

TEST_F(SyncFailedCreate, AtARefusedLinkLeavesTheLinkAtTheEndOfTheProcess)
{
    writeFile("target", "precious");
    std::filesystem::create_symlink("target", kToken);
    const ChildResult result = runChild([] { rm_syncCreate("lock"); });
    expectEndedAtOnce(result);
    EXPECT_EQ(result.out, failure("rm_syncCreate", "fopen() failure", ELOOP) + '\n');
    EXPECT_TRUE(std::filesystem::is_symlink(kToken));
    EXPECT_EQ(readFile("target"), "precious");
    std::filesystem::remove(kToken);
}

TEST_F(SyncFailedCreate, WithASetRemovesItWhenItIsDeleted)
{
    failToCreate(Call::kSemop, ENOMEM);
    EXPECT_EQ(rm_syncDelete(0), 0);
    EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
    EXPECT_THAT(ipcObjects(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

TEST_F(SyncFailedCreate, DoesNotTakeTheOthersAlong)
{
    rm_syncCreate("keeper");
    failToCreate(Call::kSemop, ENOMEM);
    EXPECT_EQ(stateNow(), (State{2, 1, true, true}));
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
    EXPECT_EQ(rm_syncExitExcl(0), 0);
}

// It has its name and a semaphore that nobody has raised: as a lock it is held, by nobody.
TEST_F(SyncFailedCreate, BesideOthersIsFoundByItsNameAndStandsAtZero)
{
    rm_syncCreate("keeper");
    failToCreate(Call::kSemop, ENOMEM);
    EXPECT_EQ(rm_syncOpen("lock"), 1);
    EXPECT_EQ(semValue(os::iSem, 1), 0);
    EXPECT_EQ(rm_syncEnterExcl(1, 1), RM_TIMEOUT);
    EXPECT_EQ(rm_syncDelete(1), 0);
    EXPECT_EQ(rm_syncOpen("lock"), RM_NONE);
}

// The host tidies up: the lock that it still holds is left to it and to everybody who shares the
// set.
TEST_F(SyncFailedCreate, IsDeletedWithoutTheSetOfASoundOne)
{
    rm_syncCreate("keeper");
    failToCreate(Call::kSemop, ENOMEM);
    const int set = os::iSem;
    EXPECT_EQ(rm_syncDelete(1), 0);
    EXPECT_EQ(stateNow(), kOne);
    EXPECT_EQ(os::iSem, set);
    EXPECT_EQ(semValue(set, 0), 1);
    EXPECT_EQ(violationsNow(), 0U);
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
    EXPECT_EQ(rm_syncCreate("second"), 1);
    EXPECT_EQ(semValue(set, 1), 1);
    EXPECT_EQ(stateNow(), kTwo);
    EXPECT_EQ(rm_syncDelete(1), 0);
    EXPECT_EQ(rm_syncDelete(0), 0);
    EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

TEST_F(SyncFailedCreate, InASlotThatIsMadeSoundLaterCountsAgain)
{
    failToCreate(Call::kSemop, ENOMEM);
    EXPECT_EQ(rm_syncCreate("first"), 0);
    EXPECT_EQ(rm_syncCreate("second"), 1);
    EXPECT_EQ(rm_syncDelete(0), 0);
    EXPECT_EQ(stateNow(), kOne);
}

TEST_F(SyncFailedCreate, BesideOthersIsTerminatedWithThem)
{
    rm_syncCreate("keeper");
    failToCreate(Call::kSemop, ENOMEM);
    EXPECT_EQ(rm_syncTerminate(), 0);
    EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
    EXPECT_THAT(ipcObjects(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

TEST_F(SyncFailedCreate, BesideAnotherOneIsDeletedWithoutASystemCallWhenTheSetHasGone)
{
    rm_syncCreate("keeper");
    failToCreate(Call::kSemop, ENOMEM);
    failToCreate(Call::kSemop, ENOMEM);
    rm_syncDelete(0);
    EXPECT_EQ(stateNow(), (State{2, 0, false, false}));
    resetCalls();
    EXPECT_EQ(rm_syncDelete(1), 0);
    EXPECT_EQ(rm_syncDelete(2), 0);
    EXPECT_TRUE(rmtest::callTrace().empty());
    EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
}

struct FailingCall {
    const char* name;
    Call call;
    int error;
};

void PrintTo(const FailingCall& failing, std::ostream* out)
{
    *out << failing.name;
}

class SyncAfterFailedCreate : public SyncFailedCreate,
                              public ::testing::WithParamInterface<FailingCall>
{
};

TEST_P(SyncAfterFailedCreate, TheNextOneSucceeds)
{
    failToCreate(GetParam().call, GetParam().error);
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(stateNow(), kOne);
    EXPECT_EQ(semValue(os::iSem, 0), 1);
    EXPECT_EQ(rm_syncDelete(0), 0);
    EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

TEST_P(SyncAfterFailedCreate, AnyNumberOfFailuresLeaksNothing)
{
    for (int n = 0; n < 50; ++n) {
        failToCreate(GetParam().call, GetParam().error);
    }
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    rm_syncDelete(0);
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

// A host that tidies up after the jump and goes on: what it deleted must not make two of the
// objects that follow share a semaphore.
TEST_P(SyncAfterFailedCreate, ObjectsMadeAfterItWasDeletedHaveSemaphoresOfTheirOwn)
{
    failToCreate(GetParam().call, GetParam().error);
    rm_syncDelete(0);
    const SyncHandle first = rm_syncCreate("first");
    const SyncHandle second = rm_syncCreate("second");
    EXPECT_NE(first, second);
    EXPECT_EQ(semValue(os::iSem, first), 1);
    EXPECT_EQ(semValue(os::iSem, second), 1);
    EXPECT_EQ(rm_syncOpen("first"), first);
    EXPECT_EQ(stateNow(), kTwo);
}

INSTANTIATE_TEST_SUITE_P(At, SyncAfterFailedCreate,
                         ::testing::Values(FailingCall{"Open", Call::kOpen, EMFILE},
                                           FailingCall{"Fdopen", Call::kFdopen, ENOMEM},
                                           FailingCall{"Semget", Call::kSemget, ENOSPC},
                                           FailingCall{"Semop", Call::kSemop, ENOMEM}),
                         [](const ::testing::TestParamInfo<FailingCall>& failing) {
                             return std::string(failing.param.name);
                         });

// The stream of the attempt is open and no slot is in use any more: its file goes with it.
TEST_F(SyncFailedCreate, UnderAnotherPrefixLeavesNoTokenFileWhenTheNextOneSucceeds)
{
    rm_tokenName("one");
    failToCreate(Call::kSemget, ENOSPC);
    rm_tokenName("two");
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    rm_syncDelete(0);
    EXPECT_FALSE(std::filesystem::exists("one.ZNT.RM.SEM"));
    EXPECT_FALSE(std::filesystem::exists("two.ZNT.RM.SEM"));
}

TEST_F(SyncFailedCreate, WithEagainIsNone)
{
    ScopedFault fault({.call = Call::kSemop, .error = EAGAIN});
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(stateNow(), kOne);
    EXPECT_EQ(semValue(os::iSem, 0), 0);
}

// --- The key

class SyncKeyFault : public rmtest::RmTest
{
};

// The result of ftok is not looked at: -1 is a key like any other. The set is made under a private
// one here, so that no other process meets it.
TEST_F(SyncKeyFault, TakesMinusOneForAKey)
{
    for (const int error :
         {EACCES, EFAULT, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}) {
        SCOPED_TRACE(std::strerror(error));
        ScopedFault noKey({.call = Call::kFtok, .error = error});
        ScopedFault privateSet({.call = Call::kSemget, .action = [](const CallRecord& record) {
                                    EXPECT_EQ(record.args[0], -1);
                                    CallRecord own = record;
                                    own.args[0] = IPC_PRIVATE;
                                    return rmtest::passThrough(own);
                                }});
        EXPECT_EQ(rm_syncCreate("lock"), 0);
        EXPECT_EQ(noKey.hits(), 1);
        EXPECT_EQ(privateSet.hits(), 1);
        EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
        EXPECT_EQ(rm_syncDelete(0), 0);
        expectNothingLeft();
    }
}

TEST_F(SyncKeyFault, EndsWithTheSetWhenThatCannotBeMadeEither)
{
    const ChildResult result = runChild([] {
        const ScopedFault noKey({.call = Call::kFtok, .error = ENOENT, .times = kForever});
        const ScopedFault noSet({.call = Call::kSemget, .error = ENOENT, .times = kForever});
        rm_syncCreate("lock");
    });
    expectEndedAtOnce(result);
    EXPECT_EQ(result.out, failure("rm_syncCreate", "semget() failure", ENOENT) + '\n');
    expectNothingLeft();
}

// --- Calls whose failure nobody can mend, and that change nothing

class SyncHarmlessFault : public rmtest::RmTest
{
};

TEST_F(SyncHarmlessFault, OfClosingTheTokenFileStillRemovesEverything)
{
    for (const int error : {EBADF, EDQUOT, EFBIG, EINTR, EIO, ENOSPC}) {
        SCOPED_TRACE(std::strerror(error));
        const ChildResult result = runChild([&] {
            rm_syncCreate("lock");
            ScopedFault fault({.call = Call::kFclose, .error = error});
            EXPECT_EQ(rm_syncDelete(0), 0);
            EXPECT_EQ(fault.hits(), 1);
            EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
        });
        EXPECT_EQ(result.out, "");
        expectNothingLeft();
    }
}

TEST_F(SyncHarmlessFault, OfClosingTheTokenFileForEverLetsTheProcessEnd)
{
    const ChildResult result = runChild([] {
        rm_syncCreate("lock");
        const ScopedFault fault({.call = Call::kFclose, .error = EIO, .times = kForever});
        rm_exit(0);
    });
    expectEndedAtOnce(result);
    expectNothingLeft();
}

TEST_F(SyncHarmlessFault, OfUnlinkingTheTokenFileStillRemovesTheSet)
{
    for (const int error : {EACCES, EBUSY, EFAULT, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM,
                            ENOTDIR, EPERM, EROFS}) {
        SCOPED_TRACE(std::strerror(error));
        rm_syncCreate("lock");
        ScopedFault fault({.call = Call::kUnlink, .error = error});
        EXPECT_EQ(rm_syncDelete(0), 0);
        EXPECT_EQ(fault.hits(), 1);
        EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
        EXPECT_THAT(ipcObjects(), IsEmpty());
    }
    EXPECT_TRUE(std::filesystem::remove(kToken));
}

TEST_F(SyncHarmlessFault, OfUnlinkingTheTokenFileForEverLetsTheProcessEnd)
{
    const ChildResult result = runChild([] {
        rm_syncCreate("lock");
        const ScopedFault fault({.call = Call::kUnlink, .error = EPERM, .times = kForever});
        rm_exit(0);
    });
    expectEndedAtOnce(result);
    EXPECT_THAT(ipcObjects(), IsEmpty());
    EXPECT_TRUE(std::filesystem::remove(kToken));
}

// A token file that somebody has taken away is no reason to keep the set.
TEST_F(SyncHarmlessFault, OfATokenFileThatHasGoneStillRemovesTheSet)
{
    rm_syncCreate("lock");
    std::filesystem::remove(kToken);
    EXPECT_EQ(rm_syncDelete(0), 0);
    expectNothingLeft();
}

class SyncAlarmFault : public rmtest::RmTest
{
  protected:
    void TearDown() override
    {
        alarm(0);
        rm_syncTerminate();
        RmTest::TearDown();
    }
};

TEST_F(SyncAlarmFault, OfTheHandlerDoesNotKeepAFreeLockFromBeingEntered)
{
    rm_syncCreate("lock");
    ScopedFault fault({.call = Call::kSignal, .error = EINVAL, .times = kForever});
    EXPECT_EQ(rm_syncEnterExcl(0, 5000), 0);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(alarm(0), 0U);
}

TEST_F(SyncAlarmFault, OfTheHandlerDoesNotKeepAnEventFromBeingSeen)
{
    signalledEvent();
    ScopedFault fault({.call = Call::kSignal, .error = EINVAL, .times = kForever});
    EXPECT_EQ(rm_syncWait(0, 5000), 0);
    EXPECT_EQ(fault.hits(), 1);
}

TEST_F(SyncAlarmFault, OfTheHandlerKeepsTheOneOfAnEarlierWait)
{
    rm_syncCreate("lock");
    EXPECT_EQ(rm_syncEnterExcl(0, 1), 0);
    ScopedFault fault({.call = Call::kSignal, .error = EINVAL, .times = kForever});
    EXPECT_EQ(rm_syncEnterExcl(0, 1), RM_TIMEOUT);
    EXPECT_GE(fault.hits(), 1);
}

TEST_F(SyncAlarmFault, OfTheAlarmStillEndsTheWaitForALock)
{
    rm_syncCreate("lock");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    ScopedFault fault({.call = Call::kAlarm, .times = kForever});
    EXPECT_EQ(rm_syncEnterExcl(0, 1), RM_TIMEOUT);
    EXPECT_EQ(os::alarm_signal, 0);
    EXPECT_EQ(fault.hits(), 2);
}

TEST_F(SyncAlarmFault, OfTheAlarmStillEndsTheWaitForAnEvent)
{
    rm_syncCreate("event");
    ScopedFault fault({.call = Call::kAlarm, .times = kForever});
    EXPECT_EQ(rm_syncWait(0, 1), RM_TIMEOUT);
    EXPECT_EQ(os::alarm_signal, 0);
    EXPECT_EQ(semValue(os::iSem, 0), 1);
}

// --- Failures of the orderly end itself

class SyncExitFault : public rmtest::RmTest
{
  protected:
    static Fault commandFails(int command, int times)
    {
        return {.call = Call::kSemctl,
                .error = EPERM,
                .times = times,
                .when = [command](const CallRecord& record) { return record.args[2] == command; }};
    }
};

TEST_F(SyncExitFault, OfReadingAValueEndsTheProcess)
{
    const ChildResult result = runChild([] {
        twoObjects();
        const ScopedFault fault(commandFails(GETVAL, 1));
        rm_exit(5);
    });
    expectEndedAtOnce(result);
    EXPECT_EQ(result.out, failure("rm_syncDelete", "semctl() failure", EPERM) + '\n');
    EXPECT_EQ(logLines(result.err).back(), "Exiting to operating system");
    takeAwayWhatIsLeft();
}

TEST_F(SyncExitFault, OfRemovingTheSetEndsTheProcess)
{
    const ChildResult result = runChild([] {
        twoObjects();
        const ScopedFault fault(commandFails(IPC_RMID, 1));
        rm_exit(5);
    });
    expectEndedAtOnce(result);
    EXPECT_EQ(result.out, failure("rm_syncDelete", "semctl() failure", EPERM) + '\n');
    takeAwayWhatIsLeft();
}

// The removal is begun once: an end that failed at it does not come back to it.
TEST_F(SyncExitFault, IsNotTriedAgain)
{
    const ChildResult result = runChild([] {
        oneObject();
        ScopedFault fault(commandFails(IPC_RMID, kForever));
        EXPECT_EQ(catchFatal([] { rm_exit(0); }), 1);
        EXPECT_EQ(catchExit([] { rm_exit(3); }), 3);
        EXPECT_EQ(fault.hits(), 1);
    });
    EXPECT_EQ(result.status, 0);
    takeAwayWhatIsLeft();
}

TEST_F(SyncExitFault, ArrivesAtTheHostsFatalTargetWhichCanExitAgain)
{
    const ChildResult result = runChild([] {
        oneObject();
        const ScopedFault fault(commandFails(GETVAL, kForever));
        EXPECT_EQ(catchFatal([] { rm_exit(0); }), 1);
        if (!HasFailure()) {
            rm_exit(7);
        }
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 7);
    EXPECT_LT(result.seconds, kAtOnce);
    takeAwayWhatIsLeft();
}

// --- A termination that fails and whose host goes on

class SyncFailedTerminate : public SyncFailedCreate
{
  protected:
    static void failToTerminate(int command)
    {
        ScopedFault fault(
            {.call = Call::kSemctl, .error = EACCES, .when = [command](const CallRecord& record) {
                 return record.args[2] == command;
             }});
        EXPECT_EQ(fatalQuietly([] { rm_syncTerminate(); }), 1);
        EXPECT_EQ(fault.hits(), 1);
    }
};

TEST_F(SyncFailedTerminate, CanBeRepeated)
{
    twoObjects();
    failToTerminate(GETVAL);
    EXPECT_EQ(rm_syncTerminate(), 0);
    expectNothingLeft();
    EXPECT_EQ(stateNow(), (State{0, 0, false, false}));
}

// The locks of the file layer have lost their slots: their handles must not be used any more.
TEST_F(SyncFailedTerminate, LeavesManagedFilesUsable)
{
    fileSem = rm_syncCreate("fileSem");
    growSem = rm_syncCreate("growSem");
    failToTerminate(GETVAL);
    int16_t handle = -1;
    EXPECT_EQ(fatalQuietly([&] {
                  handle = rm_fileOpen("file", RM_O_RDWR | RM_O_CREAT, FILE_NOPRESIZE, 0, 0);
              }),
              0);
    EXPECT_GE(handle, 0);
    rm_fileClose(handle);
}

TEST_F(SyncFailedTerminate, AfterAFailedRemovalIsFinishedByTheNextOne)
{
    oneObject();
    failToTerminate(IPC_RMID);
    const int set = os::iSem;
    EXPECT_EQ(rm_syncTerminate(), 0);
    expectNothingLeft();
    EXPECT_EQ(os::iSem, set) << "the id is kept where only the set was left";
    os::iSem = -1;
}

TEST_F(SyncFailedTerminate, AfterAFailedRemovalTheSetCanBeUsedAgain)
{
    oneObject();
    failToTerminate(IPC_RMID);
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(semValue(os::iSem, 0), 1);
    EXPECT_EQ(stateNow(), kOne);
}
}  // namespace
