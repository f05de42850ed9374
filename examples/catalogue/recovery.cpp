// What is done for a worker that was killed: its locks, its update, its jobs.
//
// Why: a worker may be killed at any instruction. What it held stays held, what it was writing is
// half written, what it was to do is not done, and a client waits for the answer. Who mends what:
//
//   parent        waits for the dead one, frees its locks, forks another in its place
//   replacement   does the update again that had begun, answers and reports what is done
//   desk          puts the jobs back that are nowhere any more (desk.cpp)
//
// One process alone frees locks, the parent: between the look of one at who holds a lock and its
// freeing, another one might have freed it and a third one entered it.
//
// A replacement may be killed too, wherever it stands: each step can be done again, and what the
// next one finds is either as before the step or as after it.
//
// Locks: freeLocks enters none. Settling enters that of the jobs.
//
// Fatal: a sync object, a queue or a file that has gone.
#include "recovery.h"

#include "answers.h"
#include "buffers.h"
#include "counters.h"
#include "intent.h"
#include "jobs.h"
#include "journal.h"
#include "locks.h"
#include "queues.h"

#include "rm.h"

#include <csignal>

namespace catalogue
{
namespace
{
// The locks of buckets that must stay held: a bit each.
uint32_t locksUnderChange(Board& board)
{
    uint32_t locks = 0;
    for (uint32_t i = 0; i < kMaxWorkers; ++i) {
        if (const int32_t bucket = bucketUnderChange(board, i); bucket >= 0) {
            locks |= uint32_t{1} << lockOf(static_cast<uint32_t>(bucket));
        }
    }
    return locks;
}

uint32_t freeLock(int16_t lock)
{
    return static_cast<uint32_t>(rm_syncRecover(lock));
}

// Does an update again that had begun. The dead one holds the bucket's lock for us until the
// parent, who is asked to look, frees it.
bool redoUpdate(Board& board, Store& store, uint32_t worker, pid_t parent)
{
    if (bucketUnderChange(board, worker) < 0) {
        return true;
    }
    if (!carryOut(board, store, worker, false)) {
        return false;
    }
    board.head.figures.redone.fetch_add(1);
    board.worker[worker].counter[kUpdates].fetch_add(1);
    resumeCounters(board.worker[worker].counter);
    kill(parent, SIGUSR2);
    return true;
}
}  // namespace

uint32_t freeLocks(Board& board)
{
    uint32_t freed = freeLock(fileSem) + freeLock(growSem) + freeLock(buffersLock()) +
                     freeLock(jobsLock()) + freeLock(turnLock());
    const uint32_t keep = locksUnderChange(board);
    for (uint32_t lock = 0; lock < kBucketLocks; ++lock) {
        if ((keep >> lock & 1) == 0) {
            freed += freeLock(bucketLock(lock));
        }
    }
    board.head.figures.freedLocks.fetch_add(freed);
    return freed;
}

bool settleHand(Board& board, Store& store, uint32_t worker, pid_t parent)
{
    if (!redoUpdate(board, store, worker, parent)) {
        return false;
    }
    Hand& hand = board.hand[worker];
    Tickets done = {worker + 1, 0, {}};
    for (uint32_t i = 0; i < hand.count; ++i) {
        Held& held = hand.held[i];
        if (held.progress == Progress::kTaken) {
            continue;
        }
        if (held.progress == Progress::kDone && held.job.channel != 0) {
            answerPut(board, held.job, held.version);
            held.progress = Progress::kAnswered;
        }
        done.ticket[done.count++] = held.job.ticket;
    }
    // Before the hand is emptied: the desk looks for what is missing in the messages too.
    if (done.count != 0) {
        reportTickets(kNoticeReported, done);
    }
    const Jobs entered = enterJobs(board);
    if (entered == Jobs::kTaken) {
        hand.count = 0;
        leaveJobs();
    }
    return entered != Jobs::kGaveUp;
}

}  // namespace catalogue
