// The directory of a run, and what must not be left behind.
//
// Why: objects of the system outlive their processes. A run that leaves one behind would be met by
// another one some day, and a soak that leaves files fills the disk of whoever runs it every night.
#include "soak.h"

#include "rm.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

namespace soak
{
namespace
{
constexpr std::array kTokenFiles = {".ZNT.RM.SEM", ".ZNT.RM.MEM", ".ZNT.RM.QUEUE"};
constexpr int kTries = 64;
constexpr int kProjects = 20;  // the largest number that the library makes a key with

// The low half of the number of a token file is in its keys: others may have the same.
bool keyInUse(key_t key)
{
    return semget(key, 0, 0) != -1 || shmget(key, 0, 0) != -1 || msgget(key, 0) != -1;
}

bool keysInUse(const std::string& directory)
{
    bool used = false;
    for (const char* const name : kTokenFiles) {
        const std::string token = directory + "/" + name;
        spit(token, "");
        for (int project = 1; project <= kProjects && !used; ++project) {
            used = keyInUse(ftok(token.c_str(), project));
        }
        std::filesystem::remove(token);
    }
    return used;
}

std::string directory;
std::filesystem::path before;  // the current directory of whoever started us
std::vector<int> descriptors;

struct Objects {
    int semaphores = -1;
    std::vector<int> memory;
    std::vector<int> queues;
    key_t workspace = -1;  // of the object that comes and goes
};

Objects objects;
}  // namespace

bool makeScratch()
{
    std::vector<std::string> refused;
    std::error_code error;
    before = std::filesystem::current_path(error);
    for (int tries = 0; directory.empty() && tries < kTries; ++tries) {
        std::string path = options.directory + "/rm_soak-XXXXXX";
        if (mkdtemp(path.data()) == nullptr) {
            break;
        }
        if (keysInUse(path)) {
            refused.push_back(path);  // kept for now: the next one would get the same numbers
        } else {
            directory = std::filesystem::absolute(path, error).string();
        }
    }
    for (const std::string& path : refused) {
        std::filesystem::remove_all(path, error);
    }
    if (directory.empty() || chdir(directory.c_str()) != 0) {
        std::fprintf(stderr, "rm_soak: no directory in %s: %s\n", options.directory.c_str(),
                     std::strerror(errno));
        return false;
    }
    return true;
}

std::vector<int> openDescriptors()
{
    std::vector<int> open;
    for (int fd = 0; fd < 1024; ++fd) {
        if (fcntl(fd, F_GETFD) != -1) {
            open.push_back(fd);
        }
    }
    return open;
}

void noteBefore()
{
    descriptors = openDescriptors();
}

void noteObjects()
{
    objects.semaphores = os::iSem;
    for (const os::GshmSlot& slot : os::rmGshm) {
        if (slot.name != nullptr) {
            objects.memory.push_back(slot.id);
        }
    }
    for (const os::QueueSlot& slot : os::rmQueue) {
        if (slot.name != nullptr) {
            objects.queues.push_back(slot.id);
        }
    }
    constexpr std::size_t kWorkspaceSlot = 2;
    objects.workspace = os::rmGshm[kWorkspaceSlot].key;
}

void checkNothingLeft()
{
    const auto gone = [](int result) {
        return result == -1 && (errno == EINVAL || errno == EIDRM);
    };
    SOAK_CHECK(gone(semctl(objects.semaphores, 0, GETVAL)), "the semaphores are left");
    for (const int id : objects.memory) {
        shmid_ds status = {};
        SOAK_CHECK(gone(shmctl(id, IPC_STAT, &status)), "shared memory %d is left", id);
    }
    for (const int id : objects.queues) {
        msqid_ds status = {};
        SOAK_CHECK(gone(msgctl(id, IPC_STAT, &status)), "queue %d is left", id);
    }
    SOAK_CHECK(shmget(objects.workspace, 0, 0) == -1, "the object that comes and goes is left");
    for (const char* const name : kTokenFiles) {
        SOAK_CHECK(access(name, F_OK) != 0, "%s is left", name);
    }
    const std::vector<int> open = openDescriptors();
    SOAK_CHECK(open == descriptors, "%zu descriptors are open, and were %zu", open.size(),
               descriptors.size());
    SOAK_CHECK(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD, "a child is left");
    SOAK_CHECK(rm_memused() == 0, "%u bytes of tagged memory are left", rm_memused());
}

void removeScratch()
{
    std::error_code error;
    std::filesystem::current_path(before, error);
    std::filesystem::remove_all(directory, error);
    SOAK_CHECK(!error && !std::filesystem::exists(directory), "%s is left: %s", directory.c_str(),
               error.message().c_str());
}

const std::string& scratch()
{
    return directory;
}

}  // namespace soak
