// A worker process: does what requests ask for, until there are no more.
//
// Why: this is what a server's process does all day: take a request, lock what it touches, read,
// perhaps write, unlock, answer. Most requests are made up by the desk; some ask for a name that
// nobody stored. A lookup compares the answer with the input, so a wrong one is noticed at once.
// Between two handfuls is the place where a worker takes over new settings.
//
// Owns: one tag with a limit, in which its indexes and its buffer live; its own handles of the
// bucket files, opened after the fork; its sessions; its list of the buffers that it has given
// back. An inherited descriptor would share its offset with the parent and with the other workers.
//
// Lifecycle: every end is an _exit. A fatal error of the library arrives in the target registered
// here: the parent's, which was inherited, would tear down what the other workers stand on. A
// worker that is killed is replaced, and its replacement begins with what it has left (recovery.h).
//
// Fatal: any call of the library may jump out of serve() and of all that it calls. What those
// frames hold is plain data; a lock of the host's that was held stays held, and the parent, which
// sees the exit status, ends the run.
#include "worker.h"

#include "adopt.h"
#include "answers.h"
#include "buffers.h"
#include "console.h"
#include "counters.h"
#include "desk.h"
#include "intent.h"
#include "jobs.h"
#include "journal.h"
#include "locks.h"
#include "queues.h"
#include "recovery.h"
#include "sessions.h"
#include "store.h"

#include "rm.h"

#include <csetjmp>
#include <csignal>
#include <cstdio>

#include <sys/prctl.h>
#include <unistd.h>

namespace catalogue
{
namespace
{
jmp_buf fatalTarget;  // static: main's frames are the parent's business

Figures& figuresOf(const Work& work)
{
    return work.board.worker[work.number - 1];
}

void show(const Work& work, WorkerState state)
{
    work.board.head.figures.worker[work.number - 1].state = state;
}

bool openBuckets(const Work& work, Store& store)
{
    for (uint32_t bucket = 0; bucket < store.buckets; ++bucket) {
        const Entered entered = enterBucket(bucket, work.board, figuresOf(work));
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

// A job as the store understands it.
struct Request {
    uint16_t session;  // handle
    Doing doing;
    uint32_t held;    // index in the hand
    uint32_t record;  // number; for a miss any, which makes up the name
    uint64_t hash;    // of the name
    char absent[32];  // the name of a miss. It begins with a blank: no name of an input does.
    bool dieHalfway;
};

Doing doingOf(JobKind kind)
{
    switch (kind) {
        case JobKind::kUpdate:
        case JobKind::kPut:
            return Doing::kUpdate;
        case JobKind::kMiss:
            return Doing::kMiss;
        case JobKind::kList:
            return Doing::kList;
        case JobKind::kLookup:
        case JobKind::kGet:
            break;
    }
    return Doing::kLookup;
}

Request requestOf(const Work& work, const Job& job, uint32_t held, Sessions& sessions)
{
    Request request = {};
    request.held = held;
    request.session = sessionOf(sessions, job.client);
    request.doing = doingOf(job.kind);
    request.record = job.record;
    if (request.doing == Doing::kList) {
        return request;
    }
    const Session& session = sessionAt(sessions, request.session);
    if (job.again != 0 && session.lookups + session.updates != 0) {
        request.record = session.lastRecord;
    }
    request.hash = work.host.input.records[request.record].hash;
    if (request.doing == Doing::kMiss) {
        std::snprintf(request.absent, sizeof(request.absent), " absent %u", request.record);
        request.hash = hashBytes(request.absent);
    }
    const uint64_t operations = work.host.settings.number[kOperations];
    request.dieHalfway =
        request.doing == Doing::kUpdate && work.number == work.host.options.killWorker &&
        work.board.operationsDone >= operations / 2 && work.board.killedHalfway.exchange(1) == 0;
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

bool update(const Work& work, Store& store, const Request& request, const StoredRecord& stored,
            const Job& job)
{
    char text[kNoteRoom];
    std::string_view note(job.text, job.textBytes);
    if (job.kind == JobKind::kUpdate) {
        const int length = std::snprintf(text, sizeof(text), "updated %u times, last by worker %u",
                                         stored.version, work.number);
        note = {text, static_cast<std::size_t>(length)};
    }
    SlotChange change;
    if (!prepareUpdate(store, stored, note, change)) {
        return false;
    }
    const uint32_t index = work.number - 1;
    declareUpdate(work.board, store, {index, request.record, request.held, note}, change);
    return carryOut(work.board, store, index, request.dieHalfway);
}

// Does what is asked, under the lock of the bucket. `answer` gets the record as it was before, its
// texts in `buffer`. False when something is wrong.
bool serveOne(const Work& work, Store& store, const Request& request, const Job& job,
              StoredRecord& answer, char* buffer)
{
    if (request.doing == Doing::kMiss) {
        return findNothing(work, store, request);
    }
    if (!readRecord(store, work.host.input.records[request.record], answer)) {
        return false;
    }
    if (answer.version != 1 + recordState(work.board, request.record).updates) {
        complain("worker %u: \"%.*s\" was read from %s, offset %u, in version %u instead of %u.",
                 work.number, static_cast<int>(answer.key.size()), answer.key.data(),
                 bucketName(answer.bucket), answer.offset, answer.version,
                 1 + recordState(work.board, request.record).updates);
        return false;
    }
    copyTexts(answer, buffer);
    if (request.doing == Doing::kLookup) {
        count(kLookups);
        return true;
    }
    if (!update(work, store, request, answer, job)) {
        return false;
    }
    count(kUpdates);
    return true;
}

// From the lock of the bucket to the answer in the buffer. Nothing is held afterwards.
bool serveLocked(const Work& work, Store& store, const Request& request, const Job& job,
                 StoredRecord& answer, char* buffer, Entered& entered)
{
    Figures& figures = figuresOf(work);
    const uint32_t bucket = bucketOf(request.hash, store.buckets);
    entered = enterBucket(bucket, work.board, figures);
    if (entered != Entered::kYes) {
        return false;
    }
    figures.record = request.record;
    figures.doing = request.doing;
    const bool good = serveOne(work, store, request, job, answer, buffer);
    publishCounters(figures.counter);
    figures.doing = Doing::kNothing;
    leaveBucket(bucket);
    const Record& record = work.host.input.records[request.record];
    if (good && request.doing != Doing::kMiss && answer.body != record.body) {
        complain("worker %u: \"%s\" was read from %s, offset %u, and is not what was stored.",
                 work.number, record.key.c_str(), bucketName(answer.bucket), answer.offset);
        return false;
    }
    return good;
}

// Tells the client, if it is one, what has come of its request.
void answerClient(const Work& work, const Held& held, const StoredRecord& stored, bool good)
{
    if (held.job.channel == 0) {
        return;
    }
    if (!good) {
        answerStatus(work.board, held.job, kAnswerBroken);
    } else if (held.job.kind == JobKind::kPut) {
        answerPut(work.board, held.job, held.version);
    } else {
        answerGet(work.board, held.job, stored);
    }
}

// A job with a bucket.
bool doWithBucket(const Work& work, Store& store, const Request& request, Held& held,
                  Entered& entered)
{
    // The lock of the pool is left again before that of the bucket is entered.
    char* buffer = nullptr;
    entered = takeBuffer(textsRoom(work.host.input.records[request.record]), work.board, buffer);
    if (entered != Entered::kYes) {
        return false;
    }
    StoredRecord stored = {};
    const bool good = serveLocked(work, store, request, held.job, stored, buffer, entered);
    if (entered != Entered::kYes) {
        return false;
    }
    answerClient(work, held, stored, good);
    if (!good) {
        return false;
    }
    entered = returnBuffer(buffer, work.board);
    return entered == Entered::kYes;
}

// What the session of the client keeps of it.
void noteRequest(Sessions& sessions, const Request& request, const Job& job)
{
    if (request.doing != Doing::kList) {
        Session& session = sessionAt(sessions, request.session);
        ++(request.doing == Doing::kUpdate ? session.updates : session.lookups);
        session.lastRecord = request.record;
    }
    if (job.leaves != 0) {
        endSession(sessions, request.session);
    }
}

// One job of the hand, to the answer.
bool doJob(const Work& work, Store& store, Sessions& sessions, uint32_t index, Entered& entered)
{
    Held& held = work.board.hand[work.number - 1].held[index];
    const Request request = requestOf(work, held.job, index, sessions);
    if (request.doing == Doing::kList) {
        answerList(work.board, held.job, work.host.input);
    } else if (!doWithBucket(work, store, request, held, entered)) {
        return false;
    }
    held.progress = Progress::kAnswered;
    noteRequest(sessions, request, held.job);
    return true;
}

// The jobs that were taken, and the report to the desk. False when something is wrong; `entered`
// says whether it is the end of the run.
bool doHand(const Work& work, Store& store, Sessions& sessions, Entered& entered)
{
    const Hand& hand = work.board.hand[work.number - 1];
    Tickets done = {work.number, 0, {}};
    for (uint32_t i = 0; i < hand.count; ++i) {
        if (work.board.stop != 0) {
            entered = Entered::kStopped;
            return false;
        }
        if (!doJob(work, store, sessions, i, entered)) {
            return false;
        }
        done.ticket[done.count++] = hand.held[i].job.ticket;
    }
    work.board.head.figures.worker[work.number - 1].jobs.fetch_add(done.count);
    reportTickets(kNoticeReported, done);
    return true;
}

// Between two handfuls: what the desk has to say to everybody.
void listen(const Work& work, uint32_t& generation)
{
    if (followSettings(work.board, work.host.settings, generation)) {
        count(kReloads);
        note("settings %u are in effect", generation);
    }
    watchDisk();
}

// Jobs until there are no more. False when something is wrong.
bool doJobs(const Work& work, Store& store, Sessions& sessions)
{
    uint32_t generation = work.generation;
    for (;;) {
        if (getppid() != work.parent) {
            complain("worker %u: the parent has gone.", work.number);
            return false;
        }
        listen(work, generation);
        show(work, WorkerState::kWaiting);
        switch (takeJobs(work.board, work.number - 1)) {
            case Jobs::kNone:
                continue;
            case Jobs::kStopped:
                return true;
            case Jobs::kGaveUp:
                return false;
            case Jobs::kTaken:
                break;
        }
        show(work, WorkerState::kWorking);
        Entered entered = Entered::kYes;
        if (!doHand(work, store, sessions, entered)) {
            return entered == Entered::kStopped;
        }
    }
}

// Ends the sessions, and compares what they add up to with what was counted.
bool settleSessions(const Work& work, Sessions& sessions)
{
    closeSessions(sessions);
    const uint32_t left = sessions.opened - sessions.ended - sessions.evicted;
    note("sessions: %s opened, %s ended, %s made way while idle, %u were left",
         grouped(sessions.opened).text, grouped(sessions.ended).text,
         grouped(sessions.evicted).text, left);
    const bool same =
        sessions.lookups == counted(kLookups) && sessions.updates == counted(kUpdates);
    // With jobs under way the run ends at once, perhaps in the middle of one.
    if (same || work.board.head.figures.underWay != 0) {
        return true;
    }
    complain("worker %u: its sessions add up to %llu lookups and %llu updates of %u and %u.",
             work.number, static_cast<unsigned long long>(sessions.lookups),
             static_cast<unsigned long long>(sessions.updates), counted(kLookups),
             counted(kUpdates));
    return false;
}

bool serve(const Work& work)
{
    Board& board = work.board;
    Figures& figures = figuresOf(work);
    const FileMoves before = fileMoves();
    note("start: process %d%s", getpid(), work.replaces ? ", in the place of one that died" : "");
    const int16_t tag = rm_allocTag(nullptr, board.tagLimit);
    rm_setTagName("worker", tag);

    Store store = {};
    Sessions sessions = {};
    openSessions(sessions, tag);
    openStore(store, tag, work.host.input.largest, board.head.figures.buckets);
    // First: as long as it is not settled, others wait for the lock of that bucket.
    if (work.replaces && !settleHand(board, store, work.number - 1, work.parent)) {
        return false;
    }
    if (!openBuckets(work, store)) {
        return false;
    }
    reportTickets(kNoticeReady, {work.number, 0, {}});
    if (!doJobs(work, store, sessions) || !settleSessions(work, sessions)) {
        return false;
    }
    const Bucket& busiest = busiestBucket(store);
    note("files: %s is the busiest, with %s reads and %s writes", busiest.path,
         grouped(busiest.reads).text, grouped(busiest.writes).text);
    noteResources(figures, before, tag, board.tagLimit);
    const uint32_t memory = rm_memused();
    closeStore(store);
    rm_freeTagMemory(tag, 1);
    note("end: %s lookups, %s updates, in %s bytes of memory", grouped(counted(kLookups)).text,
         grouped(counted(kUpdates)).text, grouped(memory).text);
    publishCounters(figures.counter);
    return true;
}
}  // namespace

void runWorker(const Work& work)
{
    resumeJournal();
    disownProgress();
    if (setjmp(fatalTarget) != 0) {
        std::fflush(stdout);  // the library prints what it could not log twice
        _exit(kChildFatal);
    }
    rm_errorJump(fatalTarget);
    static char name[sizeof("worker 00")];
    std::snprintf(name, sizeof(name), "worker %u", work.number % 100);
    nameJournal(name);
    prctl(PR_SET_NAME, name);  // for whoever looks at the processes of the machine
    startCounters();
    resumeCounters(figuresOf(work).counter);
    show(work, WorkerState::kStarting);
    const bool done = serve(work);
    show(work, WorkerState::kEnded);
    _exit(done ? kChildDone : kChildFailed);
}

}  // namespace catalogue
