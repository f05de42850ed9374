// What the replacement of a file needs beyond its bytes: turns between processes, identity,
// permissions.
//
// Why: files are replaced through a temporary file with a fixed name in the same directory. Two
// processes that do it at once would write into one file and rename each other's away. So the
// temporary file is locked by who writes it. The directory would be simpler to lock, but it is the
// host's: servers are started under a lock on it.
//
// Locks: flock on the file. It goes with the descriptor, so it ends with the process, and a child
// that is forked inside it would keep it; nothing here forks.
//
// Fatal: never.
#include "rm/unix/unix.h"

#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
constexpr uint32_t kPollMs = 10;
constexpr long kNsPerMs = 1000000;
constexpr mode_t kPermissionBits = 07777;
constexpr mode_t kOwnOnly = 0600;  // of a temporary file, until it takes the place of another

void waitABit()
{
    const timespec interval = {0, kPollMs * kNsPerMs};
    nanosleep(&interval, nullptr);
}

// A link is refused: what it leads to is not ours to write. A FIFO is not waited for.
int openToLock(const char* path, bool* created)
{
    constexpr int kFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const int fd = open(path, (created != nullptr ? O_RDWR : O_RDONLY) | kFlags);
    if (fd != -1 || errno != ENOENT || created == nullptr) {
        return fd;
    }
    const int made = open(path, O_RDWR | O_CREAT | O_EXCL | kFlags, kOwnOnly);
    *created = *created || made != -1;
    return made;
}

// Asked for again and again instead of waited for: no alarm is needed, whose handler and time
// belong to the host. Where the system has no locks all go on without.
bool waitForLock(int fd, uint32_t timeoutMs, uint32_t* waitedMs)
{
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return true;
        }
        if (*waitedMs >= timeoutMs) {
            return false;
        }
        waitABit();
        *waitedMs += kPollMs;
    }
    return true;
}

bool isOneFile(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool leadsTo(const char* path, int fd)
{
    struct stat named = {};
    struct stat opened = {};
    return lstat(path, &named) == 0 && fstat(fd, &opened) == 0 && isOneFile(named, opened);
}
}  // namespace

int32_t os::lockFile(const char* path, uint32_t timeoutMs, bool* created)
{
    if (created != nullptr) {
        *created = false;
    }
    for (uint32_t waitedMs = 0;; waitedMs += kPollMs) {
        const int fd = openToLock(path, created);
        if (fd == -1 && errno != EEXIST) {
            return RM_NONE;
        }
        if (fd != -1) {
            const bool locked = waitForLock(fd, timeoutMs, &waitedMs);
            if (locked && leadsTo(path, fd)) {
                return fd;
            }
            close(fd);
        }
        // Whoever had it before has renamed or removed it: the path leads to the next one.
        if (waitedMs >= timeoutMs) {
            return kFileBusy;
        }
    }
}

void os::unlockFile(int32_t lock)
{
    if (lock >= 0) {
        close(lock);
    }
}

bool os::isSameFile(const char* path, const char* otherPath)
{
    struct stat status = {};
    struct stat otherStatus = {};
    return stat(path, &status) == 0 && stat(otherPath, &otherStatus) == 0 &&
           isOneFile(status, otherStatus);
}

void os::copyPermissions(const char* from, const char* to)
{
    struct stat status = {};
    if (stat(from, &status) != 0) {
        return;
    }
    if (chown(to, status.st_uid, status.st_gid) != 0) {
        // Only the superuser may give a file away. Whoever may not replaces it by one of his own,
        // with the same permissions.
    }
    chmod(to, status.st_mode & kPermissionBits);
}
