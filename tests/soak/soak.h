// The soak, front page: eight processes that use every family of the library at random, and are
// killed at random.
//
//   main.cpp      options
//   parent.cpp    start-up, the killing, replacements, the end
//   recovery.cpp  what is put right for a dead worker, and its locks
//   verify.cpp    every total, when all workers have ended
//   scratch.cpp   the directory of the run, and what must not be left
//   report.cpp    lines of progress, the table, the findings
//   worker.cpp    a worker's life: steps, the watch on the log, the checkers
//   the others    a family of calls each, or a few
//
// A family has a state of its own, which is the process's: a worker makes it when it starts. A step
// is one random operation of one family. What it gives is compared with a model, where the state is
// the worker's alone, or with invariants, where it is shared.
#ifndef RM_TESTS_SOAK_SOAK_H
#define RM_TESTS_SOAK_SOAK_H

#include "board.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace soak
{

// --- The plan of a worker: the same for the same seed, worker and life.

class Random
{
  public:
    explicit Random(uint64_t seed = 0) : state_(seed) {}

    uint64_t next()
    {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15U);
        z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9U;
        z = (z ^ (z >> 27U)) * 0x94D049BB133111EBU;
        return z ^ (z >> 31U);
    }

    // 0 to bound - 1.
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(next() % bound); }

    // True once in `times`.
    bool once(uint32_t times) { return below(times) == 0; }

    // Letters and digits.
    std::string text(uint32_t length);

  private:
    uint64_t state_;
};

// --- Families

struct Family {
    const char* name;
    uint32_t weight;  // of its steps among all
    void (*start)();  // makes the state; also puts right what an earlier life has left
    void (*step)();   // one random operation
    void (*check)();  // the checkers; may be null
    void (*end)();    // gives back what the worker holds, before it ends in order; may be null
    bool logs;        // its steps may write into the log as they like
};

extern const Family kMemory;
extern const Family kReports;
extern const Family kPools;
extern const Family kFiles;
extern const Family kDiary;
extern const Family kCopies;
extern const Family kRecords;
extern const Family kLocksFamily;
extern const Family kEvents;
extern const Family kSharedMemory;
extern const Family kQueuesFamily;
extern const Family kFfBag;
extern const Family kBags;
extern const Family kArrays;
extern const Family kEnvironment;
extern const Family kSettings;
extern const Family kSharedSettings;
extern const Family kStreams;
extern const Family kTexts;
extern const Family kPaths;
extern const Family kLog;
extern const Family kStatistics;
extern const Family kModules;
extern const Family kErrorFrames;

std::span<const Family* const> families();

// --- What all processes of the run know

struct Options {
    uint32_t seconds = 60;
    uint64_t seed = 1;
    uint32_t killEveryMs = 300;  // on average; 0: nobody is killed
    uint32_t checkEvery = 500;   // steps
    std::string directory;       // under which the scratch directory is made
    bool keep = false;           // the scratch directory stays
};

extern Options options;
extern Board* board;  // null before the start and after the end
extern int16_t locks[kLocks];
extern int16_t parcelEvent;
extern int16_t queues[kQueues];
extern void* tokenBag;
extern RmPool* sharedPool;
extern uint32_t mostData;  // bytes of a message on this machine

// Index of this worker; kWorkers in the parent.
extern uint32_t me;

inline WorkerBoard& mine()
{
    return board->worker[me];
}

extern Random plan;  // of this process

// --- Findings

// Notes a finding, with where it was made, and asks all to stop. A worker ends here.
void found(const char* format, ...) __attribute__((format(printf, 1, 2)));

void countCheck();

// What must hold; else a finding with the text.
#define SOAK_CHECK(condition, ...)      \
    do {                                \
        ::soak::countCheck();           \
        if (!(condition)) {             \
            ::soak::found(__VA_ARGS__); \
        }                               \
    } while (false)

// --- For the families

// Enters a lock of the soak and sees that nobody else is inside. False when the run ends meanwhile.
bool enter(uint32_t lock);
void leave(uint32_t lock);

// Makes the moment longer in which a death hurts.
void dawdle();

// The log lines that this process has written since the last time, without their stamps.
std::string newLog();

// The path of a file in the worker's own directory.
std::string own(std::string_view name);

std::string slurp(const std::string& path);
void spit(const std::string& path, std::string_view text);

uint64_t sumOf(const void* bytes, std::size_t count);

// Bytes that follow from a seed.
void fill(void* bytes, std::size_t count, uint64_t seed);
bool isFilled(const void* bytes, std::size_t count, uint64_t seed);

void makeRecord(Record* record, uint32_t slot, uint32_t version, uint32_t writer, uint32_t life);
bool isWhole(const Record& record);
Token tokenOf(uint32_t number, uint64_t turn);
void sweepWorkspace();
uint32_t lengthOfMessage(uint32_t sender, uint32_t queue, uint32_t number);
// True when the message is the one; the reader's number of it is stored.
bool isMessage(const char* data, int16_t length, uint16_t code, uint32_t queue, uint32_t* sender,
               uint32_t* number);
// One message of the queue, if there is any: checked and counted. Under the queue's lock.
bool takeMessage(uint32_t queue, bool wait);
bool diaryIsWhole(uint32_t worker);
// Slots of the file table that fatal errors have left in use for good.
uint32_t strandedFiles();
// Unloads of this life, each of which leaves a little memory behind.
uint32_t modulesUnloaded();

constexpr const char* kRecordFile = "records.dat";
constexpr const char* kSharedIni = "shared/soak.ini";
constexpr const char* kModuleDirectory = "modules";
constexpr uint32_t kDescriptors = 7;  // that a worker may have open for managed files

// Puts a change of the shared INI file right that was cut off. 0 when the file is in its place.
int settle(const char* path);

// --- worker.cpp

[[noreturn]] void runWorker(uint32_t index);

constexpr int kEndedWell = 0;
constexpr int kEndedByFinding = 3;

// --- recovery.cpp

// What a dead worker has left: first the data, then the locks. Enters no lock.
void recover(uint32_t index);
uint32_t locksRecovered();

// --- verify.cpp

// Every total, when there is no worker any more.
void verifyAll();

struct Totals {
    uint64_t recordsWritten;
    uint64_t recordsLost;
    uint64_t messages;
    uint64_t parcels;
    uint64_t transfers;
};

Totals totals();

// --- scratch.cpp

// The directory of the run, which becomes the current one. False after having said why not.
bool makeScratch();
// Notes what there is before the library has done anything.
void noteBefore();
// Which IPC objects the library has made.
void noteObjects();
// What the library has left; findings.
void checkNothingLeft();
void removeScratch();
const std::string& scratch();
std::vector<int> openDescriptors();

// --- report.cpp

struct Tally {
    uint64_t killed;
    uint64_t replaced;
    uint64_t residentKbAtStart;
    uint64_t residentKbAtEnd;
    double seconds;
};

uint64_t operationsSoFar();
uint64_t residentKb();
void showProgress(const Tally& tally);
void showTable(const Tally& tally);
// The last line, and the findings before it. The exit status.
int showResult(const Tally& tally);

// --- parent.cpp

int runParent();

}  // namespace soak

#endif
