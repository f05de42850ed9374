// The service core: log, statistics, and the frames that a fatal error leaves.
//
// Why: a server lives on after a line that could not be written, a counter that wrapped, and a task
// that ended fatally. After each fatal error made here the locks must be free, the files usable,
// and the memory of the task there to be given back.
#include "soak.h"

#include "rm.h"
#include "rm/file/file.h"
#include "rm/rmsrv/rmsrv.h"

#include <csetjmp>
#include <cstdio>
#include <cstring>

namespace soak
{
namespace
{
void startNothing() {}

// --- The log

std::string withoutStamps(const std::string& text)
{
    constexpr std::size_t kStamp = 22;
    std::string lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t stop = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, stop - at);
        (lines += line.size() >= kStamp ? line.substr(kStamp) : "?") += '\n';
        at = stop + 1;
    }
    return lines;
}

// A log file of our own, for a few lines; the one before it becomes the backup.
void stepLog()
{
    const std::string path = own("soak.log");
    const std::string backup = own("soak.bak");
    const std::string before = slurp(path);
    rm_systemLog(2);
    rm_systemLogOpen(path.c_str());
    SOAK_CHECK(sysfile > 0, "the log file has the handle %d", sysfile);
    std::string expected;
    for (uint32_t i = 0, lines = 1 + plan.below(6); i < lines; ++i) {
        const std::string text = plan.text(plan.below(plan.once(8) ? 400 : 80));
        const bool optional = plan.once(2);
        const std::string line = std::to_string(i) + " " + text;
        if (optional) {
            rm_systemLogOptWrite("%u %s", i, text.c_str());
        } else {
            rm_systemLogWrite("%u %s", i, text.c_str());
        }
        expected += line.substr(0, 259) + "\n";
    }
    rm_systemLogClose();
    SOAK_CHECK(syslogon == 0 && sysfile == RM_NONE, "the log is not closed");
    rm_systemLogOptWrite("nobody reads this");
    SOAK_CHECK(newLog() == expected, "standard error has other lines");
    SOAK_CHECK(withoutStamps(slurp(path)) == expected, "the log file has other lines");
    SOAK_CHECK(slurp(backup) == before, "the backup is not the log before");
    rm_systemLog(1);
}

// Out of the way of the next life, and of the end.
void endLog()
{
    rm_fileRemove(own("soak.log").c_str());
    rm_fileRemove(own("soak.bak").c_str());
}

// --- Statistics

std::vector<uint32_t> counters;

void startStatistics()
{
    counters.assign(1 + plan.below(80), 0);
    rm_statInit(static_cast<uint16_t>(counters.size()));
}

void stepStatistics()
{
    const uint32_t index = plan.below(static_cast<uint32_t>(counters.size()) + 3);
    const auto handle = static_cast<int16_t>(static_cast<int>(index) - 1);  // some are outside
    const bool inside = handle >= 0 && static_cast<std::size_t>(handle) < counters.size();
    switch (plan.below(20)) {
        case 0:
            rm_statClear(handle);
            if (inside) {
                counters[static_cast<std::size_t>(handle)] = 0;
            }
            break;
        case 1:
            if (plan.once(10)) {
                rm_statClearAll();
                counters.assign(counters.size(), 0);
            } else if (plan.once(10)) {
                startStatistics();
            }
            break;
        case 2: {
            uint16_t count = 0;
            const uint32_t* const table = rm_statRep(&count);
            SOAK_CHECK(
                count == counters.size() && std::memcmp(table, counters.data(), 4U * count) == 0,
                "the counters are others");
            break;
        }
        default: {
            const auto amount = static_cast<uint16_t>(plan.below(65'536));
            rm_statInc(handle, amount);
            if (inside) {
                counters[static_cast<std::size_t>(handle)] += amount;
            }
        }
    }
}

// --- Fatal errors on purpose
//
// No object with a destructor lives in these frames: they are left by a jump.

jmp_buf target;
volatile int16_t task;
char path[64];
uint32_t stranded = 0;
constexpr uint32_t kMostStranded = 20;

void fatalByCondition()
{
    fatalRMExit("the soak wanted it");
}

void fatalBySystemCall()
{
    internalErrorExit("soak", "wanted failure", 0);
}

void fatalByHandle()
{
    rm_syncEnterExcl(19, 1);  // nobody has made it
}

// The slot that the file was to get stays in use, parked, and nobody has its number: not too many.
void fatalByFile()
{
    if (stranded == kMostStranded) {
        fatalByCondition();
    }
    ++stranded;
    rm_fileOpen("missing/file", RM_O_RDWR, FILE_FATAL, 0, 0);
}

void fatalByTag()
{
    rm_getMemory(10, 32'000);
}

void fatalByTooMuch()
{
    rm_getMemory(UINT32_MAX, task);
}

// Under the lock of the file table, which has to be given back.
void fatalInTable()
{
    file::enterFileSem("the soak waited");
    fatalRMExit("the soak wanted it inside");
}

using Frame = void (*)();
constexpr Frame kFrames[] = {fatalByCondition, fatalBySystemCall, fatalByHandle, fatalByFile,
                             fatalByTag,       fatalByTooMuch,    fatalInTable};

// 1 when the frame was left by the jump.
int leaveByJump(Frame frame)
{
    if (setjmp(target) != 0) {
        return 1;
    }
    rm_errorJump(target);
    task = rm_allocTag(nullptr, RM_NO_LIMIT);
    rm_cGetMemory(5000, task);  // nobody knows its address afterwards
    frame();
    return 0;
}

void userAndTerm()
{
    char name[15];
    uint16_t session = 0;
    const std::string user = plan.text(plan.below(20));
    rm_userSave(user.c_str(), static_cast<uint16_t>(user.size()));
    rm_userGet(name, &session);
    SOAK_CHECK(user.substr(0, 14) == name && session == user.size(), "the user is \"%s\"", name);
    SOAK_CHECK(rm_foregroundThread() == 0, "a worker is the foreground");
    SOAK_CHECK(rm_threadBegin() == 1 && rm_threadDefaultPriority(3) == 0, "threads");
    rm_enterCritSec(0);
    rm_exitCritSec(0);
    SOAK_CHECK(rm_getDiskFull() == 0 && rm_getDiskFreeSpace(".") >= 0, "the disk counts as full");
    SOAK_CHECK(rm_sleep(0) == 0, "a sleep of no time");
}

void stepFrames()
{
    if (plan.once(2)) {
        userAndTerm();
        return;
    }
    static jmp_buf outer;
    std::memcpy(&outer, &rmsrv::error_jmp_buf, sizeof outer);
    const uint32_t which = plan.below(sizeof kFrames / sizeof *kFrames);
    const int arrived = leaveByJump(kFrames[which]);
    std::memcpy(&rmsrv::error_jmp_buf, &outer, sizeof outer);
    SOAK_CHECK(arrived == 1, "fatal error %u does not arrive", which);
    SOAK_CHECK(rmanTerm == 2, "the state is %d", rmanTerm);
    const std::string log = newLog();
    SOAK_CHECK(log.find("Exiting to shutdown processing") != std::string::npos,
               "fatal error %u says: %.500s", which, log.c_str());
    rm_freeTagMemory(task, 1);
    SOAK_CHECK(file::checkFtab() == 0, "the file table after fatal error %u: %.400s", which,
               newLog().c_str());
    // The locks of the files are free.
    std::snprintf(path, sizeof path, "w%u/frame", me);
    const int16_t handle = rm_fileOpen(path, RM_O_RDWR | RM_O_CREAT, 0, 0, 100);
    SOAK_CHECK(handle > 0 && rm_fileSeekWrite(handle, 0, path, 10) == 10,
               "no file after fatal error %u", which);
    rm_fileClose(handle);
    SOAK_CHECK(rm_fileRemove(path) == 0, "%s is not removed", path);
}
}  // namespace

uint32_t strandedFiles()
{
    return stranded;
}

const Family kLog = {"log", 20, startNothing, stepLog, nullptr, endLog, true};
const Family kStatistics = {"statistics", 60,   startStatistics, stepStatistics, nullptr,
                            nullptr,      false};
const Family kErrorFrames = {"error frames", 8, startNothing, stepFrames, nullptr, nullptr, true};

}  // namespace soak
