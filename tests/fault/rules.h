// The rules by which a worker judges what has become of a host.
#ifndef RM_TESTS_FAULT_RULES_H
#define RM_TESTS_FAULT_RULES_H

#include "child.h"

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace fault
{

// What has become of the host.
enum class Fate : uint8_t { kWentOn, kReturnedError, kFatalExit, kFatalJump, kFates };

std::string_view nameOf(Fate fate);

// A life as its worker sees it.
struct Life {
    const Page* page;
    Host host;
    const Scenario* scenario;
    Injection injection;
    int waitStatus;                  // as waitpid gives it
    bool outOfTime;                  // it was killed
    std::string out;                 // standard output
    std::string err;                 // standard error
    std::string log;                 // all log files
    std::vector<std::string> files;  // in its directory
    std::string objects;             // IPC objects that it left: "s", "m", "q", each once or more
};

Fate fateOf(const Life& life);

// What is known and not yet mended: such findings are counted apart.
struct Deviation {
    const char* scenario;
    const char* call;
    const char* text;  // part of the finding
    const char* reason;
};

std::span<const Deviation> knownDeviations();

// The finding is one of them.
bool isKnown(const Life& life, const std::string& finding);

// How the finding begins that the call to fail was not made.
constexpr std::string_view kHit = "[hit]";

// Every rule that was broken, "[rule] text"; what the host itself has found comes first.
std::vector<std::string> judgeLife(const Life& life);

}  // namespace fault

#endif
