// The parent process: loads the buckets, cares for its children, verifies the result.
//
// Why: one process must know what the whole is: which files there are, which processes live, what
// every record must look like at the end. It works on the files only while nobody else does, before
// the fork and after the last child, so it needs no lock of its own.
//
//   parent ──fork──> desk         hands out jobs, takes requests, and makes the backups
//          ──fork──> workers      do the jobs
//   clients          come and go  (separate programs; protocol.h)
//
// Owns: the board, the pool of buffers.
//
// Lifecycle: load, close, fork, watch, verify. The handles of the loading are closed before the
// fork, so that a child begins with an empty file table and shares no descriptor with anybody.
//
// Locks: a worker that is killed leaves locks behind, its bucket's and perhaps fileSem or growSem.
// While there are children the parent calls nothing that could wait for one; see crew.cpp.
//
// Fatal: any call of the library may jump to the target that main has registered. No frame here
// owns anything; what must be ended, the children, is reached through stopServer.
#include "server.h"

#include "adopt.h"
#include "board.h"
#include "buffers.h"
#include "chronicle.h"
#include "console.h"
#include "counters.h"
#include "crew.h"
#include "jobs.h"
#include "journal.h"
#include "locks.h"
#include "queues.h"
#include "report.h"
#include "rotation.h"
#include "signals.h"
#include "store.h"
#include "verify.h"

#include "rm.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace catalogue
{
namespace
{
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

Board* board = nullptr;

double secondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// A budget for one process's tag, in bytes. The library enforces no limit: it tells how much of it
// is left, and what to do about that is the host's decision. This one prints it.
uint32_t tagLimitFor(const Settings& settings, const Input& input)
{
    if (settings.number[kMemoryLimit] != kNoLimit) {
        return rmemavail;  // where rm_init has put it
    }
    constexpr uint64_t kBase = 65536;
    constexpr uint64_t kPerRecord = 128;
    constexpr uint64_t kMost = uint64_t{1} << 30;
    const uint64_t bytes = kBase + kPerRecord * input.records.size() + uint64_t{2} * input.largest;
    return static_cast<uint32_t>(std::min(bytes, kMost));
}

// Everything that processes share, before there is a second one. The order counts for shared
// memory and queues: it is the one in which clients create theirs.
void createShared(const Host& host)
{
    board = makeBoard(static_cast<uint32_t>(host.input.records.size()), host.input.largest);
    board->tagLimit = tagLimitFor(host.settings, host.input);
    board->head.figures.buckets = static_cast<uint32_t>(host.settings.number[kBuckets]);
    board->head.figures.workers = static_cast<uint32_t>(host.settings.number[kWorkers]);
    publishSettings(*board, host.settings);
    shareJournal(board->journalBegun);
    createLocks();
    createBuffers();
    createJobs();
    createQueues();
}

bool load(const Host& host, RunFigures& run)
{
    const Input& input = host.input;
    const Clock::time_point begin = Clock::now();
    const int16_t tag = rm_allocTag(nullptr, board->tagLimit);
    rm_setTagName("load", tag);  // its memory goes all at once when the job is done
    Store store = {};
    createStore(store, tag, input.largest, board->head.figures.buckets);
    uint64_t done = 0;
    for (const Record& record : input.records) {
        if (!goOn(host, *board) || !appendRecord(store, record)) {
            return false;
        }
        showProgress("loading", ++done, input.records.size());
    }
    if (!finishStore(store)) {
        return false;
    }
    for (uint32_t bucket = 0; bucket < store.buckets; ++bucket) {
        backUpBucket(*board, bucket, nullptr);
    }
    board->head.figures.rotations.fetch_add(1);
    run.bytesLoaded = storeBytes(store);
    closeStore(store);
    rm_freeTagMemory(tag, 1);
    run.loadSeconds = secondsSince(begin);
    note("loaded %s records into %u files, %s bytes, in %.2f s", grouped(done).text, store.buckets,
         grouped(run.bytesLoaded).text, run.loadSeconds);
    return true;
}

Outcome badEnd()
{
    const int endSignal = interruptedBy();
    if (const Asked& asked = awaitSignals(milliseconds(0)); asked.ends == asked.heeded) {
        closeJournalInHaste("end: failed, %s", endReason());
        return kFailed;
    }
    closeJournalInHaste("end: interrupted by signal %d (%s)", endSignal, strsignal(endSignal));
    complain("ended by signal %d (%s) after %s operations; nothing is verified.", endSignal,
             strsignal(endSignal),
             grouped(board != nullptr ? board->operationsDone.load() : 0).text);
    return kInterrupted;
}

// The desk, the workers and clients, until there are none. False when that did not end well.
bool serve(const Host& host, RunFigures& run)
{
    const Clock::time_point begin = Clock::now();
    const uint32_t generation = board->settings.generation;
    board->head.figures.phase = Phase::kServing;
    openBoard(*board);
    suspendJournal();
    if (!startCrew(host, *board) || !host.directory.openChannels()) {
        stopCrew(*board);
        return false;
    }
    const Watched watched = watchCrew(host, *board);
    RunDirectory::closeChannels();
    if (watched != Watched::kDone) {
        stopCrew(*board);
        return false;
    }
    run.serveSeconds = secondsSince(begin);
    board->head.figures.phase = Phase::kVerifying;
    resumeJournal();
    uint32_t known = generation;
    followSettings(*board, host.settings, known);
    return true;
}

// The run has ended in order, and everything is verified.
Outcome goodEnd(const Host& host, double seconds)
{
    const int endSignal = interruptedBy();
    if (endSignal == 0 || host.options.stay) {
        noteEnd(*board, seconds);
        return kVerified;
    }
    note("end: interrupted by signal %d (%s)", endSignal, strsignal(endSignal));
    complain("ended by signal %d (%s) after %s operations; what was done is verified.", endSignal,
             strsignal(endSignal), grouped(board->operationsDone).text);
    return kInterrupted;
}
}  // namespace

bool goOn(const Host& host, Board& shared)
{
    Asked& asked = awaitSignals(milliseconds(0));
    if (asked.ends > asked.heeded) {
        return false;
    }
    if (asked.reload) {
        asked.reload = false;
        reloadSettings(host.options, host.profile, host.settings, shared);
    }
    if (asked.report) {
        asked.report = false;
        reportMemory(host.settings, "as it was asked for");
    }
    watchDisk();
    return true;
}

void stopServer()
{
    if (board != nullptr) {
        stopCrew(*board);
    }
}

Outcome runServer(const Host& host)
{
    RunFigures run = {};
    const Clock::time_point start = Clock::now();
    startLibrary(host.settings, host.profile);
    createShared(host);
    std::printf("catalogue: process %d, semaphore set %d, files in %s\n", getpid(),
                host.directory.setId(), host.directory.path().c_str());
    std::fflush(stdout);
    noteStart(host);
    if (!load(host, run) || !serve(host, run) || !verify(host, *board, run)) {
        return badEnd();
    }
    freeBuffers();
    publishCounters(board->parent.counter);
    printSummary(host.options, host.settings, host.input, *board, run);
    return goodEnd(host, secondsSince(start));
}

}  // namespace catalogue
