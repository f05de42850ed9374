// Injections: one failure of one call, in a process with a clock and IPC keys of its own.
//
// Why: a scenario must make the same calls each time, and a wait of fourteen seconds must cost
// nothing. So beside the failure itself some calls are answered here: the clock goes on when
// somebody waits, a lock that nobody else could leave is a time-out at once, or an endless wait
// when there is none; and the keys of IPC objects are this process's own.
#ifndef RM_TESTS_FAULT_INJECT_H
#define RM_TESTS_FAULT_INJECT_H

#include "calls.h"
#include "page.h"

#include <cstdint>

namespace fault
{

enum class Mode : uint8_t { kOnce, kForEver };

struct Injection {
    std::size_t row = 0;  // of the table of calls
    uint32_t k = 0;       // the first call that fails, counted from 1; 0: none does
    Outcome outcome;
    Mode mode = Mode::kOnce;
};

// Arms the table of calls, and what is always answered here; once, before the first child.
void installWrappers();

// From here on calls are counted and the injection is armed.
void arm(const Injection& injection);

// The host calls the library anew.
void beginCall();

// Calls in between are the checks' own: neither counted nor failed.
void pauseFaults();
void resumeFaults();

// From here on no file can be renamed: its target is on another disk.
void refuseRenames();

// The injection has answered a call.
bool wasHit();

// It has answered a call of that row with that errno.
bool wasHit(const char* call, int error);

// The errno of the injection; 0 when it has none.
int injectedError();

// The clock of this process has gone on by so much since it was armed, ms.
int64_t elapsedMs();

// Seconds of the alarm that is set; 0 when there is none.
unsigned alarmSet();

// Blocks that the library has from the platform.
int64_t blocksHeld();

// Calls to the fatal path are noted on the page; rm_exit as well.
void noteEnd(End end, const char* text, const char* line, int error);

}  // namespace fault

#endif
