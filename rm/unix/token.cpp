// Token files: by their paths, processes find the same IPC object.
//
// Why: a System V object is found by a number, and the number is made from a file's identity. The
// processes of a server agree on a prefix, and so on the files.
//
// Owns: the prefix.
//
// Invariant: a file that is not ours is never truncated through a symbolic link that somebody left
// in a shared directory, a process that the server starts does not inherit the stream, a pipe of
// that name cannot block the open, and what is printed or logged never goes into the file.
#include "rm/unix/unix.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace os
{
char tokName[kTokenPrefixSize] = "";
}  // namespace os

namespace
{
constexpr mode_t kEverybody = 0666;  // less the process's mask
}

void os::tokenPath(char (&path)[kTokenPathSize], const char* fileName)
{
    std::snprintf(path, sizeof(path), "%s%s", tokName, fileName);
}

FILE* os::openToken(const char* path)
{
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    const int fd = aboveStandard(open(path, kFlags, kEverybody), OnExec::kCloses);
    if (fd == -1) {
        return nullptr;
    }
    FILE* stream = fdopen(fd, "w");
    if (stream == nullptr) {
        const int error = errno;
        close(fd);
        errno = error;
    }
    return stream;
}

bool os::renewToken(FILE** stream, char (&path)[kTokenPathSize], const char* fileName)
{
    char wanted[kTokenPathSize];
    tokenPath(wanted, fileName);
    if (std::strcmp(wanted, path) == 0) {
        closeToken(stream);
    } else {
        dropToken(stream, path);
    }
    std::memcpy(path, wanted, sizeof(path));
    *stream = openToken(path);
    return *stream != nullptr;
}

void os::closeToken(FILE** stream)
{
    if (*stream != nullptr) {
        std::fclose(*stream);
        *stream = nullptr;
    }
}

void os::dropToken(FILE** stream, const char* path)
{
    if (*stream != nullptr) {
        closeToken(stream);
        unlink(path);
    }
}

void rm_tokenName(const char* prefix)
{
    StrncpyZ(os::tokName, prefix, sizeof(os::tokName));
}
