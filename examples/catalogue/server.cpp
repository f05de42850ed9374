// The parent process: loads the buckets, starts and watches the workers, verifies the result.
//
// Why: one process must know what the whole is: which files there are, which workers live, what
// every record must look like at the end. It works on the files only while nobody else does, before
// the fork and after the last worker, so it needs no lock of its own.
//
// Owns: the workers' process ids, the board, the signal that interrupted the run.
//
// Lifecycle: load, close, fork, watch, verify. The handles of the loading are closed before the
// fork, so that a worker begins with an empty file table and shares no descriptor with anybody.
//
// Locks: a worker that is killed leaves locks behind that nobody gives back, its bucket's and
// perhaps fileSem or growSem. From that moment on the parent calls nothing that could wait for one:
// it stops the workers, by force if need be, and goes straight to rm_exit.
//
// Fatal: any call of the library may jump to the target that main has registered. No frame here
// owns anything; what must be ended, the workers, is reached through stopWorkers.
#include "server.h"

#include "board.h"
#include "console.h"
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
int endSignal = 0;  // that asked for the end of the run

sigset_t handledSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signalNumber : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) {
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
    if (signalNumber > 0 && signalNumber != SIGCHLD) {
        endSignal = signalNumber;
    }
    return endSignal != 0;
}

double secondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// A budget for one process's tag, in bytes. The library enforces no limit: it tells how much of it
// is left, and what to do about that is the host's decision. This one prints it.
uint32_t tagLimitFor(const Input& input)
{
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

bool load(const Input& input, RunFigures& run)
{
    const Clock::time_point begin = Clock::now();
    const int16_t tag = newTag("load");
    Store store = {};
    createStore(store, tag, input.largest);
    uint64_t done = 0;
    for (const Record& record : input.records) {
        if (endRequested(milliseconds(0)) || !appendRecord(store, record)) {
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
    return true;
}

bool forkWorkers(const Options& options, const Input& input)
{
    const pid_t parent = getpid();
    std::fflush(nullptr);  // or every worker would have a copy of what is buffered
    for (uint32_t i = 0; i < options.workers; ++i) {
        const uint64_t share = options.operations / options.workers +
                               (i < options.operations % options.workers ? 1 : 0);
        const pid_t pid = fork();
        if (pid == 0) {
            runWorker({i + 1, parent, share, &input, board, i + 1 == options.killWorker});
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
        done += figures.lookups + figures.updates;
    }
    return done;
}

void explainEnd(const Input& input, uint32_t number)
{
    const int status = workers[number - 1].status;
    if (!WIFSIGNALED(status)) {
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
    if (figures.doing != Doing::kNothing) {
        std::snprintf(doing, sizeof(doing), "in the middle of %s \"%s\" in %s",
                      figures.doing == Doing::kUpdate ? "an update of" : "a lookup of",
                      record.key.c_str(), bucketName(bucketOf(record)));
    }
    const int signalNumber = WTERMSIG(status);
    complain(
        "worker %u was killed by signal %d (%s) %s.\n"
        "The other workers are stopped and nothing is verified. Find out who sent the signal\n"
        "(the log of the kernel names what it kills for memory); the next run starts afresh.",
        number, signalNumber, strsignal(signalNumber), doing);
}

bool watchWorkers(const Options& options, const Input& input)
{
    while (anyRunning()) {
        const bool end = endRequested(kLook);
        const uint32_t bad = reapWorkers();
        if (bad != 0) {
            explainEnd(input, bad);
            return false;
        }
        if (end) {
            return false;
        }
        showProgress("serving", operationsDone(), options.operations);
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

bool verify(const Options& options, const Input& input, RunFigures& run)
{
    const Clock::time_point begin = Clock::now();
    const int16_t tag = newTag("verify");
    const auto total = static_cast<uint32_t>(input.records.size());
    Store store = {};
    openStore(store, tag, input.largest);
    uint32_t found = 0;
    uint32_t wrong = 0;
    for (uint32_t bucket = 0; bucket < kBuckets; ++bucket) {
        if (!scanBucket(store, bucket)) {
            return false;
        }
        found += store.bucket[bucket].records;
    }
    for (uint32_t i = 0; i < total && wrong < kMostMismatches; ++i) {
        if (endRequested(milliseconds(0))) {
            return false;
        }
        const Record& record = input.records[i];
        StoredRecord stored = {};
        if (i + 1 == options.damageRecord && readRecord(store, record, stored)) {
            damageRecord(store, stored);
        }
        if (!readRecord(store, record, stored)) {
            ++wrong;  // said already
        } else if (const char* what = difference(record, stored, board->updatesOf[i])) {
            ++wrong;
            complain("\"%s\" in %s, offset %u: %s.", record.key.c_str(), bucketName(stored.bucket),
                     stored.offset, what);
        }
        showProgress("verifying", i + 1, total);
    }
    clearProgress();
    if (wrong != 0 || found != total) {
        complain("the files do not match the input: %s%u wrong, %u stored of %u read.",
                 wrong == kMostMismatches ? "at least " : "", wrong, found, total);
        return false;
    }
    run.bytesAtEnd = storeBytes(store);
    noteResources(board->parent, {}, tag, board->tagLimit);
    closeStore(store);
    rm_freeTagMemory(tag, 1);
    run.verifySeconds = secondsSince(begin);
    return true;
}

Outcome badEnd()
{
    if (endSignal == 0) {
        return kFailed;
    }
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

Outcome runServer(const Options& options, const Input& input, RunDirectory& directory)
{
    RunFigures run = {};
    board = makeBoard(static_cast<uint32_t>(input.records.size()));
    if (board == nullptr) {
        return kFailed;
    }
    board->tagLimit = tagLimitFor(input);
    createLocks();
    if (!directory.noteSet()) {
        return kFailed;
    }
    std::printf("catalogue: process %d, semaphore set %d, files in %s\n", getpid(),
                directory.setId(), directory.path().c_str());
    std::fflush(stdout);
    if (!load(input, run)) {
        return badEnd();
    }
    const Clock::time_point begin = Clock::now();
    if (!forkWorkers(options, input) || !watchWorkers(options, input)) {
        stopWorkers();
        return badEnd();
    }
    run.serveSeconds = secondsSince(begin);
    if (!verify(options, input, run)) {
        return badEnd();
    }
    printSummary(options, input, *board, run);
    return kVerified;
}

}  // namespace catalogue
