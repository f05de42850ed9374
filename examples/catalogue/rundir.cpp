// The private directory of one run.
//
// Why: processes meet on the semaphore set, the segments and the queues whose keys are made from
// the token files in the current directory, and creating a sync object adds 1 to whatever value the
// semaphore has. A run that joined the set of a crashed one would find its locks held, or free
// twice. So every run has a directory of its own with token files of its own. A key keeps only 16
// bits of the file's number, so even a stranger's may be the same: the run makes its objects
// itself, where the system tells whether they are new, and the library joins them. They are as the
// library would have made them.
//
// Owns: DIR/catalogue-run.XXXXXX with
//   owner          who runs here, and what it made; locked as long as a process of the run lives
//   .ZNT.RM.SEM, .ZNT.RM.MEM, .ZNT.RM.QUEUE    the library's token files
//   taken-N        files whose number gave a key that was in use; they keep that number busy
//   bucket-NN.dat  the records; with .new, .bak and .old their backups
//   channel.N      where a client claims its place (protocol.h)
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
#include "protocol.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <sstream>
#include <string_view>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

namespace catalogue
{
namespace
{
constexpr std::string_view kPrefix = kRunPrefix;
constexpr std::string_view kRandomPart = "XXXXXX";
static_assert(kRandomPart.size() == kRunRandom);
constexpr const char* kOwner = kOwnerFile;
constexpr int kSegments = 2;
constexpr int kSemaphores = 20;  // of the library's set
constexpr int kMostObjects = kQueues;

enum class Kind { kSet, kSegment, kQueue };

// What processes meet on: one set with one key, and segments and queues with a key for each slot.
// The library numbers the keys of a token file from 1.
struct Token {
    Kind kind;
    const char* file;
    const char* word;  // before the ids in the owner file
    const char* what;
    int objects;
};

constexpr Token kTokens[] = {{Kind::kSet, ".ZNT.RM.SEM", "set", "semaphore set", 1},
                             {Kind::kSegment, kBoardToken, "memory", "shared memory", kSegments},
                             {Kind::kQueue, kQueueToken, "queues", "message queues", kQueues}};

constexpr int kKeyAttempts = 64;
constexpr std::chrono::milliseconds kLockPoll(20);
constexpr int kLockPolls = 250;  // 5 s: another run only scans meanwhile

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};

// What the owner file says.
struct Owner {
    long pid = 0;
    int ids[std::size(kTokens)][kMostObjects] = {};  // -1 where none is noted
};

// The id of the object that has this key; -1 with errno when there is none.
int findObject(Kind kind, key_t key)
{
    switch (kind) {
        case Kind::kSet:
            return semget(key, 0, 0);
        case Kind::kSegment:
            return shmget(key, 0, 0);
        case Kind::kQueue:
            break;
    }
    return msgget(key, 0);
}

// Makes the object that has this key; -1 with errno when there is one already, or it cannot be.
int makeObject(Kind kind, key_t key, uint64_t bytes)
{
    constexpr int kNew = IPC_CREAT | IPC_EXCL | 0777;  // the library's mode
    switch (kind) {
        case Kind::kSet:
            return semget(key, kSemaphores, kNew);
        case Kind::kSegment:
            // What is more than the machine can address is refused like all that is too much.
            return shmget(key, static_cast<std::size_t>(std::min<uint64_t>(bytes, SIZE_MAX)), kNew);
        case Kind::kQueue:
            break;
    }
    return msgget(key, kNew);
}

void removeObject(Kind kind, int id)
{
    switch (kind) {
        case Kind::kSet:
            semctl(id, 0, IPC_RMID);
            break;
        case Kind::kSegment:
            shmctl(id, IPC_RMID, nullptr);
            break;
        case Kind::kQueue:
            msgctl(id, IPC_RMID, nullptr);
            break;
    }
}

// Makes all objects of a token file. False when one of them exists, or cannot be made; then there
// is none, and errno says why.
bool makeObjects(const Token& token, const std::vector<uint64_t>& segments, std::vector<int>& ids)
{
    const std::size_t before = ids.size();
    for (int object = 0; object < token.objects; ++object) {
        const key_t key = ftok(token.file, 1 + object);
        const uint64_t bytes =
            token.kind == Kind::kSegment ? segments[static_cast<std::size_t>(object)] : 0;
        const int id = key == -1 ? -1 : makeObject(token.kind, key, bytes);
        if (id == -1) {
            const int error = errno;
            for (; ids.size() > before; ids.pop_back()) {
                removeObject(token.kind, ids.back());
            }
            errno = error;
            return false;
        }
        ids.push_back(id);
    }
    return true;
}

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

// Makes an empty file of that name, which does not exist yet.
bool makeFile(const char* name)
{
    const int fd = open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    return fd >= 0 && close(fd) == 0;
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
    const auto ends = [name](const char* extension) { return name.ends_with(extension); };
    return std::ranges::any_of(kTokens,
                               [name](const Token& token) { return name == token.file; }) ||
           std::ranges::find(kChannelFiles, name) != std::end(kChannelFiles) ||
           name.starts_with("taken-") ||
           (name.starts_with("bucket-") &&
            (ends(".dat") || ends(".new") || ends(".bak") || ends(".old")));
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
    Owner owner;
    std::memset(owner.ids, -1, sizeof(owner.ids));
    char text[512] = "";
    if (pread(fd, text, sizeof(text) - 1, 0) <= 0) {
        return owner;
    }
    std::istringstream words(text);
    std::string word;
    int* ids = nullptr;
    int noted = 0;
    while (words >> word) {
        const auto* const token = std::ranges::find(kTokens, word, &Token::word);
        if (token != std::end(kTokens)) {
            ids = owner.ids[token - kTokens];
            noted = 0;
        } else if (word == "pid") {
            words >> owner.pid;
        } else if (ids != nullptr && noted < kMostObjects) {
            ids[noted++] = std::atoi(word.c_str());
        }
    }
    return owner;
}

// Removes what this run has made and the library has not removed. Ids are not used again soon.
void removeObjects(const std::vector<int>& ids)
{
    auto id = ids.begin();
    for (const Token& token : kTokens) {
        for (int object = 0; object < token.objects && id != ids.end(); ++object) {
            removeObject(token.kind, *id++);
        }
    }
}

// Removes what a dead run noted, as far as it is still what the token files lead to.
void removeObjects(const std::string& directory, const Owner& owner)
{
    for (std::size_t i = 0; i < std::size(kTokens); ++i) {
        const std::string path = directory + "/" + kTokens[i].file;
        for (int object = 0; object < kTokens[i].objects; ++object) {
            const int id = owner.ids[i][object];
            const key_t key = ftok(path.c_str(), 1 + object);
            if (id != -1 && key != -1 && findObject(kTokens[i].kind, key) == id) {
                removeObject(kTokens[i].kind, id);
            }
        }
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
        removeObjects(path, owner);
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

bool RunDirectory::make(const std::string& parent, const std::vector<uint64_t>& segments)
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
    return made && claimObjects(segments) && noteObjects();
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

// The library truncates the token files that it finds here, so they keep their numbers, and the
// keys are those that were tried.
bool RunDirectory::claimObjects(const std::vector<uint64_t>& segments)
{
    int taken = 0;
    for (const Token& token : kTokens) {
        for (;;) {
            if (!makeFile(token.file)) {
                complain("cannot write in %s: %s\nName a directory that can be written with --dir.",
                         path_.c_str(), std::strerror(errno));
                return false;
            }
            if (makeObjects(token, segments, ids_)) {
                break;
            }
            if (errno != EEXIST) {
                complain(
                    "cannot make the %s of the run: %s\nSee what exists with ipcs, and the "
                    "machine's limits with ipcs -l.",
                    token.what, std::strerror(errno));
                return false;
            }
            const std::string name = "taken-" + std::to_string(taken);
            if (++taken == kKeyAttempts || std::rename(token.file, name.c_str()) != 0) {
                complain("no unused keys were found in %s.\nSee what exists with ipcs.",
                         path_.c_str());
                return false;
            }
        }
    }
    setId_ = ids_.front();
    return true;
}

// For whoever has to clean up after a crash.
bool RunDirectory::noteObjects()
{
    std::string text;
    auto id = ids_.begin();
    for (const Token& token : kTokens) {
        text += token.word;
        for (int object = 0; object < token.objects; ++object) {
            text += " " + std::to_string(*id++);
        }
        text += "\n";
    }
    if (dprintf(ownerFd_, "%s", text.c_str()) < 0) {
        complain("cannot write in %s: %s\nName a directory that can be written with --dir.",
                 path_.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

bool RunDirectory::openChannels() const
{
    if (std::ranges::all_of(kChannelFiles, makeFile)) {
        return true;
    }
    complain("cannot write in %s: %s\nName a directory that can be written with --dir.",
             path_.c_str(), std::strerror(errno));
    return false;
}

void RunDirectory::closeChannels()
{
    for (const char* const name : kChannelFiles) {
        static_cast<void>(unlink(name));  // it may have been done before
    }
}

void RunDirectory::remove()
{
    if (name_.empty()) {
        return;
    }
    removeObjects(ids_);
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
