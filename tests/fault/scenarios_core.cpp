// Service core and processes: the log and its file, counters, start-up, the ends that a host itself
// asks for.
#include "scenario.h"

#include <csetjmp>
#include <cstring>

namespace fault
{

namespace
{

constexpr const char* kOtherLog = "other.log";

// The log's file may be any: that of the host, or one of the scenario.
void writeLog()
{
    const int16_t before = RM(rm_systemLog)(2);
    expect(before == 0 || before == 2, "status", "rm_systemLog gave %d", before);
    writeFile(kOtherLog, "of the previous run\n");
    writeFile("other.bak", "of an older run\n");
    RM(rm_systemLogOpen)(kOtherLog);
    RM(rm_systemLogWrite)("the %s line", "first");
    RM(rm_systemLogOptWrite)("the %s line, %d%%%%", "optional", 100);
    RM(rm_systemLogClose)();
    expect(syslogon == 0 && sysfile == RM_NONE, "effect", "the log is not closed");
    RM(rm_systemLog)(2);
    RM(rm_systemLogOpen)("second");
    RM(rm_systemLogWrite)("the second line");
    RM(rm_systemLogClose)();
}

void verifyLog()
{
    expectWithoutFault(
        !fileExists("second") || sysfile != RM_NONE || fileHas("second", "]  the second line\n"),
        "the second log has no line");
    // Opening keeps what there was once, under the other name; only where that fails it is lost.
    expectWithoutFault(
        !fileHas(kOtherLog, "first line") || fileHolds("other.bak", "of the previous run\n"),
        "the log of the previous run is not kept");
}

void count()
{
    constexpr uint16_t kCounters = 10;
    RM(rm_statInc)(3, 5);
    RM(rm_statInit)(kCounters);
    RM(rm_statInc)(1, 2);
    RM(rm_statInc)(1, 3);
    RM(rm_statInc)(2, 7);
    RM(rm_statClear)(2);
    uint16_t counters = 0;
    const uint32_t* values = RM_POINTER(rm_statRep, (&counters));
    expect(counters == kCounters && values[1] == 5 && values[2] == 0, "effect", "wrong counters");
    RM(rm_statClearAll)();
    expect(values[1] == 0, "effect", "the counters are not cleared");
}

void start()
{
    constexpr uint32_t kMemory = 1000000;
    constexpr int16_t kHandles = 20;
    constexpr double kFree = 1000.0;
    writeFile("corvane.ini", "[server]\nFileCommit=1\n\n");
    RM(rm_setMemoryLimit)(kMemory / 2);
    RM(rm_init)(kMemory, kHandles, kFree);
    expect(rmemavail == kMemory && fileHandleLimit == kHandles && rminfree == kFree, "effect",
           "the limits are not set");
    expect(fileCommit == 1, "effect", "FileCommit is %d", fileCommit);
    const double space = RM(rm_getDiskFreeSpace)(".");
    expect(space >= 0.0 || space == -1.0, "status", "free space of %f", space);
    expectWithoutFault(space >= 0.0, "free space of %f", space);
    RM(rm_setDiskFull)(0);
    expect(RM(rm_getDiskFull)() == 0, "effect", "the disk still counts as full");
    RM(rm_userSave)("somebody", 12);
    char name[15] = "";
    uint16_t session = 0;
    RM(rm_userGet)(name, &session);
    expect(std::strcmp(name, "somebody") == 0 && session == 12, "effect", "the user is lost");
}

void runProcess()
{
    constexpr uint32_t kSleep = 2500;
    static_cast<void>(RM(rm_threadDefaultPriority)(3));
    static_cast<void>(RM_STATUS(rm_foregroundThread, (), 1));
    expect(RM(rm_setForegroundThread)() != 0, "status", "no process is in the foreground");
    static_cast<void>(RM_STATUS(rm_threadBegin, (), 1));
    RM(rm_threadEnd)();
    RM(rm_enterCritSec)(0);
    RM(rm_exitCritSec)(0);
    const int64_t before = elapsedMs();
    const uint32_t left = RM(rm_sleep)(kSleep);
    expect(left != 0 || elapsedMs() - before >= kSleep, "effect", "the sleep was too short");
    static_cast<void>(RM_POINTER_OR_NULL(rm_OSgetenv, ("PATH")));
    RM(rm_setOSHandleLimit)();
    RM(rm_setOSTerm)(1);
    expect(RM(rm_getOSTerm)() == 1, "effect", "the state is lost");
    RM(rm_setOSTerm)(0);
    void* segment = RM_POINTER_OR_NULL(rm_getSeg, (10000));
    if (segment != nullptr) {
        std::memset(segment, 1, 10000);
    }
    RM(rm_freeSeg)(segment);
}

// Something of each kind is there when the end comes.
void fill()
{
    void* address = nullptr;
    RM(rm_syncCreate)("one");
    RM(rm_gshmCreate)("memory", 100, &address);
    RM(rm_queueCreate)("queue");
    static_cast<void>(RM(rm_getMemory)(100, 0));
    RM(rm_fileOpen)("left", RM_O_RDWR | RM_O_CREAT, 0, 0, 0);
}

void endBySystemCall()
{
    fill();
    RM(internalErrorExit)("host", "host's own failure", 5);
}

void endByCondition()
{
    fill();
    RM(fatalRMExit)("a problem of the host");
}

void endByError()
{
    fill();
    RM(rm_systemLogWrite)("the host gives up");
    RM(rm_errorExit)();
}

void endInOrder()
{
    fill();
    RM(rm_exit)(7);
}

constexpr Scenario kScenarios[] = {
    {"log", writeLog, verifyLog, Hosts::kSome, false},
    {"counters", count, nullptr, Hosts::kFew, false},
    {"start", start, nullptr, Hosts::kSome, false},
    {"process", runProcess, nullptr, Hosts::kFew, false},
    {"end-by-system-call", endBySystemCall, nullptr, Hosts::kAll, true},
    {"end-by-condition", endByCondition, nullptr, Hosts::kFew, true},
    {"end-by-error", endByError, nullptr, Hosts::kFew, true},
    {"end-in-order", endInOrder, nullptr, Hosts::kAll, true},
};

}  // namespace

std::span<const Scenario> coreScenarios()
{
    return kScenarios;
}

}  // namespace fault
