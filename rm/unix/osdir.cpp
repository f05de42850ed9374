// What the replacement of a file needs beyond its bytes: a lock on its directory, its identity, its
// permissions.
//
// Why: files are replaced through a temporary file with a fixed name in the same directory, so two
// processes that do it at once would write into one file and remove each other's. The directory
// itself is what they have in common, and a lock on it needs no file of its own.
//
// Locks: flock on the directory. It goes with the descriptor, so it ends with the process, and a
// child that is forked inside it would keep it; nothing here forks.
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

void waitABit()
{
    const timespec interval = {0, kPollMs * kNsPerMs};
    nanosleep(&interval, nullptr);
}
}  // namespace

int32_t os::lockDirectory(const char* path, uint32_t timeoutMs)
{
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd == -1) {
        return RM_NONE;
    }
    // Asked for again and again instead of waited for: no alarm is needed, whose handler and time
    // belong to the host.
    for (uint32_t waitedMs = 0; flock(fd, LOCK_EX | LOCK_NB) != 0; waitedMs += kPollMs) {
        const bool busy = errno == EWOULDBLOCK;
        if (waitedMs >= timeoutMs || (!busy && errno != EINTR)) {
            close(fd);
            return busy ? kDirectoryBusy : RM_NONE;
        }
        waitABit();
    }
    return fd;
}

void os::unlockDirectory(int32_t lock)
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
           status.st_dev == otherStatus.st_dev && status.st_ino == otherStatus.st_ino;
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
