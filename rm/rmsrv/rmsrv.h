// Service core, front page: the fatal path, the log, statistics and start-up.
//
//   fatal.cpp    registered jump targets, the three fatal entry points, rm_exit
//   unwind.cpp   the one place that leaves frames behind
//   syslog.cpp   the log writer and its optional variant
//   logformat.cpp  the second expansion of optional messages
//   logfile.cpp  the log file: opening it over the one of the previous run, closing it
//   stats.cpp    counters of events, for the host
//   startup.cpp  rm_init, the settings that the other services read, the state of the disk
#ifndef RM_RMSRV_RMSRV_H
#define RM_RMSRV_RMSRV_H

#include "rm/base.h"

#include <csetjmp>
#include <cstddef>
#include <cstdint>

namespace rmsrv
{

// --- fatal.cpp

extern jmp_buf error_jmp_buf;     // the host's target for fatal errors
extern int32_t error_jmpset;      // 1 once rm_errorJump ran; never cleared
extern jmp_buf exit_jmp_buf;      // the host's target for the end of the process
extern int32_t exit_jmpset;       // 1 once rm_exitJump ran; never cleared
extern char szUserName_save[15];  // at most 14 characters and the terminator
extern uint16_t hSess_save;

// True from the first fatal entry point, or rm_exit, until control is back in the host. Whoever
// would wait for another process asks this first: a dying process waits for nothing that has
// already failed it once.
bool inFatalPath();

// Called by unwindTo alone.
void leaveFatalPath();

// "Out of memory!" and the fatal path: the answer to every request that cannot be met.
[[noreturn]] void outOfMemory();

// --- unwind.cpp

// Gives back what the abandoned frames held and jumps to `env`, where setjmp returns `value`.
[[noreturn]] void unwindTo(jmp_buf env, int value);

// --- syslog.cpp

constexpr std::size_t kLogMessageSize = 260;  // bytes of one message, terminator included

extern int32_t writingLogFile;  // the re-entry flag: 1 while a line goes into the log file
extern int16_t failedLogFile;   // the handle of a log file that gets no lines; RM_NONE for none

// In place of that handle: two have failed, and the next one may be the first of them again.
constexpr int16_t kEveryLogFile = -2;

// Called when frames are abandoned. A line that was on its way into the log file has failed it:
// until that file is closed, lines go to standard error only, unless the host has set another one.
// A host that logs in its shutdown processing would else come back to it for ever.
void abandonLogLine();

// The file that had failed is closed: what gets its handle next is tried again.
void trustLogFile();

// --- logfile.cpp

// The handle of the log file is none any more.
void forgetLogFile();

// --- stats.cpp

extern uint32_t* stattab;   // the counters, under tag 0; null before their first use
extern uint16_t statcount;  // how many there are

// Forgets the counters without freeing them: their memory is about to go.
void forgetStatistics();

// --- logformat.cpp

// Expands `text` as a format for which no arguments exist: every conversion prints the zero of its
// type, "%n" does nothing. The result is cut at size - 1 bytes. Returns its length.
std::size_t expandOverZeros(char* out, std::size_t size, const char* text);

}  // namespace rmsrv

#endif
