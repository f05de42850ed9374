// Why: the wrappers behind the linker's --wrap, and the faults that they can be told to show.
//
// Owns: counts, trace and list of armed faults of this process, and one page shared with its
// children that notes every IPC object they made, so that a case that leaves one can be told from
// another test program that runs at the same time.
//
// Invariant: with nothing armed a wrapper changes neither arguments nor result nor errno. It
// allocates nothing and takes no lock, since it also runs inside signal handlers, before main and
// between fork and _exit.
#include "faults.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <type_traits>
#include <utility>

#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <time.h>

using SignalHandler = void (*)(int);

// The platform leaves it to the caller to define the fourth argument of semctl.
union SemctlArgument {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
    struct seminfo* info;
};

namespace
{

using rmtest::Call;
using rmtest::CallRecord;
using rmtest::ScopedFault;

constexpr std::size_t kTraceSize = 4096;  // records, a power of two
constexpr std::size_t kIpcNotes = 4096;   // objects that one case may make

struct IpcNote {
    std::atomic<int32_t> used;
    char kind;
    int32_t id;
    key_t key;
};

struct IpcNotes {
    std::atomic<uint32_t> count;
    IpcNote notes[kIpcNotes];
};

std::array<std::atomic<int>, static_cast<std::size_t>(Call::kCallCount)> counts;
std::array<CallRecord, kTraceSize> trace;
std::atomic<uint32_t> traced;  // records written since the last reset
ScopedFault* armed = nullptr;  // oldest first
bool insideFault = false;      // a predicate or action runs
IpcNotes* ipcNotes = nullptr;  // shared with children; made before main

int64_t usualFailure(Call call)
{
    switch (call) {
        case Call::kMalloc:
        case Call::kAlignedAlloc:
        case Call::kCalloc:
        case Call::kFopen:
        case Call::kFdopen:
        case Call::kGetenv:
        case Call::kLocaltime:
        case Call::kLocaltimeR:
        case Call::kGetMemory:
        case Call::kAllocBlock:
        case Call::kDlopen:
        case Call::kDlsym:
        case Call::kDlerror:
        case Call::kFree:
        case Call::kAlarm:
        case Call::kSleep:
        case Call::kFwrite:
            return 0;
        case Call::kShmat:
        case Call::kSignal:
            return static_cast<int64_t>(reinterpret_cast<intptr_t>(SIG_ERR));
        default:
            return -1;
    }
}

template <typename T>
int64_t toWord(T value)
{
    if constexpr (std::is_pointer_v<T>) {
        return static_cast<int64_t>(reinterpret_cast<intptr_t>(value));
    } else {
        return static_cast<int64_t>(value);
    }
}

template <typename T>
T fromWord(int64_t word)
{
    if constexpr (std::is_pointer_v<T>) {
        return reinterpret_cast<T>(static_cast<intptr_t>(word));
    } else {
        return static_cast<T>(word);
    }
}

// Copied by hand: the string functions of a sanitizer would look at the text more closely than a
// test of foreign pointers can bear.
void copyText(std::array<char, 96>& to, const char* from)
{
    std::size_t n = 0;
    while (from != nullptr && n + 1 < to.size() && from[n] != '\0') {
        to[n] = from[n];
        ++n;
    }
    to[n] = '\0';
}

template <typename T>
void noteText(CallRecord& record, T value)
{
    if constexpr (std::is_same_v<T, const char*>) {
        copyText(record.text1[0] == '\0' ? record.text1 : record.text2, value);
    }
}

// Answers the call from an armed fault; false when there is none that fits.
bool answeredByFault(CallRecord& record, int64_t& result)
{
    if (insideFault) {
        return false;
    }
    for (ScopedFault* fault = armed; fault != nullptr; fault = fault->next_) {
        insideFault = true;
        const int saved = errno;
        const bool taken = fault->takes(record);
        errno = saved;
        if (taken) {
            record.faulted = true;
            result = fault->answer(record);
        }
        insideFault = false;
        if (taken) {
            return true;
        }
    }
    return false;
}

template <auto Real, typename Result, typename... Args, std::size_t... I>
int64_t makeCall(const CallRecord& record, Result (*)(Args...), std::index_sequence<I...>)
{
    if constexpr (std::is_void_v<Result>) {
        Real(fromWord<Args>(record.args[I])...);
        return 0;
    } else {
        return toWord(Real(fromWord<Args>(record.args[I])...));
    }
}

template <auto Real, typename Result, typename... Args>
int64_t makeCallOf(const CallRecord& record, Result (*real)(Args...))
{
    return makeCall<Real>(record, real, std::index_sequence_for<Args...>{});
}

template <auto Real>
int64_t realCall(const CallRecord& record)
{
    return makeCallOf<Real>(record, Real);
}

// The body of every wrapper.
template <Call kCall, auto Real, typename... Args>
auto through(const char* name, Args... args)
{
    using Result = decltype(Real(args...));
    CallRecord& slot = trace[traced.fetch_add(1, std::memory_order_relaxed) % kTraceSize];
    counts[static_cast<std::size_t>(kCall)].fetch_add(1, std::memory_order_relaxed);
    CallRecord record;
    record.call = kCall;
    record.name = name;
    record.args = {toWord(args)...};
    if constexpr (kCall != Call::kFputs && kCall != Call::kVfprintf && kCall != Call::kFprintf) {
        (noteText(record, args), ...);
    }
    record.real = &realCall<Real>;
    slot = record;  // a call that jumps out leaves at least its name
    int64_t result = 0;
    if (armed == nullptr || !answeredByFault(record, result)) {
        result = record.real(record);
    }
    record.result = result;
    record.error = errno;
    slot = record;
    if constexpr (!std::is_void_v<Result>) {
        return fromWord<Result>(result);
    }
}

void noteIpc(char kind, int id, key_t key)
{
    if (id < 0 || ipcNotes == nullptr) {
        return;
    }
    const uint32_t known = std::min<uint32_t>(ipcNotes->count.load(), kIpcNotes);
    for (uint32_t i = 0; i < known; ++i) {
        const IpcNote& note = ipcNotes->notes[i];
        if (note.used.load() != 0 && note.kind == kind && note.id == id) {
            return;
        }
    }
    const uint32_t n = ipcNotes->count.fetch_add(1);
    if (n < kIpcNotes) {
        IpcNote& note = ipcNotes->notes[n];
        note.kind = kind;
        note.id = id;
        note.key = key;
        note.used.store(1);
    }
}

__attribute__((constructor)) void makeIpcNotes()
{
    void* page =
        mmap(nullptr, sizeof(IpcNotes), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ipcNotes = page == MAP_FAILED ? nullptr : static_cast<IpcNotes*>(page);
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,bugprone-macro-parentheses,readability-identifier-naming):
// the linker's names, and lists of parameters, which cannot stand in parentheses of their own

// Declares the two names of a wrapped function and defines the wrapper.
#define RM_WRAP(kCall, Result, name, params, args)        \
    extern "C" Result __real_##name params;               \
    extern "C" Result __wrap_##name params;               \
    Result __wrap_##name params                           \
    {                                                     \
        return through<Call::kCall, &__real_##name> args; \
    }                                                     \
    static_assert(true)

// clang-format off
RM_WRAP(kMalloc, void*, malloc, (std::size_t size), ("malloc", size));
RM_WRAP(kAlignedAlloc, void*, aligned_alloc, (std::size_t alignment, std::size_t size), ("aligned_alloc", alignment, size));
RM_WRAP(kCalloc, void*, calloc, (std::size_t count, std::size_t size), ("calloc", count, size));
RM_WRAP(kFree, void, free, (void* p), ("free", p));
RM_WRAP(kClose, int, close, (int fd), ("close", fd));
RM_WRAP(kRead, ssize_t, read, (int fd, void* p, std::size_t n), ("read", fd, p, n));
RM_WRAP(kWrite, ssize_t, write, (int fd, const void* p, std::size_t n), ("write", fd, p, n));
RM_WRAP(kLseek, off_t, lseek, (int fd, off_t offset, int whence), ("lseek", fd, offset, whence));
RM_WRAP(kLseek, off64_t, lseek64, (int fd, off64_t offset, int whence), ("lseek", fd, offset, whence));
RM_WRAP(kFsync, int, fsync, (int fd), ("fsync", fd));
RM_WRAP(kFtruncate, int, ftruncate, (int fd, off_t size), ("ftruncate", fd, size));
RM_WRAP(kFtruncate, int, ftruncate64, (int fd, off64_t size), ("ftruncate", fd, size));
RM_WRAP(kAccess, int, access, (const char* path, int mode), ("access", path, mode));
RM_WRAP(kRemove, int, remove, (const char* path), ("remove", path));
RM_WRAP(kRename, int, rename, (const char* from, const char* to), ("rename", from, to));
RM_WRAP(kUnlink, int, unlink, (const char* path), ("unlink", path));
RM_WRAP(kStat, int, stat, (const char* path, struct stat* st), ("stat", path, st));
RM_WRAP(kStat, int, stat64, (const char* path, struct stat64* st), ("stat", path, st));
RM_WRAP(kLstat, int, lstat, (const char* path, struct stat* st), ("lstat", path, st));
RM_WRAP(kLstat, int, lstat64, (const char* path, struct stat64* st), ("lstat", path, st));
RM_WRAP(kFstat, int, fstat, (int fd, struct stat* st), ("fstat", fd, st));
RM_WRAP(kFstat, int, fstat64, (int fd, struct stat64* st), ("fstat", fd, st));
RM_WRAP(kStatvfs, int, statvfs, (const char* path, struct statvfs* st), ("statvfs", path, st));
RM_WRAP(kStatvfs, int, statvfs64, (const char* path, struct statvfs64* st), ("statvfs", path, st));
RM_WRAP(kFopen, FILE*, fopen, (const char* path, const char* mode), ("fopen", path, mode));
RM_WRAP(kFopen, FILE*, fopen64, (const char* path, const char* mode), ("fopen", path, mode));
RM_WRAP(kFdopen, FILE*, fdopen, (int fd, const char* mode), ("fdopen", fd, mode));
RM_WRAP(kFclose, int, fclose, (FILE* stream), ("fclose", stream));
RM_WRAP(kFflush, int, fflush, (FILE* stream), ("fflush", stream));
RM_WRAP(kFseek, int, fseek, (FILE* stream, long offset, int whence), ("fseek", stream, offset, whence));
RM_WRAP(kFputs, int, fputs, (const char* text, FILE* stream), ("fputs", text, stream));
RM_WRAP(kFwrite, std::size_t, fwrite, (const void* p, std::size_t size, std::size_t n, FILE* stream), ("fwrite", p, size, n, stream));
RM_WRAP(kSemop, int, semop, (int id, struct sembuf* ops, std::size_t n), ("semop", id, ops, n));
RM_WRAP(kSemtimedop, int, semtimedop, (int id, struct sembuf* ops, std::size_t n, const struct timespec* limit), ("semtimedop", id, ops, n, limit));
RM_WRAP(kShmat, void*, shmat, (int id, const void* address, int flags), ("shmat", id, address, flags));
RM_WRAP(kShmctl, int, shmctl, (int id, int command, struct shmid_ds* state), ("shmctl", id, command, state));
RM_WRAP(kMsgsnd, int, msgsnd, (int id, const void* message, std::size_t size, int flags), ("msgsnd", id, message, size, flags));
RM_WRAP(kMsgrcv, ssize_t, msgrcv, (int id, void* message, std::size_t size, long type, int flags), ("msgrcv", id, message, size, type, flags));
RM_WRAP(kMsgctl, int, msgctl, (int id, int command, struct msqid_ds* state), ("msgctl", id, command, state));
RM_WRAP(kKill, int, kill, (pid_t process, int number), ("kill", process, number));
RM_WRAP(kFtok, key_t, ftok, (const char* path, int project), ("ftok", path, project));
RM_WRAP(kSignal, SignalHandler, signal, (int number, SignalHandler handler), ("signal", number, handler));
RM_WRAP(kAlarm, unsigned, alarm, (unsigned seconds), ("alarm", seconds));
RM_WRAP(kSleep, unsigned, sleep, (unsigned seconds), ("sleep", seconds));
RM_WRAP(kGetpid, pid_t, getpid, (), ("getpid"));
RM_WRAP(kGetenv, char*, getenv, (const char* name), ("getenv", name));
RM_WRAP(kTime, time_t, time, (time_t* out), ("time", out));
RM_WRAP(kLocaltime, struct tm*, localtime, (const time_t* t), ("localtime", t));
RM_WRAP(kLocaltimeR, struct tm*, localtime_r, (const time_t* t, struct tm* out), ("localtime_r", t, out));
RM_WRAP(kClockGettime, int, clock_gettime, (clockid_t clock, struct timespec* now), ("clock_gettime", clock, now));
RM_WRAP(kNanosleep, int, nanosleep, (const struct timespec* wanted, struct timespec* left), ("nanosleep", wanted, left));
RM_WRAP(kFlock, int, flock, (int fd, int operation), ("flock", fd, operation));
RM_WRAP(kChmod, int, chmod, (const char* path, mode_t mode), ("chmod", path, mode));
RM_WRAP(kChown, int, chown, (const char* path, uid_t owner, gid_t group), ("chown", path, owner, group));
RM_WRAP(kFchmod, int, fchmod, (int fd, mode_t mode), ("fchmod", fd, mode));
RM_WRAP(kFchown, int, fchown, (int fd, uid_t owner, gid_t group), ("fchown", fd, owner, group));
RM_WRAP(kDlopen, void*, dlopen, (const char* path, int mode), ("dlopen", path, mode));
RM_WRAP(kDlsym, void*, dlsym, (void* object, const char* name), ("dlsym", object, name));
RM_WRAP(kDlclose, int, dlclose, (void* object), ("dlclose", object));
RM_WRAP(kDlerror, char*, dlerror, (), ("dlerror"));
// clang-format on

RM_WRAP(kGetMemory, void*, rm_getMemory, (uint32_t size, int16_t tag), ("rm_getMemory", size, tag));

// Weak, so that the wrappers can also be linked into a program that has no memory manager.
extern "C" void* __real__ZN7rmalloc10allocBlockEjs(uint32_t size, int16_t tag)
    __attribute__((weak));
extern "C" void* __wrap__ZN7rmalloc10allocBlockEjs(uint32_t size, int16_t tag);

static void* realAllocBlock(uint32_t size, int16_t tag)
{
    return __real__ZN7rmalloc10allocBlockEjs(size, tag);
}

void* __wrap__ZN7rmalloc10allocBlockEjs(uint32_t size, int16_t tag)
{
    return through<Call::kAllocBlock, &realAllocBlock>("allocBlock", size, tag);
}

// Those that take a variable number of arguments reach the real function by a fixed shape of it.

extern "C" int __real_open(const char* path, int flags, ...);
extern "C" int __wrap_open(const char* path, int flags, ...);
extern "C" int __real_open64(const char* path, int flags, ...);
extern "C" int __wrap_open64(const char* path, int flags, ...);

static int openWithMode(const char* path, int flags, mode_t mode)
{
    return __real_open(path, flags, mode);
}

static int open64WithMode(const char* path, int flags, mode_t mode)
{
    return __real_open64(path, flags, mode);
}

static bool takesMode(int flags)
{
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

int __wrap_open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if (takesMode(flags)) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    return through<Call::kOpen, &openWithMode>("open", path, flags, mode);
}

int __wrap_open64(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if (takesMode(flags)) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    return through<Call::kOpen, &open64WithMode>("open", path, flags, mode);
}

extern "C" int __real_fcntl(int fd, int command, ...);
extern "C" int __wrap_fcntl(int fd, int command, ...);
extern "C" int __real_fcntl64(int fd, int command, ...);
extern "C" int __wrap_fcntl64(int fd, int command, ...);

static int fcntlWithArgument(int fd, int command, void* argument)
{
    return __real_fcntl(fd, command, argument);
}

static int fcntl64WithArgument(int fd, int command, void* argument)
{
    return __real_fcntl64(fd, command, argument);
}

// As in the platform's own: the argument is as wide as a pointer, whatever it is, and there.
int __wrap_fcntl(int fd, int command, ...)
{
    va_list args;
    va_start(args, command);
    void* argument = va_arg(args, void*);
    va_end(args);
    return through<Call::kFcntl, &fcntlWithArgument>("fcntl", fd, command, argument);
}

int __wrap_fcntl64(int fd, int command, ...)
{
    va_list args;
    va_start(args, command);
    void* argument = va_arg(args, void*);
    va_end(args);
    return through<Call::kFcntl, &fcntl64WithArgument>("fcntl", fd, command, argument);
}

extern "C" int __real_vfprintf(FILE* stream, const char* format, va_list args);
extern "C" int __wrap_vfprintf(FILE* stream, const char* format, va_list args);

struct ArgumentList {
    va_list args;
};

static int printList(FILE* stream, const char* format, ArgumentList* list)
{
    return __real_vfprintf(stream, format, list->args);
}

int __wrap_vfprintf(FILE* stream, const char* format, va_list args)
{
    ArgumentList list;
    va_copy(list.args, args);
    const int result = through<Call::kVfprintf, &printList>("vfprintf", stream, format, &list);
    va_end(list.args);
    return result;
}

extern "C" int __wrap_fprintf(FILE* stream, const char* format, ...);

int __wrap_fprintf(FILE* stream, const char* format, ...)
{
    ArgumentList list;
    va_start(list.args, format);
    const int result = through<Call::kFprintf, &printList>("fprintf", stream, format, &list);
    va_end(list.args);
    return result;
}

extern "C" int __real_semctl(int id, int number, int command, ...);
extern "C" int __wrap_semctl(int id, int number, int command, ...);

static int semctlWithArgument(int id, int number, int command, void* argument)
{
    SemctlArgument full;
    std::memcpy(&full, &argument, sizeof full);
    return __real_semctl(id, number, command, full);
}

int __wrap_semctl(int id, int number, int command, ...)
{
    SemctlArgument full{};
    switch (command) {
        case SETVAL:
        case GETALL:
        case SETALL:
        case IPC_STAT:
        case IPC_SET:
        case IPC_INFO:
        case SEM_INFO:
        case SEM_STAT: {
            va_list args;
            va_start(args, command);
            full = va_arg(args, SemctlArgument);
            va_end(args);
            break;
        }
        default:
            break;
    }
    void* argument = nullptr;
    static_assert(sizeof argument == sizeof full);
    std::memcpy(&argument, &full, sizeof full);
    return through<Call::kSemctl, &semctlWithArgument>("semctl", id, number, command, argument);
}

// Calls that make or join an IPC object also note it for the check at the end of the case.

extern "C" int __real_semget(key_t key, int count, int flags);
extern "C" int __wrap_semget(key_t key, int count, int flags);
extern "C" int __real_shmget(key_t key, std::size_t size, int flags);
extern "C" int __wrap_shmget(key_t key, std::size_t size, int flags);
extern "C" int __real_msgget(key_t key, int flags);
extern "C" int __wrap_msgget(key_t key, int flags);

static int semgetNoted(key_t key, int count, int flags)
{
    const int id = __real_semget(key, count, flags);
    noteIpc('s', id, key);
    return id;
}

static int shmgetNoted(key_t key, std::size_t size, int flags)
{
    const int id = __real_shmget(key, size, flags);
    noteIpc('m', id, key);
    return id;
}

static int msggetNoted(key_t key, int flags)
{
    const int id = __real_msgget(key, flags);
    noteIpc('q', id, key);
    return id;
}

int __wrap_semget(key_t key, int count, int flags)
{
    return through<Call::kSemget, &semgetNoted>("semget", key, count, flags);
}

int __wrap_shmget(key_t key, std::size_t size, int flags)
{
    return through<Call::kShmget, &shmgetNoted>("shmget", key, size, flags);
}

int __wrap_msgget(key_t key, int flags)
{
    return through<Call::kMsgget, &msggetNoted>("msgget", key, flags);
}

// NOLINTEND(bugprone-reserved-identifier,bugprone-macro-parentheses,readability-identifier-naming)

namespace rmtest
{

ScopedFault::ScopedFault(Fault fault) : fault_(std::move(fault))
{
    ScopedFault** end = &armed;
    while (*end != nullptr) {
        end = &(*end)->next_;
    }
    *end = this;
}

ScopedFault::~ScopedFault()
{
    for (ScopedFault** at = &armed; *at != nullptr; at = &(*at)->next_) {
        if (*at == this) {
            *at = next_;
            return;
        }
    }
}

void disarmFaults()
{
    armed = nullptr;
}

bool ScopedFault::takes(const CallRecord& record)
{
    const bool isIt = record.call == fault_.call || record.call == fault_.also;
    if (!isIt || fault_.times == 0 || (fault_.when && !fault_.when(record))) {
        return false;
    }
    if (fault_.skip > 0) {
        --fault_.skip;
        return false;
    }
    if (fault_.times > 0) {
        --fault_.times;
    }
    ++hits_;
    return true;
}

int64_t ScopedFault::answer(CallRecord& record)
{
    if (fault_.action) {
        return fault_.action(record);
    }
    int64_t result = fault_.result == kUsualFailure ? usualFailure(record.call) : fault_.result;
    const bool moves = record.call == Call::kRead || record.call == Call::kWrite;
    if (moves && result > 0) {
        record.args[2] = std::min(record.args[2], result);
        result = record.real(record);
    }
    const bool closes = record.call == Call::kClose || record.call == Call::kFclose;
    if (closes && fault_.error != EBADF) {
        const int saved = errno;
        static_cast<void>(record.real(record));
        errno = saved;
    }
    if (fault_.error != 0) {
        errno = fault_.error;
    }
    return result;
}

int64_t passThrough(const CallRecord& record)
{
    return record.real(record);
}

int64_t WrittenMemory::write(const CallRecord& call)
{
    const int64_t memory = passThrough(call);
    if (memory != 0) {
        std::memset(reinterpret_cast<void*>(static_cast<intptr_t>(memory)), 0x5a,
                    static_cast<std::size_t>(call.args[0]));
    }
    return memory;
}

void meetFaults(const std::function<void()>& body)
{
    insideFault = false;
    body();
    insideFault = true;
}

int callCount(Call call)
{
    return counts[static_cast<std::size_t>(call)].load();
}

std::vector<CallRecord> callTrace()
{
    const uint32_t total = traced.load();
    std::vector<CallRecord> records;
    for (std::size_t n = total > kTraceSize ? total - kTraceSize : 0; n < total; ++n) {
        records.push_back(trace[n % kTraceSize]);
    }
    return records;
}

std::vector<CallRecord> callTrace(std::initializer_list<Call> calls)
{
    std::vector<CallRecord> records = callTrace();
    std::erase_if(records, [&](const CallRecord& record) {
        return std::find(calls.begin(), calls.end(), record.call) == calls.end();
    });
    return records;
}

void resetCalls()
{
    for (std::atomic<int>& count : counts) {
        count.store(0);
    }
    traced.store(0);
}

std::vector<IpcObject> ipcObjects()
{
    std::vector<IpcObject> objects;
    const uint32_t known =
        ipcNotes == nullptr ? 0 : std::min<uint32_t>(ipcNotes->count.load(), kIpcNotes);
    for (uint32_t i = 0; i < known; ++i) {
        const IpcNote& note = ipcNotes->notes[i];
        if (note.used.load() == 0) {
            continue;
        }
        int found = -1;
        if (note.kind == 's') {
            struct semid_ds state;
            SemctlArgument argument{};
            argument.buf = &state;
            found = __real_semctl(note.id, 0, IPC_STAT, argument);
        } else if (note.kind == 'm') {
            struct shmid_ds state;
            found = __real_shmctl(note.id, IPC_STAT, &state);
            if (found != -1 && (state.shm_perm.mode & SHM_DEST) != 0) {
                found = -1;  // removed, and still attached by somebody
            }
        } else {
            struct msqid_ds state;
            found = __real_msgctl(note.id, IPC_STAT, &state);
        }
        if (found != -1) {
            objects.push_back({note.kind, note.id, note.key});
        }
    }
    return objects;
}

bool ipcKeyInUse(key_t key)
{
    return __real_semget(key, 0, 0) != -1 || __real_shmget(key, 0, 0) != -1 ||
           __real_msgget(key, 0) != -1;
}

void removeIpcObject(const IpcObject& object)
{
    if (object.kind == 's') {
        static_cast<void>(__real_semctl(object.id, 0, IPC_RMID, SemctlArgument{}));
    } else if (object.kind == 'm') {
        static_cast<void>(__real_shmctl(object.id, IPC_RMID, nullptr));
    } else {
        static_cast<void>(__real_msgctl(object.id, IPC_RMID, nullptr));
    }
}

}  // namespace rmtest
