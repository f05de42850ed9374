// The desk: the process that hands out the jobs.
//
// Why: a server needs a process that knows what is to be done, and one that cares for those that
// die. They cannot be the same. A worker may be killed while it holds a lock, the one of the file
// table for example, and whoever enters that lock from then on waits until somebody has freed it.
// The parent frees it, so the parent must never wait for a lock: no managed file, no line in the
// log file, no settings, no report. All of that is here.
//
// What it does: makes requests like those of clients (the load generator) and takes those of real
// clients, gives each a ticket, and keeps a bounded number of them under way, so that no queue can
// overflow. It sleeps until a message comes. Messages only change what is noted here; what follows
// from them is done afterwards, in one place.
//
// Owns: the tickets, the state of the rotation, the settings while it lives.
//
// Invariant: a job with a ticket is in the bag, in the hand of a worker, or reported by a message
// that has not been read; or it is lost, because its worker was killed while it took it or before
// it began it. Once a replacement has settled, what is lost goes into the bag again.
//
// Lifecycle: forked before the workers, ends before them. It must not outlive the parent, and may
// sleep for a long time: the system is asked to kill it then.
//
// Locks: that of the jobs; that of a bucket while it is copied. Never both.
//
// Fatal: every call of the library may jump to the target that is registered here. When the desk
// ends other than in order, the parent ends the run.
#include "desk.h"

#include "adopt.h"
#include "answers.h"
#include "console.h"
#include "counters.h"
#include "jobs.h"
#include "journal.h"
#include "locks.h"
#include "queues.h"
#include "rotation.h"

#include "rm.h"

#include <algorithm>
#include <csetjmp>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <random>
#include <type_traits>

#include <sys/prctl.h>
#include <unistd.h>

namespace catalogue
{
namespace
{
constexpr unsigned kMissOneIn = 16;    // lookups
constexpr unsigned kAgainOneIn = 8;    // requests: for the record that the client had last
constexpr unsigned kLeavesOneIn = 64;  // requests: the client goes after it
constexpr uint32_t kClients = 18;      // so that some lose their session while idle

using Random = std::mt19937_64;
static_assert(std::is_trivially_destructible_v<Random>, "a fatal error jumps over it");

jmp_buf fatalTarget;  // static: main's frames are the parent's business

struct Desk {
    Job underWay[kJobSlots];  // by ticket % kJobSlots; a ticket of 0 marks a free one
    uint64_t tickets;         // given out, over kJobSlots
    uint32_t loads;           // of the load generator, under way
    uint32_t clients;         // of clients, likewise
    uint64_t left;            // operations that the load generator has still to hand out
    Job request[kChannels];   // that have come and have no ticket yet; channel 0 in a free one
    uint32_t ready;           // a bit for each worker that can take jobs
    bool lost;                // a replacement has settled: look for jobs that are nowhere
    bool ending;
    bool reload;
    bool report;
    uint32_t rotation;  // the bucket that is copied next; as many as there are when none is
    uint32_t updateOneIn;
};

// Static for their size.
Desk desk;
Message message;

// ---- tickets

Job* freeSlot(uint64_t& slot)
{
    for (slot = 0; slot < kJobSlots; ++slot) {
        if (desk.underWay[slot].ticket == 0) {
            return &desk.underWay[slot];
        }
    }
    return nullptr;
}

// Puts a job into the bag, under a new ticket. The caller holds the lock of the jobs, and has seen
// to it that there is room.
void hand(const Job& job)
{
    uint64_t slot = 0;
    Job* const place = freeSlot(slot);
    *place = job;
    place->ticket = ++desk.tickets * kJobSlots + slot;
    ++(job.channel == 0 ? desk.loads : desk.clients);
    pushJob(*place);
}

// A ticket that was reported. Twice, if its worker died after it had reported it.
void finish(Board& board, uint64_t ticket)
{
    Job& job = desk.underWay[ticket % kJobSlots];
    if (ticket == 0 || job.ticket != ticket) {
        return;
    }
    job.ticket = 0;
    if (job.channel == 0) {
        --desk.loads;
        board.operationsDone.fetch_add(1, std::memory_order_relaxed);
    } else {
        --desk.clients;
    }
}

// ---- what messages change

// Looks for a record by its name, and checks what a client wants. kAnswerDone when it is a job.
Status toJob(const Input& input, const RecordIndex& index, const Message& from, uint16_t code,
             Job& job)
{
    const RequestHead& head = from.request;
    const std::string_view name(from.bytes + sizeof(head), head.nameBytes);
    const std::string_view text(name.data() + name.size(), head.textBytes);
    job = {};
    job.pid = head.pid;
    job.sequence = head.sequence;
    job.channel = head.channel;
    job.client = kClients + head.channel;
    job.index = head.index;
    job.kind = code == kRequestGet   ? JobKind::kGet
               : code == kRequestPut ? JobKind::kPut
                                     : JobKind::kList;
    if (head.nameBytes > kNameBytes || (job.kind != JobKind::kPut && !text.empty())) {
        return kAnswerRefused;
    }
    if (job.kind == JobKind::kList) {
        job.record = head.index;
        job.textBytes = static_cast<uint16_t>(name.copy(job.text, kNameBytes));
        return kAnswerDone;
    }
    if (job.kind == JobKind::kPut) {
        if (head.index != 0 || !isNote(text.data(), text.size())) {
            return kAnswerRefused;
        }
        job.textBytes = static_cast<uint16_t>(text.copy(job.text, kTextBytes));
    }
    job.record = findInput(input, index, name);
    return job.record == kNoRecord ? kAnswerNotFound : kAnswerDone;
}

void noteRequest(const DeskWork& work, uint16_t code, uint32_t bytes)
{
    const RequestHead& head = message.request;
    if (bytes < sizeof(head) || head.magic != kProtocolMagic || head.channel < 1 ||
        head.channel > kChannels ||
        sizeof(head) + uint32_t{head.nameBytes} + head.textBytes != bytes || code < kRequestGet ||
        code > kRequestList) {
        work.board.head.figures.dropped.fetch_add(1);
        return;
    }
    Job job;
    Status status = toJob(work.host.input, work.host.index, message, code, job);
    if (status == kAnswerDone && desk.ending) {
        status = kAnswerEnding;
    }
    if (status == kAnswerDone) {
        desk.request[job.channel - 1] = job;  // of a client that has died nobody waits for one
    } else {
        answerStatus(work.board, job, status);
    }
}

bool isWorker(uint32_t number)
{
    return number >= 1 && number <= kMaxWorkers;
}

// True when the message holds what its code says. The queue is open to every user of the machine,
// so it need not come from a process of the run. Requests are looked at by noteRequest.
bool isWhole(const DeskWork& work, uint16_t code, uint32_t bytes)
{
    switch (code) {
        case kNoticeReported:
        case kNoticeReady:
            return bytes >= offsetof(Tickets, ticket) && isWorker(message.tickets.worker) &&
                   message.tickets.count <= kHandful &&
                   bytes == offsetof(Tickets, ticket) + message.tickets.count * sizeof(uint64_t);
        case kNoticeReplaced:
            return bytes == sizeof(Death) && isWorker(message.death.worker) &&
                   message.death.record < work.host.input.records.size();
        default:
            return true;
    }
}

// What a worker died of, and in the middle of what.
void noteDeath(const DeskWork& work, const Death& death)
{
    const Record& record = work.host.input.records[death.record];
    char doing[300] = "between two requests";
    if (death.doing == Doing::kMiss) {
        std::snprintf(doing, sizeof(doing),
                      "in the middle of a lookup of a name that is not there");
    } else if (death.doing == Doing::kLookup || death.doing == Doing::kUpdate) {
        std::snprintf(doing, sizeof(doing), "in the middle of %s \"%.100s\" in %s",
                      death.doing == Doing::kUpdate ? "an update of" : "a lookup of",
                      record.key.c_str(),
                      bucketName(bucketOf(record.hash, work.board.head.figures.buckets)));
    } else if (death.doing == Doing::kList) {
        std::snprintf(doing, sizeof(doing), "in the middle of a list");
    }
    warn("worker %u, process %d, was killed by signal %d (%s) %s; another takes its place",
         death.worker, death.pid, death.signalNumber, strsignal(death.signalNumber), doing);
}

// Notes what has come, and nothing else: this is also done within the lock of the jobs.
void take(const DeskWork& work, uint16_t code, uint32_t bytes)
{
    switch (code) {
        case kNoticeReported:
        case kNoticeReady:
            for (uint32_t i = 0; i < message.tickets.count; ++i) {
                finish(work.board, message.tickets.ticket[i]);
            }
            if (code == kNoticeReady) {
                desk.lost = desk.lost || (desk.ready >> message.tickets.worker & 1) != 0;
                desk.ready |= uint32_t{1} << message.tickets.worker;
            }
            break;
        case kNoticeEnd:
            desk.ending = true;
            break;
        case kNoticeReload:
            work.board.reloadAsked = 0;
            desk.reload = true;
            break;
        case kNoticeReport:
            work.board.reportAsked = 0;
            desk.report = true;
            break;
        case kNoticeRotate:
            work.board.rotationAsked = 0;
            desk.rotation = 0;
            break;
        default:
            noteRequest(work, code, bytes);
            break;
    }
}

// Deaths are told when no lock is held.
Death deaths[kJobSlots];
uint32_t deathsKnown = 0;

// Takes every message that has come; waits for the first one if that is wanted.
void takeAll(const DeskWork& work, bool wait)
{
    uint16_t code = 0;
    uint32_t bytes = 0;
    while (nextMessage(message, code, bytes, wait)) {
        wait = false;
        if (!isWhole(work, code, bytes)) {
            work.board.head.figures.dropped.fetch_add(1);
        } else if (code != kNoticeReplaced) {
            take(work, code, bytes);
        } else if (deathsKnown < kJobSlots) {
            deaths[deathsKnown++] = message.death;
        }
    }
}

void tellDeaths(const DeskWork& work)
{
    for (uint32_t i = 0; i < deathsKnown; ++i) {
        noteDeath(work, deaths[i]);
    }
    deathsKnown = 0;
}

// ---- what follows

// Puts jobs that are nowhere into the bag again. With the lock entered no worker takes anything,
// and whatever a worker had in its hand before, it has reported: so what is neither in the bag nor
// in a hand, and in no message either, is lost.
Jobs putBackLost(const DeskWork& work)
{
    static uint64_t inBag[kJobSlots];
    const Jobs entered = enterJobs(work.board);
    if (entered != Jobs::kTaken) {
        return entered;
    }
    desk.lost = false;
    takeAll(work, false);
    const uint32_t bagged = ticketsInBag(inBag);
    for (const Job& job : desk.underWay) {
        bool found =
            job.ticket == 0 || std::find(inBag, inBag + bagged, job.ticket) != inBag + bagged;
        for (const Hand& hand : work.board.hand) {
            for (uint32_t i = 0; i < hand.count && !found; ++i) {
                found = hand.held[i].job.ticket == job.ticket;
            }
        }
        if (!found) {
            pushJob(job);
            work.board.head.figures.putBack.fetch_add(1);
        }
    }
    leaveJobs();
    wakeWorker();
    return Jobs::kTaken;
}

Job nextLoad(const DeskWork& work, Random& random)
{
    Job job = {};
    job.client = static_cast<uint32_t>(random() % kClients) + 1;
    job.again = random() % kAgainOneIn == 0 ? 1 : 0;
    job.leaves = random() % kLeavesOneIn == 0 ? 1 : 0;
    job.record = static_cast<uint32_t>(random() % work.host.input.records.size());
    job.kind = random() % desk.updateOneIn == 0 ? JobKind::kUpdate
               : random() % kMissOneIn != 0     ? JobKind::kLookup
                                                : JobKind::kMiss;
    return job;
}

// Hands out what there is room for. Several at once, since each time costs a lock and a signal.
Jobs handOut(const DeskWork& work, Random& random)
{
    const bool asked =
        desk.clients < kClientJobs &&
        std::ranges::any_of(desk.request, [](const Job& job) { return job.channel != 0; });
    const bool load = desk.left != 0 && !desk.ending && desk.loads <= kWindow / 2;
    if (!asked && !load) {
        return Jobs::kTaken;
    }
    const Jobs entered = enterJobs(work.board);
    if (entered != Jobs::kTaken) {
        return entered;
    }
    for (Job& job : desk.request) {
        if (job.channel != 0 && desk.clients < kClientJobs) {
            hand(job);
            job.channel = 0;
        }
    }
    while (load && desk.left != 0 && desk.loads < kWindow) {
        hand(nextLoad(work, random));
        --desk.left;
    }
    leaveJobs();
    wakeWorker();
    return Jobs::kTaken;
}

// One file, so that the workers are not kept without jobs for long.
Jobs rotateOne(const DeskWork& work)
{
    PublicFigures& figures = work.board.head.figures;
    if (!backUpBucket(work.board, desk.rotation, &work.board.desk)) {
        return work.board.stop != 0 ? Jobs::kStopped : Jobs::kGaveUp;
    }
    if (++desk.rotation == figures.buckets) {
        figures.rotations.fetch_add(1);
        note("rotation %u: every file has a new backup", figures.rotations.load());
    }
    return Jobs::kTaken;
}

void answerParent(const DeskWork& work)
{
    const Host& host = work.host;
    if (desk.reload) {
        desk.reload = false;
        reloadSettings(host.options, host.profile, host.settings, work.board);
        desk.updateOneIn = updateOneIn();
        desk.rotation = 0;
    }
    if (desk.report) {
        desk.report = false;
        reportMemory(host.settings, "as it was asked for");
    }
    tellDeaths(work);
    watchDisk();
}

// True when nothing is under way, and nothing will be.
bool isOver(const DeskWork& work)
{
    if (desk.loads + desk.clients != 0 || (desk.left != 0 && !desk.ending)) {
        return false;
    }
    return desk.ending || !work.host.options.stay;
}

// The clients that have asked and not been answered.
void refuseRequests(Board& board)
{
    desk.ending = true;
    for (Job& job : desk.request) {
        if (job.channel != 0) {
            answerStatus(board, job, kAnswerEnding);
        }
    }
}

void publish(Board& board)
{
    PublicFigures& figures = board.head.figures;
    figures.underWay = desk.loads + desk.clients;
    if (desk.ending) {
        figures.phase = Phase::kEnding;
    } else if (desk.left == 0 && desk.loads == 0) {
        figures.phase = Phase::kStaying;
    }
    publishCounters(board.desk.counter);
}

bool serve(const DeskWork& work)
{
    Board& board = work.board;
    const Settings& settings = work.host.settings;
    const auto workers = static_cast<uint32_t>(settings.number[kWorkers]);
    const uint32_t everybody = ((uint32_t{1} << workers) - 1) << 1;
    Random random(1);  // the same requests in every run
    desk.left = settings.number[kOperations];
    desk.rotation = board.head.figures.buckets;
    desk.updateOneIn = updateOneIn();
    Jobs state = Jobs::kTaken;
    while (state == Jobs::kTaken) {
        answerParent(work);
        if (desk.lost) {
            state = putBackLost(work);
            continue;
        }
        // The load begins when all can take part in it.
        if ((desk.ready & everybody) == everybody) {
            state = handOut(work, random);
        }
        if (desk.rotation < board.head.figures.buckets && state == Jobs::kTaken) {
            state = rotateOne(work);
        }
        publish(board);
        if (isOver(work)) {
            break;
        }
        takeAll(work, desk.rotation == board.head.figures.buckets);
    }
    refuseRequests(board);
    publish(board);
    return state != Jobs::kGaveUp;
}
}  // namespace

void runDesk(const DeskWork& work)
{
    resumeJournal();
    disownProgress();
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);  // a signal would end a wait for a message, fatally
    if (setjmp(fatalTarget) != 0) {
        restoreStandardError();
        std::fflush(stdout);
        _exit(kChildFatal);
    }
    rm_errorJump(fatalTarget);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != work.parent) {
        _exit(kChildFailed);
    }
    nameJournal("desk");
    prctl(PR_SET_NAME, "desk");  // for whoever looks at the processes of the machine
    startCounters();
    note("start: process %d", getpid());
    const FileMoves before = fileMoves();
    const int16_t tag = rm_allocTag(nullptr, work.board.tagLimit);
    rm_setTagName("desk", tag);
    const bool done = serve(work);
    noteResources(work.board.desk, before, tag, work.board.tagLimit);
    note("end: %s operations handed out, %u rotations, %u reloads",
         grouped(work.board.operationsDone).text, work.board.head.figures.rotations.load(),
         work.board.reloads.load());
    publishCounters(work.board.desk.counter);
    work.board.stop = 1;
    wakeWorker();
    _exit(done ? kChildDone : kChildFailed);
}

}  // namespace catalogue
