// Sync objects: semaphores with names, as locks and as events between processes.
//
// Why: processes of one server exclude each other and wake each other; on this system the objects
// that outlive none of them and need no parent are System V semaphores. All sync objects of a
// process live in one set of 20, and a handle is a semaphore's number in it.
//
//   as a lock   1 is free, 0 is held
//   as an event 1 is reset (waiters block), 0 is signalled
//
// Owns: the table of names, the set and its token file, the alarm flag.
//
// Invariant: `nSems` counts the named slots; while it counts any, the set and its token exist. A
// creation that ended in the fatal path leaves a name that does not count, until it is deleted.
// checkSync() tests the invariant, and so tells of such a name.
//
// Lifecycle: the set is made with the first object and goes with the last one. Processes that make
// their objects in the same order under one prefix meet on the same semaphores. Creating adds 1 to
// the value each time, so objects are made once, before the server forks. Nothing is undone when a
// process dies; a lock that it held is freed by rm_syncRecover, in one other process. A set that
// another process has removed is forgotten by the termination or the last deletion that finds out.
//
// Fatal: every system call that fails, a handle of an unused slot, a 21st object.
#include "rm/unix/unix.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>

#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

namespace os
{
std::array<const char*, kSyncSlots> rmSem = {};
int16_t nSems = 0;
int32_t iSem = -1;
FILE* gfpRMSemTokenFile = nullptr;
char semTokenPath[kTokenPathSize] = "";
volatile int32_t alarm_signal = 0;
}  // namespace os

using namespace os;

namespace
{
constexpr const char* kTokenFile = ".ZNT.RM.SEM";
constexpr int kProject = 1;                // of the key
constexpr int kCreateForEverybody = 1023;  // create when absent, mode 0777
constexpr uint32_t kMsPerSecond = 1000;

// The system leaves the declaration of the fourth argument of semctl to its callers. It is always
// passed whole: on some machines a missing argument is not the same as one that is not read.
union semun {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

// The slots that have their name and do not count, because their creation ended in the fatal path.
// To delete one takes nothing off the count: that would remove the set under an object that is
// sound, for every process that shares it.
std::array<bool, kSyncSlots> halfMade = {};

enum class Check { kProceed, kNothingToDo };

// What every operation on a handle does first. `error` goes into the fatal message.
Check checkHandle(SyncHandle handle, const char* function, int error)
{
    if (handle == RM_NULL_SYNC) {
        return Check::kNothingToDo;
    }
    if (handle < 0 || handle >= kSyncSlots || rmSem[static_cast<std::size_t>(handle)] == nullptr) {
        internalErrorExit(function, "Invalid Semaphore Handle", error);
    }
    const bool named = *rmSem[static_cast<std::size_t>(handle)] != '\0';
    return named ? Check::kProceed : Check::kNothingToDo;
}

sembuf stepOf(SyncHandle handle, int op, int flags)
{
    return {static_cast<unsigned short>(handle), static_cast<short>(op), static_cast<short>(flags)};
}

int operate(SyncHandle handle, int op, int flags)
{
    sembuf operation = stepOf(handle, op, flags);
    return semop(iSem, &operation, 1);
}

void operateOrDie(SyncHandle handle, int op, int flags, const char* function)
{
    if (operate(handle, op, flags) == -1) {
        internalErrorExit(function, "semop() failure", errno);
    }
}

int valueOf(SyncHandle handle, const char* function)
{
    semun unused = {};
    const int value = semctl(iSem, handle, GETVAL, unused);
    if (value == -1) {
        internalErrorExit(function, "semctl() failure", errno);
    }
    return value;
}

// The process that operated on the semaphore last; 0 when nobody did, or nobody that this process
// could know.
pid_t lastOperator(SyncHandle handle)
{
    semun unused = {};
    const int pid = semctl(iSem, handle, GETPID, unused);
    if (pid == -1) {
        internalErrorExit("rm_syncRecover", "semctl() failure", errno);
    }
    return pid;
}

// True also for a process of another user, and for a dead child that was not waited for: its number
// is still its own.
bool isAlive(pid_t process)
{
    return kill(process, 0) == 0 || errno != ESRCH;
}

// Adds 1 to a semaphore that stands at 0, in one step. False when it stands higher.
bool raiseFromZero(SyncHandle handle)
{
    sembuf whenZeroAddOne[] = {stepOf(handle, 0, IPC_NOWAIT), stepOf(handle, 1, IPC_NOWAIT)};
    if (semop(iSem, whenZeroAddOne, std::size(whenZeroAddOne)) == 0) {
        return true;
    }
    if (errno != EAGAIN) {
        internalErrorExit("rm_syncRecover", "semop() failure", errno);
    }
    return false;
}

bool anySlotUsed()
{
    return std::any_of(rmSem.begin(), rmSem.end(),
                       [](const char* name) { return name != nullptr; });
}

// What the system says of a set that another process has removed.
bool saysGone(int error)
{
    return error == EINVAL || error == EIDRM;
}

// Tells that a call on the set has failed. A set that has gone is forgotten before, so that a host
// that jumps out can make a new one; but only when no object counts, since one of the old set would
// be a held lock in the new one. The token file is left: whoever removed the set removed that too,
// and one that is there now may lead others to a new set.
[[noreturn]] void failOnSet(const char* function, const char* message, int error)
{
    if (nSems == 0 && iSem != -1 && saysGone(error)) {
        iSem = -1;
        closeToken(&gfpRMSemTokenFile);
    }
    internalErrorExit(function, message, error);
}

enum class Deletion { kOfOne, kOfAll };

[[noreturn]] void failToDelete(Deletion deletion, const char* message, int error)
{
    if (deletion == Deletion::kOfAll && saysGone(error)) {
        rmSem.fill(nullptr);  // the others have gone with their set
        nSems = 0;
    }
    failOnSet("rm_syncDelete", message, error);
}

void bringToZero(SyncHandle handle, Deletion deletion)
{
    semun unused = {};
    int value = semctl(iSem, handle, GETVAL, unused);
    if (value == -1) {
        failToDelete(deletion, "semctl() failure", errno);
    }
    while (value != 0) {
        const int op = value > 0 ? -1 : 1;
        if (operate(handle, op, IPC_NOWAIT) == -1) {
            failToDelete(deletion, "semop() failure", errno);
        }
        value += op;
    }
}

void removeSet(const char* function)
{
    semun unused = {};
    if (semctl(iSem, 0, IPC_RMID, unused) == -1) {
        failOnSet(function, "semctl() failure", errno);
    }
}

// The set goes with the last object that counts.
void deleteObject(SyncHandle handle, Deletion deletion)
{
    const char** slot = &rmSem[static_cast<std::size_t>(handle)];
    const bool used = *slot != nullptr;
    if (used) {
        *slot = nullptr;
        if (!halfMade[static_cast<std::size_t>(handle)]) {
            --nSems;
        }
        halfMade[static_cast<std::size_t>(handle)] = false;
    }
    // An object whose creation failed was named and has no semaphore: the system is not asked. It
    // is for a slot that is not used, also without a set, and then that is what fails.
    if (iSem != -1 || !used) {
        bringToZero(handle, deletion);
    }
    if (nSems > 0) {
        return;
    }
    if (iSem != -1) {
        removeSet("rm_syncDelete");
        iSem = -1;
        dropToken(&gfpRMSemTokenFile, semTokenPath);
    } else if (!anySlotUsed()) {
        dropToken(&gfpRMSemTokenFile, semTokenPath);
    }
}

void makeSet()
{
    if (!renewToken(&gfpRMSemTokenFile, semTokenPath, kTokenFile)) {
        internalErrorExit("rm_syncCreate", "fopen() failure", errno);
    }
    // Deliberate: the key is not tested. Without one, -1 is a key like any other.
    iSem = semget(ftok(semTokenPath, kProject), kSyncSlots, kCreateForEverybody);
    if (iSem == -1) {
        internalErrorExit("rm_syncCreate", "semget() failure", errno);
    }
}

// Whole seconds of a wait, 0 for one without limit. Deliberate: a time-out of 0 is none, and so is
// one whose rounding overflows; a single attempt cannot be asked for.
int32_t waitSeconds(uint32_t timeout)
{
    if (timeout == RM_WAIT_FOREVER) {
        return 0;
    }
    const auto rounded = static_cast<int32_t>(timeout + (kMsPerSecond - 1));
    const int32_t seconds = rounded / static_cast<int32_t>(kMsPerSecond);
    return seconds > 0 ? seconds : 0;
}

timespec now()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time;
}

// What is left of a wait of `seconds` that began at `start`; zero when it is over.
timespec timeLeft(const timespec& start, int32_t seconds)
{
    constexpr long kNsPerSecond = 1000000000;
    const timespec current = now();
    timespec left = {start.tv_sec + seconds - current.tv_sec, start.tv_nsec - current.tv_nsec};
    if (left.tv_nsec < 0) {
        left.tv_nsec += kNsPerSecond;
        --left.tv_sec;
    }
    return left.tv_sec < 0 ? timespec{} : left;
}

// One wait, which may take several system calls.
struct Wait {
    int32_t seconds;  // 0: without limit
    timespec start;
    timespec left;
};

// The alarm alone would be lost when it fires before the wait has begun, or with SIGALRM blocked,
// so the system bounds the wait by the same time. An alarm that the host has set is replaced.
Wait beginWait(int32_t seconds)
{
    Wait wait = {seconds, {}, {seconds, 0}};
    if (seconds > 0) {
        if (signal(SIGALRM, catchAlarm) != SIG_ERR) {
            alarm(static_cast<unsigned>(seconds));  // without a handler it would end the process
        }
        wait.start = now();
    }
    return wait;
}

// 0 when the operation was done, else the errno of the attempt; ETIMEDOUT when the time is over.
int attempt(Wait* wait, SyncHandle handle, int op)
{
    if (wait->seconds == 0) {
        return operate(handle, op, 0) == -1 ? errno : 0;
    }
    sembuf operation = stepOf(handle, op, 0);
    if (semtimedop(iSem, &operation, 1, &wait->left) != -1) {
        return 0;
    }
    const int error = errno;
    wait->left = timeLeft(wait->start, wait->seconds);
    const bool over = wait->left.tv_sec == 0 && wait->left.tv_nsec == 0;
    if (error == EAGAIN || (error == EINTR && over && alarm_signal == 0)) {
        return ETIMEDOUT;
    }
    return error;
}
}  // namespace

int16_t rm_syncCreate(const char* name)
{
    if (name == nullptr || *name == '\0') {
        return RM_NULL_SYNC;
    }
    if (nSems == 0) {
        rmSem.fill(nullptr);
    }
    SyncHandle slot = 0;
    while (slot < kSyncSlots && rmSem[static_cast<std::size_t>(slot)] != nullptr) {
        ++slot;
    }
    if (slot == kSyncSlots) {
        internalErrorExit("rm_syncCreate", "Out of Semaphores!", errno);
    }
    rmSem[static_cast<std::size_t>(slot)] = name;
    halfMade[static_cast<std::size_t>(slot)] = true;
    if (iSem == -1) {
        makeSet();
    }
    if (operate(slot, 1, 0) == -1 && errno != EAGAIN) {
        failOnSet("rm_syncCreate", "semop() failure", errno);
    }
    halfMade[static_cast<std::size_t>(slot)] = false;
    ++nSems;
    return slot;
}

int16_t rm_syncOpen(const char* name)
{
    for (SyncHandle slot = 0; name != nullptr && slot < kSyncSlots; ++slot) {
        const char* used = rmSem[static_cast<std::size_t>(slot)];
        if (used != nullptr && std::strcmp(used, name) == 0) {
            return slot;
        }
    }
    return RM_NONE;
}

int16_t rm_syncDelete(int16_t handle)
{
    if (handle == RM_NULL_SYNC) {
        return RM_SUCCESS;
    }
    if (handle < 0 || handle >= kSyncSlots) {
        internalErrorExit("rm_syncDelete", "semctl() failure", EINVAL);
    }
    deleteObject(handle, Deletion::kOfOne);
    return RM_SUCCESS;
}

int16_t rm_syncEnterExcl(int16_t handle, uint32_t timeout)
{
    if (checkHandle(handle, "rm_syncEnterExcl", 0) == Check::kNothingToDo) {
        return RM_SUCCESS;
    }
    const int32_t seconds = waitSeconds(timeout);
    if (seconds > 0) {
        alarm_signal = 0;
    }
    Wait wait = beginWait(seconds);
    int error = attempt(&wait, handle, -1);
    while (error == EINTR) {
        if (alarm_signal != 0) {
            return RM_TIMEOUT;
        }
        error = attempt(&wait, handle, -1);
    }
    if (error != 0 && error != ETIMEDOUT) {
        internalErrorExit("rm_syncEnterExcl", "semop() failure", error);
    }
    alarm(0);
    return error == 0 ? RM_SUCCESS : RM_TIMEOUT;
}

int16_t rm_syncExitExcl(int16_t handle)
{
    if (checkHandle(handle, "rm_syncExitExcl", errno) == Check::kProceed) {
        operateOrDie(handle, 1, 0, "rm_syncExitExcl");
    }
    return RM_SUCCESS;
}

int16_t rm_syncWait(int16_t handle, uint32_t timeout)
{
    if (checkHandle(handle, "rm_syncWait", 0) == Check::kNothingToDo) {
        return RM_SUCCESS;
    }
    Wait wait = beginWait(waitSeconds(timeout));
    const int error = attempt(&wait, handle, 0);
    if (error == EINTR) {
        return RM_TIMEOUT;  // whatever signal it was; the alarm stays set
    }
    if (error != 0 && error != ETIMEDOUT) {
        internalErrorExit("rm_syncWait", "semop() failure", error);
    }
    alarm(0);
    if (error == ETIMEDOUT) {
        return RM_TIMEOUT;
    }
    // The waiter that wakes resets the event for the next signal.
    operateOrDie(handle, 1, 0, "rm_syncWait");
    return RM_SUCCESS;
}

int16_t rm_syncStart(int16_t handle)
{
    if (checkHandle(handle, "rm_syncStart", 0) == Check::kProceed &&
        valueOf(handle, "rm_syncStart") == 0) {
        operateOrDie(handle, 1, 0, "rm_syncStart");
    }
    return RM_SUCCESS;
}

int16_t rm_syncResume(int16_t handle)
{
    if (checkHandle(handle, "rm_syncResume", 0) == Check::kProceed &&
        valueOf(handle, "rm_syncResume") == 1) {
        operateOrDie(handle, -1, IPC_NOWAIT, "rm_syncResume");
    }
    return RM_SUCCESS;
}

int16_t rm_syncRecover(int16_t handle)
{
    if (checkHandle(handle, "rm_syncRecover", 0) == Check::kNothingToDo) {
        return 0;
    }
    const pid_t holder = lastOperator(handle);
    if (holder <= 0 || isAlive(holder)) {
        return 0;
    }
    // The order counts. Standing at 0 while the last operator is, before and after that look, one
    // that is dead, the lock is held by nobody alive; and at 0 nobody can operate on it any more,
    // so it is still the dead one's when it is raised. One that was free would be entered
    // meanwhile, perhaps by a new process that has been given the number of the dead one.
    if (valueOf(handle, "rm_syncRecover") != 0 || lastOperator(handle) != holder ||
        isAlive(holder) || !raiseFromZero(handle)) {
        return 0;
    }
    rm_systemLogWrite("WARNING: lock %d freed, its holder %ld is gone", handle,
                      static_cast<long>(holder));
    return 1;
}

int16_t rm_syncTerminate()
{
    fileSem = RM_NONE;  // first: a deletion that fails does not come back
    growSem = RM_NONE;
    for (SyncHandle slot = 0; slot < kSyncSlots; ++slot) {
        if (rmSem[static_cast<std::size_t>(slot)] != nullptr) {
            deleteObject(slot, Deletion::kOfAll);
        }
    }
    nSems = 0;
    if (iSem == -1) {
        return RM_SUCCESS;
    }
    // A set without objects. Deliberate: its id is kept.
    removeSet("rm_syncTerminate");
    dropToken(&gfpRMSemTokenFile, semTokenPath);
    return RM_SUCCESS;
}

void catchAlarm(int /*signalNumber*/)
{
    alarm_signal = 1;
    signal(SIGALRM, catchAlarm);
}

bool os::exists(SyncHandle handle)
{
    return iSem != -1 && handle >= 0 && handle < kSyncSlots &&
           rmSem[static_cast<std::size_t>(handle)] != nullptr;
}

uint32_t os::checkSync()
{
    uint32_t violations = 0;
    int16_t used = 0;
    for (const char* name : rmSem) {
        used = static_cast<int16_t>(used + (name != nullptr ? 1 : 0));
    }
    if (used != nSems) {
        ++violations;
        rm_systemLogWrite("WARNING: sync objects: %d named, %d counted", used, nSems);
    }
    if (nSems > 0 && (iSem == -1 || gfpRMSemTokenFile == nullptr)) {
        ++violations;
        rm_systemLogWrite("WARNING: sync objects: set %d, token stream %p", iSem,
                          static_cast<void*>(gfpRMSemTokenFile));
    }
    return violations;
}
