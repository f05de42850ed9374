// Descriptors: the calls under the managed files, and their small status values.
//
// Why: the managed layer decides what a failure means - a log line, a neutral result, the end. Here
// a failure is only a number, and what is portable about a file call is settled: the open flags in
// the interface are one machine's for all machines, a size is 32 bits, an interrupted read is
// repeated, a write is not.
//
// Owns: the block of zeros that files are extended with.
//
// Fatal: no memory for a temporary name; otherwise nothing here logs or ends anything.
#include "rm/unix/unix.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <limits>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace os
{
std::array<char, kBlockSize> null_block;
int32_t null_block_filled = 0;
}  // namespace os

using namespace os;

namespace
{
static_assert(sizeof(off_t) == sizeof(int64_t), "files reach beyond 2 GiB: _FILE_OFFSET_BITS=64");

constexpr int kAttempts = 6;  // of a call that signals interrupt
constexpr double kFreeBlockBytes = 512.0;
constexpr int kSpaceAttempts = 1000;  // interrupted ones; a bound, so that no caller can hang
constexpr int kTempNameTries = 10000;
constexpr uint32_t kAccessModes = 0x3;

struct FlagPair {
    uint32_t ours;
    int host;
};

// What a caller may pass, and this system's word for it. Unknown bits are dropped.
constexpr std::array<FlagPair, 8> kFlagPairs = {{
    {0x004, O_NDELAY},
    {RM_O_APPEND, O_APPEND},
    {0x010, O_SYNC},
    {0x080, O_NONBLOCK},
    {RM_O_CREAT, O_CREAT},
    {RM_O_TRUNC, O_TRUNC},
    {RM_O_EXCL, O_EXCL},
    {0x800, O_NOCTTY},
}};

int hostFlags(uint32_t openFlags)
{
    int flags = O_RDONLY;
    const uint32_t access = openFlags & kAccessModes;
    if (access != RM_O_RDONLY) {
        flags = access == RM_O_WRONLY ? O_WRONLY : O_RDWR;
    }
    for (const FlagPair& pair : kFlagPairs) {
        if ((openFlags & pair.ours) != 0) {
            flags |= pair.host;
        }
    }
    return flags;
}

uint32_t saturate(off_t offset)
{
    constexpr off_t kLargest = std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(std::min(offset, kLargest));
}

bool pathExists(const char* path)
{
    struct stat status = {};
    return lstat(path, &status) == 0;
}
}  // namespace

int16_t rm_flOpen(const char* path, uint32_t openFlags, uint16_t /*modeFlags*/,
                  uint32_t permissions, int32_t* fd)
{
    *fd = open(path, hostFlags(openFlags), static_cast<mode_t>(permissions));
    return *fd == -1 ? static_cast<int16_t>(errno) : int16_t{RM_SUCCESS};
}

int16_t rm_flClose(int32_t fd)
{
    return static_cast<int16_t>(close(fd));
}

int16_t rm_flRead(int32_t fd, void* buffer, int32_t length, int32_t* count)
{
    if (length < 0) {
        *count = -1;
        errno = EINVAL;
        return EINVAL;
    }
    for (int attempt = 1;; ++attempt) {
        errno = 0;
        *count = static_cast<int32_t>(read(fd, buffer, static_cast<std::size_t>(length)));
        if (*count == length || errno == 0) {
            return RM_SUCCESS;
        }
        if (errno != EINTR || attempt == kAttempts) {
            return static_cast<int16_t>(errno);
        }
    }
}

int32_t rm_flWrite(int32_t fd, const void* buffer, int32_t length)
{
    if (length < 0) {
        errno = EINVAL;
        return 0;
    }
    errno = 0;
    return std::max(0, static_cast<int32_t>(write(fd, buffer, static_cast<std::size_t>(length))));
}

int16_t rm_flSeek(int32_t fd, int32_t offset, int16_t whence, uint32_t* position)
{
    return seekDescriptor(fd, offset, whence, position);
}

int16_t os::seekDescriptor(int32_t fd, int64_t offset, int16_t whence, uint32_t* position)
{
    const off_t result = lseek(fd, offset, whence);
    if (position != nullptr) {
        *position = saturate(result);
    }
    return result == -1 ? int16_t{-1} : int16_t{RM_SUCCESS};
}

int32_t os::aboveStandard(int32_t fd, OnExec onExec)
{
    if (static_cast<uint32_t>(fd) > STDERR_FILENO) {
        return fd;  // also -1
    }
    const int command = onExec == OnExec::kCloses ? F_DUPFD_CLOEXEC : F_DUPFD;
    const int32_t moved = fcntl(fd, command, STDERR_FILENO + 1);
    const int error = errno;
    close(fd);
    errno = error;
    return moved;
}

int16_t rm_flSize(int32_t fd, uint32_t* size)
{
    const off_t position = lseek(fd, 0, SEEK_CUR);
    const off_t end = lseek(fd, 0, SEEK_END);
    const int error = errno;
    *size = saturate(end);
    lseek(fd, position, SEEK_SET);
    errno = error;
    return end == -1 ? int16_t{-1} : int16_t{RM_SUCCESS};
}

int16_t rm_flSetSize(int32_t fd, uint32_t size)
{
    if (null_block_filled == 0) {
        null_block.fill(0);
        null_block_filled = 1;
    }
    off_t end = lseek(fd, 0, SEEK_END);
    if (end == -1) {
        return -1;
    }
    while (end < off_t{size}) {
        const auto bytes = static_cast<std::size_t>(std::min(off_t{size} - end, off_t{kBlockSize}));
        const ssize_t written = write(fd, null_block.data(), bytes);
        if (written != static_cast<ssize_t>(bytes)) {
            return -1;
        }
        end += written;
    }
    // Deliberate: the start of the file, not its end. Writes at the current position land there.
    lseek(fd, 0, SEEK_SET);
    return RM_SUCCESS;
}

int16_t rm_flSync(int32_t fd)
{
    if (fileCommit != 0) {
        fsync(fd);
    }
    return RM_SUCCESS;
}

int16_t os::bringToDisk(int32_t fd)
{
    if (fileCommit == 0) {
        return RM_SUCCESS;
    }
    for (int attempt = 1; fsync(fd) != 0; ++attempt) {
        if (errno == EINVAL || errno == ENOTSUP) {
            return RM_SUCCESS;  // a device that has nothing to sync
        }
        if (errno != EINTR || attempt == kAttempts) {
            return static_cast<int16_t>(errno);
        }
    }
    return RM_SUCCESS;
}

int16_t rm_flSetWriteThrough(int32_t /*fd*/)
{
    return RM_SUCCESS;
}

int16_t rm_flRemove(const char* path)
{
    return static_cast<int16_t>(std::remove(path));
}

int16_t rm_flRename(const char* oldPath, const char* newPath)
{
    return static_cast<int16_t>(std::rename(oldPath, newPath));
}

char* rm_flTempName()
{
    // Process, time and a counter keep the names of living processes apart; the look at the file
    // system keeps those of dead ones apart.
    static uint32_t counter = 0;
    char path[sizeof(P_tmpdir) + 64];
    for (int tries = 0; tries < kTempNameTries; ++tries) {
        timespec time = {};
        clock_gettime(CLOCK_REALTIME, &time);
        std::snprintf(path, sizeof(path), "%s/rm%lx-%lx%lx-%lx", P_tmpdir,
                      static_cast<unsigned long>(getpid()), static_cast<unsigned long>(time.tv_sec),
                      static_cast<unsigned long>(time.tv_nsec),
                      static_cast<unsigned long>(counter));
        ++counter;
        if (!pathExists(path)) {
            break;
        }
    }
    return rm_Strdup(path, 0);
}

double rm_flGetDiskFreeSpace(const char* path)
{
    struct statvfs status = {};
    int attempts = 1;
    while (statvfs(path, &status) != 0) {
        if (errno != EINTR || attempts == kSpaceAttempts) {
            return -1.0;
        }
        ++attempts;
    }
    // Deliberate: 32 bits of the free blocks, of 512 bytes each, whatever the block size is. Hosts
    // give their minimum in the same measure.
    return static_cast<uint32_t>(status.f_bfree) * kFreeBlockBytes;
}

int16_t rm_fileValidate(const char* path)
{
    struct stat status = {};
    return static_cast<int16_t>(stat(path, &status));
}
