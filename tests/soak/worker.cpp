// The life of a worker: step after step, until it is killed or asked to end.
//
// Why: whoever wants to make a finding again needs to know what the worker did. The choices of a
// step follow from the seed, the worker, its life and the number of the step alone, so that they
// are the same whatever the others have done meanwhile.
//
// Owns: the worker's standard output and error, which go into a file. What a step writes there
// without being meant to is a finding: the library says there what it has found wrong.
//
// Lifecycle: forked by the parent, which has made all objects; ends with _exit, and with the parent
// if that should die.
//
// Fatal: every fatal error is a finding, but for those that the error frames make themselves. They
// have a target of their own.
#include "soak.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmalloc/rmalloc.h"
#include "rm/rmutil/rmutil.h"
#include "rm/unix/unix.h"

#include <algorithm>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace soak
{
namespace
{
constexpr uint32_t kTimeoutMs = 1000;
constexpr uint32_t kMostTimeouts = 25;   // after so many a lock will not be freed any more
constexpr off_t kMostLog = 1 << 20;      // bytes; then the file of the worker's output begins anew
constexpr uint32_t kLookEvery = 1000;    // steps
constexpr uint32_t kMostKept = 65'536;   // bytes of tagged memory that a life may leave
constexpr uint32_t kKeptByUnload = 256;  // bytes

jmp_buf fatalPoint;
off_t logSeen = 0;  // bytes of the output that have been looked at
int16_t anchor = RM_NONE;
std::vector<int> descriptors;  // at the beginning
uint32_t taggedBefore = 0;     // bytes, likewise
uint32_t weights = 0;          // of all families

off_t logSize()
{
    struct stat status = {};
    return fstat(STDERR_FILENO, &status) == 0 ? status.st_size : 0;
}

void redirectOutput()
{
    const std::string path = "w" + std::to_string(me) + ".err";
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_TRUNC | O_CLOEXEC, 0600);
    if (fd == -1 || dup2(fd, STDERR_FILENO) == -1 || dup2(fd, STDOUT_FILENO) == -1) {
        found("the output cannot be redirected: errno %d", errno);
    }
    close(fd);
    logSeen = 0;
}

void watchLog(const Family& family)
{
    std::fflush(stdout);
    const off_t size = logSize();
    if (size != logSeen && !family.logs) {
        found("the log has more than it should: %.600s", newLog().c_str());
    }
    logSeen = size;
    if (size > kMostLog && ftruncate(STDERR_FILENO, 0) == 0) {
        logSeen = 0;
    }
}

// The checkers of the library, and those of the families.
void runCheckers()
{
    const uint32_t wrong = rmalloc::checkMemory() + file::checkFtab() + os::checkSync() +
                           os::checkGshm() + os::checkQueues() + rmutil::checkLocalEnv();
    SOAK_CHECK(wrong == 0, "a checker of the library: %.600s", newLog().c_str());
    for (const Family* const family : families()) {
        if (family->check != nullptr) {
            family->check();
        }
    }
}

void lookAtMyself()
{
    uint32_t open = 0;
    uint32_t parked = 0;
    WorkerBoard& worker = mine();
    rm_fileCounts(&open, &parked, &worker.parkings, &worker.reopens);
    SOAK_CHECK(open <= kDescriptors, "%u managed files are open, the limit is %u", open,
               kDescriptors);
    SOAK_CHECK(parked + open >= 3, "%u managed files have gone", 3 - parked - open);
    worker.tagged = rm_memused();
    worker.residentKb = static_cast<uint32_t>(residentKb());
}

uint64_t seedOf(const WorkerBoard& worker)
{
    Random mix(options.seed);
    mix = Random(mix.next() + me);
    mix = Random(mix.next() + worker.life);
    return mix.next() + worker.step * 0xD1342543DE82EF95U;
}

uint32_t chooseFamily()
{
    uint32_t left = plan.below(weights);
    uint32_t index = 0;
    while (left >= families()[index]->weight) {
        left -= families()[index]->weight;
        ++index;
    }
    return index;
}

void work()
{
    WorkerBoard& worker = mine();
    while (board->stop == 0) {
        ++worker.step;
        plan = Random(seedOf(worker));
        worker.family = chooseFamily();
        const Family& family = *families()[worker.family];
        family.step();
        ++worker.operations[worker.family];
        watchLog(family);
        if (worker.step % options.checkEvery == 0) {
            runCheckers();
        }
        if (worker.step % kLookEvery == 0) {
            lookAtMyself();
        }
    }
}

void start()
{
    descriptors = openDescriptors();
    taggedBefore = rm_memused();
    rm_systemLog(1);
    rm_statClearAll();
    // A copy takes the handle 0 for a failure: something else has it for as long as we live.
    anchor = rm_fileOpen(own("anchor").c_str(), RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
    SOAK_CHECK(anchor == 0, "the first handle is %d", anchor);
    weights = 0;
    for (uint32_t i = 0; i < families().size(); ++i) {
        mine().family = i;
        weights += families()[i]->weight;
        families()[i]->start();
        watchLog(*families()[i]);
    }
}

void end()
{
    runCheckers();
    lookAtMyself();
    for (uint32_t i = 0; i < families().size(); ++i) {
        mine().family = i;
        if (families()[i]->end != nullptr) {
            families()[i]->end();
        }
    }
    mine().family = kMostFamilies;
    rm_fileClose(anchor);
    uint32_t open = 0;
    uint32_t parked = 0;
    rm_fileCounts(&open, &parked, nullptr, nullptr);
    SOAK_CHECK(open == 0 && parked == strandedFiles(), "%u files are open and %u parked at the end",
               open, parked);
    const std::vector<int> left = openDescriptors();
    SOAK_CHECK(left == descriptors, "%zu descriptors are open at the end, and were %zu",
               left.size(), descriptors.size());
    // What the library keeps in tag 0 stays: counters, registry, tables that have grown.
    const uint32_t most = taggedBefore + kMostKept + modulesUnloaded() * kKeptByUnload;
    SOAK_CHECK(rm_memused() <= most, "%u bytes of tagged memory at the end, %u at the beginning",
               rm_memused(), taggedBefore);
    SOAK_CHECK(rmalloc::checkMemory() == 0, "the memory at the end: %.600s", newLog().c_str());
}

void standOnOwnFeet(pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(kEndedWell);  // it has died before
    }
    signal(SIGINT, SIG_IGN);  // the parent gets it too, and asks us
    signal(SIGTERM, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}
}  // namespace

std::string newLog()
{
    constexpr std::size_t kStamp = 22;  // "[07-Mar-96 14:05:09]  "
    std::fflush(stdout);
    const off_t size = logSize();
    std::string text(static_cast<std::size_t>(size - logSeen), ' ');
    const ssize_t count = pread(STDERR_FILENO, text.data(), text.size(), logSeen);
    text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    logSeen = size;
    std::string lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t stop = std::min(text.find('\n', at), text.size());
        const std::string_view line = std::string_view(text).substr(at, stop - at);
        const bool stamped = line.size() >= kStamp && line[0] == '[' && line[kStamp - 3] == ']';
        (lines += line.substr(stamped ? kStamp : 0)) += '\n';
        at = stop + 1;
    }
    return lines;
}

bool enter(uint32_t lock)
{
    uint32_t timeouts = 0;
    const uint32_t timeout = plan.once(8) ? RM_WAIT_FOREVER : kTimeoutMs;
    while (rm_syncEnterExcl(locks[lock], timeout) == RM_TIMEOUT) {
        if (board->stop != 0) {
            return false;
        }
        SOAK_CHECK(++timeouts < kMostTimeouts, "lock %u was not free within %u s; inside: %u", lock,
                   timeouts, board->inside[lock].load());
    }
    const uint32_t other = board->inside[lock].exchange(me + 1);
    SOAK_CHECK(other == 0, "lock %u lets two in, us and worker %u", lock, other - 1);
    dawdle();
    return true;
}

void leave(uint32_t lock)
{
    const uint32_t other = board->inside[lock].exchange(0);
    SOAK_CHECK(other == me + 1, "inside lock %u was somebody else, %u", lock, other);
    rm_syncExitExcl(locks[lock]);
}

void dawdle()
{
    if (plan.once(60)) {
        usleep(50 + plan.below(1500));
    }
}

void runWorker(uint32_t index)
{
    const pid_t parent = getppid();
    me = index;
    standOnOwnFeet(parent);
    redirectOutput();
    WorkerBoard& worker = mine();
    worker.step = 0;
    worker.endedWell = 0;
    worker.changing.store(0);
    worker.parkingsBefore += worker.parkings;
    worker.reopensBefore += worker.reopens;
    worker.parkings = worker.reopens = 0;
    ++worker.life;
    plan = Random(seedOf(worker));
    if (setjmp(fatalPoint) != 0) {
        found("a fatal error: %.700s", newLog().c_str());
    }
    rm_errorJump(fatalPoint);
    start();
    work();
    end();
    worker.endedWell = 1;
    std::fflush(stdout);
    _exit(kEndedWell);
}

}  // namespace soak
