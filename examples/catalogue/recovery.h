// What is done for a worker that was killed: its locks, its update, its jobs.
#ifndef CATALOGUE_RECOVERY_H
#define CATALOGUE_RECOVERY_H

#include "board.h"
#include "store.h"

#include <cstdint>

#include <sys/types.h>

namespace catalogue
{

// In the parent, when it has waited for a dead child, and when a worker asks for it with SIGUSR2:
// frees every lock that a dead process holds, but for those of buckets of which an update is to be
// done again. Waits for nothing. Returns how many there were.
uint32_t freeLocks(Board& board);

// In a worker that takes the place of one that was killed, before it does anything else with the
// files: ends what that one has begun, and answers and reports what it has done. What it had not
// begun is in nobody's hand afterwards, so the desk puts it back. `worker` is the index, from 0.
// False after having said why not.
bool settleHand(Board& board, Store& store, uint32_t worker, pid_t parent);

}  // namespace catalogue

#endif
