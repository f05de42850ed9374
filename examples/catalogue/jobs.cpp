// The jobs: what the desk hands to the workers.
//
// Why: a request should go to a worker that is free, whichever that is. So the desk puts jobs into
// a bag that all share, and workers help themselves. An event is for one waiter: two that wake from
// one leave its semaphore at 2, and nobody is woken any more. Therefore workers wait in a row: the
// leader, who has the turn, waits for the event; the others wait for the turn. The leader leaves it
// as soon as it has jobs, and the next one takes the lead while it works.
//
// A worker takes several jobs at once, since a lock costs more than a job: two enters and two exits
// are a dozen system calls.
//
// Owns: a bag in the second segment of global shared memory; the sync objects "jobs" (a lock around
// each use of the bag), "turn" (a lock) and "wake" (an event, which the desk alone signals).
//
// Invariant: inside the lock of the jobs, each job under way is in the bag, in the hand of a
// worker, or lost: a worker was killed while it popped. The desk finds those.
//
// Locks: turn, then jobs. No other lock is held while one waits for these.
//
// Fatal: an object that has gone.
#include "jobs.h"

#include "board.h"
#include "console.h"
#include "counters.h"

#include "rm.h"

namespace catalogue
{
namespace
{
constexpr const char* kJobsLockName = "jobs";  // the library keeps the pointers
constexpr const char* kTurnName = "turn";
constexpr const char* kWakeName = "wake";
constexpr uint32_t kTimeoutMs = 1000;  // after which a wait looks at the board
constexpr int kTimeouts = 10;          // after so many a holder is given up

void* bag = nullptr;
int16_t jobs = RM_NULL_SYNC;
int16_t turn = RM_NULL_SYNC;
int16_t wake = RM_NULL_SYNC;

// A worker's waits for the turn: whoever has it gives a sign of life each second.
uint32_t beatSeen = 0;
int timeoutsWithoutBeat = 0;

Jobs giveUp(const char* lock)
{
    complain("the lock \"%s\" was not free within %d s: its holder does not answer.", lock,
             kTimeouts);
    return Jobs::kGaveUp;
}

// Waits for the turn. kTaken when it has come.
Jobs enterTurn(const Board& board)
{
    if (rm_syncEnterExcl(turn, kTimeoutMs) != RM_TIMEOUT) {
        timeoutsWithoutBeat = 0;
        return Jobs::kTaken;
    }
    if (board.stop != 0) {
        return Jobs::kStopped;
    }
    const uint32_t beats = board.beats;
    timeoutsWithoutBeat = beats == beatSeen ? timeoutsWithoutBeat + 1 : 0;
    beatSeen = beats;
    return timeoutsWithoutBeat < kTimeouts ? Jobs::kNone : giveUp(kTurnName);
}

// Takes jobs out of the bag. kNone when there are none.
Jobs fillHand(Board& board, Hand& hand)
{
    const Jobs entered = enterJobs(board);
    if (entered != Jobs::kTaken) {
        return entered;
    }
    hand.count = 0;  // what stands there is reported
    uint32_t taken = 0;
    int16_t status = RM_SUCCESS;
    while (taken < kHandful && (status = ffBagPop(bag, &hand.held[taken].job)) == RM_SUCCESS) {
        hand.held[taken].progress = Progress::kTaken;
        hand.held[taken].version = 0;
        hand.count = ++taken;
    }
    leaveJobs();
    if (status == RM_INVALID) {
        complain("the bag of the jobs is damaged: somebody else has written to its memory.");
        return Jobs::kGaveUp;
    }
    return taken != 0 ? Jobs::kTaken : Jobs::kNone;
}

// What the leader does: takes jobs, and waits a while if there are none.
Jobs lead(Board& board, Hand& hand)
{
    for (bool waited = false;; waited = true) {
        board.beats.fetch_add(1, std::memory_order_relaxed);
        const Jobs taken = fillHand(board, hand);
        if (taken != Jobs::kNone) {
            return taken;
        }
        if (board.stop != 0) {
            return Jobs::kStopped;
        }
        if (waited) {
            return Jobs::kNone;
        }
        rm_syncWait(wake, kTimeoutMs);
    }
}
}  // namespace

void createJobs()
{
    void* area = nullptr;
    ffBagCreate(kJobSlots, sizeof(Job), &bag, &area);
    jobs = rm_syncCreate(kJobsLockName);
    turn = rm_syncCreate(kTurnName);
    wake = rm_syncCreate(kWakeName);
}

Jobs takeJobs(Board& board, uint32_t worker)
{
    const Jobs entered = enterTurn(board);
    if (entered != Jobs::kTaken) {
        return entered;
    }
    const Jobs taken = lead(board, board.hand[worker]);
    rm_syncExitExcl(turn);
    return taken;
}

Jobs enterJobs(const Board& board)
{
    for (int timeouts = 0; rm_syncEnterExcl(jobs, kTimeoutMs) == RM_TIMEOUT;) {
        if (board.stop != 0) {
            return Jobs::kStopped;
        }
        count(kLockTimeouts);
        if (++timeouts == kTimeouts) {
            return giveUp(kJobsLockName);
        }
    }
    return Jobs::kTaken;
}

void pushJob(const Job& job)
{
    ffBagPush(bag, &job);
}

void leaveJobs()
{
    rm_syncExitExcl(jobs);
}

uint32_t ticketsInBag(uint64_t (&tickets)[kJobSlots])
{
    static Job inBag[kJobSlots];  // static for its size
    uint32_t found = 0;
    while (found < kJobSlots && ffBagPop(bag, &inBag[found]) == RM_SUCCESS) {
        ++found;
    }
    for (uint32_t i = 0; i < found; ++i) {
        tickets[i] = inBag[i].ticket;
        ffBagPush(bag, &inBag[i]);
    }
    return found;
}

void wakeWorker()
{
    rm_syncResume(wake);
}

int16_t jobsLock()
{
    return jobs;
}

int16_t turnLock()
{
    return turn;
}

}  // namespace catalogue
