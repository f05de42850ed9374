// Locks of processes that are killed at any moment, while others wait for them: the parent frees
// them, and everybody goes on, one at a time.
#include "tests/file/file_case.h"

#include <atomic>
#include <memory>
#include <random>

#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace filetest;

namespace
{

using rmtest::Peer;
using rmtest::semWaiters;
using rmtest::waitFor;

std::string freed(SyncHandle lock, pid_t holder)
{
    return "WARNING: lock " + std::to_string(lock) + " freed, its holder " +
           std::to_string(holder) + " is gone";
}

// Memory that the processes forked from now on share, zero at first.
template <typename T>
T* shared()
{
    void* page =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(page, MAP_FAILED);
    return static_cast<T*>(page);
}

// The server's two locks are made before anybody is forked.
class SyncRecoverCase : public FileTest
{
  protected:
    void SetUp() override
    {
        FileTest::SetUp();
        rmDiskFull = 0;
        fileSem = rm_syncCreate("fileSem");
        growSem = rm_syncCreate("growSem");
        lock_ = rm_syncCreate("lock");
    }

    void TearDown() override
    {
        EXPECT_EQ(growSemValue(), 1) << "growSem is held";
        EXPECT_EQ(semValue(os::iSem, lock_), 1) << "the lock is held";
        FileTest::TearDown();
    }

    SyncHandle lock_ = RM_NONE;
};

class SyncRecoverWaiters : public SyncRecoverCase
{
};

class SyncRecoverFiles : public SyncRecoverCase
{
};

class SyncRecoverStress : public SyncRecoverCase
{
};

// --- Processes that wait

// Says its number when it is inside, and leaves when it is told.
std::unique_ptr<Peer> entering(SyncHandle lock)
{
    return std::make_unique<Peer>([=](Peer::Channel& channel) {
        rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
        channel.say("inside");
        channel.hear();
        rm_syncExitExcl(lock);
    });
}

pid_t killedInside(SyncHandle lock)
{
    const auto holder = entering(lock);
    EXPECT_EQ(holder->hear(), "inside");
    holder->kill(SIGKILL);
    holder->wait();
    return holder->pid();
}

TEST_F(SyncRecoverWaiters, GetInOneAtATime)
{
    const auto holder = entering(lock_);
    EXPECT_EQ(holder->hear(), "inside");
    constexpr int kWaiters = 4;
    std::vector<std::unique_ptr<Peer>> waiters;
    for (int n = 0; n < kWaiters; ++n) {
        // One behind the other, so that they get in in this order.
        waiters.push_back(entering(lock_));
        ASSERT_TRUE(waitFor([&] { return semWaiters(os::iSem, lock_) == n + 1; }));
    }
    holder->kill(SIGKILL);
    holder->wait();
    EXPECT_EQ(semWaiters(os::iSem, lock_), kWaiters);
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_syncRecover(lock_), 1); }),
                ElementsAre(freed(lock_, holder->pid())));
    for (int n = 0; n < kWaiters; ++n) {
        EXPECT_EQ(waiters[static_cast<std::size_t>(n)]->hear(), "inside");
        EXPECT_EQ(semWaiters(os::iSem, lock_), kWaiters - 1 - n);
        EXPECT_EQ(semValue(os::iSem, lock_), 0);
        EXPECT_EQ(rm_syncRecover(lock_), 0);
        waiters[static_cast<std::size_t>(n)]->say("leave");
        waiters[static_cast<std::size_t>(n)]->wait();
    }
}

// The entry is made for it by the process that leaves, whether it still runs or not.
TEST_F(SyncRecoverWaiters, WhoAreKilledAsTheyGetInAreRecoveredFrom)
{
    rm_syncEnterExcl(lock_, RM_WAIT_FOREVER);
    const auto waiter = entering(lock_);
    ASSERT_TRUE(waitFor([&] { return semWaiters(os::iSem, lock_) == 1; }));
    rm_syncExitExcl(lock_);
    EXPECT_EQ(semValue(os::iSem, lock_), 0);
    waiter->kill(SIGKILL);
    waiter->wait();
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_syncRecover(lock_), 1); }),
                ElementsAre(freed(lock_, waiter->pid())));
}

TEST_F(SyncRecoverWaiters, WhoAreKilledWaitingHeldNothing)
{
    rm_syncEnterExcl(lock_, RM_WAIT_FOREVER);
    const auto waiter = entering(lock_);
    ASSERT_TRUE(waitFor([&] { return semWaiters(os::iSem, lock_) == 1; }));
    waiter->kill(SIGKILL);
    waiter->wait();
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_syncRecover(lock_), 0); }), IsEmpty());
    EXPECT_EQ(semValue(os::iSem, lock_), 0);
    rm_syncExitExcl(lock_);
}

// The child of a worker is no child of the parent's, and nobody has to wait for it here.
TEST_F(SyncRecoverWaiters, OfALockThatAGrandchildHeldGoOn)
{
    Peer worker([this](Peer::Channel& channel) {
        channel.say(std::to_string(killedInside(lock_)));
        channel.hear();
    });
    const auto grandchild = static_cast<pid_t>(std::stol(worker.hear()));
    EXPECT_THAT(linesOf([&] { EXPECT_EQ(rm_syncRecover(lock_), 1); }),
                ElementsAre(freed(lock_, grandchild)));
}

// --- Workers that are killed inside a file operation

// A worker that is killed by itself at a system call of an operation.
pid_t killedAt(Call call, const std::function<void()>& operation)
{
    Peer worker([&](Peer::Channel& /*channel*/) {
        const ScopedFault fault(
            {.call = call, .action = [](const CallRecord&) -> int64_t { return raise(SIGKILL); }});
        operation();
    });
    EXPECT_EQ(worker.wait().signal, SIGKILL);
    return worker.pid();
}

void openAndWrite(const char* name)
{
    const int16_t handle = rm_fileOpen(name, kReadWrite, 0, 0, 1000);
    EXPECT_EQ(rm_fileSeekWrite(handle, 0, "text", 4), 4U);
    rm_fileClose(handle);
}

TEST_F(SyncRecoverFiles, AreOpenedAgainAfterAWorkerWasKilledInAnOpen)
{
    const pid_t worker = killedAt(Call::kOpen, [] { openAndWrite("w"); });
    EXPECT_EQ(fileSemValue(), 0);
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_syncRecover(fileSem), 1); }),
                ElementsAre(freed(fileSem, worker)));
    EXPECT_EQ(rm_syncRecover(growSem), 0);
    openAndWrite("mine");
    EXPECT_EQ(rmtest::runChild([] { openAndWrite("another"); }).status, 0);
    EXPECT_TRUE(std::filesystem::exists("another"));
}

TEST_F(SyncRecoverFiles, AreOpenedByThoseWhoHaveBeenWaiting)
{
    const pid_t worker = killedAt(Call::kOpen, [] { openAndWrite("w"); });
    Peer waiter([](Peer::Channel& channel) {
        openAndWrite("waiter");
        channel.say("done");
    });
    ASSERT_TRUE(waitFor([] { return semWaiters(os::iSem, fileSem) == 1; }));
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_syncRecover(fileSem), 1); }),
                ElementsAre(freed(fileSem, worker)));
    EXPECT_EQ(waiter.hear(), "done");
    EXPECT_EQ(waiter.wait().status, 0);
}

TEST_F(SyncRecoverFiles, GrowAgainAfterAWorkerWasKilledGrowingOne)
{
    const pid_t worker = killedAt(Call::kWrite, [] { openAndWrite("w"); });
    EXPECT_EQ(growSemValue(), 0);
    EXPECT_EQ(fileSemValue(), 1);
    Peer waiter([](Peer::Channel& channel) {
        openAndWrite("waiter");
        channel.say("done");
    });
    ASSERT_TRUE(waitFor([] { return semWaiters(os::iSem, growSem) == 1; }));
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_syncRecover(growSem), 1); }),
                ElementsAre(freed(growSem, worker)));
    EXPECT_EQ(rm_syncRecover(fileSem), 0);
    EXPECT_EQ(waiter.hear(), "done");
    EXPECT_EQ(waiter.wait().status, 0);
    EXPECT_EQ(std::filesystem::file_size("waiter"), 1000U);
}

TEST_F(SyncRecoverFiles, AreOpenedAgainAfterAWorkerWasKilledInsideBothLocks)
{
    const pid_t worker =
        killedAt(Call::kWrite, [] { rm_fileClose(rm_fileOpen("w", kReadWrite, 0, 5000, 1000)); });
    EXPECT_EQ(growSemValue(), 0);
    EXPECT_EQ(fileSemValue(), 0);
    EXPECT_THAT(linesOf([] {
                    EXPECT_EQ(rm_syncRecover(fileSem), 1);
                    EXPECT_EQ(rm_syncRecover(growSem), 1);
                }),
                ElementsAre(freed(fileSem, worker), freed(growSem, worker)));
    openAndWrite("mine");
    EXPECT_EQ(std::filesystem::file_size("mine"), 1000U);
}

// The line needs the very lock that it is about.
TEST_F(SyncRecoverFiles, TakeTheLineAboutTheirOwnLockIntoTheLogFile)
{
    openLog("log");
    const pid_t worker = killedAt(Call::kOpen, [] { openAndWrite("w"); });
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_syncRecover(fileSem), 1); }),
                ElementsAre(freed(fileSem, worker)));
    EXPECT_THAT(logLines(readFile("log")), ElementsAre(freed(fileSem, worker)));
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(SyncRecoverFiles, TakeTheLineAlsoWhenTheLogFileIsParked)
{
    openLog("log");
    park(sysfile);
    const pid_t worker = killedAt(Call::kOpen, [] { openAndWrite("w"); });
    EXPECT_THAT(linesOf([] { EXPECT_EQ(rm_syncRecover(fileSem), 1); }),
                ElementsAre(freed(fileSem, worker)));
    EXPECT_EQ(entryOf(sysfile)->state, file::kSlotOpen);
    EXPECT_EQ(fileSemValue(), 1);
}

TEST_F(SyncRecoverFiles, AreNotTouchedForALineThatIsNotWritten)
{
    openLog("log");
    EXPECT_EQ(rm_syncRecover(fileSem), 0);
    EXPECT_EQ(readFile("log"), "");
}

// --- Many deaths

constexpr int kWorkers = 4;

// What a worker does inside the lock, in such a way that two inside at once are seen.
struct Protocol {
    std::atomic<pid_t> inside;        // who is; 0 for nobody
    std::atomic<int64_t> counter;     // read and written in two steps
    std::atomic<int64_t> done;        // steps that came to their end
    std::atomic<int64_t> intrusions;  // somebody else was inside
};

void workInside(Protocol* protocol)
{
    const pid_t me = getpid();
    if (protocol->inside.exchange(me) != 0) {
        ++protocol->intrusions;
    }
    const int64_t before = protocol->counter;
    for (int n = 0; n < 3; ++n) {
        sched_yield();  // whoever should not be here has time to come
    }
    if (protocol->counter != before || protocol->inside != me) {
        ++protocol->intrusions;
    }
    protocol->counter = before + 1;
    ++protocol->done;
    protocol->inside = 0;
}

std::unique_ptr<Peer> incrementing(SyncHandle lock, Protocol* protocol)
{
    return std::make_unique<Peer>([=](Peer::Channel& /*channel*/) {
        for (;;) {
            rm_syncEnterExcl(lock, RM_WAIT_FOREVER);
            workInside(protocol);
            rm_syncExitExcl(lock);
        }
    });
}

using Workers = std::vector<std::unique_ptr<Peer>>;

TEST_F(SyncRecoverStress, NeverLetsTwoInAndNeverNobody)
{
    const long deaths = rmtest::operationsOfThisRun(300);
    auto* protocol = shared<Protocol>();
    std::mt19937_64 random(rmtest::seedOfThisRun());
    Workers workers;
    for (int n = 0; n < kWorkers; ++n) {
        workers.push_back(incrementing(lock_, protocol));
    }
    long recovered = 0;
    const std::string err = captureStderr([&] {
        for (long n = 0; n < deaths && !HasFailure(); ++n) {
            const int64_t goal = protocol->done + 1 + static_cast<int64_t>(random() % 20);
            EXPECT_TRUE(waitFor([&] { return protocol->done >= goal; })) << "nobody gets in";
            auto& victim = workers[random() % kWorkers];
            victim->kill(SIGKILL);
            victim->wait();
            // What it left in the shared memory is put in order before the lock is freed.
            pid_t dead = victim->pid();
            protocol->inside.compare_exchange_strong(dead, 0);
            recovered += rm_syncRecover(lock_);
            victim = incrementing(lock_, protocol);
        }
    });
    for (auto& worker : workers) {
        worker->kill(SIGKILL);
        worker->wait();
    }
    captureStderr([&] { recovered += rm_syncRecover(lock_); });
    EXPECT_EQ(protocol->intrusions, 0);
    EXPECT_EQ(semValue(os::iSem, lock_), 1);
    // One step of each of the dead may have counted or been done without the other.
    EXPECT_LE(std::abs(protocol->counter - protocol->done), deaths + kWorkers);
    EXPECT_GT(recovered, deaths / 50);
    EXPECT_LE(logLines(err).size(), static_cast<std::size_t>(recovered));
    munmap(protocol, sizeof(Protocol));
}

struct Progress {
    std::atomic<int64_t> rounds[kWorkers];
};

std::unique_ptr<Peer> writing(int number, Progress* progress)
{
    return std::make_unique<Peer>([=](Peer::Channel& /*channel*/) {
        const std::string name = "w" + std::to_string(number);
        const std::string text = "worker " + std::to_string(number);
        for (;;) {
            std::array<char, 16> read = {};
            const int16_t handle = rm_fileOpen(name.c_str(), kReadWrite, 0, 2000, 1000);
            EXPECT_EQ(rm_fileSeekWrite(handle, 3000, text.data(), sizeOf(text)), sizeOf(text));
            EXPECT_EQ(rm_fileSeekRead(handle, 3000, read.data(), sizeOf(text)), sizeOf(text));
            EXPECT_EQ(read.data(), text);
            rm_fileClose(handle);
            std::filesystem::remove(name);
            ++progress->rounds[number];
        }
    });
}

TEST_F(SyncRecoverStress, KeepsTheFilesOfTheLivingGoing)
{
    const long deaths = rmtest::operationsOfThisRun(100);
    auto* progress = shared<Progress>();
    std::mt19937_64 random(rmtest::seedOfThisRun());
    Workers workers;
    for (int n = 0; n < kWorkers; ++n) {
        workers.push_back(writing(n, progress));
    }
    const auto everybodyGoesOn = [&] {
        std::array<int64_t, kWorkers> before = {};
        std::copy(std::begin(progress->rounds), std::end(progress->rounds), before.begin());
        return waitFor([&] {
            return std::equal(before.begin(), before.end(), std::begin(progress->rounds),
                              [](int64_t was, int64_t is) { return is > was; });
        });
    };
    long recovered = 0;
    captureStderr([&] {
        for (long n = 0; n < deaths && !HasFailure(); ++n) {
            const std::size_t number = random() % kWorkers;
            const int64_t goal = progress->rounds[number] + static_cast<int64_t>(random() % 3);
            waitFor([&] { return progress->rounds[number] >= goal; });
            workers[number]->kill(SIGKILL);
            workers[number]->wait();
            recovered += rm_syncRecover(fileSem) + rm_syncRecover(growSem);
            workers[number] = writing(static_cast<int>(number), progress);
            EXPECT_TRUE(everybodyGoesOn()) << "after " << n << " deaths";
        }
        for (auto& worker : workers) {
            worker->kill(SIGKILL);
            worker->wait();
            recovered += rm_syncRecover(fileSem) + rm_syncRecover(growSem);
        }
    });
    EXPECT_GT(recovered, 0);
    EXPECT_EQ(fileSemValue(), 1);
    openAndWrite("mine");
    munmap(progress, sizeof(Progress));
}

}  // namespace
