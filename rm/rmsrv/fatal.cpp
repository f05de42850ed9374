// The fatal path: where every failure that cannot be mended ends.
//
// Why: a server process that has lost a lock, a semaphore set or its memory cannot go on with the
// call it is in, and its callers could not do better. So such a failure is never returned: it is
// logged, and control goes back to the point that the host registered, or the process ends.
//
// Owns: the host's two jump targets, the one-shot flags, the saved user.
//
// Invariant: each one-shot flag is cleared just before its step, so the step runs at most once in
// the life of the process. That is what makes the path end: a step that fails comes back in here,
// finds itself done, and the next one is tried.
//
// Lifecycle: targets are registered for good; a later registration replaces the buffer.
//
// Locks: only those of the log file's lines and of its closing. What the abandoned frames held is
// given back by unwindTo.
#include "rm/file/file.h"
#include "rm/rmsrv/rmsrv.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace rmsrv
{
jmp_buf error_jmp_buf;
int32_t error_jmpset = 0;
jmp_buf exit_jmp_buf;
int32_t exit_jmpset = 0;
char szUserName_save[15] = "";
uint16_t hSess_save = 0;
}  // namespace rmsrv

using namespace rmsrv;

namespace
{
constexpr int16_t kTermUnwinding = 2;  // a worker's fatal error unwinds
constexpr int16_t kTermExiting = 3;    // rm_exit runs
constexpr int kFatalJumpValue = 1;

constexpr std::size_t kBannerWidth = 35;
constexpr std::array<std::string_view, 7> kBanner = {
    "***********************************", "* Please report this condition to *",
    "* Virlo Engineering.              *", "*     TechOps 1-800-555-0142      *",
    "*     BBS:    1-800-555-0143      *", "*     FAX:    1-800-555-0144      *",
    "***********************************",
};

constexpr bool allOfWidth(std::size_t width)
{
    return std::all_of(kBanner.begin(), kBanner.end(),
                       [width](std::string_view line) { return line.size() == width; });
}

static_assert(allOfWidth(kBannerWidth), "the banner is a box");

// One-shot flags: 1 until the step has begun.
int16_t firstSystemCallFailure = 1;
int16_t firstBanner = 1;
int16_t firstLogClose = 1;
int16_t firstGshmTerminate = 1;
int16_t firstQueueTerminate = 1;
int16_t firstSyncTerminate = 1;
int16_t firstFreeall = 1;

bool dying = false;  // between the first fatal entry point and the way out

// True the first time, and never again.
bool takeOnce(int16_t* flag)
{
    if (*flag == 0) {
        return false;
    }
    *flag = 0;
    return true;
}
}  // namespace

bool rmsrv::inFatalPath()
{
    return dying;
}

void rmsrv::leaveFatalPath()
{
    dying = false;
}

void rmsrv::outOfMemory()
{
    dying = true;
    rm_systemLogWrite("Out of memory!");
    rm_errorExit();
}

void rm_errorJump(jmp_buf env)
{
    std::memcpy(error_jmp_buf, env, sizeof(jmp_buf));
    error_jmpset = 1;
}

void rm_exitJump(jmp_buf env)
{
    std::memcpy(exit_jmp_buf, env, sizeof(jmp_buf));
    exit_jmpset = 1;
}

void internalErrorExit(const char* function, const char* message, int32_t error)
{
    dying = true;
    if (takeOnce(&firstSystemCallFailure)) {
        rm_systemLogWrite("**** %s() %s, errno=%d (%s)", function, message, error,
                          std::strerror(error));
    }
    std::printf("**** %s() %s, errno=%d (%s)\n", function, message, error, std::strerror(error));
    rm_errorExit();
}

void fatalRMExit(const char* message)
{
    dying = true;
    rm_systemLogWrite("***Fatal resource manager error***");
    rm_systemLogWrite("    Specific problem: %s", message);
    rm_errorExit();
}

void rm_errorExit()
{
    dying = true;
    rm_exitCritSec(0);
    rm_exitCritSec(1);
    if (rm_foregroundThread() == 0 && error_jmpset == 1) {
        rm_setOSTerm(kTermUnwinding);
        rm_threadEnd();  // comes back at once where a thread is a process
    }
    if (takeOnce(&firstBanner)) {
        for (const std::string_view line : kBanner) {
            rm_systemLogWrite("%s", line.data());
        }
    }
    if (error_jmpset == 1) {
        rm_systemLogWrite("Exiting to shutdown processing");
        unwindTo(error_jmp_buf, kFatalJumpValue);
    }
    rm_systemLogWrite("Exiting to operating system");
    // Deliberate: 0, not a failure status. Supervisors tell the two ends apart by the log.
    rm_exit(0);
}

void rm_exit(int16_t code)
{
    dying = true;
    if (sysfile != RM_NONE && takeOnce(&firstLogClose)) {
        rm_systemLogClose();
    }
    rm_setOSTerm(kTermExiting);
    if (takeOnce(&firstGshmTerminate)) {
        rm_gshmTerminate();
    }
    if (takeOnce(&firstQueueTerminate)) {
        rm_queueTerminate();
    }
    if (takeOnce(&firstSyncTerminate)) {
        rm_syncTerminate();
    }
    if (takeOnce(&firstFreeall)) {
        rm_freeall();
    }
    if (exit_jmpset == 1) {
        unwindTo(exit_jmp_buf, code);
    }
    std::exit(code);
}

void rm_userSave(const char* name, uint16_t session)
{
    StrncpyZ(szUserName_save, name, sizeof(szUserName_save));
    hSess_save = session;
}

void rm_userGet(char* name, uint16_t* session)
{
    if (name != nullptr) {
        std::memcpy(name, szUserName_save, std::strlen(szUserName_save) + 1);
    }
    if (session != nullptr) {
        *session = hSess_save;
    }
}
