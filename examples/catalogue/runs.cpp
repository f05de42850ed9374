// Finding a run that lives, for those who do not belong to it.
//
// Why: a client that joined the queues of a dead run would wait for an answer that nobody gives,
// and one that came too late would make a new set of queues for nobody. The owner file's lock
// tells: it is on the open file that all processes of a run share, so whoever gets it knows that
// none is left.
//
// Locks: looking means trying that lock, shared and for no longer than the look. A server that
// starts takes it for the first time while it holds a lock on the directory around it, and so does
// one that looks for leavings; the first look happens under that lock too, shared, so that neither
// finds it taken by a client.
//
// No function of the library is called here; these frames own what they like.
#include "runs.h"

#include "console.h"
#include "protocol.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace catalogue
{
namespace
{
constexpr std::chrono::milliseconds kLockPoll(5);
constexpr int kLockPolls = 1000;  // 5 s: servers that start hold the lock for moments only

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};

enum class Look {
    kLives,
    kDead,
    kNone,   // no run has its files there
    kCannot  // errno says why it cannot be looked at
};

// A run directory and what became of it.
struct Candidate {
    std::string path;
    Look look = Look::kNone;
    int ownerFd = -1;
    int error = 0;
};

// Opens the directory in which runs are made, and locks it. Looks without the lock where there is
// no permission to open it: whoever may not read a directory cannot start a server in it either.
int lockAround(const std::string& directory)
{
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; fd >= 0 && flock(fd, LOCK_SH | LOCK_NB) != 0 && i < kLockPolls; ++i) {
        std::this_thread::sleep_for(kLockPoll);
    }
    return fd;
}

bool lockIsHeld(int fd)
{
    if (flock(fd, LOCK_SH | LOCK_NB) != 0) {
        return true;
    }
    flock(fd, LOCK_UN);
    return false;
}

Candidate lookAt(const std::string& path)
{
    Candidate found;
    found.path = path;
    found.ownerFd =
        open((path + "/" + kOwnerFile).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (found.ownerFd < 0) {
        found.error = errno;
        found.look = errno == ENOENT || errno == ENOTDIR ? Look::kNone : Look::kCannot;
        return found;
    }
    found.look = lockIsHeld(found.ownerFd) ? Look::kLives : Look::kDead;
    return found;
}

bool isRunName(std::string_view name)
{
    const std::string_view prefix = kRunPrefix;
    return name.starts_with(prefix) && name.size() == prefix.size() + kRunRandom;
}

// All run directories in a directory, living or not.
std::vector<Candidate> runsIn(const std::string& directory)
{
    std::vector<Candidate> runs;
    const std::unique_ptr<DIR, CloseDirectory> stream(opendir(directory.c_str()));
    if (stream == nullptr) {
        return runs;
    }
    while (const dirent* entry = readdir(stream.get())) {
        if (isRunName(entry->d_name)) {
            runs.push_back(lookAt(directory + "/" + entry->d_name));
        }
    }
    return runs;
}

bool take(const Candidate& candidate, FoundRun& run)
{
    run.ownerFd = candidate.ownerFd;
    if (candidate.path.size() >= sizeof(run.path)) {
        complain("the path of the run is longer than %zu bytes.", sizeof(run.path) - 1);
        return false;
    }
    std::memcpy(run.path, candidate.path.c_str(), candidate.path.size() + 1);
    return true;
}

// Says what there is, when there is not one run that lives.
void complainAbout(const std::vector<Candidate>& runs, const std::string& where)
{
    std::string living;
    std::string others;
    int lives = 0;
    for (const Candidate& run : runs) {
        if (run.look == Look::kLives) {
            ++lives;
            living += "\n" + run.path;
        } else if (run.look == Look::kCannot) {
            others += "\n" + run.path + " cannot be looked at: " + std::strerror(run.error);
        } else {
            others += "\n" + run.path + " is what a run left that died.";
        }
    }
    if (lives > 1) {
        complain("%d catalogues run in %s; say with --run which one is meant:%s", lives,
                 where.c_str(), living.c_str());
    } else {
        complain("no catalogue runs in %s.%s\nStart one there, or say with --run where it runs.",
                 where.c_str(), others.c_str());
    }
}

const Candidate* onlyLiving(const std::vector<Candidate>& runs)
{
    const Candidate* found = nullptr;
    for (const Candidate& run : runs) {
        if (run.look == Look::kLives) {
            if (found != nullptr) {
                return nullptr;
            }
            found = &run;
        }
    }
    return found;
}

std::vector<Candidate> lookAround(const std::string& directory)
{
    const int lock = lockAround(directory);
    std::vector<Candidate> runs = runsIn(directory);
    if (lock >= 0) {
        close(lock);
    }
    return runs;
}

// Without --run.
bool findDefault(FoundRun& run)
{
    if (const Candidate self = lookAt("."); self.look == Look::kLives) {
        return take(self, run);
    }
    std::string where = "the current directory";
    std::vector<Candidate> runs = lookAround(".");
    const char* const temporary = std::getenv("TMPDIR");
    if (onlyLiving(runs) == nullptr && temporary != nullptr && *temporary != '\0') {
        where += std::string(" or in ") + temporary;
        for (Candidate& other : lookAround(temporary)) {
            runs.push_back(std::move(other));
        }
    }
    const Candidate* const only = onlyLiving(runs);
    if (only == nullptr) {
        complainAbout(runs, where);
        return false;
    }
    return take(*only, run);
}
}  // namespace

bool findRun(const char* where, FoundRun& run)
{
    if (where == nullptr) {
        return findDefault(run);
    }
    struct stat status = {};
    const bool exists = stat(where, &status) == 0;
    if (!exists || !S_ISDIR(status.st_mode)) {
        complain("--run %s: %s", where, std::strerror(exists ? ENOTDIR : errno));
        return false;
    }
    const int lock = lockAround(std::string(where) + "/..");
    const Candidate self = lookAt(where);
    if (lock >= 0) {
        close(lock);
    }
    switch (self.look) {
        case Look::kLives:
            return take(self, run);
        case Look::kDead:
            complain("the catalogue in %s has died; the next one that starts there cleans up.",
                     where);
            return false;
        case Look::kCannot:
            complain("%s cannot be looked at: %s", where, std::strerror(self.error));
            return false;
        case Look::kNone:
            break;
    }
    const std::vector<Candidate> runs = lookAround(where);
    const Candidate* const only = onlyLiving(runs);
    if (only == nullptr) {
        complainAbout(runs, where);
        return false;
    }
    return take(*only, run);
}

bool runLives(const FoundRun& run)
{
    return lockIsHeld(run.ownerFd);
}

}  // namespace catalogue
