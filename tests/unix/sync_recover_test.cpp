// Freeing the lock of a process that has died: when it is freed and when it is not, what is logged,
// and what others may do between any two of the looks that it takes.
#include "tests/support/faults.h"
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::CallRecord;
using rmtest::callTrace;
using rmtest::captureStderr;
using rmtest::captureStdout;
using rmtest::catchFatal;
using rmtest::ChildResult;
using rmtest::inChild;
using rmtest::kForever;
using rmtest::logLines;
using rmtest::Peer;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::ScopedFault;
using rmtest::semValue;
using rmtest::waitFor;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Lines = std::vector<std::string>;

std::string failure(const char* message, int error)
{
    std::array<char, 512> line;
    std::snprintf(line.data(), line.size(), "**** rm_syncRecover() %s, errno=%d (%s)", message,
                  error, std::strerror(error));
    return line.data();
}

std::string freed(SyncHandle lock, pid_t holder)
{
    return "WARNING: lock " + std::to_string(lock) + " freed, its holder " +
           std::to_string(holder) + " is gone";
}

// Another process of the server, which does as it is told.
class Worker
{
  public:
    explicit Worker(SyncHandle lock)
        : peer_([lock](Peer::Channel& channel) {
              for (std::string order = channel.hear(); order != "end"; order = channel.hear()) {
                  channel.say(std::to_string(obey(order, lock)));
              }
          })
    {
    }

    pid_t pid() const { return peer_.pid(); }

    // The result of what it did.
    std::string does(const char* order)
    {
        peer_.say(order);
        return peer_.hear();
    }

    void stop()
    {
        peer_.kill(SIGSTOP);
        siginfo_t info = {};
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid()), &info, WSTOPPED | WNOWAIT), 0);
    }

    void goOn() { peer_.kill(SIGCONT); }

    // Ends in order, and is waited for.
    void ends()
    {
        peer_.say("end");
        EXPECT_EQ(peer_.wait().status, 0);
    }

    // Dies, and is not waited for.
    void becomesAZombie()
    {
        peer_.kill(SIGKILL);
        EXPECT_TRUE(waitFor([this] { return !peer_.running(); }));
    }

    void isWaitedFor() { EXPECT_EQ(peer_.wait().signal, SIGKILL); }

    void dies()
    {
        peer_.kill(SIGKILL);
        isWaitedFor();
    }

  private:
    static int16_t obey(const std::string& order, SyncHandle lock)
    {
        if (order == "enter") {
            return rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
        }
        return order == "leave" ? rm_syncExitExcl(lock) : rm_syncRecover(lock);
    }

    Peer peer_;
};

// A lock that is not the first object, so that its number shows.
class SyncRecover : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        rm_syncCreate("another");
        lock_ = rm_syncCreate("lock");
        resetCalls();
    }

    void TearDown() override
    {
        EXPECT_EQ(os::checkSync(), 0U);
        EXPECT_EQ(semValue(os::iSem, 0), 1) << "the other object was changed";
        rm_syncTerminate();
        RmTest::TearDown();
    }

    int value() const { return semValue(os::iSem, lock_); }

    // Both return the process that operated last, and does not exist any more.
    pid_t killedInside() const
    {
        Worker worker(lock_);
        EXPECT_EQ(worker.does("enter"), "0");
        worker.dies();
        return worker.pid();
    }

    pid_t diedOutside() const
    {
        Worker worker(lock_);
        worker.does("enter");
        worker.does("leave");
        worker.dies();
        return worker.pid();
    }

    // The result of the call, which logs nothing.
    int16_t recoverQuietly() const
    {
        int16_t result = -1;
        EXPECT_THAT(logLines(captureStderr([&] { result = rm_syncRecover(lock_); })), IsEmpty());
        return result;
    }

    Lines recoverAndLog(int16_t* result) const
    {
        return logLines(captureStderr([&] { *result = rm_syncRecover(lock_); }));
    }

    SyncHandle lock_ = RM_NONE;
};

class SyncRecoverHandle : public SyncRecover
{
};

// --- What is freed

TEST_F(SyncRecover, FreesALockWhoseHolderIsGone)
{
    killedInside();
    EXPECT_EQ(value(), 0);
    int16_t result = -1;
    recoverAndLog(&result);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(value(), 1);
}

TEST_F(SyncRecover, LogsTheLockAndItsHolder)
{
    const pid_t holder = killedInside();
    int16_t result = -1;
    EXPECT_THAT(recoverAndLog(&result), ElementsAre(freed(lock_, holder)));
}

TEST_F(SyncRecover, MakesTheLockOneThatCanBeEnteredAndLeft)
{
    killedInside();
    int16_t result = -1;
    recoverAndLog(&result);
    EXPECT_EQ(rm_syncEnterExcl(lock_, 1000), RM_SUCCESS);
    EXPECT_EQ(value(), 0);
    EXPECT_EQ(rm_syncExitExcl(lock_), RM_SUCCESS);
    EXPECT_EQ(value(), 1);
}

TEST_F(SyncRecover, DoesNothingTheSecondTime)
{
    killedInside();
    int16_t result = -1;
    recoverAndLog(&result);
    EXPECT_EQ(recoverQuietly(), 0);
    EXPECT_EQ(value(), 1);
}

TEST_F(SyncRecover, FreesTheLockOfAHolderThatEndedInOrder)
{
    Worker worker(lock_);
    worker.does("enter");
    worker.ends();
    int16_t result = -1;
    EXPECT_THAT(recoverAndLog(&result), ElementsAre(freed(lock_, worker.pid())));
    EXPECT_EQ(value(), 1);
}

TEST_F(SyncRecover, FreesAnyNumberOfLocksInTurn)
{
    for (int n = 0; n < 5; ++n) {
        const pid_t holder = killedInside();
        int16_t result = -1;
        EXPECT_THAT(recoverAndLog(&result), ElementsAre(freed(lock_, holder)));
        EXPECT_EQ(result, 1);
    }
    EXPECT_EQ(value(), 1);
}

TEST_F(SyncRecover, LeavesTheOtherLocksOfTheDead)
{
    Peer holder([this](Peer::Channel& channel) {
        rm_syncEnterExcl(0, RM_WAIT_FOREVER);
        rm_syncEnterExcl(lock_, RM_WAIT_FOREVER);
        channel.say("both");
        channel.hear();
    });
    EXPECT_EQ(holder.hear(), "both");
    holder.kill(SIGKILL);
    holder.wait();
    int16_t result = -1;
    recoverAndLog(&result);
    EXPECT_EQ(value(), 1);
    EXPECT_EQ(semValue(os::iSem, 0), 0);
    EXPECT_THAT(logLines(captureStderr([&] { result = rm_syncRecover(0); })),
                ElementsAre(freed(0, holder.pid())));
}

TEST_F(SyncRecover, RaisesFromZeroInOneStepThatNeverWaits)
{
    killedInside();
    std::vector<std::array<int, 3>> steps;
    const ScopedFault spy({.call = Call::kSemop, .when = [&](const CallRecord& call) {
                               const auto* operations = call.pointer<const sembuf>(1);
                               for (int64_t i = 0; i < call.args[2]; ++i) {
                                   steps.push_back({operations[i].sem_num, operations[i].sem_op,
                                                    operations[i].sem_flg});
                               }
                               return false;
                           }});
    int16_t result = -1;
    recoverAndLog(&result);
    EXPECT_THAT(steps, ElementsAre(std::array<int, 3>{lock_, 0, IPC_NOWAIT},
                                   std::array<int, 3>{lock_, 1, IPC_NOWAIT}));
}

TEST_F(SyncRecover, AsksForTheHolderWithoutASignal)
{
    const pid_t holder = killedInside();
    resetCalls();
    int16_t result = -1;
    recoverAndLog(&result);
    const auto kills = callTrace({Call::kKill});
    EXPECT_FALSE(kills.empty());
    for (const CallRecord& call : kills) {
        EXPECT_EQ(call.args[0], holder);
        EXPECT_EQ(call.args[1], 0);
    }
}

// --- What is not

TEST_F(SyncRecover, LeavesAFreeLockOfALivingProcess)
{
    EXPECT_EQ(recoverQuietly(), 0);
    EXPECT_EQ(value(), 1);
}

TEST_F(SyncRecover, LeavesALockThatTheDeadHadLeft)
{
    diedOutside();
    EXPECT_EQ(recoverQuietly(), 0);
    EXPECT_EQ(value(), 1);
}

TEST_F(SyncRecover, LeavesALockThatThisProcessHolds)
{
    rm_syncEnterExcl(lock_, RM_WAIT_FOREVER);
    EXPECT_EQ(recoverQuietly(), 0);
    EXPECT_EQ(value(), 0);
}

TEST_F(SyncRecover, LeavesALockThatAChildHolds)
{
    Worker worker(lock_);
    worker.does("enter");
    EXPECT_EQ(recoverQuietly(), 0);
    EXPECT_EQ(value(), 0);
}

TEST_F(SyncRecover, LeavesALockThatTheParentHolds)
{
    rm_syncEnterExcl(lock_, RM_WAIT_FOREVER);
    inChild([this] { EXPECT_EQ(recoverQuietly(), 0); });
    EXPECT_EQ(value(), 0);
}

TEST_F(SyncRecover, LeavesALockThatAStoppedChildHolds)
{
    Worker worker(lock_);
    worker.does("enter");
    worker.stop();
    EXPECT_EQ(recoverQuietly(), 0);
    EXPECT_EQ(value(), 0);
    worker.goOn();
    EXPECT_EQ(worker.does("leave"), "0");
    EXPECT_EQ(value(), 1);
}

TEST_F(SyncRecover, LeavesTheLockOfADeadChildUntilItIsWaitedFor)
{
    Worker worker(lock_);
    worker.does("enter");
    worker.becomesAZombie();
    EXPECT_EQ(recoverQuietly(), 0);
    EXPECT_EQ(value(), 0);
    worker.isWaitedFor();
    int16_t result = -1;
    EXPECT_THAT(recoverAndLog(&result), ElementsAre(freed(lock_, worker.pid())));
    EXPECT_EQ(value(), 1);
}

TEST_F(SyncRecover, LeavesALockThatALivingProcessTookAfterTheDead)
{
    diedOutside();
    Worker worker(lock_);
    worker.does("enter");
    EXPECT_EQ(recoverQuietly(), 0);
    EXPECT_EQ(value(), 0);
}

TEST_F(SyncRecover, LeavesAValueAboveOne)
{
    Worker worker(lock_);
    worker.does("leave");
    worker.does("leave");
    worker.dies();
    EXPECT_EQ(recoverQuietly(), 0);
    EXPECT_EQ(value(), 3);
}

// A process of another user cannot be asked.
TEST_F(SyncRecover, TakesAHolderThatMustNotBeSignalledForALivingOne)
{
    killedInside();
    const ScopedFault fault({.call = Call::kKill, .error = EPERM});
    EXPECT_EQ(recoverQuietly(), 0);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(value(), 0);
}

TEST_F(SyncRecover, TakesAHolderThatCannotBeAskedForALivingOne)
{
    killedInside();
    const ScopedFault fault({.call = Call::kKill, .error = EINVAL});
    EXPECT_EQ(recoverQuietly(), 0);
    EXPECT_EQ(value(), 0);
}

TEST_F(SyncRecover, LeavesALockThatItCannotRaiseAtOnce)
{
    killedInside();
    const ScopedFault fault({.call = Call::kSemop, .error = EAGAIN});
    EXPECT_EQ(recoverQuietly(), 0);
    EXPECT_EQ(value(), 0);
}

TEST_F(SyncRecover, LeavesALockOfANewProcessWithTheNumberOfTheDead)
{
    Worker worker(lock_);
    worker.does("enter");
    const ScopedFault dead({.call = Call::kKill, .error = ESRCH});
    EXPECT_EQ(recoverQuietly(), 0);
    EXPECT_EQ(dead.hits(), 1);
    EXPECT_EQ(value(), 0);
}

// A semaphore of the set on which no process has operated: at 0, by nobody.
TEST_F(SyncRecoverHandle, WithoutALastOperatorIsLeft)
{
    const SyncHandle bare = 7;
    os::rmSem[7] = "bare";
    ++os::nSems;
    resetCalls();
    EXPECT_EQ(rm_syncRecover(bare), 0);
    EXPECT_EQ(callCount(Call::kKill), 0);
    EXPECT_EQ(callCount(Call::kSemop), 0);
    EXPECT_EQ(semValue(os::iSem, bare), 0);
}

// --- Handles

TEST_F(SyncRecoverHandle, OfTheNullObjectIsIgnored)
{
    resetCalls();
    const int16_t result = rm_syncRecover(RM_NULL_SYNC);
    EXPECT_TRUE(callTrace().empty());
    EXPECT_EQ(result, 0);
}

TEST_F(SyncRecoverHandle, OfAnEmptyNameIsIgnored)
{
    os::rmSem[5] = "";
    ++os::nSems;
    resetCalls();
    const int16_t result = rm_syncRecover(5);
    EXPECT_TRUE(callTrace().empty());
    EXPECT_EQ(result, 0);
}

class SyncRecoverBadHandle : public SyncRecover, public ::testing::WithParamInterface<int>
{
};

TEST_P(SyncRecoverBadHandle, IsFatalWithoutAnErrno)
{
    std::string out;
    const std::string err = captureStderr([&] {
        out = captureStdout([] {
            EXPECT_EQ(catchFatal([] {
                          errno = EIO;
                          rm_syncRecover(static_cast<int16_t>(GetParam()));
                      }),
                      1);
        });
    });
    EXPECT_EQ(out, failure("Invalid Semaphore Handle", 0) + '\n');
    EXPECT_EQ(logLines(err).front(), failure("Invalid Semaphore Handle", 0));
    EXPECT_EQ(callCount(Call::kSemctl), 0);
}

INSTANTIATE_TEST_SUITE_P(Handles, SyncRecoverBadHandle,
                         ::testing::Values(-1, -3, 2, 19, 20, 21, INT16_MAX, INT16_MIN),
                         [](const ::testing::TestParamInfo<int>& handle) {
                             return handle.param < 0 ? "Minus" + std::to_string(-handle.param)
                                                     : std::to_string(handle.param);
                         });

class SyncRecoverWithoutObjects : public rmtest::RmTest
{
};

TEST_F(SyncRecoverWithoutObjects, IsFatal)
{
    std::string out;
    captureStderr(
        [&] { out = captureStdout([] { EXPECT_EQ(catchFatal([] { rm_syncRecover(0); }), 1); }); });
    EXPECT_EQ(out, failure("Invalid Semaphore Handle", 0) + '\n');
}

TEST_F(SyncRecoverWithoutObjects, OfTheNullObjectIsIgnored)
{
    EXPECT_EQ(rm_syncRecover(RM_NULL_SYNC), 0);
}

// --- Calls that fail

struct FailingCall {
    const char* name;
    Call call;
    const char* message;
    std::vector<int> errors;
};

void PrintTo(const FailingCall& failing, std::ostream* out)
{
    *out << failing.name;
}

class SyncRecoverFailure : public SyncRecover, public ::testing::WithParamInterface<FailingCall>
{
  protected:
    // One call fails, the `skip`-th of its kind; false when the run does not come to it.
    bool failsAt(int skip, int error, int times)
    {
        int jumped = 0;
        int hits = 0;
        std::string out;
        const std::string err = captureStderr([&] {
            out = captureStdout([&] {
                const ScopedFault fault(
                    {.call = GetParam().call, .error = error, .skip = skip, .times = times});
                jumped = catchFatal([this] { rm_syncRecover(lock_); });
                hits = fault.hits();
            });
        });
        if (hits > 0) {
            EXPECT_EQ(jumped, 1);
            EXPECT_EQ(out, failure(GetParam().message, error) + '\n');
            if (!logged_) {
                EXPECT_EQ(logLines(err).front(), failure(GetParam().message, error));
            }
            logged_ = true;
            EXPECT_EQ(value(), 0);
        }
        return hits > 0;
    }

  private:
    bool logged_ = false;  // the first failure of a process is
};

TEST_P(SyncRecoverFailure, IsFatalWhicheverCallItIs)
{
    killedInside();
    int calls = 0;
    for (const int error : GetParam().errors) {
        for (const int times : {1, kForever}) {
            SCOPED_TRACE(std::strerror(error));
            for (calls = 0; failsAt(calls, error, times); ++calls) {
            }
            EXPECT_GT(calls, 0);
            EXPECT_EQ(value(), 1);  // the last run met no fault
            killedInside();
        }
    }
    rm_syncExitExcl(lock_);
}

INSTANTIATE_TEST_SUITE_P(
    Of, SyncRecoverFailure,
    ::testing::Values(FailingCall{"Semctl",
                                  Call::kSemctl,
                                  "semctl() failure",
                                  {EACCES, EFAULT, EIDRM, EINVAL, EPERM, ERANGE}},
                      FailingCall{
                          "Semop",
                          Call::kSemop,
                          "semop() failure",
                          {E2BIG, EACCES, EFAULT, EFBIG, EIDRM, EINTR, EINVAL, ENOMEM, ERANGE}}),
    [](const ::testing::TestParamInfo<FailingCall>& call) { return std::string(call.param.name); });

TEST_F(SyncRecover, WithoutAFatalTargetEndsTheProcessWhenTheSystemFailsForEver)
{
    killedInside();
    const ChildResult result = runChild([this] {
        const ScopedFault fault({.call = Call::kSemctl, .error = EIDRM, .times = kForever});
        rm_syncRecover(lock_);
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 0);
    EXPECT_LT(result.seconds, 5.0);
    EXPECT_THAT(result.out, ::testing::StartsWith(failure("semctl() failure", EIDRM)));
    EXPECT_EQ(logLines(result.err).back(), "Exiting to operating system");
}

TEST_F(SyncRecover, OfASetThatIsGoneIsFatal)
{
    const int set = os::iSem;
    std::string out;
    captureStderr([&] {
        out = captureStdout([&] {
            os::iSem = 0x7FFFFFFF;
            EXPECT_EQ(catchFatal([this] { rm_syncRecover(lock_); }), 1);
            os::iSem = set;
        });
    });
    EXPECT_EQ(out, failure("semctl() failure", EINVAL) + '\n');
}

// --- What happens between two of its looks

// Runs something just before the n-th system call of the recovery.
class Before
{
  public:
    Before(int call, const std::function<void(Call)>& act) : left_(call), act_(act) {}

    // True when it was run: the recovery has so many calls.
    bool wasRun() const { return left_ < 0; }

  private:
    std::function<bool(const CallRecord&)> count()
    {
        return [this](const CallRecord& record) {
            if (left_ >= 0 && left_-- == 0) {
                act_(record.call);
            }
            return false;
        };
    }

    int left_;
    std::function<void(Call)> act_;
    ScopedFault looks_{{.call = Call::kSemctl, .when = count()}};
    ScopedFault asks_{{.call = Call::kKill, .when = count()}};
    ScopedFault raises_{{.call = Call::kSemop, .when = count()}};
};

class SyncRecoverRace : public SyncRecover
{
  protected:
    // For every system call of a recovery: `prepare`, then the recovery with `meanwhile` before
    // that call, then `check` with its result.
    void atEveryCall(const std::function<void()>& prepare,
                     const std::function<void(Call)>& meanwhile,
                     const std::function<void(int16_t)>& check)
    {
        bool run = true;
        int calls = 0;
        for (; run && !HasFailure(); ++calls) {
            SCOPED_TRACE("before call " + std::to_string(calls));
            first_ = std::make_unique<Worker>(lock_);
            second_ = std::make_unique<Worker>(lock_);
            prepare();
            int16_t result = -1;
            captureStderr([&] {
                const Before before(calls, meanwhile);
                result = rm_syncRecover(lock_);
                run = before.wasRun();
            });
            if (run) {
                check(result);
            }
            first_.reset();
            second_.reset();
            freeTheLock();
        }
        EXPECT_GT(calls, 2);
    }

    // Whoever held it: nobody is left.
    void freeTheLock() const
    {
        while (value() < 1) {
            rm_syncExitExcl(lock_);
        }
        EXPECT_EQ(value(), 1);
    }

    std::unique_ptr<Worker> first_;
    std::unique_ptr<Worker> second_;
};

// The dead had left it, as most do, and it is free until the next one enters: at any time.
TEST_F(SyncRecoverRace, NeverFreesALockThatALivingProcessHasJustTaken)
{
    atEveryCall([this] { diedOutside(); }, [this](Call) { first_->does("enter"); },
                [this](int16_t result) {
                    EXPECT_EQ(result, 0);
                    EXPECT_EQ(value(), 0);
                });
}

TEST_F(SyncRecoverRace, NeverRaisesALockThatWasTakenAndLeft)
{
    atEveryCall([this] { diedOutside(); },
                [this](Call) {
                    first_->does("enter");
                    first_->does("leave");
                },
                [this](int16_t result) {
                    EXPECT_EQ(result, 0);
                    EXPECT_EQ(value(), 1);
                });
}

TEST_F(SyncRecoverRace, NeverFreesALockThatGoesFromOneLivingProcessToAnother)
{
    atEveryCall([this] { first_->does("enter"); },
                [this](Call) {
                    first_->does("leave");
                    second_->does("enter");
                },
                [this](int16_t result) {
                    EXPECT_EQ(result, 0);
                    EXPECT_EQ(value(), 0);
                });
}

TEST_F(SyncRecoverRace, NeverFreesALockThatTheLeavingHolderPassesOnAndEnds)
{
    atEveryCall([this] { first_->does("enter"); },
                [this](Call) {
                    first_->does("leave");
                    second_->does("enter");
                    first_->ends();
                },
                [this](int16_t result) {
                    EXPECT_EQ(result, 0);
                    EXPECT_EQ(value(), 0);
                });
}

TEST_F(SyncRecoverRace, NeverRaisesALockThatItsHolderLeavesAndEnds)
{
    atEveryCall([this] { first_->does("enter"); },
                [this](Call) {
                    first_->does("leave");
                    first_->ends();
                },
                [this](int16_t result) {
                    EXPECT_EQ(result, 0);
                    EXPECT_EQ(value(), 1);
                });
}

TEST_F(SyncRecoverRace, NeverRaisesALockThatAnotherProcessHasFreed)
{
    atEveryCall([this] { killedInside(); },
                [this](Call) { EXPECT_EQ(first_->does("recover"), "1"); },
                [this](int16_t result) {
                    EXPECT_EQ(result, 0);
                    EXPECT_EQ(value(), 1);
                });
}

// Two processes that recover are one too many, and only the very last moment cannot be told.
TEST_F(SyncRecoverRace, SeesALockThatAnotherProcessHasFreedAndTakenUntilTheLastLook)
{
    bool late = false;
    atEveryCall([this] { killedInside(); },
                [&](Call call) {
                    late = call != Call::kSemctl;
                    if (!late) {
                        first_->does("recover");
                        first_->does("enter");
                    }
                },
                [&](int16_t result) {
                    EXPECT_EQ(result, late ? 1 : 0);
                    EXPECT_EQ(value(), late ? 1 : 0);
                });
}

TEST_F(SyncRecoverRace, FreesTheLockOfAHolderThatDiesMeanwhileNowOrTheNextTime)
{
    atEveryCall([this] { first_->does("enter"); }, [this](Call) { first_->dies(); },
                [this](int16_t result) {
                    EXPECT_EQ(value(), result);
                    int16_t again = -1;
                    recoverAndLog(&again);
                    EXPECT_EQ(again, 1 - result);
                    EXPECT_EQ(value(), 1);
                });
}

TEST_F(SyncRecoverRace, FreesTheLockOfOneThatTookItAndDiedNowOrTheNextTime)
{
    atEveryCall([this] { diedOutside(); },
                [this](Call) {
                    first_->does("enter");
                    first_->dies();
                },
                [this](int16_t result) {
                    EXPECT_EQ(value(), result);
                    int16_t again = -1;
                    recoverAndLog(&again);
                    EXPECT_EQ(again, 1 - result);
                    EXPECT_EQ(value(), 1);
                });
}

}  // namespace
