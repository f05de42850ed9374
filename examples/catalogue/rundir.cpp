// The private directory of one run.
//
// Why: processes meet on the semaphore set whose key is made from the token file in the current
// directory, and creating an object adds 1 to whatever value the semaphore has. A run that joined
// the set of a crashed one would find its locks held, or free twice. So every run has a directory
// of its own with a token file of its own, and makes sure beforehand that no set has its key: a
// key keeps only 16 bits of the file's number, so even a stranger's may be the same.
//
// Owns: DIR/catalogue-run.XXXXXX with
//   owner          who runs here, and the set it made; locked as long as a process of the run lives
//   .ZNT.RM.SEM    the library's token file
//   taken-N        files whose number gave a key that was in use; they keep that number busy
//   bucket-NN.dat  the records
//
// Invariant: a run directory whose owner file can be locked is nobody's. The lock is on the open
// file, which workers inherit, so it outlives a parent that was killed until its workers are gone.
//
// Lifecycle: looking for leavings and making the directory happen under a lock on DIR, so two runs
// that start together do not take each other for dead.
//
// No function of the library is called here; these frames own what they like.
#include "rundir.h"

#include "console.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

namespace catalogue
{
namespace
{
constexpr std::string_view kPrefix = "catalogue-run.";
constexpr std::string_view kRandomPart = "XXXXXX";
constexpr const char* kOwner = "owner";
constexpr const char* kToken = ".ZNT.RM.SEM";
constexpr int kTokenProject = 1;  // with which the library makes the key
constexpr int kKeyAttempts = 64;
constexpr std::chrono::milliseconds kLockPoll(20);
constexpr int kLockPolls = 250;  // 5 s: another run only scans meanwhile

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};

// What the owner file says.
struct Owner {
    long pid = 0;
    int setId = -1;
};

bool lockWithin(int fd, int polls)
{
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || --polls <= 0) {
            return false;
        }
        std::this_thread::sleep_for(kLockPoll);
    }
    return true;
}

std::vector<std::string> namesIn(int directoryFd)
{
    std::vector<std::string> names;
    const int copy = openat(directoryFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, CloseDirectory> directory(copy < 0 ? nullptr : fdopendir(copy));
    if (directory != nullptr) {
        while (const dirent* entry = readdir(directory.get())) {
            names.emplace_back(entry->d_name);
        }
    }
    return names;
}

bool madeByARun(std::string_view name)
{
    return name == kToken || name.starts_with("taken-") ||
           (name.starts_with("bucket-") && name.ends_with(".dat"));
}

// Removes the run directory `name`, the owner file last: as long as that stands there, locked,
// nobody else touches the rest. Files that no run makes are left, and then the directory too.
bool removeDirectory(int parentFd, const std::string& name)
{
    const int fd = openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return errno == ENOENT;
    }
    for (const std::string& file : namesIn(fd)) {
        if (madeByARun(file)) {
            unlinkat(fd, file.c_str(), 0);
        }
    }
    unlinkat(fd, kOwner, 0);
    close(fd);
    return unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT;
}

Owner readOwner(int fd)
{
    char text[128] = "";
    Owner owner;
    if (pread(fd, text, sizeof(text) - 1, 0) > 0) {
        static_cast<void>(std::sscanf(text, "pid %ld\nset %d\n", &owner.pid, &owner.setId));
    }
    return owner;
}

// Removes the set that a dead run noted, if it is still the one that the token file leads to.
void removeSet(const std::string& directory, int setId)
{
    const key_t key = ftok((directory + "/" + kToken).c_str(), kTokenProject);
    if (key != -1 && setId != -1 && semget(key, 0, 0) == setId) {
        semctl(setId, 0, IPC_RMID);
    }
}

// Removes the run directory `name` if its run is dead.
void removeStale(int parentFd, const std::string& parent, const std::string& name)
{
    const std::string path = parent + "/" + name;
    const int fd = openat(parentFd, (name + "/" + kOwner).c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        // A run that died between the first two steps left it empty; anything else is not ours.
        static_cast<void>(unlinkat(parentFd, name.c_str(), AT_REMOVEDIR));
        return;
    }
    struct stat status = {};
    const bool dead = flock(fd, LOCK_EX | LOCK_NB) == 0 && fstat(fd, &status) == 0 &&
                      status.st_nlink > 0 && status.st_uid == geteuid();
    if (dead) {
        const Owner owner = readOwner(fd);
        removeSet(path, owner.setId);
        if (removeDirectory(parentFd, name)) {
            std::printf("removed what run %ld left behind when it died: %s\n", owner.pid,
                        path.c_str());
        } else {
            complain("cannot remove all that run %ld left in %s; remove it by hand.", owner.pid,
                     path.c_str());
        }
    }
    close(fd);
}

void removeStaleRuns(int parentFd, const std::string& parent)
{
    for (const std::string& name : namesIn(parentFd)) {
        if (name.starts_with(kPrefix) && name.size() == kPrefix.size() + kRandomPart.size()) {
            removeStale(parentFd, parent, name);
        }
    }
}
}  // namespace

bool RunDirectory::make(const std::string& parent)
{
    path_ = parent + "/" + std::string(kPrefix) + std::string(kRandomPart);
    parentFd_ = open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (parentFd_ < 0 || !lockWithin(parentFd_, kLockPolls)) {
        complain("cannot use the directory %s: %s\nName one that can be written with --dir.",
                 parent.c_str(), std::strerror(errno));
        return false;
    }
    removeStaleRuns(parentFd_, parent);
    if (mkdtemp(path_.data()) == nullptr) {
        complain("cannot make a directory in %s: %s\nName one that can be written with --dir.",
                 parent.c_str(), std::strerror(errno));
        return false;
    }
    name_ = path_.substr(parent.size() + 1);
    const bool made = makeOwned();
    flock(parentFd_, LOCK_UN);
    return made && reserveKey();
}

bool RunDirectory::makeOwned()
{
    if (chdir(path_.c_str()) == 0) {
        ownerFd_ = open(kOwner, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    }
    if (ownerFd_ < 0 || !lockWithin(ownerFd_, 1) || dprintf(ownerFd_, "pid %d\n", getpid()) < 0) {
        complain("cannot write in %s: %s\nName a directory that can be written with --dir.",
                 path_.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

// The library truncates the token file that it finds here, so the file keeps its number and the
// key is the one that was tried.
bool RunDirectory::reserveKey()
{
    for (int attempt = 0; attempt < kKeyAttempts; ++attempt) {
        const int fd = open(kToken, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            complain("cannot write in %s: %s\nName a directory that can be written with --dir.",
                     path_.c_str(), std::strerror(errno));
            return false;
        }
        close(fd);
        const key_t key = ftok(kToken, kTokenProject);
        if (key != -1 && semget(key, 0, 0) == -1 && errno == ENOENT) {
            return true;
        }
        const std::string taken = "taken-" + std::to_string(attempt);
        if (std::rename(kToken, taken.c_str()) != 0) {
            break;
        }
    }
    complain("no unused semaphore key was found in %s.\nSee which sets exist with ipcs -s.",
             path_.c_str());
    return false;
}

bool RunDirectory::noteSet()
{
    setId_ = semget(ftok(kToken, kTokenProject), 0, 0);
    if (setId_ == -1 || dprintf(ownerFd_, "set %d\n", setId_) < 0) {
        complain("cannot note the semaphore set of this run in %s: %s", path_.c_str(),
                 std::strerror(errno));
        return false;
    }
    return true;
}

void RunDirectory::remove()
{
    if (name_.empty()) {
        return;
    }
    static_cast<void>(!fchdir(parentFd_));  // fails only for a directory that has gone
    if (!removeDirectory(parentFd_, name_)) {
        complain("cannot remove %s: %s\nRemove it by hand.", path_.c_str(), std::strerror(errno));
    }
    if (ownerFd_ >= 0) {
        close(ownerFd_);
    }
    close(parentFd_);
    ownerFd_ = parentFd_ = -1;
    name_.clear();
}

}  // namespace catalogue
