// What a process counts, and under which numbers: the one place that assigns them.
#ifndef CATALOGUE_COUNTERS_H
#define CATALOGUE_COUNTERS_H

#include <atomic>
#include <cstdint>

namespace catalogue
{

// Indexes of the library's counters. The library knows neither names nor meanings.
enum Counter : int16_t {
    kLookups,       // requests that read, misses included
    kUpdates,       // requests that wrote
    kMisses,        // lookups of a name that nobody stored
    kMoves,         // updates that moved their record to the end of its file
    kGrowths,       // steps by which a file grew
    kSyncs,         // files for which the disk was waited for, unless FileCommit is 0
    kLockEnters,    // of the buckets' locks
    kLockWaits,     // enters that found the lock held
    kLockTimeouts,  // seconds after which such a wait looked up
    kSessions,      // that clients have opened
    kBuffers,       // taken out of the pool
    kCopies,        // of bucket files, as backups
    kReloads,       // times that new settings were taken
    kWarnings,      // lines of the log that begin so
    kCounters       // how many there are
};

const char* counterName(Counter counter);

// Makes the counters of this process, all 0. A child calls it too: it inherits the parent's.
void startCounters();

// In a worker: what it publishes begins with what stands there, from those before it.
void resumeCounters(const std::atomic<uint32_t> (&board)[kCounters]);

void count(Counter counter, uint16_t amount = 1);

// What this process has counted itself.
uint32_t counted(Counter counter);

// Copies the counters to the board. This process is the only one that writes there.
void publishCounters(std::atomic<uint32_t> (&board)[kCounters]);

}  // namespace catalogue

#endif
