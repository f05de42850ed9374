// The locks of the buckets.
//
// Why: a bucket file is read and written by several processes at once, and an update is a read, a
// decision and a write that must not be divided. The library makes one positioned read or write
// whole; what belongs together beyond that is the host's own business.
//
// Owns: 14 sync objects, so buckets of 32 share a lock by twos and threes. A process has 20
// objects; fileSem and growSem of the library, which rm_init makes, are two of them, the lock of
// the buffers is one, and the jobs take three.
//
// Invariant: a process holds at most one of these, and enters it before any lock of the library.
//
// Lifecycle: created before the fork, removed by rm_exit of the parent. A worker ends with _exit
// and never with rm_exit, which would remove them for everybody.
//
// Locks: a lock whose holder was killed stays held until the parent has noticed and freed it, or
// until what the dead one had begun was done again (see intent.h). A holder that does not run and
// is not dead keeps it for ever. Therefore every enter here has a time-out, after which it looks
// whether the run ends.
#include "locks.h"

#include "console.h"

#include "rm.h"

#include <chrono>

#include <sys/resource.h>

namespace catalogue
{
namespace
{
using Clock = std::chrono::steady_clock;

constexpr uint32_t kTimeoutMs = 1000;  // a time-out counts in whole seconds, upwards; 0 never ends
constexpr int kTimeouts = 10;          // after so many the holder is given up

// The library keeps the pointer to a name, not a copy.
constexpr const char* kNames[kBucketLocks] = {
    "buckets 0", "buckets 1", "buckets 2", "buckets 3",  "buckets 4",  "buckets 5",  "buckets 6",
    "buckets 7", "buckets 8", "buckets 9", "buckets 10", "buckets 11", "buckets 12", "buckets 13",
};

int16_t handles[kBucketLocks];  // the same in every process: they are inherited

// How often this process has slept. A held lock is what sends it to sleep while it enters one, so
// a change says exactly whether it had to wait, which no length of time would.
long timesSlept()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw;
}

// Adds to a figure of which this process is the only writer.
void add(std::atomic<uint64_t>& figure, uint64_t amount)
{
    figure.store(figure.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
}
}  // namespace

void createLocks()
{
    for (uint32_t i = 0; i < kBucketLocks; ++i) {
        handles[i] = rm_syncCreate(kNames[i]);
    }
}

Entered enterBucket(uint32_t bucket, const Board& board, Figures& figures)
{
    const uint32_t lock = lockOf(bucket);
    const long sleptBefore = timesSlept();
    const Clock::time_point begin = Clock::now();
    int timeouts = 0;
    while (rm_syncEnterExcl(handles[lock], kTimeoutMs) == RM_TIMEOUT) {
        if (board.stop != 0) {
            return Entered::kStopped;
        }
        count(kLockTimeouts);
        if (++timeouts == kTimeouts) {
            complain("the lock \"%s\" was not free within %d s: its holder does not answer.",
                     kNames[lock], kTimeouts);
            return Entered::kGaveUp;
        }
    }
    count(kLockEnters);
    if (timesSlept() != sleptBefore) {
        count(kLockWaits);
        add(figures.lockWaitedNs, static_cast<uint64_t>((Clock::now() - begin).count()));
    }
    return Entered::kYes;
}

void leaveBucket(uint32_t bucket)
{
    rm_syncExitExcl(handles[lockOf(bucket)]);
}

uint32_t lockOf(uint32_t bucket)
{
    return bucket % kBucketLocks;
}

int16_t bucketLock(uint32_t lock)
{
    return handles[lock];
}

}  // namespace catalogue
