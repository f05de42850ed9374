// What the processes of a run tell each other: memory that they share.
#ifndef CATALOGUE_BOARD_H
#define CATALOGUE_BOARD_H

#include "counters.h"
#include "jobs.h"
#include "protocol.h"
#include "settings.h"
#include "store.h"

#include <atomic>
#include <cstdint>

namespace catalogue
{

enum class Doing : uint32_t { kNothing, kLookup, kUpdate, kMiss, kList };

// Written by one process, read by the parent. A worker may be killed at any instruction, so every
// field is written whole. A worker's replacement goes on with them.
struct Figures {
    std::atomic<uint32_t> counter[kCounters];  // as this process and its predecessors had them last
    std::atomic<uint64_t> lockWaitedNs;        // spent in waits for locks
    std::atomic<uint32_t> filesOpen;           // as rm_fileCounts has them, at the end
    std::atomic<uint32_t> filesParked;
    std::atomic<uint32_t> parkings;  // made by this process
    std::atomic<uint32_t> reopens;
    std::atomic<int32_t> memoryUsed;  // bytes of the process's tag
    std::atomic<Doing> doing;
    std::atomic<uint32_t> record;  // with which it is doing it
};

// The settings that are in effect, written by one process at a time: the parent, and the desk as
// long as there is one. There are two copies, and the generation says which one counts, so that a
// reader needs no lock: one that was overtaken notices.
constexpr std::size_t kSettingsWords = sizeof(Settings) / sizeof(uint32_t);

struct SharedSettings {
    std::atomic<uint32_t> generation;
    std::atomic<uint32_t> words[2][kSettingsWords];
};

static_assert(sizeof(Settings) % sizeof(uint32_t) == 0);

// How far a worker is with a job that it holds.
enum class Progress : uint32_t { kTaken, kDone, kAnswered };

struct Held {
    Job job;
    std::atomic<Progress> progress;
    std::atomic<uint32_t> version;  // of the record; of an update that is done
};

// The jobs of one worker. It grows and is emptied under the lock of the jobs only, so whoever holds
// that knows where every job is. What the worker has reported stays here until it takes new ones.
struct Hand {
    std::atomic<uint32_t> count;
    Held held[kHandful];
};

// What must be true of a record in the files. Written under the lock of its bucket.
struct RecordState {
    std::atomic<uint32_t> updates;  // that are complete
    std::atomic<uint32_t> noteBytes;
    char note[kNoteRoom];  // of the last one
};

// An update that has begun. See intent.h.
struct Intent {
    std::atomic<uint32_t> valid;
    uint32_t record;
    uint32_t held;  // index in the hand of the worker
    uint32_t noteBytes;
    uint64_t ticket;  // of the job
    char note[kNoteRoom];
    SlotChange change;  // the image of its slot follows behind the intent
};

struct Board {
    BoardHead head;         // what a client may read
    uint32_t tagLimit;      // bytes, of each process's tag; set before the fork
    uint32_t imageRoom;     // bytes of the largest image of a slot
    uint64_t recordsAt;     // offset of the RecordStates
    uint64_t intentsAt;     // offset of the intents, each with its image
    uint64_t intentStride;  // bytes from one to the next

    std::atomic<uint32_t> stop;  // set by parent or desk: end after the present operation
    // Set by the parent with a message to the desk, cleared by the desk when it has read it: so
    // there is at most one of each under way.
    std::atomic<uint32_t> reloadAsked;
    std::atomic<uint32_t> reportAsked;
    std::atomic<uint32_t> rotationAsked;
    std::atomic<uint32_t> journalBegun;    // see journal.h
    std::atomic<uint32_t> reloads;         // that there have been, of the settings
    std::atomic<uint64_t> operationsDone;  // of the load generator
    std::atomic<uint32_t> beats;           // of whoever has the turn: it moves on
    std::atomic<uint32_t> killedHalfway;   // test aid: the worker has killed itself
    SharedSettings settings;
    Figures parent;
    Figures desk;
    Figures worker[kMaxWorkers];
    Hand hand[kMaxWorkers];
};

// In the process that settings are read by: makes these the settings of all.
void publishSettings(Board& board, const Settings& settings);

// Copies the settings and says which generation they are.
uint32_t copySettings(const SharedSettings& shared, Settings& settings);

// Parkings and reopens that this process has counted. A forked one begins with its parent's.
struct FileMoves {
    uint32_t parkings;
    uint32_t reopens;
};

FileMoves fileMoves();

// Notes what the library holds for this process now: its files, the memory of `tag`, its counters.
// `before` is what had been counted when the process began.
void noteResources(Figures& figures, const FileMoves& before, int16_t tag, uint32_t tagLimit);

RecordState& recordState(Board& board, uint32_t record);
const RecordState& recordState(const Board& board, uint32_t record);

// Of the worker with that index, from 0, and the image behind it.
Intent& intentOf(Board& board, uint32_t worker);
char* imageOf(Intent& intent);

// Bytes of the segment, by the number of records and the largest one.
uint64_t boardBytes(uint32_t records, uint32_t largest);

// Makes the segment, in the parent and as its first. Fatal when it cannot be had.
Board* makeBoard(uint32_t records, uint32_t largest);

// From now on clients find it.
void openBoard(Board& board);

}  // namespace catalogue

#endif
