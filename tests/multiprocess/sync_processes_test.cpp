// Sync objects between processes: exclusion, events, time-outs, and what one process does to the
// others when it dies, exits or deletes. Peers are forked after the objects were made, as workers
// of a server are, unless the case says otherwise.
#include "tests/support/printed.h"
#include "tests/support/support.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
using rmtest::Call;
using rmtest::callCount;
using rmtest::callTrace;
using rmtest::ChildResult;
using rmtest::inChild;
using rmtest::ipcObjects;
using rmtest::logLines;
using rmtest::Peer;
using rmtest::printedBy;
using rmtest::resetCalls;
using rmtest::runChild;
using rmtest::semValue;
using rmtest::semWaiters;
using rmtest::semZeroWaiters;
using rmtest::waitFor;

using Channel = Peer::Channel;
using Clock = std::chrono::steady_clock;

constexpr const char* kToken = ".ZNT.RM.SEM";

std::string failure(const char* function, const char* message, int error)
{
    std::array<char, 512> line;
    std::snprintf(line.data(), line.size(), "**** %s() %s, errno=%d (%s)\n", function, message,
                  error, std::strerror(error));
    return line.data();
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Signals that the handler has seen, in all processes; made by the case that wants to know.
volatile sig_atomic_t* signalsSeen = nullptr;

void noteSignal(int /*signalNumber*/)
{
    if (signalsSeen != nullptr) {
        *signalsSeen = *signalsSeen + 1;
    }
}

// Memory that the processes forked from now on share.
template <typename T>
T* sharedZero()
{
    void* page =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(page, MAP_FAILED);
    return page == MAP_FAILED ? nullptr : static_cast<T*>(page);
}

// A handler that does not let interrupted calls go on by themselves.
void handle(int signalNumber)
{
    struct sigaction action = {};
    action.sa_handler = noteSignal;
    sigaction(signalNumber, &action, nullptr);
}

void say(Channel& channel, int16_t result)
{
    channel.say(std::to_string(result));
}

// Peers that enter a lock or wait for an event at once and say the result.
std::unique_ptr<Peer> entering(SyncHandle lock, uint32_t timeout)
{
    return std::make_unique<Peer>(
        [=](Channel& channel) { say(channel, rm_syncEnterExcl(lock, timeout)); });
}

std::unique_ptr<Peer> waiting(SyncHandle event, uint32_t timeout)
{
    return std::make_unique<Peer>([=](Channel& channel) {
        handle(SIGUSR1);
        channel.say("ready");
        say(channel, rm_syncWait(event, timeout));
        channel.say(std::to_string(alarm(0)));
    });
}

// A peer that holds the lock until it hears something, and then leaves it.
std::unique_ptr<Peer> holding(SyncHandle lock)
{
    auto peer = std::make_unique<Peer>([=](Channel& channel) {
        say(channel, rm_syncEnterExcl(lock, RM_WAIT_FOREVER));
        channel.hear();
        rm_syncExitExcl(lock);
        channel.say("left");
    });
    EXPECT_EQ(peer->hear(), "0");
    return peer;
}

bool entersWait(SyncHandle lock, int processes = 1)
{
    return waitFor([=] { return semWaiters(os::iSem, lock) == processes; });
}

bool eventIsAwaited(SyncHandle event, int processes = 1)
{
    return waitFor([=] { return semZeroWaiters(os::iSem, event) == processes; });
}

int valueOf(SyncHandle handle)
{
    return semValue(os::iSem, handle);
}

class SyncProcessCase : public rmtest::RmTest
{
  protected:
    void TearDown() override
    {
        alarm(0);
        EXPECT_EQ(os::checkSync(), 0U);
        if (os::iSem != -1 && semValue(os::iSem, 0) == -1) {
            printedBy([] { rm_syncTerminate(); });
        }
        EXPECT_EQ(rm_syncTerminate(), 0);
        RmTest::TearDown();
    }
};

class SyncLockProcesses : public SyncProcessCase
{
};

class SyncEventProcesses : public SyncProcessCase
{
};

class SyncSharing : public SyncProcessCase
{
};

class SyncRemoval : public SyncProcessCase
{
};

class SyncKilledHolder : public SyncProcessCase
{
};

class SyncSignals : public SyncProcessCase
{
};

// --- Locks

TEST_F(SyncLockProcesses, ALockHeldElsewhereIsWaitedFor)
{
    const SyncHandle lock = rm_syncCreate("lock");
    const auto holder = holding(lock);
    const auto peer = entering(lock, RM_WAIT_FOREVER);
    ASSERT_TRUE(entersWait(lock));
    holder->say("leave");
    EXPECT_EQ(peer->hear(), "0");
    EXPECT_EQ(valueOf(lock), 0);
    holder->wait();
    peer->wait();
}

TEST_F(SyncLockProcesses, ALockHeldElsewhereIsWaitedForWithATimeout)
{
    const SyncHandle lock = rm_syncCreate("lock");
    const auto holder = holding(lock);
    const auto peer = entering(lock, 30'000);
    ASSERT_TRUE(entersWait(lock));
    holder->say("leave");
    EXPECT_EQ(peer->hear(), "0");
    holder->wait();
    peer->wait();
}

TEST_F(SyncLockProcesses, AFreeLockIsEnteredAtOnceAfterItsHolderLeft)
{
    const SyncHandle lock = rm_syncCreate("lock");
    const auto holder = holding(lock);
    holder->say("leave");
    EXPECT_EQ(holder->hear(), "left");
    EXPECT_EQ(rm_syncEnterExcl(lock, 1000), 0);
    holder->wait();
}

TEST_F(SyncLockProcesses, EnteringTimesOutAfterTwoSecondsWhenHeldElsewhere)
{
    const SyncHandle lock = rm_syncCreate("lock");
    const auto holder = holding(lock);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(rm_syncEnterExcl(lock, 1500), RM_TIMEOUT);
    const double seconds = secondsSince(start);
    EXPECT_GE(seconds, 1.95);
    EXPECT_LT(seconds, 4.0);
    EXPECT_EQ(valueOf(lock), 0);
    holder->say("leave");
    holder->wait();
}

// 0 does not mean a single attempt. Two seconds would be more than any rounding makes of it.
TEST_F(SyncLockProcesses, ATimeoutOfZeroWaitsWithoutLimit)
{
    const SyncHandle lock = rm_syncCreate("lock");
    const auto holder = holding(lock);
    const auto peer = entering(lock, 0);
    ASSERT_TRUE(entersWait(lock));
    EXPECT_EQ(rm_syncEnterExcl(lock, 1500), RM_TIMEOUT);
    EXPECT_EQ(semWaiters(os::iSem, lock), 1);
    holder->say("leave");
    EXPECT_EQ(peer->hear(), "0");
    holder->wait();
    peer->wait();
}

TEST_F(SyncLockProcesses, ATimeoutThatOverflowsWaitsWithoutLimit)
{
    const SyncHandle lock = rm_syncCreate("lock");
    const auto holder = holding(lock);
    const auto peer = entering(lock, 0xFFFFFC1A);  // 998 less than it takes, in signed numbers
    ASSERT_TRUE(entersWait(lock));
    EXPECT_EQ(rm_syncEnterExcl(lock, 1500), RM_TIMEOUT);
    EXPECT_EQ(semWaiters(os::iSem, lock), 1);
    holder->say("leave");
    EXPECT_EQ(peer->hear(), "0");
    holder->wait();
    peer->wait();
}

TEST_F(SyncLockProcesses, OneExitLetsOneWaiterIn)
{
    const SyncHandle lock = rm_syncCreate("lock");
    rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
    const auto first = entering(lock, RM_WAIT_FOREVER);
    const auto second = entering(lock, RM_WAIT_FOREVER);
    ASSERT_TRUE(entersWait(lock, 2));
    rm_syncExitExcl(lock);
    EXPECT_TRUE(entersWait(lock, 1));
    EXPECT_EQ(valueOf(lock), 0);
    rm_syncExitExcl(lock);
    EXPECT_EQ(first->hear(), "0");
    EXPECT_EQ(second->hear(), "0");
    first->wait();
    second->wait();
}

TEST_F(SyncLockProcesses, ALockMayBeLeftByAnotherProcess)
{
    const SyncHandle lock = rm_syncCreate("lock");
    rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
    EXPECT_EQ(runChild([=] { EXPECT_EQ(rm_syncExitExcl(lock), 0); }).status, 0);
    EXPECT_EQ(rm_syncEnterExcl(lock, 1000), 0);
}

TEST_F(SyncLockProcesses, LocksDoNotHinderEachOther)
{
    const SyncHandle one = rm_syncCreate("one");
    const SyncHandle two = rm_syncCreate("two");
    const auto holder = holding(one);
    EXPECT_EQ(rm_syncEnterExcl(two, 1000), 0);
    holder->say("leave");
    holder->wait();
}

// The workers count without any other protection, each step being a read, a pause and a write.
TEST_F(SyncLockProcesses, ObjectsMadeBeforeTheForkExclude)
{
    constexpr std::size_t kWorkers = 4;
    constexpr int kRounds = 2000;
    const SyncHandle lock = rm_syncCreate("lock");
    volatile int* count = sharedZero<int>();
    ASSERT_NE(count, nullptr);
    std::array<std::unique_ptr<Peer>, kWorkers> workers;
    for (auto& worker : workers) {
        worker = std::make_unique<Peer>([=](Channel& channel) {
            channel.hear();
            for (int round = 0; round < kRounds; ++round) {
                EXPECT_EQ(rm_syncEnterExcl(lock, round % 2 == 0 ? RM_WAIT_FOREVER : 20'000U), 0);
                const int seen = *count;
                if (round % 64 == 0) {
                    sched_yield();
                }
                *count = seen + 1;
                rm_syncExitExcl(lock);
            }
        });
    }
    for (const auto& worker : workers) {
        worker->say("go");
    }
    for (const auto& worker : workers) {
        EXPECT_EQ(worker->wait().status, 0);
    }
    EXPECT_EQ(*count, static_cast<int>(kWorkers) * kRounds);
    EXPECT_EQ(valueOf(lock), 1);
}

// --- Events

TEST_F(SyncEventProcesses, AWaiterBlocksUntilTheEventIsSignalled)
{
    const SyncHandle event = rm_syncCreate("event");
    const auto peer = waiting(event, RM_WAIT_FOREVER);
    EXPECT_EQ(peer->hear(), "ready");
    ASSERT_TRUE(eventIsAwaited(event));
    rm_syncResume(event);
    EXPECT_EQ(peer->hear(), "0");
    peer->wait();
}

TEST_F(SyncEventProcesses, AWaiterThatWakesResetsTheEvent)
{
    const SyncHandle event = rm_syncCreate("event");
    const auto peer = waiting(event, 30'000);
    ASSERT_TRUE(eventIsAwaited(event));
    rm_syncResume(event);
    peer->wait();
    EXPECT_EQ(valueOf(event), 1);
}

TEST_F(SyncEventProcesses, ASignalledEventIsSeenByAProcessThatComesLater)
{
    const SyncHandle event = rm_syncCreate("event");
    rm_syncResume(event);
    EXPECT_EQ(runChild([=] { EXPECT_EQ(rm_syncWait(event, 1000), 0); }).status, 0);
    EXPECT_EQ(valueOf(event), 1);
}

TEST_F(SyncEventProcesses, AnEventThatWasStartedAgainIsWaitedFor)
{
    const SyncHandle event = rm_syncCreate("event");
    rm_syncResume(event);
    rm_syncStart(event);
    const auto peer = waiting(event, RM_WAIT_FOREVER);
    ASSERT_TRUE(eventIsAwaited(event));
    rm_syncResume(event);
    EXPECT_EQ(peer->hear(), "ready");
    EXPECT_EQ(peer->hear(), "0");
    peer->wait();
}

TEST_F(SyncEventProcesses, WaitingTimesOutWhenNobodySignals)
{
    const SyncHandle event = rm_syncCreate("event");
    const auto peer = waiting(event, 1500);
    EXPECT_EQ(peer->hear(), "ready");
    EXPECT_EQ(peer->hear(), "1");
    EXPECT_GE(peer->wait().seconds, 1.95);
    EXPECT_EQ(valueOf(event), 1);
}

class SyncTwoWaiters : public SyncProcessCase
{
  protected:
    // Two processes wait for one event, which is then signalled once.
    void releaseBoth()
    {
        event_ = rm_syncCreate("event");
        const auto first = waiting(event_, RM_WAIT_FOREVER);
        const auto second = waiting(event_, RM_WAIT_FOREVER);
        ASSERT_TRUE(eventIsAwaited(event_, 2));
        ASSERT_EQ(rm_syncResume(event_), 0);
        for (const auto& peer : {first.get(), second.get()}) {
            EXPECT_EQ(peer->hear(), "ready");
            EXPECT_EQ(peer->hear(), "0");
            peer->wait();
        }
    }

    SyncHandle event_ = -1;
};

TEST_F(SyncTwoWaiters, AreReleasedByOneResumeAndLeaveTheValueAtTwo)
{
    releaseBoth();
    EXPECT_EQ(valueOf(event_), 2);
}

TEST_F(SyncTwoWaiters, MakeAFurtherResumeDoNothing)
{
    releaseBoth();
    EXPECT_EQ(rm_syncResume(event_), 0);
    EXPECT_EQ(valueOf(event_), 2);
}

TEST_F(SyncTwoWaiters, MakeAFurtherStartDoNothing)
{
    releaseBoth();
    EXPECT_EQ(rm_syncStart(event_), 0);
    EXPECT_EQ(valueOf(event_), 2);
}

TEST_F(SyncTwoWaiters, LeaveAnEventThatResumeDoesNotSignalToANewWaiter)
{
    releaseBoth();
    const auto peer = waiting(event_, RM_WAIT_FOREVER);
    ASSERT_TRUE(eventIsAwaited(event_));
    rm_syncResume(event_);
    EXPECT_EQ(semZeroWaiters(os::iSem, event_), 1);
    // Brought back to 1, it works again.
    rm_syncEnterExcl(event_, RM_WAIT_FOREVER);
    rm_syncResume(event_);
    EXPECT_EQ(peer->hear(), "ready");
    EXPECT_EQ(peer->hear(), "0");
    peer->wait();
}

// --- Signals

TEST_F(SyncSignals, DoNotEndAWaitForALock)
{
    signalsSeen = sharedZero<sig_atomic_t>();
    ASSERT_NE(signalsSeen, nullptr);
    const SyncHandle lock = rm_syncCreate("lock");
    rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
    Peer peer([=](Channel& channel) {
        handle(SIGUSR1);
        resetCalls();
        say(channel, rm_syncEnterExcl(lock, RM_WAIT_FOREVER));
        say(channel, static_cast<int16_t>(callCount(Call::kSemop)));
    });
    ASSERT_TRUE(entersWait(lock));
    peer.kill(SIGUSR1);
    // The handler runs when the first attempt has ended; who waits after that has tried again.
    ASSERT_TRUE(waitFor([] { return *signalsSeen == 1; }));
    ASSERT_TRUE(entersWait(lock));
    rm_syncExitExcl(lock);
    EXPECT_EQ(peer.hear(), "0");
    EXPECT_EQ(peer.hear(), "2");
    peer.wait();
}

// Signals come faster than the time-out: if each began the wait anew, it would last as long as they
// come.
TEST_F(SyncSignals, DoNotExtendATimedWaitForALock)
{
    const SyncHandle lock = rm_syncCreate("lock");
    rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
    Peer peer([=](Channel& channel) {
        handle(SIGUSR1);
        channel.say("ready");
        const Clock::time_point start = Clock::now();
        resetCalls();
        const int16_t result = rm_syncEnterExcl(lock, 2000);
        const double seconds = secondsSince(start);
        EXPECT_EQ(result, RM_TIMEOUT);
        EXPECT_GE(seconds, 1.95);
        EXPECT_LT(seconds, 6.0);
        EXPECT_GT(callCount(Call::kSemtimedop), 2);
    });
    EXPECT_EQ(peer.hear(), "ready");
    const Clock::time_point start = Clock::now();
    waitFor([&] {
        peer.kill(SIGUSR1);
        return !peer.running() || secondsSince(start) > 12.0;
    });
    EXPECT_EQ(peer.wait().status, 0);
}

TEST_F(SyncSignals, EndAWaitForAnEventWithoutLimit)
{
    const SyncHandle event = rm_syncCreate("event");
    const auto peer = waiting(event, RM_WAIT_FOREVER);
    ASSERT_TRUE(eventIsAwaited(event));
    peer->kill(SIGUSR1);
    EXPECT_EQ(peer->hear(), "ready");
    EXPECT_EQ(peer->hear(), "1");
    peer->wait();
    EXPECT_EQ(valueOf(event), 1);
}

TEST_F(SyncSignals, EndATimedWaitForAnEventAndLeaveItsAlarm)
{
    const SyncHandle event = rm_syncCreate("event");
    const auto peer = waiting(event, 100'000);
    ASSERT_TRUE(eventIsAwaited(event));
    peer->kill(SIGUSR1);
    EXPECT_EQ(peer->hear(), "ready");
    EXPECT_EQ(peer->hear(), "1");
    EXPECT_GT(std::stoi(peer->hear()), 0);
    peer->wait();
}

// --- A holder that dies

TEST_F(SyncKilledHolder, LeavesTheLockHeldAndItsPeersTimeOut)
{
    const SyncHandle lock = rm_syncCreate("lock");
    const auto holder = holding(lock);
    holder->kill(SIGKILL);
    EXPECT_EQ(holder->wait().signal, SIGKILL);
    EXPECT_EQ(valueOf(lock), 0);
    const auto first = entering(lock, 1000);
    const auto second = entering(lock, 1000);
    EXPECT_EQ(first->hear(), "1");
    EXPECT_EQ(second->hear(), "1");
    first->wait();
    second->wait();
}

TEST_F(SyncKilledHolder, CanBeSucceededByAProcessThatLeavesTheLockForIt)
{
    const SyncHandle lock = rm_syncCreate("lock");
    const auto holder = holding(lock);
    holder->kill(SIGKILL);
    holder->wait();
    const auto peer = entering(lock, RM_WAIT_FOREVER);
    ASSERT_TRUE(entersWait(lock));
    rm_syncExitExcl(lock);
    EXPECT_EQ(peer->hear(), "0");
    peer->wait();
}

TEST_F(SyncKilledHolder, KilledWhileItWaitsLeavesNoTrace)
{
    const SyncHandle lock = rm_syncCreate("lock");
    rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
    const auto peer = entering(lock, 30'000);
    ASSERT_TRUE(entersWait(lock));
    peer->kill(SIGKILL);
    peer->wait();
    EXPECT_EQ(semWaiters(os::iSem, lock), 0);
    rm_syncExitExcl(lock);
    EXPECT_EQ(valueOf(lock), 1);
}

// --- Processes that meet

TEST_F(SyncSharing, AChildFindsTheObjectsOfItsParent)
{
    rm_syncCreate("one");
    const SyncHandle two = rm_syncCreate("two");
    EXPECT_EQ(runChild([=] {
                  EXPECT_EQ(rm_syncOpen("two"), two);
                  EXPECT_EQ(os::checkSync(), 0U);
                  EXPECT_EQ(rm_syncEnterExcl(two, 1000), 0);
              }).status,
              0);
    EXPECT_EQ(valueOf(two), 0);
}

// A process that was not forked from the one that made the objects.
class SyncStranger : public SyncProcessCase
{
  protected:
    void SetUp() override
    {
        SyncProcessCase::SetUp();
        stranger_ = std::make_unique<Peer>([](Channel& channel) {
            channel.hear();
            if (std::filesystem::exists("prefix")) {
                rm_tokenName(rmtest::readFile("prefix").c_str());
            }
            say(channel, rm_syncCreate("lock"));
            channel.say(std::to_string(os::iSem));
            channel.hear();
            say(channel, rm_syncEnterExcl(0, 1000));
        });
    }

    void TearDown() override
    {
        stranger_.reset();
        SyncProcessCase::TearDown();
    }

    // Its handle, after it has made its object.
    std::string create()
    {
        stranger_->say("create");
        return stranger_->hear();
    }

    std::string set() { return stranger_->hear(); }

    std::string enter()
    {
        stranger_->say("enter");
        return stranger_->hear();
    }

    std::unique_ptr<Peer> stranger_;
};

TEST_F(SyncStranger, MeetsOnTheSameSetByTheTokenFile)
{
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(create(), "0");
    EXPECT_EQ(set(), std::to_string(os::iSem));
}

// Objects are therefore made once, before the server forks.
TEST_F(SyncStranger, ThatCreatesAgainAddsOne)
{
    rm_syncCreate("lock");
    create();
    EXPECT_EQ(valueOf(0), 2);
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
    set();
    EXPECT_EQ(enter(), "0");
}

TEST_F(SyncStranger, WithAnotherPrefixHasASetOfItsOwn)
{
    rmtest::writeFile("prefix", "other");
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(create(), "0");
    EXPECT_NE(set(), std::to_string(os::iSem));
    EXPECT_EQ(valueOf(0), 1);
    EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
    EXPECT_EQ(enter(), "0");
    stranger_->wait();
    // It ended without giving back what it made.
    for (const rmtest::IpcObject& object : ipcObjects()) {
        if (object.id != os::iSem) {
            rmtest::removeIpcObject(object);
        }
    }
    EXPECT_TRUE(std::filesystem::remove("other.ZNT.RM.SEM"));
}

TEST_F(SyncStranger, ThatComesFirstIsJoined)
{
    EXPECT_EQ(create(), "0");
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(set(), std::to_string(os::iSem));
    EXPECT_EQ(valueOf(0), 2);
}

// --- A set that another process removes

struct Blocked {
    const char* name;
    void (*wait)();
    const char* function;
    bool forLock;
};

void PrintTo(const Blocked& blocked, std::ostream* out)
{
    *out << blocked.name;
}

class SyncRemovedWhileWaiting : public SyncProcessCase,
                                public ::testing::WithParamInterface<Blocked>
{
};

TEST_P(SyncRemovedWhileWaiting, IsFatal)
{
    rm_syncCreate("lock");
    rm_syncCreate("event");
    rm_syncEnterExcl(0, RM_WAIT_FOREVER);
    Peer peer([](Channel& /*channel*/) { GetParam().wait(); });
    ASSERT_TRUE(GetParam().forLock ? entersWait(0) : eventIsAwaited(1));
    // By a process whose only object is the lock: it does not touch the event before.
    EXPECT_EQ(runChild([] {
                  os::rmSem[1] = nullptr;
                  os::nSems = 1;
                  EXPECT_EQ(rm_syncDelete(0), 0);
              }).status,
              0);
    const ChildResult result = peer.wait();
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out,
                ::testing::StartsWith(failure(GetParam().function, "semop() failure", EIDRM)));
    EXPECT_EQ(logLines(result.err).back(), "Exiting to operating system");
}

INSTANTIATE_TEST_SUITE_P(
    In, SyncRemovedWhileWaiting,
    ::testing::Values(
        Blocked{"Enter", [] { rm_syncEnterExcl(0, RM_WAIT_FOREVER); }, "rm_syncEnterExcl", true},
        Blocked{"EnterTimed", [] { rm_syncEnterExcl(0, 30'000); }, "rm_syncEnterExcl", true},
        Blocked{"Wait", [] { rm_syncWait(1, RM_WAIT_FOREVER); }, "rm_syncWait", false},
        Blocked{"WaitTimed", [] { rm_syncWait(1, 30'000); }, "rm_syncWait", false}),
    [](const ::testing::TestParamInfo<Blocked>& blocked) {
        return std::string(blocked.param.name);
    });

struct Later {
    const char* name;
    void (*act)();
    const char* function;
    const char* message;
};

void PrintTo(const Later& later, std::ostream* out)
{
    *out << later.name;
}

class SyncRemovedBefore : public SyncProcessCase, public ::testing::WithParamInterface<Later>
{
};

TEST_P(SyncRemovedBefore, IsFatalAndTheProcessStillEnds)
{
    rm_syncCreate("lock");
    Peer peer([](Channel& channel) {
        channel.hear();
        GetParam().act();
    });
    rm_syncTerminate();
    peer.say("go on");
    const ChildResult result = peer.wait();
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out,
                ::testing::StartsWith(failure(GetParam().function, GetParam().message, EINVAL)));
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

INSTANTIATE_TEST_SUITE_P(
    In, SyncRemovedBefore,
    ::testing::Values(
        Later{"Create", [] { rm_syncCreate("another"); }, "rm_syncCreate", "semop() failure"},
        Later{"Enter", [] { rm_syncEnterExcl(0, RM_WAIT_FOREVER); }, "rm_syncEnterExcl",
              "semop() failure"},
        Later{"EnterTimed", [] { rm_syncEnterExcl(0, 1000); }, "rm_syncEnterExcl",
              "semop() failure"},
        Later{"Exit", [] { rm_syncExitExcl(0); }, "rm_syncExitExcl", "semop() failure"},
        Later{"Wait", [] { rm_syncWait(0, RM_WAIT_FOREVER); }, "rm_syncWait", "semop() failure"},
        Later{"Start", [] { rm_syncStart(0); }, "rm_syncStart", "semctl() failure"},
        Later{"Resume", [] { rm_syncResume(0); }, "rm_syncResume", "semctl() failure"},
        Later{"Delete", [] { rm_syncDelete(0); }, "rm_syncDelete", "semctl() failure"},
        Later{"Terminate", [] { rm_syncTerminate(); }, "rm_syncDelete", "semctl() failure"},
        Later{"ProcessExit", [] { rm_exit(0); }, "rm_syncDelete", "semctl() failure"}),
    [](const ::testing::TestParamInfo<Later>& later) { return std::string(later.param.name); });

TEST_F(SyncRemoval, ByTheExitOfAChildIsForAllProcesses)
{
    rm_syncCreate("lock");
    const int set = os::iSem;
    EXPECT_EQ(runChild([] { rm_exit(0); }).status, 0);
    EXPECT_EQ(semValue(set, 0), -1);
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

TEST_F(SyncRemoval, DoesNotHappenWhenAWorkerEndsWithoutAnExit)
{
    const SyncHandle lock = rm_syncCreate("lock");
    EXPECT_EQ(runChild([] { _exit(0); }).status, 0);
    EXPECT_EQ(rm_syncEnterExcl(lock, 1000), 0);
    EXPECT_TRUE(std::filesystem::exists(kToken));
}

TEST_F(SyncRemoval, HappensWithTheLastObjectOfAnyProcess)
{
    const SyncHandle lock = rm_syncCreate("lock");
    EXPECT_EQ(runChild([=] { EXPECT_EQ(rm_syncDelete(lock), 0); }).status, 0);
    EXPECT_EQ(semValue(os::iSem, lock), -1);
    EXPECT_FALSE(std::filesystem::exists(kToken));
}

// An object goes from one process's table only, its value goes for all: to the others the lock is
// held.
TEST_F(SyncRemoval, OfOneObjectLeavesItHeldInTheOtherProcesses)
{
    rm_syncCreate("keeper");
    const SyncHandle lock = rm_syncCreate("lock");
    EXPECT_EQ(runChild([=] { EXPECT_EQ(rm_syncDelete(lock), 0); }).status, 0);
    EXPECT_EQ(rm_syncOpen("lock"), lock);
    EXPECT_EQ(rm_syncEnterExcl(lock, 1), RM_TIMEOUT);
}

TEST_F(SyncRemoval, OfOneObjectSignalsItsWaiters)
{
    rm_syncCreate("keeper");
    const SyncHandle event = rm_syncCreate("event");
    const auto peer = waiting(event, RM_WAIT_FOREVER);
    ASSERT_TRUE(eventIsAwaited(event));
    rm_syncDelete(event);
    EXPECT_EQ(peer->hear(), "ready");
    EXPECT_EQ(peer->hear(), "0");
    peer->wait();
}

// Its deletion signals the event first, so the waiter may just get away or meet the missing set.
TEST_F(SyncRemoval, OfAllObjectsKeepsNoWaiterWaiting)
{
    const SyncHandle event = rm_syncCreate("event");
    Peer peer([=](Channel& /*channel*/) { rm_syncWait(event, RM_WAIT_FOREVER); });
    ASSERT_TRUE(eventIsAwaited(event));
    rm_syncTerminate();
    const ChildResult result = peer.wait();
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.status, 0);
}

TEST_F(SyncRemoval, LetsTheNextServerOfThatPrefixStartAfresh)
{
    rm_syncCreate("lock");
    rm_syncExitExcl(0);
    const auto holder = holding(0);
    EXPECT_EQ(runChild([] { rm_exit(0); }).status, 0);
    printedBy([] { rm_syncTerminate(); });
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(valueOf(0), 1);
    holder->kill(SIGKILL);
    holder->wait();
}

TEST_F(SyncRemoval, OfOneObjectDoesNotWakeWhoWaitsForItAsALock)
{
    rm_syncCreate("keeper");
    const SyncHandle lock = rm_syncCreate("lock");
    rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
    const auto peer = entering(lock, 2000);
    ASSERT_TRUE(entersWait(lock));
    rm_syncDelete(lock);
    EXPECT_EQ(semWaiters(os::iSem, lock), 1);
    EXPECT_EQ(peer->hear(), "1");
    peer->wait();
}

// --- A host that goes on when another process has removed its set

class SyncGone : public SyncProcessCase
{
  protected:
    void SetUp() override
    {
        SyncProcessCase::SetUp();
        for (const char* name : {"a", "b", "c"}) {
            rm_syncCreate(name);
        }
        inChild([] { rm_exit(0); });
    }

    static void expectForgotten()
    {
        EXPECT_THAT(os::rmSem, ::testing::Each(nullptr));
        EXPECT_EQ(os::nSems, 0);
        EXPECT_EQ(os::iSem, -1);
        EXPECT_EQ(os::gfpRMSemTokenFile, nullptr);
        EXPECT_EQ(os::checkSync(), 0U);
    }

    static void expectUsable()
    {
        for (int16_t handle = 0; handle < os::kSyncSlots; ++handle) {
            EXPECT_EQ(rm_syncCreate("lock"), handle);
            EXPECT_EQ(valueOf(handle), 1);
        }
        EXPECT_EQ(rm_syncEnterExcl(0, 1000), 0);
        EXPECT_TRUE(std::filesystem::exists(kToken));
    }

    const std::string kDeletionFailure_ = failure("rm_syncDelete", "semctl() failure", EINVAL);
};

TEST_F(SyncGone, IsForgottenByTheTerminationThatFindsOut)
{
    EXPECT_EQ(printedBy([] { rm_syncTerminate(); }), kDeletionFailure_);
    expectForgotten();
    expectUsable();
}

TEST_F(SyncGone, MakesTheNextTerminationDoNothing)
{
    printedBy([] { rm_syncTerminate(); });
    resetCalls();
    EXPECT_EQ(rm_syncTerminate(), 0);
    EXPECT_TRUE(callTrace().empty());
}

// Until the last one is deleted the others are objects of that set, which they tell when they are
// used.
TEST_F(SyncGone, IsForgottenByTheLastDeletion)
{
    EXPECT_EQ(printedBy([] { rm_syncDelete(1); }), kDeletionFailure_);
    EXPECT_EQ(printedBy([] { rm_syncDelete(0); }), kDeletionFailure_);
    EXPECT_EQ(rm_syncOpen("c"), 2);
    EXPECT_EQ(printedBy([] { rm_syncExitExcl(2); }),
              failure("rm_syncExitExcl", "semop() failure", EINVAL));
    EXPECT_EQ(printedBy([] { rm_syncDelete(2); }), kDeletionFailure_);
    expectForgotten();
    expectUsable();
}

TEST_F(SyncGone, IsForgottenByAnExitThatArrivesAtTheFatalTarget)
{
    const ChildResult result = runChild([] {
        printedBy([] { rm_exit(0); });
        expectForgotten();
        if (!HasFailure()) {
            rm_exit(7);
        }
    });
    EXPECT_EQ(result.status, 7);
}

TEST_F(SyncStranger, KeepsItsSetAndTokenFileWhenOneTerminatesThatHadASetBefore)
{
    rm_syncCreate("lock");
    inChild([] { rm_exit(0); });
    EXPECT_EQ(create(), "0");
    printedBy([] { rm_syncTerminate(); });
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(set(), std::to_string(os::iSem));
    EXPECT_EQ(valueOf(0), 2);
}

// Somebody has removed the set alone; the token file has led the stranger to a new one.
TEST_F(SyncStranger, KeepsTheTokenFileByWhichItHasFollowedASetThatHadGone)
{
    rm_syncCreate("lock");
    ASSERT_EQ(semctl(os::iSem, 0, IPC_RMID), 0);
    EXPECT_EQ(create(), "0");
    printedBy([] { rm_syncTerminate(); });
    EXPECT_EQ(rm_syncCreate("lock"), 0);
    EXPECT_EQ(set(), std::to_string(os::iSem));
    EXPECT_EQ(valueOf(0), 2);
}
}  // namespace
