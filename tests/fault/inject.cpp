// Why: see the header.
//
// Owns: the injection of this process, its clock, its alarm, its count of blocks.
//
// Invariant: while paused, or before arm(), a call meets nothing but the answers that keep the
// clock and the keys; these never make a sound call fail.
#include "inject.h"

#include "rm.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

namespace fault
{
[[noreturn]] void endOfChild();  // child.cpp
}

namespace
{

using rmtest::Call;
using rmtest::CallRecord;
using rmtest::kForever;
using rmtest::passThrough;
using rmtest::ScopedFault;

using namespace fault;

constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNapFactor = 2000;      // a nap may last longer than asked for
constexpr int64_t kInterruptedMs = 1000;  // after which a signal ends a wait
constexpr int64_t kRefusedMs = 5;         // between two naps that are refused
constexpr int64_t kEpoch = 800000000;     // of the clock, seconds; as good as any
constexpr uint32_t kStorm = 5000;         // signals in a row, then they are over
constexpr uint32_t kTooOften = 20000;     // to try the same again
constexpr key_t kKeyBase = 0x40000000;    // of keys: no key of ftok for the library's projects

struct State {
    Injection injection;
    bool armed;
    bool paused;
    uint32_t seen;     // calls of the injection's row
    uint32_t answers;  // of the injection, in the present call of the host
    int64_t clockMs;   // since the child was armed
    unsigned alarm;    // seconds
    int64_t blocks;
    bool noRenames;
};

State state = {};

const CallRow& rowOf(std::size_t index)
{
    return callTable()[index];
}

bool isInterrupt(const Injection& injection)
{
    return injection.outcome.kind == Outcome::kError && injection.outcome.error == EINTR;
}

// A call that takes something out of the system, or is made only on the way to that.
bool removes(const CallRecord& record)
{
    switch (record.call) {
        case Call::kSemctl:
            return record.args[2] == IPC_RMID || record.args[2] == GETVAL;
        case Call::kShmctl:
        case Call::kMsgctl:
            return record.args[1] == IPC_RMID;
        default:
            return true;
    }
}

// In a call that takes objects away; rm_exit may also have begun on its own, out of a fatal error.
bool isAtEnd(const char* function)
{
    constexpr int16_t kTermExiting = 3;
    const char* const ending[] = {"rm_exit", "Delete", "Terminate", "zFreePool"};
    return rmanTerm == kTermExiting ||
           std::any_of(std::begin(ending), std::end(ending), [function](const char* part) {
               return std::strstr(function, part) != nullptr;
           });
}

void noteHit(bool removing)
{
    Page& p = page();
    if (p.hits == 0) {
        std::snprintf(p.hitIn, sizeof(p.hitIn), "%s", p.inside);
    }
    ++p.hits;
    p.hitRemoving = p.hitRemoving != 0 || removing ? 1 : 0;
    p.hitAtEnd = p.hitAtEnd != 0 || isAtEnd(p.inside) ? 1 : 0;
}

// Counts a call of the row; true when the injection answers it.
bool takes(std::size_t row)
{
    if (!state.armed || state.paused) {
        return false;
    }
    ++page().calls[row];
    const Injection& injection = state.injection;
    if (injection.k == 0 || injection.row != row) {
        return false;
    }
    ++state.seen;
    if (injection.mode == Mode::kOnce) {
        return state.seen == injection.k;
    }
    const bool over = isInterrupt(injection) && state.seen >= injection.k + kStorm;
    return state.seen >= injection.k && !over;
}

// A wait without a limit may be interrupted for ever; it takes no time here.
bool waits(Call call)
{
    return call == Call::kSemtimedop || call == Call::kMsgrcv || call == Call::kSleep ||
           call == Call::kNanosleep;
}

bool moves(Outcome::Kind kind)
{
    return kind == Outcome::kNone || kind == Outcome::kOne || kind == Outcome::kHalf;
}

int64_t shortened(Outcome::Kind kind, int64_t length)
{
    if (kind == Outcome::kNone) {
        return 0;
    }
    const int64_t wanted = kind == Outcome::kOne ? 1 : std::max<int64_t>(length / 2, 1);
    return std::min(length, wanted);
}

[[noreturn]] void waitForEver()
{
    page().endlessWait = 1;
    finding("ends", "%s waits for ever", page().inside);
    endOfChild();
}

// The call's failure, in place of the call.
int64_t answer(std::size_t row, const CallRecord& record)
{
    const Outcome& outcome = state.injection.outcome;
    noteHit(removes(record));
    if (++state.answers > kTooOften) {
        waitForEver();
    }
    if (moves(outcome.kind)) {
        // Of fwrite the second argument is the size of a byte here, and the third their number.
        CallRecord less = record;
        less.args[2] = shortened(outcome.kind, record.args[2]);
        return passThrough(less);
    }
    const bool closes = record.call == Call::kClose || record.call == Call::kFclose;
    if (closes && outcome.error != EBADF) {
        static_cast<void>(passThrough(record));  // as the platform's does
    }
    if (isInterrupt(state.injection) && waits(record.call)) {
        state.clockMs += kInterruptedMs;
    } else if (record.call == Call::kNanosleep) {
        state.clockMs += kRefusedMs;
    }
    if (outcome.kind == Outcome::kError) {
        errno = outcome.error;
    }
    return rowOf(row).failure;
}

// --- What is always answered here

int64_t ownTime(const CallRecord& record)
{
    const auto now = static_cast<std::time_t>(kEpoch + state.clockMs / kMsPerSecond);
    if (auto* out = record.pointer<std::time_t>(0); out != nullptr) {
        *out = now;
    }
    return now;
}

int64_t ownClock(const CallRecord& record)
{
    auto* out = record.pointer<timespec>(1);
    out->tv_sec = static_cast<std::time_t>(kEpoch + state.clockMs / kMsPerSecond);
    out->tv_nsec = static_cast<long>((state.clockMs % kMsPerSecond) * kNsPerMs);
    return 0;
}

int64_t ownAlarm(const CallRecord& record)
{
    const unsigned before = state.alarm;
    state.alarm = static_cast<unsigned>(record.args[0]);
    return before;
}

int64_t ownSleep(const CallRecord& record)
{
    state.clockMs += record.args[0] * kMsPerSecond;
    return 0;
}

int64_t ownNanosleep(const CallRecord& record)
{
    const auto* asked = record.pointer<const timespec>(0);
    // Who has no clock can only count its naps: these last as long as asked for.
    const bool noClock = rowOf(state.injection.row).call == Call::kClockGettime;
    const int64_t factor = noClock ? 1 : kNapFactor;
    const int64_t asleepMs = asked->tv_sec * kMsPerSecond + asked->tv_nsec * factor / kNsPerMs;
    state.clockMs += std::max<int64_t>(asleepMs, 1);
    return 0;
}

// Nobody else could end the wait: with a limit it passes at once, without one it is a finding.
int64_t ownSemop(const CallRecord& record)
{
    constexpr std::size_t kMostSteps = 4;
    sembuf steps[kMostSteps] = {};
    const auto count = static_cast<std::size_t>(record.args[2]);
    if (count > kMostSteps) {
        return passThrough(record);
    }
    std::memcpy(steps, record.pointer<sembuf>(1), count * sizeof(sembuf));
    bool wouldWait = true;
    for (std::size_t i = 0; i < count; ++i) {
        wouldWait = wouldWait && (steps[i].sem_flg & IPC_NOWAIT) == 0;
        steps[i].sem_flg = static_cast<short>(steps[i].sem_flg | IPC_NOWAIT);
    }
    CallRecord now = record;
    now.args[1] = static_cast<int64_t>(reinterpret_cast<intptr_t>(steps));
    const int64_t result = passThrough(now);
    if (result == -1 && errno == EAGAIN && wouldWait) {
        if (record.call == Call::kSemop) {
            waitForEver();
        }
        const auto* limit = record.pointer<const timespec>(3);
        state.clockMs += limit->tv_sec * kMsPerSecond + limit->tv_nsec / kNsPerMs;
        errno = EAGAIN;
    }
    return result;
}

int64_t ownMsgrcv(const CallRecord& record)
{
    CallRecord now = record;
    now.args[4] |= IPC_NOWAIT;
    const int64_t result = passThrough(now);
    if (result == -1 && errno == ENOMSG && (record.args[4] & IPC_NOWAIT) == 0) {
        waitForEver();
    }
    return result;
}

// Keys of this process alone. That of a failed ftok, which the library uses like any other, too.
key_t ownKey(int64_t project)
{
    return kKeyBase | static_cast<key_t>(project << 24) | (getpid() & 0xFFFFFF);
}

int64_t ownFtok(const CallRecord& record)
{
    const int64_t real = passThrough(record);
    return real == -1 ? real : ownKey(record.args[1]);
}

template <char kKind>
int64_t ownGet(const CallRecord& record)
{
    CallRecord now = record;
    if (static_cast<key_t>(record.args[0]) == -1) {
        now.args[0] = ownKey(0);
    }
    const int64_t id = passThrough(now);
    Page& p = page();
    if (id != -1 && p.objectCount < kMostObjects) {
        p.objects[p.objectCount++] = {kKind, static_cast<int32_t>(id)};
    }
    return id;
}

int64_t ownAllocation(const CallRecord& record)
{
    const int64_t block = passThrough(record);
    state.blocks += block != 0 ? 1 : 0;
    return block;
}

int64_t ownFree(const CallRecord& record)
{
    state.blocks -= record.args[0] != 0 ? 1 : 0;
    return passThrough(record);
}

int64_t ownRename(const CallRecord& record)
{
    if (!state.noRenames) {
        return passThrough(record);
    }
    errno = EXDEV;
    return -1;
}

int64_t ownSync(const CallRecord& /*record*/)
{
    return 0;  // nobody switches this machine off, and disks are slow
}

void always(Call call, int64_t (*action)(const CallRecord&))
{
    static_cast<void>(
        new ScopedFault({.call = call, .times = kForever, .action = action}));  // for good
}

}  // namespace

namespace fault
{

void installWrappers()
{
    const std::span<const CallRow> table = callTable();
    for (std::size_t row = 0; row < table.size(); ++row) {
        if (table[row].call != Call::kNone) {
            static_cast<void>(new ScopedFault(
                {.call = table[row].call,
                 .times = kForever,
                 .when =
                     [row](const CallRecord& record) {
                         const auto fits = rowOf(row).fits;
                         return (fits == nullptr || fits(record)) && takes(row);
                     },
                 .action = [row](const CallRecord& record) { return answer(row, record); }}));
        }
    }
    always(Call::kTime, ownTime);
    always(Call::kClockGettime, ownClock);
    always(Call::kAlarm, ownAlarm);
    always(Call::kSleep, ownSleep);
    always(Call::kNanosleep, ownNanosleep);
    always(Call::kSemop, ownSemop);
    always(Call::kSemtimedop, ownSemop);
    always(Call::kMsgrcv, ownMsgrcv);
    always(Call::kFtok, ownFtok);
    always(Call::kSemget, ownGet<'s'>);
    always(Call::kShmget, ownGet<'m'>);
    always(Call::kMsgget, ownGet<'q'>);
    always(Call::kMalloc, ownAllocation);
    always(Call::kCalloc, ownAllocation);
    always(Call::kAlignedAlloc, ownAllocation);
    always(Call::kFree, ownFree);
    always(Call::kFsync, ownSync);
    always(Call::kRename, ownRename);
}

void arm(const Injection& injection)
{
    state.injection = injection;
    state.armed = true;
}

void beginCall()
{
    state.answers = 0;
}

void pauseFaults()
{
    state.paused = true;
}

void resumeFaults()
{
    state.paused = false;
}

void refuseRenames()
{
    state.noRenames = true;
}

bool wasHit()
{
    return page().hits > 0;
}

bool wasHit(const char* call, int error)
{
    return wasHit() && std::strcmp(rowOf(state.injection.row).name, call) == 0 &&
           injectedError() == error;
}

int injectedError()
{
    return state.injection.k == 0 ? 0 : state.injection.outcome.error;
}

int64_t elapsedMs()
{
    return state.clockMs;
}

unsigned alarmSet()
{
    return state.alarm;
}

int64_t blocksHeld()
{
    return state.blocks;
}

}  // namespace fault

// --- Calls that tests/support does not wrap, and the ways into the fatal path

namespace
{

std::size_t rowOfOwn(Own own)
{
    const std::span<const CallRow> table = callTable();
    std::size_t row = 0;
    while (table[row].own != own) {
        ++row;
    }
    return row;
}

// True when the call fails now; errno is set then.
bool fails(Own own)
{
    const std::size_t row = rowOfOwn(own);
    if (!takes(row)) {
        return false;
    }
    noteHit(false);
    errno = state.injection.outcome.error;
    return true;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names

extern "C" {
void __gcov_dump(void) __attribute__((weak));  // only in a build that counts coverage

[[noreturn]] void __real__exit(int status);
[[noreturn]] void __wrap__exit(int status);
int __real_getc(FILE* stream);
int __wrap_getc(FILE* stream);
int __real_vfprintf(FILE* stream, const char* format, va_list arguments);
int __wrap_printf(const char* format, ...);
[[noreturn]] void __real_internalErrorExit(const char* function, const char* message,
                                           int32_t error);
[[noreturn]] void __wrap_internalErrorExit(const char* function, const char* message,
                                           int32_t error);
[[noreturn]] void __real_fatalRMExit(const char* message);
[[noreturn]] void __wrap_fatalRMExit(const char* message);
[[noreturn]] void __real_rm_errorExit(void);
[[noreturn]] void __wrap_rm_errorExit(void);
[[noreturn]] void __real__ZN5rmsrv11outOfMemoryEv(void);
[[noreturn]] void __wrap__ZN5rmsrv11outOfMemoryEv(void);
}

void __wrap__exit(int status)
{
    if (__gcov_dump != nullptr) {
        rmtest::disarmFaults();
        __gcov_dump();
    }
    __real__exit(status);
}

int __wrap_getc(FILE* stream)
{
    return fails(Own::kGetc) ? EOF : __real_getc(stream);
}

int __wrap_printf(const char* format, ...)
{
    if (fails(Own::kPrintf)) {
        return -1;
    }
    std::va_list arguments;
    va_start(arguments, format);
    const int length = __real_vfprintf(stdout, format, arguments);
    va_end(arguments);
    return length;
}

void __wrap_internalErrorExit(const char* function, const char* message, int32_t error)
{
    char line[400];
    std::snprintf(line, sizeof(line), "**** %s() %s, errno=%d (%s)", function, message, error,
                  std::strerror(error));
    noteEnd(End::kSystemCall, message, line, error);
    __real_internalErrorExit(function, message, error);
}

void __wrap_fatalRMExit(const char* message)
{
    char line[400];
    std::snprintf(line, sizeof(line), "    Specific problem: %.300s", message);
    noteEnd(End::kCondition, message, line, 0);
    __real_fatalRMExit(message);
}

void __wrap_rm_errorExit()
{
    noteEnd(End::kErrorExit, "", "", 0);
    __real_rm_errorExit();
}

void __wrap__ZN5rmsrv11outOfMemoryEv()
{
    noteEnd(End::kMemory, "Out of memory!", "Out of memory!", 0);
    __real__ZN5rmsrv11outOfMemoryEv();
}

// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
