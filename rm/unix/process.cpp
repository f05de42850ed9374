// Processes, environment and raw memory: the thinnest layer over the operating system.
//
// Why: the interface serves platforms with threads too. On this one a "thread" is a process, the
// foreground thread is the process that asked first, and the critical sections are empty. Callers
// enter and leave them in pairs all the same, which is what lets a port fill them in.
//
// Owns: who is in the foreground, the default priority, the termination state.
//
// Lifecycle: a forked child inherits all three, so in a child rm_foregroundThread is 0 until the
// child says rm_setForegroundThread. The fatal path tells workers from the foreground by that.
//
// Fatal: nothing here.
#include "rm/unix/unix.h"

#include <cstdlib>

#include <unistd.h>

namespace os
{
int32_t ForegroundThreadID = -1;
int16_t DefaultPriority = 0;
}  // namespace os

int16_t rmanTerm = 0;  // 0 running, 2 a worker's fatal error unwinds, 3 rm_exit runs

namespace
{
constexpr uint32_t kMsPerSecond = 1000;

void decideForeground()
{
    if (os::ForegroundThreadID == -1) {
        os::ForegroundThreadID = getpid();
    }
}
}  // namespace

int16_t rm_threadDefaultPriority(int16_t priority)
{
    os::DefaultPriority = priority;
    return 0;
}

int16_t rm_threadBegin(...)
{
    decideForeground();
    return 1;
}

void rm_threadEnd() {}

int16_t rm_foregroundThread()
{
    decideForeground();
    return os::ForegroundThreadID == getpid() ? 1 : 0;
}

int16_t rm_setForegroundThread()
{
    os::ForegroundThreadID = getpid();
    return static_cast<int16_t>(os::ForegroundThreadID);
}

void rm_enterCritSec(int16_t /*section*/) {}

void rm_exitCritSec(int16_t /*section*/) {}

uint32_t rm_sleep(uint32_t milliseconds)
{
    // Unsigned: the last 999 values wrap around to no sleep at all.
    return sleep((milliseconds + (kMsPerSecond - 1)) / kMsPerSecond);
}

char* rm_OSgetenv(const char* name)
{
    return std::getenv(name);
}

void rm_setOSHandleLimit() {}

void rm_setOSTerm(int16_t state)
{
    rmanTerm = state;
}

int16_t rm_getOSTerm()
{
    return rmanTerm;
}

void* rm_getSeg(uint32_t size)
{
    return std::malloc(size);
}

void rm_freeSeg(void* segment)
{
    std::free(segment);
}
