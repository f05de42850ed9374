// What the replacement of a file needs beyond its bytes: turns between processes, permissions, the
// directory on the disk.
//
// Why: files are replaced through a temporary file with a fixed name in the same directory. Two
// processes that do it at once would write into one file and rename each other's away. So the
// temporary file is locked by who writes it. The directory would be simpler to lock, but it is the
// host's: servers are started under a lock on it.
//
// Locks: flock on the file. It goes with the descriptor, so it ends with the process, and a child
// that is forked inside it would keep it; nothing here forks. Where the file system has no locks,
// all go on without.
//
// Fatal: never.
#include "rm/unix/unix.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kNsPerMs = 1000000;
constexpr long kPollNs = 500000;
constexpr mode_t kOwnOnly = 0600;  // of a temporary file, until it takes the place of another
constexpr mode_t kPermissionBits = 07777;
constexpr mode_t kGroupBits = 070;
constexpr mode_t kSpecialBits = 07000;  // they act for the owner and the group, so they need both

// A link is refused: what it leads to is not ours to write. A FIFO is not waited for. A file that
// may only be read can still be locked, and with that be waited for.
int openToLock(const char* path, bool* made)
{
    constexpr int kFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    int fd = open(path, O_WRONLY | kFlags);
    if (fd == -1 && errno == EACCES) {
        fd = open(path, O_RDONLY | kFlags);
    }
    if (fd == -1 && errno == ENOENT) {
        fd = open(path, O_WRONLY | O_CREAT | O_EXCL | kFlags, kOwnOnly);
        *made = fd != -1;
    }
    return os::aboveStandard(fd, os::OnExec::kCloses);
}

// False when it is another's. Where there are no locks it is everybody's.
bool tryLock(int fd, int operation)
{
    return flock(fd, operation | LOCK_NB) == 0 || (errno != EWOULDBLOCK && errno != EINTR);
}

// Only a file of one name may take the place of another: a device or a pipe has no bytes, and what
// is written into a file with a second name changes that one too.
bool mayReplace(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink <= 1;
}

// One attempt: the descriptor with the lock; RM_NONE when the path cannot be opened or is no file
// to replace another with; kFileBusy when it is another's, or the path leads to another file by
// now.
int32_t tryLockFile(const char* path, bool* made)
{
    *made = false;
    const int fd = openToLock(path, made);
    if (fd == -1) {
        return errno == EEXIST ? os::kFileBusy : int32_t{RM_NONE};
    }
    int32_t result = fd;
    if (!mayReplace(fd)) {
        result = RM_NONE;
    } else if (!tryLock(fd, LOCK_EX) || !os::leadsTo(path, fd)) {
        result = os::kFileBusy;
    }
    if (result != fd) {
        close(fd);
    }
    return result;
}
}  // namespace

int32_t os::lockFile(const char* path, uint32_t timeoutMs, bool* made)
{
    // Asked for again and again instead of waited for: no alarm is needed, whose handler and time
    // belong to the host.
    const int64_t deadline = nowMs() + int64_t{timeoutMs};
    bool isNew = false;
    int32_t lock = tryLockFile(path, &isNew);
    while (lock == kFileBusy && nowMs() < deadline) {
        waitABit();
        lock = tryLockFile(path, &isNew);
    }
    if (made != nullptr) {
        *made = isNew;
    }
    return lock;
}

void os::unlockFile(int32_t lock)
{
    if (lock >= 0) {
        close(lock);
    }
}

bool os::isLocked(const char* path)
{
    const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1) {
        return false;
    }
    const bool locked = !tryLock(fd, LOCK_SH);
    close(fd);
    return locked;
}

int64_t os::nowMs()
{
    // Without a clock each look counts for a millisecond: whoever waits for a moment comes to it.
    static int64_t last = 0;
    timespec now = {};
    if (clock_gettime(CLOCK_MONOTONIC, &now) == 0) {
        last = now.tv_sec * kMsPerSecond + now.tv_nsec / kNsPerMs;
    } else {
        ++last;
    }
    return last;
}

void os::waitABit()
{
    const timespec interval = {0, kPollNs};
    nanosleep(&interval, nullptr);
}

bool os::leadsTo(const char* path, int32_t fd)
{
    struct stat named = {};
    struct stat opened = {};
    return stat(path, &named) == 0 && fstat(fd, &opened) == 0 && named.st_dev == opened.st_dev &&
           named.st_ino == opened.st_ino;
}

bool os::isPlainFile(const char* path)
{
    struct stat status = {};
    return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

bool os::isEmptyFile(int32_t fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && status.st_size == 0;
}

void os::keepToOwner(int32_t fd)
{
    fchmod(fd, kOwnOnly);
}

void os::copyPermissions(const char* from, int32_t to)
{
    struct stat status = {};
    if (stat(from, &status) != 0) {
        return;
    }
    mode_t mode = status.st_mode & kPermissionBits;
    // Only the superuser may give a file away, and others may only give it to groups of theirs. A
    // permission that would be another's then is not given at all.
    if (fchown(to, status.st_uid, status.st_gid) != 0) {
        mode &= ~kSpecialBits;
        if (fchown(to, static_cast<uid_t>(-1), status.st_gid) != 0) {
            mode &= ~kGroupBits;
        }
    }
    fchmod(to, mode);
}

void os::bringDirectoryToDisk(const char* path)
{
    if (fileCommit == 0) {
        return;
    }
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd != -1) {
        fsync(fd);  // some file systems refuse, and have their own order then
        close(fd);
    }
}

void os::bringNameToDisk(const char* path)
{
    char directory[PATH_MAX] = ".";
    const char* slash = std::strrchr(path, '/');
    if (slash != nullptr) {
        const auto length = static_cast<std::size_t>(slash - path) + 1;
        if (length >= sizeof(directory)) {
            return;  // longer than any path that the system opens
        }
        std::memcpy(directory, path, length);
        directory[length] = '\0';
    }
    bringDirectoryToDisk(directory);
}
