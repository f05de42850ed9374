// The teardown among several processes that share everything: what the end of one does to the
// others, and that each of them can still end. The case's own process makes nothing; hosts and
// workers are its children.
#include "tests/rmsrv/teardown_case.h"

#include <memory>

#include <sched.h>
#include <signal.h>
#include <sys/mman.h>

using namespace teardown;

namespace
{
using rmtest::expectEnd;
using rmtest::Peer;
using rmtest::waitFor;

using Channel = Peer::Channel;

class TeardownWorker : public TeardownTest
{
};

class TeardownShared : public TeardownTest
{
};

class TeardownKilled : public TeardownTest
{
};

// What a child says of its tables, and of the termination of its process.
std::string stateHere()
{
    const auto alive = [](int id) {
        msqid_ds state = {};
        return msgctl(id, IPC_STAT, &state) == 0;
    };
    shmid_ds segment = {};
    const bool attached = shmctl(os::rmGshm[0].id, IPC_STAT, &segment) == 0 &&
                          (segment.shm_perm.mode & SHM_DEST) == 0;
    return std::to_string(rm_getOSTerm()) + (attached ? " segment" : "") +
           (alive(os::rmQueue[0].id) ? " queue" : "") +
           (rmtest::semValue(os::iSem, 0) >= 0 ? " set" : "");
}

bool sleeps(const Peer& peer)
{
    return waitFor([&peer] {
        return rmtest::readFile("/proc/" + std::to_string(peer.pid()) + "/stat").find(") S ") !=
               std::string::npos;
    });
}

// An exit takes the outcome of a process's expectations along; a failed one is told first.
void endWhenFailed()
{
    if (::testing::Test::HasFailure()) {
        std::fflush(nullptr);
        _exit(rmtest::kChildTestFailed);
    }
}

[[noreturn]] void exitWith(int16_t code)
{
    endWhenFailed();
    rm_exit(code);
}

// A host that has everything and forks a worker which does `work` and ends with `status`. After
// that the host does `then`.
std::unique_ptr<Peer> hostWithWorker(const std::function<void()>& work, int status,
                                     const std::function<void(Channel&)>& then)
{
    return std::make_unique<Peer>([=](Channel& channel) {
        makeEverything();
        rm_foregroundThread();  // the host is the foreground
        Peer worker([&work](Channel&) { work(); });
        const ChildResult ended = worker.wait();
        expectEnd(ended, status);
        endWhenFailed();
        std::fputs(ended.out.c_str(), stdout);
        then(channel);
    });
}

// --- A worker's fatal error

TEST_F(TeardownWorker, WithATargetIsMarkedAndLeavesEverythingStanding)
{
    const auto host = hostWithWorker(
        [] {
            static volatile int jumped = 0;
            captureStderr([] { jumped = catchFatal([] { fatalRMExit("a problem"); }); });
            EXPECT_EQ(jumped, 1);
            EXPECT_EQ(stateHere(), "2 segment queue set");
        },
        0,
        [](Channel& channel) {
            channel.say(stateHere());
            std::array<char, 8> text = {};
            char* pointer = text.data();
            int16_t length = 0;
            EXPECT_EQ(rm_queueRead(1, &pointer, &length, nullptr, 0), RM_SUCCESS);
            EXPECT_STREQ(text.data(), "unread");
            EXPECT_EQ(rm_syncEnterExcl(2, 1000), RM_SUCCESS);
            EXPECT_EQ(rm_syncExitExcl(2), RM_SUCCESS);
            exitWith(5);
        });
    EXPECT_EQ(host->hear(), "0 segment queue set");
    expectEnd(host->wait(), 5);
    expectNothingLeft();
}

TEST_F(TeardownWorker, WithATargetThatExitsTakesEverythingDownForAll)
{
    const auto host = hostWithWorker(
        [] { runHost({.log = false, .fatalTarget = true}, [] { fatalRMExit("a problem"); }); },
        kShutdownCode, [](Channel& channel) { channel.say(stateHere()); });
    EXPECT_EQ(host->hear(), "0");
    expectEnd(host->wait(), 0);
    expectNothingLeft();
}

TEST_F(TeardownWorker, WithoutATargetTakesEverythingDownForAll)
{
    const auto host = hostWithWorker([] { fatalRMExit("a problem"); }, 0,
                                     [](Channel& channel) { channel.say(stateHere()); });
    EXPECT_EQ(host->hear(), "0");
    expectEnd(host->wait(), 0);
    expectNothingLeft();
}

TEST_F(TeardownWorker, ThatEndsByItselfTakesNothingDown)
{
    const auto host = hostWithWorker([] {}, 0,
                                     [](Channel& channel) {
                                         channel.say(stateHere());
                                         exitWith(5);
                                     });
    EXPECT_EQ(host->hear(), "0 segment queue set");
    expectEnd(host->wait(), 5);
    expectNothingLeft();
}

TEST_F(TeardownWorker, AHostWhoseWorkerHasTakenEverythingDownStillEnds)
{
    const auto host = hostWithWorker([] { rm_exit(7); }, 7,
                                     [](Channel& /*channel*/) {
                                         startRecord();
                                         std::atexit(printRecord);
                                         exitWith(5);
                                     });
    const End end = endOf(host->wait());
    // A segment is removed once more as long as it is attached; the set has gone.
    expectEndSoon(end.child, 0);
    EXPECT_THAT(end.failures,
                ElementsAre("**** rm_syncDelete() semctl() failure, errno=22 (Invalid argument)"));
    EXPECT_EQ(end.memoryLeft, 0);
    EXPECT_EQ(end.steps.back(), "memory freed");
    removeEverythingLeft();
}

// --- Those that wait, and those that look

// Workers of one host, each in a wait of its own. They have targets: a worker that exited through
// the library would take down what the host is about to.
TEST_F(TeardownShared, WhoeverWaitsIsWokenAndEnds)
{
    Peer host([](Channel& channel) {
        makeEverything();
        Peer reader([](Channel& worker) {
            worker.say("ready");
            std::array<char, 64> text = {};
            char* pointer = text.data();
            int16_t length = 0;
            catchFatal([&] { rm_queueRead(0, &pointer, &length, nullptr, 1); });
        });
        EXPECT_EQ(rm_syncEnterExcl(2, RM_WAIT_FOREVER), RM_SUCCESS);
        Peer locker([](Channel& worker) {
            worker.say("ready");
            catchFatal([] { rm_syncEnterExcl(2, RM_WAIT_FOREVER); });
        });
        EXPECT_EQ(reader.hear(), "ready");
        EXPECT_EQ(locker.hear(), "ready");
        EXPECT_TRUE(sleeps(reader));
        EXPECT_TRUE(sleeps(locker));
        EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
        const End readersEnd = endOf(reader.wait());
        const End lockersEnd = endOf(locker.wait());
        expectEnd(readersEnd.child, 0);
        expectEnd(lockersEnd.child, 0);
        ASSERT_GE(readersEnd.failures.size(), 1U);
        EXPECT_EQ(readersEnd.failures[0],
                  "**** rm_queueRead() msgrcv() failure, errno=43 (Identifier removed)");
        ASSERT_GE(lockersEnd.failures.size(), 1U);
        EXPECT_EQ(lockersEnd.failures[0],
                  "**** rm_syncEnterExcl() semop() failure, errno=43 (Identifier removed)");
        channel.say("done");
    });
    EXPECT_EQ(host.hear(), "done");
    expectEnd(host.wait(), 0);
    expectNothingLeft();
}

TEST_F(TeardownShared, WhoHasASegmentAttachedKeepsItsView)
{
    Peer host([](Channel& channel) {
        makeEverything();
        auto* text = static_cast<char*>(os::rmGshm[0].address);
        std::memcpy(text, "shared", 7);
        Peer worker([text](Channel& own) {
            own.hear();
            EXPECT_STREQ(text, "shared");
            std::memcpy(text, "after!", 7);
            own.say("written");
            own.hear();
        });
        EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
        worker.say("look");
        EXPECT_EQ(worker.hear(), "written");
        EXPECT_STREQ(text, "after!");
        worker.say("end");
        EXPECT_EQ(worker.wait().status, 0);
        channel.say("done");
    });
    EXPECT_EQ(host.hear(), "done");
    expectEnd(host.wait(), 0);
    expectNothingLeft();
}

TEST_F(TeardownShared, WhoBeginsAfterwardsGetsObjectsOfItsOwn)
{
    Peer old([](Channel& channel) {
        makeEverything();
        std::memcpy(os::rmGshm[0].address, "old", 4);
        channel.say("made");
        channel.hear();
        EXPECT_EQ(catchExit([] { rm_exit(5); }), 5);
        channel.say("exited");
        channel.hear();
    });
    EXPECT_EQ(old.hear(), "made");
    old.say("exit");
    EXPECT_EQ(old.hear(), "exited");
    Peer young([](Channel& channel) {
        makeEverything();
        EXPECT_STREQ(static_cast<const char*>(os::rmGshm[0].address), "");
        EXPECT_EQ(rmtest::semValue(os::iSem, 0), 1);
        channel.say("made");
        channel.hear();
        exitWith(6);
    });
    EXPECT_EQ(young.hear(), "made");
    old.say("end");
    expectEnd(old.wait(), 0);
    young.say("end");
    expectEnd(young.wait(), 6);
    expectNothingLeft();
}

// Processes that began on their own and met by the token files.
TEST_F(TeardownShared, TheExitOfOneTakesDownWhatAllHaveMadeTogether)
{
    const auto begin = [](Channel& channel) {
        channel.hear();
        makeEverything();
        channel.say(std::to_string(os::rmQueue[0].id));
        channel.hear();
        exitWith(5);
    };
    Peer first(begin);
    Peer second(begin);
    first.say("make");
    const std::string id = first.hear();
    second.say("make");
    EXPECT_EQ(second.hear(), id);
    first.say("exit");
    expectEnd(first.wait(), 5);
    expectNothingLeft();
    second.say("exit");
    expectEnd(second.wait(), 0);  // its semaphores had gone
    expectNothingLeft();
}

TEST_F(TeardownShared, ProcessesThatExitAtTheSameMomentAllEndAndLeaveNothing)
{
    constexpr int kRounds = 10;
    constexpr int kProcesses = 4;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        void* page =
            mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(page, MAP_FAILED);
        auto* const gate = static_cast<volatile int*>(page);
        const ChildResult host = runChild([gate] {
            makeEverything();
            std::vector<std::unique_ptr<Peer>> workers;
            for (int i = 0; i < kProcesses; ++i) {
                workers.push_back(std::make_unique<Peer>([gate](Channel& channel) {
                    channel.say("ready");
                    while (*gate == 0) {
                        sched_yield();
                    }
                    exitWith(5);
                }));
                EXPECT_EQ(workers.back()->hear(), "ready");
            }
            *gate = 1;
            for (auto& worker : workers) {
                const ChildResult ended = worker->wait();
                EXPECT_TRUE(ended.exited);
                EXPECT_FALSE(ended.timedOut);
                EXPECT_TRUE(ended.status == 5 || ended.status == 0) << ended.status;
            }
        });
        munmap(page, sizeof(int));
        expectEnd(host, 0);
        expectNothingLeft();
        removeEverythingLeft();
    }
}

// --- A process that is killed

TEST_F(TeardownKilled, TakesNothingDownAndTheNextOneFindsItAll)
{
    Peer killed([](Channel& channel) {
        makeEverything();
        std::memcpy(os::rmGshm[0].address, "legacy", 7);
        channel.say("made");
        channel.hear();
    });
    EXPECT_EQ(killed.hear(), "made");
    killed.kill(SIGKILL);
    EXPECT_EQ(killed.wait().signal, SIGKILL);
    EXPECT_EQ(objectsLeft('m'), 2);
    EXPECT_EQ(objectsLeft('q'), 2);
    EXPECT_EQ(objectsLeft('s'), 1);
    EXPECT_THAT(tokensLeft(), ElementsAre(kSegmentToken, kQueueToken, kSetToken));

    Peer next([](Channel&) {
        makeEverything();
        EXPECT_STREQ(static_cast<const char*>(os::rmGshm[0].address), "legacy");
        exitWith(5);
    });
    expectEnd(next.wait(), 5);
    expectNothingLeft();
}

TEST_F(TeardownKilled, InTheMiddleOfItsTeardownLeavesTheRestToTheNextOne)
{
    Peer killed([](Channel&) {
        makeEverything();
        static ScopedFault death({
            .call = Call::kMsgctl,
            .action = [](const CallRecord&) -> int64_t { return raise(SIGKILL); },
        });
        exitWith(5);
    });
    EXPECT_EQ(killed.wait().signal, SIGKILL);
    EXPECT_EQ(objectsLeft('m'), 0);
    EXPECT_EQ(objectsLeft('q'), 2);
    EXPECT_EQ(objectsLeft('s'), 1);
    EXPECT_THAT(tokensLeft(), ElementsAre(kQueueToken, kSetToken));

    Peer next([](Channel&) {
        makeEverything();
        exitWith(5);
    });
    expectEnd(next.wait(), 5);
    expectNothingLeft();
}

}  // namespace
