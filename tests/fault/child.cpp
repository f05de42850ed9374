// Why: see the header. A host registers its targets, opens its log, lives through the scenario and
// ends with rm_exit. Where control arrives after a failure, everything that must hold there is
// looked at: with faults paused, since the checks are not what is tested.
//
// Invariant: whatever happens, endOfChild() is reached, or the worker sees that it was not.
#include "child.h"

#include "rm/bag.h"
#include "rm/ems.h"
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmutil/rmutil.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/sem.h>
#include <unistd.h>

namespace fault
{

namespace
{

constexpr uint32_t kMostJumps = 8;      // of one host: each step of the exit fails at most once
constexpr int kMostDescriptors = 128;   // that are looked at
constexpr int64_t kLongestMs = 15'500;  // the longest time-out, and what rounding adds

// What the host must find again after a jump; nothing here may be in a register.
const Host* living = nullptr;
const Scenario* scenarioNow = nullptr;
Injection injectionNow;
jmp_buf fatalTarget;
jmp_buf exitTarget;
bool probing = false;
bool hasBegun = false;  // the scenario has
bool isOpenBefore[kMostDescriptors];
int64_t enteredAt = 0;

bool isOpen(int descriptor)
{
    return fcntl(descriptor, F_GETFD) != -1;
}

const CallRow& rowNow()
{
    return callTable()[injectionNow.row];
}

bool hitOnce(const char* call)
{
    return wasHit() && std::strcmp(rowNow().name, call) == 0;
}

bool leaves(uint8_t what)
{
    return wasHit() && (rowNow().leaves & what) != 0;
}

void noteWait()
{
    Page& p = page();
    const int64_t waited = elapsedMs() - enteredAt;
    const bool wanted = std::strcmp(p.inside, "rm_sleep") == 0;
    if (!wanted && waited > p.longestWaitMs) {
        p.longestWaitMs = waited;
        std::memcpy(p.longestIn, p.inside, sizeof(p.longestIn));
    }
    enteredAt = elapsedMs();
}

// --- What must hold while the host lives

// A creation that fails keeps its slot named: the id in it is none. A segment that cannot be
// removed still counts.
bool keepsSlot(const char* creator, const char* other)
{
    const Page& p = page();
    return p.ends > 0 && (std::strstr(p.endLine, creator) != nullptr ||
                          std::strstr(p.endLine, other) != nullptr ||
                          (p.end == End::kMemory && (std::strcmp(p.hitIn, creator) == 0 ||
                                                     std::strcmp(p.hitIn, other) == 0)));
}

void checkTables()
{
    expect(rmalloc::checkMemory() == 0, "tables", "memory is damaged");
    expect(file::checkFtab() == 0, "tables", "the file table is not sound");
    expect(rmutil::checkLocalEnv() == 0, "tables", "the local environment is not sound");
    expect(os::checkSync() == 0 || keepsSlot("rm_syncCreate", "rm_syncCreate"), "tables",
           "the sync objects are not sound");
    expect(os::checkGshm() == 0 || keepsSlot("rm_gshmCreate", "ffBagCreate") ||
               keepsSlot("rm_gshmDelete", "rm_gshmTerminate"),
           "tables", "shared memory is not sound");
    expect(os::checkQueues() == 0 || keepsSlot("rm_queueCreate", "rm_queueCreate"), "tables",
           "the queues are not sound");
    if (ems::EmBag != nullptr) {
        expect(bags::checkBag(ems::EmBag) == 0, "tables", "the registry of modules is not sound");
    }
}

// A lock that can never be given back stays: nothing else is possible.
bool locksMayStay()
{
    return injectionNow.mode == Mode::kForEver && hitOnce("semop");
}

void checkLocks()
{
    for (const int16_t lock : {fileSem, growSem}) {
        if (!os::exists(lock) || locksMayStay()) {
            continue;
        }
        const int value = semctl(os::iSem, lock, GETVAL);
        // Growth that fails lets all waiters through.
        expect(value == 1 || (lock == growSem && value > 1) || value == -1, "locks",
               "%s stands at %d", lock == fileSem ? "fileSem" : "growSem", value);
    }
    expect(locksMayStay() || os::exists(fileSem) || fileSem < 0, "locks", "fileSem leads nowhere");
}

// Everything works again once the system does.
void probe()
{
    constexpr uint32_t kBytes = 5;
    constexpr uint32_t kMemory = 5000;
    if (locksMayStay() || page().inside[0] == '\0') {
        return;
    }
    probing = true;
    std::strcpy(page().inside, "probe");
    void* block = rm_getMemory(kMemory, 0);
    std::memset(block, 1, kMemory);
    const int16_t handle = rm_fileOpen("probe.dat", RM_O_RDWR | RM_O_CREAT | RM_O_TRUNC, 0, 0, 0);
    char bytes[kBytes] = {};
    const bool works = handle >= 0 && rm_fileWrite(handle, "works", kBytes) == kBytes &&
                       rm_fileSeekRead(handle, 0, bytes, kBytes) == kBytes &&
                       std::memcmp(bytes, "works", kBytes) == 0;
    expect(works, "works-after", "a managed file cannot be used any more");
    rm_fileClose(handle);
    expect(rm_fileRemove("probe.dat") == 0, "works-after", "a file cannot be removed any more");
    rm_freeMemory(block, 0);
    rm_systemLogWrite("probe: the host goes on");
    probing = false;
}

void checkLiving()
{
    pauseFaults();
    noteWait();
    checkTables();
    checkLocks();
    if (scenarioNow->verify != nullptr && hasBegun) {
        scenarioNow->verify();
    }
    probe();
    checkTables();
    enteredAt = elapsedMs();
    resumeFaults();
}

// A wait that a signal has ended leaves its alarm set.
void checkAlarm()
{
    const bool interrupted = wasHit() && injectionNow.outcome.error == EINTR;
    expect(alarmSet() == 0 || interrupted, "alarm", "an alarm of %u s is left", alarmSet());
}

// --- What must hold at the end

void checkEnd()
{
    pauseFaults();
    noteWait();
    const Page& p = page();
    expect(rm_memused() == 0, "memory", "%u bytes of tagged memory are left", rm_memused());
    expect(blocksHeld() == 0, "memory", "%lld blocks of the platform are left",
           static_cast<long long>(blocksHeld()));
    // The end of the process closes what the library has not; and the token of a set that cannot be
    // removed stays open.
    const bool mayLeave = p.exited != 0 ||
                          (leaves(kDescriptor) && injectionNow.outcome.error == EBADF) ||
                          (leaves(kSet) && p.hitRemoving != 0 && p.hitAtEnd != 0);
    for (int descriptor = 0; descriptor < kMostDescriptors && !mayLeave; ++descriptor) {
        const bool open = isOpen(descriptor);
        expect(open == isOpenBefore[descriptor], "descriptors", "descriptor %d was %s", descriptor,
               open ? "left open" : "closed");
    }
    expect(p.longestWaitMs <= kLongestMs, "in-time", "%s took %lld ms", p.longestIn,
           static_cast<long long>(p.longestWaitMs));
}

// On the way out through exit().
void atExit(int status, void* /*unused*/)
{
    page().exited = 1;
    page().exitStatus = status;
    checkEnd();
    endOfChild();
}

[[noreturn]] void arrivedAtExitTarget(int code)
{
    page().exitJump = code;
    checkEnd();
    endOfChild();
}

[[noreturn]] void arrivedAtFatalTarget()
{
    Page& p = page();
    ++p.fatalJumps;
    if (probing) {
        finding("works-after", "the probe has ended fatally: %s %s", p.endLine, p.endText);
        probing = false;
        resumeFaults();
    } else if (p.fatalJumps == 1 && std::strcmp(p.inside, "rm_exit") != 0) {
        checkLiving();
    }
    if (p.fatalJumps >= kMostJumps) {
        finding("ends", "the host comes back to its shutdown for ever");
        endOfChild();
    }
    entering("rm_exit");
    rm_exit(kShutdownCode);
}

void openLog()
{
    RM(rm_systemLog)(2);
    RM(rm_systemLogOpen)(kLogFile);
}
}  // namespace

void entering(const char* function)
{
    noteWait();
    beginCall();
    Page& p = page();
    std::snprintf(p.inside, sizeof(p.inside), "%s", function);
    noteCalled(function);
}

void liveAsHost(const Host& host, const Scenario& scenario, const Injection& injection)
{
    living = &host;
    scenarioNow = &scenario;
    injectionNow = injection;
    if (scenario.withoutInput) {
        close(STDIN_FILENO);
    }
    for (int descriptor = 0; descriptor < kMostDescriptors; ++descriptor) {
        isOpenBefore[descriptor] = isOpen(descriptor);
    }
    on_exit(atExit, nullptr);
    if (host.exitTarget) {
        const int code = setjmp(exitTarget);
        if (code != 0) {
            arrivedAtExitTarget(code);
        }
        RM(rm_exitJump)(exitTarget);
    }
    if (host.fatalTarget) {
        if (setjmp(fatalTarget) != 0) {
            arrivedAtFatalTarget();
        }
        RM(rm_errorJump)(fatalTarget);
    }
    arm(injection);
    if (living->log) {
        openLog();
    }
    hasBegun = true;
    scenarioNow->run();
    page().survived = 1;
    pauseFaults();
    checkAlarm();
    resumeFaults();
    checkLiving();
    entering("rm_exit");
    rm_exit(kExitCode);
}

void endOfChild()
{
    pauseFaults();
    std::fflush(nullptr);
    page().finished = 1;
    _exit(0);
}

// --- What scenarios say

void noteEnd(End end, const char* text, const char* line, int error)
{
    Page& p = page();
    ++p.ends;
    if (p.end != End::kNone) {
        return;
    }
    p.end = end;
    std::snprintf(p.endText, sizeof(p.endText), "%s", text);
    std::snprintf(p.endLine, sizeof(p.endLine), "%s", line);
    p.endError = error;
    p.endBeforeHit = wasHit() ? 0 : 1;
    p.endWithLog = sysfile != RM_NONE && syslogon >= 2 ? 1 : 0;
}

void finding(const char* rule, const char* format, ...)
{
    Page& p = page();
    ++p.findings;
    const std::size_t used = std::strlen(p.text);
    char line[512];
    const int head = std::snprintf(line, sizeof(line), "[%s] ", rule);
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line + head, sizeof(line) - static_cast<std::size_t>(head), format, arguments);
    va_end(arguments);
    std::snprintf(p.text + used, sizeof(p.text) - used, "%s\n", line);
}

void expect(bool holds, const char* rule, const char* format, ...)
{
    if (holds) {
        return;
    }
    char text[400];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    finding(rule, "%s", text);
}

void expectWithoutFault(bool holds, const char* format, ...)
{
    if (holds || wasHit()) {
        return;
    }
    char text[400];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    finding("without-fault", "%s", text);
}

void judge(const char* function, int64_t value, bool good, bool bad)
{
    if (good) {
        return;
    }
    ++page().failures;
    expect(bad, "status", "%s gave %lld, which is not documented", function,
           static_cast<long long>(value));
    expect(wasHit(), "without-fault", "%s gave %lld", function, static_cast<long long>(value));
}

}  // namespace fault
