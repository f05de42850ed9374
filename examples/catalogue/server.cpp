// The parent process: loads the buckets, starts and watches the workers, verifies the result.
//
// Why: one process must know what the whole is: which files there are, which workers live, what
// every record must look like at the end. It works on the files only while nobody else does, before
// the fork and after the last worker, so it needs no lock of its own.
//
// Owns: the workers' process ids, the board, the signals that have come, the pool of buffers.
//
// Lifecycle: load, close, fork, watch, verify. The handles of the loading are closed before the
// fork, so that a worker begins with an empty file table and shares no descriptor with anybody.
//
// Signals: all of them stay blocked, and are fetched between two steps: between two records while
// it loads and verifies, between two looks at the workers. So none interrupts a call of the
// library, and a SIGHUP, which asks for the settings to be read again, may be answered by calling
// it; so may a SIGUSR1, which asks for a report of the memory. (With a handler the same holds if it
// sets a flag and nothing else.)
//
// Locks: a worker that is killed leaves locks behind that nobody gives back, its bucket's and
// perhaps fileSem or growSem. From that moment on the parent calls nothing that could wait for one:
// it stops the workers, by force if need be, and goes straight to rm_exit.
//
// Fatal: any call of the library may jump to the target that main has registered. No frame here
// owns anything; what must be ended, the workers, is reached through stopWorkers.
#include "server.h"

#include "adopt.h"
#include "board.h"
#include "buffers.h"
#include "chronicle.h"
#include "console.h"
#include "counters.h"
#include "journal.h"
#include "locks.h"
#include "report.h"
#include "store.h"
#include "worker.h"

#include "rm.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <sys/wait.h>
#include <unistd.h>

namespace catalogue
{
namespace
{
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kLook(100);        // how often the workers' figures are looked at
constexpr milliseconds kStopGrace(3000);  // a worker that waits for a lock wakes every second
constexpr uint32_t kMostMismatches = 10;  // described one by one

struct Worker {
    pid_t pid;   // 0 when it has been reaped or never was
    int status;  // as waitpid gave it
};

Worker workers[kMaxWorkers];
Board* board = nullptr;
int endSignal = 0;          // that asked for the end of the run
bool reloadWanted = false;  // SIGHUP has come
bool reportWanted = false;  // SIGUSR1 has come
char endReason[200] = "standard error says why";

sigset_t handledSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signalNumber : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGUSR1}) {
        sigaddset(&set, signalNumber);
    }
    return set;
}

// Sleeps until a worker ends, the run is to end, or the time is over. True when it is to end.
bool endRequested(milliseconds wait)
{
    const sigset_t set = handledSignals();
    const timespec time = {wait.count() / 1000, static_cast<long>(wait.count() % 1000) * 1000000};
    const int signalNumber = sigtimedwait(&set, nullptr, &time);
    if (signalNumber == SIGHUP) {
        reloadWanted = true;
    } else if (signalNumber == SIGUSR1) {
        reportWanted = true;
    } else if (signalNumber > 0 && signalNumber != SIGCHLD) {
        endSignal = signalNumber;
    }
    return endSignal != 0;
}

// Between two steps: answers what signals have asked for, and looks at the disk. False when the run
// is to end.
bool goOn(const Job& job, milliseconds wait)
{
    if (endRequested(wait)) {
        return false;
    }
    if (reloadWanted) {
        reloadWanted = false;
        reloadSettings(job.options, job.profile, job.settings, *board);
    }
    if (reportWanted) {
        reportWanted = false;
        reportMemory(job.settings, "as it was asked for");
    }
    watchDisk();
    return true;
}

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

// A tag for one job of this process: its memory goes all at once when the job is done.
int16_t newTag(const char* job)
{
    const int16_t tag = rm_allocTag(nullptr, board->tagLimit);
    rm_setTagName(job, tag);
    return tag;
}

bool load(const Job& job, RunFigures& run)
{
    const Input& input = job.input;
    const Clock::time_point begin = Clock::now();
    const int16_t tag = newTag("load");
    Store store = {};
    createStore(store, tag, input.largest, board->buckets);
    uint64_t done = 0;
    for (const Record& record : input.records) {
        if (!goOn(job, milliseconds(0)) || !appendRecord(store, record)) {
            return false;
        }
        showProgress("loading", ++done, input.records.size());
    }
    if (!finishStore(store)) {
        return false;
    }
    run.bytesLoaded = storeBytes(store);
    closeStore(store);
    rm_freeTagMemory(tag, 1);
    run.loadSeconds = secondsSince(begin);
    note("loaded %s records into %u files, %s bytes, in %.2f s", grouped(done).text, board->buckets,
         grouped(run.bytesLoaded).text, run.loadSeconds);
    return true;
}

bool forkWorkers(const Job& job)
{
    const pid_t parent = getpid();
    const auto count = static_cast<uint32_t>(job.settings.number[kWorkers]);
    const uint64_t operations = job.settings.number[kOperations];
    std::fflush(nullptr);  // or every worker would have a copy of what is buffered
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t share = operations / count + (i < operations % count ? 1 : 0);
        const uint32_t generation = board->settings.generation;  // that of the inherited settings
        const pid_t pid = fork();
        if (pid == 0) {
            runWorker({i + 1, parent, share, &job.input, board, &job.settings, generation,
                       i + 1 == job.options.killWorker});
        }
        if (pid < 0) {
            complain("cannot start worker %u: %s\nAllow more processes, or take fewer --workers.",
                     i + 1, std::strerror(errno));
            return false;
        }
        workers[i].pid = pid;
    }
    return true;
}

// Reaps what has ended. The number of a worker that did not end well, 0 when there is none.
uint32_t reapWorkers()
{
    uint32_t bad = 0;
    for (uint32_t i = 0; i < kMaxWorkers; ++i) {
        Worker& worker = workers[i];
        if (worker.pid == 0 || waitpid(worker.pid, &worker.status, WNOHANG) != worker.pid) {
            continue;
        }
        if (!WIFEXITED(worker.status) || WEXITSTATUS(worker.status) != kWorkerDone) {
            bad = bad == 0 ? i + 1 : bad;
        }
        worker.pid = 0;
    }
    return bad;
}

bool anyRunning()
{
    return std::ranges::any_of(workers, [](const Worker& worker) { return worker.pid != 0; });
}

uint64_t operationsDone()
{
    uint64_t done = 0;
    for (const Figures& figures : board->worker) {
        done += figures.counter[kLookups] + figures.counter[kUpdates];
    }
    return done;
}

void explainEnd(const Input& input, uint32_t number)
{
    const int status = workers[number - 1].status;
    if (!WIFSIGNALED(status)) {
        std::snprintf(endReason, sizeof(endReason), "worker %u ended with status %d", number,
                      WEXITSTATUS(status));
        complain(
            "worker %u ended with status %d; %s above says why.\n"
            "The other workers are stopped and nothing is verified; the next run starts afresh.",
            number, WEXITSTATUS(status),
            WEXITSTATUS(status) == kWorkerFatal ? "the library's log" : "its message");
        return;
    }
    const Figures& figures = board->worker[number - 1];
    const Record& record = input.records[figures.record];
    char doing[300] = "between two requests";
    if (figures.doing == Doing::kMiss) {
        std::snprintf(doing, sizeof(doing),
                      "in the middle of a lookup of a name that is not there");
    } else if (figures.doing != Doing::kNothing) {
        std::snprintf(doing, sizeof(doing), "in the middle of %s \"%s\" in %s",
                      figures.doing == Doing::kUpdate ? "an update of" : "a lookup of",
                      record.key.c_str(), bucketName(bucketOf(record.hash, board->buckets)));
    }
    const int signalNumber = WTERMSIG(status);
    std::snprintf(endReason, sizeof(endReason), "worker %u was killed by signal %d (%s)", number,
                  signalNumber, strsignal(signalNumber));
    complain(
        "worker %u was killed by signal %d (%s) %s.\n"
        "The other workers are stopped and nothing is verified. Find out who sent the signal\n"
        "(the log of the kernel names what it kills for memory); the next run starts afresh.",
        number, signalNumber, strsignal(signalNumber), doing);
}

bool watchWorkers(const Job& job)
{
    while (anyRunning()) {
        endRequested(kLook);
        // First of all: after a death nothing of the library may be called.
        const uint32_t bad = reapWorkers();
        if (bad != 0) {
            explainEnd(job.input, bad);
            return false;
        }
        if (!goOn(job, milliseconds(0))) {
            return false;
        }
        showProgress("serving", operationsDone(), job.settings.number[kOperations]);
    }
    clearProgress();
    return true;
}

// What differs between a record as it was read and as it must be; null when nothing does.
const char* difference(const Record& record, const StoredRecord& stored, uint32_t updates)
{
    if (stored.version != 1 + updates) {
        return "not as many updates as were made";
    }
    if (stored.body != record.body) {
        return "not the text of the input";
    }
    char note[kNoteRoom] = "";
    const uint32_t length = updates == 0 ? 0 : noteText(note, stored.version);
    if (!stored.note.starts_with(std::string_view(note, length)) ||
        stored.note.empty() != (updates == 0)) {
        return "not the note of the last update";
    }
    return nullptr;
}

bool verify(const Job& job, RunFigures& run)
{
    const Input& input = job.input;
    const Clock::time_point begin = Clock::now();
    const int16_t tag = newTag("verify");
    const auto total = static_cast<uint32_t>(input.records.size());
    Store store = {};
    openStore(store, tag, input.largest, board->buckets);
    uint32_t found = 0;
    uint32_t wrong = 0;
    for (uint32_t bucket = 0; bucket < store.buckets; ++bucket) {
        if (!scanBucket(store, bucket)) {
            return false;
        }
        found += store.bucket[bucket]->records;
    }
    for (uint32_t i = 0; i < total && wrong < kMostMismatches; ++i) {
        if (!goOn(job, milliseconds(0))) {
            return false;
        }
        const Record& record = input.records[i];
        StoredRecord stored = {};
        if (i + 1 == job.options.damageRecord && readRecord(store, record, stored)) {
            damageRecord(store, stored);
        }
        // No worker is left, so the lock of the pool is free.
        char* buffer = nullptr;
        if (takeBuffer(textsRoom(record), *board, buffer) != Entered::kYes) {
            return false;
        }
        if (!readRecord(store, record, stored)) {
            ++wrong;  // said already
        } else if (copyTexts(stored, buffer);
                   const char* what = difference(record, stored, board->updatesOf[i])) {
            ++wrong;
            complain("\"%s\" in %s, offset %u: %s.", record.key.c_str(), bucketName(stored.bucket),
                     stored.offset, what);
        }
        returnBuffer(buffer, *board);
        showProgress("verifying", i + 1, total);
    }
    clearProgress();
    if (wrong != 0 || found != total) {
        complain("the files do not match the input: %s%u wrong, %u stored of %u read.",
                 wrong == kMostMismatches ? "at least " : "", wrong, found, total);
        std::snprintf(endReason, sizeof(endReason), "the files do not match the input");
        return false;
    }
    run.bytesAtEnd = storeBytes(store);
    noteResources(board->parent, {}, tag, board->tagLimit);
    if (job.settings.number[kReport] != 0) {
        reportMemory(job.settings, "before its files are closed");
    }
    closeStore(store);
    rm_freeTagMemory(tag, 1);
    run.verifySeconds = secondsSince(begin);
    note("verified %s records in %.2f s", grouped(total).text, run.verifySeconds);
    return true;
}

Outcome badEnd()
{
    if (endSignal == 0) {
        closeJournalInHaste("end: failed, %s", endReason);
        return kFailed;
    }
    closeJournalInHaste("end: interrupted by signal %d (%s)", endSignal, strsignal(endSignal));
    complain("ended by signal %d (%s) after %s operations; nothing is verified.", endSignal,
             strsignal(endSignal), grouped(board != nullptr ? operationsDone() : 0).text);
    return kInterrupted;
}
}  // namespace

void blockSignals()
{
    // A reader that has gone must not end a run in its middle: the write fails instead.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);  // likewise where the size of a file is limited
    std::signal(SIGCHLD, SIG_DFL);  // ignored, if whoever started us left it so
    // Workers inherit the mask: an interrupt from the terminal reaches every process of the run,
    // and only the parent acts on it.
    const sigset_t set = handledSignals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

int interruptedBy()
{
    return endSignal;
}

void stopWorkers()
{
    if (board == nullptr) {
        return;
    }
    board->stop = 1;  // seen after the present operation, or when a wait for a lock times out
    const Clock::time_point deadline = Clock::now() + kStopGrace;
    while (anyRunning() && Clock::now() < deadline) {
        endRequested(kLook);
        reapWorkers();
    }
    for (Worker& worker : workers) {
        if (worker.pid != 0) {
            // It waits for a lock without a time-out, or is stopped: it will not come by itself.
            kill(worker.pid, SIGKILL);
            waitpid(worker.pid, &worker.status, 0);
            worker.pid = 0;
        }
    }
}

Outcome runServer(const Job& job)
{
    RunFigures run = {};
    const Clock::time_point start = Clock::now();
    board = makeBoard(static_cast<uint32_t>(job.input.records.size()));
    if (board == nullptr) {
        return kFailed;
    }
    board->buckets = static_cast<uint32_t>(job.settings.number[kBuckets]);
    publishSettings(board->settings, job.settings);
    startLibrary(job.settings, job.profile);
    board->tagLimit = tagLimitFor(job.settings, job.input);
    createLocks();
    createBuffers();
    if (!job.directory.noteSet()) {
        return badEnd();
    }
    std::printf("catalogue: process %d, semaphore set %d, files in %s\n", getpid(),
                job.directory.setId(), job.directory.path().c_str());
    std::fflush(stdout);
    noteStart(job);
    if (!load(job, run)) {
        return badEnd();
    }
    const Clock::time_point begin = Clock::now();
    if (!forkWorkers(job) || !watchWorkers(job)) {
        stopWorkers();
        return badEnd();
    }
    run.serveSeconds = secondsSince(begin);
    if (!verify(job, run)) {
        return badEnd();
    }
    freeBuffers();
    publishCounters(board->parent.counter);
    printSummary(job.options, job.settings, job.input, *board, run);
    noteEnd(*board, secondsSince(start));
    return kVerified;
}

}  // namespace catalogue
