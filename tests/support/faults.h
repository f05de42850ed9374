// Calls to the operating system, counted and made to fail.
//
// Why: what the library does when a system call fails is as much a promise as what it does when
// one succeeds, and no full disk or exhausted kernel table can be had in a test. Every test program
// is linked with --wrap for the symbols of wrapped_calls.txt, so each call that the library, the
// test itself or the statically linked test framework makes passes through here. Calls that shared
// objects make among themselves do not: an allocation of std::string is never seen.
//
// With no fault armed a call is counted, noted in the trace and made. Everything is copied by
// fork: a fault armed in the parent is armed in the child, and counts of a child are its own.
//
//     rmtest::ScopedFault fault({.call = Call::kSemop, .error = EIDRM});       // the next one
//     rmtest::ScopedFault fault({.call = Call::kWrite, .error = ENOSPC, .times = kForever});
//     rmtest::ScopedFault fault({.call = Call::kMalloc, .error = ENOMEM,
//                                .when = [](const CallRecord& c) { return c.args[0] > 4096; }});
#ifndef RM_TESTS_SUPPORT_FAULTS_H
#define RM_TESTS_SUPPORT_FAULTS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace rmtest
{

// The 64-bit names of a call (open64, ...) count as the call itself.
enum class Call : uint8_t {
    kNone,  // not a call
    kMalloc,
    kAlignedAlloc,
    kCalloc,
    kFree,
    kOpen,
    kClose,
    kRead,
    kWrite,
    kLseek,
    kFsync,
    kFtruncate,
    kAccess,
    kRemove,
    kRename,
    kUnlink,
    kStat,
    kLstat,
    kFstat,
    kStatvfs,
    kFopen,
    kFdopen,
    kFclose,
    kFflush,
    kFseek,
    kFputs,
    kFwrite,
    kFprintf,
    kVfprintf,
    kSemget,
    kSemop,
    kSemtimedop,
    kSemctl,
    kShmget,
    kShmat,
    kShmctl,
    kMsgget,
    kMsgsnd,
    kMsgrcv,
    kMsgctl,
    kKill,
    kFtok,
    kSignal,
    kAlarm,
    kSleep,
    kGetpid,
    kGetenv,
    kTime,
    kLocaltime,
    kLocaltimeR,
    kClockGettime,
    kNanosleep,
    kFlock,
    kFcntl,
    kChmod,
    kChown,
    kFchmod,
    kFchown,
    kDlopen,
    kDlsym,
    kDlclose,
    kDlerror,
    kGetMemory,   // rm_getMemory, as files outside the memory manager call it
    kAllocBlock,  // rmalloc::allocBlock, as other files of the library call it
    kCallCount    // not a call, their number
};

// One call, as a predicate sees it before it is made and as the trace shows it afterwards.
struct CallRecord {
    Call call = Call::kNone;
    const char* name = "";  // "semop"
    std::array<int64_t, 5>
        args{};  // in order; pointers as numbers; those of semctl: id, n, cmd, arg
    std::array<char, 96> text1{};  // a copy, cut, of the first argument that is a text, or empty
    std::array<char, 96> text2{};  // of the second one: the target of a rename
    int64_t result = 0;            // after the call; pointers as numbers
    int32_t error = 0;             // errno after the call
    bool faulted = false;          // a fault answered it
    int64_t (*real)(const CallRecord&) = nullptr;  // makes the call, see passThrough

    std::string_view path() const { return text1.data(); }

    std::string_view path2() const { return text2.data(); }

    template <typename T>
    T* pointer(std::size_t n) const
    {
        return reinterpret_cast<T*>(static_cast<intptr_t>(args[n]));
    }
};

constexpr int kForever = -1;

// The way in which the call usually fails: -1, a null pointer, EOF, SIG_ERR; 0 for alarm and sleep.
constexpr int64_t kUsualFailure = std::numeric_limits<int64_t>::min();

// What is to happen to a call. The fault skips `skip` calls that fit `when`, answers the next
// `times` and is spent.
//
// A read or write with a `result` of 0 or more is a short one: that many bytes are really moved. A
// failing close or fclose still closes, as the platform's does, unless the error is EBADF. Every
// other faulted call is not made at all.
struct Fault {
    Call call = Call::kNone;
    Call also = Call::kNone;  // another one that it counts and answers in the same way
    int error = 0;            // errno to set; 0 leaves it as it is
    int skip = 0;
    int times = 1;
    int64_t result = kUsualFailure;
    std::function<bool(const CallRecord&)> when = nullptr;
    // Runs instead of the above; its value is the result and errno is what it leaves. It may make
    // the call with passThrough. Calls made inside an action or a predicate meet no faults.
    std::function<int64_t(const CallRecord&)> action = nullptr;
};

// Makes the call of an action's record. The outcome includes errno.
int64_t passThrough(const CallRecord& record);

// Inside an action: the calls that `body` makes do meet faults.
void meetFaults(const std::function<void()>& body);

// Arms a fault for as long as it lives. Of several armed ones that fit, the oldest answers.
class ScopedFault
{
  public:
    explicit ScopedFault(Fault fault);
    ~ScopedFault();
    ScopedFault(const ScopedFault&) = delete;
    ScopedFault& operator=(const ScopedFault&) = delete;

    // Calls that it has answered, in this process.
    int hits() const { return hits_; }

    // True when the fault takes this call over.
    bool takes(const CallRecord& record);
    // The result for a call that it took.
    int64_t answer(CallRecord& record);

    ScopedFault* next_ = nullptr;  // list of the armed ones

  private:
    Fault fault_;
    int hits_ = 0;
};

// As long as one lives, memory from malloc comes written. For cases with damaged headers, or with
// pointers that are none of the library's: they lead to any byte of a segment, and a memory checker
// would take one that was never written for a fault of who looks there.
class WrittenMemory
{
  private:
    static int64_t write(const CallRecord& call);

    ScopedFault fault_{{.call = Call::kMalloc, .times = kForever, .action = write}};
};

// Takes all faults away. For a process that ends with some of them in its frames: what runs after
// the frames are gone, the counters of a coverage build for one, meets the system as it is.
void disarmFaults();

// Calls since the start of the case or the last resetCalls(), faulted ones included.
int callCount(Call call);

// The same calls in order, oldest first; only the last few thousand are kept. With a list, only
// those calls.
std::vector<CallRecord> callTrace();
std::vector<CallRecord> callTrace(std::initializer_list<Call> calls);

void resetCalls();

// A System V IPC object.
struct IpcObject {
    char kind = 0;  // 's' semaphore set, 'm' shared memory, 'q' message queue
    int32_t id = -1;
    key_t key = 0;
};

// Objects that this process or its children made or joined and that still exist.
std::vector<IpcObject> ipcObjects();

// True when an object of any kind has the key. Not counted as calls.
bool ipcKeyInUse(key_t key);

// Removes an object that a failed case has left.
void removeIpcObject(const IpcObject& object);

}  // namespace rmtest

#endif
