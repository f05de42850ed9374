// What a child tells its worker: a page that both see, since the child may end at any moment.
#ifndef RM_TESTS_FAULT_PAGE_H
#define RM_TESTS_FAULT_PAGE_H

#include <array>
#include <cstddef>
#include <cstdint>

#include <sys/types.h>

namespace fault
{

constexpr std::size_t kMostCalls = 64;       // rows of the table of calls
constexpr std::size_t kMostFunctions = 256;  // exported by the library
constexpr std::size_t kMostObjects = 64;     // IPC objects that one child makes

struct IpcNote {
    char kind;  // 's' set of semaphores, 'm' shared memory, 'q' queue
    int32_t id;
};

// How the library was told to end for the first time.
enum class End : uint8_t { kNone, kSystemCall, kCondition, kErrorExit, kMemory };

struct Page {
    std::array<uint32_t, kMostCalls> calls;         // made outside of pauses, by row
    std::array<uint8_t, kMostFunctions> functions;  // 1: the host has called the exported function

    // The injection
    uint32_t hits;
    char hitIn[48];       // exported function that the host was in
    uint8_t hitRemoving;  // it answered a call that removes something
    uint8_t hitAtEnd;     // in a call that deletes or ends objects, rm_exit among them

    // The host's life
    char inside[48];        // exported function that it has called last
    uint8_t survived;       // the scenario came to its end
    uint8_t finished;       // the child came to its last line
    uint8_t exited;         // through exit(), with this status
    int32_t exitStatus;     //
    int32_t exitJump;       // value at the exit target; 0 when control never came there
    uint32_t fatalJumps;    // arrivals at the fatal target
    uint32_t failures;      // calls that gave a documented failure
    End end;                // the first fatal end
    char endText[160];      // its text
    char endLine[400];      // the line that the log must have of it; empty when it has none
    int32_t endError;       // its errno
    uint8_t endBeforeHit;   // it came without the injection
    uint8_t endWithLog;     // the log file was open
    uint32_t ends;          // fatal ends
    uint8_t endlessWait;    // a wait that nobody could have ended
    int64_t longestWaitMs;  // of the scenario's clock, in one call
    char longestIn[48];     // that call

    std::array<IpcNote, kMostObjects> objects;
    uint32_t objectCount;

    uint32_t findings;
    char text[8192];  // one line each
};

// Says that a rule was broken. `rule` is its name.
[[gnu::format(printf, 2, 3)]] void finding(const char* rule, const char* format, ...);

// Notes that the host has called the exported function; exports.cpp.
void noteCalled(const char* function);

// The page of this process and its children.
Page& page();

}  // namespace fault

#endif
