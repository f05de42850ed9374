// The parent: starts the library as a host does, forks the workers, kills them, and replaces them.
//
// Why: killing is what a server cannot choose the moment of. Here a worker dies every few hundred
// milliseconds, anywhere, and the others go on.
//
// Owns: the process ids, and the objects of the library, which rm_exit removes at the end.
//
// Lifecycle: from the first fork to the end of the last worker the parent waits for nothing but
// children and time: whoever it waited for otherwise might wait for what it has to free.
//
// Locks: enters none before all workers have ended.
//
// Fatal: arrives at runParent, which ends the workers and then the library. Nothing here owns
// anything that a jump would lose.
#include "soak.h"

#include "rm.h"
#include "rm/ffbag.h"
#include "rm/rmutil/rmutil.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <system_error>

#include <fcntl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

namespace soak
{
namespace
{
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kTick(20);
constexpr std::chrono::seconds kProgressEvery(10);
constexpr std::chrono::seconds kGrace(60);  // a worker may wait for a lock, on a busy machine
constexpr uint64_t kMostGrowthKb = 4096;    // of the parent; the memory of the board among it
constexpr uint32_t kPoolTimeoutMs = 25'000;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kMemoryIsCounted = false;  // the sanitizer keeps what was freed
#else
constexpr bool kMemoryIsCounted = true;
#endif

jmp_buf fatalPoint;
jmp_buf exitPoint;
volatile sig_atomic_t interrupted = 0;

struct Child {
    pid_t pid;    // 0: there is none
    bool killed;  // by us
};

Child children[kWorkers];
Tally tally;
Clock::time_point begin;
bool dead = false;  // a fatal error has arrived here

// The library keeps the pointers.
constexpr const char* kLockNames[kLocks] = {"records", "accounts",  "tokens",  "turn",
                                            "signal",  "workspace", "queue 0", "queue 1",
                                            "queue 2", "queue 3"};
constexpr const char* kQueueNames[kQueues] = {"queue 0", "queue 1", "queue 2", "queue 3"};

void interrupt(int /*signalNumber*/)
{
    interrupted = interrupted + 1;
}

void catchSignals()
{
    struct sigaction action = {};
    action.sa_handler = interrupt;
    for (const int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(signalNumber, &action, nullptr);
    }
}

// What the library says here goes into a file: the terminal has our own lines.
void redirectErrors()
{
    const int fd = open("parent.err", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd != -1) {
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
}

uint32_t readLimit(const char* path, uint32_t otherwise)
{
    const std::string text = slurp(path);
    const unsigned long value = std::strtoul(text.c_str(), nullptr, 10);
    return value == 0 ? otherwise : static_cast<uint32_t>(std::min(value, 1'000'000UL));
}

// The machine's limits stay as they are: the messages are made to fit.
void fitMessages()
{
    constexpr uint32_t kBeside = 9;  // bytes of a message that are not data
    const uint32_t queueHolds = readLimit("/proc/sys/kernel/msgmnb", 16'384);
    const uint32_t most = readLimit("/proc/sys/kernel/msgmax", 8192) - kBeside;
    const uint32_t fits = queueHolds / (kWorkers * (kWindow + 1)) - kBeside;
    mostData = std::min({kMostData, most, fits});
}

// False after having said what could not be made.
bool makeFiles()
{
    std::error_code error;
    spit("corvane.ini", "[server]\nFileCommit=0\n");
    std::filesystem::create_directory("shared", error);
    std::string ini = "[workers]\n";
    for (uint32_t i = 0; i < kWorkers; ++i) {
        std::filesystem::create_directory("w" + std::to_string(i), error);
        ini += "worker" + std::to_string(i) + "=0\n";
    }
    spit(kSharedIni, ini);
    std::filesystem::create_directory(kModuleDirectory, error);
    for (const char* const name : {"libalpha", "libbeta", "libgamma"}) {
        const std::string file = std::string("/") + name + ".so";
        if (!std::filesystem::copy_file(SOAK_MODULES + file, kModuleDirectory + file, error)) {
            std::fprintf(stderr, "rm_soak: cannot copy %s%s: %s\n", SOAK_MODULES, file.c_str(),
                         error.message().c_str());
            return false;
        }
    }
    return true;
}

void fillBoard()
{
    std::memset(static_cast<void*>(board), 0, sizeof(Board));
    std::fill_n(board->accounts.balance, kAccounts, kOpeningBalance);
    for (uint32_t number = 0; number < kTokens; ++number) {
        const Token token = tokenOf(number, ++board->tokens.turn);
        ffBagPush(tokenBag, &token);
    }
}

void startLibrary()
{
    rm_setForegroundThread();
    rm_tokenName("");
    rm_init(RM_NO_LIMIT, kDescriptors, 0.0);
    rm_setDiskFull(0);
    rm_systemLog(1);
    rm_statInit(10);
    for (uint32_t i = 0; i < kLocks; ++i) {
        locks[i] = rm_syncCreate(kLockNames[i]);
    }
    parcelEvent = rm_syncCreate("parcel");
    void* address = nullptr;
    rm_gshmCreate("board", sizeof(Board), &address);
    board = static_cast<Board*>(address);
    void* area = nullptr;
    ffBagCreate(kTokens, sizeof(Token), &tokenBag, &area);
    for (uint32_t i = 0; i < kQueues; ++i) {
        queues[i] = rm_queueCreate(kQueueNames[i]);
    }
    const int16_t tag = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_setTagName("shared pool", tag);
    sharedPool = rm_allocPool(20, tag, "pool", kPoolTimeoutMs);
    fillBoard();
    noteObjects();
}

bool startWorker(uint32_t index)
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        runWorker(index);
    }
    if (pid == -1) {
        found("worker %u cannot be started: %s", index, std::strerror(errno));
        return false;
    }
    children[index] = {pid, false};
    return true;
}

uint32_t running()
{
    return static_cast<uint32_t>(std::count_if(std::begin(children), std::end(children),
                                               [](const Child& child) { return child.pid != 0; }));
}

std::string lastOutput(uint32_t index)
{
    constexpr std::size_t kMost = 700;
    const std::string text = slurp("w" + std::to_string(index) + ".err");
    return text.size() > kMost ? text.substr(text.size() - kMost) : text;
}

// A worker has ended, and was waited for.
void settleEnd(uint32_t index, int status)
{
    const bool killed = children[index].killed;
    children[index] = {};
    if (WIFEXITED(status) && WEXITSTATUS(status) == kEndedWell) {
        if (board->stop == 0) {
            found("worker %u has ended by itself", index);
        }
        return;
    }
    recover(index);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL && killed) {
        ++tally.killed;
        if (board->stop == 0 && startWorker(index)) {
            ++tally.replaced;
        }
    } else if (WIFSIGNALED(status)) {
        found("worker %u ended by signal %d in step %llu; it says: %s", index, WTERMSIG(status),
              static_cast<unsigned long long>(board->worker[index].step),
              lastOutput(index).c_str());
    } else if (WEXITSTATUS(status) != kEndedByFinding) {
        found("worker %u ended with status %d; it says: %s", index, WEXITSTATUS(status),
              lastOutput(index).c_str());
    }
}

// For any of them: the others may be waiting for what it held.
void reap()
{
    int status = 0;
    for (pid_t ended = waitpid(-1, &status, WNOHANG); ended > 0;
         ended = waitpid(-1, &status, WNOHANG)) {
        for (uint32_t i = 0; i < kWorkers; ++i) {
            if (children[i].pid == ended) {
                settleEnd(i, status);
                break;
            }
        }
    }
}

void killWorker(uint32_t index)
{
    if (index < kWorkers && children[index].pid != 0 && !children[index].killed) {
        children[index].killed = true;
        kill(children[index].pid, SIGKILL);
    }
}

constexpr uint32_t kIniKinds = 4;  // of the kinds below

// Who has a change open now, of the kind of that number; kWorkers when nobody has.
uint32_t holderOf(uint32_t kind)
{
    const std::atomic<uint32_t>* const notes[] = {&board->records.open, &board->accounts.open,
                                                  &board->tokens.open, &board->workspace.open};
    if (kind < std::size(notes)) {
        return notes[kind]->load() - 1;
    }
    if (kind - std::size(notes) < kLocks) {
        return board->inside[kind - std::size(notes)].load() - 1;
    }
    if (kind < std::size(notes) + kLocks + kIniKinds) {
        const auto* const changing =
            std::find_if(std::begin(board->worker), std::end(board->worker),
                         [](const WorkerBoard& worker) { return worker.changing.load() != 0; });
        return static_cast<uint32_t>(changing - std::begin(board->worker));
    }
    const int16_t own[] = {fileSem, growSem, sharedPool->lock};
    const int16_t lock = own[kind % std::size(own)];
    const pid_t last = semctl(os::iSem, lock, GETVAL) == 0 ? semctl(os::iSem, lock, GETPID) : 0;
    const auto* const child =
        std::find_if(std::begin(children), std::end(children),
                     [last](const Child& each) { return last != 0 && each.pid == last; });
    return static_cast<uint32_t>(child - std::begin(children));
}

// Any worker at any moment; or, where a death hurts most, one that is about to change something.
void killOne(Random& random)
{
    constexpr uint32_t kKinds = 4 + kLocks + kIniKinds + 6;
    constexpr int kLooks = 300;
    uint32_t victim = random.below(kWorkers);
    if (random.once(2)) {
        const uint32_t kind = random.below(kKinds);
        uint32_t holder = kWorkers;
        for (int looks = 0; looks < kLooks && holder >= kWorkers; ++looks) {
            usleep(10);
            holder = holderOf(kind);
        }
        victim = holder < kWorkers ? holder : victim;
    }
    killWorker(victim);
}

// Times between deaths that know nothing of each other.
milliseconds untilNextKill(Random& random)
{
    const double some = (random.below(1'000'000) + 1) / 1'000'000.0;
    const double wait = -std::log(some) * options.killEveryMs;
    return milliseconds(1 + static_cast<long>(wait));
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void watch()
{
    Random random(options.seed ^ 0x5EEDU);
    const Clock::time_point end = begin + std::chrono::seconds(options.seconds);
    Clock::time_point nextKill = begin + untilNextKill(random);
    Clock::time_point nextProgress = begin + kProgressEvery;
    while (Clock::now() < end && board->stop == 0 && interrupted == 0) {
        const auto pause = std::min<Clock::duration>(nextKill - Clock::now(), kTick);
        if (options.killEveryMs == 0 || pause > Clock::duration::zero()) {
            const auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                options.killEveryMs == 0 ? Clock::duration(kTick) : pause);
            usleep(static_cast<useconds_t>(us.count()) + 1);
        }
        reap();
        if (options.killEveryMs != 0 && Clock::now() >= nextKill) {
            killOne(random);
            nextKill = Clock::now() + untilNextKill(random);
        }
        if (tally.residentKbAtStart == 0 && secondsSince(begin) > 1) {
            tally.residentKbAtStart = residentKb();
        }
        if (Clock::now() >= nextProgress) {
            tally.seconds = secondsSince(begin);
            showProgress(tally);
            nextProgress += kProgressEvery;
        }
    }
}

void killAll()
{
    for (Child& child : children) {
        if (child.pid != 0) {
            child.killed = true;
            kill(child.pid, SIGKILL);
        }
    }
}

// They see it between two steps. True when all have ended by themselves.
bool stopWorkers()
{
    board->stop = 1;
    const Clock::time_point deadline = Clock::now() + kGrace;
    bool good = true;
    while (running() > 0) {
        usleep(static_cast<useconds_t>(std::chrono::microseconds(kTick).count()));
        reap();
        if (good && (Clock::now() > deadline || interrupted > 1)) {
            good = false;
            if (interrupted <= 1) {
                found("%u workers do not end when they are asked to", running());
            }
            killAll();
        }
    }
    return good;
}

void checkMemory()
{
    tally.residentKbAtEnd = residentKb();
    SOAK_CHECK(!kMemoryIsCounted || tally.residentKbAtStart == 0 ||
                   tally.residentKbAtEnd <= tally.residentKbAtStart + kMostGrowthKb,
               "the parent has grown from %llu to %llu KB",
               static_cast<unsigned long long>(tally.residentKbAtStart),
               static_cast<unsigned long long>(tally.residentKbAtEnd));
}

[[noreturn]] void run()
{
    startLibrary();
    std::printf("soak: %u processes, %u s, seed %llu, in %s\n", kWorkers, options.seconds,
                static_cast<unsigned long long>(options.seed), scratch().c_str());
    begin = Clock::now();
    for (uint32_t i = 0; i < kWorkers && startWorker(i); ++i) {
    }
    watch();
    const bool good = stopWorkers();
    tally.seconds = secondsSince(begin);
    if (good && board->findings == 0) {
        verifyAll();
        checkMemory();
    }
    rm_exit(1);
}

// The memory of the board has been deleted, and goes when nobody has it attached any more.
void keepBoard()
{
    void* const copy = std::malloc(sizeof(Board));
    std::memcpy(copy, static_cast<const void*>(board), sizeof(Board));
    shmdt(board);
    if (tokenBag != nullptr) {
        shmdt(static_cast<char*>(tokenBag) - ffbag::kBagOffset);
    }
    board = static_cast<Board*>(copy);
}

// A fatal error in the parent: the end of the run. Another one out of the end is no news: the next
// call goes on with the steps that are left.
[[noreturn]] void fail()
{
    if (!dead) {
        dead = true;
        found("a fatal error, see parent.err");
        tally.seconds = secondsSince(begin);
        killAll();
        while (waitpid(-1, nullptr, 0) > 0) {
        }
    }
    rm_exit(1);
}

int finish()
{
    if (board == nullptr) {
        std::printf("soak: the library could not be started: %s/parent.err\n", scratch().c_str());
        return 1;
    }
    keepBoard();
    checkNothingLeft();
    if (!options.keep && board->findings == 0) {
        removeScratch();
    }
    const bool cutOff = interrupted > 1 && board->findings == 0;
    if (cutOff) {
        std::printf("soak: ended at once; nothing was verified, nothing is left behind\n");
    } else {
        showTable(tally);
    }
    const int status = cutOff ? 1 : showResult(tally);
    std::free(static_cast<void*>(board));
    board = nullptr;
    return status;
}
}  // namespace

int runParent()
{
    if (!makeScratch()) {
        return 1;
    }
    if (!makeFiles()) {
        removeScratch();
        return 1;
    }
    catchSignals();
    redirectErrors();
    noteBefore();
    fitMessages();
    if (setjmp(exitPoint) != 0) {
        return finish();
    }
    rm_exitJump(exitPoint);
    if (setjmp(fatalPoint) != 0) {
        fail();
    }
    rm_errorJump(fatalPoint);
    run();
}

}  // namespace soak
