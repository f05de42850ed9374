// Who lives, and who has something of the library's open.
//
// Why: an object remembers the number of the process that used it last, and nothing of those that
// only wait or have not come to it yet. But a process keeps the token files of its objects open,
// and its segments are among its mappings: that tells of all that may be looked at.
#include "process.h"

#include "common/text.h"
#include "procfs.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rmipc
{
namespace
{
constexpr std::string_view kDeleted = " (deleted)";

std::string folderOf(pid_t pid)
{
    return "/proc/" + std::to_string(pid);
}

// When the system was started, in seconds since 1970 by today's clock; 0 when that is not known.
int64_t startOfSystem()
{
    timespec wall = {};
    timespec running = {};
    if (clock_gettime(CLOCK_REALTIME, &wall) != 0 || clock_gettime(CLOCK_BOOTTIME, &running) != 0) {
        return 0;
    }
    return wall.tv_sec - running.tv_sec;
}

Person lookNow(pid_t pid)
{
    Person person;
    person.pid = pid;
    if (pid <= 0) {
        return person;
    }
    const bool there = kill(pid, 0) == 0 || errno != ESRCH;
    person.life = there ? Life::kLives : Life::kGone;
    if (!there) {
        return person;
    }
    const auto text = readWhole(folderOf(pid) + "/stat");
    const auto stat = text ? parseStat(*text) : std::nullopt;
    if (!stat) {
        return person;
    }
    // One that nobody has waited for has ended all the same. With threads left it has not.
    if (stat->state == 'Z' && stat->threads <= 1) {
        person.life = Life::kGone;
        return person;
    }
    person.name = tools::printable(stat->name);
    const int64_t booted = startOfSystem();
    const long ticks = sysconf(_SC_CLK_TCK);
    if (booted > 0 && ticks > 0) {
        person.started = booted + static_cast<int64_t>(stat->start / static_cast<uint64_t>(ticks));
    }
    return person;
}

// The family whose token file has this path; kFamilies for none.
std::size_t familyOf(std::string_view path)
{
    if (path.ends_with(kDeleted)) {
        path.remove_suffix(kDeleted.size());
    }
    const auto* found = std::ranges::find_if(
        kTokenFiles, [path](std::string_view name) { return path.ends_with(name); });
    return static_cast<std::size_t>(found - kTokenFiles.begin());
}

// False when the process may not be looked at.
bool scanFiles(pid_t pid, Scan& scan)
{
    DIR* folder = opendir((folderOf(pid) + "/fd").c_str());
    if (folder == nullptr) {
        return errno == ENOENT || errno == ESRCH;  // it has ended since
    }
    while (const dirent* entry = readdir(folder)) {
        char target[4096];
        const ssize_t length = readlinkat(dirfd(folder), entry->d_name, target, sizeof(target));
        if (length <= 0) {
            continue;
        }
        const std::string_view path(target, static_cast<std::size_t>(length));
        const std::size_t family = familyOf(path);
        struct stat status = {};
        if (family < kFamilies && fstatat(dirfd(folder), entry->d_name, &status, 0) == 0) {
            scan.holders.push_back(
                {pid, kEachFamily[family], status.st_dev, status.st_ino, std::string(path)});
        }
    }
    closedir(folder);
    return true;
}

void scanMappings(pid_t pid, Scan& scan)
{
    const auto text = readWhole(folderOf(pid) + "/maps");
    if (!text || text->find("/SYSV") == std::string::npos) {
        return;
    }
    std::string_view rest = *text;
    while (!rest.empty()) {
        const std::size_t length = std::min(rest.find('\n'), rest.size());
        if (const auto mapping = parseMapping(rest.substr(0, length))) {
            scan.attachments.push_back({pid, mapping->id, mapping->key});
        }
        rest.remove_prefix(std::min(length + 1, rest.size()));
    }
}

// Numbers of objects mean something only among processes that share them.
bool sharesObjects(pid_t pid)
{
    struct stat ours = {};
    struct stat theirs = {};
    if (stat("/proc/self/ns/ipc", &ours) != 0 ||
        stat((folderOf(pid) + "/ns/ipc").c_str(), &theirs) != 0) {
        return true;  // it cannot be told; seen too much is on the safe side
    }
    return ours.st_ino == theirs.st_ino && ours.st_dev == theirs.st_dev;
}
}  // namespace

const Person& People::look(pid_t pid)
{
    const auto found = known_.find(pid);
    return found != known_.end() ? found->second : known_.emplace(pid, lookNow(pid)).first->second;
}

std::string nameOf(const Person& person)
{
    if (person.life == Life::kNobody) {
        return "-";
    }
    if (person.life == Life::kGone) {
        return std::to_string(person.pid) + " (gone)";
    }
    return std::to_string(person.pid) + (person.name.empty() ? "" : " " + person.name);
}

std::string namesOf(const std::vector<pid_t>& pids, People& people)
{
    constexpr std::size_t kMost = 4;
    std::string text;
    for (std::size_t i = 0; i < std::min(pids.size(), kMost); ++i) {
        text += (i == 0 ? "" : ", ") + nameOf(people.look(pids[i]));
    }
    return pids.size() > kMost ? text + " and " + tools::grouped(pids.size() - kMost) + " more"
                               : text;
}

Scan scanProcesses()
{
    Scan scan;
    struct stat first = {};
    scan.hidden = stat("/proc/1", &first) != 0 && (kill(1, 0) == 0 || errno != ESRCH);
    DIR* folder = opendir("/proc");
    if (folder == nullptr) {
        scan.hidden = true;
        return scan;
    }
    while (const dirent* entry = readdir(folder)) {
        const auto pid = numberOf<pid_t>(entry->d_name);
        if (!pid || *pid == getpid() || !sharesObjects(*pid)) {
            continue;
        }
        if (scanFiles(*pid, scan)) {
            scanMappings(*pid, scan);
        } else {
            ++scan.unseen;
        }
    }
    closedir(folder);
    return scan;
}

}  // namespace rmipc
