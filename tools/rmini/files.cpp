// The file that is worked on.
//
// Why: the library answers "cannot be opened" and "could not be replaced". Who typed a command
// wants to know which file, why, and what to do now, most of all when a change was cut off and a
// file is gone from its place.
//
// Owns: nothing that lasts. Files are opened here only to be looked at; the library opens them
// anew.
//
// Locks: that of the temporary file, which the library holds during a change, for as long as it
// takes to see whether the file belongs to somebody.
//
// No function of the library is called here: these frames may own what they like.
#include "files.h"

#include "console.h"

#include "rm.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rmini
{
namespace
{
constexpr const char* kTemporaryName = "_temp_.ini";
constexpr int kTimeout = 14;  // seconds; as long as the library waits
constexpr long kPollNs = 500000;
constexpr int kMostPolls = 25000;       // about the time-out: a poll takes a little longer
constexpr int kLooks = 5;               // for a file that is missing while nobody changes it
constexpr int kMostLinks = 40;          // followed, as the system does
constexpr int kGone = -1;               // no status
constexpr off_t kLargest = 0xFFFFFFFE;  // bytes that a managed file works with

enum class Lock { kHeld, kBusy, kNone };

// The lock on a temporary file, which whoever changes a file through it holds. Given back with its
// descriptor.
struct CopyLock {
    int fd = -1;
    Lock state = Lock::kNone;  // kNone: there is no such file
    bool empty = true;

    CopyLock(const char* path, int operation)
    {
        // A link is no copy, and a pipe is not waited for.
        fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        struct stat opened = {};
        struct stat named = {};
        if (fd == -1 || fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode)) {
            return;
        }
        const bool others = flock(fd, operation | LOCK_NB) != 0 && errno == EWOULDBLOCK;
        // Meanwhile it may have been renamed or removed.
        if (others || lstat(path, &named) != 0 || named.st_dev != opened.st_dev ||
            named.st_ino != opened.st_ino) {
            state = Lock::kBusy;
        } else {
            state = Lock::kHeld;
            empty = opened.st_size == 0;
        }
    }

    ~CopyLock()
    {
        if (fd != -1) {
            close(fd);
        }
    }

    CopyLock(const CopyLock&) = delete;
    CopyLock& operator=(const CopyLock&) = delete;
};

// Waits a little. False when it has been waited long enough.
bool waitABit(int& polls)
{
    const timespec interval = {0, kPollNs};
    nanosleep(&interval, nullptr);
    return ++polls < kMostPolls;
}

bool copyPath(char (&to)[PATH_MAX], const std::string& path)
{
    const bool fits = path.size() < PATH_MAX;
    std::memcpy(to, path.c_str(), fits ? path.size() + 1 : 0);
    errno = fits ? 0 : ENAMETOOLONG;
    return fits;
}

std::string_view directoryOf(std::string_view path)
{
    return path.substr(0, path.rfind('/') + 1);  // with its slash; empty without one
}

// The paths beside the file. False, with errno, when they are too long.
bool nameNeighbours(Source& source)
{
    const std::string directory(directoryOf(source.path));
    return copyPath(source.directory, directory) &&
           copyPath(source.temporary, directory + kTemporaryName);
}

bool resolve(Source& source)
{
    source.exists = realpath(source.given, source.path) != nullptr;
    return source.exists && nameNeighbours(source);
}

// The path that a file has which is not there yet.
bool resolveMissing(std::string_view given, Source& source)
{
    const std::string directory = "./" + std::string(directoryOf(given));
    char resolved[PATH_MAX];
    if (realpath(given.starts_with('/') ? directory.c_str() + 2 : directory.c_str(), resolved) ==
        nullptr) {
        return false;
    }
    const std::string_view separator = std::strcmp(resolved, "/") == 0 ? "" : "/";
    const std::string path = std::string(resolved) + std::string(separator) +
                             std::string(given.substr(directoryOf(given).size()));
    return copyPath(source.path, path) && nameNeighbours(source);
}

int unreadable(const Source& source, int error)
{
    complain("cannot open %s: %s", source.given, std::strerror(error));
    return kUnreadable;
}

int sayLost(const Source& source)
{
    complain(
        "%s is gone, and %s stands in its directory\n"
        "A change was cut off after the old file was removed. The new one is complete, under\n"
        "that name: if it is the content of %s, put it in place with\n"
        "    rmini recover %s\n"
        "Do that before anything else in the directory is changed.",
        source.given, source.temporary, source.given, source.given);
    return kUnreadable;
}

int busy(const Source& source, Status status)
{
    complain("%s: another program has been at work on %s for %d s", source.given, source.temporary,
             kTimeout);
    return status;
}

// A missing file may be on its way back: whoever changes it removes it before he renames the copy.
// kOk when it is there again; kGone when it is not, and the copy neither; otherwise said.
int lookAgain(const Source& source)
{
    int polls = 0;
    for (int looks = kLooks; looks > 0;) {
        const CopyLock lock(source.temporary, LOCK_SH);
        if (exists(source.path)) {
            return kOk;
        }
        // An empty copy is none yet.
        if (lock.state == Lock::kHeld && !lock.empty) {
            return sayLost(source);
        }
        if (lock.state != Lock::kBusy) {
            --looks;
        } else if (!waitABit(polls)) {
            return busy(source, kUnreadable);
        }
    }
    return kGone;
}

// What the path leads to, links followed as far as they go.
std::string behindLinks(std::string path)
{
    char target[PATH_MAX];
    for (int i = 0; i < kMostLinks; ++i) {
        const ssize_t length = readlink(path.c_str(), target, sizeof(target));
        if (length <= 0) {
            break;
        }
        const std::string_view name(target, static_cast<std::size_t>(length));
        path = (name.starts_with('/') ? "" : std::string(directoryOf(path))) + std::string(name);
    }
    return path;
}

int lookForMissing(bool mayBeMissing, Source& source)
{
    const std::string path = behindLinks(source.given);
    if (!resolveMissing(path, source)) {
        return unreadable(source, errno);
    }
    const int found = lookAgain(source);
    source.exists = found == kOk;
    if (found != kGone) {
        return found;
    }
    if (path != source.given) {
        complain("cannot open %s: a symbolic link to a file that is not there", source.given);
        return kUnreadable;
    }
    return mayBeMissing ? int{kOk} : unreadable(source, ENOENT);
}

Version versionOf(const struct stat& status)
{
    return {status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec};
}

// The library would wait for a pipe, and read a device to its end.
int examineKind(const Source& source)
{
    struct stat status = {};
    if (stat(source.path, &status) == 0 && !S_ISREG(status.st_mode)) {
        complain("cannot open %s: %s", source.given,
                 S_ISDIR(status.st_mode) ? std::strerror(EISDIR) : "it is no regular file");
        return kUnreadable;
    }
    return status.st_size > kLargest ? unreadable(source, EFBIG) : int{kOk};
}

int readAll(const Source& source, int fd, std::string& bytes)
{
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return unreadable(source, errno);
    }
    bytes.resize(static_cast<std::size_t>(status.st_size));
    std::size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t got = read(fd, bytes.data() + length, bytes.size() - length);
        if (got < 0) {
            complain("cannot read %s: %s", source.given, std::strerror(errno));
            return kUnreadable;
        }
        if (got == 0) {
            break;
        }
        length += static_cast<std::size_t>(got);
    }
    bytes.resize(length);
    return kOk;
}

// Why the copy could not be made; empty when nothing shows it.
std::string whyNoCopy(const Source& source)
{
    struct stat status = {};
    if (lstat(source.temporary, &status) != 0) {
        return access(source.directory, W_OK | X_OK) != 0 ? std::strerror(errno) : "";
    }
    if (!S_ISREG(status.st_mode)) {
        return "it is no regular file";
    }
    if (status.st_nlink > 1) {
        return "the file has another name too";
    }
    return access(source.temporary, W_OK) != 0 ? std::strerror(errno) : "";
}
}  // namespace

int findSource(const char* given, bool mayBeMissing, Source& source)
{
    source = {};
    source.given = given;
    int status = kOk;
    if (!resolve(source)) {
        status = errno == ENOENT ? lookForMissing(mayBeMissing, source) : unreadable(source, errno);
    }
    return status == kOk && source.exists ? examineKind(source) : status;
}

int findMissing(const char* given, Source& source)
{
    source = {};
    source.given = given;
    return resolve(source) || resolveMissing(behindLinks(given), source)
               ? int{kOk}
               : unreadable(source, errno);
}

int readDocument(const Source& source, Document& document)
{
    int fd = open(source.path, O_RDONLY | O_CLOEXEC);
    while (fd == -1 && errno == ENOENT) {
        const int found = lookAgain(source);
        if (found != kOk) {
            return found == kGone ? unreadable(source, ENOENT) : found;
        }
        fd = open(source.path, O_RDONLY | O_CLOEXEC);
    }
    if (fd == -1) {
        return unreadable(source, errno);
    }
    const int status = readAll(source, fd, document.bytes);
    close(fd);
    splitLines(document);
    return status;
}

Version versionOf(const Source& source)
{
    struct stat status = {};
    return stat(source.path, &status) == 0 ? versionOf(status) : Version{};
}

bool mayWrite(const Source& source)
{
    // While it is being replaced nothing is known; the library will say.
    return access(source.path, W_OK) == 0 || errno == ENOENT;
}

bool exists(const char* path)
{
    struct stat status = {};
    return lstat(path, &status) == 0;
}

bool isLeftOver(const Source& source)
{
    const CopyLock lock(source.temporary, LOCK_SH);
    return lock.state == Lock::kHeld && !lock.empty;
}

int recoverSource(const Source& source)
{
    int polls = 0;
    for (;;) {
        // Nobody else changes a file of the directory, or puts one back, while this is held.
        const CopyLock lock(source.temporary, LOCK_EX);
        if (lock.state == Lock::kBusy) {
            if (waitABit(polls)) {
                continue;
            }
            return busy(source, kUnwritten);
        }
        if (exists(source.path)) {
            complain(
                "%s stands in its place; there is nothing to recover%s%s%s", source.given,
                lock.state == Lock::kHeld ? "\nRemove " : "",
                lock.state == Lock::kHeld ? source.temporary : "",
                lock.state == Lock::kHeld ? ": it is left of a change that was not made." : "");
            return kRefused;
        }
        if (lock.state == Lock::kNone) {
            complain("cannot recover %s: there is no %s", source.given, source.temporary);
            return kUnreadable;
        }
        if (renameat2(AT_FDCWD, source.temporary, AT_FDCWD, source.path, RENAME_NOREPLACE) != 0) {
            complain("cannot rename %s to %s: %s", source.temporary, source.given,
                     std::strerror(errno));
            return kUnwritten;
        }
        return kOk;
    }
}

int createSource(const Source& source, bool& made)
{
    const int fd = open(source.path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    made = fd != -1;
    if (made) {
        close(fd);
    } else if (errno != EEXIST) {
        complain("cannot create %s: %s", source.given, std::strerror(errno));
        return kUnwritten;
    }
    return kOk;
}

void removeEmpty(const Source& source)
{
    struct stat status = {};
    if (lstat(source.path, &status) == 0 && S_ISREG(status.st_mode) && status.st_size == 0) {
        unlink(source.path);
    }
}

std::string whatLibrarySaid(const char* log)
{
    std::string result;
    std::string_view text = log;
    while (!text.empty()) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const std::size_t end = line.find("]  ");
        line = line.starts_with('[') && end != std::string_view::npos ? line.substr(end + 3) : line;
        result += "\nThe library says: " + std::string(line);
    }
    return result;
}

int explainFailure(const Source& source, int result, const char* librarySaid)
{
    const std::string said = whatLibrarySaid(librarySaid);
    if (result == RM_CANNOT_OPEN) {
        if (CopyLock(source.temporary, LOCK_SH).state == Lock::kBusy) {
            return busy(source, kUnwritten);
        }
        const std::string why = whyNoCopy(source);
        complain("%s is unchanged: cannot write %s%s%s%s", source.given, source.temporary,
                 why.empty() ? "" : ": ", why.c_str(), said.c_str());
    } else if (exists(source.path) && !exists(source.temporary)) {
        complain("%s is unchanged: its changed copy %s could not be completed%s", source.given,
                 source.temporary, said.c_str());
    } else if (exists(source.path)) {
        complain("%s is unchanged: it could not be replaced\nRemove %s, its changed copy.%s",
                 source.given, source.temporary, said.c_str());
    } else {
        complain("%s could not be put back into its place%s", source.given, said.c_str());
        sayLost(source);
    }
    return kUnwritten;
}

bool readInput(std::string& value)
{
    value.clear();
    char block[4096];
    ssize_t got = 0;
    while ((got = read(STDIN_FILENO, block, sizeof(block))) != 0) {
        if (got < 0) {
            complain("cannot read standard input: %s", std::strerror(errno));
            return false;
        }
        value.append(block, static_cast<std::size_t>(got));
    }
    if (value.ends_with('\n')) {
        value.pop_back();
    }
    if (value.ends_with('\r')) {
        value.pop_back();
    }
    return true;
}

}  // namespace rmini
