// The locks of the buckets.
#ifndef CATALOGUE_LOCKS_H
#define CATALOGUE_LOCKS_H

#include "board.h"

#include <cstdint>

namespace catalogue
{

constexpr uint32_t kBucketLocks = 14;

enum class Entered {
    kYes,
    kStopped,  // the parent has ended the run meanwhile
    kGaveUp,   // whoever holds it does not come back; said so
};

// Creates the locks of the buckets. Call it once, in the parent, before it forks: processes exclude
// each other only on objects that existed then.
void createLocks();

// Enters the lock that guards `bucket`, and counts whether it had to wait; `figures` gets how long.
Entered enterBucket(uint32_t bucket, const Board& board, Figures& figures);

void leaveBucket(uint32_t bucket);

// Which of the locks guards a bucket, and its handle.
uint32_t lockOf(uint32_t bucket);
int16_t bucketLock(uint32_t lock);

}  // namespace catalogue

#endif
