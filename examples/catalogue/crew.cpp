// The children of the parent: the desk and the workers.
//
// Why: somebody has to notice that a process has died, and to be able to act whatever it has held.
// So from the fork to the end of the last child the parent only waits for signals and for children,
// frees locks, forks, and sends the desk short messages. None of these waits for anything.
//
// Owns: the process ids of the children.
//
// A worker that is killed leaves locks, an update that may be half done, and jobs. The parent frees
// the locks and forks a replacement with the same number, which does the rest (recovery.h). The
// replacement is a child of the parent as it was before the fork of the others, and catches up with
// the settings by itself. A desk that dies, or a worker that ends by itself before its time, ends
// the run: they have met something that the next one would meet too.
//
// Fatal: a sync object or a queue that has gone. No frame here owns anything; the children are
// reached through stopCrew.
#include "crew.h"

#include "chronicle.h"
#include "console.h"
#include "counters.h"
#include "desk.h"
#include "queues.h"
#include "recovery.h"
#include "signals.h"
#include "worker.h"

#include "rm.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <random>
#include <type_traits>

#include <sys/wait.h>
#include <unistd.h>

namespace catalogue
{
namespace
{
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Random = std::minstd_rand;
static_assert(std::is_trivially_destructible_v<Random>, "a fatal error jumps over it");

constexpr milliseconds kLook(100);        // how often the children's figures are looked at
constexpr milliseconds kStopGrace(3000);  // a worker that waits for a lock wakes every second
constexpr uint32_t kMostDeaths = 20;      // one after the other, without a job done in between

struct Child {
    pid_t pid;   // 0 when it has been reaped or never was
    int status;  // as waitpid gave it
};

Child desk;
Child workers[kMaxWorkers];
uint32_t deaths = 0;           // without a job done since
uint64_t jobsAtLastDeath = 0;  // done by all workers
uint32_t inherited = 0;        // generation of the settings that children are forked with

// What the parent of all does from time to time. Settings may change meanwhile.
struct Timers {
    Clock::time_point nextKill;
    Clock::time_point nextRotation;
    uint32_t generation;  // of the settings
    uint64_t rotate;      // seconds between two rotations, 0 for none
    Random random;
};

bool forkWorker(const Host& host, Board& board, uint32_t index, bool replaces)
{
    const pid_t parent = getpid();
    PublicWorker& shown = board.head.figures.worker[index];
    shown.state = replaces ? WorkerState::kReplacing : WorkerState::kStarting;
    std::fflush(nullptr);  // or the child would have a copy of what is buffered
    const pid_t pid = fork();
    if (pid == 0) {
        runWorker({index + 1, parent, host, board, inherited, replaces});
    }
    if (pid < 0) {
        complain("cannot start worker %u: %s\nAllow more processes, or take fewer --workers.",
                 index + 1, std::strerror(errno));
        endBecause("worker %u could not be started", index + 1);
        return false;
    }
    workers[index].pid = pid;
    shown.pid = pid;
    return true;
}

bool reaped(Child& child)
{
    if (child.pid == 0 || waitpid(child.pid, &child.status, WNOHANG) != child.pid) {
        return false;
    }
    child.pid = 0;
    return true;
}

bool endedWell(const Child& child)
{
    return WIFEXITED(child.status) && WEXITSTATUS(child.status) == kChildDone;
}

bool anyRunning()
{
    return desk.pid != 0 ||
           std::ranges::any_of(workers, [](const Child& worker) { return worker.pid != 0; });
}

void explainEnd(const char* who, int status)
{
    if (WIFSIGNALED(status)) {
        endBecause("%s was killed by signal %d (%s)", who, WTERMSIG(status),
                   strsignal(WTERMSIG(status)));
        complain(
            "%s was killed by signal %d (%s).\nThe others are stopped and nothing is "
            "verified; the next run starts afresh.",
            who, WTERMSIG(status), strsignal(WTERMSIG(status)));
        return;
    }
    endBecause("%s ended with status %d", who, WEXITSTATUS(status));
    complain(
        "%s ended with status %d; %s above says why.\n"
        "The others are stopped and nothing is verified; the next run starts afresh.",
        who, WEXITSTATUS(status),
        WEXITSTATUS(status) == kChildFatal ? "the library's log" : "its message");
}

uint64_t jobsDone(const Board& board)
{
    uint64_t done = 0;
    for (const PublicWorker& worker : board.head.figures.worker) {
        done += worker.jobs;
    }
    return done;
}

// False when workers die and nothing is done any more.
bool worthReplacing(const Board& board)
{
    const uint64_t done = jobsDone(board);
    deaths = done == jobsAtLastDeath ? deaths + 1 : 1;
    jobsAtLastDeath = done;
    if (deaths <= kMostDeaths) {
        return true;
    }
    endBecause("workers died %u times in a row", kMostDeaths);
    complain(
        "workers were killed %u times in a row, and no job was done in between.\n"
        "The others are stopped and nothing is verified. Find out who sent the signals\n"
        "(the log of the kernel names what it kills for memory); the next run starts afresh.",
        kMostDeaths);
    return false;
}

// A worker was killed. False when the run cannot go on.
bool replace(const Host& host, Board& board, uint32_t index, pid_t pid)
{
    const Figures& figures = board.worker[index];
    const uint32_t freed = freeLocks(board);
    if (board.stop != 0) {
        return true;  // every job is done
    }
    if (!worthReplacing(board)) {
        return false;
    }
    PublicFigures& shown = board.head.figures;
    shown.replaced.fetch_add(1);
    shown.worker[index].replacements.fetch_add(1);
    reportDeath(
        {index + 1, pid, WTERMSIG(workers[index].status), figures.record, figures.doing, freed});
    return forkWorker(host, board, index, true);
}

// Looks which children have ended. False when the run cannot go on.
bool reapCrew(const Host& host, Board& board)
{
    if (reaped(desk) && !endedWell(desk)) {
        explainEnd("the desk", desk.status);
        return false;
    }
    for (uint32_t i = 0; i < kMaxWorkers; ++i) {
        const pid_t pid = workers[i].pid;
        if (!reaped(workers[i]) || endedWell(workers[i])) {
            continue;
        }
        if (!WIFSIGNALED(workers[i].status)) {
            char who[20];
            std::snprintf(who, sizeof(who), "worker %u", i + 1);
            explainEnd(who, workers[i].status);
            return false;
        }
        if (!replace(host, board, i, pid)) {
            return false;
        }
    }
    return true;
}

void passOn(std::atomic<uint32_t>& asked, Notice notice)
{
    if (asked.exchange(1) == 0) {
        tellDesk(notice);
    }
}

// What signals have asked for. False when the run is to end at once.
bool heed(Board& board, Asked& asked)
{
    if (asked.ends >= 2) {
        return false;
    }
    if (asked.ends > asked.heeded) {
        asked.heeded = asked.ends;
        RunDirectory::closeChannels();
        tellDesk(kNoticeEnd);
    }
    if (asked.reload) {
        passOn(board.reloadAsked, kNoticeReload);
    }
    if (asked.report) {
        passOn(board.reportAsked, kNoticeReport);
    }
    if (asked.locks) {
        freeLocks(board);
    }
    asked.reload = asked.report = asked.locks = false;
    return true;
}

// Test aid: kills one of the workers, whatever it does. On a machine that is so slow that they do
// not get to their first jobs in between, it waits until they have.
void killOne(const Board& board, Random& random)
{
    if (deaths > kMostDeaths / 2 && jobsDone(board) == jobsAtLastDeath) {
        return;
    }
    const uint32_t first = static_cast<uint32_t>(random() % kMaxWorkers);
    for (uint32_t i = 0; i < kMaxWorkers && board.stop == 0; ++i) {
        if (const pid_t pid = workers[(first + i) % kMaxWorkers].pid; pid != 0) {
            kill(pid, SIGKILL);
            return;
        }
    }
}

void watchClock(const Host& host, Board& board, Timers& timers)
{
    static Settings settings;  // static for its size
    const Clock::time_point now = Clock::now();
    if (timers.generation != board.settings.generation) {
        timers.generation = copySettings(board.settings, settings);
        if (settings.number[kRotate] != timers.rotate) {
            timers.rotate = settings.number[kRotate];
            timers.nextRotation = now + std::chrono::seconds(timers.rotate);
        }
    }
    if (timers.rotate != 0 && now >= timers.nextRotation && desk.pid != 0) {
        timers.nextRotation = now + std::chrono::seconds(timers.rotate);
        passOn(board.rotationAsked, kNoticeRotate);
    }
    if (host.options.killEvery != 0 && now >= timers.nextKill) {
        timers.nextKill = now + milliseconds(host.options.killEvery);
        killOne(board, timers.random);
    }
}

// Adds up what the workers have counted, for whoever looks at the board.
void publishSums(Board& board)
{
    uint64_t lookups = 0;
    uint64_t updates = 0;
    uint64_t misses = 0;
    for (const Figures& figures : board.worker) {
        lookups += figures.counter[kLookups];
        updates += figures.counter[kUpdates];
        misses += figures.counter[kMisses];
    }
    board.head.figures.lookups = lookups;
    board.head.figures.updates = updates;
    board.head.figures.misses = misses;
}

void showHowFar(const Host& host, const Board& board)
{
    static bool saidStaying = false;
    showProgress("serving", board.operationsDone, host.settings.number[kOperations]);
    if (host.options.stay && !saidStaying && board.head.figures.phase == Phase::kStaying) {
        saidStaying = true;
        clearProgress();
        std::printf("staying: the operations are done; clients are served until Ctrl-C\n");
        std::fflush(stdout);
    }
}
}  // namespace

bool startCrew(const Host& host, Board& board)
{
    std::fflush(nullptr);
    const pid_t parent = getpid();
    inherited = board.settings.generation;
    const pid_t pid = fork();
    if (pid == 0) {
        runDesk({host, board, parent});
    }
    if (pid < 0) {
        complain("cannot start the desk: %s\nAllow more processes.", std::strerror(errno));
        endBecause("the desk could not be started");
        return false;
    }
    desk.pid = pid;
    const auto count = static_cast<uint32_t>(host.settings.number[kWorkers]);
    for (uint32_t i = 0; i < count; ++i) {
        if (!forkWorker(host, board, i, false)) {
            return false;
        }
    }
    return true;
}

Watched watchCrew(const Host& host, Board& board)
{
    const milliseconds pause =
        host.options.killEvery != 0 ? std::min(kLook, milliseconds(host.options.killEvery)) : kLook;
    const Clock::time_point begin = Clock::now();
    Timers timers = {begin + milliseconds(host.options.killEvery), begin, 0, 0,
                     Random(static_cast<unsigned>(getpid()))};
    while (anyRunning()) {
        Asked& asked = awaitSignals(pause);
        if (!reapCrew(host, board)) {
            return Watched::kFailed;
        }
        if (!heed(board, asked)) {
            return Watched::kInterrupted;
        }
        watchClock(host, board, timers);
        publishSums(board);
        showHowFar(host, board);
    }
    clearProgress();
    freeLocks(board);
    return Watched::kDone;
}

void stopCrew(Board& board)
{
    board.stop = 1;  // seen after the present operation, or when a wait for a lock times out
    if (desk.pid != 0) {
        // It may sleep until a message comes, and nobody needs it any more.
        kill(desk.pid, SIGKILL);
        waitpid(desk.pid, &desk.status, 0);
        desk.pid = 0;
    }
    const Clock::time_point deadline = Clock::now() + kStopGrace;
    while (anyRunning() && Clock::now() < deadline) {
        awaitSignals(kLook);
        std::ranges::for_each(workers, [](Child& worker) { reaped(worker); });
    }
    for (Child& worker : workers) {
        if (worker.pid != 0) {
            // It waits for a lock without a time-out, or is stopped: it will not come by itself.
            kill(worker.pid, SIGKILL);
            waitpid(worker.pid, &worker.status, 0);
            worker.pid = 0;
        }
    }
}

}  // namespace catalogue
