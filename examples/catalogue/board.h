// What the processes of a run tell each other: memory that they share from before the fork.
#ifndef CATALOGUE_BOARD_H
#define CATALOGUE_BOARD_H

#include "counters.h"
#include "settings.h"

#include <atomic>
#include <cstdint>

namespace catalogue
{

enum class Doing : uint32_t { kNothing, kLookup, kUpdate, kMiss };

// Written by one process, read by the parent. A worker may be killed at any instruction, so every
// field is written whole.
struct Figures {
    std::atomic<uint32_t> counter[kCounters];  // as this process had them last
    std::atomic<uint64_t> lockWaitedNs;        // spent in waits for locks
    std::atomic<uint32_t> filesOpen;           // as rm_fileCounts has them, at the end
    std::atomic<uint32_t> filesParked;
    std::atomic<uint32_t> parkings;  // made by this process
    std::atomic<uint32_t> reopens;
    std::atomic<int32_t> memoryUsed;  // bytes of the process's tag
    std::atomic<Doing> doing;
    std::atomic<uint32_t> record;  // with which it is doing it
};

// The settings that are in effect, written by the parent alone. There are two copies, and the
// generation says which one counts, so that a reader needs no lock: one that was overtaken notices.
constexpr std::size_t kSettingsWords = sizeof(Settings) / sizeof(uint32_t);

struct SharedSettings {
    std::atomic<uint32_t> generation;
    std::atomic<uint32_t> words[2][kSettingsWords];
};

static_assert(sizeof(Settings) % sizeof(uint32_t) == 0);

struct Board {
    uint32_t tagLimit;           // bytes, of each process's tag; set before the fork
    uint32_t buckets;            // likewise
    std::atomic<uint32_t> stop;  // set by the parent: end after the present operation
    SharedSettings settings;
    Figures parent;
    Figures worker[kMaxWorkers];
    // Updates of each record that are complete. Written under the lock of the record's bucket.
    std::atomic<uint32_t>* updatesOf;
};

static_assert(std::atomic<uint64_t>::is_always_lock_free &&
                  std::atomic<uint32_t>::is_always_lock_free,
              "a process that dies inside an atomic must not leave a lock behind");

// In the parent: makes these the settings of all.
void publishSettings(SharedSettings& shared, const Settings& settings);

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

// Null after having said why not. The mapping lasts until the process ends.
Board* makeBoard(uint32_t records);

}  // namespace catalogue

#endif
