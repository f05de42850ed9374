// A worker process: looks records up and updates them, until its share is done.
//
// Why: this is what a server's process does all day: take a request, lock what it touches, read,
// perhaps write, unlock, answer. The requests come from a random sequence here; some ask for a name
// that nobody stored. A lookup compares the answer with the input, so a wrong one is noticed at
// once. Between two requests is the place where a worker takes over new settings.
//
// Owns: one tag with a limit, in which its indexes and its buffer live; its own handles of the
// bucket files, opened after the fork; its sessions; its list of the buffers that it has given
// back. An inherited descriptor would share its offset with the parent and with the other workers.
//
// Lifecycle: every end is an _exit. A fatal error of the library arrives in the target registered
// here: the parent's, which was inherited, would tear down what the other workers stand on.
//
// Fatal: any call of the library may jump out of serve() and of all that it calls. What those
// frames hold is plain data; a lock of the host's that was held stays held, and the parent, which
// sees the exit status, stops the others.
#include "worker.h"

#include "adopt.h"
#include "buffers.h"
#include "console.h"
#include "counters.h"
#include "journal.h"
#include "locks.h"
#include "sessions.h"
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
constexpr unsigned kMissOneIn = 16;    // lookups
constexpr unsigned kAgainOneIn = 8;    // requests: for the record that the client had last
constexpr unsigned kLeavesOneIn = 64;  // requests: the client goes after it
constexpr uint32_t kClients = 18;      // of a worker, so that some lose their session while idle

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

// What a client asks of the store.
struct Request {
    uint16_t session;  // handle
    Doing kind;
    uint32_t number;  // of the record; for a miss any number, which makes up the name
    uint64_t hash;    // of the name
    char absent[32];  // the name of a miss. It begins with a blank: no name of an input does.
    bool leaves;      // the client goes when it is answered
    bool dieHalfway;
};

Request nextRequest(const Work& work, Sessions& sessions, Random& random, uint32_t updateOneIn)
{
    Request request = {};
    request.session = sessionOf(sessions, static_cast<uint32_t>(random() % kClients) + 1);
    const Session& session = sessionAt(sessions, request.session);
    const bool again = session.lookups + session.updates != 0 && random() % kAgainOneIn == 0;
    request.number =
        again ? session.lastRecord : static_cast<uint32_t>(random() % work.input->records.size());
    request.leaves = random() % kLeavesOneIn == 0;
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

bool findNothing(const Work& work, Store& store, const Request& request)
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

// Does what is asked, under the lock of the bucket. `answer` gets the record as it was before, its
// texts in `buffer`. False when something is wrong.
bool serveOne(const Work& work, Store& store, const Request& request, StoredRecord& answer,
              char* buffer)
{
    if (request.kind == Doing::kMiss) {
        return findNothing(work, store, request);
    }
    if (!readRecord(store, work.input->records[request.number], answer)) {
        return false;
    }
    if (answer.version != 1 + work.board->updatesOf[request.number]) {
        complain("worker %u: \"%.*s\" was read from %s, offset %u, and lacks an update.",
                 work.number, static_cast<int>(answer.key.size()), answer.key.data(),
                 bucketName(answer.bucket), answer.offset);
        return false;
    }
    copyTexts(answer, buffer);
    if (request.kind == Doing::kLookup) {
        count(kLookups);
        return true;
    }
    if (!updateRecord(store, answer, work.number, request.dieHalfway)) {
        return false;
    }
    ++work.board->updatesOf[request.number];
    count(kUpdates);
    return true;
}

// One request, from the lock of its bucket to the answer in the buffer. Nothing is held afterwards.
bool answerOne(const Work& work, Store& store, const Request& request, Figures& figures,
               char* buffer, Entered& entered)
{
    const uint32_t bucket = bucketOf(request.hash, store.buckets);
    entered = enterBucket(bucket, *work.board, figures);
    if (entered != Entered::kYes) {
        return false;
    }
    StoredRecord answer = {};
    figures.record = request.number;
    figures.doing = request.kind;
    const bool good = serveOne(work, store, request, answer, buffer);
    publishCounters(figures.counter);
    figures.doing = Doing::kNothing;
    leaveBucket(bucket);
    const Record& record = work.input->records[request.number];
    if (good && request.kind != Doing::kMiss && answer.body != record.body) {
        complain("worker %u: \"%s\" was read from %s, offset %u, and is not what was stored.",
                 work.number, record.key.c_str(), bucketName(answer.bucket), answer.offset);
        return false;
    }
    return good;
}

// What the session of the client keeps of it.
void noteRequest(Sessions& sessions, const Request& request)
{
    Session& session = sessionAt(sessions, request.session);
    ++(request.kind == Doing::kUpdate ? session.updates : session.lookups);
    session.lastRecord = request.number;
    if (request.leaves) {
        endSession(sessions, request.session);
    }
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

bool answerAll(const Work& work, Store& store, Sessions& sessions, Figures& figures)
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
        Request request = nextRequest(work, sessions, random, updates);
        request.dieHalfway =
            work.killHalfway && request.kind == Doing::kUpdate && done >= work.operations / 2;

        // The lock of the pool is left again before that of the bucket is entered.
        char* buffer = nullptr;
        Entered entered =
            takeBuffer(textsRoom(work.input->records[request.number]), *work.board, buffer);
        if (entered != Entered::kYes) {
            return entered == Entered::kStopped;
        }
        if (!answerOne(work, store, request, figures, buffer, entered)) {
            return entered == Entered::kStopped;
        }
        entered = returnBuffer(buffer, *work.board);
        if (entered != Entered::kYes) {
            return entered == Entered::kStopped;
        }
        noteRequest(sessions, request);
    }
    return true;
}

// Ends the sessions, and compares what they add up to with what was counted.
bool settleSessions(const Work& work, Sessions& sessions, const Figures& figures)
{
    closeSessions(sessions);
    const uint32_t left = sessions.opened - sessions.ended - sessions.evicted;
    note("sessions: %s opened, %s ended, %s made way while idle, %u were left",
         grouped(sessions.opened).text, grouped(sessions.ended).text,
         grouped(sessions.evicted).text, left);
    const bool same = sessions.lookups == figures.counter[kLookups] &&
                      sessions.updates == figures.counter[kUpdates];
    if (!same && work.board->stop == 0) {
        complain("worker %u: its sessions add up to %llu lookups and %llu updates of %u and %u.",
                 work.number, static_cast<unsigned long long>(sessions.lookups),
                 static_cast<unsigned long long>(sessions.updates),
                 figures.counter[kLookups].load(), figures.counter[kUpdates].load());
    }
    return same || work.board->stop != 0;
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
    Sessions sessions = {};
    openSessions(sessions, tag);
    if (!openBuckets(work, store, figures, tag) || !answerAll(work, store, sessions, figures)) {
        return false;
    }
    if (!settleSessions(work, sessions, figures)) {
        return false;
    }
    const Bucket& busiest = busiestBucket(store);
    note("files: %s is the busiest, with %s reads and %s writes", busiest.path,
         grouped(busiest.reads).text, grouped(busiest.writes).text);
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
