// Scenarios: what a host does with the library, told step by step so that each step can be judged.
//
// Why: what a call may give when something fails is documented with the call. A scenario says it
// where it calls, once for all injections:
//
//     const int16_t handle = RM_HANDLE(rm_fileOpen, ("f", RM_O_RDWR, 0, 0, 0));   // >= 0, or -1
//     if (RM_STATUS(rm_flSync, (fd), 0) == 0) { ... }                             // 0 and nothing
//     else expect(fileHolds("f", "abc"), "effect", "...");
//
// No object with a destructor may live in a scenario: fatal errors jump over its frames.
#ifndef RM_TESTS_FAULT_SCENARIO_H
#define RM_TESTS_FAULT_SCENARIO_H

#include "inject.h"
#include "page.h"

#include "rm.h"

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

namespace fault
{

// Which hosts live through a scenario.
enum class Hosts : uint8_t {
    kFew,   // without targets and log file; with both targets and a log file
    kSome,  // beside these: with one target each
    kAll    // every combination of fatal target, exit target, log file
};

struct Scenario {
    const char* name;
    void (*run)();
    // Looks at what the files hold, whatever happened before: after the scenario, and after a fatal
    // jump. Faults are paused. Null when there is nothing.
    void (*verify)();
    Hosts hosts;
    bool endsItself;            // the scenario itself enters the fatal path, or rm_exit
    bool withoutInput = false;  // the host has closed its standard input
};

std::span<const Scenario> coreScenarios();
std::span<const Scenario> memoryScenarios();
std::span<const Scenario> ipcScenarios();
std::span<const Scenario> fileScenarios();
std::span<const Scenario> textScenarios();
std::span<const Scenario> moduleScenarios();
std::span<const Scenario> containerScenarios();

// The host calls an exported function now.
void entering(const char* function);

// The function, noted as called.
#define RM(function) (::fault::entering(#function), function)

// What a call has given: `value` is its success when it is one of `good`, a documented failure when
// it is one of `bad`, else a finding. Without an injection every call must succeed.
void judge(const char* function, int64_t value, bool good, bool bad);

template <typename T>
T judged(const char* function, T value, int64_t good, std::initializer_list<int64_t> bad)
{
    bool isBad = false;
    for (const int64_t each : bad) {
        isBad = isBad || static_cast<int64_t>(value) == each;
    }
    judge(function, static_cast<int64_t>(value), static_cast<int64_t>(value) == good, isBad);
    return value;
}

template <typename T>
T judgedHandle(const char* function, T value)
{
    judge(function, value, value >= 0, value == -1);
    return value;
}

template <typename T>
T judgedErrno(const char* function, T value)
{
    judge(function, value, value == 0, value == injectedError());
    return value;
}

template <typename T>
T* judgedPointer(const char* function, T* value, bool mayBeNull)
{
    judge(function, value != nullptr ? 1 : 0, value != nullptr, mayBeNull);
    return value;
}

// NOLINTBEGIN(bugprone-macro-parentheses): they are the parentheses of a call

// The call's status: the first value is its success, those behind it its documented failures.
#define RM_STATUS(function, arguments, good, ...) \
    ::fault::judged(#function, RM(function) arguments, good, {__VA_ARGS__})
// A handle: 0 or more, or -1.
#define RM_HANDLE(function, arguments) ::fault::judgedHandle(#function, RM(function) arguments)
// 0, or the errno of the failure.
#define RM_ERRNO(function, arguments) ::fault::judgedErrno(#function, RM(function) arguments)
// A pointer that is never null, and one that is null after a failure.
#define RM_POINTER(function, arguments) \
    ::fault::judgedPointer(#function, RM(function) arguments, false)
#define RM_POINTER_OR_NULL(function, arguments) \
    ::fault::judgedPointer(#function, RM(function) arguments, true)

// NOLINTEND(bugprone-macro-parentheses)

// A rule that must hold.
[[gnu::format(printf, 3, 4)]] void expect(bool holds, const char* rule, const char* format, ...);

// What is promised only as long as nothing has failed.
[[gnu::format(printf, 2, 3)]] void expectWithoutFault(bool holds, const char* format, ...);

// --- Files, seen past the library and its faults

void writeFile(const char* path, std::string_view text);
bool fileExists(const char* path);
bool fileHolds(const char* path, std::string_view text);
// The text stands somewhere in the file.
bool fileHas(const char* path, std::string_view text);

// What a scenario has written into a file by the counts that it was given.
struct Model {
    char bytes[4096];
    uint32_t size;

    void put(uint32_t offset, const void* data, uint32_t length);
};

// The file begins with the model's bytes, and what it has beyond them is zeros.
bool fileIsModel(const char* path, const Model& model);

}  // namespace fault

#endif
