// The jobs: what the desk hands to the workers.
#ifndef CATALOGUE_JOBS_H
#define CATALOGUE_JOBS_H

#include "protocol.h"

#include <cstdint>
#include <type_traits>

namespace catalogue
{

struct Board;

enum class JobKind : uint16_t {
    kLookup,  // of the load generator, as the next two
    kUpdate,
    kMiss,
    kGet,  // of a client, as the next two
    kPut,
    kList
};

// An element of the bag. Plain bytes, without pointers.
struct Job {
    uint64_t ticket;    // its number; the desk knows by it which jobs are under way
    uint64_t sequence;  // of the client's request, as the next two
    int32_t pid;
    uint16_t channel;  // 0 for the load generator
    JobKind kind;
    uint32_t record;  // number of the record; kList: at which to begin
    uint32_t index;   // kGet: first byte wanted
    uint32_t client;  // whose session it belongs to
    uint16_t again;   // 1: the record that the client had last, if its worker knows one
    uint16_t leaves;  // 1: the client goes when it is answered
    uint16_t textBytes;
    uint16_t unused[3];
    char text[kNameBytes + 1];  // kPut: the note; kList: the prefix
};

static_assert(std::is_trivially_copyable_v<Job> && kNameBytes >= kTextBytes);

constexpr uint32_t kHandful = 16;                // jobs that a worker takes at a time
constexpr uint32_t kWindow = 128;                // jobs of the load generator under way at most
constexpr uint32_t kClientJobs = 2 * kChannels;  // of clients, likewise
constexpr uint32_t kBagHeadBytes = 16;           // of the library, before the elements
constexpr uint32_t kJobSlots = kWindow + kClientJobs;  // capacity of the bag

// How a wait for the jobs ends.
enum class Jobs {
    kTaken,
    kNone,     // nothing came in time
    kStopped,  // the run ends
    kGaveUp    // a lock is not given back; said so
};

// Makes the bag, its lock, the workers' turn and the event that wakes them. Call it once, in the
// parent, before it forks, and after the board.
void createJobs();

// In a worker, with the index from 0: takes up to kHandful jobs into its hand, when its turn comes.
Jobs takeJobs(Board& board, uint32_t worker);

// In the desk: enters and leaves the lock, and between the two puts a job into the bag. There is
// always room for the jobs that are under way.
Jobs enterJobs(const Board& board);
void pushJob(const Job& job);
void leaveJobs();

// In the desk, inside the lock: the tickets of the jobs in the bag. Returns how many there are.
uint32_t ticketsInBag(uint64_t (&tickets)[kJobSlots]);

// In the desk: wakes the worker whose turn it is.
void wakeWorker();

// The locks, for whoever frees those of dead workers.
int16_t jobsLock();
int16_t turnLock();

}  // namespace catalogue

#endif
