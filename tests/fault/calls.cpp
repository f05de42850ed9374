// Why: see the header. The errnos are those of the manual pages of Linux; where a page refers to
// another call (fclose to close and write, ftok to stat), those of that call are in the row.
#include "calls.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>

namespace fault
{

namespace
{

using rmtest::Call;

constexpr Outcome kEmptyHanded = {Outcome::kNothing, 0};
constexpr Outcome kNoByte = {Outcome::kNone, 0};
constexpr Outcome kOneByte = {Outcome::kOne, 0};
constexpr Outcome kHalfOfThem = {Outcome::kHalf, 0};

constexpr Outcome e(int error)
{
    return {Outcome::kError, error};
}

// clang-format off
constexpr Outcome kNoMemory[] = {e(ENOMEM)};
constexpr Outcome kAligned[] = {e(ENOMEM), e(EINVAL)};
constexpr Outcome kOpen[] = {
    e(EACCES), e(EBUSY), e(EDQUOT), e(EEXIST), e(EFAULT), e(EFBIG), e(EINTR), e(EINVAL), e(EISDIR), e(ELOOP),
    e(EMFILE), e(ENAMETOOLONG), e(ENFILE), e(ENODEV), e(ENOENT), e(ENOMEM), e(ENOSPC), e(ENOTDIR), e(ENXIO),
    e(EOPNOTSUPP), e(EOVERFLOW), e(EPERM), e(EROFS), e(ETXTBSY), e(EWOULDBLOCK)};
constexpr Outcome kClose[] = {e(EBADF), e(EINTR), e(EIO), e(ENOSPC), e(EDQUOT)};
constexpr Outcome kRead[] = {
    e(EAGAIN), e(EBADF), e(EFAULT), e(EINTR), e(EINVAL), e(EIO), e(EISDIR), kOneByte, kHalfOfThem};
constexpr Outcome kWrite[] = {
    e(EAGAIN), e(EBADF), e(EDESTADDRREQ), e(EDQUOT), e(EFAULT), e(EFBIG), e(EINTR), e(EINVAL), e(EIO), e(ENOSPC),
    e(EPERM), e(EPIPE), kNoByte, kOneByte, kHalfOfThem};
constexpr Outcome kLseek[] = {e(EBADF), e(EINVAL), e(ENXIO), e(EOVERFLOW), e(ESPIPE)};
constexpr Outcome kFsync[] = {e(EBADF), e(EINTR), e(EIO), e(ENOSPC), e(EROFS), e(EINVAL), e(EDQUOT)};
constexpr Outcome kRemove[] = {
    e(EACCES), e(EBUSY), e(EFAULT), e(EINVAL), e(EIO), e(EISDIR), e(ELOOP), e(ENAMETOOLONG), e(ENOENT), e(ENOMEM),
    e(ENOTDIR), e(ENOTEMPTY), e(EPERM), e(EROFS)};
constexpr Outcome kRename[] = {
    e(EACCES), e(EBUSY), e(EDQUOT), e(EEXIST), e(EFAULT), e(EINVAL), e(EISDIR), e(ELOOP), e(EMLINK), e(ENAMETOOLONG),
    e(ENOENT), e(ENOMEM), e(ENOSPC), e(ENOTDIR), e(ENOTEMPTY), e(EPERM), e(EROFS), e(EXDEV)};
constexpr Outcome kUnlink[] = {
    e(EACCES), e(EBUSY), e(EFAULT), e(EIO), e(EISDIR), e(ELOOP), e(ENAMETOOLONG), e(ENOENT), e(ENOMEM), e(ENOTDIR),
    e(EPERM), e(EROFS)};
constexpr Outcome kStat[] = {
    e(EACCES), e(EFAULT), e(ELOOP), e(ENAMETOOLONG), e(ENOENT), e(ENOMEM), e(ENOTDIR), e(EOVERFLOW)};
constexpr Outcome kFstat[] = {e(EBADF), e(EFAULT), e(ENOMEM), e(EOVERFLOW)};
constexpr Outcome kStatvfs[] = {
    e(EACCES), e(EFAULT), e(EINTR), e(EIO), e(ELOOP), e(ENAMETOOLONG), e(ENOENT), e(ENOMEM), e(ENOSYS), e(ENOTDIR),
    e(EOVERFLOW)};
constexpr Outcome kFdopen[] = {e(EBADF), e(EINVAL), e(ENOMEM)};
constexpr Outcome kFclose[] = {
    e(EBADF), e(EAGAIN), e(EDQUOT), e(EFBIG), e(EINTR), e(EIO), e(ENOSPC), e(EPIPE)};
constexpr Outcome kFflush[] = {
    e(EBADF), e(EAGAIN), e(EDQUOT), e(EFBIG), e(EINTR), e(EIO), e(ENOSPC), e(EPIPE)};
constexpr Outcome kFwrite[] = {
    e(EAGAIN), e(EBADF), e(EFBIG), e(EINTR), e(EIO), e(ENOSPC), e(EPIPE), kNoByte, kOneByte, kHalfOfThem};
constexpr Outcome kPrint[] = {
    e(EAGAIN), e(EBADF), e(EFBIG), e(EILSEQ), e(EINTR), e(EIO), e(ENOMEM), e(ENOSPC), e(EOVERFLOW), e(EPIPE)};
constexpr Outcome kGets[] = {e(EAGAIN), e(EBADF), e(EINTR), e(EIO), e(EISDIR), e(ENOMEM)};
constexpr Outcome kSemget[] = {e(EACCES), e(EEXIST), e(EINVAL), e(ENOENT), e(ENOMEM), e(ENOSPC)};
constexpr Outcome kSemop[] = {
    e(E2BIG), e(EACCES), e(EAGAIN), e(EFAULT), e(EFBIG), e(EIDRM), e(EINTR), e(EINVAL), e(ENOMEM), e(ERANGE)};
// What the page says of a step with and without IPC_NOWAIT.
constexpr Outcome kWaitingSemop[] = {
    e(E2BIG), e(EACCES), e(EFAULT), e(EFBIG), e(EIDRM), e(EINTR), e(EINVAL), e(ENOMEM), e(ERANGE)};
constexpr Outcome kNowaitSemop[] = {
    e(E2BIG), e(EACCES), e(EAGAIN), e(EFAULT), e(EFBIG), e(EIDRM), e(EINVAL), e(ENOMEM), e(ERANGE)};
constexpr Outcome kSemctl[] = {e(EACCES), e(EFAULT), e(EIDRM), e(EINVAL), e(EPERM), e(ERANGE)};
constexpr Outcome kShmget[] = {
    e(EACCES), e(EEXIST), e(EINVAL), e(ENFILE), e(ENOENT), e(ENOMEM), e(ENOSPC), e(EPERM)};
constexpr Outcome kShmat[] = {e(EACCES), e(EIDRM), e(EINVAL), e(ENOMEM)};
constexpr Outcome kShmctl[] = {e(EACCES), e(EFAULT), e(EIDRM), e(EINVAL), e(ENOMEM), e(EOVERFLOW), e(EPERM)};
constexpr Outcome kMsgget[] = {e(EACCES), e(EEXIST), e(ENOENT), e(ENOMEM), e(ENOSPC)};
constexpr Outcome kMsgsnd[] = {e(EACCES), e(EAGAIN), e(EFAULT), e(EIDRM), e(EINTR), e(EINVAL), e(ENOMEM)};
constexpr Outcome kMsgrcv[] = {
    e(E2BIG), e(EACCES), e(EFAULT), e(EIDRM), e(EINTR), e(EINVAL), e(ENOMSG), e(ENOSYS)};
constexpr Outcome kMsgctl[] = {e(EACCES), e(EFAULT), e(EIDRM), e(EINVAL), e(EPERM)};
constexpr Outcome kKill[] = {e(EINVAL), e(EPERM), e(ESRCH)};
constexpr Outcome kSignal[] = {e(EINVAL)};
constexpr Outcome kTime[] = {e(EFAULT), e(EOVERFLOW)};
constexpr Outcome kLocaltime[] = {e(EOVERFLOW)};
constexpr Outcome kClock[] = {e(EFAULT), e(EINVAL), e(ENODEV)};
constexpr Outcome kNanosleep[] = {e(EFAULT), e(EINTR), e(EINVAL)};
constexpr Outcome kFcntl[] = {e(EBADF), e(EINVAL), e(EMFILE)};
constexpr Outcome kFlock[] = {e(EBADF), e(EINTR), e(EINVAL), e(ENOLCK), e(EWOULDBLOCK)};
constexpr Outcome kFchange[] = {e(EACCES), e(EBADF), e(EIO), e(EPERM), e(EROFS)};
constexpr Outcome kSilent[] = {kEmptyHanded};

constexpr const char* kOutOfMemory[] = {"memory"};
constexpr const char* kOpenEnds[] = {"sys:fopen() failure", "log:reopenFile: errno=%d: failed to"};
constexpr const char* kReadEnds[] = {"log:rm_fileRead: errno=%d: unable to read", "log:rm_fileSeekRead: unable to read"};
constexpr const char* kWriteEnds[] = {
    "log:rm_fileWrite: errno=%d: unable to write", "log:rm_fileSeekWrite: unable to write", "log:Error expanding file"};
constexpr const char* kLseekEnds[] = {
    "log:reopenFile: errno=%d: failed to", "log:rm_fileWrite: errno=%d: unable to write",
    "log:rm_fileSeekWrite: unable to write", "log:rm_fileRead: errno=%d: unable to read",
    "log:rm_fileSeekRead: unable to read", "log:Error expanding file"};
constexpr const char* kSemopEnds[] = {"sys:semop() failure", "cond:fileSem timeout in "};
constexpr const char* kSemgetEnds[] = {"sys:semget() failure"};
constexpr const char* kSemctlEnds[] = {"sys:semctl() failure"};
constexpr const char* kShmgetEnds[] = {"sys:shmget() failure"};
constexpr const char* kShmatEnds[] = {"sys:shmat() failure"};
constexpr const char* kShmctlEnds[] = {"sys:shmctl() failure"};
constexpr const char* kMsggetEnds[] = {"sys:msgget() failure"};
constexpr const char* kMsgsndEnds[] = {"sys:msgsnd() failure"};
constexpr const char* kMsgrcvEnds[] = {"sys:msgrcv() failure"};
constexpr const char* kFtokEnds[] = {"sys:ftok() failure"};

constexpr int64_t kEof = -1;

bool movesUp(const rmtest::CallRecord& record)
{
    return record.args[1] == F_DUPFD || record.args[1] == F_DUPFD_CLOEXEC;
}

bool mayNotWait(const rmtest::CallRecord& record)
{
    return (record.pointer<const sembuf>(1)->sem_flg & IPC_NOWAIT) != 0;
}

bool mayWait(const rmtest::CallRecord& record)
{
    return !mayNotWait(record);
}

constexpr std::array kTable = {
    CallRow{"malloc", Call::kMalloc, nullptr, Own::kNone, 0, kNoMemory, kOutOfMemory, kNothing},
    CallRow{"calloc", Call::kCalloc, nullptr, Own::kNone, 0, kNoMemory, kOutOfMemory, kNothing},
    CallRow{"aligned_alloc", Call::kAlignedAlloc, nullptr, Own::kNone, 0, kAligned, kOutOfMemory, kNothing},
    CallRow{"open", Call::kOpen, nullptr, Own::kNone, -1, kOpen, kOpenEnds, kNothing},
    CallRow{"close", Call::kClose, nullptr, Own::kNone, -1, kClose, {}, kDescriptor},
    CallRow{"read", Call::kRead, nullptr, Own::kNone, -1, kRead, kReadEnds, kNothing},
    CallRow{"write", Call::kWrite, nullptr, Own::kNone, -1, kWrite, kWriteEnds, kNothing},
    CallRow{"lseek", Call::kLseek, nullptr, Own::kNone, -1, kLseek, kLseekEnds, kNothing},
    CallRow{"fsync", Call::kFsync, nullptr, Own::kNone, -1, kFsync, {}, kNothing},
    CallRow{"remove", Call::kRemove, nullptr, Own::kNone, -1, kRemove, {}, kCopy},
    CallRow{"rename", Call::kRename, nullptr, Own::kNone, -1, kRename, {}, kCopy},
    CallRow{"unlink", Call::kUnlink, nullptr, Own::kNone, -1, kUnlink, {}, kToken},
    CallRow{"stat", Call::kStat, nullptr, Own::kNone, -1, kStat, {}, kCopy},
    CallRow{"lstat", Call::kLstat, nullptr, Own::kNone, -1, kStat, {}, kNothing},
    CallRow{"fstat", Call::kFstat, nullptr, Own::kNone, -1, kFstat, {}, kCopy},
    CallRow{"statvfs", Call::kStatvfs, nullptr, Own::kNone, -1, kStatvfs, {}, kNothing},
    CallRow{"fdopen", Call::kFdopen, nullptr, Own::kNone, 0, kFdopen, kOpenEnds, kToken},
    CallRow{"fclose", Call::kFclose, nullptr, Own::kNone, kEof, kFclose, {}, kDescriptor},
    CallRow{"fflush", Call::kFflush, nullptr, Own::kNone, kEof, kFflush, {}, kNothing},
    CallRow{"fwrite", Call::kFwrite, nullptr, Own::kNone, 0, kFwrite, {}, kNothing},
    CallRow{"vfprintf", Call::kVfprintf, nullptr, Own::kNone, -1, kPrint, {}, kNothing},
    CallRow{"printf", Call::kNone, nullptr, Own::kPrintf, -1, kPrint, {}, kNothing},
    CallRow{"getc", Call::kNone, nullptr, Own::kGetc, kEof, kGets, {}, kNothing},
    CallRow{"semget", Call::kSemget, nullptr, Own::kNone, -1, kSemget, kSemgetEnds, kNothing},
    CallRow{"semop", Call::kSemop, mayWait, Own::kNone, -1, kWaitingSemop, kSemopEnds, kNothing},
    CallRow{"semop-nowait", Call::kSemop, mayNotWait, Own::kNone, -1, kNowaitSemop, kSemopEnds, kSet},
    CallRow{"semtimedop", Call::kSemtimedop, nullptr, Own::kNone, -1, kSemop, kSemopEnds, kNothing},
    CallRow{"semctl", Call::kSemctl, nullptr, Own::kNone, -1, kSemctl, kSemctlEnds, kSet},
    CallRow{"shmget", Call::kShmget, nullptr, Own::kNone, -1, kShmget, kShmgetEnds, kNothing},
    CallRow{"shmat", Call::kShmat, nullptr, Own::kNone, -1, kShmat, kShmatEnds, kNothing},
    CallRow{"shmctl", Call::kShmctl, nullptr, Own::kNone, -1, kShmctl, kShmctlEnds, kSegment},
    CallRow{"msgget", Call::kMsgget, nullptr, Own::kNone, -1, kMsgget, kMsggetEnds, kNothing},
    CallRow{"msgsnd", Call::kMsgsnd, nullptr, Own::kNone, -1, kMsgsnd, kMsgsndEnds, kNothing},
    CallRow{"msgrcv", Call::kMsgrcv, nullptr, Own::kNone, -1, kMsgrcv, kMsgrcvEnds, kNothing},
    CallRow{"msgctl", Call::kMsgctl, nullptr, Own::kNone, -1, kMsgctl, {}, kQueue},
    CallRow{"kill", Call::kKill, nullptr, Own::kNone, -1, kKill, {}, kNothing},
    CallRow{"ftok", Call::kFtok, nullptr, Own::kNone, -1, kStat, kFtokEnds, kNothing},
    CallRow{"signal", Call::kSignal, nullptr, Own::kNone, -1, kSignal, {}, kNothing},
    CallRow{"sleep", Call::kSleep, nullptr, Own::kNone, 1, kSilent, {}, kNothing},
    CallRow{"getenv", Call::kGetenv, nullptr, Own::kNone, 0, kSilent, {}, kNothing},
    CallRow{"time", Call::kTime, nullptr, Own::kNone, -1, kTime, {}, kNothing},
    CallRow{"localtime", Call::kLocaltime, nullptr, Own::kNone, 0, kLocaltime, {}, kNothing},
    CallRow{"clock_gettime", Call::kClockGettime, nullptr, Own::kNone, -1, kClock, {}, kNothing},
    CallRow{"nanosleep", Call::kNanosleep, nullptr, Own::kNone, -1, kNanosleep, {}, kNothing},
    CallRow{"fcntl", Call::kFcntl, movesUp, Own::kNone, -1, kFcntl, kOpenEnds, kToken | kCopy},
    CallRow{"flock", Call::kFlock, nullptr, Own::kNone, -1, kFlock, {}, kCopy},
    CallRow{"fchmod", Call::kFchmod, nullptr, Own::kNone, -1, kFchange, {}, kNothing},
    CallRow{"fchown", Call::kFchown, nullptr, Own::kNone, -1, kFchange, {}, kNothing},
    CallRow{"dlopen", Call::kDlopen, nullptr, Own::kNone, 0, kSilent, {}, kNothing},
    CallRow{"dlsym", Call::kDlsym, nullptr, Own::kNone, 0, kSilent, {}, kNothing},
    CallRow{"dlclose", Call::kDlclose, nullptr, Own::kNone, -1, kSilent, {}, kNothing},
    CallRow{"dlerror", Call::kDlerror, nullptr, Own::kNone, 0, kSilent, {}, kNothing},
};
// clang-format on

}  // namespace

std::string nameOf(const Outcome& outcome)
{
    switch (outcome.kind) {
        case Outcome::kNothing:
            return "nothing";
        case Outcome::kNone:
            return "0-bytes";
        case Outcome::kOne:
            return "1-byte";
        case Outcome::kHalf:
            return "half";
        default:
            return strerrorname_np(outcome.error);
    }
}

std::span<const CallRow> callTable()
{
    return kTable;
}

const CallRow* findCall(const std::string& name)
{
    const auto* row = std::find_if(kTable.begin(), kTable.end(),
                                   [&](const CallRow& each) { return each.name == name; });
    return row == kTable.end() ? nullptr : row;
}

}  // namespace fault
