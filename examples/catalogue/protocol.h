// The contract between the server and its clients: what stands where, and who says what to whom.
//
// A client is a program of its own: it inherits nothing. It finds a run by its directory and works
// in it, since the library makes its keys from token files in the current directory.
//
//   owner            locked while any process of the run lives: whoever can lock it knows it is
//   dead channel.1 to .4  one for each client at a time, which holds a flock on it while it is
//   served.
//                    The server makes them last, when queues, board and desk are ready, and removes
//                    them first when it ends: a run without them serves nobody now
//   .ZNT.RM.QUEUE    token file of five queues: 0 takes requests, 1 to 4 the answers of a channel
//   .ZNT.RM.MEM      token file of the segments: slot 0 begins with BoardHead
//
// The conversation, all of it from the side of the client:
//
//   1. lock a channel file without waiting, the next one if it is taken; one that has lost its
//      name meanwhile does not count. The system gives the lock back, however the client ends.
//   2. create the five queues in the server's order, and so join them. Create no sync object, and
//      do not end with rm_exit.
//   3. read the answer queue until it is empty: a predecessor may have died with answers in it.
//   4. send one request, and look for the answer without waiting. An answer with another process
//      id or sequence is one to a predecessor, arrived late: drop it. Look at the owner's lock
//      meanwhile, since a dead server never answers.
//   5. send the next request, with the next sequence, or end.
//
// A request is a RequestHead with name and text behind it, an answer an AnswerHead with its data
// behind it. Each is one message of a queue; its code is the Request, or the Status. Numbers have
// the machine's byte order. The queues are open to others too: both sides compare every length
// with the bytes that came, and drop what does not fit, without an answer.
//
//   request  name    text  index               answer: version  total    index     data
//   get      record  -     first byte wanted           yes      yes      as asked  bytes from there
//   put      record  note  0                           the new  0        0         -
//   list     prefix  -     first record wanted         0        records  next one  names
//
// get: the whole is the record's body, fields as name and value with a zero behind each, and behind
// it the note of its last update; `bodyBytes` says where it begins. A part that comes with another
// version than the part before it belongs to another whole: the client starts again at byte 0. An
// index at or beyond the end gets no data.
//
// list: an index is the number of a record, kListEnd the one after the last. Names stand as a
// length in 16 bits and the bytes; each begins with the prefix. A part may hold none and still have
// a next one.
//
// The server sends at most one answer to a request for each worker that dies over it, so the same
// answer may come twice. It drops an answer for which the queue has no room: one for which nobody
// has looked. A request that it cannot finish before it ends is answered with kAnswerEnding.
#ifndef CATALOGUE_PROTOCOL_H
#define CATALOGUE_PROTOCOL_H

#include "settings.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace catalogue
{

// --- files and slots

constexpr const char* kOwnerFile = "owner";
constexpr const char* kRunPrefix = "catalogue-run.";  // of the directory's name
constexpr std::size_t kRunRandom = 6;                 // characters behind the prefix
constexpr const char* kQueueToken = ".ZNT.RM.QUEUE";
constexpr const char* kBoardToken = ".ZNT.RM.MEM";

constexpr uint32_t kChannels = 4;  // numbered from 1
constexpr const char* kChannelFiles[kChannels] = {"channel.1", "channel.2", "channel.3",
                                                  "channel.4"};

// Queues, by handle: the order in which every process creates them. The answers of a channel have
// its number.
constexpr int16_t kRequestQueue = 0;
constexpr int16_t kQueues = 1 + kChannels;
constexpr const char* kQueueNames[kQueues] = {"requests", "answers 1", "answers 2", "answers 3",
                                              "answers 4"};

// Segments, by handle.
constexpr int16_t kBoardSegment = 0;
constexpr int16_t kJobsSegment = 1;
constexpr const char* kBoardName = "board";
constexpr const char* kJobsName = "jobs";

// --- messages

constexpr uint32_t kProtocolMagic = 0x01544143;  // "CAT" and the protocol's version, 1

constexpr uint32_t kNameBytes = 255;   // of a record's name at most; a reader of files allows 211
constexpr uint32_t kTextBytes = 63;    // of a note at most, and at least 1
constexpr uint32_t kPartBytes = 4096;  // of data in an answer at most
constexpr uint32_t kWholeBytes = (1U << 20) + kTextBytes;  // body and note of a record at most
constexpr uint32_t kListEnd = UINT32_MAX;                  // the index behind the last record

// Codes of messages on queue 0. What the processes of the run tell each other there has codes from
// kFirstInternal on.
enum Request : uint16_t {
    kRequestGet = 1,
    kRequestPut = 2,
    kRequestList = 3,
    kFirstInternal = 100
};

// Codes of messages on the queues of answers.
enum Status : uint16_t {
    kAnswerDone = 1,
    kAnswerNotFound = 2,  // there is no record of that name
    kAnswerRefused = 3,   // name, text or index are outside the limits
    kAnswerEnding = 4,    // the run ends, and the request was not done
    kAnswerBroken =
        5  // the server met an error; its log says which. The request may be done or not
};

// Both heads are aligned alike on every machine.
struct alignas(8) RequestHead {
    uint32_t magic;
    int32_t pid;        // of the client
    uint64_t sequence;  // begins anywhere, so that a reused process id does no harm
    uint32_t index;     // see above
    uint16_t channel;   // 1 to kChannels: the queue for the answer
    uint16_t nameBytes;
    uint16_t textBytes;
    uint16_t unused[3];  // 0
};

struct alignas(8) AnswerHead {
    uint32_t magic;
    int32_t pid;  // as in the request, like the next one
    uint64_t sequence;
    uint32_t version;    // of the record: 1 as loaded, 1 more with every update
    uint32_t total;      // bytes of the whole; kRequestList: records of the run
    uint32_t bodyBytes;  // of the whole's `total`, the rest is the note
    uint32_t index;      // of the first byte of data; kRequestList: record at which to go on
    uint32_t dataBytes;
    uint32_t unused;  // 0
};

constexpr uint32_t kRequestBytes = sizeof(RequestHead) + kNameBytes + kTextBytes;  // at most
constexpr uint32_t kAnswerBytes = sizeof(AnswerHead) + kPartBytes;                 // at most

static_assert(sizeof(RequestHead) == 32 && sizeof(AnswerHead) == 40);
static_assert(std::is_trivially_copyable_v<RequestHead> &&
              std::is_trivially_copyable_v<AnswerHead>);
static_assert(alignof(RequestHead) == 8 && alignof(AnswerHead) == 8);

// Whether a text can be a note: printable ASCII, of 1 to kTextBytes bytes.
constexpr bool isNote(const char* text, std::size_t bytes)
{
    for (std::size_t i = 0; i < bytes; ++i) {
        if (text[i] < ' ' || text[i] > '~') {
            return false;
        }
    }
    return bytes >= 1 && bytes <= kTextBytes;
}

// --- the board

enum class Phase : uint32_t {
    kLoading,
    kServing,   // the operations of the load generator and, if there are any, clients
    kStaying,   // clients only
    kEnding,    // what is under way is finished
    kVerifying  // every worker has ended
};

enum class WorkerState : uint32_t {
    kNone,  // there is no such worker
    kStarting,
    kWaiting,  // for a job
    kWorking,
    kReplacing,  // it has died, and what it left is cleaned up
    kEnded
};

struct PublicWorker {
    std::atomic<int32_t> pid;
    std::atomic<WorkerState> state;
    std::atomic<uint64_t> jobs;          // that it and its predecessors have finished
    std::atomic<uint32_t> replacements;  // how many predecessors it has
    std::atomic<uint32_t> unused;
};

// What anybody may know of a run. Each figure has one writer at a time and is read whole; together
// they need not be of one moment.
struct PublicFigures {
    std::atomic<int32_t> pid;  // of the parent
    std::atomic<Phase> phase;
    std::atomic<int64_t> started;  // seconds since 1970
    std::atomic<uint32_t> records;
    std::atomic<uint32_t> buckets;
    std::atomic<uint32_t> workers;
    std::atomic<uint32_t> generation;  // of the settings
    std::atomic<uint32_t> rotations;   // of all bucket files
    std::atomic<uint32_t> window;      // jobs that may be under way at a time
    std::atomic<uint32_t> underWay;    // jobs that are
    std::atomic<uint32_t> replaced;    // workers
    std::atomic<uint32_t> freedLocks;  // that dead workers held
    std::atomic<uint32_t> putBack;     // jobs that dead workers had
    std::atomic<uint32_t> redone;      // updates that dead workers had begun
    std::atomic<uint32_t> unused;
    // Operations that are done, clients' and the load generator's.
    std::atomic<uint64_t> lookups;  // misses included
    std::atomic<uint64_t> updates;
    std::atomic<uint64_t> misses;
    // Requests of clients that were answered, whatever the answer.
    std::atomic<uint64_t> gets;
    std::atomic<uint64_t> puts;
    std::atomic<uint64_t> lists;
    std::atomic<uint64_t> dropped;  // messages that were no request
    PublicWorker worker[kMaxWorkers];
};

constexpr uint64_t kBoardMagic = 0x6472616F42746143;  // "CatBoard"
constexpr uint32_t kBoardLayout = 1;                  // 1 more with every change to what follows

// What the segment begins with. The server writes the magic last, with release, and a client reads
// it first, with acquire: with it, everything before stands.
struct BoardHead {
    std::atomic<uint64_t> magic;
    uint32_t layout;
    uint32_t headBytes;   // sizeof(BoardHead)
    uint64_t boardBytes;  // of the whole board
    PublicFigures figures;
};

static_assert(std::atomic<uint64_t>::is_always_lock_free &&
              std::atomic<uint32_t>::is_always_lock_free);
static_assert(sizeof(PublicWorker) == 24);
static_assert(sizeof(PublicFigures) == 120 + kMaxWorkers * sizeof(PublicWorker));
static_assert(sizeof(BoardHead) == 24 + sizeof(PublicFigures));
static_assert(std::is_standard_layout_v<BoardHead>);

}  // namespace catalogue

#endif
