// What the tests of the complete teardown share: a process that has one of everything, hosts with
// and without targets, and a record of what is taken down, in its order, made by the process itself
// as it ends and read by its parent.
#ifndef RM_TESTS_RMSRV_TEARDOWN_CASE_H
#define RM_TESTS_RMSRV_TEARDOWN_CASE_H

#include "frame.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <ostream>
#include <sstream>

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>

namespace teardown
{

using rmtest::Call;
using rmtest::CallRecord;
using rmtest::captureStderr;
using rmtest::catchExit;
using rmtest::catchFatal;
using rmtest::ChildResult;
using rmtest::fileLines;
using rmtest::ipcObjects;
using rmtest::kForever;
using rmtest::logLines;
using rmtest::openLog;
using rmtest::runChild;
using rmtest::ScopedFault;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

using Steps = std::vector<std::string>;

constexpr const char* kSegmentToken = ".ZNT.RM.MEM";
constexpr const char* kQueueToken = ".ZNT.RM.QUEUE";
constexpr const char* kSetToken = ".ZNT.RM.SEM";
constexpr int kLanded = 60;       // exit status of a host whose exit target was reached
constexpr int kShutdownCode = 3;  // with which a host's shutdown processing exits

// The end of a process that has everything, each step with the state of termination during it.
inline const Steps kWhole = {
    "log file closed",
    "segment 0 removed",
    "segment 1 removed",
    "token of the segments closed",
    "token of the segments removed",
    "queue 0 removed",
    "queue 1 removed",
    "token of the queues closed",
    "token of the queues removed",
    "set removed",
    "token of the set closed",
    "token of the set removed",
    "memory freed",
};

inline Steps without(Steps steps, const std::vector<std::string>& gone)
{
    std::erase_if(steps, [&gone](const std::string& step) {
        return std::find(gone.begin(), gone.end(), step) != gone.end();
    });
    return steps;
}

// --- A process that has everything

// An object that a failed step leaves outlives its token file, whose inode, and with it the key,
// the next file would get: that of a case which runs beside. So each token file has a second name
// for as long as the case runs, and is the same file, with keys that nobody uses, every time it is
// made.
inline void keepKeys()
{
    for (const char* token : {kSegmentToken, kQueueToken, kSetToken}) {
        const std::string kept = std::string("kept") + token;
        const auto isTaken = [&kept] {
            rmtest::writeFile(kept, "");
            bool taken = false;
            for (int project = 1; project <= os::kGshmSlots; ++project) {
                taken = taken || rmtest::ipcKeyInUse(ftok(kept.c_str(), project));
            }
            return taken;
        };
        for (int tries = 0; isTaken(); ++tries) {
            std::filesystem::rename(kept, std::to_string(tries) + ".taken" + token);
        }
    }
}

inline void linkTokens()
{
    for (const char* token : {kSegmentToken, kQueueToken, kSetToken}) {
        const std::string kept = std::string("kept") + token;
        if (std::filesystem::exists(kept) && !std::filesystem::exists(token)) {
            std::filesystem::create_hard_link(kept, token);
        }
    }
}

// Two segments, two queues, the locks of the file layer and one of the host's, memory of two tags.
inline void makeEverything()
{
    static void* address = nullptr;
    if (*os::tokName == '\0') {
        linkTokens();
    }
    rm_init(0, 20, 0);
    ASSERT_EQ(rm_gshmCreate("segment", 100, &address), 0);
    ASSERT_EQ(rm_gshmCreate("segment", 5000, &address), 1);
    ASSERT_EQ(rm_queueCreate("queue"), 0);
    ASSERT_EQ(rm_queueCreate("queue"), 1);
    ASSERT_GE(rm_syncCreate("lock"), 0);
    ASSERT_EQ(rm_queueWrite(1, "unread", 6, 1), RM_SUCCESS);
    ASSERT_NE(rm_getMemory(10'000, 0), nullptr);
    ASSERT_NE(rm_getMemory(10'000, rm_allocTag(nullptr, RM_NO_LIMIT)), nullptr);
}

// --- The record

struct Record {
    Steps steps;
    std::vector<int16_t> states;  // of termination, one a step
    const void* logStream = nullptr;
    const void* segmentStream = nullptr;
    const void* queueStream = nullptr;
    const void* setStream = nullptr;
    const void* tagTable = nullptr;
    std::array<int, 2> segments = {};
    std::array<int, 2> queues = {};
    std::deque<ScopedFault> watches;
};

inline Record& record()
{
    static Record theOne;
    return theOne;
}

inline std::string closedStream(const void* stream)
{
    const Record& known = record();
    if (stream == known.logStream) {
        return "log file closed";
    }
    if (stream == known.segmentStream) {
        return "token of the segments closed";
    }
    if (stream == known.queueStream) {
        return "token of the queues closed";
    }
    return stream == known.setStream ? "token of the set closed" : "";
}

inline std::string removedFile(std::string_view path)
{
    if (path == kSegmentToken) {
        return "token of the segments removed";
    }
    if (path == kQueueToken) {
        return "token of the queues removed";
    }
    return path == kSetToken ? "token of the set removed" : "";
}

inline std::string removedObject(const char* kind, const std::array<int, 2>& ids, int64_t id)
{
    const auto* const at = std::find(ids.begin(), ids.end(), static_cast<int>(id));
    return std::string(kind) + " " + std::to_string(at - ids.begin()) + " removed";
}

// Names a call when it is a step of the teardown.
inline std::string stepOf(const CallRecord& call)
{
    switch (call.call) {
        case Call::kFclose:
            return closedStream(call.pointer<void>(0));
        case Call::kUnlink:
            return removedFile(call.path());
        case Call::kShmctl:
            return call.args[1] == IPC_RMID
                       ? removedObject("segment", record().segments, call.args[0])
                       : "";
        case Call::kMsgctl:
            return call.args[1] == IPC_RMID ? removedObject("queue", record().queues, call.args[0])
                                            : "";
        case Call::kSemctl:
            return call.args[2] == IPC_RMID ? "set removed" : "";
        case Call::kFree:
            return call.pointer<void>(0) == record().tagTable ? "memory freed" : "";
        default:
            return "";
    }
}

// From here on the steps are noted, whether they succeed or not.
inline void startRecord()
{
    Record& known = record();
    known.logStream = &known;  // that of nobody
    if (sysfile != RM_NONE) {
        known.logStream = file::ftab[sysfile]->stream;
    }
    known.segmentStream = os::gfpRMGshmTokenFile;
    known.queueStream = os::gfpRMQueueTokenFile;
    known.setStream = os::gfpRMSemTokenFile;
    known.tagTable = rmalloc::tagTable;
    known.segments = {os::rmGshm[0].id, os::rmGshm[1].id};
    known.queues = {os::rmQueue[0].id, os::rmQueue[1].id};
    for (const Call call :
         {Call::kFclose, Call::kUnlink, Call::kShmctl, Call::kMsgctl, Call::kSemctl, Call::kFree}) {
        known.watches.emplace_back(rmtest::Fault{.call = call, .when = [](const CallRecord& made) {
                                                     const std::string step = stepOf(made);
                                                     if (!step.empty()) {
                                                         record().steps.push_back(step);
                                                         record().states.push_back(rm_getOSTerm());
                                                     }
                                                     return false;
                                                 }});
    }
}

// The record as text, a step a line, between the child's other output.
inline void printRecord()
{
    rmtest::disarmFaults();
    std::printf("memory left: %u\n", rm_memused());
    for (std::size_t i = 0; i < record().steps.size(); ++i) {
        std::printf("step %d %s\n", record().states[i], record().steps[i].c_str());
    }
    std::fflush(stdout);
}

// --- Hosts

struct Host {
    bool log = true;
    bool fatalTarget = false;
    bool exitTarget = false;
};

// The host's frame: registers its targets and does `act`. Its shutdown processing, which every
// fatal error leads to, says so and exits; at the exit target the process ends by itself.
inline void runHost(Host host, void (*act)())
{
    static jmp_buf fatalTarget;
    static jmp_buf exitTarget;
    static int arrivals = 0;
    if (host.exitTarget) {
        const int code = setjmp(exitTarget);
        if (code != 0) {
            std::printf("exit target: %d\n", code);
            printRecord();
            _exit(kLanded);
        }
        rm_exitJump(exitTarget);
    }
    if (host.fatalTarget) {
        if (setjmp(fatalTarget) != 0) {
            if (++arrivals > rmtest::kHostReturns) {
                _exit(rmtest::kHostGivesUp);
            }
            rm_systemLogWrite("shutting down, %d", arrivals);
            rm_exit(kShutdownCode);
        }
        rm_errorJump(fatalTarget);
    }
    act();
}

// What a parent sees of the end.
struct End {
    ChildResult child;
    Steps steps;
    std::vector<int> states;
    std::vector<std::string> lines;     // of the log, as standard error got them
    std::vector<std::string> failures;  // lines of failed system calls on standard output
    int exitValue = -1;                 // that the exit target got
    long memoryLeft = -1;
};

inline End endOf(const ChildResult& child)
{
    End end;
    end.child = child;
    end.lines = logLines(child.err);
    std::istringstream out(child.out);
    for (std::string line; std::getline(out, line);) {
        std::istringstream words(line);
        std::string first;
        words >> first;
        if (first == "step") {
            words >> end.states.emplace_back();
            std::getline(words >> std::ws, end.steps.emplace_back());
        } else if (first == "exit") {
            words >> first >> end.exitValue;
        } else if (first == "memory") {
            words >> first >> end.memoryLeft;
        } else if (first == "****") {
            end.failures.push_back(line);
        }
    }
    return end;
}

// A process that has everything does `act` in its host's frame; `prepare` runs before the record
// begins.
inline End endOfHost(
    Host host, void (*act)(), const std::function<void()>& prepare = [] {})
{
    return endOf(runChild([&] {
        makeEverything();
        if (host.log) {
            openLog();
        }
        startRecord();
        prepare();
        std::atexit(printRecord);
        runHost(host, act);
    }));
}

inline std::string nameOf(const Host& host)
{
    return std::string(host.log ? "Log" : "NoLog") + (host.fatalTarget ? "FatalTarget" : "") +
           (host.exitTarget ? "ExitTarget" : "");
}

inline void PrintTo(const Host& host, std::ostream* out)
{
    *out << nameOf(host);
}

inline std::vector<Host> allHosts()
{
    std::vector<Host> hosts;
    for (const bool log : {true, false}) {
        for (const bool fatalTarget : {false, true}) {
            for (const bool exitTarget : {false, true}) {
                hosts.push_back({log, fatalTarget, exitTarget});
            }
        }
    }
    return hosts;
}

// The process has ended, and without having waited for anybody: the wait for a lock takes fourteen
// seconds.
inline void expectEndSoon(const ChildResult& child, int status)
{
    constexpr double kSoon = 10.0;
    rmtest::expectEnd(child, status);
    EXPECT_LT(child.seconds, kSoon);
}

// --- What is left

inline int objectsLeft(char kind)
{
    const auto objects = ipcObjects();
    return static_cast<int>(
        std::count_if(objects.begin(), objects.end(),
                      [kind](const rmtest::IpcObject& object) { return object.kind == kind; }));
}

inline std::vector<std::string> tokensLeft()
{
    std::vector<std::string> left;
    for (const char* token : {kSegmentToken, kQueueToken, kSetToken}) {
        if (std::filesystem::exists(token)) {
            left.emplace_back(token);
        }
    }
    return left;
}

inline void expectNothingLeft()
{
    EXPECT_THAT(tokensLeft(), IsEmpty());
    EXPECT_EQ(objectsLeft('m'), 0);
    EXPECT_EQ(objectsLeft('q'), 0);
    EXPECT_EQ(objectsLeft('s'), 0);
}

inline void removeEverythingLeft()
{
    rmtest::removeLeftovers();
    std::filesystem::remove(kSegmentToken);
    std::filesystem::remove(kQueueToken);
}

// Cases whose library lives in children: this process makes nothing.
class TeardownTest : public rmtest::RmTest
{
  protected:
    void SetUp() override
    {
        RmTest::SetUp();
        keepKeys();
    }
};

}  // namespace teardown

#endif
