// The board: what the processes of the soak share, in global shared memory.
//
// Why: a worker may be killed at any instruction, and what it had been told was done must still be
// there afterwards. So what counts as acknowledged stands here, where it does not die with the
// worker, and so does the note of every change that must not be left half made.
//
// Notes: a change of something shared is made under its lock, and its note is filled before the
// change begins: `open` is set last, and cleared when the change is whole. The parent, which waits
// for the dead, finds the note of a dead worker open and puts the change right: again from the
// beginning (records), back to what was before (accounts), or from what cannot be wrong (tokens).
// Only then it frees the lock. All fields behind a note are written while its lock is held.
//
// Invariant: an `acked` number is written by its worker alone, after the lock has been left.
#ifndef RM_TESTS_SOAK_BOARD_H
#define RM_TESTS_SOAK_BOARD_H

#include "rm.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace soak
{

constexpr uint32_t kWorkers = 8;
constexpr uint32_t kMostFamilies = 24;
constexpr uint32_t kRecordSlots = 1024;
constexpr uint32_t kAccounts = 48;
constexpr uint64_t kOpeningBalance = 10'000;
constexpr uint32_t kTokens = 200;    // elements of the FF bag, in the bag or in a hand
constexpr uint32_t kHandSize = 6;    // tokens that a worker holds at most
constexpr uint32_t kQueues = 4;      // a process can have five
constexpr uint32_t kWindow = 4;      // messages of one sender under way in one queue
constexpr uint32_t kMostData = 380;  // bytes of a message; less where a queue holds less
constexpr uint32_t kFindings = 8;
constexpr uint32_t kFindingSize = 1024;
constexpr uint32_t kWorkspaceSize = 8192;  // bytes of the object that comes and goes

// The locks of the soak; fileSem, growSem and the lock of the pool come on top of them.
enum Lock : uint32_t {
    kRecordsLock,
    kAccountsLock,
    kTokensLock,
    kTurnLock,       // of those who wait for the event
    kSignalLock,     // of those who signal it
    kWorkspaceLock,  // of the shared memory object that comes and goes
    kQueueLock,      // the first of kQueues
    kLocks = kQueueLock + kQueues
};

// A record of the shared file. All of it follows from the first four fields.
struct Record {
    uint32_t slot;
    uint32_t version;
    uint32_t writer;
    uint32_t life;  // of the writer
    unsigned char filling[104];
    uint64_t sum;
};

static_assert(sizeof(Record) == 128);

struct RecordBoard {
    uint32_t redone;             // records that were written again for a dead worker
    std::atomic<uint32_t> open;  // 1 + the worker whose change it is; 0: none
    Record image;                // what is being written, again if need be
    uint64_t writtenAfter;       // by its worker, with this one
    uint32_t used;               // slots that have a record
    uint32_t version[kRecordSlots];
    uint64_t written[kWorkers];
    std::atomic<uint32_t> acked[kRecordSlots];  // the latest version that its writer was told of
};

struct AccountBoard {
    uint32_t undone;  // transfers of dead workers
    std::atomic<uint32_t> open;
    uint32_t from;
    uint32_t to;
    uint64_t fromBefore;
    uint64_t toBefore;
    uint64_t madeBefore;
    uint64_t balance[kAccounts];
    uint64_t made[kWorkers];  // transfers of each worker
};

// An element of the FF bag.
struct Token {
    uint32_t number;
    uint32_t sum;
    uint64_t turn;  // of its push; rises along the bag
};

struct TokenBoard {
    std::atomic<uint32_t> open;
    uint64_t turn;      // of the last push
    uint64_t lastTurn;  // of the last pop
    uint32_t refills;   // since the start, after a death inside a push or a pop
};

// One parcel on its way: whoever waits for the event takes it.
struct ParcelBoard {
    std::atomic<uint32_t> full;
    uint64_t number;
    uint64_t sum;
    uint64_t taken;  // number of the last parcel that was taken
};

// What a sender has under way in one queue. The sender alone writes it.
struct Outbox {
    std::atomic<uint32_t> intended;  // number of the last message that was begun
    std::atomic<uint32_t> sent;      // of the last one that is in the queue, or was
};

struct QueueBoard {
    std::atomic<uint32_t> open;  // somebody reads: what was read may be lost with it
    uint32_t strays;             // messages that may have been lost so, and were not missed yet
    uint32_t refetched;          // messages that were taken from their sender's outbox instead
    uint32_t repeated;           // messages that came twice, after their sender's death
    std::atomic<uint32_t> received[kWorkers];  // number of the last message of each sender
};

struct WorkspaceBoard {
    std::atomic<uint32_t> open;  // the object exists
    uint32_t stale;              // it was left behind by a dead one
    uint32_t made;
};

// A worker's own part. Nobody else writes it but the parent, while the worker does not exist.
struct WorkerBoard {
    uint32_t life;    // 1 for the first process
    uint64_t step;    // of this life
    uint32_t family;  // of the step
    uint64_t operations[kMostFamilies];
    uint64_t checks;
    std::atomic<uint32_t> handCount;
    uint32_t hand[kHandSize];  // tokens
    uint64_t transfersAcked;
    uint64_t recordsAcked;
    uint32_t diaryAcked;       // records of the worker's own file
    uint32_t settingIntended;  // of the worker's key in the shared INI file
    uint32_t settingAcked;
    Outbox outbox[kQueues];
    uint32_t parkings;  // of this life
    uint32_t reopens;
    uint64_t parkingsBefore;  // of earlier lives
    uint64_t reopensBefore;
    uint32_t tagged;  // bytes of tagged memory
    uint32_t residentKb;
    std::atomic<uint32_t> changing;  // the shared INI file
    uint32_t endedWell;              // 1: at its own end, with nothing left
    uint32_t settled;  // changes of the shared INI file that it has put right for others
};

struct Board {
    std::atomic<uint32_t> stop;
    std::atomic<uint32_t> findings;  // taken, written or not
    char finding[kFindings][kFindingSize];
    std::atomic<uint32_t> inside[kLocks];  // 1 + the worker that holds the lock
    RecordBoard records;
    AccountBoard accounts;
    TokenBoard tokens;
    ParcelBoard parcel;
    QueueBoard queue[kQueues];
    WorkspaceBoard workspace;
    WorkerBoard worker[kWorkers];
};

static_assert(std::atomic<uint32_t>::is_always_lock_free, "they are shared by processes");

}  // namespace soak

#endif
