// A worker process: looks records up and updates them, until its share is done.
//
// Why: this is what a server's process does all day: take a request, lock what it touches, read,
// perhaps write, unlock, answer. The requests come from a random sequence here; some ask for a name
// that nobody stored. A lookup compares the answer with the input, so a wrong one is noticed at
// once. Between two requests is the place where a worker takes over new settings.
//
// Owns: one tag with a limit, in which its indexes and its buffer live; its own handles of the
// bucket files, opened after the fork. An inherited descriptor would share its offset with the
// parent and with the other workers.
//
// Lifecycle: every end is an _exit. A fatal error of the library arrives in the target registered
// here: the parent's, which was inherited, would tear down what the other workers stand on.
//
// Fatal: any call of the library may jump out of serve() and of all that it calls. What those
// frames hold is plain data; a lock of the host's that was held stays held, and the parent, which
// sees the exit status, stops the others.
#include "worker.h"

#include "adopt.h"
#include "console.h"
#include "counters.h"
#include "journal.h"
#include "locks.h"
#include "store.h"

#include "rm.h"

#include <csetjmp>
#include <cstdio>
#include <random>
#include <type_traits>

#include <unistd.h>

namespace catalogue
{
namespace
{
constexpr unsigned kMissOneIn = 16;  // lookups

using Random = std::mt19937_64;
static_assert(std::is_trivially_destructible_v<Random>, "a fatal error jumps over it");

jmp_buf fatalTarget;  // static: main's frames are the parent's business

bool openBuckets(const Work& work, Store& store, Figures& figures, int16_t tag)
{
    openStore(store, tag, work.input->largest, work.board->buckets);
    for (uint32_t bucket = 0; bucket < store.buckets; ++bucket) {
        const Entered entered = enterBucket(bucket, *work.board, figures);
        if (entered != Entered::kYes) {
            return entered == Entered::kStopped;
        }
        const bool scanned = scanBucket(store, bucket);
        leaveBucket(bucket);
        if (!scanned) {
            return false;
        }
    }
    return true;
}

// What is asked of the store.
struct Request {
    Doing kind;
    uint32_t number;  // of the record; for a miss any number, which makes up the name
    uint64_t hash;    // of the name
    char absent[32];  // the name of a miss. It begins with a blank: no name of an input does.
    bool dieHalfway;
};

Request nextRequest(const Work& work, Random& random, uint32_t updateOneIn)
{
    Request request = {};
    request.number = static_cast<uint32_t>(random() % work.input->records.size());
    request.hash = work.input->records[request.number].hash;
    if (random() % updateOneIn == 0) {
        request.kind = Doing::kUpdate;
    } else if (random() % kMissOneIn != 0) {
        request.kind = Doing::kLookup;
    } else {
        request.kind = Doing::kMiss;
        std::snprintf(request.absent, sizeof(request.absent), " absent %u", request.number);
        request.hash = hashBytes(request.absent);
    }
    return request;
}

bool answerMiss(const Work& work, Store& store, const Request& request)
{
    StoredRecord stored = {};
    const Found found = findRecord(store, request.absent, request.hash, stored);
    if (found == Found::kYes) {
        complain("worker %u: \"%s\" was read from %s, and nobody has stored it.", work.number,
                 request.absent, bucketName(stored.bucket));
    }
    count(kLookups);
    count(kMisses);
    return found == Found::kNo;
}

// One lookup, or one update, under the lock of the bucket. False when something is wrong.
bool answerOne(const Work& work, Store& store, const Request& request)
{
    if (request.kind == Doing::kMiss) {
        return answerMiss(work, store, request);
    }
    const Record& record = work.input->records[request.number];
    StoredRecord stored = {};
    if (!readRecord(store, record, stored)) {
        return false;
    }
    if (stored.body != record.body || stored.version != 1 + work.board->updatesOf[request.number]) {
        complain("worker %u: \"%s\" was read from %s, offset %u, and is not what was stored.",
                 work.number, record.key.c_str(), bucketName(stored.bucket), stored.offset);
        return false;
    }
    if (request.kind == Doing::kLookup) {
        count(kLookups);
        return true;
    }
    if (!updateRecord(store, stored, work.number, request.dieHalfway)) {
        return false;
    }
    ++work.board->updatesOf[request.number];
    count(kUpdates);
    return true;
}

// Between two requests: what the parent has to say.
void listen(const Work& work, uint32_t& generation, uint32_t& updates)
{
    const uint32_t before = generation;
    followSettings(*work.board, *work.settings, generation);
    if (generation != before) {
        updates = updateOneIn();
    }
    watchDisk();
}

bool answerAll(const Work& work, Store& store, Figures& figures)
{
    Random random(work.number);  // the same requests in every run
    uint32_t generation = work.generation;
    uint32_t updates = updateOneIn();
    for (uint64_t done = 0; done < work.operations && work.board->stop == 0; ++done) {
        if (getppid() != work.parent) {
            complain("worker %u: the parent has gone.", work.number);
            return false;
        }
        listen(work, generation, updates);
        Request request = nextRequest(work, random, updates);
        request.dieHalfway =
            work.killHalfway && request.kind == Doing::kUpdate && done >= work.operations / 2;
        const uint32_t bucket = bucketOf(request.hash, store.buckets);

        const Entered entered = enterBucket(bucket, *work.board, figures);
        if (entered != Entered::kYes) {
            return entered == Entered::kStopped;
        }
        figures.record = request.number;
        figures.doing = request.kind;
        const bool good = answerOne(work, store, request);
        publishCounters(figures.counter);
        figures.doing = Doing::kNothing;
        leaveBucket(bucket);
        if (!good) {
            return false;
        }
    }
    return true;
}

bool serve(const Work& work)
{
    Figures& figures = work.board->worker[work.number - 1];
    const FileMoves before = fileMoves();
    note("start: process %d, %llu operations", getpid(),
         static_cast<unsigned long long>(work.operations));
    const int16_t tag = rm_allocTag(nullptr, work.board->tagLimit);
    rm_setTagName("worker", tag);

    Store store = {};
    if (!openBuckets(work, store, figures, tag) || !answerAll(work, store, figures)) {
        return false;
    }
    noteResources(figures, before, tag, work.board->tagLimit);
    const uint32_t memory = rm_memused();
    closeStore(store);
    rm_freeTagMemory(tag, 1);
    note("end: %s lookups, %s updates, in %s bytes of memory",
         grouped(figures.counter[kLookups]).text, grouped(figures.counter[kUpdates]).text,
         grouped(memory).text);
    publishCounters(figures.counter);
    return true;
}
}  // namespace

void runWorker(const Work& work)
{
    disownProgress();
    if (setjmp(fatalTarget) != 0) {
        std::fflush(stdout);  // the library prints what it could not log twice
        _exit(kWorkerFatal);
    }
    rm_errorJump(fatalTarget);
    static char name[sizeof("worker 00")];
    std::snprintf(name, sizeof(name), "worker %u", work.number % 100);
    nameJournal(name);
    startCounters();
    _exit(serve(work) ? kWorkerDone : kWorkerFailed);
}

}  // namespace catalogue
