// Sync objects against the same system calls made bare, on a semaphore of the same kind.
#include "bare.h"
#include "pairs.h"

#include "rm.h"

namespace
{
constexpr uint32_t kTimeoutMs = 14000;

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
    const rmbench::BareLock lock;
    for (auto _ : state) {
        lock.enterUntimed();
        lock.leave();
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
    const rmbench::BareLock lock;
    for (auto _ : state) {
        lock.enter();
        lock.leave();
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
