// Sync objects against the same system calls made bare, on a semaphore of the same kind.
#include "pairs.h"

#include "rm.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

namespace
{
constexpr uint32_t kTimeoutMs = 14000;
constexpr unsigned kTimeoutSeconds = 14;

void onAlarm(int /*signalNumber*/) {}

// A set of one semaphore with the value 1, for as long as the object lives.
class BareSemaphore
{
  public:
    BareSemaphore() : id_(semget(IPC_PRIVATE, 1, IPC_CREAT | 0600))
    {
        if (id_ == -1) {
            std::perror("semget");
            std::exit(1);
        }
        operate(1);
    }

    ~BareSemaphore() { semctl(id_, 0, IPC_RMID); }

    BareSemaphore(const BareSemaphore&) = delete;
    BareSemaphore& operator=(const BareSemaphore&) = delete;

    void operate(short op) const
    {
        sembuf operation = {0, op, 0};
        benchmark::DoNotOptimize(semop(id_, &operation, 1));
    }

    void operateWithin(short op, unsigned seconds) const
    {
        sembuf operation = {0, op, 0};
        const timespec limit = {static_cast<time_t>(seconds), 0};
        benchmark::DoNotOptimize(semtimedop(id_, &operation, 1, &limit));
    }

  private:
    int id_;
};

void untimedOurs(benchmark::State& state)
{
    const int16_t handle = rm_syncCreate("bench");
    for (auto _ : state) {
        rm_syncEnterExcl(handle, RM_WAIT_FOREVER);
        rm_syncExitExcl(handle);
    }
    rm_syncDelete(handle);
}

void untimedBare(benchmark::State& state)
{
    const BareSemaphore semaphore;
    for (auto _ : state) {
        semaphore.operate(-1);
        alarm(0);
        semaphore.operate(1);
    }
}

void timedOurs(benchmark::State& state)
{
    const int16_t handle = rm_syncCreate("bench");
    for (auto _ : state) {
        rm_syncEnterExcl(handle, kTimeoutMs);
        rm_syncExitExcl(handle);
    }
    rm_syncDelete(handle);
}

void timedBare(benchmark::State& state)
{
    const BareSemaphore semaphore;
    for (auto _ : state) {
        signal(SIGALRM, onAlarm);
        alarm(kTimeoutSeconds);
        semaphore.operateWithin(-1, kTimeoutSeconds);
        alarm(0);
        semaphore.operate(1);
    }
}
}  // namespace

void rmbench::addSyncPairs()
{
    constexpr double kLimit = 1.15;
    addPair("sync: enter without limit, exit", "semop alarm semop", kLimit, untimedOurs,
            untimedBare);
    addPair("sync: enter within 14 s, exit", "the five calls", kLimit, timedOurs, timedBare);
}
