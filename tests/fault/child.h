// The life of a host under an injection, from its first line to its last.
#ifndef RM_TESTS_FAULT_CHILD_H
#define RM_TESTS_FAULT_CHILD_H

#include "scenario.h"

namespace fault
{

struct Host {
    bool log;  // has a log file, at level 2
    bool fatalTarget;
    bool exitTarget;
};

constexpr int16_t kExitCode = 7;      // of a host that came through
constexpr int16_t kShutdownCode = 8;  // of one that shuts down after a fatal jump
constexpr const char* kLogFile = "run.log";

// Never comes back; the page tells what happened.
[[noreturn]] void liveAsHost(const Host& host, const Scenario& scenario,
                             const Injection& injection);

// The last line of every child.
[[noreturn]] void endOfChild();

}  // namespace fault

#endif
